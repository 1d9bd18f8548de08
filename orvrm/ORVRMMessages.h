// Default texts of the daemon's message catalogue "Kor.ORVRM.cat", set 1
// (ORVRM_set), compiled in and indexed by message number.
#pragma once

namespace orvrm {

inline constexpr char kCatalog[] = "Kor.ORVRM.cat";
inline constexpr int kMessageSet = 1;
inline constexpr int kLastMessage = 111;
inline constexpr char kBadMessageText[] = "Bad message id for message set ORVRM_set";

// The default text of a message: numbers outside 1..111 give kBadMessageText,
// numbers this system does not use the reserved text of entry 0. Never null.
const char* defaultMessageText(int msgNum);

// True for the numbers 1..111 that carry a message.
bool isValidMessageNumber(int msgNum);

}  // namespace orvrm
