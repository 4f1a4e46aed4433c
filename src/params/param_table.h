// The port parameter family: one descriptor row per member.
//
// Every QMX_Get<Member>/QMX_Set<Member> pair of the family is a thin entry
// point over one implementation (port_params.cpp) driven by the row of its
// member: the configuration key suffix, the accepted values and how they are
// compared, where the driver reports the current value, the values the
// outputs start with, the words of the trace lines, and the few deliberate
// differences between members (quirk flags).
//
// The table is also the list of members, with their key suffixes and
// accepted values, for code built from the static archive that wants to
// enumerate them (tests, benchmarks).  Nothing here is exported from the
// shared object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <climits>
#include <string_view>
#include <type_traits>

#include "qmxvlib.h"

namespace qmx::params {

// Where a member keeps its setting value.
enum class Store : uint8_t {
    Config,       // the driver configuration file, through the parameter engine
    BootFirmware, // the adapter's boot firmware (BIOS tool or EFI option area)
    None,         // no setting value (current-only members)
    Unsupported,  // the calls trace UNSUPPORTED and fail
};

// Shape of the exported pair.
enum class Shape : uint8_t {
    Pair,         // Get(wwn, *C, *S) / Set(wwn, value, del)
    Thresholds,   // arrays of 1000 entries, one per error number
    CurrentOnly,  // Get(wwn, *C); a setter, when present, has no WWN
};

// Which driver query answers the current value.
enum class Source : uint8_t {
    None,         // no query at all
    PortInfo,     // IOCTL_QMX_SC_PRINFO
    Isolation,    // IOCTL_QMX_HBA_ISOLATION
};

// How the current value is derived from the record field.
enum class Current : uint8_t {
    Field,        // as reported
    MiB,          // bytes shifted right by 20
    IsolType,     // 0 -> 2, 1 -> 1, any other value is refused
    NonZero,      // non-zero -> 1, else 0
    IsOne,        // 1 -> 1, else 0
    Untouched,    // the record is queried, the output keeps its preset
};

// How the setting value read from the configuration is mapped.
enum class Setting : uint8_t {
    Plain,
    IsolType,     // 0 -> 2, other values unchanged
    NonZero,      // -1 (not set) stays, other values reduced to 0 / 1
};

// When the setter checks the value against the accepted values.
enum class Check : uint8_t {
    UnlessDelete, // del != 1 (the usual rule)
    DelNonZero,   // del != 0 (the retry count of machine checks: kept inverted)
    DelZero,      // del == 0 (the driver-wide switches)
    DelZeroOnly,  // boot firmware login delay: del == 0 (else the value becomes -1)
    Always,
};

// Quirk flags.
enum : uint16_t {
    kErrorOnEngine = 1u << 0,      // an engine failure also traces "<call> Error"
    kResolveBeforeLock = 1u << 1,  // the WWN is resolved once before the lock as well
    kWholeAdapter = 1u << 2,       // the setter stores for every function of the adapter
    kCallerBounds = 1u << 3,       // the setter takes its bounds from the caller
    kNoSetter = 1u << 4,           // the member has a getter only
};

// A field of a driver record: byte offset, width in bytes, signedness.
struct Field {
    uint16_t offset;
    uint8_t width;  // 0: no field
    bool isSigned;
};

// Accepted values: lo..hi inclusive, or, when oneOf is not 0, exactly the
// values v < 64 whose bit (1 << v) is set.
struct Range {
    int64_t lo;
    int64_t hi;
    uint64_t oneOf;
};

enum class Id : uint8_t {
    MaxTransferSize,
    QueueDepthCount,
    LinkDownTime,
    ResetDelayTime,
    ResetTimeOut,
    AbortTimeOut,
    MckRetryCnt,
    ScsiAllowedCnt,
    ScsiDelayTime,
    AbortTaskRestrain,
    LunResetDelay,
    InterruptType,
    TargetResetMode,
    PathHealthCheckTO,
    PreferredALPANumber,
    IsolateSetting,
    LinkDownWatch,
    LinkDownCountLT,
    LinkDownCountST,
    FcIfWatch,
    FcIfThreshold,
    ScsiTimeoutWatch,
    ScsiTimeoutThreshold,
    ScsiResetError,
    MbLoginRetry,
    MbELSRetry,
    MbTimeoutRetry,
    ScsiCmdRetry,
    PassChangeThreshold,
    LoggingMode,
    TgtFilter,
    ScsiTimeoutFailCount,
    LoginDelayTime,
    SpinupDelay,
    ScatterGather,
    MSCS,
    Count
};

struct PortParam {
    Id id;
    const char *member;   // "QueueDepthCount"
    const char *getName;  // "QMX_GetQueueDepthCount"
    const char *setName;  // "QMX_SetQueueDepthCount" (nullptr: no setter)
    Store store;
    Shape shape;
    const char *suffix;   // configuration key suffix ("_queue_depth"), nullptr when none
    Source source;
    Field field;
    Current current;
    Setting setting;
    bool isSigned;        // value type and comparison: int (signed) or unsigned
    uint8_t valueBytes;   // size of the API value type
    Range range;
    Check check;
    int32_t initC;        // preset of the current-value output
    int32_t initS;        // preset of the setting-value output
    const char *cArg;     // output names as the null-pointer traces spell them
    const char *sArg;
    const char *cNull;    // " is null" or " == NULL"
    const char *sNull;
    const char *word;     // invalid-value trace: "<word> is invalid value"
    uint16_t quirks;
};

constexpr std::size_t kMemberCount = std::size_t(Id::Count);

// Error numbers of the pass-change thresholds.
constexpr int kThresholdEntries = 1000;

#define QMX_PP_PR(f)                                                          \
    Field{uint16_t(offsetof(qmx_ioctl_proc_info, f)),                         \
          uint8_t(sizeof(qmx_ioctl_proc_info::f)),                            \
          std::is_signed_v<decltype(qmx_ioctl_proc_info::f)>}
#define QMX_PP_IS(f)                                                          \
    Field{uint16_t(offsetof(qmx_isol_info, f)), uint8_t(sizeof(qmx_isol_info::f)), \
          std::is_signed_v<decltype(qmx_isol_info::f)>}
#define QMX_PP_NOFIELD Field{0, 0, false}
#define QMX_PP_NAMES(m) Id::m, #m, "QMX_Get" #m, "QMX_Set" #m
#define QMX_PP_GETONLY(m) Id::m, #m, "QMX_Get" #m, nullptr

constexpr Range span(int64_t lo, int64_t hi) { return Range{lo, hi, 0}; }
template <class... V>
constexpr Range oneOf(V... v) {
    return Range{0, 0, ((uint64_t(1) << v) | ...)};
}
constexpr Range kAny{INT64_MIN, INT64_MAX, 0};

constexpr const char *kIsNull = " is null";
constexpr const char *kEqNull = " == NULL";
constexpr uint8_t kU32 = 4;

// clang-format off
inline constexpr PortParam kPortParams[kMemberCount] = {
    // ---- configuration members, current value from the port information ----
    {QMX_PP_NAMES(MaxTransferSize), Store::Config, Shape::Pair, "_max_transfer",
     Source::PortInfo, QMX_PP_PR(dma_max), Current::MiB, Setting::Plain, false, kU32,
     oneOf(1, 4, 8, 16, 32), Check::UnlessDelete, 0, 0,
     "C_transfersize", "S_transfersize", kEqNull, kEqNull, "transfersize", kErrorOnEngine},
    {QMX_PP_NAMES(QueueDepthCount), Store::Config, Shape::Pair, "_queue_depth",
     Source::PortInfo, QMX_PP_PR(queue_depth), Current::Field, Setting::Plain, false, kU32,
     span(1, 256), Check::UnlessDelete, 0, 0,
     "C_queue", "S_queue", kIsNull, kIsNull, "queue", 0},
    {QMX_PP_NAMES(LinkDownTime), Store::Config, Shape::Pair, "_link_down",
     Source::PortInfo, QMX_PP_PR(linkup_tmo), Current::Field, Setting::Plain, false, kU32,
     span(0, 60), Check::UnlessDelete, 0, -1,
     "C_linkdowntime", "S_linkdowntime", kEqNull, kIsNull, "linkdowntime", 0},
    {QMX_PP_NAMES(ResetDelayTime), Store::Config, Shape::Pair, "_reset_delay",
     Source::PortInfo, QMX_PP_PR(scsi_reset_delay), Current::Field, Setting::Plain, false, kU32,
     span(0, 60), Check::UnlessDelete, 0, -1,
     "C_resetdelaytime", "S_resetdelaytime", kEqNull, kIsNull, "resetdelaytime", 0},
    {QMX_PP_NAMES(ResetTimeOut), Store::Config, Shape::Pair, "_reset_timeout",
     Source::PortInfo, QMX_PP_PR(target_reset_tmo), Current::Field, Setting::Plain, false, kU32,
     span(0, 60), Check::UnlessDelete, 0, -1,
     "C_resettimeout", "S_resettimeout", kEqNull, kIsNull, "resettimeout", 0},
    {QMX_PP_NAMES(AbortTimeOut), Store::Config, Shape::Pair, "_abort_timeout",
     Source::PortInfo, QMX_PP_PR(abort_tmo), Current::Field, Setting::Plain, false, kU32,
     span(0, 60), Check::UnlessDelete, 0, -1,
     "C_aborttime", "S_aborttime", kIsNull, kIsNull, "aborttime", 0},
    // The range of the machine-check retry count is checked when del is not 0,
    // the reverse of the other members; tools rely on it.
    {QMX_PP_NAMES(MckRetryCnt), Store::Config, Shape::Pair, "_mck_retry",
     Source::PortInfo, QMX_PP_PR(max_mck_cnt), Current::Field, Setting::Plain, true, kU32,
     span(0, 10), Check::DelNonZero, -1, -1,
     "C_mck_cnt", "S_mck_cnt", kIsNull, kIsNull, "mck_cnt", 0},
    {QMX_PP_NAMES(ScsiAllowedCnt), Store::Config, Shape::Pair, "_scsi_allowed",
     Source::PortInfo, QMX_PP_PR(scsi_allowed), Current::Field, Setting::Plain, true, kU32,
     span(1, 30), Check::UnlessDelete, -1, -1,
     "C_allowed_cnt", "S_allowed_cnt", kIsNull, kIsNull, "allowed_cnt", 0},
    {QMX_PP_NAMES(ScsiDelayTime), Store::Config, Shape::Pair, "_tmt_delay",
     Source::PortInfo, QMX_PP_PR(tmt_delay), Current::Field, Setting::Plain, true, kU32,
     span(0, 60), Check::UnlessDelete, -1, -1,
     "C_scsidelay", "S_scsidelay", kIsNull, kIsNull, "scsidelay", 0},
    {QMX_PP_NAMES(AbortTaskRestrain), Store::Config, Shape::Pair, "_abort_t_restrain",
     Source::PortInfo, QMX_PP_PR(abort_t_restrain), Current::Field, Setting::Plain, true, kU32,
     span(0, 1), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(LunResetDelay), Store::Config, Shape::Pair, "_lun_reset_delay",
     Source::PortInfo, QMX_PP_PR(lun_reset_delay), Current::Field, Setting::Plain, true, kU32,
     span(0, 60), Check::UnlessDelete, 0, -1,
     "C_delaytimer", "S_delaytimer", kIsNull, kIsNull, "delaytimer", 0},
    {QMX_PP_NAMES(InterruptType), Store::Config, Shape::Pair, "_msi_enable",
     Source::PortInfo, QMX_PP_PR(msi_flag), Current::Field, Setting::Plain, true, kU32,
     span(0, 2), Check::UnlessDelete, 0, -1,
     "C_interrupt", "S_interrupt", kIsNull, kIsNull, "interrupt", kWholeAdapter},
    {QMX_PP_NAMES(TargetResetMode), Store::Config, Shape::Pair, "_enable_tgtrst",
     Source::PortInfo, QMX_PP_PR(target_reset_mode), Current::Field, Setting::Plain, true, kU32,
     span(0, 1), Check::UnlessDelete, -1, -1,
     "C_setting", "S_setting", kEqNull, kEqNull, "settingval", kErrorOnEngine},
    // The driver reports no current value for the path health check time-out;
    // the query is still made, so a port the driver does not answer for fails.
    {QMX_PP_NAMES(PathHealthCheckTO), Store::Config, Shape::Pair, "_pathchk_to",
     Source::PortInfo, QMX_PP_NOFIELD, Current::Untouched, Setting::Plain, true, kU32,
     span(1, 60), Check::UnlessDelete, -1, -1,
     "C_setting", "S_setting", kEqNull, kEqNull, "settingval",
     kErrorOnEngine | kResolveBeforeLock},
    {QMX_PP_NAMES(PreferredALPANumber), Store::Config, Shape::Pair, "_preferred_alpa",
     Source::PortInfo, QMX_PP_PR(pref_alpa), Current::Field, Setting::Plain, false, 1,
     span(1, 254), Check::UnlessDelete, 0, 0,
     "C_preferredalpanumber", "S_preferredalpanumber", kEqNull, kEqNull,
     "preferredalpanumber", 0},
    // ---- configuration members, current value from the isolation record ----
    {QMX_PP_NAMES(IsolateSetting), Store::Config, Shape::Pair, "_isol_type",
     Source::Isolation, QMX_PP_IS(isol_type), Current::IsolType, Setting::IsolType, true, kU32,
     span(1, 2), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(LinkDownWatch), Store::Config, Shape::Pair, "_ld_err_intvl",
     Source::Isolation, QMX_PP_IS(ld_err_intvl), Current::Field, Setting::Plain, true, kU32,
     span(1, 60), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(LinkDownCountLT), Store::Config, Shape::Pair, "_ld_err_limit_l",
     Source::Isolation, QMX_PP_IS(ld_err_limit_l), Current::Field, Setting::Plain, true, kU32,
     span(0, 30), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(LinkDownCountST), Store::Config, Shape::Pair, "_ld_err_limit_s",
     Source::Isolation, QMX_PP_IS(ld_err_limit_s), Current::Field, Setting::Plain, true, kU32,
     span(0, 30), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(FcIfWatch), Store::Config, Shape::Pair, "_if_err_intvl",
     Source::Isolation, QMX_PP_IS(if_err_intvl), Current::Field, Setting::Plain, true, kU32,
     span(1, 60), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(FcIfThreshold), Store::Config, Shape::Pair, "_if_err_limit",
     Source::Isolation, QMX_PP_IS(if_err_limit), Current::Field, Setting::Plain, true, kU32,
     span(0, 2048), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(ScsiTimeoutWatch), Store::Config, Shape::Pair, "_to_err_intvl",
     Source::Isolation, QMX_PP_IS(to_err_intvl), Current::Field, Setting::Plain, true, kU32,
     span(1, 60), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(ScsiTimeoutThreshold), Store::Config, Shape::Pair, "_to_err_limit",
     Source::Isolation, QMX_PP_IS(to_err_limit), Current::Field, Setting::Plain, true, kU32,
     span(0, 30), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(ScsiResetError), Store::Config, Shape::Pair, "_rt_err_enable",
     Source::Isolation, QMX_PP_IS(rt_err_enable), Current::NonZero, Setting::NonZero, true, kU32,
     span(0, 1), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(MbLoginRetry), Store::Config, Shape::Pair, "_login_retry",
     Source::Isolation, QMX_PP_IS(login_retry), Current::Field, Setting::Plain, true, kU32,
     span(0, 10), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(MbELSRetry), Store::Config, Shape::Pair, "_els_retry",
     Source::Isolation, QMX_PP_IS(els_retry), Current::Field, Setting::Plain, true, kU32,
     span(0, 10), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    {QMX_PP_NAMES(MbTimeoutRetry), Store::Config, Shape::Pair, "_to_reset_retry",
     Source::Isolation, QMX_PP_IS(to_reset_retry), Current::Field, Setting::Plain, true, kU32,
     kAny, Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", kCallerBounds},
    {QMX_PP_NAMES(ScsiCmdRetry), Store::Config, Shape::Pair, "_scsi_to_retry",
     Source::Isolation, QMX_PP_IS(scsi_to_retry), Current::Field, Setting::Plain, true, kU32,
     span(0, 10), Check::UnlessDelete, -1, -1,
     "C_settingval", "S_settingval", kIsNull, kIsNull, "settingval", 0},
    // Thresholds per error number: the range is the threshold's; the error
    // number (0..999) is always checked, with the word "err_id".
    {QMX_PP_NAMES(PassChangeThreshold), Store::Config, Shape::Thresholds, "_retry_cnt",
     Source::Isolation, QMX_PP_IS(retry_cnt[0]), Current::Field, Setting::Plain, true, kU32,
     span(0, 2048), Check::UnlessDelete, -1, -1,
     "C_threshold", "S_threshold", kIsNull, kIsNull, "threshold", 0},
    // ---- driver-wide switches: current value only, setters without a port ----
    {QMX_PP_NAMES(LoggingMode), Store::Config, Shape::CurrentOnly, "_limit_log",
     Source::PortInfo, QMX_PP_PR(limit_log), Current::IsOne, Setting::Plain, true, kU32,
     span(0, 1), Check::DelZero, -1, -1,
     "C_log_mode", nullptr, kIsNull, nullptr, "log_mode", 0},
    {QMX_PP_NAMES(TgtFilter), Store::Config, Shape::CurrentOnly, "_filter_target",
     Source::PortInfo, QMX_PP_PR(filter_target), Current::IsOne, Setting::Plain, true, kU32,
     span(0, 1), Check::DelZero, -1, -1,
     "C_tgt_filter", nullptr, kIsNull, nullptr, "tgt_filter", 0},
    {QMX_PP_GETONLY(ScsiTimeoutFailCount), Store::None, Shape::CurrentOnly, nullptr,
     Source::PortInfo, QMX_PP_PR(scsi_timeout_fail), Current::Field, Setting::Plain, true, kU32,
     kAny, Check::Always, 0, 0,
     "scsitimeoout", nullptr, kEqNull, nullptr, nullptr, kNoSetter},
    // ---- boot firmware members (BIOS tool or EFI option area) ----
    {QMX_PP_NAMES(LoginDelayTime), Store::BootFirmware, Shape::Pair, nullptr,
     Source::PortInfo, QMX_PP_PR(login_delay), Current::Field, Setting::Plain, false, kU32,
     span(0, 60), Check::DelZeroOnly, 0, 0,
     "C_delaytime", "S_delaytime", kIsNull, kIsNull, "delaytime", 0},
    {QMX_PP_NAMES(SpinupDelay), Store::BootFirmware, Shape::Pair, nullptr,
     Source::PortInfo, QMX_PP_PR(spinup_delay), Current::IsOne, Setting::Plain, false, kU32,
     span(0, 1), Check::Always, 0, 0,
     "C_spinupdelay", "S_spinupdelay", kIsNull, kIsNull, "spinupdelay", 0},
    // ---- members the adapters do not offer ----
    {QMX_PP_NAMES(ScatterGather), Store::Unsupported, Shape::Pair, nullptr,
     Source::None, QMX_PP_NOFIELD, Current::Untouched, Setting::Plain, true, kU32,
     kAny, Check::Always, 0, 0, "C_sgListCnt", "S_sgListCnt", kIsNull, kIsNull, "sgListCnt", 0},
    {QMX_PP_NAMES(MSCS), Store::Unsupported, Shape::Pair, nullptr,
     Source::None, QMX_PP_NOFIELD, Current::Untouched, Setting::Plain, true, kU32,
     kAny, Check::Always, 0, 0, "C_mscs_mode", "S_mscs_mode", kIsNull, kIsNull, "mscs_mode", 0},
};
// clang-format on

#undef QMX_PP_PR
#undef QMX_PP_IS
#undef QMX_PP_NOFIELD
#undef QMX_PP_NAMES
#undef QMX_PP_GETONLY

constexpr bool rowsInIdOrder() {
    for (std::size_t i = 0; i < kMemberCount; ++i)
        if (std::size_t(kPortParams[i].id) != i) return false;
    return true;
}
static_assert(rowsInIdOrder(), "every row sits at the index of its Id");

constexpr bool fieldsInsideRecords() {
    for (const PortParam &p : kPortParams) {
        std::size_t size = p.source == Source::Isolation ? sizeof(qmx_isol_info)
                                                         : sizeof(qmx_ioctl_proc_info);
        if (p.field.width != 0 && p.field.offset + p.field.width > size) return false;
        if (p.field.width != 0 && p.field.width != 1 && p.field.width != 2 &&
            p.field.width != 4)
            return false;
    }
    return true;
}
static_assert(fieldsInsideRecords(), "fields lie inside their driver records");

constexpr const PortParam &param(Id id) { return kPortParams[std::size_t(id)]; }

// The row whose member name is `member` ("QueueDepthCount"), or nullptr.
const PortParam *findParam(std::string_view member) noexcept;

// Whether the setter of `p` checks its value for this `del`.
bool checksValue(const PortParam &p, int del) noexcept;
// Whether `value` (already widened by the member's signedness) is accepted.
bool accepts(const Range &r, int64_t value) noexcept;
// Current value from the raw bytes of the driver record (`size` bytes).
// false: the field lies outside the record or the value is refused
// (isolation type other than 0 or 1).
bool currentFrom(const PortParam &p, const unsigned char *record, std::size_t size,
                 int64_t *value) noexcept;
// The setting value as the getter reports it.
int32_t mapSetting(const PortParam &p, int32_t stored) noexcept;

}  // namespace qmx::params
