#include "znpex/events/WatchEngine.h"

#include <algorithm>
#include <stdexcept>

#include "tarn_rmf/registry/RMValueView.h"
#include "znpex/events/EventErrors.h"

namespace znpex::events {

struct WatchEngine::ResourceState {
    std::string cls;
    bool hasHandle = false;
    zn_resource_handle handle{};
    std::map<int, zn::OwnedValue> cur;
    std::map<int, zn::OwnedValue> prev;
};

struct WatchEngine::Watch {
    uint64_t id = 0;
    WatchSpec spec;
    std::unique_ptr<EventSchema> schema;
    std::shared_ptr<const tarn_rmf::RMSelection> selection;  // null: all resources
    std::shared_ptr<const tarn_rmf::RMSelection> expr;
    std::shared_ptr<const tarn_rmf::RMSelection> rearm;  // null: none
    std::set<int> exprCols;
    std::set<int> rearmCols;
    // Sent with each event: the listed attributes, then those the expression
    // names besides them, so an event shows the values that made it fire.
    std::vector<int> sendCols;
    std::vector<std::string> sendNames;
    std::set<std::string> disarmed;  // resource keys waiting for the re-arm expression
};

class WatchEngine::Source : public tarn_rmf::RMValueSource {
public:
    explicit Source(const ResourceState& r) : r_(r) {}
    bool value(int column, tarn_rmf::RMValueView& out) const override {
        return view(r_.cur, column, out);
    }
    bool previous(int column, tarn_rmf::RMValueView& out) const override {
        return view(r_.prev, column, out);
    }

private:
    static bool view(const std::map<int, zn::OwnedValue>& m, int column,
                     tarn_rmf::RMValueView& out) {
        auto it = m.find(column);
        if (it == m.end()) {
            return false;
        }
        out = tarn_rmf::rmViewOf(it->second.type(), it->second.value());
        return true;
    }
    const ResourceState& r_;
};

namespace {

bool evaluate(const tarn_rmf::RMSelection& sel, const tarn_rmf::RMValueSource& src) {
    return sel.evaluate(src, sel.bind(nullptr));
}

bool intersects(const std::set<int>& a, const std::set<int>& reported) {
    for (int c : reported) {
        if (a.count(c) != 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

WatchEngine::WatchEngine(Sink sink) : sink_(std::move(sink)) {}

WatchEngine::~WatchEngine() = default;

std::string WatchEngine::keyOf(const std::string& cls, const zn_resource_handle* handle) {
    std::string k = cls;
    k.push_back('\0');
    if (handle != nullptr) {
        k.append(reinterpret_cast<const char*>(handle->bytes), sizeof handle->bytes);
    }
    return k;
}

uint64_t WatchEngine::addWatch(const WatchSpec& spec, const tarn_rmf2v::RMClassDef& def) {
    auto w = std::make_unique<Watch>();
    w->spec = spec;
    w->schema = std::make_unique<EventSchema>(def, spec.classLevel);
    for (const auto& name : spec.attributes) {
        int col = w->schema->column(name);
        if (col < 0) {
            throw std::invalid_argument("class " + spec.className + " has no attribute " + name);
        }
        w->sendCols.push_back(col);
        w->sendNames.push_back(name);
    }
    if (!spec.selection.empty() && spec.selection != "*") {
        w->selection = tarn_rmf::RMSelection::compile(spec.selection, *w->schema);
    }
    w->schema->clearNamed();
    w->expr = tarn_rmf::RMSelection::compile(spec.expression, *w->schema);
    w->exprCols = w->schema->named();
    for (int col : w->exprCols) {
        const std::string* name = w->schema->nameOf(col);
        if (name != nullptr &&
            std::find(w->sendCols.begin(), w->sendCols.end(), col) == w->sendCols.end()) {
            w->sendCols.push_back(col);
            w->sendNames.push_back(*name);
        }
    }
    if (!spec.rearm.empty()) {
        w->schema->clearNamed();
        w->rearm = tarn_rmf::RMSelection::compile(spec.rearm, *w->schema);
        w->rearmCols = w->schema->named();
    }
    std::lock_guard<std::mutex> g(mu_);
    w->id = nextId_++;
    uint64_t id = w->id;
    watches_.emplace(id, std::move(w));
    return id;
}

bool WatchEngine::removeWatch(uint64_t id) {
    std::lock_guard<std::mutex> g(mu_);
    return watches_.erase(id) != 0;
}

size_t WatchEngine::watchCount() const {
    std::lock_guard<std::mutex> g(mu_);
    return watches_.size();
}

bool WatchEngine::matches(const Watch& w, const ResourceState& r) const {
    if (w.spec.className != r.cls || w.spec.classLevel == r.hasHandle) {
        return false;
    }
    if (!w.selection) {
        return true;
    }
    return evaluate(*w.selection, Source(r));
}

Event WatchEngine::makeEvent(const Watch& w, const ResourceState& r,
                             const zn_resource_handle* handle, uint32_t flags, int error) const {
    Event e;
    e.watch = w.id;
    e.className = w.spec.className;
    if (handle != nullptr) {
        e.hasHandle = true;
        e.handle = *handle;
    }
    e.flags = flags | (w.spec.classLevel ? kEventFlagClass : 0);
    e.error = error;
    for (size_t i = 0; i < w.sendCols.size(); ++i) {
        int col = w.sendCols[i];
        EventAttr a;
        a.name = w.sendNames[i];
        a.persistent = col < kDynamicBase;
        a.id = a.persistent ? col : col - kDynamicBase;
        auto it = r.cur.find(col);
        if (it != r.cur.end()) {
            a.value = zn::OwnedValue::copyOf(it->second.type(), it->second.value());
        }
        e.attrs.push_back(std::move(a));
    }
    return e;
}

void WatchEngine::update(const std::string& cls, const zn_resource_handle* handle, bool persistent,
                         const rm_attribute_value* values, unsigned int count, Update how) {
    std::vector<Event> out;
    {
        std::lock_guard<std::mutex> g(mu_);
        std::string key = keyOf(cls, handle);
        auto& slot = resources_[key];
        if (!slot) {
            slot = std::make_unique<ResourceState>();
            slot->cls = cls;
            slot->hasHandle = handle != nullptr;
            if (handle != nullptr) {
                slot->handle = *handle;
            }
        }
        ResourceState& r = *slot;
        std::set<int> reported;
        for (unsigned int i = 0; values != nullptr && i < count; ++i) {
            int col = columnOf(persistent, values[i].rm_attribute_id);
            auto cur = r.cur.find(col);
            bool known = cur != r.cur.end();
            if (how == Update::kRefresh && known && cur->second.type() == values[i].rm_data_type &&
                zn_value_equal(values[i].rm_data_type, cur->second.value(), values[i].rm_value)) {
                continue;
            }
            if (known) {
                r.prev[col] = std::move(cur->second);
            }
            r.cur[col] = zn::OwnedValue::copyOf(values[i].rm_data_type, values[i].rm_value);
            if (how == Update::kReport || known) {
                reported.insert(col);
            }
        }
        if (how == Update::kSeed || reported.empty()) {
            return;
        }
        Source src(r);
        // Watches sending the same attributes share one event body.
        std::map<std::vector<int>, int> firstSending;
        for (auto& [id, w] : watches_) {
            if (!matches(*w, r)) {
                continue;
            }
            bool waiting = w->disarmed.count(key) != 0;
            if (waiting) {
                if (w->rearm && intersects(w->rearmCols, reported) && evaluate(*w->rearm, src)) {
                    w->disarmed.erase(key);
                }
                continue;
            }
            if (!intersects(w->exprCols, reported) || !evaluate(*w->expr, src)) {
                continue;
            }
            auto [first, fresh] = firstSending.emplace(w->sendCols, static_cast<int>(out.size()));
            if (fresh) {
                out.push_back(makeEvent(*w, r, handle, 0, 0));
            } else {
                Event e;
                e.watch = w->id;
                e.sameAs = first->second;
                out.push_back(std::move(e));
            }
            if (w->rearm) {
                w->disarmed.insert(key);
            }
        }
    }
    emit(std::move(out));
}

void WatchEngine::emit(std::vector<Event>&& out) {
    if (!out.empty()) {
        sink_(std::move(out));
    }
}

void WatchEngine::seed(const std::string& cls, const zn_resource_handle* handle, bool persistent,
                       const rm_attribute_value* values, unsigned int count) {
    update(cls, handle, persistent, values, count, Update::kSeed);
}

void WatchEngine::refresh(const std::string& cls, const zn_resource_handle* handle, bool persistent,
                          const rm_attribute_value* values, unsigned int count) {
    update(cls, handle, persistent, values, count, Update::kRefresh);
}

void WatchEngine::report(const std::string& cls, const zn_resource_handle* handle, bool persistent,
                         const rm_attribute_value* values, unsigned int count) {
    update(cls, handle, persistent, values, count, Update::kReport);
}

void WatchEngine::resourceUndefined(const std::string& cls, const zn_resource_handle& handle) {
    std::vector<Event> out;
    {
        std::lock_guard<std::mutex> g(mu_);
        std::string key = keyOf(cls, &handle);
        auto it = resources_.find(key);
        if (it == resources_.end()) {
            return;
        }
        for (auto& [id, w] : watches_) {
            if (matches(*w, *it->second)) {
                out.push_back(
                    makeEvent(*w, *it->second, &handle, kEventFlagError, kErrResourceUndefined));
            }
            w->disarmed.erase(key);
        }
        resources_.erase(it);
    }
    emit(std::move(out));
}

void WatchEngine::managerGone(const std::string& cls) {
    std::vector<Event> out;
    {
        std::lock_guard<std::mutex> g(mu_);
        ResourceState none;
        none.cls = cls;
        for (auto& [id, w] : watches_) {
            if (w->spec.className == cls) {
                out.push_back(makeEvent(*w, none, nullptr, kEventFlagError, kErrManagerGone));
            }
        }
    }
    emit(std::move(out));
}

void WatchEngine::stopping() {
    std::vector<Event> out;
    {
        std::lock_guard<std::mutex> g(mu_);
        for (auto& [id, w] : watches_) {
            ResourceState none;
            none.cls = w->spec.className;
            out.push_back(makeEvent(*w, none, nullptr, kEventFlagError, kErrServiceStopping));
        }
        watches_.clear();
    }
    emit(std::move(out));
}

std::set<int> WatchEngine::neededDynamic(const std::string& cls, bool classLevel) const {
    std::lock_guard<std::mutex> g(mu_);
    std::set<int> ids;
    for (const auto& [id, w] : watches_) {
        // Class and resource attributes have ids of their own.
        if (w->spec.className != cls || w->spec.classLevel != classLevel) {
            continue;
        }
        for (const auto* cols : {&w->exprCols, &w->rearmCols}) {
            for (int c : *cols) {
                if (c >= kDynamicBase) {
                    ids.insert(c - kDynamicBase);
                }
            }
        }
        for (int c : w->sendCols) {
            if (c >= kDynamicBase) {
                ids.insert(c - kDynamicBase);
            }
        }
    }
    return ids;
}

}  // namespace znpex::events
