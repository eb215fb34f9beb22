"""The branch office, as the README shows it: programmed, its NAT ids kept over a restart, and a packet of every rule
translated there and back."""

import json
import shutil

from _agent import BRANCH_OFFICE, FOLDER, IN, OUT, explained, finish, holds, rules, run_json, same, steps, walks

PEER = "203.0.113.9"
CLIENT = PEER + ":51000"

# Of each unicast rule: entry, the way of a packet that it applies to, and what comes out of it. A source is translated on
# the way out of the rule's interface, a destination on the way in.
WAYS = [
    (1, OUT, "tcp", "10.10.20.10:8443", CLIENT, "198.51.100.7:443", CLIENT),
    (2, OUT, "tcp", "10.10.20.10:8080", CLIENT, "198.51.100.7:80", CLIENT),
    (3, OUT, "tcp", "10.10.20.11:25", CLIENT, "198.51.100.7:25", CLIENT),
    (4, OUT, "udp", "10.10.20.12:51820", CLIENT, "198.51.100.7:51820", CLIENT),
    (6, OUT, "icmp", "10.10.20.20", PEER, "198.51.100.8", PEER),
    (6, IN, "tcp", CLIENT, "198.51.100.8:80", CLIENT, "10.10.20.20:80"),
    (7, ["--in", "vlan40", "--out", "tunnel1", "--vrf", "7"], "udp", "10.10.40.5:500", PEER + ":500", "192.0.2.5:500", PEER + ":500"),
    (8, ["--in", "vlan20", "--out", "ethernet2"], "udp", "10.10.20.77:4000", "192.0.2.53:53", "10.10.20.77:4000", "10.10.20.53:5353"),
    (9, ["--in", "vlan30", "--out", "ethernet2"], "tcp", "10.10.30.4:9", "192.0.2.9:80", "10.10.30.4:9", "10.10.30.9:80"),
]


def check_translations():
    for entry, way, protocol, source, destination, out_source, out_destination in WAYS:
        told = explained(BRANCH_OFFICE, way, protocol, source, destination)
        walks(f"entry {entry}, {source} -> {destination}", told, entry, f"{protocol} {out_source} -> {out_destination}",
              f"{protocol} {destination} -> {source}")


def check_other_packets():
    told = explained(BRANCH_OFFICE, ["--in", "ethernet1"], "udp", PEER + ":5004", "239.1.1.1:5004")
    same("multicast, without a reply", ([row["what"] for row in told["packet"] if row["step"] == "leaves"], "reply" in told), (
        [f"udp {PEER}:5004 -> 239.10.10.1:5004 in ethernet1 out vlan20",
         "udp 10.10.30.1:5004 -> 239.10.10.1:5004 in ethernet1 out vlan30"], False))
    told = explained(BRANCH_OFFICE, OUT, "tcp", "10.10.20.10:9999", CLIENT)
    same("no rule", steps(told["packet"], "leaves"), ["as it is: no row matches"])
    told = explained(BRANCH_OFFICE, OUT, "tcp", "10.10.20.11:25", CLIENT, "--fragment", "first")
    same("first fragment", rules(told["packet"]), [3])
    told = explained(BRANCH_OFFICE, OUT, "udp", "10.10.20.12", PEER, "--fragment", "later")
    same("later fragment", (steps(told["packet"], "leaves"), told["replyComesBack"]),
         ([f"udp 198.51.100.7 -> {PEER} later fragment"], True))
    # Three hosts share the public address: which of them a fragment from outside is for, no row can tell.
    told = explained(BRANCH_OFFICE, IN, "tcp", PEER, "198.51.100.7", "--fragment", "later", status=1)
    same("fragments for one of several hosts", [len(steps(told["packet"], step)) for step in ("match", "unknown", "leaves")], [3, 1, 0])
    told = explained(BRANCH_OFFICE, OUT, "tcp", "10.10.20.13:22", CLIENT, status=1)
    same("an access list", [steps(told[way], step) for way in ("packet", "reply") for step in ("only if", "leaves")],
         [["access list 'admins' permits the packet"], [f"tcp 198.51.100.7:2222 -> {CLIENT}"],
          ["access list 'admins' permits the packet"], [f"tcp {CLIENT} -> 10.10.20.13:22"]])
    holds("no verdict", "replyComesBack" not in told)
    for way, source, destination in ((OUT, "10.10.20.13:22", "203.0.114.9:51000"), (IN, "203.0.114.9:51000", "198.51.100.7:2222")):
        told = explained(BRANCH_OFFICE, way, "tcp", source, destination)
        same(f"outside the filter, {source}", [[row.get("entry") for row in told["packet"] if row["step"] == "drops out"], steps(told["packet"], "leaves")],
             [[5], ["as it is: no row matches"]])


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


def main():
    check_restart()
    check_translations()
    check_other_packets()
    finish()


main()
