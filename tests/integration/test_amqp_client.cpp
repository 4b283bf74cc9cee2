#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <proton/binary.hpp>
#include <proton/message.hpp>
#include <proton/value.hpp>

#include "amqp_broker.h"
#include "log_capture.h"
#include "qv_nats_config.h"
#include "qv_qpid_proton_mt_interface.h"
#include "qv_test_util.h"

using qvtest::AmqpBroker;
using qvtest::LogCapture;
using qvtest::wait_until;
using namespace std::chrono_literals;

namespace {

// Echoes the request as {"ReturnCode": 0, "Echo": <request>} and its data with "+" appended.
int echo_handler(void*, qv_const_request_reply_t* rr) {
    rr->reply->json_txt = "{\"ReturnCode\": 0, \"Echo\": " + rr->request->json_txt + "}";
    if (!rr->request->data.empty()) {
        rr->reply->data = rr->request->data;
        rr->reply->data.push_back('+');
    }
    return 0;
}

int silent_handler(void*, qv_const_request_reply_t*) {
    return -5;
}

struct Result {
    int rc = -1;
    std::string json;
    std::string data;
    std::string error;
    // The reply, or the failure with its reason.
    std::string answer() const { return rc == 0 ? json : "failed: " + error; }
};

Result s_request(qv_nats_config* config, const std::string& service, const std::string& json,
                 const std::string& data = "", int timeout_ms = 5000) {
    qv_request_reply_t rr;
    rr.request.json_txt = json;
    rr.request.data.assign(data.begin(), data.end());
    char errormsg[1024] = "";
    Result r;
    r.rc = qv_qpid_send_receive_mt(config, service.c_str(), timeout_ms, 0, &rr, errormsg);
    r.json = rr.reply.json_txt;
    r.data.assign(rr.reply.data.begin(), rr.reply.data.end());
    r.error = errormsg;
    return r;
}

class AmqpClient : public ::testing::Test {
  protected:
    void SetUp() override { start(AmqpBroker::Options{}); }

    void start(const AmqpBroker::Options& options) {
        broker_ = std::make_unique<AmqpBroker>(options);
        ASSERT_TRUE(broker_->start());
        broker_->configure(&config_);
        ASSERT_EQ(0, qv_qpid_init(&config_));
    }

    void TearDown() override {
        terminate_ = 1;
        qv_qpid_deinit(&config_);
        EXPECT_EQ(nullptr, config_.extra_params);
    }

    int serve(const std::string& service, qv_service_handler_t handler, void* context = nullptr,
              int threads = 2) {
        return qv_qpid_start_service_handler_threads(&config_, service.c_str(), handler, context,
                                                     &terminate_, threads);
    }
    Result ask(const std::string& service, const std::string& json, int timeout_ms = 5000) {
        return s_request(&config_, service, json, "", timeout_ms);
    }

    std::unique_ptr<AmqpBroker> broker_;
    qv_nats_config config_;
    std::atomic<int> terminate_{0};
};

TEST_F(AmqpClient, RequestsReachServiceThreadsAndEveryRequesterGetsItsOwnReply) {
    ASSERT_EQ(0, serve("svc.echo", echo_handler, nullptr, 3));
    ASSERT_EQ(0, serve("svc.silent", silent_handler));

    // Bytes that are no text (NUL, 0xff) go both ways.
    const std::string bytes("a\0b\xff\x01z", 6);
    Result binary = s_request(&config_, "svc.echo", "{\"Command\": 101}", bytes);
    ASSERT_EQ(0, binary.rc) << binary.error;
    EXPECT_EQ(bytes + "+", binary.data);

    // A handler that leaves no reply still answers, with the transport's failure.
    EXPECT_EQ("{\"ReturnCode\": -1000, \"Error\": \"Failed to handle request\"}",
              ask("svc.silent", "{\"Command\": 1}").answer());

    // Many requesters share the replies address; each takes exactly its own reply.
    std::atomic<int> wrong{0};
    std::vector<std::thread> requesters;
    for (int t = 0; t < 8; ++t) {
        requesters.emplace_back([&, t] {
            for (int i = 0; i < 15; ++i) {
                const std::string json = "{\"N\": " + std::to_string(t * 100 + i) + "}";
                if (ask("svc.echo", json).answer() !=
                    "{\"ReturnCode\": 0, \"Echo\": " + json + "}") {
                    ++wrong;
                }
            }
        });
    }
    for (auto& t : requesters) {
        t.join();
    }
    EXPECT_EQ(0, wrong.load());

    // An empty request cannot be sent, and nothing is waited for.
    Result empty = ask("svc.echo", "");
    EXPECT_NE(0, empty.rc);
    EXPECT_NE(std::string::npos, empty.error.find("copy_qv_msg_to_vector_msg(): Empty message"))
        << empty.error;
}

TEST_F(AmqpClient, RepliesInReverseOrderAndLateRepliesAreSortedOut) {
    LogCapture log;
    const std::string service = "svc.held";
    broker_->hold(service);

    // Two waiters, answered in the opposite order: each gets its own reply.
    Result first, second;
    std::thread a([&] { first = ask(service, "{\"Q\": 1}"); });
    auto held = broker_->wait_held(service, 1);
    ASSERT_EQ(1u, held.size());
    std::thread b([&] { second = ask(service, "{\"Q\": 2}"); });
    held = broker_->wait_held(service, 2);
    ASSERT_EQ(2u, held.size());
    broker_->reply(held[1], "{\"ReturnCode\": 2}");
    broker_->reply(held[0], "{\"ReturnCode\": 1}");
    a.join();
    b.join();
    EXPECT_EQ("{\"ReturnCode\": 1}", first.answer());
    EXPECT_EQ("{\"ReturnCode\": 2}", second.answer());

    // A request that times out leaves its id in the expired list; its reply, arriving later,
    // is thrown away when it reaches the front, and the id leaves the list.
    EXPECT_EQ("failed: Runtime error on request to 'svc.held': Timeout",
              ask(service, "{\"Q\": 3}", 300).answer());
    auto replies = qv_qpid_get_receiver(&config_, qv_qpid_replies_address().c_str());
    ASSERT_NE(nullptr, replies);
    EXPECT_EQ(1u, replies->expired_count());
    held = broker_->wait_held(service, 3);
    ASSERT_EQ(3u, held.size());
    const std::string late_id = qv_qpid_id_text(held[2].id());
    broker_->reply(held[2], "{\"ReturnCode\": 3}");
    ASSERT_TRUE(wait_until([&] { return replies->buffered() == 1; }));

    Result next;
    std::thread c([&] { next = ask(service, "{\"Q\": 4}"); });
    held = broker_->wait_held(service, 4);
    ASSERT_EQ(4u, held.size());
    broker_->reply(held[3], "{\"ReturnCode\": 4}");
    c.join();
    EXPECT_EQ("{\"ReturnCode\": 4}", next.answer());
    EXPECT_TRUE(log.contains("Removing expired reply with correlation_id '" + late_id + "'"));
    EXPECT_EQ(0u, replies->expired_count());
    EXPECT_EQ(0u, replies->buffered());

    // Kept: a reply that sat in the buffer for more than 5 s is dropped when it reaches the front,
    // even when it belongs to the request that is asking. The stray is still young when the
    // asker's reply lands behind it, so the asker sleeps on; at its deadline (9 s) both have
    // waited more than 5 s and both go.
    proton::message stray_request;
    stray_request.id(proton::message_id(std::string("stray")));
    stray_request.reply_to(qv_qpid_replies_address());
    broker_->reply(stray_request, "{\"ReturnCode\": 9}");
    ASSERT_TRUE(wait_until([&] { return replies->buffered() == 1; }));
    Result stuck;
    std::thread asker([&] { stuck = ask(service, "{\"Q\": 5}", 9000); });
    held = broker_->wait_held(service, 5);
    ASSERT_EQ(5u, held.size());
    broker_->reply(held[4], "{\"ReturnCode\": 5}");
    ASSERT_TRUE(wait_until([&] { return replies->buffered() == 2; }));
    asker.join();
    EXPECT_EQ("failed: Runtime error on request to 'svc.held': Timeout", stuck.answer());
    EXPECT_TRUE(log.contains("Removing expired reply with correlation_id 'stray' and timestamp"));
    EXPECT_TRUE(log.contains("Removing expired reply with correlation_id '" +
                             qv_qpid_id_text(held[4].id()) + "' and timestamp"));
    EXPECT_EQ(0u, replies->buffered());
}

TEST_F(AmqpClient, BadBodiesFloodsAndOneWayRequestsLeaveTheServiceServing) {
    LogCapture log;
    qvtest::Recorder recorder;
    const std::string service = "svc.robust";
    ASSERT_EQ(0, serve(service, qvtest::Recorder::handle, &recorder, 1));

    // No reply-to: handled, not answered.
    broker_->publish(service, "{\"Command\": 3, \"OneWay\": 1}");
    ASSERT_TRUE(wait_until([&] { return recorder.count() == 1; }));
    ASSERT_TRUE(log.wait_for("No reply needed for this service"));

    // Bodies that are no request are logged and skipped, even when they ask for a reply.
    const std::pair<proton::value, const char*> bad[] = {
        {std::vector<proton::value>{proton::value(42)}, "Invalid data type in message"},
        {std::vector<proton::value>{}, "copy_vector_msg_to_qv_msg(): Empty message"},
        {std::vector<std::string>{""}, "copy_vector_msg_to_qv_msg(): Empty json in message"},
        {std::vector<proton::value>{proton::value(std::string("{}")), proton::value(7)},
         "Invalid data type in message (element 1)"},
        {proton::value(std::string("not a sequence")), ""},
        {proton::value(17), ""}};
    for (const auto& [body, line] : bad) {
        broker_->publish_body(service, body, qv_qpid_replies_address());
        EXPECT_TRUE(log.wait_for(std::string("Conversion error: ") + line)) << line;
    }
    // Binary data is accepted as element 1.
    broker_->publish_body(service, std::vector<proton::value>{
                                       proton::value(std::string("{\"Bin\": 1}")),
                                       proton::value(proton::binary(std::string("\x01\x02")))});
    ASSERT_TRUE(wait_until([&] { return recorder.count() == 2; }));

    // A flood larger than the receiver's buffer, with garbage in between.
    for (int i = 0; i < 1000; ++i) {
        broker_->publish(service, "{\"Flood\": " + std::to_string(i) + "}");
        if (i % 100 == 0) {
            broker_->publish_body(service, proton::value(i));
        }
    }
    ASSERT_TRUE(wait_until([&] { return recorder.count() == 1002; }, 60s));
    auto receiver = qv_qpid_get_receiver(&config_, service.c_str());
    ASSERT_NE(nullptr, receiver);
    EXPECT_LE(receiver->buffered(), static_cast<size_t>(qpid_receiver::max_outstanding));

    // Still serving; the one-way and garbage messages produced no replies: the broker routed
    // exactly the injected messages plus this request and its reply.
    const long before = broker_->routed();
    EXPECT_EQ("{\"ReturnCode\": 0}", ask(service, "{\"Command\": 3}").answer());
    EXPECT_EQ(before + 2, broker_->routed());
}

TEST_F(AmqpClient, ServiceAndRequestsComeBackAfterTheBrokerRestarts) {
    LogCapture log;
    // Bounded by the reconnect back-off.
    const auto answers_again = [&](const std::string& service) {
        return wait_until([&] { return ask(service, "{\"After\": 1}", 1000).rc == 0; }, 90s);
    };
    ASSERT_EQ(0, serve("svc.echo", echo_handler));
    ASSERT_EQ(0, ask("svc.echo", "{\"Before\": 1}").rc);

    broker_->stop();
    EXPECT_NE(0, ask("svc.echo", "{\"Down\": 1}", 300).rc);
    ASSERT_TRUE(broker_->start());
    ASSERT_TRUE(answers_again("svc.echo"));
    EXPECT_TRUE(log.contains("Sender reconnected"));
    EXPECT_GE(broker_->connections(), 2);

    // A client started while the broker is away connects once it is there.
    qv_qpid_deinit(&config_);
    broker_->stop();
    ASSERT_EQ(0, qv_qpid_init(&config_));
    ASSERT_EQ(0, serve("svc.late", echo_handler));
    ASSERT_TRUE(broker_->start());
    ASSERT_TRUE(answers_again("svc.late"));
}

class AmqpSecurity : public AmqpClient {
  protected:
    void SetUp() override {}
};

TEST_F(AmqpSecurity, WrongPasswordFailsWithoutHangingAndTlsWithTheTestCaWorks) {
    start({.password = "right"});
    config_.broker_password = "wrong";
    qv_qpid_deinit(&config_);
    ASSERT_EQ(0, qv_qpid_init(&config_));
    ASSERT_TRUE(wait_until([&] { return broker_->refused_logins() >= 1; }));
    EXPECT_EQ("failed: Runtime error on request to 'svc.any': Sender is not open",
              ask("svc.any", "{\"Command\": 3}", 500).answer());
    EXPECT_EQ(0, broker_->receivers("svc.any"));
    qv_qpid_deinit(&config_);

    start({.tls = true});
    ASSERT_FALSE(config_.cert_path.empty());
    ASSERT_EQ(0, serve("svc.tls", echo_handler));
    EXPECT_EQ("{\"ReturnCode\": 0, \"Echo\": {\"Command\": 3}}",
              ask("svc.tls", "{\"Command\": 3}").answer());

    // A broker whose certificate does not come from the configured CA is not trusted.
    qvtest::TempDir dir;
    ASSERT_EQ(
        0, system(("openssl req -x509 -newkey rsa:2048 -nodes -keyout '" + dir / "k.pem" +
                   "' -out '" + dir / "ca.pem" + "' -days 1 -subj '/CN=other CA' >/dev/null 2>&1")
                      .c_str()));
    qv_nats_config stranger;
    broker_->configure(&stranger);
    stranger.cert_path = dir / "ca.pem";
    ASSERT_EQ(0, qv_qpid_init(&stranger));
    EXPECT_EQ("Runtime error on request to 'svc.tls': Sender is not open",
              s_request(&stranger, "svc.tls", "{\"Command\": 3}", "", 500).error);
    qv_qpid_deinit(&stranger);
}

}  // namespace
