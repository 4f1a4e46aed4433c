// Parameter engine: reads and stores one parameter of one port (or of the
// whole driver) in "/etc/qmxldd.conf".
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "config/config.h"
#include "frame/frame.h"

namespace {

using std::string_view;

enum class Encoding { Int, AlpaByte, SignedByte };

// The multipath parameters: their value is the first byte of the caller's
// value, signed.
constexpr const char *kMultipathNames[] = {"mp_failover",   "mp_failback",   "mp_path_health",
                                           "mp_roundrobin", "mp_alp_enable", "mp_ofp_enable"};

Encoding encodingOf(string_view suffix) {
    if (suffix == "_preferred_alpa") return Encoding::AlpaByte;
    for (const char *m : kMultipathNames)
        if (suffix == m) return Encoding::SignedByte;
    return Encoding::Int;
}

void formatValue(Encoding enc, const void *setval, char *dst, std::size_t cap) {
    switch (enc) {
        case Encoding::AlpaByte:
            std::snprintf(dst, cap, "0x%02x", *static_cast<const unsigned char *>(setval));
            break;
        case Encoding::SignedByte:
            std::snprintf(dst, cap, "%d", int(*static_cast<const signed char *>(setval)));
            break;
        case Encoding::Int: {
            int32_t v;
            std::memcpy(&v, setval, sizeof v);
            std::snprintf(dst, cap, "%d", int(v));
            break;
        }
    }
}

// The port number in the keys: the number after "qmxldd" in the port's
// device name (the driver's device number, which can differ from the
// instance number when device numbers have gaps); -1 for no port.
// -2 ("index is invalid value", invalid argument) when the instance number
// names no table entry.
int portNumberOf(int index) {
    if (index < 0) return -1;
    if (index < kMaxPorts) {
        const dev_info &d = dev_info_all[index];
        string_view name(d.name, strnlen(d.name, sizeof d.name));
        std::size_t at = name.find("qmxldd");
        if (at != string_view::npos) return qmx::atoiText(name.substr(at + 6));
    }
    qmx::trace("index is invalid value");
    qmx::setError(QMX_ERR_INVALID_ARG);
    return -2;
}

// Key forms.  With a sub-index, Get appends it only for "_retry_cnt" while
// Set appends it for every suffix; no caller passes another suffix with a
// sub-index, and both forms are kept as they are.
std::string formKey(const QMX_WWN &wwn, int port, string_view suffix, int erId, bool forSet) {
    char buf[512];
    std::string sfx(suffix);
    if (suffix == "_bs") {
        std::snprintf(buf, sizeof buf, "qmx_%02x_%02x_%02x%s", wwn.wwn[0], wwn.wwn[1], wwn.wwn[2],
                      sfx.c_str());
        return buf;
    }
    bool sub = erId != -1 && (forSet || suffix == "_retry_cnt");
    if (port == -1) {
        if (sub)
            std::snprintf(buf, sizeof buf, "qmx%s%d", sfx.c_str(), erId);
        else
            std::snprintf(buf, sizeof buf, "qmx%s", sfx.c_str());
    } else {
        if (sub)
            std::snprintf(buf, sizeof buf, "qmx%d%s%d", port, sfx.c_str(), erId);
        else
            std::snprintf(buf, sizeof buf, "qmx%d%s", port, sfx.c_str());
    }
    return buf;
}

}  // namespace

namespace qmx {

int UtilLookups::get(QMX_WWN wwn, int index, const char *key_str, int erId,
                     void *setval) noexcept {
    trace("QMX_GetUtilValue START");
    auto abend = [] {
        trace("QMX_GetUtilValue ABEND");
        return -1;
    };
    try {
        // The first lookup reads the file; the later ones answer from that
        // read and trace it as the read of their own that it stands for.
        if (read_ == kNotRead) {
            int n = conf_.read(store_.conf, store_.conf);
            if (n < 0) return abend();
            read_ = n;
        } else {
            conf_.retrace();
        }
        if (key_str == nullptr || setval == nullptr) {
            setError(QMX_ERR_INVALID_ARG);
            return abend();
        }
        string_view suffix(key_str, strnlen(key_str, 256));
        int port = portNumberOf(index);
        if (port == -2) return abend();
        std::string key = formKey(wwn, port, suffix, erId, false);
        // The exact key only: a port without its own item does not fall back
        // to the driver-wide one.
        string_view v;
        if (conf_.find(key, &v)) {
            if (encodingOf(suffix) == Encoding::AlpaByte) {
                // The two characters after the value's first two ("0x"):
                // "0x0ef" reads 0x0e, "0x01 " reads 0x01.
                char digits[3];
                copyText(digits, v.substr(v.size() < 2 ? v.size() : 2, 2));
                unsigned char byte = 0;
                if (qmx_2CharTo1ByteHex(digits, &byte) != 0) {
                    copyText(QMX_G_ERROR_MES, "qmx_2CharTo1ByteHex is err");
                    trace(QMX_G_ERROR_MES);
                    return abend();
                }
                *static_cast<unsigned char *>(setval) = byte;
            } else {
                int32_t value = atoiText(v);
                std::memcpy(setval, &value, sizeof value);
            }
        }
        trace("QMX_GetUtilValue END");
        return 0;
    } catch (...) {
        sysError("malloc", ENOMEM);
        return abend();
    }
}

int getUtilValue(const ConfStore &store, QMX_WWN wwn, int index, const char *key_str, int erId,
                 void *setval) noexcept {
    UtilLookups one(store);
    return one.get(wwn, index, key_str, erId, setval);
}

int setUtilValue(const ConfStore &store, QMX_WWN wwn, int index, const char *key_str, int erId,
                 void *setval, int del) noexcept {
    trace("QMX_SetUtilValue START");
    auto abend = [] {
        trace("QMX_SetUtilValue ABEND");
        return -1;
    };
    try {
        if (key_str == nullptr || (del != 1 && setval == nullptr)) {
            setError(QMX_ERR_INVALID_ARG);
            return abend();
        }
        ConfText conf;
        int n = readConfItems(store.conf, store.conf, conf);
        // A file that could not be read is not an empty one: it is never
        // rewritten from the new items alone (a missing file would fail in
        // the writer anyway, which needs the file to exist).
        if (n < 0) return abend();
        ConfItems &items = conf.items;

        string_view suffix(key_str, strnlen(key_str, 256));
        int port = portNumberOf(index);
        if (port == -2) return abend();
        Encoding enc = encodingOf(suffix);
        std::string key = formKey(wwn, port, suffix, erId, true);
        char adapterKey[32];
        std::snprintf(adapterKey, sizeof adapterKey, "qmxl%d-wwpn", port);

        ConfItem *hit = nullptr;
        bool adapterPresent = false;
        for (ConfItem &item : items) {
            if (hit == nullptr && item.key == key) hit = &item;
            if (item.key == adapterKey) adapterPresent = true;
        }

        // The texts of the new or changed items, as a key list's fields
        // would hold them.
        char values[2][sizeof(util_para::value)];
        const WwnText wwnValue = wwnText(wwn);
        string_view newKey = string_view(key).substr(0, sizeof(util_para::keyword) - 1);
        ConfItem add[2];
        int addCount = 0;
        if (hit != nullptr) {
            if (del == 1) {
                hit->key = hit->value = string_view();
            } else {
                formatValue(enc, setval, values[0], sizeof values[0]);
                hit->value = values[0];
            }
        } else if (del == 1) {
            return 0;  // nothing to remove; the file is left as it is
        } else if (suffix == "_bs" || isAllZero(wwn)) {
            formatValue(suffix == "_bs" ? Encoding::Int : enc, setval, values[0], sizeof values[0]);
            add[addCount++] = ConfItem{newKey, values[0]};
        } else {
            // A port's first item: tie its number to its WWN first.
            if (!adapterPresent) add[addCount++] = ConfItem{adapterKey, wwnValue.text};
            // The key formed above: "qmx<N><suffix>", with the sub-index
            // appended when there is one.
            formatValue(enc, setval, values[1], sizeof values[1]);
            add[addCount++] = ConfItem{newKey, values[1]};
        }
        if (makeConfFileFromItems(store, items.data(), n, add, addCount, 0) != 0) return abend();
        return 0;
    } catch (...) {
        sysError("malloc", ENOMEM);
        return abend();
    }
}

}  // namespace qmx

int QMX_GetUtilValue(QMX_WWN wwn, int index, char *key_str, int erId, void *setval) {
    return qmx::getUtilValue(qmx::kSystemStore, wwn, index, key_str, erId, setval);
}

int QMX_SetUtilValue(QMX_WWN wwn, int index, char *key_str, int erId, void *setval, int del) {
    return qmx::setUtilValue(qmx::kSystemStore, wwn, index, key_str, erId, setval, del);
}
