#include "znpex/server/PeerLink.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include "znhas/sec_proof.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {

using proto::Json;

namespace {

// The handler of every peer link's connection. A connection calls its handler
// for as long as it exists (a read that completed before the close is still
// reported), which may be after its link is gone; this one lives for the
// whole process and passes each report to the link while there is one.
class LinkHandlers : public ConnectionHandler {
public:
    void add(const Connection& c, std::weak_ptr<PeerLink> link) {
        std::lock_guard<std::mutex> g(mu_);
        links_[c.id()] = std::move(link);
    }
    void onMessage(const std::shared_ptr<Connection>& c, std::string payload) override {
        if (auto link = find(*c, false)) {
            link->onMessage(c, std::move(payload));
        }
    }
    void onOversize(const std::shared_ptr<Connection>& c, uint64_t length) override {
        if (auto link = find(*c, false)) {
            link->onOversize(c, length);
        } else {
            c->close();
        }
    }
    void onClosed(const std::shared_ptr<Connection>& c) override {
        if (auto link = find(*c, true)) {
            link->onClosed(c);
        }
    }

private:
    std::shared_ptr<PeerLink> find(const Connection& c, bool erase) {
        std::lock_guard<std::mutex> g(mu_);
        auto it = links_.find(c.id());
        if (it == links_.end()) {
            return nullptr;
        }
        auto link = it->second.lock();
        if (erase) {
            links_.erase(it);
        }
        return link;
    }
    std::mutex mu_;
    std::map<uint64_t, std::weak_ptr<PeerLink>> links_;
};

LinkHandlers& linkHandlers() {
    static LinkHandlers* handlers = new LinkHandlers;  // never destroyed: see above
    return *handlers;
}

}  // namespace

PeerLink::PeerLink(asio::any_io_executor executor, std::string host, PeerHello self,
                   PeerLinkOptions options, OnUp onUp, OnDown onDown)
    : executor_(executor),
      strand_(asio::make_strand(executor)),
      host_(std::move(host)),
      self_(std::move(self)),
      options_(options),
      onUp_(std::move(onUp)),
      onDown_(std::move(onDown)),
      backoff_(options.backoffMin) {}

PeerLink::~PeerLink() = default;

void PeerLink::setAddresses(std::vector<std::string> addresses) {
    std::lock_guard<std::mutex> g(mu_);
    addresses_ = std::move(addresses);
}

PeerLink::State PeerLink::state() const {
    std::lock_guard<std::mutex> g(mu_);
    return state_;
}

Json PeerLink::status() const {
    std::lock_guard<std::mutex> g(mu_);
    static const char* const names[] = {"idle", "connecting", "up", "down"};
    Json j{{"host", host_},
           {"state", names[static_cast<int>(state_)]},
           {"connects", ups_},
           {"failures", failures_},
           {"dropped", dropped_},
           {"queued", queued_.size()},
           {"pauseMs", backoff_.count()}};
    if (!lastError_.empty()) {
        j["lastError"] = lastError_;
    }
    return j;
}

void PeerLink::request(const std::string& method, Json params, std::chrono::milliseconds timeout,
                       Done done) {
    std::shared_ptr<ManagerSession> session;
    {
        std::unique_lock<std::mutex> g(mu_);
        bool down = state_ == State::Down && Clock::now() < retryAt_;
        if (stopped_ || down || (state_ != State::Up && queued_.size() >= options_.maxQueued)) {
            ++dropped_;
            g.unlock();
            done(Outcome::Lost, nullptr);
            return;
        }
        if (state_ == State::Up) {
            session = session_;
        } else {
            uint64_t id = nextQueued_++;
            Queued q;
            q.method = method;
            q.params = std::move(params);
            q.deadline = Clock::now() + timeout;
            q.done = std::move(done);
            q.timer = std::make_unique<asio::steady_timer>(executor_, timeout);
            std::weak_ptr<PeerLink> weak = weak_from_this();
            q.timer->async_wait([weak, id](const asio::error_code& ec) {
                auto self = weak.lock();
                if (!ec && self != nullptr) {
                    self->expireQueued(id);
                }
            });
            queued_.emplace(id, std::move(q));
            if (state_ != State::Connecting) {
                startConnectLocked();
            }
            return;
        }
    }
    if (!session->forward(method, std::move(params), timeout, done)) {
        done(Outcome::Lost, nullptr);
    }
}

void PeerLink::expireQueued(uint64_t id) {
    Done done;
    {
        std::lock_guard<std::mutex> g(mu_);
        auto it = queued_.find(id);
        if (it == queued_.end()) {
            return;
        }
        done = std::move(it->second.done);
        queued_.erase(it);
    }
    done(Outcome::TimedOut, nullptr);
}

void PeerLink::setStateLocked(State s) {
    bool wasDown = state_ == State::Down;
    state_ = s;
    if (onDown_ && wasDown != (s == State::Down)) {
        onDown_(host_, !wasDown);
    }
}

void PeerLink::startConnectLocked() {
    setStateLocked(State::Connecting);
    uint64_t gen = ++gen_;
    asio::post(strand_, [self = shared_from_this(), gen] { self->tryAddress(gen, 0); });
}

void PeerLink::tryAddress(uint64_t gen, size_t index) {
    std::string address;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (gen != gen_ || stopped_) {
            return;
        }
        if (index < addresses_.size()) {
            address = addresses_[index];
        }
    }
    if (address.empty()) {
        failed(gen, index == 0 ? "no address is known" : "no address answered");
        return;
    }
    asio::error_code ec;
    asio::ip::address ip = asio::ip::make_address(address, ec);
    if (ec) {
        tryAddress(gen, index + 1);  // names are not looked up: it would block
        return;
    }
    auto socket = std::make_shared<asio::ip::tcp::socket>(strand_);
    if (!options_.sourceAddress.empty()) {
        asio::ip::address source = asio::ip::make_address(options_.sourceAddress, ec);
        if (!ec && source.is_v4() == ip.is_v4()) {
            socket->open(ip.is_v4() ? asio::ip::tcp::v4() : asio::ip::tcp::v6(), ec);
            if (!ec) {
                socket->bind(asio::ip::tcp::endpoint(source, 0), ec);
            }
            if (ec) {
                tryAddress(gen, index + 1);
                return;
            }
        }
    }
    auto timer = std::make_shared<asio::steady_timer>(strand_, options_.connectTimeout);
    timer->async_wait([socket](const asio::error_code& e) {
        if (!e) {
            asio::error_code ignored;
            socket->close(ignored);  // ends the attempt with an error
        }
    });
    socket->async_connect(
        asio::ip::tcp::endpoint(ip, options_.port),
        [self = shared_from_this(), gen, index, socket, timer](const asio::error_code& e) {
            timer->cancel();
            if (e || !socket->is_open()) {
                self->tryAddress(gen, index + 1);
                return;
            }
            self->connected(gen, std::move(*socket));
        });
}

void PeerLink::connected(uint64_t gen, asio::ip::tcp::socket socket) {
    int one = 1;
    ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    ::setsockopt(socket.native_handle(), SOL_SOCKET, SO_KEEPALIVE, &one, sizeof(one));
    auto conn = std::make_shared<Connection>(Connection::Socket(std::move(socket)), Transport::Tcp,
                                             "PEER:" + host_, static_cast<uid_t>(-1),
                                             linkHandlers(), options_.greetingLimits);
    linkHandlers().add(*conn, weak_from_this());
    auto session = std::make_shared<ManagerSession>(conn, host_, executor_);
    PeerHello hello = self_;
    hello.to = host_;
    hello.nonce = znhas::newProofNonce();
    {
        std::lock_guard<std::mutex> g(mu_);
        if (gen != gen_ || stopped_) {
            conn->close();
            return;
        }
        conn_ = conn;
        session_ = session;
        nonce_ = hello.nonce;
    }
    conn->start();
    if (hello.nonce.empty()) {
        failed(gen, "no random challenge could be made");
        return;
    }
    std::weak_ptr<PeerLink> weak = weak_from_this();
    bool sent = session->forward(kPeerHello, encodePeerHello(hello), options_.helloTimeout,
                                 [weak, gen](Outcome o, Json response) {
                                     if (auto self = weak.lock()) {
                                         self->helloDone(gen, o, response);
                                     }
                                 });
    if (!sent) {
        failed(gen, "the link closed before the greeting");
    }
}

namespace {

// Why a greeting step did not give a result, or "" when `response` holds one.
std::string greetingFailure(PeerLink::Outcome outcome, const Json& response) {
    if (outcome == PeerLink::Outcome::TimedOut) {
        return "no answer to the greeting";
    }
    if (outcome == PeerLink::Outcome::Lost) {
        return "the link closed during the greeting";
    }
    if (const Json* err = proto::findField(response, "error")) {
        return "greeting refused: " +
               (err->is_object() && err->contains("message") && (*err)["message"].is_string()
                    ? (*err)["message"].get<std::string>()
                    : std::string("no reason given"));
    }
    return {};
}

}  // namespace

void PeerLink::helloDone(uint64_t gen, Outcome outcome, const Json& response) {
    std::string why = greetingFailure(outcome, response);
    PeerChallenge challenge;
    if (why.empty()) {
        try {
            challenge = decodePeerChallenge(proto::requireField(response, "result", "response"));
        } catch (const std::exception& e) {
            why = std::string("greeting answered wrongly: ") + e.what();
        }
    }
    PeerProve prove;
    if (why.empty() &&
        !znhas::signHostProof({kProofOfCaller, self_.host, host_, challenge.challenge},
                              &prove.signature, &why)) {
        why = "this host cannot prove its key: " + why;
    }
    std::shared_ptr<ManagerSession> session;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (gen == gen_ && !stopped_) {
            session = session_;
        }
    }
    if (why.empty() && session == nullptr) {
        return;  // a stale attempt
    }
    if (!why.empty()) {
        failed(gen, why);
        return;
    }
    std::weak_ptr<PeerLink> weak = weak_from_this();
    bool sent = session->forward(kPeerProve, encodePeerProve(prove), options_.helloTimeout,
                                 [weak, gen](Outcome o, Json answer) {
                                     if (auto self = weak.lock()) {
                                         self->proveDone(gen, o, answer);
                                     }
                                 });
    if (!sent) {
        failed(gen, "the link closed during the greeting");
    }
}

void PeerLink::proveDone(uint64_t gen, Outcome outcome, const Json& response) {
    std::string why = greetingFailure(outcome, response);
    PeerHelloResult result;
    if (why.empty()) {
        try {
            result = decodePeerHelloResult(proto::requireField(response, "result", "response"));
        } catch (const std::exception& e) {
            why = std::string("greeting answered wrongly: ") + e.what();
        }
    }
    std::vector<uint8_t> nonce;
    {
        std::lock_guard<std::mutex> g(mu_);
        nonce = nonce_;
    }
    // The far end must prove it is the host this link is for: anyone may
    // listen on an address, only that host holds its key.
    if (why.empty() && !znhas::verifyHostProof({kProofOfAnswerer, host_, self_.host, nonce},
                                               result.signature, &why)) {
        why = "the far end did not prove it is " + host_ + ": " + why;
    }
    if (!why.empty()) {
        failed(gen, why);
        return;
    }
    std::map<uint64_t, Queued> queued;
    std::shared_ptr<ManagerSession> session;
    std::shared_ptr<Connection> conn;
    bool wasOut = false;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (gen != gen_ || stopped_ || state_ != State::Connecting) {
            return;
        }
        setStateLocked(State::Up);
        backoff_ = options_.backoffMin;
        reached_ = true;
        wasOut = outageLogged_;
        outageLogged_ = false;
        lastError_.clear();
        ++ups_;
        queued.swap(queued_);
        session = session_;
        conn = conn_;
    }
    conn->authenticate(options_.peerLimits);
    if (options_.outages != nullptr) {
        options_.outages->up(host_);
    } else if (wasOut) {
        serviceLog("peer link to %s is up again", host_.c_str());
    }
    flush(std::move(queued), session);
    if (onUp_) {
        onUp_(host_);
    }
}

void PeerLink::flush(std::map<uint64_t, Queued> queued,
                     const std::shared_ptr<ManagerSession>& session) {
    auto now = Clock::now();
    for (auto& [id, q] : queued) {
        q.timer->cancel();
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(q.deadline - now);
        if (left.count() <= 0) {
            q.done(Outcome::TimedOut, nullptr);
            continue;
        }
        Done done = q.done;
        if (!session->forward(q.method, std::move(q.params), left, std::move(q.done))) {
            done(Outcome::Lost, nullptr);
        }
    }
}

void PeerLink::fail(std::map<uint64_t, Queued> queued) {
    for (auto& [id, q] : queued) {
        q.timer->cancel();
        q.done(Outcome::Lost, nullptr);
    }
}

void PeerLink::failed(uint64_t gen, const std::string& why) {
    std::map<uint64_t, Queued> queued;
    std::shared_ptr<Connection> conn;
    std::shared_ptr<ManagerSession> session;
    bool log = false;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (gen != gen_ || stopped_) {
            return;
        }
        ++gen_;  // callbacks of this attempt are stale from now on
        setStateLocked(State::Down);
        ++failures_;
        lastError_ = why;
        retryAt_ = Clock::now() + backoff_;
        backoff_ = std::min(backoff_ * 2, reached_ ? options_.backoffMax
                                                   : options_.backoffMax *
                                                         std::max(1, options_.neverReachedFactor));
        log = !outageLogged_;
        outageLogged_ = true;
        queued.swap(queued_);
        dropped_ += queued.size();
        conn = std::move(conn_);
        session = std::move(session_);
        scheduleRetryLocked();
    }
    if (log && options_.outages != nullptr) {
        options_.outages->down(host_, why);
    } else if (log) {
        serviceLog("peer link to %s is down (%s); its messages are dropped until it is back",
                   host_.c_str(), why.c_str());
    }
    if (conn != nullptr) {
        conn->close();
    }
    if (session != nullptr) {
        session->failAll();
    }
    fail(std::move(queued));
}

void PeerLink::heardFrom() {
    std::lock_guard<std::mutex> g(mu_);
    reached_ = true;
    if (stopped_ || state_ != State::Down) {
        return;
    }
    backoff_ = options_.backoffMin;
    startConnectLocked();
}

void PeerLink::scheduleRetryLocked() {
    // A host that went away is tried again in the background, so it hears
    // what it missed (the "up" callback) soon after it is back.
    auto at = retryAt_;
    std::weak_ptr<PeerLink> weak = weak_from_this();
    asio::post(strand_, [weak, at] {
        auto self = weak.lock();
        if (self == nullptr) {
            return;
        }
        std::lock_guard<std::mutex> g(self->mu_);
        if (self->stopped_) {
            return;
        }
        self->retryTimer_ = std::make_unique<asio::steady_timer>(self->strand_, at);
        self->retryTimer_->async_wait([weak](const asio::error_code& ec) {
            auto link = weak.lock();
            if (ec || link == nullptr) {
                return;
            }
            std::lock_guard<std::mutex> g2(link->mu_);
            if (!link->stopped_ && link->state_ == State::Down) {
                link->startConnectLocked();
            }
        });
    });
}

void PeerLink::onMessage(const std::shared_ptr<Connection>& c, std::string payload) {
    std::shared_ptr<ManagerSession> session;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (c != conn_) {
            return;
        }
        session = session_;
    }
    proto::RpcMessage m;
    try {
        m = proto::parseMessage(payload);
    } catch (const std::exception&) {
        c->close();  // a peer that garbles replies is not one to wait on
        return;
    }
    if (session == nullptr || !m.id.is_number_unsigned()) {
        return;  // nothing but replies is expected on an outbound link
    }
    Json response;
    if (m.kind == proto::RpcMessage::Kind::Result) {
        response = proto::makeResult(m.id, std::move(m.result));
    } else if (m.kind == proto::RpcMessage::Kind::Error) {
        response = proto::makeError(m.id, m.errorCode, m.errorMessage, std::move(m.errorData));
    } else {
        return;
    }
    session->complete(m.id.get<uint64_t>(), std::move(response));
}

void PeerLink::onOversize(const std::shared_ptr<Connection>& c, uint64_t) {
    c->close();
}

void PeerLink::onClosed(const std::shared_ptr<Connection>& c) {
    uint64_t gen = 0;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (c != conn_) {
            return;
        }
        gen = gen_;
    }
    failed(gen, "the link closed");
}

void PeerLink::shutdown() {
    std::map<uint64_t, Queued> queued;
    std::shared_ptr<Connection> conn;
    std::shared_ptr<ManagerSession> session;
    {
        std::lock_guard<std::mutex> g(mu_);
        stopped_ = true;
        ++gen_;
        queued.swap(queued_);
        conn = std::move(conn_);
        session = std::move(session_);
    }
    asio::post(strand_, [self = shared_from_this()] {
        std::lock_guard<std::mutex> g(self->mu_);
        if (self->retryTimer_) {
            self->retryTimer_->cancel();
        }
    });
    if (conn != nullptr) {
        conn->close();
    }
    if (session != nullptr) {
        session->failAll();
    }
    fail(std::move(queued));
}

}  // namespace znpex::server
