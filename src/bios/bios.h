// Internal interface of the BIOS tool runner, its configuration listing
// reader and the EFI driver option area.  Nothing here is exported from the
// shared object; the port-parameter, binding and firmware modules call these
// routines directly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "qmxvlib.h"

// ---------------------------------------------------------------------------
// Runner options: the index into the option word table.
// ---------------------------------------------------------------------------
enum qmx_bios_option : int {
    QMXBIOS_OPT_BACKUP = 1,           // "backup"        (filename; ind -1 = all adapters)
    QMXBIOS_OPT_RESTORE = 2,          // "restore"       (filename)
    QMXBIOS_OPT_BIOS = 3,             // "bios"          (status)
    QMXBIOS_OPT_BOOT_PRIORITY = 4,    // "boot_priority" (status)
    QMXBIOS_OPT_BOOT_DEVICE = 5,      // "boot_device"   (boot_pri, 8 commands)
    QMXBIOS_OPT_BOOT_DEVICE_RAW = 6,  // empty word, as 5
    QMXBIOS_OPT_BOOT_PRI_CLEAR = 7,   // "boot_priority_Clear": nothing is run
    QMXBIOS_OPT_SPINUP_DELAY = 8,     // "spinup_delay"  (status)
    QMXBIOS_OPT_CONNECTION_TYPE = 9,  // "connection_type" (connect_type 1..3)
    QMXBIOS_OPT_DATA_RATE = 10,       // "data_rate"     (data_rate 0,1,2,4,8,10)
    QMXBIOS_OPT_PERSISTENT_BIND = 11, // "persistent_bindings" (status)
    QMXBIOS_OPT_FORCE_DEFAULT = 12,   // "force_default_parameter" (status)
    QMXBIOS_OPT_WWN_OF_HBA = 13,      // "wwn_of_hba"    (addwwn)
    QMXBIOS_OPT_LOGIN_DELAY = 14,     // "login_delay_time" (login_delay 0..60, -1)
    QMXBIOS_OPT_PRE_CONFIGURE = 15,   // "pre_configure" (status)
    QMXBIOS_OPT_CFG_ENABLE = 16,      // "cfgEnable"
    QMXBIOS_OPT_CFGSHOWEX = 17,       // "cfgshowex" -> QMX_G_cfgshow
    QMXBIOS_OPT_TRGSHOW = 18,         // "trgshow"   -> QMX_G_trgshow
    QMXBIOS_OPT_LOG_ERASE = 19,       // "log_erase"
    QMXBIOS_OPT_ERROR_LOGGING = 20,   // "errorlogging"  (status)
    QMXBIOS_OPT_OVERWRITE_MODE = 21,  // "overwritemode" (overwritemode 1..3)
    QMXBIOS_OPT_APRESTART = 22,       // "aprestart"
    QMXBIOS_OPT_DEVSHOW = 23,         // "devshow"   -> QMX_G_devshow, no device
};
constexpr int kQmxbiosOptionCount = 24;
constexpr int kBootPriorityRows = 8;
constexpr int kCfgListEntries = 12;

struct qmx_boot_pri_row {
    uint8_t wwn[8];  // most significant byte first
    uint32_t lun;
};

// Argument record of the runner; the caller fills only what its option uses.
struct qmx_bios_param {
    char *filename;      // backup directory or restore file (options 1, 2)
    int status;          // 1 enable, 0 disable (on/off options)
    qmx_boot_pri_row boot_pri[kBootPriorityRows];  // option 5
    int connect_type;    // 1 auto, 2 point to point, 3 loop (option 9)
    int data_rate;       // 0 auto, or 1, 2, 4, 8, 10 (option 10)
    QMX_WWN addwwn;      // option 13
    int login_delay;     // 0..60, -1 = tool default (option 14)
    int overwritemode;   // 1 notovr, 2 allent, 3 lasent (option 21)
};

// Decoder table row: text searched for, value stored.
struct qmx_cfg_tag {
    const char *status;
    int value;
};

// One decoded listing setting.
struct qmx_cfg_list_tag {
    const char *param_name;
    uint64_t param_val;  // all bits set until a listing line sets it
};

struct qmx_cfg_boot_priority_tag {
    uint64_t wwn;
    int lun;
};

// Indexes of QMX_G_CfgList.
enum qmx_cfg_index : int {
    QMX_CFG_HBA_BIOS = 0,
    QMX_CFG_BOOT_PRIORITY = 1,
    QMX_CFG_SPINUP_DELAY = 2,
    QMX_CFG_CONNECTION_TYPE = 3,
    QMX_CFG_DATA_RATE = 4,
    QMX_CFG_PERSISTENT_BINDINGS = 5,
    QMX_CFG_FORCE_DEFAULT = 6,
    QMX_CFG_ADDITIONAL_WWPN = 7,
    QMX_CFG_LOGIN_DELAY = 8,
    QMX_CFG_ERROR_LOGGING = 9,
    QMX_CFG_OVERWRITE_MODE = 10,
    QMX_CFG_PRE_CONFIGURE = 11,
};

// Process-wide tables owned by the listing reader (bios_listing.cpp).
extern qmx_cfg_list_tag QMX_G_CfgList[kCfgListEntries];
extern qmx_cfg_boot_priority_tag QMX_G_BootPriority[kBootPriorityRows];
extern int bt_st;  // boot-table row cursor, -1 outside the table
extern const qmx_cfg_tag statueVal[2];
extern const qmx_cfg_tag connectionType[3];
extern const qmx_cfg_tag dataRate[6];
extern const qmx_cfg_tag ovrwrtMode[3];

// Listing file paths, set by the runner for options 17, 18 and 23.
extern char QMX_G_cfgshow[128];
extern char QMX_G_devshow[128];
extern char QMX_G_trgshow[256];
// The option words, indexed by option number.
extern const char *const optionName[kQmxbiosOptionCount];

// Runs the BIOS tool under exclusive lock 6.  0 success, -1 failure (code
// 11), 5 when the lock could not be taken.  ind is the port index; -1 only
// with option 1 (all adapters) and option 23 (no device).
int qmx_ExecQmxbios(int ind, int option, qmx_bios_param *param);

// Runs option 17 for the port and decodes the listing into QMX_G_CfgList and
// QMX_G_BootPriority.  0 / -1.
int qmx_GetQmxbiosInfo(int ind);

// The low byte of decoded listing entry `index` (QMX_CFG_*): 1 enabled, 2
// disabled for the on/off entries, 255 while no listing has shown the line.
// Indexes outside the list read 255.
uint8_t qmx_CfgListByte(int index) noexcept;

// Bodies of the exported calls for one on/off BIOS setting, run under the
// call name `name`.  The getter reads listing entry `entry` (QMX_CFG_*): 1
// enabled, 2 disabled, 255 when no listing has ever shown the line; a null
// output traces "<arg> == NULL".  The setter runs option `option`
// (QMXBIOS_OPT_*) with 1 to enable or 0 to disable; any other value traces
// "<arg> is invalid value".
QMX_STATUS qmx_GetListedOnOff(const char *name, QMX_WWN wwn, QMX_UINT32 *out, const char *arg,
                              int entry);
QMX_STATUS qmx_SetOnOffOption(const char *name, QMX_WWN wwn, QMX_UINT32 value, const char *arg,
                              int option);

// One listing line (always 0).
int qmx_CfgAnalyze(char *buf);
// One titled line into entry ind.  0 / -1 ("unknown format", code 10).
int qmx_CfgLineAnalyze(char *buf, int ind);
// One boot-table row into row level (rows past the table are dropped).
int qmx_BootPriorityAnalyze(char *buf, int level);

// The listing parser proper, shared by qmx_GetQmxbiosInfo and the fuzz
// target: reads the stream line by line (1023 characters at most a line) and
// hands every line to qmx_CfgAnalyze.  Returns the number of lines.
long qmx_CfgParseStream(FILE *fp);
// The same over a memory buffer (any bytes, any length).  0 / -1.
int qmx_CfgParseBuffer(const char *data, std::size_t len);

// EFI driver option area: reads (flag 0) or writes (flag != 0) one option
// byte at `offset` (515 connection type, 516 data rate, 518 login delay).
// 0 success, 1 open failed, 2 read failed, 3 word write failed, 4 store failed.
int qmx_EFIDrvOption(int index, unsigned char *data, int flag, int offset);

// EFI option byte offsets used by the port-parameter calls.
constexpr int kEfiOptConnectType = 515;
constexpr int kEfiOptDataRate = 516;
constexpr int kEfiOptLoginDelay = 518;
