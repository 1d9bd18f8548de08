// Many writers on one trusted host list at once: processes (record locks
// between processes) and threads (the same locks between threads of one
// process). Each worker stores and deletes its own hosts; at the end every
// live host is found exactly once with its last key, and the file parses from
// start to end.
#include <gtest/gtest.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <map>
#include <optional>
#include <thread>

#include "tests/znhas/znhas_fixture.h"

namespace {

using znhas_test::be32;
using znhas_test::Bytes;

constexpr int kWorkers = 8;
constexpr int kIterations = 500;
constexpr int kHostsPerWorker = 4;

std::string hostName(int worker, int host) {
    // Mixed case on purpose: lookups and replacements ignore it.
    return (host % 2 == 0 ? "Worker" : "worker") + std::to_string(worker) + "-HOST" +
           std::to_string(host);
}

Bytes keyFor(int worker, int iter) {
    Bytes k(8 + static_cast<size_t>(iter * 7 % 24));
    for (size_t i = 0; i < k.size(); ++i) {
        k[i] = static_cast<uint8_t>(worker * 31 + iter * 17 + static_cast<int>(i));
    }
    return k;
}

std::string lower(std::string s) {
    for (auto& c : s) {
        c = static_cast<char>(tolower(c));
    }
    return s;
}

using Expected = std::array<std::optional<Bytes>, kHostsPerWorker>;

struct WorkerResult {
    int failures = 0;
    int lockRetries = 0;
};

// Runs one worker's operations and returns what it expects to be left.
Expected runWorker(int worker, WorkerResult* res) {
    Expected live;
    for (int i = 0; i < kIterations; ++i) {
        const int h = i % kHostsPerWorker;
        const std::string name = hostName(worker, h);
        const bool del = i % 5 == 4;
        int rc;
        for (;;) {
            if (del) {
                rc = sec_delete_host_token(name.c_str());
            } else {
                Bytes key = keyFor(worker, i);
                sec_buffer_t t = nullptr;
                sec_create_host_token(name.c_str(), static_cast<int>(key.size()), key.data(), 8193,
                                      &t);
                rc = sec_store_host_token(name.c_str(), t);
                sec_release_host_token(&t);
            }
            if (rc != ZNHAS_E_LOCK) {
                break;
            }
            ++res->lockRetries;
        }
        const int want = del && !live[h].has_value() ? ZNHAS_E_NOTFOUND : 0;
        if (rc != want) {
            ++res->failures;
        }
        if (del) {
            live[h].reset();
        } else {
            live[h] = keyFor(worker, i);
        }
    }
    return live;
}

// Parses the whole file independently of the library: every slot in bounds,
// ending exactly at the end; returns live records by lower-cased name.
std::map<std::string, std::vector<Bytes>> parseAll(const Bytes& file, bool* ok) {
    std::map<std::string, std::vector<Bytes>> live;
    size_t at = 0;
    *ok = true;
    while (at < file.size()) {
        if (file.size() - at < 29 || be32(file, at) < 29 || be32(file, at) > 4092 ||
            be32(file, at) > file.size() - at) {
            *ok = false;
            return live;
        }
        const uint32_t slot = be32(file, at);
        const uint32_t length = be32(file, at + 4);
        const uint32_t active = be32(file, at + 12);
        if (length != 0 && active != 1) {
            const uint32_t idlen = be32(file, at + 20);
            const uint32_t namelen = be32(file, at + 24);
            if (length != 29 + namelen + idlen || length > slot) {
                *ok = false;
                return live;
            }
            std::string name =
                lower(std::string(file.begin() + static_cast<std::ptrdiff_t>(at + 28),
                                  file.begin() + static_cast<std::ptrdiff_t>(at + 28 + namelen)));
            auto k = file.begin() + static_cast<std::ptrdiff_t>(at + 29 + namelen);
            live[name].emplace_back(k, k + idlen);
        }
        at += slot;
    }
    return live;
}

class ThlConcurrencyTest : public znhas_test::ZnhasTest {
protected:
    void verify(const std::array<Expected, kWorkers>& expected) {
        bool ok = false;
        const Bytes file = znhas_test::readBytes(thl_);
        auto live = parseAll(file, &ok);
        std::printf("list after the run: %zu bytes\n", file.size());
        ASSERT_TRUE(ok) << "the list does not parse from start to end";
        EXPECT_EQ(sec__walk_thl([](const znhas::ThlEntry&) { return 0; }), 0);
        size_t liveCount = 0;
        for (int w = 0; w < kWorkers; ++w) {
            for (int h = 0; h < kHostsPerWorker; ++h) {
                const std::string name = hostName(w, h);
                const std::string low = lower(name);
                sec_buffer_t t = nullptr;
                int rc = sec_get_host_token(name.c_str(), &t);
                if (expected[w][h].has_value()) {
                    ++liveCount;
                    ASSERT_EQ(rc, 0) << name;
                    EXPECT_EQ(znhas_test::tokenKey(t), *expected[w][h]) << name;
                    ASSERT_EQ(live[low].size(), 1U) << name << " live exactly once";
                    EXPECT_EQ(live[low][0], *expected[w][h]);
                } else {
                    EXPECT_EQ(rc, ZNHAS_E_NOTFOUND) << name;
                    EXPECT_EQ(live.count(low), 0U) << name;
                }
                sec_release_host_token(&t);
            }
        }
        EXPECT_EQ(live.size(), liveCount);
        EXPECT_EQ(znhas_test::fileMode(thl_), 0444U);
    }
};

TEST_F(ThlConcurrencyTest, EightProcessesStoreAndDeleteTheirOwnHosts) {
    initThl();
    std::array<pid_t, kWorkers> pids{};
    for (int w = 0; w < kWorkers; ++w) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            WorkerResult res;
            runWorker(w, &res);
            _exit(res.failures == 0 ? 0 : 1);
        }
        pids[static_cast<size_t>(w)] = pid;
    }
    std::array<Expected, kWorkers> expected;
    for (int w = 0; w < kWorkers; ++w) {
        int status = 0;
        ASSERT_EQ(waitpid(pids[static_cast<size_t>(w)], &status, 0), pids[static_cast<size_t>(w)]);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "worker " << w;
        // Replaying a worker's plan without the file gives its final state.
        expected[static_cast<size_t>(w)] = [&] {
            Expected e;
            for (int i = 0; i < kIterations; ++i) {
                const int h = i % kHostsPerWorker;
                if (i % 5 == 4) {
                    e[h].reset();
                } else {
                    e[h] = keyFor(w, i);
                }
            }
            return e;
        }();
    }
    verify(expected);
}

TEST_F(ThlConcurrencyTest, EightThreadsStoreAndDeleteTheirOwnHosts) {
    initThl();
    std::array<Expected, kWorkers> expected;
    std::array<WorkerResult, kWorkers> results;
    std::vector<std::thread> threads;
    for (int w = 0; w < kWorkers; ++w) {
        threads.emplace_back([w, &expected, &results] {
            expected[static_cast<size_t>(w)] = runWorker(w, &results[static_cast<size_t>(w)]);
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    int retries = 0;
    for (int w = 0; w < kWorkers; ++w) {
        EXPECT_EQ(results[static_cast<size_t>(w)].failures, 0) << "worker " << w;
        retries += results[static_cast<size_t>(w)].lockRetries;
    }
    std::printf("lock timeouts retried: %d\n", retries);
    verify(expected);
}

}  // namespace
