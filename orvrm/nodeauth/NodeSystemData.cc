// The managed node's attributes a management request gives: its host name
// and universal id, then the values of the request's tagged pairs whose tag
// is a managed-node attribute id. A node may describe itself (hardware,
// installation, addresses) but not what the server decides about it: the
// handle, variety, name, node ids, its permission to ask, its mode and its
// control flags are never taken from a request. The first value of a tag wins.
#include <bitset>

#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/nodeauth/NodeAuthenticateRccp.h"

namespace orvrm {
namespace {

bool nodeMayGive(int id) {
    switch (id) {
        case kMnResourceHandle:
        case kMnVariety:
        case kMnHostname:
        case kMnName:
        case kMnUniversalId:
        case kMnNodeIDs:
        case kMnAllowManageRequest:
        case kMnMode:
        case kMnControlFlag:
            return false;
        default:
            return id > 0 && id <= kMnLastAttr;
    }
}

}  // namespace

std::vector<rm_attribute_value> NodeAuthenticateRccp::getNodeSystemData(
    const zn_structured_data* rq) {
    std::vector<rm_attribute_value> out;
    if (rq == nullptr || rq->element_count < 6) {
        return out;
    }
    rm_attribute_value host{kMnHostname, ZN_CHAR_PTR, rq->elements[2].value};
    rm_attribute_value id{kMnUniversalId, ZN_UINT64, rq->elements[3].value};
    out.push_back(host);
    out.push_back(id);
    uint32_t extra = rq->element_count - 6;
    if (extra % 2 != 0) {
        return out;
    }
    std::bitset<kMnLastAttr + 1> seen;
    for (uint32_t i = 6; i + 1 < rq->element_count; i += 2) {
        const auto& tag = rq->elements[i];
        const auto& val = rq->elements[i + 1];
        if (tag.data_type != ZN_INT32 || !nodeMayGive(tag.value.val_int32) ||
            seen.test(static_cast<size_t>(tag.value.val_int32))) {
            continue;
        }
        // Strings and arrays must be there: a null one would define nothing.
        if ((val.data_type == ZN_CHAR_PTR || val.data_type == ZN_CHAR_PTR_ARRAY) &&
            val.value.ptr_char == nullptr) {
            continue;
        }
        seen.set(static_cast<size_t>(tag.value.val_int32));
        out.push_back({tag.value.val_int32, val.data_type, val.value});
    }
    return out;
}

}  // namespace orvrm
