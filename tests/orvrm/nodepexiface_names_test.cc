// A host's names and addresses as the daemon's client of the monitoring
// service gathers them, from a scripted resolver: the name asked for first,
// the official name only when it differs, aliases and addresses without
// duplicates and cut at 32, addresses from a given list instead, and the
// fallbacks for names that do not resolve.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "orvrm/NodePEXIface.h"
#include "platform/resolver/cu_resolver.h"

namespace {

class ScriptedResolver : public zn::resolver::Resolver {
public:
    std::map<std::string, cu_hostent> hosts;
    int byName(const std::string& name, std::unique_ptr<cu_hostent>& host) override {
        auto it = hosts.find(name);
        if (it != hosts.end()) {
            host = std::make_unique<cu_hostent>(it->second);
        }
        return CU_RESOLV_OK;
    }
    int byAddr(const in_addr&, std::unique_ptr<cu_hostent>&) override { return CU_RESOLV_OK; }
};

in_addr addr(const std::string& text) {
    in_addr a{};
    inet_pton(AF_INET, text.c_str(), &a);
    return a;
}

std::vector<std::string> texts(char** list, int count) {
    return std::vector<std::string>(list, list + count);
}

TEST(NodePEXIfaceNames, NamesAndAddressesOfAHost) {
    ScriptedResolver r;
    cu_hostent many;
    many.h_name = "node1.example";
    for (int i = 0; i < 40; ++i) {
        many.h_aliases.push_back("alias" + std::to_string(i % 35));  // 35 distinct
        many.h_addr_list.push_back(addr("10.0.0." + std::to_string(i % 36)));
    }
    r.hosts["node1"] = many;
    cu_hostent same;
    same.h_name = "node2";
    same.h_aliases = {"node2", "n2"};
    same.h_addr_list = {addr("10.0.1.1"), addr("10.0.1.1")};
    r.hosts["node2"] = same;
    zn::resolver::ScopedResolver scoped(r);
    NodePEXIface iface;

    HostIdList ids;
    ASSERT_EQ(iface.getNameAndIpAddrList("node1", &ids), 0);
    ASSERT_EQ(ids.numNames, NodePEXIface::kMaxHostIds);
    EXPECT_STREQ(ids.names[0], "node1");
    EXPECT_STREQ(ids.names[1], "node1.example");
    EXPECT_STREQ(ids.names[31], "alias29");
    EXPECT_EQ(ids.numIpAddrs, NodePEXIface::kMaxHostIds);
    EXPECT_STREQ(ids.ipAddrs[31], "10.0.0.31");
    NodePEXIface::freeHostIdsContent(ids);

    ASSERT_EQ(iface.getNameAndIpAddrList("node2", &ids), 0);
    EXPECT_EQ(texts(ids.names, ids.numNames), (std::vector<std::string>{"node2", "n2"}))
        << "the official name equal to the name asked for stands once";
    EXPECT_EQ(texts(ids.ipAddrs, ids.numIpAddrs), (std::vector<std::string>{"10.0.1.1"}));
    NodePEXIface::freeHostIdsContent(ids);

    // Addresses given: taken as they are.
    zn_value_t given{};
    given.ptr_array = zn_array_new(2);
    given.ptr_array->elements[0].ptr_char = const_cast<char*>("192.168.0.1");
    given.ptr_array->elements[1].ptr_char = const_cast<char*>("192.168.0.2");
    ASSERT_EQ(iface.getNameAndIpAddrList("node2", given, &ids), 0);
    EXPECT_EQ(texts(ids.ipAddrs, ids.numIpAddrs),
              (std::vector<std::string>{"192.168.0.1", "192.168.0.2"}));
    NodePEXIface::freeHostIdsContent(ids);
    std::free(given.ptr_array);

    EXPECT_EQ(iface.getNameAndIpAddrList("unknown", &ids), -1);
    EXPECT_EQ(ids.numNames, 0);
    EXPECT_EQ(ids.names, nullptr);

    char* primary = iface.getPrimaryHostname("node1");
    EXPECT_STREQ(primary, "node1.example");
    std::free(primary);
    primary = iface.getPrimaryHostname("unknown");
    EXPECT_STREQ(primary, "unknown") << "a name that does not resolve stands for itself";
    std::free(primary);

    zn_value_t all = iface.getAllHostnames("node2");
    ASSERT_EQ(all.ptr_array->array_cnt, 2u);
    EXPECT_STREQ(all.ptr_array->elements[1].ptr_char, "n2");
    NodePEXIface::freeHostArrayContent(all);
    all = iface.getAllHostnames("unknown");
    EXPECT_EQ(all.ptr_array->array_cnt, 0u);
    NodePEXIface::freeHostArrayContent(all);
}

}  // namespace
