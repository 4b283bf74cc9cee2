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

std::vector<unsigned char> bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

std::string text(const std::vector<unsigned char>& data) {
    return {data.begin(), data.end()};
}

std::vector<unsigned char> from_hex(const std::string& hex) {
    std::vector<unsigned char> out(hex.size() / 2);
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
    static void TearDownTestSuite() {
        key_.reset();
        same_password_.reset();
        other_password_.reset();
    }

    void SetUp() override {
        ASSERT_NE(key_, nullptr);
        ASSERT_NE(same_password_.get(), nullptr);
        ASSERT_NE(other_password_.get(), nullptr);
    }

    static inline std::unique_ptr<qv_secretbox_key_t> key_;
    static inline std::unique_ptr<qv_secretbox_key_t> same_password_;
    static inline std::unique_ptr<qv_secretbox_key_t> other_password_;
};

}  // namespace

TEST_F(Secretbox, KeyRecordIsDerivedFromThePasswordWithAFreshNonce) {
    EXPECT_EQ(key_->encryption_key.size(), 32u);
    EXPECT_EQ(key_->encryption_key, same_password_->encryption_key);
    EXPECT_NE(key_->encryption_key, other_password_->encryption_key);
    EXPECT_NE(key_->nonce, same_password_->nonce);

    ASSERT_EQ(key_->nonce_hex.size(), 48u);
    EXPECT_EQ(key_->nonce_hex.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(from_hex(key_->nonce_hex), key_->nonce);
}

TEST_F(Secretbox, EncryptsWithTheAdvancedNonceAndDecryptsWithTheSentOne) {
    const std::vector<unsigned char> before = key_->nonce;
    const std::string plain = "{\"Event\": \"virus found\", \"File\": \"/tmp/eicar.com\"}";
    std::vector<unsigned char> cipher;
    ASSERT_EQ(qv_secretbox_encrypt_buffer(bytes(plain).data(), plain.size(), key_.get(), &cipher),
              0);
    EXPECT_EQ(cipher.size(), plain.size() + 16);

    // The nonce grew by one before use, and nonce_hex says so.
    std::vector<unsigned char> expected = before;
    sodium_increment(expected.data(), expected.size());
    EXPECT_EQ(key_->nonce, expected);
    EXPECT_EQ(from_hex(key_->nonce_hex), expected);

    // Any component that derives from the same password opens it with the sent nonce.
    std::vector<unsigned char> opened;
    ASSERT_EQ(qv_secretbox_decrypt_buffer(cipher.data(), cipher.size(), same_password_.get(),
                                          from_hex(key_->nonce_hex).data(), &opened),
              0);
    EXPECT_EQ(text(opened), plain);

    EXPECT_EQ(qv_secretbox_decrypt_buffer(cipher.data(), cipher.size(), same_password_.get(),
                                          before.data(), &opened),
              -1);
    EXPECT_TRUE(opened.empty());
    EXPECT_EQ(qv_secretbox_decrypt_buffer(cipher.data(), cipher.size(), other_password_.get(),
                                          key_->nonce.data(), &opened),
              -1);
}

TEST_F(Secretbox, NonceAdvancesLittleEndianWithCarry) {
    const std::string plain = "same text";
    key_->nonce.assign(24, 0);
    key_->nonce[0] = 0xff;
    key_->nonce[1] = 0x07;

    std::vector<unsigned char> first;
    std::vector<unsigned char> second;
    ASSERT_EQ(qv_secretbox_encrypt_buffer(bytes(plain).data(), plain.size(), key_.get(), &first),
              0);
    EXPECT_EQ(key_->nonce_hex, "0008" + std::string(44, '0'));
    ASSERT_EQ(qv_secretbox_encrypt_buffer(bytes(plain).data(), plain.size(), key_.get(), &second),
              0);
    EXPECT_EQ(key_->nonce_hex, "0108" + std::string(44, '0'));
    EXPECT_NE(first, second);
}

TEST_F(Secretbox, RefusesEmptyAndDamagedInput) {
    qvtest::LogCapture log;

    const std::vector<unsigned char> nonce_before = key_->nonce;
    const unsigned char one = 'x';
    std::vector<unsigned char> out = {1, 2, 3};
    EXPECT_EQ(qv_secretbox_encrypt_buffer(&one, 0, key_.get(), &out), -1);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(key_->nonce, nonce_before);  // a refused call uses up no nonce

    const std::string plain = "scan result";
    std::vector<unsigned char> cipher;
    ASSERT_EQ(qv_secretbox_encrypt_buffer(bytes(plain).data(), plain.size(), key_.get(), &cipher),
              0);
    for (size_t at : {size_t{0}, size_t{15}, cipher.size() - 1}) {
        std::vector<unsigned char> damaged = cipher;
        damaged[at] ^= 0x01;
        out = {1, 2, 3};
        EXPECT_EQ(qv_secretbox_decrypt_buffer(damaged.data(), damaged.size(), key_.get(),
                                              key_->nonce.data(), &out),
                  -1);
        EXPECT_TRUE(out.empty());
    }
    EXPECT_EQ(qv_secretbox_decrypt_buffer(cipher.data(), 15, key_.get(), key_->nonce.data(), &out),
              -1);
    EXPECT_TRUE(log.contains("Invalid input")) << log.text();
    EXPECT_TRUE(log.contains("Failed to decrypt buffer")) << log.text();
}

TEST(Base64, RecognisesTheAlphabetWithLineBreaksUpToPadding) {
    EXPECT_EQ(is_base64("SGVsbG8s\r\nIHdvcmxk\r\nIQ=="), 1);
    EXPECT_EQ(is_base64("SGVsbG8s IHdvcmxk IQ=="), 0);
    EXPECT_EQ(is_base64("SGVs\tbG8+/w=="), 1);
    EXPECT_EQ(is_base64("SGVsbG8=not base64 after padding"), 1);
    EXPECT_EQ(is_base64("SGVs-bG8_"), 0);  // the URL-safe alphabet is not this one
    EXPECT_EQ(is_base64(std::string_view("SGV\0sbG8", 8)), 0);
    EXPECT_EQ(is_base64(""), 1);
}

TEST(Base64, DecodesSkippingEverythingOutsideTheAlphabet) {
    EXPECT_EQ(text(new_base64_decode("SGVsbG8sIHdvcmxkIQ==")), "Hello, world!");
    EXPECT_EQ(text(new_base64_decode("SGVsbG8s\r\nIHdv cmxk\r\nIQ")), "Hello, world!");
    EXPECT_EQ(text(new_base64_decode("YQ")), "a");
    EXPECT_EQ(text(new_base64_decode("YWI")), "ab");
    EXPECT_EQ(text(new_base64_decode("YWJj")), "abc");
    EXPECT_TRUE(new_base64_decode("").empty());
    EXPECT_TRUE(new_base64_decode("=\r\n").empty());

    // Every byte value, encoded by libsodium and wrapped at 76 columns like a MIME body.
    std::vector<unsigned char> all(256 * 3);
    for (size_t i = 0; i < all.size(); ++i) {
        all[i] = static_cast<unsigned char>(i * 7);
    }
    std::string encoded(sodium_base64_encoded_len(all.size(), sodium_base64_VARIANT_ORIGINAL),
                        '\0');
    sodium_bin2base64(encoded.data(), encoded.size(), all.data(), all.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    encoded.resize(encoded.find('\0'));
    std::string wrapped;
    for (size_t i = 0; i < encoded.size(); i += 76) {
        wrapped += encoded.substr(i, 76) + "\r\n";
    }
    EXPECT_EQ(is_base64(wrapped), 1);
    EXPECT_EQ(new_base64_decode(wrapped), all);
}
