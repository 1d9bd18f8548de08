#include "znpex/client/WakeFd.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace znpex::client {

WakeFd::WakeFd() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

WakeFd::~WakeFd() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

void WakeFd::signal() {
    uint64_t one = 1;
    // Only a full counter refuses the write, and it is readable then anyway.
    while (::write(fd_, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void WakeFd::drain() {
    uint64_t count = 0;
    while (::read(fd_, &count, sizeof count) < 0 && errno == EINTR) {
    }
}

}  // namespace znpex::client
