# -*- coding: utf-8 -*-
"""Options every module of the collection takes: where the camera is."""
from __future__ import absolute_import, division, print_function
__metaclass__ = type


class ModuleDocFragment(object):
    DOCUMENTATION = r'''
options:
  host:
    description: Address or name of the camera. Defaults to C(ansible_host), else the inventory host name.
    type: str
  port:
    description: UDP port of the parameter server.
    type: int
    default: 6800
  timeout:
    description: Milliseconds to wait for each reply (each request is sent at most twice).
    type: int
    default: 2000
'''
