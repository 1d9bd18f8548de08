// The node's entries in the monitoring service's access control list,
// granted ("SetACL") and withdrawn ("ClearACL") on a request signed with the
// node's frame key. The grant is what the node's own software needs and no
// more: root on the node may read the managed-node resources (so its agent
// sees whether this server still knows it). Everything else the node does
// goes through this class, which every caller may reach, or through the
// services' own peer link. The grant is written down in the protocol
// document. Withdrawing also removes the node's names from the trusted host
// list, those stored for this node only.
#include "orvrm/ACLFile.h"
#include "orvrm/ClassList.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/StanzaEntry.h"
#include "orvrm/nodeauth/NodeAuthenticateRccp.h"
#include "orvrm/refreshpex.h"
#include "tarn_rmf2v/RMResponses.h"
#include "znhas/znhas.h"

namespace orvrm {
namespace {

constexpr int kAclError = 0x18000;

void answerError(tarn_rmf2v::RMActionResponse* rsp, cu_error_t* err) {
    zn::ErrorPtr owned(err);
    rsp->done(owned.get());
}

}  // namespace

const char* NodeAuthenticateRccp::checkAclRequest(zn_structured_data* in, const char* fn,
                                                  cu_error_t** err) {
    if (in == nullptr || in->element_count < 4 || in->elements[0].data_type != ZN_BINARY_PTR ||
        in->elements[1].data_type != ZN_UINT64 || in->elements[2].data_type != ZN_CHAR_PTR ||
        in->elements[3].data_type != ZN_CHAR_PTR || in->elements[2].value.ptr_char == nullptr ||
        in->elements[3].value.ptr_char == nullptr || in->elements[3].value.ptr_char[0] == '\0') {
        *err = pkg_error(kAclError, 75, fn, 0);
        return nullptr;
    }
    cu_error_t* verr = nullptr;
    int verified = verifySignature(in->elements[2].value.ptr_char, &in->elements[1], 3,
                                   in->elements[0].value.ptr_binary, &verr);
    if (verified != 1) {
        if (verr != nullptr) {
            orvrmlog_error(fn, verr);
            *err = verr;
        } else {
            *err = pkg_error(kAclError, 76, fn, 0);
        }
        return nullptr;
    }
    return in->elements[3].value.ptr_char;
}

int NodeAuthenticateRccp::updateACLFile(const char* nodeName, bool add) {
    std::string root = std::string("root@") + nodeName;
    ACLFile acl(nullptr);
    int rc = 0;
    if (add) {
        std::string comment = std::string("grant root on ") + nodeName + " read access";
        StanzaEntry entry;
        entry.init(root.c_str(), ACLFile::PERM_RESOURCE, ACLFile::PERM_READ, comment.c_str());
        rc = acl.AddOrUpdateEntries(kManagedNodeClass, &entry, 1);
    } else {
        char* ids[] = {root.data(), const_cast<char*>(nodeName)};
        rc = acl.DeleteEntries(kManagedNodeClass, ids, 2);
        if (rc == 0) {
            rc = acl.DeleteEntries("OTHER", ids, 1);
        }
    }
    if (rc == 0 && refreshpex() != 0) {
        orvrminfo_trace("NodeAuthenticateRccp: the service did not re-read its list");
    }
    return rc;
}

void NodeAuthenticateRccp::setACL(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* in) {
    cu_error_t* err = nullptr;
    const char* node = checkAclRequest(in, "setACL", &err);
    if (node == nullptr) {
        answerError(rsp, err);
        return;
    }
    int rc = updateACLFile(node, true);
    if (rc != 0) {
        orvrminfo_trace("_updateACL() failed with code %d", rc);
        answerError(rsp, pkg_error(kAclError, 77, "setACL", 0));
        return;
    }
    rsp->done(nullptr);
}

void NodeAuthenticateRccp::clearACL(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* in) {
    cu_error_t* err = nullptr;
    const char* node = checkAclRequest(in, "clearACL", &err);
    if (node == nullptr) {
        answerError(rsp, err);
        return;
    }
    uint64_t universalId = in->elements[1].value.val_uint64;
    {
        std::lock_guard<std::mutex> store(storeMu_);
        for (uint32_t i = 4; i < 6 && i < in->element_count; ++i) {
            const zn_structured_data_element_t& e = in->elements[i];
            if (e.data_type != ZN_CHAR_PTR_ARRAY || e.value.ptr_array == nullptr) {
                continue;
            }
            for (uint32_t k = 0; k < e.value.ptr_array->array_cnt; ++k) {
                const char* name = e.value.ptr_array->elements[k].ptr_char;
                if (name == nullptr || *name == '\0') {
                    continue;
                }
                // The lists are not signed: only this node's own names go.
                if (owners_.ownerOf(name) != universalId) {
                    orvrminfo_trace("clearACL: %s is not a name of node 0x%016llx; kept", name,
                                    static_cast<unsigned long long>(universalId));
                    continue;
                }
                int rc = sec_delete_host_token(name);
                if (rc != 0) {
                    orvrminfo_trace("**** sec_delete_host_token() failed with code %d", rc);
                    continue;
                }
                owners_.forget(name);
            }
        }
    }
    int rc = updateACLFile(node, false);
    if (rc != 0) {
        orvrminfo_trace("_updateACL() failed with code %d", rc);
        answerError(rsp, pkg_error(kAclError, 77, "clearACL", 0));
        return;
    }
    rsp->done(nullptr);
}

}  // namespace orvrm
