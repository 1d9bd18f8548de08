// Management-server records: a node's data from the record that lists it,
// removing such a record, and watching the records' configuration.
#include <cstdlib>
#include <cstring>
#include <string>

#include "orvrm/NodePEXIface.h"
#include "orvrm/ORVRMLog.h"

namespace {

constexpr char kMgmtSvrClass[] = "Kor.ManagementServer";
// Node attribute ids a record may send back: the node table's columns.
constexpr int32_t kNodeAttrLimit = 47;
// The error of a record that answered with an error, or was not found.
constexpr int kRecordError = 267;

// The calling thread's platform error, logged under `op`; the caller owns it.
cu_error_t* platformError(const char* op) {
    cu_error_t* e = nullptr;
    cu_get_error(&e);
    orvrminfo_trace("%s: %s", op, e != nullptr ? cu_error_text(e).c_str() : "no error");
    orvrmlog_error(op, e);
    return e;
}

void logPlatformError(const char* op) {
    cu_rel_error_1(platformError(op));
}

bool isScalar(zn_data_type_t t) {
    return t >= ZN_INT32 && t <= ZN_FLOAT64;
}

// An element's value read as an attribute id; false when it is no integer.
bool idOf(const zn_structured_data_element_t& e, int32_t* id) {
    switch (e.data_type) {
        case ZN_INT32:
            *id = e.value.val_int32;
            return true;
        case ZN_UINT32:
            *id = static_cast<int32_t>(e.value.val_uint32);
            return true;
        case ZN_INT64:
            *id = static_cast<int32_t>(e.value.val_int64);
            return true;
        case ZN_UINT64:
            *id = static_cast<int32_t>(e.value.val_uint64);
            return true;
        default:
            return false;
    }
}

std::string quoted(const char* s) {
    return s != nullptr ? s : "";
}

}  // namespace

rm_attribute_value* NodePEXIface::syncNodeData(const char* nodeName, const char* msHostname,
                                               zn_structured_data*, unsigned int* count,
                                               cu_error_t** error) {
    static const char op[] = "NodePEXIface::syncNodeData";
    *count = 0;
    *error = nullptr;
    px_session_t s = nullptr;
    if (startDistributedSession(nullptr, &s) != PX_OK) {
        *error = platformError(op);
        return nullptr;
    }
    std::string sel = "Hostname == \"" + quoted(msHostname) +
                      "\" && ManagerType == \"WEX\" && NodeNameList IN {\"" + quoted(nodeName) +
                      "\"}";
    orvrminfo_trace("syncNodeData: Select Str %s", sel.c_str());
    px_enumerate_rsp_t* found = nullptr;
    rm_attribute_value* out = nullptr;
    if (px_enumerate_select(s, kMgmtSvrClass, sel.c_str(), &found) != PX_OK) {
        *error = platformError(op);
    } else if (found->hdr.pr_error != nullptr) {
        *error = pkg_error(kRecordError, 49, op, 0, "getNodeSystemData",
                           cu_error_text(found->hdr.pr_error).c_str());
    } else if (found->handle_count == 0) {
        *error = pkg_error(kRecordError, 57, op, 0);
    } else {
        px_resources_rsp_t* rsp = nullptr;
        if (px_invoke_action(s, kMgmtSvrClass, &found->handles[0], 1, "SyncData", nullptr, &rsp) !=
            PX_OK) {
            *error = platformError("NodePEXIface::getNodeSystemData");
        } else {
            const cu_error_t* failed = rsp->hdr.pr_error;
            for (uint32_t r = 0; failed == nullptr && r < rsp->resource_count; ++r) {
                failed = rsp->resources[r].error;
            }
            if (failed != nullptr) {
                *error = pkg_error(kRecordError, 49, op, 0, "getNodeSystemData",
                                   cu_error_text(failed).c_str());
            } else {
                out = static_cast<rm_attribute_value*>(
                    std::calloc(kMaxSyncEntries, sizeof(rm_attribute_value)));
                for (uint32_t r = 0; out != nullptr && r < rsp->resource_count; ++r) {
                    const px_resource_rsp_t& res = rsp->resources[r];
                    for (uint32_t d = 0; d < res.data_count; ++d) {
                        const zn_structured_data* sd = res.data[d];
                        // A leading element, then (attribute id, value) pairs.
                        for (uint32_t k = 1;
                             sd != nullptr && k + 1 < sd->element_count && *count < kMaxSyncEntries;
                             k += 2) {
                            int32_t id = -1;
                            if (!idOf(sd->elements[k], &id) || id < 0 || id >= kNodeAttrLimit) {
                                continue;
                            }
                            const zn_structured_data_element_t& v = sd->elements[k + 1];
                            rm_attribute_value& e = out[(*count)++];
                            e.rm_attribute_id = id;
                            e.rm_data_type = v.data_type;
                            if (v.data_type == ZN_CHAR_PTR) {
                                e.rm_value.ptr_char = v.value.ptr_char != nullptr
                                                          ? strdup(v.value.ptr_char)
                                                          : nullptr;
                            } else if (isScalar(v.data_type)) {
                                e.rm_value = v.value;
                            }
                        }
                    }
                }
            }
        }
        px_free_response(rsp);
    }
    px_free_response(found);
    endSession(s);
    return out;
}

void NodePEXIface::freeSyncData(rm_attribute_value* entries, unsigned int count) {
    for (unsigned int i = 0; entries != nullptr && i < count; ++i) {
        if (entries[i].rm_data_type == ZN_CHAR_PTR) {
            std::free(entries[i].rm_value.ptr_char);
        }
    }
    std::free(entries);
}

int NodePEXIface::removeMgmtSvrInfo(const char* nodeName, const char* msHostname) {
    static const char op[] = "NodePEXIface::removeMgmtSvrInfo";
    if (nodeName == nullptr || *nodeName == '\0') {
        return -1;
    }
    char* own = nullptr;
    if (msHostname == nullptr || *msHostname == '\0') {
        own = getPrimaryHostname(nullptr);
        msHostname = own;
    }
    if (msHostname == nullptr || *msHostname == '\0') {
        std::free(own);
        return -1;
    }
    std::string sel =
        "Hostname==\"" + std::string(msHostname) + "\" && NodeNameList IN {\"" + nodeName + "\"}";
    std::free(own);
    px_session_t s = nullptr;
    if (startDistributedSession(nullptr, &s) != PX_OK) {
        logPlatformError(op);
        return -1;
    }
    px_enumerate_rsp_t* found = nullptr;
    int rc = 0;
    if (px_enumerate_select(s, kMgmtSvrClass, sel.c_str(), &found) != PX_OK) {
        logPlatformError(op);
        rc = -1;
    } else if (found->hdr.pr_error != nullptr) {
        rc = -1;
    } else if (found->handle_count > 0) {
        px_resources_rsp_t* gone = nullptr;
        if (px_undefine_resource(s, kMgmtSvrClass, &found->handles[0], 1, nullptr, &gone) !=
            PX_OK) {
            logPlatformError(op);  // looked for and tried: still a success
        }
        px_free_response(gone);
    }
    px_free_response(found);
    endSession(s);
    return rc;
}

int NodePEXIface::regForMgmtSvrConfigChngEvnt(px_session_t session, px_event_cb_t callback,
                                              void* arg, uint64_t* regId) {
    const char* names[] = {"Hostname"};
    px_reg_event_rsp_t* rsp = nullptr;
    int rc = px_reg_event_select(session, 2, kMgmtSvrClass, nullptr, names, 1, "ConfigChanged",
                                 nullptr, callback, arg, &rsp);
    if (rc != PX_OK) {
        logPlatformError("NodePEXIface::regForMgmtSvrConfigChngEvnt");
    } else if (rsp->hdr.pr_error != nullptr) {
        cu_rel_error_1(pkg_error(kRecordError, 49, "NodePEXIface::regForMgmtSvrConfigChngEvnt", 0,
                                 "regForMgmtSvrConfigChngEvnt",
                                 cu_error_text(rsp->hdr.pr_error).c_str()));
    } else if (regId != nullptr) {
        *regId = rsp->registration;
    }
    px_free_response(rsp);
    return rc;
}
