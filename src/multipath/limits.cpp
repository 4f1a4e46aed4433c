// Path limits: the per-port alternate and offline path counts, the
// driver-wide LU limits (alternate paths, offline paths, write retries) and
// the driver's LU path maximum.
//
// The four per-port limit pairs are rows of one mechanism: the path health
// check time-out and the target reset mode are members of the port
// parameter family (src/params); the two path counts here are rows of the
// same shape whose getters run through that family's getter, and whose
// setters add the check against the driver's LU path maximum.
#include <cerrno>
#include <cstring>

#include "multipath/mpruntime.h"
#include "params/params.h"

namespace {

using qmx::params::PortParam;
using namespace qmx::params;

// Not members of the family (no Id of their own): the driver reports no
// current value, so C_setting keeps its preset -1.
#define QMX_LIMIT_ROW(M, suffix)                                                          \
    PortParam{Id::Count, #M, "QMX_Get" #M, "QMX_Set" #M, Store::Config, Shape::Pair,      \
              suffix, Source::PortInfo, Field{0, 0, false}, Current::Untouched,               \
              Setting::Plain, true, kU32, span(1, 1), Check::UnlessDelete, -1, -1,        \
              "C_setting", "S_setting", kEqNull, kEqNull, "path_cnt", kErrorOnEngine}
constexpr PortParam kLimitAlterPath = QMX_LIMIT_ROW(LimitAlterPath, "_alter_path_num");
constexpr PortParam kLimitOfflinePath = QMX_LIMIT_ROW(LimitOfflinePath, "_offline_path_num");
#undef QMX_LIMIT_ROW

// The multipath parameters from the first discovered port.  false when it
// cannot be opened or does not answer.
bool firstPortParams(qmx_mp_parameters *mp) {
    std::memset(mp, 0, sizeof *mp);
    if (QMX_DevFind() == 5 || c_max_port <= 0) return false;
    int fd = qmx::mp::openPort(0);
    if (fd < 0) return false;
    int rc = qmx::mp::systemChannel().request(fd, IOCTL_QMX_MP_RDPARM, mp);
    close_ap(&fd);
    return rc == 0;
}

QMX_STATUS setLimit(const PortParam &p, QMX_WWN wwn, int count, int del) noexcept {
    return qmx::run(p.setName, [&](qmx::Frame &f) {
        qmx_mp_parameters mp;
        if (!firstPortParams(&mp)) {
            qmx::trace("IOCTL_QMX_MP_RDPARM");
            // The unsupported status alone does not say why: the driver's
            // refusal is kept as the reason.
            if (QMX_LastErrorCode() == 0) qmx::setError(QMX_ERR_DRIVER);
            qmx::releaseOwnLock(1);  // released although not yet taken
            return f.unsupported();
        }
        if (!f.lock()) return f.status();
        bool found = true;
        int ind = f.setterPort(wwn, &found);
        if (!found) return f.fail();
        if (checksValue(p, del) && !accepts(span(1, mp.mp_max_lu_path), count)) return f.invalid(p.word);
        if (QMX_SetUtilValue(wwn, ind, const_cast<char *>(p.suffix), -1, &count, del) != 0) return f.fail();
        return f.ok();
    });
}

// The driver-wide LU limits: key, accepted values, refusal word.
struct LuLimit {
    const char *name;
    const char *suffix;
    int lo, hi;
    const char *word;
};
constexpr LuLimit kAlter{"QMX_SetAlterPath", "mp_alter_path", 1, 8, "alter path"};
constexpr LuLimit kOffline{"QMX_SetOfflinePath", "mp_offline_path", 1, 8, "offline path"};
constexpr LuLimit kPanic{"QMX_SetKernelPanicCount", "mp_write_retries", 1, 126, "kernel panic count"};

QMX_STATUS setLuLimit(const LuLimit &l, int value, int del) noexcept {
    return qmx::run(l.name, [&](qmx::Frame &f) {
        if (!f.lock()) return f.status();
        if (del != 1 && (value < l.lo || value > l.hi)) return f.invalid(l.word);
        if (QMX_SetUtilValue(wwn_all_zero, -1, const_cast<char *>(l.suffix), -1, &value, del) != 0)
            return f.fail();
        return f.ok();
    });
}

}  // namespace

QMX_STATUS QMX_GetLimitAlterPath(QMX_WWN wwn, int *C_setting, int *S_setting) {
    return getPair(kLimitAlterPath, wwn, C_setting, S_setting);
}
QMX_STATUS QMX_SetLimitAlterPath(QMX_WWN wwn, int path_cnt, int del) {
    return setLimit(kLimitAlterPath, wwn, path_cnt, del);
}
QMX_STATUS QMX_GetLimitOfflinePath(QMX_WWN wwn, int *C_setting, int *S_setting) {
    return getPair(kLimitOfflinePath, wwn, C_setting, S_setting);
}
QMX_STATUS QMX_SetLimitOfflinePath(QMX_WWN wwn, int path, int del) {
    return setLimit(kLimitOfflinePath, wwn, path, del);
}

QMX_STATUS QMX_SetAlterPath(int alter, int del) { return setLuLimit(kAlter, alter, del); }
QMX_STATUS QMX_SetOfflinePath(int offline, int del) { return setLuLimit(kOffline, offline, del); }
QMX_STATUS QMX_SetKernelPanicCount(int panic, int del) { return setLuLimit(kPanic, panic, del); }

QMX_STATUS QMX_GetLuIDInfoFromConf(QMX_LUID_INFO *info) {
    return qmx::run("QMX_GetLuIDInfoFromConf", [&](qmx::Frame &f) {
        if (!f.lock()) return f.status();
        // A setting that is not stored reads as 0.
        if (!f.out(info, "info", " == NULL")) return f.fail();
        static constexpr struct {
            const LuLimit *limit;
            QMX_UINT8 QMX_LUID_INFO::*field;
            const char *err;
        } kReads[] = {
            {&kAlter, &QMX_LUID_INFO::alter, "GetUnilValue(alter) Err"},
            {&kOffline, &QMX_LUID_INFO::offline, "GetUnilValue(offline) Err"},
            {&kPanic, &QMX_LUID_INFO::panic, "GetUnilValue(panic) Err"},
        };
        for (const auto &r : kReads) {
            int v = 0;
            if (QMX_GetUtilValue(wwn_all_zero, -1, const_cast<char *>(r.limit->suffix), -1, &v) != 0) {
                qmx::trace(r.err);
                return f.fail();
            }
            info->*r.field = QMX_UINT8(v);
        }
        return f.ok();
    });
}

int QMX_GetMaxLuPath(void) {
    constexpr int kDefault = 8;  // every failure reports the driver's default
    int result = kDefault;
    qmx::run("QMX_GetMaxLuPath", [&](qmx::Frame &f) {
        if (QMX_DevFind() == 5 || c_max_port <= 0) {
            qmx::setError(QMX_ERR_DRIVER);  // no port to ask
            return f.fail();
        }
        for (int i = 0; i < c_max_port && i < kMaxPorts; ++i) {
            int fd = qmx::mp::openPort(i);
            if (fd < 0) return f.fail();  // an open failure ends the search
            qmx_mp_parameters mp;
            std::memset(&mp, 0, sizeof mp);
            int rc = qmx::mp::systemChannel().request(fd, IOCTL_QMX_MP_RDPARM, &mp);
            close_ap(&fd);
            if (rc == 0) {
                result = int(mp.mp_max_lu_path);
                return f.ok();
            }
        }
        return f.fail(7);
    });
    return result;
}
