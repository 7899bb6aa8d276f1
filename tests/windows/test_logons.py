"""Logons, from the record in the log to the bytes at the server, by the program with a log of the test's own
(event_log_double.cpp), which the tool on Linux writes."""
import os
import struct
import subprocess
import unittest

from wine import WineTest
from wire import Server

LINUX = os.environ["KELDWICK_BIN"]
LOG_VERBOSE = 0x102


class Logons(WineTest):
    programs = ["KeldwickWithLog"]
    address = "127.54.0.1"

    def setUp(self):
        super().setUp()
        self.server = Server(self.address)
        self.addCleanup(self.server.close)
        self.ctl("init")
        self.clock = f"{self.home}/clock"
        self.forward(0)
        self.write(4608, "-")  # an old record

    def ctl(self, *arguments):
        subprocess.run([f"{LINUX}/keldwickctl", "--root", self.home, *arguments], check=True, capture_output=True, timeout=60)

    def write(self, event, *strings):
        self.ctl("events", "write", "--id", str(event), "--", *strings)

    def logon(self, user, address):
        self.write(4624, "S-1-0-0", "-", "-", "0x0", "S-1-5-21-1-2-3-1104", user, "CORP", "0x1", "3", "K", "K", "WS1", "{0}", "-",
                   "-", "0", "0x0", "-", address, "1")

    def forward(self, minutes):
        with open(self.clock, "r+b" if os.path.exists(self.clock) else "wb") as file:
            file.write(struct.pack("<q", minutes * 60))

    def follow(self, **settings):
        self.set(IdentServer=self.address, IdentProtocol=2, DebugOutput=LOG_VERBOSE, **settings)
        agent = self.start_agent("-A", KELDWICK_TEST_CLOCK=self.clock, LD_PRELOAD=f"{LINUX}/libmoved_clock.so")
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

    def test_a_cleared_log_is_followed_on(self):
        agent = self.follow()
        self.logon("ann", "2001:db8::7")
        self.reported("logon", "ann", "2001:db8::7")
        self.ctl("events", "clear")
        self.until_logged("Security event log reopened")
        self.until_logged("EVENT_LOG::Process: RecordCount", 2)
        self.until_logged("OldestRecordNumber", 2)
        self.stop(agent)

    def test_what_is_no_users_logon_from_elsewhere_is_not_reported(self):
        agent = self.follow()
        for user, address in (("WS9$", "10.0.0.9"), ("ann", "127.0.0.1"), ("ann", "-"), ("ann", "::1")):
            self.logon(user, address)
        self.logon("last", "10.0.0.10")
        self.reported("logon", "last", "10.0.0.10")
        self.stop(agent)


if __name__ == "__main__":
    unittest.main()
