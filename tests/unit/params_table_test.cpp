// The port parameter rows and the rules they drive.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

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

// Every member is called by name end to end (ParamFamily, ParamQuirks).
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
        std::vector<int64_t> ok, refused;
    } cases[] = {
        {"MaxTransferSize", {1, 4, 8, 16, 32}, {2, 0, 64, -1, 4294967297LL}},
        {"QueueDepthCount", {1, 256}, {0, 257, 0xFFFFFFFFLL}},
        {"LinkDownTime", {0, 60}, {61}},          {"ScsiAllowedCnt", {30}, {0}},
        {"ScsiDelayTime", {}, {-1}},              {"InterruptType", {2}, {3}},
        {"PathHealthCheckTO", {60}, {0}},         {"PreferredALPANumber", {1, 254}, {0, 255}},
        {"IsolateSetting", {2}, {0, 3}},          {"FcIfThreshold", {2048}, {2049}},
        {"LinkDownWatch", {}, {0}},               {"LinkDownCountLT", {0}, {}},
        {"LinkDownCountST", {}, {31}},            {"ScsiTimeoutThreshold", {30}, {}},
        {"ScsiTimeoutWatch", {}, {61}},           {"ScsiResetError", {}, {2}},
        {"MbLoginRetry", {}, {11}},               {"MbELSRetry", {10}, {}},
        {"ScsiCmdRetry", {}, {-1}},               {"PassChangeThreshold", {2048}, {-1}},
        {"MckRetryCnt", {10}, {11}},              {"LoginDelayTime", {60}, {61}},
        {"SpinupDelay", {1}, {2}},                {"AbortTaskRestrain", {1}, {}},
        {"TargetResetMode", {}, {-1}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.member);
        for (int64_t v : c.ok) EXPECT_TRUE(accepts(row(c.member).range, v)) << v;
        for (int64_t v : c.refused) EXPECT_FALSE(accepts(row(c.member).range, v)) << v;
    }
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
    struct Case {
        const char *member;
        int isolType;
        int64_t want;  // INT64_MIN: refused
    } cases[] = {
        {"LinkDownWatch", 0, -2},  {"FcIfThreshold", 0, 2048}, {"ScsiResetError", 0, 1},
        {"ScsiCmdRetry", 0, 9},    {"IsolateSetting", 0, 2},   {"IsolateSetting", 1, 1},
        {"IsolateSetting", 3, INT64_MIN},
    };
    for (const Case &c : cases) {
        rec.isol_type = uint8_t(c.isolType);
        int64_t v = 0;
        EXPECT_EQ(currentFrom(row(c.member), bytes, sizeof rec, &v), c.want != INT64_MIN) << c.member;
        if (c.want != INT64_MIN) {
            EXPECT_EQ(v, c.want) << c.member;
        }
    }
}

TEST(ParamsTable, StoredSettingsAsReported) {
    struct Case {
        const char *member;
        int64_t stored, reported;
    } cases[] = {
        {"IsolateSetting", 0, 2}, {"IsolateSetting", 1, 1},  {"IsolateSetting", 7, 7},
        {"IsolateSetting", -1, -1}, {"ScsiResetError", -1, -1}, {"ScsiResetError", 0, 0},
        {"ScsiResetError", 5, 1}, {"ScsiResetError", -5, 1}, {"QueueDepthCount", 0, 0},
    };
    for (const Case &c : cases) EXPECT_EQ(mapSetting(row(c.member), c.stored), c.reported) << c.member << c.stored;
}

TEST(LinkSettings, EncodingsAndPartitionModes) {
    // bit 6 alone is not a partition mode
    const std::pair<int, int> mlpf[] = {{0x00, 0}, {0x40, 0}, {0x80, 1}, {0xBF, 1}, {0xC0, 2}};
    for (auto [mode, cls] : mlpf) EXPECT_EQ(mlpfClass(uint8_t(mode)), cls) << mode;
    const std::pair<int, int> toEfi[] = {{1, 0}, {2, 1}, {3, 3}}, fromEfi[] = {{0, 1}, {1, 2}, {2, 3}, {3, 3}, {255, 3}};
    for (auto [type, efi] : toEfi) EXPECT_EQ(connectionTypeToEfi(uint8_t(type)), efi) << type;
    for (auto [efi, type] : fromEfi) EXPECT_EQ(connectionTypeFromEfi(uint8_t(efi)), type) << efi;
    const std::pair<uint32_t, int> rates[] = {{100, 1}, {200, 2}, {400, 4}, {800, 8}, {1000, 10}, {1600, 0}, {0, 0}, {150, 0}};
    for (auto [rate, speed] : rates) EXPECT_EQ(portSpeedFromRate(rate), speed) << rate;
    for (int s = 0; s < 256; ++s) {
        bool want = s == 0 || s == 1 || s == 2 || s == 4 || s == 8 || s == 10;
        EXPECT_EQ(portSpeedValid(uint8_t(s)), want) << s;
    }
}
