#include "tarn_rmf/registry/RMSelParams.h"

#include "tarn_base/CException.h"

namespace tarn_rmf {

RMSelParams::~RMSelParams() {
    for (Entry& e : entries_) {
        zn_value_free(e.type, e.value);
    }
}

RMSelParams& RMSelParams::set(std::string_view name, zn_data_type_t type, const zn_value_t& v) {
    zn_value_t copy;
    if (!zn_value_dup(type, v, copy)) {
        throw tarn_base::CNoMemory();
    }
    for (Entry& e : entries_) {
        if (e.name == name) {
            zn_value_free(e.type, e.value);
            e.type = type;
            e.value = copy;
            return *this;
        }
    }
    entries_.push_back(Entry{std::string(name), type, copy});
    return *this;
}

RMSelParams& RMSelParams::setHandle(std::string_view name, const zn_resource_handle& h) {
    zn_value_t v{.ptr_rsrc_handle = const_cast<zn_resource_handle*>(&h)};
    return set(name, ZN_RSRC_HANDLE_PTR, v);
}

RMSelParams& RMSelParams::setString(std::string_view name, const char* s) {
    zn_value_t v{.ptr_char = const_cast<char*>(s)};
    return set(name, ZN_CHAR_PTR, v);
}

RMSelParams& RMSelParams::setUint64(std::string_view name, uint64_t u) {
    return set(name, ZN_UINT64, zn_value_t{.val_uint64 = u});
}

RMSelParams& RMSelParams::setInt64(std::string_view name, int64_t i) {
    return set(name, ZN_INT64, zn_value_t{.val_int64 = i});
}

bool RMSelParams::find(std::string_view name, RMValueView& out) const {
    for (const Entry& e : entries_) {
        if (e.name == name) {
            out = rmViewOf(e.type, e.value);
            return true;
        }
    }
    return false;
}

}  // namespace tarn_rmf
