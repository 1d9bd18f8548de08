#include "znpex/server/AclStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/clock.h"
#include "platform/paths.h"

namespace znpex::server {
namespace {

std::string errnoText(const std::string& what, int err) {
    return what + ": " + std::strerror(err);
}

// Writes `data` to `path` through a temporary file and a rename, so a reader
// never sees half a file.
bool writeWhole(const std::string& path, const std::string& data, std::string* why) {
    std::string tmp = path + ".tmp";
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *why = errnoText("cannot create " + tmp, errno);
        return false;
    }
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            *why = errnoText("cannot write " + tmp, errno);
            ::close(fd);
            ::unlink(tmp.c_str());
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (::fsync(fd) != 0 || ::close(fd) != 0 || ::rename(tmp.c_str(), path.c_str()) != 0) {
        *why = errnoText("cannot put " + path + " in place", errno);
        ::unlink(tmp.c_str());
        return false;
    }
    return true;
}

}  // namespace

bool readSmallFile(const std::string& path, size_t limit, std::string* out, std::string* why) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *why = errnoText("cannot open " + path, errno);
        return false;
    }
    out->clear();
    char buf[8192];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            *why = errnoText("cannot read " + path, errno);
            ::close(fd);
            return false;
        }
        if (n == 0) {
            break;
        }
        if (out->size() + static_cast<size_t>(n) > limit) {
            *why = path + " is larger than " + std::to_string(limit) + " bytes";
            ::close(fd);
            return false;
        }
        out->append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    return true;
}

AclStore::AclStore(std::string path, std::string defaultPath)
    : path_(std::move(path)),
      defaultPath_(std::move(defaultPath)),
      rules_(std::make_shared<const AclRules>()) {}

bool AclStore::ensureFile(std::string* why) const {
    struct stat st {};
    if (::stat(path_.c_str(), &st) == 0) {
        if (st.st_size > 0) {
            return true;
        }
    } else if (errno != ENOENT) {
        *why = errnoText("cannot examine " + path_, errno);
        return false;
    }
    std::string data;
    std::string readWhy;
    if (!readSmallFile(defaultPath_, kAclMaxFileSize, &data, &readWhy)) {
        *why = path_ + " is missing or empty and the default cannot be copied (" + readWhy + ")";
        return false;
    }
    if (int err = zn::paths::ensureParentDir(path_); err != 0) {
        *why = errnoText("cannot create the folder of " + path_, err);
        return false;
    }
    return writeWhole(path_, data, why);
}

bool AclStore::reload(std::string* why) {
    std::string text;
    std::string failure;
    std::optional<AclRules> parsed;
    if (ensureFile(&failure) && readSmallFile(path_, kAclMaxFileSize, &text, &failure)) {
        AclParseError err;
        parsed = parseAclText(text, &err);
        if (!parsed) {
            failure = path_ + " " + err.text();
        }
    }
    std::lock_guard<std::mutex> g(mu_);
    if (!parsed) {
        status_.lastError = failure;
        if (why != nullptr) {
            *why = failure;
        }
        return false;
    }
    status_.loaded = true;
    status_.stanzas = parsed->stanzas.size();
    status_.entries = parsed->entryCount();
    status_.loadedAt = zn::processClock().wallNow();
    status_.lastError.clear();
    rules_ = std::make_shared<const AclRules>(std::move(*parsed));
    return true;
}

std::shared_ptr<const AclRules> AclStore::rules() const {
    std::lock_guard<std::mutex> g(mu_);
    return rules_;
}

AclStore::Status AclStore::status() const {
    std::lock_guard<std::mutex> g(mu_);
    return status_;
}

}  // namespace znpex::server
