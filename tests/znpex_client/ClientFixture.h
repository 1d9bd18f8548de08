// Shared set-up of the client tests: a temporary state root, a fake service
// on its local socket with two sample classes, and helpers to build replies
// and read the thread's error.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/TempDir.h"
#include "tests/znpex_client/FakeService.h"
#include "tests/znpex_proto/ZnValues.h"
#include "znpex/client/px_client.h"
#include "znpex/proto/ErrorCodec.h"
#include "znpex/proto/RequestCodec.h"

namespace testsupport {

inline std::vector<znpex::proto::ClassInfo> sampleClasses() {
    znpex::proto::ClassInfo node;
    node.def.name = "Kor.ManagedNode";
    node.def.persistent = {{"Hostname", 0, ZN_CHAR_PTR, 0},
                           {"NodeId", 1, ZN_UINT64, 0},
                           {"IPAddresses", 2, ZN_CHAR_PTR_ARRAY, 0},
                           {"LParID", 3, ZN_INT32, 0}};
    node.def.dynamic = {{"Status", 1, ZN_UINT32, 0}, {"PowerStatus", 2, ZN_UINT32, 0}};
    node.def.classPersistent = {{"Version", 0, ZN_CHAR_PTR, 0}};
    node.def.classDynamic = {{"Count", 0, ZN_UINT32, 0}};
    node.def.actions = {{"SyncData", 3, {}}};
    node.def.classActions = {{"RequestNodeManagement", 5, {ZN_CHAR_PTR, ZN_UINT64_ARRAY}}};
    node.rm = "Kor.ORVRM";
    node.connected = true;
    znpex::proto::ClassInfo group;
    group.def.name = "Kor.NodeGroup";
    group.def.persistent = {{"Name", 0, ZN_CHAR_PTR, 0}, {"MemberList", 1, ZN_CHAR_PTR_ARRAY, 0}};
    group.rm = "Kor.ORVRM";
    return {node, group};
}

// The platform error a failed call left in this thread.
inline zn::ErrorPtr threadError() {
    cu_error_t* e = nullptr;
    cu_get_error(&e);
    return zn::ErrorPtr(e);
}

inline std::string threadErrorText() {
    return cu_error_text(threadError().get());
}

// An encoded reply with an error of the common table.
inline znpex::proto::Json errorObject(int id, const char* text, const char* arg) {
    cu_error_t* e = nullptr;
    cu_pkg_error_1(&e, id, nullptr, "tarn.rmf.cat", 2, id & 0xff, text, arg);
    znpex::proto::Json j = znpex::proto::encodeError(*e);
    cu_rel_error_1(e);
    return j;
}

class ClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        service = std::make_unique<FakeService>(useTcp());
        service->setClasses(sampleClasses());
    }
    void TearDown() override {
        if (session != nullptr) {
            px_end_session(session);
        }
        service.reset();
    }
    virtual bool useTcp() const { return false; }
    void startLocal() { ASSERT_EQ(px_start_session(nullptr, 0, 0x401, &session), PX_OK); }
    // Requests of one method the service received.
    std::vector<znpex::proto::RpcMessage> requestsOf(const std::string& method) {
        std::vector<znpex::proto::RpcMessage> out;
        for (auto& m : service->received()) {
            if (m.method == method) {
                out.push_back(m);
            }
        }
        return out;
    }

    TempDir root{true};
    std::unique_ptr<FakeService> service;
    px_session_t session = nullptr;
};

}  // namespace testsupport
