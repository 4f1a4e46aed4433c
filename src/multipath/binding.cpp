// Persistent binding: the parser of the binding items of "/etc/qmxldd.conf"
// into the binding tables, the collector of the driver's target maps, the
// merge of the tables back into the file, and the exported binding calls.
#include "multipath/binding.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bios/bios.h"
#include "config/config.h"
#include "frame/fileio.h"
#include "frame/frame.h"

namespace {

using std::string_view;

constexpr const char *kConfPath = "/etc/qmxldd.conf";
constexpr const char *kRestPath = "/tmp/conf_modules4.hba";
constexpr const char *kAutoTmp1 = "/tmp/conf_modules1.hba";
constexpr const char *kAutoTmp2 = "/tmp/conf_modules2.hba";
constexpr const char *kModprobe = "/etc/modprobe.d/qmxldd_param.conf";
constexpr int kBindValueChars = 18;  // "0x" and 16 hex digits

using FilePtr = std::unique_ptr<FILE, qmx::FileCloser>;

// Characters from..to (inclusive) of s, clipped to s; empty when to < from.
string_view span(string_view s, long from, long to) {
    if (from < 0) from = 0;
    if (to >= long(s.size())) to = long(s.size()) - 1;
    if (to < from) return {};
    return s.substr(std::size_t(from), std::size_t(to - from + 1));
}

// Index of c in s at or after `from` (a negative from searches from 0), -1 if none.
long findFrom(string_view s, char c, long from) {
    std::size_t at = s.find(c, from < 0 ? 0 : std::size_t(from));
    return at == string_view::npos ? -1 : long(at);
}

uint64_t hexValue(string_view tail) {
    // tail is the end of a NUL-terminated item, so it can be handed on as is.
    uint64_t v = 0;
    qmx_convert_string(const_cast<char *>(tail.data()), &v);
    return v;
}

// The next free binding record, or nullptr when the table is full.  The
// collector starts each record from zero bytes: a record it enters then never
// carries the bind text or WWN of what an earlier pass left in that slot
// (the writer would otherwise write a stale value for a gt or attribute key).
__TBLKEY *enterRecord() noexcept {
    if (bind_cnt < 0 || bind_cnt >= BINDMAX) return nullptr;
    __TBLKEY &r = TBLKEY[bind_cnt];
    std::memset(&r, 0, sizeof r);
    r.snum = bind_cnt + 1;
    ++bind_cnt;
    return &r;
}

}  // namespace

// ---------------------------------------------------------------------------
// Small helpers.
// ---------------------------------------------------------------------------
int check_bindings(int mode, int val) {
    switch (mode) {
        case 0:
        case 1:
            return val >= 0 && val <= 255 ? 0 : -1;
        case 2:
            return val >= 0 && val <= 63 ? 0 : -1;
        case 3:
            return val >= 0 && val <= 3 ? 0 : -1;
        case 4:
            return val >= 0 && (val & 0x7FFF) <= 2047 ? 0 : -1;
        default:
            return -1;
    }
}

int substr(char *dst, char *src, int from, int to) {
    if (dst == nullptr) return 0;
    dst[0] = '\0';
    if (src == nullptr) return 0;
    string_view part = span(string_view(src), from, to);
    if (!part.empty()) std::memcpy(dst, part.data(), part.size());
    dst[part.size()] = '\0';
    return int(part.size());
}

int indx(char *str, char *c) {
    if (str == nullptr || c == nullptr) return -1;
    const char *at = std::strchr(str, *c);
    return at == nullptr || *c == '\0' ? -1 : int(at - str);
}

// ---------------------------------------------------------------------------
// Parser.
// ---------------------------------------------------------------------------
int make_qmxldd_table_bind(char *ttp) {
    if (ttp == nullptr) return 0;
    string_view s(ttp);
    auto overflow = [] {
        qmx::setError(10);
        qmx::trace("make_qmxldd_table_bind ABEND");
        return -1;
    };
    long p1 = findFrom(s, '-', 0);
    char after = std::size_t(p1 + 1) < s.size() ? s[std::size_t(p1 + 1)] : '\0';
    // Only a "qmxl" item is an adapter key: another item with a "-w" in it
    // (a "scsi-w..." key) must not bind adapter 0 to its value.
    if (after == 'w' && s.starts_with("qmxl")) {
        if (wwpn_cnt >= 0 && wwpn_cnt < HADAPTMAX) {
            __WWPN &w = WWPN[wwpn_cnt];
            w.adapt = qmx::atoiText(span(s, 4, p1 - 1));
            long eq = findFrom(s, '=', 0);
            std::memset(w.bind, 0, sizeof w.bind);
            string_view v = span(s, eq + 1, eq + kBindValueChars);
            if (!v.empty()) std::memcpy(w.bind, v.data(), v.size());
            w.use_flg = 1;
            ++wwpn_cnt;
            return 0;
        }
        qmx::trace("wwpn_cnt >= HADAPTMAX");
        return overflow();
    }
    if (!s.starts_with("qmxl")) return 0;
    if (bind_cnt < 0 || bind_cnt >= BINDMAX) {
        qmx::trace("bind_cnt >= BINDMAX");
        return overflow();
    }
    long p2 = findFrom(s, '-', p1 + 1);
    long p3 = findFrom(s, '-', p2 + 1);
    long pe = findFrom(s, '=', p2 + 1);
    // The slot keeps what it held for the fields this item does not set.
    __TBLKEY &r = TBLKEY[bind_cnt];
    r.adapt = qmx::atoiText(span(s, 4, p1 - 1));
    r.target = qmx::atoiText(span(s, p2 + 1, p3 - 1));
    // The range checks' results are not acted on: out-of-range numbers are
    // entered as they stand.
    (void)check_bindings(0, r.adapt);
    (void)check_bindings(1, r.target);
    string_view word = span(s, p3 + 1, pe - 1);
    string_view value = pe + 1 <= long(s.size()) ? s.substr(std::size_t(pe + 1)) : string_view();
    if (word == "wwnn" || word == "wwpn") {
        r.wwn = hexValue(value);
        r.npd = word == "wwpn" ? kBindWwpn : kBindWwnn;
        r.psnum = pbind_cnt + 1;
        r.snum = bind_cnt + 1;
        ++pbind_cnt;
        std::memset(r.bind, 0, sizeof r.bind);
        string_view v = value.substr(0, kBindValueChars);
        if (!v.empty()) std::memcpy(r.bind, v.data(), v.size());
    } else if (word == "attribute") {
        r.attribute = int32_t(hexValue(value));
        (void)check_bindings(3, r.attribute);
        r.npd = kBindAttribute;
        r.snum = bind_cnt + 1;
    } else if (word.size() == 9 && word.starts_with("priority") && word[8] >= '0' &&
               word[8] <= '3') {
        int k = word[8] - '0';
        r.priority[k] = hexValue(value);
        r.npd = kBindPriority0 + k;
        r.snum = bind_cnt + 1;
    } else if (word == "gt") {
        r.group = int32_t(hexValue(value));
        (void)check_bindings(2, r.group);
        r.npd = kBindGroup;
        r.snum = bind_cnt + 1;
    }
    ++bind_cnt;
    return 0;
}

int make_qmxldd_table(char *tp) {
    if (tp == nullptr) return 0;
    std::size_t len = std::strlen(tp);
    if (std::strchr(tp, '\\') == nullptr && len > 0 && tp[len - 1] == '\n') tp[--len] = '\0';
    if (std::strstr(tp, "qmx") == nullptr) return 0;
    char *save = nullptr;
    for (char *part = strtok_r(tp, ":", &save); part != nullptr;
         part = strtok_r(nullptr, ":", &save)) {
        if (make_qmxldd_table_bind(part) == -1) {
            qmx::trace("make_qmxldd_table ABEND");
            return -1;
        }
    }
    return 0;
}

namespace qmx::binding {

void resetForCollect() noexcept {
    for (__WWPN &w : WWPN) {
        w.use_flg = 0;
        w.adapt = -1;
    }
    bind_cnt = 0;
    pbind_cnt = 0;
    wwpn_cnt = 0;
}

void clearTables() noexcept {
    std::memset(WWPN, 0, sizeof WWPN);
    wwpn_cnt = 0;
    std::memset(TBLKEY, 0, sizeof TBLKEY);
    bind_cnt = 0;
    pbind_cnt = 0;
}

namespace {

// Parses the lines of `in`.  A line is read whole, however long: the file
// the writer makes is one line of all items, and an item cut in two by a
// short read buffer would be entered as two wrong records.
int parseLines(FILE *in, FILE *rest) noexcept {
    enum { Outside, Continued, Ended } state = Outside;
    char *line = nullptr;
    std::size_t cap = 0;
    ssize_t got;
    int rc = 0;
    while ((got = getline(&line, &cap, in)) > 0) {
        string_view l(line, std::size_t(got));
        bool parse = state == Continued || l.find("qmx") != string_view::npos;
        if (!parse) {
            if (state == Ended && rest != nullptr) std::fwrite(line, 1, std::size_t(got), rest);
            continue;
        }
        bool backslash = l.find('\\') != string_view::npos;
        // The pieces are taken from the text up to an embedded NUL.
        char *save = nullptr;
        for (char *piece = strtok_r(line, " \t", &save); piece != nullptr;
             piece = strtok_r(nullptr, " \t", &save)) {
            if (make_qmxldd_table(piece) == -1) {
                rc = -1;
                break;
            }
        }
        if (rc != 0) break;
        if (state != Ended) state = backslash ? Continued : Ended;
    }
    std::free(line);
    return rc;
}

}  // namespace

int readConf(const char *conf, const char *restPath) noexcept {
    bind_cnt = 0;
    pbind_cnt = 0;
    trace("read_qmxldd_conf START");
    ConfReadGuard guard;  // held while the file is read
    if (!guard.acquire(conf)) {
        sysError(guard.error().call, guard.error().err);
        return -1;
    }
    FilePtr in(guard.open(conf));
    if (!in) {
        sysError("fopen1", errno);
        return -1;
    }
    FilePtr rest;
    if (restPath != nullptr) {
        // A link, a hard link or another user's file planted at the
        // scratch name is refused.
        qmx::FileError fe;
        rest.reset(qmx::openScratch(restPath, qmx::ScratchMode::Write, &fe));
        if (!rest) {
            sysError("fopen2", fe.err);
            return -1;
        }
    }
    struct stat st;
    if (fstat(fileno(in.get()), &st) == 0 && st.st_size > kMaxConfBytes) {
        // Far beyond any file the writer makes: refused before reading.
        trace("qmxldd.conf is too large");
        setError(9);
        trace("read_qmxldd_conf ABEND");
        return -1;
    }
    if (parseLines(in.get(), rest.get()) != 0) {
        trace("read_qmxldd_conf ABEND");
        return -1;
    }
    // A read error is not the end of the file: tables built from part of
    // it would be written back as the whole.
    if (std::ferror(in.get())) {
        sysError("read", errno != 0 ? errno : EIO);
        trace("read_qmxldd_conf ABEND");
        return -1;
    }
    trace("read_qmxldd_conf END");
    return 0;
}

int parseText(const char *data, std::size_t len) noexcept {
    bind_cnt = 0;
    pbind_cnt = 0;
    FilePtr in(fmemopen(const_cast<char *>(data), len, "r"));
    if (!in) return -1;
    return parseLines(in.get(), nullptr);
}

void collectAll(int type, QMX_PERSISTENTBINDING *b_inf) noexcept {
    char path[32];
    struct stat st;
    for (int n = 0; n < HADAPTMAX; ++n) {
        std::snprintf(path, sizeof path, "/dev/qmxldd%d", n);
        if (stat(path, &st) == 0) (void)QMX_adap_current_conf(path, type, b_inf);
    }
}

}  // namespace qmx::binding

int read_qmxldd_conf(void) { return qmx::binding::readConf(kConfPath, kRestPath); }

// ---------------------------------------------------------------------------
// Collector.
// ---------------------------------------------------------------------------
namespace {

constexpr uint32_t kTargetCap = QMX_MP_TGTMAP_MAX;
constexpr uint32_t kLuCap = QMX_MP_LUMAP_MAX;

// The priority words of one LU map: the bit of LUN L (0..255) is set when an
// entry of the map has priority and lun & 0x3FFF equal to L.  Every entry of
// the buffer is looked at, also those past the driver's count (they hold
// what an earlier target's map left there).  One pass over the entries.
void priorityWords(const unsigned char *lubuf, uint64_t words[4]) {
    words[0] = words[1] = words[2] = words[3] = 0;
    const auto *e = reinterpret_cast<const mp_lu_entry *>(lubuf + sizeof(mp_lu_header));
    for (uint32_t j = 0; j < kLuCap; ++j) {
        if (e[j].priority == 0) continue;
        uint32_t v = e[j].lun & 0x3FFF;
        if (v < 256) words[v >> 6] |= uint64_t(0x8000000000000000ULL) >> (v & 63);
    }
}

}  // namespace

int QMX_adap_current_conf(char *device, int type, QMX_PERSISTENTBINDING *b_inf) {
    qmx::trace("QMX_adap_current_conf START");
    auto abend = [] { qmx::trace("QMX_adap_current_conf ABEND"); };
    qmx_ioctl_proc_info info{};
    // Without its information record the adapter's number and WWPN are not
    // known: its targets would be written under adapter 0.  The adapter is
    // skipped, its failure logged (code 1) like any other of one adapter.
    if (QMX_read_proc_info(device, &info) != 0) {
        abend();
        return -1;
    }
    std::unique_ptr<unsigned char[]> tbuf(new (std::nothrow)
                                              unsigned char[QMX_MP_TARGET_SIZE(kTargetCap)]());
    std::unique_ptr<unsigned char[]> lbuf(new (std::nothrow)
                                              unsigned char[QMX_MP_LU_SIZE(kLuCap)]());
    if (!tbuf || !lbuf) {
        qmx::sysError("malloc", ENOMEM);
        abend();
        return -1;
    }
    auto *tgt = reinterpret_cast<qmx_mp_target *>(tbuf.get());
    tgt->header.entry_count = kTargetCap;
    tgt->header.target_count = kTargetCap;
    int fd = device == nullptr ? -1 : open(device, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        qmx::sysError("open", errno);
        abend();
        return -1;
    }
    qmx_mp_parameters mp{};
    if (ioctl(fd, IOCTL_QMX_MP_TGTMAP, tgt) != 0) {
        qmx::sysError("ioctl IOCTL_QMX_MP_TGTMAP", errno);
        abend();
    } else if (ioctl(fd, IOCTL_QMX_MP_RDPARM, &mp) != 0) {
        qmx::sysError("ioctl IOCTL_QMX_MP_RDPARM", errno);
        abend();
    } else {
        if (wwpn_cnt >= 0 && wwpn_cnt < HADAPTMAX) {
            __WWPN &w = WWPN[wwpn_cnt];
            w.adapt = info.instance;
            std::snprintf(w.bind, sizeof w.bind, "0x%llx",
                          static_cast<unsigned long long>(info.ww_name));
            w.use_flg = 1;
            ++wwpn_cnt;
        }
        qmx::trace("Get Bind Infomation");
        hba *slot = nullptr;
        if (b_inf != nullptr) {
            qmx::trace("b_inf != NULL");
            const char *at = std::strstr(device, "qmxldd");
            if (at != nullptr) {
                int n = qmx::atoiText(at + 6);
                if (n >= 0 && n < QMX_BIND_ADAPTERS) slot = &b_inf->hba_info[n];
            }
            if (slot != nullptr) {
                slot->adap_number = info.instance;
                getWWN(info.ww_name, &slot->hba_wwn);
            }
        }
        bool multipath = mp.qmxmp == 1 && (type == 1 || type == 3);
        bool lumap = true;  // false once an LU-map request failed: the buffer is dropped
        bool full = false;
        // The driver's count is bounded by the room the request offered.
        uint32_t count = std::min<uint32_t>(tgt->header.target_count, kTargetCap);
        auto *lu = reinterpret_cast<mp_lu_header *>(lbuf.get());
        auto enter = [&](int kind) -> __TBLKEY * {
            __TBLKEY *r = enterRecord();
            if (r == nullptr) {
                // The table holds BINDMAX records; the rest of the map is
                // not entered (the adapter's slots are still filled).
                if (!full) qmx::trace("bind_cnt >= BINDMAX");
                full = true;
                qmx::setError(10);
                return nullptr;
            }
            r->npd = kind;
            r->adapt = info.instance;
            return r;
        };
        for (uint32_t i = 0; i < count; ++i) {
            mp_target_entry e;
            std::memcpy(&e, &tgt->entry[i], sizeof e);
            lu->nodename = e.nodename;
            lu->portname = e.portname;
            lu->groupid = e.groupid;
            if (multipath && lumap && ioctl(fd, IOCTL_QMX_MP_LUMAP, lbuf.get()) != 0) {
                qmx::sysError("ioctl IOCTL_QMX_MP_LUMAP", errno);
                lumap = false;
            }
            if ((e.flags & 0x03) != 0x03) {
                qmx::trace("(tgtmap->entry[i].flags & 0x03) != 0x03");
                qmx::setError(10);
                break;
            }
            // target_info holds 256 entries; a longer map fills only those.
            target *ti = slot != nullptr && i < QMX_BIND_TARGETS ? &slot->target_info[i] : nullptr;
            const uint64_t names[2] = {e.portname, e.nodename};
            for (int k = 0; k < 2; ++k) {
                if (__TBLKEY *r = enter(k == 0 ? kBindWwpn : kBindWwnn)) {
                    r->target = e.targetid;
                    r->psnum = pbind_cnt + 1;
                    ++pbind_cnt;
                    std::snprintf(r->bind, sizeof r->bind, "0x%llx",
                                  static_cast<unsigned long long>(names[k]));
                }
                if (ti != nullptr) getWWN(names[k], k == 0 ? &ti->port_wwn : &ti->node_wwn);
            }
            if (!multipath) continue;
            if (__TBLKEY *r = enter(kBindGroup)) {
                r->target = e.targetid;
                r->group = e.groupid;
            }
            if (__TBLKEY *r = enter(kBindAttribute)) {
                r->target = e.targetid;
                r->attribute = e.attribute;
            }
            if (ti != nullptr) {
                ti->group = e.groupid;
                ti->attribute = e.attribute;
            }
            if (e.attribute == 3 || !lumap) continue;
            uint64_t words[4];
            priorityWords(lbuf.get(), words);
            for (int k = 0; k < 4; ++k) {
                if (__TBLKEY *r = enter(kBindPriority0 + k)) {
                    r->target = e.targetid;
                    r->priority[k] = words[k];
                }
                if (ti != nullptr) ti->priority[k] = words[k];
            }
        }
    }
    close(fd);
    qmx::trace("QMX_adap_current_conf END");
    return 0;
}

// ---------------------------------------------------------------------------
// Merge of the tables into the configuration file.
// ---------------------------------------------------------------------------
namespace {

// Keeps the texts the merge gives its items: blocks that never move, so the
// items' views stay valid while more texts are kept.
class TextStore {
public:
    string_view keep(string_view s) {
        if (s.empty()) return {};
        if (s.size() > left_) {
            std::size_t size = std::max(kBlock, s.size());
            blocks_.emplace_back(new char[size]);
            at_ = blocks_.back().get();
            left_ = size;
        }
        std::memcpy(at_, s.data(), s.size());
        string_view kept(at_, s.size());
        at_ += s.size();
        left_ -= s.size();
        return kept;
    }

private:
    static constexpr std::size_t kBlock = std::size_t(1) << 16;
    std::vector<std::unique_ptr<char[]>> blocks_;
    char *at_ = nullptr;
    std::size_t left_ = 0;
};

// The items of a list by key: the first item of a key is found without a
// scan (open addressing over the item indexes, each slot with its key's
// hash).
class KeyIndex {
public:
    explicit KeyIndex(const qmx::ConfItems &items) : items_(items) {}
    // The first item with the key, or -1.
    // The index is built at the first lookup that needs it: a first key that
    // is in no item is found missing by one scan (a merge that fails at its
    // first new record never pays for the index).
    int first(string_view key) {
        if (slots_.empty()) {
            if (!probed_) {
                probed_ = true;
                bool any = false;
                for (const qmx::ConfItem &p : items_)
                    if (p.key == key) {
                        any = true;
                        break;
                    }
                if (!any) return -1;
            }
            build();
        }
        return slots_[slotOf(key, hashOf(key))].first;
    }
    // An item with the key (not always the first), or -1; the item at
    // `guess` is tried before the table.  Records mostly come in the file's
    // order, so the guess (the item after the last one found) spares the
    // table's lookup, and its building while every guess holds.
    int anyNear(string_view key, int guess) {
        if (guess >= 0 && std::size_t(guess) < items_.size() && items_[std::size_t(guess)].key == key)
            return guess;
        return first(key);
    }

private:
    void build() {
        const qmx::ConfItems &items = items_;
        std::size_t cap = 16;
        while (cap < items.size() * 2) cap <<= 1;
        slots_.assign(cap, Slot{});
        hashes_.resize(items.size());
        // The hashes first, so that the slot of an item some places ahead
        // can be fetched from memory while the current one is placed: a
        // large table is mostly cache misses.
        const int n = int(items.size());
        for (int i = 0; i < n; ++i) hashes_[std::size_t(i)] = hashOf(items[std::size_t(i)].key);
        const std::size_t mask = slots_.size() - 1;
        constexpr int kAhead = 16;
        // From the last item to the first: a key's slot ends up with the
        // key's first item.
        for (int i = n - 1; i >= 0; --i) {
            if (i >= kAhead) __builtin_prefetch(&slots_[hashes_[std::size_t(i - kAhead)] & mask]);
            string_view key = items[std::size_t(i)].key;
            uint32_t hash = hashes_[std::size_t(i)];
            slots_[slotOf(key, hash)] = Slot{hash, i};
        }
    }
    struct Slot {
        uint32_t hash = 0;
        int first = -1;
    };
    static uint32_t hashOf(string_view key) { return uint32_t(std::hash<string_view>{}(key)); }
    std::size_t slotOf(string_view key, uint32_t hash) const {
        std::size_t mask = slots_.size() - 1;
        std::size_t at = hash & mask;
        while (slots_[at].first >= 0 &&
               (slots_[at].hash != hash || items_[std::size_t(slots_[at].first)].key != key))
            at = (at + 1) & mask;
        return at;
    }
    const qmx::ConfItems &items_;
    bool probed_ = false;
    std::vector<Slot, qmx::BigAllocator<Slot>> slots_;
    std::vector<uint32_t, qmx::BigAllocator<uint32_t>> hashes_;
};

}  // namespace

int QMX_WriteBindInfo(void) {
    qmx::trace("QMX_WriteBindInfo START");
    auto abend = [] {
        qmx::trace("QMX_WriteBindInfo ABEND");
        return -1;
    };
    int records = std::clamp(bind_cnt, 0, BINDMAX);
    // A key list field holds 262 key and 127 value characters.
    constexpr std::size_t kKeyRoom = sizeof(util_para::keyword) - 1;
    constexpr std::size_t kValueRoom = sizeof(util_para::value) - 1;
    char keyText[kBindingTextMax], valueText[kBindingTextMax];
    // The first record's key is looked for while the file is read (the key
    // list reader's trace lines, codes and count), before any item view is
    // made: a merge whose first record is new to a file already past the
    // writer's bound is refused without them.
    string_view firstKey;
    if (records > 0) {
        BindingTextWriter w;
        if (const char *end = w.key(keyText, TBLKEY[0]))
            firstKey = string_view(keyText, std::size_t(end - keyText)).substr(0, kKeyRoom);
    }
    qmx::ConfText conf;
    int firstHit = -1;
    int n = qmx::probeConfItems(kConfPath, kConfPath, firstKey, conf, &firstHit);
    if (n < 0) return abend();
    qmx::ConfItems &items = conf.items;
    // The writer refuses new items once the file's size plus theirs passes
    // its bound, before it reads anything else, so gathering stops at the
    // first new item past the bound: the writer's outcome (code 14) is the
    // same and a file far over the bound fails at once.
    struct stat st;
    long sizeSum = stat(kConfPath, &st) == 0 ? long(st.st_size) + 1 : 0;
    try {
        KeyIndex index(items);
        // Room for about as many new items as the bound leaves (a binding
        // item takes some 15 bytes or more; the list grows past that), not
        // one per record: a file near or past the bound takes few before the
        // writer refuses.
        qmx::ConfItems added;
        added.reserve(std::size_t(std::min(long(records), std::max((qmx::kConfSizeLimit - sizeSum) / 16 + 1, 1L))));
        TextStore texts;
        BindingTextWriter keyWriter;
        string_view k;
        uint64_t word = 0;
        int guess = 0;
        for (int r = 0; r < records; ++r) {
            const __TBLKEY &t = TBLKEY[r];
            // A record of kind 10 or above (or of a kind without a key)
            // reuses the key text and the word of the record before it.
            bool prio = t.npd >= kBindPriority0 && t.npd < kBindPriority0 + 4;
            if (const char *end = keyWriter.key(keyText, t)) {
                k = string_view(keyText, std::size_t(end - keyText)).substr(0, kKeyRoom);
                if (prio) word = t.priority[t.npd - kBindPriority0];
            }
            // A record whose key the file holds changes nothing that the
            // rewrite keeps: every record's key is a binding key, and the
            // rewrite drops the file's binding items for the tables' own
            // (remake_bind_data 1).  Only new records are gathered, for the
            // writer's size bound.
            int hit;
            if (r == 0) {
                hit = firstHit;
            } else {
                if (!qmx::gatherConfItems(conf)) throw std::bad_alloc();
                hit = index.anyNear(k, guess);
            }
            if (hit >= 0) {
                guess = hit + 1;
                continue;
            }
            string_view v;
            if (prio || (t.npd >= 10 && t.npd <= 13))
                v = string_view(valueText, std::size_t(hexText(valueText, word, 16) - valueText));
            else
                v = string_view(t.bind, strnlen(t.bind, sizeof t.bind));
            v = v.substr(0, kValueRoom);
            qmx::ConfItem &p = added.emplace_back();
            p.key = texts.keep(k);
            p.value = texts.keep(v);
            sizeSum += long(p.key.size() + 1 + p.value.size());
            if (sizeSum > qmx::kConfSizeLimit) break;
        }
        if (qmx::makeConfFileFromRead(qmx::kSystemStore, conf, n, added.data(), int(added.size()), 1) != 0)
            return abend();
    } catch (const std::bad_alloc &) {
        qmx::sysError("malloc", ENOMEM);
        return abend();
    }
    qmx::trace("QMX_WriteBindInfo END");
    return 0;
}

// ---------------------------------------------------------------------------
// Exported binding calls.
// ---------------------------------------------------------------------------
QMX_STATUS QMX_AutoSetPersistentBinding(QMX_PERSISTENTBINDING *bind_information) {
    return qmx::run("QMX_AutoSetPersistentBinding", [&](qmx::Frame &f) {
        if (!f.lock()) return f.status();
        if (!f.notNull(bind_information, "bind_information", " == NULL")) return f.fail();
        qmx::binding::resetForCollect();
        std::memset(bind_information, 0xFF, sizeof *bind_information);
        qmx::binding::collectAll(3, bind_information);
        return QMX_WriteBindInfo() == 0 ? f.ok() : f.fail();
    });
}

QMX_STATUS QMX_DeletePersistentBinding(void) {
    return qmx::run("QMX_DeletePersistentBinding", [&](qmx::Frame &f) {
        if (!f.lock()) return f.status();
        qmx::ConfText conf;
        int n = qmx::readConfItems(kConfPath, kConfPath, conf);
        // Any failed read (also a file that cannot be opened) ends here: the
        // file is never rewritten from what was not read.
        if (n < 0) return f.fail();
        for (qmx::ConfItem &p : conf.items) {
            if (p.key.find("-tid-") == string_view::npos) continue;
            p = qmx::ConfItem{{}, {}, 1};
        }
        return qmx::makeConfFileFromItems(qmx::kSystemStore, conf.items.data(), n, nullptr, 0, 0) == 0
                   ? f.ok()
                   : f.fail();
    });
}

// The automatic mapping calls end a failure without releasing the lock (the
// lock is released on success only); tools rely on that order.
QMX_STATUS QMX_GetBindingAutoMapping(QMX_AUTOMAP *automap) {
    return qmx::run("QMX_GetBindingAutoMapping", [&](qmx::Frame &f) {
        if (!f.lock()) return f.status();
        if (!f.notNull(automap, "automap", " == NULL")) {
            f.keepLock();
            return f.fail();
        }
        *automap = 1;
        FilePtr in(std::fopen(kModprobe, "re"));
        if (!in) {
            f.keepLock();
            return f.fail();
        }
        char line[1024];
        while (std::fgets(line, sizeof line, in.get()) != nullptr) {
            if (std::strstr(line, "options qmxldd") == nullptr) continue;
            if (const char *at = std::strstr(line, "qmx_automap=")) {
                if (qmx::atoiText(at + 12) == 0) *automap = 0;
            }
            break;
        }
        return f.ok();
    });
}

QMX_STATUS QMX_SetBindingAutoMapping(QMX_AUTOMAP automap) {
    return qmx::run("QMX_SetBindingAutoMapping", [&](qmx::Frame &f) {
        if (!f.lock()) return f.status();
        auto failKeepingLock = [&] {
            f.keepLock();
            return f.fail();
        };
        // Every option of the line is carried over, however many it holds.
        std::vector<util_para> opts;
        if (qmx::readModulesConf(qmx::kSystemStore, opts) != 0) return failKeepingLock();
        {
            qmx::FileError fe;
            FilePtr out(qmx::openScratch(kAutoTmp1, qmx::ScratchMode::Append, &fe));
            if (!out) {
                qmx::sysError("fopen", fe.err);
                return failKeepingLock();
            }
            std::fputs(automap == 1 ? "options qmxldd qmx_automap=1"
                                    : "options qmxldd qmx_automap=0",
                       out.get());
            for (util_para &p : opts) {
                string_view k = qmx::keyOf(p);
                if (k.empty() || k == "qmx_automap") continue;
                string_view v = qmx::valueOf(p);
                if (v.ends_with('\n')) v.remove_suffix(1);
                std::fprintf(out.get(), " %.*s=%.*s", int(k.size()), k.data(), int(v.size()),
                             v.data());
            }
            std::fputc('\n', out.get());
            FilePtr in(qmx::openScratch(kAutoTmp2, qmx::ScratchMode::Read, &fe));
            if (!in) {
                qmx::sysError("fopen", fe.err);
                return failKeepingLock();
            }
            char piece[256];
            while (std::fgets(piece, sizeof piece, in.get()) != nullptr)
                std::fputs(piece, out.get());
            if (std::ferror(in.get())) {
                qmx::sysError("read", errno != 0 ? errno : EIO);
                return failKeepingLock();
            }
            if (std::fflush(out.get()) != 0 || std::ferror(out.get())) {
                qmx::sysError("write", errno != 0 ? errno : EIO);
                return failKeepingLock();
            }
        }
        // A module options file that could not be installed is a failure
        // of the call (the old file stays as it was).
        if (!qmx::copyModulesConf(qmx::kSystemStore)) return f.fail();
        return f.ok();
    });
}

QMX_STATUS QMX_GetForceBinding(QMX_WWN wwn, QMX_UINT8 *bind_flg) {
    return qmx::run("QMX_GetForceBinding", [&](qmx::Frame &f) {
        if (bind_flg != nullptr) *bind_flg = 0;  // preset before anything can fail
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        if (!f.notNull(bind_flg, "bind_flg", " == NULL")) return f.fail();
        if (qmx_GetQmxbiosInfo(ind) != 0) return f.fail();
        *bind_flg = qmx_CfgListByte(QMX_CFG_PERSISTENT_BINDINGS);
        return f.ok();
    });
}

QMX_STATUS QMX_SetForceBinding(QMX_WWN wwn, QMX_UINT8 bind_flg) {
    return qmx_SetOnOffOption("QMX_SetForceBinding", wwn, bind_flg, "bind_flg",
                              QMXBIOS_OPT_PERSISTENT_BIND);
}
