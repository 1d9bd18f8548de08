// Fuzz target for marshalSD, signSD and verifySD over arbitrary element
// lists. The input is read as a run of elements: a type byte (any code,
// known or not), then for integers 8 value bytes, for strings and binaries a
// length byte and that many bytes. The marshalled bytes are checked against
// an independent rendering, a signature must verify, and a changed one must
// not.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "common/MarshalSD.h"
#include "common/SignSD.h"
#include "fuzz/FuzzCheck.h"

namespace {

struct Reader {
    const uint8_t* p;
    size_t left;
    bool take(void* out, size_t n) {
        if (n > left) {
            return false;
        }
        std::memcpy(out, p, n);
        p += n;
        left -= n;
        return true;
    }
};

using fuzzsupport::check;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in{data, size};
    std::deque<std::string> texts;
    std::vector<std::unique_ptr<zn_binary, decltype(&std::free)>> bins;
    std::vector<zn_structured_data_element_t> els;
    std::string expected;
    uint8_t type = 0;
    while (els.size() < 64 && in.take(&type, 1)) {
        zn_structured_data_element_t e{};
        e.data_type = static_cast<zn_data_type_t>(type % 32);
        uint64_t v = 0;
        uint8_t len = 0;
        switch (e.data_type) {
            case ZN_INT32:
            case ZN_UINT32:
            case ZN_INT64:
            case ZN_UINT64:
                in.take(&v, sizeof v);
                e.value.val_uint64 = v;
                if (e.data_type == ZN_INT32) {
                    expected += std::to_string(e.value.val_int32);
                } else if (e.data_type == ZN_UINT32) {
                    expected += std::to_string(e.value.val_uint32);
                } else if (e.data_type == ZN_INT64) {
                    expected += std::to_string(e.value.val_int64);
                } else {
                    expected += std::to_string(e.value.val_uint64);
                }
                break;
            case ZN_CHAR_PTR: {
                in.take(&len, 1);
                std::string s(len, '\0');
                in.take(s.data(), len);
                s = s.c_str();  // a C string ends at its first zero byte
                expected += s;
                texts.push_back(s);
                e.value.ptr_char = texts.back().data();
                break;
            }
            case ZN_BINARY_PTR: {
                in.take(&len, 1);
                std::string b(len, '\0');
                in.take(b.data(), len);
                expected += b;
                bins.emplace_back(zn_binary_new(b.data(), len), &std::free);
                e.value.ptr_binary = bins.back().get();
                break;
            }
            default:
                e.value.val_uint64 = 0;  // skipped types must not be looked into
                break;
        }
        els.push_back(e);
    }
    int count = static_cast<int>(els.size());
    zn_structured_data_element_t* elements = els.empty() ? nullptr : els.data();

    sec_buffer_s out = {0, nullptr};
    unsigned rc = WEX_COMMON::marshalSD(elements, count, out);
    if (count == 0) {
        check(rc == 1, "no elements give 1");
    } else if (expected.empty()) {
        check(rc == 3, "nothing to marshal gives 3");
    } else {
        check(rc == 0, "marshalling succeeds");
        check(out.length == expected.size() &&
                  std::memcmp(out.value, expected.data(), expected.size()) == 0,
              "marshalled bytes match the independent rendering");
        std::free(out.value);
    }

    char keyBytes[] = "fuzz-frame-key";
    sec_buffer_s key = {sizeof keyBytes - 1, keyBytes};
    sec_buffer_s sig = {0, nullptr};
    int src = WEX_COMMON::signSD(elements, count, &key, &sig);
    unsigned vrc = WEX_COMMON::verifySD(elements, count, &key, &sig);
    if (rc != 0) {
        check(src == -static_cast<int>(rc) && vrc == rc, "marshal failures pass through");
        return 0;
    }
    check(src == 0 && vrc == 0, "a fresh signature verifies");
    static_cast<unsigned char*>(sig.value)[size % sig.length] ^= 0x20;
    check(WEX_COMMON::verifySD(elements, count, &key, &sig) == 5, "a changed signature fails");
    sec_release_buffer(&sig);
    return 0;
}
