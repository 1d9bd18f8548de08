// Test fixture for the host authentication library: a private state root per
// test (ZN_ROOT), the list's and key files' override variables cleared, and
// helpers to read files and the thread's last error.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/cu_error.h"
#include "platform/paths.h"
#include "tests/support/TempDir.h"
#include "znhas/sec_thl.h"
#include "znhas/znhas.h"

namespace znhas_test {

using Bytes = std::vector<uint8_t>;

struct LastError {
    int id = 0;
    std::string catalog;
    int set = 0;
    int number = 0;
    std::string text;
};

inline LastError lastError() {
    cu_error_t* e = nullptr;
    cu_get_error(&e);
    LastError out{e->cu_error_id, e->cu_msg_cat, e->cu_msg_set, e->cu_msg_num, cu_error_text(e)};
    cu_rel_error_1(e);
    return out;
}

inline Bytes readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeBytes(const std::string& path, const Bytes& b) {
    std::error_code ec;  // absent files are created below
    std::filesystem::permissions(path, std::filesystem::perms::owner_write,
                                 std::filesystem::perm_options::add, ec);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

inline mode_t fileMode(const std::string& path) {
    struct stat st = {};
    stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

inline uint32_t be32(const Bytes& b, size_t at) {
    return (uint32_t(b[at]) << 24) | (uint32_t(b[at + 1]) << 16) | (uint32_t(b[at + 2]) << 8) |
           uint32_t(b[at + 3]);
}

inline void putBe(Bytes& b, uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) {
        b.push_back(static_cast<uint8_t>(v >> s));
    }
}

// A record as the list stores it (slot size == length unless given).
inline Bytes thlRecord(const std::string& name, const Bytes& key, uint32_t type = 8193,
                       uint32_t active = 2, uint32_t slot = 0) {
    Bytes r;
    uint32_t len = static_cast<uint32_t>(28 + name.size() + 1 + key.size());
    putBe(r, slot != 0 ? slot : len);
    putBe(r, len);
    putBe(r, 0xC5EC0001U);
    putBe(r, active);
    putBe(r, type);
    putBe(r, static_cast<uint32_t>(key.size()));
    putBe(r, static_cast<uint32_t>(name.size()));
    r.insert(r.end(), name.begin(), name.end());
    r.push_back(0);
    r.insert(r.end(), key.begin(), key.end());
    if (slot > len) {
        r.resize(slot, 0);
    }
    return r;
}

inline Bytes keyOf(size_t n, uint8_t seed) {
    Bytes k(n);
    for (size_t i = 0; i < n; ++i) {
        k[i] = static_cast<uint8_t>(seed + i * 13);
    }
    return k;
}

// The key a token carries after its 8-byte head.
inline Bytes tokenKey(sec_buffer_t t) {
    const auto* p = static_cast<const uint8_t*>(t->value);
    return Bytes(p + 8, p + t->length);
}

// Owns a token made from a key, released at scope end.
struct Token {
    sec_buffer_t t = nullptr;
    Token() = default;
    Token(const Bytes& key, int type = 8193) {
        EXPECT_EQ(sec_create_host_token("h", static_cast<int>(key.size()), key.data(), type, &t),
                  0);
    }
    ~Token() { sec_release_host_token(&t); }
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;
};

class ZnhasTest : public ::testing::Test {
protected:
    void SetUp() override {
        unsetenv("ZNSEC_TESTING_THL_FILE");
        unsetenv("ZNSEC_TESTING_PVTK_FILE");
        unsetenv("ZNSEC_TESTING_PUBK_FILE");
        thl_ = zn::paths::resolve(zn::paths::kThlFile);
        pvt_ = zn::paths::resolve(zn::paths::kPrivateKeyFile);
        pub_ = zn::paths::resolve(zn::paths::kPublicKeyFile);
    }
    void initThl() { ASSERT_EQ(sec__init_thl(), 0); }

    testsupport::TempDir tmp_{/*asRoot=*/true};
    const std::string& root_ = tmp_.path();
    std::string thl_;
    std::string pvt_;
    std::string pub_;
};

}  // namespace znhas_test
