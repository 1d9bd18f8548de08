// Which resource manager serves which class, and whether it is connected now.
// A manager's classes stay known after its connection drops, so clients get
// "not connected" rather than "unknown class" until it is back. Endpoints are
// held weakly: the registry never keeps a dead connection alive. All
// operations are thread-safe.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tarn_rmf2v/RMClassDef.h"

namespace znpex::server {

// The service's side of one registered resource manager connection.
class ManagerEndpoint {
public:
    virtual ~ManagerEndpoint() = default;
};

struct ClassEntry {
    tarn_rmf2v::RMClassDef def;
    std::string rmName;
    std::weak_ptr<ManagerEndpoint> endpoint;
    bool connected = false;
};

struct ClassLookup {
    bool known = false;
    bool connected = false;
    std::string rmName;
    std::shared_ptr<ManagerEndpoint> endpoint;  // null unless connected
};

struct ManagerSummary {
    std::string rmName;
    bool connected = false;
    std::vector<std::string> classes;
};

class RmRegistry {
public:
    // Records `rmName` as the server of `classes` through `endpoint`. Refused
    // (nothing changes, `why` says which class) when another manager that is
    // connected serves one of them, or when a class name is empty or repeated.
    bool registerManager(const std::string& rmName, std::vector<tarn_rmf2v::RMClassDef> classes,
                         const std::shared_ptr<ManagerEndpoint>& endpoint, std::string* why);
    // The endpoint's connection is gone: its classes become not connected.
    // Classes taken over by another endpoint meanwhile are left alone.
    void detach(const ManagerEndpoint* endpoint);

    ClassLookup find(const std::string& className) const;
    // The name of class action `id` of `className`, or "" when either is not known.
    std::string classActionName(const std::string& className, int id) const;
    // Every known class in name order.
    std::vector<ClassEntry> classes() const;
    std::vector<ManagerSummary> managers() const;

private:
    bool servedByOtherLive(const std::string& className, const std::string& rmName,
                           const ManagerEndpoint* endpoint) const;

    mutable std::mutex mu_;  // guards classes_
    std::vector<ClassEntry> classes_;
};

}  // namespace znpex::server
