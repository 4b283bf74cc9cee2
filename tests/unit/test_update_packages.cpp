#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "http_test_server.h"
#include "log_capture.h"
#include "qv_test_util.h"
#include "qv_update_common.h"
#include "update_packages.h"

using qvtest::HttpTestServer;
using qvtest::LogCapture;
using qvtest::TempDir;

namespace {

constexpr const char* kPackage = "qv-av-control_nats-bin-linux-glibc2.28.amd64";
const std::string kServerFile = std::string(kPackage) + "_nats__20240301001.zip";

int download(HttpTestServer& server, const std::string& dir, qv_upd_pkg_info_t* pkg,
             qv_update_config_t settings = {}, const char* proxy = "") {
    settings.update_server = server.url();
    return qv_update_download_package(kPackage, "20240101001", dir.c_str(), pkg, &settings, proxy);
}

// True when `step`, run in a child whose files cannot grow past 4 KiB, returned true.
bool on_a_full_disk(const std::function<bool()>& step) {
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(step() ? 0 : 1);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

TEST(UpdateVersions, FileNamesVersionFilesAndLatestLink) {
    LogCapture log;
    std::string version;
    EXPECT_EQ(get_version_from_filename("pkg_20240301001_manual.zip", &version), 0);
    EXPECT_EQ(version, "20240301001");
    EXPECT_EQ(get_version_from_filename(kServerFile.c_str(), &version), 0);
    EXPECT_EQ(version, "20240301001");
    EXPECT_EQ(get_version_from_filename("pkg_2024030100.zip", &version), -1);
    EXPECT_TRUE(
        log.contains("Version string length (10) of pkg_2024030100.zip is invalid. Should be 11"));
    EXPECT_EQ(get_version_from_filename("pkg-20240301001.zip", &version), -1);
    EXPECT_TRUE(log.contains("No '_' in filename pkg-20240301001.zip — cannot extract version"));
    // "_manual" alone is not cut: nothing would be left of the name.
    EXPECT_EQ(get_version_from_filename("_manual.zip", &version), -1);
    EXPECT_EQ(version, "20240301001");

    TempDir dir;
    qvtest::make_dirs(dir / "1700000000/bin");
    qvtest::make_dirs(dir / "1700000100/bin");
    // The version file lies in the version directory, whatever the subdirectory.
    ASSERT_EQ(create_version_file((dir / "1700000100").c_str(), "bin", "20240301001xyz"), 0);
    EXPECT_EQ(qvtest::read_file(dir / "1700000100/.version.qv"), "20240301001");
    EXPECT_FALSE(qvtest::file_exists(dir / "1700000100/bin/.version.qv"));

    // A link to a directory without a version file: the default version.
    ASSERT_EQ(update_latest_link(dir.path().c_str(), "1700000000"), 0);
    EXPECT_EQ(get_curr_ver((dir / "latest").c_str(), "bin"), "20210101001");
    ASSERT_EQ(update_latest_link(dir.path().c_str(), "1700000100"), 0);
    EXPECT_EQ(get_curr_ver((dir / "latest").c_str(), "bin"), "20240301001");
}

TEST(UpdateVersions, PruningKeepsTheNewestBesideTheActiveOne) {
    LogCapture log;
    TempDir dir;
    for (const char* name : {"1700000000", "1700000100", "1700000200", "1700000300", "170000000",
                             "17000000000", "abcdefghij", "conf"}) {
        qvtest::make_dirs(dir / name + "/bin");
    }
    qvtest::write_file(dir / "1600000000", "a file, not a version directory");
    const std::string latest = dir / "latest";
    // Without the link nothing is known to be active, so nothing goes.
    EXPECT_EQ(clean_old_versions(dir.path().c_str(), latest.c_str(), 0), -1);
    EXPECT_TRUE(log.contains("Failed to read 'latest' symlink: "));
    ASSERT_EQ(update_latest_link(dir.path().c_str(), (dir / "1700000300").c_str()), 0);

    EXPECT_EQ(clean_old_versions(dir.path().c_str(), latest.c_str(), 2), 0);
    EXPECT_TRUE(log.contains("Deleting dir: 1700000000"));
    EXPECT_EQ(
        qvtest::list_dir(dir.path()),
        (std::vector<std::string>{"1600000000", "170000000", "17000000000", "1700000100",
                                  "1700000200", "1700000300", "abcdefghij", "conf", "latest"}));
    EXPECT_EQ(clean_old_versions(dir.path().c_str(), latest.c_str(), 2), 0);
    EXPECT_TRUE(log.contains("Nothing to clean up"));
    // An installed version waiting for activation is never pruned, even when it is the oldest.
    qvtest::make_dirs(dir / "1000000000");
    EXPECT_EQ(clean_old_versions(dir.path().c_str(), latest.c_str(), 0, "1000000000"), 0);
    EXPECT_TRUE(qvtest::file_exists(dir / "1000000000"));
    EXPECT_FALSE(qvtest::file_exists(dir / "1700000200"));
    EXPECT_TRUE(qvtest::file_exists(dir / "1700000300/bin"));
    EXPECT_TRUE(qvtest::file_exists(dir / "17000000000"));
}

TEST(UpdateDownload, HeaderLinesGiveDigestAndSize) {
    LogCapture log;
    qv_upd_pkg_info_t pkg;
    const auto feed = [&](std::string line) {
        EXPECT_EQ(qv_update_header_callback(line.data(), 1, line.size(), &pkg), line.size());
    };
    const std::string hex = "00112233445566778899aabbccddeeff";
    feed("X-Content-Md5: " + hex + "\r\n");
    feed("Content-Length: 1234\r\n");
    EXPECT_EQ(pkg.md5[1], 0x11);
    EXPECT_EQ(pkg.md5[15], 0xff);
    EXPECT_EQ(pkg.size, 1234);
    // Too short to hold a digest, or not hexadecimal: no digest (so no package passes).
    feed("X-Content-Md5: 0011\r\n");
    EXPECT_EQ(pkg.md5[15], 0xff);
    feed("X-Content-Md5: " + std::string(31, 'a') + "g\r\n");
    EXPECT_EQ(pkg.md5[15], 0);
    EXPECT_TRUE(log.contains("Malformed X-Content-Md5 header"));
    // Header names in any case (HTTP/2 sends them in lower case).
    feed("x-content-md5: " + hex + "\r\n");
    feed("content-length: 99\r\n");
    EXPECT_EQ(pkg.md5[15], 0xff);
    EXPECT_EQ(pkg.size, 99);
    for (const char* bad : {"Content-Length: 12a\r\n", "Content-Length: \r\n",
                            "Content-Length: -5\r\n", "Content-Length: 99999999999999999999\r\n"}) {
        feed(bad);
        EXPECT_EQ(pkg.size, -1) << bad;
    }
    feed("X-Other: 1\r\n");
    feed("\r\n");
    EXPECT_EQ(pkg.size, -1);
    // The next response's headers (after a redirect) start afresh.
    feed("HTTP/1.1 200 OK\r\n");
    EXPECT_EQ(pkg.size, 0);
    EXPECT_EQ(pkg.md5[15], 0);
}

TEST(UpdateDownload, NotModifiedMakesNothingAndRedirectedPackageIsKeptUnderItsName) {
    LogCapture log;
    HttpTestServer server;
    TempDir dir;
    qv_upd_pkg_info_t pkg;
    server.respond(304, "");
    EXPECT_EQ(download(server, dir.path(), &pkg), 0);
    EXPECT_TRUE(log.contains("No update available"));
    EXPECT_TRUE(qvtest::list_dir(dir.path()).empty());
    ASSERT_EQ(server.request_count(), 1u);
    EXPECT_EQ(server.requests()[0].target, "/v1/update?component=" + std::string(kPackage) +
                                               "&version=latest&ssl=1&have=20240101001");

    const std::string package = qvtest::make_package({{"prog", "binary\x01\x02", 0755, ""}});
    qvtest::serve_package(server, kServerFile, package);
    ASSERT_EQ(download(server, dir.path(), &pkg), 1) << log.text();
    EXPECT_EQ(pkg.pkg_file, dir / kServerFile);
    EXPECT_EQ(pkg.size, static_cast<long long>(package.size()));
    EXPECT_EQ(qvtest::read_file(pkg.pkg_file), package);
    EXPECT_EQ(qvtest::list_dir(dir.path()), std::vector<std::string>{kServerFile});
    EXPECT_EQ(server.requests().back().target, "/packages/" + kServerFile);
}

TEST(UpdateDownload, RefusedAnswersLeaveNothingBehind) {
    LogCapture log;
    HttpTestServer server;
    TempDir dir;
    const std::string package = qvtest::make_package({{"prog", "binary", 0755, ""}});
    struct refused_case {
        const char* what;
        HttpTestServer::Response answer;
        const char* error;  // null: the size mismatch, checked below
    };
    std::vector<refused_case> cases;
    auto answer = qvtest::package_answer(package);
    answer.headers[0].second = qvtest::md5_hex("something else");
    cases.push_back({"wrong digest", answer, "Digests don't match"});
    answer = qvtest::package_answer(package);
    answer.headers.clear();
    cases.push_back({"no digest", answer, "Digests don't match"});
    answer = qvtest::package_answer(package);
    answer.headers.emplace_back("Content-Length", std::to_string(package.size() - 10));
    cases.push_back({"more bytes than announced", answer, "Digests don't match"});
    answer = qvtest::package_answer(package);
    answer.chunked = true;
    answer.headers.emplace_back("Content-Length", "100");
    cases.push_back({"size mismatch", answer, nullptr});
    answer = qvtest::package_answer(package);
    answer.status = 500;
    cases.push_back({"server error", answer, "Error on http request. Response code: 500"});
    answer.mode = HttpTestServer::Mode::hang_up;
    cases.push_back({"hang-up", answer, "Error requesting update: "});
    for (const auto& c : cases) {
        log.clear();
        server.queue(c.answer);
        qv_upd_pkg_info_t pkg;
        EXPECT_EQ(download(server, dir.path(), &pkg), -1) << c.what;
        if (c.error != nullptr) {
            EXPECT_TRUE(log.contains(c.error)) << c.what << "\n" << log.text();
        } else {
            EXPECT_TRUE(log.contains("Inconsistent file size. From header: 100 / Downloaded: " +
                                     std::to_string(package.size())))
                << log.text();
            EXPECT_FALSE(log.contains("Digests don't match"));
        }
        EXPECT_TRUE(qvtest::list_dir(dir.path()).empty()) << c.what;
    }

    // A name that is no plain file name is not taken from the URL.
    log.clear();
    server.queue({.status = 302, .headers = {{"Location", "/packages/"}}});
    server.queue(qvtest::package_answer(package));
    qv_upd_pkg_info_t pkg;
    EXPECT_EQ(download(server, dir.path(), &pkg), -1);
    EXPECT_TRUE(log.contains("Failed to obtain package filename"));
    EXPECT_TRUE(qvtest::list_dir(dir.path()).empty());
}

TEST(UpdateDownload, UnverifiedServerAndFullDisk) {
    LogCapture log;
    TempDir dir;
    const std::string package = qvtest::make_package({{"prog", "binary", 0755, ""}});
    HttpTestServer tls_server(HttpTestServer::Options{.tls = true});
    tls_server.respond(qvtest::package_answer(package));
    qv_upd_pkg_info_t pkg;
    unsetenv("SSL_CERT_FILE");
    unsetenv("CURL_CA_BUNDLE");
    EXPECT_EQ(download(tls_server, dir.path(), &pkg), -1);
    EXPECT_TRUE(log.contains("Error requesting update: "));
    qv_update_config_t unverified;
    unverified.no_certificate_check = true;
    EXPECT_EQ(download(tls_server, dir.path(), &pkg, unverified), 1);

    // A disk that fills up: the transfer fails and the partial download goes.
    HttpTestServer server;
    server.respond(qvtest::package_answer(
        qvtest::make_package({{"prog", qvtest::random_bytes(65536), 0755, ""}})));
    TempDir full;
    EXPECT_TRUE(on_a_full_disk([&] {
        qv_upd_pkg_info_t child_pkg;
        return download(server, full.path(), &child_pkg) == -1 &&
               qvtest::list_dir(full.path()).empty();
    }));
}

namespace {

// A component tree with an active version and a new, empty version directory.
struct install_tree {
    TempDir root;
    std::string component = root / "qv-av-control";
    std::string work = root / "work";
    std::string scratch = work + "/quorvale_update_qv-av-control";
    std::string active = component + "/1700000000";
    std::string fresh = component + "/1700000100";
    install_tree() {
        qvtest::make_dirs(active + "/bin");
        qvtest::make_dirs(fresh);
        qvtest::make_dirs(work);
        qvtest::write_file(active + "/bin/prog", "old program");
        update_latest_link(component.c_str(), "1700000000");
    }
    // Places the package bytes where a download would, as the package information says.
    qv_upd_pkg_info_t place(const std::string& name, const std::string& bytes) {
        qv_upd_pkg_info_t pkg;
        pkg.filename = name;
        pkg.pkg_file = component + "/" + name;
        qvtest::write_file(pkg.pkg_file, bytes);
        return pkg;
    }
    int install(qv_upd_pkg_info_t* pkg, const std::string& into) {
        return update_ver_dir_content(root.path().c_str(), work.c_str(),
                                      (component + "/latest").c_str(), into.c_str(), "bin",
                                      pkg != nullptr, pkg, "qv-av-control");
    }
};

}  // namespace

TEST(UpdateInstall, PackageIsUnpackedAndInstalledByItsScript) {
    LogCapture log;
    install_tree tree;
    char before[4096];
    ASSERT_NE(getcwd(before, sizeof(before)), nullptr);
    qv_upd_pkg_info_t pkg = tree.place(
        kServerFile,
        qvtest::make_package({{"prog", "new program", 0755, ""}, {"lib/data", "data", 0644, ""}}));
    ASSERT_EQ(tree.install(&pkg, tree.fresh), 0) << log.text();
    EXPECT_EQ(qvtest::read_file(tree.fresh + "/bin/install.args"),
              tree.scratch + "\n" + tree.root.path() + "\n" + tree.fresh + "/bin\n");
    EXPECT_EQ(qvtest::read_file(tree.fresh + "/bin/prog"), "new program");
    EXPECT_EQ(qvtest::read_file(tree.fresh + "/bin/lib/data"), "data");
    EXPECT_EQ(qvtest::read_file(tree.fresh + "/.version.qv"), "20240301001");
    EXPECT_FALSE(qvtest::file_exists(tree.scratch));
    EXPECT_FALSE(qvtest::file_exists(pkg.pkg_file));
    // The working directory changes only for the duration of the call.
    char after[4096];
    ASSERT_NE(getcwd(after, sizeof(after)), nullptr);
    EXPECT_STREQ(before, after);

    // Without a package the active version's files are copied.
    const std::string copy = tree.component + "/1700000200";
    qvtest::make_dirs(copy);
    ASSERT_EQ(tree.install(nullptr, copy), 0);
    EXPECT_EQ(qvtest::read_file(copy + "/bin/prog"), "old program");
}

TEST(UpdateInstall, BadPackagesAreRefusedAndCleanedUp) {
    LogCapture log;
    install_tree tree;
    const std::string outside = tree.root / "outside";
    const std::string script = "#!/bin/sh\ncp -R \"$1/bin/.\" \"$3/\"\n";
    struct bad_case {
        const char* what;
        std::string bytes;
        std::string error;
        std::string name = kServerFile;
    };
    const std::string unpack_error = "Failed to extract update package";
    const std::vector<bad_case> cases = {
        {"corrupt zip", qvtest::make_package({{"prog", "p", 0755, ""}}).substr(0, 40),
         unpack_error},
        {"dot-dot entry",
         qvtest::make_zip({{"install.sh", script, 0755, ""}, {"../outside", "x", 0644, ""}}),
         unpack_error},
        {"absolute entry",
         qvtest::make_zip({{"install.sh", script, 0755, ""}, {outside, "x", 0644, ""}}),
         unpack_error},
        {"through a symbolic link",
         qvtest::make_zip({{"install.sh", script, 0755, ""},
                           {"bin", "", 0777, tree.root.path()},
                           {"bin/outside", "x", 0644, ""}}),
         unpack_error},
        {"no install script", qvtest::make_zip({{"bin/prog", "p", 0755, ""}}),
         "Failed to change permissions of "},
        {"failing install script",
         qvtest::make_zip({{"install.sh", "#!/bin/sh\nexit 3\n", 0755, ""}}), ": exit status 3"},
        {"bad version", qvtest::make_package({{"prog", "p", 0755, ""}}),
         "Failed to get version from filename", "pkg_2024030100.zip"},
    };
    for (const bad_case& c : cases) {
        log.clear();
        qv_upd_pkg_info_t pkg = tree.place(c.name, c.bytes);
        EXPECT_EQ(tree.install(&pkg, tree.fresh), -1) << c.what;
        EXPECT_TRUE(log.contains(c.error)) << c.what << "\n" << log.text();
        EXPECT_FALSE(qvtest::file_exists(outside)) << c.what;
        EXPECT_FALSE(qvtest::file_exists(tree.scratch)) << c.what;
        EXPECT_FALSE(qvtest::file_exists(pkg.pkg_file)) << c.what;
    }
}

TEST(UpdateInstall, ManualPackageIsTakenWhenTheServerHasNone) {
    LogCapture log;
    TempDir dir;
    qv_upd_pkg_info_t pkg;
    qv_update_config_t no_server;
    const auto get = [&](const qv_update_config_t& settings) {
        return get_updated_component(kPackage, "bin", "20240101001", dir.path().c_str(), &pkg,
                                     &settings, "");
    };
    EXPECT_EQ(get(no_server), 0);
    const time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char today[16];
    strftime(today, sizeof(today), "%Y%m%d001", &local);
    const std::string name = std::string(kPackage) + "_nats__" + today + "_manual.zip";
    qvtest::write_file(dir / name, "package");
    EXPECT_EQ(get(no_server), 1);
    EXPECT_EQ(pkg.version, today);
    EXPECT_EQ(pkg.pkg_file, dir / name);

    // A server that fails: the manual package is still taken.
    HttpTestServer server;
    server.respond(503, "");
    qv_update_config_t with_server;
    with_server.update_server = server.url();
    pkg = {};
    EXPECT_EQ(get(with_server), 1);
    EXPECT_TRUE(
        log.contains("Temporary error getting 'bin' update from server. We'll keep trying..."));
    EXPECT_EQ(pkg.pkg_file, dir / name);
}
