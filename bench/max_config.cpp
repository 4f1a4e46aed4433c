// Maximum-configuration benchmarks of qmxmgr diff and apply: a document
// naming all 256 ports with a value for every setting kept in the
// configuration files, against the exported calls the plan makes (its
// getters, and the setters of the changes).  An apply of an unchanged
// document must find no change, so it makes no writing call at all.  The
// settings kept by the boot firmware are left out: each of their calls runs
// the BIOS tool (about 0.4 s in the virtual host), which would time the tool.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "binding_items.h"
#include "config_document.h"
#include "config_keys.h"
#include "max_support.h"

namespace {

using namespace qmxbench;
using qmxmgr::json;

// A value the key takes: the first of a few candidates it accepts.
json someValue(const qmxmgr::ConfigKey &k, int port) {
    // The tables (binding, LU priorities) stay empty: every port's per-port
    // values already bring the configuration file near its size limit.
    // Their reads are still timed (a null table on a host without one is no
    // change).
    if (k.list) return nullptr;
    const json candidates[] = {1, "on", "auto"};
    for (const json &c : candidates) {
        std::string why;
        json v = k.normalize(c, why);
        if (why.empty() && !v.is_null())
            return v.is_string() && k.name.find("alias") != std::string::npos
                       ? json("p" + std::to_string(port))
                       : v;
    }
    return nullptr;
}

// The exported document of every port, with every setting given a value
// and the queue depth `depth`; written to a file in the virtual host.
std::string writeDocument(int depth) {
    json doc = qmxmgr::exportDocument({}, false);
    int n = 0;
    for (auto &[wwn, port] : doc["ports"].items()) {
        port["settings"] = json::object();
        // Adapter numbers stay as they are: one port a number.
        for (const qmxmgr::ConfigKey &k : qmxmgr::configKeys())
            if (!k.host && !k.bootFirmware && k.name != qmxmgr::kAdapterNumberKey)
                port["settings"][k.name] = someValue(k, n);
        port["settings"]["queue_depth"] = depth;
        ++n;
    }
    std::string path = "/tmp/qmx_bench_config_" + std::to_string(depth) + ".json";
    spit(path, doc.dump());
    return path;
}

// The getters the plan of `d` calls, made directly: one for each setting
// the document gives (the numbering is read once for every port, the
// binding's target items once for every table).
bool bareReads(const qmxmgr::Document &d) {
    qmxmgr::forgetStoredTargets();
    for (const qmxmgr::Setting &s : d.settings)
        if (s.key != qmxmgr::kAdapterNumberKey) qmxmgr::findConfigKey(s.key)->read(s.wwn);
    return true;
}

bool applyAll(const std::vector<qmxmgr::Change> &changes) {
    for (const qmxmgr::Change &c : changes) c.key->write(c.wwn, c.to);
    return true;
}

// diff (= apply) of a document the host already matches: read, plan, no change.
void BM_ConfigDiffUnchanged(benchmark::State &state) {
    discoveredPorts();
    std::string path = writeDocument(64);
    try {
        applyAll(qmxmgr::plan(qmxmgr::readDocument(path), false));  // untimed: make the host match
        qmxmgr::Document d = qmxmgr::readDocument(path);
        timeAgainstBare(
            state, [&] { return qmxmgr::plan(qmxmgr::readDocument(path), false).empty(); },
            [&] { return bareReads(d); });
        state.counters["ports"] = double(d.ports.size());
        state.counters["settings"] = double(d.settings.size());
    } catch (const std::exception &e) {
        state.SkipWithError(e.what());
    }
    ::unlink(path.c_str());
}
BENCHMARK(BM_ConfigDiffUnchanged)->Unit(benchmark::kMillisecond)->Iterations(1);

// apply of a document that changes the queue depth of every port: the plan's
// reads and 256 setter calls, against the same getters and setters made
// directly.  Each iteration switches between two depths.
void BM_ConfigApplyQueueDepth(benchmark::State &state) {
    discoveredPorts();
    std::string paths[2] = {writeDocument(64), writeDocument(32)};
    try {
        applyAll(qmxmgr::plan(qmxmgr::readDocument(paths[0]), false));
        qmxmgr::Document docs[2] = {qmxmgr::readDocument(paths[0]), qmxmgr::readDocument(paths[1])};
        int call = 1, bare = 0;  // the document each side applies next
        timeAgainstBare(
            state,
            [&] {
                auto changes = qmxmgr::plan(qmxmgr::readDocument(paths[call]), false);
                call ^= 1;
                return changes.size() == docs[0].ports.size() && applyAll(changes);
            },
            [&] {
                bareReads(docs[bare]);
                for (const QMX_WWN &w : docs[bare].ports)
                    if (QMX_SetQueueDepthCount(w, bare ? 32 : 64, 0) != 0) return false;
                bare ^= 1;
                return true;
            });
    } catch (const std::exception &e) {
        state.SkipWithError(e.what());
    }
    for (const std::string &p : paths) ::unlink(p.c_str());
}
BENCHMARK(BM_ConfigApplyQueueDepth)->Unit(benchmark::kMillisecond)->Iterations(2);

// diff of a document holding every port's persistent binding table at the
// size the binding benchmarks build (64 targets a port, port and node WWN:
// 16384 targets, 32768 items) and its other stored settings as they are:
// the tables are read once a plan, merged and compared entry by entry.
void BM_ConfigDiffBindingTables(benchmark::State &state) {
    discoveredPorts();
    ConfRestore restore;
    try {
        std::string text = slurp(kConfFile);
        while (!text.empty() && (text.back() == '\n' || text.back() == ':')) text.pop_back();
        text += ':';
        char item[96];
        json plain = qmxmgr::exportDocument({}, false);
        for (auto &[wwn, port] : plain["ports"].items()) {
            const int n = port["adapter_number"].get<int>();
            for (int t = 0; t < 64; ++t)
                for (const char *kind : {"wwpn", "wwnn"}) {
                    int len = std::snprintf(item, sizeof item, "qmxl%d-tid-%d-%s=0x50060e80%04x%04x:", n, t, kind,
                                            unsigned(n), unsigned(t * 2 + (kind[2] == 'n')));
                    text.append(item, std::size_t(len));
                }
        }
        text += '\n';
        if (!spit(kConfFile, text)) return state.SkipWithError("cannot write the config file");
        const std::string path = "/tmp/qmx_bench_config_tables.json";
        json doc = qmxmgr::exportDocument({}, false);
        long entries = 0;
        for (auto &[wwn, port] : doc["ports"].items()) {
            // As in the other documents, no setting the boot firmware keeps.
            for (const qmxmgr::ConfigKey &k : qmxmgr::configKeys())
                if (k.bootFirmware) port["settings"].erase(k.name);
            entries += long(port["settings"].value("binding", json::array()).size());
        }
        spit(path, doc.dump());
        qmxmgr::Document d = qmxmgr::readDocument(path);
        timeAgainstBare(
            state, [&] { return qmxmgr::plan(qmxmgr::readDocument(path), false).empty(); },
            [&] { return bareReads(d); });
        state.counters["ports"] = double(d.ports.size());
        state.counters["binding_entries"] = double(entries);
        state.counters["conf_bytes"] = double(text.size());
        ::unlink(path.c_str());
    } catch (const std::exception &e) {
        state.SkipWithError(e.what());
    }
}
BENCHMARK(BM_ConfigDiffBindingTables)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace
