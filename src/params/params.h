// Internal interface of the port parameter and link setting calls.
#pragma once

#include <cstdint>

#include "bios/bios.h"
#include "frame/frame.h"
#include "params/param_table.h"

namespace qmx::params {

// The family's implementations behind the exported entry points.  Outputs
// are of the member's API type (row.valueBytes wide).
QMX_STATUS getPair(const PortParam &p, QMX_WWN wwn, void *C, void *S) noexcept;
QMX_STATUS getCurrent(const PortParam &p, QMX_WWN wwn, void *C) noexcept;
QMX_STATUS setValue(const PortParam &p, QMX_WWN wwn, int64_t value, int del,
                    const Range &range) noexcept;
QMX_STATUS getThresholds(const PortParam &p, QMX_WWN wwn, int *C, int *S) noexcept;
QMX_STATUS setThreshold(const PortParam &p, QMX_WWN wwn, int err_id, int threshold,
                        int del) noexcept;
QMX_STATUS unsupported(const PortParam &p, bool getter) noexcept;

// Partition mode from the port information record's mlpf_mode byte.
constexpr uint8_t kMlpfPartitioned = 0x80;  // bit 7: boot settings in the EFI option area
constexpr uint8_t kMlpfDedicated = 0x40;    // bit 6 (with bit 7): a dedicated port
// 0 not partitioned, 1 shared port, 2 dedicated port.
constexpr int mlpfClass(uint8_t mlpf_mode) {
    if ((mlpf_mode & kMlpfPartitioned) == 0) return 0;
    return (mlpf_mode & kMlpfDedicated) != 0 ? 2 : 1;
}

// Connection type: API value <-> EFI option byte.
constexpr uint8_t connectionTypeToEfi(uint8_t api) { return api == 1 ? 0 : api == 2 ? 1 : 3; }
constexpr uint8_t connectionTypeFromEfi(uint8_t efi) { return efi == 0 ? 1 : efi == 1 ? 2 : 3; }
// Port speed: the API value for the driver's max_data_rate; 0 for rates the
// API has no value for.
uint8_t portSpeedFromRate(uint32_t max_data_rate) noexcept;
// Accepted port speeds: 0 (auto), 1, 2, 4, 8, 10.
bool portSpeedValid(uint8_t speed) noexcept;

// The port information record (IOCTL_QMX_SC_PRINFO), zeroed first.  A failed
// query traces "IOCTL_QMX_SC_PRINFO" and then "<call> Error" (Call: getters
// and the port information calls) or "QMX_CallDriver Error" (Channel: the
// boot-firmware setters report it under the driver channel's name).
enum class QueryTrace : uint8_t { Call, Channel };
bool queryPortInfo(Frame &f, QMX_WWN wwn, int ind, qmx_ioctl_proc_info *rec,
                   QueryTrace how) noexcept;

// A boot-firmware setting as the getters read it.  A partitioned port (bit 7
// of mlpf_mode) keeps it in the EFI option byte at `efiOffset`: the call
// traces "<call> (MMIO-HG)" and reads that byte (*fromEfi true).  Any other
// port has the BIOS tool list its configuration and gives the low byte of
// listing entry `cfgIndex` (*fromEfi false).  false: the read failed; the
// option access sets no code of its own, so the call fails with the code the
// driver channel left (1 for a device that cannot be opened or a refused
// request), the BIOS tool runner's 11, or 5 for its lock.
bool readBootSetting(Frame &f, int ind, const qmx_ioctl_proc_info &rec, int efiOffset,
                     int cfgIndex, uint8_t *value, bool *fromEfi) noexcept;

// A boot-firmware setting as the setters write it, after their own port
// information query.  A port that is not partitioned runs BIOS tool option
// `biosOption` with `bp`.  A partitioned port gets `efiValue` in the EFI
// option byte at `efiOffset`: with dedicatedOnly a shared port is refused
// ("<call> Not Support Shared FC mode", code 2) and a dedicated one traces
// "<call> (MMIO-HG Dedicate)"; without it every partitioned port is written
// after "<call> (MMIO-HG)".  Ends the frame.
struct BootWrite {
    int efiOffset;
    unsigned char efiValue;
    bool dedicatedOnly;
    int biosOption;
    qmx_bios_param bp;
};
QMX_STATUS writeBootSetting(Frame &f, QMX_WWN wwn, int ind, BootWrite w) noexcept;

}  // namespace qmx::params
