#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

#include "tests/znhas/znhas_fixture.h"
#include "znhas/sec_file.h"
#include "znhas/sec_thl.h"

namespace {

using znhas_test::be32;
using znhas_test::Bytes;
using znhas_test::keyOf;
using znhas_test::lastError;
using znhas_test::readBytes;
using znhas_test::thlRecord;
using znhas_test::Token;
using znhas_test::writeBytes;

class ThlTest : public znhas_test::ZnhasTest {
protected:
    void SetUp() override {
        ZnhasTest::SetUp();
        initThl();
    }
    int store(const char* name, const Bytes& key, int type = 8193) {
        Token t(key, type);
        return sec_store_host_token(name, t.t);
    }
    // The key stored for a host, or empty with *rc set.
    Bytes lookup(const char* name, int* rc = nullptr) {
        sec_buffer_t t = nullptr;
        int r = sec_get_host_token(name, &t);
        if (rc != nullptr) {
            *rc = r;
        }
        Bytes key;
        if (r == 0) {
            const auto* p = static_cast<const uint8_t*>(t->value);
            EXPECT_EQ(be32(Bytes(p, p + 4), 0), 0xC5EC0001U);
            key = znhas_test::tokenKey(t);
        }
        sec_release_host_token(&t);
        return key;
    }
};

TEST_F(ThlTest, StoringANewHostAppendsALiveRecord) {
    ASSERT_EQ(store("alpha", keyOf(16, 1), 8194), 0);
    ASSERT_EQ(store("beta", keyOf(8, 2)), 0);
    Bytes file = readBytes(thl_);
    Bytes expect = thlRecord("alpha", keyOf(16, 1), 8194);
    Bytes second = thlRecord("beta", keyOf(8, 2));
    expect.insert(expect.end(), second.begin(), second.end());
    EXPECT_EQ(file, expect);
    EXPECT_EQ(be32(file, 0), 28U + 6 + 16);
    EXPECT_EQ(be32(file, 12), 2U);
    EXPECT_EQ(znhas_test::fileMode(thl_), 0444U);
    EXPECT_EQ(lookup("alpha"), keyOf(16, 1));
    EXPECT_EQ(lookup("beta"), keyOf(8, 2));
}

TEST_F(ThlTest, SameOrSmallerKeyReusesTheSlot) {
    ASSERT_EQ(store("alpha", keyOf(16, 1)), 0);
    ASSERT_EQ(store("omega", keyOf(4, 9)), 0);
    const size_t size = readBytes(thl_).size();
    struct Step {
        size_t keyLen;
        uint8_t seed;
    };
    for (Step s : {Step{16, 3}, Step{10, 4}, Step{1, 5}}) {
        SCOPED_TRACE(s.keyLen);
        ASSERT_EQ(store("alpha", keyOf(s.keyLen, s.seed)), 0);
        Bytes file = readBytes(thl_);
        EXPECT_EQ(file.size(), size);
        EXPECT_EQ(be32(file, 0), 28U + 6 + 16) << "slot size stays";
        EXPECT_EQ(be32(file, 4), 28U + 6 + s.keyLen) << "length is the new size";
        EXPECT_EQ(be32(file, 12), 2U);
        EXPECT_EQ(be32(file, 20), s.keyLen);
        EXPECT_EQ(lookup("alpha"), keyOf(s.keyLen, s.seed));
        EXPECT_EQ(lookup("omega"), keyOf(4, 9));
    }
}

TEST_F(ThlTest, LargerKeyStrikesOutTheSlotAndAppends) {
    ASSERT_EQ(store("alpha", keyOf(8, 1)), 0);
    ASSERT_EQ(store("alpha", keyOf(9, 2)), 0);
    Bytes file = readBytes(thl_);
    const uint32_t slot = 28 + 6 + 8;
    ASSERT_EQ(file.size(), slot + (28 + 6 + 9));
    EXPECT_EQ(be32(file, 0), slot);
    EXPECT_EQ(be32(file, 4), 0U) << "struck out";
    EXPECT_EQ(be32(file, 8), 0xC5EC0001U) << "magic stays";
    EXPECT_EQ(be32(file, 12), 1U) << "deactivated";
    for (size_t i = 16; i < slot; ++i) {
        ASSERT_EQ(file[i], 0) << "byte " << i;
    }
    Bytes tail(file.begin() + slot, file.end());
    EXPECT_EQ(tail, thlRecord("alpha", keyOf(9, 2)));
    EXPECT_EQ(lookup("alpha"), keyOf(9, 2));
}

TEST_F(ThlTest, DeleteDeactivatesAndLaterLookupsFail) {
    ASSERT_EQ(store("alpha", keyOf(8, 1)), 0);
    ASSERT_EQ(sec_delete_host_token("alpha"), 0);
    Bytes file = readBytes(thl_);
    EXPECT_EQ(be32(file, 12), 1U);
    EXPECT_EQ(be32(file, 4), 28U + 6 + 8) << "the record stays in place";
    int rc = 0;
    lookup("alpha", &rc);
    EXPECT_EQ(rc, ZNHAS_E_NOTFOUND);
    auto err = lastError();
    EXPECT_EQ(err.id, ZNHAS_E_NOTFOUND);
    EXPECT_EQ(err.text.rfind("2650-949 libzn_has Failure: Cannot locate a host identifier token\n"
                             "for the host alpha in the trusted host list " +
                                 thl_,
                             0),
              0U)
        << err.text;
    EXPECT_EQ(sec_delete_host_token("alpha"), ZNHAS_E_NOTFOUND);
    EXPECT_EQ(znhas_test::fileMode(thl_), 0444U);
    // Storing it again appends: a deactivated slot is not reused.
    ASSERT_EQ(store("alpha", keyOf(8, 7)), 0);
    EXPECT_EQ(readBytes(thl_).size(), 2 * file.size());
    EXPECT_EQ(lookup("alpha"), keyOf(8, 7));
}

TEST_F(ThlTest, NamesDifferingInCaseAreOneHost) {
    ASSERT_EQ(store("Node7.Example.COM", keyOf(8, 1)), 0);
    EXPECT_EQ(lookup("node7.example.com"), keyOf(8, 1));
    ASSERT_EQ(store("NODE7.EXAMPLE.com", keyOf(8, 2)), 0);
    EXPECT_EQ(readBytes(thl_).size(), 28U + 18 + 8) << "replaced in its slot";
    EXPECT_EQ(lookup("Node7.Example.COM"), keyOf(8, 2));
    ASSERT_EQ(sec_delete_host_token("node7.EXAMPLE.com"), 0);
    int rc = 0;
    lookup("Node7.Example.COM", &rc);
    EXPECT_EQ(rc, ZNHAS_E_NOTFOUND);
    // Names only equal ignoring case, not prefixes of each other.
    ASSERT_EQ(store("node", keyOf(8, 3)), 0);
    lookup("node7", &rc);
    EXPECT_EQ(rc, ZNHAS_E_NOTFOUND);
}

TEST_F(ThlTest, DamagedListsAreReportedNotRead) {
    const Bytes good = thlRecord("late", keyOf(4, 1));
    auto concat = [](Bytes a, const Bytes& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    Bytes wrongLength = thlRecord("bad", keyOf(4, 2));
    wrongLength[7] += 1;  // length no longer matches name + key
    Bytes noTerminator = thlRecord("bad", keyOf(4, 2));
    noTerminator[28 + 3] = 'x';
    Bytes wrongMagic = thlRecord("bad", keyOf(4, 2));
    wrongMagic[9] = 0xED;
    Bytes hugeName = thlRecord("bad", keyOf(4, 2));
    hugeName[24] = 0xFF;
    struct Case {
        const char* what;
        Bytes file;
        const char* msg;
    };
    const Case cases[] = {
        {"slot of 4093 bytes first", concat(thlRecord("x", keyOf(4, 3), 8193, 1, 4093), good),
         "2650-986 znsthl Failure: This command is unable to access the trusted\nhost list "},
        {"struck-out slot of 4096", concat(thlRecord("x", keyOf(4, 3), 8193, 1, 4096), good),
         "2650-986 "},
        {"truncated record", concat(good, Bytes(good.begin(), good.end() - 3)), nullptr},
        {"truncated slot size", Bytes{0, 0},
         "2650-959 libzn_has Failure: Trusted host list "
         "file corrupted."},
        {"slot too small", concat(Bytes{0, 0, 0, 12, 0, 0, 0, 0, 0, 0, 0, 0}, good), "2650-959 "},
        {"zero slot", concat(Bytes{0, 0, 0, 0}, good), "2650-959 "},
        {"length mismatch", concat(wrongLength, good), "2650-959 "},
        {"name not terminated", concat(noTerminator, good), "2650-959 "},
        {"magic", concat(wrongMagic, good), "2650-959 "},
        {"name length beyond slot", concat(hugeName, good), "2650-959 "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        writeBytes(thl_, c.file);
        int rc = 0;
        lookup("late", &rc);
        if (c.msg == nullptr) {
            EXPECT_EQ(rc, 0) << "the host before the damage is found";
            lookup("missing", &rc);
        }
        EXPECT_EQ(rc, ZNHAS_E_FILE);
        auto err = lastError();
        EXPECT_EQ(err.id, ZNHAS_E_FILE);
        EXPECT_EQ(err.text.rfind(c.msg != nullptr ? c.msg : "2650-959 ", 0), 0U) << err.text;
        // Changes are refused too, and the file is left as it was.
        EXPECT_EQ(store("late", keyOf(2, 9)), c.msg == nullptr ? 0 : ZNHAS_E_FILE);
        if (c.msg != nullptr) {
            EXPECT_EQ(readBytes(thl_), c.file);
        }
        EXPECT_EQ(znhas_test::fileMode(thl_), 0444U);
    }
}

TEST_F(ThlTest, RecordsUpTo4092BytesAreReadAndStoredLargerOnesAreNot) {
    Bytes file = thlRecord("x", keyOf(4, 3), 8193, 1, 4092);
    Bytes live = thlRecord("big", keyOf(4092 - 28 - 4, 5));
    ASSERT_EQ(live.size(), 4092U);
    file.insert(file.end(), live.begin(), live.end());
    writeBytes(thl_, file);
    EXPECT_EQ(lookup("big"), keyOf(4092 - 28 - 4, 5));
    ASSERT_EQ(store("a", keyOf(4092 - 28 - 2, 1)), 0) << "exactly 4092";
    const Bytes before = readBytes(thl_);
    EXPECT_EQ(store("b", keyOf(4092 - 28 - 2 + 1, 1)), ZNHAS_E_FILE);
    EXPECT_EQ(lastError().text.rfind("2650-986 ", 0), 0U);
    EXPECT_EQ(readBytes(thl_), before);
}

TEST_F(ThlTest, BadArgumentsAndMissingList) {
    Token t(keyOf(4, 1));
    EXPECT_EQ(sec_store_host_token(nullptr, t.t), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_store_host_token("", t.t), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_store_host_token("a", nullptr), ZNHAS_E_BADPARAM);
    Bytes junk = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    sec_buffer_s bad{9, junk.data()};
    EXPECT_EQ(sec_store_host_token("a", &bad), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_delete_host_token(""), ZNHAS_E_BADPARAM);
    sec_buffer_t out = nullptr;
    EXPECT_EQ(sec_get_host_token(nullptr, &out), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_get_host_token("a", nullptr), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_get_host_token("a", &t.t), ZNHAS_E_BADPARAM) << "out token must be null";

    ASSERT_EQ(unlink(thl_.c_str()), 0);
    EXPECT_EQ(sec_store_host_token("a", t.t), ZNHAS_E_FILE);
    auto err = lastError();
    EXPECT_EQ(
        err.text.rfind("2650-958 libzn_has Failure: Security file access failure.  A failure", 0),
        0U);
    EXPECT_NE(err.text.find(thl_), std::string::npos);
    EXPECT_EQ(sec_get_host_token("a", &out), ZNHAS_E_FILE);
    EXPECT_EQ(sec_delete_host_token("a"), ZNHAS_E_FILE);
}

TEST_F(ThlTest, OddFileSystemObjectsMapToTheirCodes) {
    const std::string plain = root_ + "/plain";
    writeBytes(plain, Bytes{1});
    const std::string dir = root_ + "/adir";
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    const std::string loop = root_ + "/loop";
    ASSERT_EQ(symlink(loop.c_str(), loop.c_str()), 0);
    struct Case {
        const char* what;
        std::string path;
        int getRc;
        int storeRc;
    };
    const Case cases[] = {
        {"under a plain file", plain + "/zn_has.thl", ZNHAS_E_FILE, ZNHAS_E_FILE},
        {"symlink loop", loop, ZNHAS_E_FILE, ZNHAS_E_FILE},
        {"a directory", dir, ZNHAS_E_INTERNAL, ZNHAS_E_INTERNAL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        setenv("ZNSEC_TESTING_THL_FILE", c.path.c_str(), 1);
        int rc = 0;
        lookup("a", &rc);
        EXPECT_EQ(rc, c.getRc);
        EXPECT_EQ(lastError().id, c.getRc);
        EXPECT_EQ(store("a", keyOf(4, 1)), c.storeRc);
    }
    unsetenv("ZNSEC_TESTING_THL_FILE");
}

TEST_F(ThlTest, EnvironmentNamesAnotherList) {
    const std::string other = root_ + "/elsewhere.thl";
    setenv("ZNSEC_TESTING_THL_FILE", other.c_str(), 1);
    ASSERT_EQ(sec__init_thl(), 0);
    ASSERT_EQ(store("alpha", keyOf(8, 1)), 0);
    EXPECT_EQ(readBytes(other), thlRecord("alpha", keyOf(8, 1)));
    EXPECT_TRUE(readBytes(thl_).empty());
    std::string tooLong(5000, 'a');
    setenv("ZNSEC_TESTING_THL_FILE", tooLong.c_str(), 1);
    int rc = 0;
    lookup("alpha", &rc);
    EXPECT_EQ(rc, ZNHAS_E_INTERNAL);
    unsetenv("ZNSEC_TESTING_THL_FILE");
}

TEST_F(ThlTest, HeldLockMakesOthersGiveUpAfterAboutASecond) {
    ASSERT_EQ(store("alpha", keyOf(8, 1)), 0);
    int fd = open(thl_.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    // A read lock held elsewhere: readers pass, writers wait and give up.
    ASSERT_EQ(sec__readlock_file("test", thl_.c_str(), fd), 0);
    EXPECT_EQ(lookup("alpha"), keyOf(8, 1));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sec_delete_host_token("alpha"), ZNHAS_E_LOCK);
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LE(waited, std::chrono::milliseconds(3500));
    auto err = lastError();
    EXPECT_EQ(err.id, ZNHAS_E_LOCK);
    EXPECT_EQ(err.text.rfind("2650-978 libzn_has Failure: cannot lock trusted host list or key "
                             "file.",
                             0),
              0U);
    EXPECT_EQ(znhas_test::fileMode(thl_), 0444U);
    // Closing some other descriptor of the file keeps our lock.
    int other = open(thl_.c_str(), O_RDONLY);
    close(other);
    EXPECT_EQ(sec_delete_host_token("alpha"), ZNHAS_E_LOCK);
    ASSERT_EQ(sec__unlock_file("test", thl_.c_str(), fd), 0);
    EXPECT_EQ(sec_delete_host_token("alpha"), 0);
    close(fd);
}

TEST_F(ThlTest, FirstLiveMatchWinsAndWalkSeesEverySlot) {
    Bytes file = thlRecord("dup", keyOf(4, 1), 8193, 1);  // deactivated
    Bytes struck = thlRecord("dup", keyOf(4, 2));
    std::fill(struck.begin() + 4, struck.begin() + 8, 0);  // struck out
    Bytes first = thlRecord("DUP", keyOf(4, 3));
    Bytes second = thlRecord("dup", keyOf(4, 4));
    for (const Bytes* b : {&struck, &first, &second}) {
        file.insert(file.end(), b->begin(), b->end());
    }
    writeBytes(thl_, file);
    EXPECT_EQ(lookup("dup"), keyOf(4, 3));
    std::vector<std::pair<uint32_t, uint32_t>> seen;  // (length, active)
    ASSERT_EQ(sec__walk_thl([&](const znhas::ThlEntry& e) {
                  seen.emplace_back(e.length, e.active);
                  return 0;
              }),
              0);
    ASSERT_EQ(seen.size(), 4U);
    EXPECT_EQ(seen[0].second, 1U);
    EXPECT_EQ(seen[1].first, 0U);
    EXPECT_EQ(seen[2].second, 2U);
    EXPECT_EQ(sec__walk_thl([](const znhas::ThlEntry&) { return 42; }), 42);
}

TEST(ThlSpace, FreeSpaceRule) {
    struct Case {
        uint64_t size, add, block, total, freeBlocks;
        bool fits;
    };
    const Case cases[] = {
        {0, 100, 4096, 1000, 500, true},
        {4000, 96, 4096, 1000, 30, true},   // still one block: no new block needed
        {4000, 97, 4096, 1000, 30, false},  // one more block, only the reserve left
        {4000, 97, 4096, 1000, 31, true},   // exactly at the limit
        {0, 1, 4096, 100, 3, false},        // reserve of 3 blocks
        {0, 1, 4096, 100, 4, true},
        {0, 1, 4096, 10, 1, true},  // 3% of 10 truncates to 0
        {0, 1, 0, 10, 10, false},   // no block size
        {8192, 0, 4096, 10, 0, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sec__space_fits(c.size, c.add, c.block, c.total, c.freeBlocks), c.fits)
            << c.size << "+" << c.add << " free " << c.freeBlocks << "/" << c.total;
    }
}

}  // namespace
