#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <sodium.h>

#include "log_capture.h"
#include "qv_base64_decode.h"
#include "qv_secretbox_encryption.h"
#include "qv_test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string text(const Bytes& data) {
    return {data.begin(), data.end()};
}

Bytes from_hex(const std::string& hex) {
    Bytes out(hex.size() / 2);
    size_t len = 0;
    EXPECT_EQ(
        sodium_hex2bin(out.data(), out.size(), hex.c_str(), hex.size(), nullptr, &len, nullptr), 0);
    out.resize(len);
    return out;
}

// Key derivation costs 64 MiB and two passes: the suite derives its keys once.
class Secretbox : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        key_ = qv_secretbox_generate_key("event password");
        same_password_ = qv_secretbox_generate_key("event password");
        other_password_ = qv_secretbox_generate_key("another password");
    }
    void SetUp() override { ASSERT_TRUE(key_ && same_password_ && other_password_); }

    static Bytes seal(const std::string& plain) {
        const Bytes in(plain.begin(), plain.end());
        Bytes cipher;
        EXPECT_EQ(qv_secretbox_encrypt_buffer(in.data(), in.size(), key_.get(), &cipher), 0);
        return cipher;
    }
    static int unseal(const Bytes& cipher, qv_secretbox_key_t* key, const Bytes& nonce, Bytes* out,
                      size_t length = 0) {
        return qv_secretbox_decrypt_buffer(cipher.data(), length ? length : cipher.size(), key,
                                           nonce.data(), out);
    }

    static inline std::unique_ptr<qv_secretbox_key_t> key_;
    static inline std::unique_ptr<qv_secretbox_key_t> same_password_;
    static inline std::unique_ptr<qv_secretbox_key_t> other_password_;
};

}  // namespace

TEST_F(Secretbox, KeyComesFromThePasswordAndEachMessageTakesTheNextNonce) {
    EXPECT_EQ(key_->encryption_key, same_password_->encryption_key);
    EXPECT_NE(key_->encryption_key, other_password_->encryption_key);
    EXPECT_NE(key_->nonce, same_password_->nonce);

    const Bytes before = key_->nonce;
    const std::string plain = "{\"Event\": \"virus found\", \"File\": \"/tmp/eicar.com\"}";
    const Bytes cipher = seal(plain);
    EXPECT_EQ(cipher.size(), plain.size() + 16);
    // The nonce grew by one before use. Any component that derives from the same password opens
    // the message with the nonce sent in hex.
    Bytes expected = before;
    sodium_increment(expected.data(), expected.size());
    EXPECT_EQ(key_->nonce, expected);
    Bytes opened;
    ASSERT_EQ(unseal(cipher, same_password_.get(), from_hex(key_->nonce_hex), &opened), 0);
    EXPECT_EQ(text(opened), plain);
    EXPECT_EQ(unseal(cipher, same_password_.get(), before, &opened), -1);
    EXPECT_TRUE(opened.empty());
    EXPECT_EQ(unseal(cipher, other_password_.get(), key_->nonce, &opened), -1);
}

TEST_F(Secretbox, NonceAdvancesLittleEndianWithCarry) {
    key_->nonce.assign(24, 0);
    key_->nonce[0] = 0xff;
    key_->nonce[1] = 0x07;
    const Bytes first = seal("same text");
    EXPECT_EQ(key_->nonce_hex, "0008" + std::string(44, '0'));
    EXPECT_NE(seal("same text"), first);
    EXPECT_EQ(key_->nonce_hex, "0108" + std::string(44, '0'));
}

TEST_F(Secretbox, RefusesDamagedAndTruncatedInput) {
    qvtest::LogCapture log;
    const Bytes cipher = seal("scan result");
    Bytes out;
    for (size_t at : {size_t{0}, size_t{15}, cipher.size() - 1}) {
        Bytes damaged = cipher;
        damaged[at] ^= 0x01;
        out = {1, 2, 3};
        EXPECT_EQ(unseal(damaged, key_.get(), key_->nonce, &out), -1);
        EXPECT_TRUE(out.empty());
    }
    EXPECT_EQ(unseal(cipher, key_.get(), key_->nonce, &out, 15), -1);  // shorter than a tag
}

TEST(Base64, RecognisesAndDecodesTheAlphabetSkippingLineBreaksUpToPadding) {
    EXPECT_EQ(is_base64("SGVsbG8s\r\nIHdvcmxk\r\nIQ=="), 1);
    EXPECT_EQ(is_base64("SGVs\tbG8+/w=="), 1);
    EXPECT_EQ(is_base64("SGVsbG8=not base64 after padding"), 1);
    EXPECT_EQ(is_base64("SGVsbG8s IHdvcmxk IQ=="), 0);
    EXPECT_EQ(is_base64("SGVs-bG8_"), 0);  // the URL-safe alphabet is not this one
    EXPECT_EQ(is_base64(std::string_view("SGV\0sbG8", 8)), 0);

    EXPECT_EQ(text(new_base64_decode("SGVsbG8sIHdvcmxkIQ==")), "Hello, world!");
    EXPECT_EQ(text(new_base64_decode("SGVsbG8s\r\nIHdv cmxk\r\nIQ")), "Hello, world!");
    EXPECT_EQ(text(new_base64_decode("YQ")) + text(new_base64_decode("YWI")), "aab");

    // Every byte value, wrapped at 76 columns like a MIME body.
    std::string all(256 * 3, '\0');
    for (size_t i = 0; i < all.size(); ++i) {
        all[i] = static_cast<char>(i * 7);
    }
    const std::string encoded = qvtest::base64(all);
    std::string wrapped;
    for (size_t i = 0; i < encoded.size(); i += 76) {
        wrapped += encoded.substr(i, 76) + "\r\n";
    }
    EXPECT_EQ(is_base64(wrapped), 1);
    EXPECT_EQ(text(new_base64_decode(wrapped)), all);
}
