// The distributed-information tables of the monitoring service: the node
// table (which nodes are managed, under which names and addresses) and the
// node-group table (each group's expanded members), and the transactions a
// resource manager refreshes into them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What a transaction does to the rows it carries.
enum di_table_op_t : int32_t {
    DI_TABLE_ADD = 1,     // add the rows, replacing rows with the same key
    DI_TABLE_UPDATE = 2,  // the same as add: rows are replaced whole
    DI_TABLE_REMOVE = 4,  // remove the rows with these keys (3 is not an operation)
};

// Results of di_refresh_table_1.
inline constexpr int DI_OK = 0;
inline constexpr int DI_EINVAL = 4;  // a malformed transaction; nothing applied
inline constexpr int DI_ESTORE = 6;  // the tables could not be written; nothing applied
// Applied here, but not every other host of the management domain has
// acknowledged it yet; they catch up when they next reach this service.
// Callers treat it as success.
inline constexpr int DI_EPARTIAL = 8;
inline constexpr int DI_ENOSERVICE = 9;  // the service could not be reached

namespace znpex::di {

struct NodeEntry {
    uint64_t nodeId = 0;
    std::string hostname;  // the key
    std::vector<std::string> names;
    std::vector<std::string> addresses;
};

struct GroupEntry {
    std::string name;  // the key
    std::vector<std::string> members;
};

struct Transaction {
    di_table_op_t op = DI_TABLE_ADD;
    bool clearNodes = false;   // empty the node table first (null-table call)
    bool clearGroups = false;  // empty the node-group table first
    std::vector<NodeEntry> nodes;
    std::vector<GroupEntry> groups;
};

// The domain's heartbeat: every host's service sends a heartbeat report to
// the server's every `frequency` seconds, and the server's service reports a
// host that missed `sensitivity` beats in a row to its manager `rm` (the one
// that tuned it). Set on the server by "di.tuneHeartbeat", carried to the
// other hosts with the tables.
struct Heartbeat {
    unsigned int frequency = 0;    // seconds between beats; 0: not tuned yet
    unsigned int sensitivity = 0;  // beats missed before a host counts as down
    std::string rm;                // manager that gets the reports; "": none
    std::string server;            // host that tuned it ("" until the service fills it in)
    uint64_t serverNodeId = 0;
    std::vector<std::string> serverAddresses;  // where its service is reached
};

// Limits that keep one transaction bounded.
inline constexpr size_t kMaxRows = 200000;
inline constexpr size_t kMaxText = 1024;
inline constexpr size_t kMaxListItems = 256;

// Checks a transaction against the limits; returns "" or what is wrong.
std::string validate(const Transaction& t);

}  // namespace znpex::di
