#include "qvctrl_client_services.h"

#include <string>

#include "log.h"
#include "qv_json.h"
#include "qvhlp_replies.h"

qv_message_t qvctrl_handle_client_services_request(json_object* request,
                                                   quorvale_control_config_t* /*config*/) {
    log_trace("Entering");
    qv_message_t reply;
    std::string reason;
    const char* realm = qv_json_get_required_string(request, "realmID", &reason);
    const char* SID =
        realm != nullptr ? qv_json_get_required_string(request, "SID", &reason) : nullptr;
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
    log_trace("%s - %s at %s is requesting service \"%s\"", realm, SID, hostname, service);
    // Any service may be used: the announcement is only acknowledged.
    qv_reply_set_OK(&reply);
    log_trace("Exiting");
    return reply;
}
