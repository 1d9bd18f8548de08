// The durable store of the distributed-information tables: one SQLite file
// under the state root. A transaction is applied whole or not at all; once
// apply() returns it survives a crash of the process, and it is on disk
// against a power cut after the next flush() (the service flushes every
// second). The tables are derived data, republished by their managers and
// replicated again, so a burst of changes costs one disk sync, not one each;
// the heartbeat tuning and a stamp set alone are flushed at once. Readers
// get copies. Thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "znpex/di/DiTypes.h"

struct sqlite3;

namespace znpex::di {

class DiStore {
public:
    // Opens (creating) the store at `path`; throws std::runtime_error when the
    // file cannot be opened or is not a store.
    explicit DiStore(const std::string& path);
    ~DiStore();
    DiStore(const DiStore&) = delete;
    DiStore& operator=(const DiStore&) = delete;

    // Applies a transaction, with the replication stamp it brings when
    // `stamp` is not 0 (both or neither are kept); returns DI_OK, DI_EINVAL
    // (with `why`) or DI_ESTORE.
    int apply(const Transaction& t, std::string* why = nullptr, uint64_t stamp = 0);
    // Puts what was applied since the last flush on disk; false when that
    // failed (it is tried again on the next call).
    bool flush();
    // Whether changes wait for a flush.
    bool unflushed() const;
    std::vector<NodeEntry> nodes() const;
    std::vector<GroupEntry> groups() const;
    // Both tables as one transaction that rebuilds them from empty (what a
    // host that missed changes is sent to catch up).
    Transaction snapshot() const;
    // Increases with every applied transaction (watchers compare it).
    uint64_t version() const;

    // The heartbeat tuning last set (zeros when never set); kept with the
    // tables so it survives a restart. setHeartbeat returns DI_OK or DI_ESTORE.
    int setHeartbeat(const Heartbeat& h, std::string* why = nullptr);
    Heartbeat heartbeat() const;

    // The replication stamp of the tables (0 when never set), kept with them
    // so that a restarted host does not take an older copy for a newer one.
    int setStamp(uint64_t stamp, std::string* why = nullptr);
    uint64_t stamp() const;

private:
    void exec(const char* sql) const;
    // Runs `work` in one write transaction (mu_ held): DI_OK, or DI_ESTORE
    // with `why` after rolling back.
    int transact(std::string* why, const std::function<void()>& work);
    // transact() followed by a flush.
    int durably(std::string* why, const std::function<void()>& work);
    bool flushLocked();

    mutable std::mutex mu_;  // guards db_, version_ and unflushed_
    sqlite3* db_ = nullptr;
    uint64_t version_ = 0;
    bool unflushed_ = false;
};

}  // namespace znpex::di
