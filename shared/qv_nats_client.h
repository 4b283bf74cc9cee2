// NATS request/reply: the one connection of the process (TLS, reconnect, JetStream), JSON
// requests to named services, and pools of handler threads for the services this process offers.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qv_handles.h"
#include "qv_nats_config.h"
#include "qv_request_reply_types.h"

// Connects and sets _conn and, when possible, _js. 0 or -1.
int qv_nats_init(qv_nats_config* config);
// Releases the bucket handles, the JetStream context and the connection; handler threads that
// find the connection closed then end. Safe on null.
void qv_nats_deinit(qv_nats_config* config);
// Keeps the process reachable: when the library has given the connection up for good (closed it
// although nobody asked), builds a new one with the same settings and subscribes every offered
// service again; also renews a service subscription that did not survive. The daemon calls it
// from its main loop. 0 when all is in place, -1 when something must be tried again later.
int qv_nats_check_connection(qv_nats_config* config);

// The live connection and JetStream context, shared for the duration of one operation (a
// rebuilt connection replaces them). Null when there is none.
std::shared_ptr<natsConnection> qv_nats_connection(qv_nats_config* config);
std::shared_ptr<jsCtx> qv_nats_jetstream(qv_nats_config* config);

// Sends the JSON text to `service` and waits for the reply; `retries` more attempts after the
// first. Null on failure, with the reason in *errormsg when given.
qv::json_ptr qv_nats_send_recv_json(qv_nats_config* config, const char* service,
                                    const char* request_json_txt, uint32_t timeout_ms, int retries,
                                    std::string* errormsg);
// As qv_nats_send_recv_json, with the request's binary payload staged in the scan-data bucket
// (or its already staged key) named by "_kv_key" in the request. Chunks this call staged are
// deleted once a reply came; without a reply they are left to expire.
qv::json_ptr qv_nats_send_recv_json_data(qv_nats_config* config, const char* service,
                                         qv_const_request_reply_t* rr, uint64_t timeout_ms,
                                         uint64_t extra_timeout_ms, int retries,
                                         std::string* errormsg);
// The integer "ReturnCode" of the reply; -1 without a reply or without that member.
int qv_nats_simple_request(qv_nats_config* config, const char* service,
                           const char* request_json_txt, uint32_t timeout_ms, int retries,
                           std::string* errormsg);
// Sends the same request to every subject at once and waits for all of them: each subject has
// `attempts` attempts of `timeout_ms` (a no-responders answer is retried under the back-off rule
// without using up an attempt). The "ReturnCode" of each reply in the order of `subjects`, -1
// where no reply with one came, and for a subject that is not a valid publish subject (which is
// never sent).
std::vector<int> qv_nats_simple_request_all(qv_nats_config* config,
                                            const std::vector<std::string>& subjects,
                                            const std::string& request_json_txt,
                                            uint32_t timeout_ms, int attempts);
// Starts `number_of_threads` detached threads sharing one queue subscription on `service`
// (subject and queue group). Each ends when *terminate becomes non-zero or qv_nats_deinit closes
// the connection; a connection the library closed by itself only pauses them until
// qv_nats_check_connection has subscribed the service again. Every request with a reply subject
// is answered: a handler that leaves no reply gets {"ReturnCode": <its status>}. 0 or -1.
int qv_nats_start_service_handler_threads(qv_nats_config* config, const char* service,
                                          qv_service_handler_t request_handler,
                                          void* request_handler_config,
                                          const std::atomic<int>* terminate, int number_of_threads);
