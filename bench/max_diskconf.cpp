// Disk configuration record at the record's maximum of 128 adapters, each
// with 256 targets, with L LUs a target (the LU count is set in the virtual
// host for the benchmark; ports 128 and up are hidden, since the record
// holds 128 adapters):
//
//   BM_DiskConfCapture/luns:L  QMX_AutoSetDiskConfig: 128 target maps and
//                              32768 LU map requests, the tree, the record
//                              file written; bare: the same requests on
//                              open descriptors and the same bytes written
//   BM_DiskConfRecord/luns:L   what `qmxmgr diskconf record` does: the old
//                              record read, the capture, the comparison;
//                              bare: the requests, the record read and
//                              written
//
// Counters: lus (LUs in the record), ns_per_lu, bare_us and x_bare.  The
// time per LU stays flat as L grows: the work is linear in the LUs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "diskconf_diff.h"
#include "max_support.h"
#include "qmxldd_ioctl.h"
#include "qmxvlib.h"
#include "simstate.h"

namespace {

using namespace qmxbench;

constexpr const char *kRecord = "/opt/kestrel/drivers/hba/qmxldd_lumap.conf";
constexpr int kAdapters = QMX_DISK_CONF_ADAPT_MAX;

// Sets every port's LU count and hides the device files of ports 128 and up
// for the lifetime of the object.
class RecordHost {
public:
    explicit RecordHost(int luns) : ok_(setLuns(luns)) {
        for (int n = kAdapters; n < 256 && ok_; ++n) {
            std::string dev = "/dev/qmxldd" + std::to_string(n);
            if (::access(dev.c_str(), F_OK) != 0) continue;
            if (::rename(dev.c_str(), (dev + ".hidden").c_str()) != 0) ok_ = false;
            hidden_.push_back(n);
        }
    }
    ~RecordHost() {
        for (int n : hidden_) {
            std::string dev = "/dev/qmxldd" + std::to_string(n);
            ::rename((dev + ".hidden").c_str(), dev.c_str());
        }
        setLuns(2048);
        ::unlink(kRecord);
    }
    bool ok() const { return ok_; }

private:
    static bool setLuns(int luns) {
        const char *dir = std::getenv("QMXSIM_STATE");
        if (dir == nullptr) return false;
        return qmxsim::StateStore(dir).update([&](qmxsim::json &s) {
            for (qmxsim::json &p : s["ports"]) p["gen_luns"] = luns;
            return true;
        });
    }
    bool ok_;
    std::vector<int> hidden_;
};

struct Tree {
    QMX_DISK_CONFIG root{};
    ~Tree() { QMX_DiskConfigTblFree(&root); }
};

// The driver requests of a capture on open descriptors, and the record's
// bytes written to a scratch file and read back: the bare I/O.
class BareIo {
public:
    BareIo() : tgt_(QMX_MP_TARGET_SIZE(QMX_MP_TGTMAP_PORT)), lu_(QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX)) {
        for (int n = 0; n < kAdapters; ++n) {
            int fd = ::open(("/dev/qmxldd" + std::to_string(n)).c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) fds_.push_back(fd);
        }
    }
    ~BareIo() {
        for (int fd : fds_) ::close(fd);
    }
    bool requests() {
        for (int fd : fds_) {
            auto *map = reinterpret_cast<qmx_mp_target *>(tgt_.data());
            map->header.entry_count = map->header.target_count = QMX_MP_TGTMAP_PORT;
            if (::ioctl(fd, static_cast<unsigned long>(IOCTL_QMX_MP_TGTMAP), map) != 0) return false;
            uint32_t n = std::min<uint32_t>(map->header.target_count, QMX_MP_TGTMAP_PORT);
            for (uint32_t i = 0; i < n; ++i) {
                auto *hdr = reinterpret_cast<mp_lu_header *>(lu_.data());
                hdr->nodename = map->entry[i].nodename;
                hdr->portname = map->entry[i].portname;
                if (::ioctl(fd, static_cast<unsigned long>(IOCTL_QMX_MP_LUMAP), lu_.data()) != 0)
                    return false;
            }
        }
        return true;
    }
    static bool write(const std::string &text) {
        int fd = ::open("/opt/kestrel/drivers/hba/bare.conf", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) return false;
        bool ok = ::write(fd, text.data(), text.size()) == ssize_t(text.size());
        return ::close(fd) == 0 && ok;
    }
    // The record read (its text kept from the first read, for write()).
    static bool read(std::string &text) {
        if (text.empty()) text = slurp(kRecord);
        return !text.empty() && bareReadFile(kRecord);
    }

private:
    std::vector<int> fds_;
    std::vector<uint8_t> tgt_, lu_;
};

int luCount(const QMX_DISK_CONFIG &c) {
    int n = 0;
    for (const QMX_DISK_CONF_ADAPT *a : c.adapt)
        if (a != nullptr)
            for (const QMX_DISK_CONF_TGT *t : a->tgt)
                if (t != nullptr) n += t->lu_cnt;
    return n;
}

// Times a disk record call in a host of range(0) LUs a target against the
// bare I/O it must do, and reports the LUs and the time per LU.  With
// `captured` a record exists before the first run.  `call(lus)` sets the
// LUs it saw; `bare(io, text)` does the driver requests and the file I/O.
template <class Call, class Bare>
void timeDiskConf(benchmark::State &state, bool captured, Call &&call, Bare &&bare) {
    RecordHost host(int(state.range(0)));
    if (!host.ok()) return state.SkipWithError("cannot prepare the virtual host");
    if (captured) {
        Tree first;
        if (QMX_AutoSetDiskConfig(&first.root) != 0) return state.SkipWithError("first capture failed");
    }
    BareIo io;
    int lus = 0;
    std::string text;
    timeAgainstBare(state, [&] { return call(lus); }, [&] { return bare(io, text); });
    state.counters["lus"] = lus;
    state.counters["ns_per_lu"] = benchmark::Counter(
        double(lus) * double(state.iterations()), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_DiskConfCapture(benchmark::State &state) {
    timeDiskConf(
        state, false,
        [](int &lus) {
            Tree t;
            if (QMX_AutoSetDiskConfig(&t.root) != 0) return false;
            lus = luCount(t.root);
            return true;
        },
        [](BareIo &io, std::string &text) {
            if (text.empty() && !BareIo::read(text)) return false;
            return io.requests() && BareIo::write(text);
        });
}
BENCHMARK(BM_DiskConfCapture)->ArgName("luns")->Arg(1)->Arg(4)->Arg(16)->Iterations(2)->Unit(benchmark::kMillisecond);

void BM_DiskConfRecord(benchmark::State &state) {
    timeDiskConf(
        state, true,
        [](int &lus) {
            Tree before, after;
            if (QMX_GetDiskConfig(nullptr, &before.root) != 0) return false;
            if (QMX_AutoSetDiskConfig(&after.root) != 0) return false;
            auto changes = qmxmgr::diffDiskConfig(before.root, after.root);
            benchmark::DoNotOptimize(changes.data());
            lus = luCount(after.root);
            return changes.empty();
        },
        [](BareIo &io, std::string &text) { return BareIo::read(text) && io.requests() && BareIo::write(text); });
}
BENCHMARK(BM_DiskConfRecord)->ArgName("luns")->Arg(1)->Arg(4)->Arg(16)->Iterations(2)->Unit(benchmark::kMillisecond);

}  // namespace
