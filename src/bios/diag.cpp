// Adapter self-tests through the diagnostic tool qmxdiag, and the erase of
// the adapter's error log through the BIOS tool.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "bios/bios.h"
#include "bios/tool_run.h"
#include "frame/fileio.h"
#include "frame/frame.h"

char QMX_G_DiagLog[256];

namespace {

// The checks of the parameter record, in the order they are made.  The
// first two refusals leave the reason code as it is; the others set 2.
struct FieldCheck {
    int QMX_DIAG_PARAM::*field;
    int lo, hi;
    const char *message;
    bool setsCode;
};
const FieldCheck kChecks[] = {
    {&QMX_DIAG_PARAM::external_loop, 0, 1, "external_loop invalid value", false},
    {&QMX_DIAG_PARAM::target_port, 1, 2, "target_port invalid value", false},
    {&QMX_DIAG_PARAM::reg_test, 0, 1, "reg_test invalid value", true},
    {&QMX_DIAG_PARAM::ram_test, 0, 1, "ram_test invalid value", true},
    {&QMX_DIAG_PARAM::iloop_test, 0, 1, "iloop_test invalid value", true},
    {&QMX_DIAG_PARAM::dma_test, 0, 1, "dma_test invalid value", true},
    {&QMX_DIAG_PARAM::pci_test, 0, 1, "pci_test invalid value", true},
    {&QMX_DIAG_PARAM::fmem_test, 0, 1, "fmem_test invalid value", true},
    {&QMX_DIAG_PARAM::interval_time, 0, INT_MAX, "interval_time invalid value", true},
    {&QMX_DIAG_PARAM::no_monitor, 0, 1, "no_monitor invalid value", true},
};

// The parameter file's lines, in file order.  A line is written when the
// field is not `skip` (test_type is always written as 1).
enum class When { Always, NonZero, NotOne };
struct FileLine {
    const char *key;
    int QMX_DIAG_PARAM::*field;         // int fields
    QMX_UINT32 QMX_DIAG_PARAM::*ufield; // unsigned fields
    When when;
};
const FileLine kLines[] = {
    {"test_time", nullptr, &QMX_DIAG_PARAM::test_time, When::NonZero},
    {"test_count", nullptr, &QMX_DIAG_PARAM::test_count, When::NonZero},
    {"error_count", nullptr, &QMX_DIAG_PARAM::error_count, When::Always},
    {"external_loop", &QMX_DIAG_PARAM::external_loop, nullptr, When::NonZero},
    {"target_port", &QMX_DIAG_PARAM::target_port, nullptr, When::NotOne},
    {"reg_test", &QMX_DIAG_PARAM::reg_test, nullptr, When::NonZero},
    {"ram_test", &QMX_DIAG_PARAM::ram_test, nullptr, When::NonZero},
    {"iloop_test", &QMX_DIAG_PARAM::iloop_test, nullptr, When::NonZero},
    {"dma_test", &QMX_DIAG_PARAM::dma_test, nullptr, When::NonZero},
    {"pci_test", &QMX_DIAG_PARAM::pci_test, nullptr, When::NonZero},
    {"fmem_test", &QMX_DIAG_PARAM::fmem_test, nullptr, When::NonZero},
    {"interval_time", &QMX_DIAG_PARAM::interval_time, nullptr, When::NonZero},
    {"no_monitor", &QMX_DIAG_PARAM::no_monitor, nullptr, When::NonZero},
};

// Writes the parameter file.  Its name is fixed, in a folder others may
// write to: a link or another user's file planted there is refused, never
// written through.  false (reported, code 1) when it cannot be opened or
// written whole.
bool writeParamFile(const char *path, const QMX_DIAG_PARAM &p) {
    qmx::FileError fe;
    FILE *fp = qmx::openScratch(path, qmx::ScratchMode::Write, &fe);
    if (fp == nullptr) {
        qmx::sysError(fe.call, fe.err);
        return false;
    }
    std::fputs("test_type=1\n", fp);  // whatever the record holds
    for (const FileLine &l : kLines) {
        // Unsigned fields are written with "%d", as the tool reads them.
        int v = l.field != nullptr ? p.*l.field : int(p.*l.ufield);
        bool write = l.when == When::Always || (l.when == When::NonZero && v != 0) ||
                     (l.when == When::NotOne && v != 1);
        if (write) std::fprintf(fp, "%s=%d\n", l.key, v);
    }
    bool ok = std::fflush(fp) == 0 && std::ferror(fp) == 0;
    int err = errno;
    if (std::fclose(fp) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (!ok) qmx::sysError("write", err != 0 ? err : EIO);
    return ok;
}

}  // namespace

char *QMX_DiagExecution(QMX_WWN wwn, QMX_DIAG_PARAM *diag_param) {
    // The diagnostic run writes no opening trace line.
    QMX_STATUS st = qmx::run("QMX_DiagExecution", nullptr, [&](qmx::Frame &f) {
        if (!f.notNull(diag_param, "diag_param", " == NULL")) return f.fail();
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        for (const FieldCheck &c : kChecks) {
            int v = diag_param->*c.field;
            if (v >= c.lo && v <= c.hi) continue;
            qmx::trace(c.message);
            if (c.setsCode) QMX_G_ERROR_CD = 2;
            return f.fail();
        }
        // The parameter file goes beside the tools when anything exists at
        // that path, the log only when it is a directory.
        char param[256];
        if (qmx::toolDirExists())
            std::snprintf(param, sizeof param, "%s/qmx_param.txt", qmx::kAdapterToolDir);
        else
            qmx::copyText(param, "qmx_param.txt");
        if (!writeParamFile(param, *diag_param)) return f.fail();
        if (qmx::toolDirIsDirectory())
            std::snprintf(QMX_G_DiagLog, sizeof QMX_G_DiagLog, "%s/qmxdiag_exec.log", qmx::kAdapterToolDir);
        else
            qmx::copyText(QMX_G_DiagLog, "qmxdiag_exec.log");
        const char *n = dev_info_all[ind].name;
        std::string dev = qmx::shellQuote(std::string_view(n, strnlen(n, sizeof dev_info_all[ind].name)));
        std::string cmd = qmx::toolCommand("qmxdiag") + " -x -O1 -P " + qmx::shellQuote(param) +
                          " -L " + qmx::shellQuote(QMX_G_DiagLog) + " -S /dev/" + dev;
        qmx::tracef("%s", cmd.c_str());
        int status = qmx::runShell(cmd);
        if (status == 0) return f.ok();
        if (((status >> 8) & 0xFF) != 0) {
            qmx::trace("qmxdiag abort");
            QMX_G_ERROR_CD = 12;
        } else {
            // Stopped by a signal, or the shell could not run.
            qmx::sysError("system", errno);
        }
        return f.fail();
    });
    return st == 0 ? QMX_G_DiagLog : nullptr;
}

QMX_STATUS QMX_EraseLogData(QMX_WWN wwn) {
    return qmx::run("QMX_EraseLogData", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (qmx_ExecQmxbios(ind, QMXBIOS_OPT_LOG_ERASE, nullptr) != 0) return f.fail();
        return f.ok();
    });
}
