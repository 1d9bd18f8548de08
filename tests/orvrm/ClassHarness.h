// Drives the daemon's resource classes in-process through the framework's
// synchronous dispatch, as the service would: a state root of its own
// (ZN_ROOT), the daemon's control point with its registry tree, a fake
// process clock (tests move time, nobody sleeps), and recorders of what
// leaves the daemon (notifications, undefined resources, peer messages,
// heartbeat tuning). restart() makes a new control point on the same
// registry, as a daemon restart would.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvrm/ORVRMRmcp.h"
#include "platform/clock.h"
#include "tarn_rmf2v/RMServiceLink.h"
#include "tests/support/TempDir.h"

namespace classtest {

using tarn_rmf2v::RMReply;
using tarn_rmf2v::RMReplyAttr;
using tarn_rmf2v::RMReplyItem;
using tarn_rmf2v::RMRequest;
using tarn_rmf2v::RMRequestOp;

// One attribute notification as it left the daemon.
struct Notice {
    std::string className;
    bool hasHandle = false;
    zn_resource_handle handle{};
    bool persistent = false;
    std::vector<RMReplyAttr> values;
};

class Recorder : public tarn_rmf2v::RMServiceLink {
public:
    void resourcesUndefined(const std::string& className,
                            const std::vector<zn_resource_handle>& handles) override;
    void attributesModified(const std::string& className, const zn_resource_handle* handle,
                            bool persistent, const rm_attribute_value* values,
                            unsigned int count) override;
    void sendPeerMessage(int type, int subtype, const void* data, unsigned int length) override;

    std::vector<std::vector<zn_resource_handle>> undefinedBatches();
    std::vector<Notice> notices();
    std::vector<std::pair<int, int>> peerMessages();  // type, subtype
    void clear();
    // While set, a notice of a persistent attribute change throws, as a
    // link that cannot take it may.
    void refusePersistentNotices(bool refuse) { refusePersistent_.store(refuse); }

private:
    std::atomic<bool> refusePersistent_{false};
    std::mutex mu_;
    std::vector<std::vector<zn_resource_handle>> undefined_;
    std::vector<Notice> notices_;
    std::vector<std::pair<int, int>> peer_;
};

// Attribute values for requests, and a list of them (values move in).
template <typename... T>
std::vector<RMReplyAttr> attrs(T&&... v) {
    std::vector<RMReplyAttr> out;
    (out.push_back(std::forward<T>(v)), ...);
    return out;
}
RMReplyAttr u32(int id, uint32_t v);
RMReplyAttr u64(int id, uint64_t v);
RMReplyAttr str(int id, const char* s);
RMReplyAttr i32(int id, int32_t v);

class ClassHarness : public ::testing::Test {
protected:
    ClassHarness();
    ~ClassHarness() override;

    // Makes the daemon's classes in their start-up order (all five).
    void startClasses();
    // Destroys the control point and makes a new one on the same registry,
    // then the classes again.
    void restart();
    ORVRMRmcp& rmcp() { return *rmcp_; }
    template <typename T>
    T* rccp(const char* className) {
        return dynamic_cast<T*>(rmcp_->findRccpByName(className));
    }

    RMReply dispatch(RMRequest& r);
    RMReply enumerate(const char* cls, const char* selection = nullptr);
    RMReply define(const char* cls, std::vector<RMReplyAttr> values);
    RMReply undefine(const char* cls, std::vector<zn_resource_handle> handles);
    RMReply get(const char* cls, const zn_resource_handle& h, std::vector<int> ids);
    RMReply set(const char* cls, const zn_resource_handle& h, std::vector<RMReplyAttr> values);
    RMReply classOp(RMRequestOp op, const char* cls, std::vector<int> ids = {},
                    std::vector<RMReplyAttr> values = {});
    RMReply resourceOp(RMRequestOp op, const char* cls, const zn_resource_handle& h,
                       std::vector<int> ids);
    RMReply startMonitoring(const char* cls, const zn_resource_handle* h, std::vector<int> ids);

    // Moves the fake clock on by `d`, then returns once every schedule of the
    // process has run what fell due (the classes' delayed and periodic
    // operations). An operation that schedules itself again from "now" runs
    // once per call: advance by its period at most to see every run.
    void advance(zn::Clock::Duration d);

    // Heartbeat tunings the daemon asked the service for, in order.
    std::vector<std::pair<unsigned, unsigned>> tunings();

    testsupport::TempDir root_{/*asRoot=*/true};
    zn::FakeClock clock_;
    Recorder out_;

private:
    std::unique_ptr<ORVRMRmcp> rmcp_;
    std::mutex tuneMu_;
    std::vector<std::pair<unsigned, unsigned>> tunings_;
};

// The error id of a reply's overall error, or of one of its items (0: none).
int errorId(const zn::ErrorPtr& e);
std::string errorText(const zn::ErrorPtr& e);
// The value of attribute `id` among a reply's values (null when absent).
const RMReplyAttr* valueOf(const RMReply& r, int id);

}  // namespace classtest
