#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include <sys/wait.h>
#include <unistd.h>

#include "tests/znhas/znhas_fixture.h"
#include "znhas/sec_keyfile.h"
#include "znhas/sec_random.h"
#include "znhas/vok_rsa.h"

namespace {

using znhas_test::Bytes;
using znhas_test::keyOf;
using znhas_test::lastError;
using znhas_test::readBytes;
using znhas_test::tokenKey;
using znhas_test::writeBytes;

// A key file head in host byte order.
Bytes keyFile(uint32_t magic, uint32_t type, uint32_t len, const Bytes& key) {
    Bytes b(12 + key.size());
    const uint32_t head[3] = {magic, type, len};
    std::memcpy(b.data(), head, sizeof head);
    std::copy(key.begin(), key.end(), b.begin() + 12);
    return b;
}

class KeyFileTest : public znhas_test::ZnhasTest {};

TEST_F(KeyFileTest, GeneratedTokensHoldAMatchingKeyPair) {
    struct Case {
        int type;
        int bits;
    };
    for (Case c : {Case{8193, 512}, Case{8194, 1024}}) {
        SCOPED_TRACE(c.type);
        sec_buffer_t pvt = nullptr;
        sec_buffer_t pub = nullptr;
        ASSERT_EQ(sec_generate_rsa_localhost_token(c.type, &pvt, &pub), 0);
        EXPECT_EQ(pvt->length, 8 + Vok_rsaPrivateKeySize(c.bits));
        EXPECT_EQ(pub->length, 8 + Vok_rsaPublicKeySize(c.bits));
        for (sec_buffer_t t : {pvt, pub}) {
            int keylen = 0;
            sec_host_token_t parsed = nullptr;
            ASSERT_EQ(sec_parse_host_token(t, &keylen, &parsed), 0);
            EXPECT_EQ(parsed->sht_type, static_cast<uint32_t>(c.type));
            sec_release_parsed_token(&parsed);
        }
        Bytes pk = tokenKey(pvt);
        Bytes ub = tokenKey(pub);
        vok::RsaKey priv;
        vok::RsaKey pubk;
        ASSERT_TRUE(vok::rsaReadPrivateKey(pk.data(), pk.size(), &priv));
        ASSERT_TRUE(vok::rsaReadPublicKey(ub.data(), ub.size(), &pubk));
        EXPECT_EQ(vok::bn_cmp(priv.n, pubk.n), 0);
        EXPECT_EQ(vok::bn_bit_length(priv.n), static_cast<size_t>(c.bits));
        EXPECT_EQ(vok::bn_to_u64(pubk.e), 3U);
        sec_release_host_token(&pvt);
        sec_release_host_token(&pub);
    }
}

TEST_F(KeyFileTest, GenerateRejectsOtherTypesAndUsedOutputs) {
    for (int type : {256, 512, 1024, 8192, 8195, 0, -1}) {
        sec_buffer_t pvt = nullptr;
        sec_buffer_t pub = nullptr;
        EXPECT_EQ(sec_generate_rsa_localhost_token(type, &pvt, &pub), ZNHAS_E_BADPARAM) << type;
        EXPECT_EQ(pvt, nullptr);
        EXPECT_EQ(pub, nullptr);
    }
    znhas_test::Token held(Bytes{1});
    sec_buffer_t fresh = nullptr;
    EXPECT_EQ(sec_generate_rsa_localhost_token(8193, &held.t, &fresh), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_generate_rsa_localhost_token(8193, &fresh, &held.t), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_generate_rsa_localhost_token(8193, nullptr, &fresh), ZNHAS_E_BADPARAM);
}

TEST_F(KeyFileTest, RecordedKeysReadBackWithAHostOrderHead) {
    ASSERT_EQ(sec__create_localhost_hostids(8193), 0);
    for (int sel : {SEC_PRIVATE_KEYFILE, SEC_PUBLIC_KEYFILE}) {
        SCOPED_TRACE(sel);
        const std::string& path = sel == SEC_PRIVATE_KEYFILE ? pvt_ : pub_;
        Bytes file = readBytes(path);
        ASSERT_GE(file.size(), 12U);
        uint32_t head[3];
        std::memcpy(head, file.data(), sizeof head);
        EXPECT_EQ(head[0], 0xC5EC0001U);
        EXPECT_EQ(head[1], 8193U);
        EXPECT_EQ(head[2], file.size() - 12);
        EXPECT_EQ(head[2], sel == SEC_PRIVATE_KEYFILE ? Vok_rsaPrivateKeySize(512)
                                                      : Vok_rsaPublicKeySize(512));
        EXPECT_EQ(znhas_test::fileMode(path), sel == SEC_PRIVATE_KEYFILE ? 0600U : 0644U);

        sec_buffer_t tok = nullptr;
        ASSERT_EQ(sec_get_localhost_token(sel, &tok), 0);
        const auto* p = static_cast<const uint8_t*>(tok->value);
        EXPECT_EQ(Bytes(p, p + 8), (Bytes{0xC5, 0xEC, 0, 1, 0, 0, 0x20, 0x01})) << "token is BE";
        EXPECT_EQ(tokenKey(tok), Bytes(file.begin() + 12, file.end()));
        sec_release_host_token(&tok);
    }
    // A new, smaller pair replaces the files whole.
    ASSERT_EQ(sec__create_localhost_hostids(8194), 0);
    ASSERT_EQ(sec__create_localhost_hostids(8193), 0);
    EXPECT_EQ(readBytes(pvt_).size(), 12 + Vok_rsaPrivateKeySize(512));

    char* keyText = nullptr;
    char* typeText = nullptr;
    ASSERT_EQ(sec_print_localhost_token(&keyText, &typeText), 0);
    EXPECT_STREQ(typeText, "rsa512");
    Bytes pubFile = readBytes(pub_);
    std::string expectHex;
    for (size_t i = 12; i < pubFile.size(); ++i) {
        char b[3];
        snprintf(b, sizeof b, "%02x", pubFile[i]);
        expectHex += b;
    }
    EXPECT_EQ(keyText, expectHex);
    free(keyText);
    free(typeText);
}

TEST_F(KeyFileTest, DamagedKeyFilesAreFileAccessFailures) {
    ASSERT_EQ(zn::paths::ensureParentDir(pub_), 0);
    const Bytes key = keyOf(20, 4);
    Bytes shortHead = keyFile(0xC5EC0001U, 8193, 20, {});
    shortHead.pop_back();
    struct Case {
        const char* what;
        Bytes file;
        int rc;
    };
    const Case cases[] = {
        {"good", keyFile(0xC5EC0001U, 1024, 20, key), 0},
        {"each listed type", keyFile(0xC5EC0001U, 256, 20, key), 0},
        {"empty", Bytes{}, ZNHAS_E_FILE},
        {"head of 11 bytes", shortHead, ZNHAS_E_FILE},
        {"type 3000", keyFile(0xC5EC0001U, 3000, 20, key), ZNHAS_E_FILE},
        {"type 8192", keyFile(0xC5EC0001U, 8192, 20, key), ZNHAS_E_FILE},
        {"family", keyFile(0xC5ED0001U, 8193, 20, key), ZNHAS_E_FILE},
        {"version 2", keyFile(0xC5EC0002U, 8193, 20, key), ZNHAS_E_FILE},
        {"big-endian head", keyFile(0x0100ECC5U, 0x01200000U, 0x14000000U, key), ZNHAS_E_FILE},
        {"key shorter than stated", keyFile(0xC5EC0001U, 8193, 21, key), ZNHAS_E_FILE},
        {"huge stated length", keyFile(0xC5EC0001U, 8193, 0xFFFFFFF0U, key), ZNHAS_E_FILE},
        {"zero length", keyFile(0xC5EC0001U, 8193, 0, key), ZNHAS_E_FILE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        writeBytes(pub_, c.file);
        sec_buffer_t tok = nullptr;
        EXPECT_EQ(sec_get_localhost_token(SEC_PUBLIC_KEYFILE, &tok), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(tokenKey(tok), key);
        } else {
            EXPECT_EQ(tok, nullptr);
            auto err = lastError();
            EXPECT_EQ(err.id, ZNHAS_E_FILE);
            EXPECT_EQ(err.text.rfind("2650-958 ", 0), 0U) << err.text;
            EXPECT_NE(err.text.find(pub_), std::string::npos);
        }
        sec_release_host_token(&tok);
    }
}

TEST_F(KeyFileTest, SelectorsMissingFilesAndEnvironmentOverrides) {
    sec_buffer_t tok = nullptr;
    EXPECT_EQ(sec_get_localhost_token(3, &tok), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_get_localhost_token(0, &tok), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_get_localhost_token(1, nullptr), ZNHAS_E_BADPARAM);
    EXPECT_EQ(sec_get_localhost_token(SEC_PRIVATE_KEYFILE, &tok), ZNHAS_E_FILE);
    EXPECT_NE(lastError().text.find(pvt_), std::string::npos);
    char* k = nullptr;
    char* t = nullptr;
    EXPECT_EQ(sec_print_localhost_token(&k, &t), ZNHAS_E_FILE);
    EXPECT_EQ(sec_print_localhost_token(nullptr, &t), ZNHAS_E_BADPARAM);

    const std::string pv = root_ + "/my.qkf";
    const std::string pb = root_ + "/my.pkf";
    setenv("ZNSEC_TESTING_PVTK_FILE", pv.c_str(), 1);
    setenv("ZNSEC_TESTING_PUBK_FILE", pb.c_str(), 1);
    ASSERT_EQ(sec__create_localhost_hostids(8193), 0);
    EXPECT_EQ(readBytes(pv).size(), 12 + Vok_rsaPrivateKeySize(512));
    EXPECT_EQ(readBytes(pb).size(), 12 + Vok_rsaPublicKeySize(512));
    EXPECT_TRUE(readBytes(pvt_).empty());
    ASSERT_EQ(sec_get_localhost_token(SEC_PRIVATE_KEYFILE, &tok), 0);
    sec_release_host_token(&tok);
    std::string name;
    EXPECT_EQ(sec__get_keyfile_name(2, &name), 0);
    EXPECT_EQ(name, pb);
    EXPECT_EQ(sec__get_keyfile_name(7, &name), ZNHAS_E_INTERNAL);
    unsetenv("ZNSEC_TESTING_PVTK_FILE");
    unsetenv("ZNSEC_TESTING_PUBK_FILE");
    EXPECT_EQ(sec__get_keyfile_name(1, &name), 0);
    EXPECT_EQ(name, pvt_);
}

TEST(SecRandom, BytesCoverTheRangeAndAreNotSharedWithAForkedChild) {
    std::set<int> seen;
    for (int i = 0; i < 4096; ++i) {
        int b = sec__randnum();
        ASSERT_GE(b, 0);
        ASSERT_LE(b, 255);
        seen.insert(b);
    }
    EXPECT_GT(seen.size(), 200U);

    // The parent holds part of a block now; a child must not hand out the
    // same bytes (keys made on both sides of a fork would match).
    ASSERT_GE(sec__randnum(), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        unsigned char out[32];
        for (auto& b : out) {
            b = static_cast<unsigned char>(sec__randnum());
        }
        _exit(write(fds[1], out, sizeof out) == sizeof out ? 0 : 1);
    }
    close(fds[1]);
    unsigned char theirs[32] = {};
    ASSERT_EQ(read(fds[0], theirs, sizeof theirs), static_cast<ssize_t>(sizeof theirs));
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    unsigned char ours[32];
    for (auto& b : ours) {
        b = static_cast<unsigned char>(sec__randnum());
    }
    EXPECT_NE(std::memcmp(ours, theirs, sizeof ours), 0);

    unsigned char big[4096] = {};
    ASSERT_TRUE(sec__random_bytes(big, sizeof big));
    std::set<unsigned char> kinds(std::begin(big), std::end(big));
    EXPECT_GT(kinds.size(), 200U);
}

}  // namespace
