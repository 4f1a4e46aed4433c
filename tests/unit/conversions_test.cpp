// WWN and text conversions.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "frame/frame.h"
#include "frame_test_util.h"

TEST(Conversions, WwnRoundTripMostSignificantFirst) {
    QMX_WWN w = {{0x21, 0x00, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55}};
    EXPECT_EQ(changeWWN(w), 0x2100001122334455ull);
    QMX_WWN back{};
    getWWN(0x2100001122334455ull, &back);
    EXPECT_EQ(0, std::memcmp(back.wwn, w.wwn, 8));
    EXPECT_TRUE(isAllZero(wwn_all_zero));
    EXPECT_FALSE(isAllZero(w));
}

TEST(Conversions, ReadTblIsBigEndianAndRejectsOddSizes) {
    uint8_t b[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    EXPECT_EQ(qmx_read_tbl(b, 1), 0x01u);
    EXPECT_EQ(qmx_read_tbl(b, 2), 0x0102u);
    EXPECT_EQ(qmx_read_tbl(b, 4), 0x01020304u);
    EXPECT_EQ(qmx_read_tbl(b, 8), 0x0102030405060708ull);
    EXPECT_EQ(qmx_read_tbl(b, 3), 0u);
    EXPECT_EQ(qmx_cnvc('Q'), 'q');
    EXPECT_EQ(qmx_cnvc('q'), 'q');
    EXPECT_EQ(qmx_cnvc('@'), '@');
}

TEST(Conversions, ConvertStringForms) {
    struct Case {
        const char *text;
        int ok;
        uint64_t value;
    } cases[] = {
        {"0x1F:", 1, 31}, {"0X1f", 1, 31}, {"12 34", 1, 12}, {"12a", 0, 12},
        {"0x", 1, 0},     {"", 1, 0},      {":", 1, 0},      {"7\t9", 1, 7},
        {"0xg", 0, 0},    {"-1", 0, 0},
    };
    for (const auto &c : cases) {
        uint64_t v = 99;
        EXPECT_EQ(qmx_convert_string(const_cast<char *>(c.text), &v), c.ok) << c.text;
        EXPECT_EQ(v, c.value) << c.text;
    }
    // Past 64 bits the value wraps instead of failing.
    uint64_t v = 0;
    EXPECT_EQ(qmx_convert_string(const_cast<char *>("0x1FFFFFFFFFFFFFFFF"), &v), 1);
    EXPECT_EQ(v, 0xFFFFFFFFFFFFFFFFull);
}

TEST(Conversions, TwoCharHex) {
    // Three digits: the cut byte is stored, then the call fails with code 10;
    // a bad digit stores nothing.
    struct Case {
        const char *text;
        int rc, stored, code;
    } cases[] = {{"0xFF", 0, 255, 0}, {"a", 0, 10, 0}, {"", 0, 0, 0}, {"100", -1, 0x00, 10}, {"0xZ1", -1, 5, 10}};
    for (const Case &c : cases) {
        unsigned char b = 5;
        QMX_G_ERROR_CD = 0;
        EXPECT_EQ(qmx_2CharTo1ByteHex(const_cast<char *>(c.text), &b), c.rc) << c.text;
        EXPECT_EQ(b, c.stored) << c.text;
        EXPECT_EQ(QMX_G_ERROR_CD, c.code) << c.text;
    }
}

TEST(Conversions, DiskOrderShorterNameFirst) {
    sysfs_dev d[3] = {};
    std::strcpy(d[0].devname, "sdb");
    std::strcpy(d[1].devname, "sdaa");
    std::strcpy(d[2].devname, "sda");
    std::qsort(d, 3, sizeof d[0], compDevice);
    EXPECT_STREQ(d[0].devname, "sda");
    EXPECT_STREQ(d[1].devname, "sdb");
    EXPECT_STREQ(d[2].devname, "sdaa");
}

TEST(Conversions, ShellQuoteOnlyWhenNeeded) {
    const std::pair<const char *, const char *> cases[] = {
        {"/opt/kestrel/x.txt", "/opt/kestrel/x.txt"}, {"a b", "'a b'"},  {"x;rm -rf /", "'x;rm -rf /'"},
        {"it's", "'it'\\''s'"},                       {"", "''"},         {"$(id)", "'$(id)'"}};
    for (auto [in, out] : cases) EXPECT_EQ(qmx::shellQuote(in), out) << in;
}

// The SCSI disk list of the host: the virtual host starts with sda..sdd on
// "/sys/block"; the test adds a hundred more, a broken link and a non-disk.
TEST(Conversions, DiskListIsCompleteAndInDiskOrder) {
    if (!frametest::inVirtualHost()) GTEST_SKIP() << "needs the virtual host (run through ctest)";
    auto addDisk = [](const std::string &name, const std::string &hctl) {
        std::string dir = "/sys/block/" + name;
        mkdir("/sys/block/.scsi", 0755);
        mkdir(("/sys/block/.scsi/" + hctl).c_str(), 0755);
        mkdir(dir.c_str(), 0755);
        ASSERT_EQ(symlink(("../.scsi/" + hctl).c_str(), (dir + "/device").c_str()), 0) << name;
    };
    std::vector<std::string> added;
    for (char a = 'z'; a >= 'a' && added.size() < 100; --a)
        for (char b = 'z'; b >= 'a' && added.size() < 100; --b) {
            std::string name = std::string("sd") + a + b;
            addDisk(name, "7:0:" + std::to_string(added.size()) + ":" + std::to_string(300 + added.size()));
            added.push_back(name);
        }
    addDisk("sde", "5:0:1");  // no LUN: skipped
    addDisk("md0", "6:0:0:0");  // not a SCSI disk name

    QMX_OpenApiTraceFile();
    sysfs_dev_t list{-1, nullptr};
    int rc = readDevice(&list);
    QMX_CloseApiTraceFile();
    ASSERT_EQ(rc, 0);
    ASSERT_EQ(list.list_num, 104);
    EXPECT_STREQ(list.list[0].devname, "sda");
    EXPECT_EQ(list.list[3].hostno, 4);
    EXPECT_EQ(list.list[3].tid, 1);
    EXPECT_EQ(list.list[3].lun, 1);
    for (int i = 1; i < list.list_num; ++i)
        ASSERT_LT(compDevice(&list.list[i - 1], &list.list[i]), 0) << list.list[i].devname;
    // The last added name sorts first among the added ones.
    EXPECT_EQ(std::string(list.list[4].devname), added.back());
    EXPECT_EQ(list.list[4].hostno, 7);
    EXPECT_EQ(list.list[4].tid, 99);
    EXPECT_EQ(list.list[4].lun, 399);
    std::free(list.list);
    EXPECT_TRUE(frametest::contains(frametest::texts(),
                                    "readDevice:/sys/block/sde/device invalid format 4"));
}

// The set of all open devices, with and without adapters.
TEST(DeviceSet, OpensEveryPortAndTracesWhenThereIsNone) {
    if (!frametest::inVirtualHost()) GTEST_SKIP() << "needs the virtual host (run through ctest)";
    QMX_OpenApiTraceFile();
    qmx_spfile *set = nullptr;
    EXPECT_EQ(open_special_file(&set), 4);
    ASSERT_NE(set, nullptr);
    EXPECT_TRUE(spfileValid(set[3]));
    EXPECT_NE(set[3].fd, -1);
    EXPECT_FALSE(spfileValid(set[4]));
    EXPECT_EQ(set[4].fd, -1);
    close_special_file(set);

    for (int n = 0; n < 4; ++n) unlink(("/dev/qmxldd" + std::to_string(n)).c_str());
    set = nullptr;
    EXPECT_EQ(open_special_file(&set), 0);
    ASSERT_NE(set, nullptr);
    for (int n = 0; n < kMaxPorts; ++n) ASSERT_EQ(set[n].fd, -1) << n;
    close_special_file(set);
    QMX_CloseApiTraceFile();
    EXPECT_TRUE(frametest::contains(frametest::texts(), "no device special file (/dev/qmxlddx)"));
}
