"""A Windows machine of a test's own: a wine prefix below a temporary folder, with the built Keldwick.exe in C:\\Keldwick,
settings through `reg` and the service through `sc`, as an administrator would."""
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "../system"))
from machine import AgentTest

BIN = os.environ["KELDWICK_WINDOWS_BIN"]
WINE = "/usr/lib/wine"
KEY = "HKLM\\SOFTWARE\\Vantorel Systems\\Keldwick"
ADDRESS = "10.20.30.40"  # what the machine's name stands for: no loopback address, as an agent reports none
PATIENCE = 60


class WineTest(AgentTest):
    programs = ["Keldwick"]
    patience = PATIENCE

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="keldwick-wine-")
        cls.addClassCleanup(shutil.rmtree, cls.folder, ignore_errors=True)
        with open(f"{cls.folder}/hosts", "w", encoding="ascii") as file:
            file.write(f"127.0.0.1 localhost one.example\n{ADDRESS} {socket.gethostname()}\n")
        rights = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
        cls.machine = ["unshare", *rights, "--mount", "--propagation", "private", "sh", "-c",
                       'mount --bind "$0" /etc/hosts && exec "$@"', f"{cls.folder}/hosts"]
        cls.environment = {name: value for name, value in os.environ.items() if name != "DISPLAY"} | {
            "WINEPREFIX": f"{cls.folder}/prefix", "WINEDEBUG": "-all", "WINEDLLOVERRIDES": "mscoree,mshtml=",
            "WINEPATH": "C:\\Keldwick", "HOME": cls.folder}
        # The first program makes the machine, and all others run on it. Without one wine would end its services.
        cls.keeper = subprocess.Popen([*cls.machine, f"{WINE}/wine64", "cmd", "/c", "echo up & pause"], env=cls.environment,
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        cls.addClassCleanup(cls.end_machine)
        assert cls.keeper.stdout.readline().startswith(b"up")
        cls.wine("reg", "add", "HKCU\\Software\\Wine", "/v", "Version", "/d", "win10", "/f")
        cls.home = f"{cls.folder}/prefix/drive_c/Keldwick"

    @classmethod
    def end_machine(cls):
        subprocess.run([f"{WINE}/wineserver", "-k"], env=cls.environment, check=False)
        cls.keeper.stdin.close()
        cls.keeper.stdout.close()
        cls.keeper.wait()

    @classmethod
    def wine(cls, *command, code=0):
        """Runs a Windows program to its end. Gives what it printed: into a file, since the programs that wine starts in the
        background would keep a pipe open."""
        with tempfile.TemporaryFile() as output:
            done = subprocess.run([*cls.machine, f"{WINE}/wine64", *command], env=cls.environment, stdin=subprocess.DEVNULL,
                                  stdout=output, stderr=subprocess.STDOUT, timeout=PATIENCE)
            output.seek(0)
            text = output.read().decode(errors="replace").replace("\r\n", "\n")
        assert code in (None, done.returncode), f"{command}: {done.returncode}, {text}"
        return text

    def setUp(self):
        super().setUp()
        self.wine("reg", "delete", KEY, "/f", code=None)
        shutil.rmtree(self.home, ignore_errors=True)
        os.mkdir(self.home)
        for program in self.programs:
            shutil.copy(f"{BIN}/{program}.exe", self.home)

    def set(self, **values):
        """Settings: numbers and texts."""
        self.wine("reg", "add", KEY, "/f")
        for name, value in values.items():
            kind = "REG_DWORD" if isinstance(value, int) else "REG_SZ"
            self.wine("reg", "add", KEY, "/v", name, "/t", kind, "/d", str(value), "/f")

    def get(self, name, below=""):
        found = re.search(rf"^ +{name} +REG_\w+ +(.*)$", self.wine("reg", "query", KEY + below, "/v", name, code=None), re.M)
        return found and found[1].strip()

    def run_agent(self, *arguments):
        """Runs the agent to its end. Gives its exit code, of which wine itself hands on the lowest byte alone."""
        text = self.wine("cmd", "/v:on", "/c", "start", "/wait", "C:\\Keldwick\\Keldwick.exe", *arguments, "&", "echo",
                         "code", "!errorlevel!", code=None)
        return int(re.search(r"code (\d+)", text)[1])

    def start_agent(self, *arguments, **environment):
        agent = subprocess.Popen([*self.machine, f"{WINE}/wine64", f"C:\\Keldwick\\{self.programs[0]}.exe", *arguments],
                                 env={**self.environment, **environment}, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
        self.agents.append(agent)
        return agent

    def service(self, *command, code=0):
        return self.wine("sc", command[0], "Keldwick", *command[1:], code=code)

    def service_state(self):
        """(state, exit code, the service's own code)"""
        text = self.service("query")
        return tuple(int(re.search(rf"{field} +: (\d+)", text)[1]) for field in ("STATE", "WIN32_EXIT_CODE", "SERVICE_EXIT_CODE"))
