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
   line; list must hold QMX_MODULES_CONF_ITEMS records.  0 or -1. */
#define QMX_MODULES_CONF_ITEMS 10
QMX_API int QMX_read_modules_conf(util_para *list);

/* @@PARAMS@@ port parameters and link settings */

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

QMX_API QMX_STATUS QMX_GetAdapterNumber(QMX_ADAPTERNUMBER *adapter_info, int mode);
QMX_API QMX_STATUS QMX_SetAdapterNumber(QMX_ADAPTERNUMBER *adapter_info);
QMX_API QMX_STATUS QMX_DeleteAdapterPath(QMX_WWN wwn, QMX_UINT8 devno);

#ifdef __cplusplus
}
#endif

#endif /* QMXVLIB_H */
