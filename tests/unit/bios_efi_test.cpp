// EFI driver option area: byte reads, word read-modify-write and the store
// command, against the simulated driver of the virtual host.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "bios_fixture.h"
#include "simstate.h"

namespace {

using biostest::stateDir;

// Diagnostic requests on qmxldd0 logged by the driver, as their sub-commands
// ('6' = 54 read, '7' = 55 write), with " store" added to the store command.
std::vector<std::string> efiRequests() {
    std::vector<std::string> out;
    std::ifstream in(stateDir() + "/driver.log");
    for (std::string l; std::getline(in, l);) {
        if (l.find(" dev=qmxldd0 ") == std::string::npos || l.find(" req=IOCTL_QMX_DIAG0 ") == std::string::npos)
            continue;
        std::string e = l.find(" sub=54 ") != std::string::npos ? "rd" : l.find(" sub=55 ") != std::string::npos ? "wr" : "";
        if (e.empty()) continue;
        if (l.find("efi store") != std::string::npos) e += " store";
        if (l.find("result=ok") == std::string::npos) e += " fail";
        out.push_back(e);
    }
    return out;
}

// Adds a scripted driver fault to the host state.
void addFault(const qmxsim::json &fault) {
    ASSERT_TRUE(qmxsim::StateStore(stateDir()).update([&](qmxsim::json &s) {
        s["faults"].push_back(fault);
        return true;
    }));
}

class EfiOption : public biostest::PortZeroTest {
protected:
    void SetUp() override {
        PortZeroTest::SetUp();
        if (IsSkipped()) return;
        std::remove((stateDir() + "/driver.log").c_str());
    }
    static uint8_t readByte(int offset) {
        uint8_t b = 0xEE;
        EXPECT_EQ(0, qmx_EFIDrvOption(0, &b, 0, offset));
        return b;
    }
    static void writeByte(int offset, uint8_t v) { EXPECT_EQ(0, qmx_EFIDrvOption(0, &v, 1, offset)); }
};

// A read is one byte read; a write reads the word, writes it back and stores.
TEST_F(EfiOption, ReadIsOneRequestAndWriteReadsTheWordWritesItBackAndStores) {
    uint8_t b = 0xEE;
    ASSERT_EQ(0, qmx_EFIDrvOption(0, &b, 0, 518));
    EXPECT_NE(b, 0xEE);
    EXPECT_EQ(efiRequests(), std::vector<std::string>{"rd"});
    writeByte(518, 0x33);
    std::vector<std::string> want = {"rd", "rd", "wr", "wr store"};
    EXPECT_EQ(efiRequests(), want);
    // The store command carries 10 01 00 00 at offset 12.
    const uint8_t store[4] = {0x10, 0x01, 0x00, 0x00};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(readByte(12 + i), store[i]) << i;
}

// 515 and 516 have their own byte; any other offset replaces byte 2 of its
// word (519 lands on 518).  The rest of the word is written back as read.
TEST_F(EfiOption, WriteReplacesOneByteOfItsWord) {
    const std::pair<int, int> cases[] = {{515, 515}, {516, 516}, {518, 518}, {519, 518}};
    uint8_t v = 0x40;
    for (auto [offset, lands] : cases) {
        SCOPED_TRACE(offset);
        uint8_t before[8];
        for (int i = 0; i < 8; ++i) before[i] = readByte(512 + i);
        writeByte(offset, ++v);
        for (int i = 0; i < 8; ++i) EXPECT_EQ(readByte(512 + i), 512 + i == lands ? v : before[i]) << 512 + i;
    }
}

TEST_F(EfiOption, DeviceThatCannotBeOpenedGivesOne) {
    uint8_t b = 1;
    EXPECT_EQ(1, qmx_EFIDrvOption(-1, &b, 0, 518));
    EXPECT_EQ(1, qmx_EFIDrvOption(kMaxPorts, &b, 1, 518));
    std::snprintf(dev_info_all[0].name, sizeof dev_info_all[0].name, "qmxldd99");
    EXPECT_EQ(1, qmx_EFIDrvOption(0, &b, 1, 518));
    EXPECT_EQ(2, qmx_EFIDrvOption(0, nullptr, 0, 518));
    EXPECT_TRUE(efiRequests().empty());
}

TEST_F(EfiOption, FailedWordWriteLeavesTheAreaAndSkipsTheStore) {
    uint8_t before = readByte(518);
    addFault({{"request", "IOCTL_QMX_DIAG0"}, {"port", 0}, {"sub", 55}, {"errno", 5}, {"times", -1}});
    std::remove((stateDir() + "/driver.log").c_str());
    uint8_t v = 0x2A;
    EXPECT_EQ(3, qmx_EFIDrvOption(0, &v, 1, 518));  // after the driver channel's retries
    std::vector<std::string> reqs = efiRequests();
    ASSERT_FALSE(reqs.empty());
    EXPECT_EQ(reqs.front(), "rd");
    for (std::size_t i = 1; i < reqs.size(); ++i) EXPECT_EQ(reqs[i], "wr fail");
    EXPECT_EQ(readByte(518), before);
}

TEST_F(EfiOption, FailedReadGivesTwoAndWritesNothing) {
    addFault({{"request", "IOCTL_QMX_DIAG0"}, {"port", 0}, {"sub", 54}, {"errno", 5}, {"times", -1}});
    uint8_t v = 0x2A;
    EXPECT_EQ(2, qmx_EFIDrvOption(0, &v, 1, 515));
    for (const std::string &r : efiRequests()) EXPECT_EQ(r, "rd fail");
}

}  // namespace
