// Whole-file rewrites through a new file and a rename.
#include "frame/fileio.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <string>

#include "qmxvlib.h"

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

void syncFolder(const std::string &file) noexcept {
    try {
        std::size_t slash = file.rfind('/');
        std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : file.substr(0, slash));
        int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0) {
            // Best effort: the change itself has already happened.
            (void)fsync(fd);
            close(fd);
        }
    } catch (...) {
    }
}

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

bool writeAllAt(int fd, std::string_view text) noexcept {
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t w = pwrite(fd, text.data() + done, text.size() - done, off_t(done));
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += std::size_t(w);
    }
    return true;
}

bool readAllAt(int fd, char *buf, std::size_t size, std::size_t *got, off_t at) noexcept {
    *got = 0;
    while (*got < size) {
        ssize_t r = pread(fd, buf + *got, size - *got, at + off_t(*got));
        if (r < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (r == 0) break;
        *got += std::size_t(r);
    }
    return true;
}

bool readAllAt(int fd, std::size_t size, std::string &text) {
    text.resize(size);
    std::size_t got = 0;
    bool ok = readAllAt(fd, text.data(), size, &got);
    text.resize(got);
    return ok;
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

namespace {

void logRefusal(const char *path, const char *why) noexcept {
    char msg[512];
    std::snprintf(msg, sizeof msg, "qmxvlib:%s refused: %s", path, why);
    QMX_WriteSyslog(2, msg);
}

}  // namespace

FILE *openScratch(const char *path, ScratchMode mode, FileError *err) noexcept {
    FileError dummy;
    if (err == nullptr) err = &dummy;
    if (path == nullptr) {
        *err = {"open", EINVAL};
        return nullptr;
    }
    static constexpr struct {
        int flags;
        const char *fdopenMode;
    } kModes[] = {
        {O_RDONLY, "r"},
        {O_WRONLY | O_CREAT, "w"},  // no O_TRUNC: the file is cut only once it is known to be ours
        {O_WRONLY | O_CREAT | O_APPEND, "a"},
    };
    const auto &m = kModes[static_cast<int>(mode)];
    // O_NONBLOCK: a FIFO planted at the name must not hang the open; it is
    // refused below like any other file that is not a plain one.
    int fd = open(path, m.flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    if (fd < 0) {
        *err = {"open", errno};
        if (errno == ELOOP) logRefusal(path, "symbolic link");
        return nullptr;
    }
    auto fail = [&](FileError e) -> FILE * {
        close(fd);
        *err = e;
        return nullptr;
    };
    struct stat st;
    if (fstat(fd, &st) != 0) return fail({"fstat", errno});
    const char *why = nullptr;
    if (!S_ISREG(st.st_mode)) why = "not a plain file";
    else if (st.st_uid != geteuid()) why = "owned by another user";
    // A second name (a hard link) could make it another user's file in
    // disguise.
    else if (st.st_nlink != 1) why = "more than one name";
    if (why != nullptr) {
        logRefusal(path, why);
        return fail({"fstat", EPERM});
    }
    int fl = fcntl(fd, F_GETFL);
    if (fl < 0 || fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) != 0) return fail({"fcntl", errno});
    if (mode == ScratchMode::Write && ftruncate(fd, 0) != 0) return fail({"ftruncate", errno});
    FILE *fp = fdopen(fd, m.fdopenMode);
    if (fp == nullptr) return fail({"fdopen", errno});
    return fp;
}

}  // namespace qmx
