"""The agent as a service: the test plays the service manager with a notify socket and signals."""
import json
import os
import signal
import socket
import subprocess
import time
import unittest
from datetime import datetime

from machine import BIN, PATIENCE, MachineTest
from wire import Server

PACKAGING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packaging")


class Service(MachineTest):
    address = "127.49.0.1"

    def setUp(self):
        super().setUp()
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.manager.close)
        self.manager.bind(f"{self.root}/notify")
        self.manager.settimeout(PATIENCE)

    def serve(self, *arguments, stderr=subprocess.PIPE, **environment):
        agent = subprocess.Popen([f"{BIN}/keldwick", *arguments], stdout=subprocess.PIPE, stderr=stderr, text=True,
                                 env={**os.environ, "KELDWICK_ROOT": self.root, "NOTIFY_SOCKET": f"{self.root}/notify",
                                      **environment})
        self.agents.append(agent)
        return agent

    def told(self, *messages):
        for message in messages:
            self.assertEqual(message, self.manager.recv(4096).decode())

    def test_starts_runs_and_stops_as_the_manager_is_told(self):
        self.prepare()
        agent = self.serve("-L", "-V")
        self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000", "READY=1\nSTATUS=Running")
        self.until_logged("Connect to Identity server")
        agent.send_signal(signal.SIGTERM)
        self.told("STOPPING=1\nSTATUS=Stopping", "STOPPING=1\nSTATUS=Stopped")
        self.assertEqual(0, agent.wait(PATIENCE))
        self.assertIn("Stopping Service: Reason = SERVICE_CONTROL_STOP", self.messages())
        self.assertIn("SERVICE_CONTROL_STOP", self.ctl("events", "list", "--log", "Application", "--json"))

    def test_with_the_units_environment_the_log_of_a_crash_is_kept(self):
        self.prepare()
        with open(f"{PACKAGING}/systemd/keldwick.service", encoding="utf-8") as unit:
            given = dict(line.strip().split("=", 2)[1:] for line in unit if line.startswith("Environment="))
        del given["KELDWICK_ROOT"]
        for times in (1, 2):
            agent = self.serve(**given)
            self.until_logged("Connect to Identity server", times)
            agent.kill()
            agent.wait(PATIENCE)

    def test_a_stop_that_comes_before_it_runs_is_not_lost(self):
        self.prepare()
        for early in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(early):
                agent = self.serve()
                self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000")
                agent.send_signal(early)
                self.assertEqual(0, agent.wait(PATIENCE))
                heard = [self.manager.recv(4096).decode() for _ in range(3)]
                self.assertEqual(["READY=1\nSTATUS=Running", "STOPPING=1\nSTATUS=Stopping", "STOPPING=1\nSTATUS=Stopped"], heard)

    def test_what_the_service_failed_with_is_the_exit_status(self):
        self.ctl("init")  # no identity server: initialisation fails
        agent = self.serve()
        self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000",
                  "STOPPING=1\nSTATUS=Stopped, service-specific exit code 2")
        self.assertEqual(2, agent.wait(PATIENCE))

    def test_the_watchdog_hears_of_an_agent_that_waits_for_its_server(self):
        self.prepare()
        agent = self.serve(WATCHDOG_USEC="400000")
        heard = [self.manager.recv(4096) for _ in range(8)]
        self.assertGreaterEqual(heard.count(b"WATCHDOG=1"), 6)
        agent.send_signal(signal.SIGTERM)
        self.assertEqual(0, agent.wait(PATIENCE))

    def test_a_reader_of_its_output_that_is_stuck_or_gone_stops_nothing(self):
        self.prepare()
        for reader in ("stuck", "gone"):
            with self.subTest(reader):
                ours, its = os.pipe()
                os.set_blocking(its, False)
                while reader == "stuck":
                    try:
                        os.write(its, bytes(4096))
                    except BlockingIOError:
                        break
                os.set_blocking(its, True)
                if reader == "gone":
                    os.close(ours)
                agent, begun = self.serve("-D", "-L", "-V", stderr=its), time.monotonic()
                self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000", "READY=1\nSTATUS=Running")
                agent.send_signal(signal.SIGTERM)
                self.told("STOPPING=1\nSTATUS=Stopping", "STOPPING=1\nSTATUS=Stopped")
                self.assertEqual(0, agent.wait(PATIENCE))
                self.assertLess(time.monotonic() - begun, 5, "a line that nobody reads costs no time")
                self.assertTrue(os.get_blocking(its), "others share the stream")
                os.close(its)
                if reader == "stuck":
                    os.close(ours)

    def status(self):
        return json.loads(self.ctl("status", "--json"))

    def test_status_is_seen_from_outside(self):
        self.prepare()
        self.assertFalse(self.status()["running"])
        server = subprocess.Popen([f"{BIN}/keldwick-server", "--host", self.address, "--tls-port", "0"],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.agents.append(server)
        self.assertIn("port 1306", server.stderr.readline())  # it listens
        agent = self.start("-L", "-V")
        self.until(lambda: self.status()["connection"], "a connection")
        status = self.status()
        self.assertEqual((True, agent.pid, self.address, "tcp"),
                         tuple(status[key] for key in ("running", "pid", "server", "protocol")))
        self.assertEqual({"address": self.address, "port": 1306, "over": "TCP", "groups": True}, status["connection"])
        self.assertLess(abs(datetime.fromisoformat(status["since"]).timestamp() - time.time()), PATIENCE)
        self.logon("cleo", "10.0.0.8", workstation="PC2")
        self.until(lambda: self.status()["behind"] == 0, "the agent has read the first logon")
        agent.send_signal(signal.SIGSTOP)
        for user in ("ann", "bob"):
            self.logon(user, "10.0.0.7", workstation="PC1")
        status = self.status()
        self.assertEqual((4, 2), (status["last_event"]["record"], status["behind"]), status)
        self.assertLessEqual(status["behind_since"], status["last_event"]["time"])
        agent.send_signal(signal.SIGCONT)
        self.until(lambda: self.status()["behind"] == 0, "the agent catches up")

        figures = f"{self.root}/keldwick.prom"
        self.assertEqual("", self.ctl("status", "--prometheus", figures))
        with open(figures, encoding="utf-8") as file:
            self.assertRegex(file.read(), r"(?m)^keldwick_connected 1$")
        self.assertIn(f"process {agent.pid}", self.ctl("status"))
        self.assertEqual(0, self.status()["reports_failed"])
        self.shut_down(agent)
        self.assertFalse(self.status()["running"])

    def identities(self):
        return [json.loads(line) for line in self.ctl("identities", "--json").splitlines()]

    def test_who_is_where_is_told_at_once_and_only_while_the_agent_knows_it(self):
        self.prepare()
        server = Server(self.address)
        self.addCleanup(server.close)
        self.assertIn("no agent runs", self.ctl("identities", code=1))
        agent = self.start("-L", "-V")
        self.until(lambda: self.status()["identities"] == 0, "the agent shows itself")
        for user, address, workstation in (("ann", "10.0.0.7", "PC1"), ('b"\x1b[2J\\', "2001:db8::1", "-"),
                                           ("zoë", "10.0.0.8", "PC2"), ("cleo", "10.0.0.7", "PC1")):
            self.logon(user, address, workstation=workstation)
        self.until(lambda: self.status()["reports_answered"] == 5, "four logons and a logoff")
        found = self.identities()
        self.assertEqual([("2001:db8::1", 'CORP\\b"\x1b[2J\\'), ("10.0.0.8", "CORP\\zoë"), ("10.0.0.7", "CORP\\cleo")],
                         [(entry["address"], entry["user"]) for entry in found])
        self.assertEqual(["", "CORP\\PC2", "CORP\\PC1"], [entry["computer"] for entry in found])
        for entry in found:
            logon, expires = (datetime.fromisoformat(entry[key]).timestamp() for key in ("logon", "expires"))
            self.assertLess(abs(logon - time.time()), PATIENCE)
            self.assertEqual(12 * 60, expires - logon)
        shown = self.ctl("identities").splitlines()
        self.assertIn('CORP\\b"\\u001b[2J\\  ', shown[0])
        self.assertRegex(shown[3], "^3 identities, as of ")
        self.shut_down(agent)
        with open(f"{self.root}/Keldwick.identities", encoding="utf-8") as file:
            self.assertEqual(0, json.loads(file.read())["identities"], "nobody is left in the file")

    def test_without_inotify_it_looks_by_itself_and_status_shows_it(self):
        self.addCleanup(Server(self.address).close)
        self.prepare()
        limit = 'echo 0 > /proc/sys/user/max_inotify_instances && exec "$0" "$@"'
        through = ("unshare", "--user", "--map-root-user", "sh", "-c", limit)
        if subprocess.run([*through, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("user namespaces are not allowed")
        agent = self.start("-L", "-V", through=through)
        self.assertEqual((agent.pid, True), tuple(self.status()[key] for key in ("pid", "polls")))
        self.ctl("settings", "set", "Heartbeat", "44")
        self.until_logged("Heartbeat interval = 44 (minutes)")


if __name__ == "__main__":
    unittest.main()
