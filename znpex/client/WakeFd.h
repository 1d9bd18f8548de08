// A descriptor one thread makes readable to wake another that waits in poll
// on it beside a socket (an eventfd). Signalling and draining are safe from
// any thread; the descriptor lives as long as the object.
#pragma once

namespace znpex::client {

class WakeFd {
public:
    WakeFd();
    ~WakeFd();
    WakeFd(const WakeFd&) = delete;
    WakeFd& operator=(const WakeFd&) = delete;

    // False when the descriptor could not be made (errno tells why).
    bool valid() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    // Makes the descriptor readable until drained.
    void signal();
    // Clears it, without waiting.
    void drain();

private:
    int fd_;
};

}  // namespace znpex::client
