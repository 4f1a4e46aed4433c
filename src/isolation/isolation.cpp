// Isolation and trouble counting: isolation and recovery of ports through
// the driver's isolation request, the force-isolate entries kept per PCI
// function in "/etc/qmxldd.conf", the driver-wide isolation function, the
// transceiver hot-swap isolation and identification, and the trouble
// counters behind isolation.
#include <arpa/inet.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "config/config.h"
#include "frame/frame.h"
#include "isolation/isolation.h"

namespace {

using qmx::Frame;

constexpr char kBsSuffix[] = "_bs";
constexpr char kIsolFuncSuffix[] = "_hba_isolation";
constexpr int kMaxSiblings = 3;
constexpr uint32_t kPciHotSwapOffset = 880;
constexpr std::size_t kInitTableAlloc = QMX_DGRD_INITTBL_LEN + 1;  // 1921
constexpr std::size_t kInitFwByte = 48, kInitIdByte = 320;
constexpr std::size_t kPartAt = 336, kSerialAt = 352, kDateAt = 368;
constexpr uint8_t kLedOff = 0x88;

// The PCI address in the first three bytes of a WWN: the parameter engine
// forms the force-isolate key "qmx_BB_DD_FF_bs" from them.
QMX_WWN pciWwn(uint8_t bus, uint8_t dev, uint8_t func) {
    QMX_WWN w{};
    w.wwn[0] = bus;
    w.wwn[1] = dev;
    w.wwn[2] = func;
    return w;
}

// Discovery for a lookup by PCI address.  false (code 5) when it failed.
bool discover() {
    if (QMX_DevFind() == 5) {
        qmx::setError(5);
        return false;
    }
    return true;
}

// The discovered port at a PCI address, or -1 ("specified bus dev func
// adapter port not find", code 2, when `required`).
int portAt(uint8_t bus, uint8_t dev, uint8_t func, bool required) {
    for (int i = 0; i < c_max_port; ++i) {
        const dev_info &d = dev_info_all[i];
        if (d.bus == bus && d.dev == dev && d.func == func) return i;
    }
    if (required) {
        qmx::trace("specified bus dev func adapter port not find");
        qmx::setError(2);
    }
    return -1;
}

// An exported call made from inside another call's work closes the trace
// with its own frame; the outer call reopens it for the lines that follow.
int judgeShared(QMX_WWN wwn) {
    int mode = QMX_JudgeMlpfMode(wwn);
    QMX_OpenApiTraceFile();
    return mode;
}

// Asks the driver to act on a prepared isolation record for the port with
// instance number `ind`: the port's own record is read first, and the
// request is refused with code 21 when the port runs shared and the driver
// does not support isolation there, or 22 when its firmware does not.
bool sendIsolation(Frame &f, QMX_WWN wwn, int ind, qmx_isol_info &prepared) {
    int mode = judgeShared(wwn);
    if (mode == -1) return false;
    auto cur = std::make_unique<qmx_isol_info>();
    std::memset(cur.get(), 0, sizeof *cur);
    cur->set_opr = QMX_ISOL_OPR_READ;
    if (QMX_CallDriver(wwn, ind, int(IOCTL_QMX_HBA_ISOLATION), cur.get()) != 0) {
        f.requestFailed("IOCTL_QMX_HBA_ISOLATION");
        return false;
    }
    if (mode == 1 && cur->err_is_hvm_spt == 0) {
        qmx::setError(21);
        return false;
    }
    if (cur->err_is_fw_spt == 0) {
        qmx::setError(22);
        return false;
    }
    if (QMX_CallDriver(wwn, ind, int(IOCTL_QMX_HBA_ISOLATION), &prepared) != 0) {
        f.requestFailed("IOCTL_QMX_HBA_ISOLATION");
        return false;
    }
    return true;
}

// The value of one hexadecimal digit pair of a key; digits that are not
// there or not hexadecimal end the number early (a malformed key gives the
// digits it has, never a read past the key).
uint8_t keyPair(std::string_view key, std::size_t at) {
    unsigned v = 0;
    for (std::size_t i = at; i < at + 2 && i < key.size(); ++i) {
        char c = key[i];
        int d = c >= '0' && c <= '9'   ? c - '0'
                : c >= 'a' && c <= 'f' ? c - 'a' + 10
                : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                       : -1;
        if (d < 0) break;
        v = v * 16 + unsigned(d);
    }
    return uint8_t(v);
}

struct KeyList {
    util_para *list = nullptr;
    ~KeyList() { std::free(list); }
};

// A device descriptor closed when the call ends.
struct Device {
    int fd = -1;
    ~Device() { close_ap(&fd); }
};

// The diagnostic request of a PCI configuration read or write.
diag_ioctl pciRequest(int subCmd, uint32_t offset, uint32_t length, void *buf) {
    diag_ioctl d;
    std::memset(&d, 0, sizeof d);
    d.sub_cmd = uint8_t(subCmd);
    d.uni.offset = offset;
    d.length = length;
    d.addr = uint64_t(reinterpret_cast<uintptr_t>(buf));
    return d;
}

int rawRequest(int fd, unsigned int request, void *arg) {
    return ::ioctl(fd, static_cast<unsigned long>(request), arg);
}

// Opens the discovered port at the transceiver record's PCI function.
// false (error code set) when discovery fails, no port is there or the
// device does not open.
bool openPciPort(const QMX_SFP_INFO &sfp, Device &dev) {
    if (!discover()) return false;
    int ind = portAt(sfp.bus, sfp.dev, sfp.func, true);
    if (ind < 0) return false;
    char path[300];
    std::snprintf(path, sizeof path, "/dev/%s", dev_info_all[ind].name);
    return open_ap(&dev.fd, path) == 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Force-isolate entries
// ---------------------------------------------------------------------------
QMX_STATUS QMX_GetForceIsolateList(QMX_FORCE_ISOLATE_LIST *isolate_list) {
    return qmx::run("QMX_GetForceIsolateList", [&](Frame &f) {
        if (!f.out(isolate_list, "isolate_list")) return f.fail();
        KeyList keys;
        int n = QMX_Read_qmxlddconf(&keys.list, 0);
        if (n < 0) return f.fail();
        int count = 0;
        for (int i = 0; i < n && keys.list != nullptr; ++i) {
            std::string_view key = qmx::keyOf(keys.list[i]);
            if (key.size() < 4 || key.substr(0, 4) != "qmx_" || key.size() < 3 ||
                key.substr(key.size() - 3) != kBsSuffix)
                continue;
            QMX_ISOLATE &e = isolate_list->list[count++];
            e.bus = keyPair(key, 4);
            e.dev = keyPair(key, 7);
            e.func = keyPair(key, 10);
            e.mode = qmx::atoiText(qmx::valueOf(keys.list[i]));
            e.set_opr = 0;
            // The list is full once the 256th entry is in, whether or not
            // more keys follow.
            if (count == QMX_FORCE_ISOLATE_MAX) {
                qmx::trace("isolate_list is defined over MAX");
                break;
            }
        }
        isolate_list->listCnt = count;
        return f.ok();
    });
}

QMX_STATUS QMX_SetForceIsolateList(QMX_FORCE_ISOLATE_LIST *isolate_list, int mode) {
    return qmx::run("QMX_SetForceIsolateList", [&](Frame &f) {
        if (!f.lock(1)) return f.status();
        if (!f.notNull(isolate_list, "isolate_list")) return f.fail();
        const QMX_ISOLATE e = isolate_list->list[0];
        auto rec = std::make_unique<qmx_isol_info>();
        std::memset(rec.get(), 0, sizeof *rec);
        bool isolate = e.set_opr == 1;
        if (isolate) {
            if (e.mode != 1 && e.mode != 2) return f.invalid("isol mode");
            rec->set_opr = QMX_ISOL_OPR_ISOLATE;
        } else if (e.set_opr == 2) {
            rec->set_opr = QMX_ISOL_OPR_RECOVER;
            if (e.force == 1) rec->force_recv = 1;
            if (e.immdt == 1) rec->immdt_cmd = 1;
        } else {
            return f.invalid("isol set_opr");
        }
        if (!discover()) return f.fail();
        int target = portAt(e.bus, e.dev, e.func, false);
        int siblings[kMaxSiblings];
        int nSiblings = 0;
        for (int i = 0; i < c_max_port && nSiblings < kMaxSiblings; ++i) {
            const dev_info &d = dev_info_all[i];
            if (d.bus == e.bus && d.dev == e.dev && d.func != e.func) siblings[nSiblings++] = i;
        }
        if (mode == 1) {
            if (target < 0) {
                portAt(e.bus, e.dev, e.func, true);
                return f.fail();
            }
            QMX_WWN wwn;
            getWWN(dev_info_all[target].wwn, &wwn);
            if (!sendIsolation(f, wwn, target, *rec)) return f.fail();
        }
        // The entries: written with the mode when isolating, removed when
        // releasing.
        int del = isolate ? 0 : 1;
        int value = e.mode;
        QMX_WWN key = pciWwn(e.bus, e.dev, e.func);
        if (QMX_SetUtilValue(key, -1, const_cast<char *>(kBsSuffix), -1, &value, del) != 0) {
            f.requestFailed(nullptr);
            return f.fail();
        }
        for (int s = 0; s < nSiblings; ++s) {
            const dev_info &d = dev_info_all[siblings[s]];
            QMX_WWN skey = pciWwn(d.bus, d.dev, d.func);
            int current = 2;
            if (QMX_GetUtilValue(skey, -1, const_cast<char *>(kBsSuffix), -1, &current) != 0)
                qmx::trace("QMX_SetForceIsolateList(ISOLATE_KEY) Error");
            bool change = isolate ? e.mode == 2 : current == 2;
            if (!change) continue;
            if (QMX_SetUtilValue(skey, -1, const_cast<char *>(kBsSuffix), -1, &value, del) != 0) {
                qmx::trace("QMX_SetForceIsolateList(other port) Error");
                return f.fail();
            }
        }
        // A port isolated at boot cannot boot through its BIOS: say how to
        // disable it, for the siblings too when they are isolated with it.
        if (isolate && target >= 0) {
            qmx::isolation::adviseBiosDisable(target);
            if (e.mode == 2)
                for (int s = 0; s < nSiblings; ++s) qmx::isolation::adviseBiosDisable(siblings[s]);
        }
        return f.ok();
    });
}

// ---------------------------------------------------------------------------
// Adapter isolation and the isolation function
// ---------------------------------------------------------------------------
QMX_STATUS QMX_SetHBAIsolate(QMX_WWN wwn, QMX_HBA_INFO *hba) {
    return qmx::run("QMX_SetHBAIsolate", [&](Frame &f) {
        if (!f.notNull(hba, "hba")) return f.fail();
        auto rec = std::make_unique<qmx_isol_info>();
        std::memset(rec.get(), 0, sizeof *rec);
        if (hba->set_opr == 1) {
            qmx::trace("isol set_opr is set");
            rec->set_opr = QMX_ISOL_OPR_ISOLATE;
        } else {
            qmx::trace("isol set_opr is recover");
            rec->set_opr = QMX_ISOL_OPR_RECOVER;
        }
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!sendIsolation(f, wwn, ind, *rec)) return f.fail();
        return f.ok();
    });
}

QMX_STATUS QMX_GetIsolFunc(int *onoff) {
    return qmx::run("QMX_GetIsolFunc", [&](Frame &f) {
        if (!f.lock(1)) return f.status();
        if (!f.notNull(onoff, "onoff", " == NULL")) return f.fail();
        *onoff = 1;  // the driver's default when no value is stored
        if (QMX_GetUtilValue(wwn_all_zero, -1, const_cast<char *>(kIsolFuncSuffix), -1, onoff) !=
            0) {
            f.requestFailed(nullptr);
            return f.fail();
        }
        return f.ok();
    });
}

QMX_STATUS QMX_SetIsolFunc(int onoff) {
    return qmx::run("QMX_SetIsolFunc", [&](Frame &f) {
        if (!f.lock(1)) return f.status();
        if (!discover()) return f.fail();
        bool allPorts = true;
        auto rec = std::make_unique<qmx_isol_info>();
        for (int i = 0; i < c_max_port; ++i) {
            std::memset(rec.get(), 0, sizeof *rec);
            rec->set_opr = onoff == 1 ? QMX_ISOL_OPR_FUNC_ON : QMX_ISOL_OPR_FUNC_OFF;
            rec->err_is_func = uint8_t(onoff);
            QMX_WWN wwn;
            getWWN(dev_info_all[i].wwn, &wwn);
            if (QMX_CallDriver(wwn, i, int(IOCTL_QMX_HBA_ISOLATION), rec.get()) != 0) {
                f.requestFailed("IOCTL_QMX_HBA_ISOLATION");
                std::printf("%s :QMXAPI ioctl retry\n", dev_info_all[i].name);
                std::fflush(stdout);
                allPorts = false;
            }
        }
        int value = onoff;
        bool written = QMX_SetUtilValue(wwn_all_zero, -1, const_cast<char *>(kIsolFuncSuffix), -1,
                                        &value, 0) == 0;
        return written && allPorts ? f.ok() : f.fail();
    });
}

// ---------------------------------------------------------------------------
// Transceiver hot swap
// ---------------------------------------------------------------------------
QMX_STATUS QMX_SetSFPIsolate(QMX_SFP_INFO *sfp) {
    return qmx::run("QMX_SetSFPIsolate", [&](Frame &f) {
        if (!f.notNull(sfp, "sfp")) return f.fail();
        auto rec = std::make_unique<qmx_isol_info>();
        std::memset(rec.get(), 0, sizeof *rec);
        bool isolate = sfp->set_opr == 1;
        if (isolate) {
            qmx::trace("isol set_opr is set");
            rec->set_opr = QMX_ISOL_OPR_ISOLATE;
        } else if (sfp->set_opr == 2) {
            qmx::trace("isol set_opr is recover");
            rec->set_opr = QMX_ISOL_OPR_RECOVER;
            if (sfp->force == 1) {
                qmx::trace("isol set_opr is force recover");
                rec->force_recv = 1;
            }
        } else {
            return f.invalid("isol set_opr");
        }
        Device dev;
        if (!openPciPort(*sfp, dev)) return f.fail();
        // Every failure from here closes the device and traces the release
        // of lock 1, which this call never takes (tools expect the lines);
        // a lock that another process holds is left to it.
        auto failOpen = [&](const char *line, int code) {
            if (line != nullptr) qmx::trace(line);
            if (code != 0) qmx::setError(code);
            close_ap(&dev.fd);
            qmx::releaseOwnLock(1);
            return f.fail();
        };
        auto requestFailure = [&](const char *sysCall, const char *line) {
            qmx::sysError(sysCall, errno);
            return failOpen(line, 7);
        };

        qmx_ioctl_proc_info info;
        std::memset(&info, 0, sizeof info);
        if (rawRequest(dev.fd, IOCTL_QMX_SC_PRINFO, &info) != 0)
            return requestFailure("ioctl", "IOCTL_QMX_SC_PRINFO ioctl ABEND");
        if (int8_t(info.mlpf_mode) < 0) return failOpen("Not support, LPAR mode.", 20);

        uint32_t word = 0;
        diag_ioctl rd = pciRequest(QMX_DG_RDPCI, kPciHotSwapOffset, 4, &word);
        if (rawRequest(dev.fd, IOCTL_QMX_DIAG0, &rd) != 0)
            return requestFailure("ioctl", "IOCTL_QMX_DIAG0(QMX_DG_RDPCI) ioctl ABEND");
        bool hwSwap = (ntohl(word) & 0x80000000u) != 0;

        // The table is read over its own request record.
        std::unique_ptr<uint8_t, decltype(&std::free)> table(
            static_cast<uint8_t *>(std::calloc(1, kInitTableAlloc)), &std::free);
        if (!table) {
            qmx::sysError("malloc", errno);
            return failOpen(nullptr, 1);
        }
        table.get()[0] = QMX_DGRD_INITTBL;
        if (rawRequest(dev.fd, IOCTL_QMX_DIAG0, table.get()) != 0)
            return requestFailure("ioctl", "IOCTL_QMX_DIAG0(QMX_DGRD_INITTBL) ioctl ABEND");
        bool fwSwap = (table.get()[kInitFwByte] & 1) != 0;
        if (!hwSwap && !fwSwap)
            return failOpen(
                "Firmware version does not support hot swap feature of SFP Transceiver.", 20);

        if (isolate && info.port_status == 3)
            return failOpen("The adapter port has already isolated.", 20);
        if (info.port_status == 8 || info.port_status == 9)
            return failOpen("The adapter port status is CHECK-STOP.", 20);

        if (rawRequest(dev.fd, IOCTL_QMX_HBA_ISOLATION, rec.get()) != 0)
            return requestFailure("ioctl", "Isolation ioctl ABEND");
        if (rec->errcode == QMX_ISOL_ERR_DONE) sfp->err_no = 1;
        if (rec->errcode == QMX_ISOL_ERR_REFUSED) return failOpen(nullptr, 10);
        if (isolate && hwSwap) {
            // The port's LED: offset 56 for functions 0 and 2, 57 otherwise.
            uint8_t led = kLedOff;
            uint32_t at = sfp->func == 0 || sfp->func == 2 ? 56 : 57;
            diag_ioctl wr = pciRequest(QMX_DG_WRPCI, at, 1, &led);
            if (ioctl_diag(dev.fd, int(IOCTL_QMX_DIAG0), &wr) != 0)
                return requestFailure("ioctl_diag", "LED off ioctl_diag ABEND");
        }
        close_ap(&dev.fd);
        return f.ok();
    });
}

QMX_STATUS QMX_GetSFPInfo(QMX_SFP_INFO *sfp) {
    return qmx::run("QMX_GetSFPInfo", [&](Frame &f) {
        if (!f.notNull(sfp, "sfp")) return f.fail();
        Device dev;
        if (!openPciPort(*sfp, dev)) return f.fail();
        std::unique_ptr<uint8_t, decltype(&std::free)> table(
            static_cast<uint8_t *>(std::calloc(1, kInitTableAlloc)), &std::free);
        if (!table) {
            qmx::trace("memory allocate error");
            return f.fail(1);
        }
        table.get()[0] = QMX_DGRD_INITTBL;
        if (ioctl_diag(dev.fd, int(IOCTL_QMX_DIAG0), table.get()) != 0) {
            qmx::trace("SFP Information ioctl_diag ABEND");
            return f.fail(7);
        }
        uint8_t pci = 0;
        diag_ioctl rd = pciRequest(QMX_DG_RDPCI, kPciHotSwapOffset, 1, &pci);
        if (ioctl_diag(dev.fd, int(IOCTL_QMX_DIAG0), &rd) != 0) {
            qmx::trace("SFP support bit ioctl_diag ABEND");
            return f.fail(7);
        }
        const uint8_t *t = table.get();
        // Bits are only ever set here: the caller clears status first when
        // it wants the port's bits alone.
        if ((pci & 0x80) == 0) sfp->status |= QMX_SFP_STATUS_NO_HW_SWAP;
        if ((t[kInitIdByte] & 0x80) == 0) sfp->status |= QMX_SFP_STATUS_ID_BIT7;
        if ((t[kInitIdByte] & 0x40) == 0) sfp->status |= QMX_SFP_STATUS_ID_BIT6;
        std::memset(sfp->part_num, 0, sizeof sfp->part_num);
        std::memset(sfp->serial_num, 0, sizeof sfp->serial_num);
        std::memset(sfp->date_code, 0, sizeof sfp->date_code);
        std::memcpy(sfp->part_num, t + kPartAt, kSerialAt - kPartAt);
        std::memcpy(sfp->serial_num, t + kSerialAt, kDateAt - kSerialAt);
        std::memcpy(sfp->date_code, t + kDateAt, 8);
        return f.ok();
    });
}

// ---------------------------------------------------------------------------
// Trouble counters
// ---------------------------------------------------------------------------
QMX_STATUS QMX_GetAdapTroubleCnt(QMX_WWN wwn, QMX_TRBL_CNT *trbl_cnt) {
    return qmx::run("QMX_GetAdapTroubleCnt", [&](Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.notNull(trbl_cnt, "trbl_cnt")) return f.fail();
        QMX_TRBL_CNT &c = *trbl_cnt;
        c.port_status = c.countL = c.countS = c.if_err = c.tmo_err = c.tmo_reset = -1;
        c.err_is_func = c.err_is_fw_spt = c.err_is_hvm_spt = 255;
        qmx_ioctl_proc_info info;
        std::memset(&info, 0, sizeof info);
        if (QMX_CallDriver(wwn, ind, int(IOCTL_QMX_SC_PRINFO), &info) != 0) {
            f.requestFailed("IOCTL_QMX_SC_PRINFO");
            return f.fail();
        }
        c.port_status = info.port_status;
        auto rec = std::make_unique<qmx_isol_info>();
        std::memset(rec.get(), 0, sizeof *rec);
        rec->set_opr = QMX_ISOL_OPR_READ;
        if (QMX_CallDriver(wwn, ind, int(IOCTL_QMX_HBA_ISOLATION), rec.get()) != 0) {
            f.requestFailed("IOCTL_QMX_HBA_ISOLATION");
            return f.fail();
        }
        c.countL = rec->ld_err_count_l;
        c.countS = rec->ld_err_count_s;
        c.if_err = rec->if_err_count;
        c.tmo_err = rec->to_err_count;
        c.tmo_reset = rec->rt_err_count != 0 ? 1 : 0;
        c.err_is_func = rec->err_is_func != 0 ? 1 : 0;
        c.err_is_fw_spt = rec->err_is_fw_spt != 0 ? 1 : 0;
        c.err_is_hvm_spt = rec->err_is_hvm_spt != 0 ? 1 : 0;
        return f.ok();
    });
}
