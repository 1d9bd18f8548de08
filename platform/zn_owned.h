// Owning wrappers for the C value types, so framework code keeps errors,
// values and structured data in containers without manual release.
#pragma once

#include <memory>
#include <utility>

#include "platform/cu_error.h"
#include "platform/zn_types.h"

namespace zn {

struct ErrorDeleter {
    void operator()(cu_error_t* e) const { cu_rel_error_1(e); }
};
using ErrorPtr = std::unique_ptr<cu_error_t, ErrorDeleter>;

// A copy of an error (null stays null).
inline ErrorPtr copyError(const cu_error_t* e) { return ErrorPtr(cu_dup_error_1(e)); }

// A typed value that owns what it points to.
class OwnedValue {
public:
    OwnedValue() { value_.val_uint64 = 0; }
    // Takes ownership of v.
    OwnedValue(zn_data_type_t t, zn_value_t v) : type_(t), value_(v) {}
    // A deep copy of v; throws std::bad_alloc when the copy cannot be made.
    static OwnedValue copyOf(zn_data_type_t t, const zn_value_t& v) {
        zn_value_t out;
        if (!zn_value_dup(t, v, out)) {
            throw std::bad_alloc();
        }
        return OwnedValue(t, out);
    }
    ~OwnedValue() { zn_value_free(type_, value_); }
    OwnedValue(OwnedValue&& o) noexcept : type_(o.type_), value_(o.value_) {
        o.type_ = ZN_UNKNOWN;
        o.value_.val_uint64 = 0;
    }
    OwnedValue& operator=(OwnedValue&& o) noexcept {
        if (this != &o) {
            zn_value_free(type_, value_);
            type_ = std::exchange(o.type_, ZN_UNKNOWN);
            value_ = o.value_;
            o.value_.val_uint64 = 0;
        }
        return *this;
    }
    OwnedValue(const OwnedValue&) = delete;
    OwnedValue& operator=(const OwnedValue&) = delete;

    zn_data_type_t type() const { return type_; }
    const zn_value_t& value() const { return value_; }
    zn_value_t& value() { return value_; }
    // Gives up ownership.
    zn_value_t release() {
        zn_value_t v = value_;
        value_.val_uint64 = 0;
        type_ = ZN_UNKNOWN;
        return v;
    }

private:
    zn_data_type_t type_ = ZN_UNKNOWN;
    zn_value_t value_;
};

struct SdDeleter {
    void operator()(zn_structured_data* sd) const {
        zn_value_t v;
        v.ptr_sd = sd;
        zn_value_free(ZN_SD_PTR, v);
    }
};
using SdPtr = std::unique_ptr<zn_structured_data, SdDeleter>;

// A deep copy of structured data (null stays null); throws std::bad_alloc.
inline SdPtr copySd(const zn_structured_data* sd) {
    if (sd == nullptr) {
        return SdPtr();
    }
    zn_value_t in, out;
    in.ptr_sd = const_cast<zn_structured_data*>(sd);
    if (!zn_value_dup(ZN_SD_PTR, in, out)) {
        throw std::bad_alloc();
    }
    return SdPtr(out.ptr_sd);
}

}  // namespace zn
