// Daemons on a three-node NATS cluster with replicated buckets: two daemons connected to
// different nodes act as one service, and the loss of one daemon's node costs neither of them
// their service, their shared state, nor a log line.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "daemon_process.h"
#include "nats_peer.h"
#include "nats_server.h"
#include "qv_handles.h"
#include "qv_json.h"
#include "qv_nats_client.h"

using qvtest::DaemonProcess;
using qvtest::NatsCluster;
using qvtest::wait_until;
using namespace std::chrono_literals;

namespace {

const std::string kOK = "{\"ReturnCode\":0}";

std::string register_worker(const std::string& name) {
    return R"({"Command": 200, "service-name": "qv-av-scan", "worker-name": ")" + name +
           R"(", "Secret": "s3cret"})";
}

std::string error_log(int n) {
    return R"({"LogVersion": 1, "Timestamp": "2024-03-01 12:00:07", "Component": "qv-av-control",)"
           R"( "Hostname": "node7", "EventID": "e-)" +
           std::to_string(n) + R"(", "realmID": "r1", "ErrorLog": {"LogData": {"Message": "line-)" +
           std::to_string(n) + R"("}}})";
}

// How many daemons answer a discovery ping within a second.
size_t daemons_answering(qvtest::NatsPeer& peer) {
    natsInbox* raw_inbox = nullptr;
    natsInbox_Create(&raw_inbox);
    const std::string inbox = raw_inbox;
    natsInbox_Destroy(raw_inbox);
    natsSubscription* raw_sub = nullptr;
    if (natsConnection_SubscribeSync(&raw_sub, peer.conn(), inbox.c_str()) != NATS_OK) {
        return 0;
    }
    qv::nats_subscription_ptr sub(raw_sub);
    natsConnection_PublishRequest(peer.conn(), "$SRV.PING.qv-av-control", inbox.c_str(), "", 0);
    size_t answers = 0;
    natsMsg* raw = nullptr;
    while (natsSubscription_NextMsg(&raw, sub.get(), 1000) == NATS_OK) {
        qv::nats_msg_ptr msg(raw);
        ++answers;
    }
    return answers;
}

class NatsClusterDaemons : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(cluster.start());
        // The operator's tool makes the buckets replicated; registrations are kept for a minute
        // here, so that only the outage can make one disappear.
        qvtest::ToolResult r;
        ASSERT_TRUE(wait_until(
            [&] {
                r = qvtest::run_tool("qv-av-kv-setup",
                                     {"--url", cluster.url(), "--replicas", "3", "--registry-age",
                                      "60", "--subscriptions-age", "60"});
                return r.status == 0;
            },
            60s))
            << r.out << r.err;

        client = qv_nats_config_new();
        client->server_url = cluster.url({2});
        ASSERT_EQ(qv_nats_init(client.get()), 0);
    }
    void TearDown() override {
        stop = 1;
        qv_nats_deinit(client.get());
    }

    int replicas_of(const char* stream) {
        std::shared_ptr<jsCtx> js = qv_nats_jetstream(client.get());
        jsStreamInfo* raw = nullptr;
        if (!js || js_GetStreamInfo(&raw, js.get(), stream, nullptr, nullptr) != NATS_OK) {
            return -1;
        }
        const int replicas = static_cast<int>(raw->Config->Replicas);
        jsStreamInfo_Destroy(raw);
        return replicas;
    }

    // The reply to `body` on `service`; requests that find no daemon, or a daemon that cannot
    // reach its bucket for the moment, are sent again for a while.
    std::string request_until_ok(const char* service, const std::string& body) {
        std::string reply;
        wait_until(
            [&] {
                std::string err;
                qv::json_ptr json =
                    qv_nats_send_recv_json(client.get(), service, body.c_str(), 2000, 0, &err);
                reply = json ? qv_json_to_string(json.get()) : err;
                return reply == kOK;
            },
            30s);
        return reply;
    }

    void start_daemon(DaemonProcess& d, const std::string& url) {
        d.use_nats(url);
        d.control_keys["WORKER_REGISTRY_SYNC_INTERVAL"] = "1";
        d.control_keys["EVENT_SUBSCRIPTION_SYNC_INTERVAL"] = "1";
        d.control_keys["ERROR_LOG_BASEDIR"] = d.basedir() + "/logs/error";
        ASSERT_TRUE(d.start_serving()) << d.logs();
    }

    // The node a daemon's connection went to, from its trace.
    int node_of(const DaemonProcess& d) {
        const std::string logs = d.logs();
        const std::string marker = "Negotiated connected_url=nats://";
        const size_t at = logs.find(marker);
        const size_t colon = at == std::string::npos ? at : logs.find(':', at + marker.size());
        const int port = colon == std::string::npos ? -1 : std::atoi(logs.c_str() + colon + 1);
        for (int i = 0; i < NatsCluster::kNodes; ++i) {
            if (cluster.node(i).port() == port) {
                return i;
            }
        }
        return -1;
    }

    NatsCluster cluster;
    std::unique_ptr<qv_nats_config> client;
    std::atomic<int> stop{0};
};

}  // namespace

TEST_F(NatsClusterDaemons, DaemonsOnDifferentNodesShareStateAndOutliveTheLossOfANode) {
    EXPECT_EQ(replicas_of("KV_qv-av-worker-registry"), 3);
    EXPECT_EQ(replicas_of("KV_qv-av-event-subscriptions"), 3);

    // A fails over between nodes 0 and 1; B and the test's own connections stay on node 2.
    DaemonProcess a;
    DaemonProcess b;
    start_daemon(a, cluster.url({0, 1}));
    start_daemon(b, cluster.url({2}));
    const int a_node = node_of(a);
    ASSERT_TRUE(a_node == 0 || a_node == 1) << a.logs();
    qvtest::NatsPeer peer(cluster.node(2).url());
    ASSERT_TRUE(peer.connected());
    qvtest::Recorder handler;
    ASSERT_EQ(qv_nats_start_service_handler_threads(client.get(), "qv-test.shared",
                                                    qvtest::Recorder::handle, &handler, &stop, 1),
              0);

    // Both agree on the workers and on the subscriptions, whichever of them took the request.
    EXPECT_EQ(request_until_ok("qv-av-worker-control", register_worker("qv-av-scan.far_1")), kOK);
    EXPECT_EQ(request_until_ok("qv-av-events-dispatch",
                               R"({"Command": 500, "Service": "qv-test.shared", "realmID": "*",)"
                               R"( "SID": "*", "Hostname": "*", "Modules": "qv-av-*"})"),
              kOK);
    for (DaemonProcess* d : {&a, &b}) {
        EXPECT_TRUE(d->wait_for_log("Registry: new worker node qv-av-scan @ qv-av-scan.far_1"))
            << d->logs();
        EXPECT_TRUE(d->wait_for_log("event-sub: projected new handler 'qv-test.shared'"))
            << d->logs();
    }

    // A producer writes error log lines throughout, sending each again until it is answered.
    constexpr int kLines = 150;
    std::atomic<int> sent{0};
    std::thread producer([&] {
        for (int n = 0; n < kLines; ++n) {
            if (request_until_ok("qv-av-log", error_log(n)) == kOK) {
                sent++;
            }
            std::this_thread::sleep_for(20ms);
        }
    });
    ASSERT_TRUE(wait_until([&] { return sent.load() >= 20; }));

    // A's node goes: A moves to the other node it knows, and both answer again within 10 s.
    cluster.node(a_node).stop();
    EXPECT_TRUE(wait_until([&] { return daemons_answering(peer) == 2; }, 10s))
        << a.logs().substr(a.logs().size() > 20000 ? a.logs().size() - 20000 : 0);

    // A registration made during the outage reaches both projections, and the old one stays:
    // while a node is down, some snapshots of a bucket time out, and a failed one removes nothing.
    EXPECT_EQ(request_until_ok("qv-av-worker-control", register_worker("qv-av-scan.far_2")), kOK);
    for (DaemonProcess* d : {&a, &b}) {
        EXPECT_TRUE(
            d->wait_for_log("Registry: new worker node qv-av-scan @ qv-av-scan.far_2", 60s));
        EXPECT_EQ(d->logs().find("Registry: worker qv-av-scan.far_1 gone"), std::string::npos);
        EXPECT_EQ(d->logs().find("handler 'qv-test.shared' absent from KV"), std::string::npos);
    }
    // The shared subscription still serves events through either daemon.
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(request_until_ok("qv-av-events-dispatch",
                                   R"({"Command": 501, "Event": {"Type": "detection"},)"
                                   R"( "Component": "qv-av-trellix"})"),
                  kOK);
    }
    EXPECT_GE(handler.count(), 4u);

    producer.join();
    EXPECT_EQ(sent.load(), kLines);
    // Every line arrived whole, in one daemon's log or the other's (a line whose answer was lost
    // may have been written twice).
    std::set<std::string> expected, lines;
    for (int n = 0; n < kLines; ++n) {
        const std::string i = std::to_string(n);
        expected.insert("2024-03-01 12:00:07;qv-av-control;e-" + i + ";node7;line-" + i + "\r");
    }
    for (DaemonProcess* d : {&a, &b}) {
        std::istringstream log(qvtest::read_file(d->basedir() + "/logs/error/r1/error.log"));
        for (std::string line; std::getline(log, line);) {
            lines.insert(line);
        }
    }
    EXPECT_EQ(lines, expected);

    ASSERT_TRUE(cluster.node(a_node).start());
    EXPECT_EQ(a.stop(), 0);
    EXPECT_EQ(b.stop(), 0);
}
