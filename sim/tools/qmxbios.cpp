// qmxbios - the simulated adapter BIOS tool of the virtual host.
//
// Command lines (the forms the management library runs):
//   qmxbios -x -d <dev> -p <setting>=<value>     change one BIOS setting
//   qmxbios -x -d <dev> -o backup -f <dir>       back up the port's adapter
//   qmxbios -x -a -o backup -f <dir>             back up every adapter
//   qmxbios -x -d <dev> -o restore -f <file>     restore the port's adapter
//   qmxbios -x -d <dev> -o cfgEnable|log_erase|aprestart
//   qmxbios -d <dev> -o cfgshowex                configuration listing (stdout)
//   qmxbios -d <dev> -o trgshow                  target listing (stdout)
//   qmxbios -o devshow                           device listing (stdout)
//
// Settings are kept per port in "$QMXSIM_STATE/bios/<dev>.json" (outside a
// virtual host in "./qmxbios-state/"); a port without a file starts from the
// defaults, overlaid with the "bios" object of the port in the host's state
// (same keys and value forms as the -p option).
//
// Backup file: one file per adapter, "<dir>/<dev>.bios" named after the
// adapter's first port, laid out as the library's backup reader expects:
//   0 ver(4) 4 bus 5 dev 6 func 7 pkgcd 8 device_id(4, the adapter's PCI
//   id word in the byte order the driver returns it: device high, device
//   low, vendor high, vendor low) 12 pre_conf 13 reserved(3) 16 reserved(8)
//   256 BIOS area: 4 port blocks of 256 bytes; 1280 additional WWN area:
//   16 bytes a port, the WWPN at 0x18 + 16 * port.
//
// Every run also appends "<command line> lock=held|free" to
// "$QMXSIM_STATE/bios/lock.log": whether the management library's exclusive
// lock of the BIOS tool (shared memory keyed on the tool's path, project 6)
// was held while the tool ran.
//
// Exit codes: 0 done, 1 unknown device or file error, 2 bad command line,
// 3 bad setting value.  Scripted results come from toolcommon.h.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "simstate.h"
#include "toolcommon.h"

namespace {

using json = nlohmann::json;
namespace tool = qmxsim::tool;

constexpr int kBootRows = 8;
constexpr std::size_t kBiosArea = 1024;
constexpr std::size_t kAddWwnArea = 80;
constexpr std::size_t kBiosOffset = 256;
constexpr std::size_t kAddWwnOffset = kBiosOffset + kBiosArea;  // 1280
constexpr std::size_t kBackupSize = kAddWwnOffset + kAddWwnArea;
constexpr int kPortsPerAdapter = 4;
constexpr uint32_t kBackupVersion = 1;

int fail(int code, const std::string &msg) {
    std::fprintf(stderr, "qmxbios: %s\n", msg.c_str());
    return code;
}

// ---------------------------------------------------------------------------
// Host state (read only): the simulated ports.
// ---------------------------------------------------------------------------
struct Port {
    int devno = -1;
    std::string name;  // "qmxldd<devno>"
    int adapter = 0;
    int portNo = 0;    // port number within the adapter
    uint64_t wwpn = 0;
    uint8_t bus = 0, dev = 0, func = 0, pkgcd = 0;
    uint32_t pciWord = 0;  // vendor in the low half, device in the high half
    json initial;          // the port's "bios" object, if any
};

std::vector<Port> loadPorts() {
    std::vector<Port> ports;
    std::string dir = tool::stateDir();
    if (dir.empty()) return ports;
    // Read under the host state's lock so a concurrent writer is not seen
    // half way.
    int lk = open((dir + "/state.lock").c_str(), O_RDONLY | O_CLOEXEC);
    if (lk >= 0) flock(lk, LOCK_SH);
    std::string text;
    bool ok = tool::readFile(dir + "/state.json", text);
    if (lk >= 0) close(lk);
    if (!ok) return ports;
    json state = json::parse(text, nullptr, false);
    if (!state.is_object() || !state.contains("ports") || !state["ports"].is_array()) return ports;
    for (const json &p : state["ports"]) {
        if (!p.is_object()) continue;
        Port port;
        port.devno = int(qmxsim::fieldU64(p, "devno", uint64_t(-1)));
        if (port.devno < 0 || port.devno > 255) continue;
        port.name = "qmxldd" + std::to_string(port.devno);
        port.adapter = int(qmxsim::fieldU64(p, "adapter", 0));
        // The port number within the adapter is its PCI function, the
        // record's byte 149 as the driver reports it (0 when not given):
        // the backup file's port blocks follow it.
        port.portNo = int(qmxsim::fieldU64(p, "func", 0));
        port.wwpn = qmxsim::fieldU64(p, "wwpn", 0);
        port.bus = uint8_t(qmxsim::fieldU64(p, "bus", 0));
        port.dev = uint8_t(qmxsim::fieldU64(p, "dev", 0));
        port.func = uint8_t(qmxsim::fieldU64(p, "func", 0));
        port.pkgcd = uint8_t(qmxsim::fieldU64(p, "pkgcd", 0));
        uint32_t vendor = uint32_t(qmxsim::fieldU64(p, "vendor", 0x1E5A)) & 0xFFFF;
        uint32_t device = uint32_t(qmxsim::fieldU64(p, "device", 0x0101)) & 0xFFFF;
        port.pciWord = vendor | (device << 16);
        if (p.contains("bios") && p["bios"].is_object()) port.initial = p["bios"];
        ports.push_back(std::move(port));
    }
    std::sort(ports.begin(), ports.end(), [](const Port &a, const Port &b) { return a.devno < b.devno; });
    return ports;
}

const Port *findPort(const std::vector<Port> &ports, const std::string &name) {
    for (const Port &p : ports)
        if (p.name == name) return &p;
    return nullptr;
}

// ---------------------------------------------------------------------------
// Per-port BIOS settings.
// ---------------------------------------------------------------------------
struct BootRow {
    uint64_t wwn = 0;
    uint32_t lun = 0;
};

struct Settings {
    bool bios = false, bootPriority = false, spinup = false, bindings = false;
    bool forceDefault = false, errorLogging = true, preConfigure = false;
    int connect = 1;      // 1 auto, 2 ptop, 3 loop
    int rate = 0;         // 0 auto, 1, 2, 4, 8, 10
    uint64_t addWwn = 0;
    int loginDelay = -1;  // -1 default
    int overwrite = 1;    // 1 notovr, 2 allent, 3 lasent
    BootRow boot[kBootRows];
};

// The words of the three-way settings, for values 1, 2 and 3.
const char *const kConnWords[] = {"auto", "ptop", "loop"};
const char *const kOvrWords[] = {"notovr", "allent", "lasent"};

// One of a three-way setting's words: its value 1..3.
bool parseWord(const std::string &v, const char *const (&words)[3], int *out) {
    for (int i = 0; i < 3; ++i)
        if (v == words[i]) return *out = i + 1, true;
    return false;
}

bool parseOnOff(const std::string &v, bool *out) {
    if (v == "Enable") *out = true;
    else if (v == "Disable") *out = false;
    else return false;
    return true;
}

bool parseHex64(const std::string &v, uint64_t *out) {
    if (v.size() != 16 || v.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return false;
    *out = std::strtoull(v.c_str(), nullptr, 16);
    return true;
}

bool parseInt(const std::string &v, long lo, long hi, long *out) {
    if (v.empty() || v.size() > 10 || v.find_first_not_of("0123456789") != std::string::npos) return false;
    long n = std::strtol(v.c_str(), nullptr, 10);
    if (n < lo || n > hi) return false;
    *out = n;
    return true;
}

// Applies "<key>=<value>" as given after -p.  false: not a valid setting.
bool apply(Settings &s, const std::string &key, const std::string &v) {
    if (key == "bios") return parseOnOff(v, &s.bios);
    if (key == "boot_priority") return parseOnOff(v, &s.bootPriority);
    if (key == "spinup_delay") return parseOnOff(v, &s.spinup);
    if (key == "persistent_bindings") return parseOnOff(v, &s.bindings);
    if (key == "force_default_parameter") return parseOnOff(v, &s.forceDefault);
    if (key == "errorlogging") return parseOnOff(v, &s.errorLogging);
    if (key == "pre_configure") return parseOnOff(v, &s.preConfigure);
    if (key == "connection_type") return parseWord(v, kConnWords, &s.connect);
    if (key == "data_rate") {
        if (v == "auto") return s.rate = 0, true;
        long n;
        if (!parseInt(v, 1, 10, &n) || (n != 1 && n != 2 && n != 4 && n != 8 && n != 10)) return false;
        s.rate = int(n);
        return true;
    }
    if (key == "wwn_of_hba") return parseHex64(v, &s.addWwn);
    if (key == "login_delay_time") {
        if (v == "default") return s.loginDelay = -1, true;
        long n;
        if (!parseInt(v, 0, 60, &n)) return false;
        s.loginDelay = int(n);
        return true;
    }
    if (key == "overwritemode") return parseWord(v, kOvrWords, &s.overwrite);
    if (key == "boot_device") {
        // <row 1..8>,<16 hex digits>,<lun in hex>
        std::size_t c1 = v.find(','), c2 = c1 == std::string::npos ? c1 : v.find(',', c1 + 1);
        if (c2 == std::string::npos) return false;
        long row;
        uint64_t wwn;
        std::string lun = v.substr(c2 + 1);
        if (!parseInt(v.substr(0, c1), 1, kBootRows, &row) || !parseHex64(v.substr(c1 + 1, c2 - c1 - 1), &wwn) ||
            lun.empty() || lun.size() > 8 || lun.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            return false;
        unsigned long l = std::strtoul(lun.c_str(), nullptr, 16);
        if (l > 0xFFFF) return false;
        s.boot[row - 1] = {wwn, uint32_t(l)};
        return true;
    }
    return false;
}

std::string hex16(uint64_t v) {
    char b[20];
    std::snprintf(b, sizeof b, "%016" PRIx64, v);
    return b;
}

json toJson(const Settings &s) {
    auto onOff = [](bool b) { return b ? "Enable" : "Disable"; };
    json j;
    j["bios"] = onOff(s.bios);
    j["boot_priority"] = onOff(s.bootPriority);
    j["spinup_delay"] = onOff(s.spinup);
    j["persistent_bindings"] = onOff(s.bindings);
    j["force_default_parameter"] = onOff(s.forceDefault);
    j["errorlogging"] = onOff(s.errorLogging);
    j["pre_configure"] = onOff(s.preConfigure);
    j["connection_type"] = kConnWords[s.connect - 1];
    j["data_rate"] = s.rate == 0 ? std::string("auto") : std::to_string(s.rate);
    j["wwn_of_hba"] = hex16(s.addWwn);
    j["login_delay_time"] = s.loginDelay < 0 ? std::string("default") : std::to_string(s.loginDelay);
    j["overwritemode"] = kOvrWords[s.overwrite - 1];
    json rows = json::array();
    for (const BootRow &r : s.boot) rows.push_back({{"wwn", hex16(r.wwn)}, {"lun", r.lun}});
    j["boot_device"] = rows;
    return j;
}

// Loads settings from a JSON object of the toJson form (unknown or bad
// entries are ignored).
void fromJson(Settings &s, const json &j) {
    if (!j.is_object()) return;
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (it.key() == "boot_device" && it.value().is_array()) {
            int i = 0;
            for (const json &r : it.value()) {
                if (i >= kBootRows) break;
                if (r.is_object()) {
                    uint64_t w = 0;
                    if (r.contains("wwn") && r["wwn"].is_string()) parseHex64(r["wwn"].get<std::string>(), &w);
                    s.boot[i] = {w, uint32_t(qmxsim::fieldU64(r, "lun", 0) & 0xFFFF)};
                }
                ++i;
            }
        } else if (it.value().is_string()) {
            apply(s, it.key(), it.value().get<std::string>());
        }
    }
}

std::string settingsDir() {
    std::string d = tool::statePath("bios");
    if (d.empty()) d = "qmxbios-state";
    mkdir(d.c_str(), 0755);
    return d;
}

// Serialises changes of the settings files between concurrent runs.
class SettingsLock {
public:
    SettingsLock() {
        fd_ = open((settingsDir() + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ >= 0) flock(fd_, LOCK_EX);
    }
    ~SettingsLock() {
        if (fd_ >= 0) close(fd_);
    }
    SettingsLock(const SettingsLock &) = delete;
    SettingsLock &operator=(const SettingsLock &) = delete;

private:
    int fd_ = -1;
};

Settings loadSettings(const std::string &dev, const Port *port) {
    Settings s;
    std::string text;
    if (tool::readFile(settingsDir() + "/" + dev + ".json", text)) {
        fromJson(s, json::parse(text, nullptr, false));
    } else if (port != nullptr) {
        fromJson(s, port->initial);
    }
    return s;
}

bool saveSettings(const std::string &dev, const Settings &s) {
    std::string path = settingsDir() + "/" + dev + ".json";
    std::string tmp = path + ".tmp";
    if (!tool::writeFile(tmp, toJson(s).dump(2) + "\n")) return false;
    return std::rename(tmp.c_str(), path.c_str()) == 0;
}

// ---------------------------------------------------------------------------
// Listings.
// ---------------------------------------------------------------------------
void printConfig(const std::string &dev, const Settings &s) {
    static const char *const kConn[] = {"AUTO DETECTION (LOOP PREFERRED)", "POINT TO POINT ONLY", "LOOP ONLY"};
    static const char *const kOvr[] = {"NOT OVERWRITE", "OVERWRITE ALL ENTRY", "OVERWRITE LAST ENTRY"};
    auto onOff = [](bool b) { return b ? "ENABLE" : "DISABLE"; };
    auto line = [](const char *title, const std::string &value) {
        std::printf(" %-31s : %s\n", title, value.c_str());
    };
    std::string rate = s.rate == 0 ? std::string("AUTO DETECTION") : std::to_string(s.rate) + "Gbps ONLY";
    std::printf("qmxbios configuration of %s\n\n", dev.c_str());
    line("HBA BIOS", onOff(s.bios));
    line("BOOT PRIORITY", onOff(s.bootPriority));
    line("SPINUP DELAY", onOff(s.spinup));
    line("CONNECTION TYPE", kConn[s.connect - 1]);
    line("DATA RATE", rate);
    line("PERSISTENT BINDINGS", onOff(s.bindings));
    line("FORCE DEFAULT PARAMETER", onOff(s.forceDefault));
    line("Additional World Wide Port Name", hex16(s.addWwn));
    line("LOGIN DELAY TIME", s.loginDelay < 0 ? std::string("default") : std::to_string(s.loginDelay));
    line("ERROR LOGGING", onOff(s.errorLogging));
    line("OVERWRITE MODE", kOvr[s.overwrite - 1]);
    line("PRE CONFIGURE", onOff(s.preConfigure));
    std::printf("\n BOOT DEVICE LIST\n");
    std::printf("  No. Port Name           LUN   Status\n");
    const char *border = "  +---+------------------+-----+------------+";
    std::printf("%s\n", border);
    for (int i = 0; i < kBootRows; ++i) {
        const BootRow &r = s.boot[i];
        char lun[8];
        std::snprintf(lun, sizeof lun, "%04x", unsigned(r.lun));
        std::printf("  |%-3d %-18s %-5s %-12s|\n", i + 1, hex16(r.wwn).c_str(), lun,
                    r.wwn != 0 ? "ENABLE" : "DISABLE");
    }
    std::printf("%s\n", border);
}

void printDevices(const std::vector<Port> &ports) {
    std::printf("qmxbios device list\n\n");
    std::printf("  Device     DeviceID Bus Dev Func Additional WWPN  Original WWPN\n");
    std::printf("  ---------- -------- --- --- ---- ---------------- ----------------\n");
    std::printf("+------------------------------------------------------------------+\n");
    for (const Port &p : ports) {
        Settings s = loadSettings(p.name, &p);
        std::printf("  %s %04x %02x %02x %x %s %s\n", p.name.c_str(), unsigned(p.pciWord >> 16), p.bus, p.dev,
                    p.func, hex16(s.addWwn).c_str(), hex16(p.wwpn).c_str());
    }
    std::printf("+------------------------------------------------------------------+\n");
}

void printTargets(const std::string &dev) {
    std::printf("qmxbios target list of %s\n\n", dev.c_str());
    std::printf("  No. Target WWPN\n");
    // Targets are reported by the driver, not by the BIOS: the simulated
    // tool lists none.
    std::printf("  (no boot target scanned)\n");
}

// ---------------------------------------------------------------------------
// Backup and restore.
// ---------------------------------------------------------------------------
void put(std::vector<uint8_t> &b, std::size_t off, const void *p, std::size_t n) {
    std::memcpy(b.data() + off, p, n);
}

std::vector<const Port *> adapterPorts(const std::vector<Port> &ports, int adapter) {
    std::vector<const Port *> out;
    for (const Port &p : ports)
        if (p.adapter == adapter && p.portNo >= 0 && p.portNo < kPortsPerAdapter) out.push_back(&p);
    return out;
}

// The identifier bytes of a backup header: the driver's fixed PCI data.
void idBytes(const Port &p, uint8_t out[4]) {
    out[0] = uint8_t(p.pciWord >> 24);
    out[1] = uint8_t(p.pciWord >> 16);
    out[2] = uint8_t(p.pciWord >> 8);
    out[3] = uint8_t(p.pciWord);
}

std::vector<uint8_t> backupImage(const std::vector<Port> &ports, const Port &first) {
    std::vector<uint8_t> b(kBackupSize, 0);
    uint32_t ver = kBackupVersion;
    put(b, 0, &ver, 4);
    b[4] = first.bus;
    b[5] = first.dev;
    b[6] = first.func;
    b[7] = first.pkgcd;
    idBytes(first, b.data() + 8);
    bool pre = false;
    for (const Port *p : adapterPorts(ports, first.adapter)) {
        Settings s = loadSettings(p->name, p);
        if (p->portNo == first.portNo) pre = s.preConfigure;
        uint8_t *blk = b.data() + kBiosOffset + std::size_t(p->portNo) * 256;
        blk[0x01] = uint8_t((s.bios ? 0x80 : 0) | (s.spinup ? 0x20 : 0) | (s.bootPriority ? 0x10 : 0));
        static const uint8_t kConn[] = {0, 1, 3};
        blk[0x03] = kConn[s.connect - 1];
        blk[0x04] = uint8_t(s.rate);
        blk[0x05] = uint8_t((s.bindings ? 0 : 0x80) | (s.forceDefault ? 0x40 : 0));
        blk[0x06] = s.loginDelay < 0 ? 0x00 : uint8_t(0x80 | s.loginDelay);
        blk[0x07] = uint8_t((s.errorLogging ? 0x80 : 0) | s.overwrite);
        for (int i = 0; i < kBootRows; ++i) {
            uint8_t *row = blk + 0x16 + 16 * i;
            row[0] = uint8_t(s.boot[i].lun >> 8);
            row[1] = uint8_t(s.boot[i].lun);
            for (int k = 0; k < 8; ++k) row[2 + k] = uint8_t(s.boot[i].wwn >> (56 - 8 * k));
        }
        uint8_t *add = b.data() + kAddWwnOffset + 0x18 + 16 * std::size_t(p->portNo);
        if (0x18 + 16 * std::size_t(p->portNo) + 8 <= kAddWwnArea)
            for (int k = 0; k < 8; ++k) add[k] = uint8_t(s.addWwn >> (56 - 8 * k));
    }
    b[12] = pre ? 1 : 0;
    return b;
}

int backup(const std::vector<Port> &ports, const Port *only, const std::string &dir) {
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return fail(1, "backup directory not found: " + dir);
    std::map<int, const Port *> firstOf;  // adapter -> its first port
    for (const Port &p : ports)
        if (!firstOf.count(p.adapter)) firstOf[p.adapter] = &p;
    int written = 0;
    for (auto &[adapter, first] : firstOf) {
        if (only != nullptr && only->adapter != adapter) continue;
        std::vector<uint8_t> img = backupImage(ports, *first);
        std::string path = dir + "/" + first->name + ".bios";
        if (!tool::writeFile(path, std::string(img.begin(), img.end()))) return fail(1, "cannot write " + path);
        std::printf("%s: backed up to %s\n", first->name.c_str(), path.c_str());
        ++written;
    }
    return written > 0 ? 0 : fail(1, "no adapter to back up");
}

int restore(const std::vector<Port> &ports, const Port &port, const std::string &file) {
    std::string text;
    if (!tool::readFile(file, text)) return fail(1, "cannot read " + file);
    if (text.size() < kBackupSize) return fail(1, "backup file too short: " + file);
    const uint8_t *b = reinterpret_cast<const uint8_t *>(text.data());
    uint8_t id[4];
    idBytes(port, id);
    if (std::memcmp(id, b + 8, 4) != 0) return fail(1, "backup file is of another adapter model");
    for (const Port *p : adapterPorts(ports, port.adapter)) {
        Settings s = loadSettings(p->name, p);
        const uint8_t *blk = b + kBiosOffset + std::size_t(p->portNo) * 256;
        s.bios = blk[0x01] & 0x80;
        s.spinup = blk[0x01] & 0x20;
        s.bootPriority = blk[0x01] & 0x10;
        s.connect = blk[0x03] == 1 ? 2 : blk[0x03] == 3 ? 3 : 1;
        uint8_t r = blk[0x04];
        s.rate = (r == 1 || r == 2 || r == 4 || r == 8 || r == 10) ? r : 0;
        s.bindings = !(blk[0x05] & 0x80);
        s.forceDefault = blk[0x05] & 0x40;
        uint8_t ld = blk[0x06];
        s.loginDelay = ((ld & 0x80) && ld != 0xFF && (ld & 0x7F) <= 60) ? (ld & 0x7F) : -1;
        s.errorLogging = blk[0x07] & 0x80;
        int ovr = blk[0x07] & 0x03;
        s.overwrite = ovr == 0 ? 1 : ovr;
        for (int i = 0; i < kBootRows; ++i) {
            const uint8_t *row = blk + 0x16 + 16 * i;
            uint64_t w = 0;
            for (int k = 0; k < 8; ++k) w = (w << 8) | row[2 + k];
            s.boot[i] = {w, uint32_t(row[0] << 8 | row[1])};
        }
        std::size_t addOff = 0x18 + 16 * std::size_t(p->portNo);
        if (addOff + 8 <= kAddWwnArea) {
            uint64_t w = 0;
            for (int k = 0; k < 8; ++k) w = (w << 8) | b[kAddWwnOffset + addOff + k];
            s.addWwn = w;
        }
        if (p->portNo == port.portNo) s.preConfigure = b[12] == 1 || b[12] == 3;
        if (!saveSettings(p->name, s)) return fail(1, "cannot store the settings of " + p->name);
    }
    std::printf("%s: restored from %s\n", port.name.c_str(), file.c_str());
    return 0;
}

// ---------------------------------------------------------------------------
// Command line.
// ---------------------------------------------------------------------------
struct Args {
    bool execute = false, all = false;
    std::string dev, op, param, file;
};

bool parseArgs(int argc, char **argv, Args &a) {
    for (int i = 1; i < argc; ++i) {
        std::string o = argv[i];
        auto value = [&](std::string &dst) {
            if (i + 1 >= argc) return false;
            dst = argv[++i];
            return true;
        };
        if (o == "-x") a.execute = true;
        else if (o == "-a") a.all = true;
        else if (o == "-d") { if (!value(a.dev)) return false; }
        else if (o == "-o") { if (!value(a.op)) return false; }
        else if (o == "-p") { if (!value(a.param)) return false; }
        else if (o == "-f") { if (!value(a.file)) return false; }
        else return false;
    }
    return !(a.op.empty() && a.param.empty());
}

int run(int argc, char **argv) {
    Args a;
    if (!parseArgs(argc, argv, a)) return fail(2, "usage: qmxbios [-x] [-d dev | -a] (-o operation [-f file] | -p setting=value)");
    std::vector<Port> ports = loadPorts();
    bool hostKnown = !tool::stateDir().empty();

    if (a.op == "devshow") {
        printDevices(ports);
        return 0;
    }
    if (a.op == "backup" && a.all) {
        if (!a.execute || a.file.empty()) return fail(2, "backup needs -x and -f");
        SettingsLock lock;
        return backup(ports, nullptr, a.file);
    }
    if (a.dev.empty()) return fail(2, "no device given (-d)");
    const Port *port = findPort(ports, a.dev);
    if (hostKnown && port == nullptr) return fail(1, "no such device: " + a.dev);
    if (a.dev.find('/') != std::string::npos || a.dev.rfind("qmxldd", 0) != 0)
        return fail(1, "no such device: " + a.dev);

    if (!a.param.empty()) {
        if (!a.execute) return fail(2, "-p needs -x");
        std::size_t eq = a.param.find('=');
        if (eq == std::string::npos) return fail(2, "bad setting: " + a.param);
        SettingsLock lock;
        Settings s = loadSettings(a.dev, port);
        if (!apply(s, a.param.substr(0, eq), a.param.substr(eq + 1))) return fail(3, "bad setting: " + a.param);
        if (!saveSettings(a.dev, s)) return fail(1, "cannot store the settings of " + a.dev);
        return 0;
    }
    if (a.op == "cfgshowex") {
        SettingsLock lock;
        printConfig(a.dev, loadSettings(a.dev, port));
        return 0;
    }
    if (a.op == "trgshow") {
        printTargets(a.dev);
        return 0;
    }
    if (!a.execute) return fail(2, "operation " + a.op + " needs -x");
    if (a.op == "backup" || a.op == "restore") {
        if (a.file.empty()) return fail(2, a.op + " needs -f");
        if (port == nullptr) return fail(1, "no such device: " + a.dev);
        SettingsLock lock;
        return a.op == "backup" ? backup(ports, port, a.file) : restore(ports, *port, a.file);
    }
    if (a.op == "cfgEnable" || a.op == "aprestart") return 0;
    if (a.op == "log_erase") {
        std::printf("%s: error log erased\n", a.dev.c_str());
        return 0;
    }
    return fail(2, "unknown operation: " + a.op);
}

// Whether the library's exclusive lock of this tool is held now.
bool libraryLockHeld() {
    key_t key = ftok("/opt/kestrel/drivers/hba/qmxbios", 6);
    if (key == key_t(-1)) return false;
    int id = shmget(key, 128, 0);
    if (id < 0) return false;
    void *addr = shmat(id, nullptr, SHM_RDONLY);
    if (addr == reinterpret_cast<void *>(-1)) return false;
    bool held = std::memcmp(addr, "LOCK", 5) == 0;
    shmdt(addr);
    return held;
}

void recordLockState(int argc, char **argv) {
    std::string dir = tool::statePath("bios");
    if (dir.empty()) return;
    mkdir(dir.c_str(), 0755);
    std::string line = tool::commandLine("qmxbios", argc, argv) + (libraryLockHeld() ? " lock=held" : " lock=free");
    int fd = open((dir + "/lock.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    line += "\n";
    ssize_t w = write(fd, line.data(), line.size());
    (void)w;
    close(fd);
}

}  // namespace

int main(int argc, char **argv) {
    recordLockState(argc, argv);
    int early = tool::begin("qmxbios", argc, argv);
    if (early >= 0) return early;
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        return fail(1, e.what());
    }
}
