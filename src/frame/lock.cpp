// Exclusive lock between processes: a 128-byte System V shared-memory segment
// per guarded resource, locked while it starts with "LOCK" and its terminator.
//
// That convention is kept byte for byte, so that processes of older
// libraries and of this one still exclude each other.  On top of it:
//   - whoever takes a lock records itself behind the terminator (process id,
//     start time, since when, command; qmxlock.h), so that a lock whose
//     holder has died, or whose process id now names another process, is
//     taken at once instead of blocking every later caller.  A lock without
//     a record (taken by an older process) is waited for as it always was;
//   - between processes of this library the test and the set are done under
//     an flock on the target's own key file (the file ftok names: it exists
//     whenever the lock can be used at all, it is the same file for every
//     process of the host or of a virtual host, and being a system file it
//     cannot be planted by another user as a file in a shared folder could).
//     A process that cannot open it (no read right) falls back to the bare
//     test-then-set of older processes;
//   - the library's own releases free a lock only when this process holds
//     it; QMX_ExeclusiveUnlock still frees any holder's lock, for tools.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>

#include "frame/frame.h"
#include "qmxlock.h"

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
constexpr int kSegmentSize = QMX_LOCK_SEGMENT_SIZE;
constexpr int kLockTries = 5;
constexpr unsigned kRetrySeconds = 2;
const char kLockText[5] = {'L', 'O', 'C', 'K', '\0'};
static_assert(QMX_LOCK_RECORD_OFFSET >= int(sizeof kLockText) &&
              QMX_LOCK_RECORD_OFFSET + sizeof(qmx_lock_holder) <= std::size_t(kSegmentSize));

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

// The flock on a target's key file around a test and its set.  Without the
// file (no read right) the guard holds nothing.
class KeyFileGuard {
public:
    explicit KeyFileGuard(const char *path) noexcept : fd_(open(path, O_RDONLY | O_CLOEXEC)) {
        if (fd_ >= 0)
            while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
    }
    ~KeyFileGuard() {
        if (fd_ >= 0) close(fd_);
    }
    KeyFileGuard(const KeyFileGuard &) = delete;
    KeyFileGuard &operator=(const KeyFileGuard &) = delete;

private:
    int fd_;
};

// This process as a holder record.
qmx_lock_holder selfRecord() noexcept {
    qmx_lock_holder h{};
    std::memcpy(h.magic, QMX_LOCK_RECORD_MAGIC, sizeof h.magic);
    h.pid = getpid();
    int zombie = 0;
    if (qmx_lock_process_start(h.pid, &h.start_ticks, &zombie) != 0) h.start_ticks = 0;
    h.since = std::time(nullptr);
    int fd = open("/proc/self/comm", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t n = read(fd, h.comm, sizeof h.comm - 1);
        close(fd);
        if (n > 0 && h.comm[n - 1] == '\n') h.comm[n - 1] = '\0';
    }
    return h;
}

bool recordOf(const char *seg, qmx_lock_holder *h) noexcept {
    std::memcpy(h, seg + QMX_LOCK_RECORD_OFFSET, sizeof *h);
    return std::memcmp(h->magic, QMX_LOCK_RECORD_MAGIC, sizeof h->magic) == 0 && h->pid > 0;
}

bool heldBySelf(const char *seg) noexcept {
    qmx_lock_holder h;
    if (!isLocked(seg) || !recordOf(seg, &h) || h.pid != getpid()) return false;
    uint64_t ticks = 0;
    int zombie = 0;
    return qmx_lock_process_start(h.pid, &ticks, &zombie) != 0 || h.start_ticks == 0 ||
           ticks == h.start_ticks;
}

// The record first, then the convention's five bytes.
void take(char *seg) noexcept {
    qmx_lock_holder h = selfRecord();
    std::memcpy(seg + QMX_LOCK_RECORD_OFFSET, &h, sizeof h);
    std::memcpy(seg, kLockText, sizeof kLockText);
}

// The convention's release (one zero byte at the start), then the record.
void release(char *seg) noexcept {
    seg[0] = '\0';
    std::memset(seg + QMX_LOCK_RECORD_OFFSET, 0, sizeof(qmx_lock_holder));
}

int unlock(int lock_target, bool onlyOwn) noexcept {
    qmx::trace("QMX_ExeclusiveUnlock START");
    char message[96];
    char *seg = targetSegment(lock_target, message);
    if (seg == nullptr) {
        qmx::trace("Not found unlock dir");
        qmx::trace("QMX_ExeclusiveUnlock ABEND");
        return -1;
    }
    KeyFileGuard guard(message);
    if (!onlyOwn || heldBySelf(seg)) release(seg);
    return 0;
}

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
    // One test (and set) under the key file's flock; never sleeps holding it.
    auto tryTake = [&] {
        KeyFileGuard guard(message);
        if (!isLocked(seg)) {
            take(seg);
            return true;
        }
        qmx_lock_holder h;
        if (recordOf(seg, &h) && qmx_lock_holder_gone(&h)) {
            qmx::tracef("%s is Lock TAKEOVER from dead process %lld", message, (long long)h.pid);
            take(seg);
            return true;
        }
        return false;
    };
    for (int tries = kLockTries; tries != 0; --tries) {
        if (tryTake()) {
            qmx::tracef("%s is Lock SUCCESS", message);
            return 0;
        }
        sleep(kRetrySeconds);
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

// Any process may release a lock, and releasing a free lock succeeds.
int QMX_ExeclusiveUnlock(int lock_target) { return unlock(lock_target, false); }

namespace qmx {

int releaseOwnLock(int lock_target) noexcept { return unlock(lock_target, true); }

}  // namespace qmx
