// The subcommands of znpex, each given the shared session and its parsed
// arguments, each returning the process exit status (0, 1 failed, 2 usage).
// runCli parses a command line and runs it, writing to the given streams, so
// tests run the command line in-process.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "znpex/cli/CliSession.h"

namespace znpex::cli {

struct ListArgs {
    std::string className;
    std::string selection;
    std::vector<std::string> attrs;  // empty: all persistent (and dynamic with `dynamic`)
    bool dynamic = false;
};

// Which resources a change addresses: handles, a selection, or the class.
struct Target {
    std::vector<std::string> handles;
    std::string selection;
    bool hasSelection = false;
    bool classLevel = false;
};

struct ChangeArgs {
    std::string className;
    Target target;
    std::vector<std::string> assignments;  // attr=value
    std::vector<std::string> options;      // TYPE:VALUE define/undefine options
};

struct ActionArgs {
    std::string className;
    std::string action;
    Target target;
    std::vector<std::string> args;  // TYPE:VALUE, or by the action's input types
};

struct WatchArgs {
    std::string className;
    std::string expression;
    std::string rearm;               // "": none
    std::string selection;           // "": all resources
    std::vector<std::string> attrs;  // empty: every attribute of the class
    uint64_t count = 0;              // stop after this many events (0: never)
    int durationS = 0;               // stop after this many seconds (0: never)
    bool classLevel = false;         // the class's own attributes, not its resources'
};

int cmdClasses(CliSession& cli);
int cmdList(CliSession& cli, const ListArgs& args);
int cmdStatus(CliSession& cli);
int cmdDefine(CliSession& cli, const ChangeArgs& args);
int cmdSet(CliSession& cli, const ChangeArgs& args);
int cmdUndefine(CliSession& cli, const ChangeArgs& args);
int cmdAction(CliSession& cli, const ActionArgs& args);
int cmdWatch(CliSession& cli, const WatchArgs& args);
// The service's node and node-group tables.
int cmdTablesNodes(CliSession& cli);
int cmdTablesGroups(CliSession& cli);
int cmdTablesWatch(CliSession& cli, uint64_t count, int durationS);

// errIsTerminal: standard error is a terminal, where long commands show
// their progress.
int runCli(int argc, const char* const* argv, std::ostream& out, std::ostream& err,
           bool errIsTerminal = false);

}  // namespace znpex::cli
