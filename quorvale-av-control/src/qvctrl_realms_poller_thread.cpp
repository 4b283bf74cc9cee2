#include "qvctrl_realms_poller_thread.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include "log.h"
#include "qv_handles.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvctrl_apigw_transfer.h"
#include "qvctrl_poller_lock.h"
#include "qvctrl_worker_request_handlers.h"
#include "qvctrl_write_broker_auth.h"

namespace {

constexpr const char* kRealmsPath = "/v2-realms?self-hosted=true";
// The URL buffer of the request, terminator included.
constexpr size_t kUrlMax = 1024;
// The receive buffer, terminator included: a reply of this size or more is refused.
constexpr int kReplyBuffer = 262144;

// What the poller needs to know of its owner while it waits or transfers.
bool s_stopping(const poller_thread_params_t* params) {
    return params->targetstatus.load() == STOP;
}

// Replies and realm lists hold the realms' passwords: they reach the trace log (escaped) only
// when it is on, and cost nothing otherwise.
std::string s_for_trace(std::string_view text) {
    if (log_get_level() < QVLOG_TRACE) {
        return {};
    }
    return qv_escape_for_log(text, static_cast<size_t>(kReplyBuffer));
}

size_t s_receive(char* data, size_t size, size_t nmemb, void* userdata) {
    auto* body = static_cast<std::string*>(userdata);
    const size_t chunk = size * nmemb;
    if (body->size() + chunk > static_cast<size_t>(kReplyBuffer - 1)) {
        log_error("Max %d Buffer size exceeded.", kReplyBuffer);
        return 0;  // fails the transfer
    }
    try {
        body->append(data, chunk);
    } catch (const std::exception&) {
        log_error("Failed to allocate %s", "reply buffer");
        return 0;
    }
    log_trace("received %d bytes: %s", static_cast<int>(chunk),
              s_for_trace(std::string_view(data, chunk)).c_str());
    return chunk;
}

// Ends a transfer in progress once the thread is told to stop, so that a slow gateway cannot hold
// up the shutdown for the whole transfer timeout.
int s_progress(void* clientp, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return s_stopping(static_cast<const poller_thread_params_t*>(clientp)) ? 1 : 0;
}

// 0 with the parsed reply in *reply_out; non-zero (logged) on failure.
int s_request_realms_from_apigw(const quorvale_control_config_t* config,
                                poller_thread_params_t* params, qv::json_ptr* reply_out) {
    qv::curl_ptr curl(curl_easy_init());
    if (!curl) {
        log_error("curl init failed");
        return -1;
    }
    char url[kUrlMax];
    const int n = snprintf(url, sizeof(url), "%s%s", config->apigw_url.c_str(), kRealmsPath);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(url)) {
        log_error("realms_poller: request URL too long for %s",
                  qv_escape_for_log(config->apigw_url, kUrlMax).c_str());
        return -1;
    }
    std::string body;
    char error_buffer[CURL_ERROR_SIZE] = "";
    CURLcode rc = qvctrl_apigw_set_transfer_options(curl.get(), url, config, error_buffer);
    const auto set = [&](CURLoption option, auto value) {
        if (rc == CURLE_OK) {
            rc = curl_easy_setopt(curl.get(), option, value);
        }
    };
    set(CURLOPT_WRITEFUNCTION, s_receive);
    set(CURLOPT_WRITEDATA, static_cast<void*>(&body));
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_XFERINFOFUNCTION, s_progress);
    set(CURLOPT_XFERINFODATA, static_cast<void*>(params));
    if (rc != CURLE_OK) {
        log_error("Error setting curl options");
        return -1;
    }

    // Kept: the gateway password goes into the trace log as it is; the trace level is for the
    // people who run this installation and may need to check the credentials in use.
    log_trace("Requesting realms for my organization from %s with user %s and password %s", url,
              config->apigw_user.c_str(), config->apigw_password.c_str());
    rc = curl_easy_perform(curl.get());
    log_trace("curl_easy_perform returned %d", static_cast<int>(rc));
    if (rc != CURLE_OK) {
        log_error("curl request failed (rc=%d): %s", static_cast<int>(rc),
                  error_buffer[0] != '\0' ? error_buffer : curl_easy_strerror(rc));
        return static_cast<int>(rc);
    }
    curl.reset();

    log_trace("reply: %s", s_for_trace(body).c_str());
    qv::json_ptr reply = qvctrl_decode_request(body);
    if (!reply) {
        return -1;
    }
    log_trace("Parsed reply to JSON: %s", s_for_trace(qv_json_to_string(reply.get())).c_str());
    json_object* success = nullptr;
    if (!json_object_object_get_ex(reply.get(), "success", &success) ||
        !json_object_is_type(success, json_type_boolean) || !json_object_get_boolean(success)) {
        log_error("Request failed");
        return -1;
    }
    *reply_out = std::move(reply);
    return 0;
}

// The text of a non-empty string member, or nullopt.
std::optional<std::string> s_string_member(json_object* object, const char* name) {
    json_object* member = nullptr;
    if (!json_object_object_get_ex(object, name, &member) ||
        !json_object_is_type(member, json_type_string) || json_object_get_string_len(member) <= 0) {
        return std::nullopt;
    }
    return std::string(json_object_get_string(member),
                       static_cast<size_t>(json_object_get_string_len(member)));
}

// The realms of the reply's "result" array in order, elements without a realm id or password
// left out; nullopt when there is no array. An empty array gives an empty list.
std::optional<std::vector<qvctrl_realm_t>> s_extract_realms(json_object* array) {
    if (array == nullptr || !json_object_is_type(array, json_type_array)) {
        return std::nullopt;
    }
    std::vector<qvctrl_realm_t> realms;
    const size_t count = json_object_array_length(array);
    for (size_t i = 0; i < count; ++i) {
        json_object* element = json_object_array_get_idx(array, i);
        std::optional<std::string> realm_id = s_string_member(element, "realmId");
        if (!realm_id) {
            log_error("realms_poller: realm at index %zu has no realmId; skipping", i);
            continue;
        }
        std::optional<std::string> password = s_string_member(element, "password");
        if (!password) {
            log_error("realms_poller: realm %s has no password; skipping",
                      qv_escape_for_log(*realm_id).c_str());
            continue;
        }
        realms.push_back({std::move(*realm_id), std::move(*password)});
    }
    return realms;
}

void s_poll_and_write_as_leader(const quorvale_control_config_t* config,
                                const std::string& broker_name, poller_thread_params_t* params) {
    qv::json_ptr reply;
    if (s_request_realms_from_apigw(config, params, &reply) != 0) {
        return;
    }
    json_object* result = nullptr;
    if (!json_object_object_get_ex(reply.get(), "result", &result)) {
        log_error("realms_poller: no \"result\" array in apigw reply");
        return;
    }
    log_trace("realms_poller: got realms array: %s",
              s_for_trace(result != nullptr ? qv_json_to_string(result) : "null").c_str());
    std::optional<std::vector<qvctrl_realm_t>> realms = s_extract_realms(result);
    if (!realms) {
        log_error("realms_poller: failed to extract realms from reply");
        return;
    }
    bool changed = false;
    if (qvctrl_write_broker_auth(config->broker_auth_file.c_str(), broker_name.c_str(),
                                 realms->data(), realms->size(), &changed) != 0) {
        log_error("realms_poller: write_broker_auth failed; will retry next poll");
    } else if (changed) {
        log_debug(
            "realms_poller: leader wrote new realm slice (%zu realms) — watcher pass will SIGHUP "
            "the local broker shortly",
            realms->size());
    } else {
        log_debug(
            "realms_poller: cloud-managed realm slice unchanged (%zu realms); nothing written",
            realms->size());
    }
}

int s_sighup_broker(const std::string& pid_file) {
    if (pid_file.empty()) {
        log_error("realms_poller: broker_pid_file empty; cannot SIGHUP broker");
        return -1;
    }
    qv::file_ptr file(fopen(pid_file.c_str(), "re"));
    if (!file) {
        log_error("realms_poller: cannot open %s: %s", pid_file.c_str(), strerror(errno));
        return -1;
    }
    long pid = 0;
    // 0 would signal our own process group and 1 is init; a value beyond a process id would be
    // cut down to some other process's id.
    if (fscanf(file.get(), "%ld", &pid) != 1 || pid <= 1 || pid > INT_MAX) {
        log_error("realms_poller: malformed pid in %s (got %ld)", pid_file.c_str(), pid);
        return -1;
    }
    if (kill(static_cast<pid_t>(pid), 0) != 0) {
        const int error = errno;
        log_error("realms_poller: broker pid %ld not running (errno=%d %s); stale %s?", pid, error,
                  strerror(error), pid_file.c_str());
        return -1;
    }
    if (kill(static_cast<pid_t>(pid), SIGHUP) != 0) {
        log_error("realms_poller: SIGHUP to pid %ld failed: %s", pid, strerror(errno));
        return -1;
    }
    log_info("realms_poller: SIGHUP sent to broker (pid=%ld) — credstore reload triggered", pid);
    return 0;
}

// What the watcher remembers of the auth file between passes.
struct file_state {
    bool valid = false;
    ino_t ino = 0;
    time_t mtime = 0;
};

// One watcher pass: a change of inode or modification time (whole seconds) since the previous
// pass makes the broker reload. A file seen for the first time is only remembered.
void s_watch_auth_file(const quorvale_control_config_t* config, file_state* previous) {
    struct stat st {};
    if (stat(config->broker_auth_file.c_str(), &st) != 0) {
        if (previous->valid) {
            log_warn("realms_poller: stat(%s) failed mid-loop: %s",
                     config->broker_auth_file.c_str(), strerror(errno));
        }
        return;
    }
    const bool changed =
        !previous->valid || st.st_ino != previous->ino || st.st_mtim.tv_sec != previous->mtime;
    if (previous->valid && changed) {
        log_info(
            "realms_poller: auth file changed on disk (ino %ld→%ld, mtime %ld→%ld) — SIGHUP local "
            "broker",
            static_cast<long>(previous->ino), static_cast<long>(st.st_ino),
            static_cast<long>(previous->mtime), static_cast<long>(st.st_mtim.tv_sec));
        s_sighup_broker(config->broker_pid_file);
    }
    *previous = {true, st.st_ino, st.st_mtim.tv_sec};
}

// One second, in short steps so that a stop is noticed at once.
void s_sleep_one_second(const poller_thread_params_t* params) {
    for (int step = 0; step < 10 && !s_stopping(params); ++step) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

int s_run(poller_thread_params_t* params) {
    params->currentstatus = READY;
    const quorvale_control_config_t* config = params->config;
    const std::string broker_name =
        config->main_nats_config ? config->main_nats_config->broker_name : std::string();
    if (broker_name.empty()) {
        log_error("realms_poller: main_nats_config->broker_name is empty; thread cannot run");
        return -1;
    }
    if (config->broker_auth_file.empty() || config->broker_pid_file.empty()) {
        log_error(
            "realms_poller: BROKER_AUTH_FILE/BROKER_PID_FILE not configured; thread cannot run");
        return -1;
    }
    log_info("realms_poller: writing realms to %s (signal %s)", config->broker_auth_file.c_str(),
             config->broker_pid_file.c_str());

    const std::string lock_path = config->broker_auth_file + ".lock";
    std::unique_ptr<qvctrl_poller_lock> lock = qvctrl_poller_lock_open(lock_path.c_str());
    if (!lock) {
        log_warn(
            "realms_poller: leader lock unavailable — every control will poll independently "
            "(write path remains corruption-safe)");
    }

    file_state previous;
    struct stat st {};
    if (stat(config->broker_auth_file.c_str(), &st) == 0) {
        previous = {true, st.st_ino, st.st_mtim.tv_sec};
    }

    long countdown = 0;
    while (!s_stopping(params)) {
        if (countdown < 1) {
            countdown = static_cast<long>(config->config_poll_interval);
            const bool leader = lock ? qvctrl_poller_lock_try_acquire(lock.get()) == 1 : true;
            if (leader) {
                s_poll_and_write_as_leader(config, broker_name, params);
            }
        }
        s_watch_auth_file(config, &previous);
        s_sleep_one_second(params);
        --countdown;
    }
    qvctrl_poller_lock_close(std::move(lock));
    return 0;
}

}  // namespace

int qvctrl_realms_poller_thread(poller_thread_params_t* params) {
    log_trace("Entering");
    if (params == nullptr || params->config == nullptr) {
        log_error("realms_poller: no thread parameters; thread cannot run");
        return -1;
    }
    int rc = -1;
    try {
        rc = s_run(params);
    } catch (const std::exception& e) {
        log_error("realms_poller: %s", e.what());
        rc = -1;
    }
    params->currentstatus = TERMINATED;
    log_trace("Exiting");
    return rc;
}
