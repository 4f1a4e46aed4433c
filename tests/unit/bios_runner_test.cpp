// The BIOS tool runner: command lines, refusals, retries and exit codes.
// Runs inside the virtual host, which provides the simulated qmxbios tool and
// records every command line it receives.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bios_fixture.h"

namespace {

using biostest::fileLines;
using biostest::stateFile;

const char *kTool = "/opt/kestrel/drivers/hba/qmxbios";
const char *kTrace = "/opt/kestrel/drivers/hba/qmxlibTrace.txt";

// Trace messages up to the marker, without time stamp and process id; a
// continuation line is joined to its message.
std::vector<std::string> traceMessages() {
    std::vector<std::string> out;
    for (std::string l : fileLines(kTrace)) {
        if (l.rfind("EndLog", 0) == 0) break;
        while (!l.empty() && l.back() == ' ') l.pop_back();
        if (l.size() > 20 && l[4] == '/' && l[7] == '/' && l[13] == ':') {
            std::size_t sp = l.find(' ', 20);
            out.push_back(sp == std::string::npos ? std::string() : l.substr(sp + 1));
        } else if (!out.empty()) {
            out.back() += l;
        }
    }
    return out;
}

// What the trace keeps of a message written by this process: the first 95
// characters on the stamped line (cut at the line's width), the next 119 on
// a continuation line.
std::string kept(const std::string &msg) {
    auto rtrim = [](std::string t) {
        while (!t.empty() && t.back() == ' ') t.pop_back();
        return t;
    };
    std::size_t room = 120 - 21 - std::to_string(getpid()).size();
    std::string first = msg.size() < 96 ? msg : msg.substr(0, 95);
    std::string second = msg.size() < 96 ? std::string() : msg.substr(95, 119);
    return rtrim(first.substr(0, room)) + rtrim(second);
}

bool traced(const std::string &msg) {
    std::string want = kept(msg);
    for (const std::string &m : traceMessages())
        if (m == want) return true;
    return false;
}

class BiosRunner : public biostest::PortZeroTest {
protected:
    void SetUp() override {
        if (access(kTool, X_OK) != 0) GTEST_SKIP() << "needs the virtual host";
        PortZeroTest::SetUp();
        if (IsSkipped()) return;
        std::remove(stateFile("tools/qmxbios.log").c_str());
        std::remove(stateFile("tools/qmxbios.script").c_str());
        QMX_G_ERROR_CD = 0;
        QMX_OpenApiTraceFile();
    }
    void TearDown() override {
        QMX_CloseApiTraceFile();
        PortZeroTest::TearDown();
    }
    static std::vector<std::string> toolRuns() { return fileLines(stateFile("tools/qmxbios.log")); }
    static void script(const std::string &line) {
        mkdir(stateFile("tools").c_str(), 0755);
        std::ofstream(stateFile("tools/qmxbios.script")) << line << "\n";
    }
    // Closes the trace so that its file holds every line written so far.
    static void flushTrace() {
        QMX_CloseApiTraceFile();
        QMX_OpenApiTraceFile();
    }
};

// The retries and the boot device rows run through the library's calls:
// BiosApi in the end-to-end tests.
TEST_F(BiosRunner, OptionsBuildTheirWords) {
    qmx_bios_param p{};
    p.status = 0;
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_BIOS, &p));
    p.status = 1;
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_SPINUP_DELAY, &p));
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_PRE_CONFIGURE, &p));
    p.connect_type = 2;
    p.data_rate = 0;
    p.login_delay = -1;
    p.overwritemode = 3;
    p.addwwn = {{0x21, 0x00, 0x00, 0x1b, 0x32, 0xAB, 0xcd, 0x01}};
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_CONNECTION_TYPE, &p));
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_DATA_RATE, &p));
    p.data_rate = 10;
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_DATA_RATE, &p));
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_LOGIN_DELAY, &p));
    p.login_delay = 60;
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_LOGIN_DELAY, &p));
    for (int option : {QMXBIOS_OPT_WWN_OF_HBA, QMXBIOS_OPT_OVERWRITE_MODE, QMXBIOS_OPT_LOG_ERASE})
        EXPECT_EQ(0, qmx_ExecQmxbios(0, option, &p)) << option;
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_APRESTART, nullptr));
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_CFG_ENABLE, nullptr));
    std::vector<std::string> want = {
        "qmxbios -x -d qmxldd0 -p bios=Disable",
        "qmxbios -x -d qmxldd0 -p spinup_delay=Enable",
        "qmxbios -x -d qmxldd0 -p pre_configure=Enable",
        "qmxbios -x -d qmxldd0 -p connection_type=ptop",
        "qmxbios -x -d qmxldd0 -p data_rate=auto",
        "qmxbios -x -d qmxldd0 -p data_rate=10",
        "qmxbios -x -d qmxldd0 -p login_delay_time=default",
        "qmxbios -x -d qmxldd0 -p login_delay_time=60",
        "qmxbios -x -d qmxldd0 -p wwn_of_hba=2100001b32abcd01",
        "qmxbios -x -d qmxldd0 -p overwritemode=lasent",
        "qmxbios -x -d qmxldd0 -o log_erase",
        "qmxbios -x -d qmxldd0 -o aprestart",
        "qmxbios -x -d qmxldd0 -o cfgEnable",
    };
    EXPECT_EQ(toolRuns(), want);
    flushTrace();
    EXPECT_TRUE(traced("/opt/kestrel/drivers/hba/qmxbios -x -d qmxldd0 -p bios=Disable"));
    EXPECT_TRUE(traced("qmx_ExecQmxbios END"));
    EXPECT_EQ(QMX_G_ERROR_CD, 0);
}

TEST_F(BiosRunner, ListingOptionsRedirectIntoTheToolDirectory) {
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_CFGSHOWEX, nullptr));
    EXPECT_STREQ(QMX_G_cfgshow, "/opt/kestrel/drivers/hba/cfgshow.txt");
    EXPECT_EQ(0, qmx_ExecQmxbios(-1, QMXBIOS_OPT_DEVSHOW, nullptr));
    EXPECT_STREQ(QMX_G_devshow, "/opt/kestrel/drivers/hba/devshow.txt");
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_TRGSHOW, nullptr));
    EXPECT_STREQ(QMX_G_trgshow, "/opt/kestrel/drivers/hba/trgshow.txt");
    std::vector<std::string> want = {"qmxbios -d qmxldd0 -o cfgshowex", "qmxbios -o devshow",
                                     "qmxbios -d qmxldd0 -o trgshow"};
    EXPECT_EQ(toolRuns(), want);
    EXPECT_FALSE(fileLines(QMX_G_cfgshow).empty());
    EXPECT_GT(fileLines(QMX_G_devshow).size(), 4u);
    flushTrace();
    EXPECT_TRUE(traced("/opt/kestrel/drivers/hba/qmxbios -d qmxldd0 -o cfgshowex > "
                       "/opt/kestrel/drivers/hba/cfgshow.txt"));
}

TEST_F(BiosRunner, RefusalsRunNothingAndLeaveCode11) {
    struct Case {
        int option;
        qmx_bios_param p;
        const char *message;
    };
    qmx_bios_param base{};
    base.status = 1;
    base.connect_type = 1;
    base.login_delay = 0;
    base.overwritemode = 1;
    std::vector<Case> cases;
    auto add = [&](int option, auto edit, const char *message) {
        Case c{option, base, message};
        edit(c.p);
        cases.push_back(c);
    };
    add(0, [](qmx_bios_param &) {}, "Unknown option");
    add(24, [](qmx_bios_param &) {}, "Unknown option");
    add(-3, [](qmx_bios_param &) {}, "Unknown option");
    add(QMXBIOS_OPT_BACKUP, [](qmx_bios_param &p) { p.filename = nullptr; },
        "Internal Error(filename is NULL)");
    add(QMXBIOS_OPT_RESTORE, [](qmx_bios_param &p) { p.filename = nullptr; },
        "Internal Error(filename is NULL)");
    add(QMXBIOS_OPT_BIOS, [](qmx_bios_param &p) { p.status = 2; }, "Internal Error(unknown status)");
    add(QMXBIOS_OPT_ERROR_LOGGING, [](qmx_bios_param &p) { p.status = -1; },
        "Internal Error(unknown status)");
    add(QMXBIOS_OPT_CONNECTION_TYPE, [](qmx_bios_param &p) { p.connect_type = 0; },
        "Internal Error(unknown connection type)");
    add(QMXBIOS_OPT_CONNECTION_TYPE, [](qmx_bios_param &p) { p.connect_type = 4; },
        "Internal Error(unknown connection type)");
    for (int rate : {3, 5, 7, 9, 11, -1})
        add(QMXBIOS_OPT_DATA_RATE, [rate](qmx_bios_param &p) { p.data_rate = rate; },
            "Internal Error(unknown data rate)");
    add(QMXBIOS_OPT_LOGIN_DELAY, [](qmx_bios_param &p) { p.login_delay = 61; },
        "Internal Error(not 0-60)");
    add(QMXBIOS_OPT_LOGIN_DELAY, [](qmx_bios_param &p) { p.login_delay = -2; },
        "Internal Error(not 0-60)");
    add(QMXBIOS_OPT_OVERWRITE_MODE, [](qmx_bios_param &p) { p.overwritemode = 4; },
        "overwritemode is unknown");
    for (Case &c : cases) {
        SCOPED_TRACE(c.message);
        QMX_G_ERROR_CD = 0;
        EXPECT_EQ(-1, qmx_ExecQmxbios(0, c.option, &c.p));
        EXPECT_EQ(QMX_G_ERROR_CD, 11);
    }
    EXPECT_TRUE(toolRuns().empty());
    flushTrace();
    for (const Case &c : cases) EXPECT_TRUE(traced(c.message)) << c.message;
    EXPECT_TRUE(traced("qmx_ExecQmxbios ABEND"));
}

TEST_F(BiosRunner, PortIndexMustNameADiscoveredPort) {
    qmx_bios_param p{};
    p.status = 1;
    EXPECT_EQ(-1, qmx_ExecQmxbios(-1, QMXBIOS_OPT_BIOS, &p));
    EXPECT_EQ(-1, qmx_ExecQmxbios(c_max_port, QMXBIOS_OPT_BIOS, &p));
    EXPECT_EQ(-1, qmx_ExecQmxbios(kMaxPorts + 5, QMXBIOS_OPT_BIOS, &p));
    EXPECT_EQ(-1, qmx_ExecQmxbios(0, QMXBIOS_OPT_BIOS, nullptr));
    EXPECT_EQ(QMX_G_ERROR_CD, 11);
    EXPECT_TRUE(toolRuns().empty());
}

TEST_F(BiosRunner, BootPriorityClearRunsNothingAndSucceeds) {
    EXPECT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_BOOT_PRI_CLEAR, nullptr));
    EXPECT_TRUE(toolRuns().empty());
    EXPECT_EQ(QMX_G_ERROR_CD, 0);
}

TEST_F(BiosRunner, FileNamesReachTheToolAsOneQuotedArgument) {
    char dir[] = "/tmp/bios dir;touch /tmp/bios-injected";
    script("exit=0 times=-1");  // the tool only records its command line
    qmx_bios_param p{};
    p.filename = dir;
    qmx_ExecQmxbios(-1, QMXBIOS_OPT_BACKUP, &p);
    EXPECT_NE(access("/tmp/bios-injected", F_OK), 0);
    std::vector<std::string> runs = toolRuns();
    ASSERT_FALSE(runs.empty());
    EXPECT_EQ(runs[0], "qmxbios -x -a -o backup -f /tmp/bios dir;touch /tmp/bios-injected");
    char plain[] = "/tmp/backup.bin";
    p.filename = plain;
    qmx_ExecQmxbios(0, QMXBIOS_OPT_RESTORE, &p);
    runs = toolRuns();
    EXPECT_EQ(runs.back(), "qmxbios -x -d qmxldd0 -o restore -f /tmp/backup.bin");
    flushTrace();
    EXPECT_TRUE(traced("/opt/kestrel/drivers/hba/qmxbios -x -a -o backup -f "
                       "'/tmp/bios dir;touch /tmp/bios-injected'"));
}

TEST_F(BiosRunner, CommandThatWouldNotFitIsRefused) {
    std::string longName = "/tmp/" + std::string(300, 'a');
    qmx_bios_param p{};
    p.filename = longName.data();
    EXPECT_EQ(-1, qmx_ExecQmxbios(0, QMXBIOS_OPT_RESTORE, &p));
    EXPECT_EQ(QMX_G_ERROR_CD, 11);
    EXPECT_TRUE(toolRuns().empty());
}

}  // namespace

namespace {

TEST_F(BiosRunner, ListingReaderRefusesANegativePortIndex) {
    EXPECT_EQ(-1, qmx_GetQmxbiosInfo(-1));
    EXPECT_EQ(QMX_G_ERROR_CD, 10);
    EXPECT_TRUE(toolRuns().empty());
    flushTrace();
    EXPECT_TRUE(traced("ind < 0"));
    EXPECT_TRUE(traced("qmx_GetQmxbiosInfo ABEND"));
}

TEST_F(BiosRunner, ListingReaderDecodesTheToolsListing) {
    for (auto &e : QMX_G_CfgList) e.param_val = ~uint64_t(0);
    bt_st = -1;
    qmx_bios_param p{};
    p.data_rate = 4;
    ASSERT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_DATA_RATE, &p));
    p.login_delay = 30;
    ASSERT_EQ(0, qmx_ExecQmxbios(0, QMXBIOS_OPT_LOGIN_DELAY, &p));
    ASSERT_EQ(0, qmx_GetQmxbiosInfo(0));
    EXPECT_EQ(QMX_G_CfgList[QMX_CFG_DATA_RATE].param_val, 4u);
    EXPECT_EQ(QMX_G_CfgList[QMX_CFG_LOGIN_DELAY].param_val, 30u);
    EXPECT_EQ(QMX_G_CfgList[QMX_CFG_CONNECTION_TYPE].param_val, 1u);
    EXPECT_EQ(QMX_G_CfgList[QMX_CFG_ADDITIONAL_WWPN].param_val, 0u);
    EXPECT_EQ(bt_st, -1);  // the listing closes its boot table
    flushTrace();
    EXPECT_TRUE(traced("qmx_GetQmxbiosInfo END"));
}

}  // namespace
