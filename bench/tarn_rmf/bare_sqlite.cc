// The yardstick: what SQLite alone does with the same rows.
#include <sqlite3.h>

#include <cstring>
#include <random>
#include <string>

#include "bench/tarn_rmf/bench_util.h"
#include "tests/tarn_rmf/node_table_defs.h"

namespace regbench {
namespace {

void must(int rc, sqlite3* db, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
        std::fprintf(stderr, "bare sqlite: %s: %s\n", what, sqlite3_errmsg(db));
        std::exit(1);
    }
}

}  // namespace

BareFigures runBareSqlite(const std::string& dir, unsigned rows, unsigned lookups) {
    BareFigures out;
    std::string file = dir + "/bare.db";
    sqlite3* db = nullptr;
    must(sqlite3_open(file.c_str(), &db), db, "open");
    must(sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", nullptr, nullptr,
                      nullptr),
         db, "pragmas");
    std::string create = "CREATE TABLE nodes(";
    std::string insert = "INSERT INTO nodes VALUES(";
    for (unsigned c = 0; c < regtest::kNodeColumnCount; ++c) {
        const auto& d = regtest::kNodeColumns[c];
        const char* type =
            d.dataType == ZN_CHAR_PTR ? "TEXT"
            : d.dataType == ZN_UINT32 || d.dataType == ZN_INT32 || d.dataType == ZN_UINT64
                ? "INTEGER"
                : "BLOB";
        create += std::string(c ? ", " : "") + d.name + " " + type;
        insert += c ? ", ?" : "?";
    }
    create += ")";
    insert += ")";
    must(sqlite3_exec(db, create.c_str(), nullptr, nullptr, nullptr), db, "create");
    must(sqlite3_exec(db, "CREATE INDEX nodes_host ON nodes(Hostname)", nullptr, nullptr, nullptr),
         db, "index");
    sqlite3_stmt* ins = nullptr;
    must(sqlite3_prepare_v2(db, insert.c_str(), -1, &ins, nullptr), db, "prepare");
    sqlite3_stmt* begin = nullptr;
    sqlite3_stmt* commit = nullptr;
    sqlite3_prepare_v2(db, "BEGIN", -1, &begin, nullptr);
    sqlite3_prepare_v2(db, "COMMIT", -1, &commit, nullptr);
    Timer t0;
    for (unsigned i = 0; i < rows; ++i) {
        regtest::NodeRow row(i, 0x1111);
        const tarn_rmf::RMFieldValue* f = row.fields();
        must(sqlite3_step(begin), db, "begin");
        sqlite3_reset(begin);
        for (unsigned k = 0; k < row.count(); ++k) {
            int c = -1;
            for (unsigned j = 0; j < regtest::kNodeColumnCount; ++j) {
                if (std::strcmp(regtest::kNodeColumns[j].name, f[k].name) == 0) {
                    c = static_cast<int>(j) + 1;
                }
            }
            switch (f[k].type) {
                case ZN_CHAR_PTR:
                    sqlite3_bind_text(ins, c, f[k].value.ptr_char, -1, SQLITE_STATIC);
                    break;
                case ZN_UINT32:
                    sqlite3_bind_int64(ins, c, f[k].value.val_uint32);
                    break;
                case ZN_INT32:
                    sqlite3_bind_int64(ins, c, f[k].value.val_int32);
                    break;
                case ZN_UINT64:
                    sqlite3_bind_int64(ins, c, static_cast<sqlite3_int64>(f[k].value.val_uint64));
                    break;
                case ZN_RSRC_HANDLE_PTR:
                    sqlite3_bind_blob(ins, c, f[k].value.ptr_rsrc_handle, 20, SQLITE_STATIC);
                    break;
                default: {  // arrays: the elements' bytes
                    const zn_array* a = f[k].value.ptr_array;
                    sqlite3_bind_blob(ins, c, a->elements, static_cast<int>(8 * a->array_cnt),
                                      SQLITE_STATIC);
                    break;
                }
            }
        }
        must(sqlite3_step(ins), db, "insert");
        sqlite3_reset(ins);
        must(sqlite3_step(commit), db, "commit");
        sqlite3_reset(commit);
    }
    out.insertsPerSecond = {rows / t0.wall(), rows / t0.cpu()};

    sqlite3_stmt* look = nullptr;
    sqlite3_prepare_v2(db, "SELECT * FROM nodes WHERE Hostname = ?1", -1, &look, nullptr);
    std::mt19937 rng(7);
    t0 = Timer();
    for (unsigned k = 0; k < lookups; ++k) {
        std::string h = regtest::nodeHostname(rng() % rows);
        sqlite3_bind_text(look, 1, h.c_str(), -1, SQLITE_TRANSIENT);
        int found = 0;
        while (sqlite3_step(look) == SQLITE_ROW) {
            ++found;
        }
        sqlite3_reset(look);
        if (found != 1) {
            std::fprintf(stderr, "bare sqlite: lookup found %d rows\n", found);
        }
    }
    out.lookupMicros = {t0.wall() * 1e6 / lookups, t0.cpu() * 1e6 / lookups};

    sqlite3_stmt* scan = nullptr;
    sqlite3_prepare_v2(db,
                       "SELECT COUNT(*) FROM nodes WHERE Hostname GLOB 'node*7.rack1*' AND "
                       "ConsoleSerialSpeed > 9600",
                       -1, &scan, nullptr);
    constexpr int kScans = 5;
    t0 = Timer();
    for (int k = 0; k < kScans; ++k) {
        sqlite3_step(scan);
        sqlite3_reset(scan);
    }
    out.scanMillis = {t0.wall() * 1e3 / kScans, t0.cpu() * 1e3 / kScans};

    sqlite3_stmt* all = nullptr;
    sqlite3_prepare_v2(db, "SELECT * FROM nodes", -1, &all, nullptr);
    t0 = Timer();
    size_t bytes = 0;
    while (sqlite3_step(all) == SQLITE_ROW) {
        for (int c = 0; c < static_cast<int>(regtest::kNodeColumnCount); ++c) {
            bytes += static_cast<size_t>(sqlite3_column_bytes(all, c));
        }
    }
    out.loadMillis = {t0.wall() * 1e3, t0.cpu() * 1e3};
    for (sqlite3_stmt* s : {ins, begin, commit, look, scan, all}) {
        sqlite3_finalize(s);
    }
    sqlite3_close(db);
    return out;
}

}  // namespace regbench
