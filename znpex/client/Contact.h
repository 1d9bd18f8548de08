// Where a session goes: this host's service over its local socket, or
// "host[:port]" over TCP ("[v6addr]:port" for IPv6 literals). Pure value,
// thread-safe.
#pragma once

#include <cstdint>
#include <string>

namespace znpex::client {

struct Contact {
    bool local = true;
    std::string host;  // TCP only
    uint16_t port = 0;
    // How messages name it: the socket path or "host:port".
    std::string text() const;
};

// The TCP port of a contact that names none: ZNPEX_PORT from the
// environment when it holds a port, else PX_DEFAULT_PORT.
uint16_t defaultPort();

// null or "localhost" (any letter case): the local socket. Returns false and
// says why for an empty host, a bad port or unbalanced brackets.
bool parseContact(const char* text, Contact& out, std::string* why);

}  // namespace znpex::client
