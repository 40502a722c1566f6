#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""The kernel's own client ynl reads the family "mox_capture" by docs/netlink/mox_capture.yaml.

A recording of the module takes the place of the kernel: the client's requests have to be those that were recorded, and
are answered with the bytes that were. What it decodes is compared, attribute by attribute, with what moxctl decodes, and
with what is known of the recorded sockets without the family.

usage: ynl_test.py RECORDED_VALUES SPEC RECORDING CACHE

RECORDED_VALUES is the program that prints what moxctl decodes. CACHE is a directory for the client's files, which come
from the package linux-source-6.12; YNL=DIR takes a kernel's tools/net/ynl from elsewhere.
"""
import contextlib
import errno
import io
import json
import os
import pathlib
import shutil
import socket
import struct
import subprocess
import sys
import unittest
from unittest import mock

PACKAGE = "linux-source-6.12"
SEQUENCE_AT = slice(8, 12)
MAC = "02:00:5e:10:00:01"
FRAMES = {"request-ether-type": 0x88b5, "request-mac": MAC.replace(":", "")}   # of the first recorded trace

YNL = None        # the client's module lib.ynl
SPEC_FILE = ""
EXPECTED = {}     # by exchange: what moxctl decodes
RECORDING = None


class Recording:
    """Facts and exchanges of the file that tests/vm/control/recording_test.cc writes."""

    def __init__(self, path):
        self.facts = {}
        self.requests = {}   # by exchange
        self.answers = {}
        exchange = None
        for line in pathlib.Path(path).read_text(encoding="ascii").splitlines():
            word, rest = line.split(" ", 1)
            if word == "fact":
                name, value = rest.split()
                self.facts[name] = int(value)
            elif word == "exchange":
                exchange = rest
                self.answers[exchange] = []
            elif word == ">":
                self.requests[exchange] = bytes.fromhex(rest)
            elif word == "<":
                self.answers[exchange].append(bytes.fromhex(rest))
            else:
                raise ValueError(f"{path}: a line begins with {word}")

    def exchange_of(self, request):
        """The exchange with this request, whatever its sequence number."""
        def plain(message):
            return message[:8] + message[12:]

        for name, recorded in self.requests.items():
            if plain(recorded) == plain(request):
                return name
        raise AssertionError(f"no recorded request is {request.hex()}")


class FakeSocket:
    """A netlink socket on which the recorded module answers."""
    asked = []   # exchanges, of all sockets

    def __init__(self, *_arguments):
        self.waiting = []

    def __enter__(self):
        return self

    def __exit__(self, *_arguments):
        pass

    def setsockopt(self, *_arguments):
        pass

    def send(self, data, _flags=0):
        name = RECORDING.exchange_of(data)
        FakeSocket.asked.append(name)
        self.waiting += [self.numbered(answer, data[SEQUENCE_AT]) for answer in RECORDING.answers[name]]
        if name.startswith("trace-start"):
            self.waiting += RECORDING.answers.get(name.replace("-start", ""), [])
        return len(data)

    @staticmethod
    def numbered(datagram, sequence):
        """The datagram with this sequence number in each of its messages."""
        out = bytearray(datagram)
        at = 0
        while at < len(out):
            out[at + 8:at + 12] = sequence
            at += (struct.unpack_from("I", out, at)[0] + 3) & ~3
        return bytes(out)

    def recv(self, size, _flags=0):
        if not self.waiting:
            raise BlockingIOError
        datagram = self.waiting.pop(0)
        if len(datagram) > size:
            raise AssertionError("the client's buffer is too small for a datagram")
        return datagram


class Ynl(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        patch = mock.patch.object(socket, "socket", FakeSocket)
        patch.start()
        self.addCleanup(patch.stop)
        # What the client has to say besides its answers: warnings and messages that it did not expect.
        self.said = io.StringIO()
        said = contextlib.redirect_stdout(self.said)
        said.__enter__()
        self.addCleanup(said.__exit__, None, None, None)
        self.family = YNL.YnlFamily(SPEC_FILE, schema="")

    def tearDown(self):
        self.assertEqual(self.said.getvalue(), "")

    # --- the client's answers by the header's names ---

    def number_of(self, enum, name):
        return self.family.consts[enum].entries[name].value

    def value(self, row, value):
        kind = row["type"]
        if kind == "nest":
            return self.plain(row["nested-attributes"], value)
        if "enum" in row:
            return self.number_of(row["enum"], value)
        if kind == "binary":
            return (value if isinstance(value, str) else value.hex()).replace(":", "").replace(" ", "")
        if kind == "u16" and "byte-order" in row:
            return socket.htons(value)   # as the number is in the message
        return value

    def plain(self, set_name, attributes):
        rows = {name: row.yaml for name, row in self.family.attr_sets[set_name].items()}
        out = {}
        for name, value in attributes.items():
            values = value if isinstance(value, list) else [value]
            short = name.removeprefix(set_name + "-").upper().replace("-", "_")
            out[short] = [self.value(rows[name], each) for each in values]
        return out

    def check(self, exchange, set_name, replies):
        expected = EXPECTED[exchange]
        self.assertGreater(len(expected), 0)
        self.assertEqual({each["set"] for each in expected}, {set_name.upper()})
        self.assertEqual([self.plain(set_name, each) for each in replies],
                         [each["attributes"] for each in expected])
        self.assertIn(exchange, FakeSocket.asked)

    # --- dumps and answers ---

    def test_every_reply_is_what_moxctl_decodes(self):
        table = [
            ("info", "info", {}, "info"),
            ("thread", "thread", {}, "thread"),
            ("locations", "location", {"request-location": "lev2"}, "locations lev2"),
            ("sockets", "socket", {}, "sockets"),
            ("sockets", "socket", {"request-location": "ipv4"}, "sockets ipv4"),
            ("rules", "rule", {}, "rules"),
            ("queues", "queue", {"request-location": "lev2"}, "queues lev2"),
            ("memory", "memory", {}, "memory"),
        ]
        for command, set_name, request, exchange in table:
            with self.subTest(exchange):
                if "do" in self.family.find_operation(command):
                    replies = [self.family.do(command, request)]
                else:
                    replies = self.family.dump(command, request)
                self.check(exchange, set_name, replies)
        # So that a command that the description adds is recorded, too.
        commands = {each["name"] for each in self.family.yaml["operations"]["list"] if "reply" in each.get(
            "dump", each.get("do", {}))}
        self.assertEqual(commands, {row[0] for row in table})

    def trace(self, request):
        """The records of a trace from its start to its end."""
        self.assertIsNone(self.family.do("trace-start", request))
        self.family.check_ntf()
        self.assertIsNone(self.family.do("trace-stop", {}))
        events = self.family.async_msg_queue
        self.family.async_msg_queue = []
        self.assertEqual({each["name"] for each in events}, {"trace"})
        return [each["msg"] for each in events]

    def test_trace_records_are_what_moxctl_decodes(self):
        for request, exchange in [(FRAMES, "trace"), ({}, "trace all")]:
            self.assertEqual([self.plain("trace", each) for each in self.trace(request)],
                             [each["attributes"] for each in EXPECTED[exchange]])

    def test_errors_come_with_the_modules_text(self):
        for command, request, error, text in [
                ("restrict", {"request-restrict": 2}, errno.EINVAL, "restrict: neither 0 nor 1"),
                ("trace-start", {"request-address": "0a0000"}, errno.ERANGE, "address: neither 4 nor 16 bytes")]:
            with self.subTest(command):
                with self.assertRaises(YNL.NlError) as raised:
                    self.family.do(command, request)
                self.assertEqual(raised.exception.error, error)
                self.assertEqual(raised.exception.nl_msg.extack["msg"], text)
        self.assertIsNone(self.family.do("restrict", {"request-restrict": 0}))

    # --- what is known of the recorded sockets ---

    def subset(self, found, expected):
        self.assertEqual({key: found.get(key) for key in expected}, expected)

    def test_info(self):
        info = self.family.do("info", {})
        self.subset(info, {"info-module": "mox_ef_socket", "info-interface": 1, "info-restricted": 0})
        self.assertEqual(info["info-feature"],
                         ["ledger", "rules", "restrict", "arrival-time", "sock-diag", "trace"])

    def test_sockets_have_the_known_values(self):
        facts = RECORDING.facts
        sockets = {each["socket-cookie"]: each for each in self.family.dump("sockets", {})}
        table = {
            "trap": ({"socket-type": socket.SOCK_RAW, "socket-location": "lev2", "socket-treatment": "trap",
                      "socket-running": True, "socket-ctrl-info": True, "socket-timestamps": True,
                      "socket-filtered": None, "socket-ifindex": 211, "socket-protocol": 0x88b5, "socket-queue": 1},
                     {"matched": 2, "recv-packets": 2, "read": 1, "sends": 3, "send-packets": 1,
                      "intf-linkdown-fails": 1, "dstintf-ill-fails": 1}),
            "copy": ({"socket-type": socket.SOCK_DGRAM, "socket-location": "ipv4", "socket-treatment": "copy",
                      "socket-running": True, "socket-ctrl-info": None, "socket-filtered": True, "socket-queue": 0},
                     {"matched": 2, "rcvbuf-full-drops": 1, "filter-drops": 1}),
            "each": ({"socket-location": "wlan", "socket-treatment": "fetch"}, {}),
            "wide": ({"socket-location": "lev3-resv", "socket-treatment": "fetch-local"}, {}),
            "idle": ({"socket-location": "none", "socket-treatment": "treatment-none", "socket-running": None}, {}),
        }
        self.assertEqual(set(sockets), {facts[name + ".cookie"] for name in table})
        for name, (values, counters) in table.items():
            with self.subTest(name):
                found = sockets[facts[name + ".cookie"]]
                self.subset(found, values | {
                    "socket-pid": facts["pid"], "socket-netns": facts["netns"], "socket-process": "recorder",
                    "socket-uid": 0, "socket-inode": facts[name + ".inode"],
                    "socket-queue-limit": facts[name + ".queue-limit"]})
                self.assertEqual({key: count for key, count in found["socket-counters"].items() if count}, counters)

    def test_rules_have_the_known_values(self):
        rules = {}
        for part in self.family.dump("rules", {}):
            rules.setdefault(part["rule-cookie"], []).append(part)

        def values_of(name):
            parts = rules[RECORDING.facts[name + ".cookie"]]
            self.assertEqual([part.get("rule-more") for part in parts], [True] * (len(parts) - 1) + [None])
            return [(value["type"], value.get("data"), value["hits"])
                    for part in parts for value in part["rule-value"]]

        self.assertEqual(values_of("trap"), [
            ("eth-prot-equal", "88 b5", 2), ("eth-prot-equal", "88 b6", 0),
            ("src-intf-equal", struct.pack("I", 211).hex(" "), 2),
            ("src-intf-equal", struct.pack("I", 70000).hex(" "), 0)])
        self.assertEqual(values_of("copy"), [("all", None, 2)])
        self.assertEqual(values_of("each"), [
            ("eapol-type-equal", "01", 0), ("dest-mac-equal", "01 80 c2 00 00 03", 0),
            ("packet-code-equal", "07 01", 0), ("wlan-mgnt", None, 0)])
        self.assertEqual(values_of("wide"), [("src-intf-equal", struct.pack("I", 1000 + i).hex(" "), 0)
                                             for i in range(150)])
        self.assertGreater(len(rules[RECORDING.facts["wide.cookie"]]), 1)

    def test_closed_sockets(self):
        [sums] = [each for each in self.family.dump("locations", {"request-location": "lev2"})
                  if "location-cpu" not in each]
        self.subset(sums, {"location-location": "lev2", "location-name": "PACKET_LEV2_LOC"})
        self.assertEqual(sums["location-closed-sockets"], 1)
        self.assertEqual({key: count for key, count in sums["location-closed"].items() if count},
                         {"matched": 1, "recv-packets": 1, "freed-unread": 1})

    def test_trace_has_the_known_values(self):
        records = self.trace(FRAMES)
        by_trap = {"trace-cookie": RECORDING.facts["trap.cookie"], "trace-pid": RECORDING.facts["pid"],
                   "trace-process": "recorder"}
        for record in records:
            self.subset(record, {"trace-src-mac": MAC, "trace-ether-type": 0x88b5, "trace-length": 60})
        at = {hop: [each for each in records if each["trace-hop"] == hop] for hop in ("hook", "delivery", "send")}
        self.assertEqual([(each["trace-location"], each["trace-verdict"], each["trace-ifindex"]) for each in at["hook"]],
                         [("lev2", "taken", 211), ("lev2", "taken", 211), ("lev2", "unwanted", 212),
                          ("wlan", "unwanted", 0)])
        for record in at["hook"][:2]:
            self.subset(record, by_trap | {"trace-cpu": 2, "trace-vlan": 100,
                                           "trace-key": {"type": "eth-prot-equal", "data": "88 b5"}})
        for record in at["hook"][2:]:
            self.assertNotIn("trace-cookie", record)
        self.assertEqual(len(at["delivery"]), 2)
        for record, hook in zip(at["delivery"], at["hook"]):
            self.subset(record, by_trap | {"trace-verdict": "put", "trace-treatment": "trap", "trace-cpu": 2,
                                           "trace-frame": hook["trace-frame"]})
        # Two sends were refused before there was a frame: their records have its properties as 0.
        sends = at["send"] + self.trace({})
        self.assertEqual([(each["trace-verdict"], each["trace-ifindex"], each["trace-error"]) for each in sends],
                         [("accepted", 211, 0), ("refused", 0, -errno.ENETDOWN), ("refused", 0, -errno.ENXIO)])
        for record in sends:
            self.subset(record, by_trap | {"trace-hop": "send"})


def missing(reason):
    sys.exit(f"ynl_test: {reason}: run lab/setup, or apt-get install {PACKAGE}; or set YNL to tools/net/ynl of a "
             "kernel source of that version")


def client_directory(cache):
    """tools/net/ynl: YNL, or unpacked from the package into the cache, once for each version of the package."""
    if "YNL" in os.environ:
        return pathlib.Path(os.environ["YNL"])
    try:
        files = subprocess.run(["dpkg-query", "-L", PACKAGE], check=True, capture_output=True, text=True).stdout
        [archive] = [each for each in files.split() if "/" + PACKAGE + ".tar." in each and os.path.isfile(each)]
    except (OSError, ValueError, subprocess.CalledProcessError):
        missing(f"the package {PACKAGE}, which has the kernel's client ynl, is not installed")
    state = os.stat(archive)
    stamp = f"{archive} {state.st_size} {state.st_mtime_ns}\n"
    target = pathlib.Path(cache)
    if not (target / "stamp").is_file() or (target / "stamp").read_text(encoding="utf-8") != stamp:
        shutil.rmtree(target, ignore_errors=True)
        target.mkdir(parents=True)
        subprocess.run(["tar", "-C", target, "--strip-components=1", "--wildcards", "-xf", archive,
                        "*/tools/net/ynl/*"], check=True)
        (target / "stamp").write_text(stamp, encoding="utf-8")
    return target / "tools" / "net" / "ynl"


def main():
    global YNL, SPEC_FILE, EXPECTED, RECORDING
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    program, SPEC_FILE, recording, cache = sys.argv[1:]
    directory = client_directory(cache)
    sys.dont_write_bytecode = True
    sys.path.insert(0, str(directory))
    try:
        from lib import ynl   # pylint: disable=import-outside-toplevel
    except ImportError as error:
        missing(f"{directory} has no client ({error})")
    YNL = ynl
    RECORDING = Recording(recording)
    EXPECTED = json.loads(subprocess.run([program, recording], check=True, capture_output=True).stdout)
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(Ynl)
    sys.exit(not unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful())


main()
