#include "qvctrl_request_from_apigw.h"

#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "log.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvctrl_apigw_transfer.h"
#include "qvctrl_component_configuration.h"
#include "qvctrl_tenants.h"
#include "qvctrl_worker_request_handlers.h"

namespace {

constexpr const char* kConfigurationsPath = "/configurations/control";
// The URL buffer of the request, terminator included.
constexpr size_t kUrlMax = 1024;

// The reply body; `exceeded` once the gateway sent more than the buffer holds.
struct reply_buffer {
    std::string body;
    bool exceeded = false;
};

size_t s_receive(char* data, size_t size, size_t nmemb, void* userdata) {
    auto* reply = static_cast<reply_buffer*>(userdata);
    const size_t chunk = size * nmemb;
    if (reply->body.size() + chunk >= QVCTRL_APIGW_MAX_REPLY) {
        reply->exceeded = true;
        log_error("Max %zu Buffer size exceeded.", QVCTRL_APIGW_MAX_REPLY);
        return 0;  // fails the transfer
    }
    try {
        reply->body.append(data, chunk);
    } catch (const std::exception&) {
        log_error("Failed to allocate %s", "reply buffer");
        return 0;
    }
    return chunk;
}

// Sets the transfer's options; false (logged) at the first the library refuses.
bool s_set_options(CURL* curl, const std::string& url, const quorvale_control_config_t* config,
                   reply_buffer* reply, char* error_buffer) {
    CURLcode rc = qvctrl_apigw_set_transfer_options(curl, url, config, error_buffer);
    if (rc == CURLE_OK) {
        rc = curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, s_receive);
    }
    if (rc == CURLE_OK) {
        rc = curl_easy_setopt(curl, CURLOPT_WRITEDATA, static_cast<void*>(reply));
    }
    if (rc != CURLE_OK) {
        log_error("Failed to set curl options: %s", curl_easy_strerror(rc));
        return false;
    }
    return true;
}

// A string member of `object`, or null.
const char* s_string_member(json_object* object, const char* name) {
    json_object* member = nullptr;
    if (!json_object_object_get_ex(object, name, &member) ||
        !json_object_is_type(member, json_type_string)) {
        return nullptr;
    }
    return json_object_get_string(member);
}

// Records the realm's tenant from the reply; false when the reply has no realm object.
bool s_record_tenant(quorvale_control_config_t* config, json_object* result, const char* realmID) {
    const char* cloudID = nullptr;
    json_object* organization = nullptr;
    if (json_object_object_get_ex(result, "organization", &organization) &&
        json_object_is_type(organization, json_type_object)) {
        log_trace("Extracting organization");
        cloudID = s_string_member(organization, "cf_accounts_quorvalecloudid");
        log_trace("realmID: %s, cloudID: %s", realmID,
                  qv_escape_for_log(cloudID != nullptr ? cloudID : "", QV_VALUE_MAX).c_str());
    }
    json_object* realm = nullptr;
    if (!json_object_object_get_ex(result, "realm", &realm) ||
        !json_object_is_type(realm, json_type_object)) {
        log_error("Failed to get realmName. No '%s' object in response", "realm");
        return false;
    }
    log_trace("Extracting realmName");
    const char* realmName = s_string_member(realm, "fld_vtcmrealmsname");
    log_trace("realmID: %s, realm Name: %s", realmID,
              qv_escape_for_log(realmName != nullptr ? realmName : "", QV_VALUE_MAX).c_str());
    // Without a tenant or a realm name there is nothing to record, but the configurations are
    // still good.
    if (qvctrl_add_tenant_mapping(config->tenants, cloudID, realmID, realmName) != 0) {
        log_error("Failed to add tenant mapping");
    }
    return true;
}

struct configuration_member {
    const char* name;
    const char* failure;
};

// The four configurations of a reply, in the order they are extracted.
constexpr configuration_member kMembers[] = {
    {"fld_scanparameters", "Failed to get scan config"},
    {"fld_mimetoextensionsmap", "Failed to get mime ext map"},
    {"fld_mimetypemappings", "Failed to get mime translations"},
    {"fld_activecontentconfiguration", "Failed to get active content"},
};

int s_fetch(quorvale_control_config_t* config, const char* realmID, const char* SID,
            qv::json_ptr* const outputs[4]) {
    if (config == nullptr || realmID == nullptr || SID == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    // Both go into the URL as they are: anything but a plain name is refused before a URL exists.
    if (!qv_valid_name(realmID)) {
        qv_log_refused("Invalid parameters: realmID", realmID);
        return -1;
    }
    if (!qv_valid_name(SID)) {
        qv_log_refused("Invalid parameters: SID", SID);
        return -1;
    }

    qv::curl_ptr curl(curl_easy_init());
    if (!curl) {
        log_error("curl init failed");
        return -1;
    }
    const std::string url =
        config->apigw_url + kConfigurationsPath + "?realmId=" + realmID + "&sidName=" + SID;
    if (url.size() >= kUrlMax) {
        log_error("Failed to build the request URL for realmID %s and SID %s", realmID, SID);
        return -1;
    }
    reply_buffer reply;
    char error_buffer[CURL_ERROR_SIZE] = "";
    if (!s_set_options(curl.get(), url, config, &reply, error_buffer)) {
        return -1;
    }

    log_trace("Requesting configurations from %s", qv_escape_for_log(url, kUrlMax).c_str());
    const CURLcode rc = curl_easy_perform(curl.get());
    if (rc != CURLE_OK) {
        log_error("curl request failed for realmID %s and SID %s: %s", realmID, SID,
                  error_buffer[0] != '\0' ? error_buffer : curl_easy_strerror(rc));
        return static_cast<int>(rc);
    }
    curl.reset();
    if (reply.body.empty()) {
        log_error("Empty reply from server for realmID %s and SID %s", realmID, SID);
        return -1;
    }
    log_debug("Got reply for realmID %s and SID %s", realmID, SID);

    qv::json_ptr answer = qvctrl_decode_request(reply.body);
    if (!answer) {
        return -1;
    }
    json_object* result = nullptr;
    if (!json_object_object_get_ex(answer.get(), "result", &result) || result == nullptr) {
        log_error("No result in response for realmID %s and SID %s", realmID, SID);
        return -1;
    }
    // The fallback realm belongs to no tenant.
    if (strcmp(realmID, "default") != 0 && !s_record_tenant(config, result, realmID)) {
        return -1;
    }

    log_trace("Extracting scan config");
    for (size_t i = 0; i < std::size(kMembers); ++i) {
        qv::json_ptr configuration =
            qvctrl_component_configuration_parse_to_json(kMembers[i].name, result);
        if (!configuration) {
            log_error("%s", kMembers[i].failure);
            return -1;
        }
        if (outputs[i] != nullptr) {
            *outputs[i] = std::move(configuration);
        }
    }
    return 0;
}

}  // namespace

int qvctrl_get_configurations_from_apigw(quorvale_control_config_t* config, const char* realmID,
                                         const char* SID, qv::json_ptr* scanparameters_out,
                                         qv::json_ptr* mimeext_out,
                                         qv::json_ptr* mimetranslations_out,
                                         qv::json_ptr* activecontent_out) {
    log_trace("Entering");
    qv::json_ptr* const outputs[4] = {scanparameters_out, mimeext_out, mimetranslations_out,
                                      activecontent_out};
    int rc = -1;
    try {
        rc = s_fetch(config, realmID, SID, outputs);
    } catch (const std::exception& e) {
        log_error("Configuration fetch failed: %s", e.what());
        rc = -1;
    }
    log_trace("Exiting");
    return rc;
}
