"""The reader knows exactly the members that the YANG module describes, with the same names, ranges and duties."""

import re

from _agent import SOURCE, entry, finish, holds, instance, run, same, write

# What is read of ietf-nat, by place below the instance.
IETF = {
    "": ["id", "name", "enable", "mapping-table"],
    "/mapping-table/mapping-entry": [
        "index", "type", "transport-protocol", "internal-src-address", "internal-src-port", "external-src-address",
        "external-src-port", "internal-dst-address", "internal-dst-port", "external-dst-address", "external-dst-port", "lifetime"],
}
AUGMENTED = {
    "/nat:nat/nat:instances/nat:instance": "",
    "/nat:nat/nat:instances/nat:instance/nat:mapping-table/nat:mapping-entry": "/mapping-table/mapping-entry",
}
# What lists need before anything below them is looked at.
KEYS = {"multicast-group": {"name": "g"}, "trap": {"interface": "ethernet1", "access-list": "a", "pool": 1}, "filter": {"sequence": 1}}
RANGES = {"uint8": (0, 2**8 - 1), "uint16": (0, 2**16 - 1), "uint32": (0, 2**32 - 1)}


def statements(tokens):
    """Of a block: (keyword, argument, its own statements)."""
    found = []
    while (keyword := next(tokens, "}")) != "}":
        argument, token = "", next(tokens)
        while token not in "{;":
            argument += token.strip("\"'") if token != "+" else ""
            token = next(tokens)
        found.append((keyword, argument, statements(tokens) if token == "{" else []))
    return found


def parsed(text):
    return statements(iter(re.findall(r'"[^"]*"|\'[^\']*\'|[{};]|[^\s{};"\']+', text)))


def of(block, *keywords):
    return [statement for statement in block if statement[0] in keywords]


def argument(block, keyword, absent=""):
    return next((statement[1] for statement in of(block, keyword)), absent)


def nodes(block, place):
    """(place, name, keyword, statements) of every data node, parents first."""
    for keyword, name, inner in of(block, "leaf", "list", "container"):
        yield place, name, keyword, inner
        yield from nodes(inner, f"{place}/{name}")


MODULE = parsed((SOURCE / "agent" / "configuration" / "pfe-nat.yang").read_text())[0][2]
NODES = [
    (AUGMENTED[path], place.removeprefix(AUGMENTED[path]), name, keyword, inner)
    for _, path, block in of(MODULE, "augment")
    for place, name, keyword, inner in nodes(block, AUGMENTED[path])
]


def member(place_below, name):
    """With its module where that differs from the parent's (RFC 7951, section 4)."""
    return name if place_below else f"pfe-nat:{name}"


def file_with(top, below, members):
    """A configuration in which these members stand at that place, and the pointer to it."""
    parts = [part for part in below.split("/") if part]
    value = members
    for i in reversed(range(len(parts))):
        value = {member(i > 0, parts[i]): [value]}
        if i > 0:
            value |= KEYS[parts[i - 1]]
    pointer = "".join(f"/{member(i > 0, part)}/0" for i, part in enumerate(parts))
    if top:
        return instance(entry() | value), f"/ietf-nat:nat/instances/instance/0{top}/0{pointer}"
    return instance(**value), f"/ietf-nat:nat/instances/instance/0{pointer}"


def refusal(top, below, members):
    """The place and the text by which the members are refused."""
    content, pointer = file_with(top, below, members)
    status, _, err = run(write("yang.json", content))
    same(f"{top}{below} {members}: status", status, 2)
    place, _, text = err.splitlines()[0].removeprefix("nat-agent: yang.json: ").partition(": ")
    return place, text, pointer


def check_names():
    for top in IETF:
        for below in ["", *sorted({node[1] for node in NODES if node[0] == top and node[1]})]:
            known = [] if below else list(IETF[top])
            known += [member(below, name) for t, b, name, _, _ in NODES if (t, b) == (top, below)]
            place, text, pointer = refusal(top, below, {"no-such-member": 1})
            same(f"{top}{below}: place", place, f"{pointer}/no-such-member")
            allowed = text.partition("; allowed: ")[2].removesuffix(", each at most once").split(", ")
            same(f"{top}{below}: members", sorted(allowed), sorted(known))


def check_leaf(top, below, name, inner):
    node = f"{top}{below}/{name}"
    [(_, kind, restrictions)] = of(inner, "type")
    # Of no type that a leaf has; and the first value behind each end of a range.
    place, text, pointer = refusal(top, below, {member(below, name): [1]})
    same(f"{node}: place", place, f"{pointer}/{member(below, name)}")
    if kind == "boolean":
        holds(f"{node}: boolean", text.endswith("allowed: true, false"))
    if kind in RANGES:
        low, high = map(int, argument(restrictions, "range", "{}..{}".format(*RANGES[kind])).split(".."))
        for wrong in (low - 1, high + 1):
            _, text, _ = refusal(top, below, {member(below, name): wrong})
            same(f"{node}: range", text, f"{wrong} is out of range; allowed: a whole number from {low} to {high}")


def check_required(top, below, inner, name):
    """Keys and mandatory leaves of a list."""
    required = argument(inner, "key").split() + [n for _, n, leaf in of(inner, "leaf") if argument(leaf, "mandatory") == "true"]
    place = f"{below}/{name}"
    lists = {n: [] for _, n, _ in of(inner, "list")}
    place_told, text, pointer = refusal(top, place, lists)
    same(f"{top}{place}: place of what is missing", place_told, pointer)
    holds(f"{top}{place}: something is missing", any(text.startswith(f'"{n}" is missing') for n in required))


def check_patterns():
    [pattern] = [argument(of(inner, "type")[0][2], "pattern") for _, name, inner in of(MODULE, "typedef") if name == "interface-name"]
    for name in ("ethernet0", "vlan1", "vlan4094", "port-channel16777215", "loopback10", "tunnel2", "ethernet01", "eth1", "vlan",
                 "none", "Ethernet1", "ethernet1/1", "vlan1 "):
        content = instance(entry(pfe_nat__interface=name))
        same(f"interface {name!r}", run(write("yang.json", content))[0] == 0, re.fullmatch(pattern, name) is not None)


def main():
    holds("the module augments both places", {node[0] for node in NODES} == set(IETF))
    check_names()
    for top, below, name, keyword, inner in NODES:
        holds(f"{name} is described", argument(inner, "description"))
        if keyword == "leaf":
            check_leaf(top, below, name, inner)
        else:
            check_required(top, below, inner, name)
    check_patterns()
    finish()


main()
