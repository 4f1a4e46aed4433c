// The multipath listings at the driver's LU path maximum, run inside the
// virtual host with the generated 65536-LU-path scenario (16 ports, 256
// targets a port in 256 path groups, 16 LUs a target):
//
//   qmxsim --scenario <build>/sim/scenarios/mp65536.json -- <build>/bench/qmx_bench_mp
//
//   BM_GetLuPathStatus     the sorted listing of all 65536 LU paths
//   BM_AddLuPathStatus     the path health check (REPORT LUNS per target,
//                          one health request per LU path)
//   BM_GetAllLuID          the LU identifier list (4096 LUs, 16 paths each)
//   BM_GetTargetPathStatus the 4096 target paths merged with the logical
//                          targets
//
// Each benchmark also times the bare driver requests the call must issue
// (same requests, same buffers, no library work) and reports the ratio
// (x_bare).  Setup stays outside the timed loops.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "max_support.h"
#include "multipath/mpruntime.h"
#include "simstate.h"

namespace {

using namespace qmxbench;

void setHealthCheck(bool on) {
    qmxsim::StateStore(std::getenv("QMXSIM_STATE"))
        .update([&](qmxsim::json &s) {
            s["multipath"]["mp_path_health_by_dsp"] = on ? 1 : 0;
            return true;
        });
}

// The devices the listings open, each with its port information read, as
// open_special_file does.
struct Devices {
    std::vector<int> fds;
    Devices() {
        for (int n = 0; n < kMaxPorts; ++n) {
            int fd = ::open(("/dev/qmxldd" + std::to_string(n)).c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0) continue;
            qmx_ioctl_proc_info info;
            std::memset(&info, 0, sizeof info);
            ::ioctl(fd, IOCTL_QMX_SC_PRINFO, &info);
            fds.push_back(fd);
        }
    }
    ~Devices() {
        for (int fd : fds) ::close(fd);
    }
};

// The map requests of a listing: every port's target map, the LU map of
// every target (attribute 3 and flag filters do not apply here).
bool bareMaps(bool withParams) {
    Devices d;
    if (d.fds.empty()) return false;
    qmx::mp::MapBuffers b;
    if (!b.allocTarget() || !b.allocLu()) return false;
    if (withParams) {
        qmx_mp_parameters mp;
        if (::ioctl(d.fds[0], IOCTL_QMX_MP_RDPARM, &mp) != 0) return false;
    }
    for (int fd : d.fds) {
        int n = qmx::mp::readTargetMap(qmx::mp::systemChannel(), fd, b);
        if (n < 0) return false;
        for (int t = 0; t < n; ++t) {
            mp_target_entry te = qmx::mp::targetEntry(b.tgtmap(), std::size_t(t));
            b.lumap()->header.portname = te.portname;
            b.lumap()->header.nodename = te.nodename;
            if (qmx::mp::readLuMap(qmx::mp::systemChannel(), fd, b) < 0) return false;
        }
    }
    return true;
}

void BM_GetLuPathStatus(benchmark::State &state) {
    setHealthCheck(false);
    auto paths = std::make_unique<QMX_LUPATH_STATUS>();
    paths->lupath_cnt = 0;
    int listed = 0;
    timeAgainstBare(
        state,
        [&] {
            bool ok = QMX_GetLuPathStatus(paths.get()) == 0;
            listed = paths->lupath_cnt;
            QMX_ReleaseLuPath(paths.get());
            return ok && listed > 0;
        },
        [] { return bareMaps(true); });
    state.counters["paths"] = listed;
}
BENCHMARK(BM_GetLuPathStatus)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_AddLuPathStatus(benchmark::State &state) {
    setHealthCheck(true);
    timeAgainstBare(
        state, [] { return QMX_AddLuPathStatus() == 0; },
        [] {
            Devices d;
            qmx_mp_parameters mp;
            if (d.fds.empty() || ::ioctl(d.fds[0], IOCTL_QMX_MP_RDPARM, &mp) != 0) return false;
            auto list = std::make_unique<qmx_ioctl_port_attr>();
            std::vector<unsigned char> data(QMX_PASSTHRU_DATA_LEN + 8), sense(64);
            for (int fd : d.fds) {
                std::memset(list.get(), 0, sizeof *list);
                qmx_ioctl_diag_req req{};
                req.sub_code = QMX_DIAG_SUB_TGTLIST;
                req.length = QMX_PORT_ATTR_LIST_LEN;
                req.addr = reinterpret_cast<uintptr_t>(list.get());
                if (::ioctl(fd, IOCTL_QMX_PORT_ATTR, &req) != 0) return false;
                for (uint32_t t = 0; t < list->tgt_num && t < QMX_PORT_ATTR_MAX_TARGETS; ++t) {
                    qmx_ioctl_scsi_passthru pt{};
                    pt.flags = QMX_PASSTHRU_FLAGS;
                    pt.data_len = QMX_PASSTHRU_DATA_LEN;
                    pt.data_addr = reinterpret_cast<uintptr_t>(data.data());
                    pt.port_wwn = list->tgt_wwpn[t];
                    pt.cdb_len = QMX_PASSTHRU_CDB_LEN;
                    pt.cdb[0] = QMX_SCSI_REPORT_LUNS;
                    pt.sense_addr = reinterpret_cast<uintptr_t>(sense.data());
                    if (::ioctl(fd, IOCTL_QMX_SCSI_PASSTHRU, &pt) != 0) return false;
                    uint32_t luns = qmx::mp::reportLunsCount(data.data());
                    for (uint32_t j = 1; j <= luns; ++j) {
                        qmx_mp_path_health ph{};
                        ph.Port_WWN = pt.port_wwn;
                        ph.lun_id = qmx::mp::reportLun(data.data(), j);
                        if (::ioctl(fd, IOCTL_QMX_MP_PTHEALTH, &ph) != 0) return false;
                    }
                }
            }
            return true;
        });
    setHealthCheck(false);
}
BENCHMARK(BM_AddLuPathStatus)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_GetAllLuID(benchmark::State &state) {
    int ids = 0;
    timeAgainstBare(
        state,
        [&] {
            QMX_NMPATH_STATUS nm{0, nullptr};
            bool ok = QMX_GetAllLuID(&nm) == 0;
            ids = nm.info_cnt;
            QMX_ReleaseLuIDPath(&nm);
            return ok && ids > 0;
        },
        [] { return bareMaps(false); });
    state.counters["luids"] = ids;
}
BENCHMARK(BM_GetAllLuID)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_GetTargetPathStatus(benchmark::State &state) {
    auto tgts = std::make_unique<QMX_TGTPATH_STATUS>();
    uint32_t listed = 0;
    timeAgainstBare(
        state,
        [&] {
            tgts->tgtpath_cnt = 0;
            bool ok = QMX_GetTargetPathStatus(tgts.get()) == 0;
            listed = tgts->tgtpath_cnt;
            QMX_ReleaseTargetPathStatus(tgts.get());
            return ok && listed > 0;
        },
        [] {
            Devices d;
            qmx::mp::MapBuffers b;
            if (d.fds.empty() || !b.allocTarget()) return false;
            for (int fd : d.fds)
                if (qmx::mp::readTargetMap(qmx::mp::systemChannel(), fd, b) < 0) return false;
            std::vector<unsigned char> list(QMX_MP_LGPATH1_SIZE(QMX_MP_LGPATH1_MAX));
            reinterpret_cast<qmx_mp_lgpath_info1 *>(list.data())->header.entry_count = QMX_MP_LGPATH1_MAX;
            return ::ioctl(d.fds[0], IOCTL_QMX_MP_LGPATH1, list.data()) == 0;
        });
    state.counters["paths"] = listed;
}
BENCHMARK(BM_GetTargetPathStatus)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

int main(int argc, char **argv) {
    return qmxbench::mainInHost(argc, argv, "qmx_bench_mp", "mp65536.json", [] {});
}
