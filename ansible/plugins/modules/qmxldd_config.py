#!/usr/bin/python3
"""Ansible module: make the stored qmxldd port configuration equal to a document."""

import json
import os
import re
import tempfile

from ansible.module_utils.basic import AnsibleModule

DOCUMENTATION = r"""
---
module: qmxldd_config
short_description: Declarative configuration of qmxldd Fibre Channel HBA ports
description:
  - Makes the stored settings of the host's qmxldd ports equal to a configuration
    document (the one C(qmxmgr export) writes), through C(qmxmgr diff) and C(qmxmgr apply).
  - Only the settings that differ are written; a host that already matches is not touched
    and the task reports no change.
  - Settings the document omits are left alone unless I(prune) is true.
  - The whole document is checked before any change; a refused document or a failed library
    call fails the task with qmxmgr's message, which names the call and the reason code.
  - The JSON Schema of the document is /usr/share/qmxmgr/qmxmgr-config.schema.json.
version_added: "1.0.0"
options:
  config:
    description:
      - The document inline, as in the first example.
      - Exactly one of I(config) and I(src) is given.
    type: dict
  src:
    description: Path on the managed host of a document file (YAML or JSON).
    type: path
  prune:
    description: Also remove the stored settings of the listed ports that the document omits.
    type: bool
    default: false
  qmxmgr:
    description: The qmxmgr program to run.
    type: path
    default: qmxmgr
notes:
  - Check mode runs C(qmxmgr diff) only; diff mode shows one line per changed setting.
  - The stored settings take effect when the driver is next loaded or the configuration is
    reflected (C(qmxmgr reflect)).
requirements:
  - qmxmgr (package qmxmgr) on the managed host
author:
  - qmxvlib developers
"""

EXAMPLES = r"""
- name: Queue depth and aliases of the fabric A port
  qmx.qmxldd.qmxldd_config:
    config:
      version: 1
      ports:
        "21:00:00:11:22:33:44:50":
          settings:
            queue_depth: 64
            hba_alias: "rack4-hba0"
            abort_task_restrain: "on"

- name: A fleet-wide document, with settings it omits removed
  qmx.qmxldd.qmxldd_config:
    src: /etc/qmxmgr/fleet.yaml
    prune: true
"""

RETURN = r"""
changes:
  description: One line per setting that differed, C(port WWN SETTING OLD -> NEW).
  returned: always
  type: list
  elements: str
  sample: ["port 21:00:00:11:22:33:44:50 queue_depth: 32 -> 64"]
reason_code:
  description: The library's reason code of a failed call, when qmxmgr reported one.
  returned: failure
  type: int
  sample: 2
stdout:
  description: What qmxmgr printed.
  returned: always
  type: str
"""


def main():
    module = AnsibleModule(
        argument_spec=dict(
            config=dict(type="dict"),
            src=dict(type="path"),
            prune=dict(type="bool", default=False),
            qmxmgr=dict(type="path", default="qmxmgr"),
        ),
        mutually_exclusive=[("config", "src")],
        required_one_of=[("config", "src")],
        supports_check_mode=True,
    )
    p = module.params
    tmp = None
    path = p["src"]
    if p["config"] is not None:
        fd, tmp = tempfile.mkstemp(prefix="qmxldd-config-", suffix=".json")
        with os.fdopen(fd, "w") as f:
            json.dump(p["config"], f)
        path = tmp
    try:
        run(module, path)
    finally:
        if tmp:
            os.unlink(tmp)


def fail(module, verb, rc, out, err, changes):
    msg = (err.strip() or out.strip() or "qmxmgr %s failed" % verb)
    code = re.search(r"reason code (\d+)", err)
    extra = {"reason_code": int(code.group(1))} if code else {}
    module.fail_json(msg=msg, rc=rc, stdout=out, changes=changes, **extra)


def run(module, path):
    p = module.params
    tail = [path] + (["--prune"] if p["prune"] else [])
    rc, out, err = module.run_command([p["qmxmgr"], "diff"] + tail)
    if rc not in (0, 2):
        fail(module, "diff", rc, out, err, [])
    changes = [line for line in out.splitlines() if line.startswith("port ")]
    result = dict(changed=bool(changes), changes=changes, stdout=out)
    if module._diff and changes:
        split = [re.match(r"(.*?): (.*) -> (.*)$", c) for c in changes]
        result["diff"] = dict(
            before="".join("%s: %s\n" % (m.group(1), m.group(2)) for m in split if m),
            after="".join("%s: %s\n" % (m.group(1), m.group(3)) for m in split if m),
            before_header="stored settings", after_header="document")
    if changes and not module.check_mode:
        rc, out, err = module.run_command([p["qmxmgr"], "apply"] + tail)
        made = [line[len("changed "):] for line in out.splitlines() if line.startswith("changed ")]
        if rc != 0:
            fail(module, "apply", rc, out, err, made)
        result.update(changes=made or changes, stdout=out)
    module.exit_json(**result)


if __name__ == "__main__":
    main()
