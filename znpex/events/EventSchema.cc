#include "znpex/events/EventSchema.h"

namespace znpex::events {

EventSchema::EventSchema(const tarn_rmf2v::RMClassDef& def, bool classLevel) {
    const auto& pers = classLevel ? def.classPersistent : def.persistent;
    const auto& dyn = classLevel ? def.classDynamic : def.dynamic;
    for (const auto& a : pers) {
        cols_.push_back({a.name, columnOf(true, a.id), a.type});
    }
    for (const auto& a : dyn) {
        cols_.push_back({a.name, columnOf(false, a.id), a.type});
    }
}

bool EventSchema::lookup(std::string_view name, int& column, zn_data_type_t& type) const {
    for (const auto& c : cols_) {
        if (c.name == name) {
            column = c.column;
            type = c.type;
            named_.insert(c.column);
            return true;
        }
    }
    return false;
}

int EventSchema::column(const std::string& name) const {
    for (const auto& c : cols_) {
        if (c.name == name) {
            return c.column;
        }
    }
    return -1;
}

const std::string* EventSchema::nameOf(int column) const {
    for (const auto& c : cols_) {
        if (c.column == column) {
            return &c.name;
        }
    }
    return nullptr;
}

}  // namespace znpex::events
