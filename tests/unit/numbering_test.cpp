// Adapter numbering: request validation and the key list edits of the
// numbering operations, on key lists built in memory.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "config_fixture.h"
#include "multipath/numbering.h"

namespace {

using cfgtest::items;
using qmx::numbering::applyEntries;
using qmx::numbering::firstInvalidEntry;

QMX_WWN wwn(uint64_t v) {
    QMX_WWN w;
    for (int i = 7; i >= 0; --i, v >>= 8) w.wwn[i] = uint8_t(v);
    return w;
}

struct Request {
    std::unique_ptr<QMX_ADAPTERNUMBER> r = std::make_unique<QMX_ADAPTERNUMBER>();
    Request() { std::memset(r.get(), 0, sizeof *r); }
    Request &add(int number, int opr, uint64_t w = 0) {
        adapterinformation &e = r->portlist[r->portlist_max++];
        e.adapternumber = number;
        e.set_opr = QMX_INT8(opr);
        e.hba_wwn = wwn(w);
        return *this;
    }
};

// Keys left for the writer (not marked removed), in list order.
std::vector<std::string> kept(const std::vector<util_para> &list) {
    std::vector<std::string> out;
    for (const util_para &p : list)
        if (p.used == 0) out.push_back(std::string(p.keyword) + "=" + p.value);
    return out;
}

std::string text(const char *s) { return s ? s : "(valid)"; }

// ---------------------------------------------------------------------------
// Validation
// ---------------------------------------------------------------------------
// Ranges and duplicates one by one are covered end to end (numbering_api_test);
// here: which fault is reported when a request has several.
TEST(NumberingValidation, FirstFaultyEntryInOrderIsReported) {
    EXPECT_EQ(firstInvalidEntry(*Request().r), nullptr);
    EXPECT_EQ(text(firstInvalidEntry(*Request().add(0, 0).add(256, 3).r)), "(valid)");
    // Entry 0 has a later duplicate; entry 1 has a bad number: entry 0's
    // fault is the one reported.
    EXPECT_EQ(text(firstInvalidEntry(*Request().add(5, 1).add(300, 1).add(5, 1).r)),
              "The same key exists.");
    // Within one entry the number is checked before the operation.
    EXPECT_EQ(text(firstInvalidEntry(*Request().add(300, 9).r)),
              "Adapter number is invalid value");
    EXPECT_EQ(text(firstInvalidEntry(*Request().add(1, 9).add(300, 1).r)),
              "Unknown operation value");
}

// ---------------------------------------------------------------------------
// Key list edits: 1 gives a WWPN a number, 2 removes the number bound to a
// WWPN, 3 rebinds a number to another WWPN, 0 does nothing.
// ---------------------------------------------------------------------------
struct Entry {
    int number, opr;
    uint64_t wwn;
};

TEST(NumberingEdits, KeysKeptAndAddedPerOperation) {
    struct Case {
        const char *why;
        std::vector<std::string> list;
        std::vector<Entry> entries;
        std::vector<std::string> kept, added;
    } cases[] = {
        {"assign removes every key of the number and adds the adapter key",
         {"qmx_queue_depth=16", "qmxl2-tid-0-wwpn=0x5000000000000001", "qmx2_queue_depth=32",
          "qmxl2-wwpn=0x2100000000000002", "qmx20_queue_depth=8", "qmxl20-wwpn=0x2100000000000020",
          "qmxl02-wwpn=0x2100000000000099", "qmx12_link_down=5"},
         {{2, 1, 0x21000011223344aaULL}},
         {"qmx_queue_depth=16", "qmx20_queue_depth=8", "qmxl20-wwpn=0x2100000000000020",
          "qmxl02-wwpn=0x2100000000000099", "qmx12_link_down=5"},
         {"qmxl2-wwpn=0x21000011223344aa"}},
        {"assign on an empty list only adds keys", {}, {{0, 1, 1}, {256, 1, 2}}, {},
         {"qmxl0-wwpn=0x0000000000000001", "qmxl256-wwpn=0x0000000000000002"}},
        {"remove finds the adapter key, not a target key",
         {"qmxl5-tid-0-wwpn=0x21000000000000aa", "qmxl5-wwpn=0x2100000000000005", "qmx5_queue_depth=4",
          "qmxl1-wwpn=0x21000000000000aa", "qmxl1-tid-3-wwnn=0x2000000000000001", "qmx1_queue_depth=8",
          "qmx1_link_down=30"},
         {{0, 2, 0x21000000000000aaULL}},
         {"qmxl5-tid-0-wwpn=0x21000000000000aa", "qmxl5-wwpn=0x2100000000000005", "qmx5_queue_depth=4"},
         {}},
        {"remove: the first matching key wins and the value is a prefix match",
         {"qmxl7-wwpn=0x21000000000000bb:junk", "qmxl8-wwpn=0x21000000000000bb", "qmx8_queue_depth=2"},
         {{0, 2, 0x21000000000000bbULL}},
         {"qmxl8-wwpn=0x21000000000000bb", "qmx8_queue_depth=2"},
         {}},
        {"remove: an unknown WWPN or one in another case changes nothing",
         {"qmxl1-wwpn=0x21000000000000AA", "qmx1_queue_depth=8"},
         {{0, 2, 0x21000000000000aaULL}, {0, 2, 0x1234}},
         {"qmxl1-wwpn=0x21000000000000AA", "qmx1_queue_depth=8"},
         {}},
        {"remove: a negative number in a hostile key is handled",
         {"qmxl-5-wwpn=0x00000000000000cc", "qmx-5_queue_depth=1", "qmx5_queue_depth=1"},
         {{0, 2, 0xccULL}},
         {"qmx5_queue_depth=1"},
         {}},
        {"rebind rewrites both WWPN keys of the number only",
         {"qmxl3-wwpn=0x1111111111111111", "qmx3_wwpn=0x1111111111111111", "qmxl30-wwpn=0x3030303030303030",
          "qmxl3-tid-0-wwpn=0x5000000000000000", "qmx3_queue_depth=8"},
         {{3, 3, 0x2222222222222222ULL}},
         {"qmxl3-wwpn=0x2222222222222222", "qmx3_wwpn=0x2222222222222222", "qmxl30-wwpn=0x3030303030303030",
          "qmxl3-tid-0-wwpn=0x5000000000000000", "qmx3_queue_depth=8"},
         {}},
        {"operation 0 changes nothing",
         {"qmxl1-wwpn=0x0000000000000001", "qmx1_queue_depth=8"},
         {{1, 0, 7}},
         {"qmxl1-wwpn=0x0000000000000001", "qmx1_queue_depth=8"},
         {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.why);
        auto list = items(c.list);
        Request req;
        for (const Entry &e : c.entries) req.add(e.number, e.opr, e.wwn);
        std::vector<util_para> added;
        applyEntries(list.empty() ? nullptr : list.data(), int(list.size()), *req.r, added);
        EXPECT_EQ(kept(list), c.kept);
        EXPECT_EQ(kept(added), c.added);
    }
}

TEST(NumberingRebind, LaterRemovalSeesTheRebindOfTheSameRequest) {
    auto list = items({"qmxl3-wwpn=0x1111111111111111", "qmx3_queue_depth=8"});
    std::vector<util_para> added;
    // Removing by the old WWPN after the rebind finds nothing ...
    applyEntries(list.data(), int(list.size()),
                 *Request().add(3, 3, 0x2222222222222222ULL).add(0, 2, 0x1111111111111111ULL).r,
                 added);
    EXPECT_EQ(kept(list).size(), 2u);
    // ... removing by the new one removes the number.
    applyEntries(list.data(), int(list.size()), *Request().add(0, 2, 0x2222222222222222ULL).r,
                 added);
    EXPECT_TRUE(kept(list).empty());
}

TEST(NumberingScale, FullRequestOnALargeListMarksExactlyTheNumberedKeys) {
    // 256 entries against 256 ports of 30 keys each plus unrelated items.
    std::vector<util_para> list;
    for (int port = 0; port < 256; ++port) {
        for (int k = 0; k < 30; ++k) {
            util_para p;
            std::memset(&p, 0, sizeof p);
            std::snprintf(p.keyword, sizeof p.keyword, "qmx%d_param%d", port, k);
            std::snprintf(p.value, sizeof p.value, "%d", k);
            list.push_back(p);
        }
    }
    Request req;
    for (int n = 0; n < 256; n += 2) req.add(n, 1, uint64_t(n) + 1);
    std::vector<util_para> added;
    applyEntries(list.data(), int(list.size()), *req.r, added);
    EXPECT_EQ(added.size(), 128u);
    for (std::size_t i = 0; i < list.size(); ++i) {
        int port = int(i / 30);
        ASSERT_EQ(list[i].used, port % 2 == 0 ? 1 : 0) << list[i].keyword;
    }
}

// ---------------------------------------------------------------------------
// Helpers
// ---------------------------------------------------------------------------
// The driver's path change codes and their reasons are checked end to end
// (MpRuntimeTest.SetPathRefusalsGiveTheirReasonCodes).
TEST(NumberingHelpers, DeviceNumberAndWwnText) {
    EXPECT_EQ(qmx::numbering::deviceNumber("qmxldd0"), 0);
    EXPECT_EQ(qmx::numbering::deviceNumber("qmxldd12"), 12);
    EXPECT_EQ(qmx::numbering::deviceNumber("sda"), -1);
    char text[qmx::numbering::kWwnTextLen + 1];
    qmx::numbering::formatWwn(wwn(0x2100001122334455ULL), text);
    EXPECT_STREQ(text, "0x2100001122334455");
}

}  // namespace
