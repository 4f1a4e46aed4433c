// Disk configuration record: which LUs (by their identification data) each
// adapter sees through each target port, kept in
// "/opt/kestrel/drivers/hba/qmxldd_lumap.conf" with a check flag.
#include "diskconf/diskconf.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "config/config.h"
#include "frame/fileio.h"
#include "frame/frame.h"

namespace {

constexpr int kAdaptMax = QMX_DISK_CONF_ADAPT_MAX;
constexpr int kTgtMax = QMX_DISK_CONF_TGT_MAX;
constexpr int kLuMax = QMX_DISK_CONF_LU_MAX;
constexpr std::size_t kLineBuf = 512;  // lines of up to 511 characters
constexpr char kFlagKey[] = "qmx_unmatched_dev=";

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Matches `line` against a pattern of literal text and "%d" fields the way
// sscanf counts them: the number of fields converted before the first
// mismatch.  Numbers are clamped to the int range instead of overflowing.
int matchFields(const char *line, const char *pattern, int *out, int cap) {
    int n = 0;
    const char *s = line;
    for (const char *p = pattern; *p != '\0';) {
        if (p[0] == '%' && p[1] == 'd') {
            while (*s == ' ' || *s == '\t') ++s;
            bool neg = false;
            if (*s == '+' || *s == '-') neg = *s++ == '-';
            if (*s < '0' || *s > '9') return n;
            long long v = 0;
            for (; *s >= '0' && *s <= '9'; ++s)
                if (v <= INT_MAX) v = v * 10 + (*s - '0');
            if (neg) v = -v;
            if (n < cap) out[n] = int(v < INT_MIN ? INT_MIN : v > INT_MAX ? INT_MAX : v);
            ++n;
            p += 2;
            continue;
        }
        if (*s != *p) return n;
        ++s;
        ++p;
    }
    return n;
}

bool formatError() {
    qmx::setError(9);
    return false;
}

// The data after "=0x" on a line: nullptr (code 9) without it.
const char *hexData(const char *line) {
    const char *eq = std::strchr(line, '=');
    if (eq == nullptr || eq[1] != '0' || eq[2] != 'x') return nullptr;
    return eq + 3;
}

// Reads exactly `n` byte pairs.
bool readPairs(const char *hex, uint8_t *dst, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        int hi = hexDigit(hex[2 * i]);
        if (hi < 0) return false;
        int lo = hexDigit(hex[2 * i + 1]);
        if (lo < 0) return false;
        dst[i] = uint8_t(hi << 4 | lo);
    }
    return true;
}

bool parseLine(char *line, QMX_DISK_CONFIG *tbl) {
    if (std::strncmp(line, "adapter-", 8) != 0) return formatError();
    int f[3] = {0, 0, 0};
    // The keyword tests are substring tests in this order.
    if (std::strstr(line, "pci") != nullptr) {
        if (matchFields(line, "adapter-%d-pci=0x", f, 3) != 1) return formatError();
        if (malloc_lumap_tbl(tbl, f[0], -1, -1) != 0) return false;
        const char *hex = hexData(line);
        if (hex == nullptr || !readPairs(hex, tbl->adapt[f[0]]->bus_dev_func, 3)) return formatError();
        return true;
    }
    if (std::strstr(line, "target") == nullptr) return formatError();
    if (std::strstr(line, "wwpn") != nullptr) {
        if (matchFields(line, "adapter-%d-target-%d-wwpn=0x", f, 3) != 2) return formatError();
        if (malloc_lumap_tbl(tbl, f[0], f[1], -1) != 0) return false;
        const char *hex = hexData(line);
        if (hex == nullptr || !readPairs(hex, tbl->adapt[f[0]]->tgt[f[1]]->wwn.wwn, 8))
            return formatError();
        return true;
    }
    if (std::strstr(line, "lu") == nullptr) return formatError();
    if (matchFields(line, "adapter-%d-target-%d-lu-%d=0x", f, 3) != 3) return formatError();
    if (malloc_lumap_tbl(tbl, f[0], f[1], f[2]) != 0) return false;
    const char *hex = hexData(line);
    if (hex == nullptr) return formatError();
    // Half the characters after "=0x"; an odd last digit is dropped.
    std::size_t bytes = std::strlen(hex) / 2;
    // One byte at least, so that an empty identifier still has a buffer.
    auto *buf = static_cast<uint8_t *>(std::malloc(bytes == 0 ? 1 : bytes));
    if (buf == nullptr) {
        qmx::sysError("malloc", errno);
        return false;
    }
    if (!readPairs(hex, buf, bytes)) {
        std::free(buf);
        return formatError();
    }
    QMX_DISK_CONF_LU *lu = tbl->adapt[f[0]]->tgt[f[1]]->lu[f[2]];
    std::free(lu->luid);  // a repeated line replaces the earlier one
    lu->luid = buf;
    lu->valid_luid_byte = uint8_t(bytes);  // one byte: longer data keeps the low 8 bits
    return true;
}

// Counts of non-null pointers at each level.
void recount(QMX_DISK_CONFIG *tbl) {
    int adapters = 0;
    for (QMX_DISK_CONF_ADAPT *a : tbl->adapt) {
        if (a == nullptr) continue;
        ++adapters;
        int targets = 0;
        for (QMX_DISK_CONF_TGT *t : a->tgt) {
            if (t == nullptr) continue;
            ++targets;
            int lus = 0;
            for (QMX_DISK_CONF_LU *l : t->lu) lus += l != nullptr;
            t->lu_cnt = lus;
        }
        a->tgt_cnt = targets;
    }
    tbl->adapt_cnt = adapters;
}

struct FileCloser {
    void operator()(FILE *fp) const noexcept { std::fclose(fp); }
};

// Two lower-case hexadecimal digits per byte.
void appendHex(std::string &out, const uint8_t *p, std::size_t n) {
    static constexpr char kDigits[] = "0123456789abcdef";
    for (std::size_t i = 0; i < n; ++i) {
        out.push_back(kDigits[p[i] >> 4]);
        out.push_back(kDigits[p[i] & 15]);
    }
}

// Gives an empty slot a zeroed record; a filled one stays.  false when the
// allocation fails (`line` traced, code 1).
template <class Record>
bool allocEmpty(Record *&slot, const char *line) {
    if (slot != nullptr) return true;
    slot = static_cast<Record *>(std::calloc(1, sizeof(Record)));
    if (slot != nullptr) return true;
    qmx::trace(line);
    qmx::setError(1);
    return false;
}

}  // namespace

int malloc_lumap_tbl(QMX_DISK_CONFIG *tbl, int adapt_cnt, int tgt_cnt, int lu_cnt) {
    if (tbl == nullptr || adapt_cnt < 0 || adapt_cnt >= kAdaptMax ||
        (tgt_cnt != -1 && (tgt_cnt < 0 || tgt_cnt >= kTgtMax)) ||
        (lu_cnt != -1 && (lu_cnt < 0 || lu_cnt >= kLuMax))) {
        qmx::trace("Over max number malloc error");
        qmx::setError(9);
        return -1;
    }
    QMX_DISK_CONF_ADAPT *&a = tbl->adapt[adapt_cnt];
    if (!allocEmpty(a, "QMX_DISK_CONF_ADAPT malloc error")) return -1;
    if (tgt_cnt == -1) return 0;
    QMX_DISK_CONF_TGT *&t = a->tgt[tgt_cnt];
    if (!allocEmpty(t, "QMX_DISK_CONF_TGT malloc error")) return -1;
    if (lu_cnt == -1) return 0;
    if (!allocEmpty(t->lu[lu_cnt], "QMX_DISK_CONF_LU malloc error")) return -1;
    return 0;
}

int parse_lumap_line(char *line, QMX_DISK_CONFIG *tbl) {
    if (line == nullptr || tbl == nullptr) {
        qmx::setError(9);
        return -1;
    }
    return parseLine(line, tbl) ? 0 : -1;
}

namespace qmx::diskconf {

int readLuMap(const char *path, int *flag, QMX_DISK_CONFIG *tbl) noexcept {
    trace("qmx_ReadLuMapConf START");
    if (flag != nullptr) *flag = 0;
    std::unique_ptr<FILE, FileCloser> fp(std::fopen(path, "re"));
    if (!fp) {
        int err = errno;
        trace("lumap.conf file open error.");
        // No record yet is an empty configuration.  A record that exists but
        // cannot be read is an error: treating it as empty would let the
        // next capture overwrite its check flag unseen.
        if (err == ENOENT) return 0;
        sysError("fopen", err);
        trace("qmx_ReadLuMapConf ABEND");
        return -1;
    }
    char line[kLineBuf];
    int rc = 0;
    while (std::fgets(line, sizeof line, fp.get()) != nullptr) {
        if (char *nl = std::strrchr(line, '\n')) *nl = '\0';
        if (std::strncmp(line, kFlagKey, sizeof kFlagKey - 1) == 0) {
            if (flag != nullptr) *flag = atoiText(line + sizeof kFlagKey - 1);
            if (tbl == nullptr) break;
            continue;
        }
        if (tbl == nullptr) continue;
        if (parse_lumap_line(line, tbl) != 0) {
            trace("parse_lumap_line error");
            rc = -1;
            break;
        }
    }
    // A read error is not the end of the record: what was read so far must
    // not be taken (nor written back) as the whole record.
    if (rc == 0 && std::ferror(fp.get()) != 0) {
        sysError("fread", errno != 0 ? errno : EIO);
        rc = -1;
    }
    fp.reset();
    if (rc != 0) {
        trace("qmx_ReadLuMapConf ABEND");
        return rc;
    }
    if (tbl != nullptr) recount(tbl);
    trace("qmx_ReadLuMapConf END");
    return 0;
}

void buildLuMapText(int flag, const QMX_DISK_CONFIG *tbl, std::string &out) {
    char head[96];
    int n = std::snprintf(head, sizeof head, "qmx_unmatched_dev=%d\n", flag);
    out.append(head, std::size_t(n));
    if (tbl == nullptr) return;
    int adapters = 0;
    for (int a = 0; a < kAdaptMax && adapters < tbl->adapt_cnt; ++a) {
        const QMX_DISK_CONF_ADAPT *ad = tbl->adapt[a];
        if (ad == nullptr) continue;
        ++adapters;
        n = std::snprintf(head, sizeof head, "adapter-%d-pci=0x", a);
        out.append(head, std::size_t(n));
        appendHex(out, ad->bus_dev_func, 3);
        out.push_back('\n');
        int targets = 0;
        for (int t = 0; t < kTgtMax && targets < ad->tgt_cnt; ++t) {
            const QMX_DISK_CONF_TGT *tg = ad->tgt[t];
            if (tg == nullptr) continue;
            ++targets;
            n = std::snprintf(head, sizeof head, "adapter-%d-target-%d-wwpn=0x", a, t);
            out.append(head, std::size_t(n));
            appendHex(out, tg->wwn.wwn, 8);
            out.push_back('\n');
            // The prefix "adapter-A-target-T-lu-" is the same for every LU
            // of the target.
            int prefix = std::snprintf(head, sizeof head, "adapter-%d-target-%d-lu-", a, t);
            int lus = 0;
            for (int l = 0; l < kLuMax && lus < tg->lu_cnt; ++l) {
                const QMX_DISK_CONF_LU *lu = tg->lu[l];
                if (lu == nullptr) continue;
                ++lus;
                out.append(head, std::size_t(prefix));
                char num[16];
                int k = std::snprintf(num, sizeof num, "%d=0x", l);
                out.append(num, std::size_t(k));
                if (lu->luid != nullptr) appendHex(out, lu->luid, lu->valid_luid_byte);
                out.push_back('\n');
            }
        }
    }
}

int writeLuMap(const char *path, int flag, QMX_DISK_CONFIG *tbl) noexcept {
    trace("qmx_WriteLuMapConf START");
    std::string text;
    try {
        buildLuMapText(flag, tbl, text);
    } catch (...) {
        sysError("malloc", ENOMEM);
        trace("qmx_WriteLuMapConf ABEND");
        return -1;
    }
    // The record is replaced as a whole: the new text goes to a file beside
    // it, is flushed, takes the old file's owner and mode and is renamed over
    // it (a symbolic link is followed, not replaced).  A failure part-way
    // leaves the old record as it was, never a truncated one.
    FileError fe;
    if (!replaceFile(path, text, &fe)) {
        sysError(fe.call != nullptr ? fe.call : "open", fe.err);
        trace("lumap.conf file open error.");
        setError(1);
        trace("qmx_WriteLuMapConf ABEND");
        return -1;
    }
    trace("qmx_WriteLuMapConf END");
    return 0;
}


bool storeLuReply(const uint8_t *reply, QMX_DISK_CONFIG *tbl, int a, int t) noexcept {
    mp_lu_header hdr;
    std::memcpy(&hdr, reply, sizeof hdr);
    // The driver's count is bounded by the room the buffer has.
    uint32_t count = hdr.lu_count < uint32_t(kLuMax) ? hdr.lu_count : uint32_t(kLuMax);
    for (uint32_t i = 0; i < count; ++i) {
        mp_lu_entry le;
        std::memcpy(&le, reply + sizeof(mp_lu_header) + i * sizeof(mp_lu_entry), sizeof le);
        // A LUN the record cannot hold fails the capture (code 9) rather
        // than being left out: a record that hides an LU would report no
        // change where there is one.
        int lun = le.lun < uint32_t(kLuMax) ? int(le.lun) : kLuMax;
        if (malloc_lumap_tbl(tbl, a, t, lun) != 0) return false;
        QMX_DISK_CONF_LU *lu = tbl->adapt[a]->tgt[t]->lu[lun];
        std::size_t len = le.luid_size < QMX_MP_LUID_LEN ? le.luid_size : QMX_MP_LUID_LEN;
        auto *id = static_cast<uint8_t *>(std::malloc(len == 0 ? 1 : len));
        if (id == nullptr) {
            trace("luid malloc error");
            setError(1);
            return false;
        }
        std::memcpy(id, le.luid, len);
        std::free(lu->luid);  // a LUN the driver lists twice keeps its last entry
        lu->luid = id;
        lu->valid_luid_byte = uint8_t(len);
    }
    QMX_DISK_CONF_TGT *tg = tbl->adapt[a]->tgt[t];
    int lus = 0;
    for (QMX_DISK_CONF_LU *l : tg->lu) lus += l != nullptr;
    tg->lu_cnt = lus;
    return true;
}

}  // namespace qmx::diskconf

int qmx_ReadLuMapConf(int *flag, QMX_DISK_CONFIG *tbl) {
    return qmx::diskconf::readLuMap(kLuMapPath, flag, tbl);
}

int qmx_WriteLuMapConf(int flag, QMX_DISK_CONFIG *tbl) {
    return qmx::diskconf::writeLuMap(kLuMapPath, flag, tbl);
}

namespace {

struct SpecialFiles {
    qmx_spfile *files = nullptr;
    ~SpecialFiles() {
        if (files != nullptr) close_special_file(files);
    }
};

// Asks for the LU map of one target.  false only when the capture must
// stop; a refused request leaves the target without LUs.
bool captureLus(int fd, const mp_target_entry &e, QMX_DISK_CONFIG *tbl, int a, int t,
                uint8_t *lumap) {
    std::memset(lumap, 0, sizeof(mp_lu_header));
    auto *hdr = reinterpret_cast<mp_lu_header *>(lumap);
    hdr->nodename = e.nodename;
    hdr->portname = e.portname;
    hdr->groupid = e.groupid;
    if (::ioctl(fd, static_cast<unsigned long>(IOCTL_QMX_MP_LUMAP), lumap) != 0) {
        qmx::tracef("IOCTL_QMX_MP_LUMAP(%d)\n", errno);
        // The capture goes on without this target's LUs; the reason code
        // tells the caller that the record is not the whole map.
        qmx::setError(QMX_ERR_DRIVER);
        return true;
    }
    return qmx::diskconf::storeLuReply(lumap, tbl, a, t);
}

}  // namespace

int qmx_GetCurrentLuMap(QMX_DISK_CONFIG *tbl) {
    qmx::trace("qmx_GetCurrentLuMap START");
    auto abend = [] {
        qmx::trace("qmx_GetCurrentLuMap ABEND");
        return -1;
    };
    if (tbl == nullptr) {
        qmx::setError(2);
        return abend();
    }
    const std::size_t tgtSize = QMX_MP_TARGET_SIZE(QMX_MP_TGTMAP_PORT);
    const std::size_t luSize = QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX);
    std::unique_ptr<uint8_t, decltype(&std::free)> tgtmap(
        static_cast<uint8_t *>(std::malloc(tgtSize)), &std::free);
    if (!tgtmap) {
        qmx::tracef("tgtmap malloc(%d) errno=%d", int(tgtSize), errno);
        qmx::setError(1);
        return abend();
    }
    std::unique_ptr<uint8_t, decltype(&std::free)> lumap(
        static_cast<uint8_t *>(std::malloc(luSize)), &std::free);
    if (!lumap) {
        qmx::tracef("lumap malloc(%d) errno=%d", int(luSize), errno);
        qmx::setError(1);
        return abend();
    }
    SpecialFiles sp;
    int opened = open_special_file(&sp.files);
    if (opened <= 0) {
        qmx::trace("open_special_file is 0");
        qmx::setError(1);
        return abend();
    }
    int adapters = 0;
    for (int n = 0; n < kMaxPorts; ++n) {
        const qmx_spfile &port = sp.files[n];
        if (!spfileValid(port)) continue;
        int a = adapters;
        if (malloc_lumap_tbl(tbl, a, -1, -1) != 0) return abend();
        ++adapters;
        QMX_DISK_CONF_ADAPT *ad = tbl->adapt[a];
        ad->bus_dev_func[0] = port.bus;
        ad->bus_dev_func[1] = port.dev;
        ad->bus_dev_func[2] = port.func;

        auto *map = reinterpret_cast<qmx_mp_target *>(tgtmap.get());
        std::memset(map, 0, tgtSize);
        map->header.entry_count = QMX_MP_TGTMAP_PORT;
        map->header.target_count = QMX_MP_TGTMAP_PORT;
        if (::ioctl(port.fd, static_cast<unsigned long>(IOCTL_QMX_MP_TGTMAP), map) != 0) {
            qmx::tracef("IOCTL_QMX_MP_TGTMAP(%d)\n", errno);
            qmx::setError(QMX_ERR_DRIVER);
            ad->tgt_cnt = 0;
            continue;
        }
        uint32_t count = map->header.target_count < uint32_t(QMX_MP_TGTMAP_PORT)
                             ? map->header.target_count
                             : uint32_t(QMX_MP_TGTMAP_PORT);
        int targets = 0;
        for (uint32_t i = 0; i < count; ++i) {
            mp_target_entry e;
            std::memcpy(&e, tgtmap.get() + sizeof(mp_target_header) + i * sizeof e, sizeof e);
            if ((e.flags & 3) != 3) continue;
            int t = targets++;
            if (malloc_lumap_tbl(tbl, a, t, -1) != 0) return abend();
            QMX_DISK_CONF_TGT *tg = ad->tgt[t];
            getWWN(e.portname, &tg->wwn);
            if (!captureLus(port.fd, e, tbl, a, t, lumap.get())) return abend();
        }
        ad->tgt_cnt = targets;
    }
    tbl->adapt_cnt = adapters;
    qmx::trace("qmx_GetCurrentLuMap END");
    return 0;
}

// ---------------------------------------------------------------------------
// Exported calls
// ---------------------------------------------------------------------------
QMX_STATUS QMX_GetDiskConfig(int *check_flag, QMX_DISK_CONFIG *check_config) {
    return qmx::run("QMX_GetDiskConfig", [&](qmx::Frame &f) {
        if (check_config != nullptr) std::memset(check_config, 0, sizeof *check_config);
        int flag = 0;
        int rc = qmx_ReadLuMapConf(&flag, check_config);
        if (check_flag != nullptr) *check_flag = flag == 1 ? 1 : 0;
        if (rc != 0) {
            qmx::trace("QMX_GetDiskConfig error");
            return f.fail();
        }
        return f.ok();
    });
}

QMX_STATUS QMX_SetDiskConfig(int check_flag) {
    return qmx::run("QMX_SetDiskConfig", [&](qmx::Frame &f) {
        struct Tree {
            QMX_DISK_CONFIG root{};
            ~Tree() { QMX_DiskConfigTblFree(&root); }
        };
        auto tree = std::make_unique<Tree>();
        int flag = 0;
        if (qmx_ReadLuMapConf(&flag, &tree->root) != 0) {
            qmx::trace("qmx_ReadLuMapConf error");
            return f.fail();
        }
        if (qmx_WriteLuMapConf(check_flag == 1 ? 1 : 0, &tree->root) != 0) {
            qmx::trace("qmx_WriteLuMapConf error");
            return f.fail();
        }
        return f.ok();
    });
}

QMX_STATUS QMX_AutoSetDiskConfig(QMX_DISK_CONFIG *check_config) {
    return qmx::run("QMX_AutoSetDiskConfig", [&](qmx::Frame &f) {
        if (!f.notNull(check_config, "Config", " == NULL")) {
            // The lock is released on this path although it was not taken
            // (traced; a lock another process holds is left to it).
            qmx::releaseOwnLock(1);
            return f.fail();
        }
        if (!f.lock(1)) return f.status();
        // The root is an output: cleared, like QMX_GetDiskConfig clears it.
        // A tree still held in it must have been freed by the caller.
        std::memset(check_config, 0, sizeof *check_config);
        int flag = 0;
        if (qmx_ReadLuMapConf(&flag, nullptr) != 0) {
            qmx::trace("qmx_ReadLuMapConf error");
            return f.fail();
        }
        if (qmx_GetCurrentLuMap(check_config) != 0) {
            qmx::trace("qmx_GetCurrentLuMap error");
            return f.fail();
        }
        if (qmx_WriteLuMapConf(flag, check_config) != 0) {
            qmx::trace("qmx_WriteLuMapConf error");
            return f.fail();
        }
        return f.ok();
    });
}

void QMX_DiskConfigTblFree(QMX_DISK_CONFIG *tbl) {
    if (tbl == nullptr) return;
    for (QMX_DISK_CONF_ADAPT *&a : tbl->adapt) {
        if (a == nullptr) continue;
        for (QMX_DISK_CONF_TGT *&t : a->tgt) {
            if (t == nullptr) continue;
            for (QMX_DISK_CONF_LU *&l : t->lu) {
                if (l == nullptr) continue;
                std::free(l->luid);
                std::free(l);
                l = nullptr;
            }
            std::free(t);
            t = nullptr;
        }
        std::free(a);
        a = nullptr;
    }
    tbl->adapt_cnt = 0;
}
