// Binding components: the binding and adapter tables as the driver's target
// maps give them now (current) or as the configuration file holds them
// (setting), copied out for the caller.
#include <cstring>

#include "frame/frame.h"
#include "multipath/binding.h"

static_assert(sizeof(struct component) == sizeof(__TBLKEY) &&
              offsetof(struct component, wwn) == offsetof(__TBLKEY, wwn) &&
              offsetof(struct component, bind) == offsetof(__TBLKEY, bind) &&
              offsetof(struct component, psnum) == offsetof(__TBLKEY, psnum));
static_assert(sizeof(struct wwpnlist) == sizeof(__WWPN) && sizeof WWPN == sizeof(QMX_WWPNLIST::WWPN));

namespace {

// Fills the tables from the driver (current) or the file (setting).
bool collect(bool current) {
    if (current) {
        qmx::binding::resetForCollect();
        qmx::binding::collectAll(3, nullptr);
        return true;
    }
    qmx::binding::clearTables();
    if (read_qmxldd_conf() != 0) {
        qmx::trace("read_qmxldd_conf is errend");
        return false;
    }
    return true;
}

int count(const char *name, bool current) {
    int n = -1;
    qmx::run(name, [&](qmx::Frame &f) {
        if (!collect(current)) return f.fail();
        n = bind_cnt;
        return f.ok();
    });
    return n;
}

QMX_STATUS copyOut(const char *name, bool current, QMX_WWPNLIST *wwnlist,
                   QMX_CURRENTCOMPONENT *component) {
    return qmx::run(name, [&](qmx::Frame &f) {
        if (!f.notNull(wwnlist, "wwnlist", " == NULL")) return f.fail();
        if (!f.notNull(component, "component", " == NULL")) return f.fail();
        if (!collect(current)) return f.fail();
        std::memcpy(wwnlist->WWPN, WWPN, sizeof WWPN);
        wwnlist->wwpn_cnt = wwpn_cnt;
        int n = bind_cnt < 0 ? 0 : bind_cnt > BINDMAX ? BINDMAX : bind_cnt;
        if (n > 0) std::memcpy(component, TBLKEY, sizeof(__TBLKEY) * std::size_t(n));
        return f.ok();
    });
}

}  // namespace

int QMX_GetCurrentComponentCnt(void) { return count("QMX_GetCurrentComponentCnt", true); }
QMX_STATUS QMX_GetCurrentComponent(QMX_WWPNLIST *wwnlist, QMX_CURRENTCOMPONENT *component) {
    return copyOut("QMX_GetCurrentComponent", true, wwnlist, component);
}
int QMX_GetSettingComponentCnt(void) { return count("QMX_GetSettingComponentCnt", false); }
QMX_STATUS QMX_GetSettingComponent(QMX_WWPNLIST *wwnlist, QMX_CURRENTCOMPONENT *component) {
    return copyOut("QMX_GetSettingComponent", false, wwnlist, component);
}
