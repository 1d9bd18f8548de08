// The platform error object: an error id plus a catalogued message (catalogue,
// set, number, default text) and its arguments. Whoever receives one releases
// it with cu_rel_error_1. The text is rendered on demand, from the installed
// catalogue when there is one.
#pragma once

#include <cstdarg>
#include <string>

#include "platform/msgfmt.h"

struct cu_error_t {
    int cu_error_id = 0;
    std::string cu_ffdc_id;
    std::string cu_msg_cat;
    int cu_msg_set = 0;
    int cu_msg_num = 0;
    std::string cu_msg_default;
    zn::MsgArgs cu_args;
};

// Builds a new error in *err (any previous value is not released). Returns 0,
// or -1 when err is null.
int cu_pkg_error_1(cu_error_t** err, int errorId, const char* ffdcId, const char* catalog,
                   int set, int msgNum, const char* defaultText, ...);
int cu_vpkg_error_1(cu_error_t** err, int errorId, const char* ffdcId, const char* catalog,
                    int set, int msgNum, const char* defaultText, va_list ap);
// Releases an error; null is ignored.
void cu_rel_error_1(cu_error_t* err);
// A deep copy (null for null).
cu_error_t* cu_dup_error_1(const cu_error_t* err);

// The calling thread's last error, set by library functions that return codes.
void cu_set_error_1(int errorId, const char* ffdcId, const char* catalog, int set, int msgNum,
                    const char* defaultText, ...);
// Sets the thread's last error to "no error" (id 0).
void cu_set_no_error_1();
// Sets the thread's last error to a copy of an error that arrived already
// built (decoded from another process), arguments included; null: no error.
void cu_set_error_obj_1(const cu_error_t* err);
// A copy of the thread's last error, which the caller releases; id 0 when none.
void cu_get_error(cu_error_t** err);

// The rendered message text of an error ("" for null or no message).
std::string cu_error_text(const cu_error_t* err);
// C form: a malloc'ed copy of the text in *msg (null when there is none).
// Returns 0, or -1 for bad arguments. Release with cu_rel_errmsg_1.
int cu_get_errmsg_1(const cu_error_t* err, char** msg);
void cu_rel_errmsg_1(char* msg);
