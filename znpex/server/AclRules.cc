#include "znpex/server/AclRules.h"

#include <cstddef>

namespace znpex::server {
namespace {

bool isLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

std::vector<std::string> tokens(const std::string& s) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && isBlank(s[i])) {
            ++i;
        }
        size_t start = i;
        while (i < s.size() && !isBlank(s[i])) {
            ++i;
        }
        if (i > start) {
            out.push_back(s.substr(start, i - start));
        }
    }
    return out;
}

bool parseScope(const std::string& tok, AclScope* scope) {
    if (tok == "C") {
        *scope = AclScope::Class;
    } else if (tok == "R") {
        *scope = AclScope::Resource;
    } else if (tok == "*") {
        *scope = AclScope::Both;
    } else {
        return false;
    }
    return true;
}

bool parsePermissions(const std::string& tok, bool* read, bool* write) {
    for (char c : tok) {
        bool* flag = c == 'r' ? read : c == 'w' ? write : nullptr;
        if (flag == nullptr || *flag) {
            return false;  // unknown or repeated letter
        }
        *flag = true;
    }
    return true;
}

// "user@host" needs both halves; plain names ("host", "*", "UNAUTHENT") stand alone.
bool validIdentity(const std::string& id) {
    size_t at = id.find('@');
    if (at == std::string::npos) {
        return true;
    }
    return at > 0 && at + 1 < id.size() && id.find('@', at + 1) == std::string::npos;
}

// The file as the editor sees it: newline-separated, long lines in pieces.
std::vector<std::string> physicalLines(const std::string& text) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        size_t end = nl == std::string::npos ? text.size() : nl;
        std::string line = text.substr(pos, end - pos);
        if (line.empty()) {
            out.emplace_back();
        }
        for (size_t p = 0; p < line.size(); p += kAclMaxLine) {
            out.push_back(line.substr(p, kAclMaxLine));
        }
        pos = end + 1;
    }
    return out;
}

}  // namespace

const std::vector<AclEntry>* AclRules::stanzaFor(const std::string& className) const {
    auto it = stanzas.find(className);
    if (it == stanzas.end()) {
        it = stanzas.find(kOtherStanza);
    }
    return it == stanzas.end() ? nullptr : &it->second;
}

size_t AclRules::entryCount() const {
    size_t n = 0;
    for (const auto& [name, entries] : stanzas) {
        n += entries.size();
    }
    return n;
}

std::string AclParseError::text() const {
    return line > 0 ? "line " + std::to_string(line) + ": " + message : message;
}

std::optional<AclRules> parseAclText(const std::string& text, AclParseError* error) {
    auto fail = [error](int line, std::string message) {
        if (error != nullptr) {
            *error = AclParseError{line, std::move(message)};
        }
        return std::optional<AclRules>();
    };
    AclRules rules;
    std::vector<AclEntry>* current = nullptr;
    int lineNo = 0;
    for (const std::string& line : physicalLines(text)) {
        ++lineNo;
        if (line.find('\0') != std::string::npos) {
            return fail(lineNo, "zero byte in the line");
        }
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (isLetter(line[0])) {
            current = &rules.stanzas[tokens(line).front()];
            continue;
        }
        std::vector<std::string> toks = tokens(line.substr(0, line.find('#')));
        if (toks.empty()) {
            continue;  // filler
        }
        if (current == nullptr) {
            return fail(lineNo, "entry '" + toks[0] + "' before any stanza header");
        }
        if (toks.size() > 3) {
            return fail(lineNo, "unexpected text '" + toks[3] + "' after the permissions");
        }
        AclEntry e;
        e.identity = toks[0];
        e.line = lineNo;
        if (!validIdentity(e.identity)) {
            return fail(lineNo, "malformed identity '" + e.identity + "'");
        }
        if (toks.size() > 1 && !parseScope(toks[1], &e.scope)) {
            return fail(lineNo, "unknown type '" + toks[1] + "' (expected C, R or *)");
        }
        if (toks.size() > 2 && !parsePermissions(toks[2], &e.read, &e.write)) {
            return fail(lineNo, "unknown permissions '" + toks[2] + "' (expected r, w or rw)");
        }
        current->push_back(std::move(e));
    }
    if (rules.stanzas.empty()) {
        return fail(0, "no stanza in the file");
    }
    return rules;
}

}  // namespace znpex::server
