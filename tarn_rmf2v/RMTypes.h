// Value types of the framework's request interface: attribute values,
// monitoring requests and the small enumerations the control points receive.
#pragma once

#include <cstdint>

#include "platform/zn_types.h"

// One attribute of a request or report: id (position in the class's attribute
// table), data type and value.
struct rm_attribute_value {
    int32_t rm_attribute_id;
    zn_data_type_t rm_data_type;
    zn_value_t rm_value;
};

// An attribute to start monitoring, with its options.
struct rm_monitoring_data {
    int32_t rm_attribute_id;
    uint32_t rm_options;
};

enum rm_object_type : int32_t { RM_OBJECT_CLASS = 0, RM_OBJECT_RESOURCE = 1 };

// The state of the connection to the monitoring service.
enum rm_conn_changed : int32_t { RM_CONNECTION_LOST = 0, RM_CONNECTION_ESTABLISHED = 1 };

enum rm_async_error_level : int32_t {
    RM_ASYNC_ERROR_INFO = 0,
    RM_ASYNC_ERROR_WARNING = 1,
    RM_ASYNC_ERROR_SEVERE = 2
};

enum rm_offline_opts : uint32_t { RM_OFFLINE_NORMAL = 0, RM_OFFLINE_FORCE = 1 };
enum rm_match_set_monitor_opts : uint32_t { RM_MATCH_SET_DEFAULT = 0 };

// Which class or resource operation a target-node question is about.
enum RMClassOps : int32_t { RM_CLASS_OP_DEFINE = 0, RM_CLASS_OP_UNDEFINE = 1, RM_CLASS_OP_OTHER = 2 };
enum RMResourceOps : int32_t { RM_RESOURCE_OP_ONLINE = 0, RM_RESOURCE_OP_OFFLINE = 1, RM_RESOURCE_OP_OTHER = 2 };

struct rm_bind_RCCP_data {
    const char* rm_class_name;
};
struct rm_bind_RCP_data {
    zn_resource_handle rm_handle;
};

// A class list handed to the resource manager control point; this system
// passes none and creates classes on demand.
struct RMClassList;
