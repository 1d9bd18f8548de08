// JSON form of a class definition as "rm.register" sends it and "class.list"
// shows it: {"class", "classPersistent", "classDynamic", "persistent",
// "dynamic": [{"name", "id", "t", "props"}], "classActions", "actions":
// [{"name", "id", "input": [t]}]}; "class.list" adds "rm" and "connected".
// Decoders throw ProtocolError. Thread-safe.
#pragma once

#include <string>
#include <vector>

#include "tarn_rmf2v/RMClassDef.h"
#include "znpex/proto/Json.h"

namespace znpex::proto {

// Limits on one class definition, checked when decoding.
inline constexpr size_t kMaxAttrsPerList = 4096;
inline constexpr size_t kMaxNameLength = 256;

Json encodeClassDef(const tarn_rmf2v::RMClassDef& def);
tarn_rmf2v::RMClassDef decodeClassDef(const Json& j, const std::string& where);

// One entry of "class.list".
struct ClassInfo {
    tarn_rmf2v::RMClassDef def;
    std::string rm;
    bool connected = false;
};

Json encodeClassInfo(const ClassInfo& c);
ClassInfo decodeClassInfo(const Json& j, const std::string& where);
std::vector<ClassInfo> decodeClassList(const Json& result);

// Lookups in a definition; null when absent.
const tarn_rmf2v::RMAttrDef* findAttr(const std::vector<tarn_rmf2v::RMAttrDef>& list,
                                      const std::string& name);
const tarn_rmf2v::RMActionDef* findAction(const std::vector<tarn_rmf2v::RMActionDef>& list,
                                          const std::string& name);

}  // namespace znpex::proto
