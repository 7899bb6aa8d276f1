"""The programs' outside: exit codes, single clear lines, the registry values a run leaves; one identity sent by hand, from
the options -REPORT_... to the bytes at the server and the log; the commands of README, typed as they stand."""
import json
import os
import pwd
import re
import shutil
import signal
import socket
import subprocess

from machine import BIN, PATIENCE, SOURCE, MachineTest, text_of
from wire import answer


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
                ("keldwickctl", ["feed", "nothing"], 2, "there is no command"), ("keldwickctl", ["feed"], 2, "missing"),
                ("keldwickctl", ["feed", "json", "--name", "../x"], 2, "must be letters"),
                ("keldwickctl", ["feed", "samba-audit"], 2, "FILE"),
                ("keldwickctl", ["feed", "samba-audit", "/nowhere/file", "--once"], 1, "there is no such file"),
                ("keldwickctl", ["feed", "samba-audit", self.root, "--once"], 1, "not a regular file"),
                ("keldwickctl", ["feed", "xml", "--log", "Nope"], 1, "there is no Nope log"),
                *((program, ["--version"], 0, "1.2.5") for program in ("keldwick", "keldwickctl", "keldwick-server"))):
            with self.subTest(program=program, arguments=arguments):
                done = self.run_program(program, *arguments, input="")
                self.assertEqual(code, done.returncode, done)
                self.assertIn(said, done.stdout + done.stderr)
        causes = (f"{self.root} has no settings key", "line 1: ")
        for first, told in (("Windows Registry Editor Version 5.00", [True, False]), ("nonsense", [False, True])):
            with open(f"{self.root}/registry.reg", "w", encoding="utf-8") as file:
                file.write(first + "\r\n")
            done = self.run_program("keldwick", "-X")
            self.assertEqual((3, told), (done.returncode, [cause in done.stderr for cause in causes]), done)

    def test_each_option_sends_its_reports_of_one_identity_in_order(self):
        computer = socket.gethostname().split(".")[0][:15].upper()
        mine = f"{computer}\\{pwd.getpwuid(os.geteuid()).pw_name}"
        given = ("-USER_NAME", "corp.example\\ann", "-COMPUTER_NAME", "CORP\\WS01")
        both = ("-report_logoff", "/REPORT_HEARTBEAT")
        refused = []

        def reply(connection, _request, fields):
            connection.sendall(answer(fields["id"] + 100 * (fields["kind"] in refused)))

        server = self.serve(reply=reply)
        self.ctl("init")
        for options, wrong, kinds, user, workstation in (
                (("-REPORT_IDENTITY", *given), "", ["logon"], "corp.example\\ann", "CORP\\WS01"),
                (("-REPORT_HEARTBEAT", *given), "", ["logon", "heartbeat"], "corp.example\\ann", "CORP\\WS01"),
                (("-REPORT_LOGOFF", *given), "", ["logon", "logoff"], "corp.example\\ann", "CORP\\WS01"),
                (both, "", ["logon", "heartbeat", "logoff"], mine, computer),
                ((*both, "-USER_NAME", "CORP\\bob"), "heartbeat", ["logon", "heartbeat", "logoff"], "CORP\\bob", computer),
                ((*both, "-COMPUTER_NAME", "WS7"), "logoff", ["logon", "heartbeat", "logoff"], mine, "WS7"),
                (both, "identity", ["logon"], mine, computer)):
            with self.subTest(options=options, refused=wrong):
                refused[:] = [wrong.replace("identity", "logon")]
                agent = self.start("-SERVER", self.address, "-PROTOCOL", "TCP", *options, wait=False)
                self.assertEqual(0, agent.wait(PATIENCE), "it is always a good end")
                got = [server.next() for _ in range(server.requests.qsize())]
                self.assertEqual(list(zip(range(2, 9), kinds)), [(request["id"], request["kind"]) for request in got])
                local = re.search(r"HostIpV4 = (\S+),\n +HostIpV6 = (\S+)", self.log()).groups()
                address = next((text for text in local if text != "None"), None)
                if not address:
                    self.skipTest("this machine has no address but loopback")
                self.assertFalse(address.startswith("127.") or address == "::1", address)
                for request in got:
                    self.assertEqual((address, 0xFFE, (user.replace(".example", ""), "", ""), (workstation, "", ""), []),
                                     tuple(request[field] for field in ("address", "mask", "user", "computer", "groups")))
                action = f"Unable to report {wrong}" if wrong else "Identity reported"
                self.assertIn(f"{action}: \n    IP address = \"{address}\",\n    User name = \"{user}\",\n"
                              f"    Computer name = \"{workstation}\"", self.log(), "names as they were given")
                self.assertEqual(bool(wrong), self.log().count("Unable to report "))

    def test_the_commands_of_readme_typed_by_hand_end_with_reports_on_the_screen(self):
        block = re.search(r"^Or by hand.*\n\n((?:    .*\n|\n)+)", text_of(f"{SOURCE}/README.md"), re.M)[1]
        commands = [line.strip() for line in block.splitlines() if line.strip()]
        build = [line for line in commands if line.startswith(("packaging/", "cmake "))]
        self.assertEqual(2, len(build), commands)
        typed = "unset KELDWICK_ROOT\n" + "\n".join(line for line in commands if line not in build)
        for text, own in (('PATH="$PWD/build/release/bin:$PATH"', f'PATH="{BIN}:$PATH"'),
                          ("KELDWICK_ROOT=/srv/keldwick", f"KELDWICK_ROOT={self.root}/root")):
            self.assertEqual(1, typed.count(text), typed)
            typed = typed.replace(text, own)
        shell = self.begin("bash", "-c", typed, cwd=SOURCE, start_new_session=True, stdin=subprocess.DEVNULL,
                           stderr=subprocess.STDOUT)
        self.addCleanup(lambda: shell.poll() is None and os.killpg(shell.pid, signal.SIGKILL))
        screen, _ = shell.communicate(timeout=180)  # its end is that of the agent and of the server, too
        reports = [json.loads(line) for line in screen.splitlines() if line.startswith('{"kind"')]
        self.assertEqual(0, shell.returncode, screen)
        self.assertLessEqual({"anna", "bernd", "carla", "dmitri", "elena"},
                             {report["user"].split("\\")[1] for report in reports if report["kind"] == "logon"}, screen)
        self.assertRegex(screen, r"(?m)^10\.20\.0\.11 .*OFFICE\\carla")
        self.assertRegex(screen, r"(?m)^4 identities, as of ")
