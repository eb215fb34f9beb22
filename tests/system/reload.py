"""An agent that went over from one configuration to another, again and again, is what a fresh one is with the last.

    reload.py NAT-AGENT SOURCE [ROUNDS [SEED]]
"""

import json
import random
import re
import sys

from _agent import both, entry, finish, instance, run_json, same, write
from _serving import Serving

ROUNDS = int(sys.argv[3]) if len(sys.argv) > 3 else 40
SEED = int(sys.argv[4]) if len(sys.argv) > 4 else random.randrange(2**32)
FLOW = ("10.0.0.5:40000 192.0.2.5:50000", "203.0.113.9:443 203.0.113.9:443")
MANY = {"pfe_nat__interface": "vlan30", "side": "dst", "pfe_nat__multicast_group": "g"}

# Entries that differ in one thing each; a configuration has one of every line, or none.
ENTRIES = [
    [entry(1, "10.0.0.1", "192.0.2.1", 80, 8080), entry(1, "10.0.0.1", "192.0.2.7", 80, 8080), entry(1, "10.0.0.1", "192.0.2.1", 80, 8080, pfe_nat__vrf=3),
     entry(1, "10.0.0.1", "192.0.2.1", 80, 8080, pfe_nat__next_hop_id=9), entry(1, "10.0.0.1", "192.0.2.1", 80, 8080, pfe_nat__qualifier=4)],
    [entry(2, "10.0.0.2", "192.0.2.2", **more) for more in (
        {}, {"pfe_nat__access_list": "a"}, {"pfe_nat__filter": [{"sequence": 1, "source-port": 7}]}, {"pfe_nat__filter": [{"sequence": 1, "destination-port": 7}]},
        {"pfe_nat__filter": [{"sequence": 1, "source-port": 7}], "pfe_nat__filters_disabled": True})],
    [both(3, "static", "10.0.0.3:1 192.0.2.3:2", "203.0.113.3:3 10.9.0.3:4"), both(3, "static", "10.0.0.3:1 192.0.2.3:2", "203.0.113.3:3 10.9.0.3:5"),
     both(3, "static", "10.0.0.3:1 192.0.2.3:2", "203.0.113.3:3 10.9.0.3:4") | {"pfe-nat:next-hop-id": 2}],
    [entry(4, "239.0.0.1", "239.1.0.1", **MANY), entry(4, "239.0.0.1", "239.1.0.2", **MANY)],
    [both(5, "dynamic-implicit", *FLOW, 6), both(5, "dynamic-implicit", FLOW[0].replace("50000", "50001"), FLOW[1], 6),
     both(5, "dynamic-implicit", *FLOW, 6) | {"pfe-nat:full-cone": True}, both(5, "dynamic-implicit", *FLOW, 6) | {"pfe-nat:next-hop-id": 2},
     both(5, "dynamic-implicit", *FLOW, 17)],
    [both(6, "dynamic-implicit", "10.0.0.6 192.0.2.6", "203.0.113.9 203.0.113.9", 6) | {"pfe-nat:address-only": True}],
    # The rows of the first, as another entry.
    [entry(7, "10.0.0.11", "192.0.2.11", pfe_nat__interface="ethernet2"), entry(8, "10.0.0.11", "192.0.2.11", pfe_nat__interface="ethernet2"),
     entry(7, "192.0.2.11", "10.0.0.11", side="dst", pfe_nat__interface="ethernet2")],
]
TRAP = {"interface": "ethernet1", "access-list": "t", "pool": 1, "rule-id": 1}
FILTER = {"sequence": 5, "source-prefix": "10.0.0.0/24", "protocol": 6}
MEMBERS = {
    "pfe-nat:trap": [[TRAP | {"trap-all": True}], [TRAP | {"filter": [FILTER]}], [TRAP | {"filter": [FILTER | {"permit": True}]}],
                     [TRAP | {"filter": [FILTER], "vrf": 2}], [TRAP | {"filter": [FILTER], "pool-value": 3}], [TRAP | {"filter": [FILTER], "priority": 2}],
                     [TRAP | {"filter": [FILTER], "action": 1}], [TRAP | {"filter": [FILTER], "rule-id": 2}, TRAP | {"interface": "ethernet2", "rule-id": 3}]],
    "pfe-nat:vlan-profile": [[{"vlan": 7, "profile": 1}], [{"vlan": 7, "profile": 2}, {"vlan": 8, "profile": 0}]],
    "pfe-nat:fragmentation": [True], "pfe-nat:vrf-less": [True], "pfe-nat:full-cone-capability": [False], "pfe-nat:l4-detection": [[{"protocol": 6}]],
}
GROUPS = [[{"number": 1, "interface": "vlan20"}], [{"number": 1, "interface": "vlan21"}], [{"number": 1, "interface": "vlan20", "source-address": "10.0.0.9/32"}],
          [{"number": 1, "interface": "vlan20"}, {"number": 2, "interface": "vlan21"}]]


def configuration(chance):
    entries = [chance.choice(variants) for variants in ENTRIES if chance.random() < 0.8]
    # Settings stay for the most part: they change while nothing is programmed.
    members = {name: chance.choice(values) for name, values in MEMBERS.items() if chance.random() < (0.7 if isinstance(values[0], list) else 0.15)}
    return instance(*entries, **members, pfe_nat__multicast_group=[{"name": "g", "replication": chance.choice(GROUPS[:2] * 3 + GROUPS)}])


def shown(serving):
    """All that there is, in no order and without the numbers of ids."""
    told = {part: serving.result(part).get(name, []) for part, name in (
        ("connections", "connections"), ("rows", "rows"), ("traps", "traps"), ("profiles", "profiles"), ("statuses", "statuses"))}
    text = re.sub(r'(natId|aclId)=\d+|, "(?:natIds|fragmentIds)": \[[^]]*\]', r"\1", json.dumps(told))
    return {part: sorted(json.dumps(row) for row in rows) for part, rows in json.loads(text).items()}


def ids(serving):
    return {c["entry"]: c["natIds"] for c in serving.result("connections")["connections"] if "natIds" in c}


def entries_of(content):
    return {e["index"]: e for e in content["ietf-nat:nat"]["instances"]["instance"][0]["mapping-table"]["mapping-entry"]}


def settings_of(content):
    return {name: value for name, value in content["ietf-nat:nat"]["instances"]["instance"][0].items() if "trap" not in name and "profile" not in name
            and name != "mapping-table"}


def main():
    print(f"seed {SEED}")
    chance = random.Random(SEED)
    before = configuration(chance)
    serving = Serving(write("old.json", before), state="old")
    for round in range(ROUNDS):
        after = configuration(chance)
        own = ids(serving)
        serving.result("reload", file=write("new.json", after))
        fresh = Serving("new.json", state=f"fresh{round}")
        here, there = shown(serving), shown(fresh)
        for part, rows in there.items():
            same(f"seed {SEED}, round {round}: {part}", [row for row in here[part] if row not in rows] + ["missing"]
                 + [row for row in rows if row not in here[part]], ["missing"])
        stay = [i for i, e in entries_of(after).items() if e == entries_of(before).get(i)]
        if settings_of(before) == settings_of(after):
            same(f"seed {SEED}, round {round}: ids of what stayed", {i: ids(serving).get(i) for i in stay}, {i: own.get(i) for i in stay})
        same(f"seed {SEED}, round {round}: it ends", fresh.end(), 0)
        before = after
    finish()


main()
