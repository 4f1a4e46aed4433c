// Port parameters held by the adapter's boot firmware: the login delay and
// the spin-up delay.  Their setting values are read and written through the
// BIOS tool, or, for the login delay of a partitioned port, through the EFI
// driver option area.  Neither setter takes the configuration lock.
#include <cstring>

#include "bios/bios.h"
#include "frame/frame.h"
#include "params/param_table.h"
#include "params/params.h"

using namespace qmx::params;

namespace {

// Login delay in the EFI option area: bit 7 marks a value as set.
constexpr uint8_t kEfiLoginDelaySet = 0x80;
constexpr uint32_t kLoginDelayNotSet = 255;

}  // namespace

QMX_STATUS QMX_GetLoginDelayTime(QMX_WWN wwn, QMX_UINT32 *C_delaytime, QMX_UINT32 *S_delaytime) {
    const PortParam &p = param(Id::LoginDelayTime);
    return qmx::run(p.getName, [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(C_delaytime, p.cArg, p.cNull)) return f.fail();
        if (!f.out(S_delaytime, p.sArg, p.sNull)) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!queryPortInfo(f, wwn, ind, &rec, QueryTrace::Call)) return f.fail();
        *C_delaytime = rec.login_delay;
        uint8_t v = 0;
        bool efi = false;
        if (!readBootSetting(f, ind, rec, kEfiOptLoginDelay, QMX_CFG_LOGIN_DELAY, &v, &efi))
            return f.fail();
        if (efi)
            *S_delaytime = (v & kEfiLoginDelaySet) ? QMX_UINT32(v & 0x7F) : kLoginDelayNotSet;
        else
            *S_delaytime = v;  // 255: the tool's default
        return f.ok();
    });
}

QMX_STATUS QMX_SetLoginDelayTime(QMX_WWN wwn, QMX_UINT32 delaytime, int del) {
    const PortParam &p = param(Id::LoginDelayTime);
    return qmx::run(p.setName, [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        // A delete stands for the firmware's default (-1 to the BIOS tool, a
        // cleared option byte in the EFI option area).
        int value = -1;
        if (checksValue(p, del)) {
            if (!accepts(p.range, int64_t(delaytime))) return f.invalid(p.word);
            value = int(delaytime);
        }
        // Every partitioned port, shared or dedicated, keeps it in the option
        // area.
        BootWrite w{kEfiOptLoginDelay,
                    uint8_t(del == 0 ? (uint8_t(value) | kEfiLoginDelaySet) : 0), false,
                    QMXBIOS_OPT_LOGIN_DELAY, qmx_bios_param{}};
        w.bp.login_delay = value;
        return writeBootSetting(f, wwn, ind, w);
    });
}

QMX_STATUS QMX_GetSpinupDelay(QMX_WWN wwn, QMX_SPINUP *C_spinupdelay, QMX_SPINUP *S_spinupdelay) {
    const PortParam &p = param(Id::SpinupDelay);
    return qmx::run(p.getName, [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(C_spinupdelay, p.cArg, p.cNull)) return f.fail();
        if (!f.out(S_spinupdelay, p.sArg, p.sNull)) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!queryPortInfo(f, wwn, ind, &rec, QueryTrace::Call)) return f.fail();
        int64_t cur = 0;
        currentFrom(p, reinterpret_cast<const unsigned char *>(&rec), sizeof rec, &cur);
        *C_spinupdelay = QMX_SPINUP(cur);
        // Only the BIOS tool keeps the spin-up delay, partitioned or not.
        if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
        *S_spinupdelay = qmx_CfgListByte(QMX_CFG_SPINUP_DELAY);
        return f.ok();
    });
}

QMX_STATUS QMX_SetSpinupDelay(QMX_WWN wwn, QMX_SPINUP spinupdelay) {
    const PortParam &p = param(Id::SpinupDelay);
    return qmx::run(p.setName, [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!accepts(p.range, int64_t(spinupdelay))) return f.invalid(p.word);
        qmx_bios_param bp{};
        bp.status = int(spinupdelay);
        if (qmx_ExecQmxbios(ind, QMXBIOS_OPT_SPINUP_DELAY, &bp) != 0) return f.fail();
        return f.ok();
    });
}
