// The channel to the driver: device opens, requests with and without retries,
// the set of all open devices, and the /proc entries.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frame/frame.h"

namespace {
constexpr int kDiagAttempts = 7;
constexpr unsigned kDiagRetrySleep = 1;

int rawIoctl(int hd, int request, void *param) {
    return ioctl(hd, static_cast<unsigned long>(static_cast<unsigned int>(request)), param);
}
}  // namespace

int open_ap(int *h, const char *name) {
    int fd = open(name, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        qmx::sysError("open", errno);
        qmx::trace("open_ap ABEND");
        if (h) *h = -1;
        return -1;
    }
    *h = fd;
    return 0;
}

int close_ap(int *h) {
    if (*h != -1) close(*h);
    *h = -1;
    return 0;
}

int QMX_ExecIoctl(int hd, int request, void *param) {
    qmx::trace("QMX_ExecIoctl START");
    if (rawIoctl(hd, request, param) == 0) return 0;
    qmx::sysError("ioctl", errno);
    QMX_G_ERROR_CD = QMX_ERR_DRIVER;
    qmx::trace("QMX_ExecIoctl ABEND");
    return -1;
}

int QMX_CallDriver(QMX_WWN wwn, int ind, int request, void *param) {
    (void)wwn;  // carried for the callers' symmetry; the index names the port
    qmx::trace("QMX_CallDriver START");
    if (ind < 0 || ind >= c_max_port) {
        QMX_G_ERROR_CD = QMX_ERR_INVALID_ARG;
        qmx::trace("QMX_CallDriver ABEND");
        return 1;
    }
    char path[300];
    std::snprintf(path, sizeof path, "/dev/%s", dev_info_all[ind].name);
    int fd = -1;
    if (open_ap(&fd, path) != 0) {
        qmx::trace("QMX_CallDriver ABEND");
        return 1;
    }
    int rc = QMX_ExecIoctl(fd, request, param);
    close_ap(&fd);
    if (rc != 0) {
        qmx::trace("QMX_CallDriver ABEND");
        return 1;
    }
    return 0;
}

int ioctl_diag(int hd, int request, void *parmptr) {
    qmx::trace("ioctl_diag START");
    int err = 0;
    for (int attempt = 0; attempt < kDiagAttempts; ++attempt) {
        if (attempt > 0) qmx::trace("ioctl retry");
        if (rawIoctl(hd, request, parmptr) == 0) return 0;
        err = errno;
        if (attempt > 0) sleep(kDiagRetrySleep);
    }
    qmx::sysError("ioctl", err);
    qmx::trace("ioctl_diag ABEND");
    return -1;
}

int open_special_file(qmx_spfile **adap_fd) {
    qmx::trace("open_special_file START");
    if (adap_fd == nullptr) {
        qmx::trace("open_special_file ABEND");
        return -1;
    }
    auto *files = static_cast<qmx_spfile *>(std::calloc(kMaxPorts, sizeof(qmx_spfile)));
    if (files == nullptr) {
        qmx::sysError("malloc", errno);
        qmx::trace("open_special_file ABEND");
        return -1;
    }
    int count = 0;
    for (int n = 0; n < kMaxPorts; ++n) {
        qmx_spfile &e = files[n];
        e.fd = -1;
        char path[40];
        std::snprintf(path, sizeof path, "/dev/qmxldd%d", n);
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd == -1) continue;
        e.fd = fd;
        e.valid = kSpfileValid;
        qmx_ioctl_proc_info info;
        std::memset(&info, 0, sizeof info);
        if (rawIoctl(fd, int(IOCTL_QMX_SC_PRINFO), &info) != 0) {
            qmx::sysError("ioctl", errno);
            continue;
        }
        e.instance = info.instance;
        e.host_no = uint8_t(info.host_no & 0xFF);
        e.ww_name = info.ww_name;
        e.bus = info.bus_dev_func[0];
        e.dev = info.bus_dev_func[1];
        e.func = info.bus_dev_func[2];
        ++count;
    }
    if (count == 0) qmx::trace("no device special file (/dev/qmxlddx)");
    *adap_fd = files;
    qmx::trace("open_special_file END");
    return count;
}

int close_special_file(qmx_spfile *adap_fd) {
    qmx::trace("close_special_file START");
    if (adap_fd != nullptr) {
        for (int n = 0; n < kMaxPorts; ++n)
            if (spfileValid(adap_fd[n]) && adap_fd[n].fd != -1) close(adap_fd[n].fd);
        std::free(adap_fd);
    }
    qmx::trace("close_special_file END");
    return 0;
}

int QMX_read_proc_info(char *device, qmx_ioctl_proc_info *pprocinfo) {
    qmx::trace("QMX_read_proc_info START");
    if (device == nullptr || pprocinfo == nullptr) {
        qmx::trace("QMX_read_proc_info ABEND");
        return -1;
    }
    int fd = open(device, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        qmx::sysError("open", errno);
        qmx::trace("QMX_read_proc_info ABEND");
        return -1;
    }
    qmx_ioctl_proc_info info;
    std::memset(&info, 0, sizeof info);
    if (rawIoctl(fd, int(IOCTL_QMX_SC_PRINFO), &info) != 0) {
        qmx::sysError("ioctl IOCTL_QMX_SC_PRINFO", errno);
        close(fd);
        qmx::trace("QMX_read_proc_info ABEND");
        return -1;
    }
    std::memcpy(pprocinfo, &info, sizeof info);
    close(fd);
    qmx::trace("QMX_read_proc_info END");
    return 0;
}

int QMX_GetWwnInfo(char *device, qmx_ioctl_wwn *wwn_ioctl) {
    qmx::trace("QMX_GetWwnInfo START");
    int fd = -1;
    if (device == nullptr || wwn_ioctl == nullptr || open_ap(&fd, device) != 0) {
        qmx::trace("QMX_GetWwnInfo ABEND");
        return -1;
    }
    wwn_ioctl->sub_code = 1;
    int rc = ioctl_diag(fd, int(IOCTL_QMX_WWN_INFO), wwn_ioctl);
    close_ap(&fd);
    if (rc != 0) {
        qmx::trace("QMX_GetWwnInfo ABEND");
        return -1;
    }
    switch (wwn_ioctl->resp_code) {
    case 0:
        qmx::trace("QMX_GetWwnInfo END");
        return 0;
    case 1:
        qmx::trace("resp_code is busy");
        qmx::trace("QMX_GetWwnInfo ABEND");
        return -2;
    default:
        qmx::trace("resp_code is not busy");
        qmx::trace("QMX_GetWwnInfo ABEND");
        return -1;
    }
}

int QMX_GetPortAttr(char *dname, qmx_ioctl_port_attr *pt_attr) {
    qmx::trace("QMX_GetPortAttr START");
    if (dname == nullptr || pt_attr == nullptr) {
        qmx::trace("QMX_GetPortAttr ABEND");
        return -1;
    }
    pt_attr->flags = 1;
    qmx_ioctl_diag_req req;
    std::memset(&req, 0, sizeof req);
    req.sub_code = 2;
    req.length = QMX_PORT_ATTR_LIST_LEN;
    req.addr = reinterpret_cast<uintptr_t>(pt_attr);
    int fd = -1;
    if (open_ap(&fd, dname) != 0) return -1;  // no ABEND line on this path
    int rc = ioctl_diag(fd, int(IOCTL_QMX_PORT_ATTR), &req);
    close_ap(&fd);
    if (rc != 0) {
        qmx::trace("QMX_GetPortAttr ABEND");
        return -1;
    }
    // A driver must not report more targets than the list holds.
    if (pt_attr->tgt_num > QMX_PORT_ATTR_MAX_TARGETS) pt_attr->tgt_num = QMX_PORT_ATTR_MAX_TARGETS;
    qmx::trace("QMX_GetPortAttr END");
    return 0;
}

unsigned int QMX_getQmxDeviceId(char *DevSymbName) {
    int fd = -1;
    if (DevSymbName == nullptr || open_ap(&fd, DevSymbName) != 0) {
        qmx::trace("QMX_getQmxDeviceId ABEND");
        return 0xFFFFFFFFu;
    }
    uint32_t fixed[64];  // the adapter's fixed PCI data
    std::memset(fixed, 0, sizeof fixed);
    diag_ioctl req;
    std::memset(&req, 0, sizeof req);
    req.sub_cmd = QMX_DG_RDFIXPCI;
    req.uni.offset = 0;
    req.length = 4;
    req.addr = reinterpret_cast<uintptr_t>(fixed);
    int rc = ioctl_diag(fd, int(IOCTL_QMX_DIAG0), &req);
    close_ap(&fd);
    if (rc != 0) {
        qmx::trace("QMX_getQmxDeviceId ABEND");
        return 0xFFFFFFFFu;
    }
    return fixed[0];
}

int readvProc(int host_no) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/scsi/vqmxldd/%d", host_no);
    FILE *fp = std::fopen(path, "re");
    if (fp == nullptr) return -1;
    char line[514];
    int instance = -1;
    while (std::fgets(line, sizeof line, fp) != nullptr) {
        if (std::strstr(line, "Instance_number") == nullptr) continue;
        if (std::sscanf(line, "  Instance_number         = %d", &instance) != 1) instance = -1;
        break;
    }
    std::fclose(fp);
    return instance;
}
