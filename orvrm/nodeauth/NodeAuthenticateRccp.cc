#include "orvrm/nodeauth/NodeAuthenticateRccp.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "orvrm/ACLFile.h"
#include "orvrm/ClassList.h"
#include "orvrm/CmdExec.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/StanzaEntry.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "orvrm/refreshpex.h"
#include "platform/paths.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMDefaults.h"
#include "tarn_rmf2v/RMResponses.h"
#include "znhas/sec_thl.h"

namespace orvrm {
namespace {

// Longest status message passed to the status command.
constexpr size_t kMaxStatusMessage = 512;

tarn_rmf2v::RMClassDef classDefinition(const char* name) {
    tarn_rmf2v::RMClassDef def;
    def.name = name;
    // Inputs are free form: the actions check their elements themselves.
    def.classActions = {
        {"SetACL", kNaSetACL, {}},
        {"ClearACL", kNaClearACL, {}},
        {"RequestNodeManagement", kNaRequestNodeManagement, {}},
        {"SupportedProtocols", kNaSupportedProtocols, {}},
        {"InvokeNodeStatusCmd", kNaInvokeInstMsgCmd, {}},
        {"StopStatusLogging", kNaStopStatusLogging, {}},
        {"SetupMMPeerDomain", kNaSetupMMPeerDomain, {}},
    };
    return def;
}

void answerInt32(tarn_rmf2v::RMActionResponse* rsp, int32_t value) {
    zn::SdPtr out(zn_sd_new(1));
    if (!out) {
        throw std::bad_alloc();
    }
    out->elements[0].data_type = ZN_INT32;
    out->elements[0].value.val_int32 = value;
    rsp->returnData(out.get());
}

void answerError(tarn_rmf2v::RMActionResponse* rsp, cu_error_t* err) {
    zn::ErrorPtr owned(err);
    rsp->done(owned.get());
}

const zn_structured_data_element_t* element(const zn_structured_data* sd, uint32_t i) {
    return sd != nullptr && i < sd->element_count ? &sd->elements[i] : nullptr;
}

}  // namespace

NodeAuthenticateRccp::NodeAuthenticateRccp(char* className, rm_object_type type, ORVRMRmcp* rmcp)
    : RMRccp(className, type, rmcp), orvrmcp_(rmcp) {
    setClassDef(classDefinition(className));
    makeTrustedHostList();
    addClassAclEntries();
}

void NodeAuthenticateRccp::makeTrustedHostList() {
    // The list's writers change an existing file in place; the first node
    // to enroll on a fresh host needs one to be there.
    std::string thl;
    if (sec__get_thl_filename(&thl) != 0 || zn::paths::ensureParentDir(thl) != 0) {
        return;
    }
    int fd = ::open(thl.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0444);
    if (fd >= 0) {
        ::close(fd);
        orvrminfo_trace("NodeAuthenticateRccp: made an empty trusted host list");
    }
}

NodeAuthenticateRccp::~NodeAuthenticateRccp() = default;

void NodeAuthenticateRccp::addClassAclEntries() {
    // Everyone, unauthenticated callers too, may reach the class: its
    // actions check their callers themselves (signatures, node names).
    StanzaEntry entries[2];
    entries[0].init("*", ACLFile::PERM_CLASS, ACLFile::PERM_READ_WRITE,
                    "Everyone has access to the class");
    entries[1].init("UNAUTHENT", ACLFile::PERM_CLASS, ACLFile::PERM_READ_WRITE, nullptr);
    ACLFile acl(nullptr);
    int rc = acl.AddOrUpdateEntries(kNodeAuthenticateClass, entries, 2);
    if (rc != 0) {
        orvrminfo_trace("NodeAuthenticateRccp: the class entries were not written, rc %d", rc);
        return;
    }
    if (refreshpex() != 0) {
        orvrminfo_trace("NodeAuthenticateRccp: the service did not re-read its list");
    }
}

ManagedNodeRccp* NodeAuthenticateRccp::nodes() {
    return dynamic_cast<ManagedNodeRccp*>(getRmcp()->findRccpByName(kManagedNodeClass));
}

OrvCtrlRccp* NodeAuthenticateRccp::domainControl() {
    return dynamic_cast<OrvCtrlRccp*>(getRmcp()->findRccpByName(kOrvCtrlClass));
}

void NodeAuthenticateRccp::enumerateResources(tarn_rmf2v::RMEnumResourcesResponse* rsp) {
    rsp->done(tarn_rmf2v::defaults::notSupported("enumerateResources").get());
}

void NodeAuthenticateRccp::enumerateSelectResources(tarn_rmf2v::RMEnumResourcesResponse* rsp,
                                                    char*) {
    rsp->done(tarn_rmf2v::defaults::notSupported("enumerateSelectResources").get());
}

void NodeAuthenticateRccp::refreshConfig(tarn_rmf2v::RMSimpleResponse* rsp) {
    rsp->done(nullptr);
}

void NodeAuthenticateRccp::invokeClassAction(tarn_rmf2v::RMActionResponse* rsp, int actionId,
                                             zn_structured_data* input) {
    try {
        switch (actionId) {
            case kNaSetACL:
                setACL(rsp, input);
                break;
            case kNaClearACL:
                clearACL(rsp, input);
                break;
            case kNaRequestNodeManagement:
                reqNodeMgmt(rsp, input);
                break;
            case kNaSupportedProtocols:
                retSupportedProtocols(rsp);
                break;
            case kNaInvokeInstMsgCmd:
                invokeInstMsgCmd(rsp, input);
                break;
            case kNaStopStatusLogging:
                stopStatusLogging(rsp, input);
                break;
            case kNaSetupMMPeerDomain:
                setupMMPeerDomain(rsp, input);
                break;
            default:
                answerError(rsp, pkg_common_error(tarn_rmf::RM_ENOTSUPPORTED, "invokeClassAction",
                                                  0, "invokeClassAction"));
                break;
        }
    } catch (std::exception& e) {
        answerError(rsp, tarn_rmf::RMMapExceptionToError(e));
    }
    // Completed once, whatever the action did.
    if (!rsp->isComplete()) {
        rsp->done(nullptr);
    }
}

void NodeAuthenticateRccp::retSupportedProtocols(tarn_rmf2v::RMActionResponse* rsp) {
    zn::SdPtr out(zn_sd_new(2));
    if (!out) {
        throw std::bad_alloc();
    }
    out->elements[0].data_type = ZN_UINT64;
    out->elements[0].value.val_uint64 = 1;
    out->elements[1].data_type = ZN_UINT64;
    out->elements[1].value.val_uint64 = supportedProtocols_;
    rsp->returnData(out.get());
}

void NodeAuthenticateRccp::invokeInstMsgCmd(tarn_rmf2v::RMActionResponse* rsp,
                                            zn_structured_data* input) {
    const zn_structured_data_element_t* name = element(input, 0);
    const zn_structured_data_element_t* code = element(input, 1);
    const zn_structured_data_element_t* msg = element(input, 2);
    bool valid = name != nullptr && name->data_type == ZN_CHAR_PTR &&
                 name->value.ptr_char != nullptr && code != nullptr &&
                 code->data_type == ZN_UINT32 && code->value.val_uint32 >= 1 &&
                 code->value.val_uint32 <= 3 && msg != nullptr && msg->data_type == ZN_CHAR_PTR;
    const char* text = valid ? msg->value.ptr_char : nullptr;
    if (valid && text != nullptr) {
        valid = std::strlen(text) <= kMaxStatusMessage && std::strchr(text, '\'') == nullptr &&
                std::strchr(text, '!') == nullptr;
    }
    ManagedNodeRccp* mn = valid ? nodes() : nullptr;
    if (mn == nullptr || mn->isAllowStatusLogs(name->value.ptr_char) != 1) {
        answerInt32(rsp, -1);
        return;
    }
    std::string command = zn::paths::resolve(zn::paths::kNodeStatus);
    std::vector<char> line(command.size() + std::strlen(name->value.ptr_char) + 32);
    std::snprintf(line.data(), line.size(), "%s %d %s ", command.c_str(),
                  static_cast<int>(code->value.val_uint32), name->value.ptr_char);
    std::string full = line.data();
    if (text != nullptr) {
        full += text;
    }
    orvrminfo_trace("Invoking command %s", full.c_str());
    CmdExec runner;
    char* out = nullptr;
    char* err = nullptr;
    int rc = runner.Execute(full.c_str(), nullptr, tarn_base::CCommand::kCommandLine, &out, &err);
    std::free(out);
    std::free(err);
    answerInt32(rsp, rc);
}

void NodeAuthenticateRccp::stopStatusLogging(tarn_rmf2v::RMActionResponse* rsp,
                                             zn_structured_data* input) {
    const zn_structured_data_element_t* name = element(input, 0);
    if (name == nullptr || name->data_type != ZN_CHAR_PTR || name->value.ptr_char == nullptr ||
        name->value.ptr_char[0] == '\0') {
        answerInt32(rsp, -1);
        return;
    }
    if (ManagedNodeRccp* mn = nodes()) {
        mn->stopStatusLogging(name->value.ptr_char);
    }
    answerInt32(rsp, 0);
}

void NodeAuthenticateRccp::setupMMPeerDomain(tarn_rmf2v::RMActionResponse* rsp,
                                             zn_structured_data* input) {
    static const char fn[] = "setupMMPeerDomain";
    orvrminfo_trace("Entering NodeAuthenticateRccp::setupMMPeerDomain");
    struct Leaving {
        ~Leaving() { orvrminfo_trace("Leaving NodeAuthenticateRccp::setupMMPeerDomain"); }
    } leaving;
    const zn_structured_data_element_t* sig = element(input, 0);
    const zn_structured_data_element_t* mtms = element(input, 1);
    const zn_structured_data_element_t* id = element(input, 2);
    if (sig == nullptr || sig->data_type != ZN_BINARY_PTR || mtms == nullptr ||
        mtms->data_type != ZN_CHAR_PTR || mtms->value.ptr_char == nullptr || id == nullptr ||
        id->data_type != ZN_UINT64) {
        answerError(rsp, pkg_error(266, 29, fn, 0, fn));
        return;
    }
    uint64_t nodeId = id->value.val_uint64;
    cu_error_t* err = nullptr;
    int verified =
        verifySignature(mtms->value.ptr_char, &input->elements[1], 2, sig->value.ptr_binary, &err);
    if (verified != 1) {
        if (err != nullptr) {
            orvrmlog_error("NodeAuthenticateRccp::setupMMPeerDomain", err);
            answerError(rsp, err);
            return;
        }
        char text[32];
        std::snprintf(text, sizeof text, "0x%016llx", static_cast<unsigned long long>(nodeId));
        answerError(rsp, pkg_error(267, 71, fn, 0, text));
        return;
    }
    orvrminfo_trace(
        "Verification of key succeeded.About to acquire try lock on SetupMMPeerDomain ");
    std::unique_lock<std::mutex> lock(peerDomainMu_, std::try_to_lock);
    if (!lock.owns_lock()) {
        orvrminfo_trace("Lock for SetupMMPeerDomain is currently in use.");
        answerError(rsp, pkg_error(271, 111, fn, 0));
        return;
    }
    orvrminfo_trace("Lock for SetupMMPeerDomain acquired.");
    ManagedNodeRccp* mn = nodes();
    int rc = mn != nullptr ? mn->setupPeerDomain(nodeId) : -1;
    answerInt32(rsp, rc);
}

}  // namespace orvrm
