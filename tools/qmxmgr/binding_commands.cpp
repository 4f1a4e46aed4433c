// binding (persistent binding, automatic mapping, the BIOS's forced binding)
// and priority (LU priorities and path control).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "binding_items.h"
#include "commands.h"
#include "ports.h"

namespace qmxmgr {

namespace {

struct BindOptions {
    bool json = false;
    std::string port;
    std::string state;  // "on" / "off", or empty for a read
    std::vector<int> numbers;
};

// "on" -> 1, "off" -> 0; anything else is a usage error.
int onOff(const std::string &text) {
    if (text == "on") return 1;
    if (text == "off") return 0;
    throw UsageError("'" + text + "' is neither on nor off");
}

void printJson(const json &j) {
    std::cout << j.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
}

// The binding items of /etc/qmxldd.conf, per adapter and target, in the order
// the file has them.
struct TargetItems {
    std::map<std::string, std::string> values;  // kind word -> value
};
struct AdapterItems {
    std::string wwpn;
    std::vector<std::pair<int, TargetItems>> targets;  // file order
    TargetItems &target(int tid) {
        for (auto &t : targets)
            if (t.first == tid) return t.second;
        return targets.emplace_back(tid, TargetItems{}).second;
    }
};

int cmdBindingShow(const BindOptions &o) {
    util_para *raw = nullptr;
    int n = QMX_Read_qmxlddconf(&raw, 0);
    std::unique_ptr<util_para, decltype(&std::free)> list(raw, &std::free);
    if (n < 0) check(1, "QMX_Read_qmxlddconf");
    std::map<int, AdapterItems> adapters;
    for (int i = 0; raw != nullptr && i < n; ++i) {
        std::string key = fieldText(raw[i].keyword, sizeof raw[i].keyword);
        std::string value = fieldText(raw[i].value, sizeof raw[i].value);
        int a = 0, t = 0;
        std::string kind;
        if (!splitBindingKey(key, &a, &t, &kind)) continue;
        if (t < 0)
            adapters[a].wwpn = value;
        else
            adapters[a].target(t).values[kind] = value;
    }
    if (o.json) {
        json arr = json::array();
        for (auto &[a, items] : adapters) {
            json targets = json::array();
            for (auto &[tid, t] : items.targets) {
                json e{{"target", tid}};
                for (auto &[k, v] : t.values) e[k] = v;
                targets.push_back(e);
            }
            arr.push_back({{"adapter", a},
                           {"wwpn", items.wwpn.empty() ? json(nullptr) : json(items.wwpn)},
                           {"targets", targets}});
        }
        printJson({{"file", "/etc/qmxldd.conf"}, {"adapters", arr}});
        return kExitOk;
    }
    if (adapters.empty()) {
        std::printf("No binding items in /etc/qmxldd.conf.\n");
        return kExitOk;
    }
    for (auto &[a, items] : adapters) {
        std::printf("adapter %d  wwpn %s\n", a, items.wwpn.empty() ? "-" : items.wwpn.c_str());
        for (auto &[tid, t] : items.targets) {
            std::printf("  target %-3d", tid);
            for (auto &[k, v] : t.values) std::printf(" %s=%s", k.c_str(), v.c_str());
            std::printf("\n");
        }
    }
    return kExitOk;
}

int cmdBindingSave() {
    auto info = std::make_unique<QMX_PERSISTENTBINDING>();
    check(QMX_AutoSetPersistentBinding(info.get()), "QMX_AutoSetPersistentBinding");
    int adapters = 0, targets = 0;
    for (const hba &h : info->hba_info) {
        if (h.adap_number == -1) continue;
        ++adapters;
        // Entries the call did not fill are all 0xFF bytes.
        for (const target &t : h.target_info) {
            const auto *b = reinterpret_cast<const unsigned char *>(&t);
            for (std::size_t i = 0; i < sizeof t; ++i)
                if (b[i] != 0xFF) {
                    ++targets;
                    break;
                }
        }
    }
    std::printf("Current binding of %d adapter%s (%d target%s) saved in /etc/qmxldd.conf.\n",
                adapters, adapters == 1 ? "" : "s", targets, targets == 1 ? "" : "s");
    return kExitOk;
}

int cmdBindingClear() {
    check(QMX_DeletePersistentBinding(), "QMX_DeletePersistentBinding");
    std::printf("Target binding items removed from /etc/qmxldd.conf.\n");
    return kExitOk;
}

int cmdAutomap(const BindOptions &o) {
    if (!o.state.empty()) {
        int v = onOff(o.state);
        check(QMX_SetBindingAutoMapping(QMX_AUTOMAP(v)), "QMX_SetBindingAutoMapping");
        std::printf("Automatic mapping %s at the driver's next load.\n", v ? "on" : "off");
        return kExitOk;
    }
    QMX_AUTOMAP on = 0;
    check(QMX_GetBindingAutoMapping(&on), "QMX_GetBindingAutoMapping");
    if (o.json)
        printJson({{"automap", on == 1}});
    else
        std::printf("automap %s\n", on == 1 ? "on" : "off");
    return kExitOk;
}

int cmdForce(const BindOptions &o) {
    PortRef r = resolvePort(o.port, false);
    if (!o.state.empty()) {
        int v = onOff(o.state);
        check(QMX_SetForceBinding(r.wwn, QMX_UINT8(v)), "QMX_SetForceBinding");
        std::printf("Persistent bindings %s in the BIOS of %s.\n", v ? "enabled" : "disabled",
                    wwnText(r.wwn).c_str());
        return kExitOk;
    }
    QMX_UINT8 flag = 0;
    check(QMX_GetForceBinding(r.wwn, &flag), "QMX_GetForceBinding");
    // The BIOS listing's values: 1 enabled, 2 disabled (255: never listed).
    const char *text = flag == 1 ? "on" : flag == 2 ? "off" : "unknown";
    if (o.json)
        printJson({{"port", wwnText(r.wwn)}, {"force_binding", text}, {"value", flag}});
    else
        std::printf("%s force binding %s\n", wwnText(r.wwn).c_str(), text);
    return kExitOk;
}

const char *attributeText(int a) {
    return a == 0 ? "configured" : a == 1 ? "configured(H)" : a == 3 ? "unconfigured" : "?";
}

int cmdPriorityList(const BindOptions &o) {
    int n = QMX_GetLUPriorityCnt();
    if (n < 0) check(1, "QMX_GetLUPriorityCnt");
    std::vector<QMX_LU_PRIORITY> list(std::size_t(n > 0 ? n : 1));
    check(QMX_GetLUPriority(list.data()), "QMX_GetLUPriority");
    if (o.json) {
        json arr = json::array();
        for (int i = 0; i < n; ++i) {
            const QMX_LU_PRIORITY &e = list[std::size_t(i)];
            arr.push_back({{"group", e.group},
                           {"adapter", e.adapter},
                           {"target", e.target},
                           {"attribute", e.attribute},
                           {"attribute_text", attributeText(e.attribute)},
                           {"priority", {fieldText(e.priority1, sizeof e.priority1),
                                         fieldText(e.priority2, sizeof e.priority2),
                                         fieldText(e.priority3, sizeof e.priority3),
                                         fieldText(e.priority4, sizeof e.priority4)}}});
        }
        printJson({{"paths", arr}});
        return kExitOk;
    }
    std::printf("%-5s %-7s %-6s %-13s %s\n", "GROUP", "ADAPTER", "TARGET", "ATTRIBUTE",
                "PRIORITY (LUN 0-63, 64-127, 128-191, 192-255)");
    for (int i = 0; i < n; ++i) {
        const QMX_LU_PRIORITY &e = list[std::size_t(i)];
        std::printf("%-5d %-7d %-6d %-13s %s %s %s %s\n", e.group, e.adapter, e.target,
                    attributeText(e.attribute), fieldText(e.priority1, 17).c_str(),
                    fieldText(e.priority2, 17).c_str(), fieldText(e.priority3, 17).c_str(),
                    fieldText(e.priority4, 17).c_str());
    }
    return kExitOk;
}

// The priority edits succeed whatever their inner steps did; the reason
// code is what tells an inner failure.  Reported on one line, exit 4.
int partial(const char *call) {
    int code = QMX_LastErrorCode();
    if (code == 0) return kExitOk;
    std::fprintf(stderr, "qmxmgr: %s succeeded only in part: %s (reason code %d)\n", call, reasonText(code), code);
    return kExitPartial;
}

int cmdPrioritySet(const BindOptions &o) {
    const auto &v = o.numbers;
    check(QMX_SetLUPriority(v[0], v[1], v[2], v[3]), "QMX_SetLUPriority");
    if (int rc = partial("QMX_SetLUPriority")) return rc;
    std::printf("LUN %d of adapter %d target %d: priority %s.\n", v[2], v[0], v[1],
                v[3] == 1 ? "set" : "cleared");
    return kExitOk;
}

int cmdPriorityRelease(const BindOptions &o) {
    check(QMX_ReleasePathControl(o.numbers[0]), "QMX_ReleasePathControl");
    if (int rc = partial("QMX_ReleasePathControl")) return rc;
    std::printf("Path group %d released.\n", o.numbers[0]);
    return kExitOk;
}

int cmdPriorityToggle(const BindOptions &o) {
    check(QMX_ChangePathAttribute(o.numbers[0], o.numbers[1]), "QMX_ChangePathAttribute");
    if (int rc = partial("QMX_ChangePathAttribute")) return rc;
    std::printf("Path attribute of adapter %d target %d changed.\n", o.numbers[0], o.numbers[1]);
    return kExitOk;
}

}  // namespace

void addBindingCommands(CommandLine &cl) {
    auto o = std::make_shared<BindOptions>();
    auto *binding = cl.app.add_subcommand(
        "binding", "Persistent binding of targets in /etc/qmxldd.conf, automatic mapping, "
                   "forced binding in the BIOS");
    binding->require_subcommand(1, 1);
    auto *show = binding->add_subcommand("show", "The binding items of /etc/qmxldd.conf, "
                                                 "per adapter and target");
    show->add_flag("--json", o->json, "JSON output");
    cl.on(show, [o] { return cmdBindingShow(*o); });
    auto *save = binding->add_subcommand(
        "save", "Store the driver's current target maps of every adapter as the binding");
    cl.on(save, [] { return cmdBindingSave(); });
    auto *clear = binding->add_subcommand("clear", "Remove every target binding item");
    cl.on(clear, [] { return cmdBindingClear(); });
    auto *automap = binding->add_subcommand(
        "automap", "The driver's automatic mapping switch: automap [on|off]");
    automap->add_option("STATE", o->state, "on or off (none: show it)");
    automap->add_flag("--json", o->json, "JSON output");
    cl.on(automap, [o] { return cmdAutomap(*o); });
    auto *force = binding->add_subcommand(
        "force", "The BIOS's persistent bindings item of a port: force PORT [on|off]");
    force->add_option("PORT", o->port, kPortHelp)->required();
    force->add_option("STATE", o->state, "on or off (none: show it)");
    force->add_flag("--json", o->json, "JSON output");
    cl.on(force, [o] { return cmdForce(*o); });
}

void addPriorityCommands(CommandLine &cl) {
    auto o = std::make_shared<BindOptions>();
    auto *priority = cl.app.add_subcommand(
        "priority", "Path groups, path attributes and LU priorities in /etc/qmxldd.conf");
    priority->require_subcommand(1, 1);
    auto *list = priority->add_subcommand("list", "Every configured target path by group");
    list->add_flag("--json", o->json, "JSON output");
    cl.on(list, [o] { return cmdPriorityList(*o); });
    auto *set = priority->add_subcommand(
        "set", "Set (1) or clear (0) one LUN's priority: set ADAPTER TARGET LUN 0|1");
    set->add_option("ADAPTER TARGET LUN PRIORITY", o->numbers)->required()->expected(4);
    cl.on(set, [o] { return cmdPrioritySet(*o); });
    auto *release = priority->add_subcommand(
        "release", "Dissolve a path group (each path becomes a group of its own): release GROUP; "
                   "exit status 4 when the call succeeded only in part (a group no target has)");
    release->add_option("GROUP", o->numbers)->required()->expected(1);
    cl.on(release, [o] { return cmdPriorityRelease(*o); });
    auto *toggle = priority->add_subcommand(
        "toggle", "Move the attribute (H) mark of a path to the other paths of its group: "
                  "toggle ADAPTER TARGET");
    toggle->add_option("ADAPTER TARGET", o->numbers)->required()->expected(2);
    cl.on(toggle, [o] { return cmdPriorityToggle(*o); });
}

}  // namespace qmxmgr
