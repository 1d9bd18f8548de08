// What a caller that has not authenticated may ask: only what a node needs
// to ask to be managed, the enrollment class's request action and the
// action that lists the request protocols it takes. The access list may
// grant that class more to "UNAUTHENT"; this gate holds whatever it says.
// Pure functions; thread-safe.
#pragma once

#include <string>

#include "tarn_rmf2v/RMRequest.h"
#include "znpex/server/MethodTable.h"

namespace znpex::server {

inline constexpr char kEnrollmentClass[] = "Kor.NodeAuthenticate";
// The class actions open before authentication, by name.
inline constexpr const char* kEnrollmentActions[] = {"RequestNodeManagement", "SupportedProtocols"};

bool isEnrollmentAction(const std::string& className, const std::string& actionName);

// May an unauthenticated caller send `info` with `request`? `actionName` is
// the name the class gives the request's class action ("" when unknown).
bool openBeforeAuthentication(const MethodInfo& info, const tarn_rmf2v::RMRequest& request,
                              const std::string& actionName);

}  // namespace znpex::server
