// Resource-manager requests and replies: every operation maps to its method
// name and back, every field of a request and a reply survives the trip, and
// malformed params are refused naming the field.
#include <gtest/gtest.h>

#include "tests/znpex_proto/ZnValues.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/RequestCodec.h"

namespace zv = testsupport::zv;
using namespace znpex::proto;
using tarn_rmf2v::RMRequest;
using tarn_rmf2v::RMRequestOp;

namespace {

// A request with every field set, so the codec has to carry all of them.
RMRequest fullRequest(RMRequestOp op) {
    RMRequest r;
    r.op = op;
    r.className = "Kor.ManagedNode";
    r.handle = zv::handleOf(1);
    r.handles = {zv::handleOf(2), zv::handleOf(3)};
    r.ids = {0, 5, -1};
    r.values.push_back({1, zv::str("node1")});
    r.values.push_back({7, zv::array(ZN_UINT64_ARRAY, zv::list(zv::u64(~0ull)))});
    r.monitoring = {{1, 0}, {2, 3}};
    r.actionId = 4;
    r.input.reset(zv::sd(zv::list(zv::str("arg"), zv::i32(9))).release().ptr_sd);
    r.selection = "Hostname == \"n1\"";
    r.matchSetId = 18446744073709551615ull;
    r.nodeIds = {1ull, 9007199254740993ull};
    r.offlineOptions = 1;
    r.acl = zv::bin("acl-bytes");
    return r;
}

TEST(RequestCodec, EveryOperationHasItsMethodName) {
    EXPECT_EQ(allRequestOps().size(), 35u);
    for (RMRequestOp op : allRequestOps()) {
        std::string m = rmMethod(op);
        EXPECT_EQ(m, std::string("rm.") + tarn_rmf2v::requestOpName(op));
        auto back = opFromRmMethod(m);
        ASSERT_TRUE(back.has_value()) << m;
        EXPECT_EQ(*back, op);
    }
    EXPECT_EQ(rmMethod(RMRequestOp::EnumerateResources), "rm.enumerateResources");
    EXPECT_EQ(rmMethod(RMRequestOp::GetAttributeValues), "rm.getAttributeValues");
    EXPECT_EQ(rmMethod(RMRequestOp::InvokeClassAction), "rm.invokeClassAction");
    EXPECT_EQ(rmMethod(RMRequestOp::DefineResource), "rm.defineResource");
    for (const char* notOps : {"rm.", "rm.register", "enumerateResources", "rm.EnumerateResources",
                               "session.start", ""}) {
        EXPECT_FALSE(opFromRmMethod(notOps).has_value()) << notOps;
    }
}

TEST(RequestCodec, EveryOperationRoundTripsWithAllItsFields) {
    for (RMRequestOp op : allRequestOps()) {
        SCOPED_TRACE(tarn_rmf2v::requestOpName(op));
        RMRequest in = fullRequest(op);
        Json p = encodeRequestParams(in, "root@LOCALHOST");
        EXPECT_EQ(p["class"], "Kor.ManagedNode");
        EXPECT_EQ(p["identity"], "root@LOCALHOST");
        EXPECT_EQ(p.contains("handle"), tarn_rmf2v::isResourceOp(op));
        std::string identity;
        RMRequest out = decodeRequestParams(op, Json::parse(p.dump()), &identity);
        EXPECT_EQ(identity, "root@LOCALHOST");
        EXPECT_EQ(out.op, op);
        EXPECT_EQ(out.className, in.className);
        if (tarn_rmf2v::isResourceOp(op)) {
            EXPECT_TRUE(out.handle == in.handle);
        }
        ASSERT_EQ(out.handles.size(), 2u);
        EXPECT_TRUE(out.handles[1] == in.handles[1]);
        EXPECT_EQ(out.ids, in.ids);
        ASSERT_EQ(out.values.size(), 2u);
        EXPECT_EQ(out.values[1].id, 7);
        EXPECT_TRUE(zn_value_equal(ZN_UINT64_ARRAY, out.values[1].value.value(),
                                   in.values[1].value.value()));
        ASSERT_EQ(out.monitoring.size(), 2u);
        EXPECT_EQ(out.monitoring[1].rm_attribute_id, 2);
        EXPECT_EQ(out.monitoring[1].rm_options, 3u);
        ASSERT_TRUE(out.input);
        zn_value_t a, b;
        a.ptr_sd = in.input.get();
        b.ptr_sd = out.input.get();
        EXPECT_TRUE(zn_value_equal(ZN_SD_PTR, a, b));
        EXPECT_EQ(out.selection, in.selection);
        EXPECT_EQ(out.nodeIds, in.nodeIds);
        ASSERT_EQ(out.acl.type(), ZN_BINARY_PTR);
        EXPECT_TRUE(zn_value_equal(ZN_BINARY_PTR, out.acl.value(), in.acl.value()));
        // Operation-specific scalars travel only with their operations.
        bool action = op == RMRequestOp::InvokeAction || op == RMRequestOp::InvokeClassAction;
        EXPECT_EQ(out.actionId, action ? 4 : 0);
        bool matchSet =
            op == RMRequestOp::StartMonitoringMatchSet || op == RMRequestOp::StopMonitoringMatchSet;
        EXPECT_EQ(out.matchSetId, matchSet ? 18446744073709551615ull : 0ull);
        EXPECT_EQ(out.offlineOptions, op == RMRequestOp::Offline ? 1u : 0u);
        // Encoding what was decoded gives the same params.
        EXPECT_EQ(encodeRequestParams(out, identity), p);
    }
}

TEST(RequestCodec, MinimalRequestsCarryOnlyTheirClass) {
    RMRequest r;
    r.op = RMRequestOp::EnumerateResources;
    r.className = "Kor.NodeGroup";
    EXPECT_EQ(encodeRequestParams(r), Json::parse(R"({"class":"Kor.NodeGroup"})"));
    r.op = RMRequestOp::EnumerateSelectResources;
    EXPECT_EQ(encodeRequestParams(r), Json::parse(R"({"class":"Kor.NodeGroup","selection":""})"));
    r.op = RMRequestOp::Offline;
    r.handle = zv::handleOf(0);
    EXPECT_EQ(encodeRequestParams(r)["offlineOptions"], 0);
}

TEST(RequestCodec, MalformedParamsAreRefusedNamingTheField) {
    struct Case {
        RMRequestOp op;
        std::string params;
        const char* message;
    };
    const std::string h = "\"" + std::string(40, 'a') + "\"";
    const std::vector<Case> cases = {
        {RMRequestOp::EnumerateResources, R"([])", "params: expected an object"},
        {RMRequestOp::EnumerateResources, R"({})", "params: missing field \"class\""},
        {RMRequestOp::EnumerateResources, R"({"class":5})", "params.class: expected a string"},
        {RMRequestOp::GetAttributeValues, R"({"class":"C"})", "missing field \"handle\""},
        {RMRequestOp::GetAttributeValues, R"({"class":"C","handle":"xyz"})", "params.handle"},
        {RMRequestOp::EnumerateResources, R"({"class":"C","handle":)" + h + "}",
         "is a class operation"},
        {RMRequestOp::UndefineResources, R"({"class":"C","handles":["ab"]})", "params.handles[0]"},
        {RMRequestOp::GetClassAttributeValues, R"({"class":"C","ids":[1,"2"]})",
         "params.ids[1]: expected a 32-bit signed integer"},
        {RMRequestOp::SetClassAttributeValues, R"({"class":"C","values":[{"id":1,"t":2}]})",
         "params.values[0]: missing field \"v\""},
        {RMRequestOp::StartMonitoringClassAttrs, R"({"class":"C","monitoring":[{"id":1}]})",
         "params.monitoring[0]: missing field \"options\""},
        {RMRequestOp::InvokeClassAction, R"({"class":"C","actionId":"1"})", "params.actionId"},
        {RMRequestOp::InvokeClassAction, R"({"class":"C","input":{"t":8,"v":"x"}})",
         "params.input: expected structured data"},
        {RMRequestOp::EnumerateSelectResources, R"({"class":"C","selection":1})",
         "params.selection: expected a string"},
        {RMRequestOp::StopMonitoringMatchSet, R"({"class":"C","matchSetId":5})",
         "params.matchSetId: expected a 64-bit unsigned integer as a decimal string"},
        {RMRequestOp::SetClassACL, R"({"class":"C","acl":{"t":8,"v":"x"}})",
         "params.acl: expected a binary value"},
        {RMRequestOp::EnumerateResources, R"({"class":"C","identity":7})",
         "params.identity: expected a string"},
    };
    Json online = Json::parse(R"({"class":"C","nodeIds":[1]})");
    online["handle"] = std::string(40, 'a');
    for (const auto& c : cases) {
        SCOPED_TRACE(c.params);
        std::string identity;
        try {
            decodeRequestParams(c.op, Json::parse(c.params), &identity);
            ADD_FAILURE() << "accepted";
        } catch (const ProtocolError& e) {
            EXPECT_EQ(e.code(), kInvalidParams);
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
    }
    EXPECT_THROW(decodeRequestParams(RMRequestOp::Online, online), ProtocolError);
}

TEST(RequestCodec, ReplyRoundTripsWithEveryField) {
    tarn_rmf2v::RMReply in;
    cu_error_t* e = nullptr;
    cu_pkg_error_1(&e, 0x1000e, nullptr, "tarn.rmf.cat", 2, 14, "%1$s is not supported",
                   "enumerateResources");
    in.error.reset(e);
    in.values.push_back({2, zv::u32(1)});
    tarn_rmf2v::RMReplyItem ok;
    ok.id = 3;
    in.items.push_back(std::move(ok));
    tarn_rmf2v::RMReplyItem bad;
    bad.hasHandle = true;
    bad.handle = zv::handleOf(9);
    bad.error.reset(cu_dup_error_1(in.error.get()));
    in.items.push_back(std::move(bad));
    in.handles = {zv::handleOf(4)};
    in.hasNewHandle = true;
    in.newHandle = zv::handleOf(5);
    in.actionData.emplace_back(zv::sd(zv::list(zv::str("out"))).release().ptr_sd);
    in.actionData.emplace_back(zv::sd({}).release().ptr_sd);
    in.acl = zv::bin("x");

    Json j = encodeReply(in);
    EXPECT_EQ(j["items"][0], Json::parse(R"({"id":3})"));
    EXPECT_FALSE(j["items"][1].contains("id"));
    EXPECT_EQ(j["error"]["text"], "enumerateResources is not supported");
    tarn_rmf2v::RMReply out = decodeReply(Json::parse(j.dump()));
    EXPECT_TRUE(out.completed);
    ASSERT_TRUE(out.error);
    EXPECT_EQ(out.error->cu_error_id, 0x1000e);
    EXPECT_EQ(cu_error_text(out.error.get()), "enumerateResources is not supported");
    ASSERT_EQ(out.items.size(), 2u);
    EXPECT_EQ(out.items[0].id, 3);
    EXPECT_FALSE(out.items[0].hasHandle);
    EXPECT_FALSE(out.items[0].error);
    EXPECT_EQ(out.items[1].id, -1);
    EXPECT_TRUE(out.items[1].handle == zv::handleOf(9));
    ASSERT_TRUE(out.items[1].error);
    ASSERT_EQ(out.handles.size(), 1u);
    EXPECT_TRUE(out.hasNewHandle);
    EXPECT_TRUE(out.newHandle == zv::handleOf(5));
    ASSERT_EQ(out.actionData.size(), 2u);
    EXPECT_EQ(out.actionData[1]->element_count, 0u);
    EXPECT_EQ(encodeReply(out), j);
}

TEST(RequestCodec, EmptyReplyHasItsListsAndNothingElse) {
    tarn_rmf2v::RMReply r;
    EXPECT_EQ(encodeReply(r),
              Json::parse(R"({"values":[],"items":[],"handles":[],"actionData":[]})"));
    tarn_rmf2v::RMReply back = decodeReply(Json::object());
    EXPECT_FALSE(back.error);
    EXPECT_FALSE(back.hasNewHandle);
    EXPECT_EQ(back.acl.type(), ZN_UNKNOWN);
}

TEST(RequestCodec, MalformedRepliesAreRefused) {
    for (const char* bad :
         {R"([])", R"({"error":{}})", R"({"values":{}})", R"({"items":[5]})",
          R"({"items":[{"handle":"12"}]})", R"({"handles":[null]})", R"({"newHandle":0})",
          R"({"actionData":[{"t":19,"v":[]}]})", R"({"acl":{"t":11,"v":[]}})"}) {
        EXPECT_THROW(decodeReply(Json::parse(bad)), ProtocolError) << bad;
    }
}

}  // namespace
