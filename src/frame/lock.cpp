// Exclusive lock between processes: a 128-byte System V shared-memory segment
// per guarded resource, locked while it starts with "LOCK" and its terminator.
//
// The test-then-set protocol is not atomic; it is kept as it is so that every
// process using this convention excludes every other one.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "frame/frame.h"

namespace {

struct LockTarget {
    const char *path;
    int projectId;
};

// Indexed by target number 1..6.
constexpr LockTarget kTargets[] = {
    {"/etc/qmxldd.conf", 1},
    {"/etc/modprobe.d/qmxldd_param.conf", 2},
    {"/etc/qmxlib.conf", 3},
    {"/opt/kestrel/drivers/hba/qmx_exec.log", 4},
    {"/etc/rc.d/init.d/qmxmknod", 5},
    {"/opt/kestrel/drivers/hba/qmxbios", 6},
};
constexpr int kSegmentSize = 128;
constexpr int kLockTries = 5;
constexpr unsigned kRetrySeconds = 2;
const char kLockText[5] = {'L', 'O', 'C', 'K', '\0'};

// The segment stays attached until the process ends.  Each segment is
// attached once per process and the mapping reused, so that a long-running
// tool does not gather one mapping per call.
char *attachSegment(int key) {
    static std::map<int, char *> attached;  // shmid -> address
    int id = shmget(key, kSegmentSize, IPC_CREAT | 0666);
    if (id == -1) {
        qmx::sysError("shmget", errno);
        return nullptr;
    }
    auto it = attached.find(id);
    if (it != attached.end()) return it->second;
    void *addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void *>(-1)) {
        // Reported under "shmget" although shmat failed: tools match on it.
        qmx::sysError("shmget", errno);
        return nullptr;
    }
    try {
        attached.emplace(id, static_cast<char *>(addr));
    } catch (...) {
        // Not cached: the mapping simply stays as an extra attachment.
    }
    return static_cast<char *>(addr);
}

// The segment of a target, shared by the three lock calls: key, then
// segment.  A key that cannot be formed is traced as "Unknown lock target",
// whatever the cause (an unknown target or a failed ftok); a segment that
// cannot be had is reported by attachSegment.  `message` receives the
// target's path.
char *targetSegment(int lock_target, char *message) {
    int key = QMX_GetLockKey(lock_target, message);
    if (key == -1) {
        qmx::trace("Unknown lock target");
        return nullptr;
    }
    return attachSegment(key);
}

bool isLocked(const char *seg) { return std::memcmp(seg, kLockText, sizeof kLockText) == 0; }

}  // namespace

int QMX_GetLockKey(int lock_target, char *message) {
    qmx::tracef("QMX_GetLockKey START(%d)", lock_target);
    if (lock_target < 1 || lock_target > int(std::size(kTargets))) {
        qmx::trace("Unknown lock target");
        qmx::trace("QMX_GetLockKey ABEND");
        QMX_G_ERROR_CD = QMX_ERR_INTERNAL;
        return -1;
    }
    const LockTarget &t = kTargets[lock_target - 1];
    if (message != nullptr) std::strcpy(message, t.path);  // callers hold 38 bytes
    key_t key = ftok(t.path, t.projectId);
    if (key == key_t(-1)) {
        QMX_G_ERROR_CD = QMX_ERR_SYSTEM;
        qmx::trace("ftok lock key get fail ");
        return -1;
    }
    return int(key);
}

int QMX_ExeclusiveLock(int lock_target) {
    qmx::trace("QMX_ExeclusiveLock START");
    char message[96];
    char *seg = targetSegment(lock_target, message);
    if (seg == nullptr) {
        qmx::trace("QMX_ExeclusiveLock ABEND");
        return -1;
    }
    int tries = kLockTries;
    while (tries != 0) {
        if (!isLocked(seg)) break;
        --tries;
        sleep(kRetrySeconds);
    }
    if (tries != 0) {
        std::memcpy(seg, kLockText, sizeof kLockText);
        qmx::tracef("%s is Lock SUCCESS", message);
        return 0;
    }
    QMX_G_ERROR_CD = QMX_ERR_LOCK;
    qmx::tracef("%s is Lock FAIL.retry count over", message);
    qmx::trace("QMX_ExeclusiveLock ABEND");
    return -1;
}

int QMX_ExeclusiveLockCheck(int lock_target) {
    qmx::trace("QMX_ExeclusiveLockCheck START");
    char message[96];
    char *seg = targetSegment(lock_target, message);
    if (seg == nullptr) {
        qmx::trace("QMX_ExeclusiveLockCheck ABEND");
        return -1;
    }
    if (isLocked(seg)) {
        qmx::trace("QMX_ExeclusiveLockCheck lock END");
        return 0;
    }
    qmx::trace("QMX_ExeclusiveLockCheck unlock END");
    return 1;
}

int QMX_ExeclusiveUnlock(int lock_target) {
    qmx::trace("QMX_ExeclusiveUnlock START");
    char message[96];
    char *seg = targetSegment(lock_target, message);
    if (seg == nullptr) {
        qmx::trace("Not found unlock dir");
        qmx::trace("QMX_ExeclusiveUnlock ABEND");
        return -1;
    }
    seg[0] = '\0';
    return 0;
}
