// One entry of the access control list to write or to remove: identity (a
// user at a host, a host, "*", ...), permission type and level, comment. A
// plain value: texts are bounded copies, so an entry owns nothing and may be
// copied freely; not synchronised.
#pragma once

#include <cstddef>

#include "orvrm/ACLFile.h"

class StanzaEntry {
  public:
    static constexpr size_t kMaxText = 128;

    StanzaEntry();

    // Fills all four fields; a null text leaves that field empty, a longer
    // one is cut at kMaxText characters.
    void init(const char* identity, ACLFile::PermissionType type, ACLFile::PermissionLevel level,
              const char* comment);

    // Prints "[identity][type][level][comment]\n" to standard output.
    void dump() const;

    const char* identity() const { return _identity; }
    ACLFile::PermissionType type() const { return _type; }
    ACLFile::PermissionLevel level() const { return _level; }
    const char* comment() const { return _comment; }

  private:
    char _identity[kMaxText + 1];
    ACLFile::PermissionType _type;
    ACLFile::PermissionLevel _level;
    char _comment[kMaxText + 1];
};
