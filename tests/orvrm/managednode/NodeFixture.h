// The managed-node class under the class harness: all five classes started
// on a fresh state root, helpers to define nodes and read them back, and the
// interfaces the nodes own.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "orvrm/ClassList.h"
#include "orvrm/managednode/ManagedNodeRccp.h"
#include "orvrm/managednode/ManagedNodeRcp.h"
#include "orvrm/managednode/ManagedNodeSpec.h"
#include "orvrm/netif/MNNetworkInterfaceSpec.h"
#include "tests/orvrm/ClassHarness.h"

namespace classtest {

using namespace orvrm;
inline constexpr const char* kNodes = kManagedNodeClass;
inline constexpr const char* kIfaces = kNetworkInterfaceClass;

// A string-array value for requests.
inline RMReplyAttr strs(int id, std::initializer_list<const char*> list) {
    zn_value_t v{};
    v.ptr_array = zn_array_new(static_cast<uint32_t>(list.size()));
    uint32_t i = 0;
    for (const char* s : list) {
        v.ptr_array->elements[i++].ptr_char = strdup(s);
    }
    return RMReplyAttr{id, zn::OwnedValue(ZN_CHAR_PTR_ARRAY, v)};
}

struct Iface {
    std::string name;
    uint64_t id;
    std::string address;
    bool operator<(const Iface& o) const {
        return std::tie(name, id, address) < std::tie(o.name, o.id, o.address);
    }
    bool operator==(const Iface& o) const {
        return name == o.name && id == o.id && address == o.address;
    }
};

class NodeTest : public ClassHarness {
protected:
    void SetUp() override {
        startClasses();
        out_.clear();
    }
    ManagedNodeRccp* nodes() { return rccp<ManagedNodeRccp>(kNodes); }

    // Defines a node; `extra` values follow Hostname in the request.
    RMReply defineNode(const char* hostname, std::vector<RMReplyAttr> extra = {}) {
        std::vector<RMReplyAttr> v;
        v.push_back(str(kMnHostname, hostname));
        for (RMReplyAttr& a : extra) {
            v.push_back(std::move(a));
        }
        return define(kNodes, std::move(v));
    }
    // A node that owns interfaces: a universal id and addresses.
    zn_resource_handle nodeWithInterfaces(const char* hostname, uint64_t id,
                                          std::initializer_list<const char*> addresses) {
        RMReply r = defineNode(
            hostname, attrs(u64(kMnUniversalId, id), strs(kMnConnectivityIPAddrs, addresses)));
        EXPECT_TRUE(r.hasNewHandle) << errorText(r.error);
        return r.newHandle;
    }
    std::string text(const zn_resource_handle& h, int id) {
        RMReply r = get(kNodes, h, {id});
        const RMReplyAttr* v = valueOf(r, id);
        return v != nullptr && v->value.value().ptr_char != nullptr ? v->value.value().ptr_char
                                                                    : "<none>";
    }
    uint64_t number(const zn_resource_handle& h, int id) {
        RMReply r = get(kNodes, h, {id});
        const RMReplyAttr* v = valueOf(r, id);
        return v == nullptr                   ? ~0ull
               : v->value.type() == ZN_UINT64 ? v->value.value().val_uint64
               : v->value.type() == ZN_INT32  ? static_cast<uint64_t>(v->value.value().val_int32)
                                              : v->value.value().val_uint32;
    }
    size_t nodeCount() { return enumerate(kNodes).handles.size(); }
    std::multiset<Iface> interfaces() {
        std::multiset<Iface> out;
        for (const zn_resource_handle& h : enumerate(kIfaces).handles) {
            RMReply r = get(kIfaces, h, {kNiName, kNiUniversalId, kNiIPAddress});
            out.insert(Iface{valueOf(r, kNiName)->value.value().ptr_char,
                             valueOf(r, kNiUniversalId)->value.value().val_uint64,
                             valueOf(r, kNiIPAddress)->value.value().ptr_char});
        }
        return out;
    }
    bool polled(const char* hostname) { return nodes()->poller().isHostInList(hostname) == 1; }
    // Reservation-free access to one node's control point.
    ManagedNodeRcp* node(const zn_resource_handle& h) {
        return dynamic_cast<ManagedNodeRcp*>(nodes()->findRcpByHandle(&h));
    }
    // The notices of one node attribute that left the daemon so far, in
    // order; the pointers stay valid until the next call.
    std::vector<const Notice*> reports(int id, bool persistent) {
        seen_ = out_.notices();
        std::vector<const Notice*> out;
        for (const Notice& n : seen_) {
            if (n.className == kNodes && n.persistent == persistent && n.hasHandle) {
                for (const RMReplyAttr& a : n.values) {
                    if (a.id == id) {
                        out.push_back(&n);
                    }
                }
            }
        }
        return out;
    }

private:
    std::vector<Notice> seen_;
};

}  // namespace classtest
