// Locking of the ACL editor: the record lock held by another process (given
// up after three tries a second apart, or taken once it is free), and locks
// always given back. Threads and processes editing at once are in the
// concurrency test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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

const std::string kList = "OTHER\n\tLOCALHOST\t* r  # local\nS\n\tkeep\n";

// Another process that takes the record lock and holds it for `hold`; the
// constructor returns once the lock is held.
class LockHolder {
public:
    LockHolder(const std::string& lockPath, std::chrono::milliseconds hold) {
        int ready[2];
        if (::pipe(ready) != 0) {
            throw std::runtime_error("pipe");
        }
        zn::paths::ensureParentDir(lockPath);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(ready[0]);
            int fd = ::open(lockPath.c_str(), O_WRONLY | O_CREAT, 0660);
            struct flock fl {};
            fl.l_type = F_WRLCK;
            fl.l_whence = SEEK_SET;
            char ok = (fd >= 0 && ::fcntl(fd, F_SETLK, &fl) == 0) ? 'y' : 'n';
            if (::write(ready[1], &ok, 1) != 1) {
                ::_exit(2);
            }
            std::this_thread::sleep_for(hold);
            ::_exit(0);
        }
        ::close(ready[1]);
        char ok = 'n';
        bool got = ::read(ready[0], &ok, 1) == 1 && ok == 'y';
        ::close(ready[0]);
        if (!got) {
            throw std::runtime_error("holder could not lock");
        }
    }
    ~LockHolder() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

private:
    pid_t pid_ = -1;
};

int addOne(ACLFile& f, const std::string& id) {
    StanzaEntry e;
    e.init(id.c_str(), ACLFile::PERM_CLASS, ACLFile::PERM_READ, "");
    return f.AddOrUpdateEntries("S", &e, 1);
}

TEST(ACLFileLock, ThreeTriesASecondApartThenTheEditGivesUp) {
    using std::chrono::milliseconds;
    struct Case {
        milliseconds hold;
        int rc;
        milliseconds atLeast, below;
    };
    for (Case c : {Case{3300ms, ACLFile::ACL_LOCK_FAILED, 2900ms, 3300ms},
                   Case{1300ms, ACLFile::ACL_OK, 1900ms, 60000ms}}) {
        SCOPED_TRACE(c.hold.count());
        AclTestRoot root;
        writeFile(root.file(), kList);
        LockHolder holder(root.lockFile(), c.hold);
        ACLFile f(nullptr);
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(addOne(f, "late"), c.rc);
        auto took = std::chrono::steady_clock::now() - start;
        EXPECT_GE(took, c.atLeast);
        EXPECT_LT(took, c.below);
        const std::string after = readFile(root.file());
        EXPECT_TRUE(c.rc == ACLFile::ACL_OK ? after.find(" late\t") != std::string::npos
                                            : after == kList);
        EXPECT_FALSE(testsupport::exists(root.newFile()));
    }
}

TEST(ACLFileLock, EveryOutcomeGivesTheLocksBack) {
    AclTestRoot root;
    writeFile(root.file(), kList);
    auto previous = ACLFile::setLockRetryDelay(5ms);
    ACLFile f(nullptr);
    {
        LockHolder holder(root.lockFile(), 300ms);
        EXPECT_EQ(addOne(f, "x"), ACLFile::ACL_LOCK_FAILED);
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
    ACLFile::setLockRetryDelay(previous);
}

}  // namespace
