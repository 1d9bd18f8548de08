// The distributed-information calls a resource manager makes: build a table
// transaction (node entries, node-group entries, "null table" to empty a
// table first), refresh it into the monitoring service, free it; and tune the
// service's heartbeat. Each call returns 0 or a DI_* code. A table is used by
// one thread at a time.
#pragma once

#include <functional>

#include "znpex/di/DiTypes.h"

struct di_table_s;
using di_table_t = di_table_s*;

int di_init_table_1(di_table_op_t op, di_table_t* table);
int di_mn_table_entry_1(di_table_t table, unsigned long long nodeId, const char* hostname,
                        char** names, unsigned int nameCount, char** addresses,
                        unsigned int addressCount);
// Empties the node table before the transaction's entries are applied.
int di_mn_null_table_1(di_table_t table);
int di_ngn_table_entry_1(di_table_t table, const char* groupName, char** members,
                         unsigned int memberCount);
// Empties the node-group table before the transaction's entries are applied.
int di_ngn_null_table_1(di_table_t table);
// Sends the transaction to the service: DI_OK, DI_EPARTIAL (applied here, not
// yet everywhere), or a failure code.
int di_refresh_table_1(di_table_t table);
void di_free_table_1(di_table_t table);
// Heartbeat frequency (seconds) and sensitivity (missed beats) of the service.
int di_tune_heartbeat(unsigned int frequency, unsigned int sensitivity);

namespace znpex::di {

// Where refreshes and tuning go: the service connection installs these;
// without them the calls give DI_ENOSERVICE. Null restores that.
using Refresher = std::function<int(const Transaction&)>;
using HeartbeatTuner = std::function<int(unsigned int, unsigned int)>;
void setRefresher(Refresher r);
void setHeartbeatTuner(HeartbeatTuner t);

// The transaction a table holds (tests, and the connection's encoder).
const Transaction& transactionOf(di_table_t table);

}  // namespace znpex::di
