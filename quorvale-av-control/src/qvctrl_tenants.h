// Tenants: which tenant a realm belongs to and the realm's display name, kept in memory for the
// life of the daemon (config->tenants). The API gateway's configuration answers fill the list;
// the tenant lookup of the scan configuration requests and the JSON log service read it. A
// mapping is never replaced: the first one recorded for a realm stays.
#pragma once

#include <string>

#include "qvctrl_config.h"
#include "qvhlp_list.h"

// Adds a mapping unless the realm has one already. 0 when added or already present, negative on
// failure (a null argument).
int qvctrl_add_tenant_mapping(qvhlp_list<quorvale_tenant_mapping_t>& list, const char* tenantID,
                              const char* realmID, const char* realmName);

// Looks the realm up (the list's iterator waited for up to 1000 ms, 25 ms steps). 0 and a copy
// into each output that is not null; -1 when the realm is unknown (outputs untouched).
int qvctrl_get_tenantID_by_realmID(qvhlp_list<quorvale_tenant_mapping_t>& list, const char* realmID,
                                   std::string* out_tenantID, std::string* out_realmName);
