#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""usage: uncovered.py EXPORT FUNCTIONS REASONS OUT

Prints lines and branches reached in each file of the module, and in all. EXPORT is what llvm-cov exports as text,
FUNCTIONS what llvm-profdata shows of all functions. OUT gets the lines and branches that no case reaches, as rows
like those of REASONS: file, the line's text, reason. Lines without a reason are printed. The last line reads "N
passed, N failed": the goals are two tests, and each row of REASONS is one, which fails if its line is reached or
gone. A line that is not reached has the reason of the one before it, or behind it for a lone brace.

A branch is a place in the source: the instances of a template are taken together, each expansion of a macro is a
place of its own. Not counted are branches that the compiler decides, and functions of which it emits no code, as it
evaluates them itself or nothing calls them.
"""
import collections
import json
import os
import re
import sys

MODULE = "packet_forward/"
GOAL_LINES, GOAL_BRANCHES = 95, 90  # per cent
CODE, EXPANSION = 0, 1  # kinds of regions


class Branch:
    """A condition in the source, of all instances."""

    def __init__(self, line):
        self.line, self.true, self.false, self.ran = line, 0, 0, False

    def decided(self):
        """It ran, and neither outcome was counted: the compiler knows it."""
        return self.ran and self.true == 0 and self.false == 0

    def missed(self):
        return [what for what, count in (("true", self.true), ("false", self.false)) if count == 0]


class File:
    def __init__(self):
        self.lines = {}  # number: count
        self.spans = {True: [], False: []}  # of functions with code, and without
        self.branches = {}

    def settle(self):
        """Drops what the compiler does not emit or decides itself."""
        emitted = {number for first, last in self.spans[True] for number in range(first, last + 1)}
        for first, last in self.spans[False]:
            for number in range(first, last + 1):
                if number not in emitted:
                    self.lines.pop(number, None)
        self.branches = {place: branch for place, branch in self.branches.items() if not branch.decided()}

    def uncovered(self):
        """Line numbers, and what is missed there."""
        missed = collections.defaultdict(set)
        for number, count in self.lines.items():
            if count == 0:
                missed[number].add("not reached")
        for branch in self.branches.values():
            for what in branch.missed():
                if "not reached" not in missed[branch.line]:
                    missed[branch.line].add(f"never {what}")
        return {number: what for number, what in missed.items() if what}

    def counts(self):
        return (sum(count > 0 for count in self.lines.values()), len(self.lines),
                sum(2 - len(branch.missed()) for branch in self.branches.values()), 2 * len(self.branches))


def emitted_functions(path):
    """Names of the functions that the compiler emits: each has counters."""
    with open(path, encoding="utf-8") as shown:
        return set(re.findall(r"^  (\S+):$", shown.read(), re.MULTILINE))


def line_counts(segments):
    """The count of each line, as llvm-cov has it: the highest of what begins on it, or of what goes on there."""
    lines, wrapped, at = {}, None, 0
    if not segments:
        return lines
    for number in range(segments[0][0], segments[-1][0] + 1):
        here = []
        while at < len(segments) and segments[at][0] == number:
            here.append(segments[at])
            at += 1
        # Line, column, count, whether it has one, whether a region begins here, whether it is a gap.
        begins = [segment for segment in here if segment[3] and segment[4] and not segment[5]]
        starts_skipped = here and not here[0][3] and here[0][4]
        mapped = not starts_skipped and (wrapped is not None and wrapped[3] or begins)
        if mapped:
            lines[number] = max([segment[2] for segment in begins] +
                                ([wrapped[2]] if wrapped is not None and wrapped[3] else [0]))
        if here:
            wrapped = here[-1]
    return lines


class Function:
    """The regions of a function, by the number of the file or expansion that they stand in."""

    def __init__(self, exported):
        self.names = exported["filenames"]
        self.branches = exported["branches"]
        self.regions = collections.defaultdict(list)
        self.parents = {}
        for region in exported["regions"]:
            number, expanded, kind = region[5:8]
            if kind == EXPANSION:
                self.parents[expanded] = (number, region[:4])
            elif kind == CODE:
                self.regions[number].append(region)
        main = self.regions[0]
        self.span = (min(region[0] for region in main), max(region[2] for region in main)) if main else None

    def path(self, number):
        """Where an expansion stands, from the inside out."""
        out = [self.names[number]]
        while number in self.parents:
            number, place = self.parents[number]
            out += [tuple(place), self.names[number]]
        return tuple(out), number

    def line(self, number, line):
        while number in self.parents:
            number, place = self.parents[number]
            line = place[0]
        return line

    def runs(self, number, place):
        """The count of the innermost region around it."""
        while True:
            around = [region for region in self.regions[number]
                      if tuple(region[0:2]) <= tuple(place[0:2]) and tuple(place[2:4]) <= tuple(region[2:4])]
            if around:
                return max(around, key=lambda region: (region[0], region[1], -region[2], -region[3]))[4]
            if number not in self.parents:
                return 0
            number, place = self.parents[number]


def read_export(path, functions):
    files = collections.OrderedDict()
    with open(path, encoding="utf-8") as text:
        (exported,) = json.load(text)["data"]
    for entry in exported["files"]:
        if MODULE in entry["filename"]:
            file = files.setdefault(entry["filename"], File())
            file.lines = line_counts(entry["segments"])
    for entry in exported["functions"]:
        function = Function(entry)
        name = function.names[0]
        if name not in files or not function.span:
            continue
        emitted = entry["name"] in functions
        files[name].spans[emitted].append(function.span)
        for branch in function.branches if emitted else ():
            place, number = branch[:4], branch[6]
            path_to, root = function.path(number)
            if root != 0:
                continue
            merged = files[name].branches.setdefault((path_to, *place), Branch(function.line(number, place[0])))
            merged.true += branch[4]
            merged.false += branch[5]
            merged.ran = merged.ran or function.runs(number, place) > 0
    for file in files.values():
        file.settle()
    return files


def share(part, whole):
    return f"{100 * part / whole:6.1f} %" if whole else "       -"


def read_reasons(path):
    with open(path, encoding="utf-8") as rows:
        return [tuple(row.rstrip("\n").split("\t")) for row in rows if row.strip() and not row.startswith("#")]


def main():
    export, functions, reasons_path, out_path = sys.argv[1:]
    files = read_export(export, emitted_functions(functions))
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
            before, uncovered = (0, ""), file.uncovered()
            for number, missed in sorted(uncovered.items()):
                key = (short, text[number - 1].strip())
                # The first brace of a function that is not reached at all.
                known_as = (short, text[number].strip()) if key[1] == "{" and number + 1 in uncovered else key
                reason = known[known_as][2] if known_as in known else ""
                if not reason and "not reached" in missed and before[0] == number - 1:
                    reason = before[1]
                before = (number, reason)
                seen.add(key)
                out.write("\t".join((*key, reason)) + "\n")
                if not reason:
                    print(f"    {number:4}: {key[1]}  [{', '.join(sorted(missed))}]")
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
