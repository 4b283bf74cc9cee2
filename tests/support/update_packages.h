// Update packages for tests: zip archives built entry by entry (hostile ones included), the
// update server's answers for them, and the package that scripts/make-update-package.sh builds
// from this build's programs.
#pragma once

#include <string>
#include <vector>

#include "http_test_server.h"

namespace qvtest {

struct ZipEntry {
    std::string name;
    std::string data;
    int mode = 0644;
    std::string symlink;  // non-empty: a symbolic link to this target instead of a file
};

// A zip archive of the entries, in order, as bytes.
std::string make_zip(const std::vector<ZipEntry>& entries);
// A package with an install.sh that copies bin/ into its third argument and writes its
// arguments, one a line, to <third argument>/install.args.
std::string make_package(const std::vector<ZipEntry>& bin_files);
// `size` bytes that do not compress.
std::string random_bytes(size_t size);
// The MD5 digest of the bytes, in lower-case hexadecimal.
std::string md5_hex(const std::string& data);

// The server's answer with a package: 200, the digest in "X-Content-Md5", the bytes as body.
HttpTestServer::Response package_answer(const std::string& package);
// Queues a redirect to /packages/<file_name> followed by the package itself.
void serve_package(HttpTestServer& server, const std::string& file_name,
                   const std::string& package);

// Runs scripts/make-update-package.sh with `args`; the path of the package it built (the last
// line it printed), or empty when it failed.
std::string run_make_update_package(const std::string& args);

}  // namespace qvtest
