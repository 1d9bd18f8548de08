#include "znpex/proto/AttributesModifiedText.h"

#include <limits>
#include <vector>

#include "znpex/proto/JsonRpc.h"
#include "znpex/proto/JsonScan.h"
#include "znpex/proto/JsonWriter.h"
#include "znpex/proto/ServiceMessages.h"
#include "znpex/proto/ValueCodec.h"
#include "znpex/proto/ValueText.h"

namespace znpex::proto {
namespace {

// One attribute: {"id":..,"t":..,"v":..} in that order.
bool scanAttr(JsonScan& s, tarn_rmf2v::RMReplyAttr& out) {
    std::string_view k;
    int64_t id = 0;
    zn_data_type_t t = ZN_UNKNOWN;
    if (!s.beginObject() || !s.nextKey(k) || k != "id" || !s.int64(id) ||
        id < std::numeric_limits<int32_t>::min() || id > std::numeric_limits<int32_t>::max() ||
        !s.nextKey(k) || k != "t" || !scanTypeCode(s, t) || !s.nextKey(k) || k != "v" ||
        !scanBareValue(s, t, out.value)) {
        return s.fail();
    }
    out.id = static_cast<int32_t>(id);
    return !s.nextKey(k) && s.ok();
}

bool scanParams(JsonScan& s, AttributesModified& n) {
    if (!s.beginObject()) {
        return false;
    }
    std::string_view k;
    unsigned seen = 0;
    auto once = [&](unsigned bit) {
        bool fresh = (seen & bit) == 0;
        seen |= bit;
        return fresh;
    };
    while (s.nextKey(k)) {
        if (k == "class" && once(1)) {
            std::string_view cls;
            if (!s.string(cls)) {
                return false;
            }
            n.className.assign(cls);
        } else if (k == "handle" && once(2)) {
            std::string_view hex;
            if (!s.string(hex) || !parseHandleHex(hex, n.handle)) {
                return s.fail();
            }
            n.hasHandle = true;
        } else if (k == "persistent" && once(4)) {
            if (!s.boolean(n.persistent)) {
                return false;
            }
        } else if (k == "values" && once(8)) {
            if (!s.beginArray()) {
                return false;
            }
            while (s.nextElement()) {
                if (!scanAttr(s, n.values.emplace_back())) {
                    return false;
                }
            }
        } else {
            return s.fail();
        }
    }
    return s.ok() && (seen & (1 | 4 | 8)) == (1 | 4 | 8);
}

}  // namespace

std::string attributesModifiedNotification(const std::string& className,
                                           const zn_resource_handle* handle, bool persistent,
                                           const rm_attribute_value* values, unsigned int count) {
    std::string out;
    out.reserve(160 + 48 * count);
    JsonWriter w(out);
    w.beginObject().key("jsonrpc").string("2.0").key("method").string(kNotifyAttributesModified);
    w.key("params").beginObject().key("class").string(className);
    if (handle != nullptr) {
        w.key("handle").string(handleToHex(*handle));
    }
    w.key("persistent").boolean(persistent).key("values").beginArray();
    for (unsigned int i = 0; values != nullptr && i < count; ++i) {
        w.beginObject().key("id").integer(values[i].rm_attribute_id);
        writeTypedMembers(w, values[i].rm_data_type, values[i].rm_value);
        w.endObject();
    }
    w.endArray().endObject().endObject();
    return out;
}

std::string attributesModifiedNotification(const AttributesModified& n) {
    std::vector<rm_attribute_value> values;
    values.reserve(n.values.size());
    for (const tarn_rmf2v::RMReplyAttr& a : n.values) {
        values.push_back({a.id, a.value.type(), a.value.value()});
    }
    return attributesModifiedNotification(n.className, n.hasHandle ? &n.handle : nullptr,
                                          n.persistent, values.data(),
                                          static_cast<unsigned int>(values.size()));
}

std::optional<AttributesModified> scanAttributesModifiedNotification(std::string_view payload) {
    AttributesModified n;
    if (!scanNotification(payload, kNotifyAttributesModified,
                          [&n](JsonScan& s) { return scanParams(s, n); })) {
        return std::nullopt;
    }
    return n;
}

}  // namespace znpex::proto
