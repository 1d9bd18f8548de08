// Fuzz target for the inputs of the "Kor.NodeAuthenticate" actions, which
// come from nodes that may be hostile: any structured data, for any action
// number, must be answered exactly once, without a crash or a read outside
// the input. The input's first byte picks the action (low 3 bits) and
// whether the domain takes unknown nodes (bit 3); the rest is decoded into
// elements (see decode()). The daemon's classes run once per process in a
// state root of their own, with a frame key known to the corpus
// ("FUZZ-FRAME", key "fuzz-frame-key"), so signed requests reach the end.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "orvrm/ClassList.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/orvctrl/OrvCtrlRccp.h"
#include "platform/paths.h"
#include "tarn_rmf2v/RMRequest.h"
#include "tarn_rmf2v/RMServiceLink.h"
#include "znhas/sec_keyfile.h"
#include "znhas/znhas.h"

namespace {

constexpr uint32_t kMaxElements = 32;

class NullLink : public tarn_rmf2v::RMServiceLink {
public:
    void resourcesUndefined(const std::string&, const std::vector<zn_resource_handle>&) override {}
    void attributesModified(const std::string&, const zn_resource_handle*, bool,
                            const rm_attribute_value*, unsigned int) override {}
    void sendPeerMessage(int, int, const void*, unsigned int) override {}
};

struct Reader {
    const uint8_t* p;
    size_t n;
    bool take(void* out, size_t k) {
        if (k > n) {
            return false;
        }
        std::memcpy(out, p, k);
        p += k;
        n -= k;
        return true;
    }
    // A string: a length byte (255: null) and the bytes.
    bool text(char** out) {
        uint8_t len = 0;
        if (!take(&len, 1))
            return false;
        if (len == 255) {
            *out = nullptr;
            return true;
        }
        *out = static_cast<char*>(std::calloc(1, len + 1u));
        return take(*out, len);
    }
};

// Elements: a type selector byte, then the value (integers in host order;
// strings as above; binaries with a 2-byte length; string arrays with a
// count byte, then strings).
zn::SdPtr decode(Reader r) {
    static const zn_data_type_t kTypes[] = {ZN_UINT32,         ZN_INT32,    ZN_UINT64,
                                            ZN_INT64,          ZN_CHAR_PTR, ZN_BINARY_PTR,
                                            ZN_CHAR_PTR_ARRAY, ZN_FLOAT64};
    uint8_t count = 0;
    if (!r.take(&count, 1)) {
        return nullptr;
    }
    count = static_cast<uint8_t>(count % (kMaxElements + 1));
    zn::SdPtr sd(zn_sd_new(count));
    for (uint32_t i = 0; i < count; ++i) {
        uint8_t sel = 0;
        r.take(&sel, 1);
        zn_structured_data_element_t& e = sd->elements[i];
        e.data_type = kTypes[sel % 8];
        e.value.val_uint64 = 0;
        switch (e.data_type) {
            case ZN_UINT32:
            case ZN_INT32:
                r.take(&e.value.val_uint32, 4);
                break;
            case ZN_CHAR_PTR:
                r.text(&e.value.ptr_char);
                break;
            case ZN_BINARY_PTR: {
                uint16_t len = 0;
                r.take(&len, 2);
                len = static_cast<uint16_t>(std::min<size_t>(len, r.n));
                e.value.ptr_binary = zn_binary_new(r.p, len);
                r.p += len;
                r.n -= len;
                break;
            }
            case ZN_CHAR_PTR_ARRAY: {
                uint8_t k = 0;
                r.take(&k, 1);
                e.value.ptr_array = zn_array_new(k % 16);
                for (uint32_t j = 0; j < e.value.ptr_array->array_cnt; ++j) {
                    r.text(&e.value.ptr_array->elements[j].ptr_char);
                }
                break;
            }
            default:
                r.take(&e.value.val_uint64, 8);
                break;
        }
    }
    return sd;
}

// The state root, removed when the process ends.
std::string& rootToRemove() {
    static std::string* root = new std::string();
    return *root;
}

struct Daemon {
    Daemon() {
        const char* base = std::getenv("TMPDIR");
        std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                           "/orvrm-fuzz-nodeauth-XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) {
            std::abort();
        }
        root = tmpl;
        rootToRemove() = root;
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(rootToRemove(), ec);
        });
        setenv("ZN_ROOT", root.c_str(), 1);
        std::string keys = zn::paths::resolve(zn::paths::kFrameKeyStore);
        zn::paths::ensureParentDir(keys);
        // "fuzz-frame-key" in hex.
        std::ofstream(keys) << "FUZZ-FRAME 66757a7a2d6672616d652d6b6579\n";
        std::filesystem::permissions(
            keys, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
        unsigned char key[64] = {1};
        sec_buffer_t token = nullptr;
        sec_create_host_token("fuzz", sizeof key, key, SEC_KEYTYPE_RSA1024, &token);
        sec__record_hostid_token(SEC_PUBLIC_KEYFILE, token);
        sec_release_host_token(&token);
        rmcp = std::make_unique<ORVRMRmcp>("Kor.ORVRM", 1);
        rmcp->setServiceLink(&link);
        for (const orvrm::ClassEntry& e : orvrm::classList()) {
            std::string name = e.name;
            cu_error_t* err = nullptr;
            rmcp->createRCCP(name.data(), &err);
            cu_rel_error_1(err);
        }
        settings = dynamic_cast<orvrm::OrvCtrlRccp*>(rmcp->findRccpByName(orvrm::kOrvCtrlClass));
    }
    std::string root;
    NullLink link;
    std::unique_ptr<ORVRMRmcp> rmcp;
    orvrm::OrvCtrlRccp* settings = nullptr;
};

Daemon& daemon() {
    // Never destroyed: the process ends with the fuzzer.
    static Daemon* d = new Daemon();
    return *d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Daemon& d = daemon();
    uint8_t first = size > 0 ? data[0] : 0;
    if (d.settings != nullptr) {
        d.settings->setAddUnrecognizedNodes((first & 8) != 0 ? 1 : 0);
    }
    tarn_rmf2v::RMRequest rq;
    rq.op = tarn_rmf2v::RMRequestOp::InvokeClassAction;
    rq.className = orvrm::kNodeAuthenticateClass;
    rq.actionId = first & 7;
    rq.input = decode(Reader{size > 0 ? data + 1 : data, size > 0 ? size - 1 : 0});
    tarn_rmf2v::RMReply reply = d.rmcp->dispatchSync(rq);
    if (!reply.completed) {
        std::fprintf(stderr, "fuzz invariant broken: the action left its response open\n");
        std::abort();
    }
    return 0;
}
