// The one way components reach each other: NATS request/reply and key-value buckets, or, when
// the server URL is http:// or https://, POSTs to an HTTP gateway (client-only, no buckets: the
// key-value operations then succeed trivially or find nothing, and a snapshot fails).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qv_handles.h"
#include "qv_nats_config.h"
#include "qv_nats_kv.h"
#include "qv_request_reply_types.h"

// True when the URL selects the HTTP gateway.
bool qv_connection_is_http(const qv_nats_config* cfg);

std::unique_ptr<qv_nats_config> qv_connection_config_new();
// Synthesises server_url from broker_host/broker_port and the credentials from broker_user /
// broker_password when unset, then connects (NATS) or initialises the HTTP client. 0 or -1.
int qv_connection_init(qv_nats_config* cfg);
void qv_connection_deinit(qv_nats_config* cfg);

qv::json_ptr qv_connection_send_recv_json(qv_nats_config* cfg, const char* service,
                                          const char* request_json_txt, uint32_t timeout_ms,
                                          int retries, std::string* errormsg);
qv::json_ptr qv_connection_send_recv_json_data(qv_nats_config* cfg, const char* service,
                                               qv_const_request_reply_t* rr, uint64_t timeout_ms,
                                               uint64_t extra_timeout_ms, int retries,
                                               std::string* errormsg);
int qv_connection_simple_request(qv_nats_config* cfg, const char* service,
                                 const char* request_json_txt, uint32_t timeout_ms, int retries,
                                 std::string* errormsg);
// The same request to every subject at once (see qv_nats_simple_request_all); over the HTTP
// gateway one after another.
std::vector<int> qv_connection_simple_request_all(qv_nats_config* cfg,
                                                  const std::vector<std::string>& subjects,
                                                  const std::string& request_json_txt,
                                                  uint32_t timeout_ms, int attempts);

int qv_connection_stage_scan_data(qv_nats_config* cfg, const unsigned char* data, size_t data_len,
                                  int64_t timeout_ms, std::string* out_key, std::string* errormsg);
void qv_connection_unstage_scan_data(qv_nats_config* cfg, const char* key);
int qv_connection_registry_put(qv_nats_config* cfg, const char* key, const char* value,
                               int64_t ttl_ms);
void qv_connection_registry_delete(qv_nats_config* cfg, const char* key);
int qv_connection_kv_get(qv_nats_config* cfg, const char* bucket, const char* key,
                         std::string* out_value);
int qv_connection_kv_put(qv_nats_config* cfg, const char* bucket, const char* key,
                         const char* value, int64_t ttl_ms);
void qv_connection_kv_delete(qv_nats_config* cfg, const char* bucket, const char* key);
int qv_connection_kv_keys(qv_nats_config* cfg, const char* bucket, const char* prefix,
                          const qv_kv_key_cb& callback);
int qv_connection_kv_snapshot(qv_nats_config* cfg, const char* bucket,
                              const qv_kv_snapshot_cb& callback);
int qv_connection_kv_lease(qv_nats_config* cfg, const char* bucket, const char* key,
                           const char* owner, int64_t ttl_ms);
int qv_connection_start_service_handler_threads(qv_nats_config* cfg, const char* service,
                                                qv_service_handler_t handler, void* handler_config,
                                                const std::atomic<int>* terminate,
                                                int number_of_threads);
