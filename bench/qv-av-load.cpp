// qv-av-load: end-to-end load on the real daemon. Starts a nats-server with JetStream (or uses
// --url), runs the qv-av-control binary in a temporary installation tree with a configuration
// written here, and drives each of its services with concurrent requesters for a fixed time,
// beside a bare libnats responder on the same server in the same run. Prints requests per
// second, p50/p99 latency, failures and the ratios to the bare responder, then the daemon's peak
// resident memory and thread count; --json writes the same figures for bench/plot.sh.
//
// Every requester is a connection and a thread of its own that sends its next request as soon as
// the last one is answered. A request fails when no reply comes within 10 s or the reply is not
// the expected one ("ReturnCode" 0, and for configurations and inits their content). Workers and
// event handlers that the requests need are set up first and renew themselves as real ones do,
// so nothing lapses during a run.
#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <getopt.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "bench_load.h"
#include "daemon_process.h"
#include "log.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_kv_setup.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"

namespace {

using namespace std::chrono_literals;
using qvbench::load_result;

constexpr const char* kPing = R"({"Command": 3})";
constexpr const char* kBareSubject = "qv-load.bare";
constexpr const char* kInitWorker = "qv-av-trellix.load-init.example.com_1";
constexpr int kFleet = 1000;  // distinct workers behind the registration load
constexpr auto kWarmUp = 500ms;
constexpr auto kRenewPeriod = 5s;  // well inside the registry and subscription leases

struct options {
    std::string url;
    std::string daemon;
    std::string config;
    std::string json;
    int requesters = 8;
    int seconds = 5;
    std::vector<std::pair<std::string, std::string>> sets;
    std::set<std::string> only;
};

// ---- Requests as workers, clients and handlers send them ----

std::string s_log_line(int r, int i) {
    char text[1024];
    snprintf(text, sizeof(text),
             "{\"LogVersion\": 1, \"Timestamp\": \"2024-03-01 12:00:07\", \"Timestamp_epoch\": "
             "1709294407, \"Component\": \"qv-av-trellix\", \"Hostname\": \"node%d\", "
             "\"EventID\": \"1b4e28ba-2fa1-11d2-%04x-%012x\", \"realmID\": \"realm%d\", "
             "\"ScanLog\": {\"ScanLogPath\": \"scan.log\", \"LogData\": {\"SID\": \"PRD\", "
             "\"Filename\": \"/data/in/%d/file-%06d.pdf\", \"File-size\": %d, \"MIME-type\": "
             "\"application/pdf\", \"Result-Text\": \"clean\", \"Reason-Text\": \"\", "
             "\"Duration\": %d}}}",
             r, r & 0xffff, static_cast<unsigned>(i), r % 4, r, i, 1000 + i * 7 % 90000,
             3 + i % 40);
    return text;
}

std::string s_registration(const std::string& worker_name) {
    return R"({"Command": 200, "service-name": "qv-av-trellix", "worker-name": ")" + worker_name +
           R"(", "Secret": "load", "Primary": 0, "DriverName": "engine", "MajorVersion": 6,)"
           R"( "MinorVersion": 2, "NumberOfViruses": 123456, "NumberOfVariants": 7,)"
           R"( "Timestamp": 1700000000})";
}

std::string s_fleet_worker(int n) {
    return "qv-av-trellix.load-host-" + std::to_string(n) + ".example.com_1";
}

// Handler k of the set that serves `handlers` handlers. Each set has a realm of its own, so that
// the events of one run reach only the handlers of that run.
std::string s_handler_subject(int handlers, int k) {
    return "qv-load.handler-" + std::to_string(handlers) + "." + std::to_string(k);
}

std::string s_event_realm(int handlers) {
    return "load-" + std::to_string(handlers);
}

std::string s_subscription(int handlers, int k) {
    return R"({"Command": 500, "Service": ")" + s_handler_subject(handlers, k) +
           R"(", "realmID": ")" + s_event_realm(handlers) +
           R"(", "SID": "PRD;QAS", "Hostname": "sap*", "Modules": "qv-av-trellix;qv-av-mime*"})";
}

std::string s_event(int handlers, int i) {
    return R"({"Command": 501, "Event": {"Type": "detection", "Threat-Name": "EICAR-Test-File",)"
           R"( "Filename": "/data/in/file-)" +
           std::to_string(i) +
           R"(.pdf"}, "Component": "qv-av-trellix", "Hostname": "sap01",)"
           R"( "realmID": ")" +
           s_event_realm(handlers) + R"(", "SID": "PRD"})";
}

// A few realms and SIDs per requester, all in the configuration bucket after the warm-up.
std::string s_vsa(int r, int i) {
    return R"({"Command": 100, "realmID": "realm)" + std::to_string(r % 4) + R"(", "SID": "S)" +
           std::to_string(i % 8) + R"(", "RequestID": "req-)" + std::to_string(r) + "-" +
           std::to_string(i) + "\"}";
}

std::string s_init(int r, int i) {
    return R"({"Command": 6, "realmID": "realm)" + std::to_string(r % 4) + R"(", "SID": "S)" +
           std::to_string(i % 8) + R"(", "Hostname": "sap)" + std::to_string(r) +
           R"(", "SAP-VirtualHostname": "sapvh", "RequestID": "init-)" + std::to_string(r) + "-" +
           std::to_string(i) + R"(", "Services": ["qv-av-trellix"]})";
}

std::function<std::string(int, int)> s_constant(const char* text) {
    return [text](int, int) { return std::string(text); };
}

// ---- Reply checks ----

std::optional<int> s_return_code(json_object* reply) {
    json_object* rc = nullptr;
    if (reply == nullptr || !json_object_object_get_ex(reply, "ReturnCode", &rc) ||
        !json_object_is_type(rc, json_type_int)) {
        return std::nullopt;
    }
    return json_object_get_int(rc);
}

bool s_ok(const std::string& reply) {
    qv::json_ptr parsed = qv_json_parse_object(reply);
    return s_return_code(parsed.get()) == 0;
}

bool s_vsa_ok(const std::string& reply) {
    qv::json_ptr parsed = qv_json_parse_object(reply);
    return s_return_code(parsed.get()) == 0 &&
           json_object_object_get_ex(parsed.get(), "SCAN", nullptr);
}

// A successful init that found the worker.
bool s_init_ok(const std::string& reply) {
    qv::json_ptr parsed = qv_json_parse_object(reply);
    json_object* services = nullptr;
    json_object* info = nullptr;
    json_object* present = nullptr;
    return s_return_code(parsed.get()) == 0 &&
           json_object_object_get_ex(parsed.get(), "Services", &services) &&
           json_object_is_type(services, json_type_array) &&
           json_object_array_length(services) == 1 &&
           json_object_object_get_ex(json_object_array_get_idx(services, 0), "Driverinfo", &info) &&
           json_object_object_get_ex(info, "Present", &present) && json_object_get_boolean(present);
}

// ---- Helpers around the run ----

// Sends each of its requests again every period on a connection of its own, as beating workers
// and subscribed handlers do, until it goes.
class renewer {
  public:
    explicit renewer(const std::string& url)
        : conn_(qvbench::connect_asap(url)),
          thread_([this](std::stop_token stop) { loop(stop); }) {}
    renewer(const renewer&) = delete;
    renewer& operator=(const renewer&) = delete;

    // Sends the request at once (true for a "ReturnCode" 0) and keeps renewing it.
    bool add(const std::string& subject, const std::string& body) {
        {
            std::lock_guard lock(mutex_);
            requests_.emplace_back(subject, body);
        }
        return qvbench::request_once(conn_.get(), subject, body, s_ok);
    }

  private:
    void loop(std::stop_token stop) {
        std::unique_lock lock(mutex_);
        while (!stop.stop_requested()) {
            cv_.wait_for(lock, stop, kRenewPeriod, [] { return false; });
            if (stop.stop_requested()) {
                break;
            }
            const auto requests = requests_;
            lock.unlock();
            for (const auto& [subject, body] : requests) {
                qvbench::request_once(conn_.get(), subject, body, {});
            }
            lock.lock();
        }
    }

    qv::nats_connection_ptr conn_;
    std::mutex mutex_;
    std::condition_variable_any cv_;
    std::vector<std::pair<std::string, std::string>> requests_;
    std::jthread thread_;  // last: it stops and is joined before the members it uses go
};

struct proc_status {
    long hwm_kb = 0;
    long rss_kb = 0;
    long threads = 0;
};

std::optional<proc_status> s_read_status(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    if (!in) {
        return std::nullopt;
    }
    proc_status status;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string name;
        long value = 0;
        fields >> name >> value;
        if (name == "VmHWM:") {
            status.hwm_kb = value;
        } else if (name == "VmRSS:") {
            status.rss_kb = value;
        } else if (name == "Threads:") {
            status.threads = value;
        }
    }
    return status;
}

// The CPU time (user and system) the process has used so far, in seconds.
double s_cpu_seconds(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(in, text)) {
        return 0;
    }
    // The command name is in parentheses and may hold blanks: count the fields after it.
    const size_t close = text.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    for (int n = 3; fields >> field; ++n) {
        if (n == 14) {
            utime = std::stoull(field);
        } else if (n == 15) {
            stime = std::stoull(field);
            break;
        }
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Samples the daemon's memory and thread count every 200 ms while it lives: the peak resident
// size the kernel kept, and the most threads seen.
class proc_sampler {
  public:
    explicit proc_sampler(int pid)
        : pid_(pid), thread_([this](std::stop_token stop) {
              std::mutex m;
              std::condition_variable_any cv;
              std::unique_lock lock(m);
              while (!stop.stop_requested()) {
                  sample();
                  cv.wait_for(lock, stop, 200ms, [] { return false; });
              }
          }) {}

    void sample() {
        const std::optional<proc_status> now = s_read_status(pid_);
        std::lock_guard lock(mutex_);
        if (now) {
            peak_.hwm_kb = std::max(peak_.hwm_kb, now->hwm_kb);
            peak_.rss_kb = now->rss_kb;
            peak_.threads = std::max(peak_.threads, now->threads);
        }
    }
    proc_status peak() {
        std::lock_guard lock(mutex_);
        return peak_;
    }

  private:
    int pid_;
    std::mutex mutex_;
    proc_status peak_;
    std::jthread thread_;
};

// The version the server announces in the INFO line it greets every client with; "unknown" when
// it cannot be had.
std::string s_server_version(const std::string& url) {
    std::string hostport = url.substr(0, url.find(','));
    if (const size_t scheme = hostport.find("://"); scheme != std::string::npos) {
        hostport.erase(0, scheme + 3);
    }
    if (const size_t at = hostport.rfind('@'); at != std::string::npos) {
        hostport.erase(0, at + 1);
    }
    hostport = hostport.substr(0, hostport.find('/'));
    const size_t colon = hostport.rfind(':');
    const std::string host = hostport.substr(0, colon);
    const std::string port = colon == std::string::npos ? "4222" : hostport.substr(colon + 1);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) {
        return "unknown";
    }
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
    qv::unique_fd fd(socket(found->ai_family, found->ai_socktype, found->ai_protocol));
    const timeval timeout{2, 0};
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0 ||
        connect(fd.get(), found->ai_addr, found->ai_addrlen) != 0) {
        return "unknown";
    }
    std::string greeting;
    char buffer[4096];
    while (greeting.find('\n') == std::string::npos && greeting.size() < 65536) {
        const ssize_t n = read(fd.get(), buffer, sizeof(buffer));
        if (n <= 0) {
            break;
        }
        greeting.append(buffer, static_cast<size_t>(n));
    }
    if (greeting.rfind("INFO ", 0) != 0) {
        return "unknown";
    }
    const size_t end = greeting.find('\n');
    qv::json_ptr info = qv_json_parse_object(
        greeting.substr(5, end == std::string::npos ? std::string::npos : end - 5));
    const std::string version = qv_json_get_optional_string(info.get(), "version");
    return version.empty() ? "unknown" : version;
}

// The daemon beside this program, else the one of this build.
std::string s_default_daemon() {
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        const auto beside = self.parent_path() / "qv-av-control";
        if (std::filesystem::exists(beside, ec)) {
            return beside.string();
        }
    }
    return QV_DAEMON_BINARY;
}

std::string s_utc_now() {
    const time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

// A connection through the shared messaging library, as clients have one: it stages payloads and
// sets up buckets.
class library_client {
  public:
    explicit library_client(const std::string& url) : cfg_(qv_nats_config_new()) {
        cfg_->server_url = url;
        connected_ = qv_nats_init(cfg_.get()) == 0;
    }
    ~library_client() { qv_nats_deinit(cfg_.get()); }
    library_client(const library_client&) = delete;
    library_client& operator=(const library_client&) = delete;
    bool connected() const { return connected_; }
    qv_nats_config* get() const { return cfg_.get(); }

  private:
    std::unique_ptr<qv_nats_config> cfg_;
    bool connected_ = false;
};

// ---- The services under load ----

struct service_result {
    std::string name;
    std::string subject;
    load_result load;
    load_result bare;  // the bare responder's run just before this one
    long daemon_hwm_kb = 0;
    double daemon_cpu_us = -1;  // the daemon's CPU time per request
};

class load_session {
  public:
    load_session(const options& opt, std::string url, qvtest::DaemonProcess& daemon)
        : opt_(opt), url_(std::move(url)), daemon_(daemon), renew_(url_) {}

    using runner = std::optional<load_result> (load_session::*)();
    struct service_case {
        const char* name;
        const char* subject;
        const char* what;
        runner run;
    };
    static const std::vector<service_case>& cases();

    std::optional<load_result> bare() { return plain(kBareSubject, s_constant(kPing), s_ok); }
    std::optional<load_result> ping() { return plain("qv-av-control", s_constant(kPing), s_ok); }
    std::optional<load_result> worker_ping() {
        return plain("qv-av-worker-control", s_constant(kPing), s_ok);
    }
    std::optional<load_result> ping_service() {
        return plain("qv-av-control.ping", s_constant(kPing), s_ok);
    }
    std::optional<load_result> log() { return plain("qv-av-log", s_log_line, s_ok); }
    std::optional<load_result> registration() {
        const int requesters = opt_.requesters;
        return plain(
            "qv-av-worker-control",
            [requesters](int r, int i) {
                return s_registration(s_fleet_worker((r + requesters * i) % kFleet));
            },
            s_ok);
    }
    std::optional<load_result> event_1() { return events(1); }
    std::optional<load_result> event_10() { return events(10); }
    std::optional<load_result> vsa_config() {
        warm_realms(s_vsa);
        return plain("qv-av-control", s_vsa, s_vsa_ok);
    }
    std::optional<load_result> init() {
        if (!wait_for("the registered worker",
                      [this] { return s_init_ok(ask("qv-av-control", s_init(0, 0))); })) {
            return std::nullopt;
        }
        warm_realms(s_init);
        return plain("qv-av-control", s_init, s_init_ok);
    }
    std::optional<load_result> staged_1m() { return staged(1); }
    std::optional<load_result> staged_8m() { return staged(8); }

    // Workers and handlers the chosen services need: set up now, so that the daemon has
    // projected them by the time their turn comes.
    bool prepare(const std::set<std::string>& chosen) {
        bare_ = std::make_unique<qvbench::bare_responder>(url_, kBareSubject);
        if (chosen.contains("init") &&
            !renew_.add("qv-av-worker-control", s_registration(kInitWorker))) {
            fprintf(stderr, "the worker registration for the init was refused\n");
            return false;
        }
        for (int handlers : {1, 10}) {
            if (!chosen.contains("event-" + std::to_string(handlers))) {
                continue;
            }
            auto& set = handler_sets_[handlers == 1 ? 0 : 1];
            for (int k = 0; k < handlers; ++k) {
                set.push_back(std::make_unique<qvbench::bare_responder>(
                    url_, s_handler_subject(handlers, k)));
                if (!set.back()->ok() ||
                    !renew_.add("qv-av-events-dispatch", s_subscription(handlers, k))) {
                    fprintf(stderr, "the event handler %s could not subscribe\n",
                            s_handler_subject(handlers, k).c_str());
                    return false;
                }
            }
        }
        return bare_->ok();
    }

  private:
    using body_fn = std::function<std::string(int, int)>;
    using ok_fn = std::function<bool(const std::string&)>;

    std::string ask(const char* subject, const std::string& body) {
        if (!probe_) {
            probe_ = qvbench::connect_asap(url_);
        }
        std::string reply;
        qvbench::request_once(probe_.get(), subject, body, [&reply](const std::string& text) {
            reply = text;
            return true;
        });
        return reply;
    }

    std::chrono::milliseconds duration() const { return std::chrono::seconds(opt_.seconds); }

    // A warm-up, then the measured run.
    std::optional<load_result> plain(const char* subject, const body_fn& body, const ok_fn& ok) {
        qvbench::run_load_for(url_, subject, opt_.requesters, kWarmUp, body, ok);
        return qvbench::run_load_for(url_, subject, opt_.requesters, duration(), body, ok);
    }

    // Polls `ready` every 250 ms for up to 30 s (the default projection periods are 5 and 10 s).
    bool wait_for(const char* what, const std::function<bool()>& ready) {
        const auto deadline = qvbench::clock_type::now() + 30s;
        while (qvbench::clock_type::now() < deadline) {
            if (ready()) {
                return true;
            }
            if (!daemon_.running()) {
                break;
            }
            std::this_thread::sleep_for(250ms);
        }
        fprintf(stderr, "the daemon did not take up %s in 30 s\n", what);
        return false;
    }

    // Builds the configuration of every realm and SID the requesters ask for, one after the
    // other, so that the measured run reads them from the bucket.
    void warm_realms(const body_fn& body) {
        for (int r = 0; r < 4; ++r) {
            for (int i = 0; i < 8; ++i) {
                ask("qv-av-control", body(r, i));
            }
        }
    }

    std::optional<load_result> events(int handlers) {
        auto& set = handler_sets_[handlers == 1 ? 0 : 1];
        const auto all_reached = [&set] {
            return std::all_of(set.begin(), set.end(),
                               [](const auto& h) { return h->received() > 0; });
        };
        if (!wait_for("the event subscriptions", [&] {
                ask("qv-av-events-dispatch", s_event(handlers, 0));
                return all_reached();
            })) {
            return std::nullopt;
        }
        const body_fn body = [handlers](int, int i) { return s_event(handlers, i); };
        qvbench::run_load_for(url_, "qv-av-events-dispatch", opt_.requesters, kWarmUp, body, s_ok);
        for (const auto& h : set) {
            h->reset_count();
        }
        load_result result = qvbench::run_load_for(url_, "qv-av-events-dispatch", opt_.requesters,
                                                   duration(), body, s_ok);
        // An event answered with success must have reached every handler of its scope.
        const long answered = result.requests - result.failures;
        long undelivered = 0;
        for (const auto& h : set) {
            undelivered += std::max(0L, answered - h->received());
        }
        if (undelivered > 0) {
            printf("  event-%d: %ld deliveries missing for events answered with success\n",
                   handlers, undelivered);
            result.failures += static_cast<int>(std::min<long>(undelivered, INT_MAX));
        }
        return result;
    }

    // A client's scan request with a payload: the bytes are staged in the scan-data bucket under
    // a fresh key, the request names the key, and the chunks are deleted once the reply is in.
    // The daemon fetches the whole payload before its handler runs; the ping command is the
    // handler, so what is measured is the transport of the payload.
    std::optional<load_result> staged(size_t mib) {
        const size_t size = mib << 20;
        std::vector<unsigned char> payload(size);
        for (size_t i = 0; i < size; ++i) {
            payload[i] = static_cast<unsigned char>(i * 2654435761u >> 24);
        }
        std::vector<std::unique_ptr<library_client>> clients;
        for (int r = 0; r < opt_.requesters; ++r) {
            clients.push_back(std::make_unique<library_client>(url_));
            if (!clients.back()->connected()) {
                fprintf(stderr, "cannot connect a staging client to %s\n", url_.c_str());
                return std::nullopt;
            }
        }
        const auto one = [&](int r, int) {
            qv_nats_config* cfg = clients[static_cast<size_t>(r)]->get();
            std::string key;
            std::string err;
            if (qv_nats_stage_scan_data(cfg, payload.data(), payload.size(), 10000, &key, &err) !=
                0) {
                return false;
            }
            qv_message_t request;
            request.json_txt = kPing;
            request.staged_data_key = key;
            qv_message_t reply;
            qv_const_request_reply_t rr{&request, &reply};
            qv::json_ptr answer =
                qv_nats_send_recv_json_data(cfg, "qv-av-control", &rr, 10000, 0, 0, &err);
            qv_nats_unstage_scan_data(cfg, key.c_str());
            return s_return_code(answer.get()) == 0;
        };
        const auto run = [&](std::chrono::milliseconds d) {
            const auto deadline = qvbench::clock_type::now() + d;
            return qvbench::measure(
                opt_.requesters,
                [deadline](int, qvbench::clock_type::time_point now) { return now < deadline; },
                one);
        };
        run(kWarmUp);
        return run(duration());
    }

    const options& opt_;
    std::string url_;
    qvtest::DaemonProcess& daemon_;
    renewer renew_;
    qv::nats_connection_ptr probe_;
    std::unique_ptr<qvbench::bare_responder> bare_;
    std::vector<std::unique_ptr<qvbench::bare_responder>> handler_sets_[2];
};

const std::vector<load_session::service_case>& load_session::cases() {
    static const std::vector<service_case> table = {
        {"bare", kBareSubject, "bare libnats responder (the baseline)", &load_session::bare},
        {"ping", "qv-av-control", "ping command on the client-side service", &load_session::ping},
        {"worker-ping", "qv-av-worker-control", "ping command on the worker-control service",
         &load_session::worker_ping},
        {"ping-service", "qv-av-control.ping", "the ping service (one thread)",
         &load_session::ping_service},
        {"log", "qv-av-log", "scan log lines", &load_session::log},
        {"registration", "qv-av-worker-control", "worker registrations of a fleet of 1000",
         &load_session::registration},
        {"event-1", "qv-av-events-dispatch", "events to 1 handler", &load_session::event_1},
        {"event-10", "qv-av-events-dispatch", "events to 10 handlers", &load_session::event_10},
        {"vsa-config", "qv-av-control", "VSA configurations from the bucket",
         &load_session::vsa_config},
        {"init", "qv-av-control", "consolidated inits with a registered worker",
         &load_session::init},
        {"staged-1m", "qv-av-control", "requests with a staged 1 MiB payload",
         &load_session::staged_1m},
        {"staged-8m", "qv-av-control", "requests with a staged 8 MiB payload",
         &load_session::staged_8m},
    };
    return table;
}

// ---- Command line, daemon and report ----

void s_usage(FILE* out) {
    fprintf(out,
            "Usage: qv-av-load [options]\n"
            "Drives the services of a real qv-av-control with concurrent requesters and compares\n"
            "them with a bare libnats responder on the same nats-server.\n\n"
            "  --url URL          use this nats-server (buckets are created when missing);\n"
            "                     default: start one with JetStream on a free port\n"
            "  --daemon PATH      the daemon binary (default: qv-av-control beside this program)\n"
            "  --requesters N     concurrent requesters per service (default 8)\n"
            "  --seconds D        measured seconds per service (default 5)\n"
            "  --set KEY=VALUE    a configuration key of the daemon (repeatable), e.g.\n"
            "                     --set CLIENT-SIDE-WORKER-THREADS=4 --set TRACELEVEL=6\n"
            "  --config FILE      run the daemon with this ini instead of the written one\n"
            "                     (the NATS URL and --set keys reach it through QV_<KEY>)\n"
            "  --only A[,B...]    only these services (the bare responder always runs)\n"
            "  --json FILE        write the figures as JSON (for bench/plot.sh)\n"
            "  --help             this text\n"
            "The exit status is 1 when a request failed or the daemon did not end cleanly.\n\n"
            "Services:\n");
    for (const auto& c : load_session::cases()) {
        fprintf(out, "  %-14s %-22s %s\n", c.name, c.subject, c.what);
    }
}

bool s_positive(const char* text, int* out) {
    char* end = nullptr;
    const long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 1 || v > 10000) {
        return false;
    }
    *out = static_cast<int>(v);
    return true;
}

// 0 to run, 1 for a usage error, 2 after --help.
int s_parse(int argc, char** argv, options* opt) {
    static const struct option long_options[] = {
        {"url", required_argument, nullptr, 'u'},
        {"daemon", required_argument, nullptr, 'd'},
        {"requesters", required_argument, nullptr, 'n'},
        {"seconds", required_argument, nullptr, 's'},
        {"set", required_argument, nullptr, 'S'},
        {"config", required_argument, nullptr, 'c'},
        {"only", required_argument, nullptr, 'o'},
        {"json", required_argument, nullptr, 'j'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "", long_options, nullptr)) != -1) {
        switch (c) {
            case 'u':
                opt->url = optarg;
                break;
            case 'd':
                opt->daemon = optarg;
                break;
            case 'n':
                if (!s_positive(optarg, &opt->requesters)) {
                    fprintf(stderr, "--requesters needs a number from 1 to 10000\n");
                    return 1;
                }
                break;
            case 's':
                if (!s_positive(optarg, &opt->seconds)) {
                    fprintf(stderr, "--seconds needs a number from 1 to 10000\n");
                    return 1;
                }
                break;
            case 'S': {
                const std::string setting = optarg;
                const size_t eq = setting.find('=');
                if (eq == 0 || eq == std::string::npos) {
                    fprintf(stderr, "--set needs KEY=VALUE, not \"%s\"\n", optarg);
                    return 1;
                }
                opt->sets.emplace_back(setting.substr(0, eq), setting.substr(eq + 1));
                break;
            }
            case 'c':
                opt->config = optarg;
                break;
            case 'o': {
                std::stringstream names(optarg);
                for (std::string name; std::getline(names, name, ',');) {
                    const auto& all = load_session::cases();
                    if (std::none_of(all.begin(), all.end(),
                                     [&name](const auto& k) { return name == k.name; })) {
                        fprintf(stderr, "unknown service \"%s\" (see --help)\n", name.c_str());
                        return 1;
                    }
                    opt->only.insert(name);
                }
                break;
            }
            case 'j':
                opt->json = optarg;
                break;
            case 'h':
                s_usage(stdout);
                return 2;
            default:
                s_usage(stderr);
                return 1;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "unexpected argument \"%s\"\n", argv[optind]);
        return 1;
    }
    return 0;
}

// The configuration of a daemon under load: the test installation's settings with tracing at
// error level (tracing is not what is measured), every log kind written under the tree, and the
// caller's keys on top.
bool s_start_daemon(const options& opt, const std::string& url, qvtest::DaemonProcess& d) {
    d.binary = opt.daemon.empty() ? s_default_daemon() : opt.daemon;
    qvtest::write_file(d.basedir() + "/config/vsa/scan.default.default", qvbench::scan_file());
    d.use_nats(url);
    d.control_keys["TRACELEVEL"] = "2";
    for (const char* kind : {"SCAN", "BLOCK", "STATUS", "UPDATE", "ERROR", "EPO"}) {
        d.control_keys[std::string(kind) + "_LOG_BASEDIR"] = d.basedir() + "/logs/" + kind;
    }
    if (!opt.config.empty()) {
        qvtest::DaemonProcess::Keys env = {{"QV_NATS_URL", url}};
        for (const auto& [key, value] : opt.sets) {
            env["QV_" + key] = value;
        }
        return d.start({"--console-mode", "--basedir", d.basedir(), "--config-file", opt.config},
                       env);
    }
    for (const auto& [key, value] : opt.sets) {
        auto& section = d.global_keys.contains(key) ? d.global_keys : d.control_keys;
        section[key] = value;
    }
    d.write_config();
    return d.start();
}

// The last lines of the daemon's trace and output, for a daemon that failed.
void s_print_tail(const qvtest::DaemonProcess& d) {
    const std::string logs = d.logs();
    size_t at = logs.size();
    for (int lines = 0; lines < 20 && at > 0; ++lines) {
        at = logs.rfind('\n', at - 1);
        if (at == std::string::npos) {
            at = 0;
            break;
        }
    }
    fprintf(stderr, "--- daemon log (end) ---\n%s\n", logs.substr(at).c_str());
}

json_object* s_number(double value, const char* format) {
    char text[64];
    snprintf(text, sizeof(text), format, value);
    return json_object_new_double_s(value, text);
}

bool s_write_json(const std::string& path, const options& opt, const std::string& url,
                  const std::string& version, const std::string& daemon,
                  const std::vector<service_result>& results, const proc_status& peak) {
    qv::json_ptr root(json_object_new_object());
    json_object_object_add(root.get(), "date", json_object_new_string(s_utc_now().c_str()));
    json_object_object_add(root.get(), "server_version", json_object_new_string(version.c_str()));
    json_object_object_add(root.get(), "nats_url", json_object_new_string(url.c_str()));
    json_object_object_add(root.get(), "daemon", json_object_new_string(daemon.c_str()));
    json_object_object_add(
        root.get(), "cores",
        json_object_new_int(static_cast<int>(std::thread::hardware_concurrency())));
    json_object_object_add(root.get(), "requesters", json_object_new_int(opt.requesters));
    json_object_object_add(root.get(), "seconds", json_object_new_int(opt.seconds));
    json_object_object_add(root.get(), "peak_rss_kb", json_object_new_int64(peak.hwm_kb));
    json_object_object_add(root.get(), "rss_kb", json_object_new_int64(peak.rss_kb));
    json_object_object_add(root.get(), "threads", json_object_new_int64(peak.threads));
    json_object* services = json_object_new_array();
    json_object_object_add(root.get(), "services", services);
    for (const service_result& s : results) {
        json_object* row = json_object_new_object();
        json_object_object_add(row, "name", json_object_new_string(s.name.c_str()));
        json_object_object_add(row, "subject", json_object_new_string(s.subject.c_str()));
        json_object_object_add(row, "requesters", json_object_new_int(opt.requesters));
        json_object_object_add(row, "requests", json_object_new_int64(s.load.requests));
        json_object_object_add(row, "per_second", s_number(s.load.per_second, "%.1f"));
        json_object_object_add(row, "p50_ms", s_number(s.load.p50_ms, "%.3f"));
        json_object_object_add(row, "p99_ms", s_number(s.load.p99_ms, "%.3f"));
        json_object_object_add(row, "failures", json_object_new_int(s.load.failures));
        json_object_object_add(row, "bare_per_second", s_number(s.bare.per_second, "%.1f"));
        json_object_object_add(row, "bare_p99_ms", s_number(s.bare.p99_ms, "%.3f"));
        json_object_object_add(
            row, "ratio",
            s_number(s.bare.per_second > 0 ? s.load.per_second / s.bare.per_second : 0, "%.4f"));
        json_object_object_add(
            row, "p99_ratio",
            s_number(s.bare.p99_ms > 0 ? s.load.p99_ms / s.bare.p99_ms : 0, "%.3f"));
        json_object_object_add(row, "daemon_peak_rss_kb", json_object_new_int64(s.daemon_hwm_kb));
        if (s.daemon_cpu_us >= 0) {
            json_object_object_add(row, "daemon_cpu_us", s_number(s.daemon_cpu_us, "%.1f"));
        }
        json_object_array_add(services, row);
    }
    std::ofstream out(path);
    out << json_object_to_json_string_ext(root.get(),
                                          JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE)
        << "\n";
    return static_cast<bool>(out);
}

int s_run(const options& opt) {
    std::optional<qvtest::NatsServer> server;
    std::string url = opt.url;
    if (url.empty()) {
        server.emplace();
        if (!server->start()) {
            fprintf(stderr, "cannot start nats-server\n");
            return 1;
        }
        url = server->url();
    }
    // The buckets a broker would have made, unless they are there.
    {
        const library_client setup(url);
        std::string report;
        if (!setup.connected() ||
            qv_kv_setup_buckets(setup.get(), qv_kv_bucket_ages{}, &report) != 0) {
            fprintf(stderr, "cannot set up the buckets on %s\n%s", url.c_str(), report.c_str());
            return 1;
        }
    }
    const std::string version = s_server_version(url);

    qvtest::DaemonProcess daemon;
    if (!s_start_daemon(opt, url, daemon)) {
        fprintf(stderr, "cannot start %s\n", daemon.binary.c_str());
        return 1;
    }
    {
        auto probe = qvbench::connect_asap(url);
        const bool up = qvtest::wait_until(
            [&] {
                return !daemon.running() ||
                       qvbench::request_once(probe.get(), "qv-av-control.ping", kPing, s_ok);
            },
            60s);
        if (!up || !daemon.running()) {
            fprintf(stderr, "the daemon did not start serving\n");
            s_print_tail(daemon);
            return 1;
        }
    }
    proc_sampler sampler(daemon.pid());

    std::set<std::string> chosen = opt.only;
    if (chosen.empty()) {
        for (const auto& c : load_session::cases()) {
            chosen.insert(c.name);
        }
    }
    chosen.insert("bare");
    load_session session(opt, url, daemon);
    if (!session.prepare(chosen)) {
        daemon.stop();
        return 1;
    }

    printf("qv-av-load: %d requesters, %d s per service, nats-server %s at %s, %u cores\n",
           opt.requesters, opt.seconds, version.c_str(), url.c_str(),
           std::thread::hardware_concurrency());
    printf("daemon %s (pid %d)\n", daemon.binary.c_str(), daemon.pid());
    qvbench::print_header(true);
    fflush(stdout);
    std::vector<service_result> results;
    bool daemon_lost = false;
    for (const auto& c : load_session::cases()) {
        if (!chosen.contains(c.name)) {
            continue;
        }
        // Each service is measured right after a run of the bare responder and compared with
        // that run: on a shared machine the baseline drifts over a whole table.
        std::optional<load_result> adjacent;
        if (c.run != &load_session::bare) {
            adjacent = session.bare();
        }
        const double cpu_before = s_cpu_seconds(daemon.pid());
        const auto wall_before = std::chrono::steady_clock::now();
        const std::optional<load_result> r = (session.*c.run)();
        const double wall =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_before).count();
        const double cpu = s_cpu_seconds(daemon.pid()) - cpu_before;
        sampler.sample();
        if (!daemon.running()) {
            printf("%-28s the daemon ended during this run\n", c.name);
            daemon_lost = true;
            break;
        }
        if (!r) {
            printf("%-28s not measured (see above)\n", c.name);
            continue;
        }
        const load_result bare = adjacent.value_or(*r);
        // The daemon's CPU time over the run (warm-up included) per request answered at the
        // run's rate: what one request costs it. The bare responder is not the daemon.
        const double cpu_us = c.run == &load_session::bare || r->per_second <= 0 || wall <= 0
                                  ? -1
                                  : cpu / wall / r->per_second * 1e6;
        results.push_back({c.name, c.subject, *r, bare, sampler.peak().hwm_kb, cpu_us});
        qvbench::print_row(c.name, *r, bare, cpu_us);
        fflush(stdout);
    }

    sampler.sample();
    const proc_status peak = sampler.peak();
    printf("daemon: peak resident %ld kB (VmHWM), resident now %ld kB, threads %ld\n", peak.hwm_kb,
           peak.rss_kb, peak.threads);
    // Figures with failures in them are not to be quoted: the status says so to scripts.
    int status = std::any_of(results.begin(), results.end(),
                             [](const service_result& r) { return r.load.failures > 0; })
                     ? 1
                     : 0;
    if (daemon_lost) {
        status = 1;
        s_print_tail(daemon);
    } else if (const int exit_status = daemon.stop(); exit_status != 0) {
        printf("daemon exit status after SIGTERM: %d\n", exit_status);
        status = 1;
    }
    if (!opt.json.empty() && !results.empty()) {
        if (!s_write_json(opt.json, opt, url, version, daemon.binary, results, peak)) {
            fprintf(stderr, "cannot write %s\n", opt.json.c_str());
            status = 1;
        }
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    options opt;
    if (const int rc = s_parse(argc, argv, &opt); rc != 0) {
        return rc == 2 ? 0 : 1;
    }
    qv__progname = "qv-av-load";
    log_set_level(QVLOG_ERROR);
    try {
        return s_run(opt);
    } catch (const std::exception& e) {
        fprintf(stderr, "qv-av-load: %s\n", e.what());
        return 1;
    }
}
