// Firmware download, backup and online refresh through the adapter tools
// qmxmcup and qmxmcref, and the running and image firmware versions.  The
// tool runs are fire-and-forget: their results are not looked at.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "bios/tool_run.h"
#include "frame/frame.h"

namespace {

// The port's device name as it reaches the shell.
std::string deviceArg(int ind) {
    const char *n = dev_info_all[ind].name;
    return qmx::shellQuote(std::string_view(n, strnlen(n, sizeof dev_info_all[ind].name)));
}

// The two qmxmcup calls differ only in these data.
struct McupCall {
    const char *name;         // exported name
    const char *arg;          // argument name in the null message
    const char *missing;      // message when the path does not exist
    bool checkBeforePort;     // the path is checked before the port lookup
    const char *options;      // text between the tool and "-d"
    const char *operation;    // the -o word
};

constexpr McupCall kUpdate{"QMX_FirmwareUpdate", "filename", "file is not found", false, " -s", "download"};
constexpr McupCall kBackup{"QMX_FirmwareBackup", "dirname", "directory is not found", true, "", "backup"};

QMX_STATUS runMcup(const McupCall &c, QMX_WWN wwn, char *path, int force) {
    return qmx::run(c.name, [&](qmx::Frame &f) {
        if (!f.notNull(path, c.arg, " == NULL")) return f.fail();
        auto exists = [&] {
            struct stat st;
            if (stat(path, &st) == 0) return true;
            qmx::trace(c.missing);
            QMX_G_ERROR_CD = 2;
            return false;
        };
        if (c.checkBeforePort && !exists()) return f.fail();
        // The all-zero WWN addresses every adapter.
        std::string dev = "all";
        if (!isAllZero(wwn)) {
            int ind = f.port(wwn);
            if (ind < 0) return f.fail();
            dev = deviceArg(ind);
        }
        if (!c.checkBeforePort && !exists()) return f.fail();
        std::string cmd = qmx::toolCommand("qmxmcup") + c.options + " -d " + dev + " -o " +
                          c.operation + " -f " + qmx::shellQuote(path);
        if (force == 1) cmd += " -c";
        qmx::tracef("%s", cmd.c_str());
        qmx::runShell(cmd);
        return f.ok();
    });
}

// Reads up to 4096 bytes of a firmware image into `words` (the rest stays
// zero).  false with the failure reported.
bool readImage(const char *file, uint32_t (&words)[1024]) {
    std::memset(words, 0, sizeof words);
    int fd = open(file, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        qmx::sysError("open", errno);
        return false;
    }
    auto *p = reinterpret_cast<unsigned char *>(words);
    std::size_t got = 0;
    while (got < sizeof words) {
        ssize_t n = read(fd, p + got, sizeof words - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            qmx::sysError("read", errno);
            close(fd);
            return false;
        }
        if (n == 0) break;
        got += std::size_t(n);
    }
    close(fd);
    for (uint32_t &w : words) w = ntohl(w);
    return true;
}

}  // namespace

QMX_STATUS QMX_FirmwareUpdate(QMX_WWN wwn, char *filename, int force) {
    return runMcup(kUpdate, wwn, filename, force);
}

QMX_STATUS QMX_FirmwareBackup(QMX_WWN wwn, char *dirname, int force) {
    return runMcup(kBackup, wwn, dirname, force);
}

QMX_STATUS QMX_OnlineUpdateFW(int operation, char *device, int force) {
    return qmx::run("QMX_OnlineUpdateFW", [&](qmx::Frame &f) {
        std::string cmd = qmx::toolCommand("qmxmcref");
        if (qmx::toolDirIsDirectory()) qmx::tracef("%s", cmd.c_str());
        std::string add;
        switch (operation) {
            case 0:
                break;
            case 1:
                if (device == nullptr || device[0] == '\0') {
                    qmx::trace("device == NULL");
                    return f.fail(2);
                }
                add = " -d " + qmx::shellQuote(device);
                break;
            case 2:
                add = " -d all";
                break;
            default:
                qmx::trace("operation value other than 0, 1, and 2");
                return f.fail(2);
        }
        if (!add.empty()) qmx::tracef("%s", add.c_str());
        cmd += add;
        if (force == 1 && operation != 0) {
            cmd += " -c";
            qmx::tracef("%s", cmd.c_str());
        }
        qmx::tracef("%s", cmd.c_str());
        qmx::runShell(cmd);
        return f.ok();
    });
}

QMX_STATUS QMX_GetFirmwareVersion(QMX_WWN wwn, char *new_firm, QMX_FW_VERSION *f_version) {
    return qmx::run("QMX_GetFirmwareVersion", [&](qmx::Frame &f) {
        if (!f.out(f_version, "f_version")) return f.fail();
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        qmx_ioctl_proc_info info;
        std::memset(&info, 0, sizeof info);
        if (QMX_CallDriver(wwn, ind, int(IOCTL_QMX_SC_PRINFO), &info) != 0) {
            f.requestFailed("IOCTL_QMX_SC_PRINFO");
            return f.fail();
        }
        std::snprintf(f_version->now_version, sizeof f_version->now_version, "%08X",
                      unsigned(info.firmware_ver));
        if (new_firm != nullptr && new_firm[0] != '\0') {
            // An image shorter than 40 bytes reads as version 00000000.
            uint32_t words[1024];
            if (!readImage(new_firm, words)) return f.fail();
            std::snprintf(f_version->new_version, sizeof f_version->new_version, "%08X",
                          unsigned(words[9]));
        }
        return f.ok();
    });
}
