# SPDX-License-Identifier: GPL-2.0-only
"""The mutated tree: a copy of the module with every mutant of every file in it, and its test programs."""

import hashlib
import json
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import sites

FORWARD = 'ef/ef_service/af_packet/packet_forward/'
# Numbers of one file's mutants; what mutate_runtime.cc has room for is 256 times as many.
PER_FILE = 4096
FILES = 256
HERE = Path(__file__).resolve().parent


def digest(*parts):
    whole = hashlib.sha256()
    for part in parts:
        whole.update(part if isinstance(part, bytes) else part.encode())
        whole.update(b'\0')
    return whole.hexdigest()[:24]


class Mutant:
    """One change: number, file, line, original and changed text."""

    def __init__(self, number, file, source, site, index):
        self.number = number
        self.file = file
        self.site = site
        self.kind = site.kind
        self.line = source.count(b'\n', 0, site.start) + 1
        self.original = squeeze(source[site.start:site.end].decode())
        self.changed = squeeze(site.mutants[index]) or 'nothing'
        at = source.rfind(b'\n', 0, site.start) + 1
        self.context = squeeze(source[at:source.find(b'\n', site.start)].decode())
        self.text = site.mutants[index]
        self.copy = ''  # which one of those that read the same
        # The name of a result: it survives changes of other files.
        self.key = digest(source, str(site.start), str(site.end), site.kind, self.text)

    @property
    def unit(self):
        return self.file.rsplit('.', 1)[0]

    @property
    def mutation(self):
        return f'{self.original} -> {self.changed}{self.copy}'


def squeeze(text):
    return ' '.join(text.split())


class Tree:
    def __init__(self, source, build, jobs):
        self.source = source
        self.build = build
        self.jobs = jobs
        self.forward = source / FORWARD
        self.root = build / 'tree'
        self.mutants = []
        self.not_built = set()  # numbers
        names = [p.relative_to(self.forward).as_posix() for p in self.forward.rglob('*') if p.is_file()]
        self.texts = {name: (self.forward / name).read_bytes() for name in sorted(names)
                      if name.endswith(('.cc', '.hpp', '.h', '.c'))}
        self.units = [name for name in self.texts if name.endswith('.cc')]
        if not self.units:
            raise SystemExit(f'run: no C++ unit below {self.forward}')

    def flags(self):
        return ['-std=gnu++20', '-ffreestanding', '-fno-exceptions', '-fno-rtti',
                f'-I{self.source}/tests/host/fake', f'-I{self.forward}', f'-I{self.source}/include']

    # Sites of all units, found anew where a file of the module has changed

    def find(self):
        cache = self.build / 'sites'
        cache.mkdir(parents=True, exist_ok=True)
        # A unit's tree depends on its own text and on all headers.
        headers = digest(*(text for name, text in self.texts.items() if not name.endswith('.cc')),
                         (HERE / 'sites.py').read_bytes())
        program = 'import sys, sites; sites.main(*sys.argv[1:])'

        def one(unit):
            kept = cache / (digest(unit, self.texts[unit], headers) + '.json')
            if not kept.exists():
                subprocess.run([sys.executable, '-c', program, unit, str(self.forward) + '/', str(kept),
                                *self.flags()], check=True, cwd=HERE)
            return json.loads(kept.read_text())

        found = {}
        with ThreadPoolExecutor(self.jobs) as pool:
            for of_unit in pool.map(one, self.units):
                for name, of_file in of_unit.items():
                    for values in of_file:
                        site = sites.Site(**values)
                        found.setdefault(name, {}).setdefault(site.key(), site)
        mutable = [name for name in self.texts if name.endswith(('.cc', '.hpp'))]
        if len(mutable) > FILES:
            raise SystemExit(f'run: more than {FILES} files; raise FILES in tree.py and kMutants beside it')
        self.sites = {}  # file -> [(number, Site)]
        for place, name in enumerate(mutable):
            number = place * PER_FILE + 1
            for _, site in sorted(found.get(name, {}).items()):
                self.sites.setdefault(name, []).append((number, site))
                for index in range(len(site.mutants)):
                    self.mutants.append(Mutant(number + index, name, self.texts[name], site, index))
                number += len(site.mutants)
            if number > (place + 1) * PER_FILE:
                raise SystemExit(f'run: {name} has more than {PER_FILE} mutants; raise PER_FILE in tree.py')
        alike = {}
        for mutant in self.mutants:
            key = mutant.file, mutant.context, mutant.mutation
            alike[key] = alike.get(key, 0) + 1
            if alike[key] > 1:
                mutant.copy = f' #{alike[key]}'

    # The mutated text

    def mutated(self, name, left_out):
        text = self.texts[name]
        edits = [edit for number, site in self.sites.get(name, ()) if number not in left_out
                 for edit in site.edits(number)]
        out, at = [], 0
        for offset, _, _, removed, inserted in sorted(edits, key=lambda edit: edit[:3]):
            out.append(text[at:offset])
            out.append(inserted.encode())
            at = offset + removed
        out.append(text[at:])
        whole = b''.join(out)
        if not edits:
            return text
        # In the place of the first comment, so that lines keep their numbers.
        include = b'#include "mutate_live.hpp"'
        first, newline, rest = whole.partition(b'\n')
        return include + newline + rest if first.startswith(b'//') else include + b' // ' + whole

    def write(self, left_out):
        forward = self.root / FORWARD
        wanted = {FORWARD + name: self.mutated(name, left_out) for name in self.texts}
        for path in (self.source / 'include').rglob('*'):
            if path.is_file():
                wanted[path.relative_to(self.source).as_posix()] = path.read_bytes()
        for path in list(self.root.rglob('*')):
            if path.is_file() and path.relative_to(self.root).as_posix() not in wanted:
                path.unlink()
        for name, text in wanted.items():
            path = self.root / name
            path.parent.mkdir(parents=True, exist_ok=True)
            if not path.exists() or path.read_bytes() != text:
                path.write_bytes(text)
        return forward

    # Build

    def make(self, sanitize):
        """Builds the test programs; mutants of lines with which that fails are left out. Returns the programs."""
        kept = self.build / 'not-built.json'
        known = json.loads(kept.read_text()) if kept.exists() else {}
        left_out = {number for name, of_file in self.sites.items() for number, site in of_file
                    if [site.start, site.end, site.kind] in known.get(digest(self.texts[name]), [])}
        where = self.build / ('asan' if sanitize else 'plain')
        where.mkdir(parents=True, exist_ok=True)
        self.write(left_out)
        log = self.build / 'build.log'
        configure = ['cmake', '-S', str(self.source / 'tests/host'), '-B', str(where), f'-DMOX_ROOT={self.root}',
                     f'-DMOX_MUTATE={HERE / "runtime"}', '-DCMAKE_BUILD_TYPE=None',
                     f'-DMOX_SANITIZE={"address,undefined" if sanitize else ""}']
        self.command(configure, log)
        compile_ = ['cmake', '--build', str(where), '-j', str(self.jobs), '--', '-k', '--no-print-directory']
        for _ in range(20):
            if self.command(compile_, log, may_fail=True):
                break
            more = self.blamed(log.read_text(errors='replace'), left_out)
            if not more:
                sys.stderr.write(log.read_text(errors='replace')[-8000:])
                raise SystemExit('run: the build of the mutated module failed')
            left_out |= more
            self.write(left_out)
        else:
            raise SystemExit(f'run: the build of the mutated module still fails; see {log}')
        known = {}
        for name, of_file in self.sites.items():
            gone = [[site.start, site.end, site.kind] for number, site in of_file if number in left_out]
            if gone:
                known[digest(self.texts[name])] = gone
        kept.write_text(json.dumps(known))
        self.not_built = {number + index for of_file in self.sites.values() for number, site in of_file
                          if number in left_out for index in range(len(site.mutants))}
        return {name: where / name for name in (where / 'programs').read_text().split()}

    def command(self, command, log, may_fail=False):
        with log.open('wb') as out:
            status = subprocess.run(command, stdout=out, stderr=subprocess.STDOUT).returncode
        if status and not may_fail:
            sys.stderr.write(log.read_text(errors='replace'))
            raise SystemExit(f'run: {command[0]} failed')
        return status == 0

    def blamed(self, log, left_out):
        """Numbers of the sites on lines of the mutated tree that an error of the compiler names."""
        lines = set()
        pattern = re.compile('^' + re.escape(str(self.root / FORWARD)) +
                             r'/?([^:\s]+):(\d+):\d+: (?:error:|  required from)', re.M)
        for match in pattern.finditer(log):
            lines.add((match[1], int(match[2])))
        references, others = set(), set()
        for name, of_file in self.sites.items():
            for number, site in of_file:
                first = self.texts[name].count(b'\n', 0, site.start) + 1
                last = first + self.texts[name].count(b'\n', site.start, site.end)
                if number not in left_out and any((name, line) in lines for line in range(first, last + 1)):
                    (references if site.kind in ('assignment', 'step') else others).add(number)
        # What takes its operand by reference fails most often, at a bit-field: the rest of the line gets another try.
        return references or others
