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
#define QMX_PP_NAMES(m) .id = Id::m, .member = #m, .getName = "QMX_Get" #m, .setName = "QMX_Set" #m
#define QMX_PP_GETONLY(m) .id = Id::m, .member = #m, .getName = "QMX_Get" #m, .setName = nullptr

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
    {QMX_PP_NAMES(MaxTransferSize), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_max_transfer", .source = Source::PortInfo, .field = QMX_PP_PR(dma_max),
     .current = Current::MiB, .setting = Setting::Plain, .isSigned = false, .valueBytes = kU32,
     .range = oneOf(1, 4, 8, 16, 32), .check = Check::UnlessDelete, .initC = 0, .initS = 0,
     .cArg = "C_transfersize", .sArg = "S_transfersize", .cNull = kEqNull, .sNull = kEqNull,
     .word = "transfersize", .quirks = kErrorOnEngine},
    {QMX_PP_NAMES(QueueDepthCount), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_queue_depth", .source = Source::PortInfo, .field = QMX_PP_PR(queue_depth),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = false, .valueBytes = kU32,
     .range = span(1, 256), .check = Check::UnlessDelete, .initC = 0, .initS = 0, .cArg = "C_queue",
     .sArg = "S_queue", .cNull = kIsNull, .sNull = kIsNull, .word = "queue", .quirks = 0},
    {QMX_PP_NAMES(LinkDownTime), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_link_down", .source = Source::PortInfo, .field = QMX_PP_PR(linkup_tmo),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = false, .valueBytes = kU32,
     .range = span(0, 60), .check = Check::UnlessDelete, .initC = 0, .initS = -1,
     .cArg = "C_linkdowntime", .sArg = "S_linkdowntime", .cNull = kEqNull, .sNull = kIsNull,
     .word = "linkdowntime", .quirks = 0},
    {QMX_PP_NAMES(ResetDelayTime), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_reset_delay", .source = Source::PortInfo, .field = QMX_PP_PR(scsi_reset_delay),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = false, .valueBytes = kU32,
     .range = span(0, 60), .check = Check::UnlessDelete, .initC = 0, .initS = -1,
     .cArg = "C_resetdelaytime", .sArg = "S_resetdelaytime", .cNull = kEqNull, .sNull = kIsNull,
     .word = "resetdelaytime", .quirks = 0},
    {QMX_PP_NAMES(ResetTimeOut), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_reset_timeout", .source = Source::PortInfo, .field = QMX_PP_PR(target_reset_tmo),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = false, .valueBytes = kU32,
     .range = span(0, 60), .check = Check::UnlessDelete, .initC = 0, .initS = -1,
     .cArg = "C_resettimeout", .sArg = "S_resettimeout", .cNull = kEqNull, .sNull = kIsNull,
     .word = "resettimeout", .quirks = 0},
    {QMX_PP_NAMES(AbortTimeOut), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_abort_timeout", .source = Source::PortInfo, .field = QMX_PP_PR(abort_tmo),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = false, .valueBytes = kU32,
     .range = span(0, 60), .check = Check::UnlessDelete, .initC = 0, .initS = -1,
     .cArg = "C_aborttime", .sArg = "S_aborttime", .cNull = kIsNull, .sNull = kIsNull,
     .word = "aborttime", .quirks = 0},
    // The range of the machine-check retry count is checked when del is not 0,
    // the reverse of the other members; tools rely on it.
    {QMX_PP_NAMES(MckRetryCnt), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_mck_retry", .source = Source::PortInfo, .field = QMX_PP_PR(max_mck_cnt),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 10), .check = Check::DelNonZero, .initC = -1, .initS = -1,
     .cArg = "C_mck_cnt", .sArg = "S_mck_cnt", .cNull = kIsNull, .sNull = kIsNull,
     .word = "mck_cnt", .quirks = 0},
    {QMX_PP_NAMES(ScsiAllowedCnt), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_scsi_allowed", .source = Source::PortInfo, .field = QMX_PP_PR(scsi_allowed),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(1, 30), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_allowed_cnt", .sArg = "S_allowed_cnt", .cNull = kIsNull, .sNull = kIsNull,
     .word = "allowed_cnt", .quirks = 0},
    {QMX_PP_NAMES(ScsiDelayTime), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_tmt_delay", .source = Source::PortInfo, .field = QMX_PP_PR(tmt_delay),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 60), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_scsidelay", .sArg = "S_scsidelay", .cNull = kIsNull, .sNull = kIsNull,
     .word = "scsidelay", .quirks = 0},
    {QMX_PP_NAMES(AbortTaskRestrain), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_abort_t_restrain", .source = Source::PortInfo,
     .field = QMX_PP_PR(abort_t_restrain), .current = Current::Field, .setting = Setting::Plain,
     .isSigned = true, .valueBytes = kU32, .range = span(0, 1), .check = Check::UnlessDelete,
     .initC = -1, .initS = -1, .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull,
     .sNull = kIsNull, .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(LunResetDelay), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_lun_reset_delay", .source = Source::PortInfo, .field = QMX_PP_PR(lun_reset_delay),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 60), .check = Check::UnlessDelete, .initC = 0, .initS = -1,
     .cArg = "C_delaytimer", .sArg = "S_delaytimer", .cNull = kIsNull, .sNull = kIsNull,
     .word = "delaytimer", .quirks = 0},
    {QMX_PP_NAMES(InterruptType), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_msi_enable", .source = Source::PortInfo, .field = QMX_PP_PR(msi_flag),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 2), .check = Check::UnlessDelete, .initC = 0, .initS = -1,
     .cArg = "C_interrupt", .sArg = "S_interrupt", .cNull = kIsNull, .sNull = kIsNull,
     .word = "interrupt", .quirks = kWholeAdapter},
    // The target reset mode's current value is the driver's own
    // `target_reset_mode`, as the port parameter table gives it.  The limit
    // getters' description would leave it at -1; the driver does report this
    // value, and callers (qmxmgr among them) have always shown it, so the
    // getter keeps reporting it.
    {QMX_PP_NAMES(TargetResetMode), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_enable_tgtrst", .source = Source::PortInfo, .field = QMX_PP_PR(target_reset_mode),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 1), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_setting", .sArg = "S_setting", .cNull = kEqNull, .sNull = kEqNull,
     .word = "settingval", .quirks = kErrorOnEngine},
    // The driver reports no current value for the path health check time-out;
    // the query is still made, so a port the driver does not answer for fails.
    {QMX_PP_NAMES(PathHealthCheckTO), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_pathchk_to", .source = Source::PortInfo, .field = QMX_PP_NOFIELD,
     .current = Current::Untouched, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(1, 60), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_setting", .sArg = "S_setting", .cNull = kEqNull, .sNull = kEqNull,
     .word = "settingval", .quirks = kErrorOnEngine | kResolveBeforeLock},
    {QMX_PP_NAMES(PreferredALPANumber), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_preferred_alpa", .source = Source::PortInfo, .field = QMX_PP_PR(pref_alpa),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = false, .valueBytes = 1,
     .range = span(1, 254), .check = Check::UnlessDelete, .initC = 0, .initS = 0,
     .cArg = "C_preferredalpanumber", .sArg = "S_preferredalpanumber", .cNull = kEqNull,
     .sNull = kEqNull, .word = "preferredalpanumber", .quirks = 0},
    // ---- configuration members, current value from the isolation record ----
    {QMX_PP_NAMES(IsolateSetting), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_isol_type", .source = Source::Isolation, .field = QMX_PP_IS(isol_type),
     .current = Current::IsolType, .setting = Setting::IsolType, .isSigned = true,
     .valueBytes = kU32, .range = span(1, 2), .check = Check::UnlessDelete, .initC = -1,
     .initS = -1, .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull,
     .sNull = kIsNull, .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(LinkDownWatch), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_ld_err_intvl", .source = Source::Isolation, .field = QMX_PP_IS(ld_err_intvl),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(1, 60), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull,
     .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(LinkDownCountLT), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_ld_err_limit_l", .source = Source::Isolation, .field = QMX_PP_IS(ld_err_limit_l),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 30), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull,
     .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(LinkDownCountST), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_ld_err_limit_s", .source = Source::Isolation, .field = QMX_PP_IS(ld_err_limit_s),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 30), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull,
     .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(FcIfWatch), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_if_err_intvl", .source = Source::Isolation, .field = QMX_PP_IS(if_err_intvl),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(1, 60), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull,
     .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(FcIfThreshold), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_if_err_limit", .source = Source::Isolation, .field = QMX_PP_IS(if_err_limit),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 2048), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull,
     .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(ScsiTimeoutWatch), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_to_err_intvl", .source = Source::Isolation, .field = QMX_PP_IS(to_err_intvl),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(1, 60), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull,
     .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(ScsiTimeoutThreshold), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_to_err_limit", .source = Source::Isolation, .field = QMX_PP_IS(to_err_limit),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 30), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull,
     .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(ScsiResetError), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_rt_err_enable", .source = Source::Isolation, .field = QMX_PP_IS(rt_err_enable),
     .current = Current::NonZero, .setting = Setting::NonZero, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 1), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull,
     .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(MbLoginRetry), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_login_retry", .source = Source::Isolation, .field = QMX_PP_IS(login_retry),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 10), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull,
     .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(MbELSRetry), .store = Store::Config, .shape = Shape::Pair, .suffix = "_els_retry",
     .source = Source::Isolation, .field = QMX_PP_IS(els_retry), .current = Current::Field,
     .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32, .range = span(0, 10),
     .check = Check::UnlessDelete, .initC = -1, .initS = -1, .cArg = "C_settingval",
     .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull, .word = "settingval", .quirks = 0},
    {QMX_PP_NAMES(MbTimeoutRetry), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_to_reset_retry", .source = Source::Isolation, .field = QMX_PP_IS(to_reset_retry),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = kAny, .check = Check::UnlessDelete, .initC = -1, .initS = -1, .cArg = "C_settingval",
     .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull, .word = "settingval",
     .quirks = kCallerBounds},
    {QMX_PP_NAMES(ScsiCmdRetry), .store = Store::Config, .shape = Shape::Pair,
     .suffix = "_scsi_to_retry", .source = Source::Isolation, .field = QMX_PP_IS(scsi_to_retry),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 10), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_settingval", .sArg = "S_settingval", .cNull = kIsNull, .sNull = kIsNull,
     .word = "settingval", .quirks = 0},
    // Thresholds per error number: the range is the threshold's; the error
    // number (0..999) is always checked, with the word "err_id".
    {QMX_PP_NAMES(PassChangeThreshold), .store = Store::Config, .shape = Shape::Thresholds,
     .suffix = "_retry_cnt", .source = Source::Isolation, .field = QMX_PP_IS(retry_cnt[0]),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 2048), .check = Check::UnlessDelete, .initC = -1, .initS = -1,
     .cArg = "C_threshold", .sArg = "S_threshold", .cNull = kIsNull, .sNull = kIsNull,
     .word = "threshold", .quirks = 0},
    // ---- driver-wide switches: current value only, setters without a port ----
    {QMX_PP_NAMES(LoggingMode), .store = Store::Config, .shape = Shape::CurrentOnly,
     .suffix = "_limit_log", .source = Source::PortInfo, .field = QMX_PP_PR(limit_log),
     .current = Current::IsOne, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 1), .check = Check::DelZero, .initC = -1, .initS = -1, .cArg = "C_log_mode",
     .sArg = nullptr, .cNull = kIsNull, .sNull = nullptr, .word = "log_mode", .quirks = 0},
    {QMX_PP_NAMES(TgtFilter), .store = Store::Config, .shape = Shape::CurrentOnly,
     .suffix = "_filter_target", .source = Source::PortInfo, .field = QMX_PP_PR(filter_target),
     .current = Current::IsOne, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = span(0, 1), .check = Check::DelZero, .initC = -1, .initS = -1, .cArg = "C_tgt_filter",
     .sArg = nullptr, .cNull = kIsNull, .sNull = nullptr, .word = "tgt_filter", .quirks = 0},
    {QMX_PP_GETONLY(ScsiTimeoutFailCount), .store = Store::None, .shape = Shape::CurrentOnly,
     .suffix = nullptr, .source = Source::PortInfo, .field = QMX_PP_PR(scsi_timeout_fail),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = kAny, .check = Check::Always, .initC = 0, .initS = 0, .cArg = "scsitimeoout",
     .sArg = nullptr, .cNull = kEqNull, .sNull = nullptr, .word = nullptr, .quirks = kNoSetter},
    // ---- boot firmware members (BIOS tool or EFI option area) ----
    {QMX_PP_NAMES(LoginDelayTime), .store = Store::BootFirmware, .shape = Shape::Pair,
     .suffix = nullptr, .source = Source::PortInfo, .field = QMX_PP_PR(login_delay),
     .current = Current::Field, .setting = Setting::Plain, .isSigned = false, .valueBytes = kU32,
     .range = span(0, 60), .check = Check::DelZeroOnly, .initC = 0, .initS = 0,
     .cArg = "C_delaytime", .sArg = "S_delaytime", .cNull = kIsNull, .sNull = kIsNull,
     .word = "delaytime", .quirks = 0},
    {QMX_PP_NAMES(SpinupDelay), .store = Store::BootFirmware, .shape = Shape::Pair,
     .suffix = nullptr, .source = Source::PortInfo, .field = QMX_PP_PR(spinup_delay),
     .current = Current::IsOne, .setting = Setting::Plain, .isSigned = false, .valueBytes = kU32,
     .range = span(0, 1), .check = Check::Always, .initC = 0, .initS = 0, .cArg = "C_spinupdelay",
     .sArg = "S_spinupdelay", .cNull = kIsNull, .sNull = kIsNull, .word = "spinupdelay",
     .quirks = 0},
    // ---- members the adapters do not offer ----
    {QMX_PP_NAMES(ScatterGather), .store = Store::Unsupported, .shape = Shape::Pair,
     .suffix = nullptr, .source = Source::None, .field = QMX_PP_NOFIELD,
     .current = Current::Untouched, .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32,
     .range = kAny, .check = Check::Always, .initC = 0, .initS = 0, .cArg = "C_sgListCnt",
     .sArg = "S_sgListCnt", .cNull = kIsNull, .sNull = kIsNull, .word = "sgListCnt", .quirks = 0},
    {QMX_PP_NAMES(MSCS), .store = Store::Unsupported, .shape = Shape::Pair, .suffix = nullptr,
     .source = Source::None, .field = QMX_PP_NOFIELD, .current = Current::Untouched,
     .setting = Setting::Plain, .isSigned = true, .valueBytes = kU32, .range = kAny,
     .check = Check::Always, .initC = 0, .initS = 0, .cArg = "C_mscs_mode", .sArg = "S_mscs_mode",
     .cNull = kIsNull, .sNull = kIsNull, .word = "mscs_mode", .quirks = 0},
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
