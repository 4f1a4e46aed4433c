// The set of all open device files, with no adapters present.  Runs inside
// the virtual host, whose device files the test removes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "frame/frame.h"

namespace {

std::string traceText() {
    std::ifstream in("/opt/kestrel/drivers/hba/qmxlibTrace.txt", std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(SpecialFiles, NoAdaptersGiveZeroAndClosedEntries) {
    if (std::getenv("QMXSIM_STATE") == nullptr) GTEST_SKIP() << "needs the virtual host (run through ctest)";
    for (int n = 0; n < kMaxPorts; ++n) unlink(("/dev/qmxldd" + std::to_string(n)).c_str());
    ASSERT_NE(QMX_OpenApiTraceFile(), nullptr);
    qmx_spfile *files = nullptr;
    EXPECT_EQ(open_special_file(&files), 0);
    ASSERT_NE(files, nullptr);
    for (int n = 0; n < kMaxPorts; ++n) {
        EXPECT_EQ(files[n].fd, -1) << n;
        EXPECT_FALSE(spfileValid(files[n])) << n;
    }
    EXPECT_EQ(close_special_file(files), 0);
    QMX_CloseApiTraceFile();
    std::string t = traceText();
    auto start = t.find("open_special_file START");
    auto none = t.find("no device special file (/dev/qmxlddx)");
    auto end = t.find("open_special_file END");
    ASSERT_NE(start, std::string::npos);
    ASSERT_NE(none, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    EXPECT_LT(start, none);
    EXPECT_LT(none, end);
    EXPECT_NE(t.find("close_special_file END"), std::string::npos);
}

TEST(SpecialFiles, OpenDevicesCarryTheirPortInformation) {
    if (std::getenv("QMXSIM_STATE") == nullptr) GTEST_SKIP() << "needs the virtual host (run through ctest)";
    unlink("/dev/qmxldd1");  // a gap: entry 1 stays closed
    qmx_spfile *files = nullptr;
    int count = open_special_file(&files);
    ASSERT_NE(files, nullptr);
    EXPECT_EQ(count, 3);
    EXPECT_TRUE(spfileValid(files[0]));
    EXPECT_FALSE(spfileValid(files[1]));
    EXPECT_EQ(files[1].fd, -1);
    EXPECT_NE(files[0].ww_name, 0u);
    EXPECT_NE(files[0].ww_name, files[2].ww_name);
    EXPECT_GE(files[2].fd, 0);
    close_special_file(files);
}

}  // namespace
