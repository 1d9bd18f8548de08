#include "tests/orvrm/peerdomain/ScriptedPeerHost.h"

#include <chrono>
#include <cstdlib>
#include <thread>

#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf/registry/RMTree.h"
#include "tarn_rmf2v/RMLocks.h"
#include "tarn_rmf2v/RMResponses.h"
#include "tarn_rmf2v/RMTableRccp.h"
#include "tarn_rmf2v/RMTableRcp.h"

namespace peerdomaintest {

using namespace tarn_rmf2v;
using tarn_rmf::rmNoDefault;
using tarn_rmf::rmStrDefault;
using tarn_rmf::rmUintDefault;

namespace {

constexpr uint32_t kKept = RM_PROP_NOT_AT_DEFINE | RM_PROP_READ_ONLY | RM_PROP_SELECTABLE;
constexpr uint32_t kGiven = RM_PROP_OPTIONAL | RM_PROP_SELECTABLE;

const RMAttrSpec kNamed[] = {
    {0, "ResourceHandle", ZN_RSRC_HANDLE_PTR, kKept, rmNoDefault()},
    {1, "Variety", ZN_UINT32, kKept, rmUintDefault(1)},
    {2, "Name", ZN_CHAR_PTR, kGiven | RM_PROP_REQUIRED, rmStrDefault("")},
};
const RMAttrSpec kClassAttrs[] = {{0, "Variety", ZN_UINT32, kKept, rmUintDefault(1)}};
const RMAttrSpec kOpState[] = {{0, "OpState", ZN_UINT32, 0, rmNoDefault()}};
const RMAttrSpec kRecord[] = {
    {0, "ResourceHandle", ZN_RSRC_HANDLE_PTR, kKept, rmNoDefault()},
    {1, "Variety", ZN_UINT32, kKept, rmUintDefault(1)},
    {2, "Hostname", ZN_CHAR_PTR, kGiven, rmStrDefault("")},
    {3, "ManagerType", ZN_CHAR_PTR, kGiven, rmStrDefault("")},
    {4, "NodeNameList", ZN_CHAR_PTR_ARRAY, kGiven, rmNoDefault()},
};
const RMAttrSpec kConfigChanged[] = {{0, "ConfigChanged", ZN_UINT32, 0, rmNoDefault()}};

const RMClassSpec& domainSpec() {
    static const RMClassSpec s{.name = "Kor.PeerDomain",
                               .classTable = "/Kor/PeerDomain/Class",
                               .resourceTable = "/Kor/PeerDomain/Resources",
                               .classPersistent = kClassAttrs,
                               .persistent = kNamed,
                               .dynamic = kOpState,
                               .classActions = {{0, "SyncConfig", {}}}};
    return s;
}
const RMClassSpec& nodeSpec() {
    static const RMClassSpec s{.name = "Kor.PeerNode",
                               .classTable = "/Kor/PeerNode/Class",
                               .resourceTable = "/Kor/PeerNode/Resources",
                               .classPersistent = kClassAttrs,
                               .persistent = kNamed,
                               .dynamic = kOpState};
    return s;
}
const RMClassSpec& recordSpec() {
    static const RMClassSpec s{.name = "Kor.ManagementServer",
                               .classTable = "/Kor/ManagementServer/Class",
                               .resourceTable = "/Kor/ManagementServer/Resources",
                               .classPersistent = kClassAttrs,
                               .persistent = kRecord,
                               .dynamic = kConfigChanged,
                               .classActions = {{0, "DoPreprpnode", {}}},
                               .actions = {{0, "SyncData", {}}}};
    return s;
}

zn::ErrorPtr failure(const char* what) {
    cu_error_t* e = nullptr;
    tarn_rmf::RMPkgCommonError(tarn_rmf::RM_EINTERNAL, nullptr, &e, what);
    return zn::ErrorPtr(e);
}

std::string textOf(const zn_structured_data* sd, uint32_t i) {
    if (sd == nullptr || i >= sd->element_count) {
        return "";
    }
    const zn_structured_data_element_t& e = sd->elements[i];
    if (e.data_type == ZN_CHAR_PTR && e.value.ptr_char != nullptr) {
        return e.value.ptr_char;
    }
    if (e.data_type == ZN_CHAR_PTR_ARRAY && e.value.ptr_array != nullptr) {
        std::string out;
        for (uint32_t k = 0; k < e.value.ptr_array->array_cnt; ++k) {
            out += (k > 0 ? "," : "") + std::string(e.value.ptr_array->elements[k].ptr_char);
        }
        return out;
    }
    return "";
}

}  // namespace

class ScriptedRmcp : public RMRmcp {
public:
    explicit ScriptedRmcp(const std::string& treeDir)
        : RMRmcp("Kor.PeerRM", 1, nullptr, 0, 1), tree_(treeDir.c_str()) {}
    tarn_rmf::RMTree* getTree() override { return &tree_; }

    void record(const std::string& call) {
        std::lock_guard<std::mutex> g(mu_);
        calls_.push_back(call);
    }
    std::vector<std::string> calls() const {
        std::lock_guard<std::mutex> g(mu_);
        return calls_;
    }
    // A query arrives: stall, then say whether it fails.
    bool queryFails() {
        if (int ms = stallMs.load(); ms > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        }
        return failQueries.load();
    }

    std::atomic<bool> failQueries{false};
    std::atomic<int> stallMs{0};
    // Where a domain defined here becomes known too (set before any define).
    std::vector<ScriptedPeerHost*> mirrors;

private:
    tarn_rmf::RMTree tree_;
    mutable std::mutex mu_;
    std::vector<std::string> calls_;
};

namespace {

class ScriptedRcp : public RMTableRcp {
public:
    ScriptedRcp(const zn_resource_handle* h, RMTableRccp* rccp, const std::string& kind)
        : RMTableRcp(h, rccp, 1), kind_(kind) {}

    std::atomic<uint32_t> opState{0};
    zn::SdPtr syncReply;

    ScriptedRmcp* host() const { return static_cast<ScriptedRmcp*>(getRmcp()); }

    void getAttributeValues(RMAttributeValueResponse* rsp, int* ids, unsigned int count) override {
        if (host()->queryFails()) {
            rsp->done(failure("getAttributeValues").get());
            return;
        }
        RMTableRcp::getAttributeValues(rsp, ids, count);
    }
    void reportDynAttributeValues(int* ids, unsigned int count,
                                  RMAttributeValueResponse* rsp) override {
        zn::OwnedValue name = get("Name");
        host()->record(kind_ + ".query " +
                       (name.value().ptr_char != nullptr ? name.value().ptr_char : ""));
        if (host()->queryFails()) {
            rsp->done(failure("reportDynAttributeValues").get());
            return;
        }
        RMTableRcp::reportDynAttributeValues(ids, count, rsp);
    }
    void online(RMSimpleResponse* rsp, unsigned long long*, unsigned int,
                zn_structured_data*) override {
        host()->record(kind_ + ".online");
        opState = 1;
        rsp->done(nullptr);
    }
    void offline(RMSimpleResponse* rsp, rm_offline_opts, zn_structured_data*) override {
        host()->record(kind_ + ".offline");
        opState = 0;
        rsp->done(nullptr);
    }
    void invokeAction(RMActionResponse* rsp, int, zn_structured_data*) override {
        host()->record(kind_ + ".SyncData");
        if (syncReply) {
            rsp->returnData(syncReply.get());
        }
        rsp->done(nullptr);
    }

protected:
    bool dynamicValue(const RMAttrSpec&, zn::OwnedValue* out) override {
        zn_value_t v{};
        v.val_uint32 = opState.load();
        *out = zn::OwnedValue(ZN_UINT32, v);
        return true;
    }

private:
    std::string kind_;
};

RMTableRccp::Options optionsFor(const char* rcpName) {
    RMTableRccp::Options o;
    o.ownRowsOnly = false;
    o.writeThrough = true;
    o.classCode = 9;
    o.rcpName = rcpName;
    return o;
}

class ScriptedRccp : public RMTableRccp {
public:
    ScriptedRccp(ScriptedRmcp* rmcp, const RMClassSpec& spec, const std::string& kind)
        : RMTableRccp(spec.name, RM_OBJECT_CLASS, rmcp, spec, optionsFor("ScriptedRcp")),
          kind_(kind) {
        loadResources();
    }
    ScriptedRmcp* host() const { return static_cast<ScriptedRmcp*>(getRmcp()); }

    // Adds a resource with the given values; the caller sets its state.
    ScriptedRcp* add(std::vector<rm_attribute_value> values) {
        lockRccp guard(this);
        DefineResult r = defineRow(values.data(), static_cast<unsigned>(values.size()), "add");
        return static_cast<ScriptedRcp*>(r.rcp);
    }
    ScriptedRcp* first() {
        lockRccp guard(this);
        std::vector<zn_resource_handle> all = handlesOf(nullptr);
        return all.empty() ? nullptr : static_cast<ScriptedRcp*>(findRcpByHandle(&all[0]));
    }
    std::vector<std::string> names() {
        std::vector<std::string> out;
        tarn_rmf::RMRowSet rows = resourceTable()->getMetadata();
        for (unsigned r = 0; r < rows.getRowCount(); ++r) {
            out.emplace_back(rows.viewField(r, 2).text());
        }
        return out;
    }

    void defineResource(RMDefineResourceResponse* rsp, zn_structured_data* options,
                        rm_attribute_value* values, unsigned int count) override {
        lockRccp guard(this);
        std::string name;
        for (unsigned i = 0; i < count; ++i) {
            if (values[i].rm_data_type == ZN_CHAR_PTR && values[i].rm_value.ptr_char != nullptr) {
                name = values[i].rm_value.ptr_char;
            }
        }
        host()->record(kind_ + ".define " + name +
                       (options != nullptr ? " [" + textOf(options, 0) + "]" : ""));
        DefineResult r = defineRow(values, count, "defineResource");
        rsp->done(r.error ? nullptr : &r.handle, r.error.get());
        if (!r.error && kind_ == "PeerDomain") {
            for (ScriptedPeerHost* m : host()->mirrors) {
                m->adoptDomain(r.handle, name);
            }
        }
    }
    // A resource made elsewhere under its handle (a domain is known on every
    // node it names).
    void adopt(const zn_resource_handle& h, const std::string& name) {
        lockRccp guard(this);
        zn_value_t hv{};
        hv.ptr_rsrc_handle = const_cast<zn_resource_handle*>(&h);
        tarn_rmf::RMFieldValue fields[] = {{"ResourceHandle", -1, ZN_RSRC_HANDLE_PTR, hv},
                                           {"Name", -1, ZN_CHAR_PTR, {}}};
        fields[1].value.ptr_char = const_cast<char*>(name.c_str());
        resourceTable()->addRow(fields, 2);
        addRcp(makeRcp(h, 1));
    }
    void invokeClassAction(RMActionResponse* rsp, int actionId,
                           zn_structured_data* input) override {
        const RMActionSpec& a = spec().classActions.at(static_cast<size_t>(actionId));
        host()->record(
            std::string(a.name) + " " + textOf(input, 0) +
            (input != nullptr && input->element_count > 2 ? " " + textOf(input, 2) : ""));
        rsp->done(nullptr);
    }

protected:
    RMTableRcp* makeRcp(const zn_resource_handle& h, unsigned int) override {
        return new ScriptedRcp(&h, this, kind_);
    }
    void resourceRemoved(RMTableRcp*) override { host()->record(kind_ + ".undefine"); }

private:
    std::string kind_;
};

rm_attribute_value textValue(int id, const char* s) {
    rm_attribute_value v{id, ZN_CHAR_PTR, {}};
    v.rm_value.ptr_char = const_cast<char*>(s);
    return v;
}

}  // namespace

namespace {

// Sets ZN_ROOT for a scope and puts the previous value back.
class RootedAt {
public:
    explicit RootedAt(const std::string& root) {
        const char* old = std::getenv("ZN_ROOT");
        had_ = old != nullptr;
        old_ = had_ ? old : "";
        setenv("ZN_ROOT", root.c_str(), 1);
    }
    ~RootedAt() {
        if (had_) {
            setenv("ZN_ROOT", old_.c_str(), 1);
        } else {
            unsetenv("ZN_ROOT");
        }
    }

private:
    bool had_;
    std::string old_;
};

}  // namespace

ScriptedPeerHost::ScriptedPeerHost(const std::string& socketPath, const std::string& hostRoot,
                                   const std::string& treeDir) {
    // The host's node id and registry, read while its root is the process's.
    RootedAt rooted(hostRoot);
    rmcp_ = std::make_unique<ScriptedRmcp>(treeDir);
    rmcp_->getNodeId();
    new ScriptedRccp(rmcp_.get(), domainSpec(), "PeerDomain");
    new ScriptedRccp(rmcp_.get(), nodeSpec(), "PeerNode");
    new ScriptedRccp(rmcp_.get(), recordSpec(), "ManagementServer");
    for (int i = 0; i < 3; ++i) {
        unsigned long id = 0;
        rmcp_->start(&id);
    }
    RMServiceConnectionOptions o;
    o.socketPath = socketPath;
    o.maxBackoff = std::chrono::milliseconds(200);
    conn_ = std::make_unique<RMServiceConnection>(*rmcp_, o);
}

ScriptedPeerHost::~ScriptedPeerHost() {
    conn_->stop();
    rmcp_->cleanup();
}

bool ScriptedPeerHost::start() {
    conn_->start();
    for (int i = 0; i < 1000 && !conn_->connected(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return conn_->connected();
}

void ScriptedPeerHost::setDomain(const std::string& name, uint32_t opState) {
    auto* cls =
        static_cast<ScriptedRccp*>(rmcp_->findRccpByName(const_cast<char*>("Kor.PeerDomain")));
    ScriptedRcp* rcp = cls->add({textValue(2, name.c_str())});
    rcp->opState = opState;
}

void ScriptedPeerHost::addPeerNode(const std::string& name, uint32_t opState) {
    auto* cls =
        static_cast<ScriptedRccp*>(rmcp_->findRccpByName(const_cast<char*>("Kor.PeerNode")));
    ScriptedRcp* rcp = cls->add({textValue(2, name.c_str())});
    rcp->opState = opState;
}

void ScriptedPeerHost::addRecord(const std::string& msHostname,
                                 const std::vector<std::string>& nodes, zn::SdPtr syncReply) {
    auto* cls = static_cast<ScriptedRccp*>(
        rmcp_->findRccpByName(const_cast<char*>("Kor.ManagementServer")));
    rm_attribute_value list{4, ZN_CHAR_PTR_ARRAY, {}};
    list.rm_value.ptr_array = zn_array_new(static_cast<uint32_t>(nodes.size()));
    for (size_t i = 0; i < nodes.size(); ++i) {
        list.rm_value.ptr_array->elements[i].ptr_char = const_cast<char*>(nodes[i].c_str());
    }
    ScriptedRcp* rcp = cls->add({textValue(2, msHostname.c_str()), textValue(3, "WEX"), list});
    std::free(list.rm_value.ptr_array);
    rcp->syncReply = std::move(syncReply);
}

void ScriptedPeerHost::mirrorDomainsTo(std::vector<ScriptedPeerHost*> hosts) {
    rmcp_->mirrors = std::move(hosts);
}

void ScriptedPeerHost::adoptDomain(const zn_resource_handle& handle, const std::string& name) {
    auto* cls =
        static_cast<ScriptedRccp*>(rmcp_->findRccpByName(const_cast<char*>("Kor.PeerDomain")));
    cls->adopt(handle, name);
}

void ScriptedPeerHost::failQueries(bool fail) {
    rmcp_->failQueries = fail;
}

void ScriptedPeerHost::stallQueries(int stallMs) {
    rmcp_->stallMs = stallMs;
}

std::vector<std::string> ScriptedPeerHost::calls() const {
    return rmcp_->calls();
}

bool ScriptedPeerHost::called(const std::string& prefix) const {
    for (const std::string& c : rmcp_->calls()) {
        if (c.rfind(prefix, 0) == 0) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> ScriptedPeerHost::peerNodes() const {
    auto* cls =
        static_cast<ScriptedRccp*>(rmcp_->findRccpByName(const_cast<char*>("Kor.PeerNode")));
    return cls->names();
}

}  // namespace peerdomaintest
