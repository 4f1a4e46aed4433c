#include "path_listings.h"

#include <algorithm>

namespace qmxmgr {

void LuPathsRelease::operator()(QMX_LUPATH_STATUS *p) const {
    QMX_ReleaseLuPath(p);
    delete p;
}

void TargetPathsRelease::operator()(QMX_TGTPATH_STATUS *p) const {
    // The release refuses nothing but a null container; an empty listing
    // has nothing to give back.
    if (p->tgtpath_cnt > 0) QMX_ReleaseTargetPathStatus(p);
    delete p;
}

LuPathListing readLuPaths(QMX_STATUS *st) {
    LuPathListing l(new QMX_LUPATH_STATUS{});
    *st = QMX_GetLuPathStatus(l.get());
    return l;
}

TargetPathListing readTargetPaths(QMX_STATUS *st) {
    TargetPathListing t(new QMX_TGTPATH_STATUS{});
    *st = QMX_GetTargetPathStatus(t.get());
    return t;
}

int luPathCount(const QMX_LUPATH_STATUS &l) { return std::clamp(l.lupath_cnt, 0, QMX_LUPATH_MAX); }

uint32_t targetPathCount(const QMX_TGTPATH_STATUS &t) {
    return std::min<uint32_t>(t.tgtpath_cnt, QMX_TGTPATH_MAX);
}

}  // namespace qmxmgr
