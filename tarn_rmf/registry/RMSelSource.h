// What the selection language needs from whatever it selects over, so the
// same compiled selection runs over registry rows and, later, over event
// data: a schema that resolves attribute names at compile time, and a row
// accessor that hands out values by column at evaluation time.
#pragma once

#include <string_view>

#include "platform/zn_types.h"
#include "tarn_rmf/registry/RMValueView.h"

namespace tarn_rmf {

// Name resolution at compile time. Implementations are immutable while a
// compile runs.
class RMSelSchema {
public:
    virtual ~RMSelSchema() = default;
    // The column and type of an attribute; false when there is none.
    virtual bool lookup(std::string_view name, int& column, zn_data_type_t& type) const = 0;
    // Whether "Name@P" (the previous value) may be used.
    virtual bool hasPrevious() const { return false; }
};

// One row (or one event) at evaluation time.
class RMValueSource {
public:
    virtual ~RMValueSource() = default;
    // The value of a column; false when the row doesn't carry it (not
    // reported). The view must stay valid until the evaluation returns.
    virtual bool value(int column, RMValueView& out) const = 0;
    // The previous value of a column, for "Name@P"; false when none.
    virtual bool previous(int column, RMValueView& out) const {
        (void)column;
        (void)out;
        return false;
    }
};

}  // namespace tarn_rmf
