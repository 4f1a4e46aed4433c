// Boot BIOS settings of a port: BIOS on/off, boot priority and the boot
// device list.  Each call wraps one run of the BIOS tool; the runner takes
// the exclusive lock, so these calls take none themselves.
#include <cstring>

#include "bios/bios.h"
#include "frame/frame.h"

QMX_STATUS qmx_GetListedOnOff(const char *name, QMX_WWN wwn, QMX_UINT32 *out, const char *arg,
                              int entry) {
    return qmx::run(name, [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(out, arg, " == NULL")) return f.fail();
        if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
        *out = qmx_CfgListByte(entry);
        return f.ok();
    });
}

QMX_STATUS qmx_SetOnOffOption(const char *name, QMX_WWN wwn, QMX_UINT32 value, const char *arg,
                              int option) {
    return qmx::run(name, [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (value != 0 && value != 1) return f.invalid(arg);
        qmx_bios_param p{};
        p.status = int(value);
        if (qmx_ExecQmxbios(ind, option, &p) != 0) return f.fail();
        return f.ok();
    });
}

QMX_STATUS QMX_GetHBABiosSetting(QMX_WWN wwn, QMX_BIOSSETTING *S_biossetting) {
    return qmx_GetListedOnOff("QMX_GetHBABiosSetting", wwn, S_biossetting, "S_biossetting",
                     QMX_CFG_HBA_BIOS);
}

QMX_STATUS QMX_GetBootPriority(QMX_WWN wwn, QMX_BOOTPRIORITY *S_bootpriority) {
    return qmx_GetListedOnOff("QMX_GetBootPriority", wwn, S_bootpriority, "S_bootpriority",
                     QMX_CFG_BOOT_PRIORITY);
}

QMX_STATUS QMX_SetHBABiosSetting(QMX_WWN wwn, QMX_BIOSSETTING biossetting) {
    return qmx_SetOnOffOption("QMX_SetHBABiosSetting", wwn, biossetting, "biossetting", QMXBIOS_OPT_BIOS);
}

QMX_STATUS QMX_SetBootPriority(QMX_WWN wwn, QMX_BOOTPRIORITY bootpriority) {
    return qmx_SetOnOffOption("QMX_SetBootPriority", wwn, bootpriority, "bootpriority",
                    QMXBIOS_OPT_BOOT_PRIORITY);
}

QMX_STATUS QMX_GetBootPriorityList(QMX_WWN wwn, QMX_BOOTPRIORITYLIST *S_bootprioritylist) {
    return qmx::run("QMX_GetBootPriorityList", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(S_bootprioritylist, "S_bootprioritylist", " == NULL")) return f.fail();
        if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
        for (int i = 0; i < kBootPriorityRows; ++i) {
            QMX_BOOTDEVICEINFO &e = S_bootprioritylist->entry[i];
            // PortWWN.wwn[0] is the most significant byte of the listed number.
            getWWN(QMX_G_BootPriority[i].wwn, &e.PortWWN);
            e.lun = QMX_UINT32(QMX_G_BootPriority[i].lun);
        }
        return f.ok();
    });
}

QMX_STATUS QMX_SetBootPriorityList(QMX_WWN wwn, QMX_BOOTPRIORITYLIST bootprioritylist) {
    return qmx::run("QMX_SetBootPriorityList", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        qmx_bios_param p{};
        for (int i = 0; i < kBootPriorityRows; ++i) {
            const QMX_BOOTDEVICEINFO &e = bootprioritylist.entry[i];
            std::memcpy(p.boot_pri[i].wwn, e.PortWWN.wwn, sizeof p.boot_pri[i].wwn);
            if (e.lun > 65535u) return f.invalid("Invalid LUN number", "");
            p.boot_pri[i].lun = e.lun;
        }
        if (qmx_ExecQmxbios(ind, QMXBIOS_OPT_BOOT_DEVICE, &p) != 0) return f.fail();
        return f.ok();
    });
}
