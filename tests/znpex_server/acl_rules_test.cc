#include "znpex/server/AclRules.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using znpex::server::AclEntry;
using znpex::server::AclParseError;
using znpex::server::AclRules;
using znpex::server::AclScope;
using znpex::server::parseAclText;

AclRules parseOk(const std::string& text) {
    AclParseError err;
    auto rules = parseAclText(text, &err);
    EXPECT_TRUE(rules.has_value()) << err.text();
    return rules.value_or(AclRules{});
}

TEST(AclRulesTest, EntryLinesInTheirWrittenForms) {
    struct Case {
        const char* line;
        const char* identity;
        AclScope scope;
        bool read;
        bool write;
    };
    const Case cases[] = {
        // As the editor writes them: tab, identity in 30 columns, tab, type, perms, comment.
        {"\t                root@LOCALHOST\t* rw # root on this node", "root@LOCALHOST",
         AclScope::Both, true, true},
        {"\t                     LOCALHOST\t* r  # read only", "LOCALHOST", AclScope::Both, true,
         false},
        {"\t                             *\tC rw # Everyone has access", "*", AclScope::Class, true,
         true},
        {"\t                     UNAUTHENT\tC rw # ", "UNAUTHENT", AclScope::Class, true, true},
        {" admin@node7 R w", "admin@node7", AclScope::Resource, false, true},
        {"\tnode7 * wr", "node7", AclScope::Both, true, true},
        // Level 0 writes no letters; an unknown type writes none either.
        {"\t  guest@h\tC    # nothing", "guest@h", AclScope::Class, false, false},
        {"\t  guest@h\t     # nothing", "guest@h", AclScope::None, false, false},
        {"5host R r", "5host", AclScope::Resource, true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        AclRules rules = parseOk(std::string("Kor.Test\n") + c.line + "\n");
        ASSERT_EQ(rules.stanzas.count("Kor.Test"), 1u);
        const auto& entries = rules.stanzas.at("Kor.Test");
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].identity, c.identity);
        EXPECT_EQ(entries[0].scope, c.scope);
        EXPECT_EQ(entries[0].read, c.read);
        EXPECT_EQ(entries[0].write, c.write);
        EXPECT_EQ(entries[0].line, 2);
    }
}

TEST(AclRulesTest, StanzasCommentsAndFiller) {
    AclRules rules = parseOk(
        "# heading comment\n"
        "\n"
        "Kor.ManagedNode  trailing words are ignored\n"
        "\troot@LOCALHOST * rw\n"
        "#\tcommented@out * rw\n"
        "   \t  \n"
        "\tnode1 R r # a node\n"
        "OTHER\n"
        "\tLOCALHOST * r\n"
        "Kor.ManagedNode\n"
        "\tlate@host C w\n");
    ASSERT_EQ(rules.stanzas.size(), 2u);
    const auto& mn = rules.stanzas.at("Kor.ManagedNode");
    ASSERT_EQ(mn.size(), 3u);  // a repeated header adds to the same stanza
    EXPECT_EQ(mn[0].identity, "root@LOCALHOST");
    EXPECT_EQ(mn[1].identity, "node1");
    EXPECT_EQ(mn[2].identity, "late@host");
    EXPECT_EQ(mn[2].line, 11);
    EXPECT_EQ(rules.entryCount(), 4u);
    // No final newline is fine too.
    EXPECT_EQ(parseOk("OTHER\n\t* * r").stanzas.at("OTHER").size(), 1u);
}

TEST(AclRulesTest, StanzaLookupFallsBackToOther) {
    AclRules rules = parseOk("Kor.A\n\ta@h * r\nOTHER\n\tb@h * r\n");
    ASSERT_NE(rules.stanzaFor("Kor.A"), nullptr);
    EXPECT_EQ(rules.stanzaFor("Kor.A")->at(0).identity, "a@h");
    EXPECT_EQ(rules.stanzaFor("Kor.B")->at(0).identity, "b@h");
    EXPECT_EQ(rules.stanzaFor("kor.a")->at(0).identity, "b@h");  // names compare exactly
    AclRules noOther = parseOk("Kor.A\n\ta@h * r\n");
    EXPECT_EQ(noOther.stanzaFor("Kor.B"), nullptr);
}

TEST(AclRulesTest, LongLinesAreReadInPieces) {
    // A 600-character comment line: its second piece starts with a letter
    // and so reads as a header, as the editor would read it.
    std::string text = "OTHER\n#" + std::string(510, 'x') + "Kor.Tail\n\tt@h * r\n";
    AclRules rules = parseOk(text);
    ASSERT_EQ(rules.stanzas.count("Kor.Tail"), 1u);
    EXPECT_EQ(rules.stanzas.at("Kor.Tail").at(0).line, 4);
}

TEST(AclRulesTest, RefusedTextsNameTheLine) {
    struct Case {
        std::string text;
        int line;
        const char* message;
    };
    const Case cases[] = {
        {"\troot@h * rw\nOTHER\n", 1, "before any stanza header"},
        {"OTHER\n\troot@h X rw\n", 2, "unknown type 'X'"},
        {"OTHER\n\troot@h c rw\n", 2, "unknown type 'c'"},
        {"OTHER\n\troot@h * rx\n", 2, "unknown permissions 'rx'"},
        {"OTHER\n\troot@h * rr\n", 2, "unknown permissions 'rr'"},
        {"OTHER\n\troot@h * rw extra\n", 2, "unexpected text 'extra'"},
        {"OTHER\n\t@h * rw\n", 2, "malformed identity '@h'"},
        {"OTHER\n\troot@ * rw\n", 2, "malformed identity 'root@'"},
        {"OTHER\n\ta@b@c * rw\n", 2, "malformed identity 'a@b@c'"},
        {std::string("OTHER\n\troot@h * r\0w\n", 18), 2, "zero byte"},
        {"", 0, "no stanza"},
        {"# only comments\n\n", 0, "no stanza"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        AclParseError err;
        EXPECT_FALSE(parseAclText(c.text, &err).has_value());
        EXPECT_EQ(err.line, c.line);
        EXPECT_NE(err.message.find(c.message), std::string::npos) << err.message;
        if (c.line > 0) {
            EXPECT_EQ(err.text().rfind("line " + std::to_string(c.line) + ": ", 0), 0u);
        }
    }
}

}  // namespace
