#!/usr/bin/env python3
"""Puts known faults into the code, one at a time, and tells which tests see them.

Works in a copy of the source tree (build/mutate) that is built without optimisation and sanitizers, which finds the same
and takes a fraction of the time. The unit tests run first; slow ones and random histories only where no other saw the
fault.

    tools/mutate.py                          every fault of tools/mutants.py
    tools/mutate.py --only bitmap            those whose names contain the text
    tools/mutate.py --missing                those that the list in docs/testing.md lacks
    tools/mutate.py --all                    names every test that sees a fault, histories too
    tools/mutate.py --markdown               writes what it finds into the list in docs/testing.md
    tools/mutate.py --check                  only looks whether the texts to replace are there

A fault may keep a test from ever ending: one that takes far longer than without the fault is stopped, and has seen it.

Exit status 0: every fault was seen.
"""

import argparse
import contextlib
import functools
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import sys
import threading

from mutants import FAULTS

SOURCE = pathlib.Path(__file__).resolve().parents[1]
COPY = SOURCE / "build" / "mutate"
BUILD = COPY / "build" / "mutate"  # as deep as a preset's, so that ccache takes its objects for these
PAGE = SOURCE / "docs" / "testing.md"
BEGIN, END = "<!-- written by tools/mutate.py --markdown -->", "<!-- end -->"
SHOWN = 3  # tests that the page names per fault

SLOW = 2  # seconds
LEAST_LIMIT, FIRST_LIMIT = 60, 1200  # seconds that any test may take; while it is not known how long it takes
TIMES_AS_LONG = 3  # as without a fault
MEMORY = 8 << 30  # bytes: a test that runs for ever may also fill the memory for ever


def read(fault):
    file = SOURCE / fault.file
    return file.read_text() if file.exists() else ""


def applies(fault):
    return read(fault).count(fault.old) == 1


def run(*command, **options):
    return subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", **options)


def copy_tree():
    """What has changed since the last time, and nothing that is gone."""
    listed = run("git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", cwd=SOURCE).stdout.split("\0")
    wanted = {name for name in listed if name and (SOURCE / name).is_file()}
    for name in wanted:
        there = COPY / name
        if not there.exists() or there.read_bytes() != (SOURCE / name).read_bytes():
            there.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(SOURCE / name, there)
    for there in COPY.rglob("*"):
        if there.is_file() and BUILD not in there.parents and str(there.relative_to(COPY)) not in wanted:
            there.unlink()


def build(program):
    """Empty, or what the compiler says."""
    built = run("ninja", "-C", BUILD, f"-j{arguments.jobs}", program)
    return built.stdout if built.returncode else ""


def configure():
    done = run("cmake", "-S", COPY, "-B", BUILD, "-G", "Ninja", "-DCMAKE_CXX_COMPILER=clang++-16", "-DCMAKE_BUILD_TYPE=None",
               "-DCMAKE_CXX_FLAGS=-O0 -w", "-DPFENAT_TESTS=ON", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON")
    if done.returncode:
        sys.exit(done.stdout)


STARTED = re.compile(r"\[ RUN      \] ([\w./]+)")
ENDED = re.compile(r"\[ +(OK|FAILED) +\] ([\w./]+)(?:, where .*)? \((\d+) ms\)")


class Run:
    """One start of a test program: how its tests ended, and which one did not."""

    def __init__(self, program, chosen, limits):
        self.ended, self.started, self.timed_out = {}, [], False
        self.process = subprocess.Popen(
            [BUILD / "tests" / program, f"--gtest_filter={chosen}"], cwd=COPY, env=os.environ | {"RC_PARAMS": "noshrink=1"},
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace", start_new_session=True)
        resource.prlimit(self.process.pid, resource.RLIMIT_AS, (MEMORY, MEMORY))
        clock = self.clock(LEAST_LIMIT)
        for line in self.process.stdout:
            if starts := STARTED.match(line):
                self.started.append(starts[1])
                limit = max(LEAST_LIMIT, TIMES_AS_LONG * limits[starts[1]]) if starts[1] in limits else FIRST_LIMIT
            elif ends := ENDED.match(line):
                self.ended[ends[2]] = ends[1] == "OK", int(ends[3]) / 1000
                limit = LEAST_LIMIT
            else:
                continue
            clock.cancel()
            clock = self.clock(limit)
        clock.cancel()
        self.status = self.process.wait()

    def clock(self, seconds):
        clock = threading.Timer(seconds, self.stop)
        clock.daemon = True
        clock.start()
        return clock

    def stop(self):
        """Ends the program with whatever it has started."""
        self.timed_out = True
        os.killpg(self.process.pid, signal.SIGKILL)


def seen_by(program, run_only="*", leave_out=(), limits={}):
    """The tests of one program that fail, in the order in which they ran, and how long those took that ended. What a test
    that stops the program keeps from running is run after it; not so after one that has to be stopped, as others may have
    to be as well."""
    failed, seconds, left_out = [], {}, list(leave_out)
    while True:
        run = Run(program, f"{run_only}-{':'.join(left_out)}", limits)
        failed += [test for test, (passed, _) in run.ended.items() if not passed]
        seconds |= {test: taken for test, (_, taken) in run.ended.items()}
        stopped = [test for test in run.started if test not in run.ended]
        if run.timed_out:
            return failed + ["timed out: " + (stopped or [program])[0]], seconds
        if run.status in (0, 1):
            return failed, seconds
        failed += stopped or [f"{program} does not start"]
        if not stopped or len(left_out) > 400:
            return failed, seconds
        left_out += run.started


def refused_by(said):
    """The tests that do not compile with the fault, which is seeing it as well; none when other code does not."""
    failed = re.findall(r"^FAILED: (\S+)", said, re.M)
    asserted = re.findall(r"^\S*/(tests/\S+?):\d+.* static assertion failed", said, re.M)
    return [f"static_assert in {pathlib.Path(name).name}" for name in sorted(set(asserted))] if len(failed) == len(set(asserted)) else []


@functools.cache
def seconds_of(program):
    """How long the tests of a program take without any fault; they have to pass."""
    said = build(program)
    if said:
        sys.exit(said)
    failed, seconds = seen_by(program)
    if failed:
        sys.exit(f"tests fail without any fault: {named(failed)}")
    return seconds


@contextlib.contextmanager
def put_in(fault):
    (COPY / fault.file).write_text(read(fault).replace(fault.old, fault.new))
    try:
        yield
    finally:
        shutil.copyfile(SOURCE / fault.file, COPY / fault.file)


def looked_at(fault):
    """The tests that see the fault; None when it does not build."""
    tests = []
    for program in "unit-tests", "model-tests":
        limits = seconds_of(program)
        slow = [test for test, seconds in limits.items() if seconds > SLOW]
        with put_in(fault):
            said = build(program)
            if said:
                if not refused_by(said):
                    print(said[-3000:])
                return refused_by(said) or None
            tests += seen_by(program, leave_out=slow, limits=limits)[0]
            if slow and (arguments.all or not tests):
                tests += seen_by(program, run_only=":".join(slow), limits=limits)[0]
        if tests and not arguments.all:
            break
    return tests


def named(tests):
    more = len(tests) - SHOWN
    return ", ".join(f"`{test}`" for test in tests[:SHOWN]) + (f" and {more} more" if more > 0 else "")


def write_page(results):
    """Faults that were not looked at this time keep their lines."""
    before, _, rest = PAGE.read_text().partition(BEGIN)
    written, _, after = rest.partition(END)
    lines = dict(re.findall(r"^(\| `[^|]*\| [^|]* )(\|.*)$", written, re.M))
    news = {start_of(fault): f"| {named(tests) or '**nothing**'} |" for fault, tests in results}
    rows = [start + (lines | news)[start] for start in map(start_of, FAULTS) if start in lines | news]
    PAGE.write_text("\n".join([before + BEGIN, "| where | fault | seen by |", "|---|---|---|", *rows, END + after]))


def start_of(fault):
    return f"| `{pathlib.Path(fault.file).name}` | {fault.name} "


def read_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--only", default="", help="faults whose names contain this text")
    parser.add_argument("--missing", action="store_true", help="faults that the list in docs/testing.md lacks")
    parser.add_argument("--all", action="store_true", help="name every test that sees a fault")
    parser.add_argument("--markdown", action="store_true", help="write what is found into the list in docs/testing.md")
    parser.add_argument("--check", action="store_true", help="only look whether the texts to replace are there")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    return parser.parse_args()


def main():
    present = PAGE.read_text() if arguments.missing else ""
    faults = [fault for fault in FAULTS if arguments.only in fault.name and start_of(fault) not in present]
    lost = [fault for fault in faults if not applies(fault)]
    for fault in lost:
        print(f"{fault.file}: {fault.name}: the text to replace is there {read(fault).count(fault.old)} times, not once:\n{fault.old}")
    print(f"{len(faults)} faults, {len(lost)} of them no longer apply")
    if lost:
        sys.exit(1)
    if arguments.check:
        return
    os.nice(10)
    copy_tree()
    configure()
    results = []
    for number, fault in enumerate(faults, 1):
        tests = looked_at(fault)
        results.append((fault, tests))
        if arguments.markdown and tests is not None:
            write_page([(fault, tests)])
        verdict = "DOES NOT BUILD" if tests is None else f"caught by {len(tests)}: {named(tests)}" if tests else "NOT CAUGHT"
        print(f"{number}/{len(faults)} {pathlib.Path(fault.file).name}: {fault.name}: {verdict}", flush=True)
    unbuilt = sum(tests is None for _, tests in results)
    unseen = sum(tests == [] for _, tests in results)
    print(f"{len(results)} faults: {len(results) - unbuilt - unseen} caught, {unseen} not caught, {unbuilt} do not build")
    sys.exit(1 if unbuilt or unseen else 0)


arguments = read_arguments()
main()
