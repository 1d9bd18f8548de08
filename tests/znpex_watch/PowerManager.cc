#include "tests/znpex_watch/PowerManager.h"

#include <cstring>

#include "tarn_rmf2v/RMResponses.h"

namespace watchtest {

using namespace tarn_rmf2v;

class PowerRcp : public RMRcp {
public:
    PowerRcp(const zn_resource_handle* h, RMRccp* c, PowerManager& m, std::string host)
        : RMRcp(h, c, 0), manager_(m), host_(std::move(host)) {}

    void getAttributeValues(RMAttributeValueResponse* rsp, int* ids, unsigned int count) override {
        for (unsigned int i = 0; i < count; ++i) {
            if (ids[i] == 0) {
                rm_attribute_value v{0, ZN_CHAR_PTR, {}};
                v.rm_value.ptr_char = const_cast<char*>(host_.c_str());
                rsp->addValue(&v, 1);
            }
        }
        rsp->done(nullptr);
    }
    void reportDynAttributeValues(int*, unsigned int, RMAttributeValueResponse* rsp) override {
        manager_.queries_.fetch_add(1);
        rm_attribute_value v = power();
        rsp->addValue(&v, 1);
        rsp->done(nullptr);
    }
    void startMonitoringResourceAttrs(RMAttributeValueResponse* rsp, rm_monitoring_data* attrs,
                                      unsigned int count) override {
        for (unsigned int i = 0; i < count; ++i) {
            if (attrs[i].rm_attribute_id == 0) {
                monitored_ = true;
                manager_.record("start:" + host_);
            }
        }
        rm_attribute_value v = power();
        rsp->addValue(&v, 1);
        rsp->done(nullptr);
    }
    void stopMonitoringResourceAttrs(RMAttributeIdResponse* rsp, int* ids,
                                     unsigned int count) override {
        for (unsigned int i = 0; i < count; ++i) {
            if (ids[i] == 0) {
                monitored_ = false;
                manager_.record("stop:" + host_);
            }
            rsp->result(ids[i], nullptr);
        }
        rsp->done(nullptr);
    }

    void set(uint32_t value) {
        power_ = value;
        rm_attribute_value v = power();
        notifyDynamicResourceAttrsModified(&v, 1);
    }
    const std::string& host() const { return host_; }
    std::atomic<bool> monitored_{false};

private:
    rm_attribute_value power() const {
        rm_attribute_value v{0, ZN_UINT32, {}};
        v.rm_value.val_uint32 = power_.load();
        return v;
    }
    PowerManager& manager_;
    std::string host_;
    std::atomic<uint32_t> power_{0};
};

namespace {

class PowerRccp : public RMRccp {
public:
    explicit PowerRccp(RMRmcp* m) : RMRccp(kClass, RM_OBJECT_CLASS, m) {
        RMClassDef def;
        def.name = kClass;
        def.persistent.push_back(RMAttrDef{"Hostname", 0, ZN_CHAR_PTR, 1});
        def.dynamic.push_back(RMAttrDef{"PowerStatus", 0, ZN_UINT32, 0});
        setClassDef(def);
    }
    void enumerateResources(RMEnumResourcesResponse* rsp) override {
        rsp->done(handles.data(), static_cast<unsigned int>(handles.size()));
    }
    std::vector<zn_resource_handle> handles;
};

}  // namespace

PowerManager::PowerManager() : rmcp_(std::make_unique<RMRmcp>("Test.Power.RM", 1, nullptr, 0, 1)) {
    auto* rccp = new PowerRccp(rmcp_.get());  // owned by the control point
    zn_resource_handle h[2];
    rccp->makeResourceHandles(2, 9, 0, h);
    for (int i = 0; i < 2; ++i) {
        auto* rcp = new PowerRcp(&h[i], rccp, *this, "node" + std::to_string(i + 1));
        rccp->addRcp(rcp);
        rccp->handles.push_back(h[i]);
        rcps_.push_back(rcp);
    }
    for (int i = 0; i < 2; ++i) {
        rmcp_->start(nullptr);
    }
}

PowerManager::~PowerManager() {
    disconnect();
    rmcp_->cleanup();
}

void PowerManager::connect() {
    RMServiceConnectionOptions o;
    o.minBackoff = std::chrono::milliseconds(10);
    o.maxBackoff = std::chrono::milliseconds(200);
    conn_ = std::make_unique<RMServiceConnection>(*rmcp_, o);
    conn_->start();
}

void PowerManager::disconnect() {
    if (conn_) {
        conn_->stop();
        conn_.reset();
    }
}

bool PowerManager::connected() const {
    return conn_ != nullptr && conn_->connected();
}

void PowerManager::setPower(int i, uint32_t value) {
    rcps_.at(static_cast<size_t>(i))->set(value);
}

const std::string& PowerManager::hostname(int i) const {
    return rcps_.at(static_cast<size_t>(i))->host();
}

std::vector<std::string> PowerManager::monitoringCalls() const {
    std::lock_guard<std::mutex> g(mu_);
    return calls_;
}

int PowerManager::monitored() const {
    int n = 0;
    for (PowerRcp* r : rcps_) {
        n += r->monitored_ ? 1 : 0;
    }
    return n;
}

void PowerManager::record(const std::string& what) {
    std::lock_guard<std::mutex> g(mu_);
    calls_.push_back(what);
}

}  // namespace watchtest
