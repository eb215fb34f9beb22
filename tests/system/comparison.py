"""Packets of a kernel's NAT, walked through the tables of an agent that follows it: every packet that enters the box, from
either side, must leave the tables as the kernel sent it on.

    comparison.py NAT-AGENT SOURCE [PACKETS [SEED]]

Compared are addresses, protocol and ports of whole packets and first fragments, and addresses of later ones; TTL, checksums
and sizes are the kernel's own. Allowed to differ, and counted, are only later fragments whose addresses the kernel translates in
more than one way, since these are all that their rows match: they may go another of these ways.
"""

import _kernel

_kernel.isolate()

import collections
import mmap
import random
import socket
import struct
import sys

from _agent import finish, holds, instance, same, write
from _kernel import HOSTS, SERVERS, conntrack, inside_of, translated, udp
from _serving import Serving, said

PACKETS = int(sys.argv[3]) if len(sys.argv) > 3 else 10000
SEED = int(sys.argv[4]) if len(sys.argv) > 4 else random.randrange(2**32)
FLOWS = 60  # of a round
RULES = """
table ip nat {
   chain in {
      type nat hook prerouting priority dstnat
      iifname "wan" ip daddr 198.51.100.50 dnat to 10.0.0.15
      iifname "wan" ip daddr 192.0.2.1 tcp dport 8080 dnat to 10.0.0.16:80
      iifname "wan" ip daddr 192.0.2.1 udp dport 5300 dnat to 10.0.0.17:53
   }
   chain out {
      type nat hook postrouting priority srcnat
      oifname "wan" ip saddr 10.0.0.11 snat to 198.51.100.11
      oifname "wan" ip saddr { 10.0.0.12, 10.0.0.13, 10.0.0.14 } meta l4proto { tcp, udp } snat to 198.51.100.20-198.51.100.21:20000-20999
      oifname "wan" masquerade
   }
}
"""
# What inside servers are reached at: protocol, and the address and port that the outside asks for.
FORWARDED = [("tcp", "198.51.100.50", 80), ("udp", "198.51.100.50", 53), ("tcp", "192.0.2.1", 8080), ("udp", "192.0.2.1", 5300)]
SERVING = {"inside": ["10.0.0.15", "10.0.0.16", "10.0.0.17"], "outside": SERVERS}
PROTOCOLS = {socket.IPPROTO_TCP: "tcp", socket.IPPROTO_UDP: "udp"}

Packet = collections.namedtuple("Packet", "protocol source destination fragment")  # ends as explain takes them, without ports if it is later


def seen(data):
    """What stays the same on the way, to find the packet on the other side again, and the packet."""
    header = (data[0] & 15) * 4
    total, number, flags = struct.unpack_from("!HHH", data, 2)
    protocol, source, destination = data[9], socket.inet_ntoa(data[12:16]), socket.inet_ntoa(data[16:20])
    offset, more = flags & 0x1FFF, bool(flags & 0x2000)
    content = data[header:total]
    fragment = "later" if offset else "first" if more else None
    if offset == 0:
        sport, dport = struct.unpack_from("!HH", content)
        source, destination = f"{source}:{sport}", f"{destination}:{dport}"
        content = content[4:16] + content[18:] if protocol == socket.IPPROTO_TCP else content[4:6] + content[8:]
    return (protocol, number, offset, more, content), Packet(PROTOCOLS[protocol], source, destination, fragment)


class Capture:
    """All IPv4 packets of one interface of the box.

    In a ring, which gets a copy of each: what other sockets read of a fragment is what the kernel has made of it since then.
    """

    FRAME, FRAMES, BLOCK = 2048, 8192, 1 << 20

    def __init__(self, interface):
        with inside_of("box"):
            self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, 0)
        self.option(10, struct.pack("I", 1))  # PACKET_VERSION: TPACKET_V2
        self.option(5, struct.pack("4I", self.BLOCK, self.FRAME * self.FRAMES // self.BLOCK, self.FRAME, self.FRAMES))  # PACKET_RX_RING
        self.ring = mmap.mmap(self.socket.fileno(), self.FRAME * self.FRAMES)
        self.next = 0
        with inside_of("box"):
            self.socket.bind((interface, 3))  # ETH_P_ALL: also what goes out

    def option(self, name, value):
        self.socket.setsockopt(263, name, value)  # SOL_PACKET

    def packets(self):
        """Direction and content of those that have come since."""
        while True:
            start = self.next * self.FRAME
            status, _, length, _, content = struct.unpack_from("IIIHH", self.ring, start)
            if not status & 1:  # TP_STATUS_USER
                break
            (kind,), (direction,) = struct.unpack_from("!H", self.ring, start + 34), struct.unpack_from("B", self.ring, start + 42)
            if kind == 0x0800:
                yield direction, self.ring[start + content:start + content + length]
            struct.pack_into("I", self.ring, start, 0)
            self.next = (self.next + 1) % self.FRAMES

    def taken(self):
        """Those that came in and those that went out, each by what stays the same."""
        came, went = collections.defaultdict(list), collections.defaultdict(list)
        for direction, data in self.packets():
            if data[9] in PROTOCOLS:
                key, packet = seen(data)
                (went if direction == socket.PACKET_OUTGOING else came)[key].append(packet)
        _, lost = struct.unpack("II", self.socket.getsockopt(263, 6, 8))  # PACKET_STATISTICS
        same("packets that were not captured", lost, 0)
        return came, went


class Traffic:
    """Servers on both sides, and flows to them."""

    def __init__(self, chance):
        self.chance = chance
        self.round = 0
        self.udp_servers, self.tcp_servers = {}, {}
        for netns, addresses in SERVING.items():
            for address in addresses:
                self.udp_servers[address] = udp(netns, address, 53)
            with inside_of(netns):
                self.tcp_servers[netns] = socket.create_server(("", 80), backlog=64)
            self.tcp_servers[netns].settimeout(10)

    def client(self):
        """Namespace and end of a client, and where it goes; ports are few, so that hosts share them."""
        if self.chance.random() < 0.3:
            return "outside", self.chance.choice(SERVERS), self.chance.choice(FORWARDED)
        return "inside", self.chance.choice(HOSTS), self.chance.choice([("tcp", 80), ("udp", 53)])

    def drive(self):
        self.round += 1
        used, sockets = set(), []
        while len(used) < FLOWS:
            netns, address, (protocol, *target) = self.client()
            if netns == "inside":
                target.insert(0, self.chance.choice(SERVERS[:5]))
            port = 10000 + self.round % 500 * 100 + self.chance.randrange(10)
            if (protocol, address, port) not in used:
                used.add((protocol, address, port))
                sockets += getattr(self, protocol)(netns, (address, port), tuple(target))
        return sockets

    def udp(self, netns, end, target):
        client = udp(netns, *end)
        inside = {"198.51.100.50": "10.0.0.15", "192.0.2.1": "10.0.0.17"}
        server = self.udp_servers[inside.get(target[0], target[0])]
        for _ in range(self.chance.randrange(1, 4)):
            client.sendto(self.chance.randbytes(self.chance.choice([9, 700, 1472, 1473, 4000])), target)
            _, asker = server.recvfrom(1 << 16)
            server.sendto(self.chance.randbytes(self.chance.choice([9, 700, 3000])), asker)
            client.recv(1 << 16)
        return [client]

    def tcp(self, netns, end, target):
        with inside_of(netns):
            client = socket.create_connection(target, 10, end)
        server, _ = self.tcp_servers["inside" if netns == "outside" else "outside"].accept()
        for sender, receiver in [(client, server), (server, client)] * self.chance.randrange(1, 4):
            sender.sendall(self.chance.randbytes(size := self.chance.randrange(1, 1400)))
            while size > 0:
                size -= len(receiver.recv(size))
        for ending, other in ((client, server), (server, client)):
            ending.shutdown(socket.SHUT_WR)
            same("the end of a connection", other.recv(1), b"")
        client.close()
        server.close()
        return []


class Walker:
    """Asks an agent for the way of packets, each once in a round."""

    def __init__(self, serving):
        self.client = serving.connected()
        self.known = {}

    def outcome(self, packet, interfaces):
        if (packet, interfaces) not in self.known:
            params = dict(zip(("in", "out", "proto", "src", "dst"), (*interfaces, *packet[:3])))
            if packet.fragment:
                params["fragment"] = packet.fragment
            answer = said(self.client, {"jsonrpc": "2.0", "id": 1, "method": "explain", "params": params})
            steps = answer["result"]["packet"]
            leaves = [step["what"].split() for step in steps if step["step"] == "leaves"]
            matched = any(step["step"] == "match" for step in steps) and len(leaves) == 1
            self.known[packet, interfaces] = Packet(leaves[0][0], leaves[0][1], leaves[0][3], packet.fragment) if matched else None
        return self.known[packet, interfaces]


def ways_of(packet):
    """What the kernel may make of a later fragment, by its addresses and protocol."""
    ways = set()
    for protocol, _, *ends in translated():
        local, outside, peer = (end.split(":")[0] for end in ends)
        if protocol == packet.protocol and packet[1:3] == (local, peer):
            ways.add(packet._replace(source=outside))
        elif protocol == packet.protocol and packet[1:3] == (peer, outside):
            ways.add(packet._replace(destination=local))
    return ways


def compare(serving, captures):
    """Numbers of packets, of later fragments, and of differences that are allowed."""
    walker = Walker(serving)
    (lan_in, lan_out), (wan_in, wan_out) = (capture.taken() for capture in captures)
    numbers = collections.Counter()
    for came, went, interfaces in ((lan_in, wan_out, ("vlan20", "ethernet1")), (wan_in, lan_out, ("ethernet1", "vlan20"))):
        same("packets that the kernel sends on", {key: len(packets) for key, packets in went.items()},
             {key: len(packets) for key, packets in came.items()})
        for key, packets in came.items():
            walked = [walker.outcome(packet, interfaces) for packet in packets]
            numbers["packets"] += len(packets)
            numbers["later fragments"] += sum(packet.fragment == "later" for packet in packets)
            if sorted(map(str, walked)) == sorted(map(str, went[key])):
                continue
            if all(packet.fragment == "later" and len(ways_of(packet)) > 1 and way in ways_of(packet) for packet, way in zip(packets, walked)):
                numbers["allowed differences"] += len(packets)
            else:
                same(f"{packets} through the tables", walked, went[key])
                numbers["differences"] += len(packets)
    return numbers


def main():
    print(f"seed {SEED}")
    _kernel.build(RULES)
    serving = Serving(write("empty.json", instance(pfe_nat__fragmentation=True)), "--follow-conntrack", "--nat-interface", "ethernet1",
                      "--netns", "box")
    traffic = Traffic(random.Random(SEED))
    captures = [Capture("lan"), Capture("wan")]
    numbers = collections.Counter()
    while numbers["packets"] < PACKETS and not numbers["differences"]:
        sockets = traffic.drive()
        facts = serving.result("following")["following"]
        same("connections of a round", (facts["learned"], facts["refused"], facts["losses"]), (FLOWS, 0, 0))
        numbers += compare(serving, captures)
        for one in sockets:
            one.close()
        conntrack("-F")
        same("nothing stays", serving.result("summary")["summary"]["rows"], 0)
    same("it ends", serving.end(), 0)
    holds("fragments were among them", numbers["later fragments"] > 0)
    print(", ".join(f"{numbers[what]} {what}" for what in ("packets", "later fragments", "allowed differences", "differences")),
          f"in {traffic.round} rounds")
    finish()


main()
