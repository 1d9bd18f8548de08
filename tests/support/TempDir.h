// A per-test temporary directory, removed with everything in it at the end;
// optionally exported as ZN_ROOT so every fixed path lands inside it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace testsupport {

class TempDir {
public:
    explicit TempDir(bool asRoot = false) {
        const char* base = std::getenv("TMPDIR");
        std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                           "/orvrm-test-XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        path_ = tmpl;
        if (asRoot) {
            setenv("ZN_ROOT", path_.c_str(), 1);
        }
        rooted_ = asRoot;
    }
    ~TempDir() {
        if (rooted_) {
            unsetenv("ZN_ROOT");
        }
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
    bool rooted_ = false;
};

}  // namespace testsupport
