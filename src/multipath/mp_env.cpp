// Multipath operating environment: the driver-wide parameters of the
// multipath layer, read from and sent to the driver through any port, and
// the chosen ones kept as driver-wide keys of /etc/qmxldd.conf.
#include <sys/ioctl.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>

#include "multipath/mpruntime.h"

namespace qmx::mp {

namespace {

class SystemChannel final : public DriverChannel {
public:
    int request(int fd, unsigned long req, void *arg) noexcept override { return ::ioctl(fd, req, arg); }
};

// A port's device opened for one request, closed when it goes.
struct PortDevice {
    int fd = -1;
    explicit PortDevice(int ind) : fd(openPort(ind)) {}
    ~PortDevice() { close_ap(&fd); }
    PortDevice(const PortDevice &) = delete;
    PortDevice &operator=(const PortDevice &) = delete;
};

// The fields of param_flag in the order their keys are written, with the
// key suffix, the default that del 1 sends, and the driver record's field.
struct EnvKey {
    uint32_t bit;
    const char *suffix;
    uint32_t dflt;
    std::size_t offset;  // in qmx_mp_parameters
    bool word;           // 32-bit field (else 8-bit)
};
constexpr EnvKey kEnvKeys[] = {
    {QMX_MP_FLAG_FAILOVER, "mp_failover", 1, offsetof(qmx_mp_parameters, mp_failover), false},
    {QMX_MP_FLAG_FAILBACK, "mp_failback", 0, offsetof(qmx_mp_parameters, mp_failback), false},
    {QMX_MP_FLAG_PATH_HEALTH, "mp_path_health", 1, offsetof(qmx_mp_parameters, mp_path_health), false},
    {QMX_MP_FLAG_INTERVAL, "mp_interval", 30, offsetof(qmx_mp_parameters, mp_interval), true},
    {QMX_MP_FLAG_ROUND_ROBIN, "mp_roundrobin", 1, offsetof(qmx_mp_parameters, mp_roundrobin), false},
    {QMX_MP_FLAG_RR_SEQCNT, "mp_rr_seqcnt", 100, offsetof(qmx_mp_parameters, mp_rr_seqcnt), true},
    {QMX_MP_FLAG_RR_RNDCNT, "mp_rr_rndcnt", 1, offsetof(qmx_mp_parameters, mp_rr_rndcnt), true},
    {QMX_MP_FLAG_ALTER_PATH, "mp_alp_enable", 0, offsetof(qmx_mp_parameters, mp_alter_path), false},
    {QMX_MP_FLAG_OFFLINE_PATH, "mp_ofp_enable", 0, offsetof(qmx_mp_parameters, mp_offline_path), false},
};

void *fieldOf(qmx_mp_parameters &r, const EnvKey &k) {
    return reinterpret_cast<unsigned char *>(&r) + k.offset;
}

uint8_t isOne(uint8_t v) { return v == 1 ? 1 : 0; }
uint8_t nonZero(uint8_t v) { return v != 0 ? 1 : 0; }

bool noPorts() { return QMX_DevFind() == 5 || c_max_port <= 0; }

}  // namespace

int openPort(int ind) noexcept {
    if (ind < 0 || ind >= kMaxPorts) return -1;
    const dev_info &d = dev_info_all[ind];
    char path[300];
    std::snprintf(path, sizeof path, "/dev/%.*s", int(strnlen(d.name, sizeof d.name)), d.name);
    int fd = -1;
    return open_ap(&fd, path) == 0 ? fd : -1;
}

DriverChannel &systemChannel() noexcept {
    static SystemChannel ch;
    return ch;
}

}  // namespace qmx::mp

using namespace qmx::mp;

int qmx_mp_rdparm_tmp(qmx_spfile *adap_fd, qmx_mp_parameters *mpparam) {
    qmx::trace("qmx_mp_rdparm_tmp START");
    std::memset(mpparam, 0, sizeof *mpparam);
    for (int n = 0; adap_fd != nullptr && n < kMaxPorts; ++n) {
        if (!spfileValid(adap_fd[n])) continue;
        if (systemChannel().request(adap_fd[n].fd, IOCTL_QMX_MP_RDPARM, mpparam) == 0) {
            qmx::trace("qmx_mp_rdparm_tmp END");
            return 0;
        }
        qmx::tracef("ioctl error ( /dev/qmxldd%d (IOCTL_QMX_MP_RDPARM : errno=%d))\n", n, errno);
        qmx::trace("qmx_mp_rdparm_tmp ABEND");
    }
    return -1;
}

QMX_STATUS QMX_GetOperationEnv(QMX_MP_PARAM *mpparam) {
    return qmx::run("QMX_GetOperationEnv", [&](qmx::Frame &f) {
        if (!f.out(mpparam, "mpparam", " == NULL")) return f.fail();
        if (noPorts()) return f.fail();
        qmx_mp_parameters drv;
        std::unique_ptr<PortDevice> dev;
        for (int i = 0; i < c_max_port && i < kMaxPorts; ++i) {
            auto d = std::make_unique<PortDevice>(i);
            if (d->fd < 0) continue;
            std::memset(&drv, 0, sizeof drv);
            if (systemChannel().request(d->fd, IOCTL_QMX_MP_RDPARM, &drv) == 0) {
                dev = std::move(d);
                break;
            }
            qmx::trace("IOCTL_QMX_MP_RDPARM fail");
        }
        if (!dev) return f.fail(7);
        mpparam->automap = drv.automap;
        mpparam->qmxpcm = drv.qmxmp;
        mpparam->mp_failover = nonZero(drv.mp_failover);
        mpparam->mp_failback = nonZero(drv.mp_failback);
        mpparam->mp_path_health = nonZero(drv.mp_path_health);
        mpparam->mp_interval = drv.mp_interval;
        qmx_ioctl_proc_info info;
        std::memset(&info, 0, sizeof info);
        if (systemChannel().request(dev->fd, IOCTL_QMX_SC_PRINFO, &info) != 0) {
            qmx::trace("IOCTL_QMX_SC_PRINFO");
            dev.reset();
            return f.unsupported();
        }
        mpparam->HighReliability = info.highconf_opt;
        mpparam->mp_round_robin = nonZero(drv.mp_roundrobin);
        mpparam->mp_rr_seqcnt = drv.mp_rr_seqcnt;
        mpparam->mp_rr_rndcnt = drv.mp_rr_rndcnt;
        mpparam->nm_alter_path = nonZero(drv.mp_alter_path);
        mpparam->nm_offline_path = nonZero(drv.mp_offline_path);
        dev.reset();
        return f.ok();
    });
}

QMX_STATUS QMX_SetOperationEnv(QMX_MP_PARAM *mpparam, int del) {
    return qmx::run("QMX_SetOperationEnv", [&](qmx::Frame &f) {
        if (!f.notNull(mpparam, "mpparam", " == NULL")) return f.fail();
        if (noPorts()) return f.fail();
        const QMX_MP_PARAM &p = *mpparam;
        if (p.mp_failover > 1) return f.invalid("failover", " is invalid");
        if (p.mp_failback > 1) return f.invalid("failback", " is invalid");
        if (p.mp_path_health > 1) return f.invalid("path_health", " is invalid");
        if (p.mp_interval == 0 || p.mp_interval > 1440) return f.invalid("interval", " is invalid");

        // Fields the call does not build (automap, reservation, maxima) go as 0.
        qmx_mp_parameters drv;
        std::memset(&drv, 0, sizeof drv);
        drv.qmxmp = 1;
        drv.mp_failover = isOne(p.mp_failover);
        drv.mp_failback = isOne(p.mp_failback);
        drv.mp_path_health = isOne(p.mp_path_health);
        drv.mp_interval = p.mp_interval;
        drv.mp_path_health_by_dsp = 1;
        drv.mp_roundrobin = isOne(p.mp_round_robin);
        drv.mp_rr_seqcnt = p.mp_rr_seqcnt;
        drv.mp_rr_rndcnt = p.mp_rr_rndcnt;
        drv.mp_alter_path = isOne(p.nm_alter_path);
        drv.mp_offline_path = isOne(p.nm_offline_path);
        if (del == 1) {
            for (const EnvKey &k : kEnvKeys) {
                if ((p.param_flag & k.bit) == 0) continue;
                if (k.word)
                    std::memcpy(fieldOf(drv, k), &k.dflt, 4);
                else
                    *static_cast<uint8_t *>(fieldOf(drv, k)) = uint8_t(k.dflt);
            }
        }

        bool sent = false;
        for (int i = 0; i < c_max_port && i < kMaxPorts && !sent; ++i) {
            PortDevice d(i);
            if (d.fd >= 0 && systemChannel().request(d.fd, IOCTL_QMX_MP_WRPARM, &drv) == 0)
                sent = true;
            else
                qmx::trace("IOCTL_QMX_MP_WRPARM");
        }
        if (!sent) return f.fail();

        if (p.param_flag & QMX_MP_FLAG_ROUND_ROBIN) {
            // One path health check at once, with the trace file closed
            // around the listing's own frame; its outcome is not looked at.
            auto record = std::make_unique<QMX_LUPATH_STATUS>();
            record->lupath_cnt = 0;
            qmx::trace("call QMX_GetLuPathStatus for execute path health check");
            QMX_CloseApiTraceFile();
            (void)QMX_GetLuPathStatus_Impl(record.get(), 0, 1);
            releaseLuPaths(record.get());
            if (QMX_OpenApiTraceFile() == nullptr)
                QMX_WriteSyslog(2, const_cast<char *>("Trace File Open Error after Path Health Check"));
            qmx::trace("finish path health check");
        }

        for (const EnvKey &k : kEnvKeys) {
            if ((p.param_flag & k.bit) == 0) continue;
            if (QMX_SetUtilValue(wwn_all_zero, -1, const_cast<char *>(k.suffix), -1, fieldOf(drv, k),
                                 del) != 0)
                return f.fail();
        }
        return f.ok();
    });
}
