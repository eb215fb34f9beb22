"""Interface mode: one software-table entry for a rule that several interfaces have, and who feeds it."""

import json

from _agent import BRANCH_OFFICE, SOURCE, entry, finish, holds, instance, run, run_json, same, write

SHARED = SOURCE / "examples" / "shared-rules.json"
MODE = ["--mode", "interface"]


def check_sharing():
    told = run_json(SHARED, *MODE)
    by_number = {e["swEntry"]: e for e in told["swTableEntries"]}
    same("VLANs by direction and pair", [(e["direction"], e["matches"], e["vlans"]) for e in by_number.values()], [
        ("forward", "10.10.20.10:8443", "101-102"),
        ("reverse", "198.51.100.7:443", "101"),
        ("reverse", "198.51.100.7:443", "102"),
        ("forward", "10.10.20.12:51820", "102"),
        ("reverse", "198.51.100.7:51820", "102"),
        ("forward", "10.10.20.20", "101-102"),
        ("reverse", "198.51.100.8", "101"),
        ("reverse", "198.51.100.8", "102"),
        ("reverse", "239.1.1.1", "101"),
    ])
    same("later fragments", [n for n, e in by_number.items() if "fragments" in e], [1, 2, 3, 4, 5])
    feeding = {(c["entry"], n) for c in told["connections"] for n in c["feeds"]}
    same("both directions agree", {(c, n) for n, e in by_number.items() for c in e["fedBy"]}, feeding)
    same("the shared ones", [e["fedBy"] for e in by_number.values() if len(e["fedBy"]) > 1], [[1, 2], [3, 4]])
    same("summary", told["summary"], {"connections": 6, "swTableEntries": 9, "sharedEntries": 2, "ignored": 0})
    same("table mode takes the same file", run_json(SHARED)["summary"]["programmed"], 6)


def check_rest():
    vlans = [20, 1, 3, 2, 4094]
    write("many.json", instance(*(entry(i, pfe_nat__vlan=v, pfe_nat__interface=f"vlan{v}") for i, v in enumerate(vlans))))
    told = run_json("many.json", *MODE, "--ring", "1")
    same("VLANs as ranges", told["swTableEntries"][0]["vlans"], "1-3,20,4094")
    holds("ring", told["ringTrace"][0].startswith("NatSwTableProgrammerSm::addStaticConnection, natIntf: vl"))
    _, _, err = run("many.json", *MODE, "--trace", "6")
    holds("the consumer is told", "PfeNatSwTableSm 6 NatSwTableSm::addStaticSwTableEntry" in err)
    write("off.json", instance(entry(), enable=False))
    same("not enabled", run("off.json", *MODE)[:2], (0, ""))


def check_ignored():
    whole = json.loads((SOURCE / "examples" / "mixed.json").read_text())
    office = whole["ietf-nat:nat"]["instances"]["instance"][0]
    office["mapping-table"]["mapping-entry"][0]["pfe-nat:vlan"] = 20
    status, out, err = run(write("profiled.json", whole), *MODE)
    same("profiles", (status, out, err),
         (2, "", "nat-agent: profiled.json: pfe-nat:vlan-profile: 1 profiles; allowed in interface mode: none\n"))
    del office["pfe-nat:vlan-profile"]
    told = run_json(write("mixed.json", whole), *MODE, status=1)
    same("static", [c["entry"] for c in told["connections"]], [1])
    same("each other kind by name", [(i.get("entry"), i["kind"]) for i in told["ignored"]],
         [(2, "twice"), (3, "twice"), (4, "dynamic"), (5, "dynamic"), (6, "dynamic"), (7, "dynamic"),
          (8, "address-only"), (9, "full-cone"), (10, "twice"), (None, "trap")])
    same("a trap's name", told["ignored"][-1]["rule"], "acl 'inside hosts' pool 1")


def check_refusals():
    status, out, err = run(BRANCH_OFFICE, *MODE)
    same("without VLANs: status and output", (status, out), (2, ""))
    same("each is named", [line.split(": ")[2] for line in err.splitlines()], [f"entry {i}" for i in (1, 2, 3, 4, 5, 6, 7, 10)])
    same("with the reason", err.splitlines()[6],
         f"nat-agent: {BRANCH_OFFICE}: entry 7: lacks pfe-nat:vlan; allowed in interface mode: the VLAN of tunnel1, 1 to 4094")
    for option in (["--state", "state"], ["--rows"], ["--ids"], ["--fail", "2"], ["--capacity", "9"], ["--delay", "1"]):
        status, out, err = run(SHARED, *MODE, *option)
        same(f"{option}", (status, out, err),
             (2, "", f"nat-agent: {option[0]}: interface mode has neither hardware tables nor NAT ids; allowed: "
                     f"--mode table, or without {option[0]}; see  nat-agent --help\n"))
    same("an unknown mode", run(SHARED, "--mode", "intf")[2],
         "nat-agent: --mode: intf not in {table,interface}; see  nat-agent --help\n")


def main():
    check_sharing()
    check_rest()
    check_ignored()
    check_refusals()
    finish()


main()
