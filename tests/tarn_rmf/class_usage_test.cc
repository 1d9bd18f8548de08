// The registry as a class control point uses it, end to end: the constructor
// mounts the tree, opens its class and resource tables and rebuilds one
// resource per row; handlers select, read, add, change and delete rows; a
// restart finds everything again.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tarn_rmf/registry/RMTableError.h"
#include "tarn_rmf/registry/RMTree.h"
#include "tests/tarn_rmf/registry_test_util.h"

namespace {

using namespace tarn_rmf;

const RMPersAttrDefs kClassAttrs[] = {{"Variety", ZN_UINT32, rmUintDefault(1), 0}};
const RMPersAttrDefs kGroupAttrs[] = {
    {"ResourceHandle", ZN_RSRC_HANDLE_PTR, rmNoDefault(), 0x32},
    {"Variety", ZN_UINT32, rmUintDefault(1), 0x32},
    {"Name", ZN_CHAR_PTR, rmStrDefault(""), 0x07},
    {"ValidateNodes", ZN_UINT32, rmUintDefault(1), 0x2B},
    {"MemberList", ZN_CHAR_PTR_ARRAY, rmNoDefault(), 0x0B},
    {"SelectStr", ZN_CHAR_PTR, rmStrDefault(""), 0x0B},
    {"ExpMemberList", ZN_CHAR_PTR_ARRAY, rmNoDefault(), 0x31},
    {"NodeIDs", ZN_UINT64_ARRAY, rmNoDefault(), 0x2A},
};

// A stand-in for a class control point, doing what one does with its tables.
class GroupClass {
public:
    GroupClass(RMTree& tree, unsigned long long nodeId, bool allGroups) : tree_(tree) {
        tree_.mountTree();
        classTable_ = RMCreateClassTable(&tree_, "/Kor/NodeGroup/Class", kClassAttrs, 1);
        char filter[64];
        std::snprintf(filter, sizeof filter, "NodeIDs==0x%016llx", nodeId);
        table_ = RMCreateResourceTable(&tree_, "/Kor/NodeGroup/Resources", kGroupAttrs, 8,
                                       "ResourceHandle", allGroups ? nullptr : filter, 1);
        table_->setSyncMode(1);
        tree_.unmountTree();
        // One resource per row, from its handle and variety.
        RMRowSet rows = table_->getMetadata();
        for (unsigned i = 0; i < rows.getRowCount(); ++i) {
            const char* cols[] = {"ResourceHandle", "Variety"};
            zn_value_t v[2];
            zn_data_type_t t[2];
            rows.getFieldsByIndexV(i, cols, 2, v, t);
            resources_.push_back(*v[0].ptr_rsrc_handle);
            zn_value_free(t[0], v[0]);
        }
        nodeId_ = nodeId;
    }
    ~GroupClass() {
        tree_.closeTable(table_);
        tree_.closeTable(classTable_);
    }

    void define(unsigned n, const char* name, std::vector<const char*> members) {
        zn_resource_handle h = regtest::handle(n);
        zn_array* list = zn_array_new(static_cast<uint32_t>(members.size()));
        for (size_t i = 0; i < members.size(); ++i) {
            list->elements[i].ptr_char = const_cast<char*>(members[i]);
        }
        zn_array* ids = zn_array_new(1);
        ids->elements[0].val_uint64 = nodeId_;
        RMFieldValue row[] = {regtest::field("ResourceHandle", h),
                              regtest::field("Name", name),
                              {"MemberList", -1, ZN_CHAR_PTR_ARRAY, {.ptr_array = list}},
                              {"NodeIDs", -1, ZN_UINT64_ARRAY, {.ptr_array = ids}}};
        table_->addRow(row, 4);
        std::free(list);
        std::free(ids);
        resources_.push_back(h);
    }
    unsigned undefine(const zn_resource_handle& h) {
        RMSelParams params;
        params.setHandle("RH", h);
        return table_->deleteRows("ResourceHandle == $RH", &params);
    }
    unsigned rename(const zn_resource_handle& h, const char* name) {
        RMSelParams params;
        params.setHandle("RH", h);
        RMFieldValue v[] = {regtest::field("Name", name)};
        return table_->changeRows("ResourceHandle == $RH", &params, v, 1);
    }
    std::vector<std::string> enumerateSelect(const char* selection) {
        std::vector<std::string> names;
        RMRowSet rows = table_->select(selection);
        for (unsigned i = 0; i < rows.getRowCount(); ++i) {
            names.push_back(regtest::text(rows, i, "Name"));
        }
        return names;
    }
    int ngExist(const char* name) {
        char sel[256];
        std::snprintf(sel, sizeof sel, "Name==\"%s\"", name);
        try {
            return table_->select(sel).getRowCount() == 1 ? 1 : 0;
        } catch (const RMTableError&) {
            return -1;
        }
    }
    size_t resourceCount() const { return resources_.size(); }
    RMCachedTable* table() { return table_; }

private:
    RMTree& tree_;
    RMCachedTable* classTable_ = nullptr;
    RMCachedTable* table_ = nullptr;
    std::vector<zn_resource_handle> resources_;
    unsigned long long nodeId_ = 0;
};

TEST(RegistryClassUsage, AClassRebuildsItsResourcesFromItsTableAfterARestart) {
    regtest::TempRoot root;
    RMTree tree(zn::paths::kRegistryTree);
    {
        GroupClass groups(tree, 0x42, false);
        EXPECT_EQ(groups.resourceCount(), 0u);
        groups.define(1, "compute", {"n1", "n2"});
        groups.define(2, "storage", {"s1"});
        groups.define(3, "all", {"+compute", "+storage"});
        EXPECT_EQ(groups.rename(regtest::handle(2), "disks"), 1u);
        EXPECT_EQ(groups.ngExist("disks"), 1);
        EXPECT_EQ(groups.ngExist("storage"), 0);
        EXPECT_EQ(groups.ngExist("bad\"quote"), -1);  // a table error becomes -1
        EXPECT_EQ(groups.enumerateSelect("MemberList CONTAINS \"+compute\""),
                  std::vector<std::string>{"all"});
        EXPECT_EQ(groups.undefine(regtest::handle(1)), 1u);
        EXPECT_EQ(groups.undefine(regtest::handle(1)), 0u);
    }
    GroupClass again(tree, 0x42, false);
    EXPECT_EQ(again.resourceCount(), 2u);
    EXPECT_EQ(again.enumerateSelect("*"), (std::vector<std::string>{"disks", "all"}));
    EXPECT_EQ(again.enumerateSelect("Name =~ \"^d\" || ValidateNodes == 0"),
              std::vector<std::string>{"disks"});
}

TEST(RegistryClassUsage, ASelectionStringIsValidatedAgainstTheManagedNodeColumns) {
    regtest::TempRoot root;
    RMTree tree(zn::paths::kRegistryTree);
    GroupClass groups(tree, 0x42, true);
    // What validateSelectStr does: a usable string compiles, a bad one throws
    // with the position, and "*" needs no query.
    RMCachedTable* t = groups.table();
    EXPECT_NO_THROW(t->checkSelection("Name =~ \"^c\" && ValidateNodes == 1"));
    EXPECT_EQ(regtest::thrown([&] { t->checkSelection("Name == \"x\" && Hostnme == \"y\""); }).what,
              "Selection error at position 16: unknown attribute \"Hostnme\"");
}

}  // namespace
