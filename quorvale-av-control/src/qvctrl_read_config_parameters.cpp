#include "qvctrl_read_config_parameters.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include <sys/stat.h>

#include "log-helper.h"
#include "log.h"
#include "qv_config.h"
#include "qvhlp_path.h"
#include "qvhlp_url.h"

namespace {

constexpr const char* s_control_section = "qv-av-control";
constexpr const char* s_global_section = "GLOBAL";

// Reads the control settings into their record fields. A field changes only when its key is
// found. Every number passes through one shared temporary, so a file value that does not scan
// repeats the last number that did. Each call returns QV_CONFIG_FAILED (the reading must stop),
// QV_CONFIG_ABSENT or QV_CONFIG_FOUND.
class setting_reader {
  public:
    explicit setting_reader(const ini_t* ini) : ini_(ini) {}

    int number(const char* section, const char* key) {
        return qv_config_read_int(ini_, section, key, &number_);
    }
    int last_number() const { return number_; }

    int int_key(const char* section, const char* key, int32_t* field) {
        const int found = number(section, key);
        if (found == QV_CONFIG_FOUND) {
            *field = number_;
        }
        return found;
    }

    int long_key(const char* section, const char* key, long* field) {
        long value = number_;
        const int found = qv_config_read_long(ini_, section, key, &value);
        number_ = static_cast<int>(value);
        if (found == QV_CONFIG_FOUND) {
            *field = value;
        }
        return found;
    }

    // True when the number is non-zero.
    int bool_key(const char* section, const char* key, bool* field) {
        const int found = number(section, key);
        if (found == QV_CONFIG_FOUND) {
            *field = number_ != 0;
        }
        return found;
    }

    // True only when the number is exactly 1.
    int bool1_key(const char* section, const char* key, bool* field) {
        const int found = number(section, key);
        if (found == QV_CONFIG_FOUND) {
            *field = number_ == 1;
        }
        return found;
    }

    int string_key(const char* section, const char* key, std::string* field) {
        return qv_config_read_string(ini_, section, key, field);
    }

    // A string with '~' and environment references expanded before it is stored.
    int path_key(const char* section, const char* key, std::string* field) {
        std::string raw;
        const int found = string_key(section, key, &raw);
        if (found != QV_CONFIG_FOUND) {
            return found;
        }
        try {
            std::optional<std::string> expanded = qvhlp_expand_path(raw);
            if (!expanded) {
                log_error("Failed to expand path for parameter %s", key);
                return QV_CONFIG_FAILED;
            }
            *field = std::move(*expanded);
        } catch (const std::bad_alloc&) {
            log_error("Memory allocation error (%s)", key);
            return QV_CONFIG_FAILED;
        }
        return found;
    }

  private:
    const ini_t* ini_;
    int number_ = 0;
};

int32_t s_seconds_to_ms(int seconds) {
    return static_cast<int32_t>(std::min<long long>(seconds * 1000LL, INT32_MAX));
}

// Reads a period given in seconds into a millisecond field that keeps its value for 0 or a
// negative number.
int s_read_ms(setting_reader& r, const char* key, int32_t* field_ms) {
    const int found = r.number(s_control_section, key);
    if (found == QV_CONFIG_FOUND && r.last_number() > 0) {
        *field_ms = s_seconds_to_ms(r.last_number());
    }
    return found;
}

// A refresh interval of at least a second that still refreshes twice within the lifetime of what
// it refreshes.
void s_bound_sync_interval(int32_t* interval_ms, int32_t ttl_ms) {
    if (*interval_ms <= 999) {
        *interval_ms = 1000;
    }
    if (*interval_ms > ttl_ms / 2) {
        *interval_ms = ttl_ms / 2;
    }
}

int s_read_trace_settings(setting_reader& r, quorvale_control_config_t* c) {
    int found = r.int_key(s_control_section, "TRACELEVEL", &c->tracelevel);
    if (found < 0) {
        return -1;
    }
    if (found > 0) {
        log_set_level(c->tracelevel);
    }
    if (c->tracelevel != 0) {
        found = r.number(s_control_section, "TRACEFILE_MAX_SIZE_MB");
        if (found < 0) {
            return -1;
        }
        if (found > 0) {
            c->tracefile_max_size = static_cast<size_t>(r.last_number());
            log_set_maxsize(c->tracefile_max_size);
        }
        found = r.path_key(s_control_section, "TRACEFILE", &c->tracefile);
        if (found < 0) {
            return -1;
        }
        // Opened now so that the rest of the reading is already traced to the file.
        if (found > 0 &&
            QVOpenTraceFile(c->tracefile.c_str(), c->tracelevel, c->tracefile_max_size) != 0) {
            log_error("Failed to open Log/trace file %s", c->tracefile.c_str());
        }
    }
    found = r.bool_key(s_control_section, "TRACE_TO_SCREEN", &c->trace_to_screen);
    if (found < 0) {
        return -1;
    }
    if (found > 0) {
        log_set_screentrace(c->trace_to_screen);
    }
    return 0;
}

int s_read_cloud_settings(setting_reader& r, quorvale_control_config_t* c) {
    if (r.bool1_key(s_global_section, "CLOUD_MODE", &c->cloud_mode) < 0 ||
        r.bool1_key(s_global_section, "CLOUD_MANAGEMENT", &c->cloud_management) < 0) {
        return -1;
    }
    const int found = r.number(s_global_section, "CONFIG_POLL_INTERVAL");
    if (found < 0) {
        return -1;
    }
    if (found > 0) {
        c->config_poll_interval = static_cast<uint32_t>(r.last_number());
        // Reported only: the poller runs with the configured interval all the same.
        if (c->config_poll_interval < 60) {
            log_error("Invalid value for [GLOBAL] CONFIG_POLL_INTERVAL: %d. Adjunsting to 60s.",
                      static_cast<int>(c->config_poll_interval));
        }
    }
    return 0;
}

int s_read_log_settings(setting_reader& r, quorvale_control_config_t* c) {
    struct log_config& log = *c->log;
    const char* const s = s_control_section;
    if (r.bool_key(s, "EXTERNAL_LOGGER", &log.external_logger) < 0 ||
        r.bool_key(s, "EXTERNAL_EPOLOG_SERVICE", &c->external_epolog_service) < 0 ||
        r.path_key(s, "BLOCK_LOG_BASEDIR", &log.basedir_blocklog) < 0 ||
        r.path_key(s, "STATUS_LOG_BASEDIR", &log.basedir_statuslog) < 0 ||
        r.path_key(s, "UPDATE_LOG_BASEDIR", &log.basedir_updatelog) < 0 ||
        r.path_key(s, "ERROR_LOG_BASEDIR", &log.basedir_errorlog) < 0 ||
        r.path_key(s, "EPO_LOG_BASEDIR", &log.basedir_epolog) < 0 ||
        r.path_key(s, "SCAN_LOG_BASEDIR", &log.basedir_scanlog) < 0 ||
        r.long_key(s, "MAX_LOG_SIZE_MB", &log.max_logfile_size_MB) < 0 ||
        r.bool_key(s, "JSON_LOG", &log.log_as_json) < 0 ||
        r.bool_key(s, "SPLIT_LOGS_BY_REALM", &log.split_logs_by_realm) < 0 ||
        r.string_key(s, "CLUSTER_NAME", &log.cluster_name) < 0) {
        return -1;
    }
    return 0;
}

// The registry and subscription periods. Their defaults hold only when a file is read; the
// record's own defaults leave both watchers off.
int s_read_worker_settings(setting_reader& r, quorvale_control_config_t* c) {
    const char* const s = s_control_section;
    if (r.int_key(s, "SHUTDOWN_DELAY", &c->shutdown_delay) < 0 ||
        r.int_key(s, "WORKER_TIMEOUT", &c->worker_timeout) < 0) {
        return -1;
    }

    c->worker_registry_ttl_ms = 15000;
    if (s_read_ms(r, "WORKER_REGISTRY_TTL", &c->worker_registry_ttl_ms) < 0) {
        return -1;
    }
    c->worker_registry_ttl_ms = std::max(c->worker_registry_ttl_ms, 2000);

    c->worker_registry_enabled = true;
    if (r.bool_key(s, "WORKER_REGISTRY_ENABLED", &c->worker_registry_enabled) < 0) {
        return -1;
    }

    c->worker_registry_sync_interval_ms = 5000;
    if (s_read_ms(r, "WORKER_REGISTRY_SYNC_INTERVAL", &c->worker_registry_sync_interval_ms) < 0) {
        return -1;
    }
    s_bound_sync_interval(&c->worker_registry_sync_interval_ms, c->worker_registry_ttl_ms);

    c->event_subscription_kv_enabled = true;
    if (r.bool_key(s, "EVENT_SUBSCRIPTION_KV_ENABLED", &c->event_subscription_kv_enabled) < 0) {
        return -1;
    }

    c->event_subscription_ttl_ms = 30000;
    if (s_read_ms(r, "EVENT_SUBSCRIPTION_TTL", &c->event_subscription_ttl_ms) < 0) {
        return -1;
    }
    c->event_subscription_ttl_ms = std::max(c->event_subscription_ttl_ms, 5000);

    c->event_subscription_sync_interval_ms = 10000;
    if (s_read_ms(r, "EVENT_SUBSCRIPTION_SYNC_INTERVAL", &c->event_subscription_sync_interval_ms) <
        0) {
        return -1;
    }
    s_bound_sync_interval(&c->event_subscription_sync_interval_ms, c->event_subscription_ttl_ms);
    return 0;
}

int s_read_service_settings(setting_reader& r, quorvale_control_config_t* c) {
    const char* const s = s_control_section;
    qv_update_config_t& update = *c->update_config;
    if (r.int_key(s, "CLIENT-SIDE-WORKER-THREADS", &c->number_of_client_side_worker_threads) < 0 ||
        r.int_key(s, "SERVICE-SIDE-WORKER-THREADS", &c->number_of_service_side_worker_threads) <
            0 ||
        r.int_key(s, "LOGGER-WORKER-THREADS", &c->number_of_logger_threads) < 0 ||
        r.int_key(s, "EVENTHANDLER-WORKER-THREADS", &c->number_of_event_dispatcher_threads) < 0 ||
        r.int_key(s, "EPOLOG-WORKER-THREADS", &c->number_of_epolog_threads) < 0 ||
        r.bool_key(s, "DAEMON_MODE", &c->run_as_daemon) < 0 ||
        r.string_key(s, "UPDATE_SERVER", &update.update_server) < 0 ||
        r.bool1_key(s, "UPDATE_ENGINE", &update.update_engine) < 0 ||
        r.bool1_key(s, "UPDATE_DATA", &update.update_data) < 0 ||
        r.bool1_key(s, "UPDATE_BINARY", &update.update_binary) < 0 ||
        r.int_key(s, "UPDATE_CHECK_INTERVAL", &update.update_check_interval) < 0 ||
        r.int_key(s, "UPDATE_MAX_BACKUPS", &update.update_max_backups) < 0 ||
        r.string_key(s, "HTTP_PROXY", &c->network_config->http_proxy) < 0 ||
        r.path_key(s, "TEMP_PATH", &c->temppath) < 0 ||
        r.string_key(s, "BROKER_AUTH_FILE", &c->broker_auth_file) < 0 ||
        r.string_key(s, "BROKER_PID_FILE", &c->broker_pid_file) < 0) {
        return -1;
    }
    return 0;
}

// Under cloud management the broker's authorisation and PID files default to their places below
// the base directory, which is known only when --basedir came before --config-file.
int s_derive_broker_files(quorvale_control_config_t* c) {
    if (!c->cloud_management) {
        return 0;
    }
    if (c->broker_auth_file.empty() && !c->basedir.empty()) {
        c->broker_auth_file = c->basedir + "/config/qv-av-broker.auth";
        log_debug("BROKER_AUTH_FILE defaulted to %s", c->broker_auth_file.c_str());
    }
    if (c->broker_pid_file.empty() && !c->basedir.empty()) {
        c->broker_pid_file = c->basedir + "/run/qv-av-broker/qv-av-broker.pid";
        log_debug("BROKER_PID_FILE defaulted to %s", c->broker_pid_file.c_str());
    }
    if (c->broker_auth_file.empty() || c->broker_pid_file.empty()) {
        log_error(
            "CLOUD_MANAGEMENT=1 but BROKER_AUTH_FILE/BROKER_PID_FILE could not be derived "
            "(basedir unset?)");
        return -1;
    }
    return 0;
}

// INSTALLED names the installed services, separated by ';'. Empty names are skipped.
int s_read_installed_services(setting_reader& r, quorvale_control_config_t* c) {
    std::string installed;
    if (r.string_key(s_global_section, "INSTALLED", &installed) < 0) {
        return -1;
    }
    if (installed.empty()) {
        log_error("Mandatory %s config value from section [%s] missing", "INSTALLED",
                  s_global_section);
        return -1;
    }
    std::string_view rest(installed);
    while (!rest.empty()) {
        const size_t separator = rest.find(';');
        const std::string_view name = rest.substr(0, separator);
        rest =
            separator == std::string_view::npos ? std::string_view() : rest.substr(separator + 1);
        if (name.empty()) {
            continue;
        }
        log_debug("Loading configuration for service %.*s", static_cast<int>(name.size()),
                  name.data());
        qv_installed_service_t service;
        try {
            service.servicename = name;
        } catch (const std::bad_alloc&) {
            log_error("Failed to allocate %s", "this_service");
            return -1;
        }
        try {
            c->controlled_services.push_back(std::move(service));
        } catch (const std::bad_alloc&) {
            log_error("Failed to add this_worker to list");
            return -1;
        }
        log_trace("Added service element to installed services");
    }
    return 0;
}

int s_read_config_parameters(const ini_t* ini, quorvale_control_config_t* c) {
    // The record normally comes with its sub-records; a bare one gets them here.
    if (!c->log) {
        c->log = std::make_unique<struct log_config>();
    }
    if (!c->update_config) {
        c->update_config = std::make_unique<qv_update_config_t>();
    }
    if (!c->network_config) {
        c->network_config = std::make_unique<qv_network_config_t>();
    }

    setting_reader r(ini);
    if (s_read_trace_settings(r, c) != 0 || s_read_cloud_settings(r, c) != 0) {
        return -1;
    }
    const int rc = qvctrl_ReadNatsConfigParameters(s_control_section, "", ini, true, true,
                                                   c->main_nats_config);
    if (rc != 0) {
        return rc;
    }
    if (r.string_key(s_control_section, "APIGW_URL", &c->apigw_url) < 0 ||
        r.string_key(s_control_section, "APIGW_USER", &c->apigw_user) < 0 ||
        r.string_key(s_control_section, "APIGW_PASSWORD", &c->apigw_password) < 0) {
        return -1;
    }
    // The backend connection is optional: without its URL it stays unset and is not used.
    qvctrl_ReadAmqpConfigParameters(s_control_section, "BACKEND_", ini, false,
                                    c->backend_amqp_config);
    if (s_read_log_settings(r, c) != 0 || s_read_worker_settings(r, c) != 0 ||
        s_read_service_settings(r, c) != 0 || s_derive_broker_files(c) != 0 ||
        s_read_installed_services(r, c) != 0) {
        return -1;
    }
    return 0;
}

// Reads prefix + name by the override rule. With `mandatory`, a key that is absent or empty is
// an error naming its section.
int s_read_broker_key(const ini_t* ini, const char* section, const char* prefix, const char* name,
                      bool mandatory, std::string* value) {
    const std::string key = std::string(prefix) + name;
    const int found = qv_config_read_string(ini, section, key.c_str(), value);
    if (found == QV_CONFIG_FAILED) {
        return found;
    }
    if (mandatory && (found == QV_CONFIG_ABSENT || value->empty())) {
        log_error("Mandatory %s config value from section [%s] missing", key.c_str(), section);
        return QV_CONFIG_FAILED;
    }
    return found;
}

// Places a new connection record in the slot; false (errno set) when it cannot be made.
bool s_new_connection_record(std::unique_ptr<qv_nats_config>& slot) {
    try {
        std::unique_ptr<qv_nats_config> record = qv_nats_config_new();
        if (!record) {
            errno = ENOMEM;
            return false;
        }
        slot = std::move(record);
        return true;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
}

int s_read_nats_config(const char* section, const char* prefix, const ini_t* ini, bool mandatory,
                       bool default_local, std::unique_ptr<qv_nats_config>& slot) {
    std::string nats_url;
    std::string broker_url;
    const int nats_url_found =
        s_read_broker_key(ini, s_global_section, prefix, "NATS_URL", false, &nats_url);
    if (nats_url_found < 0) {
        return -1;
    }
    if (nats_url_found == QV_CONFIG_ABSENT &&
        s_read_broker_key(ini, s_global_section, prefix, "BROKER_URL", mandatory, &broker_url) <=
            0) {
        return -1;
    }

    if (!s_new_connection_record(slot)) {
        log_error("Failed to allocate NATS config struct: %s", strerror(errno));
        return -1;
    }
    qv_nats_config& cfg = *slot;

    if (nats_url_found == QV_CONFIG_FOUND) {
        cfg.server_url = nats_url;
        log_debug("Read %sNATS_URL: %s", prefix, cfg.server_url.c_str());
    } else if (broker_url.find("://") != std::string::npos) {
        cfg.server_url = broker_url;
        log_debug("Read %sBroker URL (kept scheme): %s", prefix, cfg.server_url.c_str());
    } else {
        const std::optional<URL_INFO> url = qvhlp_split_url(broker_url.c_str());
        if (!url) {
            log_error("Memory allocation error (%s%s)", prefix, "BROKER_URL");
            return -1;
        }
        cfg.server_url = "nats://" + url->site + ":" + url->port;
        log_debug("Read %sBroker URL: %s -> NATS URL: %s", prefix, broker_url.c_str(),
                  cfg.server_url.c_str());
    }

    // The main connection is always TLS: without a certificate it cannot be made.
    if (s_read_broker_key(ini, s_global_section, prefix, "BROKER_CERT", mandatory, &cfg.cert_path) <
            0 ||
        cfg.cert_path.empty()) {
        return -1;
    }
    if (s_read_broker_key(ini, section, prefix, "BROKER_PASSWORD", mandatory, &cfg.password) <= 0) {
        return -1;
    }
    const int name_found =
        s_read_broker_key(ini, s_global_section, prefix, "BROKER_NAME", false, &cfg.broker_name);
    if (name_found < 0) {
        return -1;
    }
    if (name_found == QV_CONFIG_ABSENT && default_local) {
        cfg.broker_name = "local";
    }

    std::string user;
    const int user_found = s_read_broker_key(ini, section, prefix, "BROKER_USER", false, &user);
    if (user_found < 0) {
        return -1;
    }
    if (user_found == QV_CONFIG_ABSENT) {
        // The component's own name (the section less its "qv-av-" stem) at the broker.
        const std::string_view component =
            strlen(section) > 6 ? std::string_view(section + 6) : std::string_view();
        user.assign(component);
        user += '@';
        user += cfg.broker_name.empty() ? "local" : cfg.broker_name;
    }
    cfg.user = user;
    log_debug("Set NATS user: %s", cfg.user.c_str());

    // The largest staged payload a served request may announce, in bytes.
    const std::string staged_key = std::string(prefix) + "MAX_STAGED_PAYLOAD";
    long max_staged = 0;
    const int staged_found = qv_config_read_long(ini, section, staged_key.c_str(), &max_staged);
    if (staged_found < 0) {
        return -1;
    }
    if (staged_found == QV_CONFIG_FOUND && max_staged > 0) {
        cfg.max_staged_payload = static_cast<uint64_t>(max_staged);
    }
    return 0;
}

int s_read_amqp_config(const char* section, const char* prefix, const ini_t* ini, bool mandatory,
                       std::unique_ptr<qv_nats_config>& slot) {
    std::string broker_url;
    if (s_read_broker_key(ini, s_global_section, prefix, "BROKER_URL", mandatory, &broker_url) <=
        0) {
        return -1;
    }
    if (!s_new_connection_record(slot)) {
        log_error("Failed to allocate AMQP config struct: %s", strerror(errno));
        return -1;
    }
    qv_nats_config& cfg = *slot;

    const std::optional<URL_INFO> url = qvhlp_split_url(broker_url.c_str());
    if (!url) {
        log_error("Memory allocation error (%s%s)", prefix, "BROKER_URL");
        return -1;
    }
    cfg.broker_host = url->site;
    cfg.broker_port = url->port;
    log_debug("Read %sBROKER_URL: %s -> host=%s port=%s", prefix, broker_url.c_str(),
              cfg.broker_host.c_str(), cfg.broker_port.c_str());

    if (s_read_broker_key(ini, s_global_section, prefix, "BROKER_CERT", mandatory, &cfg.cert_path) <
            0 ||
        s_read_broker_key(ini, section, prefix, "BROKER_USER", mandatory, &cfg.broker_user) < 0 ||
        s_read_broker_key(ini, section, prefix, "BROKER_PASSWORD", mandatory,
                          &cfg.broker_password) < 0 ||
        s_read_broker_key(ini, s_global_section, prefix, "BROKER_NAME", mandatory,
                          &cfg.broker_name) < 0) {
        return -1;
    }
    return 0;
}

// The file holds the broker password: whoever may read it may act as this daemon on the bus.
void s_warn_if_readable_by_others(const char* config_file) {
    struct stat st {};
    if (stat(config_file, &st) == 0 && (st.st_mode & S_IROTH) != 0) {
        log_warn(
            "Configuration file %s can be read by other users (mode %04o), although it "
            "holds the broker password",
            config_file, static_cast<unsigned>(st.st_mode & 07777));
    }
}

}  // namespace

int qvctrl_ReadConfigParameters(const char* config_file, quorvale_control_config_t* config,
                                int stub) {
    log_trace("Entering");
    if (config == nullptr) {
        log_error("Invalid parameter c (NULL)");
        return -1;
    }
    int rc = -1;
    try {
        std::unique_ptr<ini_t> ini = ini_load(config_file);
        if (!ini) {
            log_debug("Could not load config from %s. Reason: %s",
                      config_file != nullptr ? config_file : "(null)", strerror(errno));
        } else {
            rc = s_read_config_parameters(ini.get(), config);
            // After the reading, so that the warning also reaches the trace file it names.
            s_warn_if_readable_by_others(config_file);
        }
    } catch (const std::exception& e) {
        log_error("Failed to read configuration from %s: %s",
                  config_file != nullptr ? config_file : "(null)", e.what());
        rc = -1;
    }
    log_trace("rc=%d, stub: %d", rc, stub);
    log_trace("Exiting");
    return rc;
}

int qvctrl_ReadNatsConfigParameters(const char* section, const char* prefix, const ini_t* ini,
                                    bool mandatory, bool default_local,
                                    std::unique_ptr<qv_nats_config>& slot) {
    log_trace("Entering");
    int rc = -1;
    try {
        rc = s_read_nats_config(section, prefix, ini, mandatory, default_local, slot);
    } catch (const std::exception& e) {
        log_error("Failed to read NATS configuration: %s", e.what());
    }
    log_trace("Exiting");
    return rc;
}

int qvctrl_ReadAmqpConfigParameters(const char* section, const char* prefix, const ini_t* ini,
                                    bool mandatory, std::unique_ptr<qv_nats_config>& slot) {
    log_trace("Entering");
    int rc = -1;
    try {
        rc = s_read_amqp_config(section, prefix, ini, mandatory, slot);
    } catch (const std::exception& e) {
        log_error("Failed to read AMQP configuration: %s", e.what());
    }
    log_trace("Exiting");
    return rc;
}
