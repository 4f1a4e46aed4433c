// ports, show, get, set, unset and bi.
#include <cstdio>
#include <cstring>
#include <iostream>

#include "commands.h"
#include "params.h"
#include "ports.h"
#include "tracefile.h"

namespace qmxmgr {

namespace {

// Text from the driver or the trace may hold bytes that are not UTF-8.
void printJson(const json &j) {
    std::cout << j.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
}

json valueJson(std::optional<long long> v) {
    if (!v) return nullptr;
    return *v;
}

json errorJson(const CallError &e) {
    return json{{"call", e.call()}, {"code", e.code()}, {"reason", reasonText(e.code())}};
}

// The port's details (model, firmware, ...) when the driver knows it.
PortInfo detailsOf(const PortRef &r) {
    for (PortInfo &p : listPorts(true))
        if (std::memcmp(p.wwn.wwn, r.wwn.wwn, 8) == 0) return p;
    PortInfo p;
    p.wwn = r.wwn;
    return p;
}

std::string portLabel(const PortRef &r) {
    if (r.allPorts) return "the driver (all ports)";
    if (r.info) return r.info->device + " (" + wwnText(r.wwn) + ")";
    return wwnText(r.wwn);
}

// Reads one parameter; a failure is returned, not thrown, so that a
// listing can go on with the other parameters.
std::optional<CallError> readParam(const Param &p, const QMX_WWN &w, Reading &rd) {
    QMX_STATUS st = p.get(w, rd);
    if (st != 0) return CallError(p.getCall, QMX_LastErrorCode());
    if (!p.hasCurrent) rd.current.reset();
    if (!p.hasSetting) rd.setting.reset();
    return std::nullopt;
}

}  // namespace

int cmdPorts(const Options &o) {
    std::vector<PortInfo> ports = listPorts(true);
    if (o.json) {
        json arr = json::array();
        for (const PortInfo &p : ports) arr.push_back(portJson(p));
        printJson(json{{"ports", arr}});
        return kExitOk;
    }
    if (ports.empty()) {
        std::cout << "No ports found.\n";
        reportMissingHostPieces();
        return kExitOk;
    }
    std::printf("%-4s %-10s %-23s %-8s %-16s %-9s %s\n", "NUM", "DEVICE", "WWN", "PCI", "MODEL",
                "FIRMWARE", "STATUS");
    for (const PortInfo &p : ports) {
        std::printf("%-4d %-10s %-23s %-8s %-16s %-9s %s\n", p.number, p.device.c_str(),
                    wwnText(p.wwn).c_str(), pciText(p).c_str(),
                    p.detailed ? p.model.c_str() : "-",
                    p.detailed ? firmwareText(p.firmware).c_str() : "-",
                    p.detailed ? statusText(p.status).c_str() : "unknown");
    }
    return kExitOk;
}

int cmdShow(const Options &o) {
    PortRef r = resolvePort(o.port, false);
    PortInfo info = detailsOf(r);
    json rows = json::array();
    std::vector<CallError> failures;
    if (!o.json) {
        std::printf("Port %s  WWN %s  PCI %s", info.device.empty() ? "?" : info.device.c_str(),
                    wwnText(r.wwn).c_str(), pciText(info).c_str());
        if (info.detailed)
            std::printf("  model %s  firmware %s  %s", info.model.c_str(),
                        firmwareText(info.firmware).c_str(), statusText(info.status).c_str());
        std::printf("\n");
    }
    // The alias names; a failure to read them is reported with the others.
    json aliases = nullptr;
    try {
        Aliases a = readAliases(r.wwn);
        aliases = json{{"hba", a.hba}, {"port", a.port}};
        if (!o.json)
            std::printf("HBA alias %s  Port alias %s\n", a.hba.empty() ? "-" : a.hba.c_str(),
                        a.port.empty() ? "-" : a.port.c_str());
    } catch (const CallError &e) {
        failures.push_back(e);
    }
    if (!o.json) std::printf("\n%-28s %-14s %s\n", "PARAMETER", "CURRENT", "SETTING");
    for (const Param &p : paramTable()) {
        if (!p.get) continue;
        Reading rd;
        std::optional<CallError> err = readParam(p, r.wwn, rd);
        if (o.json) {
            json row{{"name", p.name}};
            if (err) {
                row["error"] = errorJson(*err);
            } else {
                row["current"] = valueJson(rd.current);
                row["setting"] = p.hasSetting ? valueJson(rd.setting) : json(nullptr);
            }
            if (!p.unit.empty()) row["unit"] = p.unit;
            rows.push_back(row);
        } else if (err) {
            std::printf("%-28s %-14s %s\n", p.name.c_str(), "error", "error");
        } else {
            std::printf("%-28s %-14s %s\n", p.name.c_str(), valueText(p, rd.current).c_str(),
                        p.hasSetting ? valueText(p, rd.setting, true).c_str() : "");
        }
        if (err) failures.push_back(*err);
    }
    if (o.json)
        printJson(json{{"port", portJson(info)}, {"aliases", aliases}, {"parameters", rows}});
    for (const CallError &e : failures)
        std::cerr << "qmxmgr: " << failureLine(e.call(), e.what()) << "\n";
    return failures.empty() ? kExitOk : kExitFailed;
}

int cmdGet(const Options &o) {
    if (o.allPorts != (o.args.size() == 1))
        throw UsageError(o.allPorts ? "get --all-ports takes only PARAM"
                                    : "get needs PORT and PARAM");
    const Param &p = findParam(o.args.back());
    if (!p.get) throw UsageError(p.name + " cannot be read");
    if (!o.allPorts) {
        PortRef r = resolvePort(o.args[0], false);
        Reading rd;
        if (auto err = readParam(p, r.wwn, rd)) throw *err;
        if (o.json) {
            printJson(json{{"port", r.info ? portJson(*r.info) : json{{"wwn", wwnText(r.wwn)}}},
                           {"name", p.name},
                           {"current", valueJson(rd.current)},
                           {"setting", p.hasSetting ? valueJson(rd.setting) : json(nullptr)}});
        } else {
            std::printf("%s current %s", p.name.c_str(), valueText(p, rd.current).c_str());
            if (p.hasSetting) std::printf(" setting %s", valueText(p, rd.setting, true).c_str());
            std::printf("\n");
        }
        return kExitOk;
    }
    json rows = json::array();
    std::vector<CallError> failures;
    if (!o.json) std::printf("%-10s %-23s %-14s %s\n", "DEVICE", "WWN", "CURRENT", "SETTING");
    for (const PortInfo &port : listPorts(false)) {
        Reading rd;
        std::optional<CallError> err = readParam(p, port.wwn, rd);
        if (o.json) {
            json row{{"port", portJson(port)}};
            if (err) {
                row["error"] = errorJson(*err);
            } else {
                row["current"] = valueJson(rd.current);
                row["setting"] = p.hasSetting ? valueJson(rd.setting) : json(nullptr);
            }
            rows.push_back(row);
        } else {
            std::printf("%-10s %-23s %-14s %s\n", port.device.c_str(),
                        wwnText(port.wwn).c_str(),
                        err ? "error" : valueText(p, rd.current).c_str(),
                        err ? "error" : (p.hasSetting ? valueText(p, rd.setting, true).c_str() : ""));
        }
        if (err) failures.push_back(*err);
    }
    if (o.json) printJson(json{{"name", p.name}, {"ports", rows}});
    for (const CallError &e : failures)
        std::cerr << "qmxmgr: " << failureLine(e.call(), e.what()) << "\n";
    return failures.empty() ? kExitOk : kExitFailed;
}

int cmdSet(const Options &o, bool unset) {
    std::size_t want = (o.allPorts ? 1u : 2u) + (unset ? 0u : 1u);
    if (o.args.size() != want)
        throw UsageError(std::string(unset ? "unset" : "set") + " needs " +
                         (o.allPorts ? "" : "PORT ") + "PARAM" + (unset ? "" : " VALUE"));
    PortRef r = o.allPorts ? allPortsRef() : resolvePort(o.args[0], true);
    const Param &p = findParam(o.args[o.allPorts ? 0 : 1]);
    if (!p.set) throw UsageError(p.name + " is read-only");
    if (unset && !p.canUnset)
        throw UsageError(p.name + " has no stored setting to remove; set a value instead");
    if (p.scope == Scope::DriverOnly && !r.allPorts)
        throw UsageError(p.name + " is one value for the whole driver: use --all-ports");
    if (p.scope == Scope::PortOnly && r.allPorts)
        throw UsageError(p.name + " is kept by each port's boot firmware: name a port");
    long long value = unset ? 0 : parseValue(p, o.args.back());
    QMX_WWN w{};
    if (!r.allPorts) w = r.wwn;
    check(p.set(w, value, unset), p.setCall.c_str());
    const char *where = p.scope == Scope::PortOnly
                            ? "in the adapter's boot firmware"
                            : "in /etc/qmxldd.conf; the driver takes it at its next load";
    if (unset)
        std::printf("%s of %s removed %s\n", p.name.c_str(), portLabel(r).c_str(), where);
    else
        std::printf("%s of %s set to %s %s\n", p.name.c_str(), portLabel(r).c_str(),
                    valueText(p, value).c_str(), where);
    return kExitOk;
}

int cmdBios(const Options &o) {
    PortRef r = resolvePort(o.port, false);
    if (o.state.empty()) {
        QMX_BIOSSETTING s = 0;
        check(QMX_GetHBABiosSetting(r.wwn, &s), "QMX_GetHBABiosSetting");
        const char *text = s == 1 ? "enabled" : s == 2 ? "disabled" : "unknown";
        if (o.json)
            printJson(json{{"port", portLabel(r)}, {"hba_bios", text}, {"value", s}});
        else
            std::printf("HBA BIOS of %s: %s\n", portLabel(r).c_str(), text);
        return kExitOk;
    }
    QMX_BIOSSETTING v = o.state == "enable" ? 1 : 0;
    check(QMX_SetHBABiosSetting(r.wwn, v), "QMX_SetHBABiosSetting");
    std::printf("HBA BIOS of %s %s\n", portLabel(r).c_str(), v ? "enabled" : "disabled");
    return kExitOk;
}

void addPortCommands(CommandLine &cl) {
    auto o = std::make_shared<Options>();
    CLI::App &app = cl.app;

    auto *ports = app.add_subcommand("ports", "List the ports with device, WWN, PCI address, "
                                              "model, firmware and status");
    ports->add_flag("--json", o->json, "JSON output");
    cl.on(ports, [o] { return cmdPorts(*o); });

    auto *show = app.add_subcommand("show", "Every parameter of a port, current and setting value");
    show->add_option("PORT", o->port, kPortHelp)->required();
    show->add_flag("--json", o->json, "JSON output");
    cl.on(show, [o] { return cmdShow(*o); });

    auto *get = app.add_subcommand("get", "One parameter: get PORT PARAM, or get --all-ports PARAM");
    get->add_flag("--all-ports", o->allPorts, "Every port");
    get->add_option("ARGS", o->args, "PORT PARAM (PARAM alone with --all-ports)")
        ->required()->expected(1, 2);
    get->add_flag("--json", o->json, "JSON output");
    cl.on(get, [o] { return cmdGet(*o); });

    auto *set = app.add_subcommand(
        "set", "Store a setting: set PORT PARAM VALUE, or set --all-ports PARAM VALUE "
               "(driver-wide value; the all-zero WWN does the same)");
    set->add_flag("--all-ports", o->allPorts, "The driver-wide value");
    set->add_option("ARGS", o->args, "PORT PARAM VALUE (PARAM VALUE with --all-ports)")
        ->required()->expected(2, 3);
    cl.on(set, [o] { return cmdSet(*o, false); });

    auto *unset = app.add_subcommand("unset", "Remove a stored setting: unset PORT PARAM, or "
                                              "unset --all-ports PARAM");
    unset->add_flag("--all-ports", o->allPorts, "The driver-wide value");
    unset->add_option("ARGS", o->args, "PORT PARAM (PARAM alone with --all-ports)")
        ->required()->expected(1, 2);
    cl.on(unset, [o] { return cmdSet(*o, true); });

    app.add_option("-b,--board", o->board,
                   "Port (device name, WWN or adapter number) for the bi command");
    auto *bi = app.add_subcommand("bi", "HBA BIOS setting of the -b port: bi [enable|disable]");
    bi->add_option("STATE", o->state, "enable or disable; none: show")
        ->check(CLI::IsMember({"enable", "disable"}));
    bi->add_flag("--json", o->json, "JSON output");
    cl.on(bi, [o] {
        if (o->board.empty()) throw UsageError("bi needs the port: qmxmgr -b DEVICE bi ...");
        o->port = o->board;
        return cmdBios(*o);
    });
}

}  // namespace qmxmgr
