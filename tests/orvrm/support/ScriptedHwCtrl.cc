#include "tests/orvrm/support/ScriptedHwCtrl.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "tarn_rmf/registry/RMSelParams.h"
#include "tarn_rmf/registry/RMTree.h"
#include "tarn_rmf2v/RMLocks.h"
#include "tarn_rmf2v/RMMonitor.h"
#include "tarn_rmf2v/RMRmcp.h"
#include "tarn_rmf2v/RMTableRccp.h"
#include "tarn_rmf2v/RMTableRcp.h"
#include "tarn_rmf2v/link/RMServiceConnection.h"

namespace hwctrltest {

using namespace tarn_rmf2v;
using tarn_rmf::rmNoDefault;
using tarn_rmf::rmStrDefault;
using tarn_rmf::rmUintDefault;

namespace {

constexpr uint32_t kKept = RM_PROP_NOT_AT_DEFINE | RM_PROP_READ_ONLY | RM_PROP_SELECTABLE;
constexpr uint32_t kGiven = RM_PROP_OPTIONAL | RM_PROP_SELECTABLE;

const RMAttrSpec kHost[] = {
    {0, "ResourceHandle", ZN_RSRC_HANDLE_PTR, kKept, rmNoDefault()},
    {1, "Variety", ZN_UINT32, kKept, rmUintDefault(1)},
    {2, "Hostname", ZN_CHAR_PTR, kGiven | RM_PROP_REQUIRED, rmStrDefault("")},
};
const RMAttrSpec kClassAttrs[] = {{0, "Variety", ZN_UINT32, kKept, rmUintDefault(1)}};
const RMAttrSpec kPower[] = {{0, "PowerStatus", ZN_UINT32, 0, rmNoDefault()}};
const RMAttrSpec kConfig[] = {{0, "ConfigChanged", ZN_UINT32, 0, rmNoDefault()}};

const RMClassSpec& hwSpec() {
    static const RMClassSpec s{.name = "Kor.NodeHwCtrl",
                               .classTable = "/Kor/NodeHwCtrl/Class",
                               .resourceTable = "/Kor/NodeHwCtrl/Resources",
                               .classPersistent = kClassAttrs,
                               .persistent = kHost,
                               .dynamic = kPower};
    return s;
}
const RMClassSpec& recordSpec() {
    static const RMClassSpec s{.name = "Kor.ManagementServer",
                               .classTable = "/Kor/ManagementServer/Class",
                               .resourceTable = "/Kor/ManagementServer/Resources",
                               .classPersistent = kClassAttrs,
                               .persistent = kHost,
                               .dynamic = kConfig};
    return s;
}

zn_value_t u32(uint32_t v) {
    zn_value_t out{};
    out.val_uint32 = v;
    return out;
}

class HostRcp : public RMTableRcp {
public:
    HostRcp(const zn_resource_handle* h, RMTableRccp* rccp) : RMTableRcp(h, rccp, 1) {}
    std::atomic<uint32_t> power{127};

    void setPower(uint32_t p) {
        if (power.exchange(p) != p) {
            reportDynamic(spec().dynamic.byId(0)->name, ZN_UINT32, u32(p));
        }
    }

protected:
    bool dynamicValue(const RMAttrSpec&, zn::OwnedValue* out) override {
        *out = zn::OwnedValue(ZN_UINT32, u32(power.load()));
        return true;
    }
};

RMTableRccp::Options hostOptions() {
    RMTableRccp::Options o;
    o.ownRowsOnly = false;
    o.writeThrough = true;
    o.classCode = 11;
    o.rcpName = "HostRcp";
    return o;
}

class HwRccp : public RMTableRccp {
public:
    HwRccp(RMRmcp* rmcp, const RMClassSpec& spec)
        : RMTableRccp(spec.name, RM_OBJECT_CLASS, rmcp, spec, hostOptions()) {
        loadResources();
    }
    // The host's control point (not reserved), or null.
    HostRcp* find(const std::string& hostname) {
        tarn_rmf::RMSelParams p;
        p.setString("H", hostname.c_str());
        std::vector<zn_resource_handle> hs = handlesOf("Hostname == $H", &p);
        return hs.empty() ? nullptr : static_cast<HostRcp*>(findRcpByHandle(&hs[0]));
    }
    void add(const std::string& hostname, uint32_t power) {
        lockRccp guard(this);
        rm_attribute_value v{2, ZN_CHAR_PTR, {}};
        v.rm_value.ptr_char = const_cast<char*>(hostname.c_str());
        DefineResult r = defineRow(&v, 1, "add");
        if (r.rcp != nullptr) {
            static_cast<HostRcp*>(r.rcp)->power = power;
            reportClassEvent("ResourceDefined");
        }
    }
    void remove(const std::string& hostname) {
        lockRccp guard(this);
        if (HostRcp* h = find(hostname)) {
            zn_resource_handle handle = *h->getResourceHandle();
            removeResource(h);
            notifyUndefined({handle});
        }
    }

protected:
    RMTableRcp* makeRcp(const zn_resource_handle& h, unsigned int) override {
        return new HostRcp(&h, this);
    }
};

}  // namespace

class HwCtrlRmcp : public RMRmcp {
public:
    HwCtrlRmcp(const char* rmName, const std::string& treeDir)
        : RMRmcp(rmName, 1, nullptr, 0, 1), tree_(treeDir.c_str()) {}
    tarn_rmf::RMTree* getTree() override { return &tree_; }
    HwRccp* hosts() { return static_cast<HwRccp*>(classes().front()); }

private:
    tarn_rmf::RMTree tree_;
};

ScriptedHwCtrl::ScriptedHwCtrl(const std::string& socketPath, const std::string& treeDir, Kind kind)
    : rmcp_(std::make_unique<HwCtrlRmcp>(
          kind == Kind::HardwareControl ? "Kor.HwCtrlRM" : "Kor.MgmtSvrRM", treeDir)) {
    new HwRccp(rmcp_.get(), kind == Kind::HardwareControl ? hwSpec() : recordSpec());
    for (int i = 0; i < 2; ++i) {
        unsigned long id = 0;
        rmcp_->start(&id);
    }
    RMServiceConnectionOptions o;
    o.socketPath = socketPath;
    o.maxBackoff = std::chrono::milliseconds(200);
    // Reconnecting is real-time work: tests move the process clock.
    o.clock = &zn::systemClock();
    conn_ = std::make_unique<RMServiceConnection>(*rmcp_, o);
}

ScriptedHwCtrl::~ScriptedHwCtrl() {
    stop();
    rmcp_->cleanup();
}

bool ScriptedHwCtrl::start() {
    conn_->start();
    for (int i = 0; i < 1000 && !conn_->connected(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return conn_->connected();
}

void ScriptedHwCtrl::stop() {
    conn_->stop();
}

bool ScriptedHwCtrl::connected() const {
    return conn_->connected();
}

void ScriptedHwCtrl::addHost(const std::string& hostname, uint32_t powerStatus) {
    rmcp_->hosts()->add(hostname, powerStatus);
}

void ScriptedHwCtrl::setPower(const std::string& hostname, uint32_t powerStatus) {
    HwRccp* cls = rmcp_->hosts();
    lockRccp guard(cls);
    if (HostRcp* h = cls->find(hostname)) {
        h->setPower(powerStatus);
    }
}

void ScriptedHwCtrl::removeHost(const std::string& hostname) {
    rmcp_->hosts()->remove(hostname);
}

bool ScriptedHwCtrl::monitored(const std::string& hostname) {
    HwRccp* cls = rmcp_->hosts();
    lockRccp guard(cls);
    HostRcp* h = cls->find(hostname);
    return h != nullptr && cls->getMonitor()->isMonitored(h->getResourceHandle(), 0);
}

}  // namespace hwctrltest
