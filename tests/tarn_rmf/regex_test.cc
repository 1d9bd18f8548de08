// Patterns of "=~": the piece of text a pattern requires, used to skip the
// matcher, must never change an answer; patterns that would blow up the
// compiler are refused.
#include <gtest/gtest.h>
#include <regex.h>

#include <string>

#include "tarn_rmf/registry/RMRegex.h"

namespace {

using tarn_rmf::RMRegex;

TEST(RegistryRegex, TheRequiredPieceIsOnlyWhatEveryMatchMustHold) {
    struct Case {
        const char* pattern;
        const char* literal;
    };
    const Case cases[] = {
        {"^node[0-9]*7\\.rack1[0-9]\\.", "7.rack1"},
        {"cluster\\.example\\.com$", "cluster.example.com"},
        {"abc|abd", ""},                   // a choice at the top
        {"ab(c|d)ef", "ab"},               // a choice inside a group leaves the rest
        {"abcd*", "abc"},                  // "d" may be absent
        {"abc+de", "ab"},                  // "c" repeats: "ab" and "de" are apart
        {"xy?z", ""},                      // pieces shorter than two are not used
        {"a\\wbc", "bc"},                  // \w is a class, not a character
        {"ab\\'cd\\<ef\\`gh\\>ij", "ab"},  // buffer and word assertions are no characters
        {"[a-z]+host[0-9]", "host"},
        {"[]|]x", ""},  // "|" inside brackets is no choice
        {"(node)+", ""},
        {"caf\xc3\xa9?x", "caf"},  // a repeated multibyte character ends the piece
        {"a{2}bcd", "bcd"},
        {"a{2,}bcd{0,1}e", "bc"},
        {"ab{,3}cd", "cd"},  // "{,3}" counts from zero
        {"ab{x}cd", ""},     // braces that aren't a count: nothing is certain
        {"", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(RMRegex::requiredLiteral(c.pattern), c.literal) << c.pattern;
    }
}

TEST(RegistryRegex, SkippingTheMatcherNeverChangesAnAnswer) {
    const char* patterns[] = {"^node[0-9]*7\\.rack1[0-9]\\.",
                              "abcd*",
                              "abc+de",
                              "ab(c|d)ef",
                              "x\\.y\\.z",
                              "a{2}bcd",
                              "^$",
                              "host[0-9]{2,3}$",
                              "[]|]x",
                              "'\\'\\'",
                              "x\\>",
                              "\xb3{,33}",
                              "ab{,3}cd"};
    const char* texts[] = {"node00017.rack12.example",
                           "node7.rack1x.",
                           "abc",
                           "abccde",
                           "abde",
                           "abdef",
                           "abcef",
                           "x.y.z",
                           "xyz",
                           "aabcd",
                           "abcd",
                           "",
                           "host12",
                           "host1234",
                           "]x",
                           "|x",
                           "\'\'\'",
                           "'",
                           "x y",
                           "acd",
                           "{,33}"};
    for (const char* p : patterns) {
        RMRegex re(p);
        ASSERT_TRUE(re.valid()) << p << ": " << re.error();
        regex_t plain;
        ASSERT_EQ(regcomp(&plain, p, REG_EXTENDED | REG_NOSUB), 0);
        for (const char* t : texts) {
            bool expected = regexec(&plain, t, 0, nullptr, 0) == 0;
            EXPECT_EQ(re.search(t, std::char_traits<char>::length(t)), expected)
                << p << " on " << t;
        }
        regfree(&plain);
    }
}

TEST(RegistryRegex, PatternsThatWouldExplodeAreRefused) {
    struct Case {
        std::string pattern;
        const char* why;
    };
    const Case cases[] = {
        {"a**", "a repetition may not follow another"},
        {"((a{50}){50}){50}", "too complex"},
        {"a{256}", "a repetition count above 255"},
        {"(a)\\1", "back-references"},
        {std::string(40, '(') + "a" + std::string(40, ')'), "groups nest too deeply"},
        {std::string(1025, 'a'), "longer than 1024"},
    };
    for (const Case& c : cases) {
        RMRegex re(c.pattern);
        EXPECT_FALSE(re.valid()) << c.pattern;
        EXPECT_NE(re.error().find(c.why), std::string::npos) << c.pattern << ": " << re.error();
        EXPECT_FALSE(re.search("aaaa", 4));
    }
    EXPECT_TRUE(RMRegex("(ab){2}(cd)?x{3,5}").valid());
}

}  // namespace
