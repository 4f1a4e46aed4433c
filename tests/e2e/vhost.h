// Test fixture for end-to-end tests in the virtual host (qmxsim).
//
// CTest runs every test in a fresh virtual host with the default scenario
// (sim/scenarios/default.json: adapters at PCI 03:00 and 04:00, two ports
// each, device files /dev/qmxldd0..3).  The fixture reads the host's files,
// the library's API trace, the simulated driver's request log and the caught
// system log, and changes the simulated host.  The library discovers the
// ports once per process, at its first port lookup: make host changes that
// discovery must see before the first library call of the test.
//
//   class MyTest : public VHostTest {};
//   TEST_F(MyTest, Something) {
//       removePort(1);                                   // before discovery
//       failRequest("IOCTL_QMX_DIAG0", 0, EIO, -1, 0x22); // always fails
//       ...library calls...
//       EXPECT_EQ(traceCount("ioctl retry"), 6);
//   }
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "qmxvlib.h"
#include "simstate.h"

class VHostTest : public ::testing::Test {
public:
    static constexpr const char *kTraceFile = "/opt/kestrel/drivers/hba/qmxlibTrace.txt";
    static constexpr const char *kToolDir = "/opt/kestrel/drivers/hba";
    static constexpr const char *kConf = "/etc/qmxldd.conf";

protected:
    void SetUp() override {
        if (stateDir().empty()) GTEST_SKIP() << "needs the virtual host: run the test through qmxsim";
    }

    // ------------------------------------------------------------------ files
    static std::string stateDir() {
        const char *s = std::getenv("QMXSIM_STATE");
        return s ? std::string(s) : std::string();
    }
    static bool fileExists(const std::string &path) {
        struct stat st;
        return ::lstat(path.c_str(), &st) == 0;
    }
    // The whole file, or "" when it cannot be read.
    static std::string readFile(const std::string &path) {
        std::string text;
        qmxsim::readWholeFile(path, text);
        return text;
    }
    static bool writeFile(const std::string &path, const std::string &text, unsigned mode = 0644) {
        return qmxsim::writeWholeFile(path, text, mode);
    }
    static bool removeFile(const std::string &path) { return ::unlink(path.c_str()) == 0; }
    // The file stays but no process of the host can open it (EACCES, root
    // included).
    static void makeUnreadable(const std::string &path) {
        std::string list = stateDir() + "/unreadable", text;
        qmxsim::readWholeFile(list, text);
        ASSERT_TRUE(writeFile(list, text + path + "\n"));
    }
    static std::vector<std::string> splitLines(const std::string &text) {
        std::vector<std::string> lines;
        std::size_t pos = 0;
        while (pos < text.size()) {
            std::size_t nl = text.find('\n', pos);
            if (nl == std::string::npos) nl = text.size();
            lines.push_back(text.substr(pos, nl - pos));
            pos = nl + 1;
        }
        return lines;
    }

    // ------------------------------------------------------------ API trace
    // The messages of the API trace file in the order written, without the
    // time stamp and process id, trailing blanks removed; a message that the
    // trace split over two lines is joined again.  The "EndLog" marker is not
    // a message.
    static std::vector<std::string> traceLines() {
        std::vector<std::string> raw = splitLines(readFile(kTraceFile));
        std::size_t marker = raw.size();
        for (std::size_t i = 0; i < raw.size(); ++i)
            if (raw[i].compare(0, 6, "EndLog") == 0) marker = i;
        std::vector<std::string> ordered;
        for (std::size_t i = marker + 1; i < raw.size(); ++i) ordered.push_back(raw[i]);  // older, after a wrap
        for (std::size_t i = 0; i < marker; ++i) ordered.push_back(raw[i]);
        std::vector<std::string> out;
        for (std::string line : ordered) {
            while (!line.empty() && line.back() == ' ') line.pop_back();
            std::string msg;
            if (stripStamp(line, msg)) {
                out.push_back(msg);
            } else if (!out.empty()) {
                out.back() += line;  // second line of a long message
            } else {
                out.push_back(line);
            }
        }
        return out;
    }
    static int traceCount(const std::string &msg) {
        int n = 0;
        for (const std::string &l : traceLines()) n += l == msg ? 1 : 0;
        return n;
    }
    static bool traceHas(const std::string &msg) { return traceCount(msg) > 0; }
    // Index of the first message equal to `msg` at or after `from`, or -1.
    static int traceIndex(const std::string &msg, int from = 0) {
        std::vector<std::string> lines = traceLines();
        for (std::size_t i = std::size_t(from < 0 ? 0 : from); i < lines.size(); ++i)
            if (lines[i] == msg) return int(i);
        return -1;
    }
    static void clearTrace() { ::unlink(kTraceFile); }
    // A refused call: status `st` is 1, the reason code is `code` (-1: not
    // looked at) and, when `msg` is given, the trace holds that line.
    static ::testing::AssertionResult refused(long long st, int code, const std::string &msg = "") {
        int got = QMX_LastErrorCode();
        if (st != 1) return ::testing::AssertionFailure() << "status " << st << ", not 1";
        if (code >= 0 && got != code) return ::testing::AssertionFailure() << "reason code " << got << ", not " << code;
        if (!msg.empty() && !traceHas(msg)) return ::testing::AssertionFailure() << "no trace line \"" << msg << "\"";
        return ::testing::AssertionSuccess();
    }
    // Runs `fn` with the API trace file open, as an exported call's frame
    // has it: a routine called outside a frame traces only then.
    template <class F>
    static auto withTrace(F fn) {
        QMX_OpenApiTraceFile();
        if constexpr (std::is_void_v<decltype(fn())>) {
            fn();
            QMX_CloseApiTraceFile();
        } else {
            auto r = fn();
            QMX_CloseApiTraceFile();
            return r;
        }
    }

    // ------------------------------------------------- driver and syslog logs
    static std::vector<std::string> driverLog() { return splitLines(readFile(stateDir() + "/driver.log")); }
    // Requests logged for `request` (its name, e.g. "IOCTL_QMX_DIAG0"), on
    // device `devno` (-1: any), with sub-command `sub` (-1: any).
    static int driverRequests(const std::string &request, int devno = -1, int sub = -1) {
        int n = 0;
        std::string req = " req=" + request + " ";
        std::string dev = " dev=qmxldd" + std::to_string(devno) + " ";
        std::string subText = " sub=" + std::to_string(sub) + " ";
        for (const std::string &l : driverLog()) {
            if (l.find(req) == std::string::npos) continue;
            if (devno >= 0 && l.find(dev) == std::string::npos) continue;
            if (sub >= 0 && l.find(subText) == std::string::npos) continue;
            ++n;
        }
        return n;
    }
    // System log entries caught from /dev/log.  The catcher runs beside the
    // test; wait (up to `waitMs`) until at least `atLeast` entries are there.
    static std::vector<std::string> syslogLines(std::size_t atLeast = 0, int waitMs = 3000) {
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
        for (;;) {
            std::vector<std::string> lines = splitLines(readFile(stateDir() + "/syslog.log"));
            if (lines.size() >= atLeast || std::chrono::steady_clock::now() > until) return lines;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    // ------------------------------------------------------------ tools
    static std::vector<std::string> toolLog(const std::string &tool) {
        return splitLines(readFile(stateDir() + "/tools/" + tool + ".log"));
    }
    // The next `times` runs of `tool` exit with `code` (-1: every run).
    static void scriptTool(const std::string &tool, int code, int times = 1) {
        qmxsim::makeDirs(stateDir() + "/tools");
        writeFile(stateDir() + "/tools/" + tool + ".script",
                  "exit=" + std::to_string(code) + " times=" + std::to_string(times) + "\n");
    }

    // --------------------------------------------------- the simulated host
    static qmxsim::json state() {
        qmxsim::json copy;
        qmxsim::StateStore(stateDir()).read([&](const qmxsim::json &s) { copy = s; });
        return copy;
    }
    // Changes the state, then rebuilds the device files and /proc and /sys
    // entries of the ports.
    static void editState(const std::function<void(qmxsim::json &)> &fn) {
        qmxsim::StateStore store(stateDir());
        std::string why;
        bool ok = store.update(
            [&](qmxsim::json &s) {
                fn(s);
                return true;
            },
            &why);
        ASSERT_TRUE(ok) << why;
        qmxsim::HostLayout layout;
        layout.root = "";
        layout.stateDir = stateDir();
        std::string err = qmxsim::materializePorts(state(), layout);
        ASSERT_EQ(err, "");
    }
    static qmxsim::json &portOf(qmxsim::json &s, int devno) {
        qmxsim::json *p = qmxsim::findPort(s, devno);
        if (p == nullptr) throw std::runtime_error("no port " + std::to_string(devno));
        return *p;
    }
    // The port vanishes: the driver forgets it and its device file goes.
    static void removePort(int devno) {
        editState([&](qmxsim::json &s) {
            qmxsim::json &ports = s["ports"];
            for (std::size_t i = 0; i < ports.size(); ++i)
                if (qmxsim::fieldI64(ports[i], "devno", -1) == devno) {
                    ports.erase(i);
                    break;
                }
        });
    }
    // Only the device file goes (the driver still knows the port).
    static void removeDeviceFile(int devno) { removeFile("/dev/qmxldd" + std::to_string(devno)); }
    // A port-level field of the state ("pci_id_readable", "device", ...).
    static void setPortField(int devno, const std::string &key, const qmxsim::json &value) {
        editState([&](qmxsim::json &s) { portOf(s, devno)[key] = value; });
    }
    // A field of the port information record, by its name ("port_status").
    static void setPrinfoField(int devno, const std::string &field, const qmxsim::json &value) {
        editState([&](qmxsim::json &s) { portOf(s, devno)["prinfo"][field] = value; });
    }
    // A scripted fault: {"request": name or number, "port": N, "sub": S,
    // "errno": E, "times": T (-1 always), "err_code": C, "resp_code": R,
    // "busy": true}.
    static void addFault(const qmxsim::json &fault) {
        editState([&](qmxsim::json &s) { s["faults"].push_back(fault); });
    }
    // Request `request` on port `devno` fails with `err` the next `times`
    // times (-1: always); `sub` narrows it to one sub-command.
    static void failRequest(const std::string &request, int devno, int err, int times = -1, int sub = -1) {
        qmxsim::json f = {{"request", request}, {"port", devno}, {"errno", err}, {"times", times}};
        if (sub >= 0) f["sub"] = sub;
        addFault(f);
    }
    static void clearFaults() {
        editState([&](qmxsim::json &s) { s["faults"] = qmxsim::json::array(); });
    }
    // A counter the driver or a tool keeps for a port ("efi_store", ...).
    static int64_t portCounter(int devno, const std::string &name) {
        qmxsim::json s = state();
        const qmxsim::json *p = qmxsim::findPort(s, devno);
        if (p == nullptr || !p->contains("counters")) return 0;
        return qmxsim::fieldI64((*p)["counters"], name.c_str(), 0);
    }

    // ----------------------------------------------------------------- WWNs
    static QMX_WWN wwnOf(uint64_t v) {
        QMX_WWN w;
        for (int i = 7; i >= 0; --i) {
            w.wwn[i] = uint8_t(v & 0xFF);
            v >>= 8;
        }
        return w;
    }
    // The port WWN of device `devno` as the scenario gives it.
    static QMX_WWN portWwn(int devno) {
        qmxsim::json s = state();
        const qmxsim::json *p = qmxsim::findPort(s, devno);
        return wwnOf(p ? qmxsim::fieldU64(*p, "wwpn", 0) : 0);
    }
    static std::string release() {
        struct utsname u;
        return uname(&u) == 0 ? std::string(u.release) : std::string();
    }

private:
    // "YYYY/MM/DD HH:MM:SS PID message" -> message.
    static bool stripStamp(const std::string &line, std::string &msg) {
        if (line.size() < 21 || line[4] != '/' || line[7] != '/' || line[10] != ' ' || line[13] != ':' ||
            line[16] != ':' || line[19] != ' ')
            return false;
        std::size_t p = 20;
        if (p >= line.size() || line[p] < '0' || line[p] > '9') return false;
        while (p < line.size() && line[p] >= '0' && line[p] <= '9') ++p;
        if (p < line.size() && line[p] == ' ') ++p;
        msg = line.substr(p);
        return true;
    }
};

// qmxmgr, the command-line manager, run as a child process inside the
// virtual host; its standard output and error go to files of the state
// directory (neither is a terminal).
class ManagerTest : public VHostTest {
public:
    struct Result {
        int status = -1;
        std::string out, err;
    };

protected:
    void SetUp() override {
        VHostTest::SetUp();
        if (!IsSkipped() && !fileExists(managerPath())) GTEST_SKIP() << "qmxmgr not built";
    }
    static std::string managerPath() {
#ifdef QMXMGR_PATH
        return QMXMGR_PATH;
#else
        return "";
#endif
    }
    // Starts qmxmgr with `args`; `tag` names its output files.
    static pid_t start(const std::vector<std::string> &args, const std::string &tag) {
        std::string path = managerPath(), out = stateDir() + "/mgr-" + tag + ".out",
                    err = stateDir() + "/mgr-" + tag + ".err";
        std::vector<std::string> all{path};
        all.insert(all.end(), args.begin(), args.end());
        pid_t pid = fork();
        if (pid == 0) {
            int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (o < 0 || e < 0) _exit(126);
            dup2(o, 1);
            dup2(e, 2);
            std::vector<char *> argv;
            for (std::string &a : all) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(path.c_str(), argv.data());
            _exit(127);
        }
        return pid;
    }
    static Result finish(pid_t pid, const std::string &tag) {
        Result r;
        int st = 0;
        if (waitpid(pid, &st, 0) == pid) r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        r.out = readFile(stateDir() + "/mgr-" + tag + ".out");
        r.err = readFile(stateDir() + "/mgr-" + tag + ".err");
        return r;
    }
    static Result run(const std::vector<std::string> &args) { return finish(start(args, "run"), "run"); }
    static qmxsim::json parse(const std::string &text) {
        qmxsim::json j = qmxsim::json::parse(text, nullptr, false);
        EXPECT_FALSE(j.is_discarded()) << text;
        return j;
    }
    // Runs qmxmgr expecting exit status 0; its output read as JSON.
    static qmxsim::json runJson(const std::vector<std::string> &args) {
        Result r = run(args);
        EXPECT_EQ(r.status, 0) << r.err;
        return parse(r.out);
    }
    static int lineCount(const std::string &text) { return int(std::count(text.begin(), text.end(), '\n')); }
};
