// Defining every row of a bulk file: the file is read and checked whole
// first (BulkLoad.h), so that a faulty file defines nothing; then `jobs`
// threads, each with a session of its own, send the rows, so that as many
// requests are in flight (1: one at a time). A row the manager refuses is
// reported with its line and the catalogue's text, in line order, and the
// others stay defined. Progress goes to standard error when asked (on a
// terminal); a summary (rows, defined, refused, seconds, rows/s) ends the
// output. SIGINT or SIGTERM stops sending: the rows sent stay defined and
// the rest count as not sent.
#pragma once

#include <string>

#include "znpex/cli/CliSession.h"

namespace znpex::cli {

inline constexpr int kDefaultBulkJobs = 8;
inline constexpr int kMaxBulkJobs = 64;

struct BulkDefineArgs {
    std::string className;
    std::string file;
    int jobs = kDefaultBulkJobs;
    bool progress = false;
};

// Exit status: 0 when every row was defined, 1 otherwise.
int cmdDefineFile(CliSession& cli, const BulkDefineArgs& args);

// The help text of the file format, for the commands that take a file.
extern const char* const kBulkFileHelp;

}  // namespace znpex::cli
