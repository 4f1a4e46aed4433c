#include "binding_items.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

namespace qmxmgr {

namespace {

constexpr int kConfLock = 1;  // the lock of /etc/qmxldd.conf

struct KeyList {
    util_para *items = nullptr;
    int count = 0;
    KeyList() {
        count = QMX_Read_qmxlddconf(&items, 0);
        if (count < 0) {
            std::free(items);
            throw CallError("QMX_Read_qmxlddconf", QMX_LastErrorCode());
        }
        if (items == nullptr) count = 0;
    }
    ~KeyList() { std::free(items); }
    KeyList(const KeyList &) = delete;
    KeyList &operator=(const KeyList &) = delete;
};

std::string keyOf(const util_para &p) { return fieldText(p.keyword, sizeof p.keyword); }

void setField(char *field, std::size_t size, const std::string &text) {
    std::memset(field, 0, size);
    std::memcpy(field, text.data(), std::min(text.size(), size - 1));
}

std::optional<std::map<int, AdapterTargets>> cache;

}  // namespace

bool splitBindingKey(const std::string &key, int *adapter, int *tid, std::string *kind) {
    if (key.rfind("qmxl", 0) != 0) return false;
    char *end = nullptr;
    errno = 0;
    long a = std::strtol(key.c_str() + 4, &end, 10);
    if (end == key.c_str() + 4 || errno != 0 || a < 0 || a > 0x7fffffff) return false;
    std::string rest(end);
    *adapter = int(a);
    if (rest == "-wwpn") {
        *tid = -1;
        return true;
    }
    if (rest.rfind("-tid-", 0) != 0) return false;
    const char *p = rest.c_str() + 5;
    long t = std::strtol(p, &end, 10);
    if (end == p || *end != '-' || errno != 0 || t < 0 || t > 0x7fffffff) return false;
    *tid = int(t);
    *kind = end + 1;
    return !kind->empty();
}

const AdapterTargets &storedTargets(int adapter) {
    if (!cache) {
        KeyList list;
        std::map<int, AdapterTargets> all;
        for (int i = 0; i < list.count; ++i) {
            int a = 0, t = 0;
            std::string kind;
            if (splitBindingKey(keyOf(list.items[i]), &a, &t, &kind) && t >= 0)
                all[a][t].emplace(kind, fieldText(list.items[i].value, sizeof list.items[i].value));
        }
        cache = std::move(all);
    }
    static const AdapterTargets kNone;
    auto it = cache->find(adapter);
    return it == cache->end() ? kNone : it->second;
}

void storeTargets(int adapter, const QMX_WWN &wwn, const std::vector<std::string> &kinds,
                  const AdapterTargets &want) {
    if (QMX_ExeclusiveLock(kConfLock) != 0) throw CallError("QMX_ExeclusiveLock", QMX_LastErrorCode());
    struct Unlock {
        ~Unlock() { QMX_ExeclusiveUnlock(kConfLock); }
    } unlock;
    cache.reset();
    KeyList list;
    std::map<std::pair<int, std::string>, bool> done;  // (target, kind) already in the file
    bool adapterKey = false;
    for (int i = 0; i < list.count; ++i) {
        util_para &p = list.items[i];
        int a = 0, t = 0;
        std::string kind;
        if (!splitBindingKey(keyOf(p), &a, &t, &kind) || a != adapter) continue;
        if (t < 0) {
            adapterKey = true;
            continue;
        }
        if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) continue;
        auto tw = want.find(t);
        auto kw = tw == want.end() ? TargetItems::const_iterator() : tw->second.find(kind);
        if (tw == want.end() || kw == tw->second.end() || done[{t, kind}]) {
            setField(p.keyword, sizeof p.keyword, "");  // the writer leaves emptied items out
            setField(p.value, sizeof p.value, "");
            continue;
        }
        setField(p.value, sizeof p.value, kw->second);
        done[{t, kind}] = true;
    }
    std::vector<util_para> added;
    auto add = [&added](const std::string &key, const std::string &value) {
        util_para &p = added.emplace_back();
        std::memset(&p, 0, sizeof p);
        setField(p.keyword, sizeof p.keyword, key);
        setField(p.value, sizeof p.value, value);
    };
    char key[64];
    for (const auto &[t, items] : want)
        for (const std::string &kind : kinds) {
            auto it = items.find(kind);
            if (it == items.end() || done[{t, kind}]) continue;
            if (!adapterKey) {
                char v[24];
                std::snprintf(v, sizeof v, "0x%02x%02x%02x%02x%02x%02x%02x%02x", wwn.wwn[0], wwn.wwn[1],
                              wwn.wwn[2], wwn.wwn[3], wwn.wwn[4], wwn.wwn[5], wwn.wwn[6], wwn.wwn[7]);
                std::snprintf(key, sizeof key, "qmxl%d-wwpn", adapter);
                add(key, v);
                adapterKey = true;
            }
            std::snprintf(key, sizeof key, "qmxl%d-tid-%d-%s", adapter, t, kind.c_str());
            add(key, it->second);
        }
    // Plain mode: the items are written as the list has them.
    if (QMX_MakeConfFile(list.items, list.count, added.data(), int(added.size()), 0) != 0)
        throw CallError("QMX_MakeConfFile", QMX_LastErrorCode());
}

}  // namespace qmxmgr
