// The host authentication library's messages: one table of catalogue numbers
// and default texts (catalogue "znhas.cat", set 1), and one helper per message
// that sets the thread's platform error and returns the error code to pass on.
// Argument convention: %1$s is the reporting function; files are %2$s.
#pragma once

#include <cstddef>

namespace znhas {

inline constexpr char kCatalog[] = "znhas.cat";
inline constexpr int kMsgSet = 1;

enum class SecMsg {
    BadParam,    // 2650-951
    NoMemory,    // 2650-952
    Internal,    // 2650-953
    FileAccess,  // 2650-958
    NotFound,    // 2650-949
    Corrupted,   // 2650-959
    NoSpace,     // 2650-960
    Oversized,   // 2650-986
    LockFailed,  // 2650-978
};

struct SecMessage {
    SecMsg id;
    int number;  // message number in set 1 of the catalogue
    const char* text;
};

// The table entry of a message.
const SecMessage& secMessage(SecMsg id);

// Each sets the thread's error and returns `code`.
int secBadParam(const char* fn, int argPos, int code);
int secNoMemory(const char* fn, size_t bytes);
int secInternal(const char* fn, const char* routine, int rc);
int secFileAccess(const char* fn, const char* file, int sysErr, int code);
int secNotFound(const char* fn, const char* host, const char* file);
int secCorrupted(const char* fn, const char* file);
int secNoSpace(const char* fn, const char* file, long long bytes);
int secOversized(const char* fn, const char* file, long long recordSize);
int secLockFailed(const char* fn, const char* file);

}  // namespace znhas
