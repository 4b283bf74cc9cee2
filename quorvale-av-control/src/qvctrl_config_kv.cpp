#include "qvctrl_config_kv.h"

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

#include "log.h"
#include "qv_connection_client.h"
#include "qv_json.h"
#include "qv_nats_kv.h"
#include "qv_validate.h"
#include "qvctrl_request_from_apigw.h"

namespace {

constexpr std::array<std::string_view, 4> s_prefixes = {
    QVCTRL_CONFIG_PREFIX_SCAN, QVCTRL_CONFIG_PREFIX_MIMEEXT, QVCTRL_CONFIG_PREFIX_MIMEXLAT,
    QVCTRL_CONFIG_PREFIX_AC};

}  // namespace

// Realm and SID come from requests: they reach the bucket only as part of a valid key.
bool qvctrl_config_kv_build_key(std::string* key, const char* prefix, const char* realm,
                                const char* SID) {
    const bool with_sid = SID != nullptr && SID[0] != '\0';
    *key = std::string(prefix) + realm;
    if (with_sid) {
        *key += '.';
        *key += SID;
    }
    if (key->size() > QVCTRL_CONFIG_KEY_MAX) {
        log_error("config KV: key too long for prefix '%s' realm '%s' SID '%s'", prefix,
                  qv_escape_for_log(realm).c_str(), qv_escape_for_log(with_sid ? SID : "").c_str());
        return false;
    }
    if (!qv_valid_key(*key, QVCTRL_CONFIG_KEY_MAX)) {
        qv_log_refused("config KV: invalid key", *key);
        return false;
    }
    return true;
}

namespace {

qv_nats_config* s_connection(quorvale_control_config_t* config) {
    return config->main_nats_config.get();
}

}  // namespace

qv::json_ptr qvctrl_config_kv_get(quorvale_control_config_t* config, const char* prefix,
                                  const char* realm, const char* SID) {
    std::string key;
    if (config == nullptr || prefix == nullptr || realm == nullptr ||
        !qvctrl_config_kv_build_key(&key, prefix, realm, SID)) {
        return nullptr;
    }
    std::string value;
    if (qv_connection_kv_get(s_connection(config), QV_KV_CONFIG_BUCKET, key.c_str(), &value) != 0 ||
        value.empty()) {
        return nullptr;
    }
    // Any client with credentials may write the bucket: a value that is JSON but no object is
    // no configuration either, and the callers add members to what they get.
    qv::json_ptr object = qv_json_parse(value);
    if (!object || !json_object_is_type(object.get(), json_type_object)) {
        log_error("config KV: corrupt JSON stored under key '%s' — treating as a miss",
                  key.c_str());
        return nullptr;
    }
    return object;
}

void qvctrl_config_kv_put(quorvale_control_config_t* config, const char* prefix, const char* realm,
                          const char* SID, json_object* object) {
    std::string key;
    if (config == nullptr || prefix == nullptr || realm == nullptr || object == nullptr ||
        !qvctrl_config_kv_build_key(&key, prefix, realm, SID)) {
        return;
    }
    const std::string text = qv_json_to_string(object);
    if (qv_connection_kv_put(s_connection(config), QV_KV_CONFIG_BUCKET, key.c_str(), text.c_str(),
                             0) == 0) {
        log_debug("config KV: wrote key '%s'", key.c_str());
    } else {
        log_warn("config KV: failed to write key '%s'", key.c_str());
    }
}

void qvctrl_config_kv_delete(quorvale_control_config_t* config, const char* prefix,
                             const char* realm, const char* SID) {
    std::string key;
    if (config == nullptr || prefix == nullptr || realm == nullptr ||
        !qvctrl_config_kv_build_key(&key, prefix, realm, SID)) {
        return;
    }
    qv_connection_kv_delete(s_connection(config), QV_KV_CONFIG_BUCKET, key.c_str());
}

void qvctrl_config_kv_delete_prefix(quorvale_control_config_t* config, const char* prefix) {
    if (config == nullptr || prefix == nullptr) {
        return;
    }
    int deleted = 0;
    qv_nats_config* connection = s_connection(config);
    const int rc =
        qv_connection_kv_keys(connection, QV_KV_CONFIG_BUCKET, prefix, [&](const char* key) {
            qv_connection_kv_delete(connection, QV_KV_CONFIG_BUCKET, key);
            ++deleted;
        });
    if (rc != 0) {
        log_warn("config KV: failed to enumerate keys under prefix '%s' for deletion", prefix);
    } else {
        log_debug("config KV: deleted %d entries under prefix '%s'", deleted, prefix);
    }
}

int qvctrl_config_kv_for_each_realm_sid(
    quorvale_control_config_t* config,
    const std::function<void(const char* realm, const char* SID)>& callback) {
    if (config == nullptr || !callback) {
        return -1;
    }
    // The members of an object: each realm/SID once, however many kinds it has, in the order met.
    qv::json_ptr seen(json_object_new_object());
    if (!seen) {
        return -1;
    }
    const int rc = qv_connection_kv_keys(
        s_connection(config), QV_KV_CONFIG_BUCKET, nullptr, [&](const char* key) {
            const std::string_view name(key);
            for (const std::string_view prefix : s_prefixes) {
                if (name.compare(0, prefix.size(), prefix) != 0) {
                    continue;
                }
                const std::string rest(name.substr(prefix.size()));
                if (!rest.empty() && rest.find('.') != std::string::npos) {
                    json_object_object_add(seen.get(), rest.c_str(), nullptr);
                }
                break;
            }
        });
    if (rc != 0) {
        return -1;
    }
    json_object_object_foreach(seen.get(), realm_sid, unused) {
        (void)unused;
        const std::string_view text(realm_sid);
        const size_t dot = text.find('.');
        const std::string realm(text.substr(0, dot));
        const std::string sid(text.substr(dot + 1));
        if (realm.empty() || realm.size() > 255 || sid.empty()) {
            continue;
        }
        callback(realm.c_str(), sid.c_str());
    }
    return 0;
}

qv::json_ptr qvctrl_config_kv_cloud_fill(quorvale_control_config_t* config, const char* realm,
                                         const char* SID, const char* prefix) {
    if (config == nullptr || realm == nullptr || SID == nullptr || prefix == nullptr) {
        return nullptr;
    }
    // One fetch delivers every kind: all of them are cached, so that the next miss of another
    // kind for this realm and SID is a hit.
    std::array<qv::json_ptr, s_prefixes.size()> fetched;
    if (qvctrl_get_configurations_from_apigw(config, realm, SID, &fetched[0], &fetched[1],
                                             &fetched[2], &fetched[3]) != 0) {
        log_error("config KV: APIGW fetch failed for realm '%s' SID '%s'",
                  qv_escape_for_log(realm).c_str(), qv_escape_for_log(SID).c_str());
        return nullptr;
    }
    qv::json_ptr requested;
    for (size_t i = 0; i < s_prefixes.size(); ++i) {
        if (!fetched[i]) {
            continue;
        }
        const std::string kind(s_prefixes[i]);
        qvctrl_config_kv_put(config, kind.c_str(), realm, SID, fetched[i].get());
        if (kind == prefix) {
            requested = std::move(fetched[i]);
        }
    }
    return requested;
}
