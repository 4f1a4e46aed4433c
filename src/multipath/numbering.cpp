// Adapter numbering: report the numbers as the driver has them or as the
// configuration file fixes them, change the file's numbering, and remove a
// port's device path.
#include "multipath/numbering.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

#include "config/config.h"
#include "frame/frame.h"

namespace qmx::numbering {

namespace {

// The one adapter model that the current numbering leaves out is the model
// the library does not serve at all (refused by the port lookup too), so a
// tool never gets a number for a port it cannot address.
constexpr uint32_t kExcludedDeviceWord = kUnsupportedDeviceWord;

constexpr std::string_view kAdapterKey = "qmxl";  // qmxl<N>-...
constexpr std::string_view kPortKey = "qmx";      // qmx<N>_...

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads the number written at key[pos] exactly as "%d" writes it (no
// leading zeros, no "+", "-0" never), followed by `term`.  Such a key begins
// with the prefix formed from that number, and no other number's prefix.
bool printedNumberAt(std::string_view key, std::size_t pos, char term, int *out) {
    std::size_t i = pos;
    bool neg = i < key.size() && key[i] == '-';
    if (neg) ++i;
    std::size_t first = i;
    while (i < key.size() && isDigit(key[i]) && i - first <= 10) ++i;
    std::size_t digits = i - first;
    if (digits == 0 || digits > 10 || i >= key.size() || key[i] != term) return false;
    if (key[first] == '0' && (digits > 1 || neg)) return false;
    long long v = 0;
    for (std::size_t k = first; k < i; ++k) v = v * 10 + (key[k] - '0');
    if (neg) v = -v;
    if (v < INT_MIN || v > INT_MAX) return false;
    *out = int(v);
    return true;
}

// The keys of each adapter number: those beginning with "qmxl<N>-" or
// "qmx<N>_".  Built once per request so that each entry's removal costs the
// size of its own keys, not a pass over the whole list.
class PrefixIndex {
public:
    PrefixIndex(util_para *list, int count) {
        for (int i = 0; i < count; ++i) {
            std::string_view key = keyOf(list[i]);
            int n = 0;
            bool hit = key.substr(0, kAdapterKey.size()) == kAdapterKey
                           ? printedNumberAt(key, kAdapterKey.size(), '-', &n)
                           : key.substr(0, kPortKey.size()) == kPortKey &&
                                 printedNumberAt(key, kPortKey.size(), '_', &n);
            if (hit) byNumber_[n].push_back(i);
        }
    }
    const std::vector<int> &keysOf(int n) const {
        static const std::vector<int> none;
        auto it = byNumber_.find(n);
        return it == byNumber_.end() ? none : it->second;
    }

private:
    std::unordered_map<int, std::vector<int>> byNumber_;
};

// Adapter keys ("-wwpn", not "-tid") by the first 18 characters of their
// value, so that "the first key whose value begins with this WWPN" is a
// lookup.  Values rebound during the request move with them.
class WwpnIndex {
public:
    WwpnIndex(util_para *list, int count) : list_(list), candidate_(std::size_t(count), false) {
        for (int i = 0; i < count; ++i) {
            std::string_view key = keyOf(list[i]);
            if (key.find("-wwpn") == std::string_view::npos ||
                key.find("-tid") != std::string_view::npos)
                continue;
            candidate_[std::size_t(i)] = true;
            add(i);
        }
    }
    // Index of the first candidate whose value begins with `text`, or -1.
    int first(std::string_view text) const {
        auto it = byValue_.find(std::string(text));
        return it == byValue_.end() || it->second.empty() ? -1 : *it->second.begin();
    }
    // Changes the value of key i, keeping the index current.
    void setValue(int i, std::string_view value) {
        bool indexed = candidate_[std::size_t(i)];
        if (indexed) remove(i);
        copyText(list_[i].value, value);
        if (indexed) add(i);
    }

private:
    static std::string head(const util_para &p) {
        std::string_view v = valueOf(p);
        return v.size() < kWwnTextLen ? std::string() : std::string(v.substr(0, kWwnTextLen));
    }
    void add(int i) {
        std::string h = head(list_[i]);
        if (!h.empty()) byValue_[h].insert(i);
    }
    void remove(int i) {
        std::string h = head(list_[i]);
        auto it = byValue_.find(h);
        if (it != byValue_.end()) it->second.erase(i);
    }

    util_para *list_;
    std::vector<bool> candidate_;
    std::map<std::string, std::set<int>> byValue_;
};

void removeNumber(util_para *list, const PrefixIndex &index, int n) {
    for (int i : index.keysOf(n)) list[i].used = 1;
}

}  // namespace

void formatWwn(const QMX_WWN &w, char (&out)[kWwnTextLen + 1]) noexcept {
    std::snprintf(out, sizeof out, "0x%02x%02x%02x%02x%02x%02x%02x%02x", w.wwn[0], w.wwn[1],
                  w.wwn[2], w.wwn[3], w.wwn[4], w.wwn[5], w.wwn[6], w.wwn[7]);
}

int deviceNumber(std::string_view devname) noexcept {
    constexpr std::string_view kDev = "qmxldd";
    if (devname.substr(0, kDev.size()) != kDev) return -1;
    return atoiText(devname.substr(kDev.size()));
}

const char *firstInvalidEntry(const QMX_ADAPTERNUMBER &info) noexcept {
    int n = info.portlist_max;
    if (n > QMX_ADAPTERNUMBER_MAX) n = QMX_ADAPTERNUMBER_MAX;
    // Last entry of each valid number, to find "a later entry with the same
    // number" in one pass.
    int last[QMX_ADAPTERNUMBER_MAX + 1];
    for (int &v : last) v = -1;
    for (int i = 0; i < n; ++i) {
        int a = info.portlist[i].adapternumber;
        if (a >= 0 && a <= QMX_ADAPTERNUMBER_MAX) last[a] = i;
    }
    for (int i = 0; i < n; ++i) {
        const adapterinformation &e = info.portlist[i];
        // 256 is admitted although the highest port number is 255.
        if (e.adapternumber < 0 || e.adapternumber > QMX_ADAPTERNUMBER_MAX)
            return "Adapter number is invalid value";
        if (e.set_opr < 0 || e.set_opr > 3) return "Unknown operation value";
        if (last[e.adapternumber] > i) return "The same key exists.";
    }
    return nullptr;
}

void applyEntries(util_para *list, int count, const QMX_ADAPTERNUMBER &info,
                  std::vector<util_para> &added) {
    if (list == nullptr) count = 0;
    PrefixIndex prefixes(list, count);
    WwpnIndex wwpns(list, count);
    int n = std::min<int>(info.portlist_max, QMX_ADAPTERNUMBER_MAX);
    for (int i = 0; i < n; ++i) {
        const adapterinformation &e = info.portlist[i];
        char wwn[kWwnTextLen + 1];
        formatWwn(e.hba_wwn, wwn);
        switch (e.set_opr) {
        case QMX_ADPNUM_OPR_ASSIGN: {
            removeNumber(list, prefixes, e.adapternumber);
            util_para item;
            std::memset(&item, 0, sizeof item);
            std::snprintf(item.keyword, sizeof item.keyword, "qmxl%d-wwpn", e.adapternumber);
            copyText(item.value, wwn);
            added.push_back(item);
            break;
        }
        case QMX_ADPNUM_OPR_REMOVE: {
            // When no key holds the WWPN nothing is removed for this entry.
            // (Marking the keys of an earlier entry's number again would
            // change nothing: they are already marked.)
            int hit = wwpns.first(wwn);
            if (hit >= 0) {
                std::string_view key = keyOf(list[hit]);
                removeNumber(list, prefixes, atoiText(key.substr(kAdapterKey.size())));
            }
            break;
        }
        case QMX_ADPNUM_OPR_REBIND: {
            char k1[32], k2[32];
            int l1 = std::snprintf(k1, sizeof k1, "qmxl%d-wwpn", e.adapternumber);
            int l2 = std::snprintf(k2, sizeof k2, "qmx%d_wwpn", e.adapternumber);
            for (int k : prefixes.keysOf(e.adapternumber)) {
                std::string_view key = keyOf(list[k]);
                if (key.substr(0, std::size_t(l1)) == std::string_view(k1, std::size_t(l1)) ||
                    key.substr(0, std::size_t(l2)) == std::string_view(k2, std::size_t(l2)))
                    wwpns.setValue(k, wwn);
            }
            break;
        }
        default:
            trace("unknown mode definition. skipped.");
            break;
        }
    }
}

bool pathChangeReason(int err_code, int *reason, const char **text) noexcept {
    static constexpr struct {
        int err;
        int reason;
        const char *text;
    } kReasons[] = {
        {0, QMX_ERR_LUPATH_BAD_STATUS, "bad status"},
        {1, QMX_ERR_LUPATH_PCM_DISABLE, "QMX-PCM disable"},
        {2, QMX_ERR_LUPATH_BAD_NEW_STATUS, "bad new status"},
        {3, QMX_ERR_LUPATH_NO_DEVICE, "no device"},
        {4, QMX_ERR_LUPATH_NOT_REGISTERED, "not register lgde (no device)"},
        {10, QMX_ERR_LUPATH_ADAPTER_OFFLINE, "adapter status is not online"},
        {11, QMX_ERR_LUPATH_TARGET_OFFLINE, "target status is not online"},
        {20, QMX_ERR_LUPATH_INCOMPLETE, "request imcomplete"},
    };
    for (const auto &r : kReasons) {
        if (r.err != err_code) continue;
        *reason = r.reason;
        *text = r.text;
        return true;
    }
    return false;
}

}  // namespace qmx::numbering

using namespace qmx::numbering;

QMX_STATUS QMX_GetAdapterNumber(QMX_ADAPTERNUMBER *adapter_info, int mode) {
    return qmx::run("QMX_GetAdapterNumber", [&](qmx::Frame &f) {
        if (!f.notNull(adapter_info, "adapter_info", " == NULL")) return f.fail();
        if (mode != QMX_ADPNUM_MODE_CURRENT && mode != QMX_ADPNUM_MODE_CONFIGURED)
            return f.invalid("mode", " is invalid number");
        if (QMX_DevFind() != 0) return f.fail();
        std::memset(adapter_info, 0, sizeof *adapter_info);
        int count = 0;

        if (mode == QMX_ADPNUM_MODE_CURRENT) {
            for (int i = 0; i < c_max_port && count < QMX_ADAPTERNUMBER_MAX; ++i) {
                const dev_info &d = dev_info_all[i];
                if (d.device_id == kExcludedDeviceWord) continue;
                adapterinformation &e = adapter_info->portlist[count++];
                std::string_view name(d.name, strnlen(d.name, sizeof d.name));
                e.adapternumber = deviceNumber(name);
                getWWN(d.wwn, &e.hba_wwn);
                qmx::copyText(e.special_dev, name);
                e.bus = d.bus;
                e.dev = d.dev;
                e.fnc = d.func;
            }
            adapter_info->portlist_max = count;
            return f.ok();
        }

        util_para *list = nullptr;
        int n = QMX_Read_qmxlddconf(&list, 0);
        std::unique_ptr<util_para, decltype(&std::free)> owned(list, &std::free);
        if (n == qmx::kReadNoOpen) return f.ok();  // no file: no configured numbers
        if (n < 0) return f.fail();
        if (list == nullptr) n = 0;
        // Configured numbers in file order; a file can hold more adapter keys
        // than the record has entries, the rest are not reported.
        for (int i = 0; i < n && count < QMX_ADAPTERNUMBER_MAX; ++i) {
            std::string_view key = qmx::keyOf(list[i]);
            std::size_t cut = key.find("-wwpn");
            if (key.find("tid") != std::string_view::npos || cut == std::string_view::npos)
                continue;
            std::string_view number = key.substr(0, cut);
            number = number.size() > kAdapterKey.size() ? number.substr(kAdapterKey.size()) : "";
            adapterinformation &e = adapter_info->portlist[count++];
            e.adapternumber = qmx::atoiText(number);
            std::string_view value = qmx::valueOf(list[i]);
            char text[4 + sizeof list[i].value];
            bool prefixed = value.size() >= 2 && value[0] == '0' && (value[1] == 'x' || value[1] == 'X');
            std::snprintf(text, sizeof text, "%s%.*s", prefixed ? "" : "0x", int(value.size()),
                          value.data());
            uint64_t wwn = 0;
            qmx_convert_string(text, &wwn);  // a bad digit keeps the digits before it
            getWWN(wwn, &e.hba_wwn);
        }
        adapter_info->portlist_max = count;
        // Ports are matched to entries through a table of the entries'
        // WWPNs, each converted once (one "changeWWN START" line per entry,
        // not one per port and entry).  Ports are taken in discovery order,
        // so when two ports share a WWPN the later one fills the entry, as a
        // pass over every port and entry would.
        std::unordered_map<uint64_t, std::vector<int>> byWwn;
        byWwn.reserve(std::size_t(count));
        for (int i = 0; i < count; ++i) byWwn[changeWWN(adapter_info->portlist[i].hba_wwn)].push_back(i);
        for (int p = 0; p < c_max_port; ++p) {
            const dev_info &d = dev_info_all[p];
            auto hit = byWwn.find(d.wwn);
            if (hit == byWwn.end()) continue;
            for (int i : hit->second) {
                adapterinformation &e = adapter_info->portlist[i];
                qmx::copyText(e.special_dev, std::string_view(d.name, strnlen(d.name, sizeof d.name)));
                e.bus = d.bus;
                e.dev = d.dev;
                e.fnc = d.func;
            }
        }
        return f.ok();
    });
}

QMX_STATUS QMX_SetAdapterNumber(QMX_ADAPTERNUMBER *adapter_info) {
    return qmx::run("QMX_SetAdapterNumber", [&](qmx::Frame &f) {
        // The record is checked for null before its entries are read.
        if (!f.notNull(adapter_info, "adapter_info", " == NULL")) return f.fail();
        // A count beyond the record's entries is refused like any other
        // invalid request, before anything is read or changed.
        if (adapter_info->portlist_max > QMX_ADAPTERNUMBER_MAX)
            return f.invalid("portlist_max");
        if (const char *why = firstInvalidEntry(*adapter_info)) return f.invalid(why, "");

        util_para *list = nullptr;
        int n = QMX_Read_qmxlddconf(&list, 0);
        std::unique_ptr<util_para, decltype(&std::free)> owned(list, &std::free);
        // A file that cannot be read is never rewritten from the new keys
        // alone: that would lose every setting it holds.
        if (n < 0) return f.fail();
        if (list == nullptr) n = 0;

        std::vector<util_para> added;
        added.reserve(std::size_t(std::max(0, adapter_info->portlist_max)));
        applyEntries(list, n, *adapter_info, added);
        if (QMX_MakeConfFile(list, n, added.empty() ? nullptr : added.data(), int(added.size()),
                             0) != 0)
            return f.fail();
        return f.ok();
    });
}

QMX_STATUS QMX_DeleteAdapterPath(QMX_WWN wwn, QMX_UINT8 devno) {
    return qmx::run("QMX_DeleteAdapterPath", [&](qmx::Frame &f) {
        int ind = f.port(wwn);
        if (ind < 0) return f.fail();
        char path[32];
        std::snprintf(path, sizeof path, "/dev/qmxldd%d", int(devno));
        int fd = -1;
        if (open_ap(&fd, path) != 0) return f.fail();
        struct Closer {
            int *fd;
            ~Closer() { close_ap(fd); }
        } closer{&fd};

        qmx_ioctl_adp_pathchg req;
        std::memset(&req, 0, sizeof req);
        if (ioctl(fd, static_cast<unsigned long>(IOCTL_QMX_ADP_PATHCHG), &req) != 0) {
            int err = errno;
            qmx::sysError("ioctl IOCTL_QMX_ADP_PATHCHG", err);
            int reason = 0;
            const char *text = nullptr;
            if (err == EIO && pathChangeReason(req.err_code, &reason, &text)) {
                qmx::trace(text);
                QMX_G_ERROR_CD = reason;
            } else {
                QMX_G_ERROR_CD = QMX_ERR_NONE;  // the driver gave no reason the library knows
            }
            return f.fail();
        }
        uint8_t none[8] = {};
        (void)ioctl(fd, static_cast<unsigned long>(IOCTL_QMX_ADP_PATHDEL), none);
        const dev_info &d = dev_info_all[ind];
        std::string cmd = "rm -f /dev/" + qmx::shellQuote(std::string_view(d.name, strnlen(d.name, sizeof d.name)));
        int rc = std::system(cmd.c_str());  // its result is not looked at
        (void)rc;
        return f.ok();
    });
}
