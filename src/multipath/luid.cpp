// LU identifiers: the list of distinct LUs by identifier, and the per-LU
// limits the driver applies to one of them.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "multipath/mpruntime.h"

namespace qmx::mp {

namespace {

// The list starts with room for 16384 LUs and doubles when full, up to the
// driver's LU path maximum (no more distinct LUs can exist).  Its capacity
// follows from its count, so any caller can append.
constexpr int kInitialLuIds = 16384;
constexpr int kMaxLuIds = QMX_LUPATH_MAX;

int capacityFor(int count) {
    int cap = kInitialLuIds;
    while (cap < count) cap *= 2;
    return cap;
}

}  // namespace

bool LuIdIndex::seen(const unsigned char *id) const {
    for (const auto &[len, set] : byLen_)
        if (set.count(std::string_view(reinterpret_cast<const char *>(id), len)) != 0) return true;
    return false;
}

void LuIdIndex::add(const unsigned char *id, std::size_t len) {
    byLen_[len].insert(std::string_view(reinterpret_cast<const char *>(id), len));
}

int addLuIds(QMX_NMPATH_STATUS *nm, const qmx_mp_lu *lump, uint32_t count, LuIdIndex &index,
             int *) noexcept {
    try {
        const mp_lu_entry *e = luEntries(lump);
        for (uint32_t j = 0; j < bounded(count, QMX_MP_LUMAP_MAX); ++j) {
            const unsigned char *id = e[j].luid;
            if (index.seen(id)) continue;
            if (nm->info_cnt >= kMaxLuIds) {
                trace("LU ID list full");
                return 1;
            }
            int cap = capacityFor(nm->info_cnt);
            if (nm->info_cnt == cap) {
                void *grown = std::realloc(nm->info, std::size_t(cap) * 2 * sizeof(QMX_NMPATH_LU));
                if (grown == nullptr) return -1;
                nm->info = static_cast<QMX_NMPATH_LU *>(grown);
            }
            uint32_t size = bounded(e[j].luid_size, QMX_MP_LUID_LEN);
            auto *copy = static_cast<unsigned char *>(std::calloc(size + 1, 1));
            if (copy == nullptr) return -1;
            std::memcpy(copy, id, size);
            QMX_NMPATH_LU &lu = nm->info[nm->info_cnt];
            std::memset(&lu, 0, sizeof lu);
            lu.group_id = lump->header.groupid;
            lu.lu_num = e[j].lun;
            lu.id_size = uint8_t(size);
            lu.type = e[j].id_type;
            lu.luid_num = copy;
            ++nm->info_cnt;
            index.add(copy, size);
        }
        return 0;
    } catch (...) {
        return -1;
    }
}

}  // namespace qmx::mp

using namespace qmx::mp;

int qmx_luid_dupli_chk(QMX_NMPATH_STATUS *nm, qmx_mp_lu *lump) {
    if (nm == nullptr || lump == nullptr || nm->info == nullptr) return -1;
    try {
        LuIdIndex index;
        for (int i = 0; i < nm->info_cnt; ++i)
            if (nm->info[i].luid_num != nullptr) index.add(nm->info[i].luid_num, nm->info[i].id_size);
        return addLuIds(nm, lump, lump->header.lu_count, index, nullptr);
    } catch (...) {
        return -1;
    }
}

int QMX_GetAllLuID(QMX_NMPATH_STATUS *nm) {
    QMX_STATUS st = qmx::run("QMX_GetAllLuID", [&](qmx::Frame &f) {
        if (!f.notNull(nm, "nm", " == NULL")) return f.fail();
        MapBuffers b;
        if (!b.allocTarget()) {
            qmx::tracef("tgtmap malloc(%u) errno=%d", QMX_MP_TARGET_SIZE(QMX_MP_TGTMAP_PORT), ENOMEM);
            return f.fail(1);
        }
        if (!b.allocLu()) {
            qmx::tracef("lumap malloc(%u) errno=%d", QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX), ENOMEM);
            return f.fail(1);
        }
        OpenDevices dev(f);
        qmx_spfile *files = dev.files;
        int opened = dev.count;
        if (opened <= 0) {
            qmx::trace("open_special_file is 0");
            return f.fail(1);
        }
        nm->info_cnt = 0;
        nm->info = static_cast<QMX_NMPATH_LU *>(std::malloc(std::size_t(kInitialLuIds) * sizeof(QMX_NMPATH_LU)));
        if (nm->info == nullptr) {
            qmx::tracef("lumap malloc(%zu) errno=%d", std::size_t(kInitialLuIds) * sizeof(QMX_NMPATH_LU), ENOMEM);
            return f.fail(1);
        }
        DriverChannel &ch = systemChannel();
        LuIdIndex index;
        for (int s = 0; s < kMaxPorts; ++s) {
            if (!spfileValid(files[s])) continue;
            int targets = readTargetMap(ch, files[s].fd, b);
            if (targets < 0) {
                qmx::tracef("IOCTL_QMX_MP_TGTMAP(%d)\n", errno);
                continue;
            }
            for (int t = 0; t < targets; ++t) {
                mp_target_entry te = targetEntry(b.tgtmap(), std::size_t(t));
                if ((te.flags & 1) == 0) continue;
                mp_lu_header &h = b.lumap()->header;
                h.nodename = te.nodename;
                h.portname = te.portname;
                h.groupid = te.groupid;
                int lus = readLuMap(ch, files[s].fd, b);
                if (lus < 0) {
                    qmx::tracef("IOCTL_QMX_MP_LUMAP(%d)\n", errno);
                    continue;
                }
                int added = addLuIds(nm, b.lumap(), uint32_t(lus), index, nullptr);
                if (added < 0) {
                    releaseLuIds(nm);
                    return f.fail(1);
                }
                if (added > 0) {
                    // The list is full: no further LU map is asked for, and
                    // the cut is reported (the list holds what fitted).
                    qmx::setError(QMX_ERR_SIZE_LIMIT);
                    return f.ok();
                }
            }
        }
        return f.ok();
    });
    return st == 0 ? 0 : -1;
}

void QMX_ReleaseLuIDPath(QMX_NMPATH_STATUS *nm) {
    // Traced and framed like the other release calls; a null list is
    // nothing to free.
    qmx::run("QMX_ReleaseLuIDPath", [&](qmx::Frame &f) {
        releaseLuIds(nm);
        return f.ok();
    });
}

void releaseLuIds(QMX_NMPATH_STATUS *nm) noexcept {
    if (nm == nullptr) return;
    if (nm->info != nullptr) {
        for (int i = 0; i < nm->info_cnt; ++i) {
            std::free(nm->info[i].luid_num);
            nm->info[i].luid_num = nullptr;
            std::free(nm->info[i].trans_luid);
            nm->info[i].trans_luid = nullptr;
        }
    }
    std::free(nm->info);
    nm->info = nullptr;
}

QMX_STATUS QMX_GetLuIDInformation(QMX_NMPATH_LU nm, QMX_LUID_INFO *info) {
    return qmx::run("QMX_GetLuIDInformation", [&](qmx::Frame &f) {
        if (!f.out(info, "info", " == NULL")) return f.fail();
        if (QMX_DevFind() == 5 || c_max_port <= 0) {
            qmx::setError(QMX_ERR_DRIVER);  // no port to ask
            return f.fail();
        }
        qmx_mp_lg_dev_param rec;
        for (int i = 0; i < c_max_port && i < kMaxPorts; ++i) {
            std::memset(&rec, 0, sizeof rec);
            std::size_t len = nm.luid_num != nullptr ? nm.id_size : 0;
            if (len > QMX_LG_DEV_ID_LEN) len = QMX_LG_DEV_ID_LEN;
            rec.id_len = nm.id_size;
            rec.id_type = nm.type;
            if (len > 0) std::memcpy(rec.identifier, nm.luid_num, len);
            int fd = qmx::mp::openPort(i);
            if (fd < 0) continue;
            int rc = systemChannel().request(fd, IOCTL_QMX_MP_LG_DEV_PARM, &rec);
            close_ap(&fd);
            if (rc == 0) {
                info->alter = rec.alt_path_num;
                info->offline = rec.offline_path_num;
                info->panic = rec.write_retries;
                return f.ok();
            }
            qmx::trace("IOCTL_QMX_MP_LG_DEV_PARM fail");
        }
        return f.fail(7);
    });
}
