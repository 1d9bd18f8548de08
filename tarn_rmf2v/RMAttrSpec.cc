#include "tarn_rmf2v/RMAttrSpec.h"

#include <set>
#include <stdexcept>
#include <string>

#include "tarn_rmf/registry/RMSchema.h"

namespace tarn_rmf2v {
namespace {

// Names of the hidden gap columns; they live as long as the process.
const char* reservedName(int id) {
    static const std::vector<std::string>* names = [] {
        auto* v = new std::vector<std::string>;
        for (int i = 0; i < 256; ++i) {
            v->push_back("Reserved" + std::to_string(i));
        }
        return v;
    }();
    if (id < 0 || id >= static_cast<int>(names->size())) {
        throw std::logic_error("attribute id " + std::to_string(id) + " leaves too large a gap");
    }
    return (*names)[static_cast<size_t>(id)].c_str();
}

}  // namespace

const RMAttrSpec* RMAttrTable::byId(int id) const {
    // Ids ascend (check()), so a table without gaps is indexed directly.
    if (id >= 0 && static_cast<size_t>(id) < count_ && specs_[id].id == id) {
        return &specs_[id];
    }
    for (const RMAttrSpec& a : *this) {
        if (a.id == id) {
            return &a;
        }
    }
    return nullptr;
}

const RMAttrSpec* RMAttrTable::byName(std::string_view name) const {
    for (const RMAttrSpec& a : *this) {
        if (name == a.name) {
            return &a;
        }
    }
    return nullptr;
}

void RMAttrTable::check(const char* what) const {
    int last = -1;
    std::set<std::string_view> names;
    for (const RMAttrSpec& a : *this) {
        std::string where = std::string(what) + " attribute " + std::to_string(a.id);
        if (a.id <= last) {
            throw std::logic_error(where + ": ids must ascend");
        }
        if (a.name == nullptr || !tarn_rmf::rmIsIdentifier(a.name) ||
            !names.insert(a.name).second) {
            throw std::logic_error(where + ": name missing, repeated or not an identifier");
        }
        if (!zn_is_value_type(a.type)) {
            throw std::logic_error(where + ": type " + std::to_string(a.type) +
                                   " is not a value type");
        }
        last = a.id;
    }
}

std::vector<tarn_rmf::RMPersAttrDefs> RMAttrTable::tableColumns() const {
    std::vector<tarn_rmf::RMPersAttrDefs> out;
    for (const RMAttrSpec& a : *this) {
        while (static_cast<int>(out.size()) < a.id) {
            out.push_back({reservedName(static_cast<int>(out.size())), ZN_UINT32,
                           tarn_rmf::rmNoDefault(), RM_PROP_NOT_AT_DEFINE | RM_PROP_READ_ONLY});
        }
        out.push_back({a.name, a.type, a.defaultValue, a.props});
    }
    return out;
}

std::vector<RMAttrDef> RMAttrTable::wire() const {
    std::vector<RMAttrDef> out;
    out.reserve(count_);
    for (const RMAttrSpec& a : *this) {
        out.push_back(RMAttrDef{a.name, a.id, a.type, a.props});
    }
    return out;
}

void RMClassSpec::check() const {
    std::string n = name != nullptr ? name : "(unnamed class)";
    classPersistent.check((n + " class").c_str());
    classDynamic.check((n + " dynamic class").c_str());
    persistent.check((n + " resource").c_str());
    dynamic.check((n + " dynamic resource").c_str());
    for (const auto* list : {&classActions, &actions}) {
        std::set<int> ids;
        for (const RMActionSpec& a : *list) {
            if (a.name == nullptr || !ids.insert(a.id).second) {
                throw std::logic_error(n + ": action " + std::to_string(a.id) +
                                       " is unnamed or repeated");
            }
        }
    }
}

RMClassDef RMClassSpec::classDef() const {
    RMClassDef d;
    d.name = name != nullptr ? name : "";
    d.classPersistent = classPersistent.wire();
    d.classDynamic = classDynamic.wire();
    d.persistent = persistent.wire();
    d.dynamic = dynamic.wire();
    for (const RMActionSpec& a : classActions) {
        d.classActions.push_back(RMActionDef{a.name, a.id, a.input});
    }
    for (const RMActionSpec& a : actions) {
        d.actions.push_back(RMActionDef{a.name, a.id, a.input});
    }
    return d;
}

}  // namespace tarn_rmf2v
