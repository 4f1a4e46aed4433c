// mp: the multipath layer's operating environment, LU paths and their
// health check, target paths, the logical configuration, LU identifiers
// and the path limits.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include "commands.h"
#include "path_listings.h"
#include "ports.h"

namespace qmxmgr {

namespace {

void printJson(const json &j) { std::cout << j.dump(2, ' ', false, json::error_handler_t::replace) << "\n"; }

long long parseInt(const std::string &text, const std::string &what, long long lo, long long hi) {
    errno = 0;
    char *end = nullptr;
    long long v = std::strtoll(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno != 0 || v < lo || v > hi)
        throw UsageError("'" + text + "' is not a valid " + what);
    return v;
}

QMX_WWN wwnOfNumber(uint64_t v) {
    QMX_WWN w;
    for (int i = 7; i >= 0; --i, v >>= 8) w.wwn[i] = uint8_t(v);
    return w;
}

// ------------------------------------------------------------ environment
struct EnvField {
    const char *name;
    uint32_t flag;
    bool word;  // 32-bit field
    std::size_t offset;
    uint32_t lo, hi;  // the values the field can take (the switches are 0 or 1)
};
const EnvField kEnvFields[] = {
    {"failover", QMX_MP_FLAG_FAILOVER, false, offsetof(QMX_MP_PARAM, mp_failover), 0, 1},
    {"failback", QMX_MP_FLAG_FAILBACK, false, offsetof(QMX_MP_PARAM, mp_failback), 0, 1},
    {"path_health", QMX_MP_FLAG_PATH_HEALTH, false, offsetof(QMX_MP_PARAM, mp_path_health), 0, 1},
    {"interval", QMX_MP_FLAG_INTERVAL, true, offsetof(QMX_MP_PARAM, mp_interval), 1, 1440},
    {"round_robin", QMX_MP_FLAG_ROUND_ROBIN, false, offsetof(QMX_MP_PARAM, mp_round_robin), 0, 1},
    {"rr_seqcnt", QMX_MP_FLAG_RR_SEQCNT, true, offsetof(QMX_MP_PARAM, mp_rr_seqcnt), 0, UINT32_MAX},
    {"rr_rndcnt", QMX_MP_FLAG_RR_RNDCNT, true, offsetof(QMX_MP_PARAM, mp_rr_rndcnt), 0, UINT32_MAX},
    {"alter_path", QMX_MP_FLAG_ALTER_PATH, false, offsetof(QMX_MP_PARAM, nm_alter_path), 0, 1},
    {"offline_path", QMX_MP_FLAG_OFFLINE_PATH, false, offsetof(QMX_MP_PARAM, nm_offline_path), 0, 1},
};

uint32_t envValue(const QMX_MP_PARAM &p, const EnvField &f) {
    const auto *at = reinterpret_cast<const unsigned char *>(&p) + f.offset;
    if (!f.word) return *at;
    uint32_t v;
    std::memcpy(&v, at, 4);
    return v;
}

QMX_MP_PARAM readEnv() {
    QMX_MP_PARAM p{};
    QMX_STATUS st = QMX_GetOperationEnv(&p);
    if (st == QMX_UNSUPPORTED)
        throw CallError("QMX_GetOperationEnv", QMX_LastErrorCode());
    check(st, "QMX_GetOperationEnv");
    return p;
}

int cmdEnv(const Options &o) {
    QMX_MP_PARAM p = readEnv();
    if (o.json) {
        json j{{"automap", p.automap}, {"multipath_active", p.qmxpcm}, {"high_reliability", p.HighReliability}};
        for (const EnvField &f : kEnvFields) j[f.name] = envValue(p, f);
        printJson(j);
        return kExitOk;
    }
    std::printf("%-18s %u\n%-18s %u\n%-18s %u\n", "automap", p.automap, "multipath_active", p.qmxpcm,
                "high_reliability", p.HighReliability);
    for (const EnvField &f : kEnvFields) std::printf("%-18s %u\n", f.name, envValue(p, f));
    return kExitOk;
}

const EnvField *findEnvField(const std::string &name) {
    for (const EnvField &f : kEnvFields)
        if (name == f.name) return &f;
    return nullptr;
}

int cmdEnvSet(const Options &o, bool keep) {
    QMX_MP_PARAM p = readEnv();
    p.param_flag = 0;
    for (const std::string &a : o.args) {
        std::size_t eq = a.find('=');
        const EnvField *hit = eq == std::string::npos ? nullptr : findEnvField(a.substr(0, eq));
        if (hit == nullptr) throw UsageError("'" + a + "' is not FIELD=VALUE with a known field");
        // A value out of the field's range would be sent as "off" or cut:
        // refused as a usage error.
        auto v = uint32_t(parseInt(a.substr(eq + 1), std::string(hit->name) + " value", hit->lo, hit->hi));
        auto *at = reinterpret_cast<unsigned char *>(&p) + hit->offset;
        if (hit->word)
            std::memcpy(at, &v, 4);
        else
            *at = uint8_t(v);
        if (keep) p.param_flag |= hit->flag;
    }
    check(QMX_SetOperationEnv(&p, 0), "QMX_SetOperationEnv");
    std::printf("Multipath environment sent to the driver%s.\n",
                keep ? " and the named fields kept in /etc/qmxldd.conf" : "");
    return kExitOk;
}

// The named fields go to the driver at their defaults and leave
// /etc/qmxldd.conf.
int cmdEnvUnset(const Options &o) {
    QMX_MP_PARAM p = readEnv();
    p.param_flag = 0;
    for (const std::string &a : o.args) {
        const EnvField *hit = findEnvField(a);
        if (hit == nullptr) throw UsageError("'" + a + "' is not a known field");
        p.param_flag |= hit->flag;
    }
    check(QMX_SetOperationEnv(&p, 1), "QMX_SetOperationEnv");
    std::printf("Multipath environment fields reset to their defaults and removed from /etc/qmxldd.conf.\n");
    return kExitOk;
}

// ---------------------------------------------------------------- LU paths
int cmdPaths(const Options &o) {
    QMX_STATUS st = 0;
    LuPathListing paths = readLuPaths(&st);
    check(st, "QMX_GetLuPathStatus");
    int n = luPathCount(*paths);
    if (o.json) {
        json arr = json::array();
        for (int i = 0; i < n; ++i) {
            const lupath_status &l = *paths->lupath[i];
            arr.push_back(json{{"group", l.groupid}, {"lun", l.lun}, {"device", "qmxldd" + std::to_string(l.devno)},
                               {"instance", l.instance}, {"target_wwn", wwnText(l.wwn)},
                               {"target_node_wwn", wwnText(l.tid_wwn)}, {"tid", l.tid},
                               {"status", l.status}, {"priority", l.priority}, {"owner", l.owner_ctl},
                               {"path_id", l.pathid}, {"io_count", l.iocount}, {"io_errors", l.ioerror}});
        }
        printJson(json{{"paths", arr}});
        return kExitOk;
    }
    std::string out;
    out.reserve(std::size_t(n) * 100 + 128);
    char line[192];
    std::snprintf(line, sizeof line, "%-5s %-6s %-9s %-23s %-4s %-6s %-4s %-5s %-4s %10s %8s\n", "GROUP", "LUN",
                  "DEVICE", "TARGET", "TID", "STATUS", "PRIO", "OWNER", "PATH", "IOCOUNT", "IOERRORS");
    out += line;
    for (int i = 0; i < n; ++i) {
        const lupath_status &l = *paths->lupath[i];
        std::snprintf(line, sizeof line, "%-5u %-6u qmxldd%-3u %-23s %-4u %-6u %-4u %-5u %-4u %10u %8u\n",
                      l.groupid, l.lun, l.devno, wwnText(l.wwn).c_str(), l.tid, l.status, l.priority,
                      l.owner_ctl, l.pathid, l.iocount, l.ioerror);
        out += line;
    }
    std::fwrite(out.data(), 1, out.size(), stdout);
    return kExitOk;
}

int cmdPathSet(const Options &o) {
    // DEVICE TARGET GROUP LUN STATUS
    if (o.args.size() != 5) throw UsageError("give PORT TARGET_WWN GROUP LUN STATUS");
    PortRef r = resolvePort(o.args[0], false);
    if (!r.info) throw UsageError("port " + o.args[0] + " is not discovered");
    lupath_status l{};
    l.devno = uint8_t(r.info->number);
    if (!parseWwn(o.args[1], &l.wwn)) throw UsageError("'" + o.args[1] + "' is not a WWN");
    l.groupid = uint8_t(parseInt(o.args[2], "group", 0, 255));
    l.lun = uint32_t(parseInt(o.args[3], "LUN", 0, UINT32_MAX));
    l.status = uint8_t(parseInt(o.args[4], "status", 0, 255));
    check(QMX_SetLuPathStatus(&l), "QMX_SetLuPathStatus");
    std::printf("Path %s LUN %u via %s set to status %u.\n", wwnText(l.wwn).c_str(), l.lun,
                r.info->device.c_str(), l.status);
    return kExitOk;
}

int cmdHealthCheck(const Options &) {
    bool tty = isatty(STDERR_FILENO) != 0;
    if (tty) std::fprintf(stderr, "Running the path health check on every port...\r");
    QMX_STATUS st = QMX_AddLuPathStatus();
    if (tty) std::fprintf(stderr, "%50s\r", "");
    check(st, "QMX_AddLuPathStatus");
    std::printf("Path health check done.\n");
    return kExitOk;
}

// ------------------------------------------------------------ target paths
int cmdTargets(const Options &o) {
    QMX_STATUS st = 0;
    TargetPathListing t = readTargetPaths(&st);
    check(st, "QMX_GetTargetPathStatus");
    uint32_t n = targetPathCount(*t);
    json arr = json::array();
    if (!o.json)
        std::printf("%-5s %-4s %-4s %-9s %-23s %-23s %-4s %-7s %s\n", "GROUP", "TID", "PATH", "DEVICE",
                    "TARGET", "NODE", "ATTR", "LG_ATTR", "LINK");
    for (uint32_t i = 0; i < n; ++i) {
        const qmx_tgt &g = *t->tgtpath[i];
        std::string dev = g.valid ? "qmxldd" + std::to_string(g.devno) : "-";
        if (o.json) {
            json e{{"group", g.groupid}, {"tid", g.tgtid}, {"path_id", g.pathid}, {"device", g.valid ? json(dev) : json(nullptr)},
                   {"instance", g.instance}, {"target_wwn", wwnText(wwnOfNumber(g.portname))},
                   {"target_node_wwn", wwnText(wwnOfNumber(g.nodename))}, {"attribute", g.attribute},
                   {"logical_attribute", g.pb_attribute == 255 ? json(nullptr) : json(g.pb_attribute)},
                   {"link", g.link != 0}, {"logical_only", g.pathid == 255}};
            arr.push_back(e);
            continue;
        }
        std::printf("%-5u %-4u %-4s %-9s %-23s %-23s %-4u %-7s %s\n", g.groupid, g.tgtid,
                    g.pathid == 255 ? "-" : std::to_string(g.pathid).c_str(), dev.c_str(),
                    wwnText(wwnOfNumber(g.portname)).c_str(), wwnText(wwnOfNumber(g.nodename)).c_str(),
                    g.attribute, g.pb_attribute == 255 ? "-" : std::to_string(g.pb_attribute).c_str(),
                    g.link ? "up" : "down");
    }
    if (o.json) printJson(json{{"targets", arr}});
    return kExitOk;
}

int cmdLogical(const Options &o) {
    QMX_LOGICAL_CONF c{0, nullptr};
    QMX_STATUS st = QMX_GetLogicalConfiguration(&c);
    std::unique_ptr<qmx_lgout, decltype(&std::free)> own(c.logical, &std::free);
    check(st, "QMX_GetLogicalConfiguration");
    json arr = json::array();
    if (!o.json) std::printf("%-8s %-5s %-6s %-9s %s\n", "DISK", "GROUP", "LUN", "DEVICE", "TID");
    for (int i = 0; i < c.logical_cnt; ++i) {
        const qmx_lgout &l = c.logical[i];
        std::string disk = fieldText(l.devname, sizeof l.devname);
        if (o.json)
            arr.push_back(json{{"disk", disk}, {"group", l.groupid}, {"lun", l.lu},
                               {"device", "qmxldd" + std::to_string(l.devno)}, {"tid", l.tid}});
        else
            std::printf("%-8s %-5u %-6u qmxldd%-3u %u\n", disk.c_str(), l.groupid, l.lu, l.devno, l.tid);
    }
    if (o.json) printJson(json{{"disks", arr}});
    return kExitOk;
}

int cmdLuids(const Options &o) {
    QMX_NMPATH_STATUS nm{0, nullptr};
    int rc = QMX_GetAllLuID(&nm);
    struct Release {
        QMX_NMPATH_STATUS *p;
        ~Release() { QMX_ReleaseLuIDPath(p); }
    } release{&nm};
    if (rc != 0) throw CallError("QMX_GetAllLuID", QMX_LastErrorCode());
    json arr = json::array();
    if (!o.json) std::printf("%-5s %-6s %-4s %s\n", "GROUP", "LUN", "TYPE", "IDENTIFIER");
    for (int i = 0; i < nm.info_cnt; ++i) {
        const QMX_NMPATH_LU &l = nm.info[i];
        std::string id;
        char b[3];
        for (int k = 0; k < l.id_size && l.luid_num != nullptr; ++k) {
            std::snprintf(b, sizeof b, "%02x", l.luid_num[k]);
            id += b;
        }
        if (o.json)
            arr.push_back(json{{"group", l.group_id}, {"lun", l.lu_num}, {"id_type", l.type}, {"identifier", id}});
        else
            std::printf("%-5u %-6u %-4u %s\n", l.group_id, l.lu_num, l.type, id.c_str());
    }
    if (o.json) printJson(json{{"luids", arr}});
    return kExitOk;
}

// ------------------------------------------------------------------ limits
struct Limit {
    const char *name;
    const char *help;
    QMX_STATUS (*get)(QMX_WWN, int *, int *);   // per-port limits
    QMX_STATUS (*set)(QMX_WWN, int, int);
    QMX_STATUS (*setWide)(int, int);             // driver-wide LU limits
    const char *setCall;
};
const Limit kLimits[] = {
    {"alter_path", "alternate paths of a port", QMX_GetLimitAlterPath, QMX_SetLimitAlterPath, nullptr,
     "QMX_SetLimitAlterPath"},
    {"offline_path", "offline paths of a port", QMX_GetLimitOfflinePath, QMX_SetLimitOfflinePath, nullptr,
     "QMX_SetLimitOfflinePath"},
    {"health_check_timeout", "path health check time-out (s)", QMX_GetPathHealthCheckTO,
     QMX_SetPathHealthCheckTO, nullptr, "QMX_SetPathHealthCheckTO"},
    {"target_reset_mode", "target reset mode", QMX_GetTargetResetMode, QMX_SetTargetResetMode, nullptr,
     "QMX_SetTargetResetMode"},
    {"lu_alter_path", "alternate paths of an LU (driver-wide)", nullptr, nullptr, QMX_SetAlterPath,
     "QMX_SetAlterPath"},
    {"lu_offline_path", "offline paths of an LU (driver-wide)", nullptr, nullptr, QMX_SetOfflinePath,
     "QMX_SetOfflinePath"},
    {"lu_write_retries", "write retries of an LU (driver-wide)", nullptr, nullptr, QMX_SetKernelPanicCount,
     "QMX_SetKernelPanicCount"},
};

const Limit &findLimit(const std::string &name) {
    for (const Limit &l : kLimits)
        if (name == l.name) return l;
    std::string known;
    for (const Limit &l : kLimits) known += std::string(known.empty() ? "" : ", ") + l.name;
    throw UsageError("unknown limit '" + name + "' (one of " + known + ")");
}

int cmdLimits(const Options &o) {
    json j = json::object();
    if (!o.port.empty()) {
        PortRef r = resolvePort(o.port, false);
        for (const Limit &l : kLimits) {
            if (l.get == nullptr) continue;
            int c = -1, s = -1;
            check(l.get(r.wwn, &c, &s), (std::string("QMX_Get") + (l.setCall + 7)).c_str());
            j[l.name] = s < 0 ? json(nullptr) : json(s);
        }
    } else {
        QMX_LUID_INFO info{};
        check(QMX_GetLuIDInfoFromConf(&info), "QMX_GetLuIDInfoFromConf");
        auto v = [](QMX_UINT8 x) { return x == 0 ? json(nullptr) : json(x); };
        j["lu_alter_path"] = v(info.alter);
        j["lu_offline_path"] = v(info.offline);
        j["lu_write_retries"] = v(info.panic);
        j["max_lu_path"] = QMX_GetMaxLuPath();
    }
    if (o.json) {
        printJson(j);
        return kExitOk;
    }
    for (auto &[k, v] : j.items()) std::printf("%-22s %s\n", k.c_str(), v.is_null() ? "-" : v.dump().c_str());
    return kExitOk;
}

int cmdLimitSet(const Options &o, bool unset) {
    if (o.args.size() != (unset ? 1u : 2u)) throw UsageError(unset ? "give NAME" : "give NAME VALUE");
    const Limit &l = findLimit(o.args[0]);
    int value = unset ? 0 : int(parseInt(o.args[1], std::string(l.name) + " value", INT_MIN, INT_MAX));
    int del = unset ? 1 : 0;
    if (l.setWide != nullptr) {
        if (!o.port.empty()) throw UsageError(std::string(l.name) + " is driver-wide: give no --port");
        check(l.setWide(value, del), l.setCall);
    } else {
        PortRef r = o.port.empty() ? allPortsRef() : resolvePort(o.port, true);
        QMX_STATUS st = l.set(r.wwn, value, del);
        check(st == QMX_UNSUPPORTED ? 1 : st, l.setCall);
    }
    std::printf("%s %s.\n", l.name, unset ? "setting removed" : "set");
    return kExitOk;
}

}  // namespace

void addMultipathCommands(CommandLine &cl) {
    auto o = std::make_shared<Options>();
    auto *mp = cl.app.add_subcommand("mp", "Multipath layer: environment, LU and target paths, limits");
    mp->require_subcommand(1, 1);

    auto *env = mp->add_subcommand("env", "The multipath operating environment");
    env->add_flag("--json", o->json, "JSON output");
    env->require_subcommand(0, 1);
    cl.on(env, [o] { return cmdEnv(*o); });
    auto *envSet = env->add_subcommand("set", "Send FIELD=VALUE... to the driver (fields: failover, failback, "
                                              "path_health, interval, round_robin, rr_seqcnt, rr_rndcnt, "
                                              "alter_path, offline_path)");
    envSet->add_option("FIELDS", o->args, "FIELD=VALUE")->required();
    envSet->add_flag("--keep", o->allPorts, "Also keep the named fields in /etc/qmxldd.conf");
    cl.on(envSet, [o] { return cmdEnvSet(*o, o->allPorts); });
    auto *envUnset = env->add_subcommand("unset", "Reset FIELD... to the driver's defaults and remove them "
                                                  "from /etc/qmxldd.conf");
    envUnset->add_option("FIELDS", o->args, "FIELD")->required();
    cl.on(envUnset, [o] { return cmdEnvUnset(*o); });

    auto *paths = mp->add_subcommand("paths", "Every LU path, by group, LUN and port");
    paths->add_flag("--json", o->json, "JSON output");
    cl.on(paths, [o] { return cmdPaths(*o); });
    auto *path = mp->add_subcommand("path", "One LU path");
    path->require_subcommand(1, 1);
    auto *pathSet = path->add_subcommand("set", "Change a path's status: set PORT TARGET_WWN GROUP LUN STATUS");
    pathSet->add_option("ARGS", o->args, "PORT TARGET_WWN GROUP LUN STATUS")->required();
    cl.on(pathSet, [o] { return cmdPathSet(*o); });
    auto *health = mp->add_subcommand("health-check", "Run the path health check on every port");
    cl.on(health, [o] { return cmdHealthCheck(*o); });

    auto *targets = mp->add_subcommand("targets", "Target paths with their groups and logical targets");
    targets->add_flag("--json", o->json, "JSON output");
    cl.on(targets, [o] { return cmdTargets(*o); });
    auto *logical = mp->add_subcommand("logical", "The SCSI disks with their path groups");
    logical->add_flag("--json", o->json, "JSON output");
    cl.on(logical, [o] { return cmdLogical(*o); });
    auto *luids = mp->add_subcommand("luids", "The LUs by identifier, each once");
    luids->add_flag("--json", o->json, "JSON output");
    cl.on(luids, [o] { return cmdLuids(*o); });

    auto *limits = mp->add_subcommand("limits", "Path limits: of a PORT, or the driver-wide LU limits");
    limits->add_option("PORT", o->port, kPortHelp);
    limits->add_flag("--json", o->json, "JSON output");
    limits->require_subcommand(0, 1);
    cl.on(limits, [o] { return cmdLimits(*o); });
    auto *lset = limits->add_subcommand("set", "set NAME VALUE [--port PORT] (no port: driver-wide)");
    lset->add_option("ARGS", o->args, "NAME VALUE")->required();
    lset->add_option("--port", o->port, kPortHelp);
    cl.on(lset, [o] { return cmdLimitSet(*o, false); });
    auto *lunset = limits->add_subcommand("unset", "unset NAME [--port PORT]");
    lunset->add_option("ARGS", o->args, "NAME")->required();
    lunset->add_option("--port", o->port, kPortHelp);
    cl.on(lunset, [o] { return cmdLimitSet(*o, true); });
}

}  // namespace qmxmgr
