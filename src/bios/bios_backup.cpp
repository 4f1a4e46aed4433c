// BIOS backup, restore and restart of an adapter, and the pre-configuration
// switch.  Each call is one run of the BIOS tool; the runner takes the
// exclusive lock, so these calls take none themselves.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "bios/bios.h"
#include "frame/frame.h"

namespace {

// A caller's path that must exist: null gives "<arg> is null"; a failed
// stat traces the system's error text and "<arg> is wrong".  Both code 2.
bool pathArg(qmx::Frame &f, const char *path, const char *arg) {
    if (!f.notNull(path, arg)) return false;
    struct stat st;
    if (stat(path, &st) == 0) return true;
    qmx::trace(std::strerror(errno));
    qmx::tracef("%s is wrong", arg);
    QMX_G_ERROR_CD = 2;
    return false;
}

QMX_STATUS runOption(qmx::Frame &f, int ind, int option, qmx_bios_param *p) {
    if (qmx_ExecQmxbios(ind, option, p) != 0) return f.fail();
    return f.ok();
}

}  // namespace

QMX_STATUS QMX_GetPreConfigure(QMX_WWN wwn, QMX_UINT32 *preconfigure) {
    return qmx_GetListedOnOff("QMX_GetPreConfigure", wwn, preconfigure, "preconfigure",
                              QMX_CFG_PRE_CONFIGURE);
}

QMX_STATUS QMX_SetPreConfigure(QMX_WWN wwn, QMX_UINT32 preconfigure) {
    return qmx_SetOnOffOption("QMX_SetPreConfigure", wwn, preconfigure, "preconfigure",
                              QMXBIOS_OPT_PRE_CONFIGURE);
}

QMX_STATUS QMX_BiosBackup(QMX_WWN wwn, char *backup_dir) {
    return qmx::run("QMX_BiosBackup", [&](qmx::Frame &f) {
        if (!pathArg(f, backup_dir, "backup_dir")) return f.fail();
        // The all-zero WWN backs up every adapter: no port is looked up.
        int ind = -1;
        if (!isAllZero(wwn) && (ind = f.port(wwn)) < 0) return f.fail();
        qmx_bios_param p{};
        p.filename = backup_dir;
        return runOption(f, ind, QMXBIOS_OPT_BACKUP, &p);
    });
}

QMX_STATUS QMX_BiosRestore(QMX_WWN wwn, char *restore_file) {
    return qmx::run("QMX_BiosRestore", [&](qmx::Frame &f) {
        if (!pathArg(f, restore_file, "restore_file")) return f.fail();
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        qmx_bios_param p{};
        p.filename = restore_file;
        return runOption(f, ind, QMXBIOS_OPT_RESTORE, &p);
    });
}

QMX_STATUS QMX_BiosRestart(QMX_WWN wwn) {
    return qmx::run("QMX_BiosRestart", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        return runOption(f, ind, QMXBIOS_OPT_APRESTART, nullptr);
    });
}
