// qmxmgr - command-line manager of the qmxldd Fibre Channel HBA driver.
//
//   qmxmgr ports                         the ports with device, WWN, PCI address, ...
//   qmxmgr show PORT                     every port parameter, current and setting value
//   qmxmgr get PORT PARAM                one parameter (get --all-ports PARAM: every port)
//   qmxmgr set PORT PARAM VALUE          store a setting (set --all-ports: driver-wide)
//   qmxmgr unset PORT PARAM              remove a stored setting
//   qmxmgr numbering [--configured]      adapter numbers (set, remove, rebind, delete-path)
//   qmxmgr trace [--follow]              the library's API trace, oldest line first
//   qmxmgr -b DEVICE bi enable|disable   the HBA BIOS switch
//
// PORT is a WWN (16 hex digits, colons optional), a device name (qmxldd0) or
// an adapter number.  Read commands take --json.  Exit status: 0 success,
// 1 a library call failed (one line names the call and the reason), 2 a
// usage error.

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
    std::string board;
    app.add_option("-b,--board", board,
                   "Port (device name, WWN or adapter number) for the bi command");
    std::string portHelp = "PORT: WWN (16 hex digits, colons optional), device (qmxldd0) "
                           "or adapter number";

    Options o;

    auto *ports = app.add_subcommand("ports", "List the ports with device, WWN, PCI address, "
                                              "model, firmware and status");
    ports->add_flag("--json", o.json, "JSON output");

    auto *show = app.add_subcommand("show", "Every parameter of a port, current and setting value");
    show->add_option("PORT", o.port, portHelp)->required();
    show->add_flag("--json", o.json, "JSON output");

    auto *get = app.add_subcommand("get", "One parameter: get PORT PARAM, or get --all-ports PARAM");
    get->add_flag("--all-ports", o.allPorts, "Every port");
    get->add_option("ARGS", o.args, "PORT PARAM (PARAM alone with --all-ports)")
        ->required()->expected(1, 2);
    get->add_flag("--json", o.json, "JSON output");

    auto *set = app.add_subcommand(
        "set", "Store a setting: set PORT PARAM VALUE, or set --all-ports PARAM VALUE "
               "(driver-wide value; the all-zero WWN does the same)");
    set->add_flag("--all-ports", o.allPorts, "The driver-wide value");
    set->add_option("ARGS", o.args, "PORT PARAM VALUE (PARAM VALUE with --all-ports)")
        ->required()->expected(2, 3);

    auto *unset = app.add_subcommand("unset", "Remove a stored setting: unset PORT PARAM, or "
                                              "unset --all-ports PARAM");
    unset->add_flag("--all-ports", o.allPorts, "The driver-wide value");
    unset->add_option("ARGS", o.args, "PORT PARAM (PARAM alone with --all-ports)")
        ->required()->expected(1, 2);

    auto *numbering = app.add_subcommand(
        "numbering", "Adapter numbers: as the driver has them, or --configured as "
                     "/etc/qmxldd.conf fixes them");
    numbering->add_flag("--configured", o.configured, "The numbering in /etc/qmxldd.conf");
    numbering->add_flag("--json", o.json, "JSON output");
    numbering->require_subcommand(0, 1);
    auto *nset = numbering->add_subcommand(
        "set", "Give ports numbers: set NUMBER PORT [NUMBER PORT ...]");
    nset->add_option("PAIRS", o.args, "NUMBER PORT pairs")->required();
    auto *nremove = numbering->add_subcommand(
        "remove", "Remove the numbers bound to ports: remove PORT [PORT ...]");
    nremove->add_option("PORTS", o.args, portHelp)->required();
    auto *nrebind = numbering->add_subcommand(
        "rebind", "Bind existing numbers to other WWNs: rebind NUMBER PORT [NUMBER PORT ...]");
    nrebind->add_option("PAIRS", o.args, "NUMBER PORT pairs")->required();
    auto *ndelete = numbering->add_subcommand(
        "delete-path", "Remove a port's device path from the driver and /dev");
    ndelete->add_option("PORT", o.port, portHelp)->required();
    int devno = -1;
    ndelete->add_option("--devno", devno, "Device number to send the request to "
                                          "(default: the port's own)");

    auto *trace = app.add_subcommand("trace", "The library's API trace, oldest line first");
    trace->add_flag("-f,--follow", o.follow, "Keep printing new lines as they are written");
    trace->add_option("-n,--lines", o.lines, "Only the last N lines");
    trace->add_flag("--json", o.json, "JSON output");

    auto *bi = app.add_subcommand("bi", "HBA BIOS setting of the -b port: bi [enable|disable]");
    bi->add_option("STATE", o.state, "enable or disable; none: show")
        ->check(CLI::IsMember({"enable", "disable"}));
    bi->add_flag("--json", o.json, "JSON output");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }

    try {
        if (*ports) return cmdPorts(o);
        if (*show) return cmdShow(o);
        if (*get) return cmdGet(o);
        if (*set) return cmdSet(o, false);
        if (*unset) return cmdSet(o, true);
        if (*numbering) {
            if (*nset) return cmdNumberingChange(o, QMX_ADPNUM_OPR_ASSIGN);
            if (*nremove) return cmdNumberingChange(o, QMX_ADPNUM_OPR_REMOVE);
            if (*nrebind) return cmdNumberingChange(o, QMX_ADPNUM_OPR_REBIND);
            if (*ndelete) return cmdDeletePath(o, devno);
            return cmdNumbering(o);
        }
        if (*trace) return cmdTrace(o);
        if (*bi) {
            if (board.empty()) throw UsageError("bi needs the port: qmxmgr -b DEVICE bi ...");
            o.port = board;
            return cmdBios(o);
        }
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
    return kExitUsage;
}
