"""The system calls that a report takes, counted by strace; no directory is configured."""
import collections
import re
import subprocess
import threading
import unittest

from machine import MachineTest, xml
from wire import answer

REPORTS = 300
# One look for a close, one send, one wait, one receive, and one write for each of the six lines in the log.
A_REPORT = {"recvfrom": 2, "sendto": 1, "ppoll": 1, "write": 6}
OTHERS = 0.2  # a report: reading the event log, and once a second a look at what inotify might not have told


def may_trace():
    try:
        return subprocess.run(["strace", "-o", "/dev/null", "true"], capture_output=True).returncode == 0
    except FileNotFoundError:
        return False


@unittest.skipUnless(may_trace(), "strace may not trace here (ptrace is not permitted), or is not installed")
class SystemCalls(MachineTest):
    address = "127.52.0.1"

    def test_a_report_makes_those_of_its_exchange_and_its_log_lines(self):
        imported = threading.Event()

        def reply(connection, _request, fields):
            imported.wait(30)
            connection.sendall(answer(fields["id"]))

        self.serve(reply=reply)
        self.prepare()
        agent = self.start(through=["strace", "-E", "ASAN_OPTIONS=detect_leaks=0", "-f", "-o", f"{self.root}/trace"])
        events = "".join(xml(f"user{i}", f"10.0.{i // 250}.{i % 250 + 1}") for i in range(REPORTS))
        self.ctl("events", "import", "-", text=f"<Events>{events}</Events>")
        imported.set()
        self.until_logged("Logon reported", REPORTS)
        self.shut_down(agent)
        with open(f"{self.root}/trace", encoding="utf-8", errors="replace") as file:
            lines = file.read().splitlines()
        worker = lines[0].split()[0]
        calls = [call[1] for line in lines if (call := re.match(worker + r" +(\w+)\(", line))]
        sent = [i for i, call in enumerate(calls) if call == "sendto"][-REPORTS:]  # before: look-ups of names
        counts = collections.Counter(calls[sent[0]:sent[-1]])
        a_report = {call: round(count / (REPORTS - 1), 2) for call, count in counts.items()}
        self.assertEqual(A_REPORT, {call: round(a_report[call]) for call in A_REPORT}, a_report)
        self.assertLess(sum(a_report.values()) - sum(A_REPORT.values()), OTHERS, a_report)


if __name__ == "__main__":
    unittest.main()
