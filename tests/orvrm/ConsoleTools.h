// The hardware service console's tools, scripted under the test root: the
// status tool writes the result files the test gives (or removes them) and
// counts its runs; the key tool records its arguments and leaves the result
// file given; the package query says whether this is the console.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "tests/support/Subprocess.h"

namespace consoletest {

using Lines = std::optional<std::vector<std::string>>;  // nullopt: no file

inline void writeScript(const std::string& path, const std::string& body) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::string tmp = path + ".new";
    std::ofstream(tmp) << "#!/bin/sh\n" << body;
    ::chmod(tmp.c_str(), 0755);
    std::filesystem::rename(tmp, path);  // a run never reads half a script
}

// The shell lines that leave `file` holding `lines` (or no file).
inline std::string produce(const char* fixedPath, const Lines& lines) {
    std::string path = zn::paths::resolve(fixedPath);
    if (!lines) {
        return "rm -f '" + path + "'\n";
    }
    std::string out = ": > '" + path + "'\n";
    for (const std::string& l : *lines) {
        out += "printf '%s\\n' '" + l + "' >> '" + path + "'\n";
    }
    return out;
}

// The status tool: active partitions, all partitions, frames.
inline void statusTool(const Lines& active, const Lines& all, const Lines& frames) {
    std::string tmp = zn::paths::resolve("/tmp");
    std::filesystem::create_directories(tmp);
    writeScript(zn::paths::resolve(zn::paths::kGetCimStatus),
                "echo run >> '" + zn::paths::resolve("/tmp/getcimstatus.runs") + "'\n" +
                    produce(zn::paths::kActivePartitionList, active) +
                    produce(zn::paths::kPartitionList, all) + produce(zn::paths::kCecList, frames));
}

inline size_t statusToolRuns() {
    std::ifstream in(zn::paths::resolve("/tmp/getcimstatus.runs"));
    size_t n = 0;
    for (std::string l; std::getline(in, l);) {
        ++n;
    }
    return n;
}

// The package query: this is the console when it exits 0. Its command line.
inline std::string consoleQuery(bool console) {
    std::string path = zn::paths::resolve("/usr/bin/rpm");
    writeScript(path, console ? "exit 0\n" : "exit 1\n");
    return path + " -q Korysu.cimprovider";
}

}  // namespace consoletest
