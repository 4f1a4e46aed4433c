// Writer of "/etc/qmxldd.conf": regroups a key list and new items into the
// file's fixed layout (driver-wide items, then every port's items in a fixed
// parameter order, then binding items or the rest) and refreshes the
// configuration module image.
//
// The whole text is built in memory and written into the existing file,
// which keeps its inode (the exclusive lock's key is derived from it), once
// its space is reserved.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "config/config.h"
#include "frame/frame.h"
#include "config/binding_tables.h"

#define QMX_DEFINE_PORT_TABLE(name) __HBAKEY name[kConfPorts];
QMX_PORT_TABLES(QMX_DEFINE_PORT_TABLE)
#undef QMX_DEFINE_PORT_TABLE
__HBAISOLATE isolate[kConfPorts];
__HBAKEY retry_cnt[kConfPorts][kRetryEntries];

namespace {

using std::string_view;

// ---------------------------------------------------------------------------
// Parameter rows, in the order in which a port's items are written.
// ---------------------------------------------------------------------------
enum class Kind { Plain, LinkDown, Retry, Isolate };

struct Row {
    const char *suffix;  // the key's parameter part, also written after "qmx<N>"
    Kind kind;
    __HBAKEY *table;     // Plain and LinkDown rows
};

constexpr int kRows = 34;
const Row kWriteOrder[kRows] = {
    {"_connection_type", Kind::Plain, connection_type},
    {"_link_speed", Kind::Plain, link_speed},
    {"_max_transfer", Kind::Plain, max_transfer},
    {"_link_down", Kind::LinkDown, link_down},
    {"_reset_delay", Kind::Plain, reset_delay},
    {"_mck_retry", Kind::Plain, mck_retry},
    {"_preferred_alpa", Kind::Plain, preferred_alpa},
    {"_reset_timeout", Kind::Plain, reset_timeout},
    {"_abort_timeout", Kind::Plain, abort_timeout},
    {"_queue_depth", Kind::Plain, queue_depth},
    {"_scsi_allowed", Kind::Plain, allowed},
    {"_tmt_delay", Kind::Plain, tmt_delay},
    {"_retry_cnt", Kind::Retry, nullptr},
    {"_lun_reset_delay", Kind::Plain, lun_reset_delay},
    {"_msi_enable", Kind::Plain, msi_enable},
    {"_isol_type", Kind::Plain, isol_type},
    {"_ld_err_intvl", Kind::Plain, ld_err_intvl},
    {"_ld_err_limit_l", Kind::Plain, ld_err_limitl},
    {"_ld_err_limit_s", Kind::Plain, ld_err_limits},
    {"_if_err_intvl", Kind::Plain, if_err_intvl},
    {"_if_err_limit", Kind::Plain, if_err_limit},
    {"_to_err_intvl", Kind::Plain, to_err_intvl},
    {"_to_err_limit", Kind::Plain, to_err_limit},
    {"_rt_err_enable", Kind::Plain, rt_err_enable},
    {"_login_retry", Kind::Plain, login_retry},
    {"_els_retry", Kind::Plain, els_retry},
    {"_to_reset_retry", Kind::Plain, to_reset_retry},
    {"_scsi_to_retry", Kind::Plain, scsi_to_retry},
    {"_abort_t_restrain", Kind::Plain, abort_t_restrain},
    {"_bs", Kind::Isolate, nullptr},
    {"_alter_path_num", Kind::Plain, alter_path},
    {"_offline_path_num", Kind::Plain, offline_path},
    {"_pathchk_to", Kind::Plain, pathchk},
    {"_enable_tgtrst", Kind::Plain, trgrst},
};

// The order in which a key is tested against the rows: the first row whose
// suffix the key contains wins, so "_lun_reset_delay" comes before
// "_reset_delay"; "_link_down" must be the whole text from the first "_".
constexpr std::array<int, kRows> kMatchOrder = {0,  1,  2,  13, 3,  4,  5,  6,  7,  8,  9,  10,
                                                11, 12, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23,
                                                24, 25, 26, 27, 28, 29, 30, 31, 32, 33};

// The driver-wide keys that pass 2 takes from the new items (besides every
// key that begins with "qmx_retry_cnt").
constexpr const char *kDriverWide[] = {
    "qmx_connection_type", "qmx_link_speed",      "qmx_max_transfer",    "qmx_link_down",
    "qmx_reset_delay",     "qmx_mck_retry",       "qmx_preferred_alpa",  "qmx_reset_timeout",
    "qmx_abort_timeout",   "qmx_queue_depth",     "qmx_scsi_allowed",    "qmx_tmt_delay",
    "qmx_lun_reset_delay", "qmx_msi_enable",      "qmx_isol_type",       "qmx_ld_err_intvl",
    "qmx_ld_err_limit_l",  "qmx_ld_err_limit_s",  "qmx_if_err_intvl",    "qmx_if_err_limit",
    "qmx_to_err_intvl",    "qmx_to_err_limit",    "qmx_rt_err_enable",   "qmx_login_retry",
    "qmx_els_retry",       "qmx_to_reset_retry",  "qmx_scsi_to_retry",   "qmx_abort_t_restrain",
    "qmxmp_failover",      "qmxmp_failback",      "qmxmp_path_health",   "qmxmp_interval",
    "qmx_alter_path_num",  "qmx_offline_path_num", "qmx_pathchk_to",     "qmx_enable_tgtrst",
    "qmxmp_roundrobin",    "qmxmp_rr_seqcnt",     "qmxmp_rr_rndcnt",     "qmxmp_alp_enable",
    "qmxmp_ofp_enable",    "qmxmp_alter_path",    "qmxmp_offline_path",  "qmxmp_write_retries",
    "qmx_hba_isolation",
};

bool isDriverWideKey(string_view key) {
    static const std::vector<string_view> sorted = [] {
        std::vector<string_view> v(std::begin(kDriverWide), std::end(kDriverWide));
        std::sort(v.begin(), v.end());
        return v;
    }();
    if (key.starts_with("qmx_retry_cnt")) return true;
    return std::binary_search(sorted.begin(), sorted.end(), key);
}

// ---------------------------------------------------------------------------
// retry_cnt bookkeeping.  A bit per entry mirrors its use_flg so that a
// port's entries are enumerated without walking all 1000 records.
// ---------------------------------------------------------------------------
constexpr int kRetryWords = (kRetryEntries + 63) / 64;
uint64_t retryBits[kConfPorts][kRetryWords];
int isolateNext = 0;  // first isolate record that may have an empty key

// Values and isolate keys must fit their fields with the terminator.  The
// fields hold every text the reader keeps; a longer one (only from a list
// built by hand) is not taken into a table but stays in the list and is
// written as one of the port's remaining items, so nothing is cut or lost.
bool fits(string_view text, std::size_t field) { return text.size() < field; }

void storeText(char *dst, std::size_t cap, string_view text) { qmx::copyText(dst, cap, text); }

void clearTables() {
    for (const Row &r : kWriteOrder)
        if (r.table != nullptr) std::memset(r.table, 0, sizeof(__HBAKEY) * kConfPorts);
    std::memset(isolate, 0, sizeof isolate);
    isolateNext = 0;
    // Only the first 256 entries of retry_cnt (port 0, entries 0 to 255:
    // 9216 bytes of records with 8-character values) are cleared: entries
    // beyond them keep what an earlier write of the same process stored
    // there and are written again.  This is the writer's established
    // behaviour and is kept as it is; a process that removes a retry count
    // of another port sees it come back at its next write.
    std::memset(retry_cnt, 0, 256 * sizeof(__HBAKEY));
    for (int w = 0; w < 256 / 64; ++w) retryBits[0][w] = 0;
}

// Parses "qmx<port>_retry_cnt<n>" exactly as the port number and an entry
// number 0 to 999 would be printed with "%d": -1 when the key is not one.
int retryEntryOf(string_view key, int port) {
    char head[48];
    int n = std::snprintf(head, sizeof head, "qmx%d_retry_cnt", port);
    if (n <= 0 || !key.starts_with(string_view(head, std::size_t(n)))) return -1;
    string_view rest = key.substr(std::size_t(n));
    if (rest.empty() || rest.size() > 3) return -1;
    if (rest.size() > 1 && rest[0] == '0') return -1;
    int v = 0;
    for (char c : rest) {
        if (c < '0' || c > '9') return -1;
        v = v * 10 + (c - '0');
    }
    return v;
}

// The row a key belongs to: the first row, in match order, whose suffix the
// key contains.  Every suffix begins with "_" and the key's text before its
// first "_" holds none, so the answer depends only on the text from the
// first "_" on.
const Row *rowOfTail(string_view tail) {
    for (int idx : kMatchOrder) {
        const Row &r = kWriteOrder[idx];
        if (r.kind == Kind::LinkDown ? tail == r.suffix : tail.find(r.suffix) != string_view::npos)
            return &r;
    }
    return nullptr;
}

// Remembers the rows of the key tails seen in one pass over a list (a few
// dozen distinct tails in a real file), so that each key is tested once.
class RowCache {
public:
    const Row *rowOf(string_view key) {
        std::size_t us = key.find('_');
        if (us == string_view::npos) return nullptr;
        string_view tail = key.substr(us);
        auto it = memo_.find(tail);
        if (it != memo_.end()) return it->second;
        const Row *row = rowOfTail(tail);
        try {
            memo_.emplace(std::string(tail), row);
        } catch (const std::bad_alloc &) {
            // Without memory to remember it the answer is still right.
        }
        return row;
    }

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(string_view s) const noexcept { return std::hash<string_view>{}(s); }
    };
    std::unordered_map<std::string, const Row *, Hash, std::equal_to<>> memo_;
};

// Takes one item into its table.  Returns false when the item is to stay
// in the list (no row, or it does not fit).
template <class Item>
bool takeItem(Item &p, int port, RowCache &rows) {
    string_view key = qmx::keyOf(p);
    string_view val = qmx::valueOf(p);
    const Row *row = rows.rowOf(key);
    if (row == nullptr) return false;
    // Port numbers outside the tables are kept as plain items.
    if (port < 0 || port >= kConfPorts) return false;
    switch (row->kind) {
        case Kind::Plain:
        case Kind::LinkDown: {
            if (!fits(val, sizeof(__HBAKEY::val))) return false;
            __HBAKEY &rec = row->table[port];
            storeText(rec.val, sizeof rec.val, val);
            rec.use_flg = 1;
            return true;
        }
        case Kind::Retry: {
            int e = retryEntryOf(key, port);
            // A key that names no entry is taken and stored nowhere.
            if (e < 0) return true;
            if (!fits(val, sizeof(__HBAKEY::val))) return false;
            __HBAKEY &rec = retry_cnt[port][e];
            storeText(rec.val, sizeof rec.val, val);
            rec.use_flg = 1;
            retryBits[port][e / 64] |= uint64_t(1) << (e % 64);
            return true;
        }
        case Kind::Isolate: {
            if (!fits(val, sizeof(__HBAISOLATE::val)) || !fits(key, sizeof(__HBAISOLATE::key)))
                return false;
            while (isolateNext < kConfPorts && isolate[isolateNext].key[0] != '\0') ++isolateNext;
            // All 256 records in use: the item is dropped.
            if (isolateNext >= kConfPorts) return true;
            __HBAISOLATE &rec = isolate[isolateNext];
            storeText(rec.key, sizeof rec.key, key);
            storeText(rec.val, sizeof rec.val, val);
            rec.use_flg = 1;
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------------------
// Output helpers.
// ---------------------------------------------------------------------------
void putItem(qmx::BigText &out, string_view key, string_view val) {
    out.append(key);
    out.push_back('=');
    out.append(val);
    out.push_back(':');
}

void putInt(qmx::BigText &out, long v) {
    char buf[24];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, res.ptr);
}

string_view fieldText(const char *field, std::size_t cap) { return {field, strnlen(field, cap)}; }

void writePort(qmx::BigText &out, int port) {
    char prefix[16];
    int plen = std::snprintf(prefix, sizeof prefix, "qmx%d", port);
    string_view pre(prefix, std::size_t(plen));
    for (const Row &r : kWriteOrder) {
        switch (r.kind) {
            case Kind::Plain:
            case Kind::LinkDown: {
                const __HBAKEY &rec = r.table[port];
                if (rec.use_flg != 1) break;
                out.append(pre);
                putItem(out, r.suffix, fieldText(rec.val, sizeof rec.val));
                break;
            }
            case Kind::Retry:
                for (int w = 0; w < kRetryWords; ++w) {
                    uint64_t bits = retryBits[port][w];
                    while (bits != 0) {
                        int e = w * 64 + __builtin_ctzll(bits);
                        bits &= bits - 1;
                        const __HBAKEY &rec = retry_cnt[port][e];
                        if (rec.use_flg != 1) continue;
                        out.append(pre);
                        out.append("_retry_cnt");
                        putInt(out, e);
                        out.push_back('=');
                        out.append(fieldText(rec.val, sizeof rec.val));
                        out.push_back(':');
                    }
                }
                break;
            case Kind::Isolate: {
                const __HBAISOLATE &rec = isolate[port];
                if (rec.use_flg != 1) break;
                putItem(out, fieldText(rec.key, sizeof rec.key), fieldText(rec.val, sizeof rec.val));
                break;
            }
        }
    }
}

void writeBindingTables(qmx::BigText &out) {
    int n = bind_cnt < 0 ? 0 : std::min(bind_cnt, BINDMAX);
    // The items are gathered in a block and appended a block at a time.
    char block[16384];
    std::size_t used = 0;
    BindingTextWriter text;
    for (int r = 0; r < n; ++r) {
        if (sizeof block - used < kBindingTextMax) {
            out.append(block, used);
            used = 0;
        }
        if (const char *end = text.item(block + used, TBLKEY[r])) used = std::size_t(end - block);
    }
    out.append(block, used);
    int w = wwpn_cnt < 0 ? 0 : std::min(wwpn_cnt, HADAPTMAX);
    for (int i = 0; i < w; ++i) {
        const __WWPN &a = WWPN[i];
        if (a.use_flg != 1) continue;
        string_view bind = fieldText(a.bind, sizeof a.bind);
        out.append("qmxl");
        putInt(out, a.adapt);
        putItem(out, "-wwpn", bind);
    }
}

template <class Item>
int clampCount(const Item *list, int n) { return list == nullptr || n < 0 ? 0 : n; }

template <class Item>
void outputListParamCreate(Item *param, int param_max) {
    qmx::trace("qmx_OutputListParamCreate START");
    int n = clampCount(param, param_max);
    RowCache rows;
    for (int i = 0; i < n; ++i) {
        Item &p = param[i];
        if (p.used != 0) continue;
        int port = qmx::portOfKey(qmx::keyOf(p));
        if (port == -1) continue;
        p.used = 1;
        if (!takeItem(p, port, rows)) p.used = 0;
    }
}

}  // namespace

void qmx_OutputListParamCreate(util_para *param, int param_max) {
    outputListParamCreate(param, param_max);
}

namespace qmx {

namespace {

// The body of buildConfText for key list items and for read items.
template <class Item>
void buildText(Item *key_list, int key_list_max, Item *add_list, int add_list_max,
               int remake_bind_data, BigText &out) {
    int kn = clampCount(key_list, key_list_max);
    int an = clampCount(add_list, add_list_max);

    // Pass 1: driver-wide items of the key list, also those already marked.
    for (int i = 0; i < kn; ++i) {
        Item &p = key_list[i];
        string_view key = keyOf(p);
        if (key.empty()) continue;
        // Every driver-wide key begins with "qmx_" or "qmxmp".
        if (key.starts_with("qmx_") || key.starts_with("qmxmp") || key.starts_with("scsi-")) {
            putItem(out, key, valueOf(p));
            p.used = 1;
        }
    }
    // Pass 2: driver-wide items among the new ones.
    for (int i = 0; i < an; ++i) {
        Item &p = add_list[i];
        string_view key = keyOf(p);
        if (!isDriverWideKey(key)) continue;
        putItem(out, key, valueOf(p));
        p.used = 1;
    }

    clearTables();
    outputListParamCreate(key_list, kn);
    outputListParamCreate(add_list, an);

    // Items no table took are written after the tables of the first port
    // whose number their key starts with: "qmx" and a digit d always match
    // port d first (ports 1, 10..19 and 100..199 all fall to port 1), so
    // they are grouped by that digit in list order.
    std::array<std::vector<int>, 10> rest;
    for (int i = 0; i < kn; ++i) {
        const Item &p = key_list[i];
        if (p.used != 0) continue;
        string_view key = keyOf(p);
        if (key.size() > 3 && key.starts_with("qmx") && key[3] >= '0' && key[3] <= '9')
            rest[std::size_t(key[3] - '0')].push_back(i);
    }
    for (int port = 0; port < kConfPorts; ++port) {
        writePort(out, port);
        if (port >= 10) continue;
        for (int i : rest[std::size_t(port)]) {
            Item &p = key_list[i];
            if (p.used != 0) continue;
            putItem(out, keyOf(p), valueOf(p));
            p.used = 1;
        }
    }

    if (remake_bind_data != 1) {
        for (int i = 0; i < kn; ++i) {
            Item &p = key_list[i];
            if (p.used != 0 || keyOf(p).empty()) continue;
            putItem(out, keyOf(p), valueOf(p));
        }
        for (int i = 0; i < an; ++i) {
            Item &p = add_list[i];
            if (p.used != 0 || keyOf(p).empty()) continue;
            putItem(out, keyOf(p), valueOf(p));
        }
        return;
    }
    writeBindingTables(out);
    // Old binding items are dropped (the tables replace them); every other
    // item that is left is kept, an emptied one included, so callers mark
    // removed items as used before a binding write.  (All target items have
    // "tid" near their start: it is looked for first.)
    for (int i = 0; i < kn; ++i) {
        Item &p = key_list[i];
        if (p.used != 0) continue;
        string_view key = keyOf(p);
        bool binding = key.starts_with("qmxl") &&
                       (key.find("tid") != string_view::npos || key.find("wwpn") != string_view::npos);
        if (!binding) putItem(out, key, valueOf(p));
    }
}

// `lazy`: a probed read whose items are gathered after the size check.
template <class Item>
int makeFile(const ConfStore &store, Item *key_list, int key_list_max, Item *add_list,
             int add_list_max, int remake_bind_data, ConfText *lazy = nullptr) noexcept {
    // An inner failure that the calling operation survived (reported only
    // by its reason code) is kept across a successful rewrite.
    const int earlier = QMX_LastErrorCode();
    setError(QMX_ERR_NONE);
    trace("QMX_MakeConfFile START");
    auto abend = [] {
        trace("QMX_MakeConfFile ABEND");
        return -1;
    };
    try {
        struct utsname un;
        if (uname(&un) != 0) {
            sysError("uname", errno);
            return abend();
        }
        struct stat st;
        if (stat(store.conf, &st) != 0) {
            sysError("stat", errno);
            return abend();
        }
        int an = clampCount(add_list, add_list_max);
        // Only the new items are counted against the bound, and the message
        // names another figure than the bound; tools match both as they are.
        long sum = long(st.st_size) + 1;
        for (int i = 0; i < an; ++i) {
            sum += long(keyOf(add_list[i]).size() + 1 + valueOf(add_list[i]).size());
            if (sum > kConfSizeLimit) {
                trace("qmxldd.conf filesize over 100012 written.");
                setError(QMX_ERR_SIZE_LIMIT);
                return abend();
            }
        }
        if constexpr (std::is_same_v<Item, ConfItem>) {
            if (lazy != nullptr) {
                if (!gatherConfItems(*lazy)) throw std::bad_alloc();
                key_list = lazy->items.data();
            }
        }
        // Opened without truncating: the old text stays in place while the
        // new one is built.  The exclusive flock keeps readers out until the
        // rewrite is on disk.
        std::unique_ptr<FILE, qmx::FileCloser> fp(
            QMX_fopen(const_cast<char *>(store.conf), const_cast<char *>("r+e")));
        if (!fp) return abend();
        int fd = fileno(fp.get());
        while (flock(fd, LOCK_EX) != 0) {
            if (errno == EINTR) continue;
            sysError("flock", errno);
            return abend();
        }
        // A rewrite a crash interrupted is finished before the old text is
        // taken.
        std::string pending;
        FileError fe;
        if (settleJournal(store.conf, fd, &pending, &fe) == JournalState::Failed) {
            sysError(fe.call, fe.err);
            return abend();
        }
        if (fstat(fd, &st) != 0) {
            sysError("fstat", errno);
            return abend();
        }

        BigText out;
        out.reserve(std::size_t(sum) + 4096);
        buildText(key_list, key_list_max, add_list, add_list_max, remake_bind_data, out);

        // The old text, to put back when the rewrite fails half-way (a
        // failed write or cut would otherwise leave new text over old, or
        // the reserved space as a tail of zero bytes).
        // (Read into a buffer that is not cleared first: a text would be.)
        ReadBuffer oldBuf;
        std::size_t oldSize = 0;
        if (!oldBuf.reserve(std::size_t(st.st_size))) throw std::bad_alloc();
        if (!readAllAt(fd, oldBuf.data(), std::size_t(st.st_size), &oldSize)) {
            sysError("read", errno);
            return abend();
        }
        const std::string_view old(oldBuf.data(), oldSize);
        // Rewritten in place, keeping the inode.  First the journal (see
        // journal.cpp): from the moment it is on disk a crash leaves a
        // rewrite that the next reader finishes; a failure before leaves the
        // file untouched.  Then the file's space is reserved, so that a full
        // file system fails the call before the first byte of the file is
        // written.  Then the text, the cut to its size and the flush; only
        // then is the journal removed.
        if (!writeJournal(store.conf, out, st.st_mode, &fe)) {
            sysError(fe.call, fe.err);
            return abend();
        }
        auto dropJournal = [&] {
            FileError ignored;
            if (!removeJournal(store.conf, &ignored)) trace("qmxldd.conf journal could not be removed");
        };
        auto undo = [&](const char *call, int err) {
            sysError(call, err);
            // When the old text cannot be put back, the journal stays: the
            // next reader then finishes the rewrite, so the file ends as the
            // call meant to leave it rather than mixed.
            if (!writeAllAt(fd, old) || ftruncate(fd, off_t(old.size())) != 0 || fsync(fd) != 0)
                trace("qmxldd.conf could not be restored");
            else
                dropJournal();
            return abend();
        };
        if (!out.empty()) {
            int err = posix_fallocate(fd, 0, off_t(out.size()));
            if (err != 0) {
                // The reservation may have grown the file before it failed.
                if (ftruncate(fd, off_t(old.size())) != 0) trace("qmxldd.conf could not be restored");
                else dropJournal();
                sysError("posix_fallocate", err);
                return abend();
            }
        }
        if (!writeAllAt(fd, out)) return undo("write", errno);
        if (ftruncate(fd, off_t(out.size())) != 0) return undo("ftruncate", errno);
        if (fsync(fd) != 0) return undo("fsync", errno);
        if (!removeJournal(store.conf, &fe)) {
            // The file holds the new text; the journal repeats it.
            sysError(fe.call, fe.err);
            return abend();
        }
        if (std::fclose(fp.release()) != 0) {
            sysError("fclose", errno);
            return abend();
        }
        if (mpcfg(store) != 0) return abend();
        if (earlier != 0) setError(earlier);
        return 0;
    } catch (const std::bad_alloc &) {
        sysError("malloc", ENOMEM);
        return abend();
    } catch (...) {
        setError(QMX_ERR_INTERNAL);
        return abend();
    }
}

}  // namespace

void buildConfText(util_para *key_list, int key_list_max, util_para *add_list, int add_list_max,
                   int remake_bind_data, std::string &out) {
    BigText text;
    buildText(key_list, key_list_max, add_list, add_list_max, remake_bind_data, text);
    out.append(text);
}

int makeConfFile(const ConfStore &store, util_para *key_list, int key_list_max,
                 util_para *add_list, int add_list_max, int remake_bind_data) noexcept {
    return makeFile(store, key_list, key_list_max, add_list, add_list_max, remake_bind_data);
}

int makeConfFileFromItems(const ConfStore &store, ConfItem *key_list, int key_list_max,
                          ConfItem *add_list, int add_list_max, int remake_bind_data) noexcept {
    return makeFile(store, key_list, key_list_max, add_list, add_list_max, remake_bind_data);
}

int makeConfFileFromRead(const ConfStore &store, ConfText &read, int key_list_max, ConfItem *add_list,
                         int add_list_max, int remake_bind_data) noexcept {
    return makeFile(store, read.items.data(), key_list_max, add_list, add_list_max, remake_bind_data, &read);
}

}  // namespace qmx

int QMX_MakeConfFile(util_para *key_list, int key_list_max, util_para *add_list, int add_list_max,
                     int remake_bind_data) {
    return qmx::makeConfFile(qmx::kSystemStore, key_list, key_list_max, add_list, add_list_max,
                             remake_bind_data);
}
