// Internal interface of the disk configuration record: the LU map file
// "/opt/kestrel/drivers/hba/qmxldd_lumap.conf", its reader and writer, and
// the capture of the present LU map from the multipath driver.
#pragma once

#include <cstdint>
#include <string>

#include "qmxvlib.h"

constexpr const char *kLuMapPath = "/opt/kestrel/drivers/hba/qmxldd_lumap.conf";

// Makes sure the adapter record, then (unless tgt_cnt is -1) the target
// record, then (unless lu_cnt is -1) the LU record exist.  0 or -1 (code 9
// over a limit, code 1 when memory runs out).
int malloc_lumap_tbl(QMX_DISK_CONFIG *tbl, int adapt_cnt, int tgt_cnt, int lu_cnt);
// One line of the record into the tree.  0 or -1 (code 9 or 1).
int parse_lumap_line(char *line, QMX_DISK_CONFIG *tbl);
// The record file: flag and (with a tree) the whole tree.
int qmx_ReadLuMapConf(int *flag, QMX_DISK_CONFIG *tbl);
int qmx_WriteLuMapConf(int flag, QMX_DISK_CONFIG *tbl);
// The present LU map of every adapter port.
int qmx_GetCurrentLuMap(QMX_DISK_CONFIG *tbl);

namespace qmx::diskconf {

// The reader and writer on any path (the fixed-path routines above call
// them with kLuMapPath).
int readLuMap(const char *path, int *flag, QMX_DISK_CONFIG *tbl) noexcept;
int writeLuMap(const char *path, int flag, QMX_DISK_CONFIG *tbl) noexcept;
// The file text of a record, in writer order.  May throw std::bad_alloc.
void buildLuMapText(int flag, const QMX_DISK_CONFIG *tbl, std::string &out);
// One LU map reply (a buffer of QMX_MP_LU_SIZE(QMX_MP_LUMAP_MAX) bytes) into
// target t of adapter a, which exist.  false when the capture must stop (a
// LUN over the limit, code 9; no memory, code 1).
bool storeLuReply(const uint8_t *reply, QMX_DISK_CONFIG *tbl, int a, int t) noexcept;

}  // namespace qmx::diskconf
