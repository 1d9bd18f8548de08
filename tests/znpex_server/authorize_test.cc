#include "znpex/server/Authorize.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

using znpex::server::AclParseError;
using znpex::server::AclRules;
using znpex::server::identityMatches;
using znpex::server::isAllowed;
using znpex::server::OpAccess;
using znpex::server::OpTarget;
using znpex::server::parseAclText;

AclRules rulesFrom(const std::string& text) {
    AclParseError err;
    auto r = parseAclText(text, &err);
    EXPECT_TRUE(r.has_value()) << err.text();
    return r.value_or(AclRules{});
}

std::string shippedAcl() {
    std::ifstream in(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls");
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST(AuthorizeTest, IdentityPatterns) {
    struct Case {
        const char* pattern;
        const char* identity;
        bool match;
    };
    const Case cases[] = {
        {"root@LOCALHOST", "root@LOCALHOST", true},
        {"root@LOCALHOST", "root@localhost", true},   // host letter case does not matter
        {"root@LOCALHOST", "ROOT@LOCALHOST", false},  // user names do
        {"root@LOCALHOST", "rooty@LOCALHOST", false},
        {"root@LOCALHOST", "root@LOCALHOST2", false},
        {"root@LOCALHOST", "UNAUTHENT", false},
        {"LOCALHOST", "nobody@LOCALHOST", true},
        {"LOCALHOST", "root@LOCALHOST", true},
        {"LOCALHOST", "root@node1", false},
        {"node1", "admin@NODE1", true},
        {"node1", "UNAUTHENT", false},
        {"*", "root@LOCALHOST", true},
        {"*", "anyone@anywhere", true},
        {"*", "UNAUTHENT", false},  // "*" is every authenticated identity
        {"UNAUTHENT", "UNAUTHENT", true},
        {"UNAUTHENT", "root@LOCALHOST", false},
        {"", "root@LOCALHOST", false},
        {"root@LOCALHOST", "", false},
        {"LOCALHOST", "LOCALHOST", false},  // an identity always names a user
    };
    for (const Case& c : cases) {
        EXPECT_EQ(identityMatches(c.pattern, c.identity), c.match)
            << c.pattern << " vs " << c.identity;
    }
}

struct Expect {
    const char* identity;
    bool classRead, classWrite, resourceRead, resourceWrite;
};

void checkMatrix(const AclRules& rules, const std::string& cls,
                 std::initializer_list<Expect> rows) {
    for (const Expect& e : rows) {
        SCOPED_TRACE(std::string(e.identity) + " on " + cls);
        EXPECT_EQ(isAllowed(rules, e.identity, cls, OpTarget::Class, OpAccess::Read), e.classRead);
        EXPECT_EQ(isAllowed(rules, e.identity, cls, OpTarget::Class, OpAccess::Write),
                  e.classWrite);
        EXPECT_EQ(isAllowed(rules, e.identity, cls, OpTarget::Resource, OpAccess::Read),
                  e.resourceRead);
        EXPECT_EQ(isAllowed(rules, e.identity, cls, OpTarget::Resource, OpAccess::Write),
                  e.resourceWrite);
    }
}

// The list shipped with the system: root here may do anything, everyone here
// may read, nobody else anything.
TEST(AuthorizeTest, ShippedDefaultList) {
    std::string text = shippedAcl();
    ASSERT_FALSE(text.empty()) << "etc/znpex.acls is missing";
    AclRules rules = rulesFrom(text);
    for (const char* cls : {"Kor.ManagedNode", "Kor.NodeGroup", "Some.Other.Class"}) {
        checkMatrix(rules, cls,
                    {{"root@LOCALHOST", true, true, true, true},
                     {"nobody@LOCALHOST", true, false, true, false},
                     {"root@node1", false, false, false, false},
                     {"UNAUTHENT", false, false, false, false}});
    }
}

// A list as the daemon edits it: a node's root gets its class, the
// authentication class is open to everyone (class operations only), and
// OTHER stays as shipped for the rest.
TEST(AuthorizeTest, EditedList) {
    AclRules rules = rulesFrom(shippedAcl() +
                               "Kor.ManagedNode\n"
                               "\t                    root@node1\t* rw # grant root on node1\n"
                               "\t                         node1\t* r  # everyone on node1\n"
                               "\t                root@LOCALHOST\t* rw # root here\n"
                               "\t                     LOCALHOST\t* r  # everyone here\n"
                               "Kor.NodeAuthenticate\n"
                               "\t                             *\tC rw # Everyone\n"
                               "\t                     UNAUTHENT\tC rw # \n"
                               "Kor.Split\n"
                               "\t               reader@LOCALHOST\tR r\n"
                               "\t               writer@LOCALHOST\tC w\n"
                               "\t               writer@LOCALHOST\tR rw\n"
                               "\t                nothing@LOCALHOST\n");
    checkMatrix(rules, "Kor.ManagedNode",
                {{"root@LOCALHOST", true, true, true, true},
                 {"nobody@LOCALHOST", true, false, true, false},
                 {"root@node1", true, true, true, true},
                 {"admin@node1", true, false, true, false},
                 {"root@node2", false, false, false, false},
                 {"UNAUTHENT", false, false, false, false}});
    checkMatrix(rules, "Kor.NodeAuthenticate",
                {{"root@node2", true, true, false, false},
                 {"UNAUTHENT", true, true, false, false},
                 {"nobody@LOCALHOST", true, true, false, false}});
    // A class stanza replaces OTHER entirely: root here has no entry in it.
    checkMatrix(rules, "Kor.Split",
                {{"reader@LOCALHOST", false, false, true, false},
                 {"writer@LOCALHOST", false, true, true, true},
                 {"nothing@LOCALHOST", false, false, false, false},
                 {"root@LOCALHOST", false, false, false, false}});
    // Classes without a stanza still follow OTHER.
    checkMatrix(rules, "Kor.NodeGroup",
                {{"root@node1", false, false, false, false},
                 {"nobody@LOCALHOST", true, false, true, false}});
}

TEST(AuthorizeTest, NoGoverningStanzaRefusesEverything) {
    AclRules rules = rulesFrom("Kor.Only\n\troot@LOCALHOST * rw\n");
    checkMatrix(rules, "Kor.Else", {{"root@LOCALHOST", false, false, false, false}});
    checkMatrix(AclRules{}, "Kor.Only", {{"root@LOCALHOST", false, false, false, false}});
}

}  // namespace
