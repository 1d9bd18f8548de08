// Event watches of the monitoring service, independent of the transport: a
// watch names a class, a selection of its resources, the attributes to send
// and an event expression (with "Name@P" for previous values) and optionally
// a re-arm expression. Reports of attribute values go in; events come out
// through the sink.
//
// Firing: a watch's expression is evaluated for each report that carries an
// attribute the expression names, over the resource's latest values. Without
// a re-arm expression every such evaluation that is true fires an event (so
// "PowerStatus!=PowerStatus@P" fires on every change and "ConfigChanged" on
// every report of it). With one, the watch fires once and then waits until a
// later report makes the re-arm expression true before it can fire again.
// Each resource has its own armed state.
//
// Thread-safe; the sink is called without the engine's lock held, once per
// report (or other cause) with every event it produced, in order.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/zn_owned.h"
#include "tarn_rmf/registry/RMSelection.h"
#include "tarn_rmf2v/RMClassDef.h"
#include "tarn_rmf2v/RMTypes.h"
#include "znpex/events/EventSchema.h"

namespace znpex::events {

struct WatchSpec {
    std::string className;
    std::string selection;  // over the resources' attributes; "" or "*": all
    // Names sent with each event; the attributes the expression names follow
    // them (those not listed already).
    std::vector<std::string> attributes;
    std::string expression;
    std::string rearm;        // "": none
    bool classLevel = false;  // watch the class's own attributes
};

inline constexpr uint32_t kEventFlagError = 0x1;
inline constexpr uint32_t kEventFlagClass = 0x4;

struct EventAttr {
    std::string name;
    int id = 0;
    bool persistent = true;
    zn::OwnedValue value;
};

struct Event {
    uint64_t watch = 0;
    std::string className;
    bool hasHandle = false;
    zn_resource_handle handle{};
    uint32_t flags = 0;
    int error = 0;  // error events: one of EventErrors.h
    std::vector<EventAttr> attrs;
    // >= 0: this event carries exactly what the batch's event at that index
    // carries apart from `watch` (same report, same attributes sent), and
    // `attrs` is left empty, so the payload is built once for all of them.
    int sameAs = -1;
};

class WatchEngine {
public:
    using Sink = std::function<void(std::vector<Event>&&)>;

    explicit WatchEngine(Sink sink);
    ~WatchEngine();

    // Registers a watch; returns its id (never 0). Throws tarn_rmf::RMTableError
    // for an expression or selection that does not compile against the class,
    // std::invalid_argument for an unknown attribute to send.
    uint64_t addWatch(const WatchSpec& spec, const tarn_rmf2v::RMClassDef& def);
    bool removeWatch(uint64_t id);
    size_t watchCount() const;

    // Current values of a resource (null handle: the class) without firing:
    // what a query returned when the watch was set up.
    void seed(const std::string& cls, const zn_resource_handle* handle, bool persistent,
              const rm_attribute_value* values, unsigned int count);
    // Values the manager answered when asked to start monitoring: the ones
    // that differ from what is known changed since the watch was seeded and
    // fire as a report would; the rest change nothing (a change that
    // reached us first must not be overwritten into silence).
    void refresh(const std::string& cls, const zn_resource_handle* handle, bool persistent,
                 const rm_attribute_value* values, unsigned int count);
    // New values reported by the manager; evaluates and fires.
    void report(const std::string& cls, const zn_resource_handle* handle, bool persistent,
                const rm_attribute_value* values, unsigned int count);
    // The resource is gone: watches that matched it get an error event.
    void resourceUndefined(const std::string& cls, const zn_resource_handle& handle);
    // The class's manager disconnected: one error event per watch of the class.
    void managerGone(const std::string& cls);
    // The service is stopping: one error event per watch; all watches end.
    void stopping();
    // Dynamic attribute ids that the class's watches name (monitoring must
    // run for these while the set is not empty): of its resources, or with
    // classLevel of the class itself.
    std::set<int> neededDynamic(const std::string& cls, bool classLevel = false) const;

private:
    struct ResourceState;
    struct Watch;
    class Source;

    static std::string keyOf(const std::string& cls, const zn_resource_handle* handle);
    bool matches(const Watch& w, const ResourceState& r) const;
    Event makeEvent(const Watch& w, const ResourceState& r, const zn_resource_handle* handle,
                    uint32_t flags, int error) const;
    enum class Update { kSeed, kReport, kRefresh };
    void update(const std::string& cls, const zn_resource_handle* handle, bool persistent,
                const rm_attribute_value* values, unsigned int count, Update how);
    void emit(std::vector<Event>&& out);

    Sink sink_;
    mutable std::mutex mu_;  // guards everything below
    uint64_t nextId_ = 1;
    std::map<uint64_t, std::unique_ptr<Watch>> watches_;
    // By class and handle; looked up on every report, so hashed.
    std::unordered_map<std::string, std::unique_ptr<ResourceState>> resources_;
};

}  // namespace znpex::events
