#include "platform/cu_error.h"

#include <cstdlib>
#include <cstring>

#include "platform/msgcat.h"

namespace {

thread_local cu_error_t t_lastError;

void fill(cu_error_t& e, int errorId, const char* ffdcId, const char* catalog, int set,
          int msgNum, const char* defaultText, va_list ap) {
    e.cu_error_id = errorId;
    e.cu_ffdc_id = ffdcId != nullptr ? ffdcId : "";
    e.cu_msg_cat = catalog != nullptr ? catalog : "";
    e.cu_msg_set = set;
    e.cu_msg_num = msgNum;
    e.cu_msg_default = defaultText != nullptr ? defaultText : "";
    e.cu_args = zn::collectMsgArgs(defaultText, ap);
}

}  // namespace

int cu_vpkg_error_1(cu_error_t** err, int errorId, const char* ffdcId, const char* catalog,
                    int set, int msgNum, const char* defaultText, va_list ap) {
    if (err == nullptr) {
        return -1;
    }
    auto* e = new cu_error_t;
    fill(*e, errorId, ffdcId, catalog, set, msgNum, defaultText, ap);
    *err = e;
    return 0;
}

int cu_pkg_error_1(cu_error_t** err, int errorId, const char* ffdcId, const char* catalog,
                   int set, int msgNum, const char* defaultText, ...) {
    va_list ap;
    va_start(ap, defaultText);
    int rc = cu_vpkg_error_1(err, errorId, ffdcId, catalog, set, msgNum, defaultText, ap);
    va_end(ap);
    return rc;
}

void cu_rel_error_1(cu_error_t* err) { delete err; }

cu_error_t* cu_dup_error_1(const cu_error_t* err) {
    return err != nullptr ? new cu_error_t(*err) : nullptr;
}

void cu_set_error_1(int errorId, const char* ffdcId, const char* catalog, int set, int msgNum,
                    const char* defaultText, ...) {
    va_list ap;
    va_start(ap, defaultText);
    fill(t_lastError, errorId, ffdcId, catalog, set, msgNum, defaultText, ap);
    va_end(ap);
}

void cu_set_no_error_1() { t_lastError = cu_error_t{}; }

void cu_set_error_obj_1(const cu_error_t* err) {
    t_lastError = err != nullptr ? *err : cu_error_t{};
}

void cu_get_error(cu_error_t** err) {
    if (err != nullptr) {
        *err = new cu_error_t(t_lastError);
    }
}

std::string cu_error_text(const cu_error_t* err) {
    if (err == nullptr) {
        return {};
    }
    if (err->cu_msg_cat.empty() && err->cu_msg_default.empty()) {
        return {};
    }
    std::string text = zn::catalogText(err->cu_msg_cat.c_str(), err->cu_msg_set,
                                       err->cu_msg_num, err->cu_msg_default.c_str());
    return zn::formatMsg(text.c_str(), err->cu_args);
}

int cu_get_errmsg_1(const cu_error_t* err, char** msg) {
    if (msg == nullptr) {
        return -1;
    }
    *msg = nullptr;
    std::string text = cu_error_text(err);
    if (text.empty()) {
        return 0;
    }
    *msg = strdup(text.c_str());
    return *msg != nullptr ? 0 : -1;
}

void cu_rel_errmsg_1(char* msg) { std::free(msg); }
