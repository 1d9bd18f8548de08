// Fuzz target for the bulk-definition file reader and its typing of values:
// arbitrary bytes as a CSV or JSON-lines file, read with small limits so
// that they are reached, then read whole against attributes of every kind
// of type. Checks: rows start on increasing lines and give at least one
// value; a CSV row gives only non-empty strings within the record limit; an
// error names its line; a loaded file has rows only when it has no problem,
// and every value has its attribute's type.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "znpex/cli/BulkFile.h"
#include "znpex/cli/BulkLoad.h"
#include "znpex/proto/ClassDefCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using namespace znpex::cli;

using fuzzsupport::check;

const std::vector<tarn_rmf2v::RMAttrDef>& attributes() {
    static const std::vector<tarn_rmf2v::RMAttrDef> kAttrs = {
        {"Hostname", 0, ZN_CHAR_PTR, 0},     {"UniversalId", 1, ZN_UINT64, 0},
        {"Speed", 2, ZN_UINT32, 0},          {"Delta", 3, ZN_INT32, 0},
        {"Ratio", 4, ZN_FLOAT64, 0},         {"Addrs", 5, ZN_CHAR_PTR_ARRAY, 0},
        {"Ids", 6, ZN_UINT64_ARRAY, 0},      {"Key", 7, ZN_BINARY_PTR, 0},
        {"Owner", 8, ZN_RSRC_HANDLE_PTR, 0}, {"Small", 9, ZN_FLOAT32, 0},
    };
    return kAttrs;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    BulkLimits limits;
    limits.maxRecordBytes = 256;
    limits.maxFields = 8;
    limits.maxRows = 50;

    std::istringstream in(text);
    BulkFileReader reader(in, limits);
    BulkRow row;
    size_t lastLine = 0;
    size_t rows = 0;
    while (reader.next(row)) {
        check(row.line > lastLine, "rows start on increasing lines");
        lastLine = row.line;
        check(!row.cells.empty(), "a row gives a value");
        check(++rows <= limits.maxRows, "the row limit holds");
        if (reader.format() == BulkFormat::Csv) {
            check(row.cells.size() <= reader.header().size(), "no more fields than the header");
            for (const auto& c : row.cells) {
                check(c.value.is_string(), "CSV fields are strings");
                const auto& s = c.value.get_ref<const std::string&>();
                check(!s.empty() && s.size() <= limits.maxRecordBytes, "CSV field size");
            }
        }
    }
    check(reader.error().empty() || reader.error().rfind("line ", 0) == 0,
          "an error names its line");

    std::istringstream again(text);
    BulkLoad load = loadBulkFile(again, "Fuzz.Class", attributes(), limits);
    check(load.ok() == load.problems.empty(), "problems are listed");
    check(load.ok() || load.rows.empty(), "a faulty file gives no rows");
    for (const auto& e : load.rows) {
        check(e.names.size() == e.values.size() && !e.names.empty(), "names and values pair");
        for (size_t i = 0; i < e.names.size(); ++i) {
            const auto* a = znpex::proto::findAttr(attributes(), e.names[i]);
            check(a != nullptr && a->type == e.values[i].type(), "values have their types");
        }
    }
    return 0;
}
