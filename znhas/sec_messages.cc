#include "znhas/sec_messages.h"

#include "platform/cu_error.h"
#include "znhas/znhas.h"

namespace znhas {

namespace {

// Numbers are fixed once shipped: translated catalogues are keyed by them.
constexpr SecMessage kMessages[] = {
    {SecMsg::BadParam, 1,
     "2650-951 libzn_has Failure: incorrect parameters provided to %1$s.\n"
     "Argument %2$d is missing or not valid."},
    {SecMsg::NoMemory, 2,
     "2650-952 libzn_has Memory allocation failure in %1$s.\n"
     "A request for %2$lld bytes could not be satisfied."},
    {SecMsg::Internal, 3,
     "2650-953 libzn_has Internal failure detected in %1$s.\n"
     "Failing routine: %2$s\n"
     "Return code from function: %3$d"},
    {SecMsg::FileAccess, 4,
     "2650-958 libzn_has Failure: Security file access failure.  A failure\n"
     "occurred in %1$s while accessing the file %2$s.\n"
     "The file may be missing, unreadable or damaged (system error %3$d)."},
    {SecMsg::NotFound, 5,
     "2650-949 libzn_has Failure: Cannot locate a host identifier token\n"
     "for the host %1$s in the trusted host list %2$s."},
    {SecMsg::Corrupted, 6,
     "2650-959 libzn_has Failure: Trusted host list file corrupted.\n"
     "%1$s found a damaged or truncated record in %2$s."},
    {SecMsg::NoSpace, 7,
     "2650-960 libzn_has Failure: No space left in %2$s.\n"
     "%1$s could not add %3$lld bytes without using the file system's reserve."},
    {SecMsg::Oversized, 8,
     "2650-986 znsthl Failure: This command is unable to access the trusted\n"
     "host list %2$s: a record of %3$lld bytes exceeds the limit of 4092 bytes\n"
     "(reported by %1$s)."},
    {SecMsg::LockFailed, 9,
     "2650-978 libzn_has Failure: cannot lock trusted host list or key file.\n"
     "%1$s could not lock %2$s within one second; another process holds it."},
};

const char* orEmpty(const char* s) {
    return s != nullptr ? s : "";
}

}  // namespace

const SecMessage& secMessage(SecMsg id) {
    for (const auto& m : kMessages) {
        if (m.id == id) {
            return m;
        }
    }
    return kMessages[static_cast<size_t>(SecMsg::Internal)];
}

int secBadParam(const char* fn, int argPos, int code) {
    const auto& m = secMessage(SecMsg::BadParam);
    cu_set_error_1(code, nullptr, kCatalog, kMsgSet, m.number, m.text, orEmpty(fn), argPos);
    return code;
}

int secNoMemory(const char* fn, size_t bytes) {
    const auto& m = secMessage(SecMsg::NoMemory);
    cu_set_error_1(ZNHAS_E_NOMEM, nullptr, kCatalog, kMsgSet, m.number, m.text, orEmpty(fn),
                   static_cast<long long>(bytes));
    return ZNHAS_E_NOMEM;
}

int secInternal(const char* fn, const char* routine, int rc) {
    const auto& m = secMessage(SecMsg::Internal);
    cu_set_error_1(ZNHAS_E_INTERNAL, nullptr, kCatalog, kMsgSet, m.number, m.text, orEmpty(fn),
                   orEmpty(routine), rc);
    return ZNHAS_E_INTERNAL;
}

int secFileAccess(const char* fn, const char* file, int sysErr, int code) {
    const auto& m = secMessage(SecMsg::FileAccess);
    cu_set_error_1(code, nullptr, kCatalog, kMsgSet, m.number, m.text, orEmpty(fn), orEmpty(file),
                   sysErr);
    return code;
}

int secNotFound(const char* fn, const char* host, const char* file) {
    const auto& m = secMessage(SecMsg::NotFound);
    cu_set_error_1(ZNHAS_E_NOTFOUND, nullptr, kCatalog, kMsgSet, m.number, m.text, orEmpty(host),
                   orEmpty(file));
    (void)fn;  // the message names the host, not the function
    return ZNHAS_E_NOTFOUND;
}

int secCorrupted(const char* fn, const char* file) {
    const auto& m = secMessage(SecMsg::Corrupted);
    cu_set_error_1(ZNHAS_E_FILE, nullptr, kCatalog, kMsgSet, m.number, m.text, orEmpty(fn),
                   orEmpty(file));
    return ZNHAS_E_FILE;
}

int secNoSpace(const char* fn, const char* file, long long bytes) {
    const auto& m = secMessage(SecMsg::NoSpace);
    cu_set_error_1(ZNHAS_E_FILE, nullptr, kCatalog, kMsgSet, m.number, m.text, orEmpty(fn),
                   orEmpty(file), bytes);
    return ZNHAS_E_FILE;
}

int secOversized(const char* fn, const char* file, long long recordSize) {
    const auto& m = secMessage(SecMsg::Oversized);
    cu_set_error_1(ZNHAS_E_FILE, nullptr, kCatalog, kMsgSet, m.number, m.text, orEmpty(fn),
                   orEmpty(file), recordSize);
    return ZNHAS_E_FILE;
}

int secLockFailed(const char* fn, const char* file) {
    const auto& m = secMessage(SecMsg::LockFailed);
    cu_set_error_1(ZNHAS_E_LOCK, nullptr, kCatalog, kMsgSet, m.number, m.text, orEmpty(fn),
                   orEmpty(file));
    return ZNHAS_E_LOCK;
}

}  // namespace znhas
