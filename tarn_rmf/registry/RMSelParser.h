// Parser of the selection language shared by table selections, resource
// enumeration, node-group selection strings and event expressions. It turns
// the final text (callers fill printf placeholders first) into a parse tree;
// names are resolved and types checked later, by RMSelection::compile.
// Stateless; safe from any thread.
//
// Grammar (keywords IN and CONTAINS in any case; blanks between tokens):
//
//   selection  := "*" | <empty> | expr
//   expr       := and { "||" and }
//   and        := unary { "&&" unary }
//   unary      := "!" unary | "(" expr ")" | test
//   test       := operand [ op operand ]      an operand alone is a truth test
//   op         := "==" | "!=" | "<" | ">" | "<=" | ">=" | "=~" | "!~"
//               | "IN" | "CONTAINS"
//   operand    := name [ "@P" ] | "$" name | literal | "{" [ literal { "," literal } ] "}"
//   name       := [A-Za-z_][A-Za-z0-9_]*      an attribute; "@P": its previous value
//   literal    := integer | real | string
//   integer    := [ "-" ] ( digits | "0x" hexdigits )
//   real       := [ "-" ] digits "." digits [ exponent ] | [ "-" ] digits exponent
//   string     := '"' chars '"' | "'" chars "'"   escapes \" \' \\ \n \t \r; any
//                                                  other "\c" stays as written, so
//                                                  regular expressions read naturally
//
// Errors raise RMTableError kSelection with the 1-based position.
#pragma once

#include <memory>
#include <string_view>

#include "tarn_rmf/registry/RMSelAst.h"

namespace tarn_rmf {

// Longest selection text and deepest nesting accepted, to bound work on input.
inline constexpr size_t kRMMaxSelectionLength = 64 * 1024;
inline constexpr int kRMMaxSelectionDepth = 64;

std::unique_ptr<RMSelNode> rmParseSelection(std::string_view text);

}  // namespace tarn_rmf
