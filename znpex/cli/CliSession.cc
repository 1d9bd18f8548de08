#include "znpex/cli/CliSession.h"

#include "znpex/client/Session.h"
#include "znpex/proto/ErrorCodec.h"

namespace znpex::cli {
namespace {

// Catalogue texts end in a newline; a message line gets exactly one.
std::string oneLine(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) {
        s.pop_back();
    }
    return s;
}

}  // namespace

CliSession::~CliSession() {
    if (session_ != nullptr) {
        px_end_session(session_);
    }
}

px_session_t CliSession::session() {
    if (session_ != nullptr) {
        return session_;
    }
    session_ = openSession();
    if (session_ == nullptr) {
        failCall();
    }
    return session_;
}

px_session_t CliSession::openSession() const {
    px_set_default_timeouts(opts_.connectTimeoutMs, opts_.timeoutMs);
    if (px_set_client_host(opts_.asHost.c_str()) != PX_OK) {
        return nullptr;
    }
    px_contact_t contact{opts_.host.c_str()};
    px_session_t s = nullptr;
    int rc = opts_.host.empty() ? px_start_session(nullptr, 0, 0x401, &s)
                                : px_start_session(&contact, 1, 0x401, &s);
    return rc == PX_OK ? s : nullptr;
}

bool CliSession::classDef(const std::string& name, tarn_rmf2v::RMClassDef& out) {
    px_session_t s = session();
    if (s == nullptr) {
        return false;
    }
    if (client::classDef(*s, name, out) != PX_OK) {
        failCall();
        return false;
    }
    return true;
}

int CliSession::fail(const cu_error_t* e) {
    printError(e);
    if (opts_.json()) {
        // One line, so that a watch's one-object-per-line output stays so.
        out_ << proto::dumpJson(proto::Json{{"error", errorJson(e)}}) << '\n';
    }
    return kExitFailed;
}

int CliSession::failCall() {
    cu_error_t* e = nullptr;
    cu_get_error(&e);
    zn::ErrorPtr owned(e);
    return fail(e);
}

proto::Json CliSession::errorJson(const cu_error_t* e) {
    return e != nullptr ? proto::encodeError(*e) : proto::Json{{"id", 0}, {"text", ""}};
}

void CliSession::printError(const cu_error_t* e, const std::string& what) {
    std::string text = oneLine(cu_error_text(e));
    if (text.empty()) {
        text = "error " + std::to_string(e != nullptr ? e->cu_error_id : 0);
    }
    err_ << program_ << ": " << (what.empty() ? "" : what + ": ") << text << '\n';
}

int CliSession::failMessage(const std::string& message) {
    err_ << program_ << ": " << message << '\n';
    if (opts_.json()) {
        out_ << proto::dumpJson(proto::Json{{"error", {{"id", 0}, {"text", message}}}}) << '\n';
    }
    return kExitFailed;
}

int CliSession::usage(const std::string& message) {
    err_ << program_ << ": " << message << '\n';
    return kExitUsage;
}

}  // namespace znpex::cli
