#include "tarn_rmf/registry/RMTableError.h"

#include <cstdarg>
#include <iterator>

namespace tarn_rmf {
namespace {

struct Message {
    RMTableErrc code;
    const char* text;
};

// The registry's message table: one entry per number, in number order.
constexpr Message kMessages[] = {
    {RMTableErrc::kSelection, "Selection error at position %1$d: %2$s"},
    {RMTableErrc::kUnknownColumn, "Table %1$s has no column named \"%2$s\"."},
    {RMTableErrc::kTypeMismatch,
     "Table %1$s: column %2$s has type %3$s; the value given has type %4$s."},
    {RMTableErrc::kDuplicateKey, "Table %1$s: another row already has this value of %2$s."},
    {RMTableErrc::kStorage, "Registry tree %1$s: %2$s failed: %3$s"},
    {RMTableErrc::kNotMounted, "Registry tree %1$s is not mounted."},
    {RMTableErrc::kSchemaConflict,
     "Table %1$s: column %2$d is stored as %3$s but defined as %4$s."},
    {RMTableErrc::kDamagedRow, "Table %1$s: stored row %2$lld is damaged: %3$s"},
    {RMTableErrc::kNoSuchRow, "Table %1$s: row %2$lld does not exist."},
    {RMTableErrc::kParameter, "Selection parameter $%1$s: %2$s"},
    {RMTableErrc::kBadDefinition, "Table %1$s: invalid definition: %2$s"},
    {RMTableErrc::kAlreadyOpen, "Table %1$s is already open with another definition or filter."},
    {RMTableErrc::kRowIndex, "Table %1$s: row index %2$u is out of range (%3$u rows)."},
    {RMTableErrc::kBadValue, "Table %1$s: the value for column %2$s is not valid: %3$s"},
    {RMTableErrc::kNoMemory, "Out of memory during %1$s."},
};

}  // namespace

const char* rmMessageText(RMTableErrc code) {
    for (const Message& m : kMessages) {
        if (m.code == code) {
            return m.text;
        }
    }
    return "";
}

RMTableError::RMTableError(std::string text, RMTableErrc code, cu_error_t* err)
    : CErrorException(std::move(text), static_cast<int>(code), err) {}

RMTableError RMTableError::build(RMTableErrc code, ...) {
    const char* text = rmMessageText(code);
    va_list ap;
    va_start(ap, code);
    cu_error_t* err = nullptr;
    cu_vpkg_error_1(&err, static_cast<int>(code), nullptr, kRMCatalog, kRMCatalogSet,
                    static_cast<int>(code), text, ap);
    va_end(ap);
    std::string rendered = cu_error_text(err);
    return RMTableError(std::move(rendered), code, err);
}

}  // namespace tarn_rmf
