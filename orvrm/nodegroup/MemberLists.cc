#include "orvrm/nodegroup/MemberLists.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace orvrm {

NameList namesOf(const tarn_rmf::RMValueView& array) {
    NameList out;
    if (array.type != ZN_CHAR_PTR_ARRAY) {
        return out;
    }
    tarn_rmf::RMArrayCursor cursor(array);
    tarn_rmf::RMValueView e;
    while (cursor.next(e)) {
        out.emplace_back(e.text());
    }
    return out;
}

NameList namesOf(const zn_array* array) {
    NameList out;
    for (uint32_t i = 0; array != nullptr && i < array->array_cnt; ++i) {
        const char* s = array->elements[i].ptr_char;
        out.emplace_back(s != nullptr ? s : "");
    }
    return out;
}

zn::OwnedValue stringArray(const NameList& names) {
    zn_value_t v{};
    v.ptr_array = zn_array_new(static_cast<uint32_t>(names.size()));
    if (v.ptr_array == nullptr) {
        throw std::bad_alloc();
    }
    zn::OwnedValue out(ZN_CHAR_PTR_ARRAY, v);  // frees what was copied if a copy fails
    for (size_t i = 0; i < names.size(); ++i) {
        char* s = strdup(names[i].c_str());
        if (s == nullptr) {
            throw std::bad_alloc();
        }
        out.value().ptr_array->elements[i].ptr_char = s;
    }
    return out;
}

bool checkForDuplicateStrings(const NameList& names) {
    std::unordered_set<std::string_view> seen;
    seen.reserve(names.size());
    for (const std::string& n : names) {
        if (!seen.insert(n).second) {
            return true;
        }
    }
    return false;
}

bool getDifference(const NameList& before, const NameList& now, NameList* added,
                   NameList* removed) {
    if (before == now) {
        if (added != nullptr) {
            added->clear();
        }
        if (removed != nullptr) {
            removed->clear();
        }
        return false;
    }
    // How many entries of `before` each name still has to match.
    std::unordered_map<std::string_view, size_t> unmatched;
    unmatched.reserve(before.size());
    for (const std::string& n : before) {
        ++unmatched[n];
    }
    NameList in;
    for (const std::string& n : now) {
        auto it = unmatched.find(n);
        if (it != unmatched.end() && it->second > 0) {
            --it->second;
        } else {
            in.push_back(n);
        }
    }
    // The first entries of each name in `before` were matched, so the ones
    // left are its last: walk it backwards.
    NameList out;
    for (auto it = before.rbegin(); it != before.rend(); ++it) {
        size_t& left = unmatched[*it];
        if (left > 0) {
            --left;
            out.push_back(*it);
        }
    }
    std::reverse(out.begin(), out.end());
    bool differs = !in.empty() || !out.empty();
    if (added != nullptr) {
        *added = std::move(in);
    }
    if (removed != nullptr) {
        *removed = std::move(out);
    }
    return differs;
}

}  // namespace orvrm
