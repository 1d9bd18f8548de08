#include "tarn_rmf/registry/RMSchema.h"

#include <algorithm>

#include "tarn_rmf/registry/RMTableError.h"
#include "tarn_rmf/registry/RMValueCodec.h"

namespace tarn_rmf {
namespace {

constexpr unsigned char kSchemaVersion = 1;
constexpr uint32_t kMaxColumns = 4096;

[[noreturn]] void badDefinition(const std::string& table, const std::string& detail) {
    throw RMTableError::build(RMTableErrc::kBadDefinition, table.c_str(), detail.c_str());
}

void putString(std::string_view s, std::string& out) {
    rmPutVarint(static_cast<uint32_t>(s.size()), out);
    out.append(s);
}

const unsigned char* getString(const unsigned char* p, const unsigned char* end, std::string& s) {
    uint32_t n = 0;
    p = rmGetVarint(p, end, n);
    if (p == nullptr || static_cast<size_t>(end - p) < n) {
        return nullptr;
    }
    s.assign(reinterpret_cast<const char*>(p), n);
    return p + n;
}

std::string describe(const RMColumn& c) {
    const char* t = zn_data_type_name(c.type);
    return c.name + " (" + (t != nullptr ? t : "?") + ")";
}

}  // namespace

bool rmIsIdentifier(std::string_view s) {
    if (s.empty()) {
        return false;
    }
    for (size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        bool alpha = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
        bool digit = c >= '0' && c <= '9';
        if (!alpha && !(digit && i > 0)) {
            return false;
        }
    }
    return true;
}

RMSchema::RMSchema(const std::string& table, const RMPersAttrDefs* defs, unsigned count) {
    if (count == 0 || defs == nullptr) {
        badDefinition(table, "no columns");
    }
    if (count > kMaxColumns) {
        badDefinition(table, "too many columns");
    }
    columns_.reserve(count);
    for (unsigned i = 0; i < count; ++i) {
        const RMPersAttrDefs& d = defs[i];
        std::string name = d.name != nullptr ? d.name : "";
        if (!rmIsIdentifier(name)) {
            badDefinition(table, "column " + std::to_string(i) + " has the name \"" + name +
                                     "\", which is not an identifier");
        }
        if (!zn_is_value_type(d.dataType)) {
            badDefinition(table, "column " + name + " has data type " +
                                     std::to_string(static_cast<int>(d.dataType)) +
                                     ", which can't be stored");
        }
        RMColumn c;
        c.name = std::move(name);
        c.type = d.dataType;
        c.properties = d.properties;
        if (!rmPackValue(d.dataType, d.defaultValue, c.packedDefault)) {
            badDefinition(table, "the default of column " + c.name + " can't be stored");
        }
        columns_.push_back(std::move(c));
    }
    rebuildIndex();
    if (byName_.size() != columns_.size()) {
        badDefinition(table, "a column name is given twice");
    }
}

RMSchema& RMSchema::operator=(const RMSchema& other) {
    if (this != &other) {
        columns_ = other.columns_;
        rebuildIndex();
    }
    return *this;
}

RMSchema& RMSchema::operator=(RMSchema&& other) {
    if (this != &other) {
        columns_ = std::move(other.columns_);
        other.byName_.clear();
        rebuildIndex();
    }
    return *this;
}

void RMSchema::rebuildIndex() {
    byName_.clear();
    for (size_t i = 0; i < columns_.size(); ++i) {
        byName_.emplace(columns_[i].name, static_cast<int>(i));
    }
}

int RMSchema::find(std::string_view name) const {
    auto it = byName_.find(name);
    return it == byName_.end() ? -1 : it->second;
}

std::string RMSchema::serialize() const {
    std::string out;
    out.push_back(static_cast<char>(kSchemaVersion));
    rmPutVarint(size(), out);
    for (const RMColumn& c : columns_) {
        putString(c.name, out);
        out.push_back(static_cast<char>(c.type));
        rmPutVarint(c.properties, out);
        putString(c.packedDefault, out);
    }
    return out;
}

bool RMSchema::fromStored(std::string_view bytes, RMSchema& out) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const unsigned char* end = p + bytes.size();
    if (p == end || *p++ != kSchemaVersion) {
        return false;
    }
    uint32_t n = 0;
    p = rmGetVarint(p, end, n);
    if (p == nullptr || n == 0 || n > kMaxColumns) {
        return false;
    }
    RMSchema s;
    for (uint32_t i = 0; i < n; ++i) {
        RMColumn c;
        p = getString(p, end, c.name);
        if (p == nullptr || p >= end || !rmIsIdentifier(c.name)) {
            return false;
        }
        c.type = static_cast<zn_data_type_t>(*p++);
        if (!zn_is_value_type(c.type)) {
            return false;
        }
        p = rmGetVarint(p, end, c.properties);
        if (p == nullptr) {
            return false;
        }
        p = getString(p, end, c.packedDefault);
        if (p == nullptr) {
            return false;
        }
        const auto* d = reinterpret_cast<const unsigned char*>(c.packedDefault.data());
        if (rmCheckPacked(c.type, d, d + c.packedDefault.size()) != d + c.packedDefault.size()) {
            return false;
        }
        s.columns_.push_back(std::move(c));
    }
    if (p != end) {
        return false;
    }
    s.rebuildIndex();
    if (s.byName_.size() != s.columns_.size()) {
        return false;
    }
    out = std::move(s);
    return true;
}

unsigned RMSchema::mergeDefinition(const std::string& table, const RMSchema& defined) {
    size_t common = std::min(columns_.size(), defined.columns_.size());
    for (size_t i = 0; i < common; ++i) {
        RMColumn& mine = columns_[i];
        const RMColumn& theirs = defined.columns_[i];
        if (mine.name != theirs.name || mine.type != theirs.type) {
            throw RMTableError::build(RMTableErrc::kSchemaConflict, table.c_str(),
                                      static_cast<int>(i), describe(mine).c_str(),
                                      describe(theirs).c_str());
        }
        mine.packedDefault = theirs.packedDefault;
        mine.properties = theirs.properties;
    }
    unsigned added = 0;
    for (size_t i = common; i < defined.columns_.size(); ++i) {
        if (find(defined.columns_[i].name) >= 0) {
            badDefinition(table, "new column " + defined.columns_[i].name +
                                     " has the name of a stored column");
        }
        columns_.push_back(defined.columns_[i]);
        ++added;
    }
    rebuildIndex();
    return added;
}

bool RMSchema::sameAs(const RMSchema& other) const {
    if (columns_.size() != other.columns_.size()) {
        return false;
    }
    for (size_t i = 0; i < columns_.size(); ++i) {
        const RMColumn& a = columns_[i];
        const RMColumn& b = other.columns_[i];
        if (a.name != b.name || a.type != b.type || a.packedDefault != b.packedDefault ||
            a.properties != b.properties) {
            return false;
        }
    }
    return true;
}

}  // namespace tarn_rmf
