// The command groups of qmxmgr, in the order the help text lists them.
#include "commands.h"

namespace qmxmgr {

const char *const kPortHelp =
    "PORT: WWN (16 hex digits, colons optional), device (qmxldd0) or adapter number";

const std::vector<AddCommands> kCommandGroups = {
    addPortCommands,
    addNumberingCommands,
    addHostInfoCommands,
    addBindingCommands,
    addPriorityCommands,
    addMultipathCommands,
    addTraceCommands,
    addLockCommands,
    addConfigCommands,
    addBiosCommands,
    addIsolationCommands,
    addMetricsCommands,
    addDiskConfCommands,
    addDocCommands,
};

}  // namespace qmxmgr
