// Disk configuration record in the virtual host: reading and rewriting the
// record file, malformed lines, and the capture of the present LU map from
// the simulated multipath driver.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "vhost.h"

namespace {

constexpr const char *kRecord = "/opt/kestrel/drivers/hba/qmxldd_lumap.conf";

class DiskConfTest : public VHostTest {
protected:
    std::unique_ptr<QMX_DISK_CONFIG> tree = std::make_unique<QMX_DISK_CONFIG>();
    void TearDown() override { QMX_DiskConfigTblFree(tree.get()); }

    static std::string hex(const uint8_t *p, std::size_t n) {
        static const char d[] = "0123456789abcdef";
        std::string s;
        for (std::size_t i = 0; i < n; ++i) s += {d[p[i] >> 4], d[p[i] & 15]};
        return s;
    }
    // The identification data the simulated driver gives LU `lun` of a
    // storage node: 0x60, 7 bytes of the node name, the LUN, zero padding.
    static std::string simLuid(uint64_t wwnn, uint32_t lun) {
        uint8_t b[16] = {0x60};
        for (int i = 0; i < 7; ++i) b[1 + i] = uint8_t(wwnn >> (8 * (6 - i)));
        for (int i = 0; i < 4; ++i) b[8 + i] = uint8_t(lun >> (8 * (3 - i)));
        return hex(b, 16);
    }
};

// A record in writer order: adapters, each with its targets and their LUs.
const std::string kOrdered =
    "qmx_unmatched_dev=1\n"
    "adapter-0-pci=0x030001\n"
    "adapter-0-target-0-wwpn=0x5000000000000a01\n"
    "adapter-0-target-0-lu-0=0x600a\n"
    "adapter-0-target-0-lu-2047=0x\n"
    "adapter-0-target-3-wwpn=0x5000000000000b01\n"
    "adapter-127-pci=0xff1f07\n"
    "adapter-127-target-255-wwpn=0x0102030405060708\n"
    "adapter-127-target-255-lu-5=0x" + std::string(254, 'c') + "\n";

TEST_F(DiskConfTest, ReadThenWriteReproducesTheRecordAndFollowsALink) {
    ASSERT_TRUE(writeFile("/opt/kestrel/drivers/hba/lumap.real", kOrdered));
    ASSERT_EQ(::symlink("lumap.real", kRecord), 0);
    int flag = -1;
    ASSERT_EQ(QMX_GetDiskConfig(&flag, tree.get()), 0);
    EXPECT_EQ(flag, 1);
    ASSERT_EQ(tree->adapt_cnt, 2);
    const QMX_DISK_CONF_ADAPT *a0 = tree->adapt[0], *a127 = tree->adapt[127];
    ASSERT_TRUE(a0 && a127);
    EXPECT_EQ(hex(a0->bus_dev_func, 3), "030001");
    EXPECT_EQ(a0->tgt_cnt, 2);
    ASSERT_TRUE(a0->tgt[3]);
    EXPECT_EQ(a0->tgt[3]->lu_cnt, 0);
    ASSERT_TRUE(a0->tgt[0]);
    EXPECT_EQ(hex(a0->tgt[0]->wwn.wwn, 8), "5000000000000a01");
    EXPECT_EQ(a0->tgt[0]->lu_cnt, 2);
    EXPECT_EQ(a0->tgt[0]->lu[0]->valid_luid_byte, 2);
    EXPECT_EQ(a0->tgt[0]->lu[2047]->valid_luid_byte, 0);
    EXPECT_EQ(a127->tgt[255]->lu[5]->valid_luid_byte, 127);

    // Rewritten with the other flag: the same lines, and the link kept.
    ASSERT_EQ(QMX_SetDiskConfig(0), 0);
    std::string expect = kOrdered;
    expect.replace(0, 20, "qmx_unmatched_dev=0\n");
    EXPECT_EQ(readFile(kRecord), expect);
    char target[64] = {};
    EXPECT_GT(::readlink(kRecord, target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "lumap.real");
}

TEST_F(DiskConfTest, NoRecordOrFlagOnlyIsAnEmptyTree) {
    int flag = -1;
    ASSERT_EQ(QMX_GetDiskConfig(&flag, tree.get()), 0);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(tree->adapt_cnt, 0);
    EXPECT_TRUE(traceHas("lumap.conf file open error."));

    ASSERT_TRUE(writeFile(kRecord, "qmx_unmatched_dev=1\n"));
    ASSERT_EQ(QMX_GetDiskConfig(&flag, nullptr), 0);
    EXPECT_EQ(flag, 1);
    ASSERT_EQ(QMX_SetDiskConfig(0), 0);
    EXPECT_EQ(readFile(kRecord), "qmx_unmatched_dev=0\n");
    // Any flag other than 1 is recorded as 0; 1 as 1.
    ASSERT_EQ(QMX_SetDiskConfig(1), 0);
    EXPECT_EQ(readFile(kRecord), "qmx_unmatched_dev=1\n");
    ASSERT_EQ(QMX_SetDiskConfig(7), 0);
    EXPECT_EQ(readFile(kRecord), "qmx_unmatched_dev=0\n");
    // A record that opens but cannot be read (a directory in its place) is
    // a failure, never an empty tree, and nothing is written.
    ::unlink(kRecord);
    ASSERT_EQ(::mkdir(kRecord, 0755), 0);
    clearTrace();
    EXPECT_TRUE(refused(QMX_GetDiskConfig(&flag, tree.get()), 1, "qmx_ReadLuMapConf ABEND"));
    EXPECT_TRUE(refused(QMX_SetDiskConfig(1), 1, "qmx_ReadLuMapConf error"));
    EXPECT_EQ(traceCount("qmx_WriteLuMapConf START"), 0);
    ::rmdir(kRecord);
}

TEST_F(DiskConfTest, OddDigitsAreDroppedAndRepeatedLinesReplace) {
    ASSERT_TRUE(writeFile(kRecord, "adapter-1-target-2-lu-3=0x1234567\n"
                                   "adapter-1-target-2-lu-4=0xaa\n"
                                   "adapter-1-target-2-lu-4=0xbbcc\n"));
    ASSERT_EQ(QMX_GetDiskConfig(nullptr, tree.get()), 0);
    const QMX_DISK_CONF_TGT *t = tree->adapt[1]->tgt[2];
    ASSERT_TRUE(t);
    EXPECT_EQ(t->lu[3]->valid_luid_byte, 3);
    EXPECT_EQ(hex(t->lu[3]->luid, 3), "123456");
    EXPECT_EQ(hex(t->lu[4]->luid, t->lu[4]->valid_luid_byte), "bbcc");
    EXPECT_EQ(t->lu_cnt, 2);
}

TEST_F(DiskConfTest, MalformedLinesFailWithTheirCode) {
    struct Case {
        const char *line;
        int code;
        const char *trace;
    } cases[] = {
        {"adapter-0-target-0-lu-2048=0x00", 9, "Over max number malloc error"},
        {"adapter-128-pci=0x000000", 9, "Over max number malloc error"},
        {"adapter-0-target-256-wwpn=0x0000000000000000", 9, "Over max number malloc error"},
        {"adapter--1-pci=0x000000", 9, "Over max number malloc error"},
        {"adapter-0-target-1-xyz=0x00", 9, nullptr},
        {"adapter-0-pci", 9, nullptr},
        {"adapter-0-pci=0x03", 9, nullptr},
        {"adapter-0-target-0-wwpn=0x50000000000g0a01", 9, nullptr},
        {"adapter-0-target-0-lu-1=0x0z", 9, nullptr},
        {"adapter-x-pci=0x000000", 9, nullptr},
        {"qmx_other=1", 9, nullptr},
        // Longer than the line buffer: the rest reads as a line of its own.
        {"adapter-0-target-0-lu-0=0x", 9, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        clearTrace();
        std::string text = "qmx_unmatched_dev=1\nadapter-5-pci=0x010203\n" + std::string(c.line);
        if (&c == &cases[std::size(cases) - 1]) text += std::string(600, 'a');
        ASSERT_TRUE(writeFile(kRecord, text + "\n"));
        int flag = -1;
        EXPECT_EQ(QMX_GetDiskConfig(&flag, tree.get()), 1);
        EXPECT_EQ(QMX_LastErrorCode(), c.code);
        EXPECT_EQ(flag, 1);
        EXPECT_TRUE(traceHas("parse_lumap_line error"));
        EXPECT_TRUE(traceHas("QMX_GetDiskConfig error"));
        if (c.trace) {
            EXPECT_TRUE(traceHas(c.trace));
        }
        // The lines read before the failure stay in the tree, uncounted.
        EXPECT_TRUE(tree->adapt[5] != nullptr);
        EXPECT_EQ(tree->adapt_cnt, 0);
        QMX_DiskConfigTblFree(tree.get());
        // A rewrite of a malformed record is refused and leaves it as it was.
        EXPECT_EQ(QMX_SetDiskConfig(0), 1);
        EXPECT_EQ(readFile(kRecord), text + "\n");
    }
}

TEST_F(DiskConfTest, CaptureRecordsEveryAdapterTargetAndLuKeepingTheFlag) {
    ASSERT_TRUE(writeFile(kRecord, "qmx_unmatched_dev=1\nadapter-9-pci=0x000000\n"));
    // A target that is not usable (flags bit 1 clear) gets no number.
    editState([](qmxsim::json &s) { portOf(s, 2)["targets"][0]["flags"] = 1; });
    ASSERT_EQ(QMX_AutoSetDiskConfig(tree.get()), 0);
    ASSERT_EQ(tree->adapt_cnt, 4);
    const char *pci[] = {"030000", "030001", "040000", "040001"};
    const int targets[] = {2, 1, 1, 1};
    for (int a = 0; a < 4; ++a) {
        ASSERT_TRUE(tree->adapt[a]);
        EXPECT_EQ(hex(tree->adapt[a]->bus_dev_func, 3), pci[a]);
        EXPECT_EQ(tree->adapt[a]->tgt_cnt, targets[a]);
    }
    const QMX_DISK_CONF_TGT *t = tree->adapt[0]->tgt[1];
    ASSERT_TRUE(t);
    EXPECT_EQ(hex(t->wwn.wwn, 8), "5000000000000b01");
    ASSERT_EQ(t->lu_cnt, 2);
    EXPECT_EQ(hex(t->lu[1]->luid, t->lu[1]->valid_luid_byte), simLuid(0x5000000000000b00, 1));
    // Adapter 2's only usable target is the second one of its map.
    EXPECT_EQ(hex(tree->adapt[2]->tgt[0]->wwn.wwn, 8), "5000000000000b02");
    EXPECT_EQ(driverRequests("IOCTL_QMX_MP_TGTMAP"), 4);
    EXPECT_EQ(driverRequests("IOCTL_QMX_MP_LUMAP"), 5);

    // The file holds the capture with the recorded flag, in writer order.
    std::string text = readFile(kRecord);
    EXPECT_EQ(text.rfind("qmx_unmatched_dev=1\nadapter-0-pci=0x030000\n"
                         "adapter-0-target-0-wwpn=0x5000000000000a01\n"
                         "adapter-0-target-0-lu-0=0x" + simLuid(0x5000000000000a00, 0) + "\n",
                         0),
              0u);
    EXPECT_EQ(text.find("adapter-9"), std::string::npos);
    auto back = std::make_unique<QMX_DISK_CONFIG>();
    ASSERT_EQ(QMX_GetDiskConfig(nullptr, back.get()), 0);
    EXPECT_EQ(back->adapt[3]->tgt[0]->lu_cnt, 4);
    QMX_DiskConfigTblFree(back.get());
}

TEST_F(DiskConfTest, RefusedMapRequestsKeepTheAdapterOrTargetEmpty) {
    failRequest("IOCTL_QMX_MP_TGTMAP", 1, EIO);
    failRequest("IOCTL_QMX_MP_LUMAP", 0, ENXIO, 1);
    ASSERT_EQ(QMX_AutoSetDiskConfig(tree.get()), 0);
    EXPECT_EQ(tree->adapt_cnt, 4);
    EXPECT_EQ(tree->adapt[1]->tgt_cnt, 0);
    EXPECT_EQ(tree->adapt[0]->tgt_cnt, 2);
    EXPECT_EQ(tree->adapt[0]->tgt[0]->lu_cnt, 0);
    EXPECT_EQ(tree->adapt[0]->tgt[1]->lu_cnt, 2);
    EXPECT_TRUE(traceHas("IOCTL_QMX_MP_TGTMAP(5)"));
    EXPECT_TRUE(traceHas("IOCTL_QMX_MP_LUMAP(6)"));
    EXPECT_NE(readFile(kRecord).find("adapter-1-pci=0x030001\nadapter-2-pci"), std::string::npos);
}

TEST_F(DiskConfTest, NullTreeAndNoAdapterWriteNothing) {
    EXPECT_TRUE(refused(QMX_AutoSetDiskConfig(nullptr), 2));
    int at = traceIndex("Config == NULL");
    ASSERT_GE(at, 0);
    EXPECT_GT(traceIndex("QMX_ExeclusiveUnlock START", at), at);
    EXPECT_GT(traceIndex("QMX_AutoSetDiskConfig ABEND", at), at);
    EXPECT_FALSE(fileExists(kRecord));
    QMX_DiskConfigTblFree(nullptr);  // does nothing

    // No adapter port at all: nothing to capture, nothing written.
    for (int d = 0; d < 4; ++d) removeDeviceFile(d);
    EXPECT_TRUE(refused(QMX_AutoSetDiskConfig(tree.get()), 1, "open_special_file is 0"));
    EXPECT_FALSE(fileExists(kRecord));
}

}  // namespace
