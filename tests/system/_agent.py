"""Runs nat-agent as a user does, and tells what was not as expected.

Scripts are called with the path of nat-agent and the source folder.
"""

import atexit
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile

AGENT = pathlib.Path(sys.argv[1]).resolve()
SOURCE = pathlib.Path(sys.argv[2]).resolve()
BRANCH_OFFICE = SOURCE / "examples" / "branch-office.json"

# Files of the test stand here, and are named in messages without any folder.
FOLDER = pathlib.Path(tempfile.mkdtemp(prefix="nat-agent-test-"))
atexit.register(shutil.rmtree, FOLDER, ignore_errors=True)

_faults = []
_checks = 0


def run(*arguments):
    """Status, standard output and standard error."""
    done = subprocess.run([AGENT, *map(str, arguments)], cwd=FOLDER, capture_output=True, text=True, timeout=600)
    return done.returncode, done.stdout, done.stderr


def run_json(*arguments, status=0):
    """What the agent says to programs, after a check of its status."""
    got, out, err = run(*arguments, "--format", "json")
    same(f"status of {' '.join(map(str, arguments))}", got, status)
    if not out:
        same("standard error without output", err, "")
    return json.loads(out or "{}")


def write(name, content):
    """A file in FOLDER, from a text or from what JSON can hold; returns its name."""
    text = content if isinstance(content, (str, bytes)) else json.dumps(content)
    (FOLDER / name).write_bytes(text if isinstance(text, bytes) else text.encode())
    return name


def same(what, got, expected):
    """Remembers a fault unless both are equal."""
    global _checks
    _checks += 1
    if got != expected:
        _faults.append(f"{what}\n   expected: {expected!r}\n   got:      {got!r}")


def holds(what, condition):
    same(what, bool(condition), True)


def finish():
    for fault in _faults:
        print(fault)
    print(f"{_checks} checks, {len(_faults)} faults")
    sys.exit(1 if _faults or not _checks else 0)


# --- Packets ----------------------------------------------------------------------------------------------------------

OUT = ["--in", "vlan20", "--out", "ethernet1"]
IN = ["--in", "ethernet1", "--out", "vlan20"]


def explained(file, way, protocol, source, destination, *more, status=0):
    return run_json("explain", file, *way, "--proto", protocol, "--src", source, "--dst", destination, *more, status=status)


def steps(walk, step):
    """Of one kind: packets without their interfaces and VRF."""
    return [row["what"].split(" in ")[0] for row in walk if row["step"] == step]


def rules(walk):
    return [row.get("entry") for row in walk if row["step"] == "match"]


def walks(name, told, rule, packet, reply):
    """A packet of the rule leaves as the text, and its reply as the other."""
    same(f"{name}: rule", (rules(told["packet"]), rules(told["reply"])), ([rule], [rule]))
    same(f"{name}: what comes out", (steps(told["packet"], "leaves"), steps(told["reply"], "leaves")), ([packet], [reply]))
    same(f"{name}: verdict", told["replyComesBack"], True)


# --- Configurations ---------------------------------------------------------------------------------------------------


def yang_names(members):
    """Python's names as YANG spells them: pfe_nat__x_y is pfe-nat:x-y."""
    return {name.replace("__", ":").replace("_", "-"): value for name, value in members.items()}


def instance(*entries, **members):
    """A configuration of one instance."""
    whole = {"id": 1, **yang_names(members), "mapping-table": {"mapping-entry": list(entries)}}
    return {"ietf-nat:nat": {"instances": {"instance": [whole]}}}


def entry(index=1, local="10.0.0.1", outside="192.0.2.1", local_port=None, outside_port=None, side="src", **members):
    """A static entry: its internal and its external pair on one side."""
    result = {"index": index, "type": "static"}
    for place, address, port in (("internal", local, local_port), ("external", outside, outside_port)):
        result[f"{place}-{side}-address"] = address + "/32"
        if port is not None:
            result[f"{place}-{side}-port"] = {"start-port-number": port}
    result["pfe-nat:interface"] = "ethernet1"
    return result | yang_names(members)


def both(index, kind, source=None, destination=None, protocol=None):
    """An entry whose sides are texts: "INTERNAL EXTERNAL", each an address with or without a port."""
    result = {"index": index, "type": kind, "pfe-nat:interface": "ethernet1"}
    if protocol is not None:
        result["transport-protocol"] = protocol
    for side, pairs in (("src", source), ("dst", destination)):
        for place, pair in zip(("internal", "external"), pairs.split() if pairs else ()):
            address, _, port = pair.partition(":")
            result[f"{place}-{side}-address"] = address + "/32"
            if port:
                result[f"{place}-{side}-port"] = {"start-port-number": int(port)}
    return result
