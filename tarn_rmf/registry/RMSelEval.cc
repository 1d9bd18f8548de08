// Running a compiled selection: parameter binding, evaluation over one row,
// and the index plan.
#include <cstring>
#include <string>

#include "tarn_rmf/registry/RMSelCompiled.h"
#include "tarn_rmf/registry/RMTableError.h"

namespace tarn_rmf {
namespace {

using Node = RMSelection::Node;
using Src = RMSelOperandC::Src;

// A fetched operand: one value, or a literal list.
struct Val {
    RMValueView v;
    const std::vector<RMValueView>* list = nullptr;
    bool isArray() const { return list != nullptr || zn_is_array_type(v.type); }
};

bool fetch(const RMSelOperandC& o, const RMValueSource& row, const RMSelBinding& b, Val& out) {
    switch (o.src) {
        case Src::Column:
            return row.value(o.column, out.v);
        case Src::Previous:
            return row.previous(o.column, out.v);
        case Src::Param:
            out.v = b.values[static_cast<size_t>(o.slot)];
            return true;
        case Src::Const:
            out.v = o.constant;
            return true;
        case Src::List:
            out.list = &o.list;
            return true;
    }
    return false;
}

// Calls fn on each element (or on the value itself when it's no array) until
// fn returns true; returns whether it did.
template <typename Fn>
bool any(const Val& x, Fn fn) {
    if (x.list != nullptr) {
        for (const RMValueView& e : *x.list) {
            if (fn(e)) {
                return true;
            }
        }
        return false;
    }
    if (!zn_is_array_type(x.v.type)) {
        return fn(x.v);
    }
    RMArrayCursor c(x.v);
    RMValueView e;
    while (c.next(e)) {
        if (fn(e)) {
            return true;
        }
    }
    return false;
}

template <typename Fn>
bool all(const Val& x, Fn fn) {
    return !any(x, [&](const RMValueView& e) { return !fn(e); });
}

constexpr int kUnordered = 2;

int numCompare(const RMValueView& x, const RMValueView& y) {
    bool xf = rmIsFloatType(x.type), yf = rmIsFloatType(y.type);
    if (xf || yf) {
        long double a = xf ? x.num.f : rmIsSignedType(x.type) ? x.num.i : x.num.u;
        long double b = yf ? y.num.f : rmIsSignedType(y.type) ? y.num.i : y.num.u;
        if (a < b)
            return -1;
        if (a > b)
            return 1;
        return a == b ? 0 : kUnordered;
    }
    bool xs = rmIsSignedType(x.type), ys = rmIsSignedType(y.type);
    if (xs && ys) {
        return x.num.i < y.num.i ? -1 : x.num.i > y.num.i ? 1 : 0;
    }
    if (xs && x.num.i < 0)
        return -1;
    if (ys && y.num.i < 0)
        return 1;
    return x.num.u < y.num.u ? -1 : x.num.u > y.num.u ? 1 : 0;
}

// -1, 0, 1, or kUnordered (NaN, or kinds without an order that differ).
int compare(const RMValueView& x, const RMValueView& y) {
    if (rmIsNumericType(x.type) && rmIsNumericType(y.type)) {
        return numCompare(x, y);
    }
    if (x.type == ZN_CHAR_PTR && y.type == ZN_CHAR_PTR) {
        int c = x.text().compare(y.text());
        return c < 0 ? -1 : c > 0 ? 1 : 0;
    }
    if (x.type == y.type && (x.type == ZN_RSRC_HANDLE_PTR || x.type == ZN_BINARY_PTR)) {
        if (x.isNull || y.isNull) {
            return x.isNull == y.isNull ? 0 : kUnordered;
        }
        return x.len == y.len && std::memcmp(x.data, y.data, x.len) == 0 ? 0 : kUnordered;
    }
    return kUnordered;
}

bool equal(const RMValueView& x, const RMValueView& y) {
    return compare(x, y) == 0;
}

bool ordered(RMSelOp op, int c) {
    switch (op) {
        case RMSelOp::Lt:
            return c == -1;
        case RMSelOp::Gt:
            return c == 1;
        case RMSelOp::Le:
            return c == -1 || c == 0;
        case RMSelOp::Ge:
            return c == 1 || c == 0;
        default:
            return false;
    }
}

bool sameArrays(const Val& x, const Val& y) {
    std::vector<RMValueView> xs, ys;
    any(x, [&](const RMValueView& e) {
        xs.push_back(e);
        return false;
    });
    any(y, [&](const RMValueView& e) {
        ys.push_back(e);
        return false;
    });
    if (xs.size() != ys.size()) {
        return false;
    }
    for (size_t i = 0; i < xs.size(); ++i) {
        if (!equal(xs[i], ys[i])) {
            return false;
        }
    }
    return true;
}

bool holds(const Val& set, const RMValueView& e) {
    return any(set, [&](const RMValueView& s) { return equal(s, e); });
}

bool isEqual(const Val& a, const Val& b) {
    if (a.isArray() && b.isArray()) {
        return sameArrays(a, b);
    }
    if (a.isArray()) {
        return holds(a, b.v);
    }
    if (b.isArray()) {
        return holds(b, a.v);
    }
    return equal(a.v, b.v);
}

bool matches(const RMRegex& re, const Val& a) {
    return any(a, [&](const RMValueView& e) {
        return re.search(e.isNull ? "" : reinterpret_cast<const char*>(e.data),
                         e.isNull ? 0 : e.len);
    });
}

bool truthy(const RMValueView& v) {
    if (rmIsFloatType(v.type)) {
        return v.num.f != 0;
    }
    if (rmIsNumericType(v.type)) {
        return v.num.u != 0;
    }
    return !v.isNull && v.len > 0;
}

bool comparison(const Node& n, const RMValueSource& row, const RMSelBinding& bind) {
    Val a, b;
    if (!fetch(n.a, row, bind, a) || !fetch(n.b, row, bind, b)) {
        return false;
    }
    switch (n.op) {
        case RMSelOp::Eq:
            return isEqual(a, b);
        case RMSelOp::Ne:
            return !isEqual(a, b);
        case RMSelOp::Lt:
        case RMSelOp::Gt:
        case RMSelOp::Le:
        case RMSelOp::Ge:
            if (b.isArray()) {
                return any(b, [&](const RMValueView& e) { return ordered(n.op, compare(a.v, e)); });
            }
            return any(a, [&](const RMValueView& e) { return ordered(n.op, compare(e, b.v)); });
        case RMSelOp::In:
            return any(a, [&](const RMValueView& e) { return holds(b, e); });
        case RMSelOp::Contains:
            if (!a.isArray()) {
                return a.v.text().find(b.v.text()) != std::string_view::npos;
            }
            return all(b, [&](const RMValueView& e) { return holds(a, e); });
        case RMSelOp::Match:
            return matches(*n.regex, a);
        case RMSelOp::NoMatch:
            return !matches(*n.regex, a);
    }
    return false;
}

bool eval(const Node& n, const RMValueSource& row, const RMSelBinding& bind) {
    switch (n.kind) {
        case RMSelNode::Kind::All:
            return true;
        case RMSelNode::Kind::Or:
            for (const Node& k : n.kids) {
                if (eval(k, row, bind)) {
                    return true;
                }
            }
            return false;
        case RMSelNode::Kind::And:
            for (const Node& k : n.kids) {
                if (!eval(k, row, bind)) {
                    return false;
                }
            }
            return true;
        case RMSelNode::Kind::Not:
            return !eval(n.kids[0], row, bind);
        case RMSelNode::Kind::Truth: {
            Val a;
            return fetch(n.a, row, bind, a) && truthy(a.v);
        }
        case RMSelNode::Kind::Compare:
            return comparison(n, row, bind);
    }
    return false;
}

// The source used where only constants and parameters are fetched.
class NoRow final : public RMValueSource {
public:
    bool value(int, RMValueView&) const override { return false; }
};

// The key side of an index-answerable equality, or null.
const RMSelOperandC* keyColumn(const Node& n, const RMSelOperandC*& value, const void* fn,
                               bool (*call)(const void*, int)) {
    auto usable = [&](const RMSelOperandC& c) {
        return c.src == Src::Column && !zn_is_array_type(c.type) && call(fn, c.column);
    };
    if (n.op == RMSelOp::Eq && usable(n.a) && n.b.src != Src::Column && n.b.src != Src::Previous) {
        value = &n.b;
        return &n.a;
    }
    if (n.op == RMSelOp::Eq && usable(n.b) && n.a.src != Src::Column && n.a.src != Src::Previous) {
        value = &n.a;
        return &n.b;
    }
    if (n.op == RMSelOp::In && usable(n.a) && n.b.src != Src::Column && n.b.src != Src::Previous) {
        value = &n.b;
        return &n.a;
    }
    return nullptr;
}

bool planNode(const Node& n, const RMSelBinding& bind, const void* fn,
              bool (*call)(const void*, int), std::vector<RMSelProbe>& out) {
    switch (n.kind) {
        case RMSelNode::Kind::Compare: {
            const RMSelOperandC* value = nullptr;
            const RMSelOperandC* key = keyColumn(n, value, fn, call);
            if (key == nullptr) {
                return false;
            }
            Val v;
            fetch(*value, NoRow{}, bind, v);
            any(v, [&](const RMValueView& e) {
                out.push_back(RMSelProbe{key->column, e});
                return false;
            });
            return true;
        }
        case RMSelNode::Kind::And: {
            bool found = false;
            std::vector<RMSelProbe> best;
            for (const Node& k : n.kids) {
                std::vector<RMSelProbe> mine;
                if (planNode(k, bind, fn, call, mine) && (!found || mine.size() < best.size())) {
                    best = std::move(mine);
                    found = true;
                }
            }
            out.insert(out.end(), best.begin(), best.end());
            return found;
        }
        case RMSelNode::Kind::Or: {
            std::vector<RMSelProbe> all;
            for (const Node& k : n.kids) {
                if (!planNode(k, bind, fn, call, all)) {
                    return false;
                }
            }
            out.insert(out.end(), all.begin(), all.end());
            return true;
        }
        default:
            return false;
    }
}

}  // namespace

RMSelBinding RMSelection::bind(const RMSelParams* params) const {
    RMSelBinding b;
    b.values.resize(params_.size());
    for (size_t i = 0; i < params_.size(); ++i) {
        if (params == nullptr || !params->find(params_[i], b.values[i])) {
            throw RMTableError::build(RMTableErrc::kParameter, params_[i].c_str(),
                                      "no value is bound");
        }
    }
    for (const RMSelParamUse& use : storage_->paramUses) {
        const RMValueView& p = b.values[static_cast<size_t>(use.slot)];
        RMSelClass pc = rmSelClassOf(p.type);
        bool pa = zn_is_array_type(p.type);
        RMSelClass oc =
            use.other.src == Src::List ? use.other.listClass : rmSelClassOf(use.other.type);
        bool oa = use.other.src == Src::List || zn_is_array_type(use.other.type);
        std::string why = use.paramOnLeft ? rmSelIncompatibility(use.op, pc, pa, oc, oa)
                                          : rmSelIncompatibility(use.op, oc, oa, pc, pa);
        if (pc == RMSelClass::Unknown) {
            why = "its data type can't be compared";
        }
        if (!why.empty()) {
            throw RMTableError::build(RMTableErrc::kParameter,
                                      params_[static_cast<size_t>(use.slot)].c_str(), why.c_str());
        }
    }
    return b;
}

bool RMSelection::evaluate(const RMValueSource& row, const RMSelBinding& binding) const {
    return eval(*root_, row, binding);
}

bool RMSelection::planImpl(const RMSelBinding& binding, const void* fn,
                           bool (*call)(const void*, int), std::vector<RMSelProbe>& out) const {
    out.clear();
    if (!planNode(*root_, binding, fn, call, out)) {
        out.clear();
        return false;
    }
    return true;
}

}  // namespace tarn_rmf
