// The row operations of a registry table, as class code sees them through
// getClassTable()/getResourceTable(). Every operation throws RMTableError on
// failure and then has changed nothing. Thread safety: any number of readers
// (select, getMetadata) run in parallel; writers (add, change, delete) run one
// at a time per table; readers never see a half-applied change.
#pragma once

#include <memory>
#include <string>

#include "platform/zn_types.h"
#include "tarn_rmf/registry/RMRowSet.h"
#include "tarn_rmf/registry/RMSelParams.h"
#include "tarn_rmf/registry/RMSelection.h"

namespace tarn_rmf {

// One column value to write: by name, or by position when name is null. The
// value is read during the call and not kept.
struct RMFieldValue {
    const char* name;
    int column;
    zn_data_type_t type;
    zn_value_t value;
};

class RMBaseTable {
public:
    virtual ~RMBaseTable() = default;

    virtual const std::string& getPath() const = 0;
    virtual const RMSchema& getSchema() const = 0;

    // Compiles a selection against this table's columns (a cached compile is
    // reused); throws kSelection. Null, "" and "*" select every row.
    virtual std::shared_ptr<const RMSelection> compileSelection(const char* selection) const = 0;

    // The rows matching `selection`, with its $parameters from `params`.
    virtual RMRowSet select(const char* selection, const RMSelParams* params = nullptr) const = 0;
    // Every row, in row order.
    virtual RMRowSet getMetadata() const = 0;
    // The row with this id; throws kNoSuchRow.
    virtual RMRowSet getRow(RMRowId id) const = 0;

    // Adds a row: the given columns, defaults for the others. Returns its id.
    virtual RMRowId addRow(const RMFieldValue* values, unsigned count) = 0;
    // Sets columns of every row matching the selection, as one change.
    // Returns how many rows changed.
    virtual unsigned changeRows(const char* selection, const RMSelParams* params,
                                const RMFieldValue* values, unsigned count) = 0;
    virtual void changeRow(RMRowId id, const RMFieldValue* values, unsigned count) = 0;
    // Deletes every row matching the selection, as one change; returns how many.
    virtual unsigned deleteRows(const char* selection, const RMSelParams* params = nullptr) = 0;
    virtual void deleteRow(RMRowId id) = 0;
};

}  // namespace tarn_rmf
