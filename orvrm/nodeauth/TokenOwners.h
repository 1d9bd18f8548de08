// Which node (universal id) each name of the trusted host list was stored
// for by a management request, so that a name that a node merely claims (its
// unsigned further names) never takes over a token stored for another node.
// Kept in one file under the state root (zn::paths::kThlOwnersFile): a log
// of "name universal-id" lines, each change appended (a later
// line wins; id 0 forgets the name), so an enrollment costs one short write
// however many nodes there are; the log is rewritten whole, atomically, when
// read back with more stale lines than live ones. Names compare ignoring
// letter case, as in the trusted host list. Not synchronised: the node
// authentication class calls it under its store mutex.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace orvrm {

class TokenOwners {
public:
    // The file at `path` (empty: the system's file under the state root).
    explicit TokenOwners(std::string path = {});

    // The node the name was stored for, or 0 when none is recorded.
    uint64_t ownerOf(const std::string& name);
    // Records the owner; false when the file could not be written (the
    // record is then kept in memory only).
    bool setOwner(const std::string& name, uint64_t universalId);
    // Forgets the name (its token was deleted).
    bool forget(const std::string& name);

private:
    void load();
    bool append(const std::string& name, uint64_t universalId);
    bool compact();
    std::string path_;
    bool loaded_ = false;
    std::map<std::string, uint64_t> owners_;  // lower-case name -> universal id
};

}  // namespace orvrm
