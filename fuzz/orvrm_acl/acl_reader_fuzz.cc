// Fuzz target for the ACL editor's reader: arbitrary bytes (long lines, zero
// bytes, no final newline, stray headers) as the list file, then one edit
// chosen by the first byte. Checks: the result is one of the documented
// codes; a failed edit leaves the file byte for byte as it was; a deletion
// from a stanza that is not there changes nothing; an edit never leaves an
// empty file. Runs in a private ZN_ROOT made on first use.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "orvrm/ACLFile.h"
#include "orvrm/StanzaEntry.h"
#include "platform/paths.h"

namespace {

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeAll(const std::string& path, const std::string& text) {
    zn::paths::ensureParentDir(path);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
        std::abort();
    }
}

std::string root;

void removeRoot() {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
}

void setUpRoot() {
    if (!root.empty()) {
        return;
    }
    const char* base = std::getenv("TMPDIR");
    std::string tmpl =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/orvrm-acl-fuzz-XXXXXX";
    check(mkdtemp(tmpl.data()) != nullptr, "temporary root");
    root = tmpl;
    setenv(zn::paths::kRootEnv, root.c_str(), 1);
    std::atexit(removeRoot);
    zn::paths::ensureParentDir(root + "/bin/cp");
    check(symlink("/bin/cp", (root + "/bin/cp").c_str()) == 0, "cp link");
    writeAll(zn::paths::resolve(zn::paths::kAclDefaultFile), "OTHER\n\tLOCALHOST\t* r  # d\n");
    zn::paths::ensureParentDir(zn::paths::resolve(zn::paths::kAclFile));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    setUpRoot();
    const std::string file = zn::paths::resolve(zn::paths::kAclFile);
    uint8_t op = size > 0 ? data[0] : 0;
    std::string text(reinterpret_cast<const char*>(data) + (size > 0 ? 1 : 0),
                     size > 0 ? size - 1 : 0);
    if (text.empty()) {
        text = "x\n";  // the default copy is not what is fuzzed here
    }
    writeAll(file, text);

    static const char* const kStanzas[] = {"OTHER", "Kor.ManagedNode", "q", "A"};
    const char* stanza = kStanzas[(op >> 2) % 4];
    char id[] = "root@node1";
    char* ids[] = {id, id};
    ACLFile f(nullptr);
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
                check(rc == 0 && readAll(file) == text, "deleting from no stanza changes nothing");
            }
            break;
        }
    }
    std::string after = readAll(file);
    check(rc == 0 || rc == 3 || rc == 4, "documented result");
    if (rc != 0) {
        check(after == text, "a failed edit leaves the file as it was");
    }
    check(!after.empty(), "never an empty list");
    return 0;
}
