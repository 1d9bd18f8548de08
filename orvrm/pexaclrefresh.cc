#include "orvrm/pexaclrefresh.h"

#include <cerrno>

int requestPexAclRefresh() {
    // Placeholder until the monitoring service and its socket protocol exist.
    errno = ENOSYS;
    return -1;
}
