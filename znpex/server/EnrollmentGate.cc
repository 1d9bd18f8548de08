#include "znpex/server/EnrollmentGate.h"

namespace znpex::server {

bool isEnrollmentAction(const std::string& className, const std::string& actionName) {
    if (className != kEnrollmentClass) {
        return false;
    }
    for (const char* name : kEnrollmentActions) {
        if (actionName == name) {
            return true;
        }
    }
    return false;
}

bool openBeforeAuthentication(const MethodInfo& info, const tarn_rmf2v::RMRequest& request,
                              const std::string& actionName) {
    return info.kind == MethodKind::ManagerOp &&
           info.op == tarn_rmf2v::RMRequestOp::InvokeClassAction &&
           isEnrollmentAction(request.className, actionName);
}

}  // namespace znpex::server
