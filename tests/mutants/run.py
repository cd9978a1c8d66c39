#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Puts one thing wrong in a module of src/ and sees whether a test tells: see --help."""

import argparse
import collections
import concurrent.futures
import contextlib
import dataclasses
import hashlib
import json
import os
import pathlib
import queue
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

import mutations

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Mutants that nobody can tell from the original: the file, the line and that before, the change, and why. Others
# take their place.
EQUIVALENT = ROOT / "tests/mutants/equivalent.tsv"

# The part of a module's mutants that has to be caught.
GOAL = 0.85

# How often a test may fail, and then pass by itself, before it is taken to pass.
TRIES = 3

LEFT = "left"
BROKEN = "does not compile"

# Which tests/unit/test-NAME.cpp tries the module, where there is none of its name, or more than that.
UNIT = {
    "context": ("context", "dbus", "loop"),
    "dbus-get": ("dbus-cb", "dbus"),
    "dbus-property": ("dbus-cb", "dbus-set"),
    "event": ("pcm-event", "source", "dbus-cb"),
    "event-status": ("loop", "dbus-methods", "dbus"),
    "log": (),
    "main": (),
    "owned": ("conf", "metrics", "private-bus"),
    "pod-build": ("pod",),
    "stream-retire": ("pcm",),
    "text-writer": ("pod", "props"),
}

# Linked from the static library, so they try every module but main.
SLOW_UNIT = ("faults",)

# Which tests/integration/test_NAME.py tries the module.
INTEGRATION = {
    "assert": ("plugins",),
    "atomic-file": ("faults_files", "writes"),
    "authorization": ("rights",),
    "conf": ("discovery", "settings"),
    "context": ("life", "nodes"),
    "dbus": ("tree", "events"),
    "dbus-cb": ("tree", "properties"),
    "dbus-get": ("properties", "tree"),
    "dbus-methods": ("tree", "links"),
    "dbus-property": ("properties", "writes"),
    "dbus-set": ("writes", "rights"),
    "event": ("events", "bad_input"),
    "event-status": ("private_bus", "events"),
    "feature-flag": ("feature_flag",),
    "log": ("start",),
    "loop": ("private_bus", "limits"),
    "main": ("start", "faults_start", "feature_flag"),
    "metadata": ("metadata",),
    "metrics": ("metrics",),
    "node-pattern": ("nodes",),
    "owned": ("life", "rounds"),
    "parse": ("properties", "writes"),
    "pcm": ("stream",),
    "pcm-event": ("events",),
    "pcm-format": ("stream",),
    "plugin": ("plugins", "discovery"),
    "pod": ("events", "bad_input"),
    "pod-build": ("settings", "writes"),
    "private-bus": ("private_bus", "limits"),
    "props": ("settings", "properties"),
    "pw-source": ("nodes", "links"),
    "refcount": ("tree", "nodes"),
    "registry": ("nodes", "metadata"),
    "source": ("nodes", "stream"),
    "source-name": ("nodes", "links"),
    "source-settings": ("settings", "writes"),
    "stream-retire": ("stream", "nodes"),
    "text-writer": ("properties", "events"),
    "utf8": ("bad_input",),
}

# What the integration tests run that has something of src/ in it.
PROGRAMS = ("src/hear-sense", "tests/unit/hear-sense-failing", "tests/plugins/hs-write-file")

# What they load and run besides.
PLUGINS = (
    "tests/plugins/hs-export-metadata",
    "tests/plugins/libspa-hs-scripted.so",
    "tests/plugins/libspa-hs-tone.so",
    "tests/plugins/vetto2-double/libvetto2.so.2.0.0",
)

# What the unit tests load.
UNIT_LIBRARY = "tests/unit/libspa-hs-unit-test.so"

OPTIONS = (
    "-Doptimization=0",
    "-Ddebug=false",
    "-Dwerror=false",
    *(f"-D{name}=disabled" for name in ("alarm", "hs_plugin", "hsctl", "loudness", "man", "vamp", "voice")),
)

# What is never freed shows nowhere else.
SANITIZED = ("-Db_sanitize=address", "-Db_lundef=false")

# The same of what has no unit tests, as in test.sh.
WITH_VALGRIND = ("life",)
VALGRIND = "valgrind --quiet --leak-check=full --errors-for-leak-kinds=definite,possible --error-exitcode=97"

# In this order; each kind tries what the one before has left.
KINDS = ("unit", "others", "sanitized", "integration")


def sources():
    """What belongs to the sources, as git sees it."""
    command = ["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    listed = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    return [path for path in listed.split("\0") if path and (ROOT / path).is_file()]


class Bench:
    """A copy of the sources with build folders of its own."""

    def __init__(self, folder, kinds, modules, seconds):
        self.root = folder / "source"
        self.build_folder = self.root / "build"
        self.sanitized_folder = self.root / "build-sanitized"
        self.kinds = kinds
        # How long each test took when nothing was wrong; all benches know.
        self.seconds = seconds
        self.bring_sources()
        own = sorted({name for module in modules for name in own_units(module)})
        if {"unit", "others"} & {*kinds}:
            names = unit_tests() if "others" in kinds else own
            self.set_up(self.build_folder, (*targets(names), UNIT_LIBRARY), OPTIONS)
        if "integration" in kinds:
            self.set_up(self.build_folder, (*PROGRAMS, *PLUGINS), OPTIONS)
        if "sanitized" in kinds:
            environment = {"CC": "clang-14", "CXX": "clang++-14"}
            self.set_up(self.sanitized_folder, (*targets(own), UNIT_LIBRARY), (*OPTIONS, *SANITIZED), environment)

    def bring_sources(self):
        """Files that are there and the same keep their times, so that little is built again."""
        for path in sources():
            copy = self.root / path
            copy.parent.mkdir(parents=True, exist_ok=True)
            if not copy.exists() or copy.read_bytes() != (ROOT / path).read_bytes():
                shutil.copyfile(ROOT / path, copy)
                copy.chmod((ROOT / path).stat().st_mode)

    def set_up(self, build_folder, goals, options, environment={}):
        if not (build_folder / "build.ninja").exists():
            command = ["meson", "setup", "--prefix=/usr", *options, build_folder, self.root]
            done = subprocess.run(command, env=os.environ | environment, capture_output=True, text=True)
            if done.returncode != 0:
                sys.exit(f"The build folder could not be set up:\n{done.stdout}{done.stderr}")
        done = ninja(build_folder, goals)
        if done.returncode != 0:
            sys.exit(f"The sources do not build:\n{done.stdout[-5000:]}")

    def run(self, name, command):
        """Status and output; the status is None where it took far longer than ever before."""
        limit = 20 + 4 * self.seconds[name] if name in self.seconds else 900
        environment = os.environ | {"HS_BUILD_DIR": str(self.build_folder), "PYTHONDONTWRITEBYTECODE": "1"}
        begin = time.monotonic()
        with tempfile.TemporaryFile("w+", errors="replace") as output:
            process = subprocess.Popen(
                command,
                cwd=self.root,
                env=environment,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
                start_new_session=True,
            )
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                status = None
                # pytest then takes its servers away.
                process.send_signal(signal.SIGINT)
                try:
                    process.wait(20)
                except subprocess.TimeoutExpired:
                    pass
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()
            output.seek(0)
            text = output.read()
        self.seconds.setdefault(name, time.monotonic() - begin)
        return status, text

    def catches(self, name, command, failed, again):
        """
        Who fails in the test program `name`; None where all pass. Who fails has to fail again by himself, so that
        a busy machine catches nothing. `failed` finds their names, `again` is the command with only them.
        """
        for _ in range(TRIES):
            status, text = self.run(name, command)
            if status == 0:
                return None
            names = re.findall(failed, text)
            status, _ = self.run(name, again(names) if names else command)
            if status is None:
                return f"{name}: too slow"
            if status != 0:
                return f"{name}: {names[0] if names else 'ended badly'}"
        return None

    def unit(self, name):
        return self.program(f"test-{name}", self.build_folder)

    def sanitized(self, name):
        return self.program(f"test-{name}", self.sanitized_folder)

    def program(self, name, folder):
        program = folder / "tests/unit" / name
        return self.catches(
            name if folder == self.build_folder else f"{name} with AddressSanitizer",
            [program, "--gtest_brief=1"],
            r"(?m)^\[  FAILED  \] (\S+?)(?:, where.*)? \(\d+ ms\)$",
            lambda names: [program, "--gtest_brief=1", "--gtest_filter=" + ":".join(names)],
        )

    def integration(self, name, *options):
        command = ["/usr/bin/python3", "-m", "pytest", "-p", "no:cacheprovider", "-q", "-x", *options]
        path = f"tests/integration/test_{name}.py"
        return self.catches(
            f"{path} with valgrind" if options else path,
            [*command, path],
            rf"(?m)^(?:FAILED|ERROR) {path}::(.+?)(?: - .*)?$",
            lambda names: [*command, *(f"{path}::{name}" for name in names)],
        )

    def valgrind(self, name):
        return self.integration(name, f"--daemon-wrapper={VALGRIND}")

    def steps(self, module):
        """The kind of tests, what to build for them, who tries them, and which."""
        own = own_units(module)
        if "unit" in self.kinds:
            yield "unit", self.build_folder, targets(own), self.unit, own
        if "others" in self.kinds and module != "main":
            others = [name for name in unit_tests() if name not in own]
            yield "others", self.build_folder, targets(others), self.unit, others
        if "sanitized" in self.kinds and own:
            yield "sanitized", self.sanitized_folder, targets(own), self.sanitized, own
        if "integration" in self.kinds:
            yield "integration", self.build_folder, PROGRAMS, self.integration, INTEGRATION[module]
            if not own:
                yield "integration", self.build_folder, PROGRAMS, self.valgrind, WITH_VALGRIND

    def verdict(self, module):
        """Tries what stands in the copy now."""
        for kind, folder, goals, try_one, names in self.steps(module):
            if names and ninja(folder, goals).returncode != 0:
                return BROKEN
            for name in names:
                if caught := try_one(name):
                    return f"{kind}: {caught}"
        return LEFT

    def try_mutant(self, module, mutant):
        copy = self.root / mutant.path
        source = copy.read_text(encoding="utf-8")
        mutation = mutant.mutation
        copy.write_text(source[: mutation.begin] + mutation.new + source[mutation.end :], encoding="utf-8")
        try:
            return self.verdict(module)
        finally:
            copy.write_text(source, encoding="utf-8")


def ninja(folder, goals):
    return subprocess.run(["ninja", "-C", folder, *goals], capture_output=True, text=True)


def own_units(module):
    return UNIT.get(module, (module,))


def targets(names):
    return tuple(f"tests/unit/test-{name}" for name in names)


def unit_tests():
    """All that try a module of src/, the slowest last."""
    modules = {path.stem for path in (ROOT / "src").glob("*.cpp")}
    names = {path.stem.removeprefix("test-") for path in (ROOT / "tests/unit").glob("test-*.cpp")}
    return sorted(names & modules) + list(SLOW_UNIT)


def all_modules():
    """Those with something that can be put wrong."""
    paths = (ROOT / "src").glob("*.[ch]pp")
    return sorted({path.stem for path in paths if mutations.find(path.read_text(encoding="utf-8"))})


class Results:
    """What was found, kept in a file as well, from which a later run takes what is caught already."""

    def __init__(self, path):
        self.path = path
        self.lock = threading.Lock()
        self.verdicts = {}
        if path and path.exists():
            for line in path.read_text(encoding="utf-8").splitlines():
                row = json.loads(line)
                self.verdicts[row["key"]] = row["verdict"]

    def add(self, mutant, verdict):
        with self.lock:
            self.verdicts[mutant.key] = verdict
            if verdict != BROKEN:
                print(f"{mutant}\n    {verdict}", flush=True)
            if self.path:
                with self.path.open("a", encoding="utf-8") as file:
                    row = {"key": mutant.key, "mutant": str(mutant), "verdict": verdict}
                    file.write(json.dumps(row) + "\n")


def equivalents():
    lines = EQUIVALENT.read_text(encoding="utf-8").splitlines()
    return {tuple(line.split("\t")[:3]) for line in lines}


@dataclasses.dataclass
class Mutant:
    mutation: mutations.Mutation
    # From the root of the sources.
    path: str
    line: int
    # That line and the one before.
    code: str
    # Names it as long as the source stays as it is.
    key: str

    def __str__(self):
        return f"{self.path}:{self.line}: {self.mutation.what}"


def sample(root, module, seed):
    """All mutants of the module but the equivalent ones, in random order."""
    found = []
    for path in (f"src/{module}.cpp", f"src/{module}.hpp"):
        if not (root / path).exists():
            continue
        source = (root / path).read_text(encoding="utf-8")
        digest = hashlib.sha256(source.encode()).hexdigest()[:12]
        lines = source.splitlines()
        for mutation in mutations.find(source):
            line = source.count("\n", 0, mutation.begin) + 1
            key = f"{path} {digest} {mutation.begin} {mutation.end} {mutation.new}"
            code = " ".join(text.strip() for text in lines[max(line - 2, 0) : line])
            found.append(Mutant(mutation, path, line, code, key))
    random.Random(f"{seed} {module}").shuffle(found)
    left_out = equivalents()
    return [mutant for mutant in found if (mutant.path, mutant.code, mutant.mutation.what) not in left_out]


def try_module(bench, module, arguments, results):
    """The verdicts of the first mutants that compile; without a bench as far as they are known."""
    verdicts = []
    for mutant in sample(bench.root if bench else ROOT, module, arguments.seed):
        if len(verdicts) == arguments.count:
            break
        verdict = results.verdicts.get(mutant.key, LEFT)
        if verdict == LEFT and bench:
            verdict = bench.try_mutant(module, mutant)
            results.add(mutant, verdict)
        if verdict != BROKEN:
            verdicts.append(verdict)
    return verdicts


def with_bench(benches, do):
    """What `do` makes of its arguments and a bench that is free."""

    def call(*arguments):
        bench = benches.get()
        try:
            return do(bench, *arguments)
        finally:
            benches.put(bench)

    return call


def set_up(pool, folder, arguments, modules):
    """The benches, after everything has passed on them: a test that fails anyway says nothing of a mutant."""
    print("Building with nothing put wrong", flush=True)
    seconds = {}
    benches = queue.SimpleQueue()

    def make_bench(number):
        return Bench(folder / str(number), arguments.tests, modules, seconds)

    for bench in pool.map(make_bench, range(arguments.jobs)):
        benches.put(bench)
    print("Trying the tests with nothing put wrong", flush=True)
    own = {name for module in modules for name in own_units(module)}
    integration = {name for module in modules for name in INTEGRATION[module]}
    units = unit_tests() if "others" in arguments.tests else sorted(own)
    tries = [(Bench.unit, name) for name in units if {"unit", "others"} & {*arguments.tests}]
    tries += [(Bench.sanitized, name) for name in sorted(own) if "sanitized" in arguments.tests]
    tries += [(Bench.integration, name) for name in sorted(integration) if "integration" in arguments.tests]
    if "integration" in arguments.tests and any(not own_units(module) for module in modules):
        tries += [(Bench.valgrind, name) for name in WITH_VALGRIND]
    for failed in pool.map(with_bench(benches, lambda bench, test: test[0](bench, test[1])), tries):
        if failed:
            sys.exit(f"This fails with nothing put wrong: {failed}")
    return benches


def print_table(rows):
    print("\n| Module | Mutants | Unit tests | Other unit tests | Sanitized | Integration tests | Left |")
    print("| --- | ---: | ---: | ---: | ---: | ---: | ---: |")
    total = collections.Counter()
    for module, verdicts in rows.items():
        kinds = collections.Counter(verdict.split(":")[0] for verdict in verdicts)
        print_row(f"`{module}`", kinds)
        total += kinds
    print_row("all", total)


def print_row(name, kinds):
    print("|", " | ".join([name, *(str(n) for n in (kinds.total(), *(kinds[kind] for kind in (*KINDS, LEFT))))]), "|")


def parse_arguments():
    parser = argparse.ArgumentParser(
        formatter_class=argparse.RawDescriptionHelpFormatter,
        description=f"""\
Puts one thing wrong in a module of src/, builds it and runs tests until one fails: the module's own unit
tests, the other unit tests, its own with AddressSanitizer, its integration tests. Does so for a random sample
of each MODULE, all without one. Works on a copy. Prints two lines for each mutant, then a table; ends with
status 1 where fewer than {GOAL:.0%} of a module's mutants were caught. A mutant that does not compile is
replaced by another, as is one of equivalent.tsv, which nobody can tell from the original.""",
    )
    parser.add_argument("modules", metavar="MODULE", nargs="*", help="loop, say, for src/loop.cpp and src/loop.hpp")
    parser.add_argument("--seed", type=int, default=1, metavar="N", help="another sample; the same one each time (1)")
    parser.add_argument("--count", type=int, default=10, metavar="N", help="mutants of each module (10)")
    parser.add_argument("--jobs", type=int, default=2, metavar="N", help="modules at a time (2)")
    parser.add_argument(
        "--results",
        type=pathlib.Path,
        metavar="FILE",
        help="adds to this file what is found, and leaves out what it has as caught already",
    )
    parser.add_argument(
        "--tests",
        choices=KINDS,
        help="only these; the others then try what is left, in another run with the same results",
    )
    parser.add_argument(
        "--folder", type=pathlib.Path, metavar="FOLDER", help="builds there, and leaves it for another run"
    )
    parser.add_argument("--list", action="store_true", help="prints the sample without trying it")
    arguments = parser.parse_args()
    for module in arguments.modules:
        if module not in all_modules():
            parser.error(f"there is no module {module} with code: {', '.join(all_modules())}")
    arguments.modules = arguments.modules or all_modules()
    arguments.tests = (arguments.tests,) if arguments.tests else KINDS
    return arguments


def main():
    arguments = parse_arguments()
    if arguments.list:
        for module in arguments.modules:
            for mutant in sample(ROOT, module, arguments.seed)[: arguments.count]:
                print(mutant)
        return
    results = Results(arguments.results)
    rows = {module: try_module(None, module, arguments, results) for module in arguments.modules}
    unfinished = [module for module, verdicts in rows.items() if LEFT in verdicts]
    with contextlib.ExitStack() as stack:
        folder = arguments.folder or stack.enter_context(tempfile.TemporaryDirectory(prefix="hs-mutants-"))
        pool = stack.enter_context(concurrent.futures.ThreadPoolExecutor(arguments.jobs))
        benches = set_up(pool, pathlib.Path(folder).resolve(), arguments, unfinished)
        try_one = with_bench(benches, lambda bench, module: try_module(bench, module, arguments, results))
        rows |= zip(unfinished, pool.map(try_one, unfinished))
    print_table(rows)
    poor = [module for module, verdicts in rows.items() if verdicts.count(LEFT) > (1 - GOAL) * len(verdicts)]
    if poor:
        sys.exit(f"Too few were caught: {', '.join(poor)}")


if __name__ == "__main__":
    main()
