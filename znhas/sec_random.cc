#include "znhas/sec_random.h"

#include <errno.h>
#include <pthread.h>
#include <sys/random.h>

#include <cstring>
#include <mutex>

namespace {

constexpr size_t kBlock = 256;

std::mutex g_randMutex;
unsigned char g_block[kBlock];
size_t g_left = 0;

// A forked child must not hand out the bytes its parent still holds.
void dropBlockInChild() {
    std::memset(g_block, 0, sizeof(g_block));
    g_left = 0;
}

}  // namespace

bool sec__random_bytes(void* out, size_t n) {
    auto* p = static_cast<unsigned char*>(out);
    while (n > 0) {
        ssize_t got = ::getrandom(p, n, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        p += got;
        n -= static_cast<size_t>(got);
    }
    return true;
}

int sec__randnum() {
    std::lock_guard<std::mutex> lock(g_randMutex);
    static const int atforkRegistered = pthread_atfork(nullptr, nullptr, dropBlockInChild);
    (void)atforkRegistered;
    if (g_left == 0) {
        if (!sec__random_bytes(g_block, kBlock)) {
            return -1;
        }
        g_left = kBlock;
    }
    --g_left;
    int b = g_block[g_left];
    g_block[g_left] = 0;  // a byte handed out is not kept
    return b;
}
