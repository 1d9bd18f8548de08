// attr=value texts parsed by the types of a class's attributes: the values
// owned here, and shown to the client library as its attribute list.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/zn_owned.h"
#include "tarn_rmf2v/RMClassDef.h"
#include "znpex/client/px_client.h"

namespace znpex::cli {

struct Assignments {
    std::vector<std::string> names;
    std::vector<zn::OwnedValue> values;

    void add(std::string name, zn::OwnedValue value) {
        names.push_back(std::move(name));
        values.push_back(std::move(value));
    }
    // Views of names and values, valid while these are left unchanged.
    std::vector<px_attr_t> attrs() const {
        std::vector<px_attr_t> out;
        out.reserve(values.size());
        for (size_t i = 0; i < values.size(); ++i) {
            out.push_back({names[i].c_str(), values[i].type(), values[i].value()});
        }
        return out;
    }
};

// Adds each "attr=value" of `texts` to `out`, typed by `list`; on a text that
// is not attr=value, an unknown name or a value that does not fit, says why.
std::optional<std::string> parseAssignments(const std::string& className,
                                            const std::vector<tarn_rmf2v::RMAttrDef>& list,
                                            const std::vector<std::string>& texts,
                                            Assignments& out);

}  // namespace znpex::cli
