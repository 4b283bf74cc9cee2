// Secret-box encryption of message contents (XSalsa20-Poly1305, libsodium's combined form: a
// 16-byte tag followed by the ciphertext) under a key derived from a password with Argon2id.
// The nonce travels beside the encrypted bytes as hex text.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sodium.h>

constexpr size_t QV_SECRETBOX_KEYBYTES = crypto_secretbox_KEYBYTES;      // 32
constexpr size_t QV_SECRETBOX_NONCEBYTES = crypto_secretbox_NONCEBYTES;  // 24
constexpr size_t QV_SECRETBOX_MACBYTES = crypto_secretbox_MACBYTES;      // 16

// A key with its running nonce. The nonce advances on every encryption, so a record must not be
// shared between threads nor copied (a copy would reuse nonces); the key bytes are wiped when the
// record goes.
struct qv_secretbox_key_t {
    std::vector<unsigned char> encryption_key;  // QV_SECRETBOX_KEYBYTES bytes
    std::vector<unsigned char> nonce;           // QV_SECRETBOX_NONCEBYTES bytes
    std::string nonce_hex;                      // `nonce` as 48 lower-case hex digits

    qv_secretbox_key_t() = default;
    qv_secretbox_key_t(const qv_secretbox_key_t&) = delete;
    qv_secretbox_key_t& operator=(const qv_secretbox_key_t&) = delete;
    ~qv_secretbox_key_t();
};

// The 32-byte key for `password` (Argon2id 1.3, 2 passes over 64 MiB, the fixed salt shared by
// every component that decrypts). Expensive: derive once per key record. nullopt on failure.
std::optional<std::vector<unsigned char>> qv_secretbox_derive_key(std::string_view password);

// A key record for `password` with a fresh random nonce; null on failure.
std::unique_ptr<qv_secretbox_key_t> qv_secretbox_generate_key(std::string_view password);

// Advances the key's nonce by one (little-endian) and encrypts `plain` with it into *out
// (plain_len + 16 bytes). Send key->nonce_hex as it stands after the call with the bytes.
// 0, or -1 with *out empty (empty input included).
int qv_secretbox_encrypt_buffer(const unsigned char* plain, size_t plain_len,
                                qv_secretbox_key_t* key, std::vector<unsigned char>* out);

// Opens a buffer made by qv_secretbox_encrypt_buffer with the nonce it was sent with
// (QV_SECRETBOX_NONCEBYTES bytes) into *out (cipher_len - 16 bytes). 0, or -1 with *out empty
// when the input is shorter than a tag or does not authenticate.
int qv_secretbox_decrypt_buffer(const unsigned char* cipher, size_t cipher_len,
                                const qv_secretbox_key_t* key, const unsigned char* nonce,
                                std::vector<unsigned char>* out);
