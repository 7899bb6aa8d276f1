"""A machine root of a test's own with the built programs: settings and events through keldwickctl, the agent as a process,
its log as messages."""
import contextlib
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

from wire import Server

BIN = os.environ["KELDWICK_BIN"]
SOURCE = os.path.realpath(f"{os.path.dirname(__file__)}/../..")
STAMP = re.compile(r"^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d [AP]M KDWK: \(\d+\.\d+\) ", re.M)
PATIENCE = 30  # seconds until a thing that must happen counts as missing; sanitizers are slow

EVENT = """<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event"><System><Provider Name="P"/>
<EventID>4624</EventID><TimeCreated SystemTime="2026-11-16T08:00:12.5Z"/><Computer>DC1</Computer></System><EventData>"""


def logon_strings(user, address, workstation):
    return ["S-1-0-0", "-", "-", "0x0", "S-1-5-21-1-2-3-1104", user, "CORP", "0x1a2b", "3", "NtLmSsp", "NTLM", workstation,
            "{0}", "-", "-", "0", "0x0", "-", address, "49152"]


def xml(user, address, workstation="WS1"):
    data = "".join(f"<Data>{each}</Data>" for each in logon_strings(user, address, workstation))
    return f"{EVENT}{data}</EventData></Event>"


def text_of(path):
    return Path(path).read_text("utf-8")


def opened_by(process):
    """What the descriptors of a process lead to."""
    for each in os.listdir(f"/proc/{process.pid}/fd"):
        with contextlib.suppress(FileNotFoundError):
            yield os.readlink(f"/proc/{process.pid}/fd/{each}")


class AgentTest(unittest.TestCase):
    """Ends the processes in `agents`, waits, and reads the log in the folder `home`."""
    patience = PATIENCE

    def setUp(self):
        self.agents = []
        self.addCleanup(self.end_agents)

    def end_agents(self):
        for agent in self.agents:
            agent.kill()  # unless it has ended
            agent.communicate()

    def until(self, condition, what):
        end = time.monotonic() + self.patience
        while not condition():
            self.assertLess(time.monotonic(), end, f"never came: {what}\n{self.log()[-3000:]}")
            time.sleep(0.01)

    def until_logged(self, text, times=1):
        self.until(lambda: self.log().count(text) >= times, text)

    def log(self):
        with contextlib.suppress(FileNotFoundError):
            return Path(f"{self.home}/Keldwick.log").read_bytes().decode().replace("\r\n", "\n")
        return ""

    def messages(self):
        return [message.strip("\n") for message in STAMP.split(self.log())[1:]]


class MachineTest(AgentTest):
    address = "127.0.0.1"  # each class its own, since the agent's ports are fixed and classes may run side by side

    def setUp(self):
        self.root = self.home = tempfile.mkdtemp(prefix="keldwick-system-")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)
        super().setUp()

    def run_program(self, name, *arguments, **options):
        """Runs a built program in the machine root to its end."""
        return subprocess.run([f"{BIN}/{name}", *arguments], capture_output=True, text=True, timeout=60,
                              env={**os.environ, "KELDWICK_ROOT": self.root}, **options)

    def begin(self, *command, **options):
        """Starts a program in the machine root; it is ended with the test."""
        environment = {**os.environ, "KELDWICK_ROOT": self.root, **options.pop("env", {})}
        self.agents.append(subprocess.Popen(command, **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True,
                                                        "env": environment, **options}))
        return self.agents[-1]

    def end(self, program, how=signal.SIGTERM):
        """Ends a program, which takes the wish as a good end. What it had printed, on both streams."""
        program.send_signal(how)
        said = program.communicate(timeout=PATIENCE)
        self.agents.remove(program)
        self.assertEqual(-how if how == signal.SIGKILL else 0, program.returncode, said)
        return said

    def ctl(self, *arguments, code=0, text=None):
        """What keldwickctl prints when it ends with that code."""
        done = self.run_program("keldwickctl", *arguments, input=text)
        self.assertEqual(code, done.returncode, f"keldwickctl {arguments}: {done.stdout}{done.stderr}")
        return done.stdout if code == 0 else done.stdout + done.stderr

    def ctl_json(self, *arguments):
        return json.loads(self.ctl(*arguments, "--json"))

    def ctl_lines(self, *arguments):
        return [json.loads(line) for line in self.ctl(*arguments, "--json").splitlines()]

    def serve(self, address=None, **options):
        """An identity server of the tests' own."""
        server = Server(address or self.address, **options)
        self.addCleanup(server.close)
        return server

    def keldwick_server(self, *options, tls=0, **streams):
        """The reference server, which takes plain TCP, and TLS at that port."""
        server = self.begin(f"{BIN}/keldwick-server", "--host", self.address, "--tls-port", str(tls), *options, **streams)
        self.assertIn("listening", server.stderr.readline())
        return server

    def start(self, *arguments, wait=True, through=(), **options):
        """Starts the agent with verbose lines; with wait, until it follows the Security log from after its last record.
        `through`: the command that starts it."""
        follows = self.log().count("PositionToEnd: FORWARDS")
        agent = self.begin(*through, f"{BIN}/keldwick", *arguments, **options)
        if wait:
            self.until(lambda: self.log().count("PositionToEnd: FORWARDS") > follows, "the agent follows the log")
        return agent

    def prepare(self, protocol="tcp", server=None):
        """A machine root with settings, and one old record in the log, so that the agent says when it follows it."""
        self.ctl("init", "--server", server or self.address, "--protocol", protocol)
        self.ctl("events", "write", "--id", "4608", "--", "-")

    def logon(self, user, ip, workstation="-"):
        self.ctl("events", "write", "--id", "4624", "--source", "Microsoft-Windows-Security-Auditing", "--computer",
                 "DC1.corp.example", "--", *logon_strings(user, ip, workstation))

    def shut_down(self, agent):
        self.ctl("settings", "set", "Shutdown", "1")
        self.assertEqual(0, agent.wait(PATIENCE), agent.stderr.read() if agent.stderr else "")
