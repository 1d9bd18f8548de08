// The hardware-control manager of a host, scripted for tests: "Kor.NodeHwCtrl"
// served by the resource-manager framework over a real service's socket, one
// resource per host with its "Hostname" and a "PowerStatus" the test sets.
// A change is reported to the clients that monitor it, as the real manager
// reports a host powered on or off.
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
    // A manager on the service at `socketPath`, its registry at `treeDir`
    // (under the process's state root).
    ScriptedHwCtrl(const std::string& socketPath, const std::string& treeDir);
    ~ScriptedHwCtrl();
    // False when it did not register in time.
    bool start();
    // Disconnects from the service (its watchers see the manager go).
    void stop();
    // Registered with the service right now (it reconnects by itself).
    bool connected() const;

    void addHost(const std::string& hostname, uint32_t powerStatus);
    // Sets a host's power status and reports it when it changed.
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
