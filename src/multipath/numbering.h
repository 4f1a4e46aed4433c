// Adapter numbering: the number N under which the driver knows a port
// ("/dev/qmxlddN", the "qmxlN-" and "qmxN_" keys of /etc/qmxldd.conf, and
// "qmxlN-wwpn", which ties the number to the port's WWPN).
//
// The exported calls (QMX_GetAdapterNumber, QMX_SetAdapterNumber,
// QMX_DeleteAdapterPath) are declared in qmxvlib.h; the routines here are
// their building blocks, shared with the LU path calls where noted.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "qmxvlib.h"

namespace qmx::numbering {

// Text form of a WWPN in the configuration file: "0x" and 16 lower-case
// hexadecimal digits, byte 0 first.
constexpr std::size_t kWwnTextLen = 18;
void formatWwn(const QMX_WWN &w, char (&out)[kWwnTextLen + 1]) noexcept;

// The number that follows "qmxldd" in a device name (atoi semantics), or -1
// when the name does not begin with "qmxldd".
int deviceNumber(std::string_view devname) noexcept;

// The first entry of a numbering request that QMX_SetAdapterNumber refuses,
// as the trace line that reports it; nullptr when every entry is valid.
// Entries are checked in order; for each: the number (0 to 256), the
// operation (0 to 3), then a later entry with the same number.  Linear in
// the number of entries.
const char *firstInvalidEntry(const QMX_ADAPTERNUMBER &info) noexcept;

// Applies the entries' operations to a key list read from the configuration
// file: keys to remove are marked used = 1, rebound keys get their new value
// in place, and new adapter keys are appended to `added`.  An entry of
// operation 0 is traced and skipped.  Work is linear in the list (plus
// n log n for the WWPN lookups), however many entries there are.  The
// entries must have passed firstInvalidEntry.
void applyEntries(util_para *list, int count, const QMX_ADAPTERNUMBER &info,
                  std::vector<util_para> &added);

// The reason code and trace text of a driver's refusal of a path change
// request answered with EIO, by the reply's err_code.  false when err_code
// is not one the driver documents (the reason code then stays 0).  Shared
// with the LU path status calls, which answer the same way.
bool pathChangeReason(int err_code, int *reason, const char **text) noexcept;

}  // namespace qmx::numbering
