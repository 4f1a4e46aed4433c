// Maximum-configuration benchmarks of the alias names and the driver-wide
// defaults record: a driver configuration file near its size limit and an
// alias file naming every one of the 256 ports.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "max_support.h"

namespace {

using namespace qmxbench;

constexpr const char *kLibFile = "/etc/qmxlib.conf";

// Driver-wide items (with a retry count for every error number) and
// per-port items up to just below the writer's size limit.
std::string defaultsConf() {
    std::string s = "qmx_queue_depth=32:qmx_isol_type=0:qmx_link_down=15:qmx_filter_target=1:";
    for (int e = 0; e < 1000; ++e) s += "qmx_retry_cnt" + std::to_string(e) + "=3:";
    for (int p = 0; s.size() < 190000; p = (p + 1) % kMaxPorts)
        s += "qmx" + std::to_string(p) + "_abort_timeout=" + std::to_string(s.size() % 97) + ":";
    return s;
}

// "qmx<i>-wwn", "-alias" and "-portalias" of every port.
std::string aliasFile(int ports) {
    std::string s;
    for (int p = 0; p < ports; ++p) {
        char w[96];
        std::snprintf(w, sizeof w, "qmx%d-wwn=%016llx:qmx%d-alias=hba%03d:qmx%d-portalias=port%03d:", p,
                      static_cast<unsigned long long>(dev_info_all[p].wwn), p, p, p, p);
        s += w;
    }
    return s;
}

// The bare I/O of a whole-file replacement: a new file beside, written,
// flushed, renamed over the old one.
bool bareReplace(const char *path, const std::string &text) {
    std::string tmp = std::string(path) + ".bench";
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = ::write(fd, text.data(), text.size()) == ssize_t(text.size()) && ::fsync(fd) == 0;
    ::close(fd);
    return ok && ::rename(tmp.c_str(), path) == 0;
}

void BM_GetAllTargetParam(benchmark::State &state) {
    std::string saved = slurp(kConfFile);
    std::string text = defaultsConf();
    if (!spit(kConfFile, text)) return state.SkipWithError("cannot write the config file");
    QMX_ALL_DEF_PARAM d;
    // The bare I/O: the call's trace lines (one write each, as the trace
    // flushes every message) and one read of the file.
    OwnRing ring("qmxbenchDefaults.txt");
    int lines = linesOfOneCall(ring.path(), [&] { QMX_GetAllTargetParam(&d); });
    if (lines <= 0 || !spit(ring.path(), fullRing(kRingLines / 2)))
        return state.SkipWithError("cannot prepare the trace ring");
    BareTraceAndRead bare(ring.path(), lines);
    timeAgainstBare(
        state,
        [&] { return QMX_GetAllTargetParam(&d) == 0 && d.retryCnt[999] == 3 && d.isolateType == 2; },
        bare);
    spit(kConfFile, saved);
    state.counters["conf_bytes"] = double(text.size());
}
BENCHMARK(BM_GetAllTargetParam)->Unit(benchmark::kMicrosecond);

// Reads and sets the alias of the last port listed (an existing entry: the
// file keeps its size).
void BM_AliasGetSet(benchmark::State &state) {
    if (discoveredPorts() == 0) return state.SkipWithError("no ports");
    std::string savedConf = slurp(kConfFile), savedLib = slurp(kLibFile);
    // The alias reader's buffer is sized from the driver file.
    std::string conf = defaultsConf();
    std::string lib = aliasFile(discoveredPorts());
    if (!spit(kConfFile, conf) || !spit(kLibFile, lib)) return state.SkipWithError("cannot write the files");
    QMX_WWN wwn = lastPortWwn();
    char name[64];
    auto call = [&] {
        char next[] = "hbaXYZ";
        return QMX_GetHbaAliasName(wwn, name, sizeof name) == 0 && QMX_SetHbaAliasName(wwn, next, 6) == 0;
    };
    // The bare I/O: the two calls' trace lines (one write each), two reads
    // of the alias file and its replacement.
    OwnRing ring("qmxbenchAlias.txt");
    int lines = linesOfOneCall(ring.path(), call);
    if (lines <= 0 || !spit(ring.path(), fullRing(kRingLines / 2)))
        return state.SkipWithError("cannot prepare the trace ring");
    BareTraceAndRead trace(ring.path(), lines);
    timeAgainstBare(state, call, [&] {
        return trace.traceOnly() && bareReadFile(kLibFile) && bareReadFile(kLibFile) &&
               bareReplace(kLibFile, lib);
    });
    spit(kConfFile, savedConf);
    spit(kLibFile, savedLib);
    state.counters["alias_bytes"] = double(lib.size());
}
BENCHMARK(BM_AliasGetSet)->Unit(benchmark::kMicrosecond);

}  // namespace
