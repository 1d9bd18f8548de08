#include "znpex/client/ClientErrors.h"

#include "platform/zn_types.h"
#include "znpex/client/px_client.h"
#include "znpex/proto/ErrorCodec.h"

namespace znpex::client {
namespace {

constexpr char kConnectText[] =
    "2661-001 Cannot connect to the monitoring service at %1$s: %2$s.\n";
constexpr char kOptionText[] =
    "2661-002 The session option value 0x%1$x is not supported; use 0x401 or 1.\n";
constexpr char kCommText[] =
    "2661-003 The connection to the monitoring service at %1$s failed: %2$s.\n";
constexpr char kTimeoutText[] =
    "2661-004 The monitoring service at %1$s did not answer %2$s within %3$d milliseconds.\n";
constexpr char kReplyText[] =
    "2661-005 The monitoring service answered %1$s with an unusable reply: %2$s.\n";
constexpr char kInvalidText[] = "2661-006 Invalid argument to %1$s: %2$s.\n";
constexpr char kNoAttrText[] = "2661-007 The class %1$s has no %2$s attribute named %3$s.\n";
constexpr char kNoActionText[] = "2661-008 The class %1$s has no %2$s action named %3$s.\n";
constexpr char kTypeText[] =
    "2661-009 The attribute %1$s of class %2$s has data type %3$s, not %4$s.\n";
constexpr char kRefusedText[] = "2661-010 The monitoring service refused %1$s: %2$s.\n";
constexpr char kNoMemText[] = "2661-011 Out of memory in %1$s.\n";
constexpr char kNotAuthText[] =
    "2661-012 Permission denied: the class %1$s is not open to %2$s; a caller that has not "
    "authenticated may only ask to be managed. Use this host's local socket, or prove this "
    "host's key.\n";
constexpr char kProofText[] =
    "2661-013 This host could not prove that it is %2$s to the monitoring service at %1$s: "
    "%3$s.\n";

const char* typeName(int t) {
    const char* n = zn_data_type_name(static_cast<zn_data_type_t>(t));
    return n != nullptr ? n : "an unknown type";
}

}  // namespace

int failConnect(const std::string& where, const std::string& why) {
    cu_set_error_1(PXC_ECONNECT, nullptr, kClientCatalog, kClientSet, 1, kConnectText,
                   where.c_str(), why.c_str());
    return PX_ECONNECT;
}

int failOption(unsigned int options) {
    cu_set_error_1(PXC_ENOTSUPPORTED, nullptr, kClientCatalog, kClientSet, 2, kOptionText, options);
    return PX_ENOTSUPPORTED;
}

int failComm(const std::string& where, const std::string& why) {
    cu_set_error_1(PXC_ECOMM, nullptr, kClientCatalog, kClientSet, 3, kCommText, where.c_str(),
                   why.c_str());
    return PX_ECOMM;
}

int failTimeout(const std::string& where, const std::string& method, int ms) {
    cu_set_error_1(PXC_ETIMEDOUT, nullptr, kClientCatalog, kClientSet, 4, kTimeoutText,
                   where.c_str(), method.c_str(), ms);
    return PX_ETIMEDOUT;
}

int failReply(const std::string& method, const std::string& why) {
    cu_set_error_1(PXC_EREPLY, nullptr, kClientCatalog, kClientSet, 5, kReplyText, method.c_str(),
                   why.c_str());
    return PX_ECOMM;
}

int failInvalid(const char* function, const std::string& why) {
    cu_set_error_1(PXC_EINVAL, nullptr, kClientCatalog, kClientSet, 6, kInvalidText, function,
                   why.c_str());
    return PX_EINVAL;
}

int failEnded(const char* function) {
    return failInvalid(function, "the session has ended");
}

int failNoAttr(const std::string& className, const char* kind, const std::string& name) {
    cu_set_error_1(PXC_ENOATTR, nullptr, kClientCatalog, kClientSet, 7, kNoAttrText,
                   className.c_str(), kind, name.c_str());
    return PX_EINVAL;
}

int failNoAction(const std::string& className, const char* kind, const std::string& name) {
    cu_set_error_1(PXC_ENOACTION, nullptr, kClientCatalog, kClientSet, 8, kNoActionText,
                   className.c_str(), kind, name.c_str());
    return PX_EINVAL;
}

int failType(const std::string& className, const std::string& attr, int want, int have) {
    cu_set_error_1(PXC_ETYPE, nullptr, kClientCatalog, kClientSet, 9, kTypeText, attr.c_str(),
                   className.c_str(), typeName(want), typeName(have));
    return PX_EINVAL;
}

int failNoMemory(const char* function) {
    cu_set_error_1(PXC_ENOMEM, nullptr, kClientCatalog, kClientSet, 11, kNoMemText, function);
    return PX_ENOMEM;
}

int failNotAuthenticated(const std::string& className, const std::string& identity) {
    cu_set_error_1(PXC_ENOTAUTH, nullptr, kClientCatalog, kClientSet, 12, kNotAuthText,
                   className.c_str(), identity.c_str());
    return PX_EACCESS;
}

int failProof(const std::string& where, const std::string& host, const std::string& why) {
    cu_set_error_1(PXC_EPROOF, nullptr, kClientCatalog, kClientSet, 13, kProofText, where.c_str(),
                   host.c_str(), why.c_str());
    return PX_EACCESS;
}

int resultForRpcCode(int rpcCode) {
    switch (rpcCode) {
        case proto::kPermissionDenied:
            return PX_EACCESS;
        case proto::kNotConnected:
            return PX_ENOTCONNECTED;
        case proto::kMethodNotFound:
            return PX_ENOMETHOD;
        case proto::kInvalidParams:
            return PX_EINVAL;
        case proto::kParseError:
        case proto::kInvalidRequest:
            return PX_ECOMM;
        default:
            return PX_EFAILED;
    }
}

int failRpc(const std::string& method, const proto::RpcMessage& reply) {
    int rc = resultForRpcCode(reply.errorCode);
    if (reply.errorData.is_object()) {
        try {
            zn::ErrorPtr e = proto::decodeError(reply.errorData, "error.data");
            cu_set_error_obj_1(e.get());
            return rc;
        } catch (const proto::ProtocolError&) {
            // Not an error object after all: fall back to the message text.
        }
    }
    cu_set_error_1(PXC_EREFUSED, nullptr, kClientCatalog, kClientSet, 10, kRefusedText,
                   method.c_str(), reply.errorMessage.c_str());
    return rc;
}

}  // namespace znpex::client
