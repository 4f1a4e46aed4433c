// Configuration store at its size limit: a set call on a file of about 8000
// items (256 ports with all their per-port parameters and retry counts),
// next to simply reading and writing the same bytes.
//
//   BM_SetCall/<items>        QMX_SetUtilValue's work on a private tree:
//                             read, change in place, regroup, write the file,
//                             refresh the module image
//   BM_ReadWriteFile          read the file and write the same bytes back
//   BM_ReadWriteFileAndImage  the same plus reading and writing the image's
//                             table area (the I/O a set call has to do)
//   BM_BuildText/<items>      the regrouping alone, in memory
//   BM_BuildBindingText       binding mode with full binding tables
//   BM_ParseBindingFile       reading back the file that write leaves
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "conf_layout.h"
#include "config/config.h"
#include "frame/frame.h"

namespace {

using conflayout::kPortOrder;
using conflayout::tableArea;

// A configuration file of about `items` items in the writer's layout: per
// port the per-port parameters and retry counts, then the adapter items.
std::string configText(int items) {
    int perPort = items / 256;
    if (perPort < 2) perPort = 2;
    int params = perPort * 2 / 3 < 32 ? perPort * 2 / 3 : 32;
    int retries = perPort - 1 - params;
    std::string s = "qmx_queue_depth=32:qmxmp_failover=1:";
    for (int p = 0; p < 256; ++p) {
        std::string pre = "qmx" + std::to_string(p);
        for (int i = 0; i < params; ++i) {
            if (std::string(kPortOrder[i]) == "_lun_reset_delay")
                for (int e = 0; e < retries; ++e) s += pre + "_retry_cnt" + std::to_string(e) + "=9:";
            s += pre + kPortOrder[i] + "=" + std::to_string(i) + ":";
        }
        if (params <= 12)
            for (int e = 0; e < retries; ++e) s += pre + "_retry_cnt" + std::to_string(e) + "=9:";
    }
    for (int p = 0; p < 256; ++p) {
        char w[48];
        std::snprintf(w, sizeof w, "qmxl%d-wwpn=0x%016x:", p, 0x2100 + p);
        s += w;
    }
    return s;
}

void spit(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

// A private tree: etc/qmxldd.conf and lib/modules/<release>/ with modules.dep
// and a module image.
struct Tree {
    std::string root, conf, lib, modules, modprobe, tmp1, tmp2, image;
    qmx::ConfStore store{};
    explicit Tree(const std::string &text) {
        char tmpl[] = "/tmp/qmxcfg-bench-XXXXXX";
        root = mkdtemp(tmpl) ? tmpl : "/tmp";
        struct utsname un;
        uname(&un);
        for (std::string d : {std::string("/etc"), std::string("/lib"), std::string("/lib/modules"),
                              "/lib/modules/" + std::string(un.release),
                              "/lib/modules/" + std::string(un.release) + "/extra"})
            mkdir((root + d).c_str(), 0755);
        conf = root + "/etc/qmxldd.conf";
        lib = root + "/etc/qmxlib.conf";
        modules = root + "/lib/modules";
        modprobe = root + "/etc/qmxldd_param.conf";
        tmp1 = root + "/tmp1";
        tmp2 = root + "/tmp2";
        std::string base = modules + "/" + un.release;
        image = base + "/extra/qmxldd_conf.ko";
        spit(base + "/modules.dep", "extra/qmxldd_conf.ko:\n");
        spit(image, std::string(4096, 'E') + tableArea() + std::string(1024, 'T'));
        spit(conf, text);
        store = {conf.c_str(), lib.c_str(), modules.c_str(), modprobe.c_str(), tmp1.c_str(),
                 tmp2.c_str()};
    }
    ~Tree() {
        std::string cmd = "rm -rf '" + root + "'";
        if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "cleanup failed\n");
    }
};

// Retry counts written by an earlier benchmark of the process stay in their
// table by design; each benchmark starts from an empty one.
void freshTables() { std::memset(retry_cnt, 0, sizeof retry_cnt); }

void BM_SetCall(benchmark::State &state) {
    freshTables();
    std::string text = configText(int(state.range(0)));
    Tree t(text);
    qmx::copyText(dev_info_all[0].name, "qmxldd7");
    c_max_port = 1;
    QMX_WWN wwn = {{0x21, 0, 0, 0, 0, 0, 0x21, 0x07}};
    int v = 0;
    for (auto _ : state) {
        v = v == 16 ? 32 : 16;
        if (qmx::setUtilValue(t.store, wwn, 0, "_queue_depth", -1, &v, 0) != 0)
            state.SkipWithError("set failed");
    }
    state.counters["bytes"] = double(text.size());
    state.counters["items"] = double(std::count(text.begin(), text.end(), ':'));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_SetCall)->Arg(1000)->Arg(2000)->Arg(4000)->Arg(8000)->Complexity(benchmark::oN)
    ->Unit(benchmark::kMicrosecond);

// Reads the file and writes the same bytes back over it (`buf` holds the
// whole file): the file I/O of a set call.
bool rewrite(const std::string &path, std::vector<char> &buf) {
    int fd = open(path.c_str(), O_RDWR);
    ssize_t n = read(fd, buf.data(), buf.size());
    bool ok = ftruncate(fd, 0) == 0 && pwrite(fd, buf.data(), std::size_t(n), 0) == n;
    close(fd);
    return ok;
}

void BM_ReadWriteFile(benchmark::State &state) {
    std::string text = configText(8000);
    Tree t(text);
    std::vector<char> buf(text.size() + 1);
    for (auto _ : state) {
        if (!rewrite(t.conf, buf)) state.SkipWithError("write failed");
    }
    state.counters["bytes"] = double(text.size());
}
BENCHMARK(BM_ReadWriteFile)->Unit(benchmark::kMicrosecond);

void BM_ReadWriteFileAndImage(benchmark::State &state) {
    std::string text = configText(8000);
    Tree t(text);
    std::vector<char> buf(text.size() + 1);
    std::vector<char> area(static_cast<std::size_t>(kTableAreaSize));
    for (auto _ : state) {
        if (!rewrite(t.conf, buf)) state.SkipWithError("write failed");
        int img = open(t.image.c_str(), O_RDWR);
        if (pread(img, area.data(), area.size(), 4096) != ssize_t(area.size()) ||
            pwrite(img, area.data(), area.size(), 4096) != ssize_t(area.size()))
            state.SkipWithError("image failed");
        close(img);
    }
}
BENCHMARK(BM_ReadWriteFileAndImage)->Unit(benchmark::kMicrosecond);

// Times rebuilding the file text from the key list parsed out of `text`
// (mode 0 plain, 1 binding); returns the last text built.
std::string timeBuild(benchmark::State &state, const std::string &text, int mode) {
    util_para *list = nullptr;
    int n = qmx::parseKeyLine(text.data(), text.size(), &list);
    std::vector<util_para> work(static_cast<std::size_t>(n > 0 ? n : 0));
    std::string out;
    for (auto _ : state) {
        if (n > 0) std::memcpy(work.data(), list, sizeof(util_para) * std::size_t(n));
        out.clear();
        qmx::buildConfText(work.data(), n, nullptr, 0, mode, out);
        benchmark::DoNotOptimize(out.data());
    }
    std::free(list);
    return out;
}

void BM_BuildText(benchmark::State &state) {
    freshTables();
    std::string text = configText(int(state.range(0)));
    std::string out = timeBuild(state, text, 0);
    if (out != text) state.SkipWithError("output differs from input");
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_BuildText)->Arg(1000)->Arg(2000)->Arg(4000)->Arg(8000)->Complexity(benchmark::oN)
    ->Unit(benchmark::kMicrosecond);

// The largest binding configuration: full binding tables (BINDMAX records,
// HADAPTMAX adapter records) written in binding mode next to a file of
// about 8000 other items, then the resulting file parsed back.
void fillBindingTables() {
    for (int r = 0; r < BINDMAX; ++r) {
        __TBLKEY &t = TBLKEY[r];
        std::memset(&t, 0, sizeof t);
        t.adapt = r % 256;
        t.target = r / 256;
        t.npd = r % 2 == 0 ? kBindWwpn : kBindPriority0 + (r / 2) % 4;
        t.priority[(r / 2) % 4] = uint64_t(r);
        std::snprintf(t.bind, sizeof t.bind, "0x50060e80%08x", unsigned(r));
    }
    bind_cnt = BINDMAX;
    for (int a = 0; a < HADAPTMAX; ++a) {
        WWPN[a].adapt = a;
        std::snprintf(WWPN[a].bind, sizeof WWPN[a].bind, "0x21000000%08x", unsigned(a));
        WWPN[a].use_flg = 1;
    }
    wwpn_cnt = HADAPTMAX;
}

void BM_BuildBindingText(benchmark::State &state) {
    freshTables();
    fillBindingTables();
    std::string text = configText(8000);
    std::string out = timeBuild(state, text, 1);
    state.counters["bytes"] = double(out.size());
    bind_cnt = wwpn_cnt = 0;
}
BENCHMARK(BM_BuildBindingText)->Unit(benchmark::kMillisecond);

void BM_ParseBindingFile(benchmark::State &state) {
    freshTables();
    fillBindingTables();
    std::string text = configText(8000);
    util_para *list = nullptr;
    int n = qmx::parseKeyLine(text.data(), text.size(), &list);
    std::string full;
    qmx::buildConfText(list, n, nullptr, 0, 1, full);
    std::free(list);
    bind_cnt = wwpn_cnt = 0;
    for (auto _ : state) {
        util_para *parsed = nullptr;
        int items = qmx::parseKeyLine(full.data(), full.size(), &parsed);
        if (items <= BINDMAX) state.SkipWithError("binding file refused");
        std::free(parsed);
    }
    state.counters["bytes"] = double(full.size());
}
BENCHMARK(BM_ParseBindingFile)->Unit(benchmark::kMillisecond);

}  // namespace
