// Fuzz target: the BIOS tool's device listing ("devshow.txt"), through the
// same stream parser QMX_GetDeviceInfo reads the tool's file with.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "params/hostinfo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    FILE *fp = fmemopen(const_cast<uint8_t *>(data), size, "r");
    if (fp == nullptr) return 0;
    auto list = std::make_unique<QMX_DEVICE_SHOW>();
    std::memset(list.get(), 0, sizeof *list);
    long lines = qmx::hostinfo::parseDeviceListing(fp, list.get());
    std::fclose(fp);
    if (list->list_max < 0 || list->list_max > QMX_DEVICE_SHOW_MAX || list->list_max > lines)
        __builtin_trap();
    for (int i = 0; i < list->list_max; ++i) {
        const QMX_DEVICE_ENTRY &e = list->list[i];
        // Every entry is a terminated device name beginning with "qmxldd".
        if (strnlen(e.deviceName, sizeof e.deviceName) == sizeof e.deviceName ||
            std::strncmp(e.deviceName, "qmxldd", 6) != 0 ||
            strnlen(e.deviceID, sizeof e.deviceID) == sizeof e.deviceID)
            __builtin_trap();
    }
    return 0;
}
