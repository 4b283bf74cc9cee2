// The connection record of one broker connection: configured settings (filled by the
// configuration reader) and the live NATS handles (owned here, released by qv_nats_deinit).
#pragma once

#include <array>
#include <cstdint>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qv_handles.h"
#include "qv_nats_micro.h"

struct qv_nats_handler_thread_args_t;
struct qv_nats_fanout_inbox;
class qv_nats_kv_cache;

struct qv_nats_config {
    std::string server_url;
    std::string user;
    std::string password;
    std::string broker_name;
    std::string cert_path;
    std::string client_cert_path;
    std::string client_key_path;
    std::string broker_host;
    std::string broker_port;
    std::string broker_user;
    std::string broker_password;
    std::string cert_data;
    std::string http_proxy_host;
    std::string http_proxy_port;
    std::string http_proxy_user;
    std::string http_proxy_password;
    // Transport-specific extras (the AMQP client keeps its state here).
    std::shared_ptr<void> extra_params;

    // Largest staged payload a served request may announce (MAX_STAGED_PAYLOAD); a larger
    // manifest fails the request before anything is allocated or read.
    uint64_t max_staged_payload = 268435456;

    // Live handles. They are replaced together when the library gives a connection up for good
    // (qv_nats_check_connection), so every user takes shared copies under _kv_mutex and keeps
    // them for one operation: a replaced connection goes only after its last user is done.
    std::shared_ptr<natsConnection> _conn;
    std::shared_ptr<jsCtx> _js;
    std::shared_ptr<kvStore> _kv;
    std::shared_ptr<kvStore> _kv_registry;
    std::array<std::shared_ptr<kvStore>, 6> _kv_extra;
    std::array<std::string, 6> _kv_extra_name;
    // Guards the handles above.
    std::mutex _kv_mutex;
    // Service handler threads still running on this connection.
    std::atomic<int> _handler_threads{0};
    // Set by qv_nats_deinit: handler threads that find the connection closed leave instead of
    // waiting for a new one.
    std::atomic<bool> _closing{false};
    // The services offered on this connection, subscribed again on a rebuilt connection.
    std::mutex _services_mutex;
    std::vector<std::shared_ptr<qv_nats_handler_thread_args_t>> _services;
    // The one reply subscription that every fan-out of requests on this connection shares
    // (made on first use, again for a rebuilt connection).
    std::shared_ptr<qv_nats_fanout_inbox> _fanout_inbox;
    // Discovery by the services tooling: the endpoints and statistics of the services above, and
    // the responder. Last, so that it stops before the handles above go.
    qv_nats_micro _micro;
    // The read cache of the configuration bucket (made on first read, under _kv_mutex). Last of
    // all: its watch uses the handles above until it is stopped.
    std::shared_ptr<qv_nats_kv_cache> _config_cache;
};

std::unique_ptr<qv_nats_config> qv_nats_config_new();
