#include "orvrm/PartitionStatus.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orvrm/CmdExec.h"
#include "orvrm/ORVRMLog.h"
#include "platform/paths.h"

std::mutex partitionListMutex;

namespace {

constexpr char kConsoleQuery[] = "rpm -q Korysu.cimprovider";
std::mutex g_queryMu;  // guards g_query
std::string g_query;   // "": kConsoleQuery

std::mutex g_cecMu;  // guards the two below
PartitionStatus::CecListCB g_cecListCB = nullptr;
void* g_cecListCBArg = nullptr;

const char* text(const char* s) {
    return s != nullptr ? s : "(null)";
}

// Runs a console tool; its exit status. What it writes is dropped.
int runTool(const std::string& line) {
    CmdExec cmd;
    cmd.setDeadline(PartitionStatus::kToolDeadline);
    cmd.setOutputLimit(1u << 20);
    char* out = nullptr;
    char* err = nullptr;
    int rc = cmd.Execute(line.c_str(), nullptr, tarn_base::CCommand::kCommandLine, &out, &err);
    std::free(out);
    std::free(err);
    return rc;
}

// Appends a copy of `s` at *tail; false when memory runs out.
bool append(strent** head, strent** tail, const char* s) {
    strent* n = createstrent(s);
    if (n == nullptr) {
        return false;
    }
    (*tail == nullptr ? *head : (*tail)->next) = n;
    *tail = n;
    return true;
}

void traceList(const char* title, strent* list) {
    orvrminfo_trace("%s", title);
    for (strent* s = list; s != nullptr; s = s->next) {
        orvrminfo_trace("%s", s->str);
    }
}

}  // namespace

PartitionStatus::PartitionStatus() {
    orvrminfo_trace("PartitionStatus: Constructor");
}

PartitionStatus::~PartitionStatus() {
    std::lock_guard<std::mutex> g(partitionListMutex);
    freePartitionEntLst(head_);
    head_ = tail_ = nullptr;
}

void PartitionStatus::setConsoleQuery(const std::string& commandLine) {
    std::lock_guard<std::mutex> g(g_queryMu);
    g_query = commandLine;
}

bool PartitionStatus::runningOnYSU() {
    std::string query;
    {
        std::lock_guard<std::mutex> g(g_queryMu);
        query = g_query.empty() ? kConsoleQuery : g_query;
    }
    if (runTool(query) == 0) {
        orvrminfo_trace("PartitionStatus: running on the YSU");
        return true;
    }
    orvrminfo_trace("PartitionStatus: NOT running on the YSU");
    return false;
}

void PartitionStatus::registerForCECList(CecListCB cb, void* arg) {
    orvrminfo_trace("PartitionStatus::registerForCECList entered");
    orvrminfo_trace(cb == nullptr ? "cbFunc is NULL" : "cbFunc is NOT NULL");
    std::lock_guard<std::mutex> g(g_cecMu);
    g_cecListCB = cb;
    g_cecListCBArg = arg;
}

void PartitionStatus::setCallbacks(StatusChangeCB statusCB, void* statusArg, PartitionGoneCB goneCB,
                                   void* goneArg) {
    partitionStatusCB_ = statusCB;
    statusArg_ = statusArg;
    partitionGoneCB_ = goneCB;
    goneArg_ = goneArg;
}

void PartitionStatus::freePartitionEnt(PartitionEntry* e) {
    if (e == nullptr) {
        return;
    }
    std::free(e->hostname);
    std::free(e->partition);
    std::free(e);
}

void PartitionStatus::freePartitionEntLst(PartitionEntry* list) {
    while (list != nullptr) {
        PartitionEntry* next = list->next;
        freePartitionEnt(list);
        list = next;
    }
}

void PartitionStatus::traceEntries() {
    for (PartitionEntry* e = head_; e != nullptr; e = e->next) {
        orvrminfo_trace("%s", text(e->hostname));
        orvrminfo_trace("%s", text(e->partition));
        orvrminfo_trace("status is %d", e->status);
    }
}

void PartitionStatus::addInitialHosts(PartitionEntry* list) {
    orvrminfo_trace("PartitionStatus::addInitialHosts, copying list");
    for (PartitionEntry* e = list; e != nullptr; e = e->next) {
        addPartitionEntry(e->hostname, e->partition, e->status);
    }
    orvrminfo_trace("PartitionStatus::addInitialHosts, Printing partitionList");
    std::lock_guard<std::mutex> g(partitionListMutex);
    traceEntries();
}

void PartitionStatus::addHost(char* hostname, char* partition) {
    addPartitionEntry(hostname, partition, 1);
}

void PartitionStatus::addPartitionEntry(char* hostname, char* partition, int status) {
    orvrminfo_trace("PartitionStatus::addPartitionEntry entered");
    orvrminfo_trace("%s", text(hostname));
    orvrminfo_trace("%s", text(partition));
    auto* e = static_cast<PartitionEntry*>(std::calloc(1, sizeof(PartitionEntry)));
    if (e == nullptr) {
        return;
    }
    e->hostname = hostname != nullptr ? strdup(hostname) : nullptr;
    e->partition = partition != nullptr ? strdup(partition) : nullptr;
    if ((hostname != nullptr && e->hostname == nullptr) ||
        (partition != nullptr && e->partition == nullptr)) {
        freePartitionEnt(e);
        return;
    }
    e->status = status;
    std::lock_guard<std::mutex> g(partitionListMutex);
    if (head_ == nullptr) {
        orvrminfo_trace("partitionList is NULL");
        head_ = tail_ = e;
    } else {
        orvrminfo_trace("partitionList is NOT null");
        tail_->next = e;
        tail_ = e;
    }
}

void PartitionStatus::removeHost(char* hostname) {
    if (hostname == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> g(partitionListMutex);
    PartitionEntry* prev = nullptr;
    for (PartitionEntry* e = head_; e != nullptr;) {
        PartitionEntry* next = e->next;
        if (e->hostname != nullptr && std::strcmp(e->hostname, hostname) == 0) {
            (prev == nullptr ? head_ : prev->next) = next;
            if (tail_ == e) {
                tail_ = prev;
            }
            freePartitionEnt(e);
        } else {
            prev = e;
        }
        e = next;
    }
}

void PartitionStatus::changeHostname(char* oldName, char* newName) {
    std::lock_guard<std::mutex> g(partitionListMutex);
    while (head_ != nullptr) {
        if (head_->hostname != nullptr && oldName != nullptr &&
            std::strcmp(head_->hostname, oldName) == 0) {
            char* copy = newName != nullptr ? strdup(newName) : nullptr;
            std::free(head_->hostname);
            head_->hostname = copy;
            return;
        }
        // The head moves on: the entry left behind is out of the list.
        PartitionEntry* dropped = head_;
        head_ = head_->next;
        freePartitionEnt(dropped);
    }
    tail_ = nullptr;
}

int PartitionStatus::getHostStatus(char* hostname) {
    if (hostname == nullptr) {
        return 127;
    }
    std::lock_guard<std::mutex> g(partitionListMutex);
    for (PartitionEntry* e = head_; e != nullptr; e = e->next) {
        if (e->hostname != nullptr && std::strcmp(e->hostname, hostname) == 0) {
            return e->status;
        }
    }
    return 127;
}

int PartitionStatus::getStatusFromList(strent* list, char* partition) {
    return isInList(list, partition);
}

int PartitionStatus::isInList(strent* list, char* partition) {
    return partition != nullptr && checkstrinlist(partition, list) == 1 ? 1 : 0;
}

strent* PartitionStatus::readList(const char* path, bool* found) {
    *found = false;
    FILE* f = std::fopen(zn::paths::resolve(path).c_str(), "r");
    if (f == nullptr) {
        return nullptr;
    }
    *found = true;
    strent* head = nullptr;
    strent* tail = nullptr;
    unsigned items = 0;
    for (;;) {
        char line[128] = {};
        if (std::fgets(line, sizeof line, f) == nullptr) {
            break;
        }
        size_t n = std::strlen(line);
        if (n > 0 && line[n - 1] == '\n') {
            line[n - 1] = '\0';
        }
        if (items == kMaxListItems) {
            orvrminfo_trace("PartitionStatus: %s holds more than %u lines; the rest is left", path,
                            kMaxListItems);
            break;
        }
        if (!append(&head, &tail, line)) {
            break;
        }
        ++items;
    }
    std::fclose(f);
    return head;
}

void PartitionStatus::updateStatus() {
    orvrminfo_trace("PartitionStatus::updateStatus entered");
    runTool(zn::paths::resolveCommand(zn::paths::kGetCimStatus));
    orvrminfo_trace("PartitionStatus::updateStatus, after running command");
    updateForStatusChange();
    updateForDeletions();
    updateForCECListChange();
}

void PartitionStatus::updateForStatusChange() {
    orvrminfo_trace("PartitionStatus::updateForStatusChange entered");
    bool found = false;
    strent* active = readList(zn::paths::kActivePartitionList, &found);
    if (!found) {
        orvrminfo_trace("PartitionStatus: error - /tmp/actptnlist not found");
    }
    traceList("PartitionStatus: returning ActivePartitionList", active);
    strent* changed = nullptr;
    strent* changedTail = nullptr;
    strent* gone = nullptr;
    strent* goneTail = nullptr;
    {
        std::lock_guard<std::mutex> g(partitionListMutex);
        for (PartitionEntry* e = head_; e != nullptr; e = e->next) {
            int now = 127;
            if (found) {
                now = isInList(active, e->partition);
                orvrminfo_trace("current status for %s is %d", text(e->partition), now);
            } else if (e->status == 127) {
                continue;
            }
            if (now == e->status) {
                continue;
            }
            e->status = now;
            append(&changed, &changedTail, text(e->hostname));
            if (found && now == 0) {
                append(&gone, &goneTail, text(e->hostname));
            }
        }
        orvrminfo_trace("PartitionStatus: About to print updated status");
        traceEntries();
    }
    if (changed != nullptr) {
        if (partitionStatusCB_ != nullptr) {
            orvrminfo_trace("PartitionStatus: invoking partitionStatusCB");
            partitionStatusCB_(statusArg_, changed);
            orvrminfo_trace("PartitionStatus: after invoking partitionStatusCB");
        }
        freestrlst(changed);
    }
    if (partitionGoneCB_ != nullptr) {
        for (strent* h = gone; h != nullptr; h = h->next) {
            partitionGoneCB_(goneArg_, h->str);
        }
    }
    freestrlst(gone);
    freestrlst(active);
}

void PartitionStatus::updateForDeletions() {
    orvrminfo_trace("PartitionStatus::updateForDeletions entered");
    bool found = false;
    strent* all = readList(zn::paths::kPartitionList, &found);
    if (!found) {
        orvrminfo_trace("PartitionStatus: error - /tmp/ptnlist not found");
        return;
    }
    traceList("PartitionStatus: returning PartitionList", all);
    strent* gone = nullptr;
    strent* goneTail = nullptr;
    {
        std::lock_guard<std::mutex> g(partitionListMutex);
        for (PartitionEntry* e = head_; e != nullptr; e = e->next) {
            // No line at all: every partition is gone.
            if (all == nullptr || isInList(all, e->partition) == 0) {
                append(&gone, &goneTail, text(e->hostname));
            }
        }
    }
    if (partitionGoneCB_ != nullptr) {
        for (strent* h = gone; h != nullptr; h = h->next) {
            partitionGoneCB_(goneArg_, h->str);
        }
    }
    freestrlst(gone);
    freestrlst(all);
}

void PartitionStatus::updateForCECListChange() {
    orvrminfo_trace("PartitionStatus::updateForCECListChange entered");
    bool found = false;
    strent* frames = readList(zn::paths::kCecList, &found);
    if (!found) {
        orvrminfo_trace("PartitionStatus: error - /tmp/ceclist not found");
        return;
    }
    traceList("PartitionStatus: returning ceclist", frames);
    CecListCB cb = nullptr;
    void* arg = nullptr;
    {
        std::lock_guard<std::mutex> g(g_cecMu);
        cb = g_cecListCB;
        arg = g_cecListCBArg;
    }
    if (cb != nullptr && frames != nullptr) {
        cb(arg, frames);
    }
    freestrlst(frames);
}

int PartitionStatus::setKeyOnCEC(char* a, char* b, int n) {
    orvrminfo_trace("PartitionStatus::setKeyOnCEC entered");
    const char* fa = text(a);
    const char* fb = text(b);
    int len = std::snprintf(nullptr, 0, zn::paths::kSetKeyOnCecCommand, fa, fb, n);
    std::string line(static_cast<size_t>(len > 0 ? len : 0), '\0');
    std::snprintf(line.data(), line.size() + 1, zn::paths::kSetKeyOnCecCommand, fa, fb, n);
    orvrminfo_trace("%s", line.c_str());
    int result = runTool(zn::paths::resolveCommand(line));
    FILE* f = std::fopen(zn::paths::resolve(zn::paths::kSetKeyResult).c_str(), "r");
    if (f == nullptr) {
        orvrminfo_trace("PartitionStatus: error - /tmp/setkeyresult not found");
        result = 1;
    } else {
        char piece[5] = {};
        while (std::fgets(piece, sizeof piece, f) != nullptr) {
            result = std::atoi(piece);
            orvrminfo_trace("setkey return code is %d", result);
        }
        std::fclose(f);
    }
    orvrminfo_trace("PartitionStatus::setKeyOnCEC leaving");
    return result;
}
