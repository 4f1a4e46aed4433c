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

#include <stdint.h>

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

#endif
