// Persistent binding: the driver's target maps gathered into the binding
// tables (config/binding_tables.h), the tables merged into and parsed back
// from "/etc/qmxldd.conf", and the range checks shared by the binding,
// priority and component calls.
//
// The exported calls (QMX_AutoSetPersistentBinding, QMX_DeletePersistentBinding,
// QMX_Get/SetBindingAutoMapping, QMX_Get/SetForceBinding) are declared in
// qmxvlib.h; the routines here are their building blocks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "config/binding_tables.h"
#include "qmxvlib.h"

// ---------------------------------------------------------------------------
// Parser of the configuration file into the binding tables.
// ---------------------------------------------------------------------------

// Parses "/etc/qmxldd.conf" into TBLKEY (bind_cnt and pbind_cnt restart at
// 0; WWPN and wwpn_cnt are appended to, not reset).  Lines that follow the
// binding statement and are not parsed go to "/tmp/conf_modules4.hba".
// 0, or -1 (file failures, a table overflow: code 10).
int read_qmxldd_conf(void);
// One blank-separated token of a parsed line: each ":"-separated item that
// the token holds goes to make_qmxldd_table_bind.  0 or -1.
int make_qmxldd_table(char *tp);
// One key=value item into TBLKEY (qmxlN-tid-T-kind=value) or WWPN
// (qmxlN-wwpn=value).  0, or -1 when a table is full (code 10).
int make_qmxldd_table_bind(char *ttp);

// Range checks: mode 0 adapter number 0..255, 1 target id 0..255, 2 group
// 0..63, 3 attribute 0..3, 4 LUN (val >= 0 and (val & 0x7FFF) <= 2047).
// 0 when accepted, -1 otherwise (and for any other mode).  No message.
int check_bindings(int mode, int val);

// Copies characters from..to (inclusive) of src into dst and terminates it;
// nothing when to < from or from lies past the end.  dst must hold
// to - from + 2 bytes.  Returns the number of characters copied.
int substr(char *dst, char *src, int from, int to);
// Index of the first occurrence of the character *c in str, -1 if none.
int indx(char *str, char *c);

// ---------------------------------------------------------------------------
// Collector and merge.
// ---------------------------------------------------------------------------

// Gathers one adapter's target map into the tables (and into b_inf when
// given).  type 1 or 3 also gathers groups, attributes and priority words
// while the multipath layer is active.  0, or -1 when the device cannot be
// opened.
int QMX_adap_current_conf(char *device, int type, QMX_PERSISTENTBINDING *b_inf);
// Merges the binding tables into the configuration file (binding mode of
// the writer).  0 or -1.
int QMX_WriteBindInfo(void);

namespace qmx::binding {

// The reset before a collection over all adapters: every WWPN record unused
// (adapt -1), bind_cnt, pbind_cnt and wwpn_cnt 0.
void resetForCollect() noexcept;
// The reset before a parse by the priority and component calls: both tables
// all zero bytes, every count 0.
void clearTables() noexcept;
// Runs QMX_adap_current_conf for every existing "/dev/qmxlddN", N = 0..255
// in ascending order (results not looked at).
void collectAll(int type, QMX_PERSISTENTBINDING *b_inf) noexcept;

// Parses a configuration file at `conf` into the tables, as read_qmxldd_conf
// does; lines that are not parsed go to `rest` (nullptr: nowhere).
int readConf(const char *conf, const char *rest) noexcept;
// Parses configuration text held in memory into the tables, as
// read_qmxldd_conf parses a file (without its trace lines and rest file).
int parseText(const char *data, std::size_t len) noexcept;

}  // namespace qmx::binding
