// The library at the driver's maximum configuration, run inside the virtual
// host with the generated maximum scenario (256 ports, 256 targets a port,
// 2048 LUs a target):
//
//   qmxsim --scenario <build>/sim/scenarios/max.json -- <build>/bench/qmx_bench_max
//
//   BM_RawPrinfoRequest           one port information request on an open
//                                 descriptor: the simulated driver's own cost,
//                                 the unit the other numbers are made of
//   BM_DevFind/traced:0|1         discovery of all ports, with the trace
//                                 closed or open (as inside a call's frame)
//   BM_OpenCloseSpecialFile       open_special_file + close_special_file
//   BM_GetPortAttr                the attribute list of a port with 256 targets
//   BM_GetQueueDepthCount/params:N a whole exported Get call on the last
//                                 port (frame, trace, driver request, config
//                                 read), with N parameters a port in the
//                                 configuration file (30: near the writer's
//                                 size limit)
//   BM_GetPassChangeThreshold     the 1000 thresholds of the last port, the
//                                 configuration file at its size limit
//   BM_TraceWriteThroughWrap      4096 trace messages per iteration, so every
//                                 iteration passes the ring's wrap
//   BM_TraceOpenClose/marker:N    trace open + close on a full ring whose
//                                 marker stands after line N (the marker scan)
//   BM_GetAdapterNumber/mode:1|2  adapter numbering over all ports (driver's
//                                 numbering / configured numbering)
//
// Setup (files, discovery, buffers) stays outside the timed loops.  Every
// benchmark checks its call's result and reports an error instead of timing
// a failing path.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "frame/frame.h"
#include "max_support.h"
#include "qmxldd_ioctl.h"
#include "qmxvlib.h"

namespace {

using namespace qmxbench;

// ---------------------------------------------------------------------------

void BM_RawPrinfoRequest(benchmark::State &state) {
    int n = discoveredPorts();
    if (n == 0) return state.SkipWithError("no ports");
    std::string path = std::string("/dev/") + dev_info_all[n - 1].name;
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return state.SkipWithError("open failed");
    qmx_ioctl_proc_info info;
    for (auto _ : state) {
        std::memset(&info, 0, sizeof info);
        if (::ioctl(fd, static_cast<unsigned long>(IOCTL_QMX_SC_PRINFO), &info) != 0) {
            state.SkipWithError("request failed");
            break;
        }
        benchmark::DoNotOptimize(info.ww_name);
    }
    ::close(fd);
}
BENCHMARK(BM_RawPrinfoRequest)->Unit(benchmark::kMicrosecond);

void BM_DevFind(benchmark::State &state) {
    bool traced = state.range(0) != 0;
    if (traced && QMX_OpenApiTraceFile() == nullptr) return state.SkipWithError("trace open failed");
    for (auto _ : state) QMX_DevFind();
    if (traced) QMX_CloseApiTraceFile();
    skipInitRtn = 1;
    state.counters["ports"] = double(c_max_port);
    if (c_max_port == 0) state.SkipWithError("no ports discovered");
}
BENCHMARK(BM_DevFind)->ArgName("traced")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_OpenCloseSpecialFile(benchmark::State &state) {
    int opened = 0;
    for (auto _ : state) {
        qmx_spfile *files = nullptr;
        opened = open_special_file(&files);
        if (opened < 0) {
            state.SkipWithError("open_special_file failed");
            break;
        }
        close_special_file(files);
    }
    state.counters["devices"] = double(opened);
}
BENCHMARK(BM_OpenCloseSpecialFile)->Unit(benchmark::kMillisecond);

void BM_GetPortAttr(benchmark::State &state) {
    int n = discoveredPorts();
    if (n == 0) return state.SkipWithError("no ports");
    std::string path = std::string("/dev/") + dev_info_all[n - 1].name;
    auto attr = std::make_unique<qmx_ioctl_port_attr>();
    for (auto _ : state) {
        if (QMX_GetPortAttr(path.data(), attr.get()) != 0) {
            state.SkipWithError("QMX_GetPortAttr failed");
            break;
        }
        benchmark::DoNotOptimize(attr->tgt_num);
    }
    state.counters["targets"] = double(attr->tgt_num);
}
BENCHMARK(BM_GetPortAttr)->Unit(benchmark::kMicrosecond);

// A driver configuration file of `perPort` parameters a port (the queue
// depth last), the adapter numbering items and the driver-wide items.  30
// parameters a port come just below the writer's size limit.
std::string confText(int perPort) {
    static const char *const kParams[] = {
        "_connection_type", "_link_speed",     "_max_transfer",   "_link_down",
        "_reset_delay",     "_mck_retry",      "_preferred_alpa", "_reset_timeout",
        "_abort_timeout",   "_scsi_allowed",   "_tmt_delay",      "_lun_reset_delay",
        "_msi_enable",      "_isol_type",      "_ld_err_intvl",   "_ld_err_limit_l",
        "_ld_err_limit_s",  "_if_err_intvl",   "_if_err_limit",   "_to_err_intvl",
        "_to_err_limit",    "_rt_err_enable",  "_login_retry",    "_els_retry",
        "_to_reset_retry",  "_scsi_to_retry",  "_alter_path_num", "_offline_path_num",
        "_pathchk_to",
    };
    constexpr int kOthers = int(sizeof kParams / sizeof kParams[0]);
    std::string s = "qmx_queue_depth=32:qmxmp_failover=1:";
    for (int p = 0; p < kMaxPorts; ++p) {
        std::string pre = "qmx" + std::to_string(p);
        for (int i = 0; i < perPort - 1 && i < kOthers; ++i) s += pre + kParams[i] + "=16:";
        s += pre + "_queue_depth=16:";
    }
    for (int p = 0; p < kMaxPorts; ++p) {
        char w[48];
        std::snprintf(w, sizeof w, "qmxl%d-wwpn=0x%016llx:", p,
                      static_cast<unsigned long long>(dev_info_all[p].wwn));
        s += w;
    }
    return s;
}

// The getter on a full trace ring of its own: its marker moves on by the
// call's lines every iteration and laps the ring.  "bare_us"/"x_bare": one
// trace open/append/close, the port information request the call issues
// (open the device, the request, close) and one read of the configuration
// file.
void BM_GetQueueDepthCount(benchmark::State &state) {
    if (discoveredPorts() == 0) return state.SkipWithError("no ports");
    std::string saved = slurp(kConfFile);
    std::string text = confText(int(state.range(0)));
    if (!spit(kConfFile, text)) return state.SkipWithError("cannot write the config file");
    QMX_WWN wwn = lastPortWwn();
    QMX_UINT32 cur = 0, set = 0;
    OwnRing ring("qmxbenchGetter.txt");
    int lines = linesOfOneCall(ring.path(), [&] { QMX_GetQueueDepthCount(wwn, &cur, &set); });
    if (lines <= 0 || !spit(ring.path(), fullRing(kRingLines / 2)))
        return state.SkipWithError("cannot prepare the trace ring");
    BareTraceAndRead bare(ring.path(), lines);
    const std::string device = std::string("/dev/") + dev_info_all[discoveredPorts() - 1].name;
    timeAgainstBare(
        state, [&] { return QMX_GetQueueDepthCount(wwn, &cur, &set) == 0; },
        [&] {
            int fd = ::open(device.c_str(), O_RDONLY | O_CLOEXEC);
            qmx_ioctl_proc_info info{};
            bool ok = fd >= 0 && ::ioctl(fd, static_cast<unsigned long>(IOCTL_QMX_SC_PRINFO), &info) == 0;
            if (fd >= 0) ::close(fd);
            return ok && bare();
        });
    spit(kConfFile, saved);
    if (set != 16) state.SkipWithError("setting value not read");
    long items = long(std::count(text.begin(), text.end(), ':'));
    state.counters["conf_bytes"] = double(text.size());
    state.counters["items"] = double(items);
    state.counters["trace_lines"] = double(lines);
}
BENCHMARK(BM_GetQueueDepthCount)->ArgName("params")->Arg(1)->Arg(7)->Arg(15)->Arg(30)
    ->Unit(benchmark::kMicrosecond);

// QMX_GetPassChangeThreshold on the last port with a configuration file at
// the writer's size limit, its last port holding retry counts: 1000 lookups
// (each traced as a read of the file) answered from one read.  "bare_us":
// one trace open, the call's lines appended (they lap the ring) and closed,
// and one read of the file.
void BM_GetPassChangeThreshold(benchmark::State &state) {
    if (discoveredPorts() == 0) return state.SkipWithError("no ports");
    std::string saved = slurp(kConfFile);
    std::string text = confText(30);
    const std::string pre = "qmx" + std::to_string(kMaxPorts - 1) + "_retry_cnt";
    for (int e = 0; e < 1000; ++e) {
        std::string item = pre + std::to_string(e) + "=" + std::to_string(e % 2049) + ":";
        if (text.size() + item.size() > 199990) break;
        text += item;
    }
    if (!spit(kConfFile, text)) return state.SkipWithError("cannot write the config file");
    QMX_WWN wwn = lastPortWwn();
    std::vector<int> c(1000), s(1000);
    OwnRing ring("qmxbenchThresholds.txt");
    // The call's lines lap the ring: its frame's lines are counted with an
    // empty file (three lines a lookup), a lookup's with the real one.
    if (!spit(kConfFile, "")) return state.SkipWithError("cannot write the config file");
    int frame = linesOfOneCall(ring.path(), [&] { QMX_GetPassChangeThreshold(wwn, c.data(), s.data()); }) - 3000;
    if (!spit(kConfFile, text)) return state.SkipWithError("cannot write the config file");
    int lookup = linesOfOneCall(ring.path(), [&] {
        int v = 0;
        QMX_OpenApiTraceFile();
        QMX_GetUtilValue(wwn, discoveredPorts() - 1, const_cast<char *>("_retry_cnt"), 1, &v);
        QMX_CloseApiTraceFile();
    });
    int lines = frame + 1000 * lookup;
    if (frame <= 0 || lookup <= 0 || !spit(ring.path(), fullRing(kRingLines / 2)))
        return state.SkipWithError("cannot prepare the trace ring");
    BareTraceAndRead bare(ring.path(), lines);
    timeAgainstBare(
        state, [&] { return QMX_GetPassChangeThreshold(wwn, c.data(), s.data()) == 0; }, bare);
    spit(kConfFile, saved);
    if (s[1] != 1) state.SkipWithError("threshold not read");
    state.counters["conf_bytes"] = double(text.size());
    state.counters["trace_lines"] = double(lines);
}
BENCHMARK(BM_GetPassChangeThreshold)->Unit(benchmark::kMillisecond);

void BM_TraceWriteThroughWrap(benchmark::State &state) {
    OwnRing ring("qmxbenchWrap.txt");
    if (QMX_OpenApiTraceFile() == nullptr) return state.SkipWithError("trace open failed");
    // One-line messages (arg 1) or two-line messages (arg 2).
    std::string msg = state.range(0) == 1
                          ? std::string("QMX_GetQueueDepthCount START")
                          : std::string(150, 'm');
    constexpr int kMessages = 4096;
    for (auto _ : state)
        for (int i = 0; i < kMessages; ++i) QMX_WriteApiTraceFile(msg.data());
    QMX_CloseApiTraceFile();
    state.SetItemsProcessed(state.iterations() * kMessages);
    struct stat st;
    if (::stat(ring.path().c_str(), &st) != 0 ||
        st.st_size > long(kLineBytes) * (kRingLines + 2))
        state.SkipWithError("the ring grew past its size");
}
BENCHMARK(BM_TraceWriteThroughWrap)->ArgName("lines")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

void BM_TraceOpenClose(benchmark::State &state) {
    OwnRing ring("qmxbenchScan.txt");
    int marker = int(state.range(0));
    // A full ring: `marker` newer lines, the marker, and older lines of the
    // previous lap up to 4001 lines in all.  Closing writes the marker where
    // it stood, so every iteration scans the same file.
    std::string text = fullRing(marker);
    if (!spit(ring.path(), text)) return state.SkipWithError("cannot write the ring");
    for (auto _ : state) {
        if (QMX_OpenApiTraceFile() == nullptr) {
            state.SkipWithError("trace open failed");
            break;
        }
        if (QMX_G_TraceLineCnt != marker) {
            state.SkipWithError("marker not found where it stands");
            QMX_CloseApiTraceFile();
            break;
        }
        QMX_CloseApiTraceFile();
    }
    if (slurp(ring.path()) != text) state.SkipWithError("the ring changed");
    state.SetComplexityN(marker + 1);
}
BENCHMARK(BM_TraceOpenClose)->ArgName("marker")->Arg(0)->Arg(1000)->Arg(2000)->Arg(3999)
    ->Complexity(benchmark::oN)->Unit(benchmark::kMicrosecond);

void BM_GetAdapterNumber(benchmark::State &state) {
    if (discoveredPorts() == 0) return state.SkipWithError("no ports");
    int mode = int(state.range(0));
    auto info = std::make_unique<QMX_ADAPTERNUMBER>();
    for (auto _ : state) {
        if (QMX_GetAdapterNumber(info.get(), mode) != 0) {
            state.SkipWithError("QMX_GetAdapterNumber failed");
            break;
        }
        benchmark::DoNotOptimize(info->portlist_max);
    }
    state.counters["entries"] = double(info->portlist_max);
}
BENCHMARK(BM_GetAdapterNumber)->ArgName("mode")->Arg(QMX_ADPNUM_MODE_CURRENT)
    ->Arg(QMX_ADPNUM_MODE_CONFIGURED)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
    return qmxbench::mainInHost(argc, argv, "qmx_bench_max", "max.json", [] {
        benchmark::AddCustomContext("ports", std::to_string(discoveredPorts()));
        if (discoveredPorts() != kMaxPorts)
            std::fprintf(stderr, "note: %d ports, not the maximum configuration\n", discoveredPorts());
    });
}
