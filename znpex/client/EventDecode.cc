#include "znpex/client/EventDecode.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "znpex/proto/JsonRpc.h"
#include "znpex/proto/JsonScan.h"
#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ValueCodec.h"
#include "znpex/proto/ValueText.h"

namespace znpex::client {
namespace {

char* copyText(std::string_view s) {
    auto* p = static_cast<char*>(std::malloc(s.size() + 1));
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(p, s.data(), s.size());
    p[s.size()] = '\0';
    return p;
}

RspPtr<px_event_2_t> newEvent() {
    auto* e = static_cast<px_event_2_t*>(std::calloc(1, sizeof(px_event_2_t)));
    if (e == nullptr) {
        throw std::bad_alloc();
    }
    e->hdr.pr_type = static_cast<px_response_type_t>(PX_RSP_EVENT);
    return RspPtr<px_event_2_t>(e);
}

void reserveAttrs(px_event_2_t& e, size_t n) {
    if (n > 0) {
        e.pe_attrs = static_cast<px_event_attr_t*>(std::calloc(n, sizeof(px_event_attr_t)));
        if (e.pe_attrs == nullptr) {
            throw std::bad_alloc();
        }
    }
}

// One attribute object, members in any order but "t" before "v".
bool scanAttr(proto::JsonScan& s, px_event_attr_t& out) {
    if (!s.beginObject()) {
        return false;
    }
    std::string_view k;
    unsigned seen = 0;
    zn_data_type_t t = ZN_UNKNOWN;
    zn::OwnedValue v;
    std::string_view name;
    int64_t id = 0;
    bool persistent = false;
    while (s.nextKey(k)) {
        unsigned bit = k == "name"         ? 1
                       : k == "id"         ? 2
                       : k == "persistent" ? 4
                       : k == "t"          ? 8
                       : k == "v"          ? 16
                                           : 0;
        if (bit == 0 || (seen & bit) != 0 || (bit == 16 && (seen & 8) == 0)) {
            return s.fail();
        }
        seen |= bit;
        bool ok = bit == 1   ? s.string(name)
                  : bit == 2 ? s.int64(id) && id >= std::numeric_limits<int32_t>::min() &&
                                   id <= std::numeric_limits<int32_t>::max()
                  : bit == 4 ? s.boolean(persistent)
                  : bit == 8 ? proto::scanTypeCode(s, t)
                             : proto::scanBareValue(s, t, v);
        if (!ok) {
            return s.fail();
        }
    }
    if (!s.ok() || (seen & (1 | 2 | 8 | 16)) != (1 | 2 | 8 | 16)) {
        return s.fail();
    }
    out.pe_name = copyText(name);
    out.pe_id = static_cast<int32_t>(id);
    out.pe_type = v.type();
    out.pe_value = v.release();
    return true;
}

bool scanParams(proto::JsonScan& s, px_event_2_t& e) {
    if (!s.beginObject()) {
        return false;
    }
    std::string_view k;
    unsigned seen = 0;
    // Freed here unless handed to `e`.
    struct Attrs {
        std::vector<px_event_attr_t> v;
        ~Attrs() {
            for (px_event_attr_t& a : v) {
                std::free(a.pe_name);
                zn_value_free(a.pe_type, a.pe_value);
            }
        }
    } held;
    std::vector<px_event_attr_t>& attrs = held.v;
    while (s.nextKey(k)) {
        unsigned bit = k == "registration" ? 1
                       : k == "class"      ? 2
                       : k == "flags"      ? 4
                       : k == "error"      ? 8
                       : k == "handle"     ? 16
                       : k == "attributes" ? 32
                                           : 0;
        if (bit == 0 || (seen & bit) != 0) {
            return s.fail();
        }
        seen |= bit;
        std::string_view text;
        uint64_t u = 0;
        int64_t i = 0;
        bool ok = true;
        switch (bit) {
            case 1:
                ok = s.uint64(e.pe_registration);
                break;
            case 2:
                ok = s.string(text);
                if (ok) {
                    e.pe_class = copyText(text);
                }
                break;
            case 4:
                ok = s.uint64(u) && u <= std::numeric_limits<uint32_t>::max();
                e.pe_flags = static_cast<uint32_t>(u);
                break;
            case 8:
                ok = s.int64(i) && i >= std::numeric_limits<int32_t>::min() &&
                     i <= std::numeric_limits<int32_t>::max();
                e.pe_errnum = static_cast<int32_t>(i);
                break;
            case 16:
                ok = s.string(text) && proto::parseHandleHex(text, e.pe_handle);
                e.pe_has_handle = 1;
                break;
            default:
                ok = s.beginArray();
                while (ok && s.nextElement()) {
                    ok = scanAttr(s, attrs.emplace_back());
                    if (!ok) {
                        attrs.pop_back();
                    }
                }
                ok = ok && s.ok();
                break;
        }
        if (!ok) {
            return s.fail();
        }
    }
    if (!s.ok() || (seen & (1 | 2 | 4 | 32)) != (1 | 2 | 4 | 32)) {
        return false;
    }
    reserveAttrs(e, attrs.size());
    std::copy(attrs.begin(), attrs.end(), e.pe_attrs);
    e.pe_attr_count = static_cast<uint32_t>(attrs.size());
    attrs.clear();
    return true;
}

}  // namespace

RspPtr<px_event_2_t> eventFromParams(const proto::Json& p) {
    RspPtr<px_event_2_t> owned = newEvent();
    px_event_2_t* e = owned.get();
    e->pe_registration = p.at("registration").get<uint64_t>();
    e->pe_class = copyText(p.at("class").get<std::string>());
    e->pe_flags = p.at("flags").get<uint32_t>();
    if (const proto::Json* err = proto::findField(p, "error"); err != nullptr) {
        e->pe_errnum = err->get<int32_t>();
    }
    if (const proto::Json* h = proto::findField(p, "handle"); h != nullptr) {
        e->pe_handle = proto::handleFromHex(*h, "event.handle");
        e->pe_has_handle = 1;
    }
    const proto::Json& attrs = p.at("attributes");
    if (!attrs.is_array()) {
        throw proto::ProtocolError("event.attributes must be an array");
    }
    reserveAttrs(*e, attrs.size());
    for (const proto::Json& a : attrs) {
        px_event_attr_t& out = e->pe_attrs[e->pe_attr_count];
        // Everything that may throw first; then the attribute is the event's.
        zn::OwnedValue v = proto::decodeValue(a, "event.attributes");
        std::string name = a.at("name").get<std::string>();
        int32_t id = a.at("id").get<int32_t>();
        out.pe_name = copyText(name);
        out.pe_id = id;
        out.pe_type = v.type();
        out.pe_value = v.release();
        ++e->pe_attr_count;
    }
    return owned;
}

RspPtr<px_event_2_t> eventFromText(std::string_view frame) {
    RspPtr<px_event_2_t> e;  // made once the params come: replies cost nothing
    if (!proto::scanNotification(frame, "event.fired", [&e](proto::JsonScan& s) {
            e = newEvent();
            return scanParams(s, *e);
        })) {
        return nullptr;
    }
    return e;
}

}  // namespace znpex::client
