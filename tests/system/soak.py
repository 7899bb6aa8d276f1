#!/usr/bin/env python3
"""Runs the agent, a feed and keldwickctl against scripted identity servers while things go wrong around them, and checks
after each step that what was written is reported exactly once or is known not to be, that `identities` is right, and that
descriptors, threads and memory do not grow. The seed decides everything but the timing, so that a run can be repeated."""
import argparse
import contextlib
import os
import random
import re
import shutil
import signal
import struct
import subprocess
import sys
import time
import unittest

from soak_machine import HOSTS, LOOK_UP, PATIENCE, Machine
from soak_model import Violation

KNOWN = "CN=Known,OU=Staff,DC=corp,DC=example"
DIRECTORY = f"""dn: CN=CORP,CN=Partitions,CN=Configuration,DC=corp,DC=example
nCName: DC=corp,DC=example
dnsRoot: corp.example
nETBIOSName: CORP

dn: {KNOWN}
objectClass: user
sAMAccountName: known
objectSid: S-1-5-21-1-2-3-1104
"""


class Soak(Machine):
    def step_logons(self):
        self.burst(30)

    def step_server_dies(self):
        self.slow = 0.02
        self.script.extend(["slow"] * 20)
        self.burst(12)
        time.sleep(self.random.random() / 5)
        self.die(self.host)
        self.write(self.new("log", 6))
        time.sleep(self.random.random())
        self.script.clear()
        self.serve(self.host)
        self.poke()

    def step_server_stalls(self):
        self.script.append("stalls")
        self.burst(6)

    def step_server_answers_late(self):
        self.slow = self.random.uniform(0.2, 1.5)
        self.script.extend(["slow", "good", "slow"])
        self.burst(6)

    def step_server_answers_too_late(self):
        self.script.append("late")
        self.burst(6)

    def step_server_answers_wrongly(self):
        for verdict in self.random.sample(["garbage", "foreign", "split", "closing", "closes", "resets"], 6):
            self.script.append(verdict)
            self.burst(4)
            self.settle()

    def step_server_changes(self):
        self.burst(6)
        since, self.host = len(self.heard), HOSTS[1 - HOSTS.index(self.host)]
        self.may_lose(list(self.model.pending))
        self.ctl("settings", "set", "IdentServer", self.host)
        self.burst(6)
        self.until_heard(f"Connected to Identity server = \"{self.host}\"", since)
        self.resume()

    def step_protocol_changes(self):
        self.burst(6)
        self.settle()
        self.poke()

    def step_log_cleared(self):
        self.burst(6)
        self.settle()
        since = len(self.heard)
        self.may_lose()
        self.ctl("events", "clear")
        self.burst(6)
        self.until_heard("Security event log reopened", since)
        self.resume()

    def step_log_wraps(self):
        for _ in range(4):
            self.burst(120)
            self.settle()

    @contextlib.contextmanager
    def agent_asleep(self):
        """Stopped when it writes nothing: the list's next writing waits for a hundred times as long as the last took."""
        self.check_identities()
        os.kill(self.agent.pid, signal.SIGSTOP)
        yield
        os.kill(self.agent.pid, signal.SIGCONT)

    def step_log_laps_the_agent(self):
        """More than the log holds while the agent sleeps: the oldest are lost, the last are not."""
        with self.agent_asleep():
            self.may_lose()
            self.write(self.new("log", 580))
            gap = self.model.close_gap()
            self.write(self.new("log", 20))
        self.settle()
        self.model.settle_gap(gap)

    def step_log_damaged(self):
        """A record that the agent has not read yet is broken: it is lost, its neighbours are not."""
        with self.agent_asleep():
            self.write(self.new("log", 3))
            broken = self.new("log")
            self.may_lose()
            self.write(broken)
            gap = self.model.close_gap()
            self.write(self.new("log", 3))
            with open(f"{self.root}/eventlog/Security.evt", "r+b") as file:
                data = file.read()
                begin = data.rfind(b"LfLe", 0, data.find((broken[0].user.split("\\")[1] + "\0").encode("utf-16-le"))) - 4
                if begin > 0:  # else it lies across the ring's end
                    file.seek(begin + self.random.choice([0, 4, 8, struct.unpack_from("<I", data, begin)[0] - 4]))
                    file.write(b"\xa5" * 4)
        self.settle()
        self.model.settle_gap(gap)

    def taken_up(self, ttl, heartbeat, since):
        self.until_same("LogonTTL, Heartbeat", lambda: (ttl * 60, heartbeat * 60), lambda: (self.model.ttl, self.model.heartbeat), 20)
        if any(text.startswith(("Ident server changed", "Identity protocol changed")) for text in self.heard[since:]):
            raise Violation("a setting that nobody touched has changed")

    def step_settings_by_tool(self):
        since, ttl, heartbeat = len(self.heard), self.random.randrange(10, 30), self.random.randrange(3, 9)
        self.ctl("settings", "set", "LogonTTL", str(ttl))
        self.ctl("settings", "set", "Heartbeat", str(heartbeat))
        self.burst(6)
        self.taken_up(ttl, heartbeat, since)

    def step_settings_by_hand_in_pieces(self):
        self.step_settings_by_tool()
        self.model.allowed = ("registry.reg, line",)  # the half of a file
        since, ttl, path = len(self.heard), self.random.randrange(30, 60), f"{self.root}/registry.reg"
        if self.random.random() < 0.5:
            self.move_clock(61)  # the agent writes its statistics meanwhile
            self.write(self.new("log"))
        with open(path) as file:
            text = re.sub(r'"LogonTTL"=dword:\w+', f'"LogonTTL"=dword:{ttl:08x}', file.read())
        cut = self.random.randrange(1, self.random.choice([120, len(text)]))  # 120: before the settings' own key is whole
        held, pause = self.random.random() < 0.5, self.random.choice([0.002, 0.05, 0.3])
        with open(path, "w") as file, open(path, "a") if held else contextlib.nullcontext():
            file.write(text[:cut])
            file.close()
            time.sleep(pause)
            with open(path, "a") as rest:
                rest.write(text[cut:])
        self.taken_up(ttl, self.model.heartbeat // 60, since)
        kept = re.compile(r'^"(?!Logons|ServiceTickets).*', re.M)
        with open(path) as file:
            if lost := set(kept.findall(text)) - set(kept.findall(file.read())):
                raise Violation(f"settings were lost: {lost}")
        self.listen()
        self.model.allowed = ()
        self.step_settings_by_tool()

    def step_directory_goes(self):
        path = f"{self.root}/directory.ldif"
        for there in (True, False, True):
            if there:
                with open(path + ".new", "w") as file:
                    file.write(DIRECTORY)
                os.rename(path + ".new", path)
            else:
                os.unlink(path)
            self.write(self.new("log", user="CORP\\known", ip=self.lone_address(6), dn=KNOWN if there else ""))
            self.settle()
        os.unlink(path)

    def step_name_server_goes(self):
        if self.name_server is None:
            return
        for silent in (False, True, False):
            self.name_server.silent, begun, records = silent, time.monotonic(), []
            for _ in range(8):
                ip = self.lone_address(7)
                records += self.new("log", ip=ip, computer="" if silent else "CORP\\pc-" + ip[3:].replace(".", "-"))
            self.write(records, workstation="-")
            self.settle()
            if silent and time.monotonic() - begun > 4 * LOOK_UP:
                raise Violation(f"8 logons took {time.monotonic() - begun:.1f} s while the name server is silent")
            if silent:
                time.sleep(10.5 + LOOK_UP)  # then it is asked again

    def next_sweep(self, seconds):
        """Moves the clock, and waits for the sweep that is due then."""
        sweeps = self.model.sweeps
        self.move_clock(seconds)
        self.burst(4)
        self.until(lambda: self.model.sweeps > sweeps, "a sweep", 20)
        self.settle()

    def step_clock_forward_to_heartbeats(self):
        self.step_settings_by_tool()
        self.next_sweep(self.model.heartbeat + 70)
        self.next_sweep(70)  # none is due

    def step_clock_forward_to_expiry(self):
        for _ in range(2):  # who logs on in between stays
            self.next_sweep(self.model.ttl * 3 // 5)
            self.burst(16)
            self.settle()
        self.next_sweep(70)
        self.until_same("statistics", lambda: self.model.swept_size,
                        lambda: int(self.ctl("settings", "get", "Statistics\\Logons").split()[0]), 5)

    def step_clock_back(self):
        self.next_sweep(3 * 3600)
        self.next_sweep(-self.random.randrange(600, 7200))

    def step_disk_full(self):
        """What cannot be written is not reported; all else is as before when there is room again."""
        if not self.small_disk:
            return
        self.settle()
        self.model.allowed = ("Unable to write the list", "Unable to set registry")
        with open(f"{self.root}/filler", "wb", buffering=0) as file, contextlib.suppress(OSError):
            while file.write(b"x" * 65536):
                pass
        self.say(self.new("feed", 3))
        record = self.new("log")
        if self.write(record, code=None) != 0:
            self.model.pending.remove(record[0])
        self.ctl("settings", "set", "LogonTTL", "45", code=None)
        self.move_clock(61)
        time.sleep(self.random.random() * 2)
        os.unlink(f"{self.root}/filler")
        self.step_settings_by_tool()
        self.settle()
        self.model.allowed = ()

    def away(self, mark):
        """The agent is gone: what the log holds then is nobody's, but a feed waits for the next agent."""
        self.received.add(mark)
        self.write(self.new("log", 4), unheard=True)
        self.say(self.new("feed", 4))

    def step_agent_killed(self):
        self.burst(10)
        time.sleep(self.random.random() / 5)
        self.listen()
        self.agent.kill()
        self.agent.wait()
        time.sleep(0.3)  # what was on its way arrives
        self.may_lose(list(self.model.pending))
        self.away("killed")
        self.start_agent()

    def step_agent_stopped(self):
        """What waits then is told to be unreported, record by record."""
        self.burst(6)
        self.settle()
        if dead := self.random.random() < 0.5:
            self.die(self.host)
            self.write(self.new("log", 5))
            time.sleep(self.random.random())
        self.model.stopping, begun = True, time.monotonic()
        if self.random.random() < 0.5:
            self.agent.terminate()
        else:
            self.ctl("settings", "set", "Shutdown", "1")
        if self.agent.wait(PATIENCE) != 0 or time.monotonic() - begun > 5:
            raise Violation(f"a stop ended with {self.agent.returncode} after {time.monotonic() - begun:.1f} s")
        self.settle(probes=False)
        self.away("ended")
        if dead:
            self.serve(self.host)
        self.start_agent()

    def step_feed_killed(self):
        """It marks its place once a second: most of what it wrote comes before it again."""
        for _ in range(3):
            self.say(self.new("feed", 5))
            self.settle(probes=False)
        self.say(self.new("feed", 40))
        time.sleep(self.random.random() / 10)
        self.feed.kill()
        self.feed.wait()
        self.say(self.new("feed", 5))
        self.start_feed()

    def step_audit_file_rotated(self):
        self.say(self.new("feed", 5))
        os.rename(self.audit, self.audit + ".1")
        self.say(self.new("feed", 5))

    # The run.

    def run(self, minutes, only=()):
        """Every step once, in the seed's order, then again in another, until the time is over."""
        begun, number, deck, cards = time.monotonic(), 0, [], random.Random(self.seed)
        steps = sorted(name for name in dir(self) if name.startswith("step_") and (not only or name[5:] in only))
        if minutes < 3 and not only:
            steps = [name for name in steps if name not in ("step_server_stalls", "step_server_answers_too_late")]
            self.out("    left out in so short a run: the steps that wait for an answer of 20 s")
        self.prepare()
        self.check()
        while number < len(steps) or time.monotonic() - begun < minutes * 60:
            deck = deck or cards.sample(steps, len(steps))
            name, number = deck.pop(), number + 1
            self.random = random.Random(f"{self.seed} {number}")
            self.out(f"{time.monotonic() - begun:7.1f} s  step {number}: {name[5:].replace('_', ' ')}")
            getattr(self, name)()
            self.check()
            if os.path.getsize(f"{self.root}/Keldwick.log") > 4 << 20:
                os.truncate(f"{self.root}/Keldwick.log", 0)
                self.model.last_reported = ""
        self.out(f"{number} steps, {self.number} records, {self.model.sweeps} sweeps; " +
                 ", ".join(f"{count} {what}" for what, count in self.model.counts.items()))


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--minutes", type=float, default=1, help="at least; every step is gone through once")
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--only", action="append", default=[], metavar="STEP", help="only these steps; may be repeated")
    options = parser.parse_args(arguments)
    if "SOAK_PRIVATE" not in os.environ:  # mounts of its own, where that is permitted
        for more in ([], ["--map-root-user"]):
            command = ["unshare", "--mount", "--propagation", "private", *more]
            if shutil.which("unshare") and subprocess.run([*command, "true"], stderr=subprocess.DEVNULL).returncode == 0:
                os.environ["SOAK_PRIVATE"] = "1"
                os.execvp(command[0], [*command, sys.executable, os.path.abspath(__file__), *arguments, "--seed", str(options.seed)])
    print(f"seed {options.seed}", flush=True)
    soak, code = Soak(options.seed, lambda text: print(text, flush=True)), 1
    try:
        soak.run(options.minutes, options.only)
        code = 0
    except Violation as violation:
        print(f"VIOLATION (seed {options.seed}): {violation}"[:3000])
        for text in soak.heard[-20:]:
            print("the agent:", re.sub(r"\s+", " ", text))
        for verdict, fields in soak.received.items[max(0, soak.received.at - 5):soak.received.at + 3]:
            print("a server:", verdict, fields and {name: fields.get(name) for name in ("id", "kind", "user", "address")})
    finally:
        soak.end()
        if code == 0:
            shutil.rmtree(soak.work, ignore_errors=True)
        else:
            shutil.copytree(soak.root, f"{soak.work}/root.kept", ignore_dangling_symlinks=True)
            print(f"the run's folder: {soak.work}")
        if "SOAK_PRIVATE" in os.environ:
            subprocess.run(["umount", "-l", soak.root], capture_output=True)
    return code


class SoakTest(unittest.TestCase):
    def test_a_minute_of_trouble_breaks_no_promise(self):
        done = subprocess.run([sys.executable, os.path.abspath(__file__), "--minutes", "1", "--seed", "7"], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual(0, done.returncode, done.stdout)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
