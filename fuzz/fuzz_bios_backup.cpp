// Fuzz target: the BIOS backup file decoder (header, device check, the
// per-port settings and the pre-configuration code), on any bytes of any
// length.  The first input byte picks the port number the driver would
// report, hostile values included.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "bios/bios_data.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    int port_no = int(int8_t(data[0]));
    const uint8_t *file = data + 1;
    size_t len = size - 1;
    QMX_BIOS_DATA out;
    std::memset(&out, 0, sizeof out);
    qmx_bios_file_header hdr{};
    if (qmx_ReadBiosFileHeader(file, len, &hdr) != 0) {
        if (len >= 13) __builtin_trap();  // a full header never fails
        return 0;
    }
    // The adapter's identifier as the driver would give it for this file.
    uint32_t adapter = __builtin_bswap32(hdr.device_id);
    (void)qmx_BiosFileDeviceMatch(hdr.device_id, adapter);
    int rc = qmx_ReadBiosFileBody(file, len, port_no, hdr.pre_conf, &out);
    if (rc == 0 && (len < kBiosFileSize || port_no < 0 || port_no >= kBiosFilePorts)) __builtin_trap();
    if (rc == 0 && out.preConfigure != 0 && out.preConfigure != 1 && out.preConfigure != 255)
        __builtin_trap();
    return 0;
}
