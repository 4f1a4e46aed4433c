// Host, package and port information: the host's name, the operating
// system's name and kernel release, the adapter's package code and optical
// module, the additional port name kept by the boot firmware, and the list
// of adapter devices that the BIOS tool sees.  None of these calls takes the
// configuration lock.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bios/bios.h"
#include "config/config.h"
#include "frame/frame.h"
#include "params/hostinfo.h"
#include "params/params.h"

namespace qmx::hostinfo {

namespace {

constexpr std::size_t kLineMax = 1024;  // 1023 characters and the terminator
constexpr long kFirstDeviceLine = 6;

// A hexadecimal WWN token of the listing, "0x" prefixed for the converter,
// as a WWN with its most significant byte first.
QMX_WWN wwnToken(const char *tok) noexcept {
    char hex[kLineMax + 2] = "0x";
    copyText(hex + 2, sizeof hex - 2, tok);
    uint64_t v = 0;
    qmx_convert_string(hex, &v);
    QMX_WWN w;
    getWWN(v, &w);
    return w;
}

int hexToken(const char *tok) noexcept { return int(std::strtoul(tok, nullptr, 16)); }

}  // namespace

bool parseDeviceLine(const char *line, long lineNo, QMX_DEVICE_SHOW *out) noexcept {
    if (lineNo < kFirstDeviceLine || line[0] == '+' || std::strncmp(line, "  qmxldd", 8) != 0)
        return false;
    // The structure has room for QMX_DEVICE_SHOW_MAX entries; a longer
    // listing is cut there.
    if (out->list_max < 0 || out->list_max >= QMX_DEVICE_SHOW_MAX) return false;
    char buf[kLineMax];
    copyText(buf, line);
    buf[std::strcspn(buf, "\r\n")] = '\0';
    QMX_DEVICE_ENTRY &e = out->list[out->list_max];
    char *save = nullptr;
    int n = 0;
    for (char *tok = strtok_r(buf, " ", &save); tok != nullptr && n < 7;
         tok = strtok_r(nullptr, " ", &save), ++n) {
        switch (n) {
            case 0: copyText(e.deviceName, tok); break;
            case 1: copyText(e.deviceID, tok); break;
            case 2: e.busNO = hexToken(tok); break;
            case 3: e.deviceNO = hexToken(tok); break;
            case 4: e.funcNO = hexToken(tok); break;
            case 5: e.additional = wwnToken(tok); break;
            default: e.original = wwnToken(tok); break;
        }
    }
    ++out->list_max;
    return true;
}

long parseDeviceListing(FILE *fp, QMX_DEVICE_SHOW *out) noexcept {
    out->list_max = 0;
    char line[kLineMax];
    long lines = 0;
    while (std::fgets(line, sizeof line, fp) != nullptr) {
        ++lines;
        parseDeviceLine(line, lines, out);
    }
    return lines;
}

}  // namespace qmx::hostinfo

namespace {

// The checks shared by the three host calls: a null buffer ("<arg> ==
// NULL"), then a size of 0; the buffer is then cleared.
bool hostBuffer(qmx::Frame &f, char *buf, const char *arg, size_t size) {
    if (!f.notNull(buf, arg, " == NULL")) return false;
    if (size == 0) {
        f.invalid("size <= 0", "");
        return false;
    }
    std::memset(buf, 0, size);
    return true;
}

// At most `size` characters of `src` into a cleared buffer (strncpy into
// it: no terminator when the text fills the buffer).
void copyPrefix(char *dst, size_t size, const char *src) {
    std::memcpy(dst, src, strnlen(src, size));
}

// The release file: "/etc/redhat-release" when it exists, else the first
// "/etc" entry (in directory order) whose name contains "-release".  false
// with the failure traced.
bool releaseFile(std::string *path) {
    struct stat st;
    if (stat("/etc/redhat-release", &st) == 0) {
        *path = "/etc/redhat-release";
        return true;
    }
    DIR *dir = opendir("/etc");
    if (dir == nullptr) {
        qmx::sysError("opendir", errno);
        return false;
    }
    bool found = false;
    while (struct dirent *e = readdir(dir)) {
        if (std::strstr(e->d_name, "-release") != nullptr) {
            *path = std::string("/etc/") + e->d_name;
            found = true;
            break;
        }
    }
    closedir(dir);
    if (!found) qmx::trace("file_find == 0");
    return found;
}

}  // namespace

QMX_STATUS QMX_GetHostName(char *hostname, size_t size) {
    return qmx::run("QMX_GetHostName", [&](qmx::Frame &f) {
        if (!hostBuffer(f, hostname, "hostname", size)) return f.fail();
        if (gethostname(hostname, size) != 0) {
            qmx::sysError("gethostname", errno);
            return f.fail();
        }
        return f.ok();
    });
}

QMX_STATUS QMX_GetOSVersion(char *osversion, size_t size) {
    return qmx::run("QMX_GetOSVersion", [&](qmx::Frame &f) {
        if (!hostBuffer(f, osversion, "osversion", size)) return f.fail();
        struct utsname u;
        if (uname(&u) != 0) {
            qmx::sysError("uname", errno);
            return f.fail();
        }
        copyPrefix(osversion, size, u.release);
        return f.ok();
    });
}

QMX_STATUS QMX_GetOSName(char *osname, size_t size) {
    return qmx::run("QMX_GetOSName", [&](qmx::Frame &f) {
        if (!hostBuffer(f, osname, "osname", size)) return f.fail();
        std::string path;
        if (!releaseFile(&path)) return f.fail();
        std::unique_ptr<FILE, qmx::FileCloser> fp(std::fopen(path.c_str(), "re"));
        if (!fp) {
            qmx::sysError("fopen", errno);
            return f.fail();
        }
        char line[1024];
        if (std::fgets(line, sizeof line, fp.get()) == nullptr) {
            qmx::sysError("fgets", errno);
            return f.fail();
        }
        copyPrefix(osname, size, line);
        if (void *nl = std::memchr(osname, '\n', size)) *static_cast<char *>(nl) = '\0';
        return f.ok();
    });
}

QMX_STATUS QMX_GetPackageInformation(QMX_WWN wwn, QMX_PACKAGE *packagecode) {
    return qmx::run("QMX_GetPackageInformation", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(packagecode, "packagecode", " == NULL")) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!qmx::params::queryPortInfo(f, wwn, ind, &rec, qmx::params::QueryTrace::Call))
            return f.fail();
        const char *pn = reinterpret_cast<const char *>(rec.parts_number);
        qmx::copyText(packagecode->PackageCode, {pn, strnlen(pn, sizeof rec.parts_number)});
        return f.ok();
    });
}

QMX_STATUS QMX_GetOpticalModuleInfomation(QMX_WWN wwn, QMX_OPTICALATTRIBUTES *pOpticalAttributes) {
    return qmx::run("QMX_GetOpticalModuleInfomation", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        // The output is not cleared: the strings are copied over it.
        if (!f.notNull(pOpticalAttributes, "pOpticalAttributes", " == NULL")) return f.fail();
        qmx_ioctl_proc_info rec;
        if (!qmx::params::queryPortInfo(f, wwn, ind, &rec, qmx::params::QueryTrace::Call))
            return f.fail();
        const char *v = reinterpret_cast<const char *>(rec.opt_vendor_name);
        const char *s = reinterpret_cast<const char *>(rec.opt_serial_number);
        qmx::copyText(pOpticalAttributes->VendorName, {v, strnlen(v, sizeof rec.opt_vendor_name)});
        qmx::copyText(pOpticalAttributes->SerialNumber,
                      {s, strnlen(s, sizeof rec.opt_serial_number)});
        return f.ok();
    });
}

QMX_STATUS QMX_GetAdditionalWWPN(QMX_WWN wwn, QMX_WWN *S_additionalWWPN,
                                 QMX_WWN *S_additionalWWNN) {
    return qmx::run("QMX_GetAdditionalWWPN", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.out(S_additionalWWPN, "S_additionalWWPN", " == NULL")) return f.fail();
        if (!f.out(S_additionalWWNN, "S_additionalWWNN", " == NULL")) return f.fail();
        if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
        getWWN(QMX_G_CfgList[QMX_CFG_ADDITIONAL_WWPN].param_val, S_additionalWWPN);
        *S_additionalWWNN = *S_additionalWWPN;
        // The node name is the port name with its last byte plus one; the
        // byte wraps without carrying into the byte before it.
        if (!isAllZero(*S_additionalWWNN)) ++S_additionalWWNN->wwn[7];
        return f.ok();
    });
}

QMX_STATUS QMX_SetAdditionalWWPN(QMX_WWN wwn, QMX_WWN additionalWWPN) {
    return qmx::run("QMX_SetAdditionalWWPN", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        qmx_bios_param bp{};
        bp.addwwn = additionalWWPN;
        if (qmx_ExecQmxbios(ind, QMXBIOS_OPT_WWN_OF_HBA, &bp) != 0) return f.fail();
        return f.ok();
    });
}

QMX_STATUS QMX_GetDeviceInfo(QMX_DEVICE_SHOW *device_list) {
    return qmx::run("QMX_GetDeviceInfo", [&](qmx::Frame &f) {
        if (!f.notNull(device_list, "device_list", " is NULL")) return f.fail();
        if (qmx_ExecQmxbios(-1, QMXBIOS_OPT_DEVSHOW, nullptr) != 0) return f.fail();
        std::unique_ptr<FILE, qmx::FileCloser> fp(std::fopen(QMX_G_devshow, "re"));
        if (!fp) return f.fail();
        long lines = qmx::hostinfo::parseDeviceListing(fp.get(), device_list);
        // The tool writes a title and a table head before the devices: a
        // listing of 4 lines or fewer is no listing, even when the tool ran.
        return lines >= qmx::hostinfo::kMinListingLines ? f.ok() : f.fail();
    });
}
