#include "znpex/proto/Base64.h"

#include <array>
#include <cstdint>

namespace znpex::proto {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> makeReverse() {
    std::array<int8_t, 256> r{};
    for (auto& v : r) {
        v = -1;
    }
    for (int i = 0; i < 64; ++i) {
        r[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
    }
    return r;
}

constexpr std::array<int8_t, 256> kReverse = makeReverse();

}  // namespace

std::string base64Encode(const void* data, size_t n) {
    const auto* p = static_cast<const unsigned char*>(data);
    std::string out;
    out.reserve((n + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= n; i += 3) {
        uint32_t v = (uint32_t{p[i]} << 16) | (uint32_t{p[i + 1]} << 8) | p[i + 2];
        out.push_back(kAlphabet[(v >> 18) & 63]);
        out.push_back(kAlphabet[(v >> 12) & 63]);
        out.push_back(kAlphabet[(v >> 6) & 63]);
        out.push_back(kAlphabet[v & 63]);
    }
    if (n - i == 1) {
        uint32_t v = uint32_t{p[i]} << 16;
        out.push_back(kAlphabet[(v >> 18) & 63]);
        out.push_back(kAlphabet[(v >> 12) & 63]);
        out.append("==");
    } else if (n - i == 2) {
        uint32_t v = (uint32_t{p[i]} << 16) | (uint32_t{p[i + 1]} << 8);
        out.push_back(kAlphabet[(v >> 18) & 63]);
        out.push_back(kAlphabet[(v >> 12) & 63]);
        out.push_back(kAlphabet[(v >> 6) & 63]);
        out.push_back('=');
    }
    return out;
}

std::optional<std::vector<unsigned char>> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::vector<unsigned char> out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int pad = 0;
        if (last && text[i + 3] == '=') {
            pad = text[i + 2] == '=' ? 2 : 1;
        }
        uint32_t v = 0;
        for (int k = 0; k < 4; ++k) {
            if (k >= 4 - pad) {
                v <<= 6;
                continue;
            }
            int8_t d = kReverse[static_cast<unsigned char>(text[i + static_cast<size_t>(k)])];
            if (d < 0) {
                return std::nullopt;  // includes '=' anywhere but the end
            }
            v = (v << 6) | static_cast<uint32_t>(d);
        }
        // Spare bits under the padding must be zero (one text per byte string).
        if ((pad == 1 && (v & 0xff) != 0) || (pad == 2 && (v & 0xffff) != 0)) {
            return std::nullopt;
        }
        out.push_back(static_cast<unsigned char>((v >> 16) & 0xff));
        if (pad < 2) {
            out.push_back(static_cast<unsigned char>((v >> 8) & 0xff));
        }
        if (pad < 1) {
            out.push_back(static_cast<unsigned char>(v & 0xff));
        }
    }
    return out;
}

}  // namespace znpex::proto
