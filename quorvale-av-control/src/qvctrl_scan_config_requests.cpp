#include "qvctrl_scan_config_requests.h"

#include <sys/stat.h>

#include <cstdio>
#include <optional>
#include <string>

#include "log.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvctrl_config_kv.h"
#include "qvctrl_load_config_to_json.h"
#include "qvctrl_request_from_apigw.h"
#include "qvctrl_tenants.h"
#include "qvhlp_replies.h"
#include "qvhlp_string.h"

namespace {

// One kind of configuration: where it is cached, where its files lie and how they combine.
struct s_config_kind {
    const char* prefix;     // bucket key prefix
    const char* label;      // in log lines
    const char* directory;  // below <basedir>/config
    const char* file_base;  // files are <file_base>.<realm>.<SID>
    const char* separator;  // between key and value in a line of the files
    const char* wrapper;    // the one member of the stored and returned object
    // Every existing file merged in order (default, realm, realm/SID), or only the most specific
    // existing one (realm/SID, realm, default).
    bool merged;
};

constexpr s_config_kind s_scan = {
    QVCTRL_CONFIG_PREFIX_SCAN, "scan", "vsa", "scan", "=", "SCAN", true};
constexpr s_config_kind s_activecontent = {QVCTRL_CONFIG_PREFIX_AC,
                                           "activecontent",
                                           "activecontent",
                                           "activecontent",
                                           "=",
                                           "Active-content-definition",
                                           true};
constexpr s_config_kind s_mime_ext = {
    QVCTRL_CONFIG_PREFIX_MIMEEXT, "mime", "mime", "mimetype_to_extensions_mappings", "->",
    "MIME-type-to-extensions",    false};
constexpr s_config_kind s_mime_xlat = {
    QVCTRL_CONFIG_PREFIX_MIMEXLAT, "mime", "mime", "mimetype-translations", "->",
    "MIME-translations",           false};

constexpr const char* s_tenant_prefix = "tenant.";
constexpr const char* s_default = "default";

bool s_on_premises(const quorvale_control_config_t* config) {
    return !config->cloud_mode && !config->cloud_management;
}

std::string s_config_file(const quorvale_control_config_t* config, const s_config_kind& kind,
                          const char* realm, const char* SID) {
    std::string path;
    qvhlp_format(&path, "%s%cconfig%c%s%c%s.%s.%s", config->basedir.c_str(), '/', '/',
                 kind.directory, '/', kind.file_base, realm, SID);
    return path;
}

bool s_is_regular_file(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// {"<wrapper>": loaded} (a null loaded object gives a null member).
qv::json_ptr s_wrap(const s_config_kind& kind, qv::json_ptr loaded) {
    qv::json_ptr wrapped(json_object_new_object());
    if (!wrapped) {
        log_error("Failed to allocate %s", "reply_json");
        return nullptr;
    }
    json_object_object_add(wrapped.get(), kind.wrapper, loaded.release());
    return wrapped;
}

// Scan and active content: the default, realm and realm/SID files merged in this order, so the
// more specific file overrides; missing files are normal and skipped silently.
qv::json_ptr s_build_merged(const quorvale_control_config_t* config, const s_config_kind& kind,
                            const char* realm, const char* SID) {
    const std::string paths[] = {s_config_file(config, kind, s_default, s_default),
                                 s_config_file(config, kind, realm, s_default),
                                 s_config_file(config, kind, realm, SID)};
    qv::json_ptr merged;
    for (const std::string& path : paths) {
        if (!s_is_regular_file(path)) {
            continue;
        }
        log_debug("Merging %s config from %s", kind.label, path.c_str());
        merged = load_config_to_json(std::move(merged), path.c_str(), kind.separator, 1, 1);
        if (!merged) {
            log_error("Failed to merge configuration from %s", path.c_str());
            return nullptr;
        }
    }
    return s_wrap(kind, std::move(merged));
}

// MIME: the realm/SID file, else the realm's default, else the global default; only that one.
qv::json_ptr s_build_first(const quorvale_control_config_t* config, const s_config_kind& kind,
                           const char* realm, const char* SID) {
    const std::string paths[] = {s_config_file(config, kind, realm, SID),
                                 s_config_file(config, kind, realm, s_default),
                                 s_config_file(config, kind, s_default, s_default)};
    const std::string* found = nullptr;
    for (const std::string& path : paths) {
        if (s_is_regular_file(path)) {
            found = &path;
            break;
        }
        if (&path != &paths[2]) {
            log_warn("File %s does not exist", path.c_str());
        } else {
            log_error("CRITICAL ERROR: File %s does not exist. Installation corrupt?",
                      path.c_str());
        }
    }
    if (found == nullptr) {
        return nullptr;
    }
    log_debug("Loading %s", found->c_str());
    qv::json_ptr loaded = load_config_to_json(nullptr, found->c_str(), kind.separator, 0, 0);
    if (!loaded) {
        log_error("Failed to load configuration from %s", found->c_str());
        return nullptr;
    }
    return s_wrap(kind, std::move(loaded));
}

// The configuration of one kind: the bucket first; on a miss the files on premises (written back
// to the bucket) or the API gateway in cloud mode (which stores every kind it delivers).
// `invalid_command` marks a MIME request whose command names neither MIME kind: it has no files.
qv::json_ptr s_obtain(quorvale_control_config_t* config, const s_config_kind& kind,
                      const char* realm, const char* SID,
                      std::optional<int> invalid_command = std::nullopt) {
    // A configuration that could not be cached is not served either: every instance must answer
    // a realm and SID alike.
    std::string key;
    if (!qvctrl_config_kv_build_key(&key, kind.prefix, realm, SID)) {
        return nullptr;
    }
    qv::json_ptr cached = qvctrl_config_kv_get(config, kind.prefix, realm, SID);
    if (cached) {
        return cached;
    }
    if (!s_on_premises(config)) {
        return qvctrl_config_kv_cloud_fill(config, realm, SID, kind.prefix);
    }
    if (invalid_command) {
        log_error("Invalid command code %d", *invalid_command);
        return nullptr;
    }
    qv::json_ptr built = kind.merged ? s_build_merged(config, kind, realm, SID)
                                     : s_build_first(config, kind, realm, SID);
    if (built) {
        qvctrl_config_kv_put(config, kind.prefix, realm, SID, built.get());
    }
    return built;
}

qv::json_ptr s_deep_copy(json_object* object) {
    json_object* copy = nullptr;
    if (json_object_deep_copy(object, &copy, nullptr) != 0) {
        return nullptr;
    }
    return qv::json_ptr(copy);
}

// Realm and SID name bucket keys and configuration files: each must be one name, and together
// with the longest prefix they must still fit a key (the key builder logs the key that does not).
bool s_valid_realm_sid(const char* realm, std::string_view realm_text, const char* SID,
                       std::string_view sid_text) {
    if (realm != nullptr && !qv_valid_name(realm_text, QVCTRL_CONFIG_KEY_MAX)) {
        qv_log_refused("Invalid realm", realm_text);
        return false;
    }
    if (SID != nullptr && !qv_valid_name(sid_text, QVCTRL_CONFIG_KEY_MAX)) {
        qv_log_refused("Invalid SID", sid_text);
        return false;
    }
    return true;
}

// The required string members `keys`, read in order until the first one that is missing or
// empty (logged); true when all were read. Values not reached stay null.
template <size_t N>
bool s_read_members(json_object* request, const char* const (&keys)[N], const char* (&values)[N]) {
    for (size_t i = 0; i < N; ++i) {
        values[i] = qv_json_get_required_string(request, keys[i]);
        if (values[i] == nullptr) {
            return false;
        }
    }
    return true;
}

// The request's "realmID" and "SID" (read already) as names for keys and files.
bool s_request_names_valid(json_object* request) {
    const std::string_view realm = qv_json_get_text(request, "realmID");
    const std::string_view SID = qv_json_get_text(request, "SID");
    return s_valid_realm_sid(realm.data(), realm, SID.data(), SID);
}

// A RequestID as it is echoed: the text as a JSON string body. An id that is no identifier (a
// control character or an absurd length) is not echoed at all.
std::string s_echo_request_id(json_object* request, const char* request_id) {
    if (request_id == nullptr) {
        // Kept: a request that never got as far as its RequestID is answered with the text the
        // formatter prints for an absent string, as clients have always seen it.
        return "(null)";
    }
    const std::string_view text = qv_json_get_text(request, "RequestID");
    return text.size() <= QVCTRL_REQUEST_ID_MAX ? qv_json_escape(text) : std::string();
}

// A RequestID is echoed in the reply: one longer than any identifier is refused, so that a reply
// never outgrows what the server carries.
bool s_request_id_valid(json_object* request) {
    const std::string_view text = qv_json_get_text(request, "RequestID");
    if (text.size() > QVCTRL_REQUEST_ID_MAX) {
        qv_log_refused("Invalid RequestID", text);
        return false;
    }
    return true;
}

int s_add_int(json_object* object, const char* key, int value) {
    return json_object_object_add(object, key, json_object_new_int(value));
}

}  // namespace

qv::json_ptr qvctrl_compute_scan_config_json(quorvale_control_config_t* config, const char* realm,
                                             const char* SID) {
    if (config == nullptr || realm == nullptr || SID == nullptr ||
        !s_valid_realm_sid(realm, realm, SID, SID)) {
        return nullptr;
    }
    return s_obtain(config, s_scan, realm, SID);
}

int qvctrl_compute_tenant_info(quorvale_control_config_t* config, const char* realm,
                               std::string* out_tenantID, std::string* out_realmName) {
    if (config == nullptr || realm == nullptr || out_tenantID == nullptr ||
        out_realmName == nullptr) {
        return -1;
    }
    if (s_on_premises(config)) {
        *out_tenantID = "on-premises";
        *out_realmName = config->main_nats_config ? config->main_nats_config->broker_name : "";
        return 0;
    }
    if (!s_valid_realm_sid(realm, realm, nullptr, {})) {
        return -1;
    }
    qv::json_ptr cached = qvctrl_config_kv_get(config, s_tenant_prefix, realm, nullptr);
    if (cached) {
        const std::string tenant = qv_json_get_optional_string(cached.get(), "tenantID");
        const std::string name = qv_json_get_optional_string(cached.get(), "realmName");
        if (!tenant.empty() && !name.empty()) {
            log_debug("Found KV tenantID %s realmName %s for realmID %s", tenant.c_str(),
                      name.c_str(), realm);
            *out_tenantID = tenant;
            *out_realmName = name;
            return 0;
        }
    }
    // The gateway's answer records the realm's tenant in the tenant list.
    if (qvctrl_get_configurations_from_apigw(config, realm, s_default, nullptr, nullptr, nullptr,
                                             nullptr) != 0) {
        log_error("Failed to retrieve tenantID from API Gateways");
        return -1;
    }
    std::string tenant;
    std::string name;
    if (qvctrl_get_tenantID_by_realmID(config->tenants, realm, &tenant, &name) != 0) {
        log_error("Failed to retrieve tenantID for realmID %s", realm);
        return -1;
    }
    qv::json_ptr entry(json_object_new_object());
    if (entry) {
        json_object_object_add(entry.get(), "tenantID", json_object_new_string(tenant.c_str()));
        json_object_object_add(entry.get(), "realmName", json_object_new_string(name.c_str()));
        qvctrl_config_kv_put(config, s_tenant_prefix, realm, nullptr, entry.get());
    }
    log_debug("Resolved tenantID %s realmName %s for realmID %s (wrote KV)", tenant.c_str(),
              name.c_str(), realm);
    *out_tenantID = std::move(tenant);
    *out_realmName = std::move(name);
    return 0;
}

int qvctrl_release_scan_configurations(quorvale_control_config_t* config) {
    qvctrl_config_kv_delete_prefix(config, QVCTRL_CONFIG_PREFIX_SCAN);
    return 0;
}

qv_message_t qvctrl_handle_get_vsa_config(json_object* request, quorvale_control_config_t* config) {
    log_trace("Entering");
    qv_message_t reply;
    constexpr const char* keys[] = {"realmID", "SID", "RequestID"};
    const char* values[3] = {};
    qv::json_ptr copy;
    if (s_read_members(request, keys, values) && s_request_names_valid(request) &&
        s_request_id_valid(request)) {
        qv::json_ptr scan = s_obtain(config, s_scan, values[0], values[1]);
        if (!scan) {
            log_error("Failed to load SCAN config");
        } else if (!(copy = s_deep_copy(scan.get()))) {
            log_error("Failed to deep-copy config");
        } else {
            s_add_int(copy.get(), "ReturnCode", 0);
            log_trace("Added ReturnCode: %d", 0);
            const std::string_view id = qv_json_get_text(request, "RequestID");
            json_object_object_add(
                copy.get(), "ReplytoRequestID",
                json_object_new_string_len(id.data(), static_cast<int>(id.size())));
            if (log_get_level() >= QVLOG_TRACE) {
                log_trace("Reply to RequestID: %s", qv_escape_for_log(id).c_str());
            }
        }
    }
    if (copy) {
        reply.json_txt = qv_json_to_string(copy.get());
        if (log_get_level() >= QVLOG_TRACE) {
            log_trace("Reply 1: %s", qv_escape_for_log(reply.json_txt, 4096).c_str());
        }
    } else {
        qvhlp_format(&reply.json_txt,
                     "{ \"ReplytoRequestID\":\"%s\",\"ReturnCode\" : %d , \"Error\" : \"Failed to "
                     "load SCAN config\" }",
                     s_echo_request_id(request, values[2]).c_str(), SERVICE_ERROR);
        if (log_get_level() >= QVLOG_TRACE) {
            log_trace("Reply 2: %s", qv_escape_for_log(reply.json_txt, 4096).c_str());
        }
    }
    log_trace("Exiting");
    return reply;
}

qv_message_t qvctrl_handle_get_activecontent_config(quorvale_control_config_t* config,
                                                    json_object* request) {
    log_trace("Entering");
    qv_message_t reply;
    constexpr const char* keys[] = {"realmID", "SID"};
    const char* values[2] = {};
    qv::json_ptr copy;
    if (s_read_members(request, keys, values) && s_request_names_valid(request)) {
        qv::json_ptr ac = s_obtain(config, s_activecontent, values[0], values[1]);
        if (!ac) {
            log_error("Failed to load activecontent config");
        } else if (!(copy = s_deep_copy(ac.get()))) {
            log_error("Failed to copy activecontent config");
        } else {
            s_add_int(copy.get(), "ReturnCode", 0);
        }
    }
    if (copy) {
        reply.json_txt = qv_json_to_string(copy.get());
    } else {
        qv_reply_set_ERROR(&reply, SERVICE_ERROR, "Failed to load activecontent config");
    }
    if (log_get_level() >= QVLOG_TRACE) {
        log_trace("Active Content:\n%s", qv_escape_for_log(reply.json_txt, 4096).c_str());
    }
    log_trace("Exiting");
    return reply;
}

qv_message_t qvctrl_handle_get_mime_config(quorvale_control_config_t* config,
                                           json_object* request) {
    log_trace("Entering");
    qv_message_t reply;
    constexpr const char* keys[] = {"realmID", "SID"};
    const char* values[2] = {};
    const bool read = s_read_members(request, keys, values);
    const int command = read ? qv_json_get_command(request, -1) : -1;
    const bool translations = command == SERVICE_GET_MIME_TRANSLATIONS;
    const s_config_kind& kind = translations ? s_mime_xlat : s_mime_ext;
    qv::json_ptr copy;
    if (read && s_request_names_valid(request)) {
        std::optional<int> invalid_command;
        if (command != SERVICE_GET_MIME_EXT_MAP && !translations) {
            invalid_command = command;
        }
        const char* realm = values[0];
        const char* SID = values[1];
        qv::json_ptr mime = s_obtain(config, kind, realm, SID, invalid_command);
        if (!mime) {
            log_error("Failed to load MIME config for realmID %s and SID %s", realm, SID);
        } else if (!(copy = s_deep_copy(mime.get()))) {
            log_error("Failed to copy mime config for realmID %s and SID %s", realm, SID);
        } else {
            s_add_int(copy.get(), "ReturnCode", 0);
        }
    }
    if (copy) {
        reply.json_txt = qv_json_to_string(copy.get());
    } else {
        const std::string text = std::string("Failed to load MIME ") +
                                 (translations ? "translation" : "extensions mapping") + " config";
        qv_reply_set_ERROR(&reply, SERVICE_ERROR, text.c_str());
    }
    log_trace("Exiting");
    return reply;
}

qv_message_t qvctrl_handle_get_tenantID(json_object* request, quorvale_control_config_t* config) {
    log_trace("Entering");
    qv_message_t reply;
    constexpr const char* keys[] = {"realmID", "RequestID"};
    const char* values[2] = {};
    std::string tenant;
    std::string name;
    int rc = -1;
    if (s_read_members(request, keys, values)) {
        const std::string_view realm = qv_json_get_text(request, "realmID");
        if (s_valid_realm_sid(values[0], realm, nullptr, {}) && s_request_id_valid(request)) {
            rc = qvctrl_compute_tenant_info(config, values[0], &tenant, &name);
        }
    }
    if (rc == 0) {
        qvhlp_format(&reply.json_txt,
                     "{ \"ReplytoRequestID\":\"%s\",\"ReturnCode\" : %d , \"tenantID\" : \"%s\", "
                     "\"realmName\" : \"%s\" }",
                     s_echo_request_id(request, values[1]).c_str(), 0,
                     qv_json_escape(tenant).c_str(), qv_json_escape(name).c_str());
        if (log_get_level() >= QVLOG_TRACE) {
            log_trace("Reply to getTenant request: %s",
                      qv_escape_for_log(reply.json_txt, 4096).c_str());
        }
    } else {
        qvhlp_format(&reply.json_txt,
                     "{ \"ReplytoRequestID\":\"%s\",\"ReturnCode\" : %d , \"Error\" : \"Failed to "
                     "retrieve tenantID or realmName\" }",
                     s_echo_request_id(request, values[1]).c_str(), SERVICE_ERROR);
    }
    log_trace("Exiting");
    return reply;
}

qv_message_t qvctrl_handle_get_control_config_hash(quorvale_control_config_t* config,
                                                   json_object* /*request*/) {
    const std::string hash = config != nullptr ? qv_json_escape(config->confighash) : "";
    qv_message_t reply;
    // Kept: the code is -1000 although the hash is delivered; workers read "Confighash" only.
    qvhlp_format(&reply.json_txt, "{ \"ReturnCode\": %d, \"Confighash\": \"%s\"}", SERVICE_ERROR,
                 hash.c_str());
    return reply;
}
