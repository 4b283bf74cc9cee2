// AMQP request/reply through the test broker: 8 requesters on the multi-threaded client against
// a service served by its handler threads, and the same requesters against a bare responder (one
// proton messaging handler on a container of its own that answers each request at once from its
// event loop) on the same broker in the same run. Prints both rates and their ratio.
//
// Usage: bench_amqp [seconds per run, default 5]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <proton/codec/vector.hpp>
#include <proton/connection.hpp>
#include <proton/connection_options.hpp>
#include <proton/container.hpp>
#include <proton/delivery.hpp>
#include <proton/error_condition.hpp>
#include <proton/message.hpp>
#include <proton/message_id.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver_options.hpp>
#include <proton/sender.hpp>

#include "amqp_broker.h"
#include "bench_load.h"
#include "log.h"
#include "qv_qpid_proton_mt_interface.h"
#include "qv_test_util.h"

namespace {

int s_ok_handler(void*, qv_const_request_reply_t* rr) {
    rr->reply->json_txt = "{\"ReturnCode\": 0}";
    return 0;
}

class bare_responder : public proton::messaging_handler {
  public:
    bare_responder(const qvtest::AmqpBroker& broker, std::string address)
        : address_(std::move(address)) {
        url_ = broker.host() + ":" + std::to_string(broker.port());
        qv_nats_config config;
        broker.configure(&config);
        options_.user(config.broker_user)
            .password(config.broker_password)
            .sasl_allowed_mechs("PLAIN")
            .sasl_allow_insecure_mechs(true);
        thread_ = std::thread([this] {
            try {
                container_.run();
            } catch (const std::exception& e) {
                fprintf(stderr, "bare responder: %s\n", e.what());
            }
        });
    }
    ~bare_responder() {
        container_.stop();
        thread_.join();
    }
    bool ready() const { return ready_; }

    void on_container_start(proton::container& c) override { c.connect(url_, options_); }
    void on_connection_open(proton::connection& c) override {
        sender_ = c.open_sender("");
        c.open_receiver(address_, proton::receiver_options().credit_window(100));
    }
    void on_receiver_open(proton::receiver&) override { ready_ = true; }
    // The connection is dropped at the end of the run; that is no failure.
    void on_error(const proton::error_condition&) override {}
    void on_message(proton::delivery&, proton::message& request) override {
        if (request.reply_to().empty()) {
            return;
        }
        proton::message reply;
        reply.to(request.reply_to());
        reply.correlation_id(request.id());
        reply.body(std::vector<std::string>{"{\"ReturnCode\": 0}"});
        sender_.send(reply);
    }

  private:
    std::string address_;
    std::string url_;
    proton::connection_options options_;
    proton::container container_{*this};
    proton::sender sender_;
    std::atomic<bool> ready_{false};
    std::thread thread_;
};

qvbench::load_result s_run(qv_nats_config* config, const std::string& service,
                           std::chrono::seconds duration) {
    const auto deadline = qvbench::clock_type::now() + duration;
    return qvbench::measure(
        8, [deadline](int, qvbench::clock_type::time_point now) { return now < deadline; },
        [&](int, int) {
            qv_request_reply_t rr;
            rr.request.json_txt = "{\"Command\": 3}";
            return qv_qpid_send_receive_mt(config, service.c_str(), 10000, 0, &rr, nullptr) == 0 &&
                   rr.reply.json_txt == "{\"ReturnCode\": 0}";
        });
}

}  // namespace

int main(int argc, char** argv) {
    const auto seconds = std::chrono::seconds(argc > 1 ? std::max(1, atoi(argv[1])) : 5);
    log_set_level(QVLOG_ERROR);
    qvtest::AmqpBroker broker;
    if (!broker.start()) {
        fprintf(stderr, "cannot start the test broker\n");
        return 1;
    }
    qv_nats_config config;
    broker.configure(&config);
    if (qv_qpid_init(&config) != 0) {
        return 1;
    }
    std::atomic<int> stop{0};
    qv_qpid_start_service_handler_threads(&config, "bench.service", s_ok_handler, nullptr, &stop,
                                          4);
    bare_responder bare(broker, "bench.bare");
    if (!qvtest::wait_until([&] { return bare.ready(); })) {
        fprintf(stderr, "bare responder did not attach\n");
        return 1;
    }
    // Warm-up of both paths (links attached, credit granted).
    s_run(&config, "bench.service", std::chrono::seconds(1));
    s_run(&config, "bench.bare", std::chrono::seconds(1));

    const qvbench::load_result base = s_run(&config, "bench.bare", seconds);
    const qvbench::load_result served = s_run(&config, "bench.service", seconds);
    qvbench::print_header();
    qvbench::print_row("amqp bare responder", base, base);
    qvbench::print_row("amqp service threads", served, base);
    stop = 1;
    qv_qpid_deinit(&config);
    return 0;
}
