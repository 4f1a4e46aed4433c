// Key list reader of the configuration files and the lookups on a key list.
//
// A configuration file is one line of items "key=value:" written back to
// back; only the first line counts.
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "config/block_marks.h"
#include "config/config.h"
#include "frame/fileio.h"
#include "frame/frame.h"

// The walks over a line's bytes are built for the x86-64 baseline and for
// the x86-64-v2 and -v3 levels, and the loader picks the best the processor
// has: the same code, with popcnt for the bit counts, BMI's bit scans and
// the VEX forms of the compares.  Everything a walk calls is inlined into
// it (QMX_INLINE), so each build of it runs with its level's instructions
// throughout.  (The marks themselves come from a kernel chosen at run time:
// see block_marks.h.)
#if defined(__x86_64__) && defined(__GNUC__) && defined(__ELF__)
#define QMX_WALK_LEVELS __attribute__((target_clones("arch=x86-64-v3", "arch=x86-64-v2", "default")))
#else
#define QMX_WALK_LEVELS
#endif
#define QMX_INLINE __attribute__((always_inline)) inline

namespace qmx {

const ConfStore kSystemStore = {
    "/etc/qmxldd.conf",
    "/etc/qmxlib.conf",
    "/lib/modules",
    "/etc/modprobe.d/qmxldd_param.conf",
    "/tmp/conf_modules1.hba",
    "/tmp/conf_modules2.hba",
};

bool ReadBuffer::reserve(std::size_t size) noexcept {
    if (size <= size_ && data_ != nullptr) return true;
    release();
    void *p = size < kBigBlockBytes ? ::operator new(size, kReadAlign, std::nothrow) : takeBigBlock(size);
    if (p == nullptr) return false;
    data_ = static_cast<char *>(p);
    size_ = size;
    return true;
}

void ReadBuffer::release() noexcept {
    if (data_ == nullptr) return;
    if (size_ < kBigBlockBytes)
        ::operator delete(data_, kReadAlign);
    else
        dropBigBlock(data_);
    data_ = nullptr;
    size_ = 0;
}

int atoiText(std::string_view s) noexcept {
    // strtol: leading white space, a sign, decimal digits; saturates at the
    // range of long; the result is then narrowed to int as atoi does.
    std::size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || (s[i] >= '\t' && s[i] <= '\r'))) ++i;
    bool neg = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) neg = s[i++] == '-';
    unsigned long long v = 0;
    const unsigned long long limit = neg ? (unsigned long long)LONG_MAX + 1 : LONG_MAX;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        v = v * 10 + unsigned(s[i] - '0');
        if (v > limit) v = limit;
    }
    long r = neg ? (v == (unsigned long long)LONG_MAX + 1 ? LONG_MIN : -long(v)) : long(v);
    return static_cast<int>(r);
}

int atoiText(const char *s) noexcept {
    if (s == nullptr) return 0;
    return atoiText(std::string_view(s));
}

namespace {

constexpr std::size_t kKeyRoom = sizeof(util_para::keyword) - 1;
constexpr std::size_t kValueRoom = sizeof(util_para::value) - 1;

// The line of a file's text: up to its first newline or NUL.
std::string_view firstLine(const char *text, std::size_t len) noexcept {
    const void *nl = std::memchr(text, '\n', len);
    std::size_t end = nl != nullptr ? std::size_t(static_cast<const char *>(nl) - text) : len;
    return {text, strnlen(text, end)};
}

// The bits set in `x`: one instruction where the walk's level has it, a
// library routine in the baseline build.
QMX_INLINE long bitCount(uint64_t x) noexcept { return long(__builtin_popcountll(x)); }

// Hands `g(base, marks)` the marks of every block of the first line of
// `text` in order, with the tags of `tag` when it is not 0, and returns the
// line's length: the line ends at the first newline or NUL (the block that
// holds it is handed over with no marks from there on), or with the text.
// The marks are made a run of blocks at a time, and finding the line's end
// takes no pass of its own.  `g` returning false stops the walk (kStopped).
// `run(base, marks, count)` is offered each run of whole blocks first: true
// means it took the whole run, and `g` sees none of its blocks.
constexpr std::size_t kStopped = std::size_t(-1);
constexpr std::size_t kRun = 64;
template <class G, class R>
QMX_INLINE std::size_t forEachBlock(std::string_view text, char tag, G &&g, R &&run) {
    const MarkKernel kernel = markKernel();
    Marks marks[kRun];
    auto last = [&](std::size_t base, Marks m) __attribute__((always_inline)) {
        const uint64_t before = (m.ends & -m.ends) - 1;
        m.colons &= before;
        m.eqs &= before;
        m.tags &= before;
        return g(base, m) ? base + std::size_t(std::countr_zero(m.ends)) : kStopped;
    };
    const char *p = text.data();
    const std::size_t n = text.size(), whole = n / kBlock;
    for (std::size_t b = 0; b < whole;) {
        const std::size_t count = std::min(kRun, whole - b);
        kernel(p + b * kBlock, count, tag, marks);
        if (run(b * kBlock, static_cast<const Marks *>(marks), count)) {
            b += count;
            continue;
        }
        for (std::size_t j = 0; j < count; ++j) {
            if (marks[j].ends != 0) [[unlikely]]
                return last((b + j) * kBlock, marks[j]);
            if (!g((b + j) * kBlock, marks[j])) return kStopped;
        }
        b += count;
    }
    if (std::size_t i = whole * kBlock; i < n) {
        // The bytes past the text read as NUL: they end the line.
        alignas(kBlock) char tail[kBlock] = {};
        std::memcpy(tail, p + i, n - i);
        kernel(tail, 1, tag, marks);
        return last(i, marks[0]);
    }
    return n;
}

template <class G>
QMX_INLINE std::size_t forEachBlock(std::string_view text, char tag, G &&g) {
    return forEachBlock(text, tag, std::forward<G>(g),
                        [](std::size_t, const Marks *, std::size_t) __attribute__((always_inline)) { return false; });
}

// a + b + carry, and the carry out of the top bit.  With `a` the bytes that
// are not ":" and `b` marks that are never on a ":", the sum's ":" bits are
// the ":" whose item (from the ":" before it) holds a mark of `b`, or, for
// the first one, follows a carry: each run of ones between two ":" that
// takes a bit overflows into the ":" above it, and no further.
QMX_INLINE uint64_t addCarry(uint64_t a, uint64_t b, bool carryIn, bool *carryOut) noexcept {
    uint64_t sum;
    bool first = __builtin_add_overflow(a, b, &sum);
    bool second = __builtin_add_overflow(sum, uint64_t(carryIn), &sum);
    *carryOut = first || second;
    return sum;
}

// The marks `n` bytes (1 to 63) before each byte of a block: `cur` shifted
// up, with the top of the block before (`prev`) shifted in.
QMX_INLINE uint64_t marksBefore(uint64_t cur, uint64_t prev, unsigned n) noexcept {
    return (cur << n) | (prev >> (64 - n));
}

// The result of a walk: whether any text was cut, and the line's item slots
// (its ":" marks, all of them, also those after the walk ended).
struct Walk {
    bool cut = false;
    long slots = 0;
    std::size_t length = 0;  // the line's
    bool stopped = false;    // by the item handler: the rest not walked
};

// A filtered walk's tag: the last character of a key prefix and the
// prefix's length (1 to 63).  The walk hands over only the items whose key
// has that character at that place (all that have the prefix, and some
// others); the rest are counted a block at a time.
struct Tag {
    char last = 0;
    unsigned at = 0;
};

// Whether a walk can tag the keys that begin with `prefix` (its last byte is
// no mark and lies within a block's reach of the ":").
bool canTag(std::string_view prefix) noexcept {
    return !prefix.empty() && prefix.size() < 64 && prefix.back() != ':' && prefix.back() != '=' &&
           prefix.back() != '\0';
}

// Walks the items of the first line of `text` (see forEachBlock; the walk
// tells the line's length) in slot order as the reader fills its slots:
// `f(slot, key, value)` with the key and the value cut to what their fields
// hold, for at most `limit` slots.  An item without "=" ends the walk.  The
// same pass counts the line's slots, so a reader learns the count (and can
// refuse the line) without a second pass over the text.  An `f` that
// returns false stops the walk there (Walk::stopped; its slots and cut then
// stand for the part walked).
//
// The walk steps from ":" to ":" through the block's marks and takes an
// item's first "=" from them, so that no branch depends on which of the two
// marks comes next.
//
// A tagged walk (kTagged) looks at a block's items one by one only where the
// block asks for it: an item that ends the walk (no "=", or the last slot),
// an item long enough to be cut, or a tagged key.  Whether each ":" closes
// an item with an "=" and whether its key is tagged come from the marks by
// addition (addCarry), for the whole block at once.
//
// A walk for one whole key (kExact: `key`, tagged by its last byte) first
// tries each run of blocks as a whole (see below); the blocks go one by one
// only in a run that holds the key or anything the item walk must look at.
template <bool kTagged, bool kExact = false, class F>
QMX_INLINE Walk walkBlocks(std::string_view text, std::size_t limit, Tag tag, F &&f, std::string_view key = {}) {
    static_assert(kTagged || !kExact);
    // Kept in locals apart from the item handler's reach, so that they stay
    // in registers while it writes.
    bool cut = false, walking = limit > 0, stopped = false;
    long slots = 0;
    constexpr std::size_t kNone = std::size_t(-1);
    std::size_t start = 0, eq = kNone, slot = 0;
    const char *p = text.data();
    // The item from `start` to the ":" at `at`, its "=" at `eqAt`; false:
    // the walk ends here (no "=", or the last slot filled).
    auto item = [&](std::size_t eqAt, std::size_t at) __attribute__((always_inline)) {
        if (eqAt == kNone || eqAt >= at) return false;
        std::size_t keyLen = eqAt - start, valueLen = at - eqAt - 1;
        if (keyLen > kKeyRoom || valueLen > kValueRoom) [[unlikely]] {
            cut = true;
            keyLen = std::min(keyLen, kKeyRoom);
            valueLen = std::min(valueLen, kValueRoom);
        }
        const std::string_view key(p + start, keyLen), value(p + eqAt + 1, valueLen);
        if constexpr (std::is_void_v<std::invoke_result_t<F &, std::size_t, std::string_view, std::string_view>>) {
            f(slot, key, value);
        } else if (!f(slot, key, value)) {
            stopped = true;
            return false;
        }
        start = at + 1;
        eq = kNone;
        return ++slot < limit;
    };
    // An item no longer than this cannot be cut (its key and value are
    // shorter than their fields).
    constexpr std::size_t kShortItem = std::min(kKeyRoom, kValueRoom) + 1;
    // The line's start counts as a ":" before its first byte.
    uint64_t lastColons = uint64_t(1) << 63, lastTags = 0;
    bool openTagged = false;  // the open item's key is tagged
    // A run taken whole by a key walk: every block holds a ":" (so no item
    // is long enough to be cut), every item has its "=", the run does not
    // fill the last slot nor end the line, and no item's key is the key.
    // The key's items are found without stepping through the items: an item
    // whose key is the key has the key's last byte `tag.at` bytes past its
    // ":" and its "=" one byte further, and the few items so marked are
    // compared whole.  Any doubt leaves the run to the item walk, and so
    // does an open item whose key is tagged.
    auto wholeRun = [&](std::size_t base, const Marks *ms, std::size_t count) __attribute__((always_inline)) {
        if constexpr (!kExact) {
            return false;
        } else {
            const unsigned at = tag.at;
            // (An open item with a tagged key may be the key's: its ":"
            // comes in this run.)
            if (!walking || openTagged || at > 62) return false;
            uint64_t prevColons = lastColons, prevTags = lastTags, ends = 0, noEq = 0;
            bool noColon = false, eqOpen = eq != kNone;
            std::size_t closed = 0, marked = 0;
            uint8_t markedAt[kRun];
            uint64_t markedEnds[kRun];
            for (std::size_t j = 0; j < count; ++j) {
                const uint64_t c = ms[j].colons, e = ms[j].eqs, t = ms[j].tags;
                ends |= ms[j].ends;
                noColon |= c == 0;
                closed += std::size_t(bitCount(c));
                bool carry;
                noEq |= c & ~addCarry(~c, e, eqOpen, &carry);
                // With a ":" in the block, its open item has an "=" when
                // one comes after the last ":" (no byte is both).
                eqOpen = e > c;
                const uint64_t keyEnds = marksBefore(c, prevColons, at + 1) & marksBefore(t, prevTags, 1) & e;
                markedAt[marked] = uint8_t(j);
                markedEnds[marked] = keyEnds;
                marked += keyEnds != 0;
                prevColons = c;
                prevTags = t;
            }
            if (ends != 0 || noColon || noEq != 0 || slot + closed >= limit ||
                base + std::size_t(std::countr_zero(ms[0].colons)) - start > kShortItem)
                return false;
            for (std::size_t i = 0; i < marked; ++i) {
                for (uint64_t keyEnds = markedEnds[i]; keyEnds != 0; keyEnds &= keyEnds - 1) {
                    const std::size_t q = base + markedAt[i] * kBlock + std::size_t(std::countr_zero(keyEnds));
                    if (std::memcmp(p + q - at, key.data(), at) == 0) return false;
                }
            }
            // The run's last ":" closed its items; the open one starts after it.
            const Marks &m = ms[count - 1];
            const std::size_t lastBase = base + (count - 1) * kBlock;
            const int last = 63 - std::countl_zero(m.colons);
            const uint64_t after = m.eqs & ~((uint64_t(2) << last) - 1);
            const uint64_t pc = count > 1 ? ms[count - 2].colons : lastColons;
            openTagged = (marksBefore(m.colons, pc, at) & m.tags) > m.colons;
            start = lastBase + std::size_t(last) + 1;
            eq = after != 0 ? lastBase + std::size_t(std::countr_zero(after)) : kNone;
            slot += closed;
            slots += long(closed);
            lastColons = m.colons;
            lastTags = m.tags;
            return true;
        }
    };
    const std::size_t length = forEachBlock(
        text, kTagged ? tag.last : '\0',
        [&](std::size_t base, Marks m) __attribute__((always_inline)) {
            slots += bitCount(m.colons);
            if (!walking) return true;
            if constexpr (kTagged) {
                const uint64_t colons = m.colons;
                // The tag's byte `tag.at` bytes past a ":".
                const uint64_t tagged = marksBefore(colons, lastColons, tag.at) & m.tags;
                lastColons = colons;
                lastTags = m.tags;
                // (The "=" chain's carry out is not kept: `eq` below holds
                // the open item's "=".)
                bool eqCarry;
                const uint64_t withEq = addCarry(~colons, m.eqs, eq != kNone, &eqCarry) & colons;
                const uint64_t withTag = addCarry(~colons, tagged, openTagged, &openTagged) & colons;
                const long closed = bitCount(colons);
                if ((colons & ~withEq) == 0 && slot + std::size_t(closed) < limit &&
                    (colons == 0 || base + std::size_t(std::countr_zero(colons)) - start <= kShortItem)) {
                    const std::size_t first = slot;
                    for (uint64_t t = withTag; t != 0; t &= t - 1) {
                        uint64_t mark = t & -t, below = mark - 1, before = colons & below;
                        std::size_t eqAt;
                        if (before != 0) {
                            int q = 63 - std::countl_zero(before);
                            start = base + std::size_t(q) + 1;
                            eqAt = base + std::size_t(std::countr_zero(m.eqs & below & ~((uint64_t(2) << q) - 1)));
                        } else {
                            eqAt = eq != kNone ? eq : base + std::size_t(std::countr_zero(m.eqs & below));
                        }
                        slot = first + std::size_t(bitCount(before));
                        if (!item(eqAt, base + std::size_t(std::countr_zero(mark))) && stopped) return false;
                    }
                    // The block's last ":" closed its items; the open one
                    // starts after it.
                    if (colons != 0) {
                        int last = 63 - std::countl_zero(colons);
                        uint64_t after = m.eqs & ~((uint64_t(2) << last) - 1);
                        start = base + std::size_t(last) + 1;
                        eq = after != 0 ? base + std::size_t(std::countr_zero(after)) : kNone;
                        slot = first + std::size_t(closed);
                    } else if (eq == kNone && m.eqs != 0) {
                        eq = base + std::size_t(std::countr_zero(m.eqs));
                    }
                    return true;
                }
            }
            for (uint64_t colons = m.colons; colons != 0; colons &= colons - 1) {
                uint64_t mark = colons & -colons, below = mark - 1;
                std::size_t at = base + std::size_t(std::countr_zero(mark));
                // The block's first "=" before this ":", or the ":" itself.
                std::size_t first = base + std::size_t(std::countr_zero((m.eqs & below) | mark));
                if (!item(eq != kNone ? eq : first, at)) {
                    walking = false;
                    return !stopped;
                }
                m.eqs &= ~below;
            }
            if (eq == kNone && m.eqs != 0) eq = base + std::size_t(std::countr_zero(m.eqs));
            return true;
        },
        wholeRun);
    return Walk{cut, slots, length, stopped};
}

template <class F>
QMX_INLINE Walk walkItems(std::string_view line, std::size_t limit, F &&f) {
    return walkBlocks<false>(line, limit, Tag{}, std::forward<F>(f));
}

// The trace line and code of a line with more item slots than a list may
// hold; kReadRefused.
long refuseSlots() noexcept {
    trace("qmxldd.conf has too many items");
    setError(QMX_ERR_DATA_FILE);
    return kReadRefused;
}

// The result of a read whose walk counted the slots: the slot count, or
// kReadRefused (its trace lines and code 9) when a list could not hold them.
int walkResult(const Walk &walk) noexcept {
    if (walk.slots > kMaxKeySlots) {
        refuseSlots();
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadRefused;
    }
    if (walk.cut) trace("qmxldd.conf item truncated");
    return int(walk.slots);
}

// The item slots (":" marks) of the first line of `line`.
QMX_WALK_LEVELS long slotsOf(std::string_view line) noexcept {
    long slots = 0;
    forEachBlock(line, '\0', [&](std::size_t, Marks m) __attribute__((always_inline)) {
        slots += bitCount(m.colons);
        return true;
    });
    return slots;
}

// The item slots of a line; kReadRefused (with its trace line and code 9)
// when there are more than a list may hold.
long countSlots(std::string_view line) noexcept {
    long slots = slotsOf(line);
    return slots > kMaxKeySlots ? refuseSlots() : slots;
}

// The walks of the readers, each built for every level.

// A key list's slots filled from the line.
QMX_WALK_LEVELS Walk fillList(std::string_view line, std::size_t slots, util_para *list) noexcept {
    return walkItems(line, slots, [&](std::size_t slot, auto key, auto value) __attribute__((always_inline)) {
        copyText(list[slot].keyword, key);
        copyText(list[slot].value, value);
    });
}

// The line's items, one per filled slot.
QMX_WALK_LEVELS Walk gatherWalk(std::string_view line, ConfItems &items) {
    return walkItems(line, kMaxKeySlots, [&](std::size_t, auto key, auto value) __attribute__((always_inline)) {
        items.push_back(ConfItem{key, value});
    });
}

// The first slot whose key is `key` (in *slot, -1 if none); the walk stops
// there.  canTag(key) must hold.
QMX_WALK_LEVELS Walk probeWalk(std::string_view line, std::string_view key, int *slot) noexcept {
    return walkBlocks<true, true>(
        line, kMaxKeySlots, Tag{key.back(), unsigned(key.size())},
        [&](std::size_t at, std::string_view k, std::string_view) __attribute__((always_inline)) {
            if (k != key) return true;
            *slot = int(at);
            return false;
        },
        key);
}

// Hands `visit` the items whose key begins with `prefix`.
QMX_WALK_LEVELS Walk visitWalk(std::string_view line, std::string_view prefix, ItemVisitor visit,
                               void *ctx) noexcept {
    auto take = [&](std::size_t, std::string_view key, std::string_view value) __attribute__((always_inline)) {
        // Most keys share their first bytes ("qmx"): the prefix's last byte
        // tells most of them apart before a whole compare.
        if (key.size() >= prefix.size() && (prefix.empty() || key[prefix.size() - 1] == prefix.back()) &&
            key.starts_with(prefix))
            visit(ctx, key, value);
    };
    // The prefix's last byte tags the keys to look at, where it can.
    return canTag(prefix) ? walkBlocks<true>(line, kMaxKeySlots, Tag{prefix.back(), unsigned(prefix.size())}, take)
                  : walkItems(line, kMaxKeySlots, take);
}

}  // namespace

int parseKeyLine(const char *text, std::size_t len, util_para **key_list) noexcept {
    if (key_list == nullptr) return kReadNoFile;
    *key_list = nullptr;
    if (text == nullptr) return 0;
    // The walks end at the line's end themselves.
    std::string_view line(text, len);
    long slots = countSlots(line);
    if (slots <= 0) return int(slots);
    auto *list = static_cast<util_para *>(std::calloc(std::size_t(slots), sizeof(util_para)));
    if (list == nullptr) {
        sysError("malloc", errno);
        return kReadNoMemory;
    }
    // Every page of the list is written: huge pages fault far fewer times.
    if (std::size_t(slots) * sizeof(util_para) >= kBigBlockBytes)
        adviseHugePages(list, std::size_t(slots) * sizeof(util_para));
    *key_list = list;
    return walkResult(fillList(line, std::size_t(slots), list));
}

namespace {

// The first steps of a read, shared by the list reader and the one-read
// lookups: the guard on the driver file (a rewrite a crash interrupted is
// finished first), then the buffer size from `sizePath`.  Returns 1 with the
// file's size, or the read's result (0 or below) when it ends here.
int sizeForRead(const char *sizePath, const char *path, ConfReadGuard &guard, std::size_t *size) noexcept {
    trace("QMX_Read_qmxlddconf START");
    if (sizePath == nullptr || path == nullptr) {
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadNoFile;
    }
    if (!guard.acquire(sizePath)) {
        sysError(guard.error().call, guard.error().err);
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadIoError;
    }
    // The buffer is sized from the driver file also when the library file is
    // read: a longer library line is cut at that size.
    struct stat st;
    if (const std::string *text = guard.pending()) {
        st.st_size = off_t(text->size());
    } else if ((guard.fd() >= 0 ? fstat(guard.fd(), &st) : stat(sizePath, &st)) != 0) {
        sysError("stat", errno);
        return kReadNoFile;
    }
    if (st.st_size == 0) return 0;
    if (st.st_size < 0 || st.st_size > kMaxConfBytes) {
        trace("qmxldd.conf is too large");
        setError(QMX_ERR_DATA_FILE);
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadRefused;
    }
    *size = std::size_t(st.st_size);
    return 1;
}

// A read that failed is not an empty file: no caller may take it for one
// (a setter would rewrite the file from its new items alone).
int readFailed(int err) noexcept {
    sysError("read", err);
    trace("QMX_Read_qmxlddconf ABEND");
    return kReadIoError;
}

// The text whose first line one fgets into a buffer of the size plus one
// would read: at most the size's bytes (the line ends there, or at the first
// newline or NUL, which the walks and firstLine find).  The text is read
// into `buf` (grown when too short); 1 with the text in *text, or the read's
// result (0 or below) when it ends here.  *opened tells whether the file was
// opened.
int readText(const char *sizePath, const char *path, ReadBuffer &buf, std::string_view *text,
             bool *opened) noexcept {
    *opened = false;
    ConfReadGuard guard;
    std::size_t size = 0;
    int sized = sizeForRead(sizePath, path, guard, &size);
    if (sized <= 0) return sized;
    if (!buf.reserve(size)) {
        sysError("malloc", ENOMEM);
        return kReadNoMemory;
    }
    if (const std::string *pending = guard.pending(); pending != nullptr && std::strcmp(path, sizePath) == 0) {
        // The journal's text stands for the file's (see journal.cpp).
        *opened = true;
        std::memcpy(buf.data(), pending->data(), size);
        *text = std::string_view(buf.data(), size);
        return 1;
    }
    std::size_t got = 0;
    int err = 0;
    if (guard.fd() >= 0 && std::strcmp(path, sizePath) == 0) {
        // The driver file is read through the descriptor its lock is held
        // on: the same text a stream of its own would give, without a
        // second open.
        trace("QMX_fopen START");
        *opened = true;
        if (!readAllAt(guard.fd(), buf.data(), size, &got)) err = errno;
    } else {
        FILE *fp = QMX_fopen(const_cast<char *>(path), const_cast<char *>("re"));
        if (fp == nullptr) {
            trace("QMX_Read_qmxlddconf ABEND");
            return kReadNoOpen;
        }
        *opened = true;
        got = std::fread(buf.data(), 1, size, fp);
        err = std::ferror(fp) ? (errno != 0 ? errno : EIO) : 0;
        std::fclose(fp);
    }
    // Like fgets, a read error fails the read whatever came before it.
    if (err != 0) return readFailed(err);
    if (got == 0) return 0;
    *text = std::string_view(buf.data(), got);
    return 1;
}

}  // namespace

int readKeyFile(const char *sizePath, const char *path, util_para **key_list) noexcept {
    if (key_list != nullptr) *key_list = nullptr;
    ReadBuffer buf;
    std::string_view line;
    bool opened = false;
    int got = readText(sizePath, key_list == nullptr ? nullptr : path, buf, &line, &opened);
    if (got <= 0) return got;
    int result = parseKeyLine(line.data(), line.size(), key_list);
    if (result < 0) trace("QMX_Read_qmxlddconf ABEND");
    return result;
}

namespace {

// The items of the first line of `out.line` into `out.items`, one per slot,
// as a key list read fills its slots; `out.line` is then that line, and
// the walk's count and cut are in *walk.
void gatherItems(ConfText &out, Walk *walk) {
    out.items.clear();
    // About one item in 16 bytes of a driver file; the list grows past that.
    out.items.reserve(std::min<std::size_t>(out.line.size() / 16 + 1, kMaxKeySlots));
    *walk = gatherWalk(out.line, out.items);
    out.line = out.line.substr(0, walk->length);
    // The slots after an item without "=" stay empty; a line with too many
    // slots is refused after the walk (the items gathered so far dropped).
    if (walk->slots <= kMaxKeySlots)
        out.items.resize(std::size_t(walk->slots));
    else
        out.items.clear();
    out.gathered = true;
}

// The first steps of readConfItems: the read into `out.text`, the text read
// in `out.line` (its first line once walked); 1, or the read's result when
// it ends here.
int readConfLine(const char *sizePath, const char *path, ConfText &out) noexcept {
    out.items.clear();
    out.line = {};
    out.gathered = true;
    bool opened = false;
    return readText(sizePath, path, out.text, &out.line, &opened);
}

int gatherFailed(ConfText &out) noexcept {
    out.items.clear();
    sysError("malloc", ENOMEM);
    trace("QMX_Read_qmxlddconf ABEND");
    return kReadNoMemory;
}

}  // namespace

int readConfItems(const char *sizePath, const char *path, ConfText &out) noexcept {
    int got = readConfLine(sizePath, path, out);
    if (got <= 0) return got;
    Walk walk;
    try {
        gatherItems(out, &walk);
    } catch (const std::bad_alloc &) {
        return gatherFailed(out);
    }
    return walkResult(walk);
}

int probeConfItems(const char *sizePath, const char *path, std::string_view key, ConfText &out,
                   int *slot) noexcept {
    *slot = -1;
    int got = readConfLine(sizePath, path, out);
    if (got <= 0) return got;
    // A key the tagged walk cannot look for is looked for in the gathered
    // items.  A key found means a caller needs the items: they are gathered,
    // and their walk counts the whole line.
    const bool tagged = canTag(key);
    Walk walk;
    if (tagged) walk = probeWalk(out.line, key, slot);
    if (tagged && !walk.stopped) {
        out.gathered = false;
        out.line = out.line.substr(0, walk.length);
    } else {
        try {
            gatherItems(out, &walk);
        } catch (const std::bad_alloc &) {
            *slot = -1;
            return gatherFailed(out);
        }
        for (std::size_t i = 0; !tagged && i < out.items.size(); ++i)
            if (out.items[i].key == key) {
                *slot = int(i);
                break;
            }
    }
    int result = walkResult(walk);
    if (result < 0) *slot = -1;
    return result;
}

bool gatherConfItems(ConfText &out) noexcept {
    if (out.gathered) return true;
    try {
        Walk walk;
        gatherItems(out, &walk);
        return true;
    } catch (const std::bad_alloc &) {
        out.items.clear();
        return false;
    }
}

int visitConfItems(const char *sizePath, const char *path, std::string_view prefix, ItemVisitor visit,
                   void *ctx) noexcept {
    ReadBuffer buffer;
    std::string_view line;
    bool opened = false;
    int got = readText(sizePath, path, buffer, &line, &opened);
    if (got <= 0) return got;
    return walkResult(visitWalk(line, prefix, visit, ctx));
}

// ---------------------------------------------------------------------------
// One-read lookups.  The text of the last line read and its index are kept
// for the process: a later read of the same text (compared byte for byte,
// never assumed from the file's time stamps) reuses the index, so a lookup
// costs the read itself and a hash lookup.
// ---------------------------------------------------------------------------
struct ConfLookup::Snapshot {
    std::string line;
    int slots = 0;
    bool cut = false;
    // The first filled slot of each key (as its field holds it): its value.
    std::unordered_map<std::string_view, std::string_view> first;
};

namespace {

// The module's read buffer and its last snapshot (single-threaded, as the
// whole library).
ReadBuffer readBuffer;
std::shared_ptr<const ConfLookup::Snapshot> lastSnapshot;

}  // namespace

int ConfLookup::read(const char *sizePath, const char *path) noexcept {
    snap_.reset();
    opened_ = cut_ = false;
    std::string_view line;
    int got = readText(sizePath, path, readBuffer, &line, &opened_);
    if (got <= 0) return got;
    line = firstLine(line.data(), line.size());
    try {
        if (!lastSnapshot || lastSnapshot->line != line) {
            lastSnapshot.reset();
            long slots = countSlots(line);
            if (slots < 0) {
                trace("QMX_Read_qmxlddconf ABEND");
                return int(slots);
            }
            if (slots == 0) return 0;
            auto snap = std::make_shared<Snapshot>();
            snap->line.assign(line);
            snap->slots = int(slots);
            snap->first.reserve(std::size_t(slots));
            std::string_view text(snap->line);
            snap->cut = walkItems(text, std::size_t(slots), [&](std::size_t, auto key, auto value) {
                snap->first.emplace(key, value);
            }).cut;
            lastSnapshot = std::move(snap);
        }
    } catch (const std::bad_alloc &) {
        sysError("malloc", ENOMEM);
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadNoMemory;
    }
    snap_ = lastSnapshot;
    cut_ = snap_->cut;
    if (cut_) trace("qmxldd.conf item truncated");
    return snap_->slots;
}

void ConfLookup::retrace() const noexcept {
    trace("QMX_Read_qmxlddconf START");
    if (opened_) trace("QMX_fopen START");
    if (cut_) trace("qmxldd.conf item truncated");
}

bool ConfLookup::find(std::string_view key, std::string_view *value) const noexcept {
    if (!snap_ || key.size() > kKeyRoom) return false;
    auto it = snap_->first.find(key);
    if (it == snap_->first.end()) return false;
    *value = it->second;
    return true;
}

int readKeyList(const ConfStore &store, util_para **key_list, int flg) noexcept {
    if (flg != 0 && flg != 1) {
        trace("QMX_Read_qmxlddconf START");
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadNoFile;
    }
    return readKeyFile(store.conf, flg == 0 ? store.conf : store.lib, key_list);
}

}  // namespace qmx

int QMX_Read_qmxlddconf(util_para **key_list, int flg) {
    int n = qmx::readKeyList(qmx::kSystemStore, key_list, flg);
    // Allocation failures and refused files are both "-1" to callers.
    return n < qmx::kReadNoOpen ? -1 : n;
}

int qmx_getpos(char *keyword) {
    if (keyword == nullptr) return -1;
    return qmx::portOfKey(std::string_view(keyword, strnlen(keyword, sizeof(util_para::keyword))));
}

int qmx::portOfKey(std::string_view key) noexcept {
    if (!key.starts_with("qmx") || key.starts_with("qmxl")) return -1;
    std::size_t us = key.find('_', 3);
    if (us == std::string_view::npos) return -1;
    // atoi of the text between "qmx" and the first "_" (empty text gives 0).
    return qmx::atoiText(key.substr(3, us - 3));
}

namespace {

// "qmxl<N>-wwpn" adapter keys (not the "-tid" target keys).
bool isAdapterKey(std::string_view key) {
    return key.starts_with("qmxl") && key.find("-wwpn") != std::string_view::npos &&
           key.find("-tid") == std::string_view::npos;
}

}  // namespace

int QMX_SearchInKeylist(QMX_WWN wwn, util_para *key_list, int list_max, int *maxadapnum) {
    qmx::trace("QMX_SearchInKeylist START");
    const qmx::WwnText wanted = qmx::wwnText(wwn);
    const std::string_view text(wanted.text);
    if (key_list == nullptr || list_max <= 0) {
        if (maxadapnum != nullptr) *maxadapnum = 0;
        qmx::trace("QMX_SearchInKeylist ABEND");
        return -1;
    }
    int found = -1;
    for (int i = 0; i < list_max; ++i) {
        const util_para &p = key_list[i];
        std::string_view key = qmx::keyOf(p);
        if (qmx::valueOf(p) != text || !isAdapterKey(key)) continue;
        found = qmx::atoiText(key.substr(4));
        break;
    }
    int highest = -1;
    for (int i = 0; i < list_max; ++i) {
        std::string_view key = qmx::keyOf(key_list[i]);
        if (!isAdapterKey(key)) continue;
        int n = qmx::atoiText(key.substr(4));
        if (n > highest) highest = n;
    }
    if (maxadapnum != nullptr) *maxadapnum = highest;
    qmx::trace("QMX_SearchInKeylist END");
    return found;
}
