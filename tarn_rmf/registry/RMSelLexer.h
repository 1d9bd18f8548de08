// The tokens of the selection language (RMSelParser.h gives the grammar):
// names, $parameters, numbers, quoted strings, operators and punctuation,
// each with its 1-based position. Errors raise RMTableError kSelection.
// A lexer reads one text from one thread.
#pragma once

#include <string>
#include <string_view>

#include "tarn_rmf/registry/RMSelAst.h"

namespace tarn_rmf {

enum class RMSelTok {
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

struct RMSelToken {
    RMSelTok kind = RMSelTok::End;
    int pos = 0;
    std::string text;  // Name, Param, Str (unescaped)
    RMSelLiteral literal;
};

class RMSelLexer {
public:
    explicit RMSelLexer(std::string_view s) : s_(s) {}
    RMSelToken next();

private:
    void number(RMSelToken& t);
    void real(RMSelToken& t, size_t begin);
    void quoted(RMSelToken& t, char quote);

    std::string_view s_;
    size_t i_ = 0;
};

// Raises the selection error at `pos`.
[[noreturn]] void rmSelFail(int pos, const std::string& detail);

}  // namespace tarn_rmf
