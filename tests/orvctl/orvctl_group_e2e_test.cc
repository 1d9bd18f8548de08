// orvctl's node-group commands against the running service and daemon:
// groups added by members, by selection and of other groups, listed, shown,
// their members changed and read back, the groups of a node, removal, and
// the messages for names nothing has; refusals carry the catalogue's text
// and exit status 1.
#include <nlohmann/json.hpp>

#include "tests/orvctl/OrvctlRun.h"
#include "tests/orvrm/DaemonsFixture.h"

namespace {

using daemonstest::Daemons;
using nlohmann::json;
using orvctltest::orvctl;
using orvctltest::Outcome;

class OrvctlGroups : public Daemons {
protected:
    // Nodes n1 and n3 of model m1, n2 of m2; "rack" holds n1 and n2, "m1s"
    // the nodes of model m1, "all" both groups.
    void defineGroups() {
        for (const char* n : {"n1", "n2", "n3"}) {
            std::string model = std::string("HWModel=") + (n[1] == '2' ? "m2" : "m1");
            ASSERT_EQ(orvctl({"node", "add", n, model}).status, 0);
        }
        const std::vector<std::string> adds[] = {
            {"group", "add", "rack", "--members", "n1,n2"},
            {"group", "add", "m1s", "--select", "HWModel==\"m1\""},
            {"group", "add", "all", "--members", "+rack,+m1s", "--validate"},
        };
        for (const auto& add : adds) {
            Outcome r = orvctl(add);
            ASSERT_EQ(r.status, 0) << r.err;
            EXPECT_EQ(r.out, "Added " + add[2] + "\n");
        }
    }
    // Collapses runs of blanks, so table lines compare without padding.
    static std::string squeezed(const std::string& s) {
        std::string out;
        for (char c : s) {
            if (c != ' ' || out.empty() || out.back() != ' ') {
                out.push_back(c);
            }
        }
        return out;
    }
    // The group's expanded members as orvctl lists them, once they are
    // `want`: the list follows node changes a second after the last one.
    bool membersBecome(const std::string& group, const std::string& want, std::string* got) {
        return testsupport::waitFor(
            [&] {
                *got = orvctl({"group", "members", group}).out;
                return *got == want;
            },
            std::chrono::seconds(10));
    }
};

TEST_F(OrvctlGroups, GroupsAreAddedListedAndShown) {
    defineGroups();
    Outcome ls = orvctl({"group", "ls"});
    ASSERT_EQ(ls.status, 0) << ls.err;
    EXPECT_EQ(squeezed(ls.out),
              "NAME KIND NODES DEFINITION\n"
              "all members 3 +rack,+m1s\n"
              "m1s selection 2 HWModel==\"m1\"\n"
              "rack members 2 n1,n2\n")
        << "by name; nodes counted in the expanded list";

    Outcome show = orvctl({"group", "show", "all"});
    ASSERT_EQ(show.status, 0) << show.err;
    EXPECT_EQ(show.out,
              "Name:        all\n"
              "Kind:        members\n"
              "Definition:  +rack,+m1s\n"
              "Validate:    yes\n"
              "Nodes:       3\n"
              "  n1\n"
              "  n2\n"
              "  n3\n");
    Outcome members = orvctl({"group", "members", "m1s"});
    EXPECT_EQ(members.status, 0) << members.err;
    EXPECT_EQ(members.out, "n1\nn3\n");
    EXPECT_EQ(json::parse(orvctl({"-o", "json", "group", "members", "rack"}).out),
              json::array({"n1", "n2"}));

    auto groups = json::parse(orvctl({"group", "ls", "-o", "json"}).out);
    ASSERT_EQ(groups.size(), 3u);
    const auto& m1s = groups[1]["attributes"];
    EXPECT_EQ(m1s["Name"], "m1s");
    EXPECT_EQ(m1s["SelectStr"], "HWModel==\"m1\"");
    EXPECT_EQ(m1s["ValidateNodes"], 1) << "a selection group is always validated";
    EXPECT_EQ(m1s["ExpMemberList"], json::array({"n1", "n3"}));
    EXPECT_EQ(groups[1]["handle"].get<std::string>().size(), 40u);
    auto one = json::parse(orvctl({"-o", "json", "group", "show", "rack"}).out);
    EXPECT_EQ(one["attributes"]["MemberList"], json::array({"n1", "n2"}));

    // Without --validate member names go unchecked; with it they must be nodes.
    Outcome loose = orvctl({"group", "add", "loose", "--members", "n1,zz"});
    EXPECT_EQ(loose.status, 0) << loose.err;
    EXPECT_EQ(orvctl({"group", "members", "loose"}).out, "n1\nzz\n");
    const std::pair<std::vector<std::string>, std::string> refused[] = {
        {{"group", "add", "strict", "--members", "n1,zz", "--validate"},
         "orvctl: 2655-022  The member name zz specified as part of the MemberList is not a "
         "valid node.\n"},
        {{"group", "add", "rack", "--members", "n3"},
         "orvctl: 2655-013 A node group with name rack already exists.\n"},
        {{"group", "add", "bad", "--select", "Bogus==1"},
         "orvctl: 2655-016  The select string specified for the node group could not be "
         "validated. Please check the select string syntax.\n"},
    };
    for (const auto& [args, err] : refused) {
        SCOPED_TRACE(args[2]);
        Outcome r = orvctl(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, err);
        EXPECT_EQ(r.out, "");
    }
    Outcome asJson = orvctl({"-o", "json", "group", "add", "rack", "--members", "n3"});
    EXPECT_EQ(json::parse(asJson.out)["error"]["text"],
              "2655-013 A node group with name rack already exists.\n");
    Outcome empty = orvctl({"-o", "json", "group", "add", "empty", "--members", ""});
    ASSERT_EQ(empty.status, 0) << empty.err;
    EXPECT_EQ(json::parse(empty.out)["name"], "empty");
    EXPECT_EQ(orvctl({"group", "members", "empty"}).out, "");
}

TEST_F(OrvctlGroups, MembersAreAddedAndRemoved) {
    defineGroups();
    Outcome add = orvctl({"group", "add-members", "rack", "n3"});
    EXPECT_EQ(add.status, 0) << add.err;
    EXPECT_EQ(add.out, "Added n3 to rack\n");
    EXPECT_EQ(orvctl({"group", "members", "rack"}).out, "n1\nn2\nn3\n");
    Outcome rm = orvctl({"group", "rm-members", "rack", "n1", "n2"});
    EXPECT_EQ(rm.status, 0) << rm.err;
    EXPECT_EQ(rm.out, "Removed n1,n2 from rack\n");
    EXPECT_EQ(orvctl({"group", "members", "rack"}).out, "n3\n");
    auto removed = json::parse(orvctl({"-o", "json", "group", "rm-members", "rack", "n3"}).out);
    EXPECT_EQ(removed, json({{"name", "rack"}, {"removed", {"n3"}}}));
    EXPECT_EQ(orvctl({"group", "members", "rack"}).out, "");

    ASSERT_EQ(orvctl({"group", "add-members", "rack", "n1"}).status, 0);
    const std::pair<std::vector<std::string>, std::string> refused[] = {
        {{"group", "add-members", "rack", "n1"},
         "orvctl: 2655-030  At least one of the member names in input list already exists in "
         "the node group current member list.\n"},
        {{"group", "add-members", "rack", "n2", "n2"},
         "orvctl: 2655-015  Duplicate member names in list.\n"},
        {{"group", "add-members", "rack", "zz"},
         "orvctl: 2655-022  The member name zz specified as part of the MemberList is not a "
         "valid node.\n"},
        {{"group", "add-members", "rack", "+all"},
         "orvctl: 2655-023  The node group all cannot be added as a  member of the node group "
         "because it leads to cyclic dependency between the node groups.\n"},
        {{"group", "add-members", "m1s", "n2"},
         "orvctl: 2655-026  MemberList attribute cannot be specified for the node group because "
         "the SelectStr attribute is set.\n"},
        {{"group", "rm-members", "m1s", "n1"},
         "orvctl: 2655-026  MemberList attribute cannot be specified for the node group because "
         "the SelectStr attribute is set.\n"},
    };
    for (const auto& [args, err] : refused) {
        SCOPED_TRACE(args[1] + " " + args[2] + " " + args[3]);
        Outcome r = orvctl(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, err);
        EXPECT_EQ(r.out, "");
    }
    EXPECT_EQ(orvctl({"group", "members", "rack"}).out, "n1\n") << "nothing refused was applied";
}

TEST_F(OrvctlGroups, SelectionGroupsFollowTheNodes) {
    defineGroups();
    ASSERT_EQ(orvctl({"node", "add", "n4", "HWModel=m1"}).status, 0);
    std::string got;
    EXPECT_TRUE(membersBecome("m1s", "n1\nn3\nn4\n", &got)) << got;
    EXPECT_TRUE(membersBecome("all", "n1\nn2\nn3\nn4\n", &got)) << "and the groups holding it\n"
                                                                << got;
    ASSERT_EQ(orvctl({"node", "set", "n1", "HWModel=m2"}).status, 0);
    EXPECT_TRUE(membersBecome("m1s", "n3\nn4\n", &got)) << got;
    EXPECT_EQ(orvctl({"node", "groups", "n1"}).out, "all\nrack\n");
}

TEST_F(OrvctlGroups, TheGroupsOfANodeAreListed) {
    defineGroups();
    ASSERT_EQ(orvctl({"node", "add", "alone"}).status, 0);
    const std::pair<const char*, const char*> cases[] = {
        {"n1", "all\nm1s\nrack\n"},
        {"n2", "all\nrack\n"},
        {"n3", "all\nm1s\n"},
        {"alone", ""},
    };
    for (const auto& [node, groups] : cases) {
        SCOPED_TRACE(node);
        Outcome r = orvctl({"node", "groups", node});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, groups);
    }
    EXPECT_EQ(json::parse(orvctl({"-o", "json", "node", "groups", "n2"}).out),
              json::array({"all", "rack"}));
    EXPECT_EQ(json::parse(orvctl({"-o", "json", "node", "groups", "alone"}).out), json::array());
    Outcome nope = orvctl({"node", "groups", "nope"});
    EXPECT_EQ(nope.status, 1);
    EXPECT_EQ(nope.err, "orvctl: no node named nope\n");
    // A member list may name a host that is no node (yet).
    ASSERT_EQ(orvctl({"group", "add", "later", "--members", "n9"}).status, 0);
    Outcome later = orvctl({"node", "groups", "n9"});
    EXPECT_EQ(later.status, 0) << later.err;
    EXPECT_EQ(later.out, "later\n");
}

TEST_F(OrvctlGroups, GroupsAreRemovedUnlessAnotherHoldsThem) {
    defineGroups();
    Outcome held = orvctl({"group", "rm", "rack", "nope"});
    EXPECT_EQ(held.status, 1);
    EXPECT_EQ(held.out, "");
    EXPECT_EQ(held.err,
              "orvctl: no group named nope\n"
              "orvctl: rack: 2655-019  The node group cannot be removed because it is a member of "
              "another node group.\n");
    Outcome all = orvctl({"group", "rm", "all"});
    EXPECT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(all.out, "Removed all\n");
    Outcome both = orvctl({"-o", "json", "group", "rm", "rack", "gone", "m1s"});
    EXPECT_EQ(both.status, 1) << "one name was no group";
    EXPECT_EQ(json::parse(both.out), json({{"removed", {"rack", "m1s"}}, {"missing", {"gone"}}}));
    Outcome ls = orvctl({"group", "ls"});
    EXPECT_EQ(squeezed(ls.out), "NAME KIND NODES DEFINITION\n");
    EXPECT_EQ(orvctl({"node", "groups", "n1"}).out, "");
}

TEST_F(OrvctlGroups, ANameNoGroupHasIsSaidSo) {
    const std::vector<std::string> commands[] = {
        {"group", "show", "nope"},
        {"group", "members", "nope"},
        {"group", "add-members", "nope", "n1"},
        {"group", "rm-members", "nope", "n1"},
        {"group", "rm", "nope"},
    };
    for (const auto& args : commands) {
        SCOPED_TRACE(args[1]);
        Outcome r = orvctl(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, "orvctl: no group named nope\n");
        EXPECT_EQ(r.out, "");
    }
    Outcome asJson = orvctl({"-o", "json", "group", "show", "nope"});
    EXPECT_EQ(json::parse(asJson.out)["error"]["text"], "no group named nope");
    Outcome quoted = orvctl({"group", "show", "a\"b"});
    EXPECT_EQ(quoted.err, "orvctl: no group named a\"b\n") << "the name is quoted in the selection";
}

}  // namespace
