// Helpers shared by the frame tests (trace, lock and frame, conversions):
// reading an API trace file back line by line.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace frametest {

constexpr const char *kHostTrace = "/opt/kestrel/drivers/hba/qmxlibTrace.txt";

inline bool inVirtualHost() { return std::getenv("QMXSIM_STATE") != nullptr; }

// Where the library puts a trace file named `name`: the tool directory when
// the host has one, else the working directory.
inline std::string tracePath(const std::string &name) {
    struct stat st;
    if (stat("/opt/kestrel/drivers/hba", &st) == 0 && S_ISDIR(st.st_mode)) return "/opt/kestrel/drivers/hba/" + name;
    return name;
}

inline std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// The 120-character lines of a trace file, as written (the file must be
// made of whole 121-byte lines, each ended by a newline).
inline std::vector<std::string> rawLines(const std::string &path) {
    std::string all = slurp(path);
    EXPECT_EQ(all.size() % 121, 0u) << "file is not made of 121-byte lines";
    std::vector<std::string> out;
    for (std::size_t i = 0; i + 121 <= all.size(); i += 121) {
        EXPECT_EQ(all[i + 120], '\n');
        out.push_back(all.substr(i, 120));
    }
    return out;
}

// A line's text without the stamp and this process's id, right-trimmed.
inline std::string text(const std::string &line) {
    std::string t = line;
    t.erase(t.find_last_not_of(' ') + 1);
    std::string prefix = std::to_string(getpid()) + " ";
    auto at = t.find(prefix);
    return at == std::string::npos ? t : t.substr(at + prefix.size());
}

// The texts of every line in file order (the "EndLog" marker included).
inline std::vector<std::string> texts(const std::string &path = kHostTrace) {
    std::vector<std::string> out;
    for (const std::string &l : rawLines(path)) out.push_back(text(l));
    return out;
}

inline bool contains(const std::vector<std::string> &v, const std::string &s) {
    for (const auto &x : v)
        if (x == s) return true;
    return false;
}

}  // namespace frametest
