// Process-wide persistent binding tables: one record per target binding item
// ("qmxl<N>-tid-<T>-<kind>") and one per adapter item ("qmxl<N>-wwpn").
// They are the configuration store's model of the binding items: the store
// owns them, the binding and multipath calls (src/multipath/) fill and edit
// them, and the configuration file writer emits them in binding mode.  Static
// storage, zero at load, unguarded (the library has no threads).
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int BINDMAX = 132000;   // target binding records
constexpr int HADAPTMAX = 256;    // adapter records

struct __TBLKEY {
    int32_t adapt;        // adapter number, the N of qmxlN-
    int32_t target;       // SCSI target id, the T of -tid-T-
    int32_t attribute;    // path attribute (kind 4)
    int32_t group;        // path group number (kind 9)
    int32_t npd;          // kind: 1 wwpn, 2 wwnn, 4 attribute, 5..8 priority0..3, 9 gt
    uint64_t wwn;         // numeric WWN of a kind 1 or 2 record
    uint64_t priority[4]; // LUN priority words, word k covers LUNs 64k..64k+63
    char bind[24];        // value text of a kind 1 or 2 record ("0x" and hex digits)
    int32_t snum;         // serial number of the record (index + 1)
    int32_t psnum;        // serial number among the WWN records (kinds 1 and 2)
};
static_assert(sizeof(__TBLKEY) == 96);
static_assert(offsetof(__TBLKEY, wwn) == 24);
static_assert(offsetof(__TBLKEY, bind) == 64);

struct __WWPN {
    int32_t adapt;    // adapter number, -1 when not in use
    char bind[24];    // adapter port WWPN as "0x" and hex digits
    int32_t use_flg;  // 1 in use
};
static_assert(sizeof(__WWPN) == 32);

// Binding kinds (npd).
constexpr int kBindWwpn = 1;
constexpr int kBindWwnn = 2;
constexpr int kBindAttribute = 4;
constexpr int kBindPriority0 = 5;  // 5..8: priority0..priority3
constexpr int kBindGroup = 9;

extern __TBLKEY TBLKEY[BINDMAX];
extern int bind_cnt;   // records of TBLKEY in use
extern int pbind_cnt;  // WWN records (kinds 1 and 2) entered
extern __WWPN WWPN[HADAPTMAX];
extern int wwpn_cnt;   // records of WWPN in use

// Text of the binding items, formatted by hand (a full table is 132000
// items) into a buffer of at least kBindingTextMax characters; each returns
// the end of what it wrote.
constexpr std::size_t kBindingTextMax = 96;
// "0x" and the lower-case hexadecimal digits of v, at least `digits` of them.
char *hexText(char *out, uint64_t v, int digits);
// The key of a record's kind ("qmxl<A>-tid-<T>-wwpn", "-wwnn", "-attribute",
// "-priority0".."-priority3", "-gt"); nullptr, with nothing written, for
// kinds that have none (10 and above, 3, 0 ...).
char *bindingKeyText(char *out, const __TBLKEY &r);
// The whole item of a record ("key=value:") as the writer writes it, or
// nullptr for kinds without a key.
char *bindingItemText(char *out, const __TBLKEY &r);
// The same texts for a run of records: the "qmxl<A>-tid-<T>-" text of the
// last record is kept, since a table's records come grouped by target.
class BindingTextWriter {
public:
    char *key(char *out, const __TBLKEY &r);
    char *item(char *out, const __TBLKEY &r);

private:
    bool held_ = false;
    int adapt_ = 0, target_ = 0;
    std::size_t len_ = 0;
    char prefix_[32] = {};  // "qmxl", 11, "-tid-", 11, "-": 32 at most
};
