// The virtual host's state: scenarios, the shared state file, generated maps
// and the host files built from the state.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "vhost.h"

namespace {

using qmxsim::json;

class VHostState : public VHostTest {
protected:
    void SetUp() override {
        VHostTest::SetUp();
        char templ[] = "/tmp/vhost-state-XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        dir_ = templ;
    }
    void TearDown() override {
        if (!dir_.empty()) qmxsim::removeTree(dir_);
    }
    std::string dir_;
};

TEST_F(VHostState, ScenarioAdaptersBecomePortsWithTheirAdaptersFields) {
    json scn = json::parse(R"({"adapters": [
        {"bus": 7, "dev": 1, "device": "0x0102", "ports": [{"devno": 4, "func": 0}, {"devno": 9, "func": 1, "bus": 8}]},
        {"bus": 2, "ports": [{"devno": 0}]}]})");
    json st = qmxsim::normalizeScenario(scn);
    ASSERT_EQ(st["ports"].size(), 3u);
    EXPECT_FALSE(st.contains("adapters"));
    const json *p9 = qmxsim::findPort(st, 9);
    ASSERT_NE(p9, nullptr);
    EXPECT_EQ(qmxsim::fieldU64(*p9, "bus", 0), 8u);  // the port's own value wins
    EXPECT_EQ(qmxsim::fieldU64(*p9, "dev", 0), 1u);
    EXPECT_EQ(qmxsim::fieldU64(*p9, "device", 0), 0x0102u);
    EXPECT_EQ(qmxsim::fieldI64(*qmxsim::findPort(st, 0), "adapter", -1), 1);
    EXPECT_TRUE(st["faults"].is_array());
}

TEST_F(VHostState, BadScenariosAreRefused) {
    EXPECT_THROW(qmxsim::normalizeScenario(json::array()), std::exception);
    EXPECT_THROW(qmxsim::normalizeScenario(json::parse(R"({"adapters": [{"ports": [{"func": 0}]}]})")),
                 std::exception);
    EXPECT_THROW(qmxsim::normalizeScenario(json::parse(R"({"ports": [{"devno": 256}]})")), std::exception);
    EXPECT_THROW(qmxsim::normalizeScenario(json::parse(R"({"adapters": {"ports": []}})")), std::exception);
    EXPECT_NO_THROW(qmxsim::normalizeScenario(json::parse(R"({"ports": [{"devno": 255}]})")));
}

TEST_F(VHostState, NumbersAcceptTextForms) {
    EXPECT_EQ(qmxsim::toU64(json("0x2100001122334455")), 0x2100001122334455ull);
    EXPECT_EQ(qmxsim::toU64(json("17")), 17u);
    EXPECT_EQ(qmxsim::toU64(json(true)), 1u);
    EXPECT_EQ(qmxsim::toU64(json("zz"), 5), 5u);
    EXPECT_EQ(qmxsim::toU64(json(nullptr), 6), 6u);
    EXPECT_EQ(qmxsim::toI64(json("-3")), -3);
    EXPECT_EQ(qmxsim::hex64(0xABull), "0x00000000000000ab");
}

TEST_F(VHostState, ChangesOfAnotherProcessAreSeen) {
    qmxsim::StateStore store(dir_);
    ASSERT_TRUE(store.write(json{{"ports", json::array()}, {"n", 1}}));
    int seen = 0;
    ASSERT_TRUE(store.read([&](const json &s) { seen = int(s["n"]); }));
    EXPECT_EQ(seen, 1);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        qmxsim::StateStore other(dir_);
        bool ok = other.update([](json &s) {
            s["n"] = 2;
            return true;
        });
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_TRUE(store.read([&](const json &s) { seen = int(s["n"]); }));
    EXPECT_EQ(seen, 2);  // the cached copy was refreshed
}

// A failed edit or read says why; the edit leaves the state as it was.
TEST_F(VHostState, FailuresAreReportedAndAFailedEditLeavesTheState) {
    qmxsim::StateStore store(dir_);
    ASSERT_TRUE(store.write(json{{"n", 1}}));
    std::string why;
    EXPECT_FALSE(store.update(
        [](json &s) {
            s["n"] = 5;
            throw std::runtime_error("half done");
            return true;
        },
        &why));
    EXPECT_EQ(why, "half done");
    int seen = 0;
    ASSERT_TRUE(store.read([&](const json &s) { seen = int(s["n"]); }));
    EXPECT_EQ(seen, 1);
    qmxsim::StateStore missing(dir_ + "/nothing-here");
    why.clear();
    EXPECT_FALSE(missing.read([](const json &) {}, &why));
    EXPECT_FALSE(why.empty());
}

TEST_F(VHostState, GeneratedTargetsGiveSharedLuIdentifiersAcrossPorts) {
    json a = {{"devno", 0}, {"gen_targets", 256}, {"gen_luns", 2048}};
    json b = {{"devno", 1}, {"gen_targets", 256}, {"gen_luns", 2048}};
    EXPECT_EQ(qmxsim::targetCount(a), 256);
    qmxsim::TargetView ta = qmxsim::targetAt(a, 17), tb = qmxsim::targetAt(b, 17);
    EXPECT_EQ(ta.tid, 17);
    EXPECT_EQ(ta.wwnn, tb.wwnn);  // one storage node
    EXPECT_NE(ta.wwpn, tb.wwpn);  // reached through different ports
    EXPECT_EQ(qmxsim::luCount(ta), 2048);
    qmxsim::LuView la = qmxsim::luAt(a, ta, 2047), lb = qmxsim::luAt(b, tb, 2047);
    EXPECT_EQ(la.lun, 2047u);
    EXPECT_TRUE(la.luid == lb.luid);
    EXPECT_FALSE(qmxsim::luAt(a, ta, 5).luid == la.luid);
}

TEST_F(VHostState, ExplicitLusAndPathStates) {
    json port = json::parse(R"({"devno": 2, "targets": [
        {"tid": 3, "wwpn": "0x50000000000000c1", "lus": [7, {"lun": 9, "status": 4, "luid": "600a0b80"}]}],
        "path_status": {"0x50000000000000c1/7": 2}})");
    qmxsim::TargetView t = qmxsim::targetAt(port, 0);
    ASSERT_EQ(qmxsim::luCount(t), 2);
    qmxsim::LuView l0 = qmxsim::luAt(port, t, 0), l1 = qmxsim::luAt(port, t, 1);
    EXPECT_EQ(l0.lun, 7u);
    EXPECT_EQ(l0.status, 2);  // changed through the driver
    EXPECT_EQ(l1.lun, 9u);
    EXPECT_EQ(l1.status, 4);
    EXPECT_EQ(std::vector<uint8_t>(l1.luid.begin(), l1.luid.end()), (std::vector<uint8_t>{0x60, 0x0a, 0x0b, 0x80}));
}

TEST_F(VHostState, HostFilesFollowThePortsWithGaps) {
    json st = qmxsim::normalizeScenario(json::parse(R"({
        "files": {"/etc/qmxldd.conf": "qmx_x=1:", "/etc/qmxlib.conf": null},
        "ports": [{"devno": 0, "host": 6}, {"devno": 3, "proc_file": false}],
        "scsi_disks": [{"name": "sdq", "host": 6, "target": 2, "lun": 5}]})"));
    qmxsim::HostLayout layout;
    layout.root = dir_ + "/root";
    layout.stateDir = dir_;
    layout.release = "6.1.0-test";
    qmxsim::makeDirs(layout.root + "/etc");
    ASSERT_TRUE(writeFile(layout.root + "/etc/qmxlib.conf", "old"));
    ASSERT_EQ(qmxsim::materializeHost(st, layout), "");
    EXPECT_TRUE(fileExists(layout.root + "/dev/qmxldd0"));
    EXPECT_FALSE(fileExists(layout.root + "/dev/qmxldd1"));
    EXPECT_TRUE(fileExists(layout.root + "/dev/qmxldd3"));
    EXPECT_FALSE(fileExists(layout.root + "/etc/qmxlib.conf"));  // left out
    EXPECT_EQ(readFile(layout.root + "/etc/qmxldd.conf"), "qmx_x=1:");
    EXPECT_NE(readFile(dir_ + "/proc/scsi/vqmxldd/6").find("  Instance_number           = 0\n"), std::string::npos);
    EXPECT_FALSE(fileExists(dir_ + "/proc/scsi/vqmxldd/5"));
    EXPECT_TRUE(fileExists(layout.root + "/sys/class/scsi_host/host6/qmxldd_conf"));
    char link[128] = {};
    ASSERT_GT(readlink((layout.root + "/sys/block/sdq/device").c_str(), link, sizeof link - 1), 0);
    EXPECT_STREQ(std::strrchr(link, '/') + 1, "6:0:2:5");
    std::string ko = readFile(layout.root + "/lib/modules/6.1.0-test/extra/qmxldd/qmxldd_conf.ko");
    std::size_t at = ko.find("<qmxldd_conf>");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(ko.compare(at + 68, 8, "qmx_x=1:"), 0);
    // A port that goes away takes its device file with it.
    st["ports"].erase(0);
    ASSERT_EQ(qmxsim::materializePorts(st, layout), "");
    EXPECT_FALSE(fileExists(layout.root + "/dev/qmxldd0"));
    EXPECT_TRUE(fileExists(layout.root + "/dev/qmxldd3"));
}

TEST_F(VHostState, ModuleImageTableStartsWithinTheAreaSize) {
    std::string img = qmxsim::buildModuleImage("abc", 200000, 10);
    std::size_t at = img.find("<Kestrel_Fibre_Channel_Host_Bus_Adapter_Configuration_Module>");
    EXPECT_EQ(at, 200000u);
    EXPECT_EQ(img.size(), 200000u + qmxsim::kModuleTableSize + 10);
    EXPECT_EQ(img.compare(at + 8544 + 68, 4, std::string("abc\0", 4)), 0);
}

}  // namespace
