# SPDX-License-Identifier: GPL-2.0-only
"""Runs the tests on one mutant after the other, keeps what came out, and reads the table of explained ones."""

import json
import math
import os
import re
import signal
import subprocess
import threading

from tree import digest

KILLED, TIMEOUT, SURVIVED, NOT_BUILT = 'killed', 'timeout', 'survived', 'not built'
# Tests of a program that run first, in microseconds of their time without a mutant: most mutants
# end here.
QUICK = 50_000
# Random tests are the same for every mutant, and short: they run for each survivor.
RANDOM = {'SEED': '1', 'STEPS': '4000'}


class Results:
    """What came out, by the key of the mutant: one line of a file for each, so that a run can be interrupted."""

    def __init__(self, path):
        self.path = path
        self.kept = {}
        self.lock = threading.Lock()
        if path.exists():
            for line in path.read_text().splitlines():
                try:
                    entry = json.loads(line)
                except ValueError:
                    continue  # cut off where a run was interrupted
                self.kept[entry['key']] = entry
            path.write_text(''.join(json.dumps(entry) + '\n' for entry in self.kept.values()))

    def get(self, key):
        return self.kept.get(key)

    def put(self, entry):
        with self.lock:
            self.kept[entry['key']] = entry
            with self.path.open('a') as out:
                out.write(json.dumps(entry) + '\n')


class Tests:
    """The test programs: which tests reach which mutant, and what their sources are."""

    def __init__(self, source, build, programs, sanitize):
        self.source = source
        self.programs = programs
        self.sanitize = sanitize
        self.reach = {}  # number -> {program: [(microseconds, test)]}
        self.digests = {}
        self.read_sources()
        for name, path in programs.items():
            self.record(name, path, build / ('reach-asan' if sanitize else 'reach'))

    def read_sources(self):
        host = self.source / 'tests/host'
        files = {path: path.read_bytes() for folder in (host, self.source / 'tests/contract')
                 for path in sorted(folder.rglob('*')) if path.is_file() and path.suffix in ('.cc', '.h', '.txt')}
        own, shared = {}, []
        for path, text in files.items():
            if path.name.endswith('_test.cc'):
                place = path.relative_to(host)
                own.setdefault('_'.join([*place.parts[:-1], place.stem]), []).append(text)
                own.setdefault(place.stem, []).append(text)
            elif path.name != 'CMakeLists.txt':
                shared.append(text)
        for name in self.programs:
            texts = own.get(name) or [text for path, text in files.items() if path.name.endswith('_test.cc')]
            self.digests[name] = digest(*shared, *texts)

    def environment(self, **more):
        clean = {name: value for name, value in os.environ.items()
                 if not name.startswith(('GTEST_', 'MOX_MUTANT')) and name != 'RULES'}
        return clean | {'MOX_ROOT': str(self.source)} | RANDOM | more

    def record(self, name, path, folder):
        folder.mkdir(parents=True, exist_ok=True)
        built = path.stat()
        kept = folder / f'{name}-{built.st_mtime_ns}-{built.st_size}'
        if not kept.exists():
            for old in folder.glob(f'{name}-[0-9]*'):
                old.unlink()
            part = folder / f'{name}.part'
            part.unlink(missing_ok=True)
            run = subprocess.run([path], env=self.environment(MOX_MUTANT_REACHED=str(part)), capture_output=True,
                                 timeout=600)
            if run.returncode:
                print(run.stdout.decode(errors='replace')[-4000:])
                raise SystemExit(f'run: {name} fails without any mutant; make tests/host/run pass first')
            part.touch()  # a program without the module writes none
            part.rename(kept)
        tests, before = [], set()
        for line in kept.read_text().splitlines():
            test, spent, numbers = line.split('\t')
            numbers = {int(number) for number in numbers.split()}
            if test:
                tests.append((int(spent), test, numbers))
            else:
                before = numbers
        for spent, test, numbers in tests:
            for number in numbers | before:
                self.reach.setdefault(number, {}).setdefault(name, []).append((spent, test))


class Trial:
    def __init__(self, tests, units, results):
        self.tests = tests
        self.results = results
        # The test programs of a unit have its name, or it and a further word: the longest name counts.
        self.owner = {}
        names = sorted({name.rsplit('.', 1)[0] for name in units}, key=len, reverse=True)
        for program in tests.programs:
            for unit in names:
                if re.match(re.escape(unit.replace('/', '_')) + '_', program):
                    self.owner[program] = unit
                    break

    def stages(self, mutant):
        """Programs that reach a mutant: of its own unit, of its area, all others; short ones first."""
        area = mutant.file.split('/')[0] + '_'

        def order(item):
            program, tests = item
            stage = 0 if self.owner.get(program) == mutant.unit else 1 if program.startswith(area) else 2
            return stage, sum(spent for spent, _ in tests)

        return sorted(self.tests.reach.get(mutant.number, {}).items(), key=order)

    def known(self, mutant, sanitized=False):
        """The kept result where it still counts, else None."""
        kept = self.results.get(self.key(mutant, sanitized or self.tests.sanitize))
        if not kept:
            return None
        now, reaching = self.tests.digests, self.tests.reach.get(mutant.number, {})
        if kept['result'] == NOT_BUILT:
            return None if reaching else kept
        needed = reaching if kept['result'] == SURVIVED else [kept['by']]
        return kept if all(name in now and kept['programs'].get(name) == now[name] for name in needed) else None

    @staticmethod
    def key(mutant, sanitized):
        return mutant.key + ('+sanitized' if sanitized else '')

    def run(self, mutant):
        """Tries one mutant and keeps the result."""
        key = self.key(mutant, self.tests.sanitize)
        kept = self.results.get(key) or {}
        stages = self.stages(mutant)
        tried = kept.get('programs', {}) if kept.get('result') == SURVIVED else {}
        now = self.tests.digests
        entry = {'key': key, 'mutant': f'{mutant.file}:{mutant.line}: {mutant.mutation}', 'by': '',
                 'reached': bool(stages), 'programs': {name: now[name] for name, _ in stages}}
        if not stages:
            # What the compiler evaluates cannot be chosen at run time.
            entry['result'] = NOT_BUILT if mutant.site.constant else SURVIVED
        # The program that killed it before most likely does so again.
        stages.sort(key=lambda item: item[0] != kept.get('by'))
        for name, tests in stages:
            if tried.get(name) == now[name]:
                continue
            result = self.program(mutant.number, name, sorted(tests))
            if result != SURVIVED:
                entry |= {'result': result, 'by': name, 'programs': {name: now[name]}}
                break
        entry.setdefault('result', SURVIVED)
        self.results.put(entry)
        return entry

    def program(self, number, name, tests):
        quick, spent = [], 0
        while tests and spent + tests[0][0] <= QUICK:
            spent += tests[0][0]
            quick.append(tests.pop(0))
        for some in (quick, tests):
            if some:
                result = self.attempt(number, name, some)
                if result != SURVIVED:
                    return result
        return SURVIVED

    def attempt(self, number, name, tests):
        expected = sum(spent for spent, _ in tests) / 1e6
        seconds = math.ceil(2 + 10 * expected)
        env = self.tests.environment(
            MOX_MUTANT=str(number), MOX_MUTANT_SECONDS=str(seconds), GTEST_FAIL_FAST='1', GTEST_BRIEF='1',
            GTEST_FILTER=':'.join(test for _, test in tests), ASAN_OPTIONS='detect_leaks=0')
        with subprocess.Popen([self.tests.programs[name]], env=env, stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as process:
            try:
                # Much longer than its CPU time: other work may share the processor, or a test sleeps for good.
                status = process.wait(timeout=30 + 10 * seconds)
            except subprocess.TimeoutExpired:
                process.kill()
                return TIMEOUT
        return SURVIVED if status == 0 else TIMEOUT if status == -signal.SIGXCPU else KILLED


class Explained:
    """The table of survivors that make no difference: file, line, mutation, reason."""

    def __init__(self, path):
        self.path = path
        self.entries = {}  # (file, line, mutation) -> number of the line in the table
        self.errors = []
        lines = path.read_text().splitlines() if path.exists() else []
        for number, line in enumerate(lines, 1):
            if not line or line.startswith('#'):
                continue
            cells = line.split('\t')
            if len(cells) != 4 or not all(cell.strip() for cell in cells):
                self.error(number, 'an entry is a file, a line, a mutation and a reason, with TABs between')
            elif tuple(cells[:3]) in self.entries:
                self.error(number, 'a second entry of this mutant')
            else:
                self.entries[tuple(cells[:3])] = number

    def error(self, number, text):
        self.errors.append(f'{self.path.name}:{number}: {text}')

    @staticmethod
    def key(mutant):
        return mutant.file, mutant.context, mutant.mutation

    def check(self, mutants, results):
        """All mutants of the module, and results by number of those that were tried."""
        matching = {}
        for mutant in mutants:
            matching.setdefault(self.key(mutant), []).append(mutant)
        for key, number in self.entries.items():
            of = matching.get(key)
            if not of:
                self.error(number, f'no such mutant of {key[0]}: {key[2]}; remove the entry or correct it')
                continue
            came = [results.get(mutant.number) for mutant in of]
            if all(came) and not any(entry['result'] == SURVIVED for entry in came):
                self.error(number, f'{key[2]} is {came[0]["result"]}'
                           f'{" by " + came[0]["by"] if came[0]["by"] else ""}; remove the entry')
