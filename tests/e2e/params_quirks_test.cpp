// Members of the port parameter family that differ from the common pattern,
// the driver-wide switches, the single-value getter and the members the
// adapters do not offer.
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>
#include <string>
#include <vector>

#include "params_support.h"
#include "qmxldd_ioctl.h"

class ParamQuirks : public ParamsVHostTest {};

// Its range check when deleting and the unchecked store are family tests
// (ParamFamily, checkOnDelete).
TEST_F(ParamQuirks, MachineCheckRetryChecksItsRangeForAnyDelButZero) {
    EXPECT_TRUE(refused(QMX_SetMckRetryCnt(portWwn(0), 99, 2), 2, "mck_cnt is invalid value"));
    EXPECT_FALSE(confHasKey("qmx0_mck_retry"));
}

TEST_F(ParamQuirks, PathHealthCheckTimeoutResolvesThePortTwice) {
    ASSERT_EQ(QMX_SetPathHealthCheckTO(portWwn(2), 30, 0), 0);
    EXPECT_TRUE(inOrder({"QMX_SetPathHealthCheckTO START", "QMX_InitRoutine START",
                         "QMX_ExeclusiveLock START", "QMX_InitRoutine START",
                         "QMX_SetPathHealthCheckTO END"}));
    EXPECT_TRUE(confHasItem("qmx2_pathchk_to=30"));
    int c = 0, s = 0;
    ASSERT_EQ(QMX_GetPathHealthCheckTO(portWwn(2), &c, &s), 0);
    EXPECT_EQ(c, -1);  // the driver reports none
    EXPECT_EQ(s, 30);
}

TEST_F(ParamQuirks, PathHealthCheckTimeoutWithUnknownPortReleasesBeforeLocking) {
    EXPECT_TRUE(refused(QMX_SetPathHealthCheckTO(wwnOf(0x2100001122339999ull), 30, 0), 4));
    EXPECT_TRUE(inOrder({"QMX_SetPathHealthCheckTO START", "Invalid WWN", "QMX_ExeclusiveUnlock START",
                         "QMX_SetPathHealthCheckTO ABEND"}));
    EXPECT_FALSE(traceHas("QMX_ExeclusiveLock START"));
}

TEST_F(ParamQuirks, IsolationTypeIsMappedAndUnknownTypesFail) {
    editState([](qmxsim::json &s) {
        portOf(s, 0)["isolation"]["isol_type"] = 0;
        portOf(s, 1)["isolation"]["isol_type"] = 3;
    });
    appendConf("qmx0_isol_type=0:qmx2_isol_type=7:qmx3_isol_type=1:");
    int c = 0, s = 0;
    ASSERT_EQ(QMX_GetIsolateSetting(portWwn(0), &c, &s), 0);
    EXPECT_EQ(c, 2);
    EXPECT_EQ(s, 2);
    ASSERT_EQ(QMX_GetIsolateSetting(portWwn(2), &c, &s), 0);
    EXPECT_EQ(s, 7);  // other stored values are reported as stored
    ASSERT_EQ(QMX_GetIsolateSetting(portWwn(3), &c, &s), 0);
    EXPECT_EQ(s, 1);
    EXPECT_TRUE(refused(QMX_GetIsolateSetting(portWwn(1), &c, &s), 1));
    EXPECT_TRUE(inOrder({"QMX_GetIsolateSetting START", "IOCTL_QMX_HBA_ISOLATION",
                         "Get isolation type illegal value.", "QMX_GetIsolateSetting ABEND"}));
    EXPECT_EQ(c, -1);
    EXPECT_EQ(s, -1);
}

TEST_F(ParamQuirks, ScsiResetErrorIsReducedToOnOff) {
    editState([](qmxsim::json &s) { portOf(s, 0)["isolation"]["rt_err_enable"] = 0; });
    appendConf("qmx0_rt_err_enable=5:qmx1_rt_err_enable=-1:");
    int c = 9, s = 9;
    ASSERT_EQ(QMX_GetScsiResetError(portWwn(0), &c, &s), 0);
    EXPECT_EQ(c, 0);
    EXPECT_EQ(s, 1);
    ASSERT_EQ(QMX_GetScsiResetError(portWwn(1), &c, &s), 0);
    EXPECT_EQ(c, 1);   // the driver's default is on
    EXPECT_EQ(s, -1);  // not set stays -1
}

TEST_F(ParamQuirks, TimeoutRetryTakesTheCallersBounds) {
    QMX_WWN w = portWwn(1);
    EXPECT_TRUE(refused(QMX_SetMbTimeoutRetry(w, 5, 0, 6, 9), 2));
    EXPECT_EQ(traceCount("settingval is invalid value"), 1);
    EXPECT_EQ(QMX_SetMbTimeoutRetry(w, 10, 0, 6, 9), 1);
    EXPECT_EQ(QMX_SetMbTimeoutRetry(w, 7, 0, 9, 6), 1);  // empty bounds refuse everything
    EXPECT_EQ(QMX_SetMbTimeoutRetry(w, 1000, 0, -5, 1000), 0);
    EXPECT_TRUE(confHasItem("qmx1_to_reset_retry=1000"));
    EXPECT_EQ(QMX_SetMbTimeoutRetry(w, 5, 1, 6, 9), 0);  // delete: no check
    EXPECT_FALSE(confHasKey("qmx1_to_reset_retry"));
}

TEST_F(ParamQuirks, InterruptTypeIsStoredForEveryFunctionOfTheAdapter) {
    ASSERT_EQ(QMX_SetInterruptType(portWwn(0), 2, 0), 0);
    EXPECT_TRUE(confHasItem("qmx0_msi_enable=2")) << readFile(kConf);
    EXPECT_TRUE(confHasItem("qmx1_msi_enable=2")) << readFile(kConf);
    EXPECT_FALSE(confHasKey("qmx2_msi_enable"));
    EXPECT_FALSE(confHasKey("qmx3_msi_enable"));
    ASSERT_EQ(QMX_SetInterruptType(portWwn(3), 1, 0), 0);
    EXPECT_TRUE(confHasItem("qmx2_msi_enable=1"));
    EXPECT_TRUE(confHasItem("qmx3_msi_enable=1"));
    EXPECT_TRUE(confHasItem("qmx0_msi_enable=2"));
    ASSERT_EQ(QMX_SetInterruptType(portWwn(1), 0, 1), 0);
    EXPECT_FALSE(confHasKey("qmx0_msi_enable"));
    EXPECT_FALSE(confHasKey("qmx1_msi_enable"));
    EXPECT_TRUE(confHasItem("qmx2_msi_enable=1"));
}

TEST_F(ParamQuirks, InterruptTypeForAnAdapterWithoutItsOwnNumberItems) {
    // The per-port WWN items are written for each function that gets a value.
    ASSERT_TRUE(writeFile(kConf, "qmx_queue_depth=32:"));
    ASSERT_EQ(QMX_SetInterruptType(portWwn(2), 2, 0), 0);
    EXPECT_TRUE(confHasItem("qmxl2-wwpn=0x2100001122334460")) << readFile(kConf);
    EXPECT_TRUE(confHasItem("qmxl3-wwpn=0x2100001122334461")) << readFile(kConf);
    EXPECT_TRUE(confHasItem("qmx2_msi_enable=2"));
    EXPECT_TRUE(confHasItem("qmx3_msi_enable=2"));
}

// The 1000 lookups are answered from one read of the file, and the trace is
// the one the engine's lookups of one key each write (time stamps aside).
TEST_F(ParamQuirks, PassChangeThresholdsReadTheFileOnceAndTraceEveryLookup) {
    appendConf("qmx1_retry_cnt5=7:qmx1_retry_cnt999=2048:qmx1_retry_cnt12=12" + std::string(130, 'x') +
               ":qmx_retry_cnt6=3:qmx0_retry_cnt0=1:");
    discover();
    const QMX_WWN w = portWwn(1);
    // Each line's time stamp ("YYYY/MM/DD hh:mm:ss") masked.
    auto traceFile = [] {
        std::string t = readFile(kTraceFile);
        for (std::size_t at = 0; at + 19 <= t.size(); at += 121)
            if (t[at + 4] == '/' && t[at + 7] == '/') t.replace(at, 19, 19, '#');
        return t;
    };
    clearTrace();
    int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(watch, 0);
    // Closes are watched too: identical events in a row would be merged.
    ASSERT_GE(inotify_add_watch(watch, kConf, IN_OPEN | IN_CLOSE_NOWRITE), 0);
    std::vector<int> c(1000, 42), s(1000, 42);
    ASSERT_EQ(QMX_GetPassChangeThreshold(w, c.data(), s.data()), 0);
    int opens = 0;
    alignas(inotify_event) char buf[64 * (sizeof(inotify_event) + 16)];
    for (ssize_t n; (n = read(watch, buf, sizeof buf)) > 0;)
        for (char *p = buf; p < buf + n; p += sizeof(inotify_event) + reinterpret_cast<inotify_event *>(p)->len)
            opens += (reinterpret_cast<inotify_event *>(p)->mask & IN_OPEN) ? 1 : 0;
    close(watch);
    EXPECT_EQ(opens, 1);
    EXPECT_EQ(s[5], 7);
    EXPECT_EQ(s[12], 12);  // an over-long value, cut to its field (traced on every lookup)
    EXPECT_EQ(s[999], 2048);
    EXPECT_EQ(s[6], -1);  // neither the driver-wide item nor port 0's is port 1's
    EXPECT_EQ(s[0], -1);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(c[std::size_t(i)], 0) << i;  // the simulated driver reports zeros
    EXPECT_TRUE(traceHas("QMX_GetPassChangeThreshold END"));
    std::string once = traceFile();

    // The same call made of the engine's single-key lookups.
    clearTrace();
    QMX_OpenApiTraceFile();
    QMX_WriteApiTraceFile(const_cast<char *>("QMX_GetPassChangeThreshold START"));
    int ind = QMX_InitRoutine(w);
    qmx_isol_info rec{};
    ASSERT_EQ(QMX_CallDriver(w, ind, int(IOCTL_QMX_HBA_ISOLATION), &rec), 0);
    for (int i = 0; i < 1000; ++i) {
        int v = -1;
        ASSERT_EQ(QMX_GetUtilValue(w, ind, const_cast<char *>("_retry_cnt"), i, &v), 0);
        EXPECT_EQ(v, s[std::size_t(i)]) << i;
    }
    QMX_WriteApiTraceFile(const_cast<char *>("QMX_GetPassChangeThreshold END"));
    QMX_CloseApiTraceFile();
    EXPECT_TRUE(once == traceFile()) << "traces differ";
    EXPECT_TRUE(traceHas("qmxldd.conf item truncated"));
}

TEST_F(ParamQuirks, PassChangeThresholdChecksTheThresholdThenTheErrorNumber) {
    QMX_WWN w = portWwn(1);
    appendConf("qmx1_retry_cnt7=3:");
    // A delete as the process's first change (the writer's retry-count table
    // keeps entries of earlier changes of the same process).
    ASSERT_EQ(QMX_SetPassChangeThreshold(w, 7, 99999, 1), 0);
    EXPECT_FALSE(confHasKey("qmx1_retry_cnt7")) << readFile(kConf);
    std::string before = readFile(kConf);
    EXPECT_TRUE(refused(QMX_SetPassChangeThreshold(w, 1000, 2049, 0), -1, "threshold is invalid value"));
    EXPECT_FALSE(traceHas("err_id is invalid value"));
    EXPECT_TRUE(refused(QMX_SetPassChangeThreshold(w, 1000, 5, 0), 2, "err_id is invalid value"));
    EXPECT_EQ(QMX_SetPassChangeThreshold(w, -1, 5, 1), 1);  // checked when deleting too
    EXPECT_EQ(traceCount("err_id is invalid value"), 2);
    EXPECT_EQ(readFile(kConf), before);
    ASSERT_EQ(QMX_SetPassChangeThreshold(w, 999, 2048, 0), 0);
    EXPECT_TRUE(confHasItem("qmx1_retry_cnt999=2048")) << readFile(kConf);
    ASSERT_EQ(QMX_SetPassChangeThreshold(w, 0, 0, 0), 0);
    EXPECT_TRUE(confHasItem("qmx1_retry_cnt0=0"));
    ASSERT_EQ(QMX_SetPassChangeThreshold(QMX_WWN{}, 3, 9, 0), 0);
    EXPECT_TRUE(confHasItem("qmx_retry_cnt3=9"));
}

TEST_F(ParamQuirks, PassChangeThresholdNullOutputs) {
    std::vector<int> c(1000, 42);
    EXPECT_TRUE(refused(QMX_GetPassChangeThreshold(portWwn(0), nullptr, c.data()), -1, "C_threshold is null"));
    EXPECT_EQ(c[0], 42);
    EXPECT_TRUE(refused(QMX_GetPassChangeThreshold(portWwn(0), c.data(), nullptr), 2, "S_threshold is null"));
    for (int v : c) ASSERT_EQ(v, -1);
}

TEST_F(ParamQuirks, LoggingModeAndTargetFilterAreDriverWideSwitches) {
    for (int devno = 0; devno < 4; ++devno) removePort(devno);  // no port needed
    EXPECT_TRUE(refused(QMX_SetLoggingMode(5, 0), 2, "log_mode is invalid value"));
    EXPECT_EQ(QMX_SetLoggingMode(5, 1), 0);  // a delete: not refused, nothing stored
    EXPECT_FALSE(confHasKey("qmx_limit_log"));
    EXPECT_EQ(QMX_SetLoggingMode(5, 2), 0);  // del 2 stores, unchecked
    EXPECT_TRUE(confHasItem("qmx_limit_log=5"));
    EXPECT_EQ(QMX_SetLoggingMode(1, 0), 0);
    EXPECT_TRUE(confHasItem("qmx_limit_log=1"));
    EXPECT_TRUE(refused(QMX_SetTgtFilter(2, 0), -1, "tgt_filter is invalid value"));
    EXPECT_EQ(QMX_SetTgtFilter(0, 0), 0);
    EXPECT_TRUE(confHasItem("qmx_filter_target=0"));
    EXPECT_TRUE(inOrder({"QMX_SetTgtFilter START", "QMX_ExeclusiveLock START", "QMX_SetTgtFilter END"}));
    EXPECT_FALSE(traceHas("QMX_InitRoutine START"));
}

TEST_F(ParamQuirks, CurrentOnlyGetters) {
    editState([](qmxsim::json &s) {
        portOf(s, 0)["prinfo"]["limit_log"] = 1;
        portOf(s, 0)["prinfo"]["filter_target"] = 2;
        portOf(s, 1)["prinfo"]["limit_log"] = -1;
        portOf(s, 1)["prinfo"]["filter_target"] = 1;
        portOf(s, 1)["prinfo"]["scsi_timeout_fail"] = 17;
    });
    int v = 9;
    ASSERT_EQ(QMX_GetLoggingMode(portWwn(0), &v), 0);
    EXPECT_EQ(v, 1);
    ASSERT_EQ(QMX_GetTgtFilter(portWwn(0), &v), 0);
    EXPECT_EQ(v, 0);
    ASSERT_EQ(QMX_GetLoggingMode(portWwn(1), &v), 0);
    EXPECT_EQ(v, 0);
    ASSERT_EQ(QMX_GetTgtFilter(portWwn(1), &v), 0);
    EXPECT_EQ(v, 1);
    ASSERT_EQ(QMX_GetScsiTimeoutFailCount(portWwn(1), &v), 0);
    EXPECT_EQ(v, 17);
    EXPECT_TRUE(refused(QMX_GetLoggingMode(portWwn(0), nullptr), -1, "C_log_mode is null"));
    EXPECT_TRUE(refused(QMX_GetTgtFilter(portWwn(0), nullptr), -1, "C_tgt_filter is null"));
    EXPECT_TRUE(refused(QMX_GetScsiTimeoutFailCount(portWwn(0), nullptr), 2, "scsitimeoout == NULL"));
}

TEST_F(ParamQuirks, CurrentOnlyGettersPresetBeforeTheQuery) {
    discover();
    failRequest("IOCTL_QMX_SC_PRINFO", 0, EIO);
    int v = 9;
    EXPECT_EQ(QMX_GetLoggingMode(portWwn(0), &v), 1);
    EXPECT_EQ(v, -1);
    EXPECT_EQ(QMX_GetScsiTimeoutFailCount(portWwn(0), &v), 1);
    EXPECT_EQ(v, 0);
    EXPECT_TRUE(inOrder({"QMX_GetScsiTimeoutFailCount START", "IOCTL_QMX_SC_PRINFO",
                         "QMX_GetScsiTimeoutFailCount Error", "QMX_GetScsiTimeoutFailCount ABEND"}));
}

TEST_F(ParamQuirks, EngineFailureTracesTheErrorLineOnlyForSomeGetters) {
    discover();
    ASSERT_TRUE(removeFile(kConf));
    QMX_UINT32 uc = 0, us = 0;
    int c = 0, s = 0;
    EXPECT_EQ(QMX_GetMaxTransferSize(portWwn(0), &uc, &us), 1);
    EXPECT_EQ(uc, 4096u >> 20);  // the current value stays filled
    EXPECT_TRUE(inOrder({"QMX_GetMaxTransferSize START", "QMX_GetUtilValue ABEND",
                         "QMX_GetMaxTransferSize Error", "QMX_GetMaxTransferSize ABEND"}));
    EXPECT_EQ(QMX_GetTargetResetMode(portWwn(0), &c, &s), 1);
    EXPECT_EQ(c, 1);
    EXPECT_TRUE(traceHas("QMX_GetTargetResetMode Error"));
    EXPECT_TRUE(refused(QMX_GetPathHealthCheckTO(portWwn(0), &c, &s), -1, "QMX_GetPathHealthCheckTO Error"));
    EXPECT_EQ(QMX_GetQueueDepthCount(portWwn(0), &uc, &us), 1);
    EXPECT_EQ(uc, 32u);
    EXPECT_TRUE(traceHas("QMX_GetQueueDepthCount ABEND"));
    EXPECT_FALSE(traceHas("QMX_GetQueueDepthCount Error"));
    EXPECT_EQ(QMX_GetLinkDownWatch(portWwn(0), &c, &s), 1);
    EXPECT_FALSE(traceHas("QMX_GetLinkDownWatch Error"));
}

TEST_F(ParamQuirks, UnsupportedMembersTraceAndFailWithoutTouchingOutputs) {
    int c = 77, s = 77;
    EXPECT_EQ(QMX_GetScatterGather(portWwn(0), &c, &s), 1);
    EXPECT_EQ(QMX_SetScatterGather(portWwn(0), 5, 0), 1);
    EXPECT_EQ(QMX_GetMSCS(&c, &s), 1);
    EXPECT_EQ(QMX_SetMSCS(1, 0), 1);
    EXPECT_EQ(c, 77);
    EXPECT_EQ(s, 77);
    std::vector<std::string> want = {
        "QMX_GetScatterGather START", "QMX_GetScatterGather UNSUPPORTED",
        "QMX_SetScatterGather START", "QMX_SetScatterGather UNSUPPORTED",
        "QMX_GetMSCS START",          "QMX_GetMSCS UNSUPPORTED",
        "QMX_SetMSCS START",          "QMX_SetMSCS UNSUPPORTED"};
    EXPECT_EQ(traceLines(), want);
    EXPECT_EQ(driverRequests("IOCTL_QMX_SC_PRINFO"), 0);  // not even discovery
}

TEST_F(ParamQuirks, SetterThatCannotTakeTheLockEndsWithCode5) {
    ASSERT_EQ(QMX_ExeclusiveLock(1), 0);  // held by someone else from now on
    std::string before = readFile(kConf);
    clearTrace();
    EXPECT_TRUE(refused(QMX_SetQueueDepthCount(portWwn(0), 8, 0), 5));
    EXPECT_TRUE(inOrder({"QMX_SetQueueDepthCount START", "Lock retry count overflow !!",
                         "QMX_SetQueueDepthCount END"}));
    EXPECT_FALSE(traceHas("QMX_SetQueueDepthCount ABEND"));
    EXPECT_FALSE(traceHas("QMX_InitRoutine START"));
    EXPECT_EQ(readFile(kConf), before);
    EXPECT_EQ(QMX_ExeclusiveLockCheck(1), 0) << "the failed call must not release a lock it never took";
    QMX_ExeclusiveUnlock(1);
}
