// orvctl run in-process, as a test runs it: the exit status and what it wrote.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "orvctl/Orvctl.h"

namespace orvctltest {

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

inline Outcome orvctl(std::vector<std::string> args) {
    args.insert(args.begin(), "orvctl");
    std::vector<const char*> argv;
    for (auto& a : args) {
        argv.push_back(a.c_str());
    }
    std::ostringstream out, err;
    int status = orvctl::runOrvctl(static_cast<int>(argv.size()), argv.data(), out, err);
    return {status, out.str(), err.str()};
}

}  // namespace orvctltest
