// The settings a configuration document holds for a port: one row per
// setting, each reading the stored value, checking a document value and
// writing it through the exported calls.  Rows come from the parameter table
// (params.cpp), the multipath environment, the LU limit, alias, isolation
// and BIOS switch calls.
#pragma once

#include <functional>
#include <optional>
#include <string>
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
    // The stored value in its document form, null when nothing is stored
    // (or the stored value is none a document could hold).  Throws CallError.
    std::function<json(const QMX_WWN &)> read;
    // A document value in its canonical form; sets `why` when it is refused.
    std::function<json(const json &, std::string &why)> normalize;
    // Stores a canonical value (null: removes it).  Throws CallError.
    std::function<void(const QMX_WWN &, const json &)> write;
    // Set for a table-valued setting; `normalize` is then not used.
    std::optional<TableShape> list;
};

// In the order apply writes them: the host's settings first.
const std::vector<ConfigKey> &configKeys();
const ConfigKey *findConfigKey(const std::string &name);

// The driver's current values of a port, for reading only.
json currentValues(const QMX_WWN &wwn);

}  // namespace qmxmgr
