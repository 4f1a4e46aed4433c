// Byte layouts of the driver records that the simulated driver answers with,
// and their construction from the virtual host's state.  Records are written
// byte by byte at their fixed offsets (host byte order for numbers), the way
// the driver lays them out.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

#include "qmxldd_ioctl.h"
#include "simstate.h"

namespace qmxsim::rec {

inline void putU16(uint8_t *p, std::size_t off, uint16_t v) { std::memcpy(p + off, &v, 2); }
inline void putU32(uint8_t *p, std::size_t off, uint32_t v) { std::memcpy(p + off, &v, 4); }
inline void putU64(uint8_t *p, std::size_t off, uint64_t v) { std::memcpy(p + off, &v, 8); }
inline uint16_t getU16(const uint8_t *p, std::size_t off) {
    uint16_t v;
    std::memcpy(&v, p + off, 2);
    return v;
}
inline uint32_t getU32(const uint8_t *p, std::size_t off) {
    uint32_t v;
    std::memcpy(&v, p + off, 4);
    return v;
}
inline uint64_t getU64(const uint8_t *p, std::size_t off) {
    uint64_t v;
    std::memcpy(&v, p + off, 8);
    return v;
}

// Diagnostic request (144 bytes).
constexpr std::size_t kDiagUni = 4, kDiagOffset = 4, kDiagLength = 132, kDiagAddr = 136;
constexpr int kDgRdInitTbl = QMX_DGRD_INITTBL;
constexpr int kDgRdPciConfig = QMX_DG_RDPCI;
constexpr int kDgWrPciConfig = QMX_DG_WRPCI;
constexpr int kDgRdPciFixed = QMX_DG_RDFIXPCI;
constexpr int kDgRdHg = QMX_DG_RDHG;
constexpr int kDgWrHg = QMX_DG_WRHG;
constexpr int kDgTgtScan = QMX_DG_TGTSCAN;
constexpr int kDgReflect = QMX_DG_REFLECT;

// Target list request (128 bytes) and list (2296 bytes).
constexpr std::size_t kAttrReqLength = 116, kAttrReqAddr = 120;
constexpr std::size_t kAttrListSize = 2296, kAttrListCount = 244, kAttrListWwpn = 248;

// Isolation record (2160 bytes).
constexpr std::size_t kIsoSize = 2160, kIsoSetOpr = 1, kIsoErrcode = 111;

// One field of a record: name, offset, width in bytes, signed, text.
struct Field {
    const char *name;
    std::size_t offset;
    std::size_t width;
    bool isSigned;
    bool text;
};

// The port information record (1024 bytes).
constexpr Field kPrinfoFields[] = {
    {"version", 0, 1, false, false},        {"flags", 1, 1, false, false},
    {"dev_major", 8, 4, true, false},       {"dev_minor", 12, 4, true, false},
    {"instance", 16, 1, false, false},      {"host_no", 18, 2, false, false},
    {"unique_id", 20, 4, false, false},     {"vender_id", 28, 2, false, false},
    {"device_id", 30, 2, false, false},     {"ww_name", 32, 8, false, false},
    {"node_name", 40, 8, false, false},     {"scsi_id", 48, 8, false, false},
    {"adap_id", 64, 16, false, true},       {"model_name", 80, 16, false, true},
    {"driver_ver", 96, 16, false, true},    {"firmware_ver", 112, 4, false, false},
    {"parts_number", 128, 16, false, true}, {"pkgtype", 144, 1, false, false},
    {"pkgcode", 145, 1, false, false},      {"ec_level", 146, 1, false, false},
    {"bus", 147, 1, false, false},          {"dev", 148, 1, false, false},
    {"func", 149, 1, false, false},         {"port_no", 150, 1, false, false},
    {"mlpf_mode", 151, 1, true, false},     {"port_status", 152, 1, false, false},
    {"highconf_opt", 153, 1, false, false}, {"abort_t_restrain", 154, 1, false, false},
    {"msi_flag", 155, 1, false, false},     {"opt_vendor_name", 160, 32, false, true},
    {"opt_parts_number", 192, 32, false, true}, {"opt_serial_number", 224, 32, false, true},
    {"connection_type", 592, 1, false, false}, {"max_data_rate", 596, 4, false, false},
    {"login_delay", 600, 1, false, false},  {"spinup_delay", 601, 1, false, false},
    {"automap", 602, 1, false, false},      {"pref_alpa", 603, 1, false, false},
    {"xob_max", 616, 2, false, false},      {"xrb_max", 618, 2, false, false},
    {"slog_max", 620, 2, false, false},     {"dma_max", 632, 4, false, false},
    {"queue_depth", 636, 4, false, false},  {"linkup_tmo", 640, 4, false, false},
    {"scsi_reset_delay", 644, 4, false, false}, {"target_reset_tmo", 648, 4, false, false},
    {"abort_tmo", 652, 4, false, false},    {"max_target", 656, 4, false, false},
    {"trc_max", 660, 4, false, false},      {"max_mck_cnt", 680, 4, true, false},
    {"wmsg", 684, 4, true, false},          {"linkup2_tmo", 688, 4, true, false},
    {"pkt_num", 692, 4, true, false},       {"can_queue", 696, 4, true, false},
    {"sg_tblsize", 700, 4, true, false},    {"cmnd_num", 704, 4, true, false},
    {"minus_tout", 708, 4, true, false},    {"scsi_allowed", 712, 4, true, false},
    {"cmd_per_lun", 716, 4, true, false},   {"max_sectors", 720, 4, true, false},
    {"scsi_timeout_fail", 724, 4, true, false}, {"tmt_delay", 728, 4, false, false},
    {"lun_reset_delay", 732, 4, false, false}, {"target_reset_mode", 736, 1, false, false},
    {"limit_log", 737, 1, true, false},     {"filter_target", 738, 1, true, false},
    {"hg_stats_disable", 739, 1, true, false},
};

// The multipath parameter record (48 bytes).
constexpr Field kMpFields[] = {
    {"automap", 0, 1, false, false},        {"qmxmp", 1, 1, false, false},
    {"mp_failover", 2, 1, false, false},    {"mp_failback", 3, 1, false, false},
    {"mp_path_health", 4, 1, false, false}, {"mp_path_health_by_dsp", 5, 1, false, false},
    {"mp_qmxrsv", 6, 1, false, false},      {"mp_roundrobin", 7, 1, false, false},
    {"mp_reserve_key", 8, 8, false, false}, {"mp_alter_path", 16, 1, false, false},
    {"mp_offline_path", 17, 1, false, false}, {"mp_interval", 24, 4, false, false},
    {"mp_maxgroup", 28, 4, false, false},   {"mp_max_tgt_path", 32, 4, false, false},
    {"mp_max_lu_path", 36, 4, false, false}, {"mp_rr_seqcnt", 40, 4, false, false},
    {"mp_rr_rndcnt", 44, 4, false, false},
};

// The isolation record (2160 bytes; the retry counts follow at 112).
constexpr Field kIsoFields[] = {
    {"version", 0, 1, false, false},        {"set_opr", 1, 1, false, false},
    {"isol_type", 2, 1, false, false},      {"ld_err_intvl", 16, 2, true, false},
    {"ld_err_limit_l", 18, 2, true, false}, {"ld_err_count_l", 20, 2, true, false},
    {"ld_err_limit_s", 22, 2, true, false}, {"ld_err_count_s", 24, 2, true, false},
    {"if_err_intvl", 26, 2, true, false},   {"if_err_limit", 28, 2, true, false},
    {"if_err_count", 30, 2, true, false},   {"to_err_intvl", 32, 2, true, false},
    {"to_err_limit", 34, 2, true, false},   {"to_err_count", 36, 2, true, false},
    {"rt_err_enable", 38, 2, true, false},  {"rt_err_count", 40, 2, true, false},
    {"immdt_cmd", 77, 1, false, false},     {"force_recv", 78, 1, false, false},
    {"err_is_func", 79, 1, false, false},   {"err_is_fw_spt", 80, 1, false, false},
    {"err_is_hvm_spt", 81, 1, false, false}, {"init_retry", 82, 2, true, false},
    {"login_retry", 84, 2, true, false},    {"els_retry", 86, 2, true, false},
    {"to_reset_retry", 88, 2, true, false}, {"scsi_to_retry", 90, 2, true, false},
    {"errcode", 111, 1, false, false},
};

// The field tables agree with the driver's record declarations.
template <std::size_t N>
constexpr std::size_t offsetIn(const Field (&fields)[N], std::string_view name) {
    for (const Field &f : fields)
        if (name == f.name) return f.offset;
    return std::size_t(-1);
}
#define QMX_SIM_SAME(table, rec, field) \
    static_assert(offsetIn(table, #field) == offsetof(rec, field), #rec "." #field)
static_assert(offsetof(diag_ioctl, uni) == kDiagUni && offsetof(diag_ioctl, length) == kDiagLength &&
              offsetof(diag_ioctl, addr) == kDiagAddr);
static_assert(offsetof(qmx_ioctl_diag_req, length) == kAttrReqLength &&
              offsetof(qmx_ioctl_diag_req, addr) == kAttrReqAddr);
static_assert(sizeof(qmx_ioctl_port_attr) == kAttrListSize &&
              offsetof(qmx_ioctl_port_attr, tgt_num) == kAttrListCount &&
              offsetof(qmx_ioctl_port_attr, tgt_wwpn) == kAttrListWwpn);
static_assert(sizeof(qmx_isol_info) == kIsoSize && offsetof(qmx_isol_info, set_opr) == kIsoSetOpr &&
              offsetof(qmx_isol_info, errcode) == kIsoErrcode);
QMX_SIM_SAME(kPrinfoFields, qmx_ioctl_proc_info, instance);
QMX_SIM_SAME(kPrinfoFields, qmx_ioctl_proc_info, host_no);
QMX_SIM_SAME(kPrinfoFields, qmx_ioctl_proc_info, ww_name);
QMX_SIM_SAME(kPrinfoFields, qmx_ioctl_proc_info, firmware_ver);
QMX_SIM_SAME(kPrinfoFields, qmx_ioctl_proc_info, mlpf_mode);
QMX_SIM_SAME(kPrinfoFields, qmx_ioctl_proc_info, port_status);
QMX_SIM_SAME(kPrinfoFields, qmx_ioctl_proc_info, connection_type);
QMX_SIM_SAME(kPrinfoFields, qmx_ioctl_proc_info, queue_depth);
QMX_SIM_SAME(kPrinfoFields, qmx_ioctl_proc_info, max_sectors);
QMX_SIM_SAME(kPrinfoFields, qmx_ioctl_proc_info, hg_stats_disable);
static_assert(offsetIn(kPrinfoFields, "bus") == offsetof(qmx_ioctl_proc_info, bus_dev_func));
QMX_SIM_SAME(kMpFields, qmx_mp_parameters, qmxmp);
QMX_SIM_SAME(kMpFields, qmx_mp_parameters, mp_path_health_by_dsp);
QMX_SIM_SAME(kMpFields, qmx_mp_parameters, mp_reserve_key);
QMX_SIM_SAME(kMpFields, qmx_mp_parameters, mp_alter_path);
QMX_SIM_SAME(kMpFields, qmx_mp_parameters, mp_offline_path);
QMX_SIM_SAME(kMpFields, qmx_mp_parameters, mp_interval);
QMX_SIM_SAME(kMpFields, qmx_mp_parameters, mp_max_lu_path);
QMX_SIM_SAME(kMpFields, qmx_mp_parameters, mp_rr_rndcnt);
QMX_SIM_SAME(kIsoFields, qmx_isol_info, ld_err_count_l);
QMX_SIM_SAME(kIsoFields, qmx_isol_info, to_err_count);
QMX_SIM_SAME(kIsoFields, qmx_isol_info, rt_err_count);
QMX_SIM_SAME(kIsoFields, qmx_isol_info, immdt_cmd);
QMX_SIM_SAME(kIsoFields, qmx_isol_info, err_is_hvm_spt);
QMX_SIM_SAME(kIsoFields, qmx_isol_info, scsi_to_retry);
#undef QMX_SIM_SAME

// Writes one field from a JSON value (number, numeric text or text).
inline void putField(uint8_t *rec, const Field &f, const json &v) {
    if (f.text) {
        std::memset(rec + f.offset, 0, f.width);
        if (v.is_string()) {
            const std::string &s = v.get_ref<const std::string &>();
            std::memcpy(rec + f.offset, s.data(), s.size() < f.width ? s.size() : f.width);
        }
        return;
    }
    uint64_t x = f.isSigned ? uint64_t(toI64(v)) : toU64(v);
    switch (f.width) {
    case 1: rec[f.offset] = uint8_t(x); break;
    case 2: putU16(rec, f.offset, uint16_t(x)); break;
    case 4: putU32(rec, f.offset, uint32_t(x)); break;
    case 8: putU64(rec, f.offset, x); break;
    default: break;
    }
}

inline uint64_t getField(const uint8_t *rec, const Field &f) {
    switch (f.width) {
    case 1: return f.isSigned ? uint64_t(int64_t(int8_t(rec[f.offset]))) : rec[f.offset];
    case 2: return f.isSigned ? uint64_t(int64_t(int16_t(getU16(rec, f.offset)))) : getU16(rec, f.offset);
    case 4: return f.isSigned ? uint64_t(int64_t(int32_t(getU32(rec, f.offset)))) : getU32(rec, f.offset);
    case 8: return getU64(rec, f.offset);
    default: return 0;
    }
}

template <std::size_t N>
void applyOverrides(uint8_t *rec, const Field (&fields)[N], const json &obj) {
    if (!obj.is_object()) return;
    for (const Field &f : fields) {
        auto it = obj.find(f.name);
        if (it != obj.end() && !it->is_null()) putField(rec, f, *it);
    }
}

// The field of the port information record named `name`, found while
// compiling.
consteval const Field *prField(std::string_view name) {
    for (const Field &f : kPrinfoFields)
        if (name == f.name) return &f;
    throw "no such field";  // not a constant expression: the build fails
}

inline void setPrinfo(uint8_t *rec, const Field *f, uint64_t v) {
    switch (f->width) {
    case 1: rec[f->offset] = uint8_t(v); break;
    case 2: putU16(rec, f->offset, uint16_t(v)); break;
    case 4: putU32(rec, f->offset, uint32_t(v)); break;
    case 8: putU64(rec, f->offset, v); break;
    default: break;
    }
}
inline void setPrinfoText(uint8_t *rec, const Field *f, const std::string &v) {
    std::memset(rec + f->offset, 0, f->width);
    std::memcpy(rec + f->offset, v.data(), v.size() < f->width ? v.size() : f->width);
}

// The port information record of a port: defaults from the port's fields,
// then the port's "prinfo" overrides by field name.
inline void buildPrinfo(const json &port, uint8_t *rec) {
    std::memset(rec, 0, 1024);
    // Values that do not depend on the port.
    static constexpr std::pair<const Field *, uint64_t> fixed[] = {
        {prField("version"), 1}, {prField("dev_major"), 240}, {prField("msi_flag"), 1}, {prField("port_status"), 1},
        {prField("connection_type"), 2}, {prField("max_data_rate"), 16}, {prField("login_delay"), 3}, {prField("automap"), 1},
        {prField("xob_max"), 256}, {prField("xrb_max"), 256}, {prField("slog_max"), 64}, {prField("dma_max"), 4096},
        {prField("queue_depth"), 32}, {prField("linkup_tmo"), 30}, {prField("scsi_reset_delay"), 10}, {prField("target_reset_tmo"), 30},
        {prField("abort_tmo"), 20}, {prField("max_target"), 256}, {prField("trc_max"), 1024}, {prField("max_mck_cnt"), 3},
        {prField("linkup2_tmo"), 60}, {prField("pkt_num"), 2048}, {prField("can_queue"), 1024}, {prField("sg_tblsize"), 128},
        {prField("cmnd_num"), 512}, {prField("scsi_allowed"), 3}, {prField("cmd_per_lun"), 32}, {prField("max_sectors"), 1024},
        {prField("target_reset_mode"), 1},
    };
    for (const auto &kv : fixed) setPrinfo(rec, kv.first, kv.second);
    int64_t devno = fieldI64(port, "devno", 0);
    setPrinfo(rec, prField("dev_minor"), uint64_t(devno));
    setPrinfo(rec, prField("instance"), uint64_t(fieldI64(port, "instance", devno)));
    setPrinfo(rec, prField("host_no"), uint64_t(fieldI64(port, "host", devno + 2)));
    setPrinfo(rec, prField("unique_id"), uint64_t(devno));
    setPrinfo(rec, prField("vender_id"), fieldU64(port, "vendor", 0x1E5A));
    setPrinfo(rec, prField("device_id"), fieldU64(port, "device", 0x0101));
    setPrinfo(rec, prField("ww_name"), fieldU64(port, "wwpn", 0));
    setPrinfo(rec, prField("node_name"), fieldU64(port, "wwnn", 0));
    setPrinfo(rec, prField("scsi_id"), fieldU64(port, "scsi_id", 0x010000));
    setPrinfo(rec, prField("firmware_ver"), fieldU64(port, "firmware_ver", 0x01020304));
    setPrinfo(rec, prField("pkgtype"), fieldU64(port, "pkgtype", 1));
    setPrinfo(rec, prField("pkgcode"), fieldU64(port, "pkgcode", 2));
    setPrinfo(rec, prField("ec_level"), fieldU64(port, "ec_level", 3));
    setPrinfo(rec, prField("bus"), fieldU64(port, "bus", 3));
    setPrinfo(rec, prField("dev"), fieldU64(port, "dev", 0));
    setPrinfo(rec, prField("func"), fieldU64(port, "func", 0));
    setPrinfo(rec, prField("port_no"), fieldU64(port, "port_no", fieldU64(port, "func", 0)));
    auto text = [&](const char *key, const std::string &dflt) {
        auto it = port.find(key);
        return it != port.end() && it->is_string() ? it->get<std::string>() : dflt;
    };
    setPrinfoText(rec, prField("adap_id"), text("adap_id", "KQX-" + std::to_string(fieldI64(port, "adapter", 0))));
    setPrinfoText(rec, prField("model_name"), text("model", "QX2402"));
    setPrinfoText(rec, prField("driver_ver"), text("driver_version", "2.1.0"));
    setPrinfoText(rec, prField("parts_number"), text("parts_number", "KQX2402-E"));
    setPrinfoText(rec, prField("opt_vendor_name"), "KESTREL");
    setPrinfoText(rec, prField("opt_parts_number"), "SFP-8G-SW-0001");
    setPrinfoText(rec, prField("opt_serial_number"), "KSN" + std::to_string(devno));
    auto ov = port.find("prinfo");
    if (ov != port.end()) applyOverrides(rec, kPrinfoFields, *ov);
}

inline json mpDefaults() {
    json d = json::object();
    d["automap"] = 1;
    d["qmxmp"] = 1;
    d["mp_failover"] = 1;
    d["mp_failback"] = 0;
    d["mp_path_health"] = 1;
    d["mp_path_health_by_dsp"] = 1;
    d["mp_roundrobin"] = 1;
    d["mp_interval"] = 30;
    d["mp_maxgroup"] = 256;
    d["mp_max_tgt_path"] = 8;
    d["mp_max_lu_path"] = 8;
    d["mp_rr_seqcnt"] = 100;
    d["mp_rr_rndcnt"] = 1;
    return d;
}

inline void buildMpParams(const json &mp, uint8_t *rec) {
    std::memset(rec, 0, 48);
    applyOverrides(rec, kMpFields, mpDefaults());
    applyOverrides(rec, kMpFields, mp);
}

// A write of the multipath parameters: every field of the record is kept
// except the driver's own capabilities and module option, which a write
// cannot change (writers send them as zero).
inline void storeMpParams(json &mp, const uint8_t *rec) {
    if (!mp.is_object()) mp = json::object();
    static constexpr std::string_view kReadOnly[] = {"automap", "mp_maxgroup", "mp_max_tgt_path",
                                                     "mp_max_lu_path"};
    for (const Field &f : kMpFields) {
        if (std::find(std::begin(kReadOnly), std::end(kReadOnly), f.name) != std::end(kReadOnly)) continue;
        mp[f.name] = getField(rec, f);
    }
}

inline void buildIsolation(const json &iso, uint8_t *rec) {
    std::memset(rec, 0, kIsoSize);
    json d = json::object();
    d["ld_err_intvl"] = 60;
    d["ld_err_limit_l"] = 10;
    d["ld_err_limit_s"] = 3;
    d["if_err_intvl"] = 60;
    d["if_err_limit"] = 5;
    d["to_err_intvl"] = 60;
    d["to_err_limit"] = 5;
    d["rt_err_enable"] = 1;
    d["err_is_func"] = 1;
    d["err_is_fw_spt"] = 1;
    d["err_is_hvm_spt"] = 1;
    applyOverrides(rec, kIsoFields, d);
    applyOverrides(rec, kIsoFields, iso);
}

}  // namespace qmxsim::rec
