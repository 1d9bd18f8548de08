// Small helpers of the registry benchmark: a clock, resident memory, and the
// figures the bare-SQLite yardstick reports.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

namespace regbench {

inline double nowSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// CPU time of the calling thread: what the work costs whatever else runs on
// the machine (wall-clock figures on a shared machine include waiting).
inline double threadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Resident set size of this process in bytes.
inline size_t residentBytes() {
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        std::fclose(f);
    }
    return static_cast<size_t>(resident) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Wall-clock and CPU seconds since construction.
struct Timer {
    double wall0 = nowSeconds();
    double cpu0 = threadCpuSeconds();
    double wall() const { return nowSeconds() - wall0; }
    double cpu() const { return threadCpuSeconds() - cpu0; }
};

// One figure measured both ways.
struct Figure {
    double wall = 0;
    double cpu = 0;
};

struct BareFigures {
    Figure insertsPerSecond;
    Figure lookupMicros;
    Figure scanMillis;
    Figure loadMillis;
};

// The same node rows in a plain 47-column SQLite table, one insert per
// transaction, WAL and synchronous=NORMAL; then an indexed Hostname lookup, a
// GLOB-plus-number scan and a read of every row.
BareFigures runBareSqlite(const std::string& dir, unsigned rows, unsigned lookups);

}  // namespace regbench
