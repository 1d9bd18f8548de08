// The edits: check the request, then run the text edit between the list file
// and its new file and swap, or over the list held in memory. File access,
// locking and swapping are in ACLFileIO.cc, the text edit in ACLText.cc.
#include "orvrm/ACLFile.h"

#include <cstdio>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "orvrm/ACLText.h"
#include "orvrm/StanzaEntry.h"

namespace {

class StringReader : public ACLText::Reader {
public:
    explicit StringReader(std::string_view text) : _text(text) {}
    int get() override {
        return _pos < _text.size() ? static_cast<unsigned char>(_text[_pos++]) : EOF;
    }
    bool failed() const override { return false; }

private:
    std::string_view _text;
    size_t _pos = 0;
};

class StringWriter : public ACLText::Writer {
public:
    explicit StringWriter(std::string& text) : _text(text) {}
    bool write(const char* data, size_t len) override {
        _text.append(data, len);
        return true;
    }

private:
    std::string& _text;
};

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

ACLFile ACLFile::inMemory(std::string& text) {
    return ACLFile(InMemory{}, text);
}

ACLFile::ACLFile(InMemory, std::string& text) : _text(&text) {}

int ACLFile::AddOrUpdateEntries(const char* stanza, const StanzaEntry* entries, int count) {
    if (!ACLText::usableStanzaName(stanza) || count < 0 || (count > 0 && entries == nullptr)) {
        return ACL_COPY_FAILED;
    }
    for (int i = 0; i < count; ++i) {
        if (!ACLText::writableEntry(entries[i])) {
            return ACL_COPY_FAILED;
        }
    }
    return _processFile(stanza, entries, count, ACLText::kAddOrUpdate);
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
    int rc = _processFile(stanza, entries, count + 1, ACLText::kDeleteEntries);
    delete[] entries;
    return rc;
}

int ACLFile::DeleteStanza(const char* stanza) {
    return _processFile(stanza, nullptr, 0, ACLText::kDeleteStanza);
}

int ACLFile::_processFile(const char* stanza, const StanzaEntry* entries, int count, Mode mode) {
    if (stanza == nullptr) {
        return ACL_COPY_FAILED;
    }
    if (_text != nullptr) {
        return _processText(stanza, entries, count, mode);
    }
    if (_aquireFileLocks() != 0) {
        return ACL_LOCK_FAILED;
    }
    if (_openFiles() != 0) {
        _releaseFileLocks();
        return ACL_OPEN_FAILED;
    }
    int rc = _copyFiles(stanza, entries, count, mode);
    if (rc != ACL_OK) {
        return _fail(rc);
    }
    int swapped = _SwapFiles();
    _closeFiles();
    _releaseFileLocks();
    return swapped == 0 ? ACL_OK : ACL_SWAP_FAILED;
}

// The file edit without the files: the copy goes to a new string that
// replaces the text as the new file replaces the list file.
int ACLFile::_processText(const char* stanza, const StanzaEntry* entries, int count, Mode mode) {
    std::string edited;
    StringReader in(*_text);
    StringWriter out(edited);
    int rc = ACLText::edit(in, out, stanza, entries, count, mode);
    if (rc != ACL_OK) {
        return rc;
    }
    if (edited.empty()) {
        return ACL_SWAP_FAILED;  // an empty list is never swapped in
    }
    *_text = std::move(edited);
    return ACL_OK;
}

int ACLFile::_fail(int rc) {
    _closeFiles();
    _releaseFileLocks();
    return rc;
}
