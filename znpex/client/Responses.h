// Building the C responses of px_client.h from decoded replies, and their
// release. Builders take over what the reply owns (errors, values, data) and
// throw std::bad_alloc when memory runs out, leaving nothing behind. Callers
// hold a RspPtr until the response is handed out. Thread-safe.
#pragma once

#include <memory>
#include <vector>

#include "tarn_rmf2v/RMClassDef.h"
#include "tarn_rmf2v/RMReply.h"
#include "znpex/client/px_client.h"
#include "znpex/proto/ClassDefCodec.h"

namespace znpex::client {

struct RspDeleter {
    void operator()(void* rsp) const { px_free_response(rsp); }
};
template <typename T>
using RspPtr = std::unique_ptr<T, RspDeleter>;

RspPtr<px_enumerate_rsp_t> makeEnumerate(tarn_rmf2v::RMReply& reply);
RspPtr<px_define_rsp_t> makeDefine(tarn_rmf2v::RMReply& reply);
// A response of `count` zeroed entries.
RspPtr<px_resources_rsp_t> makeResources(size_t count);
// Fills one entry: its handle, the reply's error, values and per-id results
// (named from defs, when given) and action data.
void fillEntry(px_resource_rsp_t& entry, const zn_resource_handle* handle,
               tarn_rmf2v::RMReply& reply, const std::vector<tarn_rmf2v::RMAttrDef>* defs);
RspPtr<px_class_list_t> makeClassList(const std::vector<proto::ClassInfo>& classes);

}  // namespace znpex::client
