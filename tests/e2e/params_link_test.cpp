// Link settings and boot-firmware parameters in the virtual host: the BIOS
// tool path of ports that are not partitioned, the EFI option area of
// partitioned ports (shared ports read only, dedicated ports read and
// write), and the port information calls.
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "params_support.h"

namespace {
constexpr int kShared = 0x80;
constexpr int kDedicated = 0xC0;
}  // namespace

class LinkSettings : public ParamsVHostTest {
protected:
    static void setMlpf(int devno, int mode) { setPrinfoField(devno, "mlpf_mode", mode); }
    static void setEfi(int devno, int offset, int value) {
        editState([&](qmxsim::json &s) { portOf(s, devno)["efi"][std::to_string(offset)] = value; });
    }
    // The option byte as stored (-1: never written, the area's default applies).
    static int efiByte(int devno, int offset) {
        qmxsim::json s = state();
        const qmxsim::json *p = qmxsim::findPort(s, devno);
        if (p == nullptr || !p->contains("efi") || !(*p)["efi"].contains(std::to_string(offset))) return -1;
        return int(qmxsim::fieldI64((*p)["efi"], std::to_string(offset).c_str(), -1));
    }
};

// ---------------------------------------------------------------- connection type
TEST_F(LinkSettings, ConnectionTypeThroughTheBiosTool) {
    QMX_UINT8 c = 9, s = 9;
    ASSERT_EQ(QMX_GetConnectionType(portWwn(0), &c, &s), 0);
    EXPECT_EQ(c, 2);  // the driver's connection_type, unmapped
    EXPECT_EQ(s, 1);  // the tool's default: auto
    ASSERT_EQ(QMX_SetConnectionType(portWwn(0), 3), 0);
    EXPECT_TRUE(toolRan("-x -d qmxldd0 -p connection_type=loop"));
    ASSERT_EQ(QMX_GetConnectionType(portWwn(0), &c, &s), 0);
    EXPECT_EQ(s, 3);
    ASSERT_EQ(QMX_SetConnectionType(portWwn(0), 2), 0);
    EXPECT_TRUE(toolRan("-x -d qmxldd0 -p connection_type=ptop"));
    EXPECT_FALSE(traceHas("QMX_GetConnectionType (MMIO-HG)"));
}

TEST_F(LinkSettings, SetConnectionTypeOpensWithTheTraceLineToolsExpect) {
    ASSERT_EQ(QMX_SetConnectionType(portWwn(1), 1), 0);
    std::vector<std::string> lines = traceLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "QMX_GetPackageInformation START");
    EXPECT_EQ(lines.back(), "QMX_SetConnectionType END");
    EXPECT_FALSE(traceHas("QMX_SetConnectionType START"));
    EXPECT_FALSE(traceHas("QMX_ExeclusiveLock START(1)"));
}

TEST_F(LinkSettings, ConnectionTypeOutOfRangeIsRefusedBeforeAnyQuery) {
    discover();
    int before = driverRequests("IOCTL_QMX_SC_PRINFO");
    EXPECT_TRUE(refused(QMX_SetConnectionType(portWwn(0), 0), 2));
    EXPECT_EQ(QMX_SetConnectionType(portWwn(0), 4), 1);
    EXPECT_EQ(traceCount("Connection type value error"), 2);
    EXPECT_EQ(traceCount("QMX_SetConnectionType ABEND"), 2);
    EXPECT_EQ(driverRequests("IOCTL_QMX_SC_PRINFO"), before);
    EXPECT_EQ(toolRuns(), 0);
}

TEST_F(LinkSettings, ConnectionTypeOfASharedPartitionedPort) {
    setMlpf(1, kShared);
    QMX_UINT8 c = 9, s = 9;
    ASSERT_EQ(QMX_GetConnectionType(portWwn(1), &c, &s), 0);
    EXPECT_TRUE(traceHas("QMX_GetConnectionType (MMIO-HG)"));
    EXPECT_EQ(s, 3);  // option byte 2 reads as loop (the other bytes: LinkSettings.EncodingsAndPartitionModes)
    setEfi(1, 515, 255);
    EXPECT_EQ(toolRuns(), 0);
    // A shared port may not change it.
    for (QMX_UINT8 v : {1, 2, 3}) {
        EXPECT_TRUE(refused(QMX_SetConnectionType(portWwn(1), v), 2));
    }
    EXPECT_TRUE(inOrder({"QMX_CallDriver START", "QMX_SetConnectionType Not Support Shared FC mode",
                         "QMX_SetConnectionType ABEND"}));
    EXPECT_EQ(portCounter(1, "efi_store"), 0);
    EXPECT_EQ(efiByte(1, 515), 255);
}

TEST_F(LinkSettings, ConnectionTypeOfADedicatedPartitionedPort) {
    setMlpf(2, kDedicated);
    for (auto [type, opt] : std::vector<std::pair<QMX_UINT8, int>>{{1, 0}, {2, 1}, {3, 3}}) {
        ASSERT_EQ(QMX_SetConnectionType(portWwn(2), type), 0);
        EXPECT_EQ(efiByte(2, 515), opt) << int(type);
    }
    EXPECT_EQ(traceCount("QMX_SetConnectionType (MMIO-HG Dedicate)"), 3);
    EXPECT_EQ(portCounter(2, "efi_store"), 3);
    QMX_UINT8 c = 0, s = 0;
    ASSERT_EQ(QMX_GetConnectionType(portWwn(2), &c, &s), 0);
    EXPECT_EQ(s, 3);
    EXPECT_EQ(toolRuns(), 0);
}

TEST_F(LinkSettings, ConnectionTypeFailures) {
    QMX_UINT8 c = 9;
    EXPECT_TRUE(refused(QMX_GetConnectionType(portWwn(0), &c, nullptr), 2));
    EXPECT_EQ(c, 0);
    EXPECT_TRUE(traceHas("S_ConnectionType == NULL"));
    EXPECT_TRUE(refused(QMX_GetConnectionType(portWwn(0), nullptr, &c), -1, "C_ConnectionType == NULL"));
    failRequest("IOCTL_QMX_SC_PRINFO", 0, EIO);
    QMX_UINT8 s = 0;
    EXPECT_TRUE(refused(QMX_GetConnectionType(portWwn(0), &c, &s), 7));
    EXPECT_TRUE(inOrder({"IOCTL_QMX_SC_PRINFO", "QMX_GetConnectionType Error", "QMX_GetConnectionType ABEND"}));
    EXPECT_EQ(QMX_SetConnectionType(portWwn(0), 1), 1);
    EXPECT_TRUE(inOrder({"QMX_GetPackageInformation START", "IOCTL_QMX_SC_PRINFO", "QMX_CallDriver Error",
                         "QMX_SetConnectionType ABEND"}));
    clearFaults();
    scriptTool("qmxbios", 3, -1);
    EXPECT_TRUE(refused(QMX_SetConnectionType(portWwn(0), 1), 11));
}

// --------------------------------------------------------------------- port speed
TEST_F(LinkSettings, PortSpeedCurrentValueFromTheDriverRate) {
    struct {
        int devno;
        int rate;
        int want;
    } cases[] = {{0, 400, 4}, {1, 1600, 0}, {2, 1000, 10}, {3, 100, 1}};
    for (auto c : cases) setPrinfoField(c.devno, "max_data_rate", c.rate);
    for (auto c : cases) {
        QMX_UINT8 cur = 99, set = 99;
        ASSERT_EQ(QMX_GetPortSpeed(portWwn(c.devno), &cur, &set), 0);
        EXPECT_EQ(cur, c.want) << c.rate;
        EXPECT_EQ(set, 0);  // the tool's default: auto
    }
}

TEST_F(LinkSettings, PortSpeedThroughTheBiosTool) {
    for (QMX_UINT8 bad : {3, 5, 16, 255}) {
        EXPECT_TRUE(refused(QMX_SetPortSpeed(portWwn(0), bad), 2));
    }
    EXPECT_EQ(traceCount("portspeed is invalid value"), 4);
    EXPECT_EQ(toolRuns(), 0);
    ASSERT_EQ(QMX_SetPortSpeed(portWwn(0), 0), 0);
    EXPECT_TRUE(toolRan("-x -d qmxldd0 -p data_rate=auto"));
    ASSERT_EQ(QMX_SetPortSpeed(portWwn(0), 10), 0);
    EXPECT_TRUE(toolRan("-x -d qmxldd0 -p data_rate=10"));
    QMX_UINT8 c = 0, s = 0;
    ASSERT_EQ(QMX_GetPortSpeed(portWwn(0), &c, &s), 0);
    EXPECT_EQ(s, 10);
    EXPECT_TRUE(refused(QMX_GetPortSpeed(portWwn(0), &c, nullptr), -1, "S_portspeed is null"));
}

TEST_F(LinkSettings, PortSpeedOfPartitionedPorts) {
    setMlpf(1, kShared);
    setMlpf(3, kDedicated);
    setEfi(1, 516, 7);  // read as stored, without mapping
    QMX_UINT8 c = 0, s = 0;
    ASSERT_EQ(QMX_GetPortSpeed(portWwn(1), &c, &s), 0);
    EXPECT_EQ(s, 7);
    EXPECT_TRUE(traceHas("QMX_GetPortSpeed (MMIO-HG)"));
    EXPECT_TRUE(refused(QMX_SetPortSpeed(portWwn(1), 8), 2, "QMX_SetPortSpeed Not Support Shared FC mode"));
    EXPECT_EQ(efiByte(1, 516), 7);
    ASSERT_EQ(QMX_SetPortSpeed(portWwn(3), 8), 0);
    EXPECT_TRUE(traceHas("QMX_SetPortSpeed (MMIO-HG Dedicate)"));
    EXPECT_EQ(efiByte(3, 516), 8);
    EXPECT_EQ(efiByte(3, 515), -1);  // the neighbouring option untouched
    EXPECT_EQ(toolRuns(), 0);
}

// --------------------------------------------------------------- preferred AL_PA
// Stored, read back, refused and deleted as a family member (ParamFamily);
// the refusal of 0 (ParamsTable.AcceptedValues) and the lower-case stored form
// (Engine.PreferredAlpaIsOneHexByte) are unit tests.
// A hand-edited value is read by the two characters after its first two.
TEST_F(LinkSettings, PreferredAlpaReadsTheTwoDigitsAfterThePrefix) {
    const struct {
        const char *text;
        int want;
    } cases[] = {{"0x0ef", 0x0e}, {"0x01 ", 0x01}, {"0xC8", 0xc8}};
    for (const auto &c : cases) {
        ASSERT_TRUE(writeFile(kConf, std::string("qmx0_preferred_alpa=") + c.text + ":"));
        QMX_PREFERREDALPA cur = 0, set = 0;
        EXPECT_EQ(QMX_GetPreferredALPANumber(portWwn(0), &cur, &set), 0) << c.text;
        EXPECT_EQ(set, c.want) << c.text;
    }
}

// -------------------------------------------------------------------- login delay
TEST_F(LinkSettings, LoginDelayThroughTheBiosTool) {
    QMX_UINT32 c = 9, s = 9;
    ASSERT_EQ(QMX_GetLoginDelayTime(portWwn(0), &c, &s), 0);
    EXPECT_EQ(c, 3u);    // the driver's login_delay
    EXPECT_EQ(s, 255u);  // the tool's default
    EXPECT_TRUE(refused(QMX_SetLoginDelayTime(portWwn(0), 61, 0), 2, "delaytime is invalid value"));
    ASSERT_EQ(QMX_SetLoginDelayTime(portWwn(0), 10, 0), 0);
    EXPECT_TRUE(toolRan("-x -d qmxldd0 -p login_delay_time=10"));
    ASSERT_EQ(QMX_GetLoginDelayTime(portWwn(0), &c, &s), 0);
    EXPECT_EQ(s, 10u);
    ASSERT_EQ(QMX_SetLoginDelayTime(portWwn(0), 61, 1), 0);  // any value: back to the default
    EXPECT_TRUE(toolRan("-x -d qmxldd0 -p login_delay_time=default"));
    ASSERT_EQ(QMX_GetLoginDelayTime(portWwn(0), &c, &s), 0);
    EXPECT_EQ(s, 255u);
    // The configuration file is not involved, nor its lock.
    EXPECT_FALSE(traceHas("/etc/qmxldd.conf is Lock SUCCESS"));
}

TEST_F(LinkSettings, LoginDelayOfAPartitionedPortLivesInTheOptionArea) {
    setMlpf(2, kShared);
    setEfi(2, 516, 4);
    QMX_UINT32 c = 0, s = 0;
    ASSERT_EQ(QMX_GetLoginDelayTime(portWwn(2), &c, &s), 0);
    EXPECT_TRUE(traceHas("QMX_GetLoginDelayTime (MMIO-HG)"));
    EXPECT_EQ(s, 255u);  // bit 7 clear: not set
    setEfi(2, 518, 0x85);
    ASSERT_EQ(QMX_GetLoginDelayTime(portWwn(2), &c, &s), 0);
    EXPECT_EQ(s, 5u);
    ASSERT_EQ(QMX_SetLoginDelayTime(portWwn(2), 10, 0), 0);
    EXPECT_TRUE(traceHas("QMX_SetLoginDelayTime (MMIO-HG)"));
    EXPECT_EQ(efiByte(2, 518), 0x8A);
    EXPECT_EQ(efiByte(2, 516), 4);  // the rest of the option word is written back unchanged
    ASSERT_EQ(QMX_SetLoginDelayTime(portWwn(2), 10, 1), 0);
    EXPECT_EQ(efiByte(2, 518), 0);
    // A dedicated port keeps it there too, under the same trace line.
    setMlpf(3, kDedicated);
    ASSERT_EQ(QMX_SetLoginDelayTime(portWwn(3), 0, 0), 0);
    EXPECT_EQ(efiByte(3, 518), 0x80);
    EXPECT_EQ(traceCount("QMX_SetLoginDelayTime (MMIO-HG)"), 3);
    EXPECT_FALSE(traceHas("QMX_SetLoginDelayTime (MMIO-HG Dedicate)"));
    EXPECT_EQ(toolRuns(), 0);
    EXPECT_FALSE(traceHas("QMX_ExeclusiveLock START"));
}

TEST_F(LinkSettings, LoginDelaySetterReportsAFailedQueryUnderTheChannelsName) {
    discover();
    failRequest("IOCTL_QMX_SC_PRINFO", 1, EIO);
    EXPECT_TRUE(refused(QMX_SetLoginDelayTime(portWwn(1), 10, 0), 7));
    EXPECT_TRUE(inOrder({"QMX_SetLoginDelayTime START", "IOCTL_QMX_SC_PRINFO", "QMX_CallDriver Error",
                         "QMX_SetLoginDelayTime ABEND"}));
    EXPECT_EQ(toolRuns(), 0);
}

// -------------------------------------------------------------------- spin-up delay
TEST_F(LinkSettings, SpinupDelay) {
    setPrinfoField(0, "spinup_delay", 1);
    setPrinfoField(1, "spinup_delay", 2);
    QMX_SPINUP c = 9, s = 9;
    ASSERT_EQ(QMX_GetSpinupDelay(portWwn(0), &c, &s), 0);
    EXPECT_EQ(c, 1u);
    EXPECT_EQ(s, 2u);  // the listing says DISABLE
    ASSERT_EQ(QMX_GetSpinupDelay(portWwn(1), &c, &s), 0);
    EXPECT_EQ(c, 0u);
    EXPECT_TRUE(refused(QMX_SetSpinupDelay(portWwn(0), 2), 2, "spinupdelay is invalid value"));
    ASSERT_EQ(QMX_SetSpinupDelay(portWwn(0), 1), 0);
    EXPECT_TRUE(toolRan("-x -d qmxldd0 -p spinup_delay=Enable"));
    ASSERT_EQ(QMX_GetSpinupDelay(portWwn(0), &c, &s), 0);
    EXPECT_EQ(s, 1u);
    ASSERT_EQ(QMX_SetSpinupDelay(portWwn(0), 0), 0);
    EXPECT_TRUE(toolRan("-x -d qmxldd0 -p spinup_delay=Disable"));
    EXPECT_TRUE(refused(QMX_GetSpinupDelay(portWwn(0), nullptr, &s), -1, "C_spinupdelay is null"));
}

// ---------------------------------------------------------------- port information
TEST_F(LinkSettings, ProcInfoCopiesTheDriversSummary) {
    setPrinfoField(3, "max_data_rate", 800);
    setPrinfoField(3, "login_delay", 7);
    setPrinfoField(3, "port_status", 3);
    QMX_PROC_INFO info;
    std::memset(&info, 0xCD, sizeof info);
    info.host_no = 0xBEEF;
    ASSERT_EQ(QMX_GetProcInfo(portWwn(3), &info), 0);
    EXPECT_EQ(info.host_no, 0xBEEF);  // left as the caller set it
    EXPECT_EQ(info.vender_id, 0x1E5A);
    EXPECT_EQ(info.device_id, 0x2532);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(info.model_name), 6), "QX2402");
    EXPECT_EQ(info.model_name[6], 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(info.driver_ver), 5), "2.1.0");
    EXPECT_EQ(info.firmware_ver, 0x01020304u);
    EXPECT_EQ(std::vector<uint8_t>(info.bus_dev_func, info.bus_dev_func + 3), (std::vector<uint8_t>{4, 0, 1}));
    EXPECT_EQ(info.port_status, 3);
    EXPECT_EQ(info.connection_type, 2);
    EXPECT_EQ(info.max_data_rate, 800u);
    EXPECT_EQ(info.login_delay, 7);
    EXPECT_EQ(info.highconf_opt, 0);
    EXPECT_TRUE(refused(QMX_GetProcInfo(portWwn(3), nullptr), 2, "proc_info is null"));
}

TEST_F(LinkSettings, JudgeMlpfModeClassifiesThePartitionMode) {
    setMlpf(1, kShared);
    setMlpf(2, kDedicated);
    setMlpf(3, 0x40);
    for (int devno = 0; devno < 4; ++devno) EXPECT_EQ(QMX_JudgeMlpfMode(portWwn(devno)), devno % 3) << devno;
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    EXPECT_EQ(traceCount("QMX_JudgeMlpfMode END"), 4);
    EXPECT_EQ(QMX_JudgeMlpfMode(wwnOf(0x2100001122339999ull)), -1);
    EXPECT_EQ(QMX_LastErrorCode(), 4);
    failRequest("IOCTL_QMX_SC_PRINFO", 2, EIO);
    EXPECT_EQ(QMX_JudgeMlpfMode(portWwn(2)), -1);
    EXPECT_TRUE(inOrder({"IOCTL_QMX_SC_PRINFO", "QMX_JudgeMlpfMode Error", "QMX_JudgeMlpfMode ABEND"}));
}

// --------------------------------------------------- configuration to the driver
TEST_F(LinkSettings, SysFsFileCopyHandsTheWholeFileToTheDriver) {
    std::string text = "qmx_queue_depth=32:";
    text += std::string(4095 - text.size(), 'x');
    ASSERT_TRUE(writeFile(kConf, text));
    ASSERT_EQ(QMX_SysFsFileCopy(portWwn(1)), 0) << QMX_LastErrorCode();
    EXPECT_EQ(readFile("/sys/class/scsi_host/host3/qmxldd_conf"), text);
    // A shorter file later replaces it whole.
    ASSERT_TRUE(writeFile(kConf, "qmx_queue_depth=16:"));
    ASSERT_EQ(QMX_SysFsFileCopy(portWwn(1)), 0);
    EXPECT_EQ(readFile("/sys/class/scsi_host/host3/qmxldd_conf"), "qmx_queue_depth=16:");
    EXPECT_TRUE(traceHas("QMX_SysFsFileCopy END"));
}

TEST_F(LinkSettings, SysFsFileCopyRefusesAFileOfAPageOrMore) {
    std::string sysfs = "/sys/class/scsi_host/host2/qmxldd_conf";
    std::string old = readFile(sysfs);
    ASSERT_TRUE(writeFile(kConf, std::string(4096, 'y')));
    EXPECT_TRUE(refused(QMX_SysFsFileCopy(portWwn(0)), 14));
    EXPECT_TRUE(inOrder({"conf file size 4096 byte too big", "QMX_SysFsFileCopy ABEND"}));
    EXPECT_EQ(readFile(sysfs), old);
}

TEST_F(LinkSettings, SysFsFileCopyWithoutTheFile) {
    ASSERT_TRUE(removeFile(kConf));
    EXPECT_TRUE(refused(QMX_SysFsFileCopy(portWwn(0)), 1));
    // The message is cut to the library's 65-character error text.
    EXPECT_TRUE(traceHas("qmxvlib:qmxldd.conf open is error. errno(2:No such file or direct"));
}

TEST_F(LinkSettings, SysFsFileCopyWithoutTheAttribute) {
    // The host is there, but its driver offers no attribute: nothing is
    // created in its place.
    removeFile("/sys/class/scsi_host/host2/qmxldd_conf");
    EXPECT_TRUE(refused(QMX_SysFsFileCopy(portWwn(0)), 1));
    EXPECT_FALSE(fileExists("/sys/class/scsi_host/host2/qmxldd_conf"));
    EXPECT_TRUE(inOrder({"/sys/class/scsi_host/host2/qmxldd_conf",
                         "qmxvlib:sysfs open is error. errno(2:No such file or directory)",
                         "QMX_SysFsFileCopy ABEND"}));
}

TEST_F(LinkSettings, DriverParamReflection) {
    ASSERT_EQ(QMX_DriverParamReflection(portWwn(2)), 0);
    EXPECT_EQ(portCounter(2, "read_apparam"), 1);
    EXPECT_EQ(driverRequests("IOCTL_QMX_READ_APPARAM", 2), 1);
    failRequest("IOCTL_QMX_READ_APPARAM", 2, EIO);
    EXPECT_TRUE(refused(QMX_DriverParamReflection(portWwn(2)), 7));
    EXPECT_TRUE(inOrder({"IOCTL_QMX_READ_APPARAM", "QMX_DriverParamReflection Error",
                         "QMX_DriverParamReflection ABEND"}));
    EXPECT_TRUE(refused(QMX_DriverParamReflection(wwnOf(1)), 4));
}
