#include "orvctl/NodeChanges.h"

#include <set>

#include "orvctl/NodeWords.h"
#include "znpex/proto/ValueCodec.h"

namespace orvctl {
namespace {

using znpex::proto::Json;

Json rawOf(const zn::OwnedValue* v) {
    return v != nullptr ? znpex::proto::encodeBareValue(v->type(), v->value()) : Json();
}

std::string textOf(const std::string& name, const zn::OwnedValue* v) {
    std::string s = v != nullptr ? attrText(name, v->type(), v->value()) : "";
    return s.empty() ? "\"\"" : s;
}

}  // namespace

std::vector<AttrChange> changesBetween(const ResourceValues& before, const ResourceValues& after) {
    std::set<std::string> names;
    for (const auto* r : {&before, &after}) {
        for (const auto& [name, v] : r->values) {
            names.insert(name);
        }
    }
    std::vector<AttrChange> out;
    for (const auto& name : names) {
        if (before.errors.count(name) != 0 || after.errors.count(name) != 0) {
            continue;
        }
        const zn::OwnedValue* was = before.find(name);
        const zn::OwnedValue* now = after.find(name);
        Json oldValue = rawOf(was);
        Json newValue = rawOf(now);
        if (oldValue != newValue) {
            out.push_back({name, textOf(name, was), textOf(name, now), std::move(oldValue),
                           std::move(newValue)});
        }
    }
    return out;
}

std::string changeLine(const AttrChange& c) {
    return c.name + ": " + c.oldText + " -> " + c.newText;
}

Json changesJson(const std::vector<AttrChange>& changes) {
    Json changed = Json::object();
    for (const auto& c : changes) {
        changed[c.name] = {{"old", c.oldValue}, {"new", c.newValue}};
    }
    return {{"changed", std::move(changed)}};
}

}  // namespace orvctl
