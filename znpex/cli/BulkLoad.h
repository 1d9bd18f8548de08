// A bulk file read whole against a class's persistent attributes before
// anything is sent, so that a file with any fault defines nothing: the
// file's form (BulkFile.h), its attribute names (all unknown ones listed
// together) and every value's type are checked; the rows come out with
// typed values, ready to define. Pure; thread-safe.
#pragma once

#include <cstddef>
#include <istream>
#include <string>
#include <vector>

#include "platform/zn_owned.h"
#include "tarn_rmf2v/RMClassDef.h"
#include "znpex/cli/BulkFile.h"

namespace znpex::cli {

// One row to define.
struct BulkEntry {
    size_t line = 0;
    // What names the row in messages: its Name or Hostname, else its first value.
    std::string label;
    std::vector<std::string> names;
    std::vector<zn::OwnedValue> values;
};

inline constexpr size_t kMaxBulkProblems = 20;

struct BulkLoad {
    BulkFormat format = BulkFormat::Unknown;
    std::vector<BulkEntry> rows;        // empty when there is any problem
    std::vector<std::string> problems;  // the first kMaxBulkProblems, each naming its line
    size_t problemCount = 0;
    bool ok() const { return problemCount == 0; }
};

BulkLoad loadBulkFile(std::istream& in, const std::string& className,
                      const std::vector<tarn_rmf2v::RMAttrDef>& attrs, BulkLimits limits = {});

}  // namespace znpex::cli
