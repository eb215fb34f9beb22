"""An installation: an outside project finds it by CMake and by pkg-config, builds against it, and prints what the README
shows; the installed conformance test is built over an example's chip; the installed agent runs."""

import os
import re
import shutil
import subprocess

from _agent import AGENT, BRANCH_OFFICE, FOLDER, SOURCE, finish, holds, same

BUILD = AGENT.parent.parent
PREFIX = FOLDER / "prefix"


def output(*command, **options):
    told = subprocess.run([str(part) for part in command], capture_output=True, text=True, **options)
    holds(f"{command[0]} succeeds: {told.stderr[-2000:]}{told.stdout[-2000:] if told.returncode else ''}", told.returncode == 0)
    return told.stdout


def cached(name):
    """A value of the build that is installed; the outside project must be compiled for the same sanitizers."""
    return re.search(rf"^{name}:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE)[1]


def main():
    compiler, sanitizers = cached("CMAKE_CXX_COMPILER"), cached("PFENAT_SANITIZE")
    flags = [f"-fsanitize={sanitizers}"] if sanitizers else []
    output("cmake", "--install", BUILD, "--prefix", PREFIX)
    same("the installed agent", len(output(PREFIX / "bin" / "nat-agent", BRANCH_OFFICE).splitlines()), 16)

    shown = re.search(r"^\$ build/embedding/embedded-nat\n(.*?)^```$", (SOURCE / "README.md").read_text(), re.MULTILINE | re.DOTALL)[1]
    for name in ("embedding", "chip"):
        project = shutil.copytree(SOURCE / "examples" / name, FOLDER / name)
        output("cmake", "-G", "Ninja", "-S", project, "-B", project / "build", f"-DCMAKE_PREFIX_PATH={PREFIX}",
               f"-DCMAKE_CXX_COMPILER={compiler}", f"-DCMAKE_CXX_FLAGS={' '.join(flags)}")
        output("cmake", "--build", project / "build")
    holds("the chip of the example keeps its promises", "PASSED" in output(project / "build" / "conformance-test"))
    project = FOLDER / "embedding"
    same("found by CMake", output(project / "build" / "embedded-nat"), shown)

    if shutil.which("pkg-config"):
        found = os.environ | {"PKG_CONFIG_PATH": str(next(PREFIX.rglob("pkgconfig")))}
        asked = output("pkg-config", "--cflags", "--libs", "pfe-nat", env=found).split()
        libraries = next(option[2:] for option in asked if option.startswith("-L"))
        output(compiler, *flags, project / "main.cpp", *asked, f"-Wl,-rpath,{libraries}", "-o", FOLDER / "by-pkg-config")
        same("found by pkg-config", output(FOLDER / "by-pkg-config"), shown)
    finish()


main()
