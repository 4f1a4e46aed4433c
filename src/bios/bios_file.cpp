// Decoder of the BIOS tool's backup file: the header checks and the
// per-port settings of the BIOS and additional-WWN areas.  Every read is
// bounded by the bytes the file really holds.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "bios/bios_data.h"
#include "frame/frame.h"

const hba_bios_table hba_bios_lst[kHbaBiosRows] = {
    {"bios", 27, 0x01, 1, 0x100},
    {"boot_priority", 27, 0x01, 1, 0x100},
    {"boot_device", 27, 0x16, 8, 0x100},
    {"boot_device_clear", 27, 0x10, 16, 0x100},
    {"spinup_delay", 27, 0x01, 1, 0x100},
    {"connection_type", 27, 0x03, 1, 0x100},
    {"data_rate", 27, 0x04, 1, 0x100},
    {"persistent_bindings", 27, 0x05, 1, 0x100},
    {"force_default_parameter", 27, 0x05, 1, 0x100},
    {"wwn_of_hba", 4, 0x18, 8, 0x10},
    {"login_delay_time", 27, 0x06, 1, 0x100},
    {"log_erase", 27, 0x07, 1, 0x100},
    {"NULL", 0, 0, 0, 0},
};

namespace {

// A sequential reader over the file's bytes: a field is read whole or not
// at all, as one read call of the field's size would.
class Cursor {
public:
    Cursor(const uint8_t *data, std::size_t len) : data_(data), len_(len) {}
    bool read(void *dst, std::size_t n) {
        if (pos_ > len_ || n > len_ - pos_) return false;
        std::memcpy(dst, data_ + pos_, n);
        pos_ += n;
        return true;
    }
    void skip(std::size_t n) { pos_ += n; }  // a seek past the end succeeds
    void seek(std::size_t at) { pos_ = at; }

private:
    const uint8_t *data_;
    std::size_t len_;
    std::size_t pos_ = 0;
};

bool readField(Cursor &c, void *dst, std::size_t n, const char *name) {
    if (c.read(dst, n)) return true;
    qmx::tracef("Headder read error(%s)", name);
    QMX_G_ERROR_CD = 9;
    return false;
}

uint32_t onOff(uint8_t byte, uint8_t bit) { return (byte & bit) != 0 ? 1u : 0u; }

// The decoders of the layout rows, by option word.  `p` points at the
// port's value; `avail` bytes are readable from there.
using Decoder = void (*)(const uint8_t *p, QMX_BIOS_DATA *b);
struct RowDecoder {
    const char *attribute;
    std::size_t reach;  // bytes the decoder reads from p
    Decoder decode;
};

constexpr std::size_t kBootDeviceStride = 16;
const RowDecoder kDecoders[] = {
    {"bios", 1, [](const uint8_t *p, QMX_BIOS_DATA *b) { b->hbaBios = onOff(p[0], 0x80); }},
    {"boot_priority", 1, [](const uint8_t *p, QMX_BIOS_DATA *b) { b->bootPri = onOff(p[0], 0x10); }},
    {"boot_device", kBootDeviceStride * (QMX_BOOT_DEVICE_MAX - 1) + 10,
     [](const uint8_t *p, QMX_BIOS_DATA *b) {
         for (int i = 0; i < QMX_BOOT_DEVICE_MAX; ++i) {
             const uint8_t *row = p + kBootDeviceStride * std::size_t(i);
             b->bootPriList.entry[i].lun = QMX_UINT32(row[0] << 8 | row[1]);
             std::memcpy(b->bootPriList.entry[i].PortWWN.wwn, row + 2, 8);
         }
     }},
    {"spinup_delay", 1, [](const uint8_t *p, QMX_BIOS_DATA *b) { b->spinupDelay = onOff(p[0], 0x20); }},
    {"connection_type", 1,
     [](const uint8_t *p, QMX_BIOS_DATA *b) {
         b->connectType = p[0] == 0 ? 1 : p[0] == 1 ? 2 : p[0] == 3 ? 3 : 0;
     }},
    {"data_rate", 1,
     [](const uint8_t *p, QMX_BIOS_DATA *b) {
         uint8_t r = p[0];
         b->dataRate = (r == 0 || r == 1 || r == 2 || r == 4 || r == 8 || r == 10) ? r : 255;
     }},
    // Inverted, unlike the BIOS switch: a set bit means bindings are off.
    {"persistent_bindings", 1,
     [](const uint8_t *p, QMX_BIOS_DATA *b) { b->pBindings = (p[0] & 0x80) != 0 ? 0 : 1; }},
    {"force_default_parameter", 1,
     [](const uint8_t *p, QMX_BIOS_DATA *b) { b->forceDefault = int(onOff(p[0], 0x40)); }},
    {"wwn_of_hba", 8, [](const uint8_t *p, QMX_BIOS_DATA *b) { std::memcpy(b->addWwpn.wwn, p, 8); }},
    {"login_delay_time", 1,
     [](const uint8_t *p, QMX_BIOS_DATA *b) {
         b->loginDelay = ((p[0] & 0x80) != 0 && p[0] != 0xFF) ? QMX_UINT32(p[0] & 0x7F) : 255u;
     }},
    // These rows carry no setting of the record.
    {"boot_device_clear", 0, nullptr},
    {"log_erase", 0, nullptr},
};

}  // namespace

int qmx_ReadBiosFileHeader(const uint8_t *data, std::size_t len, qmx_bios_file_header *hdr) {
    Cursor c(data, len);
    return readField(c, &hdr->ver, 4, "ver") && readField(c, &hdr->bus, 1, "bus") &&
                   readField(c, &hdr->dev, 1, "dev") && readField(c, &hdr->func, 1, "func") &&
                   readField(c, &hdr->pkgcd, 1, "pkgcd") &&
                   readField(c, &hdr->device_id, 4, "device_id") &&
                   readField(c, &hdr->pre_conf, 1, "pre_conf")
               ? 0
               : -1;
}

bool qmx_BiosFileDeviceMatch(uint32_t file_id, uint32_t adapter_id) {
    // "%8x" pads with blanks, not zeros: an identifier whose top digit is 0
    // never matches, as it never has for this check.
    // The driver's word is put into network order first, so a file holding
    // the identifier's bytes in the order the driver returns them matches
    // on any host.
    char raw[16], swapped[16], adapter[16];
    std::snprintf(raw, sizeof raw, "%8x", file_id);
    std::snprintf(swapped, sizeof swapped, "%.2s%.2s%.2s%.2s", raw + 6, raw + 4, raw + 2, raw);
    std::snprintf(adapter, sizeof adapter, "%8x", unsigned(htonl(adapter_id)));
    if (std::strcmp(swapped, adapter) == 0) return true;
    QMX_G_ERROR_CD = 9;
    qmx::tracef("Headder read error(device_id unmatch) %s %s", swapped, adapter);
    return false;
}

int qmx_read_restorefile(const hba_bios_table *trg, const uint8_t *data, std::size_t len,
                         int port_no, QMX_BIOS_DATA *bios_data) {
    for (const RowDecoder &d : kDecoders) {
        if (std::strcmp(d.attribute, trg->attribute) != 0) continue;
        if (d.decode == nullptr) return 0;
        std::size_t off = trg->adress + std::size_t(port_no) * trg->next_port_byte;
        if (port_no < 0 || off > len || d.reach > len - off) {
            qmx::tracef("%s out of area", trg->attribute);
            QMX_G_ERROR_CD = 9;
            return -1;
        }
        d.decode(data + off, bios_data);
        return 0;
    }
    return 0;  // a row without decoder reads nothing
}

int qmx_read_preconf(const char *title, const char *attribute, uint8_t data,
                     QMX_BIOS_DATA *bios_dat) {
    (void)title;  // the listing title of the same setting, for the trace of a caller
    if (std::strcmp(attribute, "pre_configure") != 0) return 0;
    bios_dat->preConfigure = (data == 1 || data == 3) ? 1 : (data == 0 || data == 2) ? 0 : 255;
    return 0;
}

int qmx_ReadBiosFileBody(const uint8_t *data, std::size_t len, int port_no, uint8_t pre_conf,
                         QMX_BIOS_DATA *bios_data) {
    Cursor c(data, len);
    c.seek(13);
    c.skip(3);
    uint8_t reserved[8];
    uint8_t bios[HBA_BIOS_SIZE];
    uint8_t addwwn[ADDWWN_SIZE];
    if (!c.read(reserved, sizeof reserved)) {
        QMX_G_ERROR_CD = 9;
        return -1;
    }
    c.seek(kBiosFileAreaOffset);
    if (!c.read(bios, sizeof bios)) {
        qmx::trace("HBA_BIOS_SIZE read error");
        QMX_G_ERROR_CD = 9;
        return -1;
    }
    if (!c.read(addwwn, sizeof addwwn)) {
        qmx::trace("ADDWWN_SIZE read error");
        QMX_G_ERROR_CD = 9;
        return -1;
    }
    // The port number comes from the driver: a file holds four ports.
    if (port_no < 0 || port_no >= kBiosFilePorts) {
        qmx::tracef("port_no out of range(%d)", port_no);
        QMX_G_ERROR_CD = 10;
        return -1;
    }
    for (const hba_bios_table *row = hba_bios_lst; std::strcmp(row->attribute, "NULL") != 0; ++row) {
        int rc = 0;
        if (row->sector_no == kSectorBios)
            rc = qmx_read_restorefile(row, bios, sizeof bios, port_no, bios_data);
        else if (row->sector_no == kSectorAddWwn)
            rc = qmx_read_restorefile(row, addwwn, sizeof addwwn, port_no, bios_data);
        if (rc != 0) return -1;
    }
    qmx_read_preconf("PRE CONFIGURE", "pre_configure", pre_conf, bios_data);
    return 0;
}
