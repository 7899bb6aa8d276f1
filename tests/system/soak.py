#!/usr/bin/env python3
"""Runs the agent, a feed and keldwickctl against a scripted identity server while things go wrong around them, and checks
after each step that what was written is reported exactly once or is known not to be, that `identities` is right, and that
descriptors, threads and memory do not grow. The seed decides everything but the timing, so that a run can be repeated."""
import argparse
import collections
import os
import random
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import time
import unittest

os.environ.setdefault("KELDWICK_BIN", os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../build/dev/bin"))

from machine import BIN, MachineTest, opened_by, text_of, xml
from soak_model import Messages, Model, Record, Violation
from test_feeds import LOG_SIZE, authentication
from wire import answer, certificate


class Soak(MachineTest):
    """The real programs with what they meet. Writes records, waits, and compares what is to be seen with the model."""
    patience = 60
    address = f"127.61.{os.getpid() % 250}.1"  # so that several may run side by side

    def setUp(self):
        super().setUp()
        self.random, self.number, self.asked, self.slow = random.Random(OPTIONS.seed), 0, set(), 0.0
        self.agent = self.feed = self.baseline = None
        self.slow_answers, self.protocol = 0, 0
        self.audit, self.said = f"{self.root}/audit.jsonl", f"{self.root}/agent.err"
        self.model, self.log_messages, self.heard = Model(), Messages(self.said), []
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.manager.close)
        self.manager.bind(f"{self.root}/notify")
        open(self.audit, "w").close()
        self.tls = certificate(self.root)
        self.live()
        self.prepare(protocol="auto")
        for name, value in (("DebugOutput", "0x103"), ("LogonTTL", "1440"), ("Heartbeat", "1440")):
            self.ctl("settings", "set", name, value)
        self.ctl("settings", "set", "--type", "dword", LOG_SIZE, str(128 * 1024))
        self.start_feed()
        self.start_agent()

    def launch(self, name, *arguments):
        with open(self.said if name == "keldwick" else f"{self.root}/feed.err", "ab") as errors:
            return self.begin(f"{BIN}/{name}", *arguments, stderr=errors, stdout=subprocess.DEVNULL, env={
                "NOTIFY_SOCKET": f"{self.root}/notify",
                "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"})

    def start_agent(self):
        """As a service, whose manager hears what it reports."""
        while select.select([self.manager], [], [], 0)[0]:
            self.manager.recv(4096)
        follows, self.baseline = self.model.follows, None
        self.agent = self.launch("keldwick")
        self.until(lambda: self.model.follows > follows, "the agent follows the log")
        self.resume()

    def start_feed(self):
        self.feed = self.launch("keldwickctl", "feed", "samba-audit", self.audit)

    def live(self):
        self.server = self.serve(tls_files=self.tls, reply=self.reply)

    def die(self):
        self.model.trouble = True
        with self.model.answering:
            self.server.close()

    def reply(self, connection, _request, fields):
        """What became of an answer is known only after it."""
        if self.slow_answers > 0:
            self.slow_answers -= 1
            time.sleep(self.slow)
        request = fields["kind"], fields["user"][0], fields["address"]
        with self.model.answering:
            try:
                connection.sendall(answer(fields["id"]))
                self.model.received.append(("good", *request))
            except OSError:
                self.model.received.append(("lost", *request))

    # What is written.

    def new(self, source, count=1, **changes):
        """Records of new people at one of few addresses, so that most replace someone."""
        records = []
        for _ in range(count):
            self.number += 1
            records.append(Record(**{"user": f"CORP\\u{self.number}", "ip": f"10.5.0.{self.random.randrange(1, 60)}",
                                     "computer": f"CORP\\WS{self.number}", "source": source, **changes}))
        return records

    def again(self, source):
        """A user who is there logs on once more; once between two waits, since renewals show not which event they are of."""
        there = sorted(set(self.model.table) - self.asked)
        if not there or self.random.random() > 0.3:
            return self.new(source)
        ip = self.random.choice(there)
        self.asked.add(ip)
        return self.new(source, ip=ip, user=self.model.table[ip][0])

    def write(self, records, unheard=False):
        """Straight into the log, by one import. Unheard: no agent follows, so none of them may ever be reported."""
        events = ""
        for record in records:
            events += xml(record.user.split("\\")[1], record.ip, record.computer.split("\\")[1])
            if not unheard:
                self.model.wrote(record)
        self.ctl("events", "import", "-", text=f"<Events>{events}</Events>")

    def say(self, records):
        """By the controller's audit log, which the feed follows."""
        with open(self.audit, "a", encoding="utf-8") as file:
            for record in records:
                self.model.wrote(record)
                file.write(authentication(record.user.split("\\")[1], record.ip, workstation=record.computer.split("\\")[1]))

    def burst(self, count):
        """Logons by both ways, some of people who are there, and one that is no user's."""
        for source, put in (("feed", self.say), ("log", self.write)):
            put([record for _ in range(count // 2)
                 for record in (self.again(source) if self.model.gap is None else self.new(source))])
        self.write(self.new("log", user="CORP\\WS9$"), unheard=True)

    # Waiting and checking.

    def listen(self):
        for text in self.log_messages.new():
            self.heard.append(text)
            self.model.hear(text)
        while not self.server.requests.empty():
            fields = self.server.requests.get()[1]
            if "bad" in fields:
                raise Violation(f"a request cannot be decoded: {fields['bad']}")

    def wait(self, condition, patience):
        end = time.monotonic() + patience
        while time.monotonic() < end:
            self.listen()
            if condition():
                return True
            if self.agent.poll() is not None and not self.model.trouble:
                raise Violation(f"the agent ended with {self.agent.returncode}")
            time.sleep(0.01)
        return False

    def until(self, condition, what):
        if not self.wait(condition, self.patience):
            raise Violation(f"never came within {self.patience} s: {what}")

    def may_lose(self, records=None):
        """From here to resume() records may be lost as one run; so may these, or else what the feed has yet to write."""
        self.model.open_gap([each for each in self.model.pending if each.source == "feed"] if records is None else records)

    def resume(self):
        """Closes the gap as soon as a record is reported again."""
        if self.model.gap is None:
            self.may_lose()
        end = time.monotonic() + self.patience
        probe = []
        while not probe or not self.wait(lambda: probe[0].outcome, 1):
            if time.monotonic() > end:
                raise Violation("the agent does not go on")
            probe = self.new("log")
            self.write(probe)
        gap = self.model.close_gap()
        self.model.trouble = False
        self.settle()
        self.model.settle_gap(gap)

    def settle(self, probes=True):
        """Until everything that must have an outcome has one."""
        if probes:
            self.write(self.new("log"))
            self.say(self.new("feed"))
        self.until(lambda: not self.model.missing(), f"the outcome of one of {len(self.model.missing())} records")
        self.asked.clear()

    def until_same(self, what, wanted, got):
        """Both are asked until they agree."""
        self.assertTrue(self.wait(lambda: wanted() == got(), 80), f"{what}: {wanted()} wanted, {got()} found")

    def check_identities(self):
        """The list is right within 80 s even if its last writing took long."""
        self.until_same("identities", lambda: self.model.table, lambda: {
            each["address"]: (each["user"], each["computer"]) for each in self.ctl_lines("identities")})

    def check(self):
        self.slow_answers = 0
        self.settle()
        self.until_same("requests that messages name", lambda: len(self.model.received), lambda: self.model.heard)
        self.check_identities()
        if self.baseline is None:
            self.baseline = self.resources()
        self.until_same("descriptors, threads, memory to spare", lambda: (*self.baseline[:2], True),
                        lambda: (*(now := self.resources())[:2], now[2] <= self.baseline[2] + now[3]))

    def resources(self):
        """Kinds of descriptors, threads, KiB of memory, and how many it may grow: sanitizers keep what was freed."""
        kinds = collections.Counter(re.sub(r"\d+", "N", each) for each in opened_by(self.agent))
        status = dict(line.split(":", 1) for line in text_of(f"/proc/{self.agent.pid}/status").splitlines())
        reserved, resident = (int(status[each].split()[0]) for each in ("VmSize", "VmRSS"))
        margin = 256 * 1024 if reserved > 1 << 30 else 1024  # nothing else reserves a tebibyte
        return kinds, int(status["Threads"]), resident, margin

    # What goes wrong.

    def step_server_dies(self):
        self.slow, self.slow_answers = 0.02, 20
        self.burst(12)
        time.sleep(self.random.random() / 5)
        self.die()
        self.write(self.new("log", 6))
        time.sleep(self.random.random())
        self.slow_answers = 0
        self.live()
        self.protocol = 0 if self.protocol else 1  # another, which every server speaks, ends the agent's pause
        self.may_lose()
        self.ctl("settings", "set", "IdentProtocol", str(self.protocol))
        self.resume()

    def step_server_answers_slowly(self):
        self.slow, self.slow_answers = self.random.uniform(0.2, 1.5), 2
        self.burst(6)

    def step_log_cleared(self):
        self.burst(6)
        self.settle()
        since = len(self.heard)
        self.may_lose()
        self.ctl("events", "clear")
        self.burst(6)
        self.until(lambda: any("Security event log reopened" in each for each in self.heard[since:]), "it is reopened")
        self.resume()

    def step_log_wraps(self):
        for _ in range(4):
            self.burst(120)
            self.settle()

    def step_log_laps_the_agent(self):
        """More than the log holds while the agent sleeps: the oldest are lost, the last are not."""
        self.check_identities()  # the list's next writing waits for a hundred times as long as the last took
        os.kill(self.agent.pid, signal.SIGSTOP)
        self.may_lose()
        self.write(self.new("log", 580))
        gap = self.model.close_gap()
        self.write(self.new("log", 20))
        os.kill(self.agent.pid, signal.SIGCONT)
        self.settle()
        self.model.settle_gap(gap)

    def away(self, killed):
        """The agent is gone: what the log holds then is no one's, but a feed waits for the next agent."""
        self.listen()
        self.model.ended(killed)
        self.write(self.new("log", 4), unheard=True)
        self.say(self.new("feed", 4))
        self.start_agent()

    def step_agent_killed(self):
        self.burst(10)
        time.sleep(self.random.random() / 5)
        self.listen()
        self.end(self.agent, signal.SIGKILL)
        while any(connection.fileno() >= 0 for connection in self.server.connections):  # what is on its way arrives
            time.sleep(0.01)
        self.may_lose(list(self.model.pending))
        self.away(True)

    def step_agent_stopped(self):
        """What waits then is said to be unreported, record by record."""
        self.burst(6)
        self.settle()
        if dead := self.random.random() < 0.5:
            self.die()
            self.write(self.new("log", 5))
            time.sleep(self.random.random())
        self.model.trouble, begun = True, time.monotonic()
        if self.random.random() < 0.5:
            self.agent.terminate()
        else:
            self.ctl("settings", "set", "Shutdown", "1")
        if self.agent.wait(self.patience) != 0 or time.monotonic() - begun > 5:
            raise Violation(f"a stop ended with {self.agent.returncode} after {time.monotonic() - begun:.1f} s")
        self.settle(probes=False)
        if dead:
            self.live()
        self.away(False)

    def step_feed_killed(self):
        """It marks its place once a second: most of what it wrote comes before it again."""
        for _ in range(3):
            self.say(self.new("feed", 5))
            self.settle(probes=False)
        self.say(self.new("feed", 40))
        time.sleep(self.random.random() / 10)
        self.end(self.feed, signal.SIGKILL)
        self.say(self.new("feed", 5))
        self.start_feed()

    def step_audit_file_rotated(self):
        self.say(self.new("feed", 5))
        os.rename(self.audit, self.audit + ".1")
        self.say(self.new("feed", 5))

    def test_trouble_breaks_no_promise(self):
        """Every step once, in the seed's order, then again in another, until the time is over."""
        begun, number, deck, cards = time.monotonic(), 0, [], random.Random(OPTIONS.seed)
        steps = sorted(name for name in dir(self) if name.startswith("step_") and OPTIONS.only in ("", name[5:]))
        print(f"seed {OPTIONS.seed}", flush=True)
        try:
            self.check()
            while number < len(steps) or time.monotonic() - begun < OPTIONS.minutes * 60:
                deck = deck or cards.sample(steps, len(steps))
                name, number = deck.pop(), number + 1
                self.random = random.Random(f"{OPTIONS.seed} {number}")
                print(f"{time.monotonic() - begun:7.1f} s  step {number}: {name[5:].replace('_', ' ')}", flush=True)
                getattr(self, name)()
                self.check()
        except AssertionError:
            print("\n".join(["the agent:", *self.heard[-20:], "the servers:", *map(str, self.model.received[-8:])]))
            print("the machine root:", shutil.copytree(self.root, self.root + ".kept", ignore_dangling_symlinks=True,
                                                       ignore=shutil.ignore_patterns("notify")))
            raise
        print(f"{number} steps, {self.number} records; {dict(self.model.counts)}")


OPTIONS = argparse.Namespace(minutes=1, seed=7, only="")

if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--minutes", type=float, default=1, help="at least; every step is gone through once")
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--only", default="", metavar="STEP", help="only this step")
    OPTIONS = parser.parse_args()
    unittest.main(argv=sys.argv[:1])
