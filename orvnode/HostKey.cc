#include "orvnode/HostKey.h"

#include "znhas/sec_keyfile.h"
#include "znhas/sec_thl.h"
#include "znhas/znhas.h"

namespace orvnode {
namespace {

bool readPublic(std::vector<uint8_t>* out) {
    sec_buffer_t token = nullptr;
    if (sec_get_localhost_token(2, &token) != 0 || token == nullptr) {
        return false;
    }
    const auto* p = static_cast<const uint8_t*>(token->value);
    out->assign(p, p + token->length);
    sec_release_host_token(&token);
    return !out->empty();
}

}  // namespace

bool ensureHostKey(std::vector<uint8_t>* publicToken, bool* made, std::string* why) {
    *made = false;
    if (readPublic(publicToken)) {
        return true;
    }
    if (int rc = sec__create_localhost_hostids(SEC_KEYTYPE_RSA1024); rc != 0) {
        *why = "this host's key pair could not be made (code " + std::to_string(rc) + ")";
        return false;
    }
    *made = true;
    if (!readPublic(publicToken)) {
        *why = "this host's new public key cannot be read";
        return false;
    }
    return true;
}

bool trustServer(const std::string& name, const std::vector<uint8_t>& token, std::string* why) {
    // A node that never trusted anyone has no list yet.
    if (int rc = sec__init_thl(); rc != 0) {
        *why = "this host's trusted host list cannot be made (code " + std::to_string(rc) + ")";
        return false;
    }
    sec_buffer_s buffer{static_cast<uint32_t>(token.size()), const_cast<uint8_t*>(token.data())};
    if (int rc = sec_store_host_token(name.c_str(), &buffer); rc != 0) {
        *why = "the server's key could not be stored under " + name +
               " in the trusted host list (code " + std::to_string(rc) + ")";
        return false;
    }
    return true;
}

}  // namespace orvnode
