// metrics: the state of every port, LU path and logical target in the
// Prometheus text exposition format (version 0.0.4), for the node exporter's
// textfile collector or any scraper that reads that format.
//
// A call that fails costs only the samples it would have given: the rest is
// printed, `qmxldd_scrape_error{family="..."}` is 1 for the family of calls
// that failed (0 for the others, so an alert can tell "no error" from "no
// data"), a one-line warning naming the call goes to standard error, and the
// exit status stays 0 so that `qmxmgr metrics > f.$$ && mv f.$$ f` still
// replaces the file.  Only the discovery of the ports is needed for anything
// to be printed at all; its failure is still reported as a scrape error.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "commands.h"
#include "path_listings.h"
#include "ports.h"

namespace qmxmgr {

namespace {

// ------------------------------------------------------------ exposition
// Label values escape backslash, double quote and line feed; help texts
// escape backslash and line feed.
void appendEscaped(std::string &out, std::string_view text, bool quote) {
    for (char c : text) {
        if (c == '\\') out += "\\\\";
        else if (c == '\n') out += "\\n";
        else if (quote && c == '"') out += "\\\"";
        else out += c;
    }
}

struct Label {
    std::string_view name, value;
};

// A sample's labels, as the chosen output wants them.
struct Labels {
    std::string text;  // `{a="x",b="y"}`, empty for no labels
    json object;       // with --json
};

// The metric families, printed in the order they were declared, each with
// its HELP and TYPE lines and then its samples (the format wants the samples
// of one family together).  With --json the same families and samples are
// one JSON document: {"metrics": [{"name", "type", "help", "samples":
// [{"labels": {...}, "value": n}]}]}.
class Exposition {
public:
    struct Family {
        std::string name, help, type, body;
        json samples = json::array();
    };

    explicit Exposition(bool asJson) : json_(asJson) {}

    Family &family(std::string name, std::string help, const char *type) {
        families_.push_back(std::make_unique<Family>(Family{std::move(name), std::move(help), type, {}}));
        return *families_.back();
    }

    Labels labels(std::initializer_list<Label> list) const {
        Labels l;
        if (json_) {
            l.object = json::object();
            for (const Label &e : list) l.object[std::string(e.name)] = e.value;
            return l;
        }
        if (list.size() == 0) return l;
        l.text += '{';
        for (const Label &e : list) {
            if (l.text.size() > 1) l.text += ',';
            l.text += e.name;
            l.text += "=\"";
            appendEscaped(l.text, e.value, true);
            l.text += '"';
        }
        l.text += '}';
        return l;
    }

    // Counts print as integers, the rest with 9 significant digits.
    template <class V>
    void sample(Family &f, const Labels &l, V value) {
        static_assert(std::is_same_v<V, long long> || std::is_same_v<V, double>);
        if (json_) {
            f.samples.push_back(json{{"labels", l.object}, {"value", value}});
            return;
        }
        char num[40];
        int n = std::is_same_v<V, long long> ? std::snprintf(num, sizeof num, " %lld\n", (long long)value)
                                             : std::snprintf(num, sizeof num, " %.9g\n", double(value));
        f.body += f.name;
        f.body += l.text;
        f.body.append(num, std::size_t(n));
    }

    std::string text() const {
        if (json_) {
            json all = json::array();
            for (const auto &f : families_)
                all.push_back(json{{"name", f->name}, {"type", f->type}, {"help", f->help}, {"samples", f->samples}});
            return json{{"metrics", all}}.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
        }
        std::size_t size = 0;
        for (const auto &f : families_) size += f->body.size() + f->help.size() + 2 * f->name.size() + 32;
        std::string out;
        out.reserve(size);
        for (const auto &f : families_) {
            out += "# HELP " + f->name + ' ';
            appendEscaped(out, f->help, false);
            out += "\n# TYPE " + f->name + ' ' + f->type + '\n';
            out += f->body;
        }
        return out;
    }

private:
    bool json_;
    std::vector<std::unique_ptr<Family>> families_;
};

// ------------------------------------------------------------ call families
// Each family of calls has one scrape-error sample; a family is marked when
// any call of it fails.
enum CallFamily { kPortsCalls, kPortInfoCalls, kTroubleCalls, kIsolationCalls, kLuPathCalls, kTargetPathCalls, kFamilies };
constexpr const char *kFamilyNames[kFamilies] = {"ports",              "port_info",  "trouble_counters",
                                                 "isolation_function", "lu_paths",   "target_paths"};

struct Scrape {
    bool failed[kFamilies] = {};

    // Runs one library call; on failure marks its family and warns on
    // standard error with the call's name and the reason code's meaning.
    bool attempt(CallFamily family, const char *call, const std::string &what, QMX_STATUS st) {
        if (st == 0) return true;
        failed[family] = true;
        int code = QMX_LastErrorCode();
        std::fprintf(stderr, "qmxmgr metrics: %s%s%s failed: %s (code %d)\n", call, what.empty() ? "" : " for ",
                     what.c_str(), reasonText(code), code);
        return false;
    }
};

// The driver reports the port's data rate; the speed classes it knows are
// those of the port speed setting (100 per Gbit/s, 1000 for 10 Gbit/s).
// Any other rate is no known speed and shows as 0.
double linkBytesPerSecond(uint32_t rate) {
    constexpr struct {
        uint32_t rate, gbits;
    } kRates[] = {{100, 1}, {200, 2}, {400, 4}, {800, 8}, {1000, 10}};
    for (const auto &r : kRates)
        if (r.rate == rate) return double(r.gbits) * 1e9 / 8;
    return 0;
}

// A path the driver reports with state 1 is online; every other state
// (offline, failed, standby ...) counts as not online.
constexpr uint8_t kPathOnline = 1;

struct PortMetrics {
    Exposition::Family &info, &status, &isolated, &speed, &linkDown, &ifErr, &tmoErr, &tmoReset, &isolFunc,
        &fwSupport, &sharedSupport;
};

void addPortSamples(Exposition &x, const PortMetrics &m, Scrape &s, const PortInfo &p) {
    std::string wwn = wwnText(p.wwn), pci = pciText(p);
    Labels labels = x.labels({{"device", p.device}, {"wwn", wwn}, {"pci", pci}});
    QMX_PROC_INFO info{};
    if (s.attempt(kPortInfoCalls, "QMX_GetProcInfo", p.device, QMX_GetProcInfo(p.wwn, &info))) {
        std::string model = fieldText(info.model_name, sizeof info.model_name);
        std::string driver = fieldText(info.driver_ver, sizeof info.driver_ver);
        x.sample(m.info,
                 x.labels({{"device", p.device}, {"wwn", wwn}, {"pci", pci}, {"model", model},
                            {"firmware", firmwareText(info.firmware_ver)}, {"driver", driver}}),
                 1LL);
        x.sample(m.status, labels, (long long)info.port_status);
        x.sample(m.isolated, labels, info.port_status == 3 ? 1LL : 0LL);
        x.sample(m.speed, labels, linkBytesPerSecond(info.max_data_rate));
    }
    QMX_TRBL_CNT c{};
    if (!s.attempt(kTroubleCalls, "QMX_GetAdapTroubleCnt", p.device, QMX_GetAdapTroubleCnt(p.wwn, &c))) return;
    // The library leaves -1 (255 for the flags) in what it could not read.
    auto counter = [&](Exposition::Family &f, const Labels &l, int v) {
        if (v >= 0) x.sample(f, l, (long long)v);
    };
    auto flag = [&](Exposition::Family &f, uint8_t v) {
        if (v != 255) x.sample(f, labels, v != 0 ? 1LL : 0LL);
    };
    for (auto [interval, count] : {std::pair{"long", c.countL}, std::pair{"short", c.countS}})
        counter(m.linkDown, x.labels({{"device", p.device}, {"wwn", wwn}, {"pci", pci}, {"interval", interval}}),
                count);
    counter(m.ifErr, labels, c.if_err);
    counter(m.tmoErr, labels, c.tmo_err);
    counter(m.tmoReset, labels, c.tmo_reset);
    flag(m.isolFunc, c.err_is_func);
    flag(m.fwSupport, c.err_is_fw_spt);
    flag(m.sharedSupport, c.err_is_hvm_spt);
}

void addLuPathSamples(Exposition &x, Scrape &s) {
    auto &status = x.family("qmxldd_lu_path_status",
                            "State of the LU path as the driver reports it (1: online)", "gauge");
    auto &online = x.family("qmxldd_lu_path_online", "1 when the LU path is online", "gauge");
    auto &ios = x.family("qmxldd_lu_path_io_total", "I/O requests sent over the LU path", "counter");
    auto &errs = x.family("qmxldd_lu_path_io_errors_total", "I/O requests over the LU path that failed", "counter");
    QMX_STATUS st = 0;
    LuPathListing paths = readLuPaths(&st);
    if (!s.attempt(kLuPathCalls, "QMX_GetLuPathStatus", "", st)) return;
    int n = luPathCount(*paths);
    // A series may appear only once in a scrape; should the driver report
    // the same path twice, its first record is the one shown.
    std::unordered_set<std::string> seen;
    seen.reserve(std::size_t(n));
    for (int i = 0; i < n; ++i) {
        const lupath_status *l = paths->lupath[i];
        if (l == nullptr) continue;
        std::string device = "qmxldd" + std::to_string(l->devno), target = wwnText(l->wwn);
        std::string lun = std::to_string(l->lun), group = std::to_string(l->groupid);
        Labels labels = x.labels({{"device", device}, {"target_wwn", target}, {"lun", lun}, {"group", group}});
        if (!seen.insert(device + ' ' + target + ' ' + lun + ' ' + group).second) continue;
        x.sample(status, labels, (long long)l->status);
        x.sample(online, labels, l->status == kPathOnline ? 1LL : 0LL);
        x.sample(ios, labels, (long long)l->iocount);
        x.sample(errs, labels, (long long)l->ioerror);
    }
}

void addTargetSamples(Exposition &x, Scrape &s) {
    auto &paths = x.family("qmxldd_logical_target_paths",
                           "Physical paths to the logical target (path group, target id)", "gauge");
    auto &down = x.family("qmxldd_logical_target_paths_not_online",
                          "Physical paths to the logical target whose link is not up", "gauge");
    QMX_STATUS st = 0;
    TargetPathListing t = readTargetPaths(&st);
    if (!s.attempt(kTargetPathCalls, "QMX_GetTargetPathStatus", "", st)) return;
    uint32_t n = targetPathCount(*t);
    // (group, target id) -> (paths, paths not online).  A logical target
    // without a physical path (path id 255) shows with 0 paths.
    std::map<std::pair<int, int>, std::pair<long long, long long>> targets;
    for (uint32_t i = 0; i < n; ++i) {
        const qmx_tgt *g = t->tgtpath[i];
        if (g == nullptr) continue;
        auto &c = targets[{g->groupid, g->tgtid}];
        if (g->pathid == 255) continue;
        ++c.first;
        if (g->link == 0) ++c.second;
    }
    for (const auto &[key, c] : targets) {
        std::string group = std::to_string(key.first), tid = std::to_string(key.second);
        Labels labels = x.labels({{"group", group}, {"tid", tid}});
        x.sample(paths, labels, c.first);
        x.sample(down, labels, c.second);
    }
}

struct MetricsOptions {
    bool json = false;
    bool noPaths = false;
};

int cmdMetrics(const MetricsOptions &o) {
    reportMissingHostPieces();
    auto started = std::chrono::steady_clock::now();
    Exposition x(o.json);
    Scrape s;
    PortMetrics m{
        x.family("qmxldd_port_info", "Adapter port identity: model, firmware and driver version", "gauge"),
        x.family("qmxldd_port_status", "Port status as the driver reports it (3: isolated, 8 or 9: CHECK-STOP)",
                 "gauge"),
        x.family("qmxldd_port_isolated", "1 when the port is isolated", "gauge"),
        x.family("qmxldd_port_link_speed_bytes_per_second",
                 "Speed class of the port's link (0: none the driver reports)", "gauge"),
        x.family("qmxldd_port_link_down_errors_total", "Link-down errors counted for isolation, per interval",
                 "counter"),
        x.family("qmxldd_port_interface_errors_total", "Interface errors counted for isolation", "counter"),
        x.family("qmxldd_port_timeout_errors_total", "Time-out errors counted for isolation", "counter"),
        x.family("qmxldd_port_timeout_reset", "1 when time-out resets happened on the port", "gauge"),
        x.family("qmxldd_port_isolation_function_enabled", "1 when the port's isolation function is on", "gauge"),
        x.family("qmxldd_port_isolation_firmware_supported", "1 when the firmware supports isolation", "gauge"),
        x.family("qmxldd_port_isolation_shared_mode_supported",
                 "1 when isolation is supported in the shared partition mode", "gauge"),
    };
    auto &isolation = x.family("qmxldd_isolation_function_enabled",
                               "1 when the driver-wide isolation function is on", "gauge");
    std::vector<PortInfo> ports;
    try {
        ports = listPorts(false);
    } catch (const CallError &e) {
        s.failed[kPortsCalls] = true;
        std::fprintf(stderr, "qmxmgr metrics: %s\n", e.what());
    }
    auto &count = x.family("qmxldd_ports", "Adapter ports the driver numbers", "gauge");
    if (!s.failed[kPortsCalls]) x.sample(count, x.labels({}), (long long)ports.size());
    for (const PortInfo &p : ports) addPortSamples(x, m, s, p);
    int onoff = 0;
    if (s.attempt(kIsolationCalls, "QMX_GetIsolFunc", "", QMX_GetIsolFunc(&onoff)))
        x.sample(isolation, x.labels({}), onoff == 1 ? 1LL : 0LL);
    if (!o.noPaths) {
        addLuPathSamples(x, s);
        addTargetSamples(x, s);
    }
    auto &errors = x.family("qmxldd_scrape_error", "1 when a call of the family failed during this scrape",
                            "gauge");
    for (int f = 0; f < kFamilies; ++f) {
        if (o.noPaths && (f == kLuPathCalls || f == kTargetPathCalls)) continue;
        x.sample(errors, x.labels({{"family", kFamilyNames[f]}}), s.failed[f] ? 1LL : 0LL);
    }
    auto &duration = x.family("qmxldd_scrape_duration_seconds", "Time taken to gather these metrics", "gauge");
    x.sample(duration, x.labels({}), std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    std::string out = x.text();
    if (std::fwrite(out.data(), 1, out.size(), stdout) != out.size() || std::fflush(stdout) != 0) {
        std::perror("qmxmgr metrics: write");
        return kExitFailed;
    }
    return kExitOk;
}

}  // namespace

void addMetricsCommands(CommandLine &cl) {
    auto o = std::make_shared<MetricsOptions>();
    auto *metrics = cl.app.add_subcommand(
        "metrics", "Port, LU path and logical target state in the Prometheus text format (for the node "
                   "exporter's textfile collector); failed calls show as qmxldd_scrape_error");
    metrics->add_flag("--no-paths", o->noPaths, "Leave out the LU path and logical target metrics");
    metrics->add_flag("--json", o->json, "The same metrics as one JSON document instead of the Prometheus text");
    cl.on(metrics, [o] { return cmdMetrics(*o); });
}

}  // namespace qmxmgr
