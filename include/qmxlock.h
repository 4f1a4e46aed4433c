/*
 * qmxlock.h - the holder record of the exclusive lock segments.
 *
 * An exclusive lock is a 128-byte System V shared-memory segment whose key is
 * ftok(<target's path>, <target number>) (lock 1: "/etc/qmxldd.conf", 1).  It
 * is held while its first five bytes are "LOCK" and its terminator; that
 * convention is all older processes know, and it is kept.  Behind it, at
 * byte QMX_LOCK_RECORD_OFFSET, this library records who took the lock, so
 * that a lock whose holder has died can be taken at once, and so that tools
 * can show who holds it.  A held lock without a valid record was taken by an
 * older process.  See doc/crash-safety.md.
 */
#ifndef QMXLOCK_H
#define QMXLOCK_H

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#define QMX_LOCK_SEGMENT_SIZE 128
#define QMX_LOCK_RECORD_OFFSET 8
#define QMX_LOCK_RECORD_MAGIC "QMXHOLD" /* with its terminator: 8 bytes */

typedef struct qmx_lock_holder {
    char magic[8];         /* QMX_LOCK_RECORD_MAGIC; anything else: no record */
    int64_t pid;           /* the holder's process id */
    uint64_t start_ticks;  /* its start time: field 22 of /proc/<pid>/stat */
    int64_t since;         /* when it took the lock, seconds since 1970 */
    char comm[16];         /* its command name (/proc/<pid>/comm), terminated */
} qmx_lock_holder;

/* Field 22 of /proc/<pid>/stat (the start time in clock ticks after boot)
 * into *ticks, and whether the process is a zombie into *zombie.  0 on
 * success, -1 when the entry cannot be read. */
static inline int qmx_lock_process_start(long long pid, uint64_t *ticks, int *zombie) {
    char path[64], buf[1024];
    const char *p;
    char state = 0;
    unsigned long long start = 0;
    ssize_t n;
    int fd;
    snprintf(path, sizeof path, "/proc/%lld/stat", pid);
    fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0) return -1;
    buf[n] = '\0';
    /* The command name (field 2) may hold blanks and parentheses: the fields
     * that follow start after its last ')'. */
    p = strrchr(buf, ')');
    if (p == NULL ||
        sscanf(p + 1, " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu",
               &state, &start) != 2)
        return -1;
    *ticks = start;
    *zombie = state == 'Z' || state == 'X';
    return 0;
}

/* 1 only when the recorded holder certainly no longer runs: its process id is
 * unused, names a zombie, or names a process started at another time (a
 * reused id).  A process this one may not signal (another user's) exists; one
 * whose /proc entry cannot be read counts as running. */
static inline int qmx_lock_holder_gone(const qmx_lock_holder *h) {
    uint64_t ticks = 0;
    int zombie = 0;
    if (kill((pid_t)h->pid, 0) != 0 && errno == ESRCH) return 1;
    if (qmx_lock_process_start(h->pid, &ticks, &zombie) != 0) return 0;
    return zombie || (h->start_ticks != 0 && ticks != h->start_ticks);
}

#endif
