// Adapter numbering calls in the virtual host: current and configured
// numbering, changes of the configuration file's numbering (and refusals
// that change nothing), and the removal of a port's device path.
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "vhost.h"

namespace {

class NumberingTest : public VHostTest {
protected:
    std::unique_ptr<QMX_ADAPTERNUMBER> info = std::make_unique<QMX_ADAPTERNUMBER>();

    void SetUp() override {
        VHostTest::SetUp();
        std::memset(info.get(), 0, sizeof *info);
    }
    void add(int number, int opr, uint64_t wwn) {
        adapterinformation &e = info->portlist[info->portlist_max++];
        e.adapternumber = number;
        e.set_opr = QMX_INT8(opr);
        e.hba_wwn = wwnOf(wwn);
    }
    // The configuration file's items, key to value.
    static std::map<std::string, std::string> items() {
        std::map<std::string, std::string> m;
        std::string text = readFile(kConf);
        std::size_t pos = 0;
        while (pos < text.size()) {
            std::size_t colon = text.find(':', pos);
            if (colon == std::string::npos) break;
            std::string item = text.substr(pos, colon - pos);
            std::size_t eq = item.find('=');
            if (eq != std::string::npos) m[item.substr(0, eq)] = item.substr(eq + 1);
            pos = colon + 1;
        }
        return m;
    }
    static uint64_t number(const QMX_WWN &w) {
        uint64_t v = 0;
        for (uint8_t b : w.wwn) v = v << 8 | b;
        return v;
    }
};

// ------------------------------------------------------------------ mode 1
TEST_F(NumberingTest, CurrentNumberingListsEveryPortInDiscoveryOrder) {
    ASSERT_EQ(QMX_GetAdapterNumber(info.get(), 1), 0);
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    ASSERT_EQ(info->portlist_max, 4);
    const uint64_t wwns[] = {0x2100001122334450, 0x2100001122334451, 0x2100001122334460,
                             0x2100001122334461};
    for (int i = 0; i < 4; ++i) {
        const adapterinformation &e = info->portlist[i];
        EXPECT_EQ(e.adapternumber, i);
        EXPECT_EQ(number(e.hba_wwn), wwns[i]);
        EXPECT_EQ(std::string(e.special_dev), "qmxldd" + std::to_string(i));
        EXPECT_EQ(e.bus, i < 2 ? 3 : 4);
        EXPECT_EQ(e.dev, 0);
        EXPECT_EQ(e.fnc, i % 2);
    }
    EXPECT_TRUE(traceHas("QMX_GetAdapterNumber START"));
    EXPECT_TRUE(traceHas("QMX_GetAdapterNumber END"));
}

TEST_F(NumberingTest, CurrentNumberIsTheDeviceNumberAndUnsupportedModelsAreLeftOut) {
    removePort(1);
    setPortField(2, "device", 0x00F1);
    ASSERT_EQ(QMX_GetAdapterNumber(info.get(), 1), 0);
    ASSERT_EQ(info->portlist_max, 2);
    EXPECT_EQ(info->portlist[0].adapternumber, 0);
    EXPECT_EQ(info->portlist[1].adapternumber, 3);
    EXPECT_EQ(std::string(info->portlist[1].special_dev), "qmxldd3");
}

TEST_F(NumberingTest, NullAndOutOfRangeArgumentsAreRefused) {
    EXPECT_TRUE(refused(QMX_GetAdapterNumber(nullptr, 1), 2, "adapter_info == NULL"));
    info->portlist_max = 77;
    EXPECT_TRUE(refused(QMX_GetAdapterNumber(info.get(), 3), 2, "mode is invalid number"));
    EXPECT_EQ(info->portlist_max, 77);  // untouched on refusal
    EXPECT_EQ(traceCount("QMX_GetAdapterNumber ABEND"), 2);
    const std::string before = readFile(kConf);
    EXPECT_TRUE(refused(QMX_SetAdapterNumber(nullptr), 2));
    EXPECT_EQ(traceCount("adapter_info == NULL"), 2);
    info->portlist_max = 257;
    EXPECT_TRUE(refused(QMX_SetAdapterNumber(info.get()), 2));
    EXPECT_EQ(readFile(kConf), before);
}

// ------------------------------------------------------------------ mode 2
TEST_F(NumberingTest, ConfiguredNumberingInFileOrderWithPortsMatched) {
    ASSERT_TRUE(writeFile(kConf,
                          "qmx_queue_depth=8:qmxl5-wwpn=2100001122334451:"
                          "qmxl5-tid-0-wwpn=0x5000000000000a01:qmxl9-wwpn=0X2100000000000099:"
                          "qmxl0-wwpn=0x2100001122334450:"));
    ASSERT_EQ(QMX_GetAdapterNumber(info.get(), 2), 0);
    ASSERT_EQ(info->portlist_max, 3);
    EXPECT_EQ(info->portlist[0].adapternumber, 5);
    EXPECT_EQ(number(info->portlist[0].hba_wwn), 0x2100001122334451u);  // no "0x": still hex
    EXPECT_EQ(std::string(info->portlist[0].special_dev), "qmxldd1");
    EXPECT_EQ(info->portlist[0].bus, 3);
    EXPECT_EQ(info->portlist[0].fnc, 1);
    EXPECT_EQ(info->portlist[1].adapternumber, 9);
    EXPECT_EQ(number(info->portlist[1].hba_wwn), 0x2100000000000099u);
    EXPECT_EQ(std::string(info->portlist[1].special_dev), "");  // no such port
    EXPECT_EQ(info->portlist[2].adapternumber, 0);
    EXPECT_EQ(std::string(info->portlist[2].special_dev), "qmxldd0");
    // Each configured WWPN is converted once, not once per port.
    EXPECT_EQ(traceCount("changeWWN START"), 3);
}

TEST_F(NumberingTest, ConfiguredNumberingOfAnUnreadableFileIsEmptyOfAMissingOneFails) {
    makeUnreadable(kConf);
    info->portlist_max = 5;
    ASSERT_EQ(QMX_GetAdapterNumber(info.get(), 2), 0);
    EXPECT_EQ(info->portlist_max, 0);
    ASSERT_TRUE(removeFile(kConf));
    EXPECT_TRUE(refused(QMX_GetAdapterNumber(info.get(), 2), -1, "QMX_GetAdapterNumber ABEND"));
}

TEST_F(NumberingTest, ConfiguredNumberingKeepsAtMostTheRecordsEntries) {
    std::string text;
    for (int i = 0; i < 300; ++i) text += "qmxl" + std::to_string(i) + "-wwpn=0x" + std::to_string(1000 + i) + ":";
    ASSERT_TRUE(writeFile(kConf, text));
    ASSERT_EQ(QMX_GetAdapterNumber(info.get(), 2), 0);
    EXPECT_EQ(info->portlist_max, 256);
    EXPECT_EQ(info->portlist[255].adapternumber, 255);
}

// ------------------------------------------------------------------ set
TEST_F(NumberingTest, AssignRemovesEveryKeyOfTheNumberAndBindsTheWwpn) {
    ASSERT_TRUE(writeFile(kConf,
                          "qmx_queue_depth=8:qmx2_queue_depth=16:qmx20_queue_depth=4:"
                          "qmxl2-wwpn=0x2100001122334460:qmxl2-tid-0-wwpn=0x5000000000000a01:"
                          "qmxl3-wwpn=0x2100001122334461:"));
    add(2, 1, 0x2100001122334499);
    ASSERT_EQ(QMX_SetAdapterNumber(info.get()), 0);
    EXPECT_EQ(QMX_LastErrorCode(), 0);
    // Which keys an edit removes is checked key by key in numbering_test;
    // here the edit reaches the file, and only the file's items change.
    EXPECT_EQ(readFile(kConf), "qmx_queue_depth=8:qmx20_queue_depth=4:qmxl3-wwpn=0x2100001122334461:"
                               "qmxl2-wwpn=0x2100001122334499:");  // the new key comes last
    EXPECT_TRUE(traceHas("QMX_SetAdapterNumber END"));
}

TEST_F(NumberingTest, RemoveAndRebindInOneRequest) {
    ASSERT_TRUE(writeFile(kConf,
                          "qmx1_link_down=30:qmxl1-wwpn=0x2100001122334451:"
                          "qmxl3-wwpn=0x2100001122334461:qmx3_wwpn=0x2100001122334461:"));
    add(0, 2, 0x2100001122334451);  // number bound to ...51 goes
    add(3, 3, 0x2100001122334477);  // number 3 now names ...77
    ASSERT_EQ(QMX_SetAdapterNumber(info.get()), 0);
    auto m = items();
    EXPECT_EQ(m.count("qmxl1-wwpn"), 0u);
    EXPECT_EQ(m.count("qmx1_link_down"), 0u);
    EXPECT_EQ(m["qmxl3-wwpn"], "0x2100001122334477");
    EXPECT_EQ(m["qmx3_wwpn"], "0x2100001122334477");
}

TEST_F(NumberingTest, OperationZeroIsSkippedAndNumber256PassesValidation) {
    add(1, 0, 0x2100001122334499);
    add(256, 1, 0x2100001122334450);
    ASSERT_EQ(QMX_SetAdapterNumber(info.get()), 0);
    EXPECT_TRUE(traceHas("unknown mode definition. skipped."));
    EXPECT_EQ(items()["qmxl1-wwpn"], "0x2100001122334451");
    EXPECT_EQ(items()["qmxl256-wwpn"], "0x2100001122334450");
}

struct Refusal {
    const char *name;
    int number1, opr1, number2, opr2;
    const char *trace;
};

TEST_F(NumberingTest, RefusedRequestsChangeNothing) {
    const Refusal cases[] = {
        {"same number twice", 3, 1, 3, 2, "The same key exists."},
        {"number 257", 1, 1, 257, 1, "Adapter number is invalid value"},
        {"negative number", -1, 1, 2, 1, "Adapter number is invalid value"},
        {"operation 4", 1, 4, 2, 1, "Unknown operation value"},
        {"negative operation", 1, 1, 2, -1, "Unknown operation value"},
    };
    const std::string before = readFile(kConf);
    for (const Refusal &c : cases) {
        SCOPED_TRACE(c.name);
        std::memset(info.get(), 0, sizeof *info);
        add(c.number1, c.opr1, 0x2100001122334450);
        add(c.number2, c.opr2, 0x2100001122334451);
        clearTrace();
        EXPECT_TRUE(refused(QMX_SetAdapterNumber(info.get()), 2, c.trace));
        EXPECT_TRUE(traceHas("QMX_SetAdapterNumber ABEND"));
        EXPECT_FALSE(traceHas("QMX_Read_qmxlddconf START"));  // refused before reading
        EXPECT_EQ(readFile(kConf), before);
    }
}

TEST_F(NumberingTest, UnreadableFileIsNotRewritten) {
    struct stat before, after;
    ASSERT_EQ(::stat(kConf, &before), 0);
    makeUnreadable(kConf);
    add(7, 1, 0x2100001122334450);
    EXPECT_TRUE(refused(QMX_SetAdapterNumber(info.get()), -1, "QMX_SetAdapterNumber ABEND"));
    EXPECT_FALSE(traceHas("QMX_MakeConfFile START"));
    ASSERT_EQ(::stat(kConf, &after), 0);
    EXPECT_EQ(after.st_size, before.st_size);
}

// ------------------------------------------------------------ delete path
TEST_F(NumberingTest, DeletePathIssuesBothRequestsAndRemovesTheDeviceFile) {
    ASSERT_EQ(QMX_DeleteAdapterPath(portWwn(3), 3), 0);
    EXPECT_EQ(driverRequests("IOCTL_QMX_ADP_PATHCHG", 3), 1);
    EXPECT_EQ(driverRequests("IOCTL_QMX_ADP_PATHDEL", 3), 1);
    EXPECT_FALSE(fileExists("/dev/qmxldd3"));
    EXPECT_TRUE(fileExists("/dev/qmxldd2"));
    EXPECT_TRUE(traceHas("QMX_DeleteAdapterPath END"));
}

TEST_F(NumberingTest, DeletePathFailuresMapTheDriverReasonOnlyForEio) {
    // {errno, driver err_code, reason}: EIO with a known err_code gives its
    // reason, any other failure leaves the reason at zero.
    const int cases[][3] = {{EIO, 0, 30}, {EIO, 3, 33}, {EIO, 11, 36}, {EIO, 20, 37}, {EIO, 5, 0}, {EPERM, 0, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c[0]) + "/" + std::to_string(c[1]));
        clearFaults();
        addFault({{"request", "IOCTL_QMX_ADP_PATHCHG"}, {"port", 1}, {"errno", c[0]}, {"times", 1},
                  {"err_code", c[1]}});
        EXPECT_EQ(QMX_DeleteAdapterPath(portWwn(1), 1), 1);
        EXPECT_EQ(QMX_LastErrorCode(), c[2]);
        EXPECT_TRUE(fileExists("/dev/qmxldd1"));
    }
    EXPECT_TRUE(traceHas("no device"));
    EXPECT_TRUE(traceHas("request imcomplete"));
    EXPECT_EQ(driverRequests("IOCTL_QMX_ADP_PATHDEL"), 0);
}

TEST_F(NumberingTest, DeletePathOfAnUnknownPortOrDevice) {
    EXPECT_TRUE(refused(QMX_DeleteAdapterPath(wwnOf(0x2100001122334499), 0), 4));
    EXPECT_EQ(QMX_DeleteAdapterPath(portWwn(0), 9), 1);  // no /dev/qmxldd9
    EXPECT_EQ(driverRequests("IOCTL_QMX_ADP_PATHCHG"), 0);
    EXPECT_TRUE(fileExists("/dev/qmxldd0"));
}

}  // namespace
