#include "qv-av-control-epolog.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "qv_handles.h"
#include "qv_json.h"
#include "qvctrl_worker_request_handlers.h"
#include "qvhlp_replies.h"

namespace {

// The file to collect. Kept: the collector takes basedir_epolog as the log file itself, as
// configurations that name the file there expect, although the log service appends to
// "<basedir_epolog>/[<realm>/]epo.log". So that the collector finds what the log service writes, a
// directory there means the "epo.log" inside it, the one filled when logs are not split by realm
// (realm logs are not collected).
std::string s_epolog_file(const std::string& configured) {
    struct stat st {};
    if (stat(configured.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        return configured + "/epo.log";
    }
    return configured;
}

// The whole file from its current offset; false with errno set.
bool s_read_all(int fd, std::string* out) {
    char buffer[8192];
    while (true) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            return true;
        }
        out->append(buffer, static_cast<size_t>(n));
    }
}

// Opens the log for reading and emptying and reads it whole. 0, or the system error.
int s_open_and_read(const std::string& path, qv::unique_fd* fd, std::string* logs) {
    fd->reset(open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct stat st {};
    if (!*fd || fstat(fd->get(), &st) != 0) {
        return errno;
    }
    if (!S_ISREG(st.st_mode)) {
        return EINVAL;  // a device or pipe has no end to read, and nothing to empty
    }
    return s_read_all(fd->get(), logs) ? 0 : errno;
}

std::string s_error_reply(const std::string& text) {
    log_error("%s", text.c_str());
    qv_message_t reply;
    qv_reply_set_ERROR(&reply, SERVICE_ERROR, qv_json_escape(text).c_str());
    return reply.json_txt;
}

// {"ReturnCode": 0, "Log": "<logs>"}, built by json-c so that the lines are escaped; empty when
// it cannot be built.
std::string s_log_reply(const std::string& logs) {
    qv::json_ptr reply(json_object_new_object());
    if (!reply) {
        return "";
    }
    json_object_object_add(reply.get(), "ReturnCode", json_object_new_int(0));
    json_object_object_add(reply.get(), "Log",
                           json_object_new_string_len(logs.data(), static_cast<int>(logs.size())));
    return qv_json_to_string(reply.get());
}

// Reads and empties the EPO log; the reply text.
//
// Decision: the lines read are returned to the requester. The file is emptied, so a reply
// that only carried the status would drop every line collected.
std::string s_handle_get_log_request(quorvale_control_config_t* config) {
    log_trace("Entering");
    std::string result;
    {
        std::lock_guard<std::mutex> epolog_lock(config->epolog_mutex);
        const std::string path = config->log->basedir_epolog.empty()
                                     ? std::string()
                                     : s_epolog_file(config->log->basedir_epolog);
        struct stat st {};
        qv::unique_fd fd;
        std::string logs;
        int error = 0;
        if (path.empty() || stat(path.c_str(), &st) != 0) {
            qv_message_t status;
            qv_reply_set_return_code(&status, SERVICE_NO_DATA);
            result = status.json_txt;
        } else if ((error = s_open_and_read(path, &fd, &logs)) != 0) {
            result = s_error_reply("Failed to read " + path + " into buffer: " + strerror(error));
        } else {
            if (!logs.empty()) {
                log_trace("%s is %d bytes", path.c_str(), static_cast<int>(logs.size()));
                log_trace("Logs to be sent: %s", logs.c_str());
            }
            result = s_log_reply(logs);
            // Emptied only once the reply holds the lines; a log that cannot be emptied is not
            // handed over either, or its lines would come twice.
            if (!result.empty() && ftruncate(fd.get(), 0) != 0) {
                result = s_error_reply("Failed to empty " + path + ": " + strerror(errno));
            }
        }
    }
    log_trace("Exiting");
    return result;
}

int s_handle_request(quorvale_control_config_t* config, qv_const_request_reply_t* rr) {
    qv::json_ptr request = qvctrl_decode_request(rr->request->json_txt);
    if (!request) {
        return -1;
    }
    const int command = qv_json_get_command(request.get(), 0);
    log_debug("CommandCode: %d", command);
    if (command != EPOLOG_GET_LOG) {
        log_error("Ignoring invalid request: %d", command);
        return -1;
    }
    rr->reply->json_txt = s_handle_get_log_request(config);
    if (rr->reply->json_txt.empty()) {
        log_error("Failed to handle Client Service Request");
    }
    return 0;
}

}  // namespace

int qv_av_control_epolog_request_handler(void* context, qv_const_request_reply_t* rr) {
    log_trace("Entering");
    auto* config = static_cast<quorvale_control_config_t*>(context);
    int rc = -1;
    if (rr == nullptr || rr->reply == nullptr) {
        log_error("Invalid parameters");
        log_trace("Exiting, rc=%d", rc);
        return rc;
    }
    if (config == nullptr || !config->log || rr->request == nullptr) {
        log_error("Invalid parameters");
    } else {
        try {
            rc = s_handle_request(config, rr);
        } catch (const std::exception& e) {
            log_error("Failed to handle EPO log request: %s", e.what());
            rr->reply->json_txt.clear();
            rc = -1;
        }
    }
    if (rr->reply->json_txt.empty()) {
        log_warn("Creating generic error reply");
        qv_reply_set_return_code(rr->reply, rc);
    }
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

int qvctrl_start_eposend(quorvale_control_config_t* /*config*/) {
    return 0;
}

int qvctrl_check_eposend(int /*status*/) {
    return 0;
}
