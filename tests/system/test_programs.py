"""The programs' outside: exit codes, single clear lines, the registry values a run leaves."""
import os
import shutil
import socket
import subprocess
import unittest

from machine import BIN, MachineTest


class Programs(MachineTest):
    address = "127.43.0.1"

    def run_program(self, name, *arguments):
        done = subprocess.run([f"{BIN}/{name}", *arguments], env={**os.environ, "KELDWICK_ROOT": self.root},
                              capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout, done.stderr

    def test_a_bad_argument_is_shown_and_ends_with_2(self):
        self.ctl("init", "--server", self.address)
        for arguments, shown in ((["-debugger"], "-debugger"), (["-SERVER"], "-SERVER"), (["-SERVER", ""], ""),
                                 (["-PROTOCOL", "UDP"], "UDP"), (["x"], "x")):
            with self.subTest(arguments=arguments):
                code, _, error = self.run_program("keldwick", *arguments)
                self.assertEqual(2, code)
                self.assertIn("Vantorel Keldwick Warning", error)
                self.assertIn(f"Invalid command line argument:  \"{shown}\"", error)

    def test_without_a_machine_root_one_line_names_it_and_nothing_is_made(self):
        for root in (f"{self.root}/mistyped", self.root):
            self.root = root
            code, _, error = self.run_program("keldwick", "-X")
            self.assertEqual((3, 1), (code, error.count("\n")), error)
            for part in (f"{root} has no registry.reg", f"keldwickctl --root {root} init"):
                self.assertIn(part, error)
            self.assertEqual(2, self.run_program("keldwick", "-BOGUS")[0])
        self.assertFalse(os.path.exists(self.home) and os.listdir(self.home))

    def test_without_a_settings_key_the_agent_ends_with_3(self):
        self.ctl("init")
        for first, cause, missing in (("Windows Registry Editor Version 5.00", f"{self.root} has no settings key", True),
                                      ("nonsense", "line 1: ", False)):
            with open(f"{self.root}/registry.reg", "w", encoding="utf-8") as file:
                file.write(first + "\r\n")
            code, _, error = self.run_program("keldwick", "-X")
            self.assertEqual(3, code)
            self.assertIn(cause, error)
            self.assertEqual(missing, "has no settings key" in error, error)

    def test_all_programs_take_the_same_root(self):
        programs = f"{self.root}/programs"
        os.mkdir(programs)
        for name in ("keldwick", "keldwickctl"):
            os.link(os.path.realpath(f"{BIN}/{name}"), f"{programs}/{name}") if os.stat(BIN).st_dev == os.stat(self.root).st_dev else \
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

    def test_without_an_identity_server_initialisation_fails_with_1010(self):
        self.ctl("init")
        self.assertEqual(1010, self.exit_status("-X"))

    def exit_status(self, *arguments):
        """Exit codes above 255 do not fit a Linux exit status, which keeps their low byte."""
        code = self.run_program("keldwick", *arguments)[0]
        return {1010 & 0xFF: 1010, 1006 & 0xFF: 1006}.get(code, code)

    def test_a_configure_only_run_writes_its_options_into_the_registry(self):
        self.ctl("init", "--server", "old")
        self.ctl("settings", "set", "Shutdown", "2")
        self.assertEqual(0, self.exit_status("-X", "-SERVER", "new.example", "-PROTOCOL", "tcps", "-AD_SERVER", "dc9", "-D"))
        values = self.ctl("settings", "list")
        for name, value in (("IdentServer", "new.example"), ("AdServer", "dc9"), ("IdentProtocol", "1"), ("Shutdown", "0"),
                            ("DebugOutput", "1")):
            self.assertRegex(values, rf"(?m)^{name}\b.*{value}")
        self.assertIn("Stopping Service: Reason = stopping worker thread", self.log())

    def test_the_tools_say_in_one_line_what_is_wrong(self):
        with socket.create_server((self.address, 1306)):
            code, _, error = self.run_program("keldwick-server", "--host", self.address, "--tls-port", "0")
        self.assertEqual((1, 1), (code, len(error.strip().splitlines())), error)
        self.assertIn("1306", error)
        for program, arguments, wanted in (
                ("keldwickctl", ["nonsense"], 2), ("keldwickctl", ["settings", "get", "IdentServer"], 1),
                ("keldwickctl", ["events", "import", f"{self.root}/missing.evtx"], 1),
                ("keldwick-server", ["--tcp-port", "x"], 2), ("keldwick-server", ["--cert", "/missing"], 1),
                ("keldwick-server", ["--http", "0"], 2), ("keldwick-server", ["--http", "localhost:8306"], 2),
                ("keldwick-server", ["--http", "::1:8306"], 2), ("keldwick-server", ["--http-name", "who.example"], 2)):
            with self.subTest(program=program, arguments=arguments):
                code, _, error = self.run_program(program, *arguments)
                self.assertEqual(wanted, code, error)
                self.assertTrue(error.strip())
        for program in ("keldwick", "keldwickctl", "keldwick-server"):
            self.assertEqual(0, self.run_program(program, "--help")[0])
            code, output, _ = self.run_program(program, "--version")
            self.assertEqual(0, code)
            self.assertIn("1.2.5", output)


if __name__ == "__main__":
    unittest.main()
