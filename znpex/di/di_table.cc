#include "znpex/di/di_table.h"

#include <mutex>

struct di_table_s {
    znpex::di::Transaction t;
};

namespace znpex::di {
namespace {

std::mutex g_mu;
Refresher g_refresher;   // guarded by g_mu
HeartbeatTuner g_tuner;  // guarded by g_mu

std::vector<std::string> listOf(char** items, unsigned int count) {
    std::vector<std::string> out;
    for (unsigned int i = 0; items != nullptr && i < count; ++i) {
        if (items[i] != nullptr) {
            out.emplace_back(items[i]);
        }
    }
    return out;
}

}  // namespace

void setRefresher(Refresher r) {
    std::lock_guard<std::mutex> g(g_mu);
    g_refresher = std::move(r);
}

void setHeartbeatTuner(HeartbeatTuner t) {
    std::lock_guard<std::mutex> g(g_mu);
    g_tuner = std::move(t);
}

const Transaction& transactionOf(di_table_t table) {
    return table->t;
}

}  // namespace znpex::di

int di_init_table_1(di_table_op_t op, di_table_t* table) {
    if (table == nullptr ||
        (op != DI_TABLE_ADD && op != DI_TABLE_UPDATE && op != DI_TABLE_REMOVE)) {
        return DI_EINVAL;
    }
    *table = new di_table_s;
    (*table)->t.op = op;
    return DI_OK;
}

int di_mn_table_entry_1(di_table_t table, unsigned long long nodeId, const char* hostname,
                        char** names, unsigned int nameCount, char** addresses,
                        unsigned int addressCount) {
    if (table == nullptr || hostname == nullptr || *hostname == '\0') {
        return DI_EINVAL;
    }
    table->t.nodes.push_back(znpex::di::NodeEntry{nodeId, hostname,
                                                  znpex::di::listOf(names, nameCount),
                                                  znpex::di::listOf(addresses, addressCount)});
    return DI_OK;
}

int di_mn_null_table_1(di_table_t table) {
    if (table == nullptr) {
        return DI_EINVAL;
    }
    table->t.clearNodes = true;
    return DI_OK;
}

int di_ngn_table_entry_1(di_table_t table, const char* groupName, char** members,
                         unsigned int memberCount) {
    if (table == nullptr || groupName == nullptr || *groupName == '\0') {
        return DI_EINVAL;
    }
    table->t.groups.push_back(
        znpex::di::GroupEntry{groupName, znpex::di::listOf(members, memberCount)});
    return DI_OK;
}

int di_ngn_null_table_1(di_table_t table) {
    if (table == nullptr) {
        return DI_EINVAL;
    }
    table->t.clearGroups = true;
    return DI_OK;
}

int di_refresh_table_1(di_table_t table) {
    if (table == nullptr) {
        return DI_EINVAL;
    }
    if (!znpex::di::validate(table->t).empty()) {
        return DI_EINVAL;
    }
    znpex::di::Refresher r;
    {
        std::lock_guard<std::mutex> g(znpex::di::g_mu);
        r = znpex::di::g_refresher;
    }
    return r ? r(table->t) : DI_ENOSERVICE;
}

void di_free_table_1(di_table_t table) {
    delete table;
}

int di_tune_heartbeat(unsigned int frequency, unsigned int sensitivity) {
    znpex::di::HeartbeatTuner t;
    {
        std::lock_guard<std::mutex> g(znpex::di::g_mu);
        t = znpex::di::g_tuner;
    }
    return t ? t(frequency, sensitivity) : DI_ENOSERVICE;
}
