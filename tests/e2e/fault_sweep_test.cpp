// Every call that changes a file or the driver, walked through the faults of
// the virtual host: each open, read, write, fsync and rename of a host file in
// turn (QMXSIM_FAULT), and each driver request the call makes at each of its
// occurrences.  After every run:
//   - the call reported the failure (status 1 and a reason code) or it
//     succeeded;
//   - every file it touches is byte for byte as before the call or as the
//     fault-free run left it (an inner failure the call survives may leave a
//     partial result only when it keeps a reason code);
//   - lock 1 is free again.
// Each run is a fresh process: this binary started again with the row's name
// in QMX_SWEEP_ROW runs the call before main and exits.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

#include "vhost.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kEveryOccurrence = false;
#else
constexpr bool kEveryOccurrence = true;
#endif

struct Row {
    const char *name;
    // Prepares the host (files, state) in the test process.
    void (*setup)();
    // The call, in the child process: its status.
    QMX_STATUS (*call)();
    // The call keeps lock 1 on some failure paths (the module options
    // rewrite keeps it when its scratch files fail).
    bool keepsLockOnFailure = false;
    // A failure status of its own besides 1 (3: not supported).
    QMX_STATUS otherFailure = 1;
};

QMX_WWN port(int devno) {
    qmxsim::StateStore store(std::getenv("QMXSIM_STATE"));
    uint64_t v = 0;
    store.read([&](const qmxsim::json &s) {
        if (const qmxsim::json *p = qmxsim::findPort(s, devno)) v = qmxsim::fieldU64(*p, "wwpn", 0);
    });
    QMX_WWN w;
    for (int i = 7; i >= 0; --i, v >>= 8) w.wwn[i] = uint8_t(v & 0xFF);
    return w;
}

void put(const char *path, const std::string &text) { qmxsim::writeWholeFile(path, text, 0644); }

const std::string kBound =
    "qmx_queue_depth=8:qmxl0-wwpn=0x2100001122334450:qmxl0-tid-1-wwpn=0x5000000000000a01:"
    "qmxl0-tid-1-gt=2:qmxl0-tid-1-attribute=0x00:qmxl0-tid-1-priority0=0x01:"
    "qmxl1-tid-1-gt=2:qmxl1-tid-1-attribute=0x00:qmxl1-tid-1-priority0=0x01:";

void noSetup() {}
void boundConf() { put("/etc/qmxldd.conf", kBound); }
void aliasFiles() {
    boundConf();
    put("/etc/qmxlib.conf", "qmx0_hba_alias=old:qmx1_port_alias=other:");
}
void diskRecord() { put("/opt/kestrel/drivers/hba/qmxldd_lumap.conf", "qmx_unmatched_dev=1\n"); }

QMX_FORCE_ISOLATE_LIST *isolateEntry() {
    static QMX_FORCE_ISOLATE_LIST list;
    std::memset(&list, 0, sizeof list);
    list.list[0] = {3, 0, 1, 0, 1, 1, 0, 0, 0};  // isolate function 03:00.1 alone
    return &list;
}

// Number 1 moves to a new WWPN and number 0 loses its own.
QMX_ADAPTERNUMBER *renumbering() {
    static QMX_ADAPTERNUMBER info;
    std::memset(&info, 0, sizeof info);
    const QMX_WWN w0 = port(0), moved = {{0x21, 0x00, 0x00, 0x11, 0x22, 0x33, 0x44, 0x99}};
    info.portlist[0].adapternumber = 0;
    info.portlist[0].set_opr = 2;
    std::memcpy(&info.portlist[0].hba_wwn, &w0, sizeof w0);
    info.portlist[1].adapternumber = 1;
    info.portlist[1].set_opr = 1;
    std::memcpy(&info.portlist[1].hba_wwn, &moved, sizeof moved);
    info.portlist_max = 2;
    return &info;
}

const Row kRows[] = {
    {"QueueDepth", boundConf, [] { return QMX_SetQueueDepthCount(port(0), 32, 0); }},
    {"QueueDepthDelete", boundConf, [] { return QMX_SetQueueDepthCount(port(0), 0, 1); }},
    {"LoggingModeDriverWide", noSetup, [] { return QMX_SetLoggingMode(1, 0); }},
    {"PassChangeThreshold", boundConf, [] { return QMX_SetPassChangeThreshold(port(1), 7, 5, 0); }},
    {"PreferredAlpa", boundConf, [] { return QMX_SetPreferredALPANumber(port(0), 5, 0); }},
    {"HbaAlias", aliasFiles,
     [] { return QMX_SetHbaAliasName(port(0), const_cast<char *>("fresh"), 5); }},
    {"PortAlias", aliasFiles,
     [] { return QMX_SetPortAliasName(port(1), const_cast<char *>("p1"), 2); }},
    {"AutoSetBinding", boundConf,
     [] {
         auto info = std::make_unique<QMX_PERSISTENTBINDING>();
         return QMX_AutoSetPersistentBinding(info.get());
     }},
    {"DeleteBinding", boundConf, [] { return QMX_DeletePersistentBinding(); }},
    {"BindingAutoMapping", noSetup, [] { return QMX_SetBindingAutoMapping(1); }, true},
    {"LuPriority", boundConf, [] { return QMX_SetLUPriority(0, 1, 5, 1); }},
    {"ReleasePathControl", boundConf, [] { return QMX_ReleasePathControl(2); }},
    {"ChangePathAttribute", boundConf, [] { return QMX_ChangePathAttribute(0, 1); }},
    {"OperationEnv", boundConf,
     [] {
         QMX_MP_PARAM p{};
         p.mp_failover = 1;
         p.mp_path_health = 1;
         p.mp_interval = 60;
         p.mp_round_robin = 1;
         p.mp_rr_seqcnt = 50;
         p.mp_rr_rndcnt = 2;
         return QMX_SetOperationEnv(&p, 0);
     }},
    {"AlterPath", boundConf, [] { return QMX_SetAlterPath(3, 0); }},
    {"LimitAlterPath", boundConf, [] { return QMX_SetLimitAlterPath(port(1), 2, 0); }, false, 3},
    {"DiskConfigFlag", diskRecord, [] { return QMX_SetDiskConfig(0); }},
    {"AutoSetDiskConfig", diskRecord,
     [] {
         auto tree = std::make_unique<QMX_DISK_CONFIG>();
         return QMX_AutoSetDiskConfig(tree.get());
     }},
    {"IsolationFunction", boundConf, [] { return QMX_SetIsolFunc(0); }},
    {"HbaIsolate", boundConf,
     [] {
         QMX_HBA_INFO hba{1};
         return QMX_SetHBAIsolate(port(2), &hba);
     }},
    {"ForceIsolateList", boundConf, [] { return QMX_SetForceIsolateList(isolateEntry(), 0); }},
    {"KernelPanicCount", boundConf, [] { return QMX_SetKernelPanicCount(20, 0); }},
    {"LuPathStatus", noSetup,
     [] {
         auto paths = std::make_unique<QMX_LUPATH_STATUS>();
         if (QMX_GetLuPathStatus(paths.get()) != 0 || paths->lupath_cnt == 0) return QMX_STATUS(1);
         lupath_status p = *paths->lupath[0];
         QMX_ReleaseLuPath(paths.get());
         p.status = 4;
         return QMX_SetLuPathStatus(&p);
     }},
    {"AdapterNumber", boundConf, [] { return QMX_SetAdapterNumber(renumbering()); }},
    {"DeleteAdapterPath", boundConf, [] { return QMX_DeleteAdapterPath(port(3), 3); }},
    {"PreConfigure", noSetup, [] { return QMX_SetPreConfigure(port(0), 1); }},
    {"HbaBiosSetting", noSetup, [] { return QMX_SetHBABiosSetting(port(1), 1); }},
};

void PrintTo(const Row &r, std::ostream *os) { *os << r.name; }

const Row *rowNamed(const std::string &name) {
    for (const Row &r : kRows)
        if (name == r.name) return &r;
    return nullptr;
}

// The process after a crash ("@next"): reads the configuration through the
// library, leaves the file as that read left it in sweep.conf, then times a
// Set call.
QMX_STATUS nextProcess(std::string *extra) {
    std::string state = std::getenv("QMXSIM_STATE");
    util_para *list = nullptr;
    int n = QMX_Read_qmxlddconf(&list, 0);
    std::free(list);
    std::ifstream in("/etc/qmxldd.conf", std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    qmxsim::writeWholeFile(state + "/sweep.conf", text.str(), 0644);
    auto t0 = std::chrono::steady_clock::now();
    QMX_STATUS st = n < 0 ? -1 : QMX_SetLoggingMode(1, 0);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
    *extra = " " + std::to_string(ms.count());
    return st;
}

// The child: runs one row's call and leaves "<status> <code>" for the parent.
int runChild() {
    const char *name = std::getenv("QMX_SWEEP_ROW");
    if (name == nullptr) return 0;
    const Row *row = rowNamed(name);
    std::string extra;
    QMX_STATUS st = row ? row->call() : std::strcmp(name, "@next") == 0 ? nextProcess(&extra) : -1;
    int code = QMX_LastErrorCode();
    std::string out = std::to_string(st) + " " + std::to_string(code) + extra + "\n";
    std::string path = std::string(std::getenv("QMXSIM_STATE")) + "/sweep.result";
    qmxsim::writeWholeFile(path, out, 0644);
    std::fflush(nullptr);
    _exit(0);
}
[[maybe_unused]] const int g_child = runChild();

class FaultSweep : public VHostTest, public ::testing::WithParamInterface<Row> {
protected:
    using Files = std::map<std::string, std::optional<std::string>>;

    std::vector<std::string> watched() const {
        std::vector<std::string> files = {kConf, "/etc/qmxlib.conf", "/etc/modprobe.d/qmxldd_param.conf",
                                          "/opt/kestrel/drivers/hba/qmxldd_lumap.conf"};
        std::string dep = readFile("/lib/modules/" + release() + "/modules.dep");
        std::size_t at = dep.find("qmxldd_conf.ko");
        if (at != std::string::npos) {
            std::size_t b = dep.rfind('\n', at);
            b = b == std::string::npos ? 0 : b + 1;
            std::size_t e = dep.find_first_of(":\n", b);
            files.push_back("/lib/modules/" + release() + "/" + dep.substr(b, e - b));
        }
        return files;
    }
    Files snapshot() const {
        Files f;
        for (const std::string &p : watched())
            f[p] = fileExists(p) ? std::optional<std::string>(readFile(p)) : std::nullopt;
        return f;
    }
    static void restore(const Files &f, const std::string &stateText) {
        ::unlink((std::string(kConf) + ".journal").c_str());
        for (const auto &[path, text] : f) {
            ::unlink(path.c_str());
            if (text) writeFile(path, *text);
        }
        writeFile(stateDir() + "/state.json", stateText);
    }

    struct Outcome {
        bool ran = false;
        long long status = -1;
        int code = -1;
        long long ms = -1;  // "@next": how long its Set call took
    };
    static Outcome run(const Row &row, const std::string &fault) { return run(row.name, fault); }
    static Outcome run(const char *rowName, const std::string &fault) {
        std::string result = stateDir() + "/sweep.result";
        ::unlink(result.c_str());
        pid_t pid = fork();
        if (pid == 0) {
            setenv("QMX_SWEEP_ROW", rowName, 1);
            if (!fault.empty()) setenv("QMXSIM_FAULT", fault.c_str(), 1);
            execl("/proc/self/exe", "sweep-child", static_cast<char *>(nullptr));
            _exit(127);
        }
        int ws = 0;
        waitpid(pid, &ws, 0);
        Outcome o;
        std::istringstream in(readFile(result));
        o.ran = bool(in >> o.status >> o.code);
        in >> o.ms;
        return o;
    }
    static bool lockHeld() {
        key_t key = ftok(kConf, 1);
        int id = key == -1 ? -1 : shmget(key, 128, 0);
        if (id < 0) return false;
        void *seg = shmat(id, nullptr, 0);
        if (seg == reinterpret_cast<void *>(-1)) return false;
        bool held = std::memcmp(seg, "LOCK", 5) == 0;
        if (held) static_cast<char *>(seg)[0] = '\0';  // free for the next run
        shmdt(seg);
        return held;
    }
    // The driver requests of one run, as "<name> <dev>" with their counts.
    std::map<std::string, int> requests(std::size_t fromLine) const {
        std::map<std::string, int> n;
        std::vector<std::string> log = driverLog();
        for (std::size_t i = fromLine; i < log.size(); ++i) {
            std::size_t r = log[i].find(" req="), d = log[i].find(" dev=qmxldd");
            if (r == std::string::npos || d == std::string::npos) continue;
            std::string req = log[i].substr(r + 5, log[i].find(' ', r + 5) - r - 5);
            std::string dev = log[i].substr(d + 11, log[i].find(' ', d + 11) - d - 11);
            ++n[req + " " + dev];
        }
        return n;
    }
};

TEST_P(FaultSweep, EveryFaultIsReportedAndLeavesOldOrNewFiles) {
    const Row &row = GetParam();
    row.setup();
    const std::string stateText = readFile(stateDir() + "/state.json");
    const Files before = snapshot();
    std::size_t logStart = driverLog().size();
    Outcome clean = run(row, "");
    ASSERT_TRUE(clean.ran);
    ASSERT_EQ(clean.status, 0) << "reason code " << clean.code;
    const Files after = snapshot();
    const std::map<std::string, int> reqs = requests(logStart);
    ASSERT_FALSE(lockHeld());
    restore(before, stateText);  // every run starts from the same files

    auto check = [&](const std::string &what, bool driverFault) {
        Outcome o = run(row, driverFault ? "" : what);
        std::string where = std::string(row.name) + " with " + what;
        EXPECT_TRUE(o.ran) << where << ": the process did not finish the call";
        Files now = snapshot();
        if (o.status == 0 && o.code == 0) {
            for (const auto &[path, text] : now) EXPECT_EQ(text, after.at(path)) << where << ": " << path;
        } else if (!(driverFault && o.status == 0)) {
            // A failure, or an inner failure the call survived: reported,
            // and no file mixed.
            EXPECT_TRUE(o.status == 0 || o.status == 1 || o.status == row.otherFailure)
                << where << ": status " << o.status;
            EXPECT_NE(o.code, 0) << where << ": a failure without a reason code";
            for (const auto &[path, text] : now)
                EXPECT_TRUE(text == before.at(path) || text == after.at(path)) << where << ": " << path << " is mixed";
        }
        bool held = lockHeld();
        EXPECT_TRUE(!held || (o.status != 0 && row.keepsLockOnFailure)) << where << ": lock 1 left taken";
        restore(before, stateText);
    };

    // File faults: each operation kind, at each of its occurrences.  The
    // sanitizer build, where every run pays a slow instrumented start, takes
    // occurrences 1 to 4, then 8, 16, ...; the regular build walks them all.
    for (const char *op : {"open", "read", "write", "fsync", "rename"}) {
        const char *err = std::strcmp(op, "write") == 0 ? "ENOSPC" : "EIO";
        for (int n = 1; n <= 400; n = kEveryOccurrence || n < 4 ? n + 1 : n * 2) {
            ::unlink((stateDir() + "/faults.log").c_str());
            std::string fault = std::string(op) + ":" + std::to_string(n) + ":" + err;
            check(fault, false);
            if (readFile(stateDir() + "/faults.log").empty()) break;  // past the last one
        }
    }
    // Driver faults: each request on each device, at its first, second and
    // last occurrence.
    for (const auto &[key, count] : reqs) {
        std::string req = key.substr(0, key.find(' '));
        int dev = std::stoi(key.substr(key.find(' ') + 1));
        for (int k : std::set<int>{1, std::min(2, count), count}) {
            editState([&](qmxsim::json &s) {
                s["faults"] = qmxsim::json::array(
                    {{{"request", req}, {"port", dev}, {"errno", EIO}, {"times", 1}, {"skip", k - 1}}});
            });
            check(req + " on qmxldd" + std::to_string(dev) + " #" + std::to_string(k), true);
        }
    }
}

// Crash points: the call is killed at each write to /etc/qmxldd.conf or its
// journal in turn, holding lock 1.  The next process reads the old or the new
// text, byte for byte, and its Set call takes the dead holder's lock at once.
TEST_P(FaultSweep, CrashAtEachWriteLeavesOldOrNewTextAndAFreeLock) {
    const Row &row = GetParam();
    row.setup();
    const std::string stateText = readFile(stateDir() + "/state.json");
    const Files before = snapshot();
    ASSERT_EQ(run(row, "").status, 0);
    const std::string after = readFile(kConf);
    restore(before, stateText);
    for (int n = 1;; ++n) {
        ::unlink((stateDir() + "/faults.log").c_str());
        std::string where = std::string(row.name) + " killed at write " + std::to_string(n);
        run(row, "write:" + std::to_string(n) + ":kill:/etc/qmxldd");
        if (readFile(stateDir() + "/faults.log").empty()) break;  // past the last one
        Outcome next = run("@next", "");
        const std::string read = readFile(stateDir() + "/sweep.conf");
        EXPECT_TRUE(read == *before.at(kConf) || read == after) << where << ": mixed text " << read;
        EXPECT_FALSE(fileExists(std::string(kConf) + ".journal")) << where;
        EXPECT_EQ(next.status, 0) << where << ": the next Set failed with code " << next.code;
        EXPECT_LT(next.ms, 2000) << where << ": the next Set waited for the dead holder";
        restore(before, stateText);
        lockHeld();
        ASSERT_LT(n, 50) << where << ": no end of write points";
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, FaultSweep, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row> &i) { return std::string(i.param.name); });

}  // namespace
