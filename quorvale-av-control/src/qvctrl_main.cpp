// qv-av-control: start-up, the thread start phase, the two-second main loop and shutdown.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include <czmq.h>
#include <fcntl.h>
#include <malloc.h>
#include <openssl/crypto.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <curl/curl.h>
#include <uuid/uuid.h>

#include "log-helper.h"
#include "log.h"
#include "qv_log.h"
#include "qv_nats_client.h"
#include "qv_shm-heartbeat.h"
#include "qv_uuid.h"
#include "qv_worker_ping_handler.h"
#include "qv-av-control-epolog.h"
#include "qv-av-control-event-dispatcher.h"
#include "qv-av-control-json-logger.h"
#include "qvctrl_worker_request_handlers.h"
#include "qvctrl_PIDlockfile.h"
#include "qv_qpid_proton_mt_interface.h"
#include "qvctrl_backend_config_changes.h"
#include "qvctrl_config.h"
#include "qvctrl_flush_worker_caches.h"
#include "qvctrl_scan_config_requests.h"
#include "qvctrl_parse_commandline.h"
#include "qvctrl_realms_poller_thread.h"
#include "qvctrl_registry_poller.h"
#include "qvctrl_update_thread.h"
#include "qvhlp_network.h"
#include "qvhlp_path.h"
#include "qvsemaphore.h"
#include "qvthread.h"

// Read by jemalloc at start-up (an unused global in builds without it). Pages freed after a
// burst of large requests, staged payloads above all, go back to the system within a second
// instead of ten, so that the daemon's resident size follows its load rather than its history.
extern "C" {
const char* malloc_conf = "dirty_decay_ms:1000,muzzy_decay_ms:0";
}

namespace {

// The process stop flag: written by the SIGTERM handler and by cleanup, read by every thread.
std::atomic<int> killed{0};
static_assert(std::atomic<int>::is_always_lock_free, "the stop flag is set from a signal handler");
// The last signal handled, logged by the main loop (logging is not safe inside the handler).
std::atomic<int> s_handled_signal{0};
// Set by SIGTERM and never cleared: the retry of a failed start phase resets `killed`, and a
// SIGTERM that arrives meanwhile must still end the process.
std::atomic<int> s_sigterm_seen{0};

// The configuration record: shared by every thread for the life of the process.
std::unique_ptr<quorvale_control_config_t> s_config;

// Descriptor of the instance lock file; held (and locked) until the process ends.
qv::unique_fd fd_lockfile;

// The worker-registry watcher of the current start phase.
qv_thread_t s_registry_watcher;

// The event-subscription watcher of the current start phase (shared subscriptions only).
qv_thread_t s_event_sub_watcher;

// The cloud-management pollers of the current start phase and their parameter records. A poller
// busy with a slow transfer when it is told to stop is let go, so it shares its record with the
// phase rather than borrowing it.
struct s_poller {
    qv_thread_t thread;
    std::shared_ptr<poller_thread_params_t> params;
};
s_poller s_realms_poller;
s_poller s_config_poller;

// Modification times of the on-premises configuration directories, as last seen; a change makes
// the main loop flush the workers of that configuration kind.
time_t s_mime_dir_modification_time = 0;
time_t s_activecontent_dir_modification_time = 0;
time_t s_vsa_dir_modification_time = 0;

constexpr const char* s_component = "qv-av-control";

void sigterm_handler_fn(int signal) {
    killed.store(1);
    s_sigterm_seen.store(1);
    s_handled_signal.store(signal);
}

void s_log_handled_signal() {
    int signal = s_handled_signal.exchange(0);
    if (signal != 0) {
        log_debug("Signal %d handled", signal);
    }
}

// The host's IPv4 address with '.' replaced by '_', or a random UUID when no copy can be made.
std::string s_create_IP_string() {
    const char* ip = qvhlp_GetMyIP();
    char text[16];
    snprintf(text, sizeof(text), "%s", ip != nullptr ? ip : "(null)");
    for (char* p = text; *p != '\0'; ++p) {
        if (*p == '.') {
            *p = '_';
        }
    }
    return text;
}

int s_allocate_config_structs_and_set_defaults(
    std::unique_ptr<quorvale_control_config_t>* config_out,
    std::shared_ptr<qv_control_update_thread_params_t>* update_params_out) {
    try {
        auto config = qvctrl_config_new();
        config->confighash = s_create_IP_string();
        if (config->confighash.empty()) {
            log_warn("Failed to get IP address - using random uuid as fallback");
            uuid_t uuid;
            char uuid_str[37];
            qv_uuid_generate_random(uuid);
            qv_uuid_unparse_lower(uuid, uuid_str);
            config->confighash = uuid_str;
        }
        auto params = std::make_shared<qv_control_update_thread_params_t>();
        params->config = config.get();
        *config_out = std::move(config);
        *update_params_out = std::move(params);
    } catch (const std::bad_alloc& e) {
        fprintf(stderr, "Failed to allocate config struct: %s\r\n", strerror(ENOMEM));
        return -1;
    }
    return 0;
}

// One row of the thread start phase: a service-handler pool on a NATS subject.
struct service_row {
    bool enabled;
    const char* service;
    const char* display_name;
    int count;
    qv_service_handler_t entry;
};

int s_start_worker_threads(quorvale_control_config_t* config, qv_service_handler_t entry, int count,
                           const char* servicename, const char* name) {
    log_info("Starting %d %s worker threads", count, name);
    int rc = qv_nats_start_service_handler_threads(config->main_nats_config.get(), servicename,
                                                   entry, config, &killed, count);
    if (rc != 0) {
        log_error("Failed to create %s (%s) service handler threads", name, servicename);
        return rc;
    }
    log_trace("Created %d %s (%s) service handler threads", count, name, servicename);
    return 0;
}

void s_join_worker_threads(qv_thread_t* worker_threads, int count, const char* name) {
    if (worker_threads == nullptr) {
        log_warn("No %s threads to join", name);
        return;
    }
    for (int i = 0; i < count; ++i) {
        log_trace("Joining %s thread #%d", name, i);
        QV_JoinThreadTimeout(&worker_threads[i], 1000);
    }
}

// Sleeps up to `seconds`, in steps short enough to notice the stop flag when `watch_stop` is set.
void s_sleep_seconds(int seconds, bool watch_stop) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < until) {
        if (watch_stop && killed.load() != 0) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

std::string s_format_path(const char* format, const std::string& basedir, const std::string& name) {
    char path[4096];
    snprintf(path, sizeof(path), format, basedir.c_str(), '/', '/', name.c_str());
    return path;
}

// A configuration directory under the base directory: <basedir>/config/<kind>.
std::string s_config_dir(const std::string& basedir, const char* kind) {
    char path[4096];
    snprintf(path, sizeof(path), "%s%cconfig%c%s", basedir.c_str(), '/', '/', kind);
    return path;
}

// Starts a poller with a fresh parameter record. 0 or -1.
int s_start_poller(s_poller* poller, quorvale_control_config_t* config,
                   void (*entry)(poller_thread_params_t*)) {
    auto params = std::make_shared<poller_thread_params_t>();
    params->config = config;
    poller->params = params;
    poller->thread = qv_thread_t();
    return QV_CreateThread(&poller->thread, [params, entry] { entry(params.get()); });
}

// Tells a poller to stop and waits a moment for it.
void s_stop_poller(s_poller* poller, const char* name) {
    if (poller->params) {
        poller->params->targetstatus = STOP;
    }
    if (poller->thread.thread.joinable()) {
        s_join_worker_threads(&poller->thread, 1, name);
    }
}

// Starts the update thread under the installation's update lock file. Each start phase gets a
// fresh parameter record: a thread of an earlier phase that outlived its join keeps its own.
int s_start_update_thread(quorvale_control_config_t* config, qv_thread_t* update_thread,
                          std::shared_ptr<qv_control_update_thread_params_t>* update_params) {
    char dir[4096];
    snprintf(dir, sizeof(dir), "%s/qv-av-control", config->basedir.c_str());
    lock_file_set_path(&update_lockfile, dir, QVCTRL_UPDATE_LOCK_NAME);
    auto params = std::make_shared<qv_control_update_thread_params_t>();
    params->config = config;
    *update_params = params;
    *update_thread = qv_thread_t();
    if (QV_CreateThread(update_thread, [params] { qvctrl_update_thread(params.get()); }) != 0) {
        log_error("Failed to create update thread");
        return -1;
    }
    return 0;
}

// The thread start phase. 0 when every row and thread started.
int s_start_threads(quorvale_control_config_t* config, qv_thread_t* update_thread,
                    std::shared_ptr<qv_control_update_thread_params_t>* update_params) {
    const bool json_logs = config->log->log_as_json;
    const service_row rows[] = {
        {!config->log->external_logger, "qv-av-log",
         json_logs ? "qv-av-json-logger" : "qv-av-logger", config->number_of_logger_threads,
         json_logs ? qv_av_control_json_logger_request_handler
                   : qv_av_control_logger_request_handler},
        {true, "qv-av-events-dispatch", "event dispatcher",
         config->number_of_event_dispatcher_threads, qv_av_control_event_request_handler},
        {true, "qv-av-worker-control", "qv-av-control (service-side)",
         config->number_of_service_side_worker_threads,
         qv_av_control_worker_service_request_handler},
        {true, "qv-av-control", "qv-av-control (client-side)",
         config->number_of_client_side_worker_threads, qv_av_control_worker_client_request_handler},
        {true, "qv-av-control.ping", "qv-av-control (ping)", 1, qv_worker_ping_request_handler},
        {!config->external_epolog_service, "qv-av-epolog", "epolog service",
         config->number_of_epolog_threads, qv_av_control_epolog_request_handler},
    };
    for (const service_row& row : rows) {
        if (!row.enabled) {
            continue;
        }
        if (s_start_worker_threads(config, row.entry, row.count, row.service, row.display_name) !=
            0) {
            return -1;
        }
    }
    if (s_start_update_thread(config, update_thread, update_params) != 0) {
        return -1;
    }
    if (config->cloud_management) {
        log_info("Starting realms_poller thread");
        if (s_start_poller(&s_realms_poller, config, [](poller_thread_params_t* params) {
                qvctrl_realms_poller_thread(params);
            }) != 0) {
            log_error("Failed to create realms_poller thread");
            return -1;
        }
    }
    if (config->worker_registry_enabled) {
        log_info("Starting worker-registry watcher thread");
        const registry_watcher_params_t params{config, &killed};
        s_registry_watcher = qv_thread_t();
        if (QV_CreateThread(&s_registry_watcher,
                            [params] { qvctrl_registry_poller_thread(params); }) != 0) {
            log_error("Failed to create worker-registry watcher thread");
            return -1;
        }
    }
    if (config->event_subscription_kv_enabled) {
        log_info("Starting event-subscription watcher thread");
        const event_sub_watcher_params_t params{config, &killed};
        // A watcher of an earlier phase that outlived its join is let go, not waited for.
        s_event_sub_watcher = qv_thread_t();
        if (QV_CreateThread(&s_event_sub_watcher,
                            [params] { qvctrl_event_sub_watcher_thread(params); }) != 0) {
            log_error("Failed to create event-subscription watcher thread");
            return -1;
        }
    }
    if (config->cloud_management) {
        log_info("Starting config_poller thread");
        if (s_start_poller(&s_config_poller, config, [](poller_thread_params_t* params) {
                qvctrl_config_poller_thread(params, &killed);
            }) != 0) {
            log_error("Failed to create config_poller thread");
            return -1;
        }
    }
    if (config->cloud_mode) {
        log_info("Starting backend thread");
        if (qv_qpid_start_service_handler_threads(
                config->backend_amqp_config.get(), QVCTRL_BACKEND_CONTROL_ADDRESS,
                qvctrl_backend_config_change_handler, config, &killed, 1) != 0) {
            log_error("Failed to create backend thread");
            return -1;
        }
        log_info("Created backend thread");
    }
    return 0;
}

// The status-log message of a completed start. This process runs no log dispatcher, so the
// message is built and then dropped. The first count is the service-side pool, shown under the
// client-facing label as the status log has always shown it.
void s_build_status_log(const quorvale_control_config_t* config) {
    qv::json_ptr msg = qv_log_create_message();
    qv::json_ptr data(json_object_new_object());
    if (!msg || !data) {
        return;
    }
    char text[256];
    snprintf(text, sizeof(text),
             "Control ready. PID: %d, %d client-facing threads, %d service-facing threads",
             static_cast<int>(getpid()), config->number_of_service_side_worker_threads,
             config->number_of_client_side_worker_threads);
    json_object_object_add(data.get(), "Message", json_object_new_string(text));
    qv_log_add_log_section(msg.get(), "StatusLog", nullptr, std::move(data));
}

// `pid_lock_fd`: the PID file's descriptor when it is locked (console instances), else -1.
void s_main_loop(quorvale_control_config_t* config, qv_control_update_thread_params_t* params,
                 char** argv, int pid_lock_fd) {
    s_build_status_log(config);
    log_trace("Entering main loop");
    while (killed.load() == 0) {
        s_sleep_seconds(2, true);
        if (killed.load() != 0) {
            s_log_handled_signal();
            log_info("Signal received. Exiting gracefully...");
            break;
        }
        if (params != nullptr && params->status.load() == FILES_READY) {
            log_debug("Initiating Update Activation");
            if (qvctrl_complete_update_activation(config->basedir.c_str(),
                                                  params->update_deployed_to.c_str(), argv,
                                                  fd_lockfile.get(), pid_lock_fd) != 0) {
                log_error("Failed to complete update activation");
                params->status = WAITING;
            }
        }
        // A connection the library gave up is built anew here, so the daemon never idles deaf.
        qv_nats_check_connection(config->main_nats_config.get());
        if (!config->cloud_mode && !config->cloud_management) {
            qvctrl_check_flush_config_caches(config, "qv-av-mimescan",
                                             s_config_dir(config->basedir, "mime").c_str(),
                                             &s_mime_dir_modification_time);
            qvctrl_check_flush_config_caches(config, "qv-av-activecontent",
                                             s_config_dir(config->basedir, "activecontent").c_str(),
                                             &s_activecontent_dir_modification_time);
            // Scan configurations are built from the files once and then served from the bucket:
            // a newer vsa directory releases them all, so the next request rebuilds them.
            const time_t vsa_mtime =
                qvhlp_get_dir_mtime(s_config_dir(config->basedir, "vsa").c_str());
            if (vsa_mtime > s_vsa_dir_modification_time) {
                log_info("Scan configurations were updated - reloading");
                qvctrl_release_scan_configurations(config);
                s_vsa_dir_modification_time = vsa_mtime;
            }
        }
        malloc_trim(0);
    }
    log_trace("Exited main loop");
}

int s_run(int argc, char** argv) {
    int pidfile_fd = -1;
    int rc = 0;
    bool startup_loop_enabled = false;
    qv__progname = argv[0];
    log_set_quiet(0);
    log_set_screentrace(1);

    char hostname[4096] = {};
    if (gethostname(hostname, sizeof(hostname) - 1) != 0) {
        snprintf(hostname, sizeof(hostname), "hostname_not_read");
    }

    std::shared_ptr<qv_control_update_thread_params_t> update_params;
    if (s_allocate_config_structs_and_set_defaults(&s_config, &update_params) != 0) {
        return -1;
    }
    quorvale_control_config_t* config = s_config.get();

    if (qvctrl_parse_commandline(config, argc, argv) != 0) {
        fprintf(stderr, "Failed to parse command line parameters\r\n");
        qvctrl_commanline_error();
        exit(-1);
    }

    qv_thread_t update_thread;
    qv::sem_ptr heartbeat_sem;
    std::unique_ptr<mappedRegionS> mapped_region;

    // Everything below reports a failure by setting rc and leaving this block for cleanup.
    do {
        zsys_handler_set(nullptr);
        signal(SIGPIPE, SIG_IGN);
        struct sigaction action {};
        action.sa_handler = sigterm_handler_fn;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        if (sigaction(SIGTERM, &action, nullptr) != 0) {
            fprintf(stderr, "Error registering signal handler. errno=%d", errno);
            rc = -1;
            break;
        }
        srand(static_cast<unsigned int>(pthread_self()) + static_cast<unsigned int>(clock()));

        if (QVOpenTraceFile(config->tracefile.c_str(), config->tracelevel,
                            config->tracefile_max_size) != 0) {
            log_error("Failed to open Log/trace file %s", config->tracefile.c_str());
        }
        const std::string rule(70, '=');
        log_info("%s", rule.c_str());
        log_info("  Starting %s", s_component);
        log_info("  Component Version: %d.%d", 2, 2);
        log_info("%s", rule.c_str());

        char version_path[4096];
        snprintf(version_path, sizeof(version_path), "%s%c%s%c.running_version",
                 config->basedir.c_str(), '/', s_component, '/');
        char version_text[1024];
        snprintf(version_text, sizeof(version_text),
                 "quorvale Anti-Virus %d.%d.%d Build %d\r\n%s v.%d.%d\n ", 4, 0, 5, 136,
                 s_component, 2, 2);
        qvhlp_dump_buffer_to_file(version_path, version_text, strlen(version_text));

        qv_nats_config* nats = config->main_nats_config.get();
        if (config->basedir.empty()) {
            log_error("Invalid Parameter 'basedir'");
            rc = -1;
            break;
        }
        if (nats == nullptr || nats->server_url.empty()) {
            log_error("Invalid Parameter NATS_URL / BROKER_URL");
            rc = -1;
            break;
        }
        if (nats->user.empty()) {
            log_error("Invalid Parameter BROKER_USER");
            rc = -1;
            break;
        }
        if (nats->password.empty()) {
            log_error("Invalid Parameter BROKER_PASSWORD");
            rc = -1;
            break;
        }
        if (nats->broker_name.empty()) {
            log_error("Invalid Parameter BROKER_NAME");
            rc = -1;
            break;
        }

        if (config->temppath.empty()) {
            // The variable's name really includes the dollar sign; plain TMPDIR is not consulted.
            const char* tmp = getenv("$TMPDIR");
            config->temppath = tmp != nullptr ? tmp : "/tmp";
        }

        if (!config->console_mode) {
            char cwd[4096] = {};
            if (getcwd(cwd, sizeof(cwd)) == nullptr) {
                cwd[0] = '\0';
            }
            zsys_daemonize(cwd[0] != '\0' ? cwd : nullptr);
        }

        // Handler threads fetch from the API gateway side by side: the transfer library's global
        // state is set up once, here, before any of them runs.
        static const CURLcode curl_ready = curl_global_init(CURL_GLOBAL_ALL);
        if (curl_ready != CURLE_OK) {
            log_error("curl_global_init failed: %s", curl_easy_strerror(curl_ready));
        }
        if (qv_nats_init(nats) != 0) {
            log_error("Failed to initialize main NATS connection");
            rc = -1;
            break;
        }
        // The backend is optional: without it the daemon serves, and configuration changes
        // reach it through the configuration poller only.
        const qv_nats_config* backend = config->backend_amqp_config.get();
        if (config->cloud_mode && backend != nullptr && !backend->broker_host.empty() &&
            !backend->broker_port.empty() && qv_qpid_init(config->backend_amqp_config.get()) != 0) {
            log_warn("Failed to initialize backend AMQP connection");
        }

        s_mime_dir_modification_time =
            qvhlp_get_dir_mtime(s_config_dir(config->basedir, "mime").c_str());
        s_activecontent_dir_modification_time =
            qvhlp_get_dir_mtime(s_config_dir(config->basedir, "activecontent").c_str());
        s_vsa_dir_modification_time =
            qvhlp_get_dir_mtime(s_config_dir(config->basedir, "vsa").c_str());

        const std::string lock_path = s_format_path("%s%crun%cquorvale-av-control_%s.lock",
                                                    config->basedir, config->confighash);
        fd_lockfile.reset(open(lock_path.c_str(), O_RDWR | O_CREAT, 0600));
        if (!fd_lockfile) {
            log_fatal("Failed to open %s", lock_path.c_str());
        }
        log_info("Attempting exclusive lock on %s", lock_path.c_str());
        flock(fd_lockfile.get(), LOCK_EX);
        log_info("%s locked", lock_path.c_str());

        const std::string pid_path = s_format_path("%s%crun%cquorvale-av-control_%s.pid",
                                                   config->basedir, config->confighash);
        if (qvctrl_StorePID(&pidfile_fd, pid_path.c_str(), !config->run_as_daemon) != 0) {
            log_fatal("Failed to create PID/lock file \"%s\"", pid_path.c_str());
            rc = -1;
            break;
        }

        if (!config->run_as_daemon) {
            const std::string sem_name = "qv_heartbeat_" + config->confighash;
            heartbeat_sem.reset(QVsem_open(sem_name.c_str(), O_CREAT, 0666, 0, 1));
            if (!heartbeat_sem) {
                log_fatal("Failed to create heartbeat semaphore");
                rc = -1;
                break;
            }
            const std::string hb_path =
                s_format_path("%s%crun%cqv_heartbeat_%s", config->basedir, config->confighash);
            log_debug("heartbeat file: %s", hb_path.c_str());
            log_debug("Max VSA Processes: %d",
                      config->max_clients != 0 ? config->max_clients : 1000);
            if (qvctrl_InitializeHeartbeatFile(hb_path.c_str(), config->max_clients) != 0) {
                log_fatal("Failed to initialize heartbeat file");
                rc = -1;
                break;
            }
            if (memmap(hb_path.c_str(), 0, &mapped_region, 2) < 0) {
                log_error("Error mapping %s to memory. Reason:%s", hb_path.c_str(),
                          strerror(errno));
                rc = -1;
                break;
            }
            if (memGetAddr(mapped_region.get()) == nullptr) {
                log_error("Failed to get address of shared memory block. Reason:%s",
                          strerror(errno));
                rc = -1;
                break;
            }
        }
        startup_loop_enabled = true;
    } while (false);

    // The start-up loop: a failed thread start phase is retried after the shutdown delay until a
    // signal ends the process.
    while (true) {
        if (startup_loop_enabled) {
            rc = 0;
            if (s_start_threads(config, &update_thread, &update_params) != 0) {
                rc = -1;
            } else {
                // The services run: the services tooling may discover them (a subscription that
                // fails now is made again by the main loop's connection check).
                qv_nats_config* nats = config->main_nats_config.get();
                nats->_micro.start(qv_nats_connection(nats).get());
                s_main_loop(config, update_params.get(), argv,
                            config->run_as_daemon ? -1 : pidfile_fd);
                if (pidfile_fd >= 0) {
                    close(pidfile_fd);
                    pidfile_fd = -1;
                }
            }
        }
        if (killed.load() != 0 || s_sigterm_seen.load() != 0) {
            startup_loop_enabled = false;
        }
        s_sleep_seconds(config->shutdown_delay, false);
        config->endthreads.store(1);
        killed.store(1);
        if (update_params) {
            update_params->targetstatus = STOP;
        }
        s_join_worker_threads(update_thread.thread.joinable() ? &update_thread : nullptr, 1,
                              "update");
        if (s_registry_watcher.thread.joinable()) {
            s_join_worker_threads(&s_registry_watcher, 1, "worker-registry watcher");
        }
        s_stop_poller(&s_realms_poller, "realms_poller");
        s_stop_poller(&s_config_poller, "config_poller");
        // The watcher must be gone before a retried phase lowers the stop flag and starts another.
        if (s_event_sub_watcher.thread.joinable()) {
            s_join_worker_threads(&s_event_sub_watcher, 1, "event-subscription watcher");
        }
        if (startup_loop_enabled && s_sigterm_seen.load() == 0) {
            // The handler threads of the failed phase end on the stop flag; let them go before
            // it is lowered again, or every retry would leave a pool behind.
            qv_nats_config* nats = config->main_nats_config.get();
            for (int waited = 0;
                 nats != nullptr && nats->_handler_threads.load() > 0 && waited < 2000;
                 waited += 10) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            killed.store(0);
            continue;
        }
        break;
    }
    s_log_handled_signal();

    if (config->main_nats_config) {
        config->main_nats_config->_micro.stop();
    }
    qv_nats_deinit(config->main_nats_config.get());
    qv_qpid_deinit(config->backend_amqp_config.get());
    update_params.reset();
    log_trace("removing the update lockfile");
    lock_release(&update_lockfile);
    log_debug("Cleaning up SSL");
    nats_CloseAndWait(1000);
    OPENSSL_cleanup();
    log_info("Ending control with rc=%d", rc);
    QVCloseTraceFile();
    return rc;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return s_run(argc, argv);
    } catch (const std::exception& e) {
        log_fatal("Unexpected exception: %s", e.what());
    } catch (...) {
        log_fatal("Unexpected exception");
    }
    return -1;
}
