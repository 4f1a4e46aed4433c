#include "params.h"

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <type_traits>

namespace qmxmgr {

namespace {

using Getter = std::function<QMX_STATUS(QMX_WWN, Reading &)>;
using Setter = std::function<QMX_STATUS(QMX_WWN, long long, bool)>;

// 32-bit unsigned outputs are preset to -1 by the library when nothing is
// stored; reading them as signed keeps that visible.
template <class T>
long long widen(T v) {
    if constexpr (std::is_unsigned_v<T> && sizeof(T) == 4)
        return static_cast<int32_t>(v);
    else
        return static_cast<long long>(v);
}

template <class T>
T narrow(long long v, const std::string &name) {
    long long lo = std::is_unsigned_v<T> ? 0 : (long long)std::numeric_limits<T>::min();
    long long hi = (long long)std::numeric_limits<T>::max();
    if constexpr (std::is_unsigned_v<T> && sizeof(T) == 4) lo = INT32_MIN;  // two's complement
    if (v < lo || v > hi)
        throw UsageError("value " + std::to_string(v) + " does not fit parameter " + name);
    return static_cast<T>(v);
}

// Getter with a current and a setting value.  `notSet` is the setting value
// the library leaves when nothing is stored.
template <class T>
Getter pairGet(QMX_STATUS (*fn)(QMX_WWN, T *, T *), std::optional<long long> notSet) {
    return [fn, notSet](QMX_WWN w, Reading &r) {
        T c{}, s{};
        QMX_STATUS st = fn(w, &c, &s);
        if (st == 0) {
            r.current = widen(c);
            long long sv = widen(s);
            if (!notSet || sv != *notSet) r.setting = sv;
        }
        return st;
    };
}

// Getter with the current value only.
template <class T>
Getter currentGet(QMX_STATUS (*fn)(QMX_WWN, T *)) {
    return [fn](QMX_WWN w, Reading &r) {
        T c{};
        QMX_STATUS st = fn(w, &c);
        if (st == 0) r.current = widen(c);
        return st;
    };
}

// Setter taking the value and the delete request.
template <class T>
Setter delSet(QMX_STATUS (*fn)(QMX_WWN, T, int), std::string name) {
    return [fn, name](QMX_WWN w, long long v, bool del) {
        return fn(w, del ? T{} : narrow<T>(v, name), del ? 1 : 0);
    };
}

// Setter without a delete request (boot firmware settings).
template <class T>
Setter plainSet(QMX_STATUS (*fn)(QMX_WWN, T), std::string name) {
    return [fn, name](QMX_WWN w, long long v, bool) { return fn(w, narrow<T>(v, name)); };
}

// Driver-wide setter without a port.
template <class T>
Setter driverSet(QMX_STATUS (*fn)(T, int), std::string name) {
    return [fn, name](QMX_WWN, long long v, bool del) {
        return fn(del ? T{} : narrow<T>(v, name), del ? 1 : 0);
    };
}

// Setter with caller-given bounds: the manager passes the range that the
// other mailbox retry counts have.
template <class T>
Setter boundedSet(QMX_STATUS (*fn)(QMX_WWN, T, int, T, T), std::string name,
                  std::type_identity_t<T> lo, std::type_identity_t<T> hi) {
    return [fn, name, lo, hi](QMX_WWN w, long long v, bool del) {
        return fn(w, del ? T{} : narrow<T>(v, name), del ? 1 : 0, lo, hi);
    };
}

Param row(const char *name, const char *pair, const char *unit) {
    Param p;
    p.name = name;
    p.pairName = pair;
    p.unit = unit;
    p.getCall = std::string("QMX_Get") + pair;
    p.setCall = std::string("QMX_Set") + pair;
    return p;
}

// Port parameter pair stored in the configuration file.
template <class G, class S>
Param pairRow(const char *name, const char *pair, const char *unit, G getter, S setter,
              std::optional<long long> notSet) {
    Param p = row(name, pair, unit);
    p.get = pairGet(getter, notSet);
    p.set = delSet(setter, name);
    return p;
}
#define QMX_PAIR(name, X, unit, notSet) pairRow(name, #X, unit, QMX_Get##X, QMX_Set##X, notSet)

const std::vector<EnumName> kOnOff = {{"off", 0}, {"on", 1}};
const std::vector<EnumName> kEnableDisable = {{"on", 1}, {"off", 2}};
const std::vector<EnumName> kConnection = {{"auto", 1}, {"ptop", 2}, {"loop", 3}};
const std::vector<EnumName> kSpeed = {{"auto", 0}};

// Boot firmware setting: per port only, written without a delete request.
template <class G, class S>
Param firmwareRow(const char *name, const char *pair, const char *unit, G getter, S setter,
                  std::optional<long long> notSet, const std::vector<EnumName> &names) {
    Param p = row(name, pair, unit);
    p.get = pairGet(getter, notSet);
    p.set = plainSet(setter, name);
    p.names = names;
    p.scope = Scope::PortOnly;
    p.canUnset = false;
    return p;
}
#define QMX_FIRMWARE(name, X, unit, notSet, names) \
    firmwareRow(name, #X, unit, QMX_Get##X, QMX_Set##X, notSet, names)

// Driver-wide on/off switch: no port, current value only.
template <class G, class S>
Param driverRow(const char *name, const char *pair, G getter, S setter) {
    Param p = row(name, pair, "");
    p.get = currentGet(getter);
    p.set = driverSet(setter, name);
    p.names = kOnOff;
    p.scope = Scope::DriverOnly;
    p.hasSetting = false;
    return p;
}
#define QMX_DRIVER(name, X) driverRow(name, #X, QMX_Get##X, QMX_Set##X)

std::vector<Param> buildTable() {
    const std::optional<long long> kMinus1 = -1, kZero = 0, kUnknown = 255, kNone{};
    std::vector<Param> t;
    t.push_back(QMX_PAIR("max_transfer_size", MaxTransferSize, "MiB", kZero));
    t.push_back(QMX_PAIR("queue_depth", QueueDepthCount, "", kZero));
    t.push_back(QMX_PAIR("link_down_time", LinkDownTime, "s", kMinus1));
    t.push_back(QMX_PAIR("reset_delay_time", ResetDelayTime, "s", kMinus1));
    t.push_back(QMX_PAIR("reset_timeout", ResetTimeOut, "s", kMinus1));
    t.push_back(QMX_PAIR("abort_timeout", AbortTimeOut, "s", kMinus1));
    t.push_back(QMX_PAIR("mck_retry_count", MckRetryCnt, "", kMinus1));
    t.push_back(QMX_PAIR("scsi_allowed_count", ScsiAllowedCnt, "", kMinus1));
    t.push_back(QMX_PAIR("scsi_delay_time", ScsiDelayTime, "s", kMinus1));
    t.push_back(QMX_PAIR("abort_task_restrain", AbortTaskRestrain, "", kMinus1));
    t.back().names = kOnOff;
    t.push_back(QMX_PAIR("lun_reset_delay", LunResetDelay, "s", kMinus1));
    t.push_back(QMX_PAIR("interrupt_type", InterruptType, "", kMinus1));
    t.push_back(QMX_PAIR("target_reset_mode", TargetResetMode, "", kMinus1));
    t.back().names = kOnOff;
    t.push_back(QMX_PAIR("path_health_check_timeout", PathHealthCheckTO, "s", kMinus1));
    t.back().hasCurrent = false;  // the driver does not report it
    t.push_back(QMX_PAIR("isolate_setting", IsolateSetting, "", kMinus1));
    t.push_back(QMX_PAIR("link_down_watch", LinkDownWatch, "s", kMinus1));
    t.push_back(QMX_PAIR("link_down_count_lt", LinkDownCountLT, "", kMinus1));
    t.push_back(QMX_PAIR("link_down_count_st", LinkDownCountST, "", kMinus1));
    t.push_back(QMX_PAIR("fc_if_watch", FcIfWatch, "s", kMinus1));
    t.push_back(QMX_PAIR("fc_if_threshold", FcIfThreshold, "", kMinus1));
    t.push_back(QMX_PAIR("scsi_timeout_watch", ScsiTimeoutWatch, "s", kMinus1));
    t.push_back(QMX_PAIR("scsi_timeout_threshold", ScsiTimeoutThreshold, "", kMinus1));
    t.push_back(QMX_PAIR("scsi_reset_error", ScsiResetError, "", kMinus1));
    t.back().names = kOnOff;
    t.push_back(QMX_PAIR("mb_login_retry", MbLoginRetry, "", kMinus1));
    t.push_back(QMX_PAIR("mb_els_retry", MbELSRetry, "", kMinus1));
    {
        Param p = row("mb_timeout_retry", "MbTimeoutRetry", "");
        p.get = pairGet(QMX_GetMbTimeoutRetry, kMinus1);
        p.set = boundedSet(QMX_SetMbTimeoutRetry, p.name, 0, 10);
        t.push_back(std::move(p));
    }
    t.push_back(QMX_PAIR("scsi_cmd_retry", ScsiCmdRetry, "", kMinus1));
    t.push_back(QMX_PAIR("preferred_alpa", PreferredALPANumber, "", kZero));
    t.back().hex = true;
    // Kept by the boot firmware: per port only, 255 when not set.
    t.push_back(QMX_PAIR("login_delay_time", LoginDelayTime, "s", kUnknown));
    t.back().scope = Scope::PortOnly;
    t.push_back(QMX_FIRMWARE("spinup_delay", SpinupDelay, "", kNone, kOnOff));
    t.back().settingNames = kEnableDisable;  // the boot firmware's encoding
    t.push_back(QMX_FIRMWARE("connection_type", ConnectionType, "", kUnknown, kConnection));
    t.push_back(QMX_FIRMWARE("port_speed", PortSpeed, "Gbps", kUnknown, kSpeed));
    t.push_back(QMX_DRIVER("logging_mode", LoggingMode));
    t.push_back(QMX_DRIVER("target_filter", TgtFilter));
    {
        Param p = row("scsi_timeout_fail_count", "ScsiTimeoutFailCount", "");
        p.get = currentGet(QMX_GetScsiTimeoutFailCount);
        p.hasSetting = false;
        p.canUnset = false;
        p.setCall.clear();
        t.push_back(std::move(p));
    }
    // The values each setter accepts.  mck_retry_count takes any value when
    // stored, but the driver uses 0 to 10 like the other retry counts: the
    // manager holds documents to that range.
    struct Bounds {
        const char *name;
        long long lo, hi;
    };
    static const Bounds kBounds[] = {
        {"queue_depth", 1, 256}, {"link_down_time", 0, 60}, {"reset_delay_time", 0, 60},
        {"reset_timeout", 0, 60}, {"abort_timeout", 0, 60}, {"mck_retry_count", 0, 10},
        {"scsi_allowed_count", 1, 30}, {"scsi_delay_time", 0, 60}, {"abort_task_restrain", 0, 1},
        {"lun_reset_delay", 0, 60}, {"interrupt_type", 0, 2}, {"target_reset_mode", 0, 1},
        {"path_health_check_timeout", 1, 60}, {"isolate_setting", 1, 2},
        {"link_down_watch", 1, 60}, {"link_down_count_lt", 0, 30}, {"link_down_count_st", 0, 30},
        {"fc_if_watch", 1, 60}, {"fc_if_threshold", 0, 2048}, {"scsi_timeout_watch", 1, 60},
        {"scsi_timeout_threshold", 0, 30}, {"scsi_reset_error", 0, 1}, {"mb_login_retry", 0, 10},
        {"mb_els_retry", 0, 10}, {"mb_timeout_retry", 0, 10}, {"scsi_cmd_retry", 0, 10},
        {"preferred_alpa", 1, 254}, {"login_delay_time", 0, 60}, {"spinup_delay", 0, 1},
        {"connection_type", 1, 3}, {"logging_mode", 0, 1}, {"target_filter", 0, 1},
    };
    for (Param &p : t) {
        for (const Bounds &b : kBounds)
            if (p.name == b.name) p.range = std::pair(b.lo, b.hi);
        if (p.name == "max_transfer_size") p.allowed = {1, 4, 8, 16, 32};
        if (p.name == "port_speed") p.allowed = {0, 1, 2, 4, 8, 10};
    }
    return t;
}

std::string canonical(const std::string &s) {
    std::string out;
    for (char c : s) {
        if (c == '-' || c == '_') continue;
        out.push_back(char(std::tolower(static_cast<unsigned char>(c))));
    }
    return out;
}

}  // namespace

const std::vector<Param> &paramTable() {
    static const std::vector<Param> table = buildTable();
    return table;
}

const Param &findParam(const std::string &name) {
    std::string want = canonical(name);
    for (const Param &p : paramTable())
        if (canonical(p.name) == want || canonical(p.pairName) == want) return p;
    throw UsageError("unknown parameter '" + name + "' (see: qmxmgr show PORT)");
}

long long parseValue(const Param &p, const std::string &text) {
    for (const EnumName &e : p.names)
        if (canonical(text) == canonical(e.name)) return e.value;
    std::string t = text;
    bool neg = !t.empty() && t[0] == '-';
    if (neg) t.erase(0, 1);
    int base = 10;
    if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
        base = 16;
        t.erase(0, 2);
    }
    bool ok = !t.empty() && t.size() <= 12;
    for (char c : t)
        if (!(base == 16 ? std::isxdigit(static_cast<unsigned char>(c))
                         : std::isdigit(static_cast<unsigned char>(c))))
            ok = false;
    if (!ok) {
        std::string msg = "invalid value '" + text + "' for " + p.name + ": expected a number";
        if (!p.names.empty()) {
            msg += " or one of";
            for (const EnumName &e : p.names) msg += std::string(" ") + e.name;
        }
        throw UsageError(msg);
    }
    long long v = std::strtoll(t.c_str(), nullptr, base);
    return neg ? -v : v;
}

std::string rangeError(const Param &p, long long v) {
    if (p.range && (v < p.range->first || v > p.range->second))
        return "must be " + std::to_string(p.range->first) + " to " +
               std::to_string(p.range->second);
    if (p.allowed.empty()) return {};
    std::string list;
    for (long long a : p.allowed) {
        if (a == v) return {};
        list += (list.empty() ? "" : ", ") + std::to_string(a);
    }
    return "must be one of " + list;
}

std::string valueText(const Param &p, std::optional<long long> v, bool setting) {
    if (!v) return "-";
    for (const EnumName &e : setting && !p.settingNames.empty() ? p.settingNames : p.names)
        if (e.value == *v) return e.name;
    std::string s = std::to_string(*v);
    if (p.hex && *v >= 0) {
        char buf[24];
        std::snprintf(buf, sizeof buf, "0x%02llx", *v);
        s = buf;
    }
    if (!p.unit.empty()) s += " " + p.unit;
    return s;
}

}  // namespace qmxmgr
