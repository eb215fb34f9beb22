"""Hardware that does not take everything: status 1, every rule that it hit named with its reason, every row that it did not
take named; what it took works."""

import json

from _agent import BRANCH_OFFICE, entry, finish, holds, instance, run, run_json, same, write

TWO = instance(entry(1, "10.0.0.1", "192.0.2.1"), entry(2, "10.0.0.2", "192.0.2.2"))


def results(told):
    return {c["entry"]: (c["result"], c.get("reason")) for c in told["connections"]}


def check_capacity():
    write("two.json", TWO)
    told = run_json("two.json", "--capacity", "4")
    same("room for all", told["summary"]["programmed"], 2)
    told = run_json("two.json", "--capacity", "3", status=1)
    full = [(row["table"], row["state"]) for row in told["failedRows"]]
    same("no room for the fourth row", full, [("ingStaticNatTable", "no space")])
    same("the reason", [r for r in results(told).values() if r[0] != "programmed"],
         [("failed", full and told["failedRows"][0]["row"].split()[1] + " row no space")])
    told = run_json(BRANCH_OFFICE, "--capacity", "3", status=1)
    same("no room for rewrites", {(results(told)[entry] if entry != 10 else None) for entry in (3, 10)}, {None, ("failed", "source rewrite no space, destination rewrite no space")})
    told = run_json("two.json", "--capacity", "0", status=1)
    same("no room at all", told["summary"], told["summary"] | {"programmed": 0, "rows": 8, "failedRows": 8})
    same("rewrites are full, rows that need them are not sent",
         {(row["table"].startswith("ing"), row["state"]) for row in told["failedRows"]}, {(True, "failed"), (False, "no space")})


def check_delay():
    at_once = run_json(BRANCH_OFFICE)
    for delay, turns in ((0, 1), (1, 1), (5, 5)):
        told = run_json(BRANCH_OFFICE, "--delay", delay)
        same(f"--delay {delay}: turns", told["summary"]["turns"], turns)
        same(f"--delay {delay}: result", told["connections"], at_once["connections"])


def check_rejected():
    group = {"name": "g", "replication": [{"number": 1, "interface": "vlan20"}]}
    many = "239.1.1.1"
    file = write("mixed.json", instance(
        entry(1, many, "239.1.1.2", side="dst"),
        entry(2, many, "10.0.0.1", side="dst", pfe_nat__interface="vlan2", pfe_nat__multicast_group="g"),
        entry(3, many, "239.1.1.2", pfe_nat__interface="vlan3", pfe_nat__multicast_group="g"),
        entry(4, many, "239.1.1.2", side="dst", pfe_nat__interface="vlan4", pfe_nat__multicast_group="g"),
        pfe_nat__multicast_group=[group]))
    same("multicast that no chip does", results(run_json(file, status=1)), {
        1: ("rejected", "no pfe-nat:multicast-group is named"),
        2: ("rejected", "one of the addresses is multicast, the other is not"),
        3: ("rejected", "a multicast address is no source"),
        4: ("programmed", None)})


def check_explain():
    told = run("explain", write("two.json", TWO), "--capacity", "0", "--out", "ethernet1", "--proto", "icmp", "--src", "10.0.0.1",
               "--dst", "203.0.113.9")
    same("explain says so as well", (told[0], told[2]), (1, "nat-agent: not everything is programmed; see  nat-agent two.json\n"))
    same("a row that is not there translates nothing", [line.split()[0] for line in told[1].splitlines()[1:4]],
         ["packet", "failed", "leaves"])


def main():
    check_capacity()
    check_delay()
    check_rejected()
    check_explain()
    finish()


main()
