// Table replication between the hosts of the domain. Every change applied
// here is stamped (milliseconds, kept increasing per host) together with the
// stamp it was made on ("base"), and travels to the other hosts as that
// change: a host takes it only when its own tables carry the base stamp, so
// that it applies changes in the order they were made, and answers "behind"
// otherwise. A host that is behind, or whose link comes up (again), gets the
// whole tables with their stamp instead, taken when newer than what it has;
// a whole copy too large for one frame goes in parts, applied together once
// the last has come. Hosts whose link is down are skipped: they catch up
// when it comes up. The stamp is stored with the tables, so a restarted host
// neither takes an older copy over the newer tables it kept nor is ignored
// when it sends them.
#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>

#include "platform/clock.h"
#include "znpex/di/DiCodec.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/server/Router.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;
using proto::RpcMessage;

namespace {

// The "code" of a peer's "di.replicate" answer (-1 when it has none), and
// whether it says the host is behind.
int replicateCode(const PeerReply& r, bool* behind) {
    *behind = false;
    if (r.outcome != PeerLink::Outcome::Answered) {
        return -1;
    }
    const Json* result = proto::findField(r.response, "result");
    if (result == nullptr || !result->is_object() || !result->contains("code") ||
        !(*result)["code"].is_number_integer()) {
        return -1;
    }
    *behind = result->value("behind", false);
    return (*result)["code"].get<int>();
}

}  // namespace

uint64_t Router::wallMillis() {
    timespec t = zn::processClock().wallNow();
    return static_cast<uint64_t>(static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1'000'000);
}

uint64_t Router::latestStamp() const {
    return wallMillis() + static_cast<uint64_t>(options_.maxStampSkew.count());
}

void Router::storeStamp(uint64_t stamp) {
    std::string why;
    if (di_.setStamp(stamp, &why) != DI_OK) {
        // The tables are right; only a restart before the next change could
        // take an older copy for newer.
        serviceLog("table stamp not stored: %s", why.c_str());
    }
}

std::vector<Json> Router::wholeCopy(uint64_t stamp, const di::Transaction& snapshot,
                                    const di::Heartbeat& h) const {
    Json first{{"stamp", proto::decimal(stamp)}, {"tables", di::encodeTransaction(snapshot)}};
    if (h.frequency != 0) {
        first["heartbeat"] = di::encodeHeartbeat(h);
    }
    const Json& tables = first["tables"];
    size_t size = proto::dumpJson(first).size();
    if (size <= options_.replicationChunk) {
        return {std::move(first)};
    }
    // In parts of rows, each under the chunk size (a row larger than that
    // alone); the first clears the tables, the last carries the heartbeat.
    std::vector<Json> parts;
    Json nodes = Json::array();
    Json groups = Json::array();
    size_t used = 0;
    auto close = [&] {
        Json t{{"op", static_cast<int32_t>(DI_TABLE_ADD)},
               {"clearNodes", parts.empty()},
               {"clearGroups", parts.empty()},
               {"nodes", std::move(nodes)},
               {"groups", std::move(groups)}};
        parts.push_back(Json{{"stamp", proto::decimal(stamp)}, {"tables", std::move(t)}});
        nodes = Json::array();
        groups = Json::array();
        used = 0;
    };
    for (const char* table : {"nodes", "groups"}) {
        for (const Json& row : tables[table]) {
            size_t n = proto::dumpJson(row).size() + 1;
            if (used > 0 && used + n > options_.replicationChunk) {
                close();
            }
            (std::string(table) == "nodes" ? nodes : groups).push_back(row);
            used += n;
        }
    }
    close();
    for (size_t i = 0; i < parts.size(); ++i) {
        parts[i]["part"] = Json{{"index", i}, {"count", parts.size()}};
    }
    if (h.frequency != 0) {
        parts.back()["heartbeat"] = di::encodeHeartbeat(h);
    }
    return parts;
}

void Router::sendTables(const std::string& host, std::function<void(bool taken)> done) {
    uint64_t stamp = 0;
    di::Transaction snapshot;
    {
        std::lock_guard<std::mutex> g(diStampMu_);
        stamp = diStamp_;
        if (stamp != 0) {
            snapshot = di_.snapshot();
        }
    }
    if (stamp == 0) {
        // Nothing newer than what a restarted host has itself.
        if (done) {
            done(true);
        }
        return;
    }
    std::vector<Json> parts = wholeCopy(stamp, snapshot, heartbeat());
    copiesSent_.fetch_add(1);
    partsSent_.fetch_add(parts.size());
    // Taken when every part was answered DI_OK.
    struct Gather {
        std::atomic<size_t> left;
        std::atomic<bool> ok{true};
        std::function<void(bool)> done;
    };
    auto gather = std::make_shared<Gather>();
    gather->left = parts.size();
    gather->done = std::move(done);
    for (Json& p : parts) {
        bytesReplicated_.fetch_add(proto::dumpJson(p).size());
        // Parts to one host keep their order on its link.
        peers_->send(host, kDiReplicate, std::move(p), options_.peerTimeout,
                     [gather, host](PeerLink::Outcome o, Json response) {
                         bool behind = false;
                         PeerReply r{host, o, std::move(response)};
                         if (replicateCode(r, &behind) != DI_OK) {
                             gather->ok = false;
                         }
                         if (gather->left.fetch_sub(1) == 1 && gather->done) {
                             gather->done(gather->ok.load());
                         }
                     });
    }
}

void Router::replicateChange(const di::Transaction& t,
                             std::function<void(int code, const std::string& why)> done) {
    if (peers_ == nullptr) {
        std::string why;
        int rc = applyDi(t, &why);
        done(rc, why);
        return;
    }
    std::unique_lock<std::mutex> g(diStampMu_);
    // Stamps stay within the allowed skew of this clock (see diReplicate),
    // so the + 1 cannot wrap.
    uint64_t base = diStamp_;
    uint64_t stamp = std::max(wallMillis(), base + 1);
    std::string why;
    int rc = applyDi(t, &why, stamp);
    if (rc != DI_OK) {
        g.unlock();
        done(rc, why);
        return;
    }
    diStamp_ = stamp;
    Json params{{"stamp", proto::decimal(stamp)},
                {"base", proto::decimal(base)},
                {"change", di::encodeTransaction(t)}};
    if (di::Heartbeat h = heartbeat(); h.frequency != 0) {
        params["heartbeat"] = di::encodeHeartbeat(h);
    }
    size_t bytes = proto::dumpJson(params).size();
    std::vector<std::string> hosts = peers_->reachableHosts();
    size_t skipped = peers_->hostCount() - hosts.size();
    if (bytes > options_.replicationChunk) {
        // Too large to go as a change: each host takes the whole tables.
        g.unlock();
        copyTo(hosts, skipped == 0, std::move(done));
        return;
    }
    changesSent_.fetch_add(1);
    bytesReplicated_.fetch_add(bytes * hosts.size());
    // Sent while the stamp is held: changes leave in the order of their stamps.
    peers_->fanOut(hosts, kDiReplicate, params, options_.peerTimeout,
                   [this, skipped, done = std::move(done)](std::vector<PeerReply> replies) mutable {
                       bool all = skipped == 0;
                       std::vector<std::string> behind;
                       for (const PeerReply& r : replies) {
                           bool isBehind = false;
                           int code = replicateCode(r, &isBehind);
                           if (isBehind) {
                               behind.push_back(r.host);
                           } else {
                               all = all && code == DI_OK;
                           }
                       }
                       if (behind.empty()) {
                           (all ? replicated_ : replicationsPartial_).fetch_add(1);
                           done(all ? DI_OK : DI_EPARTIAL, "");
                           return;
                       }
                       // The hosts that were behind take the whole tables instead; the
                       // change is theirs once they took them. Not on this thread: the
                       // send may have ended while the stamp was held.
                       behindAnswers_.fetch_add(behind.size());
                       asio::post(executor_, [this, all, behind = std::move(behind),
                                              done = std::move(done)]() mutable {
                           copyTo(behind, all, std::move(done));
                       });
                   });
}

void Router::copyTo(const std::vector<std::string>& hosts, bool allSoFar,
                    std::function<void(int code, const std::string& why)> done) {
    if (hosts.empty()) {
        (allSoFar ? replicated_ : replicationsPartial_).fetch_add(1);
        done(allSoFar ? DI_OK : DI_EPARTIAL, "");
        return;
    }
    struct Gather {
        std::atomic<size_t> left;
        std::atomic<bool> all;
        std::function<void(int, const std::string&)> done;
    };
    auto gather = std::make_shared<Gather>();
    gather->left = hosts.size();
    gather->all = allSoFar;
    gather->done = std::move(done);
    for (const std::string& host : hosts) {
        sendTables(host, [this, gather](bool taken) {
            if (!taken) {
                gather->all = false;
            }
            if (gather->left.fetch_sub(1) == 1) {
                bool all = gather->all.load();
                (all ? replicated_ : replicationsPartial_).fetch_add(1);
                gather->done(all ? DI_OK : DI_EPARTIAL, "");
            }
        });
    }
}

void Router::peerUp(const std::string& host) {
    sendTables(host);
}

bool Router::stampAcceptable(const std::shared_ptr<Connection>& c, const RpcMessage& m,
                             uint64_t stamp) {
    if (uint64_t limit = latestStamp(); stamp > limit) {
        // No clock of the domain could have made it: taking it would make
        // every later, real change look older, here and on every host this
        // one answers with its tables.
        std::string host = peerHostOf(*c);
        if (refusedStamps_.fetch_add(1) % 100 == 0) {
            serviceLog(
                "tables from %s refused: stamp %llu is more than %lld ms ahead of this "
                "host's clock",
                host.c_str(), static_cast<unsigned long long>(stamp),
                static_cast<long long>(options_.maxStampSkew.count()));
        }
        replyResult(c, m.id,
                    Json{{"code", DI_EINVAL},
                         {"reason", "stamp " + std::to_string(stamp) +
                                        " is ahead of the receiving host's clock by more than " +
                                        std::to_string(options_.maxStampSkew.count()) + " ms"}});
        return false;
    }
    return true;
}

void Router::takeReplicatedHeartbeat(const std::shared_ptr<Connection>& c,
                                     std::optional<di::Heartbeat> beat) {
    if (!beat || beat->frequency == 0 || beat->sensitivity == 0) {
        return;
    }
    // A server listening on every address is reached where its copy came from.
    if (!beat->server.empty() && beat->serverAddresses.empty()) {
        std::lock_guard<std::mutex> pg(peerMu_);
        auto it = tcpAddresses_.find(c->id());
        if (it != tcpAddresses_.end()) {
            beat->serverAddresses.push_back(it->second);
        }
    }
    bool changed = false;
    std::string why;
    if (takeHeartbeat(*beat, &changed, &why) != DI_OK) {
        serviceLog("heartbeat from %s not stored: %s", peerHostOf(*c).c_str(), why.c_str());
    }
}

void Router::diReplicate(const std::shared_ptr<Connection>& c, const RpcMessage& m) {
    const std::string w = "params";
    proto::requireObject(m.params, w);
    uint64_t stamp =
        proto::asDecimalUInt64(proto::requireField(m.params, "stamp", w), w + ".stamp");
    std::optional<di::Heartbeat> beat;
    if (const Json* f = proto::findField(m.params, "heartbeat")) {
        beat = di::decodeHeartbeat(*f, w + ".heartbeat");
    }
    if (const Json* change = proto::findField(m.params, "change")) {
        uint64_t base =
            proto::asDecimalUInt64(proto::requireField(m.params, "base", w), w + ".base");
        takeReplicated(c, m, stamp, base, di::decodeTransaction(*change), std::move(beat));
        return;
    }
    di::Transaction t = di::decodeTransaction(proto::requireField(m.params, "tables", w));
    if (t.op == DI_TABLE_REMOVE) {
        throw proto::ProtocolError(w + ".tables: expected whole tables (rows added)");
    }
    if (const Json* part = proto::findField(m.params, "part")) {
        proto::requireObject(*part, w + ".part");
        uint32_t index =
            proto::asUInt32(proto::requireField(*part, "index", w + ".part"), w + ".part.index");
        uint32_t count =
            proto::asUInt32(proto::requireField(*part, "count", w + ".part"), w + ".part.count");
        if (count == 0 || count > kMaxCopyParts || index >= count) {
            throw proto::ProtocolError(w + ".part: index " + std::to_string(index) + " of " +
                                       std::to_string(count) + " parts");
        }
        std::optional<di::Transaction> whole = addPart(c, stamp, index, count, std::move(t), w);
        if (!whole) {
            replyResult(c, m.id, Json{{"code", DI_OK}, {"applied", false}, {"part", index}});
            return;
        }
        t = std::move(*whole);
    }
    if (!t.clearNodes || !t.clearGroups) {
        throw proto::ProtocolError(
            w + ".tables: expected whole tables (both cleared first, rows added)");
    }
    takeReplicated(c, m, stamp, std::nullopt, t, std::move(beat));
}

std::optional<di::Transaction> Router::addPart(const std::shared_ptr<Connection>& c, uint64_t stamp,
                                               uint32_t index, uint32_t count, di::Transaction t,
                                               const std::string& w) {
    std::lock_guard<std::mutex> g(partsMu_);
    CopyParts& a = copies_[c->id()];
    if (a.stamp == stamp && a.count == count && index < a.next) {
        // The same copy sent twice at once (a link coming up while a change
        // found this host behind): the tables of one stamp are the same
        // tables, so a part already taken is taken.
        return std::nullopt;
    }
    if (index == 0) {
        a = CopyParts{};
        a.stamp = stamp;
        a.count = count;
        a.whole.op = DI_TABLE_ADD;
        a.whole.clearNodes = t.clearNodes;
        a.whole.clearGroups = t.clearGroups;
    } else if (a.stamp != stamp || a.count != count || a.next != index) {
        // A part out of its place starts nothing: the sender sends the
        // whole copy again when this host is found behind.
        copies_.erase(c->id());
        throw proto::ProtocolError(w + ".part: part " + std::to_string(index) +
                                   " of a copy whose earlier parts did not come");
    }
    if (a.whole.nodes.size() + t.nodes.size() > di::kMaxRows ||
        a.whole.groups.size() + t.groups.size() > di::kMaxRows) {
        copies_.erase(c->id());
        throw proto::ProtocolError(w + ".part: the copy holds more than " +
                                   std::to_string(di::kMaxRows) + " rows of a table");
    }
    std::move(t.nodes.begin(), t.nodes.end(), std::back_inserter(a.whole.nodes));
    std::move(t.groups.begin(), t.groups.end(), std::back_inserter(a.whole.groups));
    a.next = index + 1;
    if (a.next < a.count) {
        return std::nullopt;
    }
    // Kept without its rows, so late duplicates of its parts are known.
    di::Transaction whole = std::move(a.whole);
    a.whole = di::Transaction{};
    return whole;
}

void Router::notTaken(const std::shared_ptr<Connection>& c, const RpcMessage& m, bool oursNewer,
                      std::unique_lock<std::mutex>& stampLock) {
    // What we have is as new: nothing to take. When it is newer, the
    // sender missed changes: it gets ours back.
    stampLock.unlock();
    replyResult(c, m.id, Json{{"code", DI_OK}, {"applied", false}, {"version", di_.version()}});
    if (std::string host = peerHostOf(*c); oursNewer && !host.empty()) {
        sendTables(host);
    }
}

void Router::takeReplicated(const std::shared_ptr<Connection>& c, const RpcMessage& m,
                            uint64_t stamp, std::optional<uint64_t> base, const di::Transaction& t,
                            std::optional<di::Heartbeat> beat) {
    if (!stampAcceptable(c, m, stamp)) {
        return;
    }
    std::unique_lock<std::mutex> g(diStampMu_);
    if (stamp <= diStamp_) {
        notTaken(c, m, stamp < diStamp_, g);
        return;
    }
    if (base && *base != diStamp_) {
        // Changes made on tables this host does not have: the whole tables
        // come instead.
        g.unlock();
        replyResult(
            c, m.id,
            Json{
                {"code", DI_OK}, {"applied", false}, {"behind", true}, {"version", di_.version()}});
        return;
    }
    std::string why;
    int rc = applyDi(t, &why, stamp);
    if (rc != DI_OK) {
        serviceLog("%s from %s not applied: %s", base ? "change" : "tables", peerHostOf(*c).c_str(),
                   why.c_str());
        replyResult(c, m.id, Json{{"code", rc}, {"reason", why}});
        return;
    }
    diStamp_ = stamp;
    (base ? changesApplied_ : copiesApplied_).fetch_add(1);
    takeReplicatedHeartbeat(c, std::move(beat));
    replyResult(c, m.id, Json{{"code", DI_OK}, {"applied", true}, {"version", di_.version()}});
}

}  // namespace znpex::server
