#include "orvrm/refreshpex.h"

#include "orvrm/pexaclrefresh.h"

int refreshpex() {
    return requestPexAclRefresh() == 0 ? 0 : -1;
}
