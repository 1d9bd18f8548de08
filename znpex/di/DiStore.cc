#include "znpex/di/DiStore.h"

#include <sqlite3.h>

#include <stdexcept>

#include "platform/paths.h"

namespace znpex::di {
namespace {

std::string join(const std::vector<std::string>& items) {
    std::string out;
    for (size_t i = 0; i < items.size(); ++i) {
        if (i > 0) {
            out += '\n';
        }
        out += items[i];
    }
    return out;
}

std::vector<std::string> split(const char* text) {
    std::vector<std::string> out;
    if (text == nullptr || *text == '\0') {
        return out;
    }
    std::string s(text);
    size_t pos = 0;
    for (;;) {
        size_t nl = s.find('\n', pos);
        out.push_back(s.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos));
        if (nl == std::string::npos) {
            return out;
        }
        pos = nl + 1;
    }
}

// A prepared statement released on every path.
class Stmt {
public:
    Stmt(sqlite3* db, const char* sql) {
        if (sqlite3_prepare_v2(db, sql, -1, &s_, nullptr) != SQLITE_OK) {
            throw std::runtime_error(sqlite3_errmsg(db));
        }
    }
    ~Stmt() { sqlite3_finalize(s_); }
    Stmt(const Stmt&) = delete;
    Stmt& operator=(const Stmt&) = delete;
    sqlite3_stmt* get() { return s_; }
    void text(int i, const std::string& v) {
        sqlite3_bind_text(s_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    }
    void run(sqlite3* db) {
        if (sqlite3_step(s_) != SQLITE_DONE) {
            throw std::runtime_error(sqlite3_errmsg(db));
        }
        sqlite3_reset(s_);
        sqlite3_clear_bindings(s_);
    }

private:
    sqlite3_stmt* s_ = nullptr;
};

}  // namespace

DiStore::DiStore(const std::string& path) {
    if (int rc = zn::paths::ensureParentDir(path); rc != 0) {
        throw std::runtime_error("cannot create the directory of " + path);
    }
    if (sqlite3_open_v2(path.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        std::string why = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        db_ = nullptr;
        throw std::runtime_error("cannot open " + path + ": " + why);
    }
    try {
        // A commit survives a crash of the process; flush() syncs the log.
        exec("PRAGMA journal_mode=WAL");
        exec("PRAGMA synchronous=NORMAL");
        exec(
            "CREATE TABLE IF NOT EXISTS nodes (hostname TEXT PRIMARY KEY, node_id INTEGER,"
            " names TEXT, addresses TEXT)");
        exec("CREATE TABLE IF NOT EXISTS groups (name TEXT PRIMARY KEY, members TEXT)");
        exec("CREATE TABLE IF NOT EXISTS settings (key TEXT PRIMARY KEY, value INTEGER)");
        // Watchers compare versions: the count goes on across restarts.
        Stmt q(db_, "SELECT value FROM settings WHERE key='version'");
        if (sqlite3_step(q.get()) == SQLITE_ROW) {
            version_ = static_cast<uint64_t>(sqlite3_column_int64(q.get(), 0));
        }
    } catch (const std::exception& e) {
        sqlite3_close(db_);
        db_ = nullptr;
        throw std::runtime_error(path + " is not a usable table store: " + e.what());
    }
}

DiStore::~DiStore() {
    sqlite3_close(db_);
}

void DiStore::exec(const char* sql) const {
    char* err = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) != SQLITE_OK) {
        std::string why = err != nullptr ? err : "unknown error";
        sqlite3_free(err);
        throw std::runtime_error(why);
    }
}

int DiStore::transact(std::string* why, const std::function<void()>& work) {
    try {
        exec("BEGIN IMMEDIATE");
        try {
            work();
            exec("COMMIT");
        } catch (...) {
            exec("ROLLBACK");
            throw;
        }
    } catch (const std::exception& e) {
        if (why != nullptr) {
            *why = e.what();
        }
        return DI_ESTORE;
    }
    return DI_OK;
}

int DiStore::durably(std::string* why, const std::function<void()>& work) {
    int rc = transact(why, work);
    if (rc == DI_OK) {
        unflushed_ = true;
        flushLocked();  // failing, the next flush() tries again
    }
    return rc;
}

int DiStore::apply(const Transaction& t, std::string* why, uint64_t stamp) {
    if (std::string bad = validate(t); !bad.empty()) {
        if (why != nullptr) {
            *why = bad;
        }
        return DI_EINVAL;
    }
    std::lock_guard<std::mutex> g(mu_);
    int rc = transact(why, [&] {
        if (t.clearNodes) {
            exec("DELETE FROM nodes");
        }
        if (t.clearGroups) {
            exec("DELETE FROM groups");
        }
        bool remove = t.op == DI_TABLE_REMOVE;
        Stmt node(db_, remove ? "DELETE FROM nodes WHERE hostname=?1"
                              : "INSERT OR REPLACE INTO nodes VALUES (?1, ?2, ?3, ?4)");
        for (const auto& n : t.nodes) {
            node.text(1, n.hostname);
            if (!remove) {
                sqlite3_bind_int64(node.get(), 2, static_cast<sqlite3_int64>(n.nodeId));
                node.text(3, join(n.names));
                node.text(4, join(n.addresses));
            }
            node.run(db_);
        }
        Stmt group(db_, remove ? "DELETE FROM groups WHERE name=?1"
                               : "INSERT OR REPLACE INTO groups VALUES (?1, ?2)");
        for (const auto& gr : t.groups) {
            group.text(1, gr.name);
            if (!remove) {
                group.text(2, join(gr.members));
            }
            group.run(db_);
        }
        Stmt ver(db_, "INSERT OR REPLACE INTO settings VALUES ('version', ?1)");
        sqlite3_bind_int64(ver.get(), 1, static_cast<sqlite3_int64>(version_ + 1));
        ver.run(db_);
        if (stamp != 0) {
            Stmt put(db_, "INSERT OR REPLACE INTO settings VALUES ('stamp', ?1)");
            sqlite3_bind_int64(put.get(), 1, static_cast<sqlite3_int64>(stamp));
            put.run(db_);
        }
    });
    if (rc != DI_OK) {
        return rc;
    }
    ++version_;
    unflushed_ = true;
    return DI_OK;
}

bool DiStore::flush() {
    std::lock_guard<std::mutex> g(mu_);
    return flushLocked();
}

bool DiStore::flushLocked() {
    if (!unflushed_) {
        return true;
    }
    // A checkpoint syncs the log before it copies it into the database; this
    // connection is the file's only one, so it runs to the end.
    int logFrames = 0;
    int copied = 0;
    if (sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, &logFrames, &copied) !=
            SQLITE_OK ||
        copied < logFrames) {
        return false;
    }
    unflushed_ = false;
    return true;
}

bool DiStore::unflushed() const {
    std::lock_guard<std::mutex> g(mu_);
    return unflushed_;
}

std::vector<NodeEntry> DiStore::nodes() const {
    std::lock_guard<std::mutex> g(mu_);
    std::vector<NodeEntry> out;
    Stmt q(db_, "SELECT hostname, node_id, names, addresses FROM nodes ORDER BY hostname");
    while (sqlite3_step(q.get()) == SQLITE_ROW) {
        NodeEntry n;
        n.hostname = reinterpret_cast<const char*>(sqlite3_column_text(q.get(), 0));
        n.nodeId = static_cast<uint64_t>(sqlite3_column_int64(q.get(), 1));
        n.names = split(reinterpret_cast<const char*>(sqlite3_column_text(q.get(), 2)));
        n.addresses = split(reinterpret_cast<const char*>(sqlite3_column_text(q.get(), 3)));
        out.push_back(std::move(n));
    }
    return out;
}

std::vector<GroupEntry> DiStore::groups() const {
    std::lock_guard<std::mutex> g(mu_);
    std::vector<GroupEntry> out;
    Stmt q(db_, "SELECT name, members FROM groups ORDER BY name");
    while (sqlite3_step(q.get()) == SQLITE_ROW) {
        GroupEntry e;
        e.name = reinterpret_cast<const char*>(sqlite3_column_text(q.get(), 0));
        e.members = split(reinterpret_cast<const char*>(sqlite3_column_text(q.get(), 1)));
        out.push_back(std::move(e));
    }
    return out;
}

Transaction DiStore::snapshot() const {
    Transaction t;
    t.op = DI_TABLE_ADD;
    t.clearNodes = t.clearGroups = true;
    t.nodes = nodes();
    t.groups = groups();
    return t;
}

int DiStore::setHeartbeat(const Heartbeat& h, std::string* why) {
    std::lock_guard<std::mutex> g(mu_);
    return durably(why, [&] {
        Stmt put(db_, "INSERT OR REPLACE INTO settings VALUES (?1, ?2)");
        for (auto [key, value] : {std::pair<const char*, uint64_t>{"frequency", h.frequency},
                                  {"sensitivity", h.sensitivity},
                                  {"hb_server_node", h.serverNodeId}}) {
            put.text(1, key);
            sqlite3_bind_int64(put.get(), 2, static_cast<sqlite3_int64>(value));
            put.run(db_);
        }
        for (auto [key, value] : {std::pair<const char*, std::string>{"hb_rm", h.rm},
                                  {"hb_server", h.server},
                                  {"hb_server_addresses", join(h.serverAddresses)}}) {
            put.text(1, key);
            put.text(2, value);
            put.run(db_);
        }
    });
}

int DiStore::setStamp(uint64_t stamp, std::string* why) {
    std::lock_guard<std::mutex> g(mu_);
    return durably(why, [&] {
        Stmt put(db_, "INSERT OR REPLACE INTO settings VALUES ('stamp', ?1)");
        sqlite3_bind_int64(put.get(), 1, static_cast<sqlite3_int64>(stamp));
        put.run(db_);
    });
}

uint64_t DiStore::stamp() const {
    std::lock_guard<std::mutex> g(mu_);
    Stmt q(db_, "SELECT value FROM settings WHERE key='stamp'");
    if (sqlite3_step(q.get()) != SQLITE_ROW) {
        return 0;
    }
    return static_cast<uint64_t>(sqlite3_column_int64(q.get(), 0));
}

Heartbeat DiStore::heartbeat() const {
    std::lock_guard<std::mutex> g(mu_);
    Heartbeat h;
    Stmt q(db_,
           "SELECT key, value FROM settings WHERE key IN ('frequency', 'sensitivity', "
           "'hb_server_node', 'hb_rm', 'hb_server', 'hb_server_addresses')");
    while (sqlite3_step(q.get()) == SQLITE_ROW) {
        std::string key = reinterpret_cast<const char*>(sqlite3_column_text(q.get(), 0));
        auto number = static_cast<uint64_t>(sqlite3_column_int64(q.get(), 1));
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(q.get(), 1));
        if (key == "frequency") {
            h.frequency = static_cast<unsigned int>(number);
        } else if (key == "sensitivity") {
            h.sensitivity = static_cast<unsigned int>(number);
        } else if (key == "hb_server_node") {
            h.serverNodeId = number;
        } else if (key == "hb_rm") {
            h.rm = text != nullptr ? text : "";
        } else if (key == "hb_server") {
            h.server = text != nullptr ? text : "";
        } else {
            h.serverAddresses = split(text);
        }
    }
    return h;
}

uint64_t DiStore::version() const {
    std::lock_guard<std::mutex> g(mu_);
    return version_;
}

}  // namespace znpex::di
