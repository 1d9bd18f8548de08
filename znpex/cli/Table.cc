#include "znpex/cli/Table.h"

#include <algorithm>

namespace znpex::cli {

void Table::print(std::ostream& out) const {
    std::vector<size_t> width(header_.size(), 0);
    auto measure = [&](const std::vector<std::string>& row) {
        for (size_t i = 0; i < row.size() && i < width.size(); ++i) {
            width[i] = std::max(width[i], row[i].size());
        }
    };
    measure(header_);
    for (const auto& r : rows_) {
        measure(r);
    }
    auto line = [&](const std::vector<std::string>& row) {
        std::string s;
        for (size_t i = 0; i < width.size(); ++i) {
            std::string cell = i < row.size() ? row[i] : "";
            if (i + 1 < width.size()) {
                cell.resize(width[i], ' ');
                cell += "  ";
            }
            s += cell;
        }
        while (!s.empty() && s.back() == ' ') {
            s.pop_back();
        }
        out << s << '\n';
    };
    line(header_);
    for (const auto& r : rows_) {
        line(r);
    }
}

}  // namespace znpex::cli
