#include "qv_test_util.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qvtest {

TempDir::TempDir() {
    char tmpl[] = "/tmp/qvtest-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = tmpl;
}

TempDir::~TempDir() {
    remove_tree(path_);
}

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto until = std::chrono::steady_clock::now() + timeout;
    while (true) {
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= until) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

bool file_exists(const std::string& path) {
    return std::filesystem::exists(path);
}

void make_dirs(const std::string& path) {
    std::filesystem::create_directories(path);
}

void remove_tree(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof(addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        close(fd);
        throw std::runtime_error("no free port");
    }
    close(fd);
    return ntohs(addr.sin_port);
}

bool port_open(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    return ok;
}

std::string call_handler(qv_service_handler_t handler, void* context, const std::string& body,
                         int* rc) {
    qv_request_reply_t rr;
    rr.request.json_txt = body;
    qv_const_request_reply_t crr{&rr.request, &rr.reply};
    const int status = handler(context, &crr);
    if (rc != nullptr) {
        *rc = status;
    }
    return rr.reply.json_txt;
}

}  // namespace qvtest
