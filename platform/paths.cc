#include "platform/paths.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>

namespace zn::paths {

std::string root() {
    const char* r = std::getenv(kRootEnv);
    if (r == nullptr) {
        return {};
    }
    std::string s(r);
    while (s.size() > 1 && s.back() == '/') {
        s.pop_back();
    }
    if (s == "/") {
        return {};
    }
    return s;
}

std::string resolve(const std::string& fixedPath) {
    if (fixedPath.empty() || fixedPath[0] != '/') {
        return fixedPath;
    }
    return root() + fixedPath;
}

std::string resolveCommand(const std::string& commandLine) {
    if (commandLine.empty() || commandLine[0] != '/') {
        return commandLine;
    }
    return root() + commandLine;
}

int ensureParentDir(const std::string& path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos || slash == 0) {
        return 0;
    }
    std::string dir = path.substr(0, slash);
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos == dir.size() || dir[pos] == '/') {
            std::string part = dir.substr(0, pos);
            if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
                return errno;
            }
        }
    }
    return 0;
}

}  // namespace zn::paths
