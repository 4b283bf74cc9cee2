#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "daemon_process.h"
#include "nats_peer.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_worker_ping_handler.h"

using qvtest::NatsPeer;
using qvtest::NatsServer;
using namespace std::chrono_literals;
using namespace std::string_literals;

namespace {

// Fails every request whose body is {"fail": true} with status -1; answers the rest.
int echo_or_fail(void*, qv_const_request_reply_t* rr) {
    if (rr->request->json_txt == "{\"fail\": true}") {
        return -1;
    }
    rr->reply->json_txt = "{\"ReturnCode\": 0}";
    return 0;
}

json_object* member(json_object* object, const char* key) {
    json_object* found = nullptr;
    json_object_object_get_ex(object, key, &found);
    return found;
}
std::string text(json_object* object, const char* key) {
    json_object* found = member(object, key);
    return found != nullptr ? json_object_get_string(found) : "";
}
int64_t number(json_object* object, const char* key) {
    json_object* found = member(object, key);
    return found != nullptr ? json_object_get_int64(found) : -1;
}

// The answers to one discovery request: every one that arrives until `expected` came or 5 s
// passed, parsed.
std::vector<qv::json_ptr> discover(NatsPeer& peer, const std::string& subject, size_t expected) {
    std::vector<qv::json_ptr> answers;
    natsInbox* raw_inbox = nullptr;
    natsInbox_Create(&raw_inbox);
    const std::string inbox = raw_inbox;
    natsInbox_Destroy(raw_inbox);
    natsSubscription* raw_sub = nullptr;
    EXPECT_EQ(natsConnection_SubscribeSync(&raw_sub, peer.conn(), inbox.c_str()), NATS_OK);
    qv::nats_subscription_ptr sub(raw_sub);
    EXPECT_EQ(natsConnection_PublishRequest(peer.conn(), subject.c_str(), inbox.c_str(), "", 0),
              NATS_OK);
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (answers.size() < expected && std::chrono::steady_clock::now() < deadline) {
        natsMsg* raw = nullptr;
        if (natsSubscription_NextMsg(&raw, sub.get(), 100) != NATS_OK) {
            continue;
        }
        qv::nats_msg_ptr msg(raw);
        answers.push_back(qv_json_parse(std::string_view(
            natsMsg_GetData(raw), static_cast<size_t>(natsMsg_GetDataLength(raw)))));
        EXPECT_TRUE(answers.back()) << subject;
    }
    EXPECT_EQ(answers.size(), expected) << subject;
    return answers;
}

// The endpoint entry of `subject` in a document; null when it has none.
json_object* endpoint_of(json_object* doc, const std::string& subject) {
    json_object* endpoints = member(doc, "endpoints");
    for (size_t i = 0; endpoints != nullptr && i < json_object_array_length(endpoints); ++i) {
        json_object* entry = json_object_array_get_idx(endpoints, i);
        if (text(entry, "subject") == subject) {
            return entry;
        }
    }
    return nullptr;
}

// Two instances in one process, each with its own connection record and services.
struct NatsMicro : ::testing::Test {
    NatsServer server;
    std::unique_ptr<qv_nats_config> a;
    std::unique_ptr<qv_nats_config> b;
    std::atomic<int> stop{0};
    std::unique_ptr<NatsPeer> peer;

    void SetUp() override {
        ASSERT_TRUE(server.start());
        a = server.client_config();
        b = server.client_config();
        ASSERT_EQ(qv_nats_init(a.get()), 0);
        ASSERT_EQ(qv_nats_init(b.get()), 0);
        ASSERT_EQ(serve(a.get(), "qv-test-micro.echo", echo_or_fail, 2), 0);
        ASSERT_EQ(serve(a.get(), "qv-test-micro.ping", qv_worker_ping_request_handler, 1), 0);
        ASSERT_EQ(serve(b.get(), "qv-test-micro.other", echo_or_fail, 1), 0);
        for (qv_nats_config* config : {a.get(), b.get()}) {
            ASSERT_EQ(config->_micro.start(qv_nats_connection(config).get()), 0);
            ASSERT_EQ(natsConnection_FlushTimeout(qv_nats_connection(config).get(), 10000),
                      NATS_OK);
        }
        peer = std::make_unique<NatsPeer>(server.url());
        ASSERT_TRUE(peer->connected());
    }
    void TearDown() override {
        stop = 1;
        qv_nats_deinit(a.get());
        qv_nats_deinit(b.get());
    }
    int serve(qv_nats_config* config, const char* service, qv_service_handler_t handler,
              int threads) {
        return qv_nats_start_service_handler_threads(config, service, handler, nullptr, &stop,
                                                     threads);
    }
    std::string by_id(const std::string& verb, const qv_nats_config& config) const {
        return "$SRV." + verb + ".qv-av-control." + config._micro.id();
    }
    // The statistics of instance `config` once the endpoint of `subject` counts `requests`.
    qv::json_ptr stats_after(const qv_nats_config& config, const std::string& subject,
                             int64_t requests) {
        qv::json_ptr doc;
        qvtest::wait_until([&] {
            std::vector<qv::json_ptr> answers = discover(*peer, by_id("STATS", config), 1);
            doc = answers.empty() ? nullptr : std::move(answers.front());
            return doc && number(endpoint_of(doc.get(), subject), "num_requests") >= requests;
        });
        return doc;
    }
};

}  // namespace

TEST_F(NatsMicro, EveryInstanceAnswersPingInfoAndStatsPlainByNameAndById) {
    const std::set<std::string> both = {a->_micro.id(), b->_micro.id()};
    ASSERT_EQ(both.size(), 2u);
    for (const auto& [verb, type] : {std::pair{"PING"s, "io.nats.micro.v1.ping_response"},
                                     {"INFO"s, "io.nats.micro.v1.info_response"},
                                     {"STATS"s, "io.nats.micro.v1.stats_response"}}) {
        for (const auto& [subject, ids] :
             {std::pair{"$SRV." + verb, both},
              {"$SRV." + verb + ".qv-av-control", both},
              {by_id(verb, *b), std::set<std::string>{b->_micro.id()}}}) {
            std::set<std::string> seen;
            for (const qv::json_ptr& doc : discover(*peer, subject, ids.size())) {
                ASSERT_TRUE(doc);
                EXPECT_EQ(text(doc.get(), "type"), type);
                EXPECT_EQ(text(doc.get(), "name"), "qv-av-control");
                // The project's version, in three parts.
                const std::string v = text(doc.get(), "version");
                EXPECT_EQ(v.rfind(QV_PROJECT_VERSION, 0), 0u) << v;
                EXPECT_EQ(std::count(v.begin(), v.end(), '.'), 2) << v;
                EXPECT_TRUE(json_object_is_type(member(doc.get(), "metadata"), json_type_object));
                seen.insert(text(doc.get(), "id"));
                if (verb == "STATS") {
                    const std::string started = text(doc.get(), "started");  // RFC 3339, UTC
                    EXPECT_TRUE(started.size() >= 20 && started[10] == 'T' && started.back() == 'Z')
                        << started;
                }
            }
            EXPECT_EQ(seen, ids) << subject;
        }
    }

    // Each instance describes its own endpoints, each with the queue group its pool shares.
    std::vector<qv::json_ptr> info = discover(*peer, by_id("INFO", *a), 1);
    ASSERT_EQ(info.size(), 1u);
    json_object* endpoints = member(info[0].get(), "endpoints");
    ASSERT_EQ(json_object_array_length(endpoints), 2u);
    json_object* ping = json_object_array_get_idx(endpoints, 1);
    EXPECT_EQ(text(ping, "name"), "qv-test-micro_ping");
    EXPECT_EQ(text(ping, "subject"), "qv-test-micro.ping");
    EXPECT_EQ(text(ping, "queue_group"), "qv-test-micro.ping");
    EXPECT_EQ(endpoint_of(info[0].get(), "qv-test-micro.other"), nullptr);
    EXPECT_NE(endpoint_of(discover(*peer, by_id("INFO", *b), 1)[0].get(), "qv-test-micro.other"),
              nullptr);
}

TEST_F(NatsMicro, StatisticsCountRequestsErrorsAndProcessingTimePerEndpoint) {
    std::vector<NatsPeer::Request> requests(5, {"qv-test-micro.echo", "{\"n\": 1}"});
    requests.insert(requests.end(), 2, {"qv-test-micro.echo", "{\"fail\": true}"});
    requests.push_back({"qv-test-micro.ping", "{\"Command\": 3}"});
    const std::vector<std::string> replies = peer->request_all(requests, 10s);
    EXPECT_EQ(replies[5], "{\"ReturnCode\": -1}");
    EXPECT_EQ(replies[7], "{\"ReturnCode\": 0}");

    qv::json_ptr stats = stats_after(*a, "qv-test-micro.echo", 7);
    ASSERT_TRUE(stats);
    json_object* echo = endpoint_of(stats.get(), "qv-test-micro.echo");
    EXPECT_EQ(number(echo, "num_requests"), 7);
    EXPECT_EQ(number(echo, "num_errors"), 2);
    EXPECT_EQ(text(echo, "last_error"), "status -1");
    EXPECT_GT(number(echo, "processing_time"), 0);
    EXPECT_EQ(number(echo, "average_processing_time"), number(echo, "processing_time") / 7);

    stats = stats_after(*a, "qv-test-micro.ping", 1);
    json_object* ping = endpoint_of(stats.get(), "qv-test-micro.ping");
    EXPECT_EQ(number(ping, "num_errors"), 0);
    EXPECT_EQ(text(ping, "last_error"), "");
    // The other instance counted nothing of this.
    qv::json_ptr other = stats_after(*b, "qv-test-micro.other", 0);
    EXPECT_EQ(number(endpoint_of(other.get(), "qv-test-micro.other"), "num_requests"), 0);
    EXPECT_EQ(endpoint_of(other.get(), "qv-test-micro.echo"), nullptr);
}

TEST_F(NatsMicro, RebuiltConnectionAnswersAgainAndStopEndsTheAnswers) {
    ASSERT_EQ(peer->request_all({{"qv-test-micro.echo", "{}"}}, 10s)[0], "{\"ReturnCode\": 0}");
    natsConnection_Close(qv_nats_connection(a.get()).get());
    EXPECT_EQ(qv_nats_check_connection(a.get()), 0);
    ASSERT_EQ(natsConnection_FlushTimeout(qv_nats_connection(a.get()).get(), 10000), NATS_OK);
    // Same instance, same counters, on the new connection.
    qv::json_ptr stats = stats_after(*a, "qv-test-micro.echo", 1);
    ASSERT_TRUE(stats);
    EXPECT_EQ(number(endpoint_of(stats.get(), "qv-test-micro.echo"), "num_requests"), 1);

    a->_micro.stop();
    b->_micro.stop();
    // A stopped responder stays stopped, also through the connection check.
    for (int check = 0; check < 2; ++check) {
        natsMsg* raw = nullptr;
        EXPECT_EQ(natsConnection_RequestString(&raw, peer->conn(), "$SRV.PING", "", 5000),
                  NATS_NO_RESPONDERS);
        natsMsg_Destroy(raw);
        EXPECT_EQ(qv_nats_check_connection(a.get()), 0);
    }
}

// The services framework's own JavaScript client lists, describes and shows the statistics of
// both instances.
TEST_F(NatsMicro, FrameworkJavaScriptClientListsDescribesAndShowsStatistics) {
    const std::string dir = std::string(QV_SOURCE_DIR) + "/tests/support/node";
    if (system("node --version >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "node is not installed";
    }
    if (!qvtest::file_exists(dir + "/node_modules/@nats-io/services/package.json")) {
        GTEST_SKIP() << "the services client is not installed: run `npm ci` in " << dir
                     << " (scripts/install-deps.sh does)";
    }
    ASSERT_EQ(peer->request_all({{"qv-test-micro.echo", "{\"fail\": true}"}}, 10s)[0],
              "{\"ReturnCode\": -1}");
    qv::json_ptr stats = stats_after(*a, "qv-test-micro.echo", 1);
    ASSERT_TRUE(stats);
    const std::string version = text(stats.get(), "version");
    const std::string average = std::to_string(
        number(endpoint_of(stats.get(), "qv-test-micro.echo"), "average_processing_time"));

    std::string output;
    {
        const std::string command = "node " + dir + "/discovery.mjs " + server.url() + " 2>&1";
        std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
        ASSERT_TRUE(pipe);
        char buffer[4096];
        for (size_t n = 0; (n = fread(buffer, 1, sizeof(buffer), pipe.get())) > 0;) {
            output.append(buffer, n);
        }
    }
    const std::string ida = a->_micro.id();
    const std::string idb = b->_micro.id();
    EXPECT_EQ(qvtest::count_of(output, "ping qv-av-control "), 2u) << output;
    EXPECT_EQ(qvtest::count_of(output, "info "), 2u) << output;
    for (const std::string& line :
         {"ping qv-av-control " + ida + " " + version + "\n",
          "ping qv-av-control " + idb + " " + version + "\n", "info " + ida + " ",
          "info " + idb + " ",
          "endpoint " + ida + " qv-test-micro_echo qv-test-micro.echo qv-test-micro.echo",
          "endpoint " + ida + " qv-test-micro_ping qv-test-micro.ping qv-test-micro.ping",
          "endpoint " + idb + " qv-test-micro_other qv-test-micro.other qv-test-micro.other",
          "stats " + ida + " qv-test-micro.ping 0 0 0 \n",
          "stats " + idb + " qv-test-micro.other 0 0 0 \n",
          "stats " + ida + " qv-test-micro.echo 1 1 " + average + " status -1\n"}) {
        EXPECT_NE(output.find(line), std::string::npos) << line << "\n" << output;
    }
}

// The daemon offers its services to discovery once they run.
TEST(NatsMicroDaemon, DaemonIsDiscoveredWithEveryServiceItRuns) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    ASSERT_EQ(server.create_buckets(), 0);
    qvtest::DaemonProcess d;
    d.use_nats(server.url());
    ASSERT_TRUE(d.start_serving()) << d.logs();
    qvtest::NatsClient client(server);
    ASSERT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    NatsPeer peer(server.url());
    std::vector<qv::json_ptr> info = discover(peer, "$SRV.INFO.qv-av-control", 1);
    ASSERT_EQ(info.size(), 1u);
    for (const char* subject : {"qv-av-log", "qv-av-events-dispatch", "qv-av-worker-control",
                                "qv-av-control", "qv-av-control.ping", "qv-av-epolog"}) {
        EXPECT_EQ(text(endpoint_of(info[0].get(), subject), "queue_group"), subject)
            << qv_json_to_string(info[0].get());
    }
    const std::string id = text(info[0].get(), "id");
    ASSERT_TRUE(qvtest::wait_until([&] {
        std::vector<qv::json_ptr> stats = discover(peer, "$SRV.STATS.qv-av-control." + id, 1);
        return !stats.empty() &&
               number(endpoint_of(stats[0].get(), "qv-av-control.ping"), "num_requests") >= 1;
    }));
    EXPECT_EQ(d.stop(), 0);
}
