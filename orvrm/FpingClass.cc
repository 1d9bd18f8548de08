#include "orvrm/FpingClass.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <unordered_set>

#include "orvrm/FpingReport.h"
#include "orvrm/ORVRMLog.h"
#include "platform/paths.h"

std::mutex FpingClass::hostListMutex;
std::mutex FpingClass::hostFileMutex;

namespace {

using std::chrono::milliseconds;

constexpr char kPollFunction[] = "FpingClass::updateStatusAndRetChanges";
constexpr unsigned kStatusesKnown = 3;  // exit statuses 0, 1 and 2 carry a report

constexpr milliseconds kDeadlineBase{60'000};
constexpr int64_t kDeadlinePerHostMs = 50;  // several tries, one send every 10 ms
constexpr int64_t kDeadlineTimeOuts = 10;   // the last tries wait longest
constexpr milliseconds kLongestDeadline{3'600'000};
constexpr uint64_t kOutputBase = 64 * 1024;
constexpr uint64_t kOutputPerHost = 512;

// A name must stand as one line of the list file and be read back as itself:
// no blank or control character, not empty, and not a comment.
bool usableName(const char* name) {
    if (name == nullptr || *name == '\0' || *name == '#') {
        return false;
    }
    for (const char* c = name; *c != '\0'; ++c) {
        auto byte = static_cast<unsigned char>(*c);
        if (byte <= ' ' || byte == 0x7f) {
            return false;
        }
    }
    return true;
}

bool writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Writes a fresh file beside `path` and renames it over: a reader sees the old
// list or the new one, never a part, and a name planted at `path` (the folder
// is everyone's) is replaced rather than followed. Not synced: the file is
// rebuilt from memory after every change and means nothing after a restart.
int replaceFile(const std::string& path, const std::string& text) {
    if (zn::paths::ensureParentDir(path) != 0) {
        return -1;
    }
    std::string tmp = path + ".XXXXXX";
    int fd = ::mkstemp(tmp.data());
    if (fd < 0) {
        return -1;
    }
    bool ok = ::fchmod(fd, 0644) == 0 && writeAll(fd, text);
    ok = ::close(fd) == 0 && ok;
    if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
        ::unlink(tmp.c_str());
        return -1;
    }
    return 0;
}

void logStopped(const std::string& why) {
    orvrmlog_info(49, kPollFunction, kPollFunction, why.c_str());
}

}  // namespace

FpingClass::FpingClass()
    : m_listFile(zn::paths::resolve(zn::paths::kFpingList)),
      m_program(zn::paths::resolve(zn::paths::kFping)) {}

FpingClass::~FpingClass() {
    {
        std::lock_guard<std::mutex> file(hostFileMutex);
        ::unlink(m_listFile.c_str());
    }
    std::lock_guard<std::mutex> list(hostListMutex);
    freeHostEntLst();
}

int FpingClass::checkUser() {
    std::lock_guard<std::mutex> list(hostListMutex);
    if (m_head != nullptr) {
        // The entries leave sight but stay owned; the tail is left as it was.
        m_tail->next = m_hidden;
        m_hidden = m_head;
        m_head = nullptr;
    }
    return ::geteuid() == 0 ? 0 : -1;
}

int FpingClass::addHosts(const char* names, char sep) {
    strent* list = parsestr(names, sep);
    int rc = addHosts(list);
    freestrlst(list);
    return rc;
}

int FpingClass::addHosts(const strent* names) {
    bool refused = false;
    for (const strent* s = names; s != nullptr; s = s->next) {
        if (usableName(s->str)) {
            addHostEntry(s->str, kUnknown);
        } else {
            refused = true;
            orvrminfo_trace("FpingClass::addHosts: name refused");
        }
    }
    int rc = writeListToFile();
    return refused ? -1 : rc;
}

int FpingClass::addHost(const char* name) {
    if (!usableName(name)) {
        orvrminfo_trace("FpingClass::addHost: name refused");
        return -1;
    }
    addHostEntry(name, kUnknown);
    return writeListToFile();
}

int FpingClass::removeHost(const char* name) {
    if (name == nullptr) {
        return 0;
    }
    int removed = 0;
    {
        std::lock_guard<std::mutex> list(hostListMutex);
        HostEntry* prev = nullptr;
        HostEntry* e = m_head;
        while (e != nullptr) {
            HostEntry* next = e->next;
            if (std::strcmp(e->name, name) == 0) {
                (prev == nullptr ? m_head : prev->next) = next;
                if (e == m_tail) {
                    m_tail = prev;
                }
                freeHostEnt(e);
                ++removed;
            } else {
                prev = e;
            }
            e = next;
        }
    }
    return removed > 0 ? writeListToFile() : 0;
}

int FpingClass::isHostInList(const char* name) {
    std::lock_guard<std::mutex> list(hostListMutex);
    return isListed(name) ? 1 : 0;
}

int FpingClass::getHostStatus(const char* name) {
    std::lock_guard<std::mutex> list(hostListMutex);
    for (HostEntry* e = m_head; name != nullptr && e != nullptr; e = e->next) {
        if (std::strcmp(e->name, name) == 0) {
            return e->status;
        }
    }
    return kUnknown;
}

int FpingClass::setPingTimeOut(int ms) {
    m_pingTimeOut = ms;
    return 0;
}

std::string FpingClass::commandLine() const {
    return commandLineFor(m_pingTimeOut);
}

std::string FpingClass::commandLineFor(int pingTimeOut) const {
    // Formatted with the fixed program path, then rooted: a root holding '%'
    // never reaches the format.
    int n = std::snprintf(nullptr, 0, zn::paths::kFpingCommand, m_listFile.c_str(), pingTimeOut);
    std::string line(static_cast<size_t>(std::max(n, 0)), '\0');
    std::snprintf(line.data(), line.size() + 1, zn::paths::kFpingCommand, m_listFile.c_str(),
                  pingTimeOut);
    return zn::paths::resolveCommand(line);
}

milliseconds FpingClass::defaultRunDeadline(size_t hosts, int pingTimeOutMs) {
    const int64_t hostShare =
        static_cast<int64_t>(std::min<size_t>(hosts, 1'000'000'000)) * kDeadlinePerHostMs;
    const int64_t waits = int64_t{std::max(pingTimeOutMs, 0)} * kDeadlineTimeOuts;
    return std::min(kDeadlineBase + milliseconds(hostShare + waits), kLongestDeadline);
}

uint64_t FpingClass::outputLimit(size_t hosts) {
    return kOutputBase + kOutputPerHost * hosts;
}

strent* FpingClass::updateStatusAndRetChanges() {
    size_t hosts = 0;
    {
        std::lock_guard<std::mutex> list(hostListMutex);
        for (HostEntry* e = m_head; e != nullptr; e = e->next) {
            ++hosts;
        }
    }
    if (hosts == 0) {
        return nullptr;
    }
    int status = kUnknown;
    char* report = nullptr;
    if (::access(m_program.c_str(), X_OK) == 0) {
        std::lock_guard<std::mutex> file(hostFileMutex);
        report = runFping(hosts, m_pingTimeOut, &status);
    }
    strent* changes = nullptr;
    {
        std::lock_guard<std::mutex> list(hostListMutex);
        changes = judge(status, report);
    }
    std::free(report);
    return changes;
}

char* FpingClass::runFping(size_t hosts, int pingTimeOut, int* status) {
    milliseconds deadline = m_runDeadline.load();
    if (deadline == milliseconds(0)) {
        deadline = defaultRunDeadline(hosts, pingTimeOut);
    }
    m_cmd.setDeadline(deadline);
    m_cmd.setOutputLimit(outputLimit(hosts));
    char* out = nullptr;
    char* err = nullptr;
    const std::string line = commandLineFor(pingTimeOut);
    *status = m_cmd.Execute(line.c_str(), nullptr, tarn_base::CCommand::kCommandLine, &out, &err);
    if (m_cmd.outputLimitHit()) {
        *status = kUnknown;
        logStopped(m_program + " wrote more than " + std::to_string(m_cmd.outputLimit()) +
                   " bytes and was stopped; every host's status is unknown");
    } else if (m_cmd.timedOut()) {
        logStopped(m_program + " did not end within " + std::to_string(deadline.count()) +
                   " ms and was stopped; every host's status is unknown");
    }
    char* report =
        orvrm::fping::joinOutput(out, m_cmd.lastStdoutLength(), err, m_cmd.lastStderrLength());
    std::free(out);
    std::free(err);
    orvrminfo_trace("%s: status %d, %u + %u bytes", kPollFunction, *status,
                    m_cmd.lastStdoutLength(), m_cmd.lastStderrLength());
    return report;
}

strent* FpingClass::judge(int status, char* report) {
    strent* head = nullptr;
    strent* tail = nullptr;
    if (static_cast<unsigned>(status) >= kStatusesKnown) {
        for (HostEntry* e = m_head; e != nullptr; e = e->next) {
            if (e->status != kUnknown) {
                reportChange(e, kUnknown, &head, &tail);
            }
        }
        return head;
    }
    if (report == nullptr || *report == '\0') {
        for (HostEntry* e = m_head; e != nullptr; e = e->next) {
            if (e->status != kReachable) {
                reportChange(e, kReachable, &head, &tail);
            }
        }
        return head;
    }
    strent* lines = parsestr(report, '\n');
    if (lines == nullptr) {
        return nullptr;
    }
    // Names and lines are looked up by hash; by walking the lists when memory is short.
    std::unordered_set<std::string_view> listed;
    std::unordered_set<std::string_view> named;
    bool hashed = true;
    try {
        for (const HostEntry* e = m_head; e != nullptr; e = e->next) {
            listed.insert(e->name);
        }
    } catch (const std::bad_alloc&) {
        hashed = false;
    }
    orvrm::fping::cutResolverFailures(
        lines, [&](const char* name) { return hashed ? listed.count(name) != 0 : isListed(name); });
    try {
        for (const strent* l = hashed ? lines : nullptr; l != nullptr; l = l->next) {
            named.insert(l->str);
        }
    } catch (const std::bad_alloc&) {
        hashed = false;
    }
    for (HostEntry* e = m_head; e != nullptr; e = e->next) {
        bool isNamed = hashed ? named.count(e->name) != 0 : checkstrinlist(e->name, lines) != 0;
        if (isNamed && e->status != kUnreachable) {
            reportChange(e, kUnreachable, &head, &tail);
        } else if (!isNamed && e->status != kReachable) {
            reportChange(e, kReachable, &head, &tail);
        }
    }
    freestrlst(lines);
    return head;
}

bool FpingClass::reportChange(HostEntry* entry, int status, strent** head, strent** tail) {
    strent* node = createstrent(entry->name);
    if (node == nullptr) {
        return false;
    }
    (*tail == nullptr ? *head : (*tail)->next) = node;
    *tail = node;
    entry->status = status;
    return true;
}

bool FpingClass::isListed(const char* name) const {
    for (const HostEntry* e = m_head; name != nullptr && e != nullptr; e = e->next) {
        if (std::strcmp(e->name, name) == 0) {
            return true;
        }
    }
    return false;
}

void FpingClass::addHostEntry(const char* name, int status) {
    auto* e = static_cast<HostEntry*>(std::malloc(sizeof(HostEntry)));
    char* copy = strdup(name);
    if (e == nullptr || copy == nullptr) {
        std::free(e);
        std::free(copy);
        return;
    }
    *e = HostEntry{copy, status, nullptr};
    std::lock_guard<std::mutex> list(hostListMutex);
    if (m_head == nullptr) {
        m_head = e;
    } else {
        m_tail->next = e;
    }
    m_tail = e;
}

int FpingClass::writeListToFile() {
    std::lock_guard<std::mutex> file(hostFileMutex);
    std::string text;
    try {
        std::lock_guard<std::mutex> list(hostListMutex);
        for (const HostEntry* e = m_head; e != nullptr; e = e->next) {
            text.append(e->name).push_back('\n');
        }
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return replaceFile(m_listFile, text);
}

void FpingClass::freeHostEnt(HostEntry* entry) {
    if (entry != nullptr) {
        std::free(entry->name);
        std::free(entry);
    }
}

void FpingClass::freeHostEntLst() {
    for (HostEntry* chain : {m_head, m_hidden}) {
        while (chain != nullptr) {
            HostEntry* next = chain->next;
            freeHostEnt(chain);
            chain = next;
        }
    }
    m_head = nullptr;
    m_tail = nullptr;
    m_hidden = nullptr;
}
