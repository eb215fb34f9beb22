#!/usr/bin/env python3
"""Puts known faults into the code, one at a time, and tells which tests see them.

Works in a copy of the source tree (build/mutate) that is built without optimisation and sanitizers, which finds the same
and takes a fraction of the time. Of every fault all fast tests are run: unit tests, histories, conformance, plug-in, and
the scripts. What is found is kept in build/mutate.json, and told as a matrix: who sees what, what only one test sees, and
a few tests that see all.

    tools/mutate.py                          every fault of tools/mutants.py
    tools/mutate.py --only bitmap            those whose names contain the text
    tools/mutate.py --in agent/              those of files whose paths contain the text
    tools/mutate.py --missing                those of which nothing is known, or that nothing saw
    tools/mutate.py --with Kinds,readme.py   only tests whose names contain one of the texts; others stay as they are known
    tools/mutate.py --matrix                 only prints what is known
    tools/mutate.py --markdown               writes what is known into docs/testing.md
    tools/mutate.py --check                  only looks whether the texts to replace are there

A fault may keep a test from ever ending: one that takes far longer than without the fault is stopped, and has seen it.

Exit status 0: every fault was seen.
"""

import argparse
import collections
import concurrent.futures
import contextlib
import json
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import sys

from mutants import FAULTS

SOURCE = pathlib.Path(__file__).resolve().parents[1]
COPY = SOURCE / "build" / "mutate"
BUILD = COPY / "build" / "mutate"  # as deep as a preset's, so that ccache takes its objects for these
KNOWN = SOURCE / "build" / "mutate.json"
PAGE = SOURCE / "docs" / "testing.md"
BEGIN, END = "<!-- written by tools/mutate.py --markdown -->", "<!-- end -->"
SHOWN = 3  # tests that are named per fault

PROGRAMS = ["unit-tests", "model-tests", "conformance-test", "plugin-test"]
# Those that take no privileges, and moments.
SCRIPTS = sorted(script.name for script in (SOURCE / "tests" / "system").glob("[a-z]*.py")
                 if script.name not in ("comparison.py", "live.py", "conntrack.py", "embedding.py", "hardening.py"))
SLOW = ("CostPerConnection", "OneRuleOnEveryVlan", "Soak")  # tests that are about time and memory
LEAST_LIMIT, TIMES_AS_LONG = 20, 4  # seconds; as without a fault
MEMORY = 8 << 30  # bytes: a test that runs for ever may also fill the memory for ever
MOST_STARTS = 8  # of one program, whose tests a fault stops one after the other
ENVIRONMENT = os.environ | {"RC_PARAMS": "seed=1 max_success=40 noshrink=1"}


def name_of(fault):
    return f"{pathlib.Path(fault.file).name}: {fault.name}"


def read(fault):
    file = SOURCE / fault.file
    return file.read_text() if file.exists() else ""


def run(*command, **options):
    return subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", **options)


# --- The copy ---------------------------------------------------------------------------------------------------------


def copy_tree():
    """What has changed since the last time, and nothing that is gone."""
    listed = run("git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", cwd=SOURCE).stdout.split("\0")
    wanted = {name for name in listed if name and (SOURCE / name).is_file()}
    for name in wanted:
        there = COPY / name
        if not there.exists() or there.read_bytes() != (SOURCE / name).read_bytes():
            there.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(SOURCE / name, there)
    for there in COPY.rglob("*"):
        if there.is_file() and BUILD not in there.parents and str(there.relative_to(COPY)) not in wanted:
            there.unlink()


def configure():
    done = run("cmake", "-S", COPY, "-B", BUILD, "-G", "Ninja", "-DCMAKE_CXX_COMPILER=clang++-16", "-DCMAKE_BUILD_TYPE=None",
               "-DCMAKE_CXX_FLAGS=-O0 -w", "-DPFENAT_TESTS=ON", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON")
    if done.returncode:
        sys.exit(done.stdout)


def programs():
    return [program for program in PROGRAMS if program in (arguments.programs or PROGRAMS)]


def build():
    """Empty, or what the compiler says."""
    built = run("ninja", "-C", BUILD, f"-j{arguments.jobs}", *programs(), *(["nat-agent"] if any(map(chosen, SCRIPTS)) else []))
    return built.stdout if built.returncode else ""


@contextlib.contextmanager
def put_in(fault):
    (COPY / fault.file).write_text(read(fault).replace(fault.old, fault.new))
    try:
        yield
    finally:
        shutil.copyfile(SOURCE / fault.file, COPY / fault.file)


# --- Runs of tests ----------------------------------------------------------------------------------------------------

ENDED = re.compile(r"^.*\[ +(OK|FAILED) +\] ([\w./]+)(?:, where .*)? \((\d+) ms\)$", re.M)
STARTED = re.compile(r"^.*\[ RUN      \] ([\w./]+)$", re.M)


def started(command, seconds):
    """What it said, and its status; None: it had to be stopped."""
    process = subprocess.Popen([str(part) for part in command], cwd=COPY, env=ENVIRONMENT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               text=True, errors="replace", start_new_session=True)
    resource.prlimit(process.pid, resource.RLIMIT_AS, (MEMORY, MEMORY))
    try:
        said = process.communicate(timeout=seconds)[0]
        return said, process.returncode
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        return process.communicate()[0], None


def chosen(name):
    return not arguments.tests or any(text in name for text in arguments.tests.split(","))


def seen_by_program(program, seconds):
    """Tests that fail, and how many seconds the program took. What a test that stops the program keeps from running is run
    after it."""
    failed, left_out, taken = [], [f"*{name}*" for name in SLOW], 0
    run_only = ":".join(f"*{text}*" for text in arguments.tests.split(",")) if arguments.tests else "*"
    for _ in range(MOST_STARTS):
        said, status = started([BUILD / "tests" / program, f"--gtest_filter={run_only}-{':'.join(left_out)}"], seconds)
        ended = {test: result == "OK" for result, test, _ in ENDED.findall(said)}
        taken += sum(int(ms) for _, _, ms in ENDED.findall(said)) / 1000
        failed += [test for test, passed in ended.items() if not passed]
        stopped = [test for test in STARTED.findall(said) if test not in ended]
        if status in (0, 1):
            break
        failed += stopped or [f"{program} does not start"]
        if status is None or not stopped:
            break
        left_out += [*ended, *stopped]
    return failed, taken


def seen_by_script(script, seconds):
    _, status = started([sys.executable, "-B", COPY / "tests" / "system" / script, BUILD / "agent" / "nat-agent", COPY], seconds)
    return [] if status in (0, 77) else [script]


def seen(limits):
    """Every test that fails."""
    jobs = {program: lambda p=program: seen_by_program(p, limits(p))[0] for program in programs()}
    jobs |= {script: lambda s=script: seen_by_script(s, limits(s)) for script in SCRIPTS if chosen(script)}
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        return sorted(set(sum(pool.map(lambda job: job(), jobs.values()), [])))


def refused_by(said):
    """The tests that do not compile with the fault, which is seeing it as well; none when other code does not."""
    failed = re.findall(r"^FAILED: (\S+)", said, re.M)
    asserted = re.findall(r"^\S*/(tests/\S+?):\d+.* static assertion failed", said, re.M)
    return [f"static_assert in {pathlib.Path(name).name}" for name in sorted(set(asserted))] if len(failed) == len(set(asserted)) else []


def looked_at(fault):
    """The tests that see the fault; None when it does not build."""
    with put_in(fault):
        if said := build():
            if not refused_by(said):
                print(said[-3000:])
            return refused_by(said) or None
        return seen(lambda what: LEAST_LIMIT + TIMES_AS_LONG * SECONDS.get(what, LEAST_LIMIT))


SECONDS = {}


def look_without_faults():
    if said := build():
        sys.exit(said)
    failed = []
    for program in programs():
        tests, SECONDS[program] = seen_by_program(program, 1200)
        failed += tests
    failed += sum((seen_by_script(script, 300) for script in SCRIPTS if chosen(script)), [])
    if failed:
        sys.exit(f"tests fail without any fault: {failed}")


# --- What is known ----------------------------------------------------------------------------------------------------


def greedy(known):
    """Tests that together see every fault, the one that sees most first."""
    left, cover = {fault for fault, tests in known.items() if tests}, []
    while left:
        sees = collections.Counter(test for fault in left for test in known[fault])
        best, count = max(sees.items(), key=lambda item: (item[1], item[0]))
        cover.append((best, count))
        left -= {fault for fault in left if best in known[fault]}
    return cover


def named(tests):
    more = len(tests) - SHOWN
    return ", ".join(f"`{test}`" for test in tests[:SHOWN]) + (f" and {more} more" if more > 0 else "")


def matrix(known):
    """Per test: what it sees, and what only it sees."""
    sees, alone = collections.Counter(), collections.defaultdict(list)
    for fault, tests in known.items():
        sees.update(tests)
        if len(tests) == 1:
            alone[tests[0]].append(fault)
    yield "| test | sees | only it |"
    yield "|---|---|---|"
    for test, count in sorted(sees.items(), key=lambda item: (-len(alone[item[0]]), -item[1], item[0])):
        yield f"| `{test}` | {count} | {'; '.join(fault.split(': ', 1)[1] for fault in alone[test])} |"
    cover = greedy(known)
    yield ""
    yield f"{len(cover)} tests that together see every fault: " + ", ".join(f"`{test}` ({count} more)" for test, count in cover) + "."


def write_page(known):
    before, _, rest = PAGE.read_text().partition(BEGIN)
    _, _, after = rest.partition(END)
    rows = [f"| `{fault.split(': ', 1)[0]}` | {fault.split(': ', 1)[1]} | {named(tests) or '**nothing**'} |" for fault, tests in known.items()]
    PAGE.write_text("\n".join([before + BEGIN, "| where | fault | seen by |", "|---|---|---|", *rows, "", *matrix(known), END + after]))


def read_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--only", default="", help="faults whose names contain this text, or one of several divided by |")
    parser.add_argument("--in", dest="within", default="", help="faults of files whose paths contain this text")
    parser.add_argument("--with", dest="tests", default="", help="only tests whose names contain one of these texts, divided by commas")
    parser.add_argument("--programs", nargs="*", help=f"only these of {', '.join(PROGRAMS)}, with --with")
    parser.add_argument("--missing", action="store_true", help="faults of which nothing is known, or that nothing saw")
    parser.add_argument("--matrix", action="store_true", help="only print what is known")
    parser.add_argument("--markdown", action="store_true", help="write what is known into docs/testing.md")
    parser.add_argument("--check", action="store_true", help="only look whether the texts to replace are there")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    return parser.parse_args()


def main():
    known = json.loads(KNOWN.read_text()) if KNOWN.exists() else {}
    known = {name_of(fault): known[name_of(fault)] for fault in FAULTS if name_of(fault) in known}
    faults = [fault for fault in FAULTS if any(text in fault.name for text in arguments.only.split("|")) and arguments.within in fault.file
              and not (arguments.missing and known.get(name_of(fault)))]
    lost = [fault for fault in faults if read(fault).count(fault.old) != 1]
    for fault in lost:
        print(f"{name_of(fault)}: the text to replace is there {read(fault).count(fault.old)} times, not once:\n{fault.old}")
    print(f"{len(faults)} faults, {len(lost)} of them no longer apply")
    if lost or arguments.check:
        sys.exit(bool(lost))
    unbuilt = 0
    if not arguments.matrix:
        os.nice(3)
        copy_tree()
        configure()
        look_without_faults()
        for number, fault in enumerate(faults, 1):
            tests = looked_at(fault)
            if tests is None:
                unbuilt += 1
            else:
                stay = [test for test in known.get(name_of(fault), []) if arguments.tests and not chosen(test)]
                known[name_of(fault)] = sorted({*stay, *tests})
                KNOWN.write_text(json.dumps(known, indent=1))
            verdict = "DOES NOT BUILD" if tests is None else f"seen by {len(tests)}: {named(tests)}" if tests else "NOT SEEN"
            print(f"{number}/{len(faults)} {name_of(fault)}: {verdict}", flush=True)
    known = {name_of(fault): known[name_of(fault)] for fault in FAULTS if name_of(fault) in known}
    if arguments.markdown:
        write_page(known)
    print("\n".join(matrix(known)))
    unseen = [name_of(fault) for fault in faults if not known.get(name_of(fault))]
    print(f"{len(faults)} faults: {len(faults) - len(unseen)} seen, {len(unseen)} not seen, {unbuilt} do not build", *unseen, sep="\n   ")
    sys.exit(1 if unseen else 0)


arguments = read_arguments()
main()
