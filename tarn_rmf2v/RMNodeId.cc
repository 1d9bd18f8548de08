#include "tarn_rmf2v/RMNodeId.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "platform/paths.h"

namespace tarn_rmf2v {
namespace {

bool parseId(const std::string& text, uint64_t& id) {
    unsigned long long v = 0;
    char extra = 0;
    if (std::sscanf(text.c_str(), "0x%16llx%c", &v, &extra) < 1 || v == 0) {
        return false;
    }
    if (extra != 0 && extra != '\n') {
        return false;
    }
    id = v;
    return true;
}

// Writes `text` to `path` so that a crash leaves the old file or the new one.
bool writeAtomically(const std::string& path, const std::string& text, std::string* why) {
    std::string tmp = path + ".tmp";
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        if (why != nullptr) {
            *why = "cannot create " + tmp + ": " + std::strerror(errno);
        }
        return false;
    }
    bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
              ::fsync(fd) == 0;
    ::close(fd);
    if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
        if (why != nullptr) {
            *why = "cannot write " + path + ": " + std::strerror(errno);
        }
        ::unlink(tmp.c_str());
        return false;
    }
    std::string dir = path.substr(0, path.find_last_of('/'));
    int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return true;
}

}  // namespace

uint64_t loadOrCreateNodeId(std::string* why) {
    std::string path = zn::paths::resolve(zn::paths::kNodeIdFile);
    {
        std::ifstream in(path);
        if (in) {
            char buf[64] = {};
            in.read(buf, sizeof buf - 1);
            uint64_t id = 0;
            if (parseId(buf, id)) {
                return id;
            }
            std::rename(path.c_str(), (path + ".bad").c_str());
        }
    }
    uint64_t id = 0;
    while (id == 0) {
        if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id)) {
            if (why != nullptr) {
                *why = std::string("no random source: ") + std::strerror(errno);
            }
            return 0;
        }
    }
    if (int rc = zn::paths::ensureParentDir(path); rc != 0) {
        if (why != nullptr) {
            *why = "cannot create the directory of " + path + ": " + std::strerror(rc);
        }
        return 0;
    }
    char text[32];
    std::snprintf(text, sizeof text, "0x%016" PRIx64 "\n", id);
    if (!writeAtomically(path, text, why)) {
        return 0;
    }
    return id;
}

std::string loadClusterName() {
    std::ifstream in(zn::paths::resolve(zn::paths::kDomainNameFile));
    std::string line;
    if (in && std::getline(in, line)) {
        while (!line.empty() && (line.back() == ' ' || line.back() == '\r' || line.back() == '\t')) {
            line.pop_back();
        }
        if (!line.empty() && line.size() < 64) {
            return line;
        }
    }
    return "IW";
}

}  // namespace tarn_rmf2v
