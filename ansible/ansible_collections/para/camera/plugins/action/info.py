# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function
__metaclass__ = type

from ansible_collections.para.camera.plugins.action.camera_host import CameraHostAction as ActionModule  # noqa: F401
