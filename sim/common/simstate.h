// State of one virtual host: the simulated adapters, their driver data and the
// host files built from them.  Shared by the launcher (qmxsim), the simulated
// driver (LD_PRELOAD library) and the end-to-end test fixture.
//
// The state lives in "<state dir>/state.json", guarded by an flock on
// "<state dir>/state.lock".  Every process of one virtual host works on it
// under that lock, so the adapters look the same to all of them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qmxsim {

using json = nlohmann::json;

// ---------------------------------------------------------------------------
// Numbers in the state: JSON numbers or texts such as "0x2100001122334455".
// ---------------------------------------------------------------------------
uint64_t toU64(const json &j, uint64_t dflt = 0);
int64_t toI64(const json &j, int64_t dflt = 0);
uint64_t fieldU64(const json &obj, const char *key, uint64_t dflt);
int64_t fieldI64(const json &obj, const char *key, int64_t dflt);
std::string hex64(uint64_t v);  // "0x" and 16 hex digits

// ---------------------------------------------------------------------------
// Scenario -> state.  A scenario lists "adapters", each with "ports"; the
// state keeps a flat "ports" list in which every port carries its adapter's
// fields (bus, dev, vendor, device, model ...).  A scenario that already has a
// flat "ports" list is taken as it is.  Throws std::exception on bad input.
// ---------------------------------------------------------------------------
json normalizeScenario(const json &scenario);

// Loads a JSON file; throws std::runtime_error with the reason.
json loadJsonFile(const std::string &path);

// ---------------------------------------------------------------------------
// The state file with its lock.
// ---------------------------------------------------------------------------
class StateStore {
public:
    explicit StateStore(std::string dir) : dir_(std::move(dir)) {}
    const std::string &dir() const { return dir_; }
    std::string statePath() const { return dir_ + "/state.json"; }

    // Runs `fn` on the state under the exclusive lock; the state is written
    // back when `fn` returns true.  The parsed state is cached between calls
    // of one process and re-read only when the file changed.  Returns false
    // when the state cannot be read, locked or written (errno-like reason in
    // *why).
    bool update(const std::function<bool(json &)> &fn, std::string *why = nullptr);
    // Read-only access under the lock.
    bool read(const std::function<void(const json &)> &fn, std::string *why = nullptr);
    // Replaces the whole state (used when the host is created).
    bool write(const json &state, std::string *why = nullptr);

private:
    bool loadLocked(std::string *why);
    bool saveLocked(std::string *why);
    int lock(std::string *why);

    std::string dir_;
    json cache_;
    bool cached_ = false;
    uint64_t stamp_[4] = {0, 0, 0, 0};  // ino, size, mtime s, mtime ns
};

// ---------------------------------------------------------------------------
// Port helpers.
// ---------------------------------------------------------------------------
// The port with device number `devno`, or nullptr.
json *findPort(json &state, int devno);
const json *findPort(const json &state, int devno);

// The port's targets, generated when the port says "gen_targets" (so that the
// maximum configuration stays small in the state).  Each target: "tid",
// "wwpn", "wwnn", "group", "attribute", "flags", "pathid", "lu_count" or
// "lus".
struct TargetView {
    int tid = 0;
    uint64_t wwpn = 0, wwnn = 0;
    int group = 0, attribute = 0, flags = 3, pathid = 0;
    int luCount = 0;            // when the LUs are generated
    const json *lus = nullptr;  // explicit LU list, or nullptr
    int reportLuns = -1;        // REPORT LUNS entries, -1: the LU count
};
int targetCount(const json &port);
TargetView targetAt(const json &port, int index);

// An LU identifier (at most 128 bytes), kept without heap memory: LU maps
// of the maximum configuration are generated a few million entries at a time.
struct LuId {
    uint8_t bytes[128] = {};
    std::size_t len = 0;
    void push_back(uint8_t b) {
        if (len < sizeof bytes) bytes[len++] = b;
    }
    std::size_t size() const { return len; }
    const uint8_t *data() const { return bytes; }
    const uint8_t *begin() const { return bytes; }
    const uint8_t *end() const { return bytes + len; }
    bool operator==(const LuId &o) const {
        return len == o.len && std::equal(bytes, bytes + len, o.bytes);
    }
};

struct LuView {
    uint32_t lun = 0;
    int flags = 1, status = 1, priority = 0, ownerCtl = 0, pathid = 0;
    uint32_t ioerror = 0, iocount = 0;
    int idType = 3;
    LuId luid;  // LU identifier
};
int luCount(const TargetView &t);
LuView luAt(const json &port, const TargetView &t, int index);

// ---------------------------------------------------------------------------
// Host files built from the state (device files, /proc entries, /sys entries,
// configuration files, module image).  `root` is prepended to every absolute
// path ("" inside the sandbox).  `procDir` is where "/proc/scsi/vqmxldd" is
// redirected to (the state directory's "proc/scsi/vqmxldd").
// ---------------------------------------------------------------------------
struct HostLayout {
    std::string root;           // "" in the sandbox
    std::string stateDir;       // the state directory
    std::string toolSourceDir;  // where the built adapter tools are
    std::string release;        // uname -r
};

// Writes every file the scenario describes.  Returns "" or an error text.
std::string materializeHost(const json &state, const HostLayout &layout);
// Device files, /proc and /sys entries only (after ports changed).
std::string materializePorts(const json &state, const HostLayout &layout);

// The configuration module image: a file holding the table area of the
// driver's configuration module after `lead` bytes of other content.
std::string buildModuleImage(const std::string &confText, std::size_t lead = 4096,
                             std::size_t trail = 1024);
constexpr std::size_t kModuleTableSize = 208708;

// Small file helpers (absolute paths).
bool readWholeFile(const std::string &path, std::string &out);
bool writeWholeFile(const std::string &path, const std::string &text, unsigned mode = 0644);
bool makeDirs(const std::string &path, unsigned mode = 0755);
bool removeTree(const std::string &path);

// "/proc/scsi/vqmxldd/<host>" contents for one port.
std::string procText(const json &port);

}  // namespace qmxsim
