#include "tarn_rmf/registry/RMRowSet.h"

#include "tarn_base/CException.h"
#include "tarn_rmf/registry/RMTableError.h"
#include "tarn_rmf/registry/RMValueCodec.h"

namespace tarn_rmf {

const RMPackedRow& RMRowSet::rowAt(unsigned row) const {
    if (row >= rows_.size()) {
        throw RMTableError::build(RMTableErrc::kRowIndex, table_.c_str(), row,
                                  static_cast<unsigned>(rows_.size()));
    }
    return *rows_[row];
}

unsigned RMRowSet::columnAt(int column) const {
    if (schema_ == nullptr || column < 0 || static_cast<unsigned>(column) >= schema_->size()) {
        std::string name = std::to_string(column);
        throw RMTableError::build(RMTableErrc::kUnknownColumn, table_.c_str(), name.c_str());
    }
    return static_cast<unsigned>(column);
}

RMRowId RMRowSet::getRowId(unsigned row) const {
    return rowAt(row).rowId();
}

int RMRowSet::getColumnIndex(const char* name) const {
    return schema_ != nullptr && name != nullptr ? schema_->find(name) : -1;
}

zn_data_type_t RMRowSet::getColumnType(unsigned column) const {
    return schema_->column(columnAt(static_cast<int>(column))).type;
}

RMValueView RMRowSet::viewField(unsigned row, unsigned column) const {
    const RMPackedRow& r = rowAt(row);
    return r.column(columnAt(static_cast<int>(column)));
}

void RMRowSet::getFieldsByIdV(unsigned row, const int* columns, unsigned count, zn_value_t* out,
                              zn_data_type_t* types) const {
    const RMPackedRow& r = rowAt(row);
    for (unsigned k = 0; k < count; ++k) {
        columnAt(columns[k]);
    }
    for (unsigned k = 0; k < count; ++k) {
        auto c = static_cast<unsigned>(columns[k]);
        RMValueView v = r.column(c);
        if (!rmCopyOut(v, out[k])) {
            for (unsigned j = 0; j < k; ++j) {
                zn_value_free(schema_->column(static_cast<unsigned>(columns[j])).type, out[j]);
            }
            throw tarn_base::CNoMemory();
        }
        if (types != nullptr) {
            types[k] = v.type;
        }
    }
}

void RMRowSet::getFieldsByIndexV(unsigned row, const char* const* names, unsigned count,
                                 zn_value_t* out, zn_data_type_t* types) const {
    rowAt(row);
    std::vector<int> columns(count);
    for (unsigned k = 0; k < count; ++k) {
        columns[k] = getColumnIndex(names[k]);
        if (columns[k] < 0) {
            throw RMTableError::build(RMTableErrc::kUnknownColumn, table_.c_str(),
                                      names[k] != nullptr ? names[k] : "(null)");
        }
    }
    getFieldsByIdV(row, columns.data(), count, out, types);
}

zn_value_t RMRowSet::getField(unsigned row, const char* name) const {
    zn_value_t v;
    getFieldsByIndexV(row, &name, 1, &v);
    return v;
}

}  // namespace tarn_rmf
