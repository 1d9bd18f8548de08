// A rooted temporary tree for ACL editor tests: ZN_ROOT set, <root>/bin/cp a
// link to the real cp, the platform default list at
// <root>/usr/sbin/tarn/cfg/znpex.acls and the list file's folder in place.
// Helpers read and write whole files and format entry lines.
#pragma once

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"

namespace testsupport {

inline void writeFile(const std::string& path, const std::string& text) {
    zn::paths::ensureParentDir(path);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

inline bool exists(const std::string& path) {
    return std::filesystem::exists(path);
}

// One entry line exactly as the editor writes it.
inline std::string entryLine(const std::string& identity, const char* type, const char* level,
                             const std::string& comment) {
    char buf[600];
    std::snprintf(buf, sizeof buf, "\t%30s\t%s %-2s # %s\n", identity.c_str(), type, level,
                  comment.c_str());
    return buf;
}

// The first tokens of the entry lines of one stanza, in file order.
inline std::vector<std::string> stanzaIdentities(const std::string& text,
                                                 const std::string& stanza) {
    std::vector<std::string> ids;
    std::istringstream in(text);
    std::string line;
    bool inside = false;
    while (std::getline(in, line)) {
        if (!line.empty() && std::isalpha(static_cast<unsigned char>(line[0])) != 0) {
            std::istringstream head(line);
            std::string name;
            head >> name;
            inside = name == stanza;
            continue;
        }
        std::istringstream words(line);
        std::string first;
        if (inside && line[0] != '#' && (words >> first)) {
            ids.push_back(first);
        }
    }
    return ids;
}

class AclTestRoot {
public:
    static constexpr char kDefaultText[] =
        "# platform default\n"
        "OTHER\n"
        "\t                root@LOCALHOST\t* rw # root on this node always has access\n";

    explicit AclTestRoot(const std::string& defaultText = kDefaultText) {
        zn::paths::ensureParentDir(dir_ / "bin/cp");
        if (::symlink("/bin/cp", (dir_ / "bin/cp").c_str()) != 0) {
            throw std::runtime_error("cannot link cp");
        }
        writeFile(defaultFile(), defaultText);
        zn::paths::ensureParentDir(file());
    }

    const std::string& root() const { return dir_.path(); }
    std::string file() const { return zn::paths::resolve(zn::paths::kAclFile); }
    std::string defaultFile() const { return zn::paths::resolve(zn::paths::kAclDefaultFile); }
    std::string lockFile() const { return zn::paths::resolve(zn::paths::kAclLockFile); }
    std::string backup() const { return file() + ".orig"; }
    std::string newFile() const { return file() + ".new_file"; }

private:
    TempDir dir_{/*asRoot=*/true};
};

}  // namespace testsupport
