// Fuzz target: the multipath listings fed with hostile driver replies.
//
// A fake driver channel answers every request from the input: it fails or
// succeeds, and fills the reply's counts (target count, LU count, target
// list length, REPORT LUNS list length, logical path count) and its first
// entries with input bytes.  The listing code must bound every count by the
// buffer it gave and never read or write past it (ASan), and its results
// must keep their shape (checked; a violation traps):
//   - the LU paths come out ordered by group, then LUN (low 14 bits), never
//     more than 65536, each with a LUN below 2048 in those bits;
//   - the target paths are at most QMX_TGTPATH_MAX;
//   - no two listed LU identifiers of the same length are equal.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "multipath/mpruntime.h"

namespace {

using namespace qmx::mp;

class FakeChannel final : public DriverChannel {
public:
    FakeChannel(const uint8_t *data, std::size_t size) : p_(data), end_(data + size) {}

    int request(int, unsigned long req, void *arg) noexcept override {
        if (take8() % 7 == 0) {
            errno = EIO;
            return -1;
        }
        auto *a = static_cast<unsigned char *>(arg);
        switch (req) {
        case IOCTL_QMX_MP_TGTMAP: fill(a, 4, 4, 8, 24, QMX_MP_TGTMAP_PORT); break;
        case IOCTL_QMX_MP_LUMAP: fill(a, 24, 4, 32, 160, QMX_MP_LUMAP_MAX); break;
        case IOCTL_QMX_MP_LGPATH1: fill(a, 4, 4, 8, 16, QMX_MP_LGPATH1_MAX); break;
        case IOCTL_QMX_PORT_ATTR: {
            qmx_ioctl_diag_req req;
            std::memcpy(&req, a, sizeof req);
            auto *list = reinterpret_cast<unsigned char *>(uintptr_t(req.addr));
            fill(list, 244, 4, 248, 8, QMX_PORT_ATTR_MAX_TARGETS);
            break;
        }
        case IOCTL_QMX_SCSI_PASSTHRU: {
            qmx_ioctl_scsi_passthru pt;
            std::memcpy(&pt, a, sizeof pt);
            auto *d = reinterpret_cast<unsigned char *>(uintptr_t(pt.data_addr));
            // Big-endian list length, then a few LUN entries.
            fill(d, 0, 4, 8, 8, 2048, true);
            break;
        }
        default: break;  // health requests and the like: success, no data
        }
        return 0;
    }

private:
    uint8_t take8() { return p_ < end_ ? *p_++ : 0; }
    // A count at `countAt` (`width` bytes, little-endian unless `bigEndian`),
    // then up to 8 entries of `entrySize` bytes at `entriesAt`; `room` is the
    // number of entries the caller's buffer holds.  A mode byte picks either
    // a small count (0..15) or `width` raw bytes straight from the input:
    // hostile counts stay one mutation away, while inputs whose every count
    // runs the listings to their bounds (hundreds of targets of thousands of
    // LUs each, megabytes of work) no longer make up most of the corpus.
    void fill(unsigned char *a, std::size_t countAt, std::size_t width, std::size_t entriesAt,
              std::size_t entrySize, std::size_t room, bool bigEndian = false) {
        uint8_t mode = take8();
        if (mode & 0x80) {
            for (std::size_t i = 0; i < width; ++i) a[countAt + i] = take8();
        } else {
            uint32_t v = mode & 0x0F;
            if (bigEndian) v *= 8;  // a list length in bytes of 8-byte entries
            for (std::size_t i = 0; i < width; ++i)
                a[countAt + i] = uint8_t(v >> (8 * (bigEndian ? width - 1 - i : i)));
        }
        std::size_t n = take8() % 9;
        if (n > room) n = room;
        for (std::size_t e = 0; e < n; ++e)
            for (std::size_t i = 0; i < entrySize; ++i) a[entriesAt + e * entrySize + i] = take8();
    }
    const uint8_t *p_, *end_;
};

void check(bool ok) {
    if (!ok) __builtin_trap();
}

// The buffers of one input, allocated once for the whole run: the maps and
// the LU path container are hundreds of kilobytes each, and allocating them
// per input (fresh, zeroed pages) made the target crawl.  The maps are
// zeroed again for every input so that a run never reads what an earlier
// input left (each input replays alike); the container needs no zeroing,
// its count says what it holds.
struct Buffers {
    MapBuffers map;
    std::unique_ptr<QMX_LUPATH_STATUS> lupaths{new QMX_LUPATH_STATUS};
    std::vector<unsigned char> lgpath = std::vector<unsigned char>(QMX_MP_LGPATH1_SIZE(QMX_MP_LGPATH1_MAX));
    std::unique_ptr<qmx_spfile[]> slots{new qmx_spfile[kMaxPorts]};
    // The LU identifier list and the work lists keep their room across
    // inputs: a fresh 16384-entry list per input went to the allocator's
    // mmap and munmap every time.
    // (malloc'd: the listing may realloc it.)
    QMX_NMPATH_LU *ids = static_cast<QMX_NMPATH_LU *>(std::calloc(16384, sizeof(QMX_NMPATH_LU)));
    std::vector<LuWork> work;
    std::vector<uint32_t> order;
    std::vector<qmx_tgt> recs;
    bool ok = ids != nullptr && map.allocTarget() && map.allocLu();

    // The fake driver writes a count and at most 8 entries into a map, and
    // the listing code writes only the request header: zeroing that prefix
    // leaves the whole map as zeroed as the first input found it.
    static constexpr std::size_t kTgtDirty = QMX_MP_TARGET_SIZE(8), kLuDirty = QMX_MP_LU_SIZE(8),
                                 kLgDirty = QMX_MP_LGPATH1_SIZE(8);
    bool zeroed = false;
    void reset() {
        std::memset(map.tgt.get(), 0, zeroed ? kTgtDirty : QMX_MP_TARGET_SIZE(QMX_MP_TGTMAP_PORT));
        std::memset(map.lu.get(), 0, zeroed ? kLuDirty : QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX));
        std::memset(lgpath.data(), 0, zeroed ? kLgDirty : lgpath.size());
        zeroed = true;
        lupaths->lupath_cnt = 0;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size < 1) return 0;
    static Buffers buf;
    if (!buf.ok) return 0;
    buf.reset();
    qmx_spfile *slots = buf.slots.get();
    std::memset(slots, 0, sizeof(qmx_spfile) * kMaxPorts);
    int open = 1 + data[0] % 3;
    for (int s = 0; s < open; ++s) {
        slots[s * 7].valid = kSpfileValid;
        slots[s * 7].fd = 1000 + s;
        slots[s * 7].instance = s;
    }

    {  // LU path listing and health check
        FakeChannel ch(data + 1, size - 1);
        const MapBuffers &b = buf.map;
        std::vector<LuWork> &work = buf.work;
        std::vector<uint32_t> &order = buf.order;
        work.clear();
        order.clear();
        healthCheck(ch, slots, true);
        gatherLuPaths(ch, slots, b, work);
        check(work.size() <= kMaxLuPaths);
        listingOrder(work, order);
        QMX_LUPATH_STATUS *out = buf.lupaths.get();
        check(emitLuPaths(work, order, b.tgtmap(), out));
        for (int i = 0; i < out->lupath_cnt; ++i) {
            const lupath_status &r = *out->lupath[i];
            check((r.lun & 0x3FFF) < 2048);
            if (i > 0) {
                const lupath_status &q = *out->lupath[i - 1];
                check(q.groupid < r.groupid || (q.groupid == r.groupid && (q.lun & 0x3FFF) <= (r.lun & 0x3FFF)));
            }
        }
        releaseLuPaths(out);  // (the exported call would trace every input)
    }
    {  // target paths merged with logical targets
        FakeChannel ch(data + 1, size - 1);
        std::vector<qmx_tgt> &recs = buf.recs;
        recs.clear();
        bool ok = false, failed = false;
        gatherTargetPaths(ch, slots, recs, &ok, &failed);
        std::vector<unsigned char> &list = buf.lgpath;
        auto *l = reinterpret_cast<qmx_mp_lgpath_info1 *>(list.data());
        l->header.entry_count = QMX_MP_LGPATH1_MAX;
        if (ch.request(slots[0].fd, IOCTL_QMX_MP_LGPATH1, l) == 0) {
            uint32_t n = bounded(l->header.lgpath_info1_count, QMX_MP_LGPATH1_MAX);
            mergeLogicalTargets(reinterpret_cast<const mp_lgpath_info1_entry *>(list.data() + 8), n,
                                slots, recs);
        }
        check(recs.size() <= QMX_TGTPATH_MAX);
    }
    {  // LU identifiers
        FakeChannel ch(data + 1, size - 1);
        buf.reset();  // the maps as the first listing found them
        const MapBuffers &b = buf.map;
        QMX_NMPATH_STATUS nm{0, buf.ids};
        LuIdIndex index;
        for (int s = 0; s < kMaxPorts; ++s) {
            if (!spfileValid(slots[s])) continue;
            int t = readTargetMap(ch, slots[s].fd, b);
            for (int i = 0; i < t; ++i) {
                int n = readLuMap(ch, slots[s].fd, b);
                if (n >= 0) check(addLuIds(&nm, b.lumap(), uint32_t(n), index, nullptr) >= 0);
            }
        }
        for (int i = 1; i < nm.info_cnt; ++i)
            check(nm.info[i].id_size != nm.info[i - 1].id_size ||
                  std::memcmp(nm.info[i].luid_num, nm.info[i - 1].luid_num, nm.info[i].id_size) != 0);
        // What QMX_ReleaseLuIDPath frees, except the list itself (kept).
        for (int i = 0; i < nm.info_cnt; ++i) {
            std::free(nm.info[i].luid_num);
            std::free(nm.info[i].trans_luid);
            nm.info[i] = QMX_NMPATH_LU{};
        }
        buf.ids = nm.info;
    }
    return 0;
}
