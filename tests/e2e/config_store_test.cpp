// The configuration store of the shipped library in the virtual host:
// "/etc/qmxldd.conf", the configuration module image and the module options.
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <cstring>

#include "vhost.h"

namespace {

constexpr std::size_t kAreaSize = 208708;
constexpr std::size_t kConfigText = 8544 + 68;

// The store's routines run inside the calls that use them; here they are
// called directly, with the trace file opened around them as a call does.
class ConfigStore : public VHostTest {
protected:
    void SetUp() override {
        VHostTest::SetUp();
        if (!IsSkipped()) QMX_OpenApiTraceFile();
    }
    void TearDown() override { QMX_CloseApiTraceFile(); }
    static bool traced(const std::string &msg) {
        QMX_CloseApiTraceFile();
        bool has = traceHas(msg);
        QMX_OpenApiTraceFile();
        return has;
    }
    static std::string modulePath() {
        return "/lib/modules/" + release() + "/extra/qmxldd/qmxldd_conf.ko";
    }
    // The configuration text held in the module image.
    static std::string imageText() {
        std::string img = readFile(modulePath());
        std::size_t at = img.find("<Kestrel_Fibre_Channel_Host_Bus_Adapter_Configuration_Module>");
        if (at == std::string::npos || img.size() < at + kAreaSize) return "<no table>";
        return std::string(img.c_str() + at + kConfigText);
    }
    static std::vector<std::string> keysOf(util_para *list, int n) {
        std::vector<std::string> out;
        for (int i = 0; i < n; ++i) out.push_back(std::string(list[i].keyword) + "=" + list[i].value);
        return out;
    }
};

TEST_F(ConfigStore, ReadsTheDriverAndLibraryFiles) {
    util_para *list = nullptr;
    int n = QMX_Read_qmxlddconf(&list, 0);
    ASSERT_EQ(n, 8);
    auto kv = keysOf(list, n);
    EXPECT_EQ(kv[0], "qmx_queue_depth=32");
    EXPECT_EQ(kv[7], "qmxl3-wwpn=0x2100001122334461");
    int maxn = 0;
    EXPECT_EQ(QMX_SearchInKeylist(portWwn(2), list, n, &maxn), 2);
    EXPECT_EQ(maxn, 3);
    free(list);
    list = nullptr;
    ASSERT_EQ(QMX_Read_qmxlddconf(&list, 1), 1);
    EXPECT_STREQ(list[0].keyword, "qmx0_alias");
    EXPECT_STREQ(list[0].value, "boot_port");
    free(list);
    EXPECT_EQ(QMX_Read_qmxlddconf(&list, 5), -1);
}

TEST_F(ConfigStore, SetRewritesTheFileInPlaceAndRefreshesTheImage) {
    QMX_WWN w = portWwn(1);
    int ind = QMX_InitRoutine(w);
    ASSERT_EQ(ind, 1);
    struct stat before, after;
    ASSERT_EQ(stat(kConf, &before), 0);
    int depth = 64;
    ASSERT_EQ(QMX_SetUtilValue(w, ind, const_cast<char *>("_queue_depth"), -1, &depth, 0), 0);
    std::string text = readFile(kConf);
    EXPECT_EQ(text,
              "qmx_queue_depth=32:qmxmp_failover=1:qmx0_queue_depth=32:qmx1_link_speed=8:"
              "qmx1_queue_depth=64:qmxl0-wwpn=0x2100001122334450:qmxl1-wwpn=0x2100001122334451:"
              "qmxl2-wwpn=0x2100001122334460:qmxl3-wwpn=0x2100001122334461:");
    ASSERT_EQ(stat(kConf, &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(imageText(), text);
    // The image writer's own checks (only the table area changes, failures
    // after the file is written, the size bound) are unit tests
    // (config_writer_test, config_image_test).
    int got = 0;
    ASSERT_EQ(QMX_GetUtilValue(w, ind, const_cast<char *>("_queue_depth"), -1, &got), 0);
    EXPECT_EQ(got, 64);
    EXPECT_TRUE(traced("qmx_mpcfg START"));
    EXPECT_FALSE(traced("QMX_SetUtilValue ABEND"));
}

// A set whose new text does not fit on the file system fails before the
// first byte is written: the file keeps its inode and every byte.  The file
// is a bind mount of a file on a small tmpfs that a filler has made full.
TEST_F(ConfigStore, FullFileSystemFailsTheSetAndKeepsTheOldFile) {
    char dir[] = "/tmp/qmxfull-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    if (mount("tmpfs", dir, "tmpfs", 0, "size=16k") != 0) GTEST_SKIP() << "cannot mount a tmpfs here";
    const std::string small = std::string(dir) + "/qmxldd.conf";
    // Padding items take the file to 4090 bytes: one page, with no room for
    // the port item the set adds.
    std::string text = readFile(kConf);
    for (int i = 0; text.size() < 4090; ++i) {
        std::string item = "qmx_pad" + std::to_string(i) + "=";
        std::size_t room = 4090 - text.size() - item.size() - 1;
        text += item + std::string(std::min<std::size_t>(room, 100), 'p') + ":";
    }
    ASSERT_EQ(text.size(), 4090u);
    ASSERT_TRUE(writeFile(small, text));
    {
        std::string filler = std::string(dir) + "/filler";
        int fd = ::open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        char block[1024] = {};
        while (::write(fd, block, sizeof block) > 0) {
        }
        ::close(fd);
    }
    ASSERT_EQ(mount(small.c_str(), kConf, nullptr, MS_BIND, nullptr), 0) << std::strerror(errno);
    struct stat before;
    ASSERT_EQ(stat(kConf, &before), 0);
    QMX_CloseApiTraceFile();
    EXPECT_EQ(QMX_SetQueueDepthCount(portWwn(2), 16, 0), 1);  // a new item for port 2
    EXPECT_EQ(QMX_LastErrorCode(), QMX_ERR_SYSTEM);
    // The report is cut to its 66-character buffer.
    EXPECT_TRUE(traceHas("qmxvlib:posix_fallocate is error. errno(28:No space left on devic"));
    EXPECT_TRUE(readFile(kConf) == text) << "the file changed";
    struct stat after;
    ASSERT_EQ(stat(kConf, &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    umount(kConf);
    umount(dir);
    rmdir(dir);
    QMX_OpenApiTraceFile();
}

// (sim/tests/tmp_visible.sh runs this test for its scratch files.)
TEST_F(ConfigStore, ModuleOptionsAreSplitAroundTheOptionsLine) {
    std::vector<util_para> list(QMX_MODULES_CONF_ITEMS);
    std::memset(list.data(), 0, list.size() * sizeof(util_para));
    ASSERT_EQ(QMX_read_modules_conf(list.data()), 0);
    EXPECT_STREQ(list[0].keyword, "qmx_automap");
    EXPECT_STREQ(list[0].value, "1");
    EXPECT_STREQ(list[1].keyword, "qmx_debug");
    EXPECT_STREQ(list[1].value, "0\n");
    EXPECT_EQ(readFile("/tmp/conf_modules1.hba"), "# qmxldd module options\n");
    EXPECT_EQ(readFile("/tmp/conf_modules2.hba"),
              "install qmxldd /sbin/modprobe --ignore-install qmxldd\n");
    EXPECT_TRUE(traced("QMX_read_modules_conf END"));

    // A caller's array of 10 records (the binding calls' size) is never
    // written past: an eleventh option is refused, the record after stays.
    std::string line = "options qmxldd";
    for (int i = 0; i < 11; ++i) line += " o" + std::to_string(i) + "=1";
    writeFile("/etc/modprobe.d/qmxldd_param.conf", line + "\n");
    std::vector<util_para> ten(11);
    std::memset(ten.data(), 0x5A, ten.size() * sizeof(util_para));
    EXPECT_EQ(QMX_read_modules_conf(ten.data()), -1);
    EXPECT_EQ(QMX_LastErrorCode(), QMX_ERR_DATA_FILE);
    EXPECT_EQ(ten[10].keyword[0], 0x5A);
    EXPECT_EQ(ten[10].used, 0x5A5A5A5A);
}

// The scratch files have fixed names in /tmp, where any user can plant a
// link or a file of their own: both are refused, and what they point at or
// hold is left alone.
TEST_F(ConfigStore, PlantedScratchFilesAreRefused) {
    const std::string victim = "/etc/qmxsim-victim", kept = "not yours\n";
    struct Case {
        const char *name, *path, *syslogText;
        bool link;
    } cases[] = {
        {"symbolic link", "/tmp/conf_modules1.hba", "qmxvlib:/tmp/conf_modules1.hba refused: symbolic link", true},
        {"another user's file", "/tmp/conf_modules2.hba",
         "qmxvlib:/tmp/conf_modules2.hba refused: owned by another user", false},
    };
    std::size_t logged = syslogLines().size();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        unlink("/tmp/conf_modules1.hba");
        unlink("/tmp/conf_modules2.hba");
        ASSERT_TRUE(writeFile(victim, kept));
        if (c.link) {
            ASSERT_EQ(symlink(victim.c_str(), c.path), 0);
        } else {
            ASSERT_TRUE(writeFile(c.path, kept));
            if (chown(c.path, 4321, 4321) != 0) GTEST_SKIP() << "chown needs root in the virtual host";
        }
        std::vector<util_para> list(QMX_MODULES_CONF_ITEMS);
        std::memset(list.data(), 0, list.size() * sizeof(util_para));
        QMX_G_ERROR_CD = 0;
        EXPECT_EQ(QMX_read_modules_conf(list.data()), -1);
        EXPECT_EQ(QMX_LastErrorCode(), 1);
        EXPECT_EQ(readFile(victim), kept);
        EXPECT_EQ(readFile(c.path), kept);
        EXPECT_TRUE(traced("QMX_read_modules_conf END"));
        std::vector<std::string> lines = syslogLines(++logged);
        ASSERT_EQ(lines.size(), logged);
        EXPECT_NE(lines.back().find(c.syslogText), std::string::npos) << lines.back();
    }
    // (the report is cut to its 66-character buffer)
    EXPECT_TRUE(traced("qmxvlib:fopen is error. errno(40:Too many levels of symbolic link"));
    EXPECT_TRUE(traced("qmxvlib:fopen is error. errno(1:Operation not permitted)"));
}

}  // namespace
