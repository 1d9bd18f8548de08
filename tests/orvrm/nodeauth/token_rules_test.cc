// The names a request may store the node's token under: its own, never
// another node's, never this host's.
#include <unistd.h>

#include "tests/orvrm/nodeauth/NodeAuthFixture.h"

namespace nodeauthtest {
namespace {

TEST_F(NodeAuthTest, ListNamesOfAnotherNodeAreNotTaken) {
    // Node B enrolls under its names.
    WEX_COMMON::NodeRequestSpec b = spec(512, "nodeb.example", 0xB);
    b.ownNames = {"nodeb", "10.1.1.2"};
    ASSERT_FALSE(request(b).error);
    std::string ownersBefore = testsupport::readFile(zn::paths::resolve(zn::paths::kThlOwnersFile));

    // Node A's request is signed for A, with B's names appended in both lists.
    WEX_COMMON::NodeRequestSpec a = spec(512, "nodea.example", 0xA);
    a.ownNames = {"nodea", "nodeb"};
    a.seenNames = {"nodeb.example", "10.1.1.2"};
    RMReply r = request(a);
    ASSERT_FALSE(r.error) << classtest::errorText(r.error);

    // Nothing of B changed; A got its own names.
    for (const char* name : {"nodeb.example", "nodeb", "10.1.1.2"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(storedToken(name), b.token);
    }
    EXPECT_EQ(storedToken("nodea"), a.token);
    EXPECT_EQ(storedToken("nodea.example"), a.token);
    EXPECT_EQ(modeOf("nodeb.example"), "Managed");
    std::string owners = testsupport::readFile(zn::paths::resolve(zn::paths::kThlOwnersFile));
    EXPECT_NE(owners.find("nodeb 000000000000000b"), std::string::npos) << owners;
    EXPECT_EQ(owners.find("nodeb 000000000000000a"), std::string::npos) << owners;
    EXPECT_NE(ownersBefore, owners);  // A's names were added
}

TEST_F(NodeAuthTest, HostNameOfAnotherNodeRefusesTheRequest) {
    ASSERT_FALSE(request(spec(512, "nodeb.example", 0xB)).error);
    std::vector<uint8_t> before = storedToken("nodeb.example");
    // A request (validly signed: the frame's key is shared) naming B's host
    // with another id: B's node answers for that name, and none of the
    // request's other names is stored either.
    WEX_COMMON::NodeRequestSpec c = spec(512, "nodeb.example", 0xC);
    c.ownNames = {"nodec"};
    RMReply r = request(c);
    EXPECT_EQ(classtest::errorId(r.error), 267);
    EXPECT_NE(classtest::errorText(r.error).find("2655-040"), std::string::npos);
    EXPECT_TRUE(storedToken("nodec").empty());
    EXPECT_EQ(storedToken("nodeb.example"), before);
    EXPECT_EQ(nodeCount(), 1u);
}

TEST_F(NodeAuthTest, ThisHostsOwnNamesNeverTakeANodesToken) {
    char own[256] = {};
    ASSERT_EQ(gethostname(own, sizeof own - 1), 0);
    WEX_COMMON::NodeRequestSpec s = spec();
    s.ownNames = {"localhost", own, "127.0.0.1"};
    s.seenNames = {"LOCALHOST.localdomain"};
    RMReply r = request(s);
    ASSERT_FALSE(r.error) << classtest::errorText(r.error);
    for (const std::string& name :
         {std::string("localhost"), std::string(own), std::string("127.0.0.1"),
          std::string("localhost.localdomain")}) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(storedToken(name).empty());
    }
    EXPECT_EQ(storedToken(kNode), s.token);

    // As the request's own host name: refused with the storing message.
    r = request(spec(512, own, 0x12));
    EXPECT_EQ(classtest::errorId(r.error), 267);
    EXPECT_NE(
        classtest::errorText(r.error).find(std::string("2655-040 An error occurred when "
                                                       "storing the public key of the node ") +
                                           own),
        std::string::npos)
        << classtest::errorText(r.error);
    EXPECT_TRUE(storedToken(own).empty());
}

TEST_F(NodeAuthTest, ATokenOfUnknownOriginIsNotReplaced) {
    // An administrator's entry for a name no request stored.
    std::vector<uint8_t> admin = tokenOf("administrator's key");
    sec_buffer_s t{static_cast<uint32_t>(admin.size()), admin.data()};
    ASSERT_EQ(sec_store_host_token("gateway", &t), 0);
    WEX_COMMON::NodeRequestSpec s = spec();
    s.seenNames = {"gateway"};
    ASSERT_FALSE(request(s).error);
    EXPECT_EQ(storedToken("gateway"), admin);
}

}  // namespace
}  // namespace nodeauthtest
