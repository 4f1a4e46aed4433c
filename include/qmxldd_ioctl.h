/*
 * qmxldd_ioctl.h - request numbers and records of the qmxldd driver.
 *
 * Every request is an _IOWR request of type 'F'.  Records whose byte layout is
 * fixed by the driver are declared with that exact layout and checked at
 * compile time.  Valid C99 and C++.
 */
#ifndef QMXLDD_IOCTL_H
#define QMXLDD_IOCTL_H

#include <stdint.h>
#include <linux/ioctl.h>

#ifdef __cplusplus
#define QMX_STATIC_ASSERT(cond, tag) static_assert(cond, #tag)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define QMX_STATIC_ASSERT(cond, tag) _Static_assert(cond, #tag)
#else
/* C99: a negative array size breaks the build. */
#define QMX_STATIC_ASSERT(cond, tag) typedef char qmx_static_assert_##tag[(cond) ? 1 : -1]
#endif

/* offsetof without <stddef.h> ordering surprises in C99 pedantic mode */
#include <stddef.h>
#define QMX_CHECK_OFFSET(type, field, off) \
    QMX_STATIC_ASSERT(offsetof(type, field) == (off), type##_##field##_offset)
#define QMX_CHECK_SIZE(type, size) QMX_STATIC_ASSERT(sizeof(type) == (size), type##_size)

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------- */
/* Port information record (IOCTL_QMX_SC_PRINFO), 1024 bytes.                */
/* ------------------------------------------------------------------------- */
#pragma pack(push, 1)
typedef struct qmx_ioctl_proc_info {
    uint8_t  version;
    uint8_t  flags;
    uint8_t  rsv0[6];
    int32_t  dev_major;
    int32_t  dev_minor;
    uint8_t  instance;
    uint8_t  rsv1[1];
    uint16_t host_no;
    uint32_t unique_id;
    uint8_t  rsv2[4];
    uint16_t vender_id;
    uint16_t device_id;
    uint64_t ww_name;
    uint64_t node_name;
    uint64_t scsi_id;
    uint8_t  rsv3[8];
    uint8_t  adap_id[16];
    uint8_t  model_name[16];
    uint8_t  driver_ver[16];
    uint32_t firmware_ver;
    uint8_t  rsv6[12];
    uint8_t  parts_number[16];
    uint8_t  pkgtype;
    uint8_t  pkgcode;
    uint8_t  ec_level;
    uint8_t  bus_dev_func[3];
    uint8_t  port_no;
    uint8_t  mlpf_mode;
    uint8_t  port_status;
    uint8_t  highconf_opt;
    uint8_t  abort_t_restrain;
    uint8_t  msi_flag;
    uint8_t  rsv7[4];
    uint8_t  opt_vendor_name[32];
    uint8_t  opt_parts_number[32];
    uint8_t  opt_serial_number[32];
    uint8_t  rsv8[336];
    uint8_t  connection_type;
    uint8_t  rsv4[3];
    uint32_t max_data_rate;
    uint8_t  login_delay;
    uint8_t  spinup_delay;
    uint8_t  automap;
    uint8_t  pref_alpa;
    uint8_t  rsv9[12];
    uint16_t xob_max;
    uint16_t xrb_max;
    uint16_t slog_max;
    uint8_t  rsv10[10];
    uint32_t dma_max;
    uint32_t queue_depth;
    uint32_t linkup_tmo;
    uint32_t scsi_reset_delay;
    uint32_t target_reset_tmo;
    uint32_t abort_tmo;
    uint32_t max_target;
    uint32_t trc_max;
    uint8_t  rsv11[16];
    int32_t  max_mck_cnt;
    int32_t  wmsg;
    int32_t  linkup2_tmo;
    int32_t  pkt_num;
    int32_t  can_queue;
    int32_t  sg_tblsize;
    int32_t  cmnd_num;
    int32_t  minus_tout;
    int32_t  scsi_allowed;
    int32_t  cmd_per_lun;
    int32_t  max_sectors;
    int32_t  scsi_timeout_fail;
    uint32_t tmt_delay;
    uint32_t lun_reset_delay;
    uint8_t  target_reset_mode;
    int8_t   limit_log;
    int8_t   filter_target;
    int8_t   hg_stats_disable;
    uint8_t  rsv5[284];
} qmx_ioctl_proc_info;
#pragma pack(pop)

QMX_CHECK_SIZE(qmx_ioctl_proc_info, 1024);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, flags, 1);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, dev_major, 8);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, dev_minor, 12);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, instance, 16);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, host_no, 18);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, unique_id, 20);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, vender_id, 28);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, device_id, 30);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, ww_name, 32);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, node_name, 40);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, scsi_id, 48);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, adap_id, 64);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, model_name, 80);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, driver_ver, 96);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, firmware_ver, 112);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, parts_number, 128);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, pkgtype, 144);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, pkgcode, 145);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, ec_level, 146);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, bus_dev_func, 147);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, port_no, 150);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, mlpf_mode, 151);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, port_status, 152);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, highconf_opt, 153);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, abort_t_restrain, 154);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, msi_flag, 155);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, opt_vendor_name, 160);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, opt_parts_number, 192);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, opt_serial_number, 224);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, rsv8, 256);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, connection_type, 592);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, max_data_rate, 596);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, login_delay, 600);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, spinup_delay, 601);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, automap, 602);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, pref_alpa, 603);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, xob_max, 616);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, xrb_max, 618);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, slog_max, 620);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, dma_max, 632);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, queue_depth, 636);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, linkup_tmo, 640);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, scsi_reset_delay, 644);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, target_reset_tmo, 648);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, abort_tmo, 652);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, max_target, 656);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, trc_max, 660);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, max_mck_cnt, 680);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, wmsg, 684);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, linkup2_tmo, 688);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, pkt_num, 692);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, can_queue, 696);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, sg_tblsize, 700);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, cmnd_num, 704);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, minus_tout, 708);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, scsi_allowed, 712);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, cmd_per_lun, 716);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, max_sectors, 720);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, scsi_timeout_fail, 724);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, tmt_delay, 728);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, lun_reset_delay, 732);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, target_reset_mode, 736);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, limit_log, 737);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, filter_target, 738);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, hg_stats_disable, 739);
QMX_CHECK_OFFSET(qmx_ioctl_proc_info, rsv5, 740);

/* ------------------------------------------------------------------------- */
/* Diagnostic request (IOCTL_QMX_DIAG0), 144 bytes.                          */
/* ------------------------------------------------------------------------- */
#define QMX_DG_RDPCI     0x20 /* read PCI configuration space */
#define QMX_DG_RDHG      '6'  /* read the EFI option area */
#define QMX_DG_WRHG      '7'  /* write the EFI option area */
#define QMX_DG_TGTSCAN   12   /* target scan */
#define QMX_DG_REFLECT   13   /* reflect changed parameters */

#pragma pack(push, 1)
struct diag_ioctl {
    uint8_t  sub_cmd;
    uint8_t  resv1;
    uint8_t  resv2;
    uint8_t  resv3;
    union {
        uint8_t  raw[128];
        uint32_t offset;       /* option area / PCI data offset */
    } uni;
    uint32_t length;
    uint64_t addr;
};
#pragma pack(pop)
typedef struct diag_ioctl diag_ioctl;
QMX_CHECK_SIZE(diag_ioctl, 144);
QMX_CHECK_OFFSET(diag_ioctl, uni, 4);
QMX_CHECK_OFFSET(diag_ioctl, length, 132);
QMX_CHECK_OFFSET(diag_ioctl, addr, 136);

/* ------------------------------------------------------------------------- */
/* Port attribute / target list (request 0x08 with a 2296-byte list).        */
/* ------------------------------------------------------------------------- */
#define QMX_PORT_ATTR_LIST_LEN 2296
#define QMX_PORT_ATTR_MAX_TARGETS 256

#pragma pack(push, 1)
/* The 128-byte request of 0x08: sub-code in its first word, then the length
   and address of the caller's list. */
typedef struct qmx_ioctl_diag_req {
    uint32_t sub_code;
    uint8_t  rsv0[112];
    uint32_t length;      /* byte 116 */
    uint64_t addr;        /* byte 120 */
} qmx_ioctl_diag_req;

typedef struct qmx_ioctl_port_attr {
    uint8_t  flags;       /* set to 1 by the caller */
    uint8_t  rsv0[243];
    uint32_t tgt_num;     /* byte 244: number of targets */
    uint64_t tgt_wwpn[QMX_PORT_ATTR_MAX_TARGETS]; /* byte 248, 8 bytes each */
} qmx_ioctl_port_attr;

/* WWN information (request 0x14), 200 bytes. */
typedef struct qmx_ioctl_wwn {
    uint8_t  rsv0;
    uint8_t  sub_code;    /* 1 */
    uint16_t resp_code;   /* 0 done, 1 busy */
    uint8_t  data[196];
} qmx_ioctl_wwn;
#pragma pack(pop)

QMX_CHECK_SIZE(qmx_ioctl_diag_req, 128);
QMX_CHECK_OFFSET(qmx_ioctl_diag_req, length, 116);
QMX_CHECK_OFFSET(qmx_ioctl_diag_req, addr, 120);
QMX_CHECK_SIZE(qmx_ioctl_port_attr, QMX_PORT_ATTR_LIST_LEN);
QMX_CHECK_OFFSET(qmx_ioctl_port_attr, tgt_num, 244);
QMX_CHECK_OFFSET(qmx_ioctl_port_attr, tgt_wwpn, 248);
QMX_CHECK_SIZE(qmx_ioctl_wwn, 200);
QMX_CHECK_OFFSET(qmx_ioctl_wwn, sub_code, 1);
QMX_CHECK_OFFSET(qmx_ioctl_wwn, resp_code, 2);

/* ------------------------------------------------------------------------- */
/* Diagnostic sub-commands (sub_cmd of diag_ioctl) and diagnostic constants.  */
/* ------------------------------------------------------------------------- */
#define QMX_DGRD_INITTBL     0x10 /* read the 1920-byte initialisation table */
#define QMX_DG_WRPCI         0x21 /* write PCI configuration space (LED control) */
#define QMX_DG_RDFIXPCI      0x22 /* read the adapter's fixed PCI data (PCI identifier word) */
#define QMX_DGRD_INITTBL_LEN 1920
#define QMX_DIAG_SUB_TGTLIST 2    /* sub_code of qmx_ioctl_diag_req: target list */
#define QMX_WWN_INFO_SUB     1    /* sub_code of qmx_ioctl_wwn */

/* ------------------------------------------------------------------------- */
/* EFI driver option area, read and written in 4-byte words through          */
/* QMX_DG_RDHG / QMX_DG_WRHG.                                                 */
/* ------------------------------------------------------------------------- */
#define QMX_EFI_OPT_0_WORD       512u /* EFI_OPT_0_T */
#define QMX_EFI_OPT_1_WORD       516u /* EFI_OPT_1_T */
#define QMX_EFI_CONNECT_TYPE_OFS 515u
#define QMX_EFI_DATA_RATE_OFS    516u
#define QMX_EFI_LOGIN_DELAY_OFS  518u
#define QMX_EFI_STORE_OFS        12u          /* "store" command word */
#define QMX_EFI_STORE_VALUE      0x10010000u  /* sent in network byte order */

#pragma pack(push, 1)
typedef struct EFI_OPT_0_T {
    uint8_t rsv;          /* byte 512 */
    uint8_t flag;         /* byte 513 */
    uint8_t ent_num;      /* byte 514 */
    uint8_t connect_type; /* byte 515 */
} EFI_OPT_0_T;

typedef struct EFI_OPT_1_T {
    uint8_t data_rate;    /* byte 516 */
    uint8_t param_drv;    /* byte 517 */
    uint8_t login_delay;  /* byte 518 */
    uint8_t rsv;          /* byte 519 */
} EFI_OPT_1_T;
#pragma pack(pop)

QMX_CHECK_SIZE(EFI_OPT_0_T, 4);
QMX_CHECK_OFFSET(EFI_OPT_0_T, flag, 1);
QMX_CHECK_OFFSET(EFI_OPT_0_T, ent_num, 2);
QMX_CHECK_OFFSET(EFI_OPT_0_T, connect_type, QMX_EFI_CONNECT_TYPE_OFS - QMX_EFI_OPT_0_WORD);
QMX_CHECK_SIZE(EFI_OPT_1_T, 4);
QMX_CHECK_OFFSET(EFI_OPT_1_T, data_rate, QMX_EFI_DATA_RATE_OFS - QMX_EFI_OPT_1_WORD);
QMX_CHECK_OFFSET(EFI_OPT_1_T, param_drv, 1);
QMX_CHECK_OFFSET(EFI_OPT_1_T, login_delay, QMX_EFI_LOGIN_DELAY_OFS - QMX_EFI_OPT_1_WORD);
QMX_CHECK_OFFSET(EFI_OPT_1_T, rsv, 3);

/* ------------------------------------------------------------------------- */
/* Isolation record (IOCTL_QMX_HBA_ISOLATION), 2160 bytes both directions.   */
/* ------------------------------------------------------------------------- */
#define QMX_ISOL_OPR_READ     0
#define QMX_ISOL_OPR_ISOLATE  1
#define QMX_ISOL_OPR_RECOVER  3
#define QMX_ISOL_OPR_FUNC_OFF 4
#define QMX_ISOL_OPR_FUNC_ON  5
#define QMX_ISOL_ERR_DONE     1
#define QMX_ISOL_ERR_REFUSED  2
#define QMX_ISOL_RETRY_CNT    1024

#pragma pack(push, 1)
typedef struct qmx_isol_info {
    uint8_t  version;          /* 0 */
    uint8_t  set_opr;          /* QMX_ISOL_OPR_* */
    uint8_t  isol_type;
    uint8_t  resv1[13];
    int16_t  ld_err_intvl;     /* byte 16: link-down errors */
    int16_t  ld_err_limit_l;
    int16_t  ld_err_count_l;
    int16_t  ld_err_limit_s;
    int16_t  ld_err_count_s;
    int16_t  if_err_intvl;     /* byte 26: interface errors */
    int16_t  if_err_limit;
    int16_t  if_err_count;
    int16_t  to_err_intvl;     /* byte 32: time-out errors */
    int16_t  to_err_limit;
    int16_t  to_err_count;
    int16_t  rt_err_enable;    /* byte 38: time-out reset */
    int16_t  rt_err_count;
    uint8_t  resv2[35];
    uint8_t  immdt_cmd;        /* byte 77: recover immediately */
    uint8_t  force_recv;       /* forced recovery */
    uint8_t  err_is_func;      /* isolation function on */
    uint8_t  err_is_fw_spt;    /* firmware supports isolation */
    uint8_t  err_is_hvm_spt;   /* supported in the shared partition mode */
    int16_t  init_retry;       /* byte 82: retry counts */
    int16_t  login_retry;
    int16_t  els_retry;
    int16_t  to_reset_retry;
    int16_t  scsi_to_retry;
    uint8_t  resv3[19];
    uint8_t  errcode;          /* byte 111: QMX_ISOL_ERR_* */
    int16_t  retry_cnt[QMX_ISOL_RETRY_CNT]; /* byte 112 */
} qmx_isol_info;
#pragma pack(pop)
typedef qmx_isol_info QMX_ISOL_INFO;

QMX_CHECK_SIZE(qmx_isol_info, 2160);
QMX_CHECK_OFFSET(qmx_isol_info, set_opr, 1);
QMX_CHECK_OFFSET(qmx_isol_info, isol_type, 2);
QMX_CHECK_OFFSET(qmx_isol_info, resv1, 3);
QMX_CHECK_OFFSET(qmx_isol_info, ld_err_intvl, 16);
QMX_CHECK_OFFSET(qmx_isol_info, ld_err_limit_l, 18);
QMX_CHECK_OFFSET(qmx_isol_info, ld_err_count_l, 20);
QMX_CHECK_OFFSET(qmx_isol_info, ld_err_limit_s, 22);
QMX_CHECK_OFFSET(qmx_isol_info, ld_err_count_s, 24);
QMX_CHECK_OFFSET(qmx_isol_info, if_err_intvl, 26);
QMX_CHECK_OFFSET(qmx_isol_info, if_err_limit, 28);
QMX_CHECK_OFFSET(qmx_isol_info, if_err_count, 30);
QMX_CHECK_OFFSET(qmx_isol_info, to_err_intvl, 32);
QMX_CHECK_OFFSET(qmx_isol_info, to_err_limit, 34);
QMX_CHECK_OFFSET(qmx_isol_info, to_err_count, 36);
QMX_CHECK_OFFSET(qmx_isol_info, rt_err_enable, 38);
QMX_CHECK_OFFSET(qmx_isol_info, rt_err_count, 40);
QMX_CHECK_OFFSET(qmx_isol_info, resv2, 42);
QMX_CHECK_OFFSET(qmx_isol_info, immdt_cmd, 77);
QMX_CHECK_OFFSET(qmx_isol_info, force_recv, 78);
QMX_CHECK_OFFSET(qmx_isol_info, err_is_func, 79);
QMX_CHECK_OFFSET(qmx_isol_info, err_is_fw_spt, 80);
QMX_CHECK_OFFSET(qmx_isol_info, err_is_hvm_spt, 81);
QMX_CHECK_OFFSET(qmx_isol_info, init_retry, 82);
QMX_CHECK_OFFSET(qmx_isol_info, login_retry, 84);
QMX_CHECK_OFFSET(qmx_isol_info, els_retry, 86);
QMX_CHECK_OFFSET(qmx_isol_info, to_reset_retry, 88);
QMX_CHECK_OFFSET(qmx_isol_info, scsi_to_retry, 90);
QMX_CHECK_OFFSET(qmx_isol_info, resv3, 92);
QMX_CHECK_OFFSET(qmx_isol_info, errcode, 111);
QMX_CHECK_OFFSET(qmx_isol_info, retry_cnt, 112);

/* ------------------------------------------------------------------------- */
/* Multipath parameters (IOCTL_QMX_MP_RDPARM / IOCTL_QMX_MP_WRPARM), 48 bytes.*/
/* ------------------------------------------------------------------------- */
#pragma pack(push, 1)
typedef struct qmx_mp_parameters {
    uint8_t  automap;
    uint8_t  qmxmp;                 /* 1: multipath layer active */
    uint8_t  mp_failover;
    uint8_t  mp_failback;
    uint8_t  mp_path_health;
    uint8_t  mp_path_health_by_dsp;
    uint8_t  mp_qmxrsv;
    uint8_t  mp_roundrobin;
    uint8_t  mp_reserve_key[8];
    uint8_t  mp_alter_path;
    uint8_t  mp_offline_path;
    uint8_t  rsv[6];
    uint32_t mp_interval;
    uint32_t mp_maxgroup;
    uint32_t mp_max_tgt_path;
    uint32_t mp_max_lu_path;
    uint32_t mp_rr_seqcnt;
    uint32_t mp_rr_rndcnt;
} qmx_mp_parameters;
#pragma pack(pop)

QMX_CHECK_SIZE(qmx_mp_parameters, 48);
QMX_CHECK_OFFSET(qmx_mp_parameters, qmxmp, 1);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_failover, 2);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_failback, 3);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_path_health, 4);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_path_health_by_dsp, 5);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_qmxrsv, 6);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_roundrobin, 7);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_reserve_key, 8);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_alter_path, 16);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_offline_path, 17);
QMX_CHECK_OFFSET(qmx_mp_parameters, rsv, 18);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_interval, 24);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_maxgroup, 28);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_max_tgt_path, 32);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_max_lu_path, 36);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_rr_seqcnt, 40);
QMX_CHECK_OFFSET(qmx_mp_parameters, mp_rr_rndcnt, 44);

/* ------------------------------------------------------------------------- */
/* Target map (IOCTL_QMX_MP_TGTMAP) and LU map (IOCTL_QMX_MP_LUMAP).         */
/* The request number encodes the header and one entry; the caller passes a */
/* buffer for entry_count entries (QMX_MP_TARGET_SIZE / QMX_MP_LU_SIZE) and  */
/* must bound every count the driver returns by the capacity it passed.      */
/* ------------------------------------------------------------------------- */
#define QMX_MP_TGTMAP_MAX   2048 /* target map capacity of the binding collector */
#define QMX_MP_TGTMAP_PORT  256  /* target map capacity of the path listings */
#define QMX_MP_LUMAP_MAX    2048
#define QMX_MP_LUID_LEN     128
#define QMX_MP_TARGET_SIZE(n) (8u + 24u * (unsigned)(n))
#define QMX_MP_LU_SIZE(n)     (32u + 160u * (unsigned)(n))

#pragma pack(push, 1)
typedef struct mp_target_header {
    uint32_t entry_count;   /* capacity in entries, set by the caller */
    uint32_t target_count;  /* entries returned */
} mp_target_header;

typedef struct mp_target_entry {
    uint64_t nodename;
    uint64_t portname;
    uint8_t  flags;         /* bits 0 and 1 both set: target usable */
    uint8_t  attribute;
    uint8_t  groupid;
    uint8_t  targetid;
    uint8_t  pathid;
    uint8_t  instance;
    uint8_t  rsv[2];
} mp_target_entry;

typedef struct qmx_mp_target {
    mp_target_header header;
    mp_target_entry  entry[1]; /* entry_count entries in the caller's buffer */
} qmx_mp_target;

typedef struct mp_lu_header {
    uint64_t nodename;      /* target to map, set by the caller */
    uint64_t portname;
    uint8_t  flags;
    uint8_t  groupid;       /* byte 17 */
    uint8_t  rsv0[6];
    uint32_t lu_count;      /* byte 24: entries returned */
    uint8_t  rsv1[4];
} mp_lu_header;

typedef struct mp_lu_entry {
    uint8_t  flags;
    uint8_t  status;
    uint8_t  rsv0;
    uint8_t  priority;
    uint8_t  owner_ctl;
    uint8_t  pathid;
    uint8_t  rsv1[2];
    uint32_t ioerror;
    uint32_t iocount;
    uint32_t luid_size;     /* valid bytes of luid (driver-supplied: bound by 128) */
    uint8_t  rsv2[3];
    uint8_t  id_type;
    uint32_t lun;
    uint8_t  rsv3[4];
    uint8_t  luid[QMX_MP_LUID_LEN]; /* byte 32 */
} mp_lu_entry;

typedef struct qmx_mp_lu {
    mp_lu_header header;
    mp_lu_entry  entry[1];  /* QMX_MP_LUMAP_MAX entries in the caller's buffer */
} qmx_mp_lu;
#pragma pack(pop)

QMX_CHECK_SIZE(mp_target_header, 8);
QMX_CHECK_OFFSET(mp_target_header, target_count, 4);
QMX_CHECK_SIZE(mp_target_entry, 24);
QMX_CHECK_OFFSET(mp_target_entry, portname, 8);
QMX_CHECK_OFFSET(mp_target_entry, flags, 16);
QMX_CHECK_OFFSET(mp_target_entry, attribute, 17);
QMX_CHECK_OFFSET(mp_target_entry, groupid, 18);
QMX_CHECK_OFFSET(mp_target_entry, targetid, 19);
QMX_CHECK_OFFSET(mp_target_entry, pathid, 20);
QMX_CHECK_OFFSET(mp_target_entry, instance, 21);
QMX_CHECK_OFFSET(mp_target_entry, rsv, 22);
QMX_CHECK_SIZE(qmx_mp_target, QMX_MP_TARGET_SIZE(1));
QMX_CHECK_OFFSET(qmx_mp_target, entry, 8);
QMX_STATIC_ASSERT(QMX_MP_TARGET_SIZE(QMX_MP_TGTMAP_MAX) == (2048 * 3 + 1) * 8, tgtmap_buffer);
QMX_STATIC_ASSERT(QMX_MP_TARGET_SIZE(QMX_MP_TGTMAP_PORT) == 6152, tgtmap_port_buffer);
QMX_CHECK_SIZE(mp_lu_header, 32);
QMX_CHECK_OFFSET(mp_lu_header, portname, 8);
QMX_CHECK_OFFSET(mp_lu_header, flags, 16);
QMX_CHECK_OFFSET(mp_lu_header, groupid, 17);
QMX_CHECK_OFFSET(mp_lu_header, rsv0, 18);
QMX_CHECK_OFFSET(mp_lu_header, lu_count, 24);
QMX_CHECK_OFFSET(mp_lu_header, rsv1, 28);
QMX_CHECK_SIZE(mp_lu_entry, 160);
QMX_CHECK_OFFSET(mp_lu_entry, status, 1);
QMX_CHECK_OFFSET(mp_lu_entry, rsv0, 2);
QMX_CHECK_OFFSET(mp_lu_entry, priority, 3);
QMX_CHECK_OFFSET(mp_lu_entry, owner_ctl, 4);
QMX_CHECK_OFFSET(mp_lu_entry, pathid, 5);
QMX_CHECK_OFFSET(mp_lu_entry, rsv1, 6);
QMX_CHECK_OFFSET(mp_lu_entry, ioerror, 8);
QMX_CHECK_OFFSET(mp_lu_entry, iocount, 12);
QMX_CHECK_OFFSET(mp_lu_entry, luid_size, 16);
QMX_CHECK_OFFSET(mp_lu_entry, rsv2, 20);
QMX_CHECK_OFFSET(mp_lu_entry, id_type, 23);
QMX_CHECK_OFFSET(mp_lu_entry, lun, 24);
QMX_CHECK_OFFSET(mp_lu_entry, rsv3, 28);
QMX_CHECK_OFFSET(mp_lu_entry, luid, 32);
QMX_CHECK_SIZE(qmx_mp_lu, QMX_MP_LU_SIZE(1));
QMX_CHECK_OFFSET(qmx_mp_lu, entry, 32);
QMX_STATIC_ASSERT(QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX) == (2048 * 5 + 1) * 32, lumap_buffer);
QMX_STATIC_ASSERT(QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX) == 0x50020, lumap_buffer_hex);

/* ------------------------------------------------------------------------- */
/* Path health check (IOCTL_QMX_MP_PTHEALTH), 40 bytes, and path state       */
/* change (IOCTL_QMX_MP_SETPATH), 28 bytes.                                  */
/* ------------------------------------------------------------------------- */
#define QMX_PTHEALTH_ADD 0x01 /* flags bit 0: the "add" form of the check */

#pragma pack(push, 1)
typedef struct qmx_mp_path_health {
    uint8_t  version;
    uint8_t  flags;
    uint8_t  rsv0[6];
    uint64_t Port_WWN;
    uint64_t lun_id;
    uint8_t  path_status;
    uint8_t  rsv1[7];
    uint8_t  scsi_status;
    uint8_t  rsv2[6];
    uint8_t  did_err;
} qmx_mp_path_health;

typedef struct qmx_mp_set_path {
    uint64_t nodename;
    uint64_t portname;
    uint8_t  groupid;
    uint8_t  rsv0;
    uint8_t  newstatus;
    uint8_t  forced;
    uint8_t  flags;
    uint8_t  rsv1[2];
    uint8_t  err_code;      /* returned with EIO */
    uint32_t lun;
} qmx_mp_set_path;
#pragma pack(pop)

QMX_CHECK_SIZE(qmx_mp_path_health, 40);
QMX_CHECK_OFFSET(qmx_mp_path_health, flags, 1);
QMX_CHECK_OFFSET(qmx_mp_path_health, rsv0, 2);
QMX_CHECK_OFFSET(qmx_mp_path_health, Port_WWN, 8);
QMX_CHECK_OFFSET(qmx_mp_path_health, lun_id, 16);
QMX_CHECK_OFFSET(qmx_mp_path_health, path_status, 24);
QMX_CHECK_OFFSET(qmx_mp_path_health, rsv1, 25);
QMX_CHECK_OFFSET(qmx_mp_path_health, scsi_status, 32);
QMX_CHECK_OFFSET(qmx_mp_path_health, rsv2, 33);
QMX_CHECK_OFFSET(qmx_mp_path_health, did_err, 39);
QMX_CHECK_SIZE(qmx_mp_set_path, 28);
QMX_CHECK_OFFSET(qmx_mp_set_path, portname, 8);
QMX_CHECK_OFFSET(qmx_mp_set_path, groupid, 16);
QMX_CHECK_OFFSET(qmx_mp_set_path, rsv0, 17);
QMX_CHECK_OFFSET(qmx_mp_set_path, newstatus, 18);
QMX_CHECK_OFFSET(qmx_mp_set_path, forced, 19);
QMX_CHECK_OFFSET(qmx_mp_set_path, flags, 20);
QMX_CHECK_OFFSET(qmx_mp_set_path, rsv1, 21);
QMX_CHECK_OFFSET(qmx_mp_set_path, err_code, 23);
QMX_CHECK_OFFSET(qmx_mp_set_path, lun, 24);

/* ------------------------------------------------------------------------- */
/* SCSI pass-through (IOCTL_QMX_SCSI_PASSTHRU, request 0x01), 76 bytes: the  */
/* REPORT LUNS sent by the path health check.  Multi-byte fields are in host */
/* order, like every other driver record; the CDB is in SCSI (big-endian)    */
/* order.                                                                     */
/* ------------------------------------------------------------------------- */
#define QMX_PASSTHRU_FLAGS      0x81  /* byte 1 of a REPORT LUNS request */
#define QMX_PASSTHRU_DATA_LEN   16392 /* REPORT LUNS data buffer (8-byte header + 2048 LUNs) */
#define QMX_PASSTHRU_SENSE_LEN  64
#define QMX_PASSTHRU_CDB_LEN    12
#define QMX_PASSTHRU_OPT        8     /* byte 74 of a REPORT LUNS request */
#define QMX_SCSI_REPORT_LUNS    0xA0

#pragma pack(push, 1)
typedef struct qmx_ioctl_scsi_passthru {
    uint8_t  version;
    uint8_t  flags;          /* QMX_PASSTHRU_FLAGS */
    uint8_t  rsv0[4];
    uint16_t data_len;       /* byte 6 */
    uint64_t data_addr;      /* byte 8: address of the data buffer */
    uint64_t port_wwn;       /* byte 16: target port WWN */
    uint64_t lun;            /* byte 24 */
    uint8_t  rsv1;
    uint8_t  cdb_len;        /* byte 33 */
    uint8_t  rsv2[6];
    uint8_t  cdb[16];        /* byte 40 */
    uint8_t  rsv3[8];
    uint64_t sense_addr;     /* byte 64: address of the sense buffer */
    uint8_t  rsv4[2];
    uint8_t  opt;            /* byte 74: QMX_PASSTHRU_OPT */
    uint8_t  rsv5;
} qmx_ioctl_scsi_passthru;
#pragma pack(pop)

QMX_CHECK_SIZE(qmx_ioctl_scsi_passthru, 76);
QMX_CHECK_OFFSET(qmx_ioctl_scsi_passthru, flags, 1);
QMX_CHECK_OFFSET(qmx_ioctl_scsi_passthru, data_len, 6);
QMX_CHECK_OFFSET(qmx_ioctl_scsi_passthru, data_addr, 8);
QMX_CHECK_OFFSET(qmx_ioctl_scsi_passthru, port_wwn, 16);
QMX_CHECK_OFFSET(qmx_ioctl_scsi_passthru, lun, 24);
QMX_CHECK_OFFSET(qmx_ioctl_scsi_passthru, cdb_len, 33);
QMX_CHECK_OFFSET(qmx_ioctl_scsi_passthru, cdb, 40);
QMX_CHECK_OFFSET(qmx_ioctl_scsi_passthru, sense_addr, 64);
QMX_CHECK_OFFSET(qmx_ioctl_scsi_passthru, opt, 74);

/* ------------------------------------------------------------------------- */
/* Logical path list (IOCTL_QMX_MP_LGPATH1) and logical target map           */
/* (IOCTL_QMX_MP_LGTGTMAP).  As with the maps above, the request number      */
/* encodes the header and one entry.                                         */
/* ------------------------------------------------------------------------- */
#define QMX_MP_LGPATH1_MAX   1024
#define QMX_MP_LGTARGET_MAX  256
#define QMX_MP_LGPATH1_SIZE(n)  (8u + 16u * (unsigned)(n))
#define QMX_MP_LGTARGET_SIZE(n) (8u + 8u * (unsigned)(n))
#define QMX_LGPATH_TYPE_NODE   1 /* data: node WWN of the logical target */
#define QMX_LGPATH_TYPE_PORT   2 /* data: port WWN of the logical target */
#define QMX_LGPATH_TYPE_TARGET 3 /* announces a logical target; data low byte: attribute */

#pragma pack(push, 1)
typedef struct mp_lgpath_info1_header {
    uint32_t entry_count;        /* capacity, set by the caller */
    uint32_t lgpath_info1_count; /* entries returned */
} mp_lgpath_info1_header;

typedef struct mp_lgpath_info1_entry {
    uint8_t  group;
    uint8_t  type;               /* QMX_LGPATH_TYPE_* */
    uint8_t  instance;
    uint8_t  tid;
    uint8_t  rsv[4];
    uint64_t data;
} mp_lgpath_info1_entry;

typedef struct qmx_mp_lgpath_info1 {
    mp_lgpath_info1_header header;
    mp_lgpath_info1_entry  entry[1];
} qmx_mp_lgpath_info1;

typedef struct mp_lgtarget_header {
    uint32_t entry_count;        /* capacity, set by the caller */
    uint32_t lgtarget_count;     /* set to the capacity too; entries returned */
} mp_lgtarget_header;

typedef struct mp_lgtarget_entry {
    uint8_t  flags;
    uint8_t  groupid;
    uint8_t  targetid;
    uint8_t  instance;
    uint8_t  path_cnt;
    uint8_t  rsv[3];
} mp_lgtarget_entry;

typedef struct qmx_mp_lgtarget {
    mp_lgtarget_header header;
    mp_lgtarget_entry  entry[1];
} qmx_mp_lgtarget;
#pragma pack(pop)

QMX_CHECK_SIZE(mp_lgpath_info1_header, 8);
QMX_CHECK_OFFSET(mp_lgpath_info1_header, lgpath_info1_count, 4);
QMX_CHECK_SIZE(mp_lgpath_info1_entry, 16);
QMX_CHECK_OFFSET(mp_lgpath_info1_entry, type, 1);
QMX_CHECK_OFFSET(mp_lgpath_info1_entry, instance, 2);
QMX_CHECK_OFFSET(mp_lgpath_info1_entry, tid, 3);
QMX_CHECK_OFFSET(mp_lgpath_info1_entry, rsv, 4);
QMX_CHECK_OFFSET(mp_lgpath_info1_entry, data, 8);
QMX_CHECK_SIZE(qmx_mp_lgpath_info1, QMX_MP_LGPATH1_SIZE(1));
QMX_CHECK_OFFSET(qmx_mp_lgpath_info1, entry, 8);
QMX_STATIC_ASSERT(QMX_MP_LGPATH1_SIZE(QMX_MP_LGPATH1_MAX) == 16392, lgpath1_buffer);
QMX_CHECK_SIZE(mp_lgtarget_header, 8);
QMX_CHECK_OFFSET(mp_lgtarget_header, lgtarget_count, 4);
QMX_CHECK_SIZE(mp_lgtarget_entry, 8);
QMX_CHECK_OFFSET(mp_lgtarget_entry, groupid, 1);
QMX_CHECK_OFFSET(mp_lgtarget_entry, targetid, 2);
QMX_CHECK_OFFSET(mp_lgtarget_entry, instance, 3);
QMX_CHECK_OFFSET(mp_lgtarget_entry, path_cnt, 4);
QMX_CHECK_OFFSET(mp_lgtarget_entry, rsv, 5);
QMX_CHECK_SIZE(qmx_mp_lgtarget, QMX_MP_LGTARGET_SIZE(1));
QMX_CHECK_OFFSET(qmx_mp_lgtarget, entry, 8);
QMX_STATIC_ASSERT(QMX_MP_LGTARGET_SIZE(QMX_MP_LGTARGET_MAX) == 2056, lgtarget_buffer);

/* ------------------------------------------------------------------------- */
/* LU device parameters (IOCTL_QMX_MP_LG_DEV_PARM), 160 bytes.               */
/* ------------------------------------------------------------------------- */
#define QMX_LG_DEV_ID_LEN 128

#pragma pack(push, 1)
typedef struct qmx_mp_lg_dev_param {
    uint8_t  version;
    uint8_t  flags;
    uint8_t  rsv0[6];
    uint16_t id_len;              /* byte 8 */
    uint8_t  id_type;             /* byte 10 */
    uint8_t  rsv1[5];
    uint8_t  identifier[QMX_LG_DEV_ID_LEN]; /* byte 16 */
    uint8_t  alt_path_num;        /* byte 144 */
    uint8_t  offline_path_num;
    uint8_t  write_retries;
    uint8_t  rsv2[13];
} qmx_mp_lg_dev_param;
#pragma pack(pop)

QMX_CHECK_SIZE(qmx_mp_lg_dev_param, 160);
QMX_CHECK_OFFSET(qmx_mp_lg_dev_param, flags, 1);
QMX_CHECK_OFFSET(qmx_mp_lg_dev_param, rsv0, 2);
QMX_CHECK_OFFSET(qmx_mp_lg_dev_param, id_len, 8);
QMX_CHECK_OFFSET(qmx_mp_lg_dev_param, id_type, 10);
QMX_CHECK_OFFSET(qmx_mp_lg_dev_param, rsv1, 11);
QMX_CHECK_OFFSET(qmx_mp_lg_dev_param, identifier, 16);
QMX_CHECK_OFFSET(qmx_mp_lg_dev_param, alt_path_num, 144);
QMX_CHECK_OFFSET(qmx_mp_lg_dev_param, offline_path_num, 145);
QMX_CHECK_OFFSET(qmx_mp_lg_dev_param, write_retries, 146);
QMX_CHECK_OFFSET(qmx_mp_lg_dev_param, rsv2, 147);

/* ------------------------------------------------------------------------- */
/* Adapter path change (IOCTL_QMX_ADP_PATHCHG), 54 bytes.  The request       */
/* number encodes 8 bytes; the driver's reply (err_code, byte 7) lies within */
/* them, and the library passes the whole zeroed record.                     */
/* ------------------------------------------------------------------------- */
#pragma pack(push, 1)
typedef struct qmx_ioctl_adp_pathchg {
    uint8_t  version;
    uint8_t  flags;
    uint8_t  rsv0[2];
    uint8_t  rsv1[3];
    uint8_t  err_code;      /* byte 7: returned with EIO */
    uint32_t target_id;
    uint32_t lun;
    uint64_t nodename;
    uint64_t portname;
    uint8_t  groupid;
    uint8_t  status;
    uint8_t  rsv2[8];
    uint8_t  rsv3[12];
} qmx_ioctl_adp_pathchg;
#pragma pack(pop)

QMX_CHECK_SIZE(qmx_ioctl_adp_pathchg, 54);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, flags, 1);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, rsv0, 2);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, rsv1, 4);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, err_code, 7);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, target_id, 8);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, lun, 12);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, nodename, 16);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, portname, 24);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, groupid, 32);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, status, 33);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, rsv2, 34);
QMX_CHECK_OFFSET(qmx_ioctl_adp_pathchg, rsv3, 42);

/* @@DRIVER-RECORDS@@ further driver records follow here */

/* ------------------------------------------------------------------------- */
/* Request numbers.                                                          */
/* ------------------------------------------------------------------------- */
#define IOCTL_QMX_DIAG0         0xC0904609u
#define IOCTL_QMX_SC_PRINFO     0xC400460Du
#define IOCTL_QMX_PORT_ATTR     0xC0804608u
#define IOCTL_QMX_WWN_INFO      0xC0C84614u
#define IOCTL_QMX_SCSI_PASSTHRU   0xC04C4601u /* SCSI pass-through (REPORT LUNS of the path health check) */
#define IOCTL_QMX_MP_RDPARM       0xC0304610u
#define IOCTL_QMX_MP_WRPARM       0xC0304611u
#define IOCTL_QMX_MP_TGTMAP       0xC0204612u
#define IOCTL_QMX_MP_LUMAP        0xC0C04613u
#define IOCTL_QMX_MP_PTHEALTH     0xC0284615u
#define IOCTL_QMX_MP_LGTGTMAP     0xC0104616u
#define IOCTL_QMX_MP_LGPATH1      0xC0184617u
#define IOCTL_QMX_MP_SETPATH      0xC01C4618u
/* Adapter path deletion is a pair: IOCTL_QMX_ADP_PATHCHG (0x1F, with a zeroed
   qmx_ioctl_adp_pathchg) first, then, once it succeeded, IOCTL_QMX_ADP_PATHDEL
   (0x1D, 8 zero bytes) to drop the port's path.  Traces name only the first. */
#define IOCTL_QMX_ADP_PATHDEL     0xC008461Du
#define IOCTL_QMX_SC_SCSISCAN     0xC008461Eu /* 8-byte argument */
#define IOCTL_QMX_ADP_PATHCHG     0xC008461Fu
#define IOCTL_QMX_HBA_ISOLATION   0xC8704620u
#define IOCTL_QMX_READ_APPARAM    0xC0804621u /* issued without a buffer */
#define IOCTL_QMX_MP_LG_DEV_PARM  0xC0A04622u

/* Every request the library issues: X(name, ordinal, argument size).  Used to
   name requests in logs and to check request numbers in one place. */
#define QMX_FOR_EACH_REQUEST(X)                  \
    X(IOCTL_QMX_SCSI_PASSTHRU, 0x01, 76)         \
    X(IOCTL_QMX_PORT_ATTR, 0x08, 128)            \
    X(IOCTL_QMX_DIAG0, 0x09, 144)                \
    X(IOCTL_QMX_SC_PRINFO, 0x0D, 1024)           \
    X(IOCTL_QMX_MP_RDPARM, 0x10, 48)             \
    X(IOCTL_QMX_MP_WRPARM, 0x11, 48)             \
    X(IOCTL_QMX_MP_TGTMAP, 0x12, 32)             \
    X(IOCTL_QMX_MP_LUMAP, 0x13, 192)             \
    X(IOCTL_QMX_WWN_INFO, 0x14, 200)             \
    X(IOCTL_QMX_MP_PTHEALTH, 0x15, 40)           \
    X(IOCTL_QMX_MP_LGTGTMAP, 0x16, 16)           \
    X(IOCTL_QMX_MP_LGPATH1, 0x17, 24)            \
    X(IOCTL_QMX_MP_SETPATH, 0x18, 28)            \
    X(IOCTL_QMX_ADP_PATHDEL, 0x1D, 8)            \
    X(IOCTL_QMX_SC_SCSISCAN, 0x1E, 8)            \
    X(IOCTL_QMX_ADP_PATHCHG, 0x1F, 8)            \
    X(IOCTL_QMX_HBA_ISOLATION, 0x20, 2160)       \
    X(IOCTL_QMX_READ_APPARAM, 0x21, 128)         \
    X(IOCTL_QMX_MP_LG_DEV_PARM, 0x22, 160)

#define QMX_CHECK_REQUEST(req, ordinal, size) \
    QMX_STATIC_ASSERT((req) == _IOWR('F', (ordinal), char[size]), req##_number);
/* Every listed request is an _IOWR('F', ordinal, size) request. */
QMX_FOR_EACH_REQUEST(QMX_CHECK_REQUEST)
QMX_STATIC_ASSERT(IOCTL_QMX_PORT_ATTR == _IOWR('F', 0x08, qmx_ioctl_diag_req), port_attr_record);
QMX_STATIC_ASSERT(IOCTL_QMX_WWN_INFO == _IOWR('F', 0x14, qmx_ioctl_wwn), wwn_record);
QMX_STATIC_ASSERT(IOCTL_QMX_SC_PRINFO == _IOWR('F', 0x0D, qmx_ioctl_proc_info), prinfo_record);
QMX_STATIC_ASSERT(IOCTL_QMX_DIAG0 == _IOWR('F', 0x09, diag_ioctl), diag_record);
QMX_STATIC_ASSERT(IOCTL_QMX_SCSI_PASSTHRU == _IOWR('F', 0x01, qmx_ioctl_scsi_passthru), passthru_record);
QMX_STATIC_ASSERT(IOCTL_QMX_MP_RDPARM == _IOWR('F', 0x10, qmx_mp_parameters), rdparm_record);
QMX_STATIC_ASSERT(IOCTL_QMX_MP_WRPARM == _IOWR('F', 0x11, qmx_mp_parameters), wrparm_record);
QMX_STATIC_ASSERT(IOCTL_QMX_MP_TGTMAP == _IOWR('F', 0x12, qmx_mp_target), tgtmap_record);
QMX_STATIC_ASSERT(IOCTL_QMX_MP_LUMAP == _IOWR('F', 0x13, qmx_mp_lu), lumap_record);
QMX_STATIC_ASSERT(IOCTL_QMX_MP_PTHEALTH == _IOWR('F', 0x15, qmx_mp_path_health), pthealth_record);
QMX_STATIC_ASSERT(IOCTL_QMX_MP_LGTGTMAP == _IOWR('F', 0x16, qmx_mp_lgtarget), lgtgtmap_record);
QMX_STATIC_ASSERT(IOCTL_QMX_MP_LGPATH1 == _IOWR('F', 0x17, qmx_mp_lgpath_info1), lgpath1_record);
QMX_STATIC_ASSERT(IOCTL_QMX_MP_SETPATH == _IOWR('F', 0x18, qmx_mp_set_path), setpath_record);
QMX_STATIC_ASSERT(IOCTL_QMX_HBA_ISOLATION == _IOWR('F', 0x20, qmx_isol_info), isolation_record);
QMX_STATIC_ASSERT(IOCTL_QMX_MP_LG_DEV_PARM == _IOWR('F', 0x22, qmx_mp_lg_dev_param), lg_dev_parm_record);
/* The 0x1D/0x1F pair and the disk rescan carry 8 bytes; 0x1F is given the
   54-byte qmx_ioctl_adp_pathchg, of which the driver uses the first 8. */
QMX_STATIC_ASSERT(_IOC_SIZE(IOCTL_QMX_ADP_PATHCHG) <= sizeof(qmx_ioctl_adp_pathchg), pathchg_record);

#ifdef __cplusplus
}
#endif

#endif /* QMXLDD_IOCTL_H */
