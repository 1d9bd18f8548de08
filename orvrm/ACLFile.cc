// The edit itself: copy the list file into the new file, changing one stanza
// on the way, then swap. File access, locking and swapping are in
// ACLFileIO.cc.
#include "orvrm/ACLFile.h"

#include <strings.h>

#include <cctype>
#include <cstring>
#include <new>

#include "orvrm/StanzaEntry.h"

namespace {

// Outcomes of the search for the stanza's header.
enum { kFound = 0, kNotFound = 2, kSearchReadError = 3, kSearchWriteError = 4 };
// Outcomes of the copy of a stanza's body.
enum { kNextHeader = 0, kBodyEnd = 1, kBodyReadError = 2, kBodyWriteError = 4 };

bool isHeader(const char* line) {
    return std::isalpha(static_cast<unsigned char>(line[0])) != 0;
}
bool isComment(const char* line) {
    return line[0] == '#';
}

// The first whitespace-delimited token of a line, as [begin, begin+len).
const char* firstToken(const char* line, size_t& len) {
    const char* p = line;
    while (*p != '\0' && std::isspace(static_cast<unsigned char>(*p)) != 0) {
        ++p;
    }
    const char* e = p;
    while (*e != '\0' && std::isspace(static_cast<unsigned char>(*e)) == 0) {
        ++e;
    }
    len = static_cast<size_t>(e - p);
    return p;
}

bool hasBlankOrControl(const char* s) {
    for (; *s != '\0'; ++s) {
        auto c = static_cast<unsigned char>(*s);
        if (std::isspace(c) != 0 || std::iscntrl(c) != 0) {
            return true;
        }
    }
    return false;
}

bool hasControl(const char* s) {
    for (; *s != '\0'; ++s) {
        if (std::iscntrl(static_cast<unsigned char>(*s)) != 0) {
            return true;
        }
    }
    return false;
}

// A stanza name must read back as the first token of a header line.
bool usableStanzaName(const char* stanza) {
    return stanza != nullptr && isHeader(stanza) && !hasBlankOrControl(stanza) &&
           std::strlen(stanza) < ACLFile::kMaxLine;
}

// An entry must come back as one line whose first token is its identity.
bool writableEntry(const StanzaEntry& e) {
    return e.identity()[0] != '\0' && !hasBlankOrControl(e.identity()) && !hasControl(e.comment());
}

StanzaEntry makeEntry(const char* identity, ACLFile::PermissionType type,
                      ACLFile::PermissionLevel level, const char* comment) {
    StanzaEntry e;
    e.init(identity, type, level, comment);
    return e;
}

// Added with every new stanza, so this host never locks itself out.
const StanzaEntry kLocalRoot =
    makeEntry("root@LOCALHOST", ACLFile::PERM_BOTH, ACLFile::PERM_READ_WRITE,
              "root on this node always has access");
const StanzaEntry kLocalAll = makeEntry("LOCALHOST", ACLFile::PERM_BOTH, ACLFile::PERM_READ,
                                        "every one else on this node can read only");

}  // namespace

const char* get_permission_type(ACLFile::PermissionType type) {
    switch (type) {
        case ACLFile::PERM_CLASS:
            return "C";
        case ACLFile::PERM_RESOURCE:
            return "R";
        case ACLFile::PERM_BOTH:
            return "*";
    }
    return "";
}

const char* get_permission_level(ACLFile::PermissionLevel level) {
    switch (level) {
        case ACLFile::PERM_NONE:
            return "";
        case ACLFile::PERM_READ:
            return "r";
        case ACLFile::PERM_WRITE:
            return "w";
        case ACLFile::PERM_READ_WRITE:
            return "rw";
    }
    return "";
}

int ACLFile::AddOrUpdateEntries(const char* stanza, const StanzaEntry* entries, int count) {
    if (!usableStanzaName(stanza) || count < 0 || (count > 0 && entries == nullptr)) {
        return ACL_COPY_FAILED;
    }
    for (int i = 0; i < count; ++i) {
        if (!writableEntry(entries[i])) {
            return ACL_COPY_FAILED;
        }
    }
    return _processFile(stanza, entries, count, kAddOrUpdate);
}

int ACLFile::DeleteEntries(const char* stanza, char* const* identities, int count) {
    if (count < 0) {
        count = 0;
    }
    // One more entry than asked, left empty: an empty identity never matches.
    auto* entries = new (std::nothrow) StanzaEntry[static_cast<size_t>(count) + 1];
    if (entries == nullptr) {
        return ACL_NO_MEMORY;
    }
    for (int i = 0; i < count; ++i) {
        entries[i].init(identities != nullptr ? identities[i] : nullptr, PERM_BOTH, PERM_READ, "");
    }
    int rc = _processFile(stanza, entries, count + 1, kDeleteEntries);
    delete[] entries;
    return rc;
}

int ACLFile::DeleteStanza(const char* stanza) {
    return _processFile(stanza, nullptr, 0, kDeleteStanza);
}

int ACLFile::_processFile(const char* stanza, const StanzaEntry* entries, int count, Mode mode) {
    if (stanza == nullptr) {
        return ACL_COPY_FAILED;
    }
    if (_aquireFileLocks() != 0) {
        return ACL_LOCK_FAILED;
    }
    if (_openFiles() != 0) {
        _releaseFileLocks();
        return ACL_OPEN_FAILED;
    }
    int found = _findStanza(stanza);
    EntryList list;
    for (int i = 0; i < count; ++i) {
        list.push_back(&entries[i]);
    }
    if (found == kFound) {
        if (mode != kDeleteStanza && _copyLine() != 0) {
            return _fail(ACL_COPY_FAILED);
        }
        if (mode == kAddOrUpdate && _print_all_entries(list, false) != 0) {
            return _fail(ACL_COPY_FAILED);
        }
        int body = _copyBody(list, mode);
        if (body == kBodyWriteError || body == kBodyReadError) {
            // A read error is not taken for the end of the file: that would
            // swap in a list that lost its tail.
            return _fail(ACL_COPY_FAILED);
        }
        if (body == kNextHeader) {
            if (_copyLine() != 0) {
                return _fail(ACL_SWAP_FAILED);
            }
            if (_copyRest() != 0) {
                return _fail(ACL_COPY_FAILED);
            }
        }
    } else if (found == kNotFound) {
        if (mode == kAddOrUpdate) {
            if (_printToFile("%s\n", stanza) != 0) {
                return _fail(ACL_SWAP_FAILED);
            }
            list.push_back(&kLocalRoot);
            list.push_back(&kLocalAll);
            if (_print_all_entries(list, false) != 0) {
                return _fail(ACL_COPY_FAILED);
            }
        }
    } else {
        return _fail(ACL_COPY_FAILED);
    }
    int swapped = _SwapFiles();
    _closeFiles();
    _releaseFileLocks();
    return swapped == 0 ? ACL_OK : ACL_SWAP_FAILED;
}

int ACLFile::_fail(int rc) {
    _closeFiles();
    _releaseFileLocks();
    return rc;
}

int ACLFile::_findStanza(const char* stanza) {
    for (;;) {
        int r = _readLine();
        if (r == 1) {
            return kNotFound;
        }
        if (r != 0) {
            return kSearchReadError;
        }
        if (isHeader(_line)) {
            size_t len = 0;
            const char* tok = firstToken(_line, len);
            if (len == std::strlen(stanza) && std::strncmp(tok, stanza, len) == 0) {
                return kFound;
            }
        }
        if (_copyLine() != 0) {
            return kSearchWriteError;
        }
    }
}

int ACLFile::_copyBody(EntryList& list, Mode mode) {
    for (;;) {
        int r = _readLine();
        if (r == 1) {
            return kBodyEnd;
        }
        if (r != 0) {
            return kBodyReadError;
        }
        if (isHeader(_line)) {
            return kNextHeader;
        }
        bool keep = true;
        if (!isComment(_line)) {
            if (mode == kDeleteStanza) {
                keep = false;
            } else {
                size_t len = 0;
                const char* tok = firstToken(_line, len);
                char token[kMaxLine + 1];
                std::memcpy(token, tok, len);
                token[len] = '\0';
                for (auto it = list.begin(); len > 0 && it != list.end(); ++it) {
                    if (strncasecmp(token, (*it)->identity(), StanzaEntry::kMaxText) == 0) {
                        list.erase(it);  // one entry removes one line, the first
                        keep = false;
                        break;
                    }
                }
            }
        }
        if (keep && _copyLine() != 0) {
            return kBodyWriteError;
        }
    }
}

int ACLFile::_copyRest() {
    for (;;) {
        int r = _readLine();
        if (r == 1) {
            return 0;
        }
        if (r != 0 || _copyLine() != 0) {
            return 1;
        }
    }
}

int ACLFile::_printEntry(const StanzaEntry& e) {
    return _printToFile("\t%30s\t%s %-2s # %s\n", e.identity(), get_permission_type(e.type()),
                        get_permission_level(e.level()), e.comment());
}

int ACLFile::_print_all_entries(const EntryList& list, bool defaults) {
    int rc = 0;
    for (const StanzaEntry* e : list) {
        rc |= _printEntry(*e);
    }
    if (rc != 0 || !defaults) {
        return rc;
    }
    for (const StanzaEntry* d : {&kLocalRoot, &kLocalAll}) {
        bool listed = false;
        for (const StanzaEntry* e : list) {
            listed = listed || strcasecmp(e->identity(), d->identity()) == 0;
        }
        if (!listed) {
            rc |= _printEntry(*d);
        }
    }
    return rc;
}
