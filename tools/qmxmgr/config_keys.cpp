#include "config_keys.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "binding_items.h"
#include "params.h"
#include "ports.h"

namespace qmxmgr {

namespace {

const EnumName *nameOf(const std::vector<EnumName> &names, long long v) {
    for (const EnumName &e : names)
        if (e.value == v) return &e;
    return nullptr;
}

json normalizeOnOff(const json &v, std::string &why) {
    if (v != "on" && v != "off") why = "expected \"on\" or \"off\"";
    return v;
}

json normalizeRange(const json &v, long long lo, long long hi, bool removable, std::string &why) {
    if (v.is_null()) {
        if (!removable) why = "cannot be removed, only set";
    } else if (!v.is_number_integer() || v.get<long long>() < lo || v.get<long long>() > hi) {
        why = "must be " + std::to_string(lo) + " to " + std::to_string(hi);
    }
    return v;
}

// A parameter value in document form: its name when it has one, else the number.
json paramJson(const Param &p, long long v) {
    if (const EnumName *e = nameOf(p.names, v)) return e->name;
    return v;
}

json normalizeParam(const Param &p, const json &v, std::string &why) {
    if (v.is_null()) {
        if (!p.canUnset) why = "cannot be removed, only set";
        return nullptr;
    }
    long long n = 0;
    try {
        if (v.is_number_integer())
            n = v.get<long long>();
        else if (v.is_string())
            n = parseValue(p, v.get<std::string>());
        else
            throw UsageError("expected a number" + std::string(p.names.empty() ? "" : " or a name"));
    } catch (const UsageError &e) {
        why = e.what();
        return nullptr;
    }
    why = rangeError(p, n);
    return paramJson(p, n);
}

ConfigKey paramKey(const Param &p) {
    ConfigKey k;
    k.name = p.name;
    k.setCall = p.setCall;
    k.removable = p.canUnset;
    k.bootFirmware = p.scope == Scope::PortOnly;
    k.perNumber = !k.bootFirmware;
    k.read = [&p](const QMX_WWN &w) -> json {
        Reading rd;
        check(p.get(w, rd), p.getCall.c_str());
        if (!rd.setting) return nullptr;
        // The boot firmware reports some settings in its own encoding.
        const EnumName *e = nameOf(p.settingNames, *rd.setting);
        std::string why;
        json v = normalizeParam(p, e ? json(e->name) : json(*rd.setting), why);
        return why.empty() ? v : json(nullptr);
    };
    k.normalize = [&p](const json &v, std::string &why) { return normalizeParam(p, v, why); };
    k.write = [&p](const QMX_WWN &w, const json &v) {
        long long n = v.is_string() ? parseValue(p, v.get<std::string>()) : v.is_null() ? 0 : v.get<long long>();
        check(p.set(w, n, v.is_null()), p.setCall.c_str());
    };
    return k;
}

using AliasCall = QMX_STATUS (*)(QMX_WWN, char *, size_t);

ConfigKey aliasKey(const char *name, AliasCall get, const char *getName, AliasCall set,
                   const char *setName) {
    ConfigKey k;
    k.name = name;
    k.setCall = setName;
    k.read = [get, getName](const QMX_WWN &w) -> json {
        char buf[128] = {};
        check(get(w, buf, sizeof buf), getName);
        std::string s = fieldText(buf, sizeof buf);
        return s.empty() ? json(nullptr) : json(s);
    };
    k.normalize = [](const json &v, std::string &why) -> json {
        if (!v.is_string() || v.get<std::string>().empty()) {
            why = "expected a non-empty name in quotes (an alias cannot be removed)";
            return nullptr;
        }
        const std::string &s = v.get_ref<const std::string &>();
        if (s.size() > 127) why = "longer than 127 characters";
        for (char c : s)
            if (c == ':' || !std::isprint(static_cast<unsigned char>(c)))
                why = "only printable characters other than ':'";
        return v;
    };
    k.write = [set, setName](const QMX_WWN &w, const json &v) {
        std::string s = v.get<std::string>();
        // The library checks exactly `size` bytes: the name's own length.
        check(set(w, s.data(), s.size()), setName);
    };
    return k;
}

// An on/off item of the adapter's boot BIOS: read back as 1 (on) or 2 (off),
// written as 1 or 0; any other reading means the BIOS listing lacks it.
template <class T>
ConfigKey biosKey(const char *name, QMX_STATUS (*get)(QMX_WWN, T *), const char *getName,
                  QMX_STATUS (*set)(QMX_WWN, T), const char *setName) {
    ConfigKey k;
    k.name = name;
    k.setCall = setName;
    k.bootFirmware = true;
    k.read = [get, getName](const QMX_WWN &w) -> json {
        T v{};
        check(get(w, &v), getName);
        return v == 1 ? json("on") : v == 2 ? json("off") : json(nullptr);
    };
    k.normalize = normalizeOnOff;
    k.write = [set, setName](const QMX_WWN &w, const json &v) {
        check(set(w, T(v == "on" ? 1 : 0)), setName);
    };
    return k;
}

// A per-port path count limit: 1 up to the driver's LU path maximum (which
// only the library knows: a count above it is refused by the call itself).
ConfigKey limitKey(const char *name, QMX_STATUS (*get)(QMX_WWN, int *, int *), const char *getName,
                   QMX_STATUS (*set)(QMX_WWN, int, int), const char *setName) {
    ConfigKey k;
    k.name = name;
    k.setCall = setName;
    k.removable = true;
    k.perNumber = true;
    k.read = [get, getName](const QMX_WWN &w) -> json {
        int c = -1, s = -1;
        check(get(w, &c, &s), getName);
        return s >= 1 ? json(s) : json(nullptr);
    };
    k.normalize = [](const json &v, std::string &why) -> json {
        if (!v.is_null() && !(v.is_number_integer() && v.get<long long>() >= 1 &&
                              v.get<long long>() <= QMX_LUPATH_MAX))
            why = "must be 1 to the driver's LU path maximum";
        return v;
    };
    k.write = [set, setName](const QMX_WWN &w, const json &v) {
        check(set(w, v.is_null() ? 0 : v.get<int>(), v.is_null() ? 1 : 0), setName);
    };
    return k;
}

// A driver-wide on/off switch; both calls read 1 (on) when nothing is stored.
template <class T>
ConfigKey hostSwitchKey(const char *name, QMX_STATUS (*get)(T *), const char *getName,
                        QMX_STATUS (*set)(T), const char *setName) {
    ConfigKey k;
    k.name = name;
    k.setCall = setName;
    k.host = true;
    k.read = [get, getName](const QMX_WWN &) -> json {
        T v = 1;
        check(get(&v), getName);
        return v == 1 ? json("on") : v == 0 ? json("off") : json(nullptr);
    };
    k.normalize = normalizeOnOff;
    k.write = [set, setName](const QMX_WWN &, const json &v) { check(set(T(v == "on" ? 1 : 0)), setName); };
    return k;
}

// A field of the multipath environment that `QMX_SetOperationEnv` keeps in
// the driver's configuration as a driver-wide item: read back from that item
// (the driver's own value, `mp env`, may differ), written by sending the
// driver's current environment with this field changed and only its bit set.
struct EnvItem {
    const char *name;
    const char *suffix;  // the item's key suffix
    uint32_t flag;
    std::size_t offset;
    bool word;           // 32-bit field; else an on/off switch
    long long lo, hi;
};
const EnvItem kEnvItems[] = {
    {"mp_failover", "mp_failover", QMX_MP_FLAG_FAILOVER, offsetof(QMX_MP_PARAM, mp_failover), false, 0, 1},
    {"mp_failback", "mp_failback", QMX_MP_FLAG_FAILBACK, offsetof(QMX_MP_PARAM, mp_failback), false, 0, 1},
    {"mp_path_health", "mp_path_health", QMX_MP_FLAG_PATH_HEALTH, offsetof(QMX_MP_PARAM, mp_path_health), false, 0, 1},
    {"mp_interval", "mp_interval", QMX_MP_FLAG_INTERVAL, offsetof(QMX_MP_PARAM, mp_interval), true, 1, 1440},
    {"mp_round_robin", "mp_roundrobin", QMX_MP_FLAG_ROUND_ROBIN, offsetof(QMX_MP_PARAM, mp_round_robin), false, 0, 1},
    // Kept as signed decimal text: above INT_MAX they would read back negative.
    {"mp_rr_seqcnt", "mp_rr_seqcnt", QMX_MP_FLAG_RR_SEQCNT, offsetof(QMX_MP_PARAM, mp_rr_seqcnt), true, 0, INT_MAX},
    {"mp_rr_rndcnt", "mp_rr_rndcnt", QMX_MP_FLAG_RR_RNDCNT, offsetof(QMX_MP_PARAM, mp_rr_rndcnt), true, 0, INT_MAX},
    {"mp_alter_path", "mp_alp_enable", QMX_MP_FLAG_ALTER_PATH, offsetof(QMX_MP_PARAM, nm_alter_path), false, 0, 1},
    {"mp_offline_path", "mp_ofp_enable", QMX_MP_FLAG_OFFLINE_PATH, offsetof(QMX_MP_PARAM, nm_offline_path), false, 0, 1},
};

ConfigKey envKey(const EnvItem &e) {
    ConfigKey k;
    k.name = e.name;
    k.setCall = "QMX_SetOperationEnv";
    k.host = true;
    k.removable = true;
    k.read = [&e](const QMX_WWN &) -> json {
        int v = INT_MIN;  // left as it is when nothing is stored
        check(QMX_GetUtilValue(QMX_WWN{}, -1, const_cast<char *>(e.suffix), -1, &v), "QMX_GetUtilValue");
        if (!e.word) return v == 1 ? json("on") : v == 0 ? json("off") : json(nullptr);
        return v >= e.lo && v <= e.hi ? json(v) : json(nullptr);
    };
    k.normalize = [&e](const json &v, std::string &why) -> json {
        return e.word || v.is_null() ? normalizeRange(v, e.lo, e.hi, true, why) : normalizeOnOff(v, why);
    };
    k.write = [&e](const QMX_WWN &, const json &v) {
        QMX_MP_PARAM p{};
        check(QMX_GetOperationEnv(&p), "QMX_GetOperationEnv");
        auto *at = reinterpret_cast<unsigned char *>(&p) + e.offset;
        if (e.word && !v.is_null()) {
            auto n = v.get<uint32_t>();
            std::memcpy(at, &n, sizeof n);
        } else if (!v.is_null()) {
            *at = v == "on" ? 1 : 0;
        }
        p.param_flag = e.flag;  // null: the driver gets the default and the item goes
        check(QMX_SetOperationEnv(&p, v.is_null() ? 1 : 0), "QMX_SetOperationEnv");
    };
    return k;
}

// A driver-wide LU path limit; 0 is read back when nothing is stored.
ConfigKey luLimitKey(const char *name, QMX_UINT8 QMX_LUID_INFO::*field, long long hi,
                     QMX_STATUS (*set)(int, int), const char *setName) {
    ConfigKey k;
    k.name = name;
    k.setCall = setName;
    k.host = true;
    k.removable = true;
    k.read = [field](const QMX_WWN &) -> json {
        QMX_LUID_INFO info{};
        check(QMX_GetLuIDInfoFromConf(&info), "QMX_GetLuIDInfoFromConf");
        return info.*field == 0 ? json(nullptr) : json(info.*field);
    };
    k.normalize = [hi](const json &v, std::string &why) { return normalizeRange(v, 1, hi, true, why); };
    k.write = [set, setName](const QMX_WWN &, const json &v) {
        check(set(v.is_null() ? 0 : v.get<int>(), v.is_null() ? 1 : 0), setName);
    };
    return k;
}

PortInfo portOf(const QMX_WWN &w) {
    if (const PortInfo *p = findPort(w)) return *p;
    throw UsageError("no port with WWN " + wwnText(w) + " on this host");
}

// The port's entry in the force-isolate list, kept for the next driver load
// only (the port is not isolated now): "port" isolates the port alone,
// "adapter" every port of its PCI device.
ConfigKey forceIsolateKey() {
    ConfigKey k;
    k.name = "force_isolate";
    k.setCall = "QMX_SetForceIsolateList";
    k.removable = true;
    k.read = [](const QMX_WWN &w) -> json {
        PortInfo p = portOf(w);
        auto list = std::make_unique<QMX_FORCE_ISOLATE_LIST>();
        check(QMX_GetForceIsolateList(list.get()), "QMX_GetForceIsolateList");
        for (int i = 0; i < std::min(list->listCnt, QMX_FORCE_ISOLATE_MAX); ++i) {
            const QMX_ISOLATE &e = list->list[i];
            if (e.bus == p.bus && e.dev == p.dev && e.func == p.fnc)
                return e.mode == 1 ? json("port") : e.mode == 2 ? json("adapter") : json(nullptr);
        }
        return nullptr;
    };
    k.normalize = [](const json &v, std::string &why) -> json {
        if (!v.is_null() && v != "port" && v != "adapter")
            why = "expected \"port\", \"adapter\" or null (not in the list)";
        return v;
    };
    // The call takes one entry: one call for each port that changes.
    k.write = [](const QMX_WWN &w, const json &v) {
        PortInfo p = portOf(w);
        auto list = std::make_unique<QMX_FORCE_ISOLATE_LIST>();
        std::memset(list.get(), 0, sizeof *list);
        QMX_ISOLATE &e = list->list[0];
        e.bus = p.bus;
        e.dev = p.dev;
        e.func = p.fnc;
        e.set_opr = v.is_null() ? 2 : 1;
        e.mode = v == "port" ? 1 : v == "adapter" ? 2 : 0;
        list->listCnt = 1;
        check(QMX_SetForceIsolateList(list.get(), 0), "QMX_SetForceIsolateList");
    };
    return k;
}

// The number /etc/qmxldd.conf binds to the port ("qmxl<N>-wwpn"), its
// device number from the next driver load on.  All numbers change in one
// QMX_SetAdapterNumber table: a port that moves gives up its old number
// (which drops every key kept under it), then takes the new one (which drops
// every key kept under that).  What may be dropped, and which settings can
// still be written in the same apply, is decided by plan().
ConfigKey adapterNumberKey() {
    ConfigKey k;
    k.name = kAdapterNumberKey;
    k.setCall = "QMX_SetAdapterNumber";
    // Neither null nor --prune removes a number: that would drop every
    // setting kept under it, and the driver would number the port itself.
    k.removable = false;
    // The first binding of the WWN in the file, the one the driver takes.
    auto numberOf = [](const QMX_WWN &w) -> json {
        for (const auto &[n, bound] : configuredNumbers())
            if (std::memcmp(bound.wwn, w.wwn, 8) == 0) return n;
        return nullptr;
    };
    k.read = numberOf;
    k.normalize = [](const json &v, std::string &why) {
        return normalizeRange(v, 0, QMX_ADAPTERNUMBER_MAX - 1, false, why);
    };
    k.writeAll = [numberOf](const std::vector<std::pair<QMX_WWN, json>> &rows) {
        std::vector<adapterinformation> gone, given;
        std::set<int> used;
        for (const auto &[w, v] : rows) {
            if (!numberOf(w).is_null()) {
                adapterinformation a{};
                a.hba_wwn = w;
                a.set_opr = QMX_ADPNUM_OPR_REMOVE;
                gone.push_back(a);
            }
            adapterinformation a{};
            a.hba_wwn = w;
            a.adapternumber = v.get<int>();
            a.set_opr = QMX_ADPNUM_OPR_ASSIGN;
            used.insert(a.adapternumber);
            given.push_back(a);
        }
        // A removal finds the port by its WWN, but the call still wants its
        // entry to carry a number no other entry of the table has.
        int spare = 0;
        for (adapterinformation &a : gone) {
            while (used.count(spare)) ++spare;
            a.adapternumber = spare++;
        }
        gone.insert(gone.end(), given.begin(), given.end());
        auto table = std::make_unique<QMX_ADAPTERNUMBER>();
        std::memset(table.get(), 0, sizeof *table);
        std::copy(gone.begin(), gone.end(), table->portlist);
        table->portlist_max = QMX_INT32(gone.size());
        check(QMX_SetAdapterNumber(table.get()), "QMX_SetAdapterNumber");
    };
    k.write = [writeAll = k.writeAll](const QMX_WWN &w, const json &v) { writeAll({{w, v}}); };
    return k;
}

// A target's WWN as the binding keeps it: "0x" and the hexadecimal digits
// without leading zeros, as the library's own binding writes it.  A document
// may give it that way or as 16 digits with colons.
bool parseTargetWwn(const json &v, std::string *canonical) {
    if (!v.is_string()) return false;
    const std::string &s = v.get_ref<const std::string &>();
    uint64_t n = 0;
    if (s.size() > 2 && s.size() <= 18 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        for (std::size_t i = 2; i < s.size(); ++i)
            if (!std::isxdigit(static_cast<unsigned char>(s[i]))) return false;
        n = std::stoull(s.substr(2), nullptr, 16);
    } else {
        QMX_WWN w{};
        if (!parseWwn(s, &w)) return false;
        for (uint8_t b : w.wwn) n = n << 8 | b;
    }
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(n));
    *canonical = text;
    return n != 0;
}

// A stored target item: its canonical form, or the text as it stands.
json storedWwn(const std::string &text) {
    std::string c;
    return parseTargetWwn(json(text), &c) ? c : text;
}

// Checks the fields of a table entry: `id` 0 to 255 and only `fields`;
// each field's value through `check`.  The entry in canonical field order.
json normalizeEntryFields(const json &e, const std::vector<std::string> &fields,
                          const std::function<json(const std::string &, const json &, std::string &)> &check,
                          std::string &why) {
    if (!e.is_object() || !e.contains("target")) {
        why = "expected a mapping with a target";
        return nullptr;
    }
    const json &t = e["target"];
    if (!t.is_number_integer() || t.get<long long>() < 0 || t.get<long long>() > 255) {
        why = "target must be 0 to 255";
        return nullptr;
    }
    for (const auto &[k, v] : e.items())
        if (k != "target" && std::find(fields.begin(), fields.end(), k) == fields.end()) {
            why = "target " + t.dump() + ": unknown field '" + k + "'";
            return nullptr;
        }
    json out{{"target", t}};
    for (const std::string &f : fields) {
        if (!e.contains(f)) continue;
        json v = check(f, e[f], why);
        if (!why.empty()) {
            why = "target " + t.dump() + " " + f + ": " + why;
            return nullptr;
        }
        out[f] = v;
    }
    if (out.size() == 1) {
        why = "target " + t.dump() + ": no ";
        for (std::size_t i = 0; i < fields.size(); ++i)
            why += (i == 0 ? "" : i + 1 == fields.size() ? " or " : ", ") + fields[i];
    }
    return out;
}

// The port's persistent binding table: which remote port (and node) each
// target id stands for.
ConfigKey bindingKey() {
    static const std::vector<std::string> kFields = {"wwpn", "wwnn"};
    ConfigKey k;
    k.name = "binding";
    k.setCall = "QMX_MakeConfFile";
    k.removable = true;
    k.perNumber = true;  // filed under the adapter number ("qmxl<N>-tid-...")
    k.read = [](const QMX_WWN &w) -> json {
        json list = json::array();
        for (const auto &[tid, items] : storedTargets(portOf(w).number)) {
            json e{{"target", tid}};
            for (const std::string &f : kFields)
                if (auto it = items.find(f); it != items.end()) e[f] = storedWwn(it->second);
            if (e.size() > 1) list.push_back(e);
        }
        return list.empty() ? json(nullptr) : list;
    };
    k.write = [](const QMX_WWN &w, const json &v) {
        AdapterTargets want;
        for (const json &e : v.is_array() ? v : json::array())
            for (const std::string &f : kFields)
                if (e.contains(f)) want[e["target"].get<int>()][f] = e[f].get<std::string>();
        // A target that leaves the binding takes its path group and
        // priorities with it.
        storeTargets(portOf(w).number, w, kFields, want, true);
    };
    k.list = TableShape{"target", {"wwpn"}, "", [](const json &e, std::string &why) {
        return normalizeEntryFields(e, kFields, [](const std::string &, const json &v, std::string &w) -> json {
            std::string c;
            if (!parseTargetWwn(v, &c)) w = "expected a WWN in quotes (\"0x5006...\" or 16 digits with colons)";
            return c;
        }, why);
    }};
    return k;
}

// A stored number as the library reads it: hexadecimal after "0x", else decimal.
bool storedNumber(const std::string &text, long long lo, long long hi, long long *out) {
    if (text.empty()) return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(text.c_str(), &end, text.rfind("0x", 0) == 0 ? 16 : 10);
    if (*end != '\0' || errno != 0 || v < static_cast<unsigned long long>(lo) ||
        v > static_cast<unsigned long long>(hi))
        return false;
    *out = static_cast<long long>(v);
    return true;
}

// Path attributes as the target's attribute item keeps them (0, 1, 2).
const char *const kAttributes[] = {"configured", "configured(H)", "unconfigured"};

// The multipath layer's settings of the port's targets: path group, path
// attribute and the LUNs (0 to 255) whose paths through the target have
// priority.  The LUNs are kept as four words of 64 bits ("priority0" covers
// LUNs 0 to 63, LUN 0 its most significant bit), written all four when a
// target has any.
ConfigKey luPriorityKey() {
    static const std::vector<std::string> kKinds = {"gt", "attribute", "priority0", "priority1", "priority2",
                                                    "priority3"};
    static const std::vector<std::string> kFields = {"group", "attribute", "priority_luns"};
    ConfigKey k;
    k.name = "lu_priority";
    k.setCall = "QMX_MakeConfFile";
    k.removable = true;
    k.perNumber = true;
    k.read = [](const QMX_WWN &w) -> json {
        json list = json::array();
        for (const auto &[tid, items] : storedTargets(portOf(w).number)) {
            json e{{"target", tid}};
            long long n = 0;
            if (auto it = items.find("gt"); it != items.end())
                e["group"] = storedNumber(it->second, 0, 63, &n) ? json(n) : json(it->second);
            if (auto it = items.find("attribute"); it != items.end())
                e["attribute"] = storedNumber(it->second, 0, 2, &n) ? json(kAttributes[n]) : json(it->second);
            json luns = json::array();
            bool any = false;
            for (int word = 0; word < 4; ++word) {
                auto it = items.find("priority" + std::to_string(word));
                if (it == items.end()) continue;
                any = true;
                char *end = nullptr;
                uint64_t bits = std::strtoull(it->second.c_str(), &end, 16);
                for (int b = 0; b < 64; ++b)
                    if (bits & (0x8000000000000000ull >> b)) luns.push_back(word * 64 + b);
            }
            if (any) e["priority_luns"] = luns;
            if (e.size() > 1) list.push_back(e);
        }
        return list.empty() ? json(nullptr) : list;
    };
    k.write = [](const QMX_WWN &w, const json &v) {
        AdapterTargets want;
        for (const json &e : v.is_array() ? v : json::array()) {
            TargetItems &items = want[e["target"].get<int>()];
            if (e.contains("group")) items["gt"] = std::to_string(e["group"].get<int>());
            if (e.contains("attribute"))
                for (int a = 0; a < 3; ++a)
                    if (e["attribute"] == kAttributes[a]) items["attribute"] = "0x0" + std::to_string(a);
            if (!e.contains("priority_luns")) continue;
            uint64_t words[4] = {};
            for (const json &lun : e["priority_luns"]) {
                int l = lun.get<int>();
                words[l / 64] |= 0x8000000000000000ull >> (l % 64);
            }
            for (int word = 0; word < 4; ++word) {
                char text[24];
                std::snprintf(text, sizeof text, "0x%016llx", static_cast<unsigned long long>(words[word]));
                items["priority" + std::to_string(word)] = text;
            }
        }
        storeTargets(portOf(w).number, w, kKinds, want);
    };
    k.list = TableShape{"target", {}, "binding", [](const json &e, std::string &why) {
        return normalizeEntryFields(e, kFields, [](const std::string &f, const json &v, std::string &w) -> json {
            if (f == "group") {
                if (!v.is_number_integer() || v.get<long long>() < 0 || v.get<long long>() > 63) w = "must be 0 to 63";
                return v;
            }
            if (f == "attribute") {
                if (std::find(std::begin(kAttributes), std::end(kAttributes), v) == std::end(kAttributes))
                    w = "expected \"configured\", \"configured(H)\" or \"unconfigured\"";
                return v;
            }
            json luns = json::array();
            if (!v.is_array()) w = "expected a list of LUNs";
            for (const json &l : v.is_array() ? v : json::array()) {
                if (!w.empty()) break;  // the first problem is reported
                if (!l.is_number_integer() || l.get<long long>() < 0 || l.get<long long>() > 255) {
                    w = "a LUN must be 0 to 255 (" + l.dump() + ")";
                } else if (std::find(luns.begin(), luns.end(), l) != luns.end()) {
                    w = "LUN " + l.dump() + " given twice";
                } else {
                    luns.push_back(l);
                }
            }
            std::sort(luns.begin(), luns.end());
            return luns;
        }, why);
    }};
    return k;
}

std::vector<ConfigKey> buildKeys() {
    std::vector<ConfigKey> keys;
    // Kept in the driver's module options, and as a driver-wide item.
    keys.push_back(hostSwitchKey("binding_auto_mapping", QMX_GetBindingAutoMapping,
                                 "QMX_GetBindingAutoMapping", QMX_SetBindingAutoMapping,
                                 "QMX_SetBindingAutoMapping"));
    keys.push_back(hostSwitchKey("isolation_function", QMX_GetIsolFunc, "QMX_GetIsolFunc",
                                 QMX_SetIsolFunc, "QMX_SetIsolFunc"));
    for (const EnvItem &e : kEnvItems) keys.push_back(envKey(e));
    keys.push_back(luLimitKey("lu_alter_path", &QMX_LUID_INFO::alter, 8, QMX_SetAlterPath, "QMX_SetAlterPath"));
    keys.push_back(luLimitKey("lu_offline_path", &QMX_LUID_INFO::offline, 8, QMX_SetOfflinePath,
                              "QMX_SetOfflinePath"));
    keys.push_back(luLimitKey("lu_write_retries", &QMX_LUID_INFO::panic, 126, QMX_SetKernelPanicCount,
                              "QMX_SetKernelPanicCount"));
    keys.push_back(adapterNumberKey());
    keys.push_back(aliasKey("hba_alias", QMX_GetHbaAliasName, "QMX_GetHbaAliasName",
                            QMX_SetHbaAliasName, "QMX_SetHbaAliasName"));
    keys.push_back(aliasKey("port_alias", QMX_GetPortAliasName, "QMX_GetPortAliasName",
                            QMX_SetPortAliasName, "QMX_SetPortAliasName"));
    // Per-port stored parameters; the driver-wide switches have no stored
    // value to read back and stay with `qmxmgr set --all-ports`.
    for (const Param &p : paramTable())
        if (p.get && p.set && p.hasSetting && p.scope != Scope::DriverOnly)
            keys.push_back(paramKey(p));
    keys.push_back(limitKey("alter_path_limit", QMX_GetLimitAlterPath, "QMX_GetLimitAlterPath",
                            QMX_SetLimitAlterPath, "QMX_SetLimitAlterPath"));
    keys.push_back(limitKey("offline_path_limit", QMX_GetLimitOfflinePath, "QMX_GetLimitOfflinePath",
                            QMX_SetLimitOfflinePath, "QMX_SetLimitOfflinePath"));
    keys.push_back(forceIsolateKey());
    keys.push_back(bindingKey());
    keys.push_back(luPriorityKey());  // after the binding: it names bound targets
    keys.push_back(biosKey("hba_bios", QMX_GetHBABiosSetting, "QMX_GetHBABiosSetting",
                           QMX_SetHBABiosSetting, "QMX_SetHBABiosSetting"));
    keys.push_back(biosKey("boot_priority", QMX_GetBootPriority, "QMX_GetBootPriority",
                           QMX_SetBootPriority, "QMX_SetBootPriority"));
    keys.push_back(biosKey("persistent_bindings", QMX_GetForceBinding, "QMX_GetForceBinding",
                           QMX_SetForceBinding, "QMX_SetForceBinding"));
    return keys;
}

}  // namespace

const char *const kAdapterNumberKey = "adapter_number";

std::vector<std::pair<int, QMX_WWN>> configuredNumbers() {
    auto table = std::make_unique<QMX_ADAPTERNUMBER>();
    check(QMX_GetAdapterNumber(table.get(), QMX_ADPNUM_MODE_CONFIGURED), "QMX_GetAdapterNumber");
    std::vector<std::pair<int, QMX_WWN>> out;
    for (int i = 0; i < std::min<int>(table->portlist_max, QMX_ADAPTERNUMBER_MAX); ++i)
        out.emplace_back(table->portlist[i].adapternumber, table->portlist[i].hba_wwn);
    return out;
}

const std::vector<ConfigKey> &configKeys() {
    static const std::vector<ConfigKey> keys = buildKeys();
    return keys;
}

const ConfigKey *findConfigKey(const std::string &name) {
    for (const ConfigKey &k : configKeys())
        if (k.name == name) return &k;
    return nullptr;
}

json currentValues(const QMX_WWN &wwn) {
    json cur = json::object();
    for (const Param &p : paramTable()) {
        if (!p.get || !p.hasCurrent || p.scope == Scope::DriverOnly) continue;
        Reading rd;
        check(p.get(wwn, rd), p.getCall.c_str());
        if (rd.current) cur[p.name] = paramJson(p, *rd.current);
    }
    return cur;
}

}  // namespace qmxmgr
