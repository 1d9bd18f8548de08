// Fuzz target for the selection language: any bytes are parsed and compiled
// against a node-like schema; what compiles is bound and evaluated against a
// row and planned. Every failure must be an RMTableError, never a crash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include <regex.h>

#include <string>

#include "tarn_rmf/registry/RMRegex.h"
#include "tarn_rmf/registry/RMSelection.h"
#include "tarn_rmf/registry/RMTableError.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using namespace tarn_rmf;

class Row final : public RMSelSchema, public RMValueSource {
public:
    Row() {
        handle_.bytes[0] = 7;
        ids_ = zn_array_new(2);
        ids_->elements[0].val_uint64 = 0x11;
        ids_->elements[1].val_uint64 = 0x22;
        names_ = zn_array_new(1);
        names_->elements[0].ptr_char = const_cast<char*>("node1");
        blob_ = zn_binary_new("ab", 2);
        sd_ = zn_sd_new(0);
    }
    ~Row() override {
        std::free(ids_);
        std::free(names_);
        std::free(blob_);
        std::free(sd_);
    }
    bool lookup(std::string_view name, int& column, zn_data_type_t& type) const override {
        for (int i = 0; i < kCount; ++i) {
            if (name == kNames[i]) {
                column = i;
                type = kTypes[i];
                return true;
            }
        }
        return false;
    }
    bool hasPrevious() const override { return true; }
    bool value(int column, RMValueView& out) const override {
        if (column == 8) {
            return false;  // never carried
        }
        out = rmViewOf(kTypes[column], at(column));
        return true;
    }
    bool previous(int column, RMValueView& out) const override {
        if (column % 2 == 1) {
            return false;
        }
        out = rmViewOf(kTypes[column], at(column));
        return true;
    }

private:
    static constexpr int kCount = 10;
    static constexpr const char* kNames[kCount] = {
        "Hostname",     "UniversalId", "NodeIDs", "PowerStatus", "ResourceHandle",
        "NodeNameList", "Temperature", "Offset",  "Missing",     "Extra"};
    static constexpr zn_data_type_t kTypes[kCount] = {
        ZN_CHAR_PTR,       ZN_UINT64,  ZN_UINT64_ARRAY, ZN_UINT32, ZN_RSRC_HANDLE_PTR,
        ZN_CHAR_PTR_ARRAY, ZN_FLOAT64, ZN_INT32,        ZN_UINT32, ZN_SD_PTR};
    zn_value_t at(int column) const {
        switch (column) {
            case 0:
                return zn_value_t{.ptr_char = const_cast<char*>("node1.example.com")};
            case 1:
                return zn_value_t{.val_uint64 = 0x8000000000000001ull};
            case 2:
                return zn_value_t{.ptr_array = ids_};
            case 3:
                return zn_value_t{.val_uint32 = 1};
            case 4:
                return zn_value_t{.ptr_rsrc_handle = const_cast<zn_resource_handle*>(&handle_)};
            case 5:
                return zn_value_t{.ptr_array = names_};
            case 6:
                return zn_value_t{.val_float64 = 21.5};
            case 7:
                return zn_value_t{.val_int32 = -7};
            case 9:
                return zn_value_t{.ptr_sd = sd_};
            default:
                return zn_value_t{.val_uint64 = 0};
        }
    }
    zn_resource_handle handle_{};
    zn_array* ids_;
    zn_array* names_;
    zn_binary* blob_;
    zn_structured_data* sd_;
};

}  // namespace

namespace {

// The same bytes as an "=~" pattern: skipping the matcher on texts without
// the pattern's required piece must never change an answer.
void checkPattern(std::string_view text) {
    std::string pattern(text.substr(0, text.find('\0')));
    RMRegex re(pattern);
    if (!re.valid()) {
        return;
    }
    regex_t plain;
    if (regcomp(&plain, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
        __builtin_trap();  // RMRegex accepted what the C library refuses
    }
    const std::string subjects[] = {pattern, "node00017.rack12.example.com", "", "abcabc",
                                    RMRegex::requiredLiteral(pattern)};
    for (const std::string& t : subjects) {
        if (re.search(t.c_str(), t.size()) != (regexec(&plain, t.c_str(), 0, nullptr, 0) == 0)) {
            __builtin_trap();
        }
    }
    regfree(&plain);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Row row;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    checkPattern(text);
    try {
        auto sel = RMSelection::compile(text, row);
        RMSelParams params;
        zn_resource_handle h{};
        params.setHandle("RH", h).setString("H", "node1.example.com").setUint64("U", 5);
        RMSelBinding b = sel->bind(&params);
        sel->evaluate(row, b);
        std::vector<RMSelProbe> probes;
        sel->plan(
            b, [](int c) { return c < 5; }, probes);
    } catch (const RMTableError&) {
    }
    return 0;
}
