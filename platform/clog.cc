#include "platform/clog.h"

#include <syslog.h>
#include <systemd/sd-journal.h>

#include <mutex>

#include "platform/msgcat.h"

struct clog_handle_s {
    std::string traceComponent;
    std::string logComponent;
    std::string catalog;
};

namespace {

int syslogPriority(int severity) {
    switch (severity) {
        case 1: return LOG_CRIT;
        case 2: return LOG_ERR;
        case 3: return LOG_WARNING;
        case 4: return LOG_NOTICE;
        case 5: return LOG_INFO;
        default: return LOG_DEBUG;
    }
}

class JournalBackend final : public ClogBackend {
public:
    int open(const std::string& identifier, std::string& why) override {
        ident_ = identifier;
        (void)why;
        openlog(ident_.c_str(), LOG_PID | LOG_NDELAY, LOG_DAEMON);
        return 0;
    }
    void write(const clog_record& r) override {
        int rc = sd_journal_send("MESSAGE=%s", r.text.c_str(), "PRIORITY=%d",
                                 syslogPriority(r.severity), "SYSLOG_IDENTIFIER=%s",
                                 r.component.c_str(), "ZN_MSG_CATALOG=%s", r.catalog.c_str(),
                                 "ZN_MSG_SET=%d", r.set, "ZN_MSG_NUMBER=%d", r.msgNum,
                                 "ZN_MSG_DEFAULT=%s", r.defaultText.c_str(), "CODE_FILE=%s",
                                 r.file.c_str(), "CODE_LINE=%d", r.line, nullptr);
        if (rc < 0) {
            // No journal (a container, an early boot): syslog drops it if absent too.
            syslog(syslogPriority(r.severity), "%s [%s %d/%d %s:%d]", r.text.c_str(),
                   r.catalog.c_str(), r.set, r.msgNum, r.file.c_str(), r.line);
        }
    }
    void close() override { closelog(); }

private:
    std::string ident_;
};

std::mutex& logMutex() {
    static std::mutex mu;
    return mu;
}

// Guarded by logMutex(); never destroyed so late writers find it.
std::unique_ptr<ClogBackend>& backend() {
    static auto* b = new std::unique_ptr<ClogBackend>(clog_default_backend());
    return *b;
}

}  // namespace

std::unique_ptr<ClogBackend> clog_default_backend() { return std::make_unique<JournalBackend>(); }

void clog_set_backend(std::unique_ptr<ClogBackend> b) {
    std::lock_guard<std::mutex> g(logMutex());
    backend()->close();
    backend() = b ? std::move(b) : clog_default_backend();
}

int clog_init(clog_handle_t* handle, const char* traceComponent, const char* logComponent,
              const char* catalog, int option, std::string* why) {
    (void)option;
    if (handle == nullptr || logComponent == nullptr || *logComponent == '\0') {
        if (why != nullptr) {
            *why = "bad arguments to clog_init";
        }
        return 22;
    }
    std::string reason;
    int rc;
    {
        std::lock_guard<std::mutex> g(logMutex());
        rc = backend()->open(logComponent, reason);
    }
    if (rc != 0) {
        *handle = nullptr;
        if (why != nullptr) {
            *why = reason;
        }
        return rc;
    }
    *handle = new clog_handle_s{traceComponent != nullptr ? traceComponent : "", logComponent,
                                catalog != nullptr ? catalog : ""};
    return 0;
}

void clog_fini(clog_handle_t handle) { delete handle; }

void clog_log(clog_handle_t handle, int severity, int set, int msgNum, const char* defaultText,
              const zn::MsgArgs& args, const char* file, int line) {
    if (handle == nullptr) {
        return;
    }
    clog_record r;
    r.component = handle->logComponent;
    r.catalog = handle->catalog;
    r.set = set;
    r.msgNum = msgNum;
    r.severity = severity;
    r.defaultText = defaultText != nullptr ? defaultText : "";
    std::string text = zn::catalogText(r.catalog.c_str(), set, msgNum, r.defaultText.c_str());
    r.text = zn::formatMsg(text.c_str(), args);
    r.file = file != nullptr ? file : "";
    r.line = line;
    std::lock_guard<std::mutex> g(logMutex());
    backend()->write(r);
}
