"""A machine root of a test's own with the built programs: settings and events through keldwickctl, the agent as a process,
its log as messages."""
import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest

BIN = os.environ["KELDWICK_BIN"]
STAMP = re.compile(r"^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d [AP]M KDWK: \(\d+\.\d+\) ", re.M)
PATIENCE = 30  # seconds until a thing that must happen counts as missing; sanitizers are slow

EVENT = """<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event"><System><Provider Name="P"/>
<EventID>4624</EventID><TimeCreated SystemTime="2026-11-16T08:00:12.5Z"/><Computer>DC1</Computer></System><EventData>"""


def xml(user, address, workstation="WS1"):
    strings = ["S-1-0-0", "-", "-", "0x0", "S-1-5-21-1-2-3-1104", user, "CORP", "0x1", "3", "K", "K", workstation, "{0}", "-",
               "-", "0", "0x0", "-", address, "1"]
    return EVENT + "".join(f"<Data>{each}</Data>" for each in strings) + "</EventData></Event>"


class AgentTest(unittest.TestCase):
    """Ends the processes in `agents`, waits, and reads the log in the folder `home`."""
    patience = PATIENCE

    def setUp(self):
        self.agents = []
        self.addCleanup(self.end_agents)

    def end_agents(self):
        for agent in self.agents:
            if agent.poll() is None:
                agent.kill()
            agent.communicate()

    def until(self, condition, what):
        end = time.monotonic() + self.patience
        while not condition():
            self.assertLess(time.monotonic(), end, f"never came: {what}\n{self.log()[-3000:]}")
            time.sleep(0.01)

    def until_logged(self, text, times=1):
        self.until(lambda: self.log().count(text) >= times, text)

    def log(self):
        try:
            with open(f"{self.home}/Keldwick.log", encoding="utf-8", newline="") as file:
                return file.read().replace("\r\n", "\n")
        except FileNotFoundError:
            return ""

    def messages(self):
        return [message.strip("\n") for message in STAMP.split(self.log())[1:]]


class MachineTest(AgentTest):
    address = "127.0.0.1"  # each class its own, since the agent's ports are fixed and classes may run side by side

    def setUp(self):
        self.root = self.home = tempfile.mkdtemp(prefix="keldwick-system-")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)
        super().setUp()

    def ctl(self, *arguments, code=0, text=None):
        done = subprocess.run([f"{BIN}/keldwickctl", "--root", self.root, *arguments], input=text, capture_output=True,
                              text=True, timeout=60)
        self.assertEqual(code, done.returncode, f"keldwickctl {arguments}: {done.stdout}{done.stderr}")
        return done.stdout if code == 0 else done.stderr

    def start(self, *arguments, wait=True, through=()):
        """Starts the agent with verbose lines; with wait, until it follows the Security log from after its last record.
        `through`: the command that starts it."""
        follows = self.log().count("PositionToEnd: FORWARDS")
        agent = subprocess.Popen([*through, f"{BIN}/keldwick", *arguments], env={**os.environ, "KELDWICK_ROOT": self.root},
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.agents.append(agent)
        if wait:
            self.until(lambda: self.log().count("PositionToEnd: FORWARDS") > follows, "the agent follows the log")
        return agent

    def prepare(self, protocol="tcp", server=None):
        """A machine root with settings, and one old record in the log, so that the agent says when it follows it."""
        self.ctl("init", "--server", server or self.address, "--protocol", protocol)
        self.ctl("events", "write", "--id", "4608", "--", "-")

    def logon(self, user, ip, workstation="-", kind="3", domain="CORP", subject="S-1-0-0", sid="S-1-5-21-1-2-3-1104"):
        self.ctl("events", "write", "--id", "4624", "--source", "Microsoft-Windows-Security-Auditing", "--computer",
                 "DC1.corp.example", "--", subject, "-", "-", "0x0", sid, user, domain, "0x1a2b", kind, "NtLmSsp", "NTLM",
                 workstation, "{0}", "-", "-", "0", "0x0", "-", ip, "49152")

    def shut_down(self, agent):
        self.ctl("settings", "set", "Shutdown", "1")
        self.assertEqual(0, agent.wait(PATIENCE), agent.stderr.read() if agent.stderr else "")
