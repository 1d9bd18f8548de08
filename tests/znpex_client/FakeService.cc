#include "tests/znpex_client/FakeService.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

#include "platform/paths.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/ServiceMessages.h"

namespace testsupport {

using znpex::proto::Json;
using znpex::proto::RpcMessage;

FakeService::FakeService(bool tcp) {
    std::string path = zn::paths::resolve(zn::paths::kPexSocket);
    zn::paths::ensureParentDir(path);
    ::unlink(path.c_str());
    localFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (::bind(localFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(localFd_, 64) != 0) {
        throw std::runtime_error("fake service cannot listen on " + path);
    }
    if (tcp) {
        tcpFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in in{};
        in.sin_family = AF_INET;
        in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        in.sin_port = 0;
        socklen_t len = sizeof in;
        if (::bind(tcpFd_, reinterpret_cast<sockaddr*>(&in), sizeof in) != 0 ||
            ::listen(tcpFd_, 64) != 0 ||
            ::getsockname(tcpFd_, reinterpret_cast<sockaddr*>(&in), &len) != 0) {
            throw std::runtime_error("fake service cannot listen on TCP");
        }
        tcpPort_ = ntohs(in.sin_port);
    }
    if (::pipe2(stopPipe_, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe");
    }
    acceptor_ = std::thread([this] { acceptLoop(); });
}

FakeService::~FakeService() {
    stopping_ = true;
    char c = 'x';
    (void)!::write(stopPipe_[1], &c, 1);
    acceptor_.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard<std::mutex> g(mu_);
        for (int fd : clientFds_) {
            ::shutdown(fd, SHUT_RDWR);
        }
        workers.swap(workers_);
    }
    for (auto& t : workers) {
        t.join();
    }
    for (int fd : {localFd_, tcpFd_, stopPipe_[0], stopPipe_[1]}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void FakeService::onRm(Handler h) {
    std::lock_guard<std::mutex> g(mu_);
    rmHandler_ = std::move(h);
}

void FakeService::on(const std::string& method, Handler h) {
    std::lock_guard<std::mutex> g(mu_);
    handlers_[method] = std::move(h);
}

void FakeService::setClasses(std::vector<znpex::proto::ClassInfo> classes) {
    std::lock_guard<std::mutex> g(mu_);
    classes_ = std::move(classes);
}

void FakeService::setIdentity(const std::string& identity) {
    std::lock_guard<std::mutex> g(mu_);
    identity_ = identity;
}

std::vector<RpcMessage> FakeService::received() {
    std::lock_guard<std::mutex> g(mu_);
    return received_;
}

std::vector<std::string> FakeService::methods() {
    std::vector<std::string> out;
    for (const auto& m : received()) {
        out.push_back(m.method);
    }
    return out;
}

Json FakeService::result(const RpcMessage& m, Json r) {
    return znpex::proto::makeResult(m.id, std::move(r));
}

Json FakeService::error(const RpcMessage& m, int code, const std::string& message, Json data) {
    return znpex::proto::makeError(m.id, code, message, std::move(data));
}

void FakeService::acceptLoop() {
    while (!stopping_) {
        pollfd fds[3] = {{stopPipe_[0], POLLIN, 0}, {localFd_, POLLIN, 0}, {tcpFd_, POLLIN, 0}};
        int n = tcpFd_ >= 0 ? 3 : 2;
        if (::poll(fds, static_cast<nfds_t>(n), -1) <= 0 || (fds[0].revents & POLLIN) != 0) {
            continue;
        }
        for (int i = 1; i < n; ++i) {
            if ((fds[i].revents & POLLIN) == 0) {
                continue;
            }
            int fd = ::accept4(fds[i].fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                continue;
            }
            accepted_.fetch_add(1);
            std::lock_guard<std::mutex> g(mu_);
            clientFds_.push_back(fd);
            workers_.emplace_back([this, fd] { serve(fd); });
        }
    }
}

FakeService::Answer FakeService::answer(const RpcMessage& m) {
    Handler h;
    {
        std::lock_guard<std::mutex> g(mu_);
        auto it = handlers_.find(m.method);
        if (it != handlers_.end()) {
            h = it->second;
        } else if (m.method.rfind("rm.", 0) == 0) {
            h = rmHandler_;
        }
    }
    if (h) {
        return h(m);
    }
    Answer a;
    namespace p = znpex::proto;
    if (m.method == p::kSessionStart) {
        std::lock_guard<std::mutex> g(mu_);
        a.reply = result(m, p::encodeSessionStarted({7, identity_}));
    } else if (m.method == p::kSessionEnd) {
        a.reply = result(m, Json{{"ok", true}});
    } else if (m.method == p::kAuthHello) {
        a.reply = result(m, p::encodeHello({p::kUnauthenticated, {}}));
    } else if (m.method == p::kClassList) {
        std::lock_guard<std::mutex> g(mu_);
        Json list = Json::array();
        for (const auto& c : classes_) {
            list.push_back(p::encodeClassInfo(c));
        }
        a.reply = result(m, list);
    } else {
        a.reply = error(m, p::kMethodNotFound, "no method " + m.method);
    }
    return a;
}

void FakeService::serve(int fd) {
    znpex::proto::FdFrameReader reader(fd);
    for (;;) {
        std::string payload;
        if (reader.next(payload, -1) != znpex::proto::IoStatus::Ok) {
            break;
        }
        RpcMessage m;
        try {
            m = znpex::proto::parseMessage(payload);
        } catch (const znpex::proto::ProtocolError& e) {
            znpex::proto::writeFrame(
                fd, znpex::proto::dumpJson(znpex::proto::makeError(e.id(), e.code(), e.what())));
            break;
        }
        {
            std::lock_guard<std::mutex> g(mu_);
            received_.push_back(m);
        }
        if (m.kind != RpcMessage::Kind::Request) {
            continue;
        }
        Answer a = answer(m);
        for (const auto& b : a.before) {
            znpex::proto::writeFrame(fd, b);
        }
        if (a.delayMs > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(a.delayMs));
        }
        if (!a.rawFrame.empty()) {
            znpex::proto::writeAll(fd, a.rawFrame.data(), a.rawFrame.size());
        } else if (!a.reply.is_null()) {
            znpex::proto::writeFrame(fd, znpex::proto::dumpJson(a.reply));
        }
        if (a.closeAfter) {
            break;
        }
    }
    ::shutdown(fd, SHUT_RDWR);
    std::lock_guard<std::mutex> g(mu_);
    for (auto it = clientFds_.begin(); it != clientFds_.end(); ++it) {
        if (*it == fd) {
            clientFds_.erase(it);
            break;
        }
    }
    ::close(fd);
}

}  // namespace testsupport
