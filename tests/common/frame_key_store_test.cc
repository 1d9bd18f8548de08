// The frame key store: root-only file, atomic replacement, reload on change,
// refusal of stores it cannot trust, and the node request built with a key.
#include "common/FrameKeyStore.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/NodeRequest.h"
#include "common/SignSD.h"
#include "platform/paths.h"
#include "tests/support/TempDir.h"

namespace {

using WEX_COMMON::FrameKeyStore;
using WEX_COMMON::SecretBytes;

std::string slurp(const std::string& p) {
    std::ifstream in(p);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<uint8_t> fromHex(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

class FrameKeyStoreTest : public ::testing::Test {
protected:
    testsupport::TempDir root_{/*asRoot=*/true};
};

TEST_F(FrameKeyStoreTest, LivesUnderTheStateRootRootOnly) {
    FrameKeyStore store;
    EXPECT_EQ(store.path(), root_.path() + zn::paths::kFrameKeyStore);
    std::string secret, why;
    ASSERT_EQ(store.add("8233-E8B*1000ABC", &secret, &why), 0) << why;
    EXPECT_EQ(secret.size(), 2 * FrameKeyStore::kSecretBytes);
    struct stat st {};
    ASSERT_EQ(::stat(store.path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(st.st_uid, ::geteuid());
    SecretBytes key;
    ASSERT_TRUE(store.lookup("8233-E8B*1000ABC", &key));
    EXPECT_EQ(key.bytes(), fromHex(secret));
    // No temporary is left beside it.
    EXPECT_FALSE(std::filesystem::exists(store.path() + ".tmp"));
}

TEST_F(FrameKeyStoreTest, AddRemoveAndNames) {
    FrameKeyStore store;
    std::string s1, s2, why;
    ASSERT_EQ(store.add("B-FRAME", &s1, &why), 0);
    ASSERT_EQ(store.add("A-FRAME", &s2, &why), 0);
    EXPECT_NE(s1, s2);
    EXPECT_EQ(store.add("A-FRAME", &s2, &why), EEXIST);
    std::vector<std::string> names;
    ASSERT_EQ(store.names(&names, &why), 0);
    EXPECT_EQ(names, (std::vector<std::string>{"A-FRAME", "B-FRAME"}));
    EXPECT_EQ(store.remove("A-FRAME", &why), 0);
    EXPECT_EQ(store.remove("A-FRAME", &why), ENOENT);
    ASSERT_EQ(store.names(&names, &why), 0);
    EXPECT_EQ(names, std::vector<std::string>{"B-FRAME"});
    // Nothing of the secrets shows in what names() or the errors say.
    EXPECT_EQ(why.find(s1), std::string::npos);
}

TEST_F(FrameKeyStoreTest, MtmsMustBePrintableWithoutBlanks) {
    struct Case {
        std::string mtms;
        bool ok;
    } cases[] = {{"8233-E8B*1000ABC", true},   {"", false},       {"has blank", false},
                 {"tab\there", false},         {"line\n", false}, {std::string(64, 'M'), true},
                 {std::string(65, 'M'), false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mtms);
        EXPECT_EQ(FrameKeyStore::validMtms(c.mtms), c.ok);
        std::string secret, why;
        EXPECT_EQ(FrameKeyStore().add(c.mtms, &secret, &why) == 0, c.ok) << why;
    }
}

TEST_F(FrameKeyStoreTest, TheDaemonsStoreFollowsChangesWithoutARestart) {
    FrameKeyStore daemon;
    FrameKeyStore admin;
    EXPECT_FALSE(daemon.lookup("F1", nullptr));
    std::string secret, why;
    ASSERT_EQ(admin.add("F1", &secret, &why), 0);
    EXPECT_TRUE(daemon.lookup("F1", nullptr));
    uint64_t loads = daemon.loads();
    // An unchanged file is not read again.
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(daemon.lookup("F1", nullptr));
    }
    EXPECT_EQ(daemon.loads(), loads);
    ASSERT_EQ(admin.remove("F1", &why), 0);
    EXPECT_FALSE(daemon.lookup("F1", nullptr));
    ASSERT_EQ(admin.add("F1", &secret, &why), 0);
    SecretBytes key;
    ASSERT_TRUE(daemon.lookup("F1", &key));
    EXPECT_EQ(key.bytes(), fromHex(secret));
}

TEST_F(FrameKeyStoreTest, AStoreOpenToOthersOrBrokenGivesNoKey) {
    FrameKeyStore store;
    std::string secret, why;
    ASSERT_EQ(store.add("F1", &secret, &why), 0);
    ASSERT_EQ(::chmod(store.path().c_str(), 0644), 0);
    EXPECT_FALSE(store.lookup("F1", nullptr)) << "a store others can read is not used";
    std::vector<std::string> names;
    EXPECT_EQ(store.names(&names, &why), EPERM);
    EXPECT_EQ(store.add("F2", &secret, &why), EPERM) << "nor written over";
    ASSERT_EQ(::chmod(store.path().c_str(), 0600), 0);
    EXPECT_TRUE(store.lookup("F1", nullptr));

    // A bad line is skipped, and not quoted (it may hold a secret).
    std::string text = slurp(store.path());
    {
        std::ofstream out(store.path(), std::ios::app);
        out << "F2 not-hex-secret-value\nF3\n";
    }
    EXPECT_TRUE(store.lookup("F1", nullptr));
    EXPECT_FALSE(store.lookup("F2", nullptr));
    EXPECT_FALSE(store.lookup("F3", nullptr));
    EXPECT_EQ(store.names(&names, &why), EINVAL);
    EXPECT_EQ(why.find("not-hex"), std::string::npos) << why;
}

TEST_F(FrameKeyStoreTest, AFailedWriteLeavesTheStoreAsItWas) {
    FrameKeyStore store;
    std::string secret, why;
    ASSERT_EQ(store.add("F1", &secret, &why), 0);
    std::string before = slurp(store.path());
    // The temporary cannot be made: nothing is replaced, nothing is left.
    std::filesystem::create_directory(store.path() + ".tmp");
    EXPECT_NE(store.add("F2", &secret, &why), 0);
    EXPECT_NE(store.remove("F1", &why), 0);
    EXPECT_EQ(slurp(store.path()), before);
    std::filesystem::remove(store.path() + ".tmp");
    EXPECT_TRUE(store.lookup("F1", nullptr));
    EXPECT_FALSE(store.lookup("F2", nullptr));
}

TEST_F(FrameKeyStoreTest, WipedBytesAreZeroedAndGone) {
    std::vector<uint8_t> raw = {1, 2, 3};
    SecretBytes s(raw);
    s.wipe();
    EXPECT_TRUE(s.empty());
    SecretBytes a(std::vector<uint8_t>{9, 9});
    SecretBytes b(std::vector<uint8_t>{7});
    a = std::move(b);
    EXPECT_EQ(a.bytes(), std::vector<uint8_t>{7});
}

TEST_F(FrameKeyStoreTest, NodeRequestIsSignedOverItsIdentity) {
    WEX_COMMON::NodeRequestSpec spec;
    spec.hostname = "node1";
    spec.universalId = 5;
    spec.mtms = "F1";
    spec.token = {1, 2, 3};
    spec.frameKey = {4, 5, 6};
    spec.ownNames = {"n1"};
    zn::SdPtr rq = WEX_COMMON::makeNodeRequest(spec);
    ASSERT_TRUE(rq);
    ASSERT_EQ(rq->element_count, 8u);
    sec_buffer_s key{3, spec.frameKey.data()};
    sec_buffer_s sig{};
    WEX_COMMON::binary2sec(rq->elements[1].value.ptr_binary, &sig);
    EXPECT_EQ(WEX_COMMON::verifySD(&rq->elements[2], 4, &key, &sig), 0u);
    EXPECT_EQ(rq->elements[6].value.val_int32, 1001);
    spec.protocol = 0;
    zn::SdPtr plain = WEX_COMMON::makeNodeRequest(spec);
    EXPECT_EQ(plain->elements[1].value.ptr_binary->length, 0u);
}

}  // namespace
