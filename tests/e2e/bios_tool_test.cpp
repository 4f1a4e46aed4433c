// The simulated qmxbios tool on its own: settings, listings, and the backup
// file layout that the library's backup reader decodes.
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "vhost.h"

namespace {

class BiosTool : public VHostTest {
protected:
    static int tool(const std::string &args, const std::string &out = "/dev/null") {
        std::string cmd = std::string(kToolDir) + "/qmxbios " + args + " > " + out + " 2>/dev/null";
        int st = std::system(cmd.c_str());
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    static std::vector<uint8_t> bytes(const std::string &path) {
        std::string t = readFile(path);
        return std::vector<uint8_t>(t.begin(), t.end());
    }
    static std::string listing(int devno) {
        std::string out = "/tmp/cfg" + std::to_string(devno) + ".txt";
        EXPECT_EQ(0, tool("-d qmxldd" + std::to_string(devno) + " -o cfgshowex", out));
        return readFile(out);
    }
};

TEST_F(BiosTool, ListingHasTitlesAtTheSecondCharacterAndTheBootTable) {
    ASSERT_EQ(0, tool("-x -d qmxldd0 -p data_rate=8"));
    ASSERT_EQ(0, tool("-x -d qmxldd0 -p login_delay_time=12"));
    ASSERT_EQ(0, tool("-x -d qmxldd0 -p wwn_of_hba=2100001122aabbcc"));
    ASSERT_EQ(0, tool("-x -d qmxldd0 -p boot_device=2,50060e8000000001,001f"));
    std::string text = listing(0);
    EXPECT_NE(text.find("\n DATA RATE"), std::string::npos);
    EXPECT_NE(text.find(": 8Gbps ONLY\n"), std::string::npos);
    EXPECT_NE(text.find("\n LOGIN DELAY TIME"), std::string::npos);
    EXPECT_NE(text.find(": 12\n"), std::string::npos);
    EXPECT_NE(text.find("\n Additional World Wide Port Name : 2100001122aabbcc\n"), std::string::npos);
    const std::string border = "  +---+------------------+-----+------------+";
    std::size_t first = text.find(border);
    ASSERT_NE(first, std::string::npos);
    std::size_t second = text.find(border, first + border.size());
    ASSERT_NE(second, std::string::npos);
    std::vector<std::string> rows = splitLines(text.substr(first + border.size() + 1, second - first - border.size() - 1));
    ASSERT_EQ(rows.size(), 8u);
    EXPECT_EQ(rows[1].rfind("  |2   50060e8000000001   001f ", 0), 0u) << rows[1];
}

TEST_F(BiosTool, BadSettingsAndUnknownDevicesAreRefused) {
    EXPECT_EQ(3, tool("-x -d qmxldd0 -p data_rate=3"));
    EXPECT_EQ(3, tool("-x -d qmxldd0 -p login_delay_time=61"));
    EXPECT_EQ(3, tool("-x -d qmxldd0 -p boot_device=9,50060e8000000001,0000"));
    EXPECT_EQ(3, tool("-x -d qmxldd0 -p bios=on"));
    EXPECT_EQ(1, tool("-x -d qmxldd9 -p bios=Enable"));
    EXPECT_EQ(2, tool("-x -d qmxldd0 -q"));
    EXPECT_EQ(0, tool("-x -d qmxldd0 -p bios=Enable"));
}

TEST_F(BiosTool, DeviceListingHasEveryPortFromTheSixthLine) {
    std::string out = "/tmp/devshow.txt";
    ASSERT_EQ(0, tool("-o devshow", out));
    std::vector<std::string> lines = splitLines(readFile(out));
    ASSERT_GT(lines.size(), 5u);
    std::vector<std::string> devices;
    for (std::size_t i = 5; i < lines.size(); ++i)
        if (lines[i].rfind("  qmxldd", 0) == 0) devices.push_back(lines[i]);
    ASSERT_EQ(devices.size(), 4u);
    EXPECT_EQ(devices[1], "  qmxldd1 2532 03 00 1 0000000000000000 2100001122334451");
}

TEST_F(BiosTool, BackupFileLayout) {
    ASSERT_EQ(0, tool("-x -d qmxldd1 -p bios=Enable"));
    ASSERT_EQ(0, tool("-x -d qmxldd1 -p persistent_bindings=Enable"));
    ASSERT_EQ(0, tool("-x -d qmxldd1 -p login_delay_time=10"));
    ASSERT_EQ(0, tool("-x -d qmxldd1 -p connection_type=ptop"));
    ASSERT_EQ(0, tool("-x -d qmxldd1 -p wwn_of_hba=2100001122aabbcc"));
    ASSERT_EQ(0, tool("-x -d qmxldd1 -p boot_device=1,50060e8000000001,0102"));
    ASSERT_EQ(0, tool("-x -d qmxldd0 -p pre_configure=Enable"));
    mkdir("/tmp/bk", 0755);
    ASSERT_EQ(0, tool("-x -d qmxldd1 -o backup -f /tmp/bk"));
    std::vector<uint8_t> b = bytes("/tmp/bk/qmxldd0.bios");  // named after the adapter's first port
    ASSERT_EQ(b.size(), 1360u);
    EXPECT_EQ(b[4], 3);   // bus
    EXPECT_EQ(b[6], 0);   // func of the first port
    // The PCI id word as the driver returns it: device, then vendor.
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + 8, b.begin() + 12), (std::vector<uint8_t>{0x25, 0x32, 0x1E, 0x5A}));
    EXPECT_EQ(b[12], 1);  // pre-configuration of the first port
    // Port 1's block.
    EXPECT_EQ(b[256 + 256 + 0x01] & 0x80, 0x80);   // BIOS enabled
    EXPECT_EQ(b[256 + 0x01] & 0x80, 0);            // port 0 unchanged
    EXPECT_EQ(b[256 + 256 + 0x03], 1);             // point to point
    EXPECT_EQ(b[256 + 256 + 0x05] & 0x80, 0);      // bindings on: bit clear
    EXPECT_EQ(b[256 + 0x05] & 0x80, 0x80);         // port 0 off: bit set
    EXPECT_EQ(b[256 + 256 + 0x06], 0x8A);          // login delay 10
    EXPECT_EQ(b[256 + 0x06] & 0x80, 0);            // port 0: default
    EXPECT_EQ(b[256 + 256 + 0x16], 0x01);          // boot row 0: LUN, high byte first
    EXPECT_EQ(b[256 + 256 + 0x17], 0x02);
    EXPECT_EQ(b[256 + 256 + 0x18], 0x50);          // then the WWPN
    EXPECT_EQ(b[256 + 256 + 0x1F], 0x01);
    EXPECT_EQ(b[1320], 0x21);                      // additional WWPN of port 1
    EXPECT_EQ(b[1327], 0xCC);
}

TEST_F(BiosTool, RestoreWritesTheBackupBack) {
    mkdir("/tmp/bk", 0755);
    ASSERT_EQ(0, tool("-x -d qmxldd2 -p data_rate=4"));
    ASSERT_EQ(0, tool("-x -d qmxldd3 -p spinup_delay=Enable"));
    ASSERT_EQ(0, tool("-x -a -o backup -f /tmp/bk"));
    EXPECT_TRUE(fileExists("/tmp/bk/qmxldd0.bios"));
    ASSERT_TRUE(fileExists("/tmp/bk/qmxldd2.bios"));
    ASSERT_EQ(0, tool("-x -d qmxldd2 -p data_rate=auto"));
    ASSERT_EQ(0, tool("-x -d qmxldd3 -p spinup_delay=Disable"));
    ASSERT_EQ(0, tool("-x -d qmxldd2 -o restore -f /tmp/bk/qmxldd2.bios"));
    EXPECT_NE(listing(2).find(": 4Gbps ONLY"), std::string::npos);
    EXPECT_NE(listing(3).find(" SPINUP DELAY                    : ENABLE"), std::string::npos);
    // Another adapter model's file is refused, and so is a short file.
    setPortField(0, "device", "0x0202");
    EXPECT_EQ(1, tool("-x -d qmxldd0 -o restore -f /tmp/bk/qmxldd2.bios"));
    writeFile("/tmp/bk/short.bios", std::string(100, '\0'));
    EXPECT_EQ(1, tool("-x -d qmxldd2 -o restore -f /tmp/bk/short.bios"));
    EXPECT_EQ(1, tool("-x -d qmxldd2 -o backup -f /tmp/no-such-dir"));
}

}  // namespace
