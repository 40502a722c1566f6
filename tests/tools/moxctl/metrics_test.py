#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""What moxctl prints as metrics, read by promtool and by a parser of OpenMetrics.

usage: metrics_test.py SAMPLES

SAMPLES is the program that prints the metrics.
"""
import subprocess
import sys
import unittest

from prometheus_client.openmetrics import parser


def metrics(kind):
    return subprocess.run([sys.argv[1], kind], check=True, capture_output=True, text=True).stdout


def samples_of(text):
    return {(each.name, tuple(sorted(each.labels.items()))): each.value
            for family in parser.text_string_to_metric_families(text) for each in family.samples}


def promtool(text):
    return subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)


class Metrics(unittest.TestCase):
    def test_promtool_has_no_complaint(self):
        for kind in ("metrics", "many"):
            found = promtool(metrics(kind))
            self.assertEqual((found.returncode, found.stdout + found.stderr), (0, ""))
        self.assertNotEqual(promtool(metrics("metrics").replace("# HELP", "# HALP")).returncode, 0)

    def test_it_is_open_metrics(self):
        text = metrics("metrics")
        self.assertTrue(text.endswith("\n# EOF\n"))
        self.assertTrue(samples_of(text))
        with self.assertRaises(ValueError):
            samples_of(text.replace("# EOF\n", ""))

    def test_values_and_labels(self):
        found = samples_of(metrics("metrics"))

        def value(metric, **labels):
            return found[("mox_capture_" + metric, tuple(sorted(labels.items())))]

        socket = {"process": "arpwatch", "pid": "412", "cookie": "17", "netns": str(0xf0000098), "location": "lev2"}
        self.assertEqual(value("socket_matched_total", **socket), 100)
        self.assertEqual(value("socket_rcvbuf_full_drops_total", **socket), 8)
        self.assertEqual(value("socket_queue", **socket), 3)
        self.assertEqual(value("location_seen_total", location="lev2", cpu="1"), 1000)
        self.assertEqual(value("location_queued", location="lev2", cpu="0"), 4)
        self.assertEqual(value("location_rules", location="lev2"), 2)
        self.assertEqual(value("location_closed_sockets_total", location="lev2"), 9)
        self.assertEqual(value("closed_sockets_memory_drops_total", location="lev2"), 2)
        self.assertEqual(value("queue_limit", location="lev2", cpu="0"), 1000)
        self.assertEqual(value("memory_used", name="rule memory"), 2048)
        self.assertEqual(value("memory_refused_total", name="rule memory"), 2)
        self.assertEqual(value("thread_scheduled_total"), 1712)
        self.assertEqual(value("restricted"), 1)
        self.assertEqual(value("build", module="mox_ef_socket", version="1.2"), 1)
        self.assertEqual(value("sockets"), 2)
        # The sums of a location are not counted beside those of its CPUs.
        self.assertFalse([key for key in found if key[0] == "mox_capture_location_seen_total" and len(key[1]) == 1])
        names = {dict(labels).get("process") for _, labels in found}
        self.assertIn('d\\xff"\\\\x0a', names)

    def test_the_number_of_series_has_a_limit(self):
        found = samples_of(metrics("many"))
        matched = {labels: value for (name, labels), value in found.items()
                   if name == "mox_capture_socket_matched_total"}
        self.assertEqual(len(matched), 1001)
        self.assertEqual(matched[(("process", "other"),)], 502 * 100)
        self.assertEqual(found[("mox_capture_sockets_summed", ())], 502)
        self.assertEqual(found[("mox_capture_socket_queue", (("process", "other"),))], 502 * 3)


if len(sys.argv) != 2:
    sys.exit(__doc__)
unittest_result = unittest.TextTestRunner(verbosity=2).run(unittest.defaultTestLoader.loadTestsFromTestCase(Metrics))
sys.exit(not unittest_result.wasSuccessful())
