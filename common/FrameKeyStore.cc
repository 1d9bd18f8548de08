#include "common/FrameKeyStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>

#include "platform/paths.h"

namespace WEX_COMMON {
namespace {

// A store larger than this is not read: some thousand frames fit easily.
constexpr off_t kMaxStoreBytes = 1 << 20;

std::string errnoText(const std::string& what, int e) {
    return what + ": " + std::strerror(e);
}

// Holds the exclusive lock of the store's writers while it lives.
class WriterLock {
public:
    explicit WriterLock(const std::string& storePath) {
        std::string lock = storePath + ".lock";
        if (zn::paths::ensureParentDir(lock) != 0) {
            return;
        }
        fd_ = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ >= 0 && ::flock(fd_, LOCK_EX) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~WriterLock() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    bool held() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

}  // namespace

FrameKeyStore::FrameKeyStore(std::string path)
    : path_(path.empty() ? zn::paths::resolve(zn::paths::kFrameKeyStore) : std::move(path)) {}

bool FrameKeyStore::validMtms(const std::string& mtms) {
    if (mtms.empty() || mtms.size() > kMaxMtms) {
        return false;
    }
    for (unsigned char c : mtms) {
        if (!std::isgraph(c)) {
            return false;
        }
    }
    return true;
}

int FrameKeyStore::readFile(KeyMap* keys, std::string* why) const {
    int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        int e = errno;
        if (why != nullptr)
            *why = errnoText(path_, e);
        return e;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        if (why != nullptr)
            *why = path_ + ": not a regular file";
        return EINVAL;
    }
    if (st.st_uid != ::geteuid() || (st.st_mode & 077) != 0) {
        ::close(fd);
        if (why != nullptr)
            *why = path_ + ": must be owned by this user and closed to others";
        return EPERM;
    }
    if (st.st_size > kMaxStoreBytes) {
        ::close(fd);
        if (why != nullptr)
            *why = path_ + ": too large";
        return EFBIG;
    }
    std::string text(static_cast<size_t>(st.st_size), '\0');
    size_t got = 0;
    while (got < text.size()) {
        ssize_t n = ::read(fd, text.data() + got, text.size() - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    ::close(fd);
    text.resize(got);
    int rc = 0;
    size_t at = 0;
    int lineNo = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        ++lineNo;
        std::string_view line(text.data() + at, end - at);
        at = end + 1;
        if (line.empty() || line[0] == '#')
            continue;
        size_t sp = line.find(' ');
        SecretBytes key;
        std::string mtms(line.substr(0, sp == std::string_view::npos ? line.size() : sp));
        if (sp == std::string_view::npos || !validMtms(mtms) ||
            !secretFromHex(line.data() + sp + 1, line.size() - sp - 1, &key)) {
            // Never the line itself: it may hold a secret.
            if (why != nullptr)
                *why = path_ + ": line " + std::to_string(lineNo) + " is not valid";
            rc = EINVAL;
            continue;
        }
        (*keys)[mtms] = std::move(key);
    }
    wipeString(text);
    return rc;
}

int FrameKeyStore::writeFile(const KeyMap& keys, std::string* why) const {
    if (zn::paths::ensureParentDir(path_) != 0) {
        if (why != nullptr)
            *why = errnoText(path_, errno);
        return errno != 0 ? errno : EIO;
    }
    std::string text;
    for (const auto& [mtms, key] : keys) {
        text += mtms;
        text += ' ';
        static const char hex[] = "0123456789abcdef";
        for (uint8_t b : key.bytes()) {
            text += hex[b >> 4];
            text += hex[b & 15];
        }
        text += '\n';
    }
    std::string tmp = path_ + ".tmp";
    ::unlink(tmp.c_str());
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        int e = errno;
        wipeString(text);
        if (why != nullptr)
            *why = errnoText(tmp, e);
        return e;
    }
    size_t put = 0;
    int e = 0;
    while (put < text.size()) {
        ssize_t n = ::write(fd, text.data() + put, text.size() - put);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            e = errno;
            break;
        }
        put += static_cast<size_t>(n);
    }
    wipeString(text);
    if (e == 0 && ::fsync(fd) != 0)
        e = errno;
    if (::close(fd) != 0 && e == 0)
        e = errno;
    if (e == 0 && ::rename(tmp.c_str(), path_.c_str()) != 0)
        e = errno;
    if (e != 0) {
        ::unlink(tmp.c_str());
        if (why != nullptr)
            *why = errnoText(path_, e);
        return e;
    }
    std::string dir = path_.substr(0, path_.find_last_of('/') + 1);
    int dfd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return 0;
}

void FrameKeyStore::refreshLocked() {
    struct stat st {};
    if (::stat(path_.c_str(), &st) != 0) {
        keys_.clear();
        haveIdentity_ = false;
        return;
    }
    // The change time too: a chmod or chown alone changes whether it is trusted.
    int64_t mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    int64_t ctimeNs = static_cast<int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
    if (haveIdentity_ && st.st_ino == inode_ && st.st_size == size_ && mtimeNs == mtimeNs_ &&
        ctimeNs == ctimeNs_) {
        return;
    }
    KeyMap fresh;
    int rc = readFile(&fresh, nullptr);
    ++loads_;
    // A store that cannot be trusted (owner, mode) gives no key at all; one
    // with a bad line keeps its good lines.
    if (rc != 0 && rc != EINVAL) {
        fresh.clear();
    }
    keys_ = std::move(fresh);
    haveIdentity_ = true;
    inode_ = st.st_ino;
    size_ = st.st_size;
    mtimeNs_ = mtimeNs;
    ctimeNs_ = ctimeNs;
}

bool FrameKeyStore::lookup(const std::string& mtms, SecretBytes* key) {
    std::lock_guard<std::mutex> g(mu_);
    refreshLocked();
    auto it = keys_.find(mtms);
    if (it == keys_.end() || it->second.empty()) {
        return false;
    }
    if (key != nullptr) {
        *key = SecretBytes(it->second.bytes());
    }
    return true;
}

uint64_t FrameKeyStore::loads() const {
    std::lock_guard<std::mutex> g(mu_);
    return loads_;
}

int FrameKeyStore::add(const std::string& mtms, std::string* secretHex, std::string* why) {
    if (!validMtms(mtms)) {
        if (why != nullptr)
            *why = "not a valid MTMS: 1 to 64 printable characters, no blanks";
        return EINVAL;
    }
    WriterLock lock(path_);
    if (!lock.held()) {
        int e = errno;
        if (why != nullptr)
            *why = errnoText(path_ + ".lock", e);
        return e != 0 ? e : EIO;
    }
    KeyMap keys;
    int rc = readFile(&keys, why);
    if (rc != 0 && rc != ENOENT) {
        return rc;
    }
    if (keys.count(mtms) != 0) {
        if (why != nullptr)
            *why = "frame " + mtms + " already has a key";
        return EEXIST;
    }
    std::vector<uint8_t> secret(kSecretBytes);
    size_t got = 0;
    while (got < secret.size()) {
        ssize_t n = ::getrandom(secret.data() + got, secret.size() - got, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (why != nullptr)
                *why = errnoText("getrandom", errno);
            SecretBytes drop(std::move(secret));
            return EIO;
        }
        got += static_cast<size_t>(n);
    }
    SecretBytes key(std::move(secret));
    if (secretHex != nullptr) {
        static const char hex[] = "0123456789abcdef";
        secretHex->clear();
        for (uint8_t b : key.bytes()) {
            *secretHex += hex[b >> 4];
            *secretHex += hex[b & 15];
        }
    }
    keys[mtms] = std::move(key);
    rc = writeFile(keys, why);
    if (rc != 0 && secretHex != nullptr) {
        wipeString(*secretHex);
    }
    return rc;
}

int FrameKeyStore::remove(const std::string& mtms, std::string* why) {
    WriterLock lock(path_);
    if (!lock.held()) {
        int e = errno;
        if (why != nullptr)
            *why = errnoText(path_ + ".lock", e);
        return e != 0 ? e : EIO;
    }
    KeyMap keys;
    int rc = readFile(&keys, why);
    if (rc == ENOENT || (rc == 0 && keys.count(mtms) == 0)) {
        if (why != nullptr)
            *why = "frame " + mtms + " has no key";
        return ENOENT;
    }
    if (rc != 0) {
        return rc;
    }
    keys.erase(mtms);
    return writeFile(keys, why);
}

int FrameKeyStore::names(std::vector<std::string>* out, std::string* why) {
    KeyMap keys;
    int rc = readFile(&keys, why);
    if (rc == ENOENT) {
        out->clear();
        return 0;
    }
    if (rc != 0) {
        return rc;
    }
    out->clear();
    for (const auto& [mtms, key] : keys) {
        out->push_back(mtms);
    }
    return 0;
}

}  // namespace WEX_COMMON
