// Client interface of the monitoring service: sessions, class descriptions,
// enumeration, attribute queries and changes, define and undefine, actions,
// online and offline. Every call returns 0 or a PX_E* code; on failure it also
// sets the calling thread's platform error (cu_get_error gives the catalogue
// error: the service's own when the service refused the request). A request
// the resource manager answered with an error still returns 0: the error is
// in the response (and per resource in its entries). Responses are allocated
// by the library and released with px_free_response.
//
// Threads: a session may be shared; its calls are serialised (one request on
// the wire at a time per session). Use one session per thread for parallel
// requests.
// Ending: px_end_session may be called on any thread, also while other calls
// on the session run there. From the moment it begins, no call enters the
// session: px_dispatch returns PX_DISPATCH_ENDED (4), the others PX_EINVAL.
// A px_dispatch running on another thread is woken and returns 4 at once
// (after the callback it may be in), and px_end_session waits for that, so
// once it has returned no callback of the session runs (so do not end a
// session holding a lock its callbacks take); a callback may end its own
// session. A request under way finishes (or times out) first. The
// session's memory goes when the last call on it has left. The library keeps
// the handles of its live sessions, so a call made with the handle of an
// ended session is refused rather than harmful, until a later
// px_start_session gives out the same handle again: do not keep using one.
// Timeouts: connecting and every request are bounded (px_set_timeouts).
#pragma once

#include <cstdint>

#include "platform/cu_error.h"
#include "platform/zn_types.h"

// Results.
inline constexpr int PX_OK = 0;
inline constexpr int PX_EINVAL = 1;  // a bad argument, an unknown attribute or action name
inline constexpr int PX_ENOMEM = 2;
inline constexpr int PX_ECONNECT = 3;  // the service cannot be reached
inline constexpr int PX_ECOMM = 5;     // the connection failed or the service's answer was unusable
inline constexpr int PX_ETIMEDOUT = 6;      // no answer in time; the session stays usable
inline constexpr int PX_EACCESS = 7;        // the service's access control list refused the request
inline constexpr int PX_ENOTCONNECTED = 8;  // the class's resource manager is not connected
inline constexpr int PX_EFAILED = 9;        // the service could not carry out the request
inline constexpr int PX_ENOMETHOD = 10;     // the service does not offer the request (here)
// A session option this client does not offer: anything but 1, 0x401, 4 and 0x404.
inline constexpr int PX_ENOTSUPPORTED = 39;

// Session options: 1 and 0x401 open a session with one host's service; 4
// and 0x404 a domain-scoped one: the service asks every host of its
// management domain and joins the answers (handles and resource entries of
// all hosts; requests naming handles go to the hosts that own them). Hosts
// that failed or did not answer in time are listed in each response's
// pr_host_errors. Event registrations stay with the contacted host.
typedef uint32_t px_session_opts_t;
enum : px_session_opts_t {
    PX_SCOPE_LOCAL = 0x001,
    PX_SCOPE_DOMAIN = 0x004,
    PX_SESSION_EXTENDED = 0x400,
};

inline constexpr int PX_DEFAULT_PORT = 657;

// One entry of a contact list: null or "localhost" is this host's service
// over its local socket; anything else "host[:port]" ("[v6addr]:port") over
// TCP. Entries are tried in order until one answers.
struct px_contact_t {
    const char* pc_host;
};

typedef struct px_session* px_session_t;

// An attribute given to define or change a resource.
struct px_attr_t {
    const char* pa_name;
    zn_data_type_t pa_type;
    zn_value_t pa_value;
};

// An attribute in a response: name, id, type, value (owned by the response),
// and the error of this attribute alone (null when it has a value).
struct px_attr_value_t {
    char* pv_name;
    int32_t pv_id;
    zn_data_type_t pv_type;
    zn_value_t pv_value;
    cu_error_t* pv_error;
};

enum px_response_type_t : int32_t {
    PX_RSP_ENUMERATE = 1,
    PX_RSP_DEFINE = 2,
    PX_RSP_RESOURCES = 3,
    PX_RSP_CLASSES = 4,
};

// Every response starts with this header. error: the request as a whole
// failed (the resource manager's answer); null otherwise.
// A host of the management domain whose part of a domain-scoped request
// failed: its name and why.
struct px_host_error_t {
    char* ph_host;
    cu_error_t* ph_error;
};

// pr_host_errors: only on domain-scoped sessions, else none.
struct px_rsp_hdr_t {
    px_response_type_t pr_type;
    cu_error_t* pr_error;
    px_host_error_t* pr_host_errors;
    uint32_t pr_host_error_count;
};

struct px_enumerate_rsp_t {
    px_rsp_hdr_t hdr;
    zn_resource_handle* handles;
    uint32_t handle_count;
};

struct px_define_rsp_t {
    px_rsp_hdr_t hdr;
    int has_handle;
    zn_resource_handle handle;
};

// One resource's part of a response (class requests: one entry, handle all
// zero, is_class 1).
struct px_resource_rsp_t {
    zn_resource_handle handle;
    int is_class;
    cu_error_t* error;       // this resource's request failed
    px_attr_value_t* attrs;  // queries: values; changes: one entry per attribute id
    uint32_t attr_count;
    zn_structured_data** data;  // actions: the data the action returned
    uint32_t data_count;
};

struct px_resources_rsp_t {
    px_rsp_hdr_t hdr;
    px_resource_rsp_t* resources;
    uint32_t resource_count;
};

struct px_attr_def_t {
    char* name;
    int32_t id;
    zn_data_type_t type;
    uint32_t properties;
};

struct px_action_def_t {
    char* name;
    int32_t id;
    zn_data_type_t* input;
    uint32_t input_count;
};

struct px_class_def_t {
    char* name;
    char* rm_name;
    int connected;
    px_attr_def_t* class_persistent;
    uint32_t class_persistent_count;
    px_attr_def_t* class_dynamic;
    uint32_t class_dynamic_count;
    px_attr_def_t* persistent;
    uint32_t persistent_count;
    px_attr_def_t* dynamic;
    uint32_t dynamic_count;
    px_action_def_t* class_actions;
    uint32_t class_action_count;
    px_action_def_t* actions;
    uint32_t action_count;
};

struct px_class_list_t {
    px_rsp_hdr_t hdr;
    px_class_def_t* classes;
    uint32_t class_count;
};

// Sessions. Options other than 1, 0x401, 4 and 0x404 return PX_ENOTSUPPORTED.
int px_start_session(const px_contact_t* contacts, uint32_t contact_count,
                     px_session_opts_t options, px_session_t* session);
// PX_EINVAL when the session was ended, or is ending, already.
int px_end_session(px_session_t session);
// Milliseconds; <= 0 keeps the current value. Defaults: connect 5000,
// request 30000. The process-wide defaults apply to sessions started later.
int px_set_default_timeouts(int connect_ms, int request_ms);
int px_set_timeouts(px_session_t session, int request_ms);
// The host name that TCP sessions started from now on claim and prove with
// this host's key, when the calling process can read it ("root@<host>" is
// then the session's identity); null or "": the system's host name.
// Process-wide. PX_EINVAL for a name that is not a host name.
int px_set_client_host(const char* host);
// The identity the service gave this session ("root@LOCALHOST", ...); owned
// by the session.
const char* px_session_identity(px_session_t session);
// The name the session's service greets the other hosts' services under (a
// host trusting its key must list it under that name); "" over the local
// socket or when the service did not say. Owned by the session.
const char* px_session_service_host(px_session_t session);

// Classes the caller may read, with their attributes and actions.
int px_list_classes(px_session_t session, px_class_list_t** rsp);

// Resources of a class; selection null or "" selects all.
int px_enumerate_select(px_session_t session, const char* class_name, const char* selection,
                        px_enumerate_rsp_t** rsp);

// Attribute queries. names null (count 0): every attribute of the kind. The
// resource forms take handles or a selection; the response has one entry
// per resource.
int px_query_persistent_attrs(px_session_t session, const char* class_name,
                              const zn_resource_handle* handles, uint32_t handle_count,
                              const char* const* names, uint32_t name_count,
                              px_resources_rsp_t** rsp);
int px_query_dynamic_attrs(px_session_t session, const char* class_name,
                           const zn_resource_handle* handles, uint32_t handle_count,
                           const char* const* names, uint32_t name_count, px_resources_rsp_t** rsp);
int px_query_persistent_attrs_select(px_session_t session, const char* class_name,
                                     const char* selection, const char* const* names,
                                     uint32_t name_count, px_resources_rsp_t** rsp);
int px_query_dynamic_attrs_select(px_session_t session, const char* class_name,
                                  const char* selection, const char* const* names,
                                  uint32_t name_count, px_resources_rsp_t** rsp);
int px_query_persistent_class_attrs(px_session_t session, const char* class_name,
                                    const char* const* names, uint32_t name_count,
                                    px_resources_rsp_t** rsp);
int px_query_dynamic_class_attrs(px_session_t session, const char* class_name,
                                 const char* const* names, uint32_t name_count,
                                 px_resources_rsp_t** rsp);

// Define: the attributes (types must match the class) and define options.
int px_define_resource(px_session_t session, const char* class_name, const px_attr_t* attrs,
                       uint32_t attr_count, const zn_structured_data* options,
                       px_define_rsp_t** rsp);
int px_undefine_resource(px_session_t session, const char* class_name,
                         const zn_resource_handle* handles, uint32_t handle_count,
                         const zn_structured_data* options, px_resources_rsp_t** rsp);
int px_undefine_select(px_session_t session, const char* class_name, const char* selection,
                       const zn_structured_data* options, px_resources_rsp_t** rsp);

// Attribute changes.
int px_set_attrs(px_session_t session, const char* class_name, const zn_resource_handle* handles,
                 uint32_t handle_count, const px_attr_t* attrs, uint32_t attr_count,
                 px_resources_rsp_t** rsp);
int px_set_attrs_select(px_session_t session, const char* class_name, const char* selection,
                        const px_attr_t* attrs, uint32_t attr_count, px_resources_rsp_t** rsp);
int px_set_class_attrs(px_session_t session, const char* class_name, const px_attr_t* attrs,
                       uint32_t attr_count, px_resources_rsp_t** rsp);

// Actions, by name; input may be null.
int px_invoke_class_action(px_session_t session, const char* class_name, const char* action,
                           const zn_structured_data* input, px_resources_rsp_t** rsp);
int px_invoke_action(px_session_t session, const char* class_name,
                     const zn_resource_handle* handles, uint32_t handle_count, const char* action,
                     const zn_structured_data* input, px_resources_rsp_t** rsp);
int px_invoke_action_select(px_session_t session, const char* class_name, const char* selection,
                            const char* action, const zn_structured_data* input,
                            px_resources_rsp_t** rsp);

// Online (on the given nodes, none: the manager decides) and offline.
int px_online(px_session_t session, const char* class_name, const zn_resource_handle* handles,
              uint32_t handle_count, const uint64_t* node_ids, uint32_t node_count,
              const zn_structured_data* options, px_resources_rsp_t** rsp);
int px_offline(px_session_t session, const char* class_name, const zn_resource_handle* handles,
               uint32_t handle_count, uint32_t offline_options, const zn_structured_data* options,
               px_resources_rsp_t** rsp);

// Releases any response of this interface (null is ignored).
void px_free_response(void* rsp);
