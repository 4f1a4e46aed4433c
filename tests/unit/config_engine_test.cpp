// Parameter engine: key forms, value encodings, add / change / remove.
#include <cstdlib>

#include "config_fixture.h"

using namespace cfgtest;

namespace {

const QMX_WWN kWwn = {{0x21, 0x00, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55}};
const char *const kWwnText = "0x2100001122334455";

class Engine : public ConfTree {
protected:
    void SetUp() override {
        ConfTree::SetUp();
        savedCount_ = c_max_port;
        std::memcpy(saved_, dev_info_all, sizeof saved_);
        // Instance 0 is device 2, instance 1 device 3 (device numbers with gaps).
        std::memset(dev_info_all, 0, sizeof(dev_info) * 2);
        qmx::copyText(dev_info_all[0].name, "qmxldd2");
        qmx::copyText(dev_info_all[1].name, "qmxldd3");
        c_max_port = 2;
    }
    void TearDown() override {
        std::memcpy(dev_info_all, saved_, sizeof saved_);
        c_max_port = savedCount_;
        ConfTree::TearDown();
    }
    int set(int index, const char *suffix, int value, int erId = -1, int del = 0,
            QMX_WWN wwn = kWwn) {
        return qmx::setUtilValue(store_, wwn, index, suffix, erId, &value, del);
    }
    int get(int index, const char *suffix, int *out, int erId = -1, QMX_WWN wwn = kWwn) {
        return qmx::getUtilValue(store_, wwn, index, suffix, erId, out);
    }
    dev_info saved_[2];
    int savedCount_ = 0;
};

TEST_F(Engine, FirstSetOfAPortAddsItsAdapterItem) {
    spit(conf_, "");
    ASSERT_EQ(set(0, "_queue_depth", 32), 0);
    // The port's items come before the remaining ones in the file's layout.
    EXPECT_EQ(slurp(conf_), std::string("qmx2_queue_depth=32:qmxl2-wwpn=") + kWwnText + ":");
    EXPECT_EQ(imageConfigText(), slurp(conf_));
    EXPECT_FALSE(traced("QMX_SetUtilValue END"));
    // A second Set changes the value in place and adds no adapter item.
    ASSERT_EQ(set(0, "_queue_depth", 16), 0);
    EXPECT_EQ(slurp(conf_), std::string("qmx2_queue_depth=16:qmxl2-wwpn=") + kWwnText + ":");
    int v = 0;
    ASSERT_EQ(get(0, "_queue_depth", &v), 0);
    EXPECT_EQ(v, 16);
    EXPECT_TRUE(traced("QMX_GetUtilValue END"));
}

TEST_F(Engine, AdapterItemOfAnotherPortDoesNotCount) {
    spit(conf_, "qmxl3-wwpn=0x1:");
    ASSERT_EQ(set(0, "_link_speed", 4), 0);
    EXPECT_EQ(slurp(conf_),
              std::string("qmx2_link_speed=4:qmxl3-wwpn=0x1:qmxl2-wwpn=") + kWwnText + ":");
    ASSERT_EQ(set(1, "_link_speed", 8), 0);  // device 3 already has its adapter item
    EXPECT_EQ(slurp(conf_), std::string("qmx2_link_speed=4:qmx3_link_speed=8:qmxl3-wwpn=0x1:qmxl2-wwpn=") +
                                kWwnText + ":");
}

TEST_F(Engine, DeleteRemovesOrLeavesTheFileAlone) {
    spit(conf_, "qmx_queue_depth=8:qmx2_queue_depth=9:");
    struct stat before, after;
    ASSERT_EQ(stat(conf_.c_str(), &before), 0);
    std::string image = slurp(imagePath_);
    // Absent: 0 at once, nothing written.
    ASSERT_EQ(set(1, "_queue_depth", 0, -1, 1), 0);
    ASSERT_EQ(stat(conf_.c_str(), &after), 0);
    EXPECT_EQ(slurp(conf_), "qmx_queue_depth=8:qmx2_queue_depth=9:");
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_EQ(slurp(imagePath_), image);
    EXPECT_FALSE(traced("QMX_MakeConfFile START"));
    // Present: removed; the value is not looked at.
    ASSERT_EQ(qmx::setUtilValue(store_, kWwn, 0, "_queue_depth", -1, nullptr, 1), 0);
    EXPECT_EQ(slurp(conf_), "qmx_queue_depth=8:");
}

TEST_F(Engine, AllZeroWwnWritesTheDriverWideKey) {
    spit(conf_, "qmx2_queue_depth=9:");
    ASSERT_EQ(set(-1, "_queue_depth", 64, -1, 0, wwn_all_zero), 0);
    EXPECT_EQ(slurp(conf_), "qmx_queue_depth=64:qmx2_queue_depth=9:");
    // Multipath names carry no "_": the key is "qmxmp_...".
    signed char on = 1;
    ASSERT_EQ(qmx::setUtilValue(store_, wwn_all_zero, -1, "mp_failover", -1, &on, 0), 0);
    EXPECT_EQ(slurp(conf_), "qmx_queue_depth=64:qmxmp_failover=1:qmx2_queue_depth=9:");
}

TEST_F(Engine, GetFailsWithoutAFileAndDoesNotFallBackToTheDriverWideItem) {
    int v = 7;
    EXPECT_EQ(get(0, "_queue_depth", &v), -1);
    EXPECT_EQ(v, 7);
    EXPECT_TRUE(traced("QMX_GetUtilValue ABEND"));
    spit(conf_, "qmx_queue_depth=8:qmx3_queue_depth=5:");
    v = 0;
    ASSERT_EQ(get(0, "_queue_depth", &v), 0);
    EXPECT_EQ(v, 0);
    ASSERT_EQ(get(1, "_queue_depth", &v), 0);
    EXPECT_EQ(v, 5);
    ASSERT_EQ(get(-1, "_queue_depth", &v), 0);
    EXPECT_EQ(v, 8);
}

TEST_F(Engine, SubIndexFormsDifferBetweenGetAndSet) {
    spit(conf_, "");
    ASSERT_EQ(set(0, "_retry_cnt", 120, 5), 0);
    ASSERT_EQ(set(0, "_foo", 7, 3), 0);  // Set appends the sub-index to any suffix
    EXPECT_EQ(slurp(conf_),
              std::string("qmx2_retry_cnt5=120:qmxl2-wwpn=") + kWwnText + ":qmx2_foo3=7:");
    ASSERT_EQ(set(-1, "_retry_cnt", 30, 12, 0, wwn_all_zero), 0);
    EXPECT_EQ(slurp(conf_), std::string("qmx_retry_cnt12=30:qmx2_retry_cnt5=120:qmx2_foo3=7:"
                                        "qmxl2-wwpn=") + kWwnText + ":");
    int v = 0;
    ASSERT_EQ(get(0, "_retry_cnt", &v, 5), 0);
    EXPECT_EQ(v, 120);
    v = 0;
    ASSERT_EQ(get(0, "_foo", &v, 3), 0);  // Get looks for "qmx2_foo"
    EXPECT_EQ(v, 0);
    ASSERT_EQ(get(-1, "_retry_cnt", &v, 12), 0);
    EXPECT_EQ(v, 30);
}

TEST_F(Engine, PreferredAlpaIsOneHexByte) {
    spit(conf_, "");
    unsigned char alpa = 0xE8;
    ASSERT_EQ(qmx::setUtilValue(store_, kWwn, 0, "_preferred_alpa", -1, &alpa, 0), 0);
    EXPECT_NE(slurp(conf_).find("qmx2_preferred_alpa=0xe8:"), std::string::npos);
    // Only one byte is stored through the output.
    unsigned char out[2] = {0, 0x5A};
    ASSERT_EQ(qmx::getUtilValue(store_, kWwn, 0, "_preferred_alpa", -1, out), 0);
    EXPECT_EQ(out[0], 0xE8);
    EXPECT_EQ(out[1], 0x5A);
    spit(conf_, "qmx2_preferred_alpa=0xZZ:");
    EXPECT_EQ(qmx::getUtilValue(store_, kWwn, 0, "_preferred_alpa", -1, out), -1);
    EXPECT_STREQ(QMX_G_ERROR_MES, "qmx_2CharTo1ByteHex is err");
    EXPECT_TRUE(traced("qmx_2CharTo1ByteHex is err"));
    EXPECT_TRUE(traced("QMX_GetUtilValue ABEND"));
}

TEST_F(Engine, MultipathValuesAreTheFirstByteSigned) {
    spit(conf_, "");
    int value = 0x1FF;  // first byte 0xFF: -1
    ASSERT_EQ(qmx::setUtilValue(store_, wwn_all_zero, -1, "mp_path_health", -1, &value, 0), 0);
    EXPECT_EQ(slurp(conf_), "qmxmp_path_health=-1:");
    int v = 0;
    ASSERT_EQ(get(-1, "mp_path_health", &v), 0);
    EXPECT_EQ(v, -1);
}

TEST_F(Engine, IsolationKeyComesFromThePciAddress) {
    spit(conf_, "");
    QMX_WWN pci = {{0x0a, 0x1f, 0x03, 0, 0, 0, 0, 0}};
    ASSERT_EQ(set(0, "_bs", 2, -1, 0, pci), 0);
    EXPECT_EQ(slurp(conf_), "qmx_0a_1f_03_bs=2:");
    int v = 0;
    ASSERT_EQ(get(0, "_bs", &v, -1, pci), 0);
    EXPECT_EQ(v, 2);
    ASSERT_EQ(set(0, "_bs", 0, -1, 1, pci), 0);
    EXPECT_EQ(slurp(conf_), "");
}

TEST_F(Engine, FileThatCannotBeHeldOrIsTooLargeIsRefusedWithItsCode) {
    std::string text(std::size_t(qmx::kMaxKeySlots) + 5, ':');
    spit(conf_, text);
    EXPECT_EQ(set(0, "_queue_depth", 1), -1);
    EXPECT_EQ(QMX_G_ERROR_CD, 9);
    EXPECT_EQ(slurp(conf_), text);
    EXPECT_TRUE(traced("QMX_SetUtilValue ABEND"));
    spit(conf_, std::string(199990, 'x') + "=1:");
    EXPECT_EQ(set(0, "_queue_depth", 1), -1);
    EXPECT_EQ(QMX_G_ERROR_CD, 14);
}

TEST_F(Engine, BadArgumentsFail) {
    spit(conf_, "");
    int v = 0;
    EXPECT_EQ(qmx::getUtilValue(store_, kWwn, 0, nullptr, -1, &v), -1);
    EXPECT_EQ(qmx::getUtilValue(store_, kWwn, 0, "_queue_depth", -1, nullptr), -1);
    EXPECT_EQ(qmx::setUtilValue(store_, kWwn, 0, "_queue_depth", -1, nullptr, 0), -1);
    EXPECT_EQ(qmx::setUtilValue(store_, kWwn, 300, "_queue_depth", -1, &v, 0), -1);
    EXPECT_EQ(slurp(conf_), "");
}

}  // namespace
