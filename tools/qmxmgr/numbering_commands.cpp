// numbering, numbering set/remove/rebind/delete-path, and trace.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include "commands.h"
#include "ports.h"
#include "tracefile.h"

namespace qmxmgr {

namespace {

int parseNumber(const std::string &text) {
    errno = 0;
    char *end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || v < INT32_MIN || v > INT32_MAX)
        throw UsageError("'" + text + "' is not an adapter number");
    return int(v);
}

}  // namespace

int cmdNumbering(const Options &o) {
    auto table = std::make_unique<QMX_ADAPTERNUMBER>();
    int mode = o.configured ? QMX_ADPNUM_MODE_CONFIGURED : QMX_ADPNUM_MODE_CURRENT;
    check(QMX_GetAdapterNumber(table.get(), mode), "QMX_GetAdapterNumber");
    int n = std::max(0, std::min<int>(table->portlist_max, QMX_ADAPTERNUMBER_MAX));
    if (o.json) {
        json arr = json::array();
        for (int i = 0; i < n; ++i) {
            const adapterinformation &a = table->portlist[i];
            std::string dev = fieldText(a.special_dev, sizeof a.special_dev);
            json e{{"number", a.adapternumber}, {"wwn", wwnText(a.hba_wwn)}};
            if (dev.empty()) {
                e["device"] = nullptr;
                e["pci"] = nullptr;
            } else {
                PortInfo p;
                p.bus = a.bus;
                p.dev = a.dev;
                p.fnc = a.fnc;
                e["device"] = dev;
                e["pci"] = pciText(p);
            }
            arr.push_back(e);
        }
        std::cout << json{{"source", o.configured ? "configured" : "current"}, {"adapters", arr}}
                         .dump(2, ' ', false, json::error_handler_t::replace)
                  << "\n";
        return kExitOk;
    }
    std::printf("%-6s %-23s %-10s %s\n", "NUMBER", "WWN", "DEVICE", "PCI");
    for (int i = 0; i < n; ++i) {
        const adapterinformation &a = table->portlist[i];
        std::string dev = fieldText(a.special_dev, sizeof a.special_dev);
        PortInfo p;
        p.bus = a.bus;
        p.dev = a.dev;
        p.fnc = a.fnc;
        std::printf("%-6d %-23s %-10s %s\n", a.adapternumber, wwnText(a.hba_wwn).c_str(),
                    dev.empty() ? "-" : dev.c_str(), dev.empty() ? "-" : pciText(p).c_str());
    }
    return kExitOk;
}

int cmdNumberingChange(const Options &o, int operation) {
    bool pairs = operation != QMX_ADPNUM_OPR_REMOVE;
    if (pairs && o.args.size() % 2 != 0)
        throw UsageError("give NUMBER PORT pairs");
    std::size_t entries = pairs ? o.args.size() / 2 : o.args.size();
    if (entries > QMX_ADAPTERNUMBER_MAX)
        throw UsageError("at most " + std::to_string(QMX_ADAPTERNUMBER_MAX) + " entries");
    auto table = std::make_unique<QMX_ADAPTERNUMBER>();
    std::memset(table.get(), 0, sizeof *table);
    for (std::size_t i = 0; i < entries; ++i) {
        adapterinformation &a = table->portlist[i];
        const std::string &portText = pairs ? o.args[2 * i + 1] : o.args[i];
        // Numbers are checked by the library, which refuses the whole
        // request before changing anything.
        // A removal names the port only; its entry still needs a number of
        // its own, since the library refuses two entries with one number.
        a.adapternumber = pairs ? parseNumber(o.args[2 * i]) : int(i);
        PortRef r = resolvePort(portText, false);
        a.hba_wwn = r.wwn;
        a.set_opr = QMX_INT8(operation);
    }
    table->portlist_max = QMX_INT32(entries);
    check(QMX_SetAdapterNumber(table.get()), "QMX_SetAdapterNumber");
    std::printf("Adapter numbering in /etc/qmxldd.conf updated (%zu entr%s); the driver "
                "takes it at its next load.\n",
                entries, entries == 1 ? "y" : "ies");
    return kExitOk;
}

int cmdDeletePath(const Options &o, int devno) {
    PortRef r = resolvePort(o.port, false);
    if (devno < 0) {
        if (!r.info) throw UsageError("port " + o.port + " is not discovered; give --devno");
        devno = r.info->number;
    }
    if (devno > 255) throw UsageError("--devno must be 0 to 255");
    check(QMX_DeleteAdapterPath(r.wwn, QMX_UINT8(devno)), "QMX_DeleteAdapterPath");
    std::printf("Device path of %s removed.\n", wwnText(r.wwn).c_str());
    return kExitOk;
}

int cmdTrace(const Options &o) {
    std::string path = traceFilePath();
    std::string content;
    std::vector<std::string> lines;
    if (readTraceFile(path, &content)) {
        lines = chronological(content);
    } else if (!o.follow) {
        std::cerr << "qmxmgr: cannot read the trace file " << path << ": "
                  << std::strerror(errno) << "\n";
        return kExitFailed;
    }
    std::size_t from = 0;
    if (o.lines >= 0 && std::size_t(o.lines) < lines.size()) from = lines.size() - o.lines;
    if (o.json && !o.follow) {
        json arr = json::array();
        for (std::size_t i = from; i < lines.size(); ++i) arr.push_back(lines[i]);
        json j{{"file", path}, {"lines", arr}};
        std::cout << j.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
        return kExitOk;
    }
    auto emit = [&](const std::string &l) {
        if (o.json)
            // one JSON string a line
            std::cout << json(l).dump(-1, ' ', false, json::error_handler_t::replace) << "\n";
        else
            std::cout << l << "\n";
    };
    for (std::size_t i = from; i < lines.size(); ++i) emit(lines[i]);
    std::cout.flush();
    if (!o.follow) return kExitOk;
    for (;;) {
        usleep(300 * 1000);
        if (!readTraceFile(path, &content)) continue;
        std::vector<std::string> now = chronological(content);
        for (const std::string &l : newLines(lines, now)) emit(l);
        std::cout.flush();
        if (!std::cout) return kExitFailed;
        lines = std::move(now);
    }
}

void addNumberingCommands(CommandLine &cl) {
    auto o = std::make_shared<Options>();
    auto *numbering = cl.app.add_subcommand(
        "numbering", "Adapter numbers: as the driver has them, or --configured as "
                     "/etc/qmxldd.conf fixes them");
    numbering->add_flag("--configured", o->configured, "The numbering in /etc/qmxldd.conf");
    numbering->add_flag("--json", o->json, "JSON output");
    numbering->require_subcommand(0, 1);
    cl.on(numbering, [o] { return cmdNumbering(*o); });

    auto *nset = numbering->add_subcommand(
        "set", "Give ports numbers: set NUMBER PORT [NUMBER PORT ...]");
    nset->add_option("PAIRS", o->args, "NUMBER PORT pairs")->required();
    cl.on(nset, [o] { return cmdNumberingChange(*o, QMX_ADPNUM_OPR_ASSIGN); });
    auto *nremove = numbering->add_subcommand(
        "remove", "Remove the numbers bound to ports: remove PORT [PORT ...]");
    nremove->add_option("PORTS", o->args, kPortHelp)->required();
    cl.on(nremove, [o] { return cmdNumberingChange(*o, QMX_ADPNUM_OPR_REMOVE); });
    auto *nrebind = numbering->add_subcommand(
        "rebind", "Bind existing numbers to other WWNs: rebind NUMBER PORT [NUMBER PORT ...]");
    nrebind->add_option("PAIRS", o->args, "NUMBER PORT pairs")->required();
    cl.on(nrebind, [o] { return cmdNumberingChange(*o, QMX_ADPNUM_OPR_REBIND); });
    auto *ndelete = numbering->add_subcommand(
        "delete-path", "Remove a port's device path from the driver and /dev");
    ndelete->add_option("PORT", o->port, kPortHelp)->required();
    ndelete->add_option("--devno", o->devno, "Device number to send the request to "
                                             "(default: the port's own)");
    cl.on(ndelete, [o] { return cmdDeletePath(*o, o->devno); });
}

void addTraceCommands(CommandLine &cl) {
    auto o = std::make_shared<Options>();
    auto *trace = cl.app.add_subcommand("trace", "The library's API trace, oldest line first");
    trace->add_flag("-f,--follow", o->follow, "Keep printing new lines as they are written");
    trace->add_option("-n,--lines", o->lines, "Only the last N lines");
    trace->add_flag("--json", o->json, "JSON output");
    cl.on(trace, [o] { return cmdTrace(*o); });
}

}  // namespace qmxmgr
