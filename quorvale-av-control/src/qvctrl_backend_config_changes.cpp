#include "qvctrl_backend_config_changes.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <string>
#include <string_view>
#include <thread>

#include "log.h"
#include "qv_connection_client.h"
#include "qv_json.h"
#include "qv_nats_kv.h"
#include "qv_validate.h"
#include "qvctrl_component_configuration.h"
#include "qvctrl_config_kv.h"
#include "qvctrl_flush_worker_caches.h"
#include "qvctrl_request_from_apigw.h"

namespace {

// One configuration kind of a notification: its member, the label its messages use and its
// bucket prefix. In the order the kinds are applied.
struct s_kind {
    const char* field;
    const char* label;
    const char* prefix;
};
constexpr s_kind s_kinds[] = {
    {"fld_mimetoextensionsmap", "MIME to extension map", QVCTRL_CONFIG_PREFIX_MIMEEXT},
    {"fld_mimetypemappings", "MIME translations", QVCTRL_CONFIG_PREFIX_MIMEXLAT},
    {"fld_activecontentconfiguration", "Active content", QVCTRL_CONFIG_PREFIX_AC},
    {"fld_scanparameters", "Scan", QVCTRL_CONFIG_PREFIX_SCAN},
};

// Which workers a set of replaced kinds concerns.
struct s_changes {
    bool mime = false;
    bool activecontent = false;

    void note(const char* prefix) {
        const std::string_view p(prefix);
        mime = mime || p == QVCTRL_CONFIG_PREFIX_MIMEEXT || p == QVCTRL_CONFIG_PREFIX_MIMEXLAT;
        activecontent = activecontent || p == QVCTRL_CONFIG_PREFIX_AC;
    }
    void flush(quorvale_control_config_t* config, const char* realm, const char* SID) const {
        if (mime) {
            qvctrl_flush_worker_caches(config, "qv-av-mimescan", realm, SID);
        }
        if (activecontent) {
            qvctrl_flush_worker_caches(config, "qv-av-activecontent", realm, SID);
        }
    }
};

// A string member as text; absent or of another type is the empty text.
std::string s_text_member(json_object* object, const char* key) {
    json_object* member = nullptr;
    if (object == nullptr || !json_object_object_get_ex(object, key, &member) ||
        !json_object_is_type(member, json_type_string)) {
        return {};
    }
    return std::string(json_object_get_string(member),
                       static_cast<size_t>(json_object_get_string_len(member)));
}

// 1 when the cached entry was replaced by `object`, else 0 (nothing cached, or equal).
int s_kv_update_if_changed(quorvale_control_config_t* config, const char* prefix, const char* realm,
                           const char* SID, json_object* object) {
    if (object == nullptr) {
        return 0;
    }
    qv::json_ptr cached = qvctrl_config_kv_get(config, prefix, realm, SID);
    if (!cached || json_object_equal(cached.get(), object)) {
        return 0;
    }
    qvctrl_config_kv_put(config, prefix, realm, SID, object);
    return 1;
}

int s_update_config_if_changed(quorvale_control_config_t* config, const char* field,
                               json_object* result, const char* realm, const char* SID,
                               const char* prefix, const char* label) {
    qv::json_ptr fresh = qvctrl_component_configuration_parse_to_json(field, result);
    if (!fresh) {
        log_warn("No %s configuration found in result", label);
        return 0;
    }
    qv::json_ptr cached = qvctrl_config_kv_get(config, prefix, realm, SID);
    if (!cached) {
        // What nobody asked for is not cached: a notification never creates an entry.
        log_trace("No %s configuration in KV, ignoring the update", label);
        return 0;
    }
    if (json_object_equal(cached.get(), fresh.get())) {
        log_trace("No change in %s configuration", label);
        return 0;
    }
    log_info("Updating %s configuration in KV for realm \"%s\" and SID \"%s\"", label, realm, SID);
    qvctrl_config_kv_put(config, prefix, realm, SID, fresh.get());
    return 1;
}

int s_handle_notification(quorvale_control_config_t* config, const std::string& text) {
    const char* parse_error = nullptr;
    qv::json_ptr notification = qv_json_parse(text, &parse_error);
    if (!notification) {
        log_error("Failed to parse JSON. Errorcode: %s. JSON: \n",
                  parse_error != nullptr ? parse_error : "unknown");
        return -1;
    }
    json_object* value = nullptr;
    if (!json_object_object_get_ex(notification.get(), "value", &value) ||
        !json_object_is_type(value, json_type_object)) {
        value = nullptr;
    }
    const std::string realm = s_text_member(value, "realmId");
    const std::string SID = s_text_member(value, "sid");
    log_debug("Configuration change notification received for realm \"%s\" and SID \"%s\"",
              qv_escape_for_log(realm).c_str(), qv_escape_for_log(SID).c_str());
    json_object* result = nullptr;
    if (value == nullptr || !json_object_object_get_ex(value, "result", &result) ||
        !json_object_is_type(result, json_type_object)) {
        log_error("No result in response");
        return -1;
    }
    // Realm and SID become bucket keys and worker requests: a text the key alphabet cannot carry
    // (an embedded NUL would even name another realm's entry) matches nothing cached.
    if ((!realm.empty() && !qv_valid_key(realm)) || (!SID.empty() && !qv_valid_key(SID))) {
        log_warn("Configuration change notification for an invalid realm or SID ignored");
        return 0;
    }
    s_changes changes;
    for (const s_kind& kind : s_kinds) {
        if (s_update_config_if_changed(config, kind.field, result, realm.c_str(), SID.c_str(),
                                       kind.prefix, kind.label) == 1) {
            changes.note(kind.prefix);
        }
    }
    changes.flush(config, realm.c_str(), SID.c_str());
    return 0;
}

void s_kv_refresh_one(quorvale_control_config_t* config, const char* realm, const char* SID) {
    qvctrl_config_poller_refresh(config, realm, SID);
}

void s_kv_refresh_pair_cb(quorvale_control_config_t* config, const char* realm, const char* SID) {
    s_kv_refresh_one(config, realm, SID);
}

bool s_should_stop(const poller_thread_params_t* params, const std::atomic<int>* terminate) {
    return (terminate != nullptr && terminate->load() != 0) || params->targetstatus.load() == STOP;
}

// Sleeps the poll interval in steps of at most a second; false when told to stop meanwhile.
bool s_wait_interval(const poller_thread_params_t* params, const std::atomic<int>* terminate,
                     uint32_t seconds) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!s_should_stop(params, terminate)) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= until) {
            return true;
        }
        std::this_thread::sleep_for(
            std::min<std::chrono::steady_clock::duration>(until - now, std::chrono::seconds(1)));
    }
    return false;
}

void s_poll_once(quorvale_control_config_t* config, const std::string& owner, int64_t lease_ms) {
    const int lease =
        qv_connection_kv_lease(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET,
                               QVCTRL_CONFIG_POLLER_LEASE_KEY, owner.c_str(), lease_ms);
    if (lease != 1) {
        return;
    }
    qvctrl_config_kv_for_each_realm_sid(config, [config](const char* realm, const char* SID) {
        s_kv_refresh_pair_cb(config, realm, SID);
    });
}

}  // namespace

int qvctrl_backend_config_change_handler(void* config, qv_const_request_reply_t* request_reply) {
    if (config == nullptr || request_reply == nullptr || request_reply->request == nullptr) {
        return -1;
    }
    try {
        return s_handle_notification(static_cast<quorvale_control_config_t*>(config),
                                     request_reply->request->json_txt);
    } catch (const std::exception& e) {
        log_error("Configuration change notification failed: %s", e.what());
        return -1;
    }
}

int64_t qvctrl_config_poller_lease_ms(uint32_t config_poll_interval) {
    return std::max<int64_t>(static_cast<int64_t>(config_poll_interval) * 2000, 10000);
}

int qvctrl_config_poller_refresh(quorvale_control_config_t* config, const char* realm,
                                 const char* SID) {
    qv::json_ptr fetched[4];
    if (qvctrl_get_configurations_from_apigw(config, realm, SID, &fetched[0], &fetched[1],
                                             &fetched[2], &fetched[3]) != 0) {
        log_error("config poller (KV): APIGW fetch failed for realm \"%s\" SID \"%s\"",
                  qv_escape_for_log(realm).c_str(), qv_escape_for_log(SID).c_str());
        return -1;
    }
    const char* prefixes[4] = {QVCTRL_CONFIG_PREFIX_SCAN, QVCTRL_CONFIG_PREFIX_MIMEEXT,
                               QVCTRL_CONFIG_PREFIX_MIMEXLAT, QVCTRL_CONFIG_PREFIX_AC};
    s_changes changes;
    for (int i = 0; i < 4; ++i) {
        if (s_kv_update_if_changed(config, prefixes[i], realm, SID, fetched[i].get()) == 1) {
            changes.note(prefixes[i]);
        }
    }
    for (qv::json_ptr& object : fetched) {
        object.reset();
    }
    changes.flush(config, realm, SID);
    return 0;
}

int qvctrl_config_poller_thread(poller_thread_params_t* params, const std::atomic<int>* terminate) {
    if (params == nullptr || params->config == nullptr) {
        return 0;
    }
    quorvale_control_config_t* config = params->config;
    params->currentstatus = READY;
    log_info("Config poller thread started");
    const std::string owner =
        config->confighash.empty() ? QVCTRL_CONFIG_POLLER_DEFAULT_OWNER : config->confighash;
    const int64_t lease_ms = qvctrl_config_poller_lease_ms(config->config_poll_interval);
    while (!s_should_stop(params, terminate)) {
        log_trace("Waiting for %d seconds before polling for configuration changes",
                  static_cast<int>(config->config_poll_interval));
        if (!s_wait_interval(params, terminate, config->config_poll_interval)) {
            break;
        }
        try {
            s_poll_once(config, owner, lease_ms);
        } catch (const std::exception& e) {
            log_error("Config poller pass failed: %s", e.what());
        }
    }
    log_info("Config poller thread ended");
    params->currentstatus = TERMINATED;
    return 0;
}
