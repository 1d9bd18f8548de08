// The partition status monitor of the hardware service console: one entry
// per managed node naming the partition that backs it, kept current by the
// console's status tool ("/opt/wex/bin/getcimstatus"), whose result files
// say which partitions are active, which exist and which frames there are.
// Changes go to callbacks: status changes and partitions gone to the
// managed-node class, the frame list to the node authentication class. Also
// runs the console's key-setting tool for a frame.
//
// Locks: partitionListMutex (process-wide) guards every instance's list and
// statuses; callbacks are called without it, so they may call back in.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "orvrm/strent.h"

// One managed node's partition: owned strings, status 1 active, 0 not
// active, 127 unknown.
struct PartitionEntry {
    char* hostname;
    char* partition;
    int status;
    PartitionEntry* next;
};

extern std::mutex partitionListMutex;

class PartitionStatus {
public:
    using StatusChangeCB = void (*)(void* arg, strent* hosts);
    using PartitionGoneCB = void (*)(void* arg, char* hostname);
    using CecListCB = void (*)(void* arg, strent* frames);

    // At most this many lines are taken from one result file.
    static constexpr unsigned kMaxListItems = 65536;
    // How long the console's tools may run.
    static constexpr std::chrono::milliseconds kToolDeadline{std::chrono::minutes(2)};

    PartitionStatus();
    ~PartitionStatus();
    PartitionStatus(const PartitionStatus&) = delete;
    PartitionStatus& operator=(const PartitionStatus&) = delete;

    // Whether this host is the console: "rpm -q Korysu.cimprovider" succeeds.
    static bool runningOnYSU();
    // Tests ask another command line instead ("": the real one again).
    static void setConsoleQuery(const std::string& commandLine);
    // The frame-list callback of every instance; the last registration wins.
    static void registerForCECList(CecListCB cb, void* arg);
    // The owner's callbacks (either may be null).
    void setCallbacks(StatusChangeCB statusCB, void* statusArg, PartitionGoneCB goneCB,
                      void* goneArg);

    // Adds a copy of each given entry; the caller keeps its list.
    void addInitialHosts(PartitionEntry* list);
    // A new entry with status 1.
    void addHost(char* hostname, char* partition);
    // A new entry at the tail (no duplicate check); nothing when memory runs out.
    void addPartitionEntry(char* hostname, char* partition, int status);
    // Removes every entry with this host name (null: nothing).
    void removeHost(char* hostname);
    // Moves the list head past every entry whose name is not `oldName` and
    // renames the first that is: the entries before it leave the list, and
    // with no match the list ends empty. Nothing calls it; kept as it is.
    void changeHostname(char* oldName, char* newName);
    // The first entry's status for the host; 127 when none.
    int getHostStatus(char* hostname);
    // One poll: runs the status tool, then status changes, deletions and the
    // frame list, always all three, in this order.
    void updateStatus();
    // Runs the frame key tool; its result code (0: done).
    int setKeyOnCEC(char* a, char* b, int n);

    static void freePartitionEnt(PartitionEntry* e);
    static void freePartitionEntLst(PartitionEntry* list);
    // 1 when some item equals the partition exactly, else 0.
    static int getStatusFromList(strent* list, char* partition);
    static int isInList(strent* list, char* partition);
    // The lines of a result file as a list (each at most 127 characters a
    // read, its line feed removed, empty lines kept); *found false when the
    // file cannot be opened.
    static strent* readList(const char* path, bool* found);

private:
    void updateForStatusChange();
    void updateForDeletions();
    void updateForCECListChange();
    // Traces every entry (partitionListMutex held).
    void traceEntries();

    PartitionEntry* head_ = nullptr;  // guarded by partitionListMutex
    PartitionEntry* tail_ = nullptr;
    StatusChangeCB partitionStatusCB_ = nullptr;
    PartitionGoneCB partitionGoneCB_ = nullptr;
    void* statusArg_ = nullptr;
    void* goneArg_ = nullptr;
};
