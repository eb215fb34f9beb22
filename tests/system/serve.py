"""An agent that stays: what it answers, how it goes over to another configuration, how it ends, and that no client harms
another one."""

import contextlib
import json
import pathlib
import signal
import socket
import stat

from _agent import AGENT, BRANCH_OFFICE, FOLDER, SOURCE, both, entry, finish, holds, instance, run, same, write
from _serving import Serving, lines_of, said

MIXED = SOURCE / "examples" / "mixed.json"
METHODS = "show, connections, statuses, rows, ids, traps, profiles, ring, summary, explain, reload, delete-all, add-all, retry, following, resync, stop"
TEXT = "allowed: a text without a NUL character, or a number"
SANITIZED = b"__asan_init" in AGENT.read_bytes()
TOO_LONG = "the message is too long; allowed: 65536 bytes with the line end"


def ids(serving):
    return {c["entry"]: c["natIds"] for c in serving.result("connections")["connections"] if c["result"] == "programmed"}


def counts(summary):
    return tuple(summary["summary"][name] for name in ("connections", "programmed", "natIds"))


def check_methods():
    serving = Serving(MIXED)
    same("the socket is the owner's alone", stat.S_IMODE((FOLDER / "state" / "agent.sock").stat().st_mode), 0o600)
    once = json.loads(run(MIXED, "--format", "json", "--rows", "--ids")[1])
    for method, part in (("connections", "connections"), ("rows", "rows"), ("ids", "natIds"), ("traps", "traps"), ("profiles", "profiles")):
        same(f"{method} as of a run", serving.result(method)[part], once[part])
    same("statuses", {row["result"] for row in serving.result("statuses")["statuses"]}, {"programmed"})
    same("ring", len(serving.result("ring", lines=5)["ringTrace"]), 5)
    packet = {"in": "vlan20", "out": "ethernet1", "proto": "tcp", "src": "10.20.0.50:40000", "dst": "203.0.113.9:443"}
    same("explain", serving.result("explain", **packet)["replyComesBack"], True)
    options = [text for name, value in packet.items() for text in ("--" + name, value)]
    told = run("explain", MIXED, *options)
    same("explain by ctl, as of a run", run("ctl", "--state", "state", "explain", *options), told)
    status, out, err = run("ctl", "--state", "state", "show")
    same("show by ctl", (status, out.splitlines()[-3].split()[0], err), (0, "20", ""))
    status, out, err = run("serve", MIXED, "--state", "state")
    same("a second agent", (status, out, err),
         (2, "", f"nat-agent: state: is in use by process {serving.process.pid}; allowed: one agent per state folder\n"))
    kept = ids(serving)
    same("SIGTERM ends it", serving.end(), 0)
    holds("and takes the socket away", not (FOLDER / "state" / "agent.sock").exists())
    serving = Serving(MIXED)
    same("the ids are kept", ids(serving), kept)
    same("stop by ctl", run("ctl", "--state", "state", "stop"), (0, "", ""))
    same("it ends", serving.wait(), 0)
    status, _, err = run("ctl", "--state", "state", "summary")
    same("nobody serves", (status, err), (2, "nat-agent: state/agent.sock: no agent serves here: No such file or directory\n"))


def check_reload():
    """Rows of rules that stay are not written again: that of a rule whose write failed would be."""
    first = [entry(i, f"10.0.0.{i}", f"192.0.2.{i}") for i in range(1, 6)]
    file = write("live.json", instance(*first))
    serving = Serving(file, "--trace", 6, errors=open(FOLDER / "trace", "w"), state="reload")
    before = ids(serving)

    def traced(content, **more):
        """Requests that the programmer got for the reload."""
        done = len((FOLDER / "trace").read_text().splitlines())
        write("live.json", content)
        told = serving.result("reload")
        lines = (FOLDER / "trace").read_text().splitlines()[done:]
        return counts(told), [line.split()[2].rstrip(",") for line in lines if "StaticConnection" in line.split()[2]]

    same("nothing new", traced(instance(*first)), ((5, 5, 10), []))
    changed = [*first[:4], first[4] | {"pfe-nat:next-hop-id": 9}]
    same("another next hop", traced(instance(*changed)), ((5, 5, 10), ["updateStaticConnection", "addStaticConnection"]))
    same("ids stay", ids(serving), before)
    swapped = [first[0] | {"external-src-address": "192.0.2.2/32"}, first[1] | {"external-src-address": "192.0.2.1/32"}, *first[2:]]
    same("rows go before others come", traced(instance(*swapped))[1],
         ["updateStaticConnection", "addStaticConnection"][:0] + ["deleteStaticConnection"] * 2 + ["addStaticConnection"] * 2
         + ["updateStaticConnection", "addStaticConnection"])
    same("one less", traced(instance(*swapped[:4])), ((4, 4, 8), ["deleteStaticConnection"]))
    told = traced(instance(*swapped[:4], pfe_nat__fragmentation=True))
    same("fragmentation replays", told[1].count("updateStaticConnection"), 4)
    told = traced(instance(*swapped[:4], pfe_nat__vrf_less=True))
    same("what changes while nothing is programmed", (told[0], told[1].count("deleteStaticConnection")), ((4, 4, 8), 4))
    for content, fault in (('{"ietf-nat:nat": ', "live.json: line 1, column 18: "), (json.dumps(instance(entry(1), entry(1))), "live.json: /ietf-nat:nat/"),
                           (json.dumps(instance(enable=False)), "live.json: instance 1 is not enabled")):
        write("live.json", content)
        error = serving.ask("reload")["error"]
        holds(f"broken reload: {fault}", error["code"] == -32000 and error["message"].startswith(fault))
        same("changes nothing", counts(serving.result("summary")), (4, 4, 8))
    same("another file", counts(serving.result("reload", file=str(MIXED))), (10, 10, 32))
    same("it ends", serving.end(signal.SIGINT), 0)


def check_bulk():
    serving = Serving(MIXED, state="bulk")
    before = ids(serving)
    told = serving.result("delete-all")
    same("all gone", (counts(told), told["summary"]["rows"], told["status"]), ((10, 0, 0), 0, 1))
    same("why", {c.get("reason") for c in serving.result("connections")["connections"]}, {"all rules were deleted"})
    same("traps as well", serving.result("traps"), {"status": 1})
    same("again: nothing", counts(serving.result("delete-all")), (10, 0, 0))
    same("reload meanwhile", counts(serving.result("reload", file=str(BRANCH_OFFICE))), (10, 0, 0))
    same("all back, the new ones", counts(serving.result("add-all")), (11, 11, 31))
    same("and the old ones", counts(serving.result("reload", file=str(MIXED))), (10, 10, 32))
    holds("with their kinds", set(ids(serving)) == set(before))
    same("it ends", serving.end(), 0)


def check_retry():
    serving = Serving(write("two.json", instance(entry(1, "10.0.0.1", "192.0.2.1"), entry(2, "10.0.0.2", "192.0.2.2"))), "--fail", 9, state="retry")
    same("eight writes work", counts(serving.result("summary")), (2, 2, 4))
    write("two.json", instance(entry(1, "10.0.0.1", "192.0.2.1", pfe_nat__next_hop_id=4), entry(2, "10.0.0.2", "192.0.2.2")))
    told = serving.result("reload")
    same("the ninth fails and is tried again", (counts(told), told["status"]), ((2, 2, 4), 0))
    same("it ends", serving.end(), 0)


def check_slow_readers():
    """Answers are made as they are read, and what stays meanwhile is told once; none of them costs others time or memory."""
    many = [entry(i, f"10.0.{i >> 8}.{i & 255}", f"192.0.{i >> 8}.{i & 255}") for i in range(1, 4001)]
    serving = Serving(write("many.json", instance(*many)), state="slow")
    status = pathlib.Path(f"/proc/{serving.process.pid}/status")

    def memory():
        return int(status.read_text().split("VmRSS:")[1].split()[0])

    rows = {"jsonrpc": "2.0", "id": 1, "method": "rows", "params": {}}
    with contextlib.ExitStack() as all_of_them:
        serving.result("rows")
        before = memory()
        slow = [all_of_them.enter_context(serving.connected()) for _ in range(40)]
        for client in slow:
            client.sendall((json.dumps([rows] * 16) + "\n").encode())
        slow[0].recv(1)  # the others are served in turn with it
        write("many.json", instance(*many[:2000], entry(5000, "10.1.0.1", "192.1.0.1")))
        same("a change meanwhile", counts(serving.result("reload")), (2001, 2001, 4002))
        if not SANITIZED:
            holds("memory of 40 answers that nobody reads", memory() - before < 16 * 1024)
        told = json.loads(b"[" + slow[0].makefile("rb").readline())
        stays = [row for row in told[0]["result"]["rows"] if "10.0.0.1 " in row["row"] or "10.0.7.208 " in row["row"]]
        same("what stays comes once", ([row["row"].split()[1] for row in stays], len({row["row"] for row in stays})), (["source"] * 2 + ["destination"] * 2, 4))
        same("the reader knows", [(a["result"].get("changed"), len(a["result"]["rows"]) == 4 * 2001) for a in told[-2:]], [(None, True)] * 2)
        holds("of the first answer", told[0]["result"]["changed"])
        same("order", [row["table"] for row in told[0]["result"]["rows"]], sorted((row["table"] for row in told[0]["result"]["rows"]), key=(
            "ingStaticNatTable", "egrSourceNatUcRewriteTable", "egrDestinationNatUcRewriteTable").index))
    some = serving.result("connections", **{"global": "192.0.0.77"})["connections"]
    same("a filter", [(c["entry"], c["vrf"], c["vlan"], c["accessList"]) for c in some], [(77, 0, 0, "")])
    same("filters and a limit", [row["row"] for row in serving.result("rows", table="ingStaticNatTable", row="source", limit=2)["rows"]],
         ["ethernet1 source 10.0.0.1 -> 192.0.0.1 any", "ethernet1 source 10.0.0.2 -> 192.0.0.2 any"])
    write("many.json", instance(*many[:3]))
    serving.process.send_signal(signal.SIGHUP)
    while counts(serving.result("summary")) != (3, 3, 6):
        pass
    same("it ends", serving.end(), 0)


def check_bad_requests():
    serving = Serving(BRANCH_OFFICE, state="bad")
    call = {"jsonrpc": "2.0", "id": 7, "method": "summary"}
    cases = [
        ("no JSON", b"hello\n", -32700, None, "the message is no JSON"),
        ("empty line", b"\n", -32700, None, "the message is no JSON"),
        ("no object", 5, -32600, None, "no request of JSON-RPC 2.0; allowed: an object with jsonrpc, method, and id"),
        ("empty batch", [], -32600, None, "no request of JSON-RPC 2.0; allowed: an object with jsonrpc, method, and id"),
        ("another version", call | {"jsonrpc": "1.0"}, -32600, 7, "no request of JSON-RPC 2.0; allowed: an object with jsonrpc, method, and id"),
        ("unknown method", call | {"method": "reboot"}, -32601, 7, f"no such method: reboot; allowed: {METHODS}"),
        ("parameters in a list", call | {"params": [1]}, -32602, 7, "parameters go by name"),
        ("unknown parameter", call | {"params": {"file": "x"}}, -32602, 7, "no such parameter: file; allowed: format"),
        ("format", call | {"params": {"format": "xml"}}, -32602, 7, "format: xml; allowed: json, text"),
        ("a flag", call | {"params": {"format": True}}, -32602, 7, f"format: true; {TEXT}"),
        ("more behind a NUL", call | {"method": "explain", "params": {"src": "10.0.0.1\0x"}}, -32602, 7,
         f'src: "10.0.0.1\\u0000x"; {TEXT}'),
        ("ring", call | {"method": "ring", "params": {"lines": 0}}, -32602, 7, "lines: 0; allowed: 1 to 2048"),
        ("nothing to follow", call | {"method": "following"}, -32000, 7,
         "no connection tracking is followed; allowed: of an agent with --follow-conntrack"),
        ("a limit", call | {"method": "rows", "params": {"limit": "3x"}}, -32602, 7, "limit: 3x; allowed: 1 to 1000000000"),
        ("no file", call | {"method": "reload", "params": {"file": ""}}, -32602, 7, 'file: ""; allowed: the name of a configuration'),
        ("packet", call | {"method": "explain", "params": {"proto": "tcp", "src": "10.0.0.1:5"}}, -32602, 7, "--dst is required"),
        ("too deep", b'{"id": ' + b"[" * 30000 + b"]" * 30000 + b"}\n", -32600, None, "the message is nested too deeply; allowed: 16 levels"),
        ("too many at once", [call] * 17, -32600, None, "too many requests in a batch; allowed: 16"),
        ("a file without an end", call | {"method": "reload", "params": {"file": "/dev/zero"}}, -32000, 7,
         "/dev/zero: is too large; allowed: at most 1 GiB"),
        ("too long", b"x" * 70000 + b"\n", -32600, None, TOO_LONG),
        ("too long, without an end", b"x" * 65536, -32600, None, TOO_LONG),
    ]
    with serving.connected() as patient, serving.connected():
        for name, message, code, number, text in cases:
            answer = serving.exchange(message)
            same(name, answer, {"jsonrpc": "2.0", "error": {"code": code, "message": text}, "id": number})
        with serving.connected() as client:
            client.sendall(b'{"jsonrpc": "2.0", ')
            client.shutdown(socket.SHUT_WR)
            same("half a message", [json.loads(line)["error"]["message"] for line in lines_of(client)], ["the message has no line end"])
        with serving.connected() as client:
            client.sendall(b'{"jsonrpc": "2.0", ')  # and gone
        with serving.connected() as client:
            client.sendall((json.dumps(call | {"method": "rows"}) + "\n").encode() * 500)  # and gone without a look at the answers
        with serving.connected() as client:
            several = said(client, [call, call | {"id": "b", "method": "x"}, {"jsonrpc": "2.0", "method": "summary"}])
            same("a batch with a notification", [(a["id"], "result" in a) for a in several], [(7, True), ("b", False)])
            client.sendall((json.dumps({"jsonrpc": "2.0", "method": "retry"}) + "\n").encode())
            same("a notification has no answer", said(client, call)["id"], 7)
        others = [serving.connected() for _ in range(64)]
        refused = [json.loads(lines_of(client)[0])["error"]["message"] for client in others[62:]]
        same("too many clients", refused, ["too many clients; allowed: 64"] * 2)
        same("nothing for the others", counts(said(patient, call)["result"]), (11, 11, 31))
        for client in others:
            client.close()
        for _ in range(2):
            said(patient, call)  # behind the second answer the ends of all others have been seen
    status, _, err = run("ctl", "--state", "bad", "reboot")
    same("ctl tells the error", (status, err), (2, f"nat-agent: no such method: reboot; allowed: {METHODS}\n"))
    same("it ends", serving.end(), 0)


def main():
    check_methods()
    check_reload()
    check_bulk()
    check_retry()
    check_slow_readers()
    check_bad_requests()
    for arguments, line in ((["serve", MIXED], "--state is required; see  nat-agent serve --help"),
                            (["ctl", "summary"], "--state is required; see  nat-agent ctl --help"),
                            (["ctl", "--state", "state"], "METHOD is required; see  nat-agent ctl --help")):
        same(str(arguments), run(*arguments), (2, "", f"nat-agent: {line}\n"))
    finish()


main()
