// Requests: each px_ call sends the operation, ids and values the class
// definition calls for, and turns the manager's reply (values, per-item
// errors, handles, action data, whole-request errors) into its response.
#include "tests/znpex_client/ClientFixture.h"
#include "znpex/client/ClientErrors.h"

using namespace testsupport;
namespace zv = testsupport::zv;
namespace proto = znpex::proto;
using tarn_rmf2v::RMReply;
using tarn_rmf2v::RMRequest;
using tarn_rmf2v::RMRequestOp;

namespace {

// A manager in the test: decodes each request with the protocol library and
// answers with the reply the test builds.
class RequestsTest : public ClientTest {
protected:
    using Build = std::function<RMReply(const RMRequest&)>;
    void manager(Build build) {
        service->onRm([build](const proto::RpcMessage& m) {
            auto op = proto::opFromRmMethod(m.method);
            RMRequest r = proto::decodeRequestParams(*op, m.params);
            FakeService::Answer a;
            a.reply = FakeService::result(m, proto::encodeReply(build(r)));
            return a;
        });
        startLocal();
    }
    static zn::ErrorPtr err(int id, const char* text) {
        cu_error_t* e = nullptr;
        cu_pkg_error_1(&e, id, nullptr, "tarn.rmf.cat", 2, 1, text);
        return zn::ErrorPtr(e);
    }
    // Requests of the rm.* method in order, decoded.
    std::vector<RMRequest> rmRequests(RMRequestOp op) {
        std::vector<RMRequest> out;
        for (auto& m : requestsOf(proto::rmMethod(op))) {
            out.push_back(proto::decodeRequestParams(op, m.params));
        }
        return out;
    }
    const zn_resource_handle h1 = zv::handleOf(1);
    const zn_resource_handle h2 = zv::handleOf(2);
};

TEST_F(RequestsTest, EnumerateWithAndWithoutSelection) {
    manager([&](const RMRequest& r) {
        RMReply reply;
        if (r.op == RMRequestOp::EnumerateSelectResources) {
            reply.handles = {h2};
        } else {
            reply.handles = {h1, h2};
        }
        return reply;
    });
    px_enumerate_rsp_t* all = nullptr;
    ASSERT_EQ(px_enumerate_select(session, "Kor.ManagedNode", nullptr, &all), PX_OK);
    ASSERT_EQ(all->handle_count, 2u);
    EXPECT_TRUE(all->handles[0] == h1);
    EXPECT_EQ(all->hdr.pr_error, nullptr);
    px_free_response(all);
    px_enumerate_rsp_t* some = nullptr;
    ASSERT_EQ(px_enumerate_select(session, "Kor.ManagedNode", "Hostname == \"n2\"", &some), PX_OK);
    ASSERT_EQ(some->handle_count, 1u);
    EXPECT_TRUE(some->handles[0] == h2);
    px_free_response(some);
    auto selects = rmRequests(RMRequestOp::EnumerateSelectResources);
    ASSERT_EQ(selects.size(), 1u);
    EXPECT_EQ(selects[0].selection, "Hostname == \"n2\"");
    EXPECT_EQ(rmRequests(RMRequestOp::EnumerateResources).size(), 1u);
}

TEST_F(RequestsTest, AManagerErrorIsInTheResponseNotTheCall) {
    manager([&](const RMRequest&) {
        RMReply reply;
        reply.error = err(0x1000e, "enumerateResources is not supported");
        return reply;
    });
    px_enumerate_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_enumerate_select(session, "Kor.ManagedNode", "", &rsp), PX_OK);
    ASSERT_NE(rsp->hdr.pr_error, nullptr);
    EXPECT_EQ(rsp->hdr.pr_error->cu_error_id, 0x1000e);
    EXPECT_EQ(cu_error_text(rsp->hdr.pr_error), "enumerateResources is not supported");
    EXPECT_EQ(rsp->handle_count, 0u);
    px_free_response(rsp);
}

TEST_F(RequestsTest, PersistentQueryByHandlesSendsIdsAndNamesTheValues) {
    manager([&](const RMRequest& r) {
        RMReply reply;
        reply.values.push_back({0, zv::str(r.handle == h1 ? "n1" : "n2")});
        reply.values.push_back({1, zv::u64(18446744073709551615ull)});
        return reply;
    });
    const char* names[] = {"Hostname", "NodeId"};
    zn_resource_handle hs[] = {h1, h2};
    px_resources_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_query_persistent_attrs(session, "Kor.ManagedNode", hs, 2, names, 2, &rsp), PX_OK);
    ASSERT_EQ(rsp->resource_count, 2u);
    for (uint32_t i = 0; i < 2; ++i) {
        const px_resource_rsp_t& e = rsp->resources[i];
        EXPECT_TRUE(e.handle == hs[i]);
        EXPECT_EQ(e.is_class, 0);
        ASSERT_EQ(e.attr_count, 2u);
        EXPECT_STREQ(e.attrs[0].pv_name, "Hostname");
        EXPECT_STREQ(e.attrs[0].pv_value.ptr_char, i == 0 ? "n1" : "n2");
        EXPECT_STREQ(e.attrs[1].pv_name, "NodeId");
        EXPECT_EQ(e.attrs[1].pv_type, ZN_UINT64);
        EXPECT_EQ(e.attrs[1].pv_value.val_uint64, 18446744073709551615ull);
    }
    px_free_response(rsp);
    auto sent = rmRequests(RMRequestOp::GetAttributeValues);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].ids, (std::vector<int>{0, 1}));
    EXPECT_TRUE(sent[1].handle == h2);
}

TEST_F(RequestsTest, NoNamesMeansEveryAttributeOfTheKind) {
    manager([&](const RMRequest&) { return RMReply(); });
    px_resources_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_query_persistent_attrs(session, "Kor.ManagedNode", &h1, 1, nullptr, 0, &rsp),
              PX_OK);
    px_free_response(rsp);
    ASSERT_EQ(px_query_dynamic_attrs(session, "Kor.ManagedNode", &h1, 1, nullptr, 0, &rsp), PX_OK);
    px_free_response(rsp);
    EXPECT_EQ(rmRequests(RMRequestOp::GetAttributeValues).at(0).ids,
              (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(rmRequests(RMRequestOp::ReportDynAttributeValues).at(0).ids,
              (std::vector<int>{1, 2}));
}

TEST_F(RequestsTest, UnknownNamesFailBeforeAnythingIsSent) {
    manager([&](const RMRequest&) { return RMReply(); });
    const char* names[] = {"Hostname", "Nope"};
    px_resources_rsp_t* rsp = nullptr;
    EXPECT_EQ(px_query_persistent_attrs(session, "Kor.ManagedNode", &h1, 1, names, 2, &rsp),
              PX_EINVAL);
    EXPECT_EQ(rsp, nullptr);
    EXPECT_EQ(threadError()->cu_error_id, znpex::client::PXC_ENOATTR);
    EXPECT_EQ(threadErrorText(),
              "2661-007 The class Kor.ManagedNode has no persistent attribute named Nope.\n");
    // A dynamic attribute is not a persistent one.
    const char* dyn[] = {"Status"};
    EXPECT_EQ(px_query_persistent_attrs(session, "Kor.ManagedNode", &h1, 1, dyn, 1, &rsp),
              PX_EINVAL);
    EXPECT_TRUE(rmRequests(RMRequestOp::GetAttributeValues).empty());
}

TEST_F(RequestsTest, SelectedQueryAsksEachResourceAndKeepsPerItemErrors) {
    manager([&](const RMRequest& r) {
        RMReply reply;
        if (r.op == RMRequestOp::EnumerateSelectResources) {
            reply.handles = {h1, h2};
        } else if (r.handle == h1) {
            reply.values.push_back({1, zv::u32(1)});
            tarn_rmf2v::RMReplyItem item;
            item.id = 2;
            item.error = err(0x10006, "no such attribute");
            reply.items.push_back(std::move(item));
        } else {
            reply.error = err(0x10008, "no such resource");
        }
        return reply;
    });
    const char* names[] = {"Status", "PowerStatus"};
    px_resources_rsp_t* rsp = nullptr;
    ASSERT_EQ(
        px_query_dynamic_attrs_select(session, "Kor.ManagedNode", "LParID > 0", names, 2, &rsp),
        PX_OK);
    ASSERT_EQ(rsp->resource_count, 2u);
    const px_resource_rsp_t& first = rsp->resources[0];
    ASSERT_EQ(first.attr_count, 2u);
    EXPECT_STREQ(first.attrs[0].pv_name, "Status");
    EXPECT_EQ(first.attrs[0].pv_value.val_uint32, 1u);
    EXPECT_STREQ(first.attrs[1].pv_name, "PowerStatus");
    ASSERT_NE(first.attrs[1].pv_error, nullptr);
    EXPECT_EQ(first.attrs[1].pv_error->cu_error_id, 0x10006);
    EXPECT_EQ(first.error, nullptr);
    ASSERT_NE(rsp->resources[1].error, nullptr);
    EXPECT_EQ(rsp->resources[1].error->cu_error_id, 0x10008);
    px_free_response(rsp);
    EXPECT_EQ(rmRequests(RMRequestOp::ReportDynAttributeValues).size(), 2u);
}

TEST_F(RequestsTest, ClassQueriesHaveOneClassEntry) {
    manager([&](const RMRequest& r) {
        RMReply reply;
        if (r.op == RMRequestOp::GetClassAttributeValues) {
            reply.values.push_back({0, zv::str("1.0")});
        } else {
            reply.values.push_back({0, zv::u32(12)});
        }
        return reply;
    });
    px_resources_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_query_persistent_class_attrs(session, "Kor.ManagedNode", nullptr, 0, &rsp), PX_OK);
    ASSERT_EQ(rsp->resource_count, 1u);
    EXPECT_EQ(rsp->resources[0].is_class, 1);
    EXPECT_STREQ(rsp->resources[0].attrs[0].pv_name, "Version");
    EXPECT_STREQ(rsp->resources[0].attrs[0].pv_value.ptr_char, "1.0");
    px_free_response(rsp);
    const char* names[] = {"Count"};
    ASSERT_EQ(px_query_dynamic_class_attrs(session, "Kor.ManagedNode", names, 1, &rsp), PX_OK);
    EXPECT_EQ(rsp->resources[0].attrs[0].pv_value.val_uint32, 12u);
    px_free_response(rsp);
    EXPECT_EQ(rmRequests(RMRequestOp::ReportDynClassAttributeValues).at(0).ids,
              std::vector<int>{0});
}

TEST_F(RequestsTest, DefineChecksTypesAndSendsValuesAndOptions) {
    manager([&](const RMRequest&) {
        RMReply reply;
        reply.hasNewHandle = true;
        reply.newHandle = h2;
        return reply;
    });
    zn::OwnedValue host = zv::str("node9");
    zn::OwnedValue ips = zv::array(ZN_CHAR_PTR_ARRAY, zv::list(zv::str("10.0.0.9")));
    px_attr_t attrs[] = {{"Hostname", ZN_CHAR_PTR, host.value()},
                         {"IPAddresses", ZN_CHAR_PTR_ARRAY, ips.value()}};
    zn::OwnedValue opts = zv::sd(zv::list(zv::u32(1)));
    px_define_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_define_resource(session, "Kor.ManagedNode", attrs, 2, opts.value().ptr_sd, &rsp),
              PX_OK);
    EXPECT_EQ(rsp->has_handle, 1);
    EXPECT_TRUE(rsp->handle == h2);
    px_free_response(rsp);
    auto sent = rmRequests(RMRequestOp::DefineResource);
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_EQ(sent[0].values.size(), 2u);
    EXPECT_EQ(sent[0].values[1].id, 2);
    EXPECT_TRUE(zn_value_equal(ZN_CHAR_PTR_ARRAY, sent[0].values[1].value.value(), ips.value()));
    ASSERT_TRUE(sent[0].input);
    EXPECT_EQ(sent[0].input->elements[0].value.val_uint32, 1u);

    px_attr_t wrong[] = {{"LParID", ZN_CHAR_PTR, host.value()}};
    EXPECT_EQ(px_define_resource(session, "Kor.ManagedNode", wrong, 1, nullptr, &rsp), PX_EINVAL);
    EXPECT_EQ(threadErrorText(),
              "2661-009 The attribute LParID of class Kor.ManagedNode has data type ZN_INT32, not "
              "ZN_CHAR_PTR.\n");
    EXPECT_EQ(rmRequests(RMRequestOp::DefineResource).size(), 1u);
}

TEST_F(RequestsTest, AClassTheServiceDoesNotShowIsUnknown) {
    manager([&](const RMRequest&) { return RMReply(); });
    px_define_rsp_t* rsp = nullptr;
    EXPECT_EQ(px_define_resource(session, "Kor.Nothing", nullptr, 0, nullptr, &rsp), PX_EFAILED);
    EXPECT_EQ(threadError()->cu_error_id, 0x10007);
    EXPECT_NE(threadErrorText().find("Kor.Nothing"), std::string::npos);
    // The list was asked again in case the class registered since.
    EXPECT_EQ(requestsOf("class.list").size(), 1u);
    px_define_rsp_t* again = nullptr;
    EXPECT_EQ(px_define_resource(session, "Kor.Nothing", nullptr, 0, nullptr, &again), PX_EFAILED);
    EXPECT_EQ(requestsOf("class.list").size(), 2u);
}

TEST_F(RequestsTest, UndefineReportsEachHandle) {
    manager([&](const RMRequest& r) {
        RMReply reply;
        if (r.op == RMRequestOp::EnumerateSelectResources) {
            reply.handles = {h1, h2};
            return reply;
        }
        for (const auto& h : r.handles) {
            tarn_rmf2v::RMReplyItem item;
            item.hasHandle = true;
            item.handle = h;
            if (h == h2) {
                item.error = err(0x10008, "gone already");
            }
            reply.items.push_back(std::move(item));
        }
        return reply;
    });
    zn_resource_handle hs[] = {h1, h2};
    px_resources_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_undefine_resource(session, "Kor.NodeGroup", hs, 2, nullptr, &rsp), PX_OK);
    ASSERT_EQ(rsp->resource_count, 2u);
    EXPECT_EQ(rsp->resources[0].error, nullptr);
    ASSERT_NE(rsp->resources[1].error, nullptr);
    EXPECT_EQ(cu_error_text(rsp->resources[1].error), "gone already");
    px_free_response(rsp);
    ASSERT_EQ(px_undefine_select(session, "Kor.NodeGroup", "Name like 'g%'", nullptr, &rsp), PX_OK);
    EXPECT_EQ(rsp->resource_count, 2u);
    px_free_response(rsp);
    auto sent = rmRequests(RMRequestOp::UndefineResources);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].handles.size(), 2u);
    // Nothing to undefine sends nothing.
    ASSERT_EQ(px_undefine_resource(session, "Kor.NodeGroup", nullptr, 0, nullptr, &rsp), PX_OK);
    EXPECT_EQ(rsp->resource_count, 0u);
    px_free_response(rsp);
    EXPECT_EQ(rmRequests(RMRequestOp::UndefineResources).size(), 2u);
}

TEST_F(RequestsTest, SetAttributesPerResourceAndForTheClass) {
    manager([&](const RMRequest& r) {
        RMReply reply;
        if (r.op == RMRequestOp::EnumerateSelectResources) {
            reply.handles = {h1};
            return reply;
        }
        for (const auto& v : r.values) {
            tarn_rmf2v::RMReplyItem item;
            item.id = v.id;
            reply.items.push_back(std::move(item));
        }
        return reply;
    });
    zn::OwnedValue members = zv::array(ZN_CHAR_PTR_ARRAY, zv::list(zv::str("a"), zv::str("b")));
    px_attr_t attrs[] = {{"MemberList", ZN_CHAR_PTR_ARRAY, members.value()}};
    px_resources_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_set_attrs_select(session, "Kor.NodeGroup", "Name == 'g'", attrs, 1, &rsp), PX_OK);
    ASSERT_EQ(rsp->resource_count, 1u);
    ASSERT_EQ(rsp->resources[0].attr_count, 1u);
    EXPECT_STREQ(rsp->resources[0].attrs[0].pv_name, "MemberList");
    EXPECT_EQ(rsp->resources[0].attrs[0].pv_error, nullptr);
    px_free_response(rsp);
    zn::OwnedValue version = zv::str("2");
    px_attr_t classAttrs[] = {{"Version", ZN_CHAR_PTR, version.value()}};
    ASSERT_EQ(px_set_class_attrs(session, "Kor.ManagedNode", classAttrs, 1, &rsp), PX_OK);
    EXPECT_EQ(rsp->resources[0].is_class, 1);
    px_free_response(rsp);
    ASSERT_EQ(px_set_attrs(session, "Kor.NodeGroup", &h2, 1, attrs, 1, &rsp), PX_OK);
    px_free_response(rsp);
    auto sent = rmRequests(RMRequestOp::SetAttributeValues);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_TRUE(sent[0].handle == h1);
    EXPECT_TRUE(sent[1].handle == h2);
    EXPECT_EQ(sent[1].values.at(0).id, 1);
    EXPECT_EQ(rmRequests(RMRequestOp::SetClassAttributeValues).at(0).values.at(0).id, 0);
}

TEST_F(RequestsTest, ActionsByNameCarryInputAndReturnData) {
    manager([&](const RMRequest& r) {
        RMReply reply;
        if (r.op == RMRequestOp::EnumerateSelectResources ||
            r.op == RMRequestOp::EnumerateResources) {
            reply.handles = {h1, h2};
            return reply;
        }
        reply.actionData.emplace_back(zn::copySd(r.input.get()));
        reply.actionData.emplace_back(zv::sd(zv::list(zv::i32(r.actionId))).release().ptr_sd);
        return reply;
    });
    zn::OwnedValue input =
        zv::sd(zv::list(zv::str("node1"), zv::array(ZN_UINT64_ARRAY, zv::list(zv::u64(5)))));
    px_resources_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_invoke_class_action(session, "Kor.ManagedNode", "RequestNodeManagement",
                                     input.value().ptr_sd, &rsp),
              PX_OK);
    ASSERT_EQ(rsp->resource_count, 1u);
    ASSERT_EQ(rsp->resources[0].data_count, 2u);
    zn_value_t back;
    back.ptr_sd = rsp->resources[0].data[0];
    EXPECT_TRUE(zn_value_equal(ZN_SD_PTR, back, input.value()));
    EXPECT_EQ(rsp->resources[0].data[1]->elements[0].value.val_int32, 5);
    px_free_response(rsp);

    ASSERT_EQ(px_invoke_action_select(session, "Kor.ManagedNode", "", "SyncData", nullptr, &rsp),
              PX_OK);
    ASSERT_EQ(rsp->resource_count, 2u);
    EXPECT_EQ(rsp->resources[1].data[1]->elements[0].value.val_int32, 3);
    px_free_response(rsp);
    ASSERT_EQ(px_invoke_action(session, "Kor.ManagedNode", &h2, 1, "SyncData", nullptr, &rsp),
              PX_OK);
    px_free_response(rsp);
    EXPECT_EQ(rmRequests(RMRequestOp::InvokeAction).size(), 3u);
    EXPECT_EQ(rmRequests(RMRequestOp::EnumerateResources).size(), 1u);

    // A resource action is not a class action.
    EXPECT_EQ(px_invoke_class_action(session, "Kor.ManagedNode", "SyncData", nullptr, &rsp),
              PX_EINVAL);
    EXPECT_EQ(threadErrorText(),
              "2661-008 The class Kor.ManagedNode has no class action named SyncData.\n");
}

TEST_F(RequestsTest, OnlineAndOfflineCarryNodesAndOptions) {
    manager([&](const RMRequest&) { return RMReply(); });
    uint64_t nodes[] = {1, 9007199254740993ull};
    zn::OwnedValue opts = zv::sd(zv::list(zv::u32(1)));
    px_resources_rsp_t* rsp = nullptr;
    ASSERT_EQ(px_online(session, "Kor.PeerDomain", &h1, 1, nodes, 2, nullptr, &rsp), PX_OK);
    px_free_response(rsp);
    ASSERT_EQ(px_offline(session, "Kor.PeerDomain", &h1, 1, 1, opts.value().ptr_sd, &rsp), PX_OK);
    ASSERT_EQ(rsp->resource_count, 1u);
    EXPECT_EQ(rsp->resources[0].error, nullptr);
    px_free_response(rsp);
    auto on = rmRequests(RMRequestOp::Online);
    ASSERT_EQ(on.size(), 1u);
    EXPECT_EQ(on[0].nodeIds, (std::vector<unsigned long long>{1, 9007199254740993ull}));
    auto off = rmRequests(RMRequestOp::Offline);
    ASSERT_EQ(off.size(), 1u);
    EXPECT_EQ(off[0].offlineOptions, 1u);
    EXPECT_EQ(off[0].input->elements[0].value.val_uint32, 1u);
    // Neither needs the class description.
    EXPECT_TRUE(requestsOf("class.list").empty());
}

TEST_F(RequestsTest, ClassListBecomesCStructs) {
    manager([&](const RMRequest&) { return RMReply(); });
    px_class_list_t* list = nullptr;
    ASSERT_EQ(px_list_classes(session, &list), PX_OK);
    ASSERT_EQ(list->class_count, 2u);
    const px_class_def_t& node = list->classes[0];
    EXPECT_STREQ(node.name, "Kor.ManagedNode");
    EXPECT_STREQ(node.rm_name, "Kor.ORVRM");
    EXPECT_EQ(node.connected, 1);
    ASSERT_EQ(node.persistent_count, 4u);
    EXPECT_STREQ(node.persistent[2].name, "IPAddresses");
    EXPECT_EQ(node.persistent[2].type, ZN_CHAR_PTR_ARRAY);
    ASSERT_EQ(node.class_action_count, 1u);
    ASSERT_EQ(node.class_actions[0].input_count, 2u);
    EXPECT_EQ(node.class_actions[0].input[1], ZN_UINT64_ARRAY);
    EXPECT_EQ(list->classes[1].connected, 0);
    EXPECT_EQ(list->classes[1].action_count, 0u);
    px_free_response(list);
}

TEST_F(RequestsTest, ArgumentsAreChecked) {
    manager([&](const RMRequest&) { return RMReply(); });
    px_enumerate_rsp_t* e = nullptr;
    px_resources_rsp_t* r = nullptr;
    EXPECT_EQ(px_enumerate_select(nullptr, "C", nullptr, &e), PX_EINVAL);
    EXPECT_EQ(px_enumerate_select(session, nullptr, nullptr, &e), PX_EINVAL);
    EXPECT_EQ(px_enumerate_select(session, "", nullptr, &e), PX_EINVAL);
    EXPECT_EQ(px_enumerate_select(session, "C", nullptr, nullptr), PX_EINVAL);
    EXPECT_EQ(px_query_persistent_attrs(session, "Kor.ManagedNode", nullptr, 2, nullptr, 0, &r),
              PX_EINVAL);
    EXPECT_EQ(px_query_persistent_attrs(session, "Kor.ManagedNode", &h1, 1, nullptr, 3, &r),
              PX_EINVAL);
    EXPECT_EQ(px_set_attrs(session, "Kor.NodeGroup", &h1, 1, nullptr, 1, &r), PX_EINVAL);
    EXPECT_EQ(px_online(session, "C", &h1, 1, nullptr, 1, nullptr, &r), PX_EINVAL);
    EXPECT_EQ(threadError()->cu_error_id, znpex::client::PXC_EINVAL);
    for (const auto& m : service->methods()) {
        EXPECT_NE(m.rfind("rm.", 0), 0u) << m << " reached the service";
    }
}

}  // namespace
