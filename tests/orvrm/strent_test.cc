#include "orvrm/strent.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> tokens(const strent* list) {
    std::vector<std::string> out;
    for (; list != nullptr; list = list->next) {
        out.emplace_back(list->str);
    }
    return out;
}

using Tokens = std::vector<std::string>;

TEST(StrentTest, ParsestrSplitsAtEverySeparator) {
    struct Case {
        const char* input;
        char sep;
        Tokens expected;
    };
    const Case cases[] = {
        {nullptr, ',', {}},
        {"", ',', {}},
        {",", ',', {""}},
        {"whole string", ',', {"whole string"}},
        {"a,b", ',', {"a", "b"}},
        {"a,,b", ',', {"a", "", "b"}},
        {",a", ',', {"", "a"}},
        {"a,b,", ',', {"a", "b"}},
        {"a,,", ',', {"a", ""}},
        {",,", ',', {"", ""}},
        {"n1\nn2 address not found\n", '\n', {"n1", "n2 address not found"}},
    };
    for (const Case& c : cases) {
        strent* list = parsestr(c.input, c.sep);
        EXPECT_EQ(tokens(list), c.expected) << (c.input ? c.input : "(null)");
        EXPECT_EQ(list == nullptr, c.expected.empty());
        freestrlst(list);
    }
}

TEST(StrentTest, CheckstrinlistComparesWholeStrings) {
    strent* list = parsestr("alpha,beta,", ',');
    struct Case {
        const char* probe;
        const strent* list;
        int expected;
    };
    for (const Case& c : {Case{"alpha", list, 1}, Case{"beta", list, 1}, Case{"alph", list, 0},
                          Case{"alphabet", list, 0}, Case{"", list, 0}, Case{nullptr, list, 0},
                          Case{"alpha", nullptr, 0}}) {
        EXPECT_EQ(checkstrinlist(c.probe, c.list), c.expected) << (c.probe ? c.probe : "(null)");
    }
    freestrlst(list);
}

TEST(StrentTest, CreatestrentCopiesTheString) {
    char text[] = "node1";
    strent* node = createstrent(text);
    ASSERT_NE(node, nullptr);
    text[0] = 'X';
    EXPECT_STREQ(node->str, "node1");
    EXPECT_EQ(node->next, nullptr);
    freestrlst(node);
    EXPECT_EQ(createstrent(nullptr), nullptr);
}

TEST(StrentTest, AddstrtolstLinksAtTheTailAndIgnoresANullList) {
    strent* list = createstrent("a");
    addstrtolst(list, parsestr("b,c", ','));
    addstrtolst(list, createstrent("d"));
    EXPECT_EQ(tokens(list), (Tokens{"a", "b", "c", "d"}));
    freestrlst(list);

    strent* orphan = createstrent("x");
    addstrtolst(nullptr, orphan);  // nothing to link to; the caller keeps the node
    EXPECT_EQ(tokens(orphan), Tokens{"x"});
    freestrlst(orphan);
    freestrlst(nullptr);
}

TEST(StrentTest, AddstrifuniqtolistReportsWhatItDid) {
    EXPECT_EQ(addstrifuniqtolist("a", nullptr), -1);
    strent* list = createstrent("a");
    struct Step {
        const char* add;
        int expected;
    };
    for (const Step& s : {Step{"a", 0}, Step{"b", 1}, Step{"b", 0}, Step{"", 1}, Step{"", 0},
                          Step{"c", 1}, Step{nullptr, -1}}) {
        EXPECT_EQ(addstrifuniqtolist(s.add, list), s.expected) << (s.add ? s.add : "(null)");
    }
    EXPECT_EQ(tokens(list), (Tokens{"a", "b", "", "c"}));
    freestrlst(list);
}

}  // namespace
