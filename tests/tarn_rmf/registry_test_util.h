// Helpers shared by the registry tests: a per-test directory set as ZN_ROOT,
// owned values that free themselves, and field builders.
#pragma once

#include <set>
#include <string>

#include "platform/paths.h"
#include "platform/zn_types.h"
#include "tarn_rmf/registry/RMBaseTable.h"
#include "tarn_rmf/registry/RMTableError.h"
#include "tests/support/TempDir.h"

namespace regtest {

// A fresh directory for one test, made the root of every fixed path.
struct TempRoot : testsupport::TempDir {
    TempRoot() : TempDir(/*asRoot=*/true) {}
    const std::string& dir() const { return path(); }
};

// A zn value with its type, freed on destruction.
class Owned {
public:
    Owned() = default;
    Owned(zn_data_type_t t, zn_value_t v) : type_(t), v_(v) {}
    ~Owned() { zn_value_free(type_, v_); }
    Owned(Owned&& o) noexcept : type_(o.type_), v_(o.v_) { o.v_.val_uint64 = 0; }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    const zn_value_t& value() const { return v_; }
    zn_data_type_t type() const { return type_; }
    std::string str() const { return v_.ptr_char != nullptr ? v_.ptr_char : "<null>"; }

private:
    zn_data_type_t type_ = ZN_NONE;
    zn_value_t v_{};
};

// What a registry call threw: code 0 and no text when it threw nothing.
struct Thrown {
    tarn_rmf::RMTableErrc errc{};
    std::string what = "(nothing thrown)";
    std::string catalog;  // of the error carried
    int msgNum = 0;
    bool says(const std::string& part) const { return what.find(part) != std::string::npos; }
};
template <typename F>
Thrown thrown(F&& f) {
    try {
        f();
    } catch (const tarn_rmf::RMTableError& e) {
        const cu_error_t* err = e.getError();
        return {e.errc(), e.what(), err != nullptr ? err->cu_msg_cat : "",
                err != nullptr ? err->cu_msg_num : 0};
    }
    return {};
}

inline tarn_rmf::RMFieldValue field(const char* name, const char* s) {
    return {name, -1, ZN_CHAR_PTR, zn_value_t{.ptr_char = const_cast<char*>(s)}};
}
inline tarn_rmf::RMFieldValue field(const char* name, uint32_t u) {
    return {name, -1, ZN_UINT32, zn_value_t{.val_uint32 = u}};
}
inline tarn_rmf::RMFieldValue field64(const char* name, uint64_t u) {
    return {name, -1, ZN_UINT64, zn_value_t{.val_uint64 = u}};
}
inline tarn_rmf::RMFieldValue field(const char* name, const zn_resource_handle& h) {
    return {name, -1, ZN_RSRC_HANDLE_PTR,
            zn_value_t{.ptr_rsrc_handle = const_cast<zn_resource_handle*>(&h)}};
}
inline tarn_rmf::RMFieldValue field(const char* name, zn_data_type_t t, zn_value_t v) {
    return {name, -1, t, v};
}

inline zn_resource_handle handle(unsigned n) {
    zn_resource_handle h{};
    for (unsigned i = 0; i < sizeof h.bytes; ++i) {
        h.bytes[i] = static_cast<unsigned char>(n >> (8 * (i % 4)));
    }
    h.bytes[19] = 0xA5;
    return h;
}

// A string from column `name` of row `row`.
inline std::string text(const tarn_rmf::RMRowSet& rs, unsigned row, const char* name) {
    Owned v(ZN_CHAR_PTR, rs.getField(row, name));
    return v.str();
}

// The "Name" column of every row.
inline std::set<std::string> names(const tarn_rmf::RMRowSet& rs) {
    std::set<std::string> out;
    for (unsigned i = 0; i < rs.getRowCount(); ++i) {
        out.insert(text(rs, i, "Name"));
    }
    return out;
}

inline uint64_t number(const tarn_rmf::RMRowSet& rs, unsigned row, const char* name) {
    int c = rs.getColumnIndex(name);
    tarn_rmf::RMValueView v = rs.viewField(row, static_cast<unsigned>(c));
    return v.num.u;
}

}  // namespace regtest
