#include "qv_test_util.h"

#include <sodium.h>

#include <gtest/gtest.h>

#include "qv_handles.h"
#include "qv_json.h"
#include "qvctrl_config.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <condition_variable>
#include <algorithm>

#include <arpa/inet.h>
#include <dirent.h>
#include <sys/time.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
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
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
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

std::vector<std::string> list_dir(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            if (e->d_name[0] != '.') {
                names.emplace_back(e->d_name);
            }
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> files_below(const std::string& dir) {
    namespace fs = std::filesystem;
    std::vector<std::string> out;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        if (it->is_regular_file()) {
            out.push_back(it->path().string());
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

bool set_age(const std::string& path, long seconds_ago) {
    struct timeval t[2];
    gettimeofday(&t[0], nullptr);
    t[0].tv_sec -= seconds_ago;
    t[1] = t[0];
    return utimes(path.c_str(), t) == 0;
}

bool is_time_uuid(const std::string& text) {
    if (text.size() != 36 || text[14] != '1') {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        const char c = text[i];
        if (dash ? c != '-' : !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

size_t count_of(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++n;
    }
    return n;
}

std::string read_zip(const std::string& zip, std::string* entry_name) {
    qv::archive_read_ptr archive(archive_read_new());
    archive_read_support_format_zip(archive.get());
    if (archive_read_open_filename(archive.get(), zip.c_str(), 10240) != ARCHIVE_OK) {
        ADD_FAILURE() << "cannot open " << zip;
        return "";
    }
    std::string content;
    int entries = 0;
    struct archive_entry* entry = nullptr;
    while (archive_read_next_header(archive.get(), &entry) == ARCHIVE_OK) {
        ++entries;
        if (entry_name != nullptr) {
            *entry_name = archive_entry_pathname(entry);
        }
        char buffer[8192];
        la_ssize_t n;
        while ((n = archive_read_data(archive.get(), buffer, sizeof(buffer))) > 0) {
            content.append(buffer, static_cast<size_t>(n));
        }
        EXPECT_EQ(n, 0) << zip;
    }
    EXPECT_EQ(entries, 1) << zip;
    return content;
}

std::string quoted(const std::string& text) {
    return std::string("\"").append(qv_json_escape(text)).append("\"");
}

PingTally ping_while(const std::function<void()>& work, const std::function<int()>& ping) {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    std::thread worker([&] {
        work();
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
        cv.notify_all();
    });
    PingTally tally;
    while (true) {
        (ping() == 0 ? tally.answered : tally.failed)++;
        std::unique_lock<std::mutex> lock(mutex);
        if (cv.wait_for(lock, std::chrono::milliseconds(200), [&] { return done; })) {
            break;
        }
    }
    worker.join();
    return tally;
}

int Recorder::handle(void* context, qv_const_request_reply_t* rr) {
    auto* self = static_cast<Recorder*>(context);
    if (self->delay_ms > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(self->delay_ms.load()));
    }
    if (self->reject.fetch_sub(1) > 0) {
        rr->reply->json_txt = "{\"ReturnCode\": -1, \"Error\": \"rejected by test\"}";
        return -1;
    }
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->requests_.push_back(rr->request->json_txt);
    }
    rr->reply->json_txt = "{\"ReturnCode\": " + std::to_string(self->reply_code.load()) + "}";
    return 0;
}

std::vector<std::string> Recorder::received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

std::set<std::string> Recorder::distinct() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return {requests_.begin(), requests_.end()};
}

size_t Recorder::count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_.size();
}

void set_log_dirs(log_config& lc, const std::string& root) {
    for (auto [dir, kind] : {std::pair{&lc.basedir_scanlog, "scan"},
                             {&lc.basedir_blocklog, "block"},
                             {&lc.basedir_epolog, "epo"},
                             {&lc.basedir_updatelog, "update"},
                             {&lc.basedir_statuslog, "status"},
                             {&lc.basedir_errorlog, "error"}}) {
        *dir = root + "/" + kind;
    }
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

std::string base64(const std::string& plain) {
    std::vector<char> encoded(
        sodium_base64_encoded_len(plain.size(), sodium_base64_VARIANT_ORIGINAL));
    sodium_bin2base64(encoded.data(), encoded.size(),
                      reinterpret_cast<const unsigned char*>(plain.data()), plain.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    return encoded.data();
}

namespace {
std::string s_shell_quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) {
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return q + "'";
}
}  // namespace

ToolResult run_tool(const std::string& tool, const std::vector<std::string>& args) {
    TempDir dir;
    std::string cmd = std::string(QV_BIN_DIR) + "/" + tool;
    for (const std::string& a : args) {
        cmd.append(" ").append(s_shell_quoted(a));
    }
    cmd += " >" + dir / "out" + " 2>" + dir / "err" + " </dev/null";
    ToolResult r;
    const int raw = system(cmd.c_str());
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = read_file(dir / "out");
    r.err = read_file(dir / "err");
    return r;
}

}  // namespace qvtest
