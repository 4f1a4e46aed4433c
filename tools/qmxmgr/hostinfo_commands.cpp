// alias, host, info, devices, defaults, default-params, scan, rescan and
// reflect.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>

#include "commands.h"
#include "ports.h"

namespace qmxmgr {

namespace {

void printJson(const json &j) {
    std::cout << j.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
}

std::string text(const char *s, std::size_t cap) { return fieldText(s, cap); }

// The device name of a DEVICE operand: "qmxldd1" or "/dev/qmxldd1" as
// given, any other PORT form through its port.
std::string deviceOperand(const std::string &operand) {
    std::string t = operand;
    if (t.rfind("/dev/", 0) == 0) t.erase(0, 5);
    if (classifyPort(t) == PortForm::Device) return t;
    PortRef r = resolvePort(operand, false);
    if (!r.info) throw UsageError("port " + operand + " has no device");
    return r.info->device;
}

std::string portLabel(const PortRef &r) {
    return r.info ? r.info->device + " (" + wwnText(r.wwn) + ")" : wwnText(r.wwn);
}

}  // namespace

Aliases readAliases(const QMX_WWN &wwn) {
    Aliases a;
    char buf[128];
    check(QMX_GetHbaAliasName(wwn, buf, sizeof buf), "QMX_GetHbaAliasName");
    a.hba = text(buf, sizeof buf);
    check(QMX_GetPortAliasName(wwn, buf, sizeof buf), "QMX_GetPortAliasName");
    a.port = text(buf, sizeof buf);
    return a;
}

int cmdAlias(const Options &o, bool hbaOnly, bool portOnly) {
    PortRef r = resolvePort(o.port, false);
    if (!o.args.empty()) {
        std::string name = o.args.front();
        // The library checks exactly `size` bytes: the name's own length.
        if (portOnly)
            check(QMX_SetPortAliasName(r.wwn, name.data(), name.size()), "QMX_SetPortAliasName");
        else
            check(QMX_SetHbaAliasName(r.wwn, name.data(), name.size()), "QMX_SetHbaAliasName");
        std::printf("%s alias of %s set to \"%s\".\n", portOnly ? "Port" : "HBA",
                    portLabel(r).c_str(), name.c_str());
        return kExitOk;
    }
    Aliases a = readAliases(r.wwn);
    if (o.json) {
        json j{{"wwn", wwnText(r.wwn)}};
        if (!portOnly) j["hba_alias"] = a.hba;
        if (!hbaOnly) j["port_alias"] = a.port;
        printJson(j);
        return kExitOk;
    }
    if (!portOnly) std::printf("HBA alias:  %s\n", a.hba.empty() ? "-" : a.hba.c_str());
    if (!hbaOnly) std::printf("Port alias: %s\n", a.port.empty() ? "-" : a.port.c_str());
    return kExitOk;
}

int cmdHost(const Options &o) {
    char host[256], osName[1024], osVersion[256];
    check(QMX_GetHostName(host, sizeof host), "QMX_GetHostName");
    check(QMX_GetOSName(osName, sizeof osName), "QMX_GetOSName");
    check(QMX_GetOSVersion(osVersion, sizeof osVersion), "QMX_GetOSVersion");
    std::string driver;
    for (const PortInfo &p : listPorts(true))
        if (p.detailed && !p.driverVersion.empty()) {
            driver = p.driverVersion;
            break;
        }
    std::string library = QMX_GetVendorAPIVersion();
    json j{{"host_name", text(host, sizeof host)},
           {"os_name", text(osName, sizeof osName)},
           {"os_version", text(osVersion, sizeof osVersion)},
           {"driver_version", driver.empty() ? json(nullptr) : json(driver)},
           {"library_version", library}};
    if (o.json) {
        printJson(j);
        return kExitOk;
    }
    std::printf("Host name:       %s\nOS name:         %s\nOS version:      %s\n"
                "Driver version:  %s\nLibrary version: %s\n",
                j["host_name"].get<std::string>().c_str(), j["os_name"].get<std::string>().c_str(),
                j["os_version"].get<std::string>().c_str(), driver.empty() ? "-" : driver.c_str(),
                library.c_str());
    return kExitOk;
}

int cmdInfo(const Options &o) {
    PortRef r = resolvePort(o.port, false);
    QMX_PACKAGE pkg;
    check(QMX_GetPackageInformation(r.wwn, &pkg), "QMX_GetPackageInformation");
    QMX_OPTICALATTRIBUTES opt;
    std::memset(&opt, 0, sizeof opt);
    check(QMX_GetOpticalModuleInfomation(r.wwn, &opt), "QMX_GetOpticalModuleInfomation");
    QMX_WWN wwpn, wwnn;
    check(QMX_GetAdditionalWWPN(r.wwn, &wwpn, &wwnn), "QMX_GetAdditionalWWPN");
    json j{{"wwn", wwnText(r.wwn)},
           {"package_code", text(pkg.PackageCode, sizeof pkg.PackageCode)},
           {"optical_vendor", text(opt.VendorName, sizeof opt.VendorName)},
           {"optical_serial", text(opt.SerialNumber, sizeof opt.SerialNumber)},
           {"additional_wwpn", wwnText(wwpn)},
           {"additional_wwnn", wwnText(wwnn)}};
    if (o.json) {
        printJson(j);
        return kExitOk;
    }
    std::printf("Port:             %s\nPackage code:     %s\nOptical module:   %s, serial %s\n"
                "Additional WWPN:  %s\nAdditional WWNN:  %s\n",
                portLabel(r).c_str(), j["package_code"].get<std::string>().c_str(),
                j["optical_vendor"].get<std::string>().c_str(),
                j["optical_serial"].get<std::string>().c_str(), wwnText(wwpn).c_str(),
                wwnText(wwnn).c_str());
    return kExitOk;
}

int cmdDevices(const Options &o) {
    auto list = std::make_unique<QMX_DEVICE_SHOW>();
    check(QMX_GetDeviceInfo(list.get()), "QMX_GetDeviceInfo");
    int n = std::max(0, std::min(list->list_max, QMX_DEVICE_SHOW_MAX));
    json arr = json::array();
    for (int i = 0; i < n; ++i) {
        const QMX_DEVICE_ENTRY &e = list->list[i];
        char pci[16];
        std::snprintf(pci, sizeof pci, "%02x:%02x.%x", unsigned(e.busNO) & 0xFF,
                      unsigned(e.deviceNO) & 0xFF, unsigned(e.funcNO) & 0xFF);
        arr.push_back(json{{"device", text(e.deviceName, sizeof e.deviceName)},
                           {"device_id", text(e.deviceID, sizeof e.deviceID)},
                           {"pci", pci},
                           {"additional_wwpn", wwnText(e.additional)},
                           {"original_wwpn", wwnText(e.original)}});
    }
    if (o.json) {
        printJson(json{{"devices", arr}});
        return kExitOk;
    }
    std::printf("%-10s %-9s %-8s %-23s %s\n", "DEVICE", "DEVICEID", "PCI", "ADDITIONAL WWPN",
                "ORIGINAL WWPN");
    for (const json &e : arr)
        std::printf("%-10s %-9s %-8s %-23s %s\n", e["device"].get<std::string>().c_str(),
                    e["device_id"].get<std::string>().c_str(), e["pci"].get<std::string>().c_str(),
                    e["additional_wwpn"].get<std::string>().c_str(),
                    e["original_wwpn"].get<std::string>().c_str());
    return kExitOk;
}

int cmdDefaults(const Options &o) {
    auto d = std::make_unique<QMX_ALL_DEF_PARAM>();
    check(QMX_GetAllTargetParam(d.get()), "QMX_GetAllTargetParam");
    // The library reads driver-wide values as decimal text; the preferred
    // AL_PA is stored in hexadecimal ("qmx_preferred_alpa=0x05"), so it is
    // taken from the key list itself.
    long long alpa = 0;
    {
        util_para *raw = nullptr;
        int n = QMX_Read_qmxlddconf(&raw, 0);
        std::unique_ptr<util_para, decltype(&std::free)> list(raw, &std::free);
        for (int i = 0; raw != nullptr && i < n; ++i)
            if (fieldText(raw[i].keyword, sizeof raw[i].keyword) == "qmx_preferred_alpa")
                alpa = std::strtoll(fieldText(raw[i].value, sizeof raw[i].value).c_str(), nullptr, 0);
    }
    // A field is shown when it differs from its unset value (0 for the
    // transfer size, preferred AL_PA and queue depth, -1 for the others).
    struct Field {
        const char *name;
        long long value, unset;
    };
    const Field fields[] = {
        {"max_transfer", d->maxTransfer, 0},
        {"link_down", d->linkDown, 0xFFFFFFFFll},
        {"reset_delay", d->resetDelay, 0xFFFFFFFFll},
        {"mck_retry", d->mckRetry, -1},
        {"preferred_alpa", d->preferred != 0 ? d->preferred : alpa, 0},
        {"reset_timeout", d->resetTmo, 0xFFFFFFFFll},
        {"abort_timeout", d->abortTmo, 0xFFFFFFFFll},
        {"queue_depth", d->queueDepth, 0},
        {"scsi_allowed", d->scsiAllowed, -1},
        {"tmt_delay", d->tmtDelay, -1},
        {"isolate_type", d->isolateType, -1},
        {"ld_err_interval", d->ldErrIntval, -1},
        {"ld_err_limit_long", d->ldErrLimitL, -1},
        {"ld_err_limit_short", d->ldErrLimitS, -1},
        {"if_err_interval", d->ifErrIntvl, -1},
        {"if_err_limit", d->ifErrLimit, -1},
        {"to_err_interval", d->toErrIntvl, -1},
        {"to_err_limit", d->toErrLimit, -1},
        {"rt_err_enable", d->rtErrFlag, -1},
        {"login_retry", d->mbLoginRetry, -1},
        {"els_retry", d->mbELSRetry, -1},
        {"to_reset_retry", d->mbTORetry, -1},
        {"scsi_to_retry", d->scsiCmdRetry, -1},
        {"abort_task_restrain", d->abortTRestrain, -1},
        {"alter_path_num", d->alter_path, -1},
        {"offline_path_num", d->offline_path, -1},
        {"pathchk_to", d->pathchk_to, -1},
        {"lun_reset_delay", d->LUNReset, -1},
        {"msi_enable", d->interrupt, -1},
        {"enable_tgtrst", d->target_rst, -1},
        {"limit_log", d->log_mode, -1},
        {"filter_target", d->tgt_filter, -1},
    };
    json settings = json::object();
    for (const Field &f : fields) {
        if (f.value != f.unset) settings[f.name] = f.value;
        else if (o.allPorts) settings[f.name] = nullptr;
    }
    json retry = json::object();
    for (int i = 0; i < QMX_RETRY_CNT_ENTRIES; ++i)
        if (d->retryCnt[i] != -1) retry[std::to_string(i)] = d->retryCnt[i];
    if (o.json) {
        printJson(json{{"settings", settings}, {"retry_cnt", retry}});
        return kExitOk;
    }
    std::printf("%-22s %s\n", "SETTING", "VALUE");
    for (auto it = settings.begin(); it != settings.end(); ++it)
        std::printf("%-22s %s\n", it.key().c_str(),
                    it.value().is_null() ? "-" : it.value().dump().c_str());
    for (auto it = retry.begin(); it != retry.end(); ++it)
        std::printf("%-22s %s\n", ("retry_cnt[" + it.key() + "]").c_str(), it.value().dump().c_str());
    if (settings.empty() && retry.empty()) std::printf("(no driver-wide setting in the file)\n");
    return kExitOk;
}

int cmdDefaultParams(const Options &o) {
    PortRef r = resolvePort(o.port, false);
    QMX_UINT32 v = 0;
    if (o.state.empty()) {
        check(QMX_PortSettingDefaultValue(r.wwn, &v, 0), "QMX_PortSettingDefaultValue");
        // The boot firmware's listing: 1 enabled, 2 disabled.
        const char *word = v == 1 ? "on" : v == 2 ? "off" : "unknown";
        if (o.json)
            printJson(json{{"wwn", wwnText(r.wwn)}, {"force_default_parameter", word}});
        else
            std::printf("Force default parameters at boot: %s\n", word);
        return kExitOk;
    }
    if (o.state != "on" && o.state != "off") throw UsageError("give on or off");
    v = o.state == "on" ? 1 : 0;
    check(QMX_PortSettingDefaultValue(r.wwn, &v, 1), "QMX_PortSettingDefaultValue");
    std::printf("Force default parameters of %s turned %s.\n", portLabel(r).c_str(),
                o.state.c_str());
    return kExitOk;
}

int cmdScan(const Options &o) {
    std::string dev = deviceOperand(o.port);
    check(QMX_TgtScan(dev.data()), "QMX_TgtScan");
    // The call succeeds once the driver answered; the scan's outcome is the
    // reason code.
    int code = QMX_LastErrorCode();
    if (code != 0) throw CallError("QMX_TgtScan", code);
    std::printf("Target scan on %s completed.\n", dev.c_str());
    return kExitOk;
}

int cmdRescan(const Options &o) {
    PortRef r = resolvePort(o.port, false);
    // The call returns 0 on every path: a failure shows in the reason code.
    QMX_DiskRescan(r.wwn);
    if (int code = QMX_LastErrorCode(); code != 0) throw CallError("QMX_DiskRescan", code);
    std::printf("Disk rescan of %s requested.\n", portLabel(r).c_str());
    return kExitOk;
}

int cmdReflect(const Options &o) {
    std::string dev = deviceOperand(o.port);
    diag_ioctl d;
    std::memset(&d, 0, sizeof d);
    check(QMX_Reflect_ChgParam(dev.data(), &d), "QMX_Reflect_ChgParam");
    std::printf("Driver on %s asked to take changed parameters into use.\n", dev.c_str());
    return kExitOk;
}

void addHostInfoCommands(CommandLine &cl) {
    CLI::App &app = cl.app;
    auto o = std::make_shared<Options>();
    auto flags = std::make_shared<std::pair<bool, bool>>();

    auto *alias = app.add_subcommand("alias", "A port's HBA and port alias names: show, or set NAME");
    alias->add_option("PORT", o->port, kPortHelp)->required();
    alias->add_option("NAME", o->args, "New alias (no ':' and printable characters only)")
        ->expected(0, 1);
    auto *hba = alias->add_flag("--hba", flags->first, "The HBA alias only (the default to set)");
    alias->add_flag("--port", flags->second, "The port alias only")->excludes(hba);
    alias->add_flag("--json", o->json, "JSON output");
    cl.on(alias, [o, flags] { return cmdAlias(*o, flags->first, flags->second); });

    auto *host = app.add_subcommand("host", "Host name, OS name and version, driver and library versions");
    host->add_flag("--json", o->json, "JSON output");
    cl.on(host, [o] { return cmdHost(*o); });

    auto *info = app.add_subcommand("info", "Package code, optical module and additional WWPN/WWNN of a port");
    info->add_option("PORT", o->port, kPortHelp)->required();
    info->add_flag("--json", o->json, "JSON output");
    cl.on(info, [o] { return cmdInfo(*o); });

    auto *devices = app.add_subcommand("devices", "Adapter devices as the BIOS tool lists them");
    devices->add_flag("--json", o->json, "JSON output");
    cl.on(devices, [o] { return cmdDevices(*o); });

    auto *defaults = app.add_subcommand(
        "defaults", "Driver-wide settings of /etc/qmxldd.conf (only those set, unless --all)");
    defaults->add_flag("--all", o->allPorts, "Every field, unset ones as null");
    defaults->add_flag("--json", o->json, "JSON output");
    cl.on(defaults, [o] { return cmdDefaults(*o); });

    auto *dp = app.add_subcommand("default-params",
                                  "The boot firmware's force-default-parameter switch: show, on or off");
    dp->add_option("PORT", o->port, kPortHelp)->required();
    dp->add_option("STATE", o->state, "on or off; none: show");
    dp->add_flag("--json", o->json, "JSON output");
    cl.on(dp, [o] { return cmdDefaultParams(*o); });

    auto *scan = app.add_subcommand("scan", "Target rescan on a device (qmxldd0 or any PORT form)");
    scan->add_option("DEVICE", o->port, "Device name, or a PORT")->required();
    cl.on(scan, [o] { return cmdScan(*o); });

    auto *rescan = app.add_subcommand("rescan", "Disk rescan behind a port");
    rescan->add_option("PORT", o->port, kPortHelp)->required();
    cl.on(rescan, [o] { return cmdRescan(*o); });

    auto *reflect = app.add_subcommand(
        "reflect", "Ask the driver on a device to take changed parameters into use");
    reflect->add_option("DEVICE", o->port, "Device name, or a PORT")->required();
    cl.on(reflect, [o] { return cmdReflect(*o); });
}

}  // namespace qmxmgr
