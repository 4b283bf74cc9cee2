// The configuration cache shared by every control instance: the bucket "qv-av-config" holds the
// scan, MIME and active-content configuration of each realm and SID as compact JSON text.
//
// Keys are a kind's prefix ("scan.", "mimeext.", "mimexlat.", "ac."), the realm and, for a SID of
// its own, "." and the SID; a key must fit in 511 characters and use the bucket key alphabet,
// anything else is refused (logged) before the bucket is asked. Entries carry no lease. Every
// failure degrades to a miss (get) or a logged warning (put, prefix delete), and a stored value
// that is not JSON counts as absent, so that the next fill overwrites it.
#pragma once

#include <functional>
#include <string>

#include "qv_handles.h"
#include "qvctrl_config.h"

inline constexpr const char* QVCTRL_CONFIG_PREFIX_SCAN = "scan.";
inline constexpr const char* QVCTRL_CONFIG_PREFIX_MIMEEXT = "mimeext.";
inline constexpr const char* QVCTRL_CONFIG_PREFIX_MIMEXLAT = "mimexlat.";
inline constexpr const char* QVCTRL_CONFIG_PREFIX_AC = "ac.";
// Longest key, in characters.
inline constexpr size_t QVCTRL_CONFIG_KEY_MAX = 511;

// "<prefix><realm>[.<SID>]" into *key; false (logged) when it is longer than 511 characters or
// no bucket key.
bool qvctrl_config_kv_build_key(std::string* key, const char* prefix, const char* realm,
                                const char* SID);

// The configuration of one kind for realm and SID (a null or empty SID: the realm-wide one), or
// null on a miss or an error.
qv::json_ptr qvctrl_config_kv_get(quorvale_control_config_t* config, const char* prefix,
                                  const char* realm, const char* SID);
// Stores the object's compact text under its key, without a lease.
void qvctrl_config_kv_put(quorvale_control_config_t* config, const char* prefix, const char* realm,
                          const char* SID, json_object* object);
void qvctrl_config_kv_delete(quorvale_control_config_t* config, const char* prefix,
                             const char* realm, const char* SID);
// Deletes every key that begins with `prefix` (a kind's prefix, optionally followed by a realm).
void qvctrl_config_kv_delete_prefix(quorvale_control_config_t* config, const char* prefix);
// Calls `callback(realm, SID)` once for every realm/SID pair that has a configuration of any
// kind (realm-wide entries are not reported). 0, or -1 when the bucket cannot be listed.
int qvctrl_config_kv_for_each_realm_sid(
    quorvale_control_config_t* config,
    const std::function<void(const char* realm, const char* SID)>& callback);
// On a miss in cloud mode: fetches all four configurations of realm and SID from the API gateway,
// stores every kind that came back under its own prefix, and returns the one of kind `prefix`
// (null when it was not delivered, for any other prefix, or when the fetch failed).
qv::json_ptr qvctrl_config_kv_cloud_fill(quorvale_control_config_t* config, const char* realm,
                                         const char* SID, const char* prefix);
