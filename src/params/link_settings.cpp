// Link settings of a port (connection type, port speed; the preferred AL_PA
// is a member of the parameter family) and the port information calls that
// tell the partition mode and hand the configuration file to the driver.
//
// Connection type and port speed live in the adapter's boot firmware: the
// BIOS tool serves ports that are not partitioned; partitioned ports keep
// them in the EFI driver option area, which only a dedicated port may change.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bios/bios.h"
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

}  // namespace qmx::params

using namespace qmx::params;

namespace {

// The port information record, zeroed first.
bool portInfo(QMX_WWN wwn, int ind, qmx_ioctl_proc_info *rec) {
    std::memset(rec, 0, sizeof *rec);
    return QMX_CallDriver(wwn, ind, int(IOCTL_QMX_SC_PRINFO), rec) == 0;
}

// Setters report a failed port information query under the channel's name.
void setterQueryFailed() {
    qmx::trace("IOCTL_QMX_SC_PRINFO");
    qmx::trace("QMX_CallDriver Error");
}

uint8_t listingByte(int index) { return uint8_t(QMX_G_CfgList[index].param_val & 0xFFu); }

// Writes a link setting into the adapter's boot firmware: through the BIOS
// tool for a port that is not partitioned, into the EFI option area for a
// dedicated partition; a shared partition may not change it.
QMX_STATUS setLinkSetting(qmx::Frame &f, QMX_WWN wwn, int ind, unsigned char efiValue, int efiOffset,
                          int biosOption, qmx_bios_param bp) {
    qmx_ioctl_proc_info rec;
    if (!portInfo(wwn, ind, &rec)) {
        setterQueryFailed();
        return f.fail();
    }
    switch (mlpfClass(rec.mlpf_mode)) {
    case 1: {
        char msg[96];
        std::snprintf(msg, sizeof msg, "%s Not Support Shared FC mode", f.name());
        return f.invalid(msg, "");
    }
    case 2:
        qmx::tracef("%s (MMIO-HG Dedicate)", f.name());
        if (qmx_EFIDrvOption(ind, &efiValue, 1, efiOffset) != 0) return f.fail();
        return f.ok();
    default:
        if (qmx_ExecQmxbios(ind, biosOption, &bp) != 0) return f.fail();
        return f.ok();
    }
}

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
        if (!portInfo(wwn, ind, &rec)) {
            f.requestFailed("IOCTL_QMX_SC_PRINFO");
            return f.fail();
        }
        *C_ConnectionType = rec.connection_type;
        if (rec.mlpf_mode & kMlpfPartitioned) {
            qmx::trace("QMX_GetConnectionType (MMIO-HG)");
            unsigned char opt = 0;
            if (qmx_EFIDrvOption(ind, &opt, 0, kEfiOptConnectType) != 0) return f.fail();
            *S_ConnectionType = connectionTypeFromEfi(opt);
        } else {
            if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
            *S_ConnectionType = listingByte(QMX_CFG_CONNECTION_TYPE);
        }
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
        qmx_bios_param bp{};
        bp.connect_type = ConnectionType;
        return setLinkSetting(f, wwn, ind, connectionTypeToEfi(ConnectionType), kEfiOptConnectType,
                              QMXBIOS_OPT_CONNECTION_TYPE, bp);
    });
}

QMX_STATUS QMX_GetPortSpeed(QMX_WWN wwn, QMX_UINT8 *C_portspeed, QMX_UINT8 *S_portspeed) {
    return qmx::run("QMX_GetPortSpeed", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(C_portspeed, "C_portspeed")) return f.fail();
        if (!f.out(S_portspeed, "S_portspeed")) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!portInfo(wwn, ind, &rec)) {
            f.requestFailed("IOCTL_QMX_SC_PRINFO");
            return f.fail();
        }
        *C_portspeed = portSpeedFromRate(rec.max_data_rate);
        if (rec.mlpf_mode & kMlpfPartitioned) {
            qmx::trace("QMX_GetPortSpeed (MMIO-HG)");
            if (qmx_EFIDrvOption(ind, S_portspeed, 0, kEfiOptDataRate) != 0) return f.fail();
        } else {
            if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
            *S_portspeed = listingByte(QMX_CFG_DATA_RATE);
        }
        return f.ok();
    });
}

QMX_STATUS QMX_SetPortSpeed(QMX_WWN wwn, QMX_UINT8 portspeed) {
    return qmx::run("QMX_SetPortSpeed", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!portSpeedValid(portspeed)) return f.invalid("portspeed");
        qmx_bios_param bp{};
        bp.data_rate = portspeed;
        return setLinkSetting(f, wwn, ind, portspeed, kEfiOptDataRate, QMXBIOS_OPT_DATA_RATE, bp);
    });
}

QMX_STATUS QMX_GetProcInfo(QMX_WWN wwn, QMX_PROC_INFO *proc_info) {
    return qmx::run("QMX_GetProcInfo", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.notNull(proc_info, "proc_info")) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!portInfo(wwn, ind, &rec)) {
            f.requestFailed("IOCTL_QMX_SC_PRINFO");
            return f.fail();
        }
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
        if (!portInfo(wwn, ind, &rec)) {
            f.requestFailed("IOCTL_QMX_SC_PRINFO");
            return f.fail();
        }
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
        if (!portInfo(wwn, ind, &rec)) {
            f.requestFailed("IOCTL_QMX_SC_PRINFO");
            return f.fail();
        }
        FILE *in = std::fopen(kConfFile, "r");
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
            qmx::setError(14);
            qmx::tracef("conf file size %ld byte too big", size);
            return f.fail();
        }
        std::rewind(in);
        char path[96];
        std::snprintf(path, sizeof path, "/sys/class/scsi_host/host%d/qmxldd_conf",
                      int(rec.host_no));
        FILE *out = std::fopen(path, "w");
        if (out == nullptr) {
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
        // One write: the stream's buffer holds the whole file, and the flush
        // below hands it to the attribute at once, reporting its answer.
        if (good && (std::fwrite(buf, 1, n, out) != n || std::fflush(out) != 0)) {
            qmx::sysError("fwrite", errno);
            good = false;
        }
        std::free(buf);
        std::fclose(in);
        std::fclose(out);
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
