// Builds a page of the Prometheus text exposition format: families with
// their help and type, then samples with optional labels.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zn::metrics {

using Labels = std::vector<std::pair<std::string, std::string>>;

class MetricsText {
public:
    // Starts a family; `type` is "counter" or "gauge".
    void family(const std::string& name, const std::string& help, const char* type);
    void sample(const std::string& name, double value, const Labels& labels = {});
    void sample(const std::string& name, uint64_t value, const Labels& labels = {});
    const std::string& text() const { return out_; }

private:
    void head(const std::string& name, const Labels& labels);
    std::string out_;
};

// A label value or help text escaped as the format wants it.
std::string escapeLabel(const std::string& v);

}  // namespace zn::metrics
