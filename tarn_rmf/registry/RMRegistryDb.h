// The durable store under a registry tree: one SQLite database in WAL mode
// holding every table of the tree, one SQL table per registry table (rows as
// packed blobs keyed by row id) and a catalogue of table definitions. The
// process holds the database's lock while it is open, so a second opener (a
// second daemon) gets a storage error after a busy timeout of 2 s.
// Commits run with synchronous=NORMAL: a committed transaction is in the WAL
// file before commit returns, so it survives the death of the process (kill
// -9), though not necessarily a power loss; a durable commit (synchronous=
// FULL) also forces the WAL to the disk. The WAL is copied into the database
// by sync() and automatically once it reaches 8192 pages.
// Thread safety: one connection, and every use goes through a Txn, which
// holds the store's mutex from begin to commit or rollback, so transactions
// of different tables never interleave.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace tarn_rmf {

class RMRegistryDb {
public:
    // Opens (creating the directory and database when needed) the store in
    // directory `dir`. Throws RMTableError kStorage.
    explicit RMRegistryDb(const std::string& dir);
    ~RMRegistryDb();
    RMRegistryDb(const RMRegistryDb&) = delete;
    RMRegistryDb& operator=(const RMRegistryDb&) = delete;

    const std::string& dir() const { return dir_; }
    const std::string& file() const { return file_; }

    // A write transaction (BEGIN IMMEDIATE); rolled back unless committed. A
    // durable one commits with synchronous=FULL (forces the WAL to disk).
    class Txn {
    public:
        explicit Txn(RMRegistryDb& db, bool durable = false);
        ~Txn();
        Txn(const Txn&) = delete;
        Txn& operator=(const Txn&) = delete;
        void commit();

    private:
        RMRegistryDb& db_;
        std::unique_lock<std::mutex> lock_;
        bool durable_;
        bool done_ = false;
    };

    // Inside a Txn. The SQL id of a table path, creating its catalogue entry
    // and SQL table when new (existed = false, definition empty).
    int64_t ensureTable(const std::string& tablePath, bool& existed, std::string& definition);
    void saveDefinition(int64_t tableId, std::string_view definition);
    void putRow(int64_t tableId, int64_t rowId, std::string_view bytes);
    void deleteRow(int64_t tableId, int64_t rowId);
    // Counts durable commits; written by each sync so that it always commits.
    void bumpSyncCount();

    // Inside a Txn: every row of a table in row id order.
    void loadRows(int64_t tableId, const std::function<void(int64_t, std::string_view)>& fn);

    // "ok", or SQLite's list of problems. Takes the store's mutex.
    std::string integrityCheck();
    // Copies the WAL into the database (PASSIVE); takes the store's mutex.
    void checkpoint();

private:
    struct TableStmts {
        sqlite3_stmt* put = nullptr;
        sqlite3_stmt* del = nullptr;
    };

    void exec(const char* sql, const char* what);
    sqlite3_stmt* prepare(const std::string& sql, const char* what);
    [[noreturn]] void fail(const char* what);
    TableStmts& stmts(int64_t tableId);
    void step(sqlite3_stmt* s, const char* what);

    std::string dir_;
    std::string file_;
    sqlite3* db_ = nullptr;
    std::mutex mutex_;
    std::map<int64_t, TableStmts> tableStmts_;
    sqlite3_stmt* begin_ = nullptr;
    sqlite3_stmt* commit_ = nullptr;
    sqlite3_stmt* rollback_ = nullptr;
};

}  // namespace tarn_rmf
