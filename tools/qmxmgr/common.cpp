#include "common.h"

#include <glob.h>
#include <unistd.h>

#include <cstdio>

namespace qmxmgr {

namespace {
std::string callMessage(const std::string &call, int code) {
    std::string msg = call + " failed: " + reasonText(code);
    msg += " (reason code " + std::to_string(code) + ")";
    return msg;
}
}  // namespace

CallError::CallError(std::string call, int code)
    : std::runtime_error(callMessage(call, code)), call_(std::move(call)), code_(code) {}

const char *reasonText(int code) {
    switch (code) {
    case 0: return "no reason given";
    case 1: return "a system call or allocation failed";
    case 2: return "invalid argument";
    case 4: return "the WWN names no discovered port";
    case 5: return "the exclusive lock could not be taken";
    case 6: return "the adapter model is not supported";
    case 7: return "a driver request failed";
    case 9: return "a data file is malformed";
    case 10: return "internal error or unexpected answer";
    case 11: return "the BIOS tool failed";
    case 12: return "diagnostics were aborted";
    case 14: return "a file size limit was exceeded";
    case 20: return "transceiver isolation refused by the port's state";
    case 21:
    case 22: return "adapter isolation refused by the driver";
    case 30: return "bad status";
    case 31: return "QMX-PCM disable";
    case 32: return "bad new status";
    case 33: return "no device";
    case 34: return "not register lgde (no device)";
    case 35: return "adapter status is not online";
    case 36: return "target status is not online";
    case 37: return "request imcomplete";
    case 38: return "BUSY path-delete";
    case 39: return "target scan: driver result 3";
    case 40: return "target scan: driver result 2";
    case 41: return "target scan: driver result 1";
    default: return "unknown reason";
    }
}

void check(QMX_STATUS st, const char *call) {
    if (st != 0) throw CallError(call, QMX_LastErrorCode());
}

std::string wwnText(const QMX_WWN &w) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", w.wwn[0],
                  w.wwn[1], w.wwn[2], w.wwn[3], w.wwn[4], w.wwn[5], w.wwn[6], w.wwn[7]);
    return buf;
}

namespace {
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

bool parseWwn(std::string_view text, QMX_WWN *out) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    QMX_WWN w{};
    if (text.size() == 16) {
        for (std::size_t i = 0; i < 16; ++i)
            if (hexValue(text[i]) < 0) return false;
        for (std::size_t i = 0; i < 8; ++i)
            w.wwn[i] = uint8_t(hexValue(text[2 * i]) << 4 | hexValue(text[2 * i + 1]));
    } else if (text.size() == 23) {
        // 8 pairs separated by colons
        for (std::size_t i = 0; i < 8; ++i) {
            std::size_t p = 3 * i;
            int hi = hexValue(text[p]), lo = hexValue(text[p + 1]);
            if (hi < 0 || lo < 0) return false;
            if (i < 7 && text[p + 2] != ':') return false;
            w.wwn[i] = uint8_t(hi << 4 | lo);
        }
    } else {
        return false;
    }
    if (out) *out = w;
    return true;
}

bool isAllZeroWwn(const QMX_WWN &w) {
    for (uint8_t b : w.wwn)
        if (b != 0) return false;
    return true;
}

void reportMissingHostPieces() {
    glob_t g{};
    bool devices = glob("/dev/qmxldd[0-9]*", 0, nullptr, &g) == 0 && g.gl_pathc > 0;
    globfree(&g);
    if (!devices) std::fprintf(stderr, "qmxmgr: no /dev/qmxldd* device: is the qmxldd driver loaded?\n");
    if (access("/etc/qmxldd.conf", F_OK) != 0)
        std::fprintf(stderr, "qmxmgr: no /etc/qmxldd.conf: the driver's configuration file is missing\n");
}

std::string fieldText(const void *data, std::size_t size) {
    const auto *p = static_cast<const unsigned char *>(data);
    std::string s;
    for (std::size_t i = 0; i < size && p[i] != 0; ++i)
        s.push_back(p[i] < 0x20 || p[i] >= 0x7F ? '?' : char(p[i]));
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

}  // namespace qmxmgr
