"""The agent as a service: the test plays the service manager with a notify socket and signals. And the system calls that
a report takes, counted by strace."""
import collections
import fcntl
import os
import re
import shutil
import signal
import socket
import subprocess
import threading
import time

from machine import PATIENCE, SOURCE, MachineTest, text_of, xml
from wire import answer

REPORTS = 300
# One look for a close, one send, one wait, one receive, and one write for each of the six lines in the log.
A_REPORT = {"recvfrom": 2, "sendto": 1, "ppoll": 1, "write": 6}
OTHERS = 0.2  # a report: reading the event log, and once a second a look at what inotify might not have reported


class Service(MachineTest):
    address = "127.49.0.1"

    def setUp(self):
        super().setUp()
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.manager.close)
        self.manager.bind(f"{self.root}/notify")
        self.manager.settimeout(PATIENCE)

    def run_service(self, *arguments, stderr=subprocess.PIPE, **environment):
        return self.start(*arguments, wait=False, stderr=stderr, env={"NOTIFY_SOCKET": f"{self.root}/notify", **environment})

    def told(self, *messages):
        self.assertEqual(messages, tuple(self.manager.recv(4096).decode() for _ in messages))

    def test_starts_runs_and_stops_as_the_manager_is_told(self):
        self.ctl("init")  # no identity server: initialisation fails
        agent = self.run_service()
        self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000", "STOPPING=1\nSTATUS=Stopped, service-specific exit code 2")
        self.assertEqual(2, agent.wait(PATIENCE))
        self.prepare()
        agent = self.run_service("-L", "-V")
        self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000", "READY=1\nSTATUS=Running")
        self.until_logged("Connect to Identity server")
        self.end(agent)
        self.told("STOPPING=1\nSTATUS=Stopping", "STOPPING=1\nSTATUS=Stopped")
        self.assertIn("Stopping Service: Reason = SERVICE_CONTROL_STOP", self.messages())
        self.assertIn("SERVICE_CONTROL_STOP", self.ctl("events", "list", "--log", "Application", "--json"))

    def test_with_the_units_environment_the_log_of_a_crash_is_kept(self):
        self.prepare()
        unit = text_of(f"{SOURCE}/packaging/systemd/keldwick.service")
        given = dict(line.split("=", 2)[1:] for line in unit.splitlines() if line.startswith("Environment="))
        del given["KELDWICK_ROOT"]
        for times in (1, 2):
            agent = self.run_service(**given)
            self.until_logged("Connect to Identity server", times)
            self.end(agent, signal.SIGKILL)

    def test_a_stop_that_comes_before_it_runs_is_not_lost(self):
        self.prepare()
        for early in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(early):
                agent = self.run_service()
                self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000")
                self.end(agent, early)
                self.told("READY=1\nSTATUS=Running", "STOPPING=1\nSTATUS=Stopping", "STOPPING=1\nSTATUS=Stopped")

    def test_the_watchdog_hears_of_an_agent_that_waits_for_its_server(self):
        self.prepare()
        agent = self.run_service(WATCHDOG_USEC="400000")
        heard = [self.manager.recv(4096) for _ in range(8)]
        self.assertGreaterEqual(heard.count(b"WATCHDOG=1"), 6)
        self.end(agent)

    def test_a_reader_of_its_output_that_is_stuck_or_gone_stops_nothing(self):
        self.prepare()
        for reader in ("stuck", "gone"):
            with self.subTest(reader):
                ours, its = os.pipe()
                if reader == "gone":
                    os.close(ours)
                else:
                    os.write(its, bytes(fcntl.fcntl(its, fcntl.F_GETPIPE_SZ)))
                agent, begun = self.run_service("-D", "-L", "-V", stderr=its), time.monotonic()
                self.told("STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000", "READY=1\nSTATUS=Running")
                self.end(agent)
                self.told("STOPPING=1\nSTATUS=Stopping", "STOPPING=1\nSTATUS=Stopped")
                self.assertLess(time.monotonic() - begun, 5, "a line that no one reads costs no time")
                self.assertTrue(os.get_blocking(its), "others share the stream")
                os.close(its)
                if reader == "stuck":
                    os.close(ours)

    def test_without_inotify_it_looks_by_itself_and_status_shows_it(self):
        self.serve()
        self.prepare()
        limit = 'echo 0 > /proc/sys/user/max_inotify_instances && exec "$0" "$@"'
        through = ("unshare", "--user", "--map-root-user", "sh", "-c", limit)
        if subprocess.run([*through, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("user namespaces are not allowed")
        agent = self.start("-L", "-V", through=through)
        self.assertEqual((agent.pid, True), tuple(self.ctl_json("status")[key] for key in ("pid", "polls")))
        self.ctl("settings", "set", "Heartbeat", "44")
        self.until_logged("Heartbeat interval = 44 (minutes)")

    def test_a_report_makes_those_of_its_exchange_and_its_log_lines(self):
        trace = ("strace", "-E", "ASAN_OPTIONS=detect_leaks=0", "-f", "-o", f"{self.root}/trace")
        if not shutil.which("strace") or subprocess.run([*trace, "true"], capture_output=True).returncode:
            self.skipTest("strace may not trace here (ptrace is not permitted), or is not installed")
        imported = threading.Event()

        def reply(connection, _request, fields):
            imported.wait(30)
            connection.sendall(answer(fields["id"]))

        self.serve(reply=reply)
        self.prepare()
        agent = self.start(through=trace)
        events = "".join(xml(f"user{i}", f"10.0.{i // 250}.{i % 250 + 1}") for i in range(REPORTS))
        self.ctl("events", "import", "-", text=f"<Events>{events}</Events>")
        imported.set()
        self.until_logged("Logon reported", REPORTS)
        self.shut_down(agent)
        lines = text_of(f"{self.root}/trace").splitlines()
        worker = lines[0].split()[0]
        calls = [call[1] for line in lines if (call := re.match(worker + r" +(\w+)\(", line))]
        sent = [i for i, call in enumerate(calls) if call == "sendto"][-REPORTS:]  # before: look-ups of names
        counts = collections.Counter(calls[sent[0]:sent[-1]])
        a_report = {call: round(count / (REPORTS - 1), 2) for call, count in counts.items()}
        self.assertEqual(A_REPORT, {call: round(a_report[call]) for call in A_REPORT}, a_report)
        self.assertLess(sum(a_report.values()) - sum(A_REPORT.values()), OTHERS, a_report)
