// Host-name questions of the node authentication class and the node
// resource: the local addresses (or names) by which remote hosts see this
// host, this host's primary name, and name/address conversion. All lookups go
// through cu_gethostbyname/cu_gethostbyaddr (so a test's resolver answers
// them); each function traces "<name> called" and "<name> exiting, returning
// <rc>" while WEX_COMMON::TRACE_ENABLED is set. Thread-safe: resolver_lock
// serialises the assembly of connectivity results; lookups run outside it.
#pragma once

#include <mutex>

#include "platform/zn_types.h"

namespace WEX_COMMON {

// fetchConnectivityNames flags: names instead of dotted addresses.
inline constexpr unsigned long long kConnectivityHostNames = 1;
// Flags of 16 or more are refused.
inline constexpr unsigned long long kConnectivityFlagLimit = 16;
// fetchLocalHostPrimaryHostnames flag that is not supported (result 666).
inline constexpr unsigned long long kPrimaryUnsupportedFlag = 2;
// Attempts at resolving one target before giving up.
inline constexpr int kResolveAttempts = 10;

extern std::mutex resolver_lock;

// For each target (a null-terminated list of names or dotted addresses), the
// local source address the system would use to reach it, or with flag 1 that
// address's host name (the dotted address when it has none); each distinct
// result once, in order of first appearance, as a name list (NameList.h) in
// *out that the caller frees. 0 success; 1 bad flags (or null targets/out);
// 2 a target failed to resolve with an error code; 3 it resolved to no
// entry; 4 socket failure; 5 connect failure; 6 local address query failure;
// 7 out of memory. *out is set only on success.
int fetchConnectivityNames(char** targets, zn_array** out, unsigned long long flags);
int fetchConnectivityNames(char* target, zn_array** out, unsigned long long flags);

// A one-element name list holding the official name of this host. 0 success;
// 1 host name unavailable (or null out); 2 not resolvable; 3 out of memory;
// 666 flag 2 given.
int fetchLocalHostPrimaryHostnames(zn_array** out, unsigned long long flags);

// The official host name of a dotted IPv4 address: 0 found, 1 not found.
// The first form hands back a strdup'ed copy (caller frees); the second
// copies into `buf` of `size` bytes, cut to fit and terminated.
int ip2hostname(char* ip, char** hostname);
int ip2hostname(char* ip, char* buf, unsigned int size);

// The first IPv4 address of a host name as a strdup'ed dotted text in *ip
// (caller frees), set only on success. Always returns 0: callers test *ip.
int hostname2ip(char* hostname, char** ip);
// Does nothing and returns 0 (no caller needs it).
int hostname2ip(char* hostname, char* buf, unsigned int size);

}  // namespace WEX_COMMON
