// Base fixture for tests that run commands: a scratch folder to write shell
// scripts into, and a check at the end that the runner leaked no descriptor.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "tests/support/TempDir.h"

namespace testsupport {

inline int openDescriptors() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr) {
        ++n;
    }
    closedir(d);
    return n;
}

class ScriptTest : public ::testing::Test {
protected:
    void SetUp() override { fdsBefore_ = openDescriptors(); }
    void TearDown() override { EXPECT_EQ(openDescriptors(), fdsBefore_) << "a descriptor leaked"; }
    // An executable `sh` script in the scratch folder; its path.
    std::string script(const std::string& name, const std::string& body) {
        std::string path = dir_ / name;
        std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
        chmod(path.c_str(), 0755);
        return path;
    }

    TempDir dir_;
    int fdsBefore_ = 0;
};

}  // namespace testsupport
