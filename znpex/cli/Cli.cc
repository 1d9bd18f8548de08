// The command line: options and subcommands (CLI11), then the command.
#include <CLI/CLI.hpp>

#include "znpex/cli/BulkDefine.h"
#include "znpex/cli/Commands.h"

namespace znpex::cli {
namespace {

void addTarget(CLI::App* sub, Target& t, const char* selectionFlags) {
    sub->add_option(selectionFlags, t.selection,
                    "Selection string choosing the resources (\"\" for all)")
        ->each([&t](const std::string&) { t.hasSelection = true; });
    sub->add_option("--handle", t.handles, "Resource handle (40 hex digits); may repeat")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

// The global options. They are added to the program and again to every
// command and subcommand, all filling the same GlobalOptions, so they may be
// typed before or after the command words and each command's --help lists
// them. Given twice, the later one wins (CLI11 stores a command's options
// after its parent's).
void addGlobalOptions(CLI::App* app, GlobalOptions& g, const std::string& group) {
    app->add_option("--host", g.host,
                    "Service to talk to: host[:port] over TCP; default this host's local socket")
        ->group(group);
    app->add_option("--as-host", g.asHost,
                    "Over TCP, the host name to prove with this host's key (readable by root "
                    "only; the session is then root@NAME); default the system's host name")
        ->group(group);
    app->add_option("-o,--output", g.output, "Output format")
        ->check(CLI::IsMember({"table", "json"}))
        ->capture_default_str()
        ->group(group);
    app->add_option("--timeout", g.timeoutMs, "Milliseconds to wait for each answer")
        ->check(CLI::PositiveNumber)
        ->group(group);
    app->add_option("--connect-timeout", g.connectTimeoutMs,
                    "Milliseconds to wait for the connection")
        ->check(CLI::PositiveNumber)
        ->group(group);
}

void addGlobalOptionsBelow(CLI::App* app, GlobalOptions& g) {
    for (CLI::App* sub : app->get_subcommands(nullptr)) {
        addGlobalOptions(sub, g, "Global options");
        addGlobalOptionsBelow(sub, g);
    }
}

}  // namespace

int runCli(int argc, const char* const* argv, std::ostream& out, std::ostream& err,
           bool errIsTerminal) {
    CLI::App app{"znpex: talk to the monitoring service (classes, resources, actions)", "znpex"};
    GlobalOptions g;
    addGlobalOptions(&app, g, "Options");
    app.require_subcommand(1, 1);

    auto* classes = app.add_subcommand("classes", "List the classes with attributes and actions");

    ListArgs list;
    auto* listCmd = app.add_subcommand("list", "List the resources of a class");
    listCmd->add_option("class", list.className, "Resource class")->required();
    listCmd->add_option("-s,--selection", list.selection, "Selection string");
    listCmd
        ->add_option("-a,--attributes", list.attrs,
                     "Attributes to show, comma-separated (persistent or dynamic)")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    listCmd->add_flag("--dynamic", list.dynamic, "Without -a: show the dynamic attributes too");

    ChangeArgs define;
    BulkDefineArgs bulk;
    bulk.progress = errIsTerminal;
    auto* defineCmd =
        app.add_subcommand("define", "Define a resource, or one per row of a file (--file)");
    defineCmd->add_option("class", define.className, "Resource class")->required();
    defineCmd->add_option("assignments", define.assignments, "attr=value, typed by the class");
    defineCmd->add_option("--option", define.options, "Define option TYPE:VALUE; may repeat")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    auto* fileOpt = defineCmd
                        ->add_option("--file", bulk.file,
                                     "Define one resource per row of FILE (CSV or JSON lines); "
                                     "refused rows are reported "
                                     "with their line, the others stay defined")
                        ->type_name("FILE");
    defineCmd
        ->add_option("--jobs", bulk.jobs,
                     "With --file: requests in flight at once (1: one at a time)")
        ->check(CLI::Range(1, kMaxBulkJobs))
        ->capture_default_str()
        ->needs(fileOpt);
    defineCmd->footer(kBulkFileHelp);

    ChangeArgs set;
    auto* setCmd = app.add_subcommand("set", "Change attributes of resources or of the class");
    setCmd->add_option("class", set.className, "Resource class")->required();
    setCmd->add_option("assignments", set.assignments, "attr=value, typed by the class")
        ->required();
    addTarget(setCmd, set.target, "-s,--selection");
    setCmd->add_flag("--class", set.target.classLevel, "Change the class's own attributes");

    ChangeArgs undefine;
    auto* undefineCmd = app.add_subcommand("undefine", "Undefine resources");
    undefineCmd->add_option("class", undefine.className, "Resource class")->required();
    addTarget(undefineCmd, undefine.target, "-s,--selection");
    undefineCmd->add_option("--option", undefine.options, "Undefine option TYPE:VALUE; may repeat")
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);

    ActionArgs action;
    auto* actionCmd = app.add_subcommand(
        "action", "Run a class action, or a resource action with --resource-selection/--handle");
    actionCmd->add_option("class", action.className, "Resource class")->required();
    actionCmd->add_option("action", action.action, "Action name")->required();
    actionCmd->add_option("args", action.args,
                          "Input: TYPE:VALUE (int32:5 str:abc uint64:7 strs:a,b ...), or plain "
                          "values typed by the action's declared input");
    addTarget(actionCmd, action.target, "-s,--resource-selection");

    auto* status = app.add_subcommand("status", "Show the service's status");

    WatchArgs watch;
    auto* watchCmd = app.add_subcommand(
        "watch", "Print events of a class until interrupted, --count events or --duration");
    watchCmd->add_option("class", watch.className, "Resource class")->required();
    watchCmd->add_option("-e,--expression", watch.expression, "Event expression")->required();
    watchCmd->add_option("-r,--rearm", watch.rearm, "Re-arm expression");
    watchCmd->add_option("-s,--selection", watch.selection, "Selection string");
    watchCmd->add_option("-a,--attributes", watch.attrs, "Attributes to send, comma-separated")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    watchCmd->add_flag("--class", watch.classLevel,
                       "Watch the class's own attributes instead of its resources'");
    watchCmd->add_option("--count", watch.count, "Stop after this many events")
        ->check(CLI::PositiveNumber);
    watchCmd->add_option("--duration", watch.durationS, "Stop after this many seconds")
        ->check(CLI::PositiveNumber);

    auto* tables = app.add_subcommand(
        "tables", "Show the service's node and node-group tables, or watch them change");
    tables->require_subcommand(1, 1);
    auto* tablesNodes = tables->add_subcommand("nodes", "The node table");
    auto* tablesGroups = tables->add_subcommand("groups", "The node-group table");
    uint64_t tablesCount = 0;
    int tablesDuration = 0;
    auto* tablesWatch = tables->add_subcommand(
        "watch", "Print each change of the tables until interrupted, --count or --duration");
    tablesWatch->add_option("--count", tablesCount, "Stop after this many changes")
        ->check(CLI::PositiveNumber);
    tablesWatch->add_option("--duration", tablesDuration, "Stop after this many seconds")
        ->check(CLI::PositiveNumber);

    addGlobalOptionsBelow(&app, g);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e, out, err);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    CliSession cli(g, out, err);
    if (classes->parsed()) {
        return cmdClasses(cli);
    }
    if (listCmd->parsed()) {
        return cmdList(cli, list);
    }
    if (defineCmd->parsed() && !bulk.file.empty()) {
        if (!define.assignments.empty() || !define.options.empty()) {
            return cli.usage("give the attributes either as attr=value or in --file, not both");
        }
        bulk.className = define.className;
        return cmdDefineFile(cli, bulk);
    }
    if (defineCmd->parsed()) {
        return cmdDefine(cli, define);
    }
    if (setCmd->parsed()) {
        return cmdSet(cli, set);
    }
    if (undefineCmd->parsed()) {
        return cmdUndefine(cli, undefine);
    }
    if (actionCmd->parsed()) {
        return cmdAction(cli, action);
    }
    if (status->parsed()) {
        return cmdStatus(cli);
    }
    if (watchCmd->parsed()) {
        return cmdWatch(cli, watch);
    }
    if (tablesNodes->parsed()) {
        return cmdTablesNodes(cli);
    }
    if (tablesGroups->parsed()) {
        return cmdTablesGroups(cli);
    }
    if (tablesWatch->parsed()) {
        return cmdTablesWatch(cli, tablesCount, tablesDuration);
    }
    return kExitUsage;
}

}  // namespace znpex::cli
