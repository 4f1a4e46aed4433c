// The BIOS tool's configuration listing parser on crafted listings.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "bios/bios.h"
#include "frame/frame.h"

namespace {

constexpr uint64_t kUnset = ~uint64_t(0);
const std::string kBorder = "  +---+------------------+-----+------------+";

// Every test starts from the state of a freshly loaded library.
class BiosListing : public ::testing::Test {
protected:
    void SetUp() override {
        for (auto &e : QMX_G_CfgList) e.param_val = kUnset;
        for (auto &r : QMX_G_BootPriority) r = {0, 0};
        bt_st = -1;
        QMX_G_ERROR_CD = 0;
    }
    void TearDown() override { SetUp(); }

    static void parse(const std::string &text) {
        ASSERT_EQ(0, qmx_CfgParseBuffer(text.data(), text.size()));
    }
    static uint64_t val(int i) { return QMX_G_CfgList[i].param_val; }
};

// One listing each, parsed into the state of a freshly loaded library.
TEST_F(BiosListing, EntriesDecodeTheirValueTexts) {
    struct Case {
        const char *listing;
        int entry;
        uint64_t want;
    } cases[] = {
        // Titles match from the second character only.
        {" HBA BIOS                  : DISABLE\n", QMX_CFG_HBA_BIOS, 2},
        {"  BOOT PRIORITY            : ENABLE\n", QMX_CFG_BOOT_PRIORITY, kUnset},
        {"SPINUP DELAY               : ENABLE\n", QMX_CFG_SPINUP_DELAY, kUnset},
        {" PERSISTENT BINDINGS       : ENABLE\n", QMX_CFG_PERSISTENT_BINDINGS, 1},
        {" HBA BIOS : ENABLE\n", QMX_CFG_HBA_BIOS, 1},
        {" BOOT PRIORITY : DISABLE\n", QMX_CFG_BOOT_PRIORITY, 2},
        {" SPINUP DELAY : ENABLE\n", QMX_CFG_SPINUP_DELAY, 1},
        {" FORCE DEFAULT PARAMETER : DISABLE\n", QMX_CFG_FORCE_DEFAULT, 2},
        {" ERROR LOGGING : ENABLE\n", QMX_CFG_ERROR_LOGGING, 1},
        {" PRE CONFIGURE : DISABLE\n", QMX_CFG_PRE_CONFIGURE, 2},
        {" PRE CONFIGURE : ENABLE", QMX_CFG_PRE_CONFIGURE, 1},  // last line without newline
        // The value is searched only after the colon.
        {" HBA BIOS ENABLE : unknown\n", QMX_CFG_HBA_BIOS, kUnset},
        {" HBA BIOS : something else\n", QMX_CFG_HBA_BIOS, kUnset},
        {" CONNECTION TYPE : POINT TO POINT ONLY\n", QMX_CFG_CONNECTION_TYPE, 2},
        {" CONNECTION TYPE : LOOP ONLY\n", QMX_CFG_CONNECTION_TYPE, 3},
        {" CONNECTION TYPE : AUTO DETECTION (LOOP PREFERRED)\n", QMX_CFG_CONNECTION_TYPE, 1},
        {" DATA RATE : 10Gbps ONLY\n", QMX_CFG_DATA_RATE, 10},
        {" DATA RATE : 4Gbps ONLY\n", QMX_CFG_DATA_RATE, 4},
        {" DATA RATE : AUTO DETECTION\n", QMX_CFG_DATA_RATE, 0},
        {" DATA RATE : 4Gbps ONLY\n DATA RATE : 3Gbps ONLY\n", QMX_CFG_DATA_RATE, 4},  // unknown: kept
        // The overwrite mode is matched against the data rate texts.
        {" OVERWRITE MODE : NOT OVERWRITE\n", QMX_CFG_OVERWRITE_MODE, kUnset},
        {" OVERWRITE MODE : OVERWRITE ALL ENTRY\n", QMX_CFG_OVERWRITE_MODE, kUnset},
        {" OVERWRITE MODE : 1Gbps ONLY\n", QMX_CFG_OVERWRITE_MODE, 2},
        {" OVERWRITE MODE : 2Gbps ONLY\n", QMX_CFG_OVERWRITE_MODE, 3},
        {" OVERWRITE MODE : AUTO DETECTION\n", QMX_CFG_OVERWRITE_MODE, 1},
        {" LOGIN DELAY TIME : default\n", QMX_CFG_LOGIN_DELAY, 255},
        {" LOGIN DELAY TIME :   17 seconds\n", QMX_CFG_LOGIN_DELAY, 17},
        {" LOGIN DELAY TIME : none\n", QMX_CFG_LOGIN_DELAY, 0},
        {" LOGIN DELAY TIME : 99999999999999999999\n", QMX_CFG_LOGIN_DELAY, uint64_t(INT_MAX)},  // clamped
        // The additional WWPN starts two characters after the colon.
        {" Additional World Wide Port Name : 50060e8000000001\n", QMX_CFG_ADDITIONAL_WWPN, 0x50060e8000000001ull},
        {" Additional World Wide Port Name :X2100001122334455\n", QMX_CFG_ADDITIONAL_WWPN, 0x2100001122334455ull},
        {" Additional World Wide Port Name :\n", QMX_CFG_ADDITIONAL_WWPN, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.listing);
        SetUp();
        parse(c.listing);
        EXPECT_EQ(val(c.entry), c.want);
    }
}

TEST_F(BiosListing, TitledLineWithoutColonIsUnknownFormat) {
    char line[] = " HBA BIOS ENABLE";
    EXPECT_EQ(-1, qmx_CfgLineAnalyze(line, QMX_CFG_HBA_BIOS));
    EXPECT_EQ(QMX_G_ERROR_CD, 10);
    QMX_G_ERROR_CD = 0;
    EXPECT_EQ(0, qmx_CfgAnalyze(line));
    EXPECT_EQ(QMX_G_ERROR_CD, 10);
    EXPECT_EQ(val(QMX_CFG_HBA_BIOS), kUnset);
}

// A listing without a line keeps the earlier listing's value: end to end in
// BiosApi.ASettingNeverListedReads255AndALaterMissingLineKeepsTheValue.
TEST_F(BiosListing, BootTableRowsBetweenBorders) {
    parse(" BOOT DEVICE LIST\n" + kBorder + "\n" +
          "  |1   50060e8000000001   0012  ENABLE      |\n"
          "  |2   2100001122334455   00ab  ENABLE      |\n"
          "  |3   0000000000000000   0000  DISABLE     |\n" +
          kBorder + "\n" + "  |9   1111111111111111   0001  ignored after the table\n");
    EXPECT_EQ(QMX_G_BootPriority[0].wwn, 0x50060e8000000001ull);
    EXPECT_EQ(QMX_G_BootPriority[0].lun, 0x12);
    EXPECT_EQ(QMX_G_BootPriority[1].wwn, 0x2100001122334455ull);
    EXPECT_EQ(QMX_G_BootPriority[1].lun, 0xab);
    EXPECT_EQ(QMX_G_BootPriority[2].wwn, 0u);
    EXPECT_EQ(QMX_G_BootPriority[3].wwn, 0u);
    EXPECT_EQ(bt_st, -1);
}

TEST_F(BiosListing, BootRowTokensSplitAtRepeatedBlanksAndLunTakesFourCharacters) {
    char row[] = "   x     0x00000000000000ff      123456 trailing";
    EXPECT_EQ(0, qmx_BootPriorityAnalyze(row, 4));
    // "0x" is put before the token: "0x0x..." stops at the second x.
    EXPECT_EQ(QMX_G_BootPriority[4].wwn, 0u);
    EXPECT_EQ(QMX_G_BootPriority[4].lun, 0x1234);
    char row2[] = "7 abcdef 1";
    EXPECT_EQ(0, qmx_BootPriorityAnalyze(row2, 5));
    EXPECT_EQ(QMX_G_BootPriority[5].wwn, 0xabcdefu);
    EXPECT_EQ(QMX_G_BootPriority[5].lun, 1);
}

TEST_F(BiosListing, ListingEndingInsideTheTableLeavesTheCursorForTheNextParse) {
    parse(kBorder + "\n  |1   00000000000000aa   0001  x |\n");
    EXPECT_EQ(bt_st, 1);
    // The next listing's first border now closes the table, and its rows
    // are not read.
    parse(kBorder + "\n  |1   00000000000000bb   0002  x |\n" + kBorder + "\n");
    EXPECT_EQ(QMX_G_BootPriority[0].wwn, 0xaau);
    EXPECT_EQ(bt_st, 0);
}

TEST_F(BiosListing, RowsPastEightAreDroppedWithCode10) {
    std::string text = kBorder + "\n";
    for (int i = 1; i <= 12; ++i) text += "  |" + std::to_string(i) + "   00000000000000" +
                                          (i < 10 ? "0" : "") + std::to_string(i) + "   0001  x\n";
    text += kBorder + "\n";
    parse(text);
    EXPECT_EQ(QMX_G_BootPriority[7].wwn, 0x08u);
    EXPECT_EQ(QMX_G_ERROR_CD, 10);
    EXPECT_EQ(bt_st, -1);
    char row[] = "  |9 ffffffffffffffff 0001";
    EXPECT_EQ(-1, qmx_BootPriorityAnalyze(row, 8));
    EXPECT_EQ(-1, qmx_BootPriorityAnalyze(row, -2));
}

TEST_F(BiosListing, LinesLongerThan1023CharactersAreReadInPieces) {
    // The piece after the first 1023 characters is a line of its own.
    parse(std::string(1023, 'x') + " HBA BIOS : DISABLE\n");
    EXPECT_EQ(val(QMX_CFG_HBA_BIOS), 2u);
    SetUp();
    parse(std::string(1022, 'x') + " HBA BIOS : DISABLE\n");
    EXPECT_EQ(val(QMX_CFG_HBA_BIOS), kUnset);
}

TEST_F(BiosListing, HostileBytesDoNotCrash) {
    std::string junk;
    for (int i = 0; i < 5000; ++i) junk += char((i * 131 + 7) & 0xFF);
    junk += "\n" + kBorder + "\n" + std::string(3000, ' ') + "\n:\n\n \n" + kBorder;
    parse(junk);
    std::string nul("\0 HBA BIOS : ENABLE\n", 20);
    parse(nul);
    EXPECT_EQ(val(QMX_CFG_HBA_BIOS), kUnset);  // the line ends at its NUL byte
    EXPECT_EQ(0, qmx_CfgParseBuffer(nullptr, 10));
    EXPECT_EQ(0, qmx_CfgParseBuffer("x", 0));
    EXPECT_EQ(0, qmx_CfgAnalyze(nullptr));
    char empty[] = "";
    EXPECT_EQ(0, qmx_CfgAnalyze(empty));
}

}  // namespace
