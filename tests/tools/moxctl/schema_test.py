#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""What moxctl prints as JSON against docs/moxctl.schema.json.

usage: schema_test.py SAMPLES SCHEMA

SAMPLES is the program that prints what every command prints.
"""
import copy
import json
import subprocess
import sys
import unittest

import jsonschema

SAMPLES = {}
SCHEMA = {}


def strict(schema):
    """The schema without room for members that it does not describe."""
    if isinstance(schema, dict):
        closed = {key: strict(value) for key, value in schema.items()}
        if closed.get("type") == "object" and "properties" in closed:
            closed["additionalProperties"] = False
        return closed
    if isinstance(schema, list):
        return [strict(each) for each in schema]
    return schema


def validator(command, schema):
    return jsonschema.Draft202012Validator({"$ref": f"#/$defs/{command}", "$defs": schema["$defs"]})


def properties(schema, definition):
    """The definition's own properties."""
    return schema["$defs"][definition].get("properties", {})


class Schema(unittest.TestCase):
    def test_it_is_a_schema(self):
        jsonschema.Draft202012Validator.check_schema(SCHEMA)

    def test_every_command_is_described(self):
        self.assertLessEqual(set(SAMPLES), set(SCHEMA["$defs"]))
        self.assertEqual(len(SAMPLES), 9)

    def test_documents_are_valid_and_every_member_is_described(self):
        closed = strict(SCHEMA)
        for command, documents in SAMPLES.items():
            self.assertGreaterEqual(len(documents), 3, command)
            for document in documents:
                validator(command, closed).validate(document)

    def test_every_property_of_a_command_is_printed(self):
        for command, documents in SAMPLES.items():
            printed = set().union(*documents)
            self.assertEqual(printed, set(properties(SCHEMA, command)), command)

    def test_a_document_with_a_wrong_member_is_not_valid(self):
        for command, documents in SAMPLES.items():
            check = validator(command, SCHEMA)
            for name in documents[0]:
                broken = copy.deepcopy(documents[0])
                broken[name] = {"wrong": [None]}
                self.assertFalse(check.is_valid(broken), f"{command}: {name}")
            for name in SCHEMA["$defs"][command]["required"]:
                broken = copy.deepcopy(documents[0])
                del broken[name]
                self.assertFalse(check.is_valid(broken), f"{command}: {name}")

    def test_what_changed_while_it_was_read_is_incomplete(self):
        for command in ("show sockets", "show rules", "show losses", "show queues", "show memory"):
            last = SAMPLES[command][-1]
            self.assertFalse(last["complete"], command)
            self.assertTrue(last["problems"], command)


def main():
    global SAMPLES, SCHEMA
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    SAMPLES = json.loads(subprocess.run([sys.argv[1], "json"], check=True, capture_output=True).stdout)
    with open(sys.argv[2], encoding="utf-8") as file:
        SCHEMA = json.load(file)
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(Schema)
    sys.exit(not unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful())


main()
