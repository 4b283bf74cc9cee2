#include "qv_secretbox_encryption.h"

#include <new>

#include "log.h"

namespace {

// Argon2id cost: libsodium's interactive levels, fixed so that every component derives the same
// key from the same password.
constexpr unsigned long long kOpsLimit = 2;
constexpr size_t kMemLimit = 67108864;  // 64 MiB
static_assert(kOpsLimit == crypto_pwhash_OPSLIMIT_INTERACTIVE);
static_assert(kMemLimit == crypto_pwhash_MEMLIMIT_INTERACTIVE);

// Salt shared with every component that decrypts. The derivation reads its first
// crypto_pwhash_SALTBYTES (16) bytes.
constexpr unsigned char kSalt[32] = {
    0x54, 0xb8, 0x0d, 0xfd, 0x2b, 0x98, 0x64, 0xf9, 0xb6, 0xec, 0x5f, 0xb1, 0xf7, 0x4f, 0xc1, 0xee,
    0x17, 0x26, 0x4d, 0x87, 0x5a, 0x69, 0xf7, 0x18, 0x21, 0x42, 0xad, 0xcd, 0x76, 0xe9, 0xc3, 0x71};
static_assert(sizeof(kSalt) >= crypto_pwhash_SALTBYTES);

// libsodium must be initialised before its random generator and primitives are used; the call
// is idempotent and thread-safe.
bool s_sodium_ready() {
    static const bool ready = sodium_init() >= 0;
    if (!ready) {
        log_error("Failed to initialise libsodium");
    }
    return ready;
}

void s_refresh_nonce_hex(qv_secretbox_key_t* key) {
    char hex[QV_SECRETBOX_NONCEBYTES * 2 + 1];
    sodium_bin2hex(hex, sizeof(hex), key->nonce.data(), key->nonce.size());
    key->nonce_hex.assign(hex, QV_SECRETBOX_NONCEBYTES * 2);
}

}  // namespace

qv_secretbox_key_t::~qv_secretbox_key_t() {
    if (!encryption_key.empty()) {
        sodium_memzero(encryption_key.data(), encryption_key.size());
    }
}

std::optional<std::vector<unsigned char>> qv_secretbox_derive_key(std::string_view password) {
    if (!s_sodium_ready()) {
        return std::nullopt;
    }
    std::vector<unsigned char> key;
    try {
        key.resize(QV_SECRETBOX_KEYBYTES);
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for key");
        return std::nullopt;
    }
    if (crypto_pwhash(key.data(), key.size(), password.data(), password.size(), kSalt, kOpsLimit,
                      kMemLimit, crypto_pwhash_ALG_ARGON2ID13) != 0) {
        log_error("Failed to derive key from password and salt");
        return std::nullopt;
    }
    log_trace("Derived key from password and salt");
    return key;
}

std::unique_ptr<qv_secretbox_key_t> qv_secretbox_generate_key(std::string_view password) {
    if (!s_sodium_ready()) {
        log_error("Failed to generate secretbox key struct, cleaning up");
        return nullptr;
    }
    const char* step = "Failed to allocate memory for secretbox key";
    try {
        auto key = std::make_unique<qv_secretbox_key_t>();
        step = "Failed to allocate memory for encryption key";
        key->encryption_key.resize(QV_SECRETBOX_KEYBYTES);
        step = "Failed to allocate memory for nonce";
        key->nonce.resize(QV_SECRETBOX_NONCEBYTES);
        step = "Failed to allocate memory for nonce hex";
        key->nonce_hex.reserve(QV_SECRETBOX_NONCEBYTES * 2);

        randombytes_buf(key->nonce.data(), key->nonce.size());
        s_refresh_nonce_hex(key.get());

        std::optional<std::vector<unsigned char>> derived = qv_secretbox_derive_key(password);
        if (!derived) {
            log_error("Failed to generate secretbox key struct, cleaning up");
            return nullptr;
        }
        key->encryption_key.swap(*derived);
        sodium_memzero(derived->data(), derived->size());
        return key;
    } catch (const std::bad_alloc&) {
        log_error("%s", step);
        log_error("Failed to generate secretbox key struct, cleaning up");
        return nullptr;
    }
}

int qv_secretbox_encrypt_buffer(const unsigned char* plain, size_t plain_len,
                                qv_secretbox_key_t* key, std::vector<unsigned char>* out) {
    if (out != nullptr) {
        out->clear();
    }
    if (plain == nullptr || plain_len == 0 || key == nullptr || out == nullptr ||
        key->encryption_key.size() != QV_SECRETBOX_KEYBYTES ||
        key->nonce.size() != QV_SECRETBOX_NONCEBYTES) {
        log_error("Invalid input");
        return -1;
    }
    if (!s_sodium_ready()) {
        return -1;
    }
    // Advance before use: every buffer gets a nonce this record never used before.
    sodium_increment(key->nonce.data(), key->nonce.size());
    s_refresh_nonce_hex(key);

    try {
        out->resize(plain_len + QV_SECRETBOX_MACBYTES);
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for encrypted buffer");
        return -1;
    }
    log_trace("Encrypting buffer");
    if (crypto_secretbox_easy(out->data(), plain, plain_len, key->nonce.data(),
                              key->encryption_key.data()) != 0) {
        log_error("Failed to encrypt buffer");
        out->clear();
        return -1;
    }
    log_trace("Encrypted buffer: %p", static_cast<void*>(out->data()));
    return 0;
}

int qv_secretbox_decrypt_buffer(const unsigned char* cipher, size_t cipher_len,
                                const qv_secretbox_key_t* key, const unsigned char* nonce,
                                std::vector<unsigned char>* out) {
    if (out != nullptr) {
        out->clear();
    }
    if (cipher == nullptr || cipher_len < QV_SECRETBOX_MACBYTES || key == nullptr ||
        nonce == nullptr || out == nullptr || key->encryption_key.size() != QV_SECRETBOX_KEYBYTES) {
        log_error("Invalid input");
        return -1;
    }
    if (!s_sodium_ready()) {
        return -1;
    }
    try {
        out->resize(cipher_len - QV_SECRETBOX_MACBYTES);
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for decrypted buffer");
        return -1;
    }
    if (crypto_secretbox_open_easy(out->data(), cipher, cipher_len, nonce,
                                   key->encryption_key.data()) != 0) {
        log_error("Failed to decrypt buffer");
        sodium_memzero(out->data(), out->size());
        out->clear();
        return -1;
    }
    return 0;
}
