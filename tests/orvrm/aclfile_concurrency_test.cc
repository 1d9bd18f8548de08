// Several processes, each with several threads, edit one list at once, each
// thread adding and deleting its own entries many times (retrying an edit that
// could not get the lock, as a caller would): the final list holds exactly the
// entries each one kept, once each, and nothing else changed. Processes are
// kept apart by the record lock, threads of one process by the process mutex.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "orvrm/ACLFile.h"
#include "orvrm/StanzaEntry.h"
#include "tests/orvrm/AclTestRoot.h"

namespace {

using namespace std::chrono_literals;
using testsupport::AclTestRoot;
using testsupport::readFile;
using testsupport::writeFile;

constexpr int kProcesses = 3;
constexpr int kThreads = 2;  // per process, one editor object each, as callers do
constexpr int kRounds = 16;  // per thread: add e<j>; every odd round also deletes e<j-1>

const std::string kHead = "# shared list\nOTHER\n\tLOCALHOST\t* r  # local\n";
const std::string kTail = "Kor.NodeAuthenticate\n\t*\tC rw # everyone\n";

std::string id(int p, int t, int j) {
    return "p" + std::to_string(p) + "t" + std::to_string(t) + "e" + std::to_string(j);
}

// An edit, retried while the lock is busy; 1 when it failed in the end.
template <typename F>
int withRetry(F edit, int& busy) {
    for (int attempt = 0; attempt < 2000; ++attempt) {
        int rc = edit();
        if (rc != ACLFile::ACL_LOCK_FAILED) {
            return rc != 0 ? 1 : 0;
        }
        ++busy;
    }
    return 1;
}

// The work of one thread; the number of edits that failed.
int editor(int p, int t, std::atomic<int>& busy) {
    ACLFile f(nullptr);
    int tries = 0;
    int failed = 0;
    for (int j = 0; j < kRounds; ++j) {
        std::string mine = id(p, t, j);
        StanzaEntry e;
        e.init(mine.c_str(), ACLFile::PERM_RESOURCE, ACLFile::PERM_READ, "mine");
        failed += withRetry([&] { return f.AddOrUpdateEntries("Kor.ManagedNode", &e, 1); }, tries);
        if (j % 2 == 1) {
            std::string old = id(p, t, j - 1);
            char* ids[] = {old.data()};
            failed += withRetry([&] { return f.DeleteEntries("Kor.ManagedNode", ids, 1); }, tries);
        }
    }
    busy += tries;
    return failed;
}

// One process: its threads edit at once; exits 0 when every edit succeeded.
[[noreturn]] void process(int p) {
    ::alarm(60);
    std::atomic<int> busy{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] { failed += editor(p, t, busy); });
    }
    for (auto& th : threads) {
        th.join();
    }
    std::printf("process %d: %d busy tries\n", p, busy.load());
    std::fflush(stdout);
    ::_exit(failed == 0 ? 0 : 1);
}

TEST(ACLFileConcurrency, ProcessesAndThreadsEditingTheirOwnEntriesLoseNothing) {
    AclTestRoot root;
    writeFile(root.file(), kHead + "Kor.ManagedNode\n\tstays\t* r  # before\n" + kTail);
    // Busy tries retry at once here; the one-second pause is for real contention.
    auto previous = ACLFile::setLockRetryDelay(2ms);
    auto start = std::chrono::steady_clock::now();
    std::vector<pid_t> pids;
    for (int p = 0; p < kProcesses; ++p) {
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            process(p);
        }
        pids.push_back(pid);
    }
    for (pid_t pid : pids) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "editor status " << status;
    }
    ACLFile::setLockRetryDelay(previous);
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);

    std::string text = readFile(root.file());
    std::vector<std::string> ids = testsupport::stanzaIdentities(text, "Kor.ManagedNode");
    std::multiset<std::string> got(ids.begin(), ids.end());
    std::multiset<std::string> expected = {"stays"};
    for (int p = 0; p < kProcesses; ++p) {
        for (int t = 0; t < kThreads; ++t) {
            for (int j = 1; j < kRounds; j += 2) {
                expected.insert(id(p, t, j));
            }
        }
    }
    EXPECT_EQ(got, expected);
    EXPECT_EQ(text.substr(0, kHead.size()), kHead);
    EXPECT_EQ(text.substr(text.size() - kTail.size()), kTail);
    std::printf(
        "concurrency test: %d processes x %d threads x %d rounds (%d edits) in %lld ms, "
        "%zu entries\n",
        kProcesses, kThreads, kRounds, kProcesses * kThreads * (kRounds + kRounds / 2),
        static_cast<long long>(took.count()), ids.size());
    RecordProperty("millis", static_cast<int>(took.count()));
}

}  // namespace
