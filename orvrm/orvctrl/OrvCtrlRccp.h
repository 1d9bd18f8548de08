// The class control point of "Kor.OrvCtrl": the one resource with the
// management domain's settings (made with its defaults the first time the
// daemon starts on an empty registry), the heartbeat tuning it applies to the
// distributed-information layer at start and on every change, and the
// getters through which the other classes read the settings.
#pragma once

#include <atomic>

#include "orvrm/OrvTableRccp.h"

class ORVRMRmcp;

namespace orvrm {

class OrvCtrlRcp;

class OrvCtrlRccp : public OrvTableRccp {
public:
    OrvCtrlRccp(char* className, rm_object_type type, ORVRMRmcp* rmcp);
    ~OrvCtrlRccp() override;

    // The heartbeat frequency and sensitivity last applied. Read without a
    // lock by the status task.
    int getHbFrequency() const { return hbFrequency_.load(); }
    int getHbSensitivity() const { return hbSensitivity_.load(); }
    unsigned int getAddUnrecognizedNodes() const { return addUnrecognizedNodes_.load(); }
    bool isRunningOnXCU() const { return runningOnXCU_; }
    // True when the console tool "/opt/ysu/bin/lsysu" can be opened for reading.
    static bool isOnAnXCU();
    // 1 when "SetupRemoteShell" is 1, 0 otherwise, -1 when it cannot be read.
    int isRemoteShellSetupRequired();
    // "RegSyncDelay"; 1 when it cannot be read.
    unsigned getRegSyncDelay();
    // New copies (the caller frees them); null when they cannot be read.
    char* getClusterTM();
    char* getClusterSNum();

    // Takes new heartbeat values (the missing one of the pair from the
    // current setting) and applies them with di_tune_heartbeat.
    void applyHeartbeat(int frequency, int sensitivity);
    void setAddUnrecognizedNodes(unsigned int value) { addUnrecognizedNodes_.store(value); }

    void refreshConfig(tarn_rmf2v::RMSimpleResponse* rsp) override;
    // The service forgets the tuning when it restarts: applied again on every connection.
    void connectionChanged(rm_conn_changed state) override;
    virtual void coordinatorElected(tarn_rmf2v::RMSimpleResponse* rsp);

protected:
    tarn_rmf2v::RMTableRcp* makeRcp(const zn_resource_handle& handle,
                                    unsigned int variety) override;

private:
    // Reads one column of the resource's row; throws when it cannot.
    zn::OwnedValue setting(const char* name);
    void makeDefaultResource();

    std::atomic<int> hbFrequency_{12};
    std::atomic<int> hbSensitivity_{8};
    std::atomic<unsigned int> addUnrecognizedNodes_{0};
    const bool runningOnXCU_;
};

}  // namespace orvrm
