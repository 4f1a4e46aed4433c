#!/usr/bin/python3
"""Ansible module: the stored qmxldd port configuration as facts."""

import json

from ansible.module_utils.basic import AnsibleModule

DOCUMENTATION = r"""
---
module: qmxldd_facts
short_description: The stored configuration of the qmxldd ports as facts
description:
  - Runs C(qmxmgr export --json) and returns the document as the fact C(qmxldd_config),
    in the form M(qmx.qmxldd.qmxldd_config) takes.
version_added: "1.0.0"
options:
  ports:
    description: Ports to export (WWN, device name or adapter number); every port when empty.
    type: list
    elements: str
    default: []
  with_current:
    description: Add each port's current driver values under C(current) (never applied).
    type: bool
    default: false
  qmxmgr:
    description: The qmxmgr program to run.
    type: path
    default: qmxmgr
requirements:
  - qmxmgr (package qmxmgr) on the managed host
author:
  - qmxvlib developers
"""

EXAMPLES = r"""
- name: Read the stored configuration
  qmx.qmxldd.qmxldd_facts:

- name: Show the queue depth of one port
  ansible.builtin.debug:
    msg: "{{ qmxldd_config.ports['21:00:00:11:22:33:44:50'].settings.queue_depth }}"
"""

RETURN = r"""
ansible_facts:
  description: Facts added.
  returned: always
  type: dict
  contains:
    qmxldd_config:
      description: The document of C(qmxmgr export --json).
      type: dict
      sample: {"version": 1, "ports": {"21:00:00:11:22:33:44:50": {"device": "qmxldd0",
               "adapter_number": 0, "settings": {"queue_depth": 32}}}}
"""


def main():
    module = AnsibleModule(
        argument_spec=dict(
            ports=dict(type="list", elements="str", default=[]),
            with_current=dict(type="bool", default=False),
            qmxmgr=dict(type="path", default="qmxmgr"),
        ),
        supports_check_mode=True,
    )
    p = module.params
    argv = [p["qmxmgr"], "export", "--json"] + (["--with-current"] if p["with_current"] else [])
    rc, out, err = module.run_command(argv + p["ports"])
    if rc != 0:
        module.fail_json(msg=err.strip() or "qmxmgr export failed", rc=rc)
    module.exit_json(changed=False, ansible_facts=dict(qmxldd_config=json.loads(out)))


if __name__ == "__main__":
    main()
