// Alias names of adapters and ports, kept in the library's own file
// "/etc/qmxlib.conf" ("key=value:" entries, one line).  A port is known there
// by its "qmx<N>-wwn" entry, whose value is the port's WWN; its HBA alias is
// "qmx<N>-alias" and its port alias "qmx<N>-portalias" with the same N.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "config/config.h"
#include "frame/fileio.h"
#include "frame/frame.h"
#include "params/hostinfo.h"

namespace qmx::alias {

namespace {

constexpr std::string_view kWwnTag = "-wwn";
constexpr std::size_t kValueMax = sizeof(util_para::value) - 1;

// The alias-file index of an entry: the number after the three-letter prefix.
int indexOf(std::string_view key) noexcept { return atoiText(key.size() > 3 ? key.substr(3) : ""); }

bool isWwnEntry(const ConfItem &p) noexcept { return p.key.find(kWwnTag) != std::string_view::npos; }

// "qmx<index><suffix>"
struct KeyText {
    char text[48];
};
KeyText keyFor(int index, const char *suffix) noexcept {
    KeyText k;
    std::snprintf(k.text, sizeof k.text, "qmx%d%s", index, suffix);
    return k;
}

void setEntry(util_para &p, const char *key, std::string_view value) noexcept {
    copyText(p.keyword, key);
    copyText(p.value, value);
}

// The first `len` bytes of the name (up to a terminator), bounded by the
// value field: longer names are cut to the field rather than overrun it.
std::string_view nameText(const char *name, std::size_t len) noexcept {
    return {name, strnlen(name, std::min(len, kValueMax))};
}

}  // namespace

WwnKey wwnKey(const QMX_WWN &w) noexcept {
    WwnKey k;
    std::snprintf(k.text, sizeof k.text, "%02x%02x%02x%02x%02x%02x%02x%02x", w.wwn[0], w.wwn[1],
                  w.wwn[2], w.wwn[3], w.wwn[4], w.wwn[5], w.wwn[6], w.wwn[7]);
    return k;
}

std::string_view find(const ConfItem *list, int count, std::string_view wwn, Kind kind) noexcept {
    if (list == nullptr) return {};
    int i = 0;
    while (i < count && !(isWwnEntry(list[i]) && valueOf(list[i]) == wwn)) ++i;
    if (i >= count) return {};  // the first match names the port's index
    const KeyText key = keyFor(indexOf(keyOf(list[i])), kind.suffix);
    for (int k = 0; k < count; ++k)
        if (keyOf(list[k]) == key.text) return valueOf(list[k]);
    return {};
}

void plan(ConfItem *list, int count, std::string_view wwn, Kind kind, const char *name,
          std::size_t len, util_para add[2]) noexcept {
    add[0] = util_para{};
    add[1] = util_para{};
    const std::string_view value = nameText(name, len);
    if (list == nullptr || count <= 0) {
        setEntry(add[0], "qmx0-wwn", wwn);
        setEntry(add[1], keyFor(0, kind.suffix).text, value);
        return;
    }
    bool known = false;
    int own = 0;
    // With no "-wwn" entry at all a new port takes index 0, as in an empty
    // file.
    int largest = -1;
    for (int i = 0; i < count; ++i) {
        if (!isWwnEntry(list[i])) continue;
        int n = indexOf(keyOf(list[i]));
        if (valueOf(list[i]) == wwn) {
            known = true;  // the last match wins
            own = n;
        }
        if (n > largest) largest = n;
    }
    if (known) {
        const KeyText key = keyFor(own, kind.suffix);
        for (int i = 0; i < count; ++i) {
            if (keyOf(list[i]) == key.text) {
                list[i].value = value;
                return;
            }
        }
        // The alias goes right behind the port's own "-wwn" entry.
        setEntry(add[0], keyFor(own, "-wwn").text, wwn);
        add[0].used = 1;
        setEntry(add[1], key.text, value);
        return;
    }
    // atoi of a hostile key can give INT_MAX: the next index then wraps.
    int next = int(unsigned(largest) + 1u);
    setEntry(add[0], keyFor(next, "-wwn").text, wwn);
    setEntry(add[1], keyFor(next, kind.suffix).text, value);
}

void buildText(const ConfItem *list, int count, util_para *add, int addCount, std::string &out) {
    auto put = [&](std::string_view key, std::string_view value) {
        out.append(key);
        out.push_back('=');
        out.append(value);
        out.push_back(':');
    };
    const bool pair = add != nullptr && addCount >= 2;
    std::size_t size = 0;
    for (int i = 0; list != nullptr && i < count; ++i) size += list[i].key.size() + list[i].value.size() + 2;
    out.reserve(size + 2 * (sizeof(util_para::keyword) + sizeof(util_para::value)));
    for (int i = 0; list != nullptr && i < count; ++i) {
        if (!list[i].key.empty()) put(list[i].key, list[i].value);
        if (pair && add[0].used == 1 && keyOf(add[0]) == keyOf(list[i]) &&
            add[1].keyword[0] != '\0') {
            put(keyOf(add[1]), valueOf(add[1]));
            ++add[0].used;
            ++add[1].used;
        }
    }
    for (int i = 0; add != nullptr && i < addCount; ++i)
        if (add[i].used == 0 && add[i].keyword[0] != '\0') put(keyOf(add[i]), valueOf(add[i]));
}

int write(const char *path, const ConfItem *list, int count, util_para *add, int addCount) noexcept {
    trace("qmx_WriteAlias START");
    try {
        std::string text;
        buildText(list, count, add, addCount, text);
        // The file is never truncated in place: replaceFile writes the new
        // text to a file beside it, flushes it, gives it the old file's owner
        // and mode, and renames it over the old one (through a symbolic link
        // to the file it names), so a failure part-way leaves the old aliases
        // intact.
        FileError err;
        if (!replaceFile(path, text, &err)) {
            // The setters go on as if it had been written; the reason code
            // is what tells the caller.
            sysError(err.call, err.err);
            trace("qmx_WriteAlias ABEND");
            return -1;
        }
    } catch (...) {  // allocation failure while building the text
        trace("malloc error");
        trace("qmx_WriteAlias ABEND");
        return -1;
    }
    trace("qmx_WriteAlias END");
    return 0;
}

}  // namespace qmx::alias

int qmx_WriteAlias(util_para *keylist, int keylist_cnt, util_para *addlist, int addlist_cnt) {
    // The list's entries as views of their fields.
    std::vector<qmx::ConfItem> items;
    try {
        for (int i = 0; keylist != nullptr && i < keylist_cnt; ++i)
            items.push_back(qmx::ConfItem{qmx::keyOf(keylist[i]), qmx::valueOf(keylist[i])});
    } catch (...) {
        qmx::trace("qmx_WriteAlias START");
        qmx::trace("malloc error");
        qmx::trace("qmx_WriteAlias ABEND");
        return -1;
    }
    return qmx::alias::write(qmx::kSystemStore.lib, items.data(), int(items.size()), addlist, addlist_cnt);
}

namespace {

using qmx::alias::Kind;

// Reads the alias file.  A file that does not exist holds no entries (the
// reader would report it through the system log as an open failure).  -1
// when the file cannot be read.  The getters read it into a buffer sized
// from the driver configuration file, as they always have; a setter, which
// rewrites the file from what it read, reads it whole (its buffer sized from
// the alias file itself), so no alias past that size is lost.  The items
// view `conf`'s text.
int readAliases(qmx::ConfText &conf, bool whole) noexcept {
    struct stat st;
    if (stat(qmx::kSystemStore.lib, &st) != 0 && errno == ENOENT) return 0;
    int n = qmx::readConfItems(whole ? qmx::kSystemStore.lib : qmx::kSystemStore.conf, qmx::kSystemStore.lib,
                               conf);
    return n < 0 ? -1 : n;
}

QMX_STATUS getAlias(const char *name, Kind kind, QMX_WWN wwn, char *aliasname, size_t size) {
    return qmx::run(name, [&](qmx::Frame &f) {
        if (f.port(wwn) < 0) return f.fail();
        if (size == 0) return f.invalid("size <= 0", "");
        if (!f.notNull(aliasname, "aliasname", " == NULL")) return f.fail();
        std::memset(aliasname, 0, size);
        const qmx::alias::WwnKey key = qmx::alias::wwnKey(wwn);
        qmx::ConfText conf;
        int n = readAliases(conf, false);
        if (n < 0) return f.fail();
        std::string_view value = qmx::alias::find(conf.items.data(), n, key.text, kind);
        // strncpy: no terminator when the name fills `size`.
        if (!value.empty()) std::memcpy(aliasname, value.data(), std::min(value.size(), size));
        return f.ok();
    });
}

QMX_STATUS setAlias(const char *name, Kind kind, QMX_WWN wwn, char *aliasname, size_t size) {
    return qmx::run(name, [&](qmx::Frame &f) {
        if (f.port(wwn) < 0) return f.fail();
        if (!f.notNull(aliasname, "aliasname", " == NULL")) return f.fail();
        if (kind.hba && std::strlen(aliasname) > size)
            return f.invalid("strlen(aliasname) > size", "");
        if (!kind.hba && size == 0) return f.invalid("size <= 0", "");
        // Every one of the `size` bytes is checked, the terminator included;
        // the scan stops at the first refused byte, so it never reads past
        // the caller's terminator.
        for (size_t i = 0; i < size; ++i) {
            unsigned char c = static_cast<unsigned char>(aliasname[i]);
            if (c < 0x20 || c > 0x7E) return f.invalid("hidden character's detection", "");
            if (c == ':') return f.invalid("Detection of delimiter(:)", "");
        }
        const qmx::alias::WwnKey key = qmx::alias::wwnKey(wwn);
        qmx::ConfText conf;
        int n = readAliases(conf, true);
        if (n < 0) return f.fail();
        util_para add[2];
        qmx::alias::plan(conf.items.data(), n, key.text, kind, aliasname, size, add);
        // A failed rewrite is not reported to the caller.
        (void)qmx::alias::write(qmx::kSystemStore.lib, conf.items.data(), n, add, 2);
        return f.ok();
    });
}

}  // namespace

QMX_STATUS QMX_GetHbaAliasName(QMX_WWN wwn, char *aliasname, size_t size) {
    return getAlias("QMX_GetHbaAliasName", qmx::alias::kHba, wwn, aliasname, size);
}
QMX_STATUS QMX_SetHbaAliasName(QMX_WWN wwn, char *aliasname, size_t size) {
    return setAlias("QMX_SetHbaAliasName", qmx::alias::kHba, wwn, aliasname, size);
}
QMX_STATUS QMX_GetPortAliasName(QMX_WWN wwn, char *aliasname, size_t size) {
    return getAlias("QMX_GetPortAliasName", qmx::alias::kPort, wwn, aliasname, size);
}
QMX_STATUS QMX_SetPortAliasName(QMX_WWN wwn, char *aliasname, size_t size) {
    return setAlias("QMX_SetPortAliasName", qmx::alias::kPort, wwn, aliasname, size);
}
