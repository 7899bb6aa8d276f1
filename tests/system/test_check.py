"""keldwickctl check and status: what an administrator is told when something is wrong."""
import json
import os
import re
import shutil
import socket
import subprocess
import unittest

from machine import BIN, MachineTest

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../packaging/examples")


class Check(MachineTest):
    address = "127.44.0.1"

    def found(self, *options):
        """The exit code, and of each thing checked the worst result with what was found."""
        done = subprocess.run([f"{BIN}/keldwickctl", "--root", self.root, "check", "--json", *options], capture_output=True,
                              text=True, timeout=60)
        checks = json.loads(done.stdout)["checks"]
        order = ["ok", "warning", "failed"]
        worst = {each["check"]: each for each in sorted(checks, key=lambda each: order.index(each["result"]))}
        return done.returncode, {what: (each["result"], each["found"]) for what, each in worst.items()}

    def tell(self, found, what, result, text):
        self.assertEqual(result, found[what][0], found)
        self.assertIn(text, found[what][1])

    def status(self, *options, code=0):
        done = subprocess.run([f"{BIN}/keldwickctl", "--root", self.root, "status", *options], capture_output=True, text=True,
                              timeout=60)
        self.assertEqual(code, done.returncode, done)
        return done.stdout

    def serve(self, *options):
        server = subprocess.Popen([f"{BIN}/keldwick-server", "--host", self.address, *options], stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True)
        self.agents.append(server)
        for _ in range(1 if options else 2):  # it listens at a port, and says so
            self.assertIn("listening", server.stderr.readline())
        return server

    def test_nothing_is_made_where_there_is_no_machine_root(self):
        code, found = self.found()
        self.assertEqual(1, code)
        self.tell(found, "machine root", "failed", f"there is no {self.root}/registry.reg")
        self.assertEqual([], os.listdir(self.root))

    def test_a_server_that_answers_is_ok_and_its_loss_is_told(self):
        self.prepare("auto")
        server = self.serve()
        self.start("-L")
        code, found = self.found("--exchange", "--address", "127.0.0.1")
        self.assertIn(code, (0, 3), found)  # the clock of a container may be nobody's
        for what, text in (("machine root", self.root), ("agent", "connected over TLS"), ("event log", "1 record, the newest of"),
                           ("identity server", "TLS"), ("exchange", "was answered, status 0"), ("name server", "localhost"),
                           ("agent's log", "Keldwick.log")):
            self.tell(found, what, "ok", text)
        self.tell(found, "directory", "warning", "none is set")
        self.assertIn("over TLS (no groups)", self.status("--check"))
        self.assertIn("being written", self.status())

        server.terminate()
        server.wait()
        self.ctl("settings", "set", "IdentServer", "nowhere.invalid")
        self.until_logged("failed")
        shown = self.status("--check", code=3)
        self.assertRegex(shown, r'no connection: TLS: "nowhere.invalid": The host was not found')
        code, found = self.found()
        self.assertEqual(1, code)
        self.tell(found, "server's name", "failed", "not found")
        self.tell(found, "agent", "failed", "nowhere.invalid")

        self.ctl("settings", "set", "DebugOutput", "debugger")
        self.until(lambda: "ended by DebugOutput" in self.status(), "the log is ended")
        self.tell(self.found()[1], "agent's log", "warning", "ended")

    @unittest.skipUnless(shutil.which("promtool"), "promtool is not installed")
    def test_the_alert_rules_and_the_dashboard_ask_for_figures_that_there_are(self):
        rules = f"{EXAMPLES}/keldwick-alerts.yml"
        done = subprocess.run(["promtool", "check", "rules", rules], capture_output=True, text=True, timeout=60)
        self.assertEqual(0, done.returncode, done)
        self.assertIn("SUCCESS", done.stdout)
        self.prepare("tcp")
        self.serve("--tls-port", "0")
        self.start()
        with open(f"{self.root}/audit.jsonl", "w", encoding="utf-8"):
            self.ctl("feed", "json", f"{self.root}/audit.jsonl", "--once", "--name", "f")
        figures = set()

        def complete():
            figures.update(re.findall(r"(?m)^keldwick_\w+", self.ctl("status", "--prometheus", "-")))
            return {"keldwick_identities", "keldwick_feed_up"} <= figures
        self.until(complete, "the agent and the feed have figures")
        for example in (rules, f"{EXAMPLES}/keldwick-dashboard.json"):
            with open(example, encoding="utf-8") as file:
                text = file.read()
            asked = set(re.findall(r"\bkeldwick_\w+", text))
            self.assertTrue(asked)
            self.assertEqual(set(), asked - figures, example)
        json.loads(text)

    def test_identities_are_chosen_and_watched(self):
        self.prepare("tcp")
        self.serve("--tls-port", "0")
        self.start()
        self.until(lambda: "as of" in subprocess.run([f"{BIN}/keldwickctl", "--root", self.root, "identities"],
                                                     capture_output=True, text=True).stdout, "the agent follows the log")
        watch = subprocess.Popen([f"{BIN}/keldwickctl", "--root", self.root, "identities", "--watch", "--user", "corp\\an"],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.agents.append(watch)
        for user, address in (("ann", "10.1.0.7"), ("bob", "10.1.0.8"), ("anna", "10.2.0.7")):
            self.logon(user, address, "WS1")
        self.until_logged("Logon reported", 3)
        self.assertEqual({"10.1.0.7", "10.2.0.7"}, {watch.stdout.readline().split()[1] for _ in range(2)})
        shown = self.ctl("identities", "--address", "10.1.0.0/16", "--user", "BOB")
        self.assertRegex(shown, r"(?m)\A10\.1\.0\.8 +\S+Z  until \S+Z  CORP\\bob .*\n1 identity, as of")
        self.ctl("identities", "--address", "10.1", code=2)

    def test_a_second_agent_waits_for_the_first(self):
        self.prepare("tcp")
        self.serve("--tls-port", "0")
        first = self.start("-L")
        second = self.start("-L", wait=False)
        self.until_logged("Uable to open the \"Security\" event log.")
        self.assertIn("Error code = 32.", self.log())
        self.assertIn(f"process {first.pid} follows", self.error_of(second))
        self.tell(self.found()[1], "agent", "warning", f"process {first.pid} and process {second.pid}")
        for others in (["-X"], ["-REPORT_IDENTITY"]):  # these read no log
            done = subprocess.run([f"{BIN}/keldwick", "-L", *others], env={**os.environ, "KELDWICK_ROOT": self.root},
                                  capture_output=True, text=True, timeout=60)
            self.assertEqual((0, -1), (done.returncode, done.stderr.find("Not followed")), done)
        self.assertEqual(1, self.log().count("Error code = 32."))

    def error_of(self, agent):
        for line in agent.stderr:
            if "Not followed" in line:
                return line
        return ""

    def test_what_is_wrong_with_a_server_is_said(self):
        self.prepare("auto")
        self.tell(self.found()[1], "identity server", "failed", "refused")
        with socket.create_server((self.address, 1308)) as plain:
            plain.settimeout(10)
            self.serve("--tls-port", "0")
            client = subprocess.Popen([f"{BIN}/keldwickctl", "--root", self.root, "check"], stdout=subprocess.PIPE, text=True)
            peer, _ = plain.accept()
            peer.recv(1)
            peer.sendall(b"220 this is no TLS\r\n")
            shown, _ = client.communicate(timeout=60)
            peer.close()
        self.assertRegex(shown, r"(?m)^warning +identity server +TLS, port 1308: .*; with auto the agent takes plain TCP")
        self.assertRegex(shown, r"(?m)^ok +identity server +plain TCP, port 1306: connected")

    def test_files_and_settings_that_cannot_work_are_named(self):
        self.prepare("tcp")
        self.ctl("settings", "set", "--type", "sz", "Heartbeat", "10")
        self.ctl("settings", "set", "--type", "dword", "Hartbeat", "10")
        self.ctl("settings", "set", "IdentServer", "id.example:1306")
        os.rename(f"{self.root}/eventlog/Security.evt", f"{self.root}/there.evt")
        os.symlink(f"{self.root}/there.evt", f"{self.root}/eventlog/Security.evt")
        shown = subprocess.run([f"{BIN}/keldwickctl", "--root", self.root, "check"], capture_output=True, text=True, timeout=60)
        self.assertEqual(1, shown.returncode)
        for line in (r"warning +settings +Heartbeat = 10: is of type sz", r"warning +settings +the agent reads no value Hartbeat",
                     r"failed +settings +IdentServer = id.example:1306: .*the ports are fixed",
                     r"failed +machine root +.*/eventlog/Security.evt: .* is a link"):
            self.assertRegex(shown.stdout, rf"(?m)^{line}")

    def test_a_log_that_was_moved_or_deleted_is_not_taken_for_one_that_is_written(self):
        self.prepare("tcp")
        self.start("-L", wait=False)
        self.until(lambda: "being written" in self.ctl("status"), "the agent writes its log")
        moved = f"{self.root}/eventlog/old.log"
        for away in (lambda: os.rename(f"{self.root}/Keldwick.log", moved), lambda: os.remove(moved)):
            away()
            self.assertRegex(self.ctl("status"), "log file .*not written: the agent writes a file that was deleted or moved away")
        self.tell(self.found()[1], "agent's log", "warning", "deleted or moved away")

    @unittest.skipUnless(os.geteuid() == 0, "only root can be another user")
    def test_what_depends_on_settings_that_may_not_be_read_is_left_out(self):
        self.prepare("tcp")
        os.chmod(self.root, 0o711)
        os.chmod(f"{self.root}/registry.reg", 0o600)
        done = subprocess.run([f"{BIN}/keldwickctl", "--root", self.root, "check"], capture_output=True, text=True, user=65534)
        self.assertRegex(done.stdout, r"(?m)^warning +machine root .*run this as root$")
        self.assertRegex(done.stdout, r"(?m)^failed +settings ")
        self.assertNotRegex(done.stdout, r"(?m)^\w+ +(directory|agent's log|identity server) ")

    @unittest.skipUnless(os.geteuid() == 0, "only root can be another user")
    def test_another_user_sees_what_he_may(self):
        self.prepare("tcp")
        self.start(wait=False)
        os.chmod(self.root, 0o711)
        os.chmod(f"{self.root}/registry.reg", 0o600)
        done = subprocess.run([f"{BIN}/keldwickctl", "--root", self.root, "status"], capture_output=True, text=True, user=65534)
        self.assertEqual(0, done.returncode, done)
        self.assertRegex(done.stdout, r"(?m)^agent +not known")
        self.assertIn("not known        may not look at process", done.stdout)
        self.assertIn("last event", done.stdout)


if __name__ == "__main__":
    unittest.main()
