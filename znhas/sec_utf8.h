// Host-name conversion between the process code set and UTF-8, the form names
// are stored and compared in. The two conversion handles are opened once, by
// whichever thread comes first; conversions are serialised on a mutex because
// an iconv handle carries shift state and must not be used by two threads at
// once.
#pragma once

#include <string>

// Opens the handles if not yet open. Returns 0 or code 23 (handle unavailable).
int sec__setup_utf8_hdls(const char* fn);
// Closes them (a later conversion opens them again).
void sec__close_utf8_hdls();
// Converts a NUL-terminated name; code 4 when it is not valid in the source
// code set, 23 when the handles are unavailable.
int sec__conv_str_to_utf8(const char* fn, const char* in, std::string* out);
int sec__conv_utf8_to_str(const char* fn, const char* in, std::string* out);
