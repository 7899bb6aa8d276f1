"""Settings changed with an editor or a shell while the agent runs, and an agent that inotify tells nothing."""
import json
import os
import re
import subprocess
import unittest

from machine import MachineTest, PATIENCE
from wire import Server

HEADING = "Windows Registry Editor Version 5.00\n"


class SettingsByHand(MachineTest):
    address = "127.51.0.1"

    def setUp(self):
        super().setUp()
        self.file = f"{self.root}/registry.reg"
        self.server = Server(self.address)
        self.addCleanup(self.server.close)
        self.prepare()

    def read(self):
        with open(self.file, encoding="utf-8") as file:
            return file.read()

    def with_value(self, name, number):
        """The file's text with a value of the settings key."""
        text = re.sub(rf'"{name}"=.*\n', "", self.read())
        return text.replace("Systems\\Keldwick]\n", f'Systems\\Keldwick]\n"{name}"=dword:{number:08x}\n', 1)

    def keys(self):
        return set(re.findall(r"(?m)^\[.*\]$", self.read()))

    def in_two_pieces(self, text, between):
        """In place, by one writer: at first there is no key at all."""
        with open(self.file, "w", encoding="utf-8") as file:
            file.write(HEADING)
            file.flush()
            between()
            self.assertEqual(HEADING, self.read())
            file.write(text.removeprefix(HEADING))

    def refused(self):
        self.assertIn("another program holds it open", self.ctl("settings", "set", "LogonTTL", "7", code=1))

    def by_a_shell(self, text):
        subprocess.run(["sh", "-c", 'printf %s "$1" > "$0"; printf %s "$2" >> "$0"', self.file, HEADING,
                        text.removeprefix(HEADING)], check=True)

    def by_sed(self, _):
        subprocess.run(["sed", "-i", 's/"Heartbeat"=.*/"Heartbeat"=dword:0000002a/', self.file], check=True)

    def with_a_backup(self, text):
        os.rename(self.file, self.file + "~")
        with open(self.file, "x", encoding="utf-8") as file:
            file.write(text)

    def test_every_edit_is_taken_whole_and_the_next_one_is_noticed(self):
        agent = self.start("-L", "-V")
        keys = self.keys()
        ways = (lambda text: self.in_two_pieces(text, self.refused), self.by_a_shell, self.by_sed, self.with_a_backup)
        for minutes, edit in zip((40, 41, 42, 43), ways):
            edit(self.with_value("Heartbeat", minutes))
            self.until_logged(f"Heartbeat interval = {minutes} (minutes)")
        self.in_two_pieces(self.with_value("Shutdown", 1), lambda: None)
        self.assertEqual(0, agent.wait(PATIENCE))
        self.assertNotIn("Unable to load registry value", self.log())
        self.assertEqual(keys, self.keys())
        self.assertIn('"Shutdown"=dword:00000002\n', self.read())

    def test_without_inotify_it_looks_by_itself_says_so_once_and_status_shows_it(self):
        limit = 'echo 0 > /proc/sys/user/max_inotify_instances && exec "$0" "$@"'
        through = ("unshare", "--user", "--map-root-user", "sh", "-c", limit)
        if subprocess.run([*through, "true"], capture_output=True, check=False).returncode != 0:
            self.skipTest("user namespaces are not allowed")
        agent = self.start("-L", "-V", through=through)
        status = json.loads(self.ctl("status", "--json"))
        self.assertEqual((agent.pid, True), (status["pid"], status["polls"]))
        self.ctl("settings", "set", "Heartbeat", "44")
        self.until_logged("Heartbeat interval = 44 (minutes)")
        self.logon("ann", "10.9.8.7", "WS1")
        self.assertEqual("CORP\\ann", self.server.next()["user"][0])
        self.ctl("settings", "set", "Shutdown", "1")
        said = agent.communicate(timeout=PATIENCE)[1]
        self.assertEqual((0, 1), (agent.returncode, said.count("do not come by inotify: Too many open files")), said)


if __name__ == "__main__":
    unittest.main()
