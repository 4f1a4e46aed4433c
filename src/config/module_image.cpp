// Configuration module image (qmxldd_conf.ko) and module options file.
//
// The module file carries a 208708-byte table area: a chain of six entries
// (description, author, key, key hop, configuration, end), each a 64-byte
// marker name, a 32-bit offset to the next entry and a value.  The whole
// text of "/etc/qmxldd.conf" goes into the configuration entry's value.
// Only the table area is ever rewritten; the rest of the file is not touched.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "config/config.h"
#include "frame/bigblock.h"
#include "frame/fileio.h"
#include "frame/frame.h"

Type_tbl *tableList = nullptr;

namespace {

using std::size_t;
using std::string_view;

constexpr char kDescriptionName[] = "<Kestrel_Fibre_Channel_Host_Bus_Adapter_Configuration_Module>";
static_assert(sizeof kDescriptionName == 62);

struct EntryDef {
    const char *marker;
    size_t size;           // the entry's record size
    const char *invalid;   // wrong marker (or the entry does not fit the area)
    const char *zeroNext;  // next offset 0 (nullptr for the end entry)
};

const EntryDef kChain[6] = {
    {kDescriptionName, sizeof(Common_entry), "invalid DESCRIPTION_NAME",
     "offset is zero in description entry"},
    {"<Kestrel_Ltd>", sizeof(Common_entry), "invalid AUTHOR_NAME", "offset is zero in author entry!"},
    {"<qmxldd_key>", sizeof(Key_entry), "invalid KEY_NAME", "offset is zero in key entry!"},
    {"<qmxldd_key_hop>", sizeof(Key_entry), "invalid KEY_NAME_HOP",
     "offset is zero in key_hop entry!"},
    {"<qmxldd_conf>", sizeof(Config_entry), "invalid CONFIG_NAME", "offset is zero in config entry!"},
    {"<CONFIG_END>", sizeof(Common_entry), "invalid CONFIG_END_NAME", nullptr},
};
constexpr int kConfigEntry = 4;
constexpr size_t kNameSize = 64;

// A block of `bytes` for a read, aligned as the file helpers' read buffers
// are (kReadAlign: reads into it run at the copy's full speed), freed with
// free().
char *readBlock(size_t bytes) {
    constexpr size_t align = size_t(qmx::kReadAlign);
    return static_cast<char *>(std::aligned_alloc(align, (bytes + align - 1) / align * align));
}

// Reads up to `want` bytes at `off`; returns the count read or -1.
long readAt(int fd, char *buf, size_t want, off_t off) {
    size_t got = 0;
    return qmx::readAllAt(fd, buf, want, &got, off) ? long(got) : -1;
}

void freeTable(Type_tbl *tbl) {
    if (tbl == nullptr) return;
    std::free(tbl->data);
    std::free(tbl);
}

using FilePtr = std::unique_ptr<FILE, qmx::FileCloser>;

bool releaseName(struct utsname *un) { return uname(un) == 0; }

}  // namespace

namespace qmx {

const char *checkTableArea(const unsigned char *area, size_t size,
                           size_t *configValueAt) noexcept {
    if (area == nullptr) return kChain[0].invalid;
    long pos = 0;
    for (int k = 0; k < 6; ++k) {
        const EntryDef &e = kChain[k];
        // An entry that does not lie wholly inside the area cannot be read:
        // it counts as one with a wrong marker.
        if (pos < 0 || size < e.size || size_t(pos) > size - e.size) return e.invalid;
        const unsigned char *ent = area + pos;
        size_t mlen = std::strlen(e.marker) + 1;
        if (std::memcmp(ent, e.marker, mlen) != 0) return e.invalid;
        int32_t next;
        std::memcpy(&next, ent + kNameSize, sizeof next);
        if (k == kConfigEntry && configValueAt != nullptr)
            *configValueAt = size_t(pos) + kNameSize + sizeof next;
        if (e.zeroNext == nullptr) {
            if (next != 0) return "offset is not zero in config end entry";
            break;
        }
        if (next == 0) return e.zeroNext;
        pos += next;
    }
    return nullptr;
}

}  // namespace qmx

int search(char *buf, int n) {
    if (buf != nullptr && n > 0) {
        const size_t len = size_t(n);
        const size_t mlen = sizeof kDescriptionName;
        size_t i = 0;
        while (i < len) {
            const void *lt = std::memchr(buf + i, '<', len - i);
            if (lt == nullptr) break;
            i = size_t(static_cast<const char *>(lt) - buf);
            if (i + 1 < len && buf[i + 1] == kDescriptionName[1] && len - i >= mlen &&
                std::memcmp(buf + i, kDescriptionName, mlen) == 0)
                return int(i);
            ++i;
        }
    }
    // The end of an unsuccessful scan is reported like this; tools look for it.
    QMX_OutputSysLog(const_cast<char *>("fopen"), errno);
    return -1;
}

int find_table(int fd) {
    qmx::trace("find_table START");
    auto *buf = readBlock(size_t(kTableAreaSize));
    if (buf == nullptr) {
        qmx::sysError("malloc", errno);
        return -1;
    }
    long got = readAt(fd, buf, size_t(kTableAreaSize), 0);
    if (got < 0) {
        qmx::sysError("read", errno);
        std::free(buf);
        return -1;
    }
    int off = search(buf, int(got));
    std::free(buf);
    if (off < 0) {
        qmx::setError(QMX_ERR_INTERNAL);
        qmx::trace("not found DESCRIPTION_NAME!");
        return -1;
    }
    // A plain C record, allocated and released with the C allocator like
    // its data.
    auto *tbl = static_cast<Type_tbl *>(std::calloc(1, sizeof(Type_tbl)));
    if (tbl == nullptr) {
        qmx::sysError("malloc", errno);
        return -1;
    }
    tbl->offset = off_t(off);
    freeTable(tableList);
    tableList = tbl;
    return 0;
}

int read_table(Type_tbl *tbl, int fd) {
    qmx::trace("read_table START");
    auto abend = [] {
        qmx::trace("read_table ABEND");
        return -1;
    };
    if (tbl == nullptr || fd < 0 || lseek(fd, tbl->offset, SEEK_SET) == off_t(-1)) {
        qmx::sysError("lseek", fd < 0 || tbl == nullptr ? EBADF : errno);
        return abend();
    }
    if (tbl->data == nullptr) {
        tbl->data = readBlock(size_t(kTableAreaSize));
        if (tbl->data == nullptr) {
            qmx::sysError("malloc", errno);
            return abend();
        }
    }
    long got = readAt(fd, tbl->data, size_t(kTableAreaSize), tbl->offset);
    if (got < 0) {
        qmx::sysError("read", errno);
        return abend();
    }
    std::memset(tbl->data + got, 0, size_t(kTableAreaSize - got));
    tbl->size = kTableAreaSize;
    const char *fault = qmx::checkTableArea(reinterpret_cast<unsigned char *>(tbl->data),
                                            size_t(kTableAreaSize), nullptr);
    if (fault != nullptr) {
        qmx::setError(QMX_ERR_INTERNAL);
        qmx::trace(fault);
        return abend();
    }
    return 0;
}

int open_program(char *path, int mode) {
    // mode 1 opens for reading and writing (the only use); other values
    // open read-only.
    int fd = path == nullptr ? -1 : open(path, (mode == 1 ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) {
        qmx::sysError("open", path == nullptr ? EINVAL : errno);
        qmx::trace("open_program ABEND");
        return -1;
    }
    if (find_table(fd) != 0 || read_table(tableList, fd) != 0) {
        close(fd);
        freeTable(tableList);
        tableList = nullptr;
        qmx::trace("open_program ABEND");
        return -1;
    }
    return fd;
}

void close_program(int fd) {
    if (fd >= 0) close(fd);
    freeTable(tableList);
    tableList = nullptr;
}

namespace qmx {

int writeConfigFrom(const char *confPath, Type_tbl *tbl, int fd) noexcept {
    trace("write_config START");
    auto abend = [] {
        trace("write_config ABEND");
        return -1;
    };
    ConfReadGuard guard;  // held while the file is read
    if (confPath != nullptr && !guard.acquire(confPath)) {
        sysError(guard.error().call, guard.error().err);
        return abend();
    }
    FilePtr fp(confPath ? guard.open(confPath) : nullptr);
    if (!fp) {
        sysError("fopen", confPath ? errno : EINVAL);
        return abend();
    }
    struct stat st;
    if (const std::string *pending = guard.pending()) {
        st.st_size = off_t(pending->size());
    } else if (fstat(fileno(fp.get()), &st) != 0) {
        sysError("fstat", errno);
        return abend();
    }
    // The file must fit the table area; its text must also fit the
    // configuration entry's value, or it would run over the end entry.
    if (st.st_size >= kTableAreaSize + 1 || st.st_size > long(kConfigValueSize)) {
        setError(QMX_ERR_INTERNAL);
        trace("conf file size is too big!");
        return abend();
    }
    // The text is read into a buffer of its own: the table check below
    // reads the area again before it is changed.
    std::unique_ptr<char, decltype(&std::free)> text(
        readBlock(size_t(st.st_size) + 1), &std::free);
    if (!text) {
        sysError("malloc", errno);
        return abend();
    }
    const size_t textSize = size_t(st.st_size);
    if (textSize != 0 && std::fread(text.get(), 1, textSize, fp.get()) != textSize) {
        sysError("fread", errno);
        return abend();
    }
    fp.reset();
    if (read_table(tbl, fd) != 0) return abend();
    size_t at = 0;
    if (checkTableArea(reinterpret_cast<unsigned char *>(tbl->data), size_t(kTableAreaSize), &at) !=
        nullptr)
        return abend();
    std::memset(tbl->data + at, 0, kConfigValueSize);
    if (textSize != 0) std::memcpy(tbl->data + at, text.get(), textSize);
    size_t done = 0;
    while (done < size_t(kTableAreaSize)) {
        ssize_t w = pwrite(fd, tbl->data + done, size_t(kTableAreaSize) - done,
                           tbl->offset + off_t(done));
        if (w < 0) {
            if (errno == EINTR) continue;
            sysError("write", errno);
            return abend();
        }
        if (w == 0) break;
        done += size_t(w);
    }
    if (done < size_t(kTableAreaSize)) {
        setError(QMX_ERR_INTERNAL);
        trace("short write");
        return abend();
    }
    return 0;
}

int mpcfg(const ConfStore &store) noexcept {
    trace("qmx_mpcfg START");
    struct utsname un;
    if (!releaseName(&un)) {
        trace("-1 is returned by uname() function");
        return -1;
    }
    try {
        std::string root = std::string(store.modulesRoot) + "/" + un.release;
        int handle = -1;
        bool named = false;
        std::string dep = root + "/modules.dep";
        FilePtr fp(std::fopen(dep.c_str(), "re"));
        if (!fp) {
            trace("modules.dep open fail");
        } else {
            char line[4096];
            while (std::fgets(line, sizeof line, fp.get()) != nullptr) {
                string_view l(line);
                if (l.find("qmxldd_conf.ko") == string_view::npos) continue;
                size_t b = l.find_first_not_of(" \t");
                if (b == string_view::npos || l[b] == '#') continue;
                // The module's path is the text before the ":" (or the line's end).
                size_t e = l.find_first_of(":\n", b);
                std::string rel(l.substr(b, e == string_view::npos ? string_view::npos : e - b));
                std::string path = root + "/" + rel;
                named = true;
                handle = open_program(path.data(), 1);
                if (handle < 0) tracef("%s open fail", path.c_str());
                break;
            }
        }
        fp.reset();
        if (!named) {
            std::string weak = root + "/weak-updates/qmxldd/qmxldd_conf.ko";
            handle = open_program(weak.data(), 1);
            if (handle < 0) {
                tracef("%s open fail", weak.c_str());
                std::string extra = root + "/extra/qmxldd/qmxldd_conf.ko";
                handle = open_program(extra.data(), 1);
                if (handle < 0) {
                    tracef("%s open fail", extra.c_str());
                    trace("qmx_mpcfg ABEND");
                    return -1;
                }
            }
        }
        // A module named in modules.dep that failed to open is still handed
        // to the writer, which then fails on the bad handle.
        int rc = writeConfigFrom(store.conf, tableList, handle);
        close_program(handle);
        if (rc != 0) {
            trace("qmx_mpcfg ABEND");
            return -1;
        }
        return 0;
    } catch (...) {
        sysError("malloc", ENOMEM);
        trace("qmx_mpcfg ABEND");
        return -1;
    }
}

int readModulesConf(const ConfStore &store, std::vector<util_para> &out, std::size_t cap) noexcept {
    trace("QMX_read_modules_conf START");
    auto end = [](int rc) {
        trace("QMX_read_modules_conf END");
        return rc;
    };
    out.clear();
    FilePtr in(std::fopen(store.modprobe, "re"));
    if (!in) {
        sysError("fopen", errno);
        return end(-1);
    }
    // The scratch files have fixed names in /tmp: a link or another user's
    // file planted there is refused, never written through.
    FileError fe;
    FilePtr out1(openScratch(store.modTmp1, ScratchMode::Write, &fe));
    if (!out1) {
        sysError("fopen", fe.err);
        return end(-1);
    }
    FilePtr out2(openScratch(store.modTmp2, ScratchMode::Write, &fe));
    if (!out2) {
        sysError("fopen", fe.err);
        return end(-1);
    }
    bool continued = false;   // the previous options line ended in a backslash
    bool blockDone = false;   // an options block has been completed
    char line[8192];
    try {
        while (std::fgets(line, sizeof line, in.get()) != nullptr) {
            string_view l(line);
            bool options = continued || l.find("options qmxldd") != string_view::npos;
            if (!options) {
                std::fputs(line, blockDone ? out2.get() : out1.get());
                continue;
            }
            // From the fifteenth character on, also on continuation lines.
            string_view rest = l.size() > 14 ? l.substr(14) : string_view();
            size_t pos = 0;
            while (pos < rest.size()) {
                size_t b = rest.find_first_not_of(' ', pos);
                if (b == string_view::npos) break;
                size_t e = rest.find(' ', b);
                string_view piece = rest.substr(b, e == string_view::npos ? string_view::npos : e - b);
                pos = e == string_view::npos ? rest.size() : e;
                size_t eq = piece.find('=');
                if (eq == string_view::npos) continue;
                if (out.size() >= cap) {
                    // The options would not all fit: refuse rather than
                    // rewrite the file without some of them.
                    trace("too many module options");
                    setError(QMX_ERR_DATA_FILE);
                    out.clear();
                    return end(-1);
                }
                util_para &p = out.emplace_back();
                std::memset(&p, 0, sizeof p);
                copyText(p.keyword, piece.substr(0, eq));
                copyText(p.value, piece.substr(eq + 1));
            }
            continued = l.find('\\') != string_view::npos;
            if (!continued) blockDone = true;
        }
    } catch (...) {
        sysError("malloc", ENOMEM);
        out.clear();
        return end(-1);
    }
    // A read error is not the end of the file, and a scratch file that
    // could not be written whole would install a file missing its lines.
    if (std::ferror(in.get())) {
        sysError("fgets", errno != 0 ? errno : EIO);
        out.clear();
        return end(-1);
    }
    for (FILE *fp : {out1.get(), out2.get()})
        if (std::fflush(fp) != 0 || std::ferror(fp)) {
            sysError("fputs", errno != 0 ? errno : EIO);
            out.clear();
            return end(-1);
        }
    return end(0);
}

// Puts the part before the options block back as the module options file.
// Nothing more is appended: the configuration reaches the driver through the
// module image, which the configuration file writer refreshes after every
// write (qmx_mpcfg); the writer does not rebuild the module options file.
//
// The file is replaced as a whole (a new file beside it, flushed, then
// renamed over it, owner and mode kept, a symbolic link followed): a write
// that fails (disk full, I/O error) leaves the old file as it was.  Each
// failure is reported as a failed open of that file would be.
bool copyModulesConf(const ConfStore &store) noexcept {
    // A scratch file this large is not a module options file: it is not
    // read into memory.
    constexpr std::size_t kMaxModulesConf = 16u << 20;
    auto fail = [](const char *call, int err) {
        sysError(call, err);
        trace("QMX_fopen ABEND");
        return false;
    };
    trace("QMX_fopen START");
    FileError fe;
    FilePtr in(openScratch(store.modTmp1, ScratchMode::Read, &fe));
    if (!in) return fail("fopen", fe.err);
    std::string text;
    try {
        char buf[8192];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, in.get())) > 0) {
            if (text.size() + n > kMaxModulesConf) return fail("fread", EFBIG);
            text.append(buf, n);
        }
    } catch (...) {
        return fail("malloc", ENOMEM);
    }
    if (std::ferror(in.get())) return fail("fread", errno != 0 ? errno : EIO);
    trace("QMX_fopen START");
    if (!replaceFile(store.modprobe, text, &fe)) return fail(fe.call, fe.err);
    return true;
}

}  // namespace qmx

int write_config(Type_tbl *tbl, int fd) {
    return qmx::writeConfigFrom(qmx::kSystemStore.conf, tbl, fd);
}

int qmx_mpcfg(void) { return qmx::mpcfg(qmx::kSystemStore); }

// The caller's list holds QMX_MODULES_CONF_ITEMS records; a block with
// more options is refused, so nothing is written past the last record.
int QMX_read_modules_conf(util_para *list) {
    std::vector<util_para> items;
    int rc = qmx::readModulesConf(qmx::kSystemStore, items,
                                  list != nullptr ? QMX_MODULES_CONF_ITEMS : 0);
    if (rc == 0 && !items.empty()) std::memcpy(list, items.data(), items.size() * sizeof(util_para));
    return rc;
}

void copy_modules_conf(void) { qmx::copyModulesConf(qmx::kSystemStore); }
