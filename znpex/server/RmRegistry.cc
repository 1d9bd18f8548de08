#include "znpex/server/RmRegistry.h"

#include <algorithm>
#include <map>
#include <set>

namespace znpex::server {

bool RmRegistry::servedByOtherLive(const std::string& className, const std::string& rmName,
                                   const ManagerEndpoint* endpoint) const {
    for (const ClassEntry& c : classes_) {
        if (c.def.name != className || !c.connected) {
            continue;
        }
        auto live = c.endpoint.lock();
        return live != nullptr && live.get() != endpoint && c.rmName != rmName;
    }
    return false;
}

bool RmRegistry::registerManager(const std::string& rmName,
                                 std::vector<tarn_rmf2v::RMClassDef> classes,
                                 const std::shared_ptr<ManagerEndpoint>& endpoint,
                                 std::string* why) {
    auto refuse = [why](std::string text) {
        if (why != nullptr) {
            *why = std::move(text);
        }
        return false;
    };
    if (rmName.empty()) {
        return refuse("the resource manager name is empty");
    }
    std::lock_guard<std::mutex> g(mu_);
    std::set<std::string> seen;
    for (const auto& def : classes) {
        if (def.name.empty()) {
            return refuse("a class without a name");
        }
        if (!seen.insert(def.name).second) {
            return refuse("class " + def.name + " is listed twice");
        }
        if (servedByOtherLive(def.name, rmName, endpoint.get())) {
            return refuse("class " + def.name + " is served by another resource manager");
        }
    }
    for (auto& def : classes) {
        auto it = std::find_if(classes_.begin(), classes_.end(),
                               [&](const ClassEntry& c) { return c.def.name == def.name; });
        if (it == classes_.end()) {
            it = classes_.insert(classes_.end(), ClassEntry{});
        }
        it->def = std::move(def);
        it->rmName = rmName;
        it->endpoint = endpoint;
        it->connected = true;
    }
    std::sort(classes_.begin(), classes_.end(),
              [](const ClassEntry& a, const ClassEntry& b) { return a.def.name < b.def.name; });
    return true;
}

void RmRegistry::detach(const ManagerEndpoint* endpoint) {
    std::lock_guard<std::mutex> g(mu_);
    for (ClassEntry& c : classes_) {
        auto live = c.endpoint.lock();
        // An expired pointer can no longer be compared: an endpoint being
        // destroyed detaches first, so expired entries are its own or stale.
        if (live == nullptr || live.get() == endpoint) {
            c.connected = false;
            c.endpoint.reset();
        }
    }
}

std::string RmRegistry::classActionName(const std::string& className, int id) const {
    std::lock_guard<std::mutex> g(mu_);
    for (const ClassEntry& c : classes_) {
        if (c.def.name != className) {
            continue;
        }
        for (const tarn_rmf2v::RMActionDef& a : c.def.classActions) {
            if (a.id == id) {
                return a.name;
            }
        }
        break;
    }
    return {};
}

ClassLookup RmRegistry::find(const std::string& className) const {
    std::lock_guard<std::mutex> g(mu_);
    ClassLookup out;
    for (const ClassEntry& c : classes_) {
        if (c.def.name != className) {
            continue;
        }
        out.known = true;
        out.rmName = c.rmName;
        if (c.connected) {
            out.endpoint = c.endpoint.lock();
            out.connected = out.endpoint != nullptr;
        }
        break;
    }
    return out;
}

std::vector<ClassEntry> RmRegistry::classes() const {
    std::lock_guard<std::mutex> g(mu_);
    std::vector<ClassEntry> out = classes_;
    for (ClassEntry& c : out) {
        c.connected = c.connected && !c.endpoint.expired();
    }
    return out;
}

std::vector<ManagerSummary> RmRegistry::managers() const {
    std::lock_guard<std::mutex> g(mu_);
    std::map<std::string, ManagerSummary> byName;
    for (const ClassEntry& c : classes_) {
        ManagerSummary& m = byName[c.rmName];
        m.rmName = c.rmName;
        m.connected = m.connected || (c.connected && !c.endpoint.expired());
        m.classes.push_back(c.def.name);
    }
    std::vector<ManagerSummary> out;
    for (auto& [name, m] : byName) {
        out.push_back(std::move(m));
    }
    return out;
}

}  // namespace znpex::server
