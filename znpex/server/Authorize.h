// The authorisation decision: may this identity perform a read or a write
// class or resource operation on this class, under these rules? Pure
// functions of their arguments; the permissions of every matching entry of
// the governing stanza add up.
#pragma once

#include <string>

#include "znpex/proto/ServiceMessages.h"
#include "znpex/server/AclRules.h"

namespace znpex::server {

enum class OpTarget { Class, Resource };
enum class OpAccess { Read, Write };

// Does the file entry `pattern` ("user@host", "host", "*", "UNAUTHENT") name
// `identity` ("user@host" or "UNAUTHENT")? Host names compare without regard
// to letter case, user names exactly; "*" names every authenticated identity.
bool identityMatches(const std::string& pattern, const std::string& identity);

bool isAllowed(const AclRules& rules, const std::string& identity, const std::string& className,
               OpTarget target, OpAccess access);

}  // namespace znpex::server
