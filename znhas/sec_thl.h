// The trusted host list: a file of variable-size records (slots), big-endian,
// each mapping a UTF-8 host name to a host's key. Slots are never moved or
// reclaimed: a replaced record is deactivated and struck out, and its slot is
// reused by a later record of the same or smaller size.
//
// Record layout (offsets in bytes): 0 slot size, 4 data length (0 = struck
// out), 8 magic 0xC5EC0001, 12 active (2 live, 1 deactivated), 16 key type,
// 20 key length, 24 name length, 28 name + NUL, then the key.
//
// Everything here works on a descriptor the caller opened and locked; no
// function opens a second descriptor on the list.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "znhas/sec_buffer.h"
#include "znhas/sec_file.h"

namespace znhas {

inline constexpr size_t kThlHead = 28;
inline constexpr uint32_t kThlMaxSlot = 4092;
inline constexpr uint32_t kThlLive = 2;
inline constexpr uint32_t kThlInactive = 1;
inline constexpr uint32_t SEC_THL_ADD = 0x1;
inline constexpr uint32_t SEC_THL_DELETE = 0x2;
inline constexpr uint32_t SEC_THL_SYNC = 0x80000000U;

// One record as read: its place in the file, its head in host order, and the
// whole slot as stored (plus four zero bytes).
struct ThlEntry {
    off_t offset = 0;
    uint32_t recsize = 0;
    uint32_t length = 0;
    uint32_t magic = 0;
    uint32_t active = 0;
    uint32_t idtype = 0;
    uint32_t idlen = 0;
    uint32_t namelen = 0;
    SecureBytes raw;

    // Only live, not struck-out records take part in lookups.
    bool candidate() const { return length != 0 && active != kThlInactive; }
    // Valid for candidates (checked when read).
    const char* name() const { return reinterpret_cast<const char*>(raw.data() + kThlHead); }
    const uint8_t* key() const { return raw.data() + kThlHead + namelen + 1; }
};

// Reads consecutive records from the start of the list through a buffer,
// never more than one slot at a time beyond the buffer.
class ThlReader {
public:
    ThlReader(int fd, const char* fn, const char* file) : fd_(fd), fn_(fn), file_(file) {}
    // 1: a record was read into *e; 0: end of the list; else the error code
    // (21 for a damaged or oversized record), with the error set.
    int next(ThlEntry* e);

private:
    // Copies up to n bytes from the file at the current offset; returns the
    // count (short at end of file) or -1.
    ssize_t take(uint8_t* out, size_t n);

    int fd_;
    const char* fn_;
    const char* file_;
    off_t pos_ = 0;    // file offset of the next unread byte
    SecureBytes buf_;  // bytes from bufStart_
    off_t bufStart_ = 0;
};

}  // namespace znhas

// The list's file name: ZNSEC_TESTING_THL_FILE, else the fixed path.
int sec__get_thl_filename(std::string* out);
// Builds a new record (slot size == data length) for a UTF-8 name and a
// checked token. Code 21 (2650-986) when it would exceed 4092 bytes.
int sec__create_thl_entry(const char* fn, const std::string& utf8name, sec_buffer_t token,
                          znhas::SecureBytes* rec);
int sec__create_token_from_entry(const char* fn, const znhas::ThlEntry& e, sec_buffer_t* token);
// The first candidate named `utf8name` (ignoring case); code 16 at the end.
int sec__find_host_in_thl(const char* fn, const char* file, int fd, const std::string& utf8name,
                          znhas::ThlEntry* found);
// Appends a whole record at the end of the file, after the free-space check.
int sec__write_host_to_thl(const char* fn, const char* file, int fd, const znhas::SecureBytes& rec);
int sec__deactivate_thl_entry(const char* fn, const char* file, int fd, const znhas::ThlEntry& e);
int sec__strikeout_thl_entry(const char* fn, const char* file, int fd, const znhas::ThlEntry& e);
int sec__replace_host_in_thl(const char* fn, const char* file, int fd, const znhas::ThlEntry& old,
                             const znhas::SecureBytes& rec);
// Adds/replaces (flag 1, with rec) or deactivates (flag 2) the host's record
// under the write lock; the top flag bit syncs the data before unlocking.
int sec__modify_thl(const std::string& utf8name, const znhas::SecureBytes* rec, uint32_t flags);
// Calls `visit` for every record from the start, under the read lock; a
// non-zero return from `visit` stops the walk and is returned.
int sec__walk_thl(const std::function<int(const znhas::ThlEntry&)>& visit);
// Creates an empty list (mode 0444, parent folders as needed) unless one
// exists.
int sec__init_thl();
