// Writer of the driver configuration file: the fixed layout, the size bound,
// binding mode, and the module image that follows the file.
#include <cstdlib>

#include "config_fixture.h"
#include "config/binding_tables.h"

using namespace cfgtest;

namespace {

void clearBinding() {
    std::memset(TBLKEY, 0, sizeof(__TBLKEY) * 16);
    std::memset(WWPN, 0, sizeof WWPN);
    bind_cnt = pbind_cnt = wwpn_cnt = 0;
}

class ConfLayout : public ::testing::Test {
protected:
    void SetUp() override { clearRetryTable(); }
};

// Plain-mode layouts of a key list (and new items) that need no other setup.
TEST_F(ConfLayout, ItemsAreWrittenInTheFixedOrder) {
    struct Case {
        const char *why;
        std::vector<std::string> keys, add;
        std::string want;
    } cases[] = {
        {"driver-wide, then ports, then new items",
         {"qmx_queue_depth=8", "qmx0_queue_depth=16"},
         {"qmx1_queue_depth=4"},
         "qmx_queue_depth=8:qmx0_queue_depth=16:qmx1_queue_depth=4:"},
        // "_lun_reset_delay" is not a "_reset_delay"; "_link_down" must be the
        // whole rest of the key; an unknown suffix follows the port's tables.
        {"suffix tests take the first match",
         {"qmx2_unknown=1", "qmx2_lun_reset_delay=7", "qmx2_reset_delay=3", "qmx2_link_down_x=9",
          "qmx2_link_down=4", "qmx3_queue_depth=1"},
         {},
         "qmx2_link_down=4:qmx2_reset_delay=3:qmx2_lun_reset_delay=7:qmx2_unknown=1:"
         "qmx2_link_down_x=9:qmx3_queue_depth=1:"},
        // Ports 10..19 and 100..199 share port 1's prefix "qmx1".
        {"leftovers follow the first port their key starts with",
         {"qmx12_unknown=a", "qmx2_queue_depth=2", "qmx150_other=b", "qmx1_queue_depth=1",
          "qmx12_queue_depth=12", "qmx1x=c"},
         {},
         "qmx1_queue_depth=1:qmx12_unknown=a:qmx150_other=b:qmx1x=c:qmx2_queue_depth=2:"
         "qmx12_queue_depth=12:"},
        // Only "qmx<N>_retry_cnt<0..999>" as printed with %d names an entry.
        {"retry keys that name no entry are taken and dropped",
         {"qmx03_retry_cnt5=a", "qmx3_retry_cnt1000=b", "qmx3_retry_cnt05=c", "qmx3_retry_cnt7=d",
          "qmx3_x_retry_cnt8=e"},
         {},
         "qmx3_retry_cnt7=d:"},
        {"ports outside the tables stay as items",
         {"qmx2_queue_depth=1", "qmx300_queue_depth=4", "qmx-4_queue_depth=5", "qmx2_link_speed=8"},
         {},
         "qmx2_link_speed=8:qmx2_queue_depth=1:qmx300_queue_depth=4:qmx-4_queue_depth=5:"},
    };
    for (const Case &c : cases) {
        clearRetryTable();
        EXPECT_EQ(build(items(c.keys), items(c.add)), c.want) << c.why;
    }
}

// A value of any length the reader keeps (up to 127 characters) stays in
// its place in the layout, from the file and as a new item in either mode;
// so does an isolation item with a long key.
TEST_F(ConfLayout, LongValuesKeepTheirPlace) {
    for (std::size_t len : {std::size_t(7), std::size_t(8), sizeof(util_para::value) - 1}) {
        const std::string v(len, '7'), bs = "qmx_0a_0b_0c" + std::string(40, 'k') + "_bs";
        clearRetryTable();
        EXPECT_EQ(build(items({"qmx2_link_speed=" + v, "qmx2_connection_type=" + v,
                               "qmx2_retry_cnt3=" + v, "qmx2_unknown=1"})),
                  "qmx2_connection_type=" + v + ":qmx2_link_speed=" + v + ":qmx2_retry_cnt3=" + v +
                      ":qmx2_unknown=1:")
            << len;
        for (int mode : {0, 1}) {
            clearRetryTable();  // port 2's retry count would stay from the write above
            clearBinding();
            EXPECT_EQ(build(items({"qmx1_queue_depth=1"}),
                            items({"qmx0_tmt_delay=" + v, "qmx0_link_down=" + v, bs + "=" + v}), mode),
                      "qmx0_link_down=" + v + ":qmx0_tmt_delay=" + v + ":" + bs + "=" + v +
                          ":qmx1_queue_depth=1:")
                << len << " mode " << mode;
        }
    }
}

TEST_F(ConfLayout, EveryPortParameterInItsFixedPlace) {
    // The list holds port 5's items in reverse order, the retry counts
    // descending and one isolation item; the output is the fixed order.
    std::vector<std::string> kv;
    for (int i = int(std::size(kPortOrder)) - 1; i >= 0; --i)
        kv.push_back(std::string("qmx5") + kPortOrder[i] + "=" + std::to_string(i));
    kv.push_back("qmx5_retry_cnt999=r999");
    kv.push_back("qmx5_retry_cnt10=r10");
    kv.push_back("qmx5_retry_cnt0=r0");
    std::string out = build({}, items(kv));
    std::string want;
    for (std::size_t i = 0; i < std::size(kPortOrder); ++i) {
        if (std::string(kPortOrder[i]) == "_lun_reset_delay")
            want += "qmx5_retry_cnt0=r0:qmx5_retry_cnt10=r10:qmx5_retry_cnt999=r999:";
        want += std::string("qmx5") + kPortOrder[i] + "=" + std::to_string(i) + ":";
    }
    EXPECT_EQ(out, want);
}

TEST_F(ConfLayout, PassOneTakesPrefixesAndPassTwoOnlyTheDriverWideSet) {
    auto keys = items({"scsi-x=1", "qmxl0-wwpn=0x1", "qmx_anything=2", "qmxmpfoo=3", "other=4"});
    keys[2].used = 1;  // pass 1 writes even items marked before
    std::string out = build(keys, items({"qmx_unknown=5", "qmx_retry_cnt12=6", "qmxmp_failover=7"}));
    EXPECT_EQ(out,
              "scsi-x=1:qmx_anything=2:qmxmpfoo=3:qmx_retry_cnt12=6:qmxmp_failover=7:"
              "qmxl0-wwpn=0x1:other=4:qmx_unknown=5:");
}

TEST_F(ConfLayout, EmptiedAndMarkedItemsAreNotWrittenInPlainMode) {
    auto keys = items({"qmx0_queue_depth=1", "", "keep=1", "gone=2", "qmx1_abort_timeout=3"});
    keys[3].used = 1;
    keys[4].used = 1;
    EXPECT_EQ(build(keys), "qmx0_queue_depth=1:keep=1:");
}

TEST_F(ConfLayout, RetryCountsOfEarlierWritesStayExceptThePortZeroHead) {
    build(items({"qmx4_retry_cnt9=old", "qmx0_retry_cnt300=keep", "qmx0_retry_cnt3=gone"}));
    // The next write of the same process clears only port 0's entries 0..255.
    EXPECT_EQ(build(items({"qmx_queue_depth=1"})),
              "qmx_queue_depth=1:qmx0_retry_cnt300=keep:qmx4_retry_cnt9=old:");
    // A new value replaces the stale one.
    EXPECT_EQ(build(items({"qmx4_retry_cnt9=new"})), "qmx0_retry_cnt300=keep:qmx4_retry_cnt9=new:");
}

TEST_F(ConfLayout, IsolationItemsFillRecordsFrontToBack) {
    std::vector<util_para> add(300);
    std::memset(add.data(), 0, add.size() * sizeof(util_para));
    for (int i = 0; i < 300; ++i) {
        std::snprintf(add[std::size_t(i)].keyword, 263, "qmx_%02x_%02x_%02x_bs", i / 256, i % 256, 0);
        std::snprintf(add[std::size_t(i)].value, 128, "%d", 1 + i % 2);
    }
    std::string out = build(items({"qmx0_queue_depth=1", "qmx1_queue_depth=2"}), add);
    // Record i is written among port i's items; records beyond 256 are dropped.
    EXPECT_EQ(out.substr(0, 80),
              "qmx0_queue_depth=1:qmx_00_00_00_bs=1:qmx1_queue_depth=2:qmx_00_01_00_bs=2:qmx_00");
    EXPECT_NE(out.find("qmx_00_ff_00_bs=2:"), std::string::npos);
    EXPECT_EQ(out.find("qmx_01_00_00_bs"), std::string::npos);
    // From the key list they are driver-wide items and all survive.
    std::string all = build(add);
    EXPECT_NE(all.find("qmx_01_2b_00_bs=2:"), std::string::npos);
    EXPECT_EQ(std::count(all.begin(), all.end(), ':'), 300);
}

TEST_F(ConfLayout, HostileListsDoNotCrash) {
    // Keys and values filling their fields without a terminator, empty keys,
    // keys of "=" and ":" only, and odd counts.
    std::vector<util_para> v(4);
    std::memset(v.data(), 'A', v.size() * sizeof(util_para));
    std::memcpy(v[0].keyword, "qmx7_queue_depth", 16);
    std::memset(v[1].keyword, 0, sizeof v[1].keyword);
    for (auto &p : v) p.used = 0;
    std::string out;
    qmx::buildConfText(v.data(), int(v.size()), nullptr, 5, 0, out);
    EXPECT_NE(out.find(std::string(263, 'A') + "=" + std::string(128, 'A') + ":"), std::string::npos);
    out.clear();
    qmx::buildConfText(nullptr, 3, v.data(), -1, 1, out);
}

TEST_F(ConfLayout, BindingModeTablesReplaceOldBindingItems) {
    clearBinding();
    auto put = [](int npd, int adapt, int target) -> __TBLKEY & {
        __TBLKEY &t = TBLKEY[bind_cnt++];
        std::memset(&t, 0, sizeof t);
        t.npd = npd;
        t.adapt = adapt;
        t.target = target;
        return t;
    };
    qmx::copyText(put(1, 0, 1).bind, "0x50060e80");
    qmx::copyText(put(2, 0, 1).bind, "0x50060e81");
    put(4, 0, 1).attribute = 2;
    put(5, 0, 1).priority[0] = 1;
    put(8, 0, 1).priority[3] = 0x8000000000000000ull;
    put(9, 0, 1).group = 12;
    put(10, 0, 1);  // no key of its own
    put(3, 0, 1);
    WWPN[0] = {0, "0x21000000", 1};
    WWPN[1] = {1, "0x21000001", 0};
    WWPN[2] = {2, "0x21000002", 1};
    wwpn_cnt = 3;
    auto keys = items({"qmxl0-tid-1-wwpn=0xold", "qmxl0-wwpn=0xold", "qmxl0-foo=1", "=x",
                       "qmx0_queue_depth=1", "plain=2", "qmxl7-tidy=3"});
    std::string out = build(keys, items({"new_item=1", "qmx_queue_depth=9"}), 1);
    EXPECT_EQ(out,
              "qmx_queue_depth=9:qmx0_queue_depth=1:"
              "qmxl0-tid-1-wwpn=0x50060e80:qmxl0-tid-1-wwnn=0x50060e81:"
              "qmxl0-tid-1-attribute=0x02:qmxl0-tid-1-priority0=0x0000000000000001:"
              "qmxl0-tid-1-priority3=0x8000000000000000:qmxl0-tid-1-gt=12:"
              "qmxl0-wwpn=0x21000000:qmxl2-wwpn=0x21000002:"
              "qmxl0-foo=1:=x:plain=2:");
    clearBinding();
}

// ---------------------------------------------------------------------------
// The file.
// ---------------------------------------------------------------------------
class ConfWrite : public ConfTree {
protected:
    int make(std::vector<util_para> keys, std::vector<util_para> add = {}, int mode = 0) {
        return qmx::makeConfFile(store_, keys.data(), int(keys.size()), add.data(), int(add.size()),
                                 mode);
    }
};

TEST_F(ConfWrite, FileIsRewrittenInPlaceAndTheImageFollows) {
    spit(conf_, "old=1:");
    struct stat before, after;
    ASSERT_EQ(stat(conf_.c_str(), &before), 0);
    std::string img = slurp(imagePath_);
    ASSERT_EQ(make(items({"qmx_queue_depth=8"}), items({"qmx1_queue_depth=4"})), 0);
    EXPECT_EQ(slurp(conf_), "qmx_queue_depth=8:qmx1_queue_depth=4:");
    ASSERT_EQ(stat(conf_.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_FALSE(exists(qmx::journalPath(conf_.c_str())));
    EXPECT_EQ(imageConfigText(), "qmx_queue_depth=8:qmx1_queue_depth=4:");
    // Only the table area changed.
    std::string now = slurp(imagePath_);
    ASSERT_EQ(now.size(), img.size());
    EXPECT_EQ(now.substr(0, imageHead().size()), img.substr(0, imageHead().size()));
    EXPECT_EQ(now.substr(now.size() - imageTail().size()), imageTail());
    EXPECT_EQ(now.substr(imageHead().size(), kConfigText), img.substr(imageHead().size(), kConfigText));
    // No END line after a successful write.
    EXPECT_EQ(traceIndex("QMX_MakeConfFile END"), -1);
    int start = traceIndex("QMX_MakeConfFile START");
    ASSERT_GE(start, 0);
    int open = traceIndex("QMX_fopen START", start);
    int table = traceIndex("qmx_OutputListParamCreate START", start);
    int image = traceIndex("qmx_mpcfg START", start);
    EXPECT_TRUE(start < open && open < table && table < image) << start << open << table << image;
}

// A journal left by a crash: the next read finishes a complete one and drops
// anything else, before it reads; a process that may not write the file reads
// the journal's text instead.
TEST_F(ConfWrite, JournalLeftByACrashIsFinishedOrDroppedBeforeTheRead) {
    const std::string journal = qmx::journalPath(conf_.c_str());
    const std::string fresh = "qmx_queue_depth=8:qmx1_queue_depth=4:";
    qmx::FileError fe;
    ASSERT_TRUE(qmx::writeJournal(conf_.c_str(), fresh, 0644, &fe));
    const std::string whole = slurp(journal);
    const std::size_t textAt = whole.find('\n') + 1;
    std::string wordChanged = whole;
    wordChanged[textAt + 9] ^= 0x20;  // a byte in the text's first 8-byte word
    struct Case {
        const char *why;
        std::string journal;
        bool finished;
    } cases[] = {
        {"complete", whole, true},
        {"cut short", whole.substr(0, whole.size() - 5), false},
        {"text changed", whole.substr(0, whole.size() - 1) + "!", false},
        {"word changed", wordChanged, false},
        // Left by an older library: the byte-wise FNV-1a layout.
        {"layout 1", "QMXJOURNAL 1 37 cbe0753d5af6bf78\n" + fresh, true},
        {"layout 1 altered", "QMXJOURNAL 1 37 cbe0753d5af6bf79\n" + fresh, false},
        {"header alone", whole.substr(0, whole.find('\n') + 1), false},
        {"empty", "", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.why);
        spit(conf_, "old=1:");
        spit(journal, c.journal);
        util_para *list = nullptr;
        EXPECT_EQ(qmx::readKeyList(store_, &list, 0), c.finished ? 2 : 1);
        std::free(list);
        EXPECT_EQ(slurp(conf_), c.finished ? fresh : "old=1:");
        EXPECT_FALSE(exists(journal));
    }
    // Without a descriptor to write with, the text is handed over and both
    // files stay.
    spit(conf_, "old=1:");
    spit(journal, whole);
    std::string pending;
    EXPECT_EQ(qmx::settleJournal(conf_.c_str(), -1, &pending, &fe), qmx::JournalState::Pending);
    EXPECT_EQ(pending, fresh);
    EXPECT_EQ(slurp(conf_), "old=1:");
    EXPECT_TRUE(exists(journal));
}


TEST_F(ConfWrite, SizeBoundCountsOnlyTheNewItems) {
    // Current size + 1 + new "key=value" texts must stay at or below 199999.
    std::string text = "a=1:";
    spit(conf_, text);
    std::string big(120, 'v');
    std::vector<util_para> add(1700);
    std::memset(add.data(), 0, add.size() * sizeof(util_para));
    long sum = long(text.size()) + 1;
    std::size_t n = 0;
    for (; n < add.size(); ++n) {
        std::snprintf(add[n].keyword, 263, "k%04zu", n);
        qmx::copyText(add[n].value, big);
        long len = long(std::strlen(add[n].keyword)) + 1 + 120;
        if (sum + len > 199999) break;
        sum += len;
    }
    // The last item brings the sum exactly to the bound.
    long room = 199999 - sum - 6;
    ASSERT_GE(room, 0);
    ASSERT_LT(room, 128);
    add.resize(n + 1);
    std::snprintf(add[n].keyword, 263, "k%04zu", n);
    qmx::copyText(add[n].value, std::string(std::size_t(room), 'w'));
    // At the bound: written (the image then refuses a text that large).
    EXPECT_EQ(make(items({"a=1"}), add), -1);
    EXPECT_EQ(QMX_G_ERROR_CD, 10);
    EXPECT_GT(slurp(conf_).size(), 199000u);
    EXPECT_TRUE(traced("conf file size is too big!"));
    EXPECT_FALSE(traced("qmxldd.conf filesize over 100012 written."));
    // One character more: refused, file untouched.
    spit(conf_, text + "b");
    std::string before = slurp(conf_);
    EXPECT_EQ(make(items({"a=1"}), add), -1);
    EXPECT_EQ(QMX_G_ERROR_CD, 14);
    EXPECT_EQ(slurp(conf_), before);
    EXPECT_TRUE(traced("qmxldd.conf filesize over 100012 written."));
}

// A probed read (the key list tests compare its slots with a plain reading)
// gathers its items at once only when the key is found; otherwise only once
// the writer's size check lets it write, and the rewrite is the same.
TEST_F(ConfWrite, ProbedReadIsGatheredOnlyToWrite) {
    const std::string text = "a=1:k=2:" + std::string(300, 'q') + "=4:z\nk2=5:";
    spit(conf_, text);
    qmx::ConfText whole, found, missing;
    int slot;
    const int n = qmx::readConfItems(conf_.c_str(), conf_.c_str(), whole);
    ASSERT_EQ(n, 3);
    ASSERT_EQ(qmx::probeConfItems(conf_.c_str(), conf_.c_str(), "k", found, &slot), n);
    EXPECT_TRUE(found.gathered);
    ASSERT_EQ(qmx::probeConfItems(conf_.c_str(), conf_.c_str(), "n", missing, &slot), n);
    EXPECT_FALSE(missing.gathered);
    EXPECT_EQ(missing.line, whole.line);
    qmx::ConfItem add{"n", "6"};
    ASSERT_EQ(qmx::makeConfFileFromItems(store_, whole.items.data(), n, &add, 1, 0), 0);
    const std::string eager = slurp(conf_);
    spit(conf_, text);
    ASSERT_EQ(qmx::makeConfFileFromRead(store_, missing, n, &add, 1, 0), 0);
    EXPECT_EQ(slurp(conf_), eager);
    // Refused by the size bound: never gathered, the file untouched.
    const std::string big = "p=" + std::string(200000, 'x') + ":";
    spit(conf_, big);
    qmx::ConfText over;
    ASSERT_EQ(qmx::probeConfItems(conf_.c_str(), conf_.c_str(), "n", over, &slot), 1);
    EXPECT_EQ(qmx::makeConfFileFromRead(store_, over, 1, &add, 1, 0), -1);
    EXPECT_EQ(QMX_G_ERROR_CD, 14);
    EXPECT_FALSE(over.gathered);
    EXPECT_EQ(slurp(conf_), big);
}

// A missing file is not created; a failed image refresh leaves the new file.
TEST_F(ConfWrite, MissingFileIsNotCreatedAndImageFailureLeavesTheNewFile) {
    EXPECT_EQ(make(items({"a=1"})), -1);
    EXPECT_FALSE(exists(conf_));
    EXPECT_EQ(QMX_G_ERROR_CD, 1);
    EXPECT_TRUE(traced("QMX_MakeConfFile ABEND"));
    spit(conf_, "");
    unlink((modDir_ + "/modules.dep").c_str());
    unlink(imagePath_.c_str());
    EXPECT_EQ(make(items({"qmx_queue_depth=3"})), -1);
    EXPECT_EQ(slurp(conf_), "qmx_queue_depth=3:");
    EXPECT_TRUE(traced("qmx_mpcfg ABEND"));
    auto t = traceLines();
    EXPECT_EQ(std::count(t.begin(), t.end(), "QMX_MakeConfFile ABEND"), 2);
}

// A list of about 8000 items in the writer's own order: a file in its fixed
// layout reads and writes back to the same bytes.
std::string generatedFile(int ports, int retries) {
    std::string s = "qmx_queue_depth=32:qmx_link_speed=4:qmx_retry_cnt3=9:qmxmp_failover=1:";
    for (int p = 0; p < ports; ++p) {
        std::string pre = "qmx" + std::to_string(p);
        for (const char *suffix : kPortOrder) {
            if (std::string(suffix) == "_lun_reset_delay")
                for (int e = 0; e < retries; ++e)
                    s += pre + "_retry_cnt" + std::to_string(e * 7) + "=" + std::to_string(e) + ":";
            s += pre + suffix + "=" + std::to_string(p % 97) + ":";
        }
    }
    for (int p = 0; p < ports; ++p) {
        char w[64];
        std::snprintf(w, sizeof w, "qmxl%d-wwpn=0x21000000%08x:", p, unsigned(p));
        s += w;
    }
    return s;
}

TEST_F(ConfWrite, LargeFileRoundTripIsByteExact) {
    std::string text = generatedFile(200, 8);
    ASSERT_GT(std::count(text.begin(), text.end(), ':'), 8000);
    spit(conf_, text);
    util_para *list = nullptr;
    int n = qmx::readKeyList(store_, &list, 0);
    ASSERT_EQ(n, std::count(text.begin(), text.end(), ':'));
    ASSERT_EQ(qmx::makeConfFile(store_, list, n, nullptr, 0, 0), 0);
    std::free(list);
    EXPECT_EQ(slurp(conf_), text);
    EXPECT_EQ(imageConfigText(), text);
}

TEST_F(ConfWrite, InvalidFileWithManyIsolationItemsRewritesWhatWasRead) {
    std::string bs;
    for (int i = 0; i < 300; ++i) {
        char item[32];
        std::snprintf(item, sizeof item, "qmx_%02x_%02x_00_bs=%d:", i / 256, i % 256, 1 + i % 2);
        bs += item;
    }
    std::string longKey(300, 'q'), longVal(200, '7');
    std::string text = bs + "=5:" + "qmx4_queue_depth=" + longVal + ":" + longKey + "=" + longVal +
                       ":noequals:after=1:\nqmx_second_line=1:";
    spit(conf_, text);
    util_para *list = nullptr;
    int n = qmx::readKeyList(store_, &list, 0);
    ASSERT_EQ(n, 305);
    ASSERT_EQ(qmx::makeConfFile(store_, list, n, nullptr, 0, 0), 0);
    std::free(list);
    // The isolation items are driver-wide items of the list and all stay; the
    // empty key goes; cut items stay cut; the walk stopped at "noequals".
    EXPECT_EQ(slurp(conf_), bs + "qmx4_queue_depth=" + longVal.substr(0, 127) + ":" +
                                longKey.substr(0, 262) + "=" + longVal.substr(0, 127) + ":");
    EXPECT_EQ(imageConfigText(), slurp(conf_));
}

}  // namespace
