// Signatures of requests and replies with the secret key of the node's
// hardware frame, found by its MTMS in the frame key store. The key is
// copied out under the key mutex and wiped when the check or signing is done.
#include "common/SignSD.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/nodeauth/NodeAuthenticateRccp.h"

namespace orvrm {

bool NodeAuthenticateRccp::getSecretKey(const char* mtms, WEX_COMMON::SecretBytes* key) {
    if (mtms == nullptr || !WEX_COMMON::FrameKeyStore::validMtms(mtms)) {
        return false;
    }
    return frameKeys_.lookup(mtms, key);
}

int NodeAuthenticateRccp::verifySignature(const char* mtms, zn_structured_data_element_t* elements,
                                          int count, const zn_binary* signature, cu_error_t** err) {
    WEX_COMMON::SecretBytes key;
    {
        std::lock_guard<std::mutex> g(keyMu_);
        if (!getSecretKey(mtms, &key)) {
            orvrminfo_trace("getSecretKey: Unable to locate MTMS %s", mtms != nullptr ? mtms : "");
            *err = pkg_error(267, 46, "verifySignature", 0);
            return 127;
        }
    }
    sec_buffer_s keyBuf = key.buffer();
    sec_buffer_s sig{};
    WEX_COMMON::binary2sec(const_cast<zn_binary*>(signature), &sig);
    unsigned int rc = WEX_COMMON::verifySD(elements, count, &keyBuf, &sig);
    if (rc != 0) {
        orvrminfo_trace("verifySD: Failed with return code %d", static_cast<int>(rc));
        return 0;
    }
    return 1;
}

int NodeAuthenticateRccp::createSignature(const char* mtms, zn_structured_data_element_t* elements,
                                          int count, zn_binary** signature, cu_error_t** err) {
    WEX_COMMON::SecretBytes key;
    {
        std::lock_guard<std::mutex> g(keyMu_);
        if (!getSecretKey(mtms, &key)) {
            orvrminfo_trace("getSecretKey: Unable to locate MTMS %s", mtms != nullptr ? mtms : "");
            *err = pkg_error(267, 45, "createSignature", 0);
            return -1;
        }
    }
    sec_buffer_s keyBuf = key.buffer();
    sec_buffer_s sig{};
    int rc = WEX_COMMON::signSD(elements, count, &keyBuf, &sig);
    if (rc != 0) {
        orvrminfo_trace("signSD: Failed with rc %d", rc);
        return rc;
    }
    zn_binary* out = nullptr;
    unsigned int crc = WEX_COMMON::sec2binary(&sig, out);
    sec_release_buffer(&sig);
    if (crc != 0) {
        orvrminfo_trace("sec2binary failed with rc %d", static_cast<int>(crc));
        return static_cast<int>(crc);
    }
    *signature = out;
    return 0;
}

}  // namespace orvrm
