// The boot BIOS advice printed after a force isolation.
#include <cstdio>
#include <cstring>

#include "frame/frame.h"
#include "isolation/isolation.h"

namespace qmx::isolation {

void adviseBiosDisable(int ind) noexcept {
    if (ind < 0 || ind >= c_max_port) return;
    // Taken before the BIOS data call, whose port lookup may run discovery
    // again.
    char name[sizeof dev_info_all[0].name];
    copyText(name, std::string_view(dev_info_all[ind].name, strnlen(dev_info_all[ind].name, sizeof name)));
    QMX_WWN wwn;
    getWWN(dev_info_all[ind].wwn, &wwn);
    QMX_BIOS_DATA data;
    std::memset(&data, 0, sizeof data);
    // The advice is a courtesy of a call that has done its work: a BIOS data
    // call that fails is traced, and the caller keeps its own reason code.
    const int code = QMX_G_ERROR_CD;
    int rc = QMX_GetBiosData(wwn, nullptr, &data);
    QMX_G_ERROR_CD = code;
    // The BIOS data call's own frame closed the trace; the caller's lines
    // that follow go into it again.
    QMX_OpenApiTraceFile();
    if (rc != 0) {
        trace("QMX_GetBiosData Error");
        return;
    }
    if (data.hbaBios != 1) return;
    std::printf("Please set the HBA-BIOS parameter in Disable with the following commands. \n");
    std::printf("  /opt/kestrel/drivers/hba/qmxmgr -b %s bi disable\n", name);
    std::fflush(stdout);
}

}  // namespace qmx::isolation
