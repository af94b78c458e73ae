#!/usr/bin/python
# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
---
module: info
short_description: Read every setting of a camera
description:
  - Returns the values of every module of the camera's parameter server (JSON
    over UDP port 6800), as C(paramctl show) prints them.
  - The module list comes from the describe command of paramd; a camera without
    it is asked for the modules named in I(modules).
  - "Runs on the controller: use C(connection: local) or C(delegate_to: localhost)."
version_added: "1.0.0"
author: para developers
extends_documentation_fragment:
  - para.camera.camera
options:
  modules:
    description: Modules to read; by default every module the camera describes.
    type: list
    elements: str
  describe:
    description: Also return each member's kind, range, default and accepted names.
    type: bool
    default: false
'''

EXAMPLES = r'''
- name: Read the camera
  para.camera.info:
  register: cam

- ansible.builtin.debug:
    var: cam.para.video0.gop
'''

RETURN = r'''
para:
  description: Module name to its members' values.
  type: dict
  returned: always
  sample: {"video0": {"gop": 60, "protocol": "H265"}}
describe:
  description: With describe, module name to its describe entry (store, set, members with kind, min, max, def, names).
  type: dict
  returned: when describe is true
'''

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.para.camera.plugins.module_utils.para_client import ParaClient, ParaError, camera_options

# The modules of a camera built on the library, for hosts without describe.
KNOWN = ["isp0", "isp1", "af", "video0", "video1", "video2", "video3", "video4", "video5", "audio", "misc"]


def main():
    module = AnsibleModule(
        argument_spec=dict(
            camera_options(),
            modules=dict(type='list', elements='str'),
            describe=dict(type='bool', default=False),
        ),
        supports_check_mode=True,
    )
    p = module.params
    if not p['host']:
        module.fail_json(msg="no host: give host (the action plugin fills in ansible_host or the inventory name)")
    client = ParaClient(p['host'], p['port'], p['timeout'])
    try:
        listed = client.describe()
        names = p['modules'] or ([m['module'] for m in listed] if listed else KNOWN)
        para, described = {}, {}
        for name in names:
            values = client.get(name)
            if values is None:
                if p['modules']:
                    raise ParaError("no such module %s" % name)
                continue
            para[name] = values
            if p['describe']:
                described[name] = client.describe(name)
    except ParaError as e:
        client.close()
        module.fail_json(msg="%s: %s" % (p['host'], e))
    client.close()
    result = dict(changed=False, para=para)
    if p['describe']:
        result['describe'] = described
    module.exit_json(**result)


if __name__ == '__main__':
    main()
