"""The programs' outside: exit codes, single clear lines, the registry values a run leaves."""
import os
import shutil
import socket
import subprocess
import unittest

from machine import BIN, MachineTest


class Programs(MachineTest):
    address = "127.43.0.1"

    def test_without_a_machine_root_one_line_names_it_and_nothing_is_made(self):
        for root in (f"{self.root}/mistyped", self.root):
            self.root = root
            done = self.run_program("keldwick", "-X")
            self.assertEqual((3, 1), (done.returncode, done.stderr.count("\n")), done.stderr)
            for part in (f"{root} has no registry.reg", f"keldwickctl --root {root} init"):
                self.assertIn(part, done.stderr)
            self.assertEqual(2, self.run_program("keldwick", "-BOGUS").returncode)
            self.assertRegex(self.ctl("check", code=1), f"failed +machine root .*{root}")
        self.assertFalse(os.path.exists(self.home) and os.listdir(self.home))

    def test_all_programs_take_the_same_root(self):
        programs = f"{self.root}/programs"
        os.mkdir(programs)
        for name in ("keldwick", "keldwickctl"):
            shutil.copy(f"{BIN}/{name}", programs)
        environment = {each: value for each, value in os.environ.items() if each != "KELDWICK_ROOT"}

        def run(folder, name, *arguments):
            os.makedirs(folder, exist_ok=True)
            return subprocess.run([f"{programs}/{name}", *arguments], cwd=folder, env=environment, capture_output=True, text=True,
                                  timeout=60)
        here, elsewhere = f"{self.root}/here", f"{self.root}/elsewhere"
        self.assertIn(f"{here} is ready", run(here, "keldwickctl", "init", "--server", "here").stdout)
        self.assertIn(f"the machine root {elsewhere} has", run(elsewhere, "keldwick", "-X").stderr)
        run(programs, "keldwickctl", "init", "--server", "programs")
        for folder, server in ((here, "here"), (programs, "programs"), (elsewhere, "programs")):
            with self.subTest(folder=folder):
                self.assertEqual(f"{server}\n", run(folder, "keldwickctl", "settings", "get", "IdentServer").stdout)
                self.assertEqual(0, run(folder, "keldwick", "-X", "-AD_SERVER", server).returncode)
                self.assertEqual(f"{server}\n", run(folder, "keldwickctl", "settings", "get", "AdServer").stdout)

    def test_what_is_wrong_is_said_and_has_its_exit_code(self):
        taken = socket.create_server((self.address, 1306))
        self.addCleanup(taken.close)
        self.ctl("init")
        for program, arguments, code, said in (
                ("keldwick", ["-debugger"], 2, "Vantorel Keldwick Warning"),
                ("keldwick", ["-SERVER", ""], 2, 'Invalid command line argument:  ""'),
                ("keldwick", ["-PROTOCOL", "UDP"], 2, 'Invalid command line argument:  "UDP"'),
                ("keldwick", ["-X"], 1010 & 0xFF, ""),  # no identity server; Linux keeps a code's low byte
                ("keldwickctl", ["events", "import", f"{self.root}/missing.evtx"], 1, "missing.evtx"),
                ("keldwick-server", ["--host", self.address, "--tls-port", "0"], 1, "1306"),
                ("keldwick-server", ["--tcp-port", "x"], 2, "--tcp-port"), ("keldwick-server", ["--cert", "/missing"], 1, "/missing"),
                ("keldwick-server", ["--http", "0"], 2, "--http"), ("keldwick-server", ["--http", "localhost:8306"], 2, "--http"),
                ("keldwick-server", ["--http", "::1:8306"], 2, "--http"),
                ("keldwick-server", ["--http-name", "who.example"], 2, "--http"),
                *((program, ["--version"], 0, "1.2.5") for program in ("keldwick", "keldwickctl", "keldwick-server"))):
            with self.subTest(program=program, arguments=arguments):
                done = self.run_program(program, *arguments)
                self.assertEqual(code, done.returncode, done)
                self.assertIn(said, done.stdout + done.stderr)
        for first, cause, missing in (("Windows Registry Editor Version 5.00", f"{self.root} has no settings key", True),
                                      ("nonsense", "line 1: ", False)):
            with open(f"{self.root}/registry.reg", "w", encoding="utf-8") as file:
                file.write(first + "\r\n")
            done = self.run_program("keldwick", "-X")
            self.assertEqual(3, done.returncode)
            self.assertIn(cause, done.stderr)
            self.assertEqual(missing, "has no settings key" in done.stderr, done.stderr)


if __name__ == "__main__":
    unittest.main()
