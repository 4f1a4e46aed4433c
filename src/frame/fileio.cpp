// Whole-file rewrites through a new file and a rename.
#include "frame/fileio.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace qmx {

namespace {

constexpr int kMaxLinkHops = 40;  // as the kernel's own limit on link chains

// The file a path finally names, following symbolic links (also dangling
// ones, so that a link to a file not yet created is kept and the file is
// created where it points).
bool resolveTarget(const char *path, std::string *out, FileError *err) {
    std::string cur = path;
    for (int hop = 0; hop <= kMaxLinkHops; ++hop) {
        struct stat st;
        if (lstat(cur.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
            *out = cur;
            return true;
        }
        char buf[PATH_MAX];
        ssize_t n = readlink(cur.c_str(), buf, sizeof buf - 1);
        if (n < 0) {
            *err = {"readlink", errno};
            return false;
        }
        buf[n] = '\0';
        if (buf[0] == '/') {
            cur.assign(buf, std::size_t(n));
        } else {
            std::size_t slash = cur.rfind('/');
            cur = (slash == std::string::npos ? std::string() : cur.substr(0, slash + 1)) +
                  std::string(buf, std::size_t(n));
        }
    }
    *err = {"readlink", ELOOP};
    return false;
}

void syncFolder(const std::string &file) {
    std::size_t slash = file.rfind('/');
    std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : file.substr(0, slash));
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        // Best effort: the rename itself has already happened.
        (void)fsync(fd);
        close(fd);
    }
}

bool replaceImpl(const char *path, std::string_view data, FileError *err, mode_t newMode) {
    std::string target;
    if (!resolveTarget(path, &target, err)) return false;

    struct stat old;
    bool existed = stat(target.c_str(), &old) == 0;
    if (!existed && errno != ENOENT) {
        *err = {"stat", errno};
        return false;
    }
    if (existed && !S_ISREG(old.st_mode)) {
        *err = {"stat", EISDIR};
        return false;
    }

    std::size_t slash = target.rfind('/');
    std::string tmp = (slash == std::string::npos ? std::string() : target.substr(0, slash + 1)) + "." +
                      target.substr(slash == std::string::npos ? 0 : slash + 1) + ".XXXXXX";
    int fd = mkostemp(tmp.data(), O_CLOEXEC);
    if (fd < 0) {
        *err = {"mkstemp", errno};
        return false;
    }
    auto fail = [&](const char *call) {
        int e = errno;
        close(fd);
        unlink(tmp.c_str());
        *err = {call, e};
        return false;
    };
    if (!writeAll(fd, data.data(), data.size())) return fail("write");
    if (existed) {
        if ((old.st_uid != geteuid() || old.st_gid != getegid()) && fchown(fd, old.st_uid, old.st_gid) != 0)
            return fail("fchown");
        if (fchmod(fd, old.st_mode & 07777) != 0) return fail("fchmod");
    } else if (fchmod(fd, newMode) != 0) {
        return fail("fchmod");
    }
    if (fsync(fd) != 0) return fail("fsync");
    if (close(fd) != 0) {
        int e = errno;
        unlink(tmp.c_str());
        *err = {"close", e};
        return false;
    }
    if (rename(tmp.c_str(), target.c_str()) != 0) {
        int e = errno;
        unlink(tmp.c_str());
        *err = {"rename", e};
        return false;
    }
    syncFolder(target);
    return true;
}

}  // namespace

bool writeAll(int fd, const void *data, std::size_t len) noexcept {
    const char *p = static_cast<const char *>(data);
    while (len > 0) {
        ssize_t n = write(fd, p, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) {
            errno = EIO;
            return false;
        }
        p += n;
        len -= std::size_t(n);
    }
    return true;
}

bool replaceFile(const char *path, std::string_view data, FileError *err, mode_t newMode) noexcept {
    FileError dummy;
    if (err == nullptr) err = &dummy;
    try {
        return replaceImpl(path, data, err, newMode);
    } catch (...) {  // std::string growth: nothing has been written yet
        *err = {"malloc", ENOMEM};
        return false;
    }
}

}  // namespace qmx
