// The "event.fired" notification built from one shared body per event: it
// must read as the event of each registration it goes to, in the documented
// form, whatever the values' types.
#include <gtest/gtest.h>

#include "znpex/proto/JsonRpc.h"
#include "znpex/server/EventService.h"

namespace {

using znpex::proto::Json;
using znpex::server::eventBody;
using znpex::server::eventNotification;

znpex::events::EventAttr attr(const char* name, int id, bool persistent, zn::OwnedValue v) {
    znpex::events::EventAttr a;
    a.name = name;
    a.id = id;
    a.persistent = persistent;
    a.value = std::move(v);
    return a;
}

TEST(EventPayload, SharedBodyReadsAsTheEventOfEachRegistration) {
    for (bool withHandle : {false, true}) {
        for (int error : {0, 0x4000a}) {
            znpex::events::Event e;
            e.className = "Test.Power";
            e.flags = error != 0 ? znpex::events::kEventFlagError : znpex::events::kEventFlagClass;
            e.error = error;
            if (withHandle) {
                e.hasHandle = true;
                e.handle.bytes[0] = 0xab;
            }
            // An escaped name, and values the direct writer and ValueCodec each write.
            e.attrs.push_back(
                attr("Host \"name\"", 3, true,
                     zn::OwnedValue::copyOf(ZN_CHAR_PTR,
                                            zn_value_t{.ptr_char = const_cast<char*>("n1")})));
            e.attrs.push_back(
                attr("Load", 0, false,
                     zn::OwnedValue::copyOf(ZN_FLOAT64, zn_value_t{.val_float64 = -0.0})));
            unsigned char bytes[] = {1, 2, 3};
            zn_binary* bin = zn_binary_new(bytes, 3);
            e.attrs.push_back(attr("Blob", 9, false,
                                   zn::OwnedValue(ZN_BINARY_PTR, zn_value_t{.ptr_binary = bin})));
            std::string shared = eventBody(e);
            for (uint64_t watch : {uint64_t{1}, uint64_t{7}, uint64_t{18446744073709551615u}}) {
                Json want = {{"registration", watch},
                             {"class", "Test.Power"},
                             {"flags", e.flags},
                             {"attributes",
                              {{{"name", "Host \"name\""},
                                {"id", 3},
                                {"persistent", true},
                                {"t", ZN_CHAR_PTR},
                                {"v", "n1"}},
                               {{"name", "Load"},
                                {"id", 0},
                                {"persistent", false},
                                {"t", ZN_FLOAT64},
                                {"v", -0.0}},
                               {{"name", "Blob"},
                                {"id", 9},
                                {"persistent", false},
                                {"t", ZN_BINARY_PTR},
                                {"v", "AQID"}}}}};
                if (withHandle) {
                    want["handle"] = "ab" + std::string(38, '0');
                }
                if (error != 0) {
                    want["error"] = error;
                }
                znpex::proto::RpcMessage got =
                    znpex::proto::parseMessage(eventNotification(watch, shared));
                EXPECT_EQ(got.kind, znpex::proto::RpcMessage::Kind::Notification);
                EXPECT_EQ(got.method, "event.fired");
                EXPECT_EQ(got.params, want) << eventNotification(watch, shared);
                EXPECT_TRUE(std::signbit(got.params["attributes"][1]["v"].get<double>()));
            }
        }
    }
}

}  // namespace
