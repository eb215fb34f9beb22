#!/usr/bin/env python3
"""Records what a real kernel's connection tracking knows behind a NAT box, as the tool `conntrack -L` prints it.

    sudo examples/record-conntrack.py [CONNTRACK OPTION...] > LISTING
    sudo examples/record-conntrack.py -o extended > LISTING

Needs root, a kernel with connection tracking, and the Debian packages conntrack, nftables, iproute2 and python3.

Three network namespaces are built: inside - box - outside. The box translates with nftables: masquerade for what leaves,
port forwards for what is offered inside, an address and a zone of their own for the guest, and one forward that inside
hosts use as well, for which both sides must be translated. Real clients talk to real servers, and while their sockets are
open the box's table is printed.

Everything lives in namespaces of this process alone: the network namespaces get their names in a mount namespace that
nobody else sees, and every socket of every host belongs to this one process. So nothing of the machine's own network is
touched, and whatever ends this process, be it SIGKILL, takes everything away with it.
"""

import contextlib
import ctypes
import os
import shutil
import socket
import struct
import subprocess
import sys

CLONE_NEWNS, CLONE_NEWNET = 0x00020000, 0x40000000

SETUP = """
ip netns add inside
ip netns add box
ip netns add outside
ip -n box link add inside type veth peer name eth0 netns inside
ip -n box link add outside type veth peer name eth0 netns outside

ip -n inside link set lo up
ip -n inside link set eth0 up
ip -n inside address add 10.0.0.11/24 dev eth0
ip -n inside address add 10.0.0.12/24 dev eth0
ip -n inside address add 10.0.0.13/24 dev eth0
ip -n inside address add 10.0.0.21/24 dev eth0
ip -n inside address add 10.0.0.22/24 dev eth0
ip -n inside address add 10.0.0.31/24 dev eth0
ip -n inside address add 2001:db8:0:1::11/64 dev eth0 nodad
ip -n inside route add default via 10.0.0.1
ip -n inside route add default via 2001:db8:0:1::1

ip -n box link set lo up
ip -n box link set inside up
ip -n box link set outside up
ip -n box address add 10.0.0.1/24 dev inside
ip -n box address add 198.51.100.1/24 dev outside
ip -n box address add 198.51.100.2/24 dev outside
ip -n box address add 2001:db8:0:1::1/64 dev inside nodad
ip -n box address add 2001:db8:0:2::1/64 dev outside nodad
ip -n box route add 203.0.113.0/24 via 198.51.100.81
ip netns exec box sysctl -q -w net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1

ip -n outside link set lo up
ip -n outside link set eth0 up
ip -n outside address add 198.51.100.81/24 dev eth0
ip -n outside address add 198.51.100.82/24 dev eth0
ip -n outside address add 203.0.113.9/32 dev lo
ip -n outside address add 203.0.113.77/32 dev lo
ip -n outside address add 2001:db8:0:2::81/64 dev eth0 nodad
ip -n outside route add 2001:db8:0:1::/64 via 2001:db8:0:2::1
"""

RULES = """
table ip translation {
   chain zones {
      type filter hook prerouting priority raw
      iifname "inside" ip saddr 10.0.0.31 ct zone set 7
      iifname "outside" ip daddr 198.51.100.2 ct zone set 7
   }
   chain forwards {
      type nat hook prerouting priority dstnat
      ip daddr 198.51.100.1 tcp dport 80 dnat to 10.0.0.21:8080
      ip daddr 198.51.100.1 tcp dport 22 dnat to 10.0.0.21
      ip daddr 198.51.100.1 udp dport 53 dnat to 10.0.0.22
      ip daddr 198.51.100.1 udp dport 5000 dnat to 10.0.0.22:6000
   }
   chain leaving {
      type nat hook postrouting priority srcnat
      tcp dport 25 ct mark set 25
      oifname "outside" ip saddr 10.0.0.31 snat to 198.51.100.2
      oifname "outside" ip saddr 10.0.0.0/24 masquerade
      iifname "inside" oifname "inside" masquerade
   }
}
table ip6 filter {
   chain forward {
      type filter hook forward priority filter
      ct state invalid drop
   }
}
"""

libc = ctypes.CDLL(None, use_errno=True)
open_sockets = []  # of all hosts: what is open here is established in the box


def run(*command, **options):
    subprocess.run(command, check=True, stdin=options.pop("stdin", subprocess.DEVNULL), **options)


def checked(result):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


def leave_the_machine():
    """Network and mount namespaces of our own, and a place in them where `ip netns` keeps its names."""
    checked(libc.unshare(CLONE_NEWNS | CLONE_NEWNET))
    run("mount", "--make-rprivate", "/")
    run("mount", "-t", "tmpfs", "none", "/run")


@contextlib.contextmanager
def host(name):
    """Sockets made inside of it belong to the namespace, and stay there."""
    with open("/proc/thread-self/ns/net") as home, open(f"/run/netns/{name}") as place:
        checked(libc.setns(place.fileno(), CLONE_NEWNET))
        try:
            yield
        finally:
            checked(libc.setns(home.fileno(), CLONE_NEWNET))


def bound(name, kind, address, protocol=0):
    family = socket.AF_INET6 if ":" in address[0] else socket.AF_INET
    with host(name):
        new = socket.socket(family, kind, protocol)
    if kind == socket.SOCK_STREAM:
        new.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    new.settimeout(10)
    new.bind(address)
    open_sockets.append(new)
    return new


def server(name, kind, address):
    new = bound(name, kind, address)
    if kind == socket.SOCK_STREAM:
        new.listen(64)
    return new


def tcp(name, source, service, to, close=False):
    """One connection with a request and an answer; stays open unless closed in good order."""
    client = bound(name, socket.SOCK_STREAM, source)
    client.connect(to)
    served, _ = service.accept()
    served.settimeout(10)
    open_sockets.append(served)
    for sender, receiver in ((client, served), (served, client)):
        sender.sendall(b"x")
        receiver.recv(1)
    if close:
        client.shutdown(socket.SHUT_WR)
        served.recv(1)
        served.close()
        client.recv(1)


def udp(name, source, service, to, exchanges=1, answered=True):
    """More than one exchange makes the kernel take the flow for a stream."""
    client = bound(name, socket.SOCK_DGRAM, source)
    for _ in range(exchanges):
        client.sendto(b"x", to)
        if service:
            _, sender = service.recvfrom(1)
            if answered:
                service.sendto(b"y", sender)
                client.recvfrom(1)


def unanswered_tcp(name, source, to):
    client = bound(name, socket.SOCK_STREAM, source)
    client.setblocking(False)
    client.connect_ex(to)


def ping(name, source, to, identifier):
    raw = bound(name, socket.SOCK_RAW, (source, 0), socket.IPPROTO_ICMP)
    header = struct.pack("!BBHHH", 8, 0, 0, identifier, 1)
    total = sum(struct.unpack("!4H", header))
    checksum = ~(total + (total >> 16)) & 0xFFFF
    raw.sendto(struct.pack("!BBHHH", 8, 0, checksum, identifier, 1), (to, 0))
    while struct.unpack("!H", raw.recv(100)[24:26])[0] != identifier:
        pass  # an answer to somebody else: raw sockets see them all


def other_protocol(name, source, to, protocol, payload):
    bound(name, socket.SOCK_RAW, (source, 0), protocol).sendto(payload, (to, 0))


def outgoing_traffic():
    web = server("outside", socket.SOCK_STREAM, ("198.51.100.81", 443))
    mail = server("outside", socket.SOCK_STREAM, ("198.51.100.82", 25))
    names = server("outside", socket.SOCK_DGRAM, ("198.51.100.82", 53))
    sink = server("outside", socket.SOCK_DGRAM, ("203.0.113.77", 514))
    clients = ("10.0.0.11", "10.0.0.12", "10.0.0.13")
    for client in clients:
        # All three with the same source ports: the box has to choose other ones for two of them.
        for port in range(40000, 40012):
            tcp("inside", (client, port), web, ("198.51.100.81", 443))
        for port in range(41000, 41006):
            udp("inside", (client, port), names, ("198.51.100.82", 53))
        tcp("inside", (client, 42000), mail, ("198.51.100.82", 25))
        tcp("inside", (client, 43000), web, ("198.51.100.81", 443), close=True)
        udp("inside", (client, 44000), names, ("198.51.100.82", 53), exchanges=3)
        udp("inside", (client, 45000), sink, ("203.0.113.77", 514), answered=False)
        ping("inside", client, "198.51.100.81", 4660)
    unanswered_tcp("inside", ("10.0.0.11", 46000), ("198.51.100.99", 443))
    other_protocol("inside", "10.0.0.12", "198.51.100.81", 50, bytes(16))
    other_protocol("inside", "10.0.0.13", "198.51.100.82", socket.IPPROTO_GRE, struct.pack("!HHI", 0, 0x0800, 0))
    tcp("inside", ("10.0.0.31", 40000), web, ("198.51.100.81", 443))
    udp("inside", ("10.0.0.31", 41000), names, ("198.51.100.82", 53))


def forwarded_traffic():
    web = server("inside", socket.SOCK_STREAM, ("10.0.0.21", 8080))
    shell = server("inside", socket.SOCK_STREAM, ("10.0.0.21", 22))
    names = server("inside", socket.SOCK_DGRAM, ("10.0.0.22", 53))
    game = server("inside", socket.SOCK_DGRAM, ("10.0.0.22", 6000))
    for client in ("203.0.113.9", "203.0.113.77", "198.51.100.82"):
        for port in range(50000, 50006):
            tcp("outside", (client, port), web, ("198.51.100.1", 80))
        tcp("outside", (client, 51000), shell, ("198.51.100.1", 22))
        for port in range(52000, 52004):
            udp("outside", (client, port), names, ("198.51.100.1", 53))
        udp("outside", (client, 53000), game, ("198.51.100.1", 5000), exchanges=3)
        udp("outside", (client, 54000), game, ("198.51.100.1", 5000), answered=False)
    # From inside to the public address: the box translates both sides.
    for client in ("10.0.0.12", "10.0.0.13"):
        tcp("inside", (client, 55000), web, ("198.51.100.1", 80))


def untranslated_traffic():
    shell = server("box", socket.SOCK_STREAM, ("10.0.0.1", 22))
    routing = server("box", socket.SOCK_STREAM, ("198.51.100.1", 179))
    web6 = server("outside", socket.SOCK_STREAM, ("2001:db8:0:2::81", 443))
    tcp("inside", ("10.0.0.11", 56000), shell, ("10.0.0.1", 22))
    tcp("outside", ("198.51.100.81", 56000), routing, ("198.51.100.1", 179))
    tcp("inside", ("2001:db8:0:1::11", 56000), web6, ("2001:db8:0:2::81", 443))


def main():
    if os.geteuid() != 0:
        sys.exit("record-conntrack: needs root, to make network namespaces")
    missing = [tool for tool in ("conntrack", "nft", "ip", "mount", "sysctl") if not shutil.which(tool)]
    if missing:
        sys.exit(f"record-conntrack: not found: {', '.join(missing)}; apt-get install conntrack nftables iproute2 procps")
    leave_the_machine()
    for command in filter(None, SETUP.splitlines()):
        run(*command.split())
    rules = subprocess.Popen(("ip", "netns", "exec", "box", "nft", "-f", "-"), stdin=subprocess.PIPE, text=True)
    rules.communicate(RULES)
    if rules.returncode != 0:
        sys.exit("record-conntrack: the rules above were refused; the kernel needs nf_tables with NAT")
    outgoing_traffic()
    forwarded_traffic()
    untranslated_traffic()
    sys.stdout.flush()
    run("ip", "netns", "exec", "box", "conntrack", "-L", *sys.argv[1:])


if __name__ == "__main__":
    main()
