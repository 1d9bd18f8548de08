// "znpex tables nodes|groups|watch": the service's node and node-group tables,
// read-only. watch prints one line per change (one JSON object per line with
// -o json) until SIGINT/SIGTERM, --count changes or --duration seconds.
#include <chrono>
#include <cstdio>

#include "platform/clock.h"
#include "znpex/cli/Commands.h"
#include "znpex/cli/Interrupt.h"
#include "znpex/cli/Table.h"
#include "znpex/client/Connection.h"
#include "znpex/client/Session.h"
#include "znpex/di/DiCodec.h"
#include "znpex/proto/ProtocolError.h"

namespace znpex::cli {
namespace {

using proto::Json;

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& s : items) {
        out += out.empty() ? s : "," + s;
    }
    return out;
}

// Asks for one table; prints the raw answer with -o json.
int fetch(CliSession& cli, const char* method, Json& result) {
    px_session_t s = cli.session();
    if (s == nullptr) {
        return kExitFailed;
    }
    if (client::call(*s, method, Json::object(), result) != PX_OK) {
        return cli.failCall();
    }
    if (cli.opts().json()) {
        cli.out() << result.dump(2) << '\n';
    }
    return kExitOk;
}

int badAnswer(CliSession& cli, const std::exception& e) {
    cli.err() << "znpex: the service's answer is not a table: " << e.what() << '\n';
    return kExitFailed;
}

}  // namespace

int cmdTablesNodes(CliSession& cli) {
    Json result;
    if (int rc = fetch(cli, di::kDiNodes, result); rc != kExitOk || cli.opts().json()) {
        return rc;
    }
    try {
        Table t({"HOSTNAME", "NODE_ID", "NAMES", "ADDRESSES"});
        for (const di::NodeEntry& n : di::decodeNodes(result)) {
            char id[24];
            std::snprintf(id, sizeof id, "0x%016llx", static_cast<unsigned long long>(n.nodeId));
            t.add({n.hostname, id, joined(n.names), joined(n.addresses)});
        }
        t.print(cli.out());
    } catch (const proto::ProtocolError& e) {
        return badAnswer(cli, e);
    }
    return kExitOk;
}

int cmdTablesGroups(CliSession& cli) {
    Json result;
    if (int rc = fetch(cli, di::kDiGroups, result); rc != kExitOk || cli.opts().json()) {
        return rc;
    }
    try {
        Table t({"GROUP", "COUNT", "MEMBERS"});
        for (const di::GroupEntry& g : di::decodeGroups(result)) {
            t.add({g.name, std::to_string(g.members.size()), joined(g.members)});
        }
        t.print(cli.out());
    } catch (const proto::ProtocolError& e) {
        return badAnswer(cli, e);
    }
    return kExitOk;
}

int cmdTablesWatch(CliSession& cli, uint64_t count, int durationS) {
    px_session_t s = cli.session();
    if (s == nullptr) {
        return kExitFailed;
    }
    uint64_t seen = 0;
    s->conn->setNotificationSink([&](proto::RpcMessage&& m) {
        if (m.method != di::kDiChanged || !m.params.is_object()) {
            return;
        }
        ++seen;
        if (cli.opts().json()) {
            cli.out() << m.params.dump() << std::endl;
            return;
        }
        auto flag = [&](const char* key) {
            return m.params.contains(key) && m.params[key].is_boolean() &&
                   m.params[key].get<bool>();
        };
        cli.out() << "version " << m.params.value("version", Json(0)).dump() << ":"
                  << (flag("nodes") ? " nodes" : "") << (flag("groups") ? " groups" : "")
                  << " changed" << std::endl;
    });
    Json result;
    if (client::call(*s, di::kDiWatch, Json::object(), result) != PX_OK) {
        return cli.failCall();
    }
    InterruptScope interrupt;
    zn::Clock& clock = zn::processClock();
    const zn::Clock::Duration deadline = clock.monoNow() + std::chrono::seconds(durationS);
    int status = kExitOk;
    while (!interrupt.interrupted() && (count == 0 || seen < count) &&
           (durationS == 0 || clock.monoNow() < deadline)) {
        std::string why;
        std::lock_guard<std::mutex> g(s->ioMu);
        if (s->conn->pump(200, &why) == client::Connection::Status::Failed) {
            cli.err() << "znpex: the connection to the service was lost: " << why << '\n';
            status = kExitFailed;
            break;
        }
    }
    s->conn->setNotificationSink(nullptr);
    return status;
}

}  // namespace znpex::cli
