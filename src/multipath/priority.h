// LU priorities and path control on the binding items of the configuration
// file: the routines behind QMX_GetLUPriorityCnt, QMX_GetLUPriority,
// QMX_SetLUPriority, QMX_ReleasePathControl and QMX_ChangePathAttribute.
// Each works on the binding tables that read_qmxldd_conf has filled.
#pragma once

#include "qmxvlib.h"

// Entries of the last listing.
extern int lu_list_max;
// The value text set_modify_manually stores.
extern char bind_data[40];

// Parses the file and lists every target with a group and an attribute, by
// group 0..63, adapter 0..255, then table order; fills list (when given)
// while the index is below lu_list_max.  The count, or -1.
int display_lu_priority(QMX_LU_PRIORITY *list);
// Removes the first record of that kind, adapter and target.  1 when one was
// removed, 0 when none, -1 (code 10) for an adapter or target out of range.
int delete_select_bind(int kind, int adapt, int target);
// Dissolves a path group: its targets become unconfigured groups of their own,
// their priority records go, every group is renumbered.  0 or -1 (code 10).
int release_multipath_by_group(int group);
// Stores bind_data as the value of that kind for the adapter and target (in
// every such record, or in a new one).  0 or -1 (code 10).
int set_modify_manually(int kind, int adapt, int target);
// Moves the attribute 1 mark of the target's group to its other targets.
void change_path_attribute(int adapter, int target);
// Sets (priority 1) or clears (0) the LUN's bit in the target's priority word.
void modify_priority_by_lun(int adapter, int target, int lun, int priority);
