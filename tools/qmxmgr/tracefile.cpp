#include "tracefile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "qmxvlib.h"

namespace qmxmgr {

namespace {
constexpr const char *kToolDir = "/opt/kestrel/drivers/hba";
constexpr std::size_t kMaxTraceBytes = 4 * 1024 * 1024;  // a ring is under 500 KB
}  // namespace

std::string traceFilePath() {
    std::string name(QMX_G_TraceLog, strnlen(QMX_G_TraceLog, sizeof QMX_G_TraceLog));
    if (name.empty()) name = "qmxlibTrace.txt";
    struct stat st;
    if (stat(kToolDir, &st) == 0 && S_ISDIR(st.st_mode)) return std::string(kToolDir) + "/" + name;
    return name;
}

bool readTraceFile(const std::string &path, std::string *content) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    flock(fd, LOCK_SH);
    content->clear();
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        content->append(buf, std::size_t(n));
        if (content->size() >= kMaxTraceBytes) break;
    }
    flock(fd, LOCK_UN);
    close(fd);
    return true;
}

std::vector<std::string> chronological(const std::string &content) {
    std::vector<std::string> lines;
    std::size_t marker = std::string::npos;
    std::size_t pos = 0;
    while (pos < content.size()) {
        std::size_t end = content.find('\n', pos);
        if (end == std::string::npos) end = content.size();
        std::string line = content.substr(pos, end - pos);
        pos = end + 1;
        // The library takes the first line holding the marker word as the
        // marker; so does the reader.
        if (marker == std::string::npos && line.find("EndLog") != std::string::npos) {
            marker = lines.size();
            continue;
        }
        while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
        lines.push_back(std::move(line));
    }
    std::vector<std::string> out;
    out.reserve(lines.size());
    if (marker != std::string::npos) {
        for (std::size_t i = marker; i < lines.size(); ++i)
            if (!lines[i].empty() && lines[i].find("EndLog") == std::string::npos)
                out.push_back(lines[i]);
        for (std::size_t i = 0; i < marker; ++i)
            if (!lines[i].empty()) out.push_back(lines[i]);
    } else {
        for (auto &l : lines)
            if (!l.empty()) out.push_back(l);
    }
    return out;
}

std::vector<std::string> newLines(const std::vector<std::string> &before,
                                  const std::vector<std::string> &now) {
    if (before.empty()) return now;
    // Match the newest few lines of `before` (time stamp and process id make
    // runs of lines distinctive) at the latest place they occur in `now`.
    std::size_t k = std::min<std::size_t>(before.size(), 8);
    auto tailBegin = before.end() - std::ptrdiff_t(k);
    for (std::size_t end = now.size(); end >= k; --end) {
        if (std::equal(tailBegin, before.end(), now.begin() + std::ptrdiff_t(end - k)))
            return std::vector<std::string>(now.begin() + std::ptrdiff_t(end), now.end());
        if (end == k) break;
    }
    return now;  // everything was overwritten since the last look
}

namespace {
// The message of a line written by process `pid`, or false.
bool messageOf(const std::string &line, const std::string &pidText, std::string *msg) {
    // "YYYY/MM/DD HH:MM:SS " is 20 characters, then the process id and a blank.
    if (line.size() < 21 + pidText.size() || line.compare(20, pidText.size(), pidText) != 0 ||
        line[20 + pidText.size()] != ' ')
        return false;
    *msg = line.substr(21 + pidText.size());
    return true;
}

// "<routine> START", "<routine> END(...)", "<call> ABEND", "<call> Error":
// progress lines of the library's routines, not reasons.
bool isRoutineLine(const std::string &msg) {
    std::size_t blank = msg.find(' ');
    if (blank == std::string::npos) return false;
    std::string rest = msg.substr(blank + 1);
    for (const char *word : {"START", "END", "ABEND", "Error"})
        if (rest.rfind(word, 0) == 0) return true;
    return false;
}
}  // namespace

std::string failureDetail(const std::string &call) {
    std::string content;
    if (!readTraceFile(traceFilePath(), &content)) return {};
    std::vector<std::string> lines = chronological(content);
    std::string pidText = std::to_string(getpid());
    std::string abend = call + " ABEND";
    std::string msg;
    std::size_t i = lines.size();
    while (i > 0) {
        --i;
        if (messageOf(lines[i], pidText, &msg) && msg == abend) break;
        if (i == 0) return {};
    }
    while (i > 0) {
        --i;
        if (!messageOf(lines[i], pidText, &msg)) continue;
        if (msg == call + " START") return {};  // nothing said between START and ABEND
        if (isRoutineLine(msg)) continue;
        return msg;
    }
    return {};
}

std::string failureLine(const std::string &call, const std::string &message) {
    std::string detail = failureDetail(call);
    return detail.empty() ? message : message + ": " + detail;
}

}  // namespace qmxmgr
