// EFI driver option area of an adapter: one option byte read, or written by
// a read-modify-write of the 4-byte word that holds it followed by the store
// command, through the driver's diagnostic request.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "bios/bios.h"
#include "frame/frame.h"

namespace {

constexpr uint32_t kStoreOffset = 12;
// The store command's value 0x10010000, in network byte order.
constexpr uint8_t kStoreValue[4] = {0x10, 0x01, 0x00, 0x00};

int request(int fd, uint8_t subCmd, uint32_t offset, uint32_t length, void *data) {
    diag_ioctl req;
    std::memset(&req, 0, sizeof req);
    req.sub_cmd = subCmd;
    req.uni.offset = offset;
    req.length = length;
    req.addr = uint64_t(reinterpret_cast<uintptr_t>(data));
    return ioctl_diag(fd, int(IOCTL_QMX_DIAG0), &req);
}

// Byte of the word that holds the option at `offset`.  The three cases are
// the option layout of the area: the connection type is the last byte of
// word 512, the data rate the first byte of word 516, and the login delay
// (and anything else) the third byte.
int byteInWord(int offset) {
    if (offset == kEfiOptConnectType) return 3;
    if (offset == kEfiOptDataRate) return 0;
    return 2;
}

int readWrite(int fd, unsigned char *data, int flag, int offset) {
    if (flag == 0) {
        if (request(fd, QMX_DG_RDHG, uint32_t(offset), 1, data) != 0) {
            qmx::trace("qmx_EFIDrvOption ioctl DG_RDHG(1byte) fail");
            return 2;
        }
        return 0;
    }
    const uint32_t wordOffset = uint32_t((offset / 4) * 4);  // truncating division
    uint8_t word[4] = {0, 0, 0, 0};
    if (request(fd, QMX_DG_RDHG, wordOffset, 4, word) != 0) {
        qmx::trace("qmx_EFIDrvOption ioctl DG_RDHG(4byte) fail");
        return 2;
    }
    word[byteInWord(offset)] = *data;
    if (request(fd, QMX_DG_WRHG, wordOffset, 4, word) != 0) {
        qmx::trace("qmx_EFIDrvOption ioctl DG_WRHG(4byte) fail");
        return 3;
    }
    uint8_t store[4];
    std::memcpy(store, kStoreValue, sizeof store);
    if (request(fd, QMX_DG_WRHG, kStoreOffset, 4, store) != 0) {
        qmx::trace("qmx_EFIDrvOption ioctl DG_WRHG(EFI store) fail");
        return 4;
    }
    return 0;
}

}  // namespace

int qmx_EFIDrvOption(int index, unsigned char *data, int flag, int offset) {
    // A port index outside the discovered table names no device: it is
    // reported as a device that cannot be opened.
    if (index < 0 || index >= c_max_port || index >= kMaxPorts) {
        qmx::trace("qmx_EFIDrvOption open_ap fail");
        return 1;
    }
    // Without a byte to read into or take from nothing is sent; reported as
    // a failed read.
    if (data == nullptr) {
        qmx::trace("qmx_EFIDrvOption data is NULL");
        return 2;
    }
    char path[300];
    std::snprintf(path, sizeof path, "/dev/%.255s", dev_info_all[index].name);
    int fd = -1;
    if (open_ap(&fd, path) != 0) {
        qmx::trace("qmx_EFIDrvOption open_ap fail");
        return 1;
    }
    int rc = readWrite(fd, data, flag, offset);
    close_ap(&fd);
    qmx::trace("qmx_EFIDrvOption END");
    return rc;
}
