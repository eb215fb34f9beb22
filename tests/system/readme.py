"""Every command of the README and of docs/ that runs nat-agent prints what is shown below it.

A command that ends in & stays; `kill -9 %1` kills it. What needs a namespace is skipped where none is permitted. How long
something took is not compared.
"""

import _kernel

MISSING = _kernel.isolate(needed=False)

import os
import re
import shlex
import shutil
import signal
import subprocess

from _agent import AGENT, FOLDER, SOURCE, finish, run, same
from _serving import Serving


def state_of(arguments):
    return arguments[arguments.index("--state") + 1]


def lines(text):
    return [re.sub(r" *\d+", " N", line) if line.startswith(("Lag: ", "  ingStaticNatTable  ")) else line for line in text.splitlines()]


def in_shell(command):
    path = f"{AGENT.parent}:{os.environ['PATH']}"
    return subprocess.run(command, shell=True, cwd=FOLDER, capture_output=True, text=True, env=os.environ | {"PATH": path})


def check_block(block):
    if MISSING and "--netns" in block:
        print(f"skipped: {block.splitlines()[0]}: {MISSING}")
        return
    if "--chip ebpf" in block and (why := in_shell("mountpoint -q /sys/fs/bpf || mount -t bpf bpf /sys/fs/bpf").stderr):
        print(f"skipped: {block.splitlines()[0]}: {why}")
        return
    serving = None
    for command, shown in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", block, re.MULTILINE):
        program, *arguments = shlex.split(command)
        if program == "kill":
            serving.end(signal.SIGKILL)
        elif program == "nat-agent" and arguments[-1] == "&":
            serving = Serving(*arguments[1:2], *(a for a in arguments[2:-1] if a not in ("--state", state_of(arguments))),
                              state=state_of(arguments))
            same(command, serving.shown, shown.splitlines())
        elif program == "nat-agent":
            done = in_shell(command)
            same(command, lines(done.stderr + done.stdout), lines(shown))
        elif program in ("ip", "sed", "examples/nat-box.sh", "examples/three-hosts.sh"):
            done = in_shell(command)
            same(command, (done.returncode, done.stdout + done.stderr), (0, shown))
        else:
            same(f"another test runs {program}", program in ("cmake", "build/embedding/embedded-nat"), True)
    if serving and serving.process.returncode is None:
        same("the last agent of a session ends", serving.wait(), 0)


def check_document(document):
    shutil.rmtree(FOLDER / "build", ignore_errors=True)
    (FOLDER / "build").mkdir()
    run("examples/branch-office.json", "--state", "build/run-state")  # ./run.sh has run it before
    for block in re.findall(r"^```console\n(.*?)^```$", document.read_text(), re.MULTILINE | re.DOTALL):
        check_block(block)


def main():
    (FOLDER / "examples").symlink_to(SOURCE / "examples")
    for document in [SOURCE / "README.md", *sorted((SOURCE / "docs").glob("*.md"))]:
        check_document(document)
    finish()


main()
