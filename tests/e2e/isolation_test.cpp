// Isolation calls in the virtual host: force-isolate entries and siblings,
// adapter isolation and its refusals, the isolation function, transceiver
// hot swap (checks, LED, identification) and the trouble counters.
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "vhost.h"

namespace {

class IsolationTest : public VHostTest {
protected:
    std::unique_ptr<QMX_FORCE_ISOLATE_LIST> list = std::make_unique<QMX_FORCE_ISOLATE_LIST>();

    QMX_FORCE_ISOLATE_LIST *entry(uint8_t bus, uint8_t dev, uint8_t func, int setOpr, int mode,
                                  int immdt = 0, int force = 0) {
        std::memset(list.get(), 0, sizeof *list);
        list->list[0] = {bus, dev, func, 0, mode, setOpr, immdt, force, 0};
        return list.get();
    }
    static QMX_SFP_INFO sfp(uint8_t bus, uint8_t func, int setOpr, int force = 0) {
        QMX_SFP_INFO s;
        std::memset(&s, 0, sizeof s);
        s.bus = bus;
        s.func = func;
        s.set_opr = setOpr;
        s.force = force;
        return s;
    }
    static int portStatus(int devno) {
        qmxsim::json s = state();
        return int(qmxsim::fieldI64(portOf(s, devno)["prinfo"], "port_status", 1));
    }
    static std::string pciByte(int devno, int offset) {
        qmxsim::json s = state();
        const qmxsim::json &p = portOf(s, devno);
        if (!p.contains("pci_config") || !p["pci_config"].contains(std::to_string(offset)))
            return "";
        return std::to_string(qmxsim::toU64(p["pci_config"][std::to_string(offset)]));
    }
    static void isolationField(int devno, const std::string &field, int value) {
        editState([&](qmxsim::json &s) { portOf(s, devno)["isolation"][field] = value; });
    }
};

// ---------------------------------------------------------- force isolation
TEST_F(IsolationTest, ListStopsAt256EntriesFromTheKeysHexPairs) {
    // keys in the file -> entries listed, "over MAX" traced
    const struct {
        int keys, listed;
        bool over;
    } cases[] = {{255, 255, false}, {256, 256, true}, {300, 256, true}};
    for (const auto &c : cases) {
        std::string conf = "qmx_queue_depth=32:qmx_0a_1f_03_bs=2:";
        for (int i = 1; i < c.keys; ++i) {
            char item[40];
            std::snprintf(item, sizeof item, "qmx_%02x_%02x_00_bs=1:", i / 256, i % 256);
            conf += item;
        }
        ASSERT_TRUE(writeFile(kConf, conf));
        clearTrace();
        ASSERT_EQ(QMX_GetForceIsolateList(list.get()), 0);
        EXPECT_EQ(list->listCnt, c.listed) << c.keys;
        EXPECT_EQ(traceHas("isolate_list is defined over MAX"), c.over) << c.keys;
    }
    const QMX_ISOLATE &first = list->list[0];
    EXPECT_EQ(first.bus, 0x0a);
    EXPECT_EQ(first.dev, 0x1f);
    EXPECT_EQ(first.func, 3);
    EXPECT_EQ(first.mode, 2);
    EXPECT_EQ(list->list[255].dev, 255);
    EXPECT_EQ(list->list[255].mode, 1);

    EXPECT_TRUE(refused(QMX_GetForceIsolateList(nullptr), 2, "isolate_list is null"));
}

TEST_F(IsolationTest, IsolatingWithMode2WritesSiblingsAndAsksTheDriver) {
    // Both functions boot through their BIOS: the advice names each.
    setPortField(0, "bios", {{"bios", "Enable"}});
    setPortField(1, "bios", {{"bios", "Enable"}});
    testing::internal::CaptureStdout();
    ASSERT_EQ(QMX_SetForceIsolateList(entry(3, 0, 1, 1, 2), 1), 0);
    const std::string advice = "Please set the HBA-BIOS parameter in Disable with the following commands. \n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              advice + "  /opt/kestrel/drivers/hba/qmxmgr -b qmxldd1 bi disable\n" + advice +
                  "  /opt/kestrel/drivers/hba/qmxmgr -b qmxldd0 bi disable\n");
    EXPECT_TRUE(traceHas("QMX_SetForceIsolateList END"));
    std::string conf = readFile(kConf);
    EXPECT_NE(conf.find("qmx_03_00_01_bs=2:"), std::string::npos);
    EXPECT_NE(conf.find("qmx_03_00_00_bs=2:"), std::string::npos);
    EXPECT_EQ(conf.find("qmx_04_00"), std::string::npos);
    EXPECT_EQ(driverRequests("IOCTL_QMX_HBA_ISOLATION", 1, 1), 1);
    EXPECT_EQ(portStatus(1), 3);
    EXPECT_EQ(portStatus(0), 1);  // a sibling's entry only, no request

    // Releasing with mode 0 changes only the configuration.
    int before = driverRequests("IOCTL_QMX_HBA_ISOLATION");
    ASSERT_EQ(QMX_SetForceIsolateList(entry(3, 0, 1, 2, 0, 1, 1), 0), 0);
    conf = readFile(kConf);
    EXPECT_EQ(conf.find("_bs="), std::string::npos);
    EXPECT_EQ(driverRequests("IOCTL_QMX_HBA_ISOLATION"), before);

    // Released with mode 1: the driver recovers at once and by force.
    ASSERT_EQ(QMX_SetForceIsolateList(entry(3, 0, 1, 2, 0, 1, 1), 1), 0);
    EXPECT_EQ(portStatus(1), 1);
    EXPECT_EQ(portCounter(1, "recover_immediate"), 1);
    EXPECT_EQ(portCounter(1, "recover_forced"), 1);
}

TEST_F(IsolationTest, Mode1EntryLeavesSiblingsAloneAndReleaseRemovesMode2Siblings) {
    ASSERT_TRUE(writeFile(kConf, "qmx_03_00_00_bs=2:qmx_04_00_00_bs=1:"));
    setPortField(2, "bios", {{"bios", "Enable"}});
    // The BIOS data of the advice cannot be read (its port lookup finds the
    // port gone): traced, the call's own code stays.
    addFault({{"request", "IOCTL_QMX_SC_PRINFO"}, {"port", 3}, {"errno", EIO}, {"skip", 1}, {"times", -1}});
    testing::internal::CaptureStdout();
    ASSERT_EQ(QMX_SetForceIsolateList(entry(4, 0, 1, 1, 1), 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    EXPECT_TRUE(traceHas("QMX_GetBiosData Error"));
    clearFaults();
    testing::internal::CaptureStdout();
    ASSERT_EQ(QMX_SetForceIsolateList(entry(4, 0, 1, 1, 1), 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // its own BIOS is off
    EXPECT_NE(readFile(kConf).find("qmx_04_00_00_bs=1:"), std::string::npos);
    EXPECT_NE(readFile(kConf).find("qmx_04_00_01_bs=1:"), std::string::npos);
    // Release of 03:00.1: sibling 03:00.0 holds 2 and goes too; 04:00.0 holds 1 and stays.
    ASSERT_EQ(QMX_SetForceIsolateList(entry(3, 0, 1, 2, 0), 0), 0);
    ASSERT_EQ(QMX_SetForceIsolateList(entry(4, 0, 1, 2, 0), 0), 0);
    std::string conf = readFile(kConf);
    EXPECT_EQ(conf.find("qmx_03_00_00_bs"), std::string::npos);
    EXPECT_NE(conf.find("qmx_04_00_00_bs=1:"), std::string::npos);
    EXPECT_EQ(conf.find("qmx_04_00_01_bs"), std::string::npos);
}

TEST_F(IsolationTest, RefusalsLeaveTheConfigurationUnchanged) {
    struct Case {
        const char *name;
        std::function<void()> setup;
        uint8_t func;
        int setOpr, mode;
        int code;
        const char *trace;
    } cases[] = {
        {"mode", [] {}, 0, 1, 3, 2, "isol mode is invalid value"},
        {"set_opr", [] {}, 0, 4, 1, 2, "isol set_opr is invalid value"},
        {"no port", [] {}, 5, 1, 1, 2, "specified bus dev func adapter port not find"},
        {"shared", [this] {
             setPrinfoField(0, "mlpf_mode", 0x80);
             isolationField(0, "err_is_hvm_spt", 0);
         }, 0, 1, 1, 21, nullptr},
        {"firmware", [this] { isolationField(0, "err_is_fw_spt", 0); }, 0, 1, 1, 22, nullptr},
        {"driver", [] { failRequest("IOCTL_QMX_HBA_ISOLATION", 0, EIO, 1, 1); }, 0, 1, 1, 7,
         "QMX_SetForceIsolateList Error"},
    };
    ASSERT_TRUE(writeFile(kConf, "qmx_queue_depth=32:"));
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        clearTrace();
        c.setup();
        EXPECT_EQ(QMX_SetForceIsolateList(entry(3, 0, c.func, c.setOpr, c.mode), 1), 1);
        EXPECT_EQ(QMX_LastErrorCode(), c.code);
        if (c.trace != nullptr) {
            EXPECT_TRUE(traceHas(c.trace));
        }
        EXPECT_EQ(readFile(kConf), "qmx_queue_depth=32:");
        EXPECT_EQ(portStatus(0), 1);
        editState([](qmxsim::json &s) { portOf(s, 0).erase("isolation"); });
    }
}

// --------------------------------------------------------- adapter isolation
TEST_F(IsolationTest, HbaIsolateAndRecover) {
    QMX_HBA_INFO hba{1};
    ASSERT_EQ(QMX_SetHBAIsolate(portWwn(2), &hba), 0);
    EXPECT_TRUE(traceHas("isol set_opr is set"));
    EXPECT_EQ(portStatus(2), 3);
    hba.set_opr = 7;
    ASSERT_EQ(QMX_SetHBAIsolate(portWwn(2), &hba), 0);
    EXPECT_TRUE(traceHas("isol set_opr is recover"));
    EXPECT_EQ(portStatus(2), 1);
    EXPECT_EQ(driverRequests("IOCTL_QMX_HBA_ISOLATION", 2, 0), 2);  // a read before each
    EXPECT_FALSE(traceHas("QMX_ExeclusiveLock START"));

    isolationField(2, "err_is_fw_spt", 0);
    EXPECT_TRUE(refused(QMX_SetHBAIsolate(portWwn(2), &hba), 22));
    EXPECT_TRUE(refused(QMX_SetHBAIsolate(wwnOf(0x2100000000000099), &hba), 4));
}

TEST_F(IsolationTest, IsolationFunctionSwitchesEveryPortAndIsStored) {
    int onoff = -1;
    ASSERT_EQ(QMX_GetIsolFunc(&onoff), 0);
    EXPECT_EQ(onoff, 1);
    ASSERT_EQ(QMX_SetIsolFunc(0), 0);
    EXPECT_EQ(driverRequests("IOCTL_QMX_HBA_ISOLATION", -1, 4), 4);
    EXPECT_NE(readFile(kConf).find("qmx_hba_isolation=0:"), std::string::npos);
    ASSERT_EQ(QMX_GetIsolFunc(&onoff), 0);
    EXPECT_EQ(onoff, 0);
    QMX_TRBL_CNT c;
    ASSERT_EQ(QMX_GetAdapTroubleCnt(portWwn(3), &c), 0);
    EXPECT_EQ(c.err_is_func, 0);

    // A port that refuses is reported, the others are still switched.
    failRequest("IOCTL_QMX_HBA_ISOLATION", 1, EIO, 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(QMX_SetIsolFunc(1), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "qmxldd1 :QMXAPI ioctl retry\n");
    EXPECT_EQ(driverRequests("IOCTL_QMX_HBA_ISOLATION", -1, 5), 4);
    EXPECT_NE(readFile(kConf).find("qmx_hba_isolation=1:"), std::string::npos);
    EXPECT_TRUE(refused(QMX_GetIsolFunc(nullptr), 2, "onoff == NULL"));
}

// --------------------------------------------------------------- transceiver
TEST_F(IsolationTest, SfpIsolationSwitchesTheLedOffByFunction) {
    setPortField(2, "func", 2);
    setPortField(3, "func", 3);
    QMX_SFP_INFO s2 = sfp(4, 2, 1), s3 = sfp(4, 3, 1);
    ASSERT_EQ(QMX_SetSFPIsolate(&s2), 0);
    ASSERT_EQ(QMX_SetSFPIsolate(&s3), 0);
    EXPECT_EQ(s2.err_no, 1);
    EXPECT_EQ(pciByte(2, 56), "136");
    EXPECT_EQ(pciByte(2, 57), "");
    EXPECT_EQ(pciByte(3, 57), "136");
    EXPECT_EQ(pciByte(3, 56), "");
    EXPECT_EQ(portStatus(2), 3);
    // Recovery leaves the LED alone.
    QMX_SFP_INFO r = sfp(4, 2, 2, 1);
    ASSERT_EQ(QMX_SetSFPIsolate(&r), 0);
    EXPECT_TRUE(traceHas("isol set_opr is force recover"));
    EXPECT_EQ(portCounter(2, "recover_forced"), 1);
    EXPECT_EQ(portStatus(2), 1);
}

TEST_F(IsolationTest, SfpRefusalsCloseAndReleaseLock1) {
    struct Case {
        const char *name;
        std::function<void()> setup;
        int setOpr;
        int code;
        const char *trace;
    } cases[] = {
        {"lpar", [] { setPrinfoField(0, "mlpf_mode", 0x80); }, 1, 20, "Not support, LPAR mode."},
        {"no hot swap", [] {
             editState([](qmxsim::json &s) {
                 portOf(s, 0)["pci_config"]["880"] = 0;
                 portOf(s, 0)["init_table"]["48"] = 0;
             });
         }, 1, 20, "Firmware version does not support hot swap feature of SFP Transceiver."},
        {"isolated", [] { setPrinfoField(0, "port_status", 3); }, 1, 20,
         "The adapter port has already isolated."},
        {"check-stop", [] { setPrinfoField(0, "port_status", 9); }, 2, 20,
         "The adapter port status is CHECK-STOP."},
        {"refused", [] {
             addFault({{"request", "IOCTL_QMX_HBA_ISOLATION"}, {"port", 0}, {"err_code", 2}});
         }, 1, 10, nullptr},
        {"pci read", [] { failRequest("IOCTL_QMX_DIAG0", 0, EIO, 1, 0x20); }, 1, 7,
         "IOCTL_QMX_DIAG0(QMX_DG_RDPCI) ioctl ABEND"},
        {"inittbl", [] { failRequest("IOCTL_QMX_DIAG0", 0, EIO, 1, 0x10); }, 1, 7,
         "IOCTL_QMX_DIAG0(QMX_DGRD_INITTBL) ioctl ABEND"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        clearTrace();
        c.setup();
        QMX_SFP_INFO s = sfp(3, 0, c.setOpr);
        EXPECT_EQ(QMX_SetSFPIsolate(&s), 1);
        EXPECT_EQ(QMX_LastErrorCode(), c.code);
        if (c.trace != nullptr) {
            EXPECT_TRUE(traceHas(c.trace));
        }
        int unlock = traceIndex("QMX_ExeclusiveUnlock START");
        EXPECT_GE(unlock, 0);
        EXPECT_GT(traceIndex("QMX_SetSFPIsolate ABEND"), unlock);
        EXPECT_EQ(pciByte(0, 56), "");
        editState([](qmxsim::json &st) {
            qmxsim::json &p = portOf(st, 0);
            p.erase("prinfo");
            p.erase("pci_config");
            p.erase("init_table");
            st["faults"] = qmxsim::json::array();
        });
    }
}

TEST_F(IsolationTest, SfpInfoReadsTheIdentificationAndSetsStatusBits) {
    editState([](qmxsim::json &s) { portOf(s, 1)["init_table"]["320"] = 0x80; });
    QMX_SFP_INFO s = sfp(3, 1, 0);
    s.status = 0x100;  // kept
    ASSERT_EQ(QMX_GetSFPInfo(&s), 0);
    EXPECT_STREQ(s.part_num, "SFP-8G-SW-0001");
    EXPECT_STREQ(s.serial_num, "KSN000001");
    EXPECT_STREQ(s.date_code, "20240115");
    EXPECT_EQ(s.status, 0x100UL | QMX_SFP_STATUS_ID_BIT6);

    editState([](qmxsim::json &st) { portOf(st, 1)["pci_config"]["880"] = 0; });
    s.status = 0;
    ASSERT_EQ(QMX_GetSFPInfo(&s), 0);
    EXPECT_EQ(s.status, QMX_SFP_STATUS_NO_HW_SWAP | QMX_SFP_STATUS_ID_BIT6);

    s.bus = 9;
    EXPECT_TRUE(refused(QMX_GetSFPInfo(&s), 2));
}

// ----------------------------------------------------------- trouble counters
TEST_F(IsolationTest, TroubleCountersFromTheIsolationRecord) {
    editState([](qmxsim::json &s) {
        qmxsim::json &p = portOf(s, 1);
        p["isolation"] = {{"ld_err_count_l", 4}, {"ld_err_count_s", 2}, {"if_err_count", 5},
                          {"to_err_count", -3}, {"rt_err_count", 7}, {"err_is_hvm_spt", 0}};
        p["prinfo"]["port_status"] = 8;
    });
    QMX_TRBL_CNT c;
    ASSERT_EQ(QMX_GetAdapTroubleCnt(portWwn(1), &c), 0);
    EXPECT_EQ(std::vector<long>({c.port_status, c.countL, c.countS, c.if_err, c.tmo_err, c.tmo_reset,
                                 c.err_is_func, c.err_is_fw_spt, c.err_is_hvm_spt}),
              std::vector<long>({8, 4, 2, 5, -3, 1, 1, 1, 0}));

    // The isolation record cannot be read: the status is in, the rest preset.
    failRequest("IOCTL_QMX_HBA_ISOLATION", 1, EIO, 1);
    EXPECT_TRUE(refused(QMX_GetAdapTroubleCnt(portWwn(1), &c), 7));
    EXPECT_EQ(c.port_status, 8);
    EXPECT_EQ(c.countL, -1);
    EXPECT_EQ(c.tmo_reset, -1);
    EXPECT_EQ(c.err_is_func, 255);
    EXPECT_TRUE(traceHas("QMX_GetAdapTroubleCnt Error"));
    EXPECT_TRUE(refused(QMX_GetAdapTroubleCnt(portWwn(1), nullptr), 2, "trbl_cnt is null"));
}

}  // namespace
