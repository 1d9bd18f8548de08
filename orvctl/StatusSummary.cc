#include "orvctl/StatusSummary.h"

#include "orvctl/NodeWords.h"

namespace orvctl {
namespace {

// The word a node's attribute shows; "(error)" when it could not be read.
std::string word(const ResourceValues& n, const char* attr) {
    const zn::OwnedValue* v = n.find(attr);
    if (v == nullptr) {
        return "(error)";
    }
    std::string w = attrText(attr, v->type(), v->value());
    return w.empty() ? "(none)" : w;
}

void printCounts(std::ostream& out, const char* label, const std::map<std::string, size_t>& m,
                 const std::vector<std::string>& order) {
    out << label << ':';
    const char* sep = " ";
    // The usual words first, in their order, then any other.
    for (const std::string& w : order) {
        auto it = m.find(w);
        out << sep << w << ' ' << (it != m.end() ? it->second : 0);
        sep = ", ";
    }
    for (const auto& [w, n] : m) {
        bool known = false;
        for (const std::string& o : order) {
            known = known || o == w;
        }
        if (!known) {
            out << sep << w << ' ' << n;
            sep = ", ";
        }
    }
    out << '\n';
}

void printNames(std::ostream& out, const char* label, const std::vector<std::string>& names) {
    if (names.empty()) {
        return;
    }
    out << label << ':';
    const char* sep = " ";
    for (const std::string& n : names) {
        out << sep << n;
        sep = ", ";
    }
    out << '\n';
}

}  // namespace

StatusSummary summarize(const std::vector<ResourceValues>& nodes) {
    StatusSummary s;
    s.nodes = nodes.size();
    for (const ResourceValues& n : nodes) {
        std::string status = word(n, "Status");
        ++s.status[status];
        ++s.power[word(n, "PowerStatus")];
        ++s.mode[word(n, "Mode")];
        if (status == "down") {
            s.unreachable.push_back(n.text("Hostname"));
        } else if (status == "unknown") {
            s.unknown.push_back(n.text("Hostname"));
        }
    }
    return s;
}

void printSummary(std::ostream& out, const StatusSummary& s) {
    out << "Nodes: " << s.nodes << '\n';
    printCounts(out, "Status", s.status, {"up", "down", "unknown"});
    printCounts(out, "Power", s.power, {"on", "off", "unknown"});
    printCounts(out, "Mode", s.mode, {});
    printNames(out, "Not reachable", s.unreachable);
    printNames(out, "Status unknown", s.unknown);
}

znpex::proto::Json summaryJson(const StatusSummary& s) {
    auto counts = [](const std::map<std::string, size_t>& m) {
        znpex::proto::Json j = znpex::proto::Json::object();
        for (const auto& [w, n] : m) {
            j[w] = n;
        }
        return j;
    };
    return znpex::proto::Json{
        {"nodes", s.nodes},       {"status", counts(s.status)},   {"power", counts(s.power)},
        {"mode", counts(s.mode)}, {"unreachable", s.unreachable}, {"unknown", s.unknown}};
}

}  // namespace orvctl
