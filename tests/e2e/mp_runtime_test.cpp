// Multipath runtime in the virtual host: the operating environment, the LU
// path listing and health check, path state changes, target paths and the
// logical configuration, LU identifiers and the path limits.
//
// The default host: ports 0..3; port 0 reaches targets a01 (group 0, 4 LUs)
// and b01 (group 1, 2 LUs), port 1 a02, port 2 a01 and b02, port 3 a02.
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "vhost.h"

namespace {

class MpRuntimeTest : public VHostTest {
protected:
    std::unique_ptr<QMX_LUPATH_STATUS> paths = std::make_unique<QMX_LUPATH_STATUS>();
    std::unique_ptr<QMX_TGTPATH_STATUS> tgts = std::make_unique<QMX_TGTPATH_STATUS>();

    void TearDown() override {
        QMX_ReleaseLuPath(paths.get());
        if (tgts->tgtpath_cnt > 0) QMX_ReleaseTargetPathStatus(tgts.get());
    }
    static void setMp(const std::string &field, const qmxsim::json &v) {
        editState([&](qmxsim::json &s) { s["multipath"][field] = v; });
    }
    static qmxsim::json mpState() { return state()["multipath"]; }
    static bool confHas(const std::string &item) { return readFile(kConf).find(item + ":") != std::string::npos; }
    // (group, lun, devno) of every listed path.
    std::vector<std::tuple<int, uint32_t, int>> listed() {
        std::vector<std::tuple<int, uint32_t, int>> v;
        for (int i = 0; i < paths->lupath_cnt; ++i)
            v.emplace_back(paths->lupath[i]->groupid, paths->lupath[i]->lun, paths->lupath[i]->devno);
        return v;
    }
    static QMX_MP_PARAM validEnv() {
        QMX_MP_PARAM p{};
        p.mp_failover = 1;
        p.mp_path_health = 1;
        p.mp_interval = 60;
        p.mp_round_robin = 1;
        p.mp_rr_seqcnt = 50;
        p.mp_rr_rndcnt = 2;
        return p;
    }
};

// ---------------------------------------------------------- environment
TEST_F(MpRuntimeTest, EnvironmentSetIsReadBackAndKeepsTheFlaggedKeys) {
    QMX_MP_PARAM p = validEnv();
    p.mp_failback = 1;
    p.nm_alter_path = 1;
    p.mp_round_robin = 2;  // not 1: sent as 0
    p.param_flag = QMX_MP_FLAG_FAILBACK | QMX_MP_FLAG_INTERVAL | QMX_MP_FLAG_ALTER_PATH;
    ASSERT_EQ(QMX_SetOperationEnv(&p, 0), 0);
    EXPECT_TRUE(confHas("qmxmp_failback=1"));
    EXPECT_TRUE(confHas("qmxmp_interval=60"));
    EXPECT_TRUE(confHas("qmxmp_alp_enable=1"));
    EXPECT_FALSE(confHas("qmxmp_path_health=1")) << "unflagged fields are not kept";
    EXPECT_EQ(mpState()["mp_path_health_by_dsp"], 1);
    EXPECT_EQ(QMX_GetMaxLuPath(), 8) << "a write cannot change the driver's maximum";
    QMX_MP_PARAM got;
    ASSERT_EQ(QMX_GetOperationEnv(&got), 0);
    // qmxpcm, failback, interval, round robin, sequence count, alter and offline path.
    EXPECT_EQ(std::vector<long>({got.qmxpcm, got.mp_failback, long(got.mp_interval), got.mp_round_robin,
                                 long(got.mp_rr_seqcnt), got.nm_alter_path, got.nm_offline_path}),
              std::vector<long>({1, 1, 60, 0, 50, 1, 0}));
    EXPECT_EQ(driverRequests("IOCTL_QMX_MP_PTHEALTH"), 0) << "no health check without the round-robin bit";
}

TEST_F(MpRuntimeTest, EnvironmentSetterChecksInOrder) {
    struct Case {
        uint8_t QMX_MP_PARAM::*field;
        uint8_t value;
        uint32_t interval;
        const char *trace;
    } cases[] = {
        {&QMX_MP_PARAM::mp_failover, 2, 0, "failover is invalid"},  // before the interval
        {&QMX_MP_PARAM::mp_failback, 2, 60, "failback is invalid"},
        {&QMX_MP_PARAM::mp_path_health, 2, 60, "path_health is invalid"},
        {&QMX_MP_PARAM::mp_failover, 1, 0, "interval is invalid"},
        {&QMX_MP_PARAM::mp_failover, 1, 1441, "interval is invalid"},
    };
    for (const Case &c : cases) {
        clearTrace();
        QMX_MP_PARAM p = validEnv();
        p.*c.field = c.value;
        p.mp_interval = c.interval;
        EXPECT_EQ(QMX_SetOperationEnv(&p, 0), 1) << c.trace;
        EXPECT_EQ(QMX_LastErrorCode(), 2);
        EXPECT_TRUE(traceHas(c.trace)) << c.trace;
    }
    QMX_MP_PARAM p = validEnv();
    p.mp_interval = 1440;
    EXPECT_EQ(QMX_SetOperationEnv(&p, 0), 0);
    EXPECT_TRUE(refused(QMX_SetOperationEnv(nullptr, 0), -1, "mpparam == NULL"));
}

TEST_F(MpRuntimeTest, DeleteSendsDefaultsRemovesKeysAndRoundRobinBitRunsOneHealthCheck) {
    QMX_MP_PARAM p = validEnv();
    p.param_flag = QMX_MP_FLAG_INTERVAL;
    ASSERT_EQ(QMX_SetOperationEnv(&p, 0), 0);
    ASSERT_TRUE(confHas("qmxmp_interval=60"));
    p.param_flag = QMX_MP_FLAG_INTERVAL | QMX_MP_FLAG_ROUND_ROBIN;
    clearTrace();
    ASSERT_EQ(QMX_SetOperationEnv(&p, 1), 0);
    EXPECT_EQ(mpState()["mp_interval"], 30);
    EXPECT_FALSE(confHas("qmxmp_interval=60"));
    // 16 + 4 LUNs reported over the ports' targets, one health request each.
    EXPECT_EQ(driverRequests("IOCTL_QMX_MP_PTHEALTH"), 20);
    std::vector<std::string> t = traceLines();
    int call = traceIndex("call QMX_GetLuPathStatus for execute path health check");
    ASSERT_GE(call, 0);
    EXPECT_EQ(t[call + 1], "QMX_GetLuPathStatus START");
    EXPECT_GE(traceIndex("path health check finish", call), 0);
    EXPECT_GE(traceIndex("finish path health check", call), 0);
    EXPECT_EQ(t.back(), "QMX_SetOperationEnv END");
}

TEST_F(MpRuntimeTest, GetterUsesTheNextPortAndReportsUnsupportedWithoutPortInfo) {
    failRequest("IOCTL_QMX_MP_RDPARM", 0, EIO);
    QMX_MP_PARAM got;
    ASSERT_EQ(QMX_GetOperationEnv(&got), 0);
    EXPECT_TRUE(traceHas("IOCTL_QMX_MP_RDPARM fail"));
    EXPECT_EQ(got.mp_interval, 30u);
    // Discovery's own port information request goes through.
    addFault({{"request", "IOCTL_QMX_SC_PRINFO"}, {"port", 1}, {"errno", EIO}, {"skip", 1}});
    EXPECT_EQ(QMX_GetOperationEnv(&got), QMX_UNSUPPORTED);
    EXPECT_EQ(traceLines().back(), "QMX_GetOperationEnv UNSUPPORTED");
    EXPECT_EQ(got.mp_interval, 30u) << "filled before the port information";
    EXPECT_EQ(got.mp_rr_seqcnt, 0u) << "not filled after it";
}

// ------------------------------------------------------------- LU paths
TEST_F(MpRuntimeTest, ListingIsSortedByGroupThenLunThenPortAndSkipsAttributeThree) {
    editState([](qmxsim::json &s) {
        qmxsim::json &t = portOf(s, 0)["targets"];
        t[0]["lus"] = {9};                // group 0: LUN 9
        t[1]["lus"] = {5, 2};             // group 1: LUNs 5 and 2
        portOf(s, 1)["targets"][0]["attribute"] = 3;
        portOf(s, 2)["targets"] = qmxsim::json::array();
        portOf(s, 3)["targets"][0]["lus"] = {{{"lun", 2 | 0x4000}}, {{"lun", 2048}}};  // group 0
    });
    ASSERT_EQ(QMX_GetLuPathStatus(paths.get()), 0);
    using P = std::tuple<int, uint32_t, int>;
    // LUN 2048 (low 14 bits) is never listed; 0x4002 sorts as LUN 2.
    EXPECT_EQ(listed(), (std::vector<P>{{0, 0x4002, 3}, {0, 9, 0}, {1, 2, 0}, {1, 5, 0}}));
    const lupath_status &p = *paths->lupath[1];
    EXPECT_EQ(p.tid, 0);
    EXPECT_EQ(p.wwn.wwn[7], 0x01);
    EXPECT_EQ(p.wwn.wwn[0], 0x50);
}

TEST_F(MpRuntimeTest, DefaultHostListsEveryPathWithNodeNamesFromTheTargetMap) {
    ASSERT_EQ(QMX_GetLuPathStatus(paths.get()), 0);
    ASSERT_EQ(paths->lupath_cnt, 20);
    for (int i = 1; i < paths->lupath_cnt; ++i) {
        const lupath_status &a = *paths->lupath[i - 1], &b = *paths->lupath[i];
        EXPECT_LE(std::make_tuple(a.groupid, a.lun, a.devno), std::make_tuple(b.groupid, b.lun, b.devno));
    }
    // Slot, instance, and the node name of entry `tid` of the target map as
    // the last port left it: port 3 wrote entry 0 only, entry 1 is still
    // port 2's target b02 (node b00).
    const lupath_status &last = *paths->lupath[19];
    EXPECT_EQ(last.devno, 2);
    EXPECT_EQ(last.instance, 2);
    EXPECT_EQ(last.tid, 1);
    EXPECT_EQ(last.tid_wwn.wwn[6], 0x0B);
    EXPECT_EQ(QMX_ReleaseLuPath(nullptr), 0);
}

TEST_F(MpRuntimeTest, DevicesCloseBeforeTheLastLineAndReleasesAreFramed) {
    auto tgts = std::make_unique<QMX_TGTPATH_STATUS>();
    QMX_NMPATH_STATUS nm{};
    clearTrace();
    ASSERT_EQ(QMX_GetLuPathStatus(paths.get()), 0);
    ASSERT_EQ(QMX_GetTargetPathStatus(tgts.get()), 0);
    ASSERT_EQ(QMX_GetAllLuID(&nm), 0);
    for (const char *call : {"QMX_GetLuPathStatus", "QMX_GetTargetPathStatus", "QMX_GetAllLuID"}) {
        int start = traceIndex(std::string(call) + " START");
        int closed = traceIndex("close_special_file END", start);
        ASSERT_GE(start, 0) << call;
        EXPECT_TRUE(closed > start && closed < traceIndex(std::string(call) + " END", start)) << call;
    }
    // The three release calls alike: traced, and the reason code cleared.
    QMX_G_ERROR_CD = 9;
    EXPECT_EQ(QMX_ReleaseLuPath(paths.get()), 0);
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    QMX_G_ERROR_CD = 9;
    QMX_ReleaseLuIDPath(&nm);
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    QMX_ReleaseTargetPathStatus(tgts.get());
    for (const char *call : {"QMX_ReleaseLuPath", "QMX_ReleaseLuIDPath", "QMX_ReleaseTargetPathStatus"})
        EXPECT_TRUE(traceHas(std::string(call) + " END")) << call;
    paths->lupath_cnt = 0;
}

TEST_F(MpRuntimeTest, HealthCheckOnlyWhenTheDriverAsksAndAtMost2048Luns) {
    setMp("mp_path_health_by_dsp", 0);
    EXPECT_EQ(QMX_AddLuPathStatus(), 0);
    ASSERT_EQ(QMX_GetLuPathStatus(paths.get()), 0);
    EXPECT_EQ(driverRequests("IOCTL_QMX_SCSI_PASSTHRU"), 0);
    EXPECT_EQ(driverRequests("IOCTL_QMX_MP_PTHEALTH"), 0);
    setMp("mp_path_health_by_dsp", 1);
    int lumaps = driverRequests("IOCTL_QMX_MP_LUMAP");
    editState([](qmxsim::json &s) { portOf(s, 1)["targets"][0]["report_luns"] = 3000; });
    EXPECT_EQ(QMX_AddLuPathStatus(), 0);
    EXPECT_TRUE(traceHas("path health check finish"));
    EXPECT_EQ(driverRequests("IOCTL_QMX_MP_PTHEALTH", 1), 2048);
    EXPECT_EQ(driverRequests("IOCTL_QMX_MP_PTHEALTH", 0), 6);
    EXPECT_EQ(driverRequests("IOCTL_QMX_MP_LUMAP"), lumaps) << "the check alone lists nothing";
}

TEST_F(MpRuntimeTest, SetPathChangesTheNextListing) {
    ASSERT_EQ(QMX_GetLuPathStatus(paths.get()), 0);
    lupath_status p = *paths->lupath[0];
    p.status = 4;
    ASSERT_EQ(QMX_SetLuPathStatus(&p), 0);
    QMX_ReleaseLuPath(paths.get());
    ASSERT_EQ(QMX_GetLuPathStatus(paths.get()), 0);
    EXPECT_EQ(paths->lupath[0]->status, 4);
    EXPECT_EQ(paths->lupath[1]->status, 1);
}

TEST_F(MpRuntimeTest, SetPathRefusalsGiveTheirReasonCodes) {
    struct Case {
        int err, errCode, reason;
        const char *trace;
    } cases[] = {
        {EIO, 0, 30, "bad status"},         {EIO, 1, 31, "QMX-PCM disable"},
        {EIO, 2, 32, "bad new status"},     {EIO, 3, 33, "no device"},
        {EIO, 4, 34, "not register lgde (no device)"},
        {EIO, 10, 35, "adapter status is not online"},
        {EIO, 11, 36, "target status is not online"},
        {EIO, 20, 37, "request imcomplete"}, {EBUSY, -1, 38, "BUSY path-delete"},
        {EIO, 5, 0, nullptr},               {EIO, 255, 0, nullptr},
        {EINVAL, 0, 0, nullptr},
    };
    lupath_status p{};
    p.devno = 0;
    p.wwn = wwnOf(0x5000000000000a01);
    for (const Case &c : cases) {
        qmxsim::json f = {{"request", "IOCTL_QMX_MP_SETPATH"}, {"errno", c.err}, {"times", 1}};
        if (c.errCode >= 0) f["err_code"] = c.errCode;
        addFault(f);
        clearTrace();
        EXPECT_EQ(QMX_SetLuPathStatus(&p), 1);
        EXPECT_EQ(QMX_LastErrorCode(), c.reason) << c.errCode;
        if (c.trace) {
            EXPECT_TRUE(traceHas(c.trace)) << c.trace;
        }
    }
    EXPECT_TRUE(refused(QMX_SetLuPathStatus(nullptr), -1, "lupath == NULL"));
}

// ---------------------------------------------------------- target paths
TEST_F(MpRuntimeTest, LogicalTargetsMergeIntoPhysicalPathsOrAreAppended) {
    editState([](qmxsim::json &s) {
        s["logical_paths"] = {
            // group 70 is past the 64 logical groups: ignored
            {{"group", 70}, {"type", 3}, {"instance", 0}, {"tid", 9}, {"data", 1}},
            {{"group", 5}, {"type", 3}, {"instance", 2}, {"tid", 7}, {"data", 2}},
            {{"group", 5}, {"type", 2}, {"instance", 2}, {"tid", 7}, {"data", "0x5000000000000b02"}},
            {{"group", 3}, {"type", 3}, {"instance", 1}, {"tid", 4}, {"data", 0}},
            {{"group", 3}, {"type", 1}, {"instance", 1}, {"tid", 4}, {"data", "0x5000000000000c00"}},
            {{"group", 3}, {"type", 2}, {"instance", 1}, {"tid", 4}, {"data", "0x5000000000000c01"}},
        };
    });
    ASSERT_EQ(QMX_GetTargetPathStatus(tgts.get()), 0);
    ASSERT_EQ(tgts->tgtpath_cnt, 7u);  // 6 physical paths, one appended
    const qmx_tgt &merged = *tgts->tgtpath[4];  // port 2, target b02
    EXPECT_EQ(merged.portname, 0x5000000000000b02u);
    EXPECT_EQ(merged.groupid, 5);
    EXPECT_EQ(merged.tgtid, 7);
    EXPECT_EQ(merged.pb_attribute, 2);
    EXPECT_EQ(merged.pathid, 1);
    EXPECT_EQ(tgts->tgtpath[0]->pb_attribute, 255);
    EXPECT_EQ(tgts->tgtpath[0]->link, 1);
    const qmx_tgt &added = *tgts->tgtpath[6];
    EXPECT_EQ(added.pathid, 255);
    EXPECT_EQ(added.groupid, 3);
    EXPECT_EQ(added.nodename, 0x5000000000000c00u);
    EXPECT_EQ(added.devno, 1);
    EXPECT_EQ(added.adapport, 0x2100001122334451u);
    EXPECT_EQ(added.valid, 1);
    EXPECT_TRUE(refused(QMX_ReleaseTargetPathStatus(nullptr), 2));
}

TEST_F(MpRuntimeTest, TargetPathsFailOnlyWhenEveryPortFails) {
    failRequest("IOCTL_QMX_MP_TGTMAP", 0, EIO);
    ASSERT_EQ(QMX_GetTargetPathStatus(tgts.get()), 0);
    // Port 0's two targets come back as logical targets without a path.
    ASSERT_EQ(tgts->tgtpath_cnt, 6u);
    EXPECT_EQ(tgts->tgtpath[0]->devno, 1);
    EXPECT_EQ(tgts->tgtpath[4]->pathid, 255);
    EXPECT_EQ(tgts->tgtpath[5]->portname, 0x5000000000000b01u);
    QMX_ReleaseTargetPathStatus(tgts.get());
    tgts->tgtpath_cnt = 0;
    for (int d = 1; d < 4; ++d) failRequest("IOCTL_QMX_MP_TGTMAP", d, EIO);
    EXPECT_EQ(QMX_GetTargetPathStatus(tgts.get()), 1);
}

TEST_F(MpRuntimeTest, LogicalConfigurationMapsDisksToGroupsAndBoundsTheDriverCount) {
    // A hostile count on port 2 is bounded by the 256 entries of the map.
    editState([](qmxsim::json &s) {
        portOf(s, 2)["logical_targets"] = {{{"groupid", 9}, {"targetid", 1}}};
        portOf(s, 2)["logical_target_count"] = 100000;
    });
    QMX_LOGICAL_CONF conf{0, nullptr};
    ASSERT_EQ(QMX_GetLogicalConfiguration(&conf), 0);
    ASSERT_EQ(conf.logical_cnt, 4);
    struct {
        int group, lu, devno, tid;
        const char *name;
    } want[] = {{0, 0, 0, 0, "sda"}, {0, 1, 0, 0, "sdb"}, {1, 0, 0, 1, "sdc"}, {9, 1, 2, 1, "sdd"}};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(conf.logical[i].groupid, want[i].group);
        EXPECT_EQ(conf.logical[i].lu, uint32_t(want[i].lu));
        EXPECT_EQ(conf.logical[i].devno, want[i].devno);
        EXPECT_EQ(conf.logical[i].tid, want[i].tid);
        EXPECT_STREQ(conf.logical[i].devname, want[i].name);
    }
    EXPECT_TRUE(traceHas("GetLogicalConfiguration END"));
    std::free(conf.logical);
    EXPECT_TRUE(refused(QMX_GetLogicalConfiguration(nullptr), -1, "parameter error"));
}

// -------------------------------------------------------- LU identifiers
TEST_F(MpRuntimeTest, LuIdsAreListedOnceFromTheirFirstPath) {
    QMX_NMPATH_STATUS nm{0, nullptr};
    ASSERT_EQ(QMX_GetAllLuID(&nm), 0);
    // Storage a00: 4 LUs over 4 ports; b00: 2 LUs over 2 ports.
    ASSERT_EQ(nm.info_cnt, 6);
    EXPECT_EQ(nm.info[0].lu_num, 0u);
    EXPECT_EQ(nm.info[4].group_id, 1);
    EXPECT_EQ(nm.info[0].id_size, 16);
    EXPECT_EQ(nm.info[0].luid_num[16], 0);
    QMX_LUID_INFO info;
    editState([&](qmxsim::json &s) {
        std::string hex;
        char b[3];
        for (int i = 0; i < 16; ++i) {
            std::snprintf(b, sizeof b, "%02x", nm.info[5].luid_num[i]);
            hex += b;
        }
        s["lu_params"][hex] = {{"alt_path_num", 4}, {"offline_path_num", 5}, {"write_retries", 6}};
    });
    ASSERT_EQ(QMX_GetLuIDInformation(nm.info[5], &info), 0);
    EXPECT_EQ(std::make_tuple(info.alter, info.offline, info.panic), std::make_tuple(4, 5, 6));
    QMX_ReleaseLuIDPath(&nm);
    EXPECT_EQ(nm.info, nullptr);
    for (int d = 0; d < 4; ++d) failRequest("IOCTL_QMX_MP_LG_DEV_PARM", d, EIO);
    QMX_NMPATH_LU none{};
    EXPECT_TRUE(refused(QMX_GetLuIDInformation(none, &info), 7));
    EXPECT_EQ(traceCount("IOCTL_QMX_MP_LG_DEV_PARM fail"), 4);
}

// ------------------------------------------------------------ path limits
TEST_F(MpRuntimeTest, DriverWideLuLimitsCheckTheirRanges) {
    struct Case {
        QMX_STATUS (*set)(int, int);
        int value, del, rc;
        const char *trace;
    } cases[] = {
        {QMX_SetAlterPath, 9, 0, 1, "alter path is invalid value"},
        {QMX_SetAlterPath, 8, 0, 0, nullptr},
        {QMX_SetOfflinePath, 0, 0, 1, "offline path is invalid value"},
        {QMX_SetOfflinePath, 3, 0, 0, nullptr},
        {QMX_SetKernelPanicCount, 127, 0, 1, "kernel panic count is invalid value"},
        {QMX_SetKernelPanicCount, 126, 0, 0, nullptr},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.set(c.value, c.del), c.rc) << c.value;
        if (c.trace) {
            EXPECT_TRUE(traceHas(c.trace)) << c.trace;
        }
    }
    QMX_LUID_INFO info;
    ASSERT_EQ(QMX_GetLuIDInfoFromConf(&info), 0);
    EXPECT_EQ(std::make_tuple(info.alter, info.offline, info.panic), std::make_tuple(8, 3, 126));
    ASSERT_EQ(QMX_SetAlterPath(9, 1), 0);  // delete: no range check
    EXPECT_FALSE(confHas("qmxmp_alter_path=8"));
    ASSERT_EQ(QMX_GetLuIDInfoFromConf(&info), 0);
    EXPECT_EQ(info.alter, 0);
}

TEST_F(MpRuntimeTest, PortLimitsFollowTheDriversLuPathMaximum) {
    EXPECT_EQ(QMX_GetMaxLuPath(), 8);
    EXPECT_TRUE(refused(QMX_SetLimitAlterPath(portWwn(1), 9, 0), -1, "path_cnt is invalid value"));
    setMp("mp_max_lu_path", 16);
    EXPECT_EQ(QMX_GetMaxLuPath(), 16);
    ASSERT_EQ(QMX_SetLimitAlterPath(portWwn(1), 9, 0), 0);
    ASSERT_EQ(QMX_SetLimitOfflinePath(QMX_WWN{}, 2, 0), 0);
    EXPECT_TRUE(confHas("qmx1_alter_path_num=9"));
    EXPECT_TRUE(confHas("qmx_offline_path_num=2"));
    int c = 0, s = 0;
    ASSERT_EQ(QMX_GetLimitAlterPath(portWwn(1), &c, &s), 0);
    EXPECT_EQ(c, -1);
    EXPECT_EQ(s, 9);
    EXPECT_TRUE(refused(QMX_GetLimitOfflinePath(portWwn(1), &c, nullptr), -1, "S_setting == NULL"));
    failRequest("IOCTL_QMX_MP_RDPARM", 0, EIO);
    EXPECT_EQ(QMX_SetLimitAlterPath(portWwn(1), 2, 0), QMX_UNSUPPORTED);  // the first port only
    EXPECT_EQ(QMX_GetMaxLuPath(), 16);
    for (int d = 1; d < 4; ++d) failRequest("IOCTL_QMX_MP_RDPARM", d, EIO);
    EXPECT_EQ(QMX_GetMaxLuPath(), 8);
    EXPECT_EQ(QMX_LastErrorCode(), 7);
}

TEST_F(MpRuntimeTest, NoPortMeansTheDriverCannotBeAsked) {
    for (int d = 0; d < 4; ++d) removePort(d);
    QMX_LUID_INFO info;
    EXPECT_TRUE(refused(QMX_GetLuIDInformation(QMX_NMPATH_LU{}, &info), QMX_ERR_DRIVER));
    EXPECT_EQ(QMX_GetMaxLuPath(), 8);
    EXPECT_EQ(QMX_LastErrorCode(), QMX_ERR_DRIVER);
}

// ------------------------------------------------------------- components
TEST_F(MpRuntimeTest, ComponentsComeFromTheDriverOrFromTheFile) {
    // Multipath active: wwpn, wwnn, gt, attribute and four priority words
    // for each of the 6 targets.
    ASSERT_EQ(QMX_GetCurrentComponentCnt(), 48);
    auto list = std::make_unique<QMX_WWPNLIST>();
    std::vector<QMX_CURRENTCOMPONENT> comp(48);
    ASSERT_EQ(QMX_GetCurrentComponent(list.get(), comp.data()), 0);
    EXPECT_EQ(list->wwpn_cnt, 4);
    EXPECT_STREQ(list->WWPN[1].bind, "0x2100001122334451");
    EXPECT_EQ(comp[0].npd, 1);
    EXPECT_STREQ(comp[0].bind, "0x5000000000000a01");
    EXPECT_EQ(comp[8].target, 1);

    ASSERT_TRUE(writeFile(kConf,
                          "qmxl0-wwpn=0x2100001122334450:qmxl0-tid-3-wwpn=0x5000000000000a01:"
                          "qmxl0-tid-3-gt=0x2:\n"));
    ASSERT_EQ(QMX_GetSettingComponentCnt(), 2);
    ASSERT_EQ(QMX_GetSettingComponent(list.get(), comp.data()), 0);
    EXPECT_EQ(comp[1].npd, 9);
    EXPECT_EQ(comp[1].group, 2);
    EXPECT_EQ(comp[1].target, 3);
    EXPECT_TRUE(refused(QMX_GetSettingComponent(list.get(), nullptr), -1, "component == NULL"));
    makeUnreadable(kConf);
    EXPECT_EQ(QMX_GetSettingComponentCnt(), -1);
    EXPECT_TRUE(traceHas("read_qmxldd_conf is errend"));
}

}  // namespace
