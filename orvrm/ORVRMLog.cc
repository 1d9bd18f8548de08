#include "orvrm/ORVRMLog.h"

#include <cstdarg>
#include <mutex>

#include "orvrm/ORVRMMessages.h"
#include "platform/clock.h"
#include "tarn_rmf/RMCommonErrors.h"

namespace orvrm {
namespace {

std::mutex g_logMutex;
clog_handle_t g_log = nullptr;  // guarded by g_logMutex

void logMessage(int msgNum, const zn::MsgArgs& args, const char* file, int line) {
    if (openLog() != 0) {
        return;  // a daemon without a log still works
    }
    std::lock_guard<std::mutex> g(g_logMutex);
    clog_log(g_log, kLogSeverity, kMessageSet, msgNum, defaultMessageText(msgNum), args, file,
             line);
}

void traceError(const char* functionName, const cu_error_t* err) {
    tarn_base::CTraceComponent* tc = traceComponent();
    if (tc == nullptr || !tc->enabled(kTraceErrors)) {
        return;
    }
    tc->write(kTraceErrors, std::string(functionName != nullptr ? functionName : "?") +
                                ": error " + std::to_string(err != nullptr ? err->cu_error_id : 0) +
                                ": " + cu_error_text(err));
}

void logError49(const char* functionName, const cu_error_t* err, const char* file, int line) {
    std::string text = cu_error_text(err);
    if (text.empty()) {
        return;
    }
    logMessage(49, zn::collectMsgArgsV("%s%s", functionName != nullptr ? functionName : "",
                                       text.c_str()),
               file, line);
}

}  // namespace

tarn_base::CTraceComponent* traceComponent() {
    static tarn_base::CTraceComponent* comp = [] {
        static const tarn_base::tr_category_description cats[] = {{"Errors"}, {"Info"}};
        return tarn_base::CTraceManager::newComponent(kTraceComponentId, cats, 2);
    }();
    return comp;
}

int openLog(std::string* why) {
    std::lock_guard<std::mutex> g(g_logMutex);
    if (g_log != nullptr) {
        return 0;
    }
    return clog_init(&g_log, kTraceComponentId, kLogComponent, kCatalog, 1, why);
}

void closeLog() {
    std::lock_guard<std::mutex> g(g_logMutex);
    clog_fini(g_log);
    g_log = nullptr;
}

bool logIsOpen() {
    std::lock_guard<std::mutex> g(g_logMutex);
    return g_log != nullptr;
}

}  // namespace orvrm

cu_error_t* pkg_error(int errorId, int msgNum, const char* functionName, int ffdcId, ...) {
    (void)ffdcId;
    const char* text = orvrm::defaultMessageText(msgNum);
    va_list ap;
    va_start(ap, ffdcId);
    cu_error_t* err = nullptr;
    cu_vpkg_error_1(&err, errorId, nullptr, orvrm::kCatalog, orvrm::kMessageSet, msgNum, text, ap);
    va_end(ap);
    orvrm::traceError(functionName, err);
    orvrm::logMessage(msgNum, err->cu_args, __FILE__, __LINE__);
    return err;
}

cu_error_t* pkg_common_error(int commonErrorId, const char* functionName, int ffdcId, ...) {
    (void)ffdcId;
    va_list ap;
    va_start(ap, ffdcId);
    cu_error_t* err = nullptr;
    tarn_rmf::RMVPkgCommonError(commonErrorId, nullptr, &err, ap);
    va_end(ap);
    orvrm::traceError(functionName, err);
    orvrm::logError49(functionName, err, __FILE__, __LINE__);
    return err;
}

void orvrmlog_error(const char* functionName, cu_error_t* err) {
    if (err == nullptr) {
        return;
    }
    orvrm::logError49(functionName, err, __FILE__, __LINE__);
}

void orvrmlog_info(int msgNum, const char* functionName, ...) {
    (void)functionName;
    va_list ap;
    va_start(ap, functionName);
    zn::MsgArgs args = zn::collectMsgArgs(orvrm::defaultMessageText(msgNum), ap);
    va_end(ap);
    orvrm::logMessage(msgNum, args, __FILE__, __LINE__);
}

void orvrminfo_trace(const char* format, ...) {
    tarn_base::CTraceComponent* tc = orvrm::traceComponent();
    if (tc == nullptr || !tc->enabled(orvrm::kTraceInfo)) {
        return;
    }
    va_list ap;
    va_start(ap, format);
    tc->vwritef(orvrm::kTraceInfo, format, ap);
    va_end(ap);
}

void getCurrentTime(timespec* now) {
    if (now == nullptr) {
        return;
    }
    timespec t = zn::processClock().wallNow();
    now->tv_sec = t.tv_sec;
    now->tv_nsec = (t.tv_nsec / 1000) * 1000;  // microsecond resolution
}
