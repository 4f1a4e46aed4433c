// Fuzz target: the API trace ring on an existing file of any content.  The
// input becomes the trace file; then one call's worth of trace work runs on
// it: open (the marker scan), a few messages, close (the marker).
//
// Checked afterwards (a violation traps):
//   - open and every write succeed;
//   - every line the library wrote is 121 bytes: 120 characters without a
//     newline, then the newline; a message's first line carries the time
//     stamp, the process id and the start of the message;
//   - the marker line stands where the close wrote it;
//   - no byte the library did not write has changed and the file did not
//     grow past the end of the last line written (the ring is rewritten in
//     place, never truncated).
//
// The trace goes to "/opt/kestrel/drivers/hba" when that directory exists
// and to the current directory otherwise; the file name is this target's,
// and the file is removed when the process exits.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qmxvlib.h"

namespace {

constexpr const char *kTraceDir = "/opt/kestrel/drivers/hba";
constexpr const char *kName = "fuzz_trace_ring.txt";
constexpr std::size_t kLine = 121;
constexpr int kRingLines = 4000;

// A plain array: it must outlive the exit handler that removes the file.
char g_path[320];

void removeTrace() { ::unlink(g_path); }

const char *tracePath() {
    static bool made = [] {
        struct stat st;
        if (stat(kTraceDir, &st) == 0 && (st.st_mode & 0x4000) != 0)
            std::snprintf(g_path, sizeof g_path, "%s/%s", kTraceDir, kName);
        else
            std::snprintf(g_path, sizeof g_path, "%s", kName);
        std::atexit(removeTrace);
        return true;
    }();
    (void)made;
    return g_path;
}

bool writeAll(const std::string &path, const uint8_t *data, std::size_t size) {
    FILE *fp = std::fopen(path.c_str(), "wb");
    if (fp == nullptr) return false;
    bool good = size == 0 || std::fwrite(data, 1, size, fp) == size;
    return std::fclose(fp) == 0 && good;
}

std::vector<char> readAll(const std::string &path) {
    std::vector<char> out;
    FILE *fp = std::fopen(path.c_str(), "rb");
    if (fp == nullptr) return out;
    char buf[65536];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, fp)) > 0) out.insert(out.end(), buf, buf + n);
    std::fclose(fp);
    return out;
}

void check(bool ok) {
    if (!ok) __builtin_trap();
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The expected text of a message's lines: first part (up to 95 characters,
// all of a message shorter than 96) and second part (the next 119 at most),
// newlines turned into blanks.
void splitMessage(const std::string &m, std::string *first, std::string *second, bool *two) {
    *two = m.size() >= 96;
    *first = *two ? m.substr(0, 95) : m;
    *second = *two ? m.substr(95, 119) : std::string();
    for (std::string *s : {first, second})
        for (char &c : *s)
            if (c == '\n') c = ' ';
}

// The line at `at` is 120 characters without a newline, then a newline.
void checkLineShape(const std::vector<char> &file, std::size_t at) {
    check(at + kLine <= file.size());
    check(file[at + kLine - 1] == '\n');
    check(std::memchr(&file[at], '\n', kLine - 1) == nullptr);
}

// "YYYY/MM/DD hh:mm:ss <pid> <first part>" (or 21 blanks for the stamp),
// padded and cut at 120 characters.
void checkFirstLine(const std::vector<char> &file, std::size_t at, const std::string &first) {
    checkLineShape(file, at);
    std::string line(&file[at], kLine - 1);
    static const char kShape[] = "dddd/dd/dd dd:dd:dd ";
    bool blankStamp = line.compare(0, 21, std::string(21, ' ')) == 0;
    std::size_t p = 0;
    if (blankStamp) {
        p = 21;
    } else {
        for (; p < 20; ++p) check(kShape[p] == 'd' ? isDigit(line[p]) : line[p] == kShape[p]);
    }
    std::string pid = std::to_string(getpid()) + " ";
    check(line.compare(p, pid.size(), pid) == 0);
    p += pid.size();
    std::string expect = first;
    expect.resize(kLine - 1 - p, ' ');
    check(line.compare(p, std::string::npos, expect) == 0);
}

void checkTextLine(const std::vector<char> &file, std::size_t at, const std::string &text) {
    checkLineShape(file, at);
    std::string expect = text.substr(0, kLine - 1);
    expect.resize(kLine - 1, ' ');
    check(std::string(&file[at], kLine - 1) == expect);
}

struct Written {
    std::size_t at;
    enum Kind { First, Second, Marker } kind;
    std::string text;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string path = tracePath();
    static bool named = QMX_ChangeTraceLogFile(const_cast<char *>(kName)) == 0;
    check(named);
    if (!writeAll(path, data, size)) return 0;

    FILE *fp = QMX_OpenApiTraceFile();
    check(fp != nullptr && fp == QMX_G_TraceFP);
    long start = std::ftell(fp);
    check(start >= 0 && std::size_t(start) <= size);
    int count = QMX_G_TraceLineCnt;
    check(count >= 0);

    // Parameters from the input's first bytes: the number of messages, an
    // optional jump of the line count towards the wrap, and the messages'
    // lengths; the messages' text is taken from the input itself (NULs
    // end C strings, so they are replaced).
    auto byte = [&](std::size_t i) -> uint8_t { return i < size ? data[i] : uint8_t(i * 37); };
    int messages = 1 + byte(0) % 5;
    if (byte(1) & 0x80) {
        QMX_G_TraceLineCnt += kRingLines - 4 + (byte(1) & 7);
        count = QMX_G_TraceLineCnt;
    }

    std::vector<Written> written;
    std::size_t pos = std::size_t(start);
    for (int i = 0; i < messages; ++i) {
        std::size_t len = std::size_t(byte(2 + i)) * 300 / 255;
        std::string msg;
        for (std::size_t k = 0; k < len; ++k) {
            char c = char(byte(7 + i * 31 + k));
            msg += c == '\0' ? 'x' : c;
        }
        if (count > kRingLines - 1) {
            count = 0;
            pos = 0;
        }
        check(QMX_WriteApiTraceFile(msg.data()) == fp);
        std::string first, second;
        bool two;
        splitMessage(msg, &first, &second, &two);
        written.push_back({pos, Written::First, first});
        pos += kLine;
        ++count;
        if (two) {
            written.push_back({pos, Written::Second, second});
            pos += kLine;
            ++count;
        }
        check(QMX_G_TraceLineCnt == count);
        check(std::ftell(fp) == long(pos));
    }
    if (count > kRingLines - 1) pos = 0;
    written.push_back({pos, Written::Marker, "EndLog"});
    check(QMX_CloseApiTraceFile() == 0);
    check(QMX_G_TraceFP == nullptr);

    std::vector<char> after = readAll(path);
    // Later lines overwrite earlier ones at the same place (after a wrap):
    // mark which bytes end up holding which line, the last write winning.
    std::vector<int> owner(after.size(), -1);
    std::size_t end = size;
    for (std::size_t w = 0; w < written.size(); ++w) {
        end = std::max(end, written[w].at + kLine);
        for (std::size_t b = written[w].at; b < written[w].at + kLine && b < owner.size(); ++b)
            owner[b] = int(w);
    }
    check(after.size() == end);
    for (std::size_t w = 0; w < written.size(); ++w) {
        const Written &l = written[w];
        bool whole = true;
        for (std::size_t b = l.at; b < l.at + kLine; ++b) whole = whole && owner[b] == int(w);
        if (!whole) continue;  // overwritten later, partly or wholly
        if (l.kind == Written::First)
            checkFirstLine(after, l.at, l.text);
        else
            checkTextLine(after, l.at, l.text);
    }
    // The marker is the last line written and nothing overwrote it.
    checkTextLine(after, written.back().at, "EndLog");
    for (std::size_t b = 0; b < after.size(); ++b)
        if (owner[b] < 0) check(b < size && after[b] == char(data[b]));
    return 0;
}
