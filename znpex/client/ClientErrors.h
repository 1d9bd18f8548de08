// The client library's own errors, from its catalogue "znpex_client.cat" set
// 1, and the one place that turns a failure into a result code plus the
// calling thread's platform error. Every function sets the thread's error and
// returns the PX_E* code to hand back. Thread-safe (thread-local errors).
#pragma once

#include <string>

#include "znpex/proto/JsonRpc.h"

namespace znpex::client {

inline constexpr char kClientCatalog[] = "znpex_client.cat";
inline constexpr int kClientSet = 1;

// Error ids of the client library.
enum : int {
    PXC_ECONNECT = 0x31001,
    PXC_ENOTSUPPORTED = 0x31002,
    PXC_ECOMM = 0x31003,
    PXC_ETIMEDOUT = 0x31004,
    PXC_EREPLY = 0x31005,
    PXC_EINVAL = 0x31006,
    PXC_ENOATTR = 0x31007,
    PXC_ENOACTION = 0x31008,
    PXC_ETYPE = 0x31009,
    PXC_EREFUSED = 0x3100a,
    PXC_ENOMEM = 0x3100b,
    PXC_ENOTAUTH = 0x3100c,
    PXC_EPROOF = 0x3100d,
};

int failConnect(const std::string& where, const std::string& why);
int failOption(unsigned int options);
int failComm(const std::string& where, const std::string& why);
int failTimeout(const std::string& where, const std::string& method, int ms);
int failReply(const std::string& method, const std::string& why);
int failInvalid(const char* function, const std::string& why);
// A call on a session that was ended, or is ending (PX_EINVAL).
int failEnded(const char* function);
int failNoAttr(const std::string& className, const char* kind, const std::string& name);
int failNoAction(const std::string& className, const char* kind, const std::string& name);
int failType(const std::string& className, const std::string& attr, int want, int have);
int failNoMemory(const char* function);
// A class the service does not show a caller that has not authenticated
// (PX_EACCESS): it may exist, but only enrollment is open to such callers.
int failNotAuthenticated(const std::string& className, const std::string& identity);
// This host's key could not prove the host to the service at `where` (PX_EACCESS).
int failProof(const std::string& where, const std::string& host, const std::string& why);
// A JSON-RPC error reply: the service's error object when it sent one, else
// the client's "refused" message; the code chosen from the JSON-RPC code.
int failRpc(const std::string& method, const proto::RpcMessage& reply);
// The result code for a JSON-RPC error code.
int resultForRpcCode(int rpcCode);

}  // namespace znpex::client
