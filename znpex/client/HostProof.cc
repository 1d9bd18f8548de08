#include "znpex/client/HostProof.h"

#include <unistd.h>

#include <climits>
#include <mutex>

#include "znhas/sec_proof.h"
#include "znhas/znhas.h"
#include "znpex/client/ClientErrors.h"
#include "znpex/client/Session.h"
#include "znpex/client/px_client.h"
#include "znpex/proto/ClientAuth.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ServiceMessages.h"

namespace znpex::client {
namespace {

std::mutex gClaimMu;  // guards gClaim
std::string gClaim;

std::string systemHostName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof(name) - 1) != 0) {
        return {};
    }
    return name;
}

// Whether this process can read the host's private key (root can).
bool hostKeyReadable() {
    sec_buffer_t token = nullptr;
    int rc = sec_get_localhost_token(1, &token);
    if (token != nullptr) {
        sec_release_host_token(&token);
    }
    return rc == 0;
}

}  // namespace

void setClaimedHost(const std::string& host) {
    std::lock_guard<std::mutex> g(gClaimMu);
    gClaim = host;
}

std::string claimedHost() {
    {
        std::lock_guard<std::mutex> g(gClaimMu);
        if (!gClaim.empty()) {
            return gClaim;
        }
    }
    return systemHostName();
}

int greetOverTcp(px_session& s) {
    const Contact& contact = s.conn->contact();
    proto::AuthHello hello;
    std::string host = claimedHost();
    if (proto::validHostName(host) && proto::validHostName(contact.host) && hostKeyReadable()) {
        hello.host = host;
        hello.to = contact.host;
    }
    proto::Json result;
    int rc = call(s, proto::kAuthHello, proto::encodeAuthHello(hello), result);
    if (rc == PX_EACCESS && !hello.host.empty()) {
        // Not a host the service knows (a node not managed yet): go on
        // unauthenticated, as a caller without the key would, after the
        // plain hello such a caller sends (it tells the service's name).
        cu_set_no_error_1();
        hello = proto::AuthHello{};
        rc = call(s, proto::kAuthHello, proto::encodeAuthHello(hello), result);
    }
    if (rc != PX_OK) {
        return rc;
    }
    proto::AuthChallenge challenge;
    try {
        challenge = proto::decodeAuthChallenge(result);
    } catch (const proto::ProtocolError& e) {
        return failReply(proto::kAuthHello, e.what());
    }
    s.serviceHost = challenge.host;
    if (hello.host.empty() || challenge.challenge.empty()) {
        return PX_OK;
    }
    std::vector<uint8_t> signature;
    std::string why;
    if (!znhas::signHostProof({proto::kProofOfClient, hello.host, hello.to, challenge.challenge},
                              &signature, &why)) {
        return failProof(contact.text(), hello.host, why);
    }
    return call(s, proto::kAuthProve, proto::encodeAuthProve(signature), result);
}

}  // namespace znpex::client

int px_set_client_host(const char* host) {
    if (host != nullptr && *host != '\0' && !znpex::proto::validHostName(host)) {
        return znpex::client::failInvalid("px_set_client_host",
                                          std::string("not a host name: ") + host);
    }
    znpex::client::setClaimedHost(host != nullptr ? host : "");
    return PX_OK;
}
