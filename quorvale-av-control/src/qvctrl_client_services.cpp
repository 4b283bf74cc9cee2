#include "qvctrl_client_services.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

#include "log.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvhlp_replies.h"
#include "qvhlp_string.h"

namespace {

// A requested service name as it is looked up: lower-cased (at most 1023 characters), trimmed of
// surrounding white space, cut to 255 characters.
std::string s_normalise_service_name(std::string_view name) {
    std::string lower(name.substr(0, 1023));
    for (char& c : lower) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return std::string(qvhlp_trim(lower).substr(0, QV_VALUE_MAX));
}

qv_message_t s_refuse(const char* text, std::string_view value) {
    qv_message_t reply;
    qv_log_refused(text, value);
    qv_reply_set_ERROR(&reply, -1, text);
    return reply;
}

}  // namespace

qv_message_t qvctrl_handle_client_services_request(json_object* request,
                                                   quorvale_control_config_t* /*config*/) {
    log_trace("Entering");
    qv_message_t reply;
    std::string reason;
    const char* realm = qv_json_get_required_string(request, "realmID", &reason);
    // Realm and SID name configuration keys and directories elsewhere: one name each.
    if (realm != nullptr && !qv_valid_name(qv_json_get_text(request, "realmID"))) {
        reply = s_refuse("Invalid realm", qv_json_get_text(request, "realmID"));
        log_trace("Exiting");
        return reply;
    }
    const char* SID =
        realm != nullptr ? qv_json_get_required_string(request, "SID", &reason) : nullptr;
    if (SID != nullptr && !qv_valid_name(qv_json_get_text(request, "SID"))) {
        reply = s_refuse("Invalid SID", qv_json_get_text(request, "SID"));
        log_trace("Exiting");
        return reply;
    }
    const char* hostname =
        SID != nullptr ? qv_json_get_required_string(request, "Hostname", &reason) : nullptr;
    const char* service = hostname != nullptr
                              ? qv_json_get_required_string(request, "Servicename", &reason)
                              : nullptr;
    if (service == nullptr) {
        qv_reply_set_ERROR(&reply, -1, reason.c_str());
        log_trace("Exiting");
        return reply;
    }
    const std::string_view service_text = qv_json_get_text(request, "Servicename");
    // The host name goes nowhere but this line; the service name is shown as it came.
    log_trace("%s - %s at %s is requesting service \"%s\"", realm, SID,
              qv_escape_for_log(qv_json_get_text(request, "Hostname"), QV_VALUE_MAX).c_str(),
              qv_escape_for_log(service_text, QV_VALUE_MAX).c_str());
    if (!qv_valid_key(s_normalise_service_name(service_text))) {
        reply = s_refuse("Invalid service name", service_text);
        log_trace("Exiting");
        return reply;
    }
    // Any service may be used: the announcement is only acknowledged.
    qv_reply_set_OK(&reply);
    log_trace("Exiting");
    return reply;
}
