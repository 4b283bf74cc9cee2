// The connection record of one broker connection: configured settings (filled by the
// configuration reader) and the live NATS handles (owned here, released by qv_nats_deinit).
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "qv_handles.h"

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

    // Live handles; declared so that buckets go before the JetStream context and the context
    // before the connection.
    qv::nats_connection_ptr _conn;
    qv::js_ctx_ptr _js;
    qv::kv_store_ptr _kv;
    qv::kv_store_ptr _kv_registry;
    std::array<qv::kv_store_ptr, 6> _kv_extra;
    std::array<std::string, 6> _kv_extra_name;
    // Guards the lazily opened bucket handles above.
    std::mutex _kv_mutex;
    // Service handler threads still running on this connection.
    std::atomic<int> _handler_threads{0};
};

std::unique_ptr<qv_nats_config> qv_nats_config_new();
