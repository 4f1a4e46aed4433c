// The port parameter table of qmxmgr: one row per parameter (name, getter,
// setter, value kind).  A new parameter is one row in params.cpp.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common.h"

namespace qmxmgr {

// Named values of an enumerated parameter.
struct EnumName {
    const char *name;
    long long value;
};

enum class Scope {
    PortOrDriver,  // per port; the all-zero WWN sets the driver-wide value
    PortOnly,      // kept per port only (boot firmware)
    DriverOnly,    // one value for the whole driver
};

struct Reading {
    std::optional<long long> current;
    std::optional<long long> setting;  // empty: nothing stored
};

struct Param {
    std::string name;       // command-line name, e.g. "queue_depth"
    std::string pairName;   // the library's name, e.g. "QueueDepthCount"
    std::string unit;       // "s", "MiB", "Gbps" or empty
    std::vector<EnumName> names;
    std::vector<EnumName> settingNames;  // when the setting is encoded differently
    Scope scope = Scope::PortOrDriver;
    bool hasCurrent = true;  // the driver reports a current value
    bool hasSetting = true;  // the getter reports a setting value
    bool canUnset = true;    // the setter takes the delete request
    bool hex = false;        // shown in hexadecimal
    // Values the setter accepts: lo..hi, or only those listed in `allowed`.
    // Known here so that a whole document can be checked before any change.
    std::optional<std::pair<long long, long long>> range;
    std::vector<long long> allowed;
    std::string getCall, setCall;
    std::function<QMX_STATUS(QMX_WWN, Reading &)> get;            // may be empty
    std::function<QMX_STATUS(QMX_WWN, long long, bool del)> set;  // may be empty
};

const std::vector<Param> &paramTable();

// Looks a parameter up by its name or the library's pair name, ignoring
// case and the difference between '-' and '_'.  Throws UsageError.
const Param &findParam(const std::string &name);

// Parses a value for `p` (a number, 0x-hex, or one of its names).
long long parseValue(const Param &p, const std::string &text);
// Display text of a value ("8", "loop", "30 s"); `setting` selects the
// setting value's names.
// Why the setter would refuse v, or empty when it takes it.
std::string rangeError(const Param &p, long long v);
std::string valueText(const Param &p, std::optional<long long> v, bool setting = false);

}  // namespace qmxmgr
