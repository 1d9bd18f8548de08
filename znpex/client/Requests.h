// The steps the px_ calls share: checking arguments, turning attribute and
// action names into ids (with the class's data types), finding the handles a
// selection picks, and running one request per resource into a response.
// Each returns PX_OK or a failure code with the thread's error set. Callers
// hold no lock; the session serialises the wire.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tarn_rmf2v/RMClassDef.h"
#include "tarn_rmf2v/RMRequest.h"
#include "znpex/client/Responses.h"
#include "znpex/client/Session.h"

namespace znpex::client {

// Which attributes a request addresses.
enum class AttrScope { ClassPersistent, ClassDynamic, Persistent, Dynamic };
const std::vector<tarn_rmf2v::RMAttrDef>& attrList(const tarn_rmf2v::RMClassDef& def,
                                                   AttrScope scope);
const char* scopeName(AttrScope scope);

// Common argument checks: session, class name and response pointer present,
// a handle array when handles are counted.
int checkArgs(const char* fn, px_session_t s, const char* className, const void* rsp);
int checkHandles(const char* fn, const zn_resource_handle* handles, uint32_t count);

// names null: every attribute of the scope.
int attrIds(const tarn_rmf2v::RMClassDef& def, AttrScope scope, const char* const* names,
            uint32_t count, std::vector<int>& ids);
// Owned copies of the given values, checked against the class's types.
int attrValues(const char* fn, const tarn_rmf2v::RMClassDef& def, AttrScope scope,
               const px_attr_t* attrs, uint32_t count, std::vector<tarn_rmf2v::RMReplyAttr>& out);
int actionId(const tarn_rmf2v::RMClassDef& def, bool classAction, const char* name, int& id);

// Handles picked by a selection (null or "": all). A reply error is not a
// failure: it comes back in `reply` with no handles.
int selectHandles(px_session& s, const std::string& className, const char* selection,
                  tarn_rmf2v::RMReply& reply);

// One request per handle (or one class request when handles is null), each
// made by `make` and answered into its own entry.
using RequestMaker = std::function<tarn_rmf2v::RMRequest()>;
int perResource(px_session& s, const RequestMaker& make,
                const std::vector<zn_resource_handle>* handles,
                const std::vector<tarn_rmf2v::RMAttrDef>* defs, px_resources_rsp_t** rsp);
// Runs perResource over the handles a selection picks; an enumeration that
// answered with an error gives a response carrying that error and no entries.
int perSelected(px_session& s, const std::string& className, const char* selection,
                const RequestMaker& make, const std::vector<tarn_rmf2v::RMAttrDef>* defs,
                px_resources_rsp_t** rsp);

// What a px_ call addresses: the class itself, given handles, or the
// resources a selection picks.
enum class Target { Class, Handles, Selection };
// perResource or perSelected, as `target` says.
int perTarget(px_session& s, Target target, const std::string& className,
              const zn_resource_handle* handles, uint32_t handleCount, const char* selection,
              const RequestMaker& make, const std::vector<tarn_rmf2v::RMAttrDef>* defs,
              px_resources_rsp_t** rsp);

// Maps an escaping allocation failure to PX_ENOMEM.
int guarded(const char* fn, const std::function<int()>& body);
// guarded() as one call on session s (SessionLife.h): refused with PX_EINVAL
// once the session is ending.
int onSession(const char* fn, px_session_t s, const std::function<int()>& body);

}  // namespace znpex::client
