#include "znhas/sec_file.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/clock.h"
#include "platform/paths.h"
#include "znhas/sec_messages.h"
#include "znhas/znhas.h"

using znhas::secFileAccess;
using znhas::secInternal;

namespace {

// Maps errno from open, stat and chmod to the library's codes. EPERM and
// EROFS are access failures for status queries and permission changes; for
// opening they are unexpected.
int mapFileError(const char* fn, const char* file, int err, bool opening) {
    if (opening && (err == EPERM || err == EROFS)) {
        return secInternal(fn, "open", err);
    }
    switch (err) {
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
            return secFileAccess(fn, file, err, ZNHAS_E_FILE);
        case ENOMEM:
            return znhas::secNoMemory(fn, 0);
        case EACCES:
        case EPERM:
        case EROFS:
            return secFileAccess(fn, file, err, ZNHAS_E_ACCESS);
        default:
            return secInternal(fn, "open", err);
    }
}

int lockFile(const char* fn, const char* file, int fd, short type) {
    struct flock fl = {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;  // the whole file, however it grows
    const time_t start = zn::systemClock().wallNow().tv_sec;
    for (;;) {
        if (fcntl(fd, F_OFD_SETLK, &fl) == 0) {
            return 0;
        }
        int err = errno;
        if (err != EAGAIN && err != EACCES && err != EINTR) {
            return secInternal(fn, "fcntl", err);
        }
        if (zn::systemClock().wallNow().tv_sec - start > 1) {
            return znhas::secLockFailed(fn, file);
        }
        usleep(31);
    }
}

}  // namespace

int sec__test_file(const char* fn, const char* file, struct stat* st) {
    struct stat local;
    if (stat(file, st != nullptr ? st : &local) != 0) {
        return mapFileError(fn, file, errno, false);
    }
    return 0;
}

int sec__test_file_and_size(const char* fn, const char* file, off_t* size) {
    struct stat st;
    int rc = sec__test_file(fn, file, &st);
    if (rc == 0 && size != nullptr) {
        *size = st.st_size;
    }
    return rc;
}

int sec__open_file(const char* fn, const char* file, int flags, int* fd, mode_t mode) {
    int f = open(file, flags | O_CLOEXEC, mode);
    if (f < 0) {
        return mapFileError(fn, file, errno, true);
    }
    *fd = f;
    return 0;
}

void sec__close_file(int fd) {
    if (fd >= 0) {
        close(fd);
    }
}

int sec__readlock_file(const char* fn, const char* file, int fd) {
    return lockFile(fn, file, fd, F_RDLCK);
}

int sec__writelock_file(const char* fn, const char* file, int fd) {
    return lockFile(fn, file, fd, F_WRLCK);
}

int sec__unlock_file(const char* fn, const char* /*file*/, int fd) {
    struct flock fl = {};
    fl.l_type = F_UNLCK;
    fl.l_whence = SEEK_SET;
    while (fcntl(fd, F_OFD_SETLKW, &fl) != 0) {
        if (errno != EINTR) {
            return secInternal(fn, "fcntl", errno);
        }
    }
    return 0;
}

int sec__open_locked_file(const char* fn, const char* file, int flags, int* fd, mode_t mode) {
    int f = -1;
    int rc = sec__open_file(fn, file, flags, &f, mode);
    if (rc != 0) {
        return rc;
    }
    rc = (flags & O_ACCMODE) == O_RDONLY ? sec__readlock_file(fn, file, f)
                                         : sec__writelock_file(fn, file, f);
    if (rc != 0) {
        sec__close_file(f);
        return rc;
    }
    *fd = f;
    return 0;
}

void sec__close_locked_file(const char* fn, const char* file, int fd) {
    sec__unlock_file(fn, file, fd);
    sec__close_file(fd);
}

int sec__seek_in_file(const char* fn, const char* /*file*/, int fd, off_t offset, int whence,
                      off_t* pos) {
    off_t p = lseek(fd, offset, whence);
    if (p < 0) {
        return secInternal(fn, "lseek", errno);
    }
    if (pos != nullptr) {
        *pos = p;
    }
    return 0;
}

ssize_t sec__read_from_file(int fd, void* buf, size_t n) {
    size_t got = 0;
    auto* p = static_cast<char*>(buf);
    while (got < n) {
        ssize_t r = read(fd, p + got, n - got);
        if (r < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            return -1;
        }
        if (r == 0) {
            break;
        }
        got += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(got);
}

int sec__write_to_file(const char* fn, const char* file, int fd, off_t offset, const void* buf,
                       size_t n) {
    size_t done = 0;
    const auto* p = static_cast<const char*>(buf);
    while (done < n) {
        ssize_t w = pwrite(fd, p + done, n - done, offset + static_cast<off_t>(done));
        if (w < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            if (errno == ENOSPC) {
                return znhas::secNoSpace(fn, file, static_cast<long long>(n - done));
            }
            return secInternal(fn, "write", errno);
        }
        done += static_cast<size_t>(w);
    }
    return 0;
}

int sec__sync_file(const char* fn, const char* /*file*/, int fd) {
    if (fdatasync(fd) != 0) {
        return secInternal(fn, "fdatasync", errno);
    }
    return 0;
}

int sec__change_file_perms(const char* fn, const char* file, mode_t mode) {
    if (chmod(file, mode) != 0) {
        return mapFileError(fn, file, errno, false);
    }
    return 0;
}

bool sec__space_fits(uint64_t size, uint64_t add, uint64_t blockSize, uint64_t totalBlocks,
                     uint64_t freeBlocks) {
    if (blockSize == 0) {
        return false;
    }
    const uint64_t after = (size + add + blockSize - 1) / blockSize;
    const uint64_t now = (size + blockSize - 1) / blockSize;
    const uint64_t used = totalBlocks > freeBlocks ? totalBlocks - freeBlocks : 0;
    const uint64_t reserve = totalBlocks * 3 / 100;
    return after - now + used + reserve <= totalBlocks;
}

int sec__test_filesys_space(const char* fn, const char* file, int fd, size_t add) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
        return secInternal(fn, "fstat", errno);
    }
    struct statvfs vfs;
    if (fstatvfs(fd, &vfs) != 0) {
        return secInternal(fn, "fstatvfs", errno);
    }
    // Blocks are counted in f_frsize units, the unit f_blocks and f_bfree use.
    uint64_t bsize = vfs.f_frsize != 0 ? vfs.f_frsize : vfs.f_bsize;
    if (!sec__space_fits(static_cast<uint64_t>(st.st_size), add, bsize, vfs.f_blocks,
                         vfs.f_bfree)) {
        return znhas::secNoSpace(fn, file, static_cast<long long>(add));
    }
    return 0;
}

void sec__safe_free(void* p, size_t n) {
    if (p == nullptr) {
        return;
    }
    vok::secureWipe(p, n);
    std::free(p);
}

int sec__file_name(const char* fn, const char* envVar, const char* fixedPath, std::string* out) {
    const char* env = envVar != nullptr ? std::getenv(envVar) : nullptr;
    std::string name =
        env != nullptr && *env != '\0' ? std::string(env) : zn::paths::resolve(fixedPath);
    if (name.size() > kSecMaxPath) {
        return znhas::secBadParam(fn, 1, ZNHAS_E_INTERNAL);
    }
    *out = std::move(name);
    return 0;
}
