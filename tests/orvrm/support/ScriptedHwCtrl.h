// A host's manager of one class, scripted for tests: the hardware-control
// manager ("Kor.NodeHwCtrl": one resource per host with its "Hostname" and
// a "PowerStatus" the test sets) or the management-server records
// ("Kor.ManagementServer": "Hostname" names the server, "ConfigChanged" is
// reported when the test says so), served by the resource-manager framework
// over a real service's socket. A change is reported to the clients that
// monitor it, as the real managers report one.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace tarn_rmf2v {
class RMServiceConnection;
}

namespace hwctrltest {

class HwCtrlRmcp;

class ScriptedHwCtrl {
public:
    enum class Kind { HardwareControl, ManagementServer };
    // A manager on the service at `socketPath`, its registry at `treeDir`
    // (under the process's state root).
    ScriptedHwCtrl(const std::string& socketPath, const std::string& treeDir,
                   Kind kind = Kind::HardwareControl);
    ~ScriptedHwCtrl();
    // False when it did not register in time.
    bool start();
    // Disconnects from the service (its watchers see the manager go).
    void stop();
    // Registered with the service right now (it reconnects by itself).
    bool connected() const;

    void addHost(const std::string& hostname, uint32_t powerStatus);
    // Sets a host's power status (or ConfigChanged) and reports it when it changed.
    void setPower(const std::string& hostname, uint32_t powerStatus);
    // Undefines the host's resource (its watchers get error 0x40004).
    void removeHost(const std::string& hostname);
    // Whether the service has the manager monitor the host's PowerStatus.
    bool monitored(const std::string& hostname);

private:
    std::unique_ptr<HwCtrlRmcp> rmcp_;
    std::unique_ptr<tarn_rmf2v::RMServiceConnection> conn_;
};

}  // namespace hwctrltest
