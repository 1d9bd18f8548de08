// File access of the list editor: the locks, making sure a usable list file
// exists, opening, the list file as the text edit's reader and the new
// file as its writer, and the swap of the new file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orvrm/ACLFile.h"
#include "orvrm/CmdExec.h"
#include "platform/clock.h"
#include "platform/paths.h"

pthread_mutex_t ACLFile::_file_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr int kLockTries = 3;
std::atomic<long long> lockRetryDelayMs{1000};

bool hasBlank(const std::string& s) {
    return s.find_first_of(" \t\r\n") != std::string::npos;
}

off_t sizeOf(const std::string& path, bool& ok) {
    struct stat st;
    ok = ::stat(path.c_str(), &st) == 0;
    return ok ? st.st_size : 0;
}

// Forces a file's data to disk; false when it cannot be opened or synced.
bool syncFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    bool ok = ::fdatasync(fd) == 0;
    ::close(fd);
    return ok;
}

// Makes a rename in the directory of `path` durable.
void syncDirectoryOf(const std::string& path) {
    auto slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

class FileReader : public ACLText::Reader {
public:
    explicit FileReader(FILE* in) : _in(in) {}
    int get() override { return std::getc(_in); }
    bool failed() const override { return std::ferror(_in) != 0; }

private:
    FILE* _in;
};

// Flushed after every write, so that a full disk shows at the line it hits.
class FileWriter : public ACLText::Writer {
public:
    explicit FileWriter(FILE* out) : _out(out) {}
    bool write(const char* data, size_t len) override {
        size_t written = std::fwrite(data, 1, len, _out);
        return std::fflush(_out) == 0 && written == len;
    }

private:
    FILE* _out;
};

}  // namespace

ACLFile::ACLFile(const char* path) {
    std::string p = path != nullptr ? std::string(path) : zn::paths::resolve(zn::paths::kAclFile);
    // A cut path would name another file: refuse every edit instead.
    _pathUsable = !p.empty() && p.size() <= kMaxPath;
    if (_pathUsable) {
        std::memcpy(_path, p.c_str(), p.size() + 1);
    }
}

// The class-wide mutex is left alone: it must outlive every object.
ACLFile::~ACLFile() = default;

std::chrono::milliseconds ACLFile::setLockRetryDelay(std::chrono::milliseconds delay) {
    return std::chrono::milliseconds(lockRetryDelayMs.exchange(delay.count()));
}

int ACLFile::_aquireFileLocks() {
    pthread_mutex_lock(&_file_mutex);
    std::string lockPath = zn::paths::resolve(zn::paths::kAclLockFile);
    zn::paths::ensureParentDir(lockPath);
    int fd = ::open(lockPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0660);
    if (fd >= 0) {
        struct flock fl {};
        fl.l_type = F_WRLCK;
        fl.l_whence = SEEK_SET;
        for (int attempt = 1;; ++attempt) {
            if (::fcntl(fd, F_SETLK, &fl) == 0) {
                _lockFd = fd;
                return 0;
            }
            if (errno != EACCES && errno != EAGAIN) {
                break;
            }
            zn::processClock().sleepFor(std::chrono::milliseconds(lockRetryDelayMs.load()));
            if (attempt == kLockTries) {
                break;
            }
        }
        ::close(fd);
    }
    pthread_mutex_unlock(&_file_mutex);
    return 2;
}

int ACLFile::_releaseFileLocks() {
    int rc = 0;
    if (_lockFd >= 0) {
        struct flock fl {};
        fl.l_type = F_UNLCK;
        fl.l_whence = SEEK_SET;
        rc = ::fcntl(_lockFd, F_SETLK, &fl) == 0 ? 0 : 1;
        ::close(_lockFd);
        _lockFd = -1;
    }
    pthread_mutex_unlock(&_file_mutex);
    return rc;
}

int ACLFile::_ensureFileExists() {
    struct stat st;
    if (::stat(_path, &st) == 0) {
        if (st.st_size > 0) {
            return 0;
        }
    } else if (errno != ENOENT) {
        return 2;
    }
    std::string def = zn::paths::resolve(zn::paths::kAclDefaultFile);
    std::string path = _path;
    std::string copy = path + ".new_file";
    // The command runner splits its line at blanks; such a path would become two words.
    if (hasBlank(def) || hasBlank(copy)) {
        return 2;
    }
    char cmd[kMaxPath + 1];
    std::string line = zn::paths::resolveCommand(zn::paths::kCopyCommand);
    int n = std::snprintf(cmd, sizeof cmd, line.c_str(), def.c_str(), copy.c_str());
    if (n < 0 || static_cast<size_t>(n) >= sizeof cmd) {
        return 2;
    }
    // Copied beside the file and renamed over it, so that a crash never
    // leaves a torn copy that a later edit would take for the list.
    CmdExec exec;
    char* out = nullptr;
    char* err = nullptr;
    exec.Execute(cmd, nullptr, tarn_base::CCommand::kCommandLine, &out, &err);
    std::free(out);
    std::free(err);
    bool copyOk = false;
    bool defOk = false;
    off_t copySize = sizeOf(copy, copyOk);
    off_t defSize = sizeOf(def, defOk);
    if (!copyOk || !defOk || copySize != defSize || !syncFile(copy) ||
        ::rename(copy.c_str(), path.c_str()) != 0) {
        ::unlink(copy.c_str());
        return 2;
    }
    syncDirectoryOf(path);
    _defaultCopied = true;
    return 0;
}

int ACLFile::_openFiles() {
    if (!_pathUsable || _ensureFileExists() != 0) {
        return 2;
    }
    _in = std::fopen(_path, "re");
    if (_in == nullptr) {
        return 1;
    }
    int n = std::snprintf(_newPath, sizeof _newPath, "%s.%s", _path, "new_file");
    if (n < 0 || static_cast<size_t>(n) >= sizeof _newPath) {
        _closeFiles();
        return 2;
    }
    _out = std::fopen(_newPath, "we");
    if (_out == nullptr) {
        _closeFiles();
        return 2;
    }
    // The swapped-in file keeps the permissions of the one it replaces.
    struct stat st;
    if (::fstat(fileno(_in), &st) == 0) {
        ::fchmod(fileno(_out), st.st_mode & 07777);
    }
    return 0;
}

void ACLFile::_closeFiles() {
    if (_in != nullptr) {
        std::fclose(_in);
        _in = nullptr;
    }
    if (_out != nullptr) {
        std::fclose(_out);
        _out = nullptr;
    }
}

int ACLFile::_copyFiles(const char* stanza, const StanzaEntry* entries, int count, Mode mode) {
    FileReader in(_in);
    FileWriter out(_out);
    return ACLText::edit(in, out, stanza, entries, count, mode);
}

int ACLFile::_SwapFiles() {
    std::string path = _path;
    if (!_backupMade) {
        struct stat st;
        if (::stat(_path, &st) != 0) {
            return 1;
        }
        if (st.st_size > 0) {
            std::string backup = path + ".orig";
            if ((::unlink(backup.c_str()) != 0 && errno != ENOENT) ||
                ::link(_path, backup.c_str()) != 0) {
                return 1;
            }
        }
        _backupMade = true;
    }
    if (std::fflush(_out) != 0 || ::fdatasync(fileno(_out)) != 0) {
        return 2;
    }
    struct stat st;
    if (::fstat(fileno(_out), &st) != 0) {
        return 1;
    }
    if (st.st_size == 0) {
        return 4;  // an empty list is never swapped in
    }
    if (::rename(_newPath, _path) != 0) {
        return 2;
    }
    // The rename alone may still be lost in a power cut; syncing the directory
    // makes the completed edit durable. A failure here cannot undo the edit,
    // which every reader already sees, so it is not reported.
    syncDirectoryOf(path);
    return 0;
}
