// The indexed recomputation held to the straightforward one: the same
// seeded sequence of node and group changes runs once each way, each on a
// fresh registry, and must leave the same groups, answer every request the
// same, make the same reports group by group and publish the same.
#include <random>
#include <sstream>

#include "tests/orvrm/nodegroup/GroupFixture.h"

namespace classtest {
namespace {

using Expansion = NodeGroupRccp::Expansion;

std::string textOf(zn_data_type_t t, const zn_value_t& v) {
    std::ostringstream o;
    switch (t) {
        case ZN_UINT32:
            o << v.val_uint32;
            break;
        case ZN_INT32:
            o << v.val_int32;
            break;
        case ZN_CHAR_PTR:
            o << '"' << (v.ptr_char != nullptr ? v.ptr_char : "") << '"';
            break;
        case ZN_CHAR_PTR_ARRAY:
            o << '[';
            for (const std::string& n : namesOf(v.ptr_array)) {
                o << n << ' ';
            }
            o << ']';
            break;
        case ZN_SD_PTR:
            o << '{';
            for (uint32_t i = 0; v.ptr_sd != nullptr && i < v.ptr_sd->element_count; ++i) {
                o << textOf(v.ptr_sd->elements[i].data_type, v.ptr_sd->elements[i].value) << ';';
            }
            o << '}';
            break;
        default:
            o << "type " << t;
    }
    return o.str();
}

struct Outcome {
    std::vector<std::string> answers;                        // each request's errors, in order
    std::map<int, std::vector<std::string>> reports;         // by group (order of definition)
    std::map<std::string, std::vector<std::string>> tables;  // publications by group name
    std::map<int, std::string> groups;                       // final rows
    size_t recomputations = 0;
};

class SameResultsTest : public GroupTest {
protected:
    void SetUp() override {}  // each run starts its own classes

    Outcome run(Expansion mode, unsigned seed) {
        std::string root = root_ / (mode == Expansion::Rescan ? "rescan" : "indexed");
        std::filesystem::create_directories(root);
        setenv("ZN_ROOT", root.c_str(), 1);
        Outcome out;
        znpex::di::setRefresher([&out](const znpex::di::Transaction& t) {
            for (const znpex::di::GroupEntry& g : t.groups) {
                std::string m;
                for (const std::string& n : g.members) {
                    m += n + " ";
                }
                out.tables[g.name].push_back(std::to_string(t.op) + ":" + m);
            }
            return DI_OK;
        });
        restart();
        groups()->setExpansion(mode);
        out_.clear();
        std::mt19937 rng(seed);
        auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
        std::vector<std::string> nodeNames;
        std::map<std::string, int> groupIds;  // current name -> order of definition
        std::vector<zn_resource_handle> groupHandles;
        int nextNode = 0, nextGroup = 0;
        auto answer = [&](const std::string& what, const RMReply& r) {
            std::string a = what + " -> " + std::to_string(errorId(r.error));
            for (const RMReplyItem& i : r.items) {
                a += " " + std::to_string(errorId(i.error));
            }
            out.answers.push_back(a);
        };
        auto someGroup = [&]() -> std::string {
            if (groupIds.empty()) {
                return "none";
            }
            auto it = groupIds.begin();
            std::advance(it, static_cast<long>(pick(groupIds.size())));
            return it->first;
        };
        auto someMembers = [&]() {
            std::vector<std::string> m;
            size_t n = pick(4);
            for (size_t i = 0; i < n && !nodeNames.empty(); ++i) {
                m.push_back(nodeNames[pick(nodeNames.size())]);
            }
            if (pick(6) == 0) {
                m.push_back("stranger" + std::to_string(pick(3)));
            }
            if (pick(2) == 0 && !groupIds.empty()) {
                m.push_back("+" + someGroup());
            }
            std::sort(m.begin(), m.end());
            m.erase(std::unique(m.begin(), m.end()), m.end());
            std::shuffle(m.begin(), m.end(), rng);
            return m;
        };
        // The last, a cleared selection, only in changes.
        const char* selections[] = {"HWModel==\"m1\"",
                                    "HWModel!=\"m2\"",
                                    "Hostname=~\"1\"",
                                    "*",
                                    "HWModel==\"m3\" || Hostname=~\"^n2\"",
                                    ""};
        for (int step = 0; step < 400; ++step) {
            size_t what = pick(20);
            if (what < 4 || nodeNames.size() < 3) {
                std::string n = "n" + std::to_string(nextNode++);
                std::string model = "m" + std::to_string(pick(4));
                answer("node " + n, defineNode(n.c_str(), attrs(str(kMnHWModel, model.c_str()))));
                nodeNames.push_back(n);
            } else if (what < 6) {
                size_t i = pick(nodeNames.size());
                std::string n = "n" + std::to_string(nextNode++);
                answer("rename " + nodeNames[i], set(kNodes, nodeHandle(nodeNames[i].c_str()),
                                                     attrs(str(kMnHostname, n.c_str()))));
                nodeNames[i] = n;
            } else if (what < 7) {
                size_t i = pick(nodeNames.size());
                answer("remove " + nodeNames[i],
                       undefine(kNodes, {nodeHandle(nodeNames[i].c_str())}));
                nodeNames.erase(nodeNames.begin() + static_cast<long>(i));
            } else if (what < 9) {
                size_t i = pick(nodeNames.size());
                std::string model = "m" + std::to_string(pick(4));
                answer("model " + nodeNames[i], set(kNodes, nodeHandle(nodeNames[i].c_str()),
                                                    attrs(str(kMnHWModel, model.c_str()))));
            } else if (what < 12) {
                std::string g = "g" + std::to_string(nextGroup);
                RMReply r =
                    pick(3) == 0
                        ? defineGroup(attrs(str(kNgName, g.c_str()),
                                            str(kNgSelectStr, selections[pick(5)])))
                        : defineGroup(attrs(str(kNgName, g.c_str()),
                                            u32(kNgValidateNodes, static_cast<uint32_t>(pick(2))),
                                            strList(kNgMemberList, someMembers())));
                answer("define " + g, r);
                ++nextGroup;
                if (r.hasNewHandle) {
                    groupIds[g] = static_cast<int>(groupHandles.size());
                    groupHandles.push_back(r.newHandle);
                    startMonitoring(kGroups, &r.newHandle,
                                    {kNgConfigChanged, kNgMembershipChanged});
                    resourceOp(RMRequestOp::EnablePersResourceAttrsNotification, kGroups,
                               r.newHandle, {kNgMemberList, kNgExpMemberList});
                }
            } else if (what < 14 && !groupIds.empty()) {
                std::string g = someGroup();
                std::vector<std::string> m = someMembers();
                answer((what == 12 ? "add " : "rem ") + g,
                       what == 12 ? addMembers(g.c_str(), m) : remMembers(g.c_str(), m));
            } else if (what < 16 && !groupIds.empty()) {
                std::string g = someGroup();
                RMReply r = pick(2) == 0 ? set(kGroups, groupHandle(g.c_str()),
                                               attrs(strList(kNgMemberList, someMembers())))
                                         : set(kGroups, groupHandle(g.c_str()),
                                               attrs(str(kNgSelectStr, selections[pick(6)])));
                answer("set " + g, r);
            } else if (what < 17 && groupIds.size() > 1) {
                std::string g = someGroup();
                std::string to = "g" + std::to_string(nextGroup++);
                RMReply r = set(kGroups, groupHandle(g.c_str()), attrs(str(kNgName, to.c_str())));
                answer("name " + g, r);
                if (!r.items.empty() && !r.items[0].error) {
                    groupIds[to] = groupIds[g];
                    groupIds.erase(g);
                }
            } else if (what < 18 && groupIds.size() > 4) {
                std::string g = someGroup();
                RMReply r = undefine(kGroups, {groupHandle(g.c_str())});
                answer("undefine " + g, r);
                if (!r.items.empty() && !r.items[0].error) {
                    groupIds.erase(g);
                }
            } else {
                groups()->updateExpMemListAllWithLock();
                ++out.recomputations;
            }
        }
        groups()->updateExpMemListAllWithLock();
        for (const Notice& n : out_.notices()) {
            if (n.className != kGroups || !n.hasHandle) {
                continue;
            }
            int id = -1;
            for (size_t i = 0; i < groupHandles.size(); ++i) {
                id = groupHandles[i] == n.handle ? static_cast<int>(i) : id;
            }
            for (const RMReplyAttr& a : n.values) {
                out.reports[id].push_back((n.persistent ? "p" : "d") + std::to_string(a.id) + "=" +
                                          textOf(a.value.type(), a.value.value()));
            }
        }
        for (auto& [name, id] : groupIds) {
            zn_resource_handle h = groupHandles[static_cast<size_t>(id)];
            RMReply r = get(kGroups, h, {kNgName, kNgMemberList, kNgSelectStr, kNgExpMemberList});
            std::string row;
            for (const RMReplyAttr& a : r.values) {
                row += textOf(a.value.type(), a.value.value()) + " | ";
            }
            out.groups[id] = row;
        }
        znpex::di::setRefresher(nullptr);
        return out;
    }
};

TEST_F(SameResultsTest, IndexedRecomputationWritesAndReportsWhatRescanningDoes) {
    for (unsigned seed : {1u, 2u, 3u, 4u}) {
        Outcome rescan = run(Expansion::Rescan, seed);
        Outcome indexed = run(Expansion::Indexed, seed);
        ASSERT_GT(rescan.recomputations, 5u);
        ASSERT_GT(rescan.groups.size(), 3u) << "seed " << seed;
        EXPECT_EQ(indexed.answers, rescan.answers) << "seed " << seed;
        EXPECT_EQ(indexed.groups, rescan.groups) << "seed " << seed;
        EXPECT_EQ(indexed.reports, rescan.reports) << "seed " << seed;
        EXPECT_EQ(indexed.tables, rescan.tables) << "seed " << seed;
        size_t reported = 0;
        for (auto& [id, r] : rescan.reports) {
            reported += r.size();
        }
        EXPECT_GT(reported, 50u) << "the sequence moved memberships (seed " << seed << ")";
    }
}

}  // namespace
}  // namespace classtest
