"""What is told to programs has the form of report.schema.json, and what is told to a terminal fits it."""

import fcntl
import json
import os
import pty
import re
import struct
import subprocess
import termios

import jsonschema

from _agent import AGENT, BRANCH_OFFICE, FOLDER, SOURCE, finish, holds, run, same

MIXED = SOURCE / "examples" / "mixed.json"
LISTING = ["--conntrack", SOURCE / "examples" / "conntrack-masquerade.txt", "--nat-interface", "ethernet1"]
PACKET = ["--in", "vlan20", "--out", "ethernet1", "--proto", "tcp", "--src", "10.20.0.50:40000", "--dst", "203.0.113.9:443"]
RUNS = [
    ([BRANCH_OFFICE, "--rows", "--ids", "--ring", 3], 0),
    ([MIXED, "--rows", "--ids"], 0),
    ([MIXED, "--fail", 9], 1),
    ([MIXED, "--capacity", 5], 1),
    ([MIXED, *LISTING], 0),
    ([BRANCH_OFFICE, "--mode", "interface", "--ring", 3], 0),
    ([BRANCH_OFFICE, "--mode", "interface", *LISTING], 1),
    (["explain", MIXED, *PACKET], 0),
    (["explain", MIXED, *LISTING, *PACKET], 0),
    (["explain", MIXED, *PACKET, "--fragment", "first", "--fail", 1], 1),
]


def check_json():
    schema = json.loads((SOURCE / "agent" / "reports" / "report.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    forms = {name: {"$ref": f"#/$defs/{name}", "$defs": schema["$defs"]} for name in ("programming", "interfaces", "walk")}
    for arguments, status in RUNS:
        form = forms["walk" if arguments[0] == "explain" else "interfaces" if "interface" in arguments else "programming"]
        got, out, _ = run(*arguments, "--format", "json")
        faults = jsonschema.Draft202012Validator(form).iter_errors(json.loads(out))
        same(f"{arguments}", (got, [f"{list(f.absolute_path)}: {f.message[:200]}" for f in faults]), (status, []))
        jsonschema.validate(json.loads(out), schema)


def in_terminal(width, *arguments, **environment):
    """The lines that a terminal of that width gets."""
    ours, theirs = pty.openpty()
    fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 50, width, 0, 0))
    child = subprocess.Popen([AGENT, *map(str, arguments)], cwd=FOLDER, stdout=theirs, env=os.environ | environment)
    os.close(theirs)
    got = b""
    try:
        while part := os.read(ours, 65536):
            got += part
    except OSError:  # the other end is closed
        pass
    os.close(ours)
    child.wait()
    return got.decode().split("\r\n")


def check_terminal():
    _, piped, _ = run(MIXED, "--fail", 9)
    holds("a pipe gets no colours", "\x1b" not in piped)
    wide = in_terminal(300, MIXED, "--fail", 9, TERM="xterm")
    results = [re.search(r"\x1b\[(3\d)m(programmed|failed)\x1b\[0m", line) for line in wide]
    same("colours", {(found[1], found[2]) for found in results if found}, {("32", "programmed"), ("31", "failed")})
    plain = in_terminal(300, MIXED, "--fail", 9, NO_COLOR="1")
    same("nor has a dumb one", in_terminal(300, MIXED, "--fail", 9, TERM="dumb"), plain)
    same("a wide terminal without colours gets what a pipe gets", plain, piped.split("\n"))
    narrow = in_terminal(80, MIXED, NO_COLOR="1")
    holds("a narrow one gets lines that fit it", max(map(len, narrow)) <= 80)
    words = {word for line in narrow for word in line.split()}
    same("and all that there is", {word for word in run(MIXED)[1].split()} - words, set())


def main():
    check_json()
    check_terminal()
    version = re.search(r"project\( PfeNat VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text())[1]
    same("version", run("--version"), (0, f"nat-agent {version}\n", ""))
    finish()


main()
