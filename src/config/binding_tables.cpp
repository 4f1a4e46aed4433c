// Storage of the persistent binding tables (see binding_tables.h).
#include "config/binding_tables.h"

#include <charconv>
#include <cstring>
#include <string_view>

__TBLKEY TBLKEY[BINDMAX];
int bind_cnt = 0;
int pbind_cnt = 0;
__WWPN WWPN[HADAPTMAX];
int wwpn_cnt = 0;

namespace {

// An int's decimal text (at most 11 characters).
char *intText(char *out, int v) { return std::to_chars(out, out + 11, v).ptr; }

char *put(char *out, std::string_view s) {
    std::memcpy(out, s.data(), s.size());
    return out + s.size();
}

// The last word of a record kind's key; kinds without a key have none.
struct Word {
    char text[16];
    std::size_t len;
};
constexpr Word kWords[] = {{"wwpn", 4},      {"wwnn", 4},      {"", 0},
                           {"attribute", 9}, {"priority0", 9}, {"priority1", 9},
                           {"priority2", 9}, {"priority3", 9}, {"gt", 2}};

}  // namespace

char *hexText(char *out, uint64_t v, int digits) {
    out = put(out, "0x");
    if (digits == 16) {  // a whole word (the priority words): no count to find
        for (int i = 0; i < 16; ++i) out[i] = "0123456789abcdef"[(v >> (60 - 4 * i)) & 15];
        return out + 16;
    }
    char buf[16];
    auto res = std::to_chars(buf, buf + sizeof buf, v, 16);
    int len = int(res.ptr - buf);
    for (; len < digits; --digits) *out++ = '0';
    return put(out, std::string_view(buf, std::size_t(len)));
}

// The copies below are of whole fields (the prefix's and the word's), not
// of their lengths: a fixed copy is a few moves, a counted one a call.  The
// caller's kBindingTextMax characters hold them.
static_assert(32 + sizeof(Word::text) <= kBindingTextMax);

char *BindingTextWriter::key(char *out, const __TBLKEY &r) {
    if (r.npd < kBindWwpn || r.npd > kBindGroup || kWords[r.npd - 1].len == 0) return nullptr;
    if (!held_ || r.adapt != adapt_ || r.target != target_) {
        char *p = put(prefix_, "qmxl");
        p = intText(p, r.adapt);
        p = put(p, "-tid-");
        p = intText(p, r.target);
        *p++ = '-';
        len_ = std::size_t(p - prefix_);
        held_ = true;
        adapt_ = r.adapt;
        target_ = r.target;
    }
    std::memcpy(out, prefix_, sizeof prefix_);
    out += len_;
    const Word &w = kWords[r.npd - 1];
    std::memcpy(out, w.text, sizeof w.text);
    return out + w.len;
}

// The key, "=", at most 24 value characters and ":".
char *BindingTextWriter::item(char *out, const __TBLKEY &r) {
    out = key(out, r);
    if (out == nullptr) return nullptr;
    *out++ = '=';
    switch (r.npd) {
        case kBindWwpn:
        case kBindWwnn:
            out = put(out, std::string_view(r.bind, strnlen(r.bind, sizeof r.bind)));
            break;
        case kBindAttribute:
            out = hexText(out, unsigned(r.attribute), 2);
            break;
        case kBindGroup:
            out = intText(out, r.group);
            break;
        default:  // priority0..3
            out = hexText(out, r.priority[r.npd - kBindPriority0], 16);
            break;
    }
    *out++ = ':';
    return out;
}

char *bindingKeyText(char *out, const __TBLKEY &r) { return BindingTextWriter().key(out, r); }
char *bindingItemText(char *out, const __TBLKEY &r) { return BindingTextWriter().item(out, r); }
