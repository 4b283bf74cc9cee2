#include "qvctrl_request_from_apigw.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "log.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvctrl_component_configuration.h"
#include "qvctrl_tenants.h"
#include "qvctrl_worker_request_handlers.h"
#include "qvhlp_curl_trace.h"

namespace {

constexpr const char* kConfigurationsPath = "/configurations/control";
// The URL buffer of the request, terminator included.
constexpr size_t kUrlMax = 1024;
// How long an operator's CA bundle stays cached between transfers: one week.
constexpr long kCaCacheSeconds = 604800;

std::atomic<long> s_connect_timeout_ms{10000};
std::atomic<long> s_total_timeout_ms{30000};

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

// The proxy as the log shows it: a password in its user part is masked.
std::string s_proxy_for_log(const std::string& proxy) {
    const size_t scheme = proxy.find("://");
    const size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    const size_t at = proxy.find('@', start);
    const size_t slash = proxy.find('/', start);
    if (at == std::string::npos || (slash != std::string::npos && slash < at)) {
        return proxy;
    }
    const size_t colon = proxy.find(':', start);
    if (colon == std::string::npos || colon > at) {
        return proxy;
    }
    return proxy.substr(0, colon + 1) + "***" + proxy.substr(at);
}

// The CA bundle an operator named for a private CA, or null for the system trust store.
const char* s_ca_bundle() {
    for (const char* name : {"CURL_CA_BUNDLE", "SSL_CERT_FILE"}) {
        const char* value = getenv(name);
        if (value != nullptr && value[0] != '\0') {
            return value;
        }
    }
    return nullptr;
}

// Sets the transfer's options; false (logged) at the first the library refuses.
bool s_set_options(CURL* curl, const std::string& url, const quorvale_control_config_t* config,
                   reply_buffer* reply, char* error_buffer) {
    CURLcode rc = CURLE_OK;
    const auto set = [&](CURLoption option, auto value) {
        if (rc == CURLE_OK) {
            rc = curl_easy_setopt(curl, option, value);
        }
    };
    set(CURLOPT_ERRORBUFFER, error_buffer);
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_HTTPGET, 1L);
    // Handler threads run transfers side by side; timeouts must not rely on signals.
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
    set(CURLOPT_USERNAME, config->apigw_user.c_str());
    set(CURLOPT_PASSWORD, config->apigw_password.c_str());
    set(CURLOPT_WRITEFUNCTION, s_receive);
    set(CURLOPT_WRITEDATA, static_cast<void*>(reply));
    // An error status is a failed transfer, not a reply to parse.
    set(CURLOPT_FAILONERROR, 1L);
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    if (const char* bundle = s_ca_bundle(); bundle != nullptr) {
        set(CURLOPT_CAINFO, bundle);
    }
#if LIBCURL_VERSION_NUM >= 0x075700
    set(CURLOPT_CA_CACHE_TIMEOUT, kCaCacheSeconds);
#endif
    set(CURLOPT_CONNECTTIMEOUT_MS, s_connect_timeout_ms.load());
    set(CURLOPT_TIMEOUT_MS, s_total_timeout_ms.load());
    set(CURLOPT_VERBOSE, 1L);
    set(CURLOPT_DEBUGFUNCTION, qvhlp_curl_trace);
    if (config->network_config && !config->network_config->http_proxy.empty()) {
        const std::string& proxy = config->network_config->http_proxy;
        log_info("Using http proxy: %s",
                 qv_escape_for_log(s_proxy_for_log(proxy), kUrlMax).c_str());
        set(CURLOPT_PROXY, proxy.c_str());
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

void qvctrl_apigw_set_timeouts_for_tests(long connect_ms, long total_ms) {
    s_connect_timeout_ms = connect_ms;
    s_total_timeout_ms = total_ms;
}
