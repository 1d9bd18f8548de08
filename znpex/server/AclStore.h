// The service's current access rules and where they come from: the list file,
// created from the platform default when it is missing or empty. A reload
// that cannot read or parse the file keeps the rules in force and says why.
// rules() hands out an immutable snapshot; all operations are thread-safe.
#pragma once

#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "znpex/server/AclRules.h"

namespace znpex::server {

// A list file larger than this is refused rather than read.
inline constexpr size_t kAclMaxFileSize = 4u << 20;

class AclStore {
public:
    AclStore(std::string path, std::string defaultPath);

    // Reads the file again. Returns true with the new rules in force, or
    // false with the previous ones kept and `why` set.
    bool reload(std::string* why);
    // The rules in force; an empty rule set (nobody may do anything) until a
    // load has succeeded.
    std::shared_ptr<const AclRules> rules() const;

    struct Status {
        bool loaded = false;
        size_t stanzas = 0;
        size_t entries = 0;
        timespec loadedAt{};    // wall clock; zero until loaded
        std::string lastError;  // of the last failed reload, "" after a good one
    };
    Status status() const;
    const std::string& path() const { return path_; }

private:
    bool ensureFile(std::string* why) const;

    const std::string path_;
    const std::string defaultPath_;
    mutable std::mutex mu_;  // guards rules_, status_
    std::shared_ptr<const AclRules> rules_;
    Status status_;
};

// Reads at most `limit` bytes of a file into `out`. False (with `why`) when it
// cannot be read or is larger.
bool readSmallFile(const std::string& path, size_t limit, std::string* out, std::string* why);

}  // namespace znpex::server
