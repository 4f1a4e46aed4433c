// LU priorities and path control: the configured path groups, attributes and
// LUN priority words kept as binding items of "/etc/qmxldd.conf", listed and
// edited through the binding tables (parse, edit, merge back).
//
// Values of untouched items: the binding writer formats the gt and attribute
// items from the records' numbers ("%d" and "0x%02x"), which the parser fills
// from every such item it reads, so a parse and rewrite never turns an
// existing gt or attribute value into an empty one.
#include "multipath/priority.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "frame/frame.h"
#include "multipath/binding.h"

int lu_list_max = 0;
char bind_data[40] = "";

namespace {

constexpr int kGroups = 64;
constexpr int kAdapters = 256;

uint64_t pairKey(int adapt, int target) {
    return (uint64_t(uint32_t(adapt)) << 32) | uint32_t(target);
}

bool isPriority(int kind) { return kind >= kBindPriority0 && kind < kBindPriority0 + 4; }

int recordCount() { return std::clamp(bind_cnt, 0, BINDMAX); }

// Removes the records `drop` selects in one pass: later records move forward,
// each one's snum (and a WWN record's psnum) lowered by the records removed
// before it, as if they had been removed one at a time.
template <class Drop>
int removeRecords(Drop drop) {
    int n = recordCount();
    int removed = 0, removedWwn = 0;
    for (int i = 0; i < n; ++i) {
        __TBLKEY &r = TBLKEY[i];
        if (drop(r)) {
            ++removed;
            if (r.npd == kBindWwpn || r.npd == kBindWwnn) ++removedWwn;
            continue;
        }
        if (removed == 0) continue;
        r.snum -= removed;
        if (r.npd == kBindWwpn || r.npd == kBindWwnn) r.psnum -= removed;
        TBLKEY[i - removed] = r;
    }
    bind_cnt = n - removed;
    pbind_cnt -= removedWwn;
    return removed;
}

// The kind-9 records whose group is 0..63, by group and then table order
// (a counting sort: linear in the table).
std::vector<int> groupRecordsByGroup() {
    int n = recordCount();
    std::array<int, kGroups + 1> start{};
    for (int i = 0; i < n; ++i) {
        const __TBLKEY &r = TBLKEY[i];
        if (r.npd == kBindGroup && r.group >= 0 && r.group < kGroups) ++start[r.group + 1];
    }
    for (int g = 0; g < kGroups; ++g) start[g + 1] += start[g];
    std::vector<int> order(static_cast<std::size_t>(start[kGroups]));
    std::array<int, kGroups> at{};
    std::copy(start.begin(), start.end() - 1, at.begin());
    for (int i = 0; i < n; ++i) {
        const __TBLKEY &r = TBLKEY[i];
        if (r.npd == kBindGroup && r.group >= 0 && r.group < kGroups) order[at[r.group]++] = i;
    }
    return order;
}

// Stores bind_data into one record of `kind`; false with the reason traced
// when the value is out of range for the kind.
bool storeValue(__TBLKEY &r, int kind, const char *rangeMsg) {
    qmx::copyText(r.bind, bind_data);
    uint64_t v = 0;
    qmx_convert_string(bind_data, &v);
    if (kind == kBindAttribute || kind == kBindGroup) {
        if (check_bindings(kind == kBindAttribute ? 3 : 2, int(v)) != 0) {
            qmx::setError(10);
            qmx::trace(rangeMsg);
            return false;
        }
        (kind == kBindAttribute ? r.attribute : r.group) = int32_t(v);
    } else if (isPriority(kind)) {
        r.priority[kind - kBindPriority0] = v;
    }
    return true;
}

// set_modify_manually with the records of that kind, adapter and target
// already known (nullptr: found by a scan of the table).  A record it
// appends is added to *matches.
int setModify(int kind, int adapt, int target, std::vector<int> *matches) {
    qmx::trace("set_modify_manually START");
    auto abend = [] {
        qmx::trace("set_modify_manually ABEND");
        return -1;
    };
    if (check_bindings(0, adapt) != 0 || check_bindings(1, target) != 0) {
        qmx::setError(10);
        qmx::trace(check_bindings(0, adapt) != 0 ? "check_bindings1" : "check_bindings2");
        return abend();
    }
    const char *changeMsg = kind == kBindGroup ? "check_bindings4" : "check_bindings3";
    bool found = false;
    auto edit = [&](int i) {
        found = true;
        return storeValue(TBLKEY[i], kind, changeMsg);
    };
    if (matches != nullptr) {
        for (int i : *matches)
            if (!edit(i)) return abend();
    } else {
        int n = recordCount();
        for (int i = 0; i < n; ++i) {
            const __TBLKEY &r = TBLKEY[i];
            if (r.adapt == adapt && r.target == target && r.npd == kind && !edit(i)) return abend();
        }
    }
    if (!found) {
        if (bind_cnt > BINDMAX - 1) {
            qmx::setError(10);
            qmx::trace("bind_cnt >= BINDMAX");
            return abend();
        }
        __TBLKEY &r = TBLKEY[bind_cnt];
        std::memset(&r, 0, sizeof r);
        r.adapt = adapt;
        r.target = target;
        r.npd = kind;
        if (kind == kBindWwpn || kind == kBindWwnn) {
            r.psnum = pbind_cnt + 1;
            ++pbind_cnt;
        }
        if (!storeValue(r, kind, kind == kBindGroup ? "check_bindings6" : "check_bindings5"))
            return abend();
        r.snum = bind_cnt + 1;
        if (matches != nullptr) matches->push_back(bind_cnt);
        ++bind_cnt;
    }
    qmx::trace("set_modify_manually END");
    return 0;
}

}  // namespace

int display_lu_priority(QMX_LU_PRIORITY *list) {
    qmx::trace("display_lu_priority START");
    if (read_qmxldd_conf() != 0) {
        qmx::trace("display_lu_priority ABEND");
        return -1;
    }
    // What a scan of the table for one target finds, gathered for every
    // target in one pass: the last attribute 0..2 and how many there are,
    // and the last word of each priority kind.
    struct Found {
        int attrCount = 0;
        int attr = 0;
        uint8_t words = 0;  // bit k: a priority word k was seen
        uint64_t word[4] = {0, 0, 0, 0};
    };
    int n = recordCount();
    std::unordered_map<uint64_t, Found> found;
    found.reserve(std::size_t(n / 4 + 1));
    for (int i = 0; i < n; ++i) {
        const __TBLKEY &r = TBLKEY[i];
        if (r.npd == kBindAttribute) {
            if (r.attribute < 0 || r.attribute > 2) continue;
            Found &f = found[pairKey(r.adapt, r.target)];
            f.attr = r.attribute;
            ++f.attrCount;
        } else if (isPriority(r.npd)) {
            Found &f = found[pairKey(r.adapt, r.target)];
            int k = r.npd - kBindPriority0;
            f.word[k] = r.priority[k];
            f.words |= uint8_t(1u << k);
        }
    }
    // The kind-9 records by group, adapter and table order: buckets of 64
    // groups by 256 adapters.
    std::vector<int> bucketStart(kGroups * kAdapters + 1, 0);
    auto bucket = [](const __TBLKEY &r) {
        return r.npd == kBindGroup && r.group >= 0 && r.group < kGroups && r.adapt >= 0 &&
                       r.adapt < kAdapters
                   ? r.group * kAdapters + r.adapt
                   : -1;
    };
    for (int i = 0; i < n; ++i)
        if (int b = bucket(TBLKEY[i]); b >= 0) ++bucketStart[std::size_t(b) + 1];
    for (std::size_t b = 0; b + 1 < bucketStart.size(); ++b) bucketStart[b + 1] += bucketStart[b];
    std::vector<int> order(static_cast<std::size_t>(bucketStart.back()));
    std::vector<int> at(bucketStart.begin(), bucketStart.end() - 1);
    for (int i = 0; i < n; ++i)
        if (int b = bucket(TBLKEY[i]); b >= 0) order[std::size_t(at[std::size_t(b)]++)] = i;

    // The attribute and the priority words are not cleared between targets:
    // a target without priority items shows the words of the one before.
    int attr = 0;
    uint64_t words[4] = {0, 0, 0, 0};
    int index = 0;
    for (int i : order) {
        const __TBLKEY &r = TBLKEY[i];
        int count = 0;
        if (auto it = found.find(pairKey(r.adapt, r.target)); it != found.end()) {
            const Found &f = it->second;
            for (int k = 0; k < 4; ++k)
                if (f.words & (1u << k)) words[k] = f.word[k];
            if (f.attrCount > 0) attr = f.attr;
            count = f.attrCount;
        }
        if (count == 0) continue;
        // The caller's array holds lu_list_max entries: never write past it.
        if (list != nullptr && index < lu_list_max) {
            QMX_LU_PRIORITY &e = list[index];
            e.group = r.group;
            e.adapter = r.adapt;
            e.target = r.target;
            e.attribute = attr == 2 ? 3 : attr;  // "Unconfigured " is reported as 3
            char *texts[4] = {e.priority1, e.priority2, e.priority3, e.priority4};
            for (int k = 0; k < 4; ++k)
                std::snprintf(texts[k], sizeof e.priority1, "%016llx",
                              static_cast<unsigned long long>(words[k]));
        }
        ++index;
    }
    // Only the count call sets the bound: the caller sized its array from
    // that count, whatever a later fill finds in a file that has grown.
    if (list == nullptr) lu_list_max = index;
    qmx::trace("display_lu_priority END");
    return index;
}

int delete_select_bind(int kind, int adapt, int target) {
    if (check_bindings(0, adapt) != 0 || check_bindings(1, target) != 0) {
        qmx::setError(10);
        return -1;
    }
    bool done = false;
    return removeRecords([&](const __TBLKEY &r) {
        if (done || r.npd != kind || r.adapt != adapt || r.target != target) return false;
        return done = true;
    });
}

int release_multipath_by_group(int group) {
    qmx::trace("release_multipath_by_group START");
    auto abend = [] {
        qmx::setError(10);
        qmx::trace("release_multipath_by_group ABEND");
        return -1;
    };
    if (check_bindings(2, group) != 0) return abend();
    int n = recordCount();
    std::unordered_set<uint64_t> released;
    for (int i = 0; i < n; ++i) {
        const __TBLKEY &r = TBLKEY[i];
        if (r.npd == kBindGroup && r.group == group) released.insert(pairKey(r.adapt, r.target));
    }
    if (released.empty()) {
        qmx::setError(10);
        qmx::trace("!n");
        qmx::trace("release_multipath_by_group ABEND");
        return -1;
    }
    for (int i = 0; i < n; ++i) {
        __TBLKEY &r = TBLKEY[i];
        if (r.npd == kBindAttribute && released.count(pairKey(r.adapt, r.target)) != 0)
            r.attribute = 3;
    }
    // Every priority record of a released target goes; one whose adapter
    // or target is out of range stays (code 10), as one removal would.
    removeRecords([&](const __TBLKEY &r) {
        if (!isPriority(r.npd) || released.count(pairKey(r.adapt, r.target)) == 0) return false;
        if (check_bindings(0, r.adapt) != 0 || check_bindings(1, r.target) != 0) {
            qmx::setError(10);
            return false;
        }
        return true;
    });
    // Renumber: groups close up in order; each target of the released group
    // becomes a group of its own.
    std::vector<int> order = groupRecordsByGroup();
    std::vector<int> old(order.size());
    for (std::size_t j = 0; j < order.size(); ++j) old[j] = TBLKEY[order[j]].group;
    int counter = 0;
    for (std::size_t j = 0; j < order.size(); ++j) {
        TBLKEY[order[j]].group = counter;
        bool last = j + 1 == order.size();
        if (old[j] == group || last || old[j + 1] != old[j]) {
            ++counter;
            if (counter > kGroups) std::printf("<error>  group number overflow ( %d )\n", counter - 1);
        }
    }
    qmx::trace("release_multipath_by_group END");
    return 0;
}

int set_modify_manually(int kind, int adapt, int target) {
    return setModify(kind, adapt, target, nullptr);
}

void change_path_attribute(int adapter, int target) {
    qmx::trace("change_path_attribute START");
    int n = recordCount();
    // The attribute records of every target, in table order.
    std::unordered_map<uint64_t, std::vector<int>> attrs;
    for (int i = 0; i < n; ++i)
        if (TBLKEY[i].npd == kBindAttribute)
            attrs[pairKey(TBLKEY[i].adapt, TBLKEY[i].target)].push_back(i);
    auto named = attrs.find(pairKey(adapter, target));
    int groupOf = -1;
    if (named != attrs.end()) {
        for (int i = 0; i < n; ++i) {
            const __TBLKEY &r = TBLKEY[i];
            if (r.npd == kBindGroup && r.adapt == adapter && r.target == target) {
                groupOf = i;
                break;
            }
        }
    }
    if (groupOf < 0 || TBLKEY[named->second.front()].attribute != 1) {
        qmx::trace("change_path_attribute END");
        return;
    }
    int g = TBLKEY[groupOf].group;
    std::snprintf(bind_data, sizeof bind_data, "%d", 0);
    setModify(kBindAttribute, adapter, target, &named->second);
    std::snprintf(bind_data, sizeof bind_data, "%d", 1);
    for (int i = 0; i < n; ++i) {
        const __TBLKEY r = TBLKEY[i];
        if (r.npd != kBindGroup || r.group != g || (r.adapt == adapter && r.target == target))
            continue;
        setModify(kBindAttribute, r.adapt, r.target, &attrs[pairKey(r.adapt, r.target)]);
    }
    qmx::trace("change_path_attribute END");
}

void modify_priority_by_lun(int adapter, int target, int lun, int priority) {
    int k = lun < 64 ? 0 : lun < 128 ? 1 : lun < 192 ? 2 : 3;
    // LUNs above 255 fold onto the bits of word 3.
    int bit = k < 3 ? lun - 64 * k : (lun - 192) % 64;
    uint64_t mask = uint64_t(0x8000000000000000ULL) >> bit;
    int kind = kBindPriority0 + k;
    int n = recordCount();
    bool found = false;
    for (int i = 0; i < n; ++i) {
        __TBLKEY &r = TBLKEY[i];
        if (r.adapt != adapter || r.target != target || r.npd != kind) continue;
        found = true;
        r.priority[k] = priority == 1 ? r.priority[k] | mask : r.priority[k] & ~mask;
    }
    if (found) return;
    if (n >= BINDMAX) {
        qmx::setError(10);
        qmx::trace("bind_cnt >= BINDMAX");
        return;
    }
    __TBLKEY &r = TBLKEY[n];
    std::memset(&r, 0, sizeof r);
    r.adapt = adapter;
    r.target = target;
    r.npd = kind;
    r.priority[k] = priority == 1 ? mask : 0;
    bind_cnt = n + 1;
}

// ---------------------------------------------------------------------------
// Exported calls.  None takes the lock, although the edits rewrite the file.
// ---------------------------------------------------------------------------
namespace {

// Every call starts from empty tables.
void clearAll() { qmx::binding::clearTables(); }

bool parsed(qmx::Frame &f) {
    if (read_qmxldd_conf() == 0) return true;
    qmx::trace("read_qmxldd_conf is errend");
    f.fail();
    return false;
}

}  // namespace

int QMX_GetLUPriorityCnt(void) {
    int count = -1;
    qmx::run("QMX_GetLUPriorityCnt", [&](qmx::Frame &f) {
        clearAll();
        lu_list_max = 0;
        count = display_lu_priority(nullptr);
        if (count == -1) {
            qmx::trace("display_lu_priority is errend");
            return f.fail();
        }
        return f.ok();
    });
    return count;
}

QMX_STATUS QMX_GetLUPriority(QMX_LU_PRIORITY *lu_priority) {
    return qmx::run("QMX_GetLUPriority", [&](qmx::Frame &f) {
        clearAll();
        if (!f.notNull(lu_priority, "lu_priority", " == NULL")) return f.fail();
        if (lu_list_max > 0) std::memset(lu_priority, 0, sizeof *lu_priority * std::size_t(lu_list_max));
        if (display_lu_priority(lu_priority) < 0) {
            qmx::trace("display_lu_priority is errend");
            return f.fail();
        }
        return f.ok();
    });
}

QMX_STATUS QMX_SetLUPriority(int adap_no, int target_no, int lun, int priority) {
    return qmx::run("QMX_SetLUPriority", [&](qmx::Frame &f) {
        if (check_bindings(0, adap_no) != 0) return f.invalid("adap_no");
        if (check_bindings(1, target_no) != 0) return f.invalid("target_no");
        if (lun < 0 || (lun & 0x3FFF) >= 2048) return f.invalid("lun");
        if (priority != 0 && priority != 1) return f.invalid("priority");
        clearAll();
        if (!parsed(f)) return f.status();
        modify_priority_by_lun(adap_no, target_no, lun, priority);
        (void)QMX_WriteBindInfo();
        return f.ok();
    });
}

QMX_STATUS QMX_ReleasePathControl(int group) {
    return qmx::run("QMX_ReleasePathControl", [&](qmx::Frame &f) {
        if (group < 0) return f.invalid("group < 0", "");
        clearAll();
        if (!parsed(f)) return f.status();
        (void)release_multipath_by_group(group);
        (void)QMX_WriteBindInfo();
        return f.ok();
    });
}

QMX_STATUS QMX_ChangePathAttribute(int adapter, int target) {
    return qmx::run("QMX_ChangePathAttribute", [&](qmx::Frame &f) {
        if (adapter < 0) return f.invalid("adapter < 0", "");
        if (target < 0) return f.invalid("target < 0", "");
        clearAll();
        if (!parsed(f)) return f.status();
        int n = recordCount();
        bool known = false;
        for (int i = 0; i < n && !known; ++i)
            known = TBLKEY[i].adapt == adapter && TBLKEY[i].target == target;
        if (!known) return f.invalid("Unknown number", "");
        // The second parse starts from empty tables too: the parser appends
        // adapter records, and a rewrite must not carry every one twice.
        clearAll();
        if (!parsed(f)) return f.status();
        change_path_attribute(adapter, target);
        (void)QMX_WriteBindInfo();
        return f.ok();
    });
}
