// Trace components and their levels. A component has numbered categories
// ("Errors", "Info"); each category's level comes from the trace
// specification ("*:Errors=255,_RMF:Info=2,_OVD:Info=1"). A trace point whose
// level is 0 costs one relaxed atomic load. Records go to a size-bounded file
// (one previous generation kept as "<file>.1") and, in tests, to a hook.
// All operations are thread-safe.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarn_base {

struct CTraceManagerAccess;

struct tr_category_description {
    const char* name;
};

class CTraceComponent {
public:
    CTraceComponent(std::string id, std::vector<std::string> categories);
    const std::string& id() const { return id_; }
    unsigned categoryCount() const { return static_cast<unsigned>(categories_.size()); }
    const std::string& categoryName(unsigned cat) const { return categories_.at(cat); }
    // Current level of a category; 0 for an unknown category.
    unsigned level(unsigned cat) const {
        return cat < count_ ? levels_[cat].load(std::memory_order_relaxed) : 0;
    }
    bool enabled(unsigned cat) const { return level(cat) != 0; }
    // Writes one record when the category's level is not 0.
    void write(unsigned cat, const std::string& text) const;
    void writef(unsigned cat, const char* format, ...) const __attribute__((format(printf, 3, 4)));
    void vwritef(unsigned cat, const char* format, va_list ap) const;

private:
    friend struct CTraceManagerAccess;
    std::string id_;
    std::vector<std::string> categories_;
    std::unique_ptr<std::atomic<unsigned>[]> levels_;
    size_t count_;
};

class CTraceManager {
public:
    using Hook = std::function<void(const std::string& component, const std::string& category,
                                    const std::string& text)>;

    // Registers (or returns the existing) component. Null for a null/empty id
    // or no categories. Components live for the whole process.
    static CTraceComponent* newComponent(const char* componentId,
                                         const tr_category_description* categories,
                                         unsigned count);
    static CTraceComponent* findComponent(const std::string& componentId);

    // Applies a trace specification to every component, present and future.
    // Returns false (and changes nothing) when the text does not parse.
    static bool setSpec(const std::string& spec);
    static std::string spec();

    // Sends records to `path` (parents created), rotating at `maxBytes`.
    // An empty path stops file output.
    static void setFile(const std::string& path, uint64_t maxBytes = 8u << 20);
    static std::string file();
    // Test hook that sees every written record; null removes it.
    static void setHook(Hook hook);
    static void flush();
};

}  // namespace tarn_base
