# Unit tests of the port-6800 client: request ids, late and lost replies,
# time-outs, the request size limit, and how values are compared and typed.
# python3 -m unittest discover -s tests/unit
import json
import os
import socket
import sys
import threading
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "plugins", "module_utils"))
from para_client import ParaClient, ParaError, as_device_type, same  # noqa: E402


class FakeServer(threading.Thread):
    """Answers each datagram through script(request, count) -> list of reply objects."""

    def __init__(self, script):
        super(FakeServer, self).__init__(daemon=True)
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind(("127.0.0.1", 0))
        self.port = self.sock.getsockname()[1]
        self.script, self.seen = script, []
        self.start()

    def run(self):
        while True:
            data, addr = self.sock.recvfrom(65535)
            req = json.loads(data.decode())
            self.seen.append(req)
            for reply in self.script(req, len(self.seen)):
                self.sock.sendto(reply if isinstance(reply, bytes) else json.dumps(reply).encode(), addr)


class ClientTest(unittest.TestCase):
    def test_late_and_foreign_replies_are_skipped(self):
        def script(req, n):
            return [{"msg_id": req["msg_id"] - 1, "video0": {"gop": 1}}, b"not json",
                    {"msg_id": req["msg_id"], "video0": {"gop": 60}}]
        server = FakeServer(script)
        client = ParaClient("127.0.0.1", server.port, 500)
        self.assertEqual(client.get("video0", ["gop"]), {"gop": 60})
        self.assertEqual(client.get("video0", ["gop"]), {"gop": 60})
        first, second = server.seen
        self.assertEqual((first["msg_type"], first["video0"]), ("get", ["gop"]))
        self.assertNotEqual(first["msg_id"], second["msg_id"])

    def test_a_lost_request_is_sent_again_then_times_out(self):
        server = FakeServer(lambda req, n: [] if n % 3 == 1 else [{"msg_id": req["msg_id"]}])
        client = ParaClient("127.0.0.1", server.port, 200, attempts=2)
        client.set("audio", {"audioOutVol": 60})  # the first attempt gets no answer
        self.assertEqual(len(server.seen), 2)
        silent = FakeServer(lambda req, n: [])
        with self.assertRaisesRegex(ParaError, r"no reply from 127.0.0.1:\d+ within 200 ms \(2 attempts\)"):
            ParaClient("127.0.0.1", silent.port, 200).get("video0")
        self.assertIsNone(ParaClient("127.0.0.1", silent.port, 100).describe())
        self.assertEqual(len(silent.seen), 4)

    def test_a_request_over_the_server_limit_is_not_sent(self):
        server = FakeServer(lambda req, n: [])
        with self.assertRaisesRegex(ParaError, "over the server's limit of 4095 bytes"):
            ParaClient("127.0.0.1", server.port).set("netport", {"text": "x" * 4096})
        self.assertEqual(server.seen, [])

    def test_values_compare_as_text_and_go_out_in_the_device_type(self):
        for device, wanted in [(80, "80"), ("80", 80), (1, True), (0, False), ("H265", "H265"), (25, 25.0)]:
            self.assertTrue(same(device, wanted), (device, wanted))
        self.assertFalse(same("H265", "h265"))
        self.assertEqual(as_device_type("80", 8081), "8081")
        self.assertEqual(as_device_type(60, "25"), 25)
        self.assertEqual(as_device_type("H265", "H264"), "H264")
        self.assertEqual(as_device_type(0, "CBR"), "CBR")


if __name__ == "__main__":
    unittest.main()
