// The ACL editor's edits, table-driven: each row gives the file before, one
// edit, its result and the exact file after. Plus entry formatting, the
// default copy, the backup, and refused inputs.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "orvrm/ACLFile.h"
#include "orvrm/StanzaEntry.h"
#include "tests/orvrm/AclTestRoot.h"

namespace {

using testsupport::AclTestRoot;
using testsupport::entryLine;
using testsupport::readFile;
using testsupport::writeFile;

StanzaEntry entry(const char* id, ACLFile::PermissionType t, ACLFile::PermissionLevel l,
                  const char* comment) {
    StanzaEntry e;
    e.init(id, t, l, comment);
    return e;
}

// The lines the node-management users write for host H.
std::string rootLine(const std::string& h) {
    return entryLine("root@" + h, "*", "rw", "grant root on " + h + " r/w access");
}
std::string hostLine(const std::string& h) {
    return entryLine(h, "*", "r", "everyone else on " + h + " has read-only access");
}
const std::string kLocalDefaults =
    entryLine("root@LOCALHOST", "*", "rw", "root on this node always has access") +
    entryLine("LOCALHOST", "*", "r", "every one else on this node can read only");

const std::string kBase =
    "# head comment\n"
    "OTHER\n" +
    entryLine("root@LOCALHOST", "*", "rw", "c1") + "Kor.ManagedNode\n" + rootLine("n1") +
    hostLine("n1") +
    "\n"
    "# managed node comment\n" +
    "Kor.NodeAuthenticate\n" + entryLine("*", "C", "rw", "Everyone has access to the class");

int addNode(ACLFile& f, const std::string& h) {
    std::string c1 = "grant root on " + h + " r/w access";
    std::string c2 = "everyone else on " + h + " has read-only access";
    StanzaEntry e[2] = {
        entry(("root@" + h).c_str(), ACLFile::PERM_BOTH, ACLFile::PERM_READ_WRITE, c1.c_str()),
        entry(h.c_str(), ACLFile::PERM_BOTH, ACLFile::PERM_READ, c2.c_str())};
    return f.AddOrUpdateEntries("Kor.ManagedNode", e, 2);
}

int deleteIds(ACLFile& f, const char* stanza, std::vector<std::string> ids) {
    std::vector<char*> p;
    for (auto& s : ids) {
        p.push_back(s.data());
    }
    return f.DeleteEntries(stanza, p.data(), static_cast<int>(p.size()));
}

struct Row {
    const char* name;
    std::optional<std::string> before;  // nullopt: no file
    std::function<int(ACLFile&)> edit;
    int rc;
    std::string after;
};

std::vector<Row> rows() {
    return {
        {"add to a stanza puts new lines right after its header", kBase,
         [](ACLFile& f) { return addNode(f, "n2"); }, 0,
         "# head comment\nOTHER\n" + entryLine("root@LOCALHOST", "*", "rw", "c1") +
             "Kor.ManagedNode\n" + rootLine("n2") + hostLine("n2") + rootLine("n1") +
             hostLine("n1") + "\n# managed node comment\nKor.NodeAuthenticate\n" +
             entryLine("*", "C", "rw", "Everyone has access to the class")},
        {"add replaces the first line of the same identity in any case",
         "Kor.ManagedNode\n\t  ROOT@N1\t* r  # old\n\troot@n1 C w # second\n\tN1\tC r\n",
         [](ACLFile& f) { return addNode(f, "n1"); }, 0,
         "Kor.ManagedNode\n" + rootLine("n1") + hostLine("n1") + "\troot@n1 C w # second\n"},
        {"add to a missing stanza appends it with the local defaults", kBase,
         [](ACLFile& f) {
             StanzaEntry e[2] = {
                 entry("*", ACLFile::PERM_CLASS, ACLFile::PERM_READ_WRITE,
                       "Everyone has access to the class"),
                 entry("UNAUTHENT", ACLFile::PERM_CLASS, ACLFile::PERM_READ_WRITE, nullptr)};
             return f.AddOrUpdateEntries("Kor.NewClass", e, 2);
         },
         0,
         kBase + "Kor.NewClass\n" + entryLine("*", "C", "rw", "Everyone has access to the class") +
             entryLine("UNAUTHENT", "C", "rw", "") + kLocalDefaults},
        {"stanza names differing in case are different stanzas", kBase,
         [](ACLFile& f) {
             StanzaEntry e = entry("x", ACLFile::PERM_RESOURCE, ACLFile::PERM_WRITE, "");
             return f.AddOrUpdateEntries("kor.managednode", &e, 1);
         },
         0, kBase + "kor.managednode\n" + entryLine("x", "R", "w", "") + kLocalDefaults},
        {"delete the node's entries", kBase,
         [](ACLFile& f) {
             return deleteIds(f, "Kor.ManagedNode", {"root@n1", "N1"});
         },
         0,
         "# head comment\nOTHER\n" + entryLine("root@LOCALHOST", "*", "rw", "c1") +
             "Kor.ManagedNode\n\n# managed node comment\nKor.NodeAuthenticate\n" +
             entryLine("*", "C", "rw", "Everyone has access to the class")},
        {"adding then removing a node restores the file", kBase,
         [](ACLFile& f) {
             int rc = addNode(f, "node7.cluster");
             rc = rc != 0
                      ? rc
                      : deleteIds(f, "Kor.ManagedNode", {"root@node7.cluster", "node7.cluster"});
             return rc != 0 ? rc : deleteIds(f, "OTHER", {"root@node7.cluster"});
         },
         0, kBase},
        {"delete with no names still rewrites the file", kBase,
         [](ACLFile& f) {
             int rc = f.DeleteEntries("Kor.ManagedNode", nullptr, 3);
             return rc != 0 ? rc : f.DeleteEntries("Kor.ManagedNode", nullptr, -2);
         },
         0, kBase},
        {"delete from a missing stanza keeps the file as it was", kBase,
         [](ACLFile& f) { return deleteIds(f, "Kor.Missing", {"root@n1"}); }, 0, kBase},
        {"delete with a stanza name in another case finds nothing", kBase,
         [](ACLFile& f) { return deleteIds(f, "kor.ManagedNode", {"root@n1"}); }, 0, kBase},
        {"two requests of one identity remove two lines",
         "S\n\tdup\tC r  # a\n\tother\n\tDUP\tR r\n\tdup # third\n",
         [](ACLFile& f) {
             return deleteIds(f, "S", {"dup", "dup"});
         },
         0, "S\n\tother\n\tdup # third\n"},
        {"comment lines are never matched", "S\n#dup\n# dup\n\tdup\n",
         [](ACLFile& f) {
             return deleteIds(f, "S", {"dup", "#dup"});
         },
         0, "S\n#dup\n# dup\n"},
        {"delete a stanza keeps its comments and the next stanza", kBase,
         [](ACLFile& f) { return f.DeleteStanza("Kor.ManagedNode"); }, 0,
         "# head comment\nOTHER\n" + entryLine("root@LOCALHOST", "*", "rw", "c1") +
             "# managed node comment\nKor.NodeAuthenticate\n" +
             entryLine("*", "C", "rw", "Everyone has access to the class")},
        {"delete the last stanza", kBase,
         [](ACLFile& f) { return f.DeleteStanza("Kor.NodeAuthenticate"); }, 0,
         "# head comment\nOTHER\n" + entryLine("root@LOCALHOST", "*", "rw", "c1") +
             "Kor.ManagedNode\n" + rootLine("n1") + hostLine("n1") + "\n# managed node comment\n"},
        {"delete a missing stanza keeps the file", kBase,
         [](ACLFile& f) { return f.DeleteStanza("Kor.Nothing"); }, 0, kBase},
        {"an edit that would leave an empty file is refused", "Only\n\tentry\n\n",
         [](ACLFile& f) { return f.DeleteStanza("Only"); }, 4, "Only\n\tentry\n\n"},
        {"a last line without newline is kept", "A\n\tx\nB\n\ty # no newline",
         [](ACLFile& f) { return deleteIds(f, "A", {"x"}); }, 0, "A\nB\n\ty # no newline"},
        {"lines over 511 characters are copied in pieces",
         "A\n\t" + std::string(1200, '1') + "\n\tkill\n",
         [](ACLFile& f) { return deleteIds(f, "A", {"kill"}); }, 0,
         "A\n\t" + std::string(1200, '1') + "\n"},
        {"a piece starting with a letter reads as a header",
         "A\n\t" + std::string(600, 'q') + "\n\tkill\n",
         [](ACLFile& f) {
             int rc = deleteIds(f, "A", {"kill"});
             return rc != 0 ? rc : deleteIds(f, std::string(90, 'q').c_str(), {"kill"});
         },
         0, "A\n\t" + std::string(600, 'q') + "\n"},
        {"identities compare over at most 128 characters",
         "A\n\t" + std::string(128, 'a') + "TAIL\n\tkeep\n",
         [](ACLFile& f) { return deleteIds(f, "A", {std::string(128, 'A')}); }, 0, "A\n\tkeep\n"},
        {"a long identity is not cut when written", "A\n",
         [](ACLFile& f) {
             std::string id(60, 'i');
             StanzaEntry e = entry(id.c_str(), ACLFile::PERM_BOTH, ACLFile::PERM_NONE, "c");
             return f.AddOrUpdateEntries("A", &e, 1);
         },
         0, "A\n\t" + std::string(60, 'i') + "\t*    # c\n"},
        {"an empty file is replaced by the default first", std::string(),
         [](ACLFile& f) { return addNode(f, "n3"); }, 0,
         std::string(AclTestRoot::kDefaultText) + "Kor.ManagedNode\n" + rootLine("n3") +
             hostLine("n3") + kLocalDefaults},
        {"a missing file is replaced by the default first", std::nullopt,
         [](ACLFile& f) { return f.DeleteStanza("OTHER"); }, 0, "# platform default\n"},
    };
}

TEST(ACLFileEdits, Table) {
    for (const Row& r : rows()) {
        SCOPED_TRACE(r.name);
        AclTestRoot root;
        if (r.before) {
            writeFile(root.file(), *r.before);
        }
        ACLFile f(nullptr);
        EXPECT_EQ(r.edit(f), r.rc);
        EXPECT_EQ(readFile(root.file()), r.after);
        EXPECT_FALSE(testsupport::exists(root.newFile()) && r.rc == 0)
            << "a successful edit leaves no new file behind";
    }
}

// The same edits on a list held in memory: every row that starts from a
// list (the default copy is the file's business) gives the same result and
// text, and no file or lock is touched.
TEST(ACLFileEdits, TableInMemory) {
    for (const Row& r : rows()) {
        if (!r.before || r.before->empty()) {
            continue;
        }
        SCOPED_TRACE(r.name);
        AclTestRoot root;
        std::string text = *r.before;
        ACLFile f = ACLFile::inMemory(text);
        EXPECT_EQ(r.edit(f), r.rc);
        EXPECT_EQ(text, r.after);
        EXPECT_FALSE(testsupport::exists(root.file()));
        EXPECT_FALSE(testsupport::exists(root.lockFile()));
    }
}

TEST(ACLFileEdits, InMemoryEmptyTextAndRefusals) {
    std::string text;
    ACLFile f = ACLFile::inMemory(text);
    EXPECT_EQ(f.DeleteStanza("OTHER"), ACLFile::ACL_SWAP_FAILED) << "never an empty list";
    EXPECT_EQ(text, "");
    StanzaEntry e = entry("x", ACLFile::PERM_RESOURCE, ACLFile::PERM_WRITE, "");
    EXPECT_EQ(f.AddOrUpdateEntries("S", &e, 1), ACLFile::ACL_OK);
    EXPECT_EQ(text, "S\n" + entryLine("x", "R", "w", "") + kLocalDefaults);
    const std::string before = text;
    EXPECT_EQ(f.AddOrUpdateEntries("1S", &e, 1), ACLFile::ACL_COPY_FAILED);
    EXPECT_EQ(f.DeleteStanza(nullptr), ACLFile::ACL_COPY_FAILED);
    EXPECT_EQ(text, before);
}

TEST(ACLFileEdits, RefusedInputsTouchNothing) {
    AclTestRoot root;
    writeFile(root.file(), kBase);
    StanzaEntry good = entry("ok", ACLFile::PERM_CLASS, ACLFile::PERM_READ, "fine");
    struct Bad {
        const char* name;
        const char* stanza;
        StanzaEntry e;
        int count;
    };
    const std::vector<Bad> bad = {
        {"null stanza", nullptr, good, 1},
        {"empty stanza", "", good, 1},
        {"stanza with a blank", "Kor.Managed Node", good, 1},
        {"stanza not starting with a letter", "1Kor", good, 1},
        {"stanza with a newline", "Kor\nX", good, 1},
        {"empty identity", "S", entry("", ACLFile::PERM_CLASS, ACLFile::PERM_READ, ""), 1},
        {"identity with a blank", "S", entry("a b", ACLFile::PERM_CLASS, ACLFile::PERM_READ, ""),
         1},
        {"identity with a newline", "S", entry("a\nb", ACLFile::PERM_CLASS, ACLFile::PERM_READ, ""),
         1},
        {"comment with a newline", "S",
         entry("a", ACLFile::PERM_CLASS, ACLFile::PERM_READ, "x\nOTHER"), 1},
        {"negative count", "S", good, -1},
    };
    ACLFile f(nullptr);
    for (const Bad& b : bad) {
        EXPECT_EQ(f.AddOrUpdateEntries(b.stanza, &b.e, b.count), ACLFile::ACL_COPY_FAILED)
            << b.name;
    }
    EXPECT_EQ(f.AddOrUpdateEntries("S", nullptr, 1), ACLFile::ACL_COPY_FAILED);
    EXPECT_EQ(f.DeleteStanza(nullptr), ACLFile::ACL_COPY_FAILED);
    EXPECT_EQ(readFile(root.file()), kBase);
    EXPECT_FALSE(testsupport::exists(root.backup()));
    EXPECT_FALSE(testsupport::exists(root.newFile()));
}

TEST(ACLFileBackup, FirstSwapOfAnObjectKeepsTheOldFileAsAHardLink) {
    AclTestRoot root;
    writeFile(root.file(), kBase);
    struct stat before;
    ASSERT_EQ(::stat(root.file().c_str(), &before), 0);
    {
        ACLFile f(nullptr);
        ASSERT_EQ(deleteIds(f, "Kor.Missing", {"x"}), 0);
        struct stat orig;
        ASSERT_EQ(::stat(root.backup().c_str(), &orig), 0);
        EXPECT_EQ(orig.st_ino, before.st_ino) << "the backup is the old file itself";
        EXPECT_EQ(readFile(root.backup()), kBase);
        ASSERT_EQ(addNode(f, "n9"), 0);
        EXPECT_EQ(readFile(root.backup()), kBase) << "one object makes one backup";
    }
    std::string second = readFile(root.file());
    ACLFile g(nullptr);
    ASSERT_EQ(g.DeleteStanza("Kor.NodeAuthenticate"), 0);
    EXPECT_EQ(readFile(root.backup()), second) << "a new object makes its own backup";
}

TEST(ACLFileBackup, EmptyFileGetsNoBackupButTheDefault) {
    AclTestRoot root;
    writeFile(root.file(), "");
    ACLFile f(nullptr);
    ASSERT_EQ(deleteIds(f, "OTHER", {"nobody"}), 0);
    // The default replaced the empty file before the swap: that copy is the backup.
    EXPECT_EQ(readFile(root.backup()), AclTestRoot::kDefaultText);
    EXPECT_EQ(readFile(root.file()), AclTestRoot::kDefaultText);
}

TEST(ACLFileOpen, MissingDefaultOrUnusablePathFailsToOpen) {
    AclTestRoot root;
    ::unlink(root.defaultFile().c_str());
    ACLFile f(nullptr);
    EXPECT_EQ(addNode(f, "n1"), ACLFile::ACL_OPEN_FAILED);
    EXPECT_FALSE(testsupport::exists(root.file()));
    EXPECT_FALSE(testsupport::exists(root.newFile()));

    std::string tooLong = root.root() + "/" + std::string(600, 'p');
    ACLFile g(tooLong.c_str());
    EXPECT_EQ(g.DeleteStanza("OTHER"), ACLFile::ACL_OPEN_FAILED);

    std::string blank = root.root() + "/with blank/znpex.acls";
    zn::paths::ensureParentDir(blank);
    testsupport::writeFile(root.defaultFile(), AclTestRoot::kDefaultText);
    ACLFile h(blank.c_str());
    EXPECT_EQ(h.DeleteStanza("OTHER"), ACLFile::ACL_OPEN_FAILED)
        << "the copy command cannot carry a path with blanks";
    EXPECT_FALSE(testsupport::exists(root.root() + "/with blank/znpex.acls"));

    // The copy runs the rooted cp: without it there is no copy either.
    ::unlink((root.root() + "/bin/cp").c_str());
    EXPECT_EQ(addNode(f, "n1"), ACLFile::ACL_OPEN_FAILED);
    EXPECT_FALSE(testsupport::exists(root.file()));
}

TEST(ACLFileOpen, ExplicitPathAndPermissionsAreKept) {
    AclTestRoot root;
    std::string path = root.root() + "/elsewhere/my.acls";
    writeFile(path, kBase);
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    ACLFile f(path.c_str());
    ASSERT_EQ(addNode(f, "n5"), 0);
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_NE(readFile(path).find(rootLine("n5")), std::string::npos);
    EXPECT_FALSE(testsupport::exists(root.file()));
}

TEST(ACLFileFormat, PermissionLetters) {
    struct Letters {
        int value;
        const char* type;
        const char* level;
    };
    for (Letters r : {Letters{0, "C", ""}, Letters{1, "R", "r"}, Letters{2, "*", "w"},
                      Letters{3, "", "rw"}, Letters{4, "", ""}, Letters{-1, "", ""}}) {
        EXPECT_STREQ(get_permission_type(static_cast<ACLFile::PermissionType>(r.value)), r.type);
        EXPECT_STREQ(get_permission_level(static_cast<ACLFile::PermissionLevel>(r.value)), r.level);
    }
}

TEST(ACLFileFormat, StanzaEntryBoundsAndDump) {
    std::string longText(200, 'L');
    StanzaEntry e;
    e.init(longText.c_str(), ACLFile::PERM_RESOURCE, ACLFile::PERM_WRITE, longText.c_str());
    EXPECT_EQ(std::string(e.identity()), std::string(128, 'L'));
    EXPECT_EQ(std::string(e.comment()), std::string(128, 'L'));
    e.init(nullptr, ACLFile::PERM_BOTH, ACLFile::PERM_READ_WRITE, nullptr);
    EXPECT_STREQ(e.identity(), "");
    EXPECT_STREQ(e.comment(), "");
    e.init("root@n1", ACLFile::PERM_BOTH, ACLFile::PERM_READ, "c");
    testing::internal::CaptureStdout();
    e.dump();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[root@n1][2][1][c]\n");
}

TEST(ACLFileFormat, ShippedDefaultGrantsLocalRootAllAndLocalUsersRead) {
    std::string shipped = readFile(std::string(ORVRM_SOURCE_DIR) + "/etc/znpex.acls");
    ASSERT_FALSE(shipped.empty());
    AclTestRoot root(shipped);
    ACLFile f(nullptr);
    // Deleting nothing from OTHER copies the default in and keeps it intact.
    ASSERT_EQ(deleteIds(f, "OTHER", {"nobody"}), 0);
    EXPECT_EQ(readFile(root.file()), shipped);
    const std::string other = "\nOTHER\n" + kLocalDefaults;
    ASSERT_GE(shipped.size(), other.size());
    EXPECT_EQ(shipped.substr(shipped.size() - other.size()), other);
    ASSERT_EQ(deleteIds(f, "OTHER", {"root@localhost", "localhost"}), 0);
    EXPECT_EQ(readFile(root.file()), shipped.substr(0, shipped.size() - kLocalDefaults.size()));
}

}  // namespace
