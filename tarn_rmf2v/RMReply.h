// What a request's response object collected: the overall error and the
// per-item results, values, handles and action data. The dispatcher hands it
// to the transport, which encodes it for the client. Owns everything in it.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/zn_owned.h"
#include "tarn_rmf2v/RMTypes.h"

namespace tarn_rmf2v {

struct RMReplyAttr {
    int32_t id = 0;
    zn::OwnedValue value;
};

// A result for one attribute id or one resource handle.
struct RMReplyItem {
    int32_t id = -1;          // attribute id, or -1
    bool hasHandle = false;
    zn_resource_handle handle{};
    zn::ErrorPtr error;       // null: success
};

struct RMReply {
    zn::ErrorPtr error;                       // the request failed as a whole
    std::vector<RMReplyAttr> values;          // attribute values
    std::vector<RMReplyItem> items;           // per-id / per-handle results
    std::vector<zn_resource_handle> handles;  // enumerations
    bool hasNewHandle = false;                // define
    zn_resource_handle newHandle{};
    std::vector<zn::SdPtr> actionData;        // action return data, in order
    zn::OwnedValue acl;                       // ACL queries (ZN_BINARY_PTR)
    bool completed = false;
};

}  // namespace tarn_rmf2v
