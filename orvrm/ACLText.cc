// The edit itself: copy the list from the reader to the writer, changing one
// stanza on the way. Lines are read in pieces of at most ACLFile::kMaxLine
// characters; a piece that starts with a letter is a header.
#include "orvrm/ACLText.h"

#include <strings.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "orvrm/ACLFile.h"
#include "orvrm/StanzaEntry.h"

namespace {

// Outcomes of the search for the stanza's header.
enum { kFound = 0, kNotFound = 2, kSearchReadError = 3, kSearchWriteError = 4 };
// Outcomes of the copy of a stanza's body.
enum { kNextHeader = 0, kBodyEnd = 1, kBodyReadError = 2, kBodyWriteError = 4 };

constexpr size_t kMaxLine = ACLFile::kMaxLine;

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

// One edit's copy: the current line piece and where it goes.
class Copier {
public:
    using EntryList = std::vector<const StanzaEntry*>;

    Copier(ACLText::Reader& in, ACLText::Writer& out) : _in(in), _out(out) {}

    int run(const char* stanza, const StanzaEntry* entries, int count, ACLText::Mode mode);

private:
    int _readLine();
    int _copyLine();
    int _printToFile(const char* format, ...) __attribute__((format(printf, 2, 3)));
    int _printEntry(const StanzaEntry& entry);
    int _print_all_entries(const EntryList& list, bool defaults);
    int _findStanza(const char* stanza);
    int _copyBody(EntryList& list, ACLText::Mode mode);
    int _copyRest();

    ACLText::Reader& _in;
    ACLText::Writer& _out;
    char _line[kMaxLine + 1] = {};
    size_t _lineLen = 0;
};

int Copier::run(const char* stanza, const StanzaEntry* entries, int count, ACLText::Mode mode) {
    int found = _findStanza(stanza);
    EntryList list;
    for (int i = 0; i < count; ++i) {
        list.push_back(&entries[i]);
    }
    if (found == kFound) {
        if (mode != ACLText::kDeleteStanza && _copyLine() != 0) {
            return ACLFile::ACL_COPY_FAILED;
        }
        if (mode == ACLText::kAddOrUpdate && _print_all_entries(list, false) != 0) {
            return ACLFile::ACL_COPY_FAILED;
        }
        int body = _copyBody(list, mode);
        if (body == kBodyWriteError || body == kBodyReadError) {
            // A read error is not taken for the end of the list: that would
            // swap in a list that lost its tail.
            return ACLFile::ACL_COPY_FAILED;
        }
        if (body == kNextHeader) {
            if (_copyLine() != 0) {
                return ACLFile::ACL_SWAP_FAILED;
            }
            if (_copyRest() != 0) {
                return ACLFile::ACL_COPY_FAILED;
            }
        }
    } else if (found == kNotFound) {
        if (mode == ACLText::kAddOrUpdate) {
            if (_printToFile("%s\n", stanza) != 0) {
                return ACLFile::ACL_SWAP_FAILED;
            }
            list.push_back(&kLocalRoot);
            list.push_back(&kLocalAll);
            if (_print_all_entries(list, false) != 0) {
                return ACLFile::ACL_COPY_FAILED;
            }
        }
    } else {
        return ACLFile::ACL_COPY_FAILED;
    }
    return ACLFile::ACL_OK;
}

int Copier::_readLine() {
    _lineLen = 0;
    while (_lineLen < kMaxLine) {
        int c = _in.get();
        if (c == EOF) {
            break;
        }
        _line[_lineLen++] = static_cast<char>(c);
        if (c == '\n') {
            break;
        }
    }
    _line[_lineLen] = '\0';
    if (_in.failed()) {
        return 2;
    }
    return _lineLen == 0 ? 1 : 0;
}

int Copier::_copyLine() {
    return _out.write(_line, _lineLen) ? 0 : 1;
}

int Copier::_printToFile(const char* format, ...) {
    char buf[ACLFile::kMaxPath + 1];
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    if (n < 0) {
        return 1;
    }
    if (static_cast<size_t>(n) > sizeof buf) {
        return 2;
    }
    size_t len = std::strlen(buf);
    // A text of exactly 513 characters was cut to 512 and so fails here too.
    if (!_out.write(buf, len) || len != static_cast<size_t>(n)) {
        return 2;
    }
    return 0;
}

int Copier::_findStanza(const char* stanza) {
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

int Copier::_copyBody(EntryList& list, ACLText::Mode mode) {
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
            if (mode == ACLText::kDeleteStanza) {
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

int Copier::_copyRest() {
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

int Copier::_printEntry(const StanzaEntry& e) {
    return _printToFile("\t%30s\t%s %-2s # %s\n", e.identity(), get_permission_type(e.type()),
                        get_permission_level(e.level()), e.comment());
}

int Copier::_print_all_entries(const EntryList& list, bool defaults) {
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

}  // namespace

int ACLText::edit(Reader& in, Writer& out, const char* stanza, const StanzaEntry* entries,
                  int count, Mode mode) {
    Copier copier(in, out);
    return copier.run(stanza, entries, count, mode);
}

bool ACLText::usableStanzaName(const char* stanza) {
    return stanza != nullptr && isHeader(stanza) && !hasBlankOrControl(stanza) &&
           std::strlen(stanza) < kMaxLine;
}

bool ACLText::writableEntry(const StanzaEntry& e) {
    return e.identity()[0] != '\0' && !hasBlankOrControl(e.identity()) && !hasControl(e.comment());
}
