// BIOS data, backup, restore and pre-configuration, end to end: the shared
// library against the simulated qmxbios and its backup files.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "vhost.h"

namespace {

constexpr const char *kBackupDir = "/tmp/biosbk";

class BiosData : public VHostTest {
protected:
    void SetUp() override {
        VHostTest::SetUp();
        mkdir(kBackupDir, 0755);
    }
    // A backup file of adapter 0 (device 0x2532) as the tool lays it out,
    // all settings zero.
    static std::vector<uint8_t> crafted() {
        std::vector<uint8_t> f(1360, 0);
        const uint8_t id[4] = {0x25, 0x32, 0x1e, 0x5a};  // as the driver returns them
        std::memcpy(&f[8], id, 4);
        return f;
    }
    static std::string put(const std::vector<uint8_t> &f, const std::string &name = "crafted.bios") {
        std::string path = std::string(kBackupDir) + "/" + name;
        EXPECT_TRUE(writeFile(path, std::string(f.begin(), f.end())));
        return path;
    }
    static int fromFile(int devno, const std::string &path, QMX_BIOS_DATA *d) {
        std::memset(d, 0xEE, sizeof *d);
        return QMX_GetBiosData(portWwn(devno), const_cast<char *>(path.c_str()), d);
    }
};

TEST_F(BiosData, PortOneReadsItsOwnBlockAndWwnSlot) {
    std::vector<uint8_t> f = crafted();
    f[12] = 3;             // pre-configuration on
    f[513] = 0x90;         // port 1: BIOS and boot priority on
    f[257] = 0x20;         // port 0: spin-up only
    f[512 + 3] = 1;        // point to point
    f[512 + 4] = 8;
    f[512 + 5] = 0x80;     // bindings off
    f[512 + 6] = 0x8A;     // 10 seconds
    f[512 + 0x16] = 0x01;  // boot device 1: LUN 0x0102, WWPN 50:06:...
    f[512 + 0x17] = 0x02;
    const uint8_t wwn[8] = {0x50, 0x06, 0x0e, 0x80, 0, 0, 0, 0x42};
    std::memcpy(&f[512 + 0x18], wwn, 8);
    std::memcpy(&f[1320], wwn, 8);
    QMX_BIOS_DATA d;
    ASSERT_EQ(0, fromFile(1, put(f), &d));
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    // BIOS, boot priority, spin-up, connection, rate, bindings, force default, login delay, pre-configuration.
    EXPECT_EQ(std::vector<long>({long(d.hbaBios), long(d.bootPri), long(d.spinupDelay), d.connectType, d.dataRate,
                                 d.pBindings, d.forceDefault, long(d.loginDelay), d.preConfigure}),
              std::vector<long>({1, 1, 0, 2, 8, 0, 0, 10, 1}));
    EXPECT_EQ(d.bootPriList.entry[0].lun, 0x0102u);
    EXPECT_EQ(0, std::memcmp(d.bootPriList.entry[0].PortWWN.wwn, wwn, 8));
    EXPECT_EQ(0, std::memcmp(d.addWwpn.wwn, wwn, 8));
    EXPECT_TRUE(traceHas("QMX_GetBiosData END"));
    EXPECT_EQ(driverRequests("IOCTL_QMX_SC_PRINFO", 1), 2);  // discovery and the call
}

TEST_F(BiosData, BadFilesFailWithCodeNineAndTheirMessage) {
    std::vector<uint8_t> good = crafted(), other = crafted();
    other[9] = 0x33;  // device 0x2533
    // A directory opens for reading but every read of it fails.
    const std::string unreadable = std::string(kBackupDir) + "/unreadable.bios";
    mkdir(unreadable.c_str(), 0755);
    const struct {
        std::vector<uint8_t> file;
        const char *message;
        const char *path;
    } cases[] = {
        {std::vector<uint8_t>(12, 0), "Headder read error(pre_conf)", nullptr},
        {std::vector<uint8_t>(2, 0), "Headder read error(ver)", nullptr},
        {{}, "Headder read error(ver)", unreadable.c_str()},
        {other, "Headder read error(device_id unmatch) 25331e5a 25321e5a", nullptr},
        {std::vector<uint8_t>(good.begin(), good.begin() + 1279), "HBA_BIOS_SIZE read error", nullptr},
        {std::vector<uint8_t>(good.begin(), good.begin() + 1300), "ADDWWN_SIZE read error", nullptr},
    };
    for (const auto &c : cases) {
        QMX_BIOS_DATA d;
        clearTrace();
        EXPECT_EQ(1, fromFile(0, c.path != nullptr ? c.path : put(c.file), &d)) << c.message;
        EXPECT_EQ(QMX_LastErrorCode(), 9) << c.message;
        EXPECT_TRUE(traceHas(c.message)) << c.message;
        EXPECT_TRUE(traceHas("QMX_GetBiosData ABEND")) << c.message;
    }
    EXPECT_TRUE(syslogLines(1, 300).empty());  // no "fread" report
}

TEST_F(BiosData, TheToolsBackupOfAnIdentifierWithALeadingZeroDigitNeverMatches) {
    // Device 0x0101 on adapter 1: "%8x" writes the leading zero of the
    // adapter's text as a blank, which the file's swapped text never has.
    setPortField(2, "device", "0x0101");
    setPortField(3, "device", "0x0101");
    ASSERT_EQ(0, QMX_BiosBackup(portWwn(2), const_cast<char *>(kBackupDir)));
    QMX_BIOS_DATA d;
    EXPECT_TRUE(refused(fromFile(2, std::string(kBackupDir) + "/qmxldd2.bios", &d), 9,
                        "Headder read error(device_id unmatch) 01011e5a  1011e5a"));
}

TEST_F(BiosData, LiveSettingsComeFromTheListing) {
    QMX_WWN w = portWwn(0);
    ASSERT_EQ(0, QMX_SetHBABiosSetting(w, 1));
    ASSERT_EQ(0, QMX_SetPreConfigure(w, 1));
    QMX_BIOS_DATA d;
    std::memset(&d, 0xEE, sizeof d);
    ASSERT_EQ(0, QMX_GetBiosData(w, nullptr, &d));
    // ENABLE, DISABLE (2 when live), auto, auto, "default", on.
    EXPECT_EQ(std::vector<long>({long(d.hbaBios), long(d.bootPri), d.connectType, d.dataRate, long(d.loginDelay),
                                 d.preConfigure}),
              std::vector<long>({1, 2, 1, 0, 255, 1}));
    QMX_WWN zero{};
    EXPECT_EQ(0, std::memcmp(d.addWwpn.wwn, zero.wwn, 8));
    EXPECT_EQ(0, QMX_GetBiosData(w, const_cast<char *>(""), &d));  // empty name: live too
    std::vector<std::string> want = {"qmxbios -x -d qmxldd0 -p bios=Enable",
                                     "qmxbios -x -d qmxldd0 -p pre_configure=Enable",
                                     "qmxbios -d qmxldd0 -o cfgshowex", "qmxbios -d qmxldd0 -o cfgshowex"};
    EXPECT_EQ(toolLog("qmxbios"), want);  // the listing of each read
    QMX_UINT32 pre = 0;
    ASSERT_EQ(0, QMX_GetPreConfigure(w, &pre));
    EXPECT_EQ(pre, 1u);
    EXPECT_TRUE(refused(QMX_GetPreConfigure(w, nullptr), -1, "preconfigure == NULL"));
    EXPECT_TRUE(refused(QMX_GetBiosData(w, nullptr, nullptr), 2, "bios_dat is null"));
}

TEST_F(BiosData, BackupOfThePortsAdapterDecodesAsSetThenRestores) {
    QMX_WWN w1 = portWwn(1);
    ASSERT_EQ(0, QMX_SetHBABiosSetting(w1, 1));
    ASSERT_EQ(0, QMX_SetLoginDelayTime(w1, 10, 0));
    ASSERT_EQ(0, QMX_BiosBackup(w1, const_cast<char *>(kBackupDir)));
    std::string file = std::string(kBackupDir) + "/qmxldd0.bios";  // named after the first port
    ASSERT_TRUE(fileExists(file));
    QMX_BIOS_DATA d;
    ASSERT_EQ(0, fromFile(1, file, &d));
    EXPECT_EQ(d.hbaBios, 1u);  // 1/0 from a file
    EXPECT_EQ(d.loginDelay, 10u);
    ASSERT_EQ(0, fromFile(0, file, &d));
    EXPECT_EQ(d.hbaBios, 0u);
    EXPECT_EQ(d.loginDelay, 255u);

    ASSERT_EQ(0, QMX_SetHBABiosSetting(w1, 0));
    ASSERT_EQ(0, QMX_BiosRestore(w1, const_cast<char *>(file.c_str())));
    QMX_BIOSSETTING s = 0;
    ASSERT_EQ(0, QMX_GetHBABiosSetting(w1, &s));
    EXPECT_EQ(s, 1u);
    ASSERT_EQ(0, QMX_BiosRestart(w1));
    std::vector<std::string> log = toolLog("qmxbios");
    EXPECT_NE(std::find(log.begin(), log.end(), "qmxbios -x -d qmxldd1 -o backup -f /tmp/biosbk"), log.end());
    EXPECT_NE(std::find(log.begin(), log.end(), "qmxbios -x -d qmxldd1 -o restore -f " + file), log.end());
    EXPECT_EQ(log.back(), "qmxbios -x -d qmxldd1 -o aprestart");
}

TEST_F(BiosData, AllZeroWwnBacksUpEveryAdapterWithoutAPortLookup) {
    QMX_WWN zero{};
    ASSERT_EQ(0, QMX_BiosBackup(zero, const_cast<char *>(kBackupDir)));
    EXPECT_EQ(toolLog("qmxbios"), std::vector<std::string>{"qmxbios -x -a -o backup -f /tmp/biosbk"});
    EXPECT_EQ(traceCount("QMX_InitRoutine START"), 0);
    EXPECT_TRUE(fileExists(std::string(kBackupDir) + "/qmxldd0.bios"));
    EXPECT_TRUE(fileExists(std::string(kBackupDir) + "/qmxldd2.bios"));
}

TEST_F(BiosData, PathArgumentsAreCheckedBeforeAnyRun) {
    QMX_WWN w = portWwn(0);
    const struct {
        QMX_STATUS st;
        const char *message;
    } cases[] = {
        {QMX_BiosBackup(w, nullptr), "backup_dir is null"},
        {QMX_BiosBackup(w, const_cast<char *>("/tmp/none")), "backup_dir is wrong"},
        {QMX_BiosRestore(w, nullptr), "restore_file is null"},
        {QMX_BiosRestore(w, const_cast<char *>("/tmp/none.bios")), "restore_file is wrong"},
        {QMX_SetPreConfigure(w, 2), "preconfigure is invalid value"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.st, 1) << c.message;
        EXPECT_TRUE(traceHas(c.message)) << c.message;
    }
    EXPECT_EQ(QMX_LastErrorCode(), 2);
    EXPECT_TRUE(traceHas("No such file or directory"));
    EXPECT_TRUE(toolLog("qmxbios").empty());
}

}  // namespace
