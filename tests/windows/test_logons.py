"""Logons, from the record in the log to the bytes at the server, by the program with a log of the test's own
(event_log_double.cpp), which the tool on Linux writes."""
import os
import struct
import subprocess
import time
from pathlib import Path

from wine import HERE, LINUX, WineTest

LOG_VERBOSE = 0x102


def without_system(message):
    """A request without the version of the system that the agent runs on."""
    at = 24 + {0: 0, 4: 4, 6: 16}[message[19]]
    return message[:at] + message[at + 3:]


class Logons(WineTest):
    programs = ["KeldwickWithLog"]
    address = "127.54.0.1"

    @classmethod
    def surroundings(cls):
        cls.clock = f"{cls.folder}/clock"
        cls.forward(0)
        return {"KELDWICK_TEST_CLOCK": cls.clock, "LD_PRELOAD": f"{LINUX}/libmoved_clock.so"}

    def setUp(self):
        super().setUp()
        self.server = self.serve()
        self.ctl("init")
        self.forward(0)
        self.write(4608, "-")  # an old record

    def ctl(self, *arguments, root=None):
        subprocess.run([f"{LINUX}/keldwickctl", "--root", root or self.home, *arguments], check=True, capture_output=True,
                       timeout=60)

    def write(self, event, *strings):
        self.ctl("events", "write", "--id", str(event), "--", *strings)

    def logon(self, user, address):
        self.write(4624, "S-1-0-0", "-", "-", "0x0", "S-1-5-21-1-2-3-1104", user, "CORP", "0x1", "3", "K", "K", "WS1", "{0}", "-",
                   "-", "0", "0x0", "-", address, "1")

    @classmethod
    def forward(cls, minutes):
        with open(cls.clock, "r+b" if os.path.exists(cls.clock) else "wb") as file:
            file.write(struct.pack("<q", minutes * 60))

    def follow(self, **settings):
        self.set(IdentServer=self.address, IdentProtocol=2, DebugOutput=LOG_VERBOSE, **settings)
        agent = self.start_agent("-A")
        self.until_logged("PositionToEnd: FORWARDS")
        return agent

    def reported(self, kind, user, address):
        got = self.server.next(timeout=30)
        self.assertEqual((kind, f"CORP\\{user}", "CORP\\WS1", address),
                         (got["kind"], got["user"][0], got["computer"][0], got["address"]))

    def stop(self, agent):
        self.set(Shutdown=1)
        self.assertEqual(0, agent.wait(30))
        self.assertTrue(self.server.requests.empty())

    def test_a_logon_lives_is_renewed_followed_and_expires(self):
        agent = self.follow(Heartbeat=20, LogonTTL=60)
        self.logon("ann", "10.9.8.7")
        self.reported("logon", "ann", "10.9.8.7")
        self.logon("bob", "10.9.8.7")
        self.reported("logoff", "ann", "10.9.8.7")
        self.reported("logon", "bob", "10.9.8.7")
        sweeps = self.log().count("Updating statistics")
        self.forward(21)
        self.write(4608, "-")  # wakes the worker, whose sweep is due
        self.reported("heartbeat", "bob", "10.9.8.7")
        self.until_logged("Updating statistics", sweeps + 1)
        self.forward(82)  # 61 after the heartbeat
        self.write(4608, "-")
        self.until_logged('Logon expired: User name = "CORP\\bob", IP address = "10.9.8.7"')
        self.stop(agent)

    def test_at_midnight_the_log_is_renamed_to_its_day(self):
        now = time.localtime()
        before = 24 * 60 - 10 - now.tm_hour * 60 - now.tm_min
        self.forward(before)
        agent = self.follow()
        day = time.strftime("%Y-%m-%d", time.localtime(time.time() + before * 60))
        self.forward(before + 11)
        self.write(4608, "-")
        self.until(lambda: os.path.exists(f"{self.home}/Keldwick_{day}.log"), f"the log of {day}")
        self.logon("ann", "10.9.8.7")
        self.reported("logon", "ann", "10.9.8.7")
        with open(f"{self.home}/Keldwick_{day}.log", encoding="utf-8") as old:
            self.assertIn("PositionToEnd: FORWARDS", old.read())
        self.assertNotIn("PositionToEnd", self.log())
        self.stop(agent)

    def test_beside_an_agent_on_linux_both_report_the_same(self):
        """From one log that both follow: recorded events (some to be passed over), heartbeats, a cleared log."""
        others = self.serve("127.54.0.2")
        agent = self.follow(Heartbeat=20, LogonTTL=60)
        root, recorded = f"{self.folder}/linux", f"{self.folder}/recorded.xml"
        os.mkdir(root)
        os.symlink(f"{self.home}/eventlog", f"{root}/eventlog")
        self.ctl("init", "--server", "127.54.0.2", "--protocol", "tcp", root=root)
        for setting in (("Heartbeat", "20"), ("LogonTTL", "60")):
            self.ctl("settings", "set", *setting, root=root)
        events = sorted(Path(HERE, "../loop/recorded").glob("*.xml"))
        Path(recorded).write_bytes(b"".join(event.read_bytes() for event in events))
        self.agents.append(subprocess.Popen([f"{LINUX}/keldwick", "-A", "-L", "-V"], stderr=subprocess.DEVNULL, env={
            **os.environ, **self.surroundings(), "KELDWICK_ROOT": root}))
        kinds = set()
        with open(f"{root}/Keldwick.log", "a+", encoding="utf-8") as log:
            def logged(text):
                log.seek(0)
                return self.log().count(text), log.read().count(text)

            def until_both_logged(text, before=(0, 0)):
                self.until(lambda: all(now > then for now, then in zip(logged(text), before)), f"{text}, by both")

            until_both_logged("PositionToEnd: FORWARDS")
            for step in ("logons", "heartbeats", "cleared log"):
                if step == "heartbeats":
                    sweeps = logged("Updating statistics")
                    self.forward(21)
                    self.write(4608, "-")  # wakes the workers, whose sweep is due
                    until_both_logged("Updating statistics", sweeps)
                if step == "cleared log":
                    self.ctl("events", "clear")
                    until_both_logged("Security event log reopened")
                self.ctl("events", "import", recorded)
                self.logon(step, "10.1.1.1")
                fields = {"user": [""]}
                while fields["user"][0] != f"CORP\\{step}" or fields["kind"] != "logon":
                    (ours, fields), (theirs, same) = (server.requests.get(timeout=30) for server in (self.server, others))
                    self.assertEqual(without_system(theirs), without_system(ours), (fields, same))
                    kinds.add(fields["kind"])
        self.assertEqual({"logon", "logoff", "heartbeat"}, kinds)
        self.assertTrue(others.requests.empty())
        self.stop(agent)
