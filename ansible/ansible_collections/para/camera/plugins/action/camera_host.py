# -*- coding: utf-8 -*-
"""The modules talk to the camera from the controller; the camera's address
defaults to the host's ansible_host, else its inventory name, which a module
cannot see by itself."""
from __future__ import absolute_import, division, print_function
__metaclass__ = type

from ansible.plugins.action import ActionBase


class CameraHostAction(ActionBase):
    def run(self, tmp=None, task_vars=None):
        task_vars = task_vars or {}
        result = super(CameraHostAction, self).run(tmp, task_vars)
        args = dict(self._task.args)
        if not args.get('host'):
            args['host'] = task_vars.get('ansible_host') or task_vars.get('inventory_hostname')
        result.update(self._execute_module(module_name=self._task.action, module_args=args, task_vars=task_vars))
        return result
