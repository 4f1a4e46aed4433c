// API trace ring file and system log.
//
// The trace file is a ring of fixed 121-byte lines (120 characters and a
// newline) with an "EndLog" marker line after the newest line, shared by all
// processes and guarded by an exclusive flock from open to close.
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "frame/frame.h"

int QMX_G_ERROR_CD = 0;
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

void writeFixedLine(FILE *fp, const char *text, std::size_t len) {
    char line[kLineWidth + 1];
    std::size_t n = len < std::size_t(kLineWidth) ? len : std::size_t(kLineWidth);
    std::memcpy(line, text, n);
    std::memset(line + n, ' ', kLineWidth - n);
    line[kLineWidth] = '\n';
    std::fwrite(line, 1, sizeof line, fp);
}

void wrapIfFull(FILE *fp) {
    if (QMX_G_TraceLineCnt > kRingLines - 1) {
        QMX_G_TraceLineCnt = 0;
        std::rewind(fp);
    }
}

// Finds the marker line the way a loop of fgets(buf, 132) + strstr("EndLog")
// would, but reading the file in large blocks.  Returns the byte offset of
// the read that holds the marker and the number of reads before it, or -1.
// Fixed buffers only: the open must not fail (or throw) for want of memory.
long findMarker(FILE *fp, int *lines) {
    char block[8192];
    char pending[kScanChunk + 1];  // the read in progress, NUL-terminated
    std::size_t held = 0;
    long pos = 0;  // offset of the current read's first byte
    int count = 0;
    auto finishRead = [&]() -> bool {
        pending[held] = '\0';
        // strstr stops at an embedded NUL, as it would on the fgets buffer.
        if (std::strstr(pending, "EndLog") != nullptr) return true;
        ++count;
        pos += long(held);
        held = 0;
        return false;
    };
    std::size_t got;
    while ((got = std::fread(block, 1, sizeof block, fp)) > 0) {
        std::size_t i = 0;
        while (i < got) {
            // Take bytes up to the newline or until the read is full.
            std::size_t room = kScanChunk - held;
            std::size_t span = got - i < room ? got - i : room;
            const void *nl = std::memchr(block + i, '\n', span);
            std::size_t take = nl ? std::size_t(static_cast<const char *>(nl) - (block + i)) + 1 : span;
            std::memcpy(pending + held, block + i, take);
            held += take;
            i += take;
            if ((nl != nullptr || held == kScanChunk) && finishRead()) {
                *lines = count;
                return pos;
            }
        }
    }
    if (held > 0 && finishRead()) {
        *lines = count;
        return pos;
    }
    return -1;
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

    FILE *fp = std::fopen(path, "r+e");
    if (fp == nullptr) {
        fp = std::fopen(path, "we");
        if (fp == nullptr) return nullptr;
        flock(fileno(fp), LOCK_EX);
        QMX_G_TraceFP = fp;
        return fp;
    }
    flock(fileno(fp), LOCK_EX);
    int lines = 0;
    long at = findMarker(fp, &lines);
    if (at >= 0) {
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

    char stamp[80];
    std::time_t now = std::time(nullptr);
    struct tm tmv;
    if (now != std::time_t(-1) && localtime_r(&now, &tmv) != nullptr) {
        std::snprintf(stamp, sizeof stamp, "%04d/%02d/%02d %02d:%02d:%02d ",
                      tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour,
                      tmv.tm_min, tmv.tm_sec);
    } else {
        std::snprintf(stamp, sizeof stamp, "%21s", "");
    }
    for (char *p = first; *p; ++p)
        if (*p == '\n') *p = ' ';
    for (char *p = second; *p; ++p)
        if (*p == '\n') *p = ' ';

    char line[kLineWidth + 64];
    int n = std::snprintf(line, sizeof line, "%s%d %s", stamp, int(getpid()), first);
    if (n < 0) n = 0;
    std::size_t used = std::size_t(n) < sizeof line ? std::size_t(n) : sizeof line - 1;
    writeFixedLine(fp, line, used);
    ++QMX_G_TraceLineCnt;
    if (two) {
        writeFixedLine(fp, second, std::strlen(second));
        ++QMX_G_TraceLineCnt;
    }
    std::fflush(fp);
    return fp;
}

int QMX_CloseApiTraceFile(void) {
    FILE *fp = QMX_G_TraceFP;
    if (fp == nullptr) return 0;
    wrapIfFull(fp);
    writeFixedLine(fp, "EndLog", 6);
    std::fflush(fp);
    flock(fileno(fp), LOCK_UN);
    std::fclose(fp);
    QMX_G_TraceFP = nullptr;
    return 0;
}

int QMX_ChangeTraceLogFile(char *file) {
    if (file == nullptr) return -1;
    if (QMX_G_TraceFP != nullptr) return -2;
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
    QMX_G_ERROR_CD = 1;
}

FILE *QMX_fopen(char *f, char *m) {
    qmx::trace("QMX_fopen START");
    if (f == nullptr || m == nullptr) {
        QMX_OutputSysLog(const_cast<char *>("fopen"), EINVAL);
        qmx::trace("QMX_fopen ABEND");
        return nullptr;
    }
    FILE *fp = std::fopen(f, m);
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
