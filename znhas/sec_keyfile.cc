// Local key files and key generation.
#include "znhas/sec_keyfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/paths.h"
#include "znhas/sec_file.h"
#include "znhas/sec_messages.h"
#include "znhas/sec_random.h"
#include "znhas/sec_token.h"
#include "znhas/vok_rsa.h"
#include "znhas/znhas.h"

using znhas::SecureBytes;

namespace {

constexpr char kPvtEnv[] = "ZNSEC_TESTING_PVTK_FILE";
constexpr char kPubEnv[] = "ZNSEC_TESTING_PUBK_FILE";
// The key generator's second parameter: Miller-Rabin rounds per prime.
constexpr int kPrimeRounds = 17;

int bitsOfType(int keytype) {
    return keytype == SEC_KEYTYPE_RSA512 ? 512 : keytype == SEC_KEYTYPE_RSA1024 ? 1024 : 0;
}

// Reads the key file's head and key under the caller's lock.
int readKeyFile(const char* fn, const char* file, int fd, sec_buffer_t* token) {
    uint32_t head[3];
    if (sec__read_from_file(fd, head, sizeof head) != static_cast<ssize_t>(sizeof head)) {
        return znhas::secFileAccess(fn, file, 0, ZNHAS_E_FILE);
    }
    const uint32_t magic = head[0];
    const uint32_t type = head[1];
    const uint32_t len = head[2];
    if ((magic & 0xFFFF0000U) != SEC_TOKEN_FAMILY || (magic & 0xFFFFU) != 1 ||
        !sec__keyfile_type_ok(type)) {
        return znhas::secFileAccess(fn, file, 0, ZNHAS_E_FILE);
    }
    // The stated length must be there in the file: nothing is allocated for
    // what a damaged head merely claims.
    struct stat st;
    if (fstat(fd, &st) != 0) {
        return znhas::secInternal(fn, "fstat", errno);
    }
    if (len == 0 || len > znhas::kMaxKeyLength ||
        static_cast<off_t>(len) > st.st_size - static_cast<off_t>(kSecKeyFileHead)) {
        return znhas::secFileAccess(fn, file, 0, ZNHAS_E_FILE);
    }
    SecureBytes key(len);
    if (sec__read_from_file(fd, key.data(), len) != static_cast<ssize_t>(len)) {
        return znhas::secFileAccess(fn, file, 0, ZNHAS_E_FILE);
    }
    return znhas::makeToken(fn, type, key.data(), key.size(), token);
}

}  // namespace

int sec__get_keyfile_name(int selector, std::string* out) {
    static const char fn[] = "sec__get_keyfile_name";
    if (selector == SEC_PRIVATE_KEYFILE) {
        return sec__file_name(fn, kPvtEnv, zn::paths::kPrivateKeyFile, out);
    }
    if (selector == SEC_PUBLIC_KEYFILE) {
        return sec__file_name(fn, kPubEnv, zn::paths::kPublicKeyFile, out);
    }
    return znhas::secBadParam(fn, 1, ZNHAS_E_INTERNAL);
}

bool sec__keyfile_type_ok(uint32_t type) {
    switch (type) {
        case 256:
        case 512:
        case 1024:
        case 2048:
        case 4096:
        case 8193:
        case 8194:
            return true;
        default:
            return false;
    }
}

int sec_get_localhost_token(int selector, sec_buffer_t* token) {
    static const char fn[] = "sec_get_localhost_token";
    if (selector != SEC_PRIVATE_KEYFILE && selector != SEC_PUBLIC_KEYFILE) {
        return znhas::secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    if (token == nullptr || *token != nullptr) {
        return znhas::secBadParam(fn, 2, ZNHAS_E_BADPARAM);
    }
    std::string file;
    int rc = sec__get_keyfile_name(selector, &file);
    if (rc == 0) {
        rc = sec__test_file(fn, file.c_str(), nullptr);
    }
    int fd = -1;
    if (rc == 0) {
        rc = sec__open_locked_file(fn, file.c_str(), O_RDONLY, &fd);
    }
    if (rc != 0) {
        return rc;
    }
    rc = readKeyFile(fn, file.c_str(), fd, token);
    sec__close_locked_file(fn, file.c_str(), fd);
    return rc;
}

int sec__record_hostid_token(int selector, sec_buffer_t token) {
    static const char fn[] = "sec__record_hostid_token";
    uint32_t type = 0;
    const uint8_t* key = nullptr;
    size_t keylen = 0;
    if (!znhas::checkToken(token, &type, &key, &keylen)) {
        return znhas::secBadParam(fn, 2, ZNHAS_E_INTERNAL);
    }
    std::string file;
    int rc = sec__get_keyfile_name(selector, &file);
    if (rc != 0) {
        return rc;
    }
    zn::paths::ensureParentDir(file);
    int fd = -1;
    rc = sec__open_locked_file(fn, file.c_str(), O_RDWR | O_CREAT, &fd,
                               selector == SEC_PRIVATE_KEYFILE ? 0600 : 0644);
    if (rc != 0) {
        return rc;
    }
    // Head in host order: magic and type from the token, then the length.
    SecureBytes data(kSecKeyFileHead + keylen);
    const uint32_t head[3] = {znhas::getBe32(static_cast<const uint8_t*>(token->value)), type,
                              static_cast<uint32_t>(keylen)};
    std::memcpy(data.data(), head, sizeof head);
    std::memcpy(data.data() + kSecKeyFileHead, key, keylen);
    rc = sec__write_to_file(fn, file.c_str(), fd, 0, data.data(), data.size());
    if (rc == 0 && ftruncate(fd, static_cast<off_t>(data.size())) != 0) {
        rc = znhas::secInternal(fn, "ftruncate", errno);
    }
    if (rc == 0) {
        rc = sec__sync_file(fn, file.c_str(), fd);
    }
    sec__close_locked_file(fn, file.c_str(), fd);
    return rc;
}

namespace {

// The key generator takes a byte source that cannot report failure: this one
// notes it, so a key made while the system's source failed is thrown away.
thread_local bool t_randomFailed = false;

int checkedRandomByte() {
    int b = sec__randnum();
    if (b < 0) {
        t_randomFailed = true;
        return 0;
    }
    return b;
}

}  // namespace

int sec__create_rsa_private_key(int bits, unsigned char* privkey) {
    static const char fn[] = "sec__create_rsa_private_key";
    t_randomFailed = false;
    int ok = Vok_rsaKeyGen(bits, kPrimeRounds, Vok_RSA_PUB_EXP_3, privkey, checkedRandomByte);
    if (t_randomFailed) {
        int err = errno;
        std::memset(privkey, 0, Vok_rsaPrivateKeySize(bits));
        return znhas::secInternal(fn, "getrandom", err);
    }
    if (ok == 0) {
        return znhas::secInternal(fn, "Vok_rsaKeyGen", Vok_errno);
    }
    return 0;
}

int sec__create_rsa_public_key(const unsigned char* privkey, unsigned char* pubkey) {
    if (Vok_rsaMakePublicKey(privkey, Vok_RSA_PUB_EXP_3, pubkey) == 0) {
        return znhas::secInternal("sec__create_rsa_public_key", "Vok_rsaMakePublicKey", Vok_errno);
    }
    return 0;
}

int sec_generate_rsa_localhost_token(int keytype, sec_buffer_t* pvttoken, sec_buffer_t* pubtoken) {
    static const char fn[] = "sec_generate_rsa_localhost_token";
    const int bits = bitsOfType(keytype);
    if (bits == 0) {
        return znhas::secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    if (pvttoken == nullptr || *pvttoken != nullptr) {
        return znhas::secBadParam(fn, 2, ZNHAS_E_BADPARAM);
    }
    if (pubtoken == nullptr || *pubtoken != nullptr) {
        return znhas::secBadParam(fn, 3, ZNHAS_E_BADPARAM);
    }
    SecureBytes priv(Vok_rsaPrivateKeySize(bits));
    SecureBytes pub(Vok_rsaPublicKeySize(bits));
    int rc = sec__create_rsa_private_key(bits, priv.data());
    if (rc == 0) {
        rc = sec__create_rsa_public_key(priv.data(), pub.data());
    }
    if (rc == 0) {
        rc = znhas::makeToken(fn, static_cast<uint32_t>(keytype), priv.data(), priv.size(),
                              pvttoken);
    }
    if (rc == 0) {
        rc = znhas::makeToken(fn, static_cast<uint32_t>(keytype), pub.data(), pub.size(), pubtoken);
        if (rc != 0) {
            sec_release_host_token(pvttoken);
        }
    }
    return rc;
}

int sec__create_localhost_hostids(int keytype) {
    sec_buffer_t pvt = nullptr;
    sec_buffer_t pub = nullptr;
    int rc = sec_generate_rsa_localhost_token(keytype, &pvt, &pub);
    if (rc == 0) {
        rc = sec__record_hostid_token(SEC_PRIVATE_KEYFILE, pvt);
    }
    if (rc == 0) {
        rc = sec__record_hostid_token(SEC_PUBLIC_KEYFILE, pub);
    }
    sec_release_host_token(&pvt);
    sec_release_host_token(&pub);
    return rc;
}

int sec_print_localhost_token(char** keytext, char** typetext) {
    static const char fn[] = "sec_print_localhost_token";
    if (keytext == nullptr) {
        return znhas::secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    if (typetext == nullptr) {
        return znhas::secBadParam(fn, 2, ZNHAS_E_BADPARAM);
    }
    sec_buffer_t token = nullptr;
    int rc = sec_get_localhost_token(SEC_PUBLIC_KEYFILE, &token);
    if (rc == 0) {
        rc = sec_print_host_token(token, keytext, typetext);
    }
    sec_release_host_token(&token);
    return rc;
}
