"""Options that cannot be used are refused with status 2, the option, its value and what is allowed."""

import json
import os
import subprocess

from _agent import AGENT, BRANCH_OFFICE, FOLDER, entry, finish, holds, instance, run, same, write

PACKET = {"--in": "vlan20", "--out": "ethernet1", "--proto": "tcp", "--src": "10.0.0.1:80", "--dst": "192.0.2.1:80"}
INTERFACE = "an interface, such as ethernet1, vlan20, port-channel3, loopback0, tunnel1"
PAIR = "an IPv4 address, such as 192.0.2.1, or one with a port from 1 to 65535, such as 192.0.2.1:80"

# Options after the configuration, and the line that refuses them.
OPTIONS = [
    (["--format", "xml"], "--format: xml not in {text,json}; see  nat-agent --help"),
    (["--fail", "0"], "--fail: Value 0 not in range 1 to 1000000000; see  nat-agent --help"),
    (["--delay", "1000001"], "--delay: Value 1000001 not in range 0 to 1000000; see  nat-agent --help"),
    (["--state", ""], '--state: ""; allowed: a name; see  nat-agent --help'),
    (["--stats"], "The following argument was not expected: --stats; see  nat-agent --help"),
]

# Packet options in the place of the good ones (None: left out), and the line that refuses them.
PACKETS = [
    ({"--in": "eth0"}, f'--in: "eth0"; allowed: {INTERFACE}; see  nat-agent explain --help'),
    ({"--in": None, "--out": None}, "--in, --out: neither is given; allowed: at least one, since rows apply by interface"),
    ({"--vrf": "16777216"}, "--vrf: Value 16777216 not in range 0 to 16777215; see  nat-agent explain --help"),
    ({"--proto": "any"}, '--proto: "any"; allowed: tcp, udp, icmp, gre, esp, sctp, or a number from 0 to 255; '
                         "see  nat-agent explain --help"),
    ({"--proto": None}, "--proto is required; see  nat-agent explain --help"),
    ({"--src": "10.0.0.1:0"}, f'--src: "10.0.0.1:0"; allowed: {PAIR}; see  nat-agent explain --help'),
    ({"--dst": "10.0.0.1"}, "--dst: 10.0.0.1; allowed: with a port, as every packet of this protocol has one"),
    ({"--fragment": "last"}, '--fragment: "last"; allowed: first, later; see  nat-agent explain --help'),
    ({"--fragment": "later"}, "--src: 10.0.0.1:80; allowed: no port, since later fragments show none"),
]


def check(arguments, line):
    status, out, err = run(*arguments)
    same(f"{arguments}: status and output", (status, out), (2, ""))
    same(f"{arguments}: standard error", err, f"nat-agent: {line}\n")


def check_output():
    """What cannot be written is a failure, and does not land in files of the agent's own."""
    for option, more, fault in (("stdout", {"stdout": open("/dev/full", "w")}, "No space left on device"), ("closed", {"preexec_fn": lambda: os.close(1)}, "Bad file descriptor")):
        for command in ([BRANCH_OFFICE, "--state", "out"], ["serve", BRANCH_OFFICE, "--state", "out"], ["--help"]):
            done = subprocess.run([AGENT, *command], cwd=FOLDER, stderr=subprocess.PIPE, text=True, timeout=600, **more)
            same(f"{option}: {command}", (done.returncode, done.stderr), (3, f"nat-agent: standard output: cannot be written: {fault}\n"))
    same("the store is as it was", run(BRANCH_OFFICE, "--state", "out")[0], 0)


def check_input():
    done = subprocess.run([AGENT, "-", "--state", "a/b/c"], cwd=FOLDER, stdin=BRANCH_OFFICE.open(), capture_output=True, text=True, timeout=600)
    same("standard input, and a state folder in new ones", (done.returncode, done.stdout.splitlines()[0], done.stderr), (0, "-, instance 1 'branch office'", ""))
    for arguments, part in (([], "connections"), (["--mode", "interface"], "connections"), (["explain", *(text for item in PACKET.items() for text in item)], "packet")):
        file = write("off.json", instance(entry(), enable=False))
        told = run(*arguments[:1], file, *arguments[1:], "--format", "json") if arguments[:1] == ["explain"] else run(file, *arguments, "--format", "json")
        same(f"a disabled instance {arguments[:1]}", (told[0], part in json.loads(told[1])), (0, True))


def main():
    check_output()
    check_input()
    check([], "CONFIG is required; see  nat-agent --help")
    for options, line in OPTIONS:
        check([BRANCH_OFFICE, *options], line)
    for changed, line in PACKETS:
        options = [text for item in (PACKET | changed).items() if item[1] is not None for text in item]
        check(["explain", BRANCH_OFFICE, *options], line)
    for command in ([], ["explain"]):
        status, out, err = run(*command, "--help")
        same("help", (status, err), (0, ""))
        holds("tells about options", "--capacity" in out and ("--fragment" in out) == bool(command))
    status, out, err = run(BRANCH_OFFICE, "--trace", "6")
    holds("traces go to standard error", "PfeNatSwTableProgrammerSm 6 addStaticConnection, natIntf: " in err)
    finish()


main()
