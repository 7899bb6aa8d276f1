"""The Debian package: built from the programs under test, then installed, used, upgraded, removed and purged on a copy of
this machine (an overlay in a mount namespace of the test's own, so that this machine keeps what it has)."""
import os
import re
import shutil
import subprocess
import tempfile
import unittest

from machine import BIN, SOURCE, text_of

PACKAGING = f"{SOURCE}/packaging"
ROOT = "/var/lib/keldwick"
OVERLAY = """mount -t tmpfs tmpfs "$1" && mkdir "$1/upper" "$1/work" "$1/copy" &&
mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" "$1/copy" &&
mount --rbind /dev "$1/copy/dev" && mount -t proc proc "$1/copy/proc" && echo ready && exec cat"""


def build_package(folder):
    """Makes the package of the programs under test, quickly. Its file's name."""
    return subprocess.run([f"{PACKAGING}/build-deb", BIN, folder], check=True, capture_output=True, text=True, timeout=300,
                          env={**os.environ, "DPKG_DEB_COMPRESSOR_TYPE": "none"}).stdout.strip()


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="keldwick-package-")
        cls.addClassCleanup(shutil.rmtree, cls.folder, ignore_errors=True)
        cls.package = build_package(cls.folder)

    def setUp(self):
        mounts = tempfile.mkdtemp(prefix="keldwick-copy-")
        self.addCleanup(os.rmdir, mounts)
        self.copy = f"{mounts}/copy"
        self.keeper = subprocess.Popen(["unshare", "--mount", "--propagation", "private", "sh", "-c", OVERLAY, "sh", mounts],
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(self.keeper.communicate)
        if self.keeper.stdout.readline() != "ready\n":
            self.fail("this machine has no overlays for the test (it needs root): " + self.keeper.communicate()[1])

    def inside(self, *command, code=0):
        done = subprocess.run(["nsenter", f"--mount=/proc/{self.keeper.pid}/ns/mnt", "chroot", self.copy, *command],
                              capture_output=True, text=True, timeout=300,
                              env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND": "noninteractive",
                                   "KELDWICK_ROOT": ROOT, "LC_ALL": "C.UTF-8"})
        self.assertEqual(code, done.returncode, f"{command}: {done.stdout}{done.stderr}")
        return done.stdout.strip()

    def as_agent(self, *command):
        return self.inside("runuser", "-u", "keldwick", "--", *command)

    def put(self, path):
        """Copies a file into the copy, at the same path."""
        with open(path, "rb") as file:
            subprocess.run(["nsenter", f"--mount=/proc/{self.keeper.pid}/ns/mnt", "chroot", self.copy, "sh", "-c",
                            'mkdir -p "${1%/*}" && cat >"$1"', "sh", path], check=True, stdin=file)
        return path

    def install(self, package):
        return self.inside("dpkg", "--install", self.put(package))

    def newer(self):
        tree = f"{self.folder}/tree"
        subprocess.run(["dpkg-deb", "--raw-extract", self.package, tree], check=True)
        control = text_of(f"{tree}/DEBIAN/control")
        with open(f"{tree}/DEBIAN/control", "w", encoding="utf-8") as file:
            file.write(re.sub(r"(?m)^Version: .*", "Version: 99", control))
        package = f"{self.folder}/newer.deb"
        subprocess.run(["dpkg-deb", "--root-owner-group", "-Znone", "--build", tree, package], check=True, capture_output=True)
        return package

    def test_installed_used_upgraded_removed_purged(self):
        self.install(self.package)
        self.assertEqual("keldwick keldwick 2750", self.inside("stat", "-c", "%U %G %a", ROOT))
        self.assertEqual("keldwick keldwick 660", self.inside("stat", "-c", "%U %G %a", f"{ROOT}/eventlog/Security.evt"))

        with self.subTest("what root does with the tool, the agent's user can go on with"):
            self.inside("keldwickctl", "settings", "set", "IdentServer", "identity.example.net")
            self.inside("keldwickctl", "events", "clear")
            self.inside("keldwickctl", "events", "clear", "--log", "Application")
            self.inside("keldwick", "-X", "-L", "-V")
            self.inside("sh", "-c", "echo oops | keldwickctl feed json")
            self.assertEqual([], self.inside("find", ROOT, "!", "-user", "keldwick").splitlines())
            self.as_agent("keldwickctl", "settings", "set", "Heartbeat", "7")
            self.as_agent("keldwickctl", "events", "write", "--id", "4608", "--", "-")
            self.as_agent("keldwick", "-X", "-L", "-V")
            self.assertEqual("keldwick 1.2.5", self.inside("keldwick", "--version").split(" build")[0])

        with self.subTest("an upgrade keeps settings and events"):
            self.install(self.newer())
            self.assertEqual("7", self.inside("keldwickctl", "settings", "get", "Heartbeat").split()[0])
            self.assertIn("4608", self.inside("keldwickctl", "events", "list", "--json"))

        with self.subTest("removing keeps the machine root, purging does not"):
            self.inside("dpkg", "--remove", "keldwick")
            self.inside("test", "-e", f"{ROOT}/registry.reg", "-a", "!", "-e", "/usr/sbin/keldwick")
            left = ("/etc/keldwick/password", "/var/lib/prometheus/node-exporter/keldwick.prom",
                    "/var/lib/systemd/timers/stamp-keldwick-logs.timer")
            self.inside("sh", "-c", 'for each; do mkdir -p "${each%/*}" && echo x >"$each"; done', "sh", *left)
            self.inside("dpkg", "--purge", "keldwick")
            self.assertEqual("", self.inside("sh", "-c", 'ls -d "$@" 2>/dev/null || true', "sh", ROOT, "/etc/keldwick", *left))
            self.inside("dpkg", "--status", "keldwick", code=1)

    def test_the_links_of_its_pages_lead_to_what_is_there(self):
        self.install(self.package)
        links = self.inside("sh", "-c", r"cd /usr/share/doc/keldwick && grep -oh ']([^)#:]*)' *.md | tr -d ']()' | sort -u").split()
        self.assertIn("running.md", links)
        self.inside("sh", "-c", 'cd /usr/share/doc/keldwick && ls -d "$@" >/dev/null', "sh", *links)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
    def test_systemd_takes_the_units(self):
        self.install(self.package)
        units = [unit for unit in os.listdir(f"{PACKAGING}/systemd") if not unit.endswith(".d")]
        self.inside("systemd-analyze", "verify", "--man=no", "--recursive-errors=no",
                    *(f"/lib/systemd/system/{unit}" for unit in units))
        self.inside("systemd-analyze", "security", "--offline=yes", "--threshold=20", "/lib/systemd/system/keldwick.service")

    @unittest.skipUnless(shutil.which("lintian"), "lintian is not installed")
    def test_lintian_finds_no_errors(self):
        done = subprocess.run(["lintian", "--fail-on", "error", "--allow-root", self.package], capture_output=True, text=True,
                              timeout=300)
        self.assertEqual(0, done.returncode, done.stdout + done.stderr)


class Completion(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        root = tempfile.mkdtemp(prefix="keldwick-system-")
        cls.addClassCleanup(shutil.rmtree, root)
        os.mkdir(f"{root}/feed")
        for file in ("audit.lock", "audit.aside", "gone.lock"):
            open(f"{root}/feed/{file}", "w").close()
        cls.cases += (("keldwickctl", ["--root", root, "feed", "forget", ""], "audit"),
                      ("keldwick-server", ["--key-l"], "--key-log"), ("keldwick-server", ["--http", ""], ""))

    def valued(self, program, *commands):
        """The options with a value that the help of the program and of all its commands shows."""
        said = subprocess.run([f"{BIN}/{program}", *commands, "--help"], capture_output=True, text=True, check=True).stdout
        options = set(re.findall(r"(?m)^  --([\w-]+) \S", said))
        for command in re.findall(r"(?m)^  ([a-z][a-z-]*)  ", said.partition("Subcommands:")[2]):
            options |= self.valued(program, *commands, command)
        return options

    def test_the_options_known_to_take_a_value_are_those_of_the_help(self):
        for file, program, case in (
                ("keldwickctl.bash", "keldwickctl", "case $previous in"), ("keldwickctl.bash", "keldwickctl", "case ${COMP_WORDS[i]} in"),
                ("keldwickctl.bash", "keldwick-server", "case ${COMP_WORDS[COMP_CWORD - 1]} in"),
                ("_keldwick", "keldwickctl", "case $previous in"), ("_keldwick", "keldwickctl", "case $words[i] in"),
                ("_keldwick", "keldwick-server", "case $words[CURRENT-1] in")):
            with self.subTest(file=file, case=case), open(f"{PACKAGING}/{file}", encoding="utf-8") as script:
                patterns = re.findall(r"(?m)^\s+(--[^)]*)\)", script.read().rpartition(case)[2].partition("esac")[0])
                self.assertEqual(self.valued(program), set(re.findall(r"[a-z][a-z-]*", " ".join(patterns))))

    cases = (("keldwickctl", ["ev"], "events"), ("keldwickctl", ["events", "im"], "import"),
             ("keldwickctl", ["--root", "/tmp", "settings", "se"], "set"), ("keldwickctl", ["settings", "set", "Heart"], "Heartbeat"),
             ("keldwickctl", ["events", "list", "--log", "S"], "Security"), ("keldwickctl", ["init", "--protocol", "tcps"], "tcps"),
             ("keldwickctl", ["directory", "l"], "lookup"), ("keldwickctl", ["settings", "set", "IdentProtocol", "a"], "auto"),
             ("keldwickctl", ["init", "--server", ""], ""), ("keldwickctl", ["feed", "sam"], "samba-audit"),
             ("keldwickctl", ["feed", "xml", "--on"], "--once"), ("keldwickctl", ["check", "--ex"], "--exchange"),
             ("keldwick", ["-REPORT_I"], "-REPORT_IDENTITY"), ("keldwick", ["-A", "-AD_"], "-AD_SERVER"),
             ("keldwick", ["-PROTOCOL", "TCPS"], "TCPS"), ("keldwick", ["-SERVER", ""], ""),
             ("keldwick-server", ["--tls"], "--tls-port"), ("keldwick-server", ["--host", ""], ""))

    shells = {"bash": f'. {PACKAGING}/keldwickctl.bash; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
                      '$(complete -p "$1" | sed "s/.*-F \\([^ ]*\\).*/\\1/"); echo "${COMPREPLY[*]}"',
              "zsh": 'compadd() { [[ $1 == -- ]] && shift; print -l -- ${(M)@:#$words[CURRENT]*} }; _files() { }; '
                     f'words=("$@"); CURRENT=$#; . {PACKAGING}/_keldwick'}

    def test_the_shells_know_what_may_follow(self):
        for shell in filter(shutil.which, self.shells):
            for program, words, wanted in self.cases:
                with self.subTest(shell=shell, program=program, words=words):
                    said = subprocess.run([shell, "-c", self.shells[shell], shell, program, *words], capture_output=True, text=True,
                                          env={**os.environ, "PATH": f"{BIN}:{os.environ['PATH']}"})
                    self.assertEqual(wanted, said.stdout.strip(), said.stderr)
