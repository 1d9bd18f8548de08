// The node-group class under the class harness: all five classes started on
// a fresh state root, helpers to define nodes and groups, read groups back,
// run their actions, run the delayed recomputation by moving the fake clock,
// and record what the class publishes to the node-group table.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "orvrm/nodegroup/NodeGroupRccp.h"
#include "orvrm/nodegroup/NodeGroupSpec.h"
#include "tarn_rmf2v/RMLocks.h"
#include "tests/orvrm/managednode/NodeFixture.h"
#include "tests/support/Subprocess.h"
#include "znpex/di/di_table.h"

namespace classtest {

inline constexpr const char* kGroups = kNodeGroupClass;

// A string-array value from a vector (NodeFixture's strs takes a literal list).
inline RMReplyAttr strList(int id, const std::vector<std::string>& names) {
    return RMReplyAttr{id, stringArray(names)};
}

// One published group-table transaction, as the class sent it.
struct Published {
    int op = 0;
    bool clearGroups = false;
    std::vector<znpex::di::GroupEntry> groups;
};

class GroupTest : public NodeTest {
protected:
    void SetUp() override {
        znpex::di::setRefresher([this](const znpex::di::Transaction& t) {
            std::lock_guard<std::mutex> g(pubMu_);
            published_.push_back(Published{t.op, t.clearGroups, t.groups});
            return DI_OK;
        });
        NodeTest::SetUp();
        published_.clear();
    }
    void TearDown() override { znpex::di::setRefresher(nullptr); }

    NodeGroupRccp* groups() { return rccp<NodeGroupRccp>(kGroups); }

    // Defines a group from the values given.
    RMReply defineGroup(std::vector<RMReplyAttr> values) {
        return define(kGroups, std::move(values));
    }
    zn_resource_handle memberGroup(const char* name, const std::vector<std::string>& members,
                                   uint32_t validate = 1) {
        RMReply r = defineGroup(attrs(str(kNgName, name), u32(kNgValidateNodes, validate),
                                      strList(kNgMemberList, members)));
        EXPECT_TRUE(r.hasNewHandle) << name << ": " << errorText(r.error);
        return r.newHandle;
    }
    zn_resource_handle selectionGroup(const char* name, const char* selection) {
        RMReply r = defineGroup(attrs(str(kNgName, name), str(kNgSelectStr, selection)));
        EXPECT_TRUE(r.hasNewHandle) << name << ": " << errorText(r.error);
        return r.newHandle;
    }
    // A node with a model (selections pick nodes by it).
    void node(const char* hostname, const char* model = "m0") {
        RMReply r = defineNode(hostname, attrs(str(kMnHWModel, model)));
        ASSERT_TRUE(r.hasNewHandle) << hostname << ": " << errorText(r.error);
    }
    zn_resource_handle nodeHandle(const char* hostname) {
        std::string sel = std::string("Hostname==\"") + hostname + "\"";
        RMReply r = enumerate(kNodes, sel.c_str());
        EXPECT_EQ(r.handles.size(), 1u) << hostname;
        return r.handles.empty() ? zn_resource_handle{} : r.handles[0];
    }
    zn_resource_handle groupHandle(const char* name) {
        std::string sel = std::string("Name==\"") + name + "\"";
        RMReply r = enumerate(kGroups, sel.c_str());
        EXPECT_EQ(r.handles.size(), 1u) << name;
        return r.handles.empty() ? zn_resource_handle{} : r.handles[0];
    }
    size_t groupCount() { return enumerate(kGroups).handles.size(); }

    std::vector<std::string> names(const zn_resource_handle& h, int id) {
        RMReply r = get(kGroups, h, {id});
        const RMReplyAttr* v = valueOf(r, id);
        return v != nullptr && v->value.type() == ZN_CHAR_PTR_ARRAY
                   ? namesOf(v->value.value().ptr_array)
                   : std::vector<std::string>{"<none>"};
    }
    std::vector<std::string> expanded(const char* group) {
        return names(groupHandle(group), kNgExpMemberList);
    }
    std::vector<std::string> memberList(const char* group) {
        return names(groupHandle(group), kNgMemberList);
    }
    uint32_t validateNodes(const char* group) {
        RMReply r = get(kGroups, groupHandle(group), {kNgValidateNodes});
        const RMReplyAttr* v = valueOf(r, kNgValidateNodes);
        return v != nullptr ? v->value.value().val_uint32 : ~0u;
    }

    // Runs a resource action (input: one string array, when given).
    RMReply action(const zn_resource_handle& h, int id, const std::vector<std::string>* input) {
        RMRequest r;
        r.op = RMRequestOp::InvokeAction;
        r.className = kGroups;
        r.handle = h;
        r.actionId = id;
        if (input != nullptr) {
            r.input.reset(zn_sd_new(1));
            r.input->elements[0].data_type = ZN_CHAR_PTR_ARRAY;
            r.input->elements[0].value = stringArray(*input).release();
        }
        return dispatch(r);
    }
    RMReply addMembers(const char* group, const std::vector<std::string>& names) {
        return action(groupHandle(group), kNgAddMembers, &names);
    }
    RMReply remMembers(const char* group, const std::vector<std::string>& names) {
        return action(groupHandle(group), kNgRemMembers, &names);
    }
    // The names an action returned in its one string-array field.
    static std::vector<std::string> returned(const RMReply& r) {
        if (r.actionData.empty() || r.actionData[0]->element_count != 1 ||
            r.actionData[0]->elements[0].data_type != ZN_CHAR_PTR_ARRAY) {
            return {"<no data>"};
        }
        return namesOf(r.actionData[0]->elements[0].value.ptr_array);
    }

    // Moves the clock past the one-second delay and waits for what was due.
    void runDelayed() {
        tarn_rmf2v::RMSchedule& s = groups()->schedule();
        uint64_t due = s.completed() + s.pending();
        clock_.advance(std::chrono::seconds(1));
        ASSERT_TRUE(testsupport::waitFor([&] { return s.completed() >= due; }))
            << "the delayed operations did not run";
    }

    // Watches every dynamic attribute and persistent-change notification
    // of the named groups.
    void watch(std::initializer_list<const char*> groupNames) {
        for (const char* n : groupNames) {
            zn_resource_handle h = groupHandle(n);
            startMonitoring(kGroups, &h, {kNgConfigChanged, kNgMembershipChanged});
            resourceOp(RMRequestOp::EnablePersResourceAttrsNotification, kGroups, h,
                       {kNgMemberList, kNgExpMemberList});
        }
        out_.clear();
    }
    // What one group reported since the last clear, in order: attribute ids
    // ("ConfigChanged" 0 and "MembershipChanged" 1 dynamic, 4 and 6 persistent
    // as 104 and 106).
    std::vector<int> reportIds(const char* group) {
        zn_resource_handle h = groupHandle(group);
        std::vector<int> out;
        for (const Notice& n : out_.notices()) {
            if (n.className == kGroups && n.hasHandle && n.handle == h) {
                for (const RMReplyAttr& a : n.values) {
                    out.push_back(n.persistent ? 100 + a.id : a.id);
                }
            }
        }
        return out;
    }
    struct Membership {
        int added = -1, removed = -1;
        std::vector<std::string> addList, delList, current;
    };
    std::vector<Membership> memberships(const char* group) {
        zn_resource_handle h = groupHandle(group);
        std::vector<Membership> out;
        for (const Notice& n : out_.notices()) {
            if (n.className != kGroups || !n.hasHandle || !(n.handle == h) || n.persistent) {
                continue;
            }
            for (const RMReplyAttr& a : n.values) {
                if (a.id != kNgMembershipChanged) {
                    continue;
                }
                const zn_structured_data* sd = a.value.value().ptr_sd;
                Membership m;
                m.added = sd->elements[kNgAddCount].value.val_int32;
                m.removed = sd->elements[kNgDelCount].value.val_int32;
                m.addList = namesOf(sd->elements[kNgAddList].value.ptr_array);
                m.delList = namesOf(sd->elements[kNgDelList].value.ptr_array);
                m.current = namesOf(sd->elements[kNgCurrentList].value.ptr_array);
                out.push_back(std::move(m));
            }
        }
        return out;
    }

    std::vector<Published> published() {
        std::lock_guard<std::mutex> g(pubMu_);
        return published_;
    }
    void clearPublished() {
        std::lock_guard<std::mutex> g(pubMu_);
        published_.clear();
    }

private:
    std::mutex pubMu_;
    std::vector<Published> published_;
};

using Names = std::vector<std::string>;

}  // namespace classtest
