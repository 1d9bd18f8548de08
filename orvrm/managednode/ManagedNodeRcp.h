// The resource control point of one managed node. Its persistent attributes
// are the columns of its row in the class's table; it keeps in memory only
// the node's heartbeat and power status, the names of the attributes a change
// touched (reported as "ChangedAttributes") and what clients watch. A change
// (updateAttributeValues) is validated whole before the row is written, then
// carried to the node's companions: node groups, network interfaces, the
// reachability poller.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "tarn_rmf2v/RMTableRcp.h"

namespace orvrm {

class ManagedNodeRccp;

class ManagedNodeRcp : public tarn_rmf2v::RMTableRcp {
public:
    // Room of the ChangedAttributes list.
    static constexpr size_t kMaxChangedAttributes = 96;

    ManagedNodeRcp(const zn_resource_handle* handle, ManagedNodeRccp* rccp, unsigned int variety);

    ManagedNodeRccp* nodeRccp() const;

    // Getters of the node's row: new copies the caller frees (free(), or
    // zn_value_free for the array), null or 0 when missing or unreadable.
    char* getHostName() const;
    uint64_t getHostUniversalId() const;
    zn_array* getConnectivityIPAddrs() const;
    uint32_t getAllowManageReqFlag() const;
    uint32_t getControlFlag() const;
    char* getMode() const;
    // Any column by id; empty (ZN_UNKNOWN) when it cannot be read.
    zn::OwnedValue getAttrValue(int id) const;
    // Reachability: the poller's verdict for a minimally managed node, else
    // the last heartbeat (127 until one came).
    uint32_t getStatus() const;
    // 127 without a host name; on the console the partition monitor's
    // status; elsewhere the last one reported (127 until then).
    uint32_t getPowerStatus() const;
    // On the console: the node's partition joins the monitor (status 1
    // until the next poll) and PowerStatus is reported.
    void addPartitionEntry();
    bool isMinManagedNode() const;

    // Changes the node: every value is checked first (nothing is written when
    // one fails), then the row is written in one change and the companions
    // and watchers are told. 0, or -1 with *err set (the caller owns it).
    int updateAttributeValues(const rm_attribute_value* values, unsigned int count,
                              cu_error_t** err);
    // Announces that column `id` now holds `value` to the clients watching it.
    void attrValChngNotification(zn_value_t value, int id);
    void resetChangedAttributes();

    // A heartbeat (ignored while the node is "PreManaged"); a changed value
    // is kept and "Status" reported.
    void setHeartbeat(uint32_t heartbeat);
    void setPowerStatus(uint32_t powerStatus);
    // Reports one dynamic attribute with its current value, if watched.
    void reportDynamicId(int id);

    void setAttributeValues(tarn_rmf2v::RMAttributeIdResponse* rsp, rm_attribute_value* values,
                            unsigned int count) override;
    void invokeAction(tarn_rmf2v::RMActionResponse* rsp, int actionId,
                      zn_structured_data* input) override;

protected:
    bool dynamicValue(const tarn_rmf2v::RMAttrSpec& attr, zn::OwnedValue* out) override;

private:
    // What a change will do, gathered while its values are checked.
    struct Change;
    cu_error_t* check(const rm_attribute_value* values, unsigned int count, Change& c);
    void cascade(const Change& c);
    void notifyChange(const Change& c);
    void syncData(tarn_rmf2v::RMActionResponse* rsp, zn_structured_data* input);

    std::atomic<uint32_t> heartbeat_;
    std::atomic<uint32_t> powerStatus_;
    std::atomic<bool> reportingConfig_{false};
    // Guarded by the resource lock.
    std::vector<std::string> changed_;
};

}  // namespace orvrm
