#include "qv-av-control-epolog.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

#include "log.h"
#include "qv_handles.h"
#include "qv_json.h"
#include "qvhlp_replies.h"

namespace {

// Reads and empties the EPO log. The outcome (301 without a log, -1000 when it cannot be read,
// OK otherwise) stays in a local reply record: the requester gets no message, so the result is
// always empty.
std::string s_handle_get_log_request(quorvale_control_config_t* config) {
    log_trace("Entering");
    const std::string& path = config->log->basedir_epolog;
    qv_message_t status;
    {
        std::lock_guard<std::mutex> epolog_lock(config->epolog_mutex);
        struct stat st {};
        if (path.empty() || stat(path.c_str(), &st) != 0) {
            qv_reply_set_return_code(&status, SERVICE_NO_DATA);
        } else {
            std::string logs;
            bool read_ok = true;
            if (st.st_size > 0) {
                logs.resize(static_cast<size_t>(st.st_size));
                qv::file_ptr file(fopen(path.c_str(), "r"));
                if (!file || fread(logs.data(), 1, logs.size(), file.get()) != logs.size()) {
                    char text[1024];
                    snprintf(text, sizeof(text), "Failed to read %s into buffer: %s", path.c_str(),
                             strerror(errno != 0 ? errno : EIO));
                    log_error("%s", text);
                    qv_reply_set_ERROR(&status, SERVICE_ERROR, text);
                    read_ok = false;
                } else {
                    log_trace("%s is %d bytes", path.c_str(), static_cast<int>(st.st_size));
                    log_trace("Logs to be sent: %s", logs.c_str());
                }
            }
            if (read_ok) {
                qv_reply_set_OK(&status);
                qv::unique_fd truncate(open(path.c_str(), O_WRONLY | O_TRUNC));
            }
        }
    }
    log_trace("Exiting, status %s", status.json_txt.c_str());
    return "";
}

int s_handle_request(quorvale_control_config_t* config, qv_const_request_reply_t* rr) {
    const char* parse_error = nullptr;
    qv::json_ptr request = qv_json_parse(rr->request->json_txt, &parse_error);
    if (!request) {
        if (strcmp(parse_error, "Failed to create JSON tokener") == 0) {
            log_error("Failed to create JSON tokener");
        } else {
            log_error("Failed to parse JSON. Errorcode: %s. JSON: \n", parse_error);
        }
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
    if (config == nullptr || !config->log || rr == nullptr || rr->request == nullptr ||
        rr->reply == nullptr) {
        log_error("Invalid parameters");
    } else {
        try {
            rc = s_handle_request(config, rr);
        } catch (const std::exception& e) {
            log_error("Failed to handle EPO log request: %s", e.what());
        }
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
