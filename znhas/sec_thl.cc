// Trusted host list operations: lookup, add or replace, delete, and the slot
// edits they are made of. Writers hold the exclusive lock on the list for the
// whole find-and-change, so a change is never based on a stale read.
#include "znhas/sec_thl.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>

#include "platform/paths.h"
#include "znhas/sec_messages.h"
#include "znhas/sec_token.h"
#include "znhas/sec_utf8.h"
#include "znhas/znhas.h"

using znhas::SecureBytes;
using znhas::ThlEntry;

namespace {

constexpr char kThlEnv[] = "ZNSEC_TESTING_THL_FILE";
constexpr mode_t kThlKeptMode = 0444;
constexpr mode_t kThlEditMode = 0644;

// Writes a 32-bit big-endian value into a record's field.
int writeField(const char* fn, const char* file, int fd, off_t at, uint32_t v) {
    uint8_t b[4];
    znhas::putBe32(b, v);
    return sec__write_to_file(fn, file, fd, at, b, sizeof b);
}

}  // namespace

int sec__get_thl_filename(std::string* out) {
    return sec__file_name("sec__get_thl_filename", kThlEnv, zn::paths::kThlFile, out);
}

int sec__find_host_in_thl(const char* fn, const char* file, int fd, const std::string& utf8name,
                          ThlEntry* found) {
    znhas::ThlReader reader(fd, fn, file);
    ThlEntry e;
    for (;;) {
        int rc = reader.next(&e);
        if (rc == 0) {
            return znhas::secNotFound(fn, utf8name.c_str(), file);
        }
        if (rc != 1) {
            return rc;
        }
        if (e.candidate() && strcasecmp(e.name(), utf8name.c_str()) == 0) {
            rc = sec__seek_in_file(fn, file, fd, e.offset, SEEK_SET, nullptr);
            if (rc == 0) {
                *found = std::move(e);
            }
            return rc;
        }
    }
}

int sec__write_host_to_thl(const char* fn, const char* file, int fd, const SecureBytes& rec) {
    int rc = sec__test_filesys_space(fn, file, fd, rec.size());
    if (rc != 0) {
        return rc;
    }
    off_t end = 0;
    rc = sec__seek_in_file(fn, file, fd, 0, SEEK_END, &end);
    if (rc != 0) {
        return rc;
    }
    return sec__write_to_file(fn, file, fd, end, rec.data(), rec.size());
}

int sec__deactivate_thl_entry(const char* fn, const char* file, int fd, const ThlEntry& e) {
    return writeField(fn, file, fd, e.offset + 12, znhas::kThlInactive);
}

int sec__strikeout_thl_entry(const char* fn, const char* file, int fd, const ThlEntry& e) {
    int rc = writeField(fn, file, fd, e.offset + 4, 0);
    if (rc != 0) {
        return rc;
    }
    // Slot size, magic and active flag stay; everything from the type on goes.
    SecureBytes zeros(e.recsize - 16, 0);
    return sec__write_to_file(fn, file, fd, e.offset + 16, zeros.data(), zeros.size());
}

int sec__replace_host_in_thl(const char* fn, const char* file, int fd, const ThlEntry& old,
                             const SecureBytes& rec) {
    int rc = sec__deactivate_thl_entry(fn, file, fd, old);
    if (rc == 0) {
        rc = sec__strikeout_thl_entry(fn, file, fd, old);
    }
    if (rc != 0) {
        return rc;
    }
    if (rec.size() > old.recsize) {
        return sec__write_host_to_thl(fn, file, fd, rec);
    }
    // The slot keeps its own size for good; the record goes in after it.
    return sec__write_to_file(fn, file, fd, old.offset + 4, rec.data() + 4, rec.size() - 4);
}

int sec__modify_thl(const std::string& utf8name, const SecureBytes* rec, uint32_t flags) {
    static const char fn[] = "sec__modify_thl";
    const uint32_t op = flags & (znhas::SEC_THL_ADD | znhas::SEC_THL_DELETE);
    if ((op != znhas::SEC_THL_ADD && op != znhas::SEC_THL_DELETE) ||
        (op == znhas::SEC_THL_ADD && rec == nullptr)) {
        return znhas::secBadParam(fn, 3, ZNHAS_E_INTERNAL);
    }
    std::string file;
    int rc = sec__get_thl_filename(&file);
    if (rc == 0) {
        rc = sec__setup_utf8_hdls(fn);
    }
    if (rc == 0) {
        rc = sec__change_file_perms(fn, file.c_str(), kThlEditMode);
    }
    if (rc != 0) {
        return rc;
    }
    int fd = -1;
    rc = sec__open_locked_file(fn, file.c_str(), O_RDWR, &fd);
    if (rc != 0) {
        sec__change_file_perms(fn, file.c_str(), kThlKeptMode);
        return rc;
    }
    ThlEntry found;
    rc = sec__find_host_in_thl(fn, file.c_str(), fd, utf8name, &found);
    if (op == znhas::SEC_THL_DELETE) {
        if (rc == 0) {
            rc = sec__deactivate_thl_entry(fn, file.c_str(), fd, found);
        }
    } else if (rc == 0) {
        rc = sec__replace_host_in_thl(fn, file.c_str(), fd, found, *rec);
    } else if (rc == ZNHAS_E_NOTFOUND) {
        rc = sec__write_host_to_thl(fn, file.c_str(), fd, *rec);
    }
    if (rc == 0 && (flags & znhas::SEC_THL_SYNC) != 0) {
        rc = sec__sync_file(fn, file.c_str(), fd);
    }
    sec__close_locked_file(fn, file.c_str(), fd);
    // Best effort: the change itself stands or failed on its own.
    int saved = errno;
    sec__change_file_perms(fn, file.c_str(), kThlKeptMode);
    errno = saved;
    return rc;
}

int sec__walk_thl(const std::function<int(const ThlEntry&)>& visit) {
    static const char fn[] = "sec__walk_thl";
    std::string file;
    int rc = sec__get_thl_filename(&file);
    int fd = -1;
    if (rc == 0) {
        rc = sec__open_locked_file(fn, file.c_str(), O_RDONLY, &fd);
    }
    if (rc != 0) {
        return rc;
    }
    znhas::ThlReader reader(fd, fn, file.c_str());
    ThlEntry e;
    for (;;) {
        int r = reader.next(&e);
        if (r == 0) {
            break;
        }
        if (r != 1) {
            rc = r;
            break;
        }
        rc = visit(e);
        if (rc != 0) {
            break;
        }
    }
    sec__close_locked_file(fn, file.c_str(), fd);
    return rc;
}

int sec__init_thl() {
    static const char fn[] = "sec__init_thl";
    std::string file;
    int rc = sec__get_thl_filename(&file);
    if (rc != 0) {
        return rc;
    }
    zn::paths::ensureParentDir(file);
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kThlKeptMode);
    if (fd < 0) {
        return errno == EEXIST ? 0 : sec__test_file(fn, file.c_str(), nullptr);
    }
    close(fd);
    return 0;
}

int sec_get_host_token(const char* hostname, sec_buffer_t* token) {
    static const char fn[] = "sec_get_host_token";
    if (hostname == nullptr || *hostname == '\0') {
        return znhas::secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    if (token == nullptr || *token != nullptr) {
        return znhas::secBadParam(fn, 2, ZNHAS_E_BADPARAM);
    }
    std::string file;
    std::string name;
    int rc = sec__get_thl_filename(&file);
    if (rc == 0) {
        rc = sec__conv_str_to_utf8(fn, hostname, &name);
    }
    int fd = -1;
    if (rc == 0) {
        rc = sec__open_locked_file(fn, file.c_str(), O_RDONLY, &fd);
    }
    if (rc != 0) {
        return rc;
    }
    ThlEntry found;
    rc = sec__find_host_in_thl(fn, file.c_str(), fd, name, &found);
    if (rc == 0) {
        rc = sec__create_token_from_entry(fn, found, token);
    }
    sec__close_locked_file(fn, file.c_str(), fd);
    return rc;
}

int sec_store_host_token(const char* hostname, sec_buffer_t token) {
    static const char fn[] = "sec_store_host_token";
    if (hostname == nullptr || *hostname == '\0') {
        return znhas::secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    uint32_t type = 0;
    const uint8_t* key = nullptr;
    size_t keylen = 0;
    if (!znhas::checkToken(token, &type, &key, &keylen)) {
        return znhas::secBadParam(fn, 2, ZNHAS_E_BADPARAM);
    }
    std::string name;
    int rc = sec__conv_str_to_utf8(fn, hostname, &name);
    if (rc != 0) {
        return rc;
    }
    SecureBytes rec;
    rc = sec__create_thl_entry(fn, name, token, &rec);
    if (rc != 0) {
        return rc;
    }
    return sec__modify_thl(name, &rec, znhas::SEC_THL_SYNC | znhas::SEC_THL_ADD);
}

int sec_delete_host_token(const char* hostname) {
    static const char fn[] = "sec_delete_host_token";
    if (hostname == nullptr || *hostname == '\0') {
        return znhas::secBadParam(fn, 1, ZNHAS_E_BADPARAM);
    }
    std::string name;
    int rc = sec__conv_str_to_utf8(fn, hostname, &name);
    if (rc != 0) {
        return rc;
    }
    return sec__modify_thl(name, nullptr, znhas::SEC_THL_SYNC | znhas::SEC_THL_DELETE);
}
