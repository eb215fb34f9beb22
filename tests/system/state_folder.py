"""The folder that keeps the NAT ids: who may read it, who may use it, and what happens to it when it is damaged."""

import fcntl
import os
import re
import stat

from _agent import BRANCH_OFFICE, FOLDER, entry, finish, instance, run, run_json, same, write

STATE = FOLDER / "state"
DATA = STATE / "data.mdb"


def mode(path):
    return stat.S_IMODE(path.stat().st_mode)


def refused(what, line, state="state"):
    """The agent refuses the folder and leaves it as it is."""
    before = DATA.read_bytes() if DATA.exists() else None
    status, out, err = run(BRANCH_OFFICE, "--state", state)
    same(f"{what}: status and output", (status, out), (2, ""))
    # Which record an id is in depends on the order in which rules are handed over.
    same(f"{what}: standard error", re.sub(r"record \d+", "record N", err), f"nat-agent: {line}\n")
    same(f"{what}: left as it is", DATA.read_bytes() if DATA.exists() else None, before)


def check_modes():
    os.umask(0)
    run_json(BRANCH_OFFICE, "--state", "state")
    same("the folder is the owner's alone", mode(STATE), 0o700)
    same("so are its files", {mode(path) for path in STATE.iterdir()}, {0o600})


def check_lock():
    with open(STATE / "agent.lock", "rb+") as lock:
        fcntl.lockf(lock, fcntl.LOCK_EX)
        refused("in use", f"state: is in use by process {os.getpid()}; allowed: one agent per state folder")
    run_json(BRANCH_OFFICE, "--state", "state")


def check_damage():
    good = DATA.read_bytes()
    cases = [
        ("no store at all", b"something else altogether" * 1000, "cannot be opened: MDB_INVALID: File is not an LMDB file"),
        ("cut short", good[: 2 * os.sysconf("SC_PAGESIZE")], "is damaged: reading it fails half-way"),
        ("another type", good.replace(b"Value('Pfe::NatMatchKey", b"Value('Pfe::NatMismatch"),
         "is damaged: record N: expected \"Pfe::NatMatchKey\" at \"Pfe::NatMismatch', staticKey=Value('Pfe:...\""),
        ("a bad field", good.replace(b"vrfId=7", b"vrfId=x"),
         'is damaged: record N: staticKey: vrfId: expected a number at "x, ipAndPortOld=Valu"'),
        ("a key twice", good.replace(b"ip=10.10.20.11, port=25)", b"ip=10.10.20.13, port=22)"),
         "is damaged: record N: its match key has another id already"),
    ]
    for name, content, fault in cases:
        DATA.write_bytes(content)
        refused(name, f"state/data.mdb: {fault}; it was left as it is")
    DATA.write_bytes(good)
    same("the undamaged store serves on", run_json(BRANCH_OFFICE, "--state", "state")["summary"]["restoredNatIds"], 31)


def check_unusable():
    refused("no such place", "missing/state: cannot be created: No such file or directory", "missing/state")
    STATE.chmod(0o775)
    refused("others' folder as well", "state: others may write there; allowed: a folder that its owner alone may write to")
    STATE.chmod(0o750)  # they may look
    refused("a file", "a.json/agent.lock: cannot be locked: Not a directory", write("a.json", "{}"))


def check_disabled():
    ids = run_json(BRANCH_OFFICE, "--state", "state", "--ids")["natIds"]
    file = write("disabled.json", instance(entry(), enable=False))
    status, out, err = run(file, "--state", "state")
    same("an instance that is not enabled", (status, out, err),
         (0, "", "nat-agent: disabled.json: instance 1 is not enabled: nothing is programmed, and no NAT id is given back\n"))
    same("keeps the ids", run_json(BRANCH_OFFICE, "--state", "state", "--ids")["natIds"], ids)


def main():
    check_modes()
    check_lock()
    check_damage()
    check_unusable()
    check_disabled()
    finish()


main()
