"""The mixed example: rules of every kind are programmed, keep their NAT ids, and a packet of every unicast rule, its later
fragments and their answers walk through the tables and back."""

from _agent import IN, OUT, SOURCE, both, explained, finish, instance, rules, run_json, same, steps, walks, write

MIXED = SOURCE / "examples" / "mixed.json"

# Entry, table, the way of a packet that it applies to, the packet, and what comes out.
WAYS = [
    (1, "ingStaticNatTable", OUT, "tcp", "10.20.0.10:8443", "203.0.113.9:5000", "198.51.100.7:443", "203.0.113.9:5000"),
    (2, "ingTwiceNatTable", OUT, "tcp", "10.20.0.30:1521", "10.99.0.5:1521", "198.51.100.30:1521", "172.16.0.5:1521"),
    (4, "ingDynamicSnaptTable", OUT, "tcp", "10.20.0.50:40000", "203.0.113.9:443", "198.51.100.9:61000", "203.0.113.9:443"),
    (6, "ingDynamicDnaptTable", IN, "udp", "203.0.113.77:52000", "198.51.100.9:53", "203.0.113.77:52000", "10.20.0.53:5353"),
    (7, "ingDynamicSnaptTable", OUT, "icmp", "10.20.0.60:77", "203.0.113.9", "198.51.100.9:78", "203.0.113.9"),
    (8, "ingDynamicSnatAddrOnlyTable", OUT, "tcp", "10.20.0.70:1", "203.0.113.99:2", "198.51.100.70:1", "203.0.113.99:2"),
    (8, "ingDynamicDnatAddrOnlyTable", IN, "tcp", "203.0.113.99:2", "198.51.100.70:1", "203.0.113.99:2", "10.20.0.70:1"),
    (9, "ingDynamicSnaptTable", OUT, "udp", "10.20.0.80:5060", "203.0.113.21:5060", "198.51.100.9:5060", "203.0.113.21:5060"),
]
# Later fragments whose way back is certain: of one inside host behind the public address alone.
FRAGMENTS = [
    (OUT, "tcp", "10.20.0.30", "10.99.0.5", "198.51.100.30", "172.16.0.5"),
    (IN, "udp", "203.0.113.77", "198.51.100.9", "203.0.113.77", "10.20.0.53"),
    (OUT, "tcp", "10.20.0.70", "203.0.113.20", "198.51.100.70", "203.0.113.20"),
    (OUT, "udp", "10.20.0.80", "203.0.113.21", "198.51.100.9", "203.0.113.21"),
]


def check_ways():
    for entry, table, way, protocol, source, destination, out_source, out_destination in WAYS:
        name = f"entry {entry}, {protocol} {source} -> {destination}"
        told = explained(MIXED, way, protocol, source, destination)
        walks(name, told, entry, f"{protocol} {out_source} -> {out_destination}", f"{protocol} {destination} -> {source}")
        same(f"{name}: row", [row["table"] for row in told["packet"] if row["step"] == "match"], [table])
    for way, protocol, source, destination, out_source, out_destination in FRAGMENTS:
        name = f"later fragment {protocol} {source} -> {destination}"
        told = explained(MIXED, way, protocol, source, destination, "--fragment", "later")
        same(f"{name}: what comes out", steps(told["packet"], "leaves"), [f"{protocol} {out_source} -> {out_destination} later fragment"])
        same(f"{name}: verdict", told["replyComesBack"], True)
    told = explained(MIXED, OUT, "udp", "10.20.0.90:5", "239.1.1.1:6")
    same("twice multicast", steps(told["packet"], "leaves"),
         ["udp 198.51.100.90:5 -> 239.20.1.1:6", "udp 198.51.100.91:5 -> 239.20.1.1:6"])
    told = explained(MIXED, ["--in", "vlan20", "--out", "ethernet2"], "tcp", "10.20.0.50:40000", "203.0.113.9:443")
    same("an interface without dynamic rules", steps(told["packet"], "leaves"), ["as it is: no row matches"])


def check_order():
    """Twice before static before dynamic with ports before addresses only; VRFs and qualifiers count."""
    wide = both(3, "dynamic-implicit", "10.0.0.1:5 198.51.100.2:5", "203.0.113.9:80 203.0.113.9:80", 6)
    entries = [
        both(1, "static", "10.0.0.1:1 198.51.100.1:1", "203.0.113.9:80 192.0.2.9:80"),
        both(2, "static", "10.0.0.1 198.51.100.1") | {"pfe-nat:vrf": 3},
        wide,
        both(4, "dynamic-implicit", "10.0.0.1 198.51.100.4", "203.0.113.9 203.0.113.9", 6) | {"pfe-nat:address-only": True},
    ]
    file = write("order.json", instance(*entries))
    for port, vrf, rule in ((1, 0, 1), (1, 3, 2), (5, 0, 3), (6, 0, 4), (5, 3, 2), (5, 4, None)):
        told = explained(file, OUT, "tcp", f"10.0.0.1:{port}", "203.0.113.9:80", "--vrf", vrf)
        same(f"port {port}, VRF {vrf}", rules(told["packet"]), [rule] if rule else [])
    file = write("less.json", instance(wide | {"pfe-nat:vrf": 8}, pfe_nat__vrf_less=True))
    told = explained(file, OUT, "tcp", "10.0.0.1:5", "203.0.113.9:80", "--vrf", 5)
    same("whatever the VRF", told["replyComesBack"], True)


def check_programming():
    first = run_json(MIXED, "--state", "state", "--ids")
    second = run_json(MIXED, "--state", "state", "--ids")
    same("NAT ids after a restart", second["natIds"], first["natIds"])
    same("kinds", [c["kind"] for c in first["connections"]],
         ["static", "twice", "twice", "dynamic", "dynamic", "dynamic", "dynamic", "address-only", "full-cone", "twice"])
    same("trap rules", [(rule["acl"], rule["sequence"], rule["trap"]) for rule in first["traps"]],
         [("inside hosts pool 1 rule 4", 12, "no"), ("inside hosts pool 1 rule 4", 22, "yes")])
    same("profiles", first["profiles"], [{"vlan": 20, "profile": 2}])
    content = MIXED.read_text().replace('"pfe-nat:fragmentation": true', '"pfe-nat:full-cone-capability": false')
    content = content.replace('{"first": 443, "last": 443}', '{"first": 1000, "last": 1023}, {"first": 0, "last": 999}, {"first": 8000, "last": 8999}')
    told = run_json(write("elsewhere.json", content))
    same("full cone that is translated elsewhere", [(c["entry"], c["result"], c.get("reason")) for c in told["connections"]
                                                    if c["result"] != "programmed"],
         [(9, "no result", "full-cone connections are translated elsewhere")])
    same("blocks of a trap's ports", [(rule["sequence"], rule["destinationPorts"]) for rule in told["traps"][1:]],
         [*enumerate(("0-1023", "8000-8063", "8064-8191", "8192-8703", "8704-8959", "8960-8991", "8992-8999"), 22)])


def check_failures():
    """Every kind names the row that the hardware did not take."""
    told = run_json(MIXED, "--capacity", "0", status=1)
    same("reasons", [c["reason"] for c in told["connections"][:9]],
         ["source rewrite no space, destination rewrite no space", *["forward rewrite no space, reverse rewrite no space"] * 2,
          *["source rewrite no space, destination rewrite no space"] * 2, "destination rewrite no space, source rewrite no space",
          *["source rewrite no space, destination rewrite no space"] * 3])


def main():
    check_programming()
    check_ways()
    check_order()
    check_failures()
    finish()


main()
