// Driver request numbers against the driver's table, written out literally.
// (Record layouts are checked at compile time in the header itself.)
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "qmxldd_ioctl.h"

namespace {

struct RequestRow {
    const char *name;
    unsigned long number;  // as the driver defines it
    unsigned long header;  // the constant of the header
    unsigned ordinal;
    unsigned size;
};

// The driver's request table, numbers written out literally.
const RequestRow kRequests[] = {
    {"IOCTL_QMX_SCSI_PASSTHRU", 0xC04C4601, IOCTL_QMX_SCSI_PASSTHRU, 0x01, 76},
    {"IOCTL_QMX_PORT_ATTR", 0xC0804608, IOCTL_QMX_PORT_ATTR, 0x08, 128},
    {"IOCTL_QMX_DIAG0", 0xC0904609, IOCTL_QMX_DIAG0, 0x09, 144},
    {"IOCTL_QMX_SC_PRINFO", 0xC400460D, IOCTL_QMX_SC_PRINFO, 0x0D, 1024},
    {"IOCTL_QMX_MP_RDPARM", 0xC0304610, IOCTL_QMX_MP_RDPARM, 0x10, 48},
    {"IOCTL_QMX_MP_WRPARM", 0xC0304611, IOCTL_QMX_MP_WRPARM, 0x11, 48},
    {"IOCTL_QMX_MP_TGTMAP", 0xC0204612, IOCTL_QMX_MP_TGTMAP, 0x12, 32},
    {"IOCTL_QMX_MP_LUMAP", 0xC0C04613, IOCTL_QMX_MP_LUMAP, 0x13, 192},
    {"IOCTL_QMX_WWN_INFO", 0xC0C84614, IOCTL_QMX_WWN_INFO, 0x14, 200},
    {"IOCTL_QMX_MP_PTHEALTH", 0xC0284615, IOCTL_QMX_MP_PTHEALTH, 0x15, 40},
    {"IOCTL_QMX_MP_LGTGTMAP", 0xC0104616, IOCTL_QMX_MP_LGTGTMAP, 0x16, 16},
    {"IOCTL_QMX_MP_LGPATH1", 0xC0184617, IOCTL_QMX_MP_LGPATH1, 0x17, 24},
    {"IOCTL_QMX_MP_SETPATH", 0xC01C4618, IOCTL_QMX_MP_SETPATH, 0x18, 28},
    {"IOCTL_QMX_ADP_PATHDEL", 0xC008461D, IOCTL_QMX_ADP_PATHDEL, 0x1D, 8},
    {"IOCTL_QMX_SC_SCSISCAN", 0xC008461E, IOCTL_QMX_SC_SCSISCAN, 0x1E, 8},
    {"IOCTL_QMX_ADP_PATHCHG", 0xC008461F, IOCTL_QMX_ADP_PATHCHG, 0x1F, 8},
    {"IOCTL_QMX_HBA_ISOLATION", 0xC8704620, IOCTL_QMX_HBA_ISOLATION, 0x20, 2160},
    {"IOCTL_QMX_READ_APPARAM", 0xC0804621, IOCTL_QMX_READ_APPARAM, 0x21, 128},
    {"IOCTL_QMX_MP_LG_DEV_PARM", 0xC0A04622, IOCTL_QMX_MP_LG_DEV_PARM, 0x22, 160},
};

}  // namespace

TEST(IoctlRequests, HeaderListAndNumbersMatchTheDriverTable) {
    struct Listed {
        std::string name;
        unsigned long number;
        unsigned ordinal, size;
    };
    std::vector<Listed> listed;
#define QMX_TEST_LIST(name, ord, size) listed.push_back({#name, (name), (ord), (size)});
    QMX_FOR_EACH_REQUEST(QMX_TEST_LIST)
#undef QMX_TEST_LIST
    ASSERT_EQ(listed.size(), std::size(kRequests));
    for (size_t i = 0; i < listed.size(); ++i) {
        const RequestRow &r = kRequests[i];
        SCOPED_TRACE(r.name);
        EXPECT_EQ(listed[i].name, r.name);
        EXPECT_EQ(listed[i].number, r.number);
        EXPECT_EQ(listed[i].ordinal, r.ordinal);
        EXPECT_EQ(listed[i].size, r.size);
        EXPECT_EQ(r.header, r.number);
    }
}
