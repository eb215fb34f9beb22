"""A configuration that cannot be used is refused whole: status 2, nothing on standard output, and on standard error the
file, the place, the value and what is allowed; never a word about anything programmed."""

from _agent import FOLDER, both, entry, finish, instance, run, same, write

ENTRY = "/ietf-nat:nat/instances/instance/0/mapping-table/mapping-entry/0"
INSTANCE = "/ietf-nat:nat/instances/instance/0"
GROUP = INSTANCE + "/pfe-nat:multicast-group/0"

PORT = "allowed: a whole number from 1 to 65535"
HOST = 'is no single address; allowed: an IPv4 address other than 0.0.0.0 with /32, such as "192.0.2.1/32"'
INTERFACE = (
    "is no interface; allowed: vlanN with N from 1 to 4094; ethernetN, port-channelN, loopbackN, tunnelN with N from 0 "
    "to 16777215"
)
SIDES = (
    "internal-src-address with external-src-address, or internal-dst-address with external-dst-address, or both with both "
    "translated"
)
TYPES = 'allowed: "static", "dynamic-implicit"'
FLOW = ("10.0.0.1:5 192.0.2.1:6", "203.0.113.9:80 203.0.113.9:80", 6)


def without(whole, *names):
    return {name: value for name, value in whole.items() if name not in names}


# What the single entry of a file holds, the place below the entry that is refused, and the rest of the line.
ENTRIES = [
    ("index as text", entry(index="1"), "/index", '"1" is no number; allowed: a whole number from 0 to 4294967295'),
    ("fraction", entry(transport_protocol=6.5), "/transport-protocol", "6.5 is out of range; allowed: a whole number from 0 to 255"),
    ("type", entry(type="steady"), "/type", f'"steady" is no type of an entry; {TYPES}'),
    ("half a flow", entry(type="dynamic-implicit"), "",
     "an object lacks a side of the flow; allowed: internal-src-address, external-src-address, internal-dst-address and "
     "external-dst-address together, the two of the side that stays as it is being equal"),
    ("dynamic on both sides", both(1, "dynamic-implicit", FLOW[0], "203.0.113.9:80 203.0.113.9:81", 6), "",
     "an object translates both sides; allowed: a dynamic entry that translates one side"),
    ("port of an address", both(1, "dynamic-implicit", *FLOW) | {"pfe-nat:address-only": True}, "",
     "an object translates a port, but addresses only; allowed: equal ports, or none, with pfe-nat:address-only"),
    ("protocol of a twice entry", both(1, "static", "10.0.0.1 192.0.2.1", "10.0.0.2 192.0.2.2", 6), "/transport-protocol",
     "6 is given, but the entry is a twice one; allowed: no transport-protocol in such an entry"),
    ("lifetime", entry(type="dynamic-implicit", lifetime="1h"), "/lifetime", '"1h" is no number; allowed: a whole number from 0 to 4294967295'),
    ("port of GRE", entry(transport_protocol=47, local_port=5, outside_port=6), "/internal-src-port",
     "an object is given, but protocol 47 has no ports; allowed: no ports with transport-protocol 47"),
    ("full cone of a static entry", entry(pfe_nat__full_cone=True), "/pfe-nat:full-cone",
     "true is given, but the entry is static; allowed: no pfe-nat:full-cone in such an entry"),
    ("address", entry(local="10.0.0.256"), "/internal-src-address", f'"10.0.0.256/32" {HOST}'),
    ("no length", entry() | {"internal-src-address": "10.0.0.1"}, "/internal-src-address", f'"10.0.0.1" {HOST}'),
    ("port 0", entry(local_port=0, outside_port=80), "/internal-src-port/start-port-number", f"0 is out of range; {PORT}"),
    ("port range", entry(outside_port=80) | {"internal-src-port": {"start-port-number": 80, "end-port-number": 90}},
     "/internal-src-port",
     "an object from 80 to 90 is a range of ports; allowed: one port: no end-port-number, or one equal to start-port-number"),
    ("one port", entry(local_port=80), "",
     "an object lacks external-src-port; allowed: internal-src-port and external-src-port together, or neither to leave "
     "ports alone"),
    ("both sides", both(1, "static", "10.0.0.1 192.0.2.1", "10.0.0.9 10.0.0.9"), "",
     f"an object gives both sides and does not translate both; allowed: {SIDES}"),
    ("interface", entry() | {"pfe-nat:interface": "eth1"}, "/pfe-nat:interface", f'"eth1" {INTERFACE}'),
    ("access list", entry(pfe_nat__access_list=""), "/pfe-nat:access-list", '"" is no name; allowed: a text of 1 to 255 bytes'),
    ("filter", entry(pfe_nat__filter=[{"sequence": 1, "source-prefix": "10.0.0.1/8"}]), "/pfe-nat:filter/0/source-prefix",
     '"10.0.0.1/8" is no prefix; allowed: an IPv4 prefix without bits behind its length, such as "192.0.2.0/24"'),
    ("filter twice", entry(pfe_nat__filter=[{"sequence": 7}, {"sequence": 7}]), "/pfe-nat:filter/1",
     "an object has the sequence number 7 of another filter; allowed: a number of its own"),
    ("no such group", entry(pfe_nat__multicast_group="tv"), "/pfe-nat:multicast-group",
     '"tv" is no multicast group of this instance; allowed: none, since the instance has no pfe-nat:multicast-group'),
    ("escaped pointer", entry() | {"a/b~c": 1}, "/a~1b~0c",
     '"a/b~c" is no known member; allowed: index, type, transport-protocol, internal-src-address, internal-src-port, '
     "external-src-address, external-src-port, internal-dst-address, internal-dst-port, external-dst-address, "
     "external-dst-port, lifetime, pfe-nat:interface, pfe-nat:vrf, pfe-nat:vlan, pfe-nat:qualifier, pfe-nat:access-list, "
     "pfe-nat:filter, pfe-nat:filters-disabled, pfe-nat:next-hop-id, pfe-nat:multicast-group, pfe-nat:address-only, "
     "pfe-nat:full-cone, each at most once"),
]



def group(*replications):
    return {"name": "g", "replication": list(replications)}


TRAP = {"interface": "ethernet1", "access-list": "a", "pool": 1}
ONE_COPY = {"number": 1, "interface": "vlan20"}


# Whole files and the lines that refuse them.
FILES = [
    ("empty", "", ["line 1, column 1: the text ends here; allowed: a value"]),
    ("broken", '{\n  "ietf-nat:nat": {\n    "instances": ]\n', [
        "line 3, column 18: \"]\" is no part of JSON here; allowed: a value"]),
    ("no UTF-8", b'\xef\xbb\xbf{"\xff": 1}', [
        'line 1, column 6: "\ufffd" is no part of JSON here; allowed: UTF-8 without control characters, and escapes, up to a closing quote']),
    ("behind a NUL", '{"a": true\0', ['line 1, column 11: "\\u0000" is no part of JSON here; allowed: \',\' or \'}\'']),
    ("half a word", '[1, {"a": -', ["line 1, column 12: the text ends here; allowed: a number, true, false or null"]),
    ("deep", "[" * 40, ['line 1, column 33: "[" is no part of JSON here; allowed: 32 levels of lists and objects in each other']),
    ("long", '{"ietf-nat:nat": ' + "7" * 9999 + "}", ["/ietf-nat:nat: " + "7" * 60 + "... is no object; allowed: an object"]),
    ("escapes", '{"ietf-nat:n\\u0061t": {"instances": "caf\\u00e9\\u20ac\\ud83d\\ude00\\t\\/ and on"}}', [
        '/ietf-nat:nat/instances: "caf\u00e9\u20ac\U0001f600\\t/ and on" is no object; allowed: an object']),
    ("list", "[]", ["(root): a list is no object; allowed: an object"]),
    ("no instance", {"ietf-nat:nat": {"instances": {"instance": []}}}, [
        "/ietf-nat:nat/instances/instance: a list of 0 instances; allowed: one instance per file"]),
    ("member twice", '{"ietf-nat:nat": {"instances": {"instance": [{"id": 1, "id": 2}]}}}', [
        INSTANCE + '/id: "id" is given twice; allowed: id, name, enable, mapping-table, pfe-nat:fragmentation, '
        "pfe-nat:vrf-less, pfe-nat:full-cone-capability, pfe-nat:l4-detection, pfe-nat:vlan-profile, pfe-nat:trap, "
        "pfe-nat:multicast-group, pfe-nat:port, each at most once"]),
    ("profile twice", instance(pfe_nat__vlan_profile=[{"vlan": 7, "profile": 1}, {"vlan": 7, "profile": 1}]), [
        INSTANCE + "/pfe-nat:vlan-profile/1: an object has the VLAN 7 of another profile; allowed: one profile per VLAN"]),
    ("trap twice", instance(pfe_nat__trap=[TRAP, TRAP | {"interface": "ethernet2"}]), [
        INSTANCE + "/pfe-nat:trap/1: an object has the access list, pool and rule id, or the interface, access list and pool, "
        "of another trap; allowed: one trap for each of them"]),
    ("blocks of ports", instance(pfe_nat__trap=[TRAP | {"filter": [{"sequence": 15}, {"sequence": 10, "source-port-range": [{"first": 1024, "last": 65535}]}]}]), [
        INSTANCE + "/pfe-nat:trap/0/filter/1: an object takes the numbers 10 to 15, one for each pair of port blocks, and filter 15 "
        "takes 15 to 15; allowed: sequence numbers that leave room for the pairs"]),
    ("ports of a trap", instance(pfe_nat__trap=[TRAP | {"filter": [{"sequence": 1, "source-port-range": [{"first": 2, "last": 1}]}]}]), [
        INSTANCE + "/pfe-nat:trap/0/filter/0/source-port-range/0: an object ends before it begins; allowed: a last port that is "
        "not less than the first"]),
    ("detection twice", instance(pfe_nat__l4_detection=[{"protocol": 6}, {"protocol": 6}]), [
        INSTANCE + "/pfe-nat:l4-detection/1: an object has the protocol 6 of another detection; allowed: one detection per protocol"]),
    ("source of copies", instance(pfe_nat__multicast_group=[group(ONE_COPY | {"source-address": "239.0.0.1/32"})]), [
        GROUP + '/replication/0/source-address: "239.0.0.1/32" is no source of packets; allowed: a unicast address, below 224.0.0.0']),
    ("replication twice", instance(pfe_nat__multicast_group=[group(ONE_COPY, ONE_COPY)]), [
        GROUP + "/replication/1: an object has the number 1 of another replication; allowed: a number of its own"]),
    ("other group", instance(
        entry(local="239.0.0.1", outside="239.0.0.2", side="dst", pfe_nat__multicast_group="h"),
        pfe_nat__multicast_group=[group(ONE_COPY)]), [
        ENTRY + '/pfe-nat:multicast-group: "h" is no multicast group of this instance; allowed: "g"']),
    ("group of unicast", instance(entry(pfe_nat__multicast_group="g"), pfe_nat__multicast_group=[group(ONE_COPY)]), [
        ENTRY + '/pfe-nat:multicast-group: "g" is given, but the entry translates unicast; allowed: a group only with '
        "addresses in 224.0.0.0/4"]),
    ("index twice", instance(entry(4), entry(4, local="10.0.0.2", outside="192.0.2.2")), [
        ENTRY[:-1] + "1: an object has the index 4 of another entry; allowed: an index of its own"]),
    ("rows twice", instance(entry(4), entry(5)), [
        ENTRY[:-1] + "1: an object derives the rows of entry 4; allowed: one entry per interface, VRF, protocol and pair of "
        "addresses and ports, whichever side is written"]),
    ("key twice", instance(entry(4, transport_protocol=6), entry(5, transport_protocol=17)), [
        ENTRY[:-1] + "1: an object has the interface, access list, internal address and internal port of entry 4; allowed: "
        "one entry for each of them; the protocol does not tell entries apart"]),
    # Of protocol and access list any difference, but not one between any protocol and a certain one.
    *((f"one public pair, {name}", instance(entry(4, "10.0.0.1", **first), entry(5, "10.0.0.2", **second), entry(6, pfe_nat__vlan=0)),
       [ENTRY[:-1] + "1: an object translates packets to 192.0.2.1 that entry 4 translates otherwise; allowed: one entry per interface, "
        "VRF, VLAN, protocol (0: any), access list, filters and pair of addresses and ports, on either side"] * refused
       + [ENTRY[:-1] + "2/pfe-nat:vlan: 0 is out of range; allowed: a whole number from 1 to 4094"])
      for name, first, second, refused in (
          ("two hosts", {}, {}, 1), ("any protocol", {"transport_protocol": 6}, {}, 1), ("two VRFs", {"pfe_nat__vrf": 1}, {}, 0),
          ("two protocols", {"transport_protocol": 6}, {"transport_protocol": 17}, 0),
          ("two lists", {"pfe_nat__access_list": "a"}, {"pfe_nat__access_list": "b"}, 0))),
    ("two ways out", instance(entry(4), entry(5, "192.0.2.2", "10.0.0.1", side="dst")), [
        ENTRY[:-1] + "1: an object translates packets from 10.0.0.1 that entry 4 translates otherwise; allowed: one entry per "
        "interface, VRF, VLAN, protocol (0: any), access list, filters and pair of addresses and ports, on either side"]),
    ("dynamic rows twice", instance(both(4, "dynamic-implicit", *FLOW), both(5, "dynamic-implicit", "10.0.0.2:5 192.0.2.1:6", *FLOW[1:])), [
        ENTRY[:-1] + "1: an object derives the rows of entry 4; allowed: one entry per VRF, qualifier, protocol and pairs of "
        "addresses and ports"]),
    ("address twice", instance(*({**both(i, "dynamic-implicit", "10.0.0.1 192.0.2.1", f"203.0.113.{i} 203.0.113.{i}", 6), "pfe-nat:address-only": True}
                                 for i in (4, 5))), [
        ENTRY[:-1] + "1: an object derives the rows of entry 4; allowed: one entry per VRF, qualifier and address"]),
    ("two faults", instance(entry(1, pfe_nat__vlan=0), entry(2, transport_protocol=999)), [
        ENTRY + "/pfe-nat:vlan: 0 is out of range; allowed: a whole number from 1 to 4094",
        ENTRY[:-1] + "1/transport-protocol: 999 is out of range; allowed: a whole number from 0 to 255"]),
    ("many faults", instance(*(entry(i, pfe_nat__vlan=0) for i in range(23))), [
        *(ENTRY[:-1] + f"{i}/pfe-nat:vlan: 0 is out of range; allowed: a whole number from 1 to 4094" for i in range(20)),
        "3 more of this kind"]),
]


def check(name, file, lines):
    for state in ([], ["--state", "state"]):
        status, out, err = run(file, *state)
        same(f"{name}: status", status, 2)
        same(f"{name}: standard output", out, "")
        same(f"{name}: standard error", err.splitlines(), [f"nat-agent: {file}: {line}" for line in lines])
    same(f"{name}: the state folder", (FOLDER / "state").exists(), False)


def main():
    for name, content, place, rest in ENTRIES:
        check(name, write("bad.json", instance(content)), [f"{ENTRY}{place}: {rest}"])
    for name, content, lines in FILES:
        check(name, write("bad.json", content), lines)
    check("no file", "missing.json", ["cannot be read: No such file or directory"])
    check("folder", ".", ["cannot be read: Is a directory"])
    finish()


main()
