// "RequestNodeManagement": a node asks to be managed. Its request is checked
// (element types, then checkIfCanManage: the node's flags for the old
// unsigned protocols, the frame key's signature for the signed ones), its
// host token is stored in the trusted host list under each of its names,
// and the reply carries this server's node id and token, signed with the
// same frame key. Then the node is defined (or updated) and, on success,
// its mode becomes "Managed".
#include <cstring>
#include <new>

#include "common/HostNames.h"
#include "common/SignSD.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/nodeauth/NodeAuthenticateRccp.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "tarn_rmf2v/RMResponses.h"
#include "znhas/znhas.h"

namespace orvrm {
namespace {

constexpr char kFn[] = "reqNodeMgmt";
constexpr char kAction[] = "RequestNodeManagement";
constexpr int kMinElements = 6;
constexpr zn_data_type_t kTypes[kMinElements] = {ZN_UINT32, ZN_BINARY_PTR, ZN_CHAR_PTR,
                                                 ZN_UINT64, ZN_CHAR_PTR,   ZN_BINARY_PTR};

// The names of the tag-1001 list, then those of the tag-1000 list (an odd
// number of extra elements disables the scan).
void collectNames(const zn_structured_data* rq, std::vector<std::string>* own,
                  std::vector<std::string>* seen) {
    uint32_t extra = rq->element_count - kMinElements;
    if (extra % 2 != 0) {
        return;
    }
    for (uint32_t i = kMinElements; i + 1 < rq->element_count; i += 2) {
        const auto& tag = rq->elements[i];
        const auto& val = rq->elements[i + 1];
        if (tag.data_type != ZN_INT32 || val.data_type != ZN_CHAR_PTR_ARRAY ||
            val.value.ptr_array == nullptr) {
            continue;
        }
        std::vector<std::string>* to = tag.value.val_int32 == kTagNamesOwn    ? own
                                       : tag.value.val_int32 == kTagNamesSeen ? seen
                                                                              : nullptr;
        if (to == nullptr) {
            continue;
        }
        const zn_array* a = val.value.ptr_array;
        for (uint32_t k = 0; k < a->array_cnt; ++k) {
            const char* s = a->elements[k].ptr_char;
            if (s != nullptr && *s != '\0') {
                to->emplace_back(s);
            }
        }
    }
}

void setString(zn_structured_data_element_t& e, const char* s) {
    e.data_type = ZN_CHAR_PTR;
    e.value.ptr_char = strdup(s != nullptr ? s : "");
    if (e.value.ptr_char == nullptr) {
        throw std::bad_alloc();
    }
}

void setTag(zn_structured_data_element_t& e, int32_t tag) {
    e.data_type = ZN_INT32;
    e.value.val_int32 = tag;
}

// A copy of a name list (or an empty array) as an owned element value.
void setNames(zn_structured_data_element_t& e, zn_array* names) {
    e.data_type = ZN_CHAR_PTR_ARRAY;
    zn_value_t in{};
    in.ptr_array = names;
    bool ok = names != nullptr ? zn_value_dup(ZN_CHAR_PTR_ARRAY, in, e.value)
                               : (e.value.ptr_array = zn_array_new(0)) != nullptr;
    std::free(names);
    if (!ok) {
        e.data_type = ZN_UNKNOWN;
        throw std::bad_alloc();
    }
}

}  // namespace

int NodeAuthenticateRccp::checkIfCanManage(const zn_structured_data* rq, cu_error_t** err) {
    uint32_t protocol = rq->elements[0].value.val_uint32;
    const char* host = rq->elements[2].value.ptr_char;
    uint64_t id = rq->elements[3].value.val_uint64;
    if (protocol < 2) {
        ManagedNodeRccp* mn = nodes();
        int allowed = mn != nullptr ? mn->isAllowMngReq(host, id, err) : 0;
        if (allowed == 2 || allowed == 127) {
            return allowed;
        }
        OrvCtrlRccp* settings = domainControl();
        // The domain takes nodes it does not know yet ("AddUnrecognizedNodes").
        bool flag = settings != nullptr && settings->getAddUnrecognizedNodes() == 1;
        if (!flag) {
            return 0;
        }
        return allowed == 1 ? 2 : 1;
    }
    if (protocol == kProtoSigned || protocol == kProtoSignedNames ||
        protocol == kProtoSignedAddrs) {
        return verifySignature(rq->elements[4].value.ptr_char,
                               const_cast<zn_structured_data_element_t*>(&rq->elements[2]), 4,
                               rq->elements[1].value.ptr_binary, err);
    }
    return 0;
}

int NodeAuthenticateRccp::buildReply(uint32_t protocol, const char* mtms, const char* hostname,
                                     sec_buffer_s local, zn::SdPtr* reply, cu_error_t** err) {
    bool names = protocol == kProtoUnsignedNames || protocol == kProtoSignedNames ||
                 protocol == kProtoSignedAddrs;
    bool signedProto = protocol >= kProtoSigned && protocol <= kProtoSignedAddrs;
    zn::SdPtr out(zn_sd_new(names ? 11 : 7));
    if (!out) {
        throw std::bad_alloc();
    }
    zn_structured_data_element_t* e = out->elements;
    e[0].data_type = ZN_BINARY_PTR;
    e[0].value.ptr_binary = nullptr;
    if (protocol < 2) {
        e[0].value.ptr_binary = zn_binary_new(nullptr, 0);
        if (e[0].value.ptr_binary == nullptr) {
            throw std::bad_alloc();
        }
    }
    e[1].data_type = ZN_UINT64;
    e[1].value.val_uint64 = getRmcp()->getNodeId();
    e[2].data_type = ZN_BINARY_PTR;
    zn_binary* token = nullptr;
    unsigned int rc = WEX_COMMON::sec2binary(&local, token);
    if (rc != 0) {
        orvrminfo_trace("sec2binary failed with rc %d", static_cast<int>(rc));
        *err = pkg_error(267, 42, "reqPublicKeyXchng", 0);
        return 42;
    }
    e[2].value.ptr_binary = token;
    OrvCtrlRccp* settings = domainControl();
    char* tm = settings != nullptr ? settings->getClusterTM() : nullptr;
    char* snum = settings != nullptr ? settings->getClusterSNum() : nullptr;
    setTag(e[3], kTagClusterTM);
    setTag(e[5], kTagClusterSNum);
    try {
        setString(e[4], tm);
        setString(e[6], snum);
    } catch (...) {
        std::free(tm);
        std::free(snum);
        throw;
    }
    std::free(tm);
    std::free(snum);
    if (names) {
        setTag(e[7], kTagPrimaryNames);
        zn_array* primary = nullptr;
        int hrc = WEX_COMMON::fetchLocalHostPrimaryHostnames(&primary, 0);
        if (hrc != 0) {
            orvrminfo_trace("reqNodeMgmt::fetchLocalHostPrimaryHostnames rc=%d", hrc);
            primary = nullptr;
        }
        setNames(e[8], primary);
        setTag(e[9], kTagNamesSeen);
        zn_array* seen = nullptr;
        unsigned long long flag =
            protocol == kProtoSignedAddrs ? 0 : WEX_COMMON::kConnectivityHostNames;
        int crc = WEX_COMMON::fetchConnectivityNames(const_cast<char*>(hostname), &seen, flag);
        if (crc != 0) {
            orvrminfo_trace("reqNodeMgmt::fetchConnectivityNames rc=%d", crc);
            seen = nullptr;
        }
        setNames(e[10], seen);
    }
    if (signedProto) {
        zn_binary* sig = nullptr;
        if (createSignature(mtms, &e[1], 2, &sig, err) != 0) {
            if (*err == nullptr) {
                *err = pkg_error(267, 42, kFn, 0);
            }
            return 42;
        }
        e[0].value.ptr_binary = sig;
    }
    *reply = std::move(out);
    return 0;
}

void NodeAuthenticateRccp::reqNodeMgmt(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* rq) {
    orvrminfo_trace("reqNodeMgmt: Entered");
    auto refuse = [rsp](cu_error_t* e) {
        zn::ErrorPtr owned(e);
        rsp->done(owned.get());
    };
    if (rq == nullptr || rq->element_count < kMinElements) {
        refuse(pkg_error(266, 28, kFn, 0, kAction));
        return;
    }
    for (int i = 0; i < kMinElements; ++i) {
        if (rq->elements[i].data_type != kTypes[i]) {
            refuse(pkg_error(266, 29, kFn, 0, kAction));
            return;
        }
    }
    std::vector<std::string> own;
    std::vector<std::string> seen;
    collectNames(rq, &own, &seen);
    const char* hostname = rq->elements[2].value.ptr_char;
    uint64_t universalId = rq->elements[3].value.val_uint64;
    if (hostname == nullptr || *hostname == '\0' || universalId == 0 ||
        rq->elements[5].value.ptr_binary == nullptr) {
        refuse(pkg_error(266, 50, kFn, 0));
        return;
    }
    uint32_t protocol = rq->elements[0].value.val_uint32;
    const char* mtms = rq->elements[4].value.ptr_char;

    cu_error_t* err = nullptr;
    int can = checkIfCanManage(rq, &err);
    if (can == 127) {
        orvrmlog_error("NodeAuthenticateRccp::reqNodeMgmt", err);
        cu_rel_error_1(err);
        refuse(pkg_error(267, 38, kFn, 0));
        return;
    }
    if (can == 0) {
        cu_rel_error_1(err);
        refuse(pkg_error(267, 43, kFn, 0, hostname));
        return;
    }

    sec_buffer_s token{};
    WEX_COMMON::binary2sec(rq->elements[5].value.ptr_binary, &token);
    sec_buffer_t local = nullptr;
    {
        std::lock_guard<std::mutex> store(storeMu_);
        std::vector<std::string> extra = own;
        extra.insert(extra.end(), seen.begin(), seen.end());
        std::string failed;
        int rc = storeTokens(hostname, universalId, extra, token, &failed);
        if (rc != 0) {
            orvrminfo_trace("sec_store_host_token failed with rc [%d]", rc);
            refuse(pkg_error(267, 40, kFn, 0, failed.c_str()));
            return;
        }
        rc = sec_get_localhost_token(SEC_PUBLIC_KEYFILE, &local);
        if (rc != 0) {
            orvrminfo_trace("sec_get_localhost_token failed with rc [%d]", rc);
            refuse(pkg_error(267, 41, "reqPublicKeyXchng", 0));
            return;
        }
    }
    struct LocalToken {
        sec_buffer_t t;
        ~LocalToken() { sec_release_host_token(&t); }
    } localGuard{local};

    zn::SdPtr reply;
    if (buildReply(protocol, mtms, hostname, *local, &reply, &err) != 0) {
        refuse(err);
        return;
    }
    std::vector<rm_attribute_value> values = getNodeSystemData(rq);
    ManagedNodeRccp* mn = nodes();
    if (values.empty() || mn == nullptr) {
        refuse(pkg_error(267, 44, kFn, 0));
        return;
    }
    orvrminfo_trace("reqNodeMgmt: Before createOrUpdateResourceRetNodeId");
    uint64_t nodeId = mn->createOrUpdateResourceRetNodeId(
        hostname, universalId, values.data(), static_cast<unsigned int>(values.size()), &err);
    orvrminfo_trace("reqNodeMgmt: After  createOrUpdateResourceRetNodeId");
    values.clear();
    bool succ = nodeId != 0 && err == nullptr;
    if (succ) {
        rsp->returnData(reply.get());
        rsp->done(nullptr);
    } else {
        orvrmlog_error("NodeAuthenticateRccp::reqNodeMgmt", err);
        cu_rel_error_1(err);
        refuse(pkg_error(267, 44, kFn, 0));
    }
    reply.reset();
    orvrminfo_trace("reqNodeMgmt: succ value is %d", succ ? 1 : 0);
    mn->resetAllowManageReqAttr(hostname);
    if (succ) {
        mn->reqNodeMgmtSuccCB(hostname);
    }
}

}  // namespace orvrm
