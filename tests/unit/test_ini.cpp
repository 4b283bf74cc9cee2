#include <gtest/gtest.h>

#include <string>

#include "ini.h"
#include "qv_test_util.h"

namespace {

class IniFile : public ::testing::Test {
  protected:
    std::unique_ptr<ini_t> load(const std::string& text) {
        const std::string path = dir_ / "test.ini";
        qvtest::write_file(path, text);
        return ini_load(path.c_str());
    }
    // The value text, or "<absent>".
    static std::string get(const ini_t* ini, const char* section, const char* key) {
        const char* value = ini_get(ini, section, key);
        return value != nullptr ? value : "<absent>";
    }

    qvtest::TempDir dir_;
};

}  // namespace

TEST_F(IniFile, SectionsKeysAndWhiteSpace) {
    auto ini = load(
        "TOP=before any header\r\n"
        "[GLOBAL]\r\n"
        "  Key = 1 \r\n"
        "\tmy key\t=  a b  \r\n"
        "[other] INLINE=2\n"
        "[unclosed\n"
        "K=3");
    ASSERT_TRUE(ini);
    EXPECT_EQ(get(ini.get(), "", "TOP"), "before any header");
    EXPECT_EQ(get(ini.get(), "global", "KEY"), "1");
    EXPECT_EQ(get(ini.get(), "GLOBAL", "My Key"), "a b");
    EXPECT_EQ(get(ini.get(), "OTHER", "inline"), "2");
    EXPECT_EQ(get(ini.get(), "unclosed", "K"), "3");
    EXPECT_EQ(get(ini.get(), nullptr, "K"), "3");
    EXPECT_EQ(get(ini.get(), "GLOBAL", "TOP"), "<absent>");
    EXPECT_EQ(get(ini.get(), "GLOBAL", "INLINE"), "<absent>");
}

TEST_F(IniFile, LinesThatDefineNothingDoNotDisturbTheRest) {
    auto ini = load(
        "[s]\n"
        "; A=commented out\n"
        "no equals sign here\n"
        "EMPTY=\n"
        "BLANK=  \t\r\n"
        "QUOTED=\"\"\n"
        "=orphan\n"
        "AFTER=ok ; not a comment\n"
        "AFTER=second\n"
        "BRACKET=[t]\n"
        "LAST=still s\n");
    ASSERT_TRUE(ini);
    for (const char* key : {"A", "EMPTY", "BLANK", "QUOTED", "orphan", "no equals sign here"}) {
        EXPECT_EQ(get(ini.get(), nullptr, key), "<absent>") << key;
    }
    EXPECT_EQ(get(ini.get(), "s", "AFTER"), "ok ; not a comment");
    // A value that looks like a header does not open a section.
    EXPECT_EQ(get(ini.get(), "s", "LAST"), "still s");
    EXPECT_EQ(get(ini.get(), "t", "LAST"), "<absent>");
}

TEST_F(IniFile, QuotedValues) {
    auto ini = load(
        "TAB=\"a\\tb\" trailing words\n"
        "ESC=\"x\\\"y\\\\z\\n\"\n"
        "OPEN=\"runs to the line end\n"
        "CUT=\"ab\\\n"
        "NEXT=1\n");
    ASSERT_TRUE(ini);
    EXPECT_EQ(get(ini.get(), nullptr, "TAB"), "a\tb");
    EXPECT_EQ(get(ini.get(), nullptr, "ESC"), "x\"y\\z\n");
    EXPECT_EQ(get(ini.get(), nullptr, "OPEN"), "runs to the line end");
    EXPECT_EQ(get(ini.get(), nullptr, "CUT"), "ab");
    EXPECT_EQ(get(ini.get(), nullptr, "NEXT"), "1");
}
