// Configuration listing of the BIOS tool ("cfgshowex"): the decoder tables,
// the decoded settings of the last listing read in this process, and the line
// parser that fills them.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bios/bios.h"
#include "frame/frame.h"

const qmx_cfg_tag statueVal[2] = {{"ENABLE", 1}, {"DISABLE", 2}};
const qmx_cfg_tag connectionType[3] = {
    {"AUTO DETECTION (LOOP PREFERRED)", 1}, {"POINT TO POINT ONLY", 2}, {"LOOP ONLY", 3}};
const qmx_cfg_tag dataRate[6] = {{"AUTO DETECTION", 0}, {"1Gbps ONLY", 1},  {"2Gbps ONLY", 2},
                                 {"4Gbps ONLY", 4},     {"8Gbps ONLY", 8},  {"10Gbps ONLY", 10}};
const qmx_cfg_tag ovrwrtMode[3] = {
    {"NOT OVERWRITE", 1}, {"OVERWRITE ALL ENTRY", 2}, {"OVERWRITE LAST ENTRY", 3}};

// A setting keeps all bits set until a listing line is decoded into it, and
// keeps the last decoded value when a later listing leaves its line out.
qmx_cfg_list_tag QMX_G_CfgList[kCfgListEntries] = {
    {"HBA BIOS", ~uint64_t(0)},
    {"BOOT PRIORITY", ~uint64_t(0)},
    {"SPINUP DELAY", ~uint64_t(0)},
    {"CONNECTION TYPE", ~uint64_t(0)},
    {"DATA RATE", ~uint64_t(0)},
    {"PERSISTENT BINDINGS", ~uint64_t(0)},
    {"FORCE DEFAULT PARAMETER", ~uint64_t(0)},
    {"Additional World Wide Port Name", ~uint64_t(0)},
    {"LOGIN DELAY TIME", ~uint64_t(0)},
    {"ERROR LOGGING", ~uint64_t(0)},
    {"OVERWRITE MODE", ~uint64_t(0)},
    {"PRE CONFIGURE", ~uint64_t(0)},
};
qmx_cfg_boot_priority_tag QMX_G_BootPriority[kBootPriorityRows];
int bt_st = -1;

namespace {

constexpr const char *kBootBorder = "  +---+------------------+-----+------------+";
constexpr std::size_t kLineMax = 1024;  // 1023 characters and the terminator

// Stores the value of the first table text found in `text`; false when none.
template <std::size_t N>
bool decodeBy(const qmx_cfg_tag (&table)[N], const char *text, uint64_t *val) {
    for (const qmx_cfg_tag &t : table) {
        if (std::strstr(text, t.status) != nullptr) {
            *val = uint64_t(int64_t(t.value));
            return true;
        }
    }
    return false;
}

// "0x" followed by `hex`, bounded, for the hexadecimal converter.
void hexText(char (&dst)[kLineMax + 2], const char *hex) {
    dst[0] = '0';
    dst[1] = 'x';
    qmx::copyText(dst + 2, sizeof dst - 2, hex);
}

}  // namespace

uint8_t qmx_CfgListByte(int index) noexcept {
    if (index < 0 || index >= kCfgListEntries) return 0xFF;
    return uint8_t(QMX_G_CfgList[index].param_val & 0xFFu);
}

int qmx_CfgLineAnalyze(char *buf, int ind) {
    qmx::trace("qmx_CfgLineAnalyze START");
    char *colon = buf != nullptr ? std::strchr(buf, ':') : nullptr;
    if (colon == nullptr || ind < 0 || ind >= kCfgListEntries) {
        qmx::trace("unknown format");
        QMX_G_ERROR_CD = 10;
        qmx::trace("qmx_CfgLineAnalyze ABEND");
        return -1;
    }
    uint64_t *val = &QMX_G_CfgList[ind].param_val;
    switch (ind) {
        case QMX_CFG_CONNECTION_TYPE:
            decodeBy(connectionType, colon, val);
            break;
        case QMX_CFG_DATA_RATE:
            decodeBy(dataRate, colon, val);
            break;
        case QMX_CFG_ADDITIONAL_WWPN: {
            // The number starts two characters after the colon.
            const char *p = colon + 1;
            if (*p != '\0') ++p;
            char hex[kLineMax + 2];
            hexText(hex, p);
            qmx_convert_string(hex, val);
            break;
        }
        case QMX_CFG_LOGIN_DELAY:
            if (std::strstr(colon, "default") != nullptr) {
                *val = 255;
            } else {
                long n = std::strtol(colon + 1, nullptr, 10);
                if (n > INT_MAX) n = INT_MAX;
                if (n < INT_MIN) n = INT_MIN;
                *val = uint64_t(int64_t(n));
            }
            break;
        case QMX_CFG_OVERWRITE_MODE:
            // The overwrite mode line is matched against the first three data
            // rate texts and stores the overwrite mode value of the same row.
            for (int i = 0; i < 3; ++i) {
                if (std::strstr(colon, dataRate[i].status) != nullptr) {
                    *val = uint64_t(int64_t(ovrwrtMode[i].value));
                    break;
                }
            }
            break;
        default:
            decodeBy(statueVal, colon, val);
            break;
    }
    return 0;
}

int qmx_BootPriorityAnalyze(char *buf, int level) {
    if (buf == nullptr) return -1;
    if (level < 0 || level >= kBootPriorityRows) {
        // The tool lists at most 8 boot devices; anything past them is not
        // a listing this library understands.
        qmx::trace("boot priority table overflow");
        QMX_G_ERROR_CD = 10;
        return -1;
    }
    char line[kLineMax];
    qmx::copyText(line, buf);
    char *save = nullptr;
    char *tok = strtok_r(line, " ", &save);  // token 1: row number, ignored
    if (tok != nullptr) tok = strtok_r(nullptr, " ", &save);
    if (tok == nullptr) return 0;
    char hex[kLineMax + 2];
    hexText(hex, tok);
    qmx_convert_string(hex, &QMX_G_BootPriority[level].wwn);
    tok = strtok_r(nullptr, " ", &save);
    if (tok == nullptr) return 0;
    char lun[5] = {};
    std::strncpy(lun, tok, 4);
    QMX_G_BootPriority[level].lun = int(std::strtoul(lun, nullptr, 16));
    return 0;
}

int qmx_CfgAnalyze(char *buf) {
    if (buf == nullptr) return 0;
    // Titles start at the second character of the line.
    if (buf[0] != '\0') {
        for (int i = 0; i < kCfgListEntries; ++i) {
            const char *title = QMX_G_CfgList[i].param_name;
            if (std::strncmp(buf + 1, title, std::strlen(title)) == 0) {
                if (qmx_CfgLineAnalyze(buf, i) == 0) return 0;
                break;
            }
        }
    }
    if (std::strstr(buf, kBootBorder) != nullptr) {
        bt_st = bt_st != -1 ? -1 : 0;  // a border opens or closes the boot table
        return 0;
    }
    if (bt_st >= 0) {
        qmx_BootPriorityAnalyze(buf, bt_st);
        if (bt_st < INT_MAX) ++bt_st;
    }
    return 0;
}

long qmx_CfgParseStream(FILE *fp) {
    if (fp == nullptr) return 0;
    char line[kLineMax];
    long lines = 0;
    while (std::fgets(line, sizeof line, fp) != nullptr) {
        if (char *nl = std::strchr(line, '\n')) *nl = '\0';
        qmx_CfgAnalyze(line);
        if (lines < LONG_MAX) ++lines;
    }
    return lines;
}

int qmx_CfgParseBuffer(const char *data, std::size_t len) {
    if (data == nullptr || len == 0) return 0;
    // Read-only memory stream: fmemopen does not write through an "r" stream.
    FILE *fp = fmemopen(const_cast<char *>(data), len, "r");
    if (fp == nullptr) {
        qmx::sysError("fmemopen", errno);
        return -1;
    }
    qmx_CfgParseStream(fp);
    std::fclose(fp);
    return 0;
}

int qmx_GetQmxbiosInfo(int ind) {
    qmx::trace("qmx_GetQmxbiosInfo START");
    if (ind < 0) {
        qmx::trace("ind < 0");
        QMX_G_ERROR_CD = 10;
        qmx::trace("qmx_GetQmxbiosInfo ABEND");
        return -1;
    }
    if (qmx_ExecQmxbios(ind, QMXBIOS_OPT_CFGSHOWEX, nullptr) != 0) {
        qmx::trace("qmx_GetQmxbiosInfo ABEND");
        return -1;
    }
    FILE *fp = std::fopen(QMX_G_cfgshow, "re");
    if (fp == nullptr) {
        // A tool run that succeeded but left no listing ends the read here
        // with the code as the run left it: no system-error report.
        qmx::trace("qmx_GetQmxbiosInfo ABEND");
        return -1;
    }
    qmx_CfgParseStream(fp);
    // Closed here: one descriptor left open per listing read would exhaust a
    // long-running management tool.
    std::fclose(fp);
    qmx::trace("qmx_GetQmxbiosInfo END");
    return 0;
}
