// The daemon-wide configuration record: allocated once at start-up with its defaults, filled from
// the command line and the configuration file, and shared by every thread until the process ends.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "qv_nats_config.h"
#include "qv_update_common.h"
#include "qvhlp_list.h"

enum qv_thread_status {
    CREATING = 0,
    STARTING = 1,
    READY = 2,
    BUSY = 3,
    HOLD = 4,
    RESUME = 5,
    STOP = 6,
    TERMINATED = 7,
};

enum qv_update_status_t {
    WAITING = 0,
    UPDATING = 1,
    FILES_READY = 2,
    WAITING_FOR_TEMP_WORKER = 3,
    WAITING_FOR_RESTART = 4,
};

struct log_config {
    long max_logfile_size_MB = 10;
    std::string basedir_errorlog;
    std::string basedir_updatelog;
    std::string basedir_blocklog;
    std::string basedir_statuslog;
    std::string basedir_epolog;
    std::string basedir_scanlog;
    std::string cluster_name;
    bool external_logger = false;
    bool log_as_json = false;
    bool split_logs_by_realm = true;
};

struct qv_network_config_t {
    std::string http_proxy;
};

// A running worker as projected from its registry entry. The names and the secret are set when
// the node is created and never change; the other fields are refreshed by later registrations
// under listmutex.
struct qv_active_worker_t {
    std::string servicename;
    std::string controlservicename;  // the worker-name: registry key and the worker's own subject
    std::string secret;
    int32_t IsPrimary = 0;
    time_t last_seen = 0;
    std::string driver_name;  // empty when the worker reported none
    int32_t major_version = 0;
    int32_t minor_version = 0;
    int64_t known_viruses = 0;
    int64_t known_variants = 0;
    time_t pattern_timestamp = 0;
};

// An installed service named by the INSTALLED key.
struct qv_installed_service_t {
    std::string servicename;
};

// One event subscription: the subject events are forwarded to (also its identity and, in shared
// mode, its bucket key) and the ';'-separated wildcard pattern lists of its scope.
struct qv_eventhandler_t {
    std::string service;
    std::string realm;
    std::string SID;
    std::string hostname;
    std::string modules;
    time_t expiration = 0;  // absolute; the handler is dropped once this has passed
};

// A realm's tenant and display name, as the API gateway delivered them. Never changed or removed
// once added: the first mapping of a realm wins.
struct quorvale_tenant_mapping_t {
    std::string realmID;
    std::string realmName;
    std::string tenantID;
};

struct quorvale_control_config_t {
    std::unique_ptr<qv_nats_config> main_nats_config;
    std::unique_ptr<qv_nats_config> backend_amqp_config;
    std::string basedir;
    std::string temppath;
    std::string workdir;
    std::string apigw_url;
    std::string apigw_user;
    std::string apigw_password;
    std::string confighash;
    int32_t max_clients = 1000;
    bool run_as_daemon = true;
    std::list<qv_installed_service_t> controlled_services;
    // Workers projected from the registry bucket; guarded by listmutex (the cache flush walks it
    // with the list's own iterator alone).
    qvhlp_list<qv_active_worker_t> running_services;
    int tracelevel = -1;
    std::string tracefile;
    size_t tracefile_max_size = 50;
    bool trace_to_screen = false;
    std::atomic<int32_t> endthreads{0};
    int32_t number_of_client_side_worker_threads = 10;
    int32_t number_of_service_side_worker_threads = 10;
    int32_t number_of_logger_threads = 5;
    int32_t number_of_epolog_threads = 0;
    int32_t number_of_event_dispatcher_threads = 5;
    std::mutex listmutex;
    std::mutex epolog_mutex;
    std::mutex log_write_mutex;
    std::unique_ptr<qv_update_config_t> update_config;
    std::unique_ptr<qv_network_config_t> network_config;
    std::string config_file;
    std::unique_ptr<struct log_config> log;
    bool console_mode = false;
    bool cloud_mode = false;
    bool cloud_management = false;
    std::string broker_auth_file;
    std::string broker_pid_file;
    bool cloud_logging = false;
    bool external_epolog_service = false;
    int32_t shutdown_delay = 15;
    std::mutex event_workers_listmutex;
    int32_t worker_timeout = 0;
    bool worker_registry_enabled = false;
    int32_t worker_registry_ttl_ms = 0;
    int32_t worker_registry_sync_interval_ms = 0;
    bool event_subscription_kv_enabled = false;
    int32_t event_subscription_ttl_ms = 0;
    int32_t event_subscription_sync_interval_ms = 0;
    uint32_t config_poll_interval = 180;
    // Guarded by event_workers_listmutex.
    std::list<qv_eventhandler_t> event_workers_list;
    // Realm-to-tenant mappings filled from the API gateway's answers; walked with the list's own
    // iterator.
    qvhlp_list<quorvale_tenant_mapping_t> tenants;
};

// A record with every default of a fresh start: the sub-records allocated, the lists empty.
std::unique_ptr<quorvale_control_config_t> qvctrl_config_new();

// What the realms poller and the configuration poller are started with. main owns the record for
// the life of the thread; setting targetstatus to STOP ends the thread's loop within a second.
struct poller_thread_params_t {
    std::atomic<qv_thread_status> currentstatus{CREATING};
    std::atomic<qv_thread_status> targetstatus{READY};
    quorvale_control_config_t* config = nullptr;
};
