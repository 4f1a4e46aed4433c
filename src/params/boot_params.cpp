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

// The port information record; a failure traces the request and the
// call's own "Error" line (getters) or the channel's (setters).
bool portInfo(qmx::Frame &f, QMX_WWN wwn, int ind, qmx_ioctl_proc_info *rec, bool setter) {
    std::memset(rec, 0, sizeof *rec);
    if (QMX_CallDriver(wwn, ind, int(IOCTL_QMX_SC_PRINFO), rec) == 0) return true;
    if (setter) {
        qmx::trace("IOCTL_QMX_SC_PRINFO");
        qmx::trace("QMX_CallDriver Error");
    } else {
        f.requestFailed("IOCTL_QMX_SC_PRINFO");
    }
    return false;
}

// The low byte of a decoded setting of the BIOS tool's configuration listing.
uint8_t listingByte(int index) { return uint8_t(QMX_G_CfgList[index].param_val & 0xFFu); }

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
        *C_delaytime = QMX_UINT32(p.initC);
        if (!f.out(S_delaytime, p.sArg, p.sNull)) return f.fail();
        *S_delaytime = QMX_UINT32(p.initS);
        qmx_ioctl_proc_info rec;
        if (!portInfo(f, wwn, ind, &rec, false)) return f.fail();
        *C_delaytime = rec.login_delay;
        if (rec.mlpf_mode & kMlpfPartitioned) {
            qmx::tracef("%s (MMIO-HG)", p.getName);
            unsigned char opt = 0;
            if (qmx_EFIDrvOption(ind, &opt, 0, kEfiOptLoginDelay) != 0) return f.fail();
            *S_delaytime = (opt & kEfiLoginDelaySet) ? QMX_UINT32(opt & 0x7F) : kLoginDelayNotSet;
        } else {
            if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
            *S_delaytime = listingByte(QMX_CFG_LOGIN_DELAY);
        }
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
        qmx_ioctl_proc_info rec;
        if (!portInfo(f, wwn, ind, &rec, true)) return f.fail();
        if (rec.mlpf_mode & kMlpfPartitioned) {
            qmx::tracef("%s (MMIO-HG)", p.setName);
            unsigned char opt = del == 0 ? uint8_t(uint8_t(value) | kEfiLoginDelaySet) : 0;
            if (qmx_EFIDrvOption(ind, &opt, 1, kEfiOptLoginDelay) != 0) return f.fail();
            return f.ok();
        }
        qmx_bios_param bp{};
        bp.login_delay = value;
        if (qmx_ExecQmxbios(ind, QMXBIOS_OPT_LOGIN_DELAY, &bp) != 0) return f.fail();
        return f.ok();
    });
}

QMX_STATUS QMX_GetSpinupDelay(QMX_WWN wwn, QMX_SPINUP *C_spinupdelay, QMX_SPINUP *S_spinupdelay) {
    const PortParam &p = param(Id::SpinupDelay);
    return qmx::run(p.getName, [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(C_spinupdelay, p.cArg, p.cNull)) return f.fail();
        *C_spinupdelay = QMX_SPINUP(p.initC);
        if (!f.out(S_spinupdelay, p.sArg, p.sNull)) return f.fail();
        *S_spinupdelay = QMX_SPINUP(p.initS);
        qmx_ioctl_proc_info rec;
        if (!portInfo(f, wwn, ind, &rec, false)) return f.fail();
        int64_t cur = 0;
        currentFrom(p, reinterpret_cast<const unsigned char *>(&rec), sizeof rec, &cur);
        *C_spinupdelay = QMX_SPINUP(cur);
        if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
        *S_spinupdelay = listingByte(QMX_CFG_SPINUP_DELAY);
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
