// A plain text table: a header row and rows of cells, columns padded to
// their widest cell, two spaces apart. Single-threaded value type.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace znpex::cli {

class Table {
public:
    explicit Table(std::vector<std::string> header) : header_(std::move(header)) {}
    // Short rows are padded with empty cells.
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    size_t rows() const { return rows_.size(); }
    void print(std::ostream& out) const;

private:
    std::vector<std::string> header_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace znpex::cli
