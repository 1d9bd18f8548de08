// Fuzz target for what the registry reads back from its database file: the
// first byte picks a stored table definition (0) or a stored row of the
// managed-node table (1); the rest is the stored bytes. Damage must be
// refused, and whatever is accepted must read back whole.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tarn_rmf/registry/RMPackedRow.h"
#include "tarn_rmf/registry/RMSchema.h"
#include "tarn_rmf/registry/RMValueCodec.h"
#include "tests/tarn_rmf/node_table_defs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tarn_rmf;
    if (size == 0) {
        return 0;
    }
    std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] == 0) {
        RMSchema schema;
        if (RMSchema::fromStored(bytes, schema)) {
            // An accepted definition serialises back to the same bytes.
            if (schema.serialize() != bytes) {
                __builtin_trap();
            }
        }
        return 0;
    }
    static const RMSchema nodes("/fuzz", regtest::kNodeColumns, regtest::kNodeColumnCount);
    std::string error;
    RMRowPtr row = RMPackedRow::fromStored(1, bytes, nodes, error);
    if (row == nullptr) {
        return 0;
    }
    for (unsigned c = 0; c < row->columnCount(); ++c) {
        zn_value_t v;
        RMValueView view = row->column(c);
        if (rmCopyOut(view, v)) {
            zn_value_free(view.type, v);
        }
        (void)row->keyBytes(c);
    }
    return 0;
}
