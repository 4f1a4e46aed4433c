#include "ports.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

namespace qmxmgr {

namespace {
bool allDigits(const std::string &s, std::size_t from = 0) {
    if (s.size() <= from) return false;
    for (std::size_t i = from; i < s.size(); ++i)
        if (!std::isdigit(static_cast<unsigned char>(s[i]))) return false;
    return true;
}
}  // namespace

std::vector<PortInfo> readPorts(bool details);

std::vector<PortInfo> listPorts(bool details) {
    // The library discovers the ports once per process; so does the manager.
    static std::optional<std::vector<PortInfo>> cache[2];
    std::optional<std::vector<PortInfo>> &slot = cache[details ? 1 : 0];
    if (!slot) slot = readPorts(details);
    return *slot;
}

const PortInfo *findPort(const QMX_WWN &wwn) {
    // Indexed once: a configuration document looks up every port it names.
    static const std::map<std::string, PortInfo> byWwn = [] {
        std::map<std::string, PortInfo> m;
        for (const PortInfo &p : listPorts(false)) m.emplace(wwnText(p.wwn), p);
        return m;
    }();
    auto it = byWwn.find(wwnText(wwn));
    return it == byWwn.end() ? nullptr : &it->second;
}

std::vector<PortInfo> readPorts(bool details) {
    auto table = std::make_unique<QMX_ADAPTERNUMBER>();
    check(QMX_GetAdapterNumber(table.get(), QMX_ADPNUM_MODE_CURRENT), "QMX_GetAdapterNumber");
    std::vector<PortInfo> ports;
    int n = table->portlist_max;
    if (n < 0) n = 0;
    if (n > QMX_ADAPTERNUMBER_MAX) n = QMX_ADAPTERNUMBER_MAX;
    for (int i = 0; i < n; ++i) {
        const adapterinformation &a = table->portlist[i];
        PortInfo p;
        p.number = a.adapternumber;
        p.device = fieldText(a.special_dev, sizeof a.special_dev);
        p.wwn = a.hba_wwn;
        p.bus = a.bus;
        p.dev = a.dev;
        p.fnc = a.fnc;
        if (details) {
            std::string path = "/dev/" + p.device;
            qmx_ioctl_proc_info rec;
            std::memset(&rec, 0, sizeof rec);
            if (QMX_read_proc_info(path.data(), &rec) == 0) {
                p.detailed = true;
                p.model = fieldText(rec.model_name, sizeof rec.model_name);
                p.driverVersion = fieldText(rec.driver_ver, sizeof rec.driver_ver);
                p.partsNumber = fieldText(rec.parts_number, sizeof rec.parts_number);
                p.firmware = rec.firmware_ver;
                p.vendorId = rec.vender_id;
                p.deviceId = rec.device_id;
                p.hostNo = rec.host_no;
                p.status = rec.port_status;
                p.nodeName = rec.node_name;
            }
        }
        ports.push_back(std::move(p));
    }
    return ports;
}

std::string pciText(const PortInfo &p) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%02x:%02x.%x", p.bus, p.dev, p.fnc);
    return buf;
}

std::string statusText(uint8_t status) {
    // The driver reports 3 for an isolated port and 8 or 9 for a port in
    // CHECK-STOP; every other value is a port in service.
    switch (status) {
    case 3: return "isolated";
    case 8:
    case 9: return "check-stop";
    default: return "in service";
    }
}

std::string firmwareText(uint32_t fw) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%08X", fw);
    return buf;
}

json portJson(const PortInfo &p) {
    json j;
    j["number"] = p.number;
    j["device"] = p.device;
    j["wwn"] = wwnText(p.wwn);
    j["pci"] = pciText(p);
    if (p.detailed) {
        j["model"] = p.model;
        j["firmware"] = firmwareText(p.firmware);
        j["driver"] = p.driverVersion;
        j["status"] = statusText(p.status);
        j["status_code"] = p.status;
        j["host"] = p.hostNo;
    } else {
        j["model"] = nullptr;
        j["firmware"] = nullptr;
        j["driver"] = nullptr;
        j["status"] = nullptr;
        j["status_code"] = nullptr;
        j["host"] = nullptr;
    }
    return j;
}

PortForm classifyPort(const std::string &text) {
    if (parseWwn(text, nullptr)) return PortForm::Wwn;
    std::string t = text;
    if (t.rfind("/dev/", 0) == 0) t.erase(0, 5);
    if (t.rfind("qmxldd", 0) == 0 && allDigits(t, 6) && t.size() <= 9) return PortForm::Device;
    if (allDigits(text) && text.size() <= 3) return PortForm::Number;
    return PortForm::Invalid;
}

PortRef allPortsRef() {
    PortRef r;
    r.allPorts = true;
    r.text = "--all-ports";
    return r;
}

PortRef resolvePort(const std::string &text, bool allowAll) {
    PortRef r;
    r.text = text;
    PortForm form = classifyPort(text);
    if (form == PortForm::Invalid)
        throw UsageError("'" + text +
                         "' is not a port: give a WWN (16 hex digits), a device name "
                         "(qmxldd0) or an adapter number");
    if (form == PortForm::Wwn) {
        parseWwn(text, &r.wwn);
        if (isAllZeroWwn(r.wwn)) {
            if (!allowAll)
                throw UsageError("the all-zero WWN selects the driver-wide value, "
                                 "which this command does not take");
            r.allPorts = true;
            return r;
        }
        // A WWN is handed to the library as given; the port details are
        // filled in when the driver knows the port.
        for (PortInfo &p : listPorts(true))
            if (std::memcmp(p.wwn.wwn, r.wwn.wwn, 8) == 0) {
                r.info = std::move(p);
                break;
            }
        return r;
    }
    std::string t = text;
    if (t.rfind("/dev/", 0) == 0) t.erase(0, 5);
    int number = std::atoi(form == PortForm::Device ? t.c_str() + 6 : t.c_str());
    for (PortInfo &p : listPorts(true)) {
        if (p.number == number) {
            r.wwn = p.wwn;
            r.info = std::move(p);
            return r;
        }
    }
    throw UsageError("no port " + (form == PortForm::Device ? t : "with adapter number " + t));
}

}  // namespace qmxmgr
