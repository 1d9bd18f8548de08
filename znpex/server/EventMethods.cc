// The router's event methods: "event.register" checks the params and the
// caller's right to read the class, then hands the watch to the event
// service; "event.unregister" ends one of the caller's own watches.
#include <stdexcept>

#include "tarn_rmf/registry/RMTableError.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/server/Router.h"
#include "znpex/server/ServiceErrors.h"

namespace znpex::server {
namespace {

using proto::Json;

std::string stringField(const Json& params, const char* name, bool required) {
    const Json* f = proto::findField(params, name);
    if (f == nullptr || f->is_null()) {
        if (required) {
            throw proto::ProtocolError(std::string("params.") + name + " is required");
        }
        return {};
    }
    if (!f->is_string()) {
        throw proto::ProtocolError(std::string("params.") + name + " must be a string");
    }
    return f->get<std::string>();
}

events::WatchSpec decodeWatch(const Json& params) {
    if (!params.is_object()) {
        throw proto::ProtocolError("params must be an object");
    }
    events::WatchSpec s;
    s.className = stringField(params, "class", true);
    s.selection = stringField(params, "selection", false);
    s.expression = stringField(params, "expression", true);
    s.rearm = stringField(params, "rearm", false);
    if (const Json* cl = proto::findField(params, "classLevel"); cl != nullptr && !cl->is_null()) {
        if (!cl->is_boolean()) {
            throw proto::ProtocolError("params.classLevel must be true or false");
        }
        s.classLevel = cl->get<bool>();
    }
    if (const Json* a = proto::findField(params, "attributes"); a != nullptr && !a->is_null()) {
        if (!a->is_array()) {
            throw proto::ProtocolError("params.attributes must be an array of names");
        }
        for (const Json& n : *a) {
            if (!n.is_string()) {
                throw proto::ProtocolError("params.attributes must be an array of names");
            }
            s.attributes.push_back(n.get<std::string>());
        }
    }
    if (s.className.empty() || s.expression.empty()) {
        throw proto::ProtocolError("params.class and params.expression must not be empty");
    }
    return s;
}

}  // namespace

void Router::eventRegister(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m) {
    events::WatchSpec spec = decodeWatch(m.params);
    const std::string& cls = spec.className;
    auto rules = acl_.rules();
    OpTarget target = spec.classLevel ? OpTarget::Class : OpTarget::Resource;
    const std::string identity = identityOf(*c);
    // Watching is not something asking to be managed needs.
    if (identity == proto::kUnauthenticated ||
        !isAllowed(*rules, identity, cls, target, OpAccess::Read)) {
        denied_.fetch_add(1);
        replyFailure(c, m.id, proto::kPermissionDenied, *permissionDenied(identity, m.method, cls));
        return;
    }
    const ClassEntry* entry = nullptr;
    std::vector<ClassEntry> all = registry_.classes();
    for (const ClassEntry& e : all) {
        if (e.def.name == cls) {
            entry = &e;
        }
    }
    if (entry == nullptr) {
        replyFailure(c, m.id, proto::kOperationFailed, *unknownClass(cls));
        return;
    }
    uint64_t id = 0;
    try {
        id = events_->add(c, identity, spec, entry->def);
    } catch (const tarn_rmf::RMTableError& e) {
        if (e.getError() != nullptr) {
            replyFailure(c, m.id, proto::kInvalidParams, *e.getError());
        } else {
            replyError(c, m.id, proto::kInvalidParams, e.what());
        }
        return;
    } catch (const std::invalid_argument& e) {
        replyError(c, m.id, proto::kInvalidParams, e.what());
        return;
    }
    replyResult(c, m.id, Json{{"registration", id}});
}

void Router::eventUnregister(const std::shared_ptr<Connection>& c, const proto::RpcMessage& m) {
    const Json* reg = m.params.is_object() ? proto::findField(m.params, "registration") : nullptr;
    if (reg == nullptr || !reg->is_number_unsigned()) {
        replyError(c, m.id, proto::kInvalidParams, "params.registration must be a registration id");
        return;
    }
    uint64_t id = reg->get<uint64_t>();
    if (!events_->remove(c->id(), id)) {
        replyError(c, m.id, proto::kInvalidParams,
                   "this session has no event registration " + std::to_string(id));
        return;
    }
    replyResult(c, m.id, Json{{"ok", true}});
}

}  // namespace znpex::server
