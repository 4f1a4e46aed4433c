// Layout facts of the driver configuration file and of the configuration
// module image, shared by the configuration store tests and the
// configuration benchmarks (no test framework here).
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "config/config.h"

namespace conflayout {

// The per-port parameters in the order in which the writer puts a port's
// items ("_retry_cnt<N>" items go right before "_lun_reset_delay", the
// isolation items before "_alter_path_num").
inline const char *const kPortOrder[] = {
    "_connection_type", "_link_speed",     "_max_transfer",   "_link_down",     "_reset_delay",
    "_mck_retry",       "_preferred_alpa", "_reset_timeout",  "_abort_timeout", "_queue_depth",
    "_scsi_allowed",    "_tmt_delay",      "_lun_reset_delay", "_msi_enable",   "_isol_type",
    "_ld_err_intvl",    "_ld_err_limit_l", "_ld_err_limit_s", "_if_err_intvl",  "_if_err_limit",
    "_to_err_intvl",    "_to_err_limit",   "_rt_err_enable",  "_login_retry",   "_els_retry",
    "_to_reset_retry",  "_scsi_to_retry",  "_abort_t_restrain", "_alter_path_num",
    "_offline_path_num", "_pathchk_to",    "_enable_tgtrst",
};

// A table area with the standard chain; the configuration value holds `text`.
inline std::string tableArea(const std::string &text = "") {
    std::string a(std::size_t(kTableAreaSize), '\0');
    struct E {
        const char *name;
        int32_t next;
    } chain[] = {{"<Kestrel_Fibre_Channel_Host_Bus_Adapter_Configuration_Module>", 96},
                 {"<Kestrel_Ltd>", 96},
                 {"<qmxldd_key>", 4176},
                 {"<qmxldd_key_hop>", 4176},
                 {"<qmxldd_conf>", 200068},
                 {"<CONFIG_END>", 0}};
    std::size_t pos = 0;
    for (const E &e : chain) {
        std::memcpy(&a[pos], e.name, std::strlen(e.name));
        std::memcpy(&a[pos + 64], &e.next, 4);
        pos += std::size_t(e.next);
    }
    std::memcpy(&a[8544 + 68], text.data(), text.size());
    return a;
}

}  // namespace conflayout
