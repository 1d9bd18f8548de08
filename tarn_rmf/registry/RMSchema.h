// The columns of one registry table: names, types, packed defaults and
// property masks, with a name-to-position map. Built once when a table is
// opened and immutable after, so it is shared by rows, snapshots and compiled
// selections without locking.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/zn_types.h"
#include "tarn_rmf/registry/RMPersAttrDefs.h"
#include "tarn_rmf/registry/RMSelSource.h"

namespace tarn_rmf {

struct RMColumn {
    std::string name;
    zn_data_type_t type = ZN_UNKNOWN;
    std::string packedDefault;  // the default's value encoding (no type byte)
    uint32_t properties = 0;
};

class RMSchema {
public:
    RMSchema() = default;
    // From a class's definitions; throws RMTableError (kBadDefinition) naming
    // `table` for an empty or repeated name, a name that isn't an identifier,
    // a type that can't be stored, or a default that can't be encoded.
    RMSchema(const std::string& table, const RMPersAttrDefs* defs, unsigned count);
    // The name map holds views into the columns, so copies rebuild it.
    RMSchema(const RMSchema& other) : columns_(other.columns_) { rebuildIndex(); }
    RMSchema(RMSchema&& other) : columns_(std::move(other.columns_)) { rebuildIndex(); }
    RMSchema& operator=(const RMSchema& other);
    RMSchema& operator=(RMSchema&& other);
    ~RMSchema() = default;

    // The stored form of the definitions, and back. fromStored returns false
    // on damaged input.
    std::string serialize() const;
    static bool fromStored(std::string_view bytes, RMSchema& out);

    // Merges `defined` into this stored schema: columns present in both must
    // agree on name and type (else RMTableError kSchemaConflict); defaults and
    // properties come from `defined`; columns only in `defined` are appended.
    // Returns the number of appended columns.
    unsigned mergeDefinition(const std::string& table, const RMSchema& defined);

    unsigned size() const { return static_cast<unsigned>(columns_.size()); }
    const RMColumn& column(unsigned i) const { return columns_[i]; }
    // Position of a column, or -1.
    int find(std::string_view name) const;

    bool sameAs(const RMSchema& other) const;

private:
    void rebuildIndex();

    std::vector<RMColumn> columns_;
    std::unordered_map<std::string_view, int> byName_;  // views into columns_
};

// A schema as the selection compiler resolves names against it.
class RMSchemaSource final : public RMSelSchema {
public:
    explicit RMSchemaSource(const RMSchema& schema) : schema_(schema) {}
    bool lookup(std::string_view name, int& column, zn_data_type_t& type) const override {
        column = schema_.find(name);
        if (column < 0) {
            return false;
        }
        type = schema_.column(static_cast<unsigned>(column)).type;
        return true;
    }

private:
    const RMSchema& schema_;
};

// True for names the selection language can spell: [A-Za-z_][A-Za-z0-9_]*.
bool rmIsIdentifier(std::string_view s);

}  // namespace tarn_rmf
