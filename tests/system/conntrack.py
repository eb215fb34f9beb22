"""Connections learned from a recorded listing are programmed beside configured ones, keep their NAT ids, and walk through
explain and back as the kernel translated them; what is not learned is named, and a malformed line is refused."""

import re

from _agent import FOLDER, IN, OUT, SOURCE, both, entry, explained, finish, instance, run, run_json, same, walks, write

RECORDING = SOURCE / "examples" / "conntrack-masquerade.txt"
LEARN = ["--conntrack", RECORDING, "--nat-interface", "ethernet1"]
EMPTY = instance(pfe_nat__fragmentation=True)
SUMMARY = [
    f"{RECORDING}: connections learned: 113, entries passed over: 5",
    "   1 not IPv4: line N",
    "   2 not translated: line N, line N",
    "   2 translated on both sides, but a dynamic connection translates one: line N, line N",
]


def check_walk(connection):
    local, peer, protocol = connection["local"], connection["peer"], connection["protocol"]
    leaving = connection["target"] == "source"
    source, destination = (local, peer) if leaving else (peer, connection["global"])
    translated = (connection["global"], peer) if leaving else (peer, local)
    told = explained("empty.json", OUT if leaving else IN, protocol, source, destination, *LEARN)
    walks(f"line {connection['line']}", told, None, f"{protocol} {translated[0]} -> {translated[1]}",
          f"{protocol} {destination} -> {source}")


def check_recording():
    file = write("empty.json", EMPTY)
    status, out, err = run(file, *LEARN)
    same("status", status, 0)
    same("summary", re.sub(r"line \d+", "line N", err).splitlines(), SUMMARY)
    first = run_json(file, *LEARN, "--state", "state", "--ids")
    second = run_json(file, *LEARN, "--state", "state", "--ids")
    same("all of them", (first["summary"]["connections"], first["summary"]["programmed"]), (113, 113))
    same("NAT ids after a restart", second["natIds"], first["natIds"])
    same("facts", (first["conntrack"]["learned"], len(first["conntrack"]["passedOver"])), (113, 5))
    # Each takes a run: of every protocol and either side a few in the short form of this test.
    kinds = {}
    for connection in first["connections"]:
        kinds.setdefault((connection["protocol"], connection["target"]), []).append(connection)
    for of_kind in kinds.values():
        for connection in of_kind[:3]:
            check_walk(connection)


def check_configured_first():
    line = RECORDING.read_text().splitlines()[0]
    source, destination, reply_source, reply_destination = re.findall(r"(?:src|dst)=(\S+)", line)
    ports = re.findall(r"(?:sport|dport)=(\d+)", line)
    configured = both(1, "dynamic-implicit", f"{source}:{ports[0]} 192.0.2.77:9", f"{destination}:{ports[1]} {destination}:{ports[1]}", 17)
    status, _, err = run(write("one.json", instance(configured, entry(2))), *LEARN)
    same("status beside configured rules", status, 0)
    same("the configured one stays", "   1 deriving the rows of a configured connection: line 1" in err.splitlines(), True)


def check_malformed():
    file = write("empty.json", EMPTY)
    good = RECORDING.read_text().splitlines(keepends=True)[:2]
    bad = write("bad.txt", "".join(good) + "tcp 6 10 CLOSE src=10.0.0.1 dst=10.0.0.999\n")
    status, out, err = run(file, "--conntrack", bad, "--nat-interface", "ethernet1", "--state", "fresh")
    same("malformed line", (status, out, err), (2, "",
         'nat-agent: bad.txt: line 3, column 29: "dst=10.0.0.999" does not fit; allowed: dst= and an address of the entry\'s '
         "family\n"))
    same("nothing was stored", (FOLDER / "fresh").exists(), False)
    status, _, err = run(file, "--conntrack", "missing.txt", "--nat-interface", "ethernet1")
    same("no listing", (status, err), (2, "nat-agent: missing.txt: cannot be read: No such file or directory\n"))
    status, _, err = run(file, "--conntrack", RECORDING)
    same("no interface", (status, err), (2, "nat-agent: --conntrack requires --nat-interface; see  nat-agent --help\n"))


def main():
    check_recording()
    check_configured_first()
    check_malformed()
    finish()


main()
