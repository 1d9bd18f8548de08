// Names of a class's resource attributes for event expressions: persistent
// attributes are columns 0..n by id, dynamic ones kDynamicBase + id, so a
// single expression can mix both. "Name@P" (previous value) is allowed. The
// schema remembers which columns a compiled expression named, so a watch is
// only evaluated for reports that touch them.
#pragma once

#include <set>
#include <string>

#include "tarn_rmf/registry/RMSelSource.h"
#include "tarn_rmf2v/RMClassDef.h"

namespace znpex::events {

inline constexpr int kDynamicBase = 1 << 16;

inline int columnOf(bool persistent, int id) { return persistent ? id : kDynamicBase + id; }

class EventSchema : public tarn_rmf::RMSelSchema {
public:
    explicit EventSchema(const tarn_rmf2v::RMClassDef& def, bool classLevel = false);
    bool lookup(std::string_view name, int& column, zn_data_type_t& type) const override;
    bool hasPrevious() const override { return true; }

    // Columns looked up since the last clearNamed() (by compiles).
    const std::set<int>& named() const { return named_; }
    void clearNamed() { named_.clear(); }
    // Column of a name (-1 when the class has no such attribute).
    int column(const std::string& name) const;
    const std::string* nameOf(int column) const;

private:
    struct Col {
        std::string name;
        int column;
        zn_data_type_t type;
    };
    std::vector<Col> cols_;
    mutable std::set<int> named_;
};

}  // namespace znpex::events
