// LU path status: the listing of every LU path the driver knows, sorted by
// group and LUN, the path health check, and the change of one path's state.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "multipath/mpruntime.h"
#include "multipath/numbering.h"

namespace qmx::mp {

namespace {

constexpr uint32_t kGroups = 256;
constexpr uint32_t kLuns = 2048;  // LUN keys 0..2047 of the low 14 bits

uint32_t be32(const unsigned char *p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

}  // namespace

bool MapBuffers::allocTarget() noexcept {
    tgt.reset(new (std::nothrow) unsigned char[QMX_MP_TARGET_SIZE(QMX_MP_TGTMAP_PORT)]());
    return tgt != nullptr;
}

bool MapBuffers::allocLu() noexcept {
    lu.reset(new (std::nothrow) unsigned char[QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX)]());
    return lu != nullptr;
}

int readTargetMap(DriverChannel &ch, int fd, const MapBuffers &b) noexcept {
    qmx_mp_target *m = b.tgtmap();
    m->header.entry_count = QMX_MP_TGTMAP_PORT;
    m->header.target_count = QMX_MP_TGTMAP_PORT;
    if (ch.request(fd, IOCTL_QMX_MP_TGTMAP, m) != 0) return -1;
    return int(bounded(m->header.target_count, QMX_MP_TGTMAP_PORT));
}

int readLuMap(DriverChannel &ch, int fd, const MapBuffers &b) noexcept {
    qmx_mp_lu *m = b.lumap();
    m->header.lu_count = 0;
    if (ch.request(fd, IOCTL_QMX_MP_LUMAP, m) != 0) return -1;
    return int(bounded(m->header.lu_count, QMX_MP_LUMAP_MAX));
}

void gatherLuPaths(DriverChannel &ch, const qmx_spfile *slots, const MapBuffers &b,
                   std::vector<LuWork> &out) {
    bool full = false;
    for (int s = 0; s < kMaxPorts && !full; ++s) {
        if (!spfileValid(slots[s])) continue;
        int targets = readTargetMap(ch, slots[s].fd, b);
        if (targets < 0) {
            tracef("IOCTL_QMX_MP_TGTMAP(%d)\n", errno);
            continue;
        }
        for (int t = 0; t < targets && !full; ++t) {
            mp_target_entry te = targetEntry(b.tgtmap(), std::size_t(t));
            mp_lu_header &h = b.lumap()->header;
            h.nodename = te.nodename;
            h.portname = te.portname;
            h.groupid = te.groupid;
            if (te.attribute == 3) continue;
            int lus = readLuMap(ch, slots[s].fd, b);
            if (lus < 0) {
                tracef("IOCTL_QMX_MP_LUMAP(%d)\n", errno);
                continue;
            }
            const mp_lu_entry *e = luEntries(b.lumap());
            for (int j = 0; j < lus; ++j) {
                // A path the listing cannot show (LUN 2048 or above) takes
                // no place under the bound.
                if ((e[j].lun & 0x3FFF) >= kLuns) continue;
                if (out.size() >= kMaxLuPaths) {
                    trace("LU path list full (65536 paths)");
                    full = true;
                    break;
                }
                LuWork w;
                w.group = h.groupid;
                w.status = e[j].status;
                w.priority = e[j].priority;
                w.owner = e[j].owner_ctl;
                w.pathid = e[j].pathid;
                w.slot = uint8_t(s);
                w.tid = te.targetid;
                w.instance = uint8_t(slots[s].instance);
                w.ioerror = e[j].ioerror;
                w.iocount = e[j].iocount;
                w.lun = e[j].lun;
                w.portname = h.portname;
                w.nodename = h.nodename;
                out.push_back(w);
            }
        }
    }
}

void listingOrder(const std::vector<LuWork> &w, std::vector<uint32_t> &order) {
    // Ordered by key = group * 2048 + (LUN & 0x3FFF), gathering order kept
    // within a key; paths whose LUN bits are 2048 or more are left out.
    constexpr uint32_t kKeys = kGroups * kLuns;
    auto keyOf = [](const LuWork &x) -> uint32_t {
        uint32_t l = x.lun & 0x3FFF;
        return l < kLuns ? uint32_t(x.group) * kLuns + l : kKeys;
    };
    if (w.size() < kKeys / 64) {
        // A short list: a stable sort costs less than walking every key.
        order.clear();
        for (uint32_t i = 0; i < w.size(); ++i)
            if (keyOf(w[i]) < kKeys) order.push_back(i);
        std::stable_sort(order.begin(), order.end(),
                         [&](uint32_t a, uint32_t b) { return keyOf(w[a]) < keyOf(w[b]); });
        return;
    }
    // A long one: a counting sort, linear in the paths and the keys.
    std::vector<uint32_t> start(kKeys + 1, 0);
    for (const LuWork &x : w) {
        uint32_t k = keyOf(x);
        if (k < kKeys) ++start[k + 1];
    }
    for (uint32_t k = 0; k < kKeys; ++k) start[k + 1] += start[k];
    order.assign(start[kKeys], 0);
    for (uint32_t i = 0; i < w.size(); ++i) {
        uint32_t k = keyOf(w[i]);
        if (k < kKeys) order[start[k]++] = i;
    }
}

bool emitLuPaths(const std::vector<LuWork> &w, const std::vector<uint32_t> &order,
                 const qmx_mp_target *tgtmap, QMX_LUPATH_STATUS *out) noexcept {
    for (uint32_t i : order) {
        if (out->lupath_cnt < 0 || out->lupath_cnt >= QMX_LUPATH_MAX) return true;
        const LuWork &x = w[i];
        auto *r = static_cast<lupath_status *>(std::calloc(1, sizeof(lupath_status)));
        if (r == nullptr) return false;
        r->groupid = x.group;
        r->status = x.status;
        r->priority = x.priority;
        r->owner_ctl = x.owner;
        r->pathid = x.pathid;
        r->devno = x.slot;
        getWWN(x.portname, &r->wwn);
        r->tid = x.tid;
        getWWN(targetEntry(tgtmap, x.tid).nodename, &r->tid_wwn);  // tid < 256 entries
        r->instance = x.instance;
        r->ioerror = x.ioerror;
        r->iocount = x.iocount;
        r->lun = x.lun;
        out->lupath[out->lupath_cnt++] = r;
    }
    return true;
}

uint32_t reportLunsCount(const unsigned char *data) noexcept {
    uint32_t n = be32(data) / 8;
    return n < kLuns ? n : kLuns;
}

uint32_t reportLun(const unsigned char *data, uint32_t j) noexcept {
    // Entries 1..2048 at bytes 8j: the buffer holds 8 + 2048 * 8 bytes.
    return be32(data + 8 * std::size_t(j)) >> 16;
}

void healthCheck(DriverChannel &ch, const qmx_spfile *slots, bool add) {
    std::unique_ptr<unsigned char[]> data(new (std::nothrow) unsigned char[kReportLunsData + 8]);
    if (!data) return sysError("malloc3", ENOMEM);
    std::unique_ptr<unsigned char[]> sense(new (std::nothrow) unsigned char[QMX_PASSTHRU_SENSE_LEN]);
    if (!sense) return sysError("malloc4", ENOMEM);
    auto list = std::make_unique<qmx_ioctl_port_attr>();
    for (int s = 0; s < kMaxPorts; ++s) {
        if (!spfileValid(slots[s])) continue;
        std::memset(list.get(), 0, sizeof *list);
        list->flags = 1;
        qmx_ioctl_diag_req req;
        std::memset(&req, 0, sizeof req);
        req.sub_code = QMX_DIAG_SUB_TGTLIST;
        req.length = QMX_PORT_ATTR_LIST_LEN;
        req.addr = reinterpret_cast<uintptr_t>(list.get());
        if (ch.request(slots[s].fd, IOCTL_QMX_PORT_ATTR, &req) != 0) continue;
        uint32_t targets = bounded(list->tgt_num, QMX_PORT_ATTR_MAX_TARGETS);
        for (uint32_t t = 0; t < targets; ++t) {
            uint64_t wwpn;
            std::memcpy(&wwpn, &list->tgt_wwpn[t], sizeof wwpn);
            std::memset(data.get(), 0, kReportLunsData + 8);
            qmx_ioctl_scsi_passthru pt;
            std::memset(&pt, 0, sizeof pt);
            pt.flags = QMX_PASSTHRU_FLAGS;
            pt.data_len = QMX_PASSTHRU_DATA_LEN;
            pt.data_addr = reinterpret_cast<uintptr_t>(data.get());
            pt.port_wwn = wwpn;
            pt.lun = 0;
            pt.cdb_len = QMX_PASSTHRU_CDB_LEN;
            pt.cdb[0] = QMX_SCSI_REPORT_LUNS;
            pt.cdb[6] = uint8_t(QMX_PASSTHRU_DATA_LEN >> 24);
            pt.cdb[7] = uint8_t(QMX_PASSTHRU_DATA_LEN >> 16);
            pt.cdb[8] = uint8_t(QMX_PASSTHRU_DATA_LEN >> 8);
            pt.cdb[9] = uint8_t(QMX_PASSTHRU_DATA_LEN);
            pt.sense_addr = reinterpret_cast<uintptr_t>(sense.get());
            pt.opt = QMX_PASSTHRU_OPT;
            if (ch.request(slots[s].fd, IOCTL_QMX_SCSI_PASSTHRU, &pt) != 0) continue;
            uint32_t luns = reportLunsCount(data.get());
            for (uint32_t j = 1; j <= luns; ++j) {
                qmx_mp_path_health ph;
                std::memset(&ph, 0, sizeof ph);
                ph.flags = add ? QMX_PTHEALTH_ADD : 0;
                ph.Port_WWN = wwpn;
                ph.lun_id = reportLun(data.get(), j);
                if (ch.request(slots[s].fd, IOCTL_QMX_MP_PTHEALTH, &ph) != 0)
                    sysError("ioctl IOCTL_QMX_MP_PTHEALTH", errno);
            }
        }
    }
}

}  // namespace qmx::mp

using namespace qmx::mp;

int QMX_GetLuPathStatus_Impl(QMX_LUPATH_STATUS *lupath, unsigned char path_health_check_flag,
                             unsigned char only_path_health_check) {
    // The same trace names serve the listing, the health check and the
    // environment setter's immediate check.
    return qmx::run("QMX_GetLuPathStatus", [&](qmx::Frame &f) {
        if (!f.notNull(lupath, "lupath", " == NULL")) return f.fail();
        std::vector<LuWork> work;
        std::vector<uint32_t> order;
        try {
            work.reserve(kMaxLuPaths);
        } catch (const std::bad_alloc &) {
            qmx::sysError("malloc1", ENOMEM);
            return f.ok();
        }
        try {
            order.reserve(kMaxLuPaths);
        } catch (const std::bad_alloc &) {
            qmx::sysError("malloc2", ENOMEM);
            return f.ok();
        }
        std::memset(lupath->lupath, 0, sizeof lupath->lupath);
        lupath->lupath_cnt = 0;

        OpenDevices dev(f);
        if (dev.count <= 0) return f.ok();
        qmx_mp_parameters mp;
        if (qmx_mp_rdparm_tmp(dev.files, &mp) != 0) return f.fail(7);
        DriverChannel &ch = systemChannel();
        if (mp.mp_path_health_by_dsp != 0) healthCheck(ch, dev.files, path_health_check_flag == 1);
        if (only_path_health_check == 1) {
            qmx::trace("path health check finish");
            return f.ok();
        }
        MapBuffers b;
        if (!b.allocTarget()) {
            qmx::sysError("malloc5", ENOMEM);
            return f.fail();
        }
        if (!b.allocLu()) {
            qmx::sysError("malloc6", ENOMEM);
            return f.fail();
        }
        gatherLuPaths(ch, dev.files, b, work);
        listingOrder(work, order);
        if (!emitLuPaths(work, order, b.tgtmap(), lupath)) {
            // Nothing half made stays behind: a later release must not free
            // these records again.
            releaseLuPaths(lupath);
            std::memset(lupath->lupath, 0, sizeof lupath->lupath);
            lupath->lupath_cnt = 0;
            qmx::sysError("malloc", ENOMEM);
            return f.fail();
        }
        return f.ok();
    });
}

QMX_STATUS QMX_GetLuPathStatus(QMX_LUPATH_STATUS *lupath) {
    return QMX_GetLuPathStatus_Impl(lupath, 0, 0);
}

QMX_STATUS QMX_AddLuPathStatus(void) {
    auto own = std::unique_ptr<QMX_LUPATH_STATUS>(new (std::nothrow) QMX_LUPATH_STATUS);
    if (!own) {
        // No container: the listing reports its own null-argument failure.
        return QMX_GetLuPathStatus_Impl(nullptr, 1, 1);
    }
    own->lupath_cnt = 0;
    int st = QMX_GetLuPathStatus_Impl(own.get(), 1, 1);
    releaseLuPaths(own.get());
    return st;
}

void releaseLuPaths(QMX_LUPATH_STATUS *lupath) noexcept {
    if (lupath == nullptr) return;
    int n = lupath->lupath_cnt;
    if (n > QMX_LUPATH_MAX) n = QMX_LUPATH_MAX;
    for (int i = 0; i < n; ++i)
        if (lupath->lupath[i] != nullptr) std::free(lupath->lupath[i]);
}

// Traced and framed like the other release calls; a null container is
// accepted and the call always succeeds.
QMX_STATUS QMX_ReleaseLuPath(QMX_LUPATH_STATUS *lupath) {
    return qmx::run("QMX_ReleaseLuPath", [&](qmx::Frame &f) {
        releaseLuPaths(lupath);
        return f.ok();
    });
}

QMX_STATUS QMX_SetLuPathStatus(struct lupath_status *lupath) {
    return qmx::run("QMX_SetLuPathStatus", [&](qmx::Frame &f) {
        if (!f.notNull(lupath, "lupath", " == NULL")) return f.fail();
        char path[40];
        std::snprintf(path, sizeof path, "/dev/qmxldd%d", int(lupath->devno));
        int fd = -1;
        if (open_ap(&fd, path) != 0) return f.fail();
        qmx_mp_set_path sp;
        std::memset(&sp, 0, sizeof sp);
        sp.nodename = changeWWN(lupath->wwn);
        sp.portname = sp.nodename;
        sp.groupid = lupath->groupid;
        sp.newstatus = lupath->status;
        sp.lun = lupath->lun;
        int rc = systemChannel().request(fd, IOCTL_QMX_MP_SETPATH, &sp);
        int err = errno;
        close_ap(&fd);
        if (rc == 0) return f.ok();
        qmx::sysError("ioctl IOCTL_QMX_MP_SETPATH", err);
        int reason = 0;
        const char *text = nullptr;
        if (err == EBUSY) {
            qmx::trace("BUSY path-delete");
            QMX_G_ERROR_CD = QMX_ERR_LUPATH_BUSY;
        } else if (err == EIO && qmx::numbering::pathChangeReason(sp.err_code, &reason, &text)) {
            qmx::trace(text);
            QMX_G_ERROR_CD = reason;
        } else {
            QMX_G_ERROR_CD = 0;  // no reason the library knows
        }
        return f.fail();
    });
}
