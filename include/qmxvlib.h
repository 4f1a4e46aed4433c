/*
 * qmxvlib.h - management library of the qmxldd Fibre Channel HBA driver.
 *
 * Plain C interface (C99 and C++).  Every QMX_* call returns 0 on success and
 * 1 on failure unless its comment says otherwise; the reason of the last
 * failure is read with QMX_LastErrorCode().
 */
#ifndef QMXVLIB_H
#define QMXVLIB_H

#include <stdint.h>
#include <stdio.h>

#include "qmxldd_ioctl.h"

#if defined(QMXVLIB_BUILDING)
#define QMX_API __attribute__((visibility("default")))
#else
#define QMX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------- */
/* Basic types                                                               */
/* ------------------------------------------------------------------------- */
typedef int QMX_STATUS;
typedef uint8_t  QMX_UINT8;
typedef uint16_t QMX_UINT16;
typedef uint32_t QMX_UINT32;
typedef uint64_t QMX_UINT64;
typedef int8_t   QMX_INT8;
typedef int16_t  QMX_INT16;
typedef int32_t  QMX_INT32;

#define QMX_SUCCESS 0
#define QMX_FAILURE 1

/* A port World Wide Name, most significant byte first. */
typedef struct QMX_wwn {
    QMX_UINT8 wwn[8];
} QMX_WWN;

/* Reason codes left in QMX_G_ERROR_CD. */
#define QMX_ERR_NONE            0
#define QMX_ERR_SYSTEM          1
#define QMX_ERR_INVALID_ARG     2
#define QMX_ERR_UNKNOWN_WWN     4
#define QMX_ERR_LOCK            5
#define QMX_ERR_UNSUPPORTED     6
#define QMX_ERR_DRIVER          7
#define QMX_ERR_DATA_FILE       9
#define QMX_ERR_INTERNAL        10
#define QMX_ERR_BIOS_TOOL       11
#define QMX_ERR_DIAG_ABORT      12
#define QMX_ERR_SIZE_LIMIT      14
#define QMX_ERR_SFP_ISOLATION   20  /* transceiver isolation refused by the port's state */
#define QMX_ERR_ISOLATION_1     21  /* adapter isolation refused by the driver (errcode 1) */
#define QMX_ERR_ISOLATION_2     22  /* adapter isolation refused by the driver (errcode 2) */
#define QMX_ERR_LUPATH_BAD_STATUS      30  /* "bad status" */
#define QMX_ERR_LUPATH_PCM_DISABLE     31  /* "QMX-PCM disable" */
#define QMX_ERR_LUPATH_BAD_NEW_STATUS  32  /* "bad new status" */
#define QMX_ERR_LUPATH_NO_DEVICE       33  /* "no device" */
#define QMX_ERR_LUPATH_NOT_REGISTERED  34  /* "not register lgde (no device)" */
#define QMX_ERR_LUPATH_ADAPTER_OFFLINE 35  /* "adapter status is not online" */
#define QMX_ERR_LUPATH_TARGET_OFFLINE  36  /* "target status is not online" */
#define QMX_ERR_LUPATH_INCOMPLETE      37  /* "request imcomplete" */
#define QMX_ERR_LUPATH_BUSY            38  /* "BUSY path-delete" (EBUSY) */
#define QMX_ERR_TGTSCAN_3       39  /* target scan: driver result 3 */
#define QMX_ERR_TGTSCAN_2       40  /* target scan: driver result 2 */
#define QMX_ERR_TGTSCAN_1       41  /* target scan: driver result 1 */

/* ------------------------------------------------------------------------- */
/* Process globals                                                           */
/* ------------------------------------------------------------------------- */
extern QMX_API int   QMX_G_ERROR_CD;          /* last reason code */
extern QMX_API char  QMX_G_ERROR_MES[66];     /* last system-error message */
extern QMX_API char  QMX_G_TraceLog[257];     /* trace file name */
extern QMX_API FILE *QMX_G_TraceFP;           /* open trace stream or NULL */
extern QMX_API int   QMX_G_TraceLineCnt;      /* lines since the top of the ring */

/* ------------------------------------------------------------------------- */
/* Status and version                                                        */
/* ------------------------------------------------------------------------- */
QMX_API int   QMX_LastErrorCode(void);
QMX_API char *QMX_GetVendorAPIVersion(void);

/* ------------------------------------------------------------------------- */
/* API trace file and system log                                             */
/* ------------------------------------------------------------------------- */
QMX_API FILE *QMX_OpenApiTraceFile(void);
QMX_API FILE *QMX_WriteApiTraceFile(char *message);
QMX_API int   QMX_CloseApiTraceFile(void);
QMX_API int   QMX_ChangeTraceLogFile(char *file);
QMX_API int   QMX_WriteSyslog(int type, char *message);
QMX_API void  QMX_OutputSysLog(char *f, int cd);
QMX_API FILE *QMX_fopen(char *f, char *m);

/* ------------------------------------------------------------------------- */
/* Exclusive lock between processes                                          */
/* ------------------------------------------------------------------------- */
QMX_API int QMX_GetLockKey(int lock_target, char *message);
QMX_API int QMX_ExeclusiveLock(int lock_target);
QMX_API int QMX_ExeclusiveLockCheck(int lock_target);
QMX_API int QMX_ExeclusiveUnlock(int lock_target);

/* ------------------------------------------------------------------------- */
/* Adapter discovery and driver channel                                      */
/* ------------------------------------------------------------------------- */
QMX_API int QMX_DevFind(void);
QMX_API int QMX_InitRoutine(QMX_WWN wwn);
QMX_API int QMX_ExecIoctl(int hd, int request, void *param);
QMX_API int QMX_CallDriver(QMX_WWN wwn, int ind, int request, void *param);
QMX_API int QMX_read_proc_info(char *device, qmx_ioctl_proc_info *pprocinfo);
QMX_API unsigned int QMX_getQmxDeviceId(char *DevSymbName);
QMX_API int QMX_GetWwnInfo(char *device, qmx_ioctl_wwn *wwn_ioctl);
QMX_API int QMX_GetPortAttr(char *dname, qmx_ioctl_port_attr *pt_attr);

/* @@CONFIG@@ configuration store: key lists, parameter engine */
/* One item of a configuration file's key list ("key=value:").  Lists are
   heap arrays allocated by the reader and freed by the caller with free(). */
typedef struct util_para {
    char keyword[263];
    char value[128];
    int  used;        /* 0 when read; 1 once written, taken or removed */
} util_para;
QMX_CHECK_SIZE(util_para, 396);

/* Reads "/etc/qmxldd.conf" (flg 0) or "/etc/qmxlib.conf" (flg 1).  Returns
   the number of item slots, 0 for no item (no list), -1 on failure, -2 when
   the file cannot be opened. */
QMX_API int QMX_Read_qmxlddconf(util_para **key_list, int flg);
/* The adapter number bound to wwn by a "qmxl<N>-wwpn" item, or -1; the
   highest adapter number of the list goes through maxadapnum. */
QMX_API int QMX_SearchInKeylist(QMX_WWN wwn, util_para *key_list, int list_max,
                                int *maxadapnum);
/* Rewrites "/etc/qmxldd.conf" from a key list and new items in its fixed
   layout and refreshes the configuration module image.  remake_bind_data 1
   regenerates the binding items from the binding tables.  0 or -1. */
QMX_API int QMX_MakeConfFile(util_para *key_list, int key_list_max, util_para *add_list,
                             int add_list_max, int remake_bind_data);
/* Reads (Get) or stores (Set) the setting of parameter key_str for the port
   with instance number index (-1: driver-wide).  erId -1: no sub-index.
   0 or -1. */
QMX_API int QMX_GetUtilValue(QMX_WWN wwn, int index, char *key_str, int erId, void *setval);
QMX_API int QMX_SetUtilValue(QMX_WWN wwn, int index, char *key_str, int erId, void *setval,
                             int del);
/* Splits "/etc/modprobe.d/qmxldd_param.conf" around its "options qmxldd"
   line into list, which holds QMX_MODULES_CONF_ITEMS zeroed records, one
   "name=value" option each.  A line with more options than that is refused
   (-1, code 9); nothing is ever written past the last record.  0 or -1. */
#define QMX_MODULES_CONF_ITEMS 10
QMX_API int QMX_read_modules_conf(util_para *list);

/* @@PARAMS@@ port parameters and link settings */
/* Port parameters.  Getters report the value the driver runs with now (C_)
   and the value stored for its next load (S_); setters change the stored
   value only.  del 1 removes the stored value (the value is then not
   checked, except where noted); an all-zero wwn in a setter addresses the
   driver-wide value. */
typedef QMX_UINT32 QMX_TRANSFERSIZE;   /* MiB: 1, 4, 8, 16 or 32 */
typedef QMX_UINT32 QMX_SPINUP;         /* 0 off, 1 on */
typedef QMX_UINT8  QMX_PREFERREDALPA;  /* 1..254 */

QMX_API QMX_STATUS QMX_GetMaxTransferSize(QMX_WWN wwn, QMX_TRANSFERSIZE *C_transfersize, QMX_TRANSFERSIZE *S_transfersize);
QMX_API QMX_STATUS QMX_SetMaxTransferSize(QMX_WWN wwn, QMX_TRANSFERSIZE transfersize, int del);
QMX_API QMX_STATUS QMX_GetQueueDepthCount(QMX_WWN wwn, QMX_UINT32 *C_queue, QMX_UINT32 *S_queue);
QMX_API QMX_STATUS QMX_SetQueueDepthCount(QMX_WWN wwn, QMX_UINT32 queue, int del);
QMX_API QMX_STATUS QMX_GetLinkDownTime(QMX_WWN wwn, QMX_UINT32 *C_linkdowntime, QMX_UINT32 *S_linkdowntime);
QMX_API QMX_STATUS QMX_SetLinkDownTime(QMX_WWN wwn, QMX_UINT32 linkdowntime, int del);
QMX_API QMX_STATUS QMX_GetResetDelayTime(QMX_WWN wwn, QMX_UINT32 *C_resetdelaytime, QMX_UINT32 *S_resetdelaytime);
QMX_API QMX_STATUS QMX_SetResetDelayTime(QMX_WWN wwn, QMX_UINT32 resetdelaytime, int del);
QMX_API QMX_STATUS QMX_GetResetTimeOut(QMX_WWN wwn, QMX_UINT32 *C_resettimeout, QMX_UINT32 *S_resettimeout);
QMX_API QMX_STATUS QMX_SetResetTimeOut(QMX_WWN wwn, QMX_UINT32 resettimeout, int del);
QMX_API QMX_STATUS QMX_GetAbortTimeOut(QMX_WWN wwn, QMX_UINT32 *C_aborttime, QMX_UINT32 *S_aborttime);
QMX_API QMX_STATUS QMX_SetAbortTimeOut(QMX_WWN wwn, QMX_UINT32 aborttime, int del);
/* The range 0..10 is checked when del is not 0 (also when deleting). */
QMX_API QMX_STATUS QMX_GetMckRetryCnt(QMX_WWN wwn, int *C_mck_cnt, int *S_mck_cnt);
QMX_API QMX_STATUS QMX_SetMckRetryCnt(QMX_WWN wwn, int mck_cnt, int del);
QMX_API QMX_STATUS QMX_GetScsiAllowedCnt(QMX_WWN wwn, int *C_allowed_cnt, int *S_allowed_cnt);
QMX_API QMX_STATUS QMX_SetScsiAllowedCnt(QMX_WWN wwn, int allowed_cnt, int del);
QMX_API QMX_STATUS QMX_GetScsiDelayTime(QMX_WWN wwn, int *C_scsidelay, int *S_scsidelay);
QMX_API QMX_STATUS QMX_SetScsiDelayTime(QMX_WWN wwn, int scsidelay, int del);
QMX_API QMX_STATUS QMX_GetAbortTaskRestrain(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetAbortTaskRestrain(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetLunResetDelay(QMX_WWN wwn, int *C_delaytimer, int *S_delaytimer);
QMX_API QMX_STATUS QMX_SetLunResetDelay(QMX_WWN wwn, int delaytimer, int del);
/* With a port, the setter stores the value for every function of its adapter. */
QMX_API QMX_STATUS QMX_GetInterruptType(QMX_WWN wwn, int *C_interrupt, int *S_interrupt);
QMX_API QMX_STATUS QMX_SetInterruptType(QMX_WWN wwn, int interrupt, int del);
QMX_API QMX_STATUS QMX_GetTargetResetMode(QMX_WWN wwn, int *C_setting, int *S_setting);
QMX_API QMX_STATUS QMX_SetTargetResetMode(QMX_WWN wwn, int settingval, int del);
/* The driver reports no current value: C_setting stays -1. */
QMX_API QMX_STATUS QMX_GetPathHealthCheckTO(QMX_WWN wwn, int *C_setting, int *S_setting);
QMX_API QMX_STATUS QMX_SetPathHealthCheckTO(QMX_WWN wwn, int settingval, int del);
/* Isolation settings: current values from the driver's isolation record. */
QMX_API QMX_STATUS QMX_GetIsolateSetting(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetIsolateSetting(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetLinkDownWatch(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetLinkDownWatch(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetLinkDownCountLT(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetLinkDownCountLT(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetLinkDownCountST(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetLinkDownCountST(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetFcIfWatch(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetFcIfWatch(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetFcIfThreshold(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetFcIfThreshold(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetScsiTimeoutWatch(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetScsiTimeoutWatch(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetScsiTimeoutThreshold(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetScsiTimeoutThreshold(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetScsiResetError(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetScsiResetError(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetMbLoginRetry(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetMbLoginRetry(QMX_WWN wwn, int settingval, int del);
QMX_API QMX_STATUS QMX_GetMbELSRetry(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetMbELSRetry(QMX_WWN wwn, int settingval, int del);
/* The value is refused when min_val > settingval or settingval > max_val. */
QMX_API QMX_STATUS QMX_GetMbTimeoutRetry(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetMbTimeoutRetry(QMX_WWN wwn, int settingval, int del, int min_val, int max_val);
QMX_API QMX_STATUS QMX_GetScsiCmdRetry(QMX_WWN wwn, int *C_settingval, int *S_settingval);
QMX_API QMX_STATUS QMX_SetScsiCmdRetry(QMX_WWN wwn, int settingval, int del);
/* Path change thresholds per error number: both outputs hold
   QMX_PASSCHANGE_ENTRIES ints (-1: none). */
#define QMX_PASSCHANGE_ENTRIES 1000
QMX_API QMX_STATUS QMX_GetPassChangeThreshold(QMX_WWN wwn, int *C_threshold, int *S_threshold);
QMX_API QMX_STATUS QMX_SetPassChangeThreshold(QMX_WWN wwn, int err_id, int threshold, int del);
/* Driver-wide switches: the getter reports the port's current value only. */
QMX_API QMX_STATUS QMX_GetLoggingMode(QMX_WWN wwn, int *C_log_mode);
QMX_API QMX_STATUS QMX_SetLoggingMode(int log_mode, int del);
QMX_API QMX_STATUS QMX_GetTgtFilter(QMX_WWN wwn, int *C_tgt_filter);
QMX_API QMX_STATUS QMX_SetTgtFilter(int tgt_filter, int del);
QMX_API QMX_STATUS QMX_GetScsiTimeoutFailCount(QMX_WWN wwn, int *scsitimeoout);
/* Boot firmware settings (BIOS tool, or the EFI option area of a
   partitioned port).  Login delay: 0..60 seconds, 255 when not set. */
QMX_API QMX_STATUS QMX_GetLoginDelayTime(QMX_WWN wwn, QMX_UINT32 *C_delaytime, QMX_UINT32 *S_delaytime);
QMX_API QMX_STATUS QMX_SetLoginDelayTime(QMX_WWN wwn, QMX_UINT32 delaytime, int del);
QMX_API QMX_STATUS QMX_GetSpinupDelay(QMX_WWN wwn, QMX_SPINUP *C_spinupdelay, QMX_SPINUP *S_spinupdelay);
QMX_API QMX_STATUS QMX_SetSpinupDelay(QMX_WWN wwn, QMX_SPINUP spinupdelay);
/* Not offered by these adapters: always 1, outputs untouched. */
QMX_API QMX_STATUS QMX_GetScatterGather(QMX_WWN wwn, int *C_sgListCnt, int *S_sgListCnt);
QMX_API QMX_STATUS QMX_SetScatterGather(QMX_WWN wwn, int sgListCnt, int del);
QMX_API QMX_STATUS QMX_GetMSCS(int *C_mscs_mode, int *S_mscs_mode);
QMX_API QMX_STATUS QMX_SetMSCS(int mscs_mode, int del);

/* Link settings.  Connection type: 1 auto (loop preferred), 2 point to
   point, 3 loop.  Port speed: 0 auto, 1, 2, 4, 8 or 10 Gbit/s. */
QMX_API QMX_STATUS QMX_GetConnectionType(QMX_WWN wwn, QMX_UINT8 *C_ConnectionType, QMX_UINT8 *S_ConnectionType);
QMX_API QMX_STATUS QMX_SetConnectionType(QMX_WWN wwn, QMX_UINT8 ConnectionType);
QMX_API QMX_STATUS QMX_GetPortSpeed(QMX_WWN wwn, QMX_UINT8 *C_portspeed, QMX_UINT8 *S_portspeed);
QMX_API QMX_STATUS QMX_SetPortSpeed(QMX_WWN wwn, QMX_UINT8 portspeed);
QMX_API QMX_STATUS QMX_GetPreferredALPANumber(QMX_WWN wwn, QMX_PREFERREDALPA *C_preferredalpanumber, QMX_PREFERREDALPA *S_preferredalpanumber);
QMX_API QMX_STATUS QMX_SetPreferredALPANumber(QMX_WWN wwn, QMX_PREFERREDALPA preferredalpanumber, int del);

/* Port information summary. */
typedef struct qmx_proc_info {
    QMX_UINT16 host_no;          /* not filled: left as the caller set it */
    QMX_UINT16 vender_id;
    QMX_UINT16 device_id;
    QMX_UINT8  model_name[16];
    QMX_UINT8  driver_ver[16];
    QMX_UINT32 firmware_ver;
    QMX_UINT8  highconf_opt;
    QMX_UINT8  bus_dev_func[3];
    QMX_UINT8  port_status;
    QMX_UINT8  connection_type;
    QMX_UINT32 max_data_rate;
    QMX_UINT8  login_delay;
} QMX_PROC_INFO;
QMX_API QMX_STATUS QMX_GetProcInfo(QMX_WWN wwn, QMX_PROC_INFO *proc_info);
/* Partition mode: 0 not partitioned, 1 shared port, 2 dedicated port, -1 on failure. */
QMX_API int QMX_JudgeMlpfMode(QMX_WWN wwn);
/* Hands "/etc/qmxldd.conf" (less than 4096 bytes) to the driver through its
   sysfs attribute, and asks the driver to re-read its parameters.  0 or 1. */
QMX_API int QMX_SysFsFileCopy(QMX_WWN wwn);
QMX_API int QMX_DriverParamReflection(QMX_WWN wwn);

/* @@BIOS@@ BIOS tool, EFI driver options */
/* Boot BIOS settings, kept in the adapter and changed through the qmxbios
   tool.  Getters report 1 enabled, 2 disabled, 255 not known; setters take
   1 enable, 0 disable. */
typedef QMX_UINT32 QMX_BIOSSETTING;
typedef QMX_UINT32 QMX_BOOTPRIORITY;

typedef struct QMX_BootDeviceInfo {
    QMX_WWN    PortWWN;   /* most significant byte first */
    QMX_UINT32 lun;       /* 0..65535 */
} QMX_BOOTDEVICEINFO;

#define QMX_BOOT_DEVICE_MAX 8
typedef struct QMX_BootPriorityList {
    QMX_BOOTDEVICEINFO entry[QMX_BOOT_DEVICE_MAX];
} QMX_BOOTPRIORITYLIST;
QMX_CHECK_SIZE(QMX_BOOTDEVICEINFO, 12);
QMX_CHECK_SIZE(QMX_BOOTPRIORITYLIST, 96);

QMX_API QMX_STATUS QMX_GetHBABiosSetting(QMX_WWN wwn, QMX_BIOSSETTING *S_biossetting);
QMX_API QMX_STATUS QMX_SetHBABiosSetting(QMX_WWN wwn, QMX_BIOSSETTING biossetting);
QMX_API QMX_STATUS QMX_GetBootPriority(QMX_WWN wwn, QMX_BOOTPRIORITY *S_bootpriority);
QMX_API QMX_STATUS QMX_SetBootPriority(QMX_WWN wwn, QMX_BOOTPRIORITY bootpriority);
QMX_API QMX_STATUS QMX_GetBootPriorityList(QMX_WWN wwn, QMX_BOOTPRIORITYLIST *S_bootprioritylist);
QMX_API QMX_STATUS QMX_SetBootPriorityList(QMX_WWN wwn, QMX_BOOTPRIORITYLIST bootprioritylist);

/* @@MULTIPATH@@ binding, adapter numbering */

/* @@BINDING@@ persistent binding, LU priority and path control */
/* Persistent binding.  QMX_AutoSetPersistentBinding fills one hba_info slot
   per device file "/dev/qmxldd<N>" (slot N) and one target_info entry per
   entry of that adapter's target map (at most 256); every byte of a slot or
   entry it does not fill is 0xFF.  WWNs are most significant byte first. */
#define QMX_BIND_ADAPTERS 256
#define QMX_BIND_TARGETS  256
struct target {
    QMX_WWN    port_wwn;
    QMX_WWN    node_wwn;
    QMX_INT32  attribute;
    QMX_INT32  group;
    QMX_UINT64 priority[4];   /* word k: LUNs 64k (most significant bit) to 64k+63 */
};
struct hba {
    QMX_INT32     adap_number; /* the driver's instance number of the adapter */
    QMX_WWN       hba_wwn;
    struct target target_info[QMX_BIND_TARGETS];
};
typedef struct QMX_persistentbinding {
    struct hba hba_info[QMX_BIND_ADAPTERS];
} QMX_PERSISTENTBINDING;
QMX_STATIC_ASSERT(sizeof(struct target) == 56, bind_target_size);
QMX_STATIC_ASSERT(offsetof(struct hba, target_info) == 16, bind_hba_targets);

/* Automatic mapping switch of the driver: 1 on, 0 off. */
typedef QMX_UINT32 QMX_AUTOMAP;

QMX_API QMX_STATUS QMX_AutoSetPersistentBinding(QMX_PERSISTENTBINDING *bind_information);
QMX_API QMX_STATUS QMX_DeletePersistentBinding(void);
QMX_API QMX_STATUS QMX_GetBindingAutoMapping(QMX_AUTOMAP *automap);
QMX_API QMX_STATUS QMX_SetBindingAutoMapping(QMX_AUTOMAP automap);
QMX_API QMX_STATUS QMX_GetForceBinding(QMX_WWN wwn, QMX_UINT8 *bind_flg);
QMX_API QMX_STATUS QMX_SetForceBinding(QMX_WWN wwn, QMX_UINT8 bind_flg);

/* LU priorities of the configured path groups: one entry per target path
   that has a group and an attribute in "/etc/qmxldd.conf", by group, then
   adapter, then file order.  attribute: 0 configured, 1 configured (H),
   3 unconfigured.  priorityN: priority word N-1 as 16 hex digits. */
typedef struct lu_list {
    QMX_INT32 group;
    QMX_INT32 adapter;
    QMX_INT32 target;
    QMX_INT32 attribute;
    char      priority1[17];
    char      priority2[17];
    char      priority3[17];
    char      priority4[17];
} QMX_LU_PRIORITY;

/* The number of entries, or -1 (a count, not a status). */
QMX_API int QMX_GetLUPriorityCnt(void);
/* lu_priority holds the number of entries the last QMX_GetLUPriorityCnt gave. */
QMX_API QMX_STATUS QMX_GetLUPriority(QMX_LU_PRIORITY *lu_priority);
QMX_API QMX_STATUS QMX_SetLUPriority(int adap_no, int target_no, int lun, int priority);
QMX_API QMX_STATUS QMX_ReleasePathControl(int group);
QMX_API QMX_STATUS QMX_ChangePathAttribute(int adapter, int target);

/* @@MPRUNTIME@@ multipath environment, LU and target paths, LU IDs, path limits */
/* Multipath operating environment (driver-wide).  On set, param_flag selects
   the fields kept in /etc/qmxldd.conf (QMX_MP_FLAG_*); with del 1 those
   fields are sent to the driver with their defaults and their keys removed. */
#define QMX_MP_FLAG_FAILOVER    0x001u
#define QMX_MP_FLAG_FAILBACK    0x002u
#define QMX_MP_FLAG_PATH_HEALTH 0x004u
#define QMX_MP_FLAG_INTERVAL    0x008u
#define QMX_MP_FLAG_ROUND_ROBIN 0x010u /* also runs one path health check at once */
#define QMX_MP_FLAG_RR_SEQCNT   0x020u
#define QMX_MP_FLAG_RR_RNDCNT   0x040u
#define QMX_MP_FLAG_ALTER_PATH  0x080u
#define QMX_MP_FLAG_OFFLINE_PATH 0x100u
/* QMX_GetOperationEnv returns this status when the port's information
   record cannot be read (the record is then only partly filled). */
#define QMX_UNSUPPORTED 3

typedef struct QMX_mp_param {
    QMX_UINT32 param_flag;
    QMX_UINT8  automap;          /* get only */
    QMX_UINT8  qmxpcm;           /* get only: multipath layer active */
    QMX_UINT8  mp_failover;      /* 0/1 */
    QMX_UINT8  mp_failback;      /* 0/1 */
    QMX_UINT8  mp_path_health;   /* 0/1 */
    QMX_UINT8  HighReliability;  /* get only */
    QMX_UINT8  mp_round_robin;   /* 0/1 */
    QMX_UINT32 mp_interval;      /* 1..1440 */
    QMX_UINT32 mp_rr_seqcnt;
    QMX_UINT32 mp_rr_rndcnt;
    QMX_UINT8  nm_alter_path;    /* 0/1 */
    QMX_UINT8  nm_offline_path;  /* 0/1 */
} QMX_MP_PARAM;
QMX_CHECK_SIZE(QMX_MP_PARAM, 28);
QMX_CHECK_OFFSET(QMX_MP_PARAM, mp_interval, 12);
QMX_CHECK_OFFSET(QMX_MP_PARAM, nm_alter_path, 24);

QMX_API QMX_STATUS QMX_GetOperationEnv(QMX_MP_PARAM *mpparam);
QMX_API QMX_STATUS QMX_SetOperationEnv(QMX_MP_PARAM *mpparam, int del);

/* LU paths.  A listing fills the caller's container with one record per
   path (at most QMX_LUPATH_MAX), sorted by group, then LUN, then port;
   QMX_ReleaseLuPath frees the records (not the container). */
#define QMX_LUPATH_MAX 65536
#pragma pack(push, 1)
struct lupath_status {
    QMX_UINT8  groupid;
    QMX_UINT8  status;
    QMX_UINT8  priority;
    QMX_UINT8  owner_ctl;
    QMX_UINT8  pathid;
    QMX_UINT8  devno;       /* N of /dev/qmxlddN */
    QMX_WWN    wwn;         /* target port WWN, most significant byte first */
    QMX_UINT8  tid;
    QMX_WWN    tid_wwn;     /* target node WWN */
    QMX_UINT8  instance;
    QMX_UINT32 ioerror;
    QMX_UINT32 iocount;
    QMX_UINT32 lun;
};
#pragma pack(pop)
QMX_STATIC_ASSERT(sizeof(struct lupath_status) == 36, lupath_status_size);
QMX_STATIC_ASSERT(offsetof(struct lupath_status, tid_wwn) == 15, lupath_status_tid_wwn);
QMX_STATIC_ASSERT(offsetof(struct lupath_status, lun) == 32, lupath_status_lun);

typedef struct qmx_lupath_status {
    struct lupath_status *lupath[QMX_LUPATH_MAX];
    QMX_INT32 lupath_cnt;
} QMX_LUPATH_STATUS;

QMX_API QMX_STATUS QMX_GetLuPathStatus(QMX_LUPATH_STATUS *lupath);
/* Runs the path health check only (when the driver asks for it). */
QMX_API QMX_STATUS QMX_AddLuPathStatus(void);
QMX_API QMX_STATUS QMX_ReleaseLuPath(QMX_LUPATH_STATUS *lupath);
/* Sends lupath->status as the new state of the path (devno, wwn, groupid, lun). */
QMX_API QMX_STATUS QMX_SetLuPathStatus(struct lupath_status *lupath);
QMX_API int QMX_GetLuPathStatus_Impl(QMX_LUPATH_STATUS *lupath, unsigned char path_health_check_flag,
                                     unsigned char only_path_health_check);

/* Target paths: physical paths merged with the driver's logical targets. */
#define QMX_TGTPATH_MAX 65536
struct qmx_tgt {
    QMX_UINT8  groupid;
    QMX_UINT8  pathid;       /* 255: a logical target without a physical path */
    QMX_UINT8  tgtid;
    QMX_UINT8  attribute;
    QMX_UINT8  pb_attribute; /* attribute of the logical target, 255 when none */
    QMX_UINT64 nodename;     /* as the driver gives it */
    QMX_UINT64 portname;
    QMX_UINT8  devno;
    QMX_UINT8  instance;
    QMX_UINT8  link;         /* 1: the target map entry's flags are 3 */
    QMX_UINT8  valid;        /* 1: the record has an adapter port */
    QMX_UINT64 adapport;     /* adapter port WWN (logical targets only) */
};
QMX_STATIC_ASSERT(sizeof(struct qmx_tgt) == 40, qmx_tgt_size);
typedef struct qmx_tgtpath_status {
    struct qmx_tgt *tgtpath[QMX_TGTPATH_MAX];
    QMX_UINT32 tgtpath_cnt;
} QMX_TGTPATH_STATUS;

struct qmx_lgout {
    QMX_UINT8  groupid;
    QMX_UINT32 lu;
    QMX_UINT8  devno;
    QMX_UINT8  tid;
    char       devname[16];
};
QMX_STATIC_ASSERT(sizeof(struct qmx_lgout) == 28, qmx_lgout_size);
/* logical is grown with realloc from the pointer passed in and belongs to
   the caller (free()); on failure it is freed and set to NULL. */
typedef struct qmx_logical_conf {
    QMX_INT32 logical_cnt;
    struct qmx_lgout *logical;
} QMX_LOGICAL_CONF;

QMX_API QMX_STATUS QMX_GetTargetPathStatus(QMX_TGTPATH_STATUS *tgtout);
QMX_API QMX_STATUS QMX_ReleaseTargetPathStatus(QMX_TGTPATH_STATUS *tgtout);
QMX_API QMX_STATUS QMX_GetLogicalConfiguration(QMX_LOGICAL_CONF *conf);

/* LU identifiers and per-LU limits. */
typedef struct qmx_nm_lu {
    QMX_UINT8  group_id;
    QMX_UINT32 lu_num;
    QMX_UINT8  id_size;
    QMX_UINT8  type;
    QMX_UINT8 *luid_num;     /* id_size bytes and a terminating zero */
    QMX_INT32  config_flag;
    QMX_INT32  trans_size;
    QMX_UINT8 *trans_luid;
} QMX_NMPATH_LU;
typedef struct qmx_nm_info {
    QMX_INT32      info_cnt;
    QMX_NMPATH_LU *info;
} QMX_NMPATH_STATUS;
typedef struct qmx_luid_info {
    QMX_UINT8 alter;
    QMX_UINT8 offline;
    QMX_UINT8 panic;
} QMX_LUID_INFO;

/* 0 or -1; the list is freed with QMX_ReleaseLuIDPath. */
QMX_API int  QMX_GetAllLuID(QMX_NMPATH_STATUS *nm);
QMX_API void QMX_ReleaseLuIDPath(QMX_NMPATH_STATUS *nm);
QMX_API QMX_STATUS QMX_GetLuIDInformation(QMX_NMPATH_LU nm, QMX_LUID_INFO *info);
/* The driver-wide settings; 0 where none is stored. */
QMX_API QMX_STATUS QMX_GetLuIDInfoFromConf(QMX_LUID_INFO *info);
QMX_API QMX_STATUS QMX_SetAlterPath(int alter, int del);          /* 1..8 */
QMX_API QMX_STATUS QMX_SetOfflinePath(int offline, int del);      /* 1..8 */
QMX_API QMX_STATUS QMX_SetKernelPanicCount(int panic, int del);   /* 1..126 */
/* Per-port path count limits, 1 to the driver's LU path maximum.  The
   getters report no current value (C_setting -1); the setters return
   QMX_UNSUPPORTED when the driver's multipath parameters cannot be read. */
QMX_API QMX_STATUS QMX_GetLimitAlterPath(QMX_WWN wwn, int *C_setting, int *S_setting);
QMX_API QMX_STATUS QMX_SetLimitAlterPath(QMX_WWN wwn, int path_cnt, int del);
QMX_API QMX_STATUS QMX_GetLimitOfflinePath(QMX_WWN wwn, int *C_setting, int *S_setting);
QMX_API QMX_STATUS QMX_SetLimitOfflinePath(QMX_WWN wwn, int path, int del);
/* The driver's LU path maximum; 8 when no port answers. */
QMX_API int QMX_GetMaxLuPath(void);

/* Binding components: the adapter and binding records as the driver has
   them now (current) or as /etc/qmxldd.conf holds them (setting).  The
   count calls return the number of binding records (-1 on failure); the
   component array must hold that many. */
struct wwpnlist {
    QMX_INT32 adapt;      /* adapter number, -1 when not in use */
    char      bind[24];   /* adapter port WWPN as "0x" and hex digits */
    QMX_INT32 use_flg;    /* 1 in use */
};
typedef struct qmx_wwpnlist {
    struct wwpnlist WWPN[256];
    QMX_INT32 wwpn_cnt;
} QMX_WWPNLIST;
struct component {
    QMX_INT32  adapt;
    QMX_INT32  target;
    QMX_INT32  attribute;
    QMX_INT32  group;
    QMX_INT32  npd;       /* 1 wwpn, 2 wwnn, 4 attribute, 5..8 priority0..3, 9 gt */
    QMX_UINT64 wwn;
    QMX_UINT64 priority[4];
    char       bind[24];
    QMX_INT32  snum;
    QMX_INT32  psnum;
};
typedef struct component QMX_CURRENTCOMPONENT;
QMX_STATIC_ASSERT(sizeof(struct wwpnlist) == 32, wwpnlist_size);
QMX_STATIC_ASSERT(sizeof(struct component) == 96, component_size);
QMX_STATIC_ASSERT(offsetof(struct component, bind) == 64, component_bind);

QMX_API int QMX_GetCurrentComponentCnt(void);
QMX_API QMX_STATUS QMX_GetCurrentComponent(QMX_WWPNLIST *wwnlist, QMX_CURRENTCOMPONENT *component);
QMX_API int QMX_GetSettingComponentCnt(void);
QMX_API QMX_STATUS QMX_GetSettingComponent(QMX_WWPNLIST *wwnlist, QMX_CURRENTCOMPONENT *component);

/* Adapter numbering.  One entry per port; set_opr selects the change that
   QMX_SetAdapterNumber makes for the entry:
     0 none, 1 give hba_wwn the number adapternumber,
     2 remove the number bound to hba_wwn, 3 rebind adapternumber to hba_wwn. */
#define QMX_ADAPTERNUMBER_MAX 256
#define QMX_ADPNUM_MODE_CURRENT    1 /* QMX_GetAdapterNumber: driver's numbering */
#define QMX_ADPNUM_MODE_CONFIGURED 2 /* QMX_GetAdapterNumber: /etc/qmxldd.conf */
#define QMX_ADPNUM_OPR_NONE   0
#define QMX_ADPNUM_OPR_ASSIGN 1
#define QMX_ADPNUM_OPR_REMOVE 2
#define QMX_ADPNUM_OPR_REBIND 3

struct adapterinformation {
    QMX_INT32 adapternumber;  /* N of /dev/qmxlddN and of the qmxlN- keys */
    QMX_WWN   hba_wwn;        /* port WWPN, most significant byte first */
    QMX_WWN   old_wwn;        /* not used by the numbering calls */
    char      special_dev[64];/* device name, e.g. "qmxldd0" */
    QMX_UINT8 bus;
    QMX_UINT8 dev;
    QMX_UINT8 fnc;
    QMX_INT8  set_opr;        /* QMX_SetAdapterNumber: operation */
};
typedef struct QMX_adapternumber {
    struct adapterinformation portlist[QMX_ADAPTERNUMBER_MAX];
    QMX_INT32 portlist_max;   /* entries in use */
} QMX_ADAPTERNUMBER;
QMX_STATIC_ASSERT(sizeof(struct adapterinformation) == 88, adapterinformation_size);
QMX_STATIC_ASSERT(offsetof(struct adapterinformation, special_dev) == 20, adapterinformation_special_dev);
QMX_STATIC_ASSERT(offsetof(struct adapterinformation, set_opr) == 87, adapterinformation_set_opr);
QMX_CHECK_SIZE(QMX_ADAPTERNUMBER, 256 * 88 + 4);

QMX_API QMX_STATUS QMX_GetAdapterNumber(QMX_ADAPTERNUMBER *adapter_info, int mode);
QMX_API QMX_STATUS QMX_SetAdapterNumber(QMX_ADAPTERNUMBER *adapter_info);
QMX_API QMX_STATUS QMX_DeleteAdapterPath(QMX_WWN wwn, QMX_UINT8 devno);

/* @@BIOSDATA@@ BIOS backup data, firmware, diagnostics */
/* BIOS settings of a port as one record.  Read from the adapter, the on/off
   values are 1 enabled, 2 disabled and 255 not known; decoded from a BIOS
   backup file they are 1 on and 0 off. */
typedef struct qmx_bios_data {
    QMX_BIOSSETTING      hbaBios;
    QMX_BOOTPRIORITY     bootPri;
    QMX_BOOTPRIORITYLIST bootPriList;
    QMX_SPINUP           spinupDelay;
    QMX_UINT8            connectType;   /* 1 auto, 2 point to point, 3 loop, 0 unknown */
    QMX_UINT8            dataRate;      /* 0 auto, 1, 2, 4, 8, 10 Gbit/s; 255 unknown */
    QMX_UINT8            pBindings;     /* persistent bindings */
    int                  forceDefault;  /* forced default parameters */
    QMX_WWN              addWwpn;       /* additional WWPN, most significant byte first */
    QMX_UINT32           loginDelay;    /* seconds; 255 the tool's default */
    int                  preConfigure;  /* 255 unknown */
} QMX_BIOS_DATA;
QMX_CHECK_SIZE(QMX_BIOS_DATA, 132);
QMX_CHECK_OFFSET(QMX_BIOS_DATA, spinupDelay, 104);
QMX_CHECK_OFFSET(QMX_BIOS_DATA, forceDefault, 112);
QMX_CHECK_OFFSET(QMX_BIOS_DATA, addWwpn, 116);

/* restore_file NULL or empty: the adapter's settings through the BIOS
   tool's listing; otherwise the port's settings decoded from that backup
   file (reason code 9 for a file that is short or of another model). */
QMX_API QMX_STATUS QMX_GetBiosData(QMX_WWN wwn, char *restore_file, QMX_BIOS_DATA *bios_dat);
/* Pre-configuration switch: the getter reports 1 enabled, 2 disabled, 255
   not known; the setter takes 1 enable, 0 disable. */
QMX_API QMX_STATUS QMX_GetPreConfigure(QMX_WWN wwn, QMX_UINT32 *preconfigure);
QMX_API QMX_STATUS QMX_SetPreConfigure(QMX_WWN wwn, QMX_UINT32 preconfigure);
/* The BIOS tool saves the port's adapter (the all-zero wwn: every adapter)
   into backup_dir, writes a backup file back, or restarts the adapter. */
QMX_API QMX_STATUS QMX_BiosBackup(QMX_WWN wwn, char *backup_dir);
QMX_API QMX_STATUS QMX_BiosRestore(QMX_WWN wwn, char *restore_file);
QMX_API QMX_STATUS QMX_BiosRestart(QMX_WWN wwn);

/* Firmware through the adapter tools: qmxmcup downloads an image into the
   port's adapter (the all-zero wwn: every adapter) or saves it into a
   directory; qmxmcref refreshes the running firmware (operation 0: the
   tool's default, 1: the device named, 2: every device).  force 1 adds the
   tool's force option.  The tools' results are not looked at. */
typedef struct qmx_fw_version {
    char new_version[64];  /* "%08X" of the image file's version, or empty */
    char now_version[64];  /* "%08X" of the running version */
} QMX_FW_VERSION;
QMX_CHECK_SIZE(QMX_FW_VERSION, 128);

QMX_API QMX_STATUS QMX_FirmwareUpdate(QMX_WWN wwn, char *filename, int force);
QMX_API QMX_STATUS QMX_FirmwareBackup(QMX_WWN wwn, char *dirname, int force);
QMX_API QMX_STATUS QMX_OnlineUpdateFW(int operation, char *device, int force);
/* new_firm NULL or empty: only now_version is filled. */
QMX_API QMX_STATUS QMX_GetFirmwareVersion(QMX_WWN wwn, char *new_firm, QMX_FW_VERSION *f_version);

/* Diagnostics through the qmxdiag tool.  Flags are 0 or 1; target_port is
   1 or 2; interval_time is 0 or more; test_type and debug_mode are not
   used. */
typedef struct qmx_diag_param {
    int        test_type;
    QMX_UINT32 test_time;
    QMX_UINT32 test_count;
    QMX_UINT32 error_count;
    int        external_loop;
    int        target_port;
    int        reg_test;
    int        ram_test;
    int        iloop_test;
    int        dma_test;
    int        pci_test;
    int        fmem_test;
    int        interval_time;
    int        no_monitor;
    int        debug_mode;
} QMX_DIAG_PARAM;
QMX_CHECK_SIZE(QMX_DIAG_PARAM, 60);

/* Path of the log the diagnostic tool writes (set by QMX_DiagExecution). */
extern QMX_API char QMX_G_DiagLog[256];
/* Runs the diagnostic tool on the port: QMX_G_DiagLog on success, NULL on
   failure (reason code 12: the tool reported a failure). */
QMX_API char *QMX_DiagExecution(QMX_WWN wwn, QMX_DIAG_PARAM *diag_param);
/* Erases the adapter's error log through the BIOS tool. */
QMX_API QMX_STATUS QMX_EraseLogData(QMX_WWN wwn);


/* @@ISOLATION@@ isolation and trouble counters */
/* Forced isolation of ports, kept in /etc/qmxldd.conf per PCI function
   ("qmx_BB_DD_FF_bs" = mode).  mode: 1 this function only, 2 every
   function of the PCI device.  set_opr: 1 isolate, 2 release (immdt 1:
   recover at once, force 1: whatever the cause). */
#define QMX_FORCE_ISOLATE_MAX 256
typedef struct qmx_isolate {
    QMX_UINT8 bus;
    QMX_UINT8 dev;
    QMX_UINT8 func;
    QMX_UINT8 reserve;
    int mode;
    int set_opr;
    int immdt;
    int force;
    int status;
} QMX_ISOLATE;
typedef struct qmx_force_isolate_list {
    QMX_ISOLATE list[QMX_FORCE_ISOLATE_MAX];
    int listCnt;
} QMX_FORCE_ISOLATE_LIST;
QMX_CHECK_SIZE(QMX_ISOLATE, 24);
QMX_CHECK_SIZE(QMX_FORCE_ISOLATE_LIST, 256 * 24 + 4);

/* Transceiver (SFP) hot swap: the port is chosen by bus, dev, func.
   set_opr 1 isolate, 2 recover (force 1: forced).  status bits set by
   QMX_GetSFPInfo (other bits are left as the caller set them):
   bit 0 no hot-swap support in the hardware, bit 1 and bit 2 from the
   transceiver's identification. */
#define QMX_SFP_STATUS_NO_HW_SWAP 0x1UL
#define QMX_SFP_STATUS_ID_BIT7    0x2UL
#define QMX_SFP_STATUS_ID_BIT6    0x4UL
typedef struct _QMX_SFP_INFO {
    QMX_UINT8 bus;
    QMX_UINT8 dev;
    QMX_UINT8 func;
    int set_opr;
    int force;
    QMX_UINT8 err_no;         /* 1: the driver reports the isolation done */
    char part_num[32];
    char serial_num[32];
    char date_code[32];
    unsigned long status;
} QMX_SFP_INFO;

typedef struct _QMX_HBA_INFO {
    int set_opr;              /* 1 isolate, anything else recover */
} QMX_HBA_INFO;

/* Trouble counters behind isolation; -1 / 255 when not read. */
typedef struct qmx_trbl_cnt {
    int port_status;          /* 3 isolated, 8 or 9 CHECK-STOP */
    int countL;               /* link-down errors, long interval */
    int countS;               /* link-down errors, short interval */
    int if_err;               /* interface errors */
    int tmo_err;              /* time-out errors */
    int tmo_reset;            /* 1 when time-out resets happened */
    QMX_UINT8 err_is_func;    /* isolation function on */
    QMX_UINT8 err_is_fw_spt;  /* firmware supports isolation */
    QMX_UINT8 err_is_hvm_spt; /* supported in the shared partition mode */
} QMX_TRBL_CNT;

QMX_API QMX_STATUS QMX_GetForceIsolateList(QMX_FORCE_ISOLATE_LIST *isolate_list);
/* Only list[0] is used; mode 1 also isolates or releases the port now. */
QMX_API QMX_STATUS QMX_SetForceIsolateList(QMX_FORCE_ISOLATE_LIST *isolate_list, int mode);
QMX_API QMX_STATUS QMX_SetHBAIsolate(QMX_WWN wwn, QMX_HBA_INFO *hba);
QMX_API QMX_STATUS QMX_SetSFPIsolate(QMX_SFP_INFO *sfp);
QMX_API QMX_STATUS QMX_GetSFPInfo(QMX_SFP_INFO *sfp);
/* The driver-wide isolation function: 1 on, 0 off. */
QMX_API QMX_STATUS QMX_GetIsolFunc(int *onoff);
QMX_API QMX_STATUS QMX_SetIsolFunc(int onoff);
QMX_API QMX_STATUS QMX_GetAdapTroubleCnt(QMX_WWN wwn, QMX_TRBL_CNT *trbl_cnt);

/* @@DISKCONF@@ disk configuration record */
/* The LU map recorded in "/opt/kestrel/drivers/hba/qmxldd_lumap.conf": for
   each adapter (by adapter number) the targets it reaches (by target
   number) and the identification data of each of their LUs (by LU number).
   The root record belongs to the caller; every lower level is allocated by
   the library and released with QMX_DiskConfigTblFree.  Counts are the
   numbers of non-null pointers at each level. */
#define QMX_DISK_CONF_ADAPT_MAX 128
#define QMX_DISK_CONF_TGT_MAX   256
#define QMX_DISK_CONF_LU_MAX    2048

typedef struct QMX_disk_conf_lu {
    QMX_UINT8  valid_luid_byte;   /* length of luid */
    QMX_UINT8 *luid;              /* identification data */
} QMX_DISK_CONF_LU;
typedef struct QMX_disk_conf_tgt {
    QMX_WWN           wwn;        /* target port WWPN */
    int               lu_cnt;
    QMX_DISK_CONF_LU *lu[QMX_DISK_CONF_LU_MAX];
} QMX_DISK_CONF_TGT;
typedef struct QMX_disk_conf_adapt {
    QMX_UINT8          bus_dev_func[3];  /* PCI bus, device, function */
    int                tgt_cnt;
    QMX_DISK_CONF_TGT *tgt[QMX_DISK_CONF_TGT_MAX];
} QMX_DISK_CONF_ADAPT;
typedef struct QMX_disk_config {
    int                  adapt_cnt;
    QMX_DISK_CONF_ADAPT *adapt[QMX_DISK_CONF_ADAPT_MAX];
} QMX_DISK_CONFIG;
QMX_STATIC_ASSERT(sizeof(void *) != 8 || sizeof(QMX_DISK_CONFIG) == 1032, disk_config_size);

/* Reads the record: the unmatched-device check flag (0 or 1) and the tree.
   Either argument may be NULL.  No file is an empty record with flag 0. */
QMX_API QMX_STATUS QMX_GetDiskConfig(int *check_flag, QMX_DISK_CONFIG *check_config);
/* Rewrites the record with check flag 1 (check_flag 1) or 0 (otherwise). */
QMX_API QMX_STATUS QMX_SetDiskConfig(int check_flag);
/* Captures the present LU map of every adapter into check_config (cleared
   first) and records it, keeping the recorded check flag. */
QMX_API QMX_STATUS QMX_AutoSetDiskConfig(QMX_DISK_CONFIG *check_config);
/* Frees every level below the root and clears it; NULL does nothing. */
QMX_API void QMX_DiskConfigTblFree(QMX_DISK_CONFIG *tbl);

/* @@HOSTINFO@@ aliases, host and port information, defaults, reflection, target scan */
/* Alias names, kept in "/etc/qmxlib.conf" by port WWN.  Getters clear size
   bytes of aliasname and copy at most size characters (no terminator when
   the name fills size).  Setters check the first size bytes of aliasname:
   pass size equal to the name's length. */
QMX_API QMX_STATUS QMX_GetHbaAliasName(QMX_WWN wwn, char *aliasname, size_t size);
QMX_API QMX_STATUS QMX_SetHbaAliasName(QMX_WWN wwn, char *aliasname, size_t size);
QMX_API QMX_STATUS QMX_GetPortAliasName(QMX_WWN wwn, char *aliasname, size_t size);
QMX_API QMX_STATUS QMX_SetPortAliasName(QMX_WWN wwn, char *aliasname, size_t size);

/* Host, package and port information. */
typedef struct QMX_Package {
    char PackageCode[64];
} QMX_PACKAGE;
typedef struct QMX_OpticalAttributes {
    char VendorName[64];
    char SerialNumber[64];
} QMX_OPTICALATTRIBUTES;

/* One adapter port as the BIOS tool lists it. */
#define QMX_DEVICE_SHOW_MAX 256
typedef struct qmx_device_entry {
    char       deviceName[64];   /* "qmxldd0" */
    char       deviceID[9];
    int        busNO;
    int        deviceNO;
    int        funcNO;
    QMX_WWN    additional;       /* most significant byte first */
    QMX_WWN    original;
} QMX_DEVICE_ENTRY;
typedef struct qmx_device_show {
    QMX_DEVICE_ENTRY list[QMX_DEVICE_SHOW_MAX];
    int list_max;                /* entries filled */
} QMX_DEVICE_SHOW;
QMX_CHECK_SIZE(QMX_PACKAGE, 64);
QMX_CHECK_SIZE(QMX_OPTICALATTRIBUTES, 128);
QMX_CHECK_SIZE(QMX_DEVICE_ENTRY, 104);
QMX_CHECK_OFFSET(QMX_DEVICE_ENTRY, busNO, 76);
QMX_CHECK_OFFSET(QMX_DEVICE_ENTRY, additional, 88);
QMX_CHECK_SIZE(QMX_DEVICE_SHOW, 256 * 104 + 4);

QMX_API QMX_STATUS QMX_GetHostName(char *hostname, size_t size);
/* First line of "/etc/redhat-release", else of the first "/etc" entry whose
   name contains "-release". */
QMX_API QMX_STATUS QMX_GetOSName(char *osname, size_t size);
/* The kernel release. */
QMX_API QMX_STATUS QMX_GetOSVersion(char *osversion, size_t size);
QMX_API QMX_STATUS QMX_GetPackageInformation(QMX_WWN wwn, QMX_PACKAGE *packagecode);
QMX_API QMX_STATUS QMX_GetOpticalModuleInfomation(QMX_WWN wwn, QMX_OPTICALATTRIBUTES *pOpticalAttributes);
/* The additional port name kept by the boot firmware; the node name is the
   port name with its last byte plus one (no carry), zero when it is zero. */
QMX_API QMX_STATUS QMX_GetAdditionalWWPN(QMX_WWN wwn, QMX_WWN *S_additionalWWPN, QMX_WWN *S_additionalWWNN);
QMX_API QMX_STATUS QMX_SetAdditionalWWPN(QMX_WWN wwn, QMX_WWN additionalWWPN);
/* The BIOS tool's device list (at most QMX_DEVICE_SHOW_MAX entries). */
QMX_API QMX_STATUS QMX_GetDeviceInfo(QMX_DEVICE_SHOW *device_list);

/* Driver-wide defaults of "/etc/qmxldd.conf" in one record.  Fields the
   file does not set keep their presets: 0 for maxTransfer, preferred and
   queueDepth, -1 (all bits set) for every other field. */
#define QMX_RETRY_CNT_ENTRIES 1000
typedef struct qmx_all_def_param {
    QMX_TRANSFERSIZE  maxTransfer;
    QMX_UINT32        linkDown;
    QMX_UINT32        resetDelay;
    int               mckRetry;
    QMX_PREFERREDALPA preferred;
    QMX_UINT32        resetTmo;
    QMX_UINT32        abortTmo;
    QMX_UINT32        queueDepth;
    int               scsiAllowed;
    int               scatterGather;   /* never filled */
    int               mscs;            /* never filled */
    int               tmtDelay;
    int               retryCnt[QMX_RETRY_CNT_ENTRIES];  /* by error number */
    int               isolateType;     /* 2 (file 0), 1, or -1 */
    int               ldErrIntval;
    int               ldErrLimitL;
    int               ldErrLimitS;
    int               ifErrIntvl;
    int               ifErrLimit;
    int               toErrIntvl;
    int               toErrLimit;
    int               rtErrFlag;       /* 0, 1 or -1 */
    int               mbLoginRetry;
    int               mbELSRetry;
    int               mbTORetry;
    int               scsiCmdRetry;
    int               abortTRestrain;  /* 0, 1 or -1 */
    int               alter_path;
    int               offline_path;
    int               pathchk_to;
    int               LUNReset;
    int               interrupt;
    int               target_rst;      /* 0, 1 or -1 */
    int               log_mode;
    int               tgt_filter;
} QMX_ALL_DEF_PARAM;

QMX_API QMX_STATUS QMX_GetAllTargetParam(QMX_ALL_DEF_PARAM *altg_param);
/* The boot firmware's force-default-parameter switch: flag 0 reads it into
   *set_flag (1 enabled, 2 disabled), flag 1 writes *set_flag (1 on, 0 off). */
QMX_API QMX_STATUS QMX_PortSettingDefaultValue(QMX_WWN wwn, QMX_UINT32 *set_flag, QMX_UINT32 flag);
/* Target rescan on device "/dev/<device>".  Returns 0 once the driver
   answered; the outcome is the reason code: 0 done, 41, 40 or 39 for the
   driver's results 1, 2 and 3, 10 for any other result. */
QMX_API QMX_STATUS QMX_TgtScan(char *device);
/* Disk rescan behind one port.  Always returns 0; a failure shows only in
   the API trace. */
QMX_API QMX_STATUS QMX_DiskRescan(QMX_WWN wwn);
/* Asks the driver on "/dev/<device>" to take changed parameters into use;
   the driver's reply stays in *diag. */
QMX_API QMX_STATUS QMX_Reflect_ChgParam(char *device, struct diag_ioctl *diag);

#ifdef __cplusplus
}
#endif

#endif /* QMXVLIB_H */
