// Peer-domain operations on a host's monitoring service: status, create,
// start and stop, add and remove a peer node, remove the domain,
// synchronise its configuration, prepare a node.
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "orvrm/NodePEXIface.h"
#include "orvrm/ORVRMLog.h"
#include "platform/zn_owned.h"

namespace {

constexpr char kPeerDomainClass[] = "Kor.PeerDomain";
constexpr char kPeerNodeClass[] = "Kor.PeerNode";
constexpr char kMgmtSvrClass[] = "Kor.ManagementServer";

void logPlatformError(const char* op) {
    cu_error_t* e = nullptr;
    cu_get_error(&e);
    orvrminfo_trace("%s: %s", op, e != nullptr ? cu_error_text(e).c_str() : "no error");
    orvrmlog_error(op, e);
    cu_rel_error_1(e);
}

// The error a response carries: its own, or its first resource's or attribute's.
const cu_error_t* errorOf(const px_resources_rsp_t* rsp) {
    if (rsp == nullptr) {
        return nullptr;
    }
    if (rsp->hdr.pr_error != nullptr) {
        return rsp->hdr.pr_error;
    }
    for (uint32_t r = 0; r < rsp->resource_count; ++r) {
        const px_resource_rsp_t& res = rsp->resources[r];
        if (res.error != nullptr) {
            return res.error;
        }
        for (uint32_t a = 0; a < res.attr_count; ++a) {
            if (res.attrs[a].pv_error != nullptr) {
                return res.attrs[a].pv_error;
            }
        }
    }
    return nullptr;
}

int errnumOf(const cu_error_t* e) {
    return e != nullptr ? e->cu_error_id : 0;
}

std::string errnumText(const cu_error_t* e) {
    return std::to_string(errnumOf(e));
}

// Structured data holding copies of the given values.
zn::SdPtr argumentsOf(std::vector<std::pair<zn_data_type_t, zn_value_t>> values) {
    zn::SdPtr sd(zn_sd_new(static_cast<uint32_t>(values.size())));
    if (!sd) {
        return sd;
    }
    for (size_t i = 0; i < values.size(); ++i) {
        zn_value_t copy{};
        if (!zn_value_dup(values[i].first, values[i].second, copy)) {
            return zn::SdPtr();
        }
        sd->elements[i].data_type = values[i].first;
        sd->elements[i].value = copy;
    }
    return sd;
}

zn_value_t text(const char* s) {
    zn_value_t v{};
    v.ptr_char = const_cast<char*>(s);
    return v;
}

zn_value_t u32(uint32_t n) {
    zn_value_t v{};
    v.val_uint32 = n;
    return v;
}

// An open session that ends with its scope.
class Session {
public:
    Session(NodePEXIface& iface, const char* host, const char* op) : iface_(iface) {
        if (iface_.startLocalSession(host, &s_) != PX_OK) {
            logPlatformError(op);
            s_ = nullptr;
        }
    }
    ~Session() {
        if (s_ != nullptr) {
            iface_.endSession(s_);
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    px_session_t get() const { return s_; }

private:
    NodePEXIface& iface_;
    px_session_t s_ = nullptr;
};

// A response released with its scope.
template <typename T>
struct Rsp {
    T* p = nullptr;
    ~Rsp() { px_free_response(p); }
    T** out() { return &p; }
    T* operator->() const { return p; }
};

// The value of one queried attribute: 1 with it in *out, -1 when the call
// failed (logged) or the answer carries an error (traced with `queryError`).
int queryOne(px_session_t s, const char* cls, const zn_resource_handle& h, const char* name,
             bool dynamic, zn_value_t* out, zn_data_type_t* type, const char* op,
             const char* queryError) {
    const char* names[] = {name};
    Rsp<px_resources_rsp_t> rsp;
    int rc = dynamic ? px_query_dynamic_attrs(s, cls, &h, 1, names, 1, rsp.out())
                     : px_query_persistent_attrs(s, cls, &h, 1, names, 1, rsp.out());
    if (rc != PX_OK) {
        logPlatformError(op);
        return -1;
    }
    if (const cu_error_t* e = errorOf(rsp.p);
        e != nullptr || rsp->resource_count == 0 || rsp->resources[0].attr_count == 0) {
        orvrminfo_trace(queryError, errnumOf(e));
        return -1;
    }
    *type = rsp->resources[0].attrs[0].pv_type;
    return zn_value_dup(*type, rsp->resources[0].attrs[0].pv_value, *out) ? 1 : -1;
}

bool isOnline(const zn_value_t& v, zn_data_type_t t) {
    return (t == ZN_UINT32 && v.val_uint32 == 1) || (t == ZN_INT32 && v.val_int32 == 1);
}

}  // namespace

int NodePEXIface::firstResource(px_session_t s, const char* cls, const char* selection,
                                zn_resource_handle* out, const char* op,
                                const char* enumerateError) {
    Rsp<px_enumerate_rsp_t> rsp;
    if (px_enumerate_select(s, cls, selection, rsp.out()) != PX_OK) {
        logPlatformError(op);
        return -1;
    }
    if (rsp->hdr.pr_error != nullptr) {
        if (enumerateError != nullptr) {
            orvrminfo_trace(enumerateError, errnumOf(rsp->hdr.pr_error));
        }
        return -1;
    }
    if (rsp->handle_count == 0) {
        return 0;
    }
    *out = rsp->handles[0];
    return 1;
}

int NodePEXIface::getPeerDomainStatus(const char* host, char** domainName) {
    static const char op[] = "NodePEXIface::getPeerDomainStatus";
    static const char queryError[] = "NodePEXIface::getPeerDomainStatus - Query Error %d";
    *domainName = nullptr;
    Session s(*this, host, op);
    if (s.get() == nullptr) {
        return kPdFailed;
    }
    zn_resource_handle domain{};
    int found = firstResource(s.get(), kPeerDomainClass, nullptr, &domain, op,
                              "NodePEXIface::getPeerDomainStatus - Enumerate Error %d");
    if (found < 0) {
        return kPdFailed;
    }
    if (found == 0) {
        orvrminfo_trace("0 - No PeerDomain\n");
        return kPdNone;
    }
    zn_value_t v{};
    zn_data_type_t t = ZN_UNKNOWN;
    if (queryOne(s.get(), kPeerDomainClass, domain, "Name", false, &v, &t, op, queryError) < 0) {
        return kPdFailed;
    }
    if (t == ZN_CHAR_PTR && v.ptr_char != nullptr) {
        *domainName = v.ptr_char;  // handed over
    } else {
        zn_value_free(t, v);
    }
    if (queryOne(s.get(), kPeerDomainClass, domain, "OpState", true, &v, &t, op, queryError) < 0) {
        return kPdFailed;
    }
    bool online = isOnline(v, t);
    zn_value_free(t, v);
    if (!online) {
        orvrminfo_trace("1 - PeerDomain Offline\n");
        return kPdOffline;
    }
    Rsp<px_enumerate_rsp_t> nodes;
    if (px_enumerate_select(s.get(), kPeerNodeClass, nullptr, nodes.out()) != PX_OK) {
        logPlatformError(op);
        return kPdFailed;
    }
    if (nodes->hdr.pr_error != nullptr) {
        return kPdFailed;
    }
    // Two nodes at most are asked; which one is the local node is not examined.
    std::vector<bool> states;
    for (uint32_t i = 0; i < nodes->handle_count && states.size() < 2; ++i) {
        if (queryOne(s.get(), kPeerNodeClass, nodes->handles[i], "OpState", true, &v, &t, op,
                     queryError) < 0) {
            return kPdFailed;
        }
        states.push_back(isOnline(v, t));
        zn_value_free(t, v);
    }
    if (states.size() == 1 && states[0]) {
        orvrminfo_trace("2 - PeerDomain Online only local node Defined & Online\n");
        return kPdOnlineLocalOnly;
    }
    if (states.size() == 2 && states[0] && states[1]) {
        orvrminfo_trace("4 - PeerDomain Online both nodes Online\n");
        return kPdOnlineBoth;
    }
    if (states.size() == 2 && states[0] != states[1]) {
        orvrminfo_trace("3 - PeerDomain Online both nodes Defined & only local node Online\n");
        return kPdOnlineOneOfTwo;
    }
    return kPdFailed;
}

int NodePEXIface::mkPeerDomain(const char* domainName, const char* node1, const char* node2) {
    static const char op[] = "NodePEXIface::mkPeerDomain";
    px_session_t s = nullptr;
    if (startSession(nullptr, 1, &s) != PX_OK) {
        logPlatformError(op);
        return -1;
    }
    std::vector<char*> names;
    for (const char* n : {node1, node2}) {
        if (n != nullptr) {
            names.push_back(const_cast<char*>(n));
        }
    }
    zn_array* list = zn_array_new(static_cast<uint32_t>(names.size()));
    for (size_t i = 0; list != nullptr && i < names.size(); ++i) {
        list->elements[i].ptr_char = names[i];
    }
    zn_value_t listValue{};
    listValue.ptr_array = list;
    zn::SdPtr options = argumentsOf({{ZN_CHAR_PTR_ARRAY, listValue}});
    std::free(list);
    px_attr_t name{"Name", ZN_CHAR_PTR, text(domainName)};
    Rsp<px_define_rsp_t> made;
    int rc = options ? px_define_resource(s, kPeerDomainClass, &name, 1, options.get(), made.out())
                     : PX_ENOMEM;
    zn_resource_handle handle{};
    if (rc != PX_OK) {
        orvrminfo_trace("PeerDomain creation error rc %s\n", std::to_string(rc).c_str());
    } else if (made->hdr.pr_error != nullptr || !made->has_handle) {
        orvrminfo_trace("PeerDomain creation error errnum %d\n", errnumOf(made->hdr.pr_error));
        rc = -1;
    } else {
        handle = made->handle;
    }
    endSession(s);
    if (rc != PX_OK) {
        return -1;
    }
    Session on(*this, node1, op);
    if (on.get() == nullptr) {
        return -1;
    }
    Rsp<px_resources_rsp_t> rsp;
    if (px_online(on.get(), kPeerDomainClass, &handle, 1, nullptr, 0, nullptr, rsp.out()) !=
        PX_OK) {
        logPlatformError(op);
        return -1;
    }
    return errorOf(rsp.p) == nullptr ? 0 : -1;
}

int NodePEXIface::switchPeerDomain(const char* host, bool online, const char* op) {
    Session s(*this, host, op);
    if (s.get() == nullptr) {
        return -1;
    }
    zn_resource_handle domain{};
    // Both directions trace the start's wording, as it always has.
    int found = firstResource(s.get(), kPeerDomainClass, nullptr, &domain, op,
                              "NodePEXIface::startPeerDomain - Enumerate Error %d");
    if (found == 0) {
        orvrminfo_trace("0 - No PeerDomain\n");
    }
    if (found <= 0) {
        return -1;
    }
    Rsp<px_resources_rsp_t> rsp;
    if (online) {
        if (px_online(s.get(), kPeerDomainClass, &domain, 1, nullptr, 0, nullptr, rsp.out()) !=
            PX_OK) {
            logPlatformError(op);
            return -1;
        }
        return errorOf(rsp.p) == nullptr ? 0 : -1;
    }
    zn::SdPtr args = argumentsOf({{ZN_UINT32, u32(1)}});
    if (!args ||
        px_offline(s.get(), kPeerDomainClass, &domain, 1, 0, args.get(), rsp.out()) != PX_OK) {
        logPlatformError(op);
        return -1;
    }
    return 0;
}

int NodePEXIface::startPeerDomain(const char* host) {
    return switchPeerDomain(host, true, "NodePEXIface::startPeerDomain");
}

int NodePEXIface::stopPeerDomain(const char* host) {
    return switchPeerDomain(host, false, "NodePEXIface::stopPeerDomain");
}

int NodePEXIface::addPeerNode(const char* host, const char* nodeName) {
    static const char op[] = "NodePEXIface::addPeerNode";
    Session s(*this, host, op);
    if (s.get() == nullptr) {
        return -1;
    }
    px_attr_t name{"Name", ZN_CHAR_PTR, text(nodeName)};
    Rsp<px_define_rsp_t> rsp;
    int rc = px_define_resource(s.get(), kPeerNodeClass, &name, 1, nullptr, rsp.out());
    if (rc != PX_OK) {
        orvrminfo_trace("PeerNode add  error rc %s\n", std::to_string(rc).c_str());
        return -1;
    }
    if (rsp->hdr.pr_error != nullptr) {
        orvrminfo_trace("PeerNode add error errnum %s\n", errnumText(rsp->hdr.pr_error).c_str());
        return -1;
    }
    return 0;
}

int NodePEXIface::rmPeerNode(const char* host, const char* nodeName) {
    static const char op[] = "NodePEXIface::rmPeerNode";
    Session s(*this, host, op);
    if (s.get() == nullptr) {
        return -1;
    }
    std::string sel = "Name == \"" + std::string(nodeName != nullptr ? nodeName : "") + "\"";
    zn_resource_handle node{};
    int found = firstResource(s.get(), kPeerNodeClass, sel.c_str(), &node, op, nullptr);
    if (found <= 0) {
        return found == 0 ? 0 : -1;
    }
    zn::SdPtr args = argumentsOf({{ZN_UINT32, u32(1)}});
    Rsp<px_resources_rsp_t> off;
    int rc =
        args ? px_offline(s.get(), kPeerNodeClass, &node, 1, 0, args.get(), off.out()) : PX_ENOMEM;
    if (rc != PX_OK) {
        orvrminfo_trace("PeerDomain online error rc %d\n", rc);
        return -1;
    }
    // The node needs the time to go offline before it can be removed.
    std::mutex m;
    std::condition_variable cv;
    std::unique_lock<std::mutex> lk(m);
    zn::Clock::Duration until = clock_.monoNow() + kPeerNodeOfflineWait;
    while (clock_.monoNow() < until) {
        clock_.waitUntil(cv, lk, until);
    }
    lk.unlock();
    Rsp<px_resources_rsp_t> gone;
    rc = px_undefine_resource(s.get(), kPeerNodeClass, &node, 1, nullptr, gone.out());
    if (rc != PX_OK) {
        orvrminfo_trace("PeerNode deletion error rc %s\n", std::to_string(rc).c_str());
        return -1;
    }
    if (const cu_error_t* e = errorOf(gone.p); e != nullptr) {
        orvrminfo_trace("PeerNode deleteion error errnum %s\n", errnumText(e).c_str());
        return -1;
    }
    return 0;
}

int NodePEXIface::rmPeerDomain(const char* host) {
    static const char op[] = "NodePEXIface::rmPeerDomain";
    Session s(*this, host, op);
    if (s.get() == nullptr) {
        return -1;
    }
    zn_resource_handle domain{};
    int found = firstResource(s.get(), kPeerDomainClass, nullptr, &domain, op,
                              "NodePEXIface::rmPeerDomain - Enumerate Error %d");
    if (found <= 0) {
        return found;
    }
    Rsp<px_resources_rsp_t> gone;
    int rc = px_undefine_resource(s.get(), kPeerDomainClass, &domain, 1, nullptr, gone.out());
    if (rc != PX_OK) {
        orvrminfo_trace("PeerDomain deletion error rc %s\n", std::to_string(rc).c_str());
        return -1;
    }
    if (const cu_error_t* e = errorOf(gone.p); e != nullptr) {
        orvrminfo_trace("PeerDomain remove error errnum %s\n", errnumText(e).c_str());
        return -1;
    }
    return 0;
}

int NodePEXIface::syncPeerDomainConfig(const char* domainName, const char* host,
                                       const char* peerHost) {
    static const char op[] = "NodePEXIface::syncPeerDomainConfig";
    Session s(*this, host, op);
    if (s.get() == nullptr) {
        return -1;
    }
    zn_array* hosts = zn_array_new(2);
    if (hosts == nullptr) {
        orvrmlog_error(op, nullptr);
        return -1;
    }
    hosts->elements[0].ptr_char = const_cast<char*>(host);
    hosts->elements[1].ptr_char = const_cast<char*>(peerHost);
    zn_value_t hostList{};
    hostList.ptr_array = hosts;
    zn_value_t noHandle{};
    zn::SdPtr args = argumentsOf({{ZN_CHAR_PTR, text(domainName)},
                                  {ZN_RSRC_HANDLE_PTR, noHandle},
                                  {ZN_CHAR_PTR_ARRAY, hostList},
                                  {ZN_UINT32, u32(1)},
                                  {ZN_UINT32, u32(1)}});
    std::free(hosts);
    if (!args) {
        orvrminfo_trace("%s: out of memory", op);
        return -1;
    }
    Rsp<px_resources_rsp_t> rsp;
    if (px_invoke_class_action(s.get(), kPeerDomainClass, "SyncConfig", args.get(), rsp.out()) !=
        PX_OK) {
        logPlatformError(op);
        return -1;
    }
    return 0;  // whatever the answer says
}

int NodePEXIface::prepPeerNode(const char* host, const char* msHostname) {
    static const char op[] = "NodePEXIface::prepPeerNode";
    Session s(*this, host, op);
    if (s.get() == nullptr) {
        return -1;
    }
    orvrminfo_trace("NodePEXIface::prepPeerNode Invoking DoPreprpnode");
    zn::SdPtr args = argumentsOf({{ZN_CHAR_PTR, text(msHostname)}});
    Rsp<px_resources_rsp_t> rsp;
    if (!args || px_invoke_class_action(s.get(), kMgmtSvrClass, "DoPreprpnode", args.get(),
                                        rsp.out()) != PX_OK) {
        logPlatformError(op);
        return -1;
    }
    if (const cu_error_t* e = errorOf(rsp.p); e != nullptr) {
        orvrminfo_trace("Error code from PEX when invoking DoPreprpnode was %d, message is [%s]",
                        errnumOf(e), cu_error_text(e).c_str());
    }
    return 0;
}
