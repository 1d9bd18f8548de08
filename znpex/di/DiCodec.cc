#include "znpex/di/DiCodec.h"

#include <string>

#include "znpex/proto/ProtocolError.h"

namespace znpex::di {

using proto::Json;
using proto::ProtocolError;

namespace {

Json stringList(const std::vector<std::string>& items) {
    Json out = Json::array();
    for (const auto& s : items) {
        out.push_back(s);
    }
    return out;
}

std::vector<std::string> decodeList(const Json& j, const std::string& where,
                                    size_t max = kMaxListItems) {
    const Json& arr = proto::requireArray(j, where);
    if (arr.size() > max) {
        throw ProtocolError(where + ": more than " + std::to_string(max) + " items");
    }
    std::vector<std::string> out;
    out.reserve(arr.size());
    for (size_t i = 0; i < arr.size(); ++i) {
        out.push_back(proto::asString(arr[i], where + "[" + std::to_string(i) + "]"));
    }
    return out;
}

const Json& boundedArray(const Json& obj, const char* key, const std::string& where) {
    const Json& arr = proto::requireArray(proto::requireField(obj, key, where), where + "." + key);
    if (arr.size() > kMaxRows) {
        throw ProtocolError(where + "." + key + ": more than " + std::to_string(kMaxRows) +
                            " rows");
    }
    return arr;
}

Json encodeNode(const NodeEntry& n) {
    return Json{{"nodeId", proto::decimal(n.nodeId)},
                {"hostname", n.hostname},
                {"names", stringList(n.names)},
                {"addresses", stringList(n.addresses)}};
}

NodeEntry decodeNode(const Json& j, const std::string& w) {
    proto::requireObject(j, w);
    NodeEntry n;
    n.nodeId = proto::asDecimalUInt64(proto::requireField(j, "nodeId", w), w + ".nodeId");
    n.hostname = proto::asString(proto::requireField(j, "hostname", w), w + ".hostname");
    n.names = decodeList(proto::requireField(j, "names", w), w + ".names");
    n.addresses = decodeList(proto::requireField(j, "addresses", w), w + ".addresses");
    return n;
}

Json encodeGroup(const GroupEntry& g) {
    return Json{{"name", g.name}, {"members", stringList(g.members)}};
}

GroupEntry decodeGroup(const Json& j, const std::string& w) {
    proto::requireObject(j, w);
    GroupEntry g;
    g.name = proto::asString(proto::requireField(j, "name", w), w + ".name");
    g.members = decodeList(proto::requireField(j, "members", w), w + ".members", kMaxRows);
    return g;
}

}  // namespace

Json encodeTransaction(const Transaction& t) {
    Json nodes = Json::array();
    for (const auto& n : t.nodes) {
        nodes.push_back(encodeNode(n));
    }
    Json groups = Json::array();
    for (const auto& g : t.groups) {
        groups.push_back(encodeGroup(g));
    }
    return Json{{"op", static_cast<int32_t>(t.op)},
                {"clearNodes", t.clearNodes},
                {"clearGroups", t.clearGroups},
                {"nodes", std::move(nodes)},
                {"groups", std::move(groups)}};
}

Transaction decodeTransaction(const Json& params) {
    const std::string w = "params";
    proto::requireObject(params, w);
    Transaction t;
    int32_t op = proto::asInt32(proto::requireField(params, "op", w), w + ".op");
    if (op != DI_TABLE_ADD && op != DI_TABLE_UPDATE && op != DI_TABLE_REMOVE) {
        throw ProtocolError(w + ".op: " + std::to_string(op) + " is not a table operation");
    }
    t.op = static_cast<di_table_op_t>(op);
    if (const Json* f = proto::findField(params, "clearNodes")) {
        t.clearNodes = proto::asBool(*f, w + ".clearNodes");
    }
    if (const Json* f = proto::findField(params, "clearGroups")) {
        t.clearGroups = proto::asBool(*f, w + ".clearGroups");
    }
    const Json& nodes = boundedArray(params, "nodes", w);
    for (size_t i = 0; i < nodes.size(); ++i) {
        t.nodes.push_back(decodeNode(nodes[i], w + ".nodes[" + std::to_string(i) + "]"));
    }
    const Json& groups = boundedArray(params, "groups", w);
    for (size_t i = 0; i < groups.size(); ++i) {
        t.groups.push_back(decodeGroup(groups[i], w + ".groups[" + std::to_string(i) + "]"));
    }
    if (std::string bad = validate(t); !bad.empty()) {
        throw ProtocolError(w + ": " + bad);
    }
    return t;
}

Json encodeNodes(const std::vector<NodeEntry>& nodes) {
    Json out = Json::array();
    for (const auto& n : nodes) {
        out.push_back(encodeNode(n));
    }
    return out;
}

std::vector<NodeEntry> decodeNodes(const Json& result) {
    const std::string w = "result";
    const Json& arr = proto::requireArray(result, w);
    std::vector<NodeEntry> out;
    for (size_t i = 0; i < arr.size(); ++i) {
        out.push_back(decodeNode(arr[i], w + "[" + std::to_string(i) + "]"));
    }
    return out;
}

Json encodeGroups(const std::vector<GroupEntry>& groups) {
    Json out = Json::array();
    for (const auto& g : groups) {
        out.push_back(encodeGroup(g));
    }
    return out;
}

std::vector<GroupEntry> decodeGroups(const Json& result) {
    const std::string w = "result";
    const Json& arr = proto::requireArray(result, w);
    std::vector<GroupEntry> out;
    for (size_t i = 0; i < arr.size(); ++i) {
        out.push_back(decodeGroup(arr[i], w + "[" + std::to_string(i) + "]"));
    }
    return out;
}

Json encodeHeartbeat(const Heartbeat& h) {
    Json out{{"frequency", h.frequency}, {"sensitivity", h.sensitivity}};
    if (!h.rm.empty()) {
        out["rm"] = h.rm;
    }
    if (!h.server.empty()) {
        out["server"] = h.server;
        out["serverNodeId"] = proto::decimal(h.serverNodeId);
        out["serverAddresses"] = stringList(h.serverAddresses);
    }
    return out;
}

Heartbeat decodeHeartbeat(const Json& params, const std::string& w) {
    proto::requireObject(params, w);
    Heartbeat h;
    h.frequency = proto::asUInt32(proto::requireField(params, "frequency", w), w + ".frequency");
    h.sensitivity =
        proto::asUInt32(proto::requireField(params, "sensitivity", w), w + ".sensitivity");
    auto text = [&](const char* key, std::string* out) {
        if (const Json* f = proto::findField(params, key)) {
            *out = proto::asString(*f, w + "." + key);
            if (out->size() > kMaxText) {
                throw ProtocolError(w + "." + key + ": longer than " + std::to_string(kMaxText) +
                                    " characters");
            }
        }
    };
    text("rm", &h.rm);
    text("server", &h.server);
    if (const Json* f = proto::findField(params, "serverNodeId")) {
        h.serverNodeId = proto::asDecimalUInt64(*f, w + ".serverNodeId");
    }
    if (const Json* f = proto::findField(params, "serverAddresses")) {
        h.serverAddresses = decodeList(*f, w + ".serverAddresses");
        for (size_t i = 0; i < h.serverAddresses.size(); ++i) {
            if (h.serverAddresses[i].size() > kMaxText) {
                throw ProtocolError(w + ".serverAddresses[" + std::to_string(i) +
                                    "]: longer than " + std::to_string(kMaxText) + " characters");
            }
        }
    }
    return h;
}

}  // namespace znpex::di
