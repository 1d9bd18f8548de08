// The list edit on text alone, apart from files, locks and the swap: copies
// the access control list from a reader to a writer with one stanza changed.
// ACLFile runs it between the list file and its new file, or over a list
// held in memory, so both read, match and write lines exactly alike. Holds
// no state between calls; a reader and a writer are used by one edit at a
// time.
#pragma once

#include <cstddef>

class StanzaEntry;

class ACLText {
public:
    // Where the list is read from.
    class Reader {
    public:
        virtual ~Reader() = default;
        // The next byte (0..255), or EOF at the end or after a read error.
        virtual int get() = 0;
        // Whether reading stopped on an error rather than at the end.
        virtual bool failed() const = 0;
    };

    // Where the edited list is written to.
    class Writer {
    public:
        virtual ~Writer() = default;
        // Writes all `len` bytes; false when they could not all be written.
        virtual bool write(const char* data, size_t len) = 0;
    };

    enum Mode { kDeleteEntries = 0, kAddOrUpdate = 1, kDeleteStanza = 2 };

    // Copies the list with the stanza changed: kAddOrUpdate writes the
    // entries after its header (each replacing the first line of its
    // identity) or appends the stanza with them and the LOCALHOST defaults;
    // kDeleteEntries drops the first line of each identity; kDeleteStanza
    // drops its header, entries and empty lines. The caller has checked
    // the stanza name and entries (usableStanzaName, writableEntry). Returns
    // ACLFile::ACL_OK, or ACL_COPY_FAILED or ACL_SWAP_FAILED when reading or
    // writing failed; the writer then holds a partial copy.
    static int edit(Reader& in, Writer& out, const char* stanza, const StanzaEntry* entries,
                    int count, Mode mode);

    // Whether a stanza name reads back as the first token of a header line.
    static bool usableStanzaName(const char* stanza);
    // Whether an entry comes back as one line whose first token is its
    // identity.
    static bool writableEntry(const StanzaEntry& entry);
};
