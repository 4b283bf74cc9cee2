// RAII owners for the C library objects used across the code base. Each handle is a
// std::unique_ptr with the library's own release function, so that no path leaks or frees twice.
#pragma once

#include <cstdio>
#include <memory>
#include <utility>

#include <archive.h>
#include <archive_entry.h>
#include <curl/curl.h>
#include <json-c/json.h>
#include <nats/nats.h>
#include <openssl/evp.h>
#include <semaphore.h>
#include <unistd.h>

namespace qv {

template <typename T, auto Release>
struct releaser {
    void operator()(T* p) const noexcept {
        if (p != nullptr) {
            Release(p);
        }
    }
};

template <typename T, auto Release>
using handle = std::unique_ptr<T, releaser<T, Release>>;

inline void release_json(json_object* o) {
    json_object_put(o);
}
inline void release_archive_write(struct archive* a) {
    archive_write_free(a);
}
inline void release_archive_read(struct archive* a) {
    archive_read_free(a);
}
inline void release_file(FILE* f) {
    fclose(f);
}
inline void release_sem(sem_t* s) {
    sem_close(s);
}
inline void release_curl_string(char* s) {
    curl_free(s);
}
inline void release_conn(natsConnection* c) {
    natsConnection_Close(c);
    natsConnection_Destroy(c);
}

using json_ptr = handle<json_object, release_json>;
using json_tokener_ptr = handle<json_tokener, json_tokener_free>;
using archive_write_ptr = handle<struct archive, release_archive_write>;
using archive_read_ptr = handle<struct archive, release_archive_read>;
using archive_entry_ptr = handle<struct archive_entry, archive_entry_free>;
using file_ptr = handle<FILE, release_file>;
using sem_ptr = handle<sem_t, release_sem>;
using curl_ptr = handle<CURL, curl_easy_cleanup>;
using curl_mime_ptr = handle<curl_mime, curl_mime_free>;
using curl_slist_ptr = handle<curl_slist, curl_slist_free_all>;
using curl_url_ptr = handle<CURLU, curl_url_cleanup>;
using curl_string_ptr = handle<char, release_curl_string>;
using evp_md_ctx_ptr = handle<EVP_MD_CTX, EVP_MD_CTX_free>;
using nats_options_ptr = handle<natsOptions, natsOptions_Destroy>;
using nats_connection_ptr = handle<natsConnection, release_conn>;
using nats_subscription_ptr = handle<natsSubscription, natsSubscription_Destroy>;
using nats_msg_ptr = handle<natsMsg, natsMsg_Destroy>;
using js_ctx_ptr = handle<jsCtx, jsCtx_Destroy>;
using js_stream_info_ptr = handle<jsStreamInfo, jsStreamInfo_Destroy>;
using kv_store_ptr = handle<kvStore, kvStore_Destroy>;
using kv_entry_ptr = handle<kvEntry, kvEntry_Destroy>;
using kv_watcher_ptr = handle<kvWatcher, kvWatcher_Destroy>;

// An owned file descriptor; -1 means none.
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.fd_, -1));
        }
        return *this;
    }
    ~unique_fd() { reset(); }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

}  // namespace qv
