// Internal to the selection language: the compiled node tree that
// RMSelection owns, shared by the compiler (RMSelCompile.cc) and the
// evaluator and planner (RMSelEval.cc). Immutable once built.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "tarn_rmf/registry/RMRegex.h"
#include "tarn_rmf/registry/RMSelAst.h"
#include "tarn_rmf/registry/RMSelection.h"

namespace tarn_rmf {

// What kinds of values may meet in a comparison.
enum class RMSelClass { Number, String, Handle, Binary, Structured, Unknown };

RMSelClass rmSelClassOf(zn_data_type_t t);  // arrays: their elements' class

struct RMSelOperandC {
    enum class Src { Column, Previous, Param, Const, List };
    Src src = Src::Const;
    int column = -1;                             // Column, Previous
    int slot = -1;                               // Param
    zn_data_type_t type = ZN_UNKNOWN;            // Column, Previous, Const
    RMSelClass listClass = RMSelClass::Unknown;  // List
    RMValueView constant;                        // Const
    std::vector<RMValueView> list;               // List
    int pos = 0;
};

struct RMSelection::Node {
    RMSelNode::Kind kind = RMSelNode::Kind::All;
    std::vector<Node> kids;
    RMSelOp op = RMSelOp::Eq;
    RMSelOperandC a, b;
    std::shared_ptr<const RMRegex> regex;  // Match, NoMatch
    int pos = 0;
};

// A parameter use to check when the parameter is bound.
struct RMSelParamUse {
    int slot;
    RMSelOp op;
    bool paramOnLeft;
    RMSelOperandC other;
};

struct RMSelection::Storage {
    std::deque<std::string> strings;  // text of string constants (stable addresses)
    std::vector<RMSelParamUse> paramUses;
};

// Empty when `op` may compare the two sides, else why not.
std::string rmSelIncompatibility(RMSelOp op, RMSelClass a, bool aArray, RMSelClass b, bool bArray);

}  // namespace tarn_rmf
