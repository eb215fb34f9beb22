"""An agent that is killed at any moment, with kill -9, and started again: every rule that was programmed and is still
configured has its NAT ids again, and everything is programmed.

    kill.py NAT-AGENT SOURCE [ROUNDS [SEED]]

The moment is a number of trace lines: the agent is killed while it is busy with what comes next.
"""

import contextlib
import json
import random
import signal
import subprocess
import sys
import threading

from _agent import both, entry, finish, holds, instance, run_json, same, write
from _serving import Serving

ROUNDS = int(sys.argv[3]) if len(sys.argv) > 3 else 12
SEED = int(sys.argv[4]) if len(sys.argv) > 4 else random.randrange(2**32)
RULES = 40


def rule(index, variant):
    """One of two rules under the same key: the other variant is translated to another address."""
    host = f"10.0.0.{index}"
    outside = f"198.51.{variant}.{index}"
    if index % 3 == 0:
        return both(index, "static", f"{host}:80 {outside}:80", f"10.9.0.{index}:1 172.16.{variant}.{index}:1")
    if index % 3 == 1:
        return both(index, "dynamic-implicit", f"{host}:4000 {outside}:5000", "203.0.113.9:80 203.0.113.9:80", 6)
    return entry(index, host, outside, 80, 8000, transport_protocol=6)


def text(rules):
    """In the order of their indexes, as the agent compares them."""
    return json.dumps(instance(*(rule(index, variant) for index, variant in sorted(rules.items())), pfe_nat__fragmentation=True))


def changed(rules, chance):
    """Some rules go, some change, some come."""
    result = {index: variant for index, variant in rules.items() if chance.random() < 0.9}
    for index in range(1, RULES + 1):
        if chance.random() < 0.2:
            result[index] = chance.randrange(2)
    return result


class Killer(threading.Thread):
    """Takes the trace, and kills the process behind that many lines more, once there is a countdown."""

    countdown = None

    def __init__(self, process):
        super().__init__()
        self.process = process
        self.start()

    def run(self):
        with self.process.stderr as trace:
            for _ in trace:
                if self.countdown is not None:
                    self.countdown -= 1
                    if self.countdown == 0:
                        self.process.send_signal(signal.SIGKILL)


def ids(told):
    return {c["entry"]: c["natIds"] for c in told["connections"] if c["result"] == "programmed"}


def killed_in(rules, following, chance):
    """Serves the rules, begins to go over to the following ones, or to take all out and put them back, and is killed
    meanwhile. Returns the ids from before."""
    write("kill.json", text(rules))
    killers = []
    serving = Serving("kill.json", "--delay", chance.randrange(3), "--trace", 8, state="killed", errors=subprocess.PIPE,
                      started=lambda process: killers.append(Killer(process)))
    [killer] = killers
    told = serving.result("connections")
    same("everything is programmed", told["status"], 0)
    write("kill.json", text(following))
    request = {"jsonrpc": "2.0", "id": 1, "method": chance.choice(["reload", "reload", "delete-all"])}
    killer.countdown = chance.randrange(1, 1500)
    with serving.connected() as client:
        client.sendall((json.dumps(request) + "\n").encode())
        with contextlib.suppress(ConnectionError):
            client.recv(1)  # it is killed, or was faster
    serving.process.send_signal(signal.SIGKILL)
    serving.wait()
    killer.join()
    return ids(told), request["method"] == "reload"


def main():
    print(f"seed {SEED}")
    chance = random.Random(SEED)
    rules = changed({}, chance) or {1: 0}
    for round in range(ROUNDS):
        following = changed(rules, chance)
        before, reloads = killed_in(rules, following, chance)
        # Which of the two configurations it is started with decides nobody in advance.
        next_rules = following if chance.random() < 0.5 else rules
        told = run_json(write("kill.json", text(next_rules)), "--state", "killed")
        after = ids(told)
        stay = [i for i in next_rules if reloads and rules.get(i) == next_rules[i] == following.get(i)]
        same(f"seed {SEED}, round {round}: all of {sorted(next_rules)} programmed", sorted(after), sorted(next_rules))
        same(f"seed {SEED}, round {round}: rules that stayed have their ids", {i: after.get(i) for i in stay}, {i: before[i] for i in stay})
        given = [number for own in after.values() for number in own]
        holds(f"seed {SEED}, round {round}: no id twice", len(set(given)) == len(given))
        again = run_json("kill.json", "--state", "killed")
        same(f"seed {SEED}, round {round}: the same after another start", (ids(again), again["summary"]["natIds"]),
             (after, told["summary"]["natIds"]))
        rules = next_rules
    finish()


main()
