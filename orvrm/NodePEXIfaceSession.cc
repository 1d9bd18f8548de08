// Sessions and a host's names and addresses.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "orvrm/NodePEXIface.h"
#include "orvrm/ORVRMLog.h"
#include "platform/resolver/cu_resolver.h"

namespace {

char** newSlots() {
    return static_cast<char**>(std::calloc(NodePEXIface::kMaxHostIds, sizeof(char*)));
}

bool holds(char* const* list, int count, const char* s) {
    for (int i = 0; i < count; ++i) {
        if (std::strcmp(list[i], s) == 0) {
            return true;
        }
    }
    return false;
}

// Appends a copy unless the list holds it or is full.
void addUnique(char** list, int* count, const char* s) {
    if (*count < NodePEXIface::kMaxHostIds && !holds(list, *count, s)) {
        list[(*count)++] = strdup(s);
    }
}

}  // namespace

int NodePEXIface::startSession(const char* host, px_session_opts_t opts, px_session_t* session) {
    if (host == nullptr) {
        return px_start_session(nullptr, 0, opts, session);
    }
    px_contact_t contact{host};
    return px_start_session(&contact, 1, opts, session);
}

int NodePEXIface::startLocalSession(const char* host, px_session_t* session) {
    int rc = startSession(host, 0x401, session);
    if (rc == PX_ENOTSUPPORTED) {
        rc = startSession(host, 1, session);
    }
    return rc;
}

int NodePEXIface::startDistributedSession(const char* host, px_session_t* session) {
    return startSession(host, 4, session);
}

int NodePEXIface::endSession(px_session_t session) {
    return px_end_session(session);
}

int NodePEXIface::getNameAndIpAddrList(const char* name, HostIdList* out) {
    zn_value_t none{};
    return getNameAndIpAddrList(name, none, out);
}

int NodePEXIface::getNameAndIpAddrList(const char* name, zn_value_t ipList, HostIdList* out) {
    *out = HostIdList{};
    if (name == nullptr) {
        return -1;
    }
    std::unique_ptr<cu_hostent> host;
    if (cu_gethostbyname(name, &host) != CU_RESOLV_OK || host == nullptr) {
        return -1;
    }
    out->names = newSlots();
    out->ipAddrs = newSlots();
    if (out->names == nullptr || out->ipAddrs == nullptr) {
        freeHostIdsContent(*out);
        *out = HostIdList{};
        return -1;
    }
    out->names[out->numNames++] = strdup(name);
    if (!host->h_name.empty() && host->h_name != name) {
        addUnique(out->names, &out->numNames, host->h_name.c_str());
    }
    for (const std::string& alias : host->h_aliases) {
        addUnique(out->names, &out->numNames, alias.c_str());
    }
    const zn_array* given = ipList.ptr_array;
    if (given != nullptr && given->array_cnt > 0) {
        for (uint32_t i = 0; i < given->array_cnt && out->numIpAddrs < kMaxHostIds; ++i) {
            if (given->elements[i].ptr_char != nullptr) {
                out->ipAddrs[out->numIpAddrs++] = strdup(given->elements[i].ptr_char);
            }
        }
        return 0;
    }
    for (const in_addr& a : host->h_addr_list) {
        char text[INET_ADDRSTRLEN] = {};
        if (inet_ntop(AF_INET, &a, text, sizeof text) != nullptr) {
            addUnique(out->ipAddrs, &out->numIpAddrs, text);
        }
    }
    return 0;
}

void NodePEXIface::freeHostIdsContent(HostIdList list) {
    for (int i = 0; list.names != nullptr && i < list.numNames; ++i) {
        std::free(list.names[i]);
    }
    for (int i = 0; list.ipAddrs != nullptr && i < list.numIpAddrs; ++i) {
        std::free(list.ipAddrs[i]);
    }
    std::free(list.names);
    std::free(list.ipAddrs);
}

char* NodePEXIface::getPrimaryHostname(const char* host) {
    char buf[256] = {};
    if (host == nullptr) {
        ::gethostname(buf, sizeof buf - 1);
        host = buf;
    }
    std::unique_ptr<cu_hostent> entry;
    if (cu_gethostbyname(host, &entry) == CU_RESOLV_OK && entry != nullptr &&
        !entry->h_name.empty()) {
        return strdup(entry->h_name.c_str());
    }
    return strdup(host);
}

zn_value_t NodePEXIface::getAllHostnames(const char* host) {
    char buf[256] = {};
    if (host == nullptr) {
        ::gethostname(buf, sizeof buf - 1);
        host = buf;
    }
    HostIdList ids;
    zn_value_t out{};
    if (getNameAndIpAddrList(host, &ids) != 0) {
        out.ptr_array = zn_array_new(0);
        return out;
    }
    out.ptr_array = zn_array_new(static_cast<uint32_t>(ids.numNames));
    for (int i = 0; out.ptr_array != nullptr && i < ids.numNames; ++i) {
        out.ptr_array->elements[i].ptr_char = strdup(ids.names[i]);
    }
    freeHostIdsContent(ids);
    return out;
}

void NodePEXIface::freeHostArrayContent(zn_value_t value) {
    zn_value_free(ZN_CHAR_PTR_ARRAY, value);
}
