#include "znpex/server/MethodTable.h"

#include <gtest/gtest.h>

#include <set>

#include "znpex/proto/RequestCodec.h"

namespace {

using tarn_rmf2v::RMRequestOp;
using znpex::server::findMethod;
using znpex::server::MethodKind;
using znpex::server::methodOf;
using znpex::server::OpAccess;
using znpex::server::OpTarget;

TEST(MethodTableTest, EveryOperationHasOneForwardedMethod) {
    std::set<std::string> names;
    for (RMRequestOp op : znpex::proto::allRequestOps()) {
        const auto& m = methodOf(op);
        SCOPED_TRACE(m.name);
        EXPECT_EQ(m.name, znpex::proto::rmMethod(op));
        EXPECT_EQ(m.kind, MethodKind::ManagerOp);
        EXPECT_EQ(m.op, op);
        EXPECT_EQ(m.target == OpTarget::Resource, tarn_rmf2v::isResourceOp(op));
        EXPECT_FALSE(m.localOnly || m.rootOnly || m.privileged || m.notification);
        EXPECT_EQ(findMethod(m.name), &m);
        names.insert(m.name);
    }
    EXPECT_EQ(names.size(), znpex::proto::allRequestOps().size());
}

TEST(MethodTableTest, ReadsAndWrites) {
    struct Case {
        const char* method;
        OpTarget target;
        OpAccess access;
        bool watch;
    };
    const Case cases[] = {
        {"rm.enumerateResources", OpTarget::Class, OpAccess::Read, false},
        {"rm.enumerateSelectResources", OpTarget::Class, OpAccess::Read, false},
        {"rm.getClassAttributeValues", OpTarget::Class, OpAccess::Read, false},
        {"rm.startMonitoringClassAttrs", OpTarget::Class, OpAccess::Read, true},
        {"rm.enablePersClassAttrsNotification", OpTarget::Class, OpAccess::Read, true},
        {"rm.startMonitoringMatchSet", OpTarget::Class, OpAccess::Read, true},
        {"rm.defineResource", OpTarget::Class, OpAccess::Write, false},
        {"rm.undefineResources", OpTarget::Class, OpAccess::Write, false},
        {"rm.setClassAttributeValues", OpTarget::Class, OpAccess::Write, false},
        {"rm.invokeClassAction", OpTarget::Class, OpAccess::Write, false},
        {"rm.setClassACL", OpTarget::Class, OpAccess::Write, false},
        {"rm.getAttributeValues", OpTarget::Resource, OpAccess::Read, false},
        {"rm.startMonitoringResourceAttrs", OpTarget::Resource, OpAccess::Read, true},
        {"rm.stopMonitoringResourceAttrs", OpTarget::Resource, OpAccess::Read, false},
        {"rm.getResourceACL", OpTarget::Resource, OpAccess::Read, false},
        {"rm.setAttributeValues", OpTarget::Resource, OpAccess::Write, false},
        {"rm.invokeAction", OpTarget::Resource, OpAccess::Write, false},
        {"rm.online", OpTarget::Resource, OpAccess::Write, false},
        {"rm.offline", OpTarget::Resource, OpAccess::Write, false},
        {"rm.reset", OpTarget::Resource, OpAccess::Write, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.method);
        const auto* m = findMethod(c.method);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->target, c.target);
        EXPECT_EQ(m->access, c.access);
        EXPECT_EQ(m->watch, c.watch);
    }
}

TEST(MethodTableTest, ServiceMethodsAndWhoMayCallThem) {
    struct Case {
        const char* method;
        MethodKind kind;
        bool localOnly, rootOnly, privileged, notification, managerOnly;
    };
    const Case cases[] = {
        {"session.start", MethodKind::SessionStart, false, false, false, false, false},
        {"session.end", MethodKind::SessionEnd, false, false, false, false, false},
        {"class.list", MethodKind::ClassList, false, false, false, false, false},
        {"auth.hello", MethodKind::AuthHello, false, false, false, false, false},
        {"service.status", MethodKind::Status, true, false, false, false, false},
        {"service.refreshAcl", MethodKind::RefreshAcl, true, true, false, false, false},
        {"rm.register", MethodKind::Register, true, false, true, false, false},
        {"notify.resourcesUndefined", MethodKind::NotifyResourcesUndefined, true, false, false,
         true, true},
        {"notify.attributesModified", MethodKind::NotifyAttributesModified, true, false, false,
         true, true},
        {"peer.send", MethodKind::PeerSend, true, false, false, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.method);
        const auto* m = findMethod(c.method);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->kind, c.kind);
        EXPECT_EQ(m->localOnly, c.localOnly);
        EXPECT_EQ(m->rootOnly, c.rootOnly);
        EXPECT_EQ(m->privileged, c.privileged);
        EXPECT_EQ(m->notification, c.notification);
        EXPECT_EQ(m->managerOnly, c.managerOnly);
    }
}

TEST(MethodTableTest, AnythingElseIsNotOffered) {
    for (const char* name :
         {"", "rm.", "rm.EnumerateResources", "rm.connectionChanged", "peer.received",
          "rm.enumerateResources ", "service.shutdown", "session", "class.list.all"}) {
        EXPECT_EQ(findMethod(name), nullptr) << name;
    }
}

}  // namespace
