// Named parameters of a selection ("ResourceHandle == $RH" binds "RH"), set by
// the caller before a select and read while it runs. Values are deep copies
// owned by this object. Not synchronised: one thread fills it, then any number
// may read it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/zn_types.h"
#include "tarn_rmf/registry/RMValueView.h"

namespace tarn_rmf {

class RMSelParams {
public:
    RMSelParams() = default;
    RMSelParams(const RMSelParams&) = delete;
    RMSelParams& operator=(const RMSelParams&) = delete;
    ~RMSelParams();

    // Binds `name` (without "$") to a copy of v; a second set replaces the first.
    // Throws CNoMemory when the copy can't be made.
    RMSelParams& set(std::string_view name, zn_data_type_t type, const zn_value_t& v);
    RMSelParams& setHandle(std::string_view name, const zn_resource_handle& h);
    RMSelParams& setString(std::string_view name, const char* s);
    RMSelParams& setUint64(std::string_view name, uint64_t v);
    RMSelParams& setInt64(std::string_view name, int64_t v);

    // The view of a bound parameter; false when `name` is not bound.
    bool find(std::string_view name, RMValueView& out) const;

private:
    struct Entry {
        std::string name;
        zn_data_type_t type;
        zn_value_t value;
    };
    std::vector<Entry> entries_;
};

}  // namespace tarn_rmf
