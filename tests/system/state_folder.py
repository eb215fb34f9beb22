"""The folder that keeps the NAT ids: who may read it, who may use it, and what happens when it is damaged, or the disk or
the NAT ids are full."""

import fcntl
import os
import re
import stat
import subprocess
import sys

from _agent import BRANCH_OFFICE, FOLDER, SOURCE, entry, finish, holds, instance, run, run_json, same, write
from _serving import Serving

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
        ("empty", b"", "is damaged: it is empty"),
        ("of a newer agent", good.replace(b"\0\0\2\0\0\0" b"1 ", b"\0\0\2\0\0\0" b"9 "),
         "has format 9, which is newer; allowed: up to 1"),
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
    refused("no such place", "/dev/null/a: cannot be created: Not a directory", "/dev/null/a/b")
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


def isolated():
    """Whether mounts are the script's own; it is started again for that."""
    unshare = ["unshare", "--mount", *(["--user", "--map-root-user"] if os.getuid() != 0 else [])]
    if "NAT_TEST_MOUNTS" in os.environ:
        return True
    tried = subprocess.run([*unshare, "mount", "-t", "tmpfs", "none", FOLDER], capture_output=True, text=True)
    if tried.returncode == 0:
        os.environ["NAT_TEST_MOUNTS"] = "1"
        FOLDER.rmdir()
        os.execvp(unshare[0], [*unshare, sys.executable, "-B", *sys.argv])
    print(f"not tried: a full disk: no mounts are permitted here: {tried.stderr.strip()}")
    return False


def check_full_disk():
    """Nothing is lost, what needs new ids waits, and goes on when there is room."""
    disk = FOLDER / "disk"
    disk.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=400k", "none", disk], check=True)

    def fill():
        with open(disk / "other", "ab", buffering=0) as other:
            try:
                while other.write(bytes(4096)):
                    pass
            except OSError:
                pass

    full = r"disk/new/data.mdb: cannot be (opened|created): No space left on device"
    fill()
    (disk / "other").write_bytes((disk / "other").read_bytes()[:-8192])  # for inodes, and half a store
    fill_status, out, err = run(BRANCH_OFFICE, "--state", "disk/new")
    same("nothing begins", (fill_status, out, bool(re.search(full, err))), (2, "", True))
    (disk / "other").unlink()
    few = [entry(1, "10.0.0.1", "192.0.2.1")]
    many = [entry(i, f"10.0.{i >> 8}.{i & 255}", f"192.0.{i >> 8}.{i & 255}") for i in range(1, 600)]
    write("growing.json", instance(*few))
    serving = Serving("growing.json", state="disk/new", errors=subprocess.DEVNULL)
    fill()
    write("growing.json", instance(*many))
    fault = serving.ask("reload")["error"]["message"]
    holds(f"told: {fault}", re.match("disk/new/data.mdb: does not take the NAT ids: No space left on device", fault))
    summary = serving.result("summary")["summary"]
    same("what needs ids waits", (summary["connections"], summary["programmed"]), (599, 1))
    same("it says so again", serving.ask("delete-all").get("error", {}).get("message"), fault)
    (disk / "other").unlink()
    same("it goes on", serving.result("summary")["summary"]["programmed"], 599)
    fill()
    write("growing.json", instance(*few))
    same("fewer rules need no room", serving.result("reload")["summary"]["rows"], 4)
    same("ends well", serving.end(), 0)
    (disk / "other").unlink()
    write("growing.json", instance(*many))
    same("nothing was lost", run_json("growing.json", "--state", "disk/new")["summary"]["programmed"], 599)
    subprocess.run(["umount", disk], check=True)


def check_full_pool():
    """More rules than NAT ids: who waits costs nothing, and comes when ids do."""
    text = subprocess.run([sys.executable, SOURCE / "examples" / "generate.py", "33000"], capture_output=True, text=True, check=True).stdout
    write("pool.json", text)
    serving = Serving("pool.json", state="pool")
    first = serving.result("summary")["summary"]
    same("as many as there are ids for", (first["programmed"], first["natIds"], first["turns"]), (32767, 65534, 1))
    same("the same again", serving.result("reload")["summary"]["turns"] - first["turns"], 2)
    lines = text.splitlines()
    write("pool.json", "\n".join(lines[:1] + lines[11:]))  # ten rules less
    told = serving.result("reload")["summary"]
    same("ten others come", (told["programmed"], told["turns"] - first["turns"]), (32767, 5))
    serving.end()


def main():
    mounts = isolated()
    check_modes()
    check_lock()
    check_damage()
    check_unusable()
    check_disabled()
    check_full_pool()
    if mounts:
        check_full_disk()
    finish()


main()
