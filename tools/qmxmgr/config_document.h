// The host configuration document of `qmxmgr export`, `diff` and `apply`:
// the stored settings of the host and of every port, keyed by the port's WWN.
//
//   version: 1
//   host:
//     settings:
//       binding_auto_mapping: "on"
//       isolation_function: "on"
//       mp_interval: 30            # the multipath environment's kept fields
//       lu_write_retries: 10
//   ports:
//     "21:00:00:24:ff:00:00:01":
//       device: "qmxldd0"          # informative, never applied
//       adapter_number: 0          # informative (the driver's number now), never applied
//       settings:
//         adapter_number: 0        # the number /etc/qmxldd.conf binds to the port
//         force_isolate: "port"
//         queue_depth: 64
//         connection_type: "auto"
//         hba_alias: "rack4-a"
//
// A setting absent from a port's `settings` is left alone (removed by
// `apply --prune` where it can be removed); `null` asks for it to be removed.
// The same model reads YAML and JSON (JSON is read as the YAML it is).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "common.h"

namespace qmxmgr {

constexpr int kDocumentVersion = 1;

// One stored setting of one port.
struct Setting {
    QMX_WWN wwn{};      // all zero for a setting of the host
    std::string key;    // "queue_depth", "hba_alias", ...
    json value;         // canonical value; null: nothing stored
    int line = 0;       // line in the document, 0 when read from the host
};

// A document read from a file: its settings in document order.  Refused
// documents throw DocumentError naming the line and the reason.
class DocumentError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Document {
    std::string path;            // as given, for the reasons of a refusal
    std::vector<Setting> settings;
    std::vector<QMX_WWN> ports;  // the ports the document names
    std::map<std::string, int> portLines;  // line of each port, by WWN text
    bool host = false;           // the document has a host section
};

// Reads and checks FILE ("-" for standard input) against the ports the
// driver knows and the values each setting takes.  Makes no writing call.
Document readDocument(const std::string &path);

struct ConfigKey;

// One setting whose stored value differs from the document's.
struct Change {
    QMX_WWN wwn{};
    const ConfigKey *key = nullptr;
    json from, to;
    std::string drops;  // a new adapter number: the keys it drops ("qmx1_link_speed=8, ...")
};

// The changes that make the host equal to the document: the host's first,
// then the ports' adapter numbers (one table), then port by port in the
// order of the keys table; with `prune` the removable settings a listed port
// has but the document omits are removed too.  The changes are worked out
// for the host as the numbering will leave it, so apply needs no second
// look.  A document whose numbering would drop or misfile a stored setting,
// or whose table entry names an id its port's other table will not have, is
// refused (DocumentError, naming the lines).  Makes only reading calls.
// Throws CallError.
std::vector<Change> plan(const Document &d, bool prune);

// "port 21:00:...:50 queue_depth: 32 -> 64" ("unset" for nothing stored);
// a table setting gives one line per entry that differs ("port ... binding
// target 3: none -> wwpn=0x5006..."), each line led by `prefix`.
std::string changeLine(const Change &c, const std::string &prefix = "");

// The stored settings of `ports` (every port when empty), read from the host.
json exportDocument(const std::vector<std::string> &ports, bool withCurrent);

// The document as YAML that YAML 1.1 readers (PyYAML) read back as the same
// data: every string is quoted.
std::string toYaml(const json &doc);

}  // namespace qmxmgr
