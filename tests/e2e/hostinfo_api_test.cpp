// Alias names, host and port information, the driver-wide defaults record,
// the force-default switch and the device requests (target scan, disk
// rescan, parameter reflection), end to end in the virtual host.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "vhost.h"

namespace {

constexpr const char *kLib = "/etc/qmxlib.conf";
class HostInfo : public VHostTest {
protected:
    static std::string hex(int devno) {
        QMX_WWN w = portWwn(devno);
        char b[17];
        std::snprintf(b, sizeof b, "%02x%02x%02x%02x%02x%02x%02x%02x", w.wwn[0], w.wwn[1],
                      w.wwn[2], w.wwn[3], w.wwn[4], w.wwn[5], w.wwn[6], w.wwn[7]);
        return b;
    }
    static QMX_STATUS setHba(int devno, std::string name, size_t size) {
        return QMX_SetHbaAliasName(portWwn(devno), name.data(), size);
    }
    static std::string getAlias(int devno, bool port = false) {
        char buf[64];
        std::memset(buf, 'x', sizeof buf);
        QMX_STATUS st = port ? QMX_GetPortAliasName(portWwn(devno), buf, sizeof buf - 1)
                             : QMX_GetHbaAliasName(portWwn(devno), buf, sizeof buf - 1);
        EXPECT_EQ(st, 0);
        EXPECT_EQ(buf[sizeof buf - 1], 'x');  // nothing past size is touched
        return std::string(buf, strnlen(buf, sizeof buf - 1));
    }
    // The BIOS tool is replaced by a script whose device listing is `text`.
    static void deviceListing(const std::string &text) {
        std::string tool = std::string(kToolDir) + "/qmxbios";
        removeFile(tool);
        ASSERT_TRUE(writeFile(tool, "#!/bin/sh\ncat <<'EOF'\n" + text + "EOF\n", 0755));
    }
};

// ------------------------------------------------------------------ aliases

TEST_F(HostInfo, AliasOnAnEmptyFileWritesExactlyTheWwnAndAliasEntries) {
    ASSERT_TRUE(writeFile(kLib, ""));
    ASSERT_EQ(0, setHba(1, "db01", 4));
    EXPECT_EQ(readFile(kLib), "qmx0-wwn=" + hex(1) + ":qmx0-alias=db01:");
    ASSERT_EQ(0, QMX_SetPortAliasName(portWwn(1), const_cast<char *>("fabricA"), 7));
    EXPECT_EQ(getAlias(1), "db01");
    EXPECT_EQ(getAlias(1, true), "fabricA");
    EXPECT_EQ(getAlias(2), "");  // a port not in the file: success, empty name
    EXPECT_TRUE(traceHas("qmx_WriteAlias END"));
}

TEST_F(HostInfo, AliasPlacementInAFileWithEntries) {
    const std::string other = "qmx1-wwn=5000000000000001:qmx1-alias=old:";
    ASSERT_TRUE(writeFile(kLib, other + "qmx3-wwn=" + hex(0) + ":qmx4-wwn=5000000000000004:"));
    // A port under index 3 without an alias gets it right behind its entry.
    ASSERT_EQ(0, setHba(0, "boot", 4));
    EXPECT_EQ(readFile(kLib), other + "qmx3-wwn=" + hex(0) + ":qmx3-alias=boot:qmx4-wwn=5000000000000004:");
    // An existing alias is overwritten in place.
    ASSERT_EQ(0, setHba(0, "b2", 2));
    EXPECT_EQ(readFile(kLib), other + "qmx3-wwn=" + hex(0) + ":qmx3-alias=b2:qmx4-wwn=5000000000000004:");
    // A port not in the file is appended under the largest index plus one.
    ASSERT_EQ(0, setHba(2, "new", 3));
    EXPECT_EQ(readFile(kLib), other + "qmx3-wwn=" + hex(0) + ":qmx3-alias=b2:qmx4-wwn=5000000000000004:" +
                                  "qmx5-wwn=" + hex(2) + ":qmx5-alias=new:");
    EXPECT_EQ(getAlias(0), "b2");
    // A driver file shorter than the alias file: the setters still keep
    // every entry.
    ASSERT_TRUE(writeFile(kConf, "qmx_queue_depth=32:"));
    const std::string all = readFile(kLib);
    ASSERT_EQ(0, setHba(1, "x", 1));
    ASSERT_EQ(0, QMX_SetPortAliasName(portWwn(1), const_cast<char *>("y"), 1));
    EXPECT_EQ(readFile(kLib), all + "qmx6-wwn=" + hex(1) + ":qmx6-portalias=y:qmx6-alias=x:");
}

TEST_F(HostInfo, AliasSettersRefuseHiddenCharactersAndTheDelimiter) {
    const std::string before = readFile(kLib);
    struct Case {
        std::string name;
        size_t size;
        bool hba;
        const char *message;
    } cases[] = {
        {"a:b", 3, true, "Detection of delimiter(:)"},
        {"a\tb", 3, true, "hidden character's detection"},
        {"abcde", 8, true, "hidden character's detection"},  // the terminator is checked
        {"abcdef", 5, true, "strlen(aliasname) > size"},
        {"a:b", 3, false, "Detection of delimiter(:)"},
        {"abc", 0, false, "size <= 0"},
    };
    for (Case &c : cases) {
        clearTrace();
        QMX_STATUS st = c.hba ? QMX_SetHbaAliasName(portWwn(0), c.name.data(), c.size)
                              : QMX_SetPortAliasName(portWwn(0), c.name.data(), c.size);
        EXPECT_EQ(st, 1) << c.message;
        EXPECT_EQ(QMX_LastErrorCode(), 2) << c.message;
        EXPECT_TRUE(traceHas(c.message)) << c.message;
    }
    EXPECT_EQ(readFile(kLib), before);
    ASSERT_EQ(0, setHba(0, "abcde", 5));
    EXPECT_EQ(getAlias(0), "abcde");
    // The port setter has no length check: a longer name is cut at size.
    ASSERT_EQ(0, QMX_SetPortAliasName(portWwn(0), const_cast<char *>("abcdef"), 3));
    EXPECT_EQ(getAlias(0, true), "abc");
}

TEST_F(HostInfo, AliasGetterBoundsAndArguments) {
    ASSERT_TRUE(writeFile(kLib, "qmx0-wwn=" + hex(0) + ":qmx0-alias=longname:"));
    char buf[8];
    std::memset(buf, 'x', sizeof buf);
    ASSERT_EQ(0, QMX_GetHbaAliasName(portWwn(0), buf, 4));
    EXPECT_EQ(std::string(buf, 8), "longxxxx");  // no terminator when the name fills size
    EXPECT_TRUE(refused(QMX_GetHbaAliasName(portWwn(0), buf, 0), -1, "size <= 0"));
    EXPECT_TRUE(refused(QMX_GetPortAliasName(portWwn(0), nullptr, 8), -1, "aliasname == NULL"));
    EXPECT_EQ(QMX_LastErrorCode(), 2);
    EXPECT_TRUE(refused(QMX_GetHbaAliasName(wwnOf(0x1234), buf, 8), 4));
}

TEST_F(HostInfo, AliasRewriteFollowsALinkKeepsTheModeAndNeverCutsTheFile) {
    ASSERT_TRUE(writeFile("/etc/qmxlib.real", "qmx0-wwn=" + hex(0) + ":", 0600));
    removeFile(kLib);
    ASSERT_EQ(0, symlink("/etc/qmxlib.real", kLib));
    ASSERT_EQ(0, setHba(0, "n", 1));
    struct stat st;
    ASSERT_EQ(0, lstat(kLib, &st));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(0, stat("/etc/qmxlib.real", &st));
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(readFile("/etc/qmxlib.real"), "qmx0-wwn=" + hex(0) + ":qmx0-alias=n:");
    // An alias file longer than the driver configuration file is read whole
    // by a setter: rewritten with every entry.
    ASSERT_TRUE(writeFile(kConf, "qmx_queue_depth=8:"));
    const std::string tail = "qmx9-wwn=0000000000000009:";
    ASSERT_TRUE(writeFile("/etc/qmxlib.real", "qmx0-wwn=" + hex(0) + ":qmx0-alias=n:" + tail));
    ASSERT_EQ(0, setHba(0, "m", 1));
    EXPECT_EQ(readFile("/etc/qmxlib.real"), "qmx0-wwn=" + hex(0) + ":qmx0-alias=m:" + tail);
}

// --------------------------------------------------------- host information

TEST_F(HostInfo, OsNamePrefersRedhatReleaseThenAnyReleaseFile) {
    char buf[64];
    ASSERT_TRUE(writeFile("/etc/redhat-release", "Red Hat Enterprise Linux release 9.2 (Plow)\nmore\n"));
    ASSERT_EQ(0, QMX_GetOSName(buf, sizeof buf));
    EXPECT_STREQ(buf, "Red Hat Enterprise Linux release 9.2 (Plow)");
    std::memset(buf, 'x', sizeof buf);
    ASSERT_EQ(0, QMX_GetOSName(buf, 6));
    EXPECT_EQ(std::string(buf, 7), "Red Hax");  // cut at size, nothing past it
    removeFile("/etc/redhat-release");
    ASSERT_EQ(0, QMX_GetOSName(buf, sizeof buf));
    EXPECT_STREQ(buf, "PRETTY_NAME=\"Kestrel Enterprise Linux 9.2\"");
    std::vector<std::string> release;
    if (DIR *d = opendir("/etc")) {
        while (struct dirent *e = readdir(d))
            if (std::strstr(e->d_name, "-release") != nullptr) release.push_back(e->d_name);
        closedir(d);
    }
    for (const std::string &f : release) ASSERT_TRUE(removeFile("/etc/" + f)) << f;
    EXPECT_TRUE(refused(QMX_GetOSName(buf, sizeof buf), -1, "file_find == 0"));
    EXPECT_TRUE(traceHas("QMX_GetOSName ABEND"));
}

TEST_F(HostInfo, HostNameAndOsVersionAndTheirArgumentChecks) {
    char buf[256], want[256] = {};
    ASSERT_EQ(0, QMX_GetHostName(buf, sizeof buf));
    ASSERT_EQ(0, gethostname(want, sizeof want));
    EXPECT_STREQ(buf, want);
    ASSERT_EQ(0, QMX_GetOSVersion(buf, sizeof buf));
    EXPECT_EQ(std::string(buf), release());
    EXPECT_TRUE(refused(QMX_GetOSVersion(nullptr, 8), -1, "osversion == NULL"));
    EXPECT_TRUE(refused(QMX_GetHostName(buf, 0), -1, "size <= 0"));
    EXPECT_EQ(QMX_LastErrorCode(), 2);
}

TEST_F(HostInfo, PackageAndOpticalModuleComeFromThePortInformationRecord) {
    setPrinfoField(2, "parts_number", "PKG-0123456789AB");  // all 16 bytes, no terminator
    QMX_PACKAGE pkg;
    std::memset(&pkg, 'x', sizeof pkg);
    ASSERT_EQ(0, QMX_GetPackageInformation(portWwn(2), &pkg));
    EXPECT_STREQ(pkg.PackageCode, "PKG-0123456789AB");
    QMX_OPTICALATTRIBUTES opt;
    std::memset(&opt, 'x', sizeof opt);
    ASSERT_EQ(0, QMX_GetOpticalModuleInfomation(portWwn(2), &opt));
    EXPECT_STREQ(opt.VendorName, "KESTREL");
    EXPECT_STREQ(opt.SerialNumber, "KSN2");
    EXPECT_EQ(opt.VendorName[63], 'x');  // not cleared first
    failRequest("IOCTL_QMX_SC_PRINFO", 2, EIO);
    EXPECT_TRUE(
        refused(QMX_GetOpticalModuleInfomation(portWwn(2), &opt), -1, "QMX_GetOpticalModuleInfomation Error"));
    EXPECT_TRUE(refused(QMX_GetPackageInformation(portWwn(2), nullptr), -1, "packagecode == NULL"));
}

TEST_F(HostInfo, AdditionalWwpnRoundTripAndNodeNameWrap) {
    struct Case {
        uint64_t wwpn, wwnn;
    } cases[] = {
        {0x21000011223344FFull, 0x2100001122334400ull},  // no carry into byte 6
        {0x2100001122334410ull, 0x2100001122334411ull},
        {0, 0},
    };
    for (const Case &c : cases) {
        ASSERT_EQ(0, QMX_SetAdditionalWWPN(portWwn(1), wwnOf(c.wwpn)));
        QMX_WWN p, n;
        ASSERT_EQ(0, QMX_GetAdditionalWWPN(portWwn(1), &p, &n));
        EXPECT_EQ(0, std::memcmp(p.wwn, wwnOf(c.wwpn).wwn, 8));
        EXPECT_EQ(0, std::memcmp(n.wwn, wwnOf(c.wwnn).wwn, 8));
    }
    EXPECT_EQ(toolLog("qmxbios").front(), "qmxbios -x -d qmxldd1 -p wwn_of_hba=21000011223344ff");
    QMX_WWN p;
    EXPECT_TRUE(refused(QMX_GetAdditionalWWPN(portWwn(1), &p, nullptr), -1, "S_additionalWWNN == NULL"));
}

TEST_F(HostInfo, DeviceListingOfTheBiosTool) {
    ASSERT_EQ(0, QMX_SetAdditionalWWPN(portWwn(3), wwnOf(0x2100001122334499ull)));
    QMX_DEVICE_SHOW list;
    ASSERT_EQ(0, QMX_GetDeviceInfo(&list));
    ASSERT_EQ(list.list_max, 4);
    const QMX_DEVICE_ENTRY &e = list.list[3];
    EXPECT_STREQ(e.deviceName, "qmxldd3");
    EXPECT_STREQ(e.deviceID, "2532");
    EXPECT_EQ(e.busNO, 4);
    EXPECT_EQ(e.deviceNO, 0);
    EXPECT_EQ(e.funcNO, 1);
    EXPECT_EQ(0, std::memcmp(e.additional.wwn, wwnOf(0x2100001122334499ull).wwn, 8));
    EXPECT_EQ(0, std::memcmp(e.original.wwn, portWwn(3).wwn, 8));
    EXPECT_EQ(toolLog("qmxbios").back(), "qmxbios -o devshow");
    EXPECT_TRUE(refused(QMX_GetDeviceInfo(nullptr), -1, "device_list is NULL"));
}

TEST_F(HostInfo, DeviceListingLayoutRules) {
    QMX_DEVICE_SHOW list;
    // Four lines are no listing, although the tool ran.
    deviceListing("title\n\nhead\n  qmxldd0 0101 3 0 0 0 2100001122334450\n");
    EXPECT_EQ(1, QMX_GetDeviceInfo(&list));
    EXPECT_EQ(list.list_max, 0);  // and a device line before line 6 does not count
    // Device lines start at line 6 with two blanks and "qmxldd"; lines
    // beginning with '+' or one blank are not devices.
    deviceListing("t\n\nh\n  qmxldd9 1 1 1 1 1 1\n+\n+ qmxldd0 1 1 1 1 1 1\n qmxldd0 1 1 1 1 1 1\n"
                  "  qmxldd7 abcd 1f 2 3 a 2100001122334450 extra tokens\n");
    ASSERT_EQ(0, QMX_GetDeviceInfo(&list));
    ASSERT_EQ(list.list_max, 1);
    EXPECT_STREQ(list.list[0].deviceName, "qmxldd7");
    EXPECT_EQ(list.list[0].busNO, 0x1f);
    EXPECT_EQ(0, std::memcmp(list.list[0].additional.wwn, wwnOf(0xa).wwn, 8));
    EXPECT_EQ(0, std::memcmp(list.list[0].original.wwn, wwnOf(0x2100001122334450ull).wwn, 8));
    // The record holds 256 entries; a longer listing is cut there.
    std::string big = "t\n\nh\n-\n+\n";
    for (int i = 0; i < 300; ++i) big += "  qmxldd" + std::to_string(i) + " 0101 1 0 0 0 0\n";
    deviceListing(big);
    ASSERT_EQ(0, QMX_GetDeviceInfo(&list));
    EXPECT_EQ(list.list_max, QMX_DEVICE_SHOW_MAX);
    EXPECT_STREQ(list.list[255].deviceName, "qmxldd255");
}

// ------------------------------------------------------ defaults and scans

TEST_F(HostInfo, DefaultsRecordPresetsAndFileValues) {
    ASSERT_TRUE(writeFile(kConf, "qmx0_queue_depth=5:qmxl0-wwpn=0x2100001122334450:"));
    QMX_ALL_DEF_PARAM d;
    ASSERT_EQ(0, QMX_GetAllTargetParam(&d));
    // The presets; the per-port key is not driver-wide.
    EXPECT_EQ(std::vector<long long>({d.maxTransfer, d.preferred, d.queueDepth, d.linkDown, d.scatterGather,
                                      d.tgt_filter, d.retryCnt[0], d.retryCnt[999]}),
              std::vector<long long>({0, 0, 0, 0xFFFFFFFF, -1, -1, -1, -1}));

    ASSERT_TRUE(writeFile(kConf, "qmx_isol_type=0:qmx_rt_err_enable=1:qmx_abort_t_restrain=2:"
                                 "qmx_enable_tgtrst=0:qmx_retry_cnt12=7:qmx_retry_cnt1000=9:"
                                 "qmx_retry_cnt-1=9:qmx_queue_depth=32:qmx_preferred_alpa=257:"
                                 "qmx_queue_depth_x=1:qmx_filter_target=1:"));
    ASSERT_EQ(0, QMX_GetAllTargetParam(&d));
    // Exact keys only; the preferred AL_PA is narrowed to its field.
    EXPECT_EQ(std::vector<long long>({d.isolateType, d.rtErrFlag, d.abortTRestrain, d.target_rst, d.retryCnt[12],
                                      d.retryCnt[999], d.queueDepth, d.preferred, d.tgt_filter}),
              std::vector<long long>({2, 1, -1, 0, 7, -1, 32, 1, 1}));
    ASSERT_TRUE(writeFile(kConf, "qmx_isol_type=5:"));
    ASSERT_EQ(0, QMX_GetAllTargetParam(&d));
    EXPECT_EQ(d.isolateType, -1);
    EXPECT_TRUE(refused(QMX_GetAllTargetParam(nullptr), -1, "altg_param is null"));
}

TEST_F(HostInfo, ForceDefaultSwitchThroughTheBiosTool) {
    QMX_UINT32 v = 1;
    ASSERT_EQ(0, QMX_PortSettingDefaultValue(portWwn(0), &v, 1));
    ASSERT_EQ(0, QMX_PortSettingDefaultValue(portWwn(0), &v, 0));
    EXPECT_EQ(v, 1u);  // listing: ENABLE
    v = 0;
    ASSERT_EQ(0, QMX_PortSettingDefaultValue(portWwn(0), &v, 1));
    ASSERT_EQ(0, QMX_PortSettingDefaultValue(portWwn(0), &v, 0));
    EXPECT_EQ(v, 2u);  // listing: DISABLE
    std::size_t runs = toolLog("qmxbios").size();
    EXPECT_TRUE(refused(QMX_PortSettingDefaultValue(portWwn(0), &v, 2), -1, "flag is invalid value"));
    v = 3;
    EXPECT_TRUE(refused(QMX_PortSettingDefaultValue(portWwn(0), &v, 1), -1, "set_flg is invalid value"));
    EXPECT_EQ(toolLog("qmxbios").size(), runs);  // refused before any tool run
}

TEST_F(HostInfo, TargetScanOutcomeIsTheReasonCode) {
    const int codes[] = {0, 41, 40, 39, 10};
    for (int outcome = 0; outcome < 5; ++outcome) {
        setPortField(1, "tgtscan_outcome", outcome);
        EXPECT_EQ(0, QMX_TgtScan(const_cast<char *>("qmxldd1")));
        EXPECT_EQ(QMX_LastErrorCode(), codes[outcome]) << outcome;
    }
    EXPECT_EQ(portCounter(1, "tgtscan"), 5);
    EXPECT_EQ(driverRequests("IOCTL_QMX_DIAG0", 1, 12), 5);
}

// Both device-name calls refuse a missing device and a name longer than any
// device path.
TEST_F(HostInfo, ReflectKeepsTheDriverReplyInTheCallersRecordAndNamesAreChecked) {
    std::string tooLong(400, 'q');
    EXPECT_TRUE(refused(QMX_TgtScan(const_cast<char *>("qmxldd9")), -1, "QMX_TgtScan ABEND"));
    EXPECT_TRUE(refused(QMX_TgtScan(tooLong.data()), 2, "device name too long"));
    diag_ioctl d;
    std::memset(&d, 0xAB, sizeof d);
    ASSERT_EQ(0, QMX_Reflect_ChgParam(const_cast<char *>("qmxldd2"), &d));
    EXPECT_EQ(d.sub_cmd, QMX_DG_REFLECT);
    EXPECT_EQ(d.uni.raw[0], 0);  // the driver's answer
    EXPECT_EQ(d.uni.raw[1], 1);
    EXPECT_EQ(portCounter(2, "reflect"), 1);
    EXPECT_TRUE(refused(QMX_Reflect_ChgParam(const_cast<char *>("qmxldd9"), &d), -1, "QMX_Reflect_ChgParam ABEND"));
    EXPECT_TRUE(refused(QMX_Reflect_ChgParam(tooLong.data(), &d), 2));
    EXPECT_EQ(traceCount("device name too long"), 2);
}

TEST_F(HostInfo, DiskRescanReturnsZeroOnEveryPath) {
    EXPECT_EQ(0, QMX_DiskRescan(portWwn(3)));
    EXPECT_TRUE(refused(driverRequests("IOCTL_QMX_SC_SCSISCAN", 3), -1, "QMX_DiskRescan END"));
    EXPECT_EQ(0, QMX_DiskRescan(wwnOf(0x1122)));
    EXPECT_EQ(QMX_LastErrorCode(), 4);
    EXPECT_TRUE(traceHas("QMX_DiskRescan ABEND"));
    clearTrace();
    failRequest("IOCTL_QMX_SC_SCSISCAN", 3, EIO);
    EXPECT_EQ(0, QMX_DiskRescan(portWwn(3)));
    EXPECT_TRUE(traceHas("IOCTL_QMX_SC_SCSISCAN"));
    EXPECT_TRUE(traceHas("QMX_DiskRescan ABEND"));
}

}  // namespace
