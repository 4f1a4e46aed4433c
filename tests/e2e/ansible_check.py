#!/usr/bin/python3
"""The qmx.qmxldd Ansible collection run by ansible-playbook against
localhost inside the virtual host: check mode, first and second run, a bad
value, the facts; and ansible-doc of its modules.

usage: ansible_check.py QMXSIM QMXMGR COLLECTION_DIR
"""
import glob
import json
import os
import subprocess
import sys
import tempfile

qmxsim, qmxmgr, collection = (os.path.abspath(a) for a in sys.argv[1:4])
failures = []
WWN = "21:00:00:11:22:33:44:50"


def expect(cond, what):
    if not cond:
        failures.append(what)


def stored(state):
    out = {}
    for p in sorted(glob.glob(state + "/saved/etc/**", recursive=True) + glob.glob(state + "/bios/*.json")):
        if os.path.isfile(p):
            with open(p, "rb") as f:
                out[p] = f.read()
    return out


def task(settings):
    doc = {"version": 1, "ports": {WWN: {"settings": settings}}}
    return {"qmx.qmxldd.qmxldd_config": {"qmxmgr": qmxmgr, "config": doc}}


with tempfile.TemporaryDirectory() as tmp:
    os.makedirs(os.path.join(tmp, "ansible_collections", "qmx"))
    os.symlink(collection, os.path.join(tmp, "ansible_collections", "qmx", "qmxldd"))
    env = dict(os.environ, HOME=tmp, ANSIBLE_COLLECTIONS_PATH=tmp, ANSIBLE_LOCAL_TEMP=tmp + "/local",
               ANSIBLE_REMOTE_TEMP=tmp + "/remote", ANSIBLE_STDOUT_CALLBACK="json",
               ANSIBLE_NOCOLOR="1")
    env.pop("ANSIBLE_CONFIG", None)  # run in tmp: no ansible.cfg of the checkout applies
    for module in ["qmxldd_config", "qmxldd_facts"]:
        r = subprocess.run(["ansible-doc", "qmx.qmxldd." + module], env=env, cwd=tmp,
                           capture_output=True, text=True, timeout=120)
        expect(r.returncode == 0 and "OPTIONS" in r.stdout and "EXAMPLES" in r.stdout
               and "RETURN VALUES" in r.stdout, f"ansible-doc {module}: {r.stderr}")

    state = os.path.join(tmp, "host")
    os.mkdir(state)
    subprocess.run([qmxsim, "--state", state, "--", qmxmgr, "ports"], capture_output=True, timeout=120)
    good = task({"queue_depth": 64, "hba_alias": "rack4", "abort_task_restrain": "on"})
    bad = task({"queue_depth": 999, "hba_alias": "other"})
    facts = {"qmx.qmxldd.qmxldd_facts": {"qmxmgr": qmxmgr}}
    steps = [  # (name, task, extra arguments, changed, failed, text in the result, files kept)
        ("check mode", good, ["--check", "--diff"], True, False, "queue_depth: 32 -> 64", True),
        ("first run", good, ["--diff"], True, False, "queue_depth: 32 -> 64", False),
        ("second run", good, [], False, False, "", True),
        ("bad value", bad, [], False, True, "queue_depth: must be 1 to 256", True),
        ("facts", facts, [], False, False, '"queue_depth": 64', True),
    ]
    for name, t, extra, changed, failed, text, kept in steps:
        play = [{"hosts": "all", "gather_facts": False, "tasks": [t]}]
        path = os.path.join(tmp, "play.json")  # JSON is YAML
        with open(path, "w") as f:
            json.dump(play, f)
        before = stored(state)
        r = subprocess.run([qmxsim, "--state", state, "--", "ansible-playbook", "-i", "localhost,",
                            "-c", "local", "-e", "ansible_python_interpreter=/usr/bin/python3",
                            *extra, path], env=env, cwd=tmp, capture_output=True, text=True, timeout=300)
        try:
            res = json.loads(r.stdout)["plays"][0]["tasks"][0]["hosts"]["localhost"]
        except (ValueError, KeyError, IndexError):
            expect(False, f"{name}: no task result: {r.stdout[-2000:]} {r.stderr[-2000:]}")
            continue
        expect(bool(res.get("changed")) == changed and bool(res.get("failed")) == failed
               and (r.returncode != 0) == failed and text in json.dumps(res),
               f"{name}: status {r.returncode}, want changed={changed} failed={failed} "
               f"and {text!r}: {json.dumps(res)[:2000]}")
        expect((stored(state) == before) == kept, f"{name}: files {'changed' if kept else 'kept'}")

for f in failures:
    print("FAIL:", f)
print(f"{0 if failures else 1} passed, {len(failures)} failed")
sys.exit(1 if failures else 0)
