#include "orvrm/FpingReport.h"

#include <cstdlib>
#include <cstring>

namespace orvrm::fping {

namespace {

constexpr char kAddressNotFound[] = "address not found";
constexpr char kReasonSeparator[] = ": ";

void copyLines(char* to, const char* from, uint32_t length) {
    for (uint32_t i = 0; i < length; ++i) {
        to[i] = from[i] == '\0' ? '\n' : from[i];
    }
}

}  // namespace

char* joinOutput(const char* out, uint32_t outLen, const char* err, uint32_t errLen) {
    if (out == nullptr) {
        outLen = 0;
    }
    if (err == nullptr) {
        errLen = 0;
    }
    if (outLen == 0 && errLen == 0) {
        return nullptr;
    }
    const bool gap = outLen > 0 && errLen > 0 && out[outLen - 1] != '\n' && out[outLen - 1] != '\0';
    const uint64_t total = uint64_t{outLen} + (gap ? 1 : 0) + errLen;
    auto* text = static_cast<char*>(std::malloc(total + 1));
    if (text == nullptr) {
        return nullptr;
    }
    copyLines(text, out, outLen);
    if (gap) {
        text[outLen] = '\n';
    }
    copyLines(text + outLen + (gap ? 1 : 0), err, errLen);
    text[total] = '\0';
    return text;
}

void cutResolverFailures(strent* lines, const std::function<bool(const char*)>& isListed) {
    for (strent* line = lines; line != nullptr; line = line->next) {
        char* text = line->str;
        if (text == nullptr) {
            continue;
        }
        if (char* colon = std::strstr(text, kReasonSeparator); colon != nullptr) {
            *colon = '\0';
            if (isListed(text)) {
                continue;
            }
            *colon = kReasonSeparator[0];
        }
        if (std::strstr(text, kAddressNotFound) != nullptr) {
            // The phrase holds blanks, so there is always one to cut at.
            *std::strchr(text, ' ') = '\0';
        }
    }
}

}  // namespace orvrm::fping
