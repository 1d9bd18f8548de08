#include "znpex/client/Contact.h"

#include <strings.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "platform/paths.h"
#include "znpex/client/px_client.h"

namespace znpex::client {

std::string Contact::text() const {
    if (local) {
        return zn::paths::resolve(zn::paths::kPexSocket);
    }
    bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

uint16_t defaultPort() {
    // The port every host's service listens on, unless the environment names
    // another (as scripts/run and the tests' hosts do); a value that is not a
    // port is ignored.
    const char* env = std::getenv("ZNPEX_PORT");
    unsigned value = 0;
    if (env != nullptr && *env != '\0') {
        auto r = std::from_chars(env, env + std::strlen(env), value);
        if (r.ec == std::errc() && *r.ptr == '\0' && value > 0 && value <= 65535) {
            return static_cast<uint16_t>(value);
        }
    }
    return PX_DEFAULT_PORT;
}

bool parseContact(const char* text, Contact& out, std::string* why) {
    out = Contact();
    if (text == nullptr || strcasecmp(text, "localhost") == 0) {
        return true;
    }
    std::string s(text);
    std::string host = s;
    std::string port;
    if (!s.empty() && s[0] == '[') {
        size_t close = s.find(']');
        if (close == std::string::npos) {
            *why = "unbalanced '[' in \"" + s + "\"";
            return false;
        }
        host = s.substr(1, close - 1);
        if (close + 1 < s.size()) {
            if (s[close + 1] != ':') {
                *why = "unexpected text after ']' in \"" + s + "\"";
                return false;
            }
            port = s.substr(close + 2);
        }
    } else if (size_t colon = s.find(':'); colon != std::string::npos) {
        if (s.find(':', colon + 1) != std::string::npos) {
            *why = "an IPv6 address needs brackets: \"[" + s + "]\"";
            return false;
        }
        host = s.substr(0, colon);
        port = s.substr(colon + 1);
    }
    if (host.empty()) {
        *why = "no host name in \"" + s + "\"";
        return false;
    }
    unsigned value = defaultPort();
    if (!port.empty() || s.back() == ':') {
        auto r = std::from_chars(port.data(), port.data() + port.size(), value);
        if (port.empty() || r.ec != std::errc() || r.ptr != port.data() + port.size() ||
            value == 0 || value > 65535) {
            *why = "bad port \"" + port + "\" in \"" + s + "\"";
            return false;
        }
    }
    out.local = false;
    out.host = host;
    out.port = static_cast<uint16_t>(value);
    return true;
}

}  // namespace znpex::client
