"""What README tells to type, typed as it stands."""
import json
import os
import re
import signal
import subprocess
import tempfile
import unittest

from machine import BIN

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


class Readme(unittest.TestCase):
    def by_hand(self, root):
        """The commands of the block, without those that build; its folders are this test's."""
        with open(f"{SOURCE}/README.md", encoding="utf-8") as file:
            block = re.search(r"^Or by hand.*\n\n((?:    .*\n|\n)+)", file.read(), re.M)[1]
        commands = [line.strip() for line in block.splitlines() if line.strip()]
        build = [line for line in commands if line.startswith(("packaging/", "cmake "))]
        self.assertEqual(2, len(build), commands)
        typed = "\n".join(line for line in commands if line not in build) + "\n"
        for text, own in (('PATH="$PWD/build/release/bin:$PATH"', f'PATH="{BIN}:$PATH"'),
                          ("KELDWICK_ROOT=/srv/keldwick", f"KELDWICK_ROOT={root}")):
            self.assertEqual(1, typed.count(text), typed)
            typed = typed.replace(text, own)
        return typed

    def test_the_commands_by_hand_end_with_reports_on_the_screen(self):
        with tempfile.TemporaryDirectory(prefix="keldwick-readme-") as folder:
            shell = subprocess.Popen(["bash", "-c", self.by_hand(f"{folder}/root")], cwd=SOURCE, text=True, start_new_session=True,
                                     stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            try:
                screen, _ = shell.communicate(timeout=180)  # its end is that of the agent and of the server, too
            finally:
                if shell.poll() is None:
                    os.killpg(shell.pid, signal.SIGKILL)
                    shell.communicate()
        reports = [json.loads(line) for line in screen.splitlines() if line.startswith('{"kind"')]
        self.assertEqual(0, shell.returncode, screen)
        self.assertLessEqual({"anna", "bernd", "carla", "dmitri", "elena"},
                             {report["user"].split("\\")[1] for report in reports if report["kind"] == "logon"}, screen)
        self.assertRegex(screen, r"(?m)^10\.20\.0\.11 .*OFFICE\\carla")
        self.assertRegex(screen, r"(?m)^4 identities, as of ")


if __name__ == "__main__":
    unittest.main()
