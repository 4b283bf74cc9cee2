#include <gtest/gtest.h>

#include <string>

#include "qv_validate.h"

using namespace std::string_literals;

namespace {

// Texts that no name of any kind may hold: protocol injection, blanks, wildcards, expansion.
const std::string s_hostile[] = {"w\r\nPUB $JS.API.STREAM.DELETE.KV_qv-av-config 0\r\n",
                                 "a b",
                                 "a\0b"s,
                                 "*",
                                 ">",
                                 "a.*",
                                 "$JS.API.STREAM.PURGE.KV_qv-av-config",
                                 "${HOME}",
                                 "~root",
                                 "a;b",
                                 "caf\xc3\xa9",
                                 ""};

}  // namespace

TEST(Validate, KeysUseTheBucketAlphabetWithoutEmptyTokens) {
    for (const char* good :
         {"qv-av-mimescan.host.example.com_7", "a", "A-Z_0=9/x.y", "scan-1f-2a-3b"}) {
        EXPECT_TRUE(qv_valid_key(good)) << good;
    }
    for (const std::string& bad : s_hostile) {
        EXPECT_FALSE(qv_valid_key(bad)) << bad;
        EXPECT_FALSE(qv_valid_name(bad)) << bad;
        EXPECT_FALSE(qv_valid_handler_subject(bad)) << bad;
    }
    for (const char* bad : {".a", "a.", "a..b", "."}) {
        EXPECT_FALSE(qv_valid_key(bad)) << bad;
    }
    EXPECT_TRUE(qv_valid_key(std::string(255, 'k')));
    EXPECT_FALSE(qv_valid_key(std::string(256, 'k')));
    // A caller with a larger bound of its own (configuration keys) passes it.
    EXPECT_FALSE(qv_valid_key(std::string(70000, 'k'), QV_KV_KEY_MAX));
}

TEST(Validate, NamesAreOnePathComponentAndHandlersForeignSubjects) {
    EXPECT_TRUE(qv_valid_name("realm-1.eu"));
    for (const char* bad : {"/", ".", "..", "a/b", "../etc", "a..b"}) {
        EXPECT_FALSE(qv_valid_name(bad)) << bad;
    }
    EXPECT_TRUE(qv_valid_handler_subject("notify.handler-1"));
    EXPECT_TRUE(qv_valid_handler_subject("qv-av-control.other"));
    for (const char* own : {"qv-av-log", "qv-av-events-dispatch", "qv-av-worker-control",
                            "qv-av-control", "qv-av-control.ping", "qv-av-epolog"}) {
        EXPECT_FALSE(qv_valid_handler_subject(own)) << own;
        EXPECT_TRUE(qv_is_own_service_subject(own)) << own;
    }
    EXPECT_FALSE(qv_valid_handler_subject("_INBOX.abc.1"));
    EXPECT_FALSE(qv_valid_handler_subject(std::string(5000, 'h')));
}

TEST(Validate, PublishSubjectsAndPatternLists) {
    EXPECT_TRUE(qv_valid_publish_subject("$KV.qv-av-scan-data.scan-1-2-3-0"));
    EXPECT_TRUE(qv_valid_publish_subject("_INBOX.x.y"));
    for (const char* bad : {"", "a b", "a\r\nb", "a.*", "a.>", "a*b", "a..b", ".a", "a."}) {
        EXPECT_FALSE(qv_valid_publish_subject(bad)) << bad;
    }
    EXPECT_FALSE(qv_valid_publish_subject(std::string(QV_SUBJECT_MAX + 1, 's')));

    // Pattern lists keep their wildcards.
    for (const char* good : {"*", "host1;host2", "h?st*;;", "", "qv-av-*"}) {
        EXPECT_TRUE(qv_valid_pattern_list(good)) << good;
    }
    for (const char* bad : {"a b", "a\nb", ">", "$x", "${HOME}"}) {
        EXPECT_FALSE(qv_valid_pattern_list(bad)) << bad;
    }
    EXPECT_FALSE(qv_valid_pattern_list(std::string(256, '*')));
}

TEST(Validate, ScanLogPathsStayBelowTheirBaseAndAwayFromOtherLogs) {
    for (const char* good : {"scan.log", "daily/2024-03/scan.log", "realm.scan.log"}) {
        EXPECT_TRUE(qv_valid_log_path(good)) << good;
    }
    for (const char* bad :
         {"/etc/passwd", "../scan.log", "daily/../../x.log", "daily//scan.log", "daily/",
          "./scan.log", "epo.log", "daily/epo.log", "error.log", "block.log", "status.log",
          "update.log", "scan.log_2024-01-01__00-00-00.zip", "qv-av-control.trc",
          "${HOME}/scan.log", "~/scan.log", "scan\r\n.log", "scan log"}) {
        EXPECT_FALSE(qv_valid_log_path(bad)) << bad;
    }
}

TEST(Validate, StagedManifestMustAgreeWithItsSize) {
    constexpr size_t chunk = 524288;
    constexpr uint64_t max = 256ULL << 20;
    EXPECT_TRUE(qv_valid_staged_manifest(1, 0, chunk, max));
    EXPECT_TRUE(qv_valid_staged_manifest(3, chunk + 1, chunk, max));  // one chunk too many
    EXPECT_FALSE(qv_valid_staged_manifest(4, chunk + 1, chunk, max));
    EXPECT_FALSE(qv_valid_staged_manifest(1, chunk + 1, chunk, max));
    EXPECT_FALSE(qv_valid_staged_manifest(3815, 2000000000, chunk, max));  // over the limit
    EXPECT_TRUE(qv_valid_staged_manifest(3815, 2000000000, chunk, 2000000000));
    EXPECT_FALSE(qv_valid_staged_manifest(-1, 10, chunk, max));
    EXPECT_FALSE(qv_valid_staged_manifest(1, -10, chunk, max));
    EXPECT_FALSE(qv_valid_staged_manifest(INT64_MAX, INT64_MAX, chunk, UINT64_MAX));
}

TEST(Validate, EscapingForTheTraceLogAndForLogLines) {
    EXPECT_EQ(qv_escape_for_log("a\r\nb\\c\t\x01\xff"), "a\\r\\nb\\\\c\\t\\x01\\xFF");
    EXPECT_EQ(qv_escape_for_log(std::string(100, 'x')), std::string(64, 'x') + "...");
    EXPECT_EQ(qv_escape_log_field("a\r\nforged;line\r\n"), "a\\r\\nforged;line\\r\\n");
    EXPECT_EQ(qv_escape_log_field("nul\0del\x7f"s), "nul\\x00del\\x7F");
    // Non-ASCII text (file names in UTF-8) is kept as it is.
    EXPECT_EQ(qv_escape_log_field("caf\xc3\xa9"), "caf\xc3\xa9");
}
