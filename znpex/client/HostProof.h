// The host a TCP session claims to run on, and its proof: after connecting,
// the session says "auth.hello"; when this host's private key is readable
// (the caller is root, or whoever the key file lets read it) it names the
// host and signs the service's challenge with the key, so that the service
// knows it as "root@<host>". A host the service does not list stays
// unauthenticated, which is how a node that is not managed yet asks to be.
// Thread-safe.
#pragma once

#include <string>

struct px_session;

namespace znpex::client {

// The name sessions started from now on claim ("": the system's host name).
void setClaimedHost(const std::string& host);
std::string claimedHost();

// The greeting over a new TCP connection: PX_OK, authenticated or not;
// PX_EACCESS when the service refused this host's proof (it then closes the
// connection) or the key could not sign; other codes as call() gives them.
int greetOverTcp(px_session& s);

}  // namespace znpex::client
