#include "znpex/client/Session.h"

#include <atomic>

#include "tarn_rmf/RMCommonErrors.h"
#include "znpex/client/ClientErrors.h"
#include "znpex/client/HostErrors.h"
#include "znpex/client/SessionLife.h"
#include "znpex/client/px_client.h"
#include "znpex/proto/RequestCodec.h"
#include "znpex/proto/ServiceMessages.h"

namespace znpex::client {
namespace {

std::atomic<int> g_connectMs{5000};
std::atomic<int> g_requestMs{30000};

}  // namespace

int defaultConnectTimeoutMs() {
    return g_connectMs.load();
}
int defaultRequestTimeoutMs() {
    return g_requestMs.load();
}

void setDefaultTimeouts(int connectMs, int requestMs) {
    if (connectMs > 0) {
        g_connectMs.store(connectMs);
    }
    if (requestMs > 0) {
        g_requestMs.store(requestMs);
    }
}

int call(px_session& s, const std::string& method, proto::Json params, proto::Json& result) {
    IoLock io(s);
    if (!s.conn) {
        return failComm("(none)", "the session has no connection");
    }
    proto::RpcMessage reply;
    std::string why;
    switch (s.conn->call(method, std::move(params), s.requestTimeoutMs, reply, &why)) {
        case Connection::Status::Ok:
            break;
        case Connection::Status::Timeout:
            return failTimeout(s.conn->contact().text(), method, s.requestTimeoutMs);
        case Connection::Status::Failed:
            return failComm(s.conn->contact().text(), why);
    }
    if (reply.kind == proto::RpcMessage::Kind::Error) {
        return failRpc(method, reply);
    }
    result = std::move(reply.result);
    return PX_OK;
}

int callRm(px_session& s, const tarn_rmf2v::RMRequest& request, tarn_rmf2v::RMReply& reply) {
    std::string method = proto::rmMethod(request.op);
    proto::Json params;
    try {
        params = proto::encodeRequestParams(request);
    } catch (const proto::ProtocolError& e) {
        return failInvalid(tarn_rmf2v::requestOpName(request.op), e.what());
    }
    proto::Json result;
    if (int rc = call(s, method, std::move(params), result); rc != PX_OK) {
        return rc;
    }
    try {
        reply = proto::decodeReply(result);
    } catch (const proto::ProtocolError& e) {
        return failReply(method, e.what());
    }
    collectHostErrors(method, result);
    return PX_OK;
}

int callRmMany(px_session& s, const std::vector<tarn_rmf2v::RMRequest>& requests,
               std::vector<tarn_rmf2v::RMReply>& replies) {
    std::vector<Connection::Request> batch;
    batch.reserve(requests.size());
    for (const tarn_rmf2v::RMRequest& r : requests) {
        try {
            batch.push_back({proto::rmMethod(r.op), proto::encodeRequestParams(r)});
        } catch (const proto::ProtocolError& e) {
            return failInvalid(tarn_rmf2v::requestOpName(r.op), e.what());
        }
    }
    std::vector<proto::RpcMessage> answers;
    {
        IoLock io(s);
        if (!s.conn) {
            return failComm("(none)", "the session has no connection");
        }
        std::string why;
        std::string method = batch.empty() ? std::string() : batch.front().method;
        switch (s.conn->callMany(std::move(batch), kPipelineWindow, s.requestTimeoutMs, answers,
                                 &why)) {
            case Connection::Status::Ok:
                break;
            case Connection::Status::Timeout:
                return failTimeout(s.conn->contact().text(), method, s.requestTimeoutMs);
            case Connection::Status::Failed:
                return failComm(s.conn->contact().text(), why);
        }
    }
    replies.clear();
    replies.reserve(answers.size());
    for (size_t i = 0; i < answers.size(); ++i) {
        std::string method = proto::rmMethod(requests[i].op);
        if (answers[i].kind == proto::RpcMessage::Kind::Error) {
            return failRpc(method, answers[i]);
        }
        try {
            replies.push_back(proto::decodeReply(answers[i].result));
        } catch (const proto::ProtocolError& e) {
            return failReply(method, e.what());
        }
        collectHostErrors(method, answers[i].result);
    }
    return PX_OK;
}

int listClasses(px_session& s, std::vector<proto::ClassInfo>& out) {
    proto::Json result;
    if (int rc = call(s, proto::kClassList, proto::Json::object(), result); rc != PX_OK) {
        return rc;
    }
    try {
        out = proto::decodeClassList(result);
    } catch (const proto::ProtocolError& e) {
        return failReply(proto::kClassList, e.what());
    }
    std::lock_guard<std::mutex> g(s.cacheMu);
    s.classes.clear();
    for (const auto& c : out) {
        s.classes[c.def.name] = c;
    }
    s.classesLoaded = true;
    return PX_OK;
}

int classDef(px_session& s, const std::string& name, tarn_rmf2v::RMClassDef& out) {
    {
        std::lock_guard<std::mutex> g(s.cacheMu);
        auto it = s.classes.find(name);
        if (it != s.classes.end()) {
            out = it->second.def;
            return PX_OK;
        }
    }
    // Not cached: the class may have registered since; ask once more.
    std::vector<proto::ClassInfo> all;
    if (int rc = listClasses(s, all); rc != PX_OK) {
        return rc;
    }
    for (auto& c : all) {
        if (c.def.name == name) {
            out = std::move(c.def);
            return PX_OK;
        }
    }
    if (s.identity == proto::kUnauthenticated) {
        // The service shows such a caller the enrollment class alone: not
        // seeing a class says nothing about whether it exists.
        return failNotAuthenticated(name, s.identity);
    }
    cu_error_t* e = nullptr;
    tarn_rmf::RMPkgCommonError(tarn_rmf::RM_EINVALIDCLASS, nullptr, &e, name.c_str());
    cu_set_error_obj_1(e);
    cu_rel_error_1(e);
    return PX_EFAILED;
}

}  // namespace znpex::client
