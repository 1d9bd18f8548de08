// The class's start-up: its entry trace before anything that may fail, and
// the publication of every group the table takes when it refuses one.
#include <mutex>

#include "orvrm/ORVRMLog.h"
#include "tarn_rmf/registry/RMStoreFault.h"
#include "tests/orvrm/nodegroup/GroupFixture.h"

namespace classtest {
namespace {

// The "_OVD" Info records written while it lives.
class InfoTrace {
public:
    InfoTrace() : spec_(tarn_base::CTraceManager::spec()) {
        EXPECT_TRUE(tarn_base::CTraceManager::setSpec("*:Errors=255,_OVD:Info=1"));
        orvrm::traceComponent();
        tarn_base::CTraceManager::setHook(
            [this](const std::string& comp, const std::string& cat, const std::string& text) {
                if (comp == orvrm::kTraceComponentId && cat == "Info") {
                    std::lock_guard<std::mutex> g(mu_);
                    lines_.push_back(text);
                }
            });
    }
    ~InfoTrace() {
        tarn_base::CTraceManager::setHook(nullptr);
        tarn_base::CTraceManager::setSpec(spec_);
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> g(mu_);
        return lines_;
    }
    bool has(const std::string& line) {
        std::vector<std::string> l = lines();
        return std::find(l.begin(), l.end(), line) != l.end();
    }

private:
    std::string spec_;
    std::mutex mu_;
    std::vector<std::string> lines_;
};

// No class made yet: each test makes the node-group class itself.
class GroupStartTest : public GroupTest {
protected:
    void SetUp() override {}
    NodeGroupRccp* make(cu_error_t** err) {
        std::string name = kGroups;
        return dynamic_cast<NodeGroupRccp*>(rmcp().createRCCP(name.data(), err));
    }
};

TEST_F(GroupStartTest, TheEntryTraceIsWrittenBeforeTheTablesAreOpened) {
    InfoTrace trace;
    {
        // Its class table cannot be opened: the class is not made, but it
        // said it was entered.
        tarn_rmf::RMScopedStoreFault fault([](const std::string& path, tarn_rmf::RMStoreStep step) {
            return path == "/Kor/NodeGroup/Class" && step == tarn_rmf::RMStoreStep::kOpen;
        });
        cu_error_t* err = nullptr;
        EXPECT_EQ(make(&err), nullptr);
        EXPECT_EQ(errorText(zn::ErrorPtr(err)).rfind("2655-004", 0), 0u);
        EXPECT_EQ(trace.lines(),
                  (std::vector<std::string>{"[8] ORVRMRmcp::createRCCP entered for Kor.NodeGroup",
                                            "[83] NodeGroupRccp::NodeGroupRccp entered",
                                            "[9] ORVRMRmcp::createRCCP leaving"}));
    }
    ASSERT_NE(make(nullptr), nullptr);
    std::vector<std::string> l = trace.lines();
    ASSERT_GE(l.size(), 5u);
    EXPECT_EQ(l[4], "[83] NodeGroupRccp::NodeGroupRccp entered");
    EXPECT_EQ(l[l.size() - 2], "[84] NodeGroupRccp::NodeGroupRccp leaving");
}

TEST_F(GroupTest, OneEntryTheTableRefusesLeavesTheOthersPublished) {
    node("n1");
    memberGroup("a", {"n1"});
    zn_resource_handle b = memberGroup("b", {});
    memberGroup("c", {"n1"}, 0);
    {
        // A row without a name, as an older system could leave it.
        tarn_rmf2v::lockRccp guard(groups());
        zn_value_t none{};
        none.ptr_char = const_cast<char*>("");
        tarn_rmf::RMFieldValue f{"Name", -1, ZN_CHAR_PTR, none};
        groups()->resourceTable()->changeRow(groups()->model().find(b)->row, &f, 1);
    }
    clearPublished();
    InfoTrace trace;
    restart();
    std::vector<Published> p = published();
    ASSERT_EQ(p.size(), 1u);
    EXPECT_EQ(p[0].op, DI_TABLE_ADD);
    EXPECT_TRUE(p[0].clearGroups);
    ASSERT_EQ(p[0].groups.size(), 2u);
    EXPECT_EQ(p[0].groups[0].name, "a");
    EXPECT_EQ(p[0].groups[1].name, "c");
    EXPECT_EQ(p[0].groups[1].members, Names{"n1"});
    EXPECT_TRUE(
        trace.has("sendAllNodeGroupsPEXD::di_ngn_table_entry err rc " + std::to_string(DI_EINVAL)));
}

}  // namespace
}  // namespace classtest
