#include "tarn_rmf/registry/RMPackedRow.h"

#include <cstring>
#include <new>

#include "tarn_rmf/registry/RMValueCodec.h"

namespace tarn_rmf {
namespace {

constexpr unsigned char kRowVersion = 1;

void putHeader(unsigned columns, std::string& out) {
    out.push_back(static_cast<char>(kRowVersion));
    rmPutVarint(columns, out);
}

}  // namespace

void RMRowPtr::retain() {
    if (p_ != nullptr) {
        p_->refs_.fetch_add(1, std::memory_order_relaxed);
    }
}

void RMRowPtr::release() {
    if (p_ != nullptr && p_->refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        RMRowArena* arena = p_->arena_;
        p_->~RMPackedRow();
        if (arena != nullptr) {
            arena->release();
        } else {
            ::operator delete(static_cast<void*>(p_));
        }
    }
    p_ = nullptr;
}

RMRowPtr RMPackedRow::assemble(RMRowId id, std::string_view bytes, const uint32_t* offsets,
                               unsigned columns, RMRowArenaPool* pool) {
    size_t total = sizeof(RMPackedRow) + sizeof(uint32_t) * columns + bytes.size();
    RMRowArena* arena = nullptr;
    void* mem = pool != nullptr ? pool->allocate(total, arena) : ::operator new(total);
    auto* row = new (mem) RMPackedRow(id, columns, static_cast<uint32_t>(bytes.size()));
    row->arena_ = arena;
    std::memcpy(row->tail(), offsets, sizeof(uint32_t) * columns);
    std::memcpy(row->blob(), bytes.data(), bytes.size());
    return RMRowPtr(row);
}

uint32_t RMPackedRow::offset(unsigned i) const {
    uint32_t o;
    std::memcpy(&o, tail() + sizeof(uint32_t) * i, sizeof o);
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
    // Allocator overhead: a 16-byte header, rounded to 16.
    size_t n = sizeof(*this) + sizeof(uint32_t) * columns_ + size_ + 8;
    return (n + 15) / 16 * 16;
}

void RMPackedRow::prefetchOffsets(const std::vector<int>& columns) const {
    __builtin_prefetch(this);
    for (int c : columns) {
        __builtin_prefetch(tail() + sizeof(uint32_t) * static_cast<unsigned>(c));
    }
}

void RMPackedRow::prefetchColumns(const std::vector<int>& columns) const {
    for (int c : columns) {
        if (static_cast<unsigned>(c) < columns_) {
            __builtin_prefetch(blob() + offset(static_cast<unsigned>(c)));
        }
    }
}

RMRowPtr RMPackedRow::fromStored(RMRowId id, std::string_view bytes, const RMSchema& schema,
                                 std::string& error, RMRowArenaPool* pool) {
    const auto* start = reinterpret_cast<const unsigned char*>(bytes.data());
    const unsigned char* end = start + bytes.size();
    const unsigned char* p = start;
    if (bytes.size() > kRMMaxRowBytes) {
        error = "larger than a row may be";
        return nullptr;
    }
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
    // Reused across rows: loading a table builds a great many.
    thread_local std::vector<uint32_t> offsets;
    offsets.clear();
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
        return assemble(id, bytes, offsets.data(), schema.size(), pool);
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
    return assemble(id, out, offsets.data(), static_cast<unsigned>(offsets.size()), pool);
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
    return assemble(id, out, offsets.data(), static_cast<unsigned>(offsets.size()));
}

}  // namespace tarn_rmf
