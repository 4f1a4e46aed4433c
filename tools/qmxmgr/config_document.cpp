#include "config_document.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

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
    // for every function of the adapter.
    std::map<std::pair<int, int>, const Setting *> interrupt, isolate;  // by PCI bus and device
    auto conflict = [&](const Setting &s, const Setting &other, const std::string &what) {
        pr.lines.push_back("line " + std::to_string(s.line) + ": " + s.key + " " + what + ": port " +
                           wwnText(s.wwn) + " differs from port " + wwnText(other.wwn));
    };
    for (const Setting &s : d.settings) {
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
    if (!c.key->list) return head + ": " + shown(c.from) + " -> " + shown(c.to);
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

std::vector<Change> plan(const Document &d, bool prune) {
    std::map<std::string, const Setting *> wanted;  // by WWN text and key
    for (const Setting &s : d.settings) wanted[wwnText(s.wwn) + " " + s.key] = &s;
    std::vector<QMX_WWN> scopes = d.ports;
    if (d.host) scopes.insert(scopes.begin(), QMX_WWN{});
    std::vector<Change> changes;
    std::vector<std::string> refused;
    for (const QMX_WWN &w : scopes) {
        std::map<std::string, json> tables;  // the port's tables as apply leaves them
        for (const ConfigKey &k : configKeys()) {
            if (k.host != isAllZeroWwn(w)) continue;
            auto it = wanted.find(wwnText(w) + " " + k.name);
            if (it == wanted.end() && !(prune && k.removable)) continue;
            json to = it != wanted.end() ? it->second->value : json(nullptr);
            json from = k.read(w);
            if (k.list) {
                const TableShape &shape = *k.list;
                to = mergeList(shape, from, it != wanted.end() ? &it->second->value : nullptr, prune);
                tables[k.name] = to;
                // A stored entry the document leaves alone may hold what one of its entries gives.
                std::map<std::string, long long> holder;  // field and value -> id
                for (const json &e : it != wanted.end() && to.is_array() ? to : json::array())
                    for (const std::string &f : shape.unique) {
                        if (!e.contains(f)) continue;
                        auto [h, fresh] = holder.emplace(f + " " + e[f].dump(), e[shape.id].get<long long>());
                        if (!fresh)
                            refused.push_back(d.path + ": line " + std::to_string(it->second->line) + ": port " +
                                              wwnText(w) + " " + k.name + ": " + shape.id + " " +
                                              std::to_string(h->second) + " and " + e[shape.id].dump() +
                                              " would both have " + f + " " +
                                              (e[f].is_string() ? e[f].get<std::string>() : e[f].dump()) +
                                              " (one of them stored, left alone by the document)");
                    }
                if (!shape.refersTo.empty() && it != wanted.end() && it->second->value.is_array()) {
                    // The entries the document gives must name ids the other table has.
                    auto ref = tables.find(shape.refersTo);
                    json has = ref != tables.end() ? ref->second : findConfigKey(shape.refersTo)->read(w);
                    for (const json &e : it->second->value)
                        if (!has.is_array() || std::none_of(has.begin(), has.end(), [&](const json &h) {
                                return h[shape.id] == e[shape.id];
                            }))
                            refused.push_back(d.path + ": line " + std::to_string(it->second->line) + ": port " +
                                              wwnText(w) + " " + k.name + " " + shape.id + " " +
                                              e[shape.id].dump() + ": not in the port's " + shape.refersTo +
                                              " (neither the document's nor the stored one)");
                }
            }
            if (from != to) changes.push_back(Change{w, &k, from, to});
        }
    }
    if (!refused.empty()) {
        std::string all;
        for (const std::string &l : refused) all += (all.empty() ? "" : "\n") + l;
        throw DocumentError(all);
    }
    return changes;
}

json exportDocument(const std::vector<std::string> &names, bool withCurrent) {
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
    for (const PortInfo &p : ports) {
        json port{{"device", p.device}, {"adapter_number", p.number}, {"settings", json::object()}};
        for (const ConfigKey &k : configKeys()) {
            if (k.host) continue;
            json v = k.read(p.wwn);
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
