// This service's view of its management domain: the other hosts (the node
// table's entries that are not this host) and one peer link to each, made
// when first needed and kept while the host stays in the table. Also sends
// one request to several hosts at once and reports when every one of them
// has ended. Thread-safe; callbacks run without the directory's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "znpex/proto/Json.h"
#include "znpex/server/PeerLink.h"

namespace znpex::server {

// One host of the domain as the node table lists it.
struct PeerHost {
    std::string host;
    uint64_t nodeId = 0;
    std::vector<std::string> addresses;
};

// How one host's part of a fan-out ended.
struct PeerReply {
    std::string host;
    PeerLink::Outcome outcome = PeerLink::Outcome::Lost;
    proto::Json response;  // the whole response message when answered
};

class PeerDirectory {
public:
    struct Self {
        std::string host;           // this host's name, sent in "peer.hello"
        uint64_t nodeId = 0;        // this host's node id
        std::string listenAddress;  // the service's own TCP listen address
    };

    PeerDirectory(asio::any_io_executor executor, Self self, PeerLinkOptions options,
                  PeerLink::OnUp onUp);
    ~PeerDirectory();
    PeerDirectory(const PeerDirectory&) = delete;
    PeerDirectory& operator=(const PeerDirectory&) = delete;

    // Replaces the domain (call whenever the node table changes). Entries
    // that are this host are left out; links to hosts no longer listed end.
    void setHosts(const std::vector<PeerHost>& all);
    // True when `h` stands for this host: its node id is ours, or one of its
    // addresses is the one we listen on.
    bool isSelf(const PeerHost& h) const;
    // The other hosts (in table order until rows are removed one by one).
    std::vector<PeerHost> hosts() const;
    size_t hostCount() const;
    // The other hosts whose link is not down (never tried, connecting or up):
    // what is sent to a host that is down is lost anyway, and it catches up
    // when its link comes up. Kept as the links change, so a change of the
    // tables of a domain of mostly powered-off hosts costs the hosts that
    // are up, not the whole list.
    std::vector<std::string> reachableHosts() const;
    // Adds or replaces hosts and removes others by name, leaving the rest:
    // a change of a few rows of a large table costs a few rows.
    void updateHosts(const std::vector<PeerHost>& upserts, const std::vector<std::string>& removed);
    // The other host with this node id.
    std::optional<PeerHost> byNodeId(uint64_t nodeId) const;
    // The other host listed under `name` (by host name), if any.
    std::optional<PeerHost> byName(const std::string& name) const;
    const Self& self() const { return self_; }

    // Sends to one other host; `done` runs exactly once.
    void send(const std::string& host, const std::string& method, proto::Json params,
              std::chrono::milliseconds timeout, PeerLink::Done done);
    // Sends to every host in `hosts`; `done` runs once, after each ended, with
    // one reply per host in the same order (at once when the list is empty).
    void fanOut(const std::vector<std::string>& hosts, const std::string& method,
                const proto::Json& params, std::chrono::milliseconds timeout,
                std::function<void(std::vector<PeerReply>)> done);
    // `host` greeted this one: its link, if it waits out a pause, tries now.
    void heardFrom(const std::string& host);

    // Ends every link (at shutdown); later sends are lost at once.
    void shutdown();
    proto::Json status() const;

private:
    // The listed hosts whose link is down, and the others. Shared with the
    // links, which report their changes to it (its lock is taken last).
    struct Reach {
        std::mutex mu;
        std::unordered_set<std::string> listed, down, reachable;  // reachable = listed - down
        // The link now serving each host: a link that ended with its host's
        // removal must not speak for the host listed again.
        std::unordered_map<std::string, uint64_t> linkOf;
        uint64_t nextLink = 1;
        void list(const std::string& host);
        void unlist(const std::string& host);
        uint64_t newLink(const std::string& host);
        void linkDown(const std::string& host, uint64_t link, bool isDown);
    };

    std::shared_ptr<PeerLink> linkLocked(const PeerHost& h);
    void reindexLocked();

    asio::any_io_executor executor_;
    const Self self_;
    const PeerLinkOptions options_;
    const PeerLink::OnUp onUp_;

    mutable std::mutex mu_;  // guards everything below
    std::vector<PeerHost> hosts_;
    std::unordered_map<std::string, size_t> byName_;  // host -> its place in hosts_
    std::map<std::string, std::shared_ptr<PeerLink>> links_;
    bool stopped_ = false;
    const std::shared_ptr<Reach> reach_ = std::make_shared<Reach>();
};

}  // namespace znpex::server
