#!/usr/bin/env python3
"""Writes a large configuration to standard output: static rules with ports, on few public addresses.

    examples/generate.py 30000 > large.json
    examples/generate.py 30000 --addresses 2000 --fragmentation > large.json
    nat-agent large.json

With fragmentation every address takes two NAT ids more, of 65,535 in all.
"""

import argparse
import json
import sys

FIRST_PORT = 1024
PORTS = 65536 - FIRST_PORT
MOST_ADDRESSES = 65536
MOST_RULES = 32767  # two NAT ids each


def address(first, second, number):
    return f"{first}.{second}.{number >> 8}.{number & 0xFF}/32"


def entry(number, addresses):
    host, port = number % addresses, FIRST_PORT + number // addresses
    return {
        "index": number + 1,
        "type": "static",
        "transport-protocol": 6,
        "internal-src-address": address(10, 1, host),
        "internal-src-port": {"start-port-number": port},
        "external-src-address": address(198, 18, host),
        "external-src-port": {"start-port-number": port},
        "pfe-nat:interface": "ethernet1",
    }


def write(out, rules, addresses, fragmentation):
    """One entry per line, so that the file can be read and searched."""
    instance = {"id": 1, "name": f"{rules} rules on {addresses} addresses", "pfe-nat:fragmentation": fragmentation}
    head = json.dumps({"ietf-nat:nat": {"instances": {"instance": [instance]}}})
    end = "}]}}}"
    out.write(head[: -len(end)] + ', "mapping-table": {"mapping-entry": [\n')
    out.write(",\n".join(json.dumps(entry(number, addresses)) for number in range(rules)))
    out.write("\n]}" + end + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("rules", type=int, help=f"number of rules; {MOST_RULES} have room in the NAT id pool")
    parser.add_argument("--addresses", type=int, default=2000, help="spread over at most this many addresses (2000)")
    parser.add_argument("--fragmentation", action="store_true", help="translate later fragments as well")
    arguments = parser.parse_args()
    if not 1 <= arguments.addresses <= MOST_ADDRESSES:
        parser.error(f"--addresses: {arguments.addresses}; allowed: 1 to {MOST_ADDRESSES}")
    addresses = min(arguments.addresses, max(arguments.rules, 1))
    if not 0 <= arguments.rules <= addresses * PORTS:
        parser.error(f"rules: {arguments.rules}; allowed: 0 to {addresses * PORTS} on {addresses} addresses")
    write(sys.stdout, arguments.rules, addresses, arguments.fragmentation)


main()
