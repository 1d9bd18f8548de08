#include "znpex/server/PeerDirectory.h"

#include <algorithm>

namespace znpex::server {

using proto::Json;

PeerDirectory::PeerDirectory(asio::any_io_executor executor, Self self, PeerLinkOptions options,
                             PeerLink::OnUp onUp)
    : executor_(std::move(executor)),
      self_(std::move(self)),
      options_(options),
      onUp_(std::move(onUp)) {}

PeerDirectory::~PeerDirectory() {
    shutdown();
}

void PeerDirectory::Reach::list(const std::string& host) {
    std::lock_guard<std::mutex> g(mu);
    if (listed.insert(host).second && down.count(host) == 0) {
        reachable.insert(host);
    }
}

void PeerDirectory::Reach::unlist(const std::string& host) {
    std::lock_guard<std::mutex> g(mu);
    listed.erase(host);
    down.erase(host);
    reachable.erase(host);
    linkOf.erase(host);
}

uint64_t PeerDirectory::Reach::newLink(const std::string& host) {
    std::lock_guard<std::mutex> g(mu);
    uint64_t id = nextLink++;
    linkOf[host] = id;
    return id;
}

void PeerDirectory::Reach::linkDown(const std::string& host, uint64_t link, bool isDown) {
    std::lock_guard<std::mutex> g(mu);
    auto it = linkOf.find(host);
    if (listed.count(host) == 0 || it == linkOf.end() || it->second != link) {
        return;  // a link that ends with its host's removal
    }
    if (isDown) {
        down.insert(host);
        reachable.erase(host);
    } else {
        down.erase(host);
        reachable.insert(host);
    }
}

bool PeerDirectory::isSelf(const PeerHost& h) const {
    if (self_.nodeId != 0 && h.nodeId == self_.nodeId) {
        return true;
    }
    return std::find(h.addresses.begin(), h.addresses.end(), self_.listenAddress) !=
           h.addresses.end();
}

void PeerDirectory::reindexLocked() {
    byName_.clear();
    byName_.reserve(hosts_.size());
    for (size_t i = 0; i < hosts_.size(); ++i) {
        byName_.emplace(hosts_[i].host, i);
    }
}

void PeerDirectory::setHosts(const std::vector<PeerHost>& all) {
    std::vector<std::shared_ptr<PeerLink>> gone;
    {
        std::lock_guard<std::mutex> g(mu_);
        hosts_.clear();
        for (const PeerHost& h : all) {
            if (!isSelf(h)) {
                hosts_.push_back(h);
            }
        }
        reindexLocked();
        for (auto it = links_.begin(); it != links_.end();) {
            auto h = byName_.find(it->first);
            if (h == byName_.end()) {
                gone.push_back(std::move(it->second));
                it = links_.erase(it);
            } else {
                it->second->setAddresses(hosts_[h->second].addresses);
                ++it;
            }
        }
        std::lock_guard<std::mutex> r(reach_->mu);
        // The links kept keep their state; hosts no longer listed go.
        reach_->listed.clear();
        reach_->reachable.clear();
        for (const PeerHost& h : hosts_) {
            reach_->listed.insert(h.host);
        }
        for (auto it = reach_->down.begin(); it != reach_->down.end();) {
            it = reach_->listed.count(*it) != 0 ? std::next(it) : reach_->down.erase(it);
        }
        for (auto it = reach_->linkOf.begin(); it != reach_->linkOf.end();) {
            it = reach_->listed.count(it->first) != 0 ? std::next(it) : reach_->linkOf.erase(it);
        }
        for (const PeerHost& h : hosts_) {
            if (reach_->down.count(h.host) == 0) {
                reach_->reachable.insert(h.host);
            }
        }
    }
    for (auto& l : gone) {
        l->shutdown();
    }
}

void PeerDirectory::updateHosts(const std::vector<PeerHost>& upserts,
                                const std::vector<std::string>& removed) {
    std::vector<std::shared_ptr<PeerLink>> gone;
    {
        std::lock_guard<std::mutex> g(mu_);
        for (const std::string& name : removed) {
            auto it = byName_.find(name);
            if (it == byName_.end()) {
                continue;
            }
            // The last row takes the removed row's place: a removal costs
            // one row, not the table.
            size_t at = it->second;
            byName_.erase(it);
            if (at + 1 != hosts_.size()) {
                hosts_[at] = std::move(hosts_.back());
                byName_[hosts_[at].host] = at;
            }
            hosts_.pop_back();
            reach_->unlist(name);
            if (auto l = links_.find(name); l != links_.end()) {
                gone.push_back(std::move(l->second));
                links_.erase(l);
            }
        }
        for (const PeerHost& h : upserts) {
            if (isSelf(h)) {
                continue;
            }
            auto it = byName_.find(h.host);
            if (it != byName_.end()) {
                hosts_[it->second] = h;
            } else {
                byName_.emplace(h.host, hosts_.size());
                hosts_.push_back(h);
                reach_->list(h.host);
            }
            if (auto l = links_.find(h.host); l != links_.end()) {
                l->second->setAddresses(h.addresses);
            }
        }
    }
    for (auto& l : gone) {
        l->shutdown();
    }
}

std::vector<PeerHost> PeerDirectory::hosts() const {
    std::lock_guard<std::mutex> g(mu_);
    return hosts_;
}

size_t PeerDirectory::hostCount() const {
    std::lock_guard<std::mutex> g(mu_);
    return hosts_.size();
}

std::vector<std::string> PeerDirectory::reachableHosts() const {
    std::lock_guard<std::mutex> g(reach_->mu);
    return {reach_->reachable.begin(), reach_->reachable.end()};
}

std::optional<PeerHost> PeerDirectory::byNodeId(uint64_t nodeId) const {
    std::lock_guard<std::mutex> g(mu_);
    for (const PeerHost& h : hosts_) {
        if (h.nodeId == nodeId) {
            return h;
        }
    }
    return std::nullopt;
}

std::optional<PeerHost> PeerDirectory::byName(const std::string& name) const {
    std::lock_guard<std::mutex> g(mu_);
    auto it = byName_.find(name);
    return it != byName_.end() ? std::optional<PeerHost>(hosts_[it->second]) : std::nullopt;
}

std::shared_ptr<PeerLink> PeerDirectory::linkLocked(const PeerHost& h) {
    auto it = links_.find(h.host);
    if (it != links_.end()) {
        return it->second;
    }
    PeerHello hello;
    hello.host = self_.host;
    hello.nodeId = self_.nodeId;
    std::weak_ptr<Reach> reach = reach_;
    uint64_t id = reach_->newLink(h.host);
    auto link = std::make_shared<PeerLink>(executor_, h.host, hello, options_, onUp_,
                                           [reach, id](const std::string& host, bool down) {
                                               if (auto r = reach.lock()) {
                                                   r->linkDown(host, id, down);
                                               }
                                           });
    link->setAddresses(h.addresses);
    links_.emplace(h.host, link);
    return link;
}

void PeerDirectory::heardFrom(const std::string& host) {
    std::shared_ptr<PeerLink> link;
    {
        std::lock_guard<std::mutex> g(mu_);
        auto it = links_.find(host);
        if (it != links_.end()) {
            link = it->second;
        }
    }
    if (link != nullptr) {
        link->heardFrom();
    }
}

void PeerDirectory::send(const std::string& host, const std::string& method, Json params,
                         std::chrono::milliseconds timeout, PeerLink::Done done) {
    std::shared_ptr<PeerLink> link;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (!stopped_) {
            auto h = byName_.find(host);
            if (h != byName_.end()) {
                link = linkLocked(hosts_[h->second]);
            }
        }
    }
    if (link == nullptr) {
        done(PeerLink::Outcome::Lost, nullptr);
        return;
    }
    link->request(method, std::move(params), timeout, std::move(done));
}

void PeerDirectory::fanOut(const std::vector<std::string>& hosts, const std::string& method,
                           const Json& params, std::chrono::milliseconds timeout,
                           std::function<void(std::vector<PeerReply>)> done) {
    if (hosts.empty()) {
        done({});
        return;
    }
    struct Gather {
        std::mutex mu;
        std::vector<PeerReply> replies;
        size_t left = 0;
        std::function<void(std::vector<PeerReply>)> done;
    };
    auto gather = std::make_shared<Gather>();
    gather->replies.resize(hosts.size());
    gather->left = hosts.size();
    gather->done = std::move(done);
    for (size_t i = 0; i < hosts.size(); ++i) {
        gather->replies[i].host = hosts[i];
    }
    for (size_t i = 0; i < hosts.size(); ++i) {
        send(hosts[i], method, params, timeout, [gather, i](PeerLink::Outcome o, Json response) {
            bool last = false;
            {
                std::lock_guard<std::mutex> g(gather->mu);
                gather->replies[i].outcome = o;
                gather->replies[i].response = std::move(response);
                last = --gather->left == 0;
            }
            if (last) {
                gather->done(std::move(gather->replies));
            }
        });
    }
}

void PeerDirectory::shutdown() {
    std::map<std::string, std::shared_ptr<PeerLink>> links;
    {
        std::lock_guard<std::mutex> g(mu_);
        stopped_ = true;
        links.swap(links_);
    }
    for (auto& [host, link] : links) {
        link->shutdown();
    }
}

Json PeerDirectory::status() const {
    std::lock_guard<std::mutex> g(mu_);
    Json out = Json::array();
    for (const PeerHost& h : hosts_) {
        auto it = links_.find(h.host);
        out.push_back(it != links_.end() ? it->second->status()
                                         : Json{{"host", h.host}, {"state", "idle"}});
    }
    return out;
}

}  // namespace znpex::server
