#include "orvrm/netif/MNNetworkInterfaceRccp.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orvrm/ClassList.h"
#include "orvrm/ORVRMLog.h"
#include "orvrm/ORVRMRmcp.h"
#include "orvrm/netif/MNNetworkInterfaceRcp.h"
#include "orvrm/netif/MNNetworkInterfaceSpec.h"
#include "tarn_rmf/RMCommonErrors.h"
#include "tarn_rmf2v/RMLocks.h"

namespace orvrm {
namespace {

tarn_rmf2v::RMTableRccp::Options options() {
    tarn_rmf2v::RMTableRccp::Options o;
    // Each server loads the interfaces it owns; every change is written at
    // once, so an acknowledged one survives the daemon's death.
    o.ownRowsOnly = true;
    o.writeThrough = true;
    o.classCode = findClass(kNetworkInterfaceClass)->handleCode;
    o.rcpName = "MNNetworkInterfaceRcp";
    o.defineFunction = "MNNetworkInterfaceRccp::DefineResource";
    return o;
}

// The texts of a string array (none for null).
std::vector<std::string> textsOf(const zn_array* list) {
    std::vector<std::string> out;
    for (uint32_t i = 0; list != nullptr && i < list->array_cnt; ++i) {
        const char* s = list->elements[i].ptr_char;
        out.emplace_back(s != nullptr ? s : "");
    }
    return out;
}

bool contains(const std::vector<std::string>& list, const std::string& s) {
    return std::find(list.begin(), list.end(), s) != list.end();
}

}  // namespace

MNNetworkInterfaceRccp::MNNetworkInterfaceRccp(char* className, rm_object_type type,
                                               ORVRMRmcp* rmcp)
    : OrvTableRccp(className, type, rmcp, networkInterfaceSpec(), options()) {
    loadResources();
}

tarn_rmf2v::RMTableRcp* MNNetworkInterfaceRccp::makeRcp(const zn_resource_handle& handle,
                                                        unsigned int variety) {
    return new MNNetworkInterfaceRcp(&handle, this, variety);
}

zn_resource_handle* MNNetworkInterfaceRccp::createResource(zn_structured_data*,
                                                           rm_attribute_value* values,
                                                           unsigned int count, cu_error_t** err) {
    tarn_rmf2v::lockRccp guard(this);
    DefineResult r;
    try {
        r = defineRow(values, count, "defineResource");
    } catch (std::exception& e) {
        r.error.reset(tarn_rmf::RMMapExceptionToError(e));
    }
    if (r.error) {
        if (err != nullptr) {
            *err = r.error.release();
        }
        return nullptr;
    }
    auto* copy = static_cast<zn_resource_handle*>(std::malloc(sizeof(zn_resource_handle)));
    if (copy != nullptr) {
        *copy = r.handle;
    }
    reportClassEvent("ResourceDefined");
    return copy;
}

void MNNetworkInterfaceRccp::createResource(const char* hostname, uint64_t universalId,
                                            const char* address) {
    rm_attribute_value values[3] = {};
    values[0] = {kNiName, ZN_CHAR_PTR, {}};
    values[0].rm_value.ptr_char = const_cast<char*>(hostname);
    values[1] = {kNiUniversalId, ZN_UINT64, {}};
    values[1].rm_value.val_uint64 = universalId;
    values[2] = {kNiIPAddress, ZN_CHAR_PTR, {}};
    values[2].rm_value.ptr_char = const_cast<char*>(address);
    cu_error_t* err = nullptr;
    std::free(createResource(nullptr, values, 3, &err));
    cu_rel_error_1(err);  // the registry's calls carry on without the interface
}

void MNNetworkInterfaceRccp::defineResource(tarn_rmf2v::RMDefineResourceResponse* rsp,
                                            zn_structured_data* options, rm_attribute_value* values,
                                            unsigned int count) {
    cu_error_t* err = nullptr;
    zn_resource_handle* handle = createResource(options, values, count, &err);
    rsp->done(handle, err);
    std::free(handle);
    cu_rel_error_1(err);
}

void MNNetworkInterfaceRccp::removeResource(const char* selection,
                                            const tarn_rmf::RMSelParams* params) {
    tarn_rmf2v::lockRccp guard(this);
    bool removed = false;
    try {
        for (zn_resource_handle h : handlesOf(selection, params)) {
            auto* rcp = dynamic_cast<tarn_rmf2v::RMTableRcp*>(findRcpByHandle(&h));
            if (rcp == nullptr) {
                continue;
            }
            removeResource(rcp);
            zn_resource_handle* one = &h;
            notifyResourcesUndefined(&one, 1);
            removed = true;
        }
    } catch (const std::exception& e) {
        orvrminfo_trace("MNNetworkInterfaceRccp::removeResource: %s", e.what());
    }
    if (removed) {
        reportClassEvent("ResourceUndefined");
    }
}

void MNNetworkInterfaceRccp::createAll(const char* name, uint64_t universalId,
                                       const std::vector<std::string>& addresses) {
    for (const std::string& a : addresses) {
        createResource(name, universalId, a.c_str());
        // The other servers pick up the new interface.
        getRmcp()->sendPEXMessage(2, 0, nullptr, 0);
    }
}

void MNNetworkInterfaceRccp::updateResources(const char* oldName, const char* newName,
                                             uint64_t oldId, uint64_t newId,
                                             const zn_array* oldList, const zn_array* newList) {
    uint64_t univId = newId != oldId ? newId : oldId;
    orvrminfo_trace("univId = %lld\n", static_cast<long long>(univId));
    if (oldName == nullptr) {
        return;
    }
    tarn_rmf2v::lockRccp guard(this);
    // The addresses to create: a growable work list.
    std::vector<std::string> oldAddrs = textsOf(oldList);
    std::vector<std::string> newAddrs = textsOf(newList);
    const std::vector<std::string>& given = newList != nullptr ? newAddrs : oldAddrs;
    tarn_rmf::RMSelParams params;
    if (newName != nullptr && std::strcmp(oldName, newName) != 0) {
        orvrminfo_trace("origHostname %s and newHostname %s", oldName, newName);
        params.setString("N", oldName);
        removeResource("Name==$N", &params);
        createAll(newName, univId, given);
        return;
    }
    if (newId != 0 && newId != oldId) {
        params.setUint64("U", oldId);
        removeResource("UniversalId==$U", &params);
        createAll(oldName, univId, given);
        return;
    }
    if (newList == nullptr) {
        return;
    }
    if (newAddrs.empty()) {
        params.setString("N", oldName);
        removeResource("Name==$N", &params);
        return;
    }
    if (oldAddrs.empty()) {
        createAll(oldName, univId, newAddrs);
        return;
    }
    std::vector<std::string> create;
    for (const std::string& a : oldAddrs) {
        if (!contains(newAddrs, a)) {
            tarn_rmf::RMSelParams byAddress;
            byAddress.setString("A", a.c_str());
            removeResource("IPAddress==$A", &byAddress);
        }
    }
    for (const std::string& a : newAddrs) {
        if (!contains(oldAddrs, a) && !contains(create, a)) {
            create.push_back(a);
        }
    }
    createAll(oldName, univId, create);
}

void MNNetworkInterfaceRccp::setHeartbeat(char* address, unsigned int state) {
    if (address == nullptr) {
        return;
    }
    std::vector<zn_resource_handle> matches;
    {
        tarn_rmf2v::lockRccp guard(this);
        tarn_rmf::RMSelParams params;
        params.setString("A", address);
        try {
            matches = handlesOf("IPAddress==$A", &params);
        } catch (const std::exception& e) {
            orvrminfo_trace("MNNetworkInterfaceRccp::setHeartbeat: %s", e.what());
            return;
        }
    }
    for (const zn_resource_handle& h : matches) {
        // Reserved while it changes, so an undefine cannot destroy it meanwhile.
        if (auto* rcp = dynamic_cast<MNNetworkInterfaceRcp*>(findAndReserveRcp(&h))) {
            rcp->setHeartbeat(state);
            rcp->unreserve();
        }
    }
}

}  // namespace orvrm
