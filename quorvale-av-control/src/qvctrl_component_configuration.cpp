#include "qvctrl_component_configuration.h"

#include <exception>
#include <functional>
#include <new>
#include <string_view>
#include <vector>

#include "log.h"
#include "qv_base64_decode.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvctrl_flush_worker_caches.h"
#include "qvctrl_worker_request_handlers.h"

namespace {

using config_list = qvctrl_component_configuration_list;

bool s_is_set(const char* text) {
    return text != nullptr && text[0] != '\0';
}

// Realm and SID as a log line shows them.
std::string s_shown(std::string_view text) {
    return qv_escape_for_log(text, QV_VALUE_MAX);
}

// The list's iterator, tried every 50 ms for up to a second; a holder that keeps it longer makes
// the caller give up rather than hang a handler thread.
config_list::iteration s_walk(config_list* list) {
    return list->iterator_wait(1000, 20, 50);
}

// Removes every record `matches` selects, telling the workers of `service` about each one. The
// number removed, or -1.
int s_remove_matching(
    quorvale_control_config_t* config, const char* service, config_list* list,
    const std::function<bool(const qv_ctrl_component_configuration_t&)>& matches) {
    if (list == nullptr) {
        log_error("config_list is NULL");
        return -1;
    }
    config_list::iteration walk = s_walk(list);
    if (!walk) {
        log_error("Failed to start list iterator.");
        return -1;
    }
    // The walk goes over a snapshot, so that removing as it goes is the same as starting over
    // from the head after each removal.
    int removed = 0;
    while (walk.hasnext()) {
        qvctrl_component_configuration_ref record = walk.next();
        if (!record || !matches(*record)) {
            continue;
        }
        log_debug("deleting configuration for realmID %s and SID %s",
                  s_shown(record->realmID).c_str(), s_shown(record->SID).c_str());
        list->remove(record.get());
        qvctrl_flush_worker_caches(config, service, record->realmID.c_str(), record->SID.c_str());
        qv_ctrl_component_configuration_free(&record);
        ++removed;
    }
    return removed;
}

}  // namespace

qv::json_ptr qvctrl_component_configuration_parse_to_json(const char* key,
                                                          json_object* message_object) {
    if (key == nullptr || qv_json_get_required_string(message_object, key) == nullptr) {
        return nullptr;
    }
    log_trace("Decoding %s config", key);
    std::vector<unsigned char> decoded;
    try {
        // The whole member, embedded NUL bytes included: the decoder skips what is not base64.
        decoded = new_base64_decode(qv_json_get_text(message_object, key));
    } catch (const std::exception&) {
        log_error("Failed to allocate memory for %s", "str");
        return nullptr;
    }
    if (decoded.empty()) {
        return nullptr;
    }
    qv::json_ptr object = qvctrl_decode_request(
        std::string(reinterpret_cast<const char*>(decoded.data()), decoded.size()));
    if (!object) {
        return nullptr;
    }
    log_debug("Parsed %s config to JSON", key);
    return object;
}

int qvctrl_component_configuration_parse_store(config_list* list, const char* key,
                                               json_object* message_object, const char* realm,
                                               const char* SID, qv::json_ptr* out_object,
                                               bool store) {
    if (out_object == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    const char* kind = key != nullptr ? key : "";
    *out_object = qvctrl_component_configuration_parse_to_json(key, message_object);
    if (!*out_object) {
        log_error("Failed to parse %s config", kind);
        return -1;
    }
    if (!store) {
        return 0;
    }
    // The list keeps a reference of its own; the caller keeps *out_object either way.
    qv::json_ptr kept(json_object_get(out_object->get()));
    if (list == nullptr ||
        qv_ctrl_component_configuration_add(list, realm, SID, std::move(kept)) != 0) {
        log_error("Failed to store %s config", kind);
        return -1;
    }
    log_trace("Added %s config for realm \"%s\" and SID \"%s\" to cache", kind,
              s_shown(realm).c_str(), s_shown(SID).c_str());
    return 0;
}

qvctrl_component_configuration_ref qv_ctrl_component_configuration_new(const char* realm,
                                                                       const char* SID,
                                                                       qv::json_ptr object) {
    if (!s_is_set(realm) || !s_is_set(SID) || !object) {
        log_error("Invalid parameters");
        return nullptr;
    }
    try {
        auto record = std::make_shared<qv_ctrl_component_configuration_t>();
        record->realmID = realm;
        record->SID = SID;
        record->configuration_json = std::move(object);
        return record;
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for %s", "config");
        return nullptr;
    }
}

void qv_ctrl_component_configuration_free(qvctrl_component_configuration_ref* record_ref) {
    if (record_ref != nullptr) {
        record_ref->reset();
    }
}

qvctrl_component_configuration_ref qv_ctrl_component_configuration_find(config_list* list,
                                                                        const char* realm,
                                                                        const char* SID) {
    if (list == nullptr || realm == nullptr || SID == nullptr) {
        return nullptr;
    }
    config_list::iteration walk = s_walk(list);
    if (!walk) {
        return nullptr;
    }
    while (walk.hasnext()) {
        qvctrl_component_configuration_ref record = walk.next();
        if (record && record->realmID == realm && record->SID == SID) {
            return record;
        }
    }
    return nullptr;
}

int qv_ctrl_component_configuration_add(config_list* list, const char* realm, const char* SID,
                                        qv::json_ptr object) {
    qvctrl_component_configuration_ref record =
        qv_ctrl_component_configuration_new(realm, SID, std::move(object));
    if (!record) {
        log_error("Failed to create configuration object");
        return -1;
    }
    if (list == nullptr || list->append(record) != 0) {
        log_error("Failed to append configuration to list");
        qv_ctrl_component_configuration_free(&record);
        return -1;
    }
    return 0;
}

int qv_ctrl_component_configuration_remove(quorvale_control_config_t* config, const char* service,
                                           config_list* list, const char* realm, const char* SID) {
    if (s_is_set(realm) && s_is_set(SID)) {
        return qv_ctrl_component_configuration_remove_realm_sid(config, service, list, realm, SID);
    }
    if (s_is_set(realm)) {
        return qv_ctrl_component_configuration_remove_realm(config, service, list, realm);
    }
    return qv_ctrl_component_configuration_remove_all(config, service, list);
}

int qv_ctrl_component_configuration_remove_realm_sid(quorvale_control_config_t* config,
                                                     const char* service, config_list* list,
                                                     const char* realm, const char* SID) {
    if (!s_is_set(realm) || !s_is_set(SID)) {
        log_error("Invalid parameters");
        return -1;
    }
    return s_remove_matching(config, service, list,
                             [realm, SID](const qv_ctrl_component_configuration_t& record) {
                                 return record.realmID == realm && record.SID == SID;
                             });
}

int qv_ctrl_component_configuration_remove_realm(quorvale_control_config_t* config,
                                                 const char* service, config_list* list,
                                                 const char* realm) {
    if (!s_is_set(realm)) {
        log_error("Invalid parameters");
        return -1;
    }
    return s_remove_matching(config, service, list,
                             [realm](const qv_ctrl_component_configuration_t& record) {
                                 return record.realmID == realm;
                             });
}

int qv_ctrl_component_configuration_remove_all(quorvale_control_config_t* config,
                                               const char* service, config_list* list) {
    if (list == nullptr) {
        log_error("config_list is NULL");
        return -1;
    }
    int removed = 0;
    {
        config_list::iteration walk = s_walk(list);
        if (!walk) {
            log_error("Failed to start list iterator.");
            return -1;
        }
        while (walk.hasnext()) {
            qvctrl_component_configuration_ref record = walk.next();
            if (record && list->remove(record.get()) == 0) {
                qv_ctrl_component_configuration_free(&record);
                ++removed;
            }
        }
    }
    // One flush of everything the service cached instead of one per record.
    qvctrl_flush_worker_caches(config, service, nullptr, nullptr);
    log_debug("Removed %d configurations", removed);
    return removed;
}
