// The reachability poller: keeps the host names whose network reachability the
// daemon watches, writes them to the list file "/tmp/fpinglist", runs
// "/usr/sbin/fping" over that file, and turns its report into one status per
// host (127 unknown, 0 unreachable, 1 reachable), handing back only the hosts
// whose status changed. Every operation may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "orvrm/CmdExec.h"
#include "orvrm/strent.h"

class FpingClass {
public:
    static constexpr int kUnknown = 127;
    static constexpr int kUnreachable = 0;
    static constexpr int kReachable = 1;
    static constexpr int kDefaultPingTimeOut = 500;  // ms

    // Empty list, time-out 500 ms. Writes no file.
    FpingClass();
    // Removes the list file and frees every entry.
    ~FpingClass();
    FpingClass(const FpingClass&) = delete;
    FpingClass& operator=(const FpingClass&) = delete;

    // 0 when the process runs with effective user id 0, else -1. It also
    // empties the visible list without rewriting the file (an old quirk that
    // is kept: nothing calls it); the entries it hides are freed at destruction.
    int checkUser();

    // Splits `names` at `sep` and adds every token (see addHosts(strent*)).
    int addHosts(char* names, char sep) { return addHosts(static_cast<const char*>(names), sep); }
    int addHosts(const char* names, char sep);
    // Appends one entry with status 127 per string (no duplicate check), then
    // rewrites the list file once. Returns the rewrite's result (0 or -1), or
    // -1 when some name was refused: empty, holding a blank or a control
    // character, or starting with '#', it could not stand as one line of the
    // list file; the others are added all the same.
    int addHosts(strent* names) { return addHosts(static_cast<const strent*>(names)); }
    int addHosts(const strent* names);
    // Appends one entry with status 127 (a second one when the name is listed
    // already) and rewrites the list file; -1 for a refused or null name.
    int addHost(char* name) { return addHost(static_cast<const char*>(name)); }
    int addHost(const char* name);
    // Removes every entry of this name; rewrites the file and returns its
    // result when one went, else 0 with the file left alone (also for null).
    int removeHost(char* name) { return removeHost(static_cast<const char*>(name)); }
    int removeHost(const char* name);
    // 1 when an entry has exactly this name, else 0.
    int isHostInList(char* name) { return isHostInList(static_cast<const char*>(name)); }
    int isHostInList(const char* name);
    // The status of the first entry of this name; 127 when there is none.
    int getHostStatus(char* name) { return getHostStatus(static_cast<const char*>(name)); }
    int getHostStatus(const char* name);
    // The per-target time-out in ms of the next poll; returns 0. Not bounded.
    int setPingTimeOut(int ms);

    // One poll: runs the program once over the list file and updates every
    // entry. After exit status 0, 1 or 2 a host named by a line of the report
    // (see FpingReport.h) is unreachable and any other reachable; a missing
    // program, any other status, a run past the deadline or above the output
    // ceiling make every host unknown. Returns a new list of the names whose
    // status changed, in list order, which the caller frees with freestrlst;
    // null when nothing changed or the list is empty (then nothing runs).
    strent* updateStatusAndRetChanges();

    // The command line a poll runs now, paths resolved: program, two blanks,
    // "-f<list file> -t<time-out> -u".
    std::string commandLine() const;
    // Where the list file and the program are (fixed paths under ZN_ROOT).
    const std::string& listFileName() const { return m_listFile; }
    const std::string& programPath() const { return m_program; }

    // How long a poll lets the program run before its process group is killed.
    // A stuck program must not stall the status task forever, yet a sweep of
    // many silent hosts is slow by nature (every target tried several times,
    // one send at a time, each waiting up to the time-out): so a base, a share
    // per host and a multiple of the time-out, bounded by an hour.
    static std::chrono::milliseconds defaultRunDeadline(size_t hosts, int pingTimeOutMs);
    // Overrides that deadline (tests); zero returns to the derived one.
    void setRunDeadline(std::chrono::milliseconds limit) { m_runDeadline = limit; }
    // The most a poll reads from the program, both streams together: a fixed
    // part for the program's own messages and a line's worth per listed host.
    // A program that writes more is stopped and the poll counts as unknown.
    static uint64_t outputLimit(size_t hosts);

private:
    struct HostEntry {
        char* name;  // malloc'ed copy
        int status;
        HostEntry* next;
    };

    // Appends under hostListMutex; a failed allocation adds nothing.
    void addHostEntry(const char* name, int status);
    // Replaces the list file with the names, one a line, in list order.
    int writeListToFile();
    static void freeHostEnt(HostEntry* entry);
    // Frees every entry, hidden ones included; the list becomes empty.
    void freeHostEntLst();
    // Runs the program over the list file (hostFileMutex held by the caller)
    // and returns its report, joined, or null; *status gets its exit status,
    // 127 when it could not run or wrote more than the ceiling.
    char* runFping(size_t hosts, int pingTimeOut, int* status);
    // Sets the statuses from one run's status and report and returns the
    // changes; called with hostListMutex held.
    strent* judge(int status, char* report);
    // Reports one entry's new status: false, with the status left as it was,
    // when the change list cannot grow (the change is then seen next poll).
    static bool reportChange(HostEntry* entry, int status, strent** head, strent** tail);
    bool isListed(const char* name) const;
    std::string commandLineFor(int pingTimeOut) const;

    // Guards the host list and the entries' status fields (all instances).
    static std::mutex hostListMutex;
    // Serialises list file rewrites with program runs, so the program never
    // reads a half-written file. Taken before hostListMutex where both are held.
    static std::mutex hostFileMutex;

    // Constant after construction.
    const std::string m_listFile;
    const std::string m_program;

    // Protected by hostListMutex.
    HostEntry* m_head = nullptr;
    HostEntry* m_tail = nullptr;    // the last entry whenever m_head is set
    HostEntry* m_hidden = nullptr;  // entries checkUser took out of sight

    std::atomic<int> m_pingTimeOut{kDefaultPingTimeOut};  // read when a poll starts
    std::atomic<std::chrono::milliseconds> m_runDeadline{std::chrono::milliseconds(0)};

    // Used under hostFileMutex only.
    CmdExec m_cmd;
};
