// Keeping the cached cloud configurations of "qv-av-config" in step with the management side.
//
// Two paths: the backend pushes a change notification on the AMQP topic
// "topic://qv-av4-backend-control" (qvctrl_backend_config_change_handler, run by the AMQP service
// thread), and the configuration poller re-fetches every cached realm/SID pair from the API
// gateway (qvctrl_config_poller_thread). Both only replace entries that are already cached and
// differ by deep JSON comparison: a notification or poll never caches what no client asked for.
// A changed MIME configuration flushes the "qv-av-mimescan" workers of that realm and SID, a
// changed active content configuration the "qv-av-activecontent" workers; a changed scan
// configuration flushes nobody (clients read it afresh).
//
// Only one control instance polls at a time: before each pass the poller takes or renews the
// lease "_leader.config-poller" in the bucket for twice the poll interval (at least 10 s), so the
// holder keeps it from pass to pass and another instance takes over within two intervals after it
// stops. The lease is written at the revision that was read, so two instances never both hold it.
#pragma once

#include <atomic>
#include <cstdint>

#include "qv_request_reply_types.h"
#include "qvctrl_config.h"

// The AMQP address the backend publishes its change notifications on.
inline constexpr const char* QVCTRL_BACKEND_CONTROL_ADDRESS = "topic://qv-av4-backend-control";

// The lease key and the lease owner used when the instance has no identifier.
inline constexpr const char* QVCTRL_CONFIG_POLLER_LEASE_KEY = "_leader.config-poller";
inline constexpr const char* QVCTRL_CONFIG_POLLER_DEFAULT_OWNER = "config-poller";

// AMQP service handler for a change notification. `config` is the quorvale_control_config_t.
// 0, or -1 for a notification that is not JSON or has no "result". Never replies anything of its
// own: the backend expects no answer.
int qvctrl_backend_config_change_handler(void* config, qv_const_request_reply_t* request_reply);

// How long the poller's lease lasts for a poll interval in seconds: twice the interval, at least
// 10000 ms.
int64_t qvctrl_config_poller_lease_ms(uint32_t config_poll_interval);

// Re-fetches all four configurations of one realm/SID pair from the API gateway and replaces the
// cached ones that differ, flushing the workers concerned. 0, or -1 when the fetch failed.
int qvctrl_config_poller_refresh(quorvale_control_config_t* config, const char* realm,
                                 const char* SID);

// The poller thread: every config_poll_interval seconds, when this instance holds the lease,
// refreshes every cached realm/SID pair. Ends within a second once *terminate is non-zero or
// params->targetstatus is STOP. Returns 0.
int qvctrl_config_poller_thread(poller_thread_params_t* params, const std::atomic<int>* terminate);
