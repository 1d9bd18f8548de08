#include "common/HostChecks.h"

#include <arpa/inet.h>
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/WexTrace.h"

void strtolower(char* text) {
    if (text == nullptr) {
        return;
    }
    for (char* p = text; *p != '\0'; ++p) {
        *p = static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    }
}

namespace WEX_COMMON {

int isValidNonLocalMachineName(char* name) {
    wexTrace("%s(%s) called\n", "isValidNonLocalMachineName", name != nullptr ? name : "<null>");
    if (name == nullptr || *name == '\0') {
        return 0;
    }
    for (const char* local : {"localhost", "loopback", "localhost.localdomain"}) {
        if (strcasecmp(name, local) == 0) {
            wexTrace("hname is '%s', returning false", local);
            return 0;
        }
    }
    wexTrace("hname is not a local hostname, returning true");
    return 1;
}

int isValidNonLoopbackIPAddress(char* text) {
    wexTrace("%s(%s) called\n", "isValidNonLoopbackIPAddress", text != nullptr ? text : "<null>");
    if (text == nullptr) {
        return 0;
    }
    in_addr addr{};
    if (inet_aton(text, &addr) == 0) {
        wexTrace("inet_aton(%s) returned an error", text);
        return 0;
    }
    std::string head = std::string(text).substr(0, 15);
    size_t dot = head.find('.');
    if (dot == std::string::npos) {
        return 0;
    }
    head.resize(dot);
    if (std::strtol(head.c_str(), nullptr, 10) == 127) {
        wexTrace("%s is a local loopback address", text);
        return 0;
    }
    return 1;
}

}  // namespace WEX_COMMON
