// Boot BIOS settings through the BIOS tool, end to end: the shared library
// against the simulated qmxbios in the virtual host.
#include <dirent.h>
#include <stdio.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "vhost.h"

namespace {

class BiosApi : public VHostTest {
protected:
    std::vector<std::string> runs() { return toolLog("qmxbios"); }
    std::vector<std::string> lockStates() { return splitLines(readFile(stateDir() + "/bios/lock.log")); }
    static QMX_BOOTPRIORITYLIST sampleList() {
        QMX_BOOTPRIORITYLIST l;
        std::memset(&l, 0, sizeof l);
        for (int i = 0; i < QMX_BOOT_DEVICE_MAX; ++i) {
            l.entry[i].PortWWN = wwnOf(0x50060e8000000000ull + uint64_t(i + 1) * 0x0101);
            l.entry[i].lun = uint32_t(i * 0x10 + 1);
        }
        return l;
    }
    void TearDown() override {
        if (fileExists(realTool())) rename(realTool().c_str(), tool().c_str());
    }
    static std::string tool() { return std::string(kToolDir) + "/qmxbios"; }
    static std::string realTool() { return tool() + ".real"; }
    // Puts a shell script in the tool's place; "$0.real" is the tool.
    static void wrapTool(const std::string &body) {
        ASSERT_EQ(rename(tool().c_str(), realTool().c_str()), 0);
        ASSERT_TRUE(writeFile(tool(), "#!/bin/sh\n" + body + "\n", 0755));
    }
};

TEST_F(BiosApi, SetHBABiosSettingRunsTheToolOnceAndGetReadsItBack) {
    QMX_WWN w = portWwn(1);
    ASSERT_EQ(0, QMX_SetHBABiosSetting(w, 0));
    std::vector<std::string> want = {"qmxbios -x -d qmxldd1 -p bios=Disable"};
    EXPECT_EQ(runs(), want);
    QMX_BIOSSETTING s = 99;
    ASSERT_EQ(0, QMX_GetHBABiosSetting(w, &s));
    EXPECT_EQ(s, 2u);  // the listing reads DISABLE as 2
    ASSERT_EQ(0, QMX_SetHBABiosSetting(w, 1));
    ASSERT_EQ(0, QMX_GetHBABiosSetting(w, &s));
    EXPECT_EQ(s, 1u);
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    want = {"qmxbios -x -d qmxldd1 -p bios=Disable", "qmxbios -d qmxldd1 -o cfgshowex",
            "qmxbios -x -d qmxldd1 -p bios=Enable", "qmxbios -d qmxldd1 -o cfgshowex"};
    EXPECT_EQ(runs(), want);
    // The trace of a setter: frame lines around the runner's lines.
    int start = traceIndex("QMX_SetHBABiosSetting START");
    ASSERT_GE(start, 0);
    int runner = traceIndex("qmx_ExecQmxbios START", start);
    int cmd = traceIndex("/opt/kestrel/drivers/hba/qmxbios -x -d qmxldd1 -p bios=Disable", start);
    int end = traceIndex("qmx_ExecQmxbios END", start);
    int callEnd = traceIndex("QMX_SetHBABiosSetting END", start);
    EXPECT_LT(start, runner);
    EXPECT_LT(runner, cmd);
    EXPECT_LT(cmd, end);
    EXPECT_LT(end, callEnd);
}

TEST_F(BiosApi, TheExclusiveLockIsHeldWhileTheToolRunsAndReleasedAfter) {
    QMX_WWN w = portWwn(0);
    ASSERT_EQ(0, QMX_SetBootPriority(w, 1));
    QMX_BOOTPRIORITY b = 0;
    ASSERT_EQ(0, QMX_GetBootPriority(w, &b));
    EXPECT_EQ(b, 1u);
    std::vector<std::string> locks = lockStates();
    ASSERT_EQ(locks.size(), 2u);
    for (const std::string &l : locks) EXPECT_NE(l.find(" lock=held"), std::string::npos) << l;
    EXPECT_EQ(QMX_ExeclusiveLockCheck(6), 1);  // free again
}

// Values other than 0 and 1, unknown ports and null outputs: no tool run.
TEST_F(BiosApi, RefusalsRunNothing) {
    EXPECT_TRUE(refused(QMX_SetHBABiosSetting(portWwn(0), 2), 2, "biossetting is invalid value"));
    EXPECT_TRUE(refused(QMX_SetBootPriority(portWwn(0), 0xFFFFFFFFu), 2, "bootpriority is invalid value"));
    EXPECT_TRUE(traceHas("QMX_SetBootPriority ABEND"));
    QMX_BIOSSETTING s = 7;
    EXPECT_TRUE(refused(QMX_GetHBABiosSetting(wwnOf(0x1234), &s), 4));
    EXPECT_TRUE(refused(QMX_SetBootPriority(wwnOf(0x1234), 1), 4));
    EXPECT_TRUE(refused(QMX_GetHBABiosSetting(portWwn(0), nullptr), 2, "S_biossetting == NULL"));
    EXPECT_TRUE(refused(QMX_GetBootPriority(portWwn(0), nullptr), -1, "S_bootpriority == NULL"));
    EXPECT_TRUE(refused(QMX_GetBootPriorityList(portWwn(0), nullptr), 2, "S_bootprioritylist == NULL"));
    EXPECT_TRUE(runs().empty());
}

TEST_F(BiosApi, InitialSettingsOfTheHostAreListed) {
    setPortField(2, "bios", {{"bios", "Enable"}, {"boot_priority", "Disable"}});
    QMX_BIOSSETTING s = 0;
    QMX_BOOTPRIORITY b = 0;
    ASSERT_EQ(0, QMX_GetHBABiosSetting(portWwn(2), &s));
    ASSERT_EQ(0, QMX_GetBootPriority(portWwn(2), &b));
    EXPECT_EQ(s, 1u);
    EXPECT_EQ(b, 2u);
}

TEST_F(BiosApi, ASettingNeverListedReads255AndALaterMissingLineKeepsTheValue) {
    QMX_WWN w = portWwn(0);
    QMX_BIOSSETTING s = 0;
    scriptTool("qmxbios", 0, 1);  // the tool ends at once: an empty listing
    ASSERT_EQ(0, QMX_GetHBABiosSetting(w, &s));
    EXPECT_EQ(s, 255u);
    ASSERT_EQ(0, QMX_SetHBABiosSetting(w, 0));
    ASSERT_EQ(0, QMX_GetHBABiosSetting(w, &s));
    EXPECT_EQ(s, 2u);
    scriptTool("qmxbios", 0, 1);
    ASSERT_EQ(0, QMX_GetHBABiosSetting(w, &s));
    EXPECT_EQ(s, 2u);  // kept from the listing before
}

TEST_F(BiosApi, BootPriorityListRoundTripsThroughTheTool) {
    QMX_WWN w = portWwn(3);
    QMX_BOOTPRIORITYLIST in = sampleList();
    ASSERT_EQ(0, QMX_SetBootPriorityList(w, in));
    std::vector<std::string> r = runs();
    ASSERT_EQ(r.size(), 8u);
    EXPECT_EQ(r[0], "qmxbios -x -d qmxldd3 -p boot_device=1,50060e8000000101,0001");
    EXPECT_EQ(r[7], "qmxbios -x -d qmxldd3 -p boot_device=8,50060e8000000808,0071");
    QMX_BOOTPRIORITYLIST out;
    std::memset(&out, 0xEE, sizeof out);
    ASSERT_EQ(0, QMX_GetBootPriorityList(w, &out));
    for (int i = 0; i < QMX_BOOT_DEVICE_MAX; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(0, std::memcmp(out.entry[i].PortWWN.wwn, in.entry[i].PortWWN.wwn, 8));
        EXPECT_EQ(out.entry[i].lun, in.entry[i].lun);
    }
    EXPECT_EQ(out.entry[0].PortWWN.wwn[0], 0x50);
    EXPECT_EQ(out.entry[0].PortWWN.wwn[7], 0x01);
}

TEST_F(BiosApi, BootPriorityListWithALunAbove65535RunsNothing) {
    QMX_BOOTPRIORITYLIST in = sampleList();
    in.entry[3].lun = 65536;
    EXPECT_TRUE(refused(QMX_SetBootPriorityList(portWwn(0), in), 2, "Invalid LUN number"));
    EXPECT_TRUE(runs().empty());
    in.entry[3].lun = 65535;
    EXPECT_EQ(0, QMX_SetBootPriorityList(portWwn(0), in));
    EXPECT_EQ(runs().size(), 8u);
}

TEST_F(BiosApi, BootDeviceRowFailureStopsWithoutRetry) {
    scriptTool("qmxbios", 2, 1);
    EXPECT_TRUE(refused(QMX_SetBootPriorityList(portWwn(0), sampleList()), 11));
    EXPECT_EQ(runs().size(), 1u);
    EXPECT_TRUE(traceHas("qmx_ExecQmxbios ABEND"));
    EXPECT_TRUE(traceHas("QMX_SetBootPriorityList ABEND"));
}

TEST_F(BiosApi, ToolFailingTwiceThenSucceedingIsRetried) {
    scriptTool("qmxbios", 1, 2);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(0, QMX_SetHBABiosSetting(portWwn(0), 1));
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_GE(secs, 1.9);
    EXPECT_EQ(runs().size(), 3u);
    EXPECT_EQ(QMX_LastErrorCode(), 0);
}

TEST_F(BiosApi, ToolAlwaysFailingGivesFourRunsAndCode11) {
    scriptTool("qmxbios", 1, -1);
    QMX_BIOSSETTING s = 5;
    EXPECT_EQ(1, QMX_GetHBABiosSetting(portWwn(0), &s));
    EXPECT_EQ(s, 0u);  // preset before the work
    EXPECT_EQ(QMX_LastErrorCode(), 11);
    EXPECT_EQ(runs().size(), 4u);
    EXPECT_TRUE(traceHas("qmx_GetQmxbiosInfo ABEND"));
    EXPECT_TRUE(traceHas("QMX_GetHBABiosSetting ABEND"));
    bool reported = false;
    for (const std::string &l : traceLines()) reported |= l.rfind("qmxvlib:system is error.", 0) == 0;
    EXPECT_TRUE(reported);
}

TEST_F(BiosApi, LockHeldElsewhereFailsWithCode5AndClosesTheTrace) {
    ASSERT_EQ(0, QMX_ExeclusiveLock(6));
    EXPECT_TRUE(refused(QMX_SetHBABiosSetting(portWwn(0), 1), 5));
    EXPECT_TRUE(runs().empty());
    std::vector<std::string> t = traceLines();
    int over = traceIndex("Lock retry count overflow !!");
    ASSERT_GE(over, 0);
    ASSERT_LT(over + 1, int(t.size()));
    EXPECT_EQ(t[std::size_t(over) + 1], "qmx_ExecQmxbios END");
    // The runner closed the trace: the call's own ABEND line is not written.
    EXPECT_FALSE(traceHas("QMX_SetHBABiosSetting ABEND"));
    EXPECT_EQ(0, QMX_ExeclusiveUnlock(6));
}

TEST_F(BiosApi, AListingMissingAfterASuccessfulRunEndsInAbendWithTheCodeKept) {
    wrapTool("\"$0.real\" \"$@\"; rm -f " + std::string(kToolDir) + "/cfgshow.txt; exit 0");
    QMX_BIOSSETTING s = 5;
    QMX_BOOTPRIORITY b = 5;
    QMX_BOOTPRIORITYLIST l;
    struct {
        const char *name;
        std::function<QMX_STATUS()> call;
    } getters[] = {
        {"QMX_GetHBABiosSetting", [&] { return QMX_GetHBABiosSetting(portWwn(0), &s); }},
        {"QMX_GetBootPriority", [&] { return QMX_GetBootPriority(portWwn(1), &b); }},
        {"QMX_GetBootPriorityList", [&] { return QMX_GetBootPriorityList(portWwn(2), &l); }},
    };
    for (const auto &g : getters) {
        SCOPED_TRACE(g.name);
        clearTrace();
        EXPECT_TRUE(refused(g.call(), 0));
        std::vector<std::string> want = {"qmx_ExecQmxbios END", "qmx_GetQmxbiosInfo ABEND",
                                         std::string(g.name) + " ABEND"};
        std::vector<std::string> t = traceLines();
        ASSERT_GE(t.size(), 3u);
        EXPECT_EQ(std::vector<std::string>(t.end() - 3, t.end()), want);
    }
    EXPECT_EQ(runs().size(), 3u);
}

// Descriptors of this process that a child would inherit.
std::set<int> inheritable() {
    std::set<int> fds;
    DIR *d = opendir("/proc/self/fd");  // close-on-exec itself
    if (d == nullptr) return fds;
    while (dirent *e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::string info;
        qmxsim::readWholeFile(std::string("/proc/self/fdinfo/") + e->d_name, info);
        std::size_t at = info.find("flags:");
        if (at != std::string::npos && (std::strtoul(info.c_str() + at + 6, nullptr, 8) & 02000000) == 0)
            fds.insert(std::atoi(e->d_name));
    }
    closedir(d);
    return fds;
}

TEST_F(BiosApi, ToolsRunByTheLibraryInheritNoDescriptorOfIt) {
    // The tool lists the descriptors it was started with, then runs.
    std::string seen = stateDir() + "/tool-fds.txt";
    wrapTool("ls -l /proc/self/fd/ >> '" + seen + "'; exec \"$0.real\" \"$@\"");
    std::set<int> before = inheritable();
    QMX_BIOSSETTING s = 0;
    ASSERT_EQ(0, QMX_SetHBABiosSetting(portWwn(0), 1));
    ASSERT_EQ(0, QMX_GetHBABiosSetting(portWwn(0), &s));
    EXPECT_EQ(s, 1u);
    // "lr-x------ 1 root root 64 <date> 3 -> /proc/77/fd": the number and
    // what it names; ls's own directory descriptor is left out.
    int listed = 0;
    for (const std::string &l : splitLines(readFile(seen))) {
        std::size_t arrow = l.find(" -> ");
        if (arrow == std::string::npos) continue;
        ++listed;
        std::size_t sp = l.rfind(' ', arrow - 1);
        int fd = std::atoi(l.c_str() + sp + 1);
        std::string target = l.substr(arrow + 4);
        bool listersOwn = target.rfind("/proc/", 0) == 0 && target.size() > 3 &&
                          target.compare(target.size() - 3, 3, "/fd") == 0;
        if (!listersOwn) {
            EXPECT_TRUE(before.count(fd) > 0) << "inherited: " << l;
        }
    }
    EXPECT_GE(listed, 6);  // two runs, three standard descriptors each at least
}

}  // namespace
