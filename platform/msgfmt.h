// printf-style message formatting with positional arguments ("%2$s %1$d"), as
// the message catalogues use. Arguments are captured once, typed by the format
// that came with them, so an error can be rendered later with a translated
// text whose conversions come in another order. A translated text that asks for
// a missing argument or another type never reads past what was captured.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

namespace zn {

struct MsgArg {
    enum class Kind { Int, UInt, Double, String, Pointer };
    Kind kind = Kind::Int;
    int64_t i = 0;
    uint64_t u = 0;
    double d = 0;
    std::string s;
    bool nullString = false;
    const void* p = nullptr;
};

using MsgArgs = std::vector<MsgArg>;

// Reads the arguments that `format` consumes from `ap`, in position order.
// Stops at the first position that the format does not type (a gap).
MsgArgs collectMsgArgs(const char* format, va_list ap);
MsgArgs collectMsgArgsV(const char* format, ...);

// Renders `format` with captured arguments. Conversions without an argument
// render as empty; "%n" is never honoured.
std::string formatMsg(const char* format, const MsgArgs& args);

}  // namespace zn
