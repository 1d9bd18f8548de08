// Editor of the monitoring service's access control list file (by default
// "/var/zn/cfg/znpex.acls"): adds or replaces entries in one stanza, deletes
// entries from one stanza, or deletes a stanza. Every edit copies the file
// line by line into "<file>.new_file" and renames that over the file, under
// the process-wide _file_mutex and an exclusive record lock on
// "/var/zn/lck/znpex.acls.lock", so that no two editors (threads or
// processes) interleave. A missing or empty file is first replaced by the
// platform default. The first swap made by an object keeps the previous file
// as "<file>.orig" (a hard link). An object holds no file or lock between
// edits; one object is used by one thread at a time, any number of objects
// may edit concurrently. Asking the service to re-read the file is the
// caller's business. The same edits run on a list held in memory
// (inMemory); the text itself is edited by ACLText either way.
#pragma once

#include <pthread.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>

#include "orvrm/ACLText.h"

class StanzaEntry;

class ACLFile {
public:
    enum PermissionType { PERM_CLASS = 0, PERM_RESOURCE = 1, PERM_BOTH = 2 };
    enum PermissionLevel { PERM_NONE = 0, PERM_READ = 1, PERM_WRITE = 2, PERM_READ_WRITE = 3 };

    // Results of the edits.
    enum : int {
        ACL_OK = 0,
        ACL_OPEN_FAILED = 1,  // the files could not be opened (or the path is unusable)
        ACL_LOCK_FAILED = 2,  // the lock could not be obtained
        ACL_COPY_FAILED = 3,  // reading, copying or writing failed; the file is unchanged
        ACL_SWAP_FAILED = 4,  // a header could not be written, or the swap failed or
                              // would have left an empty file
        ACL_NO_MEMORY = -1,   // DeleteEntries could not allocate its entries
    };

    static constexpr size_t kMaxLine = 511;  // longer lines are handled in pieces
    static constexpr size_t kMaxPath = 512;

    // Edits `path` (null: the system's list file). Holds no resources.
    explicit ACLFile(const char* path);

    // Edits the list in `text` instead of a file, which must outlive the
    // object: no file, lock, default copy or backup is involved. Checks and
    // results are those of the file edits; a successful edit replaces
    // `text`, any other leaves it as it was, and an edit that would leave an
    // empty list is refused with ACL_SWAP_FAILED. An empty text is edited
    // as it is (the default copy is the file's business).
    static ACLFile inMemory(std::string& text);
    ~ACLFile();
    ACLFile(const ACLFile&) = delete;
    ACLFile& operator=(const ACLFile&) = delete;

    // Writes the entries right after the stanza's header, each replacing the
    // first line of the stanza with the same identity (letter case ignored).
    // A stanza not in the file is appended with the entries and the two
    // LOCALHOST defaults. Entries whose identity is empty or holds blanks or
    // control characters, comments holding control characters, and stanza
    // names that could not stand as a header are refused with
    // ACL_COPY_FAILED before anything is touched.
    int AddOrUpdateEntries(const char* stanza, const StanzaEntry* entries, int count);

    // Removes from the stanza the first line of each identity (letter case
    // ignored). A missing stanza leaves the file as it was (still swapped in).
    int DeleteEntries(const char* stanza, char* const* identities, int count);

    // Removes the stanza's header, entries and empty lines; its comment lines
    // stay (joining the text before it).
    int DeleteStanza(const char* stanza);

    // Serialises every edit of the process; never destroyed, so edits stay
    // safe however objects come and go, up to process exit.
    static pthread_mutex_t _file_mutex;

    // The pause between tries at the record lock (three tries); one second
    // unless a test shortens it. Returns the previous value.
    static std::chrono::milliseconds setLockRetryDelay(std::chrono::milliseconds delay);

private:
    using Mode = ACLText::Mode;

    struct InMemory {};  // keeps ACLFile(nullptr) naming the system's file
    ACLFile(InMemory, std::string& text);

    int _processFile(const char* stanza, const StanzaEntry* entries, int count, Mode mode);
    int _processText(const char* stanza, const StanzaEntry* entries, int count, Mode mode);
    int _aquireFileLocks();
    int _releaseFileLocks();
    int _openFiles();
    int _ensureFileExists();
    void _closeFiles();
    int _copyFiles(const char* stanza, const StanzaEntry* entries, int count, Mode mode);
    int _SwapFiles();
    int _fail(int rc);

    std::string* _text = nullptr;  // the list edited in memory; null for a file
    FILE* _in = nullptr;
    FILE* _out = nullptr;
    int _lockFd = -1;
    char _path[kMaxPath + 1] = {};
    char _newPath[kMaxPath + 1] = {};
    bool _pathUsable = true;
    bool _backupMade = false;
    bool _defaultCopied = false;
};

// The type letter of an entry ("C", "R", "*"; "" for any other value).
const char* get_permission_type(ACLFile::PermissionType type);
// The level letters of an entry ("", "r", "w", "rw"; "" for any other value).
const char* get_permission_level(ACLFile::PermissionLevel level);
