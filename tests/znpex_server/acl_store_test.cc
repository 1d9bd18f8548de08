#include "znpex/server/AclStore.h"

#include <gtest/gtest.h>

#include <fstream>

#include <fcntl.h>  // Subprocess.h uses open flags

#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"
#include "znpex/server/Authorize.h"

namespace {

using znpex::server::AclStore;
using znpex::server::isAllowed;
using znpex::server::OpAccess;
using znpex::server::OpTarget;

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
}

bool rootMayWrite(const AclStore& s) {
    return isAllowed(*s.rules(), "root@LOCALHOST", "Kor.X", OpTarget::Class, OpAccess::Write);
}

class AclStoreTest : public ::testing::Test {
protected:
    testsupport::TempDir dir_;
    std::string file_ = dir_ / "cfg/znpex.acls";
    std::string dflt_ = dir_ / "default.acls";
};

TEST_F(AclStoreTest, MissingOrEmptyFileIsCopiedFromTheDefault) {
    writeFile(dflt_, "OTHER\n\troot@LOCALHOST * rw\n");
    for (bool empty : {false, true}) {
        SCOPED_TRACE(empty ? "empty" : "missing");
        std::filesystem::remove_all(dir_ / "cfg");
        if (empty) {
            std::filesystem::create_directories(dir_ / "cfg");
            writeFile(file_, "");
        }
        AclStore store(file_, dflt_);
        EXPECT_FALSE(rootMayWrite(store));  // nothing is allowed before a load
        std::string why;
        ASSERT_TRUE(store.reload(&why)) << why;
        EXPECT_TRUE(rootMayWrite(store));
        EXPECT_EQ(testsupport::readFile(file_), "OTHER\n\troot@LOCALHOST * rw\n");
        auto st = store.status();
        EXPECT_TRUE(st.loaded);
        EXPECT_EQ(st.stanzas, 1u);
        EXPECT_EQ(st.entries, 1u);
        EXPECT_TRUE(st.lastError.empty());
    }
}

TEST_F(AclStoreTest, AFailedReloadKeepsTheRulesInForce) {
    std::filesystem::create_directories(dir_ / "cfg");
    writeFile(file_, "OTHER\n\troot@LOCALHOST * rw\n");
    AclStore store(file_, dflt_);
    ASSERT_TRUE(store.reload(nullptr));
    auto before = store.rules();

    struct Case {
        const char* name;
        std::function<void()> damage;
        const char* why;
    };
    const Case cases[] = {
        {"does not parse", [&] { writeFile(file_, "OTHER\n\troot@LOCALHOST Q rw\n"); },
         "line 2: unknown type 'Q'"},
        {"missing and no default", [&] { std::filesystem::remove(file_); }, "default"},
        {"too large",
         [&] { writeFile(file_, "OTHER\n#" + std::string(znpex::server::kAclMaxFileSize, 'x')); },
         "larger than"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.damage();
        std::string why;
        EXPECT_FALSE(store.reload(&why));
        EXPECT_NE(why.find(c.why), std::string::npos) << why;
        EXPECT_EQ(store.rules(), before);
        EXPECT_TRUE(rootMayWrite(store));
        EXPECT_EQ(store.status().lastError, why);
    }
    // A good file again takes over and clears the error.
    writeFile(file_, "OTHER\n\tLOCALHOST * r\n");
    ASSERT_TRUE(store.reload(nullptr));
    EXPECT_FALSE(rootMayWrite(store));
    EXPECT_TRUE(store.status().lastError.empty());
}

TEST_F(AclStoreTest, ADefaultThatDoesNotParseLeavesNobodyAnyRight) {
    writeFile(dflt_, "\tstray@entry * rw\n");
    AclStore store(file_, dflt_);
    std::string why;
    EXPECT_FALSE(store.reload(&why));
    EXPECT_NE(why.find("before any stanza"), std::string::npos) << why;
    EXPECT_FALSE(rootMayWrite(store));
    EXPECT_FALSE(store.status().loaded);
}

}  // namespace
