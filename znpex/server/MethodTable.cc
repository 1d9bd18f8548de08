#include "znpex/server/MethodTable.h"

#include <map>
#include <vector>

#include "znpex/di/DiCodec.h"
#include "znpex/proto/ClientAuth.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/server/EventService.h"
#include "znpex/server/PeerMessages.h"

namespace znpex::server {
namespace {

using tarn_rmf2v::RMRequestOp;

struct OpRow {
    RMRequestOp op;
    OpAccess access;
    bool watch;
};

constexpr OpAccess R = OpAccess::Read;
constexpr OpAccess W = OpAccess::Write;

// Every operation a client may ask of a resource manager. Reading covers
// enumerate, query, describe and watch; writing covers define, undefine,
// change, actions and online/offline.
const OpRow kOps[] = {
    {RMRequestOp::EnumerateResources, R, false},
    {RMRequestOp::EnumerateSelectResources, R, false},
    {RMRequestOp::ValidateResourceHandles, R, false},
    {RMRequestOp::DefineResource, W, false},
    {RMRequestOp::UndefineResources, W, false},
    {RMRequestOp::RefreshConfig, W, false},
    {RMRequestOp::GetClassAttributeValues, R, false},
    {RMRequestOp::SetClassAttributeValues, W, false},
    {RMRequestOp::InvokeClassAction, W, false},
    {RMRequestOp::EnablePersClassAttrsNotification, R, true},
    {RMRequestOp::DisablePersClassAttrsNotification, R, false},
    {RMRequestOp::ReportPersClassAttributeValues, R, false},
    {RMRequestOp::StartMonitoringClassAttrs, R, true},
    {RMRequestOp::StopMonitoringClassAttrs, R, false},
    {RMRequestOp::ReportDynClassAttributeValues, R, false},
    {RMRequestOp::StartMonitoringMatchSet, R, true},
    {RMRequestOp::StopMonitoringMatchSet, R, false},
    {RMRequestOp::GetClassACL, R, false},
    {RMRequestOp::SetClassACL, W, false},
    {RMRequestOp::GetNewResourceACL, R, false},
    {RMRequestOp::SetNewResourceACL, W, false},
    {RMRequestOp::GetAttributeValues, R, false},
    {RMRequestOp::SetAttributeValues, W, false},
    {RMRequestOp::InvokeAction, W, false},
    {RMRequestOp::EnablePersResourceAttrsNotification, R, true},
    {RMRequestOp::DisablePersResourceAttrsNotification, R, false},
    {RMRequestOp::ReportPersAttributeValues, R, false},
    {RMRequestOp::StartMonitoringResourceAttrs, R, true},
    {RMRequestOp::StopMonitoringResourceAttrs, R, false},
    {RMRequestOp::ReportDynAttributeValues, R, false},
    {RMRequestOp::Online, W, false},
    {RMRequestOp::Offline, W, false},
    {RMRequestOp::Reset, W, false},
    {RMRequestOp::GetResourceACL, R, false},
    {RMRequestOp::SetResourceACL, W, false},
};

struct Table {
    std::map<std::string, MethodInfo> byName;
    std::map<RMRequestOp, const MethodInfo*> byOp;

    Table() {
        auto service = [this](const char* name, MethodKind kind) -> MethodInfo& {
            MethodInfo m;
            m.name = name;
            m.kind = kind;
            return byName.emplace(m.name, m).first->second;
        };
        service(proto::kSessionStart, MethodKind::SessionStart);
        service(proto::kSessionEnd, MethodKind::SessionEnd);
        service(proto::kClassList, MethodKind::ClassList);
        MethodInfo& refresh = service(proto::kServiceRefreshAcl, MethodKind::RefreshAcl);
        refresh.localOnly = refresh.rootOnly = true;
        service(proto::kServiceStatus, MethodKind::Status).localOnly = true;
        service(proto::kAuthHello, MethodKind::AuthHello);
        service(proto::kAuthProve, MethodKind::AuthProve);
        service(kEventRegister, MethodKind::EventRegister);
        service(kEventUnregister, MethodKind::EventUnregister);
        for (auto [name, kind] : {std::pair{di::kDiRefresh, MethodKind::DiRefresh},
                                  std::pair{di::kDiTuneHeartbeat, MethodKind::DiTuneHeartbeat}}) {
            MethodInfo& d = service(name, kind);
            d.localOnly = d.privileged = true;
        }
        for (auto [name, kind] : {std::pair{di::kDiNodes, MethodKind::DiNodes},
                                  std::pair{di::kDiGroups, MethodKind::DiGroups},
                                  std::pair{di::kDiWatch, MethodKind::DiWatch}}) {
            service(name, kind).authenticated = true;
        }
        service(kPeerHello, MethodKind::PeerHello);
        service(kPeerProve, MethodKind::PeerProve);
        service(kPeerDeliver, MethodKind::PeerDeliver).peerOnly = true;
        service(kDiReplicate, MethodKind::DiReplicate).peerOnly = true;
        MethodInfo& reg = service(proto::kRmRegister, MethodKind::Register);
        reg.localOnly = reg.privileged = true;
        for (auto [name, kind] :
             {std::pair{proto::kNotifyResourcesUndefined, MethodKind::NotifyResourcesUndefined},
              std::pair{proto::kNotifyAttributesModified, MethodKind::NotifyAttributesModified},
              std::pair{proto::kPeerSend, MethodKind::PeerSend}}) {
            MethodInfo& n = service(name, kind);
            n.localOnly = n.notification = n.managerOnly = true;
        }
        for (const OpRow& row : kOps) {
            MethodInfo m;
            m.name = std::string("rm.") + tarn_rmf2v::requestOpName(row.op);
            m.kind = MethodKind::ManagerOp;
            m.op = row.op;
            m.target = tarn_rmf2v::isResourceOp(row.op) ? OpTarget::Resource : OpTarget::Class;
            m.access = row.access;
            m.watch = row.watch;
            auto it = byName.emplace(m.name, m).first;
            byOp[row.op] = &it->second;
        }
    }
};

const Table& table() {
    static const Table t;
    return t;
}

}  // namespace

const MethodInfo* findMethod(const std::string& method) {
    const auto& byName = table().byName;
    auto it = byName.find(method);
    return it == byName.end() ? nullptr : &it->second;
}

const MethodInfo& methodOf(tarn_rmf2v::RMRequestOp op) {
    return *table().byOp.at(op);
}

}  // namespace znpex::server
