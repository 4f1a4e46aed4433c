// The simulated qmxldd driver: an LD_PRELOAD library that answers ioctl() on
// descriptors of "/dev/qmxldd<N>" from the virtual host's state, and redirects
// the driver's "/proc/scsi/vqmxldd/" entries into the state directory.
//
// Every other descriptor and path goes to the real call.  Every request on a
// driver device is checked against the driver's request table (number and
// argument size), answered like the driver would (errno, err_code, response
// codes, busy), and logged to "$QMXSIM_STATE/driver.log" as
//   pid=<pid> dev=qmxldd<N> req=<name> nr=0x<number> size=<bytes> sub=<sub>
//   digest=<fnv1a of the argument> result=<ok|errno=<e>> [note]
// Scripted faults ("faults" in the state) apply per request, port and
// sub-command.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/ioctl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "drvrecords.h"
#include "filefault.h"
#include "qmxldd_ioctl.h"
#include "simstate.h"

using qmxsim::fieldI64;
using qmxsim::fieldU64;
using qmxsim::json;

namespace {

// ---------------------------------------------------------------------------
// Real calls
// ---------------------------------------------------------------------------
using IoctlFn = int (*)(int, unsigned long, ...);
using OpenFn = int (*)(const char *, int, ...);
using OpenatFn = int (*)(int, const char *, int, ...);
using FopenFn = FILE *(*)(const char *, const char *);
using Open2Fn = int (*)(const char *, int);
using Openat2Fn = int (*)(int, const char *, int);

template <class F>
F realFn(const char *name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

IoctlFn realIoctl() {
    static IoctlFn fn = realFn<IoctlFn>("ioctl");
    return fn;
}

// ---------------------------------------------------------------------------
// Path redirection for the driver's /proc entries.
// ---------------------------------------------------------------------------
constexpr char kProcPrefix[] = "/proc/scsi/vqmxldd";

// The redirected path, or nullptr when `path` is not a driver /proc entry.
const char *redirect(const char *path, std::string &buf) {
    if (path == nullptr) return nullptr;
    std::size_t n = sizeof kProcPrefix - 1;
    if (std::strncmp(path, kProcPrefix, n) != 0 || (path[n] != '/' && path[n] != '\0')) return nullptr;
    const char *state = std::getenv("QMXSIM_STATE");
    if (state == nullptr || *state == '\0') return nullptr;
    buf = std::string(state) + "/proc/scsi/vqmxldd" + (path + n);
    return buf.c_str();
}

// Files the scenario made unreadable ("$QMXSIM_STATE/unreadable", one path a
// line): every process of the host is refused them with EACCES, root too.
bool refusedByList(const char *path) {
    if (path == nullptr || path[0] != '/') return false;
    const char *state = std::getenv("QMXSIM_STATE");
    if (state == nullptr || *state == '\0') return false;
    std::string list = std::string(state) + "/unreadable";
    struct stat st;
    if (::stat(list.c_str(), &st) != 0) return false;
    static std::mutex mu;
    static std::string cached;
    static struct timespec stamp = {0, 0};
    static off_t size = -1;
    std::lock_guard<std::mutex> hold(mu);
    if (st.st_size != size || st.st_mtim.tv_sec != stamp.tv_sec || st.st_mtim.tv_nsec != stamp.tv_nsec) {
        static OpenFn realOpen = reinterpret_cast<OpenFn>(dlsym(RTLD_NEXT, "open"));
        cached.clear();
        int fd = realOpen(list.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            char buf[4096];
            ssize_t n;
            while ((n = ::read(fd, buf, sizeof buf)) > 0 && cached.size() < (1u << 20)) cached.append(buf, std::size_t(n));
            ::close(fd);
        }
        size = st.st_size;
        stamp = st.st_mtim;
    }
    std::string want = std::string("\n") + path + "\n";
    return ("\n" + cached).find(want) != std::string::npos;
}

// Called from replacements of C functions: nothing may escape as an
// exception.  Without memory to read the list, the file is not refused.
bool refused(const char *path) noexcept {
    try {
        return refusedByList(path);
    } catch (...) {
        return false;
    }
}

// ---------------------------------------------------------------------------
// The request table.
// ---------------------------------------------------------------------------
struct Request {
    unsigned ordinal;
    unsigned size;
    const char *name;
};
// The driver's request table: every request the library issues, with its
// ordinal and argument size, from the driver's request header.
#define QMX_SIM_REQUEST(name, ordinal, size) {ordinal, size, #name},
constexpr Request kRequests[] = {QMX_FOR_EACH_REQUEST(QMX_SIM_REQUEST)};
#undef QMX_SIM_REQUEST
#define QMX_SIM_CHECK(name, ordinal, size) \
    static_assert((name) == _IOC(_IOC_READ | _IOC_WRITE, 'F', (ordinal), (size)), #name);
QMX_FOR_EACH_REQUEST(QMX_SIM_CHECK)
#undef QMX_SIM_CHECK

const Request *findRequest(unsigned ordinal) {
    for (const Request &r : kRequests)
        if (r.ordinal == ordinal) return &r;
    return nullptr;
}

// ---------------------------------------------------------------------------
// Caller memory.  Embedded addresses are probed first (a bad address gives
// EFAULT like a driver's copy_from_user would); the copy itself is a plain
// memcpy so that a memory checker in the calling process sees it.
// ---------------------------------------------------------------------------
bool probe(uint64_t addr, std::size_t len) {
    if (len == 0) return true;
    if (addr == 0) return false;
    static thread_local std::vector<char> scratch;
    std::size_t chunk = len < 65536 ? len : 65536;
    scratch.resize(chunk);
    for (std::size_t off = 0; off < len; off += chunk) {
        std::size_t n = len - off < chunk ? len - off : chunk;
        struct iovec local = {scratch.data(), n};
        struct iovec remote = {reinterpret_cast<void *>(uintptr_t(addr + off)), n};
        ssize_t got = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
        if (got < 0 && (errno == ENOSYS || errno == EPERM)) return true;  // cannot tell
        if (got != ssize_t(n)) return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Log
// ---------------------------------------------------------------------------
uint32_t fnv1a(const void *p, std::size_t n) {
    const auto *b = static_cast<const uint8_t *>(p);
    uint32_t h = 2166136261u;
    for (std::size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 16777619u;
    return h;
}

// The log is opened for every line: tests remove it while a program runs,
// and programs close descriptors they did not open.
void logLine(const std::string &line) {
    const char *state = std::getenv("QMXSIM_STATE");
    if (state == nullptr || *state == '\0') return;
    std::string path = std::string(state) + "/driver.log";
    static OpenFn realOpen = realFn<OpenFn>("open");
    int fd = realOpen(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::string text = line + "\n";
    ssize_t w = ::write(fd, text.data(), text.size());
    (void)w;
    ::close(fd);
}

// ---------------------------------------------------------------------------
// Device descriptors
// ---------------------------------------------------------------------------
// The device number N of a descriptor open on "/dev/qmxldd<N>", or -1.
int deviceOf(int fd) {
    char link[64], target[256];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0) return -1;
    target[n] = '\0';
    static const char kDev[] = "/dev/qmxldd";
    if (std::strncmp(target, kDev, sizeof kDev - 1) != 0) return -1;
    const char *p = target + sizeof kDev - 1;
    if (*p < '0' || *p > '9') return -1;
    char *end = nullptr;
    long v = std::strtol(p, &end, 10);
    if (*end != '\0' || v < 0 || v > 255) return -1;
    return int(v);
}

qmxsim::StateStore &store() {
    // Never destroyed: descriptors may be used while the process exits.
    static auto *s = new qmxsim::StateStore(std::getenv("QMXSIM_STATE") ? std::getenv("QMXSIM_STATE") : "");
    return *s;
}

// ---------------------------------------------------------------------------
// One request in progress.
// ---------------------------------------------------------------------------
struct Call {
    int devno = -1;
    const Request *req = nullptr;
    uint8_t *arg = nullptr;  // the caller's argument
    int sub = -1;       // sub-command, where the request has one
    int err = 0;        // errno to return
    std::string note;   // extra text for the log
    int faultCode = -1;  // scripted err_code / response code
    bool busy = false;
};

// Scripted faults: "faults" entries {"request": name or number, "port": N,
// "sub": S, "errno": E, "times": T, "skip": K, "err_code": C, "resp_code": R,
// "busy": true}.  "times" counts down; -1 (or absent with "always": true)
// applies every time.
bool matchFault(const json &f, const Call &c) {
    if (!f.is_object()) return false;
    if (f.contains("request")) {
        const json &r = f["request"];
        bool hit = false;
        if (r.is_string() && r.get_ref<const std::string &>() == c.req->name) hit = true;
        if (!hit) {
            uint64_t v = qmxsim::toU64(r, uint64_t(-1));
            unsigned full = unsigned(_IOC(_IOC_READ | _IOC_WRITE, 'F', c.req->ordinal, c.req->size));
            hit = v == c.req->ordinal || v == full;
        }
        if (!hit) return false;
    }
    if (f.contains("port") && fieldI64(f, "port", -1) != c.devno) return false;
    if (f.contains("sub") && fieldI64(f, "sub", -1) != c.sub) return false;
    return fieldI64(f, "times", 1) != 0;
}

// Applies the first matching fault.  Returns true when the state changed.
bool applyFaults(json &state, Call &c) {
    auto it = state.find("faults");
    if (it == state.end() || !it->is_array()) return false;
    for (json &f : *it) {
        if (!matchFault(f, c)) continue;
        // "skip": N lets the first N matching requests through.
        if (int64_t skip = fieldI64(f, "skip", 0); skip > 0) {
            f["skip"] = skip - 1;
            return true;
        }
        int64_t times = fieldI64(f, "times", 1);
        if (times > 0) f["times"] = times - 1;
        c.err = int(fieldI64(f, "errno", 0));
        c.faultCode = int(fieldI64(f, "err_code", fieldI64(f, "resp_code", -1)));
        c.busy = f.value("busy", false);
        c.note = "fault";
        return times > 0;
    }
    return false;
}

void bump(json &port, const char *counter) {
    json &cnt = port["counters"];
    if (!cnt.is_object()) cnt = json::object();
    cnt[counter] = fieldI64(cnt, counter, 0) + 1;
}

// Sparse byte areas of a port ("efi", "pci_config", "init_table"): objects
// that map decimal offsets to byte values, over the area's defaults.
uint8_t areaByte(const json &port, const char *area, std::size_t off, uint8_t dflt) {
    auto a = port.find(area);
    if (a == port.end() || !a->is_object()) return dflt;
    auto v = a->find(std::to_string(off));
    if (v == a->end()) return dflt;
    return uint8_t(qmxsim::toU64(*v, dflt));
}
void setAreaByte(json &port, const char *area, std::size_t off, uint8_t v) {
    json &a = port[area];
    if (!a.is_object()) a = json::object();
    a[std::to_string(off)] = v;
}

// Area defaults.
uint8_t efiDefault(std::size_t off) {
    switch (off) {
    case 513: return 1;   // flag
    case 514: return 1;   // ent_num
    case 515: return 2;   // connect_type
    case 516: return 0;   // data_rate (auto)
    case 518: return 3;   // login_delay
    default: return 0;
    }
}
uint8_t pciDefault(const json &port, std::size_t off) {
    uint16_t vendor = uint16_t(fieldU64(port, "vendor", 0x1E5A));
    uint16_t device = uint16_t(fieldU64(port, "device", 0x0101));
    switch (off) {
    case 0: return uint8_t(vendor);
    case 1: return uint8_t(vendor >> 8);
    case 2: return uint8_t(device);
    case 3: return uint8_t(device >> 8);
    case 880: return 0x80;  // hot swap supported by the hardware
    default: return 0;
    }
}
uint8_t initDefault(const json &port, std::size_t off) {
    static const char part[] = "SFP-8G-SW-0001";
    static const char date[] = "20240115";
    if (off == 48) return 1;  // hot swap supported by the firmware
    if (off >= 336 && off < 336 + sizeof part - 1) return uint8_t(part[off - 336]);
    if (off >= 352 && off < 368) {
        char serial[20];
        std::snprintf(serial, sizeof serial, "KSN%06d", int(fieldI64(port, "devno", 0)));
        std::size_t i = off - 352;
        return i < std::strlen(serial) ? uint8_t(serial[i]) : 0;
    }
    if (off >= 368 && off < 376) return uint8_t(date[off - 368]);
    return 0;
}

constexpr std::size_t kEfiSize = 1024;
constexpr std::size_t kPciSize = 4096;
constexpr std::size_t kInitSize = 1920;
constexpr std::size_t kFixedSize = 64;

// ---------------------------------------------------------------------------
// Handlers.  Each returns true when the state changed.
// ---------------------------------------------------------------------------
using namespace qmxsim::rec;

bool doPrinfo(json &, json &port, Call &c) {
    buildPrinfo(port, c.arg);
    return false;
}

bool doDiag0(json &, json &port, Call &c) {
    uint8_t *a = c.arg;
    uint32_t off = getU32(a, kDiagOffset);
    uint32_t len = getU32(a, kDiagLength);
    uint64_t addr = getU64(a, kDiagAddr);
    auto needBuffer = [&](std::size_t area) -> bool {
        if (uint64_t(off) + len > area) {
            c.err = EINVAL;
            c.note = "range";
            return false;
        }
        if (!probe(addr, len)) {
            c.err = EFAULT;
            return false;
        }
        return true;
    };
    switch (c.sub) {
    case kDgRdPciFixed: {  // fixed PCI data: the id word, big-endian
        if (!port.value("pci_id_readable", true)) {
            c.err = EIO;
            c.note = "pci id unreadable";
            return false;
        }
        if (!needBuffer(kFixedSize)) return false;
        uint8_t fixed[kFixedSize] = {};
        uint16_t vendor = uint16_t(fieldU64(port, "vendor", 0x1E5A));
        uint16_t device = uint16_t(fieldU64(port, "device", 0x0101));
        fixed[0] = uint8_t(device >> 8);
        fixed[1] = uint8_t(device);
        fixed[2] = uint8_t(vendor >> 8);
        fixed[3] = uint8_t(vendor);
        std::memcpy(reinterpret_cast<void *>(uintptr_t(addr)), fixed + off, len);
        return false;
    }
    case kDgRdPciConfig: {
        if (!needBuffer(kPciSize)) return false;
        auto *dst = reinterpret_cast<uint8_t *>(uintptr_t(addr));
        for (uint32_t i = 0; i < len; ++i)
            dst[i] = areaByte(port, "pci_config", off + i, pciDefault(port, off + i));
        return false;
    }
    case kDgWrPciConfig: {
        if (!needBuffer(kPciSize)) return false;
        const auto *src = reinterpret_cast<const uint8_t *>(uintptr_t(addr));
        for (uint32_t i = 0; i < len; ++i) setAreaByte(port, "pci_config", off + i, src[i]);
        return true;
    }
    case kDgRdInitTbl: {
        // The table goes to the buffer named by the request, or, without one,
        // over the request record itself (the caller's allocation holds it).
        uint8_t *dst = addr != 0 ? reinterpret_cast<uint8_t *>(uintptr_t(addr)) : a;
        std::size_t n = addr != 0 && len != 0 && len < kInitSize ? len : kInitSize;
        if (addr != 0 && !probe(addr, n)) {
            c.err = EFAULT;
            return false;
        }
        if (addr == 0 && !probe(uint64_t(uintptr_t(a)), n)) {
            c.err = EFAULT;
            return false;
        }
        std::vector<uint8_t> table(n);
        for (std::size_t i = 0; i < n; ++i) table[i] = areaByte(port, "init_table", i, initDefault(port, i));
        std::memcpy(dst, table.data(), n);
        return false;
    }
    case kDgRdHg: {
        if (!needBuffer(kEfiSize)) return false;
        auto *dst = reinterpret_cast<uint8_t *>(uintptr_t(addr));
        for (uint32_t i = 0; i < len; ++i) dst[i] = areaByte(port, "efi", off + i, efiDefault(off + i));
        return false;
    }
    case kDgWrHg: {
        if (!needBuffer(kEfiSize)) return false;
        const auto *src = reinterpret_cast<const uint8_t *>(uintptr_t(addr));
        for (uint32_t i = 0; i < len; ++i) setAreaByte(port, "efi", off + i, src[i]);
        if (off == 12) {
            bump(port, "efi_store");
            c.note = "efi store";
        }
        return true;
    }
    case kDgTgtScan:
        a[kDiagUni] = uint8_t(fieldU64(port, "tgtscan_outcome", 0));
        bump(port, "tgtscan");
        return true;
    case kDgReflect:
        a[kDiagUni] = 0;
        bump(port, "reflect");
        return true;
    default:
        c.err = EINVAL;
        c.note = "unknown sub-command";
        return false;
    }
}

bool doPortAttr(json &, json &port, Call &c) {
    if (getU32(c.arg, 0) != 2) {
        c.err = EINVAL;
        c.note = "sub-code";
        return false;
    }
    uint32_t len = getU32(c.arg, kAttrReqLength);
    uint64_t addr = getU64(c.arg, kAttrReqAddr);
    if (len < kAttrListWwpn || len > kAttrListSize) {
        c.err = EINVAL;
        c.note = "list length";
        return false;
    }
    if (!probe(addr, len)) {
        c.err = EFAULT;
        return false;
    }
    auto *list = reinterpret_cast<uint8_t *>(uintptr_t(addr));
    uint32_t cap = (len - kAttrListWwpn) / 8;
    int n = qmxsim::targetCount(port);
    uint32_t count = uint32_t(n) < cap ? uint32_t(n) : cap;
    putU32(list, kAttrListCount, count);
    for (uint32_t i = 0; i < count; ++i) putU64(list, kAttrListWwpn + 8 * i, qmxsim::targetAt(port, int(i)).wwpn);
    return false;
}

bool doWwnInfo(json &, json &port, Call &c) {
    putU16(c.arg, 2, 0);
    putU64(c.arg, 4, fieldU64(port, "wwpn", 0));
    putU64(c.arg, 12, fieldU64(port, "wwnn", 0));
    return false;
}

bool doRdParm(json &state, json &, Call &c) {
    buildMpParams(state["multipath"], c.arg);
    return false;
}

bool doWrParm(json &state, json &, Call &c) {
    storeMpParams(state["multipath"], c.arg);
    return true;
}

// Fills the entries of a map whose header tells how many the caller made
// room for, bounded by that room and by the driver's maximum; false when the
// caller's buffer is not there.
template <class Entry, class SizeFor, class Fill>
bool fillBoundedMap(Call &c, json &port, uint32_t room, std::size_t headerSize, SizeFor sizeFor,
                    uint32_t *count, Fill fill) {
    uint32_t cap = room > QMX_MP_TGTMAP_MAX ? QMX_MP_TGTMAP_MAX : room;
    if (!probe(uint64_t(uintptr_t(c.arg)), sizeFor(cap))) {
        c.err = EFAULT;
        return false;
    }
    int available = qmxsim::targetCount(port);
    *count = uint32_t(available) < cap ? uint32_t(available) : cap;
    auto *entries = reinterpret_cast<Entry *>(c.arg + headerSize);
    for (uint32_t i = 0; i < *count; ++i) {
        Entry e;
        std::memset(&e, 0, sizeof e);
        fill(e, qmxsim::targetAt(port, int(i)));
        std::memcpy(&entries[i], &e, sizeof e);
    }
    return true;
}

bool doTgtMap(json &, json &port, Call &c) {
    auto *map = reinterpret_cast<qmx_mp_target *>(c.arg);
    int instance = int(fieldI64(port, "instance", fieldI64(port, "devno", 0)));
    // An isolated port (status 3) has no link to its targets: their map
    // entries lose the "logged in" flags.
    auto pr = port.find("prinfo");
    bool isolated = pr != port.end() && pr->is_object() && fieldI64(*pr, "port_status", 1) == 3;
    uint32_t count = 0;
    auto size = [](uint32_t n) { return QMX_MP_TARGET_SIZE(n); };
    if (fillBoundedMap<mp_target_entry>(c, port, map->header.entry_count, sizeof(mp_target_header),
                                        size, &count,
                                        [&](mp_target_entry &e, const qmxsim::TargetView &t) {
                                            e.nodename = t.wwnn;
                                            e.portname = t.wwpn;
                                            e.flags = isolated ? 0 : uint8_t(t.flags);
                                            e.attribute = uint8_t(t.attribute);
                                            e.groupid = uint8_t(t.group);
                                            e.targetid = uint8_t(t.tid);
                                            e.pathid = uint8_t(t.pathid);
                                            e.instance = uint8_t(instance);
                                        }))
        map->header.target_count = count;
    return false;
}

bool doLuMap(json &, json &port, Call &c) {
    // The caller's buffer is checked for the entries the answer fills (the
    // whole 2048-entry buffer would be a 320 KiB check on every request).
    if (!probe(uint64_t(uintptr_t(c.arg)), QMX_MP_LU_SIZE(0))) {
        c.err = EFAULT;
        return false;
    }
    auto *hdr = reinterpret_cast<mp_lu_header *>(c.arg);
    auto *entries = reinterpret_cast<mp_lu_entry *>(c.arg + sizeof(mp_lu_header));
    int n = qmxsim::targetCount(port);
    for (int i = 0; i < n; ++i) {
        qmxsim::TargetView t = qmxsim::targetAt(port, i);
        if (t.wwpn != hdr->portname) continue;
        int lus = qmxsim::luCount(t);
        uint32_t count = uint32_t(lus) < QMX_MP_LUMAP_MAX ? uint32_t(lus) : QMX_MP_LUMAP_MAX;
        if (!probe(uint64_t(uintptr_t(c.arg)), QMX_MP_LU_SIZE(count))) {
            c.err = EFAULT;
            return false;
        }
        for (uint32_t j = 0; j < count; ++j) {
            qmxsim::LuView lu = qmxsim::luAt(port, t, int(j));
            mp_lu_entry e;
            std::memset(&e, 0, sizeof e);
            e.flags = uint8_t(lu.flags);
            e.status = uint8_t(lu.status);
            e.priority = uint8_t(lu.priority);
            e.owner_ctl = uint8_t(lu.ownerCtl);
            e.pathid = uint8_t(lu.pathid);
            e.ioerror = lu.ioerror;
            e.iocount = lu.iocount;
            std::size_t idLen = lu.luid.size() < QMX_MP_LUID_LEN ? lu.luid.size() : QMX_MP_LUID_LEN;
            e.luid_size = uint32_t(idLen);
            e.id_type = uint8_t(lu.idType);
            e.lun = lu.lun;
            std::memcpy(e.luid, lu.luid.data(), idLen);
            std::memcpy(&entries[j], &e, sizeof e);
        }
        hdr->lu_count = count;
        return false;
    }
    hdr->lu_count = 0;
    c.note = "no such target";
    return false;
}

// Health checks come by the million at the maximum configuration: they are
// only logged, not counted in the state.
bool doPathHealth(json &, json &, Call &c) {
    auto *ph = reinterpret_cast<qmx_mp_path_health *>(c.arg);
    ph->path_status = 1;  // path good
    c.note = (ph->flags & QMX_PTHEALTH_ADD) ? "add" : "";
    return false;
}

bool doSetPath(json &, json &port, Call &c) {
    auto *sp = reinterpret_cast<qmx_mp_set_path *>(c.arg);
    int n = qmxsim::targetCount(port);
    for (int i = 0; i < n; ++i) {
        qmxsim::TargetView t = qmxsim::targetAt(port, i);
        if (t.wwpn != sp->portname) continue;
        int lus = qmxsim::luCount(t);
        for (int j = 0; j < lus; ++j) {
            if (qmxsim::luAt(port, t, j).lun != sp->lun) continue;
            json &ps = port["path_status"];
            if (!ps.is_object()) ps = json::object();
            ps[qmxsim::hex64(t.wwpn) + "/" + std::to_string(sp->lun)] = sp->newstatus;
            sp->err_code = 0;
            return true;
        }
    }
    sp->err_code = 3;  // no device
    c.err = EIO;
    c.note = "no such path";
    return false;
}

bool doLgTgtMap(json &, json &port, Call &c) {
    auto *map = reinterpret_cast<qmx_mp_lgtarget *>(c.arg);
    int instance = int(fieldI64(port, "instance", fieldI64(port, "devno", 0)));
    // A port's "logical_targets" ({"groupid", "targetid", "instance",
    // "path_cnt", "flags"}) replace the logical targets made from its targets.
    auto explicitList = port.find("logical_targets");
    if (explicitList != port.end() && explicitList->is_array()) {
        uint32_t cap = map->header.entry_count > QMX_MP_TGTMAP_MAX ? QMX_MP_TGTMAP_MAX : map->header.entry_count;
        if (!probe(uint64_t(uintptr_t(c.arg)), QMX_MP_LGTARGET_SIZE(cap))) {
            c.err = EFAULT;
            return false;
        }
        auto *entries = reinterpret_cast<mp_lgtarget_entry *>(c.arg + sizeof(mp_lgtarget_header));
        uint32_t count = 0;
        for (const json &e : *explicitList) {
            if (count >= cap) break;
            mp_lgtarget_entry x;
            std::memset(&x, 0, sizeof x);
            x.flags = uint8_t(fieldI64(e, "flags", 1));
            x.groupid = uint8_t(fieldI64(e, "groupid", 0));
            x.targetid = uint8_t(fieldI64(e, "targetid", 0));
            x.instance = uint8_t(fieldI64(e, "instance", instance));
            x.path_cnt = uint8_t(fieldI64(e, "path_cnt", 1));
            std::memcpy(&entries[count++], &x, sizeof x);
        }
        map->header.lgtarget_count = uint32_t(fieldI64(port, "logical_target_count", count));
        return false;
    }
    uint32_t count = 0;
    auto size = [](uint32_t n) { return QMX_MP_LGTARGET_SIZE(n); };
    if (fillBoundedMap<mp_lgtarget_entry>(c, port, map->header.entry_count,
                                          sizeof(mp_lgtarget_header), size, &count,
                                          [&](mp_lgtarget_entry &e, const qmxsim::TargetView &t) {
                                              e.flags = 1;
                                              e.groupid = uint8_t(t.group);
                                              e.targetid = uint8_t(t.tid);
                                              e.instance = uint8_t(instance);
                                              e.path_cnt = 1;
                                          }))
        map->header.lgtarget_count = count;
    return false;
}

bool doLgPath1(json &state, json &, Call &c) {
    auto *list = reinterpret_cast<qmx_mp_lgpath_info1 *>(c.arg);
    uint32_t cap = list->header.entry_count;
    if (cap > 4 * QMX_MP_LGPATH1_MAX) cap = 4 * QMX_MP_LGPATH1_MAX;
    if (!probe(uint64_t(uintptr_t(c.arg)), QMX_MP_LGPATH1_SIZE(cap))) {
        c.err = EFAULT;
        return false;
    }
    auto *entries = reinterpret_cast<mp_lgpath_info1_entry *>(c.arg + sizeof(mp_lgpath_info1_header));
    uint32_t count = 0;
    auto put = [&](int group, int type, int instance, int tid, uint64_t data) {
        if (count >= cap) return;
        mp_lgpath_info1_entry e;
        std::memset(&e, 0, sizeof e);
        e.group = uint8_t(group);
        e.type = uint8_t(type);
        e.instance = uint8_t(instance);
        e.tid = uint8_t(tid);
        e.data = data;
        std::memcpy(&entries[count++], &e, sizeof e);
    };
    auto explicitList = state.find("logical_paths");
    if (explicitList != state.end() && explicitList->is_array()) {
        for (const json &e : *explicitList)
            put(int(fieldI64(e, "group", 0)), int(fieldI64(e, "type", 0)), int(fieldI64(e, "instance", 0)),
                int(fieldI64(e, "tid", 0)), fieldU64(e, "data", 0));
    } else {
        // Every target of every port is a logical target of its port.
        for (const json &p : state["ports"]) {
            int instance = int(fieldI64(p, "instance", fieldI64(p, "devno", 0)));
            int n = qmxsim::targetCount(p);
            for (int i = 0; i < n && count < cap; ++i) {
                qmxsim::TargetView t = qmxsim::targetAt(p, i);
                put(t.group, QMX_LGPATH_TYPE_TARGET, instance, t.tid, uint64_t(t.attribute));
                put(t.group, QMX_LGPATH_TYPE_NODE, instance, t.tid, t.wwnn);
                put(t.group, QMX_LGPATH_TYPE_PORT, instance, t.tid, t.wwpn);
            }
        }
    }
    list->header.lgpath_info1_count = count;
    return false;
}

bool doIsolation(json &, json &port, Call &c) {
    uint8_t op = c.arg[kIsoSetOpr];
    c.sub = op;
    json &iso = port["isolation"];
    if (!iso.is_object()) iso = json::object();
    json &pr = port["prinfo"];
    if (!pr.is_object()) pr = json::object();
    bool changed = false;
    // A scripted refusal (errcode 2) leaves the port as it is.
    if (c.faultCode == QMX_ISOL_ERR_REFUSED) op = op <= 5 ? 0 : op;
    switch (op) {
    case 0:
        break;
    case 1:
        pr["port_status"] = 3;
        bump(port, "isolate");
        changed = true;
        break;
    case 3:
        pr["port_status"] = 1;
        bump(port, "recover");
        if (c.arg[offsetof(qmx_isol_info, immdt_cmd)] != 0) bump(port, "recover_immediate");
        if (c.arg[offsetof(qmx_isol_info, force_recv)] != 0) bump(port, "recover_forced");
        changed = true;
        break;
    case 4:
    case 5:
        iso["err_is_func"] = op == 5 ? 1 : 0;
        changed = true;
        break;
    default:
        c.err = EINVAL;
        c.note = "set_opr";
        return false;
    }
    buildIsolation(iso, c.arg);
    c.arg[kIsoSetOpr] = uint8_t(c.sub);
    c.arg[kIsoErrcode] = 1;
    return changed;
}

bool doReadApparam(json &, json &port, Call &) {
    bump(port, "read_apparam");
    return true;
}

bool doLgDevParm(json &state, json &, Call &c) {
    auto *dp = reinterpret_cast<qmx_mp_lg_dev_param *>(c.arg);
    const json &mp = state["multipath"];
    // Per-LU parameters: "lu_params" maps an identifier (hex digits) to
    // {"alt_path_num", "offline_path_num", "write_retries"}; other LUs get
    // the driver-wide values.
    const json *lu = &mp;
    const char *alt = "lu_alter_path", *off = "lu_offline_path", *wr = "lu_write_retries";
    auto params = state.find("lu_params");
    if (params != state.end() && params->is_object()) {
        std::size_t len = dp->id_len < QMX_LG_DEV_ID_LEN ? dp->id_len : QMX_LG_DEV_ID_LEN;
        std::string hex;
        for (std::size_t i = 0; i < len; ++i) {
            char b[3];
            std::snprintf(b, sizeof b, "%02x", dp->identifier[i]);
            hex += b;
        }
        auto hit = params->find(hex);
        if (hit != params->end()) {
            lu = &*hit;
            alt = "alt_path_num";
            off = "offline_path_num";
            wr = "write_retries";
        } else if (state.value("lu_params_strict", false)) {
            c.err = ENODEV;
            c.note = "no such LU";
            return false;
        }
    }
    dp->alt_path_num = uint8_t(fieldU64(*lu, alt, 2));
    dp->offline_path_num = uint8_t(fieldU64(*lu, off, 2));
    dp->write_retries = uint8_t(fieldU64(*lu, wr, 3));
    return false;
}

bool doPassThrough(json &, json &port, Call &c) {
    const auto *pt = reinterpret_cast<const qmx_ioctl_scsi_passthru *>(c.arg);
    if (pt->flags != QMX_PASSTHRU_FLAGS) {
        c.err = EINVAL;
        c.note = "not a pass-through";
        return false;
    }
    if (pt->cdb[0] != QMX_SCSI_REPORT_LUNS) {
        c.err = EIO;
        c.note = "only REPORT LUNS";
        return false;
    }
    uint32_t len = pt->data_len;
    if (len < 8 || !probe(pt->data_addr, len)) {
        c.err = len < 8 ? EINVAL : EFAULT;
        return false;
    }
    int n = qmxsim::targetCount(port);
    for (int i = 0; i < n; ++i) {
        qmxsim::TargetView t = qmxsim::targetAt(port, i);
        if (t.wwpn != pt->port_wwn) continue;
        int entries = t.reportLuns >= 0 ? t.reportLuns : qmxsim::luCount(t);
        std::vector<uint8_t> data(len, 0);
        uint32_t listLen = uint32_t(entries) * 8;
        data[0] = uint8_t(listLen >> 24);
        data[1] = uint8_t(listLen >> 16);
        data[2] = uint8_t(listLen >> 8);
        data[3] = uint8_t(listLen);
        std::size_t room = (len - 8) / 8;
        int known = qmxsim::luCount(t);
        for (std::size_t j = 0; j < std::size_t(entries) && j < room; ++j) {
            uint32_t lun = int(j) < known ? qmxsim::luAt(port, t, int(j)).lun : uint32_t(j);
            data[8 + 8 * j] = uint8_t(lun >> 8);
            data[9 + 8 * j] = uint8_t(lun);
        }
        std::memcpy(reinterpret_cast<void *>(uintptr_t(pt->data_addr)), data.data(), len);
        return false;
    }
    c.err = EIO;
    c.note = "no such target";
    return false;
}

// Adapter path change and deletion: counted per port; a scripted err_code
// comes back in byte 7 with EIO.
bool doPathChange(json &, json &port, Call &c) {
    bump(port, c.req->name);
    return true;
}

bool doCount(json &, json &port, Call &c) {
    bump(port, c.req->name);
    return true;
}

using Handler = bool (*)(json &, json &, Call &);
Handler handlerOf(unsigned ordinal) {
    switch (ordinal) {
    case 0x01: return doPassThrough;
    case 0x08: return doPortAttr;
    case 0x09: return doDiag0;
    case 0x0D: return doPrinfo;
    case 0x10: return doRdParm;
    case 0x11: return doWrParm;
    case 0x12: return doTgtMap;
    case 0x13: return doLuMap;
    case 0x14: return doWwnInfo;
    case 0x15: return doPathHealth;
    case 0x16: return doLgTgtMap;
    case 0x17: return doLgPath1;
    case 0x18: return doSetPath;
    case 0x1D:
    case 0x1F: return doPathChange;
    case 0x1E: return doCount;
    case 0x20: return doIsolation;
    case 0x21: return doReadApparam;
    case 0x22: return doLgDevParm;
    default: return nullptr;
    }
}

int subOf(const Request &r, const uint8_t *arg) {
    switch (r.ordinal) {
    case 0x09: return arg[0];
    case 0x08: return int(getU32(arg, 0));
    case 0x14: return arg[1];
    case 0x20: return arg[kIsoSetOpr];
    default: return -1;
    }
}

// A scripted driver code in the request's own reply field.
void setDriverCode(const Request &r, Call &c) {
    if (r.ordinal == 0x18) reinterpret_cast<qmx_mp_set_path *>(c.arg)->err_code = uint8_t(c.faultCode);
    if (r.ordinal == 0x1F) c.arg[7] = uint8_t(c.faultCode);
}

// "driver_log": false in the state turns the request log off (benchmarks at
// the maximum configuration issue millions of requests).
bool g_logRequests = true;

void finishLog(const Call &c, unsigned long request, unsigned size, uint32_t digest) {
    if (!g_logRequests) return;
    char line[512];
    std::snprintf(line, sizeof line, "pid=%d dev=qmxldd%d req=%s nr=0x%08lX size=%u sub=%d digest=%08x result=%s%s%s",
                  int(getpid()), c.devno, c.req ? c.req->name : "UNKNOWN", request, size, c.sub, digest,
                  c.err == 0 ? "ok" : ("errno=" + std::to_string(c.err)).c_str(), c.note.empty() ? "" : " ",
                  c.note.c_str());
    logLine(line);
}

int driverIoctl(int devno, unsigned long request, void *argp) {
    unsigned type = _IOC_TYPE(request), nr = _IOC_NR(request), size = _IOC_SIZE(request),
             dir = _IOC_DIR(request);
    Call c;
    c.devno = devno;
    c.arg = static_cast<uint8_t *>(argp);
    const Request *r = findRequest(nr);
    // Request check: type 'F', read-write, a known ordinal, the table's size,
    // and the whole upper word exactly as _IOWR forms it.
    if (type != 'F' || dir != (_IOC_READ | _IOC_WRITE) || r == nullptr || r->size != size ||
        (request >> 32) != 0) {
        char line[256];
        std::snprintf(line, sizeof line,
                      "pid=%d dev=qmxldd%d req=%s nr=0x%08lX size=%u refused result=errno=%d bad request",
                      int(getpid()), devno, r ? r->name : "UNKNOWN", request, size, EINVAL);
        logLine(line);
        errno = EINVAL;
        return -1;
    }
    c.req = r;
    // The parameter reflection request carries no buffer.
    bool needsArg = r->ordinal != 0x21;
    if (needsArg && (argp == nullptr || !probe(uint64_t(uintptr_t(argp)), size))) {
        c.err = EFAULT;
        finishLog(c, request, size, 0);
        errno = EFAULT;
        return -1;
    }
    c.sub = needsArg ? subOf(*r, c.arg) : -1;
    uint32_t digest = needsArg ? fnv1a(argp, size) : 0;
    std::string why;
    bool ok = store().update(
        [&](json &state) {
            g_logRequests = state.value("driver_log", true);
            bool changed = applyFaults(state, c);
            if (c.err != 0) {
                // A scripted refusal still reports its driver code.
                if (c.faultCode >= 0) setDriverCode(*r, c);
                return changed;
            }
            json *port = qmxsim::findPort(state, devno);
            if (port == nullptr || !port->value("online", true)) {
                c.err = ENXIO;
                c.note = "no such port";
                return changed;
            }
            if (c.busy && r->ordinal != 0x14) {
                c.err = EBUSY;
                return changed;
            }
            if (Handler h = handlerOf(r->ordinal)) changed = h(state, *port, c) || changed;
            if (c.err == 0) {
                if (r->ordinal == 0x14 && (c.busy || c.faultCode >= 0))
                    putU16(c.arg, 2, uint16_t(c.busy ? 1 : c.faultCode));
                if ((r->ordinal == 0x18 || r->ordinal == 0x1F) && c.faultCode >= 0) {
                    setDriverCode(*r, c);
                    c.err = EIO;
                }
                if (r->ordinal == 0x20 && c.faultCode >= 0) c.arg[kIsoErrcode] = uint8_t(c.faultCode);
                if (r->ordinal == 0x09 && (c.sub == kDgTgtScan) && c.faultCode >= 0)
                    c.arg[kDiagUni] = uint8_t(c.faultCode);
            }
            return changed;
        },
        &why);
    if (!ok) {
        c.err = EIO;
        c.note = "state: " + why;
    }
    finishLog(c, request, size, digest);
    if (c.err != 0) {
        errno = c.err;
        return -1;
    }
    return 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Interposed calls
// ---------------------------------------------------------------------------
// The body every replacement of the open and fopen family shares: a path the
// scenario made unreadable is refused, a /proc path of the driver is sent
// into the state directory, anything else goes to the real function
// unchanged.  These are C functions: nothing may escape as an exception.
template <class R, class Call>
R openPath(const char *path, R failed, Call call) noexcept {
    if (refused(path)) {
        errno = EACCES;
        return failed;
    }
    try {
        std::string buf;
        const char *p = redirect(path, buf);
        p = p ? p : path;
        if constexpr (std::is_same_v<R, int>) {
            // An armed file fault counts the opens of the host's files.
            if (qmxsim::fault::armed() && qmxsim::fault::hit(qmxsim::fault::Op::Open, p)) return failed;
            R fd = call(p);
            qmxsim::fault::track(fd, p);
            return fd;
        } else {
            return call(p);
        }
    } catch (...) {
        errno = ENOMEM;
        return failed;
    }
}

// fopen of a host file while a file fault is armed: the open is counted and
// the stream's reads and writes go through the counted calls.
FILE *countedFopen(const char *path, const char *mode, FopenFn real) noexcept {
    if (!qmxsim::fault::counted(path) || mode == nullptr) return real(path, mode);
    int flags = std::strchr(mode, '+') ? O_RDWR : mode[0] == 'r' ? O_RDONLY : O_WRONLY;
    if (mode[0] == 'w') flags |= O_CREAT | O_TRUNC;
    if (mode[0] == 'a') flags |= O_CREAT | O_APPEND;
    if (std::strchr(mode, 'e')) flags |= O_CLOEXEC;
    if (std::strchr(mode, 'x')) flags |= O_EXCL;
    int fd = open(path, flags, 0666);  // counted and tracked there
    if (fd < 0) return nullptr;
    FILE *fp = qmxsim::fault::wrapStream(fd, mode);
    if (fp == nullptr) {
        int e = errno;
        close(fd);
        errno = e;
    }
    return fp;
}

extern "C" {

__attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void *argp = va_arg(ap, void *);
    va_end(ap);
    int saved = errno;
    int devno = deviceOf(fd);
    errno = saved;
    if (devno >= 0 && std::getenv("QMXSIM_STATE") != nullptr) {
        // One request at a time per process, like the driver serialises them.
        static std::mutex serial;
        std::lock_guard<std::mutex> hold(serial);
        return driverIoctl(devno, request, argp);
    }
    IoctlFn real = realIoctl();
    if (real == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return real(fd, request, argp);
}

#define QMX_OPEN_MODE(flags, mode)                          \
    mode_t mode = 0;                                        \
    if ((flags) & (O_CREAT | __O_TMPFILE)) {                \
        va_list ap;                                         \
        va_start(ap, flags);                                \
        mode = mode_t(va_arg(ap, int));                     \
        va_end(ap);                                         \
    }

__attribute__((visibility("default"))) int open(const char *path, int flags, ...) {
    QMX_OPEN_MODE(flags, mode)
    static OpenFn real = realFn<OpenFn>("open");
    return openPath(path, -1, [&](const char *p) { return real(p, flags, mode); });
}

__attribute__((visibility("default"))) int open64(const char *path, int flags, ...) {
    QMX_OPEN_MODE(flags, mode)
    static OpenFn real = realFn<OpenFn>("open64");
    return openPath(path, -1, [&](const char *p) { return real(p, flags, mode); });
}

__attribute__((visibility("default"))) int openat(int dirfd, const char *path, int flags, ...) {
    QMX_OPEN_MODE(flags, mode)
    static OpenatFn real = realFn<OpenatFn>("openat");
    return openPath(path, -1, [&](const char *p) { return real(dirfd, p, flags, mode); });
}

__attribute__((visibility("default"))) int openat64(int dirfd, const char *path, int flags, ...) {
    QMX_OPEN_MODE(flags, mode)
    static OpenatFn real = realFn<OpenatFn>("openat64");
    return openPath(path, -1, [&](const char *p) { return real(dirfd, p, flags, mode); });
}

__attribute__((visibility("default"))) int __open_2(const char *path, int flags) {
    static Open2Fn real = realFn<Open2Fn>("__open_2");
    return openPath(path, -1, [&](const char *p) { return real(p, flags); });
}

__attribute__((visibility("default"))) int __open64_2(const char *path, int flags) {
    static Open2Fn real = realFn<Open2Fn>("__open64_2");
    return openPath(path, -1, [&](const char *p) { return real(p, flags); });
}

__attribute__((visibility("default"))) int __openat_2(int dirfd, const char *path, int flags) {
    static Openat2Fn real = realFn<Openat2Fn>("__openat_2");
    return openPath(path, -1, [&](const char *p) { return real(dirfd, p, flags); });
}

__attribute__((visibility("default"))) FILE *fopen(const char *path, const char *mode) {
    static FopenFn real = realFn<FopenFn>("fopen");
    return openPath(path, static_cast<FILE *>(nullptr), [&](const char *p) { return countedFopen(p, mode, real); });
}

__attribute__((visibility("default"))) FILE *fopen64(const char *path, const char *mode) {
    static FopenFn real = realFn<FopenFn>("fopen64");
    return openPath(path, static_cast<FILE *>(nullptr), [&](const char *p) { return countedFopen(p, mode, real); });
}

}  // extern "C"
