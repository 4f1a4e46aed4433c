// The exclusive lock between processes and the call frame around it.  These
// run inside the virtual host: the lock keys hang off files under /etc and
// /opt, and each test starts with a fresh IPC namespace.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "frame/frame.h"
#include "frame_test_util.h"
#include "qmxlock.h"

namespace {

using frametest::contains;

std::vector<std::string> traceTexts() { return frametest::texts(); }

bool writeTextFile(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    return bool(out.flush());
}

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

// Lock 1's segment as a tool sees it.
char *segment() {
    int id = shmget(ftok("/etc/qmxldd.conf", 1), QMX_LOCK_SEGMENT_SIZE, IPC_CREAT | 0666);
    void *p = id < 0 ? reinterpret_cast<void *>(-1) : shmat(id, nullptr, 0);
    return p == reinterpret_cast<void *>(-1) ? nullptr : static_cast<char *>(p);
}

qmx_lock_holder holderOf(const char *seg) {
    qmx_lock_holder h;
    std::memcpy(&h, seg + QMX_LOCK_RECORD_OFFSET, sizeof h);
    return h;
}

// "LOCK" as an older process leaves it: no holder record.  Its holder
// cannot be known to be gone, so it is waited for and the lock fails.
TEST_F(LockTest, LockWithoutHolderRecordFailsAfterFiveTriesWithCode5) {
    char *seg = segment();
    ASSERT_NE(seg, nullptr);
    std::memset(seg, 0, QMX_LOCK_SEGMENT_SIZE);
    std::memcpy(seg, "LOCK", 5);
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

// Who the holder record names decides whether the lock is taken at once and
// whether the library's own release frees it (QMX_ExeclusiveUnlock frees
// any: FreeLockIsTakenAtOnceAndSeenByOtherProcesses).
TEST_F(LockTest, HolderRecordDecidesTakeoverAndOwnRelease) {
    enum Holder { Bare, KilledHolder, ReusedPid, LiveOther, Self };
    struct Case {
        const char *name;
        Holder holder;
        bool takenAtOnce;  // false: not tried, it would wait its 10 seconds
        bool ownReleaseFrees;
    };
    const Case cases[] = {
        {"bare LOCK", Bare, false, false},
        {"holder killed", KilledHolder, true, false},
        {"pid now another process", ReusedPid, true, false},
        {"live holder", LiveOther, false, false},
        {"this process", Self, false, true},
    };
    char *seg = segment();
    ASSERT_NE(seg, nullptr);
    auto hold = [&](Holder h) {
        std::memset(seg, 0, QMX_LOCK_SEGMENT_SIZE);
        if (h == KilledHolder) {
            // A process that takes lock 1 through the library and is killed.
            pid_t child = fork();
            if (child == 0) {
                if (QMX_ExeclusiveLock(1) == 0) raise(SIGKILL);
                _exit(1);
            }
            int ws = 0;
            waitpid(child, &ws, 0);
            ASSERT_TRUE(WIFSIGNALED(ws)) << "the child did not take the lock";
            return;
        }
        if (h == Bare) {
            std::memcpy(seg, "LOCK", 5);
            return;
        }
        ASSERT_EQ(QMX_ExeclusiveLock(1), 0);  // this process's record, altered below
        if (h == Self) return;
        qmx_lock_holder rec = holderOf(seg);
        if (h == ReusedPid) rec.start_ticks += 1;
        if (h == LiveOther) rec.pid = getppid(), rec.start_ticks = 0;
        std::memcpy(seg + QMX_LOCK_RECORD_OFFSET, &rec, sizeof rec);
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        hold(c.holder);
        qmx::releaseOwnLock(1);
        EXPECT_EQ(QMX_ExeclusiveLockCheck(1), c.ownReleaseFrees ? 1 : 0);
        if (!c.takenAtOnce) continue;
        hold(c.holder);
        QMX_CloseApiTraceFile();
        unlink(frametest::kHostTrace);
        QMX_OpenApiTraceFile();
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(QMX_ExeclusiveLock(1), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
        EXPECT_EQ(holderOf(seg).pid, getpid());
        QMX_CloseApiTraceFile();
        auto t = traceTexts();
        EXPECT_TRUE(std::any_of(t.begin(), t.end(), [](const std::string &l) {
            return l.starts_with("/etc/qmxldd.conf is Lock TAKEOVER from dead process ");
        }));
        EXPECT_TRUE(contains(t, "/etc/qmxldd.conf is Lock SUCCESS"));
    }
}

// Processes of this library never hold lock 1 together: each of 8 counts
// its critical sections in a shared file and marks it as its own while
// inside; a second process inside, or a lost count, is an overlap.
TEST_F(LockTest, EightProcessesNeverHoldTheLockTogether) {
    constexpr int kProcs = 8, kRounds = 2;
    const std::string file = "/tmp/lock_stress." + std::to_string(getpid());
    ASSERT_EQ(writeTextFile(file, "0 0\n"), true);
    auto readPair = [&](long *owner, long *count) {
        std::ifstream in(file);
        return bool(in >> *owner >> *count);
    };
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            int mine = 0, overlaps = 0;
            for (int r = 0; r < kRounds; ++r) {
                if (QMX_ExeclusiveLock(1) != 0) continue;
                long owner = -1, count = -1;
                if (!readPair(&owner, &count) || owner != 0) ++overlaps;
                writeTextFile(file, std::to_string(getpid()) + " " + std::to_string(count) + "\n");
                usleep(2000);
                if (!readPair(&owner, &count) || owner != getpid()) ++overlaps;
                writeTextFile(file, "0 " + std::to_string(count + 1) + "\n");
                ++mine;
                QMX_ExeclusiveUnlock(1);
            }
            _exit(overlaps != 0 ? 100 : mine);
        }
        kids.push_back(child);
    }
    int sections = 0;
    for (pid_t k : kids) {
        int ws = 0;
        waitpid(k, &ws, 0);
        ASSERT_TRUE(WIFEXITED(ws));
        ASSERT_NE(WEXITSTATUS(ws), 100) << "two processes inside at once";
        sections += WEXITSTATUS(ws);
    }
    long owner = -1, count = -1;
    ASSERT_TRUE(readPair(&owner, &count));
    unlink(file.c_str());
    EXPECT_EQ(owner, 0);
    EXPECT_EQ(count, sections) << "a count was lost: two processes were inside at once";
    EXPECT_GT(sections, 0);
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
