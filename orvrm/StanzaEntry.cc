#include "orvrm/StanzaEntry.h"

#include <cstdio>
#include <cstring>

namespace {

void copyBounded(char* to, const char* from, size_t max) {
    size_t n = from != nullptr ? strnlen(from, max) : 0;
    if (n > 0) {
        std::memcpy(to, from, n);
    }
    to[n] = '\0';
}

}  // namespace

StanzaEntry::StanzaEntry()
    : _identity{}, _type(ACLFile::PERM_CLASS), _level(ACLFile::PERM_NONE), _comment{} {}

void StanzaEntry::init(const char* identity, ACLFile::PermissionType type,
                       ACLFile::PermissionLevel level, const char* comment) {
    copyBounded(_identity, identity, kMaxText);
    _type = type;
    _level = level;
    copyBounded(_comment, comment, kMaxText);
}

void StanzaEntry::dump() const {
    std::printf("[%s][%d][%d][%s]\n", _identity, static_cast<int>(_type), static_cast<int>(_level),
                _comment);
}
