// Validity checks on host names and addresses given by nodes: local names and
// loopback addresses are refused. Plus strtolower. Stateless and thread-safe
// (strtolower changes only its argument).
#pragma once

// Lower-cases a text in place with the locale's mapping; null or empty is left alone.
void strtolower(char* text);

namespace WEX_COMMON {

// 0 for null, empty, "localhost", "loopback" or "localhost.localdomain" (any
// letter case); 1 for every other name.
int isValidNonLocalMachineName(char* name);

// 0 for null, for a text the dotted-address conversion refuses, for an
// address written without "." in its first 15 characters and for 127.x;
// 1 otherwise.
int isValidNonLoopbackIPAddress(char* text);

}  // namespace WEX_COMMON
