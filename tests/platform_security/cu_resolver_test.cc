// The platform resolver calls: argument checks, the seam that lets a test
// answer, and the mapping of the system resolver's codes.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <vector>

#include "platform/resolver/SystemResolver.h"
#include "platform/resolver/cu_resolver.h"
#include "tests/common/FakeResolver.h"

namespace {

std::string dotted(const in_addr& a) {
    char t[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a, t, sizeof t);
    return t;
}

TEST(CuResolver, InstalledResolverAnswersAndIsPutBack) {
    testsupport::FakeResolver fake;
    fake.name("node1", "node1.cluster", {"127.0.0.5", "127.0.0.6"});
    fake.nameFails("broken", CU_RESOLV_AGAIN);
    fake.addr("127.0.0.5", "node1.cluster");
    {
        zn::resolver::ScopedResolver use(fake);
        std::unique_ptr<cu_hostent> h;
        ASSERT_EQ(cu_gethostbyname("node1", &h), CU_RESOLV_OK);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->h_name, "node1.cluster");
        ASSERT_EQ(h->h_addr_list.size(), 2u);
        EXPECT_EQ(dotted(h->h_addr_list[1]), "127.0.0.6");

        EXPECT_EQ(cu_gethostbyname("broken", &h), CU_RESOLV_AGAIN);
        EXPECT_EQ(h, nullptr);
        EXPECT_EQ(cu_gethostbyname("unknown", &h), CU_RESOLV_OK);
        EXPECT_EQ(h, nullptr);

        in_addr a{};
        inet_pton(AF_INET, "127.0.0.5", &a);
        ASSERT_EQ(cu_gethostbyaddr(&a, sizeof a, AF_INET, &h), CU_RESOLV_OK);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->h_name, "node1.cluster");
        EXPECT_EQ(fake.nameCalls("node1"), 1);
    }
    // The system resolver is back: a numeric address needs no network.
    std::unique_ptr<cu_hostent> h;
    ASSERT_EQ(cu_gethostbyname("127.0.0.1", &h), CU_RESOLV_OK);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(h->h_addr_list.size(), 1u);
    EXPECT_EQ(dotted(h->h_addr_list[0]), "127.0.0.1");
    EXPECT_EQ(fake.nameCalls("127.0.0.1"), 0);
}

TEST(CuResolver, BadArgumentsAreRefusedWithoutAsking) {
    testsupport::FakeResolver fake;
    zn::resolver::ScopedResolver use(fake);
    std::unique_ptr<cu_hostent> h = std::make_unique<cu_hostent>();
    in_addr a{};
    EXPECT_EQ(cu_gethostbyname(nullptr, &h), CU_RESOLV_BADARG);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(cu_gethostbyname("", &h), CU_RESOLV_BADARG);
    EXPECT_EQ(cu_gethostbyname("x", nullptr), CU_RESOLV_BADARG);
    EXPECT_EQ(cu_gethostbyaddr(nullptr, sizeof a, AF_INET, &h), CU_RESOLV_BADARG);
    EXPECT_EQ(cu_gethostbyaddr(&a, sizeof a, AF_INET6, &h), CU_RESOLV_BADARG);
    EXPECT_EQ(cu_gethostbyaddr(&a, 16, AF_INET, &h), CU_RESOLV_BADARG);
    EXPECT_EQ(cu_gethostbyaddr(&a, sizeof a, AF_INET, nullptr), CU_RESOLV_BADARG);
    EXPECT_EQ(fake.nameCalls("x"), 0);
    EXPECT_TRUE(fake.addrQuestions().empty());
}

TEST(SystemResolver, AddrInfoCodesMapToResolverCodes) {
    struct Row {
        int eai;
        int code;
        bool notFound;
    };
    const std::vector<Row> rows = {
        {0, CU_RESOLV_OK, false},
        {EAI_NONAME, CU_RESOLV_OK, true},
        {EAI_NODATA, CU_RESOLV_OK, true},
        {EAI_AGAIN, CU_RESOLV_AGAIN, false},
        {EAI_FAIL, CU_RESOLV_FAIL, false},
        {EAI_MEMORY, CU_RESOLV_NOMEM, false},
        {EAI_SYSTEM, CU_RESOLV_SYSTEM, false},
        {EAI_SERVICE, CU_RESOLV_FAIL, false},
    };
    for (const Row& r : rows) {
        bool notFound = !r.notFound;
        EXPECT_EQ(zn::resolver::mapAddrInfoError(r.eai, notFound), r.code) << r.eai;
        EXPECT_EQ(notFound, r.notFound) << r.eai;
    }
}

}  // namespace
