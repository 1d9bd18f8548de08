#include "znpex/server/RmRegistry.h"

#include <gtest/gtest.h>

namespace {

using tarn_rmf2v::RMClassDef;
using znpex::server::ManagerEndpoint;
using znpex::server::RmRegistry;

std::vector<RMClassDef> defs(std::initializer_list<const char*> names) {
    std::vector<RMClassDef> out;
    for (const char* n : names) {
        RMClassDef d;
        d.name = n;
        out.push_back(d);
    }
    return out;
}

TEST(RmRegistryTest, RegisterFindAndLoseAManager) {
    RmRegistry reg;
    auto ep = std::make_shared<ManagerEndpoint>();
    std::string why;
    ASSERT_TRUE(reg.registerManager("Kor.ORVRM", defs({"Kor.B", "Kor.A"}), ep, &why)) << why;
    auto a = reg.find("Kor.A");
    EXPECT_TRUE(a.known);
    EXPECT_TRUE(a.connected);
    EXPECT_EQ(a.rmName, "Kor.ORVRM");
    EXPECT_EQ(a.endpoint, ep);
    EXPECT_FALSE(reg.find("Kor.C").known);

    reg.detach(ep.get());
    a = reg.find("Kor.A");
    EXPECT_TRUE(a.known);  // still known: clients hear "not connected"
    EXPECT_FALSE(a.connected);
    EXPECT_EQ(a.endpoint, nullptr);
    EXPECT_EQ(a.rmName, "Kor.ORVRM");

    auto classes = reg.classes();
    ASSERT_EQ(classes.size(), 2u);
    EXPECT_EQ(classes[0].def.name, "Kor.A");  // in name order
    EXPECT_FALSE(classes[0].connected);
}

TEST(RmRegistryTest, ReconnectionAndTakeover) {
    RmRegistry reg;
    auto first = std::make_shared<ManagerEndpoint>();
    auto second = std::make_shared<ManagerEndpoint>();
    auto other = std::make_shared<ManagerEndpoint>();
    std::string why;
    ASSERT_TRUE(reg.registerManager("Kor.ORVRM", defs({"Kor.A"}), first, &why));
    // Another manager may not take a class whose manager is connected...
    EXPECT_FALSE(reg.registerManager("Kor.Other", defs({"Kor.Z", "Kor.A"}), other, &why));
    EXPECT_NE(why.find("Kor.A"), std::string::npos);
    EXPECT_FALSE(reg.find("Kor.Z").known);  // a refusal changes nothing
    // ...but the same manager on a new connection replaces the old one.
    ASSERT_TRUE(reg.registerManager("Kor.ORVRM", defs({"Kor.A"}), second, &why));
    EXPECT_EQ(reg.find("Kor.A").endpoint, second);
    // The old connection going away does not disconnect the new one.
    reg.detach(first.get());
    EXPECT_TRUE(reg.find("Kor.A").connected);
    reg.detach(second.get());
    // Once nobody serves it, another manager may.
    ASSERT_TRUE(reg.registerManager("Kor.Other", defs({"Kor.A"}), other, &why)) << why;
    EXPECT_EQ(reg.find("Kor.A").rmName, "Kor.Other");
}

TEST(RmRegistryTest, BadRegistrationsAreRefused) {
    RmRegistry reg;
    auto ep = std::make_shared<ManagerEndpoint>();
    struct Case {
        const char* rm;
        std::vector<RMClassDef> classes;
        const char* why;
    };
    const Case cases[] = {
        {"", defs({"Kor.A"}), "name is empty"},
        {"Kor.RM", defs({"Kor.A", ""}), "without a name"},
        {"Kor.RM", defs({"Kor.A", "Kor.B", "Kor.A"}), "listed twice"},
    };
    for (const Case& c : cases) {
        std::string why;
        EXPECT_FALSE(reg.registerManager(c.rm, c.classes, ep, &why));
        EXPECT_NE(why.find(c.why), std::string::npos) << why;
    }
    EXPECT_TRUE(reg.classes().empty());
}

TEST(RmRegistryTest, AnEndpointThatIsGoneCountsAsDisconnected) {
    RmRegistry reg;
    std::string why;
    {
        auto ep = std::make_shared<ManagerEndpoint>();
        ASSERT_TRUE(reg.registerManager("Kor.ORVRM", defs({"Kor.A", "Kor.B"}), ep, &why));
    }
    EXPECT_FALSE(reg.find("Kor.A").connected);
    auto managers = reg.managers();
    ASSERT_EQ(managers.size(), 1u);
    EXPECT_EQ(managers[0].rmName, "Kor.ORVRM");
    EXPECT_FALSE(managers[0].connected);
    EXPECT_EQ(managers[0].classes, (std::vector<std::string>{"Kor.A", "Kor.B"}));
    // A new manager may take the classes of one that vanished.
    auto next = std::make_shared<ManagerEndpoint>();
    EXPECT_TRUE(reg.registerManager("Kor.New", defs({"Kor.A"}), next, &why)) << why;
}

}  // namespace
