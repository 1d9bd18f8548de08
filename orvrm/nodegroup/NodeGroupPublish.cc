// Publication of every group's expanded member list to the
// distributed-information node-group table: the whole table at start
// (operation 1), one group added or replaced (2), one removed (4). Each
// transaction runs under the control point's distributed-information
// mutex; a refresh result of 0 or 8 is success, anything else is traced.
// An entry the table refuses at start is traced and left out.
#include <mutex>

#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/nodegroup/NodeGroupRccp.h"
#include "znpex/di/di_table.h"

namespace orvrm {
namespace {

bool refreshed(int rc) {
    return rc == DI_OK || rc == DI_EPARTIAL;
}

}  // namespace

std::vector<char*> NodeGroupRccp::getNodeList(const NameList& names) {
    std::vector<char*> out;
    out.reserve(names.size());
    for (const std::string& n : names) {
        out.push_back(const_cast<char*>(n.c_str()));
    }
    return out;
}

const NameList* NodeGroupRccp::getExpMemList(const char* name) {
    const GroupRecord* g = model_.find(name != nullptr ? name : "");
    return g != nullptr ? &g->expanded : nullptr;
}

void NodeGroupRccp::sendAllNodeGroupsPEXD() {
    std::lock_guard<std::mutex> g(orvrmcp_->diMutex());
    di_table_t t = nullptr;
    int rc = di_init_table_1(DI_TABLE_ADD, &t);
    if (rc != DI_OK) {
        orvrminfo_trace("sendAllNodeGroupsPEXD::di_init_table err rc %d", rc);
        return;
    }
    rc = di_ngn_null_table_1(t);
    if (rc != DI_OK) {
        orvrminfo_trace("sendAllNodeGroupsPEXD::di_mn_null_table err rc %d", rc);
        di_free_table_1(t);
        return;
    }
    for (auto& [row, group] : model_.groups()) {
        std::vector<char*> names = getNodeList(group.expanded);
        rc = di_ngn_table_entry_1(t, group.name.c_str(), names.data(),
                                  static_cast<unsigned int>(names.size()));
        if (rc != DI_OK) {
            // One refused entry (an old row without a name) keeps only
            // itself out of the table.
            orvrminfo_trace("sendAllNodeGroupsPEXD::di_ngn_table_entry err rc %d", rc);
        }
    }
    rc = di_refresh_table_1(t);
    if (!refreshed(rc)) {
        orvrminfo_trace("sendAllNodeGroupsPEXD::di_refresh_table err rc %d", rc);
    }
    di_free_table_1(t);
}

int NodeGroupRccp::updatePEXNGInfo(di_table_op_t op, const char* name, char** names,
                                   unsigned int count) {
    std::lock_guard<std::mutex> g(orvrmcp_->diMutex());
    di_table_t t = nullptr;
    int rc = di_init_table_1(op, &t);
    if (rc != DI_OK) {
        orvrminfo_trace("sendAllNodeGroupsPEXD::di_init_table err rc %d", rc);
        return rc;
    }
    rc = di_ngn_table_entry_1(t, name, names, count);
    if (rc != DI_OK) {
        orvrminfo_trace("sendAllNodeGroupsPEXD::di_ngn_table_entry err rc %d", rc);
        di_free_table_1(t);
        return rc;
    }
    rc = di_refresh_table_1(t);
    if (!refreshed(rc)) {
        orvrminfo_trace("sendAllNodeGroupsPEXD::di_refresh_table err rc %d", rc);
    }
    di_free_table_1(t);
    return refreshed(rc) ? DI_OK : rc;
}

void NodeGroupRccp::addNodeGroupPEXD(const char* name) {
    const NameList none;
    const NameList* list = getExpMemList(name);
    std::vector<char*> names = getNodeList(list != nullptr ? *list : none);
    updatePEXNGInfo(DI_TABLE_UPDATE, name, names.data(), static_cast<unsigned int>(names.size()));
}

void NodeGroupRccp::updateNodeGroupPEXD(const char* name, const char* oldName) {
    if (oldName != nullptr) {
        updatePEXNGInfo(DI_TABLE_REMOVE, oldName, nullptr, 0);
    }
    addNodeGroupPEXD(name);
}

void NodeGroupRccp::removeNodeGroupPEXD(const char* name) {
    updatePEXNGInfo(DI_TABLE_REMOVE, name, nullptr, 0);
}

}  // namespace orvrm
