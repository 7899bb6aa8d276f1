"""The installed package under a real systemd: a copy of this machine (an overlay) is booted in a container of its own without
network, and its service, feeds and sockets are used as an administrator uses them. Needs root and systemd-nspawn."""
import json
import os
import shutil
import subprocess
import tempfile
import time
import unittest

from machine import PATIENCE
from test_feeds import authentication, shipped, xml
from test_package import build_package

INIT = "/lib/systemd/systemd"
OVERLAY = """mount -t tmpfs tmpfs "$1" && mkdir "$1/upper" "$1/work" "$1/copy" &&
mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" "$1/copy" &&
cp "$2" "$1/copy/keldwick.deb" && mount -t proc proc "$1/copy/proc" && chroot "$1/copy" dpkg --install /keldwick.deb &&
umount "$1/copy/proc" && rm -f "$1/copy/etc/machine-id" &&
ln -sf /dev/null "$1/copy/etc/systemd/system/network-online.target" &&
exec systemd-nspawn --quiet --directory="$1/copy" --register=no --keep-unit --private-network --capability=all \\
    --console=pipe --kill-signal=SIGRTMIN+3 --setenv=SYSTEMD_LOG_TARGET=console --bind="$3:/kept" """ + INIT + """ --unit=basic.target"""
# A leak check at a process's end traces the process and hangs for ever when a SIGCONT comes between, and systemd sends one
# after each SIGTERM; nor do the units allow tracing.
NO_LEAK_CHECK = "ASAN_OPTIONS=detect_leaks=0"
# The machine is gone with its files when it has been shut down: the log is kept outside.
KEEP_LOG = "[Service]\nExecStopPost=+/bin/cp /var/lib/keldwick/Keldwick.log /kept\n"


@unittest.skipUnless(os.geteuid() == 0 and shutil.which("systemd-nspawn") and os.path.exists(INIT),
                     "needs root, systemd and systemd-nspawn")
class BootedMachine(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="keldwick-systemd-")
        cls.addClassCleanup(shutil.rmtree, cls.folder, ignore_errors=True)
        package = build_package(cls.folder)
        mounts = f"{cls.folder}/mounts"
        os.mkdir(mounts)
        os.mkdir(f"{cls.folder}/kept")
        cls.output = open(f"{cls.folder}/output", "w+", encoding="utf-8", errors="replace")
        cls.addClassCleanup(cls.output.close)
        cls.container = subprocess.Popen(["unshare", "--mount", "--propagation", "private", "sh", "-c", OVERLAY, "sh", mounts,
                                          package, f"{cls.folder}/kept"], stdin=subprocess.DEVNULL, stdout=cls.output, stderr=cls.output)
        cls.addClassCleanup(cls.end_container)
        cls.until(lambda: cls.init() and cls.run_inside("systemctl", "is-active", "basic.target").returncode == 0,
                  "the machine has booted")
        cls.inside("systemctl", "set-environment", NO_LEAK_CHECK)
        cls.inside("sh", "-c", 'mkdir -p "$1" && cat >"$1/test.conf"', "sh", "/etc/systemd/system/keldwick.service.d", text=KEEP_LOG)
        cls.inside("systemctl", "daemon-reload")

    @classmethod
    def end_container(cls):
        cls.container.terminate()  # systemd-nspawn hands it on as a wish to halt
        try:
            cls.container.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            cls.container.kill()
            cls.container.wait()

    @classmethod
    def init(cls):
        """The process that is process 1 inside, or None."""
        try:
            with open(f"/proc/{cls.container.pid}/task/{cls.container.pid}/children", encoding="utf-8") as file:
                return next((child for child in file.read().split() if os.readlink(f"/proc/{child}/exe").endswith("/systemd")), None)
        except FileNotFoundError:  # a child that ended meanwhile
            return None

    @classmethod
    def run_inside(cls, *command, text=None):
        return subprocess.run(["nsenter", "--target", cls.init(), "--all", "--", "env", "-i",
                               "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "KELDWICK_ROOT=/var/lib/keldwick", "LC_ALL=C.UTF-8",
                               *command], input=text, capture_output=True, text=True, timeout=PATIENCE)

    @classmethod
    def inside(cls, *command, text=None):
        done = cls.run_inside(*command, text=text)
        if done.returncode:
            raise AssertionError(f"{command}: {done.stdout}{done.stderr}")
        return done.stdout.strip()

    @classmethod
    def until(cls, condition, what):
        end = time.monotonic() + 2 * PATIENCE
        while not condition():
            if time.monotonic() > end or (cls.container.poll() is not None and not condition()):
                cls.output.seek(0)
                raise AssertionError(f"never came: {what}\n{cls.output.read()[-3000:]}")
            time.sleep(0.1)

    def show(self, unit, *properties):
        shown = self.inside("systemctl", "show", *(f"--property={each}" for each in properties), unit)
        values = dict(line.split("=", 1) for line in shown.split("\n"))
        return [values[each] for each in properties]

    def identities(self):
        return {entry["address"]: entry["user"] for entry in
                map(json.loads, self.inside("keldwickctl", "identities", "--json").splitlines())}

    def settings(self, **values):
        for name, value in values.items():
            self.inside("keldwickctl", "settings", "set", name, value)

    def test_service_feeds_and_sockets_work_as_installed(self):
        with self.subTest("without a server to report to it says that it failed, and with what"):
            self.inside("sh", "-c", "! systemctl start keldwick")
            self.assertIn("service-specific exit code 2", self.show("keldwick", "StatusText")[0])
            self.inside("systemctl", "stop", "keldwick")

        self.inside("systemd-run", "--quiet", "--unit=identity-server", "keldwick-server")
        self.settings(IdentServer="127.0.0.1", IdentProtocol="tcps")
        self.inside("systemctl", "start", "keldwick")
        self.assertEqual(["active", "Running"], self.show("keldwick", "ActiveState", "StatusText"))
        self.until(lambda: self.run_inside("keldwickctl", "identities").returncode == 0, "the agent follows the log")
        said = [json.loads(line) for line in self.inside("journalctl", "-t", "Keldwick", "-o", "json").splitlines()]
        self.assertEqual(("1073741826", "6", "information"), tuple(said[-1][key] for key in ("EVENT_ID", "PRIORITY", "EVENT_TYPE")))
        self.assertEqual([("Keldwick", str)] * len(said), [(each["EVENT_SOURCE"], type(each["MESSAGE"])) for each in said])

        with self.subTest("a feed that follows a file which group adm may read"):
            self.inside("sh", "-c", "install -d -m 750 -g adm /var/log/audit-of-test && cat >/var/log/audit-of-test/auth.jsonl && "
                        "chmod 640 /var/log/audit-of-test/auth.jsonl && chgrp adm /var/log/audit-of-test/auth.jsonl && "
                        "echo FEED=\\\"samba-audit /var/log/audit-of-test/auth.jsonl\\\" >/etc/keldwick/feed-dc.conf && "
                        "systemctl start keldwick-feed@dc", text=authentication("ann", "10.0.0.1"))
            self.until(lambda: "10.0.0.1" in self.identities(), "the audit log's logon")
        with self.subTest("sockets that take streams"):
            self.inside("systemctl", "start", "keldwick-feed-xml.socket", "keldwick-feed-json.socket")
            send = "import socket, sys; s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); s.sendall(sys.stdin.buffer.read())"
            for source, event in (("xml", xml("bob", "10.0.0.2")), ("json", shipped("zoë", "10.0.0.3")),
                                  ("json", shipped("cleo", "10.0.0.4"))):
                self.inside("python3", "-c", send, f"/run/keldwick/{source}", text=event)
            self.until(lambda: len(self.identities()) == 4, "the logons of both streams")
        self.assertEqual({"10.0.0.1": "CORP\\ann", "10.0.0.2": "CORP\\bob", "10.0.0.3": "CORP\\zoë",
                          "10.0.0.4": "CORP\\cleo"}, self.identities())
        def feed():
            return next(feed for feed in json.loads(self.inside("keldwickctl", "status", "--json"))["feeds"] if feed["name"] == "dc")

        self.until(lambda: feed()["behind_bytes"] == 0, "the feed has marked its place")
        self.assertEqual((True, 1), (feed()["running"], feed()["records"]))

        with self.subTest("stopped by its setting, and started again"):
            self.settings(Shutdown="1")
            self.until(lambda: self.show("keldwick", "ActiveState") == ["inactive"], "the agent stops")
            self.assertEqual(["success", "Stopped"], self.show("keldwick", "Result", "StatusText"))
            self.inside("systemctl", "start", "keldwick")

        with self.subTest("an agent that hangs is ended and started again"):
            self.inside("sh", "-c", "printf '[Service]\\nWatchdogSec=2s\\nTimeoutAbortSec=1s\\nRestartSec=100ms\\n' "
                        ">/etc/systemd/system/keldwick.service.d/watchdog.conf && systemctl daemon-reload && "
                        "systemctl restart keldwick && kill -STOP $(systemctl show --value -p MainPID keldwick)")
            self.until(lambda: self.show("keldwick", "NRestarts", "ActiveState") == ["1", "active"], "it is started again")
        self.inside("systemctl", "stop", "keldwick")
        self.assertEqual(["inactive", "Stopped"], self.show("keldwick", "ActiveState", "StatusText"))

        with self.subTest("figures for monitoring, and old logs"):
            folder, log = "/var/lib/prometheus/node-exporter", "/var/lib/keldwick/Keldwick_2020-01-02.log"
            self.inside("sh", "-c", f"mkdir -p {folder} && echo old | tee {log} >{log}.gz && chown keldwick {log} && touch -d '9 days ago' {log} && "
                        "systemctl start keldwick-figures keldwick-logs")
            self.assertEqual("644", self.inside("stat", "-c", "%a", f"{folder}/keldwick.prom"))
            self.assertIn("\nkeldwick_up 0\n", self.inside("cat", f"{folder}/keldwick.prom"))
            self.assertIn('\nkeldwick_feed_up{feed="dc"} 1\n', self.inside("cat", f"{folder}/keldwick.prom"))
            self.inside("test", "-s", f"{log}.gz", "-a", "!", "-e", log)

        with self.subTest("the machine is shut down"):
            self.inside("systemctl", "start", "dbus", "keldwick")
            asked = self.run_inside("systemctl", "poweroff")
            self.assertEqual(0, asked.returncode, asked.stderr)
            self.until(lambda: self.container.poll() is not None, "the machine is off")
            with open(f"{self.folder}/kept/Keldwick.log", encoding="utf-8") as file:
                self.assertIn("Stopping Service: Reason = SERVICE_CONTROL_SHUTDOWN", file.read())
