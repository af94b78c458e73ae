#!/usr/bin/python
# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
---
module: settings
short_description: Bring camera settings to the given values
description:
  - Reads the members named in I(settings) from the camera's parameter server
    (JSON over UDP port 6800), writes only those whose value differs, and reads
    them back.
  - A member the camera does not take (out of range, an unknown name, a module
    that takes no writes) fails the host; the message names the member and what
    it accepts (from the describe command of paramd, where the camera has it).
  - "Runs on the controller: use C(connection: local) or C(delegate_to: localhost)."
  - Supports check mode (reports what would change, writes nothing) and diff mode.
version_added: "1.0.0"
author: para developers
extends_documentation_fragment:
  - para.camera.camera
options:
  settings:
    description:
      - "Module name to a dictionary of member name to value, for example
        C({video0: {gop: 50, protocol: H264}, netport: {http_port: 8080}})." 
      - Values are compared as text, so C(8080) and C("8080") are the same.
    type: dict
    required: true
'''

EXAMPLES = r'''
- name: Main stream at 25 fps, GOP 50
  para.camera.settings:
    settings:
      video0: {frameRate: 25, gop: 50}
      netport: {http_port: 8080}

- name: Against an address other than the inventory name
  para.camera.settings:
    host: 192.0.2.10
    timeout: 1000
    settings:
      audio: {audioOutVol: 60}
'''

RETURN = r'''
changed:
  description: Whether any member was (or in check mode would be) written.
  type: bool
  returned: always
changes:
  description: One line per member that differed, as C(module.member before -> after).
  type: list
  elements: str
  returned: always
  sample: ["video0.gop 60 -> 50"]
diff:
  description: Before and after of every member that differed, per module (shown with --diff).
  type: dict
  returned: always
values:
  description: The values the camera holds afterwards for every member named in settings.
  type: dict
  returned: success
'''

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.para.camera.plugins.module_utils.para_client import (
    ParaClient, camera_options, ParaError, accepted, as_device_type, same)


def main():
    module = AnsibleModule(
        argument_spec=dict(
            camera_options(),
            settings=dict(type='dict', required=True),
        ),
        supports_check_mode=True,
    )
    p = module.params
    host = p['host']
    if not host:
        module.fail_json(msg="no host: give host (the action plugin fills in ansible_host or the inventory name)")
    client = ParaClient(host, p['port'], p['timeout'])
    before, after, changes, values = {}, {}, [], {}
    result = dict(changed=False, changes=changes, diff=dict(before=before, after=after))

    def fail(msg):
        client.close()
        module.fail_json(msg=msg, **result)

    try:
        # Read everything first: nothing is written while any name is wrong.
        plan, descs = {}, {}
        for mod, wanted in p['settings'].items():
            if not isinstance(wanted, dict) or not wanted:
                fail("%s: give a dictionary of member: value" % mod)
            current = client.get(mod, list(wanted))
            if current is None:
                fail("%s: no such module on %s" % (mod, host))
            unknown = sorted(m for m in wanted if m not in current)
            if unknown:
                fail("%s: no such member %s on %s" % (mod, ", ".join(unknown), host))
            values[mod] = dict(current)
            differ = dict((m, v) for m, v in wanted.items() if not same(current[m], v))
            if differ:
                descs[mod] = client.describe(mod)
                if descs[mod] is not None and descs[mod].get('set') is False:
                    fail("%s takes no writes (%s would change)" % (mod, ", ".join(sorted(differ))))
                plan[mod] = dict((m, as_device_type(current[m], v)) for m, v in differ.items())
                before[mod] = dict((m, current[m]) for m in differ)
                after[mod] = plan[mod]
                changes.extend("%s.%s %s -> %s" % (mod, m, current[m], v) for m, v in plan[mod].items())
        result['changed'] = bool(plan)
        if module.check_mode or not plan:
            client.close()
            module.exit_json(values=values, **result)

        refused, result['changed'] = [], False
        for mod, writes in plan.items():
            client.set(mod, writes)
            now = client.get(mod, list(writes)) or {}
            values[mod].update(now)
            members = dict((d.get('member'), d) for d in (descs[mod] or {}).get('members', []))
            for m, v in writes.items():
                if same(now.get(m), v):
                    result['changed'] = True
                else:
                    refused.append("%s.%s=%s (accepted: %s)" % (mod, m, v, accepted(members.get(m))))
        if refused:
            fail("%s refused %s" % (host, "; ".join(refused)))
    except ParaError as e:
        fail("%s: %s" % (host, e))
    client.close()
    module.exit_json(values=values, **result)


if __name__ == '__main__':
    main()
