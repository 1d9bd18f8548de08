// Event watches of client sessions: the service's side of "event.register"
// and "event.unregister". Each watch belongs to the connection that made it
// and its events go there as "event.fired" notifications. The watch engine
// decides what fires; this class feeds it: current values when a watch is
// set up (asking the class's manager), the managers' attribute and undefine
// notifications, and the managers' comings and goings. It keeps monitoring
// running on each manager for exactly the dynamic attributes that the
// class's watches name, on every resource the watches have seen.
//
// Asking managers happens on one worker thread of its own (never on the
// connections' threads, which deliver the answers); every question has a
// deadline. Thread-safe. Destroy it before the registry and the connections'
// executor go; pending questions are abandoned then.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tarn_rmf2v/RMReply.h"
#include "tarn_rmf2v/RMRequest.h"
#include "znpex/events/WatchEngine.h"
#include "znpex/proto/NotifyMessages.h"
#include "znpex/server/RmRegistry.h"

namespace znpex::server {

class Connection;

inline constexpr char kEventRegister[] = "event.register";
inline constexpr char kEventUnregister[] = "event.unregister";
inline constexpr char kEventFired[] = "event.fired";

// The "event.fired" params of an event without its "registration":
// {"class", "flags", "handle" (resource events), "error" (error events),
// "attributes": [{"name", "id", "persistent", "t", "v"}, ...]}.
std::string eventBody(const events::Event& e);
// The whole "event.fired" notification of registration `watch`: one body
// serves every watch an event went to.
std::string eventNotification(uint64_t watch, const std::string& body);

class EventService {
public:
    EventService(RmRegistry& registry, std::chrono::milliseconds requestTimeout);
    ~EventService();

    // Compiles and adds a watch of `owner`, then (in the background) reads
    // the current values and starts what monitoring it needs. Throws as
    // WatchEngine::addWatch does, or ProtocolError for malformed params.
    // `identity` is the owner's, for the questions asked on its behalf.
    uint64_t add(const std::shared_ptr<Connection>& owner, const std::string& identity,
                 const events::WatchSpec& spec, const tarn_rmf2v::RMClassDef& def);
    // False when `owner` has no such watch.
    bool remove(uint64_t ownerId, uint64_t watch);
    // Every watch of a closed connection ends.
    void connectionClosed(uint64_t ownerId);

    void attributesModified(const proto::AttributesModified& n);
    void resourcesUndefined(const proto::ResourcesUndefined& n);
    // A manager's connection dropped / it registered (again) for `classes`.
    void managerGone(const std::vector<std::string>& classes);
    void managerBack(const std::vector<std::string>& classes);
    // The service is stopping: every watch gets its error event and ends.
    // Returns how many watches there were.
    size_t stopping();

    size_t watchCount() const { return engine_.watchCount(); }
    // Events handed to watching clients so far.
    uint64_t delivered() const { return delivered_.load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> delivered_{0};
    struct Owned {
        uint64_t ownerId = 0;
        std::weak_ptr<Connection> owner;
        std::string identity;
        events::WatchSpec spec;
    };
    // Monitoring as the manager of one class has it now.
    struct ClassState {
        std::set<std::string> handles;                    // hex, resources seen
        std::map<std::string, std::set<int>> monitoring;  // hex -> dynamic ids
        std::set<int> classMonitoring;                    // the class's own dynamic ids
        // Counts the manager's departures: a monitoring change asked of a
        // manager that has since gone is not written back.
        uint64_t departures = 0;
    };

    void deliver(std::vector<events::Event>&& batch);
    void deliverOne(events::Event&& e);
    void post(std::function<void()> task);
    void run();
    // Reads the watch's resources (or the class) and their values into the engine.
    void seed(uint64_t watch);
    // The class's own current values; false when the manager did not give them.
    bool seedClass(const Owned& w, const tarn_rmf2v::RMClassDef& def);
    // Starts and stops monitoring so the class's manager watches what is needed.
    void reconcile(const std::string& cls);
    void reconcileClass(const std::string& cls);
    // One resource's (or the class's) monitoring to move: start and stop
    // come with the class and handle filled in.
    struct MonitoringMove {
        tarn_rmf2v::RMRequest start;
        tarn_rmf2v::RMRequest stop;
        std::set<int> current;
    };
    // Asks the manager to start what `needed` has beyond each move's current
    // set and to stop the rest, many at a time; `seed` gets a successful
    // start's values by move index. Returns what each monitors after. A
    // refusal gives the class's watches one error event.
    std::vector<std::set<int>> moveMonitoring(
        std::vector<MonitoringMove>& moves, const std::set<int>& needed,
        const std::function<void(size_t, const tarn_rmf2v::RMReply&)>& seed);
    // Every watch of the class gets error event 0x4000b.
    void monitoringRefused(const std::string& cls);
    tarn_rmf2v::RMClassDef classDef(const std::string& cls) const;
    // Asks the class's manager and waits for the answer. `apply`, when
    // given, gets a successful answer where it is read, before anything the
    // manager sent after it: values it carries are never taken after a
    // newer change the manager reported.
    std::optional<tarn_rmf2v::RMReply> ask(
        const tarn_rmf2v::RMRequest& request, const std::string& identity,
        const std::function<void(const tarn_rmf2v::RMReply&)>& apply = {});
    // The same for many requests of one class, with up to kAskWindow of
    // them in flight; `apply` gets the request's index. Answers by index.
    static constexpr size_t kAskWindow = 32;
    std::vector<std::optional<tarn_rmf2v::RMReply>> askMany(
        const std::vector<const tarn_rmf2v::RMRequest*>& requests, const std::string& identity,
        const std::function<void(size_t, const tarn_rmf2v::RMReply&)>& apply = {});
    void seedValues(const std::string& cls, const zn_resource_handle& h, bool persistent,
                    const std::vector<tarn_rmf2v::RMReplyAttr>& values);

    RmRegistry& registry_;
    const std::chrono::milliseconds timeout_;
    events::WatchEngine engine_;

    std::mutex mu_;  // guards watches_, classes_
    std::map<uint64_t, Owned> watches_;
    std::map<std::string, ClassState> classes_;

    std::mutex taskMu_;  // guards tasks_, stop_
    std::condition_variable taskCv_;
    std::deque<std::function<void()>> tasks_;
    bool stop_ = false;
    std::thread worker_;
};

}  // namespace znpex::server
