// Framing of the byte stream: each message is a 4-byte big-endian payload
// length N followed by N bytes of UTF-8 JSON. N is capped (kMaxFrame) and the
// cap is checked from the header alone, before any payload is stored, so a
// peer cannot make us allocate more than the cap. FrameDecoder is the
// incremental form for event-driven code; one decoder per connection, not
// thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace znpex::proto {

inline constexpr size_t kMaxFrame = 16u * 1024u * 1024u;
inline constexpr size_t kFrameHeader = 4;

// The header and payload of one frame. Throws ProtocolError (invalid request)
// when the payload is larger than maxFrame.
std::string encodeFrame(std::string_view payload, size_t maxFrame = kMaxFrame);
// Appends the 4 header bytes for a payload of n bytes.
void appendFrameHeader(std::string& out, size_t n);
// The length announced by a 4-byte header.
uint32_t frameLength(const unsigned char* header);

class FrameDecoder {
public:
    explicit FrameDecoder(size_t maxFrame = kMaxFrame) : maxFrame_(maxFrame) {}

    // Consumes bytes and returns the payloads they complete, in order. A header
    // announcing more than the cap throws ProtocolError (invalid request), after
    // the frames completed before it have been returned (then the next feed
    // throws); the decoder stays failed and every later feed throws again, so
    // the caller closes the connection. Payload bytes are stored as they arrive,
    // never reserved from the announced length.
    std::vector<std::string> feed(const void* data, size_t n);

    // True while part of a frame has been read: a stream that ends now ended
    // inside a frame.
    bool midFrame() const { return headerHave_ > 0 || inPayload_; }
    bool failed() const { return failed_; }
    size_t maxFrame() const { return maxFrame_; }

private:
    size_t maxFrame_;
    unsigned char header_[kFrameHeader] = {};
    size_t headerHave_ = 0;
    bool inPayload_ = false;
    size_t want_ = 0;
    std::string payload_;
    bool failed_ = false;
};

}  // namespace znpex::proto
