#include "znpex/cli/BulkLoad.h"

#include <map>

#include "znpex/cli/BulkValue.h"
#include "znpex/proto/ClassDefCodec.h"

namespace znpex::cli {
namespace {

std::string labelOf(const BulkRow& row) {
    for (const char* key : {"Name", "Hostname"}) {
        for (const auto& c : row.cells) {
            if (c.name == key && c.value.is_string()) {
                return c.value.get<std::string>();
            }
        }
    }
    const proto::Json& first = row.cells.front().value;
    std::string s = first.is_string() ? first.get<std::string>() : proto::dumpJson(first);
    return s.size() <= 64 ? s : s.substr(0, 61) + "...";
}

void addProblem(BulkLoad& out, std::string text) {
    if (out.problems.size() < kMaxBulkProblems) {
        out.problems.push_back(std::move(text));
    }
    ++out.problemCount;
}

}  // namespace

BulkLoad loadBulkFile(std::istream& in, const std::string& className,
                      const std::vector<tarn_rmf2v::RMAttrDef>& attrs, BulkLimits limits) {
    BulkLoad out;
    BulkFileReader reader(in, limits);
    std::map<std::string, size_t> unknown;  // name, first line naming it
    bool headerChecked = false;
    // A CSV header is checked before its rows: a file naming an unknown
    // attribute is refused whole, without reading on.
    auto checkHeader = [&]() {
        if (!headerChecked && reader.format() == BulkFormat::Csv) {
            for (const auto& name : reader.header()) {
                if (proto::findAttr(attrs, name) == nullptr) {
                    unknown.emplace(name, reader.headerLine());
                }
            }
        }
        headerChecked = true;
        return unknown.empty() || reader.format() != BulkFormat::Csv;
    };
    BulkRow row;
    while (reader.next(row) && checkHeader()) {
        BulkEntry e;
        e.line = row.line;
        e.label = labelOf(row);
        bool fits = true;
        for (const auto& cell : row.cells) {
            const tarn_rmf2v::RMAttrDef* a = proto::findAttr(attrs, cell.name);
            if (a == nullptr) {
                unknown.emplace(cell.name, row.line);
                fits = false;
                continue;
            }
            std::string why;
            auto v = bulkValue(a->type, cell.value, &why);
            if (!v) {
                addProblem(out, "line " + std::to_string(row.line) + ": " + cell.name + ": " + why);
                fits = false;
                continue;
            }
            e.names.push_back(cell.name);
            e.values.push_back(std::move(*v));
        }
        if (fits && out.ok() && unknown.empty()) {
            out.rows.push_back(std::move(e));
        }
    }
    checkHeader();
    out.format = reader.format();
    if (!reader.error().empty()) {
        addProblem(out, reader.error());
    }
    if (!unknown.empty()) {
        std::string list;
        size_t listed = 0;
        for (const auto& [name, line] : unknown) {
            if (listed++ == kMaxBulkProblems) {
                list += " and " + std::to_string(unknown.size() - kMaxBulkProblems) + " more";
                break;
            }
            list += (list.empty() ? "" : ", ") + name + " (line " + std::to_string(line) + ")";
        }
        std::string text = "the class " + className + " has no attribute" +
                           (unknown.size() > 1 ? "s" : "") + " named " + list;
        out.problems.insert(out.problems.begin(), text);
        ++out.problemCount;
    }
    if (!out.ok()) {
        out.rows.clear();
    }
    return out;
}

}  // namespace znpex::cli
