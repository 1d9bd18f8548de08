#include "znhas/sec_random.h"

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

namespace {

std::mutex g_randMutex;
bool g_seeded = false;
struct drand48_data g_randState;

// A forked child seeds afresh (with its own pid) rather than repeating its
// parent's sequence.
void reseedInChild() {
    g_seeded = false;
}

}  // namespace

long sec__randseed(long pid, long seconds, long microseconds, long minuteswest, long dsttime) {
    using U = unsigned long;
    U t = U(pid) * U(seconds) + U(minuteswest) - U(dsttime);
    U u = microseconds == 0 ? 1 : U(microseconds);
    U q = t / u;
    U r = t % u;
    return static_cast<long>(q * r + 17);
}

int sec__randnum() {
    std::lock_guard<std::mutex> lock(g_randMutex);
    static const int atforkRegistered = pthread_atfork(nullptr, nullptr, reseedInChild);
    (void)atforkRegistered;
    if (!g_seeded) {
        struct timeval tv = {};
        struct timezone tz = {};
        gettimeofday(&tv, &tz);
        srand48_r(sec__randseed(getpid(), tv.tv_sec, tv.tv_usec, tz.tz_minuteswest, tz.tz_dsttime),
                  &g_randState);
        g_seeded = true;
    }
    long v = 0;
    lrand48_r(&g_randState, &v);
    return static_cast<int>(v & 0xFF);
}
