#include "znpex/client/HostErrors.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "platform/zn_owned.h"
#include "znpex/client/ClientErrors.h"
#include "znpex/proto/JsonRpc.h"

namespace znpex::client {

namespace {

struct Pending {
    std::string host;
    zn::ErrorPtr error;
};

thread_local std::vector<Pending> tPending;

// The host's error as a framework error: the one it sent, or one made of the
// code and text (through the client's usual refusal error).
zn::ErrorPtr errorOf(const std::string& method, const proto::Json& err) {
    proto::RpcMessage m;
    m.kind = proto::RpcMessage::Kind::Error;
    const proto::Json* code = proto::findField(err, "code");
    const proto::Json* text = proto::findField(err, "message");
    const proto::Json* data = proto::findField(err, "data");
    m.errorCode = code != nullptr && code->is_number_integer() ? code->get<int>() : 0;
    m.errorMessage = text != nullptr && text->is_string() ? text->get<std::string>() : "";
    if (data != nullptr) {
        m.errorData = *data;
    }
    failRpc(method, m);  // sets this thread's error, which is copied out
    cu_error_t* e = nullptr;
    cu_get_error(&e);
    return zn::ErrorPtr(e);
}

}  // namespace

void clearHostErrors() {
    tPending.clear();
}

void collectHostErrors(const std::string& method, const proto::Json& result) {
    const proto::Json* hosts = proto::findField(result, "hosts");
    if (hosts == nullptr || !hosts->is_array()) {
        return;
    }
    for (const proto::Json& h : *hosts) {
        const proto::Json* name = proto::findField(h, "host");
        const proto::Json* err = proto::findField(h, "error");
        if (name == nullptr || !name->is_string() || err == nullptr || !err->is_object()) {
            continue;
        }
        tPending.push_back(Pending{name->get<std::string>(), errorOf(method, *err)});
    }
}

void attachHostErrors(px_rsp_hdr_t& hdr) {
    if (tPending.empty()) {
        return;
    }
    auto* list = static_cast<px_host_error_t*>(
        std::calloc(tPending.size() + hdr.pr_host_error_count, sizeof(px_host_error_t)));
    if (list == nullptr) {
        throw std::bad_alloc();
    }
    for (uint32_t i = 0; i < hdr.pr_host_error_count; ++i) {
        list[i] = hdr.pr_host_errors[i];
    }
    uint32_t n = hdr.pr_host_error_count;
    std::free(hdr.pr_host_errors);
    hdr.pr_host_errors = list;
    for (Pending& p : tPending) {
        char* host = strdup(p.host.c_str());
        if (host == nullptr) {
            hdr.pr_host_error_count = n;
            throw std::bad_alloc();
        }
        list[n].ph_host = host;
        list[n].ph_error = p.error.release();
        ++n;
    }
    hdr.pr_host_error_count = n;
    tPending.clear();
}

void freeHostErrors(px_rsp_hdr_t& hdr) {
    for (uint32_t i = 0; i < hdr.pr_host_error_count; ++i) {
        std::free(hdr.pr_host_errors[i].ph_host);
        cu_rel_error_1(hdr.pr_host_errors[i].ph_error);
    }
    std::free(hdr.pr_host_errors);
    hdr.pr_host_errors = nullptr;
    hdr.pr_host_error_count = 0;
}

}  // namespace znpex::client
