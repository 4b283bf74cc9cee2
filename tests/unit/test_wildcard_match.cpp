#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>

#include "qvhlp_string.h"

namespace {

struct Case {
    const char* text;
    const char* pattern;
    int expected;
};

void expect_all(std::initializer_list<Case> cases, int case_sensitive = 1, char terminator = 0) {
    for (const Case& c : cases) {
        EXPECT_EQ(qvhlp_WildcardTextMatch(c.text, c.pattern, case_sensitive, terminator),
                  c.expected)
            << "text '" << c.text << "' pattern '" << c.pattern << "'";
    }
}

// Plain recursive glob, the reference for patterns with a single '*'.
bool reference(const char* t, const char* p) {
    if (*p == '\0') {
        return *t == '\0';
    }
    if (*p == '*') {
        return reference(t, p + 1) || (*t != '\0' && reference(t + 1, p));
    }
    return *t != '\0' && (*p == '?' || *p == *t) && reference(t + 1, p + 1);
}

}  // namespace

TEST(WildcardMatch, CaseFoldingTerminatorSeveralStarsAndNull) {
    expect_all({{"host2", "HOST2", 0}, {"abc;def", "abc", 0}, {"abc;def", "abc;def", 1}});
    // Case folding covers A-Z only.
    expect_all({{"host2", "HOST2", 1}, {"HOST2", "h?st*", 1}, {"\xc4", "\xe4", 0}}, 0);
    expect_all({{"abc;def", "abc", 1}, {"abc", "a*;zzz", 1}, {"abd;x", "ab?;y", 1}}, 1, ';');
    // Several stars (the comparison below has one at most).
    expect_all({{"", "**", 1}, {"a", "*?*?*", 0}, {"mississippi", "m*issip*pi", 1}});
    expect_all({{"mississippi", "*sis*sip*x", 0}, {"a*b", "a*b", 1}});
    EXPECT_EQ(qvhlp_WildcardTextMatch(nullptr, "*", 1, 0), 0);
    EXPECT_EQ(qvhlp_WildcardTextMatch("a", nullptr, 1, 0), 0);
}

// Covers every pattern of '?', 'a', 'b' and at most one '*' against short texts, the empty ones
// included.
TEST(WildcardMatch, AgreesWithAFullGlobForPatternsWithOneStar) {
    std::mt19937 random(20240611);
    for (int i = 0; i < 200000; ++i) {
        std::string text;
        std::string pattern;
        for (unsigned n = random() % 12; n > 0; --n) {
            text += "aab"[random() % 3];
        }
        bool star = false;
        for (unsigned n = random() % 9; n > 0; --n) {
            char c = "ab*?"[random() % 4];
            pattern += c == '*' && std::exchange(star, true) ? '?' : c;
        }
        ASSERT_EQ(qvhlp_WildcardTextMatch(text.c_str(), pattern.c_str(), 1, 0) == 1,
                  reference(text.c_str(), pattern.c_str()))
            << "text '" << text << "' pattern '" << pattern << "'";
    }
}
