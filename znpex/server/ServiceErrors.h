// The service's own errors, from its message catalogue "znpex.cat" set 1:
// refused permission, a manager that did not answer in time, an access list
// that could not be read, a refused registration, too many waiting requests.
// Each builder returns a new error the caller owns. Thread-safe.
#pragma once

#include <string>

#include "platform/zn_owned.h"

namespace znpex::server {

inline constexpr char kServiceCatalog[] = "znpex.cat";
inline constexpr int kServiceSet = 1;

// Error ids of the service.
enum : int {
    ZNPEX_EPERM = 0x30001,
    ZNPEX_ETIMEDOUT = 0x30002,
    ZNPEX_EACLFILE = 0x30003,
    ZNPEX_EREGISTER = 0x30004,
    ZNPEX_EBUSY = 0x30005,
};

zn::ErrorPtr permissionDenied(const std::string& identity, const std::string& method,
                              const std::string& className);
zn::ErrorPtr managerTimedOut(const std::string& rmName, const std::string& method,
                             long long milliseconds);
zn::ErrorPtr aclUnreadable(const std::string& why);
zn::ErrorPtr registrationRefused(const std::string& rmName, const std::string& why);
zn::ErrorPtr tooManyRequests(int limit);
// The framework's common errors the service answers with: an unknown class
// (0x10007) and a manager that is not connected (0x10015).
zn::ErrorPtr unknownClass(const std::string& className);
zn::ErrorPtr notConnected(const std::string& rmName);

}  // namespace znpex::server
