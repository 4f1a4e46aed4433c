// Parser of the binding items into the binding tables, and the range checks.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "multipath/binding.h"

namespace {

int parse(const std::string &text) {
    qmx::binding::clearTables();
    QMX_G_ERROR_CD = 0;
    return qmx::binding::parseText(text.data(), text.size());
}

struct Rec {
    int adapt, target, npd;
    uint64_t value;  // wwn, attribute, group or the priority word
    const char *bind;
    int snum, psnum;
};

uint64_t valueOf(const __TBLKEY &r) {
    switch (r.npd) {
        case kBindWwpn:
        case kBindWwnn: return r.wwn;
        case kBindAttribute: return uint64_t(r.attribute);
        case kBindGroup: return uint64_t(r.group);
        case 5: case 6: case 7: case 8: return r.priority[r.npd - 5];
        default: return 0;
    }
}

TEST(BindingParser, ItemsBecomeRecordsInFileOrder) {
    const std::string text =
        "qmx_queue_depth=8:qmxl0-tid-1-wwpn=0x5000000000000a01:qmxl0-tid-1-wwnn=0x50000a00:"
        "qmxl0-tid-1-gt=12:qmxl0-tid-1-attribute=0x02:qmxl0-tid-1-priority0=0x8000000000000001:"
        "qmxl0-wwpn=0x2100001122334450:qmxl3-tid-300-wwpn=0x1:scsi-wide=1:qmxl0-foo=1:"
        "qmxl1-tid-2-priority3=0x0000000000000010:qmxl0-tid-1-wwpn=0x5000000000000a01ffff\n";
    ASSERT_EQ(parse(text), 0);
    const Rec want[] = {
        {0, 1, 1, 0x5000000000000a01, "0x5000000000000a01", 1, 1},
        {0, 1, 2, 0x50000a00, "0x50000a00", 2, 2},
        {0, 1, 9, 12, nullptr, 3, 0},  // a gt value without "0x" is decimal
        {0, 1, 4, 2, nullptr, 4, 0},
        {0, 1, 5, 0x8000000000000001, nullptr, 5, 0},
        {3, 300, 1, 1, "0x1", 6, 3},  // out of range, entered as it stands
        {0, 0, 0, 0, nullptr, 0, 0},  // an unknown word keeps only adapter and target
        {1, 2, 8, 0x10, nullptr, 8, 0},
        // The bind text is cut to 18 characters; the number wraps at 64 bits.
        {0, 1, 1, 0xa01ffff, "0x5000000000000a01", 9, 4},
    };
    ASSERT_EQ(bind_cnt, int(std::size(want)));
    EXPECT_EQ(pbind_cnt, 4);
    for (int i = 0; i < bind_cnt; ++i) {
        SCOPED_TRACE(i);
        const __TBLKEY &r = TBLKEY[i];
        EXPECT_EQ(r.adapt, want[i].adapt);
        EXPECT_EQ(r.target, want[i].target);
        EXPECT_EQ(r.npd, want[i].npd);
        EXPECT_EQ(r.snum, want[i].snum);
        EXPECT_EQ(r.psnum, want[i].psnum);
        EXPECT_EQ(valueOf(r), want[i].value);
        if (want[i].bind != nullptr) {
            EXPECT_STREQ(r.bind, want[i].bind);
        }
    }
    // Only the qmxl adapter key binds an adapter ("scsi-wide" does not).
    ASSERT_EQ(wwpn_cnt, 1);
    EXPECT_EQ(WWPN[0].adapt, 0);
    EXPECT_STREQ(WWPN[0].bind, "0x2100001122334450");
    EXPECT_EQ(WWPN[0].use_flg, 1);
}

TEST(BindingParser, ContinuedStatementsAndLaterLines) {
    // A backslash continues the statement onto lines without "qmx"; once a
    // statement has ended, later lines are parsed only when they hold "qmx".
    ASSERT_EQ(parse("# head\n"
                    "options x qmxl0-tid-1-gt=1 \\\n"
                    "   qmxl0-tid-1-attribute=0x1:\\\n"
                    "qmxl0-tid-2-gt=2\n"
                    "qmxl0-tid-3-gt=3\n"
                    "tail qmxl0-tid-4-gt=4 \\\n"
                    "   xl0-tid-5-gt=5\n"),
              0);
    ASSERT_EQ(bind_cnt, 5);
    EXPECT_EQ(TBLKEY[1].npd, kBindAttribute);
    EXPECT_EQ(TBLKEY[2].target, 2);
    EXPECT_EQ(TBLKEY[4].target, 4);
    // wwpn_cnt is not reset by a parse: adapter records accumulate.
    qmx::binding::clearTables();
    std::string two = "qmxl0-wwpn=0x1:qmxl1-wwpn=0x2\n";
    ASSERT_EQ(qmx::binding::parseText(two.data(), two.size()), 0);
    ASSERT_EQ(qmx::binding::parseText(two.data(), two.size()), 0);
    EXPECT_EQ(wwpn_cnt, 4);
    EXPECT_EQ(bind_cnt, 0);
}

TEST(BindingParser, OverflowsFailWithCode10) {
    std::string big;
    for (int i = 0; i <= BINDMAX; ++i) big += "qmxl1-tid-2-gt=3:";
    EXPECT_EQ(parse(big + "\n"), -1);
    EXPECT_EQ(QMX_G_ERROR_CD, 10);
    EXPECT_EQ(bind_cnt, BINDMAX);
    big.resize(big.size() - std::strlen("qmxl1-tid-2-gt=3:"));
    EXPECT_EQ(parse(big + "\n"), 0);
    EXPECT_EQ(bind_cnt, BINDMAX);

    std::string adapters;
    for (int i = 0; i <= HADAPTMAX; ++i) adapters += "qmxl" + std::to_string(i) + "-wwpn=0x1 ";
    EXPECT_EQ(parse(adapters + "\n"), -1);
    EXPECT_EQ(QMX_G_ERROR_CD, 10);
    EXPECT_EQ(wwpn_cnt, HADAPTMAX);
    EXPECT_EQ(WWPN[255].adapt, 255);
}

TEST(BindingParser, HostileItemsAreBounded) {
    // Items without the expected dashes or "=" still make bounded records.
    ASSERT_EQ(parse("qmxl qmxl5 qmxl7-tid qmxl8-tid-9 qmxl-=-=:" + std::string(10000, 'q') +
                    "mxl-w=" + std::string(5000, 'f') + "\n"),
              0);
    EXPECT_EQ(bind_cnt, 5);
    EXPECT_EQ(TBLKEY[1].adapt, 0);  // no "-": no adapter number either
    EXPECT_EQ(TBLKEY[2].adapt, 7);
    EXPECT_EQ(wwpn_cnt, 0);  // "qqq...mxl-w" does not begin with "qmxl"
}

TEST(BindingParser, RangeChecksAndHelpers) {
    struct {
        int mode, val, want;
    } cases[] = {{0, 0, 0},    {0, 255, 0},  {0, 256, -1},   {1, -1, -1},    {2, 63, 0},
                 {2, 64, -1},  {3, 3, 0},    {3, 4, -1},     {4, 2047, 0},   {4, 0x8000 + 5, 0},
                 {4, 2048, -1}, {4, -1, -1}, {5, 0, -1},     {-1, 0, -1}};
    for (const auto &c : cases)
        EXPECT_EQ(check_bindings(c.mode, c.val), c.want) << c.mode << " " << c.val;
    char src[] = "qmxl12-tid";
    char dst[16];
    EXPECT_EQ(substr(dst, src, 4, 5), 2);
    EXPECT_STREQ(dst, "12");
    EXPECT_EQ(substr(dst, src, 6, 5), 0);
    EXPECT_STREQ(dst, "");
    EXPECT_EQ(substr(dst, src, 7, 100), 3);
    EXPECT_STREQ(dst, "tid");
    char dash[] = "-", eq[] = "=";
    EXPECT_EQ(indx(src, dash), 6);
    EXPECT_EQ(indx(src, eq), -1);
}

}  // namespace
