// The managed-node resource table's 47 columns, and rows with realistic
// values, for the registry tests, the crash test and the benchmark.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tarn_rmf/registry/RMBaseTable.h"
#include "tarn_rmf/registry/RMPersAttrDefs.h"

namespace regtest {

using tarn_rmf::rmNoDefault;
using tarn_rmf::RMPersAttrDefs;
using tarn_rmf::rmStrDefault;
using tarn_rmf::rmUintDefault;

inline const RMPersAttrDefs kNodeColumns[] = {
    {"ResourceHandle", ZN_RSRC_HANDLE_PTR, rmNoDefault(), 50},
    {"Variety", ZN_UINT32, rmUintDefault(1), 50},
    {"Hostname", ZN_CHAR_PTR, rmStrDefault(""), 7},
    {"InstallAdapterMacaddr", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"HWType", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"HWModel", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"HWSerialNum", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"LParID", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"Name", ZN_CHAR_PTR, rmStrDefault(""), 51},
    {"ConsolePortNum", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"ConsoleServerName", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"HWControlPoint", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"HWControlNodeId", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallOSName", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallDistributionVersion", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallDistributionName", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallKernelVersion", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallDiskType", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallDisk", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallMethod", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"UniversalId", ZN_UINT64, rmNoDefault(), 10},
    {"ConsoleMethod", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"ConsoleServerNumber", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"PowerMethod", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"NodeIDs", ZN_UINT64_ARRAY, rmNoDefault(), 42},
    {"LastCFMUpdateTime", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"AllowManageRequest", ZN_UINT32, rmUintDefault(0), 11},
    {"ManagementServer", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallPkgArchitecture", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallWEXVersion", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallAdapterType", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallAdapterSpeed", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallAdapterDuplex", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"Mode", ZN_CHAR_PTR, rmStrDefault("PreManaged"), 11},
    {"WEXVersion", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"UpdatenodeFailed", ZN_INT32, rmNoDefault(), 11},
    {"UserComment", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"ConsoleSerialDevice", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallServer", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallTemplate", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallAdapterGateway", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"InstallAdapterNetmask", ZN_CHAR_PTR, rmStrDefault(""), 11},
    {"ControlFlag", ZN_UINT32, rmUintDefault(0), 10},
    {"ConsoleSerialSpeed", ZN_UINT32, rmUintDefault(9600), 11},
    {"ConnectivityIPAddrs", ZN_CHAR_PTR_ARRAY, rmNoDefault(), 10},
    {"StorageFacilityImageID", ZN_CHAR_PTR, rmStrDefault(""), 10},
    {"InstallAdapterName", ZN_CHAR_PTR, rmStrDefault(""), 11},
};
inline constexpr unsigned kNodeColumnCount = sizeof(kNodeColumns) / sizeof(kNodeColumns[0]);
static_assert(kNodeColumnCount == 47);

inline std::string nodeHostname(unsigned i) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "node%05u.rack%02u.cluster.example.com", i, i % 40);
    return buf;
}

// One node's row, as the managed-node class would define it: every column
// set, with the kind of values a real cluster holds. Pointers refer into this
// object, which must outlive the add.
class NodeRow {
public:
    NodeRow(unsigned i, uint64_t serverNodeId) {
        handle_ = {};
        for (unsigned b = 0; b < 4; ++b) {
            handle_.bytes[b] = static_cast<unsigned char>(i >> (8 * b));
        }
        handle_.bytes[19] = 0x5A;
        char buf[128];
        auto put = [&](const char* name, const std::string& s) {
            strings_.push_back(s);
            names_.push_back(name);
        };
        put("Hostname", nodeHostname(i));
        std::snprintf(buf, sizeof buf, "00:1a:64:%02x:%02x:%02x", (i >> 16) & 0xFF, (i >> 8) & 0xFF,
                      i & 0xFF);
        put("InstallAdapterMacaddr", buf);
        put("HWType", "9119");
        put("HWModel", "FHB");
        std::snprintf(buf, sizeof buf, "02%05X", i * 7 + 11);
        put("HWSerialNum", buf);
        put("LParID", std::to_string(i % 64 + 1));
        put("Name", nodeHostname(i));
        put("ConsolePortNum", std::to_string(i % 48));
        std::snprintf(buf, sizeof buf, "cons%02u.cluster.example.com", i % 40);
        put("ConsoleServerName", buf);
        std::snprintf(buf, sizeof buf, "hmc%02u.cluster.example.com", i % 8);
        put("HWControlPoint", buf);
        put("HWControlNodeId", "cec" + std::to_string(i / 64));
        put("InstallOSName", "Linux");
        put("InstallDistributionVersion", "12.4");
        put("InstallDistributionName", "Debian");
        put("InstallKernelVersion", "6.1.0-21-amd64");
        put("InstallDiskType", "scsi");
        put("InstallDisk", "/dev/sda");
        put("InstallMethod", "kickstart");
        put("ConsoleMethod", "hmc");
        put("ConsoleServerNumber", std::to_string(i % 40));
        put("PowerMethod", "hmc");
        put("LastCFMUpdateTime", "Tue Mar 12 10:15:42 2024");
        put("ManagementServer", "ms01.cluster.example.com");
        put("InstallPkgArchitecture", "x86_64");
        put("InstallWEXVersion", "1.7.0.3");
        put("InstallAdapterType", "ent");
        put("InstallAdapterSpeed", "1000");
        put("InstallAdapterDuplex", "full");
        put("Mode", i % 10 == 0 ? "MinManaged" : "Managed");
        put("WEXVersion", "1.7.0.3");
        put("UserComment", i % 5 == 0 ? "moved from rack 7 during the spring upgrade" : "");
        put("ConsoleSerialDevice", "ttyS0");
        put("InstallServer", "ms01.cluster.example.com");
        put("InstallTemplate", "compute-default");
        std::snprintf(buf, sizeof buf, "10.%u.0.1", (i >> 8) & 0xFF);
        put("InstallAdapterGateway", buf);
        put("InstallAdapterNetmask", "255.255.0.0");
        std::snprintf(buf, sizeof buf, "SFI-%04u", i / 2);
        put("StorageFacilityImageID", buf);
        put("InstallAdapterName", "eth0");
        std::snprintf(buf, sizeof buf, "10.%u.%u.%u", (i >> 16) & 0xFF, (i >> 8) & 0xFF, i & 0xFF);
        ip0_ = buf;
        std::snprintf(buf, sizeof buf, "172.16.%u.%u", (i >> 8) & 0xFF, i & 0xFF);
        ip1_ = buf;
        ips_ = zn_array_new(2);
        ips_->elements[0].ptr_char = ip0_.data();
        ips_->elements[1].ptr_char = ip1_.data();
        ids_ = zn_array_new(1);
        ids_->elements[0].val_uint64 = serverNodeId;

        fields_.push_back(
            {"ResourceHandle", -1, ZN_RSRC_HANDLE_PTR, zn_value_t{.ptr_rsrc_handle = &handle_}});
        fields_.push_back({"Variety", -1, ZN_UINT32, zn_value_t{.val_uint32 = 1}});
        for (size_t k = 0; k < strings_.size(); ++k) {
            fields_.push_back(
                {names_[k], -1, ZN_CHAR_PTR, zn_value_t{.ptr_char = strings_[k].data()}});
        }
        fields_.push_back(
            {"UniversalId", -1, ZN_UINT64, zn_value_t{.val_uint64 = 0x8000000000000000ull + i}});
        fields_.push_back({"NodeIDs", -1, ZN_UINT64_ARRAY, zn_value_t{.ptr_array = ids_}});
        fields_.push_back({"AllowManageRequest", -1, ZN_UINT32, zn_value_t{.val_uint32 = i % 2}});
        fields_.push_back({"UpdatenodeFailed", -1, ZN_INT32, zn_value_t{.val_int32 = 0}});
        fields_.push_back({"ControlFlag", -1, ZN_UINT32, zn_value_t{.val_uint32 = i % 4}});
        fields_.push_back({"ConsoleSerialSpeed", -1, ZN_UINT32,
                           zn_value_t{.val_uint32 = i % 3 == 0 ? 115200u : 9600u}});
        fields_.push_back(
            {"ConnectivityIPAddrs", -1, ZN_CHAR_PTR_ARRAY, zn_value_t{.ptr_array = ips_}});
    }
    ~NodeRow() {
        std::free(ips_);
        std::free(ids_);
    }
    NodeRow(const NodeRow&) = delete;
    NodeRow& operator=(const NodeRow&) = delete;

    const tarn_rmf::RMFieldValue* fields() const { return fields_.data(); }
    unsigned count() const { return static_cast<unsigned>(fields_.size()); }
    const zn_resource_handle& handle() const { return handle_; }

private:
    zn_resource_handle handle_;
    std::vector<std::string> strings_;
    std::vector<const char*> names_;
    std::string ip0_, ip1_;
    zn_array* ips_ = nullptr;
    zn_array* ids_ = nullptr;
    std::vector<tarn_rmf::RMFieldValue> fields_;
};

}  // namespace regtest
