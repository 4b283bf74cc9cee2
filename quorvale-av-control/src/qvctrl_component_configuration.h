// Component configurations: the decoding of a configuration that arrives as a base64-encoded JSON
// text inside a message member, and a small in-memory list of configurations per realm and SID
// whose removal tells the workers of a service to drop their cached copies.
#pragma once

#include <memory>
#include <string>

#include "qv_handles.h"
#include "qvctrl_config.h"
#include "qvhlp_list.h"

struct qv_ctrl_component_configuration_t {
    std::string realmID;  // non-empty
    std::string SID;      // non-empty
    qv::json_ptr configuration_json;
};

using qvctrl_component_configuration_list = qvhlp_list<qv_ctrl_component_configuration_t>;
using qvctrl_component_configuration_ref = std::shared_ptr<qv_ctrl_component_configuration_t>;

// The configuration held base64-encoded in the string member `key` of `message_object`, parsed;
// null when the member is missing, empty, decodes to nothing or is not JSON.
qv::json_ptr qvctrl_component_configuration_parse_to_json(const char* key,
                                                          json_object* message_object);
// Decodes into *out_object and, when `store` is set, also keeps it in the list for realm and SID.
// 0 or -1.
int qvctrl_component_configuration_parse_store(qvctrl_component_configuration_list* list,
                                               const char* key, json_object* message_object,
                                               const char* realm, const char* SID,
                                               qv::json_ptr* out_object, bool store);

// A record taking over `object`; null (logged) unless realm and SID are non-empty and the object
// given.
qvctrl_component_configuration_ref qv_ctrl_component_configuration_new(const char* realm,
                                                                       const char* SID,
                                                                       qv::json_ptr object);
// Releases the caller's reference and nulls it.
void qv_ctrl_component_configuration_free(qvctrl_component_configuration_ref* record_ref);
// The record of exactly this realm and SID, or null (also when the list's iterator cannot be had
// within 1000 ms).
qvctrl_component_configuration_ref qv_ctrl_component_configuration_find(
    qvctrl_component_configuration_list* list, const char* realm, const char* SID);
// 0, or -1 (the object is released).
int qv_ctrl_component_configuration_add(qvctrl_component_configuration_list* list,
                                        const char* realm, const char* SID, qv::json_ptr object);
// Removes the records of realm and SID (both non-empty), of the realm (SID null or empty) or all
// (neither), asking the workers of `service` to flush what was removed. The number removed, or -1.
int qv_ctrl_component_configuration_remove(quorvale_control_config_t* config, const char* service,
                                           qvctrl_component_configuration_list* list,
                                           const char* realm, const char* SID);
int qv_ctrl_component_configuration_remove_realm_sid(quorvale_control_config_t* config,
                                                     const char* service,
                                                     qvctrl_component_configuration_list* list,
                                                     const char* realm, const char* SID);
int qv_ctrl_component_configuration_remove_realm(quorvale_control_config_t* config,
                                                 const char* service,
                                                 qvctrl_component_configuration_list* list,
                                                 const char* realm);
int qv_ctrl_component_configuration_remove_all(quorvale_control_config_t* config,
                                               const char* service,
                                               qvctrl_component_configuration_list* list);
