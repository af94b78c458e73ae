# -*- coding: utf-8 -*-
"""Client of the camera's parameter server: one JSON request per UDP datagram
to port 6800, one JSON reply per datagram. Every request carries a fresh
msg_id; the server echoes it, so a late reply to an earlier request (or to an
earlier attempt) is told apart and skipped."""

from __future__ import absolute_import, division, print_function
__metaclass__ = type

import json
import random
import socket
import time

# The server drops a datagram that fills its 4096-byte receive buffer.
MAX_REQUEST = 4095
MAX_REPLY = 65535


class ParaError(Exception):
    pass


def camera_options():
    """The options every module takes: where the camera is (documented in doc_fragments/camera.py)."""
    return dict(host=dict(type='str'), port=dict(type='int', default=6800), timeout=dict(type='int', default=2000))


class ParaClient(object):
    def __init__(self, host, port=6800, timeout_ms=2000, attempts=2):
        self.addr = (host, int(port))
        self.timeout = max(int(timeout_ms), 1) / 1000.0
        self.attempts = max(int(attempts), 1)
        self.next_id = random.randint(1, 1 << 30)
        family = socket.AF_INET6 if ':' in host else socket.AF_INET
        self.sock = socket.socket(family, socket.SOCK_DGRAM)

    def close(self):
        self.sock.close()

    def request(self, msg_type, body=None, **fields):
        """The reply to one request, without its msg_id. Raises ParaError
        when no reply comes within the time-out on any attempt."""
        self.next_id += 1
        msg_id = self.next_id
        req = {"msg_type": msg_type, "msg_id": msg_id}
        req.update(fields)
        req.update(body or {})
        data = json.dumps(req, separators=(",", ":")).encode("utf-8")
        if len(data) > MAX_REQUEST:
            raise ParaError("request of %d bytes is over the server's limit of %d bytes; "
                            "set fewer members per module" % (len(data), MAX_REQUEST))
        for _ in range(self.attempts):
            try:
                self.sock.sendto(data, self.addr)
            except (OSError, socket.error) as e:
                raise ParaError("cannot send to %s:%d: %s" % (self.addr[0], self.addr[1], e))
            reply = self._wait(msg_id)
            if reply is not None:
                return reply
        raise ParaError("no reply from %s:%d within %d ms (%d attempts)"
                        % (self.addr[0], self.addr[1], self.timeout * 1000, self.attempts))

    def _wait(self, msg_id):
        deadline = time.monotonic() + self.timeout
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                return None
            self.sock.settimeout(left)
            try:
                data, _ = self.sock.recvfrom(MAX_REPLY)
            except socket.timeout:
                return None
            except (OSError, socket.error):
                return None  # e.g. ICMP port unreachable: the next attempt may find it
            try:
                reply = json.loads(data.decode("utf-8"))
            except ValueError:
                continue
            if isinstance(reply, dict) and reply.pop("msg_id", None) == msg_id:
                return reply

    def get(self, module, members=("all",)):
        """The module's members as the camera holds them; None: no such module."""
        reply = self.request("get", {module: list(members)})
        values = reply.get(module)
        return values if isinstance(values, dict) else None

    def set(self, module, values):
        self.request("set", {module: values})

    def describe(self, module=None):
        """The describe command of paramd: the module list, or one module's
        members. None where the host has no such command."""
        fields = {"msg_name": "describe"}
        if module:
            fields["module"] = module
        try:
            reply = self.request("getInfo", **fields)
        except ParaError:
            return None
        if module:
            return reply if reply.get("module") == module else None
        return reply.get("modules")


def same(device_value, wanted):
    """Whether the camera's value is the one wanted: compared as text, since
    .conf modules hold text and YAML may give 8081 for "8081"."""
    return text(device_value) == text(wanted)


def text(v):
    if isinstance(v, bool):
        return "1" if v else "0"
    if isinstance(v, float) and v.is_integer():
        return str(int(v))
    return str(v)


def as_device_type(device_value, wanted):
    """The wanted value in the type the camera uses for that member."""
    if isinstance(device_value, str):
        return text(wanted)
    if isinstance(device_value, (int, float)) and not isinstance(wanted, bool):
        try:
            return int(text(wanted))
        except ValueError:
            return wanted  # a name, for a member whose names the camera maps
    return wanted


def accepted(member_desc):
    """What a member accepts, from its describe entry, as text."""
    if not member_desc:
        return "see paramctl describe"
    names = member_desc.get("names")
    if names:
        return "one of " + ", ".join(names)
    if "min" in member_desc and "max" in member_desc:
        return "%s to %s" % (member_desc["min"], member_desc["max"])
    return "a %s" % member_desc.get("kind", "value")
