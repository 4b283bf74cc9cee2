// qv-av-kv-setup: makes a NATS server ready for qv-av-control by creating its four key-value
// buckets when they are missing. Safe to run again: existing buckets are left as they are.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <getopt.h>
#include <unistd.h>

#include "log.h"
#include "qv_tool_connection.h"
#include "qv_kv_setup.h"
#include "qv_nats_client.h"

namespace {

void s_usage(FILE* out) {
    fprintf(
        out,
        "Usage: qv-av-kv-setup [options]\n"
        "Creates the buckets qv-av-scan-data, qv-av-worker-registry, qv-av-config and\n"
        "qv-av-event-subscriptions (history 1) when they do not exist.\n\n"
        "  --url URL             NATS server (env QV_NATS_URL), e.g. tls://localhost:4222\n"
        "  --user USER           user name (env QV_BROKER_USER)\n"
        "  --password PASSWORD   password (env QV_BROKER_PASSWORD)\n"
        "  --ca-file FILE        CA certificate for TLS (env QV_BROKER_CERT)\n"
        "  --scan-data-age SEC   maximum age of staged scan data (default 900)\n"
        "  --registry-age SEC    maximum age of worker registrations (default 15)\n"
        "  --subscriptions-age SEC  maximum age of event subscriptions (default 30)\n"
        "  --replicas N          servers of a cluster that keep each bucket (1 to 5, default 1)\n"
        "  --verbose             trace the connection on standard error\n"
        "  --help                this text\n");
}

bool s_seconds(const char* text, int64_t* out_ms) {
    char* end = nullptr;
    long long v = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || v < 0) {
        return false;
    }
    *out_ms = v * 1000;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    auto cfg = qv_nats_config_new();
    qv_tool_connection_from_env(cfg.get());
    qv_kv_bucket_ages ages;
    int replicas = 1;
    bool verbose = false;
    static const struct option options[] = {
        QV_TOOL_CONNECTION_OPTIONS,
        {"scan-data-age", required_argument, nullptr, 's'},
        {"registry-age", required_argument, nullptr, 'r'},
        {"subscriptions-age", required_argument, nullptr, 'e'},
        {"replicas", required_argument, nullptr, 'n'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "", options, nullptr)) != -1) {
        bool ok = true;
        if (qv_tool_connection_option(c, optarg, cfg.get(), &verbose)) {
            continue;
        }
        switch (c) {
            case 's':
                ok = s_seconds(optarg, &ages.scan_data_ms);
                break;
            case 'r':
                ok = s_seconds(optarg, &ages.worker_registry_ms);
                break;
            case 'e':
                ok = s_seconds(optarg, &ages.event_subscriptions_ms);
                break;
            case 'n': {
                char* end = nullptr;
                const long n = strtol(optarg, &end, 10);
                if (end == optarg || *end != '\0' || n < 1 || n > 5) {
                    fprintf(stderr, "qv-av-kv-setup: replicas must be 1 to 5: %s\n", optarg);
                    return 2;
                }
                replicas = static_cast<int>(n);
                break;
            }
            case 'h':
                s_usage(stdout);
                return 0;
            default:
                s_usage(stderr);
                return 2;
        }
        if (!ok) {
            fprintf(stderr, "qv-av-kv-setup: invalid number of seconds: %s\n", optarg);
            return 2;
        }
    }
    if (cfg->server_url.empty()) {
        fprintf(stderr, "qv-av-kv-setup: no NATS URL (use --url or QV_NATS_URL)\n");
        return 2;
    }
    qv_tool_logging(verbose, QVLOG_DEBUG);
    if (qv_nats_init(cfg.get()) != 0) {
        fprintf(stderr, "qv-av-kv-setup: cannot connect to %s\n", cfg->server_url.c_str());
        return 1;
    }
    std::string report;
    int rc = qv_kv_setup_buckets(cfg.get(), ages, &report, replicas);
    // A cluster that has just started may still be electing the server that creates streams:
    // the buckets that failed are tried again for a while.
    for (int attempt = 0; rc != 0 && replicas > 1 && attempt < 15; ++attempt) {
        sleep(2);
        report.clear();
        rc = qv_kv_setup_buckets(cfg.get(), ages, &report, replicas);
    }
    fputs(report.c_str(), rc == 0 ? stdout : stderr);
    qv_nats_deinit(cfg.get());
    return rc == 0 ? 0 : 1;
}
