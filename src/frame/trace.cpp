// API trace ring file and system log.
//
// The trace file is a ring of fixed 121-byte lines (120 characters and a
// newline) with an "EndLog" marker line after the newest line, shared by all
// processes and guarded by an exclusive flock from open to close.
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "frame/frame.h"

int QMX_G_ERROR_CD = QMX_ERR_NONE;
char QMX_G_ERROR_MES[66] = "";
// Holds 256 characters and the terminator: the length test admits 256.
char QMX_G_TraceLog[257] = "qmxlibTrace.txt";
FILE *QMX_G_TraceFP = nullptr;
int QMX_G_TraceLineCnt = 0;

namespace {

constexpr int kLineWidth = 120;
constexpr int kRingLines = 4000;
constexpr const char *kTraceDir = "/opt/kestrel/drivers/hba";
// The marker scan reads like fgets with a 132-byte buffer: up to 130
// characters and the newline per read.
constexpr std::size_t kScanChunk = 131;

// A line of the ring in `out` (kLineWidth + 1 bytes): `text` cut or padded
// with blanks, and the newline.
void fixedLine(char *out, const char *text, std::size_t len) {
    std::size_t n = len < std::size_t(kLineWidth) ? len : std::size_t(kLineWidth);
    std::memcpy(out, text, n);
    std::memset(out + n, ' ', kLineWidth - n);
    out[kLineWidth] = '\n';
}

// The ring is written unbuffered, each message's lines with one fwrite (one
// write): every line must be in the file once its message returns, and a
// buffered stream would also read the block around each seek first.
FILE *openRing(const char *path, const char *mode) {
    FILE *fp = std::fopen(path, mode);
    if (fp != nullptr) std::setvbuf(fp, nullptr, _IONBF, 0);
    return fp;
}

// The process id in every line, asked of the kernel once a process (a
// forked child asks again).
pid_t cachedPid = 0;
void forgetPid() { cachedPid = 0; }
pid_t tracePid() {
    static const bool registered = pthread_atfork(nullptr, nullptr, forgetPid) == 0;
    if (cachedPid == 0 || !registered) cachedPid = getpid();
    return cachedPid;
}

void wrapIfFull(FILE *fp);

// The scan's block buffer (the library is single-threaded).  A fixed
// buffer: the open must not fail (or throw) for want of memory.
constexpr std::size_t kScanBlock = 64 * 1024;
char scanBlock[kScanBlock + 1];

// Reads the file from `at` into the block; returns the bytes held.
std::size_t fillBlock(int fd, long at) {
    std::size_t have = 0;
    while (have < kScanBlock) {
        ssize_t got = pread(fd, scanBlock + have, kScanBlock - have, off_t(at) + off_t(have));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        have += std::size_t(got);
    }
    scanBlock[have] = '\0';
    return have;
}

// The first "EndLog" in [from, to) of the NUL-terminated block, past
// embedded NULs; nullptr when there is none.
const char *findText(const char *from, const char *to) {
    while (from < to) {
        const char *hit = std::strstr(from, "EndLog");
        if (hit != nullptr) return hit < to ? hit : nullptr;
        from += std::strlen(from) + 1;  // stopped at an embedded NUL
    }
    return nullptr;
}

// Finds the marker line the way a loop of fgets(buf, 132) + strstr("EndLog")
// would: each read takes the bytes up to its newline or 131 bytes, and
// matches when "EndLog" lies whole inside it before any NUL.  Returns the
// byte offset of the read that holds the marker and the number of reads
// before it, or -1.  The text is searched block by block for the marker's
// first candidate, so the reads before it only look for their newline.
// The stream is not read through: its position is set by the caller.
long findMarker(FILE *fp, int *lines) {
    const int fd = fileno(fp);
    long base = 0;          // file offset of scanBlock[0]
    std::size_t have = 0;   // bytes held
    bool eof = false;
    const char *cand = nullptr;  // next candidate at or after the read
    long start = 0;         // offset of the current read
    int count = 0;
    for (;;) {
        std::size_t off = std::size_t(start - base);
        if (!eof && off + kScanChunk > have) {
            base = start;
            have = fillBlock(fd, base);
            eof = have < kScanBlock;
            off = 0;
            cand = nullptr;
        }
        if (off >= have) return -1;
        const char *read = scanBlock + off;
        std::size_t span = have - off < kScanChunk ? have - off : kScanChunk;
        const void *nl = std::memchr(read, '\n', span);
        const char *end = nl ? static_cast<const char *>(nl) + 1 : read + span;
        if (cand == nullptr || cand < read) {
            cand = findText(read, scanBlock + have);
            if (cand == nullptr) cand = scanBlock + have;  // none in this block
        }
        // A later "EndLog" of the same read would also run past its end or
        // follow the same NUL, so the first one decides.
        if (cand < end && cand + 6 <= end && std::memchr(read, '\0', std::size_t(cand - read)) == nullptr) {
            *lines = count;
            return start;
        }
        ++count;
        start += long(end - read);
    }
}

// Where this process left the marker at its last close, and the file as it
// stood then.  The next open takes the marker from here instead of scanning
// when the file is provably as it was left: the same file, size and time
// stamps, the marker line still in place, and the scan's answer for it
// known (a whole 121-byte line before it for each read counted, none of
// them holding "EndLog").  The time stamps are read at the close, after the
// last write, so on kernels with fine-grained time stamps any later change
// gets new ones; where they are coarse, a library writer within the same
// tick is still seen: every writer starts at the first marker and
// overwrites it with its first line.  Anything else scans.
struct RingMemo {
    bool valid = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    timespec mtim{}, ctim{};
    long marker = 0;
};
RingMemo ringMemo;

// The lines written since the open: `basePos` is where the scan left the
// stream (or the top after a wrap) with `baseReads` reads before it.
struct TraceSession {
    long basePos = 0;
    long baseReads = 0;
    bool clean = true;  // no line written holds "EndLog"
};
TraceSession session;

constexpr std::string_view kMarkerLine =
    "EndLog                                                                                        "
    "                          \n";
static_assert(kMarkerLine.size() == kLineWidth + 1);

bool sameFile(const RingMemo &m, const struct stat &st) {
    return m.dev == st.st_dev && m.ino == st.st_ino && m.size == st.st_size &&
           m.mtim.tv_sec == st.st_mtim.tv_sec && m.mtim.tv_nsec == st.st_mtim.tv_nsec &&
           m.ctim.tv_sec == st.st_ctim.tv_sec && m.ctim.tv_nsec == st.st_ctim.tv_nsec;
}

// The marker as this process left it, when the file is provably unchanged.
bool rememberedMarker(int fd, long *at) {
    if (!ringMemo.valid) return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || !sameFile(ringMemo, st)) return false;
    char line[kLineWidth + 1];
    if (pread(fd, line, sizeof line, off_t(ringMemo.marker)) != ssize_t(sizeof line)) return false;
    if (std::string_view(line, sizeof line) != kMarkerLine) return false;
    *at = ringMemo.marker;
    return true;
}

// Called at close, the marker written at `marker` and flushed.
void rememberMarker(FILE *fp, long marker) {
    ringMemo.valid = false;
    long ahead = marker - session.basePos;
    if (!session.clean || std::ferror(fp) || ahead < 0 || ahead % (kLineWidth + 1) != 0) return;
    long reads = session.baseReads + ahead / (kLineWidth + 1);
    // The scan would count marker / 121 reads only over whole lines; a
    // count past the ring's last line would wrap at the next write.
    if (reads * (kLineWidth + 1) != marker || reads > kRingLines - 1) return;
    struct stat st;
    if (fstat(fileno(fp), &st) != 0) return;
    ringMemo = {true, st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim, marker};
}

// "YYYY/MM/DD hh:mm:ss " of the local time `now` (21 blanks when it cannot
// be told), made once a second.
std::string_view stampOf(std::time_t now) {
    thread_local std::time_t last = std::time_t(-1);
    thread_local char text[80];
    thread_local std::size_t len = 0;
    if (len == 0 || now != last) {
        struct tm tmv;
        int n;
        if (now != std::time_t(-1) && localtime_r(&now, &tmv) != nullptr)
            n = std::snprintf(text, sizeof text, "%04d/%02d/%02d %02d:%02d:%02d ", tmv.tm_year + 1900,
                              tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
        else
            n = std::snprintf(text, sizeof text, "%21s", "");
        len = std::size_t(std::clamp(n, 0, int(sizeof text) - 1));
        last = now;
    }
    return {text, len};
}

void wrapIfFull(FILE *fp) {
    if (QMX_G_TraceLineCnt > kRingLines - 1) {
        QMX_G_TraceLineCnt = 0;
        std::rewind(fp);
        session.basePos = 0;
        session.baseReads = 0;
    }
}

}  // namespace

FILE *QMX_OpenApiTraceFile(void) {
    // The count restarts on every open, also a nested one (kept on purpose:
    // the position stays where the outer call left it).
    QMX_G_TraceLineCnt = 0;
    if (QMX_G_TraceFP != nullptr) return QMX_G_TraceFP;

    char path[512];
    struct stat st;
    if (stat(kTraceDir, &st) == 0 && (st.st_mode & 0x4000) != 0)
        std::snprintf(path, sizeof path, "%s/%s", kTraceDir, QMX_G_TraceLog);
    else
        std::snprintf(path, sizeof path, "%s", QMX_G_TraceLog);

    // Close-on-exec: the tools and shell commands a call runs must not
    // inherit the trace (nor hold its flock after the call closes it).
    FILE *fp = openRing(path, "r+e");
    if (fp == nullptr) {
        fp = openRing(path, "we");
        if (fp == nullptr) return nullptr;
        flock(fileno(fp), LOCK_EX);
        session = TraceSession{};
        QMX_G_TraceFP = fp;
        return fp;
    }
    flock(fileno(fp), LOCK_EX);
    int lines = 0;
    long at = -1;
    if (rememberedMarker(fileno(fp), &at))
        lines = int(at / (kLineWidth + 1));
    else
        at = findMarker(fp, &lines);
    session = TraceSession{};
    if (at >= 0) {
        session.basePos = at;
        session.baseReads = lines;
        std::fseek(fp, at, SEEK_SET);
        QMX_G_TraceLineCnt = lines;
    } else {
        QMX_G_TraceLineCnt = 0;
        std::rewind(fp);
    }
    QMX_G_TraceFP = fp;
    return fp;
}

FILE *QMX_WriteApiTraceFile(char *message) {
    FILE *fp = QMX_G_TraceFP;
    if (fp == nullptr || message == nullptr) return nullptr;
    wrapIfFull(fp);

    std::size_t len = std::strlen(message);
    char first[96] = "";
    char second[120] = "";
    bool two = false;
    if (len < 96) {
        std::memcpy(first, message, len + 1);
    } else {
        std::memcpy(first, message, 95);
        first[95] = '\0';
        std::size_t rest = len - 95 < 119 ? len - 95 : 119;
        std::memcpy(second, message + 95, rest);
        second[rest] = '\0';
        two = true;
    }

    const std::string_view stamp = stampOf(std::time(nullptr));
    if (std::strstr(first, "EndLog") != nullptr || std::strstr(second, "EndLog") != nullptr)
        session.clean = false;  // a later scan would stop at this line
    for (char *p = first; *p; ++p)
        if (*p == '\n') *p = ' ';
    for (char *p = second; *p; ++p)
        if (*p == '\n') *p = ' ';

    // The stamp, the process id and the text (put together without a
    // format: most calls write a line an item).
    char line[kLineWidth + 64];
    std::size_t used = 0;
    auto put = [&](std::string_view s) {
        std::size_t n = std::min(s.size(), sizeof line - 1 - used);
        std::memcpy(line + used, s.data(), n);
        used += n;
    };
    char pid[16];
    put(stamp);
    put(std::string_view(pid, std::size_t(std::to_chars(pid, pid + sizeof pid, int(tracePid())).ptr - pid)));
    put(" ");
    put(first);
    char out[2 * (kLineWidth + 1)];
    fixedLine(out, line, used);
    ++QMX_G_TraceLineCnt;
    if (two) {
        fixedLine(out + kLineWidth + 1, second, std::strlen(second));
        ++QMX_G_TraceLineCnt;
    }
    std::fwrite(out, 1, std::size_t(two ? 2 : 1) * (kLineWidth + 1), fp);
    std::fflush(fp);
    return fp;
}

int QMX_CloseApiTraceFile(void) {
    FILE *fp = QMX_G_TraceFP;
    if (fp == nullptr) return 0;
    wrapIfFull(fp);
    long marker = std::ftell(fp);
    char out[kLineWidth + 1];
    fixedLine(out, "EndLog", 6);
    std::fwrite(out, 1, sizeof out, fp);
    std::fflush(fp);
    rememberMarker(fp, marker);
    flock(fileno(fp), LOCK_UN);
    std::fclose(fp);
    QMX_G_TraceFP = nullptr;
    return 0;
}

int QMX_ChangeTraceLogFile(char *file) {
    if (file == nullptr) return -1;
    if (QMX_G_TraceFP != nullptr) return -2;
    ringMemo.valid = false;
    std::size_t len = strnlen(file, sizeof QMX_G_TraceLog);
    if (len > sizeof QMX_G_TraceLog - 1) return -3;
    std::memcpy(QMX_G_TraceLog, file, len);
    QMX_G_TraceLog[len] = '\0';
    return 0;
}

int QMX_WriteSyslog(int type, char *message) {
    static const int prio[] = {LOG_INFO, LOG_WARNING, LOG_ERR};
    if (type < 0 || type > 2 || message == nullptr) return -1;
    openlog("qmxlib.so", LOG_CONS | LOG_PID, LOG_USER);
    // The message is logged as it stands, never used as the format: a fixed
    // text comes out the same, and a per-cent sign in any other text is
    // just a character.
    syslog(prio[type], "%s", message);
    closelog();
    return 0;
}

void QMX_OutputSysLog(char *f, int cd) {
    char text[128];
    const char *err = strerror_r(cd, text, sizeof text);
    std::snprintf(QMX_G_ERROR_MES, sizeof QMX_G_ERROR_MES, "qmxvlib:%s is error. errno(%d:%s)",
                  f ? f : "(null)", cd, err);
    QMX_WriteApiTraceFile(QMX_G_ERROR_MES);
    QMX_G_ERROR_CD = QMX_ERR_SYSTEM;
}

FILE *QMX_fopen(char *f, char *m) {
    qmx::trace("QMX_fopen START");
    if (f == nullptr || m == nullptr) {
        QMX_OutputSysLog(const_cast<char *>("fopen"), EINVAL);
        qmx::trace("QMX_fopen ABEND");
        return nullptr;
    }
    // Every stream opened here is close-on-exec ("e" is added to the mode
    // when the caller did not give it), so no child inherits it.
    char mode[16];
    std::size_t ml = strnlen(m, sizeof mode - 2);
    std::memcpy(mode, m, ml);
    if (std::memchr(mode, 'e', ml) == nullptr) mode[ml++] = 'e';
    mode[ml] = '\0';
    FILE *fp = std::fopen(f, mode);
    if (fp != nullptr) return fp;
    QMX_OutputSysLog(const_cast<char *>("fopen"), errno);
    qmx::trace("QMX_fopen ABEND");
    return nullptr;
}

namespace qmx {

void trace(const char *msg) noexcept { QMX_WriteApiTraceFile(const_cast<char *>(msg)); }

void tracef(const char *fmt, ...) noexcept {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    QMX_WriteApiTraceFile(buf);
}

void sysError(const char *call, int err) noexcept {
    QMX_OutputSysLog(const_cast<char *>(call), err);
}

void setError(int code) noexcept { QMX_G_ERROR_CD = code; }

bool copyText(char *dst, std::size_t cap, std::string_view src) noexcept {
    if (cap == 0) return src.empty();
    std::size_t n = src.size() < cap - 1 ? src.size() : cap - 1;
    std::memcpy(dst, src.data(), n);
    dst[n] = '\0';
    return n == src.size();
}

std::string shellQuote(std::string_view text) {
    bool plain = !text.empty();
    for (char c : text) {
        bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    std::strchr("_-./:,+=@%", c) != nullptr;
        if (!safe || c == '\0') {
            plain = false;
            break;
        }
    }
    if (plain) return std::string(text);
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += '\'';
    return out;
}

}  // namespace qmx
