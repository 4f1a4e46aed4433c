// qmxmgr - command-line manager of the qmxldd Fibre Channel HBA driver.
//
//   qmxmgr GROUP [VERB] [ARGS] [--json]
//
// `qmxmgr --help` lists the command groups, `qmxmgr GROUP --help` their verbs
// and operands.  PORT is a WWN (16 hex digits, colons optional), a device
// name (qmxldd0) or an adapter number.  Read commands take --json.  Exit
// status: 0 success, 1 a library call failed (one line names the call and
// the reason), 2 a usage error; a command may document another status of its
// own.

#include <CLI/CLI.hpp>
#include <iostream>

#include "commands.h"
#include "common.h"
#include "tracefile.h"

using namespace qmxmgr;

int main(int argc, char **argv) {
    CLI::App app{"qmxmgr - manage qmxldd Fibre Channel HBA ports through libqmxvlib",
                 "qmxmgr"};
    app.require_subcommand(1, 1);
    app.fallthrough();
    CommandLine cl{app, {}};
    for (AddCommands add : kCommandGroups) add(cl);

    try {
        app.parse(argc, argv);
        auto action = cl.chosen();
        if (!action) return kExitUsage;
        return action();
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    } catch (const UsageError &e) {
        std::cerr << "qmxmgr: " << e.what() << "\n";
        return kExitUsage;
    } catch (const CallError &e) {
        std::cerr << "qmxmgr: " << failureLine(e.call(), e.what()) << "\n";
        return kExitFailed;
    } catch (const std::exception &e) {
        std::cerr << "qmxmgr: " << e.what() << "\n";
        return kExitFailed;
    }
}
