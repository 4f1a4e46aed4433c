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

void forgetStoredTargets() { cache.reset(); }

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
                  const AdapterTargets &want, bool dropOthers) {
    if (QMX_ExeclusiveLock(kConfLock) != 0) throw CallError("QMX_ExeclusiveLock", QMX_LastErrorCode());
    struct Unlock {
        ~Unlock() { QMX_ExeclusiveUnlock(kConfLock); }
    } unlock;
    cache.reset();
    KeyList list;
    std::map<std::pair<int, std::string>, bool> done;  // (target, kind) already in the file
    std::map<int, int> last;                           // target -> its last item in the file
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
        auto tw = want.find(t);
        if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end() && !(dropOthers && tw == want.end())) {
            last[t] = i;
            continue;
        }
        auto kw = tw == want.end() ? TargetItems::const_iterator() : tw->second.find(kind);
        if (tw == want.end() || kw == tw->second.end() || done[{t, kind}]) {
            setField(p.keyword, sizeof p.keyword, "");  // the writer leaves emptied items out
            setField(p.value, sizeof p.value, "");
            continue;
        }
        setField(p.value, sizeof p.value, kw->second);
        done[{t, kind}] = true;
        last[t] = i;
    }
    // New items follow the last item of their target, so that a target's
    // items stay together; those of targets without any come at the end.
    auto item = [](const std::string &key, const std::string &value) {
        util_para p;
        std::memset(&p, 0, sizeof p);
        setField(p.keyword, sizeof p.keyword, key);
        setField(p.value, sizeof p.value, value);
        return p;
    };
    std::map<int, std::vector<util_para>> fresh;  // by target
    char key[64];
    for (const auto &[t, items] : want)
        for (const std::string &kind : kinds)
            if (auto it = items.find(kind); it != items.end() && !done[{t, kind}]) {
                std::snprintf(key, sizeof key, "qmxl%d-tid-%d-%s", adapter, t, kind.c_str());
                fresh[t].push_back(item(key, it->second));
            }
    std::vector<util_para> out;
    out.reserve(std::size_t(list.count) + 4 * kinds.size() * want.size() + 1);
    std::map<int, int> after;  // item index -> target whose new items follow it
    for (const auto &[t, i] : last) after[i] = t;
    for (int i = 0; i < list.count; ++i) {
        out.push_back(list.items[i]);
        if (auto a = after.find(i); a != after.end() && fresh.count(a->second)) {
            out.insert(out.end(), fresh[a->second].begin(), fresh[a->second].end());
            fresh.erase(a->second);
        }
    }
    if (!fresh.empty() && !adapterKey) {
        char v[24];
        std::snprintf(v, sizeof v, "0x%02x%02x%02x%02x%02x%02x%02x%02x", wwn.wwn[0], wwn.wwn[1], wwn.wwn[2],
                      wwn.wwn[3], wwn.wwn[4], wwn.wwn[5], wwn.wwn[6], wwn.wwn[7]);
        std::snprintf(key, sizeof key, "qmxl%d-wwpn", adapter);
        out.push_back(item(key, v));
    }
    for (auto &[t, items] : fresh) out.insert(out.end(), items.begin(), items.end());
    // Plain mode: the items are written as the list has them.
    if (QMX_MakeConfFile(out.data(), int(out.size()), nullptr, 0, 0) != 0)
        throw CallError("QMX_MakeConfFile", QMX_LastErrorCode());
}

}  // namespace qmxmgr
