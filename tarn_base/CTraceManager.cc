#include "tarn_base/CTraceManager.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <mutex>

#include "platform/clock.h"
#include "platform/paths.h"

namespace tarn_base {

// Lets the manager set levels without exposing a setter to every caller.
struct CTraceManagerAccess {
    static void set(CTraceComponent& c, unsigned cat, unsigned lv) {
        c.levels_[cat].store(lv, std::memory_order_relaxed);
    }
};

namespace {

// One rule of a specification: component and category ("*" for any), level.
struct Rule {
    std::string component;
    std::string category;
    unsigned level;
};

struct State {
    std::mutex mu;  // guards everything below
    std::map<std::string, std::unique_ptr<CTraceComponent>> components;
    std::vector<Rule> rules;
    std::string spec;
    std::string path;
    uint64_t maxBytes = 8u << 20;
    FILE* out = nullptr;
    uint64_t written = 0;
    CTraceManager::Hook hook;
};

State& state() {
    static State* s = new State;  // never destroyed: trace may run during exit
    return *s;
}

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    size_t e = s.find_last_not_of(" \t");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

bool parseSpec(const std::string& spec, std::vector<Rule>& rules) {
    size_t pos = 0;
    while (pos <= spec.size()) {
        size_t comma = spec.find(',', pos);
        std::string item = trim(spec.substr(pos, comma == std::string::npos ? std::string::npos
                                                                            : comma - pos));
        pos = comma == std::string::npos ? spec.size() + 1 : comma + 1;
        if (item.empty()) {
            continue;
        }
        size_t colon = item.find(':');
        size_t eq = item.find('=');
        if (colon == std::string::npos || eq == std::string::npos || eq < colon) {
            return false;
        }
        Rule r{trim(item.substr(0, colon)), trim(item.substr(colon + 1, eq - colon - 1)), 0};
        std::string lv = trim(item.substr(eq + 1));
        if (r.component.empty() || r.category.empty() || lv.empty() || lv.size() > 3 ||
            lv.find_first_not_of("0123456789") != std::string::npos) {
            return false;
        }
        r.level = static_cast<unsigned>(std::stoul(lv));
        if (r.level > 255) {
            return false;
        }
        rules.push_back(r);
    }
    return true;
}

// Later rules win, so "*:*=0,_OVD:Info=1" silences all but one category.
void applyRules(const std::vector<Rule>& rules, CTraceComponent& c) {
    for (unsigned cat = 0; cat < c.categoryCount(); ++cat) {
        unsigned lv = 0;
        for (const Rule& r : rules) {
            if ((r.component == "*" || r.component == c.id()) &&
                (r.category == "*" || r.category == c.categoryName(cat))) {
                lv = r.level;
            }
        }
        CTraceManagerAccess::set(c, cat, lv);
    }
}

void rotateLocked(State& s) {
    if (s.out != nullptr) {
        std::fclose(s.out);
        s.out = nullptr;
    }
    std::rename(s.path.c_str(), (s.path + ".1").c_str());
    s.written = 0;
}

void emit(const std::string& comp, const std::string& cat, const std::string& text) {
    State& s = state();
    timespec now = zn::processClock().wallNow();
    tm t{};
    localtime_r(&now.tv_sec, &t);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%06ld", t.tm_year + 1900,
                  t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, now.tv_nsec / 1000);
    std::string line = std::string(stamp) + " [" + std::to_string(syscall(SYS_gettid)) + "] " +
                       comp + " " + cat + ": " + text;
    if (line.empty() || line.back() != '\n') {
        line += '\n';
    }
    std::lock_guard<std::mutex> g(s.mu);
    if (s.hook) {
        s.hook(comp, cat, text);
    }
    if (s.path.empty()) {
        return;
    }
    if (s.written + line.size() > s.maxBytes) {
        rotateLocked(s);
    }
    if (s.out == nullptr) {
        zn::paths::ensureParentDir(s.path);
        s.out = std::fopen(s.path.c_str(), "ae");
        if (s.out == nullptr) {
            return;  // tracing never fails the caller
        }
        std::fseek(s.out, 0, SEEK_END);
        long size = std::ftell(s.out);
        s.written = size > 0 ? static_cast<uint64_t>(size) : 0;
    }
    std::fwrite(line.data(), 1, line.size(), s.out);
    std::fflush(s.out);
    s.written += line.size();
}

}  // namespace

CTraceComponent::CTraceComponent(std::string id, std::vector<std::string> categories)
    : id_(std::move(id)),
      categories_(std::move(categories)),
      levels_(new std::atomic<unsigned>[categories_.size()]),
      count_(categories_.size()) {
    for (size_t i = 0; i < count_; ++i) {
        levels_[i].store(0, std::memory_order_relaxed);
    }
}

void CTraceComponent::write(unsigned cat, const std::string& text) const {
    if (!enabled(cat)) {
        return;
    }
    emit(id_, categories_[cat], text);
}

void CTraceComponent::vwritef(unsigned cat, const char* format, va_list ap) const {
    if (!enabled(cat) || format == nullptr) {
        return;
    }
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (n < 0) {
        return;
    }
    std::string text(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, ap);
    text.resize(static_cast<size_t>(n));
    emit(id_, categories_[cat], text);
}

void CTraceComponent::writef(unsigned cat, const char* format, ...) const {
    va_list ap;
    va_start(ap, format);
    vwritef(cat, format, ap);
    va_end(ap);
}

CTraceComponent* CTraceManager::newComponent(const char* componentId,
                                             const tr_category_description* categories,
                                             unsigned count) {
    if (componentId == nullptr || *componentId == '\0' || categories == nullptr || count == 0) {
        return nullptr;
    }
    State& s = state();
    std::lock_guard<std::mutex> g(s.mu);
    auto it = s.components.find(componentId);
    if (it != s.components.end()) {
        return it->second.get();
    }
    std::vector<std::string> names;
    for (unsigned i = 0; i < count; ++i) {
        names.emplace_back(categories[i].name != nullptr ? categories[i].name : "");
    }
    auto comp = std::make_unique<CTraceComponent>(componentId, std::move(names));
    applyRules(s.rules, *comp);
    return s.components.emplace(componentId, std::move(comp)).first->second.get();
}

CTraceComponent* CTraceManager::findComponent(const std::string& componentId) {
    State& s = state();
    std::lock_guard<std::mutex> g(s.mu);
    auto it = s.components.find(componentId);
    return it == s.components.end() ? nullptr : it->second.get();
}

bool CTraceManager::setSpec(const std::string& spec) {
    std::vector<Rule> rules;
    if (!parseSpec(spec, rules)) {
        return false;
    }
    State& s = state();
    std::lock_guard<std::mutex> g(s.mu);
    s.rules = std::move(rules);
    s.spec = spec;
    for (auto& [id, comp] : s.components) {
        applyRules(s.rules, *comp);
    }
    return true;
}

std::string CTraceManager::spec() {
    State& s = state();
    std::lock_guard<std::mutex> g(s.mu);
    return s.spec;
}

void CTraceManager::setFile(const std::string& path, uint64_t maxBytes) {
    State& s = state();
    std::lock_guard<std::mutex> g(s.mu);
    if (s.out != nullptr) {
        std::fclose(s.out);
        s.out = nullptr;
    }
    s.path = path;
    s.maxBytes = maxBytes < 4096 ? 4096 : maxBytes;
    s.written = 0;
}

std::string CTraceManager::file() {
    State& s = state();
    std::lock_guard<std::mutex> g(s.mu);
    return s.path;
}

void CTraceManager::setHook(Hook hook) {
    State& s = state();
    std::lock_guard<std::mutex> g(s.mu);
    s.hook = std::move(hook);
}

void CTraceManager::flush() {
    State& s = state();
    std::lock_guard<std::mutex> g(s.mu);
    if (s.out != nullptr) {
        std::fflush(s.out);
    }
}

}  // namespace tarn_base
