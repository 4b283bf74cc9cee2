// Update packages: the operations a component runs to replace its own program files.
//
// A component directory (<base>/<component>) holds one version directory per installed version,
// named by the epoch seconds of its creation, each with the program files in a subdirectory and
// the 11-character version string in ".version.qv"; the symbolic link "latest" names the active
// one. A new package comes from the update server (GET <server>/v1/update?component=...&have=...,
// answered with 304 or with the package and its size and MD5 in the headers) or is dropped into
// the component directory by hand as "<package>_nats__<YYYYMMDD>001_manual.zip". A package is a
// zip archive with an "install.sh" that copies its files into the new version directory.
//
// Every download is verified against the announced size and digest before it is renamed from
// "temp.dwnld" to its name; a package is unpacked into a scratch directory that is removed again
// after each attempt, as is the package itself. Entries that would land outside the scratch
// directory ("..", absolute names, paths through symbolic links) refuse the whole package.
//
// The functions that unpack or prune change the calling thread's working directory for their
// duration and restore it before they return; the daemon's updater gives its thread a working
// directory of its own so that no other thread sees the change. A file lock (flock) keeps two
// updaters of one installation apart.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "qv_handles.h"

// The update settings of the daemon's configuration record.
struct qv_update_config_t {
    bool update_binary = true;  // program files are updated
    bool update_data = true;
    bool update_engine = true;
    std::string update_server;          // empty: no server is asked, only a manual package is taken
    int32_t update_check_interval = 5;  // minutes
    int32_t update_max_backups = 3;     // older version directories kept beside the active one
    bool no_certificate_check = false;  // HTTPS servers are not verified
};

// One update attempt's package.
struct qv_upd_pkg_info_t {
    unsigned char md5[16] = {};  // as announced by the server ("X-Content-Md5")
    std::string filename;        // the package's file name
    long long size = 0;          // as announced by the server ("Content-Length"); -1 unreadable
    std::string pkg_file;        // path of the downloaded or manual package
    std::string version;         // 11 characters
};
using qv_upd_pkg_info = qv_upd_pkg_info_t;

void pkg_info_init(qv_upd_pkg_info_t* pkg);
void pkg_info_free(qv_upd_pkg_info_t* pkg);

inline constexpr size_t QV_UPD_VERSION_LENGTH = 11;
// The version of a version directory without a readable version file.
inline constexpr const char* QV_UPD_DEFAULT_VERSION = "20210101001";
inline constexpr const char* QV_UPD_VERSION_FILE = ".version.qv";
inline constexpr const char* QV_UPD_TEMP_FILE = "temp.dwnld";
// A download larger than this is refused while it arrives.
inline constexpr long long QV_UPD_MAX_PACKAGE_SIZE = 2147483647LL;

// Polled while a transfer runs; true aborts it.
using qv_update_cancel_fn = std::function<bool()>;

// Asks the server named in `update_config` for a newer package than `current_version` of
// `package_name` and downloads it into `download_dir` ("temp.dwnld", then the package's own name
// from the URL it was finally fetched from). 1 with the package in *pkg, 0 when the server has
// none (or none is configured), -1 on error (nothing is left behind).
int qv_update_download_package(const char* package_name, const char* current_version,
                               const char* download_dir, qv_upd_pkg_info_t* pkg,
                               const qv_update_config_t* update_config, const char* http_proxy,
                               const qv_update_cancel_fn& cancelled = {});

// A package from the server or, when the server has none or fails, a manual one in
// `component_dir`. 1 when a package is ready in *pkg, 0 otherwise.
int get_updated_component(const char* package_name, const char* component_subdir,
                          const char* current_version, const char* component_dir,
                          qv_upd_pkg_info_t* pkg, const qv_update_config_t* update_config,
                          const char* http_proxy, const qv_update_cancel_fn& cancelled = {});

// Today's manual package "<package>_nats__<YYYYMMDD>001_manual.zip" in `component_dir`: 1 when
// present and readable (name and version in *pkg), 0 when absent, -1 when unreadable.
int get_updated_component_from_local(const char* package_name, const char* component_dir,
                                     qv_upd_pkg_info_t* pkg);

// The version in a package file name: the extension and a trailing "_manual" cut, the text after
// the last '_', exactly 11 characters. 0 or -1 (logged).
int get_version_from_filename(const char* filename, std::string* version);

// Fills `new_version_dir`/`component_subdir`: with `got_update`, unpacks the package of *pkg
// under `work_dir` and runs its install script as
//   install.sh <unpacked directory> <install_arg> <new_version_dir>/<component_subdir>
// after writing the version file; without, copies the subdirectory of `current_version_dir`.
// The unpacked directory and the package file are removed in every case. 0 or -1.
int update_ver_dir_content(const char* install_arg, const char* work_dir,
                           const char* current_version_dir, const char* new_version_dir,
                           const char* component_subdir, int got_update, qv_upd_pkg_info_t* pkg,
                           const char* component_name);

// The version recorded in the version directory that `latest` names; QV_UPD_DEFAULT_VERSION when
// it cannot be read.
std::string get_curr_ver(const char* latest, const char* component_subdir);

// Writes the 11 version bytes to <version_dir>/.version.qv. 0 or -1.
int create_version_file(const char* version_dir, const char* component_subdir, const char* version);
// Points <component_dir>/latest at `target`, replacing the link in one step. 0 or -1.
int update_latest_link(const char* component_dir, const char* target);
// Deletes the oldest version directories of `component_dir` (10-digit names) so that at most
// `keep` stay beside the one `latest` names and `pending` (a version installed but not active
// yet, never deleted). 0 or -1 (nothing is deleted when `latest` cannot be read).
int clean_old_versions(const char* component_dir, const char* latest, int keep,
                       const char* pending = nullptr);
// Removes <parent>/<name> with everything below it. 0 or -1.
int remove_dir(const char* parent, const char* name);

// The header callback of a download (CURLOPT_HEADERFUNCTION; userdata is the qv_upd_pkg_info_t):
// takes the digest and the size from the final response's headers.
size_t qv_update_header_callback(char* buffer, size_t size, size_t nitems, void* userdata);
// The downloaded file against the announced size, then the announced digest. 0 or -1 (logged).
int qv_update_verify_package(const char* path, const qv_upd_pkg_info_t* pkg);

// The lock file that keeps a single updater per installation. Held while `fd` is open.
struct qv_update_lock_file {
    std::mutex mutex;
    std::string path;
    qv::unique_fd fd;
};
// Names the lock file <dir>/<name>; a held lock is kept.
void lock_file_set_path(qv_update_lock_file* file, const std::string& dir, const char* name);
// Opens (creating) the file and takes an exclusive non-blocking flock: 1 taken, 0 held by
// another holder (or already held through this object), -1 on error.
int lock_check_create(qv_update_lock_file* file);
// Unlocks and closes the file; 0 also when it was not held, -1 when the unlock failed.
int lock_release(qv_update_lock_file* file);
