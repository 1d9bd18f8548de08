#include "orvrm/pexaclrefresh.h"

#include <unistd.h>

#include <cerrno>
#include <string>

#include "orvrm/ORVRMLog.h"
#include "platform/paths.h"
#include "tarn_rmf2v/link/RMServiceCall.h"
#include "znpex/proto/ServiceMessages.h"

int requestPexAclRefresh(std::chrono::milliseconds timeout) {
    if (::geteuid() != 0) {
        errno = EPERM;
        return -1;
    }
    std::string why;
    int rc = tarn_rmf2v::serviceCall(zn::paths::resolve(zn::paths::kPexSocket),
                                     znpex::proto::kServiceRefreshAcl, znpex::proto::Json::object(),
                                     nullptr, &why, timeout);
    if (rc != 0) {
        int err = errno;
        if (auto* tc = orvrm::traceComponent()) {
            tc->writef(orvrm::kTraceErrors, "requestPexAclRefresh: %s", why.c_str());
        }
        errno = err;
        return -1;
    }
    return 0;
}
