#include "orvrm/orvctrl/OrvCtrlRccp.h"

#include <cstdlib>
#include <cstring>

#include "orvrm/ClassList.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/orvctrl/OrvCtrlRcp.h"
#include "orvrm/orvctrl/OrvCtrlSpec.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"
#include "znpex/di/di_table.h"

namespace orvrm {
namespace {

tarn_rmf2v::RMTableRccp::Options options() {
    tarn_rmf2v::RMTableRccp::Options o;
    // The settings are the domain's, and an acknowledged change must
    // survive the daemon's death.
    o.ownRowsOnly = false;
    o.writeThrough = true;
    o.classCode = findClass(kOrvCtrlClass)->handleCode;
    o.rcpName = "OrvCtrlRcp";
    o.defineFunction = "OrvCtrlRccp::OrvCtrlRccp";
    return o;
}

char* copyOf(const zn::OwnedValue& v) {
    const char* s =
        v.type() == ZN_CHAR_PTR && v.value().ptr_char != nullptr ? v.value().ptr_char : "";
    return strdup(s);
}

}  // namespace

OrvCtrlRccp::OrvCtrlRccp(char* className, rm_object_type type, ORVRMRmcp* rmcp)
    : OrvTableRccp(className, type, rmcp, orvCtrlSpec(), options()), runningOnXCU_(isOnAnXCU()) {
    if (resourceTable() != nullptr && resourceTable()->getRowCount() == 0) {
        makeDefaultResource();
    }
    loadResources();
    int frequency = hbFrequency_.load();
    int sensitivity = hbSensitivity_.load();
    try {
        frequency = static_cast<int>(setting("Frequency").value().val_uint32);
        sensitivity = static_cast<int>(setting("Sensitivity").value().val_uint32);
        addUnrecognizedNodes_.store(setting("AddUnrecognizedNodes").value().val_uint32);
    } catch (const std::exception&) {
        orvrminfo_trace("OrvCtrlRccp: the settings could not be read; defaults apply.");
    }
    applyHeartbeat(frequency, sensitivity);
}

OrvCtrlRccp::~OrvCtrlRccp() = default;

tarn_rmf2v::RMTableRcp* OrvCtrlRccp::makeRcp(const zn_resource_handle& handle,
                                             unsigned int variety) {
    return new OrvCtrlRcp(&handle, this, variety);
}

void OrvCtrlRccp::makeDefaultResource() {
    zn_resource_handle handle{};
    makeResourceHandles(1, findClass(kOrvCtrlClass)->handleCode, 0, &handle);
    zn_value_t h{};
    h.ptr_rsrc_handle = &handle;
    zn_value_t ids{};
    ids.ptr_array = zn_array_new(1);
    ids.ptr_array->elements[0].val_uint64 = getRmcp()->getNodeId();
    zn::OwnedValue nodeIds(ZN_UINT64_ARRAY, ids);
    tarn_rmf::RMFieldValue fields[] = {
        {"ResourceHandle", -1, ZN_RSRC_HANDLE_PTR, h},
        {"NodeIDs", -1, ZN_UINT64_ARRAY, nodeIds.value()},
    };
    resourceTable()->addRow(fields, 2);
    orvrminfo_trace("OrvCtrlRccp: the domain settings were made with their defaults.");
}

zn::OwnedValue OrvCtrlRccp::setting(const char* name) {
    tarn_rmf::RMRowSet rows = resourceTable()->getMetadata();
    if (rows.empty()) {
        throw tarn_base::CErrorException("the domain settings resource is missing", 0);
    }
    int col = rows.getColumnIndex(name);
    return zn::OwnedValue(rows.getColumnType(static_cast<unsigned>(col)), rows.getField(0, name));
}

bool OrvCtrlRccp::isOnAnXCU() {
    return ::isOnAnXCU();
}

int OrvCtrlRccp::isRemoteShellSetupRequired() {
    try {
        return setting("SetupRemoteShell").value().val_uint32 == 1 ? 1 : 0;
    } catch (const std::exception&) {
        orvrminfo_trace("isRemoteShellSetupRequired: Exception thrown.");
        return -1;
    }
}

unsigned OrvCtrlRccp::getRegSyncDelay() {
    try {
        return setting("RegSyncDelay").value().val_uint32;
    } catch (const std::exception&) {
        orvrminfo_trace("getRegSyncDelay: Exception thrown.");
        return 1;
    }
}

char* OrvCtrlRccp::getClusterTM() {
    try {
        return copyOf(setting("ClusterTM"));
    } catch (const std::exception&) {
        orvrminfo_trace("getClusterTM: Exception thrown.");
        return nullptr;
    }
}

char* OrvCtrlRccp::getClusterSNum() {
    try {
        return copyOf(setting("ClusterSNum"));
    } catch (const std::exception&) {
        orvrminfo_trace("getClusterSNum: Exception thrown.");
        return nullptr;
    }
}

void OrvCtrlRccp::applyHeartbeat(int frequency, int sensitivity) {
    hbFrequency_.store(frequency);
    hbSensitivity_.store(sensitivity);
    int rc =
        di_tune_heartbeat(static_cast<unsigned>(frequency), static_cast<unsigned>(sensitivity));
    if (rc != DI_OK) {
        // Applied again when the link to the service comes up.
        orvrminfo_trace("OrvCtrlRccp: di_tune_heartbeat(%d, %d) gave %d", frequency, sensitivity,
                        rc);
    }
}

void OrvCtrlRccp::connectionChanged(rm_conn_changed state) {
    if (state == RM_CONNECTION_ESTABLISHED) {
        applyHeartbeat(hbFrequency_.load(), hbSensitivity_.load());
    }
}

void OrvCtrlRccp::refreshConfig(tarn_rmf2v::RMSimpleResponse* rsp) {
    tarn_rmf2v::lockRccp guard(this);
    std::vector<zn::OwnedValue> held;
    std::vector<rm_attribute_value> values;
    try {
        tarn_rmf::RMRowSet row = classTable()->getMetadata();
        for (const tarn_rmf2v::RMAttrSpec& a : spec().classPersistent) {
            held.emplace_back(a.type, row.getField(0, a.name));
            values.push_back({a.id, a.type, held.back().value()});
        }
    } catch (std::exception& e) {
        rsp->done(zn::ErrorPtr(tarn_rmf::RMMapExceptionToError(e)).get());
        return;
    }
    rsp->done(nullptr);
    notifyPersistentClassAttrsModified(values.data(), static_cast<unsigned int>(values.size()));
}

void OrvCtrlRccp::coordinatorElected(tarn_rmf2v::RMSimpleResponse* rsp) {
    rsp->done(nullptr);
}

}  // namespace orvrm
