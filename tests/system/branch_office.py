"""The branch office, as the README shows it: programmed, its NAT ids kept over a restart, and a packet of every rule
translated there and back."""

import json
import shutil

from _agent import BRANCH_OFFICE, FOLDER, finish, holds, run, run_json, same

PEER = "203.0.113.9"
PEER_PORT = ":51000"


def packet(protocol, source, destination, **members):
    return {"protocol": protocol, "source": source, "destination": destination, **members}


# Of each unicast rule: entry, options of a packet that it applies to, and what comes out of it. A source is translated on
# the way out of the rule's interface, a destination on the way in. The reply must come back to where the packet came from.
OUT = ["--in", "vlan20", "--out", "ethernet1"]
WAYS = [
    (1, OUT, "tcp", "10.10.20.10:8443", PEER + PEER_PORT, "198.51.100.7:443", PEER + PEER_PORT),
    (2, OUT, "tcp", "10.10.20.10:8080", PEER + PEER_PORT, "198.51.100.7:80", PEER + PEER_PORT),
    (3, OUT, "tcp", "10.10.20.11:25", PEER + PEER_PORT, "198.51.100.7:25", PEER + PEER_PORT),
    (4, OUT, "udp", "10.10.20.12:51820", PEER + PEER_PORT, "198.51.100.7:51820", PEER + PEER_PORT),
    (5, OUT, "tcp", "10.10.20.13:22", PEER + PEER_PORT, "198.51.100.7:2222", PEER + PEER_PORT),
    (6, OUT, "tcp", "10.10.20.20:1234", PEER + PEER_PORT, "198.51.100.8:1234", PEER + PEER_PORT),
    (6, OUT, "icmp", "10.10.20.20", PEER, "198.51.100.8", PEER),
    (7, ["--in", "vlan40", "--out", "tunnel1", "--vrf", "7"], "udp", "10.10.40.5:500", PEER + ":500", "192.0.2.5:500", PEER + ":500"),
    (8, ["--in", "vlan20", "--out", "ethernet2"], "udp", "10.10.20.77:4000", "192.0.2.53:53", "10.10.20.77:4000", "10.10.20.53:5353"),
    (9, ["--in", "vlan30", "--out", "ethernet2"], "tcp", "10.10.30.4:9", "192.0.2.9:80", "10.10.30.4:9", "10.10.30.9:80"),
]
# The same from outside: a packet to the public side, and the answer.
FROM_OUTSIDE = ["--in", "ethernet1", "--out", "vlan20"]
CALLS = [
    (1, FROM_OUTSIDE, "tcp", PEER + PEER_PORT, "198.51.100.7:443", PEER + PEER_PORT, "10.10.20.10:8443"),
    (4, FROM_OUTSIDE, "udp", PEER + PEER_PORT, "198.51.100.7:51820", PEER + PEER_PORT, "10.10.20.12:51820"),
    (6, FROM_OUTSIDE, "tcp", PEER + PEER_PORT, "198.51.100.8:80", PEER + PEER_PORT, "10.10.20.20:80"),
]


def explained(way, protocol, source, destination, *more, status=0):
    options = [*way, "--proto", protocol, "--src", source, "--dst", destination, *more]
    return run_json("explain", BRANCH_OFFICE, *options, status=status)


def steps(walk, step):
    return [row["what"] for row in walk if row["step"] == step]


def entries(walk):
    return [row.get("entry") for row in walk if row["step"] == "match"]


def flow(text):
    """Protocol and both pairs of a packet's text, without its interfaces and VRF."""
    return text.split(" in ")[0]


def check_translations():
    for entry, way, protocol, source, destination, out_source, out_destination in WAYS + CALLS:
        name = f"entry {entry}, {protocol} {source} -> {destination}"
        told = explained(way, protocol, source, destination)
        same(f"{name}: rule", entries(told["packet"]), [entry])
        same(f"{name}: what comes out", [flow(p) for p in steps(told["packet"], "leaves")],
             [f"{protocol} {out_source} -> {out_destination}"])
        same(f"{name}: rule of the reply", entries(told["reply"]), [entry])
        same(f"{name}: the reply", [flow(p) for p in steps(told["reply"], "leaves")],
             [f"{protocol} {destination} -> {source}"])
        same(f"{name}: verdict", told["replyComesBack"], True)


def check_other_packets():
    told = explained(["--in", "ethernet1"], "udp", PEER + ":5004", "239.1.1.1:5004")
    same("multicast", steps(told["packet"], "leaves"),
         [f"udp {PEER}:5004 -> 239.10.10.1:5004 in ethernet1 out vlan20",
          "udp 10.10.30.1:5004 -> 239.10.10.1:5004 in ethernet1 out vlan30"])
    same("multicast is not answered", "reply" in told, False)

    told = explained(OUT, "tcp", "10.10.20.10:9999", PEER + PEER_PORT)
    same("no rule", steps(told["packet"], "leaves"), ["as it is: no row matches"])
    told = explained(["--in", "vlan20", "--out", "ethernet9"], "tcp", "10.10.20.10:8443", PEER + PEER_PORT)
    same("another interface", steps(told["packet"], "leaves"), ["as it is: no row matches"])
    told = explained([*OUT, "--vrf", "1"], "tcp", "10.10.20.10:8443", PEER + PEER_PORT)
    same("another VRF", steps(told["packet"], "leaves"), ["as it is: no row matches"])
    told = explained(OUT, "udp", "10.10.20.10:8443", PEER + PEER_PORT)
    same("another protocol", steps(told["packet"], "leaves"), ["as it is: no row matches"])

    told = explained(OUT, "tcp", "10.10.20.11:25", PEER + PEER_PORT, "--fragment", "first")
    same("first fragment", entries(told["packet"]), [3])
    told = explained(OUT, "udp", "10.10.20.12", PEER, "--fragment", "later")
    same("later fragment", steps(told["packet"], "leaves"), [f"udp 198.51.100.7 -> {PEER} later fragment in vlan20 out ethernet1"])
    same("its reply", told["replyComesBack"], True)
    # Three hosts share the public address: which of them a fragment from outside is for, no row can tell.
    told = explained(FROM_OUTSIDE, "tcp", PEER, "198.51.100.7", "--fragment", "later", status=1)
    same("fragments for one of several hosts", len(steps(told["packet"], "match")), 3)
    same("none is chosen", (steps(told["packet"], "unknown"), steps(told["packet"], "leaves")),
         (["these rows match equally well"], []))
    told = explained(OUT, "tcp", "10.10.20.13:22", PEER + PEER_PORT)
    same("access list", steps(told["packet"], "only if"),
         ["access list and filters of the row permit the packet; not looked into"])


def ids(told):
    return {c["entry"]: (c["natIds"], c.get("fragmentIds")) for c in told["connections"]}


def check_restart():
    first = run_json(BRANCH_OFFICE, "--state", "state", "--ids")
    second = run_json(BRANCH_OFFICE, "--state", "state", "--ids")
    same("NAT ids after a restart", second["natIds"], first["natIds"])
    same("of each connection", ids(second), ids(first))
    same("known before", [told["summary"]["restoredNatIds"] for told in (first, second)], [0, 31])

    # What other rules leave alone stays, what is not claimed any more is given back, and comes again with a new id.
    whole = json.loads(BRANCH_OFFICE.read_text())
    table = whole["ietf-nat:nat"]["instances"]["instance"][0]["mapping-table"]
    table["mapping-entry"] = [entry for entry in table["mapping-entry"] if entry["index"] % 2]
    (FOLDER / "half.json").write_text(json.dumps(whole))
    half = run_json("half.json", "--state", "state")
    same("half of the rules keep their ids", ids(half), {entry: given for entry, given in ids(first).items() if entry % 2})
    again = run_json(BRANCH_OFFICE, "--state", "state")
    same("the others' ids were free meanwhile", again["summary"]["restoredNatIds"], half["summary"]["natIds"])
    holds("they have them again", {entry: given for entry, given in ids(again).items() if entry % 2}
          == {entry: given for entry, given in ids(first).items() if entry % 2})
    shutil.rmtree(FOLDER / "state")


def check_text():
    status, out, err = run(BRANCH_OFFICE)
    same("status and errors", (status, err), (0, ""))
    lines = out.splitlines()
    same("first line", lines[0], f"{BRANCH_OFFICE}, instance 1 'branch office'")
    same("columns", lines[2].split(), "entry kind interface target protocol local global natIds fragmentIds result".split())
    rows = [line.split() for line in lines[3:-2]]
    same("a connection with ports", [rows[3][i] for i in (0, 1, 2, 3, 4, 5, 6, -1)],
         ["4", "static", "ethernet1", "source", "udp", "10.10.20.12:51820", "198.51.100.7:51820", "programmed"])
    same("one without", [rows[8][i] for i in (0, 1, 2, 3, 4, 5, 6, -1)],
         ["9", "static", "vlan30", "destination", "any", "10.10.30.9", "192.0.2.9", "programmed"])
    same("connections", [row[0] for row in rows], [str(i) for i in range(1, 12)])
    same("summary", lines[-1],
         "11 connections, all programmed; 65 rows, all accepted; 31 NAT ids; 1 turn")
    holds("at most as wide as a terminal", max(map(len, lines[1:])) <= 132)


def check_sections():
    told = run_json(BRANCH_OFFICE, "--rows", "--ids", "--ring", "3")
    same("rows", len(told["rows"]), told["summary"]["rows"])
    same("all settled", {row["state"] for row in told["rows"]}, {"settled"})
    held = [holder["natId"] for holder in told["natIds"]]
    same("NAT ids", len(set(held)), told["summary"]["natIds"])
    same("one holder per ingress row", len(held), sum(row["table"].startswith("ing") for row in told["rows"]))
    holds("the newest lines of the ring", "NatSwTableProgrammerSm::replayReconcile" in told["ringTrace"])
    same("no more of them", len(told["ringTrace"]), 3)
    without = run_json(BRANCH_OFFICE)
    same("sections that were not asked for", {"rows", "natIds", "ringTrace", "failedRows"} & set(without), set())


def main():
    check_text()
    check_sections()
    check_restart()
    check_translations()
    check_other_packets()
    finish()


main()
