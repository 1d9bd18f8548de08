// The parse tree of a selection string, as the parser builds it and the
// compiler consumes it. Plain data, owned through unique_ptr; positions are
// 1-based character positions in the selection text, for error messages.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarn_rmf {

struct RMSelLiteral {
    enum class Kind { Int, Float, String };
    Kind kind = Kind::Int;
    bool negative = false;  // Int: the value is -magnitude
    uint64_t magnitude = 0;
    double real = 0;
    std::string text;
    int pos = 0;
};

struct RMSelOperand {
    enum class Kind { Attribute, Previous, Parameter, Literal, List };
    Kind kind = Kind::Literal;
    std::string name;                 // Attribute, Previous, Parameter
    RMSelLiteral literal;             // Literal
    std::vector<RMSelLiteral> items;  // List ({a, b, ...})
    int pos = 0;
};

enum class RMSelOp { Eq, Ne, Lt, Gt, Le, Ge, Match, NoMatch, In, Contains };

struct RMSelNode {
    enum class Kind { All, Or, And, Not, Compare, Truth };
    Kind kind = Kind::All;
    // Or, And: two or more terms, flat (so long chains don't nest); Not: one.
    std::vector<std::unique_ptr<RMSelNode>> kids;
    RMSelOp op = RMSelOp::Eq;  // Compare
    RMSelOperand a;            // Compare (left side), Truth
    RMSelOperand b;            // Compare (right side)
    int pos = 0;
};

}  // namespace tarn_rmf
