#include "orvrm/nodeauth/TokenOwners.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/paths.h"

namespace orvrm {
namespace {

std::string folded(const std::string& s) {
    std::string out = s;
    for (char& c : out) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return out;
}

std::string line(const std::string& name, uint64_t owner) {
    char id[32];
    std::snprintf(id, sizeof id, "%016llx", static_cast<unsigned long long>(owner));
    return name + " " + id + "\n";
}

bool writeAll(int fd, const std::string& text) {
    size_t put = 0;
    while (put < text.size()) {
        ssize_t n = ::write(fd, text.data() + put, text.size() - put);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        put += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

TokenOwners::TokenOwners(std::string path)
    : path_(path.empty() ? zn::paths::resolve(zn::paths::kThlOwnersFile) : std::move(path)) {}

void TokenOwners::load() {
    if (loaded_) {
        return;
    }
    loaded_ = true;
    std::ifstream in(path_);
    if (!in) {
        return;
    }
    size_t lines = 0;
    std::string text;
    while (std::getline(in, text)) {
        ++lines;
        std::istringstream fields(text);
        std::string name;
        std::string id;
        if (!(fields >> name >> id)) {
            continue;
        }
        errno = 0;
        char* end = nullptr;
        unsigned long long v = std::strtoull(id.c_str(), &end, 16);
        if (errno != 0 || end == nullptr || *end != '\0') {
            continue;
        }
        if (v == 0) {
            owners_.erase(folded(name));
        } else {
            owners_[folded(name)] = v;
        }
    }
    if (lines > 2 * owners_.size() + 64) {
        compact();
    }
}

bool TokenOwners::compact() {
    std::string text;
    for (const auto& [name, owner] : owners_) {
        text += line(name, owner);
    }
    std::string tmp = path_ + ".tmp";
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    bool ok = writeAll(fd, text) && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    ok = ok && ::rename(tmp.c_str(), path_.c_str()) == 0;
    if (!ok) {
        ::unlink(tmp.c_str());
    }
    return ok;
}

bool TokenOwners::append(const std::string& name, uint64_t universalId) {
    if (zn::paths::ensureParentDir(path_) != 0) {
        return false;
    }
    int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    // Not synced: a record lost in a crash leaves the name's token without
    // a known owner, and such a token is never replaced by another node's.
    bool ok = writeAll(fd, line(name, universalId));
    ok = ::close(fd) == 0 && ok;
    return ok;
}

uint64_t TokenOwners::ownerOf(const std::string& name) {
    load();
    auto it = owners_.find(folded(name));
    return it == owners_.end() ? 0 : it->second;
}

bool TokenOwners::setOwner(const std::string& name, uint64_t universalId) {
    load();
    std::string key = folded(name);
    auto it = owners_.find(key);
    if (it != owners_.end() && it->second == universalId) {
        return true;
    }
    owners_[key] = universalId;
    return append(key, universalId);
}

bool TokenOwners::forget(const std::string& name) {
    load();
    std::string key = folded(name);
    if (owners_.erase(key) == 0) {
        return true;
    }
    return append(key, 0);
}

}  // namespace orvrm
