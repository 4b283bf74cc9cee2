#include "qv_update_common.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <string_view>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <archive.h>
#include <archive_entry.h>

#include "log.h"
#include "qv_validate.h"
#include "qvhlp_curl_trace.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

// A transfer that cannot connect within this long is given up.
constexpr long kConnectTimeoutMs = 30000;
// Packages are tens of megabytes: an hour lets one through a slow link, and a transfer that
// stalls below kLowSpeedBytes per second for kLowSpeedSeconds is given up long before that.
constexpr long kTotalTimeoutMs = 3600L * 1000L;
constexpr long kLowSpeedBytes = 1024;
constexpr long kLowSpeedSeconds = 120;
constexpr long kMaxRedirects = 10;
// How long an operator's CA bundle stays cached between transfers: one week.
constexpr long kCaCacheSeconds = 604800;
// libarchive's read block.
constexpr size_t kExtractBlock = 10240;

bool s_starts_with_nocase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

int s_hex_value(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::string s_path(std::string_view dir, std::string_view name) {
    std::string path(dir);
    if (path.empty() || path.back() != '/') {
        path += '/';
    }
    path += name;
    return path;
}

std::string s_absolute(const char* path) {
    std::error_code ec;
    const fs::path absolute = fs::absolute(path, ec);
    return ec ? std::string(path) : absolute.lexically_normal().string();
}

// Restores the thread's working directory when it goes (the unpacking and pruning steps work
// relative to the directory they operate on).
class cwd_guard {
  public:
    cwd_guard() : saved_(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
    ~cwd_guard() { restore(); }
    cwd_guard(const cwd_guard&) = delete;
    cwd_guard& operator=(const cwd_guard&) = delete;
    void restore() {
        if (saved_ && fchdir(saved_.get()) != 0) {
            log_error("Failed to change back to the previous working directory: %s",
                      strerror(errno));
        }
    }

  private:
    qv::unique_fd saved_;
};

struct download_sink {
    FILE* file = nullptr;
    long long written = 0;
    bool failed = false;
};

size_t s_write(char* data, size_t size, size_t nmemb, void* userdata) {
    auto* sink = static_cast<download_sink*>(userdata);
    const size_t chunk = size * nmemb;
    if (sink->written + static_cast<long long>(chunk) > QV_UPD_MAX_PACKAGE_SIZE) {
        log_error("Update package larger than %lld bytes", QV_UPD_MAX_PACKAGE_SIZE);
        sink->failed = true;
        return 0;
    }
    const size_t n = fwrite(data, 1, chunk, sink->file);
    sink->written += static_cast<long long>(n);
    if (n != chunk) {
        sink->failed = true;
    }
    return n;
}

int s_progress(void* userdata, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* cancelled = static_cast<const qv_update_cancel_fn*>(userdata);
    return (*cancelled && (*cancelled)()) ? 1 : 0;
}

bool s_set_options(CURL* curl, const char* url, const qv_update_config_t* update_config,
                   const char* http_proxy, download_sink* sink, qv_upd_pkg_info_t* pkg,
                   const qv_update_cancel_fn* cancelled, char* error_buffer) {
    CURLcode rc = CURLE_OK;
    const auto set = [&](CURLoption option, auto value) {
        if (rc == CURLE_OK) {
            rc = curl_easy_setopt(curl, option, value);
        }
    };
    set(CURLOPT_ERRORBUFFER, error_buffer);
    set(CURLOPT_URL, url);
    set(CURLOPT_HTTPGET, 1L);
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, kMaxRedirects);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    set(CURLOPT_WRITEFUNCTION, s_write);
    set(CURLOPT_WRITEDATA, static_cast<void*>(sink));
    set(CURLOPT_HEADERFUNCTION, qv_update_header_callback);
    set(CURLOPT_HEADERDATA, static_cast<void*>(pkg));
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_XFERINFOFUNCTION, s_progress);
    set(CURLOPT_XFERINFODATA, const_cast<void*>(static_cast<const void*>(cancelled)));
    set(CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    set(CURLOPT_TIMEOUT_MS, kTotalTimeoutMs);
    set(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytes);
    set(CURLOPT_LOW_SPEED_TIME, kLowSpeedSeconds);
    set(CURLOPT_VERBOSE, 1L);
    set(CURLOPT_DEBUGFUNCTION, qvhlp_curl_trace);
    if (update_config->no_certificate_check) {
        log_info("Disabling certificate verification");
        set(CURLOPT_SSL_VERIFYPEER, 0L);
        set(CURLOPT_SSL_VERIFYHOST, 0L);
    } else {
        set(CURLOPT_SSL_VERIFYPEER, 1L);
        set(CURLOPT_SSL_VERIFYHOST, 2L);
        if (const char* bundle = qvhlp_curl_ca_bundle(); bundle != nullptr) {
            set(CURLOPT_CAINFO, bundle);
        }
#if LIBCURL_VERSION_NUM >= 0x075700
        set(CURLOPT_CA_CACHE_TIMEOUT, kCaCacheSeconds);
#endif
    }
    if (http_proxy != nullptr && http_proxy[0] != '\0') {
        log_info("Using http proxy: %s",
                 qv_escape_for_log(qvhlp_curl_proxy_for_log(http_proxy), 1024).c_str());
        set(CURLOPT_PROXY, http_proxy);
    }
    if (rc != CURLE_OK) {
        log_error("Error setting curl options");
        return false;
    }
    return true;
}

// The last path segment of the transfer's effective URL: the name the package is stored under.
// Only a plain file name is accepted, so that it cannot climb out of the download directory.
bool s_package_filename(CURL* curl, std::string* filename) {
    char* effective = nullptr;
    if (curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &effective) != CURLE_OK ||
        effective == nullptr) {
        log_error("Effective URL not set");
        return false;
    }
    qv::curl_url_ptr url(curl_url());
    if (!url) {
        log_error("Failed to create curl_url");
        return false;
    }
    if (curl_url_set(url.get(), CURLUPART_URL, effective, 0) != CURLUE_OK) {
        log_error("Failed to set curl url");
        return false;
    }
    char* raw_path = nullptr;
    if (curl_url_get(url.get(), CURLUPART_PATH, &raw_path, 0) != CURLUE_OK || raw_path == nullptr) {
        log_error("Failed to la_extract filename from url");
        return false;
    }
    const qv::curl_string_ptr path(raw_path);
    const std::string_view text(path.get());
    const size_t slash = text.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? text : text.substr(slash + 1);
    if (!qv_valid_name(name, 255)) {
        log_error("Failed to la_extract filename from url");
        qv_log_refused("Package file name", name);
        return false;
    }
    *filename = name;
    return true;
}

void s_remove_file(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        log_warn("Failed to remove %s: %s", path.c_str(), strerror(errno));
    }
}

// Unpacks the archive open on `fd` into the working directory. Entries that would leave it are
// refused, and so is the whole package then. 0 or -1.
int s_extract(int fd) {
    qv::archive_read_ptr reader(archive_read_new());
    qv::archive_write_ptr writer(archive_write_disk_new());
    if (!reader || !writer) {
        log_error("Failed to allocate %s", "archive");
        return -1;
    }
    archive_read_support_filter_all(reader.get());
    archive_read_support_format_all(reader.get());
    archive_write_disk_set_options(
        writer.get(), ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                          ARCHIVE_EXTRACT_SECURE_SYMLINKS | ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS);
    archive_write_disk_set_standard_lookup(writer.get());
    if (archive_read_open_fd(reader.get(), fd, kExtractBlock) != ARCHIVE_OK) {
        log_error("Failed to open archive: %s", archive_error_string(reader.get()));
        return -1;
    }
    while (true) {
        archive_entry* entry = nullptr;
        int r = archive_read_next_header(reader.get(), &entry);
        if (r == ARCHIVE_EOF) {
            break;
        }
        if (r < ARCHIVE_WARN) {
            log_error("Failed to read archive entry: %s", archive_error_string(reader.get()));
            return -1;
        }
        if (r < ARCHIVE_OK) {
            log_warn("%s", archive_error_string(reader.get()));
        }
        r = archive_write_header(writer.get(), entry);
        if (r < ARCHIVE_WARN) {
            log_error(
                "Failed to write archive entry %s: %s",
                qv_escape_for_log(
                    archive_entry_pathname(entry) != nullptr ? archive_entry_pathname(entry) : "",
                    256)
                    .c_str(),
                archive_error_string(writer.get()));
            return -1;
        }
        if (r < ARCHIVE_OK) {
            log_warn("%s", archive_error_string(writer.get()));
        } else if (archive_entry_size(entry) >= 1) {
            const void* block = nullptr;
            size_t size = 0;
            la_int64_t offset = 0;
            while ((r = archive_read_data_block(reader.get(), &block, &size, &offset)) ==
                   ARCHIVE_OK) {
                const la_ssize_t w = archive_write_data_block(writer.get(), block, size, offset);
                if (w < ARCHIVE_WARN) {
                    log_error("Failed to write archive data: %s",
                              archive_error_string(writer.get()));
                    return -1;
                }
                if (w < ARCHIVE_OK) {
                    log_warn("%s", archive_error_string(writer.get()));
                }
            }
            if (r < ARCHIVE_WARN) {
                log_error("Failed to read archive data: %s", archive_error_string(reader.get()));
                return -1;
            }
            if (r < ARCHIVE_OK && r != ARCHIVE_EOF) {
                log_warn("%s", archive_error_string(reader.get()));
            }
        }
        r = archive_write_finish_entry(writer.get());
        if (r < ARCHIVE_WARN) {
            log_error("Failed to finish archive entry: %s", archive_error_string(writer.get()));
            return -1;
        }
        if (r < ARCHIVE_OK) {
            log_warn("%s", archive_error_string(writer.get()));
        }
    }
    if (archive_write_close(writer.get()) != ARCHIVE_OK) {
        log_error("Failed to close extracted files: %s", archive_error_string(writer.get()));
        return -1;
    }
    return 0;
}

// One argument for the shell, quoted so that blanks or shell characters in a path stay in it.
std::string s_shell_quote(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    quoted += '\'';
    return quoted;
}

// Runs the command through the shell as system() does, but without the daemon's descriptors
// (lock files, sockets) and without touching the process's signal handling. The wait status,
// or -1 when the shell could not be started.
int s_run_shell(const std::string& command) {
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        return -1;
    }
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    char shell[] = "/bin/sh";
    char dash_c[] = "-c";
    std::string text = command;
    char* const argv[] = {shell, dash_c, text.data(), nullptr};
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, shell, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        errno = spawned;
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

std::string s_status_text(int status) {
    char text[64];
    if (status == -1) {
        snprintf(text, sizeof(text), "%s", strerror(errno));
    } else if (WIFEXITED(status)) {
        snprintf(text, sizeof(text), "exit status %d", WEXITSTATUS(status));
    } else if (WIFSIGNALED(status)) {
        snprintf(text, sizeof(text), "ended by signal %d", WTERMSIG(status));
    } else {
        snprintf(text, sizeof(text), "status %d", status);
    }
    return text;
}

// Unpacks the package into the (fresh) scratch directory and runs its install script. 0 or -1.
int s_install_package(const std::string& scratch, const std::string& package,
                      const std::string& install_arg, const std::string& version_dir,
                      const char* component_subdir, const std::string& target) {
    // The package is opened before the working directory changes, so that a relative name
    // still finds it.
    qv::unique_fd package_fd(open(package.c_str(), O_RDONLY | O_CLOEXEC));
    if (!package_fd) {
        log_error("Failed to open %s: %s", package.c_str(), strerror(errno));
        return -1;
    }
    std::error_code ec;
    fs::remove_all(scratch, ec);
    if (mkdir(scratch.c_str(), 0750) != 0) {
        log_error("Failed to create directory %s, %s", scratch.c_str(), strerror(errno));
        return -1;
    }
    if (chdir(scratch.c_str()) != 0) {
        log_error("Failed to change directory to %s", scratch.c_str());
        return -1;
    }
    if (s_extract(package_fd.get()) != 0) {
        log_error("Failed to extract update package");
        return -1;
    }
    const std::string script = s_path(scratch, "install.sh");
    if (chmod("install.sh", 0750) != 0) {
        log_error("Failed to change permissions of %s, %s", script.c_str(), strerror(errno));
        return -1;
    }
    std::string version;
    const std::string name = fs::path(package).filename().string();
    if (get_version_from_filename(name.c_str(), &version) != 0) {
        log_error("Failed to get version from filename");
        return -1;
    }
    if (create_version_file(version_dir.c_str(), component_subdir, version.c_str()) != 0) {
        log_error("Failed to create version file");
        return -1;
    }
    const std::string command = s_shell_quote(script) + " " + s_shell_quote(scratch) + " " +
                                s_shell_quote(install_arg) + " " + s_shell_quote(target);
    log_info("Running install script %s", script.c_str());
    const int status = s_run_shell(command);
    log_debug("system() returned rc %d", status);
    if (status != 0) {
        log_error("Failed to run %s: %s", script.c_str(), s_status_text(status).c_str());
        return -1;
    }
    log_info("Install script %s finished", script.c_str());
    return 0;
}

bool s_is_version_dir_name(const char* name) {
    if (strlen(name) != 10) {
        return false;
    }
    for (const char* p = name; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') {
            return false;
        }
    }
    return true;
}

}  // namespace

void pkg_info_init(qv_upd_pkg_info_t* pkg) {
    if (pkg != nullptr) {
        *pkg = qv_upd_pkg_info_t();
    }
}

void pkg_info_free(qv_upd_pkg_info_t* pkg) {
    pkg_info_init(pkg);
}

size_t qv_update_header_callback(char* buffer, size_t size, size_t nitems, void* userdata) {
    const size_t length = size * nitems;
    auto* pkg = static_cast<qv_upd_pkg_info_t*>(userdata);
    if (pkg == nullptr || buffer == nullptr) {
        return length;
    }
    const std::string_view line(buffer, length);
    constexpr std::string_view kMd5 = "X-Content-Md5: ";
    constexpr std::string_view kLength = "Content-Length: ";
    if (s_starts_with_nocase(line, "HTTP/")) {
        // A new response (after a redirect): only the final one's headers describe the package.
        memset(pkg->md5, 0, sizeof(pkg->md5));
        pkg->size = 0;
    } else if (length > 46 && s_starts_with_nocase(line, kMd5)) {
        unsigned char digest[16];
        const char* hex = buffer + kMd5.size();
        for (size_t i = 0; i < sizeof(digest); ++i) {
            const int high = s_hex_value(hex[2 * i]);
            const int low = s_hex_value(hex[2 * i + 1]);
            if (high < 0 || low < 0) {
                // Not a digest: the package cannot be verified and will be refused.
                log_warn("Malformed X-Content-Md5 header");
                memset(pkg->md5, 0, sizeof(pkg->md5));
                return length;
            }
            digest[i] = static_cast<unsigned char>(high * 16 + low);
        }
        memcpy(pkg->md5, digest, sizeof(digest));
    } else if (s_starts_with_nocase(line, kLength)) {
        std::string_view value = line.substr(kLength.size());
        while (!value.empty() && (value.back() == '\n' || value.back() == '\r' ||
                                  value.back() == ' ' || value.back() == '\t')) {
            value.remove_suffix(1);
        }
        long long size = 0;
        bool valid = !value.empty() && value.size() <= 18;
        // At most 18 digits: the value always fits, and anything longer is no package size.
        for (size_t i = 0; valid && i < value.size(); ++i) {
            if (value[i] < '0' || value[i] > '9') {
                valid = false;
                break;
            }
            size = size * 10 + (value[i] - '0');
        }
        // A size that cannot be read never matches a download.
        pkg->size = valid ? size : -1;
    }
    return length;
}

int qv_update_verify_package(const char* path, const qv_upd_pkg_info_t* pkg) {
    struct stat st {};
    if (stat(path, &st) != 0) {
        log_error("Failed to stat %s, %s", path, strerror(errno));
        return -1;
    }
    if (static_cast<long long>(st.st_size) != pkg->size) {
        log_error("Inconsistent file size. From header: %d / Downloaded: %d",
                  static_cast<int>(pkg->size), static_cast<int>(st.st_size));
        return -1;
    }
    qv::file_ptr file(fopen(path, "rb"));
    if (!file) {
        log_error("Failed to open %s: %s", path, strerror(errno));
        return -1;
    }
    qv::evp_md_ctx_ptr ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) != 1) {
        log_error("Failed to allocate %s", "digest");
        return -1;
    }
    // Up to one byte more than announced is read, so that a file that grew is noticed.
    const long long wanted = pkg->size + 1;
    long long total = 0;
    std::vector<unsigned char> block(65536);
    while (total < wanted) {
        const size_t ask = static_cast<size_t>(
            std::min<long long>(static_cast<long long>(block.size()), wanted - total));
        const size_t n = fread(block.data(), 1, ask, file.get());
        if (n > 0 && EVP_DigestUpdate(ctx.get(), block.data(), n) != 1) {
            log_error("Failed to compute the digest");
            return -1;
        }
        total += static_cast<long long>(n);
        if (n < ask) {
            break;
        }
    }
    if (total != pkg->size) {
        log_error("Error reading complete file. Sizes don't match.");
        return -1;
    }
    if (feof(file.get()) == 0) {
        log_error("Error reading complete file. Not EOF.");
        return -1;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digest_length = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest, &digest_length) != 1 ||
        digest_length != sizeof(pkg->md5)) {
        log_error("Failed to compute the digest");
        return -1;
    }
    if (memcmp(digest, pkg->md5, sizeof(pkg->md5)) != 0) {
        log_error("Digests don't match");
        return -1;
    }
    return 0;
}

int qv_update_download_package(const char* package_name, const char* current_version,
                               const char* download_dir, qv_upd_pkg_info_t* pkg,
                               const qv_update_config_t* update_config, const char* http_proxy,
                               const qv_update_cancel_fn& cancelled) {
    log_trace("Entering");
    if (package_name == nullptr || current_version == nullptr || download_dir == nullptr ||
        pkg == nullptr || update_config == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    if (update_config->update_server.empty()) {
        log_debug("No update server configured");
        return 0;
    }
    qv::curl_ptr curl(curl_easy_init());
    if (!curl) {
        log_error("curl init failed");
        return -1;
    }
    log_info("Current version: %s", qv_escape_for_log(current_version, 64).c_str());
    const qv::curl_string_ptr component(curl_easy_escape(curl.get(), package_name, 0));
    const qv::curl_string_ptr have(curl_easy_escape(curl.get(), current_version, 0));
    if (!component || !have) {
        log_error("Failed to allocate %s", "url");
        return -1;
    }
    char url[4096];
    const int n =
        snprintf(url, sizeof(url), "%s/v1/update?component=%s&version=latest&ssl=1&have=%s",
                 update_config->update_server.c_str(), component.get(), have.get());
    if (n < 0 || static_cast<size_t>(n) >= sizeof(url)) {
        log_error("Failed to build the request URL");
        return -1;
    }
    log_info("Requesting URL: %s", qv_escape_for_log(url, sizeof(url)).c_str());

    const std::string temp_path = s_path(download_dir, QV_UPD_TEMP_FILE);
    download_sink sink;
    qv::file_ptr temp_file(fopen(temp_path.c_str(), "wbe"));
    if (!temp_file) {
        log_error("Failed to open temp file for download");
        return -1;
    }
    sink.file = temp_file.get();
    memset(pkg->md5, 0, sizeof(pkg->md5));
    pkg->size = 0;
    char error_buffer[CURL_ERROR_SIZE] = "";
    if (!s_set_options(curl.get(), url, update_config, http_proxy, &sink, pkg, &cancelled,
                       error_buffer)) {
        temp_file.reset();
        s_remove_file(temp_path);
        return -1;
    }
    const CURLcode rc = curl_easy_perform(curl.get());
    const bool closed = fclose(temp_file.release()) == 0;
    if (rc != CURLE_OK || !closed) {
        const char* reason = rc != CURLE_OK
                                 ? (error_buffer[0] != '\0' ? error_buffer : curl_easy_strerror(rc))
                                 : strerror(errno);
        log_error("Error requesting update: %s", reason);
        s_remove_file(temp_path);
        return -1;
    }
    long code = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &code);
    if (code == 304) {
        log_info("No update available");
        s_remove_file(temp_path);
        return 0;
    }
    if (code != 200) {
        log_error("Error on http request. Response code: %d", static_cast<int>(code));
        s_remove_file(temp_path);
        return -1;
    }
    log_info("Got an update");
    if (qv_update_verify_package(temp_path.c_str(), pkg) != 0) {
        log_error("Downloaded file failed md5 verification");
        s_remove_file(temp_path);
        return -1;
    }
    log_info("MD5 check OK");
    std::string filename;
    if (!s_package_filename(curl.get(), &filename)) {
        log_error("Failed to obtain package filename");
        s_remove_file(temp_path);
        return -1;
    }
    const std::string package_path = s_path(download_dir, filename);
    if (rename(temp_path.c_str(), package_path.c_str()) != 0) {
        log_error("Failed to rename temp file. %s", strerror(errno));
        s_remove_file(temp_path);
        return -1;
    }
    log_info("Temp file renamed to %s", package_path.c_str());
    pkg->filename = filename;
    pkg->pkg_file = package_path;
    return 1;
}

int get_updated_component_from_local(const char* package_name, const char* component_dir,
                                     qv_upd_pkg_info_t* pkg) {
    if (package_name == nullptr || component_dir == nullptr || pkg == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    const time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char year[8], month[4], day[4];
    strftime(year, sizeof(year), "%Y", &local);
    strftime(month, sizeof(month), "%m", &local);
    strftime(day, sizeof(day), "%d", &local);
    char version[32];
    snprintf(version, sizeof(version), "%s%s%s001", year, month, day);
    char filename[4096];
    snprintf(filename, sizeof(filename), "%s_nats__%s_manual.zip", package_name, version);
    const std::string path = s_path(component_dir, filename);
    log_debug("Looking for manual update file %s", path.c_str());
    if (access(path.c_str(), F_OK) != 0) {
        return 0;
    }
    pkg->version = version;
    pkg->filename = filename;
    pkg->pkg_file = path;
    if (access(path.c_str(), R_OK) != 0) {
        log_error("Manual update file %s is not readable", path.c_str());
        return -1;
    }
    log_info("Manual update available: %s", path.c_str());
    return 1;
}

int get_updated_component(const char* package_name, const char* component_subdir,
                          const char* current_version, const char* component_dir,
                          qv_upd_pkg_info_t* pkg, const qv_update_config_t* update_config,
                          const char* http_proxy, const qv_update_cancel_fn& cancelled) {
    if (package_name == nullptr || component_subdir == nullptr || current_version == nullptr ||
        component_dir == nullptr || pkg == nullptr || update_config == nullptr) {
        log_error("Invalid parameters");
        return 0;
    }
    if (!update_config->update_server.empty()) {
        const int rc = qv_update_download_package(package_name, current_version, component_dir, pkg,
                                                  update_config, http_proxy, cancelled);
        if (rc == 1) {
            return 1;
        }
        if (rc < 0) {
            log_warn("Temporary error getting '%s' update from server. We'll keep trying...",
                     component_subdir);
        }
        pkg_info_init(pkg);
    }
    // A package an operator placed by hand is taken whenever the server delivered none.
    const int rc = get_updated_component_from_local(package_name, component_dir, pkg);
    if (rc < 0) {
        log_error("Error getting manual '%s' update. Check previous errors for details",
                  component_subdir);
        pkg_info_init(pkg);
        return 0;
    }
    return rc;
}

int get_version_from_filename(const char* filename, std::string* version) {
    if (filename == nullptr || version == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    std::string name = filename;
    if (const size_t dot = name.rfind('.'); dot != std::string::npos) {
        name.resize(dot);
    }
    constexpr std::string_view kManual = "_manual";
    if (name.size() > kManual.size() && name.ends_with(kManual)) {
        name.resize(name.size() - kManual.size());
    }
    const size_t underscore = name.rfind('_');
    if (underscore == std::string::npos) {
        log_error("No '_' in filename %s — cannot extract version", filename);
        return -1;
    }
    std::string found = name.substr(underscore + 1);
    if (found.size() != QV_UPD_VERSION_LENGTH) {
        log_error("Version string length (%zu) of %s is invalid. Should be %d", found.size(),
                  filename, static_cast<int>(QV_UPD_VERSION_LENGTH));
        return -1;
    }
    *version = std::move(found);
    return 0;
}

int update_ver_dir_content(const char* install_arg, const char* work_dir,
                           const char* current_version_dir, const char* new_version_dir,
                           const char* component_subdir, int got_update, qv_upd_pkg_info_t* pkg,
                           const char* component_name) {
    log_trace("Entering");
    if (install_arg == nullptr || work_dir == nullptr || new_version_dir == nullptr ||
        component_subdir == nullptr || (got_update != 0 && pkg == nullptr) ||
        (got_update == 0 && current_version_dir == nullptr)) {
        log_error("Invalid parameters");
        return -1;
    }
    // Every path is made absolute first: the unpacking works inside the scratch directory.
    const std::string version_dir = s_absolute(new_version_dir);
    const std::string target = s_path(version_dir, component_subdir);
    char scratch_name[4096];
    snprintf(scratch_name, sizeof(scratch_name), "%s%cquorvale_update_%s",
             s_absolute(work_dir).c_str(), '/',
             component_name != nullptr ? component_name : "unknown");
    const std::string scratch = scratch_name;
    const std::string package = pkg != nullptr ? pkg->pkg_file : "";

    int rc = -1;
    {
        cwd_guard guard;
        if (got_update != 0) {
            log_info("Got update for %s. Installing...",
                     component_name != nullptr ? component_name : "unknown");
            if (mkdir(target.c_str(), 0750) != 0 && errno != EEXIST) {
                log_error("Failed to create directory %s, %s", target.c_str(), strerror(errno));
            } else {
                rc = s_install_package(scratch, package, install_arg, version_dir, component_subdir,
                                       target);
            }
        } else {
            const std::string source = s_path(s_absolute(current_version_dir), component_subdir);
            log_info("Copying %s to new version folder...", source.c_str());
            std::error_code ec;
            fs::copy(source, target, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
                     ec);
            if (ec) {
                log_error("Failed to copy %s to %s: %s", source.c_str(), target.c_str(),
                          ec.message().c_str());
            } else {
                rc = 0;
            }
        }
    }
    log_debug("Cleaning up");
    std::error_code ec;
    fs::remove_all(scratch, ec);
    if (ec) {
        log_warn("Failed to remove %s: %s", scratch.c_str(), ec.message().c_str());
    }
    if (!package.empty()) {
        s_remove_file(package);
    }
    return rc;
}

std::string get_curr_ver(const char* latest, const char* component_subdir) {
    // Kept: the subdirectory names the program files; the version file lies beside it, in the
    // version directory itself.
    (void)component_subdir;
    std::string version = QV_UPD_DEFAULT_VERSION;
    if (latest == nullptr) {
        return version;
    }
    const std::string path = s_path(latest, QV_UPD_VERSION_FILE);
    qv::file_ptr file(fopen(path.c_str(), "rbe"));
    if (!file) {
        log_debug("Failed to open version file: %s", path.c_str());
    } else {
        char text[64];
        const size_t n = fread(text, 1, QV_UPD_VERSION_LENGTH, file.get());
        if (n == 0) {
            log_error("Failed to read from version file");
        } else {
            version.assign(text, n);
        }
    }
    log_debug("%s version: %s", component_subdir != nullptr ? component_subdir : "",
              qv_escape_for_log(version, 64).c_str());
    return version;
}

int create_version_file(const char* version_dir, const char* component_subdir,
                        const char* version) {
    // Kept: the version file belongs to the whole version directory, not to the subdirectory.
    (void)component_subdir;
    if (version_dir == nullptr || version == nullptr || strlen(version) < QV_UPD_VERSION_LENGTH) {
        log_error("Invalid parameters");
        return -1;
    }
    const std::string path = s_path(version_dir, QV_UPD_VERSION_FILE);
    qv::file_ptr file(fopen(path.c_str(), "wbe"));
    if (!file) {
        log_error("Failed to open version file for writing: %s", path.c_str());
        return -1;
    }
    const size_t n = fwrite(version, 1, QV_UPD_VERSION_LENGTH, file.get());
    if (n != QV_UPD_VERSION_LENGTH || fclose(file.release()) != 0) {
        log_error("Failed to write to version file");
        return -1;
    }
    return 0;
}

int update_latest_link(const char* component_dir, const char* target) {
    if (component_dir == nullptr || target == nullptr || target[0] == '\0') {
        log_error("Invalid parameters");
        return -1;
    }
    const std::string latest = s_path(component_dir, "latest");
    // The new link is made beside the old one and renamed over it: "latest" never disappears,
    // even for a moment in which the daemon could be restarted.
    const std::string staged = s_path(component_dir, ".latest.new");
    unlink(staged.c_str());
    if (symlink(target, staged.c_str()) != 0) {
        log_error("Failed to create symlink. %s", strerror(errno));
        return -1;
    }
    if (rename(staged.c_str(), latest.c_str()) != 0) {
        log_error("Failed to create symlink. %s", strerror(errno));
        unlink(staged.c_str());
        return -1;
    }
    return 0;
}

int remove_dir(const char* parent, const char* name) {
    if (parent == nullptr || name == nullptr || name[0] == '\0') {
        log_error("Invalid parameters");
        return -1;
    }
    std::error_code ec;
    fs::remove_all(s_path(parent, name), ec);
    if (ec) {
        log_error("Failed to remove %s: %s", s_path(parent, name).c_str(), ec.message().c_str());
        return -1;
    }
    return 0;
}

int clean_old_versions(const char* component_dir, const char* latest, int keep,
                       const char* pending) {
    if (component_dir == nullptr || latest == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    const std::string dir = s_absolute(component_dir);
    const std::string link = s_absolute(latest);
    cwd_guard guard;
    if (chdir(dir.c_str()) != 0) {
        log_error("Failed to change directory to %s, %s", dir.c_str(), strerror(errno));
        return -1;
    }
    char target[4096];
    const ssize_t length = readlink(link.c_str(), target, sizeof(target) - 1);
    if (length < 0) {
        log_error("Failed to read 'latest' symlink: %s", strerror(errno));
        return -1;
    }
    target[length] = '\0';
    std::string active = target;
    while (active.size() > 1 && active.back() == '/') {
        active.pop_back();
    }
    active = fs::path(active).filename().string();

    std::vector<std::string> versions;
    {
        std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir("."), closedir);
        if (!listing) {
            log_error("Failed to change directory to %s, %s", dir.c_str(), strerror(errno));
            return -1;
        }
        while (const dirent* entry = readdir(listing.get())) {
            if (!s_is_version_dir_name(entry->d_name) || active == entry->d_name ||
                (pending != nullptr && strcmp(pending, entry->d_name) == 0)) {
                continue;
            }
            struct stat st {};
            if (lstat(entry->d_name, &st) != 0) {
                log_error("Failed to stat %s, %s", entry->d_name, strerror(errno));
                return -1;
            }
            if (S_ISDIR(st.st_mode)) {
                versions.emplace_back(entry->d_name);
            }
        }
    }
    keep = std::max(keep, 0);
    if (versions.size() <= static_cast<size_t>(keep)) {
        log_debug("Nothing to clean up");
        return 0;
    }
    std::sort(versions.begin(), versions.end());
    const size_t excess = versions.size() - static_cast<size_t>(keep);
    int rc = 0;
    for (size_t i = 0; i < excess; ++i) {
        log_info("Deleting dir: %s", versions[i].c_str());
        if (remove_dir(dir.c_str(), versions[i].c_str()) != 0) {
            rc = -1;
        }
    }
    return rc;
}

void lock_file_set_path(qv_update_lock_file* file, const std::string& dir, const char* name) {
    std::lock_guard<std::mutex> lock(file->mutex);
    if (!file->fd) {
        file->path = s_path(dir, name);
    }
}

int lock_check_create(qv_update_lock_file* file) {
    if (file == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(file->mutex);
    if (file->fd) {
        log_debug("File already locked");
        return 0;
    }
    qv::unique_fd fd(open(file->path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!fd) {
        log_error("Failed to create/open lock file %s", file->path.c_str());
        return -1;
    }
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        if (error == EWOULDBLOCK) {
            log_debug("File already locked");
            return 0;
        }
        log_error("Failed to acquire lock, error=%d: %s", error, strerror(error));
        return -1;
    }
    file->fd = std::move(fd);
    return 1;
}

int lock_release(qv_update_lock_file* file) {
    if (file == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(file->mutex);
    if (!file->fd) {
        return 0;
    }
    if (flock(file->fd.get(), LOCK_UN) != 0) {
        log_error("Failed to release lock, %s", strerror(errno));
        return -1;
    }
    file->fd.reset();
    return 0;
}
