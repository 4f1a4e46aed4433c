#!/usr/bin/python3
"""`qmxmgr metrics` inside the virtual host, read back with the Prometheus
client library's own parser of the text format.

usage: metrics_check.py QMXSIM QMXMGR DEFAULT_SCENARIO
"""
import copy
import json
import os
import subprocess
import sys
import tempfile

from prometheus_client.parser import text_string_to_metric_families

qmxsim, qmxmgr, default_scenario = sys.argv[1:4]
failures = []


def expect(cond, what):
    if not cond:
        failures.append(what)


def scrape(scenario, tmp, name):
    path = os.path.join(tmp, name + ".json")
    with open(path, "w") as f:
        json.dump(scenario, f)
    r = subprocess.run([qmxsim, "--scenario", path, "--", qmxmgr, "metrics"],
                       capture_output=True, text=True, timeout=120)
    expect(r.returncode == 0, f"{name}: exit status {r.returncode}: {r.stderr}")
    samples = {}
    for fam in text_string_to_metric_families(r.stdout):
        for s in fam.samples:
            key = (s.name, tuple(sorted(s.labels.items())))
            expect(key not in samples, f"{name}: series twice: {key}")
            samples[key] = s.value
    # --json carries the same samples.
    j = subprocess.run([qmxsim, "--scenario", path, "--", qmxmgr, "metrics", "--json"],
                       capture_output=True, text=True, timeout=120)
    js = {(m["name"] + ("_total" if m["type"] == "counter" and not m["name"].endswith("_total") else ""),
           tuple(sorted(x["labels"].items()))): x["value"]
          for m in json.loads(j.stdout)["metrics"] for x in m["samples"]}
    drop = lambda d: {k: v for k, v in d.items() if k[0] != "qmxldd_scrape_duration_seconds"}
    expect(drop(js) == drop(samples), f"{name}: --json differs from the text format")
    return samples, r


def value(samples, name, **labels):
    return samples.get((name, tuple(sorted(labels.items()))))


def wwn(text):
    h = "%016x" % int(text, 16)
    return ":".join(h[i:i + 2] for i in range(0, 16, 2))


with open(default_scenario) as f:
    base = json.load(f)
ports = [(a, p) for a in base["adapters"] for p in a["ports"]]


def port_labels(adapter, port):
    return {"device": "qmxldd%d" % port["devno"], "wwn": wwn(port["wwpn"]),
            "pci": "%02x:%02x.%x" % (adapter["bus"], adapter["dev"], port["func"])}


# A host with an isolated port, trouble counters, LU paths in several states
# and a target whose link is down.
host = copy.deepcopy(base)
ports = [(a, p) for a in host["adapters"] for p in a["ports"]]
a0, p0 = ports[0]
a1, p1 = ports[1]
p1["prinfo"] = {"port_status": 3, "max_data_rate": 800}
p1["isolation"] = {"ld_err_count_l": 4, "ld_err_count_s": 2, "if_err_count": 7,
                   "to_err_count": 1, "rt_err_count": 1, "err_is_func": 1,
                   "err_is_fw_spt": 1, "err_is_hvm_spt": 0}
t0 = p0["targets"][0]
t0["lus"] = [{"lun": 0, "status": 1, "iocount": 4000000000, "ioerror": 2},
             {"lun": 1, "status": 2, "iocount": 5},
             {"lun": 2, "status": 1}]
t0.pop("lu_count", None)
p0["targets"][1]["flags"] = 2  # link down

with tempfile.TemporaryDirectory() as tmp:
    s, _ = scrape(host, tmp, "state")
    for a, p in ports:
        pl = port_labels(a, p)
        isolated = p is p1
        expect(value(s, "qmxldd_port_isolated", **pl) == (1 if isolated else 0), f"isolated {pl}")
        expect(value(s, "qmxldd_port_status", **pl) == (3 if isolated else 1), f"status {pl}")
        expect(value(s, "qmxldd_port_link_speed_bytes_per_second", **pl) ==
               (1e9 if isolated else 0), f"speed {pl}")
    pl = port_labels(a1, p1)
    for name, labels, want in [
            ("qmxldd_port_link_down_errors_total", {"interval": "long"}, 4),
            ("qmxldd_port_link_down_errors_total", {"interval": "short"}, 2),
            ("qmxldd_port_interface_errors_total", {}, 7),
            ("qmxldd_port_timeout_errors_total", {}, 1),
            ("qmxldd_port_timeout_reset", {}, 1),
            ("qmxldd_port_isolation_function_enabled", {}, 1),
            ("qmxldd_port_isolation_firmware_supported", {}, 1),
            ("qmxldd_port_isolation_shared_mode_supported", {}, 0)]:
        expect(value(s, name, **pl, **labels) == want, f"{name}{labels} != {want}")
    expect(value(s, "qmxldd_ports") == len(ports), "port count")
    info = [k for k in s if k[0] == "qmxldd_port_info"]
    expect(len(info) == len(ports), f"port_info series: {info}")
    # Every LU the scenario gives is one path; the scenario's LU paths of
    # target 0 on port 0 carry their own state and counters.
    lus = sum(len(t.get("lus", [])) or t.get("lu_count", 0)
              for _, p in ports for t in p.get("targets", []))
    expect(len([k for k in s if k[0] == "qmxldd_lu_path_status"]) == lus, "one status per LU path")
    path = {"device": "qmxldd0", "target_wwn": wwn(t0["wwpn"]), "group": str(t0["group"])}
    for lun, status, ios, errs in [(0, 1, 4000000000, 2), (1, 2, 5, 0), (2, 1, 0, 0)]:
        expect(value(s, "qmxldd_lu_path_status", lun=str(lun), **path) == status, f"LUN {lun} status")
        expect(value(s, "qmxldd_lu_path_online", lun=str(lun), **path) == (status == 1), f"LUN {lun} online")
        expect(value(s, "qmxldd_lu_path_io_total", lun=str(lun), **path) == ios, f"LUN {lun} I/O")
        expect(value(s, "qmxldd_lu_path_io_errors_total", lun=str(lun), **path) == errs, f"LUN {lun} errors")
    # Logical targets: every (group, tid) with its paths, the downed link
    # of port 0's second target counted as not online.
    want = {}
    for _, p in ports:
        for t in p.get("targets", []):
            key = (str(t["group"]), str(t["tid"]))
            n, down = want.get(key, (0, 0))
            link = t.get("flags", 3) == 3 and p.get("prinfo", {}).get("port_status", 1) != 3
            want[key] = (n + 1, down + (0 if link else 1))
    got = {(dict(k[1])["group"], dict(k[1])["tid"]): v for k, v in s.items()
           if k[0] == "qmxldd_logical_target_paths"}
    expect(got == {k: v[0] for k, v in want.items()}, f"target paths {got} != {want}")
    got = {(dict(k[1])["group"], dict(k[1])["tid"]): v for k, v in s.items()
           if k[0] == "qmxldd_logical_target_paths_not_online"}
    expect(got == {k: v[1] for k, v in want.items()}, f"not online {got}")
    expect(any(v == 1 for v in got.values()), "a downed target path is counted")
    expect(all(v == 0 for k, v in s.items() if k[0] == "qmxldd_scrape_error"), "no scrape error")
    expect(value(s, "qmxldd_isolation_function_enabled") == 1, "driver-wide isolation is on in the default host")

    # Failing calls: the target maps answer no port, the isolation record of
    # port 2 fails.  The rest is still printed.
    broken = copy.deepcopy(base)
    broken["faults"] = [{"request": "IOCTL_QMX_MP_TGTMAP", "errno": 5, "times": -1},
                        {"request": "IOCTL_QMX_HBA_ISOLATION", "port": 2, "errno": 5, "times": -1}]
    s, r = scrape(broken, tmp, "faults")
    expect(value(s, "qmxldd_scrape_error", family="target_paths") == 1, "target paths error")
    expect(value(s, "qmxldd_scrape_error", family="trouble_counters") == 1, "trouble error")
    expect(value(s, "qmxldd_scrape_error", family="ports") == 0, "ports ok")
    expect("QMX_GetTargetPathStatus" in r.stderr and "QMX_GetAdapTroubleCnt for qmxldd2" in r.stderr,
           f"warnings name the calls: {r.stderr}")
    for a, p in ports:
        pl = port_labels(a, p)
        expect(value(s, "qmxldd_port_status", **pl) is not None, f"status kept for {pl}")
        has = value(s, "qmxldd_port_interface_errors_total", **pl) is not None
        expect(has == (p["devno"] != 2), f"trouble counters of {pl}")
    expect(not any(k[0] == "qmxldd_logical_target_paths" for k in s), "no target samples")

for f in failures:
    print("FAIL:", f)
sys.exit(1 if failures else 0)
