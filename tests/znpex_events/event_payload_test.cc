// The "event.fired" notification built from one shared body per event: it
// must read back exactly as the notification encoded for each watch alone.
#include <gtest/gtest.h>

#include "znpex/proto/JsonRpc.h"
#include "znpex/server/EventService.h"

namespace {

using znpex::proto::Json;
using znpex::server::encodeEvent;
using znpex::server::eventNotification;

znpex::events::Event sample(bool withHandle, int error) {
    znpex::events::Event e;
    e.watch = 7;
    e.className = "Test.Power";
    e.flags = error != 0 ? znpex::events::kEventFlagError : znpex::events::kEventFlagClass;
    e.error = error;
    if (withHandle) {
        e.hasHandle = true;
        e.handle.bytes[0] = 0xab;
    }
    znpex::events::EventAttr a;
    a.name = "Host \"name\"";
    a.id = 3;
    a.value = zn::OwnedValue::copyOf(ZN_CHAR_PTR, zn_value_t{.ptr_char = const_cast<char*>("n1")});
    e.attrs.push_back(std::move(a));
    return e;
}

TEST(EventPayload, SharedBodyReadsAsTheEventOfEachRegistration) {
    for (bool withHandle : {false, true}) {
        for (int error : {0, 0x4000a}) {
            znpex::events::Event e = sample(withHandle, error);
            Json body = encodeEvent(e);
            body.erase("registration");
            std::string shared = znpex::proto::dumpJson(body);
            for (uint64_t watch : {uint64_t{1}, uint64_t{7}, uint64_t{18446744073709551615u}}) {
                e.watch = watch;
                Json want = znpex::proto::makeNotification("event.fired", encodeEvent(e));
                znpex::proto::RpcMessage got =
                    znpex::proto::parseMessage(eventNotification(watch, shared));
                EXPECT_EQ(got.kind, znpex::proto::RpcMessage::Kind::Notification);
                EXPECT_EQ(got.method, "event.fired");
                EXPECT_EQ(got.params, want["params"]) << eventNotification(watch, shared);
            }
        }
    }
}

}  // namespace
