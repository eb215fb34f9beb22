"""An agent that follows the NAT of a kernel: connections come, change and go as they do there, whatever was lost on the way,
and what cannot be followed is told.
"""

import _kernel

_kernel.isolate()

import signal
import subprocess

from _agent import AGENT, FOLDER, both, entry, finish, holds, instance, run, same, write
from _kernel import HOSTS, SERVERS, Creator, command, conntrack, translated, udp
from _serving import Serving

CONNECTIONS = 30000  # at once
FOLLOW = ["--follow-conntrack", "--nat-interface", "ethernet1", "--netns", "box"]
RULES = """
table ip nat {
   chain in {
      type nat hook prerouting priority dstnat
      iifname "wan" ip daddr 198.51.100.7 udp dport 53 dnat to 10.0.0.9:5353
      iifname "lan" ip daddr 198.51.100.7 udp dport 53 dnat to 10.0.0.9:5353
   }
   chain out {
      type nat hook postrouting priority srcnat
      ip saddr 10.0.0.0/24 ip daddr 10.0.0.9 masquerade
      oifname "wan" masquerade
   }
}
"""
EMPTY = instance(pfe_nat__fragmentation=True)
_sockets = []


def flow(source, destination, netns="inside"):
    """One datagram, and a socket that stays."""
    _sockets.append(udp(netns, *source))
    _sockets[-1].sendto(b"x", destination)


def followed(serving, status=0):
    """Facts, what is passed over, and the connections that are programmed."""
    told = serving.result("following")
    same("status of following", told["status"], status)
    reasons = {row["reason"].split(",")[0]: row for row in told.get("passedOver", [])}
    shown = serving.result("connections").get("connections", [])
    return told["following"], reasons, {(c["protocol"], c["target"], c["local"], c["global"], c["peer"]) for c in shown
                                        if c["result"] == "programmed" and "entry" not in c}


def agrees(what, serving, count=None, status=0):
    facts, reasons, learned = followed(serving, status)
    kernel = translated()
    same(f"{what}: those of the kernel", learned ^ kernel, set())
    if count is not None:
        same(f"{what}: as many", len(kernel), count)
    return facts, reasons


def ids(serving):
    return {(c["local"], c["peer"]): c["natIds"] for c in serving.result("connections")["connections"]}


def check_connections(file):
    """In turn: there before, new ones of either side, both sides, gone."""
    flow((HOSTS[0], 5000), (SERVERS[0], 53))
    serving = Serving(file, *FOLLOW)
    agrees("dumped before the first replay", serving, 1)
    holds("heading", any("1 tracked, 1 learned" in line for line in serving.shown))
    flow((HOSTS[1], 5000), (SERVERS[0], 53))
    flow((SERVERS[2], 6000), ("198.51.100.7", 53), "outside")
    flow((HOSTS[0], 7000), ("10.0.0.254", 9))
    facts, reasons = agrees("new", serving, 3)
    same("events", (facts["new"], facts["destroyed"], facts["losses"]), (3, 0, 0))
    same("not translated", reasons["not translated"]["first"], "udp 10.0.0.1:7000 -> 10.0.0.254:9")
    flow((HOSTS[2], 5000), ("198.51.100.7", 53))
    _, reasons = agrees("both sides", serving, 3)
    same("both sides are named", reasons["translated on both sides"]["first"], "udp 10.0.0.3:5000 -> 198.51.100.7:53")
    outside = next(row[3] for row in translated() if row[2] == "10.0.0.2:5000")
    udp("outside", SERVERS[0], 53).sendto(b"y", ("192.0.2.1", int(outside.split(":")[1])))
    facts, _ = agrees("changed", serving, 3)
    holds("told as an update", facts["updated"] >= 1)
    before = ids(serving)
    conntrack("-D", "-s", HOSTS[1])
    facts, _ = agrees("gone", serving, 2)
    same("told as destroyed", facts["destroyed"], 1)
    flow((HOSTS[1], 5002), (SERVERS[0], 53))
    agrees("another one", serving, 3)
    serving.process.send_signal(signal.SIGSTOP)
    conntrack("-D", "-s", HOSTS[1])
    _sockets[-1].sendto(b"x", (SERVERS[0], 53))
    serving.process.send_signal(signal.SIGCONT)
    facts, _ = agrees("gone and back in one turn", serving, 3)
    same("by its events", (facts["destroyed"], facts["resyncs"]), (2, 0))
    conntrack("-D", "-s", HOSTS[1])
    conntrack("-D", "-s", HOSTS[0])
    serving.result("resync")
    agrees("gone that was there before", serving, 1)
    for host in HOSTS[:2]:
        flow((host, 5001), (SERVERS[0], 53))
    kept = ids(serving)
    same("ids of others stay", {key: before.get(key) for key in kept if key in before}, {key: kept[key] for key in kept if key in before})
    serving.end()
    serving = Serving(file, *FOLLOW)
    agrees("again after a restart", serving, 3)
    same("with the same NAT ids", ids(serving), kept)
    for host in HOSTS[:2]:
        _kernel.ping("inside", host, SERVERS[0], 77)
    agrees("queries of one number", serving, 5)
    return serving


def check_bulk(serving):
    """Rules of the file and connections of the kernel change while the others stay, or are all out."""
    source = next(row for row in translated() if row[2] == "10.0.0.1:5001")
    write("two.json", instance(entry(1, "10.0.0.200", "198.51.100.200"),
                               both(2, "dynamic-implicit", f"{source[2]} 198.51.100.99:99", f"{source[4]} {source[4]}", 17)))
    told = serving.result("reload", file=str(FOLDER / "two.json"))
    same("beside configured rules", told["summary"]["programmed"], 6)
    _, reasons, learned = followed(serving)
    same("of which one comes first", (learned, reasons["deriving the rows of a configured connection"]["first"]),
         (translated() - {source}, f"udp {source[2]} -> {source[4]}"))
    serving.result("delete-all")
    conntrack("-D", "-s", HOSTS[1])
    flow((HOSTS[4], 5000), (SERVERS[0], 53))
    same("nothing comes while all is out", serving.result("summary")["summary"]["rows"], 0)
    serving.result("add-all")
    same("and all that is there comes back", followed(serving)[2], translated() - {source})
    serving.result("reload", file=str(FOLDER / "empty.json"))
    agrees("without the configured one", serving)


def check_many(serving):
    """As fast as the kernel makes them; then half of them go while the agent stands still, so that events are lost."""
    conntrack("-F")
    creator = Creator()
    creator.udp(0)
    creator.udp(0, zone=7)
    facts, reasons = agrees("two zones", serving, 1)
    same("one waits", (facts["learned"], reasons["deriving the rows of another connection"]["passedOver"]), (1, 1))
    creator.udp(0, query=2)
    facts, reasons = agrees("and has its turn", serving, 1)
    same("nobody waits", (facts["learned"], reasons), (1, {}))
    creator.udp(0, query=2, zone=7)
    for number in range(CONNECTIONS):
        creator.udp(number)
    facts, _ = agrees("created", serving, CONNECTIONS)
    print("\n".join(run("ctl", "--state", "state", "following")[1].splitlines()[:3]))
    serving.process.send_signal(signal.SIGSTOP)
    lost = facts["losses"]
    for number in range(0, CONNECTIONS, 2):
        creator.udp(number, query=2)
    serving.process.send_signal(signal.SIGCONT)
    facts, _ = agrees("half of them gone, and events lost", serving, CONNECTIONS // 2)
    holds("there was a loss", facts["losses"] > lost and facts["resyncs"] >= 1)


def check_id_pool(file):
    """More connections than NAT ids: the rest has its turn when ids come free."""
    conntrack("-F")
    creator = Creator()
    serving = Serving(file, *FOLLOW, state="pool")
    for number in range(32800):
        creator.udp(number)
    facts, _, learned = followed(serving, status=1)
    same("learned, refused, programmed", (facts["learned"], facts["refused"], len(learned)), (32800, 33, 32767))
    shown = [c for c in serving.result("connections")["connections"] if c["result"] != "programmed"]
    same("why", {(c["result"], c["reason"]) for c in shown}, {("failed", "no NAT id was free")})
    for number in range(100, 140):
        creator.udp(number, query=2)
    facts, _ = agrees("ids came free", serving, 32760)
    same("none is refused", facts["refused"], 0)
    serving.end()
    conntrack("-F")
    serving = Serving(file, *FOLLOW, "--connections-per-host", 3, state="limited")
    for number in (0, 1, 2, 3, 4, 50000):
        creator.udp(number)
    facts, reasons, _ = followed(serving)
    same("three of one host, and of the other", (facts["learned"], reasons["beyond the limit of learned connections of its inside host"]["passedOver"]),
         (4, 2))
    creator.udp(4, query=2)
    creator.udp(1, query=2)
    same("the next one comes", {c[2] for c in followed(serving)[2]}, {f"10.1.0.1:{10000 + n}" for n in (0, 2, 3)} | {"10.1.0.2:10000"})
    serving.end()


def check_end(serving):
    flow((HOSTS[5], 5000), (SERVERS[0], 53))
    agrees("before the end", serving)
    kernel = translated()
    command("ip", "netns", "del", "box")
    _, _, learned = followed(serving, status=1)
    same("what was learned stays", learned, kernel)
    same("it ends", serving.end(), 0)
    same("told", (FOLDER / "errors").read_text(),
         "nat-agent: connection tracking of namespace box: the namespace was removed; what was learned stays\n")


def check_refusals():
    file = write("empty.json", EMPTY)
    follow = ["serve", file, "--state", "refused", "--follow-conntrack"]
    allowed = "; see  nat-agent serve --help"
    listing = write("listing.txt", "")
    for arguments, line in (
        (follow, "--follow-conntrack requires --nat-interface" + allowed),
        ([*follow[:-1], "--nat-interface", "ethernet1"], "--nat-interface requires --follow-conntrack or --conntrack" + allowed),
        ([*follow[:-1], "--netns", "box"], "--netns requires --follow-conntrack" + allowed),
        ([*follow, "--nat-interface", "ethernet1", "--conntrack", listing], "--conntrack excludes --follow-conntrack" + allowed),
        ([*follow, "--nat-interface", "ethernet1", "--netns", "nowhere"],
         "--netns: nowhere: No such file or directory; allowed: a namespace that ip netns lists"),
    ):
        same(" ".join(arguments), run(*arguments), (2, "", f"nat-agent: {line}\n"))
    powerless = ["setpriv", "--inh-caps=-all", "--bounding-set=-all", AGENT, *follow, "--nat-interface", "ethernet1"]
    for more, named in (([], ""), (["--netns", "box"], " of namespace box")):
        done = subprocess.run([*powerless, *more], cwd=FOLDER, capture_output=True, text=True)
        same(f"without capabilities{named}", (done.returncode, done.stdout, done.stderr),
             (2, "", f"nat-agent: connection tracking{named}: not permitted; allowed: with CAP_NET_ADMIN there, and CAP_SYS_ADMIN to enter "
                     "a namespace\n"))
    setting = "/proc/sys/net/netfilter/nf_conntrack_events"
    with _kernel.inside_of("box"):
        before = open(setting).read()
        open(setting, "w").write("0")
    same("events are switched off", run(*follow, "--nat-interface", "ethernet1", "--netns", "box"),
         (2, "", "nat-agent: connection tracking of namespace box: tells of no events: net.netfilter.nf_conntrack_events is 0; "
                 "allowed: 1 or 2\n"))
    with _kernel.inside_of("box"):
        open(setting, "w").write(before)
    holds("nothing was stored", not (FOLDER / "refused").exists())


def main():
    _kernel.build(RULES)
    check_refusals()
    file = write("empty.json", EMPTY)
    serving = check_connections(file)
    serving.end()
    with open(FOLDER / "errors", "w") as errors:
        serving = Serving(file, *FOLLOW, errors=errors)
    check_bulk(serving)
    check_many(serving)
    check_id_pool(write("plain.json", instance()))
    check_end(serving)
    finish()


main()
