// Whole-file rewrites that never leave a file truncated or half-written.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <string_view>

namespace qmx {

// The system call that failed and its errno, for QMX_OutputSysLog-style reports.
struct FileError {
    const char *call = nullptr;
    int err = 0;
};

// Replaces the whole contents of the file at `path` with `data`, for files
// that are not lock keys (their inode may change):
//   - a new file is written beside the real one (same folder, so the rename
//     stays on one file system), flushed to disk, given the old file's owner
//     and mode, then renamed over the old one, and the folder is flushed;
//   - when `path` is a symbolic link, the file it points to is replaced and
//     the link is kept;
//   - a file that did not exist is created with `newMode`;
//   - on any failure the old file is left exactly as it was, the new one is
//     removed, and *err names the failing call and its errno.
// Never throws.
bool replaceFile(const char *path, std::string_view data, FileError *err,
                 mode_t newMode = 0644) noexcept;

// Flushes the folder that holds `file` to disk, so that a file created,
// renamed or removed there stays so after a crash.  Best effort.
void syncFolder(const std::string &file) noexcept;

// Writes all of `data` to `fd`, resuming after short writes and EINTR.
// false with errno set on failure.
bool writeAll(int fd, const void *data, std::size_t len) noexcept;

// Writes all of `text` at the start of `fd` (pwrite; the file offset is
// left alone), resuming after short writes and EINTR.  false with errno set.
bool writeAllAt(int fd, std::string_view text) noexcept;

// Reads the first `size` bytes of `fd` (fewer when the file is shorter) into
// `text`.  false with errno set.  May throw std::bad_alloc.
bool readAllAt(int fd, std::size_t size, std::string &text);
// The same into `buf` (room for `size` bytes), from `at` on; *got tells how
// many were read.
bool readAllAt(int fd, char *buf, std::size_t size, std::size_t *got, off_t at = 0) noexcept;

// Opening a scratch file with a fixed name in a folder every user may write
// to ("/tmp/conf_modules1.hba" and its siblings).  Another user can plant
// anything at such a name before the library runs, so:
//   - a symbolic link is never followed (O_NOFOLLOW: *err = {"open", ELOOP});
//   - whatever was opened must be a plain file with one name, owned by the
//     effective user; anything else is refused (*err = {"fstat", EPERM})
//     before a byte of it is read, cut or written;
//   - Write creates the file (mode 0600: no other user may change it while
//     the library works with it) or empties it only after those checks;
//     Append creates it too; Read never creates.
// A refusal also writes one system-log line naming the file and the reason.
// Other failures give *err = {"open" or "fdopen", errno}.  The stream is
// close-on-exec.  Never throws.
enum class ScratchMode { Read, Write, Append };
FILE *openScratch(const char *path, ScratchMode mode, FileError *err) noexcept;

}  // namespace qmx
