// Persistent binding and LU priorities at the maximum configuration:
//
//   BM_AutoSetPersistentBinding/mp:0|1  the collector over 256 adapters of
//       256 targets (mp:1 with the multipath layer active: an LU map of 2048
//       LUs for each of the 65536 targets) and the merge, which the size
//       bound ends with code 14 (the binding of 65536 targets cannot fit a
//       configuration file)
//   BM_WriteBindInfo/new:0|1  the merge of 132000 records against a file of
//       132000 binding items: new:0 the file's own records (every key found;
//       the whole file is rewritten and the module refresh refuses its size,
//       code 10), new:1 132000 records none of which is in the file (code 14)
//   BM_ReadKeyListOfBindingFile  the key list read of that file, with which
//       the merge starts (the floor under BM_WriteBindInfo)
//   BM_ReadQmxlddConf   the parse of that file into the binding table
//   BM_GetLUPriorityCnt the listing of that file (parse and 16384 paths)
//
// Each also times the bare I/O of the same work (the driver requests, the
// file bytes read and written, the trace lines written) and reports the
// ratio ("x_bare").
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "config/binding_tables.h"
#include "config/config.h"
#include "frame/bigblock.h"
#include "max_support.h"
#include "multipath/binding.h"
#include "qmxldd_ioctl.h"

namespace {

using namespace qmxbench;

constexpr int kAdapters = 256;
constexpr int kTargetsPerAdapter = 64;  // 16384 targets of 8 items: 131072 items

// The multipath layer's switch, set through the driver's parameter write.
bool setMultipath(int on) {
    int fd = open("/dev/qmxldd0", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    qmx_mp_parameters mp{};
    bool ok = ioctl(fd, IOCTL_QMX_MP_RDPARM, &mp) == 0;
    mp.qmxmp = uint8_t(on);
    ok = ok && ioctl(fd, IOCTL_QMX_MP_WRPARM, &mp) == 0;
    close(fd);
    return ok;
}

// A file of 131072 target binding items and 256 adapter items, in the order
// the binding writer keeps (so a rewrite leaves it as it is).  `shift` moves
// every target id, giving keys that a file of shift 0 does not hold.
std::string bindingFile(int shift) {
    std::string s;
    s.reserve(6 << 20);
    char buf[96];
    for (int a = 0; a < kAdapters; ++a)
        for (int t = 0; t < kTargetsPerAdapter; ++t) {
            int tid = t + shift;
            unsigned long long w = 0x5100000000000000ULL | (unsigned long long)(t << 8) | a;
            std::snprintf(buf, sizeof buf, "qmxl%d-tid-%d-wwpn=0x%llx:", a, tid, w);
            s += buf;
            std::snprintf(buf, sizeof buf, "qmxl%d-tid-%d-wwnn=0x%llx:", a, tid, w & ~0xFFULL);
            s += buf;
            std::snprintf(buf, sizeof buf, "qmxl%d-tid-%d-gt=%d:", a, tid, t % 64);
            s += buf;
            std::snprintf(buf, sizeof buf, "qmxl%d-tid-%d-attribute=0x%02x:", a, tid, a % 2);
            s += buf;
            for (int k = 0; k < 4; ++k) {
                std::snprintf(buf, sizeof buf, "qmxl%d-tid-%d-priority%d=0x%016llx:", a, tid, k,
                              (unsigned long long)(t + k));
                s += buf;
            }
        }
    for (int a = 0; a < kAdapters; ++a) {
        std::snprintf(buf, sizeof buf, "qmxl%d-wwpn=0x%016llx:", a,
                      0x2100000000000000ULL | (unsigned long long)(a << 8));
        s += buf;
    }
    return s;
}


// The folder of the configuration file flushed (a file created or removed
// there stays so after a crash).
bool syncEtc() {
    int fd = open("/etc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    (void)fsync(fd);  // as the library: best effort
    return close(fd) == 0;
}

// The file written in place and flushed.
bool writeWhole(const char *path, const std::string &text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = pwrite(fd, text.data(), text.size(), 0) == ssize_t(text.size()) &&
              ftruncate(fd, off_t(text.size())) == 0 && fsync(fd) == 0;
    close(fd);
    return ok;
}

// The text written and flushed into a new file beside `path` (a one-line
// header, then the text).
bool journalWhole(const char *path, const std::string &text) {
    std::string name = std::string(path) + ".journal";
    int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    char header[64];
    int hn = std::snprintf(header, sizeof header, "journal %zu 0123456789abcdef\n", text.size());
    bool ok = write(fd, header, std::size_t(hn)) == hn &&
              write(fd, text.data(), text.size()) == ssize_t(text.size()) && fsync(fd) == 0;
    return close(fd) == 0 && ok && syncEtc();
}

// The module refresh after a rewrite: the module list, the module image's
// table area read twice (to find the table, then the table) and the file
// measured (its size is refused).
bool bareModuleRefresh() {
    struct Paths {
        std::string list, image;
    };
    static const Paths paths = [] {
        struct utsname un;
        if (uname(&un) != 0) return Paths{};
        const std::string base = std::string("/lib/modules/") + un.release + "/";
        const std::string dep = slurp(base + "modules.dep");
        const std::string_view module = "qmxldd_conf.ko";
        const std::size_t at = dep.find(std::string(module) + ":");
        if (at == std::string::npos) return Paths{};
        const std::size_t line = dep.rfind('\n', at);
        const std::size_t from = line == std::string::npos ? 0 : line + 1;
        return Paths{base + "modules.dep", base + dep.substr(from, at + module.size() - from)};
    }();
    const std::size_t area = std::size_t(kTableAreaSize);
    if (!bareReadFile(paths.list.c_str())) return false;
    int fd = open(paths.image.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    bool ok = pread(fd, bareReadBuffer, area, 0) > 0 && pread(fd, bareReadBuffer, area, 4096) > 0 &&
              stat(kConfFile, &st) == 0;
    return close(fd) == 0 && ok;
}

// The trace lines a parse writes (one a converted value, the ring's wrap
// included), written as bare 121-byte lines.
bool traceLinesBare(long lines) {
    static const std::string line = traceLine("qmx_convert_string START");
    OwnRing ring("qmxbenchBare.txt");
    int fd = open(ring.path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    // One write a line: the trace flushes every line it writes.
    for (long i = 0; i < lines; ++i)
        if (pwrite(fd, line.data(), line.size(), off_t(i % kRingLines) * kLineBytes) !=
            ssize_t(line.size()))
            return close(fd), false;
    return close(fd) == 0;
}

// Items whose value the parser converts (all but the adapter items).
constexpr long kConvertedItems = long(kAdapters) * kTargetsPerAdapter * 8;

class FileFixture {
public:
    explicit FileFixture(int shift) : text_(bindingFile(shift)) {}
    bool install() const { return spit(kConfFile, text_); }
    const std::string &text() const { return text_; }

private:
    std::string text_;
};

void BM_AutoSetPersistentBinding(benchmark::State &state) {
    if (discoveredPorts() == 0) return state.SkipWithError("no ports");
    int mp = int(state.range(0));
    if (!setMultipath(mp)) return state.SkipWithError("multipath switch");
    auto info = std::make_unique<QMX_PERSISTENTBINDING>();
    long luMaps = 0;
    timeAgainstBare(
        state,
        [&] {
            int st = QMX_AutoSetPersistentBinding(info.get());
            // The binding of every target is far beyond the file's bound.
            return st == 1 && QMX_LastErrorCode() == QMX_ERR_SIZE_LIMIT;
        },
        [&] {
            // Per device: the port information request (its own open), then
            // the maps on a second descriptor; then the configuration read.
            static std::vector<unsigned char> tbuf(QMX_MP_TARGET_SIZE(QMX_MP_TGTMAP_MAX));
            static std::vector<unsigned char> lbuf(QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX));
            luMaps = 0;
            for (int n = 0; n < kAdapters; ++n) {
                char path[32];
                std::snprintf(path, sizeof path, "/dev/qmxldd%d", n);
                struct stat st;
                if (stat(path, &st) != 0) continue;
                int fd = open(path, O_RDONLY | O_CLOEXEC);
                qmx_ioctl_proc_info pi{};
                if (fd < 0 || ioctl(fd, IOCTL_QMX_SC_PRINFO, &pi) != 0) return false;
                close(fd);
                fd = open(path, O_RDONLY | O_CLOEXEC);
                auto *t = reinterpret_cast<qmx_mp_target *>(tbuf.data());
                t->header.entry_count = t->header.target_count = QMX_MP_TGTMAP_MAX;
                qmx_mp_parameters p{};
                if (ioctl(fd, IOCTL_QMX_MP_TGTMAP, t) != 0 || ioctl(fd, IOCTL_QMX_MP_RDPARM, &p) != 0)
                    return false;
                uint32_t count = std::min<uint32_t>(t->header.target_count, QMX_MP_TGTMAP_MAX);
                for (uint32_t i = 0; p.qmxmp == 1 && i < count; ++i) {
                    auto *h = reinterpret_cast<mp_lu_header *>(lbuf.data());
                    h->portname = t->entry[i].portname;
                    h->nodename = t->entry[i].nodename;
                    if (ioctl(fd, IOCTL_QMX_MP_LUMAP, lbuf.data()) != 0) return false;
                    ++luMaps;
                }
                close(fd);
            }
            return bareReadFile(kConfFile);
        });
    state.counters["records"] = double(bind_cnt);
    state.counters["lu_maps"] = double(luMaps);
    setMultipath(1);
}
BENCHMARK(BM_AutoSetPersistentBinding)->ArgName("mp")->Arg(0)->Arg(1)->Iterations(1)
    ->Unit(benchmark::kMillisecond);

void BM_WriteBindInfo(benchmark::State &state) {
    bool fresh = state.range(0) != 0;
    ConfRestore restore;
    FileFixture file(0);
    if (!file.install()) return state.SkipWithError("config file");
    // The records: this file's own, or those of a file with other target ids.
    FileFixture other(fresh ? kTargetsPerAdapter : 0);
    if (fresh && !other.install()) return state.SkipWithError("config file");
    qmx::binding::clearTables();
    QMX_OpenApiTraceFile();
    bool parsed = read_qmxldd_conf() == 0;
    QMX_CloseApiTraceFile();
    if (!parsed) return state.SkipWithError("parse");
    if (!file.install()) return state.SkipWithError("config file");
    int records = bind_cnt;
    const std::string journal = std::string(kConfFile) + ".journal";
    auto call = [&] {
        QMX_OpenApiTraceFile();
        int rc = QMX_WriteBindInfo();
        int code = QMX_LastErrorCode();
        QMX_CloseApiTraceFile();
        // new:0 rewrites the file and the module refresh refuses its size
        // (code 10); new:1 stops at the size bound (code 14).
        return rc == -1 && code == (fresh ? QMX_ERR_SIZE_LIMIT : QMX_ERR_INTERNAL);
    };
    // The call's trace lines are part of its bare I/O (one write each).
    OwnRing ring("qmxbenchBind.txt");
    int lines = linesOfOneCall(ring.path(), call);
    if (lines <= 0 || !spit(ring.path(), fullRing(kRingLines / 2)))
        return state.SkipWithError("cannot prepare the trace ring");
    BareTraceAndRead trace(ring.path(), lines);
    timeAgainstBare(
        state, call,
        [&] {
            if (!trace.traceOnly()) return false;
            // Read the file; new:0 also writes it back.  The rewrite reads
            // the file again under its lock (the old text, to put back if
            // the write fails), and is made safe against a crash by a
            // journal beside it: the new text is written and flushed there
            // first, the file then written and flushed, the journal
            // removed.  The module refresh then reads the module list and
            // the module image and only measures the file.  Those bytes and
            // flushes are part of the work.
            if (!bareReadFile(kConfFile)) return false;
            if (fresh) return true;
            return bareReadFile(kConfFile) && journalWhole(kConfFile, file.text()) &&
                   writeWhole(kConfFile, file.text()) && ::unlink(journal.c_str()) == 0 && syncEtc() &&
                   bareModuleRefresh();
        });
    state.counters["records"] = double(records);
    state.counters["file_bytes"] = double(file.text().size());
    if (slurp(kConfFile) != file.text()) state.SkipWithError("the rewrite changed the file");
    qmx::binding::clearTables();
}
BENCHMARK(BM_WriteBindInfo)->ArgName("new")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The list a key list read hands back: `items` entries of 396 bytes from
// calloc (the caller frees it), whatever the items' lengths: 52 MB of fresh
// zeroed pages for a 4.9 MB file, which the kernel clears as they are first
// touched.  The cheapest code that returns such a list allocates it, advises
// huge pages on it as the library does (a fault a 2 MiB page, not a 4 KiB
// one) and touches each page once; the items' bytes are not even copied.
bool bareList(long items) {
    std::size_t bytes = std::size_t(items) * sizeof(util_para);
    auto *list = static_cast<char *>(std::calloc(std::size_t(items), sizeof(util_para)));
    if (list == nullptr) return false;
    qmx::adviseHugePages(list, bytes);
    for (std::size_t i = 0; i < bytes; i += 4096) static_cast<volatile char *>(list)[i] = 1;
    std::free(list);
    return true;
}

// The key list read that the merge starts with (396 bytes a list entry,
// whatever the item's length): the floor under BM_WriteBindInfo.  Its bare
// I/O is the file's read and the list's allocation (bareList).
void BM_ReadKeyListOfBindingFile(benchmark::State &state) {
    ConfRestore restore;
    FileFixture file(0);
    if (!file.install()) return state.SkipWithError("config file");
    int n = 0;
    timeAgainstBare(
        state,
        [&] {
            util_para *list = nullptr;
            n = QMX_Read_qmxlddconf(&list, 0);
            std::free(list);
            return n > 0;
        },
        [&] { return bareReadFile(kConfFile) && bareList(n); });
    state.counters["items"] = double(n);
}
BENCHMARK(BM_ReadKeyListOfBindingFile)->Unit(benchmark::kMillisecond);

void BM_ReadQmxlddConf(benchmark::State &state) {
    ConfRestore restore;
    FileFixture file(0);
    if (!file.install()) return state.SkipWithError("config file");
    timeAgainstBare(
        state,
        [&] {
            // The parse appends to the adapter table: its callers clear it.
            qmx::binding::clearTables();
            QMX_OpenApiTraceFile();
            int rc = read_qmxldd_conf();
            QMX_CloseApiTraceFile();
            if (rc != 0 || bind_cnt != kConvertedItems)
                std::fprintf(stderr, "read_qmxldd_conf %d, %d records\n", rc, bind_cnt);
            return rc == 0 && bind_cnt == kConvertedItems;
        },
        [&] { return bareReadFile(kConfFile) && traceLinesBare(kConvertedItems + 2); });
    state.counters["records"] = double(bind_cnt);
}
BENCHMARK(BM_ReadQmxlddConf)->Unit(benchmark::kMillisecond);

void BM_GetLUPriorityCnt(benchmark::State &state) {
    ConfRestore restore;
    FileFixture file(0);
    if (!file.install()) return state.SkipWithError("config file");
    int n = -1;
    timeAgainstBare(
        state,
        [&] {
            n = QMX_GetLUPriorityCnt();
            return n == kAdapters * kTargetsPerAdapter;
        },
        [&] { return bareReadFile(kConfFile) && traceLinesBare(kConvertedItems + 8); });
    state.counters["paths"] = double(n);
}
BENCHMARK(BM_GetLUPriorityCnt)->Unit(benchmark::kMillisecond);

}  // namespace
