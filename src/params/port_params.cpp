// The port parameter family: one getter and one setter implementation driven
// by the member rows of param_table.h, and the exported entry points.
#include <cstring>
#include <type_traits>

#include "config/config.h"
#include "frame/frame.h"
#include "params/param_table.h"
#include "params/params.h"

namespace qmx::params {

namespace {

// Both driver records a member can be answered from.
union DriverRecord {
    qmx_ioctl_proc_info port;
    qmx_isol_info isol;
};

struct Query {
    const unsigned char *bytes = nullptr;
    std::size_t size = 0;
};

// Issues the query that answers the member's current value.  On a failure
// the request's name and "<call> Error" are traced.
bool queryDriver(Frame &f, const PortParam &p, QMX_WWN wwn, int ind, DriverRecord &rec,
                 Query *q) {
    std::memset(&rec, 0, sizeof rec);
    switch (p.source) {
    case Source::None: return true;
    case Source::PortInfo:
        if (!queryPortInfo(f, wwn, ind, &rec.port, QueryTrace::Call)) return false;
        q->bytes = reinterpret_cast<const unsigned char *>(&rec.port);
        q->size = sizeof rec.port;
        return true;
    case Source::Isolation:
        rec.isol.set_opr = 0;  // read
        if (QMX_CallDriver(wwn, ind, int(IOCTL_QMX_HBA_ISOLATION), &rec.isol) != 0) {
            f.requestFailed("IOCTL_QMX_HBA_ISOLATION");
            return false;
        }
        q->bytes = reinterpret_cast<const unsigned char *>(&rec.isol);
        q->size = sizeof rec.isol;
        return true;
    }
    return false;
}

// The current value of the member from its record; an isolation type the
// library does not know fails the call with code 1.
bool currentValue(const PortParam &p, const Query &q, int64_t *value) {
    if (currentFrom(p, q.bytes, q.size, value)) return true;
    if (p.current == Current::IsolType) {
        trace("IOCTL_QMX_HBA_ISOLATION");
        trace("Get isolation type illegal value.");
    }
    setError(QMX_ERR_SYSTEM);
    return false;
}

// Stores a value into an output of the member's API type.
void put(const PortParam &p, void *out, int64_t v) noexcept {
    if (p.valueBytes == 1) {
        uint8_t b = uint8_t(v);
        std::memcpy(out, &b, 1);
    } else {
        uint32_t w = uint32_t(v);
        std::memcpy(out, &w, 4);
    }
}

int32_t get32(const void *in) noexcept {
    int32_t v;
    std::memcpy(&v, in, 4);
    return v;
}

// Output pointer check in parameter order, presetting each output at once.
bool presetOut(Frame &f, const PortParam &p, void *out, const char *arg, const char *suffix,
               int32_t preset) {
    if (!f.notNull(out, arg, suffix)) return false;
    put(p, out, preset);
    return true;
}

char *key(const PortParam &p) { return const_cast<char *>(p.suffix); }

}  // namespace

QMX_STATUS getPair(const PortParam &p, QMX_WWN wwn, void *C, void *S) noexcept {
    return run(p.getName, [&](Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!presetOut(f, p, C, p.cArg, p.cNull, p.initC)) return f.fail();
        if (!presetOut(f, p, S, p.sArg, p.sNull, p.initS)) return f.fail();
        DriverRecord rec;
        Query q;
        if (!queryDriver(f, p, wwn, ind, rec, &q)) return f.fail();
        int64_t cur = 0;
        if (!currentValue(p, q, &cur)) return f.fail();
        if (p.current != Current::Untouched) put(p, C, cur);
        if (QMX_GetUtilValue(wwn, ind, key(p), -1, S) != 0) {
            if (p.quirks & kErrorOnEngine) f.requestFailed(nullptr);
            return f.fail();
        }
        if (p.valueBytes == 4) put(p, S, mapSetting(p, get32(S)));
        return f.ok();
    });
}

QMX_STATUS getCurrent(const PortParam &p, QMX_WWN wwn, void *C) noexcept {
    return run(p.getName, [&](Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!presetOut(f, p, C, p.cArg, p.cNull, p.initC)) return f.fail();
        DriverRecord rec;
        Query q;
        if (!queryDriver(f, p, wwn, ind, rec, &q)) return f.fail();
        int64_t cur = 0;
        if (!currentValue(p, q, &cur)) return f.fail();
        put(p, C, cur);
        return f.ok();
    });
}

QMX_STATUS setValue(const PortParam &p, QMX_WWN wwn, int64_t value, int del,
                    const Range &range) noexcept {
    return run(p.setName, [&](Frame &f) {
        if ((p.quirks & kResolveBeforeLock) && !isAllZero(wwn) && QMX_InitRoutine(wwn) < 0) {
            // This member resolves the port once before taking the lock and
            // releases the lock on this path although it does not hold it yet
            // (traced; a lock another process holds is left to it).
            releaseOwnLock(1);
            return f.fail();
        }
        if (!f.lock()) return f.status();
        bool found = true;
        int ind = f.setterPort(wwn, &found);
        if (!found) return f.fail();
        if (checksValue(p, del) && !accepts(range, value)) return f.invalid(p.word);
        // The engine takes the value in the member's API type.
        int32_t word = int32_t(uint32_t(value));
        uint8_t byte = uint8_t(value);
        void *setval = p.valueBytes == 1 ? static_cast<void *>(&byte) : static_cast<void *>(&word);
        if ((p.quirks & kWholeAdapter) && ind >= 0) {
            // Every function of the same adapter (same PCI bus and device)
            // gets the value, each under its own WWN and instance number.
            const dev_info &self = dev_info_all[ind];
            const uint8_t bus = self.bus, dev = self.dev;
            for (int i = 0; i < c_max_port && i < kMaxPorts; ++i) {
                if (dev_info_all[i].bus != bus || dev_info_all[i].dev != dev) continue;
                QMX_WWN each;
                getWWN(dev_info_all[i].wwn, &each);
                if (QMX_SetUtilValue(each, i, key(p), -1, setval, del) != 0) return f.fail();
            }
            return f.ok();
        }
        if (QMX_SetUtilValue(wwn, ind, key(p), -1, setval, del) != 0) return f.fail();
        return f.ok();
    });
}

QMX_STATUS getThresholds(const PortParam &p, QMX_WWN wwn, int *C, int *S) noexcept {
    return run(p.getName, [&](Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.notNull(C, p.cArg, p.cNull)) return f.fail();
        std::memset(C, 0xFF, sizeof(int) * kThresholdEntries);
        if (!f.notNull(S, p.sArg, p.sNull)) return f.fail();
        std::memset(S, 0xFF, sizeof(int) * kThresholdEntries);
        DriverRecord rec;
        Query q;
        if (!queryDriver(f, p, wwn, ind, rec, &q)) return f.fail();
        static_assert(sizeof rec.isol.retry_cnt / sizeof rec.isol.retry_cnt[0] >= kThresholdEntries);
        for (int i = 0; i < kThresholdEntries; ++i) C[i] = rec.isol.retry_cnt[i];
        // One read of the configuration file answers every entry; each
        // lookup is traced as the engine's lookup of one key.
        UtilLookups lookups(kSystemStore);
        for (int i = 0; i < kThresholdEntries; ++i) {
            int stored = -1;
            if (lookups.get(wwn, ind, key(p), i, &stored) != 0) return f.fail();
            S[i] = stored;
        }
        return f.ok();
    });
}

QMX_STATUS setThreshold(const PortParam &p, QMX_WWN wwn, int err_id, int threshold,
                        int del) noexcept {
    return run(p.setName, [&](Frame &f) {
        if (!f.lock()) return f.status();
        bool found = true;
        int ind = f.setterPort(wwn, &found);
        if (!found) return f.fail();
        if (checksValue(p, del) && !accepts(p.range, threshold)) return f.invalid(p.word);
        if (err_id < 0 || err_id >= kThresholdEntries) return f.invalid("err_id");
        if (QMX_SetUtilValue(wwn, ind, key(p), err_id, &threshold, del) != 0) return f.fail();
        return f.ok();
    });
}

QMX_STATUS unsupported(const PortParam &p, bool getter) noexcept {
    // Only the frame's opening and the UNSUPPORTED line: no port lookup, no
    // END or ABEND line, the outputs are left alone.
    const char *name = getter ? p.getName : p.setName;
    QMX_G_ERROR_CD = QMX_ERR_NONE;
    if (QMX_OpenApiTraceFile() == nullptr)
        QMX_WriteSyslog(2, const_cast<char *>("Trace File Open Error"));
    tracef("%s START", name);
    tracef("%s UNSUPPORTED", name);
    QMX_CloseApiTraceFile();
    return 1;
}

}  // namespace qmx::params

// ---------------------------------------------------------------------------
// Exported entry points.  Each checks at compile time that its API type has
// the size and signedness its row declares.
// ---------------------------------------------------------------------------
namespace {
using namespace qmx::params;

template <class T>
constexpr bool fits(Id id) {
    return sizeof(T) == param(id).valueBytes && std::is_signed_v<T> == param(id).isSigned;
}
template <class T>
int64_t widen(T v) {
    return static_cast<int64_t>(v);
}
}  // namespace

#define QMX_PARAM_PAIR(M, T)                                                           \
    static_assert(fits<T>(Id::M) && param(Id::M).shape == Shape::Pair &&               \
                  param(Id::M).store == Store::Config);                                \
    QMX_STATUS QMX_Get##M(QMX_WWN wwn, T *C, T *S) {                                   \
        return getPair(param(Id::M), wwn, C, S);                                       \
    }                                                                                  \
    QMX_STATUS QMX_Set##M(QMX_WWN wwn, T value, int del) {                             \
        return setValue(param(Id::M), wwn, widen(value), del, param(Id::M).range);    \
    }

QMX_PARAM_PAIR(MaxTransferSize, QMX_TRANSFERSIZE)
QMX_PARAM_PAIR(QueueDepthCount, QMX_UINT32)
QMX_PARAM_PAIR(LinkDownTime, QMX_UINT32)
QMX_PARAM_PAIR(ResetDelayTime, QMX_UINT32)
QMX_PARAM_PAIR(ResetTimeOut, QMX_UINT32)
QMX_PARAM_PAIR(AbortTimeOut, QMX_UINT32)
QMX_PARAM_PAIR(MckRetryCnt, int)
QMX_PARAM_PAIR(ScsiAllowedCnt, int)
QMX_PARAM_PAIR(ScsiDelayTime, int)
QMX_PARAM_PAIR(AbortTaskRestrain, int)
QMX_PARAM_PAIR(LunResetDelay, int)
QMX_PARAM_PAIR(InterruptType, int)
QMX_PARAM_PAIR(TargetResetMode, int)
QMX_PARAM_PAIR(PathHealthCheckTO, int)
QMX_PARAM_PAIR(PreferredALPANumber, QMX_PREFERREDALPA)
QMX_PARAM_PAIR(IsolateSetting, int)
QMX_PARAM_PAIR(LinkDownWatch, int)
QMX_PARAM_PAIR(LinkDownCountLT, int)
QMX_PARAM_PAIR(LinkDownCountST, int)
QMX_PARAM_PAIR(FcIfWatch, int)
QMX_PARAM_PAIR(FcIfThreshold, int)
QMX_PARAM_PAIR(ScsiTimeoutWatch, int)
QMX_PARAM_PAIR(ScsiTimeoutThreshold, int)
QMX_PARAM_PAIR(ScsiResetError, int)
QMX_PARAM_PAIR(MbLoginRetry, int)
QMX_PARAM_PAIR(MbELSRetry, int)
QMX_PARAM_PAIR(ScsiCmdRetry, int)
#undef QMX_PARAM_PAIR

// The time-out retry count takes its bounds from the caller.
static_assert(fits<int>(Id::MbTimeoutRetry) && (param(Id::MbTimeoutRetry).quirks & kCallerBounds));
QMX_STATUS QMX_GetMbTimeoutRetry(QMX_WWN wwn, int *C_settingval, int *S_settingval) {
    return getPair(param(Id::MbTimeoutRetry), wwn, C_settingval, S_settingval);
}
QMX_STATUS QMX_SetMbTimeoutRetry(QMX_WWN wwn, int settingval, int del, int min_val,
                                 int max_val) {
    return setValue(param(Id::MbTimeoutRetry), wwn, settingval, del, span(min_val, max_val));
}

static_assert(param(Id::PassChangeThreshold).shape == Shape::Thresholds);
QMX_STATUS QMX_GetPassChangeThreshold(QMX_WWN wwn, int *C_threshold, int *S_threshold) {
    return getThresholds(param(Id::PassChangeThreshold), wwn, C_threshold, S_threshold);
}
QMX_STATUS QMX_SetPassChangeThreshold(QMX_WWN wwn, int err_id, int threshold, int del) {
    return setThreshold(param(Id::PassChangeThreshold), wwn, err_id, threshold, del);
}

// Driver-wide switches: the current value of a port, the setting of the
// whole driver.
#define QMX_PARAM_SWITCH(M)                                                            \
    static_assert(fits<int>(Id::M) && param(Id::M).shape == Shape::CurrentOnly);       \
    QMX_STATUS QMX_Get##M(QMX_WWN wwn, int *C) { return getCurrent(param(Id::M), wwn, C); } \
    QMX_STATUS QMX_Set##M(int value, int del) {                                        \
        return setValue(param(Id::M), wwn_all_zero, value, del, param(Id::M).range);   \
    }
QMX_PARAM_SWITCH(LoggingMode)
QMX_PARAM_SWITCH(TgtFilter)
#undef QMX_PARAM_SWITCH

static_assert(fits<int>(Id::ScsiTimeoutFailCount) &&
              (param(Id::ScsiTimeoutFailCount).quirks & kNoSetter));
QMX_STATUS QMX_GetScsiTimeoutFailCount(QMX_WWN wwn, int *scsitimeoout) {
    return getCurrent(param(Id::ScsiTimeoutFailCount), wwn, scsitimeoout);
}

// Members the adapters do not offer.
QMX_STATUS QMX_GetScatterGather(QMX_WWN, int *, int *) {
    return unsupported(param(Id::ScatterGather), true);
}
QMX_STATUS QMX_SetScatterGather(QMX_WWN, int, int) {
    return unsupported(param(Id::ScatterGather), false);
}
QMX_STATUS QMX_GetMSCS(int *, int *) { return unsupported(param(Id::MSCS), true); }
QMX_STATUS QMX_SetMSCS(int, int) { return unsupported(param(Id::MSCS), false); }
