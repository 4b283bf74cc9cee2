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

// `subjects` without reply inboxes, except `keep` (an inbox a hostile entry named).
std::vector<std::string> but_inboxes(const std::vector<std::string>& subjects,
                                     const std::string& keep = "") {
    std::vector<std::string> out;
    for (const std::string& s : subjects) {
        if (s.rfind("_INBOX.", 0) != 0 || s == keep) {
            out.push_back(s);
        }
    }
    return out;
}

// A requester whose replies come to an inbox of its own, and a watcher of every subject on
// another connection.
class Bus {
  public:
    explicit Bus(const NatsServer& server) : requester_(server.url()), watcher_(server.url()) {
        watcher_.watch_everything();
    }

    // The reply text; empty when none came.
    std::string raw(const std::string& subject, const std::string& body) {
        qvtest::NatsPeer::Batch batch = requester_.send({{subject, body}});
        replies_.insert(batch.inbox + ".0");
        return requester_.collect(batch, std::chrono::seconds(5))[0];
    }
    // The reply as compact JSON; a reply that does not parse shows as such.
    std::string request(const std::string& subject, const std::string& body) {
        const std::string text = raw(subject, body);
        qv::json_ptr parsed = qv_json_parse(text);
        return parsed ? qv_json_to_string(parsed.get()) : "unparsable reply: " + text;
    }
    // A message stored in a bucket's stream, as any client with credentials may write it.
    bool store(const std::string& subject, const std::string& value) {
        return raw(subject, value).find("\"seq\"") != std::string::npos;
    }
    void publish(const std::string& subject) {
        requester_.publish(subject, "x");
        EXPECT_TRUE(requester_.flush());
    }

    // Every subject published since the last call. A marker sent after the caller got its reply
    // arrives after anything the daemon published before that reply.
    std::vector<std::string> seen() {
        const std::string marker = "qv-test-marker." + std::to_string(++markers_);
        watcher_.publish(marker, "");
        EXPECT_TRUE(watcher_.flush());
        return watcher_.watched_until(marker, std::chrono::seconds(20));
    }
    // Subjects seen other than `service`, the replies to this requester and what the daemon's
    // read cache of the configuration bucket does by itself: once a second it asks for the
    // bucket's stream (that request, its reply inbox and the server's audit of it).
    std::vector<std::string> strays(const std::string& service) {
        std::vector<std::string> out;
        for (const std::string& s : seen()) {
            if (s != service && !replies_.count(s) && !read_cache_poll(s)) {
                out.push_back(s);
            }
        }
        return out;
    }
    // Waits until the subjects the daemon publishes by itself are only its read cache's polls:
    // the cache starts its watch in the background after the first read.
    bool settle() {
        return qvtest::wait_until([&] { return strays("").empty(); }, std::chrono::seconds(20));
    }

  private:
    static bool read_cache_poll(const std::string& s) {
        // A library inbox: "_INBOX.", 22 characters of a unique id, '.', a token.
        const bool inbox = s.rfind("_INBOX.", 0) == 0 && s.size() > 30 && s[29] == '.';
        return inbox || s == "$JS.EVENT.ADVISORY.API" ||
               s == std::string("$JS.API.STREAM.INFO.KV_") + QV_KV_CONFIG_BUCKET;
    }
    int markers_ = 0;
    std::set<std::string> replies_;
    qvtest::NatsPeer requester_;
    qvtest::NatsPeer watcher_;
};

std::vector<std::string> bucket_keys(const NatsServer& server, const char* bucket) {
    qvtest::NatsClient client(server);
    std::vector<std::string> keys;
    EXPECT_EQ(qv_nats_kv_keys(client.get(), bucket, nullptr,
                              [&](const char* key) { keys.push_back(key); }),
              0);
    std::sort(keys.begin(), keys.end());
    return keys;
}

std::string error_reply(int rc, const std::string& text) {
    return "{\"ReturnCode\":" + std::to_string(rc) + ",\"Error\":\"" + text + "\"}";
}

const std::string kOK = R"({"ReturnCode":0})";
const std::string kInjection = "w\r\nPUB $JS.API.STREAM.DELETE.KV_qv-av-config 0\r\n";

// CR LF with protocol text, NUL, blanks, wildcards, '$' and lengths past any control line.
std::vector<std::string> hostile_names() {
    std::vector<std::string> names = {"a b", " ",  "*",    ">",
                                      "a.>", "$x", "a\tb", "$JS.API.STREAM.PURGE.KV_qv-av-config"};
    names.insert(names.end(),
                 {kInjection, "a\0b"s, std::string(5000, 'n'), std::string(100000, 'n')});
    return names;
}

struct Case {
    std::string body;
    std::string reply;
};

// JSON that parses but is not a request: it cannot be decoded.
std::vector<Case> not_objects() {
    const std::string undecodable = R"({"ReturnCode":-1})";
    return {
        {"[1]", undecodable}, {"\"x\"", undecodable}, {"3", undecodable}, {"null", undecodable}};
}

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

// Realms and SIDs that are no single name, and one of a character more than a key may hold.
std::vector<std::string> hostile_realms() {
    std::vector<std::string> names = hostile_names();
    names.insert(names.end(), {"..", ".", "/", "a/b", "../x", "$", std::string(512, 'r')});
    return names;
}

// `request` with each of `strings` instead a value that is no usable string (absent, empty, null,
// a number, an array, an object), answered `unread`; and each of `names` set to what is no single
// name, answered `refused`. Realm and SID together are also tried as two names that are keys
// each but too long for one key together.
void add_bad_names(std::vector<Case>& out, const Members& request,
                   const std::vector<const char*>& strings, const std::string& unread,
                   const std::vector<const char*>& names, const std::string& refused) {
    for (const std::optional<std::string>& bad : std::vector<std::optional<std::string>>{
             std::nullopt, "\"\"", "null", "7", "[\"r1\"]", "{}"}) {
        for (const char* name : strings) {
            out.push_back({body_of(with(request, name, bad)), unread});
        }
    }
    for (const std::string& value : hostile_realms()) {
        for (const char* name : names) {
            out.push_back({body_of(with(request, name, quoted(value))), refused});
        }
    }
    if (names.size() == 2) {
        out.push_back({body_of(with(with(request, "realmID", quoted(std::string(300, 'r'))), "SID",
                                    quoted(std::string(300, 's')))),
                       refused});
    }
}

// The failure replies that echo the request's RequestID.
std::string echo_failure(const std::string& id, const std::string& text) {
    return "{\"ReplytoRequestID\":" + quoted(id) + ",\"ReturnCode\":-1000,\"Error\":\"" + text +
           "\"}";
}

// RequestIDs that are identifiers of a sort are echoed as they came in `ok`, the reply to "id-1";
// one longer than any identifier is refused with `failure` and not echoed.
void add_request_ids(std::vector<Case>& refused, std::vector<Case>& answered,
                     const Members& request, const std::string& failure, const std::string& ok) {
    for (const std::string& id : {"a\"b\\c"s, "\r\n\t\x01\x7f"s, "a\0b"s, "</>"s,
                                  std::string(QVCTRL_REQUEST_ID_MAX, 'i')}) {
        std::string reply = ok;
        const std::string plain = "\"ReplytoRequestID\":\"id-1\"";
        const size_t at = reply.find(plain);
        EXPECT_NE(at, std::string::npos) << ok;
        if (at != std::string::npos) {
            reply.replace(at, plain.size(), "\"ReplytoRequestID\":" + quoted(id));
        }
        answered.push_back({body_of(with(request, "RequestID", quoted(id))), reply});
    }
    for (const size_t length : {QVCTRL_REQUEST_ID_MAX + 1, size_t{100000}}) {
        refused.push_back({body_of(with(request, "RequestID", quoted(std::string(length, 'i')))),
                           echo_failure("", failure)});
    }
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
        for (const char* line :
             {"Entering main loop", "registry reconcile done", "event-sub reconcile done"}) {
            ASSERT_TRUE(daemon.wait_for_log(line)) << daemon.logs();
        }
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
    // Each request gets its reply and the server sees nothing but that exchange; with `allowed`
    // (the subjects a plain request uses), also those and the daemon's reply inboxes, for
    // requests answered although they carry hostile values where those go nowhere.
    void expect_replies(const std::string& service, const std::vector<Case>& cases,
                        const std::set<std::string>* allowed = nullptr) {
        for (const Case& c : cases) {
            const std::string shown = qv_escape_for_log(c.body, 100);
            EXPECT_EQ(bus->request(service, c.body), c.reply) << shown;
            for (const std::string& s : bus->strays(service)) {
                EXPECT_TRUE(allowed && (s.rfind("_INBOX.", 0) == 0 || allowed->count(s)))
                    << s << " after " << shown;
            }
        }
    }
    // The subjects other than reply inboxes that a request makes the daemon use.
    std::set<std::string> subjects_of(const std::string& service, const std::string& body) {
        bus->request(service, body);
        const std::vector<std::string> used = but_inboxes(bus->strays(service));
        return {used.begin(), used.end()};
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
    const std::string service = quoted("qv-av-trellix");
    const std::string worker = quoted("qv-av-trellix.host_1");
    const std::string bad_worker = error_reply(-1000, "Invalid worker name");
    const std::string bad_service = error_reply(-1000, "Invalid service name");
    const std::string unread = error_reply(-1000, "Failed to read worker-name from JSON");
    std::vector<Case> cases = not_objects();
    for (const std::string& name : hostile_names()) {
        cases.push_back({registration(quoted(name), service), bad_worker});
        cases.push_back({registration(worker, quoted(name)), bad_service});
    }
    // Keys, but no worker's own subject.
    for (const char* name : {"_INBOX.x", "qv-av-events-dispatch", "qv-av-worker-control"}) {
        cases.push_back({registration(quoted(name), service), bad_worker});
    }
    cases.insert(cases.end(), {{registration(worker, "7"), bad_service},
                               {R"({"Command": 200, "service-name": "qv-av-trellix"})", unread},
                               {registration("\"\"", service),
                                error_reply(-1000, "Key worker-name found, but value is empty")},
                               {registration("{\"a\": 1}", service), unread}});
    expect_replies("qv-av-worker-control", cases);
    EXPECT_EQ(bucket_keys(server, QV_KV_REGISTRY_BUCKET), std::vector<std::string>{});
    expect_still_answering();
    EXPECT_EQ(bus->request("qv-av-worker-control", R"({"Command": 3})"), kOK);

    // What is refused never reaches a line of the trace log as it came.
    EXPECT_TRUE(daemon.wait_for_log(
        "Invalid worker name: 'w\\r\\nPUB $JS.API.STREAM.DELETE.KV_qv-av-config 0\\r\\n'"));
    EXPECT_EQ(daemon.logs().find("\nPUB $JS"), std::string::npos);
}

TEST_F(HostileDaemon, EventServiceStoresAndForwardsNothingForARefusedSubscription) {
    const Members subscribe = {{"Command", "500"},        {"Service", quoted("qv-test.handler")},
                               {"realmID", quoted("*")},  {"SID", quoted("*")},
                               {"Hostname", quoted("*")}, {"Modules", quoted("*")}};
    const std::string bad_handler = error_reply(-1000, "Invalid handler subject");
    const std::string bad_realm = error_reply(-1000, "Invalid realm pattern");
    std::vector<Case> cases = not_objects();
    std::vector<std::string> subjects = hostile_names();
    subjects.insert(subjects.end(), {"_INBOX.x", "qv-av-events-dispatch", "qv-av-log"});
    for (const std::string& s : subjects) {
        cases.push_back({body_of(with(subscribe, "Service", quoted(s))), bad_handler});
    }
    // Patterns keep '*' and '?', so only the other hostile texts are refused there.
    for (const std::string& p : std::vector<std::string>{kInjection, "a\0b"s, "a b", ">", "$x",
                                                         std::string(100000, 'p')}) {
        for (const auto& [name, reply] :
             {std::pair{"realmID", bad_realm},
              {"SID", error_reply(-1000, "Invalid SID pattern")},
              {"Hostname", error_reply(-1000, "Invalid host name pattern")},
              {"Modules", error_reply(-1000, "Invalid module pattern")}}) {
            cases.push_back({body_of(with(subscribe, name, quoted(p))), reply});
        }
    }
    const std::string bad_component = error_reply(-1000, "Failed to read Component from JSON");
    cases.insert(
        cases.end(),
        {{body_of(with(subscribe, "Service", "true")), bad_handler},
         {body_of(with(subscribe, "realmID", "{}")), bad_realm},
         // A missing or empty member is answered OK, as ever, and stores nothing either.
         {R"({"Command": 500, "Service": "qv-test.handler"})", kOK},
         {body_of(with(subscribe, "Service", "\"\"")), kOK},
         {body_of(with(subscribe, "Modules", "null")), kOK},
         // Events: a malformed one is reported; one that matches nobody is forwarded nowhere.
         {R"({"Command": 501, "Event": {}})", bad_component},
         {R"({"Command": 501, "Event": {}, "Component": 5})", bad_component},
         {R"({"Command": 501, "Event": {}, "Component": "qv-av-trellix",)"
          R"( "Hostname": "$JS.API.>", "realmID": "a\r\nb"})",
          kOK}});
    expect_replies("qv-av-events-dispatch", cases);
    EXPECT_EQ(bucket_keys(server, QV_KV_EVENT_SUBSCRIPTIONS_BUCKET), std::vector<std::string>{});
    expect_still_answering();
}

TEST_F(HostileDaemon, ClientServiceRefusesRealmsSidsAndServiceNamesThatAreNoNames) {
    const Members request = {{"Command", "2"},
                             {"realmID", quoted("r1")},
                             {"SID", quoted("PRD")},
                             {"Hostname", quoted("sap01")},
                             {"Servicename", quoted("qv-av-trellix")}};
    std::vector<Case> cases = not_objects();
    std::vector<std::string> names = hostile_names();
    names.insert(names.end(), {"..", "a/b", "${HOME}"});
    for (const std::string& name : names) {
        cases.push_back(
            {body_of(with(request, "realmID", quoted(name))), error_reply(-1, "Invalid realm")});
        cases.push_back(
            {body_of(with(request, "SID", quoted(name))), error_reply(-1, "Invalid SID")});
    }
    for (const std::string& name :
         std::vector<std::string>{kInjection, "a\0b"s, "a b", "*", ">", "$x"}) {
        cases.push_back({body_of(with(request, "Servicename", quoted(name))),
                         error_reply(-1, "Invalid service name")});
    }
    const std::string unread = error_reply(-1, "Failed to read realmID from JSON");
    cases.insert(cases.end(), {{R"({"Command": 2, "SID": "PRD"})", unread},
                               {body_of(with(request, "realmID", "\"\"")),
                                error_reply(-1, "Key realmID found, but value is empty")},
                               {body_of(with(request, "realmID", "[]")), unread}});
    expect_replies("qv-av-control", cases);
    expect_still_answering();
    EXPECT_EQ(bus->request("qv-av-control", body_of(request)), kOK);
}

// Entries written straight into the registry bucket by a client with credentials.
TEST(HostileRegistryEntries, AreNeverProjectedNorFlushedWhileTheirKeysStillShield) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    ASSERT_EQ(server.create_buckets(), 0);
    qvtest::LogCapture log;
    auto config = qvctrl_config_new();
    config->main_nats_config = server.client_config();
    ASSERT_EQ(qv_nats_init(config->main_nats_config.get()), 0);
    config->controlled_services = {{"qv-av-mimescan"}};
    config->worker_registry_enabled = true;
    config->worker_registry_sync_interval_ms = 1000;
    Bus bus(server);
    const std::string prefix = std::string("$KV.") + QV_KV_REGISTRY_BUCKET + ".";
    // The last but one is a valid key whose document names one of the daemon's own subjects.
    for (const auto& [key, worker] : {std::pair{"_INBOX.abc", "_INBOX.abc"},
                                      {"qv-av-mimescan.$x", "qv-av-mimescan.$x"},
                                      {"qv-av-mimescan.h~1", "qv-av-mimescan.h~1"},
                                      {"qv-av-mimescan.h_2", "qv-av-control"},
                                      {"qv-av-mimescan.good_1", "qv-av-mimescan.good_1"}}) {
        ASSERT_TRUE(
            bus.store(prefix + key, R"({"service-name": "qv-av-mimescan", "worker-name": )" +
                                        quoted(worker) + R"(, "Secret": "s"})"));
    }
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
    for (const char* line : {"registry reconcile: skipping invalid worker key: '_INBOX.abc'",
                             "registry reconcile: skipping invalid worker key: 'qv-av-mimescan.$x'",
                             "Registry: skipping registration with an invalid worker name: "
                             "'qv-av-control'"}) {
        EXPECT_TRUE(log.contains(line)) << line;
    }

    // The flush reaches the valid worker only. Its subscription is live before anything is sent
    // (the watcher would otherwise take the first request alone).
    std::atomic<int> worker_stop{0};
    std::atomic<int> flushes{0};
    qvtest::NatsClient worker(server);
    ASSERT_EQ(qv_nats_start_service_handler_threads(
                  worker.get(), "qv-av-mimescan.good_1",
                  [](void* calls, qv_const_request_reply_t* rr) {
                      ++*static_cast<std::atomic<int>*>(calls);
                      rr->reply->json_txt = "{\"ReturnCode\": 0}";
                      return 0;
                  },
                  &flushes, &worker_stop, 1),
              0);
    ASSERT_EQ(natsConnection_Flush(worker.get()->_conn.get()), NATS_OK);
    bus.seen();
    qvctrl_flush_worker_caches(config.get(), "qv-av-mimescan", nullptr, nullptr);
    EXPECT_EQ(flushes.load(), 1);
    EXPECT_EQ(but_inboxes(bus.seen(), "_INBOX.abc"),
              std::vector<std::string>{"qv-av-mimescan.good_1"});
    worker_stop = 1;
    qv_nats_deinit(config->main_nats_config.get());
}

// Subscriptions written straight into the subscription bucket under keys that are no handler's
// subject, or with scopes that are no pattern lists. (What is not projected is forwarded nowhere.)
TEST(HostileSubscriptionEntries, AreNeverProjected) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    ASSERT_EQ(server.create_buckets(), 0);
    qvtest::LogCapture log;
    auto config = qvctrl_config_new();
    config->main_nats_config = server.client_config();
    ASSERT_EQ(qv_nats_init(config->main_nats_config.get()), 0);
    config->event_subscription_kv_enabled = true;
    Bus bus(server);
    const std::string scope = R"({"realmID": "*", "SID": "*", "Hostname": "*", "Modules": "*"})";
    const std::string prefix = std::string("$KV.") + QV_KV_EVENT_SUBSCRIPTIONS_BUCKET + ".";
    for (const char* key : {"$JS.API.STREAM.PURGE.KV_qv-av-config", "qv-av-events-dispatch",
                            "_INBOX.x", "qv-test.h~1", "qv-test.good"}) {
        ASSERT_TRUE(bus.store(prefix + key, scope)) << key;
    }
    ASSERT_TRUE(bus.store(prefix + "qv-test.scope",
                          R"({"realmID": "*", "SID": "*", "Hostname": "a b", "Modules": "*"})"));

    ASSERT_EQ(qvctrl_event_sub_reconcile(config.get()), 0);
    ASSERT_EQ(config->event_workers_list.size(), 1u);
    EXPECT_EQ(config->event_workers_list.front().service, "qv-test.good");
    EXPECT_TRUE(
        log.contains("event-sub: skipping invalid subscription key: "
                     "'$JS.API.STREAM.PURGE.KV_qv-av-config'"));
    EXPECT_TRUE(
        log.contains("event-sub: skipping subscription of 'qv-test.scope' with an "
                     "invalid Hostname pattern list: 'a b'"));

    // No key was taken for a subject.
    std::string value;
    EXPECT_EQ(qv_nats_kv_get(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET, "probe", &value),
              1)
        << "the configuration bucket is still there";
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
    ASSERT_TRUE(bus->settle());
    const std::set<std::string> hit = subjects_of(service, body_of(vsa));
    const std::string tenant_ok = bus->request(service, body_of(tenant));
    EXPECT_EQ(tenant_ok, R"({"ReplytoRequestID":"id-1","ReturnCode":0,"tenantID":"on-premises",)"
                         R"("realmName":"local"})");
    EXPECT_EQ(bus->strays(service), std::vector<std::string>{});

    const std::string vsa_failed = "Failed to load SCAN config";
    const std::string tenant_failed = "Failed to retrieve tenantID or realmName";
    std::vector<Case> refused = not_objects();
    std::vector<Case> answered;
    // Kept: a RequestID that was not read is echoed as "(null)".
    add_bad_names(refused, vsa, {"realmID", "SID", "RequestID"}, echo_failure("(null)", vsa_failed),
                  {"realmID", "SID"}, echo_failure("id-1", vsa_failed));
    add_bad_names(refused, tenant, {"realmID", "RequestID"}, echo_failure("(null)", tenant_failed),
                  {"realmID"}, echo_failure("id-1", tenant_failed));
    add_request_ids(refused, answered, vsa, vsa_failed, vsa_ok);
    add_request_ids(refused, answered, tenant, tenant_failed, tenant_ok);
    expect_replies(service, refused);
    expect_replies(service, answered, &hit);

    // A stored value that is JSON but no configuration is a miss like one that is no JSON: the
    // files are read again and replace it.
    for (const std::string stored : {"[1]", "\"x\"", "3", "null", "{not json"}) {
        ASSERT_TRUE(bus->store(std::string("$KV.") + QV_KV_CONFIG_BUCKET + ".scan.r1.PRD", stored));
        EXPECT_EQ(bus->request(service, body_of(vsa)), vsa_ok) << stored;
    }
    bus->seen();
    EXPECT_EQ(bucket_keys(server, QV_KV_CONFIG_BUCKET), std::vector<std::string>{"scan.r1.PRD"});
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
    ASSERT_TRUE(bus->settle());
    const std::set<std::string> hit = subjects_of(service, body_of(init));

    const std::string failed = "CONSOLIDATED_INIT failed";
    std::vector<Case> refused = not_objects();
    std::vector<Case> answered;
    add_bad_names(refused, init, {"realmID", "SID", "Hostname", "RequestID"},
                  echo_failure("", failed), {"realmID", "SID"}, echo_failure("id-1", failed));
    add_request_ids(refused, answered, init, failed, ok);
    // "Services" must be an array of a sensible length.
    std::string too_many = "[1";
    for (int i = 1; i < 257; ++i) {
        too_many += ",1";
    }
    for (const auto& services : std::vector<std::optional<std::string>>{
             std::nullopt, "\"qv-av-trellix\"", "{}", "7", "null", quoted(std::string(100000, 's')),
             too_many + "]"}) {
        refused.push_back(
            {body_of(with(init, "Services", services)), echo_failure("id-1", failed)});
    }
    expect_replies(service, refused);

    // Host names go nowhere, elements that are no strings are skipped, and a service name is
    // looked up among the registered workers only, however it reads.
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
    expect_replies(service, answered, &hit);

    EXPECT_EQ(bucket_keys(server, QV_KV_CONFIG_BUCKET), std::vector<std::string>{"scan.r1.PRD"});
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
        ASSERT_TRUE(bus->settle());
        hits.merge(subjects_of(service, body));
    }
    const std::string hash = bus->request(service, R"({"Command": 11})");
    ASSERT_EQ(hash.rfind(R"({"ReturnCode":-1000,"Confighash":")", 0), 0u) << hash;

    std::vector<Case> refused = not_objects();
    std::vector<Case> answered;
    for (const Kind& kind : kinds) {
        const Members request = with(base, "Command", std::to_string(kind.command));
        // "Command" is read after realm and SID: a request that fails before it names the
        // extension map, whatever it asked for.
        add_bad_names(refused, request, {"realmID", "SID"},
                      error_reply(-1000, kind.command == 205 ? kinds[1].failure : kind.failure),
                      {"realmID", "SID"}, error_reply(-1000, kind.failure));
        // Members a request does not use change nothing.
        answered.push_back(
            {body_of(with(with(request, "RequestID", quoted(std::string(100000, 'i'))), "Hostname",
                          quoted(kInjection))),
             kind.ok});
    }
    // The hash request reads nothing of the request.
    refused.push_back({body_of({{"Command", "11"},
                                {"realmID", quoted(kInjection)},
                                {"SID", quoted(std::string(100000, 's'))}}),
                       hash});
    expect_replies(service, refused);
    expect_replies(service, answered, &hits);

    EXPECT_EQ(bucket_keys(server, QV_KV_CONFIG_BUCKET),
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
    const std::string forged = quoted("a\r\n{\"LogType\":\"forged\"}\r\n\n\rb");
    const std::string huge = quoted(std::string(100000, 'h'));
    auto scan = [](const std::string& value) {
        return R"({"LogData": {"Filename": )" + value + R"(, "RealmID": "../x"}, "ScanLogPath": )" +
               value + "}";
    };
    // Ten lines in all.
    const std::vector<Case> written = {
        {body_of(envelope), kOK},
        {body_of(with(with(with(envelope, "Hostname", forged), "EventID", forged), "Component",
                      forged)),
         kOK},
        {body_of(with(envelope, "ScanLog", scan(forged))), kOK},
        {body_of(with(with(with(envelope, "Hostname", huge), "Timestamp", huge), "ScanLog",
                      scan(huge))),
         kOK},
        // No realm: the lines go to the base directories themselves.
        {body_of(with(envelope, "realmID", std::nullopt)), kOK},
        // No LogData, and an EPO section: no line.
        {body_of(with(
             with(with(envelope, "ScanLog", R"({"ScanLogPath": "p"})"), "ErrorLog", std::nullopt),
             "EPOLog", R"({"LogData": {"a": 1}})")),
         kOK},
    };
    std::vector<Case> refused = {
        {body_of(with(envelope, "EventID", std::nullopt)),
         error_reply(-1000, "Failed to create log lines")},
        {body_of(with(envelope, "LogVersion", "2")),
         error_reply(-1000, "Log version 2 not supported by this logger (version 1)")}};
    std::vector<std::string> realms = {"7", "[\"r1\"]", "{}"};
    for (const std::string& realm : hostile_realms()) {
        realms.push_back(quoted(realm));
    }
    for (const char* realm : {"/etc", "../../x", "r1/../../x"}) {
        realms.push_back(quoted(realm));
    }
    for (const std::string& realm : realms) {
        refused.push_back(
            {body_of(with(envelope, "realmID", realm)), error_reply(-1000, "Invalid realm")});
    }
    expect_replies(service, written);
    expect_replies(service, refused);
    for (const Case& c : not_objects()) {
        const std::string reply = bus->request(service, c.body);
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
    EXPECT_EQ(lines, 10u);
    expect_still_answering();
}
