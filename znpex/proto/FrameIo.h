// Blocking frame I/O over a file descriptor (socket or pipe), with an overall
// deadline per call so a silent peer never hangs the caller. writeFrame sends
// a whole frame; FdFrameReader reads frames through a FrameDecoder, keeping
// bytes that arrive after a frame for the next call. Neither owns the
// descriptor. A reader is used by one thread at a time.
#pragma once

#include <deque>
#include <string>
#include <string_view>

#include "znpex/proto/Frame.h"

namespace znpex::proto {

enum class IoStatus {
    Ok,
    Closed,     // the peer closed the stream between frames
    Timeout,    // the deadline passed
    TooLarge,   // a frame over the cap (read or write)
    Truncated,  // the stream ended inside a frame
    Failed,     // a system call failed; errno tells why
};

const char* ioStatusText(IoStatus s);

// Writes header and payload. timeoutMs < 0: no deadline. Never raises SIGPIPE.
IoStatus writeFrame(int fd, std::string_view payload, int timeoutMs = -1,
                    size_t maxFrame = kMaxFrame);
// Writes n bytes (already framed), same rules.
IoStatus writeAll(int fd, const void* data, size_t n, int timeoutMs = -1);

class FdFrameReader {
public:
    explicit FdFrameReader(int fd, size_t maxFrame = kMaxFrame) : fd_(fd), decoder_(maxFrame) {}
    // The next frame's payload. timeoutMs < 0: no deadline.
    IoStatus next(std::string& payload, int timeoutMs = -1);
    int fd() const { return fd_; }

private:
    int fd_;
    FrameDecoder decoder_;
    std::deque<std::string> ready_;
};

}  // namespace znpex::proto
