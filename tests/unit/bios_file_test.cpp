// The BIOS backup file decoder on crafted files.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "bios/bios_data.h"
#include "frame/frame.h"

namespace {

struct Case {
    std::size_t off;  // offset in the file
    uint8_t byte;
    int port;
    uint32_t QMX_BIOS_DATA::*field;  // null: see `check`
    uint32_t want;
};

std::vector<uint8_t> blankFile() { return std::vector<uint8_t>(kBiosFileSize, 0); }

QMX_BIOS_DATA decode(const std::vector<uint8_t> &f, int port, uint8_t preConf = 0, int *rc = nullptr) {
    QMX_BIOS_DATA d;
    std::memset(&d, 0xEE, sizeof d);
    QMX_G_ERROR_CD = 0;
    int r = qmx_ReadBiosFileBody(f.data(), f.size(), port, preConf, &d);
    if (rc != nullptr) *rc = r;
    return d;
}

TEST(BiosFile, SettingBytesDecodeByPortBlock) {
    constexpr std::size_t P1 = 256 + 256;  // port 1's block
    // {file offset, byte, port, expected values} for the 32-bit fields.
    const Case cases[] = {
        {P1 + 1, 0x80, 1, &QMX_BIOS_DATA::hbaBios, 1},
        {P1 + 1, 0x7F, 1, &QMX_BIOS_DATA::hbaBios, 0},
        {P1 + 1, 0x10, 1, &QMX_BIOS_DATA::bootPri, 1},
        {P1 + 1, 0xEF, 1, &QMX_BIOS_DATA::bootPri, 0},
        {P1 + 1, 0x20, 1, &QMX_BIOS_DATA::spinupDelay, 1},
        {P1 + 6, 0x8A, 1, &QMX_BIOS_DATA::loginDelay, 10},
        {P1 + 6, 0x0A, 1, &QMX_BIOS_DATA::loginDelay, 255},
        {P1 + 6, 0xFF, 1, &QMX_BIOS_DATA::loginDelay, 255},
        {P1 + 6, 0x80, 1, &QMX_BIOS_DATA::loginDelay, 0},
        {256 + 3 * 256 + 1, 0x80, 3, &QMX_BIOS_DATA::hbaBios, 1},
        {256 + 1, 0x80, 1, &QMX_BIOS_DATA::hbaBios, 0},  // port 0's byte is not port 1's
    };
    for (const Case &c : cases) {
        std::vector<uint8_t> f = blankFile();
        f[c.off] = c.byte;
        int rc = -1;
        QMX_BIOS_DATA d = decode(f, c.port, 0, &rc);
        ASSERT_EQ(rc, 0);
        EXPECT_EQ(d.*c.field, c.want) << "offset " << c.off << " byte " << int(c.byte);
    }
}

TEST(BiosFile, NarrowFieldsAndPreConfigure) {
    struct Narrow {
        uint8_t in;
        int connect, rate;
    } narrow[] = {{0, 1, 0}, {1, 2, 1}, {2, 0, 2}, {3, 3, 255}, {4, 0, 4}, {8, 0, 8}, {10, 0, 10}, {9, 0, 255}};
    for (const Narrow &n : narrow) {
        std::vector<uint8_t> f = blankFile();
        f[256 + 3] = n.in;
        f[256 + 4] = n.in;
        QMX_BIOS_DATA d = decode(f, 0);
        EXPECT_EQ(d.connectType, n.connect) << int(n.in);
        EXPECT_EQ(d.dataRate, n.rate) << int(n.in);
    }
    // Bindings are inverted: a set top bit means off.
    std::vector<uint8_t> f = blankFile();
    f[256 + 5] = 0x80;
    EXPECT_EQ(decode(f, 0).pBindings, 0);
    EXPECT_EQ(decode(f, 0).forceDefault, 0);
    f[256 + 5] = 0x40;
    EXPECT_EQ(decode(f, 0).pBindings, 1);
    EXPECT_EQ(decode(f, 0).forceDefault, 1);
    const int pre[][2] = {{0, 0}, {1, 1}, {2, 0}, {3, 1}, {4, 255}, {0xFF, 255}};
    for (const auto &p : pre) EXPECT_EQ(decode(blankFile(), 0, uint8_t(p[0])).preConfigure, p[1]);
}

TEST(BiosFile, BootDevicesAndAdditionalWwpnOfPortOne) {
    std::vector<uint8_t> f = blankFile();
    const uint8_t wwn[8] = {0x50, 0x06, 0x0e, 0x80, 0x00, 0x00, 0x00, 0x07};
    for (int i = 0; i < 8; ++i) {
        std::size_t row = 512 + 0x16 + 16 * std::size_t(i);
        f[row] = uint8_t(i);
        f[row + 1] = 0x34;
        std::memcpy(&f[row + 2], wwn, 8);
        f[row + 9] = uint8_t(i);
    }
    std::memcpy(&f[1320], wwn, 8);  // 1280 + 0x18 + 16
    QMX_BIOS_DATA d = decode(f, 1);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(d.bootPriList.entry[i].lun, uint32_t(i << 8 | 0x34));
        EXPECT_EQ(d.bootPriList.entry[i].PortWWN.wwn[0], 0x50);
        EXPECT_EQ(d.bootPriList.entry[i].PortWWN.wwn[7], i);
    }
    EXPECT_EQ(0, std::memcmp(d.addWwpn.wwn, wwn, 8));
}

TEST(BiosFile, ShortFilesAndBadPortsFailWithTheirCode) {
    qmx_bios_file_header h{};
    const struct {
        std::size_t len;
        int code;
    } body[] = {{23, 9}, {1279, 9}, {1359, 9}};
    for (const auto &b : body) {
        std::vector<uint8_t> f(b.len, 0);
        int rc = 0;
        decode(f, 0, 0, &rc);
        EXPECT_EQ(rc, -1) << b.len;
        EXPECT_EQ(QMX_G_ERROR_CD, b.code) << b.len;
    }
    for (int port : {-1, 4, 255}) {
        int rc = 0;
        decode(blankFile(), port, 0, &rc);
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(QMX_G_ERROR_CD, 10);
    }
    // Each header field fails alone when the file ends inside it.
    const std::size_t ends[] = {0, 3, 4, 5, 6, 7, 11, 12};
    for (std::size_t n : ends) {
        std::vector<uint8_t> f(n, 1);
        QMX_G_ERROR_CD = 0;
        EXPECT_EQ(qmx_ReadBiosFileHeader(f.data(), f.size(), &h), -1) << n;
        EXPECT_EQ(QMX_G_ERROR_CD, 9);
    }
    std::vector<uint8_t> f = {1, 0, 0, 0, 3, 4, 5, 6, 0x5a, 0x1e, 0x32, 0x25, 3};
    ASSERT_EQ(qmx_ReadBiosFileHeader(f.data(), f.size(), &h), 0);
    EXPECT_EQ(h.bus, 3);
    EXPECT_EQ(h.pkgcd, 6);
    EXPECT_EQ(h.pre_conf, 3);
}

TEST(BiosFile, DeviceCheckComparesSwappedBlankPaddedTexts) {
    // The file holds the identifier's bytes as the driver returns them
    // (device 0x2532, vendor 0x1E5A); the driver's word is put into network
    // order before it is formatted, so the two match on any host.
    auto word = [](std::initializer_list<uint8_t> b) {
        uint32_t w;
        std::memcpy(&w, std::data(b), 4);
        return w;
    };
    const uint32_t id = word({0x25, 0x32, 0x1e, 0x5a});
    QMX_G_ERROR_CD = 0;
    EXPECT_TRUE(qmx_BiosFileDeviceMatch(id, id));
    EXPECT_EQ(QMX_G_ERROR_CD, 0);
    EXPECT_FALSE(qmx_BiosFileDeviceMatch(id, word({0x25, 0x32, 0x1e, 0x5b})));
    EXPECT_EQ(QMX_G_ERROR_CD, 9);
    // A leading zero digit is a blank in "%8x": such identifiers never match.
    const uint32_t low = word({0x01, 0x01, 0x1e, 0x5a});
    EXPECT_FALSE(qmx_BiosFileDeviceMatch(low, low));
}

}  // namespace
