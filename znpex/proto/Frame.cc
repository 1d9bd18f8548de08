#include "znpex/proto/Frame.h"

#include <algorithm>

#include "znpex/proto/ProtocolError.h"

namespace znpex::proto {

void appendFrameHeader(std::string& out, size_t n) {
    out.push_back(static_cast<char>((n >> 24) & 0xff));
    out.push_back(static_cast<char>((n >> 16) & 0xff));
    out.push_back(static_cast<char>((n >> 8) & 0xff));
    out.push_back(static_cast<char>(n & 0xff));
}

uint32_t frameLength(const unsigned char* header) {
    return (static_cast<uint32_t>(header[0]) << 24) | (static_cast<uint32_t>(header[1]) << 16) |
           (static_cast<uint32_t>(header[2]) << 8) | static_cast<uint32_t>(header[3]);
}

std::string encodeFrame(std::string_view payload, size_t maxFrame) {
    if (payload.size() > maxFrame) {
        throw ProtocolError("message of " + std::to_string(payload.size()) +
                                " bytes exceeds the frame limit of " + std::to_string(maxFrame),
                            kInvalidRequest);
    }
    std::string out;
    out.reserve(kFrameHeader + payload.size());
    appendFrameHeader(out, payload.size());
    out.append(payload);
    return out;
}

std::vector<std::string> FrameDecoder::feed(const void* data, size_t n) {
    if (failed_) {
        throw ProtocolError("frame stream already failed", kInvalidRequest);
    }
    std::vector<std::string> frames;
    const auto* p = static_cast<const unsigned char*>(data);
    for (;;) {
        if (!inPayload_) {
            if (n == 0) {
                break;
            }
            size_t take = std::min(n, kFrameHeader - headerHave_);
            std::copy(p, p + take, header_ + headerHave_);
            headerHave_ += take;
            p += take;
            n -= take;
            if (headerHave_ < kFrameHeader) {
                break;
            }
            want_ = frameLength(header_);
            headerHave_ = 0;
            if (want_ > maxFrame_) {
                failed_ = true;
                if (!frames.empty()) {
                    return frames;  // the next feed reports the failure
                }
                throw ProtocolError("frame of " + std::to_string(want_) +
                                        " bytes exceeds the limit of " + std::to_string(maxFrame_),
                                    kInvalidRequest);
            }
            inPayload_ = true;
            payload_.clear();
        }
        size_t take = std::min(n, want_ - payload_.size());
        payload_.append(reinterpret_cast<const char*>(p), take);
        p += take;
        n -= take;
        if (payload_.size() < want_) {
            break;  // all input consumed; the frame continues in a later feed
        }
        frames.push_back(std::move(payload_));
        payload_ = std::string();
        inPayload_ = false;
    }
    return frames;
}

}  // namespace znpex::proto
