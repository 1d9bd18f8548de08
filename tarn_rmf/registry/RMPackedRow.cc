#include "tarn_rmf/registry/RMPackedRow.h"

#include <cstring>

#include "tarn_rmf/registry/RMValueCodec.h"

namespace tarn_rmf {
namespace {

constexpr unsigned char kRowVersion = 1;

void putHeader(unsigned columns, std::string& out) {
    out.push_back(static_cast<char>(kRowVersion));
    rmPutVarint(columns, out);
}

}  // namespace

RMRowPtr RMPackedRow::assemble(RMRowId id, std::string_view bytes,
                               const std::vector<uint32_t>& offsets) {
    auto row = std::make_shared<RMPackedRow>(id, static_cast<unsigned>(offsets.size()),
                                             static_cast<uint32_t>(bytes.size()));
    std::memcpy(row->mem_.get(), offsets.data(), sizeof(uint32_t) * offsets.size());
    std::memcpy(row->blob(), bytes.data(), bytes.size());
    return row;
}

RMPackedRow::RMPackedRow(RMRowId id, unsigned columns, uint32_t size)
    : id_(id),
      columns_(columns),
      size_(size),
      mem_(new unsigned char[sizeof(uint32_t) * columns + size]) {}

uint32_t RMPackedRow::offset(unsigned i) const {
    uint32_t o;
    std::memcpy(&o, mem_.get() + sizeof(uint32_t) * i, sizeof o);
    return o;
}

RMValueView RMPackedRow::column(unsigned i) const {
    const unsigned char* p = blob() + offset(i);
    RMValueView v;
    rmPackedView(static_cast<zn_data_type_t>(*p), p + 1, v);
    return v;
}

std::string_view RMPackedRow::keyBytes(unsigned i) const {
    const unsigned char* p = blob() + offset(i);
    auto t = static_cast<zn_data_type_t>(*p);
    RMValueView v;
    const unsigned char* end = rmPackedView(t, p + 1, v);
    if (t == ZN_CHAR_PTR || t == ZN_RSRC_HANDLE_PTR) {
        return v.text();
    }
    return {reinterpret_cast<const char*>(p + 1), static_cast<size_t>(end - (p + 1))};
}

size_t RMPackedRow::footprint() const {
    return sizeof(*this) + sizeof(uint32_t) * columns_ + size_;
}

RMRowPtr RMPackedRow::fromStored(RMRowId id, std::string_view bytes, const RMSchema& schema,
                                 std::string& error) {
    const auto* start = reinterpret_cast<const unsigned char*>(bytes.data());
    const unsigned char* end = start + bytes.size();
    const unsigned char* p = start;
    if (p == end || *p++ != kRowVersion) {
        error = "unknown row format";
        return nullptr;
    }
    uint32_t stored = 0;
    p = rmGetVarint(p, end, stored);
    if (p == nullptr || stored == 0 || stored > schema.size()) {
        error = "bad column count";
        return nullptr;
    }
    std::vector<uint32_t> offsets;
    offsets.reserve(schema.size());
    for (uint32_t i = 0; i < stored; ++i) {
        if (p >= end || static_cast<zn_data_type_t>(*p) != schema.column(i).type) {
            error = "column " + schema.column(i).name + " has the wrong type";
            return nullptr;
        }
        offsets.push_back(static_cast<uint32_t>(p - start));
        p = rmCheckPacked(schema.column(i).type, p + 1, end);
        if (p == nullptr) {
            error = "column " + schema.column(i).name + " is malformed";
            return nullptr;
        }
    }
    if (p != end) {
        error = "trailing bytes";
        return nullptr;
    }
    if (stored == schema.size()) {
        return assemble(id, bytes, offsets);
    }
    // Written before columns were added: rebuild the header, append defaults.
    std::string out;
    putHeader(schema.size(), out);
    uint32_t oldHeader = offsets[0];
    auto delta = static_cast<uint32_t>(out.size()) - oldHeader;
    out.append(bytes.substr(oldHeader));
    for (uint32_t& o : offsets) {
        o += delta;
    }
    for (unsigned i = stored; i < schema.size(); ++i) {
        offsets.push_back(static_cast<uint32_t>(out.size()));
        out.push_back(static_cast<char>(schema.column(i).type));
        out.append(schema.column(i).packedDefault);
    }
    return assemble(id, out, offsets);
}

RMRowPtr RMPackedRow::build(RMRowId id, const RMSchema& schema, const RMPackedRow* base,
                            const std::vector<RMPackedField>& fields) {
    std::string out;
    out.reserve(base != nullptr ? base->size_ + 64 : 256);
    putHeader(schema.size(), out);
    std::vector<uint32_t> offsets;
    offsets.reserve(schema.size());
    size_t next = 0;
    for (unsigned i = 0; i < schema.size(); ++i) {
        offsets.push_back(static_cast<uint32_t>(out.size()));
        out.push_back(static_cast<char>(schema.column(i).type));
        if (next < fields.size() && fields[next].column == i) {
            out.append(fields[next++].bytes);
        } else if (base != nullptr && i < base->columns_) {
            uint32_t from = base->offset(i) + 1;
            uint32_t to = i + 1 < base->columns_ ? base->offset(i + 1) : base->size_;
            out.append(reinterpret_cast<const char*>(base->blob()) + from, to - from);
        } else {
            out.append(schema.column(i).packedDefault);
        }
    }
    return assemble(id, out, offsets);
}

}  // namespace tarn_rmf
