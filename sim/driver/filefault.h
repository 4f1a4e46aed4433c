// File faults of the virtual host: the n-th open, read, write, fsync or
// rename of a host file fails with EIO or ENOSPC, or the process is killed
// there (a crash point).  Armed per process by the environment variable
//
//   QMXSIM_FAULT="<op>:<n>:<action>[:<path-substring>]"
//
// read once when the simulated driver is loaded and then removed from the
// environment, so that the shell and the adapter tools a call starts run
// unharmed.  See sim/README.md for the operations each kind counts.
#pragma once

#include <cstdio>

namespace qmxsim::fault {

enum class Op { Open, Read, Write, Fsync, Rename };

// True when a fault is armed in this process (cheap: one load).
bool armed() noexcept;

// Counts one operation of kind `op` on `path` (or on the file behind `fd`
// when `path` is null).  Returns true when this operation is the one that
// fails: errno is then set, and the caller returns its failure value.  A
// kill action does not return.
bool hit(Op op, const char *path, int fd = -1) noexcept;

// Descriptor bookkeeping for counted files.
void track(int fd, const char *path) noexcept;
void untrack(int fd) noexcept;
bool counted(const char *path) noexcept;
bool isTracked(int fd) noexcept;
// The descriptor of a stream made by wrapStream, or -1.
int streamFd(FILE *fp) noexcept;

// A stream over `fd` whose reads, writes and close go through the counted
// calls (glibc's own streams call the system directly), or null.
FILE *wrapStream(int fd, const char *mode) noexcept;

}  // namespace qmxsim::fault
