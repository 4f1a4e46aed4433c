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

char *intText(char *out, long v) { return std::to_chars(out, out + 24, v).ptr; }

char *put(char *out, std::string_view s) {
    std::memcpy(out, s.data(), s.size());
    return out + s.size();
}

}  // namespace

char *hexText(char *out, uint64_t v, int digits) {
    char buf[16];
    auto res = std::to_chars(buf, buf + sizeof buf, v, 16);
    int len = int(res.ptr - buf);
    out = put(out, "0x");
    for (; len < digits; --digits) *out++ = '0';
    return put(out, std::string_view(buf, std::size_t(len)));
}

// At most 4 + 11 + 5 + 11 + 1 + 9 characters.
char *bindingKeyText(char *out, const __TBLKEY &r) {
    static constexpr const char *kWords[] = {"wwpn",      "wwnn",      nullptr,     "attribute",
                                             "priority0", "priority1", "priority2", "priority3",
                                             "gt"};
    if (r.npd < kBindWwpn || r.npd > kBindGroup || kWords[r.npd - 1] == nullptr) return nullptr;
    out = put(out, "qmxl");
    out = intText(out, r.adapt);
    out = put(out, "-tid-");
    out = intText(out, r.target);
    *out++ = '-';
    return put(out, kWords[r.npd - 1]);
}

// The key, "=", at most 24 value characters and ":".
char *bindingItemText(char *out, const __TBLKEY &r) {
    out = bindingKeyText(out, r);
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
