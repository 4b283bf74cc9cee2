#include <gtest/gtest.h>

#include <string>

#include "log_capture.h"
#include "qv_json.h"
#include "qv_test_util.h"
#include "qvctrl_load_config_to_json.h"

namespace {

struct LoadConfig : ::testing::Test {
    qvtest::TempDir dir;
    qvtest::LogCapture log;

    std::string file(const std::string& name, const std::string& text) {
        const std::string path = dir / name;
        qvtest::write_file(path, text);
        return path;
    }
    static std::string text(const qv::json_ptr& array) {
        return array ? qv_json_to_string(array.get()) : "(null)";
    }
};

}  // namespace

TEST_F(LoadConfig, LinesBecomePairsSplitAtTheFirstSeparator) {
    // The first 8191 bytes of an overlong line are one piece without a separator; the rest is a
    // line of its own.
    const std::string path = file("scan.cfg",
                                  "# a comment\n"
                                  "MAXSIZE = 100\r\n"
                                  "no separator here\n"
                                  "EXPR=a = b\n"
                                  "   # indented: not a comment=yes\n"
                                  "EMPTY=\n"
                                  "=orphan value\n" +
                                      std::string(8191, 'k') + "K=v\n" + "LAST=tail");
    EXPECT_EQ(text(load_config_to_json(nullptr, path.c_str(), "=", 1, 1)),
              R"([["MAXSIZE","100"],["EXPR","a = b"],["# indented: not a comment","yes"],)"
              R"(["EMPTY",""],["","orphan value"],["K","v"],["LAST","tail"]])");

    // "->" with both flags clear: only the trimming ends a value; a CR inside it stays.
    const std::string xlat = file("xlat", "application/x-zip -> zip\nx->a\rb \n");
    EXPECT_EQ(text(load_config_to_json(nullptr, xlat.c_str(), "->", 0, 0)),
              R"([["application/x-zip","zip"],["x","a\rb"]])");
}

TEST_F(LoadConfig, RepeatsAreKeptInOrderOrUpdatedInTheirFirstPlace) {
    const std::string base = file("base.cfg", "A=1\nB=2\nA=3\n");
    const std::string site = file("site.cfg", "B=20\nC=30\n");
    EXPECT_EQ(text(load_config_to_json(nullptr, base.c_str(), "=", 1, 0)),
              R"([["A","1"],["B","2"],["A","3"]])");
    // With updating, a later value takes the earlier place, across merged files too.
    qv::json_ptr merged = load_config_to_json(nullptr, base.c_str(), "=", 1, 1);
    merged = load_config_to_json(std::move(merged), site.c_str(), "=", 1, 1);
    EXPECT_EQ(text(merged), R"([["A","3"],["B","20"],["C","30"]])");
    // An array that already holds the key twice gets both updated.
    qv::json_ptr twice = load_config_to_json(nullptr, base.c_str(), "=", 1, 0);
    twice = load_config_to_json(std::move(twice), file("a.cfg", "A=9\n").c_str(), "=", 1, 1);
    EXPECT_EQ(text(twice), R"([["A","9"],["B","2"],["A","9"]])");

    // A missing file leaves the array as it was.
    const std::string missing = dir / "missing.cfg";
    twice = load_config_to_json(std::move(twice), missing.c_str(), "=", 1, 1);
    EXPECT_EQ(text(twice), R"([["A","9"],["B","2"],["A","9"]])");
    EXPECT_TRUE(log.contains("Failed to load " + missing + ": No such file or directory"));
    EXPECT_EQ(text(load_config_to_json(nullptr, missing.c_str(), "=", 1, 1)), "[]");
}
