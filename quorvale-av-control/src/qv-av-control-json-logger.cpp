#include "qv-av-control-json-logger.h"

#include <ctime>

#include "log.h"
#include "qv_handles.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvctrl_request_from_apigw.h"
#include "qvctrl_tenants.h"
#include "qvhlp_replies.h"

namespace {

// A log kind of this service: its section, its line among a request's lines, its file.
struct s_json_log_kind {
    const char* section_key;
    std::optional<std::string> qvctrl_json_log_lines::*line;
    const char* filename;
    std::string log_config::*basedir;
};

constexpr s_json_log_kind s_kinds[] = {
    {"ScanLog", &qvctrl_json_log_lines::scan, "scan.log", &log_config::basedir_scanlog},
    {"BlockLog", &qvctrl_json_log_lines::block, "block.log", &log_config::basedir_blocklog},
    {"UpdateLog", &qvctrl_json_log_lines::update, "update.log", &log_config::basedir_updatelog},
    {"StatusLog", &qvctrl_json_log_lines::status, "status.log", &log_config::basedir_statuslog},
    {"ErrorLog", &qvctrl_json_log_lines::error, "error.log", &log_config::basedir_errorlog},
};

json_object* s_new_string(const std::string& text) {
    return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

// Sets `key` to `value` (taken over) at the end of the object: a member of that name the sender
// put into its log data goes, so that the added keys always close the line in their order and
// carry this daemon's values. False when the value could not be made or added.
bool s_append_member(json_object* object, const char* key, json_object* value) {
    json_object_object_del(object, key);
    if (value == nullptr) {
        log_error("Failed to allocate %s", key);
        return false;
    }
    if (json_object_object_add(object, key, value) != 0) {
        json_object_put(value);
        log_error("Failed to allocate %s", key);
        return false;
    }
    return true;
}

// "Timestamp" made from the epoch seconds, in UTC; empty when the time cannot be shown.
std::string s_utc_timestamp(int64_t epoch) {
    const time_t seconds = static_cast<time_t>(epoch);
    struct tm utc {};
    char text[80];
    if (gmtime_r(&seconds, &utc) == nullptr ||
        strftime(text, sizeof(text), "%F %H:%M:%S", &utc) == 0) {
        return "";
    }
    return text;
}

// The broker this daemon serves: the realm name of its own cluster.
std::string s_broker_name(const quorvale_control_config_t* config) {
    return config->main_nats_config ? config->main_nats_config->broker_name : "";
}

// Tenant and realm name of a message in cloud mode, into common->tenantID and
// common->realmName (common->component and common->realmID already read). 0, or -1 when the
// realm's tenant could not be found.
int s_qvctrl_get_tenant_and_realmName_from_log_job(quorvale_control_config_t* config,
                                                   json_object* message,
                                                   qvctrl_log_common_t* common) {
    if (common->component != "VSA") {
        log_debug("No Realm ID in the log message, This is a worker message");
        common->tenantID = config->log->cluster_name;
        common->realmName = s_broker_name(config);
        return 0;
    }
    const std::string_view tenant = qv_json_get_text(message, "Tenant");
    const std::string_view realm_name = qv_json_get_text(message, "realmName");
    if (!tenant.empty() && !realm_name.empty()) {
        common->tenantID = tenant;
        common->realmName = realm_name;
        log_debug("Got Tenant ID %s and RealmName \"%s\" in the log message",
                  qv_escape_for_log(tenant).c_str(), qv_escape_for_log(realm_name).c_str());
        return 0;
    }
    log_debug("No Tenant or RealmName in the log message, checking the realm");
    if (common->realmID.empty()) {
        log_debug("No realm in the log message, setting tenant to 'local'");
        common->tenantID = "local";
        common->realmName = "local";
        return 0;
    }
    // The realm id passed the realm check: a plain name, safe in the gateway's query.
    const char* realm = common->realmID.c_str();
    log_debug("Got Realm ID %s in the log message. Getting the Tenant and RealmName based on it",
              realm);
    if (qvctrl_get_tenantID_by_realmID(config->tenants, realm, &common->tenantID,
                                       &common->realmName) == 0) {
        return 0;
    }
    log_debug("No tenant ID cached for realm ID %s. Querying the API-GW", realm);
    if (qvctrl_get_configurations_from_apigw(config, realm, "default", nullptr, nullptr, nullptr,
                                             nullptr) != 0) {
        log_error("Failed to retrieve tenantID from API Gateways");
        return -1;
    }
    if (qvctrl_get_tenantID_by_realmID(config->tenants, realm, &common->tenantID,
                                       &common->realmName) != 0) {
        log_error("Final failure to get tenant ID for realm ID %s", realm);
        return -1;
    }
    return 0;
}

int s_handle_json_log_request(quorvale_control_config_t* config, qv_const_request_reply_t* rr) {
    if (log_get_level() >= QVLOG_TRACE) {
        log_trace("Handling log message: \n%s",
                  qv_escape_for_log(rr->request->json_txt, 4096).c_str());
    }
    qv::json_ptr message = qvctrl_log_parse_request(rr);
    if (!message) {
        return -1;
    }
    json_object* msg = message.get();

    // Everything that can refuse the request is checked before the tenant is resolved, which may
    // ask the API gateway.
    qvctrl_log_common_t common;
    std::string refusal;
    if (!qvctrl_log_read_version(msg, &common.logVersion, &refusal)) {
        return qvctrl_log_refuse(rr, refusal);
    }
    if (!qvctrl_log_read_realm(msg, &common.realmID)) {
        return qvctrl_log_refuse(rr, "Invalid realm");
    }
    if (!qvctrl_json_log_read_common(msg, &common)) {
        log_error("Failed to create log lines");
        return qvctrl_log_refuse(rr, "Failed to create log lines");
    }

    if (!config->cloud_mode && !config->cloud_management) {
        common.tenantID = "on-premises";
        common.realmName = s_broker_name(config);
    } else if (s_qvctrl_get_tenant_and_realmName_from_log_job(config, msg, &common) != 0) {
        // The sender keeps the message and tries again later, when the gateway may know more.
        return qvctrl_log_refuse(rr, "Failed to get tenant ID for realm ID " + common.realmID);
    }

    qvctrl_json_log_lines lines;
    if (qvctrl_create_json_log_lines(msg, common, &lines) != 0) {
        log_error("Failed to create log lines");
        return qvctrl_log_refuse(rr, "Failed to create log lines");
    }
    if (qvctrl_write_json_log(config, common.realmID, lines) != 0) {
        log_error("Failed to store log lines");
        return qvctrl_log_refuse(rr, "Failed to store log lines");
    }
    qv_reply_set_OK(rr->reply);
    return 0;
}

}  // namespace

int qv_av_control_json_logger_request_handler(void* context, qv_const_request_reply_t* rr) {
    return qvctrl_log_run_handler(context, rr, s_handle_json_log_request);
}

bool qvctrl_json_log_read_common(json_object* message, qvctrl_log_common_t* common,
                                 std::string* reason) {
    common->epoch = qvctrl_log_get_int64(message, "Timestamp_epoch");
    common->timestamp = qv_json_get_text(message, "Timestamp");
    if (common->timestamp.empty()) {
        common->timestamp = s_utc_timestamp(common->epoch);
    }
    if (!qvctrl_log_required_text(message, "Component", &common->component, reason)) {
        return false;
    }
    common->source = qvctrl_log_optional_text(message, "Hostname");
    return qvctrl_log_required_text(message, "EventID", &common->eventID, reason);
}

int qvctrl_json_log_create_logline(json_object* message, const qvctrl_log_common_t& common,
                                   const char* section_key, std::optional<std::string>* line) {
    line->reset();
    json_object* section = qvctrl_log_get_object(message, section_key);
    if (section == nullptr) {
        log_trace("No %s object found", section_key);
        return 0;
    }
    json_object* logdata = qvctrl_log_get_object(section, "LogData");
    if (logdata == nullptr) {
        log_trace("No LogData object found");
        return 0;
    }
    json_object* copy = nullptr;
    if (json_object_deep_copy(logdata, &copy, nullptr) != 0) {
        log_error("Failed to allocate %s", "LogData");
        return -1;
    }
    qv::json_ptr out(copy);
    json_object* o = out.get();
    const bool complete =
        s_append_member(o, "LogVersion", json_object_new_int(common.logVersion)) &&
        s_append_member(o, "LogType", json_object_new_string(section_key)) &&
        s_append_member(o, "TimestampEpoch", json_object_new_int64(common.epoch)) &&
        s_append_member(o, "Timestamp", s_new_string(common.timestamp)) &&
        s_append_member(o, "Component", s_new_string(common.component)) &&
        s_append_member(o, "Hostname", s_new_string(common.source)) &&
        s_append_member(o, "EventID", s_new_string(common.eventID)) &&
        s_append_member(o, "RealmID", s_new_string(common.realmID)) &&
        s_append_member(o, "Tenant", s_new_string(common.tenantID)) &&
        s_append_member(o, "RealmName", s_new_string(common.realmName)) &&
        (std::string_view(section_key) != "ScanLog" ||
         s_append_member(o, "ScanLogPath",
                         s_new_string(std::string(qv_json_get_text(section, "ScanLogPath")))));
    if (!complete) {
        return -1;
    }
    *line = qv_json_to_string(o);
    return 0;
}

int qvctrl_create_json_log_lines(json_object* message, const qvctrl_log_common_t& common,
                                 qvctrl_json_log_lines* lines) {
    log_trace("Entering");
    *lines = qvctrl_json_log_lines{};
    for (const s_json_log_kind& kind : s_kinds) {
        if (qvctrl_json_log_create_logline(message, common, kind.section_key,
                                           &(lines->*kind.line)) != 0) {
            log_trace("Exiting, rc=%d", -1);
            return -1;
        }
    }
    log_trace("Exiting, rc=%d", 0);
    return 0;
}

int qvctrl_write_json_log(quorvale_control_config_t* config, const std::string& realm,
                          const qvctrl_json_log_lines& lines) {
    log_trace("Entering");
    const struct log_config& lc = *config->log;
    int failed = 0;
    for (const s_json_log_kind& kind : s_kinds) {
        const std::optional<std::string>& line = lines.*kind.line;
        const std::string& basedir = lc.*kind.basedir;
        if (!line) {
            continue;
        }
        if (basedir.empty()) {
            log_trace("Ignoring %s request - no base dir or filename configured", kind.section_key);
            continue;
        }
        const std::optional<std::string> path =
            qvctrl_log_build_filename(basedir, lc.split_logs_by_realm ? realm : "", kind.filename);
        if (!path || qvctrl_log_append_to_file(config, path->c_str(), *line, 1, 1) != 0) {
            ++failed;
            log_error("Failed to write log line to file: %s", path ? path->c_str() : kind.filename);
        }
    }
    log_trace("Exiting, rc=%d", failed);
    return failed;
}
