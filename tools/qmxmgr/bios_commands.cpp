// bios (BIOS data, backup, restore, restart, pre-configuration), firmware
// (update, backup, refresh, version), diag run and log erase.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "commands.h"
#include "ports.h"

namespace qmxmgr {

namespace {

void printJson(const json &j) {
    std::cout << j.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
}

std::string label(const PortRef &r) {
    if (r.info) return r.info->device + " (" + wwnText(r.wwn) + ")";
    return wwnText(r.wwn);
}

// Shows that a tool is running: a spinner with the elapsed seconds on a
// terminal (standard error), nothing when it is not one.
class Progress {
public:
    explicit Progress(std::string what) : what_(std::move(what)) {
        if (isatty(STDERR_FILENO) == 0) return;
        thread_ = std::thread([this] { spin(); });
    }
    ~Progress() {
        if (!thread_.joinable()) return;
        {
            std::lock_guard<std::mutex> l(m_);
            done_ = true;
        }
        cv_.notify_one();
        thread_.join();
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
    }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

private:
    void spin() {
        static const char kFrames[] = "|/-\\";
        auto start = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> l(m_);
        for (int i = 0; !done_; ++i) {
            long secs = long(std::chrono::duration_cast<std::chrono::seconds>(
                                 std::chrono::steady_clock::now() - start)
                                 .count());
            std::fprintf(stderr, "\r%c %s ... %lds", kFrames[i % 4], what_.c_str(), secs);
            std::fflush(stderr);
            cv_.wait_for(l, std::chrono::milliseconds(200), [this] { return done_; });
        }
    }

    std::string what_;
    std::thread thread_;
    std::mutex m_;
    std::condition_variable cv_;
    bool done_ = false;
};

// "PORT PATH" or "--all PATH": the all-zero WWN selects every adapter.
PortRef portOrAll(const std::vector<std::string> &args, bool all, const char *verb, std::string *path) {
    if (args.size() != (all ? 1u : 2u))
        throw UsageError(std::string(verb) + (all ? " --all takes only the path" : " needs PORT and the path, or --all"));
    *path = args.back();
    if (all) return allPortsRef();
    return resolvePort(args.front(), true);
}

std::string targetText(const PortRef &r) { return r.allPorts ? "every adapter" : label(r); }

char *cstr(const std::string &s) { return const_cast<char *>(s.c_str()); }

// On/off values: 1/2 from the adapter's listing, 1/0 from a backup file,
// 255 (or any other) when not known.
json onOff(uint32_t v, bool fromFile) {
    if (v == 1) return "enabled";
    if (fromFile ? v == 0 : v == 2) return "disabled";
    return nullptr;
}

std::string shown(const json &j) { return j.is_null() ? "unknown" : j.get<std::string>(); }

json biosJson(const QMX_BIOS_DATA &d, bool fromFile) {
    static const char *const kConnect[] = {nullptr, "auto", "point-to-point", "loop"};
    json conn = d.connectType >= 1 && d.connectType <= 3 ? json(kConnect[d.connectType]) : json(nullptr);
    json rate = nullptr;
    if (d.dataRate == 0) rate = "auto";
    else if (d.dataRate == 1 || d.dataRate == 2 || d.dataRate == 4 || d.dataRate == 8 || d.dataRate == 10)
        rate = std::to_string(d.dataRate) + "G";
    json login = d.loginDelay == 255 ? json("default")
                 : d.loginDelay <= 60 ? json(d.loginDelay) : json(nullptr);
    json boot = json::array();
    for (int i = 0; i < QMX_BOOT_DEVICE_MAX; ++i)
        boot.push_back(json{{"index", i + 1},
                            {"wwn", wwnText(d.bootPriList.entry[i].PortWWN)},
                            {"lun", d.bootPriList.entry[i].lun}});
    return json{{"hba_bios", onOff(d.hbaBios, fromFile)},
                {"boot_priority", onOff(d.bootPri, fromFile)},
                {"spinup_delay", onOff(d.spinupDelay, fromFile)},
                {"connection_type", conn},
                {"data_rate", rate},
                {"persistent_bindings", onOff(d.pBindings, fromFile)},
                {"force_default", onOff(uint32_t(d.forceDefault), fromFile)},
                {"additional_wwpn", wwnText(d.addWwpn)},
                {"login_delay", login},
                {"pre_configure", onOff(uint32_t(d.preConfigure), fromFile)},
                {"boot_devices", boot}};
}

struct BiosOptions {
    std::string port, path, state, tests;
    std::vector<std::string> args;  // PORT PATH, or PATH with --all
    bool all = false, json = false, force = false;
    bool externalLoop = false, noMonitor = false;
    unsigned time = 0, count = 0, errors = 0;
    int targetPort = 1, interval = 0;
};

int cmdBiosShow(const BiosOptions &o) {
    PortRef r = resolvePort(o.port, false);
    QMX_BIOS_DATA d;
    std::memset(&d, 0, sizeof d);
    bool fromFile = !o.path.empty();
    check(QMX_GetBiosData(r.wwn, fromFile ? cstr(o.path) : nullptr, &d), "QMX_GetBiosData");
    json j = biosJson(d, fromFile);
    if (o.json) {
        printJson(json{{"port", label(r)}, {"source", fromFile ? "file" : "adapter"},
                       {"file", fromFile ? json(o.path) : json(nullptr)}, {"settings", j}});
        return kExitOk;
    }
    std::printf("BIOS settings of %s (%s)\n", label(r).c_str(),
                fromFile ? ("backup file " + o.path).c_str() : "adapter");
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (it.key() == "boot_devices") continue;
        std::string v = it->is_number() ? std::to_string(it->get<unsigned>()) : shown(*it);
        std::printf("  %-20s %s\n", it.key().c_str(), v.c_str());
    }
    std::printf("  boot devices:\n");
    for (const json &b : j["boot_devices"])
        std::printf("    %d  %s  LUN %u\n", b["index"].get<int>(), b["wwn"].get<std::string>().c_str(),
                    b["lun"].get<unsigned>());
    return kExitOk;
}

int cmdBiosBackup(const BiosOptions &o) {
    std::string dir;
    PortRef r = portOrAll(o.args, o.all, "bios backup", &dir);
    {
        Progress p("BIOS backup");
        check(QMX_BiosBackup(r.allPorts ? QMX_WWN{} : r.wwn, cstr(dir)), "QMX_BiosBackup");
    }
    std::printf("BIOS settings of %s saved into %s\n", targetText(r).c_str(), dir.c_str());
    return kExitOk;
}

int cmdBiosRestore(const BiosOptions &o) {
    PortRef r = resolvePort(o.port, false);
    {
        Progress p("BIOS restore");
        check(QMX_BiosRestore(r.wwn, cstr(o.path)), "QMX_BiosRestore");
    }
    std::printf("BIOS settings of %s's adapter restored from %s\n", label(r).c_str(), o.path.c_str());
    return kExitOk;
}

int cmdBiosRestart(const BiosOptions &o) {
    PortRef r = resolvePort(o.port, false);
    check(QMX_BiosRestart(r.wwn), "QMX_BiosRestart");
    std::printf("Adapter of %s restarted\n", label(r).c_str());
    return kExitOk;
}

int cmdPreConfigure(const BiosOptions &o) {
    PortRef r = resolvePort(o.port, false);
    if (o.state.empty()) {
        QMX_UINT32 v = 0;
        check(QMX_GetPreConfigure(r.wwn, &v), "QMX_GetPreConfigure");
        std::string text = shown(onOff(v, false));
        if (o.json)
            printJson(json{{"port", label(r)}, {"pre_configure", onOff(v, false)}, {"value", v}});
        else
            std::printf("Pre-configuration of %s: %s\n", label(r).c_str(), text.c_str());
        return kExitOk;
    }
    QMX_UINT32 v = o.state == "on" ? 1 : 0;
    check(QMX_SetPreConfigure(r.wwn, v), "QMX_SetPreConfigure");
    std::printf("Pre-configuration of %s %s\n", label(r).c_str(), v ? "enabled" : "disabled");
    return kExitOk;
}

int cmdFirmwareVersion(const BiosOptions &o) {
    PortRef r = resolvePort(o.port, false);
    QMX_FW_VERSION v;
    std::memset(&v, 0, sizeof v);
    check(QMX_GetFirmwareVersion(r.wwn, o.path.empty() ? nullptr : cstr(o.path), &v),
          "QMX_GetFirmwareVersion");
    std::string now(v.now_version, strnlen(v.now_version, sizeof v.now_version));
    std::string img(v.new_version, strnlen(v.new_version, sizeof v.new_version));
    if (o.json) {
        printJson(json{{"port", label(r)}, {"running", now},
                       {"image", o.path.empty() ? json(nullptr) : json(o.path)},
                       {"image_version", o.path.empty() ? json(nullptr) : json(img)}});
        return kExitOk;
    }
    std::printf("Running firmware of %s: %s\n", label(r).c_str(), now.c_str());
    if (!o.path.empty())
        std::printf("Image %s: %s%s\n", o.path.c_str(), img.c_str(),
                    img == now ? " (the running version)" : "");
    return kExitOk;
}

int cmdFirmwareTool(const BiosOptions &o, bool update) {
    std::string path;
    PortRef r = portOrAll(o.args, o.all, update ? "firmware update" : "firmware backup", &path);
    QMX_WWN w = r.allPorts ? QMX_WWN{} : r.wwn;
    {
        Progress p(update ? "firmware update" : "firmware backup");
        if (update)
            check(QMX_FirmwareUpdate(w, cstr(path), o.force ? 1 : 0), "QMX_FirmwareUpdate");
        else
            check(QMX_FirmwareBackup(w, cstr(path), o.force ? 1 : 0), "QMX_FirmwareBackup");
    }
    // The library starts the tool and does not look at its result.
    std::printf("Firmware %s of %s started with %s (the tool's own messages tell its outcome)\n",
                update ? "update" : "backup", targetText(r).c_str(), path.c_str());
    return kExitOk;
}

int cmdFirmwareRefresh(const BiosOptions &o) {
    if (o.all && !o.port.empty()) throw UsageError("firmware refresh: give PORT or --all, not both");
    int operation = o.all ? 2 : o.port.empty() ? 0 : 1;
    std::string device;
    if (operation == 1) {
        PortRef r = resolvePort(o.port, false);
        if (!r.info) throw UsageError("port " + o.port + " is not discovered");
        device = r.info->device;
    }
    {
        Progress p("firmware refresh");
        check(QMX_OnlineUpdateFW(operation, operation == 1 ? cstr(device) : nullptr, o.force ? 1 : 0),
              "QMX_OnlineUpdateFW");
    }
    std::printf("Firmware refresh of %s started\n",
                operation == 1 ? device.c_str() : operation == 2 ? "every device" : "the tool's default devices");
    return kExitOk;
}

int cmdDiagRun(const BiosOptions &o) {
    PortRef r = resolvePort(o.port, false);
    QMX_DIAG_PARAM p;
    std::memset(&p, 0, sizeof p);
    p.test_time = o.time;
    p.test_count = o.count;
    p.error_count = o.errors;
    p.external_loop = o.externalLoop ? 1 : 0;
    p.target_port = o.targetPort;
    p.interval_time = o.interval;
    p.no_monitor = o.noMonitor ? 1 : 0;
    const struct {
        const char *name;
        int QMX_DIAG_PARAM::*field;
    } kTests[] = {{"reg", &QMX_DIAG_PARAM::reg_test},   {"ram", &QMX_DIAG_PARAM::ram_test},
                  {"iloop", &QMX_DIAG_PARAM::iloop_test}, {"dma", &QMX_DIAG_PARAM::dma_test},
                  {"pci", &QMX_DIAG_PARAM::pci_test},   {"fmem", &QMX_DIAG_PARAM::fmem_test}};
    std::stringstream ss(o.tests);
    for (std::string t; std::getline(ss, t, ',');) {
        bool known = false;
        for (const auto &k : kTests)
            if (t == k.name) p.*k.field = 1, known = true;
        if (!known) throw UsageError("unknown test '" + t + "': give reg, ram, iloop, dma, pci or fmem");
    }
    char *log = nullptr;
    {
        Progress pr("diagnostics");
        log = QMX_DiagExecution(r.wwn, &p);
    }
    if (log == nullptr) {
        int code = QMX_LastErrorCode();
        std::printf("Log: %s\n", code == 12 ? QMX_G_DiagLog : "(none)");
        throw CallError("QMX_DiagExecution", code);
    }
    std::printf("Log: %s\n", log);
    std::ifstream in(log);
    std::cout << in.rdbuf();
    return kExitOk;
}

int cmdLogErase(const BiosOptions &o) {
    PortRef r = resolvePort(o.port, false);
    check(QMX_EraseLogData(r.wwn), "QMX_EraseLogData");
    std::printf("Error log of %s's adapter erased\n", label(r).c_str());
    return kExitOk;
}

}  // namespace

void addBiosCommands(CommandLine &cl) {
    auto o = std::make_shared<BiosOptions>();
    CLI::App &app = cl.app;
    auto port = [&](CLI::App *sub, bool required = true) {
        auto *opt = sub->add_option("PORT", o->port, kPortHelp);
        if (required) opt->required();
    };

    auto *bios = app.add_subcommand("bios", "Boot BIOS data: show, backup, restore, restart, preconfigure");
    bios->require_subcommand(1);
    auto *show = bios->add_subcommand("show", "A port's BIOS settings, from the adapter or a backup file");
    port(show);
    show->add_option("--file", o->path, "Decode this backup file instead of asking the adapter");
    show->add_flag("--json", o->json, "JSON output");
    cl.on(show, [o] { return cmdBiosShow(*o); });
    auto *backup = bios->add_subcommand("backup", "Save the BIOS settings of a port's adapter (or --all) into DIR");
    backup->add_flag("--all", o->all, "Every adapter");
    backup->add_option("ARGS", o->args, "PORT DIR, or DIR with --all")->required()->expected(1, 2);
    cl.on(backup, [o] { return cmdBiosBackup(*o); });
    auto *restore = bios->add_subcommand("restore", "Write a backup file back into a port's adapter");
    port(restore);
    restore->add_option("FILE", o->path, "Backup file")->required();
    cl.on(restore, [o] { return cmdBiosRestore(*o); });
    auto *restart = bios->add_subcommand("restart", "Restart a port's adapter");
    port(restart);
    cl.on(restart, [o] { return cmdBiosRestart(*o); });
    auto *pre = bios->add_subcommand("preconfigure", "Pre-configuration switch: show, or set on|off");
    port(pre);
    pre->add_option("STATE", o->state, "on or off; none: show")->check(CLI::IsMember({"on", "off"}));
    pre->add_flag("--json", o->json, "JSON output");
    cl.on(pre, [o] { return cmdPreConfigure(*o); });

    auto *fw = app.add_subcommand("firmware", "Firmware: version, update, backup, refresh");
    fw->require_subcommand(1);
    auto *ver = fw->add_subcommand("version", "Running firmware version, and an image's with --image");
    port(ver);
    ver->add_option("--image", o->path, "Firmware image file");
    ver->add_flag("--json", o->json, "JSON output");
    cl.on(ver, [o] { return cmdFirmwareVersion(*o); });
    for (bool update : {true, false}) {
        auto *sub = fw->add_subcommand(update ? "update" : "backup",
                                       update ? "Download an image into a port's adapter (or --all)"
                                              : "Save the firmware of a port's adapter (or --all) into DIR");
        sub->add_flag("--all", o->all, "Every adapter");
        sub->add_option("ARGS", o->args, update ? "PORT FILE, or FILE with --all" : "PORT DIR, or DIR with --all")
            ->required()
            ->expected(1, 2);
        sub->add_flag("--force", o->force, "Pass the tool's force option");
        cl.on(sub, [o, update] { return cmdFirmwareTool(*o, update); });
    }
    auto *ref = fw->add_subcommand("refresh", "Refresh the running firmware (the tool's default, PORT or --all)");
    ref->add_option("PORT", o->port, kPortHelp);
    ref->add_flag("--all", o->all, "Every device");
    ref->add_flag("--force", o->force, "Pass the tool's force option (with PORT or --all)");
    cl.on(ref, [o] { return cmdFirmwareRefresh(*o); });

    auto *diag = app.add_subcommand("diag", "Adapter diagnostics");
    diag->require_subcommand(1);
    auto *run = diag->add_subcommand("run", "Run the diagnostic tool on a port; prints the log path and the log");
    port(run);
    run->add_option("--test", o->tests, "Tests, comma separated: reg, ram, iloop, dma, pci, fmem");
    run->add_option("--time", o->time, "Test time in seconds (0: the tool's default)");
    run->add_option("--count", o->count, "Test count (0: the tool's default)");
    run->add_option("--errors", o->errors, "Error count");
    run->add_flag("--external-loop", o->externalLoop, "External loop-back");
    run->add_option("--target-port", o->targetPort, "Target port, 1 or 2")->check(CLI::Range(1, 2));
    run->add_option("--interval", o->interval, "Interval time in seconds")->check(CLI::NonNegativeNumber);
    run->add_flag("--no-monitor", o->noMonitor, "No monitoring");
    cl.on(run, [o] { return cmdDiagRun(*o); });

    auto *log = app.add_subcommand("log", "Adapter error log");
    log->require_subcommand(1);
    auto *erase = log->add_subcommand("erase", "Erase the error log of a port's adapter");
    port(erase);
    cl.on(erase, [o] { return cmdLogErase(*o); });
}

}  // namespace qmxmgr
