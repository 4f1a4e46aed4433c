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
#include <unordered_map>

#include "config/config.h"
#include "frame/frame.h"

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
    void *p = size < kBigBlockBytes ? ::operator new(size, std::nothrow) : takeBigBlock(size);
    if (p == nullptr) return false;
    data_ = static_cast<char *>(p);
    size_ = size;
    return true;
}

void ReadBuffer::release() noexcept {
    if (data_ == nullptr) return;
    if (size_ < kBigBlockBytes)
        ::operator delete(data_);
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

// Eight bytes of a line at a time: the bytes of a word that equal a given
// character are found without a branch per byte (little-endian words; other
// machines take the byte loops).
constexpr bool kWordScan = std::endian::native == std::endian::little;
constexpr uint64_t kOnes = 0x0101010101010101ULL, kLow7 = 0x7f7f7f7f7f7f7f7fULL;

// The high bit of every byte of `w` that equals `c`, exactly (no borrow
// from one byte into the next).
inline uint64_t bytesEqual(uint64_t w, char c) noexcept {
    uint64_t x = w ^ (kOnes * uint8_t(c));
    return ~(((x & kLow7) + kLow7) | x | kLow7);
}

inline uint64_t wordAt(const char *p) noexcept {
    uint64_t w;
    std::memcpy(&w, p, 8);
    return w;
}

// Walks the items of a line in slot order as the reader fills its slots:
// `f(slot, key, value)` with the key and the value cut to what their fields
// hold.  An item without "=" ends the walk.  True when any text was cut.
// One pass over the line's ":" and "=" marks.
template <class F>
bool walkItems(std::string_view line, std::size_t slots, F &&f) {
    bool cut = false;
    constexpr std::size_t kNone = std::size_t(-1);
    std::size_t start = 0, eq = kNone, slot = 0;
    const char *p = line.data();
    const std::size_t n = line.size();
    // false: the walk ends here.
    auto mark = [&](std::size_t at) {
        if (p[at] == '=') {
            if (eq == kNone) eq = at;
            return true;
        }
        if (eq == kNone) return false;
        std::size_t keyLen = eq - start, valueLen = at - eq - 1;
        if (keyLen > kKeyRoom || valueLen > kValueRoom) {
            cut = true;
            keyLen = std::min(keyLen, kKeyRoom);
            valueLen = std::min(valueLen, kValueRoom);
        }
        f(slot, std::string_view(p + start, keyLen), std::string_view(p + eq + 1, valueLen));
        start = at + 1;
        eq = kNone;
        return ++slot < slots;
    };
    if (slots == 0) return false;
    std::size_t i = 0;
    if constexpr (kWordScan) {
        for (; i + 8 <= n; i += 8) {
            uint64_t w = wordAt(p + i);
            for (uint64_t m = bytesEqual(w, ':') | bytesEqual(w, '='); m != 0; m &= m - 1)
                if (!mark(i + std::size_t(std::countr_zero(m) >> 3))) return cut;
        }
    }
    for (; i < n; ++i)
        if ((p[i] == ':' || p[i] == '=') && !mark(i)) return cut;
    return cut;
}

// The item slots of a line; kReadRefused (with its trace line and code 9)
// when there are more than a list may hold.
long countSlots(std::string_view line) noexcept {
    long slots = 0;
    const char *p = line.data();
    std::size_t i = 0, n = line.size();
    if constexpr (kWordScan)
        for (; i + 8 <= n; i += 8)
            // One high bit a match: their sum gathered in the top byte.
            slots += long((((bytesEqual(wordAt(p + i), ':') >> 7) * kOnes) >> 56));
    for (; i < n; ++i) slots += p[i] == ':';
    if (slots > kMaxKeySlots) {
        trace("qmxldd.conf has too many items");
        setError(QMX_ERR_DATA_FILE);
        return kReadRefused;
    }
    return slots;
}

}  // namespace

int parseKeyLine(const char *text, std::size_t len, util_para **key_list) noexcept {
    if (key_list == nullptr) return kReadNoFile;
    *key_list = nullptr;
    if (text == nullptr) return 0;
    std::string_view line = firstLine(text, len);
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
    bool cut = walkItems(line, std::size_t(slots), [&](std::size_t slot, auto key, auto value) {
        copyText(list[slot].keyword, key);
        copyText(list[slot].value, value);
    });
    if (cut) trace("qmxldd.conf item truncated");
    *key_list = list;
    return int(slots);
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
    } else if (stat(sizePath, &st) != 0) {
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

// The first line of a file as one fgets into a buffer of its size plus one
// would read it: at most the size's bytes, up to a newline or a NUL.  The
// text is read into `buf` (grown when too short); 1 with the line in *line,
// or the read's result (0 or below) when it ends here.  *opened tells
// whether the file was opened.
int readFirstLine(const char *sizePath, const char *path, ReadBuffer &buf, std::string_view *line,
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
    if (const std::string *text = guard.pending(); text != nullptr && std::strcmp(path, sizePath) == 0) {
        // The journal's text stands for the file's (see journal.cpp).
        *opened = true;
        std::memcpy(buf.data(), text->data(), size);
        *line = firstLine(buf.data(), size);
        return 1;
    }
    FILE *fp = QMX_fopen(const_cast<char *>(path), const_cast<char *>("re"));
    if (fp == nullptr) {
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadNoOpen;
    }
    *opened = true;
    std::size_t got = std::fread(buf.data(), 1, size, fp);
    // Like fgets, a read error fails the read whatever came before it.
    int err = std::ferror(fp) ? (errno != 0 ? errno : EIO) : 0;
    std::fclose(fp);
    if (err != 0) return readFailed(err);
    if (got == 0) return 0;
    *line = firstLine(buf.data(), got);
    return 1;
}

}  // namespace

int readKeyFile(const char *sizePath, const char *path, util_para **key_list) noexcept {
    if (key_list != nullptr) *key_list = nullptr;
    ReadBuffer buf;
    std::string_view line;
    bool opened = false;
    int got = readFirstLine(sizePath, key_list == nullptr ? nullptr : path, buf, &line, &opened);
    if (got <= 0) return got;
    int result = parseKeyLine(line.data(), line.size(), key_list);
    if (result < 0) trace("QMX_Read_qmxlddconf ABEND");
    return result;
}

int readConfItems(const char *sizePath, const char *path, ConfText &out) noexcept {
    out.items.clear();
    std::string_view line;
    bool opened = false;
    int got = readFirstLine(sizePath, path, out.text, &line, &opened);
    if (got <= 0) return got;
    long slots = countSlots(line);
    if (slots < 0) {
        trace("QMX_Read_qmxlddconf ABEND");
        return int(slots);
    }
    try {
        out.items.reserve(std::size_t(slots));
    } catch (const std::bad_alloc &) {
        sysError("malloc", ENOMEM);
        trace("QMX_Read_qmxlddconf ABEND");
        return kReadNoMemory;
    }
    // The slots after an item without "=" stay empty.
    bool cut = walkItems(line, std::size_t(slots), [&](std::size_t, auto key, auto value) {
        out.items.push_back(ConfItem{key, value});
    });
    out.items.resize(std::size_t(slots));
    if (cut) trace("qmxldd.conf item truncated");
    return int(slots);
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
    int got = readFirstLine(sizePath, path, readBuffer, &line, &opened_);
    if (got <= 0) return got;
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
            });
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
