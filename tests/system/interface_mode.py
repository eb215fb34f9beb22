"""Interface mode: one software-table entry for a rule that several interfaces have, and who feeds it."""

import json

from _agent import BRANCH_OFFICE, SOURCE, entry, finish, holds, instance, run, run_json, same, write

MODE = ["--mode", "interface"]
PLACE, NEEDS = "/ietf-nat:nat/instances/instance/0", "allowed in interface mode:"


def check_sharing():
    told = run_json(BRANCH_OFFICE, *MODE)
    by_number = {e["swEntry"]: e for e in told["swTableEntries"]}
    feeding = {(c["entry"], n) for c in told["connections"] for n in c["feeds"]}
    same("both directions agree", {(c, n) for n, e in by_number.items() for c in e["fedBy"]}, feeding)
    same("direction, pair and VLANs of what the web server's two uplinks feed",
         [(e["direction"], e["matches"], e["vlans"], e["fedBy"]) for e in by_number.values() if {1, 11} & set(e["fedBy"])],
         [("forward", "10.10.20.10:8443", "101-102", [1, 11]),
          ("reverse", "198.51.100.7:443", "101", [1]),
          ("reverse", "198.51.100.7:443", "102", [11])])
    same("multicast", [(e["direction"], e["vlans"]) for e in by_number.values() if 10 in e["fedBy"]], [("reverse", "101")])
    same("later fragments", {f for n, e in by_number.items() if "fragments" in e for f in e["fedBy"]}, {1, 2, 3, 4, 5, 8, 11})
    same("summary", told["summary"], {"connections": 11, "swTableEntries": 20, "sharedEntries": 1, "ignored": 0})


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
    del office["pfe-nat:vlan-profile"]
    same("profiles", (status, out, err), (2, "", f"nat-agent: profiled.json: {PLACE}/pfe-nat:vlan-profile: a list; {NEEDS} no profiles\n"))
    told = run_json(write("mixed.json", whole), *MODE, status=1)
    same("static", [c["entry"] for c in told["connections"]], [1])
    same("each other kind by name", [(i.get("entry"), i["kind"]) for i in told["ignored"]],
         [(2, "twice"), (3, "twice"), (4, "dynamic"), (5, "dynamic"), (6, "dynamic"), (7, "dynamic"),
          (8, "address-only"), (9, "full-cone"), (10, "twice"), (None, "trap")])
    same("a trap's name", told["ignored"][-1]["rule"], "acl 'inside hosts' pool 1")


def check_refusals():
    write("no-vlan.json", instance(entry(1), entry(2, "10.0.0.2", "192.0.2.2", pfe_nat__vlan=7), entry(3, pfe_nat__interface="tunnel1")))
    same("without VLANs each is named, with the reason", run("no-vlan.json", *MODE),
         (2, "", "".join(f"nat-agent: no-vlan.json: {PLACE}/mapping-table/mapping-entry/{i}: an object lacks pfe-nat:vlan; {NEEDS} the VLAN "
                         f"of {intf}, 1 to 4094\n" for i, intf in ((0, "ethernet1"), (2, "tunnel1")))))
    for option in (["--state", "state"], ["--rows"], ["--ids"], ["--fail", "2"], ["--capacity", "9"], ["--delay", "1"]):
        status, out, err = run(BRANCH_OFFICE, *MODE, *option)
        same(f"{option}", (status, out, err),
             (2, "", f"nat-agent: {option[0]}: interface mode has neither hardware tables nor NAT ids; allowed: "
                     f"--mode table, or without {option[0]}; see  nat-agent --help\n"))
    same("an unknown mode", run(BRANCH_OFFICE, "--mode", "intf")[2],
         "nat-agent: --mode: intf not in {table,interface}; see  nat-agent --help\n")


def main():
    check_sharing()
    check_rest()
    check_ignored()
    check_refusals()
    finish()


main()
