#include "znpex/server/EventService.h"

#include <condition_variable>
#include <future>

#include "znpex/events/EventErrors.h"
#include "znpex/proto/JsonRpc.h"
#include "znpex/proto/JsonWriter.h"
#include "znpex/proto/RequestCodec.h"
#include "znpex/proto/ValueCodec.h"
#include "znpex/proto/ValueText.h"
#include "znpex/server/Connection.h"
#include "znpex/server/ManagerSession.h"
#include "znpex/server/ServiceLog.h"

namespace znpex::server {
namespace {

using proto::Json;
using tarn_rmf2v::RMReply;
using tarn_rmf2v::RMReplyAttr;
using tarn_rmf2v::RMRequest;
using tarn_rmf2v::RMRequestOp;

std::vector<rm_attribute_value> viewOf(const std::vector<RMReplyAttr>& values) {
    std::vector<rm_attribute_value> out;
    out.reserve(values.size());
    for (const RMReplyAttr& a : values) {
        out.push_back(rm_attribute_value{a.id, a.value.type(), a.value.value()});
    }
    return out;
}

events::Event errorEvent(uint64_t watch, const std::string& cls, int error) {
    events::Event e;
    e.watch = watch;
    e.className = cls;
    e.flags = events::kEventFlagError;
    e.error = error;
    return e;
}

}  // namespace

std::string eventNotification(uint64_t watch, const std::string& body) {
    // Params are an object with at least "attributes"; the registration goes first.
    static const std::string head = [] {
        std::string h = proto::dumpJson(proto::makeNotification(kEventFired, Json::object()));
        return h.substr(0, h.size() - 2);  // without the params' "}" and the message's "}"
    }();
    std::string out;
    out.reserve(head.size() + body.size() + 40);
    out += head;
    out += "\"registration\":";
    out += std::to_string(watch);
    out += ',';
    out.append(body, 1, std::string::npos);
    out += '}';
    return out;
}

std::string eventBody(const events::Event& e) {
    std::string out;
    out.reserve(128 + 64 * e.attrs.size());
    proto::JsonWriter w(out);
    w.beginObject().key("class").string(e.className).key("flags").unsignedInteger(e.flags);
    if (e.hasHandle) {
        w.key("handle").string(proto::handleToHex(e.handle));
    }
    if (e.error != 0) {
        w.key("error").integer(e.error);
    }
    w.key("attributes").beginArray();
    for (const events::EventAttr& a : e.attrs) {
        w.beginObject().key("name").string(a.name).key("id").integer(a.id);
        w.key("persistent").boolean(a.persistent);
        proto::writeTypedMembers(w, a.value.type(), a.value.value());
        w.endObject();
    }
    w.endArray().endObject();
    return out;
}

EventService::EventService(RmRegistry& registry, std::chrono::milliseconds requestTimeout)
    : registry_(registry),
      timeout_(requestTimeout),
      engine_([this](std::vector<events::Event>&& batch) { deliver(std::move(batch)); }),
      worker_([this] { run(); }) {}

EventService::~EventService() {
    {
        std::lock_guard<std::mutex> g(taskMu_);
        stop_ = true;
    }
    taskCv_.notify_all();
    worker_.join();
}

uint64_t EventService::add(const std::shared_ptr<Connection>& owner, const std::string& identity,
                           const events::WatchSpec& spec, const tarn_rmf2v::RMClassDef& def) {
    uint64_t id = engine_.addWatch(spec, def);
    {
        std::lock_guard<std::mutex> g(mu_);
        watches_[id] = Owned{owner->id(), owner, identity, spec};
    }
    post([this, id] { seed(id); });
    return id;
}

bool EventService::remove(uint64_t ownerId, uint64_t watch) {
    std::string cls;
    {
        std::lock_guard<std::mutex> g(mu_);
        auto it = watches_.find(watch);
        if (it == watches_.end() || it->second.ownerId != ownerId) {
            return false;
        }
        cls = it->second.spec.className;
        watches_.erase(it);
    }
    engine_.removeWatch(watch);
    post([this, cls] { reconcile(cls); });
    return true;
}

void EventService::connectionClosed(uint64_t ownerId) {
    std::vector<uint64_t> gone;
    std::set<std::string> classes;
    {
        std::lock_guard<std::mutex> g(mu_);
        for (auto it = watches_.begin(); it != watches_.end();) {
            if (it->second.ownerId == ownerId) {
                gone.push_back(it->first);
                classes.insert(it->second.spec.className);
                it = watches_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (uint64_t id : gone) {
        engine_.removeWatch(id);
    }
    for (const std::string& cls : classes) {
        post([this, cls] { reconcile(cls); });
    }
}

void EventService::attributesModified(const proto::AttributesModified& n) {
    std::vector<rm_attribute_value> values = viewOf(n.values);
    const zn_resource_handle* h = n.hasHandle ? &n.handle : nullptr;
    engine_.report(n.className, h, n.persistent, values.data(),
                   static_cast<unsigned int>(values.size()));
    if (h == nullptr) {
        return;
    }
    // A resource no watch has seen yet (defined later) gets its monitoring too.
    bool fresh = false;
    {
        std::lock_guard<std::mutex> g(mu_);
        auto it = classes_.find(n.className);
        if (it != classes_.end()) {
            fresh = it->second.handles.insert(proto::handleToHex(*h)).second;
        }
    }
    if (fresh) {
        std::string cls = n.className;
        post([this, cls] { reconcile(cls); });
    }
}

void EventService::resourcesUndefined(const proto::ResourcesUndefined& n) {
    for (const zn_resource_handle& h : n.handles) {
        engine_.resourceUndefined(n.className, h);
    }
    std::lock_guard<std::mutex> g(mu_);
    auto it = classes_.find(n.className);
    if (it != classes_.end()) {
        for (const zn_resource_handle& h : n.handles) {
            std::string hex = proto::handleToHex(h);
            it->second.handles.erase(hex);
            it->second.monitoring.erase(hex);
        }
    }
}

void EventService::managerGone(const std::vector<std::string>& classes) {
    {
        // A new connection of the manager starts with nothing monitored.
        std::lock_guard<std::mutex> g(mu_);
        for (const std::string& cls : classes) {
            auto it = classes_.find(cls);
            if (it != classes_.end()) {
                it->second.monitoring.clear();
                it->second.classMonitoring.clear();
                ++it->second.departures;
            }
        }
    }
    for (const std::string& cls : classes) {
        engine_.managerGone(cls);
    }
}

void EventService::managerBack(const std::vector<std::string>& classes) {
    std::vector<uint64_t> again;
    {
        std::lock_guard<std::mutex> g(mu_);
        std::set<std::string> wanted(classes.begin(), classes.end());
        for (auto& [id, w] : watches_) {
            if (wanted.count(w.spec.className) != 0) {
                again.push_back(id);
            }
        }
    }
    for (uint64_t id : again) {
        post([this, id] { seed(id); });
    }
}

size_t EventService::stopping() {
    engine_.stopping();
    std::lock_guard<std::mutex> g(mu_);
    size_t n = watches_.size();
    watches_.clear();
    return n;
}

void EventService::deliver(std::vector<events::Event>&& batch) {
    // Owners looked up under one lock; each distinct event encoded once.
    std::vector<std::shared_ptr<Connection>> owners(batch.size());
    {
        std::lock_guard<std::mutex> g(mu_);
        for (size_t i = 0; i < batch.size(); ++i) {
            auto it = watches_.find(batch[i].watch);
            if (it != watches_.end()) {
                owners[i] = it->second.owner.lock();
            }
        }
    }
    std::vector<std::string> bodies(batch.size());
    for (size_t i = 0; i < batch.size(); ++i) {
        if (owners[i] == nullptr) {
            continue;
        }
        int same = batch[i].sameAs;
        size_t src = same >= 0 && static_cast<size_t>(same) < i ? static_cast<size_t>(same) : i;
        if (bodies[src].empty()) {
            bodies[src] = eventBody(batch[src]);
        }
        owners[i]->send(eventNotification(batch[i].watch, bodies[src]));
        delivered_.fetch_add(1, std::memory_order_relaxed);
    }
}

void EventService::deliverOne(events::Event&& e) {
    std::vector<events::Event> one;
    one.push_back(std::move(e));
    deliver(std::move(one));
}

void EventService::post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> g(taskMu_);
        if (stop_) {
            return;
        }
        tasks_.push_back(std::move(task));
    }
    taskCv_.notify_one();
}

void EventService::run() {
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock<std::mutex> lk(taskMu_);
            taskCv_.wait(lk, [this] { return stop_ || !tasks_.empty(); });
            if (stop_) {
                return;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        try {
            task();
        } catch (const std::exception& e) {
            serviceLog("event watch upkeep failed: %s", e.what());
        }
    }
}

std::optional<RMReply> EventService::ask(const RMRequest& request, const std::string& identity,
                                         const std::function<void(const RMReply&)>& apply) {
    std::vector<std::optional<RMReply>> got =
        askMany({&request}, identity, [&apply](size_t, const RMReply& r) {
            if (apply) {
                apply(r);
            }
        });
    return std::move(got[0]);
}

std::vector<std::optional<RMReply>> EventService::askMany(
    const std::vector<const RMRequest*>& requests, const std::string& identity,
    const std::function<void(size_t, const RMReply&)>& apply) {
    // The answers are decoded (and applied) on the thread that reads the
    // manager's messages, in their order; a wait given up at stopping
    // leaves the rest unapplied, since `apply` may refer to the waiter's
    // locals.
    struct Batch {
        std::mutex mu;
        std::condition_variable cv;
        size_t outstanding = 0;
        bool abandoned = false;
        std::vector<std::optional<RMReply>> replies;
    };
    auto batch = std::make_shared<Batch>();
    batch->replies.resize(requests.size());
    if (requests.empty()) {
        return {};
    }
    ClassLookup where = registry_.find(requests.front()->className);
    if (!where.connected || where.endpoint == nullptr) {
        return std::move(batch->replies);
    }
    auto session = std::static_pointer_cast<ManagerSession>(where.endpoint);
    // Waits until at most `most` questions are open; false once stopping.
    // The session's own deadline ends every question.
    auto waitFor = [&](size_t most) {
        std::unique_lock<std::mutex> lk(batch->mu);
        while (!batch->cv.wait_for(lk, std::chrono::milliseconds(50),
                                   [&] { return batch->outstanding <= most; })) {
            std::lock_guard<std::mutex> g(taskMu_);
            if (stop_) {
                batch->abandoned = true;
                return false;
            }
        }
        return true;
    };
    for (size_t i = 0; i < requests.size(); ++i) {
        if (!waitFor(kAskWindow - 1)) {
            return std::vector<std::optional<RMReply>>(requests.size());
        }
        {
            std::lock_guard<std::mutex> g(batch->mu);
            ++batch->outstanding;
        }
        const RMRequest& q = *requests[i];
        bool sent =
            session->forward(proto::rmMethod(q.op), proto::encodeRequestParams(q, identity),
                             timeout_, [batch, i, apply](ManagerSession::Outcome o, Json response) {
                                 std::optional<RMReply> reply;
                                 const Json* result = o == ManagerSession::Outcome::Answered
                                                          ? proto::findField(response, "result")
                                                          : nullptr;
                                 if (result != nullptr) {
                                     try {
                                         reply = proto::decodeReply(*result);
                                     } catch (const std::exception&) {
                                         reply.reset();
                                     }
                                 }
                                 std::lock_guard<std::mutex> g(batch->mu);
                                 if (batch->abandoned) {
                                     return;
                                 }
                                 if (reply && reply->error == nullptr && apply) {
                                     apply(i, *reply);
                                 }
                                 batch->replies[i] = std::move(reply);
                                 --batch->outstanding;
                                 batch->cv.notify_all();
                             });
        if (!sent) {
            std::lock_guard<std::mutex> g(batch->mu);
            --batch->outstanding;
        }
    }
    if (!waitFor(0)) {
        return std::vector<std::optional<RMReply>>(requests.size());
    }
    std::lock_guard<std::mutex> g(batch->mu);
    return std::move(batch->replies);
}

void EventService::seedValues(const std::string& cls, const zn_resource_handle& h, bool persistent,
                              const std::vector<RMReplyAttr>& values) {
    std::vector<rm_attribute_value> view = viewOf(values);
    engine_.seed(cls, &h, persistent, view.data(), static_cast<unsigned int>(view.size()));
}

tarn_rmf2v::RMClassDef EventService::classDef(const std::string& cls) const {
    for (const ClassEntry& e : registry_.classes()) {
        if (e.def.name == cls) {
            return e.def;
        }
    }
    return {};
}

bool EventService::seedClass(const Owned& w, const tarn_rmf2v::RMClassDef& def) {
    const std::string& cls = w.spec.className;
    bool ok = true;
    for (bool persistent : {true, false}) {
        RMRequest q;
        q.className = cls;
        q.op = persistent ? RMRequestOp::GetClassAttributeValues
                          : RMRequestOp::ReportDynClassAttributeValues;
        for (const auto& a : persistent ? def.classPersistent : def.classDynamic) {
            q.ids.push_back(a.id);
        }
        if (q.ids.empty()) {
            continue;
        }
        std::optional<RMReply> got = ask(q, w.identity, [&](const RMReply& r) {
            std::vector<rm_attribute_value> view = viewOf(r.values);
            engine_.seed(cls, nullptr, persistent, view.data(),
                         static_cast<unsigned int>(view.size()));
        });
        if (!got || got->error != nullptr) {
            ok = false;
        }
    }
    return ok;
}

void EventService::seed(uint64_t watch) {
    Owned w;
    {
        std::lock_guard<std::mutex> g(mu_);
        auto it = watches_.find(watch);
        if (it == watches_.end()) {
            return;  // gone meanwhile
        }
        w = it->second;
    }
    const std::string& cls = w.spec.className;
    ClassLookup where = registry_.find(cls);
    if (!where.connected) {
        return;  // resumes when the manager registers again
    }
    if (w.spec.classLevel) {
        if (!seedClass(w, classDef(cls))) {
            deliverOne(errorEvent(watch, cls, events::kErrQueryFailed));
        }
        reconcile(cls);
        return;
    }
    RMRequest en;
    en.className = cls;
    bool all = w.spec.selection.empty() || w.spec.selection == "*";
    en.op = all ? RMRequestOp::EnumerateResources : RMRequestOp::EnumerateSelectResources;
    en.selection = all ? std::string() : w.spec.selection;
    std::optional<RMReply> listed = ask(en, w.identity);
    if (!all && listed && listed->error != nullptr) {
        // A manager that cannot select lists everything; the engine applies
        // the selection to the values itself.
        en.op = RMRequestOp::EnumerateResources;
        en.selection.clear();
        listed = ask(en, w.identity);
    }
    if (!listed || listed->error != nullptr) {
        deliverOne(errorEvent(watch, cls, events::kErrQueryFailed));
        return;
    }
    tarn_rmf2v::RMClassDef def = classDef(cls);
    // Each resource's persistent and dynamic values, asked many at a time.
    std::vector<RMRequest> reads;
    std::vector<std::pair<size_t, bool>> of;  // handle index, persistent
    reads.reserve(2 * listed->handles.size());
    for (size_t k = 0; k < listed->handles.size(); ++k) {
        for (bool persistent : {true, false}) {
            RMRequest q;
            q.className = cls;
            q.handle = listed->handles[k];
            q.op = persistent ? RMRequestOp::GetAttributeValues
                              : RMRequestOp::ReportDynAttributeValues;
            for (const auto& a : persistent ? def.persistent : def.dynamic) {
                q.ids.push_back(a.id);
            }
            if (!q.ids.empty()) {
                reads.push_back(std::move(q));
                of.emplace_back(k, persistent);
            }
        }
    }
    std::vector<const RMRequest*> asked;
    for (const RMRequest& q : reads) {
        asked.push_back(&q);
    }
    std::vector<std::optional<RMReply>> got =
        askMany(asked, w.identity, [&](size_t i, const RMReply& r) {
            seedValues(cls, listed->handles[of[i].first], of[i].second, r.values);
        });
    bool failed = false;
    for (const std::optional<RMReply>& r : got) {
        failed = failed || !r || r->error != nullptr;
    }
    {
        std::lock_guard<std::mutex> g(mu_);
        for (const zn_resource_handle& h : listed->handles) {
            classes_[cls].handles.insert(proto::handleToHex(h));
        }
    }
    if (failed) {
        deliverOne(errorEvent(watch, cls, events::kErrQueryFailed));
    }
    reconcile(cls);
}

void EventService::monitoringRefused(const std::string& cls) {
    std::vector<uint64_t> hit;
    {
        std::lock_guard<std::mutex> g(mu_);
        for (auto& [id, w] : watches_) {
            if (w.spec.className == cls) {
                hit.push_back(id);
            }
        }
    }
    for (uint64_t id : hit) {
        deliverOne(errorEvent(id, cls, events::kErrMonitoringStopped));
    }
}

std::vector<std::set<int>> EventService::moveMonitoring(
    std::vector<MonitoringMove>& moves, const std::set<int>& needed,
    const std::function<void(size_t, const RMReply&)>& seed) {
    std::vector<const RMRequest*> starts;
    std::vector<size_t> startOf;
    std::vector<const RMRequest*> stops;
    std::vector<std::set<int>> after;
    for (size_t k = 0; k < moves.size(); ++k) {
        MonitoringMove& m = moves[k];
        for (int id : needed) {
            if (m.current.count(id) == 0) {
                m.start.monitoring.push_back(rm_monitoring_data{id, 0});
            }
        }
        for (int id : m.current) {
            if (needed.count(id) == 0) {
                m.stop.ids.push_back(id);
            }
        }
        if (!m.start.monitoring.empty()) {
            starts.push_back(&m.start);
            startOf.push_back(k);
        }
        if (!m.stop.ids.empty()) {
            stops.push_back(&m.stop);
        }
        after.push_back(m.current);
    }
    std::vector<std::optional<RMReply>> started =
        askMany(starts, {}, [&](size_t i, const RMReply& r) { seed(startOf[i], r); });
    bool refused = false;
    for (size_t i = 0; i < started.size(); ++i) {
        if (started[i] && started[i]->error == nullptr) {
            for (const rm_monitoring_data& d : starts[i]->monitoring) {
                after[startOf[i]].insert(d.rm_attribute_id);
            }
        } else {
            refused = true;
        }
    }
    if (refused && !moves.empty() && registry_.find(moves.front().start.className).connected) {
        monitoringRefused(moves.front().start.className);  // once, however many refused
    }
    // Whatever the manager answers, nobody needs these any more.
    askMany(stops, {});
    for (size_t k = 0; k < moves.size(); ++k) {
        for (int id : moves[k].stop.ids) {
            after[k].erase(id);
        }
    }
    return after;
}

void EventService::reconcileClass(const std::string& cls) {
    std::set<int> needed = engine_.neededDynamic(cls, true);
    std::set<int> current;
    uint64_t departures = 0;
    {
        std::lock_guard<std::mutex> g(mu_);
        current = classes_[cls].classMonitoring;
        departures = classes_[cls].departures;
    }
    std::vector<MonitoringMove> moves(1);
    moves[0].start.op = RMRequestOp::StartMonitoringClassAttrs;
    moves[0].start.className = cls;
    moves[0].stop.op = RMRequestOp::StopMonitoringClassAttrs;
    moves[0].stop.className = cls;
    moves[0].current = std::move(current);
    std::set<int> after = std::move(moveMonitoring(moves, needed, [&](size_t, const RMReply& r) {
        std::vector<rm_attribute_value> view = viewOf(r.values);
        engine_.refresh(cls, nullptr, false, view.data(), static_cast<unsigned int>(view.size()));
    })[0]);
    std::lock_guard<std::mutex> g(mu_);
    ClassState& st = classes_[cls];
    if (st.departures == departures) {
        st.classMonitoring = std::move(after);
    }
}

void EventService::reconcile(const std::string& cls) {
    reconcileClass(cls);
    std::set<int> needed = engine_.neededDynamic(cls);
    std::map<std::string, std::set<int>> now;
    uint64_t departures = 0;
    {
        std::lock_guard<std::mutex> g(mu_);
        ClassState& st = classes_[cls];
        departures = st.departures;
        for (const std::string& hex : st.handles) {
            now[hex] = st.monitoring[hex];
        }
    }
    std::vector<MonitoringMove> moves;
    std::vector<std::string> hexes;
    for (auto& [hex, current] : now) {
        zn_resource_handle h{};
        if (!proto::parseHandleHex(hex, h)) {
            continue;
        }
        MonitoringMove& m = moves.emplace_back();
        m.start.op = RMRequestOp::StartMonitoringResourceAttrs;
        m.start.className = cls;
        m.start.handle = h;
        m.stop.op = RMRequestOp::StopMonitoringResourceAttrs;
        m.stop.className = cls;
        m.stop.handle = h;
        m.current = std::move(current);
        hexes.push_back(hex);
    }
    std::vector<std::set<int>> after =
        moveMonitoring(moves, needed, [&](size_t k, const RMReply& r) {
            std::vector<rm_attribute_value> view = viewOf(r.values);
            engine_.refresh(cls, &moves[k].start.handle, false, view.data(),
                            static_cast<unsigned int>(view.size()));
        });
    std::lock_guard<std::mutex> g(mu_);
    auto it = classes_.find(cls);
    if (it == classes_.end() || it->second.departures != departures) {
        return;
    }
    for (size_t k = 0; k < moves.size(); ++k) {
        if (it->second.handles.count(hexes[k]) != 0) {
            it->second.monitoring[hexes[k]] = std::move(after[k]);
        }
    }
}

}  // namespace znpex::server
