#include "platform/metrics/MetricsText.h"

#include <cmath>
#include <cstdio>

namespace zn::metrics {

std::string escapeLabel(const std::string& v) {
    std::string out;
    out.reserve(v.size());
    for (char c : v) {
        switch (c) {
            case '\\':
                out += "\\\\";
                break;
            case '"':
                out += "\\\"";
                break;
            case '\n':
                out += "\\n";
                break;
            default:
                out += c;
        }
    }
    return out;
}

void MetricsText::family(const std::string& name, const std::string& help, const char* type) {
    out_ += "# HELP " + name + " ";
    // Help text escapes backslashes and line ends only.
    for (char c : help) {
        out_ += c == '\\'   ? std::string("\\\\")
                : c == '\n' ? std::string("\\n")
                            : std::string(1, c);
    }
    out_ += "\n# TYPE " + name + " " + type + "\n";
}

void MetricsText::head(const std::string& name, const Labels& labels) {
    out_ += name;
    if (!labels.empty()) {
        out_ += '{';
        for (size_t i = 0; i < labels.size(); ++i) {
            out_ += (i == 0 ? "" : ",") + labels[i].first + "=\"" + escapeLabel(labels[i].second) +
                    "\"";
        }
        out_ += '}';
    }
    out_ += ' ';
}

void MetricsText::sample(const std::string& name, double value, const Labels& labels) {
    head(name, labels);
    if (std::isnan(value)) {
        out_ += "NaN";
    } else if (std::isinf(value)) {
        out_ += value > 0 ? "+Inf" : "-Inf";
    } else {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.17g", value);
        out_ += buf;
    }
    out_ += '\n';
}

void MetricsText::sample(const std::string& name, uint64_t value, const Labels& labels) {
    head(name, labels);
    out_ += std::to_string(value);
    out_ += '\n';
}

}  // namespace zn::metrics
