// Kill -9 at random points: a child process writes to the managed-node table
// and reports each change once the call returned; the parent kills it with
// SIGKILL, reopens the store and checks that every reported change is there,
// that no change is there in part, and that SQLite finds the file sound.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tarn_rmf/registry/RMTree.h"
#include "tests/tarn_rmf/node_table_defs.h"
#include "tests/tarn_rmf/registry_test_util.h"

namespace {

using namespace tarn_rmf;

const char kTable[] = "/Kor/ManagedNode/Resources";

// What the child reports: a row added (its number) or a generation written
// to every row.
struct Ack {
    uint32_t kind;  // 1 row, 2 generation
    uint32_t value;
};

RMCachedTable* openNodes(RMTree& tree) {
    return RMCreateResourceTable(&tree, kTable, regtest::kNodeColumns, regtest::kNodeColumnCount,
                                 "ResourceHandle", nullptr, 0);
}

// Adds a node whose UpdatenodeFailed holds the current generation.
void addNode(RMCachedTable* t, unsigned i, int32_t generation) {
    regtest::NodeRow row(i, 0x1111);
    std::vector<RMFieldValue> fields(row.fields(), row.fields() + row.count());
    for (RMFieldValue& f : fields) {
        if (std::strcmp(f.name, "UpdatenodeFailed") == 0) {
            f.value.val_int32 = generation;
        }
    }
    t->addRow(fields.data(), static_cast<unsigned>(fields.size()));
}

void report(int fd, Ack a) {
    if (write(fd, &a, sizeof a) != static_cast<ssize_t>(sizeof a)) {
        _exit(4);
    }
}

// The child: adds rows from `first` on and, every few rows, sets a new
// generation on all rows in one change. Write-through acks each call; deferred
// acks after each sync, for everything since the last one. Never returns.
[[noreturn]] void child(int fd, unsigned first, int32_t generation, bool writeThrough) {
    try {
        RMTree tree(zn::paths::kRegistryTree);
        tree.mountTree();
        RMCachedTable* t = openNodes(tree);
        t->setSyncMode(writeThrough ? 1 : 0);
        std::vector<Ack> unsynced;
        for (unsigned i = first;; ++i) {
            addNode(t, i, generation);
            unsynced.push_back(Ack{1, i});
            if (i % 7 == 0) {
                ++generation;
                RMFieldValue v[] = {{"UpdatenodeFailed", -1, ZN_INT32, {.val_int32 = generation}}};
                t->changeRows("*", nullptr, v, 1);
                unsynced.push_back(Ack{2, static_cast<uint32_t>(generation)});
            }
            if (!writeThrough && i % 5 != 0) {
                continue;
            }
            if (!writeThrough) {
                t->sync();
            }
            for (const Ack& a : unsynced) {
                report(fd, a);
            }
            unsynced.clear();
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "child failed: %s\n", e.what());
    }
    _exit(3);
}

void runKillLoop(bool writeThrough, int rounds) {
    regtest::TempRoot root;
    std::mt19937 rng(writeThrough ? 20240312 : 19);
    std::set<uint32_t> acked;
    int32_t lastGeneration = 0;
    unsigned next = 1;
    int killedMidWrite = 0;
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(fds[0]);
            child(fds[1], next, lastGeneration, writeThrough);
        }
        close(fds[1]);
        auto record = [&](const Ack& ack) {
            if (ack.kind == 1) {
                acked.insert(ack.value);
            } else {
                lastGeneration = static_cast<int32_t>(ack.value);
            }
        };
        // Let it run for a random stretch: a few acks, then a random delay.
        unsigned wantAcks = 1 + rng() % 20;
        Ack a;
        for (unsigned got = 0; got < wantAcks;) {
            ssize_t n = read(fds[0], &a, sizeof a);
            if (n == static_cast<ssize_t>(sizeof a)) {
                got += a.kind == 1 ? 1 : 0;
                record(a);
            } else if (n <= 0 && errno != EINTR) {
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
        kill(pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended by itself, status " << status;
        // Acks written before the kill still count.
        ssize_t n;
        while ((n = read(fds[0], &a, sizeof a)) == static_cast<ssize_t>(sizeof a)) {
            record(a);
        }
        close(fds[0]);

        RMTree tree(zn::paths::kRegistryTree);
        tree.mountTree();
        ASSERT_EQ(tree.checkIntegrity(), "ok");
        RMCachedTable* t = openNodes(tree);
        RMRowSet all = t->getMetadata();
        std::set<std::string> hosts;
        std::set<int64_t> generations;
        unsigned maxRow = 0;
        for (unsigned r = 0; r < all.getRowCount(); ++r) {
            std::string h = regtest::text(all, r, "Hostname");
            hosts.insert(h);
            unsigned num = static_cast<unsigned>(std::stoul(h.substr(4, 5)));
            maxRow = std::max(maxRow, num);
            generations.insert(static_cast<int32_t>(regtest::number(all, r, "UpdatenodeFailed")));
        }
        for (uint32_t i : acked) {
            ASSERT_EQ(hosts.count(regtest::nodeHostname(i)), 1u) << "acknowledged row " << i;
        }
        // Every row carries one generation: no change is there in part.
        ASSERT_EQ(generations.size(), 1u);
        ASSERT_GE(*generations.begin(), lastGeneration);
        killedMidWrite += all.getRowCount() > acked.size() ? 1 : 0;
        lastGeneration = static_cast<int32_t>(*generations.begin());
        // The next child goes on after every row that made it.
        next = maxRow + 1;
        ASSERT_FALSE(acked.empty()) << "the child acknowledged nothing";
        for (uint32_t i = *acked.rbegin() + 1; i < next; ++i) {
            acked.insert(i);  // present now, so it must stay
        }
        tree.closeTable(t);
    }
    std::printf("%d kills, %zu rows acknowledged, %d kills caught a write not yet acknowledged\n",
                rounds, acked.size(), killedMidWrite);
}

TEST(RegistryCrash, WriteThroughChangesSurviveKillNineAndNoneIsHalfApplied) {
    runKillLoop(true, 40);
}

TEST(RegistryCrash, SyncedChangesSurviveKillNineAndNoneIsHalfApplied) {
    runKillLoop(false, 20);
}

}  // namespace
