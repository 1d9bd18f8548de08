#include "znpex/cli/BulkDefine.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/clock.h"
#include "znpex/cli/BulkLoad.h"
#include "znpex/cli/BulkSender.h"
#include "znpex/cli/Interrupt.h"

namespace znpex::cli {

const char* const kBulkFileHelp =
    "FILE is CSV or JSON lines, told apart by its first non-blank character ('{': JSON\n"
    "lines). CSV: a header row of attribute names, then one row per resource:\n"
    "  Hostname,UniversalId,ConnectivityIPAddrs\n"
    "  n1,5,\"10.0.0.1,10.0.0.2\"\n"
    "A field holding commas, quotes or line breaks is quoted, quotes inside doubled;\n"
    "an empty field gives no value; values read as on the command line, so an array\n"
    "is its elements separated by commas, in one quoted field. JSON lines: one object\n"
    "per line, null gives no value:\n"
    "  {\"Hostname\": \"n1\", \"UniversalId\": 5, \"ConnectivityIPAddrs\": [\"10.0.0.1\"]}\n"
    "A file with any fault (syntax, unknown attribute, a value of the wrong type)\n"
    "defines nothing. Exit status: 0 when every row was defined, 1 otherwise.";

namespace {

using proto::Json;

double secondsSince(zn::Clock::Duration start) {
    return std::chrono::duration<double>(zn::processClock().monoNow() - start).count();
}

std::string fixed(double v, int decimals) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

// The file could not be used: nothing was sent.
int refuseFile(CliSession& cli, const BulkDefineArgs& args, const std::vector<std::string>& lines,
               size_t more) {
    for (const auto& l : lines) {
        cli.err() << cli.program() << ": " << args.file << ": " << l << '\n';
    }
    if (more > 0) {
        cli.err() << cli.program() << ": " << args.file << ": and " << more << " more problem"
                  << (more > 1 ? "s" : "") << '\n';
    }
    cli.err() << cli.program() << ": " << args.file << ": nothing was defined\n";
    if (cli.opts().json()) {
        cli.out() << Json{{"file", args.file},
                          {"rows", 0},
                          {"defined", 0},
                          {"refused", 0},
                          {"problems", lines}}
                         .dump(2)
                  << '\n';
    }
    return kExitFailed;
}

std::vector<px_session_t> openSessions(CliSession& cli, size_t count) {
    std::vector<px_session_t> out;
    if (count == 0) {
        return out;
    }
    px_session_t first = cli.session();
    if (first == nullptr) {
        return out;
    }
    out.push_back(first);
    while (out.size() < count) {
        px_session_t s = cli.openSession();
        if (s == nullptr) {
            break;
        }
        out.push_back(s);
    }
    return out;
}

}  // namespace

int cmdDefineFile(CliSession& cli, const BulkDefineArgs& args) {
    tarn_rmf2v::RMClassDef def;
    if (!cli.classDef(args.className, def)) {
        return kExitFailed;
    }
    auto start = zn::processClock().monoNow();
    std::error_code ec;
    if (std::filesystem::is_directory(args.file, ec)) {
        return refuseFile(cli, args, {"is a directory"}, 0);
    }
    std::ifstream in(args.file, std::ios::binary);
    if (!in) {
        return refuseFile(cli, args, {std::string("cannot be read: ") + std::strerror(errno)}, 0);
    }
    BulkLoad load = loadBulkFile(in, def.name, def.persistent);
    if (!load.ok()) {
        return refuseFile(cli, args, load.problems, load.problemCount - load.problems.size());
    }
    const std::vector<BulkEntry>& rows = load.rows;
    size_t jobs = std::min(rows.size(), static_cast<size_t>(std::max(args.jobs, 1)));
    std::vector<px_session_t> sessions = openSessions(cli, jobs);
    if (sessions.size() < jobs) {
        int rc = sessions.empty() ? kExitFailed : cli.failCall();
        for (size_t i = 1; i < sessions.size(); ++i) {
            px_end_session(sessions[i]);
        }
        return rc;
    }

    BulkCounts counts;
    InterruptScope interrupt;
    auto tick = [&] {
        if (args.progress) {
            cli.err() << '\r' << cli.program() << ": " << counts.done.load() << '/' << rows.size()
                      << " rows, " << counts.refused.load() << " refused" << std::flush;
        }
    };
    std::vector<BulkOutcome> outcomes = sendBulk(
        sessions, def.name, rows, counts, [&] { return interrupt.interrupted(); }, tick);
    for (size_t i = 1; i < sessions.size(); ++i) {
        px_end_session(sessions[i]);
    }
    if (args.progress) {
        cli.err() << "\r\033[K" << std::flush;
    }
    double seconds = secondsSince(start);

    size_t defined = 0, refused = 0, notSent = 0;
    Json errors = Json::array();
    for (size_t i = 0; i < rows.size(); ++i) {
        const BulkOutcome& o = outcomes[i];
        if (!o.sent) {
            ++notSent;
        } else if (!o.error) {
            ++defined;
        } else {
            ++refused;
            cli.printError(o.error.get(),
                           "line " + std::to_string(rows[i].line) + ": " + rows[i].label);
            errors.push_back({{"line", rows[i].line},
                              {"name", rows[i].label},
                              {"error", CliSession::errorJson(o.error.get())}});
        }
    }
    double rate = seconds > 0 ? static_cast<double>(defined + refused) / seconds : 0;
    if (cli.opts().json()) {
        cli.out() << Json{{"file", args.file},          {"rows", rows.size()},
                          {"defined", defined},         {"refused", refused},
                          {"notSent", notSent},         {"jobs", sessions.size()},
                          {"seconds", seconds},         {"rowsPerSecond", rate},
                          {"errors", std::move(errors)}}
                         .dump(2)
                  << '\n';
    } else {
        cli.out() << args.file << ": " << rows.size() << " rows, " << defined << " defined, "
                  << refused << " refused" << (notSent > 0 ? ", " : "")
                  << (notSent > 0 ? std::to_string(notSent) + " not sent" : "") << ", "
                  << fixed(seconds, 2) << " s, " << fixed(rate, 0) << " rows/s\n";
    }
    return refused == 0 && notSent == 0 ? kExitOk : kExitFailed;
}

}  // namespace znpex::cli
