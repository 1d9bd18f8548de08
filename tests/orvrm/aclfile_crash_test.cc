// A child process edits the list in a loop and is killed with SIGKILL at
// random moments: after every kill the list must be the whole old or the
// whole new version, never empty or torn, and the next editor must work.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>

#include "orvrm/ACLFile.h"
#include "orvrm/StanzaEntry.h"
#include "tests/orvrm/AclTestRoot.h"

namespace {

using namespace std::chrono_literals;
using testsupport::AclTestRoot;
using testsupport::readFile;
using testsupport::writeFile;

const std::string kOld =
    "# list\nOTHER\n\tLOCALHOST\t* r  # local\nKor.ManagedNode\n"
    "\troot@n1\t* rw # n1\n\n# tail comment\nKor.NodeAuthenticate\n\t*\tC rw\n";

int toggle(ACLFile& f, bool add) {
    if (add) {
        StanzaEntry e;
        e.init("root@crash.test", ACLFile::PERM_BOTH, ACLFile::PERM_READ_WRITE, "crash");
        return f.AddOrUpdateEntries("Kor.ManagedNode", &e, 1);
    }
    char id[] = "root@crash.test";
    char* ids[] = {id};
    return f.DeleteEntries("Kor.ManagedNode", ids, 1);
}

TEST(ACLFileCrash, KilledEditorLeavesTheWholeOldOrTheWholeNewFile) {
    AclTestRoot root;
    writeFile(root.file(), kOld);
    std::string added;
    {
        ACLFile f(nullptr);
        ASSERT_EQ(toggle(f, true), 0);
        added = readFile(root.file());
        ASSERT_EQ(toggle(f, false), 0);
        ASSERT_EQ(readFile(root.file()), kOld);
    }
    const unsigned seed =
        static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> pauseUs(0, 60000);
    int kills = 0, sawOld = 0, sawNew = 0, midEdit = 0;
    const auto deadline = std::chrono::steady_clock::now() + 4s;
    while (std::chrono::steady_clock::now() < deadline && kills < 80) {
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::alarm(30);  // never outlive a broken parent
            ACLFile f(nullptr);
            for (bool add = true;; add = !add) {
                int rc = toggle(f, add);
                if (rc != 0) {
                    ::_exit(10 + rc);
                }
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(pauseUs(rng)));
        ::kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status))
            << "editor stopped by itself with " << status << " (seed " << seed << ")";
        ++kills;
        // The new file exists only between its creation and the rename.
        midEdit += testsupport::exists(root.newFile()) ? 1 : 0;
        std::string now = readFile(root.file());
        if (now == kOld) {
            ++sawOld;
        } else if (now == added) {
            ++sawNew;
        } else {
            FAIL() << "after kill " << kills << " (seed " << seed << ") the list is:\n" << now;
        }
        // The backup is replaced by removing and linking: a kill in between
        // leaves none, never a torn one.
        std::string backup = readFile(root.backup());
        EXPECT_TRUE(!testsupport::exists(root.backup()) || backup == kOld || backup == added)
            << "backup torn after kill " << kills;
    }
    std::printf(
        "crash test: %d kills (%d inside an edit), old version %d times, new version %d times "
        "(seed %u)\n",
        kills, midEdit, sawOld, sawNew, seed);
    RecordProperty("kills", kills);
    RecordProperty("old", sawOld);
    RecordProperty("new", sawNew);
    RecordProperty("midEdit", midEdit);
    EXPECT_GE(kills, 20);
    EXPECT_GT(sawOld + sawNew, 0);
    // The editor after the kills still works, whatever was left behind.
    ACLFile f(nullptr);
    ASSERT_EQ(toggle(f, true), 0);
    EXPECT_EQ(readFile(root.file()), added);
}

}  // namespace
