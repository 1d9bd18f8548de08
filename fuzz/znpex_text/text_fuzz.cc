// Fuzz target for the direct text road of the hot messages, held against
// the general parser and decoders on the same bytes: whatever the direct
// reader accepts (any JSON, a "notify.attributesModified", an "event.fired")
// the general road must accept and read the same way; strings the direct
// writer prints must be what dumpJson prints.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "tests/support/ScanWalk.h"
#include "znpex/client/EventDecode.h"
#include "znpex/proto/AttributesModifiedText.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/proto/JsonWriter.h"
#include "znpex/proto/ServiceMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using namespace znpex::proto;

using fuzzsupport::check;

// Floats by their bits: the sign of zero and NaN count.
bool sameValue(zn_data_type_t t, const zn_value_t& a, const zn_value_t& b) {
    if (t == ZN_FLOAT64) {
        return std::memcmp(&a.val_float64, &b.val_float64, sizeof a.val_float64) == 0;
    }
    if (t == ZN_FLOAT32) {
        return std::memcmp(&a.val_float32, &b.val_float32, sizeof a.val_float32) == 0;
    }
    return zn_value_equal(t, a, b);
}

bool sameEvent(const px_event_2_t& a, const px_event_2_t& b) {
    bool same = a.pe_registration == b.pe_registration &&
                std::strcmp(a.pe_class, b.pe_class) == 0 && a.pe_flags == b.pe_flags &&
                a.pe_errnum == b.pe_errnum && a.pe_has_handle == b.pe_has_handle &&
                std::memcmp(a.pe_handle.bytes, b.pe_handle.bytes, sizeof a.pe_handle.bytes) == 0 &&
                a.pe_attr_count == b.pe_attr_count;
    for (uint32_t i = 0; same && i < a.pe_attr_count; ++i) {
        const px_event_attr_t& x = a.pe_attrs[i];
        const px_event_attr_t& y = b.pe_attrs[i];
        same = std::strcmp(x.pe_name, y.pe_name) == 0 && x.pe_id == y.pe_id &&
               x.pe_type == y.pe_type && sameValue(x.pe_type, x.pe_value, y.pe_value);
    }
    return same;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);

    if (auto scanned = testsupport::scanWalk(text)) {
        Json general;
        try {
            general = parseJson(text);
        } catch (const ProtocolError&) {
            check(false, "the general parser refuses a text the scan read");
        }
        check(*scanned == testsupport::numbersAsDoubles(general), "scan and parser differ");
    }

    if (auto direct = scanAttributesModifiedNotification(text)) {
        RpcMessage m = parseMessage(text);  // throws, and so fails, if refused
        check(m.kind == RpcMessage::Kind::Notification && m.method == kNotifyAttributesModified,
              "attribute change read as another message");
        AttributesModified general = decodeAttributesModified(m.params);
        check(dumpJson(encodeAttributesModified(*direct)) ==
                  dumpJson(encodeAttributesModified(general)),
              "attribute change read differently");
    }

    if (auto direct = znpex::client::eventFromText(text)) {
        RpcMessage m = parseMessage(text);
        check(m.kind == RpcMessage::Kind::Notification && m.method == "event.fired",
              "event read as another message");
        auto general = znpex::client::eventFromParams(m.params);
        check(sameEvent(*direct, *general), "event read differently");
    }

    std::string printed;
    JsonWriter(printed).string(text);
    check(printed == dumpJson(Json(text)), "string printed differently");
    return 0;
}
