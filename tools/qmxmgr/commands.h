// The qmxmgr commands.  Each returns the process exit status and throws
// UsageError or CallError for the caller to report.
//
// Command groups register themselves: each group file has one add...Commands
// function that adds its subcommands to the application and, from a
// subcommand's callback, selects the action that main runs after parsing.
// A new group adds its function to the list below and to kCommandGroups in
// groups.cpp.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "common.h"

namespace qmxmgr {

// The command line being built.
struct CommandLine {
    CLI::App &app;
    std::map<const CLI::App *, std::function<int()>> actions;

    // Runs `fn` when `sub` is the command given.
    void on(CLI::App *sub, std::function<int()> fn) { actions[sub] = std::move(fn); }

    // After parsing: the action of the most deeply nested command given
    // (`numbering set` runs set, `numbering` alone the listing), or none.
    std::function<int()> chosen() const {
        std::function<int()> fn;
        for (const CLI::App *a = &app; a != nullptr;) {
            if (auto it = actions.find(a); it != actions.end()) fn = it->second;
            auto subs = a->get_subcommands();
            a = subs.empty() ? nullptr : subs.front();
        }
        return fn;
    }
};

// Help text of a PORT operand.
extern const char *const kPortHelp;

using AddCommands = void (*)(CommandLine &);
void addPortCommands(CommandLine &cl);       // ports, show, get, set, unset, bi
void addNumberingCommands(CommandLine &cl);  // numbering
void addTraceCommands(CommandLine &cl);      // trace
void addBiosCommands(CommandLine &cl);       // bios, firmware, diag, log
void addIsolationCommands(CommandLine &cl);  // isolate, sfp, isolation, trouble
void addDiskConfCommands(CommandLine &cl);   // diskconf
void addDocCommands(CommandLine &cl);        // completion, manpage
// alias, host, info, devices, defaults, default-params, scan, rescan, reflect
void addHostInfoCommands(CommandLine &cl);
void addBindingCommands(CommandLine &cl);    // binding
void addPriorityCommands(CommandLine &cl);   // priority
void addMultipathCommands(CommandLine &cl);  // mp
void addMetricsCommands(CommandLine &cl);    // metrics
void addLockCommands(CommandLine &cl);       // lock
void addConfigCommands(CommandLine &cl);     // export, diff, apply
// Every group, in the order of the help text.
extern const std::vector<AddCommands> kCommandGroups;

struct Options {
    bool json = false;
    bool allPorts = false;
    bool configured = false;
    bool follow = false;
    bool force = false;
    int lines = -1;
    int devno = -1;
    std::string board;
    std::string port;
    std::string state;
    std::vector<std::string> args;
};

int cmdPorts(const Options &o);
int cmdShow(const Options &o);
int cmdGet(const Options &o);
int cmdSet(const Options &o, bool unset);
int cmdNumbering(const Options &o);
int cmdNumberingChange(const Options &o, int operation);
int cmdDeletePath(const Options &o, int devno);
int cmdTrace(const Options &o);
int cmdBios(const Options &o);

// A port's alias names (empty when none is set).
struct Aliases {
    std::string hba, port;
};
Aliases readAliases(const QMX_WWN &wwn);

}  // namespace qmxmgr
