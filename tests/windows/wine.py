"""A Windows machine of a test's own: a wine prefix below a temporary folder, with the built Keldwick.exe in C:\\Keldwick,
settings through `reg` and the service through `sc`, as an administrator would. Run as a program it makes the machine that
the tests then copy, in the folder KELDWICK_WINE_TEMPLATE; without one each test makes its own."""
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "../system"))
from machine import AgentTest, MachineTest

BIN = os.environ["KELDWICK_WINDOWS_BIN"]
LINUX = os.environ["KELDWICK_BIN"]
TEMPLATE = os.environ.get("KELDWICK_WINE_TEMPLATE", "")
WINE = "/usr/lib/wine"
KEY = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick"
ADDRESS = "10.20.30.40"  # what the machine's name stands for: no loopback address, as an agent reports none
HOST, HOST_ADDRESS = "identity.example", "127.56.0.1"
PATIENCE = 60


class WineTest(AgentTest):
    programs = ["Keldwick"]
    patience = PATIENCE
    serve = MachineTest.serve

    @classmethod
    def setUpClass(cls):
        copied = os.path.isdir(TEMPLATE)
        cls.folder = tempfile.mkdtemp(prefix="keldwick-wine-", dir=os.path.dirname(TEMPLATE) or None)
        cls.addClassCleanup(shutil.rmtree, cls.folder, ignore_errors=True)
        if copied:  # the libraries, which nothing writes, without copying them
            shutil.copytree(TEMPLATE, f"{cls.folder}/prefix", symlinks=True,
                            copy_function=lambda old, new: (os.link if old.endswith(".dll") else shutil.copy2)(old, new))
        with open(f"{cls.folder}/hosts", "w", encoding="ascii") as file:
            file.write(f"127.0.0.1 localhost one.example\n{ADDRESS} {socket.gethostname()}\n{HOST_ADDRESS} {HOST}\n")
        rights = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
        cls.machine = ["unshare", *rights, "--mount", "--propagation", "private", "sh", "-c",
                       'mount --bind "$0" /etc/hosts && exec "$@"', f"{cls.folder}/hosts"]
        cls.environment = {name: value for name, value in os.environ.items() if name != "DISPLAY"} | {
            "WINEPREFIX": f"{cls.folder}/prefix", "WINEDEBUG": "-all", "WINEDLLOVERRIDES": "mscoree,mshtml=",
            "WINEPATH": "C:\\Keldwick", "HOME": cls.folder, **cls.surroundings()}
        # The first program makes the machine, and all others run on it. Without one wine would end its services.
        cls.keeper = subprocess.Popen([*cls.machine, f"{WINE}/wine64", "cmd", "/c", "echo up & pause"], env=cls.environment,
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        cls.addClassCleanup(cls.end_machine)
        assert cls.keeper.stdout.readline().startswith(b"up")
        if not copied:
            cls.wine("reg", "add", "HKCU\\Software\\Wine", "/v", "Version", "/d", "win10", "/f")
        cls.home = f"{cls.folder}/prefix/drive_c/Keldwick"

    @classmethod
    def surroundings(cls):
        """Variables that every program of the machine sees."""
        return {}

    @classmethod
    def end_machine(cls):
        for step in ("-k", "-w"):  # end, and wait until all is written
            subprocess.run([f"{WINE}/wineserver", step], env=cls.environment, check=False)
        cls.keeper.stdin.close()
        cls.keeper.stdout.close()
        cls.keeper.wait()

    @classmethod
    def wine(cls, *command, code=0):
        """Runs a Windows program to its end. Gives what it printed."""
        return cls.run_to_its_end([*cls.machine, f"{WINE}/wine64", *command], code)

    @classmethod
    def run_to_its_end(cls, command, code=0, patience=PATIENCE, **variables):
        """It prints into a file, since the programs that wine starts in the background would keep a pipe open."""
        with tempfile.TemporaryFile() as output:
            done = subprocess.run(command, env={**cls.environment, **variables}, timeout=patience,
                                  stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT)
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

    def bring_in(self, *lines):
        """Brings lines of a .reg file into the registry, in one run of one program."""
        with open(f"{self.folder}/prefix/drive_c/settings.reg", "w", encoding="utf-16", newline="\r\n") as file:
            file.write("\n".join(("Windows Registry Editor Version 5.00", *lines, "")))
        self.wine("reg", "import", "C:\\settings.reg")

    def set(self, **values):
        """Settings: numbers and texts."""
        self.bring_in(f"[{KEY}]", *(f'"{name}"=' + (f"dword:{value:x}" if isinstance(value, int) else f'"{value}"')
                                 for name, value in values.items()))

    def get(self, name, below=""):
        found = re.search(rf"^ +{name} +REG_\w+ +(.*)$", self.wine("reg", "query", KEY + below, "/v", name, code=None), re.M)
        return found and found[1].strip()

    def run_agent(self, *arguments):
        """Runs the agent to its end. Gives its exit code, of which wine itself hands on the lowest byte alone."""
        text = self.wine("cmd", "/v:on", "/c", "start", "/wait", "C:\\Keldwick\\Keldwick.exe", *arguments, "&", "echo",
                         "code", "!errorlevel!", code=None)
        found = re.search(r"code (\d+)", text)
        assert found, f"{arguments}: no exit code in {text!r}"
        return int(found[1])

    def on_linux(self, *arguments, **variables):
        """Runs the agent on Linux to its end, in a machine root below the folder. Gives its log."""
        root = f"{self.folder}/linux"
        for command in (["keldwickctl", "--root", root, "init"], ["keldwick", *arguments]):
            subprocess.run([*self.machine, f"{LINUX}/{command[0]}", *command[1:]], check=True, capture_output=True,
                           timeout=PATIENCE, env={**os.environ, "KELDWICK_ROOT": root, **variables})
        with open(f"{root}/Keldwick.log", encoding="utf-8", newline="") as file:
            return file.read().replace("\r\n", "\n")

    def start_agent(self, *arguments):
        agent = subprocess.Popen([*self.machine, f"{WINE}/wine64", f"C:\\Keldwick\\{self.programs[0]}.exe", *arguments],
                                 env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
        self.agents.append(agent)
        return agent

    def service(self, *command, code=0):
        return self.wine("sc", command[0], "Keldwick", *command[1:], code=code)

    def service_state(self):
        """(state, exit code, the service's own code)"""
        text = self.service("query")
        return tuple(int(re.search(rf"{field} +: (\d+)", text)[1]) for field in ("STATE", "WIN32_EXIT_CODE", "SERVICE_EXIT_CODE"))


if __name__ == "__main__":
    shutil.rmtree(TEMPLATE, ignore_errors=True)
    WineTest.setUpClass()
    WineTest.end_machine()
    os.rename(f"{WineTest.folder}/prefix", TEMPLATE)
    WineTest.doClassCleanups()
