// The exception every registry operation throws on failure: a table or tree
// error with a catalogued message ("tarn.rmf.cat", set 1) whose number is the
// error's code. Class code catches it at its handler boundary like any other
// CErrorException. Immutable after construction; safe to copy between threads.
#pragma once

#include "tarn_base/CException.h"

namespace tarn_rmf {

// Message numbers of the registry's catalogue; the error id equals the number.
enum class RMTableErrc : int {
    kSelection = 1,       // %1$d position, %2$s detail
    kUnknownColumn = 2,   // %1$s table, %2$s column
    kTypeMismatch = 3,    // %1$s table, %2$s column, %3$s column type, %4$s value type
    kDuplicateKey = 4,    // %1$s table, %2$s key column
    kStorage = 5,         // %1$s tree, %2$s operation, %3$s detail
    kNotMounted = 6,      // %1$s tree
    kSchemaConflict = 7,  // %1$s table, %2$d position, %3$s stored, %4$s defined
    kDamagedRow = 8,      // %1$s table, %2$lld row id, %3$s detail
    kNoSuchRow = 9,       // %1$s table, %2$lld row id
    kParameter = 10,      // %1$s parameter name, %2$s detail
    kBadDefinition = 11,  // %1$s table, %2$s detail
    kAlreadyOpen = 12,    // %1$s table
    kRowIndex = 13,       // %1$s table, %2$u index, %3$u row count
    kBadValue = 14,       // %1$s table, %2$s column, %3$s detail
    kNoMemory = 15,       // %1$s operation
};

inline constexpr char kRMCatalog[] = "tarn.rmf.cat";
inline constexpr int kRMCatalogSet = 1;

// Default text of a message number ("" for numbers not in the table).
const char* rmMessageText(RMTableErrc code);

class RMTableError : public tarn_base::CErrorException {
public:
    // Builds the error from the message table; the arguments follow the
    // message's conversions in order (C types only: int, long long, const char*).
    static RMTableError build(RMTableErrc code, ...);

    RMTableErrc errc() const { return static_cast<RMTableErrc>(getErrorCode()); }

private:
    RMTableError(std::string text, RMTableErrc code, cu_error_t* err);
};

}  // namespace tarn_rmf
