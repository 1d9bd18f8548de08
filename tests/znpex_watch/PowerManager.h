// A small resource manager for event tests, running in the test process and
// connected to a real service: class "Test.Power" with two resources, a
// persistent "Hostname" (id 0) and a dynamic "PowerStatus" (id 0); the class
// itself has a persistent "Site" (id 0) and a dynamic "PoweredOn" (id 0).
// Tests set a resource's power or the class's values, which reports them as
// the manager would; the manager records which resources had monitoring
// started and stopped, and whether the class's PoweredOn is monitored.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tarn_rmf2v/RMRccp.h"
#include "tarn_rmf2v/RMRcp.h"
#include "tarn_rmf2v/RMRmcp.h"
#include "tarn_rmf2v/link/RMServiceConnection.h"

namespace watchtest {

inline constexpr char kClass[] = "Test.Power";

class PowerRcp;
class PowerRccp;

class PowerManager {
public:
    // `resources` resources "node1", "node2", ..., PowerStatus 0.
    explicit PowerManager(int resources = 2);
    ~PowerManager();

    // Connects to the service (again, after disconnect()).
    void connect();
    void disconnect();
    bool connected() const;

    // Sets and reports resource i's PowerStatus (0 or 1).
    void setPower(int i, uint32_t value);
    const std::string& hostname(int i) const;
    // Sets and reports the class's PoweredOn / Site.
    void setPoweredOn(uint32_t value);
    void setSite(const std::string& site);
    // Whether the class's PoweredOn is monitored now, how often monitoring
    // was started, and how often the class's current values were read.
    bool classMonitored() const;
    int classStarts() const;
    int classQueries() const;

    // "start:<host>" / "stop:<host>" in the order the manager was asked.
    std::vector<std::string> monitoringCalls() const;
    // Resources whose PowerStatus is being monitored now.
    int monitored() const;
    // How often the current values were asked for.
    int dynamicQueries() const { return queries_.load(); }

    // Called by the resources.
    void record(const std::string& what);
    std::atomic<int> queries_{0};

private:
    std::unique_ptr<tarn_rmf2v::RMRmcp> rmcp_;
    std::unique_ptr<tarn_rmf2v::RMServiceConnection> conn_;
    std::vector<PowerRcp*> rcps_;  // owned by the class
    PowerRccp* rccp_ = nullptr;    // owned by the control point
    mutable std::mutex mu_;        // guards calls_
    std::vector<std::string> calls_;
};

}  // namespace watchtest
