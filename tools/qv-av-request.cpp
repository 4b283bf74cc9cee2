// qv-av-request: sends one request to a named service of qv-av-control (or of any component on
// the same bus), over NATS or over the HTTP gateway as the URL says, and prints the reply JSON.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include <getopt.h>

#include "log.h"
#include "qv_tool_connection.h"
#include "qv_connection_client.h"
#include "qv_json.h"

namespace {

void s_usage(FILE* out) {
    fprintf(
        out,
        "Usage: qv-av-request [options] SERVICE [JSON]\n"
        "Sends JSON (default {\"Command\": 3}) to SERVICE and prints the reply.\n\n"
        "  --url URL             nats://, tls:// or http(s):// gateway URL (env QV_NATS_URL)\n"
        "  --user USER           user name (env QV_BROKER_USER)\n"
        "  --password PASSWORD   password (env QV_BROKER_PASSWORD)\n"
        "  --ca-file FILE        CA certificate for TLS (env QV_BROKER_CERT)\n"
        "  --payload FILE        send the file's bytes as the request's binary payload\n"
        "                        (staged in NATS mode, a multipart part in HTTP mode)\n"
        "  --timeout MS          reply time-out in milliseconds (default 5000)\n"
        "  --retries N           further attempts after the first (default 0)\n"
        "  --proxy HOST:PORT     HTTP proxy for the gateway mode\n"
        "  --verbose             trace the exchange on standard error\n"
        "  --help                this text\n\n"
        "Example: qv-av-request --url tls://localhost:4222 --user control@local \\\n"
        "           --password \"$(cat .run/control.password)\" --ca-file .run/certs/ca.pem \\\n"
        "           qv-av-control.ping '{\"Command\": 3}'\n");
}

}  // namespace

int main(int argc, char** argv) {
    auto cfg = qv_connection_config_new();
    qv_tool_connection_from_env(cfg.get());
    std::string payload_file;
    long timeout_ms = 5000;
    int retries = 0;
    bool verbose = false;
    static const struct option options[] = {
        QV_TOOL_CONNECTION_OPTIONS,
        {"payload", required_argument, nullptr, 'f'},
        {"timeout", required_argument, nullptr, 't'},
        {"retries", required_argument, nullptr, 'r'},
        {"proxy", required_argument, nullptr, 'x'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "", options, nullptr)) != -1) {
        if (qv_tool_connection_option(c, optarg, cfg.get(), &verbose)) {
            continue;
        }
        switch (c) {
            case 'f':
                payload_file = optarg;
                break;
            case 't':
                timeout_ms = strtol(optarg, nullptr, 10);
                break;
            case 'r':
                retries = static_cast<int>(strtol(optarg, nullptr, 10));
                break;
            case 'x': {
                std::string proxy = optarg;
                const size_t colon = proxy.rfind(':');
                cfg->http_proxy_host = proxy.substr(0, colon);
                cfg->http_proxy_port = colon == std::string::npos ? "" : proxy.substr(colon + 1);
                break;
            }
            case 'h':
                s_usage(stdout);
                return 0;
            default:
                s_usage(stderr);
                return 2;
        }
    }
    if (optind >= argc) {
        s_usage(stderr);
        return 2;
    }
    const char* service = argv[optind];
    const std::string request = optind + 1 < argc ? argv[optind + 1] : "{\"Command\": 3}";
    if (cfg->server_url.empty()) {
        fprintf(stderr, "qv-av-request: no server URL (use --url or QV_NATS_URL)\n");
        return 2;
    }
    if (timeout_ms <= 0) {
        fprintf(stderr, "qv-av-request: invalid time-out\n");
        return 2;
    }
    qv_tool_logging(verbose, QVLOG_TRACE);

    qv_message_t req;
    req.json_txt = request;
    if (!payload_file.empty()) {
        std::ifstream in(payload_file, std::ios::binary);
        if (!in) {
            fprintf(stderr, "qv-av-request: cannot read %s\n", payload_file.c_str());
            return 2;
        }
        req.data.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    if (qv_connection_init(cfg.get()) != 0) {
        fprintf(stderr, "qv-av-request: cannot connect to %s\n", cfg->server_url.c_str());
        return 1;
    }
    std::string err;
    qv::json_ptr reply;
    if (payload_file.empty()) {
        reply = qv_connection_send_recv_json(cfg.get(), service, request.c_str(),
                                             static_cast<uint32_t>(timeout_ms), retries, &err);
    } else {
        qv_message_t rep;
        qv_const_request_reply_t rr{&req, &rep};
        reply = qv_connection_send_recv_json_data(
            cfg.get(), service, &rr, static_cast<uint64_t>(timeout_ms), 0, retries, &err);
    }
    int rc = 0;
    if (reply) {
        printf("%s\n", json_object_to_json_string_ext(
                           reply.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
    } else {
        fprintf(stderr, "qv-av-request: no reply from %s: %s\n", service,
                err.empty() ? "the reply was empty or not JSON" : err.c_str());
        rc = 1;
    }
    qv_connection_deinit(cfg.get());
    return rc;
}
