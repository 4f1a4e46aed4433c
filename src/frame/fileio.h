// Whole-file rewrites that never leave a file truncated or half-written.
#pragma once

#include <sys/types.h>

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

// Writes all of `data` to `fd`, resuming after short writes and EINTR.
// false with errno set on failure.
bool writeAll(int fd, const void *data, std::size_t len) noexcept;

}  // namespace qmx
