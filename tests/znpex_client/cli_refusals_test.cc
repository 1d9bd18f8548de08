// A resource manager that refuses: list, define, set, undefine and action
// print the catalogue text once (naming the resource and attribute it
// concerns), exit 1, and with -o json carry the error objects on standard
// output; a change refused for some attributes says which were applied.
#include "tests/znpex_client/CliFixture.h"

using namespace testsupport;
namespace proto = znpex::proto;

namespace {

using Args = std::vector<std::string>;

constexpr int kFrequencyNum = 66;
constexpr int kFrequencyId = 0x18000 + kFrequencyNum;
constexpr char kFrequency[] =
    "2655-066 Heartbeat frequency value should be greater than 0 and less than 900.\n";

// The manager's refusal, as its catalogue words it.
zn::ErrorPtr frequencyRefusal() {
    cu_error_t* e = nullptr;
    cu_pkg_error_1(&e, kFrequencyId, nullptr, "Kor.ORVRM.cat", 1, kFrequencyNum, kFrequency);
    return zn::ErrorPtr(e);
}

tarn_rmf2v::RMReplyItem refusedItem(int id) {
    tarn_rmf2v::RMReplyItem item;
    item.id = id;
    item.error = frequencyRefusal();
    return item;
}

// The error object at `pointer` in a -o json output is the refusal.
void expectRefusalAt(const std::string& out, const char* pointer) {
    proto::Json j = proto::Json::parse(out, nullptr, false);
    ASSERT_FALSE(j.is_discarded()) << "not JSON: " << out;
    proto::Json::json_pointer at(pointer);
    ASSERT_TRUE(j.contains(at)) << pointer << " missing in " << out;
    const proto::Json& e = j.at(at);
    ASSERT_TRUE(e.is_object()) << out;
    EXPECT_EQ(e.value("id", 0), kFrequencyId) << out;
    EXPECT_EQ(e.value("cat", ""), "Kor.ORVRM.cat") << out;
    EXPECT_EQ(e.value("num", 0), kFrequencyNum) << out;
    EXPECT_EQ(e.value("text", ""), kFrequency) << out;
}

TEST_F(CliTest, ARequestRefusedAsAWholeFailsWithTheCatalogueText) {
    manager([](const RMRequest&) {
        RMReply reply;
        reply.error = frequencyRefusal();
        return reply;
    });
    struct Case {
        Args args;
        std::string err;      // all of standard error
        const char* pointer;  // where -o json puts the error object
    };
    const std::string text = kFrequency;
    const Case cases[] = {
        {{"list", "Kor.ManagedNode"}, "znpex: " + text, "/error"},
        {{"list", "Kor.ManagedNode", "-s", "NodeId > 0"}, "znpex: " + text, "/error"},
        {{"define", "Kor.ManagedNode", "Hostname=n1"}, "znpex: " + text, "/error"},
        {{"set", "Kor.ManagedNode", "-s", "", "LParID=0"}, "znpex: " + text, "/error"},
        {{"set", "Kor.ManagedNode", "--handle", hex1, "LParID=0"},
         "znpex: " + hex1 + ": " + text,
         "/0/error"},
        {{"set", "Kor.ManagedNode", "--class", "Version=0"}, "znpex: class: " + text, "/0/error"},
        // Refused as a whole: neither handle is reported undefined.
        {{"undefine", "Kor.ManagedNode", "--handle", hex1, "--handle", hex2},
         "znpex: " + text,
         "/error"},
        {{"undefine", "Kor.ManagedNode", "-s", ""}, "znpex: " + text, "/error"},
        {{"action", "Kor.ManagedNode", "SyncData", "--handle", hex1},
         "znpex: " + hex1 + ": " + text,
         "/0/error"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        CliRun r = run(c.args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "");

        Args json = c.args;
        json.insert(json.end(), {"-o", "json"});
        CliRun j = run(json);
        EXPECT_EQ(j.status, 1);
        EXPECT_EQ(j.err, c.err);
        expectRefusalAt(j.out, c.pointer);
    }
}

TEST_F(CliTest, RefusalTextIsRenderedFromTheDefaultAndItsArguments) {
    manager([](const RMRequest&) {
        RMReply reply;
        cu_error_t* e = nullptr;
        cu_pkg_error_1(&e, 0x18005, nullptr, "Kor.ORVRM.cat", 1, 5,
                       "2655-005 Attribute \"%1$s\" must be specified when defining a new "
                       "resource.\n",
                       "NodeId");
        reply.error.reset(e);
        return reply;
    });
    CliRun r = run({"define", "Kor.ManagedNode", "Hostname=n1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "znpex: 2655-005 Attribute \"NodeId\" must be specified when defining a new "
              "resource.\n");
    EXPECT_EQ(r.out, "");
}

TEST_F(CliTest, AChangeRefusedForSomeAttributesNamesThemAndFails) {
    // LParID is refused on the first node; the rest is applied.
    manager([this](const RMRequest& r) {
        RMReply reply;
        if (r.op != RMRequestOp::SetAttributeValues) {
            return reply;
        }
        for (const auto& v : r.values) {
            if (v.id == 3 && r.handle == h1) {
                reply.items.push_back(refusedItem(v.id));
            } else {
                tarn_rmf2v::RMReplyItem applied;
                applied.id = v.id;
                reply.items.push_back(std::move(applied));
            }
        }
        return reply;
    });
    CliRun r = run({"set", "Kor.ManagedNode", "--handle", hex1, "--handle", hex2, "Hostname=n1",
                    "LParID=900"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "Changed " + hex1 + ": Hostname\nChanged " + hex2 + "\n");
    EXPECT_EQ(r.err, "znpex: " + hex1 + " LParID: " + kFrequency);

    CliRun j = run({"set", "Kor.ManagedNode", "--handle", hex1, "--handle", hex2, "Hostname=n1",
                    "LParID=900", "-o", "json"});
    EXPECT_EQ(j.status, 1);
    expectRefusalAt(j.out, "/0/errors/LParID");
    proto::Json out = proto::Json::parse(j.out);
    EXPECT_EQ(out[0]["handle"], hex1);
    EXPECT_EQ(out[0]["errors"].size(), 1u);
    EXPECT_FALSE(out[1].contains("errors")) << j.out;

    // Nothing applied: nothing reported changed.
    CliRun none = run({"set", "Kor.ManagedNode", "--handle", hex1, "LParID=900"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.err, "znpex: " + hex1 + " LParID: " + kFrequency);

    // Every attribute applied everywhere.
    CliRun ok = run({"set", "Kor.ManagedNode", "--handle", hex2, "Hostname=n1", "LParID=900"});
    EXPECT_EQ(ok.status, 0) << ok.err;
    EXPECT_EQ(ok.out, "Changed " + hex2 + "\n");
    EXPECT_EQ(ok.err, "");
}

TEST_F(CliTest, ListNamesTheResourcesAndAttributesItCouldNotRead) {
    manager([this](const RMRequest& r) {
        RMReply reply;
        switch (r.op) {
            case RMRequestOp::EnumerateResources:
                reply.handles = {h1, h2};
                break;
            case RMRequestOp::GetAttributeValues:
                if (r.handle == h1) {
                    reply.error = frequencyRefusal();
                    break;
                }
                reply.values.push_back({0, zv::str("n2")});
                reply.items.push_back(refusedItem(1));
                break;
            default:
                break;
        }
        return reply;
    });
    CliRun r = run({"list", "Kor.ManagedNode", "-a", "Hostname,NodeId"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "znpex: " + hex1 + ": " + kFrequency + "znpex: " + hex2 + " NodeId: " + kFrequency);
    EXPECT_NE(r.out.find(hex2 + "  n2        (error)"), std::string::npos) << r.out;

    CliRun j = run({"list", "Kor.ManagedNode", "-a", "Hostname,NodeId", "-o", "json"});
    EXPECT_EQ(j.status, 1);
    expectRefusalAt(j.out, "/0/error");
    expectRefusalAt(j.out, "/1/errors/NodeId");
    EXPECT_EQ(proto::Json::parse(j.out)[1]["attributes"]["Hostname"], "n2") << j.out;
}

// The service's own refusal (before any manager) reaches scripts too.
TEST_F(CliTest, ServiceRefusalsCarryTheErrorObjectInJson) {
    service->onRm([](const proto::RpcMessage& m) {
        FakeService::Answer a;
        a.reply = FakeService::error(
            m, proto::kPermissionDenied, "denied",
            errorObject(0x30001, "2660-001 Permission denied: %1$s may not do this.\n", "joe"));
        return a;
    });
    CliRun r = run({"undefine", "Kor.ManagedNode", "-s", "", "-o", "json"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "znpex: 2660-001 Permission denied: joe may not do this.\n");
    proto::Json j = proto::Json::parse(r.out);
    EXPECT_EQ(j["error"]["id"], 0x30001) << r.out;
    EXPECT_EQ(j["error"]["text"], "2660-001 Permission denied: joe may not do this.\n");
}

}  // namespace
