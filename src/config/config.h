// Internal interface of the driver configuration store: the key list reader
// and writer of "/etc/qmxldd.conf", the per-port parameter tables, the
// parameter engine and the configuration module image.
//
// Every routine that works on a fixed system path has an internal entry
// point taking a ConfStore (the set of paths); the fixed-path routine calls
// it with kSystemStore, so tools and tests can run the same code on a
// private tree.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "config/binding_tables.h"
#include "frame/bigblock.h"
#include "frame/fileio.h"
#include "qmxvlib.h"

// ---------------------------------------------------------------------------
// Per-port parameter tables, indexed by port number.
// ---------------------------------------------------------------------------
constexpr int kConfPorts = 256;
constexpr int kRetryEntries = 1000;

// A port's value of one parameter.  The value field holds the longest
// value the reader keeps, so that no item is ever left out of its table
// (and so moved out of the fixed layout, or dropped) for its length.
struct __HBAKEY {
    char val[sizeof(util_para::value)];  // value text
    int use_flg;                         // 1 when the port has a value
};
// An isolation ("_bs") item, whose key is written as it was read: room for
// the longest key the reader keeps as well.
struct __HBAISOLATE {
    char val[sizeof(util_para::value)];
    char key[sizeof(util_para::keyword)];
    int use_flg;
};

// The per-port tables, one per parameter: X(name) for each.
#define QMX_PORT_TABLES(X)                                                                    \
    X(connection_type) X(link_speed) X(max_transfer) X(link_down) X(reset_delay) X(mck_retry) \
    X(preferred_alpa) X(reset_timeout) X(abort_timeout) X(queue_depth) X(allowed)             \
    X(tmt_delay) X(lun_reset_delay) X(msi_enable) X(isol_type) X(ld_err_intvl)               \
    X(ld_err_limitl) X(ld_err_limits) X(if_err_intvl) X(if_err_limit) X(to_err_intvl)         \
    X(to_err_limit) X(rt_err_enable) X(login_retry) X(els_retry) X(to_reset_retry)            \
    X(scsi_to_retry) X(abort_t_restrain) X(alter_path) X(offline_path) X(pathchk) X(trgrst)
#define QMX_DECLARE_PORT_TABLE(name) extern __HBAKEY name[kConfPorts];
QMX_PORT_TABLES(QMX_DECLARE_PORT_TABLE)
#undef QMX_DECLARE_PORT_TABLE

// Not indexed by port: up to 256 whole "_bs" items, filled front to back.
extern __HBAISOLATE isolate[kConfPorts];
// Per-error retry counts: 256 ports by 1000 entries.  Only the pages of
// entries in use are ever touched.
extern __HBAKEY retry_cnt[kConfPorts][kRetryEntries];

// The port number of a per-port key ("qmx<N>_..."), or -1.
int qmx_getpos(char *keyword);
namespace qmx {
// qmx_getpos of a key given as text.
int portOfKey(std::string_view key) noexcept;
}  // namespace qmx
// Moves the per-port items of a list into the port tables.
void qmx_OutputListParamCreate(util_para *param, int param_max);

// ---------------------------------------------------------------------------
// Configuration module image (qmxldd_conf.ko).
// ---------------------------------------------------------------------------
constexpr long kTableAreaSize = 208708;
constexpr std::size_t kConfigValueSize = 200000;

struct Common_entry {
    char name[64];
    int32_t next;
    char value[28];
};
struct Key_entry {
    char name[64];
    int32_t next;
    char value[4108];
};
struct Config_entry {
    char name[64];
    int32_t next;
    char value[kConfigValueSize];
};
static_assert(sizeof(Common_entry) == 96);
static_assert(sizeof(Key_entry) == 4176);
static_assert(sizeof(Config_entry) == 200068);
static_assert(3 * sizeof(Common_entry) + 2 * sizeof(Key_entry) + sizeof(Config_entry) ==
              std::size_t(kTableAreaSize));

typedef struct type_table {
    off_t offset;  // file offset of the table area
    long size;     // the area's size once read
    char *data;    // heap copy of the area
} Type_tbl;

// The descriptor of the open module file.
extern Type_tbl *tableList;

int open_program(char *path, int mode);
int find_table(int fd);
int search(char *buf, int n);
int read_table(Type_tbl *tbl, int fd);
int write_config(Type_tbl *tbl, int fd);
void close_program(int fd);
void copy_modules_conf(void);
int qmx_mpcfg(void);

namespace qmx {

// ---------------------------------------------------------------------------
// Paths of the configuration store.
// ---------------------------------------------------------------------------
struct ConfStore {
    const char *conf;         // "/etc/qmxldd.conf"
    const char *lib;          // "/etc/qmxlib.conf"
    const char *modulesRoot;  // "/lib/modules"
    const char *modprobe;     // "/etc/modprobe.d/qmxldd_param.conf"
    const char *modTmp1;      // "/tmp/conf_modules1.hba"
    const char *modTmp2;      // "/tmp/conf_modules2.hba"
};
extern const ConfStore kSystemStore;

// ---------------------------------------------------------------------------
// The journal of the configuration file's in-place rewrite ("<conf>.journal",
// see journal.cpp) and the guard of its readers.
// ---------------------------------------------------------------------------
std::string journalPath(const char *conf);
// Writes and flushes the journal of `text` (mode: the file's own).
bool writeJournal(const char *conf, std::string_view text, mode_t mode, FileError *err) noexcept;
// Removes the journal and flushes the folder; a missing journal is no error.
bool removeJournal(const char *conf, FileError *err) noexcept;
// A journal left by a crash, with the caller holding the file's exclusive
// flock: a complete one is written into the file open read-write as `rwFd`
// and removed (or, with no such descriptor, its text goes to *pending); an
// incomplete one is removed.
enum class JournalState { None, Pending, Failed };
JournalState settleJournal(const char *conf, int rwFd, std::string *pending, FileError *err) noexcept;

// Held by every reader of the configuration file while it reads: a shared
// flock on the file (writers hold an exclusive one), taken once a journal
// left by a crash has been settled.  When the journal could not be written
// into the file (no right to write it), pending() holds the text to read
// instead of the file's.
class ConfReadGuard {
public:
    ConfReadGuard() noexcept = default;
    ~ConfReadGuard() { release(); }
    ConfReadGuard(const ConfReadGuard &) = delete;
    ConfReadGuard &operator=(const ConfReadGuard &) = delete;

    // false: error() names the failed call and its errno.  A missing file is
    // no error (the reader reports it).
    bool acquire(const char *conf) noexcept;
    void release() noexcept;
    const FileError &error() const noexcept { return err_; }
    const std::string *pending() const noexcept { return hasPending_ ? &pending_ : nullptr; }
    // The file's text as a stream: the file itself, or the pending text.
    FILE *open(const char *conf) noexcept;
    // The descriptor the lock is held on (read only, at offset 0 until read
    // from), or -1 when the file could not be opened.
    int fd() const noexcept { return fd_; }

private:
    int fd_ = -1;
    bool hasPending_ = false;
    std::string pending_;
    FileError err_;
};

// ---------------------------------------------------------------------------
// Key list reader.  Results below zero:
// ---------------------------------------------------------------------------
constexpr int kReadNoFile = -1;    // stat of the size file failed
constexpr int kReadNoOpen = -2;    // the file could not be opened
constexpr int kReadNoMemory = -3;  // allocation failed
constexpr int kReadRefused = -4;   // too large to be a configuration file (code 9)
constexpr int kReadIoError = -5;   // the file could not be read (code 1)

// Largest number of item slots and of bytes a configuration file may have.
// A file written in binding mode holds one item per binding record and per
// adapter record of full tables (BINDMAX + HADAPTMAX) next to the other
// items, which plain-mode writes keep under 200000 bytes (at least 4 bytes
// an item); both bounds lie above that.  Every slot costs one util_para, so
// a longer line is refused rather than allocated.
constexpr int kMaxKeySlots = 262144;
static_assert(kMaxKeySlots >= BINDMAX + HADAPTMAX + 200000 / 4);
constexpr long kMaxConfBytes = 16L * 1024 * 1024;

// Parses the first line of `text` (up to a newline, a NUL or `len`).
int parseKeyLine(const char *text, std::size_t len, util_para **key_list) noexcept;
// Reads one file: its buffer is sized from `sizePath`, the text read from `path`.
int readKeyFile(const char *sizePath, const char *path, util_para **key_list) noexcept;
// An item of a configuration line as it lies in the text read (key and
// value cut to what a key list's fields hold), with the `used` mark of a
// key list item.  Callers that replace a value point it at text of their own.
struct ConfItem {
    std::string_view key, value;
    int used = 0;
};
// The buffer a file is read into: grown when too short, never cleared (a
// read uses only the bytes it was given).
// Large buffers come from the block recycler (frame/bigblock.h).
class ReadBuffer {
public:
    ReadBuffer() noexcept = default;
    ~ReadBuffer() { release(); }
    ReadBuffer(const ReadBuffer &) = delete;
    ReadBuffer &operator=(const ReadBuffer &) = delete;
    // At least `size` bytes; false when the memory cannot be had.
    bool reserve(std::size_t size) noexcept;
    char *data() const noexcept { return data_; }

private:
    void release() noexcept;
    char *data_ = nullptr;
    std::size_t size_ = 0;
};
// One read of a configuration file: its text and the items of its first
// line, one per item slot, viewing that text.
using ConfItems = std::vector<ConfItem, BigAllocator<ConfItem>>;
struct ConfText {
    ReadBuffer text;
    std::string_view line;  // the line read, in `text`
    ConfItems items;
    bool gathered = true;  // `items` holds the line's items
};
// Reads a file as readKeyFile does (the same trace lines, codes and
// results) without building a key list: the items view the text read.
int readConfItems(const char *sizePath, const char *path, ConfText &out) noexcept;
// Reads a file as readConfItems does (the same trace lines, codes and
// result), looking for one key instead of gathering the items: *slot is the
// first slot whose key is `key`, or -1.  A key found is taken to mean that
// the items are needed: they are gathered at once.  Otherwise they are
// gathered later by gatherConfItems, or never (a caller that finds it needs
// no list does not pay for one).
int probeConfItems(const char *sizePath, const char *path, std::string_view key, ConfText &out,
                   int *slot) noexcept;
// Gathers the items of a probed read as readConfItems would have (no trace
// line; a read already gathered is left as it is).  False when memory runs
// out.
bool gatherConfItems(ConfText &out) noexcept;
// Reads a file as readConfItems does (the same trace lines, codes and
// results) and hands `visit` each item whose key begins with `prefix`, in
// slot order, instead of keeping a list.  Items are handed over before the
// line's slots are all counted: a caller keeps what it gathers apart until
// the result says the read succeeded.
using ItemVisitor = void (*)(void *ctx, std::string_view key, std::string_view value);
int visitConfItems(const char *sizePath, const char *path, std::string_view prefix, ItemVisitor visit,
                   void *ctx) noexcept;
// flg 0: the driver file, 1: the library file.
int readKeyList(const ConfStore &store, util_para **key_list, int flg) noexcept;

// One read of a configuration file that answers key lookups as the key
// list read from it would (the first filled slot with the key), without
// building the list.  read() writes the trace lines, sets the codes and
// returns what readKeyFile would; retrace() writes the lines of a
// successful read again, for callers that answer several lookups, each
// traced as a read of its own, from one read.
class ConfLookup {
public:
    struct Snapshot;
    int read(const char *sizePath, const char *path) noexcept;
    void retrace() const noexcept;
    bool find(std::string_view key, std::string_view *value) const noexcept;

private:
    std::shared_ptr<const Snapshot> snap_;
    bool opened_ = false;  // the file was opened (its size was not 0)
    bool cut_ = false;     // an item was cut to its fields
};

// ---------------------------------------------------------------------------
// Writer.
// ---------------------------------------------------------------------------
constexpr long kConfSizeLimit = 199999;

// Appends the file text of a key list and new items (the fixed layout) to
// `out`, marking the items it writes or takes.  No I/O.
void buildConfText(util_para *key_list, int key_list_max, util_para *add_list, int add_list_max,
                   int remake_bind_data, std::string &out);
int makeConfFile(const ConfStore &store, util_para *key_list, int key_list_max,
                 util_para *add_list, int add_list_max, int remake_bind_data) noexcept;
// makeConfFile of the items of a read (readConfItems).
int makeConfFileFromItems(const ConfStore &store, ConfItem *key_list, int key_list_max,
                          ConfItem *add_list, int add_list_max, int remake_bind_data) noexcept;
// makeConfFileFromItems of a probed read (probeConfItems), whose items are
// gathered only once the size check has passed: a refused rewrite never
// needs them.
int makeConfFileFromRead(const ConfStore &store, ConfText &read, int key_list_max, ConfItem *add_list,
                         int add_list_max, int remake_bind_data) noexcept;

// ---------------------------------------------------------------------------
// Parameter engine.
// ---------------------------------------------------------------------------
int getUtilValue(const ConfStore &store, QMX_WWN wwn, int index, const char *key_str, int erId,
                 void *setval) noexcept;
// A run of getUtilValue lookups made by one call, answered from one read
// of the file: each lookup writes the trace lines and gives the result that
// a getUtilValue of its own would (the file does not change under a call:
// callers that read it hold the trace lock, writers also hold the
// configuration lock).
class UtilLookups {
public:
    explicit UtilLookups(const ConfStore &store) noexcept : store_(store) {}
    int get(QMX_WWN wwn, int index, const char *key_str, int erId, void *setval) noexcept;

private:
    static constexpr int kNotRead = -100;
    const ConfStore &store_;
    ConfLookup conf_;
    int read_ = kNotRead;
};
int setUtilValue(const ConfStore &store, QMX_WWN wwn, int index, const char *key_str, int erId,
                 void *setval, int del) noexcept;

// ---------------------------------------------------------------------------
// Module image and module options.
// ---------------------------------------------------------------------------
// Checks the entry chain of a table area held in memory.  nullptr when it
// is valid (the configuration entry's value then starts at *configValueAt),
// otherwise the message that describes the first fault.
const char *checkTableArea(const unsigned char *area, std::size_t size,
                           std::size_t *configValueAt) noexcept;
int writeConfigFrom(const char *confPath, Type_tbl *tbl, int fd) noexcept;
int mpcfg(const ConfStore &store) noexcept;
// Splits the module options file around its options block and returns
// every option of the block in `out`.  A block with more than `cap` options
// is refused (-1, code 9); kMaxModuleOptions lies far above any real line.
constexpr std::size_t kMaxModuleOptions = 4096;
int readModulesConf(const ConfStore &store, std::vector<util_para> &out,
                    std::size_t cap = kMaxModuleOptions) noexcept;
// false when the module options file could not be replaced (reported, code
// 1); the old file is then left as it was.
bool copyModulesConf(const ConfStore &store) noexcept;

// atoi as the C library computes it (strtol narrowed to int), without
// undefined behaviour on overflow.
int atoiText(const char *s) noexcept;
int atoiText(std::string_view s) noexcept;

// A WWN as the configuration file writes it: "0x" and 16 lower-case
// hexadecimal digits, byte 0 first.
struct WwnText {
    char text[19];
};
inline WwnText wwnText(const QMX_WWN &w) noexcept {
    WwnText t;
    std::snprintf(t.text, sizeof t.text, "0x%02x%02x%02x%02x%02x%02x%02x%02x", w.wwn[0], w.wwn[1],
                  w.wwn[2], w.wwn[3], w.wwn[4], w.wwn[5], w.wwn[6], w.wwn[7]);
    return t;
}

// Closes a stdio stream held in a std::unique_ptr.
struct FileCloser {
    void operator()(FILE *fp) const noexcept {
        if (fp != nullptr) std::fclose(fp);
    }
};

// The key and the value of an item, never read past their fields.
inline std::string_view keyOf(const util_para &p) noexcept {
    return {p.keyword, strnlen(p.keyword, sizeof p.keyword)};
}
inline std::string_view valueOf(const util_para &p) noexcept {
    return {p.value, strnlen(p.value, sizeof p.value)};
}
inline std::string_view keyOf(const ConfItem &p) noexcept { return p.key; }
inline std::string_view valueOf(const ConfItem &p) noexcept { return p.value; }

}  // namespace qmx
