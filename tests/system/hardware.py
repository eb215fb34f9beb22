"""Hardware that does not take everything: status 1, every rule that it hit named with its reason, every row that it did not
take named; what it took works."""

import json

from _agent import BRANCH_OFFICE, entry, finish, holds, instance, run, run_json, same, write

TWO = instance(entry(1, "10.0.0.1", "192.0.2.1"), entry(2, "10.0.0.2", "192.0.2.2"))


def results(told):
    return {c["entry"]: (c["result"], c.get("reason")) for c in told["connections"]}


def check_every_write_fails():
    told = run_json(write("two.json", TWO), "--fail", "1", status=1)
    same("all failed", set(results(told).values()), {("failed", "source row failed, destination row failed")})
    same("summary", told["summary"]["failedRows"], 8)
    same("rows by name", len(told["failedRows"]), 8)
    same("none is in the hardware", {row["state"] for row in told["failedRows"]}, {"failed"})


def check_some_writes_fail():
    """Whichever write fails, a rule is programmed exactly when none of its four rows is among the failed ones."""
    write("two.json", TWO)
    for number in range(1, 9):
        status, out, _ = run("two.json", "--fail", number, "--format", "json")
        told = json.loads(out)
        failed = told.get("failedRows", [])
        good = [c["entry"] for c in told["connections"] if c["result"] == "programmed"]
        same(f"--fail {number}: status", status, 1)
        holds(f"--fail {number}: rows named", 0 < len(failed) == told["summary"]["failedRows"])
        ids = {c["entry"]: c["natIds"] for c in told["connections"]}
        for index, own in ids.items():
            mine = [row for row in failed if row["row"] in [f"natId={i}" for i in own]
                    or any(row["action"] == f"natId={i}" for i in own)]
            same(f"--fail {number}: entry {index} programmed", index in good, not mine)
    told = run_json("two.json", "--fail", "9")
    same("the ninth of eight writes", told["summary"]["programmed"], 2)


def check_capacity():
    write("two.json", TWO)
    told = run_json("two.json", "--capacity", "4")
    same("room for all", told["summary"]["programmed"], 2)
    told = run_json("two.json", "--capacity", "3", status=1)
    full = [(row["table"], row["state"]) for row in told["failedRows"]]
    same("no room for the fourth row", full, [("ingStaticNatTable", "no space")])
    same("the reason", [r for r in results(told).values() if r[0] != "programmed"],
         [("failed", full and told["failedRows"][0]["row"].split()[1] + " row no space")])
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


def check_pool():
    """Every unicast rule takes two NAT ids of 65,535: the last rule finds one only, and gives it back."""
    entries = [entry(i, f"10.{i >> 16}.{i >> 8 & 255}.{i & 255}", f"198.{18 + (i >> 16)}.{i >> 8 & 255}.{i & 255}")
               for i in range(1, 32769)]
    told = run_json(write("pool.json", instance(*entries)), status=1)
    refused = [c for c in told["connections"] if c["result"] != "programmed"]
    same("one rule too many", [(c["result"], c["reason"]) for c in refused],
         [("failed", "no NAT id was free")])
    same("nothing of it is left", (told["summary"]["natIds"], told["summary"]["rows"], refused and refused[0].get("natIds")),
         (65534, 4 * 32767, None))


def check_text():
    status, out, err = run(write("two.json", TWO), "--capacity", "3")
    lines = out.splitlines()
    same("status and errors", (status, err), (1, ""))
    same("reasons have a column", lines[2].split()[-2:], ["result", "reason"])
    same("failed rows are announced", lines[6], "The hardware did not take 1 row:")
    same("summary", lines[-1], "2 connections, 1 programmed; 8 rows, 7 accepted; 4 NAT ids; 1 turn")
    status, out, err = run("explain", "two.json", "--capacity", "0", "--out", "ethernet1", "--proto", "icmp", "--src",
                           "10.0.0.1", "--dst", "203.0.113.9")
    same("explain says so as well", (status, err), (1, "nat-agent: not everything is programmed; see  nat-agent two.json\n"))
    same("a row that is not there translates nothing", [line.split()[0] for line in out.splitlines()[1:4]],
         ["packet", "failed", "leaves"])


def main():
    check_every_write_fails()
    check_some_writes_fail()
    check_capacity()
    check_delay()
    check_rejected()
    check_pool()
    check_text()
    finish()


main()
