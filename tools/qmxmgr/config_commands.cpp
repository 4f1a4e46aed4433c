// export, diff and apply: the stored configuration of the host as one
// document, what differs from a document, and making the host equal to it.
//
// Exit statuses of diff: 0 no drift, 2 drift, 1 a refused document or a
// failed call (so that cron and monitoring can alert on drift alone).
#include <cstring>
#include <iostream>

#include "commands.h"
#include "config_document.h"
#include "config_keys.h"
#include "tracefile.h"

namespace qmxmgr {

namespace {

constexpr int kExitDrift = 2;

// Runs a command, turning every failure into a message and status 1 (status
// 2 belongs to drift).
int guarded(const std::function<int()> &fn) {
    try {
        return fn();
    } catch (const CallError &e) {
        std::cerr << "qmxmgr: " << failureLine(e.call(), e.what()) << "\n";
    } catch (const std::exception &e) {
        std::cerr << "qmxmgr: " << e.what() << "\n";
    }
    return kExitFailed;
}

struct ConfigOptions {
    bool json = false, yaml = false, withCurrent = false, dryRun = false, prune = false;
    std::vector<std::string> ports;
    std::string file;
};

int cmdExport(const ConfigOptions &o) {
    json doc = exportDocument(o.ports, o.withCurrent);
    if (o.json)
        std::cout << doc.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
    else
        std::cout << toYaml(doc);
    return kExitOk;
}

int cmdDiff(const ConfigOptions &o) {
    return guarded([&] {
        std::vector<Change> changes = plan(readDocument(o.file), o.prune);
        for (const Change &c : changes) std::cout << changeLine(c) << "\n";
        return changes.empty() ? kExitOk : kExitDrift;
    });
}

int cmdApply(const ConfigOptions &o) {
    return guarded([&] {
        std::vector<Change> changes = plan(readDocument(o.file), o.prune);
        if (changes.empty()) {
            std::cout << "no changes\n";
            return kExitOk;
        }
        if (o.dryRun) {
            for (const Change &c : changes) std::cout << changeLine(c, "would change ") << "\n";
            std::cout << changes.size() << " change(s), none made (dry run)\n";
            return kExitOk;
        }
        for (std::size_t i = 0; i < changes.size();) {
            // One change, or every change of a key written as one table.
            const ConfigKey *key = changes[i].key;
            std::size_t end = i + 1;
            while (key->writeAll && end < changes.size() && changes[end].key == key) ++end;
            try {
                if (key->writeAll) {
                    std::vector<std::pair<QMX_WWN, json>> rows;
                    for (std::size_t j = i; j < end; ++j) rows.emplace_back(changes[j].wwn, changes[j].to);
                    key->writeAll(rows);
                } else {
                    key->write(changes[i].wwn, changes[i].to);
                }
            } catch (const CallError &e) {
                std::cerr << changeLine(changes[i], "qmxmgr: ") << ": "
                          << failureLine(e.call(), e.what()) << "\n";
                std::cerr << "qmxmgr: " << i << " change(s) made, " << changes.size() - i
                          << " not made:\n";
                for (std::size_t j = i; j < changes.size(); ++j)
                    std::cerr << changeLine(changes[j], "not changed: ") << "\n";
                return kExitFailed;
            }
            for (; i < end; ++i) std::cout << changeLine(changes[i], "changed ") << "\n";
        }
        std::cout << changes.size() << " change(s) made\n";
        return kExitOk;
    });
}

}  // namespace

void addConfigCommands(CommandLine &cl) {
    auto o = std::make_shared<ConfigOptions>();
    CLI::App &app = cl.app;

    auto *exp = app.add_subcommand(
        "export", "The stored configuration of the ports as one document (YAML unless --json), "
                  "for diff and apply");
    auto *j = exp->add_flag("--json", o->json, "JSON document");
    exp->add_flag("--yaml", o->yaml, "YAML document (the default)")->excludes(j);
    exp->add_flag("--with-current", o->withCurrent,
                  "Add each port's current driver values under 'current' (never applied)");
    exp->add_option("PORT", o->ports, "Ports to export (default: every port); " +
                                          std::string(kPortHelp));
    cl.on(exp, [o] { return cmdExport(*o); });

    auto *diff = app.add_subcommand(
        "diff", "What apply FILE would change, one line per setting; exit 0 no drift, 2 drift, "
                "1 error");
    diff->add_option("FILE", o->file, "Document (YAML or JSON; - for standard input)")->required();
    diff->add_flag("--prune", o->prune, "Count stored settings the document omits as drift");
    cl.on(diff, [o] { return cmdDiff(*o); });

    auto *apply = app.add_subcommand(
        "apply", "Make the stored configuration equal to FILE; settings the document omits are "
                 "left alone unless --prune");
    apply->add_option("FILE", o->file, "Document (YAML or JSON; - for standard input)")->required();
    apply->add_flag("--dry-run", o->dryRun, "Show the changes, make none");
    apply->add_flag("--prune", o->prune,
                    "Remove the stored settings of the listed ports that the document omits");
    cl.on(apply, [o] { return cmdApply(*o); });
}

}  // namespace qmxmgr
