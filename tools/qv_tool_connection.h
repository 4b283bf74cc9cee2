// Connection settings shared by the command-line tools: defaults from the environment
// (QV_NATS_URL, QV_BROKER_USER, QV_BROKER_PASSWORD, QV_BROKER_CERT), then the options --url,
// --user, --password, --ca-file and --verbose.
#pragma once

#include <cstdlib>

#include <getopt.h>

#include "log.h"
#include "qv_nats_config.h"

#define QV_TOOL_CONNECTION_OPTIONS                                                       \
    {"url", required_argument, nullptr, 'u'}, {"user", required_argument, nullptr, 'U'}, \
        {"password", required_argument, nullptr, 'p'},                                   \
        {"ca-file", required_argument, nullptr, 'c'}, {                                  \
        "verbose", no_argument, nullptr, 'v'                                             \
    }

inline void qv_tool_connection_from_env(qv_nats_config* cfg) {
    auto env = [](const char* name) {
        const char* v = getenv(name);
        return v != nullptr ? v : "";
    };
    cfg->server_url = env("QV_NATS_URL");
    cfg->user = env("QV_BROKER_USER");
    cfg->password = env("QV_BROKER_PASSWORD");
    cfg->cert_path = env("QV_BROKER_CERT");
}

// Applies one of the shared options; false when `option` is not one of them.
inline bool qv_tool_connection_option(int option, const char* arg, qv_nats_config* cfg,
                                      bool* verbose) {
    switch (option) {
        case 'u':
            cfg->server_url = arg;
            return true;
        case 'U':
            cfg->user = arg;
            return true;
        case 'p':
            cfg->password = arg;
            return true;
        case 'c':
            cfg->cert_path = arg;
            return true;
        case 'v':
            *verbose = true;
            return true;
        default:
            return false;
    }
}

// Library diagnostics go to standard error only with --verbose.
inline void qv_tool_logging(bool verbose, int level) {
    log_set_quiet(verbose ? 0 : 1);
    log_set_screentrace(verbose ? 1 : 0);
    log_set_level(verbose ? level : QVLOG_OFF);
}
