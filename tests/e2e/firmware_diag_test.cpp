// Firmware tools, diagnostics and log erase, end to end: the shared library
// against the simulated qmxmcup, qmxmcref, qmxdiag and qmxbios.
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "vhost.h"

namespace {

class FirmwareDiag : public VHostTest {
protected:
    static constexpr const char *kLog = "/opt/kestrel/drivers/hba/qmxdiag_exec.log";
    static constexpr const char *kParams = "/opt/kestrel/drivers/hba/qmx_param.txt";

    // A 4096-byte image whose version word (bytes 36..39) is 12 34 56 78.
    static std::string image(const std::string &path) {
        std::string img(4096, '\0');
        const char v[4] = {0x12, 0x34, 0x56, 0x78};
        img.replace(36, 4, v, 4);
        EXPECT_TRUE(writeFile(path, img));
        return path;
    }
    static char *c(const std::string &s) { return const_cast<char *>(s.c_str()); }
    static QMX_DIAG_PARAM blank() {
        QMX_DIAG_PARAM p;
        std::memset(&p, 0, sizeof p);
        p.target_port = 1;
        return p;
    }
    static std::string lastLine(const std::string &tool) {
        std::vector<std::string> l = toolLog(tool);
        return l.empty() ? std::string() : l.back();
    }
};

TEST_F(FirmwareDiag, QmxmcupCommandLinesAreExact) {
    std::string img = image("/tmp/fw.img");
    mkdir("/tmp/fwbk", 0755);
    QMX_WWN zero{};
    ASSERT_EQ(0, QMX_FirmwareUpdate(zero, c(img), 1));
    EXPECT_TRUE(traceHas("/opt/kestrel/drivers/hba/qmxmcup -s -d all -o download -f /tmp/fw.img -c"));
    ASSERT_EQ(0, QMX_FirmwareUpdate(portWwn(3), c(img), 0));
    ASSERT_EQ(0, QMX_FirmwareBackup(portWwn(1), c("/tmp/fwbk"), 1));
    ASSERT_EQ(0, QMX_FirmwareBackup(zero, c("/tmp/fwbk"), 0));
    std::vector<std::string> want = {"qmxmcup -s -d all -o download -f /tmp/fw.img -c",
                                     "qmxmcup -s -d qmxldd3 -o download -f /tmp/fw.img",
                                     "qmxmcup -d qmxldd1 -o backup -f /tmp/fwbk -c",
                                     "qmxmcup -d all -o backup -f /tmp/fwbk"};
    EXPECT_EQ(toolLog("qmxmcup"), want);
    // The download took effect in the simulated adapter, the backup holds it.
    QMX_FW_VERSION v;
    ASSERT_EQ(0, QMX_GetFirmwareVersion(portWwn(1), c("/tmp/fwbk/qmxldd1.fw"), &v));
    EXPECT_STREQ(v.now_version, "12345678");
    EXPECT_STREQ(v.new_version, "12345678");
}

TEST_F(FirmwareDiag, ToolResultsAreIgnoredButArgumentsAreChecked) {
    scriptTool("qmxmcup", 4, -1);
    std::string img = image("/tmp/fw.img");
    EXPECT_EQ(0, QMX_FirmwareUpdate(portWwn(0), c(img), 0));
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    const struct {
        QMX_STATUS st;
        const char *message;
        bool lookedUp;  // the port was resolved before the refusal
    } cases[] = {
        {QMX_FirmwareUpdate(portWwn(0), nullptr, 0), "filename == NULL", false},
        {QMX_FirmwareUpdate(portWwn(0), c("/tmp/none.img"), 0), "file is not found", true},
        {QMX_FirmwareBackup(portWwn(0), nullptr, 0), "dirname == NULL", false},
        {QMX_FirmwareBackup(portWwn(0), c("/tmp/nodir"), 0), "directory is not found", false},
    };
    std::vector<std::string> lines = traceLines();
    for (const auto &k : cases) {
        EXPECT_EQ(k.st, 1) << k.message;
        int at = traceIndex(k.message);
        ASSERT_GE(at, 1) << k.message;
        // Between the call's START line and the refusal.
        bool lookedUp = false;
        for (int i = at - 1; i >= 0 && lines[std::size_t(i)].find("QMX_Firmware") != 0; --i)
            lookedUp = lookedUp || lines[std::size_t(i)] == "QMX_InitRoutine START";
        EXPECT_EQ(lookedUp, k.lookedUp) << k.message;
    }
    EXPECT_EQ(QMX_LastErrorCode(), 2);
    EXPECT_EQ(toolLog("qmxmcup").size(), 1u);
    QMX_WWN unknown = wwnOf(0x1234);
    EXPECT_TRUE(refused(QMX_FirmwareUpdate(unknown, c(img), 0), 4));
}

TEST_F(FirmwareDiag, OnlineRefreshOperations) {
    ASSERT_EQ(0, QMX_OnlineUpdateFW(0, nullptr, 1));
    ASSERT_EQ(0, QMX_OnlineUpdateFW(1, c("qmxldd2"), 1));
    ASSERT_EQ(0, QMX_OnlineUpdateFW(2, nullptr, 0));
    std::vector<std::string> want = {"qmxmcref", "qmxmcref -d qmxldd2 -c", "qmxmcref -d all"};
    EXPECT_EQ(toolLog("qmxmcref"), want);
    EXPECT_EQ(portCounter(2, "fw_refresh"), 3);
    EXPECT_TRUE(refused(QMX_OnlineUpdateFW(3, c("qmxldd2"), 0), 2, "operation value other than 0, 1, and 2"));
    EXPECT_TRUE(refused(QMX_OnlineUpdateFW(1, c(""), 0), -1, "device == NULL"));
    EXPECT_EQ(toolLog("qmxmcref").size(), 3u);
}

TEST_F(FirmwareDiag, FirmwareVersionOfPortAndImage) {
    setPortField(2, "firmware_ver", 0x0A0B0C0D);
    QMX_FW_VERSION v;
    ASSERT_EQ(0, QMX_GetFirmwareVersion(portWwn(2), nullptr, &v));
    EXPECT_STREQ(v.now_version, "0A0B0C0D");
    EXPECT_STREQ(v.new_version, "");
    ASSERT_EQ(0, QMX_GetFirmwareVersion(portWwn(2), c(image("/tmp/fw.img")), &v));
    EXPECT_STREQ(v.new_version, "12345678");
    EXPECT_TRUE(refused(QMX_GetFirmwareVersion(portWwn(2), c("/tmp/none.img"), &v), 1));
    EXPECT_TRUE(refused(QMX_GetFirmwareVersion(portWwn(2), nullptr, nullptr), -1, "f_version is null"));
    failRequest("IOCTL_QMX_SC_PRINFO", 2, 5);
    EXPECT_TRUE(refused(QMX_GetFirmwareVersion(portWwn(2), nullptr, &v), 7, "QMX_GetFirmwareVersion Error"));
}

TEST_F(FirmwareDiag, CallerTextReachesTheToolsAsOneArgument) {
    // Anything the shell ran would create a file in the working directory.
    const std::string dir = "/tmp/a b;touch pwned1;$(touch pwned2)`touch pwned3`'\"";
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    std::string img = image(dir + "/fw 'x'.img");
    ASSERT_EQ(0, QMX_FirmwareUpdate(portWwn(0), c(img), 0));
    ASSERT_EQ(0, QMX_FirmwareBackup(portWwn(0), c(dir), 0));
    ASSERT_EQ(0, QMX_BiosBackup(portWwn(0), c(dir)));
    ASSERT_EQ(0, QMX_OnlineUpdateFW(1, c("qmxldd0;touch pwned4"), 0));
    for (const char *p : {"pwned1", "pwned2", "pwned3", "pwned4"})
        EXPECT_FALSE(fileExists(p)) << p;
    QMX_FW_VERSION v;
    ASSERT_EQ(0, QMX_GetFirmwareVersion(portWwn(0), nullptr, &v));
    EXPECT_STREQ(v.now_version, "12345678");  // the tool read the whole name
    EXPECT_TRUE(fileExists(dir + "/qmxldd0.fw"));
    EXPECT_TRUE(fileExists(dir + "/qmxldd0.bios"));
    EXPECT_EQ(lastLine("qmxmcref"), "qmxmcref -d qmxldd0;touch pwned4");
}

TEST_F(FirmwareDiag, DiagnosticsWriteTheParameterFileAndReturnTheLog) {
    QMX_DIAG_PARAM p = blank();
    char *log = QMX_DiagExecution(portWwn(0), &p);
    ASSERT_NE(log, nullptr);
    EXPECT_STREQ(log, kLog);
    EXPECT_EQ(readFile(kParams), "test_type=1\nerror_count=0\n");
    EXPECT_EQ(lastLine("qmxdiag"), std::string("qmxdiag -x -O1 -P ") + kParams + " -L " + kLog +
                                       " -S /dev/qmxldd0");
    EXPECT_NE(readFile(kLog).find("PASS"), std::string::npos);
    EXPECT_EQ(traceCount("QMX_DiagExecution START"), 0);
    EXPECT_TRUE(traceHas("QMX_DiagExecution END"));

    p = {7, 30, 2, 5, 1, 2, 1, 1, 1, 1, 1, 1, 10, 1, 1};
    ASSERT_NE(QMX_DiagExecution(portWwn(1), &p), nullptr);
    EXPECT_EQ(readFile(kParams),
              "test_type=1\ntest_time=30\ntest_count=2\nerror_count=5\nexternal_loop=1\n"
              "target_port=2\nreg_test=1\nram_test=1\niloop_test=1\ndma_test=1\npci_test=1\n"
              "fmem_test=1\ninterval_time=10\nno_monitor=1\n");
    EXPECT_EQ(readFile(stateDir() + "/tools/qmxdiag.params"), readFile(kParams));
}

TEST_F(FirmwareDiag, DiagnosticRecordChecks) {
    const struct {
        int QMX_DIAG_PARAM::*field;
        int value;
        const char *message;
        int code;
    } cases[] = {
        {&QMX_DIAG_PARAM::external_loop, 2, "external_loop invalid value", 0},
        {&QMX_DIAG_PARAM::target_port, 0, "target_port invalid value", 0},
        {&QMX_DIAG_PARAM::reg_test, -1, "reg_test invalid value", 2},
        {&QMX_DIAG_PARAM::fmem_test, 2, "fmem_test invalid value", 2},
        {&QMX_DIAG_PARAM::interval_time, -1, "interval_time invalid value", 2},
        {&QMX_DIAG_PARAM::no_monitor, 3, "no_monitor invalid value", 2},
    };
    for (const auto &k : cases) {
        QMX_DIAG_PARAM p = blank();
        p.*k.field = k.value;
        EXPECT_EQ(QMX_DiagExecution(portWwn(0), &p), nullptr) << k.message;
        EXPECT_EQ(QMX_LastErrorCode(), k.code) << k.message;
        EXPECT_TRUE(traceHas(k.message));
    }
    EXPECT_EQ(QMX_DiagExecution(portWwn(0), nullptr), nullptr);
    EXPECT_TRUE(traceHas("diag_param == NULL"));
    EXPECT_FALSE(fileExists(kParams));
    EXPECT_TRUE(toolLog("qmxdiag").empty());
    EXPECT_EQ(traceCount("QMX_DiagExecution ABEND"), 7);
}

TEST_F(FirmwareDiag, FailingDiagnosticsGiveNull) {
    setPortField(1, "diag_result", "fail");  // the tool exits 3
    QMX_DIAG_PARAM p = blank();
    EXPECT_EQ(QMX_DiagExecution(portWwn(1), &p), nullptr);
    EXPECT_EQ(QMX_LastErrorCode(), 12);
    EXPECT_TRUE(traceHas("qmxdiag abort"));
    EXPECT_NE(readFile(kLog).find("FAIL"), std::string::npos);
    // A tool killed by a signal fails too: the shell reports it as exit
    // status 128 + signal (an abort), or, when the shell itself was
    // replaced by the tool, as no exit status (the system log gets the run).
    writeFile(stateDir() + "/tools/qmxdiag.script", "signal=9 times=1\n");
    EXPECT_EQ(QMX_DiagExecution(portWwn(0), &p), nullptr);
    int code = QMX_LastErrorCode();
    EXPECT_TRUE(code == 12 || code == 1) << code;
    EXPECT_EQ(traceCount("QMX_DiagExecution ABEND"), 2);
    // A link planted at the parameter file's name is refused, not followed:
    // the file it names keeps its text, and no tool runs.
    ASSERT_TRUE(writeFile("/etc/precious", "keep\n"));
    removeFile(kParams);
    ASSERT_EQ(0, symlink("/etc/precious", kParams));
    int runs = int(toolLog("qmxdiag").size());
    EXPECT_EQ(QMX_DiagExecution(portWwn(0), &p), nullptr);
    EXPECT_EQ(QMX_LastErrorCode(), 1);
    EXPECT_EQ(readFile("/etc/precious"), "keep\n");
    EXPECT_EQ(int(toolLog("qmxdiag").size()), runs);
}

TEST_F(FirmwareDiag, EraseLogRunsTheBiosTool) {
    ASSERT_EQ(0, QMX_EraseLogData(portWwn(2)));
    EXPECT_EQ(toolLog("qmxbios"), std::vector<std::string>{"qmxbios -x -d qmxldd2 -o log_erase"});
    scriptTool("qmxbios", 1, -1);
    EXPECT_TRUE(refused(QMX_EraseLogData(portWwn(2)), 11));
}

}  // namespace
