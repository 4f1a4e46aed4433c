// Driver request numbers and record layouts, checked at the byte level the
// driver sees them.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
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

template <typename T>
uint64_t readLE(const T &rec, size_t off, size_t width) {
    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v |= uint64_t(p[off + i]) << (8 * i);
    return v;
}

}  // namespace

TEST(IoctlRequests, EveryNumberDecodesToItsOrdinalSizeTypeAndDirection) {
    std::set<unsigned> ordinals;
    for (const auto &r : kRequests) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(r.header, r.number);
        EXPECT_EQ(_IOC_TYPE(r.number), unsigned('F'));
        EXPECT_EQ(_IOC_NR(r.number), r.ordinal);
        EXPECT_EQ(_IOC_SIZE(r.number), r.size);
        EXPECT_EQ(_IOC_DIR(r.number), unsigned(_IOC_READ | _IOC_WRITE));
        EXPECT_TRUE(ordinals.insert(r.ordinal).second) << "ordinal used twice";
        // ioctl() takes an int request: the number must survive the narrowing.
        EXPECT_EQ(static_cast<unsigned long>(static_cast<unsigned>(static_cast<int>(r.number))),
                  r.number);
    }
}

TEST(IoctlRequests, RequestListMatchesTheTable) {
    struct Listed { std::string name; unsigned long number; unsigned ordinal, size; };
    std::vector<Listed> listed;
#define QMX_TEST_LIST(name, ord, size) listed.push_back({#name, (name), (ord), (size)});
    QMX_FOR_EACH_REQUEST(QMX_TEST_LIST)
#undef QMX_TEST_LIST
    ASSERT_EQ(listed.size(), std::size(kRequests));
    for (size_t i = 0; i < listed.size(); ++i) {
        SCOPED_TRACE(kRequests[i].name);
        EXPECT_EQ(listed[i].name, kRequests[i].name);
        EXPECT_EQ(listed[i].number, kRequests[i].number);
        EXPECT_EQ(listed[i].ordinal, kRequests[i].ordinal);
        EXPECT_EQ(listed[i].size, kRequests[i].size);
    }
}

TEST(IoctlRecords, IsolationRecordFieldsLandAtDriverOffsets) {
    auto rec = std::make_unique<qmx_isol_info>();
    std::memset(rec.get(), 0, sizeof(*rec));
    rec->set_opr = QMX_ISOL_OPR_RECOVER;
    rec->ld_err_count_s = -2;
    rec->to_err_count = 0x1234;
    rec->force_recv = 1;
    rec->scsi_to_retry = 7;
    rec->errcode = QMX_ISOL_ERR_REFUSED;
    rec->retry_cnt[999] = 0x0A0B;
    rec->retry_cnt[QMX_ISOL_RETRY_CNT - 1] = 0x7FFF;
    EXPECT_EQ(readLE(*rec, 1, 1), 3u);
    EXPECT_EQ(readLE(*rec, 24, 2), 0xFFFEu);
    EXPECT_EQ(readLE(*rec, 36, 2), 0x1234u);
    EXPECT_EQ(readLE(*rec, 78, 1), 1u);
    EXPECT_EQ(readLE(*rec, 90, 2), 7u);
    EXPECT_EQ(readLE(*rec, 111, 1), 2u);
    EXPECT_EQ(readLE(*rec, 112 + 2 * 999, 2), 0x0A0Bu);
    EXPECT_EQ(readLE(*rec, 2158, 2), 0x7FFFu);
}

TEST(IoctlRecords, MapBuffersIndexEntriesAtTheDriverStride) {
    // LU map at full capacity: the caller reads entry i at 32 + 160 * i.
    std::vector<uint8_t> lubuf(QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX));
    auto *lu = reinterpret_cast<qmx_mp_lu *>(lubuf.data());
    lu->header.groupid = 9;
    lu->header.lu_count = QMX_MP_LUMAP_MAX;
    mp_lu_entry *last = &lu->entry[QMX_MP_LUMAP_MAX - 1];
    last->lun = 0x00C0FFEE;
    last->luid[QMX_MP_LUID_LEN - 1] = 0x5A;
    const size_t lastOff = 32 + 160 * size_t(QMX_MP_LUMAP_MAX - 1);
    EXPECT_EQ(lubuf[17], 9);
    EXPECT_EQ(lubuf[24] | lubuf[25] << 8 | lubuf[26] << 16 | lubuf[27] << 24, QMX_MP_LUMAP_MAX);
    EXPECT_EQ(lubuf[lastOff + 24], 0xEE);
    EXPECT_EQ(lubuf[lastOff + 26], 0xC0);
    EXPECT_EQ(lubuf[lastOff + 32 + 127], 0x5A);
    EXPECT_EQ(lastOff + 160, lubuf.size());

    // Target map: entry i at 8 + 24 * i, flags after the two WWNs.
    std::vector<uint8_t> tbuf(QMX_MP_TARGET_SIZE(QMX_MP_TGTMAP_PORT));
    auto *tm = reinterpret_cast<qmx_mp_target *>(tbuf.data());
    tm->header.target_count = 2;
    tm->entry[1].portname = 0x500000000000AA01ull;
    tm->entry[1].flags = 3;
    tm->entry[1].instance = 4;
    EXPECT_EQ(tbuf[4], 2);
    EXPECT_EQ(tbuf[8 + 24 + 8], 0x01);
    EXPECT_EQ(tbuf[8 + 24 + 15], 0x50);
    EXPECT_EQ(tbuf[8 + 24 + 16], 3);
    EXPECT_EQ(tbuf[8 + 24 + 21], 4);
}

TEST(IoctlRecords, RequestRecordsCarryFieldsWhereTheDriverReadsThem) {
    qmx_ioctl_scsi_passthru pt{};
    pt.flags = QMX_PASSTHRU_FLAGS;
    pt.data_len = QMX_PASSTHRU_DATA_LEN;
    pt.port_wwn = 0x2100001122334455ull;
    pt.cdb_len = QMX_PASSTHRU_CDB_LEN;
    pt.cdb[0] = QMX_SCSI_REPORT_LUNS;
    pt.opt = QMX_PASSTHRU_OPT;
    EXPECT_EQ(readLE(pt, 1, 1), 0x81u);
    EXPECT_EQ(readLE(pt, 6, 2), 16392u);
    EXPECT_EQ(readLE(pt, 16, 8), 0x2100001122334455ull);
    EXPECT_EQ(readLE(pt, 33, 1), 12u);
    EXPECT_EQ(readLE(pt, 40, 1), 0xA0u);
    EXPECT_EQ(readLE(pt, 74, 1), 8u);

    qmx_mp_set_path sp{};
    sp.err_code = 20;
    sp.lun = 0x3FFF;
    EXPECT_EQ(readLE(sp, 23, 1), 20u);
    EXPECT_EQ(readLE(sp, 24, 4), 0x3FFFu);

    qmx_mp_lg_dev_param dp{};
    dp.id_len = 0x0110;
    dp.alt_path_num = 5;
    dp.write_retries = 6;
    EXPECT_EQ(readLE(dp, 8, 2), 0x0110u);
    EXPECT_EQ(readLE(dp, 144, 1), 5u);
    EXPECT_EQ(readLE(dp, 146, 1), 6u);

    // The EFI option word at 512 holds the connection type in its byte 3,
    // the word at 516 the data rate in byte 0 and the login delay in byte 2.
    EFI_OPT_0_T w0{};
    w0.connect_type = 0xC1;
    EFI_OPT_1_T w1{};
    w1.data_rate = 0xD2;
    w1.login_delay = 0xE3;
    EXPECT_EQ(readLE(w0, 0, 4), 0xC1000000u);
    EXPECT_EQ(readLE(w1, 0, 4), 0x00E300D2u);

    diag_ioctl d{};
    d.sub_cmd = QMX_DG_RDHG;
    d.uni.offset = QMX_EFI_OPT_1_WORD;
    d.length = 4;
    EXPECT_EQ(readLE(d, 0, 1), 0x36u);
    EXPECT_EQ(readLE(d, 4, 4), 516u);
    EXPECT_EQ(readLE(d, 132, 4), 4u);
}
