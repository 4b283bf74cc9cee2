#include "qvctrl_tenants.h"

#include <memory>
#include <new>

#include "log.h"
#include "qv_validate.h"

namespace {

using tenant_list = qvhlp_list<quorvale_tenant_mapping_t>;

// Iterator rule of the tenant list: a 1000 ms deadline, a try every 25 ms, no try limit.
tenant_list::iteration s_walk(tenant_list& list) {
    return list.iterator_wait(1000, 0, 25);
}

// Tenant and realm names come from the gateway's answers: shown escaped.
std::string s_shown(const std::string& text) {
    return qv_escape_for_log(text, QV_VALUE_MAX);
}

// The first mapping of the realm in the walk, or null.
tenant_list::element s_find(tenant_list::iteration& walk, const char* realmID) {
    while (walk.hasnext()) {
        tenant_list::element mapping = walk.next();
        if (mapping && mapping->realmID == realmID) {
            log_debug("Found tenantID %s and realmName %s for realmID %s",
                      s_shown(mapping->tenantID).c_str(), s_shown(mapping->realmName).c_str(),
                      s_shown(mapping->realmID).c_str());
            return mapping;
        }
    }
    return nullptr;
}

}  // namespace

int qvctrl_add_tenant_mapping(tenant_list& list, const char* tenantID, const char* realmID,
                              const char* realmName) {
    if (tenantID == nullptr || realmID == nullptr || realmName == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    tenant_list::element mapping;
    const char* what = "mapping";
    try {
        mapping = std::make_shared<quorvale_tenant_mapping_t>();
        what = "mapping->realmID";
        mapping->realmID = realmID;
        what = "mapping->tenantID";
        mapping->tenantID = tenantID;
        what = "mapping->realmName";
        mapping->realmName = realmName;
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate %s", what);
        return -1;
    }

    // The check and the append happen under one walk, so that two answers for the same realm
    // arriving together cannot both add a mapping.
    tenant_list::iteration walk = s_walk(list);
    if (!walk) {
        return -1;
    }
    if (s_find(walk, realmID) != nullptr) {
        log_trace("Tenant mapping already exists for realmID %s",
                  s_shown(mapping->realmID).c_str());
        return 0;
    }
    log_trace("Adding tenantID %s and realmName %s for realmID %s",
              s_shown(mapping->tenantID).c_str(), s_shown(mapping->realmName).c_str(),
              s_shown(mapping->realmID).c_str());
    return list.append(std::move(mapping)) == 0 ? 0 : -1;
}

int qvctrl_get_tenantID_by_realmID(tenant_list& list, const char* realmID,
                                   std::string* out_tenantID, std::string* out_realmName) {
    if (realmID == nullptr) {
        return -1;
    }
    tenant_list::iteration walk = s_walk(list);
    if (!walk) {
        return -1;
    }
    const tenant_list::element mapping = s_find(walk, realmID);
    walk.stop();
    if (!mapping) {
        return -1;
    }
    try {
        if (out_tenantID != nullptr) {
            *out_tenantID = mapping->tenantID;
        }
        if (out_realmName != nullptr) {
            *out_realmName = mapping->realmName;
        }
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate %s", "tenant copy");
        return -1;
    }
    return 0;
}
