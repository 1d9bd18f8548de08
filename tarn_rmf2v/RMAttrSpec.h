// One declaration of a class's attributes and actions, from which every other
// view is derived: the registry table's columns, the definition the service
// shows clients, the define and set rules (required, read-only, type). A
// class keeps static arrays of RMAttrSpec and states them once in an
// RMClassSpec:
//
//   const RMAttrSpec kResource[] = {
//       {0, "ResourceHandle", ZN_RSRC_HANDLE_PTR, RM_PROP_NOT_AT_DEFINE | RM_PROP_READ_ONLY,
//       rmNoDefault()}, {1, "Name", ZN_CHAR_PTR, RM_PROP_REQUIRED | RM_PROP_SELECTABLE,
//       rmStrDefault("")},
//   };
//   const RMClassSpec kSpec{"Kor.Example", "/Kor/Example/Class", "/Kor/Example/Resources",
//                           kClassAttrs, kNoAttrs, kResource, kDynamic};
//
// Attribute ids are positions in the registry table: ids may leave gaps
// (an id the class no longer offers), which the table fills with hidden
// columns so that every id keeps its position. Immutable; thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/zn_types.h"
#include "tarn_rmf/registry/RMPersAttrDefs.h"
#include "tarn_rmf2v/RMClassDef.h"

namespace tarn_rmf2v {

// The property word of an attribute, as the service shows it to clients.
enum RMAttrProp : uint32_t {
    RM_PROP_CONFIG = 0x01,         // a change of it is a change of the resource's configuration
    RM_PROP_SELECTABLE = 0x02,     // may be named in selection strings
    RM_PROP_REQUIRED = 0x04,       // must be given when a resource is defined
    RM_PROP_OPTIONAL = 0x08,       // may be given when a resource is defined
    RM_PROP_NOT_AT_DEFINE = 0x10,  // kept by the resource manager: never given at define
    RM_PROP_READ_ONLY = 0x20,      // cannot be changed once the resource exists
};

struct RMAttrSpec {
    int id;
    const char* name;
    zn_data_type_t type;
    uint32_t props;
    zn_value_t defaultValue;  // of `type`; tarn_rmf::rmNoDefault() for none

    bool readOnly() const { return (props & RM_PROP_READ_ONLY) != 0; }
    bool notAtDefine() const { return (props & RM_PROP_NOT_AT_DEFINE) != 0; }
    bool required() const { return (props & RM_PROP_REQUIRED) != 0; }
};

// The attributes of one kind (class or resource, persistent or dynamic).
class RMAttrTable {
public:
    constexpr RMAttrTable() = default;
    template <size_t N>
    constexpr RMAttrTable(const RMAttrSpec (&specs)[N]) : specs_(specs), count_(N) {}

    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    const RMAttrSpec* begin() const { return specs_; }
    const RMAttrSpec* end() const { return specs_ + count_; }
    // The attribute with this id, or null when the class does not offer it.
    const RMAttrSpec* byId(int id) const;
    const RMAttrSpec* byName(std::string_view name) const;
    // The highest id (-1 when empty).
    int maxId() const { return count_ == 0 ? -1 : specs_[count_ - 1].id; }

    // Throws std::logic_error unless ids ascend from 0 or more and names are
    // unique identifiers: a class that states its table wrongly never starts.
    void check(const char* what) const;

    // The registry table's columns: one per id from 0 to maxId(), hidden
    // "Reserved<id>" columns in the gaps.
    std::vector<tarn_rmf::RMPersAttrDefs> tableColumns() const;
    // As the service shows them.
    std::vector<RMAttrDef> wire() const;

private:
    const RMAttrSpec* specs_ = nullptr;
    size_t count_ = 0;
};

struct RMActionSpec {
    int id;
    const char* name;
    // Element types of the input, in order (empty: none or free form).
    std::vector<zn_data_type_t> input;
};

struct RMClassSpec {
    const char* name;
    // Registry tables ("/Kor/<Class>/Class", "/Kor/<Class>/Resources"); null
    // for a class that keeps none.
    const char* classTable = nullptr;
    const char* resourceTable = nullptr;
    RMAttrTable classPersistent = {};
    RMAttrTable classDynamic = {};
    RMAttrTable persistent = {};
    RMAttrTable dynamic = {};
    std::vector<RMActionSpec> classActions = {};
    std::vector<RMActionSpec> actions = {};

    // Checks every table (see RMAttrTable::check).
    void check() const;
    // What the service registers for the class.
    RMClassDef classDef() const;
};

}  // namespace tarn_rmf2v
