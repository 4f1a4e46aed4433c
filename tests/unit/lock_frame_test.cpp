// The exclusive lock between processes and the call frame around it.  These
// run inside the virtual host: the lock keys hang off files under /etc and
// /opt, and each test starts with a fresh IPC namespace.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "frame/frame.h"
#include "frame_test_util.h"

namespace {

using frametest::contains;

std::vector<std::string> traceTexts() { return frametest::texts(); }

// A setter frame that cannot take the lock, and a getter frame's null
// outputs, are checked through the library's calls (ParamQuirks, ParamFamily).
class LockTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!frametest::inVirtualHost()) GTEST_SKIP() << "needs the virtual host (run through ctest)";
        QMX_OpenApiTraceFile();
    }
    void TearDown() override {
        QMX_CloseApiTraceFile();
        QMX_ExeclusiveUnlock(1);  // tests sharing one host must not inherit a held lock
        QMX_CloseApiTraceFile();
    }
};

TEST_F(LockTest, FreeLockIsTakenAtOnceAndSeenByOtherProcesses) {
    EXPECT_EQ(QMX_ExeclusiveLockCheck(1), 1);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(QMX_ExeclusiveLock(1), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
    EXPECT_EQ(QMX_ExeclusiveLockCheck(1), 0);

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(QMX_ExeclusiveLockCheck(1) == 0 ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "another process does not see the lock";

    EXPECT_EQ(QMX_ExeclusiveUnlock(1), 0);
    EXPECT_EQ(QMX_ExeclusiveLockCheck(1), 1);
    EXPECT_EQ(QMX_ExeclusiveUnlock(1), 0);  // releasing a free lock succeeds
    QMX_CloseApiTraceFile();
    EXPECT_TRUE(contains(traceTexts(), "/etc/qmxldd.conf is Lock SUCCESS"));
}

TEST_F(LockTest, HeldLockFailsAfterFiveTriesWithCode5) {
    ASSERT_EQ(QMX_ExeclusiveLock(1), 0);
    QMX_G_ERROR_CD = 0;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(QMX_ExeclusiveLock(1), -1);
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(waited, std::chrono::seconds(9));
    EXPECT_LT(waited, std::chrono::seconds(30));
    EXPECT_EQ(QMX_G_ERROR_CD, 5);
    QMX_CloseApiTraceFile();
    EXPECT_TRUE(contains(traceTexts(), "/etc/qmxldd.conf is Lock FAIL.retry count over"));
}

TEST_F(LockTest, UnknownTargetAndMissingKeyFile) {
    char msg[64] = "untouched";
    QMX_G_ERROR_CD = 0;
    EXPECT_EQ(QMX_GetLockKey(7, msg), -1);
    EXPECT_STREQ(msg, "untouched");
    EXPECT_EQ(QMX_G_ERROR_CD, 10);
    EXPECT_EQ(QMX_ExeclusiveLock(7), -1);
    EXPECT_EQ(QMX_ExeclusiveUnlock(0), -1);

    // Target 5's key file does not exist on the virtual host: ftok fails.
    QMX_G_ERROR_CD = 0;
    EXPECT_EQ(QMX_GetLockKey(5, msg), -1);
    EXPECT_STREQ(msg, "/etc/rc.d/init.d/qmxmknod");
    EXPECT_EQ(QMX_G_ERROR_CD, 1);
    QMX_CloseApiTraceFile();
    auto t = traceTexts();
    EXPECT_TRUE(contains(t, "QMX_GetLockKey START(7)"));
    EXPECT_TRUE(contains(t, "Unknown lock target"));
    EXPECT_TRUE(contains(t, "ftok lock key get fail"));  // trailing blank trimmed by traceTexts()
    EXPECT_TRUE(contains(t, "Not found unlock dir"));
}

TEST_F(LockTest, SetFrameUnlocksBeforeItsEndLine) {
    QMX_CloseApiTraceFile();
    QMX_STATUS st = qmx::run("QMX_SetProbe", [&](qmx::Frame &f) {
        if (!f.lock()) return f.status();
        bool ok = true;
        EXPECT_EQ(f.setterPort(wwn_all_zero, &ok), -1);  // driver-wide: no lookup
        EXPECT_TRUE(ok);
        return f.ok();
    });
    EXPECT_EQ(st, 0);
    EXPECT_EQ(QMX_ExeclusiveLockCheck(1), 1);
    auto t = traceTexts();
    EXPECT_FALSE(contains(t, "QMX_InitRoutine START"));
    ASSERT_GE(t.size(), 4u);
    EXPECT_EQ(t[t.size() - 4], "QMX_ExeclusiveUnlock START");
    EXPECT_EQ(t[t.size() - 3], "QMX_GetLockKey START(1)");
    EXPECT_EQ(t[t.size() - 2], "QMX_SetProbe END");
}

TEST_F(LockTest, ExceptionsNeverLeaveTheFrameNorChangeATracedOutcome) {
    QMX_CloseApiTraceFile();
    QMX_STATUS st = qmx::run("QMX_GetProbe", [&](qmx::Frame &) -> QMX_STATUS { throw std::bad_alloc(); });
    EXPECT_EQ(st, 1);
    EXPECT_EQ(QMX_LastErrorCode(), 1);
    auto t = traceTexts();
    EXPECT_TRUE(contains(t, "malloc error"));
    EXPECT_EQ(t[t.size() - 2], "QMX_GetProbe ABEND");
    unlink(frametest::kHostTrace);  // only the second call's lines
    st = qmx::run("QMX_GetProbe", [&](qmx::Frame &f) -> QMX_STATUS {
        f.ok();
        throw std::bad_alloc();
    });
    EXPECT_EQ(st, 0);
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    t = traceTexts();
    EXPECT_FALSE(contains(t, "malloc error"));
    EXPECT_FALSE(contains(t, "QMX_GetProbe ABEND"));
    EXPECT_EQ(t[t.size() - 2], "QMX_GetProbe END");
}

TEST(VendorVersion, CallerWritesDoNotReachTheNextCaller) {
    QMX_G_ERROR_CD = 9;
    char *v = QMX_GetVendorAPIVersion();
    EXPECT_STREQ(v, "06-02");
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    std::strcpy(v, "xx-x");
    EXPECT_STREQ(QMX_GetVendorAPIVersion(), "06-02");
}

}  // namespace
