// Link settings of a port (connection type, port speed; the preferred AL_PA
// is a member of the parameter family) and the port information calls that
// tell the partition mode and hand the configuration file to the driver.
//
// Connection type and port speed live in the adapter's boot firmware: the
// BIOS tool serves ports that are not partitioned; partitioned ports keep
// them in the EFI driver option area, which only a dedicated port may change.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bios/bios.h"
#include "config/config.h"
#include "frame/frame.h"
#include "params/params.h"

namespace qmx::params {

namespace {
struct RateRow {
    uint32_t rate;  // the driver's max_data_rate
    uint8_t speed;  // the API value
};
constexpr RateRow kRates[] = {{100, 1}, {200, 2}, {400, 4}, {800, 8}, {1000, 10}};
}  // namespace

uint8_t portSpeedFromRate(uint32_t max_data_rate) noexcept {
    for (const RateRow &r : kRates)
        if (r.rate == max_data_rate) return r.speed;
    return 0;
}

bool portSpeedValid(uint8_t speed) noexcept {
    if (speed == 0) return true;  // auto detection
    for (const RateRow &r : kRates)
        if (r.speed == speed) return true;
    return false;
}

bool queryPortInfo(Frame &f, QMX_WWN wwn, int ind, qmx_ioctl_proc_info *rec,
                   QueryTrace how) noexcept {
    std::memset(rec, 0, sizeof *rec);
    if (QMX_CallDriver(wwn, ind, int(IOCTL_QMX_SC_PRINFO), rec) == 0) return true;
    if (how == QueryTrace::Call) {
        f.requestFailed("IOCTL_QMX_SC_PRINFO");
    } else {
        trace("IOCTL_QMX_SC_PRINFO");
        trace("QMX_CallDriver Error");
    }
    return false;
}

bool readBootSetting(Frame &f, int ind, const qmx_ioctl_proc_info &rec, int efiOffset,
                     int cfgIndex, uint8_t *value, bool *fromEfi) noexcept {
    *fromEfi = (rec.mlpf_mode & kMlpfPartitioned) != 0;
    if (*fromEfi) {
        tracef("%s (MMIO-HG)", f.name());
        unsigned char opt = 0;
        if (qmx_EFIDrvOption(ind, &opt, 0, efiOffset) != 0) return false;
        *value = opt;
        return true;
    }
    if (qmx_GetQmxbiosInfo(ind) != 0) return false;
    *value = qmx_CfgListByte(cfgIndex);
    return true;
}

QMX_STATUS writeBootSetting(Frame &f, QMX_WWN wwn, int ind, BootWrite w) noexcept {
    qmx_ioctl_proc_info rec;
    if (!queryPortInfo(f, wwn, ind, &rec, QueryTrace::Channel)) return f.fail();
    switch (mlpfClass(rec.mlpf_mode)) {
    case 0:
        if (qmx_ExecQmxbios(ind, w.biosOption, &w.bp) != 0) return f.fail();
        return f.ok();
    case 1:
        if (w.dedicatedOnly) {
            char msg[96];
            std::snprintf(msg, sizeof msg, "%s Not Support Shared FC mode", f.name());
            return f.invalid(msg, "");
        }
        tracef("%s (MMIO-HG)", f.name());
        break;
    default:
        if (w.dedicatedOnly)
            tracef("%s (MMIO-HG Dedicate)", f.name());
        else
            tracef("%s (MMIO-HG)", f.name());
        break;
    }
    if (qmx_EFIDrvOption(ind, &w.efiValue, 1, w.efiOffset) != 0) return f.fail();
    return f.ok();
}

}  // namespace qmx::params

using namespace qmx::params;

namespace {

constexpr const char *kConfFile = "/etc/qmxldd.conf";
// The driver's sysfs attribute takes the file in one write of less than a page.
constexpr long kSysfsFileLimit = 4096;

}  // namespace

QMX_STATUS QMX_GetConnectionType(QMX_WWN wwn, QMX_UINT8 *C_ConnectionType,
                                 QMX_UINT8 *S_ConnectionType) {
    return qmx::run("QMX_GetConnectionType", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(C_ConnectionType, "C_ConnectionType", " == NULL")) return f.fail();
        if (!f.out(S_ConnectionType, "S_ConnectionType", " == NULL")) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!queryPortInfo(f, wwn, ind, &rec, QueryTrace::Call)) return f.fail();
        *C_ConnectionType = rec.connection_type;  // as the driver reports it, unmapped
        uint8_t v = 0;
        bool efi = false;
        if (!readBootSetting(f, ind, rec, kEfiOptConnectType, QMX_CFG_CONNECTION_TYPE, &v, &efi))
            return f.fail();
        *S_ConnectionType = efi ? connectionTypeFromEfi(v) : v;
        return f.ok();
    });
}

QMX_STATUS QMX_SetConnectionType(QMX_WWN wwn, QMX_UINT8 ConnectionType) {
    // Tools that follow this call match its opening line by the text
    // "QMX_GetPackageInformation START"; the closing lines carry the call's
    // own name.
    return qmx::run("QMX_SetConnectionType", "QMX_GetPackageInformation", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (ConnectionType < 1 || ConnectionType > 3) return f.invalid("Connection type value error", "");
        BootWrite w{kEfiOptConnectType, connectionTypeToEfi(ConnectionType), true,
                    QMXBIOS_OPT_CONNECTION_TYPE, qmx_bios_param{}};
        w.bp.connect_type = ConnectionType;
        return writeBootSetting(f, wwn, ind, w);
    });
}

QMX_STATUS QMX_GetPortSpeed(QMX_WWN wwn, QMX_UINT8 *C_portspeed, QMX_UINT8 *S_portspeed) {
    return qmx::run("QMX_GetPortSpeed", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(C_portspeed, "C_portspeed")) return f.fail();
        if (!f.out(S_portspeed, "S_portspeed")) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!queryPortInfo(f, wwn, ind, &rec, QueryTrace::Call)) return f.fail();
        *C_portspeed = portSpeedFromRate(rec.max_data_rate);
        // The option byte holds the API value itself, as the listing does.
        bool efi = false;
        if (!readBootSetting(f, ind, rec, kEfiOptDataRate, QMX_CFG_DATA_RATE, S_portspeed, &efi))
            return f.fail();
        return f.ok();
    });
}

QMX_STATUS QMX_SetPortSpeed(QMX_WWN wwn, QMX_UINT8 portspeed) {
    return qmx::run("QMX_SetPortSpeed", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!portSpeedValid(portspeed)) return f.invalid("portspeed");
        BootWrite w{kEfiOptDataRate, portspeed, true, QMXBIOS_OPT_DATA_RATE, qmx_bios_param{}};
        w.bp.data_rate = portspeed;
        return writeBootSetting(f, wwn, ind, w);
    });
}

QMX_STATUS QMX_GetProcInfo(QMX_WWN wwn, QMX_PROC_INFO *proc_info) {
    return qmx::run("QMX_GetProcInfo", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.notNull(proc_info, "proc_info")) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!queryPortInfo(f, wwn, ind, &rec, QueryTrace::Call)) return f.fail();
        // host_no is left as the caller set it.
        proc_info->vender_id = rec.vender_id;
        proc_info->device_id = rec.device_id;
        static_assert(sizeof proc_info->model_name == sizeof rec.model_name);
        static_assert(sizeof proc_info->driver_ver == sizeof rec.driver_ver);
        static_assert(sizeof proc_info->bus_dev_func == sizeof rec.bus_dev_func);
        std::memcpy(proc_info->model_name, rec.model_name, sizeof rec.model_name);
        std::memcpy(proc_info->driver_ver, rec.driver_ver, sizeof rec.driver_ver);
        proc_info->firmware_ver = rec.firmware_ver;
        proc_info->highconf_opt = rec.highconf_opt;
        std::memcpy(proc_info->bus_dev_func, rec.bus_dev_func, sizeof rec.bus_dev_func);
        proc_info->port_status = rec.port_status;
        proc_info->connection_type = rec.connection_type;
        proc_info->max_data_rate = rec.max_data_rate;
        proc_info->login_delay = rec.login_delay;
        return f.ok();
    });
}

int QMX_JudgeMlpfMode(QMX_WWN wwn) {
    int result = -1;
    qmx::run("QMX_JudgeMlpfMode", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!queryPortInfo(f, wwn, ind, &rec, QueryTrace::Call)) return f.fail();
        result = mlpfClass(rec.mlpf_mode);
        return f.ok();
    });
    return result;
}

int QMX_SysFsFileCopy(QMX_WWN wwn) {
    return qmx::run("QMX_SysFsFileCopy", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!queryPortInfo(f, wwn, ind, &rec, QueryTrace::Call)) return f.fail();
        qmx::ConfReadGuard guard;  // held while the file is read
        if (!guard.acquire(kConfFile)) {
            qmx::sysError(guard.error().call, guard.error().err);
            return f.fail();
        }
        FILE *in = guard.open(kConfFile);
        if (in == nullptr) {
            qmx::sysError("qmxldd.conf open", errno);
            return f.fail();
        }
        long size = -1;
        if (std::fseek(in, 0, SEEK_END) == 0) size = std::ftell(in);
        if (size < 0) {
            qmx::sysError("fseek", errno);
            std::fclose(in);
            return f.fail();
        }
        if (size >= kSysfsFileLimit) {
            std::fclose(in);
            qmx::setError(QMX_ERR_SIZE_LIMIT);
            qmx::tracef("conf file size %ld byte too big", size);
            return f.fail();
        }
        std::rewind(in);
        char path[96];
        std::snprintf(path, sizeof path, "/sys/class/scsi_host/host%d/qmxldd_conf",
                      int(rec.host_no));
        // The attribute takes the file in exactly one write(2): a stream
        // would write again from its buffer when closed after a refused
        // write.
        int out = open(path, O_WRONLY | O_TRUNC | O_CLOEXEC);
        if (out < 0) {
            // The attribute's path goes to the trace (it names the host the
            // driver registered); the failure itself to the system log.
            int err = errno;
            qmx::trace(path);
            qmx::sysError("sysfs open", err);
            std::fclose(in);
            return f.fail();
        }
        // Nothing past the measured size is sent, even if the file grows
        // meanwhile; a file that shrank gives a short read.
        std::size_t n = std::size_t(size);
        char *buf = static_cast<char *>(std::calloc(n + 1, 1));
        bool good = buf != nullptr;
        if (!good) qmx::sysError("calloc", errno);
        if (good && std::fread(buf, 1, n, in) != n) {
            qmx::sysError("fread", errno);
            good = false;
        }
        if (good && write(out, buf, n) != ssize_t(n)) {
            qmx::sysError("fwrite", errno);
            good = false;
        }
        std::free(buf);
        std::fclose(in);
        close(out);
        return good ? f.ok() : f.fail();
    });
}

int QMX_DriverParamReflection(QMX_WWN wwn) {
    return qmx::run("QMX_DriverParamReflection", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        // The request carries no record: the driver re-reads its parameters.
        if (QMX_CallDriver(wwn, ind, int(IOCTL_QMX_READ_APPARAM), nullptr) != 0) {
            f.requestFailed("IOCTL_QMX_READ_APPARAM");
            return f.fail();
        }
        return f.ok();
    });
}
