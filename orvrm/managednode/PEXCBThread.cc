#include "orvrm/managednode/PEXCBThread.h"

#include <string>

#include "orvrm/ORVRMLog.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "znpex/client/px_event.h"

namespace orvrm {

int EventDispatchThread::dispatch(const char* name) {
    orvrminfo_trace("%s: Entered", name);
    int rc = px_dispatch(session_, 1);
    orvrminfo_trace("%s: px_dispatch rc %d", name, rc);
    return rc;
}

void PEXCBThread::run(void*) {
    int rc = dispatch("PEXCBThread");
    rccp_->dpexDispatchEnded(session_, rc);
}

void LocalPEXCBThread::run(void*) {
    int rc = dispatch("LocalPEXCBThread");
    rccp_->localDispatchEnded(session_, rc);
}

}  // namespace orvrm
