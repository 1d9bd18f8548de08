#include "platform/msgcat.h"

#include <nl_types.h>

#include <map>
#include <mutex>

namespace zn {
namespace {

std::mutex& catMutex() {
    static std::mutex mu;
    return mu;
}

// Catalogue descriptors by name; (nl_catd)-1 remembers a catalogue that is not
// installed, so a missing one costs one catopen per process.
std::map<std::string, nl_catd>& catalogs() {
    static std::map<std::string, nl_catd> cats;
    return cats;
}

}  // namespace

std::string catalogText(const char* catalog, int set, int number, const char* defaultText) {
    const char* fallback = defaultText != nullptr ? defaultText : "";
    if (catalog == nullptr || *catalog == '\0') {
        return fallback;
    }
    std::lock_guard<std::mutex> g(catMutex());
    auto& cats = catalogs();
    auto it = cats.find(catalog);
    if (it == cats.end()) {
        it = cats.emplace(catalog, catopen(catalog, NL_CAT_LOCALE)).first;
    }
    if (it->second == reinterpret_cast<nl_catd>(-1)) {
        return fallback;
    }
    const char* text = catgets(it->second, set, number, fallback);
    return text != nullptr ? text : fallback;
}

void resetCatalogCache() {
    std::lock_guard<std::mutex> g(catMutex());
    for (auto& [name, cd] : catalogs()) {
        if (cd != reinterpret_cast<nl_catd>(-1)) {
            catclose(cd);
        }
    }
    catalogs().clear();
}

}  // namespace zn
