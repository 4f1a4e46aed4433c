// qmxmgr, the command-line manager, run as a child process inside the
// virtual host: PORT forms, JSON output, exit statuses and messages, the
// numbering commands' refusals, the trace command and the BIOS switch.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "vhost.h"

namespace {

using QmxmgrTest = ManagerTest;
using Result = ManagerTest::Result;

// --------------------------------------------------------------- PORT forms
TEST_F(QmxmgrTest, EveryPortFormNamesTheSamePort) {
    ASSERT_TRUE(writeFile(kConf, "qmxl1-wwpn=0x2100001122334451:qmx1_queue_depth=48:"));
    const char *forms[] = {"qmxldd1", "/dev/qmxldd1", "1", "21:00:00:11:22:33:44:51",
                           "2100001122334451", "0x2100001122334451", "21:00:00:11:22:33:44:51"};
    for (const char *form : forms) {
        SCOPED_TRACE(form);
        qmxsim::json j = runJson({"get", form, "queue_depth", "--json"});
        EXPECT_EQ(j["port"]["device"], "qmxldd1");
        EXPECT_EQ(j["port"]["wwn"], "21:00:00:11:22:33:44:51");
        EXPECT_EQ(j["setting"], 48);
    }
}

TEST_F(QmxmgrTest, TextThatIsNoPortIsAUsageError) {
    const char *bad[] = {"qmxldd", "qmxldd9", "sda", "21:00:00:11:22:33:44", "1234",
                         "21-00-00-11-22-33-44-51", "210000112233445g", "7"};
    for (const char *form : bad) {
        SCOPED_TRACE(form);
        Result r = run({"get", form, "queue_depth"});
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(lineCount(r.err), 1) << r.err;
        EXPECT_EQ(r.err.rfind("qmxmgr: ", 0), 0u) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

// ------------------------------------------------------------------ JSON
TEST_F(QmxmgrTest, PortsJsonShape) {
    qmxsim::json j = runJson({"ports", "--json"});
    ASSERT_TRUE(j["ports"].is_array());
    ASSERT_EQ(j["ports"].size(), 4u);
    const qmxsim::json &p = j["ports"][2];
    EXPECT_EQ(p["number"], 2);
    EXPECT_EQ(p["device"], "qmxldd2");
    EXPECT_EQ(p["wwn"], "21:00:00:11:22:33:44:60");
    EXPECT_EQ(p["pci"], "04:00.0");
    EXPECT_EQ(p["model"], "QX2402");
    for (const char *key : {"firmware", "driver", "status", "status_code", "host"})
        EXPECT_TRUE(p.contains(key)) << key;
    EXPECT_TRUE(p["firmware"].is_string());
    // A host without the driver: what is missing, one line each.
    for (int n = 0; n < 4; ++n) removeDeviceFile(n);
    removeFile(kConf);
    Result r = run({"ports"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "No ports found.\n");
    EXPECT_EQ(r.err, "qmxmgr: no /dev/qmxldd* device: is the qmxldd driver loaded?\n"
                     "qmxmgr: no /etc/qmxldd.conf: the driver's configuration file is missing\n");
}

TEST_F(QmxmgrTest, ShowJsonHasEveryParameterWithCurrentAndSetting) {
    Result r = run({"show", "qmxldd0", "--json"});
    qmxsim::json j = parse(r.out);
    EXPECT_EQ(j["port"]["device"], "qmxldd0");
    ASSERT_TRUE(j["parameters"].is_array());
    EXPECT_GE(j["parameters"].size(), 30u);
    bool sawQueue = false, sawLink = false;
    for (const qmxsim::json &row : j["parameters"]) {
        ASSERT_TRUE(row["name"].is_string());
        ASSERT_TRUE(row.contains("error") || (row.contains("current") && row.contains("setting")))
            << row.dump();
        if (row["name"] == "queue_depth") {
            sawQueue = true;
            EXPECT_EQ(row["setting"], 32);  // qmx0_queue_depth=32 in the default host
            EXPECT_TRUE(row["current"].is_number());
        }
        if (row["name"] == "connection_type" || row["name"] == "port_speed") sawLink = true;
        if (row["name"] == "link_down_time") {
            EXPECT_TRUE(row["setting"].is_null());  // not stored
        }
    }
    EXPECT_TRUE(sawQueue);
    EXPECT_TRUE(sawLink);
    // The exit status says whether every parameter could be read.
    bool anyError = false;
    for (const qmxsim::json &row : j["parameters"]) anyError |= row.contains("error");
    EXPECT_EQ(r.status, anyError ? 1 : 0) << r.err;
}

TEST_F(QmxmgrTest, NumberingJsonBothSources) {
    qmxsim::json j = runJson({"numbering", "--json"});
    EXPECT_EQ(j["source"], "current");
    ASSERT_EQ(j["adapters"].size(), 4u);
    EXPECT_EQ(j["adapters"][3]["device"], "qmxldd3");

    ASSERT_TRUE(writeFile(kConf, "qmxl9-wwpn=0x2100000000000099:qmxl0-wwpn=0x2100001122334450:"));
    j = runJson({"numbering", "--configured", "--json"});
    EXPECT_EQ(j["source"], "configured");
    ASSERT_EQ(j["adapters"].size(), 2u);
    EXPECT_EQ(j["adapters"][0]["number"], 9);
    EXPECT_TRUE(j["adapters"][0]["device"].is_null());
    EXPECT_EQ(j["adapters"][1]["device"], "qmxldd0");
}

// ---------------------------------------------------- set, unset, failures
TEST_F(QmxmgrTest, SetUnsetAndDriverWideForms) {
    ASSERT_EQ(run({"set", "qmxldd2", "queue_depth", "64"}).status, 0);
    EXPECT_NE(readFile(kConf).find("qmx2_queue_depth=64:"), std::string::npos);
    ASSERT_EQ(run({"unset", "2", "queue_depth"}).status, 0);
    EXPECT_EQ(readFile(kConf).find("qmx2_queue_depth="), std::string::npos);
    ASSERT_EQ(run({"set", "--all-ports", "link_down_time", "15"}).status, 0);
    EXPECT_NE(readFile(kConf).find("qmx_link_down=15:"), std::string::npos);
    ASSERT_EQ(run({"set", "--all-ports", "logging_mode", "on"}).status, 0);
    EXPECT_NE(readFile(kConf).find("qmx_limit_log=1:"), std::string::npos);
    // The all-zero WWN names the driver-wide value (a getter refuses it).
    ASSERT_EQ(run({"set", "00:00:00:00:00:00:00:00", "queue_depth", "12"}).status, 0);
    EXPECT_NE(readFile(kConf).find("qmx_queue_depth=12:"), std::string::npos);
}

// A refused call: status 1, one line naming the call and its reason, the
// file unchanged.
TEST_F(QmxmgrTest, RefusalsExitWithOneAndChangeNothing) {
    struct Case {
        std::vector<std::string> args;
        const char *err;
        bool whole;  // err is the whole message (else a part of it)
    } cases[] = {
        {{"get", "2100001122334499", "queue_depth"},
         "qmxmgr: QMX_GetQueueDepthCount failed: the WWN names no discovered port (reason code 4): "
         "Invalid WWN\n",
         true},
        {{"set", "qmxldd0", "queue_depth", "999"},
         "qmxmgr: QMX_SetQueueDepthCount failed: invalid argument (reason code 2): queue is invalid value\n",
         true},
        {{"numbering", "set", "3", "qmxldd1", "3", "qmxldd0"},
         "qmxmgr: QMX_SetAdapterNumber failed: invalid argument (reason code 2): The same key exists.\n",
         true},
        {{"numbering", "set", "257", "qmxldd1"}, "Adapter number is invalid value", false},
    };
    const std::string before = readFile(kConf);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1]);
        Result r = run(c.args);
        EXPECT_EQ(r.status, 1);
        if (c.whole) {
            EXPECT_EQ(r.err, c.err);
        } else {
            EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
        }
        EXPECT_EQ(r.out, "");
    }
    EXPECT_EQ(readFile(kConf), before);
}

TEST_F(QmxmgrTest, UsageErrorsExitWithTwo) {
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"bogus"},
        {"get", "0"},
        {"get", "0", "no_such_parameter"},
        {"get", "0000000000000000", "queue_depth"},  // the all-zero WWN is no port to read
        {"set", "0", "queue_depth"},
        {"set", "0", "queue_depth", "lots"},
        {"set", "0", "logging_mode", "1"},          // driver-wide only
        {"set", "--all-ports", "port_speed", "8"},  // per port only
        {"unset", "0", "connection_type"},          // nothing to remove
        {"set", "0", "scsi_timeout_fail_count", "1"},
        {"numbering", "set", "3"},
        {"bi", "enable"},  // no -b
        {"-b", "qmxldd0", "bi", "sometimes"},
    };
    const std::string before = readFile(kConf);
    for (const auto &args : cases) {
        std::string joined;
        for (const auto &a : args) joined += a + " ";
        SCOPED_TRACE(joined);
        Result r = run(args);
        EXPECT_EQ(r.status, 2) << r.err;
        EXPECT_NE(r.err, "");
    }
    EXPECT_EQ(readFile(kConf), before);
}

TEST_F(QmxmgrTest, HelpOnEveryCommand) {
    for (const char *cmd : {"ports", "show", "get", "set", "unset", "numbering", "trace", "bi",
                            "binding", "priority"}) {
        SCOPED_TRACE(cmd);
        Result r = run({cmd, "--help"});
        EXPECT_EQ(r.status, 0);
        EXPECT_NE(r.out.find("Usage"), std::string::npos) << r.out;
    }
    EXPECT_EQ(run({"--help"}).status, 0);
}

// ------------------------------------------------------------- numbering
TEST_F(QmxmgrTest, NumberingSetRemoveRebind) {
    ASSERT_EQ(run({"numbering", "set", "7", "21:00:00:11:22:33:44:99"}).status, 0);
    EXPECT_NE(readFile(kConf).find("qmxl7-wwpn=0x2100001122334499:"), std::string::npos);
    ASSERT_EQ(run({"numbering", "rebind", "7", "2100001122334498"}).status, 0);
    EXPECT_NE(readFile(kConf).find("qmxl7-wwpn=0x2100001122334498:"), std::string::npos);
    ASSERT_EQ(run({"numbering", "remove", "2100001122334498", "qmxldd1"}).status, 0);
    std::string text = readFile(kConf);
    EXPECT_EQ(text.find("qmxl7-"), std::string::npos);
    EXPECT_EQ(text.find("qmxl1-wwpn"), std::string::npos);
    EXPECT_EQ(text.find("qmx1_link_speed"), std::string::npos);
    EXPECT_NE(text.find("qmxl0-wwpn=0x2100001122334450:"), std::string::npos);
}

// ------------------------------------------------------------------ trace
TEST_F(QmxmgrTest, TraceIsPrintedOldestFirstAcrossTheRingWrap) {
    auto line = [](const char *msg) {
        std::string l = std::string("2026/01/02 03:04:05 4242 ") + msg;
        l.resize(120, ' ');
        return l + "\n";
    };
    std::string marker = "EndLog";
    marker.resize(120, ' ');
    ASSERT_TRUE(writeFile(kTraceFile, line("newest-1") + line("newest-2") + marker + "\n" +
                                          line("oldest-1") + line("oldest-2")));
    Result r = run({"trace"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "2026/01/02 03:04:05 4242 oldest-1\n2026/01/02 03:04:05 4242 oldest-2\n"
              "2026/01/02 03:04:05 4242 newest-1\n2026/01/02 03:04:05 4242 newest-2\n");
    qmxsim::json j = runJson({"trace", "--lines", "1", "--json"});
    ASSERT_EQ(j["lines"].size(), 1u);
    EXPECT_EQ(j["lines"][0], "2026/01/02 03:04:05 4242 newest-2");
    EXPECT_EQ(j["file"], kTraceFile);
}

TEST_F(QmxmgrTest, TraceShowsTheManagersOwnCalls) {
    ASSERT_EQ(run({"get", "0", "queue_depth"}).status, 0);
    Result r = run({"trace"});
    ASSERT_EQ(r.status, 0);
    std::vector<std::string> lines = splitLines(r.out);
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find("QMX_GetQueueDepthCount END"), std::string::npos) << lines.back();
}

TEST_F(QmxmgrTest, TraceFollowPrintsNewLinesOnce) {
    std::unique_ptr<QMX_ADAPTERNUMBER> info = std::make_unique<QMX_ADAPTERNUMBER>();
    ASSERT_EQ(QMX_GetAdapterNumber(info.get(), 1), 0);  // something to start with
    pid_t pid = start({"trace", "--follow"}, "follow");
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    ASSERT_EQ(QMX_GetAdapterNumber(info.get(), 3), 1);  // writes START, the refusal, ABEND
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    kill(pid, SIGTERM);
    Result r = finish(pid, "follow");
    EXPECT_EQ(r.status, 128 + SIGTERM);
    int starts = 0, refusals = 0;
    for (const std::string &l : splitLines(r.out)) {
        starts += l.find("QMX_GetAdapterNumber START") != std::string::npos;
        refusals += l.find("mode is invalid number") != std::string::npos;
    }
    EXPECT_EQ(starts, 2) << r.out;
    EXPECT_EQ(refusals, 1) << r.out;
}

// ------------------------------------------------------------- HBA BIOS
TEST_F(QmxmgrTest, BiosSwitchRunsTheBiosToolAndReportsItsFailure) {
    Result r = run({"-b", "qmxldd1", "bi", "disable"});
    ASSERT_EQ(r.status, 0) << r.err;
    bool seen = false;
    for (const std::string &l : toolLog("qmxbios"))
        seen |= l.find("-x -d qmxldd1 -p bios=Disable") != std::string::npos;
    EXPECT_TRUE(seen);
    EXPECT_EQ(runJson({"-b", "qmxldd1", "bi", "--json"})["hba_bios"], "disabled");
    scriptTool("qmxbios", 3, -1);
    r = run({"-b", "qmxldd0", "bi", "enable"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("qmxmgr: QMX_SetHBABiosSetting failed: the BIOS tool failed "
                          "(reason code 11)",
                          0),
              0u)
        << r.err;
    EXPECT_EQ(lineCount(r.err), 1);
}

// --------------------------------------------------- binding and priority
TEST_F(QmxmgrTest, BindingAndPriorityCommands) {
    ASSERT_TRUE(writeFile(kConf, "qmxl0-wwpn=0x2100001122334450:qmxl0-tid-1-gt=0:"
                                 "qmxl0-tid-1-attribute=0x01:qmxl1-tid-2-gt=0:"
                                 "qmxl1-tid-2-attribute=0x00:"));
    ASSERT_EQ(run({"priority", "set", "0", "1", "5", "1"}).status, 0);
    ASSERT_EQ(run({"priority", "toggle", "0", "1"}).status, 0);
    qmxsim::json j = runJson({"priority", "list", "--json"});
    ASSERT_EQ(j["paths"].size(), 2u);
    EXPECT_EQ(j["paths"][0]["attribute"], 0);
    EXPECT_EQ(j["paths"][0]["priority"][0], "0400000000000000");
    EXPECT_EQ(j["paths"][1]["attribute_text"], "configured(H)");

    j = runJson({"binding", "show", "--json"});
    EXPECT_EQ(j["adapters"][0]["wwpn"], "0x2100001122334450");
    EXPECT_EQ(j["adapters"][0]["targets"][0]["priority0"], "0x0400000000000000");
    EXPECT_EQ(j["adapters"][1]["targets"][0]["target"], 2);

    ASSERT_EQ(run({"binding", "automap", "off"}).status, 0);
    EXPECT_EQ(runJson({"binding", "automap", "--json"})["automap"], false);
    Result r = run({"binding", "clear"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readFile(kConf), "qmxl0-wwpn=0x2100001122334450:");

    // Refusals: one line naming the call; bad operands are usage errors.
    r = run({"priority", "set", "0", "1", "2048", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qmxmgr: QMX_SetLUPriority failed: invalid argument (reason code 2): "
                     "lun is invalid value\n");
    // A group no target has: the call succeeds, its inner failure is not
    // hidden behind a "released".
    r = run({"priority", "release", "40"});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("QMX_ReleasePathControl succeeded only in part"), std::string::npos) << r.err;
    EXPECT_EQ(run({"binding", "automap", "maybe"}).status, 2);
    EXPECT_EQ(run({"binding", "force", "qmxldd9"}).status, 2);
}

}  // namespace

// ------------------------------------------------- disk record and isolation
namespace {

TEST_F(QmxmgrTest, DiskconfRecordReportsChangesWithExitStatus3) {
    Result first = run({"diskconf", "record", "--json"});
    ASSERT_EQ(first.status, 3) << first.err;
    qmxsim::json j = parse(first.out);
    EXPECT_EQ(j["changed"], true);
    ASSERT_EQ(j["differences"].size(), 4u);  // every adapter is new
    EXPECT_EQ(j["differences"][0]["level"], "adapter");
    EXPECT_EQ(j["differences"][0]["lus"], 6);

    Result same = run({"diskconf", "record"});
    EXPECT_EQ(same.status, 0) << same.err;

    editState([](qmxsim::json &s) {
        portOf(s, 0)["targets"][1]["lu_count"] = 3;
        portOf(s, 1)["targets"] = qmxsim::json::array();
    });
    Result changed = run({"diskconf", "record", "--json"});
    ASSERT_EQ(changed.status, 3) << changed.err;
    j = parse(changed.out);
    ASSERT_EQ(j["differences"].size(), 2u);
    const qmxsim::json &added = j["differences"][0], &removed = j["differences"][1];
    EXPECT_EQ(added["change"], "added");
    EXPECT_EQ(added["level"], "lu");
    EXPECT_EQ(added["pci"], "03:00.0");
    EXPECT_EQ(added["wwpn"], "50:00:00:00:00:00:0b:01");
    EXPECT_EQ(added["lun"], 2);
    EXPECT_EQ(removed["change"], "removed");
    EXPECT_EQ(removed["level"], "target");
    EXPECT_EQ(removed["pci"], "03:00.1");
    EXPECT_EQ(removed["lus"], 4);

    j = runJson({"diskconf", "show", "--json"});
    EXPECT_EQ(j["check_unmatched"], false);
    EXPECT_EQ(j["adapters"][0]["targets"][1]["lus"].size(), 3u);
    ASSERT_EQ(run({"diskconf", "flag", "on"}).status, 0);
    EXPECT_EQ(runJson({"diskconf", "flag", "--json"})["check_unmatched"], true);
}

TEST_F(QmxmgrTest, IsolationCommands) {
    ASSERT_EQ(run({"isolate", "set", "03:00.1", "--mode", "2"}).status, 0);
    qmxsim::json list = runJson({"isolate", "list", "--json"});
    ASSERT_EQ(list["entries"].size(), 2u);
    EXPECT_EQ(list["entries"][0]["pci"], "03:00.1");
    EXPECT_EQ(list["entries"][0]["mode"], 2);
    ASSERT_EQ(run({"isolate", "release", "03:00.1"}).status, 0);
    EXPECT_EQ(runJson({"isolate", "list", "--json"})["entries"].size(), 0u);

    ASSERT_EQ(run({"isolate", "port", "qmxldd2", "on"}).status, 0);
    qmxsim::json t = runJson({"trouble", "qmxldd2", "--json"});
    EXPECT_EQ(t["status"], "isolated");
    EXPECT_EQ(t["timeout_reset"], false);
    qmxsim::json sfp = runJson({"sfp", "show", "03:00.0", "--json"});
    EXPECT_EQ(sfp["part_number"], "SFP-8G-SW-0001");
    EXPECT_EQ(sfp["hardware_hot_swap"], true);
    ASSERT_EQ(run({"isolation", "off"}).status, 0);
    EXPECT_EQ(runJson({"isolation", "--json"})["isolation"], false);

    // The check-stop state refuses the transceiver isolation with one line.
    setPrinfoField(0, "port_status", 8);
    Result refused = run({"isolate", "sfp", "03:00.0", "on"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("QMX_SetSFPIsolate"), std::string::npos) << refused.err;
    EXPECT_EQ(lineCount(refused.err), 1);
    for (const char *bad : {"3:0", "03:00.8", "0x03:00.0", "03:20.0"})
        EXPECT_EQ(run({"sfp", "show", bad}).status, 2) << bad;
}

TEST_F(QmxmgrTest, MultipathCommandsReadBackWhatTheySet) {
    ASSERT_EQ(run({"mp", "env", "set", "interval=90", "failback=1", "--keep"}).status, 0);
    EXPECT_NE(readFile(kConf).find("qmxmp_interval=90:"), std::string::npos);
    qmxsim::json env = runJson({"mp", "env", "--json"});
    EXPECT_EQ(env["interval"], 90);
    EXPECT_EQ(env["failback"], 1);
    ASSERT_EQ(run({"mp", "env", "unset", "interval"}).status, 0);
    EXPECT_EQ(readFile(kConf).find("qmxmp_interval="), std::string::npos);
    EXPECT_EQ(runJson({"mp", "env", "--json"})["interval"], 30);
    // Values the field cannot take are refused, not sent as "off" or cut.
    for (const char *bad : {"round_robin=2", "alter_path=256", "offline_path=2", "interval=0", "interval=1441"}) {
        Result r = run({"mp", "env", "set", bad});
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_EQ(lineCount(r.err), 1) << r.err;
    }

    ASSERT_EQ(run({"mp", "path", "set", "qmxldd2", "50:00:00:00:00:00:0b:02", "1", "1", "4"}).status, 0);
    qmxsim::json paths = runJson({"mp", "paths", "--json"})["paths"];
    ASSERT_EQ(paths.size(), 20u);
    EXPECT_EQ(paths[19]["device"], "qmxldd2");
    EXPECT_EQ(paths[19]["status"], 4);

    ASSERT_EQ(run({"mp", "limits", "set", "alter_path", "3", "--port", "1"}).status, 0);
    EXPECT_EQ(runJson({"mp", "limits", "1", "--json"})["alter_path"], 3);
    Result r = run({"mp", "limits", "set", "lu_write_retries", "127"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("QMX_SetKernelPanicCount"), std::string::npos) << r.err;
    EXPECT_EQ(run({"mp", "limits", "set", "no_such", "1"}).status, 2);
    EXPECT_EQ(runJson({"mp", "luids", "--json"})["luids"].size(), 6u);
    EXPECT_EQ(runJson({"mp", "targets", "--json"})["targets"].size(), 6u);
}

// ------------------------------------------------------------------- lock
// Who holds lock 1, and which holders a release without --force refuses.
TEST_F(QmxmgrTest, LockStatusNamesTheHolderAndReleaseSparesALiveOne) {
    enum Holder { None, Live, Killed, Bare };
    struct Case {
        const char *why;
        Holder holder;
        bool held, alive;
        int release;  // exit status of "lock release" without --force
    } cases[] = {
        {"free", None, false, false, 0},
        {"live holder", Live, true, true, 1},
        {"killed holder", Killed, true, false, 0},
        {"no holder record", Bare, true, false, 1},
    };
    auto hold = [](Holder h) {
        QMX_ExeclusiveUnlock(1);
        if (h == Live || h == Bare) {
            ASSERT_EQ(QMX_ExeclusiveLock(1), 0);
        }
        if (h == Bare) {  // an older process: "LOCK" alone
            int id = shmget(ftok(kConf, 1), 128, 0);
            char *seg = static_cast<char *>(shmat(id, nullptr, 0));
            std::memset(seg + 5, 0, 123);
            shmdt(seg);
        }
        if (h == Killed) {
            pid_t child = fork();
            if (child == 0) {
                if (QMX_ExeclusiveLock(1) == 0) raise(SIGKILL);
                _exit(1);
            }
            waitpid(child, nullptr, 0);
        }
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.why);
        hold(c.holder);
        qmxsim::json j = runJson({"lock", "status", "--json"});
        EXPECT_EQ(j["held"], c.held);
        EXPECT_EQ(j["holder"].is_null(), c.holder == None || c.holder == Bare);
        if (c.holder == Live) {
            EXPECT_EQ(j["holder"]["pid"], getpid());
            EXPECT_FALSE(j["holder"]["command"].get<std::string>().empty());
            EXPECT_EQ(j["holder"]["alive"], true);
        }
        if (c.holder == Killed) {
            EXPECT_EQ(j["holder"]["alive"], false);
        }
        EXPECT_EQ(run({"lock", "release"}).status, c.release);
        EXPECT_EQ(QMX_ExeclusiveLockCheck(1), c.release == 0 ? 1 : 0);
        ASSERT_EQ(run({"lock", "release", "--force"}).status, 0);
        EXPECT_EQ(QMX_ExeclusiveLockCheck(1), 1);
    }
}

}  // namespace

