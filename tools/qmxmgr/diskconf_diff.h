// Differences between two disk configuration records (the recorded LU map
// and the one captured now), keyed by what identifies each level: an
// adapter by its PCI address, a target by the adapter's PCI address and its
// WWPN, an LU by its target and LU number.  Adapter and target numbers are
// positions and can shift when something disappears, so they are not keys.
// Linear in the number of LUs of both records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qmxvlib.h"

namespace qmxmgr {

struct DiskChange {
    enum Kind { Added, Removed, Changed };
    enum Level { Adapter, Target, Lu };
    Kind kind = Added;
    Level level = Adapter;
    uint8_t pci[3] = {0, 0, 0};
    QMX_WWN wwpn{};       // target and LU level
    int lun = -1;         // LU level
    int lus = 0;          // LUs below an added or removed adapter or target
    std::string oldId, newId;  // identification data (hex) of a changed LU
};

// Changes from `before` to `after`, at the highest level that differs: an
// added target is one change (with its LU count), not one per LU.  Added
// and changed items come in the order of `after`, removed ones in the order
// of `before`.
std::vector<DiskChange> diffDiskConfig(const QMX_DISK_CONFIG &before, const QMX_DISK_CONFIG &after);

std::string luidHex(const QMX_DISK_CONF_LU &lu);

}  // namespace qmxmgr
