#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""Runs a program that knows nothing of it, this Python, with libmox-compat.so and the relay of the tests.

usage: program_test.py libmox-compat.so RELAY
"""
import os
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

LIBRARY, RELAY = (os.path.abspath(path) for path in sys.argv[1:3])
PATIENCE = 20
FRAME = bytes.fromhex("ffffffffffff 020000000099 0806") + bytes(46)
# As in fake_wire.h: kind, level, option; then the control record (interface 3, header of 14 bytes) and two times.
FRAME_MESSAGE = struct.pack("=Iii", 3, 0, 0) + struct.pack("=I32xH10x", 3, 14) + struct.pack("=qq", 1700000000, 5) + FRAME

RECEIVE = """
import select, socket, sys
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
print("open", flush=True)
assert select.select([s], [], [], 20)[0] == [s]
data, address = s.recvfrom(2000)
print(data.hex(), address[1:3], address[4].hex(), flush=True)
assert s.send(data) == 60 if len(sys.argv) > 1 else True
"""


class Program(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp()
        name = "mox-program-test/%d/%s" % (os.getpid(), self.id())
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.listener.bind("\0" + name)
        self.listener.listen(4)
        self.listener.settimeout(PATIENCE)
        self.environment = dict(
            os.environ, LD_PRELOAD=LIBRARY, MOX_RELAY=RELAY, MOX_TEST_MODULE=name,
            ASAN_OPTIONS="log_path=" + self.directory + "/asan", UBSAN_OPTIONS="log_path=" + self.directory + "/ubsan")

    def tearDown(self):
        self.listener.close()
        # A relay writes what the sanitizers find when it ends.
        found = [open(os.path.join(self.directory, each)).read() for each in os.listdir(self.directory)
                 if "san." in each]
        shutil.rmtree(self.directory)
        self.assertEqual(found, [])

    def start(self, program, *arguments, **more):
        return subprocess.Popen([sys.executable, "-c", program, *arguments], env=self.environment, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, **more)

    def module(self):
        connection = self.listener.accept()[0]
        connection.settimeout(PATIENCE)
        return connection

    def relay_has_ended(self, module):
        module.settimeout(PATIENCE)
        while module.recv(70000):
            pass
        time.sleep(0.2)  # what the sanitizers write comes after
        module.close()

    def finish(self, process):
        out, error = process.communicate(timeout=PATIENCE)
        self.assertEqual((process.returncode, error), (0, ""))
        return out

    def test_receives(self):
        process = self.start(RECEIVE)
        module = self.module()
        self.assertEqual(process.stdout.readline(), "open\n")
        module.send(FRAME_MESSAGE)
        self.assertEqual(self.finish(process), "%s (2054, 1) 020000000099\n" % FRAME.hex())
        self.relay_has_ended(module)

    def test_relay_beside_the_library(self):
        shutil.copy(LIBRARY, self.directory + "/libmox-compat.so")
        shutil.copy(RELAY, self.directory + "/mox-relay")
        del self.environment["MOX_RELAY"]
        self.environment["LD_PRELOAD"] = self.directory + "/libmox-compat.so"
        process = self.start(RECEIVE)
        module = self.module()
        module.send(FRAME_MESSAGE)
        self.assertIn(FRAME.hex(), self.finish(process))
        self.relay_has_ended(module)

    def test_inherited_through_exec(self):
        child = """
import os, socket, sys
s = socket.socket(fileno=int(sys.argv[1]))
assert s.family == socket.AF_PACKET and s.type == socket.SOCK_RAW, s
print(s.recv(2000).hex(), flush=True)
"""
        parent = """
import os, socket, sys
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
os.set_inheritable(s.fileno(), True)
os.execv(sys.executable, [sys.executable, "-c", sys.argv[1], str(s.fileno())])
"""
        process = self.start(parent, child)
        module = self.module()
        module.send(FRAME_MESSAGE)
        self.assertEqual(self.finish(process), FRAME.hex() + "\n")
        self.relay_has_ended(module)

    def test_reader_of_the_output_does_not_wait_for_the_relay(self):
        process = self.start("""
import os, socket, time
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
print("out", flush=True)
os.close(1), os.close(2)
time.sleep(60)
""")
        module = self.module()
        begin = time.monotonic()
        self.assertEqual(process.stdout.read(), "out\n")
        self.assertLess(time.monotonic() - begin, PATIENCE)
        process.kill()
        process.communicate()
        self.relay_has_ended(module)

    def test_signals_to_the_group_leave_the_relay(self):
        process = self.start("""
import signal, socket, struct, time
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
def asks(*_):
    print(struct.unpack("=II", s.getsockopt(263, 6, 8)), flush=True)
    raise SystemExit
signal.signal(signal.SIGINT, asks)
print("open", flush=True)
time.sleep(60)
""", start_new_session=True)
        module = self.module()
        process.stdout.readline()
        os.killpg(process.pid, 2)
        self.assertEqual(self.finish(process), "(0, 0)\n")
        self.relay_has_ended(module)

    def test_wrong_setting_is_one_line(self):
        self.environment["MOX_LOCATION"] = "moon"
        process = self.start("import socket; socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)")
        out, error = process.communicate(timeout=PATIENCE)
        lines = [line for line in error.splitlines() if "mox-compat" in line]
        self.assertEqual(len(lines), 1, error)
        self.assertRegex(lines[0], r'^mox-compat: .*python.*: environment: location "moon" is unknown; allowed: local lev2 ')
        self.assertIn("[Errno 22]", error)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
