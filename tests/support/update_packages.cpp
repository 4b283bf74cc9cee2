#include "update_packages.h"

#include <cstdio>
#include <random>
#include <stdexcept>

#include <archive.h>
#include <archive_entry.h>
#include <openssl/evp.h>

#include "qv_handles.h"

namespace qvtest {

namespace {

la_ssize_t s_append(struct archive*, void* out, const void* data, size_t size) {
    static_cast<std::string*>(out)->append(static_cast<const char*>(data), size);
    return static_cast<la_ssize_t>(size);
}

}  // namespace

std::string make_zip(const std::vector<ZipEntry>& entries) {
    std::string bytes;
    qv::archive_write_ptr zip(archive_write_new());
    if (!zip || archive_write_set_format_zip(zip.get()) != ARCHIVE_OK ||
        archive_write_open(zip.get(), &bytes, nullptr, s_append, nullptr) != ARCHIVE_OK) {
        throw std::runtime_error("cannot build a zip archive");
    }
    for (const ZipEntry& e : entries) {
        qv::archive_entry_ptr entry(archive_entry_new());
        archive_entry_set_pathname(entry.get(), e.name.c_str());
        if (!e.symlink.empty()) {
            archive_entry_set_filetype(entry.get(), AE_IFLNK);
            archive_entry_set_symlink(entry.get(), e.symlink.c_str());
            archive_entry_set_perm(entry.get(), 0777);
            archive_write_header(zip.get(), entry.get());
            continue;
        }
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), e.mode);
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(e.data.size()));
        archive_write_header(zip.get(), entry.get());
        archive_write_data(zip.get(), e.data.data(), e.data.size());
    }
    archive_write_close(zip.get());
    return bytes;
}

std::string make_package(const std::vector<ZipEntry>& bin_files) {
    std::vector<ZipEntry> entries = {
        {"install.sh",
         "#!/bin/sh\nset -e\nprintf '%s\\n' \"$1\" \"$2\" \"$3\" > \"$3/install.args\"\n"
         "cp -R \"$1/bin/.\" \"$3/\"\n",
         0644, ""},
    };
    for (ZipEntry file : bin_files) {
        file.name = "bin/" + file.name;
        entries.push_back(std::move(file));
    }
    return make_zip(entries);
}

std::string random_bytes(size_t size) {
    std::string bytes(size, '\0');
    std::mt19937 generator(12345);
    for (char& c : bytes) {
        c = static_cast<char>(generator() & 0xff);
    }
    return bytes;
}

std::string md5_hex(const std::string& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr);
    std::string hex;
    char pair[3];
    for (unsigned int i = 0; i < length; ++i) {
        snprintf(pair, sizeof(pair), "%02x", digest[i]);
        hex += pair;
    }
    return hex;
}

HttpTestServer::Response package_answer(const std::string& package) {
    HttpTestServer::Response answer;
    answer.status = 200;
    answer.body = package;
    answer.content_type = "application/zip";
    answer.headers = {{"X-Content-Md5", md5_hex(package)}};
    return answer;
}

void serve_package(HttpTestServer& server, const std::string& file_name,
                   const std::string& package) {
    HttpTestServer::Response redirect;
    redirect.status = 302;
    redirect.body = "";
    redirect.content_type = "text/plain";
    redirect.headers = {{"Location", "/packages/" + file_name}};
    server.queue(redirect);
    server.queue(package_answer(package));
}

std::string run_make_update_package(const std::string& args) {
    const std::string command =
        std::string("bash ") + QV_SOURCE_DIR + "/scripts/make-update-package.sh " + args + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return "";
    }
    std::string output;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        output.append(buffer, n);
    }
    if (pclose(pipe) != 0) {
        fprintf(stderr, "make-update-package.sh failed:\n%s\n", output.c_str());
        return "";
    }
    while (!output.empty() && output.back() == '\n') {
        output.pop_back();
    }
    const size_t last = output.rfind('\n');
    return last == std::string::npos ? output : output.substr(last + 1);
}

}  // namespace qvtest
