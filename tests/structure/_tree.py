"""The source tree as the structure checks see it, and how they report."""

import pathlib
import sys

LAYERS = ("platform", "PfeNat", "chip", "agent")
FOLDERS = LAYERS + ("tests", "bench")

# One pair of files each, and all that a dependent may include of PfeNat/.
UNITS = (
    "PfeNatSwTableProgrammerSm",
    "PfeNatProgrammerIntfModeSm",
    "PfeNatProgrammerConfigSm",
    "PfeNatSwTableSm",
)


def root():
    """The folder given as first argument, or the one that this script belongs to."""
    if len(sys.argv) > 1:
        return pathlib.Path(sys.argv[1]).resolve()
    return pathlib.Path(__file__).resolve().parents[2]


def files(top, folders, suffixes):
    """Paths relative to `top`, sorted, of the files below `folders` whose names end in one of `suffixes`."""
    found = []
    for folder in folders:
        for path in (top / folder).rglob("*"):
            if path.is_file() and path.suffix in suffixes:
                found.append(path.relative_to(top))
    return sorted(found)


def finish(what, faults, looked_at):
    """Prints the faults and leaves. A check that met nothing to look at has not passed."""
    if not looked_at:
        faults = [f"nothing to look at below {root()}"]
    for fault in faults:
        print(fault)
    print(f"{what}: {len(faults)} faults, {looked_at} looked at")
    sys.exit(1 if faults else 0)
