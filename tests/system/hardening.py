"""What protects the agent and its libraries from their own faults is in the files that were built.

Looks at the build that is tested, and at that of the release preset when it is there: only an unsanitized, optimised
build has all of it.
"""

import re
import subprocess

from _agent import AGENT, SOURCE, finish, holds, same

FILES = ("agent/nat-agent", "PfeNat/libPfeNat.so", "platform/libPfePlatform.so")


def readelf(what, file):
    return subprocess.run(["readelf", "-W", what, file], capture_output=True, text=True, check=True).stdout


def check_linking(file):
    segments, dynamic = readelf("--program-headers", file), readelf("--dynamic", file)
    flags = {segment.split()[0]: "".join(segment.split()[6:-1]) for segment in segments.splitlines()
             if re.match(r"  [A-Z_]+ +0x", segment)}
    holds(f"{file}: loaded at any address", "Elf file type is DYN" in segments)
    same(f"{file}: what is relocated becomes read-only", flags.get("GNU_RELRO"), "R")
    holds(f"{file}: all of it, before anything runs", re.search(r"\(FLAGS_1\).*\bNOW\b", dynamic))
    same(f"{file}: no code on the stack", flags.get("GNU_STACK"), "RW")
    same(f"{file}: nothing both writable and executable", re.findall(r"^.* RWE .*$", segments, re.M), [])
    same(f"{file}: libraries from beside it or from the system only",
         [path for path in ":".join(re.findall(r"(?:RUNPATH|RPATH)\).*\[(.*)\]", dynamic)).split(":")
          if path and not path.startswith("$ORIGIN/")], [])


def check_compiling(build):
    for name in FILES:
        holds(f"{build / name}: stacks are protected", "__stack_chk_fail" in readelf("--dyn-syms", build / name))
    symbols = readelf("--dyn-syms", build / FILES[0])
    # The libraries call nothing that has a checked variant.
    holds(f"{build / FILES[0]}: calls that fill memory are checked", re.search(r"__(?!stack)\w+_chk\b", symbols))


def main():
    tested, release = AGENT.parents[1], SOURCE / "build" / "release"
    for build in {tested, release}:
        if build == tested or all((build / name).exists() for name in FILES):
            for name in FILES:
                check_linking(build / name)
    if (release / FILES[0]).exists():
        check_compiling(release)
    finish()


main()
