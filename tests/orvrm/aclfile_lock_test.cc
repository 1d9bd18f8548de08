// Locking of the ACL editor: the record lock held by another process (given
// up after three tries a second apart, or taken once it is free), and locks
// always given back. The pauses between tries run on a fake process clock,
// which the tests move on. Threads and processes editing at once are in the
// concurrency test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <string>

#include "orvrm/ACLFile.h"
#include "orvrm/StanzaEntry.h"
#include "platform/clock.h"
#include "tests/orvrm/AclTestRoot.h"

namespace {

using namespace std::chrono_literals;
using testsupport::AclTestRoot;
using testsupport::readFile;
using testsupport::writeFile;

const std::string kList = "OTHER\n\tLOCALHOST\t* r  # local\nS\n\tkeep\n";

// Another process that takes the record lock and holds it until release()
// (or the holder's end); the constructor returns once the lock is held.
class LockHolder {
public:
    explicit LockHolder(const std::string& lockPath) {
        int ready[2], go[2];
        if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(go, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe");
        }
        zn::paths::ensureParentDir(lockPath);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(ready[0]);
            ::close(go[1]);
            int fd = ::open(lockPath.c_str(), O_WRONLY | O_CREAT, 0660);
            struct flock fl {};
            fl.l_type = F_WRLCK;
            fl.l_whence = SEEK_SET;
            char ok = (fd >= 0 && ::fcntl(fd, F_SETLK, &fl) == 0) ? 'y' : 'n';
            if (::write(ready[1], &ok, 1) != 1) {
                ::_exit(2);
            }
            char c;
            while (::read(go[0], &c, 1) < 0 && errno == EINTR) {
            }
            ::_exit(0);  // the lock goes with the process
        }
        ::close(ready[1]);
        ::close(go[0]);
        release_ = go[1];
        char ok = 'n';
        bool got = ::read(ready[0], &ok, 1) == 1 && ok == 'y';
        ::close(ready[0]);
        if (!got) {
            release();
            throw std::runtime_error("holder could not lock");
        }
    }
    ~LockHolder() { release(); }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

    // Lets the lock go; returns once the holder has ended.
    void release() {
        if (release_ < 0) {
            return;
        }
        ::close(release_);
        release_ = -1;
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }

private:
    pid_t pid_ = -1;
    int release_ = -1;
};

class ACLFileLock : public ::testing::Test {
protected:
    ACLFileLock() { zn::setProcessClock(&clock_); }
    ~ACLFileLock() override { zn::setProcessClock(nullptr); }

    // Runs `edit` on a thread of its own. Each time it pauses between tries,
    // checks the pause is a second, calls beforeWake(pause number, from 1)
    // and moves the clock on. Returns the edit's result and how many pauses
    // it made.
    std::pair<int, int> driveEdit(const std::function<int()>& edit,
                                  const std::function<void(int)>& beforeWake = {}) {
        auto result = std::async(std::launch::async, edit);
        int pauses = 0;
        while (result.wait_for(0s) != std::future_status::ready) {
            auto wake = clock_.nextWake();
            if (!wake || *wake <= clock_.monoNow()) {
                result.wait_for(1ms);  // still trying, or not yet awake
                continue;
            }
            ++pauses;
            EXPECT_EQ(*wake - clock_.monoNow(), 1s) << "pause " << pauses;
            if (beforeWake) {
                beforeWake(pauses);
            }
            clock_.advance(*wake - clock_.monoNow());
            if (pauses == 10) {
                ADD_FAILURE() << "the edit keeps trying";
            }
        }
        return {result.get(), pauses};
    }

    zn::FakeClock clock_;
};

int addOne(ACLFile& f, const std::string& id) {
    StanzaEntry e;
    e.init(id.c_str(), ACLFile::PERM_CLASS, ACLFile::PERM_READ, "");
    return f.AddOrUpdateEntries("S", &e, 1);
}

TEST_F(ACLFileLock, ThreeTriesASecondApartThenTheEditGivesUp) {
    struct Case {
        const char* name;
        int releaseInPause;  // 0: never
        int rc;
        int pauses;
    };
    for (Case c : {Case{"held throughout", 0, ACLFile::ACL_LOCK_FAILED, 3},
                   Case{"let go during the second pause", 2, ACLFile::ACL_OK, 2}}) {
        SCOPED_TRACE(c.name);
        AclTestRoot root;
        writeFile(root.file(), kList);
        LockHolder holder(root.lockFile());
        ACLFile f(nullptr);
        auto [rc, pauses] = driveEdit([&] { return addOne(f, "late"); },
                                      [&](int pause) {
                                          if (pause == c.releaseInPause) {
                                              holder.release();
                                          }
                                      });
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(pauses, c.pauses);
        const std::string after = readFile(root.file());
        EXPECT_TRUE(c.rc == ACLFile::ACL_OK ? after.find(" late\t") != std::string::npos
                                            : after == kList);
        EXPECT_FALSE(testsupport::exists(root.newFile()));
    }
}

TEST_F(ACLFileLock, EveryOutcomeGivesTheLocksBack) {
    AclTestRoot root;
    writeFile(root.file(), kList);
    ACLFile f(nullptr);
    {
        LockHolder holder(root.lockFile());
        EXPECT_EQ(driveEdit([&] { return addOne(f, "x"); }).first, ACLFile::ACL_LOCK_FAILED);
    }
    writeFile(root.file(), "Only\n\tone\n");
    EXPECT_EQ(f.DeleteStanza("Only"), ACLFile::ACL_SWAP_FAILED);
    ::unlink(root.file().c_str());
    ::unlink(root.defaultFile().c_str());
    EXPECT_EQ(f.DeleteStanza("S"), ACLFile::ACL_OPEN_FAILED);
    writeFile(root.file(), kList);
    // Had any of those kept the mutex or the record lock, this would hang or fail.
    EXPECT_EQ(addOne(f, "after"), ACLFile::ACL_OK);
    ASSERT_EQ(pthread_mutex_trylock(&ACLFile::_file_mutex), 0);
    pthread_mutex_unlock(&ACLFile::_file_mutex);
}

}  // namespace
