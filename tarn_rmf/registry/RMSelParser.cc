#include "tarn_rmf/registry/RMSelParser.h"

#include <string>

#include "tarn_rmf/registry/RMSelLexer.h"

namespace tarn_rmf {
namespace {

bool equalsNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i] >= 'a' && a[i] <= 'z' ? static_cast<char>(a[i] - 32) : a[i];
        if (x != b[i]) {
            return false;
        }
    }
    return true;
}

class Parser {
public:
    explicit Parser(std::string_view s) : lex_(s) { advance(); }

    std::unique_ptr<RMSelNode> selection() {
        if (tok_.kind == RMSelTok::End) {
            return std::make_unique<RMSelNode>();
        }
        if (tok_.kind == RMSelTok::Star) {
            int pos = tok_.pos;
            advance();
            if (tok_.kind != RMSelTok::End) {
                rmSelFail(tok_.pos, "\"*\" selects everything and stands alone");
            }
            auto n = std::make_unique<RMSelNode>();
            n->pos = pos;
            return n;
        }
        auto n = expr();
        if (tok_.kind != RMSelTok::End) {
            rmSelFail(tok_.pos, "\"&&\", \"||\" or the end was expected");
        }
        return n;
    }

private:
    void advance() { tok_ = lex_.next(); }

    // One flat node for a chain of the same operator.
    std::unique_ptr<RMSelNode> chain(RMSelNode::Kind kind, RMSelTok op,
                                     std::unique_ptr<RMSelNode> (Parser::*term)()) {
        auto first = (this->*term)();
        if (tok_.kind != op) {
            return first;
        }
        auto n = std::make_unique<RMSelNode>();
        n->kind = kind;
        n->pos = tok_.pos;
        n->kids.push_back(std::move(first));
        while (tok_.kind == op) {
            advance();
            n->kids.push_back((this->*term)());
        }
        return n;
    }

    std::unique_ptr<RMSelNode> expr() {
        return chain(RMSelNode::Kind::Or, RMSelTok::OrOr, &Parser::conjunction);
    }

    std::unique_ptr<RMSelNode> conjunction() {
        return chain(RMSelNode::Kind::And, RMSelTok::AndAnd, &Parser::unary);
    }

    std::unique_ptr<RMSelNode> unary() {
        if (++depth_ > kRMMaxSelectionDepth) {
            rmSelFail(tok_.pos, "the selection nests too deeply");
        }
        std::unique_ptr<RMSelNode> n;
        if (tok_.kind == RMSelTok::Not) {
            n = std::make_unique<RMSelNode>();
            n->kind = RMSelNode::Kind::Not;
            n->pos = tok_.pos;
            advance();
            n->kids.push_back(unary());
        } else if (tok_.kind == RMSelTok::LParen) {
            int pos = tok_.pos;
            advance();
            n = expr();
            if (tok_.kind != RMSelTok::RParen) {
                rmSelFail(tok_.pos, "\")\" was expected to close the \"(\" at position " +
                                        std::to_string(pos));
            }
            advance();
        } else {
            n = test();
        }
        --depth_;
        return n;
    }

    bool comparison(RMSelOp& op) {
        switch (tok_.kind) {
            case RMSelTok::Eq:
                op = RMSelOp::Eq;
                return true;
            case RMSelTok::Ne:
                op = RMSelOp::Ne;
                return true;
            case RMSelTok::Lt:
                op = RMSelOp::Lt;
                return true;
            case RMSelTok::Gt:
                op = RMSelOp::Gt;
                return true;
            case RMSelTok::Le:
                op = RMSelOp::Le;
                return true;
            case RMSelTok::Ge:
                op = RMSelOp::Ge;
                return true;
            case RMSelTok::Match:
                op = RMSelOp::Match;
                return true;
            case RMSelTok::NoMatch:
                op = RMSelOp::NoMatch;
                return true;
            case RMSelTok::Name:
                if (equalsNoCase(tok_.text, "IN")) {
                    op = RMSelOp::In;
                    return true;
                }
                if (equalsNoCase(tok_.text, "CONTAINS")) {
                    op = RMSelOp::Contains;
                    return true;
                }
                return false;
            default:
                return false;
        }
    }

    std::unique_ptr<RMSelNode> test() {
        auto n = std::make_unique<RMSelNode>();
        n->pos = tok_.pos;
        n->a = operand();
        RMSelOp op;
        if (!comparison(op)) {
            n->kind = RMSelNode::Kind::Truth;
            return n;
        }
        n->kind = RMSelNode::Kind::Compare;
        n->op = op;
        n->pos = tok_.pos;
        advance();
        n->b = operand();
        return n;
    }

    RMSelOperand operand() {
        RMSelOperand o;
        o.pos = tok_.pos;
        switch (tok_.kind) {
            case RMSelTok::Name:
                o.kind = RMSelOperand::Kind::Attribute;
                o.name = tok_.text;
                advance();
                if (tok_.kind == RMSelTok::Prev) {
                    o.kind = RMSelOperand::Kind::Previous;
                    advance();
                }
                return o;
            case RMSelTok::Param:
                o.kind = RMSelOperand::Kind::Parameter;
                o.name = tok_.text;
                advance();
                return o;
            case RMSelTok::Int:
            case RMSelTok::Real:
            case RMSelTok::Str:
                o.kind = RMSelOperand::Kind::Literal;
                o.literal = tok_.literal;
                advance();
                return o;
            case RMSelTok::LBrace:
                o.kind = RMSelOperand::Kind::List;
                advance();
                if (tok_.kind == RMSelTok::RBrace) {
                    advance();
                    return o;
                }
                while (true) {
                    if (tok_.kind != RMSelTok::Int && tok_.kind != RMSelTok::Real &&
                        tok_.kind != RMSelTok::Str) {
                        rmSelFail(tok_.pos, "a literal was expected in the list");
                    }
                    o.items.push_back(tok_.literal);
                    advance();
                    if (tok_.kind == RMSelTok::RBrace) {
                        advance();
                        return o;
                    }
                    if (tok_.kind != RMSelTok::Comma) {
                        rmSelFail(tok_.pos, "\",\" or \"}\" was expected in the list");
                    }
                    advance();
                }
            case RMSelTok::End:
                rmSelFail(tok_.pos,
                          "the selection ends where an attribute or a value was expected");
            default:
                rmSelFail(tok_.pos, "an attribute or a value was expected");
        }
    }

    RMSelLexer lex_;
    RMSelToken tok_;
    int depth_ = 0;
};

}  // namespace

std::unique_ptr<RMSelNode> rmParseSelection(std::string_view text) {
    if (text.size() > kRMMaxSelectionLength) {
        rmSelFail(static_cast<int>(kRMMaxSelectionLength) + 1, "the selection is too long");
    }
    Parser p(text);
    return p.selection();
}

}  // namespace tarn_rmf
