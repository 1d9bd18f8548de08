// Builds structured-data element lists for tests: the builder owns every
// string and binary the elements point to, so a list stays valid as long as
// its builder.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "platform/zn_types.h"

namespace testsupport {

class SdBuilder {
  public:
    SdBuilder() = default;
    SdBuilder(const SdBuilder&) = delete;
    SdBuilder& operator=(const SdBuilder&) = delete;

    SdBuilder& i32(int32_t v) {
        return add(ZN_INT32, [&](zn_value_t& x) { x.val_int32 = v; });
    }
    SdBuilder& u32(uint32_t v) {
        return add(ZN_UINT32, [&](zn_value_t& x) { x.val_uint32 = v; });
    }
    SdBuilder& i64(int64_t v) {
        return add(ZN_INT64, [&](zn_value_t& x) { x.val_int64 = v; });
    }
    SdBuilder& u64(uint64_t v) {
        return add(ZN_UINT64, [&](zn_value_t& x) { x.val_uint64 = v; });
    }
    SdBuilder& f32(float v) {
        return add(ZN_FLOAT32, [&](zn_value_t& x) { x.val_float32 = v; });
    }
    SdBuilder& f64(double v) {
        return add(ZN_FLOAT64, [&](zn_value_t& x) { x.val_float64 = v; });
    }
    SdBuilder& str(const std::string& s) {
        texts_.push_back(s);
        char* p = texts_.back().data();
        return add(ZN_CHAR_PTR, [&](zn_value_t& x) { x.ptr_char = p; });
    }
    SdBuilder& bin(const std::string& bytes) {
        binaries_.emplace_back(zn_binary_new(bytes.data(), static_cast<uint32_t>(bytes.size())),
                               &std::free);
        zn_binary* b = binaries_.back().get();
        return add(ZN_BINARY_PTR, [&](zn_value_t& x) { x.ptr_binary = b; });
    }
    // An element of any code whose value is a null pointer / zero bits.
    SdBuilder& raw(int code) {
        return add(static_cast<zn_data_type_t>(code), [](zn_value_t& x) { x.val_uint64 = 0; });
    }

    zn_structured_data_element_t* data() { return elements_.empty() ? nullptr : elements_.data(); }
    int count() const { return static_cast<int>(elements_.size()); }

  private:
    template <typename F>
    SdBuilder& add(zn_data_type_t t, F set) {
        zn_structured_data_element_t e{};
        e.data_type = t;
        set(e.value);
        elements_.push_back(e);
        return *this;
    }
    std::deque<std::string> texts_;
    std::vector<std::unique_ptr<zn_binary, decltype(&std::free)>> binaries_;
    std::vector<zn_structured_data_element_t> elements_;
};

}  // namespace testsupport
