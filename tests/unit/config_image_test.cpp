// Configuration module image: locating, checking and writing the table
// area; finding the module; the module options file.
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "config_fixture.h"

using namespace cfgtest;

namespace {

class Image : public ConfTree {
protected:
    // Writes an image whose area is `area`, then runs the image refresh.
    int refreshWith(const std::string &area) {
        spit(imagePath_, imageHead() + area + imageTail());
        return qmx::mpcfg(store_);
    }
    static void putNext(std::string &area, int entry, int32_t next) {
        std::memcpy(&area[kEntryAt[entry] + 64], &next, 4);
    }
};

TEST_F(Image, WritesTheConfigurationTextIntoTheTableAreaOnly) {
    spit(conf_, "qmx_queue_depth=8:");
    std::string before = tableArea(std::string(300, 'o'));  // an older, longer text
    ASSERT_EQ(refreshWith(before), 0);
    std::string img = slurp(imagePath_);
    EXPECT_EQ(img.substr(0, imageHead().size()), imageHead());
    EXPECT_EQ(img.substr(img.size() - imageTail().size()), imageTail());
    std::string area = imageArea();
    EXPECT_EQ(area, tableArea("qmx_queue_depth=8:"));  // value cleared before the copy
    EXPECT_TRUE(traced("qmx_mpcfg START"));
    EXPECT_TRUE(traced("write_config START"));
    EXPECT_FALSE(traced("qmx_mpcfg ABEND"));
}

TEST_F(Image, EveryBrokenChainEntryIsRefused) {
    struct Case {
        int entry;
        bool zeroNext;  // else: wrong marker
        const char *message;
    } cases[] = {
        {0, false, "invalid DESCRIPTION_NAME"}, {0, true, "offset is zero in description entry"},
        {1, false, "invalid AUTHOR_NAME"},      {1, true, "offset is zero in author entry!"},
        {2, false, "invalid KEY_NAME"},         {2, true, "offset is zero in key entry!"},
        {3, false, "invalid KEY_NAME_HOP"},     {3, true, "offset is zero in key_hop entry!"},
        {4, false, "invalid CONFIG_NAME"},      {4, true, "offset is zero in config entry!"},
        {5, false, "invalid CONFIG_END_NAME"},
    };
    std::string path = root_ + "/area.bin";
    for (const Case &c : cases) {
        std::string area = tableArea("old");
        if (c.zeroNext)
            putNext(area, c.entry, 0);
        else
            area[kEntryAt[c.entry] + 2] = 'z';
        spit(path, "ab" + area);
        int fd = open(path.c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        Type_tbl tbl{};
        tbl.offset = 2;
        QMX_G_ERROR_CD = 0;
        EXPECT_EQ(read_table(&tbl, fd), -1) << c.message;
        EXPECT_EQ(QMX_G_ERROR_CD, 10) << c.message;
        EXPECT_EQ(traceLines().back(), "read_table ABEND");
        EXPECT_TRUE(traced(c.message)) << c.message;
        std::free(tbl.data);
        close(fd);
        // Through the refresh, the module file is left as it was.
        if (c.entry == 0) continue;  // the marker would not be found at all
        std::string file = imageHead() + area + imageTail();
        spit(imagePath_, file);
        spit(conf_, "a=1:");
        EXPECT_EQ(qmx::mpcfg(store_), -1) << c.message;
        EXPECT_EQ(slurp(imagePath_), file) << c.message;
    }
    EXPECT_TRUE(traced("qmx_mpcfg ABEND"));
}

TEST_F(Image, EndEntryMustCloseTheChain) {
    spit(conf_, "a=1:");
    std::string area = tableArea();
    putNext(area, 5, 96);
    EXPECT_EQ(refreshWith(area), -1);
    EXPECT_TRUE(traced("offset is not zero in config end entry"));
    // The module that failed to open is still handed to the writer, whose
    // report of the bad handle is the last one.
    EXPECT_TRUE(traced(imagePath_ + " open fail"));
    EXPECT_TRUE(traced("write_config ABEND"));
    EXPECT_EQ(QMX_G_ERROR_CD, 1);
}

TEST_F(Image, NothingIsReadPastTheAreaOrTheFile) {
    spit(conf_, "a=1:");
    std::string area = tableArea();
    putNext(area, 3, 0x7FFFFFF0);
    EXPECT_EQ(refreshWith(area), -1);
    EXPECT_TRUE(traced("invalid CONFIG_NAME"));
    area = tableArea();
    putNext(area, 1, -96 * 4);
    EXPECT_EQ(refreshWith(area), -1);
    EXPECT_TRUE(traced("invalid KEY_NAME"));
    // A configuration entry placed so that its value would pass the end.
    area = tableArea();
    putNext(area, 3, 4176 + 96);
    EXPECT_EQ(refreshWith(area), -1);
    // The area's last entry lies past the end of the file.
    spit(imagePath_, imageHead() + tableArea().substr(0, 4468));
    EXPECT_EQ(qmx::mpcfg(store_), -1);
    EXPECT_TRUE(traced("invalid CONFIG_NAME"));
    EXPECT_EQ(slurp(imagePath_).size(), imageHead().size() + 4468);
}

TEST_F(Image, MarkerMustBeInTheFirstAreaSizeOfTheFile) {
    spit(conf_, "a=1:");
    spit(imagePath_, std::string(std::size_t(kTableAreaSize), 'x') + tableArea());
    EXPECT_EQ(qmx::mpcfg(store_), -1);
    EXPECT_TRUE(traced("not found DESCRIPTION_NAME!"));
    // The scan's end is reported as a system error line first.
    int report = -1;
    auto lines = traceLines();
    for (std::size_t i = 0; i < lines.size(); ++i)
        if (lines[i].rfind("qmxvlib:fopen is error.", 0) == 0) report = int(i);
    EXPECT_GE(report, 0);
    EXPECT_LT(report, traceIndex("not found DESCRIPTION_NAME!"));
}

TEST_F(Image, ConfigurationTextMustFitTheTable) {
    spit(conf_, std::string(std::size_t(kTableAreaSize) + 1, 'a'));
    std::string file = slurp(imagePath_);
    EXPECT_EQ(qmx::mpcfg(store_), -1);
    EXPECT_TRUE(traced("conf file size is too big!"));
    EXPECT_EQ(QMX_G_ERROR_CD, 10);
    EXPECT_EQ(slurp(imagePath_), file);
    // Texts longer than the configuration value are refused as well.
    spit(conf_, std::string(kConfigValueSize + 1, 'a'));
    EXPECT_EQ(qmx::mpcfg(store_), -1);
    spit(conf_, std::string(kConfigValueSize, 'a'));
    EXPECT_EQ(qmx::mpcfg(store_), 0);
    EXPECT_EQ(imageArea().substr(kConfigText, kConfigValueSize), std::string(kConfigValueSize, 'a'));
    EXPECT_EQ(imageArea().substr(kEntryAt[5], 13), std::string("<CONFIG_END>\0", 13));
}

TEST_F(Image, ModuleIsFoundThroughModulesDep) {
    spit(conf_, "a=1:");
    // Comment lines are passed over; leading blanks are skipped.
    mkdir((modDir_ + "/other").c_str(), 0755);
    std::string second = modDir_ + "/other/qmxldd_conf.ko";
    spit(second, tableArea());
    spit(modDir_ + "/modules.dep",
         "# extra/qmxldd_conf.ko: x\n   other/qmxldd_conf.ko: kernel/x.ko\nextra/qmxldd_conf.ko:\n");
    std::string first = slurp(imagePath_);
    ASSERT_EQ(qmx::mpcfg(store_), 0);
    EXPECT_EQ(std::string(slurp(second).c_str() + kConfigText), "a=1:");
    EXPECT_EQ(slurp(imagePath_), first);
}

TEST_F(Image, NamedModuleThatFailsIsNotReplacedByTheFallbacks) {
    spit(conf_, "a=1:");
    mkdir((modDir_ + "/weak-updates").c_str(), 0755);
    mkdir((modDir_ + "/weak-updates/qmxldd").c_str(), 0755);
    std::string weak = modDir_ + "/weak-updates/qmxldd/qmxldd_conf.ko";
    spit(weak, tableArea());
    spit(modDir_ + "/modules.dep", "missing/qmxldd_conf.ko:\n");
    EXPECT_EQ(qmx::mpcfg(store_), -1);
    EXPECT_TRUE(traced(modDir_ + "/missing/qmxldd_conf.ko open fail"));
    EXPECT_TRUE(traced("write_config ABEND"));
    EXPECT_EQ(slurp(weak), tableArea());
}

TEST_F(Image, FallbackPathsWhenModulesDepNamesNoModule) {
    spit(conf_, "b=2:");
    unlink((modDir_ + "/modules.dep").c_str());
    EXPECT_EQ(qmx::mpcfg(store_), -1);
    EXPECT_TRUE(traced("modules.dep open fail"));
    EXPECT_TRUE(traced(modDir_ + "/weak-updates/qmxldd/qmxldd_conf.ko open fail"));
    EXPECT_TRUE(traced(modDir_ + "/extra/qmxldd/qmxldd_conf.ko open fail"));
    EXPECT_TRUE(traced("qmx_mpcfg ABEND"));
    mkdir((modDir_ + "/extra/qmxldd").c_str(), 0755);
    std::string extra = modDir_ + "/extra/qmxldd/qmxldd_conf.ko";
    spit(extra, tableArea());
    spit(modDir_ + "/modules.dep", "kernel/x.ko:\n");
    ASSERT_EQ(qmx::mpcfg(store_), 0);
    EXPECT_EQ(std::string(slurp(extra).c_str() + kConfigText), "b=2:");
}

TEST(ImageSearch, MarkerAtTheEdgeOfTheBuffer) {
    std::string marker = "<Kestrel_Fibre_Channel_Host_Bus_Adapter_Configuration_Module>";
    std::string buf = "xx<<K" + marker;
    buf.push_back('\0');
    EXPECT_EQ(search(buf.data(), int(buf.size())), 5);
    // Without its terminator inside the buffer the marker does not count.
    EXPECT_EQ(search(buf.data(), int(buf.size()) - 1), -1);
    EXPECT_EQ(search(nullptr, 10), -1);
}

TEST(ImageArea, CheckReportsTheConfigurationValue) {
    std::string a = tableArea("t");
    std::size_t at = 0;
    EXPECT_EQ(qmx::checkTableArea(reinterpret_cast<const unsigned char *>(a.data()), a.size(), &at),
              nullptr);
    EXPECT_EQ(at, kConfigText);
    EXPECT_STREQ(qmx::checkTableArea(reinterpret_cast<const unsigned char *>(a.data()), 100, &at),
                 "invalid AUTHOR_NAME");
}

// ---------------------------------------------------------------------------
// Module options file.
// ---------------------------------------------------------------------------
class ModOptions : public ConfTree {
protected:
    std::vector<util_para> list_;
    int read() { return qmx::readModulesConf(store_, list_); }
};

TEST_F(ModOptions, ContinuedOptionsLineIsSplitAroundTheBlock) {
    spit(modprobe_,
         "# head\n"
         "options qmxldd qmx_automap=0 qmx_a=1 \\\n"
         "              qmx_b=2 noeq\n"
         "alias x y\n"
         "options qmxldd qmx_c=3\n");
    ASSERT_EQ(read(), 0);
    // A later options line is read too; the last piece keeps the line's end.
    std::vector<std::string> got;
    for (std::size_t i = 0; i < list_.size(); ++i) got.push_back(std::string(list_[i].keyword) + "=" + list_[i].value);
    EXPECT_EQ(got, (std::vector<std::string>{"qmx_automap=0", "qmx_a=1", "qmx_b=2", "qmx_c=3\n"}));
    EXPECT_EQ(slurp(tmp1_), "# head\n");
    EXPECT_EQ(slurp(tmp2_), "alias x y\n");
    EXPECT_TRUE(traced("QMX_read_modules_conf END"));
}

TEST_F(ModOptions, MissingFileEndsWithEnd) {
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(QMX_G_ERROR_CD, 1);
    EXPECT_TRUE(traced("QMX_read_modules_conf END"));
}

TEST_F(ModOptions, EveryOptionOfTheLineIsRead) {
    for (std::size_t n : {11, 45}) {
        std::string all = "options qmxldd";
        for (std::size_t i = 0; i < n; ++i) all += " p" + std::to_string(i) + "=" + std::to_string(i);
        spit(modprobe_, all + "\n");
        ASSERT_EQ(read(), 0) << n;
        ASSERT_EQ(list_.size(), n);
        EXPECT_EQ(std::string(list_[n - 1].keyword), "p" + std::to_string(n - 1));
        EXPECT_EQ(std::string(list_[n - 1].value), std::to_string(n - 1) + "\n");
    }
    // Continued past the bound: refused, nothing returned.
    std::string over = "options qmxldd";
    for (std::size_t i = 0; i <= qmx::kMaxModuleOptions; ++i)
        over += i % 500 == 499 ? " o=1 \\\n" + std::string(14, ' ') : " o=1";
    spit(modprobe_, over + "\n");
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(QMX_G_ERROR_CD, 9);
    EXPECT_TRUE(list_.empty());
    // Long pieces are cut to the fields.
    spit(modprobe_, "options qmxldd " + std::string(400, 'k') + "=" + std::string(400, 'v') + "\n");
    ASSERT_EQ(read(), 0);
    EXPECT_EQ(std::strlen(list_[0].keyword), 262u);
    EXPECT_EQ(std::strlen(list_[0].value), 127u);
}

TEST_F(ModOptions, CopyPutsTheFirstPartBack) {
    spit(tmp1_, "line1\nline2\n");
    spit(modprobe_, "old\n");
    EXPECT_TRUE(qmx::copyModulesConf(store_));
    EXPECT_EQ(slurp(modprobe_), "line1\nline2\n");
    unlink(tmp1_.c_str());
    EXPECT_FALSE(qmx::copyModulesConf(store_));  // nothing to copy: the file stays
    EXPECT_EQ(slurp(modprobe_), "line1\nline2\n");
}

TEST_F(ModOptions, CopyOntoAFullFileSystemLeavesTheOldFile) {
    // Needs the virtual host's private mounts: never mounts on a real host.
    if (!frametest::inVirtualHost()) GTEST_SKIP() << "run through qmxsim";
    std::string etc = root_ + "/etc";
    ASSERT_EQ(mount("tmpfs", etc.c_str(), "tmpfs", 0, "size=64k"), 0) << std::strerror(errno);
    struct Unmount {
        std::string dir;
        ~Unmount() { umount2(dir.c_str(), MNT_DETACH); }
    } unmount{etc};
    const std::string old = "# module options\noptions qmxldd qmx_automap=1\n";
    spit(modprobe_, old);
    int fd = open((etc + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    char block[4096] = {};
    while (write(fd, block, sizeof block) > 0) {
    }
    close(fd);
    spit(tmp1_, std::string(20000, '#') + "\n");
    QMX_G_ERROR_CD = 0;
    EXPECT_FALSE(qmx::copyModulesConf(store_));
    EXPECT_EQ(QMX_G_ERROR_CD, 1);
    EXPECT_EQ(slurp(modprobe_), old);
    EXPECT_TRUE(traced("qmxvlib:write is error. errno(28:No space left on device)"));
    EXPECT_TRUE(traced("QMX_fopen ABEND"));
    // The new file begun beside the old one is gone again.
    EXPECT_EQ(std::system(("test $(ls -A '" + etc + "' | wc -l) -eq 2").c_str()), 0);
}

}  // namespace
