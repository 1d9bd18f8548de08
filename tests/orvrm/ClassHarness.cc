#include "tests/orvrm/ClassHarness.h"

#include <cstring>
#include <stdexcept>

#include "orvrm/ClassList.h"
#include "tarn_rmf2v/RMResponses.h"
#include "tarn_rmf2v/RMSchedule.h"
#include "tests/support/Subprocess.h"
#include "znpex/di/di_table.h"

namespace classtest {

void Recorder::resourcesUndefined(const std::string&,
                                  const std::vector<zn_resource_handle>& handles) {
    std::lock_guard<std::mutex> g(mu_);
    undefined_.push_back(handles);
}

void Recorder::attributesModified(const std::string& className, const zn_resource_handle* handle,
                                  bool persistent, const rm_attribute_value* values,
                                  unsigned int count) {
    if (persistent && refusePersistent_.load()) {
        throw std::runtime_error("the link refused the notice");
    }
    Notice n;
    n.className = className;
    n.hasHandle = handle != nullptr;
    if (handle != nullptr) {
        n.handle = *handle;
    }
    n.persistent = persistent;
    for (unsigned int i = 0; i < count; ++i) {
        n.values.push_back(
            RMReplyAttr{values[i].rm_attribute_id,
                        zn::OwnedValue::copyOf(values[i].rm_data_type, values[i].rm_value)});
    }
    std::lock_guard<std::mutex> g(mu_);
    notices_.push_back(std::move(n));
}

void Recorder::sendPeerMessage(int type, int subtype, const void*, unsigned int) {
    std::lock_guard<std::mutex> g(mu_);
    peer_.emplace_back(type, subtype);
}

std::vector<std::vector<zn_resource_handle>> Recorder::undefinedBatches() {
    std::lock_guard<std::mutex> g(mu_);
    return undefined_;
}

std::vector<Notice> Recorder::notices() {
    std::lock_guard<std::mutex> g(mu_);
    std::vector<Notice> out;
    for (const Notice& n : notices_) {
        Notice c;
        c.className = n.className;
        c.hasHandle = n.hasHandle;
        c.handle = n.handle;
        c.persistent = n.persistent;
        for (const RMReplyAttr& a : n.values) {
            c.values.push_back(
                RMReplyAttr{a.id, zn::OwnedValue::copyOf(a.value.type(), a.value.value())});
        }
        out.push_back(std::move(c));
    }
    return out;
}

std::vector<std::pair<int, int>> Recorder::peerMessages() {
    std::lock_guard<std::mutex> g(mu_);
    return peer_;
}

void Recorder::clear() {
    std::lock_guard<std::mutex> g(mu_);
    undefined_.clear();
    notices_.clear();
    peer_.clear();
}

RMReplyAttr u32(int id, uint32_t v) {
    zn_value_t x{};
    x.val_uint32 = v;
    return RMReplyAttr{id, zn::OwnedValue(ZN_UINT32, x)};
}

RMReplyAttr u64(int id, uint64_t v) {
    zn_value_t x{};
    x.val_uint64 = v;
    return RMReplyAttr{id, zn::OwnedValue(ZN_UINT64, x)};
}

RMReplyAttr i32(int id, int32_t v) {
    zn_value_t x{};
    x.val_int32 = v;
    return RMReplyAttr{id, zn::OwnedValue(ZN_INT32, x)};
}

RMReplyAttr str(int id, const char* s) {
    zn_value_t x{};
    x.ptr_char = const_cast<char*>(s);
    return RMReplyAttr{id, zn::OwnedValue::copyOf(ZN_CHAR_PTR, x)};
}

ClassHarness::ClassHarness() {
    zn::setProcessClock(&clock_);
    tarn_rmf2v::setResponseDefectHandler(
        [](const std::string& what) { ADD_FAILURE() << "response defect: " << what; });
    znpex::di::setHeartbeatTuner([this](unsigned f, unsigned s) {
        std::lock_guard<std::mutex> g(tuneMu_);
        tunings_.emplace_back(f, s);
        return 0;
    });
    rmcp_ = std::make_unique<ORVRMRmcp>("Kor.ORVRM", 1);
    rmcp_->setServiceLink(&out_);
}

ClassHarness::~ClassHarness() {
    rmcp_.reset();
    znpex::di::setHeartbeatTuner(nullptr);
    tarn_rmf2v::setResponseDefectHandler(nullptr);
    zn::setProcessClock(nullptr);
}

void ClassHarness::startClasses() {
    for (const orvrm::ClassEntry& e : orvrm::classList()) {
        cu_error_t* err = nullptr;
        std::string name = e.name;
        ASSERT_NE(rmcp_->createRCCP(name.data(), &err), nullptr)
            << name << ": " << (err != nullptr ? cu_error_text(err) : "");
        cu_rel_error_1(err);
    }
}

void ClassHarness::restart() {
    rmcp_.reset();
    rmcp_ = std::make_unique<ORVRMRmcp>("Kor.ORVRM", 1);
    rmcp_->setServiceLink(&out_);
    startClasses();
}

RMReply ClassHarness::dispatch(RMRequest& r) {
    return rmcp_->dispatchSync(r);
}

RMReply ClassHarness::enumerate(const char* cls, const char* selection) {
    RMRequest r;
    r.op = selection != nullptr ? RMRequestOp::EnumerateSelectResources
                                : RMRequestOp::EnumerateResources;
    r.className = cls;
    r.selection = selection != nullptr ? selection : "";
    return dispatch(r);
}

RMReply ClassHarness::define(const char* cls, std::vector<RMReplyAttr> values) {
    RMRequest r;
    r.op = RMRequestOp::DefineResource;
    r.className = cls;
    r.values = std::move(values);
    return dispatch(r);
}

RMReply ClassHarness::undefine(const char* cls, std::vector<zn_resource_handle> handles) {
    RMRequest r;
    r.op = RMRequestOp::UndefineResources;
    r.className = cls;
    r.handles = std::move(handles);
    return dispatch(r);
}

RMReply ClassHarness::get(const char* cls, const zn_resource_handle& h, std::vector<int> ids) {
    return resourceOp(RMRequestOp::GetAttributeValues, cls, h, std::move(ids));
}

RMReply ClassHarness::set(const char* cls, const zn_resource_handle& h,
                          std::vector<RMReplyAttr> values) {
    RMRequest r;
    r.op = RMRequestOp::SetAttributeValues;
    r.className = cls;
    r.handle = h;
    r.values = std::move(values);
    return dispatch(r);
}

RMReply ClassHarness::classOp(RMRequestOp op, const char* cls, std::vector<int> ids,
                              std::vector<RMReplyAttr> values) {
    RMRequest r;
    r.op = op;
    r.className = cls;
    r.ids = std::move(ids);
    r.values = std::move(values);
    return dispatch(r);
}

RMReply ClassHarness::resourceOp(RMRequestOp op, const char* cls, const zn_resource_handle& h,
                                 std::vector<int> ids) {
    RMRequest r;
    r.op = op;
    r.className = cls;
    r.handle = h;
    r.ids = std::move(ids);
    return dispatch(r);
}

RMReply ClassHarness::startMonitoring(const char* cls, const zn_resource_handle* h,
                                      std::vector<int> ids) {
    RMRequest r;
    r.op = h != nullptr ? RMRequestOp::StartMonitoringResourceAttrs
                        : RMRequestOp::StartMonitoringClassAttrs;
    r.className = cls;
    if (h != nullptr) {
        r.handle = *h;
    }
    for (int id : ids) {
        r.monitoring.push_back(rm_monitoring_data{id, 0});
    }
    return dispatch(r);
}

void ClassHarness::advance(zn::Clock::Duration d) {
    clock_.advance(d);
    EXPECT_TRUE(testsupport::waitFor(tarn_rmf2v::RMSchedule::allIdle))
        << "a scheduled operation did not finish";
}

std::vector<std::pair<unsigned, unsigned>> ClassHarness::tunings() {
    std::lock_guard<std::mutex> g(tuneMu_);
    return tunings_;
}

int errorId(const zn::ErrorPtr& e) {
    return e ? e->cu_error_id : 0;
}

std::string errorText(const zn::ErrorPtr& e) {
    return e ? cu_error_text(e.get()) : "";
}

const RMReplyAttr* valueOf(const RMReply& r, int id) {
    for (const RMReplyAttr& a : r.values) {
        if (a.id == id) {
            return &a;
        }
    }
    return nullptr;
}

}  // namespace classtest
