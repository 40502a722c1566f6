#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""docs/netlink/mox_capture.yaml against the tables of include/mox_capture.h, in both directions.

usage: spec_test.py HEADER_TABLES SPEC [SCHEMA]

HEADER_TABLES is the program that prints the tables. SCHEMA is Documentation/netlink/genetlink.yaml of a kernel from 6.3
on: with it, only the format is checked.
"""
import json
import subprocess
import sys
import unittest

import jsonschema
import yaml

TABLES = {}
SPEC = {}
SCHEMA = None

# Which attributes a request may carry: the header says so in the attributes' meanings.
SELECT = ["LOCATION", "PID", "COOKIE"]
REQUESTS = {
    "LOCATIONS": ["LOCATION"],
    "SOCKETS": SELECT,
    "RULES": SELECT,
    "QUEUES": ["LOCATION"],
    "RESTRICT": ["RESTRICT"],
    "TRACE_START": ["LOCATION", "IFINDEX", "VLAN", "MAC", "ETHER_TYPE", "ADDRESS", "PREFIX", "IP_PROTOCOL", "PORT"],
}
# Lengths of binary attributes, which the header says in their meanings.
CHECKS = {
    ("REQUEST", "MAC"): {"exact-len": 6},
    ("REQUEST", "ADDRESS"): {"min-len": 4, "max-len": 16},
    ("REQUEST", "RESTRICT"): {"max": 1},
    ("RULE", "PLACE"): {"exact-len": 16},
    ("TRACE", "SRC_MAC"): {"exact-len": 6},
    ("TRACE", "DST_MAC"): {"exact-len": 6},
}
REPEATED = {("INFO", "FEATURE"), ("RULE", "VALUE"), ("THREAD", "PENDING")}
ENUMS = {"TREATMENT": "treatment", "HOP": "hop", "VERDICT": "verdict", "PENDING": "location", "TYPE": "rule-type",
         "LOCATION": "location"}
NESTED_ONLY = {"REQUEST", "COUNTERS", "VALUE"}  # sets that are no command's reply


def upper(name):
    return name.upper().replace("-", "_")


def words(text):
    return " ".join(text.split())


class Format(unittest.TestCase):
    def test_the_kernels_schema_accepts_it(self):
        jsonschema.validate(SPEC, SCHEMA)
        broken = dict(SPEC, operations={"list": [{"name": "nothing"}]})
        with self.assertRaises(jsonschema.ValidationError):
            jsonschema.validate(broken, SCHEMA)


class Header(unittest.TestCase):
    maxDiff = None

    def sets(self):
        return {upper(each["name"]): each for each in SPEC["attribute-sets"]}

    def c_name(self, each, attribute):
        return upper(each["name-prefix"] + attribute["name"])

    def test_name_and_constants(self):
        self.assertEqual(SPEC["name"], TABLES["name"])
        self.assertEqual(SPEC["protocol"], "genetlink")
        self.assertEqual(SPEC["uapi-header"], "mox_capture.h")
        constants = {each["name"]: each["value"] for each in SPEC["definitions"] if each["type"] == "const"}
        self.assertEqual(constants, TABLES["constants"])

    def test_enums_have_the_same_entries(self):
        def short(name):
            return name.removeprefix("PACKET_").removesuffix("_LOC").upper()

        found = {each["name"]: {upper(entry["name"]): entry["value"] for entry in each["entries"]}
                 for each in SPEC["definitions"] if each["type"] == "enum"}
        expected = {name: {short(entry): value for entry, value in entries.items()}
                    for name, entries in TABLES["enums"].items()}
        self.assertEqual(found, expected)

    def test_sets_are_those_of_the_header(self):
        self.assertEqual(set(self.sets()), set(TABLES["sets"]))

    def test_attributes_have_the_same_names_numbers_and_kinds(self):
        for name, each in self.sets().items():
            with self.subTest(name):
                found = {}
                for attribute in each["attributes"]:
                    c_name = self.c_name(each, attribute)
                    self.assertNotIn(c_name, found)
                    found[c_name] = (attribute["value"], attribute["type"],
                                     upper(attribute.get("nested-attributes", "NONE")))
                expected = {}
                for prefix, rows in self.expected_rows(name):
                    for row_name, row in rows.items():
                        expected[f"MOX_CAPTURE_{prefix}_{row_name}"] = (row["number"], row["kind"], row["nested"])
                self.assertEqual(found, expected)

    def expected_rows(self, name):
        """The set's own attributes, and those of the requests that the set's command takes."""
        own = [(name, TABLES["sets"][name])]
        if name in NESTED_ONLY:
            return own
        [command] = [key for key, row in TABLES["commands"].items() if row["reply"] == name]
        request = {key: TABLES["sets"]["REQUEST"][key] for key in REQUESTS.get(command, [])}
        return [("REQUEST", request)] + own

    def test_a_reply_is_decoded_with_its_own_attributes(self):
        # A later attribute of the same number counts, so those of the request come first.
        for name, each in self.sets().items():
            kinds = [attribute["name"].startswith("request-") for attribute in each["attributes"]]
            if name != "REQUEST":
                self.assertEqual(kinds, sorted(kinds, reverse=True), name)

    def test_attributes_have_the_same_meaning_order_and_lengths(self):
        for name, each in self.sets().items():
            rows = {f"MOX_CAPTURE_{prefix}_{key}": (prefix, key, row)
                    for prefix, table in self.expected_rows(name) for key, row in table.items()}
            for attribute in each["attributes"]:
                c_name = self.c_name(each, attribute)
                with self.subTest(c_name):
                    prefix, key, row = rows[c_name]
                    self.assertEqual(words(attribute["doc"]), words(row["meaning"]))
                    big = row["kind"] == "u16" and "network byte order" in row["meaning"]
                    self.assertEqual(attribute.get("byte-order"), "big-endian" if big else None)
                    self.assertEqual(attribute.get("checks"), CHECKS.get((prefix, key)))
                    self.assertEqual(attribute.get("multi-attr", False), (prefix, key) in REPEATED)
                    expected = None
                    if row["kind"] == "u32" and (key, prefix) != ("TYPE", "SOCKET"):
                        expected = ENUMS.get(key)
                    self.assertEqual(attribute.get("enum"), expected)

    def test_commands_have_the_same_names_numbers_and_ways(self):
        prefix = SPEC["operations"]["name-prefix"]
        found = {}
        for each in SPEC["operations"]["list"]:
            how = [way for way in ("do", "dump", "event", "notify") if way in each]
            found[upper(prefix + each["name"])] = (each["value"], how, words(each["doc"]))
        expected = {"MOX_CAPTURE_CMD_" + name: (row["number"], [row["how"]], words(row["meaning"]))
                    for name, row in TABLES["commands"].items()}
        self.assertEqual(found, expected)

    def test_commands_but_info_need_the_right(self):
        for each in SPEC["operations"]["list"]:
            open_to_all = each["name"] == "info" or "event" in each
            self.assertEqual(each.get("flags", []), [] if open_to_all else ["admin-perm"], each["name"])

    def test_requests_and_replies_have_the_same_attributes(self):
        for each in SPEC["operations"]["list"]:
            name = upper(each["name"])
            with self.subTest(name):
                row = TABLES["commands"][name]
                reply = row["reply"]
                self.assertEqual(upper(each["attribute-set"]), "REQUEST" if reply == "NONE" else reply)
                body = each[row["how"]]
                own = body if row["how"] == "event" else body.get("reply", {})
                self.assertEqual([upper(entry) for entry in own.get("attributes", [])],
                                 [] if reply == "NONE" else [f"{reply}_{key}" for key in TABLES["sets"][reply]])
                request = body.get("request", {}).get("attributes", [])
                self.assertEqual([upper(entry) for entry in request],
                                 [f"REQUEST_{key}" for key in REQUESTS.get(name, [])])


def main():
    global TABLES, SPEC, SCHEMA
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    with open(sys.argv[2], encoding="utf-8") as file:
        SPEC = yaml.safe_load(file)
    if len(sys.argv) == 4:
        with open(sys.argv[3], encoding="utf-8") as file:
            SCHEMA = yaml.safe_load(file)
        case = Format
    else:
        TABLES = json.loads(subprocess.run([sys.argv[1]], check=True, capture_output=True).stdout)
        case = Header
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(case)
    sys.exit(not unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful())


main()
