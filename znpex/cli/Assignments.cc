#include "znpex/cli/Assignments.h"

#include "znpex/cli/ValueText.h"
#include "znpex/proto/ClassDefCodec.h"

namespace znpex::cli {

std::optional<std::string> parseAssignments(const std::string& className,
                                            const std::vector<tarn_rmf2v::RMAttrDef>& list,
                                            const std::vector<std::string>& texts,
                                            Assignments& out) {
    for (const auto& text : texts) {
        size_t eq = text.find('=');
        if (eq == std::string::npos || eq == 0) {
            return "\"" + text + "\" is not attr=value";
        }
        std::string name = text.substr(0, eq);
        const tarn_rmf2v::RMAttrDef* a = proto::findAttr(list, name);
        if (a == nullptr) {
            return "the class " + className + " has no attribute named " + name;
        }
        std::string why;
        auto v = parseValue(a->type, text.substr(eq + 1), &why);
        if (!v) {
            return name + ": " + why;
        }
        out.add(std::move(name), std::move(*v));
    }
    return std::nullopt;
}

}  // namespace znpex::cli
