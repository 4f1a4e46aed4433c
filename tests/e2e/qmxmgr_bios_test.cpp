// qmxmgr's bios, firmware, diag and log commands, run as child processes in
// the virtual host: output forms, tool command lines, failures.
#include <sys/stat.h>

#include <string>
#include <vector>

#include "vhost.h"

namespace {

using QmxmgrBios = ManagerTest;

TEST_F(QmxmgrBios, BiosShowFromTheAdapterAndFromABackup) {
    ASSERT_EQ(run({"bios", "preconfigure", "1", "on"}).status, 0);
    qmxsim::json j = runJson({"bios", "show", "qmxldd1", "--json"});
    EXPECT_EQ(j["source"], "adapter");
    EXPECT_EQ(j["settings"]["pre_configure"], "enabled");
    EXPECT_EQ(j["settings"]["hba_bios"], "disabled");
    EXPECT_EQ(j["settings"]["login_delay"], "default");
    EXPECT_EQ(j["settings"]["boot_devices"].size(), 8u);

    mkdir("/tmp/bk", 0755);
    ASSERT_EQ(run({"bios", "backup", "--all", "/tmp/bk"}).status, 0);
    EXPECT_EQ(toolLog("qmxbios").back(), "qmxbios -x -a -o backup -f /tmp/bk");
    j = runJson({"bios", "show", "1", "--file", "/tmp/bk/qmxldd0.bios", "--json"});
    EXPECT_EQ(j["source"], "file");
    EXPECT_EQ(j["settings"]["hba_bios"], "disabled");  // 0 in a file
    EXPECT_EQ(j["settings"]["connection_type"], "auto");
    EXPECT_EQ(run({"bios", "show", "2", "--file", "/tmp/bk/qmxldd2.bios"}).status, 0);

    // A backup of another adapter model is refused.
    setPortField(2, "device", "0x2533");
    Result r = run({"bios", "show", "2", "--file", "/tmp/bk/qmxldd2.bios"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("qmxmgr: QMX_GetBiosData failed: a data file is malformed (reason code 9)", 0), 0u)
        << r.err;
    EXPECT_EQ(r.out, "");
}

TEST_F(QmxmgrBios, FirmwareCommands) {
    std::string img(4096, '\0');
    img[36] = 0x12, img[37] = 0x34, img[38] = 0x56, img[39] = 0x78;
    ASSERT_TRUE(writeFile("/tmp/fw.img", img));
    qmxsim::json j = runJson({"firmware", "version", "1", "--image", "/tmp/fw.img", "--json"});
    EXPECT_EQ(j["running"], "01020304");
    EXPECT_EQ(j["image_version"], "12345678");
    ASSERT_EQ(run({"firmware", "update", "--all", "/tmp/fw.img", "--force"}).status, 0);
    ASSERT_EQ(run({"firmware", "refresh", "2", "--force"}).status, 0);
    ASSERT_EQ(run({"firmware", "refresh"}).status, 0);
    EXPECT_EQ(toolLog("qmxmcup"), std::vector<std::string>{"qmxmcup -s -d all -o download -f /tmp/fw.img -c"});
    std::vector<std::string> want = {"qmxmcref -d qmxldd2 -c", "qmxmcref"};
    EXPECT_EQ(toolLog("qmxmcref"), want);
    EXPECT_EQ(run({"firmware", "backup", "1", "/tmp/none"}).status, 1);
    EXPECT_EQ(run({"firmware", "update", "1", "--all", "/tmp/fw.img"}).status, 2);
}

TEST_F(QmxmgrBios, DiagRunPrintsTheLogAndNoProgressWithoutATerminal) {
    Result r = run({"diag", "run", "0", "--test", "reg,dma", "--time", "5", "--target-port", "2"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("Log: /opt/kestrel/drivers/hba/qmxdiag_exec.log\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("PASS"), std::string::npos);
    EXPECT_EQ(r.err, "");  // no spinner when standard error is not a terminal
    EXPECT_EQ(readFile("/opt/kestrel/drivers/hba/qmx_param.txt"),
              "test_type=1\ntest_time=5\nerror_count=0\ntarget_port=2\nreg_test=1\ndma_test=1\n");
    setPortField(0, "diag_result", "fail");
    r = run({"diag", "run", "0"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("qmxmgr: QMX_DiagExecution failed: diagnostics were aborted (reason code 12)", 0), 0u)
        << r.err;
    EXPECT_EQ(run({"diag", "run", "0", "--test", "disk"}).status, 2);
    ASSERT_EQ(run({"log", "erase", "3"}).status, 0);
    EXPECT_EQ(toolLog("qmxbios").back(), "qmxbios -x -d qmxldd3 -o log_erase");
}

}  // namespace
