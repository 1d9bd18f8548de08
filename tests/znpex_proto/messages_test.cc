// Class definitions, the service's own messages and the notifications: each
// round-trips, and damaged ones are refused.
#include <gtest/gtest.h>

#include "tests/znpex_proto/ZnValues.h"
#include "znpex/proto/ClassDefCodec.h"
#include "znpex/proto/ClientAuth.h"
#include "znpex/proto/NotifyMessages.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ServiceMessages.h"

namespace zv = testsupport::zv;
using namespace znpex::proto;

namespace {

tarn_rmf2v::RMClassDef sampleClass() {
    tarn_rmf2v::RMClassDef d;
    d.name = "Kor.NodeGroup";
    d.classPersistent = {{"Version", 0, ZN_CHAR_PTR, 1}};
    d.classDynamic = {{"Count", 0, ZN_UINT32, 2}};
    d.persistent = {{"Name", 0, ZN_CHAR_PTR, 5},
                    {"MemberList", 1, ZN_CHAR_PTR_ARRAY, 0},
                    {"NodeIds", 2, ZN_UINT64_ARRAY, 0}};
    d.dynamic = {{"Status", 1, ZN_UINT32, 0}};
    d.classActions = {{"Refresh", 0, {}}};
    d.actions = {{"AddMembers", 1, {ZN_CHAR_PTR_ARRAY, ZN_INT32}}};
    return d;
}

TEST(ClassDefCodec, DefinitionRoundTrips) {
    tarn_rmf2v::RMClassDef in = sampleClass();
    Json j = encodeClassDef(in);
    EXPECT_EQ(j["persistent"][1], Json::parse(R"({"name":"MemberList","id":1,"t":19,"props":0})"));
    EXPECT_EQ(j["actions"][0], Json::parse(R"({"name":"AddMembers","id":1,"input":[19,2]})"));
    tarn_rmf2v::RMClassDef out = decodeClassDef(j, "c");
    EXPECT_EQ(encodeClassDef(out), j);
    ASSERT_NE(findAttr(out.persistent, "NodeIds"), nullptr);
    EXPECT_EQ(findAttr(out.persistent, "NodeIds")->type, ZN_UINT64_ARRAY);
    EXPECT_EQ(findAttr(out.persistent, "nodeids"), nullptr);
    ASSERT_NE(findAction(out.actions, "AddMembers"), nullptr);
    EXPECT_EQ(findAction(out.actions, "AddMembers")->input.size(), 2u);
}

TEST(ClassDefCodec, ClassListEntriesAddManagerAndState) {
    ClassInfo c{sampleClass(), "Kor.ORVRM", true};
    Json list = Json::array({encodeClassInfo(c)});
    EXPECT_EQ(list[0]["rm"], "Kor.ORVRM");
    EXPECT_EQ(list[0]["connected"], true);
    auto back = decodeClassList(list);
    ASSERT_EQ(back.size(), 1u);
    EXPECT_EQ(back[0].rm, "Kor.ORVRM");
    EXPECT_TRUE(back[0].connected);
    EXPECT_EQ(back[0].def.name, "Kor.NodeGroup");
    // Lists may be left out; a class of actions only is still a class.
    ClassInfo bare = decodeClassInfo(Json::parse(R"({"class":"Kor.NodeAuthenticate"})"), "c");
    EXPECT_TRUE(bare.def.persistent.empty());
    EXPECT_FALSE(bare.connected);
}

TEST(ClassDefCodec, DamagedDefinitionsAreRefused) {
    const std::pair<const char*, const char*> bad[] = {
        {R"({})", "c: missing field \"class\""},
        {R"({"class":""})", "c.class: a name of 1 to 256"},
        {R"({"class":"C","persistent":{}})", "c.persistent: expected an array"},
        {R"({"class":"C","persistent":[{"name":"A","id":0}]})",
         "c.persistent[0]: missing field \"t\""},
        {R"({"class":"C","dynamic":[{"name":"A","id":0,"t":12}]})", "unknown data type 12"},
        {R"({"class":"C","dynamic":[{"name":"A","id":0,"t":2,"props":-1}]})", "c.dynamic[0].props"},
        {R"({"class":"C","actions":[{"name":"A","id":"x"}]})", "c.actions[0].id"},
        {R"({"class":"C","actions":[{"name":"A","id":1,"input":[2,30]}]})",
         "c.actions[0].input[1]"},
    };
    for (const auto& [wire, message] : bad) {
        SCOPED_TRACE(wire);
        try {
            decodeClassDef(Json::parse(wire), "c");
            ADD_FAILURE() << "accepted";
        } catch (const ProtocolError& e) {
            EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
        }
    }
    Json tooMany{{"class", "C"}, {"persistent", Json::array()}};
    for (size_t i = 0; i <= kMaxAttrsPerList; ++i) {
        tooMany["persistent"].push_back(Json{{"name", "a"}, {"id", 0}, {"t", 2}});
    }
    EXPECT_THROW(decodeClassDef(tooMany, "c"), ProtocolError);
}

TEST(ServiceMessages, SessionRegisterHelloAndConnectionRoundTrip) {
    SessionStartParams sp{0x401, "znpex"};
    SessionStartParams sp2 = decodeSessionStart(encodeSessionStart(sp));
    EXPECT_EQ(sp2.options, 0x401u);
    EXPECT_EQ(sp2.client, "znpex");
    EXPECT_EQ(decodeSessionStart(Json::object()).options, 0u);
    EXPECT_THROW(decodeSessionStart(Json::parse(R"({"options":-1})")), ProtocolError);

    SessionStartResult sr = decodeSessionStarted(encodeSessionStarted({12, "root@LOCALHOST"}));
    EXPECT_EQ(sr.session, 12u);
    EXPECT_EQ(sr.identity, "root@LOCALHOST");
    EXPECT_THROW(decodeSessionStarted(Json::parse(R"({"session":"12","identity":"x"})")),
                 ProtocolError);

    RegisterParams rp{"Kor.ORVRM", {sampleClass()}};
    RegisterParams rp2 = decodeRegister(encodeRegister(rp));
    EXPECT_EQ(rp2.rm, "Kor.ORVRM");
    ASSERT_EQ(rp2.classes.size(), 1u);
    EXPECT_EQ(rp2.classes[0].persistent.size(), 3u);
    EXPECT_THROW(decodeRegister(Json::parse(R"({"rm":"","classes":[]})")), ProtocolError);
    EXPECT_THROW(decodeRegister(Json::parse(R"({"rm":"X"})")), ProtocolError);

    EXPECT_TRUE(decodeConnectionChanged(encodeConnectionChanged(true)));
    EXPECT_FALSE(decodeConnectionChanged(encodeConnectionChanged(false)));
    EXPECT_THROW(decodeConnectionChanged(Json::parse(R"({"connected":1})")), ProtocolError);

    HelloResult h = decodeHello(encodeHello({kUnauthenticated, {}}));
    EXPECT_EQ(h.identity, "UNAUTHENT");
    EXPECT_TRUE(h.methods.empty());
}

TEST(ServiceMessages, AuthHelloResultsNameTheServicesHost) {
    AuthChallenge c{"UNAUTHENT", {kHostKeyMethod}, "mgmt.example", std::vector<uint8_t>(32, 7)};
    AuthChallenge c2 = decodeAuthChallenge(encodeAuthChallenge(c));
    EXPECT_EQ(c2.host, "mgmt.example");
    EXPECT_EQ(c2.challenge, c.challenge);
    // Not given (an older service): empty, and nothing sent for an empty one.
    EXPECT_EQ(decodeAuthChallenge(Json::parse(R"({"identity":"UNAUTHENT"})")).host, "");
    EXPECT_FALSE(encodeAuthChallenge({"UNAUTHENT", {}, "", {}}).contains("host"));
    for (const char* bad : {R"({"identity":"x","host":"no host"})", R"({"identity":"x","host":7})",
                            R"({"identity":"x","host":""})", R"({"identity":"x","host":"-a"})"}) {
        EXPECT_THROW(decodeAuthChallenge(Json::parse(bad)), ProtocolError) << bad;
    }
}

TEST(NotifyMessages, NotificationsRoundTrip) {
    ResourcesUndefined ru{"Kor.ManagedNode", {zv::handleOf(1), zv::handleOf(2)}};
    ResourcesUndefined ru2 = decodeResourcesUndefined(encodeResourcesUndefined(ru));
    EXPECT_EQ(ru2.className, "Kor.ManagedNode");
    ASSERT_EQ(ru2.handles.size(), 2u);
    EXPECT_TRUE(ru2.handles[1] == zv::handleOf(2));

    AttributesModified am;
    am.className = "Kor.ManagedNode";
    am.hasHandle = true;
    am.handle = zv::handleOf(3);
    am.persistent = false;
    am.values.push_back({1, zv::u32(127)});
    Json j = encodeAttributesModified(am);
    EXPECT_EQ(j["values"], Json::parse(R"([{"id":1,"t":3,"v":127}])"));
    AttributesModified am2 = decodeAttributesModified(j);
    EXPECT_TRUE(am2.hasHandle);
    EXPECT_FALSE(am2.persistent);
    EXPECT_EQ(am2.values[0].value.value().val_uint32, 127u);
    j.erase("handle");
    EXPECT_FALSE(decodeAttributesModified(j).hasHandle);

    PeerMessage pm{1, 2, {0, 1, 254, 255}};
    Json pj = encodePeerMessage(pm);
    EXPECT_EQ(pj["data"], "AAH+/w==");
    PeerMessage pm2 = decodePeerMessage(pj);
    EXPECT_EQ(pm2.type, 1);
    EXPECT_EQ(pm2.subtype, 2);
    EXPECT_EQ(pm2.data, pm.data);
}

TEST(NotifyMessages, DamagedNotificationsAreRefused) {
    EXPECT_THROW(decodeResourcesUndefined(Json::parse(R"({"class":"C"})")), ProtocolError);
    EXPECT_THROW(decodeResourcesUndefined(Json::parse(R"({"class":"C","handles":["x"]})")),
                 ProtocolError);
    EXPECT_THROW(decodeAttributesModified(Json::parse(R"({"class":"C","values":[]})")),
                 ProtocolError);
    EXPECT_THROW(decodePeerMessage(Json::parse(R"({"type":1,"subtype":2,"data":"%%"})")),
                 ProtocolError);
    Json big{{"type", 1}, {"subtype", 1}, {"data", std::string(kMaxPeerMessage / 3 * 4 + 8, 'A')}};
    EXPECT_THROW(decodePeerMessage(big), ProtocolError);
}

}  // namespace
