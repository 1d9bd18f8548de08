#include "orvctl/GroupWords.h"

#include "orvctl/Values.h"

namespace orvctl {
namespace {

std::string trimmed(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) {
        return "";
    }
    return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

std::vector<std::string> names(const ResourceValues& r, const char* attr) {
    const zn::OwnedValue* v = r.find(attr);
    return v != nullptr && v->type() == ZN_CHAR_PTR_ARRAY ? textsOf(v->value().ptr_array)
                                                          : std::vector<std::string>{};
}

}  // namespace

std::vector<std::string> splitMembers(const std::string& text) {
    std::vector<std::string> out;
    if (trimmed(text).empty()) {
        return out;
    }
    size_t from = 0;
    for (;;) {
        size_t comma = text.find(',', from);
        out.push_back(trimmed(text.substr(from, comma - from)));
        if (comma == std::string::npos) {
            return out;
        }
        from = comma + 1;
    }
}

std::string joinNames(const std::vector<std::string>& names) {
    std::string out;
    for (size_t i = 0; i < names.size(); ++i) {
        out += (i == 0 ? "" : ",") + names[i];
    }
    return out;
}

GroupSummary summaryOf(const ResourceValues& group) {
    GroupSummary s;
    s.name = group.text("Name");
    std::string select = group.text("SelectStr");
    s.kind = select.empty() ? "members" : "selection";
    s.definition = select.empty() ? joinNames(names(group, "MemberList")) : select;
    const zn::OwnedValue* validate = group.find("ValidateNodes");
    s.validate =
        validate != nullptr && validate->type() == ZN_UINT32 && validate->value().val_uint32 == 1;
    s.nodes = names(group, "ExpMemberList");
    return s;
}

}  // namespace orvctl
