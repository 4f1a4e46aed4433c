// Shared helper of the simulated adapter tools (qmxbios, qmxdiag, qmxmcup,
// qmxmcref) of the virtual host.
//
// Every tool:
//   int main(int argc, char **argv) {
//       int early = qmxsim::tool::begin("qmxdiag", argc, argv);
//       if (early >= 0) return early;      // scripted result
//       ...                                 // normal behaviour
//   }
//
// begin() appends the command line to "$QMXSIM_STATE/tools/<tool>.log" (one
// line: the tool name and its arguments separated by single blanks) and
// honours "$QMXSIM_STATE/tools/<tool>.script": a line "exit=<code> times=<n>"
// makes the next <n> runs exit with <code> at once (times=-1: every run;
// times missing: one run); "signal=<number> times=<n>" makes them kill
// themselves with that signal instead.  The script file is updated under an flock, so
// concurrent runs consume the count exactly once each.
//
// Outside a virtual host (QMXSIM_STATE unset) nothing is logged and no
// script applies; the tools then work relative to the working directory.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "simstate.h"

namespace qmxsim::tool {

// The state directory of the virtual host, or "" outside one.
inline std::string stateDir() {
    const char *s = std::getenv("QMXSIM_STATE");
    return (s != nullptr && *s != '\0') ? std::string(s) : std::string();
}

// "$QMXSIM_STATE/<rel>", or "" outside a virtual host.
inline std::string statePath(const std::string &rel) {
    std::string dir = stateDir();
    if (dir.empty()) return std::string();
    return dir + "/" + rel;
}

// Creates "$QMXSIM_STATE/tools" (and the state directory's parents as they
// exist already).  Returns the directory or "".
inline std::string toolDir() {
    std::string dir = statePath("tools");
    if (dir.empty()) return dir;
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return std::string();
    return dir;
}

// Reads a whole file; false when it cannot be opened.
inline bool readFile(const std::string &path, std::string &out) {
    out.clear();
    FILE *fp = std::fopen(path.c_str(), "rb");
    if (fp == nullptr) return false;
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, fp)) > 0) out.append(buf, n);
    std::fclose(fp);
    return true;
}

// Writes a whole file (truncating); false on failure.
inline bool writeFile(const std::string &path, const std::string &text) {
    FILE *fp = std::fopen(path.c_str(), "wb");
    if (fp == nullptr) return false;
    bool ok = std::fwrite(text.data(), 1, text.size(), fp) == text.size();
    ok = (std::fclose(fp) == 0) && ok;
    return ok;
}

// Appends one line (a newline is added) to "$QMXSIM_STATE/tools/<name>".
inline void appendLine(const std::string &name, const std::string &line) {
    std::string dir = toolDir();
    if (dir.empty()) return;
    std::string path = dir + "/" + name;
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::string text = line + "\n";
    const char *p = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        ssize_t w = write(fd, p, left);
        if (w < 0) {
            if (errno == EINTR) continue;
            break;
        }
        p += w;
        left -= std::size_t(w);
    }
    close(fd);
}

// The command line as logged: the tool's name and its arguments.
inline std::string commandLine(const char *tool, int argc, char **argv) {
    std::string line = tool;
    for (int i = 1; i < argc; ++i) {
        line += ' ';
        line += argv[i] ? argv[i] : "";
    }
    return line;
}

// scriptedExit's result for "signal=<n>": kSignalled + n.
constexpr int kSignalled = 0x1000;

// Consumes one run of "<tool>.script".  Returns the scripted exit code, or
// -1 when no script applies.
inline int scriptedExit(const char *tool) {
    std::string dir = toolDir();
    if (dir.empty()) return -1;
    std::string path = dir + "/" + tool + ".script";
    int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return -1;
    flock(fd, LOCK_EX);
    std::string text;
    char buf[512];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0 && text.size() < 4096) text.append(buf, std::size_t(n));
    int code = -1;
    long times = 1;
    const char *e = std::strstr(text.c_str(), "exit=");
    const char *sig = e == nullptr ? std::strstr(text.c_str(), "signal=") : nullptr;
    const char *t = std::strstr(text.c_str(), "times=");
    if (e != nullptr) code = std::atoi(e + 5);
    if (sig != nullptr) code = std::atoi(sig + 7);
    if (t != nullptr) times = std::atol(t + 6);
    int result = -1;
    if ((e != nullptr || sig != nullptr) && times != 0) {
        result = sig != nullptr ? kSignalled + (code & 0x7F) : code & 0xFF;
        if (times > 0) {
            char out[64];
            int len = std::snprintf(out, sizeof out, "%s=%d times=%ld\n", e != nullptr ? "exit" : "signal",
                                    code, times - 1);
            if (ftruncate(fd, 0) == 0 && lseek(fd, 0, SEEK_SET) == 0 && len > 0) {
                ssize_t w = write(fd, out, std::size_t(len));
                (void)w;
            }
        }
    }
    flock(fd, LOCK_UN);
    close(fd);
    return result;
}

// Records the command line and applies the script.  Returns the exit code
// the tool must end with at once, or -1 to go on normally.
inline int begin(const char *tool, int argc, char **argv) {
    appendLine(std::string(tool) + ".log", commandLine(tool, argc, argv));
    int r = scriptedExit(tool);
    if (r >= kSignalled) {
        std::fflush(nullptr);
        signal(r - kSignalled, SIG_DFL);
        raise(r - kSignalled);
        return 128 + (r - kSignalled);  // a signal that does not end the tool
    }
    return r;
}

// The value following option `opt` (e.g. "-d"), or "" when absent.
inline std::string optionValue(int argc, char **argv, const char *opt) {
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], opt) == 0) return argv[i + 1];
    return std::string();
}

inline bool hasOption(int argc, char **argv, const char *opt) {
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], opt) == 0) return true;
    return false;
}

// Runs `each(port, name)` under the state lock on every port that `dev`
// names ("qmxldd<devno>", or "all" for every port) of the host state in
// `stateDir`.  The state is written back when `save` is true and a port
// matched.  False, with "<tool>: no device <dev>" on stderr, when no port
// matched.
template <class Each>
bool updatePorts(const char *tool, const std::string &stateDir, const std::string &dev, bool save,
                 Each each) {
    int matched = 0;
    StateStore store(stateDir);
    store.update([&](json &s) {
        for (json &p : s["ports"]) {
            std::string name = "qmxldd" + std::to_string(fieldI64(p, "devno", -1));
            if (dev != "all" && dev != name) continue;
            ++matched;
            each(p, name);
        }
        return save && matched > 0;
    });
    if (matched == 0) std::fprintf(stderr, "%s: no device %s\n", tool, dev.c_str());
    return matched > 0;
}

}  // namespace qmxsim::tool
