// Whole-file replacement: content, owner and mode kept, links followed,
// nothing touched on failure.  Scratch files in shared folders: nothing
// planted at their names is ever followed or written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "frame/bigblock.h"
#include "frame/fileio.h"
#include "frame_test_util.h"

namespace {

class ReplaceFile : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qmx-fileio-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { (void)std::system(("rm -rf '" + dir_ + "'").c_str()); }
    std::string p(const char *name) const { return dir_ + "/" + name; }
    std::string dir_;
};

TEST_F(ReplaceFile, KeepsModeAndFollowsLinks) {
    std::string real = p("real.conf"), link = p("link.conf");
    ASSERT_TRUE(qmx::replaceFile(real.c_str(), "old", nullptr));
    ASSERT_EQ(chmod(real.c_str(), 0640), 0);
    ASSERT_EQ(symlink("real.conf", link.c_str()), 0);

    ASSERT_TRUE(qmx::replaceFile(link.c_str(), std::string(70000, 'x'), nullptr));
    struct stat st;
    ASSERT_EQ(lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    ASSERT_EQ(stat(real.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(frametest::slurp(real), std::string(70000, 'x'));
    // Only the two names are left: no temporary file stays behind.
    EXPECT_EQ(std::system(("test $(ls -A '" + dir_ + "' | wc -l) -eq 2").c_str()), 0);
}

TEST_F(ReplaceFile, DanglingLinkCreatesItsTarget) {
    std::string link = p("dangling");
    ASSERT_EQ(symlink("made.conf", link.c_str()), 0);
    ASSERT_TRUE(qmx::replaceFile(link.c_str(), "new\n", nullptr, 0600));
    struct stat st;
    ASSERT_EQ(stat(p("made.conf").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(frametest::slurp(p("made.conf")), "new\n");
}

TEST_F(ReplaceFile, FailureNamesTheCallAndLeavesNothing) {
    std::string sub = p("sub");
    ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
    qmx::FileError err;
    // A folder in place of the file is refused before anything is written.
    EXPECT_FALSE(qmx::replaceFile(sub.c_str(), "x", &err));
    EXPECT_STREQ(err.call, "stat");
    EXPECT_FALSE(qmx::replaceFile(p("missing/dir/file").c_str(), "x", &err));
    EXPECT_STREQ(err.call, "mkstemp");
    EXPECT_EQ(err.err, ENOENT);
    EXPECT_EQ(std::system(("test $(ls -A '" + dir_ + "' | wc -l) -eq 1").c_str()), 0);
}

TEST_F(ReplaceFile, ScratchFilesRefuseWhatOthersCouldPlant) {
    using qmx::ScratchMode;
    std::string target = p("target"), name = p("scratch");
    auto fresh = [&] {
        unlink(name.c_str());
        ASSERT_TRUE(qmx::replaceFile(target.c_str(), "keep", nullptr));
    };
    struct Plant {
        const char *what;
        std::function<int()> make;
        const char *call;
        int err;
    } plants[] = {
        {"symbolic link", [&] { return symlink(target.c_str(), name.c_str()); }, "open", ELOOP},
        {"hard link", [&] { return link(target.c_str(), name.c_str()); }, "fstat", EPERM},
        // Must not block; opening it for writing fails at once (ENXIO).
        {"FIFO", [&] { return mkfifo(name.c_str(), 0666); }, nullptr, 0},
    };
    for (const Plant &pl : plants)
        for (ScratchMode m : {ScratchMode::Read, ScratchMode::Write, ScratchMode::Append}) {
            SCOPED_TRACE(std::string(pl.what) + " mode " + std::to_string(int(m)));
            fresh();
            ASSERT_EQ(pl.make(), 0);
            qmx::FileError err;
            EXPECT_EQ(qmx::openScratch(name.c_str(), m, &err), nullptr);
            if (pl.call != nullptr) {
                EXPECT_STREQ(err.call, pl.call);
                EXPECT_EQ(err.err, pl.err);
            }
            EXPECT_EQ(frametest::slurp(target), "keep");
        }
    // The process's own file: written from the start, appended to, read.
    unlink(name.c_str());
    qmx::FileError err;
    EXPECT_EQ(qmx::openScratch(name.c_str(), ScratchMode::Read, &err), nullptr);  // never created
    EXPECT_EQ(err.err, ENOENT);
    ASSERT_TRUE(qmx::replaceFile(name.c_str(), "older text", nullptr));
    for (auto [m, text] : {std::pair{ScratchMode::Write, "ab"}, std::pair{ScratchMode::Append, "cd"}}) {
        FILE *fp = qmx::openScratch(name.c_str(), m, &err);
        ASSERT_NE(fp, nullptr);
        EXPECT_NE(fcntl(fileno(fp), F_GETFD) & FD_CLOEXEC, 0);
        std::fputs(text, fp);
        std::fclose(fp);
    }
    EXPECT_EQ(frametest::slurp(name), "abcd");
}

// Large working blocks are handed out again once dropped, so that repeated
// reads of a large file do not map fresh memory every time.
TEST(BigBlock, ADroppedBlockServesTheNextRequestItFits) {
    void *a = qmx::takeBigBlock(3u << 20);
    ASSERT_NE(a, nullptr);
    static_cast<char *>(a)[(3u << 20) - 1] = 'x';
    qmx::dropBigBlock(a);
    void *b = qmx::takeBigBlock(1u << 20);
    EXPECT_EQ(b, a);
    qmx::dropBigBlock(b);
    std::vector<int, qmx::BigAllocator<int>> v(1 << 20, 7);
    EXPECT_EQ(v.back(), 7);
}

}  // namespace
