// The daemon's five resource classes, once: in the order they are created at
// start, each with its name, the factory that makes its class control point,
// the code its resource handles carry and the text of its creation failure.
// Start-up, the control point's createRCCP and every lookup of one class by
// another (findRccpByName) read it.
#pragma once

#include <array>

#include "tarn_rmf2v/RMRccp.h"

class ORVRMRmcp;

namespace orvrm {

inline constexpr char kOrvCtrlClass[] = "Kor.OrvCtrl";
inline constexpr char kNodeAuthenticateClass[] = "Kor.NodeAuthenticate";
inline constexpr char kNetworkInterfaceClass[] = "Kor.MNNetworkInterface";
inline constexpr char kManagedNodeClass[] = "Kor.ManagedNode";
inline constexpr char kNodeGroupClass[] = "Kor.NodeGroup";

using ClassFactory = tarn_rmf2v::RMRccp* (*)(char* className, rm_object_type type, ORVRMRmcp* rmcp);

struct ClassEntry {
    const char* name;
    ClassFactory factory;
    unsigned int handleCode;  // stored in the class's resource handles
    const char* failureText;  // "new OrvCtrl": the operation that failed at start
};

// In creation order.
const std::array<ClassEntry, 5>& classList();
// The entry of a class, or null.
const ClassEntry* findClass(const char* name);

}  // namespace orvrm
