// qmxsim: runs a command inside a virtual host with simulated qmxldd adapters.
//
//   qmxsim [--scenario FILE] [--state DIR] -- COMMAND [ARGS...]
//
// The command runs in private mount and IPC namespaces (plus a user namespace
// mapped to root when started without root rights).  "/etc", "/dev", "/tmp",
// "/opt", "/sys/class" and "/usr/lib" are overlays whose changes stay in the
// sandbox; "/opt/kestrel", "/sys/block" and "/dev/shm" are fresh tmpfs
// mounts.  The
// host files, device files and adapter tools are created from the scenario,
// the simulated driver is preloaded (LD_PRELOAD), and "/dev/log" is caught
// into "<state>/syslog.log".  The exit status is the command's (128 + signal
// number when it was killed).
//
// Without --state a temporary state directory is used and removed at the end.
// With --state DIR the adapters' state is kept in DIR: a later run with the
// same DIR and no --scenario continues from it, including the configuration
// files and the files of the tool directory as the last run left them.
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <vector>

#include "simstate.h"

#ifndef QMXSIM_SOURCE_SCENARIO
#define QMXSIM_SOURCE_SCENARIO ""
#endif
#ifndef QMXSIM_INSTALL_LIBDIR
#define QMXSIM_INSTALL_LIBDIR "lib"
#endif
#ifndef QMXSIM_INSTALL_LIBEXECDIR
#define QMXSIM_INSTALL_LIBEXECDIR "libexec"
#endif
#ifndef QMXSIM_INSTALL_DATADIR
#define QMXSIM_INSTALL_DATADIR "share"
#endif

namespace {

using qmxsim::json;

volatile sig_atomic_t g_forwardPid = 0;

void forwardSignal(int sig) {
    if (g_forwardPid > 0) kill(pid_t(g_forwardPid), sig);
}

void installForwarding() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = forwardSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(sig, &sa, nullptr);
}

[[noreturn]] void die(const std::string &msg) {
    std::fprintf(stderr, "qmxsim: %s\n", msg.c_str());
    std::fflush(stderr);
    _exit(125);
}

std::string selfDir() {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return ".";
    buf[n] = '\0';
    std::string p(buf);
    std::size_t slash = p.rfind('/');
    return slash == std::string::npos ? std::string(".") : p.substr(0, slash);
}

bool exists(const std::string &p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0;
}

// The first existing candidate, or "".
std::string firstExisting(const std::vector<std::string> &candidates) {
    for (const std::string &c : candidates)
        if (!c.empty() && exists(c)) {
            char real[PATH_MAX];
            return realpath(c.c_str(), real) ? std::string(real) : c;
        }
    return std::string();
}

std::string absolute(const std::string &p) {
    if (!p.empty() && p[0] == '/') return p;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) die("getcwd failed");
    return std::string(cwd) + "/" + p;
}

void writeProc(const char *path, const std::string &text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) die(std::string("open ") + path + ": " + std::strerror(errno));
    if (write(fd, text.data(), text.size()) != ssize_t(text.size()))
        die(std::string("write ") + path + ": " + std::strerror(errno));
    close(fd);
}

void mountOrDie(const char *src, const std::string &dst, const char *type, unsigned long flags,
                const std::string &data) {
    if (mount(src, dst.c_str(), type, flags, data.empty() ? nullptr : data.c_str()) != 0)
        die("mount " + std::string(type ? type : "bind") + " on " + dst + ": " + std::strerror(errno));
}

// An overlay over `dir`; false when the kernel refuses it (some file systems
// cannot be a lower layer inside a user namespace).
bool overlay(const std::string &scratch, const std::string &dir, const std::string &tag) {
    std::string upper = scratch + "/" + tag + "/upper", work = scratch + "/" + tag + "/work";
    if (!qmxsim::makeDirs(upper) || !qmxsim::makeDirs(work)) die("cannot create " + upper);
    std::string data = "lowerdir=" + dir + ",upperdir=" + upper + ",workdir=" + work;
    if (mount("overlay", dir.c_str(), "overlay", 0, data.c_str()) == 0) return true;
    // Inside a user namespace the overlay keeps its metadata in user xattrs.
    data += ",userxattr";
    return mount("overlay", dir.c_str(), "overlay", 0, data.c_str()) == 0;
}

void tmpfs(const std::string &dir) {
    qmxsim::makeDirs(dir);
    mountOrDie("tmpfs", dir, "tmpfs", MS_NOSUID, "mode=755");
}

// ---------------------------------------------------------------- writable
// An overlay made inside a user namespace cannot copy up a directory of the
// host whose owner is not mapped into it (root's /etc/modprobe.d, say, for
// an ordinary user): creating a file there fails with EACCES.  Such a
// directory gets a private tmpfs holding the host's entries instead: files
// and symbolic links are copied, subdirectories are bound from the host (a
// modules tree is large), so everything stays visible and the sandbox may
// write there.

bool canCreateIn(const std::string &dir) {
    std::string probe = dir + "/.qmxsim-probe." + std::to_string(getpid());
    int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    close(fd);
    unlink(probe.c_str());
    return true;
}

// Copies regular files up to this size; larger ones are bound.
constexpr off_t kCopyLimit = 64 << 20;

void privateDir(const std::string &dir) {
    int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0) die("open " + dir + ": " + std::strerror(errno));
    struct stat dst;
    if (fstat(dfd, &dst) != 0) die("stat " + dir + ": " + std::strerror(errno));
    char mode[32];
    std::snprintf(mode, sizeof mode, "mode=%o", unsigned(dst.st_mode & 07777));
    mountOrDie("tmpfs", dir, "tmpfs", MS_NOSUID, mode);
    DIR *d = fdopendir(dup(dfd));
    if (d == nullptr) die("read " + dir + ": " + std::strerror(errno));
    auto bindFrom = [&](const char *name, const std::string &to) {
        int sub = openat(dfd, name, O_PATH | O_CLOEXEC | O_NOFOLLOW);
        if (sub < 0) return;
        std::string src = "/proc/self/fd/" + std::to_string(sub);
        mount(src.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
        close(sub);
    };
    while (struct dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        std::string to = dir + "/" + name;
        struct stat st;
        if (fstatat(dfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            if (mkdir(to.c_str(), st.st_mode & 07777) == 0) bindFrom(name.c_str(), to);
        } else if (S_ISLNK(st.st_mode)) {
            char target[PATH_MAX];
            ssize_t n = readlinkat(dfd, name.c_str(), target, sizeof target - 1);
            if (n < 0) continue;
            target[n] = '\0';
            if (symlink(target, to.c_str()) != 0) continue;
        } else if (S_ISREG(st.st_mode)) {
            int in = openat(dfd, name.c_str(), O_RDONLY | O_CLOEXEC);
            std::string text;
            if (in >= 0 && st.st_size <= kCopyLimit) {
                char buf[65536];
                ssize_t n;
                while ((n = read(in, buf, sizeof buf)) > 0) text.append(buf, std::size_t(n));
                qmxsim::writeWholeFile(to, text, st.st_mode & 07777);
            } else {
                qmxsim::writeWholeFile(to, "", st.st_mode & 07777);
                bindFrom(name.c_str(), to);  // too large to copy, or unreadable
            }
            if (in >= 0) close(in);
        }
    }
    closedir(d);
    close(dfd);
}

// Makes the folder of `file` (and the folders that lead to it) writable in
// the sandbox.
void makeWritable(const std::string &file) {
    // The folder that holds `path` ("/" for a name at the root).
    auto parent = [](const std::string &path) {
        std::size_t slash = path.rfind('/');
        return slash == 0 || slash == std::string::npos ? std::string(1, '/') : path.substr(0, slash);
    };
    for (int round = 0; round < 16; ++round) {
        std::string dir = parent(file);
        struct stat st;
        while (dir.size() > 1 && (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) dir = parent(dir);
        if (canCreateIn(dir)) return;
        privateDir(dir);
    }
    die("cannot make the folder of " + file + " writable");
}

// Files that a persistent state directory carries from one run to the next.
const char *const kKeptFiles[] = {"/etc/qmxldd.conf", "/etc/qmxlib.conf", "/etc/modprobe.d/qmxldd_param.conf"};
constexpr char kToolDir[] = "/opt/kestrel/drivers/hba";

void saveFiles(const std::string &state) {
    std::string saved = state + "/saved";
    qmxsim::removeTree(saved);
    auto keep = [&](const std::string &path) {
        struct stat st;
        if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return;
        std::string text;
        if (!qmxsim::readWholeFile(path, text)) return;
        std::string dst = saved + path;
        qmxsim::makeDirs(dst.substr(0, dst.rfind('/')));
        qmxsim::writeWholeFile(dst, text, st.st_mode & 07777);
    };
    for (const char *f : kKeptFiles) keep(f);
    if (DIR *d = opendir(kToolDir)) {
        while (struct dirent *e = readdir(d)) keep(std::string(kToolDir) + "/" + e->d_name);
        closedir(d);
    }
}

void restoreFiles(const std::string &state, const std::string &dir = "") {
    std::string base = state + "/saved";
    std::string here = base + dir;
    DIR *d = opendir(here.c_str());
    if (d == nullptr) return;
    while (struct dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        std::string rel = dir + "/" + name;
        struct stat st;
        if (lstat((base + rel).c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            restoreFiles(state, rel);
        } else if (S_ISREG(st.st_mode)) {
            std::string text;
            if (!qmxsim::readWholeFile(base + rel, text)) continue;
            qmxsim::makeDirs(rel.substr(0, rel.rfind('/')));
            unlink(rel.c_str());
            qmxsim::writeWholeFile(rel, text, st.st_mode & 07777);
        }
    }
    closedir(d);
}

// A directory that must stay reachable inside the sandbox.
struct Kept {
    std::string path;
    struct stat st;
    int fd = -1;
};

std::string dirOf(const std::string &path) {
    std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

struct Options {
    std::string scenario;
    bool scenarioGiven = false;
    std::string state;
    bool stateGiven = false;
    std::vector<char *> command;
};

void usage(FILE *to) {
    std::fprintf(to,
                 "usage: qmxsim [--scenario FILE] [--state DIR] -- COMMAND [ARGS...]\n"
                 "Runs COMMAND in a virtual host with simulated qmxldd adapters.\n"
                 "  --scenario FILE  host description (JSON); default: the shipped default host\n"
                 "  --state DIR      keep the host's state in DIR (default: a temporary directory)\n");
}

Options parseArgs(int argc, char **argv) {
    Options o;
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--") {
            ++i;
            break;
        }
        if (a == "-h" || a == "--help") {
            usage(stdout);
            std::exit(0);
        }
        auto value = [&](const char *opt) -> std::string {
            std::string prefix = std::string(opt) + "=";
            if (a.compare(0, prefix.size(), prefix) == 0) return a.substr(prefix.size());
            if (i + 1 >= argc) die(std::string(opt) + " needs a value");
            return argv[++i];
        };
        if (a == "--scenario" || a.rfind("--scenario=", 0) == 0) {
            o.scenario = value("--scenario");
            o.scenarioGiven = true;
        } else if (a == "--state" || a.rfind("--state=", 0) == 0) {
            o.state = value("--state");
            o.stateGiven = true;
        } else if (!a.empty() && a[0] == '-') {
            usage(stderr);
            die("unknown option " + a);
        } else {
            break;  // the command starts without "--"
        }
    }
    for (; i < argc; ++i) o.command.push_back(argv[i]);
    o.command.push_back(nullptr);
    if (o.command.size() < 2) {
        usage(stderr);
        die("no command given");
    }
    return o;
}

struct Paths {
    std::string driver, tools, scenario;
};

Paths findPaths(const Options &o) {
    std::string self = selfDir();
    Paths p;
    // The build tree keeps everything next to qmxsim; an installed qmxsim
    // finds the rest through the install layout it was built for.
    p.driver = firstExisting({self + "/libqmxsimdrv.so", self + "/../" QMXSIM_INSTALL_LIBDIR "/qmxsim/libqmxsimdrv.so",
                              self + "/../lib/qmxsim/libqmxsimdrv.so"});
    if (p.driver.empty()) die("simulated driver libqmxsimdrv.so not found next to " + self);
    p.tools = firstExisting({self + "/tools", self + "/../" QMXSIM_INSTALL_LIBEXECDIR "/qmxsim"});
    if (o.scenarioGiven) {
        p.scenario = absolute(o.scenario);
    } else {
        p.scenario = firstExisting({self + "/scenarios/default.json",
                                    self + "/../" QMXSIM_INSTALL_DATADIR "/qmxsim/scenarios/default.json",
                                    QMXSIM_SOURCE_SCENARIO});
        if (p.scenario.empty()) die("default scenario not found");
    }
    return p;
}

// Runs the command in the sandbox; returns its exit status.  Called in the
// child that owns the namespaces.
int sandbox(const Options &o, const Paths &paths, const std::string &state, bool fresh) {
    uid_t uid = getuid();
    gid_t gid = getgid();
    // A scenario that names the host gets its own host name (UTS namespace).
    std::string hostname;
    try {
        json st = qmxsim::loadJsonFile(state + "/state.json");
        if (st.contains("hostname") && st["hostname"].is_string()) hostname = st["hostname"].get<std::string>();
    } catch (const std::exception &) {
    }
    int flags = CLONE_NEWNS | CLONE_NEWIPC;
    if (!hostname.empty()) flags |= CLONE_NEWUTS;
    if (geteuid() != 0) flags |= CLONE_NEWUSER;
    if (unshare(flags) != 0) die(std::string("unshare: ") + std::strerror(errno));
    if (flags & CLONE_NEWUSER) {
        writeProc("/proc/self/setgroups", "deny");
        writeProc("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        writeProc("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    mountOrDie(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, "");
    if (!hostname.empty() && sethostname(hostname.data(), hostname.size()) != 0)
        die("sethostname: " + std::string(std::strerror(errno)));

    // Directories that stay the host's own inside the sandbox, neither
    // hidden nor overlaid, so that writes there reach the host: the state
    // directory, the simulated driver and tools, the command's folder and
    // the working directory (a build tree under /tmp, say).
    std::vector<Kept> kept;
    auto keep = [&](const std::string &dir) {
        char real[PATH_MAX];
        if (dir.empty() || realpath(dir.c_str(), real) == nullptr) return;
        Kept k;
        k.path = real;
        for (const Kept &o : kept)
            if (o.path == k.path) return;
        if (stat(k.path.c_str(), &k.st) != 0) return;
        k.fd = open(k.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (k.fd >= 0) kept.push_back(k);
    };
    keep(state);
    keep(dirOf(paths.driver));
    keep(paths.tools);
    char cwd[PATH_MAX];
    std::string workDir = getcwd(cwd, sizeof cwd) ? std::string(cwd) : std::string();
    keep(workDir);
    std::string cmd0 = o.command[0];
    if (cmd0.find('/') != std::string::npos) keep(dirOf(absolute(cmd0)));
    if (kept.empty() || kept[0].fd < 0) die("cannot open the state directory");

    // Scratch space for the overlays' upper layers, private to this sandbox.
    std::string scratch = state + "/.sandbox";
    qmxsim::makeDirs(scratch);
    mountOrDie("tmpfs", scratch, "tmpfs", 0, "mode=700");
    // The host's device nodes, to bind the few that programs need back into
    // the overlay (an overlay made in a user namespace cannot open devices).
    std::string oldDev = scratch + "/hostdev";
    qmxsim::makeDirs(oldDev);
    mountOrDie("/dev", oldDev, nullptr, MS_BIND | MS_REC, "");

    if (!overlay(scratch, "/etc", "etc")) die("overlay on /etc: " + std::string(std::strerror(errno)));
    char usrlib[PATH_MAX];
    if (realpath("/lib", usrlib) == nullptr) std::strcpy(usrlib, "/usr/lib");
    if (!overlay(scratch, usrlib, "usrlib"))
        die("overlay on " + std::string(usrlib) + ": " + std::strerror(errno));
    // /sys/class: an overlay, or else a fresh tmpfs (the sandbox then sees
    // only the simulated SCSI hosts there).
    if (!overlay(scratch, "/sys/class", "sysclass")) tmpfs("/sys/class");
    // /dev: an overlay, or else a tmpfs holding the usual entries.
    bool devOverlay = overlay(scratch, "/dev", "dev");
    if (!devOverlay) {
        tmpfs("/dev");
        for (const char *link : {"fd:/proc/self/fd", "stdin:/proc/self/fd/0", "stdout:/proc/self/fd/1",
                                 "stderr:/proc/self/fd/2", "ptmx:pts/ptmx"}) {
            std::string l(link);
            std::size_t colon = l.find(':');
            if (symlink(l.substr(colon + 1).c_str(), ("/dev/" + l.substr(0, colon)).c_str()) != 0)
                die("symlink in /dev: " + std::string(std::strerror(errno)));
        }
    }
    for (const char *node : {"null", "zero", "full", "random", "urandom", "tty"}) {
        std::string src = oldDev + "/" + node, dst = std::string("/dev/") + node;
        if (!exists(src)) continue;
        if (!devOverlay) {
            int fd = open(dst.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
            if (fd >= 0) close(fd);
        }
        if (exists(dst)) mount(src.c_str(), dst.c_str(), nullptr, MS_BIND, nullptr);
    }
    if (exists(oldDev + "/pts/ptmx")) {
        qmxsim::makeDirs("/dev/pts");
        mount((oldDev + "/pts").c_str(), "/dev/pts", nullptr, MS_BIND | MS_REC, nullptr);
    }
    tmpfs("/dev/shm");
    // /opt: an overlay too, with the simulated host's own /opt/kestrel a
    // fresh tmpfs on it (a host with the real adapter software installed
    // must not mix its tools and trace file into the sandbox).
    if (!overlay(scratch, "/opt", "opt")) tmpfs("/opt");
    tmpfs("/opt/kestrel");
    // /tmp: an overlay, so that every file of the host under /tmp (a build
    // tree, a script, a data file) stays visible while whatever the command
    // writes there (the library's scratch files) stays in the sandbox.  Its
    // root keeps the host's mode (1777).  A kernel that refuses the overlay
    // gets a fresh tmpfs; the kept directories below are bound into either.
    struct stat hostTmp;
    bool tmpKnown = stat("/tmp", &hostTmp) == 0;
    if (overlay(scratch, "/tmp", "tmp")) {
        if (tmpKnown) chmod("/tmp", hostTmp.st_mode & 07777);
    } else {
        tmpfs("/tmp");
    }
    tmpfs("/sys/block");

    for (const Kept &k : kept) {
        struct stat now;
        if (stat(k.path.c_str(), &now) != 0 || now.st_ino != k.st.st_ino || now.st_dev != k.st.st_dev) {
            qmxsim::makeDirs(k.path);
            std::string src = "/proc/self/fd/" + std::to_string(k.fd);
            mountOrDie(src.c_str(), k.path, nullptr, MS_BIND, "");
        }
        close(k.fd);
    }
    if (!workDir.empty() && chdir(workDir.c_str()) != 0) die("chdir " + workDir + ": " + std::strerror(errno));

    // Host files.
    json st;
    try {
        st = qmxsim::loadJsonFile(state + "/state.json");
    } catch (const std::exception &e) {
        die(e.what());
    }
    struct utsname un;
    qmxsim::HostLayout layout;
    layout.root = "";
    layout.stateDir = state;
    layout.toolSourceDir = paths.tools;
    layout.release = uname(&un) == 0 ? un.release : "";
    // Every folder the host files go to, and those the library writes in.
    std::vector<std::string> written = {"/etc/modprobe.d/qmxldd_param.conf"};
    if (st.contains("files") && st["files"].is_object())
        for (auto it = st["files"].begin(); it != st["files"].end(); ++it) written.push_back(it.key());
    if (!layout.release.empty()) {
        std::string rel = "extra/qmxldd/qmxldd_conf.ko";
        if (st.contains("module") && st["module"].is_object())
            rel = st["module"].value("path", rel);
        written.push_back("/lib/modules/" + layout.release + "/modules.dep");
        written.push_back("/lib/modules/" + layout.release + "/" + rel);
    }
    for (const std::string &f : written)
        if (!f.empty() && f[0] == '/') makeWritable(f);
    std::string err = qmxsim::materializeHost(st, layout);
    if (!err.empty()) die(err);
    if (!fresh) restoreFiles(state);

    // The system log catcher.
    unlink("/dev/log");
    int logSock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (logSock >= 0) {
        struct sockaddr_un addr;
        std::memset(&addr, 0, sizeof addr);
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, "/dev/log");
        if (bind(logSock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            close(logSock);
            logSock = -1;
        } else {
            chmod("/dev/log", 0666);
        }
    }
    std::string syslogPath = state + "/syslog.log";
    int syslogFd = open(syslogPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);

    // Environment of the command.
    setenv("QMXSIM_STATE", state.c_str(), 1);
    std::string preload = paths.driver;
    if (const char *old = getenv("LD_PRELOAD"); old != nullptr && *old != '\0') preload += std::string(":") + old;
    setenv("LD_PRELOAD", preload.c_str(), 1);
    // An address-sanitized command sees the preloaded driver ahead of its
    // sanitizer runtime; that order is intended here.
    std::string asan = getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "";
    if (asan.find("verify_asan_link_order") == std::string::npos)
        asan += std::string(asan.empty() ? "" : ":") + "verify_asan_link_order=0";
    setenv("ASAN_OPTIONS", asan.c_str(), 1);

    pid_t cmd = fork();
    if (cmd < 0) die(std::string("fork: ") + std::strerror(errno));
    if (cmd == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execvp(o.command[0], o.command.data());
        std::fprintf(stderr, "qmxsim: cannot run %s: %s\n", o.command[0], std::strerror(errno));
        _exit(127);
    }
    g_forwardPid = cmd;

    auto drain = [&]() {
        if (logSock < 0) return;
        char msg[8192];
        for (;;) {
            ssize_t n = recv(logSock, msg, sizeof msg - 1, 0);
            if (n <= 0) break;
            if (msg[n - 1] != '\n') msg[n++] = '\n';
            if (syslogFd >= 0) {
                ssize_t w = write(syslogFd, msg, std::size_t(n));
                (void)w;
            }
        }
    };
    int status = 0;
    for (;;) {
        struct pollfd pfd = {logSock, POLLIN, 0};
        if (logSock >= 0) poll(&pfd, 1, 100);
        else usleep(100000);
        drain();
        pid_t w = waitpid(cmd, &status, WNOHANG);
        if (w == cmd) break;
        if (w < 0 && errno != EINTR) break;
    }
    drain();
    if (o.stateGiven) saveFiles(state);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 125;
}

}  // namespace

int main(int argc, char **argv) {
    Options o = parseArgs(argc, argv);
    Paths paths = findPaths(o);

    // The state directory.
    std::string state;
    bool temporary = !o.stateGiven;
    if (temporary) {
        const char *tmp = getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/qmxsim.XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) == nullptr) die("mkdtemp: " + std::string(std::strerror(errno)));
        state = buf.data();
    } else {
        state = absolute(o.state);
        if (!qmxsim::makeDirs(state)) die("cannot create " + state);
        char real[PATH_MAX];
        if (realpath(state.c_str(), real) != nullptr) state = real;
    }
    bool fresh = temporary || o.scenarioGiven || !exists(state + "/state.json");
    if (fresh) {
        json st;
        try {
            st = qmxsim::normalizeScenario(qmxsim::loadJsonFile(paths.scenario));
        } catch (const std::exception &e) {
            if (temporary) qmxsim::removeTree(state);
            die(e.what());
        }
        for (const char *old : {"driver.log", "syslog.log", "tools", "saved", "proc"})
            qmxsim::removeTree(state + "/" + old);
        std::string why;
        if (!qmxsim::StateStore(state).write(st, &why)) die("cannot write the state: " + why);
    }

    pid_t child = fork();
    if (child < 0) die(std::string("fork: ") + std::strerror(errno));
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        installForwarding();
        _exit(sandbox(o, paths, state, fresh));
    }
    g_forwardPid = child;
    installForwarding();
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    qmxsim::removeTree(state + "/.sandbox");
    if (temporary) qmxsim::removeTree(state);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 125;
}
