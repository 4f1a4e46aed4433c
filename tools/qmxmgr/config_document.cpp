#include "config_document.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

#include "binding_items.h"
#include "config_keys.h"
#include "ports.h"

namespace qmxmgr {

namespace {

// A document node converted to JSON, with the line of every node by its
// JSON pointer ("/ports/21:00:.../settings/queue_depth").
struct Parsed {
    json value;
    std::map<std::string, int> lines;
};

bool isInteger(const std::string &s) {
    std::size_t i = (!s.empty() && (s[0] == '-' || s[0] == '+')) ? 1 : 0;
    if (s.size() <= i || s.size() > 12) return false;
    for (; i < s.size(); ++i)
        if (!std::isdigit(static_cast<unsigned char>(s[i]))) return false;
    return true;
}

json convert(const YAML::Node &n, const std::string &ptr, Parsed &out, int depth) {
    out.lines[ptr] = n.Mark().line + 1;
    if (depth > 16) throw DocumentError("line " + std::to_string(n.Mark().line + 1) +
                                        ": nested too deeply");
    switch (n.Type()) {
    case YAML::NodeType::Map: {
        json j = json::object();
        for (const auto &kv : n) {
            if (!kv.first.IsScalar())
                throw DocumentError("line " + std::to_string(kv.first.Mark().line + 1) +
                                    ": a key must be text");
            std::string k = kv.first.Scalar();
            if (j.contains(k))
                throw DocumentError("line " + std::to_string(kv.first.Mark().line + 1) +
                                    ": '" + k + "' given twice");
            j[k] = convert(kv.second, ptr + "/" + k, out, depth + 1);
            out.lines[ptr + "/" + k] = kv.first.Mark().line + 1;  // the key's line
        }
        return j;
    }
    case YAML::NodeType::Sequence: {
        json j = json::array();
        std::size_t i = 0;
        for (const auto &e : n) j.push_back(convert(e, ptr + "/" + std::to_string(i++), out, depth + 1));
        return j;
    }
    case YAML::NodeType::Scalar: {
        const std::string &s = n.Scalar();
        if (n.Tag() == "!") return s;  // quoted: always text
        if (s == "~" || s == "null" || s == "Null" || s == "NULL") return nullptr;
        if (s == "true" || s == "false") return s == "true";
        if (isInteger(s)) return std::stoll(s);
        return s;
    }
    default:
        return nullptr;
    }
}

Parsed parse(const std::string &path) {
    std::stringstream text;
    if (path == "-") {
        text << std::cin.rdbuf();
    } else {
        std::ifstream f(path, std::ios::binary);
        if (!f) throw DocumentError(path + ": cannot be read: " + std::strerror(errno));
        text << f.rdbuf();
    }
    // A configuration document is small; refuse anything that is clearly not one.
    if (text.str().size() > (16u << 20)) throw DocumentError(path + ": larger than 16 MiB");
    Parsed p;
    try {
        YAML::Node root = YAML::Load(text.str());
        p.value = convert(root, "", p, 0);
    } catch (const YAML::Exception &e) {
        throw DocumentError("line " + std::to_string(e.mark.line + 1) + ": " + e.msg);
    }
    return p;
}

// Every problem of a document, reported together.
struct Problems {
    const Parsed &doc;
    std::vector<std::string> lines;
    void add(const std::string &ptr, const std::string &why) {
        auto it = doc.lines.find(ptr);
        lines.push_back("line " + std::to_string(it == doc.lines.end() ? 1 : it->second) + ": " +
                        why);
    }
};

bool sameWwn(const QMX_WWN &a, const QMX_WWN &b) { return std::memcmp(a.wwn, b.wwn, 8) == 0; }

// A table setting's value: each entry checked (a problem on the entry's
// line), no id or unique field given twice; the entries sorted by id.
bool normalizeList(const TableShape &shape, const json &v, const std::string &ptr,
                   const std::string &label, Problems &pr, json &out) {
    out = nullptr;
    if (v.is_null()) return true;
    if (!v.is_array()) {
        pr.add(ptr, label + ": expected a list of entries");
        return false;
    }
    bool ok = true;
    std::vector<std::string> fields{shape.id};
    fields.insert(fields.end(), shape.unique.begin(), shape.unique.end());
    std::map<std::string, bool> seen;  // field and value
    std::vector<json> entries;
    for (std::size_t i = 0; i < v.size(); ++i) {
        std::string eptr = ptr + "/" + std::to_string(i), why;
        json e = shape.normalizeEntry(v[i], why);
        if (!why.empty()) {
            pr.add(eptr, label + ": " + why);
            ok = false;
            continue;
        }
        for (const std::string &f : fields)
            if (e.contains(f) && seen[f + " " + e[f].dump()]) {
                pr.add(eptr, label + ": " + f + " " + (e[f].is_string() ? e[f].get<std::string>() : e[f].dump()) +
                                 " given twice");
                ok = false;
            } else if (e.contains(f)) {
                seen[f + " " + e[f].dump()] = true;
            }
        entries.push_back(std::move(e));
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [&shape](const json &a, const json &b) { return a[shape.id] < b[shape.id]; });
    out = json(entries);
    return ok;
}

// A table as the host will hold it: the stored entries (none with --prune)
// with the document's replacing those of the same id; null when empty.
json mergeList(const TableShape &shape, const json &stored, const json *wanted, bool prune) {
    if (wanted != nullptr && wanted->is_null()) return nullptr;
    std::map<long long, json> byId;
    if (!prune && stored.is_array())
        for (const json &e : stored) byId[e[shape.id].get<long long>()] = e;
    if (wanted != nullptr)
        for (const json &e : *wanted) byId[e[shape.id].get<long long>()] = e;
    json out = json::array();
    for (auto &[id, e] : byId) out.push_back(e);
    return out.empty() ? json(nullptr) : out;
}

// An entry without its id, as a change line shows it: "wwpn=0x5006... wwnn=...",
// "group=1 attribute=configured priority_luns=[0,5]".
std::string entryText(const TableShape &shape, const json &e) {
    if (e.is_null()) return "none";
    std::string out;
    for (const auto &[k, v] : e.items()) {
        if (k == shape.id) continue;
        std::string text;
        if (v.is_array()) {
            for (const json &x : v) text += (text.empty() ? "" : ",") + (x.is_string() ? x.get<std::string>() : x.dump());
            text = "[" + text + "]";
        } else
            text = v.is_string() ? v.get<std::string>() : v.dump();
        out += (out.empty() ? "" : " ") + k + "=" + text;
    }
    return out;
}

// The settings of a port (or of the host, `wwn` all zero).
void checkSettings(const json &v, const std::string &ptr, const std::string &label,
                   const QMX_WWN &w, Problems &pr, Document &d) {
    if (!v.is_object()) return pr.add(ptr, label + " settings: expected a mapping");
    bool host = isAllZeroWwn(w);
    for (const auto &[sk, sv] : v.items()) {
        std::string sptr = ptr + "/" + sk;
        const ConfigKey *key = findConfigKey(sk);
        if (!key || key->host != host) {
            pr.add(sptr, label + ": unknown setting '" + sk + "'");
            continue;
        }
        std::string why;
        json value;
        if (key->list) {
            if (!normalizeList(*key->list, sv, sptr, label + " " + sk, pr, value)) continue;
        } else {
            value = key->normalize(sv, why);
        }
        if (!why.empty()) {
            pr.add(sptr, label + " " + sk + ": " + why);
            continue;
        }
        d.settings.push_back(Setting{w, key->name, value, pr.doc.lines.at(sptr)});
    }
}

void checkPort(const std::string &name, const json &port, const std::string &ptr, Problems &pr,
               Document &d) {
    QMX_WWN w{};
    if (!parseWwn(name, &w)) return pr.add(ptr, "'" + name + "' is not a WWN");
    if (findPort(w) == nullptr) return pr.add(ptr, "no port with WWN " + wwnText(w) + " on this host");
    for (const QMX_WWN &seen : d.ports)
        if (sameWwn(seen, w)) return pr.add(ptr, "port " + wwnText(w) + " given twice");
    d.ports.push_back(w);
    d.portLines[wwnText(w)] = pr.doc.lines.count(ptr) ? pr.doc.lines.at(ptr) : 1;
    if (!port.is_object()) return pr.add(ptr, "port " + name + ": expected a mapping");
    for (const auto &[k, v] : port.items()) {
        // device, adapter_number and current are informative: written by
        // export, never applied.
        if (k == "device" || k == "adapter_number" || k == "current") continue;
        if (k != "settings") {
            pr.add(ptr + "/" + k, "port " + name + ": unknown field '" + k + "'");
            continue;
        }
        checkSettings(v, ptr + "/settings", "port " + name, w, pr, d);
    }
}

void emit(std::ostream &os, const json &j, int indent) {
    static const auto quoted = [](const std::string &s) {
        return json(s).dump(-1, ' ', false, json::error_handler_t::replace);
    };
    static const auto plainKey = [](const std::string &k) {
        if (k.empty() || !std::islower(static_cast<unsigned char>(k[0]))) return false;
        for (char c : k)
            if (!(std::islower(static_cast<unsigned char>(c)) || std::isdigit(static_cast<unsigned char>(c)) || c == '_'))
                return false;
        return true;
    };
    for (const auto &[k, v] : j.items()) {
        os << std::string(indent, ' ') << (plainKey(k) ? k : quoted(k)) << ":";
        if (v.is_object() && !v.empty()) {
            os << "\n";
            emit(os, v, indent + 2);
        } else if (v.is_array() && !v.empty() && v[0].is_object()) {
            // A table: one block entry each, "- " in front of its first field.
            os << "\n";
            for (const json &e : v) {
                std::ostringstream entry;
                emit(entry, e, indent + 4);
                std::string text = entry.str();
                if (text.size() >= std::size_t(indent + 4)) text.replace(std::size_t(indent + 2), 2, "- ");
                os << text;
            }
        } else if (v.is_array()) {
            std::string items;
            for (const json &x : v)
                items += (items.empty() ? "" : ", ") + (x.is_string() ? quoted(x.get<std::string>()) : x.dump());
            os << " [" << items << "]\n";
        } else if (v.is_object()) {
            os << " {}\n";
        } else if (v.is_string()) {
            os << " " << quoted(v.get<std::string>()) << "\n";
        } else {
            os << " " << v.dump() << "\n";
        }
    }
}

}  // namespace

Document readDocument(const std::string &path) {
    Parsed p = parse(path);
    Problems pr{p, {}};
    Document d;
    d.path = path;
    const json &root = p.value;
    if (!root.is_object()) throw DocumentError("line 1: the document is not a mapping");
    for (const auto &[k, v] : root.items())
        if (k != "version" && k != "ports" && k != "host") pr.add("/" + k, "unknown field '" + k + "'");
    if (!root.contains("version"))
        pr.add("", "version missing (this qmxmgr reads version " +
                       std::to_string(kDocumentVersion) + ")");
    else if (root["version"] != kDocumentVersion)
        pr.add("/version", "version " + root["version"].dump() + " is not supported (this qmxmgr reads version " +
                               std::to_string(kDocumentVersion) + ")");
    if (root.contains("host")) {
        d.host = true;
        const json &h = root["host"];
        if (!h.is_object()) pr.add("/host", "host: expected a mapping");
        static const json kNone = json::object();
        for (const auto &[k, v] : (h.is_object() ? h : kNone).items()) {
            if (k == "settings")
                checkSettings(v, "/host/settings", "host", QMX_WWN{}, pr, d);
            else
                pr.add("/host/" + k, "host: unknown field '" + k + "'");
        }
    }
    if (root.contains("ports")) {
        if (!root["ports"].is_object())
            pr.add("/ports", "ports: expected a mapping of WWN to port");
        else
            for (const auto &[name, port] : root["ports"].items())
                checkPort(name, port, "/ports/" + name, pr, d);
    }
    // Settings that bind ports to each other: the library stores the
    // interrupt type for every function of the port's adapter, so two
    // functions asking for different types could never both be met; an
    // "adapter" entry of the force-isolate list is written (and released)
    // for every function of the adapter; two ports cannot have one number.
    std::map<std::pair<int, int>, const Setting *> interrupt, isolate;  // by PCI bus and device
    std::map<long long, const Setting *> numbers;
    auto conflict = [&](const Setting &s, const Setting &other, const std::string &what) {
        pr.lines.push_back("line " + std::to_string(s.line) + ": " + s.key + " " + what + ": port " +
                           wwnText(s.wwn) + " differs from port " + wwnText(other.wwn));
    };
    for (const Setting &s : d.settings) {
        if (s.key == kAdapterNumberKey) {
            auto [it, fresh] = numbers.emplace(s.value.get<long long>(), &s);
            if (!fresh)
                pr.lines.push_back("line " + std::to_string(s.line) + ": adapter_number " + s.value.dump() +
                                   " is given to port " + wwnText(it->second->wwn) + " too");
        }
        if (s.key != "interrupt_type" && s.key != "force_isolate") continue;
        auto &seen = s.key == "interrupt_type" ? interrupt : isolate;
        const PortInfo *p = findPort(s.wwn);
        if (p == nullptr) continue;
        auto [it, fresh] = seen.emplace(std::pair(int(p->bus), int(p->dev)), &s);
        if (fresh || it->second->value == s.value) continue;
        if (s.key == "interrupt_type")
            conflict(s, *it->second, "is one value for every port of an adapter");
        else if (s.value == "adapter" || it->second->value == "adapter")
            conflict(s, *it->second, "\"adapter\" is one value for every port of an adapter");
    }
    if (!pr.lines.empty()) {
        std::string all;
        for (const std::string &l : pr.lines) all += (all.empty() ? "" : "\n") + path + ": " + l;
        throw DocumentError(all);
    }
    return d;
}

std::string changeLine(const Change &c, const std::string &prefix) {
    auto shown = [](const json &v) {
        return v.is_null() ? std::string("unset") : v.is_string() ? v.get<std::string>() : v.dump();
    };
    std::string head = prefix + (c.key->host ? "host " : "port " + wwnText(c.wwn) + " ") + c.key->name;
    if (!c.key->list)
        return head + ": " + shown(c.from) + " -> " + shown(c.to) + (c.drops.empty() ? "" : " (drops " + c.drops + ")");
    const TableShape &shape = *c.key->list;
    std::map<long long, std::pair<json, json>> entries;  // by id: from, to
    for (const json &e : c.from.is_array() ? c.from : json::array()) entries[e[shape.id].get<long long>()].first = e;
    for (const json &e : c.to.is_array() ? c.to : json::array()) entries[e[shape.id].get<long long>()].second = e;
    std::string out;
    for (const auto &[id, ft] : entries)
        if (ft.first != ft.second)
            out += (out.empty() ? "" : "\n") + head + " " + shape.id + " " + std::to_string(id) + ": " +
                   entryText(shape, ft.first) + " -> " + entryText(shape, ft.second);
    return out;
}

namespace {

// The adapter numbers of the host and what the document's numbers do to
// them.  The settings /etc/qmxldd.conf keeps for a port are filed under its
// number ("qmx<N>_...", "qmxl<N>-..."), and every setting call files them
// under the number the driver runs the port under now, while the driver
// takes each port's number from its "qmxl<N>-wwpn" key at its next load.
// Giving a port a number drops every key of its old number and of the new
// one (QMX_SetAdapterNumber has no way to move them).
struct Numbering {
    std::map<std::string, int> running;     // the driver's number now, by WWN text
    std::map<std::string, int> configured;  // the file's first binding, by WWN text
    std::map<int, std::string> holder;      // the WWN text the file binds to a number first
    std::map<int, std::vector<std::string>> kept;  // "key=value" of each number, its binding aside
    std::map<std::string, const Setting *> wanted;  // the document's numbers, by WWN text
    std::set<int> dropped;                  // numbers whose keys the numbering drops
    std::map<int, std::string> after;       // holder of each number once the numbering is written

    // The number the driver gives the port at its next load, if the file fixes one.
    std::optional<int> nextNumber(const std::string &w) const {
        if (auto it = wanted.find(w); it != wanted.end()) return it->second->value.get<int>();
        if (auto it = configured.find(w); it != configured.end()) return it->second;
        return std::nullopt;
    }
    bool moves(const std::string &w) const {
        auto it = wanted.find(w);
        auto c = configured.find(w);
        return it != wanted.end() && (c == configured.end() || c->second != it->second->value.get<int>());
    }
};

// "qmxl<N>-..." or "qmx<N>_...", N printed as "%d" prints it: N, else -1.
int numberOfKey(const std::string &key, bool *binding) {
    bool adapter = key.rfind("qmxl", 0) == 0;
    std::size_t at = adapter ? 4 : key.rfind("qmx", 0) == 0 ? 3 : std::string::npos;
    if (at == std::string::npos) return -1;
    std::size_t end = at;
    while (end < key.size() && std::isdigit(static_cast<unsigned char>(key[end])) && end - at < 4) ++end;
    if (end == at || end >= key.size() || key[end] != (adapter ? '-' : '_') ||
        (key[at] == '0' && end - at > 1))
        return -1;
    *binding = key.compare(end + 1, std::string::npos, "wwpn") == 0;
    return std::atoi(key.substr(at, end - at).c_str());
}

Numbering readNumbering(const Document &d) {
    Numbering n;
    for (const Setting &s : d.settings)
        if (s.key == kAdapterNumberKey) n.wanted[wwnText(s.wwn)] = &s;
    for (const PortInfo &p : listPorts(false)) n.running[wwnText(p.wwn)] = p.number;
    for (const auto &[num, w] : configuredNumbers()) {
        n.configured.emplace(wwnText(w), num);
        n.holder.emplace(num, wwnText(w));
    }
    n.after = n.holder;
    bool any = false;
    for (const auto &[w, s] : n.wanted) any = any || n.moves(w);
    if (!any) return n;  // nothing moves: nothing is dropped
    util_para *raw = nullptr;
    int count = QMX_Read_qmxlddconf(&raw, 0);
    std::unique_ptr<util_para, decltype(&std::free)> list(raw, &std::free);
    if (count < 0 && count != -2) check(1, "QMX_Read_qmxlddconf");  // -2: no file, nothing kept
    for (int i = 0; raw != nullptr && i < count; ++i) {
        std::string key = fieldText(raw[i].keyword, sizeof raw[i].keyword);
        bool binding = false;
        int num = numberOfKey(key, &binding);
        if (num >= 0 && !binding) n.kept[num].push_back(key + "=" + fieldText(raw[i].value, sizeof raw[i].value));
    }
    for (const auto &[w, s] : n.wanted) {
        if (!n.moves(w)) continue;
        if (auto c = n.configured.find(w); c != n.configured.end()) {
            n.dropped.insert(c->second);
            if (auto h = n.after.find(c->second); h != n.after.end() && h->second == w) n.after.erase(h);
        }
    }
    for (const auto &[w, s] : n.wanted)
        if (n.moves(w)) n.dropped.insert(s->value.get<int>()), n.after[s->value.get<int>()] = w;
    return n;
}

std::string joined(const std::vector<std::string> &items) {
    std::string all;
    for (const std::string &i : items) all += (all.empty() ? "" : ", ") + i;
    return all;
}

// The numbering changes, one row each; a number that would take a setting
// from a port or drop one unasked is a problem of the document.
void planNumbers(const Numbering &n, bool prune, std::vector<Change> &changes,
                 std::vector<std::string> &problems) {
    const ConfigKey *key = findConfigKey(kAdapterNumberKey);
    for (const auto &[w, s] : n.wanted) {
        if (!n.moves(w)) continue;
        int to = s->value.get<int>();
        std::string at = "line " + std::to_string(s->line) + ": port " + w + " adapter_number " +
                         std::to_string(to) + ": ";
        auto held = n.holder.find(to);
        if (held != n.holder.end() && held->second != w && !n.moves(held->second)) {
            // Not reachable through a document when the holder is gone from the host.
            problems.push_back(at + "number " + std::to_string(to) + " is held by port " + held->second +
                               (n.running.count(held->second)
                                    ? ", which this document does not give another number"
                                    : ", which is not on this host (`qmxmgr numbering remove " + held->second +
                                          "` frees the number and drops what is kept under it)") +
                               "; taking it drops what /etc/qmxldd.conf keeps for that port under the number");
            continue;
        }
        if (held == n.holder.end()) {
            bool taken = false;
            for (const auto &[q, r] : n.running)
                if (r == to && q != w && !n.configured.count(q) && !n.moves(q)) {
                    problems.push_back(at + "the driver runs port " + q + " under number " + std::to_string(to) +
                                       " and the document does not give it another number");
                    taken = true;
                }
            if (taken) continue;
        }
        // What the new table drops for this port: its old number's keys, and
        // the new number's when no other port held it (a holder that moves
        // away counts them as its own).
        std::vector<std::string> lost, under;
        json from = nullptr;
        auto drop = [&](int num) {
            auto k = n.kept.find(num);
            if (k == n.kept.end()) return;
            lost.insert(lost.end(), k->second.begin(), k->second.end());
            under.push_back(std::to_string(num));
        };
        if (auto c = n.configured.find(w); c != n.configured.end()) {
            from = c->second;
            drop(c->second);
        }
        if (held == n.holder.end() || held->second == w) drop(to);
        if (!lost.empty() && !prune) {
            bool runsUnderIt = n.running.at(w) == to;
            problems.push_back(at + "this drops what /etc/qmxldd.conf keeps under number" +
                               (under.size() > 1 ? "s " : " ") + joined(under) + " (" +
                               joined(lost) + ")" +
                               (runsUnderIt ? ": apply with --prune to drop it (the settings this document gives "
                                              "the port are written again under the number)"
                                            : ", and no setting call can file it under number " + std::to_string(to) +
                                                  " before the driver runs the port under that number: apply with "
                                                  "--prune to drop it (the document keeping the port's other "
                                                  "settings), reload the driver, then apply its parameters and "
                                                  "path limits again"));
        }
        changes.push_back(Change{s->wwn, key, from, s->value, joined(lost)});
    }
}

}  // namespace

std::vector<Change> plan(const Document &d, bool prune) {
    forgetStoredTargets();
    std::map<std::string, const Setting *> wanted;  // by WWN text and key
    for (const Setting &s : d.settings) wanted[wwnText(s.wwn) + " " + s.key] = &s;
    std::vector<Change> changes;
    std::vector<std::string> problems;
    std::map<std::string, json> tables;  // the port's tables as apply leaves them
    // The change of one setting, if any; true when there is one.  A table
    // setting is merged entry by entry, and its entries checked against the
    // stored entries the document leaves alone and against the table they
    // name.
    auto consider = [&](const QMX_WWN &w, const ConfigKey &k, bool dropped) {
        auto it = wanted.find(wwnText(w) + " " + k.name);
        if (it == wanted.end() && !(prune && k.removable)) return false;
        json to = it != wanted.end() ? it->second->value : json(nullptr);
        json from = dropped ? json(nullptr) : k.read(w);
        if (k.list) {
            const TableShape &shape = *k.list;
            to = mergeList(shape, from, it != wanted.end() ? &it->second->value : nullptr, prune);
            tables[k.name] = to;
            std::map<std::string, long long> holder;  // field and value -> id
            for (const json &e : it != wanted.end() && to.is_array() ? to : json::array())
                for (const std::string &f : shape.unique) {
                    if (!e.contains(f)) continue;
                    auto [h, fresh] = holder.emplace(f + " " + e[f].dump(), e[shape.id].get<long long>());
                    if (!fresh)
                        problems.push_back("line " + std::to_string(it->second->line) + ": port " + wwnText(w) +
                                           " " + k.name + ": " + shape.id + " " + std::to_string(h->second) +
                                           " and " + e[shape.id].dump() + " would both have " + f + " " +
                                           (e[f].is_string() ? e[f].get<std::string>() : e[f].dump()) +
                                           " (one of them stored, left alone by the document)");
                }
            if (!shape.refersTo.empty() && it != wanted.end() && it->second->value.is_array()) {
                auto ref = tables.find(shape.refersTo);
                json has = ref != tables.end() ? ref->second : findConfigKey(shape.refersTo)->read(w);
                for (const json &e : it->second->value)
                    if (!has.is_array() || std::none_of(has.begin(), has.end(), [&](const json &h) {
                            return h[shape.id] == e[shape.id];
                        }))
                        problems.push_back("line " + std::to_string(it->second->line) + ": port " + wwnText(w) +
                                           " " + k.name + " " + shape.id + " " + e[shape.id].dump() +
                                           ": not in the port's " + shape.refersTo +
                                           " (neither the document's nor the stored one)");
            }
        }
        if (from == to) return false;
        changes.push_back(Change{w, &k, from, to, {}});
        return true;
    };
    if (d.host)
        for (const ConfigKey &k : configKeys())
            if (k.host) consider(QMX_WWN{}, k, false);
    Numbering n = readNumbering(d);
    planNumbers(n, prune, changes, problems);
    for (const QMX_WWN &w : d.ports) {
        tables.clear();
        std::string port = wwnText(w);
        int now = n.running.at(port);
        // The settings calls file under the number the driver runs the port
        // under now: right only when the port keeps that number at the next
        // load (or, without a number of its own, when no port takes it: the
        // first setting then binds it to this port).
        std::optional<int> next = n.nextNumber(port);
        auto owner = n.after.find(now);
        bool filedRight = next ? *next == now : owner == n.after.end() || owner->second == port;
        for (const ConfigKey &k : configKeys()) {
            if (k.host || k.name == kAdapterNumberKey) continue;
            if (!consider(w, k, k.perNumber && n.dropped.count(now)) || !k.perNumber || filedRight) continue;
            auto it = wanted.find(port + " " + k.name);
            int line = it != wanted.end() ? it->second->line : d.portLines.count(port) ? d.portLines.at(port) : 1;
            problems.push_back("line " + std::to_string(line) + ": port " + port + " " + k.name +
                               ": would be filed under number " + std::to_string(now) +
                               ", the driver's number for the port now, but " +
                               (next ? "the port is numbered " + std::to_string(*next)
                                     : "number " + std::to_string(now) + " is port " + owner->second + "'s") +
                               " from the next driver load: leave the port's parameters, path limits and tables out "
                               "of the document until the driver has been reloaded with the new numbers, then "
                               "apply them");
        }
    }
    if (!problems.empty()) {
        auto lineOf = [](const std::string &l) { return std::atoi(l.c_str() + 5); };  // "line N: ..."
        std::stable_sort(problems.begin(), problems.end(),
                         [&](const std::string &a, const std::string &b) { return lineOf(a) < lineOf(b); });
        std::string all;
        for (const std::string &l : problems) all += (all.empty() ? "" : "\n") + d.path + ": " + l;
        throw DocumentError(all);
    }
    return changes;
}

json exportDocument(const std::vector<std::string> &names, bool withCurrent) {
    forgetStoredTargets();
    std::vector<PortInfo> ports;
    if (names.empty()) {
        ports = listPorts(false);
    } else {
        for (const std::string &n : names) {
            PortRef r = resolvePort(n, false);
            if (!r.info) throw UsageError("no port with WWN " + wwnText(r.wwn) + " on this host");
            ports.push_back(*r.info);
        }
    }
    json doc{{"version", kDocumentVersion}, {"host", {{"settings", json::object()}}},
             {"ports", json::object()}};
    for (const ConfigKey &k : configKeys())
        if (k.host) doc["host"]["settings"][k.name] = k.read(QMX_WWN{});
    std::map<std::string, int> numbers;  // the first binding of each WWN
    for (const auto &[num, w] : configuredNumbers()) numbers.emplace(wwnText(w), num);
    for (const PortInfo &p : ports) {
        json port{{"device", p.device}, {"adapter_number", p.number}, {"settings", json::object()}};
        for (const ConfigKey &k : configKeys()) {
            if (k.host) continue;
            // One reading of the numbering for every port.
            json v = k.name != kAdapterNumberKey ? k.read(p.wwn) : numbers.count(wwnText(p.wwn)) ? json(numbers[wwnText(p.wwn)]) : json(nullptr);
            if (!v.is_null()) port["settings"][k.name] = v;
        }
        if (withCurrent) port["current"] = currentValues(p.wwn);
        doc["ports"][wwnText(p.wwn)] = port;
    }
    return doc;
}

std::string toYaml(const json &doc) {
    std::ostringstream os;
    os << "# qmxmgr configuration document: qmxmgr diff FILE, qmxmgr apply FILE\n";
    emit(os, doc, 0);
    return os.str();
}

}  // namespace qmxmgr
