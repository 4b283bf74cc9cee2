// Creation of the daemon's four key-value buckets on a NATS server, as the broker's start-up
// does: history 1, and a maximum age where entries are meant to lapse.
#pragma once

#include <cstdint>
#include <string>

#include "qv_nats_config.h"

struct qv_kv_bucket_ages {
    int64_t scan_data_ms = 15 * 60 * 1000;   // staged payloads outlive any scan time-out
    int64_t worker_registry_ms = 15000;      // a worker that stops beating lapses
    int64_t event_subscriptions_ms = 30000;  // a handler that stops subscribing lapses
    int64_t config_ms = 0;                   // kept until replaced
};

// Creates each bucket that does not exist yet, kept on `replicas` servers of a cluster; existing
// buckets are left as they are. Appends one line per bucket ("created <name>", "exists <name>" or
// the failure) to *report when given. 0 when all four exist afterwards, -1 otherwise.
int qv_kv_setup_buckets(qv_nats_config* cfg, const qv_kv_bucket_ages& ages, std::string* report,
                        int replicas = 1);
