// The multipath path listings, owned by the manager: the records the library
// adds are released together with the container, whatever the call returned.
#pragma once

#include <memory>

#include "common.h"

namespace qmxmgr {

struct LuPathsRelease {
    void operator()(QMX_LUPATH_STATUS *p) const;
};
struct TargetPathsRelease {
    void operator()(QMX_TGTPATH_STATUS *p) const;
};
using LuPathListing = std::unique_ptr<QMX_LUPATH_STATUS, LuPathsRelease>;
using TargetPathListing = std::unique_ptr<QMX_TGTPATH_STATUS, TargetPathsRelease>;

// QMX_GetLuPathStatus / QMX_GetTargetPathStatus into a fresh container; *st
// gets the call's result.
LuPathListing readLuPaths(QMX_STATUS *st);
TargetPathListing readTargetPaths(QMX_STATUS *st);

// The records filled, bounded by the container's size.
int luPathCount(const QMX_LUPATH_STATUS &l);
uint32_t targetPathCount(const QMX_TGTPATH_STATUS &t);

}  // namespace qmxmgr
