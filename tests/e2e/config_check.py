#!/usr/bin/python3
"""qmxmgr export, diff and apply inside the virtual host: the documents
against their JSON Schema, YAML read back by PyYAML, apply and re-apply,
drift statuses, and refused documents that change nothing.

usage: config_check.py QMXSIM QMXMGR SCHEMA EXAMPLE
"""
import copy
import glob
import json
import os
import re
import subprocess
import sys
import tempfile

import jsonschema
import yaml

qmxsim, qmxmgr, schema_path, example_path = sys.argv[1:5]
failures = []
with open(schema_path) as f:
    schema = json.load(f)
validator = jsonschema.Draft7Validator(schema)
settings_schema = schema["properties"]["ports"]["additionalProperties"]["properties"]["settings"]["properties"]
host_schema = schema["properties"]["host"]["properties"]["settings"]["properties"]


def expect(cond, what):
    if not cond:
        failures.append(what)


def valid(doc, what):
    errs = [e.message for e in validator.iter_errors(doc)]
    expect(not errs, f"{what}: not valid against the schema: {errs[:3]}")


def run(state, *args, doc=None):
    """qmxmgr ARGS in the host kept in STATE; DOC (text) is given as FILE."""
    argv = list(args)
    if doc is not None:
        path = os.path.join(state, "..", "doc.yaml")
        with open(path, "w") as f:
            f.write(doc)
        argv.append(path)
    return subprocess.run([qmxsim, "--state", state, "--", qmxmgr, *argv],
                          capture_output=True, text=True, timeout=120)


def stored(state):
    """The files that hold the host's stored configuration."""
    out = {}
    for p in sorted(glob.glob(state + "/saved/etc/**", recursive=True) + glob.glob(state + "/bios/*.json")):
        if os.path.isfile(p):
            with open(p, "rb") as f:
                out[p] = f.read()
    return out


def reload(state):
    """The driver loaded again: each port takes the number /etc/qmxldd.conf
    binds to its WWN first; its boot firmware's settings go with it."""
    with open(state + "/saved/etc/qmxldd.conf") as f:
        items = [i.partition("=") for i in f.read().split("\n")[0].split(":")]
    bound = {}
    for k, _, v in items:
        if re.fullmatch(r"qmxl\d+-wwpn", k):
            bound.setdefault(int(v, 16), int(k[4:-5]))
    with open(state + "/state.json") as f:
        st = json.load(f)
    moved = []
    for p in st["ports"]:
        new = bound.get(int(p["wwpn"], 16), p["devno"])
        moved.append((p["devno"], new))
        p["devno"] = p["instance"] = new
    with open(state + "/state.json", "w") as f:
        json.dump(st, f)
    for old, new in moved:  # by way of a spare name: numbers may be swapped
        if os.path.exists(f"{state}/bios/qmxldd{old}.json"):
            os.rename(f"{state}/bios/qmxldd{old}.json", f"{state}/bios/{new}.moving")
    for old, new in moved:
        if os.path.exists(f"{state}/bios/{new}.moving"):
            os.rename(f"{state}/bios/{new}.moving", f"{state}/bios/qmxldd{new}.json")


def bounds(prop):
    """(lowest, highest, a refused value) of a setting's schema."""
    alts = prop.get("anyOf", [prop])
    if "examples" in prop:  # a table: none, its example, the example one target past the range
        hi = prop["examples"][0]
        return [], hi, [dict(hi[0], target=256)]
    for a in alts:
        if a.get("type") == "integer":
            return a["minimum"], a["maximum"], a["maximum"] + 1
        if "enum" in a:
            e = a["enum"]
            return (min(e), max(e), max(e) + 1) if isinstance(e[0], int) else (e[0], e[-1], "maybe")
    if prop.get("type") == "string":
        return "a", "z" * prop["maxLength"], "a:b"
    return prop["enum"][0], prop["enum"][-1], "maybe"


with tempfile.TemporaryDirectory() as tmp:
    state = os.path.join(tmp, "host")
    os.mkdir(state)

    # export: YAML (default) and JSON are the same document, valid as is.
    y, j = run(state, "export"), run(state, "export", "--json")
    expect(y.returncode == 0 and j.returncode == 0, f"export failed: {y.stderr}{j.stderr}")
    exported = json.loads(j.stdout)
    expect(yaml.safe_load(y.stdout) == exported, "PyYAML reads the YAML export differently from the JSON export")
    valid(exported, "export")
    expect(len(exported["ports"]) > 1 and all(p["settings"] for p in exported["ports"].values()),
           f"export holds no settings: {exported}")
    cur = run(state, "export", "--json", "--with-current")
    valid(json.loads(cur.stdout), "export --with-current")
    with open(example_path) as f:
        example_text = f.read()
    valid(yaml.safe_load(example_text), "example")

    # apply the example: changed; again: no changes; diff statuses.
    before = stored(state)
    steps = [  # (arguments, document, exit status, text in stdout)
        (["diff"], y.stdout, 0, ""),
        (["diff"], example_text, 2, "queue_depth: 32 -> 64"),
        (["diff"], example_text, 2, "binding target 3: none -> wwpn=0x50060e8007c3ab11\n"),
        (["diff"], example_text, 2, "lu_priority target 0: none -> group=1 attribute=configured(H) priority_luns=[0,1,64]\n"),
        (["apply", "--dry-run"], example_text, 0, "none made (dry run)"),
        (["diff"], example_text, 2, "queue_depth: 32 -> 64"),
        (["apply"], example_text, 0, "change(s) made"),
        (["apply"], example_text, 0, "no changes"),
        (["diff"], example_text, 0, ""),
        (["diff"], y.stdout, 2, "queue_depth: 64 -> 32"),
    ]
    for args, doc, status, text in steps:
        r = run(state, *args, doc=doc)
        expect(r.returncode == status and text in r.stdout,
               f"{args}: status {r.returncode} (want {status}), out {r.stdout!r} err {r.stderr!r}")
        if args == ["apply", "--dry-run"]:
            expect(stored(state) == before, "apply --dry-run changed a file")
        if text == "no changes":  # the apply read, but made no writing call
            trace = run(state, "trace").stdout.splitlines()
            last = [l.split() for l in trace if l.split()[2:3] == trace[-1].split()[2:3]]
            calls = {w[3] for w in last if len(w) > 4 and w[4] == "START"}
            writing = ("QMX_Set", "QMX_MakeConfFile")
            expect(any(c.startswith("QMX_Get") for c in calls) and not any(c.startswith(writing) for c in calls),
                   f"unchanged apply: calls {sorted(calls)}")
    changed = json.loads(run(state, "export", "--json").stdout)
    port0 = changed["ports"]["21:00:00:11:22:33:44:50"]["settings"]
    host = changed["host"]["settings"]
    expect(port0.get("queue_depth") == 64 and port0.get("hba_alias") == "rack4-hba0"
           and port0.get("alter_path_limit") == 2 and "reset_timeout" not in port0
           and port0.get("force_isolate") == "port"
           and port0.get("binding") == [{"target": 0, "wwpn": "0x50060e8007c3ab01", "wwnn": "0x50060e8007c3ab00"},
                                        {"target": 3, "wwpn": "0x50060e8007c3ab11"}]
           and port0.get("lu_priority") == [{"target": 0, "group": 1, "attribute": "configured(H)", "priority_luns": [0, 1, 64]}]
           and (host["binding_auto_mapping"], host["mp_interval"], host["mp_failback"], host["lu_write_retries"])
           == ("off", 60, "on", 10), f"export after apply: {changed}")

    # The export applied to a fresh host leaves the same stored files; a
    # table entry the document gives replaces that target alone.
    fresh = os.path.join(tmp, "fresh")
    os.mkdir(fresh)
    r = run(fresh, "apply", doc=json.dumps(changed))
    relative = lambda st, root: {p[len(root):]: v for p, v in st.items()}
    expect(r.returncode == 0 and relative(stored(fresh), fresh) == relative(stored(state), state),
           f"export applied to a fresh host: {r.stdout}{r.stderr}")
    for entry, status, out, err in [  # one entry against the stored table
            ({"target": 3, "wwpn": "0x50060e8007c3ab12"}, 2,
             " binding target 3: wwpn=0x50060e8007c3ab11 -> wwpn=0x50060e8007c3ab12\n", ""),
            ({"target": 4, "wwpn": "0x50060e8007c3ab11"}, 1, "",
             "binding: target 3 and 4 would both have wwpn 0x50060e8007c3ab11")]:
        one = {"version": 1, "ports": {"21:00:00:11:22:33:44:50": {"settings": {"binding": [entry]}}}}
        r = run(fresh, "diff", doc=json.dumps(one))
        expect(r.returncode == status and r.stdout.endswith(out) and r.stdout.count("\n") == (status == 2)
               and err in r.stderr, f"diff of one binding entry {entry}: {r.stdout}{r.stderr}")
    pruned = copy.deepcopy(exported)
    pruned["host"]["settings"]["isolation_function"] = "off"
    r = run(state, "apply", "--prune", doc=json.dumps(pruned))
    expect(r.returncode == 0 and "link_down_time: 15 -> unset" in r.stdout and "force_isolate: port -> unset" in r.stdout
           and "binding target 0: wwpn=0x50060e8007c3ab01 wwnn=0x50060e8007c3ab00 -> none" in r.stdout
           and "lu_priority target 0: group=1 attribute=configured(H) priority_luns=[0,1,64] -> none" in r.stdout
           and "isolation_function: on -> off" in r.stdout, f"apply --prune: {r.stdout}{r.stderr}")
    conf = [v for p, v in stored(state).items() if p.endswith("/qmxldd.conf")]
    expect(conf and b"-tid-" not in conf[0], f"target items left after --prune: {conf}")

    # Every setting of the host and of a port at its schema bounds is taken;
    # past them each is refused, one line per setting, and nothing changes.
    wwn = "21:00:00:11:22:33:44:51"
    docs = {k: {"version": 1, "host": {"settings": {n: bounds(p)[i] for n, p in host_schema.items()}},
                "ports": {wwn: {"settings": {n: bounds(p)[i] for n, p in settings_schema.items()
                                             if k == "bad" or n != "adapter_number"}}}}  # numbers: below
            for i, k in enumerate(["lo", "hi", "bad"])}
    for k in ["lo", "hi"]:
        valid(docs[k], f"bounds {k}")
        r = run(state, "diff", doc=json.dumps(docs[k]))
        expect(r.returncode == 2, f"bounds {k}: status {r.returncode}: {r.stderr}")
    bad = docs["bad"]
    expect(not validator.is_valid(bad), "the schema takes values past the bounds")
    refused = [  # (document, text every error line must show, error lines)
        (json.dumps(bad), "", len(settings_schema) + len(host_schema)),
        ("version: 1\nports:\n  \"21:00:00:11:22:33:44:50\":\n    settings: {queue_depth: [\n", "line", 1),
        ("version: 2\n", "line 1: version 2", 1),
        ("version: 1\nports:\n  \"20:00:00:00:00:00:00:01\":\n    settings: {}\n", "line 3: no port", 1),
        ("version: 1\nports:\n  \"%s\":\n    settings:\n      queue_depth: 64\n      mystery: 1\n" % wwn,
         "line 6: port %s: unknown setting 'mystery'" % wwn, 1),
        ('{"version": 1, "ports": {"%s": {"settings": {"interrupt_type": 1}},\n'
         '"21:00:00:11:22:33:44:50": {"settings": {"interrupt_type": 2}}}}' % wwn,
         "line 2: interrupt_type is one value for every port of an adapter", 1),
        ('version: 1\nports:\n  "%s": {settings: {force_isolate: "adapter"}}\n'
         '  "21:00:00:11:22:33:44:50": {settings: {force_isolate: "port"}}\n' % wwn,
         "line 4: force_isolate \"adapter\" is one value for every port of an adapter", 1),
        ('version: 1\nports:\n  "%s":\n    settings:\n      binding:\n        - {target: 1, wwpn: "0x1"}\n'
         '        - {target: 1, wwpn: "0x2"}\n        - {target: 2, wwpn: "0x1"}\n        - {target: 4, wwpn: "0xZ"}\n'
         '        - {target: 5}\n' % wwn, "port %s binding: " % wwn, 4),
        ('version: 1\nports:\n  "%s":\n    settings:\n      lu_priority:\n        - {target: 0, priority_luns: [256]}\n'
         '        - {target: 0, group: 1}\n        - {target: 0, group: 1}\n        - {target: 1, attribute: "hot"}\n' % wwn,
         "port %s lu_priority: " % wwn, 3),
        ('version: 1\nports:\n  "%s":\n    settings:\n      binding: [{target: 8, wwpn: "0x8"}]\n'
         '      lu_priority: [{target: 8, group: 1}, {target: 9, group: 1}]\n' % wwn,
         "line 6: port %s lu_priority target 9: not in the port's binding" % wwn, 1),
    ]
    before = stored(state)
    for doc, text, count in refused:
        for verb in ["apply", "diff"]:
            r = run(state, verb, doc=doc)
            lines = [l for l in r.stderr.splitlines() if "line " in l]
            expect(r.returncode == 1 and len(lines) == count and all(text in l for l in lines),
                   f"{verb} {doc[:60]!r}: status {r.returncode}, want {count} lines with {text!r}: {r.stderr}")
    expect(stored(state) == before, "a refused document changed a file")

    # A call refused half-way (a limit above the driver's LU path maximum):
    # the change before it stays made, the rest is reported and left.
    partial = 'version: 1\nports:\n  "%s":\n    settings: {queue_depth: 10, alter_path_limit: 65536, hba_bios: "on"}\n' % wwn
    r = run(state, "apply", doc=partial)
    expect(r.returncode == 1 and "changed port %s queue_depth" % wwn in r.stdout
           and "1 change(s) made, 2 not made" in r.stderr and "reason code 2" in r.stderr,
           f"apply with a failing call: {r.returncode} {r.stdout} {r.stderr}")
    r = run(state, "diff", doc=partial)
    expect(r.returncode == 2 and "queue_depth" not in r.stdout and "alter_path_limit" in r.stdout
           and "hba_bios" in r.stdout, f"diff after a failing call: {r.stdout}")

# Adapter numbers, on a fresh host: qmx<N>_ keys are filed under the number
# the driver runs a port under now, and a new number drops what is kept
# under the old and the new one.  After every step the stored files hold what
# the steps before left there, and after the reloads each setting is back
# with its own port.
P0, P1, P2, P3 = ("21:00:00:11:22:33:44:" + x for x in ("50", "51", "60", "61"))
swap = {P2: {"adapter_number": 3}, P3: {"adapter_number": 2}}
with tempfile.TemporaryDirectory() as tmp:
    state = os.path.join(tmp, "host")
    os.mkdir(state)
    run(state, "export")  # the host's files, as the first run leaves them
    steps = [  # (arguments or "reload", ports' settings, exit status, text in the output)
        (["apply"], {P2: {"adapter_number": 0}}, 1, "held by port " + P0),
        (["apply"], {P0: {"queue_depth": 8}, P2: {"adapter_number": 0}}, 1, "held by port " + P0),
        (["apply"], {P3: {"adapter_number": 7, "queue_depth": 16}}, 1, "numbered 7 from the next driver load"),
        (["apply"], {P1: {"adapter_number": 9}}, 1, "qmx1_link_speed=8"),
        (["diff"], swap, 2, "port %s adapter_number: 2 -> 3" % P2),
        (["apply"], swap, 0, "2 change(s) made"),
        (["apply"], swap, 0, "no changes"),
        (["apply"], {P2: {"queue_depth": 16}}, 1, "numbered 3 from the next driver load"),
        (["apply", "--prune"], {P1: {"adapter_number": 9}}, 0, "drops qmx1_link_speed=8"),
        ("reload", None, 0, ""),
        (["apply"], {P2: {"queue_depth": 16}, P1: {"queue_depth": 24}}, 0, "2 change(s) made"),
    ]
    for args, ports, status, text in steps:
        before = stored(state)
        if args == "reload":
            reload(state)
            continue
        r = run(state, *args, doc=json.dumps({"version": 1, "ports": {w: {"settings": s} for w, s in ports.items()}},
                                            indent=1))
        out = r.stdout + r.stderr
        expect(r.returncode == status and text in out and (status != 1 or re.search(r": line \d+: port ", out)),
               f"numbers {args} {ports}: status {r.returncode} (want {status}, {text!r}): {out}")
        if status != 0 or args == ["diff"]:
            expect(stored(state) == before, f"numbers {args} {ports}: refused or diff, but a file changed")
    got = json.loads(run(state, "export", "--json").stdout)["ports"]
    want = {P0: ("qmxldd0", {"adapter_number": 0, "queue_depth": 32}),
            P1: ("qmxldd9", {"adapter_number": 9, "queue_depth": 24}),
            P2: ("qmxldd3", {"adapter_number": 3, "queue_depth": 16}),
            P3: ("qmxldd2", {"adapter_number": 2, "queue_depth": None})}
    for w, (dev, settings) in want.items():
        port = got.get(w, {"device": None, "settings": {}})
        have = {k: port["settings"].get(k) for k in settings}
        expect(port["device"] == dev and have == settings,
               f"numbers: after the reloads port {w} is {port['device']} with {have}, want {dev} with {settings}")

for f in failures:
    print("FAIL:", f)
print(f"{0 if failures else 1} passed, {len(failures)} failed")
sys.exit(1 if failures else 0)
