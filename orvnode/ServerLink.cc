#include "orvnode/ServerLink.h"

#include "platform/cu_error.h"
#include "znpex/client/px_client.h"

namespace orvnode {
namespace {

constexpr char kAuthClass[] = "Kor.NodeAuthenticate";
constexpr char kRequestAction[] = "RequestNodeManagement";
constexpr char kNodeClass[] = "Kor.ManagedNode";

std::string lastError() {
    cu_error_t* e = nullptr;
    cu_get_error(&e);
    std::string text = cu_error_text(e);
    cu_rel_error_1(e);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

std::string trimmed(const cu_error_t* e) {
    std::string text = cu_error_text(e);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// A session that ends with the scope.
class Session {
public:
    ~Session() {
        if (s_ != nullptr) {
            px_end_session(s_);
        }
    }
    px_session_t* out() { return &s_; }
    px_session_t get() const { return s_; }

private:
    px_session_t s_ = nullptr;
};

class PxServerLink final : public ServerLink {
public:
    PxServerLink(std::string contact, std::string hostname, int timeoutMs)
        : contact_(std::move(contact)), hostname_(std::move(hostname)), timeoutMs_(timeoutMs) {}

    Exchange requestManagement(const zn_structured_data& request) override {
        Exchange x;
        Session s;
        if (!start(s, &x.message)) {
            return x;
        }
        x.serviceName = px_session_service_host(s.get());
        px_resources_rsp_t* rsp = nullptr;
        int rc = px_invoke_class_action(s.get(), kAuthClass, kRequestAction, &request, &rsp);
        if (rc == PX_ECONNECT || rc == PX_ECOMM || rc == PX_ETIMEDOUT || rc == PX_ENOTCONNECTED) {
            x.message = lastError();
            return x;
        }
        if (rc != PX_OK) {
            x.outcome = Exchange::Outcome::Refused;
            x.message = lastError();
            return x;
        }
        x.outcome = Exchange::Outcome::Refused;
        if (rsp->hdr.pr_error != nullptr) {
            x.message = trimmed(rsp->hdr.pr_error);
        } else if (rsp->resource_count == 0) {
            x.message = "the server's answer holds no reply";
        } else if (rsp->resources[0].error != nullptr) {
            x.message = trimmed(rsp->resources[0].error);
        } else if (rsp->resources[0].data_count == 0 || rsp->resources[0].data[0] == nullptr) {
            x.message = "the server's answer holds no reply";
        } else {
            x.outcome = Exchange::Outcome::Answered;
            x.reply = zn::copySd(rsp->resources[0].data[0]);
        }
        px_free_response(rsp);
        return x;
    }

    Knowledge knowsNode(const std::string& hostname, std::string* why) override {
        Session s;
        if (!start(s, why)) {
            return Knowledge::Unreachable;
        }
        if (std::string(px_session_identity(s.get())) == "UNAUTHENT") {
            *why = "the server does not take this host's key any more";
            return Knowledge::Forgotten;
        }
        px_enumerate_rsp_t* rsp = nullptr;
        std::string selection = "Hostname==\"" + hostname + "\"";
        int rc = px_enumerate_select(s.get(), kNodeClass, selection.c_str(), &rsp);
        if (rc == PX_EACCESS) {
            *why = "the server no longer lets this node read its record";
            return Knowledge::Forgotten;
        }
        if (rc != PX_OK) {
            *why = lastError();
            return Knowledge::Unreachable;
        }
        Knowledge k = Knowledge::Known;
        if (rsp->hdr.pr_error != nullptr) {
            *why = trimmed(rsp->hdr.pr_error);
            k = Knowledge::Unreachable;
        } else if (rsp->handle_count == 0) {
            *why = "the server has no node named " + hostname;
            k = Knowledge::Forgotten;
        }
        px_free_response(rsp);
        return k;
    }

private:
    bool start(Session& s, std::string* why) {
        px_set_default_timeouts(timeoutMs_, timeoutMs_);
        px_set_client_host(hostname_.c_str());
        px_contact_t c{contact_.c_str()};
        if (px_start_session(&c, 1, PX_SCOPE_LOCAL, s.out()) != PX_OK) {
            *why = lastError();
            return false;
        }
        return true;
    }

    const std::string contact_;
    const std::string hostname_;
    const int timeoutMs_;
};

}  // namespace

std::unique_ptr<ServerLink> makeServerLink(const std::string& contact, const std::string& hostname,
                                           int timeoutMs) {
    return std::make_unique<PxServerLink>(contact, hostname, timeoutMs);
}

}  // namespace orvnode
