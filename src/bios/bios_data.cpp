// BIOS settings of a port as one record: from the adapter through the BIOS
// tool's listing, or decoded from a backup file the tool wrote.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "bios/bios.h"
#include "bios/bios_data.h"
#include "frame/frame.h"

namespace {

// The port's information record, read on its own descriptor.  0 / -1.
int readPortInfo(int ind, qmx_ioctl_proc_info *info) {
    char path[300];
    std::snprintf(path, sizeof path, "/dev/%s", dev_info_all[ind].name);
    int fd = -1;
    if (open_ap(&fd, path) != 0) return -1;
    std::memset(info, 0, sizeof *info);
    int rc = QMX_ExecIoctl(fd, int(IOCTL_QMX_SC_PRINFO), info);
    close_ap(&fd);
    if (rc != 0) {
        qmx::trace("IOCTL_QMX_SC_PRINFO");
        return -1;
    }
    return 0;
}

// The first bytes of the backup file, as many as the decoder can use.
// Returns the count, or -1 when the file cannot be opened.  A read error
// ends the data where it struck: the decoder then fails at the first field
// it cannot fill, with code 9 and that field's message, as for a file that
// ends there.
long readBackupFile(char *file, uint8_t (&buf)[kBiosFileSize]) {
    FILE *fp = QMX_fopen(file, const_cast<char *>("rbe"));
    if (fp == nullptr) return -1;
    std::size_t n = 0;
    while (n < sizeof buf) {
        std::size_t r = std::fread(buf + n, 1, sizeof buf - n, fp);
        if (r == 0) break;
        n += r;
    }
    std::fclose(fp);
    return long(n);
}

QMX_STATUS fromFile(qmx::Frame &f, int ind, char *file, QMX_BIOS_DATA *out) {
    qmx_ioctl_proc_info info;
    if (readPortInfo(ind, &info) != 0) return f.fail();
    // The port's number within its adapter.  The record carries it twice:
    // as the PCI function (byte 149) and as the driver's port_no (byte 150);
    // they agree wherever a port's number equals its function.  The backup
    // file is the BIOS tool's, which lays its port blocks out by PCI
    // function, so the function is taken.
    int port_no = info.bus_dev_func[2];

    uint8_t buf[kBiosFileSize];
    long len = readBackupFile(file, buf);
    if (len < 0) return f.fail();
    qmx_bios_file_header hdr{};
    if (qmx_ReadBiosFileHeader(buf, std::size_t(len), &hdr) != 0) return f.fail();
    // The adapter's identifier word as the driver returns it.
    char path[300];
    std::snprintf(path, sizeof path, "/dev/%s", dev_info_all[ind].name);
    if (!qmx_BiosFileDeviceMatch(hdr.device_id, QMX_getQmxDeviceId(path))) return f.fail();
    if (qmx_ReadBiosFileBody(buf, std::size_t(len), port_no, hdr.pre_conf, out) != 0)
        return f.fail();
    return f.ok();
}

QMX_STATUS live(qmx::Frame &f, QMX_WWN wwn, QMX_BIOS_DATA *out) {
    int ind = f.port(wwn);
    if (ind < 0) return f.fail();
    if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
    auto low = [](int entry) { return uint32_t(QMX_G_CfgList[entry].param_val); };
    out->hbaBios = low(QMX_CFG_HBA_BIOS);
    out->bootPri = low(QMX_CFG_BOOT_PRIORITY);
    out->spinupDelay = low(QMX_CFG_SPINUP_DELAY);
    out->connectType = QMX_UINT8(low(QMX_CFG_CONNECTION_TYPE));
    out->dataRate = QMX_UINT8(low(QMX_CFG_DATA_RATE));
    out->pBindings = QMX_UINT8(low(QMX_CFG_PERSISTENT_BINDINGS));
    out->forceDefault = int(low(QMX_CFG_FORCE_DEFAULT));
    out->loginDelay = low(QMX_CFG_LOGIN_DELAY);
    out->preConfigure = int(low(QMX_CFG_PRE_CONFIGURE));
    for (int i = 0; i < kBootPriorityRows; ++i) {
        getWWN(QMX_G_BootPriority[i].wwn, &out->bootPriList.entry[i].PortWWN);
        out->bootPriList.entry[i].lun = QMX_UINT32(QMX_G_BootPriority[i].lun);
    }
    // The additional WWPN goes through its text form and back.
    char text[24];
    std::snprintf(text, sizeof text, "0x%" PRIx64, QMX_G_CfgList[QMX_CFG_ADDITIONAL_WWPN].param_val);
    uint64_t v = 0;
    qmx_convert_string(text, &v);
    getWWN(v, &out->addWwpn);
    return f.ok();
}

}  // namespace

QMX_STATUS QMX_GetBiosData(QMX_WWN wwn, char *restore_file, QMX_BIOS_DATA *bios_dat) {
    return qmx::run("QMX_GetBiosData", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(bios_dat, "bios_dat")) return f.fail();
        if (restore_file == nullptr || restore_file[0] == '\0') return live(f, wwn, bios_dat);
        return fromFile(f, ind, restore_file, bios_dat);
    });
}
