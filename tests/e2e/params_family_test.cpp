// The port parameter family in the virtual host, one test instance per
// member: current value from the simulated driver, setting value from
// "/etc/qmxldd.conf", stores, deletes, range refusals, the driver-wide key,
// unknown WWNs, null outputs and failing driver queries.
#include <cerrno>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <ostream>
#include <string>

#include "params_support.h"

namespace {

using GetFn = std::function<QMX_STATUS(QMX_WWN, int64_t *, int64_t *)>;
using SetFn = std::function<QMX_STATUS(QMX_WWN, int64_t, int)>;
using NormFn = int64_t (*)(int64_t);

struct Member {
    const char *name;    // "QueueDepthCount"
    const char *suffix;  // key suffix
    const char *record;  // "prinfo" or "isolation" (the sim's state object)
    const char *field;   // field of the driver record, nullptr: none reported
    int64_t raw;         // what the simulated driver reports
    int64_t cur;         // the current value the getter must give for it
    int64_t good;        // an accepted value
    int64_t bad;         // a refused value
    const char *word;    // "<word> is invalid value"
    int64_t presetC, presetS;
    const char *nullC, *nullS;  // null-output traces
    GetFn get;
    SetFn set;
    NormFn norm;         // a value as the API type holds it
    bool checkOnDelete;  // the range is checked when del != 0 (and not when 0)
    bool hexValue;       // stored as "0x%02x"

    std::string getName() const { return std::string("QMX_Get") + name; }
    std::string setName() const { return std::string("QMX_Set") + name; }
    std::string request() const {
        return std::string(record) == "isolation" ? "IOCTL_QMX_HBA_ISOLATION" : "IOCTL_QMX_SC_PRINFO";
    }
    // The stored text of a value.
    std::string text(int64_t v) const {
        char buf[32];
        if (hexValue)
            std::snprintf(buf, sizeof buf, "0x%02x", unsigned(v & 0xFF));
        else
            std::snprintf(buf, sizeof buf, "%d", int(v));
        return buf;
    }
};

void PrintTo(const Member &m, std::ostream *os) { *os << m.name; }

template <class T>
int64_t normOf(int64_t v) {
    return int64_t(T(v));
}

constexpr int64_t kSentinel = 0x5A;

template <class T>
GetFn getterOf(QMX_STATUS (*g)(QMX_WWN, T *, T *)) {
    return [g](QMX_WWN w, int64_t *c, int64_t *s) {
        T C = T(kSentinel), S = T(kSentinel);
        QMX_STATUS st = g(w, c ? &C : nullptr, s ? &S : nullptr);
        if (c) *c = int64_t(C);
        if (s) *s = int64_t(S);
        return st;
    };
}
template <class T>
SetFn setterOf(QMX_STATUS (*s)(QMX_WWN, T, int)) {
    return [s](QMX_WWN w, int64_t v, int del) { return s(w, T(v), del); };
}

template <class T>
Member row(const char *name, QMX_STATUS (*g)(QMX_WWN, T *, T *), QMX_STATUS (*s)(QMX_WWN, T, int),
           const char *suffix, const char *record, const char *field, int64_t raw, int64_t cur,
           int64_t good, int64_t bad, const char *word, int64_t presetC, int64_t presetS,
           const char *nullC, const char *nullS) {
    Member m{name, suffix, record, field, raw, cur, good, bad, word, presetC, presetS, nullC, nullS,
             getterOf(g), setterOf(s), &normOf<T>, false, false};
    return m;
}

Member pref() {
    Member m = row<QMX_PREFERREDALPA>(
        "PreferredALPANumber", QMX_GetPreferredALPANumber, QMX_SetPreferredALPANumber,
        "_preferred_alpa", "prinfo", "pref_alpa", 0xE8, 0xE8, 0x01, 255, "preferredalpanumber", 0, 0,
        "C_preferredalpanumber == NULL", "S_preferredalpanumber == NULL");
    m.hexValue = true;
    return m;
}
Member mck() {
    Member m = row<int>("MckRetryCnt", QMX_GetMckRetryCnt, QMX_SetMckRetryCnt, "_mck_retry", "prinfo",
                        "max_mck_cnt", -2, -2, 10, 11, "mck_cnt", -1, -1, "C_mck_cnt is null",
                        "S_mck_cnt is null");
    m.checkOnDelete = true;
    return m;
}
Member mbTimeout() {
    // Bounds from the caller: 0..10 here.
    Member m = row<int>("MbTimeoutRetry", QMX_GetMbTimeoutRetry, nullptr, "_to_reset_retry",
                        "isolation", "to_reset_retry", 3, 3, 5, 11, "settingval", -1, -1,
                        "C_settingval is null", "S_settingval is null");
    m.set = [](QMX_WWN w, int64_t v, int del) { return QMX_SetMbTimeoutRetry(w, int(v), del, 0, 10); };
    return m;
}

const char *kIsNullC = "C_settingval is null";
const char *kIsNullS = "S_settingval is null";

std::vector<Member> members() {
    return {
        row<QMX_TRANSFERSIZE>("MaxTransferSize", QMX_GetMaxTransferSize, QMX_SetMaxTransferSize,
                              "_max_transfer", "prinfo", "dma_max", 8 << 20, 8, 16, 2, "transfersize",
                              0, 0, "C_transfersize == NULL", "S_transfersize == NULL"),
        row<QMX_UINT32>("QueueDepthCount", QMX_GetQueueDepthCount, QMX_SetQueueDepthCount,
                        "_queue_depth", "prinfo", "queue_depth", 64, 64, 256, 257, "queue", 0, 0,
                        "C_queue is null", "S_queue is null"),
        row<QMX_UINT32>("LinkDownTime", QMX_GetLinkDownTime, QMX_SetLinkDownTime, "_link_down",
                        "prinfo", "linkup_tmo", 45, 45, 60, 61, "linkdowntime", 0, -1,
                        "C_linkdowntime == NULL", "S_linkdowntime is null"),
        row<QMX_UINT32>("ResetDelayTime", QMX_GetResetDelayTime, QMX_SetResetDelayTime,
                        "_reset_delay", "prinfo", "scsi_reset_delay", 7, 7, 0, 61, "resetdelaytime", 0,
                        -1, "C_resetdelaytime == NULL", "S_resetdelaytime is null"),
        row<QMX_UINT32>("ResetTimeOut", QMX_GetResetTimeOut, QMX_SetResetTimeOut, "_reset_timeout",
                        "prinfo", "target_reset_tmo", 25, 25, 1, -1, "resettimeout", 0, -1,
                        "C_resettimeout == NULL", "S_resettimeout is null"),
        row<QMX_UINT32>("AbortTimeOut", QMX_GetAbortTimeOut, QMX_SetAbortTimeOut, "_abort_timeout",
                        "prinfo", "abort_tmo", 15, 15, 60, 61, "aborttime", 0, -1, "C_aborttime is null",
                        "S_aborttime is null"),
        mck(),
        row<int>("ScsiAllowedCnt", QMX_GetScsiAllowedCnt, QMX_SetScsiAllowedCnt, "_scsi_allowed",
                 "prinfo", "scsi_allowed", 5, 5, 30, 0, "allowed_cnt", -1, -1, "C_allowed_cnt is null",
                 "S_allowed_cnt is null"),
        row<int>("ScsiDelayTime", QMX_GetScsiDelayTime, QMX_SetScsiDelayTime, "_tmt_delay", "prinfo",
                 "tmt_delay", 9, 9, 0, -1, "scsidelay", -1, -1, "C_scsidelay is null",
                 "S_scsidelay is null"),
        row<int>("AbortTaskRestrain", QMX_GetAbortTaskRestrain, QMX_SetAbortTaskRestrain,
                 "_abort_t_restrain", "prinfo", "abort_t_restrain", 1, 1, 0, 2, "settingval", -1, -1,
                 kIsNullC, kIsNullS),
        row<int>("LunResetDelay", QMX_GetLunResetDelay, QMX_SetLunResetDelay, "_lun_reset_delay",
                 "prinfo", "lun_reset_delay", 12, 12, 60, 61, "delaytimer", 0, -1,
                 "C_delaytimer is null", "S_delaytimer is null"),
        row<int>("InterruptType", QMX_GetInterruptType, QMX_SetInterruptType, "_msi_enable", "prinfo",
                 "msi_flag", 2, 2, 0, 3, "interrupt", 0, -1, "C_interrupt is null",
                 "S_interrupt is null"),
        row<int>("TargetResetMode", QMX_GetTargetResetMode, QMX_SetTargetResetMode, "_enable_tgtrst",
                 "prinfo", "target_reset_mode", 0, 0, 1, 2, "settingval", -1, -1, "C_setting == NULL",
                 "S_setting == NULL"),
        row<int>("PathHealthCheckTO", QMX_GetPathHealthCheckTO, QMX_SetPathHealthCheckTO,
                 "_pathchk_to", "prinfo", nullptr, 0, -1, 30, 0, "settingval", -1, -1,
                 "C_setting == NULL", "S_setting == NULL"),
        pref(),
        row<int>("IsolateSetting", QMX_GetIsolateSetting, QMX_SetIsolateSetting, "_isol_type",
                 "isolation", "isol_type", 1, 1, 2, 3, "settingval", -1, -1, kIsNullC, kIsNullS),
        row<int>("LinkDownWatch", QMX_GetLinkDownWatch, QMX_SetLinkDownWatch, "_ld_err_intvl",
                 "isolation", "ld_err_intvl", 33, 33, 1, 0, "settingval", -1, -1, kIsNullC, kIsNullS),
        row<int>("LinkDownCountLT", QMX_GetLinkDownCountLT, QMX_SetLinkDownCountLT, "_ld_err_limit_l",
                 "isolation", "ld_err_limit_l", 7, 7, 30, 31, "settingval", -1, -1, kIsNullC, kIsNullS),
        row<int>("LinkDownCountST", QMX_GetLinkDownCountST, QMX_SetLinkDownCountST, "_ld_err_limit_s",
                 "isolation", "ld_err_limit_s", 2, 2, 0, -1, "settingval", -1, -1, kIsNullC, kIsNullS),
        row<int>("FcIfWatch", QMX_GetFcIfWatch, QMX_SetFcIfWatch, "_if_err_intvl", "isolation",
                 "if_err_intvl", 59, 59, 60, 61, "settingval", -1, -1, kIsNullC, kIsNullS),
        row<int>("FcIfThreshold", QMX_GetFcIfThreshold, QMX_SetFcIfThreshold, "_if_err_limit",
                 "isolation", "if_err_limit", 2000, 2000, 2048, 2049, "settingval", -1, -1, kIsNullC,
                 kIsNullS),
        row<int>("ScsiTimeoutWatch", QMX_GetScsiTimeoutWatch, QMX_SetScsiTimeoutWatch,
                 "_to_err_intvl", "isolation", "to_err_intvl", 10, 10, 1, 0, "settingval", -1, -1,
                 kIsNullC, kIsNullS),
        row<int>("ScsiTimeoutThreshold", QMX_GetScsiTimeoutThreshold, QMX_SetScsiTimeoutThreshold,
                 "_to_err_limit", "isolation", "to_err_limit", 4, 4, 30, 31, "settingval", -1, -1,
                 kIsNullC, kIsNullS),
        row<int>("ScsiResetError", QMX_GetScsiResetError, QMX_SetScsiResetError, "_rt_err_enable",
                 "isolation", "rt_err_enable", 9, 1, 0, 2, "settingval", -1, -1, kIsNullC, kIsNullS),
        row<int>("MbLoginRetry", QMX_GetMbLoginRetry, QMX_SetMbLoginRetry, "_login_retry",
                 "isolation", "login_retry", 6, 6, 10, 11, "settingval", -1, -1, kIsNullC, kIsNullS),
        row<int>("MbELSRetry", QMX_GetMbELSRetry, QMX_SetMbELSRetry, "_els_retry", "isolation",
                 "els_retry", 8, 8, 0, 11, "settingval", -1, -1, kIsNullC, kIsNullS),
        mbTimeout(),
        row<int>("ScsiCmdRetry", QMX_GetScsiCmdRetry, QMX_SetScsiCmdRetry, "_scsi_to_retry",
                 "isolation", "scsi_to_retry", 4, 4, 10, -1, "settingval", -1, -1, kIsNullC, kIsNullS),
    };
}

}  // namespace

class ParamFamily : public ParamsVHostTest, public ::testing::WithParamInterface<Member> {
protected:
    const Member &m() const { return GetParam(); }
    static std::string key(int devno, const Member &m) {
        return "qmx" + std::to_string(devno) + m.suffix + "=";
    }
    // The driver reports `raw` for the member on port `devno`.
    void reportRaw(int devno) {
        if (m().field == nullptr) return;
        editState([&](qmxsim::json &s) { portOf(s, devno)[m().record][m().field] = m().raw; });
    }
};

TEST_P(ParamFamily, GetterReportsDriverValueAndStoredSetting) {
    reportRaw(1);
    appendConf("qmx1" + std::string(m().suffix) + "=" + m().text(m().good) + ":");
    discover();
    int requests = driverRequests(m().request(), 1);
    int64_t c = 0, s = 0;
    ASSERT_EQ(m().get(portWwn(1), &c, &s), 0) << QMX_LastErrorCode();
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    EXPECT_EQ(c, m().norm(m().cur));
    EXPECT_EQ(s, m().norm(m().good));
    EXPECT_TRUE(traceHas(m().getName() + " START"));
    EXPECT_TRUE(traceHas(m().getName() + " END"));
    EXPECT_EQ(driverRequests(m().request(), 1), requests + 1);
}

TEST_P(ParamFamily, GetterWithoutStoredSettingKeepsThePreset) {
    // The driver-wide key does not stand in for a port's own key.
    appendConf("qmx" + std::string(m().suffix) + "=" + m().text(m().good) + ":");
    int64_t c = 0, s = 0;
    ASSERT_EQ(m().get(portWwn(2), &c, &s), 0);
    EXPECT_EQ(s, m().norm(m().presetS));
}

TEST_P(ParamFamily, SetterStoresThenDeletes) {
    QMX_WWN w = portWwn(3);
    ASSERT_EQ(m().set(w, m().good, 0), 0) << QMX_LastErrorCode();
    EXPECT_TRUE(confHasItem(key(3, m()) + m().text(m().good))) << readFile(kConf);
    EXPECT_TRUE(confHasItem("qmxl3-wwpn=0x2100001122334461")) << readFile(kConf);
    // The configuration module image follows the file.
    std::string image = readFile("/lib/modules/" + release() + "/extra/qmxldd/qmxldd_conf.ko");
    EXPECT_NE(image.find(key(3, m()) + m().text(m().good) + ":"), std::string::npos);
    EXPECT_TRUE(traceHas(m().setName() + " END"));
    int64_t c = 0, s = 0;
    ASSERT_EQ(m().get(w, &c, &s), 0);
    EXPECT_EQ(s, m().norm(m().good));
    // Deleting: any value in range (the machine-check count checks it then).
    ASSERT_EQ(m().set(w, m().good, 1), 0);
    EXPECT_FALSE(confHas(key(3, m()))) << readFile(kConf);
    image = readFile("/lib/modules/" + release() + "/extra/qmxldd/qmxldd_conf.ko");
    EXPECT_EQ(image.find(key(3, m())), std::string::npos);
    ASSERT_EQ(m().get(w, &c, &s), 0);
    EXPECT_EQ(s, m().norm(m().presetS));
}

TEST_P(ParamFamily, OutOfRangeValueIsRefusedWithCode2) {
    std::string before = readFile(kConf);
    int refusingDel = m().checkOnDelete ? 1 : 0;
    EXPECT_TRUE(refused(m().set(portWwn(0), m().bad, refusingDel), 2));
    std::string word = std::string(m().word) + " is invalid value";
    EXPECT_TRUE(traceHas(word));
    EXPECT_TRUE(inOrder({m().setName() + " START", word, "QMX_ExeclusiveUnlock START",
                         m().setName() + " ABEND"}));
    EXPECT_EQ(readFile(kConf), before);
    // The other del value skips the check: a delete of an absent key (or,
    // for the machine-check count, a store) succeeds.
    EXPECT_EQ(m().set(portWwn(0), m().bad, 1 - refusingDel), 0);
    EXPECT_EQ(traceCount(word), 1);
}

TEST_P(ParamFamily, AllZeroWwnWritesTheDriverWideKeyWithoutPortLookup) {
    for (int devno = 0; devno < 4; ++devno) removePort(devno);
    ASSERT_EQ(m().set(QMX_WWN{}, m().good, 0), 0) << QMX_LastErrorCode();
    EXPECT_TRUE(confHasItem("qmx" + std::string(m().suffix) + "=" + m().text(m().good)))
        << readFile(kConf);
    EXPECT_FALSE(traceHas("QMX_InitRoutine START"));
    EXPECT_FALSE(traceHas("Invalid WWN"));
}

TEST_P(ParamFamily, UnknownWwnFailsWithCode4) {
    std::string before = readFile(kConf);
    QMX_WWN nobody = wwnOf(0x2100001122339999ull);
    int64_t c = 0, s = 0;
    EXPECT_TRUE(refused(m().get(nobody, &c, &s), 4));
    EXPECT_TRUE(refused(m().set(nobody, m().good, 0), 4));
    EXPECT_EQ(traceCount("Invalid WWN"), 2);
    EXPECT_EQ(readFile(kConf), before);
}

TEST_P(ParamFamily, NullOutputsAreRefusedAfterPresettingTheEarlierOne) {
    discover();
    int requests = driverRequests(m().request());
    int64_t c = 0, s = 0;
    EXPECT_TRUE(refused(m().get(portWwn(0), nullptr, &s), 2, m().nullC));
    EXPECT_EQ(s, kSentinel);  // not reached
    EXPECT_TRUE(refused(m().get(portWwn(0), &c, nullptr), 2, m().nullS));
    EXPECT_EQ(c, m().norm(m().presetC));
    EXPECT_EQ(driverRequests(m().request()), requests);
}

TEST_P(ParamFamily, FailingDriverQueryEndsWithTheCallsErrorLine) {
    discover();
    failRequest(m().request(), 0, EIO);
    appendConf("qmx0" + std::string(m().suffix) + "=" + m().text(m().good) + ":");
    int64_t c = 0, s = 0;
    EXPECT_TRUE(refused(m().get(portWwn(0), &c, &s), 7));
    EXPECT_EQ(before(m().getName() + " Error"), m().request());
    EXPECT_EQ(before(m().getName() + " ABEND"), m().getName() + " Error");
    EXPECT_EQ(c, m().norm(m().presetC));
    EXPECT_EQ(s, m().norm(m().presetS));
}

INSTANTIATE_TEST_SUITE_P(Members, ParamFamily, ::testing::ValuesIn(members()),
                         [](const ::testing::TestParamInfo<Member> &info) { return std::string(info.param.name); });
