// File helpers of the host authentication library: open, lock, read, write,
// permissions, free-space check and wiping frees, each mapping system errors
// to the library's codes and messages (the reporting function is `fn`).
//
// Locks are open-file-description locks (F_OFD_SETLK): they belong to the
// descriptor, not the process, so they are not dropped when some other
// descriptor of the same file is closed, and they also exclude other threads of
// this process that opened the file themselves. Classic process-owned record
// locks would give neither.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "znhas/vok_bn.h"

namespace znhas {

// Bytes that are wiped before their storage is released.
using SecureBytes = std::vector<uint8_t, vok::WipingAllocator<uint8_t>>;

}  // namespace znhas

// Status of `file`; ENOENT, ENOTDIR, ELOOP give code 21, EACCES code 12.
int sec__test_file(const char* fn, const char* file, struct stat* st);
// The same, also handing back the size.
int sec__test_file_and_size(const char* fn, const char* file, off_t* size);
// Opens read-only (O_RDONLY) or read-write (O_RDWR); close-on-exec. Flags may
// add O_CREAT with `mode`.
int sec__open_file(const char* fn, const char* file, int flags, int* fd, mode_t mode = 0);
void sec__close_file(int fd);

// Shared or exclusive lock over the whole file, retried every 31 microseconds
// for about a second; then code 30.
int sec__readlock_file(const char* fn, const char* file, int fd);
int sec__writelock_file(const char* fn, const char* file, int fd);
int sec__unlock_file(const char* fn, const char* file, int fd);

// Opens `file` as sec__open_file does and locks it: shared when read-only,
// exclusive otherwise. On success the caller gives both back with
// sec__close_locked_file; on failure nothing is left open.
int sec__open_locked_file(const char* fn, const char* file, int flags, int* fd, mode_t mode = 0);
void sec__close_locked_file(const char* fn, const char* file, int fd);

int sec__seek_in_file(const char* fn, const char* file, int fd, off_t offset, int whence,
                      off_t* pos);
// Reads up to n bytes at the current position, retrying interrupted reads;
// returns the count read (short only at end of file) or -1 with errno.
ssize_t sec__read_from_file(int fd, void* buf, size_t n);
// Writes all n bytes at `offset`, retrying EINTR and EAGAIN; ENOSPC gives code
// 21 (no space), other errors code 23.
int sec__write_to_file(const char* fn, const char* file, int fd, off_t offset, const void* buf,
                       size_t n);
int sec__sync_file(const char* fn, const char* file, int fd);
int sec__change_file_perms(const char* fn, const char* file, mode_t mode);

// Code 21 (no space) unless the file system can take `add` more bytes for the
// file and still keep its 3% reserve.
int sec__test_filesys_space(const char* fn, const char* file, int fd, size_t add);

// The pure arithmetic of the free-space rule: with file size S, block size B,
// T total and F free blocks, adding n bytes fits when
// ceil((S+n)/B) - ceil(S/B) + (T-F) + floor(0.03 T) <= T.
bool sec__space_fits(uint64_t size, uint64_t add, uint64_t blockSize, uint64_t totalBlocks,
                     uint64_t freeBlocks);

// Wipes n bytes at p, then frees it (malloc'ed memory). Null is ignored.
void sec__safe_free(void* p, size_t n);

// Longest file name the library accepts (its name buffers hold 4096 characters).
inline constexpr size_t kSecMaxPath = 4095;

// The file to use: the environment variable's value when set and not empty,
// else the fixed path under the ZN_ROOT seam. Code 23 for names too long.
int sec__file_name(const char* fn, const char* envVar, const char* fixedPath, std::string* out);
