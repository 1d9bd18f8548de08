#include "tarn_rmf/registry/RMSelParser.h"

#include <cerrno>
#include <cstdlib>
#include <string>

#include "tarn_rmf/registry/RMTableError.h"

namespace tarn_rmf {
namespace {

enum class Tok {
    End,
    Name,
    Param,
    Int,
    Real,
    Str,
    LParen,
    RParen,
    LBrace,
    RBrace,
    Comma,
    Star,
    Not,
    AndAnd,
    OrOr,
    Eq,
    Ne,
    Lt,
    Gt,
    Le,
    Ge,
    Match,
    NoMatch,
    Prev
};

struct Token {
    Tok kind = Tok::End;
    int pos = 0;
    std::string text;  // Name, Param, Str (unescaped)
    RMSelLiteral literal;
};

[[noreturn]] void fail(int pos, const std::string& detail) {
    throw RMTableError::build(RMTableErrc::kSelection, pos, detail.c_str());
}

bool isNameStart(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isNameChar(char c) {
    return isNameStart(c) || isDigit(c);
}
int hexDigit(char c) {
    if (isDigit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

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

class Lexer {
public:
    explicit Lexer(std::string_view s) : s_(s) {}

    Token next() {
        while (i_ < s_.size() &&
               (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\n' || s_[i_] == '\r')) {
            ++i_;
        }
        Token t;
        t.pos = static_cast<int>(i_) + 1;
        if (i_ >= s_.size()) {
            return t;
        }
        char c = s_[i_];
        char d = i_ + 1 < s_.size() ? s_[i_ + 1] : '\0';
        if (isNameStart(c)) {
            size_t b = i_;
            while (i_ < s_.size() && isNameChar(s_[i_])) {
                ++i_;
            }
            t.kind = Tok::Name;
            t.text.assign(s_.substr(b, i_ - b));
            return t;
        }
        if (c == '$') {
            ++i_;
            if (i_ >= s_.size() || !isNameStart(s_[i_])) {
                fail(t.pos, "a parameter name must follow \"$\"");
            }
            size_t b = i_;
            while (i_ < s_.size() && isNameChar(s_[i_])) {
                ++i_;
            }
            t.kind = Tok::Param;
            t.text.assign(s_.substr(b, i_ - b));
            return t;
        }
        if (isDigit(c) || (c == '-' && isDigit(d))) {
            number(t);
            return t;
        }
        if (c == '"' || c == '\'') {
            quoted(t, c);
            return t;
        }
        if (c == '@') {
            if (d != 'P' || (i_ + 2 < s_.size() && isNameChar(s_[i_ + 2]))) {
                fail(t.pos, "only \"@P\" (previous value) may follow an attribute name");
            }
            i_ += 2;
            t.kind = Tok::Prev;
            return t;
        }
        struct Two {
            char a, b;
            Tok kind;
        };
        static constexpr Two kTwo[] = {{'=', '=', Tok::Eq},     {'!', '=', Tok::Ne},
                                       {'<', '=', Tok::Le},     {'>', '=', Tok::Ge},
                                       {'=', '~', Tok::Match},  {'!', '~', Tok::NoMatch},
                                       {'&', '&', Tok::AndAnd}, {'|', '|', Tok::OrOr}};
        for (const Two& two : kTwo) {
            if (c == two.a && d == two.b) {
                i_ += 2;
                t.kind = two.kind;
                return t;
            }
        }
        struct One {
            char a;
            Tok kind;
        };
        static constexpr One kOne[] = {{'(', Tok::LParen}, {')', Tok::RParen}, {'{', Tok::LBrace},
                                       {'}', Tok::RBrace}, {',', Tok::Comma},  {'*', Tok::Star},
                                       {'!', Tok::Not},    {'<', Tok::Lt},     {'>', Tok::Gt}};
        for (const One& one : kOne) {
            if (c == one.a) {
                ++i_;
                t.kind = one.kind;
                return t;
            }
        }
        if (c == '=') {
            fail(t.pos, "\"=\" is not an operator; use \"==\"");
        }
        fail(t.pos, std::string("unexpected character '") + c + "'");
    }

private:
    void number(Token& t) {
        RMSelLiteral& lit = t.literal;
        lit.pos = t.pos;
        size_t b = i_;
        if (s_[i_] == '-') {
            lit.negative = true;
            ++i_;
        }
        if (s_[i_] == '0' && i_ + 1 < s_.size() && (s_[i_ + 1] == 'x' || s_[i_ + 1] == 'X')) {
            i_ += 2;
            size_t digits = 0;
            uint64_t v = 0;
            for (; i_ < s_.size() && hexDigit(s_[i_]) >= 0; ++i_, ++digits) {
                if ((v >> 60) != 0) {
                    fail(t.pos, "the number is too large");
                }
                v = (v << 4) | static_cast<uint64_t>(hexDigit(s_[i_]));
            }
            if (digits == 0) {
                fail(t.pos, "hexadecimal digits must follow \"0x\"");
            }
            lit.magnitude = v;
        } else {
            uint64_t v = 0;
            for (; i_ < s_.size() && isDigit(s_[i_]); ++i_) {
                auto digit = static_cast<uint64_t>(s_[i_] - '0');
                if (v > (UINT64_MAX - digit) / 10) {
                    fail(t.pos, "the number is too large");
                }
                v = v * 10 + digit;
            }
            lit.magnitude = v;
            bool fraction = i_ + 1 < s_.size() && s_[i_] == '.' && isDigit(s_[i_ + 1]);
            bool exponent = i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E');
            if (fraction || exponent) {
                real(t, b);
                return;
            }
        }
        if (i_ < s_.size() && isNameChar(s_[i_])) {
            fail(static_cast<int>(i_) + 1, "a number must not run into a name");
        }
        if (lit.negative && lit.magnitude > (uint64_t{1} << 63)) {
            fail(t.pos, "the number is too small");
        }
        t.kind = Tok::Int;
    }

    void real(Token& t, size_t b) {
        if (s_[i_] == '.') {
            ++i_;
            while (i_ < s_.size() && isDigit(s_[i_])) {
                ++i_;
            }
        }
        if (i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E')) {
            ++i_;
            if (i_ < s_.size() && (s_[i_] == '+' || s_[i_] == '-')) {
                ++i_;
            }
            if (i_ >= s_.size() || !isDigit(s_[i_])) {
                fail(t.pos, "digits must follow the exponent");
            }
            while (i_ < s_.size() && isDigit(s_[i_])) {
                ++i_;
            }
        }
        if (i_ < s_.size() && isNameChar(s_[i_])) {
            fail(static_cast<int>(i_) + 1, "a number must not run into a name");
        }
        std::string text(s_.substr(b, i_ - b));
        errno = 0;
        t.literal.real = std::strtod(text.c_str(), nullptr);
        if (errno == ERANGE) {
            fail(t.pos, "the number is out of range");
        }
        t.literal.kind = RMSelLiteral::Kind::Float;
        t.kind = Tok::Real;
    }

    void quoted(Token& t, char quote) {
        ++i_;
        std::string out;
        while (true) {
            if (i_ >= s_.size()) {
                fail(t.pos, "the string is not closed");
            }
            char c = s_[i_++];
            if (c == quote) {
                break;
            }
            if (c == '\0') {
                fail(static_cast<int>(i_), "a string must not hold a NUL character");
            }
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            if (i_ >= s_.size()) {
                fail(t.pos, "the string is not closed");
            }
            char e = s_[i_++];
            switch (e) {
                case '"':
                case '\'':
                case '\\':
                    out.push_back(e);
                    break;
                case 'n':
                    out.push_back('\n');
                    break;
                case 't':
                    out.push_back('\t');
                    break;
                case 'r':
                    out.push_back('\r');
                    break;
                case '\0':
                    fail(static_cast<int>(i_), "a string must not hold a NUL character");
                default:
                    out.push_back('\\');
                    out.push_back(e);
                    break;
            }
        }
        t.kind = Tok::Str;
        t.literal.kind = RMSelLiteral::Kind::String;
        t.literal.text = std::move(out);
        t.literal.pos = t.pos;
    }

    std::string_view s_;
    size_t i_ = 0;
};

class Parser {
public:
    explicit Parser(std::string_view s) : lex_(s) { advance(); }

    std::unique_ptr<RMSelNode> selection() {
        if (tok_.kind == Tok::End) {
            return std::make_unique<RMSelNode>();
        }
        if (tok_.kind == Tok::Star) {
            int pos = tok_.pos;
            advance();
            if (tok_.kind != Tok::End) {
                fail(tok_.pos, "\"*\" selects everything and stands alone");
            }
            auto n = std::make_unique<RMSelNode>();
            n->pos = pos;
            return n;
        }
        auto n = expr();
        if (tok_.kind != Tok::End) {
            fail(tok_.pos, "\"&&\", \"||\" or the end was expected");
        }
        return n;
    }

private:
    void advance() { tok_ = lex_.next(); }

    // One flat node for a chain of the same operator.
    std::unique_ptr<RMSelNode> chain(RMSelNode::Kind kind, Tok op,
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
        return chain(RMSelNode::Kind::Or, Tok::OrOr, &Parser::conjunction);
    }

    std::unique_ptr<RMSelNode> conjunction() {
        return chain(RMSelNode::Kind::And, Tok::AndAnd, &Parser::unary);
    }

    std::unique_ptr<RMSelNode> unary() {
        if (++depth_ > kRMMaxSelectionDepth) {
            fail(tok_.pos, "the selection nests too deeply");
        }
        std::unique_ptr<RMSelNode> n;
        if (tok_.kind == Tok::Not) {
            n = std::make_unique<RMSelNode>();
            n->kind = RMSelNode::Kind::Not;
            n->pos = tok_.pos;
            advance();
            n->kids.push_back(unary());
        } else if (tok_.kind == Tok::LParen) {
            int pos = tok_.pos;
            advance();
            n = expr();
            if (tok_.kind != Tok::RParen) {
                fail(tok_.pos,
                     "\")\" was expected to close the \"(\" at position " + std::to_string(pos));
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
            case Tok::Eq:
                op = RMSelOp::Eq;
                return true;
            case Tok::Ne:
                op = RMSelOp::Ne;
                return true;
            case Tok::Lt:
                op = RMSelOp::Lt;
                return true;
            case Tok::Gt:
                op = RMSelOp::Gt;
                return true;
            case Tok::Le:
                op = RMSelOp::Le;
                return true;
            case Tok::Ge:
                op = RMSelOp::Ge;
                return true;
            case Tok::Match:
                op = RMSelOp::Match;
                return true;
            case Tok::NoMatch:
                op = RMSelOp::NoMatch;
                return true;
            case Tok::Name:
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
            case Tok::Name:
                o.kind = RMSelOperand::Kind::Attribute;
                o.name = tok_.text;
                advance();
                if (tok_.kind == Tok::Prev) {
                    o.kind = RMSelOperand::Kind::Previous;
                    advance();
                }
                return o;
            case Tok::Param:
                o.kind = RMSelOperand::Kind::Parameter;
                o.name = tok_.text;
                advance();
                return o;
            case Tok::Int:
            case Tok::Real:
            case Tok::Str:
                o.kind = RMSelOperand::Kind::Literal;
                o.literal = tok_.literal;
                advance();
                return o;
            case Tok::LBrace:
                o.kind = RMSelOperand::Kind::List;
                advance();
                if (tok_.kind == Tok::RBrace) {
                    advance();
                    return o;
                }
                while (true) {
                    if (tok_.kind != Tok::Int && tok_.kind != Tok::Real && tok_.kind != Tok::Str) {
                        fail(tok_.pos, "a literal was expected in the list");
                    }
                    o.items.push_back(tok_.literal);
                    advance();
                    if (tok_.kind == Tok::RBrace) {
                        advance();
                        return o;
                    }
                    if (tok_.kind != Tok::Comma) {
                        fail(tok_.pos, "\",\" or \"}\" was expected in the list");
                    }
                    advance();
                }
            case Tok::End:
                fail(tok_.pos, "the selection ends where an attribute or a value was expected");
            default:
                fail(tok_.pos, "an attribute or a value was expected");
        }
    }

    Lexer lex_;
    Token tok_;
    int depth_ = 0;
};

}  // namespace

std::unique_ptr<RMSelNode> rmParseSelection(std::string_view text) {
    if (text.size() > kRMMaxSelectionLength) {
        fail(static_cast<int>(kRMMaxSelectionLength) + 1, "the selection is too long");
    }
    Parser p(text);
    return p.selection();
}

}  // namespace tarn_rmf
