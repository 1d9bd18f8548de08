#include "znpex/di/DiTypes.h"

namespace znpex::di {
namespace {

std::string checkText(const std::string& s, const char* what) {
    if (s.size() > kMaxText) {
        return std::string(what) + " longer than " + std::to_string(kMaxText) + " bytes";
    }
    if (s.find('\0') != std::string::npos || s.find('\n') != std::string::npos) {
        return std::string(what) + " holds a NUL or newline byte";
    }
    return {};
}

std::string checkList(const std::vector<std::string>& l, const char* what,
                      size_t limit = kMaxListItems) {
    if (l.size() > limit) {
        return std::string(what) + " has more than " + std::to_string(limit) + " items";
    }
    for (const auto& s : l) {
        if (s.empty()) {
            return std::string(what) + " holds an empty item";
        }
        if (auto e = checkText(s, what); !e.empty()) {
            return e;
        }
    }
    return {};
}

}  // namespace

std::string validate(const Transaction& t) {
    if (t.op != DI_TABLE_ADD && t.op != DI_TABLE_UPDATE && t.op != DI_TABLE_REMOVE) {
        return "unknown table operation " + std::to_string(static_cast<int>(t.op));
    }
    if (t.nodes.size() + t.groups.size() > kMaxRows) {
        return "more than " + std::to_string(kMaxRows) + " rows";
    }
    for (const auto& n : t.nodes) {
        if (n.hostname.empty()) {
            return "a node entry without a host name";
        }
        for (auto e : {checkText(n.hostname, "host name"), checkList(n.names, "name list"),
                       checkList(n.addresses, "address list")}) {
            if (!e.empty()) {
                return e;
            }
        }
    }
    for (const auto& g : t.groups) {
        if (g.name.empty()) {
            return "a node-group entry without a name";
        }
        for (auto e :
             {checkText(g.name, "group name"), checkList(g.members, "member list", kMaxRows)}) {
            if (!e.empty()) {
                return e;
            }
        }
    }
    return {};
}

}  // namespace znpex::di
