// A compiled selection: parsed once (RMSelParser.h gives the grammar), names
// resolved against a schema, literals converted, regular expressions built and
// types checked, so evaluating it over many rows never re-parses. Immutable
// after compile and shared (shared_ptr<const>) across threads.
//
// Meaning: comparisons of numbers are by value across integer and real types;
// strings compare bytewise, a null string reads as ""; handles and binaries
// compare for (in)equality only. An array compared with a single value: "=="
// is true when the array holds the value, "!=" when it doesn't, "<" and the
// other orderings when some element satisfies them; array with array "=="
// means same elements in the same order. "a IN b": a (or, for an array a, one
// of its elements) is an element of b. "a CONTAINS b": the array a holds b
// (every element of b, when b is an array); for two strings, b is a substring
// of a. "=~"/"!~": a POSIX extended regular expression, given as a quoted
// string, matches somewhere in the string (in some element of a string array).
// An attribute alone is true when the row carries it and it is non-zero or
// non-empty. Any comparison with an attribute the row doesn't carry is false.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tarn_rmf/registry/RMSelParams.h"
#include "tarn_rmf/registry/RMSelSource.h"
#include "tarn_rmf/registry/RMValueView.h"

namespace tarn_rmf {

// Parameter values for one run of a selection (views into an RMSelParams,
// which must outlive it).
struct RMSelBinding {
    std::vector<RMValueView> values;  // by parameter slot
};

// An equality an index can answer: rows whose `column` equals `key`.
struct RMSelProbe {
    int column;
    RMValueView key;
};

class RMSelection {
public:
    // Throws RMTableError: kSelection (syntax, unknown attribute, type
    // mismatch, bad pattern) naming the position.
    static std::shared_ptr<const RMSelection> compile(std::string_view text,
                                                      const RMSelSchema& schema);
    ~RMSelection();

    const std::string& text() const { return text_; }
    // True for "*" and the empty selection.
    bool selectsAll() const;
    // Names of the parameters it uses, in slot order.
    const std::vector<std::string>& parameters() const { return params_; }
    // The columns it reads, each once, so a scan can fetch them ahead.
    const std::vector<int>& columns() const { return columns_; }

    // Resolves the parameters; throws RMTableError kParameter when one is not
    // bound or its type doesn't fit where it is used.
    RMSelBinding bind(const RMSelParams* params) const;

    bool evaluate(const RMValueSource& row, const RMSelBinding& binding) const;

    // A set of equality probes whose matches include every row the selection
    // can match, using only columns for which `indexed` is true; false when no
    // such set exists (the caller scans).
    template <typename Indexed>
    bool plan(const RMSelBinding& binding, Indexed indexed, std::vector<RMSelProbe>& out) const {
        return planImpl(
            binding, &indexed,
            [](const void* f, int c) { return (*static_cast<const Indexed*>(f))(c); }, out);
    }

    // Internal (RMSelCompiled.h).
    struct Node;
    struct Storage;

private:
    RMSelection();
    bool planImpl(const RMSelBinding& binding, const void* fn, bool (*call)(const void*, int),
                  std::vector<RMSelProbe>& out) const;

    std::string text_;
    std::vector<std::string> params_;
    std::vector<int> columns_;
    std::unique_ptr<Node> root_;
    std::unique_ptr<Storage> storage_;
};

}  // namespace tarn_rmf
