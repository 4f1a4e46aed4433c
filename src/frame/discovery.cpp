// Adapter discovery, port lookup and the WWN / text conversions.
#include <arpa/inet.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"

dev_info dev_info_all[kMaxPorts];
int c_max_port = 0;
int skipInitRtn = 0;
const QMX_WWN wwn_all_zero = {{0, 0, 0, 0, 0, 0, 0, 0}};

bool isAllZero(const QMX_WWN &w) {
    return std::memcmp(w.wwn, wwn_all_zero.wwn, sizeof w.wwn) == 0;
}

int QMX_DevFind(void) {
    qmx::trace("QMX_DevFind START");
    std::memset(dev_info_all, 0, sizeof dev_info_all);
    c_max_port = 0;
    for (int n = 0; n < kMaxPorts; ++n) {
        char name[32], path[40];
        std::snprintf(name, sizeof name, "qmxldd%d", n);
        std::snprintf(path, sizeof path, "/dev/%s", name);
        struct stat st;
        if (stat(path, &st) != 0) continue;
        int fd = -1;
        if (open_ap(&fd, path) != 0) continue;
        qmx_ioctl_proc_info info;
        std::memset(&info, 0, sizeof info);
        bool answered = QMX_ExecIoctl(fd, int(IOCTL_QMX_SC_PRINFO), &info) == 0;
        // Closing after a failed request too: nothing depends on the leak.
        close_ap(&fd);
        if (!answered) continue;
        uint32_t word = ntohl(QMX_getQmxDeviceId(path));
        if (word == 0xFFFFFFFFu) continue;
        dev_info &d = dev_info_all[c_max_port];
        qmx::copyText(d.name, name);
        d.bus = info.bus_dev_func[0];
        d.dev = info.bus_dev_func[1];
        d.func = info.bus_dev_func[2];
        d.wwn = info.ww_name;
        d.device_id = word;
        ++c_max_port;
    }
    return 0;
}

int QMX_InitRoutine(QMX_WWN wwn) {
    qmx::trace("QMX_InitRoutine START");
    uint64_t want = changeWWN(wwn);
    if (skipInitRtn == 0) {
        if (QMX_DevFind() == 5) {  // never happens; kept for the contract
            qmx::trace("QMX_InitRoutine ABEND");
            return -1;
        }
        skipInitRtn = 1;
    }
    for (int i = 0; i < c_max_port; ++i) {
        if (dev_info_all[i].wwn != want) continue;
        if (dev_info_all[i].device_id == kUnsupportedDeviceWord) {
            qmx::trace("Unsupported HBA Board");
            QMX_G_ERROR_CD = QMX_ERR_UNSUPPORTED;
            qmx::trace("QMX_InitRoutine ABEND");
            return -1;
        }
        return i;
    }
    qmx::trace("Invalid WWN");
    QMX_G_ERROR_CD = QMX_ERR_UNKNOWN_WWN;
    qmx::trace("QMX_InitRoutine ABEND");
    return -1;
}

uint64_t changeWWN(QMX_WWN c) {
    qmx::trace("changeWWN START");
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | c.wwn[i];
    return v;
}

void getWWN(uint64_t l, QMX_WWN *wwn) {
    if (wwn == nullptr) return;
    for (int i = 7; i >= 0; --i) {
        wwn->wwn[i] = uint8_t(l & 0xFF);
        l >>= 8;
    }
}

uint64_t qmx_read_tbl(void *ptr, char size) {
    if (ptr == nullptr) return 0;
    if (size != 1 && size != 2 && size != 4 && size != 8) return 0;
    const auto *p = static_cast<const uint8_t *>(ptr);
    uint64_t v = 0;
    for (int i = 0; i < size; ++i) v = (v << 8) | p[i];
    return v;
}

char qmx_cnvc(char C) {
    if (C >= 'A' && C <= 'Z') return char(C - 'A' + 'a');
    return C;
}

namespace {
int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

int qmx_convert_string(char *string, uint64_t *value) {
    qmx::trace("qmx_convert_string START");
    if (value == nullptr) return 0;
    *value = 0;
    if (string == nullptr) return 0;
    const char *p = string;
    bool hex = p[0] == '0' && qmx_cnvc(p[1]) == 'x';
    if (hex) p += 2;
    for (;; ++p) {
        char c = *p;
        if (c == '\0' || c == ' ' || c == '\t' || c == ':') return 1;
        int d = hex ? hexDigit(c) : (c >= '0' && c <= '9' ? c - '0' : -1);
        if (d < 0) {
            qmx::trace("qmx_convert_string ABEND");
            return 0;
        }
        // Wraps silently past 64 bits, as the driver's own tools do.
        *value = hex ? (*value << 4) + uint64_t(d) : *value * 10 + uint64_t(d);
    }
}

int qmx_2CharTo1ByteHex(char *s, unsigned char *c) {
    qmx::trace("qmx_2CharTo1ByteHex START");
    if (s == nullptr || c == nullptr) {
        QMX_G_ERROR_CD = QMX_ERR_INTERNAL;
        qmx::trace("Unknown hex data");
        qmx::trace("qmx_2CharTo1ByteHex ABEND");
        return -1;
    }
    const char *p = s;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) p += 2;
    unsigned char byte = 0;
    int digits = 0;
    for (; *p; ++p) {
        int d = hexDigit(*p);
        if (d < 0) {
            QMX_G_ERROR_CD = QMX_ERR_INTERNAL;
            qmx::trace("Unknown hex data");
            qmx::trace("qmx_2CharTo1ByteHex ABEND");
            return -1;
        }
        byte = static_cast<unsigned char>((byte << 4) + d);
        ++digits;
    }
    *c = byte;
    if (digits >= 3) {
        QMX_G_ERROR_CD = QMX_ERR_INTERNAL;
        qmx::trace("unsupported 3 byte char");
        qmx::trace("qmx_2CharTo1ByteHex ABEND");
        return -1;
    }
    return 0;
}

int compDevice(const void *data1, const void *data2) {
    const auto *a = static_cast<const sysfs_dev *>(data1);
    const auto *b = static_cast<const sysfs_dev *>(data2);
    std::size_t la = strnlen(a->devname, sizeof a->devname);
    std::size_t lb = strnlen(b->devname, sizeof b->devname);
    if (la != lb) return la < lb ? -1 : 1;
    return std::memcmp(a->devname, b->devname, la);
}

int readDevice(sysfs_dev_t *dev) {
    static const char kDir[] = "/sys/block";
    if (dev == nullptr) {
        qmx::trace("readDevice parameter is NULL");
        return -1;
    }
    dev->list_num = 0;
    dev->list = nullptr;
    DIR *dir = opendir(kDir);
    if (dir == nullptr) {
        qmx::tracef("%s:opendir(%s) %s", "readDevice", kDir, std::strerror(errno));
        return -1;
    }
    int result = 0;
    int count = 0;
    int capacity = 0;  // grown by doubling: a host can have many thousand disks
    sysfs_dev *list = nullptr;
    while (struct dirent *ent = readdir(dir)) {
        if (std::strncmp(ent->d_name, "sd", 2) != 0) continue;
        char path[512];
        std::snprintf(path, sizeof path, "%s/%s/device", kDir, ent->d_name);
        struct stat st;
        if (stat(path, &st) != 0) {
            qmx::tracef("%s:stat(%s) %s", "readDevice", path, std::strerror(errno));
            continue;
        }
        char link[512];
        ssize_t len = readlink(path, link, sizeof link - 1);
        if (len < 0) {
            qmx::tracef("%s:readlink(%s) %s", "readDevice", path, std::strerror(errno));
            continue;
        }
        link[len] = '\0';
        char *last = std::strrchr(link, '/');
        char *tail = last ? last + 1 : link;
        char *save = nullptr;
        char *host = strtok_r(tail, ":", &save);
        char *chan = host ? strtok_r(nullptr, ":", &save) : nullptr;
        char *tgt = chan ? strtok_r(nullptr, ":", &save) : nullptr;
        char *lun = tgt ? strtok_r(nullptr, ":", &save) : nullptr;
        int missing = !host ? 1 : !chan ? 2 : !tgt ? 3 : !lun ? 4 : 0;
        if (missing != 0) {
            qmx::tracef("%s:%s invalid format %d", "readDevice", path, missing);
            continue;
        }
        if (count == capacity) {
            int want = capacity == 0 ? 64 : capacity * 2;
            auto *grown = static_cast<sysfs_dev *>(
                std::realloc(list, sizeof(sysfs_dev) * std::size_t(want)));
            if (grown == nullptr) {
                qmx::tracef("%s:remalloc() error %s", "readDevice", std::strerror(errno));
                result = -1;
                break;
            }
            list = grown;
            capacity = want;
        }
        sysfs_dev &d = list[count++];
        std::memset(&d, 0, sizeof d);
        d.hostno = uint8_t(std::atoi(host));
        d.tid = uint8_t(std::atoi(tgt));
        d.lun = uint16_t(std::atoi(lun));
        qmx::copyText(d.devname, ent->d_name);
    }
    dev->list_num = count;
    if (closedir(dir) != 0) qmx::tracef("%s:closedir() %s", "readDevice", std::strerror(errno));
    if (result == -1) {
        std::free(list);
        dev->list = nullptr;
        return -1;
    }
    dev->list = list;
    if (count > 1) std::qsort(list, std::size_t(count), sizeof(sysfs_dev), compDevice);
    return 0;
}
