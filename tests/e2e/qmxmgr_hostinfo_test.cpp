// qmxmgr's alias, defaults, scan and rescan commands, run as a child process
// inside the virtual host.
#include <string>

#include "vhost.h"

namespace {

using QmxmgrHostInfo = ManagerTest;

TEST_F(QmxmgrHostInfo, AliasSetShowAndRefusal) {
    ASSERT_TRUE(writeFile("/etc/qmxlib.conf", ""));
    ASSERT_EQ(run({"alias", "qmxldd2", "db 01"}).status, 0);
    ASSERT_EQ(run({"alias", "2", "--port", "fabA"}).status, 0);
    qmxsim::json j = runJson({"alias", "21:00:00:11:22:33:44:60", "--json"});
    EXPECT_EQ(j["hba_alias"], "db 01");
    EXPECT_EQ(j["port_alias"], "fabA");
    EXPECT_EQ(parse(run({"show", "2", "--json"}).out)["aliases"]["port"], "fabA");
    Result r = run({"alias", "2", "a:b"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qmxmgr: QMX_SetHbaAliasName failed: invalid argument (reason code 2): "
                     "Detection of delimiter(:)\n");
    EXPECT_EQ(run({"alias", "2", "--hba", "--port", "x"}).status, 2);
}

TEST_F(QmxmgrHostInfo, DefaultsShowOnlyWhatTheFileSetsUnlessAll) {
    ASSERT_TRUE(writeFile("/etc/qmxldd.conf",
                          "qmx_isol_type=0:qmx_retry_cnt12=7:qmx3_queue_depth=9:qmx_preferred_alpa=0x05:"));
    qmxsim::json j = runJson({"defaults", "--json"});
    EXPECT_EQ(j["settings"], qmxsim::json({{"isolate_type", 2}, {"preferred_alpa", 5}}));
    EXPECT_EQ(j["retry_cnt"], qmxsim::json({{"12", 7}}));
    j = runJson({"defaults", "--all", "--json"});
    EXPECT_TRUE(j["settings"]["queue_depth"].is_null());
    EXPECT_EQ(j["settings"].size(), 32u);
}

TEST_F(QmxmgrHostInfo, ScanAndRescanReportTheOutcome) {
    Result r = run({"scan", "qmxldd1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Target scan on qmxldd1 completed.\n");
    setPortField(1, "tgtscan_outcome", 2);
    r = run({"scan", "21:00:00:11:22:33:44:51"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qmxmgr: QMX_TgtScan failed: target scan: driver result 2 (reason code 40)\n");
    EXPECT_EQ(run({"rescan", "3"}).status, 0);
    EXPECT_EQ(driverRequests("IOCTL_QMX_SC_SCSISCAN", 3), 1);
    r = run({"rescan", "2100001122334499"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("QMX_DiskRescan failed"), std::string::npos) << r.err;
}

}  // namespace
