// State of one virtual host and the host files built from it.
#include "simstate.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace qmxsim {

// ---------------------------------------------------------------------------
// Numbers
// ---------------------------------------------------------------------------
uint64_t toU64(const json &j, uint64_t dflt) {
    if (j.is_number_unsigned()) return j.get<uint64_t>();
    if (j.is_number_integer()) return uint64_t(j.get<int64_t>());
    if (j.is_number_float()) return uint64_t(j.get<double>());
    if (j.is_boolean()) return j.get<bool>() ? 1 : 0;
    if (j.is_string()) {
        const std::string &s = j.get_ref<const std::string &>();
        if (s.empty()) return dflt;
        errno = 0;
        char *end = nullptr;
        unsigned long long v = std::strtoull(s.c_str(), &end, 0);
        if (errno != 0 || end == s.c_str()) return dflt;
        return v;
    }
    return dflt;
}

int64_t toI64(const json &j, int64_t dflt) {
    if (j.is_number_integer()) return j.get<int64_t>();
    if (j.is_string() && !j.get_ref<const std::string &>().empty() &&
        j.get_ref<const std::string &>()[0] == '-') {
        return std::strtoll(j.get_ref<const std::string &>().c_str(), nullptr, 0);
    }
    return int64_t(toU64(j, uint64_t(dflt)));
}

uint64_t fieldU64(const json &obj, const char *key, uint64_t dflt) {
    if (!obj.is_object()) return dflt;
    auto it = obj.find(key);
    if (it == obj.end() || it->is_null()) return dflt;
    return toU64(*it, dflt);
}

int64_t fieldI64(const json &obj, const char *key, int64_t dflt) {
    if (!obj.is_object()) return dflt;
    auto it = obj.find(key);
    if (it == obj.end() || it->is_null()) return dflt;
    return toI64(*it, dflt);
}

std::string hex64(uint64_t v) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%016llx", static_cast<unsigned long long>(v));
    return buf;
}

// ---------------------------------------------------------------------------
// Scenario
// ---------------------------------------------------------------------------
json loadJsonFile(const std::string &path) {
    std::string text;
    if (!readWholeFile(path, text)) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    try {
        return json::parse(text);
    } catch (const std::exception &e) {
        throw std::runtime_error(path + ": " + e.what());
    }
}

json normalizeScenario(const json &scenario) {
    if (!scenario.is_object()) throw std::runtime_error("scenario: not a JSON object");
    json state = scenario;
    if (!state.contains("ports")) state["ports"] = json::array();
    if (scenario.contains("adapters")) {
        const json &adapters = scenario["adapters"];
        if (!adapters.is_array()) throw std::runtime_error("scenario: \"adapters\" is not a list");
        int adapterNo = 0;
        for (const json &a : adapters) {
            if (!a.is_object()) throw std::runtime_error("scenario: adapter is not an object");
            if (!a.contains("ports") || !a["ports"].is_array())
                throw std::runtime_error("scenario: adapter without \"ports\" list");
            for (const json &p : a["ports"]) {
                if (!p.is_object()) throw std::runtime_error("scenario: port is not an object");
                json port = p;
                for (auto it = a.begin(); it != a.end(); ++it)
                    if (it.key() != "ports" && !port.contains(it.key())) port[it.key()] = it.value();
                if (!port.contains("adapter")) port["adapter"] = adapterNo;
                state["ports"].push_back(port);
            }
            ++adapterNo;
        }
        state.erase("adapters");
    }
    // Every port needs a device number; the others get defaults when read.
    for (const json &p : state["ports"]) {
        if (!p.is_object() || !p.contains("devno"))
            throw std::runtime_error("scenario: every port needs \"devno\"");
        int64_t devno = toI64(p["devno"], -1);
        if (devno < 0 || devno > 255) throw std::runtime_error("scenario: \"devno\" must be 0 to 255");
    }
    if (!state.contains("faults")) state["faults"] = json::array();
    if (!state.contains("multipath")) state["multipath"] = json::object();
    return state;
}

// ---------------------------------------------------------------------------
// State store
// ---------------------------------------------------------------------------
int StateStore::lock(std::string *why) {
    std::string path = dir_ + "/state.lock";
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        if (why) *why = "open " + path + ": " + std::strerror(errno);
        return -1;
    }
    while (flock(fd, LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        if (why) *why = std::string("flock: ") + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

bool StateStore::loadLocked(std::string *why) {
    struct stat st;
    if (::stat(statePath().c_str(), &st) != 0) {
        if (why) *why = "stat " + statePath() + ": " + std::strerror(errno);
        cached_ = false;
        return false;
    }
    uint64_t stamp[4] = {uint64_t(st.st_ino), uint64_t(st.st_size), uint64_t(st.st_mtim.tv_sec),
                         uint64_t(st.st_mtim.tv_nsec)};
    if (cached_ && std::memcmp(stamp, stamp_, sizeof stamp) == 0) return true;
    try {
        cache_ = loadJsonFile(statePath());
    } catch (const std::exception &e) {
        if (why) *why = e.what();
        cached_ = false;
        return false;
    }
    std::memcpy(stamp_, stamp, sizeof stamp);
    cached_ = true;
    return true;
}

bool StateStore::saveLocked(std::string *why) {
    std::string tmp = statePath() + ".tmp";
    std::string text = cache_.dump(1);
    if (!writeWholeFile(tmp, text)) {
        if (why) *why = "write " + tmp + ": " + std::strerror(errno);
        cached_ = false;
        return false;
    }
    if (::rename(tmp.c_str(), statePath().c_str()) != 0) {
        if (why) *why = "rename: " + std::string(std::strerror(errno));
        cached_ = false;
        return false;
    }
    struct stat st;
    if (::stat(statePath().c_str(), &st) == 0) {
        uint64_t stamp[4] = {uint64_t(st.st_ino), uint64_t(st.st_size),
                             uint64_t(st.st_mtim.tv_sec), uint64_t(st.st_mtim.tv_nsec)};
        std::memcpy(stamp_, stamp, sizeof stamp);
    } else {
        cached_ = false;
    }
    return true;
}

bool StateStore::update(const std::function<bool(json &)> &fn, std::string *why) {
    int fd = lock(why);
    if (fd < 0) return false;
    bool ok = loadLocked(why);
    if (ok) {
        bool changed = false;
        try {
            changed = fn(cache_);
        } catch (const std::exception &e) {
            if (why) *why = e.what();
            cached_ = false;  // the cache may be half changed: re-read next time
            ok = false;
        }
        if (ok && changed) ok = saveLocked(why);
    }
    flock(fd, LOCK_UN);
    ::close(fd);
    return ok;
}

bool StateStore::read(const std::function<void(const json &)> &fn, std::string *why) {
    return update(
        [&](json &s) {
            fn(s);
            return false;
        },
        why);
}

bool StateStore::write(const json &state, std::string *why) {
    int fd = lock(why);
    if (fd < 0) return false;
    cache_ = state;
    cached_ = true;
    bool ok = saveLocked(why);
    flock(fd, LOCK_UN);
    ::close(fd);
    return ok;
}

// ---------------------------------------------------------------------------
// Ports, targets, LUs
// ---------------------------------------------------------------------------
json *findPort(json &state, int devno) {
    auto it = state.find("ports");
    if (it == state.end() || !it->is_array()) return nullptr;
    for (json &p : *it)
        if (fieldI64(p, "devno", -1) == devno) return &p;
    return nullptr;
}

const json *findPort(const json &state, int devno) {
    return findPort(const_cast<json &>(state), devno);
}

int targetCount(const json &port) {
    int64_t gen = fieldI64(port, "gen_targets", -1);
    if (gen >= 0) return int(gen > 2048 ? 2048 : gen);
    auto it = port.find("targets");
    if (it == port.end() || !it->is_array()) return 0;
    return int(it->size() > 2048 ? 2048 : it->size());
}

TargetView targetAt(const json &port, int index) {
    TargetView t;
    uint64_t devno = fieldU64(port, "devno", 0);
    int64_t gen = fieldI64(port, "gen_targets", -1);
    if (gen >= 0) {
        // Generated storage: target i of every port reaches storage port i;
        // ports of the same adapter position share the node names, so the
        // multipath layer sees several paths to one LU.
        t.tid = index;
        t.wwnn = 0x5000000000000000ull | (uint64_t(index) << 8);
        t.wwpn = 0x5100000000000000ull | (uint64_t(index) << 8) | (devno & 0xFF);
        t.group = index & 0xFF;
        t.attribute = 0;
        t.flags = 3;
        t.pathid = int(devno & 0xFF);
        t.luCount = int(fieldI64(port, "gen_luns", 0));
        return t;
    }
    const json &tj = port["targets"][std::size_t(index)];
    t.tid = int(fieldI64(tj, "tid", index));
    t.wwpn = fieldU64(tj, "wwpn", 0x5100000000000000ull | (uint64_t(index) << 8) | (devno & 0xFF));
    t.wwnn = fieldU64(tj, "wwnn", t.wwpn & ~0xFFull);
    t.group = int(fieldI64(tj, "group", 0));
    t.attribute = int(fieldI64(tj, "attribute", 0));
    t.flags = int(fieldI64(tj, "flags", 3));
    t.pathid = int(fieldI64(tj, "pathid", 0));
    t.reportLuns = int(fieldI64(tj, "report_luns", -1));
    auto lus = tj.find("lus");
    if (lus != tj.end() && lus->is_array()) {
        t.lus = &*lus;
        t.luCount = int(lus->size());
    } else {
        t.luCount = int(fieldI64(tj, "lu_count", 0));
    }
    if (t.luCount < 0) t.luCount = 0;
    if (t.luCount > 2048) t.luCount = 2048;
    return t;
}

int luCount(const TargetView &t) { return t.luCount; }

LuView luAt(const json &port, const TargetView &t, int index) {
    LuView lu;
    lu.lun = uint32_t(index);
    lu.pathid = t.pathid;
    const json *lj = nullptr;
    if (t.lus != nullptr && std::size_t(index) < t.lus->size()) {
        lj = &(*t.lus)[std::size_t(index)];
        if (lj->is_number()) {
            lu.lun = uint32_t(toU64(*lj));
            lj = nullptr;
        }
    }
    if (lj != nullptr) {
        lu.lun = uint32_t(fieldU64(*lj, "lun", uint64_t(index)));
        lu.flags = int(fieldI64(*lj, "flags", lu.flags));
        lu.status = int(fieldI64(*lj, "status", lu.status));
        lu.priority = int(fieldI64(*lj, "priority", lu.priority));
        lu.ownerCtl = int(fieldI64(*lj, "owner_ctl", lu.ownerCtl));
        lu.pathid = int(fieldI64(*lj, "pathid", lu.pathid));
        lu.ioerror = uint32_t(fieldU64(*lj, "ioerror", 0));
        lu.iocount = uint32_t(fieldU64(*lj, "iocount", 0));
        lu.idType = int(fieldI64(*lj, "id_type", lu.idType));
    }
    // Path states changed through the driver (set path requests) override
    // the scenario: "path_status" maps "<wwpn>/<lun>" to the new state.
    auto ps = port.find("path_status");
    if (ps != port.end() && ps->is_object() && !ps->empty()) {
        std::string key = hex64(t.wwpn) + "/" + std::to_string(lu.lun);
        auto hit = ps->find(key);
        if (hit != ps->end()) lu.status = int(toI64(*hit, lu.status));
    }
    // NAA-style identifier: the same storage node and LUN give the same
    // identifier on every path.
    if (lj != nullptr && lj->contains("luid") && (*lj)["luid"].is_string()) {
        const std::string &s = (*lj)["luid"].get_ref<const std::string &>();
        for (std::size_t i = 0; i + 1 < s.size() && lu.luid.size() < 128; i += 2)
            lu.luid.push_back(uint8_t(std::strtoul(s.substr(i, 2).c_str(), nullptr, 16)));
    } else {
        lu.luid.push_back(0x60);
        for (int i = 6; i >= 0; --i) lu.luid.push_back(uint8_t(t.wwnn >> (8 * i)));
        for (int i = 3; i >= 0; --i) lu.luid.push_back(uint8_t(lu.lun >> (8 * i)));
        while (lu.luid.size() < 16) lu.luid.push_back(0);
    }
    return lu;
}

// ---------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------
bool readWholeFile(const std::string &path, std::string &out) {
    out.clear();
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            int e = errno;
            ::close(fd);
            errno = e;
            return false;
        }
        if (n == 0) break;
        out.append(buf, std::size_t(n));
    }
    ::close(fd);
    return true;
}

bool writeWholeFile(const std::string &path, const std::string &text, unsigned mode) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return false;
    const char *p = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        ssize_t w = ::write(fd, p, left);
        if (w < 0) {
            if (errno == EINTR) continue;
            int e = errno;
            ::close(fd);
            errno = e;
            return false;
        }
        p += w;
        left -= std::size_t(w);
    }
    if (::close(fd) != 0) return false;
    ::chmod(path.c_str(), mode);
    return true;
}

bool makeDirs(const std::string &path, unsigned mode) {
    if (path.empty()) return false;
    std::string cur;
    std::size_t pos = 0;
    while (pos <= path.size()) {
        std::size_t next = path.find('/', pos);
        if (next == std::string::npos) next = path.size();
        cur = path.substr(0, next);
        if (!cur.empty() && ::mkdir(cur.c_str(), mode) != 0 && errno != EEXIST) return false;
        pos = next + 1;
    }
    return true;
}

bool removeTree(const std::string &path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT;
    if (S_ISDIR(st.st_mode)) {
        DIR *d = ::opendir(path.c_str());
        if (d != nullptr) {
            std::vector<std::string> names;
            while (struct dirent *e = ::readdir(d)) {
                if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
                names.emplace_back(e->d_name);
            }
            ::closedir(d);
            for (const std::string &n : names) removeTree(path + "/" + n);
        }
        return ::rmdir(path.c_str()) == 0;
    }
    return ::unlink(path.c_str()) == 0;
}

namespace {

// A file of the scenario: a text, or {"text": ..., "mode": "0644"}, or null
// (left out).  Returns false when the file is to be left out.
bool fileDesc(const json &desc, std::string &text, unsigned &mode) {
    mode = 0644;
    if (desc.is_null()) return false;
    if (desc.is_string()) {
        text = desc.get<std::string>();
        return true;
    }
    if (desc.is_array()) {  // lines
        text.clear();
        for (const json &l : desc) text += l.is_string() ? l.get<std::string>() + "\n" : l.dump() + "\n";
        return true;
    }
    if (desc.is_object()) {
        if (desc.value("absent", false)) return false;
        text.clear();
        if (desc.contains("text") && desc["text"].is_string()) text = desc["text"].get<std::string>();
        if (desc.contains("lines") && desc["lines"].is_array())
            for (const json &l : desc["lines"]) text += l.get<std::string>() + "\n";
        if (desc.contains("mode")) mode = unsigned(toU64(desc["mode"], 0644));
        return true;
    }
    return false;
}

void putLE32(std::string &buf, std::size_t at, int32_t v) {
    for (int i = 0; i < 4; ++i) buf[at + std::size_t(i)] = char(uint32_t(v) >> (8 * i));
}

std::string parentOf(const std::string &path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? std::string("/") : path.substr(0, slash);
}

}  // namespace

std::string buildModuleImage(const std::string &confText, std::size_t lead, std::size_t trail) {
    // Other content of the module before and after the table area: an ELF
    // header and filler, as the module's code and symbol tables would be.
    std::string image(lead, '\0');
    static const char elf[] = {0x7f, 'E', 'L', 'F', 2, 1, 1, 0};
    for (std::size_t i = 0; i < sizeof elf && i < image.size(); ++i) image[i] = elf[i];
    for (std::size_t i = 64; i < lead; ++i) image[i] = char((i * 131) & 0x7f);
    // The table area: six entries laid end to end.
    struct Entry {
        const char *name;
        std::size_t size;
    };
    static const Entry entries[] = {
        {"<Kestrel_Fibre_Channel_Host_Bus_Adapter_Configuration_Module>", 96},
        {"<Kestrel_Ltd>", 96},
        {"<qmxldd_key>", 4176},
        {"<qmxldd_key_hop>", 4176},
        {"<qmxldd_conf>", 200068},
        {"<CONFIG_END>", 96},
    };
    std::string table(kModuleTableSize, '\0');
    std::size_t at = 0;
    for (std::size_t i = 0; i < 6; ++i) {
        std::memcpy(&table[at], entries[i].name, std::strlen(entries[i].name));
        putLE32(table, at + 64, i == 5 ? 0 : int32_t(entries[i].size));
        if (i == 0) std::memcpy(&table[at + 68], "qmxldd configuration", 20);
        if (i == 1) std::memcpy(&table[at + 68], "Kestrel Ltd", 11);
        if (i == 4) {
            std::size_t n = confText.size() < 200000 ? confText.size() : 199999;
            std::memcpy(&table[at + 68], confText.data(), n);
        }
        at += entries[i].size;
    }
    image += table;
    for (std::size_t i = 0; i < trail; ++i) image.push_back(char(i & 0x3f));
    return image;
}

std::string procText(const json &port) {
    char buf[1024];
    int n = std::snprintf(
        buf, sizeof buf,
        "Kestrel Fibre Channel Host Bus Adapter driver\n"
        "  Driver_version            = %s\n"
        "  Device_name               = qmxldd%d\n"
        "  Instance_number           = %d\n"
        "  Port_WWN                  = %s\n"
        "  Node_WWN                  = %s\n"
        "  Host_number               = %d\n",
        port.value("driver_version", std::string("2.1.0")).c_str(), int(fieldI64(port, "devno", 0)),
        int(fieldI64(port, "instance", fieldI64(port, "devno", 0))),
        hex64(fieldU64(port, "wwpn", 0)).c_str(), hex64(fieldU64(port, "wwnn", 0)).c_str(),
        int(fieldI64(port, "host", fieldI64(port, "devno", 0) + 2)));
    return std::string(buf, n > 0 ? std::size_t(n) : 0);
}

std::string materializePorts(const json &state, const HostLayout &layout) {
    const std::string &r = layout.root;
    if (!makeDirs(r + "/dev")) return "cannot create " + r + "/dev";
    // Device files that no port of the state has any longer are removed.
    if (DIR *d = ::opendir((r + "/dev").c_str())) {
        std::vector<std::string> stale;
        while (struct dirent *e = ::readdir(d)) {
            if (std::strncmp(e->d_name, "qmxldd", 6) != 0) continue;
            char *end = nullptr;
            long n = std::strtol(e->d_name + 6, &end, 10);
            if (end == e->d_name + 6 || *end != '\0') continue;
            if (findPort(state, int(n)) == nullptr) stale.emplace_back(e->d_name);
        }
        ::closedir(d);
        for (const std::string &s : stale) ::unlink((r + "/dev/" + s).c_str());
    }
    std::string procDir = layout.stateDir + "/proc/scsi/vqmxldd";
    removeTree(layout.stateDir + "/proc");
    if (!makeDirs(procDir)) return "cannot create " + procDir;
    makeDirs(r + "/sys/class/scsi_host");
    if (!state.contains("ports")) return std::string();
    for (const json &p : state["ports"]) {
        int devno = int(fieldI64(p, "devno", -1));
        if (devno < 0 || devno > 255) continue;
        int host = int(fieldI64(p, "host", devno + 2));
        if (p.value("device_file", true)) {
            std::string dev = r + "/dev/qmxldd" + std::to_string(devno);
            int fd = ::open(dev.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0) return "cannot create " + dev + ": " + std::strerror(errno);
            ::close(fd);
        }
        if (p.value("proc_file", true)) {
            std::string path = procDir + "/" + std::to_string(host);
            if (!writeWholeFile(path, procText(p))) return "cannot write " + path;
        }
        if (p.value("sysfs_file", true)) {
            std::string dir = r + "/sys/class/scsi_host/host" + std::to_string(host);
            makeDirs(dir);
            std::string path = dir + "/qmxldd_conf";
            struct stat st;
            if (::stat(path.c_str(), &st) != 0 && !writeWholeFile(path, std::string()))
                return "cannot write " + path;
        }
    }
    // SCSI disks: "/sys/block/sdX/device" -> ".../H:C:T:L".
    if (state.contains("scsi_disks") && state["scsi_disks"].is_array()) {
        std::string block = r + "/sys/block";
        makeDirs(block + "/.scsi");
        for (const json &d : state["scsi_disks"]) {
            std::string name = d.value("name", std::string());
            if (name.empty() || name.find('/') != std::string::npos) continue;
            std::string hctl = d.contains("link") ? d["link"].get<std::string>()
                                                  : std::to_string(fieldI64(d, "host", 0)) + ":" +
                                                        std::to_string(fieldI64(d, "channel", 0)) + ":" +
                                                        std::to_string(fieldI64(d, "target", 0)) + ":" +
                                                        std::to_string(fieldI64(d, "lun", 0));
            std::string target = block + "/.scsi/" + hctl;
            if (hctl.find('/') == std::string::npos) makeDirs(target);
            makeDirs(block + "/" + name);
            std::string link = block + "/" + name + "/device";
            ::unlink(link.c_str());
            if (::symlink(("../.scsi/" + hctl).c_str(), link.c_str()) != 0)
                return "cannot link " + link + ": " + std::strerror(errno);
        }
    }
    return std::string();
}

std::string materializeHost(const json &state, const HostLayout &layout) {
    const std::string &r = layout.root;
    // Configuration files and any other file the scenario names.
    std::string confText;
    std::string unreadable;  // paths the driver library refuses to open
    if (state.contains("files") && state["files"].is_object()) {
        for (auto it = state["files"].begin(); it != state["files"].end(); ++it) {
            const std::string &path = it.key();
            if (path.empty() || path[0] != '/') return "file path must be absolute: " + path;
            std::string text;
            unsigned mode;
            std::string full = r + path;
            if (!fileDesc(it.value(), text, mode)) {
                ::unlink(full.c_str());
                continue;
            }
            makeDirs(parentOf(full));
            ::unlink(full.c_str());  // a symbolic link is replaced, not followed
            if (!writeWholeFile(full, text, mode)) return "cannot write " + full + ": " + std::strerror(errno);
            if (path == "/etc/qmxldd.conf") confText = text;
            if (it.value().is_object() && it.value().value("unreadable", false)) unreadable += path + "\n";
        }
    }
    if (!layout.stateDir.empty()) {
        std::string list = layout.stateDir + "/unreadable";
        if (unreadable.empty()) ::unlink(list.c_str());
        else if (!writeWholeFile(list, unreadable)) return "cannot write " + list;
    }
    // "/etc/*-release": the scenario's release files replace the host's.
    if (state.contains("release") && state["release"].is_object()) {
        if (DIR *d = ::opendir((r + "/etc").c_str())) {
            std::vector<std::string> old;
            while (struct dirent *e = ::readdir(d))
                if (std::strstr(e->d_name, "-release") != nullptr) old.emplace_back(e->d_name);
            ::closedir(d);
            for (const std::string &n : old) ::unlink((r + "/etc/" + n).c_str());
        }
        for (auto it = state["release"].begin(); it != state["release"].end(); ++it) {
            if (it.key().find('/') != std::string::npos) continue;
            std::string text;
            unsigned mode;
            if (!fileDesc(it.value(), text, mode)) continue;
            if (!writeWholeFile(r + "/etc/" + it.key(), text, mode)) return "cannot write /etc/" + it.key();
        }
    }
    // The tool directory with the adapter tools.
    std::string hba = r + "/opt/kestrel/drivers/hba";
    if (!makeDirs(hba)) return "cannot create " + hba;
    static const char *const tools[] = {"qmxbios", "qmxdiag", "qmxmcup", "qmxmcref"};
    json toolSel = state.value("tools", json::object());
    for (const char *tool : tools) {
        if (toolSel.contains(tool) && toolSel[tool].is_boolean() && !toolSel[tool].get<bool>()) continue;
        std::string src = layout.toolSourceDir + "/" + tool;
        if (::access(src.c_str(), X_OK) != 0) continue;
        std::string dst = hba + "/" + tool;
        ::unlink(dst.c_str());
        if (::symlink(src.c_str(), dst.c_str()) != 0) return "cannot link " + dst;
    }
    // The configuration module and modules.dep.
    json module = state.value("module", json::object());
    if (module.value("present", true) && !layout.release.empty()) {
        std::string rel = module.value("path", std::string("extra/qmxldd/qmxldd_conf.ko"));
        std::string base = r + "/lib/modules/" + layout.release;
        std::string ko = base + "/" + rel;
        makeDirs(parentOf(ko));
        std::size_t lead = std::size_t(fieldU64(module, "lead", 4096));
        if (lead > 200000) lead = 200000;  // the table must start within the area size
        if (!writeWholeFile(ko, buildModuleImage(confText, lead, std::size_t(fieldU64(module, "trail", 1024)))))
            return "cannot write " + ko;
        if (module.value("modules_dep", true)) {
            std::string dep = "kernel/drivers/scsi/scsi_mod.ko:\n" + rel + ": kernel/drivers/scsi/scsi_mod.ko\n";
            if (!writeWholeFile(base + "/modules.dep", dep)) return "cannot write modules.dep";
        }
    }
    return materializePorts(state, layout);
}

}  // namespace qmxsim
