#include "tarn_rmf2v/link/RMServiceCall.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/clock.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/JsonRpc.h"

namespace tarn_rmf2v {
namespace {

int fail(int err, std::string* why, std::string text) {
    if (why != nullptr) {
        *why = std::move(text);
    }
    errno = err;
    return -1;
}

// One real-time wait on the way to `end` on the process clock.
int sliceMs(zn::Clock::Duration end) {
    return zn::pollTimeoutMs(zn::processClock().waitSlice(end));
}

}  // namespace

int connectServiceSocket(const std::string& path, std::string* why) {
    sockaddr_un addr{};
    if (path.size() >= sizeof(addr.sun_path)) {
        return fail(ENAMETOOLONG, why, "the socket path " + path + " is too long");
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        int err = errno;
        return fail(err, why, std::string("socket: ") + std::strerror(err));
    }
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int rc;
    do {
        rc = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        int err = errno;
        ::close(fd);
        return fail(err, why, "cannot connect to " + path + ": " + std::strerror(err));
    }
    return fd;
}

int serviceCall(const std::string& socketPath, const std::string& method,
                const znpex::proto::Json& params, znpex::proto::Json* result, std::string* why,
                std::chrono::milliseconds timeout) {
    namespace proto = znpex::proto;
    const zn::Clock::Duration end = zn::processClock().monoNow() + timeout;
    int fd = connectServiceSocket(socketPath, why);
    if (fd < 0) {
        return -1;
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    const proto::Json id = 1;
    // One small frame, which a write cannot take up halfway and resume: it
    // gets all the time left, in real time.
    proto::IoStatus st =
        proto::writeFrame(fd, proto::dumpJson(proto::makeRequest(id, method, params)),
                          zn::pollTimeoutMs(end - zn::processClock().monoNow()));
    if (st != proto::IoStatus::Ok) {
        int err = st == proto::IoStatus::Timeout ? ETIMEDOUT : errno != 0 ? errno : EIO;
        return fail(err, why, std::string("sending ") + method + ": " + proto::ioStatusText(st));
    }
    proto::FdFrameReader reader(fd);
    for (;;) {
        std::string payload;
        st = reader.next(payload, sliceMs(end));
        if (st == proto::IoStatus::Timeout) {
            if (zn::processClock().monoNow() < end) {
                continue;  // a slice of the wait, not the whole of it
            }
            return fail(ETIMEDOUT, why, "no answer to " + method + " in time");
        }
        if (st != proto::IoStatus::Ok) {
            return fail(
                EPROTO, why,
                std::string("reading the answer to ") + method + ": " + proto::ioStatusText(st));
        }
        proto::RpcMessage m;
        try {
            m = proto::parseMessage(payload);
        } catch (const proto::ProtocolError& e) {
            return fail(EPROTO, why, std::string("a malformed answer: ") + e.what());
        }
        if (m.kind == proto::RpcMessage::Kind::Notification ||
            m.kind == proto::RpcMessage::Kind::Request || m.id != id) {
            continue;  // not the answer to our request
        }
        if (m.kind == proto::RpcMessage::Kind::Result) {
            if (result != nullptr) {
                *result = std::move(m.result);
            }
            return 0;
        }
        bool refused =
            m.errorCode == proto::kMethodNotFound || m.errorCode == proto::kPermissionDenied;
        std::string text = m.errorMessage;
        if (const proto::Json* t =
                m.errorData.is_object() ? proto::findField(m.errorData, "text") : nullptr;
            t != nullptr && t->is_string()) {
            text = t->get<std::string>();
        }
        return fail(refused ? EACCES : EIO, why, method + " failed: " + text);
    }
}

}  // namespace tarn_rmf2v
