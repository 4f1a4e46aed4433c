// Shared pieces of the benchmarks that run in the virtual host: the
// maximum-configuration ones (qmx_bench_max: bench_max.cpp holds main and the
// frame, trace and discovery benchmarks; every bench/max_*.cpp file adds the
// benchmarks of one call family and is linked into the same binary) and the
// multipath ones at the LU path maximum (qmx_bench_mp, mp65536.cpp).
//
// Each benchmark of a call also times the bare I/O that the call must do
// (the driver requests it issues, the bytes it reads and writes) and reports
// the ratio with timeAgainstBare().
#pragma once

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>
#include <string>

#include "frame/frame.h"
#include "qmxvlib.h"

namespace qmxbench {

inline constexpr const char *kTraceDir = "/opt/kestrel/drivers/hba";
inline constexpr const char *kConfFile = "/etc/qmxldd.conf";
inline constexpr int kLineBytes = 121;
inline constexpr int kRingLines = 4000;

inline std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline bool spit(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return bool(out);
}

// Where the bare I/O reads a file to: a buffer of the process aligned to a
// cache line, as the library's read buffers are.  The kernel copies a read
// with string moves, which on some processors run several times slower into
// a destination 16 bytes past a cache line (where malloc's large blocks
// start); the bare I/O is the cheapest read of the bytes, so it reads where
// the copy runs at full speed.  Made and faulted in before any benchmark
// runs, kept for the process.
inline constexpr std::size_t kBareRoom = std::size_t(32) << 20;
inline char *const bareReadBuffer = [] {
    auto *buf = static_cast<char *>(::operator new(kBareRoom, std::align_val_t{64}));
    std::memset(buf, 0, kBareRoom);
    return buf;
}();

// The bare read of a whole file: open, reads of the buffer's size until a
// short one (one read for a file shorter than the buffer), close.
inline bool bareReadFile(const char *path) {
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    ssize_t n;
    while ((n = ::read(fd, bareReadBuffer, kBareRoom)) == ssize_t(kBareRoom)) {
    }
    ::close(fd);
    return n >= 0;
}

// The configuration file as the scenario left it, put back when the
// benchmark that replaced it ends, on every path (a later benchmark must not
// start from a fixture near the file's size limit).
class ConfRestore {
public:
    ConfRestore() : saved_(slurp(kConfFile)) {}
    ~ConfRestore() { spit(kConfFile, saved_); }
    ConfRestore(const ConfRestore &) = delete;
    ConfRestore &operator=(const ConfRestore &) = delete;

private:
    std::string saved_;
};

// Discovery runs once per process in the library's port lookup; the
// benchmarks that need the port table fill it here, untimed.
inline int discoveredPorts() {
    static int ports = [] {
        QMX_DevFind();
        skipInitRtn = 1;
        return c_max_port;
    }();
    return ports;
}

inline QMX_WWN lastPortWwn() {
    QMX_WWN w{};
    int n = discoveredPorts();
    if (n > 0) getWWN(dev_info_all[n - 1].wwn, &w);
    return w;
}

// A trace text line: `text` padded with blanks to 120 characters.
inline std::string traceLine(const std::string &text) {
    std::string line = text.substr(0, 120);
    line.resize(120, ' ');
    return line + '\n';
}

// Keeps the trace file name the exported calls use; benchmarks that work on
// a ring of their own switch the name and restore it.
class OwnRing {
public:
    explicit OwnRing(const char *name) {
        QMX_ChangeTraceLogFile(const_cast<char *>(name));
        path_ = std::string(kTraceDir) + "/" + name;
    }
    ~OwnRing() {
        if (QMX_G_TraceFP != nullptr) QMX_CloseApiTraceFile();
        QMX_ChangeTraceLogFile(const_cast<char *>("qmxlibTrace.txt"));
        ::unlink(path_.c_str());
    }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// A full trace ring of 4001 lines whose marker stands after line `marker`.
inline std::string fullRing(int marker) {
    std::string text;
    text.reserve(std::size_t(kLineBytes) * (kRingLines + 1));
    for (int i = 0; i <= kRingLines; ++i) {
        if (i == marker)
            text += traceLine("EndLog");
        else
            text += traceLine("2026/01/01 00:00:00 4242 QMX_GetQueueDepthCount line " +
                              std::to_string(i));
    }
    return text;
}

// The bare I/O of a traced call that reads the configuration file: one
// trace open with its read of the ring up to the marker, `lines` lines and
// the marker appended in the middle of a full ring (a scratch copy, so the
// call's own ring is not disturbed), close;
// then one read of the whole configuration file.  The trace flushes every
// message it writes, so each line is a write of its own here too: for a
// call of thousands of lines (BM_GetPassChangeThreshold) those writes are
// most of the bare cost.
class BareTraceAndRead {
public:
    BareTraceAndRead(const std::string &ring, int lines) : path_(ring + ".bare"), lines_(lines) {
        spit(path_, fullRing(kRingLines / 2));
        // The call's lines laid over the ring from its middle (wrapping at
        // its end as the call does), then the marker.
        line_ = traceLine("QMX_GetQueueDepthCount START");
        marker_ = traceLine("EndLog");
    }
    ~BareTraceAndRead() { ::unlink(path_.c_str()); }
    bool operator()() { return traceOnly() && readConf(); }
    // The trace part alone (open, the ring's lines up to its marker, the
    // lines, the marker, close).
    bool traceOnly() {
        int fd = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0) return false;
        // An open finds where to go on by reading the ring up to its marker
        // (no file says where it stands): here one read of those lines.
        const std::size_t scan = std::size_t(kRingLines / 2 + 1) * kLineBytes;
        bool ok = ::pread(fd, bareReadBuffer, scan, 0) == ssize_t(scan);
        int at = kRingLines / 2;
        for (int left = lines_; left > 0 && ok; --left) {
            ok = ::pwrite(fd, line_.data(), line_.size(), off_t(at) * kLineBytes) == ssize_t(line_.size());
            at = (at + 1) % kRingLines;
        }
        ok = ok && ::pwrite(fd, marker_.data(), marker_.size(), off_t(at) * kLineBytes) ==
                       ssize_t(marker_.size());
        return ::close(fd) == 0 && ok;
    }
    bool readConf() { return bareReadFile(kConfFile); }

private:
    std::string path_, line_, marker_;
    int lines_;
};

// The lines one call writes (fewer than a lap), counted on a fresh ring.
template <class Call>
int linesOfOneCall(const std::string &ring, Call &&call) {
    ::unlink(ring.c_str());
    call();
    struct stat st;
    if (::stat(ring.c_str(), &st) != 0 || st.st_size >= long(kLineBytes) * kRingLines) return 0;
    return int(st.st_size / kLineBytes) - 1;
}

// Times `call` in the benchmark loop, then `bare` (the raw I/O the call
// must do) as many times outside it, and reports both and their ratio:
// counters "bare_us" (mean of the bare I/O, microseconds) and "x_bare"
// (call time / bare time).  Either returning false stops the benchmark with
// an error, so a failing path is never timed.
template <class Call, class Bare>
void timeAgainstBare(benchmark::State &state, Call &&call, Bare &&bare) {
    using clock = std::chrono::steady_clock;
    double callNs = 0;
    long n = 0;
    for (auto _ : state) {
        auto t0 = clock::now();
        bool ok = call();
        callNs += std::chrono::duration<double, std::nano>(clock::now() - t0).count();
        ++n;
        if (!ok) return state.SkipWithError("the call failed");
    }
    if (n == 0) return;
    double bareNs = 0;
    for (long i = 0; i < n; ++i) {
        auto t0 = clock::now();
        bool ok = bare();
        bareNs += std::chrono::duration<double, std::nano>(clock::now() - t0).count();
        if (!ok) return state.SkipWithError("the bare I/O failed");
    }
    state.counters["bare_us"] = bareNs / double(n) / 1000.0;
    state.counters["x_bare"] = bareNs > 0 ? callNs / bareNs : 0.0;
}

// main of a benchmark binary that runs only inside the virtual host: with
// no host it names the launcher command line with `scenario` (a file of
// <build>/sim/scenarios) and ends with 2.  `before` runs just before the
// benchmarks (context lines, notes).
template <class Before>
int mainInHost(int argc, char **argv, const char *binary, const char *scenario, Before &&before) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (std::getenv("QMXSIM_STATE") == nullptr) {
        std::fprintf(stderr,
                     "%s runs inside the virtual host:\n"
                     "  qmxsim --scenario <build>/sim/scenarios/%s -- %s\n",
                     binary, scenario, argv[0]);
        return 2;
    }
    before();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace qmxbench
