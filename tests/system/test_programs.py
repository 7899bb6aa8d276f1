"""The programs' outside: exit codes, single clear lines, the registry values a run leaves."""
import os
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

    def test_without_a_settings_key_the_agent_ends_with_3(self):
        os.makedirs(f"{self.root}/eventlog")
        self.assertEqual(3, self.run_program("keldwick", "-X")[0])

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
