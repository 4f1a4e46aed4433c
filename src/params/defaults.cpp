// Calls that act on the parameter set as a whole: the driver-wide defaults
// record, the boot firmware's force-default-parameter switch, and the
// driver requests that rescan targets and disks and take changed parameters
// into use.
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

#include "bios/bios.h"
#include "config/config.h"
#include "frame/frame.h"
#include "params/hostinfo.h"

namespace qmx::hostinfo {

namespace {

// How a file value is stored: as it is, or mapped.
enum class Map : uint8_t {
    None,
    Isolate,  // 0 -> 2, 1 -> 1, anything else -1
    Flag,     // 0 and 1 kept, anything else -1
};

struct DefaultField {
    const char *key;  // driver-wide key, nullptr: never filled
    std::size_t offset;
    std::size_t width;
    int preset;
    Map map;
};

#define QMX_DEFAULT(member, key, preset, map)                                          \
    DefaultField {                                                                     \
        key, offsetof(QMX_ALL_DEF_PARAM, member), sizeof(QMX_ALL_DEF_PARAM::member), \
            preset, Map::map                                                           \
    }

const DefaultField kFields[] = {
    QMX_DEFAULT(maxTransfer, "qmx_max_transfer", 0, None),
    QMX_DEFAULT(linkDown, "qmx_link_down", -1, None),
    QMX_DEFAULT(resetDelay, "qmx_reset_delay", -1, None),
    QMX_DEFAULT(mckRetry, "qmx_mck_retry", -1, None),
    QMX_DEFAULT(preferred, "qmx_preferred_alpa", 0, None),
    QMX_DEFAULT(resetTmo, "qmx_reset_timeout", -1, None),
    QMX_DEFAULT(abortTmo, "qmx_abort_timeout", -1, None),
    QMX_DEFAULT(queueDepth, "qmx_queue_depth", 0, None),
    QMX_DEFAULT(scsiAllowed, "qmx_scsi_allowed", -1, None),
    QMX_DEFAULT(scatterGather, nullptr, -1, None),
    QMX_DEFAULT(mscs, nullptr, -1, None),
    QMX_DEFAULT(tmtDelay, "qmx_tmt_delay", -1, None),
    QMX_DEFAULT(isolateType, "qmx_isol_type", -1, Isolate),
    QMX_DEFAULT(ldErrIntval, "qmx_ld_err_intvl", -1, None),
    QMX_DEFAULT(ldErrLimitL, "qmx_ld_err_limit_l", -1, None),
    QMX_DEFAULT(ldErrLimitS, "qmx_ld_err_limit_s", -1, None),
    QMX_DEFAULT(ifErrIntvl, "qmx_if_err_intvl", -1, None),
    QMX_DEFAULT(ifErrLimit, "qmx_if_err_limit", -1, None),
    QMX_DEFAULT(toErrIntvl, "qmx_to_err_intvl", -1, None),
    QMX_DEFAULT(toErrLimit, "qmx_to_err_limit", -1, None),
    QMX_DEFAULT(rtErrFlag, "qmx_rt_err_enable", -1, Flag),
    QMX_DEFAULT(mbLoginRetry, "qmx_login_retry", -1, None),
    QMX_DEFAULT(mbELSRetry, "qmx_els_retry", -1, None),
    QMX_DEFAULT(mbTORetry, "qmx_to_reset_retry", -1, None),
    QMX_DEFAULT(scsiCmdRetry, "qmx_scsi_to_retry", -1, None),
    QMX_DEFAULT(abortTRestrain, "qmx_abort_t_restrain", -1, Flag),
    QMX_DEFAULT(alter_path, "qmx_alter_path_num", -1, None),
    QMX_DEFAULT(offline_path, "qmx_offline_path_num", -1, None),
    QMX_DEFAULT(pathchk_to, "qmx_pathchk_to", -1, None),
    QMX_DEFAULT(LUNReset, "qmx_lun_reset_delay", -1, None),
    QMX_DEFAULT(interrupt, "qmx_msi_enable", -1, None),
    QMX_DEFAULT(target_rst, "qmx_enable_tgtrst", -1, Flag),
    QMX_DEFAULT(log_mode, "qmx_limit_log", -1, None),
    QMX_DEFAULT(tgt_filter, "qmx_filter_target", -1, None),
};
#undef QMX_DEFAULT

constexpr std::string_view kRetryPrefix = "qmx_retry_cnt";

// Stores `v` into a field of 1 or 4 bytes, as C assignment narrows it.
void store(QMX_ALL_DEF_PARAM *p, const DefaultField &f, int v) noexcept {
    auto *at = reinterpret_cast<unsigned char *>(p) + f.offset;
    if (f.width == 1) {
        uint8_t b = uint8_t(v);
        std::memcpy(at, &b, 1);
    } else {
        std::memcpy(at, &v, sizeof v);
    }
}

int mapped(Map m, int v) noexcept {
    switch (m) {
        case Map::Isolate: return v == 0 ? 2 : v == 1 ? 1 : -1;
        case Map::Flag: return v == 0 || v == 1 ? v : -1;
        default: return v;
    }
}

}  // namespace

void presetDefaults(QMX_ALL_DEF_PARAM *p) noexcept {
    for (const DefaultField &f : kFields) store(p, f, f.preset);
    for (int &r : p->retryCnt) r = -1;
}

void applyDefault(QMX_ALL_DEF_PARAM *p, std::string_view key, std::string_view value) noexcept {
    // Only driver-wide keys can match; per-port keys carry a number after "qmx".
    if (!key.starts_with(kDriverWide)) return;
    int v = atoiText(value);
    if (key.starts_with(kRetryPrefix)) {
        // The error number follows the prefix; numbers outside the record's
        // 1000 entries are ignored.
        int err = atoiText(key.substr(kRetryPrefix.size()));
        if (err >= 0 && err < QMX_RETRY_CNT_ENTRIES) p->retryCnt[err] = v;
        return;
    }
    for (const DefaultField &f : kFields) {
        if (f.key != nullptr && key == f.key) {
            store(p, f, mapped(f.map, v));
            return;
        }
    }
}

}  // namespace qmx::hostinfo

namespace {

// "/dev/<device>"; false when the name does not fit a device path.
bool devicePath(const char *device, char (&path)[300]) {
    int n = std::snprintf(path, sizeof path, "/dev/%s", device);
    return n > 0 && std::size_t(n) < sizeof path;
}

// One diagnostic request on a named device.  0 / -1.
int deviceDiag(const char *device, diag_ioctl *diag) {
    char path[300];
    if (!devicePath(device, path)) {
        // The caller's name cannot name a device: a bad argument.
        qmx::trace("device name too long");
        qmx::setError(QMX_ERR_INVALID_ARG);
        return -1;
    }
    int fd = -1;
    if (open_ap(&fd, path) != 0) return -1;
    int rc = ioctl_diag(fd, int(IOCTL_QMX_DIAG0), diag);
    close_ap(&fd);
    return rc;
}

}  // namespace

QMX_STATUS QMX_GetAllTargetParam(QMX_ALL_DEF_PARAM *altg_param) {
    return qmx::run("QMX_GetAllTargetParam", [&](qmx::Frame &f) {
        if (!f.notNull(altg_param, "altg_param", " is null")) return f.fail();
        qmx::hostinfo::presetDefaults(altg_param);
        // The key list reader's read without the list: a file that cannot
        // be opened leaves the defaults as preset, any other failure fails.
        // The items fill a copy, given to the caller once the read is whole.
        QMX_ALL_DEF_PARAM record = *altg_param;
        int n = qmx::visitConfItems(
            qmx::kSystemStore.conf, qmx::kSystemStore.conf, qmx::hostinfo::kDriverWide,
            [](void *ctx, std::string_view key, std::string_view value) {
                qmx::hostinfo::applyDefault(static_cast<QMX_ALL_DEF_PARAM *>(ctx), key, value);
            },
            &record);
        if (n < 0 && n != qmx::kReadNoOpen) return f.fail();
        *altg_param = record;
        return f.ok();
    });
}

QMX_STATUS QMX_PortSettingDefaultValue(QMX_WWN wwn, QMX_UINT32 *set_flag, QMX_UINT32 flag) {
    return qmx::run("QMX_PortSettingDefaultValue", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.notNull(set_flag, "set_flag", " == NULL")) return f.fail();
        if (flag != 0 && flag != 1) return f.invalid("flag");
        if (flag == 1 && *set_flag != 0 && *set_flag != 1) return f.invalid("set_flg");
        if (flag == 0) {
            if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
            // The listing's value: 1 enabled, 2 disabled.
            *set_flag = qmx_CfgListByte(QMX_CFG_FORCE_DEFAULT);
            return f.ok();
        }
        qmx_bios_param bp{};
        bp.status = int(*set_flag);
        if (qmx_ExecQmxbios(ind, QMXBIOS_OPT_FORCE_DEFAULT, &bp) != 0) return f.fail();
        return f.ok();
    });
}

QMX_STATUS QMX_TgtScan(char *device) {
    return qmx::run("QMX_TgtScan", [&](qmx::Frame &f) {
        // A null device name is refused like any null argument.
        if (!f.notNull(device, "device")) return f.fail();
        diag_ioctl diag{};
        diag.sub_cmd = QMX_DG_TGTSCAN;
        if (deviceDiag(device, &diag) != 0) return f.fail();
        // The scan's outcome is the reason code; the call succeeds whatever
        // it is.
        switch (diag.uni.raw[0]) {
            case 0: qmx::setError(QMX_ERR_NONE); break;
            case 1: qmx::setError(QMX_ERR_TGTSCAN_1); break;
            case 2: qmx::setError(QMX_ERR_TGTSCAN_2); break;
            case 3: qmx::setError(QMX_ERR_TGTSCAN_3); break;
            default: qmx::setError(QMX_ERR_INTERNAL); break;
        }
        return f.ok();
    });
}

QMX_STATUS QMX_Reflect_ChgParam(char *device, struct diag_ioctl *diag) {
    return qmx::run("QMX_Reflect_ChgParam", [&](qmx::Frame &f) {
        if (!f.notNull(device, "device") || !f.notNull(diag, "diag")) return f.fail();
        diag->sub_cmd = QMX_DG_REFLECT;
        diag->uni.raw[1] = 1;
        // The driver's reply stays in the caller's record.
        if (deviceDiag(device, diag) != 0) return f.fail();
        return f.ok();
    });
}

QMX_STATUS QMX_DiskRescan(QMX_WWN wwn) {
    qmx::run("QMX_DiskRescan", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        char path[300];
        if (!devicePath(dev_info_all[ind].name, path)) return f.fail();
        int fd = -1;
        if (open_ap(&fd, path) != 0) return f.fail();
        uint64_t arg = 0;
        int rc = QMX_ExecIoctl(fd, int(IOCTL_QMX_SC_SCSISCAN), &arg);
        // The descriptor is closed on both paths: a failed rescan leaves no
        // open device behind.
        close_ap(&fd);
        if (rc != 0) {
            qmx::trace("IOCTL_QMX_SC_SCSISCAN");
            return f.fail();
        }
        return f.ok();
    });
    // The caller learns of a failure only from the trace.
    return 0;
}
