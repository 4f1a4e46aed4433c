// The API trace ring: fixed-width lines, the marker, the wrap, message
// splitting and the marker scan of an existing file.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "frame/frame.h"
#include "frame_test_util.h"


namespace {

using frametest::slurp;

// "a" + b built by appending: GCC 12 reports a false -Wrestrict overlap for
// `"literal" + std::string` at -O3.
std::string cat(std::string a, std::string_view b) {
    a += b;
    return a;
}
std::string padded(std::string text) {
    text.resize(120, ' ');
    return text;
}

// Each test writes its own trace file so that tests never share one.
class TraceRing : public ::testing::Test {
protected:
    void SetUp() override {
        name_ = std::string("trace-") + ::testing::UnitTest::GetInstance()->current_test_info()->name() +
                ".txt";
        path_ = frametest::tracePath(name_);
        unlink(path_.c_str());
        ASSERT_EQ(QMX_ChangeTraceLogFile(const_cast<char *>(name_.c_str())), 0);
    }
    void TearDown() override {
        QMX_CloseApiTraceFile();
        unlink(path_.c_str());
    }
    std::vector<std::string> lines() const { return frametest::rawLines(path_); }
    static std::string text(const std::string &line) { return frametest::text(line); }
    static void write(const std::string &msg) { QMX_WriteApiTraceFile(const_cast<char *>(msg.c_str())); }

    std::string name_, path_;
};

TEST_F(TraceRing, NewFileHoldsStartEndAndMarker) {
    { qmx::Frame f("QMX_Probe"); f.ok(); }
    auto l = lines();
    ASSERT_EQ(l.size(), 3u);
    EXPECT_EQ(text(l[0]), "QMX_Probe START");
    EXPECT_EQ(text(l[1]), "QMX_Probe END");
    EXPECT_EQ(l[2], padded("EndLog"));
}

TEST_F(TraceRing, StampIsTheLocalTimeOfEachWriteThenThePid) {
    // Also once the second has turned since the last line.
    auto stampAt = [](std::time_t t) {
        struct tm tmv;
        char b[32];
        localtime_r(&t, &tmv);
        std::strftime(b, sizeof b, "%Y/%m/%d %H:%M:%S ", &tmv);
        return std::string(b);
    };
    QMX_OpenApiTraceFile();
    std::time_t spans[2][2];  // the clock before and after each write
    for (int i = 0; i < 2; ++i) {
        while (i == 1 && std::time(nullptr) == spans[0][1]) usleep(10000);  // the next second
        spans[i][0] = std::time(nullptr);
        write("x");
        spans[i][1] = std::time(nullptr);
    }
    QMX_CloseApiTraceFile();
    auto l = lines();
    ASSERT_EQ(l.size(), 3u);
    for (int i = 0; i < 2; ++i) {
        const std::string got = l[std::size_t(i)].substr(0, 20);
        EXPECT_TRUE(got == stampAt(spans[i][0]) || got == stampAt(spans[i][1])) << got;
        std::string rest = std::to_string(getpid()) + " x";
        rest.resize(100, ' ');
        EXPECT_EQ(l[std::size_t(i)].substr(20), rest);
    }
}

TEST_F(TraceRing, WrapsAfter4000LinesAndMarkerFollowsNewest) {
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    for (int i = 1; i <= 4001; ++i) write(cat("m", std::to_string(i)));
    QMX_CloseApiTraceFile();
    auto l = lines();
    ASSERT_EQ(l.size(), 4000u);
    EXPECT_EQ(text(l[0]), "m4001");
    EXPECT_EQ(text(l[1]), "EndLog");
    EXPECT_EQ(text(l[2]), "m3");  // the earlier lap
    EXPECT_EQ(text(l[3999]), "m4000");

    // The next open finds the marker and writes over it.
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    EXPECT_EQ(QMX_G_TraceLineCnt, 1);
    write("next");
    QMX_CloseApiTraceFile();
    l = lines();
    EXPECT_EQ(text(l[1]), "next");
    EXPECT_EQ(text(l[2]), "EndLog");
    EXPECT_EQ(text(l[3]), "m4");
}

// No child a call runs (BIOS tool, shell command) inherits a stream the
// trace layer opens: the created trace, the reopened one and QMX_fopen's.
TEST_F(TraceRing, StreamsAreCloseOnExec) {
    auto cloexec = [](FILE *fp) { return fp != nullptr && (fcntl(fileno(fp), F_GETFD) & FD_CLOEXEC); };
    EXPECT_TRUE(cloexec(QMX_OpenApiTraceFile()));  // created
    QMX_CloseApiTraceFile();
    EXPECT_TRUE(cloexec(QMX_OpenApiTraceFile()));  // reopened
    FILE *fp = QMX_fopen(const_cast<char *>(path_.c_str()), const_cast<char *>("r"));
    EXPECT_TRUE(cloexec(fp));
    if (fp != nullptr) std::fclose(fp);
}

// The marker scan agrees with a loop of fgets(132) + strstr("EndLog") where
// a block search could go wrong: a marker across the 64 KiB block edge or
// after it, "EndLog" behind a NUL or split between two reads of a long line,
// inside a message, or nowhere; a 300-character line is three reads (131 +
// 131 + 38), a file without a marker is written from the top.
TEST_F(TraceRing, MarkerScanMatchesLineReads) {
    auto reference = [](const std::string &t, int *reads) -> long {
        int n = 0;
        for (std::size_t pos = 0; pos < t.size(); ++n) {
            std::size_t nl = t.find('\n', pos);
            std::size_t len = std::min<std::size_t>(131, (nl == std::string::npos ? t.size() : nl + 1) - pos);
            if (std::strstr(t.substr(pos, len).c_str(), "EndLog") != nullptr) {
                *reads = n;
                return long(pos);
            }
            pos += len;
        }
        *reads = 0;
        return 0;
    };
    const std::string line = std::string(120, 'x') + "\n", mark = padded("EndLog") + "\n";
    auto lines = [&](int n) {
        std::string t;
        for (int i = 0; i < n; ++i) t += line;
        return t;
    };
    const std::string files[] = {
        lines(600) + mark + line,
        lines(541) + std::string(71, 'y') + "\n" + mark + line,  // "EndLog" at 65533
        lines(541) + std::string(75, 'y') + "\n" + mark,         // the marker line at 65537
        std::string("ab") + '\0' + "EndLog\n" + line + mark,
        std::string(128, 'a') + "EndLog\n" + mark,
        line + "2026/01/01 00:00:00 1 QMX_x EndLog text\n" + mark,
        lines(3) + "EndLo",
        lines(5),
        std::string(300, 'a') + "\n" + mark + line,  // the marker line at 301, after 3 reads
    };
    for (const std::string &t : files) {
        {
            std::ofstream out(path_, std::ios::binary | std::ios::trunc);
            out << t;
        }
        int reads = 0;
        long at = reference(t, &reads);
        FILE *fp = QMX_OpenApiTraceFile();
        ASSERT_NE(fp, nullptr);
        EXPECT_EQ(QMX_G_TraceLineCnt, reads) << t.size();
        EXPECT_EQ(std::ftell(fp), at) << t.size();
        QMX_CloseApiTraceFile();
    }
}

// An open after this process's own close takes the marker it left; a write
// by another process in between (or a message holding "EndLog") is seen.
TEST_F(TraceRing, ReopenFindsTheMarkerAfterOtherWriters) {
    auto session = [&](int n, const std::string &msg = "m") {
        ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
        for (int i = 0; i < n; ++i) write(msg);
        QMX_CloseApiTraceFile();
    };
    session(2);
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    EXPECT_EQ(QMX_G_TraceLineCnt, 2);
    QMX_CloseApiTraceFile();
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        QMX_OpenApiTraceFile();
        for (int i = 0; i < 3; ++i) write("child");
        QMX_CloseApiTraceFile();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    EXPECT_EQ(QMX_G_TraceLineCnt, 5);
    write("x EndLog x");  // the next scan stops here
    QMX_CloseApiTraceFile();
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    EXPECT_EQ(QMX_G_TraceLineCnt, 5);
    QMX_CloseApiTraceFile();
}

TEST_F(TraceRing, MessagesSplitAt95AndStopAt214) {
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    std::string m95(95, 'a'), m96 = std::string(95, 'b') + "c";
    std::string m300;
    for (int i = 0; i < 300; ++i) m300 += char('A' + i % 26);
    write(m95);
    write(m96);
    write(m300);
    write("two\nlines");
    QMX_CloseApiTraceFile();
    auto l = lines();
    ASSERT_EQ(l.size(), 7u);
    EXPECT_EQ(text(l[0]), m95.substr(0, 120 - 21 - std::to_string(getpid()).size()));
    EXPECT_EQ(l[2], padded("c"));              // continuation: no stamp
    EXPECT_EQ(text(l[4]), m300.substr(95, 119));                // chars 95..213
    EXPECT_EQ(text(l[5]), "two lines");                         // newline became a blank
    EXPECT_EQ(text(l[6]), "EndLog");
}

TEST_F(TraceRing, NestedOpenRestartsTheCountButNotThePosition) {
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    for (int i = 0; i < 3999; ++i) write("x");
    FILE *again = QMX_OpenApiTraceFile();
    EXPECT_EQ(again, QMX_G_TraceFP);
    EXPECT_EQ(QMX_G_TraceLineCnt, 0);
    write("y");
    write("z");  // no wrap: the count restarted, so the ring grows past 4000
    QMX_CloseApiTraceFile();
    auto l = lines();
    ASSERT_EQ(l.size(), 4002u);
    EXPECT_EQ(text(l[4000]), "z");
    EXPECT_EQ(text(l[4001]), "EndLog");
}

TEST_F(TraceRing, NameChangesAndRefusals) {
    EXPECT_EQ(QMX_ChangeTraceLogFile(nullptr), -1);
    std::string n256(256, 'n'), n257(257, 'n');
    EXPECT_EQ(QMX_ChangeTraceLogFile(const_cast<char *>(n257.c_str())), -3);
    EXPECT_EQ(QMX_ChangeTraceLogFile(const_cast<char *>(n256.c_str())), 0);
    EXPECT_EQ(std::string(QMX_G_TraceLog), n256);
    ASSERT_EQ(QMX_ChangeTraceLogFile(const_cast<char *>(name_.c_str())), 0);
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    EXPECT_EQ(QMX_ChangeTraceLogFile(const_cast<char *>("other.txt")), -2);
    EXPECT_EQ(std::string(QMX_G_TraceLog), name_);
    EXPECT_EQ(QMX_WriteSyslog(3, const_cast<char *>("x")), -1);
    EXPECT_EQ(QMX_WriteSyslog(0, nullptr), -1);
    EXPECT_EQ(QMX_WriteApiTraceFile(nullptr), nullptr);
}

TEST_F(TraceRing, SystemErrorReportIsBoundedAndSetsCode1) {
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    QMX_G_ERROR_CD = 0;
    QMX_OutputSysLog(const_cast<char *>("a_very_long_system_call_name_that_overflows"), 2);
    EXPECT_EQ(QMX_G_ERROR_CD, 1);
    EXPECT_EQ(std::string(QMX_G_ERROR_MES).size(), 65u);
    EXPECT_EQ(std::string(QMX_G_ERROR_MES).rfind("qmxvlib:a_very_long", 0), 0u);
    QMX_OutputSysLog(const_cast<char *>("open"), 2);
    EXPECT_STREQ(QMX_G_ERROR_MES, "qmxvlib:open is error. errno(2:No such file or directory)");
    QMX_CloseApiTraceFile();
    auto l = lines();
    ASSERT_EQ(l.size(), 3u);
    EXPECT_EQ(text(l[1]), "qmxvlib:open is error. errno(2:No such file or directory)");
}

TEST_F(TraceRing, SecondProcessWaitsForTheTraceLock) {
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    write("parent");
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(pipefd[0]);
        QMX_G_TraceFP = nullptr;  // the child's own stream
        QMX_OpenApiTraceFile();   // blocks until the parent closes
        (void)!::write(pipefd[1], "x", 1);
        _exit(0);
    }
    close(pipefd[1]);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(pipefd[0], &set);
    timeval tv{0, 300000};
    EXPECT_EQ(select(pipefd[0] + 1, &set, nullptr, nullptr, &tv), 0) << "child got the lock";
    QMX_CloseApiTraceFile();
    char c;
    EXPECT_EQ(read(pipefd[0], &c, 1), 1);
    int status = 0;
    waitpid(child, &status, 0);
    close(pipefd[0]);
}

}  // namespace
