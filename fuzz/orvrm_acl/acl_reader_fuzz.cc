// Fuzz target for the ACL editor's reader: arbitrary bytes (long lines, zero
// bytes, no final newline, stray headers) as the list, then one edit chosen
// by the first byte. Checks: the result is one of the documented codes; a
// failed edit leaves the list byte for byte as it was; a deletion from a
// stanza that is not there changes nothing; an edit never leaves an empty
// list. The list is edited in memory, through the same text edit as the
// file, so no input costs a file write or a sync.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "orvrm/ACLFile.h"
#include "orvrm/StanzaEntry.h"

namespace {

using fuzzsupport::check;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t op = size > 0 ? data[0] : 0;
    std::string text(reinterpret_cast<const char*>(data) + (size > 0 ? 1 : 0),
                     size > 0 ? size - 1 : 0);
    if (text.empty()) {
        text = "x\n";  // an empty list file is replaced by the default before any edit
    }
    std::string list = text;

    static const char* const kStanzas[] = {"OTHER", "Kor.ManagedNode", "q", "A"};
    const char* stanza = kStanzas[(op >> 2) % 4];
    char id[] = "root@node1";
    char* ids[] = {id, id};
    ACLFile f = ACLFile::inMemory(list);
    int rc = 0;
    switch (op % 4) {
        case 0: {
            StanzaEntry e[2];
            e[0].init("root@node1", ACLFile::PERM_BOTH, ACLFile::PERM_READ_WRITE, "fuzz");
            e[1].init("node1", ACLFile::PERM_BOTH, ACLFile::PERM_READ, "");
            rc = f.AddOrUpdateEntries(stanza, e, 2);
            break;
        }
        case 1:
            rc = f.DeleteEntries(stanza, ids, 2);
            break;
        case 2:
            rc = f.DeleteStanza(stanza);
            break;
        default: {
            rc = f.DeleteEntries("Zz.NotInTheFile", ids, 1);
            if (text.find("Zz.NotInTheFile") == std::string::npos) {
                check(rc == 0 && list == text, "deleting from no stanza changes nothing");
            }
            break;
        }
    }
    check(rc == 0 || rc == 3 || rc == 4, "documented result");
    if (rc != 0) {
        check(list == text, "a failed edit leaves the list as it was");
    }
    check(!list.empty(), "never an empty list");
    return 0;
}
