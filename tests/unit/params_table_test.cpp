// The port parameter rows and the rules they drive.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "params/param_table.h"
#include "params/params.h"

using namespace qmx::params;

namespace {

const PortParam &row(const char *member) {
    const PortParam *p = findParam(member);
    EXPECT_NE(p, nullptr) << member;
    return p ? *p : kPortParams[0];
}

}  // namespace

TEST(ParamsTable, NamesFollowTheMemberAndKeysAreDistinct) {
    std::set<std::string> suffixes, members;
    for (const PortParam &p : kPortParams) {
        SCOPED_TRACE(p.member);
        EXPECT_TRUE(members.insert(p.member).second);
        EXPECT_EQ(std::string(p.getName), std::string("QMX_Get") + p.member);
        if (p.quirks & kNoSetter) {
            EXPECT_EQ(p.setName, nullptr);
        } else {
            ASSERT_NE(p.setName, nullptr);
            EXPECT_EQ(std::string(p.setName), std::string("QMX_Set") + p.member);
            EXPECT_NE(p.word, nullptr);
        }
        if (p.store == Store::Config) {
            ASSERT_NE(p.suffix, nullptr);
            EXPECT_EQ(p.suffix[0], '_');
            EXPECT_TRUE(suffixes.insert(p.suffix).second) << p.suffix;
        } else {
            EXPECT_EQ(p.suffix, nullptr);
        }
        ASSERT_NE(p.cArg, nullptr);
        EXPECT_TRUE(p.valueBytes == 1 || p.valueBytes == 4);
        if (p.shape == Shape::Pair) {
            EXPECT_NE(p.sArg, nullptr);
        }
    }
    EXPECT_EQ(findParam("NoSuchMember"), nullptr);
    EXPECT_EQ(&param(Id::QueueDepthCount), &row("QueueDepthCount"));
}

TEST(ParamsTable, EveryMemberOfTheFamilyIsListed) {
    // The members tools know by name; a missing row would drop a call.
    const char *names[] = {
        "MaxTransferSize", "QueueDepthCount", "LinkDownTime", "ResetDelayTime", "ResetTimeOut",
        "AbortTimeOut", "MckRetryCnt", "ScsiAllowedCnt", "ScsiDelayTime", "AbortTaskRestrain",
        "LunResetDelay", "InterruptType", "TargetResetMode", "PathHealthCheckTO",
        "PreferredALPANumber", "IsolateSetting", "LinkDownWatch", "LinkDownCountLT",
        "LinkDownCountST", "FcIfWatch", "FcIfThreshold", "ScsiTimeoutWatch",
        "ScsiTimeoutThreshold", "ScsiResetError", "MbLoginRetry", "MbELSRetry", "MbTimeoutRetry",
        "ScsiCmdRetry", "PassChangeThreshold", "LoggingMode", "TgtFilter", "ScsiTimeoutFailCount",
        "LoginDelayTime", "SpinupDelay", "ScatterGather", "MSCS"};
    EXPECT_EQ(std::size(names), kMemberCount);
    for (const char *n : names) EXPECT_NE(findParam(n), nullptr) << n;
}

TEST(ParamsTable, DeleteRuleOfEachCheckMode) {
    struct Case {
        const char *member;
        bool del0, del1, del2;
    } cases[] = {
        {"QueueDepthCount", true, false, true},   // checked unless deleting
        {"MckRetryCnt", false, true, true},       // inverted: checked when del != 0
        {"LoggingMode", true, false, false},      // only when del is 0
        {"TgtFilter", true, false, false},
        {"LoginDelayTime", true, false, false},
        {"SpinupDelay", true, true, true},
    };
    for (const Case &c : cases) {
        const PortParam &p = row(c.member);
        EXPECT_EQ(checksValue(p, 0), c.del0) << c.member;
        EXPECT_EQ(checksValue(p, 1), c.del1) << c.member;
        EXPECT_EQ(checksValue(p, 2), c.del2) << c.member;
    }
}

TEST(ParamsTable, AcceptedValues) {
    struct Case {
        const char *member;
        int64_t value;
        bool ok;
    } cases[] = {
        {"MaxTransferSize", 1, true},      {"MaxTransferSize", 4, true},
        {"MaxTransferSize", 8, true},      {"MaxTransferSize", 16, true},
        {"MaxTransferSize", 32, true},     {"MaxTransferSize", 2, false},
        {"MaxTransferSize", 0, false},     {"MaxTransferSize", 64, false},
        {"MaxTransferSize", -1, false},    {"MaxTransferSize", 4294967297LL, false},
        {"QueueDepthCount", 0, false},     {"QueueDepthCount", 1, true},
        {"QueueDepthCount", 256, true},    {"QueueDepthCount", 257, false},
        {"QueueDepthCount", 0xFFFFFFFFLL, false},
        {"LinkDownTime", 0, true},         {"LinkDownTime", 60, true},
        {"LinkDownTime", 61, false},       {"ScsiAllowedCnt", 0, false},
        {"ScsiAllowedCnt", 30, true},      {"ScsiDelayTime", -1, false},
        {"InterruptType", 2, true},        {"InterruptType", 3, false},
        {"PathHealthCheckTO", 0, false},   {"PathHealthCheckTO", 60, true},
        {"PreferredALPANumber", 0, false}, {"PreferredALPANumber", 1, true},
        {"PreferredALPANumber", 254, true}, {"PreferredALPANumber", 255, false},
        {"IsolateSetting", 0, false},      {"IsolateSetting", 2, true},
        {"IsolateSetting", 3, false},      {"FcIfThreshold", 2048, true},
        {"FcIfThreshold", 2049, false},    {"LinkDownWatch", 0, false},
        {"LinkDownCountLT", 0, true},      {"LinkDownCountST", 31, false},
        {"ScsiTimeoutThreshold", 30, true}, {"ScsiTimeoutWatch", 61, false},
        {"ScsiResetError", 2, false},      {"MbLoginRetry", 11, false},
        {"MbELSRetry", 10, true},          {"ScsiCmdRetry", -1, false},
        {"PassChangeThreshold", 2048, true}, {"PassChangeThreshold", -1, false},
        {"MckRetryCnt", 10, true},         {"MckRetryCnt", 11, false},
        {"LoginDelayTime", 60, true},      {"LoginDelayTime", 61, false},
        {"SpinupDelay", 1, true},          {"SpinupDelay", 2, false},
        {"AbortTaskRestrain", 1, true},    {"TargetResetMode", -1, false},
    };
    for (const Case &c : cases) EXPECT_EQ(accepts(row(c.member).range, c.value), c.ok)
        << c.member << " " << c.value;
    // Caller bounds are taken as given.
    EXPECT_TRUE(accepts(span(3, 7), 3));
    EXPECT_FALSE(accepts(span(3, 7), 8));
    EXPECT_FALSE(accepts(span(5, 4), 5));
}

TEST(ParamsTable, CurrentValueFromThePortInformationRecord) {
    qmx_ioctl_proc_info rec;
    std::memset(&rec, 0, sizeof rec);
    rec.dma_max = 16u << 20 | 0xFFFFF;  // partial MiB is cut
    rec.queue_depth = 0xFFFFFFF0u;
    rec.max_mck_cnt = -3;
    rec.limit_log = 2;
    rec.filter_target = 1;
    rec.spinup_delay = 1;
    rec.msi_flag = 0xFF;
    rec.pref_alpa = 0xEF;
    rec.scsi_timeout_fail = -7;
    const auto *bytes = reinterpret_cast<const unsigned char *>(&rec);
    struct Case {
        const char *member;
        int64_t want;
    } cases[] = {
        {"MaxTransferSize", 16},   {"QueueDepthCount", 0xFFFFFFF0LL}, {"MckRetryCnt", -3},
        {"LoggingMode", 0},        {"TgtFilter", 1},                  {"SpinupDelay", 1},
        {"InterruptType", 0xFF},   {"PreferredALPANumber", 0xEF},     {"ScsiTimeoutFailCount", -7},
    };
    for (const Case &c : cases) {
        int64_t v = 12345;
        ASSERT_TRUE(currentFrom(row(c.member), bytes, sizeof rec, &v)) << c.member;
        EXPECT_EQ(v, c.want) << c.member;
    }
    // No field: the output keeps its preset.
    int64_t v = 12345;
    EXPECT_TRUE(currentFrom(row("PathHealthCheckTO"), bytes, sizeof rec, &v));
    EXPECT_EQ(v, 12345);
    // A record shorter than the field is refused, never read past.
    EXPECT_FALSE(currentFrom(row("TgtFilter"), bytes, 738, &v));
}

TEST(ParamsTable, CurrentValueFromTheIsolationRecord) {
    qmx_isol_info rec;
    std::memset(&rec, 0, sizeof rec);
    rec.ld_err_intvl = -2;
    rec.if_err_limit = 2048;
    rec.rt_err_enable = 7;
    rec.scsi_to_retry = 9;
    const auto *bytes = reinterpret_cast<const unsigned char *>(&rec);
    int64_t v = 0;
    ASSERT_TRUE(currentFrom(row("LinkDownWatch"), bytes, sizeof rec, &v));
    EXPECT_EQ(v, -2);
    ASSERT_TRUE(currentFrom(row("FcIfThreshold"), bytes, sizeof rec, &v));
    EXPECT_EQ(v, 2048);
    ASSERT_TRUE(currentFrom(row("ScsiResetError"), bytes, sizeof rec, &v));
    EXPECT_EQ(v, 1);
    ASSERT_TRUE(currentFrom(row("ScsiCmdRetry"), bytes, sizeof rec, &v));
    EXPECT_EQ(v, 9);
    const PortParam &isol = row("IsolateSetting");
    rec.isol_type = 0;
    ASSERT_TRUE(currentFrom(isol, bytes, sizeof rec, &v));
    EXPECT_EQ(v, 2);
    rec.isol_type = 1;
    ASSERT_TRUE(currentFrom(isol, bytes, sizeof rec, &v));
    EXPECT_EQ(v, 1);
    rec.isol_type = 3;
    EXPECT_FALSE(currentFrom(isol, bytes, sizeof rec, &v));
}

TEST(ParamsTable, StoredSettingsAsReported) {
    const PortParam &isol = row("IsolateSetting");
    EXPECT_EQ(mapSetting(isol, 0), 2);
    EXPECT_EQ(mapSetting(isol, 1), 1);
    EXPECT_EQ(mapSetting(isol, 7), 7);
    EXPECT_EQ(mapSetting(isol, -1), -1);
    const PortParam &rt = row("ScsiResetError");
    EXPECT_EQ(mapSetting(rt, -1), -1);
    EXPECT_EQ(mapSetting(rt, 0), 0);
    EXPECT_EQ(mapSetting(rt, 5), 1);
    EXPECT_EQ(mapSetting(rt, -5), 1);
    EXPECT_EQ(mapSetting(row("QueueDepthCount"), 0), 0);
}

TEST(LinkSettings, EncodingsAndPartitionModes) {
    EXPECT_EQ(mlpfClass(0x00), 0);
    EXPECT_EQ(mlpfClass(0x40), 0);  // bit 6 alone is not a partition mode
    EXPECT_EQ(mlpfClass(0x80), 1);
    EXPECT_EQ(mlpfClass(0xBF), 1);
    EXPECT_EQ(mlpfClass(0xC0), 2);
    EXPECT_EQ(connectionTypeToEfi(1), 0);
    EXPECT_EQ(connectionTypeToEfi(2), 1);
    EXPECT_EQ(connectionTypeToEfi(3), 3);
    EXPECT_EQ(connectionTypeFromEfi(0), 1);
    EXPECT_EQ(connectionTypeFromEfi(1), 2);
    EXPECT_EQ(connectionTypeFromEfi(2), 3);
    EXPECT_EQ(connectionTypeFromEfi(255), 3);
    struct {
        uint32_t rate;
        uint8_t speed;
    } rates[] = {{100, 1}, {200, 2}, {400, 4}, {800, 8}, {1000, 10}, {1600, 0}, {0, 0}, {150, 0}};
    for (auto r : rates) EXPECT_EQ(portSpeedFromRate(r.rate), r.speed) << r.rate;
    for (int s = 0; s < 256; ++s) {
        bool want = s == 0 || s == 1 || s == 2 || s == 4 || s == 8 || s == 10;
        EXPECT_EQ(portSpeedValid(uint8_t(s)), want) << s;
    }
}
