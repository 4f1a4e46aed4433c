// Port listing and the PORT operand: a WWN (16 hexadecimal digits, with or
// without colons), a device name ("qmxldd0" or "/dev/qmxldd0") or an
// adapter number ("0").
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common.h"

namespace qmxmgr {

struct PortInfo {
    int number = -1;       // adapter number N of /dev/qmxlddN
    std::string device;    // "qmxldd0"
    QMX_WWN wwn{};
    uint8_t bus = 0, dev = 0, fnc = 0;
    // From the port information record; absent when the driver did not answer.
    bool detailed = false;
    std::string model, driverVersion, partsNumber;
    uint32_t firmware = 0;
    uint16_t vendorId = 0, deviceId = 0, hostNo = 0;
    uint8_t status = 0;
    uint64_t nodeName = 0;
};

// The ports the driver currently numbers, in discovery order.  With
// `details` each port's information record is read as well.
std::vector<PortInfo> listPorts(bool details);
// The port of that WWN in the listing without details, or null.
const PortInfo *findPort(const QMX_WWN &wwn);

std::string pciText(const PortInfo &p);   // "03:00.1"
std::string statusText(uint8_t status);    // "in service", "isolated", ...
std::string firmwareText(uint32_t fw);
json portJson(const PortInfo &p);

struct PortRef {
    bool allPorts = false;        // the driver-wide value (all-zero WWN)
    QMX_WWN wwn{};
    std::optional<PortInfo> info; // known when the port is discovered
    std::string text;             // the operand as given
};

enum class PortForm { Wwn, Device, Number, Invalid };
PortForm classifyPort(const std::string &text);

// Resolves a PORT operand.  allowAll admits the all-zero WWN (driver-wide
// value).  Throws UsageError for text that is no port or names no port.
PortRef resolvePort(const std::string &text, bool allowAll);
PortRef allPortsRef();

}  // namespace qmxmgr
