#include "tarn_rmf/registry/RMRegistryDb.h"

#include <filesystem>

#include "tarn_rmf/registry/RMTableError.h"

namespace tarn_rmf {
namespace {

constexpr char kDbFile[] = "registry.db";

std::string dataTable(int64_t id) {
    return "rm_t" + std::to_string(id);
}

}  // namespace

RMRegistryDb::RMRegistryDb(const std::string& dir) : dir_(dir), file_(dir + "/" + kDbFile) {
    std::error_code ec;
    std::filesystem::create_directories(dir_, ec);
    if (ec) {
        throw RMTableError::build(RMTableErrc::kStorage, dir_.c_str(), "creating the directory",
                                  ec.message().c_str());
    }
    int rc =
        sqlite3_open_v2(file_.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        std::string msg = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
        sqlite3_close(db_);
        db_ = nullptr;
        throw RMTableError::build(RMTableErrc::kStorage, dir_.c_str(), "opening the database",
                                  msg.c_str());
    }
    try {
        sqlite3_busy_timeout(db_, 2000);
        // The registry belongs to one daemon: holding the lock keeps a second
        // instance out and spares every transaction its file-lock calls.
        exec("PRAGMA locking_mode=EXCLUSIVE", "taking the store for this process");
        sqlite3_stmt* mode = prepare("PRAGMA journal_mode=WAL", "switching to WAL mode");
        int step = sqlite3_step(mode);
        std::string got =
            step == SQLITE_ROW ? reinterpret_cast<const char*>(sqlite3_column_text(mode, 0)) : "";
        sqlite3_finalize(mode);
        if (got != "wal") {
            fail("switching to WAL mode");
        }
        exec("PRAGMA synchronous=NORMAL", "setting synchronous mode");
        // A checkpoint waits for two fsyncs; on the default threshold one
        // single-row commit in a few hundred paid for them. sync() checkpoints
        // as well, so the WAL stays short where the classes sync after changes.
        exec("PRAGMA wal_autocheckpoint=8192", "setting the checkpoint threshold");
        exec(
            "CREATE TABLE IF NOT EXISTS rm_tables(path TEXT PRIMARY KEY, id INTEGER NOT NULL "
            "UNIQUE, definition BLOB NOT NULL)",
            "creating the catalogue");
        exec("CREATE TABLE IF NOT EXISTS rm_meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL)",
             "creating the catalogue");
        begin_ = prepare("BEGIN IMMEDIATE", "preparing");
        commit_ = prepare("COMMIT", "preparing");
        rollback_ = prepare("ROLLBACK", "preparing");
    } catch (...) {
        sqlite3_finalize(begin_);
        sqlite3_finalize(commit_);
        sqlite3_finalize(rollback_);
        sqlite3_close(db_);
        throw;
    }
}

RMRegistryDb::~RMRegistryDb() {
    for (auto& [id, s] : tableStmts_) {
        sqlite3_finalize(s.put);
        sqlite3_finalize(s.del);
    }
    sqlite3_finalize(begin_);
    sqlite3_finalize(commit_);
    sqlite3_finalize(rollback_);
    sqlite3_close(db_);
}

void RMRegistryDb::fail(const char* what) {
    throw RMTableError::build(RMTableErrc::kStorage, dir_.c_str(), what, sqlite3_errmsg(db_));
}

void RMRegistryDb::exec(const char* sql, const char* what) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail(what);
    }
}

sqlite3_stmt* RMRegistryDb::prepare(const std::string& sql, const char* what) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v3(db_, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr) !=
        SQLITE_OK) {
        fail(what);
    }
    return s;
}

void RMRegistryDb::step(sqlite3_stmt* s, const char* what) {
    int rc = sqlite3_step(s);
    sqlite3_reset(s);
    sqlite3_clear_bindings(s);
    if (rc != SQLITE_DONE && rc != SQLITE_ROW) {
        fail(what);
    }
}

RMRegistryDb::Txn::Txn(RMRegistryDb& db, bool durable)
    : db_(db), lock_(db.mutex_), durable_(durable) {
    if (durable_) {
        db_.exec("PRAGMA synchronous=FULL", "setting synchronous mode");
    }
    try {
        db_.step(db_.begin_, "beginning a transaction");
    } catch (...) {
        if (durable_) {
            sqlite3_exec(db_.db_, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
        }
        throw;
    }
}

void RMRegistryDb::Txn::commit() {
    db_.step(db_.commit_, "committing");
    done_ = true;
}

RMRegistryDb::Txn::~Txn() {
    if (!done_ && sqlite3_get_autocommit(db_.db_) == 0) {
        sqlite3_step(db_.rollback_);
        sqlite3_reset(db_.rollback_);
    }
    if (durable_) {
        sqlite3_exec(db_.db_, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
    }
}

int64_t RMRegistryDb::ensureTable(const std::string& tablePath, bool& existed,
                                  std::string& definition) {
    sqlite3_stmt* q =
        prepare("SELECT id, definition FROM rm_tables WHERE path=?1", "reading the catalogue");
    sqlite3_bind_text(q, 1, tablePath.c_str(), -1, SQLITE_TRANSIENT);
    int rc = sqlite3_step(q);
    int64_t id = 0;
    existed = rc == SQLITE_ROW;
    if (existed) {
        id = sqlite3_column_int64(q, 0);
        const void* blob = sqlite3_column_blob(q, 1);
        definition.assign(static_cast<const char*>(blob),
                          static_cast<size_t>(sqlite3_column_bytes(q, 1)));
    }
    sqlite3_finalize(q);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        fail("reading the catalogue");
    }
    if (existed) {
        return id;
    }
    definition.clear();
    sqlite3_stmt* ins = prepare(
        "INSERT INTO rm_tables(path, id, definition) "
        "VALUES(?1, (SELECT IFNULL(MAX(id), 0) + 1 FROM rm_tables), x'')",
        "adding to the catalogue");
    sqlite3_bind_text(ins, 1, tablePath.c_str(), -1, SQLITE_TRANSIENT);
    rc = sqlite3_step(ins);
    sqlite3_finalize(ins);
    if (rc != SQLITE_DONE) {
        fail("adding to the catalogue");
    }
    sqlite3_stmt* idq = prepare("SELECT id FROM rm_tables WHERE path=?1", "reading the catalogue");
    sqlite3_bind_text(idq, 1, tablePath.c_str(), -1, SQLITE_TRANSIENT);
    rc = sqlite3_step(idq);
    id = rc == SQLITE_ROW ? sqlite3_column_int64(idq, 0) : 0;
    sqlite3_finalize(idq);
    if (id == 0) {
        fail("reading the catalogue");
    }
    std::string create = "CREATE TABLE IF NOT EXISTS " + dataTable(id) +
                         "(id INTEGER PRIMARY KEY, row BLOB NOT NULL)";
    exec(create.c_str(), "creating a table");
    return id;
}

void RMRegistryDb::saveDefinition(int64_t tableId, std::string_view definition) {
    sqlite3_stmt* s =
        prepare("UPDATE rm_tables SET definition=?1 WHERE id=?2", "saving a table definition");
    sqlite3_bind_blob(s, 1, definition.data(), static_cast<int>(definition.size()),
                      SQLITE_TRANSIENT);
    sqlite3_bind_int64(s, 2, tableId);
    int rc = sqlite3_step(s);
    sqlite3_finalize(s);
    if (rc != SQLITE_DONE) {
        fail("saving a table definition");
    }
}

RMRegistryDb::TableStmts& RMRegistryDb::stmts(int64_t tableId) {
    TableStmts& t = tableStmts_[tableId];
    if (t.put == nullptr) {
        std::string name = dataTable(tableId);
        t.put =
            prepare("INSERT INTO " + name +
                        "(id, row) VALUES(?1, ?2) ON CONFLICT(id) DO UPDATE SET row=excluded.row",
                    "preparing a row write");
        t.del = prepare("DELETE FROM " + name + " WHERE id=?1", "preparing a row delete");
    }
    return t;
}

void RMRegistryDb::putRow(int64_t tableId, int64_t rowId, std::string_view bytes) {
    sqlite3_stmt* s = stmts(tableId).put;
    sqlite3_bind_int64(s, 1, rowId);
    sqlite3_bind_blob(s, 2, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    step(s, "writing a row");
}

void RMRegistryDb::deleteRow(int64_t tableId, int64_t rowId) {
    sqlite3_stmt* s = stmts(tableId).del;
    sqlite3_bind_int64(s, 1, rowId);
    step(s, "deleting a row");
}

void RMRegistryDb::bumpSyncCount() {
    exec(
        "INSERT INTO rm_meta(key, value) VALUES('syncs', 1) "
        "ON CONFLICT(key) DO UPDATE SET value=value+1",
        "recording a sync");
}

void RMRegistryDb::loadRows(int64_t tableId,
                            const std::function<void(int64_t, std::string_view)>& fn) {
    sqlite3_stmt* s =
        prepare("SELECT id, row FROM " + dataTable(tableId) + " ORDER BY id", "reading rows");
    int rc;
    try {
        while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
            const void* blob = sqlite3_column_blob(s, 1);
            auto n = static_cast<size_t>(sqlite3_column_bytes(s, 1));
            fn(sqlite3_column_int64(s, 0),
               std::string_view(blob != nullptr ? static_cast<const char*>(blob) : "", n));
        }
    } catch (...) {
        sqlite3_finalize(s);
        throw;
    }
    sqlite3_finalize(s);
    if (rc != SQLITE_DONE) {
        fail("reading rows");
    }
}

std::string RMRegistryDb::integrityCheck() {
    std::lock_guard<std::mutex> lock(mutex_);
    sqlite3_stmt* s = prepare("PRAGMA integrity_check", "checking integrity");
    std::string out;
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        if (!out.empty()) {
            out += "\n";
        }
        out += reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
    }
    sqlite3_finalize(s);
    if (rc != SQLITE_DONE) {
        fail("checking integrity");
    }
    return out;
}

void RMRegistryDb::checkpoint() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr) !=
        SQLITE_OK) {
        fail("checkpointing");
    }
}

}  // namespace tarn_rmf
