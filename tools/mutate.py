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

Exit status 0: every fault was seen.
"""

import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys

from mutants import FAULTS

SOURCE = pathlib.Path(__file__).resolve().parents[1]
SCRATCH = SOURCE / "build" / "mutate"
COPY, BUILD = SCRATCH / "source", SCRATCH / "build"
PAGE = SOURCE / "docs" / "testing.md"
BEGIN, END = "<!-- written by tools/mutate.py --markdown -->", "<!-- end -->"
SHOWN = 3  # tests that the page names per fault

# A fault may make a test run for ever.
MOST_SECONDS = 300
SLOW = 2  # seconds


def mutated(fault):
    """The file with the fault in it. The old text must be there, once."""
    text = (SOURCE / fault.file).read_text()
    count = text.count(fault.old)
    if count != 1:
        raise ValueError(f"{fault.name}: the text to replace is {count} times in {fault.file}:\n{fault.old}")
    return text.replace(fault.old, fault.new)


def run(*command, seconds=3600, **options):
    return subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", timeout=seconds, **options)


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
        if there.is_file() and str(there.relative_to(COPY)) not in wanted:
            there.unlink()


def build(jobs):
    """Empty, or what the compiler says."""
    built = run("ninja", "-C", BUILD, f"-j{jobs}", "unit-tests", "model-tests")
    return built.stdout if built.returncode else ""


def configure():
    done = run("cmake", "-S", COPY, "-B", BUILD, "-G", "Ninja", "-DCMAKE_CXX_COMPILER=clang++-16", "-DCMAKE_BUILD_TYPE=None",
               "-DCMAKE_CXX_FLAGS=-O0 -w", "-DPFENAT_TESTS=ON", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON")
    if done.returncode:
        sys.exit(done.stdout)


ENDED = re.compile(r"^\[ +(OK|FAILED) +\] ([\w./]+)(?:, where .*)? \((\d+) ms\)$", re.M)


def seen_by(program, run_only="*", leave_out=()):
    """The tests of one program that fail, in the order in which they ran, and the slow ones. What a test that stops the
    program keeps from running is run after it."""
    failed, slow, left_out = [], [], list(leave_out)
    while True:
        try:
            done = run(BUILD / "tests" / program, f"--gtest_filter={run_only}-{':'.join(left_out)}", cwd=COPY, seconds=MOST_SECONDS,
                       env=os.environ | {"RC_PARAMS": "noshrink=1"})
            output, status = done.stdout, done.returncode
        except subprocess.TimeoutExpired as late:
            output, status = (late.stdout or b"").decode(errors="replace"), None
        ended = ENDED.findall(output)
        failed += [test for result, test, _ in ended if result == "FAILED"]
        slow += [test for _, test, milliseconds in ended if int(milliseconds) > 1000 * SLOW]
        if status in (0, 1):
            return failed, slow
        started = re.findall(r"^\[ RUN      \] ([\w./]+)$", output, re.M)
        stopped = sorted(set(started) - {test for _, test, _ in ended})
        failed += stopped or [f"{program} does not start"]
        if status is None or not stopped or len(left_out) > 400:
            return failed, slow  # it hung, and may do so again
        left_out += started


def refused_by(said):
    """The tests that do not compile with the fault, which is seeing it as well; none when other code does not."""
    failed = re.findall(r"^FAILED: (\S+)", said, re.M)
    asserted = re.findall(r"^\S*/source/(tests/\S+?):\d+.* static assertion failed", said, re.M)
    return [f"static_assert in {pathlib.Path(name).name}" for name in sorted(set(asserted))] if len(failed) == len(set(asserted)) else []


def looked_at(fault, slow, arguments):
    """The tests that see the fault; None when it does not build."""
    (COPY / fault.file).write_text(mutated(fault))
    try:
        said = build(arguments.jobs)
        if said:
            if not refused_by(said):
                print(said[-3000:])
            return refused_by(said) or None
        tests, _ = seen_by("unit-tests", leave_out=slow)
        if slow and (arguments.all or not tests):
            tests += seen_by("unit-tests", run_only=":".join(slow))[0]
        if arguments.all or not tests:
            tests += seen_by("model-tests")[0]
        return tests
    finally:
        shutil.copyfile(SOURCE / fault.file, COPY / fault.file)


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


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--only", default="", help="faults whose names contain this text")
    parser.add_argument("--missing", action="store_true", help="faults that the list in docs/testing.md lacks")
    parser.add_argument("--all", action="store_true", help="name every test that sees a fault")
    parser.add_argument("--markdown", action="store_true", help="write what is found into the list in docs/testing.md")
    parser.add_argument("--check", action="store_true", help="only look whether the texts to replace are there")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    arguments = parser.parse_args()
    present = PAGE.read_text() if arguments.missing else ""
    faults = [fault for fault in FAULTS if arguments.only in fault.name and start_of(fault) not in present]
    try:
        for fault in faults:
            mutated(fault)
    except ValueError as lost:
        sys.exit(str(lost))
    print(f"{len(faults)} faults, all texts found")
    if arguments.check:
        return
    os.nice(10)
    copy_tree()
    configure()
    said = build(arguments.jobs)
    if said:
        sys.exit(said)
    failed, slow = seen_by("unit-tests")
    if failed:
        sys.exit(f"tests fail without any fault: {named(failed)}")
    results = []
    for number, fault in enumerate(faults, 1):
        tests = looked_at(fault, slow, arguments)
        results.append((fault, tests))
        if arguments.markdown and tests is not None:
            write_page([(fault, tests)])
        verdict = "DOES NOT BUILD" if tests is None else f"caught by {len(tests)}: {named(tests)}" if tests else "NOT CAUGHT"
        print(f"{number}/{len(faults)} {pathlib.Path(fault.file).name}: {fault.name}: {verdict}", flush=True)
    unbuilt = sum(tests is None for _, tests in results)
    unseen = sum(tests == [] for _, tests in results)
    print(f"{len(results)} faults: {len(results) - unbuilt - unseen} caught, {unseen} not caught, {unbuilt} do not build")
    sys.exit(1 if unbuilt or unseen else 0)


main()
