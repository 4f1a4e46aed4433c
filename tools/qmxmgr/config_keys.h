// The settings a configuration document holds for a port: one row per
// setting, each reading the stored value, checking a document value and
// writing it through the exported calls.  Rows come from the parameter table
// (params.cpp), the multipath environment, the LU limit, alias, isolation,
// numbering and BIOS switch calls.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common.h"

namespace qmxmgr {

// A setting whose value is a table of the port (one entry per target):
// entries are keyed by `id` and kept in its ascending order; a document's
// entries replace the stored entries of the same id and leave the others
// alone (--prune removes them); differences are reported entry by entry.
struct TableShape {
    std::string id;                   // "target"
    std::vector<std::string> unique;  // fields no two entries may share
    std::string refersTo;             // a list setting that must have each entry's id
    // One entry in its canonical form; sets `why` when it is refused.
    std::function<json(const json &, std::string &why)> normalizeEntry;
};

struct ConfigKey {
    std::string name;
    std::string setCall;  // the writing call, named in reports
    bool removable = false;
    bool host = false;    // one value for the host (the WWN is not used)
    // Kept by the adapter's boot firmware: each read and write runs the BIOS
    // tool, far slower than the settings kept in files.
    bool bootFirmware = false;
    // Kept in /etc/qmxldd.conf under the port's adapter number ("qmx<N>_..."):
    // the setting calls file it under the number the driver runs the port
    // under now, and giving a port another number drops it.
    bool perNumber = false;
    // The stored value in its document form, null when nothing is stored
    // (or the stored value is none a document could hold).  Throws CallError.
    std::function<json(const QMX_WWN &)> read;
    // A document value in its canonical form; sets `why` when it is refused.
    std::function<json(const json &, std::string &why)> normalize;
    // Stores a canonical value (null: removes it).  Throws CallError.
    std::function<void(const QMX_WWN &, const json &)> write;
    // Kept as one table for every port: when set, apply writes every change
    // of the key in this one call instead of `write`.  Throws CallError.
    std::function<void(const std::vector<std::pair<QMX_WWN, json>> &)> writeAll;
    // Set for a table-valued setting; `normalize` is then not used.
    std::optional<TableShape> list;
};

// The row of each port's configured adapter number ("adapter_number"),
// which plan() handles apart from the other rows.
extern const char *const kAdapterNumberKey;

// The adapter numbers /etc/qmxldd.conf binds to WWNs, in file order (the
// driver takes a WWN's first).  Throws CallError.
std::vector<std::pair<int, QMX_WWN>> configuredNumbers();

// In the order apply writes them: the host's settings first; plan() puts the
// adapter numbers before every other setting of the ports.
const std::vector<ConfigKey> &configKeys();
const ConfigKey *findConfigKey(const std::string &name);

// The driver's current values of a port, for reading only.
json currentValues(const QMX_WWN &wwn);

}  // namespace qmxmgr
