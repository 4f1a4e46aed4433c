// isolate, sfp, isolation, trouble and diskconf.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include "commands.h"
#include "diskconf_diff.h"
#include "ports.h"

namespace qmxmgr {

namespace {

constexpr int kExitChanged = 3;  // diskconf record: the configuration changed
constexpr const char *kPciHelp = "PCI function BUS:DEV.FN (hexadecimal, e.g. 03:00.1)";

// Puts "BUS:DEV.FN" (hexadecimal) into a request record's bus, dev and func.
template <class Record>
void putPci(Record &r, const std::string &text) {
    unsigned bus = 0, dev = 0, fn = 0;
    int used = 0;
    if (std::sscanf(text.c_str(), "%2x:%2x.%1x%n", &bus, &dev, &fn, &used) != 3 ||
        std::size_t(used) != text.size() || dev > 0x1F || fn > 7)
        throw UsageError("'" + text + "' is not a PCI function: give BUS:DEV.FN in hexadecimal");
    r.bus = uint8_t(bus);
    r.dev = uint8_t(dev);
    r.func = uint8_t(fn);
}

// Transceiver request for one PCI function, other fields zero.
QMX_SFP_INFO sfpRequest(const std::string &pci) {
    QMX_SFP_INFO s;
    std::memset(&s, 0, sizeof s);
    putPci(s, pci);
    return s;
}

std::string pciText(const uint8_t *p) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%02x:%02x.%x", p[0], p[1], p[2]);
    return buf;
}

void print(const json &j) {
    std::cout << j.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
}

bool onOff(const std::string &word) {
    if (word == "on") return true;
    if (word == "off") return false;
    throw UsageError("give on or off, not '" + word + "'");
}

struct IsolOptions {
    bool json = false, now = false, force = false, immediate = false;
    int mode = 0;
    std::string pci, port, word;
};

int cmdIsolateList(const IsolOptions &o) {
    auto list = std::make_unique<QMX_FORCE_ISOLATE_LIST>();
    check(QMX_GetForceIsolateList(list.get()), "QMX_GetForceIsolateList");
    int n = std::max(0, std::min(list->listCnt, QMX_FORCE_ISOLATE_MAX));
    if (o.json) {
        json arr = json::array();
        for (int i = 0; i < n; ++i) {
            const QMX_ISOLATE &e = list->list[i];
            uint8_t p[3] = {e.bus, e.dev, e.func};
            arr.push_back({{"pci", pciText(p)}, {"mode", e.mode}});
        }
        print({{"entries", arr}});
        return kExitOk;
    }
    std::printf("%-9s %s\n", "PCI", "MODE");
    for (int i = 0; i < n; ++i) {
        const QMX_ISOLATE &e = list->list[i];
        uint8_t p[3] = {e.bus, e.dev, e.func};
        std::printf("%-9s %d (%s)\n", pciText(p).c_str(), e.mode,
                    e.mode == 2 ? "every function" : e.mode == 1 ? "this function" : "unknown");
    }
    return kExitOk;
}

int cmdIsolateChange(const IsolOptions &o, bool isolate) {
    auto list = std::make_unique<QMX_FORCE_ISOLATE_LIST>();
    std::memset(list.get(), 0, sizeof *list);
    QMX_ISOLATE &e = list->list[0];
    putPci(e, o.pci);
    e.set_opr = isolate ? 1 : 2;
    e.mode = isolate ? o.mode : 0;
    e.immdt = o.immediate ? 1 : 0;
    e.force = o.force ? 1 : 0;
    check(QMX_SetForceIsolateList(list.get(), o.now ? 1 : 0), "QMX_SetForceIsolateList");
    std::printf("%s %s%s.\n", isolate ? "Force isolation recorded for" : "Force isolation released for",
                o.pci.c_str(), o.now ? " and applied now" : " (takes effect at the next driver load)");
    return kExitOk;
}

int cmdIsolatePort(const IsolOptions &o) {
    PortRef r = resolvePort(o.port, false);
    QMX_HBA_INFO hba{onOff(o.word) ? 1 : 3};
    check(QMX_SetHBAIsolate(r.wwn, &hba), "QMX_SetHBAIsolate");
    std::printf("Port %s %s.\n", wwnText(r.wwn).c_str(), hba.set_opr == 1 ? "isolated" : "recovered");
    return kExitOk;
}

int cmdIsolateSfp(const IsolOptions &o) {
    QMX_SFP_INFO s = sfpRequest(o.pci);
    bool on = onOff(o.word);
    s.set_opr = on ? 1 : 2;
    s.force = o.force ? 1 : 0;
    check(QMX_SetSFPIsolate(&s), "QMX_SetSFPIsolate");
    std::printf("Transceiver port %s %s.\n", o.pci.c_str(),
                on ? "isolated: the transceiver can be replaced" : "back in service");
    return kExitOk;
}

int cmdSfpShow(const IsolOptions &o) {
    QMX_SFP_INFO s = sfpRequest(o.pci);
    check(QMX_GetSFPInfo(&s), "QMX_GetSFPInfo");
    std::string part = fieldText(s.part_num, sizeof s.part_num);
    std::string serial = fieldText(s.serial_num, sizeof s.serial_num);
    std::string date = fieldText(s.date_code, sizeof s.date_code);
    bool hw = (s.status & QMX_SFP_STATUS_NO_HW_SWAP) == 0;
    if (o.json) {
        print({{"pci", o.pci}, {"part_number", part}, {"serial_number", serial},
               {"date_code", date}, {"status", s.status}, {"hardware_hot_swap", hw}});
        return kExitOk;
    }
    std::printf("PCI function     %s\nPart number      %s\nSerial number    %s\n"
                "Date code        %s\nHot swap (hw)    %s\nStatus bits      0x%lx\n",
                o.pci.c_str(), part.c_str(), serial.c_str(), date.c_str(), hw ? "yes" : "no",
                s.status);
    return kExitOk;
}

int cmdIsolation(const IsolOptions &o) {
    if (!o.word.empty()) {
        int v = onOff(o.word) ? 1 : 0;
        check(QMX_SetIsolFunc(v), "QMX_SetIsolFunc");
        std::printf("Isolation function %s on every port.\n", v ? "on" : "off");
        return kExitOk;
    }
    int v = 0;
    check(QMX_GetIsolFunc(&v), "QMX_GetIsolFunc");
    if (o.json)
        print({{"isolation", v == 1}});
    else
        std::printf("Isolation function: %s\n", v == 1 ? "on" : "off");
    return kExitOk;
}

int cmdTrouble(const IsolOptions &o) {
    PortRef r = resolvePort(o.port, false);
    QMX_TRBL_CNT c;
    check(QMX_GetAdapTroubleCnt(r.wwn, &c), "QMX_GetAdapTroubleCnt");
    if (o.json) {
        print({{"wwn", wwnText(r.wwn)},
               {"port_status", c.port_status},
               {"status", statusText(uint8_t(c.port_status))},
               {"link_down_long", c.countL},
               {"link_down_short", c.countS},
               {"interface_errors", c.if_err},
               {"timeout_errors", c.tmo_err},
               {"timeout_reset", c.tmo_reset == 1},
               {"isolation_function", c.err_is_func == 1},
               {"firmware_support", c.err_is_fw_spt == 1},
               {"shared_mode_support", c.err_is_hvm_spt == 1}});
        return kExitOk;
    }
    std::printf("Port %s: %s (status %d)\n", wwnText(r.wwn).c_str(),
                statusText(uint8_t(c.port_status)).c_str(), c.port_status);
    std::printf("  link-down errors   long %d  short %d\n", c.countL, c.countS);
    std::printf("  interface errors   %d\n  time-out errors    %d\n  time-out reset     %s\n",
                c.if_err, c.tmo_err, c.tmo_reset == 1 ? "yes" : "no");
    std::printf("  isolation function %s, firmware support %s, shared-mode support %s\n",
                c.err_is_func ? "on" : "off", c.err_is_fw_spt ? "yes" : "no",
                c.err_is_hvm_spt ? "yes" : "no");
    return kExitOk;
}

// ------------------------------------------------------------------ diskconf
struct Tree {
    QMX_DISK_CONFIG root{};
    ~Tree() { QMX_DiskConfigTblFree(&root); }
};

json treeJson(const QMX_DISK_CONFIG &c) {
    json adapters = json::array();
    for (int a = 0; a < QMX_DISK_CONF_ADAPT_MAX; ++a) {
        const QMX_DISK_CONF_ADAPT *ad = c.adapt[a];
        if (ad == nullptr) continue;
        json targets = json::array();
        for (int t = 0; t < QMX_DISK_CONF_TGT_MAX; ++t) {
            const QMX_DISK_CONF_TGT *tg = ad->tgt[t];
            if (tg == nullptr) continue;
            json lus = json::array();
            for (int l = 0; l < QMX_DISK_CONF_LU_MAX; ++l)
                if (tg->lu[l] != nullptr) lus.push_back({{"lun", l}, {"luid", luidHex(*tg->lu[l])}});
            targets.push_back({{"target", t}, {"wwpn", wwnText(tg->wwn)}, {"lus", lus}});
        }
        adapters.push_back({{"adapter", a}, {"pci", pciText(ad->bus_dev_func)}, {"targets", targets}});
    }
    return adapters;
}

int cmdDiskShow(const IsolOptions &o) {
    auto tree = std::make_unique<Tree>();
    int flag = 0;
    check(QMX_GetDiskConfig(&flag, &tree->root), "QMX_GetDiskConfig");
    if (o.json) {
        print({{"check_unmatched", flag == 1}, {"adapters", treeJson(tree->root)}});
        return kExitOk;
    }
    std::printf("Check of unmatched devices: %s\n", flag == 1 ? "on" : "off");
    for (int a = 0; a < QMX_DISK_CONF_ADAPT_MAX; ++a) {
        const QMX_DISK_CONF_ADAPT *ad = tree->root.adapt[a];
        if (ad == nullptr) continue;
        std::printf("adapter %d  pci %s\n", a, pciText(ad->bus_dev_func).c_str());
        for (int t = 0; t < QMX_DISK_CONF_TGT_MAX; ++t) {
            const QMX_DISK_CONF_TGT *tg = ad->tgt[t];
            if (tg == nullptr) continue;
            std::printf("  target %d  wwpn %s\n", t, wwnText(tg->wwn).c_str());
            for (int l = 0; l < QMX_DISK_CONF_LU_MAX; ++l)
                if (tg->lu[l] != nullptr)
                    std::printf("    lu %-4d %s\n", l, luidHex(*tg->lu[l]).c_str());
        }
    }
    return kExitOk;
}

int cmdDiskFlag(const IsolOptions &o) {
    if (!o.word.empty()) {
        bool on = onOff(o.word);
        check(QMX_SetDiskConfig(on ? 1 : 0), "QMX_SetDiskConfig");
        std::printf("Check of unmatched devices %s.\n", on ? "on" : "off");
        return kExitOk;
    }
    int flag = 0;
    check(QMX_GetDiskConfig(&flag, nullptr), "QMX_GetDiskConfig");
    if (o.json)
        print({{"check_unmatched", flag == 1}});
    else
        std::printf("Check of unmatched devices: %s\n", flag == 1 ? "on" : "off");
    return kExitOk;
}

const char *kindText(DiskChange::Kind k) {
    return k == DiskChange::Added ? "added" : k == DiskChange::Removed ? "removed" : "changed";
}
const char *levelText(DiskChange::Level l) {
    return l == DiskChange::Adapter ? "adapter" : l == DiskChange::Target ? "target" : "lu";
}

int cmdDiskRecord(const IsolOptions &o) {
    auto before = std::make_unique<Tree>();
    auto after = std::make_unique<Tree>();
    check(QMX_GetDiskConfig(nullptr, &before->root), "QMX_GetDiskConfig");
    check(QMX_AutoSetDiskConfig(&after->root), "QMX_AutoSetDiskConfig");
    std::vector<DiskChange> changes = diffDiskConfig(before->root, after->root);
    if (o.json) {
        json arr = json::array();
        for (const DiskChange &c : changes) {
            json j{{"change", kindText(c.kind)}, {"level", levelText(c.level)}, {"pci", pciText(c.pci)}};
            j["wwpn"] = c.level == DiskChange::Adapter ? json(nullptr) : json(wwnText(c.wwpn));
            j["lun"] = c.level == DiskChange::Lu ? json(c.lun) : json(nullptr);
            j["lus"] = c.level == DiskChange::Lu ? json(nullptr) : json(c.lus);
            j["luid_old"] = c.kind == DiskChange::Changed ? json(c.oldId) : json(nullptr);
            j["luid_new"] = c.kind == DiskChange::Changed ? json(c.newId) : json(nullptr);
            arr.push_back(j);
        }
        print({{"changed", !changes.empty()}, {"differences", arr}});
    } else if (changes.empty()) {
        std::printf("Disk configuration recorded; no change since the last record.\n");
    } else {
        for (const DiskChange &c : changes) {
            std::printf("%-7s %-7s %s", kindText(c.kind), levelText(c.level), pciText(c.pci).c_str());
            if (c.level != DiskChange::Adapter) std::printf(" %s", wwnText(c.wwpn).c_str());
            if (c.level == DiskChange::Lu)
                std::printf(" lu %d", c.lun);
            else
                std::printf(" (%d LU%s)", c.lus, c.lus == 1 ? "" : "s");
            if (c.kind == DiskChange::Changed)
                std::printf(": %s -> %s", c.oldId.c_str(), c.newId.c_str());
            std::printf("\n");
        }
        std::printf("Disk configuration recorded; %zu difference%s since the last record.\n",
                    changes.size(), changes.size() == 1 ? "" : "s");
    }
    return changes.empty() ? kExitOk : kExitChanged;
}

}  // namespace

void addIsolationCommands(CommandLine &cl) {
    auto o = std::make_shared<IsolOptions>();
    auto *isolate = cl.app.add_subcommand(
        "isolate", "Force isolation of PCI functions, ports and transceivers");
    isolate->require_subcommand(1, 1);
    auto *list = isolate->add_subcommand("list", "Force-isolate entries of /etc/qmxldd.conf");
    list->add_flag("--json", o->json, "JSON output");
    cl.on(list, [o] { return cmdIsolateList(*o); });
    auto *set = isolate->add_subcommand("set", "Record a force isolation of a PCI function");
    set->add_option("PCI", o->pci, kPciHelp)->required();
    set->add_option("--mode", o->mode, "1: this function only, 2: every function of the device")
        ->required()
        ->check(CLI::IsMember({1, 2}));
    set->add_flag("--now", o->now, "Also isolate the port now");
    cl.on(set, [o] { return cmdIsolateChange(*o, true); });
    auto *release = isolate->add_subcommand("release", "Remove a force isolation of a PCI function");
    release->add_option("PCI", o->pci, kPciHelp)->required();
    release->add_flag("--now", o->now, "Also recover the port now");
    release->add_flag("--immediate", o->immediate, "With --now: recover at once");
    release->add_flag("--force", o->force, "With --now: recover whatever the cause of isolation");
    cl.on(release, [o] { return cmdIsolateChange(*o, false); });
    auto *port = isolate->add_subcommand("port", "Isolate (on) or recover (off) a port now");
    port->add_option("PORT", o->port, kPortHelp)->required();
    port->add_option("STATE", o->word, "on or off")->required();
    cl.on(port, [o] { return cmdIsolatePort(*o); });
    auto *sfp = isolate->add_subcommand(
        "sfp", "Isolate a port for a transceiver hot swap (on) or recover it (off)");
    sfp->add_option("PCI", o->pci, kPciHelp)->required();
    sfp->add_option("STATE", o->word, "on or off")->required();
    sfp->add_flag("--force", o->force, "With off: forced recovery");
    cl.on(sfp, [o] { return cmdIsolateSfp(*o); });

    auto *sfpGroup = cl.app.add_subcommand("sfp", "Transceiver identification");
    sfpGroup->require_subcommand(1, 1);
    auto *show = sfpGroup->add_subcommand("show", "Part and serial number, date code, hot swap");
    show->add_option("PCI", o->pci, kPciHelp)->required();
    show->add_flag("--json", o->json, "JSON output");
    cl.on(show, [o] { return cmdSfpShow(*o); });

    auto *isolation = cl.app.add_subcommand(
        "isolation", "The driver-wide isolation function: show it, or switch it on or off");
    isolation->add_option("STATE", o->word, "on or off");
    isolation->add_flag("--json", o->json, "JSON output");
    cl.on(isolation, [o] { return cmdIsolation(*o); });

    auto *trouble = cl.app.add_subcommand("trouble", "Trouble counters behind isolation of a port");
    trouble->add_option("PORT", o->port, kPortHelp)->required();
    trouble->add_flag("--json", o->json, "JSON output");
    cl.on(trouble, [o] { return cmdTrouble(*o); });
}

void addDiskConfCommands(CommandLine &cl) {
    auto o = std::make_shared<IsolOptions>();
    auto *dc = cl.app.add_subcommand(
        "diskconf", "The disk configuration record (/opt/kestrel/drivers/hba/qmxldd_lumap.conf)");
    dc->require_subcommand(1, 1);
    auto *show = dc->add_subcommand("show", "The recorded LU map");
    show->add_flag("--json", o->json, "JSON output");
    cl.on(show, [o] { return cmdDiskShow(*o); });
    auto *flag = dc->add_subcommand("flag", "The check of unmatched devices: show, on or off");
    flag->add_option("STATE", o->word, "on or off");
    flag->add_flag("--json", o->json, "JSON output");
    cl.on(flag, [o] { return cmdDiskFlag(*o); });
    auto *record = dc->add_subcommand(
        "record", "Record the present LU map and list what changed since the last record "
                  "(exit status 0: nothing, 3: something changed)");
    record->add_flag("--json", o->json, "JSON output");
    cl.on(record, [o] { return cmdDiskRecord(*o); });
}

}  // namespace qmxmgr
