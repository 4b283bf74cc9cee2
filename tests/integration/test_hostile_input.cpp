// Hostile requests against the real daemon, and hostile bucket entries against the projections,
// on a real nats-server. Proof that nothing reached the server: a second, independent connection
// subscribed to ">" sees no subject but the request's own and the requester's reply inbox (no
// bucket write, no JetStream call, no forward), and the buckets hold nothing.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemon_process.h"
#include "log_capture.h"
#include "nats_server.h"
#include "qv-av-control-event-dispatcher.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"
#include "qv_validate.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_flush_worker_caches.h"
#include "qvctrl_registry_poller.h"

using namespace std::string_literals;
using qvtest::DaemonProcess;
using qvtest::NatsServer;
using qvtest::wait_until;

namespace {

constexpr const char* kInbox = "qv-test-inbox";

qv::nats_connection_ptr connect_raw(const NatsServer& server, const char* inbox_prefix) {
    natsOptions* raw_opts = nullptr;
    natsConnection* conn = nullptr;
    EXPECT_EQ(natsOptions_Create(&raw_opts), NATS_OK);
    qv::nats_options_ptr opts(raw_opts);
    natsOptions_SetURL(opts.get(), server.url().c_str());
    if (inbox_prefix != nullptr) {
        natsOptions_SetCustomInboxPrefix(opts.get(), inbox_prefix);
    }
    EXPECT_EQ(natsConnection_Connect(&conn, opts.get()), NATS_OK);
    return qv::nats_connection_ptr(conn);
}

// A requester whose replies come to an inbox of its own, and a watcher of every subject on
// another connection.
class Bus {
  public:
    explicit Bus(const NatsServer& server)
        : requester_(connect_raw(server, kInbox)), watcher_(connect_raw(server, nullptr)) {
        natsSubscription* sub = nullptr;
        EXPECT_EQ(natsConnection_Subscribe(&sub, watcher_.get(), ">", s_on_message, this), NATS_OK);
        sub_.reset(sub);
        natsConnection_Flush(watcher_.get());
    }
    ~Bus() { natsSubscription_Unsubscribe(sub_.get()); }

    // The reply as compact JSON; a reply that does not parse shows as such.
    std::string request(const std::string& subject, const std::string& body,
                        int64_t timeout_ms = 5000) {
        natsMsg* raw = nullptr;
        const natsStatus s =
            natsConnection_Request(&raw, requester_.get(), subject.c_str(), body.data(),
                                   static_cast<int>(body.size()), timeout_ms);
        qv::nats_msg_ptr reply(raw);
        if (s != NATS_OK) {
            return std::string("no reply: ") + natsStatus_GetText(s);
        }
        const std::string text(natsMsg_GetData(reply.get()),
                               static_cast<size_t>(natsMsg_GetDataLength(reply.get())));
        qv::json_ptr parsed = qv_json_parse(text);
        return parsed ? qv_json_to_string(parsed.get()) : "unparsable reply: " + text;
    }
    // A message stored in a bucket's stream, as any client with credentials may write it.
    bool store(const std::string& subject, const std::string& value) {
        natsMsg* raw = nullptr;
        const natsStatus s =
            natsConnection_Request(&raw, requester_.get(), subject.c_str(), value.data(),
                                   static_cast<int>(value.size()), 5000);
        qv::nats_msg_ptr ack(raw);
        return s == NATS_OK &&
               std::string(natsMsg_GetData(ack.get())).find("\"seq\"") != std::string::npos;
    }
    void publish(const std::string& subject) {
        natsConnection_PublishString(requester_.get(), subject.c_str(), "x");
        natsConnection_Flush(requester_.get());
    }

    // Every subject published since the last call. A marker sent after the caller got its reply
    // arrives after anything the daemon published before that reply.
    std::vector<std::string> seen() {
        const std::string marker = "qv-test-marker." + std::to_string(++markers_);
        natsConnection_PublishString(watcher_.get(), marker.c_str(), "");
        natsConnection_Flush(watcher_.get());
        EXPECT_TRUE(wait_until([&] {
            std::lock_guard<std::mutex> lock(mutex_);
            return !subjects_.empty() && subjects_.back() == marker;
        }));
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> out;
        for (const std::string& s : subjects_) {
            if (s.rfind("qv-test-marker.", 0) != 0) {
                out.push_back(s);
            }
        }
        subjects_.clear();
        return out;
    }
    // Subjects seen other than `service` and this requester's reply inbox.
    std::vector<std::string> strays(const std::string& service) {
        std::vector<std::string> out;
        for (const std::string& s : seen()) {
            if (s != service && s.rfind(std::string(kInbox) + ".", 0) != 0) {
                out.push_back(s);
            }
        }
        return out;
    }

  private:
    static void s_on_message(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
        auto* self = static_cast<Bus*>(closure);
        {
            std::lock_guard<std::mutex> lock(self->mutex_);
            self->subjects_.push_back(natsMsg_GetSubject(msg));
        }
        natsMsg_Destroy(msg);
    }

    // The callback's state outlives the connections that call it.
    std::mutex mutex_;
    std::vector<std::string> subjects_;
    int markers_ = 0;
    qv::nats_connection_ptr requester_;
    qv::nats_connection_ptr watcher_;
    qv::nats_subscription_ptr sub_;
};

std::unique_ptr<qv_nats_config> qv_client(const NatsServer& server) {
    auto config = qv_nats_config_new();
    config->server_url = server.url();
    EXPECT_EQ(qv_nats_init(config.get()), 0);
    return config;
}

std::vector<std::string> bucket_keys(qv_nats_config* cfg, const char* bucket) {
    std::vector<std::string> keys;
    EXPECT_EQ(qv_nats_kv_keys(cfg, bucket, nullptr, [&](const char* key) { keys.push_back(key); }),
              0);
    return keys;
}

// The JSON text of a string member.
// Serves `subject` on `connection`, answering OK and counting the requests in *calls; returns
// once nats-server knows the subscription.
void serve_counting(qv_nats_config* connection, const char* subject, std::atomic<int>* calls,
                    const std::atomic<int>* stop) {
    ASSERT_EQ(qv_nats_start_service_handler_threads(
                  connection, subject,
                  [](void* context, qv_const_request_reply_t* rr) {
                      ++*static_cast<std::atomic<int>*>(context);
                      rr->reply->json_txt = "{\"ReturnCode\": 0}";
                      return 0;
                  },
                  calls, stop, 1),
              0);
    ASSERT_EQ(natsConnection_Flush(connection->_conn.get()), NATS_OK);
}

std::string quoted(const std::string& value) {
    qv::json_ptr s(json_object_new_string_len(value.data(), static_cast<int>(value.size())));
    return qv_json_to_string(s.get());
}

std::string error_reply(int rc, const std::string& text) {
    return "{\"ReturnCode\":" + std::to_string(rc) + ",\"Error\":\"" + text + "\"}";
}

const std::string kOK = R"({"ReturnCode":0})";
const std::string kUndecodable = R"({"ReturnCode":-1})";
const std::string kInjection = "w\r\nPUB $JS.API.STREAM.DELETE.KV_qv-av-config 0\r\n";

// CR LF with protocol text, NUL, blanks, wildcards, '$' and lengths past any control line.
const std::vector<std::string> kHostileNames = {
    kInjection,
    "a\0b"s,
    "a b",
    " ",
    "*",
    ">",
    "a.>",
    "$JS.API.STREAM.PURGE.KV_qv-av-config",
    "$x",
    "a\tb",
    std::string(5000, 'n'),
    std::string(100000, 'n'),
};
// JSON that parses but is not a request.
const std::vector<std::string> kNotObjects = {"[1]", "\"x\"", "3", "null"};

struct Case {
    std::string body;
    std::string reply;
};

// The daemon with its background bucket reads done, so that from here on only requests make it
// talk to the server.
class HostileDaemon : public ::testing::Test {
  protected:
    NatsServer server;
    DaemonProcess daemon;
    std::unique_ptr<Bus> bus;

    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_EQ(server.create_buckets(), 0);
        daemon.use_nats(server.url());
        daemon.control_keys["EVENT_SUBSCRIPTION_KV_ENABLED"] = "1";
        daemon.control_keys["WORKER_REGISTRY_SYNC_INTERVAL"] = "3600";
        daemon.control_keys["EVENT_SUBSCRIPTION_SYNC_INTERVAL"] = "3600";
        daemon.write_config();
        ASSERT_TRUE(daemon.start());
        ASSERT_TRUE(daemon.wait_for_log("Entering main loop")) << daemon.logs();
        ASSERT_TRUE(daemon.wait_for_log("registry reconcile done")) << daemon.logs();
        ASSERT_TRUE(daemon.wait_for_log("event-sub reconcile done")) << daemon.logs();
        bus = std::make_unique<Bus>(server);
        // The watcher sees '$' subjects, or none of its silences would prove anything.
        bus->publish("$KV.qv-test-probe.x");
        ASSERT_EQ(bus->seen(), std::vector<std::string>{"$KV.qv-test-probe.x"});
    }
    void TearDown() override {
        bus.reset();
        EXPECT_EQ(daemon.stop(), 0);
    }
    // Each request gets its reply and the server sees nothing but that exchange.
    void expect_refused(const std::string& service, const std::vector<Case>& cases) {
        for (const Case& c : cases) {
            const std::string shown = qv_escape_for_log(c.body, 100);
            EXPECT_EQ(bus->request(service, c.body), c.reply) << shown;
            EXPECT_EQ(bus->strays(service), std::vector<std::string>{}) << shown;
        }
    }
    void expect_still_answering() {
        EXPECT_EQ(bus->request("qv-av-control.ping", R"({"Command": 3})"), kOK);
        EXPECT_TRUE(daemon.running());
    }
};

}  // namespace

TEST_F(HostileDaemon, WorkerControlRefusesNamesThatAreNoKeysOrSubjects) {
    auto registration = [](const std::string& worker, const std::string& service) {
        return R"({"Command": 200, "worker-name": )" + worker + R"(, "service-name": )" + service +
               R"(, "Secret": "s"})";
    };
    const std::string good_service = quoted("qv-av-trellix");
    const std::string good_worker = quoted("qv-av-trellix.host_1");
    std::vector<Case> cases;
    for (const std::string& name : kHostileNames) {
        cases.push_back(
            {registration(quoted(name), good_service), error_reply(-1000, "Invalid worker name")});
        cases.push_back(
            {registration(good_worker, quoted(name)), error_reply(-1000, "Invalid service name")});
    }
    // Keys, but no worker's own subject.
    for (const char* name : {"_INBOX.x", "qv-av-events-dispatch", "qv-av-worker-control"}) {
        cases.push_back(
            {registration(quoted(name), good_service), error_reply(-1000, "Invalid worker name")});
    }
    cases.push_back({registration(good_worker, "7"), error_reply(-1000, "Invalid service name")});
    cases.push_back({R"({"Command": 200, "service-name": "qv-av-trellix"})",
                     error_reply(-1000, "Failed to read worker-name from JSON")});
    cases.push_back({registration("\"\"", good_service),
                     error_reply(-1000, "Key worker-name found, but value is empty")});
    cases.push_back({registration("{\"a\": 1}", good_service),
                     error_reply(-1000, "Failed to read worker-name from JSON")});
    for (const std::string& body : kNotObjects) {
        cases.push_back({body, kUndecodable});
    }
    expect_refused("qv-av-worker-control", cases);
    auto client = qv_client(server);
    EXPECT_EQ(bucket_keys(client.get(), QV_KV_REGISTRY_BUCKET), std::vector<std::string>{});
    expect_still_answering();
    EXPECT_EQ(bus->request("qv-av-worker-control", R"({"Command": 3})"), kOK);

    // What is refused never reaches a line of the trace log as it came.
    EXPECT_TRUE(daemon.wait_for_log(
        "Invalid worker name: 'w\\r\\nPUB $JS.API.STREAM.DELETE.KV_qv-av-config 0\\r\\n'"));
    EXPECT_EQ(daemon.logs().find("\nPUB $JS"), std::string::npos);
}

TEST_F(HostileDaemon, EventServiceStoresAndForwardsNothingForARefusedSubscription) {
    auto subscribe = [](const std::string& service, const std::string& realm = "\"*\"",
                        const std::string& sid = "\"*\"", const std::string& host = "\"*\"",
                        const std::string& modules = "\"*\"") {
        return R"({"Command": 500, "Service": )" + service + R"(, "realmID": )" + realm +
               R"(, "SID": )" + sid + R"(, "Hostname": )" + host + R"(, "Modules": )" + modules +
               "}";
    };
    const std::string handler = quoted("qv-test.handler");
    std::vector<Case> cases;
    std::vector<std::string> subjects = kHostileNames;
    subjects.insert(subjects.end(), {"_INBOX.x", "qv-av-events-dispatch", "qv-av-log"});
    for (const std::string& s : subjects) {
        cases.push_back({subscribe(quoted(s)), error_reply(-1000, "Invalid handler subject")});
    }
    cases.push_back({subscribe("true"), error_reply(-1000, "Invalid handler subject")});
    // Patterns keep '*' and '?', so only the other hostile texts are refused there.
    for (const std::string& p : std::vector<std::string>{kInjection, "a\0b"s, "a b", ">", "$x",
                                                         std::string(100000, 'p')}) {
        cases.push_back(
            {subscribe(handler, quoted(p)), error_reply(-1000, "Invalid realm pattern")});
        cases.push_back(
            {subscribe(handler, "\"*\"", quoted(p)), error_reply(-1000, "Invalid SID pattern")});
        cases.push_back({subscribe(handler, "\"*\"", "\"*\"", quoted(p)),
                         error_reply(-1000, "Invalid host name pattern")});
        cases.push_back({subscribe(handler, "\"*\"", "\"*\"", "\"*\"", quoted(p)),
                         error_reply(-1000, "Invalid module pattern")});
    }
    cases.push_back({subscribe(handler, "{}"), error_reply(-1000, "Invalid realm pattern")});
    // A missing or empty member is answered OK, as ever, and stores nothing either.
    cases.push_back({R"({"Command": 500, "Service": "qv-test.handler"})", kOK});
    cases.push_back({subscribe("\"\""), kOK});
    cases.push_back({subscribe(handler, "\"*\"", "\"*\"", "\"*\"", "null"), kOK});
    // Events: a malformed one is reported; one that matches nobody is forwarded nowhere.
    cases.push_back({R"({"Command": 501, "Event": {}})",
                     error_reply(-1000, "Failed to read Component from JSON")});
    cases.push_back({R"({"Command": 501, "Event": {}, "Component": 5})",
                     error_reply(-1000, "Failed to read Component from JSON")});
    cases.push_back({R"({"Command": 501, "Event": {}, "Component": "qv-av-trellix",)"
                     R"( "Hostname": "$JS.API.>", "realmID": "a\r\nb"})",
                     kOK});
    for (const std::string& body : kNotObjects) {
        cases.push_back({body, kUndecodable});
    }
    expect_refused("qv-av-events-dispatch", cases);
    auto client = qv_client(server);
    EXPECT_EQ(bucket_keys(client.get(), QV_KV_EVENT_SUBSCRIPTIONS_BUCKET),
              std::vector<std::string>{});
    expect_still_answering();
}

TEST_F(HostileDaemon, ClientServiceRefusesRealmsSidsAndServiceNamesThatAreNoNames) {
    auto request = [](const std::string& realm, const std::string& sid,
                      const std::string& service) {
        return R"({"Command": 2, "realmID": )" + realm + R"(, "SID": )" + sid +
               R"(, "Hostname": "sap01", "Servicename": )" + service + "}";
    };
    const std::string realm = quoted("r1");
    const std::string sid = quoted("PRD");
    const std::string service = quoted("qv-av-trellix");
    std::vector<Case> cases;
    std::vector<std::string> names = kHostileNames;
    names.insert(names.end(), {"..", "a/b", "${HOME}"});
    for (const std::string& name : names) {
        cases.push_back({request(quoted(name), sid, service), error_reply(-1, "Invalid realm")});
        cases.push_back({request(realm, quoted(name), service), error_reply(-1, "Invalid SID")});
    }
    for (const std::string& name :
         std::vector<std::string>{kInjection, "a\0b"s, "a b", "*", ">", "$x"}) {
        cases.push_back(
            {request(realm, sid, quoted(name)), error_reply(-1, "Invalid service name")});
    }
    cases.push_back(
        {R"({"Command": 2, "SID": "PRD"})", error_reply(-1, "Failed to read realmID from JSON")});
    cases.push_back(
        {request("\"\"", sid, service), error_reply(-1, "Key realmID found, but value is empty")});
    cases.push_back(
        {request("[]", sid, service), error_reply(-1, "Failed to read realmID from JSON")});
    for (const std::string& body : kNotObjects) {
        cases.push_back({body, kUndecodable});
    }
    expect_refused("qv-av-control", cases);
    expect_still_answering();
    EXPECT_EQ(bus->request("qv-av-control", request(realm, sid, service)), kOK);
}

// Entries written straight into the registry bucket by a client with credentials.
TEST(HostileRegistryEntries, AreNeverProjectedNorFlushedWhileTheirKeysStillShield) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    ASSERT_EQ(server.create_buckets(), 0);
    qvtest::LogCapture log;
    auto config = qvctrl_config_new();
    config->main_nats_config = qv_client(server);
    config->controlled_services = {{"qv-av-mimescan"}};
    config->worker_registry_enabled = true;
    config->worker_registry_sync_interval_ms = 1000;
    Bus bus(server);
    auto document = [](const std::string& worker) {
        return R"({"service-name": "qv-av-mimescan", "worker-name": )" + quoted(worker) +
               R"(, "Secret": "s"})";
    };
    const std::string prefix = std::string("$KV.") + QV_KV_REGISTRY_BUCKET + ".";
    ASSERT_TRUE(bus.store(prefix + "_INBOX.abc", document("_INBOX.abc")));
    ASSERT_TRUE(bus.store(prefix + "qv-av-mimescan.$x", document("qv-av-mimescan.$x")));
    ASSERT_TRUE(bus.store(prefix + "qv-av-mimescan.h~1", document("qv-av-mimescan.h~1")));
    // A valid key whose document names one of the daemon's own subjects.
    ASSERT_TRUE(bus.store(prefix + "qv-av-mimescan.h_2", document("qv-av-control")));
    ASSERT_TRUE(bus.store(prefix + "qv-av-mimescan.good_1", document("qv-av-mimescan.good_1")));
    // Projected before its entry was rewritten: its key keeps it, but it is never sent to.
    auto old = std::make_shared<qv_active_worker_t>();
    old->servicename = "qv-av-mimescan";
    old->controlservicename = "_INBOX.abc";
    config->running_services.append(old);

    std::atomic<int> stop{0};
    std::thread poller([&] { qvctrl_registry_poller_thread({config.get(), &stop}); });
    const bool reconciled = log.wait_for("registry reconcile done");
    stop = 1;
    poller.join();
    ASSERT_TRUE(reconciled);
    std::vector<std::string> running;
    for (auto walk = config->running_services.iterator_wait(250, 0, 25); walk.hasnext();) {
        running.push_back(walk.next()->controlservicename);
    }
    EXPECT_EQ(running, (std::vector<std::string>{"_INBOX.abc", "qv-av-mimescan.good_1"}));
    EXPECT_TRUE(log.contains("registry reconcile: skipping invalid worker key: '_INBOX.abc'"));
    EXPECT_TRUE(
        log.contains("registry reconcile: skipping invalid worker key: 'qv-av-mimescan.$x'"));
    EXPECT_TRUE(log.contains(
        "Registry: skipping registration with an invalid worker name: 'qv-av-control'"));

    // The flush reaches the valid worker only.
    auto worker_connection = qv_client(server);
    std::atomic<int> worker_stop{0};
    std::atomic<int> flushes{0};
    // The worker's subscription is live before anything is sent (the watcher would otherwise
    // take the first request alone).
    ASSERT_NO_FATAL_FAILURE(
        serve_counting(worker_connection.get(), "qv-av-mimescan.good_1", &flushes, &worker_stop));
    bus.seen();
    qvctrl_flush_worker_caches(config.get(), "qv-av-mimescan", nullptr, nullptr);
    EXPECT_EQ(flushes.load(), 1);
    std::vector<std::string> sent;
    for (const std::string& s : bus.seen()) {
        if (s.rfind("_INBOX.", 0) != 0 || s == "_INBOX.abc") {
            sent.push_back(s);
        }
    }
    EXPECT_EQ(sent, std::vector<std::string>{"qv-av-mimescan.good_1"});
    worker_stop = 1;
    qv_nats_deinit(worker_connection.get());
    qv_nats_deinit(config->main_nats_config.get());
}

// Subscriptions written straight into the subscription bucket under keys that are no handler's
// subject, or with scopes that are no pattern lists.
TEST(HostileSubscriptionEntries, AreNeverProjectedNorForwardedTo) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    ASSERT_EQ(server.create_buckets(), 0);
    qvtest::LogCapture log;
    auto config = qvctrl_config_new();
    config->main_nats_config = qv_client(server);
    config->event_subscription_kv_enabled = true;
    Bus bus(server);
    const std::string scope = R"({"realmID": "*", "SID": "*", "Hostname": "*", "Modules": "*"})";
    const std::string prefix = std::string("$KV.") + QV_KV_EVENT_SUBSCRIPTIONS_BUCKET + ".";
    for (const std::string& key : {"$JS.API.STREAM.PURGE.KV_qv-av-config"s,
                                   "qv-av-events-dispatch"s, "_INBOX.x"s, "qv-test.h~1"s}) {
        ASSERT_TRUE(bus.store(prefix + key, scope)) << key;
    }
    ASSERT_TRUE(bus.store(prefix + "qv-test.scope",
                          R"({"realmID": "*", "SID": "*", "Hostname": "a b", "Modules": "*"})"));
    ASSERT_TRUE(bus.store(prefix + "qv-test.good", scope));

    ASSERT_EQ(qvctrl_event_sub_reconcile(config.get()), 0);
    ASSERT_EQ(config->event_workers_list.size(), 1u);
    EXPECT_EQ(config->event_workers_list.front().service, "qv-test.good");
    EXPECT_TRUE(
        log.contains("event-sub: skipping invalid subscription key: "
                     "'$JS.API.STREAM.PURGE.KV_qv-av-config'"));
    EXPECT_TRUE(
        log.contains("event-sub: skipping subscription of 'qv-test.scope' with an "
                     "invalid Hostname pattern list: 'a b'"));

    auto handler_connection = qv_client(server);
    std::atomic<int> stop{0};
    std::atomic<int> events{0};
    ASSERT_NO_FATAL_FAILURE(
        serve_counting(handler_connection.get(), "qv-test.good", &events, &stop));
    bus.seen();
    qv_request_reply_t rr;
    rr.request.json_txt = R"({"Command": 501, "Event": {}, "Component": "qv-av-trellix"})";
    qv_const_request_reply_t crr{&rr.request, &rr.reply};
    ASSERT_EQ(qv_av_control_event_request_handler(config.get(), &crr), 0);
    EXPECT_EQ(rr.reply.json_txt, "{\"ReturnCode\": 0}");
    EXPECT_EQ(events.load(), 1);
    std::vector<std::string> sent;
    for (const std::string& s : bus.seen()) {
        if (s.rfind("_INBOX.", 0) != 0 || s == "_INBOX.x") {
            sent.push_back(s);
        }
    }
    EXPECT_EQ(sent, std::vector<std::string>{"qv-test.good"});
    std::string value;
    EXPECT_EQ(qv_nats_kv_get(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET, "probe", &value),
              1)
        << "the configuration bucket is still there";
    stop = 1;
    qv_nats_deinit(handler_connection.get());
    qv_nats_deinit(config->main_nats_config.get());
}
