#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0
"""usage: uncovered.py LCOV REASONS OUT

Prints lines and branches reached in each file of the module, and in all. OUT gets the lines and branches that no case
reaches, as rows like those of REASONS: file, the line's text, reason. Lines without a reason are printed. The last line
reads "N passed, N failed": the goals are two tests, and each row of REASONS is one, which fails if its line is reached or
gone.
"""
import collections
import os
import sys

MODULE = "packet_forward/"
GOAL_LINES, GOAL_BRANCHES = 95, 90  # per cent


class File:
    def __init__(self):
        self.lines = {}
        self.branches = collections.defaultdict(int)

    def uncovered(self):
        """Numbers of lines that are not reached, or that have a branch that is not taken."""
        missed = {number for number, count in self.lines.items() if count == 0}
        return missed | {branch[0] for branch, count in self.branches.items() if count == 0}

    def counts(self):
        return (sum(count > 0 for count in self.lines.values()), len(self.lines),
                sum(count > 0 for count in self.branches.values()), len(self.branches))


def read_lcov(path):
    files, name, here = collections.OrderedDict(), None, None
    with open(path, encoding="utf-8") as lcov:
        for row in lcov:
            kind, _, value = row.strip().partition(":")
            if kind == "SF":
                name = os.path.realpath(value)
                here = files.setdefault(name, File()) if MODULE in name else None
            elif here and kind == "DA":
                number, count = value.split(",")[:2]
                here.lines[int(number)] = max(here.lines.get(int(number), 0), int(count))
            elif here and kind == "BRDA":
                line, block, branch, count = value.split(",")
                here.branches[int(line), block, branch] += 0 if count == "-" else int(count)
    return files


def share(part, whole):
    return f"{100 * part / whole:6.1f} %" if whole else "       -"


def read_reasons(path):
    with open(path, encoding="utf-8") as rows:
        return [tuple(row.rstrip("\n").split("\t")) for row in rows if row.strip() and not row.startswith("#")]


def main():
    lcov, reasons_path, out_path = sys.argv[1:]
    files = read_lcov(lcov)
    known = {(row[0], row[1]): row for row in read_reasons(reasons_path)}
    seen, total, failed, passed = set(), [0, 0, 0, 0], 0, 0
    with open(out_path, "w", encoding="utf-8") as out:
        for name, file in files.items():
            short = name.split(MODULE, 1)[1]
            counts = file.counts()
            total = [a + b for a, b in zip(total, counts)]
            print(f"{short:36}lines {share(*counts[:2])} of {counts[1]:4}  branches {share(*counts[2:])} of {counts[3]:4}")
            with open(name, encoding="utf-8") as source:
                text = source.read().splitlines()
            for number in sorted(file.uncovered()):
                key = (short, text[number - 1].strip())
                reason = known[key][2] if key in known else ""
                seen.add(key)
                out.write("\t".join((*key, reason)) + "\n")
                if not reason:
                    print(f"    {number:4}: {key[1]}")
    for key in known:
        if key in seen:
            passed += 1
        else:
            failed += 1
            print(f"reached, or gone, and still in {os.path.basename(reasons_path)}: {key[0]}: {key[1]}")
    print(f"{'all':36}lines {share(*total[:2])} of {total[1]:4}  branches {share(*total[2:])} of {total[3]:4}")
    for what, goal, part, whole in (("lines", GOAL_LINES, *total[:2]), ("branches", GOAL_BRANCHES, *total[2:])):
        reached = whole and 100 * part / whole >= goal
        passed, failed = (passed + 1, failed) if reached else (passed, failed + 1)
        if not reached:
            print(f"fewer than {goal} % of {what}: fuzz for longer, or extend a target")
    print(f"{passed} passed, {failed} failed")
    return failed != 0


if __name__ == "__main__":
    sys.exit(main())
