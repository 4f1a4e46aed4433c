// BIOS tool runner: builds one qmxbios command line from an option number and
// its argument record and runs it through the shell under exclusive lock 6.
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bios/bios.h"
#include "bios/tool_run.h"
#include "frame/frame.h"

const char *const optionName[kQmxbiosOptionCount] = {
    "",                         // 0: rejected
    "backup",                   // 1
    "restore",                  // 2
    "bios",                     // 3
    "boot_priority",            // 4
    "boot_device",              // 5
    "",                         // 6: as 5, with the empty word
    "boot_priority_Clear",      // 7: nothing is run
    "spinup_delay",             // 8
    "connection_type",          // 9
    "data_rate",                // 10
    "persistent_bindings",      // 11
    "force_default_parameter",  // 12
    "wwn_of_hba",               // 13
    "login_delay_time",         // 14
    "pre_configure",            // 15
    "cfgEnable",                // 16
    "cfgshowex",                // 17
    "trgshow",                  // 18
    "log_erase",                // 19
    "errorlogging",             // 20
    "overwritemode",            // 21
    "aprestart",                // 22
    "devshow",                  // 23
};

char QMX_G_cfgshow[128];
char QMX_G_devshow[128];
char QMX_G_trgshow[256];

namespace {

constexpr std::size_t kCmdLen = 256;
constexpr int kLockBios = 6;
constexpr int kExtraRuns = 3;         // runs after the first failed one
constexpr unsigned kRetrySleep = 1;   // seconds between runs
using CmdBuf = char[kCmdLen];

// The port's device name, never read past its field.
std::string deviceName(int ind) {
    const char *n = dev_info_all[ind].name;
    return qmx::shellQuote(std::string_view(n, strnlen(n, sizeof dev_info_all[ind].name)));
}

// Bounded formatting into a command buffer.  A text that does not fit is
// refused rather than cut: a cut command line could lose its closing quote.
bool fmt(CmdBuf &buf, const char *f, ...) __attribute__((format(printf, 2, 3)));
bool fmt(CmdBuf &buf, const char *f, ...) {
    va_list ap;
    va_start(ap, f);
    int n = std::vsnprintf(buf, kCmdLen, f, ap);
    va_end(ap);
    return n >= 0 && std::size_t(n) < kCmdLen;
}

// A WWN as the tool takes it: 16 lowercase hexadecimal digits, byte 0 first.
using WwnHex = char[17];
void wwnHex(const uint8_t (&w)[8], WwnHex &hex) {
    std::snprintf(hex, sizeof hex, "%02x%02x%02x%02x%02x%02x%02x%02x", w[0], w[1], w[2], w[3],
                  w[4], w[5], w[6], w[7]);
}

// A refusal while building the command: the message is traced and the
// runner fails with code 11.
struct Refusal {
    const char *message;
    int code;  // written first; 11 is what the runner leaves
};

bool isOnOff(int option) {
    switch (option) {
        case QMXBIOS_OPT_BIOS:
        case QMXBIOS_OPT_BOOT_PRIORITY:
        case QMXBIOS_OPT_SPINUP_DELAY:
        case QMXBIOS_OPT_PERSISTENT_BIND:
        case QMXBIOS_OPT_FORCE_DEFAULT:
        case QMXBIOS_OPT_PRE_CONFIGURE:
        case QMXBIOS_OPT_ERROR_LOGGING:
            return true;
        default:
            return false;
    }
}

// Options that need the argument record.
bool needsParam(int option) {
    switch (option) {
        case QMXBIOS_OPT_BACKUP:
        case QMXBIOS_OPT_RESTORE:
        case QMXBIOS_OPT_BOOT_DEVICE:
        case QMXBIOS_OPT_BOOT_DEVICE_RAW:
        case QMXBIOS_OPT_CONNECTION_TYPE:
        case QMXBIOS_OPT_DATA_RATE:
        case QMXBIOS_OPT_WWN_OF_HBA:
        case QMXBIOS_OPT_LOGIN_DELAY:
        case QMXBIOS_OPT_OVERWRITE_MODE:
            return true;
        default:
            return isOnOff(option);
    }
}

void listingPath(char *dst, std::size_t cap, const char *file, bool keepTemplate) {
    if (qmx::toolDirIsDirectory())
        std::snprintf(dst, cap, "%s/%s", qmx::kAdapterToolDir, file);
    else if (keepTemplate)
        // The target listing falls back to its unformatted template text.
        qmx::copyText(dst, cap, "%s/trgshow.txt");
    else
        qmx::copyText(dst, cap, file);
}

// Builds the argument text of every option but 5, 6 and 7.  nullptr on
// success, otherwise the refusal.
const Refusal *buildArgs(CmdBuf &args, int ind, int option, const qmx_bios_param *p) {
    static const Refusal kNoFile{"Internal Error(filename is NULL)", 11};
    static const Refusal kStatus{"Internal Error(unknown status)", 11};
    static const Refusal kConnect{"Internal Error(unknown connection type)", 10};
    static const Refusal kRate{"Internal Error(unknown data rate)", 10};
    static const Refusal kDelay{"Internal Error(not 0-60)", 10};
    static const Refusal kOvr{"overwritemode is unknown", 10};
    static const Refusal kTooLong{"Internal Error(command too long)", 11};

    const char *word = optionName[option];
    // The device name comes from the driver; quote it like any other text
    // that reaches the shell.
    std::string dev = ind >= 0 ? deviceName(ind) : std::string();
    const char *d = dev.c_str();
    bool fits = true;

    if (isOnOff(option)) {
        if (p->status == 1)
            fits = fmt(args, "-x -d %s -p %s=Enable", d, word);
        else if (p->status == 0)
            fits = fmt(args, "-x -d %s -p %s=Disable", d, word);
        else
            return &kStatus;
        return fits ? nullptr : &kTooLong;
    }

    switch (option) {
        case QMXBIOS_OPT_BACKUP:
        case QMXBIOS_OPT_RESTORE: {
            if (p->filename == nullptr) return &kNoFile;
            std::string file = qmx::shellQuote(p->filename);
            if (ind < 0)
                fits = fmt(args, "-x -a -o %s -f %s", word, file.c_str());
            else
                fits = fmt(args, "-x -d %s -o %s -f %s", d, word, file.c_str());
            break;
        }
        case QMXBIOS_OPT_CONNECTION_TYPE: {
            static const char *const kTypes[] = {"auto", "ptop", "loop"};
            if (p->connect_type < 1 || p->connect_type > 3) return &kConnect;
            fits = fmt(args, "-x -d %s -p %s=%s", d, word, kTypes[p->connect_type - 1]);
            break;
        }
        case QMXBIOS_OPT_DATA_RATE:
            switch (p->data_rate) {
                case 0:
                    fits = fmt(args, "-x -d %s -p %s=auto", d, word);
                    break;
                case 1:
                case 2:
                case 4:
                case 8:
                case 10:
                    fits = fmt(args, "-x -d %s -p %s=%d", d, word, p->data_rate);
                    break;
                default:
                    return &kRate;
            }
            break;
        case QMXBIOS_OPT_WWN_OF_HBA: {
            WwnHex hex;
            wwnHex(p->addwwn.wwn, hex);
            fits = fmt(args, "-x -d %s -p %s=%s", d, word, hex);
            break;
        }
        case QMXBIOS_OPT_LOGIN_DELAY:
            if (p->login_delay >= 0 && p->login_delay <= 60)
                fits = fmt(args, "-x -d %s -p %s=%d", d, word, p->login_delay);
            else if (p->login_delay == -1)
                fits = fmt(args, "-x -d %s -p %s=default", d, word);
            else
                return &kDelay;
            break;
        case QMXBIOS_OPT_OVERWRITE_MODE: {
            static const char *const kModes[] = {"notovr", "allent", "lasent"};
            if (p->overwritemode < 1 || p->overwritemode > 3) return &kOvr;
            fits = fmt(args, "-x -d %s -p %s=%s", d, word, kModes[p->overwritemode - 1]);
            break;
        }
        case QMXBIOS_OPT_CFGSHOWEX: {
            listingPath(QMX_G_cfgshow, sizeof QMX_G_cfgshow, "cfgshow.txt", false);
            std::string out = qmx::shellQuote(QMX_G_cfgshow);
            fits = fmt(args, "-d %s -o %s > %s", d, word, out.c_str());
            break;
        }
        case QMXBIOS_OPT_TRGSHOW: {
            listingPath(QMX_G_trgshow, sizeof QMX_G_trgshow, "trgshow.txt", true);
            std::string out = qmx::shellQuote(QMX_G_trgshow);
            fits = fmt(args, "-d %s -o trgshow > %s", d, out.c_str());
            break;
        }
        case QMXBIOS_OPT_DEVSHOW: {
            listingPath(QMX_G_devshow, sizeof QMX_G_devshow, "devshow.txt", false);
            std::string out = qmx::shellQuote(QMX_G_devshow);
            fits = fmt(args, "-o %s > %s", word, out.c_str());
            break;
        }
        default:  // 16 cfgEnable, 19 log_erase, 22 aprestart
            fits = fmt(args, "-x -d %s -o %s", d, word);
            break;
    }
    return fits ? nullptr : &kTooLong;
}

bool buildCommand(CmdBuf &cmd, const CmdBuf &args) {
    if (qmx::toolDirIsDirectory()) return fmt(cmd, "%s/qmxbios %s", qmx::kAdapterToolDir, args);
    return fmt(cmd, "qmxbios %s", args);
}

// Option 5 (and 6): one command per boot row, all 8 rows, no retry.
// Returns the last wait status, or -1 with the failure traced.
int runBootRows(int ind, int option, const qmx_bios_param *p, int *status) {
    std::string dev = deviceName(ind);
    for (int row = 0; row < kBootPriorityRows; ++row) {
        WwnHex hex;
        wwnHex(p->boot_pri[row].wwn, hex);
        CmdBuf args, cmd;
        if (!fmt(args, "-x -d %s -p %s=%d,%s,%04x", dev.c_str(), optionName[option], row + 1, hex,
                 unsigned(p->boot_pri[row].lun)) ||
            !buildCommand(cmd, args)) {
            qmx::trace("Internal Error(command too long)");
            return -1;
        }
        qmx::tracef("%s", cmd);
        *status = qmx::runShell(cmd);
        if (*status != 0) {
            qmx::sysError("system", errno);
            return -1;
        }
    }
    return 0;
}

// Everything between taking and releasing the lock.  0 / -1.
int runLocked(int ind, int option, qmx_bios_param *param) {
    if (option <= 0 || option >= kQmxbiosOptionCount) {
        qmx::trace("Unknown option");
        return -1;
    }
    if (option == QMXBIOS_OPT_BOOT_PRI_CLEAR) return 0;  // nothing to run: success

    // The port index selects the device name.  Only the all-adapter backup
    // and the device listing run without a port.
    bool portless = option == QMXBIOS_OPT_DEVSHOW || (option == QMXBIOS_OPT_BACKUP && ind == -1);
    if (!portless && (ind < 0 || ind >= c_max_port || ind >= kMaxPorts)) {
        qmx::trace("Internal Error(invalid port index)");
        return -1;
    }
    if (portless && option == QMXBIOS_OPT_DEVSHOW) ind = -1;
    if (needsParam(option) && param == nullptr) {
        qmx::trace("Internal Error(param is NULL)");
        return -1;
    }

    int status = 0;
    if (option == QMXBIOS_OPT_BOOT_DEVICE || option == QMXBIOS_OPT_BOOT_DEVICE_RAW) {
        if (runBootRows(ind, option, param, &status) != 0) return -1;
    } else {
        CmdBuf args, cmd;
        if (const Refusal *r = buildArgs(args, ind, option, param)) {
            QMX_G_ERROR_CD = r->code;
            qmx::trace(r->message);
            return -1;
        }
        if (!buildCommand(cmd, args)) {
            qmx::trace("Internal Error(command too long)");
            return -1;
        }
        qmx::tracef("%s", cmd);
        status = qmx::runShell(cmd);
        for (int i = 0; status != 0 && i < kExtraRuns; ++i) {
            sleep(kRetrySleep);
            status = qmx::runShell(cmd);
        }
        if (status != 0) {
            qmx::sysError("system", errno);
            return -1;
        }
    }
    // Success is decided on the exit code of the last run.
    return ((status >> 8) & 0xFF) == 0 ? 0 : -1;
}

}  // namespace

int qmx_ExecQmxbios(int ind, int option, qmx_bios_param *param) {
    qmx::trace("qmx_ExecQmxbios START");
    if (QMX_ExeclusiveLock(kLockBios) != 0) {
        qmx::trace("Lock retry count overflow !!");
        qmx::trace("qmx_ExecQmxbios END");
        QMX_CloseApiTraceFile();
        return 5;
    }
    int rc;
    try {
        rc = runLocked(ind, option, param);
    } catch (...) {  // allocation failure while quoting: never leave the lock held
        qmx::trace("malloc error");
        rc = -1;
    }
    qmx::releaseOwnLock(kLockBios);
    if (rc == 0) {
        qmx::trace("qmx_ExecQmxbios END");
        return 0;
    }
    QMX_G_ERROR_CD = 11;
    qmx::trace("qmx_ExecQmxbios ABEND");
    return -1;
}
