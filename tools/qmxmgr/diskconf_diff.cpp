#include "diskconf_diff.h"

#include <cstring>
#include <unordered_map>

namespace qmxmgr {

namespace {

// Key of an item: PCI address and level in `hi`, WWPN in `mid`, LUN in `lo`.
struct Key {
    uint32_t hi;
    uint64_t mid;
    uint32_t lo;
    bool operator==(const Key &o) const { return hi == o.hi && mid == o.mid && lo == o.lo; }
};
struct KeyHash {
    std::size_t operator()(const Key &k) const {
        uint64_t h = k.mid * 0x9E3779B97F4A7C15ull;
        h ^= (uint64_t(k.hi) << 32 | k.lo) + 0x632BE59BD9B4E019ull + (h << 6) + (h >> 2);
        return std::size_t(h ^ (h >> 29));
    }
};

uint32_t pciOf(const QMX_DISK_CONF_ADAPT &a) {
    return uint32_t(a.bus_dev_func[0]) << 16 | uint32_t(a.bus_dev_func[1]) << 8 | a.bus_dev_func[2];
}
uint64_t wwnOf(const QMX_WWN &w) {
    uint64_t v = 0;
    for (uint8_t b : w.wwn) v = v << 8 | b;
    return v;
}
Key adapterKey(const QMX_DISK_CONF_ADAPT &a) { return {pciOf(a) | 1u << 24, 0, 0}; }
Key targetKey(const QMX_DISK_CONF_ADAPT &a, const QMX_DISK_CONF_TGT &t) {
    return {pciOf(a) | 2u << 24, wwnOf(t.wwn), 0};
}
Key luKey(const QMX_DISK_CONF_ADAPT &a, const QMX_DISK_CONF_TGT &t, int lun) {
    return {pciOf(a) | 3u << 24, wwnOf(t.wwn), uint32_t(lun)};
}

using Index = std::unordered_map<Key, const void *, KeyHash>;

int lusOf(const QMX_DISK_CONF_TGT &t) {
    int n = 0;
    for (const QMX_DISK_CONF_LU *l : t.lu) n += l != nullptr;
    return n;
}

std::size_t itemsOf(const QMX_DISK_CONFIG &c) {
    std::size_t n = 0;
    for (const QMX_DISK_CONF_ADAPT *a : c.adapt) {
        if (a == nullptr) continue;
        ++n;
        for (const QMX_DISK_CONF_TGT *t : a->tgt)
            if (t != nullptr) n += 1 + std::size_t(lusOf(*t));
    }
    return n;
}

Index indexOf(const QMX_DISK_CONFIG &c) {
    Index ix;
    ix.reserve(itemsOf(c));
    for (const QMX_DISK_CONF_ADAPT *a : c.adapt) {
        if (a == nullptr) continue;
        ix[adapterKey(*a)] = a;
        for (const QMX_DISK_CONF_TGT *t : a->tgt) {
            if (t == nullptr) continue;
            ix[targetKey(*a, *t)] = t;
            for (int l = 0; l < QMX_DISK_CONF_LU_MAX; ++l)
                if (t->lu[l] != nullptr) ix[luKey(*a, *t, l)] = t->lu[l];
        }
    }
    return ix;
}

bool sameId(const QMX_DISK_CONF_LU &x, const QMX_DISK_CONF_LU &y) {
    if (x.valid_luid_byte != y.valid_luid_byte) return false;
    if (x.valid_luid_byte == 0) return true;
    if (x.luid == nullptr || y.luid == nullptr) return x.luid == y.luid;
    return std::memcmp(x.luid, y.luid, x.valid_luid_byte) == 0;
}

// Items of `from` missing in `other` (kind), and with `changes` also LUs
// whose identification differs.
void walk(const QMX_DISK_CONFIG &from, const Index &other, DiskChange::Kind kind, bool changes,
          std::vector<DiskChange> &out) {
    for (const QMX_DISK_CONF_ADAPT *a : from.adapt) {
        if (a == nullptr) continue;
        DiskChange base;
        base.kind = kind;
        std::memcpy(base.pci, a->bus_dev_func, 3);
        if (other.find(adapterKey(*a)) == other.end()) {
            for (const QMX_DISK_CONF_TGT *t : a->tgt)
                if (t != nullptr) base.lus += lusOf(*t);
            out.push_back(base);
            continue;
        }
        for (const QMX_DISK_CONF_TGT *t : a->tgt) {
            if (t == nullptr) continue;
            DiskChange tc = base;
            tc.level = DiskChange::Target;
            tc.wwpn = t->wwn;
            if (other.find(targetKey(*a, *t)) == other.end()) {
                tc.lus = lusOf(*t);
                out.push_back(tc);
                continue;
            }
            for (int l = 0; l < QMX_DISK_CONF_LU_MAX; ++l) {
                const QMX_DISK_CONF_LU *lu = t->lu[l];
                if (lu == nullptr) continue;
                DiskChange lc = tc;
                lc.level = DiskChange::Lu;
                lc.lun = l;
                auto hit = other.find(luKey(*a, *t, l));
                if (hit == other.end()) {
                    out.push_back(lc);
                } else if (changes) {
                    const auto *was = static_cast<const QMX_DISK_CONF_LU *>(hit->second);
                    if (!sameId(*was, *lu)) {
                        lc.kind = DiskChange::Changed;
                        lc.oldId = luidHex(*was);
                        lc.newId = luidHex(*lu);
                        out.push_back(lc);
                    }
                }
            }
        }
    }
}

}  // namespace

std::string luidHex(const QMX_DISK_CONF_LU &lu) {
    static const char d[] = "0123456789abcdef";
    std::string s;
    if (lu.luid == nullptr) return s;
    s.reserve(2u * lu.valid_luid_byte);
    for (int i = 0; i < lu.valid_luid_byte; ++i) {
        s.push_back(d[lu.luid[i] >> 4]);
        s.push_back(d[lu.luid[i] & 15]);
    }
    return s;
}

std::vector<DiskChange> diffDiskConfig(const QMX_DISK_CONFIG &before, const QMX_DISK_CONFIG &after) {
    std::vector<DiskChange> out;
    Index old = indexOf(before);
    walk(after, old, DiskChange::Added, true, out);
    old = Index();
    walk(before, indexOf(after), DiskChange::Removed, false, out);
    return out;
}

}  // namespace qmxmgr
