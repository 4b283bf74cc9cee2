// Hostile requests against the real daemon, and hostile bucket entries against the projections,
// on a real nats-server. Proof that nothing reached the server: a second, independent connection
// subscribed to ">" sees no subject but the request's own and the requester's reply inbox (no
// bucket write, no JetStream call, no forward), and the buckets hold nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "daemon_process.h"
#include "log_capture.h"
#include "nats_peer.h"
#include "nats_server.h"
#include "qv-av-control-event-dispatcher.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"
#include "qv_validate.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_flush_worker_caches.h"
#include "qvctrl_registry_poller.h"
#include "qvctrl_scan_config_requests.h"

using namespace std::string_literals;
using qvtest::DaemonProcess;
using qvtest::NatsServer;
using qvtest::quoted;

namespace {

constexpr const char* kInbox = "qv-test-inbox";

// A connection whose reply inboxes start with kInbox, so that they stand apart from the daemon's.
qv::nats_connection_ptr connect_requester(const NatsServer& server) {
    natsOptions* raw_opts = nullptr;
    natsConnection* conn = nullptr;
    EXPECT_EQ(natsOptions_Create(&raw_opts), NATS_OK);
    qv::nats_options_ptr opts(raw_opts);
    natsOptions_SetURL(opts.get(), server.url().c_str());
    natsOptions_SetCustomInboxPrefix(opts.get(), kInbox);
    EXPECT_EQ(natsConnection_Connect(&conn, opts.get()), NATS_OK);
    return qv::nats_connection_ptr(conn);
}

// A requester whose replies come to an inbox of its own, and a watcher of every subject on
// another connection.
class Bus {
  public:
    explicit Bus(const NatsServer& server)
        : requester_(connect_requester(server)), watcher_(server.url()) {
        watcher_.watch_everything();
    }

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
        watcher_.publish(marker, "");
        EXPECT_TRUE(watcher_.flush());
        return watcher_.watched_until(marker, std::chrono::seconds(20));
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
    int markers_ = 0;
    qv::nats_connection_ptr requester_;
    qvtest::NatsPeer watcher_;
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

// A request as its members in order: name and JSON text; a member without text is left out.
using Members = std::vector<std::pair<std::string, std::optional<std::string>>>;

std::string body_of(const Members& members) {
    std::string out;
    for (const auto& [name, value] : members) {
        if (value) {
            out += (out.empty() ? "{" : ", ") + quoted(name) + ": " + *value;
        }
    }
    return out.empty() ? "{}" : out + "}";
}

// `members` with `name` set to `value` (nullopt: left out), or added at the end.
Members with(Members members, const std::string& name, std::optional<std::string> value) {
    for (auto& member : members) {
        if (member.first == name) {
            member.second = std::move(value);
            return members;
        }
    }
    members.emplace_back(name, std::move(value));
    return members;
}

// What a required string member can be instead of a usable string: absent, empty, null, a
// number, an array, an object.
const std::vector<std::optional<std::string>> kNoStrings = {std::nullopt, "\"\"",     "null",
                                                            "7",          "[\"r1\"]", "{}"};

// Realms and SIDs that are no single name, and one of a character more than a key may hold.
std::vector<std::string> hostile_realms() {
    std::vector<std::string> names = kHostileNames;
    names.insert(names.end(), {"..", ".", "/", "a/b", "../x", "$", std::string(512, 'r')});
    return names;
}

// RequestIDs that are identifiers of a sort and are echoed as they came.
const std::vector<std::string> kOddRequestIds = {"a\"b\\c", "\r\n\t\x01\x7f", "a\0b"s, "</>",
                                                 std::string(QVCTRL_REQUEST_ID_MAX, 'i')};

// The failure replies that echo the request's RequestID.
std::string echo_failure(const std::string& id, const std::string& text) {
    return "{\"ReplytoRequestID\":" + quoted(id) + ",\"ReturnCode\":-1000,\"Error\":\"" + text +
           "\"}";
}

// `reference`, the reply to RequestID "id-1", as it answers `id`.
std::string answering(std::string reference, const std::string& id) {
    const std::string plain = "\"ReplytoRequestID\":\"id-1\"";
    const size_t at = reference.find(plain);
    EXPECT_NE(at, std::string::npos) << reference;
    return at == std::string::npos
               ? reference
               : reference.replace(at, plain.size(), "\"ReplytoRequestID\":" + quoted(id));
}

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
        configure();
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
    // Settings and files of a fixture's own, before the daemon starts.
    virtual void configure() {}
    // Each request gets its reply and the server sees nothing but that exchange.
    void expect_refused(const std::string& service, const std::vector<Case>& cases) {
        for (const Case& c : cases) {
            const std::string shown = qv_escape_for_log(c.body, 100);
            EXPECT_EQ(bus->request(service, c.body), c.reply) << shown;
            EXPECT_EQ(bus->strays(service), std::vector<std::string>{}) << shown;
        }
    }
    // Requests that are answered although they carry hostile values where those go nowhere: the
    // server sees no subject but those in `allowed` (the bucket reads of a plain request) besides
    // the exchange and the daemon's reply inboxes.
    void expect_answered(const std::string& service, const std::vector<Case>& cases,
                         const std::set<std::string>& allowed) {
        for (const Case& c : cases) {
            const std::string shown = qv_escape_for_log(c.body, 100);
            EXPECT_EQ(bus->request(service, c.body), c.reply) << shown;
            for (const std::string& s : bus->strays(service)) {
                if (s.rfind("_INBOX.", 0) != 0) {
                    EXPECT_TRUE(allowed.count(s)) << s << " after " << shown;
                }
            }
        }
    }
    // The subjects other than reply inboxes that a request makes the daemon use.
    std::set<std::string> subjects_of(const std::string& service, const std::string& body) {
        bus->request(service, body);
        std::set<std::string> out;
        for (const std::string& s : bus->strays(service)) {
            if (s.rfind("_INBOX.", 0) != 0) {
                out.insert(s);
            }
        }
        return out;
    }
    void expect_still_answering() {
        EXPECT_EQ(bus->request("qv-av-control.ping", R"({"Command": 3})"), kOK);
        EXPECT_TRUE(daemon.running());
    }
};

// With configuration files for every kind, so that a plain request is answered from them.
class HostileConfigDaemon : public HostileDaemon {
  protected:
    void configure() override {
        const std::string config = daemon.basedir() + "/config";
        qvtest::write_file(config + "/vsa/scan.default.default", "MaxFileSize=100\nArchives=1\n");
        qvtest::write_file(config + "/mime/mimetype_to_extensions_mappings.default.default",
                           "application/pdf->pdf\n");
        qvtest::write_file(config + "/mime/mimetype-translations.default.default",
                           "application/x-pdf->application/pdf\n");
    }
    std::vector<std::string> config_keys() {
        auto client = qv_client(server);
        std::vector<std::string> keys = bucket_keys(client.get(), QV_KV_CONFIG_BUCKET);
        std::sort(keys.begin(), keys.end());
        qv_nats_deinit(client.get());
        return keys;
    }
};

// Logging as JSON lines into a tree of its own, split by realm.
class HostileJsonLogDaemon : public HostileDaemon {
  protected:
    std::string log_tree() const { return daemon.basedir() + "/logs"; }
    void configure() override {
        daemon.control_keys["JSON_LOG"] = "1";
        daemon.control_keys["SPLIT_LOGS_BY_REALM"] = "1";
        for (const std::string kind : {"SCAN", "BLOCK", "UPDATE", "STATUS", "ERROR"}) {
            daemon.control_keys[kind + "_LOG_BASEDIR"] = log_tree() + "/" + kind;
        }
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

TEST_F(HostileConfigDaemon, VsaAndTenantRequestsRefuseWhatIsNoRealmSidOrRequestId) {
    const std::string service = "qv-av-control";
    const Members vsa = {{"Command", "100"},
                         {"realmID", quoted("r1")},
                         {"SID", quoted("PRD")},
                         {"RequestID", quoted("id-1")}};
    const Members tenant = {
        {"Command", "5"}, {"realmID", quoted("r1")}, {"RequestID", quoted("id-1")}};
    // The first one is built from the files and written back; the next one is a bucket hit.
    const std::string vsa_ok = bus->request(service, body_of(vsa));
    ASSERT_EQ(vsa_ok.rfind("{\"SCAN\":[[", 0), 0u) << vsa_ok;
    const std::set<std::string> hit = subjects_of(service, body_of(vsa));
    ASSERT_FALSE(hit.empty()) << "a hit reads the bucket";
    const std::string tenant_ok = bus->request(service, body_of(tenant));
    EXPECT_EQ(tenant_ok, R"({"ReplytoRequestID":"id-1","ReturnCode":0,"tenantID":"on-premises",)"
                         R"("realmName":"local"})");
    EXPECT_EQ(bus->strays(service), std::vector<std::string>{});

    const std::string vsa_failed = "Failed to load SCAN config";
    const std::string tenant_failed = "Failed to retrieve tenantID or realmName";
    std::vector<Case> refused;
    for (const auto& bad : kNoStrings) {
        // Kept: a RequestID that was not read is echoed as "(null)".
        for (const char* name : {"realmID", "SID", "RequestID"}) {
            refused.push_back({body_of(with(vsa, name, bad)), echo_failure("(null)", vsa_failed)});
        }
        for (const char* name : {"realmID", "RequestID"}) {
            refused.push_back(
                {body_of(with(tenant, name, bad)), echo_failure("(null)", tenant_failed)});
        }
    }
    for (const std::string& name : hostile_realms()) {
        refused.push_back(
            {body_of(with(vsa, "realmID", quoted(name))), echo_failure("id-1", vsa_failed)});
        refused.push_back(
            {body_of(with(vsa, "SID", quoted(name))), echo_failure("id-1", vsa_failed)});
        refused.push_back(
            {body_of(with(tenant, "realmID", quoted(name))), echo_failure("id-1", tenant_failed)});
    }
    // Two names that are keys each but too long for one key together.
    refused.push_back({body_of(with(with(vsa, "realmID", quoted(std::string(300, 'r'))), "SID",
                                    quoted(std::string(300, 's')))),
                       echo_failure("id-1", vsa_failed)});
    // A RequestID longer than any identifier is refused and not echoed.
    for (const size_t length : {QVCTRL_REQUEST_ID_MAX + 1, size_t{100000}}) {
        const std::string id = quoted(std::string(length, 'i'));
        refused.push_back({body_of(with(vsa, "RequestID", id)), echo_failure("", vsa_failed)});
        refused.push_back(
            {body_of(with(tenant, "RequestID", id)), echo_failure("", tenant_failed)});
    }
    for (const std::string& body : kNotObjects) {
        refused.push_back({body, kUndecodable});
    }
    expect_refused(service, refused);

    std::vector<Case> answered;
    for (const std::string& id : kOddRequestIds) {
        answered.push_back({body_of(with(vsa, "RequestID", quoted(id))), answering(vsa_ok, id)});
        answered.push_back(
            {body_of(with(tenant, "RequestID", quoted(id))), answering(tenant_ok, id)});
    }
    expect_answered(service, answered, hit);

    // A stored value that is JSON but no configuration is a miss like one that is no JSON: the
    // files are read again and replace it.
    for (const std::string stored : {"[1]", "\"x\"", "3", "null", "{not json"}) {
        ASSERT_TRUE(bus->store(std::string("$KV.") + QV_KV_CONFIG_BUCKET + ".scan.r1.PRD", stored));
        EXPECT_EQ(bus->request(service, body_of(vsa)), vsa_ok) << stored;
    }
    bus->seen();
    EXPECT_EQ(config_keys(), std::vector<std::string>{"scan.r1.PRD"});
    expect_still_answering();
}

TEST_F(HostileConfigDaemon, ConsolidatedInitFailsAsAWholeOnWhatIsNoRealmSidOrRequestId) {
    const std::string service = "qv-av-control";
    const Members init = {{"Command", "6"},
                          {"realmID", quoted("r1")},
                          {"SID", quoted("PRD")},
                          {"Hostname", quoted("sap01")},
                          {"RequestID", quoted("id-1")},
                          {"Services", "[]"}};
    const std::string ok = bus->request(service, body_of(init));
    ASSERT_EQ(ok.rfind(R"({"ReplytoRequestID":"id-1","tenantID":"on-premises","realmName":"local",)"
                       R"("SCAN":[[")",
                       0),
              0u)
        << ok;
    const std::set<std::string> hit = subjects_of(service, body_of(init));
    ASSERT_FALSE(hit.empty()) << "a hit reads the bucket";

    const std::string failed = "CONSOLIDATED_INIT failed";
    std::vector<Case> refused;
    for (const auto& bad : kNoStrings) {
        for (const char* name : {"realmID", "SID", "Hostname", "RequestID"}) {
            refused.push_back({body_of(with(init, name, bad)), echo_failure("", failed)});
        }
    }
    for (const std::string& name : hostile_realms()) {
        refused.push_back(
            {body_of(with(init, "realmID", quoted(name))), echo_failure("id-1", failed)});
        refused.push_back({body_of(with(init, "SID", quoted(name))), echo_failure("id-1", failed)});
    }
    refused.push_back({body_of(with(with(init, "realmID", quoted(std::string(300, 'r'))), "SID",
                                    quoted(std::string(300, 's')))),
                       echo_failure("id-1", failed)});
    for (const size_t length : {QVCTRL_REQUEST_ID_MAX + 1, size_t{100000}}) {
        refused.push_back({body_of(with(init, "RequestID", quoted(std::string(length, 'i')))),
                           echo_failure("", failed)});
    }
    // "Services" must be an array of a sensible length.
    std::string too_many = "[";
    for (int i = 0; i < 257; ++i) {
        too_many += i == 0 ? "1" : ",1";
    }
    too_many += "]";
    for (const auto& services : std::vector<std::optional<std::string>>{
             std::nullopt, "\"qv-av-trellix\"", "{}", "7", "null", quoted(std::string(100000, 's')),
             too_many}) {
        refused.push_back(
            {body_of(with(init, "Services", services)), echo_failure("id-1", failed)});
    }
    for (const std::string& body : kNotObjects) {
        refused.push_back({body, kUndecodable});
    }
    expect_refused(service, refused);

    // Host names go nowhere, elements that are no strings are skipped, and a service name is
    // looked up among the registered workers only, however it reads.
    std::vector<Case> answered;
    for (const std::string& id : kOddRequestIds) {
        answered.push_back({body_of(with(init, "RequestID", quoted(id))), answering(ok, id)});
    }
    for (const char* name : {"Hostname", "SAP-VirtualHostname", "SAP-VirtualHostnameLong"}) {
        answered.push_back({body_of(with(init, name, quoted(kInjection))), ok});
        answered.push_back({body_of(with(init, name, quoted(std::string(100000, 'h')))), ok});
    }
    answered.push_back({body_of(with(init, "Services", R"([7, null, {}, [], true])")), ok});
    std::string absent = ok;
    const std::string no_services = "\"Services\":[]";
    absent.replace(
        absent.find(no_services), no_services.size(),
        R"("Services":[{"Servicename":"w\r\npub $js.api.stream.delete.kv_qv-av-config 0",)"
        R"("Driverinfo":{"Present":false,"ReturnCode":-1000}},{"Servicename":")" +
            std::string(QV_VALUE_MAX, 's') +
            R"(","Driverinfo":{"Present":false,"ReturnCode":-1000}}])");
    answered.push_back(
        {body_of(with(init, "Services",
                      "[" + quoted(kInjection) + ", " + quoted(std::string(100000, 'S')) + "]")),
         absent});
    expect_answered(service, answered, hit);

    EXPECT_EQ(config_keys(), std::vector<std::string>{"scan.r1.PRD"});
    expect_still_answering();
}

TEST_F(HostileConfigDaemon, WorkerConfigurationRequestsRefuseWhatIsNoRealmOrSid) {
    const std::string service = "qv-av-worker-control";
    const Members base = {{"Command", "203"}, {"realmID", quoted("r1")}, {"SID", quoted("PRD")}};
    struct Kind {
        int command;
        std::string failure;
        std::string ok;
    };
    std::vector<Kind> kinds = {{203, "Failed to load activecontent config", ""},
                               {204, "Failed to load MIME extensions mapping config", ""},
                               {205, "Failed to load MIME translation config", ""}};
    std::set<std::string> hits;
    for (Kind& kind : kinds) {
        const std::string body = body_of(with(base, "Command", std::to_string(kind.command)));
        kind.ok = bus->request(service, body);
        EXPECT_NE(kind.ok.find(",\"ReturnCode\":0}"), std::string::npos) << kind.ok;
        hits.merge(subjects_of(service, body));
    }
    const std::string hash = bus->request(service, R"({"Command": 11})");
    ASSERT_EQ(hash.rfind(R"({"ReturnCode":-1000,"Confighash":")", 0), 0u) << hash;

    std::vector<Case> refused;
    for (const Kind& kind : kinds) {
        const Members request = with(base, "Command", std::to_string(kind.command));
        const std::string failure = error_reply(-1000, kind.failure);
        // "Command" is read after realm and SID: a request that fails before it names the
        // extension map, whatever it asked for.
        const std::string unread =
            error_reply(-1000, kind.command == 205 ? kinds[1].failure : kind.failure);
        for (const auto& bad : kNoStrings) {
            refused.push_back({body_of(with(request, "realmID", bad)), unread});
            refused.push_back({body_of(with(request, "SID", bad)), unread});
        }
        for (const std::string& name : hostile_realms()) {
            refused.push_back({body_of(with(request, "realmID", quoted(name))), failure});
            refused.push_back({body_of(with(request, "SID", quoted(name))), failure});
        }
        refused.push_back({body_of(with(with(request, "realmID", quoted(std::string(300, 'r'))),
                                        "SID", quoted(std::string(300, 's')))),
                           failure});
    }
    for (const std::string& body : kNotObjects) {
        refused.push_back({body, kUndecodable});
    }
    // The hash request reads nothing of the request.
    refused.push_back({body_of({{"Command", "11"},
                                {"realmID", quoted(kInjection)},
                                {"SID", quoted(std::string(100000, 's'))}}),
                       hash});
    expect_refused(service, refused);

    // Members a request does not use change nothing.
    std::vector<Case> answered;
    for (const Kind& kind : kinds) {
        answered.push_back({body_of(with(with(with(base, "Command", std::to_string(kind.command)),
                                              "RequestID", quoted(std::string(100000, 'i'))),
                                         "Hostname", quoted(kInjection))),
                            kind.ok});
    }
    expect_answered(service, answered, hits);

    EXPECT_EQ(config_keys(),
              (std::vector<std::string>{"ac.r1.PRD", "mimeext.r1.PRD", "mimexlat.r1.PRD"}));
    expect_still_answering();
}

TEST_F(HostileJsonLogDaemon, WritesOneLineASectionAndNothingOutsideItsTree) {
    const std::string service = "qv-av-log";
    const std::vector<std::string> before = qvtest::files_below(daemon.root());
    const Members envelope = {{"LogVersion", "1"},
                              {"Timestamp_epoch", "0"},
                              {"Component", quoted("qv-av-trellix")},
                              {"Hostname", quoted("node7")},
                              {"EventID", quoted("e-1")},
                              {"realmID", quoted("r1")},
                              {"ScanLog", R"({"LogData": {"Filename": "a"}, "ScanLogPath": "p"})"},
                              {"ErrorLog", R"({"LogData": {"Message": "x"}})"}};
    // Text that would be a line of its own, and one far longer than any field.
    const std::string forged = "a\r\n{\"LogType\":\"forged\"}\r\n\n\rb";
    const std::string huge(100000, 'h');
    auto scan = [](const std::string& value) {
        return R"({"LogData": {"Filename": )" + value + R"(, "RealmID": "../x"}, "ScanLogPath": )" +
               value + "}";
    };
    const std::vector<Case> written = {
        {body_of(envelope), kOK},
        {body_of(with(with(with(envelope, "Hostname", quoted(forged)), "EventID", quoted(forged)),
                      "Component", quoted(forged))),
         kOK},
        {body_of(with(envelope, "ScanLog", scan(quoted(forged)))), kOK},
        {body_of(with(with(with(envelope, "Hostname", quoted(huge)), "Timestamp", quoted(huge)),
                      "ScanLog", scan(quoted(huge)))),
         kOK},
        // No realm: the lines go to the base directories themselves.
        {body_of(with(envelope, "realmID", std::nullopt)), kOK},
        // No LogData, and an EPO section: no line.
        {body_of(with(
             with(with(envelope, "ScanLog", R"({"ScanLogPath": "p"})"), "ErrorLog", std::nullopt),
             "EPOLog", R"({"LogData": {"a": 1}})")),
         kOK},
    };
    const size_t lines_written = 10;
    std::vector<Case> refused;
    std::vector<std::string> realms = hostile_realms();
    realms.insert(realms.end(), {"/etc", "../../x", "r1/../../x"});
    for (const std::string& realm : realms) {
        refused.push_back({body_of(with(envelope, "realmID", quoted(realm))),
                           error_reply(-1000, "Invalid realm")});
    }
    for (const char* realm : {"7", "[\"r1\"]", "{}"}) {
        refused.push_back(
            {body_of(with(envelope, "realmID", realm)), error_reply(-1000, "Invalid realm")});
    }
    refused.push_back({body_of(with(envelope, "EventID", std::nullopt)),
                       error_reply(-1000, "Failed to create log lines")});
    refused.push_back(
        {body_of(with(envelope, "LogVersion", "2")),
         error_reply(-1000, "Log version 2 not supported by this logger (version 1)")});
    expect_refused(service, written);
    expect_refused(service, refused);
    for (const std::string& body : kNotObjects) {
        const std::string reply = bus->request(service, body);
        EXPECT_EQ(reply.rfind("{\"ReturnCode\":-1000,\"Error\":\"", 0), 0u) << reply;
    }

    size_t lines = 0;
    for (const std::string& path : qvtest::files_below(daemon.root())) {
        if (std::binary_search(before.begin(), before.end(), path)) {
            continue;
        }
        ASSERT_EQ(path.rfind(log_tree() + "/", 0), 0u) << path;
        const std::string text = qvtest::read_file(path);
        for (size_t start = 0; start < text.size();) {
            const size_t end = text.find("\r\n", start);
            ASSERT_NE(end, std::string::npos) << path << " ends without CR LF";
            const std::string line = text.substr(start, end - start);
            EXPECT_EQ(line.find_first_of("\r\n"), std::string::npos) << path;
            qv::json_ptr parsed = qv_json_parse(line);
            EXPECT_TRUE(parsed && json_object_is_type(parsed.get(), json_type_object)) << path;
            ++lines;
            start = end + 2;
        }
    }
    EXPECT_EQ(lines, lines_written);
    // The sender's members come first, then the daemon's own, with its broker as realm name.
    EXPECT_EQ(qvtest::read_file(log_tree() + "/ERROR/r1/error.log")
                  .rfind(R"({"Message":"x","LogVersion":1,"LogType":"ErrorLog","TimestampEpoch":0,)"
                         R"("Timestamp":"1970-01-01 00:00:00","Component":"qv-av-trellix",)"
                         R"("Hostname":"node7","EventID":"e-1","RealmID":"r1",)"
                         R"("Tenant":"on-premises","RealmName":"local"})"
                         "\r\n",
                         0),
              0u);
    expect_still_answering();
}
