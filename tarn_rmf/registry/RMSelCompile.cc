// Compiling a parsed selection: names to columns, literals to values, patterns
// to regular expressions, and the type checks that can be made before rows.
#include <algorithm>
#include <string>

#include "tarn_rmf/registry/RMSelCompiled.h"
#include "tarn_rmf/registry/RMSelParser.h"
#include "tarn_rmf/registry/RMTableError.h"

namespace tarn_rmf {
namespace {

[[noreturn]] void fail(int pos, const std::string& detail) {
    throw RMTableError::build(RMTableErrc::kSelection, pos, detail.c_str());
}

const char* opText(RMSelOp op) {
    switch (op) {
        case RMSelOp::Eq:
            return "==";
        case RMSelOp::Ne:
            return "!=";
        case RMSelOp::Lt:
            return "<";
        case RMSelOp::Gt:
            return ">";
        case RMSelOp::Le:
            return "<=";
        case RMSelOp::Ge:
            return ">=";
        case RMSelOp::Match:
            return "=~";
        case RMSelOp::NoMatch:
            return "!~";
        case RMSelOp::In:
            return "IN";
        case RMSelOp::Contains:
            return "CONTAINS";
    }
    return "?";
}

const char* className(RMSelClass c) {
    switch (c) {
        case RMSelClass::Number:
            return "a number";
        case RMSelClass::String:
            return "a string";
        case RMSelClass::Handle:
            return "a resource handle";
        case RMSelClass::Binary:
            return "a binary";
        case RMSelClass::Structured:
            return "structured data";
        case RMSelClass::Unknown:
            break;
    }
    return "a value";
}

bool isArrayOperand(const RMSelOperandC& o) {
    return o.src == RMSelOperandC::Src::List || zn_is_array_type(o.type);
}

RMSelClass operandClass(const RMSelOperandC& o) {
    return o.src == RMSelOperandC::Src::List ? o.listClass : rmSelClassOf(o.type);
}

// A rough price of evaluating a node: matching a pattern is dear, walking
// arrays and lists dearer than a plain comparison.
unsigned cost(const RMSelection::Node& n) {
    switch (n.kind) {
        case RMSelNode::Kind::Or:
        case RMSelNode::Kind::And:
        case RMSelNode::Kind::Not: {
            unsigned sum = 0;
            for (const RMSelection::Node& k : n.kids) {
                sum += cost(k);
            }
            return sum;
        }
        case RMSelNode::Kind::Compare:
            if (n.regex != nullptr) {
                return 20;
            }
            return isArrayOperand(n.a) || isArrayOperand(n.b) ? 4 : 1;
        default:
            return 1;
    }
}

class Compiler {
public:
    Compiler(const RMSelSchema& schema, RMSelection::Storage& storage,
             std::vector<std::string>& params, std::vector<int>& columns)
        : schema_(schema), storage_(storage), params_(params), columns_(columns) {}

    void node(const RMSelNode& in, RMSelection::Node& out) {
        out.kind = in.kind;
        out.pos = in.pos;
        switch (in.kind) {
            case RMSelNode::Kind::All:
                return;
            case RMSelNode::Kind::Or:
            case RMSelNode::Kind::And:
            case RMSelNode::Kind::Not:
                out.kids.resize(in.kids.size());
                for (size_t i = 0; i < in.kids.size(); ++i) {
                    node(*in.kids[i], out.kids[i]);
                }
                // Terms have no side effects and can't fail once compiled, so
                // the cheap ones go first: "Hostname =~ ... && Speed > 9600"
                // runs the matcher only where the number already holds.
                std::stable_sort(out.kids.begin(), out.kids.end(),
                                 [](const RMSelection::Node& a, const RMSelection::Node& b) {
                                     return cost(a) < cost(b);
                                 });
                return;
            case RMSelNode::Kind::Truth:
                out.a = operand(in.a);
                if (out.a.src == RMSelOperandC::Src::List) {
                    fail(in.a.pos, "a list is not a condition");
                }
                return;
            case RMSelNode::Kind::Compare:
                compare(in, out);
                return;
        }
    }

private:
    void compare(const RMSelNode& in, RMSelection::Node& out) {
        out.op = in.op;
        out.a = operand(in.a);
        out.b = operand(in.b);
        if (in.op == RMSelOp::Match || in.op == RMSelOp::NoMatch) {
            if (in.b.kind != RMSelOperand::Kind::Literal ||
                in.b.literal.kind != RMSelLiteral::Kind::String) {
                fail(in.b.pos, std::string("the pattern after \"") + opText(in.op) +
                                   "\" must be a quoted string");
            }
            auto re = std::make_shared<RMRegex>(in.b.literal.text);
            if (!re->valid()) {
                fail(in.b.pos, "bad regular expression: " + re->error());
            }
            out.regex = std::move(re);
        }
        bool aParam = out.a.src == RMSelOperandC::Src::Param;
        bool bParam = out.b.src == RMSelOperandC::Src::Param;
        if (aParam && bParam) {
            fail(in.a.pos, "two parameters can't be compared with each other");
        }
        if (aParam || bParam) {
            const RMSelOperandC& p = aParam ? out.a : out.b;
            storage_.paramUses.push_back(
                RMSelParamUse{p.slot, in.op, aParam, aParam ? out.b : out.a});
            return;
        }
        std::string why = rmSelIncompatibility(in.op, operandClass(out.a), isArrayOperand(out.a),
                                               operandClass(out.b), isArrayOperand(out.b));
        if (!why.empty()) {
            fail(in.pos, why);
        }
    }

    RMSelOperandC operand(const RMSelOperand& in) {
        RMSelOperandC o;
        o.pos = in.pos;
        switch (in.kind) {
            case RMSelOperand::Kind::Attribute:
            case RMSelOperand::Kind::Previous:
                if (!schema_.lookup(in.name, o.column, o.type)) {
                    fail(in.pos, "unknown attribute \"" + in.name + "\"");
                }
                o.src = RMSelOperandC::Src::Column;
                if (std::find(columns_.begin(), columns_.end(), o.column) == columns_.end()) {
                    columns_.push_back(o.column);
                }
                if (in.kind == RMSelOperand::Kind::Previous) {
                    if (!schema_.hasPrevious()) {
                        fail(in.pos, "previous values (\"@P\") are not available here");
                    }
                    o.src = RMSelOperandC::Src::Previous;
                }
                return o;
            case RMSelOperand::Kind::Parameter:
                o.src = RMSelOperandC::Src::Param;
                o.slot = slotOf(in.name);
                return o;
            case RMSelOperand::Kind::Literal:
                o.src = RMSelOperandC::Src::Const;
                o.constant = literal(in.literal);
                o.type = o.constant.type;
                return o;
            case RMSelOperand::Kind::List:
                o.src = RMSelOperandC::Src::List;
                for (const RMSelLiteral& l : in.items) {
                    RMValueView v = literal(l);
                    RMSelClass c = rmSelClassOf(v.type);
                    if (o.listClass != RMSelClass::Unknown && o.listClass != c) {
                        fail(l.pos, "a list must hold only numbers or only strings");
                    }
                    o.listClass = c;
                    o.list.push_back(v);
                }
                return o;
        }
        fail(in.pos, "an attribute or a value was expected");
    }

    RMValueView literal(const RMSelLiteral& l) {
        RMValueView v;
        switch (l.kind) {
            case RMSelLiteral::Kind::Int:
                if (l.negative) {
                    v.type = ZN_INT64;
                    v.num.i = static_cast<int64_t>(0 - l.magnitude);
                } else {
                    v.type = ZN_UINT64;
                    v.num.u = l.magnitude;
                }
                return v;
            case RMSelLiteral::Kind::Float:
                v.type = ZN_FLOAT64;
                v.num.f = l.real;
                return v;
            case RMSelLiteral::Kind::String: {
                const std::string& s = storage_.strings.emplace_back(l.text);
                v.type = ZN_CHAR_PTR;
                v.data = reinterpret_cast<const unsigned char*>(s.c_str());
                v.len = static_cast<uint32_t>(s.size());
                return v;
            }
        }
        return v;
    }

    int slotOf(const std::string& name) {
        for (size_t i = 0; i < params_.size(); ++i) {
            if (params_[i] == name) {
                return static_cast<int>(i);
            }
        }
        params_.push_back(name);
        return static_cast<int>(params_.size() - 1);
    }

    const RMSelSchema& schema_;
    RMSelection::Storage& storage_;
    std::vector<std::string>& params_;
    std::vector<int>& columns_;
};

}  // namespace

RMSelClass rmSelClassOf(zn_data_type_t t) {
    if (zn_is_array_type(t)) {
        t = zn_array_element_type(t);
    }
    if (rmIsNumericType(t)) {
        return RMSelClass::Number;
    }
    switch (t) {
        case ZN_CHAR_PTR:
            return RMSelClass::String;
        case ZN_RSRC_HANDLE_PTR:
            return RMSelClass::Handle;
        case ZN_BINARY_PTR:
            return RMSelClass::Binary;
        case ZN_SD_PTR:
            return RMSelClass::Structured;
        default:
            return RMSelClass::Unknown;
    }
}

std::string rmSelIncompatibility(RMSelOp op, RMSelClass a, bool aArray, RMSelClass b, bool bArray) {
    std::string sides = std::string(className(a)) + (aArray ? " array" : "") + " and " +
                        className(b) + (bArray ? " array" : "");
    // An empty list fits anything.
    bool emptyList = b == RMSelClass::Unknown && bArray;
    if (a == RMSelClass::Structured || b == RMSelClass::Structured) {
        return "structured data can't be compared";
    }
    if ((op == RMSelOp::Match || op == RMSelOp::NoMatch) && a != RMSelClass::String) {
        return "a pattern matches strings only";
    }
    if (a != b && !emptyList) {
        return std::string("type mismatch: \"") + opText(op) + "\" can't compare " + sides;
    }
    switch (op) {
        case RMSelOp::Eq:
        case RMSelOp::Ne:
            return "";
        case RMSelOp::Lt:
        case RMSelOp::Gt:
        case RMSelOp::Le:
        case RMSelOp::Ge:
            if (a != RMSelClass::Number && a != RMSelClass::String) {
                return std::string("\"") + opText(op) + "\" orders numbers and strings only";
            }
            if (aArray && bArray) {
                return std::string("\"") + opText(op) + "\" can't order two arrays";
            }
            return "";
        case RMSelOp::In:
            return bArray ? "" : "the right side of \"IN\" must be an array or a {list}";
        case RMSelOp::Contains:
            if (aArray || (a == RMSelClass::String && !bArray)) {
                return "";
            }
            return "the left side of \"CONTAINS\" must be an array or a string";
        case RMSelOp::Match:
        case RMSelOp::NoMatch:
            return a == RMSelClass::String ? "" : "a pattern matches strings only";
    }
    return "";
}

RMSelection::RMSelection() : storage_(std::make_unique<Storage>()) {}
RMSelection::~RMSelection() = default;

std::shared_ptr<const RMSelection> RMSelection::compile(std::string_view text,
                                                        const RMSelSchema& schema) {
    std::unique_ptr<RMSelNode> tree = rmParseSelection(text);
    std::shared_ptr<RMSelection> sel(new RMSelection());
    sel->text_.assign(text);
    sel->root_ = std::make_unique<Node>();
    Compiler c(schema, *sel->storage_, sel->params_, sel->columns_);
    c.node(*tree, *sel->root_);
    return sel;
}

bool RMSelection::selectsAll() const {
    return root_->kind == RMSelNode::Kind::All;
}

}  // namespace tarn_rmf
