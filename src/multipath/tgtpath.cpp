// Target path status (physical paths merged with the driver's logical
// targets) and the logical configuration of the host's SCSI disks.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <utility>

#include "multipath/mpruntime.h"

namespace qmx::mp {

namespace {

constexpr int kLogicalGroups = 64;

uint64_t pairKey(uint64_t hi, uint64_t lo) { return (hi << 8) | lo; }

struct PairHash {
    std::size_t operator()(const std::pair<uint64_t, uint8_t> &p) const noexcept {
        return std::hash<uint64_t>()(p.first * 0x9E3779B97F4A7C15ull ^ p.second);
    }
};

}  // namespace

void gatherTargetPaths(DriverChannel &ch, const qmx_spfile *slots, std::vector<qmx_tgt> &out,
                       bool *anyOk, bool *anyFailed) {
    MapBuffers b;
    if (!b.allocTarget()) throw std::bad_alloc();
    for (int s = 0; s < kMaxPorts; ++s) {
        if (!spfileValid(slots[s])) continue;
        int n = readTargetMap(ch, slots[s].fd, b);
        if (n < 0) {
            sysError("ioctl IOCTL_QMX_MP_TGTMAP", errno);
            *anyFailed = true;
            continue;
        }
        *anyOk = true;
        for (int i = 0; i < n && out.size() < QMX_TGTPATH_MAX; ++i) {
            mp_target_entry e = targetEntry(b.tgtmap(), std::size_t(i));
            qmx_tgt r;
            std::memset(&r, 0, sizeof r);
            r.groupid = e.groupid;
            r.pathid = e.pathid;
            r.tgtid = e.targetid;
            r.attribute = e.attribute;
            r.nodename = e.nodename;
            r.portname = e.portname;
            r.devno = uint8_t(s);
            r.instance = uint8_t(slots[s].instance);
            r.valid = 1;
            r.pb_attribute = 255;
            r.link = e.flags == 3 ? 1 : 0;
            out.push_back(r);
        }
    }
}

void mergeLogicalTargets(const mp_lgpath_info1_entry *e, std::size_t n, const qmx_spfile *slots,
                         std::vector<qmx_tgt> &recs) {
    // Node (type 1) and port (type 2) names by instance and target id: the
    // first entry of each in list order.
    std::unordered_map<uint64_t, uint64_t> node, port;
    std::vector<std::size_t> byGroup[kLogicalGroups];
    for (std::size_t i = 0; i < n; ++i) {
        uint64_t k = pairKey(e[i].instance, e[i].tid);
        if (e[i].type == QMX_LGPATH_TYPE_NODE) node.emplace(k, e[i].data);
        if (e[i].type == QMX_LGPATH_TYPE_PORT) port.emplace(k, e[i].data);
        if (e[i].type == QMX_LGPATH_TYPE_TARGET && e[i].group < kLogicalGroups)
            byGroup[e[i].group].push_back(i);
    }
    // The first open slot of each instance.
    int slotOf[256];
    for (int &x : slotOf) x = -1;
    for (int s = kMaxPorts - 1; s >= 0; --s)
        if (spfileValid(slots[s])) slotOf[uint8_t(slots[s].instance)] = s;
    // The first physical path of each (port name, instance).
    const std::size_t physical = recs.size();
    std::unordered_map<std::pair<uint64_t, uint8_t>, std::size_t, PairHash> firstPath;
    firstPath.reserve(physical);
    for (std::size_t i = 0; i < physical; ++i) firstPath.emplace(std::make_pair(recs[i].portname, recs[i].instance), i);

    for (const std::vector<std::size_t> &group : byGroup) {
        for (std::size_t i : group) {
            qmx_tgt w;
            std::memset(&w, 0, sizeof w);
            w.groupid = e[i].group;
            w.instance = e[i].instance;
            w.tgtid = e[i].tid;
            w.attribute = uint8_t(e[i].data & 0xFF);
            uint64_t k = pairKey(e[i].instance, e[i].tid);
            if (auto it = node.find(k); it != node.end()) w.nodename = it->second;
            if (auto it = port.find(k); it != port.end()) w.portname = it->second;
            if (int s = slotOf[w.instance]; s >= 0) {
                w.devno = uint8_t(s);
                w.adapport = slots[s].ww_name;
                w.valid = 1;
            }
            auto hit = firstPath.find(std::make_pair(w.portname, w.instance));
            if (hit != firstPath.end()) {
                qmx_tgt &r = recs[hit->second];
                r.groupid = w.groupid;
                r.tgtid = w.tgtid;
                r.valid = w.valid;
                r.pb_attribute = w.attribute;
            } else if (recs.size() < QMX_TGTPATH_MAX) {
                w.pathid = 255;
                w.link = 0;
                recs.push_back(w);
            }
        }
    }
}

}  // namespace qmx::mp

using namespace qmx::mp;

QMX_STATUS QMX_GetTargetPathStatus(QMX_TGTPATH_STATUS *tgtout) {
    return qmx::run("QMX_GetTargetPathStatus", [&](qmx::Frame &f) {
        if (!f.notNull(tgtout, "tgtout", " == NULL")) return f.fail();
        tgtout->tgtpath_cnt = 0;
        OpenDevices dev(f);
        if (dev.files == nullptr) return f.fail();
        DriverChannel &ch = systemChannel();
        std::vector<qmx_tgt> recs;
        bool ok = false, failed = false;
        try {
            gatherTargetPaths(ch, dev.files, recs, &ok, &failed);
        } catch (const std::bad_alloc &) {
            qmx::sysError("malloc", ENOMEM);
            return f.fail();
        }
        if (failed && !ok) return f.fail();
        std::unique_ptr<unsigned char[]> buf(new (std::nothrow) unsigned char[QMX_MP_LGPATH1_SIZE(QMX_MP_LGPATH1_MAX)]());
        if (!buf) {
            qmx::sysError("malloc", ENOMEM);
            return f.fail();
        }
        auto *list = reinterpret_cast<qmx_mp_lgpath_info1 *>(buf.get());
        bool listed = false;
        for (int s = 0; s < kMaxPorts && !listed; ++s) {
            if (!spfileValid(dev.files[s])) continue;
            list->header.entry_count = QMX_MP_LGPATH1_MAX;
            list->header.lgpath_info1_count = 0;
            if (ch.request(dev.files[s].fd, IOCTL_QMX_MP_LGPATH1, list) == 0)
                listed = true;
            else
                qmx::sysError("ioctl IOCTL_QMX_MP_LGPATH1", errno);
        }
        uint32_t n = listed ? bounded(list->header.lgpath_info1_count, QMX_MP_LGPATH1_MAX) : 0;
        mergeLogicalTargets(reinterpret_cast<const mp_lgpath_info1_entry *>(buf.get() + sizeof(mp_lgpath_info1_header)),
                            n, dev.files, recs);
        for (const qmx_tgt &r : recs) {
            auto *p = static_cast<qmx_tgt *>(std::malloc(sizeof(qmx_tgt)));
            if (p == nullptr) {
                qmx::sysError("malloc", ENOMEM);
                return f.fail();
            }
            std::memcpy(p, &r, sizeof r);
            tgtout->tgtpath[tgtout->tgtpath_cnt++] = p;
        }
        return f.ok();
    });
}

QMX_STATUS QMX_ReleaseTargetPathStatus(QMX_TGTPATH_STATUS *tgtout) {
    return qmx::run("QMX_ReleaseTargetPathStatus", [&](qmx::Frame &f) {
        if (!f.notNull(tgtout, "tgtout")) return f.fail();
        uint32_t n = bounded(tgtout->tgtpath_cnt, QMX_TGTPATH_MAX);
        for (uint32_t i = 0; i < n; ++i)
            if (tgtout->tgtpath[i] != nullptr) std::free(tgtout->tgtpath[i]);
        return f.ok();
    });
}

QMX_STATUS QMX_GetLogicalConfiguration(QMX_LOGICAL_CONF *conf) {
    return qmx::run("GetLogicalConfiguration", [&](qmx::Frame &f) {
        if (conf == nullptr) {
            qmx::trace("parameter error");
            return f.fail(2);
        }
        auto failFree = [&](const char *msg, int code) {
            if (msg != nullptr) qmx::trace(msg);
            std::free(conf->logical);
            conf->logical = nullptr;
            return f.fail(code);
        };
        sysfs_dev_t disks{0, nullptr};
        if (readDevice(&disks) != 0) return failFree("readDevice error", 1);
        std::unique_ptr<sysfs_dev, decltype(&std::free)> own(disks.list, &std::free);
        OpenDevices dev(f);
        if (dev.files == nullptr) return failFree(nullptr, 1);
        std::unique_ptr<unsigned char[]> buf(
            new (std::nothrow) unsigned char[QMX_MP_LGTARGET_SIZE(QMX_MP_LGTARGET_MAX)]());
        if (!buf) return failFree("malloc error", 1);
        auto *map = reinterpret_cast<qmx_mp_lgtarget *>(buf.get());
        const auto *entries = reinterpret_cast<const mp_lgtarget_entry *>(buf.get() + sizeof(mp_lgtarget_header));

        // The instance of each disk's SCSI host, read once per host; the
        // disks of each instance in list order.
        std::map<int, int> hostInstance;
        std::unordered_map<int, std::vector<int>> disksOf;
        int count = disks.list_num > 0 && disks.list != nullptr ? disks.list_num : 0;
        for (int d = 0; d < count; ++d) {
            int host = disks.list[d].hostno;
            auto it = hostInstance.find(host);
            if (it == hostInstance.end()) it = hostInstance.emplace(host, readvProc(host)).first;
            if (it->second >= 0) disksOf[it->second].push_back(d);
        }
        std::vector<qmx_lgout> out;
        DriverChannel &ch = systemChannel();
        for (int s = 0; s < kMaxPorts; ++s) {
            if (!spfileValid(dev.files[s])) continue;
            auto it = disksOf.find(dev.files[s].instance);
            if (it == disksOf.end()) continue;
            for (int d : it->second) {
                const sysfs_dev &disk = disks.list[d];
                map->header.entry_count = QMX_MP_LGTARGET_MAX;
                map->header.lgtarget_count = QMX_MP_LGTARGET_MAX;
                if (ch.request(dev.files[s].fd, IOCTL_QMX_MP_LGTGTMAP, map) != 0) {
                    qmx::trace("ioctl IOCTL_QMX_MP_LGTGTMAP");
                    continue;
                }
                uint32_t n = bounded(map->header.lgtarget_count, QMX_MP_LGTARGET_MAX);
                for (uint32_t i = 0; i < n; ++i) {
                    mp_lgtarget_entry e;
                    std::memcpy(&e, &entries[i], sizeof e);
                    if (e.targetid != disk.tid || e.instance != uint8_t(dev.files[s].instance)) continue;
                    qmx_lgout o;
                    std::memset(&o, 0, sizeof o);
                    o.groupid = e.groupid;
                    o.lu = disk.lun;
                    o.devno = uint8_t(s);
                    o.tid = e.targetid;
                    qmx::copyText(o.devname, std::string_view(disk.devname, strnlen(disk.devname, sizeof disk.devname)));
                    out.push_back(o);
                }
            }
        }
        if (!out.empty()) {
            // The caller's array grows to hold the entries (one realloc for
            // all of them).
            void *grown = std::realloc(conf->logical, out.size() * sizeof(qmx_lgout));
            if (grown == nullptr) return failFree("realloc error", 1);
            conf->logical = static_cast<qmx_lgout *>(grown);
            std::memcpy(conf->logical, out.data(), out.size() * sizeof(qmx_lgout));
        }
        conf->logical_cnt = int(out.size());
        return f.ok();
    });
}
