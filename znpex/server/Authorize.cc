#include "znpex/server/Authorize.h"

#include <strings.h>

namespace znpex::server {
namespace {

using proto::kUnauthenticated;

bool sameHost(const std::string& a, const std::string& b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool covers(AclScope scope, OpTarget target) {
    switch (scope) {
        case AclScope::Both:
            return true;
        case AclScope::Class:
            return target == OpTarget::Class;
        case AclScope::Resource:
            return target == OpTarget::Resource;
        case AclScope::None:
            break;
    }
    return false;
}

}  // namespace

bool identityMatches(const std::string& pattern, const std::string& identity) {
    if (pattern.empty() || identity.empty()) {
        return false;
    }
    bool unauthenticated = identity == kUnauthenticated;
    if (pattern == kUnauthenticated) {
        return unauthenticated;
    }
    if (unauthenticated) {
        return false;
    }
    if (pattern == "*") {
        return true;
    }
    size_t at = identity.find('@');
    if (at == std::string::npos) {
        return false;
    }
    std::string host = identity.substr(at + 1);
    size_t pat = pattern.find('@');
    if (pat == std::string::npos) {
        return sameHost(pattern, host);  // any user on that host
    }
    return pattern.compare(0, pat, identity, 0, at) == 0 && pat == at &&
           sameHost(pattern.substr(pat + 1), host);
}

bool isAllowed(const AclRules& rules, const std::string& identity, const std::string& className,
               OpTarget target, OpAccess access) {
    const std::vector<AclEntry>* stanza = rules.stanzaFor(className);
    if (stanza == nullptr) {
        return false;
    }
    for (const AclEntry& e : *stanza) {
        if (!covers(e.scope, target) || !identityMatches(e.identity, identity)) {
            continue;
        }
        if (access == OpAccess::Read ? e.read : e.write) {
            return true;
        }
    }
    return false;
}

}  // namespace znpex::server
