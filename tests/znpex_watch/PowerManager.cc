#include "tests/znpex_watch/PowerManager.h"

#include <cstring>
#include <mutex>

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

class PowerRccp : public RMRccp {
public:
    explicit PowerRccp(RMRmcp* m) : RMRccp(kClass, RM_OBJECT_CLASS, m) {
        RMClassDef def;
        def.name = kClass;
        def.persistent.push_back(RMAttrDef{"Hostname", 0, ZN_CHAR_PTR, 1});
        def.dynamic.push_back(RMAttrDef{"PowerStatus", 0, ZN_UINT32, 0});
        def.classPersistent.push_back(RMAttrDef{"Site", 0, ZN_CHAR_PTR, 0});
        def.classDynamic.push_back(RMAttrDef{"PoweredOn", 0, ZN_UINT32, 0});
        setClassDef(def);
    }
    void enumerateResources(RMEnumResourcesResponse* rsp) override {
        rsp->done(handles.data(), static_cast<unsigned int>(handles.size()));
    }
    void getClassAttributeValues(RMAttributeValueResponse* rsp, int* ids,
                                 unsigned int count) override {
        queries.fetch_add(1);
        std::string s = site();
        for (unsigned int i = 0; i < count; ++i) {
            if (ids[i] == 0) {
                rm_attribute_value v{0, ZN_CHAR_PTR, {}};
                v.rm_value.ptr_char = s.data();
                rsp->addValue(&v, 1);
            }
        }
        rsp->done(nullptr);
    }
    void reportDynAttributeValues(int*, unsigned int, RMAttributeValueResponse* rsp) override {
        queries.fetch_add(1);
        rm_attribute_value v = poweredOn();
        rsp->addValue(&v, 1);
        rsp->done(nullptr);
    }
    void startMonitoringClassAttrs(RMAttributeValueResponse* rsp, rm_monitoring_data* attrs,
                                   unsigned int count) override {
        for (unsigned int i = 0; i < count; ++i) {
            if (attrs[i].rm_attribute_id == 0) {
                monitored = true;
                starts.fetch_add(1);
            }
        }
        rm_attribute_value v = poweredOn();
        rsp->addValue(&v, 1);
        rsp->done(nullptr);
    }
    void stopMonitoringClassAttrs(RMAttributeIdResponse* rsp, int* ids,
                                  unsigned int count) override {
        for (unsigned int i = 0; i < count; ++i) {
            if (ids[i] == 0) {
                monitored = false;
            }
            rsp->result(ids[i], nullptr);
        }
        rsp->done(nullptr);
    }

    void setPoweredOn(uint32_t value) {
        poweredOn_ = value;
        rm_attribute_value v = poweredOn();
        notifyDynamicClassAttrsModified(&v, 1);
    }
    void setSite(const std::string& s) {
        {
            std::lock_guard<std::mutex> g(mu_);
            site_ = s;
        }
        rm_attribute_value v{0, ZN_CHAR_PTR, {}};
        v.rm_value.ptr_char = const_cast<char*>(s.c_str());
        notifyPersistentClassAttrsModified(&v, 1);
    }

    std::vector<zn_resource_handle> handles;
    std::atomic<bool> monitored{false};
    std::atomic<int> starts{0};
    std::atomic<int> queries{0};

private:
    rm_attribute_value poweredOn() const {
        rm_attribute_value v{0, ZN_UINT32, {}};
        v.rm_value.val_uint32 = poweredOn_.load();
        return v;
    }
    std::string site() const {
        std::lock_guard<std::mutex> g(mu_);
        return site_;
    }
    std::atomic<uint32_t> poweredOn_{0};
    mutable std::mutex mu_;  // guards site_
    std::string site_ = "lab";
};

PowerManager::PowerManager(int resources)
    : rmcp_(std::make_unique<RMRmcp>("Test.Power.RM", 1, nullptr, 0, 1)) {
    auto* rccp = new PowerRccp(rmcp_.get());  // owned by the control point
    rccp_ = rccp;
    std::vector<zn_resource_handle> h(static_cast<size_t>(resources));
    rccp->makeResourceHandles(static_cast<unsigned int>(resources), 9, 0, h.data());
    for (int i = 0; i < resources; ++i) {
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

void PowerManager::setPoweredOn(uint32_t value) {
    rccp_->setPoweredOn(value);
}

void PowerManager::setSite(const std::string& site) {
    rccp_->setSite(site);
}

bool PowerManager::classMonitored() const {
    return rccp_->monitored.load();
}

int PowerManager::classStarts() const {
    return rccp_->starts.load();
}

int PowerManager::classQueries() const {
    return rccp_->queries.load();
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
