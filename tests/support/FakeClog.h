// A log backend for tests: records what is written, or refuses to open.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "platform/clog.h"

namespace testsupport {

struct ClogCapture {
    std::mutex mu;
    std::vector<clog_record> records;
    int opens = 0;
    bool failOpen = false;
};

class FakeClog final : public ClogBackend {
public:
    explicit FakeClog(std::shared_ptr<ClogCapture> c) : c_(std::move(c)) {}
    int open(const std::string&, std::string& why) override {
        std::lock_guard<std::mutex> g(c_->mu);
        ++c_->opens;
        if (c_->failOpen) {
            why = "log service unavailable";
            return 5;
        }
        return 0;
    }
    void write(const clog_record& r) override {
        std::lock_guard<std::mutex> g(c_->mu);
        c_->records.push_back(r);
    }
    void close() override {}

private:
    std::shared_ptr<ClogCapture> c_;
};

// Installs a FakeClog for the lifetime of the object.
class ScopedFakeClog {
public:
    ScopedFakeClog() : capture(std::make_shared<ClogCapture>()) {
        clog_set_backend(std::make_unique<FakeClog>(capture));
    }
    ~ScopedFakeClog() { clog_set_backend(nullptr); }
    std::shared_ptr<ClogCapture> capture;
};

}  // namespace testsupport
