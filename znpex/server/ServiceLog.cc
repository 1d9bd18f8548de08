#include "znpex/server/ServiceLog.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "platform/clock.h"

namespace znpex::server {

void serviceLog(const char* format, ...) {
    static std::mutex mu;
    char text[1024];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof(text), format, ap);
    va_end(ap);
    std::time_t now = zn::processClock().wallNow().tv_sec;
    struct tm tmv {};
    localtime_r(&now, &tmv);
    char stamp[32];
    std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &tmv);
    std::lock_guard<std::mutex> g(mu);
    std::fprintf(stderr, "%s znpexd: %s\n", stamp, text);
    std::fflush(stderr);
}

}  // namespace znpex::server
