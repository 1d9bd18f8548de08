// Fuzz target for everything the host authentication library reads from
// outside: trusted host list files, tokens, hexadecimal key text, key files
// and RSA key buffers. The first byte picks the reader; the rest is its input.
// Malformed input must give an error code, never a crash or a read out of
// bounds.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "znhas/sec_keyfile.h"
#include "znhas/sec_thl.h"
#include "znhas/vok_rsa.h"
#include "znhas/znhas.h"

namespace {

struct Scratch {
    std::string dir;
    std::string thl;
    std::string pub;
    Scratch() {
        const char* tmp = getenv("TMPDIR");
        std::string templ =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/znhas_fuzz.XXXXXX";
        if (mkdtemp(templ.data()) == nullptr) {
            abort();
        }
        dir = templ;
        thl = dir + "/zn_has.thl";
        pub = dir + "/zn_has.pkf";
        setenv("ZNSEC_TESTING_THL_FILE", thl.c_str(), 1);
        setenv("ZNSEC_TESTING_PUBK_FILE", pub.c_str(), 1);
    }
    ~Scratch() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
};

Scratch& scratch() {
    static Scratch s;
    return s;
}

void writeFile(const std::string& path, const uint8_t* data, size_t size) {
    unlink(path.c_str());
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        abort();
    }
    if (size > 0) {
        fwrite(data, 1, size, f);
    }
    fclose(f);
}

void fuzzThl(const uint8_t* data, size_t size) {
    writeFile(scratch().thl, data, size);
    sec_buffer_t tok = nullptr;
    if (sec_get_host_token("host", &tok) == 0) {
        char* k = nullptr;
        char* t = nullptr;
        if (sec_print_host_token(tok, &k, &t) == 0) {
            free(k);
            free(t);
        }
    }
    sec_release_host_token(&tok);
    size_t records = 0;
    sec__walk_thl([&records](const znhas::ThlEntry& e) {
        if (e.candidate() && e.name()[0] == '\x7f') {
            return 1;
        }
        ++records;
        return 0;
    });
    // Edits on top of whatever was there.
    const uint8_t key[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    sec_buffer_t mine = nullptr;
    sec_create_host_token("HOST", sizeof key, key, 8193, &mine);
    sec_store_host_token("HOST", mine);
    sec_store_host_token("other", mine);
    sec_release_host_token(&mine);
    sec_delete_host_token("host");
}

void fuzzToken(const uint8_t* data, size_t size) {
    std::vector<uint8_t> copy(data, data + size);
    sec_buffer_s buf{static_cast<uint32_t>(copy.size()), copy.empty() ? nullptr : copy.data()};
    int keylen = 0;
    sec_host_token_t parsed = nullptr;
    if (sec_parse_host_token(&buf, &keylen, &parsed) == 0) {
        sec_release_parsed_token(&parsed);
    }
    char* k = nullptr;
    char* t = nullptr;
    if (sec_print_host_token(&buf, &k, &t) == 0) {
        free(k);
        free(t);
    }
}

void fuzzHex(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    sec_buffer_t tok = nullptr;
    sec_set_host_token(text.c_str(), 8194, &tok);
    sec_release_host_token(&tok);
}

void fuzzKeyFile(const uint8_t* data, size_t size) {
    writeFile(scratch().pub, data, size);
    sec_buffer_t tok = nullptr;
    sec_get_localhost_token(SEC_PUBLIC_KEYFILE, &tok);
    sec_release_host_token(&tok);
}

void fuzzKeyBuffers(const uint8_t* data, size_t size) {
    vok::RsaKey key;
    vok::rsaReadPrivateKey(data, size, &key);
    vok::rsaReadPublicKey(data, size, &key);
    // This call trusts the buffer's own length byte, so give it only buffers
    // that are as long as they claim.
    if (size >= 3 && size >= 2 * size_t(data[0]) + 3) {
        std::vector<uint8_t> pub(static_cast<size_t>(data[0]) + 5);
        Vok_rsaMakePublicKey(data, Vok_RSA_PUB_EXP_3, pub.data());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const uint8_t* rest = data + 1;
    const size_t n = size - 1;
    switch (data[0] % 5) {
        case 0:
            fuzzThl(rest, n);
            break;
        case 1:
            fuzzToken(rest, n);
            break;
        case 2:
            fuzzHex(rest, n);
            break;
        case 3:
            fuzzKeyFile(rest, n);
            break;
        default:
            fuzzKeyBuffers(rest, n);
            break;
    }
    return 0;
}
