// Key list reader, port number of a key and adapter number of a WWN.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "config/block_marks.h"
#include "config_fixture.h"

using namespace cfgtest;

namespace {

class KeyListRead : public ConfTree {
protected:
    int read(int flg = 0) {
        std::free(list_);
        list_ = nullptr;
        return qmx::readKeyList(store_, &list_, flg);
    }
    void TearDown() override {
        std::free(list_);
        ConfTree::TearDown();
    }
    // The trace from here on only.
    void freshTrace() {
        QMX_CloseApiTraceFile();
        unlink(tracePath_.c_str());
        QMX_OpenApiTraceFile();
    }
    util_para *list_ = nullptr;
};

TEST_F(KeyListRead, ItemsOfTheFirstLineAsWritten) {
    using namespace std::string_literals;
    const std::string key(400, 'k'), val(300, 'v');
    struct Case {
        std::string text;
        std::vector<std::string> want;  // "keyword=value"
    } cases[] = {
        {"qmx0_queue_depth=32:qmx_queue_depth=16:\nqmx1_queue_depth=8:\n",
         {"qmx0_queue_depth=32", "qmx_queue_depth=16"}},
        {"a=1:b:c=3:", {"a=1", "=", "="}},  // no "=": the walk ends, the slots count
        {"", {}},
        {"qmx_queue_depth=8\n", {}},          // no ":" at all
        {"a=1:tail=2", {"a=1"}},               // text after the last ":" is no item
        {" a =1:=5:b==2:", {" a =1", "=5", "b==2"}},  // blanks belong to the key
        // Marks on both sides of 8-byte boundaries, a second "=" in a value,
        // an item without "=" after several words.
        {"abcdefg=:hijklmn=o:pq=rstuvwxyz0123=45:", {"abcdefg=", "hijklmn=o", "pq=rstuvwxyz0123=45"}},
        {"a=1:b=2:c=3:d=4:e=5:fghijklmnopq:r=6:", {"a=1", "b=2", "c=3", "d=4", "e=5", "=", "="}},
        {"a=1:b=2\0:c=3:"s, {"a=1"}},  // a NUL ends the line
        // Fields cut to 262 and 127 characters, never overrun.
        {key + "=" + val + ":next=1:", {key.substr(0, 262) + "=" + val.substr(0, 127), "next=1"}},
    };
    for (const Case &c : cases) {
        spit(conf_, c.text);
        ASSERT_EQ(read(), int(c.want.size())) << c.text;
        if (c.want.empty()) {
            EXPECT_EQ(list_, nullptr);
        }
        std::vector<std::string> got;
        for (std::size_t i = 0; i < c.want.size(); ++i) {
            got.push_back(std::string(list_[i].keyword) + "=" + list_[i].value);
            EXPECT_EQ(list_[i].used, 0);
        }
        EXPECT_EQ(got, c.want) << c.text;
    }
    EXPECT_TRUE(traced("QMX_Read_qmxlddconf START"));
    EXPECT_TRUE(traced("qmxldd.conf item truncated"));
}

TEST_F(KeyListRead, MissingFileIsStatFailureWithoutAbend) {
    EXPECT_EQ(read(), qmx::kReadNoFile);
    EXPECT_EQ(QMX_G_ERROR_CD, 1);
    auto lines = traceLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find("qmxvlib:stat is error. errno(2:"), std::string::npos);
    EXPECT_FALSE(traced("QMX_Read_qmxlddconf ABEND"));
}

TEST_F(KeyListRead, LibraryFileIsSizedFromTheDriverFile) {
    spit(conf_, "x=11:");  // 5 bytes: the library line is cut after 5 characters
    spit(lib_, "ab=1:cd=2:");
    ASSERT_EQ(read(1), 1);
    EXPECT_STREQ(list_[0].keyword, "ab");
    spit(conf_, "");
    EXPECT_EQ(read(1), 0);
    spit(conf_, std::string(100, 'x'));
    unlink(lib_.c_str());
    EXPECT_EQ(read(1), qmx::kReadNoOpen);
    EXPECT_TRUE(traced("QMX_Read_qmxlddconf ABEND"));
    EXPECT_EQ(read(2), -1);
}

TEST_F(KeyListRead, TooManySlotsIsRefusedWithCode9) {
    // A binding write's largest file (every binding and adapter record, and
    // some driver items) stays readable.
    static_assert(qmx::kMaxKeySlots >= BINDMAX + HADAPTMAX + 2);
    spit(conf_, std::string(std::size_t(qmx::kMaxKeySlots) + 1, ':'));
    EXPECT_EQ(read(), qmx::kReadRefused);
    EXPECT_EQ(QMX_G_ERROR_CD, 9);
    EXPECT_EQ(list_, nullptr);
    spit(conf_, std::string(std::size_t(qmx::kMaxKeySlots), ':'));
    EXPECT_EQ(read(), qmx::kMaxKeySlots);
}

TEST_F(KeyListRead, RandomLinesMatchAByteAtATimeReading) {
    // The readers work on blocks of the line; items straddling block edges,
    // runs of marks and overlong fields are compared with the plain reading:
    // every ":" is a slot, items fill them in order up to the first item
    // without "=", keys and values cut to their fields.  The item visitor
    // must hand over exactly the items whose key has its prefix (some of
    // them longer than a block's step), and trace a cut item as the reader.
    // A rare newline or NUL ends the line early.  One line in four is made
    // of items, as files are, and runs to several runs of blocks: a walk
    // that takes runs whole must find a key in any of them, and count on
    // across them.
    constexpr std::size_t kKey = sizeof(util_para::keyword) - 1, kValue = sizeof(util_para::value) - 1;
    const char *const prefixes[] = {"a", "ab", "abc_a", "b_", "a_", "", "abc_abc_abc_abc_abc_a", "abc_"};
    std::mt19937 rng(7);
    auto oneOf = [&](const char *chars, std::size_t n) {
        std::string s;
        while (n-- > 0) s += chars[rng() % std::strlen(chars)];
        return s;
    };
    for (int t = 0; t < 3000; ++t) {
        std::string text;
        const unsigned colonOdds = 2 + rng() % 300, eqOdds = 2 + rng() % 200;
        if (t % 4 == 3) {
            const unsigned oddOdds = 100 + rng() % 3000;
            for (std::size_t i = 0, n = rng() % 900; i < n; ++i) {
                text += oneOf("abc_", 1 + rng() % 8);
                const unsigned odd = rng() % oddOdds;
                text += odd == 0 ? oneOf("abc_", 130) : odd == 1 ? "" : odd == 2 ? "\n" : "=";
                text += oneOf("abc_=", rng() % 40) + ":";
            }
        } else {
            for (std::size_t i = 0, n = rng() % 1200; i < n; ++i)
                text += rng() % 2000 == 0 ? "\n\0"[rng() % 2]
                        : rng() % colonOdds == 0 ? ':'
                        : rng() % eqOdds == 0    ? '='
                                                 : "abc_"[rng() % 4];
        }
        const std::string line = text.substr(0, text.find_first_of(std::string("\n\0", 2)));
        const std::string prefix = prefixes[t % std::size(prefixes)];
        std::vector<std::string> want, wantVisited;
        int slots = 0;
        bool walking = true, cut = false;
        for (std::size_t start = 0, at; (at = line.find(':', start)) != std::string::npos; start = at + 1) {
            ++slots;
            std::size_t eq = line.find('=', start);
            if (eq > at) walking = false;
            if (!walking) continue;
            cut = cut || eq - start > kKey || at - eq - 1 > kValue;
            std::string key = line.substr(start, std::min(eq - start, kKey));
            want.push_back(key + "=" + line.substr(eq + 1, std::min(at - eq - 1, kValue)));
            if (key.starts_with(prefix)) wantVisited.push_back(want.back());
        }
        util_para *list = nullptr;
        ASSERT_EQ(qmx::parseKeyLine(text.data(), text.size(), &list), slots) << line;
        for (int i = 0; i < slots; ++i) {
            std::string got = std::string(list[i].keyword) + "=" + list[i].value;
            ASSERT_EQ(got, std::size_t(i) < want.size() ? want[std::size_t(i)] : "=") << line;
        }
        std::free(list);
        spit(conf_, text);
        freshTrace();
        std::vector<std::string> visited;
        auto visit = [](void *ctx, std::string_view key, std::string_view value) {
            static_cast<std::vector<std::string> *>(ctx)->push_back(std::string(key) + "=" + std::string(value));
        };
        ASSERT_EQ(qmx::visitConfItems(conf_.c_str(), conf_.c_str(), prefix, visit, &visited), slots) << line;
        ASSERT_EQ(visited, wantVisited) << prefix << " in " << line;
        ASSERT_EQ(traced("qmxldd.conf item truncated"), cut) << line;
        // A probe for the prefix as a whole key stops at its first slot (the
        // empty key is also that of the slots left empty).
        int wantSlot = -1;
        for (std::size_t i = 0; wantSlot < 0 && i < want.size(); ++i)
            if (want[i].starts_with(prefix + "=")) wantSlot = int(i);
        if (wantSlot < 0 && prefix.empty() && want.size() < std::size_t(slots)) wantSlot = int(want.size());
        qmx::ConfText probed;
        int slot = -2;
        freshTrace();
        ASSERT_EQ(qmx::probeConfItems(conf_.c_str(), conf_.c_str(), prefix, probed, &slot), slots) << line;
        ASSERT_EQ(slot, wantSlot) << prefix << " in " << line;
        ASSERT_EQ(traced("qmxldd.conf item truncated"), cut) << line;
    }
}

TEST_F(KeyListRead, KeyProbeAcrossTheEdgeOfARunOfBlocks) {
    // Short items of other keys up to an item that ends at each place around
    // the end of the walk's first run of blocks (4096 bytes): the key's
    // item (its ":", its last byte or its "=" on either side), or an item
    // too long for its fields, which begins in the run before.
    auto items = [](std::size_t bytes) {  // short items, `bytes` in all
        const std::size_t first = 4 + bytes % 4;
        std::string text = "b=" + std::string(first - 3, 'c') + ":";
        for (std::size_t i = 0; i < (bytes - first) / 4; ++i) text += "b=c:";
        return text;
    };
    for (std::size_t end = 4056; end < 4136; ++end) {
        for (const bool cut : {false, true}) {
            const std::string item = cut ? "b=" + std::string(140, 'c') : "abc_=v";
            std::string text = items(end - item.size()) + item + ":" + items(160);
            spit(conf_, text);
            freshTrace();
            qmx::ConfText probed;
            int slot = -2;
            const int slots = int(std::count(text.begin(), text.end(), ':'));
            ASSERT_EQ(qmx::probeConfItems(conf_.c_str(), conf_.c_str(), "abc_", probed, &slot), slots);
            EXPECT_EQ(slot, cut ? -1 : int(std::count(text.begin(), text.begin() + long(end), ':'))) << end;
            EXPECT_EQ(traced("qmxldd.conf item truncated"), cut) << end;
        }
    }
}

// Every mark kernel this processor can run marks each byte of a block as it
// is, also from an address that is not aligned.
TEST(BlockMarks, EveryKernelMarksEachByte) {
    std::vector<qmx::MarkKernel> kernels{&qmx::marksOf};
#if defined(QMX_MARKS_AVX2)
    if (__builtin_cpu_supports("avx2")) kernels.push_back(&qmx::marksOfAvx2);
#endif
    const char alphabet[] = {':', '=', '\n', '\0', 'n', 'a', '\x80', '\xff'};
    std::mt19937 rng(11);
    constexpr int kBlocks = 4;
    char text[kBlocks * 64 + 1];
    for (int round = 0; round < 300; ++round) {
        for (char &c : text) c = alphabet[rng() % sizeof alphabet];
        const char tag = round % 3 == 0 ? '\0' : alphabet[4 + round % 4];
        const char *at = text + round % 2;
        qmx::Marks want[kBlocks];
        for (int i = 0; i < kBlocks * 64; ++i) {
            qmx::Marks &m = want[i / 64];
            const uint64_t bit = uint64_t(1) << (i % 64);
            const char c = at[i];
            if (c == ':') m.colons |= bit;
            if (c == '=') m.eqs |= bit;
            if (tag != '\0' && c == tag) m.tags |= bit;
            if (c == '\n' || c == '\0') m.ends |= bit;
        }
        for (std::size_t k = 0; k < kernels.size(); ++k) {
            qmx::Marks got[kBlocks];
            kernels[k](at, kBlocks, tag, got);
            for (int b = 0; b < kBlocks; ++b)
                ASSERT_TRUE(got[b].colons == want[b].colons && got[b].eqs == want[b].eqs &&
                            got[b].tags == want[b].tags && got[b].ends == want[b].ends)
                    << "kernel " << k << " round " << round << " block " << b;
        }
    }
}

TEST(KeyPosition, PortNumberOfKeys) {
    struct Case {
        const char *key;
        int pos;
    } cases[] = {
        {"qmx12_abort_time", 12},  {"qmxl0-wwpn", -1},       {"qmx_queue_depth", 0},
        {"qmx3", -1},              {"abc_x", -1},            {"qmxmp_failover", 0},
        {"qmx3abc_queue", 3},      {"qmx-5_queue_depth", -5}, {"", -1},
        {"qmx 7_x", 7},            {"qmx_01_02_03_bs", 0},
    };
    for (const auto &c : cases) EXPECT_EQ(qmx_getpos(const_cast<char *>(c.key)), c.pos) << c.key;
    EXPECT_EQ(qmx_getpos(nullptr), -1);
}

class KeySearch : public ConfTree {};

TEST_F(KeySearch, FirstAdapterKeyWinsAndHighestNumberIsReported) {
    auto v = items({"qmx0_queue_depth=0x2100000000000001", "qmxl3-tid-1-wwpn=0x2100000000000001",
                    "qmxl5-wwpn=0x2100000000000001", "qmxl2-wwpn=0x2100000000000001",
                    "qmxl9-wwpn=0x2100000000000002"});
    QMX_WWN w = {{0x21, 0, 0, 0, 0, 0, 0, 0x01}};
    int maxn = 77;
    EXPECT_EQ(QMX_SearchInKeylist(w, v.data(), int(v.size()), &maxn), 5);
    EXPECT_EQ(maxn, 9);
    QMX_WWN other = {{0x21, 0, 0, 0, 0, 0, 0, 0x07}};
    EXPECT_EQ(QMX_SearchInKeylist(other, v.data(), int(v.size()), &maxn), -1);
    EXPECT_EQ(maxn, 9);
    EXPECT_TRUE(traced("QMX_SearchInKeylist END"));
}

TEST_F(KeySearch, EmptyListAndListWithoutAdapters) {
    int maxn = 77;
    QMX_WWN w = {{1, 2, 3, 4, 5, 6, 7, 8}};
    EXPECT_EQ(QMX_SearchInKeylist(w, nullptr, 3, &maxn), -1);
    EXPECT_EQ(maxn, 0);
    EXPECT_TRUE(traced("QMX_SearchInKeylist ABEND"));
    auto v = items({"qmx_queue_depth=8"});
    maxn = 77;
    EXPECT_EQ(QMX_SearchInKeylist(w, v.data(), 0, &maxn), -1);
    EXPECT_EQ(maxn, 0);
    EXPECT_EQ(QMX_SearchInKeylist(w, v.data(), 1, &maxn), -1);
    EXPECT_EQ(maxn, -1);
}

}  // namespace
