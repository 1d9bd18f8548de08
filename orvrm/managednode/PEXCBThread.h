// The two threads that wait on the monitoring service for the managed-node
// class: PEXCBThread on the domain session (management-server records),
// LocalPEXCBThread on the local session (power status). Each blocks in
// px_dispatch until its session ends, then hands the result back to the
// class, which clears the session and, when it was lost rather than ended on
// purpose, schedules the recovery.
#pragma once

#include "tarn_rmf2v/RMRunnable.h"
#include "znpex/client/px_client.h"

namespace orvrm {

class ManagedNodeRccp;

// What the two threads share: the class and the session they dispatch.
class EventDispatchThread : public tarn_rmf2v::RMRunnable {
public:
    EventDispatchThread(ManagedNodeRccp* rccp, px_session_t session)
        : RMRunnable(0, 0, 0, 0), rccp_(rccp), session_(session) {}
    // Joins: run() uses the members.
    ~EventDispatchThread() override { join(); }

protected:
    // Dispatches until the session ends; the px_dispatch result.
    int dispatch(const char* name);

    ManagedNodeRccp* const rccp_;
    const px_session_t session_;
};

class PEXCBThread : public EventDispatchThread {
public:
    using EventDispatchThread::EventDispatchThread;
    void run(void* arg) override;
};

class LocalPEXCBThread : public EventDispatchThread {
public:
    using EventDispatchThread::EventDispatchThread;
    void run(void* arg) override;
};

}  // namespace orvrm
