// The monitoring service's access rules as read from its access control list
// file: one stanza per class name ("OTHER" for classes without their own),
// each a list of entries (identity, what it covers, which permissions).
// parseAclText() is a pure reader of the file format; a text it cannot
// understand gives an error naming the line, never partial rules. Values are
// plain data, safe to share read-only between threads.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace znpex::server {

// What an entry covers: class operations, resource operations, or both.
enum class AclScope { Class, Resource, Both, None };

struct AclEntry {
    std::string identity;  // "user@host", "host", "LOCALHOST", "*", "UNAUTHENT"
    AclScope scope = AclScope::None;
    bool read = false;
    bool write = false;
    int line = 0;  // where it stood, for diagnostics
};

struct AclRules {
    // Stanza name -> its entries in file order. Names compare exactly.
    std::map<std::string, std::vector<AclEntry>> stanzas;

    // The stanza that governs `className`: its own, else "OTHER", else null.
    const std::vector<AclEntry>* stanzaFor(const std::string& className) const;
    size_t entryCount() const;
};

inline constexpr char kOtherStanza[] = "OTHER";
// Lines longer than this are read in pieces of this size, as the editor does.
inline constexpr size_t kAclMaxLine = 511;

struct AclParseError {
    int line = 0;
    std::string message;
    std::string text() const;  // "line 12: unknown type letter 'X'"
};

// Reads the file format. Returns the rules, or nothing with `error` set. A
// text without any stanza is an error: an empty list would lock everyone out.
std::optional<AclRules> parseAclText(const std::string& text, AclParseError* error);

}  // namespace znpex::server
