// Proof that a host holds the private key that other hosts' trusted host
// lists know it by: the host signs a fresh challenge from the asking side,
// bound to a purpose and to both host names, and the asking side checks the
// signature with the key its own trusted host list holds for that name.
// RSA PKCS#1 v1.5 over SHA-256 (OpenSSL), keys taken from this library's
// tokens. 512-bit keys (type 8193) prove nothing: they are refused on both
// sides. Used between the hosts' monitoring services and by clients that
// authenticate to a service with their host key. Thread-safe.
//
//   // Asking side:
//   auto nonce = znhas::newProofNonce();
//   ... send nonce, receive signature ...
//   std::string why;
//   if (!znhas::verifyHostProof({"peer-hello", "node1", "mgmt", nonce}, sig, &why)) refuse(why);
//   // Proving side:
//   std::vector<uint8_t> sig;
//   if (!znhas::signHostProof({"peer-hello", "node1", "mgmt", nonce}, &sig, &why)) fail(why);
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "znhas/sec_buffer.h"

namespace znhas {

inline constexpr size_t kProofNonceBytes = 32;
// Longest signature accepted (the largest key the generator makes is 2032 bits).
inline constexpr size_t kMaxProofSignature = 512;

// What a proof is about. `purpose` tells apart the roles of one exchange, so
// a signature made for one can never stand for another; `prover` is the name
// the signing host claims, `verifier` the name of the host it proves itself
// to, `nonce` the verifier's fresh challenge.
struct ProofSubject {
    std::string_view purpose;
    std::string_view prover;
    std::string_view verifier;
    const std::vector<uint8_t>& nonce;
};

// A fresh challenge from the system's secure random source (empty when the
// source failed).
std::vector<uint8_t> newProofNonce();

// The bytes that are signed: a fixed label, then each field of the subject
// with its length, so no two subjects share an encoding.
std::vector<uint8_t> proofMessage(const ProofSubject& s);

// Signs with this host's private key (the local key file). False with `why`
// when the key cannot be read, is a 512-bit key, or signing fails.
bool signHostProof(const ProofSubject& s, std::vector<uint8_t>* signature, std::string* why);
// Checks a signature with the key the trusted host list holds for
// `s.prover`. False with `why` when the host is not listed, its key is not
// usable for proofs, or the signature does not match.
bool verifyHostProof(const ProofSubject& s, const std::vector<uint8_t>& signature,
                     std::string* why);

// The same with keys given as tokens (a private key token as
// sec_get_localhost_token(1) returns it, a public key token as the list holds).
bool signWithKeyToken(sec_buffer_t privateToken, const std::vector<uint8_t>& message,
                      std::vector<uint8_t>* signature, std::string* why);
bool verifyWithKeyToken(sec_buffer_t publicToken, const std::vector<uint8_t>& message,
                        const std::vector<uint8_t>& signature, std::string* why);

}  // namespace znhas
