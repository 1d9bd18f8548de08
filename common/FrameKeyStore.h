// The shared secret keys of the hardware frames, by the frame's machine
// type-model-serial (MTMS): the key that signs a node's management request
// and the server's reply. One root-only file under the state root
// (zn::paths::kFrameKeyStore), one "MTMS hex-secret" line per frame.
//
// Reading: lookup() checks the file's identity (inode, size, times) on every
// call and reads it again only when it changed, so the daemon follows the
// administrator's edits without a restart. A file that is not a regular file,
// not owned by this user or open to group or others is not used (no key is
// found) until it is put right. Writing (add, remove) takes an exclusive
// lock beside the file and replaces it atomically (temporary file, fsync,
// rename, fsync of the folder). Secrets are never logged; every buffer that
// held one is overwritten with zeros before it goes.
// Thread-safe: an internal mutex guards the cached keys.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "common/SecretBytes.h"

namespace WEX_COMMON {

class FrameKeyStore {
public:
    // Bytes of a secret made by add().
    static constexpr size_t kSecretBytes = 32;
    // Longest MTMS taken.
    static constexpr size_t kMaxMtms = 64;

    // The store at `path` (empty: the system's store under the state root).
    explicit FrameKeyStore(std::string path = {});

    // True when a key for the MTMS is in the store; *key receives a copy.
    bool lookup(const std::string& mtms, SecretBytes* key);
    // Reads the store now whatever its identity (lookup does it when needed).
    // How many times the file was read so far, for tests of the reload rule.
    uint64_t loads() const;

    // An MTMS is 1 to kMaxMtms printable characters without blanks.
    static bool validMtms(const std::string& mtms);

    // Administration (the caller must be the file's owner, normally root).
    // 0 done; otherwise an errno value with the reason in *why.
    // add: makes a new random secret for a frame not yet in the store and
    // hands it back as lower-case hex in *secretHex (EEXIST when present).
    int add(const std::string& mtms, std::string* secretHex, std::string* why);
    // remove: ENOENT when the frame is not in the store.
    int remove(const std::string& mtms, std::string* why);
    // The frames' names in order (the secrets are not read out).
    int names(std::vector<std::string>* out, std::string* why);

    const std::string& path() const { return path_; }

private:
    using KeyMap = std::map<std::string, SecretBytes>;
    // Reads and checks the file into *keys: 0, ENOENT when absent, or an errno.
    int readFile(KeyMap* keys, std::string* why) const;
    int writeFile(const KeyMap& keys, std::string* why) const;
    void refreshLocked();

    std::string path_;
    mutable std::mutex mu_;  // guards the members below
    KeyMap keys_;
    bool haveIdentity_ = false;
    uint64_t inode_ = 0;
    int64_t size_ = -1;
    int64_t mtimeNs_ = 0;
    int64_t ctimeNs_ = 0;
    uint64_t loads_ = 0;
};

}  // namespace WEX_COMMON
