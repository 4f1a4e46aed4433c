// Key list reader of the configuration files and the lookups on a key list.
//
// A configuration file is one line of items "key=value:" written back to
// back; only the first line counts.
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "config/config.h"
#include "frame/frame.h"

namespace qmx {

const ConfStore kSystemStore = {
    "/etc/qmxldd.conf",
    "/etc/qmxlib.conf",
    "/lib/modules",
    "/etc/modprobe.d/qmxldd_param.conf",
    "/tmp/conf_modules1.hba",
    "/tmp/conf_modules2.hba",
};

int atoiText(std::string_view s) noexcept {
    // strtol: leading white space, a sign, decimal digits; saturates at the
    // range of long; the result is then narrowed to int as atoi does.
    std::size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || (s[i] >= '\t' && s[i] <= '\r'))) ++i;
    bool neg = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) neg = s[i++] == '-';
    unsigned long long v = 0;
    const unsigned long long limit = neg ? (unsigned long long)LONG_MAX + 1 : LONG_MAX;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        v = v * 10 + unsigned(s[i] - '0');
        if (v > limit) v = limit;
    }
    long r = neg ? (v == (unsigned long long)LONG_MAX + 1 ? LONG_MIN : -long(v)) : long(v);
    return static_cast<int>(r);
}

int atoiText(const char *s) noexcept {
    if (s == nullptr) return 0;
    return atoiText(std::string_view(s));
}

int parseKeyLine(const char *text, std::size_t len, util_para **key_list) noexcept {
    if (key_list == nullptr) return kReadNoFile;
    *key_list = nullptr;
    if (text == nullptr) return 0;
    // The line ends at the first newline or NUL.
    std::size_t end = 0;
    while (end < len && text[end] != '\0' && text[end] != '\n') ++end;
    std::string_view line(text, end);

    std::size_t slots = 0;
    for (char c : line)
        if (c == ':') ++slots;
    if (slots == 0) return 0;
    if (slots > std::size_t(kMaxKeySlots)) {
        trace("qmxldd.conf has too many items");
        setError(9);
        return kReadRefused;
    }
    auto *list = static_cast<util_para *>(std::calloc(slots, sizeof(util_para)));
    if (list == nullptr) {
        sysError("malloc", errno);
        return kReadNoMemory;
    }
    bool cut = false;
    std::size_t pos = 0;
    for (std::size_t slot = 0; slot < slots; ++slot) {
        std::size_t colon = line.find(':', pos);
        if (colon == std::string_view::npos) break;
        std::string_view item = line.substr(pos, colon - pos);
        std::size_t eq = item.find('=');
        // An item without "=" ends the walk; the slots after it stay empty.
        if (eq == std::string_view::npos) break;
        // Over-long keys and values are cut to their fields.
        cut |= !copyText(list[slot].keyword, item.substr(0, eq));
        cut |= !copyText(list[slot].value, item.substr(eq + 1));
        pos = colon + 1;
    }
    if (cut) trace("qmxldd.conf item truncated");
    *key_list = list;
    return int(slots);
}

int readKeyFile(const char *sizePath, const char *path, util_para **key_list) noexcept {
    trace("QMX_Read_qmxlddconf START");
    if (key_list == nullptr || sizePath == nullptr || path == nullptr) {
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadNoFile;
    }
    *key_list = nullptr;
    // The buffer is sized from the driver file also when the library file is
    // read: a longer library line is cut at that size.
    struct stat st;
    if (stat(sizePath, &st) != 0) {
        sysError("stat", errno);
        return kReadNoFile;
    }
    if (st.st_size == 0) return 0;
    if (st.st_size < 0 || st.st_size > kMaxConfBytes) {
        trace("qmxldd.conf is too large");
        setError(9);
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadRefused;
    }
    std::size_t cap = std::size_t(st.st_size) + 1;
    auto *buf = static_cast<char *>(std::calloc(cap, 1));
    if (buf == nullptr) {
        sysError("malloc", errno);
        return kReadNoMemory;
    }
    FILE *fp = QMX_fopen(const_cast<char *>(path), const_cast<char *>("re"));
    if (fp == nullptr) {
        std::free(buf);
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadNoOpen;
    }
    int result = 0;
    if (std::fgets(buf, int(cap < std::size_t(INT_MAX) ? cap : INT_MAX), fp) != nullptr) {
        result = parseKeyLine(buf, cap - 1, key_list);
        if (result < 0) trace("QMX_Read_qmxlddconf ABEND");
    }
    std::fclose(fp);
    std::free(buf);
    return result;
}

int readKeyList(const ConfStore &store, util_para **key_list, int flg) noexcept {
    if (flg != 0 && flg != 1) {
        trace("QMX_Read_qmxlddconf START");
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadNoFile;
    }
    return readKeyFile(store.conf, flg == 0 ? store.conf : store.lib, key_list);
}

}  // namespace qmx

int QMX_Read_qmxlddconf(util_para **key_list, int flg) {
    int n = qmx::readKeyList(qmx::kSystemStore, key_list, flg);
    // Allocation failures and refused files are both "-1" to callers.
    return n < qmx::kReadNoOpen ? -1 : n;
}

int qmx_getpos(char *keyword) {
    if (keyword == nullptr) return -1;
    std::string_view key(keyword, strnlen(keyword, sizeof(util_para::keyword)));
    if (!key.starts_with("qmx") || key.starts_with("qmxl")) return -1;
    std::size_t us = key.find('_', 3);
    if (us == std::string_view::npos) return -1;
    // atoi of the text between "qmx" and the first "_" (empty text gives 0).
    return qmx::atoiText(key.substr(3, us - 3));
}

namespace {

// "qmxl<N>-wwpn" adapter keys (not the "-tid" target keys).
bool isAdapterKey(std::string_view key) {
    return key.starts_with("qmxl") && key.find("-wwpn") != std::string_view::npos &&
           key.find("-tid") == std::string_view::npos;
}

}  // namespace

int QMX_SearchInKeylist(QMX_WWN wwn, util_para *key_list, int list_max, int *maxadapnum) {
    qmx::trace("QMX_SearchInKeylist START");
    const qmx::WwnText wanted = qmx::wwnText(wwn);
    const std::string_view text(wanted.text);
    if (key_list == nullptr || list_max <= 0) {
        if (maxadapnum != nullptr) *maxadapnum = 0;
        qmx::trace("QMX_SearchInKeylist ABEND");
        return -1;
    }
    int found = -1;
    for (int i = 0; i < list_max; ++i) {
        const util_para &p = key_list[i];
        std::string_view key = qmx::keyOf(p);
        if (qmx::valueOf(p) != text || !isAdapterKey(key)) continue;
        found = qmx::atoiText(key.substr(4));
        break;
    }
    int highest = -1;
    for (int i = 0; i < list_max; ++i) {
        std::string_view key = qmx::keyOf(key_list[i]);
        if (!isAdapterKey(key)) continue;
        int n = qmx::atoiText(key.substr(4));
        if (n > highest) highest = n;
    }
    if (maxadapnum != nullptr) *maxadapnum = highest;
    qmx::trace("QMX_SearchInKeylist END");
    return found;
}
