#include "znpex/server/ServiceErrors.h"

#include "tarn_rmf/RMCommonErrors.h"

namespace znpex::server {
namespace {

constexpr char kPermText[] =
    "2660-001 Permission denied: %1$s may not perform %2$s on class %3$s.\n";
constexpr char kTimeoutText[] =
    "2660-002 The resource manager %1$s did not answer %2$s within %3$lld milliseconds.\n";
constexpr char kAclText[] =
    "2660-003 The access control list could not be read; the previous rules stay in force: "
    "%1$s\n";
constexpr char kRegisterText[] = "2660-004 The resource manager %1$s cannot register: %2$s\n";
constexpr char kBusyText[] =
    "2660-005 Too many requests of this connection are waiting for an answer (at most %1$d).\n";

zn::ErrorPtr common(int id, const std::string& what) {
    cu_error_t* e = nullptr;
    tarn_rmf::RMPkgCommonError(id, nullptr, &e, what.c_str());
    return zn::ErrorPtr(e);
}

}  // namespace

zn::ErrorPtr permissionDenied(const std::string& identity, const std::string& method,
                              const std::string& className) {
    cu_error_t* e = nullptr;
    cu_pkg_error_1(&e, ZNPEX_EPERM, nullptr, kServiceCatalog, kServiceSet, 1, kPermText,
                   identity.c_str(), method.c_str(), className.c_str());
    return zn::ErrorPtr(e);
}

zn::ErrorPtr managerTimedOut(const std::string& rmName, const std::string& method,
                             long long milliseconds) {
    cu_error_t* e = nullptr;
    cu_pkg_error_1(&e, ZNPEX_ETIMEDOUT, nullptr, kServiceCatalog, kServiceSet, 2, kTimeoutText,
                   rmName.c_str(), method.c_str(), milliseconds);
    return zn::ErrorPtr(e);
}

zn::ErrorPtr aclUnreadable(const std::string& why) {
    cu_error_t* e = nullptr;
    cu_pkg_error_1(&e, ZNPEX_EACLFILE, nullptr, kServiceCatalog, kServiceSet, 3, kAclText,
                   why.c_str());
    return zn::ErrorPtr(e);
}

zn::ErrorPtr registrationRefused(const std::string& rmName, const std::string& why) {
    cu_error_t* e = nullptr;
    cu_pkg_error_1(&e, ZNPEX_EREGISTER, nullptr, kServiceCatalog, kServiceSet, 4, kRegisterText,
                   rmName.c_str(), why.c_str());
    return zn::ErrorPtr(e);
}

zn::ErrorPtr tooManyRequests(int limit) {
    cu_error_t* e = nullptr;
    cu_pkg_error_1(&e, ZNPEX_EBUSY, nullptr, kServiceCatalog, kServiceSet, 5, kBusyText, limit);
    return zn::ErrorPtr(e);
}

zn::ErrorPtr unknownClass(const std::string& className) {
    return common(tarn_rmf::RM_EINVALIDCLASS, className);
}

zn::ErrorPtr notConnected(const std::string& rmName) {
    return common(tarn_rmf::RM_ENOTCONNECTED, rmName);
}

}  // namespace znpex::server
