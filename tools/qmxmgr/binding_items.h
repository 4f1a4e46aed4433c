// The target items of the persistent binding in /etc/qmxldd.conf
// ("qmxl<N>-tid-<T>-<kind>=value"): read per adapter number and target, and
// rewritten for one adapter through the library's key list reader and
// configuration file writer, under exclusive lock 1 as every setter of the
// file takes it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "common.h"

namespace qmxmgr {

// Splits "qmxl<N>-tid-<T>-<kind>" and "qmxl<N>-wwpn" (tid -1); false for
// other keys.
bool splitBindingKey(const std::string &key, int *adapter, int *tid, std::string *kind);

// kind word ("wwpn", "gt", "priority0", ...) -> value text
using TargetItems = std::map<std::string, std::string>;
using AdapterTargets = std::map<int, TargetItems>;  // by target id

// The stored target items of adapter number `adapter`.  The file is read
// once (and again after a write or forgetStoredTargets()).  Throws CallError.
const AdapterTargets &storedTargets(int adapter);
// Makes the next storedTargets() read the file again: each plan and export
// starts from the file as it is then.
void forgetStoredTargets();

// Makes the stored items of `kinds` of adapter `adapter` equal to `want`:
// values change in place, items `want` lacks are removed, new ones follow
// the last item of their target (in the order of `kinds`; a target without
// any comes at the end).  Items of
// other kinds and other adapters are kept.  When the adapter has no
// "qmxl<N>-wwpn" item one is added for `wwn`, so that the targets stay with
// the port.  With `dropOthers`, a target `want` lacks loses its items of
// every kind (an unbound target keeps no path group or priorities).  Throws
// CallError.
void storeTargets(int adapter, const QMX_WWN &wwn, const std::vector<std::string> &kinds,
                  const AdapterTargets &want, bool dropOthers = false);

}  // namespace qmxmgr
