// Internal interface of the call frame, trace, lock, discovery and driver
// channel.  Everything here is hidden from the shared object's exports except
// the QMX_* names, which are declared in qmxvlib.h.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <new>
#include <string>
#include <string_view>

#include "qmxvlib.h"

// ---------------------------------------------------------------------------
// Discovery
// ---------------------------------------------------------------------------
constexpr int kMaxPorts = 256;

struct dev_info {
    char name[256];      // "qmxldd%d", without "/dev/"
    uint32_t device_id;  // PCI id word: vendor low 16 bits, device high 16 bits
    uint64_t wwn;
    uint64_t org_wwn;
    uint8_t bus, dev, func;
};

extern dev_info dev_info_all[kMaxPorts];
extern int c_max_port;
extern int skipInitRtn;
extern const QMX_WWN wwn_all_zero;

// The one adapter model the library refuses ("Unsupported HBA Board").
constexpr uint16_t kUnsupportedVendorId = 0x1E5A;
constexpr uint16_t kUnsupportedDeviceId = 0x00F1;
constexpr uint32_t kUnsupportedDeviceWord =
    uint32_t(kUnsupportedVendorId) | (uint32_t(kUnsupportedDeviceId) << 16);

struct sysfs_dev {
    uint8_t hostno;
    uint8_t tid;
    uint16_t lun;
    char devname[16];
};
struct sysfs_dev_t {
    int list_num;
    sysfs_dev *list;
};

uint64_t changeWWN(QMX_WWN c);
void getWWN(uint64_t l, QMX_WWN *wwn);
bool isAllZero(const QMX_WWN &w);
uint64_t qmx_read_tbl(void *ptr, char size);
char qmx_cnvc(char C);
int qmx_convert_string(char *string, uint64_t *value);
int qmx_2CharTo1ByteHex(char *s, unsigned char *c);
int readDevice(sysfs_dev_t *dev);
int compDevice(const void *data1, const void *data2);

// ---------------------------------------------------------------------------
// Driver channel
// ---------------------------------------------------------------------------
struct qmx_spfile {
    uint8_t valid;   // 0xC0 when open
    uint8_t host_no;
    uint8_t rsv[2];
    int instance;
    int fd;
    uint64_t ww_name;
    uint8_t bus, dev, func;
};
constexpr uint8_t kSpfileValid = 0xC0;
inline bool spfileValid(const qmx_spfile &s) { return (s.valid & 0xC0) == 0xC0; }

int open_ap(int *h, const char *name);
int close_ap(int *h);
int ioctl_diag(int hd, int request, void *parmptr);
int open_special_file(qmx_spfile **adap_fd);
int close_special_file(qmx_spfile *adap_fd);
int readvProc(int host_no);

// ---------------------------------------------------------------------------
// Trace helpers
// ---------------------------------------------------------------------------
namespace qmx {

// Writes a constant message (no formatting).
void trace(const char *msg) noexcept;
// Bounded printf-style trace line; the text is cut at 512 bytes, which is
// more than a trace line keeps (214 characters).
void tracef(const char *fmt, ...) noexcept __attribute__((format(printf, 1, 2)));
// System-error report under a constant call name.
void sysError(const char *call, int err) noexcept;
// Sets the process-wide reason code.
void setError(int code) noexcept;

// The library's own release of an exclusive lock: traced as
// QMX_ExeclusiveUnlock, but the lock is freed only when this process holds
// it (its holder record names this process), never another process's.
int releaseOwnLock(int lock_target) noexcept;

// Bounded copy of a C string into a fixed buffer: always terminated, never
// writes past `cap` bytes. Returns true when nothing was cut.
bool copyText(char *dst, std::size_t cap, std::string_view src) noexcept;
template <std::size_t N>
bool copyText(char (&dst)[N], std::string_view src) noexcept {
    return copyText(dst, N, src);
}

// Quotes `text` for the POSIX shell when it holds characters the shell would
// interpret; otherwise returns it unchanged.
std::string shellQuote(std::string_view text);

// ---------------------------------------------------------------------------
// The call frame shared by every exported call.
//
//   QMX_STATUS QMX_GetX(QMX_WWN wwn, T *C_x, T *S_x) {
//       return qmx::run("QMX_GetX", [&](qmx::Frame &f) {
//           int ind = f.port(wwn);
//           if (ind < 0) return f.fail();
//           if (!f.out(C_x, "C_x") || !f.out(S_x, "S_x")) return f.fail();
//           ...
//           return f.ok();
//       });
//   }
// ---------------------------------------------------------------------------
class Frame {
public:
    explicit Frame(const char *name) noexcept : Frame(name, name) {}
    // A call whose opening line carries another label than its closing
    // lines; a null label writes no opening line.
    Frame(const char *name, const char *startLabel) noexcept;
    Frame(const Frame &) = delete;
    Frame &operator=(const Frame &) = delete;
    ~Frame();

    const char *name() const noexcept { return name_; }

    // Set-call lock.  false: the lock could not be taken; the frame has then
    // traced "Lock retry count overflow !!" and its END line (END, not ABEND,
    // is what tools expect on this path), closed the trace and set code 5.
    // The caller returns status() at once.
    [[nodiscard]] bool lock(int target = 1) noexcept;

    // Leaves the lock held when the frame ends (calls whose failure paths
    // do not release it).
    void keepLock() noexcept { lockTarget_ = 0; }

    // Port lookup (QMX_InitRoutine).  -1 with the code it left.
    [[nodiscard]] int port(QMX_WWN wwn) noexcept;

    // Setter port lookup: the all-zero WWN means the driver-wide value and
    // gives -1 without a lookup; *ok is false only when a lookup failed.
    [[nodiscard]] int setterPort(QMX_WWN wwn, bool *ok) noexcept;

    // Output pointer check: null traces "<arg><suffix>" and sets code 2;
    // otherwise the output is preset to its empty value at once.
    template <class T>
    [[nodiscard]] bool out(T *p, const char *arg, const char *suffix = " is null") noexcept {
        if (p == nullptr) {
            nullArg(arg, suffix);
            return false;
        }
        *p = T{};
        return true;
    }
    // Null check without presetting (inputs, caller-filled records).
    [[nodiscard]] bool notNull(const void *p, const char *arg,
                               const char *suffix = " is null") noexcept {
        if (p == nullptr) {
            nullArg(arg, suffix);
            return false;
        }
        return true;
    }

    // Range refusal: traces "<arg><suffix>", sets code 2 and fails the call.
    QMX_STATUS invalid(const char *arg, const char *suffix = " is invalid value") noexcept;

    // Driver request failure: traces the request's name and "<call> Error".
    void requestFailed(const char *request) noexcept;

    // Work to finish before the call's last line (closing the device
    // special files, whose close traces its own lines): run once by ok(),
    // fail() or unsupported(), before the unlock.  null clears it.
    void beforeEnd(void (*fn)(void *), void *arg) noexcept {
        beforeEnd_ = fn;
        beforeEndArg_ = arg;
    }

    QMX_STATUS ok() noexcept;          // unlock, END, close: 0
    QMX_STATUS fail() noexcept;        // unlock, ABEND, close: 1
    QMX_STATUS fail(int code) noexcept;
    QMX_STATUS unsupported() noexcept; // unlock, "<call> UNSUPPORTED", close: 3
    QMX_STATUS status() const noexcept { return status_; }
    bool finished() const noexcept { return done_; }

private:
    void nullArg(const char *arg, const char *suffix) noexcept;
    void finish(const char *word, QMX_STATUS st) noexcept;

    const char *name_;
    int lockTarget_ = 0;  // held lock, 0 when none
    bool done_ = false;
    QMX_STATUS status_ = 1;
    void (*beforeEnd_)(void *) = nullptr;
    void *beforeEndArg_ = nullptr;
};

// Runs an exported call's body with its frame.  No exception leaves: an
// allocation failure becomes "malloc error" with code 1, anything else code 10.
template <class Body>
QMX_STATUS run(const char *name, const char *startLabel, Body &&body) noexcept {
    Frame f(name, startLabel);
    try {
        QMX_STATUS st = body(f);
        if (!f.finished()) return st == 0 ? f.ok() : f.fail();
        return f.status();
    } catch (const std::bad_alloc &) {
        // A throw after the closing line leaves the call's outcome as traced.
        if (f.finished()) return f.status();
        trace("malloc error");
        return f.fail(1);
    } catch (...) {
        if (f.finished()) return f.status();
        return f.fail(10);
    }
}

template <class Body>
QMX_STATUS run(const char *name, Body &&body) noexcept {
    return run(name, name, static_cast<Body &&>(body));
}

}  // namespace qmx
