// Internal interface of the alias names, the device listing and the
// driver-wide defaults record: the pure parts that the exported calls, the
// unit tests and the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include "config/config.h"
#include "qmxvlib.h"

// Rewrites "/etc/qmxlib.conf" from a key list and up to two new entries.
// 0 or -1.
int qmx_WriteAlias(util_para *keylist, int keylist_cnt, util_para *addlist, int addlist_cnt);

namespace qmx::alias {

// The two alias kinds differ only in their keyword suffix.
struct Kind {
    const char *suffix;  // "-alias" or "-portalias"
    bool hba;            // the HBA setter checks the length, the port setter size 0
};
inline constexpr Kind kHba{"-alias", true};
inline constexpr Kind kPort{"-portalias", false};

// 16 lower-case hexadecimal digits, byte 0 first.
struct WwnKey {
    char text[17];
};
WwnKey wwnKey(const QMX_WWN &w) noexcept;

// The alias of the port whose "-wwn" entry (the first one) holds `wwn`, or
// an empty view when the port or its alias is not in the list.
std::string_view find(const ConfItem *list, int count, std::string_view wwn,
                      Kind kind) noexcept;

// The setter's change: either an existing alias entry of the list is given
// the name, or add[0..1] receive the new "-wwn" and alias entries (add[0]
// marked used = 1 when the writer is to place them behind the port's
// existing "-wwn" entry).  `name` holds at least `len` bytes; at most the
// value field's 127 characters are kept.  A changed entry of the list views
// `name`, which must outlive the list's use.
void plan(ConfItem *list, int count, std::string_view wwn, Kind kind, const char *name,
          std::size_t len, util_para add[2]) noexcept;

// The file text the writer produces; marks the added entries it writes.
void buildText(const ConfItem *list, int count, util_para *add, int addCount,
               std::string &out);

// The writer on any path.  0 or -1.
int write(const char *path, const ConfItem *list, int count, util_para *add, int addCount) noexcept;

}  // namespace qmx::alias

namespace qmx::hostinfo {

// A device listing of fewer lines is refused: the tool writes a title and a
// table head before the devices.
constexpr long kMinListingLines = 5;

// The BIOS tool's device listing, line by line (1023 characters at most a
// line), into `out` (at most QMX_DEVICE_SHOW_MAX entries).  Returns the
// number of lines read.
long parseDeviceListing(FILE *fp, QMX_DEVICE_SHOW *out) noexcept;
// One listing line; true when it was a device line and filled an entry.
bool parseDeviceLine(const char *line, long lineNo, QMX_DEVICE_SHOW *out) noexcept;

// Presets the defaults record; applies one item of a read to it.  Only the
// driver-wide keys (kDriverWide) can change it.
inline constexpr std::string_view kDriverWide = "qmx_";
void presetDefaults(QMX_ALL_DEF_PARAM *p) noexcept;
void applyDefault(QMX_ALL_DEF_PARAM *p, std::string_view key, std::string_view value) noexcept;

}  // namespace qmx::hostinfo
