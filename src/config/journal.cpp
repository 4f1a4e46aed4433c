// The journal that makes the in-place rewrite of "/etc/qmxldd.conf" safe
// against a crash, and the guard every reader of the file holds.
//
// The file is never replaced by a rename: the exclusive lock's key is ftok of
// it, and a new inode would split the lock.  So a rewrite is done in place,
// and before its first byte the new text goes to a journal beside the file
// ("<file>.journal"):
//
//   QMXJOURNAL 2 <length> <checksum>\n<the new text: length bytes>
//
// (length in decimal, checksum in 16 lower-case hexadecimal digits: in
// layout 2 a hash of the text's 8-byte words in four lanes, in layout 1,
// which is still read, the 64-bit FNV-1a of its bytes).  The journal is
// flushed to disk with its folder before the file is touched, and removed
// (the folder flushed again) once the rewritten file is on disk.  The file
// itself keeps the one-line format older tools read.
//
// A journal found later was left by a crash: a complete one (length and
// checksum right) is finished, i.e. its text written into the file, before
// the file is read; an incomplete one (the crash came while it was written,
// so the file is still untouched) is removed.  Writers hold an exclusive
// flock on the file from the journal's creation to its removal, readers a
// shared one while they read, so no reader sees a rewrite half done and a
// journal seen under the lock is never one being written.
//
// A reader that may not write the file (nor remove the journal) cannot
// finish the rewrite: it reads the journal's text instead of the file, which
// is what the file will hold once a process with the right to write it
// comes by.  An incomplete journal it cannot remove is ignored.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "config/config.h"
#include "frame/fileio.h"
#include "frame/frame.h"

namespace qmx {

namespace {

// The layout written; layout 1 journals (left by an older library) are
// still finished.
constexpr const char *kJournalMagic = "QMXJOURNAL 2 ";
constexpr const char *kJournalMagicV1 = "QMXJOURNAL 1 ";
constexpr std::size_t kMaxHeader = 64;
constexpr uint64_t kBasis = 0xcbf29ce484222325ULL, kPrime = 0x100000001b3ULL;

// Layout 1: the 64-bit FNV-1a of the text, a byte at a time (one multiply
// waiting on the last: some 4 cycles a byte).
uint64_t checksumV1(std::string_view text) noexcept {
    uint64_t h = kBasis;
    for (unsigned char c : text) {
        h ^= c;
        h *= kPrime;
    }
    return h;
}

// Layout 2: four lanes, each taking every fourth little-endian 8-byte word
// of the text ((lane ^ word) * prime, then its high bits folded down: a
// bijection of the lane, so any one changed word changes the result),
// folded together with the tail bytes and the length.  The lanes' multiplies
// run side by side: a journal of megabytes is hashed in about a millisecond.
uint64_t checksum(std::string_view text) noexcept {
    const auto *p = reinterpret_cast<const unsigned char *>(text.data());
    const std::size_t n = text.size();
    auto word = [p](std::size_t at) {
        uint64_t w;
        std::memcpy(&w, p + at, sizeof w);
        if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap64(w);
        return w;
    };
    auto step = [](uint64_t lane, uint64_t w) {
        lane = (lane ^ w) * kPrime;
        return lane ^ (lane >> 29);
    };
    uint64_t lane[4] = {kBasis, kBasis ^ 1, kBasis ^ 2, kBasis ^ 3};
    std::size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        lane[0] = step(lane[0], word(i));
        lane[1] = step(lane[1], word(i + 8));
        lane[2] = step(lane[2], word(i + 16));
        lane[3] = step(lane[3], word(i + 24));
    }
    uint64_t h = kBasis;
    for (uint64_t l : lane) h = step(h, l);
    for (; i < n; ++i) h = step(h, p[i]);
    return step(h, uint64_t(n));
}

bool lockFile(int fd, int how) noexcept {
    while (flock(fd, how) != 0)
        if (errno != EINTR) return false;
    return true;
}

// Reads the whole journal (bounded).  false with *err on a read failure.
bool readJournal(int fd, std::string &data, FileError *err) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
        *err = {"fstat", errno};
        return false;
    }
    if (st.st_size < 0 || st.st_size > kMaxConfBytes + long(kMaxHeader)) {
        data.clear();  // no journal this library wrote: incomplete
        return true;
    }
    if (!readAllAt(fd, std::size_t(st.st_size), data)) {
        *err = {"read", errno};
        return false;
    }
    return true;
}

// The text of a complete journal, or false.
bool journalText(std::string_view data, std::string_view *text) noexcept {
    std::size_t magic = std::strlen(kJournalMagic);
    std::size_t nl = data.find('\n');
    if (nl == std::string_view::npos || nl > kMaxHeader) return false;
    const bool v1 = data.substr(0, magic) == kJournalMagicV1;
    if (!v1 && data.substr(0, magic) != kJournalMagic) return false;
    std::string header(data.substr(magic, nl - magic));
    unsigned long long length = 0;
    uint64_t sum = 0;
    int used = 0;
    if (std::sscanf(header.c_str(), "%llu %16" SCNx64 "%n", &length, &sum, &used) != 2 ||
        std::size_t(used) != header.size())
        return false;
    if (length != data.size() - nl - 1) return false;
    *text = data.substr(nl + 1);
    return (v1 ? checksumV1(*text) : checksum(*text)) == sum;
}

// Writes `text` into the file open as `fd`, cut to its size, and flushes it.
bool writeInPlace(int fd, std::string_view text, FileError *err) noexcept {
    if (!writeAllAt(fd, text)) {
        *err = {"write", errno};
        return false;
    }
    if (ftruncate(fd, off_t(text.size())) != 0) {
        *err = {"ftruncate", errno};
        return false;
    }
    if (fsync(fd) != 0) {
        *err = {"fsync", errno};
        return false;
    }
    return true;
}

}  // namespace

std::string journalPath(const char *conf) { return std::string(conf) + ".journal"; }

bool removeJournal(const char *conf, FileError *err) noexcept {
    try {
        std::string path = journalPath(conf);
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            *err = {"unlink", errno};
            return false;
        }
        syncFolder(path);
        return true;
    } catch (...) {
        *err = {"malloc", ENOMEM};
        return false;
    }
}

JournalState settleJournal(const char *conf, int rwFd, std::string *pending, FileError *err) noexcept {
    try {
        std::string path = journalPath(conf);
        int jfd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (jfd < 0) {
            if (errno == ENOENT) return JournalState::None;
            *err = {"open", errno};
            return JournalState::Failed;
        }
        std::string data;
        bool read = readJournal(jfd, data, err);
        close(jfd);
        if (!read) return JournalState::Failed;
        std::string_view text;
        if (!journalText(data, &text)) {
            // Cut short by a crash before the file was touched.
            trace("qmxldd.conf journal incomplete: discarded");
            FileError ignored;
            (void)removeJournal(conf, &ignored);
            return JournalState::None;
        }
        if (rwFd < 0) {
            pending->assign(text);
            return JournalState::Pending;
        }
        trace("qmxldd.conf journal found: rewrite finished");
        if (!writeInPlace(rwFd, text, err) || !removeJournal(conf, err)) return JournalState::Failed;
        return JournalState::None;
    } catch (...) {
        *err = {"malloc", ENOMEM};
        return JournalState::Failed;
    }
}

bool writeJournal(const char *conf, std::string_view text, mode_t mode, FileError *err) noexcept {
    try {
        std::string path = journalPath(conf);
        char header[kMaxHeader];
        int hn = std::snprintf(header, sizeof header, "%s%zu %016" PRIx64 "\n", kJournalMagic, text.size(),
                               checksum(text));
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0) {
            *err = {"open", errno};
            return false;
        }
        // The header, then the text where it lies (no copy of it).  A crash
        // between the two leaves a journal whose length check fails.
        bool ok = (writeAll(fd, header, std::size_t(hn)) && writeAll(fd, text.data(), text.size())) ||
                  (*err = {"write", errno}, false);
        // Readable by whoever may read the file itself.
        ok = ok && (fchmod(fd, mode & 0666) == 0 || (*err = {"fchmod", errno}, false));
        ok = ok && (fsync(fd) == 0 || (*err = {"fsync", errno}, false));
        if (close(fd) != 0 && ok) {
            *err = {"close", errno};
            ok = false;
        }
        if (!ok) {
            unlink(path.c_str());
            return false;
        }
        syncFolder(path);
        return true;
    } catch (...) {
        *err = {"malloc", ENOMEM};
        return false;
    }
}

bool ConfReadGuard::acquire(const char *conf) noexcept {
    release();
    fd_ = ::open(conf, O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        // A file that cannot be opened is reported by the read as it always
        // was, unless a rewrite is pending: then it must not be read as is.
        int err = errno;
        try {
            if (access(journalPath(conf).c_str(), F_OK) != 0 && errno == ENOENT) return true;
        } catch (...) {
        }
        err_ = {"open", err};
        return false;
    }
    if (!lockFile(fd_, LOCK_SH)) {
        err_ = {"flock", errno};
        return false;
    }
    try {
        if (access(journalPath(conf).c_str(), F_OK) != 0) return true;
    } catch (...) {
        err_ = {"malloc", ENOMEM};
        return false;
    }
    // Left by a crash: finished under the exclusive lock, then read under
    // the shared one again.
    if (!lockFile(fd_, LOCK_EX)) {
        err_ = {"flock", errno};
        return false;
    }
    int rw = ::open(conf, O_RDWR | O_CLOEXEC);
    JournalState s = settleJournal(conf, rw, &pending_, &err_);
    if (rw >= 0) close(rw);
    if (s == JournalState::Failed) return false;
    hasPending_ = s == JournalState::Pending;
    if (!lockFile(fd_, LOCK_SH)) {
        err_ = {"flock", errno};
        return false;
    }
    return true;
}

void ConfReadGuard::release() noexcept {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    hasPending_ = false;
    pending_.clear();
}

FILE *ConfReadGuard::open(const char *conf) noexcept {
    if (!hasPending_) return std::fopen(conf, "re");
    // The journal's text, served as the file would be.
    FILE *fp = fmemopen(nullptr, pending_.size() + 1, "w+");
    if (fp == nullptr) return nullptr;
    if (std::fwrite(pending_.data(), 1, pending_.size(), fp) != pending_.size()) {
        std::fclose(fp);
        errno = EIO;
        return nullptr;
    }
    std::rewind(fp);
    return fp;
}

}  // namespace qmx
