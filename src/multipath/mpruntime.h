// Multipath runtime: the operating environment, the LU and target path
// listings, the path health check and the LU identifier list.
//
// The listings talk to the driver through a DriverChannel over the table of
// open devices (open_special_file), so the code that walks the driver's
// replies is the same whether the replies come from the driver or from a
// fuzzer's fake channel.  Every count a reply carries is bounded by the
// buffer it came in before it is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "frame/frame.h"
#include "qmxldd_ioctl.h"
#include "qmxvlib.h"

// The frees of the release calls, without their frame, for the library's
// own listings inside another call.
void releaseLuPaths(QMX_LUPATH_STATUS *lupath) noexcept;
void releaseLuIds(QMX_NMPATH_STATUS *nm) noexcept;

namespace qmx::mp {

// The open device special files of one listing.  They are closed before
// the call's END or ABEND line (their close traces lines of its own), or
// when the listing's scope ends, whichever comes first.
struct OpenDevices {
    qmx_spfile *files = nullptr;
    int count = -1;
    explicit OpenDevices(Frame &f) : frame_(&f) {
        count = open_special_file(&files);
        f.beforeEnd(&OpenDevices::closeAll, this);
    }
    ~OpenDevices() {
        if (files != nullptr) frame_->beforeEnd(nullptr, nullptr);
        close();
    }
    void close() noexcept {
        if (files != nullptr) close_special_file(files);
        files = nullptr;
    }
    OpenDevices(const OpenDevices &) = delete;
    OpenDevices &operator=(const OpenDevices &) = delete;

private:
    static void closeAll(void *self) { static_cast<OpenDevices *>(self)->close(); }
    Frame *frame_;
};

// One request on an open device: 0, or -1 with errno set.
class DriverChannel {
public:
    virtual ~DriverChannel() = default;
    virtual int request(int fd, unsigned long req, void *arg) noexcept = 0;
};
DriverChannel &systemChannel() noexcept;

// Opens "/dev/<name>" of discovered port `ind` (open_ap); -1 on failure.
int openPort(int ind) noexcept;

// A count a driver reply carries, bounded by the room the caller gave.
constexpr uint32_t bounded(uint32_t reported, uint32_t room) noexcept {
    return reported < room ? reported : room;
}

// Buffers the listings hand to the driver: a target map of 256 entries and
// an LU map of 2048 entries, zeroed.
struct MapBuffers {
    std::unique_ptr<unsigned char[]> tgt, lu;
    qmx_mp_target *tgtmap() const noexcept { return reinterpret_cast<qmx_mp_target *>(tgt.get()); }
    qmx_mp_lu *lumap() const noexcept { return reinterpret_cast<qmx_mp_lu *>(lu.get()); }
    bool allocTarget() noexcept;
    bool allocLu() noexcept;
};
// Entry i of a map (the maps declare one entry; the buffers hold more).
inline mp_target_entry targetEntry(const qmx_mp_target *m, std::size_t i) noexcept {
    mp_target_entry e;
    std::memcpy(&e, reinterpret_cast<const unsigned char *>(m) + sizeof(mp_target_header) + i * sizeof e,
                sizeof e);
    return e;
}
inline const mp_lu_entry *luEntries(const qmx_mp_lu *m) noexcept {
    return reinterpret_cast<const mp_lu_entry *>(reinterpret_cast<const unsigned char *>(m) +
                                                 sizeof(mp_lu_header));
}

// The target map of one port into `b` (both counts set to 256 first); the
// number of entries to read, or -1 with errno when the request failed.
int readTargetMap(DriverChannel &ch, int fd, const MapBuffers &b) noexcept;
// The LU map of the target whose node, port and group are in the header;
// the number of entries to read, or -1 with errno.
int readLuMap(DriverChannel &ch, int fd, const MapBuffers &b) noexcept;

// ---------------------------------------------------------------------------
// LU paths
// ---------------------------------------------------------------------------
// One gathered path.
struct LuWork {
    uint8_t group, status, priority, owner, pathid, slot, tid, instance;
    uint32_t ioerror, iocount, lun;
    uint64_t portname, nodename;
};

// The listing is bounded at 65536 paths, the driver's LU path maximum and
// the container's size: paths past it are not gathered (traced once).
constexpr std::size_t kMaxLuPaths = QMX_LUPATH_MAX;

// Gathers the paths of every open port in slot order; targets of attribute
// 3 contribute none.  `b` keeps the last target map read (the listing's
// target node names come from it).
void gatherLuPaths(DriverChannel &ch, const qmx_spfile *slots, const MapBuffers &b,
                   std::vector<LuWork> &out);

// Indices of `w` in the listing's order: group 0 to 255, then LUN (its low
// 14 bits) 0 to 2047, gathering order within a key; paths whose LUN is
// 2048 or above in those bits are not listed.  A counting sort over the
// keys: linear in the paths.
void listingOrder(const std::vector<LuWork> &w, std::vector<uint32_t> &order);

// Fills `out` from the ordered paths; the node name of each comes from
// entry `tid` of `tgtmap` as it stands.  Allocation failure: false, the
// records made so far stay in `out`.
bool emitLuPaths(const std::vector<LuWork> &w, const std::vector<uint32_t> &order,
                 const qmx_mp_target *tgtmap, QMX_LUPATH_STATUS *out) noexcept;

// REPORT LUNS data: the number of LUN entries (list length / 8, at most
// 2048), and entry j (1-based, as the health check counts) as a LUN.
uint32_t reportLunsCount(const unsigned char *data) noexcept;
uint32_t reportLun(const unsigned char *data, uint32_t j) noexcept;
constexpr std::size_t kReportLunsData = QMX_PASSTHRU_DATA_LEN;

// The path health check over every open port: REPORT LUNS to LUN 0 of each
// target, one health request per LUN reported.  add: the "add" form.
void healthCheck(DriverChannel &ch, const qmx_spfile *slots, bool add);

// ---------------------------------------------------------------------------
// Target paths
// ---------------------------------------------------------------------------
// Physical paths of every open port; *anyOk / *anyFailed tell whether a
// port answered or failed.  The records are bounded at QMX_TGTPATH_MAX.
void gatherTargetPaths(DriverChannel &ch, const qmx_spfile *slots, std::vector<qmx_tgt> &out,
                       bool *anyOk, bool *anyFailed);
// Merges the logical targets (groups 0 to 63) of a logical path list of `n`
// entries into `recs`, whose first records are the physical paths: a
// logical target with the port name and instance of a physical path
// updates it, one without is appended with path id 255.  Linear through an
// index of the physical paths.
void mergeLogicalTargets(const mp_lgpath_info1_entry *e, std::size_t n, const qmx_spfile *slots,
                         std::vector<qmx_tgt> &recs);

// ---------------------------------------------------------------------------
// LU identifiers
// ---------------------------------------------------------------------------
// The identifiers already listed, for the duplicate check: an LU is a
// duplicate when its identifier begins with the bytes of a listed one
// (compared over the listed one's length).  Hash sets per listed length.
class LuIdIndex {
public:
    bool seen(const unsigned char *id) const;
    void add(const unsigned char *id, std::size_t len);

private:
    std::unordered_map<std::size_t, std::unordered_set<std::string_view>> byLen_;
};

// Appends the LUs of one LU map reply to `nm` unless already listed.
// 0; 1 when the list is full (the rest of the reply is not taken); -1 when
// memory ran out.
int addLuIds(QMX_NMPATH_STATUS *nm, const qmx_mp_lu *lump, uint32_t count, LuIdIndex &index,
             int *capacity) noexcept;

}  // namespace qmx::mp

// The driver's multipath parameters from the first open device that answers.
int qmx_mp_rdparm_tmp(qmx_spfile *adap_fd, qmx_mp_parameters *mpparam);
int qmx_luid_dupli_chk(QMX_NMPATH_STATUS *nm, qmx_mp_lu *lump);
