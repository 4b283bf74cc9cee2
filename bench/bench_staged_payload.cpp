// Staged payload round trip (stage, serve, fetch, delete) through a service of this process,
// against a raw key-value put and get of the same bytes in 512 KiB pieces, on one nats-server in
// the same run. Prints MB/s for both and their ratio.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "log.h"
#include "nats_server.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"

namespace {

int s_sink_handler(void*, qv_const_request_reply_t* rr) {
    rr->reply->json_txt =
        "{\"ReturnCode\": 0, \"Size\": " + std::to_string(rr->request->data_len()) + "}";
    return 0;
}

double s_mbps(size_t bytes, int rounds, std::chrono::steady_clock::duration d) {
    const double secs = std::chrono::duration<double>(d).count();
    return secs > 0 ? (static_cast<double>(bytes) * rounds / 1e6) / secs : 0;
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
    qvtest::NatsServer server;
    if (!server.start() || server.create_buckets() != 0) {
        fprintf(stderr, "cannot start nats-server\n");
        return 1;
    }
    auto cfg = qv_nats_config_new();
    cfg->server_url = server.url();
    if (qv_nats_init(cfg.get()) != 0) {
        return 1;
    }
    std::atomic<int> stop{0};
    qv_nats_start_service_handler_threads(cfg.get(), "qv-bench.sink", s_sink_handler, nullptr,
                                          &stop, 2);
    std::shared_ptr<kvStore> kv_ref = get_kvstore(cfg.get());
    kvStore* kv = kv_ref.get();
    printf("%-8s %14s %14s %8s\n", "size", "staged MB/s", "raw KV MB/s", "ratio");
    for (size_t mib : {1, 8, 64}) {
        const size_t size = mib << 20;
        std::vector<unsigned char> data(size);
        for (size_t i = 0; i < size; ++i) {
            data[i] = static_cast<unsigned char>(i * 2654435761u >> 24);
        }
        auto t0 = std::chrono::steady_clock::now();
        for (int r = 0; r < rounds; ++r) {
            qv_message_t request;
            request.json_txt = "{\"Command\": 101}";
            request.data = data;
            qv_message_t reply;
            qv_const_request_reply_t rr{&request, &reply};
            std::string err;
            if (!qv_nats_send_recv_json_data(cfg.get(), "qv-bench.sink", &rr, 60000, 0, 0, &err)) {
                fprintf(stderr, "staged request failed: %s\n", err.c_str());
                return 1;
            }
        }
        const auto staged = std::chrono::steady_clock::now() - t0;

        t0 = std::chrono::steady_clock::now();
        for (int r = 0; r < rounds; ++r) {
            const size_t pieces = (size + QV_KV_CHUNK_SIZE - 1) / QV_KV_CHUNK_SIZE;
            for (size_t i = 0; i < pieces; ++i) {
                const std::string key = "raw-" + std::to_string(i);
                const size_t off = i * QV_KV_CHUNK_SIZE;
                uint64_t rev = 0;
                kvStore_Put(&rev, kv, key.c_str(), data.data() + off,
                            static_cast<int>(std::min(QV_KV_CHUNK_SIZE, size - off)));
            }
            std::vector<unsigned char> back;
            back.reserve(size);
            for (size_t i = 0; i < pieces; ++i) {
                kvEntry* e = nullptr;
                if (kvStore_Get(&e, kv, ("raw-" + std::to_string(i)).c_str()) == NATS_OK) {
                    const auto* p = static_cast<const unsigned char*>(kvEntry_Value(e));
                    back.insert(back.end(), p, p + kvEntry_ValueLen(e));
                }
                kvEntry_Destroy(e);
            }
            for (size_t i = 0; i < pieces; ++i) {
                kvStore_Delete(kv, ("raw-" + std::to_string(i)).c_str());
            }
        }
        const auto raw = std::chrono::steady_clock::now() - t0;
        const double a = s_mbps(size, rounds, staged);
        const double b = s_mbps(size, rounds, raw);
        printf("%3zu MiB %14.1f %14.1f %8.2f\n", mib, a, b, b > 0 ? a / b : 0);
    }
    stop = 1;
    qv_nats_deinit(cfg.get());
    return 0;
}
