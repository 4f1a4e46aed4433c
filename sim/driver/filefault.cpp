// File faults of the virtual host (see filefault.h).
//
// Only files of the simulated host are counted: by default every path under
// "/etc/", "/lib/modules/", "/usr/lib/modules/", "/tmp/" and "/opt/kestrel/"
// except the API trace file (whose write errors the library does not
// check); with a path substring, only the paths that contain it.  The state
// directory of the virtual host is never counted.
//
// What each kind counts:
//   open    open, open64, openat, openat64, creat, fopen, fopen64
//   read    read, pread, pread64, and each refill of a stream's buffer
//   write   write, pwrite, pwrite64, ftruncate, posix_fallocate, and each
//           flush of a stream's buffer
//   fsync   fsync, fdatasync
//   rename  rename, renameat, renameat2 (either name counts)
// Streams opened on counted files are fopencookie streams over a descriptor
// of their own, so that their reads and writes pass through here; fileno()
// gives that descriptor.
#include "filefault.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace qmxsim::fault {
namespace {

struct Plan {
    bool armed = false;
    Op op = Op::Write;
    long n = 0;
    int err = 0;       // 0: kill
    std::string path;  // substring; empty: the default set
    std::string state;
    long seen = 0;
    bool fired = false;
};

Plan &plan() {
    static Plan p;
    return p;
}

const char *const kOpNames[] = {"open", "read", "write", "fsync", "rename"};

template <class F>
F realFn(const char *name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

using WriteFn = ssize_t (*)(int, const void *, size_t);
using CloseFn = int (*)(int);
using OpenFn = int (*)(const char *, int, ...);

ssize_t realWrite(int fd, const void *b, size_t n) {
    static WriteFn fn = realFn<WriteFn>("write");
    return fn(fd, b, n);
}
int realClose(int fd) {
    static CloseFn fn = realFn<CloseFn>("close");
    return fn(fd);
}

// Paths of the counted descriptors (bounded: descriptors past the table are
// not counted).
constexpr int kMaxFd = 4096;
std::string *g_paths[kMaxFd];

std::string absolutePath(const char *path) {
    if (path == nullptr) return std::string();
    if (path[0] == '/') return path;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) return path;
    return std::string(cwd) + "/" + path;
}

bool countedPath(const std::string &p) {
    const Plan &pl = plan();
    if (!pl.state.empty() && p.compare(0, pl.state.size(), pl.state) == 0) return false;
    if (!pl.path.empty()) return p.find(pl.path) != std::string::npos;
    if (p == "/opt/kestrel/drivers/hba/qmxlibTrace.txt") return false;
    for (const char *prefix : {"/etc/", "/lib/modules/", "/usr/lib/modules/", "/tmp/", "/opt/kestrel/"})
        if (p.compare(0, std::strlen(prefix), prefix) == 0) return true;
    return false;
}

void logFired(const std::string &path) {
    const Plan &pl = plan();
    if (pl.state.empty()) return;
    std::string line = std::to_string(getpid()) + " " + kOpNames[int(pl.op)] + " " + std::to_string(pl.n) + " " +
                       (pl.err == 0 ? "kill" : pl.err == ENOSPC ? "ENOSPC" : "EIO") + " " + path + "\n";
    static OpenFn realOpen = realFn<OpenFn>("open");
    int fd = realOpen((pl.state + "/faults.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    ssize_t w = realWrite(fd, line.data(), line.size());
    (void)w;
    realClose(fd);
}

__attribute__((constructor)) void readPlan() {
    const char *spec = std::getenv("QMXSIM_FAULT");
    if (spec == nullptr || *spec == '\0') return;
    Plan &pl = plan();
    std::string s(spec);
    unsetenv("QMXSIM_FAULT");  // the call's own process only, not its tools
    std::size_t a = s.find(':'), b = a == std::string::npos ? a : s.find(':', a + 1);
    if (b == std::string::npos) return;
    std::size_t c = s.find(':', b + 1);
    std::string op = s.substr(0, a), n = s.substr(a + 1, b - a - 1),
                action = s.substr(b + 1, c == std::string::npos ? std::string::npos : c - b - 1);
    if (c != std::string::npos) pl.path = s.substr(c + 1);
    int opIndex = -1;
    for (int i = 0; i < 5; ++i)
        if (op == kOpNames[i]) opIndex = i;
    char *end = nullptr;
    long count = std::strtol(n.c_str(), &end, 10);
    if (opIndex < 0 || end == n.c_str() || *end != '\0' || count < 1) return;
    if (action == "EIO") pl.err = EIO;
    else if (action == "ENOSPC") pl.err = ENOSPC;
    else if (action == "kill") pl.err = 0;
    else return;
    pl.op = Op(opIndex);
    pl.n = count;
    if (const char *st = std::getenv("QMXSIM_STATE")) pl.state = st;
    pl.armed = true;
}

// ------------------------------------------------------------------ streams
struct Cookie {
    int fd;
    FILE *fp;
};
constexpr int kMaxStreams = 256;
Cookie *g_streams[kMaxStreams];

ssize_t cookieRead(void *c, char *buf, size_t n) { return read(static_cast<Cookie *>(c)->fd, buf, n); }
ssize_t cookieWrite(void *c, const char *buf, size_t n) {
    // A short or failed write is an error of the stream.
    size_t done = 0;
    while (done < n) {
        ssize_t w = write(static_cast<Cookie *>(c)->fd, buf + done, n - done);
        if (w < 0) {
            if (errno == EINTR) continue;
            return done > 0 ? ssize_t(done) : -1;
        }
        done += size_t(w);
    }
    return ssize_t(done);
}
int cookieSeek(void *c, off64_t *pos, int whence) {
    off64_t r = lseek64(static_cast<Cookie *>(c)->fd, *pos, whence);
    if (r < 0) return -1;
    *pos = r;
    return 0;
}
int cookieClose(void *c) {
    Cookie *k = static_cast<Cookie *>(c);
    for (Cookie *&s : g_streams)
        if (s == k) s = nullptr;
    int r = close(k->fd);
    delete k;
    return r;
}

}  // namespace

bool armed() noexcept { return plan().armed; }

bool counted(const char *path) noexcept {
    if (!plan().armed || path == nullptr) return false;
    try {
        return countedPath(absolutePath(path));
    } catch (...) {
        return false;
    }
}

void track(int fd, const char *path) noexcept {
    if (!plan().armed || fd < 0 || fd >= kMaxFd) return;
    try {
        std::string p = absolutePath(path);
        if (!countedPath(p)) return;
        delete g_paths[fd];
        g_paths[fd] = new std::string(p);
    } catch (...) {
    }
}

void untrack(int fd) noexcept {
    if (fd < 0 || fd >= kMaxFd || g_paths[fd] == nullptr) return;
    delete g_paths[fd];
    g_paths[fd] = nullptr;
}

bool isTracked(int fd) noexcept { return fd >= 0 && fd < kMaxFd && g_paths[fd] != nullptr; }

int streamFd(FILE *fp) noexcept {
    if (fp == nullptr) return -1;
    for (Cookie *s : g_streams)
        if (s != nullptr && s->fp == fp) return s->fd;
    return -1;
}

bool hit(Op op, const char *path, int fd) noexcept {
    Plan &pl = plan();
    if (!pl.armed || pl.fired || op != pl.op) return false;
    std::string p;
    try {
        if (path != nullptr) {
            p = absolutePath(path);
            if (!countedPath(p)) return false;
        } else {
            if (fd < 0 || fd >= kMaxFd || g_paths[fd] == nullptr) return false;
            p = *g_paths[fd];
        }
    } catch (...) {
        return false;
    }
    if (++pl.seen != pl.n) return false;
    pl.fired = true;
    logFired(p);
    if (pl.err == 0) {
        kill(getpid(), SIGKILL);
        for (;;) pause();
    }
    errno = pl.err;
    return true;
}

FILE *wrapStream(int fd, const char *mode) noexcept {
    int slot = -1;
    for (int i = 0; i < kMaxStreams && slot < 0; ++i)
        if (g_streams[i] == nullptr) slot = i;
    if (slot < 0) {
        errno = EMFILE;
        return nullptr;
    }
    // fopencookie takes the plain mode letters only.
    char m[4] = {mode[0], '\0', '\0', '\0'};
    if (std::strchr(mode, '+') != nullptr) m[1] = '+';
    Cookie *k = new (std::nothrow) Cookie{fd, nullptr};
    if (k == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    cookie_io_functions_t io = {cookieRead, cookieWrite, cookieSeek, cookieClose};
    FILE *fp = fopencookie(k, m, io);
    if (fp == nullptr) {
        delete k;
        return nullptr;
    }
    k->fp = fp;
    g_streams[slot] = k;
    return fp;
}

}  // namespace qmxsim::fault

// ---------------------------------------------------------------------------
// Interposed calls (the open family and fopen live with the driver's own
// path handling in driver.cpp)
// ---------------------------------------------------------------------------
using qmxsim::fault::hit;
using qmxsim::fault::Op;

namespace {
template <class F>
F nextFn(const char *name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}
}  // namespace

#define QMX_EXPORT extern "C" __attribute__((visibility("default")))

QMX_EXPORT ssize_t read(int fd, void *buf, size_t n) {
    static auto real = nextFn<ssize_t (*)(int, void *, size_t)>("read");
    if (qmxsim::fault::armed() && hit(Op::Read, nullptr, fd)) return -1;
    return real(fd, buf, n);
}
QMX_EXPORT ssize_t pread(int fd, void *buf, size_t n, off_t off) {
    static auto real = nextFn<ssize_t (*)(int, void *, size_t, off_t)>("pread");
    if (qmxsim::fault::armed() && hit(Op::Read, nullptr, fd)) return -1;
    return real(fd, buf, n, off);
}
QMX_EXPORT ssize_t pread64(int fd, void *buf, size_t n, off64_t off) {
    static auto real = nextFn<ssize_t (*)(int, void *, size_t, off64_t)>("pread64");
    if (qmxsim::fault::armed() && hit(Op::Read, nullptr, fd)) return -1;
    return real(fd, buf, n, off);
}
QMX_EXPORT ssize_t write(int fd, const void *buf, size_t n) {
    static auto real = nextFn<ssize_t (*)(int, const void *, size_t)>("write");
    if (qmxsim::fault::armed() && hit(Op::Write, nullptr, fd)) return -1;
    return real(fd, buf, n);
}
QMX_EXPORT ssize_t pwrite(int fd, const void *buf, size_t n, off_t off) {
    static auto real = nextFn<ssize_t (*)(int, const void *, size_t, off_t)>("pwrite");
    if (qmxsim::fault::armed() && hit(Op::Write, nullptr, fd)) return -1;
    return real(fd, buf, n, off);
}
QMX_EXPORT ssize_t pwrite64(int fd, const void *buf, size_t n, off64_t off) {
    static auto real = nextFn<ssize_t (*)(int, const void *, size_t, off64_t)>("pwrite64");
    if (qmxsim::fault::armed() && hit(Op::Write, nullptr, fd)) return -1;
    return real(fd, buf, n, off);
}
QMX_EXPORT int ftruncate(int fd, off_t len) {
    static auto real = nextFn<int (*)(int, off_t)>("ftruncate");
    if (qmxsim::fault::armed() && hit(Op::Write, nullptr, fd)) return -1;
    return real(fd, len);
}
QMX_EXPORT int ftruncate64(int fd, off64_t len) {
    static auto real = nextFn<int (*)(int, off64_t)>("ftruncate64");
    if (qmxsim::fault::armed() && hit(Op::Write, nullptr, fd)) return -1;
    return real(fd, len);
}
// posix_fallocate reports its error as its result, not in errno.
QMX_EXPORT int posix_fallocate(int fd, off_t off, off_t len) {
    static auto real = nextFn<int (*)(int, off_t, off_t)>("posix_fallocate");
    if (qmxsim::fault::armed() && hit(Op::Write, nullptr, fd)) return errno;
    return real(fd, off, len);
}
QMX_EXPORT int posix_fallocate64(int fd, off64_t off, off64_t len) {
    static auto real = nextFn<int (*)(int, off64_t, off64_t)>("posix_fallocate64");
    if (qmxsim::fault::armed() && hit(Op::Write, nullptr, fd)) return errno;
    return real(fd, off, len);
}
QMX_EXPORT int fsync(int fd) {
    static auto real = nextFn<int (*)(int)>("fsync");
    if (qmxsim::fault::armed() && hit(Op::Fsync, nullptr, fd)) return -1;
    return real(fd);
}
QMX_EXPORT int fdatasync(int fd) {
    static auto real = nextFn<int (*)(int)>("fdatasync");
    if (qmxsim::fault::armed() && hit(Op::Fsync, nullptr, fd)) return -1;
    return real(fd);
}
QMX_EXPORT int rename(const char *from, const char *to) {
    static auto real = nextFn<int (*)(const char *, const char *)>("rename");
    if (qmxsim::fault::armed() &&
        hit(Op::Rename, qmxsim::fault::counted(from) ? from : to))
        return -1;
    return real(from, to);
}
QMX_EXPORT int renameat(int fromDir, const char *from, int toDir, const char *to) {
    static auto real = nextFn<int (*)(int, const char *, int, const char *)>("renameat");
    if (qmxsim::fault::armed() && hit(Op::Rename, qmxsim::fault::counted(from) ? from : to)) return -1;
    return real(fromDir, from, toDir, to);
}
QMX_EXPORT int renameat2(int fromDir, const char *from, int toDir, const char *to, unsigned flags) {
    static auto real = nextFn<int (*)(int, const char *, int, const char *, unsigned)>("renameat2");
    if (qmxsim::fault::armed() && hit(Op::Rename, qmxsim::fault::counted(from) ? from : to)) return -1;
    return real(fromDir, from, toDir, to, flags);
}
QMX_EXPORT int close(int fd) {
    static auto real = nextFn<int (*)(int)>("close");
    qmxsim::fault::untrack(fd);
    return real(fd);
}
QMX_EXPORT FILE *fdopen(int fd, const char *mode) {
    static auto real = nextFn<FILE *(*)(int, const char *)>("fdopen");
    if (qmxsim::fault::armed() && qmxsim::fault::isTracked(fd))
        return qmxsim::fault::wrapStream(fd, mode);
    return real(fd, mode);
}
QMX_EXPORT int fileno(FILE *fp) {
    static auto real = nextFn<int (*)(FILE *)>("fileno");
    int fd = qmxsim::fault::armed() ? qmxsim::fault::streamFd(fp) : -1;
    return fd >= 0 ? fd : real(fp);
}
QMX_EXPORT int fileno_unlocked(FILE *fp) {
    static auto real = nextFn<int (*)(FILE *)>("fileno_unlocked");
    int fd = qmxsim::fault::armed() ? qmxsim::fault::streamFd(fp) : -1;
    return fd >= 0 ? fd : real(fp);
}
