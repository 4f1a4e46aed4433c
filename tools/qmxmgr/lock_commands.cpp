// lock status, lock release: who holds exclusive lock 1 (the lock every
// setter of the driver configuration takes), and its release by hand.
//
// The holder is read from the lock segment itself: the segment is a
// documented convention (System V shared memory, key ftok of
// "/etc/qmxldd.conf" with project id 1, "LOCK" and its terminator while held,
// the holder record of qmxlock.h behind it), so reading it needs no call of
// the library.  The release goes through QMX_ExeclusiveUnlock.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <optional>

#include "commands.h"
#include "qmxlock.h"

namespace qmxmgr {

namespace {

constexpr const char *kLockPath = "/etc/qmxldd.conf";
constexpr int kLockTarget = 1;

struct Holder {
    long long pid = 0;
    std::string command;
    std::time_t since = 0;
    bool alive = true;
};

struct LockState {
    bool held = false;
    std::optional<Holder> holder;  // none: taken by a process that leaves no record
};

LockState readLock() {
    LockState s;
    key_t key = ftok(kLockPath, kLockTarget);
    if (key == key_t(-1))
        throw std::runtime_error(std::string(kLockPath) + ": " + std::strerror(errno));
    int id = shmget(key, QMX_LOCK_SEGMENT_SIZE, 0);
    if (id < 0) {
        if (errno == ENOENT) return s;  // never used on this host: free
        throw std::runtime_error(std::string("lock segment: ") + std::strerror(errno));
    }
    void *addr = shmat(id, nullptr, SHM_RDONLY);
    if (addr == reinterpret_cast<void *>(-1))
        throw std::runtime_error(std::string("lock segment: ") + std::strerror(errno));
    char seg[QMX_LOCK_SEGMENT_SIZE];
    std::memcpy(seg, addr, sizeof seg);
    shmdt(addr);
    s.held = std::memcmp(seg, "LOCK", 5) == 0;
    qmx_lock_holder h;
    std::memcpy(&h, seg + QMX_LOCK_RECORD_OFFSET, sizeof h);
    if (!s.held || std::memcmp(h.magic, QMX_LOCK_RECORD_MAGIC, sizeof h.magic) != 0 || h.pid <= 0) return s;
    Holder out;
    out.pid = h.pid;
    out.since = std::time_t(h.since);
    out.alive = !qmx_lock_holder_gone(&h);  // judged as the library judges it
    out.command = fieldText(h.comm, sizeof h.comm);
    s.holder = out;
    return s;
}

std::string timeText(std::time_t t) {
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf;
}

std::string holderText(const LockState &s) {
    if (!s.holder) return "a process that leaves no holder record (an older library or tool)";
    const Holder &h = *s.holder;
    std::string t = "process " + std::to_string(h.pid) + " (" + (h.command.empty() ? "?" : h.command) +
                    ") since " + timeText(h.since);
    if (!h.alive) t += ", which no longer runs: the next setter takes the lock over";
    return t;
}

int cmdLockStatus(const Options &o) {
    LockState s = readLock();
    if (o.json) {
        json j{{"lock", kLockTarget}, {"key_file", kLockPath}, {"held", s.held}, {"holder", nullptr}};
        if (s.holder)
            j["holder"] = json{{"pid", s.holder->pid},
                               {"command", s.holder->command},
                               {"since", timeText(s.holder->since)},
                               {"alive", s.holder->alive}};
        std::cout << j.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
        return kExitOk;
    }
    if (!s.held)
        std::printf("lock %d (%s): free\n", kLockTarget, kLockPath);
    else
        std::printf("lock %d (%s): held by %s\n", kLockTarget, kLockPath, holderText(s).c_str());
    return kExitOk;
}

// Without --force only a lock nobody can still be using is released: one
// whose recorded holder no longer runs.  A live holder, or a holder that
// cannot be known (no record), keeps it: releasing it would let a second
// setter rewrite the configuration at the same time.  --force releases it
// whoever holds it, as any process may.
int cmdLockRelease(const Options &o) {
    LockState s = readLock();
    if (!o.force && !s.held) {
        std::printf("lock %d (%s): free\n", kLockTarget, kLockPath);
        return kExitOk;
    }
    if (!o.force && (!s.holder || s.holder->alive)) {
        std::cerr << "qmxmgr: lock " << kLockTarget << " is held by " << holderText(s)
                  << "; not released (--force releases it anyway)\n";
        return kExitFailed;
    }
    if (QMX_ExeclusiveUnlock(kLockTarget) != 0) throw CallError("QMX_ExeclusiveUnlock", QMX_LastErrorCode());
    std::printf("lock %d (%s): released\n", kLockTarget, kLockPath);
    return kExitOk;
}

}  // namespace

void addLockCommands(CommandLine &cl) {
    auto o = std::make_shared<Options>();
    auto *lock = cl.app.add_subcommand("lock", "Exclusive lock 1, taken by every setter of the driver configuration");
    lock->require_subcommand(1, 1);
    auto *status = lock->add_subcommand("status", "Whether lock 1 is held, and by which process since when");
    status->add_flag("--json", o->json, "JSON output");
    cl.on(status, [o] { return cmdLockStatus(*o); });
    auto *release = lock->add_subcommand(
        "release",
        "Release lock 1 when its holder no longer runs; exit status 1 when a live or unknown holder keeps it");
    release->add_flag("--force", o->force, "Release it whoever holds it");
    cl.on(release, [o] { return cmdLockRelease(*o); });
}

}  // namespace qmxmgr
