#include "znpex/proto/ErrorCodec.h"

#include <cstdio>

#include "znpex/proto/ProtocolError.h"
#include "znpex/proto/ValueCodec.h"

namespace znpex::proto {
namespace {

Json encodeArg(const zn::MsgArg& a) {
    switch (a.kind) {
        case zn::MsgArg::Kind::Int:
            return Json{{"t", ZN_INT64}, {"v", decimal(a.i)}};
        case zn::MsgArg::Kind::UInt:
            return Json{{"t", ZN_UINT64}, {"v", decimal(a.u)}};
        case zn::MsgArg::Kind::Double: {
            zn_value_t v;
            v.val_float64 = a.d;
            return encodeValue(ZN_FLOAT64, v);
        }
        case zn::MsgArg::Kind::String:
            return Json{{"t", ZN_CHAR_PTR}, {"v", a.nullString ? Json(nullptr) : Json(a.s)}};
        case zn::MsgArg::Kind::Pointer: {
            // An address means nothing in another process: send how it reads.
            char buf[32];
            std::snprintf(buf, sizeof buf, "%p", a.p);
            return Json{{"t", ZN_CHAR_PTR}, {"v", buf}};
        }
    }
    return nullptr;
}

zn::MsgArg decodeArg(const Json& j, const std::string& where) {
    zn::OwnedValue v = decodeValue(j, where);
    zn::MsgArg a;
    switch (v.type()) {
        case ZN_INT32:
            a.kind = zn::MsgArg::Kind::Int;
            a.i = v.value().val_int32;
            break;
        case ZN_INT64:
            a.kind = zn::MsgArg::Kind::Int;
            a.i = v.value().val_int64;
            break;
        case ZN_UINT32:
            a.kind = zn::MsgArg::Kind::UInt;
            a.u = v.value().val_uint32;
            break;
        case ZN_UINT64:
            a.kind = zn::MsgArg::Kind::UInt;
            a.u = v.value().val_uint64;
            break;
        case ZN_FLOAT32:
            a.kind = zn::MsgArg::Kind::Double;
            a.d = v.value().val_float32;
            break;
        case ZN_FLOAT64:
            a.kind = zn::MsgArg::Kind::Double;
            a.d = v.value().val_float64;
            break;
        case ZN_CHAR_PTR:
            a.kind = zn::MsgArg::Kind::String;
            if (v.value().ptr_char == nullptr) {
                a.nullString = true;
            } else {
                a.s = v.value().ptr_char;
            }
            break;
        default:
            throw ProtocolError(where + ": a message argument is an integer, a float or a string");
    }
    return a;
}

}  // namespace

Json encodeError(const cu_error_t& e) {
    Json args = Json::array();
    for (const auto& a : e.cu_args) {
        args.push_back(encodeArg(a));
    }
    Json out{{"id", e.cu_error_id},      {"cat", e.cu_msg_cat},         {"set", e.cu_msg_set},
             {"num", e.cu_msg_num},      {"default", e.cu_msg_default}, {"args", std::move(args)},
             {"text", cu_error_text(&e)}};
    if (!e.cu_ffdc_id.empty()) {
        out["ffdc"] = e.cu_ffdc_id;
    }
    return out;
}

zn::ErrorPtr decodeError(const Json& j, const std::string& where) {
    requireObject(j, where);
    zn::ErrorPtr e(new cu_error_t);
    e->cu_error_id = asInt32(requireField(j, "id", where), where + ".id");
    if (const Json* f = findField(j, "cat")) {
        e->cu_msg_cat = asString(*f, where + ".cat");
    }
    if (const Json* f = findField(j, "set")) {
        e->cu_msg_set = asInt32(*f, where + ".set");
    }
    if (const Json* f = findField(j, "num")) {
        e->cu_msg_num = asInt32(*f, where + ".num");
    }
    if (const Json* f = findField(j, "default")) {
        e->cu_msg_default = asString(*f, where + ".default");
    }
    if (const Json* f = findField(j, "ffdc")) {
        e->cu_ffdc_id = asString(*f, where + ".ffdc");
    }
    if (const Json* f = findField(j, "args")) {
        const Json& arr = requireArray(*f, where + ".args");
        if (arr.size() > kMaxErrorArgs) {
            throw ProtocolError(where + ".args: more than " + std::to_string(kMaxErrorArgs) +
                                " arguments");
        }
        for (size_t i = 0; i < arr.size(); ++i) {
            e->cu_args.push_back(decodeArg(arr[i], where + ".args[" + std::to_string(i) + "]"));
        }
    }
    return e;
}

}  // namespace znpex::proto
