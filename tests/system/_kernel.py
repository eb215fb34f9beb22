"""A kernel's NAT to follow: an inside, a box that translates, and an outside, each a network namespace of the test's own.

    inside 10.0.0.1 to 10.0.0.20 -- lan, box, wan 192.0.2.1 -- outside 192.0.2.2 and 203.0.113.1 to 203.0.113.20

The outside routes 198.51.100.0/24 to the box. Everything stands in namespaces of processes and mounts as well, so that
nothing is left whatever becomes of the test. A script calls isolate() before anything else.
"""

import ctypes
import os
import re
import shutil
import socket
import struct
import subprocess
import sys

SKIPPED = 77
HOSTS = [f"10.0.0.{n}" for n in range(1, 21)]
SERVERS = [f"203.0.113.{n}" for n in range(1, 21)]
_libc = ctypes.CDLL(None, use_errno=True)


def isolate(needed=True):
    """Goes on in namespaces of its own. Where the kernel does not permit them, skips the test, or returns why if they are not needed."""
    if os.environ.get("NAT_TEST_ISOLATED"):
        command("mount", "-t", "tmpfs", "none", "/run")
        os.makedirs("/run/netns")
        return None
    why = _entered()
    if needed:
        print(f"skipped: {why}")
        sys.exit(SKIPPED)
    return why


def _entered():
    """Does not return when the script was started again in its namespaces."""
    missing = [tool for tool in ("unshare", "ip", "nft", "conntrack", "mount") if not shutil.which(tool)]
    if missing:
        return f"not installed: {', '.join(missing)}"
    unshare = ["unshare", "--mount", "--net", "--pid", "--mount-proc", "--fork", "--kill-child"]
    if os.getuid() != 0:
        unshare += ["--user", "--map-root-user"]
    probe = "mount -t tmpfs none /run && ip netns add a 2>&1 && ip netns exec a nft add table ip nat && ip netns exec a conntrack -L"
    tried = subprocess.run([*unshare, "sh", "-c", probe], capture_output=True, text=True)
    if tried.returncode != 0:
        return f"no namespaces with NAT are permitted here: {(tried.stderr.strip() or tried.stdout.strip())[:200]}"
    os.environ["NAT_TEST_ISOLATED"] = "1"
    os.execvp(unshare[0], [*unshare, sys.executable, "-B", *sys.argv])


def command(*arguments, text=None):
    done = subprocess.run(arguments, input=text, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(arguments)}: {done.stderr}")
    return done.stdout


class inside_of:
    """The calling thread is in that namespace meanwhile: what it opens belongs there."""

    def __init__(self, netns):
        self.netns = netns

    def __enter__(self):
        self.own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        self._enter(f"/run/netns/{self.netns}")

    def __exit__(self, *_):
        self._enter(f"/proc/self/fd/{self.own}")
        os.close(self.own)

    @staticmethod
    def _enter(path):
        wanted = os.open(path, os.O_RDONLY)
        if _libc.setns(wanted, 0x40000000) != 0:
            raise OSError(ctypes.get_errno(), f"setns {path}")
        os.close(wanted)


def build(rules=""):
    """The three namespaces; `rules` are those of the box, as nft reads them."""
    for netns in ("inside", "box", "outside"):
        command("ip", "netns", "add", netns)
    steps = {
        "inside": ["link add eth0 type veth peer name lan netns box", *(f"addr add {a}/24 dev eth0" for a in HOSTS), "link set eth0 up",
                   "route add default via 10.0.0.254"],
        "outside": ["link add eth0 type veth peer name wan netns box", "addr add 192.0.2.2/30 dev eth0", "link set lo up",
                    *(f"addr add {a}/32 dev lo" for a in SERVERS), "link set eth0 up", "route add 198.51.100.0/24 via 192.0.2.1"],
        "box": ["link set lo up", "addr add 10.0.0.254/24 dev lan", "addr add 192.0.2.1/30 dev wan", "link set lan up", "link set wan up",
                "route add default via 192.0.2.2"],
    }
    for netns, lines in steps.items():
        command("ip", "-netns", netns, "-batch", "-", text="\n".join(lines) + "\n")
    with inside_of("box"):
        with open("/proc/sys/net/ipv4/ip_forward", "w") as forward:
            forward.write("1")
        command("nft", "-f", "-", text=rules)


def udp(netns, address, port=0):
    with inside_of(netns):
        result = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    result.bind((address, port))
    result.settimeout(10)
    return result


def ping(netns, address, target, query):
    """One echo request."""
    with inside_of(netns):
        raw = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
    raw.bind((address, 0))
    raw.sendto(struct.pack("!BBHHH", 8, 0, 0xFFFF - (0x800 + query + 1), query, 1), (target, 0))
    raw.close()


def conntrack(*arguments):
    """What the tool says of the box, where it finds something or not."""
    with inside_of("box"):
        return subprocess.run(["conntrack", *arguments], capture_output=True, text=True).stdout


_ENTRY = re.compile(r"^(\w+) .*?src=(\S+) dst=(\S+) (?:sport=(\d+) dport=(\d+)|type=\d+ code=\d+ id=(\d+)) .*?"
                    r"src=(\S+) dst=(\S+) (?:sport=(\d+) dport=(\d+)|type=\d+ code=\d+ id=(\d+))", re.MULTILINE)


def translated():
    """The kernel's connections with one side translated, as the agent shows them: protocol, target, local, global, peer."""
    found = set()
    for protocol, src, dst, sport, dport, query, rsrc, rdst, rsport, rdport, rquery in _ENTRY.findall(conntrack("-L")):
        source, peer = (f"{src}:{sport}", f"{dst}:{dport}") if sport else (f"{src}:{query}", dst)
        answerer, asker = (f"{rsrc}:{rsport}", f"{rdst}:{rdport}") if rsport else (rsrc, f"{rdst}:{rquery}")
        if source != asker and peer == answerer:
            found.add((protocol, "source", source, asker, peer))
        elif source == asker and peer != answerer:
            found.add((protocol, "destination", answerer, peer, source))
    return found


class Creator:
    """Makes translated UDP connections in the box as fast as the kernel takes them, without a packet."""

    ORIG = {"src": 0, "dst": 1, "sport": 8, "dport": 9, "family": 15, "protocol": 17, "nat": 20, "natport": 22, "timeout": 24, "zone": 61}

    def __init__(self):
        self.library = library = ctypes.CDLL("libnetfilter_conntrack.so.3", use_errno=True)
        library.nfct_new.restype = library.nfct_open.restype = ctypes.c_void_p
        for name, kind in (("u8", ctypes.c_uint8), ("u16", ctypes.c_uint16), ("u32", ctypes.c_uint32)):
            getattr(library, f"nfct_set_attr_{name}").argtypes = [ctypes.c_void_p, ctypes.c_int, kind]
        library.nfct_query.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_void_p]
        library.nfct_setobjopt.argtypes = [ctypes.c_void_p, ctypes.c_uint]
        library.nfct_destroy.argtypes = [ctypes.c_void_p]
        with inside_of("box"):
            self.handle = library.nfct_open(1, 0)

    def udp(self, number, query=0, zone=0):
        """The n-th connection, always the same; `query` 0 makes it, 2 destroys it."""
        address = lambda text: struct.unpack("=I", socket.inet_aton(text))[0]
        host, port = divmod(number, 50000)
        entry = self.library.nfct_new()
        for name, value in (("src", address(f"10.1.0.{host + 1}")), ("dst", address("203.0.113.9")), ("nat", address(f"198.51.100.{host + 1}")),
                            ("timeout", 600)):
            if query == 0 or name in ("src", "dst"):
                self.library.nfct_set_attr_u32(entry, self.ORIG[name], value)
        for name, value in (("sport", port + 10000), ("dport", 53), ("natport", port + 10001)):
            if query == 0 or name != "natport":
                self.library.nfct_set_attr_u16(entry, self.ORIG[name], socket.htons(value))
        self.library.nfct_set_attr_u8(entry, self.ORIG["family"], socket.AF_INET)
        self.library.nfct_set_attr_u8(entry, self.ORIG["protocol"], socket.IPPROTO_UDP)
        if zone:
            self.library.nfct_set_attr_u16(entry, self.ORIG["zone"], zone)
        if query == 0:
            self.library.nfct_setobjopt(entry, 5)  # the replies' direction from the original one
        done = self.library.nfct_query(self.handle, query, entry)
        error = ctypes.get_errno()
        self.library.nfct_destroy(entry)
        if done != 0:
            raise OSError(error, f"connection {number}")
